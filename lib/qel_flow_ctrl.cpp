// The counters are 32 bits wide and wrap; what is outstanding towards a peer is compared as a signed number,
// for an acknowledgement that comes after a reset drives it below zero, which must not look like four
// thousand million.
//
// Which destinations are blocked is kept up to date with every change of a counter (blocked_dst), so that
// admission looks at one entry and not at every peer the application ever sent to.
#include "qel_flow_ctrl.h"

#include <algorithm>
#include <cerrno>

#define QEL_LOG_SRC "qel_flow_ctrl"
#include "qel_app_info.h"
#include "qel_log.h"
#include "qel_mng.h"
#include "qel_mng_msg.h"
#include "qel_watchdog.h"

constexpr uint32_t wait_slice_s = 60, first_diagnosis = 5, reload_at = 15; // time-outs of a minute each

// How many instances of a destination application are blocked.
struct blocked_dst {
    qel_hash_hook by_app{};
    uint32_t count = 0;
};

// What was sent to one peer.
struct qel_send_app_fc {
    qel_link link{};
    qel_hash_hook by_peer{};
    uint32_t peer_app = 0, peer_node = 0;
    uint32_t send = 0, unack = 0, reject = 0, rpc_reply_reject = 0;
    blocked_dst *dst = nullptr;

    [[nodiscard]] bool blocked() const noexcept {
        return static_cast<int32_t>(unack) > qel_fc_unack_max_msgs;
    }
    void set_unack(uint32_t value) noexcept {
        const bool before = blocked();
        unack = value;
        dst->count += static_cast<uint32_t>(blocked()) - static_cast<uint32_t>(before);
    }
};

// What was received from one peer.
struct qel_recv_app_fc {
    qel_link link{};
    qel_hash_hook by_peer{};
    uint32_t peer_app = 0, peer_node = 0;
    uint32_t receive = 0, unack = 0, drop = 0, returned = 0;
};

struct qel_app_fc {
    uint32_t app_id = 0;
    std::atomic<uint32_t> recv_exception{0}; // counted by the library thread without the mutex
    qel_mutex mutex;
    qel_cond cond; // refused senders; everything that lowers a counter broadcasts
    uint32_t total_send QEL_GUARDED_BY(mutex) = 0, total_unack QEL_GUARDED_BY(mutex) = 0;
    uint32_t mcast_reject QEL_GUARDED_BY(mutex) = 0, rpc_reply_exception QEL_GUARDED_BY(mutex) = 0;
    uint32_t total_recv QEL_GUARDED_BY(mutex) = 0, total_recv_unack QEL_GUARDED_BY(mutex) = 0;
    qel_list<qel_send_app_fc, offsetof(qel_send_app_fc, link)> sends QEL_GUARDED_BY(mutex);
    qel_list<qel_recv_app_fc, offsetof(qel_recv_app_fc, link)> recvs QEL_GUARDED_BY(mutex);
    qel_hash<qel_send_app_fc, offsetof(qel_send_app_fc, by_peer)> send_index QEL_GUARDED_BY(mutex);
    qel_hash<qel_recv_app_fc, offsetof(qel_recv_app_fc, by_peer)> recv_index QEL_GUARDED_BY(mutex);
    qel_hash<blocked_dst, offsetof(blocked_dst, by_app)> dsts QEL_GUARDED_BY(mutex);
};

static uint64_t peer_key(uint32_t app, uint32_t node) noexcept { return uint64_t{app} << 32 | node; }

// ---- records --------------------------------------------------------------------------------------------

qel_app_fc *qel_add_app_fc(uint32_t app_id) noexcept {
    QEL_VERBOSE("QEL add new flow ctrl for app %d.\n", app_id);
    auto *fc = qel_new<qel_app_fc>();
    fc->app_id = app_id;
    int error = fc->mutex.init();
    if (error) {
        QEL_ERROR("QEL init app %d flow ctrl condition mutex failed: %s.\n", app_id, strerror(error));
        qel_delete(fc);
        return nullptr;
    }
    switch (fc->cond.init(error)) {
    case qel_cond_step::none:
        return fc;
    case qel_cond_step::attr_init:
        QEL_ERROR("QEL init app %d flow ctrl condition attribute failed: %s.\n", app_id, strerror(error));
        break;
    case qel_cond_step::attr_clock:
        QEL_ERROR("QEL init app %d flow ctrl condition clock attribute failed: %s.\n", app_id,
                  strerror(error));
        break;
    case qel_cond_step::cond_init:
        QEL_ERROR("QEL init app %d flow ctrl condition failed: %s.\n", app_id, strerror(error));
        break;
    }
    fc->mutex.destroy();
    qel_delete(fc);
    return nullptr;
}

