#include "qel_rpc.h"

#include <cerrno>
#include <cstdio>

#define QEL_LOG_SRC "qel_rpc"
#include "qel_cfg.h"
#include "qel_log.h"
#include "qel_mng.h"
#include "qel_mng_msg.h"
#include "qel_watchdog.h"

constexpr uint32_t wait_slice_s = 30, endless_slice_s = 1;

struct qel_rpc_wait_mgmt {
    uint32_t app_id = 0;
    qel_cond cond; // some wait of the application changed; every caller sleeps on it
    qel_mutex mutex;
    std::atomic<uint64_t> last_wait_ns{0}; // of any caller
    qel_list<qel_rpc_wait, offsetof(qel_rpc_wait, link)> waits QEL_GUARDED_BY(mutex);
};

static qel_rpc_wait_mgmt *get_mgmt(uint32_t app_id) noexcept {
    const qel_app_mng *slot = qel_get_app_mng(app_id);
    return slot ? slot->rpc : nullptr;
}

static uint32_t peer_key(uint32_t app, uint32_t node) noexcept { return app << 16 | (node & 0xFFFF); }

// ---- the registry ---------------------------------------------------------------------------------------

qel_rpc_wait_mgmt *qel_add_app_rpc_wait(uint32_t app_id) noexcept {
    auto *mgmt = qel_new<qel_rpc_wait_mgmt>();
    mgmt->app_id = app_id;
    QEL_VERBOSE("QEL add new app %d RPC wait mgmt.\n", app_id);
    int error = mgmt->mutex.init();
    if (error) {
        QEL_ERROR("QEL init app %d RPC wait mutex failed: %s.\n", app_id, strerror(error));
        qel_delete(mgmt);
        return nullptr;
    }
    switch (mgmt->cond.init(error)) {
    case qel_cond_step::none:
        return mgmt;
    case qel_cond_step::attr_init:
        QEL_ERROR("QEL init app %d RPC wait condition attribute failed: %s.\n", app_id, strerror(error));
        break;
    case qel_cond_step::attr_clock:
        QEL_ERROR("QEL set app %d RPC wait condition clock attribute failed: %s.\n", app_id, strerror(error));
        break;
    case qel_cond_step::cond_init:
        QEL_ERROR("QEL init app %d RPC wait condition failed: %s.\n", app_id, strerror(error));
        break;
    }
    mgmt->mutex.destroy();
    qel_delete(mgmt);
    return nullptr;
}

void qel_del_app_rpc_wait(qel_rpc_wait_mgmt *mgmt) noexcept {
    if (!mgmt)
        return;
    QEL_VERBOSE("QEL delete app %d RPC wait mgmt.\n", mgmt->app_id);
    {
        qel_lock lock(mgmt->mutex);
        while (qel_rpc_wait *wait = mgmt->waits.pop_front())
            qel_delete(wait);
    }
    mgmt->cond.destroy();
    mgmt->mutex.destroy();
    qel_delete(mgmt);
}

static qel_rpc_wait *__qel_get_rpc_wait(qel_rpc_wait_mgmt *rpc, uint32_t seq) noexcept
    QEL_REQUIRES(rpc->mutex) {
    for (qel_rpc_wait &wait : rpc->waits)
        if (wait.seq == seq)
            return &wait;
    return nullptr;
}

static void __qel_rpc_del_wait(qel_rpc_wait_mgmt *rpc, uint32_t seq) noexcept QEL_REQUIRES(rpc->mutex) {
    qel_rpc_wait *wait = __qel_get_rpc_wait(rpc, seq);
    QEL_ASSERT(wait != NULL);
    rpc->waits.unlink(wait);
    qel_delete(wait);
}

qel_rpc_wait *qel_get_rpc_wait(uint32_t app_id, uint32_t seq) noexcept {
    qel_rpc_wait_mgmt *rpc = get_mgmt(app_id);
    if (!rpc)
        return nullptr;
    qel_lock lock(rpc->mutex);
    return __qel_get_rpc_wait(rpc, seq);
}

// ---- opening and ending a wait --------------------------------------------------------------------------

int32_t qel_rpc_prepare_wait(uint32_t app_id, uint32_t seq, uint32_t timeout_s,
                             qel_reply_set *replies) noexcept {
    QEL_VERBOSE("QEL app %d seq %d RPC prepare wait.\n", app_id, seq);
    qel_rpc_wait_mgmt *rpc = get_mgmt(app_id);
    if (!rpc)
        return -ENOENT;
    qel_lock lock(rpc->mutex);
    if (__qel_get_rpc_wait(rpc, seq))
        return -EEXIST;
    QEL_VERBOSE("QEL add new app %d seq %d RPC wait.\n", app_id, seq);
    auto *wait = qel_new<qel_rpc_wait>();
    wait->seq = seq;
    wait->timeout_s = timeout_s;
    wait->replies = replies;
    rpc->waits.push_back(wait);
    return 0;
}

