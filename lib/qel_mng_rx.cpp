// The library thread: the one receiver of the process. It reads the topology server's events and every
// application's socket, one of each per pass so that none starves the others, checks every byte before it is
// used, and hands each message to whom it belongs. It never ends, but for a socket that cannot be published.
//
// Everything in the struct `rx` is this thread's alone.
#include "qel_mng_int.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <linux/tipc.h>
#include <poll.h>

#include "qel_cfg.h"
#include "qel_dbg.h"
#include "qel_flow_ctrl.h"
#include "qel_mng_msg.h"
#include "qel_port.h"
#include "qel_rpc.h"
#include "qel_user_proxy.h"
#include "qel_watchdog.h"

constexpr size_t rx_bytes_max = 66000;    // what TIPC accepts; more than a message ever has
constexpr size_t rx_control_bytes = 1096; // error, 1024 bytes of returned data, name
constexpr uint32_t msg_len_max = QEL_MSG_HDR_LEN + QEL_MSG_DATA_MAX;
constexpr size_t rx_copied_below = 1024;
constexpr int poll_ms = 2000;

static struct {
    // A message object with room for all that can come: the datagram goes where the header stands.
    qel_msg *msg;
    alignas(cmsghdr) unsigned char control[rx_control_bytes];
    char name[16]; // of the thread
    pollfd *polls; // [0] topology, then one per application
    uint32_t app_count;
    uint32_t monitor_s, monitor_seq; // the pending monitor timer
} rx;

static void qel_rx_return(qel_app_mng *slot, unsigned char *data, size_t size) noexcept;

// ---- topology events ------------------------------------------------------------------------------------

static uint32_t instance_app(uint32_t instance) noexcept { return instance >> 16; }
static uint32_t instance_node(uint32_t instance) noexcept { return instance & 0xFFFF; }

// The monitor: after half an hour, then after 1, 2, 4 ... 512 hours, then again from 1.
static void monitor_expired(uint32_t seq) noexcept {
    const time_t now = qel_sys_get().time();
    char text[64] = "\n";
    (void)ctime_r(&now, text);
    QEL_VERBOSE("QEL monitor timer: %s", text);
    const uint32_t app_id = g_qel_mng.apps[0].app_id.load(std::memory_order_acquire);
    {
        qel_lock lock(g_print_mutex);
        qel_buf_printf_reset();
        qel_cli_print_lib_info(app_id);
        qel_buf_printf("\n");
        qel_cli_print_app_info(app_id);
        qel_buf_printf("\n");
        qel_cli_print_fc_stat(app_id);
        qel_buf_printf("\n");
        qel_cli_print_rpc_stat(app_id);
        qel_buf_printf("\n");
        qel_dm_record_stat();
    }
    const bool doubling = seq >= 1 && seq <= 1023;
    rx.monitor_s = doubling ? qel_monitor_step_s * seq : qel_monitor_step_s;
    rx.monitor_seq = doubling ? 2 * seq : 2;
    (void)qel_subscr_timer_event(rx.monitor_s, QEL_TIMER_MONITOR, rx.monitor_seq);
}

static void timer_expired(uint32_t type, uint32_t seq) noexcept {
    QEL_VERBOSE("QEL perceived timer event of type %d seq %d.\n", static_cast<int>(type),
                static_cast<int>(seq));
    switch (type) {
    case QEL_TIMER_RESUME:
        qel_resume_timer_expired(seq);
        break;
    case QEL_TIMER_RESEND:
        qel_resend_timer_expired(seq);
        break;
    case QEL_TIMER_MONITOR:
        monitor_expired(seq);
        break;
    default:
        break;
    }
}

// A publication's range can be as wide as its publisher liked: anyone may bind {2303, 0, 4294967295}. Only
// what lies in the range that we subscribed to concerns us.
struct clipped_range {
    explicit clipped_range(const tipc_event &event) noexcept
        : lower(std::max(event.found_lower, event.s.seq.lower)),
          upper(std::min<uint64_t>(std::min(event.found_upper, event.s.seq.upper),
                                   uint64_t{lower} + (qel_node_count - 1))) {}
    uint64_t lower, upper; // empty when lower > upper
};

