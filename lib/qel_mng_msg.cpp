#include "qel_mng_msg.h"

#include <cerrno>
#include <linux/tipc.h>

#define QEL_LOG_SRC "qel_mng_msg"
#include "qel_app_info.h"
#include "qel_cfg.h"
#include "qel_dbg.h"
#include "qel_dm.h"
#include "qel_flow_ctrl.h"
#include "qel_log.h"
#include "qel_mng_int.h"
#include "qel_port.h"
#include "qel_rpc.h"
#include "qel_user_proxy.h"

constexpr uint32_t msg_len_max = QEL_MSG_HDR_LEN + QEL_MSG_DATA_MAX;

// ---- byte order -----------------------------------------------------------------------------------------

static void swap_fields(qel_hdr *h) noexcept {
    h->len = htobe32(h->len);
    h->src_node = htobe32(h->src_node);
    h->dst_node = htobe32(h->dst_node);
    h->src_app = htobe32(h->src_app);
    h->dst_app = htobe32(h->dst_app);
    h->app_ver = htobe32(h->app_ver);
    h->seq = htobe32(h->seq);
    h->rpc_status = htobe32(h->rpc_status);
}

// The two words that a status 1 message carries; only whole words that are there.
static void swap_words(qel_hdr *hdr, size_t len) noexcept {
    auto *data = reinterpret_cast<unsigned char *>(hdr) + QEL_MSG_HDR_LEN;
    for (size_t at = 0; at < 8 && QEL_MSG_HDR_LEN + at + 4 <= len; at += 4)
        qel_store_be32(data + at, qel_load_host32(data + at));
}

// Of all statuses only 1 has its words converted: the version range of status 3 travels in the order of the
// host that sends it, and receivers read it so.
void qel_hdr_to_net(qel_hdr *hdr, size_t len) noexcept {
    if (hdr->rpc_status == QEL_STATUS_QEL_VERSION)
        swap_words(hdr, len);
    swap_fields(hdr);
}

void qel_hdr_to_host(qel_hdr *hdr, size_t len) noexcept {
    swap_fields(hdr); // swapping is its own inverse
    if (hdr->rpc_status == QEL_STATUS_QEL_VERSION)
        swap_words(hdr, len);
}

// ---- the low-level send ---------------------------------------------------------------------------------

int32_t qel_tipc_sendto(uint32_t src_app, qel_msg *msg, uint32_t dst_app, uint32_t dst_node,
                        uint32_t flags) noexcept {
    const int32_t sd = qel_get_app_sd(src_app);
    if (sd < 0) {
        QEL_ERROR("QEL app %d socket descriptor invalid.\n", static_cast<int>(src_app));
        return -EINVAL;
    }
    const uint32_t len = msg->hdr.len;
    if (len < QEL_MSG_HDR_LEN || len > msg_len_max) {
        QEL_WARN("QEL app %d sent to %d/%d failed: %s, msg len %d, sent %d.\n", static_cast<int>(src_app),
                 static_cast<int>(dst_app), static_cast<int>(dst_node), strerror(EINVAL),
                 static_cast<int>(len), -1);
        return -EINVAL;
    }
    qel_hdr_to_net(&msg->hdr, len);
    const sockaddr_tipc to = qel_name_addr(qel_name_type, qel_name_instance(dst_app, dst_node));
    QEL_VERBOSE("QEL app %d sent to %d/%d, msg len %d.\n", static_cast<int>(src_app),
                static_cast<int>(dst_app), static_cast<int>(dst_node), static_cast<int>(len));
    const int send_flags = MSG_NOSIGNAL | (flags & 1 ? MSG_DONTWAIT : 0);
    ssize_t sent;
    int error;
    do {
        errno = 0; // a short send leaves none, and must not be taken for the one before
        sent = qel_port_get().sendto(sd, &msg->hdr, len, send_flags, reinterpret_cast<const sockaddr *>(&to),
                                     sizeof to);
        if (sent == static_cast<ssize_t>(len)) {
            qel_hdr_to_host(&msg->hdr, len);
            return 0;
        }
        error = errno;
        QEL_ERROR("QEL sendto failed: %s.\n", strerror(error));
    } while (error == ENOBUFS || error == EINTR || error == ENOMEM);
    qel_hdr_to_host(&msg->hdr, len);
    QEL_WARN("QEL app %d sent to %d/%d failed: %s, msg len %d, sent %d.\n", static_cast<int>(src_app),
             static_cast<int>(dst_app), static_cast<int>(dst_node), strerror(error), static_cast<int>(len),
             static_cast<int>(sent));
    return -1;
}

