#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

#include "qel_port_faulty.h"

namespace {

using qel_faulty::call;
using bytes = std::vector<uint8_t>;

struct port_faulty : testing::Test {
    const qel_port *port = qel_faulty::wrap(nullptr);
    int fd = port->socket(AF_TIPC, SOCK_RDM, 0);
    ~port_faulty() override { port->close(fd); }

    sockaddr_tipc to{};
    ssize_t send_to(const char *text) {
        return port->sendto(fd, text, strlen(text), 0, reinterpret_cast<sockaddr *>(&to), sizeof(to));
    }
    struct received {
        ssize_t ret;
        int flags;
        bytes data;
        std::vector<int> types;
    };
    received receive(size_t data_room = 2048, size_t control_room = 2048) const {
        bytes data(data_room), control(control_room);
        iovec v{data.data(), data.size()};
        msghdr m{};
        m.msg_iov = &v;
        m.msg_iovlen = 1;
        m.msg_control = control.data();
        m.msg_controllen = control.size();
        received r{port->recvmsg(fd, &m, MSG_DONTWAIT), m.msg_flags, {}, {}};
        if (r.ret < 0)
            return r;
        r.data.assign(data.begin(), data.begin() + r.ret);
        for (cmsghdr *c = CMSG_FIRSTHDR(&m); c; c = CMSG_NXTHDR(&m, c))
            r.types.push_back(c->cmsg_type);
        return r;
    }
};

TEST_F(port_faulty, only_the_chosen_calls_fail_and_with_the_chosen_errno) {
    qel_faulty::fail(call::bind, ENOMEM, 2, 2);
    int results[4];
    for (int &r : results) {
        errno = 0;
        r = port->bind(fd, reinterpret_cast<sockaddr *>(&to), sizeof(to)) == 0 ? 0 : errno;
    }
    EXPECT_EQ(results[0], 0);
    EXPECT_EQ(results[1], ENOMEM);
    EXPECT_EQ(results[2], ENOMEM);
    EXPECT_EQ(results[3], 0);
    EXPECT_EQ(qel_faulty::calls(call::bind), 4u);
    EXPECT_EQ(qel_faulty::calls(call::connect), 0u);
}

TEST_F(port_faulty, a_fault_for_ever_ends_with_reset_only) {
    qel_faulty::fail(call::sendto, ENOBUFS, 1, qel_faulty::for_ever);
    for (int i = 0; i < 100; i++) {
        ASSERT_EQ(send_to("x"), -1);
        ASSERT_EQ(errno, ENOBUFS);
    }
    qel_faulty::reset();
    EXPECT_EQ(send_to("x"), 1);
}

TEST_F(port_faulty, every_call_can_fail) {
    const int err = EUCLEAN; // given by nothing else
    for (size_t i = 0; i < qel_faulty::call_count; i++)
        qel_faulty::fail(static_cast<call>(i), err);
    sockaddr *addr = reinterpret_cast<sockaddr *>(&to);
    int value = 0;
    socklen_t len = sizeof(value);
    msghdr m{};
    char c = 0;
    pollfd p{fd, POLLIN, 0};
    auto fails = [&](ssize_t ret) { return ret == -1 && errno == err; };
    EXPECT_TRUE(fails(port->socket(AF_TIPC, SOCK_RDM, 0)));
    EXPECT_TRUE(fails(port->bind(fd, addr, sizeof(to))));
    EXPECT_TRUE(fails(port->connect(fd, addr, sizeof(to))));
    EXPECT_TRUE(fails(port->setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &value, len)));
    EXPECT_TRUE(fails(port->getsockopt(fd, SOL_SOCKET, SO_TYPE, &value, &len)));
    EXPECT_TRUE(fails(port->sendto(fd, &c, 1, 0, addr, sizeof(to))));
    EXPECT_TRUE(fails(port->send(fd, &c, 1, 0)));
    EXPECT_TRUE(fails(port->recvmsg(fd, &m, 0)));
    EXPECT_TRUE(fails(port->recv(fd, &c, 1, 0)));
    EXPECT_TRUE(fails(port->poll(&p, 1, 0)));
    EXPECT_TRUE(fails(port->shutdown(fd, SHUT_RDWR)));
    EXPECT_TRUE(fails(port->fcntl(fd, F_GETFD, 0)));
    int other = port->socket(AF_TIPC, SOCK_RDM, 0);
    EXPECT_TRUE(fails(port->close(other)));
    EXPECT_EQ(fcntl(other, F_GETFD), -1) << "the descriptor must be closed nevertheless";
}

