// Flow control: per application and peer, how much was sent and is not acknowledged, how much was received;
// admission of new sends; acknowledgements in batches.
//
// Each application has one record with one mutex and one condition, on which its refused senders wait. The
// mutex is taken inside; g_lib_mutex may be held by the caller, the record mutexes of qel_app_info and
// qel_rpc not. Acknowledgements, pings and reloads are sent with it held: the kernel drains a congested link
// without any of our threads, so that is a stall and no deadlock, and sent outside it would race with a
// reset.
#ifndef QEL_FLOW_CTRL_H
#define QEL_FLOW_CTRL_H

#include "qel_base.h"
#include "qel_dm.h"

constexpr uint32_t qel_fc_ack_batch_msgs = 512;
constexpr int32_t qel_fc_unack_max_msgs = 1024; // beyond it a destination is blocked
static_assert(qel_fc_unack_max_msgs == 2 * static_cast<int32_t>(qel_fc_ack_batch_msgs));

struct qel_app_fc;

qel_app_fc *qel_add_app_fc(uint32_t app_id) noexcept; // null after an error line
void qel_del_app_fc(qel_app_fc *fc) noexcept;         // null is ignored

// May @src_app send to @dst_app now? 0 yes, at once or after waiting; -11 no, with QEL_SEND_NOWAIT in @flags;
// -2 @src_app is not registered here.
int32_t qel_fc_check(uint32_t src_app, uint32_t dst_app, uint32_t flags) noexcept;

// What became of a send. @dst_app and @dst_node may be the caller's raw values of a whole refused call.
void qel_fc_update_sent_ok(uint32_t src_app, uint32_t dst_app, uint32_t dst_node) noexcept;
void qel_fc_update_sent_reject(uint32_t src_app, uint32_t dst_app, uint32_t dst_node) noexcept;
void qel_fc_update_rpc_reply_exception(uint32_t src_app, uint32_t dst_app, uint32_t dst_node) noexcept;
// A peer instance joined: what was sent to it before counts as rejected.
void qel_fc_adjust_statistics(uint32_t app_id, uint32_t peer_app, uint32_t peer_node) noexcept;

// The receiving side. A message was taken for dispatch: every 512 of a peer one acknowledgement goes back.
void qel_fc_update_recv_ok(uint32_t peer_app, uint32_t peer_node, uint32_t app_id) noexcept;
void qel_fc_update_recv_drop(uint32_t peer_app, uint32_t peer_node, uint32_t app_id, uint32_t count) noexcept;
void qel_fc_update_recv_retdata(uint32_t peer_app, uint32_t peer_node, uint32_t app_id) noexcept;
void qel_fc_update_recv_exception(uint32_t app_id) noexcept;
void qel_fc_update_sent_ack(uint32_t app_id, uint32_t peer_app, uint32_t peer_node,
                            uint32_t ack_num) noexcept;
// A peer instance quit: both directions start anew, its blocked senders go on.
void qel_fc_reset_unack(uint32_t app_id, uint32_t peer_app, uint32_t peer_node) noexcept;
void qel_fc_ping_request(uint32_t peer_app, uint32_t peer_node, uint32_t app_id) noexcept;
void qel_fc_ping_echo(uint32_t peer_app, uint32_t peer_node, uint32_t app_id) noexcept;

void qel_cli_print_fc_stat(uint32_t app_id) noexcept QEL_REQUIRES(g_print_mutex);

#endif
