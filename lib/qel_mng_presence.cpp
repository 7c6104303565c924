// Presence: which instances of the peers are there, on which nodes, and how the applications learn of it.
//
// An instance comes up in steps: its name is published (join: we send it a sync for each local subscriber),
// its own sync arrives (instances), it acknowledges ours (acked, and servers if it is one), and with both
// carrying the same process ID it is online. Only servers are announced to the applications. It goes down at
// once.
#include "qel_mng_int.h"

#include <cerrno>
#include <linux/tipc.h>

#include "qel_flow_ctrl.h"
#include "qel_port.h"
#include "qel_rpc.h"
#include "qel_user_proxy.h"
#include "qel_watchdog.h"

constexpr uint32_t instance_lower(uint32_t app) noexcept { return app << 16; }
constexpr uint32_t instance_upper(uint32_t app) noexcept { return app << 16 | 0xFFFF; }

// ---- peers and their subscribers ------------------------------------------------------------------------

qel_comm_app *__qel_find_comm_app(uint32_t peer_app) noexcept { return g_qel_mng.comm_index.first(peer_app); }

int __qel_add_comm_app(uint32_t app_id, uint32_t peer_app) noexcept {
    QEL_INFO("QEL app %d add comm with %d.\n", static_cast<int>(app_id), static_cast<int>(peer_app));
    qel_comm_app *peer = __qel_find_comm_app(peer_app);
    if (!peer) {
        peer = qel_new<qel_comm_app>();
        peer->peer_app = peer_app;
        g_qel_mng.comm_apps.push_back(peer);
        g_qel_mng.comm_index.insert(peer, peer_app);
    }
    bool there = false;
    for (qel_comm_subscriber &s : peer->subscribers)
        there = there || s.app_id == app_id;
    if (!there) {
        auto *subscriber = qel_new<qel_comm_subscriber>();
        subscriber->app_id = app_id;
        peer->subscribers.push_back(subscriber);
    }
    QEL_INFO("QEL app %d add comm with %d OK.\n", static_cast<int>(app_id), static_cast<int>(peer_app));
    return 0;
}

int qel_add_comm_app(uint32_t app_id, uint32_t peer_app) noexcept {
    if (!qel_get_app_info(app_id)) {
        QEL_ERROR("QEL app %d does not registered.\n", static_cast<int>(app_id));
        return -ENOENT;
    }
    qel_lock lock(g_lib_mutex);
    return __qel_add_comm_app(app_id, peer_app);
}

void __qel_del_comm_app(uint32_t app_id) noexcept {
    for (qel_comm_app &peer : g_qel_mng.comm_apps) {
        for (qel_comm_subscriber &s : peer.subscribers) {
            if (s.app_id != app_id)
                continue;
            peer.subscribers.unlink(&s);
            qel_delete(&s);
            break;
        }
        if (!peer.subscribers.empty())
            continue;
        // With time-out 0, which the kernel never takes for the record that was subscribed with: at this
        // point of a process's life nothing has been subscribed yet.
        qel_cancel_app_events(instance_lower(peer.peer_app), instance_upper(peer.peer_app), 0);
        g_qel_mng.comm_apps.unlink(&peer);
        g_qel_mng.comm_index.remove(&peer);
        qel_delete(&peer);
    }
}

// ---- subscriptions --------------------------------------------------------------------------------------

static_assert(sizeof(tipc_subscr) == 28 && sizeof(tipc_event) == 48);

// 0, or an error number; what passes by itself is tried again at once.
static int send_subscription(const tipc_subscr &subscr) noexcept {
    const int32_t sd = g_qel_mng.subscription_socket.load(std::memory_order_relaxed);
    for (;;) {
        errno = 0;
        if (qel_port_get().send(sd, &subscr, sizeof subscr, MSG_NOSIGNAL) == ssize_t{sizeof subscr})
            return 0;
        const int error = errno;
        if (error != ENOBUFS && error != EINTR && error != ENOMEM)
            return error ? error : EIO;
    }
}