// ---- messages of the system itself ----------------------------------------------------------------------

qel_msg *qel_new_sys_msg(uint8_t flags, uint32_t src_app, uint32_t dst_app, uint32_t dst_node,
                         uint32_t data_len) noexcept {
    qel_msg *msg = qel_msg_alloc(static_cast<int32_t>(data_len), 1, 0);
    QEL_ASSERT(msg != NULL);
    memset(qel_msg_data(msg), 0, data_len);
    qel_encode_msg_hdr(msg, flags, src_app, static_cast<uint32_t>(qel_get_my_node_id()), dst_app, dst_node, 0,
                       0);
    return msg;
}

// One item without a value or with one word in network order.
static int32_t send_fc(uint32_t app_id, uint32_t peer_node, uint32_t peer_app, uint16_t type,
                       const void *value, uint32_t value_len) noexcept {
    qel_msg *msg = qel_new_sys_msg(QEL_FLAG_MNG, app_id, peer_app, peer_node, qel_tlv_head_len + value_len);
    qel_tlv_set(qel_msg_data(msg), type, value, value_len);
    const int32_t ret = qel_tipc_sendto(app_id, msg, peer_app, peer_node, 0);
    free(msg);
    return ret;
}

int32_t qel_send_fc_ack(uint32_t app_id, uint32_t peer_node, uint32_t peer_app, uint32_t count) noexcept {
    QEL_VERBOSE("QEL app %d send msg ack num %d to %d/%d.\n", static_cast<int>(app_id),
                static_cast<int>(count), static_cast<int>(peer_app), static_cast<int>(peer_node));
    unsigned char value[4];
    qel_store_be32(value, count);
    return send_fc(app_id, peer_node, peer_app, QEL_TLV_FC_ACK, value, sizeof value);
}

int32_t qel_send_fc_ping(uint32_t app_id, uint32_t peer_node, uint32_t peer_app) noexcept {
    QEL_VERBOSE("QEL app %d ping to %d/%d.\n", static_cast<int>(app_id), static_cast<int>(peer_app),
                static_cast<int>(peer_node));
    return send_fc(app_id, peer_node, peer_app, QEL_TLV_PING, nullptr, 0);
}

int32_t qel_send_fc_ping_echo(uint32_t app_id, uint32_t peer_node, uint32_t peer_app) noexcept {
    QEL_VERBOSE("QEL app %d ping echo to %d/%d.\n", static_cast<int>(app_id), static_cast<int>(peer_app),
                static_cast<int>(peer_node));
    return send_fc(app_id, peer_node, peer_app, QEL_TLV_PING_ECHO, nullptr, 0);
}

int32_t qel_send_fc_reload(uint32_t app_id, uint32_t peer_node, uint32_t peer_app) noexcept {
    QEL_VERBOSE("QEL app %d try to reload %d/%d.\n", static_cast<int>(app_id), static_cast<int>(peer_app),
                static_cast<int>(peer_node));
    return send_fc(app_id, peer_node, peer_app, QEL_TLV_RELOAD, nullptr, 0);
}

// ---- received management messages -----------------------------------------------------------------------

static void invalid_section(const qel_msg *msg) noexcept {
    QEL_ERROR("QEL recv invalid TLV section for %d from %d/%d .\n", static_cast<int>(msg->hdr.dst_app),
              static_cast<int>(msg->hdr.src_app), static_cast<int>(msg->hdr.src_node));
}

