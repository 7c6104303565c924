// The records of the handshake: syncs on their way, the process IDs that peers gave, syncs and
// acknowledgements to be sent again, handshakes to be started anew. Peers name what is in them, so every
// lookup goes through an index and the lists that hold kernel timers are bounded.
#include "qel_mng_int.h"

#include <algorithm>
#include <cerrno>

#include "qel_mng_msg.h"
#include "qel_user_proxy.h"

// ---- process IDs ----------------------------------------------------------------------------------------

// Application IDs and nodes fit in 16 bits: what came over the wire was checked at the door.
static uint64_t pair_key(uint32_t app_id, uint32_t peer_app, uint32_t node) noexcept {
    return uint64_t{app_id} << 32 | uint64_t{peer_app & 0xFFFF} << 16 | (node & 0xFFFF);
}

qel_inst_sync_id *__qel_find_inst_sync_id(uint32_t app_id, uint32_t peer_app, uint32_t node) noexcept {
    return g_qel_mng.sync_ids.first(pair_key(app_id, peer_app, node));
}

static qel_inst_sync_id *__qel_get_inst_sync_id(uint32_t app_id, uint32_t peer_app, uint32_t node) noexcept
    QEL_REQUIRES(g_lib_mutex) {
    qel_inst_sync_id *ids = __qel_find_inst_sync_id(app_id, peer_app, node);
    if (!ids) {
        ids = qel_new<qel_inst_sync_id>();
        g_qel_mng.sync_ids.insert(ids, pair_key(app_id, peer_app, node));
    }
    return ids;
}

void qel_update_inst_sync_id(uint32_t app_id, uint32_t peer_app, uint32_t node, uint32_t id) noexcept {
    qel_lock lock(g_lib_mutex);
    __qel_get_inst_sync_id(app_id, peer_app, node)->sync_id = id;
}

void qel_update_inst_sync_ack_id(uint32_t app_id, uint32_t peer_app, uint32_t node, uint32_t id) noexcept {
    qel_lock lock(g_lib_mutex);
    __qel_get_inst_sync_id(app_id, peer_app, node)->ack_id = id;
}

uint32_t qel_get_inst_sync_id(uint32_t app_id, uint32_t peer_app, uint32_t node) noexcept {
    qel_lock lock(g_lib_mutex);
    const qel_inst_sync_id *ids = __qel_find_inst_sync_id(app_id, peer_app, node);
    return ids ? ids->sync_id : 0;
}

// ---- syncs without an acknowledgement -------------------------------------------------------------------

void __qel_add_inst_sync_msg(qel_msg *msg) noexcept {
    auto *unack = qel_new<qel_unack_sync>();
    unack->msg = msg;
    g_qel_mng.unacks.push_back(unack);
    g_qel_mng.unack_index.insert(unack, qel_peer_key(msg->hdr.dst_app, msg->hdr.dst_node));
}

static void __qel_free_inst_sync_msg(qel_unack_sync *unack) noexcept QEL_REQUIRES(g_lib_mutex) {
    g_qel_mng.unacks.unlink(unack);
    g_qel_mng.unack_index.remove(unack);
    free(unack->msg);
    qel_delete(unack);
}

qel_unack_sync *__qel_find_inst_sync_msg(uint32_t app_id, uint32_t peer_app, uint32_t node,
                                         uint32_t seq) noexcept {
    qel_unack_sync *unack = g_qel_mng.unack_index.first(qel_peer_key(peer_app, node));
    while (unack && (unack->msg->hdr.src_app != app_id || qel_load_be32(qel_sync_of(unack->msg)->seq) != seq))
        unack = g_qel_mng.unack_index.next(unack);
    return unack;
}

bool qel_is_sync_under_way(uint32_t peer_app, uint32_t node) noexcept {
    qel_lock lock(g_lib_mutex);
    return g_qel_mng.unack_index.first(qel_peer_key(peer_app, node)) != nullptr;
}

int qel_del_inst_sync_msg(uint32_t app_id, uint32_t peer_app, uint32_t node, uint32_t seq) noexcept {
    qel_lock lock(g_lib_mutex);
    qel_unack_sync *unack = __qel_find_inst_sync_msg(app_id, peer_app, node, seq);
    if (!unack)
        return -ENOENT;
    __qel_free_inst_sync_msg(unack);
    return 0;
}

