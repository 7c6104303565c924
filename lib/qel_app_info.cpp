#include "qel_app_info.h"

#include <algorithm>
#include <cerrno>

#define QEL_LOG_SRC "qel_app_info"
#include "qel_cfg.h"
#include "qel_flow_ctrl.h"
#include "qel_log.h"
#include "qel_mng.h"
#include "qel_port.h"
#include "qel_rpc.h"
#include "qel_user_proxy.h"
#include "qel_watchdog.h"

// ---- the proxy thread -----------------------------------------------------------------------------------

static qel_msg *try_take_msg(qel_app_info *app) noexcept {
    qel_lock lock(app->mutex);
    return app->queue.empty() ? nullptr : app->queue.pop_front();
}

static qel_msg *take_msg(qel_app_info *app, const char *name) noexcept {
    qel_msg *msg = try_take_msg(app);
    if (msg)
        return msg;
    qel_short_wait wait(app->last_wait_ns);
    if (wait.until([&] { return (msg = try_take_msg(app)) != nullptr; }))
        return msg;
    qel_lock lock(app->mutex);
    while (app->queue.empty()) {
        qel_watchdog_feed(name);
        int ret = app->cond.wait_until(app->mutex, qel_deadline_s(1));
        if (ret == ETIMEDOUT)
            ret = 0;
        QEL_ASSERT(ret == 0);
    }
    return app->queue.pop_front();
}

static void *proxy_thread(void *arg) noexcept {
    auto *app = static_cast<qel_app_info *>(arg);
    if (!app->gate.wait())
        return nullptr;
    char name[16];
    snprintf(name, sizeof name, "qel_app_%d", app->app_id);
    qel_watchdog_register(name);
    qel_thread_set_name(name);
    qel_wait_for_running(name);
    QEL_INFO("QEL app %d proxy thread start.\n", app->app_id);
    for (;;) {
        qel_watchdog_feed(name);
        qel_msg *msg = take_msg(app, name);
        if (msg->hdr.flags & QEL_FLAG_MNG)
            qel_dispatch_app_event(static_cast<uint32_t>(app->app_id), app->event_cb, msg);
        else
            qel_dispatch_app_msg(app, msg);
    }
}

// ---- making and undoing a record ------------------------------------------------------------------------

static void free_record(qel_app_info *app) noexcept {
    free(app->dispatchers);
    qel_delete(app);
}

qel_app_info *qel_add_app_info(int32_t app_id, const char *name, uint8_t thread_flag, int32_t count,
                               const qel_dispatcher *dispatchers, qel_event_fun event_cb) noexcept {
    QEL_VERBOSE("QEL add app %d info.\n", app_id);
    auto *app = qel_new<qel_app_info>();
    app->dispatchers =
        static_cast<qel_dispatcher *>(qel_zalloc((static_cast<size_t>(count) + 1) * sizeof(qel_dispatcher)));
    if (count > 0)
        memcpy(app->dispatchers, dispatchers, static_cast<size_t>(count) * sizeof(qel_dispatcher));
    app->app_id = app_id;
    app->priority = qel_get_app_priority(app_id);
    snprintf(app->name, sizeof app->name, "%.*s", static_cast<int>(sizeof app->name - 1), name);
    app->thread_flag = thread_flag;
    app->event_cb = event_cb;
    {
        qel_lock lock(app->mutex);
        qel_mc_init(&app->mc);
    }

    app->sd = qel_create_app_socket(app_id, app->priority);
    if (app->sd < 0) {
        free_record(app);
        return nullptr;
    }
    int error = app->mutex.init();
    if (error) {
        QEL_ERROR("QEL init app %d info mutex failed: %s.\n", app_id, strerror(error));
        qel_port_get().close(app->sd);
        free_record(app);
        return nullptr;
    }
    const char *failed = nullptr;
    switch (app->cond.init(error)) {
    case qel_cond_step::none:
        break;
    case qel_cond_step::attr_init:
        failed = "QEL init app %d condition attribute failed: %s.\n";
        break;
    case qel_cond_step::attr_clock:
        failed = "QEL set app %d condition clock attribute failed: %s.\n";
        break;
    case qel_cond_step::cond_init:
        failed = "QEL init app %d msg distribute condition failed: %s.\n";
        break;
    }
    if (!failed && thread_flag) {
        error = qel_sys_get().thread_create(&app->thread, proxy_thread, app);
        if (error) {
            app->cond.destroy();
            failed = "QEL create app %d proxy thread failed: %s.\n";
        }
    }
    if (!failed)
        return app;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // one of the four literals above
    QEL_ERROR(failed, app_id, strerror(error));
#pragma GCC diagnostic pop
    app->mutex.destroy();
    qel_port_get().close(app->sd);
    free_record(app);
    return nullptr;
}