void qel_del_app_fc(qel_app_fc *fc) noexcept {
    if (!fc)
        return;
    QEL_VERBOSE("QEL delete app %d flow ctrl.\n", fc->app_id);
    {
        qel_lock lock(fc->mutex);
        while (qel_send_app_fc *record = fc->sends.pop_front()) {
            if (blocked_dst *dst = fc->dsts.first(record->peer_app)) {
                fc->dsts.remove(dst);
                qel_delete(dst);
            }
            qel_delete(record);
        }
        while (qel_recv_app_fc *record = fc->recvs.pop_front())
            qel_delete(record);
        fc->send_index.destroy();
        fc->recv_index.destroy();
        fc->dsts.destroy();
    }
    fc->cond.destroy();
    fc->mutex.destroy();
    qel_delete(fc);
}

static qel_app_fc *get_fc(uint32_t app_id) noexcept {
    const qel_app_mng *slot = qel_get_app_mng(app_id);
    return slot ? slot->fc : nullptr;
}

// The same, with the line that a missing one gets.
static qel_app_fc *get_fc_told(uint32_t app_id) noexcept {
    qel_app_fc *fc = get_fc(app_id);
    if (!fc)
        QEL_ERROR("QEL app %d get flow control failed.\n", app_id);
    return fc;
}

static qel_send_app_fc *send_record(qel_app_fc *fc, uint32_t peer_app, uint32_t peer_node) noexcept
    QEL_REQUIRES(fc->mutex) {
    qel_send_app_fc *record = fc->send_index.first(peer_key(peer_app, peer_node));
    if (record)
        return record;
    QEL_VERBOSE("QEL app %d add new send flow ctrl to %d/%d.\n", fc->app_id, peer_app, peer_node);
    record = qel_new<qel_send_app_fc>();
    record->peer_app = peer_app;
    record->peer_node = peer_node;
    record->dst = fc->dsts.first(peer_app);
    if (!record->dst) {
        record->dst = qel_new<blocked_dst>();
        fc->dsts.insert(record->dst, peer_app);
    }
    fc->sends.push_back(record);
    fc->send_index.insert(record, peer_key(peer_app, peer_node));
    return record;
}

static qel_recv_app_fc *recv_record(qel_app_fc *fc, uint32_t peer_app, uint32_t peer_node) noexcept
    QEL_REQUIRES(fc->mutex) {
    qel_recv_app_fc *record = fc->recv_index.first(peer_key(peer_app, peer_node));
    if (record)
        return record;
    QEL_VERBOSE("QEL app %d add new recv flow ctrl from %d/%d.\n", fc->app_id, peer_app, peer_node);
    record = qel_new<qel_recv_app_fc>();
    record->peer_app = peer_app;
    record->peer_node = peer_node;
    fc->recvs.push_back(record);
    fc->recv_index.insert(record, peer_key(peer_app, peer_node));
    return record;
}

static void wake_senders(qel_app_fc *fc) noexcept {
    const int ret = fc->cond.broadcast();
    QEL_ASSERT(ret == 0);
}

// ---- admission ------------------------------------------------------------------------------------------

static bool qel_fc_accept_msg(qel_app_fc *fc, uint32_t dst_app) noexcept QEL_REQUIRES(fc->mutex) {
    const blocked_dst *dst = fc->dsts.first(dst_app);
    const bool accepted = !dst || dst->count == 0;
    if (accepted)
        QEL_VERBOSE("QEL app %d accept new msg to %d.\n", fc->app_id, dst_app);
    else
        QEL_VERBOSE("QEL app %d reject new msg to %d.\n", fc->app_id, dst_app);
    return accepted;
}

static void log_totals(qel_app_fc *fc) noexcept QEL_REQUIRES(fc->mutex) {
    QEL_ERROR("QEL app %d total send %d, unack %d, mcast reject %d, RPC reply exception %d\n", fc->app_id,
              fc->total_send, fc->total_unack, fc->mcast_reject, fc->rpc_reply_exception);
    QEL_ERROR("QEL app %d total receive %d, unack %d, exception %d\n", fc->app_id, fc->total_recv,
              fc->total_recv_unack, fc->recv_exception.load(std::memory_order_relaxed));
}

static void log_send(const qel_app_fc *fc, const qel_send_app_fc *s) noexcept {
    QEL_ERROR("QEL app %d send to application %d/%d: send %d, unack %d, reject %d, RPC reply reject %d\n",
              fc->app_id, s->peer_app, s->peer_node, s->send, s->unack, s->reject, s->rpc_reply_reject);
}

