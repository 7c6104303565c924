// The transport by itself, without the bus: what the figures of the performance test are held against. It
// speaks through the same calls as the bus, so QEL_TRANSPORT chooses what is measured.
//
//   bench_raw serve NODE                      answers under the name of NODE until it is killed
//   bench_raw measure NODE SIZE SENDS CALLS   one line of JSON: messages and round trips per second
//
// A receiver that falls behind loses messages, so the sender lets some 1,000 be under way, as the bus does:
// one in 256 is acknowledged. The clock stops at the last acknowledgement.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <linux/tipc.h>
#include <vector>

#include "qel_port.h"
#include "qel_user_proxy.h"

namespace {

constexpr uint32_t name_type = 2399; // beside the one of the bus
constexpr uint64_t batch = 256, batches_under_way = 4;
constexpr size_t size_max = 66000;
enum kind : uint32_t { data, data_ack, ack, call, reply };

[[noreturn]] void fail(const char *what) {
    fprintf(stderr, "bench_raw: %s: %s\n", what, strerror(errno));
    exit(1);
}

double now_s() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

struct endpoint {
    const qel_port &port = qel_port_get();
    int fd = -1;
    sockaddr_tipc from{};
    std::vector<char> in = std::vector<char>(size_max);

    endpoint() {
        fd = port.socket(AF_TIPC, SOCK_RDM, 0);
        const int importance = 3, keep = 0, room = 96 << 20;
        if (fd < 0 || port.setsockopt(fd, SOL_TIPC, TIPC_IMPORTANCE, &importance, sizeof importance) != 0 ||
            port.setsockopt(fd, SOL_TIPC, TIPC_DEST_DROPPABLE, &keep, sizeof keep) != 0)
            fail("socket");
        (void)port.setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room); // as the bus: if it may
    }
    void send(const void *bytes, size_t len, const sockaddr_tipc &to) const {
        if (port.sendto(fd, bytes, len, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to) !=
            static_cast<ssize_t>(len))
            fail("send");
    }
    // One message: its length, @from its sender.
    size_t receive() {
        alignas(cmsghdr) char control[2048];
        for (;;) {
            iovec vec{in.data(), in.size()};
            msghdr head{};
            head.msg_name = &from;
            head.msg_namelen = sizeof from;
            head.msg_iov = &vec;
            head.msg_iovlen = 1;
            head.msg_control = control;
            head.msg_controllen = sizeof control;
            const ssize_t len = port.recvmsg(fd, &head, MSG_DONTWAIT);
            if (len >= static_cast<ssize_t>(sizeof(uint32_t)))
                return static_cast<size_t>(len);
            if (len >= 0) {
                errno = ENOBUFS;
                fail("a message came back");
            }
            pollfd entry{fd, POLLIN, 0};
            if (errno != EINTR && (errno != EAGAIN || (port.poll(&entry, 1, -1) < 0 && errno != EINTR)))
                fail("receive");
        }
    }
    kind received() const {
        uint32_t word;
        memcpy(&word, in.data(), sizeof word);
        return static_cast<kind>(word);
    }
};

void set_kind(std::vector<char> &message, kind k) {
    const uint32_t word = k;
    memcpy(message.data(), &word, sizeof word);
}

void serve(uint32_t node) {
    endpoint e;
    const sockaddr_tipc name = qel_name_addr(name_type, node);
    if (e.port.bind(e.fd, reinterpret_cast<const sockaddr *>(&name), sizeof name) != 0)
        fail("bind");
    puts("serving");
    fflush(stdout);
    std::vector<char> short_one(sizeof(uint32_t));
    set_kind(short_one, ack);
    for (;;) {
        const size_t len = e.receive();
        const kind k = e.received();
        if (k == data_ack)
            e.send(short_one.data(), short_one.size(), e.from);
        else if (k == call) {
            set_kind(e.in, reply);
            e.send(e.in.data(), len, e.from);
        }
    }
}

void wait_for(endpoint &e, kind k) {
    (void)e.receive();
    if (e.received() != k)
        fail("an answer of another kind");
}

void measure(uint32_t node, size_t size, uint64_t sends, uint64_t calls) {
    endpoint e;
    const sockaddr_tipc to = qel_name_addr(name_type, node);
    std::vector<char> message(std::max(size, sizeof(uint32_t)), 'x');
    uint64_t batches = 0;
    const double start = now_s();
    for (uint64_t i = 1; i <= sends; i++) {
        const bool last = i % batch == 0 || i == sends;
        set_kind(message, last ? data_ack : data);
        e.send(message.data(), message.size(), to);
        if (last && ++batches > batches_under_way) {
            wait_for(e, ack);
            batches--;
        }
    }
    for (; batches > 0; batches--)
        wait_for(e, ack);
    const double sent = now_s();
    set_kind(message, call);
    for (uint64_t i = 0; i < calls; i++) {
        e.send(message.data(), message.size(), to);
        wait_for(e, reply);
    }
    printf("{\"sends_per_s\": %.0f, \"calls_per_s\": %.0f}\n", static_cast<double>(sends) / (sent - start),
           static_cast<double>(calls) / (now_s() - sent));
}

} // namespace

int main(int argc, char **argv) {
    const auto number = [&](int i) { return strtoull(argv[i], nullptr, 10); };
    if (argc == 3 && !strcmp(argv[1], "serve"))
        serve(static_cast<uint32_t>(number(2)));
    else if (argc == 6 && !strcmp(argv[1], "measure") && number(4) > 0 && number(5) > 0)
        measure(static_cast<uint32_t>(number(2)), number(3), number(4), number(5));
    else {
        fputs("usage: bench_raw serve NODE | measure NODE SIZE SENDS CALLS\n", stderr);
        return 2;
    }
    return 0;
}
