// A transport with nobody behind it: what arrives is what the test queues, and what the library does is on
// record. It waits in the virtual time of qel_fake_time.h, so time-outs of poll() and timers of the
// topology server pass when the test moves the clock. (Without qel_time::install() only the poll()s of what
// is queued return.)
//
// Descriptors are real ones (eventfds), so F_SETFD and close() are the system's. All functions: any thread.
#ifndef QEL_FAKE_PORT_H
#define QEL_FAKE_PORT_H

#include <cstdint>
#include <functional>
#include <linux/tipc.h>
#include <string>
#include <vector>

#include "qel_port.h"

namespace qel_fake {

using bytes = std::vector<uint8_t>;

// Puts this transport in force, empty, and returns it.
const qel_port *install();

// ---- what was called ------------------------------------------------------------------------------------
enum class op {
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
inline constexpr size_t op_count = 13;

// One call; which fields mean something depends on what was called.
struct call {
    op what = op::socket;
    int fd = -1;
    long result = 0;
    int err = 0;                    // errno of a failed call
    int domain = 0, type = 0;       // socket
    int level = 0, option = 0;      // setsockopt, getsockopt
    int64_t value = 0;              // setsockopt: an int; fcntl: the argument
    int cmd = 0;                    // fcntl
    int flags = 0;                  // sendto, send
    sockaddr_tipc addr{};           // bind, connect, sendto
    bytes data;                     // sendto, send: all the bytes that were given
    int64_t at_ms = 0;              // virtual time
    uint32_t app() const noexcept;  // of the name in addr: the application
    uint32_t node() const noexcept; // and the node
};
// All calls since install() or the last take_calls() in their order, except poll and those that read.
std::vector<call> calls();
std::vector<call> take_calls();
std::vector<call> calls(op what);
// Datagrams (sendto) that succeeded and were not taken yet, oldest first.
std::vector<call> take_sent();
unsigned count(op what); // since install(), failed calls and polls included

// ---- faults ---------------------------------------------------------------------------------------------
inline constexpr unsigned for_ever = 0; // as @times
// The @nth call of @what from now on and the @times - 1 after it fail with @err.
void fail(op what, int err, unsigned nth = 1, unsigned times = 1);
// The next @times datagrams to application @app on @node fail with @err.
void fail_to(uint32_t app, uint32_t node, int err, unsigned times = 1);
// The @nth sendto or send from now on takes only @count bytes; with an @err that it leaves in errno.
void short_send(size_t count, unsigned nth = 1, int err = 0);
// Setting this option fails with @err from now on (0: works again).
void fail_option(int level, int option, int err);
// Runs on the thread of each datagram that is sent, before it is recorded, nothing locked.
void on_sendto(std::function<void(const call &)> hook);

// ---- what arrives ---------------------------------------------------------------------------------------
struct control {
    int level = SOL_TIPC;
    int type = 0;
    bytes data;
};
struct datagram {
    bytes data; // empty with controls: one that came back
    std::vector<control> controls;
    bytes raw_controls; // behind the controls: bytes as they are, whole records or not
    sockaddr_tipc from{};
    int err = 0;        // recvmsg() fails with it
    bool ghost = false; // poll says readable, recvmsg has nothing (a datagram of no length)
    int flags = 0;      // added to msg_flags
};
void push(int fd, datagram in);
// A datagram that was sent to application @app on @node.
void push(int fd, const bytes &data, uint32_t app, uint32_t node);
// One that this socket sent to application @app on @node and that came back with @code.
void push_returned(int fd, uint32_t code, const bytes &data, uint32_t app, uint32_t node);
// What recv() gives: one record; an error; the end of the connection, which stays.
void push_recv(int fd, const bytes &record);
void push_recv_error(int fd, int err);
void push_recv_end(int fd);
// poll() gives -1 and @err once, also one that waits.
void push_poll_error(int err);

// ---- the topology server --------------------------------------------------------------------------------
// The open socket connected to it last, or -1.
int topology();
// Subscriptions in force on topology(), oldest first; cancelled ones are gone.
std::vector<tipc_subscr> subscriptions();
// Tells every matching subscription, those that come later included.
void publish(uint32_t app, uint32_t node);
void withdraw(uint32_t app, uint32_t node);
// An event about a range, once, to each matching subscription in force now.
void range_event(uint32_t event, uint32_t lower, uint32_t upper);
// Subscriptions with a time-out (the library's timers) end by the virtual clock; off: by end_timer() only.
void automatic_timers(bool on);
// Ends the oldest timer with this handle now. False when there is none.
bool end_timer(uint32_t type, uint32_t seq);
// Milliseconds, type and sequence of each timer in force, oldest first.
struct timer {
    uint32_t ms, type, seq;
    int64_t left_ms;
};
std::vector<timer> timers();

// ---- waiting --------------------------------------------------------------------------------------------
// Waits until everything queued on sockets that are polled was read and a thread waits in poll(). False
// after ten seconds of real time.
bool wait_until_idle();
// The same, and every thread of the library is blocked: proxy threads have worked off their queues.
bool settle();

} // namespace qel_fake

#endif
