// Events of the topology server: nodes that come and go, and the applications of this node.
//
// One thread reads and another asks. An application that joined is asked who it is, and the question has no
// time limit: it may be stopped in a debugger and answer tomorrow. So the reader only queues application
// events, in order; the worker handles them, in order. If the withdrawal of the application being asked is
// read, no answer will come, and the reader ends the worker's wait. It repeats that at every turn until the
// worker is through, as the wait may not have been open yet at the first time.
#include <cerrno>
#include <cstdio>
#include <linux/tipc.h>

#include "qel_cfg.h"
#include "qel_mng.h"
#include "qel_port.h"
#include "qel_rpc.h"
#include "qel_tlv.h"
#include "qel_user_proxy.h"
#include "qel_watchdog.h"
#include "qeld.h"
#include "qeld_msg.h"

#define QEL_LOG_SRC "qeld"
#include "qel_log.h"

static const char event_thread_name[] = "qeld_event_process";
static const char work_thread_name[] = "qeld_app_info";

constexpr uint32_t daemon_app = 1;
constexpr int readable_wait_ms = 2000;
constexpr int vain_wait_ms = 130; // while somebody is asked who is gone
constexpr uint64_t retry_us = 1'000'000;
constexpr uint32_t work_wait_s = 60; // no more than a period after which the worker looks again

// ---- the ordered list between reader and worker ---------------------------------------------------------

enum class qeld_work_kind : uint8_t { join, quit, forget_all };

struct qeld_work {
    qel_link link{};
    qel_hash_hook by_app{}; // key: the application
    qeld_work_kind kind = qeld_work_kind::join;
    uint32_t app_id = 0;
    uint64_t number = 0; // counted up in the order of arrival
};

struct qeld_work_state {
    qel_mutex mutex; // taken by reader and worker only; before that of application 1's calls, else alone
    qel_cond cond;   // something was queued
    qel_list<qeld_work, offsetof(qeld_work, link)> list QEL_GUARDED_BY(mutex);
    qel_hash<qeld_work, offsetof(qeld_work, by_app)> index QEL_GUARDED_BY(mutex);
    uint64_t last_number QEL_GUARDED_BY(mutex) = 0;
    uint32_t asked_app QEL_GUARDED_BY(mutex) = 0; // the application that the worker is asking, or 0
    bool asked_in_vain QEL_GUARDED_BY(mutex) = false;
};
static constinit qeld_work_state g_work;

static void work_drop(qeld_work *work) noexcept QEL_REQUIRES(g_work.mutex) {
    g_work.list.unlink(work);
    g_work.index.remove(work);
    qel_delete(work);
}

static void work_append(qeld_work_kind kind, uint32_t app_id) noexcept QEL_REQUIRES(g_work.mutex) {
    auto *work = qel_new<qeld_work>();
    work->kind = kind;
    work->app_id = app_id;
    work->number = ++g_work.last_number;
    g_work.list.push_back(work);
    g_work.index.insert(work, app_id);
    const int ret = g_work.cond.signal();
    QEL_ASSERT(ret == 0);
}

// Somebody who binds and unbinds names while the worker waits must not fill the memory: from a length that
// only such a flood reaches, an application keeps at most its last withdrawal and one join behind it.
static bool work_condense(qeld_work_kind kind, uint32_t app_id) noexcept QEL_REQUIRES(g_work.mutex) {
    if (g_work.index.size() < qeld_work_verbatim_max)
        return true;
    if (kind == qeld_work_kind::quit) {
        while (qeld_work *work = g_work.index.first(app_id))
            work_drop(work);
        return true;
    }
    const qeld_work *last = nullptr;
    for (qeld_work *work = g_work.index.first(app_id); work; work = g_work.index.next(work))
        if (!last || work->number > last->number)
            last = work;
    return !last || last->kind != qeld_work_kind::join;
}

static void work_add_event(qeld_work_kind kind, uint32_t app_id) noexcept {
    qel_lock lock(g_work.mutex);
    if (kind == qeld_work_kind::quit && app_id == g_work.asked_app)
        g_work.asked_in_vain = true;
    if (work_condense(kind, app_id))
        work_append(kind, app_id);
}

// Ends the worker's wait for an application that is gone. Under the lock, so that it is this wait and not the
// next one, for the same application's next life.
static void work_end_vain_wait() noexcept {
    qel_lock lock(g_work.mutex);
    if (g_work.asked_in_vain)
        (void)qel_terminate_rpc(daemon_app, g_work.asked_app, static_cast<uint32_t>(qel_get_my_node_id()));
}