static tipc_subscr subscription(uint32_t type, uint32_t lower, uint32_t upper, uint32_t timeout,
                                uint32_t filter) noexcept {
    tipc_subscr s{};
    s.seq.type = type;
    s.seq.lower = lower;
    s.seq.upper = upper;
    s.timeout = timeout;
    s.filter = filter;
    return s;
}

int qel_subscr_app_events(uint32_t lower, uint32_t upper) noexcept {
    QEL_INFO("QEL subscribe TIPC instance [0x%x, 0x%x] event.\n", lower, upper);
    const int error = send_subscription(subscription(
        qel_name_type, lower, upper, static_cast<uint32_t>(TIPC_WAIT_FOREVER), TIPC_SUB_SERVICE));
    if (error == 0)
        return 0;
    QEL_ERROR("QEL send subscription msg failed: %s.\n,", strerror(error));
    return -1;
}

int qel_cancel_app_events(uint32_t lower, uint32_t upper, uint32_t timeout) noexcept {
    QEL_INFO("QEL cancel TIPC subscription instance [0x%x, 0x%x] event.\n", lower, upper);
    const int error = send_subscription(
        subscription(qel_name_type, lower, upper, timeout, TIPC_SUB_SERVICE | TIPC_SUB_CANCEL));
    if (error == 0)
        return 0;
    QEL_ERROR("QEL send canceling subscription msg failed: %s.\n,", strerror(error));
    return -1;
}

// A one-shot timer: nobody publishes {1, 0}, so the server answers with the time-out and nothing else.
static tipc_subscr timer(uint32_t seconds, uint32_t type, uint32_t seq, uint32_t filter) noexcept {
    tipc_subscr s = subscription(TIPC_TOP_SRV, 0, 0, seconds * 1000, filter);
    memcpy(s.usr_handle, &type, sizeof type);
    memcpy(s.usr_handle + sizeof type, &seq, sizeof seq);
    return s;
}

int qel_subscr_timer_event(uint32_t seconds, uint32_t type, uint32_t seq) noexcept {
    QEL_VERBOSE("QEL add timer event type %d, seq %d.\n", static_cast<int>(type), static_cast<int>(seq));
    const int error = send_subscription(timer(seconds, type, seq, TIPC_SUB_SERVICE));
    if (error == 0)
        return 0;
    QEL_ERROR("QEL send timer subscription msg failed: %s.\n,", strerror(error));
    return -1;
}

void qel_cancel_timer_event(uint32_t seconds, uint32_t type, uint32_t seq) noexcept {
    (void)send_subscription(timer(seconds, type, seq, TIPC_SUB_SERVICE | TIPC_SUB_CANCEL));
}

void qel_subscr_tipc_events(const char *watchdog_name) noexcept {
    qel_lock lock(g_lib_mutex);
    for (qel_comm_app &peer : g_qel_mng.comm_apps) {
        qel_watchdog_feed(watchdog_name);
        (void)qel_subscr_app_events(instance_lower(peer.peer_app), instance_upper(peer.peer_app));
    }
}

// ---- questions ------------------------------------------------------------------------------------------

void qel_get_app_server(uint32_t peer_app, qel_node_map *map) noexcept {
    qel_lock lock(g_lib_mutex);
    const qel_comm_app *peer = __qel_find_comm_app(peer_app);
    if (peer)
        map->assign_and(peer->servers, peer->online);
    else
        map->reset();
}

int qel_app_online(uint32_t peer_app, uint32_t node) noexcept {
    qel_lock lock(g_lib_mutex);
    const qel_comm_app *peer = __qel_find_comm_app(peer_app);
    return peer && peer->online.test(node);
}

// ---- events ---------------------------------------------------------------------------------------------

qel_msg *qel_new_event_msg(uint32_t app_id, uint32_t event, uint32_t node, uint32_t peer_app) noexcept {
    const qel_app_event record = {app_id, event, node, peer_app};
    qel_msg *msg = qel_msg_alloc(sizeof record, 1, 0);
    QEL_ASSERT(msg != NULL);
    msg->hdr.flags = QEL_FLAG_MNG;
    memcpy(qel_msg_data(msg), &record, sizeof record);
    return msg;
}

