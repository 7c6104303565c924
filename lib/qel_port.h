// The transport port: the socket calls through which the whole bus talks, and nothing else.
//
// The bus speaks to TIPC with twelve calls. They are gathered in one table so that two transports stand
// behind them: the kernel's TIPC (the calls themselves) and the local transport (any number of simulated
// nodes on one host, no kernel module, no root). A third could be written from this page alone.
//
// What a transport promises (the reliable-datagram part, socket type SOCK_RDM):
//   - socket(AF_TIPC, SOCK_RDM, 0) gives a descriptor that poll() and close() of this table accept; it is
//     sent from and received on without being bound. SOL_TIPC options: TIPC_IMPORTANCE 0..3 (4 and up
//     EINVAL; 0 by default), TIPC_SRC_DROPPABLE and TIPC_DEST_DROPPABLE (0 or 1; defaults 0 and 1).
//     SOL_SOCKET options: SO_TYPE (get), SO_RCVBUFFORCE (set; EPERM where the process may not).
//   - bind() publishes a TIPC name {type, lower..upper} of cluster scope; any number of sockets may publish
//     the same name, a socket may publish several. Types below 64 are EACCES, lower > upper EINVAL.
//   - sendto() takes a TIPC_ADDR_NAME (domain 0) or a TIPC_ADDR_ID (a socket address as recvmsg gave it).
//     Nobody publishes the name: -1, EHOSTUNREACH, at once. Several publishers: round robin. More than
//     66,000 bytes: EMSGSIZE. A full receiver never blocks the sender. Messages of one sender to one
//     receiver arrive in the order of sending.
//   - recvmsg() gives one message. A normal one: its length, msg_name the sender's socket address, one
//     control record TIPC_DESTNAME {type, lower, upper}. One that came back to its sender (destination
//     droppable off): result 0 and the control records TIPC_ERRINFO {code, size}, TIPC_RETDATA (the first
//     1024 bytes at most), TIPC_DESTNAME, in this order; code 4 where the receiver's queue was full, 2 where
//     the receiver closed or died with the message unread. Sizes of a too small buffer: MSG_TRUNC,
//     MSG_CTRUNC, the rest is lost. MSG_DONTWAIT with nothing to read: EAGAIN.
//   - close() and the death of the process in any way withdraw the names at once; unread messages go back
//     to their senders before the withdrawal is announced.
// The topology server (socket type SOCK_SEQPACKET):
//   - connect() to the name {1, 1}; then send() of one 28-byte struct tipc_subscr is a subscription (host or
//     network byte order) and each recv() one 48-byte struct tipc_event. Filters 1, 2 and, added, 4 (cancel
//     of an exactly equal record). A malformed subscription closes the connection: poll says
//     POLLIN | POLLHUP, recv gives 0, send EPIPE.
//
// Results and errno are those of the system call of the same name. All functions: any thread, no lock
// needed, none held while they call out (they call nothing back). A descriptor belongs to the caller until
// close(); two threads may send on one descriptor at a time, one thread receives on it. Descriptors of this
// table are passed to this table's functions only; they are not dup()ed and not kept over fork().
#ifndef QEL_PORT_H
#define QEL_PORT_H

#include <poll.h>
#include <sys/socket.h>
#include <sys/types.h>

#ifndef AF_TIPC
#define AF_TIPC 30
#endif
#ifndef SOL_TIPC
#define SOL_TIPC 271
#endif

struct qel_port {
    const char *name; // as QEL_TRANSPORT names it
    int (*socket)(int domain, int type, int protocol);
    int (*bind)(int fd, const sockaddr *addr, socklen_t len);
    int (*connect)(int fd, const sockaddr *addr, socklen_t len);
    int (*setsockopt)(int fd, int level, int option, const void *value, socklen_t len);
    int (*getsockopt)(int fd, int level, int option, void *value, socklen_t *len);
    ssize_t (*sendto)(int fd, const void *data, size_t len, int flags, const sockaddr *to, socklen_t to_len);
    ssize_t (*send)(int fd, const void *data, size_t len, int flags);
    ssize_t (*recvmsg)(int fd, msghdr *msg, int flags);
    ssize_t (*recv)(int fd, void *data, size_t len, int flags);
    int (*poll)(pollfd *fds, nfds_t count, int timeout_ms);
    int (*shutdown)(int fd, int how);
    int (*close)(int fd);
    // F_SETFD and the like on a descriptor of this table; the kernel's fcntl fits every transport whose
    // descriptors are real ones.
    int (*fcntl)(int fd, int cmd, long arg);
};

extern const qel_port g_qel_port_kernel;
extern const qel_port g_qel_port_local;

// The transport of this process. The first call chooses it by the environment variable QEL_TRANSPORT
// ("kernel", also when unset; "local"); any other value prints one line on standard error and gives a
// transport whose socket() fails with EPROTONOSUPPORT. Any thread.
const qel_port &qel_port_get() noexcept;

// Replaces the transport: for tests, before the first use.
void qel_port_set(const qel_port *port) noexcept;

#endif