static bool work_waits_in_vain() noexcept {
    qel_lock lock(g_work.mutex);
    return g_work.asked_in_vain;
}

// The connection is gone and with it any withdrawal that would have come: what waits is worth nothing, nor is
// what is known. Every living name will be announced anew.
static void work_start_over() noexcept {
    qel_lock lock(g_work.mutex);
    while (qeld_work *work = g_work.list.front())
        work_drop(work);
    g_work.asked_in_vain = g_work.asked_app != 0;
    work_append(qeld_work_kind::forget_all, 0);
}

size_t qeld_work_pending() noexcept {
    qel_lock lock(g_work.mutex);
    return g_work.index.size();
}

bool qeld_work_step(uint32_t wait_s) noexcept {
    qeld_work_kind kind;
    uint32_t app_id;
    {
        qel_lock lock(g_work.mutex);
        if (g_work.list.empty() && wait_s > 0) {
            const int ret = g_work.cond.wait_until(g_work.mutex, qel_deadline_s(wait_s));
            QEL_ASSERT(ret == 0 || ret == ETIMEDOUT);
        }
        qeld_work *work = g_work.list.front();
        if (!work)
            return false;
        kind = work->kind;
        app_id = work->app_id;
        work_drop(work);
        if (kind == qeld_work_kind::join)
            g_work.asked_app = app_id;
    }
    switch (kind) {
    case qeld_work_kind::join: {
        QEL_VERBOSE("QELD perceived app %d join.\n", static_cast<int>(app_id));
        (void)qeld_get_app_info(app_id);
        qel_lock lock(g_work.mutex);
        g_work.asked_app = 0;
        g_work.asked_in_vain = false;
        break;
    }
    case qeld_work_kind::quit:
        QEL_VERBOSE("QELD perceived app %d quit.\n", static_cast<int>(app_id));
        qeld_clean_app_info(app_id);
        break;
    case qeld_work_kind::forget_all:
        qeld_clean_registry();
        break;
    }
    return true;
}

static void *qeld_work_process(void *) noexcept {
    qel_thread_set_name(work_thread_name);
    for (;;)
        (void)qeld_work_step(work_wait_s);
}

// ---- asking an application ------------------------------------------------------------------------------

static_assert(QEL_TLV_APP_INFO == 4);

int qeld_get_app_info(uint32_t app_id) noexcept {
    const int app = static_cast<int>(app_id);
    QEL_VERBOSE("QELD get app %d info.\n", app);
    qel_reply_set replies;
    int ret = qeld_rpc_get_app_info(app_id, &replies);
    // Also a positive result: the last reply met the end of a waiting slice and was thrown away.
    if (ret != 0) {
        QEL_ERROR("QELD get app %d info failed: %s.\n", app, strerror(std::abs(ret)));
        qel_reply_msg_free(&replies);
        return ret < 0 ? ret : -ret;
    }
    const qel_msg *reply = replies.count > 0 ? replies.msg[0] : nullptr;
    const uint32_t status = reply ? reply->hdr.rpc_status : uint32_t{QEL_STATUS_SYSTEM};
    if (status != QEL_STATUS_SUCCESS) {
        QEL_ERROR("QELD get app %d info failed: %s.\n", app, qel_reply_stat_string(status));
        qel_reply_msg_free(&replies);
        return -EINVAL;
    }

    // The answer is a stranger's: the list is read as far as it is there.
    uint32_t info[3] = {};
    const qel_tlv_list list(qel_msg_const_data(reply), qel_msg_data_len(reply));
    bool valid = list.ok() && list.type() == QEL_TLV_APP_INFO && list.len() >= qel_tlv_head_len + sizeof info;
    if (valid) {
        memcpy(info, list.value().data(), sizeof info);
        valid = qel_valid_app_id(info[0]);
    }
    qel_reply_msg_free(&replies);
    if (!valid) {
        QEL_ERROR("QELD get app %d info reply type invalid.\n", app);
        return -EINVAL;
    }
    const uint32_t pid = info[1];
    ret = qeld_add_app_id(info[0], pid);
    if (ret != 0) {
        QEL_ERROR("QELD add app %d pid %ld info failed.\n", static_cast<int>(info[0]),
                  static_cast<long>(static_cast<int32_t>(pid)));
        return ret;
    }
    (void)qeld_update_dbg_status(pid, info[2]);
    return 0;
}