void qel_del_app_info(qel_app_info *app) noexcept {
    QEL_INFO("QEL destroy app %d info.\n", app->app_id);
    qel_port_get().close(app->sd);
    if (app->thread_flag) {
        app->gate.decide(qel_gate::decision::give_up);
        pthread_join(app->thread, nullptr);
    }
    app->cond.destroy();
    app->mutex.destroy();
    free_record(app);
}

// ---- lookups --------------------------------------------------------------------------------------------

qel_app_info *qel_get_app_info(uint32_t app_id) noexcept {
    const qel_app_mng *slot = qel_get_app_mng(app_id);
    return slot ? slot->info : nullptr;
}

int32_t qel_get_app_sd(uint32_t app_id) noexcept {
    const qel_app_info *app = qel_get_app_info(app_id);
    return app ? app->sd : -1;
}

qel_dispatch_fun qel_get_dispatch_fun(const qel_app_info *app, uint32_t ver) noexcept {
    for (const qel_dispatcher *d = app->dispatchers; d->fun; d++)
        if (d->version == ver)
            return d->fun;
    return nullptr;
}

qel_ver_range qel_get_app_ver_range(const qel_app_info *app) noexcept {
    qel_ver_range range = {UINT32_MAX, 0};
    for (const qel_dispatcher *d = app->dispatchers; d->fun; d++) {
        range.lowest = std::min(range.lowest, d->version);
        range.highest = std::max(range.highest, d->version);
    }
    return range;
}

bool qel_is_app_server(uint32_t app_id) noexcept {
    const qel_app_info *app = qel_get_app_info(app_id);
    return app && app->dispatchers->fun;
}

// ---- queue ----------------------------------------------------------------------------------------------

static void enqueue(qel_app_info *app, qel_msg *msg) noexcept {
    qel_lock lock(app->mutex);
    app->queue.push_back(msg);
    const int ret = app->cond.signal();
    QEL_ASSERT(ret == 0);
}

void qel_enqueue_msg_dist(qel_msg *msg, qel_app_info *app) noexcept {
    if (app->thread_flag)
        enqueue(app, msg);
    else
        qel_dispatch_app_msg(app, msg);
}

int qel_enqueue_event_msg(uint32_t app_id, qel_msg *msg) noexcept {
    qel_app_info *app = qel_get_app_info(app_id);
    if (!app || !app->event_cb)
        return -1;
    if (app->thread_flag)
        enqueue(app, msg);
    else
        qel_dispatch_app_event(app_id, app->event_cb, msg);
    return 0;
}

void qel_discard_app_msg(uint32_t app_id, uint32_t src_app, uint32_t src_node) noexcept {
    qel_app_info *app = qel_get_app_info(app_id);
    if (!app)
        return;
    QEL_INFO("QEL app %d discard %d/%d msg.\n", app_id, src_app, src_node);
    uint32_t count = 0;
    {
        qel_lock lock(app->mutex);
        for (qel_msg &msg : app->queue) {
            if (msg.hdr.src_app != src_app || msg.hdr.src_node != src_node)
                continue;
            app->queue.unlink(&msg);
            free(&msg);
            count++;
        }
    }
    qel_fc_update_recv_drop(src_app, src_node, app_id, count);
}