static void log_recv(const qel_app_fc *fc, const qel_recv_app_fc *r) noexcept {
    QEL_ERROR("QEL app %d receive from application %d/%d: receive %d, unack %d, drop %d, return %d\n",
              fc->app_id, r->peer_app, r->peer_node, r->receive, r->unack, r->drop, r->returned);
}

// A sender has been held up for minutes: show our view of the pair and ask the peer to show its own.
static void diagnose_blocked(qel_app_fc *fc, uint32_t dst_app) noexcept QEL_REQUIRES(fc->mutex) {
    for (const qel_send_app_fc &s : fc->sends)
        if (s.peer_app == dst_app && s.blocked())
            QEL_ERROR("QEL app %d to %d/%d was blocked for too long.\n", fc->app_id, s.peer_app, s.peer_node);
    log_totals(fc);
    for (const qel_send_app_fc &s : fc->sends) {
        if (s.peer_app != dst_app || !s.blocked())
            continue;
        (void)qel_send_fc_ping(fc->app_id, s.peer_node, s.peer_app);
        log_send(fc, &s);
        if (const qel_recv_app_fc *r = fc->recv_index.first(peer_key(s.peer_app, s.peer_node)))
            log_recv(fc, r);
    }
}

static void request_reload(qel_app_fc *fc, uint32_t dst_app) noexcept QEL_REQUIRES(fc->mutex) {
    for (const qel_send_app_fc &s : fc->sends) {
        if (s.peer_app != dst_app || !s.blocked())
            continue;
        QEL_ERROR("QEL app %d try to reload %d/%d to resume communication.\n", fc->app_id, s.peer_app,
                  s.peer_node);
        (void)qel_send_fc_reload(fc->app_id, s.peer_node, s.peer_app);
    }
}

// Sleeps until @dst_app is accepted, however long. Only time-outs count: a wake-up starts the minute anew.
static void qel_fc_wait_for_send(qel_app_fc *fc, uint32_t dst_app) noexcept QEL_REQUIRES(fc->mutex) {
    QEL_VERBOSE("QEL app %d to %d wait for sending.\n", fc->app_id, dst_app);
    const qel_watchdog_guard watchdog;
    uint32_t timeouts = 0, period = first_diagnosis;
    while (!qel_fc_accept_msg(fc, dst_app)) {
        watchdog.feed();
        QEL_VERBOSE("QEL app %d to %d wait for flow ctrl condition.\n", fc->app_id, dst_app);
        int ret = fc->cond.wait_until(fc->mutex, qel_deadline_s(wait_slice_s));
        if (ret == 0)
            continue;
        if (ret == ETIMEDOUT)
            ret = 0;
        QEL_ASSERT(ret == 0);
        timeouts++;
        if (timeouts % period == 0) { // after 5, 10, 20, 40 ... minutes
            period *= 2;
            diagnose_blocked(fc, dst_app);
        }
        if (timeouts == reload_at)
            request_reload(fc, dst_app);
    }
}

int32_t qel_fc_check(uint32_t src_app, uint32_t dst_app, uint32_t flags) noexcept {
    qel_app_fc *fc = get_fc_told(src_app);
    if (!fc)
        return -ENOENT;
    qel_lock lock(fc->mutex);
    if (qel_fc_accept_msg(fc, dst_app))
        return 0;
    if (flags & QEL_SEND_NOWAIT)
        return -EAGAIN;
    qel_fc_wait_for_send(fc, dst_app);
    QEL_VERBOSE("QEL app %d to %d continue to send.\n", src_app, dst_app);
    return 0;
}

// ---- the sending side -----------------------------------------------------------------------------------

void qel_fc_update_sent_ok(uint32_t src_app, uint32_t dst_app, uint32_t dst_node) noexcept {
    QEL_VERBOSE("QEL app %d update send OK to %d/%d.\n", src_app, dst_app, dst_node);
    qel_app_fc *fc = get_fc_told(src_app);
    if (!fc)
        return;
    qel_lock lock(fc->mutex);
    qel_send_app_fc *record = send_record(fc, dst_app, dst_node);
    record->send++;
    record->set_unack(record->unack + 1);
    fc->total_send++;
    fc->total_unack++;
}

// Whether a failure can be laid at one peer's door: no group, no "any node".
static bool is_one_peer(uint32_t dst_app, uint32_t dst_node) noexcept {
    return qel_valid_app_id(dst_app) && qel_valid_node_id(dst_node);
}