void __qel_clear_sync_inst_msg(uint32_t peer_app, uint32_t node) noexcept {
    while (qel_unack_sync *unack = g_qel_mng.unack_index.first(qel_peer_key(peer_app, node)))
        __qel_free_inst_sync_msg(unack);
}

// ---- what is to be done again in a while ----------------------------------------------------------------

// A line of a full list at most once a second, however often it is met.
static bool may_warn(timespec &last) noexcept {
    timespec now{};
    (void)qel_sys_get().clock_gettime(CLOCK_MONOTONIC, &now);
    if (last.tv_sec != 0 &&
        (now.tv_sec - last.tv_sec) * 1'000'000'000L + (now.tv_nsec - last.tv_nsec) < 1'000'000'000L)
        return false;
    last = now;
    return true;
}

static void __qel_free_resume(qel_resume_comm *resume) noexcept QEL_REQUIRES(g_lib_mutex) {
    g_qel_mng.resumes.unlink(resume);
    g_qel_mng.resume_index.remove(resume);
    qel_delete(resume);
}

// The timer goes with its record: one message can hold thousands of syncs, each of which clears the resume of
// the one before and starts another, and the list's bound is to be the bound of the timers.
void __qel_clear_resume_comm(uint32_t peer_app, uint32_t node) noexcept {
    while (qel_resume_comm *resume = g_qel_mng.resume_index.first(qel_peer_key(peer_app, node))) {
        QEL_VERBOSE("QEL clear resume comm to %d/%d.\n", static_cast<int>(peer_app), static_cast<int>(node));
        qel_cancel_timer_event(qel_resume_s, QEL_TIMER_RESUME, resume->timer_seq);
        __qel_free_resume(resume);
    }
}

void qel_try_resume_comm(uint32_t peer_app, uint32_t node) noexcept {
    static constinit timespec last_warning = {}; // library thread only
    if (qel_app_online(peer_app, node))
        return;
    {
        qel_lock lock(g_lib_mutex);
        if (g_qel_mng.unack_index.first(qel_peer_key(peer_app, node)))
            return; // the handshake is still in progress
        if (g_qel_mng.resume_index.size() >= qel_resume_list_max) {
            if (may_warn(last_warning))
                QEL_WARN("QEL resume list full.\n");
            return;
        }
    }
    auto *resume = qel_new<qel_resume_comm>();
    resume->timer_seq = qel_get_seq();
    resume->peer_app = peer_app;
    resume->peer_node = node;
    if (qel_subscr_timer_event(qel_resume_s, QEL_TIMER_RESUME, resume->timer_seq) != 0) {
        qel_delete(resume);
        return;
    }
    // The timer's event is read by this same thread, so the record is listed in time.
    qel_lock lock(g_lib_mutex);
    QEL_INFO("QEL try resume comm to %d/%d.\n", static_cast<int>(peer_app), static_cast<int>(node));
    g_qel_mng.resumes.push_back(resume);
    g_qel_mng.resume_index.insert(resume, qel_peer_key(peer_app, node));
}

void qel_resume_timer_expired(uint32_t timer_seq) noexcept {
    uint32_t peer_app = 0, node = 0;
    bool found = false;
    {
        qel_lock lock(g_lib_mutex);
        for (qel_resume_comm &resume : g_qel_mng.resumes) {
            if (resume.timer_seq != timer_seq)
                continue;
            peer_app = resume.peer_app;
            node = resume.peer_node;
            found = true;
            __qel_free_resume(&resume);
        }
    }
    if (!found)
        return;
    QEL_ERROR("QEL resume communication to %d/%d.\n", static_cast<int>(peer_app), static_cast<int>(node));
    qel_app_inst_force_quit(peer_app, node);
    qel_app_inst_join(peer_app, node, 1);
}

// ---- sending again --------------------------------------------------------------------------------------

// Takes one try off the message's counter; false when none is left. Nobody is believed to have more than 600.
static bool take_try(qel_msg *msg) noexcept {
    unsigned char *counter = qel_sync_of(msg)->counter;
    const uint32_t left = std::min(qel_load_be32(counter), qel_sync_resend_max);
    if (left == 0)
        return false;
    qel_store_be32(counter, left - 1);
    return true;
}

