// The library manager: start of the library, the table of applications, the running flag, and the prints of
// the library's state.
//
// A process registers its applications, then calls qel_run(). The library thread exists from the first
// registration on, but waits for that call; so do the proxy threads. From then on the table of applications
// does not change any more, and the lists of presence and handshake are worked on by the library thread, with
// reads from everywhere.
#include "qel_mng_int.h"

#include <cerrno>
#include <linux/tipc.h>

#include "qel_cfg.h"
#include "qel_flow_ctrl.h"
#include "qel_mng_msg.h"
#include "qel_port.h"
#include "qel_rpc.h"
#include "qel_user_proxy.h"
#include "qel_watchdog.h"

constinit qel_mutex g_lib_mutex;
constinit qel_mng_state g_qel_mng;
static_assert(std::is_trivially_destructible_v<qel_mng_state>,
              "the library thread runs while the destructors of globals do");
static constinit uint8_t g_lib_inited QEL_GUARDED_BY(g_lib_mutex) = 0;

// Registered at start; kept as the one place where something could be done at the process's end. The threads
// and records live on until then.
static void qel_lib_atexit() {}

// ---- start of the library -------------------------------------------------------------------------------

// Leaves the errno of the step that failed for the caller's line.
int32_t qel_create_subscription_socket() noexcept {
    const qel_port &port = qel_port_get();
    const int32_t sd = port.socket(AF_TIPC, SOCK_SEQPACKET, 0);
    if (sd < 0) {
        const int error = errno;
        QEL_ERROR("QEL create subscription socket descriptor failed: %s.\n", strerror(error));
        errno = error;
        return -1;
    }
    const sockaddr_tipc server = qel_name_addr(TIPC_TOP_SRV, TIPC_TOP_SRV);
    if (qel_set_fd_close_on_exec(sd) == 0) {
        if (port.connect(sd, reinterpret_cast<const sockaddr *>(&server), sizeof server) == 0)
            return sd;
        const int error = errno;
        QEL_ERROR("QEL connect to TIPC topology server failed: %s.\n", strerror(error));
        errno = error;
    }
    const int error = errno;
    port.close(sd);
    errno = error;
    return -1;
}

static void drop_subscription_socket() noexcept {
    qel_port_get().close(g_qel_mng.subscription_socket.exchange(-1, std::memory_order_relaxed));
}

// The steps of the start; each failure undoes the ones before it. 0 or the result of the registration.
static int start_library() noexcept QEL_REQUIRES(g_lib_mutex) {
    qel_init_seq();
    g_qel_mng.running = 0;
    g_qel_mng.blocked_resume.store(0, std::memory_order_relaxed);
    g_qel_mng.subscription_socket.store(-1, std::memory_order_relaxed);

    int error;
    switch (g_qel_mng.running_cond.init(error)) {
    case qel_cond_step::none:
        break;
    case qel_cond_step::attr_init:
        QEL_ERROR("QEL init running condition attribute failed: %s.\n", strerror(error));
        return -1;
    case qel_cond_step::attr_clock:
        QEL_ERROR("QEL set running condition clock attribute failed: %s.\n", strerror(error));
        return -1;
    case qel_cond_step::cond_init:
        QEL_ERROR("QEL init running condition failed: %s.\n", strerror(error));
        return -1;
    }

    const int32_t sd = qel_create_subscription_socket();
    if (sd < 0) {
        QEL_ERROR("QEL create subscription socket failed.\n");
        g_qel_mng.running_cond.destroy();
        return -1;
    }
    g_qel_mng.subscription_socket.store(sd, std::memory_order_relaxed);

    // The thread waits at its gate: only when nothing can fail any more may it go on to need the lock held
    // here.
    g_qel_mng.gate.decide(qel_gate::decision::none);
    error = qel_sys_get().thread_create(&g_qel_mng.thread, qel_socket_msg_dist_thread_fun, nullptr);
    if (error) {
        QEL_ERROR("QEL create socket msg distribute thread failed: %s.\n", strerror(error));
        g_qel_mng.running_cond.destroy();
        drop_subscription_socket();
        return -error;
    }
    if (qel_sys_get().atexit(qel_lib_atexit) != 0) {
        QEL_ERROR("QEL add exit callback failed.\n");
        g_qel_mng.gate.decide(qel_gate::decision::give_up);
        pthread_join(g_qel_mng.thread, nullptr);
        g_qel_mng.running_cond.destroy();
        drop_subscription_socket();
        return -1;
    }
    pthread_detach(g_qel_mng.thread);
    g_lib_inited = 1;
    g_qel_mng.gate.decide(qel_gate::decision::open);
    return 0;
}

