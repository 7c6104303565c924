// Plain-words access to a transport for its contract tests: sockets, received datagrams, topology events.
#ifndef PORT_SOCK_H
#define PORT_SOCK_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <linux/tipc.h>
#include <string>
#include <vector>

#include "qel_port.h"

namespace port_test {

using bytes = std::vector<uint8_t>;
using steady = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Anything that must happen happens within this time, on a busy host too.
inline constexpr int patience_ms = 20000;
inline constexpr size_t datagram_bytes_max = 66000;
// The largest datagram of the bus: its header and 65,536 bytes.
inline constexpr size_t bus_datagram_bytes_max = 65572;
// The control records of a datagram that came back: 8, 1024 and 12 bytes with their heads.
inline constexpr size_t control_bytes_max = 24 + 1040 + 32;

sockaddr_tipc name_address(uint32_t type, uint32_t instance);
sockaddr_tipc range_address(uint32_t type, uint32_t lower, uint32_t upper);

// @size bytes that start with @tag, as far as it fits, and depend on both everywhere.
bytes payload(uint32_t tag, size_t size);
// The tag of such a payload; payload(tag_of(b), b.size()) == b proves the rest.
uint32_t tag_of(const bytes &data);

struct control {
    int level;
    int type;
    size_t cmsg_len;
    bytes data;
    uint32_t word(size_t index) const; // of the data
};

struct received {
    ssize_t ret = -1;
    int err = 0; // with ret -1
    int flags = 0;
    bytes data;
    sockaddr_tipc from{};
    socklen_t from_len = 0;
    size_t control_len = 0; // used space
    std::vector<control> controls;

    bool ok() const { return ret >= 0; }
    const control *find(int type) const;
    // The code of TIPC_ERRINFO; 0: it did not come back.
    uint32_t returned_code() const;
};

// A descriptor of @port, closed at the end.
class sock {
  public:
    sock(const qel_port &port, int type);
    sock(sock &&other) noexcept;
    sock &operator=(sock &&other) noexcept;
    ~sock();

    int fd() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    void close();

    // 0, or the errno of the call.
    int bind(uint32_t type, uint32_t lower, uint32_t upper, int scope = TIPC_CLUSTER_SCOPE);
    int bind(uint32_t type, uint32_t instance) { return bind(type, instance, instance); }
    int connect(uint32_t type, uint32_t instance);
    int set(int level, int option, uint32_t value);
    int get(int level, int option, uint32_t &value);
    int return_undeliverable() { return set(SOL_TIPC, TIPC_DEST_DROPPABLE, 0); }

    // The size, or minus the errno of the call.
    ssize_t send(const bytes &data, const sockaddr_tipc &to, int flags = 0);
    ssize_t send(const bytes &data, uint32_t type, uint32_t instance, int flags = 0) {
        return send(data, name_address(type, instance), flags);
    }
    // Of a connected socket.
    ssize_t write(const void *data, size_t size, int flags = 0);

    // What poll() says within @timeout_ms; 0 after that.
    int readable(int timeout_ms = 0);
    // With the room given, without waiting.
    received take(size_t data_room = datagram_bytes_max + 1, size_t control_room = control_bytes_max + 64);
    // The next one; ret -1 with ETIME after @timeout_ms.
    received next(int timeout_ms = patience_ms);

  protected:
    const qel_port *port_;
    int fd_;
};

inline constexpr uint32_t wait_for_ever = 0xffffffffu;

tipc_subscr subscription(uint32_t type, uint32_t lower, uint32_t upper, uint32_t timeout_ms = wait_for_ever,
                         uint32_t filter = TIPC_SUB_SERVICE, const char *handle = "");
// All five numbers in network byte order.
tipc_subscr swapped(tipc_subscr s);

// A connection to the topology server. Failures to connect are failures of the test.
class topology : public sock {
  public:
    explicit topology(const qel_port &port);
    bool subscribe(const tipc_subscr &s);
    bool cancel(tipc_subscr s) {
        s.filter |= TIPC_SUB_CANCEL;
        return subscribe(s);
    }
    // True and the next event; false after @timeout_ms or with the end of the connection.
    bool next(tipc_event &event, int timeout_ms = patience_ms);
    // The events that are there, until none comes for as long as it takes the server to answer a question.
    std::vector<tipc_event> settled();
    // True if it closed the connection within @timeout_ms.
    bool dropped(int timeout_ms = patience_ms);
};

// "P[5,5]", "W[0,9]", "T[1,1]": what an event says.
std::string text(const tipc_event &event);
std::vector<std::string> texts(const std::vector<tipc_event> &events);

} // namespace port_test

#endif
