// Events of the topology server, 48 bytes each.
#include <linux/tipc.h>

#include "fuzz_bus.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_bus::start();
    for (int events = 0; events < 4 && size >= sizeof(tipc_event);
         events++, data += sizeof(tipc_event), size -= sizeof(tipc_event)) {
        tipc_event event;
        memcpy(&event, data, sizeof event);
        // The server answers our own subscriptions; a wide range in each input would only cost time.
        const uint32_t lower = event.found_lower > event.s.seq.lower ? event.found_lower : event.s.seq.lower;
        if (event.found_lower != event.found_upper && event.s.seq.upper - lower > 15)
            event.s.seq.upper = lower + 15;
        qel_rx_topology_event(&event);
    }
    fuzz_bus::forget_now_and_then();
    return 0;
}