int32_t qel_rpc_set_wait(uint32_t app_id, uint32_t seq, uint32_t peer_app, uint32_t dst_node) noexcept {
    qel_rpc_wait *wait = qel_get_rpc_wait(app_id, seq);
    QEL_ASSERT(wait != NULL);
    QEL_ASSERT(qel_valid_node_id(dst_node));
    qel_lock lock(get_mgmt(app_id)->mutex); // a termination may be walking the wait already
    if (wait->count >= QEL_REPLIES_MAX) {
        QEL_ERROR("QEL RPC wait reply num exceeds limit %d.\n", QEL_REPLIES_MAX);
        return -ENOBUFS;
    }
    wait->repliers[wait->count++] = peer_key(peer_app, dst_node);
    return 0;
}

bool qel_rpc_get_replier(uint32_t app_id, uint32_t seq, int32_t index, uint32_t *peer) noexcept {
    qel_rpc_wait_mgmt *rpc = get_mgmt(app_id);
    if (!rpc)
        return false;
    qel_lock lock(rpc->mutex);
    const qel_rpc_wait *wait = __qel_get_rpc_wait(rpc, seq);
    if (!wait || index < 0 || index >= wait->count)
        return false;
    *peer = wait->repliers[index];
    return true;
}

void qel_rpc_del_wait(uint32_t app_id, uint32_t seq) noexcept {
    QEL_VERBOSE("QEL delete app %d seq %d RPC wait.\n", app_id, seq);
    qel_rpc_wait_mgmt *rpc = get_mgmt(app_id);
    if (!rpc)
        return;
    qel_lock lock(rpc->mutex);
    __qel_rpc_del_wait(rpc, seq);
}

// First the wait goes, then the replies: nobody may file one in between.
void qel_rpc_abort_wait(uint32_t app_id, uint32_t seq, qel_reply_set *replies) noexcept {
    qel_rpc_del_wait(app_id, seq);
    qel_reply_msg_free(replies);
}

// ---- striking peers off ---------------------------------------------------------------------------------

// The entry of a peer that has not answered yet, or null.
static uint32_t *find_replier(qel_rpc_wait *wait, uint32_t key) noexcept {
    for (int32_t i = 0; i < wait->count; i++)
        if (wait->repliers[i] == key)
            return &wait->repliers[i];
    return nullptr;
}

// Strikes the peer off and files its message: the one place where the set grows.
static void file_reply(qel_rpc_wait *wait, uint32_t *replier, qel_msg *msg) noexcept {
    QEL_ASSERT(*replier != 0 && wait->replies->count < wait->count);
    *replier = 0;
    wait->replies->msg[wait->replies->count++] = msg;
}

// A reply without data that the peer could have sent itself.
static void file_local_reply(uint32_t app_id, qel_rpc_wait *wait, uint32_t *replier,
                             uint32_t status) noexcept {
    qel_msg *msg = qel_msg_alloc(0, 1, 0);
    QEL_ASSERT(msg != NULL);
    qel_encode_msg_hdr(msg, 0, *replier >> 16, *replier & 0xFFFF, app_id,
                       static_cast<uint32_t>(qel_get_my_node_id()), wait->seq, status);
    file_reply(wait, replier, msg);
}

static void wake_callers(qel_rpc_wait_mgmt *rpc) noexcept {
    const int ret = rpc->cond.broadcast();
    QEL_ASSERT(ret == 0);
}

int32_t qel_rpc_add_reply(qel_msg *msg) noexcept {
    const qel_hdr &hdr = msg->hdr;
    QEL_VERBOSE("QEL add RPC reply for app %d seq %d from %d/%d status %s.\n", hdr.dst_app, hdr.seq,
                hdr.src_app, hdr.src_node, qel_reply_stat_string(hdr.rpc_status));
    qel_rpc_wait_mgmt *rpc = get_mgmt(hdr.dst_app);
    if (!rpc) {
        QEL_ERROR("QEL get app %d RPC wait not exist.\n", hdr.dst_app);
        return -ENOENT;
    }
    qel_lock lock(rpc->mutex);
    qel_rpc_wait *wait = __qel_get_rpc_wait(rpc, hdr.seq);
    if (!wait) {
        QEL_VERBOSE("QEL app %d seq %d to %d/%d RPC wait not exist.\n", hdr.dst_app, hdr.seq, hdr.src_app,
                    hdr.src_node);
        return -ENOENT;
    }
    uint32_t *replier = find_replier(wait, peer_key(hdr.src_app, hdr.src_node));
    if (!replier) {
        QEL_ERROR("QEL app %d seq %d clear wait for app %d/%d not exist.\n", hdr.dst_app, hdr.seq,
                  hdr.src_app, hdr.src_node);
        return -ENOENT;
    }
    file_reply(wait, replier, msg);
    QEL_VERBOSE("QEL app %d seq %d to %d/%d RPC replied.\n", hdr.dst_app, hdr.seq, hdr.src_app, hdr.src_node);
    wake_callers(rpc);
    return 0;
}

