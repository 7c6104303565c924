// Management messages as the daemon sends and takes them: debug switch commands, and the questions who an
// application is and how it does.
#ifndef QELD_MSG_H
#define QELD_MSG_H

#include <cstdint>

#include "qel/qel.h"

// The dispatcher of application 1: takes every message to the daemon but replies. Owns @msg. On the library
// thread for management messages, on the proxy thread for others.
extern "C" void qeld_msg_dispatch(qel_msg *msg);

// Tells application @app_id of this node to switch a debug level. Any thread; takes no lock. 0, or the
// negative result of the send; no answer comes.
int qeld_send_dbg_cmd(uint32_t app_id, uint32_t level, uint32_t on) noexcept;

// Ask and wait: who an application of this node is, without limit of time; how an application of any node
// does, for 30 seconds. Any thread but the library's; no lock may be held. @replies is cleared first; what it
// holds afterwards, also after a failure, is the caller's to free. 0; positive ETIMEDOUT when the last reply
// and the deadline met (the set is empty then); the negative result of the send; -17 two questions drew one
// number.
int qeld_rpc_get_app_info(uint32_t app_id, qel_reply_set *replies) noexcept;
int qeld_rpc_get_app_statistics(uint32_t app_id, uint32_t node, qel_reply_set *replies) noexcept;

// The remote procedure call under both. @msg stays the caller's; @timeout_s 0 waits for ever.
int qeld_mng_rpcto(uint32_t app_id, uint32_t node, qel_msg *msg, uint32_t timeout_s,
                   qel_reply_set *replies) noexcept;

#endif