void __qel_notify_event(qel_event_batch &batch, uint32_t app_id, uint32_t event, uint32_t node,
                        uint32_t peer_app) noexcept {
    qel_msg *msg = qel_new_event_msg(app_id, event, node, peer_app);
    const qel_app_info *app = qel_get_app_info(app_id);
    if (app && !app->thread_flag)
        batch.events.push_back(msg);
    else if (qel_enqueue_event_msg(app_id, msg) != 0)
        free(msg);
}

void qel_event_batch::deliver() noexcept {
    while (qel_msg *msg = events.pop_front()) {
        qel_app_event record;
        memcpy(&record, qel_msg_data(msg), sizeof record);
        if (qel_enqueue_event_msg(record.app_id, msg) != 0)
            free(msg);
    }
}

// ---- up -------------------------------------------------------------------------------------------------

void qel_app_inst_join(uint32_t peer_app, uint32_t node, uint32_t resume) noexcept {
    qel_lock lock(g_lib_mutex);
    __qel_clear_resume_comm(peer_app, node);
    qel_comm_app *peer = __qel_find_comm_app(peer_app);
    if (!peer)
        return;
    if (peer->online.test(node)) {
        QEL_WARN("QEL app %d/%d had already online.\n", static_cast<int>(peer_app), static_cast<int>(node));
        return;
    }
    for (qel_comm_subscriber &s : peer->subscribers)
        if (qel_sync_app_inst(s.app_id, node, peer_app, qel_is_app_server(s.app_id), resume) != 0)
            QEL_ERROR("QEL send app %d server notification to %d/%d failed.\n", static_cast<int>(s.app_id),
                      static_cast<int>(peer_app), static_cast<int>(node));
}

static void set_bit(uint32_t peer_app, uint32_t node, qel_node_map qel_comm_app::*map,
                    const char *what) noexcept {
    qel_lock lock(g_lib_mutex);
    qel_comm_app *peer = __qel_find_comm_app(peer_app);
    if (peer)
        (peer->*map).set(node);
    else
        QEL_ERROR("QEL get app %d online status for %s setting failed.\n", static_cast<int>(peer_app), what);
}

void qel_set_app_server(uint32_t peer_app, uint32_t node) noexcept {
    set_bit(peer_app, node, &qel_comm_app::servers, "server");
}
void qel_set_app_inst(uint32_t peer_app, uint32_t node) noexcept {
    set_bit(peer_app, node, &qel_comm_app::instances, "inst");
}
void qel_set_app_inst_ack(uint32_t peer_app, uint32_t node) noexcept {
    set_bit(peer_app, node, &qel_comm_app::acked, "inst ack");
}

void qel_try_notify_app_join(uint32_t app_id, uint32_t node, uint32_t peer_app) noexcept {
    {
        qel_lock lock(g_lib_mutex);
        qel_comm_app *peer = __qel_find_comm_app(peer_app);
        if (!peer) {
            QEL_ERROR("QEL get app %d online status failed.\n", static_cast<int>(peer_app));
            return;
        }
        if (!peer->instances.test(node) || !peer->acked.test(node))
            return;
        const qel_inst_sync_id *ids = __qel_find_inst_sync_id(app_id, peer_app, node);
        if (!ids || ids->sync_id != ids->ack_id) {
            QEL_WARN("QEL app %d to %d/%d instance id not equal.\n", static_cast<int>(app_id),
                     static_cast<int>(peer_app), static_cast<int>(node));
            peer->instances.clear(node);
            return;
        }
        QEL_INFO("QEL set app %d/%d online.\n", static_cast<int>(peer_app), static_cast<int>(node));
        peer->online.set(node);
        if (!peer->servers.test(node))
            return; // only servers are announced
    }
    qel_fc_adjust_statistics(app_id, peer_app, node);
    qel_msg *msg = qel_new_event_msg(app_id, QEL_EVENT_JOIN, node, peer_app);
    if (qel_enqueue_event_msg(app_id, msg) != 0)
        free(msg);
}

