// The sections of management and synchronisation messages, behind a header that passes every check: first
// byte the flags, second the sender (the online peer, a stranger, the daemon), third the socket; the rest is
// the section.
#include "fuzz_bus.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_bus::start();
    if (size < 3 || size > 4096)
        return 0;
    const uint32_t senders[] = {fuzz_bus::peer, 4711, 1, fuzz_bus::app};
    const uint32_t slot = data[2] & 1, receiver = slot ? 1 : fuzz_bus::app;
    qel_msg *msg = qel_msg_alloc(static_cast<int32_t>(size - 3), data[2] >> 1 & 3, 0);
    memcpy(qel_msg_data(msg), data + 3, size - 3);
    qel_encode_msg_hdr(msg, data[0], senders[data[1] & 3], fuzz_bus::peer_node, receiver, 1, 5, data[1] >> 4);
    const size_t len = msg->hdr.len;
    qel_hdr_to_net(&msg->hdr, len);
    fuzz_bus::data = reinterpret_cast<const uint8_t *>(&msg->hdr);
    fuzz_bus::data_len = len;
    fuzz_bus::control_len = 0;
    qel_rx_app_socket(slot);
    free(msg);
    fuzz_bus::forget_now_and_then();
    return 0;
}
