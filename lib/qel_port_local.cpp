// The local transport: the table of socket calls. docs/local-transport.md tells how it works.
//
// What it does not copy from the kernel's TIPC, and why:
//   - Rejection codes 1 and 3 and the silent delivery to another socket of the name: there is no way on which
//     a message could be while its name goes. It is delivered, returned with code 2, or refused at once.
//   - Loss of returned messages beyond the 32 MB a sender may hold, and link resets through floods of them:
//     there is no link. `qel-fabric --control` can lose returns, cut nodes off, delay names and congest links
//     instead.
//   - Messages that a dying kernel socket drops on SMP: here all of them come back, unless no fabric runs.
//   - POLLOUT is always reported: congestion exists only as a fault asked for, and lasts for its time.
//   - Round robin over several publications turns per sending process, not per node, and prefers the node of
//     the sender as the kernel does for addresses of the form 1.1.N.
//   - Multicast (TIPC_SERVICE_RANGE as a destination), groups, streams and connections other than to the
//     topology server {1, 1}, link events (type 2), names on SOCK_SEQPACKET sockets: nothing of the bus uses
//     them; EOPNOTSUPP.
//   - Topology time-outs are late by less than the kernel's: a millisecond, not an eighth.
//   - A queue holds 256 MiB of data whatever SO_RCVBUFFORCE asks for.
//   - SO_RCVBUFFORCE is refused to all but root, without a look at single capabilities.
//   - fork() without exec: the child must not use the sockets; its copies keep the names of a dead parent
//     published, but not those of a socket that the parent closes.
//   - The file of a queue is 257 MiB long, though nearly empty: under a smaller RLIMIT_FSIZE the signal
//     SIGXFSZ ends the process in socket().
//   - All processes of a fabric share one PID namespace, and /proc is mounted there.
//   - mlockall(MCL_FUTURE) would make every queue resident at its full size.
//   - Without a fabric: socket() and bind() fail with ECONNREFUSED (ENOENT where no directory is named), with
//     one line on standard error, and sends with EHOSTUNREACH.
#include "qel_port.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <linux/tipc.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/eventfd.h>

#include "qel_port_local_ctl.h"

constexpr int local_fds_max = 65536;
constexpr uint32_t local_polls_blind = 32; // poll() calls answered from the queues alone
constexpr int local_poll_stack = 64;
constexpr uint32_t local_reserved_types = 64;
constexpr uint64_t local_trim_step = 4u << 20; // bytes through a queue that make it worth trimming
constexpr int local_idle_ms = 1000;
constexpr int local_reconnect_ms = 100;

static constinit std::atomic<qel_local_socket *> g_sockets[local_fds_max];

static qel_local_socket *socket_of(int fd) {
    if (fd < 0 || fd >= local_fds_max)
        return nullptr;
    return g_sockets[fd].load(std::memory_order_acquire);
}
static qel_local_socket *socket_or_errno(int fd) {
    qel_local_socket *s = socket_of(fd);
    if (!s)
        errno = fcntl(fd, F_GETFD) < 0 ? EBADF : ENOTSOCK;
    return s;
}
static int fail(int error) {
    errno = error;
    return -1;
}

static uint64_t now_ms() {
    timespec t{};
    (void)clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<uint64_t>(t.tv_sec) * 1000 + static_cast<uint64_t>(t.tv_nsec) / 1'000'000;
}

// ---- socket, close --------------------------------------------------------------------------------------

static int local_socket(int domain, int type, int protocol) {
    const int kind = type & ~(SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (domain != AF_TIPC)
        return fail(EAFNOSUPPORT);
    if (protocol != 0)
        return fail(EPROTONOSUPPORT);
    if (kind != SOCK_RDM && kind != SOCK_SEQPACKET)
        return fail(EPROTOTYPE);
    const int error = qel_local_connect();
    if (error)
        return fail(error);
    qel_fd fd(kind == SOCK_RDM
                  ? eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)
                  : ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | (type & SOCK_NONBLOCK), 0));
    if (!fd)
        return -1;
    if (fd.fd >= local_fds_max)
        return fail(EMFILE);
    auto *s = qel_new<qel_local_socket>();
    s->fd = fd.fd;
    s->topology = kind == SOCK_SEQPACKET;
    s->nonblocking.store((type & SOCK_NONBLOCK) != 0, std::memory_order_relaxed);
    if (!s->topology) {
        s->queue_fd = qel_lq_create_file();
        const int failed = s->queue_fd < 0 ? errno : qel_local_enroll(*s);
        if (failed) {
            if (s->queue_fd >= 0)
                ::close(s->queue_fd);
            qel_delete(s);
            return fail(failed);
        }
        s->trim_at = local_trim_step;
    }
    g_sockets[fd.fd].store(s, std::memory_order_release);
    return fd.release();
}

