// What strangers can tell the daemon. First byte: 0 a management section to it (second byte: the flags), 1 an
// answer to its question who an application is (second byte: the status), 2 events of the topology server, 13
// bytes each: kind, lower, upper.
#include <linux/tipc.h>

#include "fuzz_bus.h"
#include "qel_rpc.h"
#include "qel_user_proxy.h"
#include "qeld.h"
#include "qeld_msg.h"

namespace {

// The answer that the next request gets.
const uint8_t *g_answer;
size_t g_answer_len;
uint32_t g_answer_status;

ssize_t answer(int, const void *data, size_t len, int, const sockaddr *, socklen_t) {
    qel_hdr hdr;
    memcpy(&hdr, data, sizeof hdr);
    if (hdr.flags != (QEL_FLAG_MNG | QEL_FLAG_REQUEST))
        return static_cast<ssize_t>(len);
    qel_msg *reply = qel_msg_alloc(static_cast<int32_t>(g_answer_len), 1, 0);
    memcpy(qel_msg_data(reply), g_answer, g_answer_len);
    qel_encode_msg_hdr(reply, 0x0E, be32toh(hdr.dst_app), be32toh(hdr.dst_node), 1, 1, be32toh(hdr.seq),
                       g_answer_status);
    if (qel_rpc_add_reply(reply) != 0)
        free(reply);
    return static_cast<ssize_t>(len);
}

void start() {
    fuzz_bus::start();
    static const qel_port port = [] {
        qel_port p = fuzz_bus::port;
        p.sendto = answer;
        return p;
    }();
    qel_port_set(&port);
}

void check_registry() {
    qeld_registry_copy copy;
    qeld_registry_copy::proc proc;
    uint32_t last_pid = 0, count = 0;
    while (copy.next(&proc)) {
        fuzz_bus::check(count++ == 0 || proc.pid > last_pid, "processes are not ascending");
        last_pid = proc.pid;
        fuzz_bus::check(proc.app_count > 0, "a process without applications");
        for (uint32_t i = 0; i < proc.app_count; i++) {
            fuzz_bus::check(qel_valid_app_id(proc.apps[i]), "no application ID");
            fuzz_bus::check(i == 0 || proc.apps[i] > proc.apps[i - 1], "applications are not ascending");
        }
    }
}

void section(const uint8_t *data, size_t size) {
    qel_msg *msg = qel_msg_alloc(static_cast<int32_t>(size - 1), 1, 0);
    memcpy(qel_msg_data(msg), data + 1, size - 1);
    qel_encode_msg_hdr(msg, data[0], fuzz_bus::peer, fuzz_bus::peer_node, 1, 1, 5, 0);
    qeld_msg_dispatch(msg);
}

void events(const uint8_t *data, size_t size) {
    for (int count = 0; count < 16 && size >= 13; count++, data += 13, size -= 13) {
        tipc_event event{};
        event.event = data[0] & 3;
        event.s.seq.type = data[0] & 4 ? 0 : qel_name_type;
        memcpy(&event.found_lower, data + 1, 4);
        memcpy(&event.found_upper, data + 5, 4);
        // a range of all applications in each input would only cost time
        if (event.s.seq.type && event.found_upper > event.found_lower &&
            event.found_upper - event.found_lower > 0x80000)
            event.found_upper = event.found_lower + 0x80000;
        uint32_t words[3] = {5, 0, 1};
        memcpy(&words[1], data + 9, 4);
        words[0] = data[0] >> 3 ? data[0] >> 3 : 20479;
        uint8_t item[16];
        (void)qel_tlv_set(item, QEL_TLV_APP_INFO, words, sizeof words);
        g_answer = item;
        g_answer_len = sizeof item;
        g_answer_status = 0;
        qeld_process_event(&event);
        if (data[0] & 8) // else the events wait for those behind them
            continue;
        while (qeld_work_step(0)) {
        }
        g_answer_len = 0;
    }
    static const uint8_t none[1] = {};
    g_answer = none;
    g_answer_len = 0;
    while (qeld_work_step(0)) {
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    start();
    if (size < 2 || size > 4096)
        return 0;
    switch (data[0] & 3) {
    case 0:
        section(data + 1, size - 1);
        break;
    case 1:
        g_answer = data + 2;
        g_answer_len = size - 2;
        g_answer_status = data[1] & 7;
        (void)qeld_get_app_info(5);
        break;
    default:
        events(data + 1, size - 1);
        break;
    }
    check_registry();
    qeld_clean_registry();
    return 0;
}