int32_t qel_rpc_add_error_reply(uint32_t app_id, uint32_t seq, uint32_t peer_app, uint32_t peer_node,
                                uint32_t status) noexcept {
    QEL_WARN("QEL add error reply for app %d seq %d from %d/%d status %s.\n", app_id, seq, peer_app,
             peer_node, qel_reply_stat_string(status));
    qel_rpc_wait_mgmt *rpc = get_mgmt(app_id);
    QEL_ASSERT(rpc != NULL);
    qel_lock lock(rpc->mutex);
    qel_rpc_wait *wait = __qel_get_rpc_wait(rpc, seq);
    if (!wait) {
        QEL_VERBOSE("QEL app %d seq %d RPC wait not exist.\n", app_id, seq);
        return -ENOENT;
    }
    uint32_t *replier = find_replier(wait, peer_key(peer_app, peer_node));
    if (!replier) {
        QEL_ERROR("QEL app %d seq %d clear wait for app %d/%d not exist.\n", app_id, seq, peer_app,
                  peer_node);
        return -ENOENT;
    }
    file_local_reply(app_id, wait, replier, status);
    wake_callers(rpc);
    return 0;
}

int32_t qel_terminate_rpc(uint32_t app_id, uint32_t peer_app, uint32_t peer_node) noexcept {
    QEL_VERBOSE("QEL try to terminate app %d RPC to %d/%d.\n", app_id, peer_app, peer_node);
    qel_rpc_wait_mgmt *rpc = get_mgmt(app_id);
    QEL_ASSERT(rpc != NULL);
    qel_lock lock(rpc->mutex);
    for (qel_rpc_wait &wait : rpc->waits) {
        uint32_t *replier = find_replier(&wait, peer_key(peer_app, peer_node));
        if (!replier)
            continue;
        QEL_WARN("QEL terminate app %d seq %d RPC to %d/%d.\n", app_id, wait.seq, peer_app, peer_node);
        file_local_reply(app_id, &wait, replier, QEL_STATUS_SYSTEM);
    }
    wake_callers(rpc); // also when nobody waits
    return 0;
}

// ---- waiting --------------------------------------------------------------------------------------------

static bool all_replied(const qel_rpc_wait *wait) noexcept {
    for (int32_t i = 0; i < wait->count; i++)
        if (wait->repliers[i] != 0)
            return false;
    return true;
}

int32_t qel_rpc_wait_reply(uint32_t app_id, uint32_t seq) noexcept {
    const qel_watchdog_guard watchdog;
    qel_rpc_wait_mgmt *rpc = get_mgmt(app_id);
    QEL_ASSERT(rpc != NULL);
    qel_lock lock(rpc->mutex);
    qel_rpc_wait *wait = __qel_get_rpc_wait(rpc, seq);
    QEL_ASSERT(wait != NULL);

    qel_short_wait shortly(rpc->last_wait_ns);
    if (!all_replied(wait)) {
        lock.unlock();
        (void)shortly.until([&] {
            const qel_lock look(rpc->mutex);
            return all_replied(wait);
        });
        lock.lock();
    }
    int64_t remaining_s = wait->timeout_s;
    int last = 0; // of the timed waits
    while (!all_replied(wait)) {
        watchdog.feed();
        QEL_VERBOSE("QEL app %d seq %d wait for RPC reply in %ds.\n", app_id, seq, wait->timeout_s);
        const bool endless = wait->timeout_s == 0;
        last = rpc->cond.wait_until(rpc->mutex, qel_deadline_s(endless ? endless_slice_s : wait_slice_s));
        const int ret = last == ETIMEDOUT ? 0 : last;
        QEL_ASSERT(ret == 0);
        if (endless)
            continue;
        remaining_s -= wait_slice_s; // whatever woke us costs a whole slice, on purpose
        if (last != ETIMEDOUT)
            continue;
        QEL_INFO("QEL app %d seq %d wait for RPC reply timeout.\n", app_id, seq);
        if (remaining_s >= 1)
            continue;
        for (int32_t i = 0; i < wait->count; i++) {
            uint32_t *replier = &wait->repliers[i];
            if (*replier == 0)
                continue;
            QEL_INFO("QEL app %d seq %d wait for %d/%d timeout.\n", app_id, seq, *replier >> 16,
                     *replier & 0xFFFF);
            file_local_reply(app_id, wait, replier, QEL_STATUS_TIMEOUT);
        }
        last = 0; // the time-out is told by the replies
    }

    // Everybody answered although the last slice ran out: the deadline and the last reply met. Known, and
    // told as a failure.
    if (last != 0) {
        QEL_ERROR("QEL app %d seq %d wait for RPC reply failed: %s.\n", app_id, seq, strerror(last));
        qel_reply_msg_free(wait->replies);
    } else {
        QEL_VERBOSE("QEL app %d seq %d RPC all replied.\n", app_id, seq);
    }
    __qel_rpc_del_wait(rpc, seq);
    return last;
}