// ---- events ---------------------------------------------------------------------------------------------

static bool event_joins(const tipc_event *event) noexcept { return event->event == TIPC_PUBLISHED; }
static bool event_quits(const tipc_event *event) noexcept { return event->event == TIPC_WITHDRAWN; }

constexpr uint32_t tipc_node_mask = 0xFFF;

void qeld_process_tipc_node_event(const tipc_event *event) noexcept {
    QEL_VERBOSE("QELD recv TIPC node event %d, [%d, %d].\n", static_cast<int>(event->event),
                static_cast<int>(event->found_lower), static_cast<int>(event->found_upper));
    // A range as wide as the mask names every node, and a wider one names none again.
    const uint64_t lower = event->found_lower;
    const uint64_t upper = std::min<uint64_t>(event->found_upper, lower + tipc_node_mask);
    for (uint64_t instance = lower; instance <= upper; instance++) {
        const auto node = static_cast<uint32_t>(instance & tipc_node_mask);
        if (node >= 65536) // what the bitmap holds; no masked number reaches it
            continue;
        if (event_joins(event)) {
            QEL_VERBOSE("QELD set node %d online.\n", static_cast<int>(node));
            qeld_set_node(node, true);
        } else if (event_quits(event)) {
            QEL_VERBOSE("QELD clear node %d online.\n", static_cast<int>(node));
            qeld_set_node(node, false);
        }
    }
}

static tipc_subscr app_subscription(uint32_t filter) noexcept {
    tipc_subscr subscr{};
    subscr.seq = {.type = qel_name_type, .lower = 0, .upper = 0xFFFFFFFF};
    subscr.timeout = static_cast<uint32_t>(TIPC_WAIT_FOREVER);
    subscr.filter = filter;
    return subscr;
}

static bool send_subscription(int32_t sd, const tipc_subscr &subscr) noexcept {
    static_assert(sizeof subscr == 28);
    const qel_port &port = qel_port_get();
    ssize_t sent;
    do {
        errno = 0;
        sent = port.send(sd, &subscr, sizeof subscr, MSG_NOSIGNAL);
    } while (sent < 0 && (errno == EINTR || errno == ENOMEM || errno == ENOBUFS));
    return sent == static_cast<ssize_t>(sizeof subscr);
}

static int subscribe_apps(int32_t sd) noexcept {
    QEL_VERBOSE("QELD subscribe QEL app TIPC events.\n");
    if (send_subscription(sd, app_subscription(TIPC_SUB_SERVICE)))
        return 0;
    QEL_ERROR("QELD send QEL app subscription msg failed: %s.\n,", strerror(errno));
    return -1;
}

int qeld_subscr_event(int32_t sd) noexcept {
    QEL_VERBOSE("QELD subscribe TIPC node events.\n");
    tipc_subscr nodes{};
    nodes.seq = {.type = 0, .lower = 1, .upper = 0x7FFFFFFF};
    nodes.timeout = static_cast<uint32_t>(TIPC_WAIT_FOREVER);
    nodes.filter = TIPC_SUB_SERVICE; // the first publication and the last withdrawal of each name
    if (!send_subscription(sd, nodes)) {
        QEL_ERROR("QELD send node subscription msg failed: %s.\n,", strerror(errno));
        return -1;
    }
    return subscribe_apps(sd);
}

static void qeld_reconnect() noexcept;

// An event tells the publisher's whole range, and anybody may publish any: only this node's instances in it
// are stepped over.
void qeld_process_qel_app_event(const tipc_event *event) noexcept {
    if (!event_joins(event) && !event_quits(event))
        return;
    const qeld_work_kind kind = event_joins(event) ? qeld_work_kind::join : qeld_work_kind::quit;
    const uint64_t upper = event->found_upper;
    uint64_t instance = (event->found_lower & 0xFFFF0000) | static_cast<uint32_t>(qel_get_my_node_id());
    if (instance < event->found_lower)
        instance += 0x10000;
    for (; instance <= upper; instance += 0x10000) {
        const auto app_id = static_cast<uint32_t>(instance >> 16);
        if (qel_valid_app_id(app_id))
            work_add_event(kind, app_id);
    }
    work_end_vain_wait();

    // The withdrawal of a range may have covered names that still stand on their own, of which the server
    // would never tell again: ask for all of them.
    if (event_quits(event) && event->found_lower < event->found_upper) {
        const int32_t sd = g_app_mng.sd.load(std::memory_order_relaxed);
        if (!send_subscription(sd, app_subscription(TIPC_SUB_SERVICE | TIPC_SUB_CANCEL)) ||
            subscribe_apps(sd) != 0)
            qeld_reconnect();
    }
}

