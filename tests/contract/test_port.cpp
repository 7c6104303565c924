// What every transport promises (lib/qel_port.h), one body for all of them.
//
// The kernel's TIPC is the truth: what stands here was measured on it. The local transport passes the same
// cases on this host; the kernel's run in a user-mode-linux guest with two nodes, this program on node 1
// (tests/kernel). Every case uses name types of its own, so that all of them can run in one process one after
// the other.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "port_fabric.h"
#include "port_peer.h"
#include "port_sock.h"

namespace {

using namespace port_test;

constexpr uint32_t address_of_node_0 = 0x01001000;
constexpr uint32_t unused_types = 20000; // above all the system's own

std::string str(uint32_t n) { return std::to_string(n); }
using strings = std::vector<std::string>;

// A parameter that shows itself by its name.
struct transport {
    const qel_port *port;
    friend std::ostream &operator<<(std::ostream &out, const transport &t) { return out << t.port->name; }
};

struct port_contract : testing::TestWithParam<transport> {
    const qel_port &port = *GetParam().port;
    const uint32_t type = next_type();

    static uint32_t next_type() {
        static std::atomic<uint32_t> last{unused_types};
        return ++last;
    }

    void SetUp() override {
        if (&port == &g_qel_port_local) {
            ASSERT_EQ(local_fabric::get().trouble(), "");
        }
        int fd = port.socket(AF_TIPC, SOCK_RDM, 0);
        ASSERT_GE(fd, 0) << port.name << ": " << strerror(errno)
                         << " (these cases run in a guest: tests/kernel)";
        ASSERT_EQ(port.close(fd), 0);
    }

