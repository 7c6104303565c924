// Shared by the qel_mng files only: qel_mng.cpp (state, registration, prints), qel_mng_rx.cpp (the library
// thread), qel_mng_presence.cpp (who is there), qel_mng_sync.cpp (records of the handshake and of resume).
//
// A peer's instance (application P on node N) is seen by this process in four sets of nodes: instances (its
// sync came), acked (it acknowledged ours), servers (its acknowledgement said so), online (both, with the
// same process ID in sync and acknowledgement). It is a destination while it is in servers and in online.
//
// Names with two leading underscores expect g_lib_mutex to be held.
#ifndef QEL_MNG_INT_H
#define QEL_MNG_INT_H

#ifndef QEL_LOG_SRC
#define QEL_LOG_SRC "qel_mng" // one source name for all qel_mng files
#endif
#include "qel_app_info.h"
#include "qel_log.h"
#include "qel_mng.h"
#include "qel_node_map.h"

struct qel_comm_subscriber {
    qel_link link{};
    uint32_t app_id = 0; // a local application
};

struct qel_comm_app {
    qel_link link{};
    qel_hash_hook by_peer{}; // key: the application
    uint32_t peer_app = 0;
    qel_node_map servers, instances, acked, online;
    qel_list<qel_comm_subscriber, offsetof(qel_comm_subscriber, link)> subscribers;
};

// A sync that was sent and is not acknowledged.
struct qel_unack_sync {
    qel_link link{};
    qel_hash_hook by_peer{}; // key: qel_peer_key of the destination; several may share it
    qel_msg *msg = nullptr;  // header in host order, section as sent
};

// The process IDs that a peer instance gave in its sync and in its acknowledgement, per local application.
struct qel_inst_sync_id {
    qel_hash_hook by_pair{};          // key: local application, peer application, node
    uint32_t sync_id = 0, ack_id = 0; // 0: none came yet
};

// A peer instance whose handshake is to be started anew when its timer expires.
struct qel_resume_comm {
    qel_link link{};
    qel_hash_hook by_peer{}; // key: qel_peer_key
    uint32_t timer_seq = 0;
    uint32_t src_app = 0; // never filled; the prints show it
    uint32_t peer_app = 0, peer_node = 0;
};

// A sync acknowledgement, or a sync, that is to be sent again when its timer expires. The header's seq is the
// timer's.
struct qel_resend_sync {
    qel_link link{};
    qel_hash_hook by_seq{}; // key: header seq
    qel_msg *msg = nullptr;
};

// Each record of these two lists holds one of the 65,535 subscriptions that the kernel allows per node.
constexpr size_t qel_resume_list_max = 4096;
constexpr size_t qel_resend_list_max = 4096;

struct qel_mng_state {
    uint8_t running QEL_GUARDED_BY(g_lib_mutex) = 0;
    std::atomic<uint8_t> blocked_resume{0};
    // Written by registration before the library thread goes on, then by that thread only.
    std::atomic<int32_t> subscription_socket{-1};
    pthread_t thread{}; // set before the thread may go on
    qel_gate gate;
    qel_cond running_cond;
    qel_list<qel_comm_app, offsetof(qel_comm_app, link)> comm_apps QEL_GUARDED_BY(g_lib_mutex);
    qel_hash<qel_comm_app, offsetof(qel_comm_app, by_peer)> comm_index QEL_GUARDED_BY(g_lib_mutex);
    qel_hash<qel_inst_sync_id, offsetof(qel_inst_sync_id, by_pair)> sync_ids QEL_GUARDED_BY(g_lib_mutex);
    qel_list<qel_unack_sync, offsetof(qel_unack_sync, link)> unacks QEL_GUARDED_BY(g_lib_mutex);
    qel_hash<qel_unack_sync, offsetof(qel_unack_sync, by_peer)> unack_index QEL_GUARDED_BY(g_lib_mutex);
    qel_list<qel_resume_comm, offsetof(qel_resume_comm, link)> resumes QEL_GUARDED_BY(g_lib_mutex);
    qel_hash<qel_resume_comm, offsetof(qel_resume_comm, by_peer)> resume_index QEL_GUARDED_BY(g_lib_mutex);
    qel_list<qel_resend_sync, offsetof(qel_resend_sync, link)> resends QEL_GUARDED_BY(g_lib_mutex);
    qel_hash<qel_resend_sync, offsetof(qel_resend_sync, by_seq)> resend_index QEL_GUARDED_BY(g_lib_mutex);
    qel_app_mng apps[qel_app_slots];
};
extern qel_mng_state g_qel_mng;

constexpr uint64_t qel_peer_key(uint32_t app, uint32_t node) noexcept { return uint64_t{app} << 32 | node; }

// ---- events on their way to applications ----------------------------------------------------------------

// Events that came up under the lock for applications without a thread. Their callbacks run on this thread
// and may call anything, so they wait here until the lock is released; nothing else is received in between.
struct qel_event_batch {
    qel_msg_queue events;
    void deliver() noexcept QEL_EXCLUDES(g_lib_mutex);
};
// Tells @app_id of a join or quit: queues the event for its thread, or puts it into @batch.
void __qel_notify_event(qel_event_batch &batch, uint32_t app_id, uint32_t event, uint32_t node,
                        uint32_t peer_app) noexcept QEL_REQUIRES(g_lib_mutex);
qel_msg *qel_new_event_msg(uint32_t app_id, uint32_t event, uint32_t node, uint32_t peer_app) noexcept;

// ---- qel_mng_rx.cpp -------------------------------------------------------------------------------------

