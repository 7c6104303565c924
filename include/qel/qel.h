/*
 * QEL: a message bus for the processes of one multi-node device.
 *
 * A process registers one or more numbered applications, says which others they talk to, and calls
 * qel_run(). From then on it sends one-way messages, calls remote procedures on one peer or on many, and is
 * told at once which peers come and go. C11 and C++20 include this header alike.
 *
 * Conventions
 *  1. IDs. Application IDs are 1..8191 and 16384..20479. Node IDs are 0..65535. A destination application
 *     may also be 0 (the sender's own application) or an application group 0x3000..0x3FFF; a destination
 *     node may also be QEL_ANY_NODE, QEL_MY_NODE or a node group 0x80000..0x8FFFF. Groups belong to the
 *     application that created them and are unknown to every other one.
 *  2. Results. 0 or a positive value on success; a negative errno value on failure: -2 (-ENOENT) no server,
 *     or the application is not registered here; -11 (-EAGAIN) refused without waiting; -17 (-EEXIST)
 *     already there; -22 (-EINVAL) invalid argument; -105 (-ENOBUFS) a table or limit is full; -1 a failure
 *     without a number of its own. Lack of memory never fails a call: the caller waits for memory.
 *  3. Messages. A message is one heap block, made by qel_msg_alloc() and given back with free(). Its header
 *     is in host byte order while the process holds it. Sending never takes a message: it stays the
 *     caller's, who may send it again or free it. A message handed to a dispatcher is the dispatcher's, who
 *     frees it. One message must not be sent by two threads at the same time, nor read by another thread
 *     while it is sent.
 *  4. Threads. Every function may be called from any thread, from dispatchers and from event callbacks,
 *     unless it says otherwise. An application registered with qel_register() has its own thread, on which
 *     its dispatchers and event callback run one at a time. One registered with
 *     qel_register_without_thread() has none: they run on the library's one receiving thread and hold up all
 *     reception of the process while they run. Such an application must not wait in them for anything that
 *     arrives over the bus:
 *       - a remote procedure call made there never sees its reply, which only the thread it occupies could
 *         receive: it ends with QEL_STATUS_TIMEOUT after its slices, and with time-out 0 never;
 *       - a send there that flow control holds back waits for an acknowledgement that cannot be received: it
 *         never returns. Send with QEL_SEND_NOWAIT, or register with a thread.
 *  5. Presence. A peer's instance becomes reachable after both processes have declared each other with
 *     qel_comm_with() and exchanged a handshake in both directions. A declaration by one side only never
 *     gets there and sends to that peer return -2. Declare before qel_run(): a later declaration is accepted
 *     but nothing watches that peer until the connection to the name server is made anew. An application is
 *     a peer of itself: one with dispatchers and an event callback gets a join event for its own node about
 *     a second after qel_run(), and sends to itself return -2 until then. Peers without dispatchers are not
 *     servers: they come online without a join event and are nobody's destination; replies to their own calls
 *     reach them. If two applications of one process declare the same peer, one set of presence bits serves
 *     both, and when the peer quits only the first of them gets the quit event.
 *  6. Delivery. Messages of one sender to one receiver arrive in order, each once. Between two processes
 *     that live, a message is lost only where the receiver's queue in the kernel overflows (see qel.conf(5)
 *     on priorities and net.tipc.tipc_rmem) or a link is cut. That a message did not come back is no proof
 *     that it arrived.
 *  7. Not supported: fork() after the first registration, unloading the library, calls from signal handlers,
 *     pthread_cancel() of a thread inside a call (it ends the process). The library installs no signal
 *     handler and never changes the buffering of standard output.
 */