// ---- the table of applications --------------------------------------------------------------------------

qel_app_mng *qel_get_app_mng(uint32_t app_id) noexcept {
    if (app_id == 0)
        return nullptr;
    for (qel_app_mng &slot : g_qel_mng.apps) {
        const uint32_t id =
            slot.app_id.load(std::memory_order_acquire); // pairs with the release in registration
        if (id == app_id)
            return &slot;
        if (id == 0)
            break;
    }
    return nullptr;
}

void qel_del_app_mng(qel_app_mng *) noexcept {}

int qel_add_app_mng(uint32_t app_id, const char *name, uint8_t thread_flag, int32_t count,
                    const qel_dispatcher *dispatchers, qel_event_fun event_cb) noexcept {
    qel_lock lock(g_lib_mutex);
    if (!g_lib_inited) {
        QEL_INFO("QEL init lib on first app registeration.\n");
        const int ret = start_library();
        if (ret) {
            QEL_ERROR("QEL init lib failed.\n");
            return ret;
        }
    }
    if (g_qel_mng.running) {
        QEL_ERROR("QEL had already running, and app %d can not be registered.\n", static_cast<int>(app_id));
        return -1;
    }
    if (qel_get_app_mng(app_id)) {
        QEL_ERROR("QEL app %d has already registered.\n", static_cast<int>(app_id));
        return -EEXIST;
    }
    QEL_INFO("QEL add new app %d mgmt.\n", static_cast<int>(app_id));
    qel_app_mng *slot = nullptr;
    for (uint32_t i = 0; i < QEL_PROCESS_APPS_MAX && !slot; i++)
        if (g_qel_mng.apps[i].app_id.load(std::memory_order_relaxed) == 0)
            slot = &g_qel_mng.apps[i];
    if (!slot) {
        QEL_WARN("QEL lib's app registeration full.\n");
        return -ENOBUFS;
    }

    slot->fc = qel_add_app_fc(app_id);
    slot->rpc = qel_add_app_rpc_wait(app_id);
    slot->info =
        qel_add_app_info(static_cast<int32_t>(app_id), name, thread_flag, count, dispatchers, event_cb);
    if (slot->fc && slot->rpc && slot->info && __qel_add_comm_app(app_id, app_id) == 0) {
        slot->app_id.store(app_id, std::memory_order_release);
        slot->info->gate.decide(qel_gate::decision::open);
        return 0;
    }
    qel_del_app_fc(slot->fc);
    qel_del_app_rpc_wait(slot->rpc);
    __qel_del_comm_app(app_id);
    if (slot->info)
        qel_del_app_info(slot->info);
    slot->fc = nullptr;
    slot->rpc = nullptr;
    slot->info = nullptr;
    return -EAGAIN;
}

// ---- running --------------------------------------------------------------------------------------------

int qel_notify_running() noexcept {
    qel_lock lock(g_lib_mutex);
    g_qel_mng.running = 1;
    const int ret = g_qel_mng.running_cond.broadcast();
    QEL_ASSERT(ret == 0);
    return 0;
}

void qel_wait_for_running(const char *name) noexcept {
    qel_lock lock(g_lib_mutex);
    while (!g_qel_mng.running) {
        qel_watchdog_feed(name);
        int ret = g_qel_mng.running_cond.wait_until(g_lib_mutex, qel_deadline_s(1));
        if (ret == ETIMEDOUT)
            ret = 0;
        QEL_ASSERT(ret == 0);
    }
}

void qel_enable_blocked_resume() noexcept { g_qel_mng.blocked_resume.store(1, std::memory_order_relaxed); }
void qel_disable_blocked_resume() noexcept { g_qel_mng.blocked_resume.store(0, std::memory_order_relaxed); }
int qel_blocked_resume_enabled() noexcept {
    return qel_cfg_get_blocked_resume_enabled() ? g_qel_mng.blocked_resume.load(std::memory_order_relaxed)
                                                : 0;
}

// ---- prints ---------------------------------------------------------------------------------------------

static void print_nodes(const qel_node_map &map) noexcept QEL_REQUIRES(g_print_mutex) {
    for (uint32_t node = map.next(0); node < qel_node_count && !qel_buf_full(); node = map.next(node + 1))
        qel_buf_printf(" %d", static_cast<int>(node));
    qel_buf_printf("\n");
}