    sock rdm() { return sock(port, SOCK_RDM); }
    sock bound(uint32_t instance) {
        sock s = rdm();
        EXPECT_EQ(s.bind(type, instance), 0);
        return s;
    }
    // One that gets back what cannot be delivered.
    sock sender() {
        sock s = rdm();
        EXPECT_EQ(s.return_undeliverable(), 0);
        return s;
    }
    // The other process's socket 0, bound to @instance of this case's type.
    void serve(peer &p, uint32_t instance) {
        p.ask("rdm 0");
        p.ask("bind 0 " + str(type) + " " + str(instance) + " " + str(instance));
    }
    // Subscribes to this case's type and gives what is published already.
    strings watch(topology &t, uint32_t lower, uint32_t upper, uint32_t filter = TIPC_SUB_SERVICE) {
        t.subscribe(subscription(type, lower, upper, wait_for_ever, filter));
        return texts(t.settled());
    }
    // Waits until a name is usable from here.
    bool published(uint32_t instance) {
        topology t(port);
        t.subscribe(subscription(type, instance, instance));
        tipc_event e{};
        return t.next(e) && e.event == TIPC_PUBLISHED;
    }
    // How many datagrams of @size bytes a receiver that does not read takes before one comes back; @limit at
    // most.
    uint32_t capacity(sock &from, uint32_t instance, size_t size, uint32_t limit) {
        const bytes data = payload(0, size);
        for (uint32_t n = 0; n < limit; n++) {
            if (ssize_t ret = from.send(data, type, instance); ret != static_cast<ssize_t>(size)) {
                ADD_FAILURE() << "send " << n << ": " << ret;
                return n;
            }
            if (from.readable())
                return n;
        }
        return limit;
    }
};

std::string case_name(const testing::TestParamInfo<transport> &info) { return info.param.port->name; }

// ---- names ----------------------------------------------------------------------------------------------

TEST_P(port_contract, a_name_type_below_64_is_refused) {
    sock s = rdm();
    EXPECT_EQ(s.bind(2, 2, 2), EACCES);
    EXPECT_EQ(s.bind(63, 1, 1), EACCES);
    EXPECT_EQ(s.bind(64, 77, 77), 0);
}

TEST_P(port_contract, a_reversed_range_is_refused) {
    sock s = rdm();
    EXPECT_EQ(s.bind(type, 2, 1), EINVAL);
    EXPECT_EQ(s.bind(type, 2, 2), 0);
}

TEST_P(port_contract, messages_to_a_name_go_round_robin_over_its_binders) {
    sock a = bound(5), b = bound(5), c = bound(5), from = rdm();
    for (uint32_t i = 0; i < 30; i++)
        ASSERT_EQ(from.send(payload(i, 10), type, 5), 10);
    for (sock *s : {&a, &b, &c}) {
        std::vector<uint32_t> tags;
        for (received r = s->take(); r.ok(); r = s->take())
            tags.push_back(tag_of(r.data));
        ASSERT_EQ(tags.size(), 10u);
        for (size_t i = 1; i < tags.size(); i++)
            EXPECT_EQ(tags[i] - tags[i - 1], 3u);
    }
}

TEST_P(port_contract, a_socket_that_binds_a_name_twice_gets_two_shares) {
    sock once = bound(5), twice = bound(5), from = rdm();
    ASSERT_EQ(twice.bind(type, 5), 0);
    for (uint32_t i = 0; i < 30; i++)
        ASSERT_EQ(from.send(payload(i, 10), type, 5), 10);
    size_t got_once = 0, got_twice = 0;
    while (once.take().ok())
        got_once++;
    while (twice.take().ok())
        got_twice++;
    EXPECT_EQ(got_once, 10u);
    EXPECT_EQ(got_twice, 20u);
}

TEST_P(port_contract, a_second_process_takes_half_the_messages_of_a_name) {
    sock mine = bound(5), from = rdm();
    peer other(port);
    serve(other, 5);
    for (uint32_t i = 0; i < 40; i++)
        ASSERT_EQ(from.send(payload(i, 10), type, 5), 10);
    size_t got = 0;
    while (mine.take().ok())
        got++;
    EXPECT_EQ(got, 20u);
    EXPECT_EQ(other.numbers("drain 0 20000 20")[0], 20);
}

TEST_P(port_contract, a_socket_may_bind_several_names) {
    sock s = bound(5), from = rdm();
    const uint32_t other_type = next_type();
    ASSERT_EQ(s.bind(type, 9), 0);
    ASSERT_EQ(s.bind(other_type, 7), 0);
    EXPECT_EQ(from.send(payload(1, 10), type, 5), 10);
    EXPECT_EQ(from.send(payload(2, 10), type, 9), 10);
    EXPECT_EQ(from.send(payload(3, 10), other_type, 7), 10);
    for (uint32_t tag = 1; tag <= 3; tag++)
        EXPECT_EQ(tag_of(s.next().data), tag);
}

TEST_P(port_contract, a_bound_range_receives_for_each_of_its_instances) {
    sock s = rdm(), from = rdm();
    ASSERT_EQ(s.bind(type, 10, 20), 0);
    EXPECT_EQ(from.send(payload(1, 10), type, 9), -EHOSTUNREACH);
    EXPECT_EQ(from.send(payload(2, 10), type, 10), 10);
    EXPECT_EQ(from.send(payload(3, 10), type, 15), 10);
    EXPECT_EQ(from.send(payload(4, 10), type, 20), 10);
    EXPECT_EQ(from.send(payload(5, 10), type, 21), -EHOSTUNREACH);
    for (uint32_t tag = 2; tag <= 4; tag++)
        EXPECT_EQ(tag_of(s.next().data), tag);
}

TEST_P(port_contract, a_name_bound_while_a_thread_waits_on_the_socket_receives) {
    sock s = rdm(), from = rdm();
    received got;
    std::thread waiting([&] { got = s.next(); });
    EXPECT_EQ(s.bind(type, 5), 0);
    EXPECT_EQ(from.send(payload(9, 10), type, 5), 10);
    waiting.join();
    EXPECT_EQ(got.data, payload(9, 10));
}

TEST_P(port_contract, a_send_to_a_name_nobody_publishes_fails_at_once_and_nothing_comes_back) {
    sock s = sender();
    for (int flags : {0, static_cast<int>(MSG_DONTWAIT)}) {
        EXPECT_EQ(s.send(payload(1, 100), type, 5, flags), -EHOSTUNREACH);
        EXPECT_EQ(s.readable(50), 0);
    }
}

TEST_P(port_contract, a_send_to_a_closed_name_fails_at_once_and_nothing_comes_back) {
    sock s = sender(), to = bound(5);
    EXPECT_EQ(s.send(payload(1, 100), type, 5), 100);
    EXPECT_TRUE(to.next().ok());
    to.close();
    EXPECT_EQ(s.send(payload(2, 100), type, 5), -EHOSTUNREACH);
    EXPECT_EQ(s.readable(50), 0);
}

TEST_P(port_contract, a_name_works_again_after_it_was_withdrawn_and_published_anew) {
    sock s = rdm();
    for (uint32_t i = 0; i < 50; i++) {
        sock to = bound(5);
        ASSERT_EQ(s.send(payload(i, 20), type, 5), 20);
        ASSERT_EQ(to.next().data, payload(i, 20));
        to.close();
        ASSERT_EQ(s.send(payload(i, 20), type, 5), -EHOSTUNREACH);
    }
}

// ---- datagrams ------------------------------------------------------------------------------------------

TEST_P(port_contract, datagrams_up_to_66000_bytes_pass_in_one_piece) {
    sock s = rdm(), to = bound(5);
    for (size_t size : {size_t{1}, size_t{35}, size_t{36}, size_t{1500}, size_t{20000}, size_t{65536},
                        bus_datagram_bytes_max, datagram_bytes_max}) {
        const bytes data = payload(static_cast<uint32_t>(size), size);
        ASSERT_EQ(s.send(data, type, 5), static_cast<ssize_t>(size));
        received r = to.next();
        EXPECT_EQ(r.flags, 0) << size;
        EXPECT_TRUE(r.data == data) << size;
    }
}

TEST_P(port_contract, a_datagram_of_more_than_66000_bytes_is_refused) {
    sock s = sender(), to = bound(5);
    EXPECT_EQ(s.send(payload(1, datagram_bytes_max + 1), type, 5), -EMSGSIZE);
    EXPECT_EQ(s.send(payload(1, 100000), type, 5), -EMSGSIZE);
    EXPECT_EQ(s.send(payload(2, 10), type, 5), 10);
    EXPECT_EQ(to.next().data, payload(2, 10));
    EXPECT_EQ(to.take().err, EAGAIN);
}

TEST_P(port_contract, a_datagram_without_bytes_wakes_poll_and_is_thrown_away) {
    sock s = rdm(), to = bound(5);
    EXPECT_EQ(s.send({}, type, 5), 0);
    EXPECT_EQ(to.readable(patience_ms), POLLIN);
    EXPECT_EQ(to.take().err, EAGAIN);
    EXPECT_EQ(to.readable(), 0);
    EXPECT_EQ(s.send({}, type, 5), 0);
    EXPECT_EQ(s.send(payload(3, 10), type, 5), 10);
    EXPECT_EQ(to.next().data, payload(3, 10));
}

TEST_P(port_contract, nothing_to_read_is_eagain) {
    sock s = bound(5);
    EXPECT_EQ(s.readable(), 0);
    EXPECT_EQ(s.take().err, EAGAIN);
}

TEST_P(port_contract, a_received_datagram_shows_its_destination_name_and_its_senders_address) {
    sock s = rdm(), to = rdm();
    ASSERT_EQ(to.bind(type, 0, 1000), 0);
    ASSERT_EQ(s.send(payload(1, 100), type, 77), 100);
    received r = to.next();
    EXPECT_EQ(r.ret, 100);
    EXPECT_EQ(r.flags, 0);
    ASSERT_EQ(r.controls.size(), 1u);
    EXPECT_EQ(r.controls[0].level, SOL_TIPC);
    EXPECT_EQ(r.controls[0].type, TIPC_DESTNAME);
    EXPECT_EQ(r.controls[0].cmsg_len, 28u);
    EXPECT_EQ(r.control_len, 32u);
    EXPECT_EQ(r.controls[0].word(0), type);
    EXPECT_EQ(r.controls[0].word(1), 77u);
    EXPECT_EQ(r.controls[0].word(2), 77u);
    EXPECT_EQ(r.from_len, sizeof(sockaddr_tipc));
    EXPECT_EQ(r.from.family, AF_TIPC);
    EXPECT_EQ(r.from.addrtype, TIPC_SOCKET_ADDR);
    EXPECT_EQ(r.from.addr.id.node, address_of_node_0 + 1);
    EXPECT_NE(r.from.addr.id.ref, 0u);
}

TEST_P(port_contract, an_unbound_sender_is_answered_through_its_socket_address) {
    sock asking = rdm(), serving = bound(5);
    ASSERT_EQ(asking.send(payload(1, 10), type, 5), 10);
    received question = serving.next();
    ASSERT_TRUE(question.ok());
    EXPECT_EQ(serving.send(payload(2, 3000), question.from), 3000);
    received answer = asking.next();
    EXPECT_TRUE(answer.data == payload(2, 3000));
    EXPECT_EQ(answer.find(TIPC_DESTNAME), nullptr) << "it was sent to no name";
    EXPECT_EQ(answer.returned_code(), 0u);
    // And back again, to the address the answer came from.
    EXPECT_EQ(asking.send(payload(3, 10), answer.from), 10);
    EXPECT_EQ(serving.next().data, payload(3, 10));
}

TEST_P(port_contract, a_socket_may_send_to_itself) {
    sock s = bound(5);
    EXPECT_EQ(s.send(payload(1, 10), type, 5), 10);
    EXPECT_EQ(s.next().data, payload(1, 10));
}

TEST_P(port_contract, a_too_small_buffer_cuts_the_datagram_and_says_so) {
    sock s = rdm(), to = bound(5);
    ASSERT_EQ(s.send(payload(1, 100), type, 5), 100);
    ASSERT_EQ(s.send(payload(2, 10), type, 5), 10);
    ASSERT_EQ(to.readable(patience_ms), POLLIN);
    received r = to.take(40);
    EXPECT_EQ(r.ret, 40);
    EXPECT_EQ(r.flags, MSG_TRUNC);
    EXPECT_TRUE(std::equal(r.data.begin(), r.data.end(), payload(1, 100).begin()));
    EXPECT_EQ(to.next().data, payload(2, 10)) << "the rest of the first is lost";
}

TEST_P(port_contract, too_small_control_space_is_flagged) {
    sock s = rdm(), to = bound(5);
    ASSERT_EQ(s.send(payload(1, 100), type, 5), 100);
    ASSERT_EQ(to.readable(patience_ms), POLLIN);
    received r = to.take(200, 20);
    EXPECT_EQ(r.ret, 100);
    EXPECT_EQ(r.flags, MSG_CTRUNC);
}

TEST_P(port_contract, datagrams_of_mixed_sizes_arrive_in_order) {
    constexpr uint32_t count = 3000;
    constexpr uint32_t unread_max = 50; // of 20 KB: below any limit
    sock s = rdm(), to = bound(5);
    const auto size_of = [](uint32_t i) { return size_t{20} + (i * 7919) % 20000; };
    std::atomic<uint32_t> read{0};
    std::thread sending([&] {
        const auto deadline = steady::now() + milliseconds(3 * patience_ms);
        for (uint32_t i = 0; i < count; i++) {
            while (i >= read.load() + unread_max && steady::now() < deadline)
                std::this_thread::yield();
            if (s.send(payload(i, size_of(i)), type, 5) != static_cast<ssize_t>(size_of(i))) {
                ADD_FAILURE() << "send " << i;
                return;
            }
        }
    });
    for (uint32_t i = 0; i < count; i++) {
        received r = to.next();
        if (!r.ok() || r.data != payload(i, size_of(i))) {
            ADD_FAILURE() << "datagram " << i << ": " << strerror(r.err) << ", tag " << tag_of(r.data);
            break;
        }
        read = i + 1;
    }
    read = count; // lets a sender that waits go on after a failure
    sending.join();
}

TEST_P(port_contract, threads_may_send_on_one_descriptor_while_another_receives) {
    constexpr uint32_t threads = 4, each = 200;
    sock s = bound(5), to = bound(6), echo = rdm();
    std::vector<std::thread> all;
    std::atomic<uint32_t> failed{0};
    for (uint32_t t = 0; t < threads; t++)
        all.emplace_back([&, t] {
            for (uint32_t i = 0; i < each; i++)
                if (s.send(payload(t << 16 | i, 200), type, 6) != 200)
                    failed++;
        });
    all.emplace_back([&] { // keeps the receiving side of the descriptor busy
        for (uint32_t i = 0; i < each; i++)
            if (echo.send(payload(i, 50), type, 5) != 50)
                failed++;
    });
    uint32_t wrong = 0;
    for (uint32_t i = 0; i < each; i++)
        wrong += s.next().data != payload(i, 50);
    EXPECT_EQ(wrong, 0u);
    std::map<uint32_t, uint32_t> next;
    wrong = 0;
    for (uint32_t i = 0; i < threads * each; i++) {
        received r = to.next();
        const uint32_t tag = tag_of(r.data);
        wrong += r.data != payload(tag, 200) || (tag & 0xffff) != next[tag >> 16]++;
    }
    EXPECT_EQ(wrong, 0u) << "broken, or out of the order of its thread";
    for (std::thread &t : all)
        t.join();
    EXPECT_EQ(failed, 0u);
}

TEST_P(port_contract, messages_of_a_process_that_died_after_sending_arrive) {
    sock to = bound(5);
    peer other(port);
    other.ask("rdm 0");
    EXPECT_EQ(other.numbers("send 0 " + str(type) + " 5 500 0 100 0")[0], 100);
    other.kill();
    for (uint32_t i = 0; i < 100; i++)
        ASSERT_EQ(to.next().data, payload(i, 500));
    EXPECT_EQ(to.take().err, EAGAIN);
}

// ---- options --------------------------------------------------------------------------------------------

TEST_P(port_contract, importance_is_0_to_3) {
    sock s = rdm();
    for (uint32_t importance : {0u, 1u, 2u, 3u, ~0u})
        EXPECT_EQ(s.set(SOL_TIPC, TIPC_IMPORTANCE, importance), 0) << importance;
    for (uint32_t importance : {4u, 5u, 0x7fffffffu})
        EXPECT_EQ(s.set(SOL_TIPC, TIPC_IMPORTANCE, importance), EINVAL) << importance;
}

TEST_P(port_contract, options_have_their_defaults_and_keep_what_was_set) {
    sock s = rdm();
    const auto now = [&](int option) {
        uint32_t value = 99;
        EXPECT_EQ(s.get(SOL_TIPC, option, value), 0);
        return value;
    };
    EXPECT_EQ(now(TIPC_IMPORTANCE), 0u);
    EXPECT_EQ(now(TIPC_SRC_DROPPABLE), 0u);
    EXPECT_EQ(now(TIPC_DEST_DROPPABLE), 1u);
    EXPECT_EQ(s.set(SOL_TIPC, TIPC_IMPORTANCE, 2), 0);
    EXPECT_EQ(s.set(SOL_TIPC, TIPC_SRC_DROPPABLE, 1), 0);
    EXPECT_EQ(s.set(SOL_TIPC, TIPC_DEST_DROPPABLE, 0), 0);
    EXPECT_EQ(now(TIPC_IMPORTANCE), 2u);
    EXPECT_EQ(now(TIPC_SRC_DROPPABLE), 1u);
    EXPECT_EQ(now(TIPC_DEST_DROPPABLE), 0u);
}

TEST_P(port_contract, the_type_of_a_socket_can_be_asked) {
    sock s = rdm();
    topology t(port);
    uint32_t value = 0;
    EXPECT_EQ(s.get(SOL_SOCKET, SO_TYPE, value), 0);
    EXPECT_EQ(value, static_cast<uint32_t>(SOCK_RDM));
    EXPECT_EQ(t.get(SOL_SOCKET, SO_TYPE, value), 0);
    EXPECT_EQ(value, static_cast<uint32_t>(SOCK_SEQPACKET));
}

TEST_P(port_contract, close_on_exec_can_be_set) {
    sock s = rdm();
    topology t(port);
    for (int fd : {s.fd(), t.fd()}) {
        EXPECT_EQ(port.fcntl(fd, F_SETFD, FD_CLOEXEC), 0);
        EXPECT_EQ(port.fcntl(fd, F_GETFD, 0), FD_CLOEXEC);
    }
}

TEST_P(port_contract, the_receive_buffer_grows_where_the_process_may) {
    sock s = sender(), plain = bound(5), large = bound(6);
    const int err = large.set(SOL_SOCKET, SO_RCVBUFFORCE, 64 << 20);
    if (geteuid() != 0) {
        EXPECT_EQ(err, EPERM);
        return;
    }
    ASSERT_EQ(err, 0);
    constexpr uint32_t count = 1026, size = 16384;
    EXPECT_LT(capacity(s, 5, size, count), 100u);
    sock fresh = sender();
    EXPECT_EQ(capacity(fresh, 6, size, count), count);
    for (uint32_t i = 0; i < count; i++)
        ASSERT_EQ(large.take().ret, static_cast<ssize_t>(size)) << i;
}

TEST_P(port_contract, an_unprivileged_process_cannot_force_its_receive_buffer) {
    peer other(port);
    other.ask("rdm 0");
    if (geteuid() == 0)
        other.ask("drop 0");
    EXPECT_EQ(other.error_of("rcvbufforce 0 67108864"), EPERM);
}

// ---- full receivers and returned datagrams --------------------------------------------------------------

TEST_P(port_contract, a_receive_queue_holds_what_its_memory_allows_by_importance) {
    // On one node, with a default net.tipc.tipc_rmem; the accounting is the same on all kernels there.
    const struct {
        size_t size;
        uint32_t count[4];
    } rows[] = {
        {64, {1638, 3276, 6553, 13107}},
        {4096, {248, 496, 992, 1985}},
        {bus_datagram_bytes_max, {15, 31, 63, 127}},
    };
    for (const auto &row : rows)
        for (uint32_t importance = 0; importance < 4; importance++) {
            sock to = bound(5), from = sender();
            ASSERT_EQ(from.set(SOL_TIPC, TIPC_IMPORTANCE, importance), 0);
            const uint32_t expected = row.count[importance];
            const uint32_t got = capacity(from, 5, row.size, 2 * expected + 100);
            EXPECT_NEAR(got, expected, expected / 50 + 1) << row.size << " bytes, importance " << importance;
        }
}

TEST_P(port_contract, a_receive_queue_holds_what_its_memory_allows_at_other_sizes) {
    const struct {
        size_t size;
        uint32_t count;
    } rows[] = {{100, 1638}, {2048, 481}, {16384, 63}, {60000, 31}};
    for (const auto &row : rows) {
        sock to = bound(5), from = sender();
        EXPECT_NEAR(capacity(from, 5, row.size, 2 * row.count + 100), row.count, row.count / 50 + 1)
            << row.size;
    }
}

TEST_P(port_contract, the_limit_is_that_of_the_messages_importance_not_of_the_receivers) {
    sock to = bound(5), low = sender(), high = sender();
    ASSERT_EQ(to.set(SOL_TIPC, TIPC_IMPORTANCE, 3), 0);
    ASSERT_EQ(high.set(SOL_TIPC, TIPC_IMPORTANCE, 3), 0);
    EXPECT_NEAR(capacity(low, 5, 4096, 2000), 248u, 6);
    EXPECT_NEAR(capacity(high, 5, 4096, 4000), 1985u - 248u, 45);
}

TEST_P(port_contract, a_full_receiver_takes_again_what_it_has_read) {
    sock to = bound(5), from = sender();
    capacity(from, 5, 4096, 2000);
    EXPECT_EQ(from.next().returned_code(), 4u);
    for (int i = 0; i < 50; i++)
        ASSERT_TRUE(to.take().ok());
    EXPECT_NEAR(capacity(from, 5, 4096, 2000), 50u, 2);
}

TEST_P(port_contract, a_full_receiver_never_blocks_the_sender) {
    sock to = bound(5), from = sender();
    capacity(from, 5, 4096, 2000);
    while (from.take().ok()) {
    }
    for (int flags : {0, static_cast<int>(MSG_DONTWAIT)})
        for (uint32_t i = 0; i < 20; i++) {
            ASSERT_EQ(from.send(payload(i, 4096), type, 5, flags), 4096);
            ASSERT_EQ(from.readable(), POLLIN) << "on the same node it is back when sendto() returns";
            ASSERT_EQ(from.take().returned_code(), 4u);
        }
}

TEST_P(port_contract, droppable_datagrams_to_a_full_receiver_vanish) {
    sock to = bound(5), from = sender(), droppable = rdm();
    capacity(from, 5, 4096, 2000);
    EXPECT_EQ(droppable.send(payload(1, 4096), type, 5), 4096);
    EXPECT_EQ(droppable.readable(50), 0);
}

TEST_P(port_contract, a_returned_datagram_shows_code_data_and_name_in_this_order) {
    sock to = bound(5), from = sender();
    capacity(from, 5, 300, 4000);
    while (from.take().ok()) {
    }
    ASSERT_EQ(from.send(payload(7, 300), type, 5), 300);
    received r = from.next();
    EXPECT_EQ(r.ret, 0);
    EXPECT_EQ(r.flags, 0);
    ASSERT_EQ(r.controls.size(), 3u);
    EXPECT_EQ(r.controls[0].type, TIPC_ERRINFO);
    EXPECT_EQ(r.controls[1].type, TIPC_RETDATA);
    EXPECT_EQ(r.controls[2].type, TIPC_DESTNAME);
    EXPECT_EQ(r.controls[0].data.size(), 8u);
    EXPECT_EQ(r.controls[0].word(0), 4u);
    EXPECT_EQ(r.controls[0].word(1), 300u);
    EXPECT_TRUE(r.controls[1].data == payload(7, 300));
    EXPECT_EQ(r.controls[2].data.size(), 12u);
    EXPECT_EQ(r.controls[2].word(0), type);
    EXPECT_EQ(r.controls[2].word(1), 5u);
    EXPECT_EQ(r.controls[2].word(2), 5u);
    // msg_name is the socket that did not take it.
    EXPECT_EQ(r.from.addrtype, TIPC_SOCKET_ADDR);
    EXPECT_EQ(r.from.addr.id.node, address_of_node_0 + 1);
    while (to.take().ok()) {
    }
    EXPECT_EQ(from.send(payload(8, 10), r.from), 10);
    EXPECT_EQ(to.next().data, payload(8, 10));
}

TEST_P(port_contract, a_returned_datagram_is_cut_to_1024_bytes) {
    for (size_t size : {size_t{1}, size_t{1023}, size_t{1024}, size_t{1025}, bus_datagram_bytes_max}) {
        sock to = bound(5), from = sender();
        const bytes data = payload(3, size);
        ASSERT_EQ(from.send(data, type, 5), static_cast<ssize_t>(size));
        to.close();
        ASSERT_EQ(from.readable(patience_ms), POLLIN);
        received r = from.take(1, control_bytes_max); // exactly the space that the three records need
        EXPECT_EQ(r.ret, 0);
        EXPECT_EQ(r.flags, 0);
        ASSERT_EQ(r.controls.size(), 3u);
        const size_t kept = std::min<size_t>(size, 1024);
        EXPECT_EQ(r.controls[0].word(0), 2u);
        EXPECT_EQ(r.controls[0].word(1), kept);
        ASSERT_EQ(r.controls[1].data.size(), kept);
        EXPECT_TRUE(std::equal(r.controls[1].data.begin(), r.controls[1].data.end(), data.begin()));
    }
}

TEST_P(port_contract, a_receiver_that_closes_gives_its_unread_datagrams_back_in_order) {
    sock to = bound(5), from = sender();
    for (uint32_t i = 0; i < 100; i++)
        ASSERT_EQ(from.send(payload(i, 40), type, 5), 40);
    for (uint32_t i = 0; i < 30; i++)
        ASSERT_TRUE(to.take().ok());
    to.close();
    for (uint32_t i = 30; i < 100; i++) {
        received r = from.next();
        ASSERT_EQ(r.returned_code(), 2u) << i;
        ASSERT_EQ(r.find(TIPC_RETDATA)->data, payload(i, 40));
    }
    EXPECT_EQ(from.readable(50), 0);
}

TEST_P(port_contract, droppable_datagrams_of_a_closed_receiver_vanish) {
    sock to = bound(5), from = rdm();
    for (uint32_t i = 0; i < 10; i++)
        ASSERT_EQ(from.send(payload(i, 40), type, 5), 40);
    to.close();
    EXPECT_EQ(from.readable(50), 0);
}

TEST_P(port_contract, a_killed_process_gives_its_unread_datagrams_back_before_its_name_is_withdrawn) {
    for (int round = 0; round < 5; round++) {
        topology t(port);
        peer other(port);
        serve(other, 5);
        ASSERT_EQ(watch(t, 5, 5), strings{"P[5,5]"});
        sock from = sender();
        for (uint32_t i = 0; i < 100; i++)
            ASSERT_EQ(from.send(payload(i, 200), type, 5), 200);
        other.kill();
        tipc_event e{};
        ASSERT_TRUE(t.next(e));
        EXPECT_EQ(text(e), "W[5,5]");
        for (uint32_t i = 0; i < 100; i++) {
            received r = from.take(); // without waiting
            ASSERT_EQ(r.returned_code(), 2u) << i << ": " << strerror(r.err);
            ASSERT_EQ(r.find(TIPC_RETDATA)->data, payload(i, 200));
        }
    }
}

TEST_P(port_contract, a_process_that_ends_gives_its_unread_datagrams_back) {
    peer other(port);
    serve(other, 5);
    sock from = sender();
    for (uint32_t i = 0; i < 10; i++)
        ASSERT_EQ(from.send(payload(i, 200), type, 5), 200);
    other.quit();
    for (uint32_t i = 0; i < 10; i++)
        ASSERT_EQ(from.next().returned_code(), 2u) << i;
}

TEST_P(port_contract, returned_datagrams_mix_with_received_ones_in_the_order_of_arrival) {
    sock both = sender(), to = bound(5), from = rdm();
    ASSERT_EQ(both.bind(type, 6), 0);
    ASSERT_EQ(from.send(payload(1, 10), type, 6), 10);
    ASSERT_EQ(both.send(payload(2, 10), type, 5), 10);
    to.close();
    ASSERT_EQ(from.send(payload(3, 10), type, 6), 10);
    EXPECT_EQ(both.next().data, payload(1, 10));
    EXPECT_EQ(both.next().returned_code(), 2u);
    EXPECT_EQ(both.next().data, payload(3, 10));
}

// ---- the topology server --------------------------------------------------------------------------------

TEST_P(port_contract, the_topology_server_is_the_name_1_1) {
    sock s(port, SOCK_SEQPACKET), other(port, SOCK_SEQPACKET);
    EXPECT_EQ(s.connect(TIPC_TOP_SRV, 1), 0);
    EXPECT_EQ(other.connect(TIPC_TOP_SRV, 2), EHOSTUNREACH);
}

TEST_P(port_contract, a_name_is_announced_when_it_is_bound_and_when_it_is_closed) {
    topology t(port);
    const tipc_subscr s = subscription(type, 0, 100, wait_for_ever, TIPC_SUB_SERVICE, "handle8!");
    t.subscribe(s);
    sock from = bound(7), to = bound(200);
    ASSERT_EQ(from.send(payload(1, 10), type, 200), 10);
    const sockaddr_tipc address = to.next().from;
    tipc_event e{};
    ASSERT_TRUE(t.next(e));
    EXPECT_EQ(text(e), "P[7,7]");
    EXPECT_EQ(e.port.node, address.addr.id.node);
    EXPECT_EQ(e.port.ref, address.addr.id.ref);
    EXPECT_EQ(memcmp(&e.s, &s, sizeof(s)), 0);
    from.close();
    ASSERT_TRUE(t.next(e));
    EXPECT_EQ(text(e), "W[7,7]");
    EXPECT_EQ(e.port.ref, address.addr.id.ref);
    EXPECT_EQ(memcmp(&e.s, &s, sizeof(s)), 0);
    EXPECT_TRUE(t.settled().empty()) << "200 is outside the range";
}

TEST_P(port_contract, a_killed_process_loses_all_its_names) {
    topology t(port);
    watch(t, 0, 100);
    peer other(port);
    serve(other, 5);
    other.ask("bind 0 " + str(type) + " 6 6");
    other.ask("rdm 1");
    other.ask("bind 1 " + str(type) + " 7 9");
    EXPECT_EQ(texts(t.settled()), (strings{"P[5,5]", "P[6,6]", "P[7,9]"}));
    other.kill();
    std::set<std::string> gone;
    tipc_event e{};
    for (int i = 0; i < 3 && t.next(e); i++)
        gone.insert(text(e)); // their order is not fixed
    EXPECT_EQ(gone, (std::set<std::string>{"W[5,5]", "W[6,6]", "W[7,9]"}));
    EXPECT_TRUE(t.settled().empty());
    sock s = rdm();
    EXPECT_EQ(s.send(payload(1, 10), type, 5), -EHOSTUNREACH);
}

TEST_P(port_contract, filter_ports_reports_every_publication) {
    topology t(port);
    watch(t, 5, 5, TIPC_SUB_PORTS);
    sock a = bound(5), b = bound(5);
    EXPECT_EQ(texts(t.settled()), (strings{"P[5,5]", "P[5,5]"}));
    a.close();
    EXPECT_EQ(texts(t.settled()), strings{"W[5,5]"});
    b.close();
    EXPECT_EQ(texts(t.settled()), strings{"W[5,5]"});
}

TEST_P(port_contract, filter_service_reports_only_the_first_publication_and_the_last_withdrawal) {
    topology t(port);
    watch(t, 5, 5);
    sock a = bound(5);
    EXPECT_EQ(texts(t.settled()), strings{"P[5,5]"});
    sock b = bound(5);
    EXPECT_TRUE(t.settled().empty());
    a.close(); // b took over before: nobody hears of it
    EXPECT_TRUE(t.settled().empty());
    b.close();
    EXPECT_EQ(texts(t.settled()), strings{"W[5,5]"});
}

TEST_P(port_contract, filter_service_tells_apart_ranges_that_overlap) {
    topology t(port);
    watch(t, 0, 100);
    sock a = rdm(), b = rdm();
    ASSERT_EQ(a.bind(type, 10, 20), 0);
    ASSERT_EQ(b.bind(type, 15, 15), 0);
    EXPECT_EQ(texts(t.settled()), (strings{"P[10,20]", "P[15,15]"}));
    a.close();
    b.close();
    EXPECT_EQ(texts(t.settled()), (strings{"W[10,20]", "W[15,15]"}));
}

TEST_P(port_contract, the_found_range_is_the_publishers_not_cut_to_the_subscription) {
    sock wide = rdm();
    ASSERT_EQ(wide.bind(type, 0, 0xffffffff), 0);
    for (uint32_t filter : {TIPC_SUB_SERVICE, TIPC_SUB_PORTS}) {
        topology t(port);
        EXPECT_EQ(watch(t, 0x50000, 0x5ffff, filter), strings{"P[0,4294967295]"});
    }
}

TEST_P(port_contract, what_is_published_already_is_reported_at_once_in_the_order_of_publication) {
    sock a = bound(30), b = bound(10), c = bound(20);
    topology t(port);
    EXPECT_EQ(watch(t, 0, 100), (strings{"P[30,30]", "P[10,10]", "P[20,20]"}));
}

TEST_P(port_contract, every_subscription_gets_its_own_events) {
    topology t(port), other(port);
    watch(t, 0, 100);
    watch(t, 50, 60);
    watch(other, 55, 55);
    sock s = bound(55);
    EXPECT_EQ(t.settled().size(), 2u);
    EXPECT_EQ(other.settled().size(), 1u);
    sock outside = bound(61);
    EXPECT_EQ(t.settled().size(), 1u);
    EXPECT_TRUE(other.settled().empty());
}

TEST_P(port_contract, many_unread_events_are_neither_lost_nor_reordered) {
    constexpr uint32_t rounds = 2000;
    topology t(port);
    watch(t, 0, 0xffffffff);
    for (uint32_t i = 0; i < rounds; i++) {
        sock s = rdm();
        ASSERT_EQ(s.bind(type, i), 0);
    }
    const std::vector<tipc_event> events = t.settled();
    ASSERT_EQ(events.size(), 2 * rounds);
    for (uint32_t i = 0; i < 2 * rounds; i++) {
        ASSERT_EQ(events[i].found_lower, i / 2);
        ASSERT_EQ(events[i].event, static_cast<uint32_t>(i % 2 ? TIPC_WITHDRAWN : TIPC_PUBLISHED));
    }
}

TEST_P(port_contract, one_recv_gives_one_event_and_a_short_buffer_loses_the_rest_of_it) {
    topology t(port);
    watch(t, 0, 100);
    sock a = bound(1), b = bound(2);
    char room[480];
    ASSERT_EQ(t.readable(patience_ms), POLLIN);
    EXPECT_EQ(port.recv(t.fd(), room, 10, MSG_DONTWAIT), 10);
    ASSERT_EQ(t.readable(patience_ms), POLLIN);
    EXPECT_EQ(port.recv(t.fd(), room, sizeof(room), MSG_DONTWAIT), static_cast<ssize_t>(sizeof(tipc_event)));
    tipc_event e{};
    memcpy(&e, room, sizeof(e));
    EXPECT_EQ(text(e), "P[2,2]");
    EXPECT_EQ(port.recv(t.fd(), room, sizeof(room), MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_P(port_contract, subscriptions_in_network_byte_order_get_events_in_network_byte_order) {
    topology t(port);
    const tipc_subscr net = swapped(subscription(type, 0, 100, wait_for_ever, TIPC_SUB_SERVICE, "net"));
    t.subscribe(net);
    t.subscribe(subscription(type, 0, 100, wait_for_ever, TIPC_SUB_SERVICE, "host"));
    sock s = bound(7);
    bool seen_net = false, seen_host = false;
    for (const tipc_event &e : t.settled()) {
        if (!strcmp(e.s.usr_handle, "net")) {
            seen_net = true;
            EXPECT_EQ(memcmp(&e.s, &net, sizeof(net)), 0);
            EXPECT_EQ(e.event, __builtin_bswap32(TIPC_PUBLISHED));
            EXPECT_EQ(e.found_lower, __builtin_bswap32(7));
            EXPECT_EQ(e.found_upper, __builtin_bswap32(7));
            EXPECT_EQ(e.port.node, __builtin_bswap32(address_of_node_0 + 1));
        } else {
            seen_host = true;
            EXPECT_STREQ(e.s.usr_handle, "host");
            EXPECT_EQ(text(e), "P[7,7]");
        }
    }
    EXPECT_TRUE(seen_net);
    EXPECT_TRUE(seen_host);
}

// ---- cancelling -----------------------------------------------------------------------------------------

TEST_P(port_contract, an_equal_record_with_the_cancel_bit_ends_a_subscription) {
    topology t(port);
    const tipc_subscr s = subscription(type, 0, 100, wait_for_ever, TIPC_SUB_SERVICE, "one");
    t.subscribe(s);
    EXPECT_TRUE(t.settled().empty());
    t.cancel(s);
    EXPECT_TRUE(t.settled().empty());
    sock made = bound(7);
    EXPECT_TRUE(t.settled().empty());
}

TEST_P(port_contract, a_cancel_that_differs_in_any_byte_is_ignored) {
    topology t(port);
    const tipc_subscr s = subscription(type, 0, 100, wait_for_ever, TIPC_SUB_SERVICE, "one");
    t.subscribe(s);
    tipc_subscr other = s;
    other.timeout = 0; // a time-out of 0 does not match one of wait-for-ever
    t.cancel(other);
    other = s;
    other.usr_handle[7] = 1;
    t.cancel(other);
    other = s;
    other.seq.upper = 99;
    t.cancel(other);
    other = s;
    other.filter = TIPC_SUB_PORTS;
    t.cancel(other);
    other.filter = 0; // the cancel bit alone
    t.cancel(other);
    EXPECT_TRUE(t.settled().empty()) << "and the connection stands";
    sock made = bound(7);
    EXPECT_EQ(texts(t.settled()), strings{"P[7,7]"});
}

TEST_P(port_contract, a_cancel_removes_one_of_several_equal_subscriptions) {
    topology t(port);
    const tipc_subscr s = subscription(type, 0, 100);
    for (int i = 0; i < 3; i++)
        t.subscribe(s);
    t.cancel(s);
    EXPECT_TRUE(t.settled().empty());
    sock made = bound(7);
    EXPECT_EQ(t.settled().size(), 2u);
}

TEST_P(port_contract, a_cancelled_timer_does_not_fire) {
    topology t(port);
    const tipc_subscr s = subscription(TIPC_TOP_SRV, 0, 0, 100);
    t.subscribe(s);
    t.cancel(s);
    tipc_event e{};
    EXPECT_FALSE(t.next(e, 400)) << text(e);
}

TEST_P(port_contract, a_network_order_subscription_is_cancelled_by_its_network_order_record) {
    topology t(port);
    tipc_subscr s = subscription(type, 0, 100);
    t.subscribe(swapped(s));
    s.filter |= TIPC_SUB_CANCEL;
    t.subscribe(swapped(s));
    EXPECT_TRUE(t.settled().empty());
    sock made = bound(7);
    EXPECT_TRUE(t.settled().empty());
}

// ---- time-outs ------------------------------------------------------------------------------------------

TEST_P(port_contract, a_subscription_times_out_once_never_early_and_is_gone) {
    for (uint32_t timeout_ms : {1u, 100u, 700u}) {
        topology t(port);
        const auto begin = steady::now();
        const tipc_subscr s = subscription(type, 40, 50, timeout_ms, TIPC_SUB_SERVICE, "timer");
        t.subscribe(s);
        tipc_event e{};
        ASSERT_TRUE(t.next(e));
        const auto took = steady::now() - begin;
        EXPECT_EQ(text(e), "T[40,50]");
        EXPECT_EQ(e.port.ref, 0u);
        EXPECT_EQ(e.port.node, 0u);
        EXPECT_EQ(memcmp(&e.s, &s, sizeof(s)), 0);
        EXPECT_GE(took, milliseconds(timeout_ms));
        EXPECT_LE(took, milliseconds(timeout_ms + timeout_ms / 8 + 2000))
            << "later than a busy host explains";
        sock made = bound(45);
        EXPECT_TRUE(t.settled().empty());
    }
}

TEST_P(port_contract, a_running_subscription_reports_names_until_it_times_out) {
    topology t(port);
    t.subscribe(subscription(type, 0, 100, 500));
    sock made = bound(7);
    tipc_event e{};
    ASSERT_TRUE(t.next(e));
    EXPECT_EQ(text(e), "P[7,7]");
    ASSERT_TRUE(t.next(e));
    EXPECT_EQ(text(e), "T[0,100]");
    made.close();
    EXPECT_TRUE(t.settled().empty());
}

TEST_P(port_contract, the_servers_own_name_is_1_1) {
    topology t(port);
    t.subscribe(subscription(TIPC_TOP_SRV, 0, 1, 50));
    tipc_event e{};
    ASSERT_TRUE(t.next(e));
    EXPECT_EQ(text(e), "P[1,1]");
    ASSERT_TRUE(t.next(e));
    EXPECT_EQ(text(e), "T[0,1]");
    t.subscribe(subscription(TIPC_TOP_SRV, 0, 0, 50));
    ASSERT_TRUE(t.next(e));
    EXPECT_EQ(text(e), "T[0,0]") << "instance 0 gives nothing but the time-out";
}

TEST_P(port_contract, timers_fire_in_order_of_expiry_and_equal_ones_each) {
    topology t(port);
    t.subscribe(subscription(TIPC_TOP_SRV, 0, 0, 600, TIPC_SUB_SERVICE, "c"));
    t.subscribe(subscription(TIPC_TOP_SRV, 0, 0, 100, TIPC_SUB_SERVICE, "a"));
    t.subscribe(subscription(TIPC_TOP_SRV, 0, 0, 300, TIPC_SUB_SERVICE, "b"));
    t.subscribe(subscription(TIPC_TOP_SRV, 0, 0, 300, TIPC_SUB_SERVICE, "b"));
    std::string order;
    tipc_event e{};
    for (int i = 0; i < 4 && t.next(e); i++)
        order += e.s.usr_handle[0];
    EXPECT_EQ(order, "abbc");
}

// ---- broken subscriptions and dead connections ----------------------------------------------------------

TEST_P(port_contract, a_malformed_subscription_ends_the_connection) {
    const tipc_subscr reversed = subscription(type, 2, 1);
    const tipc_subscr both_filters =
        subscription(type, 1, 2, wait_for_ever, TIPC_SUB_PORTS | TIPC_SUB_SERVICE);
    const tipc_subscr good = subscription(type, 1, 2);
    const struct {
        const char *what;
        const tipc_subscr &s;
        size_t size;
    } rows[] = {
        {"lower > upper", reversed, sizeof(tipc_subscr)},
        {"filters 1 and 2", both_filters, sizeof(tipc_subscr)},
        {"27 bytes", good, 27},
        {"20 bytes", good, 20},
        {"1 byte", good, 1},
    };
    for (const auto &row : rows) {
        topology t(port);
        EXPECT_EQ(t.write(&row.s, row.size), static_cast<ssize_t>(row.size)) << row.what;
        EXPECT_TRUE(t.dropped()) << row.what;
    }
}

TEST_P(port_contract, a_dropped_connection_reads_0_then_nothing_and_cannot_be_written) {
    topology t(port);
    watch(t, 0, 100);
    const tipc_subscr broken = subscription(type, 2, 1);
    t.write(&broken, sizeof(broken));
    pollfd p{t.fd(), POLLIN, 0};
    const auto end = steady::now() + milliseconds(patience_ms);
    do {
        ASSERT_EQ(port.poll(&p, 1, patience_ms), 1);
    } while (!(p.revents & POLLHUP) && steady::now() < end);
    EXPECT_EQ(p.revents, POLLIN | POLLHUP);
    char room[100];
    EXPECT_EQ(port.recv(t.fd(), room, sizeof(room), MSG_DONTWAIT), 0);
    EXPECT_EQ(port.recv(t.fd(), room, sizeof(room), MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(t.readable(), POLLIN | POLLHUP) << "poll keeps saying so";
    const tipc_subscr good = subscription(type, 1, 2);
    EXPECT_EQ(t.write(&good, sizeof(good)), -EPIPE) << "and no signal";
    sock made = bound(50);
    EXPECT_EQ(port.recv(t.fd(), room, sizeof(room), MSG_DONTWAIT), -1) << "its subscriptions are gone";
}

TEST_P(port_contract, a_dropped_connection_wakes_a_waiting_poll_and_leaves_others_alone) {
    topology t(port), other(port);
    watch(other, 0, 100);
    const tipc_subscr broken = subscription(type, 2, 1);
    std::atomic<bool> seen{false};
    std::thread waiting([&] { seen = t.dropped(); });
    t.write(&broken, sizeof(broken));
    waiting.join();
    EXPECT_TRUE(seen);
    sock made = bound(50);
    EXPECT_EQ(texts(other.settled()), strings{"P[50,50]"});
}

TEST_P(port_contract, after_ones_own_shutdown_recv_finds_no_connection) {
    topology t(port);
    watch(t, 0, 100);
    EXPECT_EQ(port.shutdown(t.fd(), SHUT_RDWR), 0);
    char room[100];
    EXPECT_EQ(port.recv(t.fd(), room, sizeof(room), MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(port.recv(t.fd(), room, sizeof(room), 0), -1) << "and a blocking one does not wait";
    EXPECT_EQ(errno, ENOTCONN);
}

TEST_P(port_contract, of_a_longer_write_the_first_28_bytes_count) {
    for (size_t size : {size_t{29}, size_t{56}}) {
        topology t(port);
        const tipc_subscr two[2] = {subscription(type, 0, 100, wait_for_ever, TIPC_SUB_SERVICE, "first"),
                                    subscription(type, 0, 100, wait_for_ever, TIPC_SUB_SERVICE, "second")};
        EXPECT_EQ(t.write(two, size), static_cast<ssize_t>(size));
        EXPECT_TRUE(t.settled().empty());
        sock made = bound(7);
        const std::vector<tipc_event> events = t.settled();
        ASSERT_EQ(events.size(), 1u);
        EXPECT_STREQ(events[0].s.usr_handle, "first");
    }
}

TEST_P(port_contract, a_subscription_without_a_filter_means_nothing) {
    topology t(port);
    watch(t, 0, 100, 0);
    sock made = bound(7);
    EXPECT_TRUE(t.settled().empty()) << "and the connection stands";
}

// ---- order between messages and events ------------------------------------------------------------------

TEST_P(port_contract, a_last_message_is_readable_when_its_senders_withdrawal_is) {
    sock to = bound(1);
    for (uint32_t round = 0; round < 20; round++) {
        topology t(port);
        peer other(port);
        serve(other, 5);
        ASSERT_EQ(watch(t, 5, 5), strings{"P[5,5]"});
        std::thread ending([&] {
            other.ask("send 0 " + str(type) + " 1 100 " + str(round) + " 1 0");
            if (round % 2)
                other.kill();
            else
                other.quit();
        });
        tipc_event e{};
        const bool heard = t.next(e);
        received r = to.take(); // without waiting
        ending.join();
        ASSERT_TRUE(heard);
        EXPECT_EQ(text(e), "W[5,5]");
        EXPECT_EQ(r.data, payload(round, 100)) << strerror(r.err);
    }
}

TEST_P(port_contract, a_name_that_is_announced_can_be_sent_to) {
    topology t(port);
    watch(t, 0, 0xffffffff);
    peer other(port);
    other.ask("rdm 0");
    sock s = rdm();
    for (uint32_t i = 0; i < 100; i++) {
        std::thread binding([&] { other.ask("bind 0 " + str(type) + " " + str(i) + " " + str(i)); });
        tipc_event e{};
        const bool heard = t.next(e);
        const ssize_t sent = s.send(payload(i, 10), type, i);
        binding.join();
        ASSERT_TRUE(heard);
        ASSERT_EQ(sent, 10) << i;
    }
    EXPECT_EQ(other.numbers("drain 0 20000 100")[0], 100);
}

// ---- poll -----------------------------------------------------------------------------------------------

TEST_P(port_contract, poll_waits_for_datagrams_and_events_together) {
    sock a = bound(1), b = bound(2), from = rdm();
    topology t(port);
    watch(t, 100, 200);
    pollfd fds[4] = {{a.fd(), POLLIN, 0}, {-1, POLLIN, 0}, {b.fd(), POLLIN, 0}, {t.fd(), POLLIN, 0}};
    EXPECT_EQ(port.poll(fds, 4, 0), 0);
    for (const pollfd &p : fds)
        EXPECT_EQ(p.revents, 0);
    ASSERT_EQ(from.send(payload(1, 10), type, 2), 10);
    EXPECT_EQ(port.poll(fds, 4, patience_ms), 1);
    EXPECT_EQ(fds[2].revents, POLLIN);
    sock made = bound(150);
    ASSERT_EQ(t.readable(patience_ms), POLLIN);
    EXPECT_EQ(port.poll(fds, 4, patience_ms), 2);
    EXPECT_EQ(fds[0].revents, 0);
    EXPECT_EQ(fds[2].revents, POLLIN);
    EXPECT_EQ(fds[3].revents, POLLIN);
}

TEST_P(port_contract, poll_does_not_end_before_its_time) {
    sock s = bound(1);
    for (int timeout_ms : {1, 10, 120}) {
        const auto begin = steady::now();
        EXPECT_EQ(s.readable(timeout_ms), 0);
        EXPECT_GE(steady::now() - begin, milliseconds(timeout_ms));
    }
}

TEST_P(port_contract, a_datagram_wakes_a_waiting_poll) {
    sock to = bound(5), from = rdm();
    for (uint32_t i = 0; i < 200; i++) {
        std::thread sending([&] { from.send(payload(i, 10), type, 5); });
        received r = to.next();
        sending.join();
        ASSERT_EQ(r.data, payload(i, 10));
    }
}

// ---- two nodes ------------------------------------------------------------------------------------------

TEST_P(port_contract, nodes_talk_by_name_and_answer_by_socket_address) {
    peer far(port, 2);
    serve(far, 5);
    ASSERT_TRUE(published(5));
    sock s = bound(6);
    ASSERT_EQ(s.send(payload(1, bus_datagram_bytes_max), type, 5),
              static_cast<ssize_t>(bus_datagram_bytes_max));
    far.ask("reply 0 3000");
    received r = s.next();
    EXPECT_TRUE(r.data == payload(1, 3000));
    EXPECT_EQ(r.from.addr.id.node, address_of_node_0 + 2);
    EXPECT_EQ(far.numbers("send 0 " + str(type) + " 6 500 100 300 0")[0], 300);
    for (uint32_t i = 0; i < 300; i++)
        ASSERT_EQ(s.next().data, payload(100 + i, 500));
}

TEST_P(port_contract, another_nodes_dead_process_gives_its_unread_datagrams_back_and_is_withdrawn) {
    topology t(port);
    peer far(port, 2);
    serve(far, 5);
    t.subscribe(subscription(type, 5, 5));
    tipc_event e{};
    ASSERT_TRUE(t.next(e));
    EXPECT_EQ(text(e), "P[5,5]");
    EXPECT_EQ(e.port.node, address_of_node_0 + 2);
    sock s = sender();
    for (uint32_t i = 0; i < 50; i++)
        ASSERT_EQ(s.send(payload(i, 100), type, 5), 100);
    far.kill();
    ASSERT_TRUE(t.next(e));
    EXPECT_EQ(text(e), "W[5,5]");
    for (uint32_t i = 0; i < 50; i++) {
        received r = s.take();
        ASSERT_EQ(r.returned_code(), 2u) << i;
        ASSERT_EQ(r.find(TIPC_RETDATA)->data, payload(i, 100));
        EXPECT_EQ(r.from.addr.id.node, address_of_node_0 + 2);
    }
    EXPECT_EQ(s.send(payload(1, 10), type, 5), -EHOSTUNREACH);
}

TEST_P(port_contract, another_nodes_full_receiver_gives_back_with_code_4) {
    peer far(port, 2);
    serve(far, 5);
    ASSERT_TRUE(published(5));
    sock s = sender();
    EXPECT_NEAR(capacity(s, 5, 4096, 2000), 248u, 6);
    received r = s.take();
    EXPECT_EQ(r.returned_code(), 4u);
    EXPECT_EQ(r.from.addr.id.node, address_of_node_0 + 2);
}

TEST_P(port_contract, a_name_on_two_nodes_is_withdrawn_with_its_last_binder_only) {
    peer far(port, 2);
    serve(far, 5);
    topology t(port);
    t.subscribe(subscription(type, 5, 5));
    tipc_event e{};
    ASSERT_TRUE(t.next(e));
    sock near = bound(5);
    EXPECT_TRUE(t.settled().empty());
    far.kill();
    EXPECT_FALSE(t.next(e, 300)) << text(e);
    near.close();
    ASSERT_TRUE(t.next(e));
    EXPECT_EQ(text(e), "W[5,5]");
}

TEST_P(port_contract, nodes_are_names_of_type_0) {
    peer far(port, 2);
    serve(far, 5); // a simulated node is up while a process runs there
    for (uint32_t filter : {TIPC_SUB_SERVICE, TIPC_SUB_PORTS}) {
        topology t(port);
        t.subscribe(subscription(0, address_of_node_0, address_of_node_0 + 0xfff, wait_for_ever, filter));
        std::set<uint32_t> up;
        tipc_event e{};
        for (int i = 0; i < 2 && t.next(e); i++) {
            EXPECT_EQ(e.event, static_cast<uint32_t>(TIPC_PUBLISHED));
            EXPECT_EQ(e.found_lower, e.found_upper);
            EXPECT_EQ(e.port.ref, 0u);
            up.insert(e.found_lower);
        }
        EXPECT_EQ(up, (std::set<uint32_t>{address_of_node_0 + 1, address_of_node_0 + 2}));
        EXPECT_TRUE(t.settled().empty());
    }
}

TEST_P(port_contract, a_lost_node_takes_its_names_along_and_comes_back) {
    auto far = std::make_unique<peer>(port, 2);
    serve(*far, 5);
    topology nodes(port), names(port);
    nodes.subscribe(subscription(0, address_of_node_0 + 2, address_of_node_0 + 2));
    names.subscribe(subscription(type, 5, 5));
    tipc_event e{};
    ASSERT_TRUE(nodes.next(e));
    ASSERT_TRUE(names.next(e));
    const std::string lost = "W[" + str(address_of_node_0 + 2) + "," + str(address_of_node_0 + 2) + "]";
    sock s = sender();
    const bool simulated = &port == &g_qel_port_local; // there a node is lost with its last process
    if (simulated) {
        far->kill();
    } else {
        ASSERT_EQ(system("ip -n n2 link set eth0 down"), 0);
    }
    ASSERT_TRUE(nodes.next(e));
    EXPECT_EQ(text(e), lost);
    ASSERT_TRUE(names.next(e));
    EXPECT_EQ(text(e), "W[5,5]");
    EXPECT_EQ(s.send(payload(1, 10), type, 5), -EHOSTUNREACH);
    if (simulated) {
        far = std::make_unique<peer>(port, 2);
        serve(*far, 5);
    } else {
        ASSERT_EQ(system("ip -n n2 link set eth0 up"), 0);
    }
    ASSERT_TRUE(nodes.next(e));
    EXPECT_EQ(e.event, static_cast<uint32_t>(TIPC_PUBLISHED));
    ASSERT_TRUE(names.next(e));
    EXPECT_EQ(text(e), "P[5,5]");
    EXPECT_EQ(s.send(payload(2, 10), type, 5), 10);
    EXPECT_EQ(far->numbers("next 0 20000")[1], 2);
}

INSTANTIATE_TEST_SUITE_P(local, port_contract, testing::Values(transport{&g_qel_port_local}), case_name);
INSTANTIATE_TEST_SUITE_P(kernel, port_contract, testing::Values(transport{&g_qel_port_kernel}), case_name);

} // namespace

int main(int argc, char **argv) {
    if (argc == 3 && !strcmp(argv[1], peer_argument))
        return peer_main(strcmp(argv[2], "local") ? g_qel_port_kernel : g_qel_port_local);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