static int local_close(int fd) {
    qel_local_socket *s = socket_of(fd);
    if (!s)
        return ::close(fd);
    g_sockets[fd].store(nullptr, std::memory_order_release);
    if (!s->topology) {
        qel_local_dismiss(*s);
        ::close(s->queue_fd);
    }
    qel_delete(s);
    return ::close(fd);
}

// ---- addresses ------------------------------------------------------------------------------------------

// As the kernel judges one.
static bool read_address(const sockaddr *addr, socklen_t len, sockaddr_tipc &out) {
    if (!addr || len < sizeof out)
        return false;
    memcpy(&out, addr, sizeof out);
    if (out.family != AF_TIPC)
        return false;
    if (out.addrtype == TIPC_SERVICE_ADDR || out.addrtype == TIPC_SOCKET_ADDR)
        return true;
    return out.addrtype == TIPC_SERVICE_RANGE && out.addr.nameseq.lower <= out.addr.nameseq.upper;
}

static int local_bind(int fd, const sockaddr *addr, socklen_t len) {
    qel_local_socket *s = socket_or_errno(fd);
    if (!s)
        return -1;
    if (s->topology)
        return fail(EOPNOTSUPP);
    int error = 0;
    if (len == 0) {
        error = qel_local_unbind(*s, 0, 0, 0, 0);
        return error ? fail(error) : 0;
    }
    sockaddr_tipc a;
    if (!read_address(addr, len, a))
        return fail(EINVAL);
    if (a.addrtype == TIPC_SOCKET_ADDR)
        return fail(EAFNOSUPPORT);
    if (a.addr.nameseq.type < local_reserved_types)
        return fail(EACCES);
    const uint32_t lower = a.addr.nameseq.lower;
    const uint32_t upper = a.addrtype == TIPC_SERVICE_ADDR ? lower : a.addr.nameseq.upper;
    const int scope = a.scope < 0 ? -a.scope : a.scope;
    if (a.scope < 0)
        error = qel_local_unbind(*s, a.addr.nameseq.type, lower, upper, scope);
    else
        error = qel_local_bind(*s, a.addr.nameseq.type, lower, upper,
                               scope == TIPC_NODE_SCOPE ? TIPC_NODE_SCOPE : TIPC_CLUSTER_SCOPE);
    return error ? fail(error) : 0;
}

// The topology server is the only thing to connect to; on a datagram socket it sets where send() goes.
static int local_connect(int fd, const sockaddr *addr, socklen_t len) {
    qel_local_socket *s = socket_or_errno(fd);
    if (!s)
        return -1;
    sockaddr_tipc a;
    if (!read_address(addr, len, a))
        return fail(EINVAL);
    if (!s->topology) {
        s->peer = a;
        return 0;
    }
    if (s->connected.load(std::memory_order_relaxed))
        return fail(EISCONN);
    if (a.addrtype != TIPC_SERVICE_ADDR)
        return fail(EINVAL);
    if (a.addr.name.name.type != TIPC_TOP_SRV)
        return fail(a.addr.name.name.type < local_reserved_types ? EHOSTUNREACH : EOPNOTSUPP);
    if (a.addr.name.name.instance != TIPC_TOP_SRV)
        return fail(EHOSTUNREACH);
    // A connected socket takes the descriptor's place.
    qel_fd made(qel_fabric_connect(qel_fabric_kind::topology, qel_local_node()));
    if (!made)
        return fail(errno == ENOENT ? ECONNREFUSED : errno);
    std::byte raw[sizeof(qel_fabric_reply) + 1];
    size_t none = 0;
    const ssize_t got = qel_fabric_recv(made.fd, raw, sizeof raw, nullptr, 0, none, 0);
    qel_fabric_reply reply{};
    if (got <= 0 || !qel_fabric_decode(std::span(raw, static_cast<size_t>(got)), reply))
        return fail(ECONNREFUSED);
    if (reply.error)
        return fail(reply.error);
    const timeval forever = {0, 0};
    (void)setsockopt(made.fd, SOL_SOCKET, SO_RCVTIMEO, &forever, sizeof forever);
    (void)setsockopt(made.fd, SOL_SOCKET, SO_SNDTIMEO, &forever, sizeof forever);
    const int fd_flags = fcntl(fd, F_GETFD);
    if (s->nonblocking.load(std::memory_order_relaxed))
        (void)fcntl(made.fd, F_SETFL, O_NONBLOCK);
    if (dup3(made.fd, fd, fd_flags & FD_CLOEXEC ? O_CLOEXEC : 0) < 0)
        return -1;
    s->connected.store(true, std::memory_order_release);
    return 0;
}