static void invalid_len(const qel_msg *msg, uint32_t len) noexcept {
    QEL_ERROR("QEL recv invalid TLV len for %d from %d/%d(len:%d).\n", static_cast<int>(msg->hdr.dst_app),
              static_cast<int>(msg->hdr.src_app), static_cast<int>(msg->hdr.src_node), static_cast<int>(len));
}

static void unexpected_type(const qel_msg *msg, uint32_t type) noexcept {
    QEL_WARN("QEL app %d recv unexpected data type %d from %d/%d.\n", static_cast<int>(msg->hdr.dst_app),
             static_cast<int>(type), static_cast<int>(msg->hdr.src_app), static_cast<int>(msg->hdr.src_node));
}

void qel_recv_dbg_cmd(const unsigned char *value) noexcept {
    qel_dbg_update_level(qel_load_host32(value + 4) != 0, qel_load_host32(value));
}

void qel_recv_get_app_info_request(qel_msg *request, uint32_t app_id) noexcept {
    QEL_VERBOSE("QEL recv get app %d info request.\n", static_cast<int>(app_id));
    const uint32_t words[3] = {app_id, static_cast<uint32_t>(getpid()),
                               g_qel_dbg_level.load(std::memory_order_relaxed)};
    qel_msg *reply = qel_new_sys_msg(QEL_FLAG_MNG, app_id, request->hdr.src_app, request->hdr.src_node,
                                     qel_tlv_head_len + sizeof words);
    qel_tlv_set(qel_msg_data(reply), QEL_TLV_APP_INFO, words, sizeof words);
    const int ret = qel_rpc_reply(request, reply, 0);
    if (ret)
        QEL_ERROR("QEL app %d reply app info failed: %s.\n", static_cast<int>(app_id), strerror(abs(ret)));
    free(reply);
}

void qel_recv_get_app_stat_request(qel_msg *request, uint32_t app_id) noexcept {
    QEL_VERBOSE("QEL recv get app %d statistics request.\n", static_cast<int>(app_id));
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
    const int ret = qel_buf_printf_reply(request);
    if (ret)
        QEL_ERROR("QEL app %d reply app statistics failed: %s.\n", static_cast<int>(app_id),
                  strerror(abs(ret)));
}

// What the daemon receives with the management bit does not pass its queue: it is answered from here, even
// while the daemon's own threads wait for replies. Takes @msg.
static void daemon_msg(qel_msg *msg) noexcept {
    static const qel_app_info *app_info = nullptr; // library thread only, looked up once
    static qel_ver_range ver_info;
    if (!app_info) {
        app_info = qel_get_app_info(1);
        QEL_ASSERT(app_info != NULL);
        ver_info = qel_get_app_ver_range(app_info);
    }
    const uint8_t kind = msg->hdr.flags & (QEL_FLAG_REQUEST | QEL_FLAG_ACK);
    if (kind == (QEL_FLAG_REQUEST | QEL_FLAG_ACK)) {
        if (qel_rpc_add_reply(msg) != 0)
            free(msg);
        return;
    }
    if (const qel_dispatch_fun fun = qel_get_dispatch_fun(app_info, msg->hdr.app_ver)) {
        fun(msg);
        return;
    }
    QEL_ERROR("QEL get QELD version %d dispatcher failed.\n", static_cast<int>(msg->hdr.app_ver));
    if (kind == QEL_FLAG_REQUEST) {
        const uint32_t range[2] = {ver_info.lowest, ver_info.highest};
        (void)qel_rpc_reply_app_mismatch(msg, range);
    }
    free(msg);
}

