// The public operations. Those of registration and sending end in the library manager and in one datagram per
// member and node; a remote procedure call opens a wait, sends, and sleeps in qel_rpc.
#include "qel_user_proxy.h"

#include <cerrno>
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#define QEL_LOG_SRC "qel_user_proxy"
#include "qel_cfg.h"
#include "qel_flow_ctrl.h"
#include "qel_log.h"
#include "qel_mng.h"
#include "qel_mng_msg.h"
#include "qel_port.h"
#include "qel_rpc.h"

// ---- registration ---------------------------------------------------------------------------------------

int qel_app_register(int32_t app_id, const char *name, const qel_dispatcher *dispatchers,
                     qel_event_fun event_cb, uint8_t thread_flag) noexcept {
    if (qel_cfg_init() != 0)
        return -1;
    if (!qel_valid_app_id(static_cast<uint32_t>(app_id))) {
        QEL_ERROR("QEL app registered with invalid ID %d.\n", app_id);
        return -EINVAL;
    }
    if (!name) {
        QEL_ERROR("QEL app %d registered name NULL.\n", app_id);
        return -EINVAL;
    }
    int32_t count = 0;
    while (dispatchers && dispatchers[count].version != 0 && dispatchers[count].fun)
        count++;
    QEL_VERBOSE("QEL app %d [%s] registered: %d dispatcher version, event %p.\n", app_id, name, count,
                reinterpret_cast<void *>(event_cb));
    const int ret =
        qel_add_app_mng(static_cast<uint32_t>(app_id), name, thread_flag, count, dispatchers, event_cb);
    if (ret)
        QEL_INFO("QEL registeration for app %d [%s] failed: %s.\n", app_id, name, strerror(abs(ret)));
    else
        QEL_INFO("QEL registeration for app %d [%s] OK.\n", app_id, name);
    return ret;
}

int qel_register(int32_t app_id, const char *name, const qel_dispatcher *dispatchers,
                 qel_event_fun event_cb) noexcept {
    return qel_app_register(app_id, name, dispatchers, event_cb, 1);
}

int qel_register_without_thread(int32_t app_id, const char *name, const qel_dispatcher *dispatchers,
                                qel_event_fun event_cb) noexcept {
    return qel_app_register(app_id, name, dispatchers, event_cb, 0);
}

int qel_unregister(int32_t app_id) noexcept {
    if (!qel_valid_app_id(static_cast<uint32_t>(app_id))) {
        QEL_ERROR("QEL app unregistered with invalid ID %d.\n", app_id);
        return -EINVAL;
    }
    QEL_INFO("QEL app %d unregister service.\n", app_id);
    qel_del_app_mng(qel_get_app_mng(static_cast<uint32_t>(app_id)));
    return 0;
}

int qel_run(void) noexcept { return qel_notify_running(); }

int qel_app_ready(void) noexcept {
    (void)qel_run();
    return 0;
}

int qel_comm_with(int32_t src_app, int32_t dst_app) noexcept {
    if (!qel_valid_app_id(static_cast<uint32_t>(src_app))) {
        QEL_ERROR("QEL src app ID %d invalid.\n", src_app);
        return -EINVAL;
    }
    if (!qel_valid_app_id(static_cast<uint32_t>(dst_app))) {
        QEL_ERROR("QEL dst app ID %d invalid.\n", dst_app);
        return -EINVAL;
    }
    return qel_add_comm_app(static_cast<uint32_t>(src_app), static_cast<uint32_t>(dst_app));
}

// The node first here, the application first inside.
int qel_is_app_online(uint32_t node, uint32_t app) noexcept { return qel_app_online(app, node); }

// ---- socket and name ------------------------------------------------------------------------------------

sockaddr_tipc qel_name_addr(uint32_t type, uint32_t instance) noexcept {
    sockaddr_tipc addr{};
    addr.family = AF_TIPC;
    addr.addrtype = TIPC_ADDR_NAME;
    addr.scope = TIPC_CLUSTER_SCOPE;
    addr.addr.name.name.type = type;
    addr.addr.name.name.instance = instance;
    addr.addr.name.domain = 0;
    return addr;
}

