// A process on the bus for fuzzing: application 100 with peer 102 online on node 7, and the daemon's
// application 1, both without threads, over a transport that takes every send and gives out what the target
// puts in. The library thread is never released, so the targets call its steps themselves.
#ifndef FUZZ_BUS_H
#define FUZZ_BUS_H

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "qel_mng_int.h"
#include "qel_mng_msg.h"
#include "qel_port.h"

namespace fuzz_bus {

constexpr uint32_t app = 100, peer = 102, peer_node = 7;

// What the next recvmsg gives.
inline const uint8_t *data, *control;
inline size_t data_len, control_len;

inline const qel_port port = {
    .name = "fuzz",
    .socket = [](int, int, int) { return dup(0); },
    .bind = [](int, const sockaddr *, socklen_t) { return 0; },
    .connect = [](int, const sockaddr *, socklen_t) { return 0; },
    .setsockopt = [](int, int, int, const void *, socklen_t) { return 0; },
    .getsockopt =
        [](int, int, int, void *value, socklen_t *len) {
            const int type = SOCK_RDM;
            memcpy(value, &type, sizeof type);
            *len = sizeof type;
            return 0;
        },
    .sendto = [](int, const void *, size_t len, int, const sockaddr *, socklen_t) { return ssize_t(len); },
    .send = [](int, const void *, size_t len, int) { return ssize_t(len); },
    .recvmsg =
        [](int, msghdr *msg, int) {
            const size_t len = data_len < msg->msg_iov->iov_len ? data_len : msg->msg_iov->iov_len;
            if (len)
                memcpy(msg->msg_iov->iov_base, data, len);
            if (control_len > msg->msg_controllen)
                control_len = msg->msg_controllen;
            if (control_len)
                memcpy(msg->msg_control, control, control_len);
            msg->msg_controllen = control_len;
            return ssize_t(len);
        },
    .recv = [](int, void *, size_t, int) { return ssize_t(-1); },
    .poll = [](pollfd *, nfds_t, int) { return 0; },
    .shutdown = [](int, int) { return 0; },
    .close = [](int fd) { return close(fd); },
    .fcntl = [](int, int, long) { return 0; },
};

inline void check(bool ok, const char *what) {
    if (ok)
        return;
    fprintf(stderr, "fuzz bus: %s\n", what);
    abort();
}

// A directory with this node's address and an empty configuration; gone again before this returns, but for
// the address, which the library keeps.
inline void load_node_address() {
    char dir[] = "/tmp/qel-fuzz.XXXXXX";
    check(mkdtemp(dir) != nullptr, "no directory");
    const std::string root = dir, address = root + "/tmp/addr/.qel_node_addr";
    for (const char *sub : {"/tmp", "/tmp/addr", "/etc"})
        check(mkdir((root + sub).c_str(), 0700) == 0, "no directory");
    FILE *file = fopen(address.c_str(), "w");
    check(file && fputs("1\n", file) >= 0 && fclose(file) == 0, "no address file");
    setenv("QEL_ROOT", dir, 1);
    qel_port_set(&port);
    const qel_dispatcher table[] = {{1,
                                     [](qel_msg *msg) {
                                         qel_rpc_reply(msg, msg, 0);
                                         free(msg);
                                     }},
                                    {0, nullptr}};
    const auto on_event = [](qel_app_event) {};
    check(qel_register_without_thread(app, "fuzz", table, on_event) == 0, "register");
    check(qel_register_without_thread(1, "daemon", table, on_event) == 0, "register");
    check(qel_comm_with(app, peer) == 0, "comm");
    remove(address.c_str());
    for (const char *sub : {"/tmp/addr", "/tmp", "/etc", ""})
        rmdir((root + sub).c_str());
}

inline void start() {
    static bool started = false;
    if (!started)
        load_node_address();
    started = true;
    if (qel_app_online(peer, peer_node))
        return;
    qel_update_inst_sync_id(app, peer, peer_node, 9);
    qel_update_inst_sync_ack_id(app, peer, peer_node, 9);
    qel_set_app_inst(peer, peer_node);
    qel_set_app_inst_ack(peer, peer_node);
    qel_set_app_server(peer, peer_node);
    qel_try_notify_app_join(app, peer_node, peer);
    check(qel_app_online(peer, peer_node), "not online");
}

// Pending syncs of joins that nobody acknowledges would fill memory over millions of runs.
inline void forget_now_and_then() {
    static uint32_t runs = 0;
    if (++runs % 65536 != 0)
        return;
    for (uint32_t node = 0; node < qel_node_count; node++)
        for (const uint32_t a : {app, peer, 1u})
            qel_app_inst_withdrawn(a, node);
}

} // namespace fuzz_bus

#endif