// One well-formed item. False: its value is too short for its type.
static bool mng_item(qel_msg *msg, const qel_tlv_list &list) noexcept {
    const uint32_t app = msg->hdr.dst_app, src_app = msg->hdr.src_app, src_node = msg->hdr.src_node;
    const std::span<const unsigned char> value = list.value();
    QEL_VERBOSE("QEL app %d recv mgmt msg from %d/%d, data len %d, type %s.\n", static_cast<int>(app),
                static_cast<int>(src_app), static_cast<int>(src_node), static_cast<int>(value.size()),
                qel_msg_type_string(list.type()));
    switch (list.type()) {
    case QEL_TLV_FC_ACK: {
        if (value.size() < 4)
            return false;
        const uint32_t count = qel_load_be32(value.data());
        QEL_VERBOSE("QEL recv ack num %d for %d from %d/%d.\n", static_cast<int>(count),
                    static_cast<int>(app), static_cast<int>(src_app), static_cast<int>(src_node));
        qel_fc_update_sent_ack(app, src_app, src_node, count);
        return true;
    }
    case QEL_TLV_DBG_CMD:
        if (value.size() < 8)
            return false;
        qel_recv_dbg_cmd(value.data());
        return true;
    case QEL_TLV_APP_INFO:
        qel_recv_get_app_info_request(msg, app);
        return true;
    case QEL_TLV_APP_STAT:
        qel_recv_get_app_stat_request(msg, app);
        return true;
    case QEL_TLV_PING:
        qel_fc_ping_request(src_app, src_node, app);
        return true;
    case QEL_TLV_PING_ECHO:
        qel_fc_ping_echo(src_app, src_node, app);
        return true;
    case QEL_TLV_RELOAD:
        if (qel_blocked_resume_enabled()) {
            QEL_ERROR("QEL app %d abort the process requested by %d/%d.\n", static_cast<int>(app),
                      static_cast<int>(src_app), static_cast<int>(src_node));
            // Only for that line: the application may be stuck just because its standard output is.
            if (g_qel_dbg_level.load(std::memory_order_relaxed) & 1u << QEL_LEVEL_ERROR)
                fflush(stdout);
            qel_dm_close_files();
            abort();
        }
        return true;
    default:
        unexpected_type(msg, list.type());
        return true;
    }
}

// Hands each item of the message's section to @item until one is no good. Items before it have acted by then.
template <class Item> static void walk_section(qel_msg *msg, Item item) noexcept {
    for (qel_tlv_list list(qel_msg_data(msg), qel_msg_data_len(msg)); !list.empty(); list.step()) {
        if (!list.ok()) {
            invalid_section(msg);
            return;
        }
        if (list.len() < qel_tlv_head_len || !item(list)) {
            invalid_len(msg, list.len());
            return;
        }
    }
}

void qel_mng_msg_process(qel_msg *msg) noexcept {
    if (msg->hdr.dst_app == 1) {
        daemon_msg(msg);
        return;
    }
    walk_section(msg, [msg](const qel_tlv_list &list) noexcept { return mng_item(msg, list); });
    free(msg);
}

// ---- instance synchronisation ---------------------------------------------------------------------------

// A sync or an acknowledgement; the caller owns it.
static qel_msg *new_sync(uint16_t type, uint32_t app_id, uint32_t node, uint32_t peer_app, uint32_t seq,
                         bool server, uint32_t resume) noexcept {
    qel_sync_wire wire;
    qel_store_be32(wire.seq, seq);
    qel_store_be32(wire.pid, static_cast<uint32_t>(getpid()));
    qel_store_be32(wire.server, server ? 1 : 0);
    qel_store_be32(wire.resume, resume);
    qel_store_be32(wire.counter, qel_sync_resend_max);
    qel_msg *msg = qel_new_sys_msg(QEL_FLAG_SYNC, app_id, peer_app, node, qel_sync_data_len);
    qel_tlv_set(qel_msg_data(msg), type, &wire, sizeof wire);
    return msg;
}

int32_t qel_sync_app_inst(uint32_t app_id, uint32_t node, uint32_t peer_app, bool server,
                          uint32_t resume) noexcept {
    const uint32_t seq = qel_get_seq();
    QEL_VERBOSE("QEL app %d sync inst to %d/%d, seq %d.\n", static_cast<int>(app_id),
                static_cast<int>(peer_app), static_cast<int>(node), static_cast<int>(seq));
    qel_msg *msg = new_sync(QEL_TLV_SYNC, app_id, node, peer_app, seq, server, resume);
    const int32_t ret = qel_tipc_sendto(app_id, msg, peer_app, node, 0);
    if (ret == 0)
        __qel_add_inst_sync_msg(msg);
    else
        free(msg);
    return ret;
}