static void published(const tipc_event &event) noexcept {
    QEL_VERBOSE("QEL perceived app [0x%x, 0x%x] join.\n", event.found_lower, event.found_upper);
    const bool one = event.found_lower == event.found_upper;
    const clipped_range range(event);
    for (uint64_t i = range.lower; i <= range.upper; i++) {
        const uint32_t app = instance_app(static_cast<uint32_t>(i)),
                       node = instance_node(static_cast<uint32_t>(i));
        QEL_WARN("QEL perceived app %d/%d join.\n", static_cast<int>(app), static_cast<int>(node));
        // An instance's own name is announced once in its life, but ranges may overlap as often as
        // their publisher likes: they add no sync to one under way, or the syncs kept would have no limit.
        if (one || !qel_is_sync_under_way(app, node))
            qel_app_inst_join(app, node, 0);
    }
}

static void withdrawn(const tipc_event &event) noexcept {
    QEL_VERBOSE("QEL perceived app [0x%x, 0x%x] quit.\n", event.found_lower, event.found_upper);
    const clipped_range range(event);
    for (uint64_t i = range.lower; i <= range.upper; i++) {
        const uint32_t app = instance_app(static_cast<uint32_t>(i)),
                       node = instance_node(static_cast<uint32_t>(i));
        QEL_WARN("QEL perceived app %d/%d quit.\n", static_cast<int>(app), static_cast<int>(node));
        qel_app_inst_withdrawn(app, node);
    }
    if (event.found_lower == event.found_upper)
        return;
    // Instances inside may stand published by their own names, and the server announces those only to a new
    // subscription: it counts publications of exactly one range.
    (void)qel_cancel_app_events(event.s.seq.lower, event.s.seq.upper, event.s.timeout);
    (void)qel_subscr_app_events(event.s.seq.lower, event.s.seq.upper);
}

void qel_rx_topology_event(const void *bytes) noexcept {
    tipc_event event;
    memcpy(&event, bytes, sizeof event);
    switch (event.event) {
    case TIPC_PUBLISHED:
        published(event);
        break;
    case TIPC_WITHDRAWN:
        withdrawn(event);
        break;
    case TIPC_SUBSCR_TIMEOUT:
        timer_expired(qel_load_host32(event.s.usr_handle), qel_load_host32(event.s.usr_handle + 4));
        break;
    default:
        break;
    }
}

static void receive_topology_event() noexcept {
    const qel_port &port = qel_port_get();
    const int32_t sd = g_qel_mng.subscription_socket.load(std::memory_order_relaxed);
    tipc_event event;
    errno = 0;
    const ssize_t ret = port.recv(sd, &event, sizeof event, MSG_DONTWAIT);
    if (ret == ssize_t{sizeof event}) {
        qel_rx_topology_event(&event);
        return;
    }
    const int error = errno;
    if (ret < 0 && error == EAGAIN)
        return;
    QEL_ERROR("QEL recv subscription event failed:ret:%d, %d%s.\n", static_cast<int>(ret), error,
              strerror(error));
    port.shutdown(sd, SHUT_RDWR);
    port.close(sd);
    g_qel_mng.subscription_socket.store(-1, std::memory_order_relaxed);
}

// Every timer died with the old connection; they start anew with their full time.
static void recreate_subscription_socket() noexcept {
    const int32_t sd = qel_create_subscription_socket();
    if (sd < 0) {
        const int error = errno;
        QEL_ERROR("QEL create subscription socket failed(ret:%d, err:%d:%s)", sd, error, strerror(error));
        return;
    }
    g_qel_mng.subscription_socket.store(sd, std::memory_order_relaxed);
    rx.polls[0].fd = sd;
    qel_subscr_tipc_events(rx.name);
    (void)qel_subscr_timer_event(rx.monitor_s, QEL_TIMER_MONITOR, rx.monitor_seq);
    qel_restart_sync_timers();
}

// ---- messages of an application's socket ----------------------------------------------------------------

static void receive_exception(uint32_t app_id, int error) noexcept {
    QEL_ERROR("QEL recv app %d msg failed: %s.\n", static_cast<int>(app_id), strerror(error));
    qel_fc_update_recv_exception(app_id);
}

