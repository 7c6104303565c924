// A process's side of the fabric: the control connection, the sockets enrolled over it, the queues of others
// that are mapped here, and the cache of names.
//
// Sending asks nobody: a cached name is good while the fabric page's generation for it stands, and a mapped
// queue may be used between qel_local_target_begin() and _end(). Everything else takes the one mutex of the
// control connection, over which one request is outstanding at a time. No thread waits for the fabric to say
// something by itself, because it never does: only the end of the connection matters, and poll() watches
// that.
#ifndef QEL_PORT_LOCAL_CTL_H
#define QEL_PORT_LOCAL_CTL_H

#include <atomic>
#include <cstdint>
#include <linux/tipc.h>

#include "qel_base.h"
#include "qel_fabric_proto.h"
#include "qel_port_local_queue.h"

// A queue that this process can write to: another socket's, or one of its own. Records are never freed, only
// used again, so a stale pointer is harmless.
struct qel_local_target {
    enum : uint32_t { unused, live, dying };
    std::atomic<uint32_t> state{unused};
    std::atomic<uint32_t> users{0};
    std::atomic<uint32_t> ref{0};
    std::atomic<uint32_t> recent{0}; // used since it was last looked at for eviction
    std::atomic<uint64_t> woken{0};  // the sleep number under which this process woke the reader
    std::atomic<uint32_t> node{0};
    qel_lq q;
    int event_fd = -1;
    bool own = false; // a socket of this process, which owns the descriptor
    qel_hash_hook by_ref{};
    uint32_t index = 0;
};

// A published name, to be published again if the fabric is started anew.
struct qel_local_name {
    qel_link link{};
    uint32_t type = 0, lower = 0, upper = 0;
    int32_t scope = 0;
};

struct qel_local_socket {
    int fd = -1;
    bool topology = false;

    // Datagram sockets. The descriptor is the eventfd on which the reader sleeps.
    qel_link link{}; // on the list of enrolled sockets
    int queue_fd = -1;
    std::atomic<uint32_t> ref{0};
    uint32_t node = 0;
    qel_local_target *target = nullptr;
    qel_list<qel_local_name, offsetof(qel_local_name, link)> names; // guarded by the control mutex
    std::atomic<int32_t> importance{0};
    std::atomic<uint64_t> rcvbuf{2u << 20}; // the kernel's default
    std::atomic<bool> src_droppable{false}, dest_droppable{true}, nonblocking{false};
    sockaddr_tipc peer{}; // of connect(); family 0: none

    // The receiving thread's.
    qel_lq_reader reader;
    std::atomic<uint64_t> last_wait_ns{0};
    uint32_t polls = 0;       // since the other descriptors were looked at
    uint32_t events_seen = 0; // the page's event_count then
    uint64_t trim_at = 0;     // cost consumed beyond which an idle queue is worth trimming

    // Topology sockets.
    std::atomic<bool> connected{false}, ended{false}, shut{false};
};

// Connects, if that is not so. 0 or an errno value; on the first failure of an outage one line on standard
// error says what to do. Tries at most ten times a second.
int qel_local_connect() noexcept;
// The connection's descriptor for poll() with no events asked for: POLLHUP means it ended. -1: none.
int qel_local_control_fd() noexcept;
// To be called when that descriptor reported anything, and ten times a second while there is none.
void qel_local_check_connection() noexcept;
// This process's TIPC node address, 0 when none is set.
uint32_t qel_local_node() noexcept;
// The fabric page. Never null after the first connection.
const qel_fabric_page *qel_local_page() noexcept;

// All give 0 or an errno value.
int qel_local_enroll(qel_local_socket &s) noexcept; // takes s.fd, s.queue_fd; makes s.target, s.ref
void qel_local_dismiss(qel_local_socket &s) noexcept;
int qel_local_bind(qel_local_socket &s, uint32_t type, uint32_t lower, uint32_t upper,
                   int32_t scope) noexcept;
// Scope 0: every name.
int qel_local_unbind(qel_local_socket &s, uint32_t type, uint32_t lower, uint32_t upper,
                     int32_t scope) noexcept;

// Where a name or a port number leads.
struct qel_local_where {
    qel_local_target *target = nullptr;
    uint32_t ref = 0; // what the target must still be when it is begun
};
// 0 and a target; EHOSTUNREACH; EAGAIN: the link there is congested, ask again in @wait_ms. The target is to
// be begun before it is used, which fails when it is gone meanwhile: then ask @anew, past the cache.
int qel_local_resolve(uint32_t type, uint32_t instance, uint32_t domain, bool anew, qel_local_where &where,
                      uint32_t &wait_ms) noexcept;
// The same for a port number; ENOENT: the node is there, the port is not.
int qel_local_locate(uint32_t ref, uint32_t node, bool anew, qel_local_where &where,
                     uint32_t &wait_ms) noexcept;

inline bool qel_local_target_begin(qel_local_target &t, uint32_t ref) noexcept {
    t.users.fetch_add(1, std::memory_order_seq_cst); // partner: whoever sets `dying` looks at users after it
    if (t.state.load(std::memory_order_seq_cst) == qel_local_target::live &&
        t.ref.load(std::memory_order_relaxed) == ref) {
        if (t.recent.load(std::memory_order_relaxed) == 0)
            t.recent.store(1, std::memory_order_relaxed);
        return true;
    }
    t.users.fetch_sub(1, std::memory_order_release);
    return false;
}
inline void qel_local_target_end(qel_local_target &t) noexcept {
    t.users.fetch_sub(1, std::memory_order_release);
}
// Wakes the reader of a begun target if it sleeps.
void qel_local_target_wake(qel_local_target &t) noexcept;

#endif
