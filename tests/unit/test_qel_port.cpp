#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "qel_fake_port.h"
#include "qel_port.h"

namespace {

// Every test here is the first use of the port in its process.

TEST(port_choice, without_the_variable_it_is_the_kernels) {
    unsetenv("QEL_TRANSPORT");
    EXPECT_EQ(&qel_port_get(), &g_qel_port_kernel);
}

TEST(port_choice, by_name_it_is_the_kernels) {
    setenv("QEL_TRANSPORT", "kernel", 1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(&qel_port_get(), &g_qel_port_kernel);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(port_choice, by_name_it_is_the_local_one) {
    setenv("QEL_TRANSPORT", "local", 1);
    testing::internal::CaptureStderr();
    EXPECT_STREQ(qel_port_get().name, "local");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(port_choice, the_first_use_decides) {
    setenv("QEL_TRANSPORT", "kernel", 1);
    const qel_port *first = &qel_port_get();
    setenv("QEL_TRANSPORT", "nonsense", 1);
    EXPECT_EQ(&qel_port_get(), first);
}

void expect_refusal(const char *value, const char *shown) {
    setenv("QEL_TRANSPORT", value, 1);
    testing::internal::CaptureStderr();
    const qel_port &port = qel_port_get();
    for (int i = 0; i < 3; i++) {
        errno = 0;
        EXPECT_EQ(qel_port_get().socket(AF_TIPC, SOCK_RDM, 0), -1);
        EXPECT_EQ(errno, EPROTONOSUPPORT);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "qel: QEL_TRANSPORT is \"" + std::string(shown) + "\"; it may be \"kernel\" or \"local\"\n");
    EXPECT_EQ(port.socket(AF_INET, SOCK_DGRAM, 0), -1) << "nor any other socket";
}

TEST(port_choice, an_unknown_name_prints_one_line_and_makes_no_socket) { expect_refusal("tipc", "tipc"); }
TEST(port_choice, an_empty_name_is_an_unknown_one) { expect_refusal("", ""); }
TEST(port_choice, a_name_that_only_begins_well_is_an_unknown_one) { expect_refusal("kernel2", "kernel2"); }
TEST(port_choice, a_name_of_another_case_is_an_unknown_one) { expect_refusal("Kernel", "Kernel"); }
TEST(port_choice, an_endless_name_is_cut_in_the_message) {
    expect_refusal(std::string(1000, 'x').c_str(), std::string(64, 'x').c_str());
}

TEST(port_choice, a_test_may_be_faster) {
    setenv("QEL_TRANSPORT", "nonsense", 1);
    testing::internal::CaptureStderr();
    const qel_port *fake = qel_fake::install();
    EXPECT_EQ(&qel_port_get(), fake);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(port_choice, threads_that_ask_at_the_same_moment_get_the_same_answer) {
    unsetenv("QEL_TRANSPORT");
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++)
        threads.emplace_back([] {
            if (&qel_port_get() != &g_qel_port_kernel)
                abort();
        });
    for (std::thread &t : threads)
        t.join();
}

TEST(port_kernel, a_kernel_without_tipc_is_told_once_and_the_errno_stays) {
    testing::internal::CaptureStderr();
    for (int i = 0; i < 3; i++) {
        errno = 0;
        // a family that no kernel has, so that the test means the same on every host
        EXPECT_EQ(g_qel_port_kernel.socket(99, SOCK_RDM, 0), -1);
        EXPECT_EQ(errno, EAFNOSUPPORT);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "qel: this kernel has no TIPC: load the module (modprobe tipc), or set QEL_TRANSPORT=local\n");
}

TEST(port_kernel, other_failures_of_socket_are_not_blamed_on_the_kernel) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(g_qel_port_kernel.socket(AF_INET, 77, 0), -1);
    EXPECT_NE(errno, EAFNOSUPPORT);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(port_kernel, its_functions_are_the_system_calls) {
    const qel_port &port = g_qel_port_kernel;
    char dir[] = "/tmp/qel.XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    sockaddr_un path{};
    path.sun_family = AF_UNIX;
    snprintf(path.sun_path, sizeof path.sun_path, "%s/socket", dir);
    auto *addr = reinterpret_cast<sockaddr *>(&path);

    const int server = port.socket(AF_UNIX, SOCK_DGRAM, 0);
    const int client = port.socket(AF_UNIX, SOCK_DGRAM, 0);
    ASSERT_GE(server, 0);
    ASSERT_GE(client, 0);
    EXPECT_EQ(port.fcntl(server, F_SETFD, FD_CLOEXEC), 0);
    EXPECT_EQ(port.fcntl(server, F_GETFD, 0), FD_CLOEXEC);
    ASSERT_EQ(port.bind(server, addr, sizeof path), 0);
    EXPECT_EQ(port.sendto(client, "one", 3, 0, addr, sizeof path), 3);
    ASSERT_EQ(port.connect(client, addr, sizeof path), 0);
    EXPECT_EQ(port.send(client, "four", 4, 0), 4);

    pollfd p{server, POLLIN, 0};
    EXPECT_EQ(port.poll(&p, 1, 1000), 1);
    char data[16];
    EXPECT_EQ(port.recv(server, data, sizeof data, MSG_DONTWAIT), 3);
    iovec v{data, sizeof data};
    msghdr m{};
    m.msg_iov = &v;
    m.msg_iovlen = 1;
    EXPECT_EQ(port.recvmsg(server, &m, MSG_DONTWAIT), 4);
    EXPECT_EQ(memcmp(data, "four", 4), 0);
    EXPECT_EQ(port.recvmsg(server, &m, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);

    int type = 0;
    socklen_t len = sizeof type;
    EXPECT_EQ(port.getsockopt(server, SOL_SOCKET, SO_TYPE, &type, &len), 0);
    EXPECT_EQ(type, SOCK_DGRAM);
    const int on = 1;
    EXPECT_EQ(port.setsockopt(server, SOL_SOCKET, SO_PASSCRED, &on, sizeof on), 0);
    EXPECT_EQ(port.shutdown(server, SHUT_RDWR), 0);
    EXPECT_EQ(port.close(server), 0);
    EXPECT_EQ(port.close(client), 0);
    EXPECT_EQ(fcntl(server, F_GETFD), -1);
    unlink(path.sun_path);
    rmdir(dir);
}

} // namespace