// A message from an instance that is not online here: never seen, or gone. Frees it.
static void refuse_msg(uint32_t app_id, qel_msg *msg) noexcept {
    const uint32_t src_app = msg->hdr.src_app, src_node = msg->hdr.src_node;
    const uint8_t kind = msg->hdr.flags & (QEL_FLAG_REQUEST | QEL_FLAG_ACK);
    QEL_VERBOSE("QEL app %d recv msg from %d/%d had already quit.\n", static_cast<int>(app_id),
                static_cast<int>(src_app), static_cast<int>(src_node));
    if (!(msg->hdr.flags & QEL_FLAG_MNG) && kind != (QEL_FLAG_REQUEST | QEL_FLAG_ACK))
        qel_fc_update_recv_drop(src_app, src_node, app_id, 1);
    if (kind == QEL_FLAG_REQUEST)
        (void)qel_rpc_reply_error(msg, QEL_STATUS_UNAVAILABLE);
    free(msg);
}

// Sorts a complete message, whose owner it becomes.
static void classify_msg(qel_app_mng *slot, uint32_t app_id, qel_msg *msg) noexcept {
    const uint8_t flags = msg->hdr.flags;
    if (flags & QEL_FLAG_SYNC) {
        qel_sync_msg_process(msg);
        return;
    }
    // the daemon is never filtered
    if (app_id != 1 && msg->hdr.src_app != 1 && !qel_app_online(msg->hdr.src_app, msg->hdr.src_node)) {
        refuse_msg(app_id, msg);
        return;
    }
    if (flags & QEL_FLAG_MNG) {
        qel_mng_msg_process(msg);
        return;
    }
    if ((flags & (QEL_FLAG_REQUEST | QEL_FLAG_ACK)) == (QEL_FLAG_REQUEST | QEL_FLAG_ACK)) {
        if (qel_rpc_add_reply(msg) != 0)
            free(msg);
        return;
    }
    qel_enqueue_msg_dist(msg, slot->info);
}

static void make_room() noexcept {
    rx.msg = static_cast<qel_msg *>(qel_malloc(sizeof(qel_link) + rx_bytes_max));
}

// The message of @size bytes that was received, in exactly as much memory: a small one is copied, a large one
// cut to its size. New room is made at once: it then lies above the message, so that freeing that one does
// not leave the heap with a free end, which malloc would give back to the system and page in again each time.
static qel_msg *take_msg(size_t size) noexcept {
    if (size < rx_copied_below) {
        qel_msg *msg = qel_msg_alloc(static_cast<int32_t>(size - QEL_MSG_HDR_LEN), 0, 0);
        QEL_ASSERT(msg != NULL);
        memcpy(&msg->hdr, &rx.msg->hdr, size);
        return msg;
    }
    qel_msg *msg = rx.msg;
    auto *cut = static_cast<qel_msg *>(realloc(msg, sizeof(qel_link) + size));
    if (cut)
        msg = cut;
    msg->link = {};
    make_room();
    return msg;
}

static void receive_data(qel_app_mng *slot, uint32_t app_id, unsigned char *data, size_t size) noexcept {
    auto *hdr = reinterpret_cast<qel_hdr *>(data);
    if (size >= QEL_MSG_HDR_LEN)
        qel_hdr_to_host(hdr, size);
    if (size < QEL_MSG_HDR_LEN || size > msg_len_max || hdr->len != size) {
        QEL_ERROR("QEL app %d recv msg len %d, expectedly %d.\n", static_cast<int>(app_id),
                  static_cast<int>(size), static_cast<int>(hdr->len));
        qel_fc_update_recv_exception(app_id);
        qel_dump_msg_raw(data, static_cast<int32_t>(size));
        return;
    }
    // Nobody who keeps to the rules sends such a header, and what follows counts on it: nodes index bitmaps,
    // applications are keys, the destination is the application that handles the message.
    if (hdr->dst_app != app_id || !qel_valid_node_id(hdr->src_node) || !qel_valid_app_id(hdr->src_app)) {
        qel_fc_update_recv_exception(app_id);
        return;
    }
    classify_msg(slot, app_id, take_msg(size));
}

