// The transport that other tests queue and record with.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>

#include "qel_fake_port.h"
#include "qel_fake_time.h"

namespace {

using namespace std::chrono_literals;
using qel_fake::bytes;
using qel_fake::op;

sockaddr_tipc name_of(uint32_t app, uint32_t node) {
    sockaddr_tipc a{};
    a.family = AF_TIPC;
    a.addrtype = TIPC_ADDR_NAME;
    a.addr.name.name.type = 2303;
    a.addr.name.name.instance = app << 16 | node;
    return a;
}

struct fake_port : testing::Test {
    const qel_port *port;
    int fd = -1;
    fake_port() {
        qel_time::install();
        port = qel_fake::install();
        fd = port->socket(AF_TIPC, SOCK_RDM, 0);
    }
    ~fake_port() override { port->close(fd); }

    int connect_topology() {
        const int top = port->socket(AF_TIPC, SOCK_SEQPACKET, 0);
        sockaddr_tipc a = name_of(0, 1);
        a.addr.name.name.type = 1;
        EXPECT_EQ(port->connect(top, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
        return top;
    }
    ssize_t subscribe(int top, uint32_t type, uint32_t lower, uint32_t upper, uint32_t timeout,
                      uint32_t filter = TIPC_SUB_SERVICE, uint32_t h0 = 0, uint32_t h1 = 0) {
        tipc_subscr s{};
        s.seq = {type, lower, upper};
        s.timeout = timeout;
        s.filter = filter;
        memcpy(s.usr_handle, &h0, 4);
        memcpy(s.usr_handle + 4, &h1, 4);
        return port->send(top, &s, sizeof s, MSG_NOSIGNAL);
    }
    short ready(int which, int timeout = 0) {
        pollfd p{which, POLLIN, 0};
        return port->poll(&p, 1, timeout) == 1 ? p.revents : short{0};
    }
    tipc_event event(int top) {
        tipc_event e{};
        EXPECT_EQ(port->recv(top, &e, sizeof e, MSG_DONTWAIT), static_cast<ssize_t>(sizeof e));
        return e;
    }
};

TEST_F(fake_port, calls_are_on_record_in_their_order_with_their_arguments) {
    sockaddr_tipc a = name_of(5, 3);
    const int one = 1;
    port->setsockopt(fd, SOL_TIPC, TIPC_IMPORTANCE, &one, sizeof one);
    port->fcntl(fd, F_SETFD, FD_CLOEXEC);
    port->bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
    EXPECT_EQ(port->sendto(fd, "abc", 3, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&a), sizeof a), 3);
    const auto all = qel_fake::take_calls();
    ASSERT_EQ(all.size(), 5u);
    EXPECT_EQ(all[0].what, op::socket);
    EXPECT_EQ(all[0].type, SOCK_RDM);
    EXPECT_EQ(all[1].option, TIPC_IMPORTANCE);
    EXPECT_EQ(all[1].value, 1);
    EXPECT_EQ(all[2].what, op::fcntl);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC) << "descriptors are real ones";
    EXPECT_EQ(all[3].what, op::bind);
    EXPECT_EQ(all[3].app(), 5u);
    EXPECT_EQ(all[3].node(), 3u);
    EXPECT_EQ(all[4].data, (bytes{'a', 'b', 'c'}));
    EXPECT_EQ(all[4].flags, MSG_DONTWAIT);
    EXPECT_TRUE(qel_fake::calls().empty());
}

TEST_F(fake_port, faults_hit_the_chosen_calls_and_destinations) {
    sockaddr_tipc to5 = name_of(5, 3), to6 = name_of(6, 3);
    auto send = [&](sockaddr_tipc &to) {
        return port->sendto(fd, "abc", 3, 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
    };
    qel_fake::fail(op::sendto, ENOBUFS, 2, 1);
    qel_fake::fail_to(6, 3, EHOSTUNREACH, 1);
    EXPECT_EQ(send(to5), 3);
    EXPECT_EQ(send(to5), -1);
    EXPECT_EQ(errno, ENOBUFS);
    EXPECT_EQ(send(to5), 3);
    EXPECT_EQ(send(to6), -1);
    EXPECT_EQ(errno, EHOSTUNREACH);
    EXPECT_EQ(send(to6), 3);
    qel_fake::short_send(2);
    EXPECT_EQ(send(to5), 2);
    EXPECT_EQ(qel_fake::take_sent().size(), 3u) << "those that went out whole";
    qel_fake::fail_option(SOL_TIPC, TIPC_SRC_DROPPABLE, EPERM);
    const int zero = 0;
    EXPECT_EQ(port->setsockopt(fd, SOL_TIPC, TIPC_SRC_DROPPABLE, &zero, sizeof zero), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(port->setsockopt(fd, SOL_TIPC, TIPC_DEST_DROPPABLE, &zero, sizeof zero), 0);
    qel_fake::fail(op::socket, EMFILE);
    EXPECT_EQ(port->socket(AF_TIPC, SOCK_RDM, 0), -1);
    EXPECT_EQ(errno, EMFILE);
}

TEST_F(fake_port, returned_datagrams_have_their_three_control_records_in_order) {
    qel_fake::push_returned(fd, 4, bytes(3000, 7), 9, 2);
    EXPECT_EQ(ready(fd), POLLIN);
    char control[2048];
    iovec none{};
    msghdr m{};
    m.msg_iov = &none;
    m.msg_iovlen = 1;
    m.msg_control = control;
    m.msg_controllen = sizeof control;
    EXPECT_EQ(port->recvmsg(fd, &m, MSG_DONTWAIT), 0);
    std::vector<std::pair<int, size_t>> records;
    for (cmsghdr *c = CMSG_FIRSTHDR(&m); c; c = CMSG_NXTHDR(&m, c))
        records.emplace_back(c->cmsg_type, c->cmsg_len - CMSG_LEN(0));
    const std::vector<std::pair<int, size_t>> expected = {
        {TIPC_ERRINFO, 8}, {TIPC_RETDATA, 1024}, {TIPC_DESTNAME, 12}};
    EXPECT_EQ(records, expected);
    EXPECT_EQ(port->recvmsg(fd, &m, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(fake_port, a_ghost_is_readable_once_and_has_nothing_to_read) {
    qel_fake::datagram d;
    d.ghost = true;
    qel_fake::push(fd, d);
    EXPECT_EQ(ready(fd), POLLIN);
    msghdr m{};
    EXPECT_EQ(port->recvmsg(fd, &m, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(ready(fd), 0);
}

extern "C" {
static void *poll_for_2_s(void *p) {
    const int fd = *static_cast<int *>(p);
    pollfd f{fd, POLLIN, 0};
    const intptr_t ret = qel_port_get().poll(&f, 1, 2000);
    return reinterpret_cast<void *>(ret);
}
}

TEST_F(fake_port, poll_ends_by_the_virtual_clock_or_by_what_is_queued) {
    pthread_t thread;
    void *result;
    ASSERT_EQ(qel_sys_get().thread_create(&thread, poll_for_2_s, &fd), 0);
    ASSERT_TRUE(qel_fake::settle());
    EXPECT_EQ(qel_time::next_deadline(), 2s);
    qel_time::advance(2s);
    pthread_join(thread, &result);
    EXPECT_EQ(result, nullptr);
    ASSERT_EQ(qel_sys_get().thread_create(&thread, poll_for_2_s, &fd), 0);
    ASSERT_TRUE(qel_fake::settle());
    qel_fake::push(fd, bytes{1}, 5, 1);
    pthread_join(thread, &result);
    EXPECT_EQ(result, reinterpret_cast<void *>(1));
}

TEST_F(fake_port, the_topology_server_tells_names_and_timers) {
    const int top = connect_topology();
    EXPECT_EQ(qel_fake::topology(), top);
    const uint32_t lower = 7u << 16;
    qel_fake::publish(7, 2);
    EXPECT_EQ(subscribe(top, 2303, lower, lower | 0xFFFF, 0xFFFFFFFF), 28);
    EXPECT_EQ(subscribe(top, 1, 0, 0, 3000, TIPC_SUB_SERVICE, 2, 99), 28);
    EXPECT_EQ(event(top).found_lower, lower | 2) << "published before";
    qel_fake::publish(8, 2);
    EXPECT_EQ(ready(top), 0) << "nobody asked";
    qel_fake::publish(7, 2);
    EXPECT_EQ(ready(top), 0) << "only the first of a name is told";
    qel_fake::withdraw(7, 2);
    EXPECT_EQ(ready(top), 0);
    qel_fake::withdraw(7, 2);
    EXPECT_EQ(event(top).event, static_cast<uint32_t>(TIPC_WITHDRAWN));
    ASSERT_EQ(qel_fake::timers().size(), 1u);
    EXPECT_EQ(qel_fake::timers()[0].seq, 99u);
    qel_time::advance(2999ms);
    EXPECT_EQ(ready(top), 0);
    qel_time::advance(1ms);
    EXPECT_EQ(ready(top), POLLIN);
    const tipc_event e = event(top);
    EXPECT_EQ(e.event, static_cast<uint32_t>(TIPC_SUBSCR_TIMEOUT));
    EXPECT_EQ(e.s.usr_handle[4], 99);
    EXPECT_TRUE(qel_fake::timers().empty());
    EXPECT_EQ(qel_fake::subscriptions().size(), 1u);
    EXPECT_EQ(subscribe(top, 2303, lower, lower | 0xFFFF, 0, TIPC_SUB_SERVICE | TIPC_SUB_CANCEL), 28);
    EXPECT_EQ(qel_fake::subscriptions().size(), 1u) << "a cancel must be equal in everything else";
    EXPECT_EQ(subscribe(top, 2303, lower, lower | 0xFFFF, 0xFFFFFFFF, TIPC_SUB_SERVICE | TIPC_SUB_CANCEL),
              28);
    EXPECT_TRUE(qel_fake::subscriptions().empty());
    port->close(top);
    EXPECT_EQ(qel_fake::topology(), -1);
}

TEST_F(fake_port, a_dead_connection_says_so) {
    const int top = connect_topology();
    qel_fake::push_recv_end(top);
    EXPECT_EQ(ready(top), POLLIN | POLLHUP);
    char c;
    EXPECT_EQ(port->recv(top, &c, 1, MSG_DONTWAIT), 0);
    EXPECT_EQ(port->recv(top, &c, 1, MSG_DONTWAIT), 0);
    EXPECT_EQ(ready(top), POLLIN | POLLHUP);
    port->close(top);
}

} // namespace