// A sync is sent again only as long as it waits for its acknowledgement.
static bool __qel_still_wanted(qel_msg *msg) noexcept QEL_REQUIRES(g_lib_mutex) {
    if (qel_load_be16(static_cast<char *>(qel_msg_data(msg)) + 2) != QEL_TLV_SYNC)
        return true;
    return __qel_find_inst_sync_msg(msg->hdr.src_app, msg->hdr.dst_app, msg->hdr.dst_node,
                                    qel_load_be32(qel_sync_of(msg)->seq)) != nullptr;
}

bool qel_add_sync_resend(qel_msg *msg) noexcept {
    static constinit timespec last_warning = {}; // library thread only
    const bool is_sync = qel_load_be16(static_cast<char *>(qel_msg_data(msg)) + 2) == QEL_TLV_SYNC;
    {
        qel_lock lock(g_lib_mutex);
        if (!__qel_still_wanted(msg))
            return false;
        if (g_qel_mng.resend_index.size() >= qel_resend_list_max) {
            if (may_warn(last_warning))
                QEL_WARN("QEL resend list full.\n");
            return false;
        }
    }
    if (!take_try(msg))
        return false;
    msg->hdr.seq = qel_get_seq();
    if (qel_subscr_timer_event(qel_resend_s, QEL_TIMER_RESEND, msg->hdr.seq) != 0)
        return false;
    auto *resend = qel_new<qel_resend_sync>();
    resend->msg = msg;
    qel_lock lock(g_lib_mutex);
    const auto app = static_cast<int>(msg->hdr.dst_app), node = static_cast<int>(msg->hdr.dst_node);
    const auto seq = static_cast<int>(qel_load_be32(qel_sync_of(msg)->seq));
    if (is_sync)
        QEL_VERBOSE("QEL add sync inst resend to %d/%d, seq %d.\n", app, node, seq);
    else
        QEL_VERBOSE("QEL add sync inst ack resend to %d/%d, seq %d.\n", app, node, seq);
    g_qel_mng.resends.push_back(resend);
    g_qel_mng.resend_index.insert(resend, msg->hdr.seq);
    return true;
}

static void __qel_free_resend(qel_resend_sync *resend) noexcept QEL_REQUIRES(g_lib_mutex) {
    g_qel_mng.resends.unlink(resend);
    g_qel_mng.resend_index.remove(resend);
    free(resend->msg);
    qel_delete(resend);
}

void qel_resend_timer_expired(uint32_t timer_seq) noexcept {
    qel_lock lock(g_lib_mutex);
    qel_resend_sync *resend = g_qel_mng.resend_index.first(timer_seq);
    while (resend) {
        qel_resend_sync *next = g_qel_mng.resend_index.next(resend);
        qel_msg *msg = resend->msg;
        if (!__qel_still_wanted(msg) ||
            qel_tipc_sendto(msg->hdr.src_app, msg, msg->hdr.dst_app, msg->hdr.dst_node, 0) == 0) {
            __qel_free_resend(resend);
        } else if (take_try(msg)) {
            // The peer's name can stay unknown for more than a second on a bad link. Without a try left the
            // record stays, to be seen in the print, and no timer runs.
            g_qel_mng.resend_index.remove(resend);
            msg->hdr.seq = qel_get_seq();
            g_qel_mng.resend_index.insert(resend, msg->hdr.seq);
            (void)qel_subscr_timer_event(qel_resend_s, QEL_TIMER_RESEND, msg->hdr.seq);
        }
        resend = next;
    }
}

void qel_restart_sync_timers() noexcept {
    qel_lock lock(g_lib_mutex);
    for (qel_resume_comm &resume : g_qel_mng.resumes)
        (void)qel_subscr_timer_event(qel_resume_s, QEL_TIMER_RESUME, resume.timer_seq);
    for (qel_resend_sync &resend : g_qel_mng.resends)
        (void)qel_subscr_timer_event(qel_resend_s, QEL_TIMER_RESEND, resend.msg->hdr.seq);
}
