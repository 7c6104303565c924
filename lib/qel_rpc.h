// The waits of remote procedure calls. Each application has one registry: a list of calls in progress, each
// with the peers that still have to answer and the caller's reply set. A peer is struck off exactly once, by
// its reply, a local error, its quit or the time-out, and each strike adds exactly one message to the set.
//
// One mutex and one condition per registry, taken inside; g_lib_mutex may be held by the caller. While a wait
// exists its reply set belongs to the registry.
#ifndef QEL_RPC_H
#define QEL_RPC_H

#include "qel_base.h"
#include "qel_dm.h"

struct qel_rpc_wait_mgmt;

struct qel_rpc_wait {
    qel_link link{};
    uint32_t seq = 0;
    uint32_t timeout_s = 0;               // 0: without limit
    int32_t count = 0;                    // of repliers, answered ones included
    uint32_t repliers[QEL_REPLIES_MAX]{}; // application << 16 | node; 0 once answered
    qel_reply_set *replies = nullptr;
};

qel_rpc_wait_mgmt *qel_add_app_rpc_wait(uint32_t app_id) noexcept; // null after an error line
void qel_del_app_rpc_wait(qel_rpc_wait_mgmt *mgmt) noexcept;       // null is ignored

// The wait with this number, or null. Only its own caller may look into it, and only before it sends.
qel_rpc_wait *qel_get_rpc_wait(uint32_t app_id, uint32_t seq) noexcept;

// Opens a wait. 0; -2 @app_id is not registered here; -17 it has one with this number.
int32_t qel_rpc_prepare_wait(uint32_t app_id, uint32_t seq, uint32_t timeout_s,
                             qel_reply_set *replies) noexcept;
// Adds an expected replier to an open wait. 0, or -105 when it has 64.
int32_t qel_rpc_set_wait(uint32_t app_id, uint32_t seq, uint32_t peer_app, uint32_t dst_node) noexcept;
// Copies the @index-th replier of an open wait into @peer (0: answered by now). False behind the last, or
// when the wait does not exist.
bool qel_rpc_get_replier(uint32_t app_id, uint32_t seq, int32_t index, uint32_t *peer) noexcept;
// Ends a wait without waiting; what its reply set holds stays there.
void qel_rpc_del_wait(uint32_t app_id, uint32_t seq) noexcept;
// Ends a wait whose call failed, frees what its reply set holds and empties it.
void qel_rpc_abort_wait(uint32_t app_id, uint32_t seq, qel_reply_set *replies) noexcept;
// Blocks until every replier was struck off, then ends the wait. 0, or ETIMEDOUT (positive) with an empty set
// when the deadline and the last reply met.
int32_t qel_rpc_wait_reply(uint32_t app_id, uint32_t seq) noexcept;

// Files a received reply. 0 and the set owns @msg, or -2 and @msg stays the caller's.
int32_t qel_rpc_add_reply(qel_msg *msg) noexcept;
// Strikes a peer off with a local reply. 0 or -2.
int32_t qel_rpc_add_error_reply(uint32_t app_id, uint32_t seq, uint32_t peer_app, uint32_t peer_node,
                                uint32_t status) noexcept;
// Strikes a peer off every wait with status 4. Returns 0.
int32_t qel_terminate_rpc(uint32_t app_id, uint32_t peer_app, uint32_t peer_node) noexcept;

// Replies that the callee's library makes itself; the result of the send. @request stays the caller's.
int32_t qel_rpc_reply_error(const qel_msg *request, uint32_t status) noexcept;
int32_t qel_rpc_reply_app_mismatch(const qel_msg *request, const uint32_t range[2]) noexcept;

void qel_rpc_print_wait(uint32_t app_id, uint32_t seq) noexcept;
void qel_cli_print_rpc_stat(uint32_t app_id) noexcept QEL_REQUIRES(g_print_mutex);

#endif