#ifndef QEL_H
#define QEL_H

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#ifdef __cplusplus
#define QEL_NOEXCEPT noexcept
extern "C" {
#else
#define QEL_NOEXCEPT
#endif
#define QEL_API __attribute__((visibility("default")))

/* ---- IDs ----------------------------------------------------------------------------------------------- */

#define QEL_ANY_NODE (-1) /* as a destination node: every node */
#define QEL_MY_NODE (-2)  /* as a destination node: the caller's own node */

#define QEL_NODE_ID_MAX 65535

#define QEL_APP_GROUP_MIN 0x3000 /* application-private groups of applications */
#define QEL_APP_GROUP_MAX 0x3FFF
#define QEL_NODE_GROUP_MIN 0x80000 /* application-private groups of nodes */
#define QEL_NODE_GROUP_MAX 0x8FFFF

#define QEL_GROUPS_MAX 128      /* groups of each kind that one application may have at a time */
#define QEL_APP_GROUP_MBRS 16   /* applications in a group */
#define QEL_NODE_GROUP_MBRS 64  /* nodes in a group */
#define QEL_PROCESS_APPS_MAX 31 /* applications that one process may register */
#define QEL_REPLIES_MAX 64      /* peers that one remote procedure call may address */

/* Tests of the ranges above: 1 or 0. Pure. */
static inline int qel_valid_app_id(uint32_t app_id) QEL_NOEXCEPT {
    return (app_id >= 1 && app_id <= 8191) || (app_id >= 16384 && app_id <= 20479);
}
static inline int qel_valid_node_id(uint32_t node_id) QEL_NOEXCEPT { return node_id <= QEL_NODE_ID_MAX; }
static inline int qel_is_app_group(uint32_t id) QEL_NOEXCEPT {
    return id >= QEL_APP_GROUP_MIN && id <= QEL_APP_GROUP_MAX;
}
static inline int qel_is_node_group(uint32_t id) QEL_NOEXCEPT {
    return id >= QEL_NODE_GROUP_MIN && id <= QEL_NODE_GROUP_MAX;
}

/* ---- messages ------------------------------------------------------------------------------------------ */

#define QEL_VERSION 1          /* header byte 0 */
#define QEL_MSG_DATA_MAX 65536 /* bytes of data in one message */
#define QEL_MSG_HDR_LEN 36     /* bytes of header */

/* Bits of the header's flags byte. The library sets them; an application only reads them. */
#define QEL_FLAG_SYNC 0x01    /* instance synchronisation; never reaches an application */
#define QEL_FLAG_REQUEST 0x02 /* remote procedure request; with QEL_FLAG_ACK its reply */
#define QEL_FLAG_ACK 0x04
#define QEL_FLAG_MNG 0x08 /* management message; never reaches an application other than the daemon */

/* The header's rpc_status. Numbers are wire values and never change. */
enum qel_status {
    QEL_STATUS_SUCCESS = 0,
    QEL_STATUS_QEL_VERSION = 1, /* reserved */
    QEL_STATUS_UNAVAILABLE = 2, /* the callee does not (any longer) count the caller as online */
    QEL_STATUS_APP_VERSION = 3, /* no dispatcher for the request's app_ver; the data are two 32-bit words, the
                                   lowest and the highest version served, in the callee's byte order */
    QEL_STATUS_SYSTEM = 4,      /* not sent, answered without a message, or the peer quit */
    QEL_STATUS_TIMEOUT = 5      /* no answer in time */
};

/* Queue link of a message. The library's while a message waits in a queue, null otherwise. */
typedef struct qel_link {
    struct qel_link *next;
    struct qel_link *prev;
} qel_link;

/* The wire header; in host byte order in memory, the 32-bit fields big-endian on the wire. */
typedef struct qel_hdr {
    uint8_t version;  /* QEL_VERSION; information only */
    uint8_t reserved; /* 0 */
    uint8_t flags;    /* QEL_FLAG_ bits */
    uint8_t qos;      /* the application's, carried unchanged */
    uint32_t len;     /* header and data, bytes: 36..65572 */
    uint32_t src_node;
    uint32_t dst_node;
    uint32_t src_app;
    uint32_t dst_app;
    uint32_t app_ver;    /* version of the application protocol; chooses the receiver's dispatcher */
    uint32_t seq;        /* of a remote procedure call; 0 in one-way messages */
    uint32_t rpc_status; /* enum qel_status; 0 in requests and one-way messages */
} qel_hdr;

/* A message: link, header, then len - 36 bytes of data without a gap (qel_msg_data()). */
typedef struct qel_msg {
    qel_link link;
    qel_hdr hdr;
} qel_msg;

/* Offset of the data from the start of the object; header and data are contiguous. */
#define QEL_MSG_DATA_OFFSET (sizeof(qel_link) + QEL_MSG_HDR_LEN)

/* The data of a message, 4-byte aligned. Lives as long as the message. Any thread. */
static inline void *qel_msg_data(qel_msg *msg) QEL_NOEXCEPT { return (char *)msg + QEL_MSG_DATA_OFFSET; }
static inline const void *qel_msg_const_data(const qel_msg *msg) QEL_NOEXCEPT {
    return (const char *)msg + QEL_MSG_DATA_OFFSET;
}
/* Bytes of data of a message. */
static inline uint32_t qel_msg_data_len(const qel_msg *msg) QEL_NOEXCEPT {
    return msg->hdr.len - QEL_MSG_HDR_LEN;
}

/* A block of @size bytes, uninitialised, from malloc(). Never null: without memory the caller sleeps 10
 * microseconds and tries again, without limit. Give it back with free(). */
static inline void *qel_malloc(size_t size) QEL_NOEXCEPT {
#ifndef __cplusplus
    extern int usleep(unsigned int); /* <unistd.h> hides it from strict C11 and from POSIX of 2008 */
#endif
    void *p = malloc(size);
    while (p == NULL) {
        usleep(10);
        p = malloc(size);
    }
    return p;
}

/* A message for @data_len bytes (0..65536) of data in application protocol version @app_ver; pass 0 as
 * @reserved. Link and header are cleared, version, len and app_ver set; the data are left as allocated.
 * Null when @data_len is out of range. Give it back with free(). */
static inline qel_msg *qel_msg_alloc(int32_t data_len, uint32_t app_ver, int reserved) QEL_NOEXCEPT {
    qel_msg *msg;
    (void)reserved;
    if (data_len < 0 || data_len > QEL_MSG_DATA_MAX)
        return NULL;
    /* never less than the whole structure, whose padding may pass the header's end */
    msg = (qel_msg *)qel_malloc(QEL_MSG_DATA_OFFSET + (size_t)data_len < sizeof(qel_msg)
                                    ? sizeof(qel_msg)
                                    : QEL_MSG_DATA_OFFSET + (size_t)data_len);
    memset(msg, 0, sizeof(qel_link) + QEL_MSG_HDR_LEN);
    msg->hdr.version = QEL_VERSION;
    msg->hdr.len = (uint32_t)data_len + QEL_MSG_HDR_LEN;
    msg->hdr.app_ver = app_ver;
    return msg;
}

/* The replies of a remote procedure call, in the order of arrival. Provided by the caller; the messages in it
 * are the caller's after the call. */
typedef struct qel_reply_set {
    int32_t count;
    qel_msg *msg[QEL_REPLIES_MAX];
} qel_reply_set;

/* Frees the messages of @set, nulls their pointers and sets the count to 0. The set itself is not freed. A
 * null @set is ignored; a count beyond 64 is taken as 64, one below 0 frees nothing. */
static inline void qel_reply_msg_free(qel_reply_set *set) QEL_NOEXCEPT {
    int32_t i, count;
    if (set == NULL)
        return;
    count = set->count > QEL_REPLIES_MAX ? QEL_REPLIES_MAX : set->count;
    for (i = 0; i < count; i++) {
        free(set->msg[i]);
        set->msg[i] = NULL;
    }
    set->count = 0;
}

/* Stores these seven header fields; version, qos, len and app_ver stay. Not needed before a send, which fills
 * the header itself. */
static inline void qel_encode_msg_hdr(qel_msg *msg, uint8_t flags, uint32_t src_app, uint32_t src_node,
                                      uint32_t dst_app, uint32_t dst_node, uint32_t seq,
                                      uint32_t rpc_status) QEL_NOEXCEPT {
    msg->hdr.flags = flags;
    msg->hdr.src_app = src_app;
    msg->hdr.src_node = src_node;
    msg->hdr.dst_app = dst_app;
    msg->hdr.dst_node = dst_node;
    msg->hdr.seq = seq;
    msg->hdr.rpc_status = rpc_status;
}

/* Constant texts for reply statuses, management message types and event types; "" for unknown codes, never
 * null. Any thread. */
QEL_API const char *qel_reply_stat_string(uint32_t status) QEL_NOEXCEPT;
QEL_API const char *qel_msg_type_string(uint32_t type) QEL_NOEXCEPT;
QEL_API const char *qel_event_type_string(uint32_t event) QEL_NOEXCEPT;

/* The words of the bits set in @flags, "none" for 0, written into @buf of at least 26 bytes. Returns a
 * pointer into @buf. Any thread. */
QEL_API const char *qel_get_msg_flags_str(uint8_t flags, char *buf) QEL_NOEXCEPT;

/* Diagnostic dumps to standard output: the header when the process's debug mask has the verbose bit, @length
 * raw @bytes when it has the error bit. Any thread. */
QEL_API void qel_dump_msg_hdr_info(const qel_msg *msg) QEL_NOEXCEPT;
QEL_API void qel_dump_msg_raw(const void *bytes, int32_t length) QEL_NOEXCEPT;

/* ---- registration -------------------------------------------------------------------------------------- */

/* Takes one received message, whose owner it becomes. */
typedef void (*qel_dispatch_fun)(qel_msg *msg);

/* One entry of an application's dispatcher table. The table ends at the first entry with version 0 or a null
 * function; the library keeps a copy. An application whose table is empty (or null) is not a server. */
typedef struct qel_dispatcher {
    uint32_t version; /* application protocol version, from 1 */
    qel_dispatch_fun fun;
} qel_dispatcher;

enum qel_event_type { QEL_EVENT_JOIN = 0, QEL_EVENT_QUIT = 1 };

/* What an event callback receives. */
typedef struct qel_app_event {
    uint32_t app_id;   /* the receiving application */
    uint32_t event;    /* enum qel_event_type */
    uint32_t node;     /* the peer's node */
    uint32_t peer_app; /* the peer application */
} qel_app_event;
typedef void (*qel_event_fun)(qel_app_event event);

/* Registers application @app_id of this process under @name (at most 31 characters are kept), with a thread
 * of its own that runs @dispatchers and @event_cb (null: no events). Before qel_run() only; for the life of
 * the process. Not from a dispatcher or callback (they run after qel_run()).
 * Returns 0; -1 no node address, library start-up failed, or already running; -22 bad ID or null name; -17
 * registered before; -105 the 32nd application; -11 the application's records or socket cannot be made; the
 * negated error of thread creation. */
QEL_API int qel_register(int32_t app_id, const char *name, const qel_dispatcher *dispatchers,
                         qel_event_fun event_cb) QEL_NOEXCEPT;

/* The same without a thread: dispatchers and callback run on the library's receiving thread (convention
 * 4). */
QEL_API int qel_register_without_thread(int32_t app_id, const char *name, const qel_dispatcher *dispatchers,
                                        qel_event_fun event_cb) QEL_NOEXCEPT;

/* Says that the application withdraws. Nothing is torn down: the registration lasts as long as the process
 * and the application goes on receiving. Returns 0, or -22 for an invalid ID. */
QEL_API int qel_unregister(int32_t app_id) QEL_NOEXCEPT;

/* Declares that @src_app, registered here, talks to @dst_app. Before qel_run() (convention 5). Returns 0; -22
 * an invalid ID; -2 @src_app is not registered in this process. */
QEL_API int qel_comm_with(int32_t src_app, int32_t dst_app) QEL_NOEXCEPT;

/* Declares the process ready: about a second later its applications are published and receive. Registrations
 * are refused from now on. Call it after the registrations: before the first of them it is lost, though it
 * returns 0. Returns 0. Both names do the same. */
QEL_API int qel_run(void) QEL_NOEXCEPT;
QEL_API int qel_app_ready(void) QEL_NOEXCEPT;

/* 1 while application @app on @node is online for this process, else 0. Mind the order of the arguments. */
QEL_API int qel_is_app_online(uint32_t node, uint32_t app) QEL_NOEXCEPT;

/* ---- sending ------------------------------------------------------------------------------------------- */

/* QEL_SEND_NOWAIT: return -11 where flow control would make the caller wait; the socket itself may still hold
 * the caller up for a moment on a congested link. QEL_SEND_NOT_SELF: leave out the sender's own instance on
 * this node. */
#define QEL_SEND_NOWAIT 0x1u
#define QEL_SEND_NOT_SELF 0x4u

/* Sends @msg to every server instance of @dst (an application, 0 or an application group) on whatever node.
 * While more than 1024 messages to any one instance of an application are unacknowledged, requests included,
 * flow control holds every send to that application back: the call waits, without limit, or returns -11 with
 * QEL_SEND_NOWAIT. If one member of a group is refused, nothing is sent to any. @msg stays the caller's; its
 * header is rewritten.
 * Returns 0; -22 bad ID or null message; -2 no server or @app_id is not registered here; -11 refused without
 * waiting; -1 some datagram failed (the others were sent). */
QEL_API int qel_send(uint32_t app_id, uint32_t dst, qel_msg *msg, uint32_t flags) QEL_NOEXCEPT;

/* The same to the instances on @dst_node: a node, QEL_ANY_NODE, QEL_MY_NODE or a node group. */
QEL_API int qel_sendto(uint32_t app_id, uint32_t dst_app, int32_t dst_node, qel_msg *msg,
                       uint32_t flags) QEL_NOEXCEPT;

/* The applications that @dst stands for, as a list of 16 with 0 for empty slots. 0, or -22 when @dst is no
 * destination. A group unknown to @app_id gives an empty list. */
QEL_API int qel_get_app_mbrs(uint32_t app_id, uint32_t dst,
                             uint32_t members[QEL_APP_GROUP_MBRS]) QEL_NOEXCEPT;

/* The nodes that @dst_node stands for, as a list of 64 in which values above 65535 are empty slots. 0 or
 * -22. */
QEL_API int qel_get_node_mbrs(uint32_t app_id, int32_t dst_node,
                              uint32_t nodes[QEL_NODE_GROUP_MBRS]) QEL_NOEXCEPT;

/* ---- remote procedure calls ---------------------------------------------------------------------------- */

#define QEL_RPC_NOT_SELF QEL_SEND_NOT_SELF /* do not call the caller's own instance on this node */

/* Sends @msg as a request to every server instance of @dst_app (an application, 0 or an application group; at
 * most 64 peers) and waits until each has answered, quit or run out of time. @set is cleared first; on return
 * 0 it holds one message per peer, in the order of arrival, each with its own hdr.rpc_status: the peer's
 * answer, or one made here without data (QEL_STATUS_SYSTEM: not sent, or the peer quit; QEL_STATUS_TIMEOUT).
 * The replies are the caller's: qel_reply_msg_free(). @msg stays the caller's. @timeout_s is spent in slices
 * of 30 seconds: 5 lasts 30, and every reply that wakes any caller of this application spends a slice of
 * each. 0 waits without limit until the peer answers or quits. Not from a dispatcher or callback of an
 * application without thread (convention 4); and from one with a thread not to its own instance, which that
 * very thread would have to answer: QEL_RPC_NOT_SELF.
 * Returns 0; -22 bad ID, null message or set; -2 no server or not registered here; -105 more than 64 peers;
 * -17 two calls drew the same sequence number at the same moment: call again; positive ETIMEDOUT when the
 * last reply and the deadline met. @set is empty whenever the result is not 0. */
QEL_API int32_t qel_rpc(uint32_t src_app, uint32_t dst_app, qel_msg *msg, uint32_t flags, uint32_t timeout_s,
                        qel_reply_set *set) QEL_NOEXCEPT;

/* The same to the instances on @dst_node (as for qel_sendto(); the node comes before the application
 * here). */
QEL_API int32_t qel_rpcto(uint32_t src_app, int32_t dst_node, uint32_t dst_app, qel_msg *msg, uint32_t flags,
                          uint32_t timeout_s, qel_reply_set *set) QEL_NOEXCEPT;

/* Answers @request, a message that a dispatcher received with QEL_FLAG_REQUEST set, with @reply; null answers
 * with QEL_STATUS_SYSTEM. @reply's header is filled here and may be the request itself. Both stay the
 * caller's. At once or later, from any thread. @flags are not used. Returns 0; -22 null or not a request; the
 * result of a failed send (-1, -22). */
QEL_API int32_t qel_rpc_reply(qel_msg *request, qel_msg *reply, uint32_t flags) QEL_NOEXCEPT;

/* ---- private multicast groups -------------------------------------------------------------------------- */

/* A group of applications or of nodes as an application made it. */
typedef struct qel_app_mc_group {
    uint32_t id;                          /* 0 when unknown */
    uint32_t members[QEL_APP_GROUP_MBRS]; /* 0: empty slot */
} qel_app_mc_group;
typedef struct qel_node_mc_group {
    uint32_t id;                           /* 0xFFFFFFFF when unknown */
    uint32_t members[QEL_NODE_GROUP_MBRS]; /* above 65535: empty slot */
} qel_node_mc_group;

/* Makes an empty group of application @app_id. Returns its ID; -2 not registered here; -105 it has 128. */
QEL_API int32_t qel_create_app_mcast(uint32_t app_id) QEL_NOEXCEPT;
QEL_API int32_t qel_create_node_mcast(uint32_t app_id) QEL_NOEXCEPT;

/* Adds a member (an application, a node); one that is there already stays there once. Returns 0; -22 invalid
 * member; -2 not registered here or no such group; -105 the group is full. */
QEL_API int qel_add_app_mcast(uint32_t app_id, uint32_t group, uint32_t member) QEL_NOEXCEPT;
QEL_API int qel_add_node_mcast(uint32_t app_id, uint32_t group, uint32_t node) QEL_NOEXCEPT;

/* Takes a member out; an absent one is no error. Returns 0; -2 not registered here or no such group. */
QEL_API int qel_del_app_mcast(uint32_t app_id, uint32_t group, uint32_t member) QEL_NOEXCEPT;
QEL_API int qel_del_node_mcast(uint32_t app_id, uint32_t group, uint32_t node) QEL_NOEXCEPT;

/* Removes a group. Its ID is not given out again before the IDs wrap around. */
QEL_API void qel_destroy_app_mcast(uint32_t app_id, uint32_t group) QEL_NOEXCEPT;
QEL_API void qel_destroy_node_mcast(uint32_t app_id, uint32_t group) QEL_NOEXCEPT;

/* Copies a group into @out; one that is unknown reads as a group without members. */
QEL_API void qel_get_app_mc_mbr(uint32_t app_id, uint32_t group, qel_app_mc_group *out) QEL_NOEXCEPT;
QEL_API void qel_get_node_mc_mbr(uint32_t app_id, uint32_t group, qel_node_mc_group *out) QEL_NOEXCEPT;

/* The members of group @group_id from the section [APP_MCAST_TBL] of /etc/qel.conf; reads the file at every
 * call. Returns their number, 0..16, and fills all 16 of @members; 0 when the group is not configured, and
 * @members is then left as it was. The library makes no groups of them by itself. */
QEL_API int32_t qel_get_app_mc_members(uint32_t group_id, uint32_t members[QEL_APP_GROUP_MBRS]) QEL_NOEXCEPT;

/* ---- blocked resume ------------------------------------------------------------------------------------ */

/* Lets a peer whose sends to this process have been blocked for 15 minutes abort it (SIGABRT), so that its
 * supervisor restarts it. Takes effect only while the key qel_blocked_resume_enabled of /etc/qel.conf is
 * true. Off at the first registration, which also undoes an earlier call. */
QEL_API void qel_enable_blocked_resume(void) QEL_NOEXCEPT;
QEL_API void qel_disable_blocked_resume(void) QEL_NOEXCEPT;

/* ---- platform watchdog --------------------------------------------------------------------------------- */

/* A platform that has a watchdog defines these three in the program or in one of its libraries; the library
 * calls those that exist. @name is the thread's. Every thread that may block for long registers, feeds at
 * least once a minute (every 2 seconds on the receiving thread) and unregisters. Registrations of one name
 * nest and are to be counted: a thread that is registered already registers again around each wait of a send
 * or a call, and threads may share a name. They must not call the library: locks of it may be held. */
void watchdog_register(const char *name) __attribute__((weak));
void watchdog_feed(const char *name) __attribute__((weak));
void watchdog_unregister(const char *name) __attribute__((weak));

#ifdef __cplusplus
}
#endif
#endif
