// The record of an application registered here: identity, socket, dispatchers, event callback, inbound queue,
// groups; and the proxy thread that takes messages and events from the queue in order of arrival.
//
// Records are made by registration and live as long as the process. Fields above the mutex never change after
// that; what the mutex guards is marked. Dispatchers and callbacks never run under it.
#ifndef QEL_APP_INFO_H
#define QEL_APP_INFO_H

#include "qel_base.h"
#include "qel_mc.h"

using qel_msg_queue = qel_list<qel_msg, offsetof(qel_msg, link)>;

struct qel_app_info {
    int32_t app_id = 0;
    int32_t sd = -1; // socket of the port
    int32_t priority = 0;
    char name[32] = "";
    uint8_t thread_flag = 0; // non-zero: has a proxy thread
    pthread_t thread{};
    qel_event_fun event_cb = nullptr;
    qel_dispatcher *dispatchers = nullptr; // a copy with an all-zero entry behind the last

    qel_mutex mutex;
    qel_cond cond; // something was queued
    qel_msg_queue queue QEL_GUARDED_BY(mutex);
    std::atomic<uint64_t> last_wait_ns{0}; // of the proxy thread
    qel_mc_state mc QEL_GUARDED_BY(mutex);
    // A new proxy thread waits here until its registration has succeeded or is undone: undoing joins the
    // thread while it holds the library lock, so the thread must not need that lock before.
    qel_gate gate;
};

// A new record with its socket and, with @thread_flag, its thread held at the gate; null after an error line.
qel_app_info *qel_add_app_info(int32_t app_id, const char *name, uint8_t thread_flag, int32_t count,
                               const qel_dispatcher *dispatchers, qel_event_fun event_cb) noexcept;
// Undoes qel_add_app_info before the gate was opened.
void qel_del_app_info(qel_app_info *app) noexcept;

// The record or its socket; null or -1 when the application is not registered here. Any thread, no lock.
qel_app_info *qel_get_app_info(uint32_t app_id) noexcept;
int32_t qel_get_app_sd(uint32_t app_id) noexcept;

// Hands @msg over to the application: to its queue, or without a thread straight to its dispatcher. Library
// thread, no lock held.
void qel_enqueue_msg_dist(qel_msg *msg, qel_app_info *app) noexcept;
// The same for an event message. 0, or -1 (no such application or no callback) and @msg stays the caller's.
// With a proxy thread under any lock but the record's; without one it runs the callback, so no lock held.
int qel_enqueue_event_msg(uint32_t app_id, qel_msg *msg) noexcept;

void qel_dispatch_app_msg(qel_app_info *app, qel_msg *msg) noexcept;
void qel_dispatch_app_event(uint32_t app_id, qel_event_fun event_cb, qel_msg *msg) noexcept;

// The dispatcher of the first table entry with this version, or null.
qel_dispatch_fun qel_get_dispatch_fun(const qel_app_info *app, uint32_t ver) noexcept;
struct qel_ver_range {
    uint32_t lowest, highest;
};
// Of an empty table: lowest 0xFFFFFFFF, highest 0.
qel_ver_range qel_get_app_ver_range(const qel_app_info *app) noexcept;
// Registered here with at least one dispatcher.
bool qel_is_app_server(uint32_t app_id) noexcept;

// Frees what the peer instance has in the application's queue and reports the number to flow control.
void qel_discard_app_msg(uint32_t app_id, uint32_t src_app, uint32_t src_node) noexcept;
// How many messages of the peer instance wait in the queue.
int32_t qel_unprocess_app_msg_num(uint32_t app_id, uint32_t src_app, uint32_t src_node) noexcept;

void qel_cli_print_app_info(uint32_t app_id) noexcept QEL_REQUIRES(g_print_mutex);

#endif
