// Management messages: the one low-level send of the bus, the builders of flow-control and synchronisation
// messages, and what happens with those received.
#ifndef QEL_MNG_MSG_H
#define QEL_MNG_MSG_H

#include "qel_base.h"
#include "qel_tlv.h"

// Byte order of the header, and of the first two data words of a status 1 message as far as they are there.
// @len is the number of bytes at @hdr.
void qel_hdr_to_net(qel_hdr *hdr, size_t len) noexcept;
void qel_hdr_to_host(qel_hdr *hdr, size_t len) noexcept;

// Sends a finished message from @src_app's socket to the application's name on that node. Bit 0 of @flags: do
// not block on a congested link. @msg stays the caller's and is in host order again on return.
// 0; -22 @src_app has no socket or the length is none that a message can have; -1 the send failed.
int32_t qel_tipc_sendto(uint32_t src_app, qel_msg *msg, uint32_t dst_app, uint32_t dst_node,
                        uint32_t flags) noexcept;

// A management message to one peer; the result of the send.
int32_t qel_send_fc_ack(uint32_t app_id, uint32_t peer_node, uint32_t peer_app, uint32_t count) noexcept;
int32_t qel_send_fc_ping(uint32_t app_id, uint32_t peer_node, uint32_t peer_app) noexcept;
int32_t qel_send_fc_ping_echo(uint32_t app_id, uint32_t peer_node, uint32_t peer_app) noexcept;
int32_t qel_send_fc_reload(uint32_t app_id, uint32_t peer_node, uint32_t peer_app) noexcept;

// A message of the system itself: flags, this node as source, @len bytes of cleared data, version 1.
qel_msg *qel_new_sys_msg(uint8_t flags, uint32_t src_app, uint32_t dst_app, uint32_t dst_node,
                         uint32_t data_len) noexcept;

// Takes a received management message (QEL_FLAG_MNG). Library thread, no lock held.
void qel_mng_msg_process(qel_msg *msg) noexcept;
// Takes a received synchronisation message (QEL_FLAG_SYNC). Library thread, no lock held.
void qel_sync_msg_process(qel_msg *msg) noexcept;

// Handlers shared with the daemon. @value: 8 bytes, level and switch in host order.
void qel_recv_dbg_cmd(const unsigned char *value) noexcept;
void qel_recv_get_app_info_request(qel_msg *request, uint32_t app_id) noexcept;
void qel_recv_get_app_stat_request(qel_msg *request, uint32_t app_id) noexcept;

// The value of a sync or sync acknowledgement; big-endian words.
struct qel_sync_wire {
    unsigned char seq[4], pid[4], server[4], resume[4], counter[4];
};
static_assert(sizeof(qel_sync_wire) == 20);
constexpr uint32_t qel_sync_data_len = qel_tlv_head_len + sizeof(qel_sync_wire);
constexpr uint32_t qel_sync_resend_max = 600;
inline qel_sync_wire *qel_sync_of(qel_msg *msg) noexcept {
    return reinterpret_cast<qel_sync_wire *>(static_cast<char *>(qel_msg_data(msg)) + qel_tlv_head_len);
}

#endif
