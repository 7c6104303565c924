// Behind the public operations of registration, sending and remote procedure calls (qel.h): the application's
// socket and name, the sequence counter, and the steps of a call. Any thread.
#ifndef QEL_USER_PROXY_H
#define QEL_USER_PROXY_H

#include <cstdint>
#include <linux/tipc.h>

#include "qel/qel.h"

constexpr uint32_t qel_name_type = 2303; // the one TIPC name type of the whole bus

// The TIPC name instance of an application on a node.
constexpr uint32_t qel_name_instance(uint32_t app, uint32_t node) noexcept {
    return app << 16 | (node & 0xFFFF);
}
// The TIPC name as a socket address.
sockaddr_tipc qel_name_addr(uint32_t type, uint32_t instance) noexcept;

// A socket with the importance @priority that drops nothing silently, or -1.
int32_t qel_create_app_socket(int32_t app_id, int32_t priority) noexcept;
// Publishes the application's name. 0 or -1; lack of memory in the kernel is waited out.
int qel_bind_app_socket(int32_t app_id, int32_t sd) noexcept;
// 0 or -1. @fd is a descriptor of the port.
int qel_set_fd_close_on_exec(int32_t fd) noexcept;

// Seeds the sequence counter; the next number, never 0. Two threads at the same moment may get the same one.
void qel_init_seq() noexcept;
uint32_t qel_get_seq() noexcept;
void qel_set_seq_for_test(uint32_t seq) noexcept;

int qel_app_register(int32_t app_id, const char *name, const qel_dispatcher *dispatchers,
                     qel_event_fun event_cb, uint8_t thread_flag) noexcept;

#endif
