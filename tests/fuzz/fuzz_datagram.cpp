// Any datagram on an application's socket. The first byte chooses the socket.
#include "fuzz_bus.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_bus::start();
    if (size < 2)
        return 0;
    fuzz_bus::data = data + 1;
    fuzz_bus::data_len = size - 1;
    fuzz_bus::control_len = 0;
    qel_rx_app_socket(data[0] & 1);
    fuzz_bus::forget_now_and_then();
    return 0;
}
