// A transport that fails on demand: it wraps any qel_port and makes chosen calls fail, send short, or deliver
// datagrams that nobody sent. For tests of everything that stands on the port:
//
//     qel_port_set(qel_faulty::wrap(&g_qel_port_local));      // before the first use of the port
//     qel_faulty::fail(qel_faulty::call::bind, ENOMEM, 1, 3); // the next three bind() fail, then it works
//     qel_faulty::inject(fd, qel_faulty::returned(4, bytes, 2303, 0x50001));
//
// Without an inner transport (wrap(nullptr)) every call succeeds and does nothing, a socket is an eventfd and
// nothing arrives but what is injected; with the record of the sent datagrams that is enough to drive a
// module alone, without a fabric and without the kernel's TIPC.
//
// There is one wrapper per process, as the table has no room for a context. All functions: any thread.
#ifndef QEL_PORT_FAULTY_H
#define QEL_PORT_FAULTY_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <linux/tipc.h>
#include <string>
#include <vector>

#include "qel_port.h"

namespace qel_faulty {

enum class call {
    socket,
    bind,
    connect,
    setsockopt,
    getsockopt,
    sendto,
    send,
    recvmsg,
    recv,
    poll,
    shutdown,
    close,
    fcntl,
};
inline constexpr size_t call_count = 13;
inline constexpr unsigned for_ever = 0; // as @times

// Forgets every fault, injected datagram, hook and record, and gives the table that wraps @inner. @inner must
// outlive the last call; null stands for a transport in which all calls succeed.
const qel_port *wrap(const qel_port *inner);
// The same without changing the inner transport.
void reset();

// The @nth call of @which from now on (1 = the next one) and the @times - 1 after it give -1 with @err,
// without reaching the inner transport; a failing close() closes nevertheless, as on Linux.
void fail(call which, int err, unsigned nth = 1, unsigned times = 1);
// The @nth call from now on counted over all calls but poll() and close() fails with @err: for "fail the n-th
// call, n = 1, 2, ... until it succeeds". Returns nothing; any_failed() tells whether it came to it.
void fail_any(unsigned nth, int err);
bool any_failed();

// As fail(), for sendto and send: only the first @bytes are sent, and @bytes is the result.
void short_send(call which, size_t bytes, unsigned nth = 1, unsigned times = 1);

// Runs @run once, on the calling thread and with nothing locked, just before the @nth call of @which.
void before(call which, unsigned nth, std::function<void()> run);

// A received datagram as recvmsg() shows it.
struct control {
    int level = SOL_TIPC;
    int type = 0;
    std::vector<uint8_t> data;
};
struct datagram {
    std::vector<uint8_t> data;     // empty for one that came back
    sockaddr_tipc from{};          // msg_name
    std::vector<control> controls; // in this order
    int flags = 0;                 // added to msg_flags; MSG_TRUNC and MSG_CTRUNC come by themselves
    int err = 0;                   // not 0: recvmsg() fails with it instead
};
// A normal datagram sent to the name {type, lower, upper}.
datagram normal(const std::vector<uint8_t> &data, uint32_t type, uint32_t lower, uint32_t upper);
// A datagram of this process that came back with @code; @data is cut to 1024 bytes.
datagram returned(uint32_t code, const std::vector<uint8_t> &data, uint32_t type, uint32_t instance);
// recvmsg() on @fd gives @in before anything of the inner transport, poll() reports POLLIN until then, also a
// poll() that waits already.
void inject(int fd, datagram in);
// The same for recv(): @data is one record of the stream of topology events; empty: the end of the
// connection, which stays (poll() then reports POLLIN and POLLHUP).
void inject_recv(int fd, std::vector<uint8_t> data);

// How often @which was called since wrap() or reset(), failed calls included.
unsigned calls(call which);

// What went through sendto (with its destination) and send (with none) and succeeded, oldest first.
struct sent {
    int fd = -1;
    std::vector<uint8_t> data;
    int flags = 0;
    bool has_to = false;
    sockaddr_tipc to{};
};
std::vector<sent> take_sent();

} // namespace qel_faulty

#endif