void qel_fc_update_sent_reject(uint32_t src_app, uint32_t dst_app, uint32_t dst_node) noexcept {
    QEL_VERBOSE("QEL app %d update send reject to %d/%d.\n", src_app, dst_app, dst_node);
    qel_app_fc *fc = get_fc_told(src_app);
    if (!fc)
        return;
    qel_lock lock(fc->mutex);
    if (is_one_peer(dst_app, dst_node))
        send_record(fc, dst_app, dst_node)->reject++;
    else
        fc->mcast_reject++;
}

void qel_fc_update_rpc_reply_exception(uint32_t src_app, uint32_t dst_app, uint32_t dst_node) noexcept {
    QEL_VERBOSE("QEL app %d update RPC reply reject to %d/%d.\n", src_app, dst_app, dst_node);
    qel_app_fc *fc = get_fc_told(src_app);
    if (!fc)
        return;
    qel_lock lock(fc->mutex);
    if (is_one_peer(dst_app, dst_node))
        send_record(fc, dst_app, dst_node)->rpc_reply_reject++;
    else
        fc->rpc_reply_exception++;
}

// What was counted as sent before the peer joined never reached it. The total of what is unacknowledged falls
// by the number sent, not by the record's own count: known and kept.
void qel_fc_adjust_statistics(uint32_t app_id, uint32_t peer_app, uint32_t peer_node) noexcept {
    qel_app_fc *fc = get_fc_told(app_id);
    if (!fc)
        return;
    uint32_t sent;
    {
        qel_lock lock(fc->mutex);
        qel_recv_app_fc *recv = recv_record(fc, peer_app, peer_node);
        recv->drop = 0;
        recv->returned = 0;
        qel_send_app_fc *record = send_record(fc, peer_app, peer_node);
        sent = record->send;
        if (sent == 0)
            return;
        record->send = 0;
        record->set_unack(0);
        record->reject += sent;
        fc->total_send -= sent;
        fc->total_unack -= sent;
        wake_senders(fc);
    }
    QEL_WARN("QEL app %d adjust sent reject num %d to %d/%d.\n", app_id, sent, peer_app, peer_node);
}

void qel_fc_update_sent_ack(uint32_t app_id, uint32_t peer_app, uint32_t peer_node,
                            uint32_t ack_num) noexcept {
    QEL_VERBOSE("QEL app %d update send ack from %d/%d, ack num %d.\n", app_id, peer_app, peer_node, ack_num);
    qel_app_fc *fc = get_fc_told(app_id);
    if (!fc)
        return;
    {
        qel_lock lock(fc->mutex);
        qel_send_app_fc *record = send_record(fc, peer_app, peer_node);
        // The number is a stranger's: it must not wrap the count round to a large one.
        const int64_t unack = int64_t{static_cast<int32_t>(record->unack)} - int64_t{ack_num};
        record->set_unack(static_cast<uint32_t>(static_cast<int32_t>(std::max<int64_t>(unack, INT32_MIN))));
        fc->total_unack -= ack_num;
        wake_senders(fc);
    }
    QEL_VERBOSE("QEL notify waiting app %d to %d/%d continue to send msg.\n", app_id, peer_app, peer_node);
}

// ---- the receiving side ---------------------------------------------------------------------------------

void qel_fc_update_recv_ok(uint32_t peer_app, uint32_t peer_node, uint32_t app_id) noexcept {
    QEL_VERBOSE("QEL app %d update recv OK from %d/%d.\n", app_id, peer_app, peer_node);
    qel_app_fc *fc = get_fc_told(app_id);
    if (!fc)
        return;
    qel_lock lock(fc->mutex);
    qel_recv_app_fc *record = recv_record(fc, peer_app, peer_node);
    record->receive++;
    record->unack++;
    fc->total_recv++;
    fc->total_recv_unack++;
    if (record->unack <= qel_fc_ack_batch_msgs)
        return;
    if (qel_send_fc_ack(app_id, peer_node, peer_app, qel_fc_ack_batch_msgs) != 0)
        return; // the next message tries again
    QEL_VERBOSE("QEL app %d sent recv num ack %d to %d/%d OK.\n", app_id, qel_fc_ack_batch_msgs, peer_app,
                peer_node);
    record->unack -= qel_fc_ack_batch_msgs;
    fc->total_recv_unack -= qel_fc_ack_batch_msgs;
}

void qel_fc_update_recv_drop(uint32_t peer_app, uint32_t peer_node, uint32_t app_id,
                             uint32_t count) noexcept {
    if (count == 0)
        return;
    QEL_VERBOSE("QEL app %d update recv drop num %d from %d/%d.\n", app_id, count, peer_app, peer_node);
    qel_app_fc *fc = get_fc_told(app_id);
    if (!fc)
        return;
    qel_lock lock(fc->mutex);
    recv_record(fc, peer_app, peer_node)->drop += count;
}