int qel_set_fd_close_on_exec(int32_t fd) noexcept {
    const int flags = qel_port_get().fcntl(fd, F_GETFD, 0);
    if (flags >= 0 && qel_port_get().fcntl(fd, F_SETFD, flags | FD_CLOEXEC) >= 0)
        return 0;
    const int error = errno;
    if (flags < 0)
        QEL_ERROR("QEL get file %d flags error: %s.\n", fd, strerror(error));
    else
        QEL_ERROR("QEL set file %d flags error: %s.\n", fd, strerror(error));
    errno = error;
    return -1;
}

// A window of 1,025 messages passes the default queue from about 1 KiB on, and what the queue rejects is
// never acknowledged. Where the process may, its queue holds a window of any size; where not, that is all
// right too.
static void enlarge_receive_queue(int32_t sd) noexcept {
    const int bytes = 96 << 20;
    (void)qel_port_get().setsockopt(sd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes);
}

int32_t qel_create_app_socket(int32_t app_id, int32_t priority) noexcept {
    const qel_port &port = qel_port_get();
    const int32_t sd = port.socket(AF_TIPC, SOCK_RDM, 0);
    if (sd < 0) {
        QEL_ERROR("QEL create app %d socket failed: %s.\n", app_id, strerror(errno));
        return -1;
    }
    const int keep = 0; // what cannot be delivered comes back, at either end
    if (qel_set_fd_close_on_exec(sd) != 0) {
    } else if (port.setsockopt(sd, SOL_TIPC, TIPC_IMPORTANCE, &priority, sizeof priority) != 0) {
        QEL_ERROR("QEL set app %d socket priority %d failed: %s.\n", app_id, priority, strerror(errno));
    } else if (port.setsockopt(sd, SOL_TIPC, TIPC_SRC_DROPPABLE, &keep, sizeof keep) != 0) {
        QEL_ERROR("QEL set app %d socket TIPC_SRC_DROPPABLE failed: %s.\n", app_id, strerror(errno));
    } else if (port.setsockopt(sd, SOL_TIPC, TIPC_DEST_DROPPABLE, &keep, sizeof keep) != 0) {
        QEL_ERROR("QEL set app %d socket TIPC_DEST_DROPPABLE failed: %s.\n", app_id, strerror(errno));
    } else {
        enlarge_receive_queue(sd);
        QEL_VERBOSE("QEL app %d create socket %d priority %d.\n", app_id, sd, priority);
        return sd;
    }
    port.close(sd);
    return -1;
}

int qel_bind_app_socket(int32_t app_id, int32_t sd) noexcept {
    const sockaddr_tipc name =
        qel_name_addr(qel_name_type, qel_name_instance(static_cast<uint32_t>(app_id),
                                                       static_cast<uint32_t>(qel_get_my_node_id())));
    while (qel_port_get().bind(sd, reinterpret_cast<const sockaddr *>(&name), sizeof name) != 0) {
        const int error = errno;
        QEL_ERROR("QEL app %d bind socket %d failed: %s.\n", app_id, sd, strerror(error));
        if (error != ENOMEM)
            return -1;
        sched_yield();
    }
    return 0;
}

// ---- sequence numbers -----------------------------------------------------------------------------------

static constinit qel_mutex g_seq_mutex;
static constinit std::atomic<uint32_t> g_seq{0};

void qel_set_seq_for_test(uint32_t seq) noexcept {
    qel_lock lock(g_seq_mutex);
    g_seq.store(seq, std::memory_order_relaxed);
}

void qel_init_seq() noexcept {
    qel_fd fd(open("/dev/urandom", O_RDONLY | O_CLOEXEC));
    if (!fd)
        return;
    qel_lock lock(g_seq_mutex);
    uint32_t seed = g_seq.load(std::memory_order_relaxed);
    [[maybe_unused]] const ssize_t got = read(fd.fd, &seed, sizeof seed);
    g_seq.store(seed, std::memory_order_relaxed);
}