// ---- options --------------------------------------------------------------------------------------------

static int local_setsockopt(int fd, int level, int option, const void *value, socklen_t len) {
    qel_local_socket *s = socket_or_errno(fd);
    if (!s)
        return -1;
    int32_t number = 0;
    if (level != SOL_TIPC && level != SOL_SOCKET)
        return s->topology ? ::setsockopt(fd, level, option, value, len) : fail(ENOPROTOOPT);
    if (!value || len < sizeof number)
        return fail(EINVAL);
    memcpy(&number, value, sizeof number);
    if (level == SOL_TIPC) {
        switch (option) {
        case TIPC_IMPORTANCE:
            if (number > TIPC_CRITICAL_IMPORTANCE)
                return fail(EINVAL);
            s->importance.store(number, std::memory_order_relaxed);
            return 0;
        case TIPC_SRC_DROPPABLE:
            s->src_droppable.store((number & 1) != 0, std::memory_order_relaxed); // the kernel keeps one bit
            return 0;
        case TIPC_DEST_DROPPABLE:
            s->dest_droppable.store((number & 1) != 0, std::memory_order_relaxed);
            return 0;
        case TIPC_CONN_TIMEOUT:
            return 0;
        default:
            return fail(EINVAL);
        }
    }
    if (s->topology)
        return ::setsockopt(fd, level, option, value, len);
    // The kernel doubles what is asked for; without force it stays below net.core.rmem_max.
    uint64_t bytes = number < 0 ? 0 : static_cast<uint64_t>(number);
    switch (option) {
    case SO_RCVBUFFORCE:
        if (geteuid() != 0)
            return fail(EPERM);
        break;
    case SO_RCVBUF:
        if (bytes > 212'992)
            bytes = 212'992;
        break;
    default:
        return fail(ENOPROTOOPT);
    }
    bytes = bytes > INT32_MAX / 2 ? INT32_MAX / 2 * 2 : bytes * 2;
    bytes = bytes < 2304 ? 2304 : bytes;
    s->rcvbuf.store(bytes, std::memory_order_relaxed);
    qel_lq_set_rcvbuf(s->target->q, bytes);
    return 0;
}

static int local_getsockopt(int fd, int level, int option, void *value, socklen_t *len) {
    qel_local_socket *s = socket_or_errno(fd);
    if (!s)
        return -1;
    if (!value || !len)
        return fail(EFAULT);
    int32_t number = 0;
    if (level == SOL_SOCKET && !s->topology) {
        switch (option) {
        case SO_TYPE:
            number = SOCK_RDM;
            break;
        case SO_RCVBUF:
            number = static_cast<int32_t>(s->rcvbuf.load(std::memory_order_relaxed));
            break;
        case SO_ERROR:
            break;
        default:
            return fail(ENOPROTOOPT);
        }
    } else if (level == SOL_TIPC) {
        switch (option) {
        case TIPC_IMPORTANCE:
            number = s->importance.load(std::memory_order_relaxed);
            break;
        case TIPC_SRC_DROPPABLE:
            number = s->src_droppable.load(std::memory_order_relaxed);
            break;
        case TIPC_DEST_DROPPABLE:
            number = s->dest_droppable.load(std::memory_order_relaxed);
            break;
        default:
            return fail(EINVAL);
        }
    } else {
        return s->topology ? ::getsockopt(fd, level, option, value, len) : fail(ENOPROTOOPT);
    }
    const socklen_t room = *len < sizeof number ? *len : static_cast<socklen_t>(sizeof number);
    memcpy(value, &number, room);
    *len = room;
    return 0;
}

// ---- sending --------------------------------------------------------------------------------------------

static bool lose_this_return() {
    const uint32_t every = qel_local_page()->lose_return.load(std::memory_order_relaxed);
    if (__builtin_expect(every == 0, 1))
        return false;
    static constinit std::atomic<uint32_t> count{0};
    return (count.fetch_add(1, std::memory_order_relaxed) + 1) % every == 0;
}

// A message that could not be delivered goes back to its sender's own queue.
static void return_to_self(qel_local_socket &s, const qel_lq_meta &sent, uint8_t code, uint32_t ref,
                           uint32_t node, const void *data) {
    if (sent.droppable || lose_this_return())
        return;
    qel_lq_meta meta = sent;
    meta.size = sent.size < qel_lq_returned_max ? sent.size : qel_lq_returned_max;
    meta.src_ref = ref;
    meta.src_node = node;
    meta.importance = 4;
    meta.code = code;
    meta.droppable = true;
    // A queue that holds 32 MB of returned messages takes no more: they vanish, as in the kernel.
    if (qel_lq_write(s.target->q, meta, data, qel_lq_patience::bounded) == qel_lq_put::ok)
        qel_local_target_wake(*s.target);
}

static void sleep_ms(uint32_t ms) { qel_sleep_us(static_cast<uint64_t>(ms) * 1000); }

static ssize_t send_datagram(qel_local_socket &s, const void *data, size_t len, int flags,
                             const sockaddr_tipc &to) {
    const bool wait = !(flags & MSG_DONTWAIT) && !s.nonblocking.load(std::memory_order_relaxed);
    const bool named = to.addrtype == TIPC_SERVICE_ADDR;
    const int32_t importance = s.importance.load(std::memory_order_relaxed);
    const qel_lq_meta meta = {
        .size = static_cast<uint32_t>(len),
        .src_ref = s.ref.load(std::memory_order_relaxed),
        .src_node = s.node,
        .name_type = named ? to.addr.name.name.type : 0,
        .name_instance = named ? to.addr.name.name.instance : 0,
        .importance = static_cast<uint8_t>(importance < 0 ? 0 : importance),
        .code = 0,
        .droppable = s.dest_droppable.load(std::memory_order_relaxed),
        .named = named,
    };
    const uint32_t dest_node = to.addr.id.node ? to.addr.id.node : s.node; // of a socket address
    for (int attempt = 0; attempt < 4;) {
        qel_local_where where;
        uint32_t wait_ms = 0;
        const int error = named ? qel_local_resolve(to.addr.name.name.type, to.addr.name.name.instance,
                                                    to.addr.name.domain, attempt > 0, where, wait_ms)
                                : qel_local_locate(to.addr.id.ref, dest_node, attempt > 0, where, wait_ms);
        if (error == EAGAIN) { // congested link
            if (s.src_droppable.load(std::memory_order_relaxed))
                return static_cast<ssize_t>(len);
            if (!wait)
                return fail(EAGAIN);
            sleep_ms(wait_ms < 10 ? wait_ms + 1 : 10);
            continue;
        }
        if (error == ENOENT) { // a port number that nobody has any more
            return_to_self(s, meta, TIPC_ERR_NO_PORT, to.addr.id.ref, dest_node, data);
            return static_cast<ssize_t>(len);
        }
        if (error)
            return fail(EHOSTUNREACH);
        if (importance < 0) // the kernel takes this option value; what is sent with it reaches nobody
            return static_cast<ssize_t>(len);
        qel_local_target &t = *where.target;
        if (!qel_local_target_begin(t, where.ref)) {
            attempt++;
            continue;
        }
        const qel_lq_put put = qel_lq_write(t.q, meta, data, qel_lq_patience::bounded);
        const uint32_t node = t.node.load(std::memory_order_relaxed);
        const bool ahead = put == qel_lq_put::ok && qel_lq_far_ahead(t.q);
        if (put == qel_lq_put::ok || put == qel_lq_put::broken)
            qel_local_target_wake(t); // the owner of a broken queue has to start it anew
        qel_local_target_end(t);
        switch (put) {
        case qel_lq_put::ok:
            if (ahead)
                (void)qel_give_way();
            return static_cast<ssize_t>(len);
        case qel_lq_put::full:
        case qel_lq_put::broken:
            return_to_self(s, meta, TIPC_ERR_OVERLOAD, where.ref, node, data);
            return static_cast<ssize_t>(len);
        case qel_lq_put::closed:
            attempt++; // the fabric withdrew its names before it closed the queue: look again
            continue;
        case qel_lq_put::busy:
            return fail(wait ? EHOSTUNREACH : EAGAIN);
        }
    }
    return fail(EHOSTUNREACH);
}

static ssize_t local_send(int fd, const void *data, size_t len, int flags);

static ssize_t local_sendto(int fd, const void *data, size_t len, int flags, const sockaddr *to,
                            socklen_t to_len) {
    qel_local_socket *s = socket_or_errno(fd);
    if (!s)
        return -1;
    if (s->topology || !to)
        return local_send(fd, data, len, flags);
    if (len > TIPC_MAX_USER_MSG_SIZE)
        return fail(EMSGSIZE);
    sockaddr_tipc a;
    if (!read_address(to, to_len, a))
        return fail(EINVAL);
    if (a.addrtype == TIPC_SERVICE_RANGE)
        return fail(EOPNOTSUPP);
    return send_datagram(*s, data, len, flags, a);
}

static ssize_t local_send(int fd, const void *data, size_t len, int flags) {
    qel_local_socket *s = socket_or_errno(fd);
    if (!s)
        return -1;
    if (!s->topology) {
        if (len > TIPC_MAX_USER_MSG_SIZE)
            return fail(EMSGSIZE);
        if (s->peer.family != AF_TIPC)
            return fail(EDESTADDRREQ);
        return send_datagram(*s, data, len, flags, s->peer);
    }
    if (!s->connected.load(std::memory_order_acquire))
        return fail(ENOTCONN);
    if (s->shut.load(std::memory_order_relaxed))
        return fail(EPIPE);
    const ssize_t sent = ::send(fd, data, len, flags | MSG_NOSIGNAL);
    if (sent < 0 && (errno == ECONNRESET || errno == ENOTCONN))
        errno = EPIPE;
    return sent;
}

// ---- receiving ------------------------------------------------------------------------------------------

// One control record, cut and flagged as the kernel's put_cmsg does it.
static void put_control(msghdr &msg, size_t &used, int type, const void *data, size_t bytes) {
    const size_t room = msg.msg_controllen - used;
    if (!msg.msg_control || room < sizeof(cmsghdr)) {
        msg.msg_flags |= MSG_CTRUNC;
        return;
    }
    size_t len = CMSG_LEN(bytes);
    if (room < len) {
        msg.msg_flags |= MSG_CTRUNC;
        len = room;
    }
    cmsghdr header{};
    header.cmsg_len = len;
    header.cmsg_level = SOL_TIPC;
    header.cmsg_type = type;
    auto *at = static_cast<unsigned char *>(msg.msg_control) + used;
    memcpy(at, &header, sizeof header);
    memcpy(at + CMSG_LEN(0), data, len - CMSG_LEN(0));
    const size_t space = CMSG_SPACE(bytes);
    used += space < room ? space : room;
}

// Takes the record at the head. -1 with EIO: the queue is broken and was started anew.
static ssize_t take_record(qel_local_socket &s, const qel_lq_meta &meta, msghdr &msg, size_t room,
                           int flags) {
    const qel_lq &q = s.target->q;
    qel_lq_reader &r = s.reader;
    unsigned char returned[qel_lq_returned_max];
    size_t result = 0;
    bool good = true;
    msg.msg_flags = 0;
    if (meta.code == 0) {
        result = meta.size;
        if (result > room) {
            result = room;
            msg.msg_flags |= MSG_TRUNC;
        }
        good = qel_lq_copy(q, r, msg.msg_iov, msg.msg_iovlen, result);
    } else {
        const iovec to = {returned, sizeof returned};
        good = qel_lq_copy(q, r, &to, 1, meta.size);
    }
    if (good && !(flags & MSG_PEEK))
        good = qel_lq_consume(q, r, meta);
    if (!good) {
        qel_lq_restart(q, r, s.rcvbuf.load(std::memory_order_relaxed));
        return fail(EIO);
    }
    if (msg.msg_name) {
        sockaddr_tipc from{};
        from.family = AF_TIPC;
        from.addrtype = TIPC_SOCKET_ADDR;
        from.addr.id = {meta.src_ref, meta.src_node};
        memcpy(msg.msg_name, &from, msg.msg_namelen < sizeof from ? msg.msg_namelen : sizeof from);
        msg.msg_namelen = sizeof from;
    }
    size_t used = 0;
    if (msg.msg_controllen > 0) {
        if (meta.code) {
            const uint32_t info[2] = {meta.code, meta.size};
            put_control(msg, used, TIPC_ERRINFO, info, sizeof info);
            if (meta.size > 0)
                put_control(msg, used, TIPC_RETDATA, returned, meta.size);
        }
        if (meta.named) {
            const uint32_t name[3] = {meta.name_type, meta.name_instance, meta.name_instance};
            put_control(msg, used, TIPC_DESTNAME, name, sizeof name);
        }
        msg.msg_controllen = used;
    }
    return static_cast<ssize_t>(result);
}

static int poll_sleeping(pollfd *fds, nfds_t count, int timeout_ms);

static ssize_t receive_datagram(qel_local_socket &s, msghdr &msg, int flags) {
    size_t room = 0;
    for (size_t i = 0; i < msg.msg_iovlen; i++)
        room += msg.msg_iov[i].iov_len;
    if (room == 0)
        return fail(EINVAL);
    const bool wait = !(flags & MSG_DONTWAIT) && !s.nonblocking.load(std::memory_order_relaxed);
    for (;;) {
        qel_lq_meta meta;
        // Closed while its owner lives: what was in it has gone back to the senders.
        switch (qel_lq_is_closed(s.target->q) ? qel_lq_get::broken
                                              : qel_lq_peek(s.target->q, s.reader, meta)) {
        case qel_lq_get::record:
            if (meta.size == 0 && meta.code == 0) { // the kernel throws these away here
                if (!qel_lq_consume(s.target->q, s.reader, meta)) {
                    qel_lq_restart(s.target->q, s.reader, s.rcvbuf.load(std::memory_order_relaxed));
                    return fail(EIO);
                }
                continue;
            }
            return take_record(s, meta, msg, room, flags);
        case qel_lq_get::broken:
            qel_lq_restart(s.target->q, s.reader, s.rcvbuf.load(std::memory_order_relaxed));
            return fail(EIO);
        case qel_lq_get::empty:
            if (!wait)
                return fail(EAGAIN);
            pollfd self = {s.fd, POLLIN, 0};
            if (poll_sleeping(&self, 1, -1) < 0)
                return -1;
            break;
        }
    }
}

// After the end of the connection was reported once, there is nothing to read, for ever.
static ssize_t receive_event(qel_local_socket &s, int flags, ssize_t (*receive)(void *), void *context) {
    const bool wait = !(flags & MSG_DONTWAIT) && !s.nonblocking.load(std::memory_order_relaxed);
    if (!s.connected.load(std::memory_order_acquire))
        return fail(ENOTCONN);
    if (s.shut.load(std::memory_order_relaxed))
        return fail(wait ? ENOTCONN : EAGAIN);
    while (s.ended.load(std::memory_order_relaxed)) {
        if (!wait)
            return fail(EAGAIN);
        if (::poll(nullptr, 0, 100) < 0)
            return -1;
        if (s.shut.load(std::memory_order_relaxed))
            return fail(ENOTCONN);
    }
    ssize_t got = receive(context);
    if (got < 0 && errno == ECONNRESET)
        got = 0;
    if (got == 0) {
        if (s.shut.load(std::memory_order_relaxed))
            return fail(ENOTCONN);
        s.ended.store(true, std::memory_order_relaxed);
    }
    return got;
}

static ssize_t local_recvmsg(int fd, msghdr *msg, int flags) {
    qel_local_socket *s = socket_or_errno(fd);
    if (!s)
        return -1;
    if (!msg)
        return fail(EFAULT);
    if (!s->topology)
        return receive_datagram(*s, *msg, flags);
    struct context {
        int fd;
        msghdr *msg;
        int flags;
    } c = {fd, msg, flags};
    return receive_event(
        *s, flags,
        [](void *p) {
            const auto &x = *static_cast<context *>(p);
            return ::recvmsg(x.fd, x.msg, x.flags);
        },
        &c);
}

static ssize_t local_recv(int fd, void *data, size_t len, int flags) {
    iovec iov = {data, len};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    return local_recvmsg(fd, &msg, flags);
}

// ---- poll -----------------------------------------------------------------------------------------------

static short queue_events(qel_local_socket &s, short wanted) {
    short events = static_cast<short>(wanted & (POLLOUT | POLLWRNORM));
    if ((wanted & (POLLIN | POLLRDNORM)) &&
        (qel_lq_readable(s.target->q, s.reader) || qel_lq_is_closed(s.target->q)))
        events = static_cast<short>(events | (wanted & (POLLIN | POLLRDNORM)));
    return events;
}

struct poll_scan {
    int ready = 0;
    nfds_t others = 0;                 // descriptors that only the kernel can tell about
    qel_local_socket *first = nullptr; // the first datagram socket
};

static poll_scan scan_queues(pollfd *fds, nfds_t count) {
    poll_scan scan;
    for (nfds_t i = 0; i < count; i++) {
        qel_local_socket *s = socket_of(fds[i].fd);
        if (s && !s->topology) {
            if (!scan.first)
                scan.first = s;
            fds[i].revents = queue_events(*s, fds[i].events);
            scan.ready += fds[i].revents != 0;
        } else {
            scan.others += fds[i].fd >= 0;
        }
    }
    return scan;
}

// A topology connection that the fabric dropped says so in the kernel's words.
static void adapt_events(pollfd &p) {
    const qel_local_socket *s = socket_of(p.fd);
    if (s && s->topology && (p.revents & (POLLHUP | POLLERR)))
        p.revents = static_cast<short>((p.revents & ~POLLERR) | (p.events & POLLIN) | POLLHUP);
}

// Asks the kernel about the descriptors that are not queues, without waiting. Returns how many are ready.
static int look_at_others(pollfd *fds, nfds_t count) {
    int ready = 0;
    for (nfds_t i = 0; i < count; i++) {
        const qel_local_socket *s = socket_of(fds[i].fd);
        if (s && !s->topology)
            continue;
        fds[i].revents = 0;
        if (fds[i].fd < 0)
            continue;
        (void)::poll(&fds[i], 1, 0);
        adapt_events(fds[i]);
        ready += fds[i].revents != 0;
    }
    return ready;
}

static void empty_eventfd(int fd) {
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t got = ::read(fd, &count, sizeof count);
}

static void sleep_begin(pollfd *fds, nfds_t count) {
    for (nfds_t i = 0; i < count; i++) {
        qel_local_socket *s = socket_of(fds[i].fd);
        if (s && !s->topology && (fds[i].events & (POLLIN | POLLRDNORM)))
            qel_lq_sleep_begin(s->target->q, s->reader);
    }
}
static void sleep_end(pollfd *fds, nfds_t count) {
    for (nfds_t i = 0; i < count; i++) {
        qel_local_socket *s = socket_of(fds[i].fd);
        if (s && !s->topology && (fds[i].events & (POLLIN | POLLRDNORM)))
            qel_lq_sleep_end(s->target->q, s->reader);
    }
}
// Memory that a burst left behind, once nothing came for a second.
static void trim_idle(pollfd *fds, nfds_t count) {
    for (nfds_t i = 0; i < count; i++) {
        qel_local_socket *s = socket_of(fds[i].fd);
        if (s && !s->topology && s->reader.freed >= s->trim_at) {
            s->trim_at = s->reader.freed + local_trim_step;
            qel_lq_trim(s->target->q);
        }
    }
}

// What to remember of the fabric's event count after the other descriptors were looked at: as long as one of
// them has something, the next call must look again, for there may be more than one event to read.
static uint32_t events_after_look(uint32_t count_before, int others_ready) {
    return others_ready > 0 ? count_before - 1 : count_before;
}

// The whole of poll(), with the kernel. At the end, whatever the kernel reported, the queues are looked at
// again: a message that came before an event is never reported after it.
static int poll_sleeping(pollfd *fds, nfds_t count, int timeout_ms) {
    const uint64_t begin = timeout_ms > 0 ? now_ms() : 0;
    pollfd on_stack[local_poll_stack];
    pollfd *real = on_stack;
    if (count + 1 > local_poll_stack)
        real = static_cast<pollfd *>(qel_zalloc((count + 1) * sizeof(pollfd)));
    int result = 0;
    for (;;) {
        int left = timeout_ms;
        if (timeout_ms > 0) {
            const uint64_t passed = now_ms() - begin;
            left = passed >= static_cast<uint64_t>(timeout_ms) ? 0 : timeout_ms - static_cast<int>(passed);
        }
        const bool last = left == 0;
        if (!last)
            sleep_begin(fds, count);
        const int control = qel_local_control_fd();
        const poll_scan before = scan_queues(fds, count);
        // Without a fabric: whether there is one again. With it: who wakes this reader goes by shared memory,
        // which anybody may have spoilt.
        const int look_again_ms = control < 0 ? local_reconnect_ms : local_idle_ms;
        if (before.ready > 0)
            left = 0;
        else if (before.first && (left < 0 || left > look_again_ms))
            left = look_again_ms;
        for (nfds_t i = 0; i < count; i++) {
            const qel_local_socket *s = socket_of(fds[i].fd);
            const bool queue = s && !s->topology;
            real[i] = fds[i];
            real[i].revents = 0;
            if (queue)
                real[i].events = static_cast<short>(fds[i].events & POLLIN ? POLLIN : 0);
        }
        real[count] = {control, 0, 0};
        const uint32_t events =
            before.first ? qel_local_page()->event_count.load(std::memory_order_acquire) : 0;
        const int got = ::poll(real, count + 1, left);
        const int error = errno;
        if (!last)
            sleep_end(fds, count);
        if (before.first && (control < 0 || (got > 0 && real[count].revents)))
            qel_local_check_connection();
        if (got < 0) {
            errno = error;
            result = -1;
            break;
        }
        if (got == 0 && left >= local_idle_ms)
            trim_idle(fds, count);
        result = 0;
        for (nfds_t i = 0; i < count; i++) {
            const qel_local_socket *s = socket_of(fds[i].fd);
            if (s && !s->topology) {
                if (real[i].revents & POLLIN)
                    empty_eventfd(fds[i].fd);
                continue;
            }
            fds[i].revents = fds[i].fd < 0 ? static_cast<short>(0) : real[i].revents;
            adapt_events(fds[i]);
            result += fds[i].revents != 0;
        }
        if (before.first)
            before.first->events_seen = events_after_look(events, result);
        result += scan_queues(fds, count).ready;
        if (result > 0 || last)
            break;
    }
    if (real != on_stack)
        free(real);
    return result;
}

static int local_poll(pollfd *fds, nfds_t count, int timeout_ms) {
    poll_scan scan = scan_queues(fds, count);
    if (scan.ready == 0 && scan.first && timeout_ms != 0) {
        qel_short_wait wait(scan.first->last_wait_ns);
        if (!wait.until([&] {
                scan = scan_queues(fds, count);
                return scan.ready > 0;
            }))
            return poll_sleeping(fds, count, timeout_ms);
    }
    if (scan.ready > 0) {
        if (scan.others == 0) {
            for (nfds_t i = 0; i < count; i++)
                if (fds[i].fd < 0)
                    fds[i].revents = 0;
            return scan.ready;
        }
        qel_local_socket &s = *scan.first;
        const uint32_t events = qel_local_page()->event_count.load(std::memory_order_acquire);
        if (++s.polls % local_polls_blind != 0 && events == s.events_seen) {
            for (nfds_t i = 0; i < count; i++) {
                const qel_local_socket *other = socket_of(fds[i].fd);
                if (!other || other->topology)
                    fds[i].revents = 0;
            }
            return scan.ready;
        }
        if (qel_local_control_fd() >= 0) {
            const int others = look_at_others(fds, count);
            s.events_seen = events_after_look(events, others);
            return others + scan_queues(fds, count).ready;
        }
    }
    return poll_sleeping(fds, count, timeout_ms);
}

// ---- the rest -------------------------------------------------------------------------------------------

static int local_shutdown(int fd, int how) {
    qel_local_socket *s = socket_or_errno(fd);
    if (!s)
        return -1;
    if (how != SHUT_RDWR)
        return fail(EINVAL);
    if (!s->topology || !s->connected.load(std::memory_order_acquire))
        return fail(ENOTCONN);
    s->shut.store(true, std::memory_order_relaxed);
    (void)::shutdown(fd, SHUT_RDWR);
    return 0;
}

// The eventfd under a datagram socket never blocks; whether the socket does is kept beside it.
static int local_fcntl(int fd, int cmd, long arg) {
    qel_local_socket *s = socket_of(fd);
    if (s && (cmd == F_SETFL || cmd == F_GETFL)) {
        if (cmd == F_SETFL)
            s->nonblocking.store((arg & O_NONBLOCK) != 0, std::memory_order_relaxed);
        if (!s->topology)
            return cmd == F_SETFL
                       ? 0
                       : O_RDWR | (s->nonblocking.load(std::memory_order_relaxed) ? O_NONBLOCK : 0);
    }
    return ::fcntl(fd, cmd, arg);
}

constinit const qel_port g_qel_port_local = {
    .name = "local",
    .socket = local_socket,
    .bind = local_bind,
    .connect = local_connect,
    .setsockopt = local_setsockopt,
    .getsockopt = local_getsockopt,
    .sendto = local_sendto,
    .send = local_send,
    .recvmsg = local_recvmsg,
    .recv = local_recv,
    .poll = local_poll,
    .shutdown = local_shutdown,
    .close = local_close,
    .fcntl = local_fcntl,
};