void qel_fc_update_recv_retdata(uint32_t peer_app, uint32_t peer_node, uint32_t app_id) noexcept {
    QEL_VERBOSE("QEL app %d update recv retdata from %d/%d.\n", app_id, peer_app, peer_node);
    if (peer_app == 1) // the daemon's waits are ended instead
        return;
    qel_app_fc *fc = get_fc_told(app_id);
    if (!fc)
        return;
    qel_lock lock(fc->mutex);
    recv_record(fc, peer_app, peer_node)->returned++;
}

void qel_fc_update_recv_exception(uint32_t app_id) noexcept {
    QEL_ERROR("QEL app %d update recv exception msg.\n", app_id);
    qel_app_fc *fc = get_fc_told(app_id);
    if (fc)
        fc->recv_exception.fetch_add(1, std::memory_order_relaxed);
}

void qel_fc_reset_unack(uint32_t app_id, uint32_t peer_app, uint32_t peer_node) noexcept {
    QEL_INFO("QEL reset unack stat between app %d and %d/%d.\n", app_id, peer_app, peer_node);
    qel_app_fc *fc = get_fc(app_id);
    if (!fc) {
        QEL_ERROR("QEL get app %d flow ctrl info failed.\n", app_id);
        return;
    }
    qel_lock lock(fc->mutex);
    qel_send_app_fc *send = send_record(fc, peer_app, peer_node);
    fc->total_send -= send->send;
    fc->total_unack -= send->unack;
    send->send = send->reject = send->rpc_reply_reject = 0;
    send->set_unack(0);
    qel_recv_app_fc *recv = recv_record(fc, peer_app, peer_node);
    fc->total_recv -= recv->receive;
    fc->total_recv_unack -= recv->unack;
    recv->receive = recv->unack = recv->drop = recv->returned = 0;
    (void)fc->cond.broadcast();
}

// The peer is held up by us and asks: both ends' logs show their view of the pair at the same time.
void qel_fc_ping_request(uint32_t peer_app, uint32_t peer_node, uint32_t app_id) noexcept {
    QEL_ERROR("QEL app %d recv ping request from %d/%d.\n", app_id, peer_app, peer_node);
    QEL_ERROR("QEL app %d from %d/%d unprocess num: %d.\n", app_id, peer_app, peer_node,
              qel_unprocess_app_msg_num(app_id, peer_app, peer_node));
    qel_app_fc *fc = get_fc_told(app_id);
    if (!fc)
        return;
    (void)qel_send_fc_ping_echo(app_id, peer_node, peer_app);
    qel_lock lock(fc->mutex);
    log_totals(fc);
    if (const qel_send_app_fc *s = fc->send_index.first(peer_key(peer_app, peer_node)))
        log_send(fc, s);
    if (const qel_recv_app_fc *r = fc->recv_index.first(peer_key(peer_app, peer_node)))
        log_recv(fc, r);
}

void qel_fc_ping_echo(uint32_t peer_app, uint32_t peer_node, uint32_t app_id) noexcept {
    QEL_ERROR("QEL app %d recv ping echo from %d/%d.\n", app_id, peer_app, peer_node);
}

// ---- print ----------------------------------------------------------------------------------------------

void qel_cli_print_fc_stat(uint32_t app_id) noexcept {
    qel_app_fc *fc = get_fc(app_id);
    if (!fc)
        return;
    qel_lock lock(fc->mutex);
    qel_buf_printf("Application %d overall statistics:\n", app_id);
    qel_buf_printf("  total send %d, unack %d, mcast reject %d, RPC reply exception %d\n", fc->total_send,
                   fc->total_unack, fc->mcast_reject, fc->rpc_reply_exception);
    qel_buf_printf("  total receive %d, unack %d, exception %d\n", fc->total_recv, fc->total_recv_unack,
                   fc->recv_exception.load(std::memory_order_relaxed));
    // A peer can make us keep any number of these.
    for (const qel_send_app_fc &s : fc->sends) {
        if (qel_buf_full())
            return;
        qel_buf_printf("    Send to application %d/%d: send %d, unack %d, reject %d, RPC reply reject %d\n",
                       s.peer_app, s.peer_node, s.send, s.unack, s.reject, s.rpc_reply_reject);
    }
    for (const qel_recv_app_fc &r : fc->recvs) {
        if (qel_buf_full())
            return;
        qel_buf_printf("    Receive from application %d/%d: receive %d, unack %d, drop %d, return %d\n",
                       r.peer_app, r.peer_node, r.receive, r.unack, r.drop, r.returned);
    }
}
