// What processes and qel-fabric say to each other. One SOCK_SEQPACKET socket in the fabric's directory; the
// first datagram of a connection is a hello that tells its kind:
//   process   requests and replies, one at a time, in order; see the table of operations
//   topology  after the reply to the hello: struct tipc_subscr one way, struct tipc_event the other
//   control   one command line, answered by text until the connection ends
// Both ends are of one build on one host: numbers are in host order, and a hello of another version is
// refused. Both check every datagram all the same; the decoders are pure.
#ifndef QEL_FABRIC_PROTO_H
#define QEL_FABRIC_PROTO_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <sys/types.h>
#include <sys/un.h>

constexpr uint32_t qel_fabric_magic = 0x514C4642;
constexpr uint32_t qel_fabric_version = 1;
constexpr char qel_fabric_socket_name[] = "socket";
constexpr uint32_t qel_fabric_patience_s = 10; // one that does not answer for so long is as good as dead

enum class qel_fabric_kind : uint32_t { process = 1, topology = 2, control = 3 };

struct qel_fabric_hello {
    uint32_t magic, version;
    uint32_t kind; // qel_fabric_kind
    uint32_t node; // TIPC address 0x01001000..0x01001FFF, or 0: none set
    uint32_t pid;  // for humans
};
static_assert(sizeof(qel_fabric_hello) == 20);

// operation  request uses                  reply                                      descriptors
// hello      (the hello)                   error                                      process: the page
// enroll     ref (wanted, or 0)            ref                                        request: queue, eventfd
// bind       ref type lower upper scope    error
// unbind     ref type lower upper scope    error; scope 0: every name of the socket
// resolve    type lower (instance) node    error, gen, targets[count]
// locate     ref node                      error, gen, targets[0]                     reply: queue, eventfd
// close      ref                           error; sent after every unread message went back
enum class qel_fabric_op : uint32_t { hello = 0, enroll, bind, unbind, resolve, locate, close };
constexpr uint32_t qel_fabric_op_last = static_cast<uint32_t>(qel_fabric_op::close);

struct qel_fabric_request {
    uint32_t op; // qel_fabric_op
    uint32_t number;
    uint32_t ref, node; // resolve: the lookup domain, 0 for any
    uint32_t type, lower, upper;
    int32_t scope; // 2 cluster, 3 node
};
static_assert(sizeof(qel_fabric_request) == 32);

struct qel_fabric_target {
    uint32_t ref, node;
};
constexpr uint32_t qel_fabric_targets_max = 4; // of one reply; a name with more is resolved at every send

constexpr uint32_t qel_fabric_flag_once = 1; // resolve: valid for one send only

struct qel_fabric_reply {
    uint32_t op, number; // of the request
    int32_t error;       // 0 or an errno value
    uint32_t ref;        // enroll; resolve with error EAGAIN (congested): milliseconds left
    uint32_t gen;        // resolve, locate: valid while the page's generation is this
    uint32_t flags;
    uint32_t count;
    uint32_t zero;
    qel_fabric_target targets[qel_fabric_targets_max];
};
static_assert(sizeof(qel_fabric_reply) == 64);

inline bool qel_fabric_node_valid(uint32_t node) noexcept {
    return node == 0 || (node & 0xFFFFF000u) == 0x01001000u;
}

// Decoders: false for anything that is not exactly one well-formed datagram of its kind.
inline bool qel_fabric_decode(std::span<const std::byte> in, qel_fabric_hello &out) noexcept {
    if (in.size() != sizeof out)
        return false;
    memcpy(&out, in.data(), sizeof out);
    return out.magic == qel_fabric_magic && out.version == qel_fabric_version && out.kind >= 1 &&
           out.kind <= 3 && qel_fabric_node_valid(out.node);
}
inline bool qel_fabric_decode(std::span<const std::byte> in, qel_fabric_request &out) noexcept {
    if (in.size() != sizeof out)
        return false;
    memcpy(&out, in.data(), sizeof out);
    return out.op >= 1 && out.op <= qel_fabric_op_last;
}
inline bool qel_fabric_decode(std::span<const std::byte> in, qel_fabric_reply &out) noexcept {
    if (in.size() != sizeof out)
        return false;
    memcpy(&out, in.data(), sizeof out);
    return out.op <= qel_fabric_op_last && out.error >= 0 && out.error < 4096 &&
           out.count <= qel_fabric_targets_max && out.zero == 0;
}

// ---- the fabric page: written by the fabric, read by everybody ------------------------------------------

constexpr uint32_t qel_fabric_gens = 1024;

struct qel_fabric_page {
    uint32_t magic, version;
    std::atomic<uint32_t> lose_return; // every n-th returned message is lost; 0: none
    alignas(
        64) std::atomic<uint32_t> event_count; // raised whenever anything is sent on a topology connection
    alignas(64) std::atomic<uint32_t> gens[qel_fabric_gens];
};
static_assert(sizeof(qel_fabric_page) <= 8192);
constexpr size_t qel_fabric_page_bytes = 8192;

// The generation that a name (or, with type 0xFFFFFFFF, a port number) belongs to.
inline uint32_t qel_fabric_gen_index(uint32_t type, uint32_t instance) noexcept {
    const uint64_t key = (static_cast<uint64_t>(type) << 32 | instance) * 0x9E3779B97F4A7C15u;
    return static_cast<uint32_t>(key >> 54);
}
static_assert(qel_fabric_gens == 1024, "the index has ten bits");
constexpr uint32_t qel_fabric_gen_type_port = 0xFFFFFFFF;

// ---- what both ends share -------------------------------------------------------------------------------

constexpr size_t qel_fabric_dir_max = 4096;

// The fabric's directory: $QEL_FABRIC, else qel-fabric below $XDG_RUNTIME_DIR. False: neither is set, or too
// long.
bool qel_fabric_dir(char (&path)[qel_fabric_dir_max]) noexcept;

// The address of the socket in the open directory @dir_fd at @path, which may be longer than an address
// holds. Valid while @dir_fd stays open.
void qel_fabric_address(sockaddr_un &address, const char *path, int dir_fd) noexcept;

// A connection to the fabric of this process's environment, the hello already sent; sending and receiving on
// it give up (EAGAIN) after qel_fabric_patience_s. -1 and errno: ENOENT no directory is named; ECONNREFUSED
// no fabric serves it; EAGAIN it takes no connections; EPERM it belongs to another user.
int qel_fabric_connect(qel_fabric_kind kind, uint32_t node) noexcept;

// One datagram with descriptors. Results as those of sendmsg and recvmsg; no signal, EINTR is retried.
// Received descriptors are close-on-exec; more than @fd_max, or a cut datagram, are EPROTO and close all.
ssize_t qel_fabric_send(int fd, const void *data, size_t bytes, const int *fds, size_t fd_count,
                        int flags) noexcept;
ssize_t qel_fabric_recv(int fd, void *data, size_t bytes, int *fds, size_t fd_max, size_t &fd_count,
                        int flags) noexcept;

#endif