// Walks the control records of a receive without data. True when the receive is to count as failed, with the
// @error of the call that did; the records behind it are walked all the same.
static bool walk_control(qel_app_mng *slot, uint32_t app_id, size_t control_len, int &error) noexcept {
    bool failed = false;
    size_t at = 0;
    while (control_len >= sizeof(cmsghdr) && at <= control_len - sizeof(cmsghdr)) {
        cmsghdr record;
        memcpy(&record, rx.control + at, sizeof record);
        if (record.cmsg_len < sizeof record || record.cmsg_len > control_len - at)
            break;
        const size_t space = (record.cmsg_len + 7) & ~size_t{7};
        if (at != 0 && space > control_len - at)
            break; // as CMSG_NXTHDR() ends: only the first record may lack its padding
        unsigned char *data = rx.control + at + sizeof record;
        const size_t size = record.cmsg_len - sizeof record;
        if (record.cmsg_type == TIPC_ERRINFO) {
            if (size < 8)
                break;
            const uint32_t code = qel_load_host32(data), returned = qel_load_host32(data + 4);
            QEL_LOG(code >= 1 && code <= 3 ? QEL_LEVEL_VERBOSE : QEL_LEVEL_ERROR,
                    "QEL app %d recv error info %s, data size %u bytes.\n", static_cast<int>(app_id),
                    qel_tipc_err_string(code), returned);
            int type = 0;
            socklen_t type_len = sizeof type;
            const int32_t sd = slot->info->sd;
            if (qel_port_get().getsockopt(sd, SOL_SOCKET, SO_TYPE, &type, &type_len) != 0) {
                error = errno;
                QEL_ERROR("QEL app %d get socket %d option failed: %s.\n", static_cast<int>(app_id), sd,
                          strerror(error));
                failed = true;
            } else if ((type == SOCK_STREAM || type == SOCK_SEQPACKET) && code != TIPC_CONN_SHUTDOWN) {
                failed = true;
            }
        } else if (record.cmsg_type == TIPC_RETDATA) {
            QEL_VERBOSE("QEL app %d recv TIPC reject data.\n", static_cast<int>(app_id));
            qel_rx_return(slot, data, size);
        } else if (record.cmsg_type == TIPC_DESTNAME) {
            if (size < 12)
                break;
            QEL_VERBOSE("QEL app %d recv dst name = {0x%x, 0x%x, 0x%x}", static_cast<int>(app_id),
                        qel_load_host32(data), qel_load_host32(data + 4), qel_load_host32(data + 8));
        } else {
            QEL_WARN("QEL app %d recv unrecognized ancillary data type %u\n", static_cast<int>(app_id),
                     static_cast<unsigned>(record.cmsg_type));
        }
        at += space;
    }
    return failed;
}

// A message that came back: our own, or what somebody made look like one. @data is aligned for a header.
static void qel_rx_return(qel_app_mng *slot, unsigned char *data, size_t size) noexcept {
    const uint32_t app_id = slot->app_id.load(std::memory_order_relaxed);
    if (size < QEL_MSG_HDR_LEN) {
        QEL_ERROR("QEL app %d recv incomplete reject data.\n", static_cast<int>(app_id));
        qel_fc_update_recv_exception(app_id);
        return;
    }
    qel_msg returned{};
    qel_hdr_to_host(reinterpret_cast<qel_hdr *>(data), size);
    memcpy(&returned.hdr, data, sizeof returned.hdr);
    const qel_hdr &hdr = returned.hdr;
    const bool named = qel_valid_app_id(hdr.dst_app) && qel_valid_node_id(hdr.dst_node);
    if (hdr.flags & QEL_FLAG_SYNC) {
        // A sync or an acknowledgement that the peer's full queue rejected: there is nobody else to send it
        // again.
        const unsigned char *section = data + QEL_MSG_HDR_LEN;
        if (named && hdr.src_app == app_id && hdr.len == size &&
            size >= QEL_MSG_HDR_LEN + qel_sync_data_len && qel_load_be16(section) == qel_sync_data_len &&
            (qel_load_be16(section + 2) == QEL_TLV_SYNC_ACK || qel_load_be16(section + 2) == QEL_TLV_SYNC)) {
            qel_msg *msg = qel_msg_alloc(static_cast<int32_t>(size - QEL_MSG_HDR_LEN), 0, 0);
            QEL_ASSERT(msg != NULL);
            memcpy(&msg->hdr, data, size);
            if (!qel_add_sync_resend(msg))
                free(msg);
        }
    } else if (named) {
        if (app_id == 1)
            (void)qel_terminate_rpc(1, hdr.dst_app, hdr.dst_node);
        else
            qel_fc_update_recv_retdata(hdr.dst_app, hdr.dst_node, app_id);
    }
    qel_dump_msg_hdr_info(&returned);
}