int32_t qel_sync_app_inst_ack(uint32_t app_id, uint32_t node, uint32_t peer_app, uint32_t seq,
                              bool server) noexcept {
    QEL_VERBOSE("QEL app %d sync inst ack to %d/%d, seq %d.\n", static_cast<int>(app_id),
                static_cast<int>(peer_app), static_cast<int>(node), static_cast<int>(seq));
    qel_msg *msg = new_sync(QEL_TLV_SYNC_ACK, app_id, node, peer_app, seq, server, 0);
    const int32_t ret = qel_tipc_sendto(app_id, msg, peer_app, node, 0);
    // On a bad link the peer's sync can be here before its name: the send fails at once and nothing comes
    // back, and the peer waits for this acknowledgement for ever. So it is kept and tried again.
    if (ret == 0 || !qel_add_sync_resend(msg))
        free(msg);
    return ret;
}

static void recv_sync(uint32_t app, uint32_t peer, uint32_t node, const qel_sync_wire &wire) noexcept {
    qel_update_inst_sync_id(app, peer, node, qel_load_be32(wire.pid));
    if (qel_load_be32(wire.resume)) {
        QEL_ERROR("QEL app %d resume comm to %d/%d by request.\n", static_cast<int>(app),
                  static_cast<int>(peer), static_cast<int>(node));
        qel_app_inst_force_quit(peer, node);
        qel_app_inst_join(peer, node, 0);
    } else {
        qel_app_inst_try_quit(peer, node); // a restarted peer must be seen as new
    }
    qel_set_app_inst(peer, node);
    (void)qel_sync_app_inst_ack(app, node, peer, qel_load_be32(wire.seq), qel_is_app_server(app));
    qel_try_notify_app_join(app, node, peer);
    qel_try_resume_comm(peer, node);
}

static void recv_sync_ack(uint32_t app, uint32_t peer, uint32_t node, const qel_sync_wire &wire) noexcept {
    const uint32_t seq = qel_load_be32(wire.seq);
    qel_update_inst_sync_ack_id(app, peer, node, qel_load_be32(wire.pid));
    if (qel_del_inst_sync_msg(app, peer, node, seq) != 0) {
        QEL_WARN("QEL app %d del inst sync to %d/%d seq %d failed.\n", static_cast<int>(app),
                 static_cast<int>(peer), static_cast<int>(node), static_cast<int>(seq));
        return;
    }
    qel_set_app_inst_ack(peer, node);
    if (qel_load_be32(wire.server))
        qel_set_app_server(peer, node);
    qel_try_notify_app_join(app, node, peer);
    // The peer's sync came before this acknowledgement and yet it is not online: its sync overtook the
    // withdrawal of its predecessor and nothing would ever bring it up. In an ordinary handshake no sync has
    // come yet.
    if (!qel_app_online(peer, node) && qel_get_inst_sync_id(app, peer, node) != 0)
        qel_try_resume_comm(peer, node);
}

void qel_sync_msg_process(qel_msg *msg) noexcept {
    const uint32_t app = msg->hdr.dst_app, peer = msg->hdr.src_app, node = msg->hdr.src_node;
    walk_section(msg, [=](const qel_tlv_list &list) noexcept {
        QEL_INFO("QEL app %d recv sync msg from %d/%d, data len %d, type %s.\n", static_cast<int>(app),
                 static_cast<int>(peer), static_cast<int>(node), static_cast<int>(list.value().size()),
                 qel_msg_type_string(list.type()));
        if (list.type() != QEL_TLV_SYNC && list.type() != QEL_TLV_SYNC_ACK) {
            unexpected_type(msg, list.type());
            return true;
        }
        if (list.len() < qel_sync_data_len)
            return false;
        qel_sync_wire wire;
        memcpy(&wire, list.value().data(), sizeof wire);
        if (list.type() == QEL_TLV_SYNC)
            recv_sync(app, peer, node, wire);
        else
            recv_sync_ack(app, peer, node, wire);
        return true;
    });
    free(msg);
}