TEST_F(port_faulty, the_nth_call_of_any_kind_fails_once) {
    qel_faulty::fail_any(2, EIO);
    EXPECT_EQ(send_to("a"), 1);
    EXPECT_FALSE(qel_faulty::any_failed());
    EXPECT_EQ(port->fcntl(fd, F_GETFD, 0), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_TRUE(qel_faulty::any_failed());
    EXPECT_EQ(send_to("a"), 1);
}

TEST_F(port_faulty, a_short_send_sends_and_tells_the_first_bytes) {
    qel_faulty::short_send(call::sendto, 3);
    EXPECT_EQ(send_to("abcdef"), 3);
    EXPECT_EQ(send_to("abcdef"), 6);
    auto record = qel_faulty::take_sent();
    ASSERT_EQ(record.size(), 2u);
    EXPECT_EQ(record[0].data, (bytes{'a', 'b', 'c'}));
    EXPECT_EQ(record[1].data.size(), 6u);
    EXPECT_TRUE(record[0].has_to);
    EXPECT_TRUE(qel_faulty::take_sent().empty());
}

TEST_F(port_faulty, a_hook_runs_once_before_its_call) {
    int runs = 0;
    qel_faulty::before(call::sendto, 2, [&] {
        runs++;
        EXPECT_EQ(qel_faulty::take_sent().size(), 1u);
    });
    send_to("a");
    EXPECT_EQ(runs, 0);
    send_to("b");
    send_to("c");
    EXPECT_EQ(runs, 1);
}

TEST_F(port_faulty, injected_datagrams_arrive_in_order_then_the_inner_transport) {
    qel_faulty::inject(fd, qel_faulty::normal({1, 2, 3}, 2303, 7, 7));
    qel_faulty::inject(fd, qel_faulty::returned(4, bytes(3000, 9), 2303, 7));
    qel_faulty::datagram broken;
    broken.err = ENOTCONN;
    qel_faulty::inject(fd, broken);
    received r = receive();
    EXPECT_EQ(r.data, (bytes{1, 2, 3}));
    EXPECT_EQ(r.types, std::vector<int>{TIPC_DESTNAME});
    r = receive();
    EXPECT_EQ(r.ret, 0);
    EXPECT_EQ(r.flags, 0);
    EXPECT_EQ(r.types, (std::vector<int>{TIPC_ERRINFO, TIPC_RETDATA, TIPC_DESTNAME}));
    EXPECT_EQ(receive().ret, -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(receive().ret, -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(port_faulty, what_does_not_fit_is_cut_and_flagged) {
    qel_faulty::inject(fd, qel_faulty::normal(bytes(100, 1), 2303, 7, 7));
    received r = receive(10, 2048);
    EXPECT_EQ(r.ret, 10);
    EXPECT_EQ(r.flags, MSG_TRUNC);
    qel_faulty::inject(fd, qel_faulty::returned(2, bytes(100, 1), 2303, 7));
    r = receive(10, CMSG_SPACE(8));
    EXPECT_EQ(r.flags, MSG_CTRUNC);
    EXPECT_EQ(r.types, std::vector<int>{TIPC_ERRINFO});
}

TEST_F(port_faulty, a_waiting_poll_sees_an_injected_datagram) {
    pollfd p{fd, POLLIN, 0};
    EXPECT_EQ(port->poll(&p, 1, 0), 0);
    int fd_copy = fd;
    std::thread later([fd_copy] { qel_faulty::inject(fd_copy, qel_faulty::normal({1}, 2303, 7, 7)); });
    EXPECT_EQ(port->poll(&p, 1, 30000), 1);
    EXPECT_EQ(p.revents, POLLIN);
    later.join();
}

TEST_F(port_faulty, injected_records_end_with_a_dead_connection) {
    qel_faulty::inject_recv(fd, bytes(48, 5));
    qel_faulty::inject_recv(fd, {});
    char event[48];
    EXPECT_EQ(port->recv(fd, event, sizeof(event), 0), 48);
    EXPECT_EQ(event[47], 5);
    EXPECT_EQ(port->recv(fd, event, sizeof(event), 0), 0);
    pollfd p{fd, POLLIN, 0};
    EXPECT_EQ(port->poll(&p, 1, 0), 1);
    EXPECT_EQ(p.revents, POLLIN | POLLHUP);
    EXPECT_EQ(port->recv(fd, event, sizeof(event), MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
}

} // namespace