// Reads after the unlock, on purpose: two callers at the same moment may both get the newer number. The wrap
// past 0 is stored in one step, so nobody ever sees 0.
uint32_t qel_get_seq() noexcept {
    {
        qel_lock lock(g_seq_mutex);
        const uint32_t next = g_seq.load(std::memory_order_relaxed) + 1;
        g_seq.store(next ? next : 1, std::memory_order_relaxed);
    }
    return g_seq.load(std::memory_order_relaxed);
}

// ---- destinations ---------------------------------------------------------------------------------------

int qel_get_app_mbrs(uint32_t app_id, uint32_t dst, uint32_t members[QEL_APP_GROUP_MBRS]) noexcept {
    memset(members, 0, sizeof(uint32_t) * QEL_APP_GROUP_MBRS);
    if (dst == 0) {
        members[0] = app_id;
    } else if (qel_valid_app_id(dst)) {
        members[0] = dst;
    } else if (qel_is_app_group(dst)) {
        qel_app_mc_group group;
        qel_get_app_mc_mbr(app_id, dst, &group);
        memcpy(members, group.members, sizeof group.members);
    } else {
        QEL_ERROR("QEL app %d to dst app ID %d invalid.\n", app_id, dst);
        return -EINVAL;
    }
    return 0;
}

int qel_get_node_mbrs(uint32_t app_id, int32_t dst_node, uint32_t nodes[QEL_NODE_GROUP_MBRS]) noexcept {
    memset(nodes, 0xFF, sizeof(uint32_t) * QEL_NODE_GROUP_MBRS);
    const auto node = static_cast<uint32_t>(dst_node);
    if (dst_node == QEL_MY_NODE) {
        nodes[0] = static_cast<uint32_t>(qel_get_my_node_id());
    } else if (qel_valid_node_id(node)) {
        nodes[0] = node;
    } else if (qel_is_node_group(node)) {
        qel_node_mc_group group;
        qel_get_node_mc_mbr(app_id, node, &group);
        memcpy(nodes, group.members, sizeof group.members);
    } else {
        QEL_ERROR("QEL app %d to dst node ID %d invalid.\n", app_id, dst_node);
        return -EINVAL;
    }
    return 0;
}

// The servers of @member as @app_id means them: without its own instance here where @flags say so. False:
// leave the member out, for nobody knows which node this is.
static bool member_servers(uint32_t app_id, uint32_t member, uint32_t flags, qel_node_map *map) noexcept {
    qel_get_app_server(member, map);
    if (member == app_id && flags & QEL_SEND_NOT_SELF) {
        const int32_t node = qel_get_my_node_id();
        if (node < 0)
            return false;
        map->clear(static_cast<uint32_t>(node));
    }
    return true;
}

// Calls @visit(node) for each node of @map that the destination means: all of them in ascending order, or
// those of the list in its order. Returns how many there were; a false from @visit stops.
template <class Visit>
static uint32_t each_node(const qel_node_map &map, const uint32_t *nodes, Visit visit) noexcept {
    uint32_t count = 0;
    if (!nodes) {
        for (uint32_t node = map.next(0); node < qel_node_count; node = map.next(node + 1)) {
            count++;
            if (!visit(node))
                break;
        }
        return count;
    }
    for (uint32_t i = 0; i < QEL_NODE_GROUP_MBRS; i++) {
        if (!map.test(nodes[i]))
            continue;
        count++;
        if (!visit(nodes[i]))
            break;
    }
    return count;
}

// ---- sending --------------------------------------------------------------------------------------------

static int qel_check_send_arg(uint32_t app_id, const qel_msg *msg) noexcept {
    if (!qel_valid_app_id(app_id)) {
        QEL_ERROR("QEL src app ID %d invalid.\n", app_id);
        return -EINVAL;
    }
    if (!msg) {
        QEL_ERROR("QEL app %d send msg NULL.\n", app_id);
        return -EINVAL;
    }
    return 0;
}

// One send to the servers of @members, on the nodes of the list or, without one, on all nodes. First every
// member is admitted, then everything is sent: a refusal leaves nothing half sent.
struct send_job {
    uint32_t app_id, dst;
    int32_t dst_node;
    qel_msg *msg;
    uint32_t flags;
    const uint32_t *nodes; // null: any
    uint32_t members[QEL_APP_GROUP_MBRS] = {};