int32_t qel_unprocess_app_msg_num(uint32_t app_id, uint32_t src_app, uint32_t src_node) noexcept {
    qel_app_info *app = qel_get_app_info(app_id);
    if (!app)
        return 0;
    int32_t count = 0;
    qel_lock lock(app->mutex);
    for (const qel_msg &msg : app->queue)
        count += msg.hdr.src_app == src_app && msg.hdr.src_node == src_node;
    return count;
}

// ---- dispatch -------------------------------------------------------------------------------------------

void qel_dispatch_app_msg(qel_app_info *app, qel_msg *msg) noexcept {
    const qel_hdr &hdr = msg->hdr;
    char words[32];
    QEL_VERBOSE("QEL dispatch app %d msg from %d/%d, ver %d, data len %d, msg flags: %s.\n", app->app_id,
                hdr.src_app, hdr.src_node, hdr.app_ver, qel_msg_data_len(msg),
                qel_get_msg_flags_str(hdr.flags, words));
    qel_fc_update_recv_ok(hdr.src_app, hdr.src_node, static_cast<uint32_t>(app->app_id));
    if (const qel_dispatch_fun fun = qel_get_dispatch_fun(app, hdr.app_ver)) {
        fun(msg);
        return;
    }
    QEL_VERBOSE("QEL app %d ver %d dispatcher not exist.\n", app->app_id, hdr.app_ver);
    if ((hdr.flags & (QEL_FLAG_REQUEST | QEL_FLAG_ACK)) == QEL_FLAG_REQUEST) {
        const qel_ver_range range = qel_get_app_ver_range(app);
        QEL_VERBOSE("QEL app %d version range [%d, %d].\n", app->app_id, range.lowest, range.highest);
        const uint32_t words_out[2] = {range.lowest, range.highest};
        const int32_t ret = qel_rpc_reply_app_mismatch(msg, words_out);
        if (ret)
            QEL_ERROR("QEL app %d reply app mismatch [%d, %d] to %d/%d failed: %s.\n", app->app_id,
                      range.lowest, range.highest, hdr.src_app, hdr.src_node, strerror(abs(ret)));
    }
    free(msg);
}

void qel_dispatch_app_event(uint32_t app_id, qel_event_fun event_cb, qel_msg *msg) noexcept {
    qel_app_event event;
    memcpy(&event, qel_msg_data(msg), sizeof event);
    QEL_INFO("QEL app %d dispatch app %d/%d event: %s.\n", app_id, event.peer_app, event.node,
             qel_event_type_string(event.event));
    event_cb(event);
    free(msg);
}

// ---- print ----------------------------------------------------------------------------------------------

void qel_cli_print_app_info(uint32_t app_id) noexcept {
    qel_app_info *app = qel_get_app_info(app_id);
    if (!app)
        return;
    qel_buf_printf("Application %d/%d [%s] information:\n", app->app_id, qel_get_my_node_id(), app->name);
    qel_buf_printf("  Proxy thread 0x%x, socket %d, priority %d\n",
                   app->thread_flag ? static_cast<unsigned>(app->thread) : 0, app->sd, app->priority);
    qel_buf_printf("  Callback functions: event %p, message dispatchers:\n  ",
                   reinterpret_cast<void *>(app->event_cb));
    for (const qel_dispatcher *d = app->dispatchers; d->fun; d++)
        qel_buf_printf("  version %d %p", d->version, reinterpret_cast<void *>(d->fun));
    qel_buf_printf("\n");
    qel_cli_print_app_comm(app_id); // takes the library's lock, so the record's is not held here
    qel_lock lock(app->mutex);
    int count = 0;
    for ([[maybe_unused]] const qel_msg &msg : app->queue)
        count++;
    qel_buf_printf("  Unprocessed message number %d\n\n", count);
    qel_cli_print_mc_info(&app->mc);
}