// ---- down -----------------------------------------------------------------------------------------------

// The server bit falls at the first subscriber, so only that one has its calls ended (and gets the event);
// the later ones find the bit clear. Known and kept.
static bool take_server_bit(qel_comm_app *peer, uint32_t app_id, uint32_t node) noexcept
    QEL_REQUIRES(g_lib_mutex) {
    if (!peer->servers.test(node))
        return false;
    peer->servers.clear(node);
    (void)qel_terminate_rpc(app_id, peer->peer_app, node);
    return true;
}

void __qel_app_inst_quit(qel_comm_app *peer, uint32_t peer_app, uint32_t node,
                         qel_event_batch &batch) noexcept {
    QEL_INFO("QEL clear app %d/%d online.\n", static_cast<int>(peer_app), static_cast<int>(node));
    peer->instances.clear(node);
    peer->acked.clear(node);
    peer->online.clear(node);
    for (qel_comm_subscriber &s : peer->subscribers) {
        qel_fc_reset_unack(s.app_id, peer_app, node);
        qel_discard_app_msg(s.app_id, peer_app, node);
        if (!take_server_bit(peer, s.app_id, node))
            continue;
        QEL_INFO("QEL notify app %d of %d/%d quit.\n", static_cast<int>(s.app_id), static_cast<int>(peer_app),
                 static_cast<int>(node));
        __qel_notify_event(batch, s.app_id, QEL_EVENT_QUIT, node, peer_app);
    }
}

// An instance that never came online goes without an event.
static void __qel_app_inst_gone(qel_comm_app *peer, uint32_t node) noexcept QEL_REQUIRES(g_lib_mutex) {
    peer->acked.clear(node);
    for (qel_comm_subscriber &s : peer->subscribers) {
        qel_fc_reset_unack(s.app_id, peer->peer_app, node);
        (void)take_server_bit(peer, s.app_id, node);
    }
}

void qel_app_inst_try_quit(uint32_t peer_app, uint32_t node) noexcept {
    qel_event_batch batch;
    {
        qel_lock lock(g_lib_mutex);
        __qel_clear_resume_comm(peer_app, node);
        qel_comm_app *peer = __qel_find_comm_app(peer_app);
        if (peer && peer->online.test(node))
            __qel_app_inst_quit(peer, peer_app, node, batch);
    }
    batch.deliver();
}

void qel_app_inst_force_quit(uint32_t peer_app, uint32_t node) noexcept {
    qel_event_batch batch;
    {
        qel_lock lock(g_lib_mutex);
        __qel_clear_sync_inst_msg(peer_app, node);
        __qel_clear_resume_comm(peer_app, node);
        qel_comm_app *peer = __qel_find_comm_app(peer_app);
        if (!peer)
            return;
        if (peer->online.test(node)) {
            __qel_app_inst_quit(peer, peer_app, node, batch);
        } else {
            peer->instances.clear(node);
            __qel_app_inst_gone(peer, node);
        }
    }
    batch.deliver();
}

// Differs from a forced quit in one point, on purpose: an instance that is not online keeps its instances
// bit. Its sync may have overtaken the withdrawal of its predecessor.
void qel_app_inst_withdrawn(uint32_t peer_app, uint32_t node) noexcept {
    qel_event_batch batch;
    {
        qel_lock lock(g_lib_mutex);
        __qel_clear_sync_inst_msg(peer_app, node);
        __qel_clear_resume_comm(peer_app, node);
        qel_comm_app *peer = __qel_find_comm_app(peer_app);
        if (!peer)
            return;
        if (peer->online.test(node))
            __qel_app_inst_quit(peer, peer_app, node, batch);
        else
            __qel_app_inst_gone(peer, node);
    }
    batch.deliver();
}