    int refuse(int ret) const noexcept {
        qel_fc_update_sent_reject(app_id, dst, static_cast<uint32_t>(dst_node));
        return ret;
    }
    void no_server(const char *when) const noexcept {
        if (nodes)
            QEL_VERBOSE("QEL app %d sendto %d/%d(0x%x/0x%x) has no server%s.\n", app_id, dst, dst_node, dst,
                        dst_node, when);
        else
            QEL_VERBOSE("QEL app %d send %d(0x%x) has no server%s.\n", app_id, dst, dst, when);
    }

    int run() noexcept {
        qel_node_map map; // not cleared: 8 KiB that the summary makes unnecessary to touch
        uint32_t admitted = 0;
        for (const uint32_t member : members) {
            if (member == 0 || !member_servers(app_id, member, flags, &map))
                continue;
            if (!qel_has_app_server(map)) {
                QEL_VERBOSE("QEL app %d to %d has no server.\n", app_id, member);
                continue;
            }
            if (each_node(map, nodes, [](uint32_t) { return false; }) == 0)
                continue;
            const int32_t ret = qel_fc_check(app_id, member, flags);
            if (ret) {
                QEL_WARN("QEL app %d to %d check msg flow ctrl failed: %s.\n", app_id, member,
                         strerror(abs(ret)));
                return refuse(ret);
            }
            admitted++;
        }
        if (admitted == 0) {
            no_server("");
            return refuse(-ENOENT);
        }

        const auto my_node = static_cast<uint32_t>(qel_get_my_node_id());
        uint32_t sent = 0;
        int result = 0;
        for (const uint32_t member : members) {
            if (member == 0 || !member_servers(app_id, member, flags, &map))
                continue;
            sent += each_node(map, nodes, [&](uint32_t node) {
                qel_encode_msg_hdr(msg, 0, app_id, my_node, member, node, 0, 0);
                // always blocking: the caller's "do not wait" is about flow control
                if (qel_tipc_sendto(app_id, msg, member, node, 0) == 0) {
                    qel_fc_update_sent_ok(app_id, member, node);
                } else {
                    qel_fc_update_sent_reject(app_id, member, node);
                    result = -1;
                }
                return true;
            });
        }
        if (sent == 0) {
            no_server(" while sending");
            return refuse(-ENOENT);
        }
        return result;
    }
};

int qel_send(uint32_t app_id, uint32_t dst, qel_msg *msg, uint32_t flags) noexcept {
    QEL_VERBOSE("QEL user app %d send %d(0x%x), msg %p, flags 0x%x.\n", app_id, dst, dst,
                static_cast<void *>(msg), flags);
    int ret = qel_check_send_arg(app_id, msg);
    if (ret)
        return ret;
    send_job job{
        .app_id = app_id, .dst = dst, .dst_node = QEL_ANY_NODE, .msg = msg, .flags = flags, .nodes = nullptr};
    if ((ret = qel_get_app_mbrs(app_id, dst, job.members)) != 0)
        return job.refuse(ret);
    return job.run();
}

int qel_sendto(uint32_t app_id, uint32_t dst_app, int32_t dst_node, qel_msg *msg, uint32_t flags) noexcept {
    QEL_VERBOSE("QEL user app %d sendto %d/%d(0x%x/0x%x), msg %p, flags 0x%x.\n", app_id, dst_app, dst_node,
                dst_app, dst_node, static_cast<void *>(msg), flags);
    int ret = qel_check_send_arg(app_id, msg);
    if (ret)
        return ret;
    if (dst_node == QEL_ANY_NODE)
        return qel_send(app_id, dst_app, msg, flags);
    uint32_t nodes[QEL_NODE_GROUP_MBRS];
    send_job job{
        .app_id = app_id, .dst = dst_app, .dst_node = dst_node, .msg = msg, .flags = flags, .nodes = nodes};
    if ((ret = qel_get_app_mbrs(app_id, dst_app, job.members)) != 0 ||
        (ret = qel_get_node_mbrs(app_id, dst_node, nodes)) != 0)
        return job.refuse(ret);
    return job.run();
}