void *qel_socket_msg_dist_thread_fun(void *) noexcept;
// The thread's steps, one by one, for tests and fuzzing; library thread only.
void qel_rx_topology_event(const void *bytes) noexcept; // 48 bytes
void qel_rx_app_socket(uint32_t index) noexcept;        // one message from the slot's socket

// Timer types: the first word of a timer subscription's handle.
enum qel_timer_type : uint32_t { QEL_TIMER_RESUME = 0, QEL_TIMER_RESEND = 1, QEL_TIMER_MONITOR = 2 };
constexpr uint32_t qel_resume_s = 60, qel_resend_s = 1, qel_monitor_first_s = 1800, qel_monitor_step_s = 3600;

// ---- qel_mng_presence.cpp -------------------------------------------------------------------------------

int __qel_add_comm_app(uint32_t app_id, uint32_t peer_app) noexcept QEL_REQUIRES(g_lib_mutex);
// Takes @app_id out of every peer's subscribers; a peer nobody is left for is no longer subscribed to.
void __qel_del_comm_app(uint32_t app_id) noexcept QEL_REQUIRES(g_lib_mutex);
qel_comm_app *__qel_find_comm_app(uint32_t peer_app) noexcept QEL_REQUIRES(g_lib_mutex);

void qel_subscr_tipc_events(const char *watchdog_name) noexcept;
// Take no lock. 0 or -1.
int qel_subscr_app_events(uint32_t lower, uint32_t upper) noexcept;
int qel_subscr_timer_event(uint32_t seconds, uint32_t type, uint32_t seq) noexcept;
// Takes back a timer that was started so. One that cannot be taken back expires, and finds no record.
void qel_cancel_timer_event(uint32_t seconds, uint32_t type, uint32_t seq) noexcept;
// Cancels a subscription to [@lower, @upper]. The kernel matches the whole record, the time-out included.
int qel_cancel_app_events(uint32_t lower, uint32_t upper, uint32_t timeout) noexcept;

void qel_set_app_server(uint32_t peer_app, uint32_t node) noexcept;
void qel_set_app_inst(uint32_t peer_app, uint32_t node) noexcept;
void qel_set_app_inst_ack(uint32_t peer_app, uint32_t node) noexcept;
void qel_try_notify_app_join(uint32_t app_id, uint32_t node, uint32_t peer_app) noexcept;
void qel_app_inst_join(uint32_t peer_app, uint32_t node, uint32_t resume) noexcept;
void qel_app_inst_try_quit(uint32_t peer_app, uint32_t node) noexcept;
void qel_app_inst_force_quit(uint32_t peer_app, uint32_t node) noexcept;
// The topology server withdrew the instance's name.
void qel_app_inst_withdrawn(uint32_t peer_app, uint32_t node) noexcept;
void __qel_app_inst_quit(qel_comm_app *peer, uint32_t peer_app, uint32_t node,
                         qel_event_batch &batch) noexcept QEL_REQUIRES(g_lib_mutex);

// ---- qel_mng_sync.cpp -----------------------------------------------------------------------------------

void qel_update_inst_sync_id(uint32_t app_id, uint32_t peer_app, uint32_t node, uint32_t id) noexcept;
void qel_update_inst_sync_ack_id(uint32_t app_id, uint32_t peer_app, uint32_t node, uint32_t id) noexcept;
qel_inst_sync_id *__qel_find_inst_sync_id(uint32_t app_id, uint32_t peer_app, uint32_t node) noexcept
    QEL_REQUIRES(g_lib_mutex);
// The process ID of the peer's last sync, 0 when none came.
uint32_t qel_get_inst_sync_id(uint32_t app_id, uint32_t peer_app, uint32_t node) noexcept;

void __qel_add_inst_sync_msg(qel_msg *msg) noexcept QEL_REQUIRES(g_lib_mutex); // owns @msg from now on
qel_unack_sync *__qel_find_inst_sync_msg(uint32_t app_id, uint32_t peer_app, uint32_t node,
                                         uint32_t seq) noexcept QEL_REQUIRES(g_lib_mutex);
// A sync to the instance waits for its acknowledgement.
bool qel_is_sync_under_way(uint32_t peer_app, uint32_t node) noexcept;
int qel_del_inst_sync_msg(uint32_t app_id, uint32_t peer_app, uint32_t node,
                          uint32_t seq) noexcept; // 0 or -2
void __qel_clear_sync_inst_msg(uint32_t peer_app, uint32_t node) noexcept QEL_REQUIRES(g_lib_mutex);
void __qel_clear_resume_comm(uint32_t peer_app, uint32_t node) noexcept QEL_REQUIRES(g_lib_mutex);
void qel_try_resume_comm(uint32_t peer_app, uint32_t node) noexcept;
void qel_resume_timer_expired(uint32_t timer_seq) noexcept;

// Keeps a sync or acknowledgement for another try in a second. @msg becomes the list's, header in host order;
// its counter is lowered here. False, and @msg stays the caller's, when the list is full, no try is left or
// the timer cannot be started.
bool qel_add_sync_resend(qel_msg *msg) noexcept;
void qel_resend_timer_expired(uint32_t timer_seq) noexcept;
// Starts the timers of both lists anew, after the topology connection and with it every timer was lost.
void qel_restart_sync_timers() noexcept;

// ---- qel_mng_msg.cpp ------------------------------------------------------------------------------------

int32_t qel_sync_app_inst(uint32_t app_id, uint32_t node, uint32_t peer_app, bool server,
                          uint32_t resume) noexcept QEL_REQUIRES(g_lib_mutex);
int32_t qel_sync_app_inst_ack(uint32_t app_id, uint32_t node, uint32_t peer_app, uint32_t seq,
                              bool server) noexcept QEL_EXCLUDES(g_lib_mutex);

#endif