// ---- replies made by the callee's library ---------------------------------------------------------------

// The header of a reply to @request from here.
static qel_msg *new_reply(const qel_msg *request, uint32_t status, uint32_t data_len) noexcept {
    const qel_hdr &asked = request->hdr;
    qel_msg *msg =
        qel_new_sys_msg(asked.flags | QEL_FLAG_ACK, asked.dst_app, asked.src_app, asked.src_node, data_len);
    msg->hdr.seq = asked.seq;
    msg->hdr.rpc_status = status;
    return msg;
}

static int32_t send_reply(qel_msg *msg) noexcept {
    const int32_t ret = qel_tipc_sendto(msg->hdr.src_app, msg, msg->hdr.dst_app, msg->hdr.dst_node, 0);
    free(msg);
    return ret;
}

int32_t qel_rpc_reply_error(const qel_msg *request, uint32_t status) noexcept {
    const qel_hdr &asked = request->hdr;
    QEL_VERBOSE("QEL app %d reply to %d/%d seq %d status: %s.\n", asked.dst_app, asked.src_app,
                asked.src_node, asked.seq, qel_reply_stat_string(status));
    return send_reply(new_reply(request, status, 0));
}

int32_t qel_rpc_reply_app_mismatch(const qel_msg *request, const uint32_t range[2]) noexcept {
    const qel_hdr &asked = request->hdr;
    QEL_VERBOSE("QEL app %d reply to %d/%d seq %d app ver range [%d, %d].\n", asked.dst_app, asked.src_app,
                asked.src_node, asked.seq, range[0], range[1]);
    qel_msg *msg = new_reply(request, QEL_STATUS_APP_VERSION, 2 * sizeof range[0]);
    memcpy(qel_msg_data(msg), range, 2 * sizeof range[0]);
    return send_reply(msg);
}

// ---- prints ---------------------------------------------------------------------------------------------

void qel_rpc_print_wait(uint32_t app_id, uint32_t seq) noexcept {
    if (!(g_qel_dbg_level.load(std::memory_order_relaxed) & 1u << QEL_LEVEL_VERBOSE))
        return;
    const qel_rpc_wait *wait = qel_get_rpc_wait(app_id, seq);
    QEL_ASSERT(wait != NULL);
    qel_lock lock(get_mgmt(app_id)->mutex);
    flockfile(stdout);
    printf("QEL app %d seq %d wait for:", app_id, seq);
    for (int32_t i = 0; i < wait->count; i++)
        printf(" %d/%d", wait->repliers[i] >> 16, wait->repliers[i] & 0xFFFF);
    printf(".\n");
    funlockfile(stdout);
}

void qel_cli_print_rpc_stat(uint32_t app_id) noexcept {
    qel_rpc_wait_mgmt *rpc = get_mgmt(app_id);
    if (!rpc)
        return;
    qel_lock lock(rpc->mutex);
    qel_buf_printf("Application %d RPC waits:\n", app_id);
    for (const qel_rpc_wait &wait : rpc->waits) {
        qel_buf_printf("  sequence %d, timeout %ds\n", wait.seq, wait.timeout_s);
        qel_buf_printf("    waiting for");
        for (int32_t i = 0; i < wait.count; i++)
            if (wait.repliers[i] != 0)
                qel_buf_printf(" %d/%d", wait.repliers[i] >> 16, wait.repliers[i] & 0xFFFF);
        qel_buf_printf("\n");
        qel_buf_printf("    RPC already replies:\n");
        for (int32_t i = 0; i < wait.replies->count; i++) {
            const qel_hdr &hdr = wait.replies->msg[i]->hdr;
            qel_buf_printf("      %d/%d, %s\n", hdr.src_app, hdr.src_node,
                           qel_reply_stat_string(hdr.rpc_status));
        }
        qel_buf_printf("\n");
    }
}