// ---- remote procedure calls -----------------------------------------------------------------------------

static int32_t qel_check_rpc_arg(uint32_t src_app, const qel_msg *msg, qel_reply_set *set) noexcept {
    if (set)
        *set = {};
    if (!qel_valid_app_id(src_app)) {
        QEL_ERROR("QEL src app ID %d invalid.\n", src_app);
        return -EINVAL;
    }
    if (!msg || !set) {
        QEL_ERROR("QEL app %d RPC msg or reply buffer NULL.\n", src_app);
        return -EINVAL;
    }
    return 0;
}

// Opens the wait of a call and lists its repliers. @nodes null: any node. On a failure no wait is left and
// the set is empty.
static int32_t qel_prepare_rpc(uint32_t src_app, int32_t dst_node, uint32_t dst_app, uint32_t seq,
                               uint32_t flags, uint32_t timeout_s, qel_reply_set *set) noexcept {
    const bool any = dst_node == QEL_ANY_NODE;
    uint32_t members[QEL_APP_GROUP_MBRS], nodes[QEL_NODE_GROUP_MBRS];
    int32_t ret = qel_get_app_mbrs(src_app, dst_app, members);
    if (!ret && !any)
        ret = qel_get_node_mbrs(src_app, dst_node, nodes);
    if (ret)
        return ret;
    ret = qel_rpc_prepare_wait(src_app, seq, timeout_s, set);
    if (ret) {
        if (any)
            QEL_WARN("QEL app %d to %d prepare RPC wait failed: %s.\n", src_app, dst_app, strerror(abs(ret)));
        else
            QEL_WARN("QEL app %d to %d/%d prepare RPC wait failed: %s.\n", src_app, dst_app, dst_node,
                     strerror(abs(ret)));
        return ret;
    }
    uint32_t repliers = 0;
    qel_node_map map;
    for (const uint32_t member : members) {
        if (member == 0 || !member_servers(src_app, member, flags, &map))
            continue;
        if (!qel_has_app_server(map)) {
            QEL_VERBOSE("QEL app %d to %d has no server.\n", src_app, member);
            continue;
        }
        repliers += each_node(map, any ? nullptr : nodes, [&](uint32_t node) {
            ret = qel_rpc_set_wait(src_app, seq, member, node);
            return ret == 0;
        });
        if (ret)
            break;
    }
    if (!ret && repliers == 0) {
        if (any)
            QEL_VERBOSE("QEL app %d rpc %d(0x%x) has no server.\n", src_app, dst_app, dst_app);
        else
            QEL_VERBOSE("QEL app %d rpcto %d/%d(0x%x/0x%x) has no server.\n", src_app, dst_app, dst_node,
                        dst_app, dst_node);
        ret = -ENOENT;
    }
    if (ret)
        qel_rpc_abort_wait(src_app, seq, set);
    return ret;
}

// Sends the request to every replier of the open wait. A failed send becomes that peer's reply.
static int32_t qel_send_rpc(uint32_t src_app, uint32_t seq, qel_msg *msg, qel_reply_set *set) noexcept {
    if (!qel_get_rpc_wait(src_app, seq))
        return -ENOENT;
    qel_rpc_print_wait(src_app, seq);
    const auto my_node = static_cast<uint32_t>(qel_get_my_node_id());
    uint32_t peer;
    for (int32_t i = 0; qel_rpc_get_replier(src_app, seq, i, &peer); i++) {
        if (peer == 0)
            continue; // it quit meanwhile and has its reply
        const uint32_t peer_app = peer >> 16, peer_node = peer & 0xFFFF;
        qel_encode_msg_hdr(msg, QEL_FLAG_REQUEST, src_app, my_node, peer_app, peer_node, seq, 0);
        if (qel_tipc_sendto(src_app, msg, peer_app, peer_node, 0) == 0) {
            qel_fc_update_sent_ok(src_app, peer_app, peer_node);
            continue;
        }
        qel_fc_update_sent_reject(src_app, peer_app, peer_node);
        const int32_t ret = qel_rpc_add_error_reply(src_app, seq, peer_app, peer_node, QEL_STATUS_SYSTEM);
        if (ret) {
            // It quit between the send and here: known, and ends the whole call.
            qel_rpc_abort_wait(src_app, seq, set);
            return ret;
        }
    }
    return 0;
}