void qel_rx_app_socket(uint32_t index) noexcept {
    qel_app_mng *slot = &g_qel_mng.apps[index];
    const uint32_t app_id = slot->app_id.load(std::memory_order_relaxed);
    if (!rx.msg)
        make_room();
    auto *data = reinterpret_cast<unsigned char *>(&rx.msg->hdr);
    memset(data, 0, QEL_MSG_HDR_LEN); // a short datagram must not show the length of the one before
    iovec io = {data, rx_bytes_max};
    msghdr header{};
    header.msg_iov = &io;
    header.msg_iovlen = 1;
    header.msg_control = rx.control;
    header.msg_controllen = sizeof rx.control;
    // Without waiting: a datagram of no length makes poll say readable, then there is nothing to receive.
    const ssize_t ret = qel_port_get().recvmsg(slot->info->sd, &header, MSG_DONTWAIT);
    int error = ret < 0 ? errno : 0;
    if (error == EAGAIN)
        return; // there was nothing: no trace of it
    QEL_VERBOSE("QEL app %d recv new msg.\n", static_cast<int>(app_id));
    if (ret < 0) {
        receive_exception(app_id, error);
    } else if (ret == 0) {
        if (walk_control(slot, app_id, std::min<size_t>(header.msg_controllen, sizeof rx.control), error))
            receive_exception(app_id, error);
    } else {
        receive_data(slot, app_id, data, std::min<size_t>(static_cast<size_t>(ret), rx_bytes_max));
    }
}

// ---- the thread -----------------------------------------------------------------------------------------

static uint32_t count_apps() noexcept {
    uint32_t count = 0;
    while (g_qel_mng.apps[count].app_id.load(std::memory_order_acquire) != 0)
        count++;
    return count;
}

static void start() noexcept {
    snprintf(rx.name, sizeof rx.name, "qel_lib_%d", static_cast<int>(getpid()));
    qel_thread_set_name(rx.name);
    qel_watchdog_register(rx.name);
    qel_wait_for_running(rx.name);
    qel_sleep_us(1'000'000);
    qel_subscr_tipc_events(rx.name);
    qel_watchdog_feed(rx.name);

    rx.app_count = count_apps();
    for (uint32_t i = 0; i < rx.app_count; i++) {
        const qel_app_info *app = g_qel_mng.apps[i].info;
        if (qel_bind_app_socket(app->app_id, app->sd) != 0) {
            qel_watchdog_unregister(rx.name);
            exit(1);
        }
    }
    QEL_INFO("QEL socket msg distribute thread start.\n");
    rx.monitor_s = qel_monitor_first_s;
    rx.monitor_seq = 1;
    (void)qel_subscr_timer_event(rx.monitor_s, QEL_TIMER_MONITOR, rx.monitor_seq);

    rx.polls = static_cast<pollfd *>(qel_zalloc((1 + rx.app_count) * sizeof(pollfd)));
    rx.polls[0] = {g_qel_mng.subscription_socket.load(std::memory_order_relaxed), POLLIN, 0};
    for (uint32_t i = 0; i < rx.app_count; i++)
        rx.polls[1 + i] = {g_qel_mng.apps[i].info->sd, POLLIN, 0};
}

static void serve_once() noexcept {
    qel_watchdog_feed(rx.name);
    const bool subscribed = g_qel_mng.subscription_socket.load(std::memory_order_relaxed) >= 0;
    pollfd *polls = subscribed ? rx.polls : rx.polls + 1;
    const int ready = qel_port_get().poll(polls, subscribed + rx.app_count, poll_ms);
    if (ready < 0) {
        QEL_WARN("QEL polling error: %d:%s.\n", errno, strerror(errno));
    } else if (ready > 0) {
        // any event, an error's or a hang-up's too: only receiving clears it
        if (subscribed && rx.polls[0].revents)
            receive_topology_event();
        for (uint32_t i = 0; i < rx.app_count; i++)
            if (rx.polls[1 + i].revents)
                qel_rx_app_socket(i);
    }
    if (g_qel_mng.subscription_socket.load(std::memory_order_relaxed) < 0)
        recreate_subscription_socket();
}

void *qel_socket_msg_dist_thread_fun(void *) noexcept {
    if (!g_qel_mng.gate.wait())
        return nullptr;
    start();
    for (;;)
        serve_once();
}