void qeld_process_event(const tipc_event *event) noexcept {
    switch (event->s.seq.type) {
    case 0:
        qeld_process_tipc_node_event(event);
        break;
    case qel_name_type:
        qeld_process_qel_app_event(event);
        break;
    default:
        break;
    }
}

// ---- the reader -----------------------------------------------------------------------------------------

static int wait_readable(int32_t sd, int timeout_ms) noexcept {
    pollfd fd = {.fd = sd, .events = POLLIN, .revents = 0};
    return qel_port_get().poll(&fd, 1, timeout_ms) == 1 ? 0 : -1;
}

int socket_wait_readable(int32_t sd) noexcept { return wait_readable(sd, readable_wait_ms); }

// Opens and subscribes anew until it works. A server that has dropped the connection may do so again at once.
static void qeld_reconnect() noexcept {
    const qel_port &port = qel_port_get();
    (void)port.close(g_app_mng.sd.exchange(-1, std::memory_order_relaxed));
    work_start_over();
    for (;;) {
        qel_watchdog_feed(event_thread_name);
        work_end_vain_wait();
        qel_sleep_us(retry_us);
        const int32_t sd = qel_create_subscription_socket();
        if (sd < 0) {
            QEL_ERROR("QELD create subscription socket failed.\n");
            continue;
        }
        qeld_clear_nodes();
        if (qeld_subscr_event(sd) == 0) {
            g_app_mng.sd.store(sd, std::memory_order_relaxed);
            return;
        }
        QEL_ERROR("QELD subscribe TIPC event failed.\n");
        (void)port.close(sd);
    }
}

void qeld_event_step() noexcept {
    qel_watchdog_feed(event_thread_name);
    const int32_t sd = g_app_mng.sd.load(std::memory_order_relaxed);
    if (work_waits_in_vain()) {
        if (wait_readable(sd, vain_wait_ms) != 0) {
            work_end_vain_wait();
            return;
        }
    } else if (socket_wait_readable(sd) != 0) {
        return;
    }
    tipc_event event;
    static_assert(sizeof event == 48);
    errno = 0;
    // Of a dropped connection poll says readable for ever, and a blocking read returns only once.
    const ssize_t size = qel_port_get().recv(sd, &event, sizeof event, MSG_DONTWAIT);
    if (size == static_cast<ssize_t>(sizeof event)) {
        qeld_process_event(&event);
        return;
    }
    if (size < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    QEL_ERROR("QELD recv subscription event failed: %s.\n", strerror(errno));
    if (size <= 0)
        qeld_reconnect();
}

[[noreturn]] static void qeld_event_exit() noexcept {
    qel_watchdog_unregister(event_thread_name);
    exit(1);
}

void *qeld_event_process(void *) noexcept {
    qel_thread_set_name(event_thread_name);
    qel_watchdog_register(event_thread_name);
    qeld_clear_nodes();

    const int32_t sd = qel_create_subscription_socket();
    if (sd < 0) {
        QEL_ERROR("QELD create subscription socket failed.\n");
        qeld_event_exit();
    }
    g_app_mng.sd.store(sd, std::memory_order_relaxed);
    if (qeld_subscr_event(sd) != 0) {
        QEL_ERROR("QELD subscribe TIPC event failed.\n");
        qeld_event_exit();
    }
    while (!qel_app_online(daemon_app, static_cast<uint32_t>(qel_get_my_node_id()))) {
        qel_watchdog_unregister(event_thread_name);
        qel_sleep_us(retry_us);
    }
    for (;;)
        qeld_event_step();
}

int qeld_event_init() noexcept {
    int ret = 0;
    pthread_t thread;
    if (g_work.cond.init(ret) == qel_cond_step::none) {
        ret = qel_sys_get().thread_create(&thread, qeld_work_process, nullptr);
        if (ret == 0)
            ret = qel_sys_get().thread_create(&thread, qeld_event_process, nullptr);
    }
    if (ret != 0)
        QEL_ERROR("QELD create event process thread failed: %s.\n", strerror(ret));
    return -ret;
}