void qel_cli_print_lib_info(uint32_t app_id) noexcept {
    qel_buf_printf("Application %d/%d process's QEL library information:\n", static_cast<int>(app_id),
                   qel_get_my_node_id());
    qel_buf_printf("  QEL library thread 0x%x, subscription socket %d\n",
                   static_cast<unsigned>(g_qel_mng.thread),
                   g_qel_mng.subscription_socket.load(std::memory_order_relaxed));
    qel_buf_printf("  Applications in this process:");
    for (const qel_app_mng &slot : g_qel_mng.apps) {
        const uint32_t id = slot.app_id.load(std::memory_order_acquire);
        if (id == 0)
            break;
        qel_buf_printf(" %d", static_cast<int>(id));
    }
    qel_buf_printf("\n");

    qel_lock lock(g_lib_mutex);
    qel_buf_printf("  Online application servers:\n");
    for (qel_comm_app &peer : g_qel_mng.comm_apps) {
        qel_buf_printf("    Application %d server on nodes:", static_cast<int>(peer.peer_app));
        print_nodes(peer.servers);
        qel_buf_printf("    Application %d server's subscribers:", static_cast<int>(peer.peer_app));
        for (qel_comm_subscriber &s : peer.subscribers)
            qel_buf_printf(" %d", static_cast<int>(s.app_id));
        qel_buf_printf("\n");
    }
    qel_buf_printf("\n");

    struct block {
        const char *title, *line;
        qel_node_map qel_comm_app::*map;
    };
    static constexpr block blocks[] = {
        {"  Online application instances:\n",
         "    Application %d instance on nodes:", &qel_comm_app::instances},
        {"\n  Online application instances acked:\n",
         "    Application %d instance acked on nodes:", &qel_comm_app::acked},
        {"\n  Online application instances online:\n",
         "    Application %d instance online on nodes:", &qel_comm_app::online},
    };
    for (const block &b : blocks) {
        qel_buf_printf("%s", b.title);
        for (qel_comm_app &peer : g_qel_mng.comm_apps) {
            char line[64];
            snprintf(line, sizeof line, b.line, static_cast<int>(peer.peer_app));
            qel_buf_printf("%s", line);
            print_nodes(peer.*b.map);
        }
    }

    if (!g_qel_mng.unacks.empty()) {
        qel_buf_printf("\n  Unack instance sync(src_app/seq->dst_app/dst_node):\n   ");
        for (qel_unack_sync &u : g_qel_mng.unacks) {
            if (qel_buf_full())
                return;
            qel_buf_printf(" %d/%d->%d/%d", static_cast<int>(u.msg->hdr.src_app),
                           static_cast<int>(qel_load_be32(qel_sync_of(u.msg)->seq)),
                           static_cast<int>(u.msg->hdr.dst_app), static_cast<int>(u.msg->hdr.dst_node));
        }
        qel_buf_printf("\n");
    }
    if (!g_qel_mng.resumes.empty()) {
        qel_buf_printf("\n  Communication resume info(src_app/seq->dst_app/dst_node):\n   ");
        for (qel_resume_comm &r : g_qel_mng.resumes) {
            if (qel_buf_full())
                return;
            qel_buf_printf(" %d/%d->%d/%d", static_cast<int>(r.src_app), static_cast<int>(r.timer_seq),
                           static_cast<int>(r.peer_app), static_cast<int>(r.peer_node));
        }
        qel_buf_printf("\n");
    }
    if (!g_qel_mng.resends.empty()) {
        qel_buf_printf("\n  Resend instance sync ack(src_app->dst_app/dst_node/seq):\n   ");
        for (qel_resend_sync &r : g_qel_mng.resends) {
            if (qel_buf_full())
                return;
            qel_buf_printf(" %d->%d/%d/%d", static_cast<int>(r.msg->hdr.src_app),
                           static_cast<int>(r.msg->hdr.dst_app), static_cast<int>(r.msg->hdr.dst_node),
                           static_cast<int>(qel_load_be32(qel_sync_of(r.msg)->seq)));
        }
        qel_buf_printf("\n");
    }
}

void qel_cli_print_app_comm(uint32_t app_id) noexcept {
    qel_lock lock(g_lib_mutex);
    qel_buf_printf("  Communication peer applications:");
    for (qel_comm_app &peer : g_qel_mng.comm_apps)
        for (qel_comm_subscriber &s : peer.subscribers)
            if (s.app_id == app_id)
                qel_buf_printf(" %d", static_cast<int>(peer.peer_app));
    qel_buf_printf("\n");
}
