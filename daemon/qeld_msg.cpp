#include "qeld_msg.h"

#include "qel_base.h"
#include "qel_cfg.h"
#include "qel_mng_msg.h"
#include "qel_rpc.h"
#include "qel_tlv.h"
#include "qel_user_proxy.h"

#define QEL_LOG_SRC "qeld_msg"
#include "qel_log.h"

constexpr uint32_t daemon_app = 1;
constexpr uint32_t statistics_timeout_s = 30;

static uint32_t my_node() noexcept { return static_cast<uint32_t>(qel_get_my_node_id()); }

// ---- received messages ----------------------------------------------------------------------------------

constexpr uint32_t dbg_cmd_len = 2 * sizeof(uint32_t); // level and switch, in host order

static void process_section(qel_msg *msg) noexcept {
    const uint32_t receiver = msg->hdr.dst_app;
    const int dst_app = static_cast<int>(receiver), src_app = static_cast<int>(msg->hdr.src_app),
              src_node = static_cast<int>(msg->hdr.src_node);
    for (qel_tlv_list list(qel_msg_data(msg), qel_msg_data_len(msg)); !list.empty(); list.step()) {
        if (!list.ok()) {
            QEL_ERROR("QELD recv invalid TLV section for %d from %d/%d .\n", dst_app, src_app, src_node);
            return;
        }
        if (list.len() < qel_tlv_head_len ||
            (list.type() == QEL_TLV_DBG_CMD && list.value().size() < dbg_cmd_len)) {
            QEL_ERROR("QELD recv invalid TLV len for %d from %d/%d(len:%d).\n", dst_app, src_app, src_node,
                      static_cast<int>(list.len()));
            return;
        }
        QEL_VERBOSE("QEL app %d recv mgmt msg from %d/%d, data len %d, type %s.\n", dst_app, src_app,
                    src_node, static_cast<int>(list.value().size()), qel_msg_type_string(list.type()));
        switch (list.type()) {
        case QEL_TLV_DBG_CMD:
            qel_recv_dbg_cmd(list.value().data());
            break;
        case QEL_TLV_APP_INFO:
            qel_recv_get_app_info_request(msg, receiver);
            break;
        case QEL_TLV_APP_STAT:
            qel_recv_get_app_stat_request(msg, receiver);
            break;
        default:
            QEL_WARN("QELD app %d recv unexpected data type %d from %d/%d.\n", dst_app,
                     static_cast<int>(list.type()), src_app, src_node);
            break;
        }
    }
}

extern "C" void qeld_msg_dispatch(qel_msg *msg) {
    process_section(msg);
    free(msg);
}

// ---- requests -------------------------------------------------------------------------------------------

constexpr uint8_t request_flags = QEL_FLAG_MNG | QEL_FLAG_REQUEST;

static qel_msg *new_section(uint16_t type, const void *value, uint32_t value_len) noexcept {
    qel_msg *msg = qel_msg_alloc(static_cast<int32_t>(qel_tlv_space(qel_tlv_head_len + value_len)), 1, 0);
    QEL_ASSERT(msg != NULL);
    (void)qel_tlv_set(qel_msg_data(msg), type, value, value_len);
    return msg;
}

int qeld_send_dbg_cmd(uint32_t app_id, uint32_t level, uint32_t on) noexcept {
    const uint32_t value[] = {level, on};
    static_assert(sizeof value == dbg_cmd_len);
    qel_msg *msg = new_section(QEL_TLV_DBG_CMD, value, sizeof value);
    qel_encode_msg_hdr(msg, QEL_FLAG_MNG, daemon_app, my_node(), app_id, my_node(), 0, QEL_STATUS_SUCCESS);
    const int ret = qel_tipc_sendto(daemon_app, msg, app_id, my_node(), 0);
    free(msg);
    return ret;
}

int qeld_mng_rpcto(uint32_t app_id, uint32_t node, qel_msg *msg, uint32_t timeout_s,
                   qel_reply_set *replies) noexcept {
    const uint32_t seq = qel_get_seq();
    *replies = {};
    int ret = qel_rpc_prepare_wait(daemon_app, seq, timeout_s, replies);
    if (ret != 0) {
        QEL_WARN("QELD app %d seq %d to %d/%d prepare RPC wait failed: %s.\n", static_cast<int>(daemon_app),
                 static_cast<int>(seq), static_cast<int>(app_id), static_cast<int>(node),
                 strerror(std::abs(ret)));
        return ret;
    }
    (void)qel_rpc_set_wait(daemon_app, seq, app_id, node); // one peer always fits
    qel_encode_msg_hdr(msg, request_flags, daemon_app, my_node(), app_id, node, seq, QEL_STATUS_SUCCESS);
    ret = qel_tipc_sendto(daemon_app, msg, app_id, node, 0);
    if (ret != 0) {
        qel_rpc_del_wait(daemon_app, seq);
        qel_reply_msg_free(replies); // a quit of the peer may have answered before the send failed
        return ret;
    }
    return qel_rpc_wait_reply(daemon_app, seq);
}

int qeld_rpc_get_app_info(uint32_t app_id, qel_reply_set *replies) noexcept {
    qel_msg *msg = new_section(QEL_TLV_APP_INFO, nullptr, 0);
    const int ret = qeld_mng_rpcto(app_id, my_node(), msg, 0, replies);
    free(msg);
    return ret;
}

int qeld_rpc_get_app_statistics(uint32_t app_id, uint32_t node, qel_reply_set *replies) noexcept {
    qel_msg *msg = new_section(QEL_TLV_APP_STAT, nullptr, 0);
    const int ret = qeld_mng_rpcto(app_id, node, msg, statistics_timeout_s, replies);
    free(msg);
    return ret;
}