static int32_t call(uint32_t src_app, int32_t dst_node, uint32_t dst_app, qel_msg *msg, uint32_t flags,
                    uint32_t timeout_s, qel_reply_set *set) noexcept {
    const uint32_t seq = qel_get_seq();
    int32_t ret = qel_prepare_rpc(src_app, dst_node, dst_app, seq, flags, timeout_s, set);
    if (ret) {
        qel_fc_update_sent_reject(src_app, dst_app, static_cast<uint32_t>(dst_node));
        return ret;
    }
    ret = qel_send_rpc(src_app, seq, msg, set);
    return ret ? ret : qel_rpc_wait_reply(src_app, seq);
}

int32_t qel_rpc(uint32_t src_app, uint32_t dst_app, qel_msg *msg, uint32_t flags, uint32_t timeout_s,
                qel_reply_set *set) noexcept {
    QEL_VERBOSE("QEL user app %d rpc %d(0x%x), msg %p, flags 0x%x, timeout %u, ret_buf %p.\n", src_app,
                dst_app, dst_app, static_cast<void *>(msg), flags, timeout_s, static_cast<void *>(set));
    const int32_t ret = qel_check_rpc_arg(src_app, msg, set);
    return ret ? ret : call(src_app, QEL_ANY_NODE, dst_app, msg, flags, timeout_s, set);
}

int32_t qel_rpcto(uint32_t src_app, int32_t dst_node, uint32_t dst_app, qel_msg *msg, uint32_t flags,
                  uint32_t timeout_s, qel_reply_set *set) noexcept {
    QEL_VERBOSE("QEL user app %d rpcto %d/%d(0x%x/0x%x), msg %p, flags 0x%x, timeout %u, ret_buf %p.\n",
                src_app, dst_app, dst_node, dst_app, dst_node, static_cast<void *>(msg), flags, timeout_s,
                static_cast<void *>(set));
    const int32_t ret = qel_check_rpc_arg(src_app, msg, set);
    if (ret)
        return ret;
    if (dst_node == QEL_ANY_NODE)
        return qel_rpc(src_app, dst_app, msg, flags, timeout_s, set);
    return call(src_app, dst_node, dst_app, msg, flags, timeout_s, set);
}

int32_t qel_rpc_reply(qel_msg *request, qel_msg *reply, uint32_t flags) noexcept {
    QEL_VERBOSE("QEL user rpc reply, src_msg %p, reply_msg %p, flags 0x%x.\n", static_cast<void *>(request),
                static_cast<void *>(reply), flags);
    if (!request) {
        QEL_ERROR("QEL RPC reply invalid argument.\n");
        return -EINVAL;
    }
    if ((request->hdr.flags & (QEL_FLAG_REQUEST | QEL_FLAG_ACK)) != QEL_FLAG_REQUEST) {
        QEL_WARN("QEL reply msg src is not RPC.\n");
        return -EINVAL;
    }
    // A copy: the reply may be the request itself, whose header is overwritten here.
    const qel_hdr asked = request->hdr;
    int32_t ret;
    if (reply) {
        qel_encode_msg_hdr(reply, asked.flags | QEL_FLAG_ACK, asked.dst_app,
                           static_cast<uint32_t>(qel_get_my_node_id()), asked.src_app, asked.src_node,
                           asked.seq, QEL_STATUS_SUCCESS);
        ret = qel_tipc_sendto(asked.dst_app, reply, asked.src_app, asked.src_node, 0);
    } else {
        ret = qel_rpc_reply_error(request, QEL_STATUS_SYSTEM);
    }
    if (ret)
        qel_fc_update_rpc_reply_exception(asked.dst_app, asked.src_app, asked.src_node);
    return ret;
}
