// The library thread: its start, its pass over the sockets, events of the topology server, timers, and what
// it does with every kind of datagram.
#include <array>
#include <gmock/gmock.h>
#include <map>
#include <mutex>
#include <sys/wait.h>

#include "qel_app_info.h"
#include "qel_dm.h"
#include "qel_engine.h"
#include "qel_mng_int.h"
#include "qel_mng_msg.h"
#include "qel_rpc.h"
#include "qel_user_proxy.h"

using namespace std::chrono_literals;
using qel_fake::bytes;
using qel_fake::op;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// ---- the platform's watchdog, as this program defines it ------------------------------------------------

namespace {
struct watchdog_log {
    std::mutex mutex;
    std::vector<std::string> calls; // "register qel_lib_1", "unregister qel_lib_1"
    std::map<std::string, unsigned> fed;
};
watchdog_log &watchdog() {
    static auto &the = *new watchdog_log;
    return the;
}
std::vector<std::string> watchdog_calls() {
    const std::lock_guard lock(watchdog().mutex);
    return watchdog().calls;
}
unsigned watchdog_fed(const std::string &name) {
    const std::lock_guard lock(watchdog().mutex);
    return watchdog().fed[name];
}
std::string lib_thread_name() { return qel_format("qel_lib_%d", getpid()).substr(0, 15); }
} // namespace

extern "C" void watchdog_register(const char *name) {
    const std::lock_guard lock(watchdog().mutex);
    watchdog().calls.push_back(std::string("register ") + name);
}
extern "C" void watchdog_feed(const char *name) {
    const std::lock_guard lock(watchdog().mutex);
    watchdog().fed[name]++;
}
extern "C" void watchdog_unregister(const char *name) {
    const std::lock_guard lock(watchdog().mutex);
    watchdog().calls.push_back(std::string("unregister ") + name);
}

namespace {

struct qel_rx : qel_engine {
    void register_only(std::initializer_list<int32_t> apps) {
        for (const int32_t app : apps)
            ASSERT_EQ(add_app(app, false), 0);
        qel_set_masks();
        out.take();
        qel_fake::take_calls();
    }
};

// A call in a few letters: "send sub 7", "send timer 1800000 2/1", "bind 5/1", "sendto 7/2".
std::string short_of(const qel_fake::call &c) {
    switch (c.what) {
    case op::send: {
        tipc_subscr s;
        if (c.data.size() != sizeof s)
            return qel_format("send %zu bytes", c.data.size());
        memcpy(&s, c.data.data(), sizeof s);
        if (s.filter & TIPC_SUB_CANCEL)
            return qel_format("send cancel %u", s.seq.lower >> 16);
        if (s.seq.type == 2303)
            return qel_format("send sub %u", s.seq.lower >> 16);
        return qel_format("send timer %u %u/%u", s.timeout, host32_at(c.data, 20), host32_at(c.data, 24));
    }
    case op::bind:
        return qel_format("bind %u/%u", c.app(), c.node());
    case op::sendto:
        return qel_format("sendto %u/%u", c.app(), c.node());
    case op::socket:
        return "socket";
    case op::connect:
        return "connect";
    case op::fcntl:
        return "fcntl";
    case op::shutdown:
        return qel_format("shutdown %d", c.fd);
    case op::close:
        return qel_format("close %d", c.fd);
    default:
        return "other";
    }
}
std::vector<std::string> take_short() {
    std::vector<std::string> all;
    for (const qel_fake::call &c : qel_fake::take_calls())
        all.push_back(short_of(c));
    return all;
}

// ---- start ----------------------------------------------------------------------------------------------

TEST_F(qel_rx, without_run_nothing_is_subscribed_bound_or_received) {
    register_only({5});
    settle_threads();
    qel_fake::push(qel_get_app_sd(5), wire({.src_app = 1, .src_node = 1, .dst_app = 5}), 5, 1);
    ASSERT_TRUE(qel_time::run_for(10s));
    EXPECT_THAT(take_short(), ElementsAre());
    EXPECT_EQ(qel_fake::count(op::poll), 0u);
    EXPECT_EQ(qel_fake::count(op::recvmsg), 0u);
    EXPECT_EQ(out.take(), "");
}

TEST_F(qel_rx, after_run_comes_a_second_then_subscriptions_binds_in_table_order_start_line_and_monitor) {
    register_only({9, 5});
    ASSERT_EQ(qel_comm_with(5, 7), 0);
    ASSERT_EQ(qel_comm_with(9, 7), 0);
    out.take();
    ASSERT_EQ(qel_run(), 0);
    settle_threads();
    EXPECT_EQ(qel_time::next_deadline(), 1s);
    EXPECT_EQ(qel_time::sleep_us(0), 1'000'000u);
    qel_time::advance(999'999'999ns);
    settle_threads();
    EXPECT_THAT(take_short(), ElementsAre());
    EXPECT_EQ(out.take(), "");

    qel_time::advance(1ns);
    settle();
    const std::vector<qel_fake::call> calls = qel_fake::calls();
    EXPECT_THAT(take_short(), ElementsAre("send sub 9", "send sub 5", "send sub 7", "bind 9/1", "bind 5/1",
                                          "send timer 1800000 2/1"));
    for (const qel_fake::call &c : calls) {
        if (c.what != op::bind)
            continue;
        EXPECT_EQ(c.addr.family, AF_TIPC);
        EXPECT_EQ(c.addr.addrtype, TIPC_ADDR_NAME);
        EXPECT_EQ(c.addr.scope, 2);
        EXPECT_EQ(c.addr.addr.name.name.type, 2303u);
        EXPECT_EQ(c.addr.addr.name.domain, 0u);
    }
    EXPECT_EQ(calls[3].fd, qel_get_app_sd(9));
    EXPECT_EQ(calls[4].fd, qel_get_app_sd(5));
    EXPECT_EQ(out.take(), "<qel_mng> 1: QEL subscribe TIPC instance [0x90000, 0x9ffff] event.\n"
                          "<qel_mng> 1: QEL subscribe TIPC instance [0x50000, 0x5ffff] event.\n"
                          "<qel_mng> 1: QEL subscribe TIPC instance [0x70000, 0x7ffff] event.\n"
                          "<qel_mng> 1: QEL socket msg distribute thread start.\n"
                          "<qel_mng> 0: QEL add timer event type 2, seq 1.\n");
    EXPECT_EQ(qel_fake::count(op::poll), 1u);
    EXPECT_EQ(qel_time::next_deadline(), 2s) << "the time-out of the first poll";
}

TEST_F(qel_rx, subscriptions_and_monitor_are_sent_as_28_bytes_in_host_order_without_signals) {
    register_only({5});
    ASSERT_TRUE(run());
    const std::vector<qel_fake::call> sends = qel_fake::calls(op::send);
    ASSERT_EQ(sends.size(), 2u);
    EXPECT_EQ(sends[0].data, as_bytes(peer_subscription(5)));
    EXPECT_EQ(sends[1].data, as_bytes(timer_subscription(1'800'000, 2, 1)));
    for (const qel_fake::call &c : sends) {
        EXPECT_EQ(c.data.size(), 28u);
        EXPECT_EQ(c.flags, MSG_NOSIGNAL);
        EXPECT_EQ(c.fd, qel_fake::topology());
    }
}

TEST_F(qel_rx, the_thread_is_named_after_the_process) {
    begin({5});
    std::vector<std::string> names;
    for (const std::string &task : list_dir("/proc/self/task"))
        names.push_back(read_file("/proc/self/task/" + task + "/comm"));
    EXPECT_THAT(names, testing::Contains(lib_thread_name() + "\n"));
}

TEST_F(qel_rx, the_watchdog_knows_the_thread_by_its_name_and_is_fed_every_second_before_the_run) {
    const std::string name = lib_thread_name();
    register_only({5});
    settle_threads();
    EXPECT_THAT(watchdog_calls(), ElementsAre("register " + name));
    EXPECT_EQ(watchdog_fed(name), 1u);
    for (unsigned second = 1; second <= 5; second++) {
        ASSERT_TRUE(qel_time::run_for(1s));
        settle_threads();
        EXPECT_EQ(watchdog_fed(name), 1 + second);
    }
    EXPECT_THAT(watchdog_calls(), ElementsAre("register " + name)) << "registered once";
}

TEST_F(qel_rx, the_watchdog_is_fed_for_each_subscription_and_before_every_poll_and_a_poll_lasts_2_seconds) {
    register_only({5, 9});
    ASSERT_EQ(qel_comm_with(5, 7), 0);
    ASSERT_EQ(qel_run(), 0);
    settle_threads();
    const unsigned before = watchdog_fed(lib_thread_name());
    qel_time::advance(1s);
    settle();
    EXPECT_EQ(watchdog_fed(lib_thread_name()) - before, 3u + 1u + 1u); // subscriptions, after them, poll
    for (unsigned polls = 2; polls <= 10; polls++) {
        EXPECT_EQ(qel_time::next_deadline(), 2s);
        qel_time::advance(2s);
        settle();
        EXPECT_EQ(qel_fake::count(op::poll), polls);
        EXPECT_EQ(watchdog_fed(lib_thread_name()) - before, 4u + polls);
    }
    EXPECT_THAT(watchdog_calls(), ElementsAre("register " + lib_thread_name()));
}

TEST_F(qel_rx, a_socket_that_cannot_be_bound_unregisters_the_watchdog_and_ends_the_process_with_status_1) {
    const qel_child child = qel_run_child([this] {
        qel_set_masks();
        if (add_app(5, false) || add_app(9, false))
            _exit(9);
        qel_set_masks();
        qel_fake::fail(op::bind, EACCES, 2);
        atexit([] {
            for (const std::string &call : watchdog_calls())
                printf("watchdog: %s\n", call.c_str());
            printf("last\n");
        });
        (void)qel_run();
        (void)qel_time::settle();
        qel_time::advance(1s);
        for (;;)
            pause();
    });
    ASSERT_TRUE(WIFEXITED(child.status)) << child.status;
    EXPECT_EQ(WEXITSTATUS(child.status), 1);
    EXPECT_THAT(child.output, HasSubstr(": QEL app 9 bind socket "));
    EXPECT_THAT(child.output, HasSubstr(" failed: Permission denied.\n"));
    EXPECT_THAT(child.output, Not(HasSubstr("distribute thread start")));
    const size_t at = child.output.find("watchdog: register qel_lib_");
    ASSERT_NE(at, std::string::npos) << child.output;
    EXPECT_THAT(child.output.substr(at), HasSubstr("\nwatchdog: unregister qel_lib_"));
    EXPECT_THAT(child.output, testing::EndsWith("\nlast\n")) << "an ordinary exit()";
}

TEST_F(qel_rx, a_bind_without_memory_is_tried_again_with_a_line_each_time) {
    register_only({5});
    qel_fake::fail(op::bind, ENOMEM, 1, 3);
    ASSERT_TRUE(run());
    EXPECT_EQ(qel_fake::count(op::bind), 4u);
    EXPECT_EQ(out.count(qel_line("qel_user_proxy", X, "QEL app 5 bind socket %d failed: %s.\n",
                                 qel_get_app_sd(5), "Cannot allocate memory")),
              3u);
    EXPECT_EQ(out.count(qel_line("qel_mng", I, "QEL socket msg distribute thread start.\n")), 1u);
}

TEST_F(qel_rx, a_failed_subscription_at_the_start_is_told_and_the_thread_serves_nevertheless) {
    register_only({5});
    qel_fake::fail(op::send, EPIPE, 1, 2); // peer and monitor
    ASSERT_TRUE(run());
    EXPECT_EQ(out.take(), "<qel_mng> 1: QEL subscribe TIPC instance [0x50000, 0x5ffff] event.\n"
                          "<qel_mng> 3: QEL send subscription msg failed: Broken pipe.\n,"
                          "<qel_mng> 1: QEL socket msg distribute thread start.\n"
                          "<qel_mng> 0: QEL add timer event type 2, seq 1.\n"
                          "<qel_mng> 3: QEL send timer subscription msg failed: Broken pipe.\n,");
    receive(5, wire({.src_app = 1, .src_node = 1, .dst_app = 5}, "x"));
    EXPECT_EQ(got().size(), 1u);
}

// ---- a pass ---------------------------------------------------------------------------------------------

// Runs on the library thread and queues more than one pass can take.
void flood(qel_msg *msg) {
    free(msg);
    for (int i = 0; i < 3; i++)
        qel_world::deliver(9, wire({.src_app = 1, .src_node = 1, .dst_app = 9}));
    for (int i = 0; i < 2; i++)
        qel_world::deliver(5, wire({.src_app = 1, .src_node = 1, .dst_app = 5}));
    qel_fake::publish(7, 2);
    qel_fake::publish(7, 3);
}

TEST_F(qel_rx, a_pass_takes_one_event_and_one_message_of_each_ready_socket_in_table_order) {
    static const qel_dispatcher table[] = {{1, flood}, {0, nullptr}};
    ASSERT_EQ(qel_register_without_thread(4, "flood", table, nullptr), 0);
    begin({5, 9}, {{5, 7}});
    receive(4, wire({.src_app = 1, .src_node = 1, .dst_app = 4}));
    std::string seen;
    const std::string text = out.take();
    for (size_t at = 0; at < text.size();) {
        const std::string line = text.substr(at, text.find('\n', at) - at);
        at += line.size() + 1;
        if (line.starts_with("<qel_mng> 2: QEL perceived ") || line.ends_with(" recv new msg."))
            seen += line.substr(line.find("app ")) + "\n";
    }
    EXPECT_EQ(seen, "app 4 recv new msg.\n" // the pass that queues the others, after its poll
                    "app 7/2 join.\n"
                    "app 5 recv new msg.\n"
                    "app 9 recv new msg.\n"
                    "app 7/3 join.\n"
                    "app 5 recv new msg.\n"
                    "app 9 recv new msg.\n"
                    "app 9 recv new msg.\n");
}

TEST_F(qel_rx, a_poll_error_is_told_with_number_and_text_and_the_loop_goes_on) {
    begin({5});
    qel_fake::push_poll_error(EINTR);
    settle();
    EXPECT_EQ(out.take(), "<qel_mng> 2: QEL polling error: 4:Interrupted system call.\n");
    qel_fake::push_poll_error(EINVAL);
    qel_fake::push_poll_error(ENOMEM);
    settle();
    EXPECT_EQ(out.take(), "<qel_mng> 2: QEL polling error: 22:Invalid argument.\n"
                          "<qel_mng> 2: QEL polling error: 12:Cannot allocate memory.\n");
    EXPECT_EQ(qel_fake::count(op::recv), 0u) << "nothing is received after a failed poll";
    EXPECT_EQ(qel_fake::count(op::recvmsg), 0u);
    receive(5, wire({.src_app = 1, .src_node = 1, .dst_app = 5}));
    EXPECT_EQ(got().size(), 1u);
}

TEST_F(qel_rx, an_idle_thread_logs_nothing_and_receives_nothing) {
    begin({5});
    pass(60s);
    EXPECT_EQ(out.take(), "");
    EXPECT_EQ(qel_fake::count(op::recv), 0u);
    EXPECT_EQ(qel_fake::count(op::recvmsg), 0u);
    EXPECT_EQ(qel_fake::count(op::poll), 31u);
}

// ---- a broken connection to the topology server ----------------------------------------------------------

struct broken {
    const char *name;
    void (*cause)(int fd);
    const char *line;
};
struct qel_rx_broken : qel_rx, testing::WithParamInterface<broken> {};

TEST_P(qel_rx_broken, it_is_told_shut_down_closed_and_made_anew_with_all_subscriptions_and_the_monitor) {
    begin({5}, {{5, 7}});
    const int sd = qel_fake::topology();
    GetParam().cause(sd);
    settle();
    EXPECT_THAT(take_short(),
                ElementsAre(qel_format("shutdown %d", sd), qel_format("close %d", sd), "socket", "fcntl",
                            "fcntl", "connect", "send sub 5", "send sub 7", "send timer 1800000 2/1"));
    EXPECT_EQ(out.take(), std::string(GetParam().line) +
                              "<qel_mng> 1: QEL subscribe TIPC instance [0x50000, 0x5ffff] event.\n"
                              "<qel_mng> 1: QEL subscribe TIPC instance [0x70000, 0x7ffff] event.\n"
                              "<qel_mng> 0: QEL add timer event type 2, seq 1.\n");
    EXPECT_EQ(g_qel_mng.subscription_socket.load(), qel_fake::topology());
    publish(7, 2);
    EXPECT_TRUE(out.has("<qel_mng> 2: QEL perceived app 7/2 join.\n")) << "the new socket is polled";
}

INSTANTIATE_TEST_SUITE_P(
    broken, qel_rx_broken,
    testing::Values(
        broken{"the_server_hangs_up", [](int fd) { qel_fake::push_recv_end(fd); },
               "<qel_mng> 3: QEL recv subscription event failed:ret:0, 0Success.\n"},
        broken{"an_error", [](int fd) { qel_fake::push_recv_error(fd, ECONNRESET); },
               "<qel_mng> 3: QEL recv subscription event failed:ret:-1, 104Connection reset by peer.\n"},
        broken{"an_interrupted_call", [](int fd) { qel_fake::push_recv_error(fd, EINTR); },
               "<qel_mng> 3: QEL recv subscription event failed:ret:-1, 4Interrupted system call.\n"},
        broken{"half_an_event", [](int fd) { qel_fake::push_recv(fd, bytes(24)); },
               "<qel_mng> 3: QEL recv subscription event failed:ret:24, 0Success.\n"},
        broken{"one_byte_too_few", [](int fd) { qel_fake::push_recv(fd, bytes(47)); },
               "<qel_mng> 3: QEL recv subscription event failed:ret:47, 0Success.\n"},
        broken{"one_byte", [](int fd) { qel_fake::push_recv(fd, bytes(1)); },
               "<qel_mng> 3: QEL recv subscription event failed:ret:1, 0Success.\n"}),
    [](const auto &p) { return p.param.name; });

TEST_F(qel_rx, a_topology_socket_that_says_readable_and_has_nothing_leaves_no_trace) {
    begin({5});
    const int sd = qel_fake::topology();
    qel_fake::push_recv_error(sd, EAGAIN);
    settle();
    EXPECT_EQ(qel_fake::topology(), sd);
    EXPECT_EQ(out.take(), "");
    EXPECT_THAT(take_short(), ElementsAre());
}

TEST_F(qel_rx, a_connection_that_cannot_be_made_anew_is_tried_after_every_pass_and_messages_go_on) {
    const std::string line =
        "<qel_mng> 3: QEL create subscription socket descriptor failed: Too many open "
        "files.\n"
        "<qel_mng> 3: QEL create subscription socket failed(ret:-1, err:24:Too many open "
        "files)";
    begin({5}, {{5, 7}});
    const int sd = qel_fake::topology();
    qel_fake::fail(op::socket, EMFILE, 1, 4);
    qel_fake::push_recv_end(sd);
    settle();
    EXPECT_EQ(out.take(), "<qel_mng> 3: QEL recv subscription event failed:ret:0, 0Success.\n" + line)
        << "the first try is in the same pass";
    EXPECT_EQ(g_qel_mng.subscription_socket.load(), -1);
    EXPECT_THAT(take_short(),
                ElementsAre(qel_format("shutdown %d", sd), qel_format("close %d", sd), "socket"));
    const unsigned polls = qel_fake::count(op::poll);

    pass(1999ms);
    EXPECT_EQ(out.take(), "");
    pass(1ms);
    EXPECT_EQ(out.take(), line) << "also after a poll that timed out";
    EXPECT_EQ(qel_fake::count(op::poll), polls + 1) << "a closed socket is not polled";

    receive(5, wire({.src_app = 1, .src_node = 1, .dst_app = 5}, "traffic"));
    EXPECT_EQ(got().size(), 1u);
    EXPECT_THAT(out.take(), testing::EndsWith(line)) << "and after a pass with a message";

    qel_fake::push_poll_error(EINTR);
    settle();
    EXPECT_EQ(out.take(), "<qel_mng> 2: QEL polling error: 4:Interrupted system call.\n" + line)
        << "and after a failed poll";
    take_short();

    pass(2s);
    EXPECT_THAT(take_short(), ElementsAre("socket", "fcntl", "fcntl", "connect", "send sub 5", "send sub 7",
                                          "send timer 1800000 2/1"));
    EXPECT_EQ(out.take(), "<qel_mng> 1: QEL subscribe TIPC instance [0x50000, 0x5ffff] event.\n"
                          "<qel_mng> 1: QEL subscribe TIPC instance [0x70000, 0x7ffff] event.\n"
                          "<qel_mng> 0: QEL add timer event type 2, seq 1.\n");
    publish(7, 2);
    EXPECT_TRUE(out.has("<qel_mng> 2: QEL perceived app 7/2 join.\n"));
}

TEST_F(qel_rx, each_step_of_making_the_connection_anew_can_fail_and_tells_its_own_errno) {
    begin({5});
    const int sd = qel_fake::topology();
    qel_fake::fail(op::connect, EADDRNOTAVAIL, 1);
    qel_fake::push_recv_end(sd);
    settle();
    out.take();
    const std::vector<std::string> calls = take_short();
    ASSERT_EQ(calls.size(), 7u);
    EXPECT_EQ(calls[5], "connect");
    EXPECT_THAT(calls[6], StartsWith("close "));
    EXPECT_TRUE(out.has("<qel_mng> 3: QEL connect to TIPC topology server failed: Cannot assign requested "
                        "address.\n"
                        "<qel_mng> 3: QEL create subscription socket failed(ret:-1, err:99:Cannot assign "
                        "requested address)"));
    qel_fake::fail(op::fcntl, EBADF, 1);
    pass(2s);
    EXPECT_THAT(out.take(), HasSubstr("<qel_mng> 3: QEL create subscription socket failed(ret:-1, err:9:Bad "
                                      "file descriptor)"));
    qel_fake::fail(op::fcntl, EPERM, 2);
    pass(2s);
    EXPECT_THAT(out.take(), HasSubstr("<qel_mng> 3: QEL create subscription socket failed(ret:-1, "
                                      "err:1:Operation not permitted)"));
    EXPECT_EQ(g_qel_mng.subscription_socket.load(), -1);
    pass(2s);
    EXPECT_GE(g_qel_mng.subscription_socket.load(), 0);
}

TEST_F(qel_rx, a_new_connection_restarts_the_pending_monitor_and_every_resume_and_resend_with_its_sequence) {
    begin({5}, {{5, 7}});
    timer_event(2, 4); // as if hours had passed: 4 hours to go, sequence 8
    receive(5, sync_of(7, 2, 5));
    receive(5, sync_of(7, 3, 5));
    const std::vector<sent_msg> sent = take_sent(); // two acknowledgements, of which one comes back
    ASSERT_EQ(sent.size(), 2u);
    qel_fake::push_returned(
        qel_get_app_sd(5), 4,
        wire({.flags = 1, .src_app = 5, .src_node = 1, .dst_app = 7, .dst_node = 2}, sent[0].data), 7, 2);
    settle();
    ASSERT_EQ(resumes(), 2u);
    ASSERT_EQ(resends(), 1u);
    std::vector<std::string> before;
    for (const qel_fake::timer &t : qel_fake::timers())
        before.push_back(qel_format("send timer %u %u/%u", t.ms, t.type, t.seq));
    before.erase(std::find(before.begin(), before.end(), "send timer 1800000 2/1"));
    ASSERT_EQ(before.size(), 4u);
    pass(999ms);
    take_short();

    qel_fake::push_recv_end(qel_fake::topology());
    settle();
    std::vector<std::string> timers;
    for (const std::string &call : take_short())
        if (call.starts_with("send timer"))
            timers.push_back(call);
    EXPECT_THAT(timers, testing::UnorderedElementsAreArray(before));

    pass(999ms);
    EXPECT_EQ(resends(), 1u) << "each starts with its full time";
    pass(1ms);
    EXPECT_EQ(resends(), 0u);
    pass(58'999ms);
    EXPECT_EQ(resumes(), 2u);
    pass(1ms);
    EXPECT_EQ(resumes(), 0u);
}

// ---- events of the topology server -----------------------------------------------------------------------

TEST_F(qel_rx, a_publication_is_told_and_answered_with_a_sync) {
    begin({5}, {{5, 7}});
    publish(7, 2);
    EXPECT_EQ(out.take(), "<qel_mng> 0: QEL perceived app [0x70002, 0x70002] join.\n"
                          "<qel_mng> 2: QEL perceived app 7/2 join.\n"
                          "<qel_mng_msg> 0: QEL app 5 sync inst to 7/2, seq 101.\n"
                          "<qel_mng_msg> 0: QEL app 5 sent to 7/2, msg len 60.\n");
}

TEST_F(qel_rx, a_published_range_joins_every_instance_ascending) {
    begin({5}, {{5, 7}});
    topology_event(TIPC_PUBLISHED, 0x7FFFD, 0x7FFFF, 7);
    EXPECT_EQ(out.take(), "<qel_mng> 0: QEL perceived app [0x7fffd, 0x7ffff] join.\n"
                          "<qel_mng> 2: QEL perceived app 7/65533 join.\n"
                          "<qel_mng_msg> 0: QEL app 5 sync inst to 7/65533, seq 101.\n"
                          "<qel_mng_msg> 0: QEL app 5 sent to 7/65533, msg len 60.\n"
                          "<qel_mng> 2: QEL perceived app 7/65534 join.\n"
                          "<qel_mng_msg> 0: QEL app 5 sync inst to 7/65534, seq 102.\n"
                          "<qel_mng_msg> 0: QEL app 5 sent to 7/65534, msg len 60.\n"
                          "<qel_mng> 2: QEL perceived app 7/65535 join.\n"
                          "<qel_mng_msg> 0: QEL app 5 sync inst to 7/65535, seq 103.\n"
                          "<qel_mng_msg> 0: QEL app 5 sent to 7/65535, msg len 60.\n");
}

TEST_F(qel_rx, an_event_about_everything_ends_and_concerns_the_subscribed_application_only) {
    begin({5}, {{5, 7}});
    qel_set_masks(1u << V);
    topology_event(TIPC_PUBLISHED, 0, 0xFFFFFFFF, 7);
    EXPECT_THAT(out.take(), StartsWith("<qel_mng> 0: QEL perceived app [0x0, 0xffffffff] join.\n"));
    const std::vector<sent_msg> syncs = take_sent();
    ASSERT_EQ(syncs.size(), 65536u);
    for (uint32_t node = 0; node < syncs.size(); node++) {
        ASSERT_EQ(syncs[node].app, 7u);
        ASSERT_EQ(syncs[node].node, node) << "ascending";
        ASSERT_TRUE(syncs[node].sync());
    }
    EXPECT_EQ(unacks(), 65536u);

    qel_set_masks(1u << W);
    topology_event(TIPC_WITHDRAWN, 0, 0xFFFFFFFF, 7);
    EXPECT_EQ(unacks(), 0u);
    const std::vector<std::string> lines = out.lines("qel_mng", W);
    ASSERT_EQ(lines.size(), 65536u);
    EXPECT_EQ(lines.front(), "QEL perceived app 7/0 quit.\n");
    EXPECT_EQ(lines.back(), "QEL perceived app 7/65535 quit.\n");
}

TEST_F(qel_rx, a_range_across_applications_is_clipped_to_the_subscribed_one) {
    begin({5}, {{5, 7}});
    qel_set_masks(1u << W);
    topology_event(TIPC_PUBLISHED, 0x6FFFF, 0x70001, 7);
    EXPECT_EQ(out.take(),
              "<qel_mng> 2: QEL perceived app 7/0 join.\n<qel_mng> 2: QEL perceived app 7/1 join.\n");
    topology_event(TIPC_PUBLISHED, 0x7FFFE, 0xFFFFFFFF, 7);
    EXPECT_EQ(out.take(),
              "<qel_mng> 2: QEL perceived app 7/65534 join.\n<qel_mng> 2: QEL perceived app 7/65535 join.\n");
    topology_event(TIPC_WITHDRAWN, 0x6FFFF, 0x70000, 7);
    EXPECT_EQ(out.take(), "<qel_mng> 2: QEL perceived app 7/0 quit.\n");
}

TEST_F(qel_rx, a_range_outside_the_subscription_or_upside_down_does_nothing) {
    begin({5}, {{5, 7}});
    qel_set_masks(1u << W);
    for (const uint32_t event : {TIPC_PUBLISHED, TIPC_WITHDRAWN}) {
        topology_event(event, 0x80000, 0x80005, 7);
        topology_event(event, 0x60000, 0x6FFFF, 7);
        topology_event(event, 0x70005, 0x70003, 7);
        topology_event(event, 0xFFFFFFFF, 0, 7);
    }
    EXPECT_EQ(out.take(), "");
    EXPECT_EQ(take_sent().size(), 0u);
}

TEST_F(qel_rx, an_event_whose_subscription_is_wider_than_an_application_ends_after_65536_instances) {
    begin({5}, {{5, 7}});
    qel_set_masks(0);
    tipc_subscr s = peer_subscription(7);
    s.seq.lower = 0x70000;
    s.seq.upper = 0xFFFFFFFF;
    topology_event(TIPC_PUBLISHED, 0, 0xFFFFFFFF, s);
    EXPECT_EQ(take_sent().size(), 65536u);
    s.seq.lower = 0xFFFFFFFE; // no application of ours up there, and the loop ends at the top
    topology_event(TIPC_PUBLISHED, 0, 0xFFFFFFFF, s);
    topology_event(TIPC_WITHDRAWN, 0, 0xFFFFFFFF, s);
    EXPECT_EQ(take_sent().size(), 0u);
}

TEST_F(qel_rx, a_publication_of_an_application_nobody_here_talks_to_is_told_only) {
    begin({5});
    topology_event(TIPC_PUBLISHED, 0x80002, 0x80002, 8);
    EXPECT_EQ(out.take(), "<qel_mng> 0: QEL perceived app [0x80002, 0x80002] join.\n"
                          "<qel_mng> 2: QEL perceived app 8/2 join.\n");
    topology_event(TIPC_WITHDRAWN, 0x80002, 0x80002, 8);
    EXPECT_EQ(out.take(), "<qel_mng> 0: QEL perceived app [0x80002, 0x80002] quit.\n"
                          "<qel_mng> 2: QEL perceived app 8/2 quit.\n");
    EXPECT_EQ(take_short().size(), 0u);
}

TEST_F(qel_rx, the_withdrawal_of_an_online_instance_is_told_and_quits_it) {
    begin({5}, {{5, 7}});
    shake_hands(7, 2);
    withdraw(7, 2);
    EXPECT_EQ(out.take(), "<qel_mng> 0: QEL perceived app [0x70002, 0x70002] quit.\n"
                          "<qel_mng> 2: QEL perceived app 7/2 quit.\n"
                          "<qel_mng> 1: QEL clear app 7/2 online.\n"
                          "<qel_flow_ctrl> 1: QEL reset unack stat between app 5 and 7/2.\n"
                          "<qel_app_info> 1: QEL app 5 discard 7/2 msg.\n"
                          "<qel_rpc> 0: QEL try to terminate app 5 RPC to 7/2.\n"
                          "<qel_mng> 1: QEL notify app 5 of 7/2 quit.\n"
                          "<qel_app_info> 1: QEL app 5 dispatch app 7/2 event: application quit.\n");
    EXPECT_EQ(bits(7, 2), "");
    EXPECT_THAT(take_short(), ElementsAre()) << "a single instance's name is announced again by itself";
}

TEST_F(qel_rx, the_withdrawal_of_an_instance_that_only_sent_its_sync_keeps_its_instances_bit) {
    begin({5}, {{5, 7}});
    receive(5, sync_of(7, 2, 5));
    ASSERT_EQ(bits(7, 2), "I");
    out.take();
    withdraw(7, 2);
    EXPECT_EQ(bits(7, 2), "I");
    EXPECT_EQ(out.take(), "<qel_mng> 0: QEL perceived app [0x70002, 0x70002] quit.\n"
                          "<qel_mng> 2: QEL perceived app 7/2 quit.\n"
                          "<qel_mng> 0: QEL clear resume comm to 7/2.\n"
                          "<qel_flow_ctrl> 1: QEL reset unack stat between app 5 and 7/2.\n"
                          "<qel_flow_ctrl> 0: QEL app 5 add new send flow ctrl to 7/2.\n"
                          "<qel_flow_ctrl> 0: QEL app 5 add new recv flow ctrl from 7/2.\n");
    EXPECT_EQ(events().size(), 0u);
}

TEST_F(qel_rx,
       the_withdrawal_of_an_acked_instance_resets_all_subscribers_ends_the_firsts_calls_and_tells_none) {
    begin({5, 9}, {{5, 7}, {9, 7}});
    publish(7, 2);
    receive(5, ack_of(7, 2, 5, {.seq = sync_seq(5, 7, 2)}));
    ASSERT_EQ(bits(7, 2), "SA");
    reply_set set5, set9;
    open_rpc(5, 1, {{7, 2}}, &set5);
    open_rpc(9, 1, {{7, 2}}, &set9);
    out.take();

    withdraw(7, 2);
    EXPECT_EQ(bits(7, 2), "");
    EXPECT_EQ(events().size(), 0u);
    EXPECT_EQ(out.take(), "<qel_mng> 0: QEL perceived app [0x70002, 0x70002] quit.\n"
                          "<qel_mng> 2: QEL perceived app 7/2 quit.\n"
                          "<qel_flow_ctrl> 1: QEL reset unack stat between app 5 and 7/2.\n"
                          "<qel_flow_ctrl> 0: QEL app 5 add new send flow ctrl to 7/2.\n"
                          "<qel_flow_ctrl> 0: QEL app 5 add new recv flow ctrl from 7/2.\n"
                          "<qel_rpc> 0: QEL try to terminate app 5 RPC to 7/2.\n"
                          "<qel_rpc> 2: QEL terminate app 5 seq 1 RPC to 7/2.\n"
                          "<qel_flow_ctrl> 1: QEL reset unack stat between app 9 and 7/2.\n"
                          "<qel_flow_ctrl> 0: QEL app 9 add new send flow ctrl to 7/2.\n"
                          "<qel_flow_ctrl> 0: QEL app 9 add new recv flow ctrl from 7/2.\n");
    ASSERT_EQ(set5.set.count, 1) << "the first subscriber's calls end";
    EXPECT_EQ(set5.set.msg[0]->hdr.rpc_status, 4u);
    EXPECT_EQ(set9.set.count, 0) << "the second one's do not: the bit has fallen";
    EXPECT_EQ(unacks_to(7, 2), 0u);
}

TEST_F(qel_rx, a_withdrawal_drops_pending_syncs_and_resumes_also_without_a_record) {
    begin({5}, {{5, 7}});
    publish(7, 2);
    publish(7, 3);
    receive(5, sync_of(8, 2, 5)); // 8 has no record: acknowledged, and a resume is pending
    ASSERT_EQ(unacks(), 2u);
    ASSERT_EQ(resumes(), 1u);
    withdraw(7, 2);
    EXPECT_EQ(unacks_to(7, 2), 0u);
    EXPECT_EQ(unacks_to(7, 3), 1u);
    out.take();
    topology_event(TIPC_WITHDRAWN, 0x80002, 0x80002, 8);
    EXPECT_EQ(out.take(), "<qel_mng> 0: QEL perceived app [0x80002, 0x80002] quit.\n"
                          "<qel_mng> 2: QEL perceived app 8/2 quit.\n"
                          "<qel_mng> 0: QEL clear resume comm to 8/2.\n");
    EXPECT_EQ(resumes(), 0u);
}

// The callback of a quit, between two nodes of one event.
std::vector<std::string> g_seen_by_callback;
void look_at_presence(qel_app_event event) {
    if (event.event == QEL_EVENT_QUIT)
        g_seen_by_callback.push_back(qel_format("quit %u, online: %d %d %d", event.node,
                                                qel_is_app_online(2, 7), qel_is_app_online(3, 7),
                                                qel_is_app_online(4, 7)));
}

TEST_F(qel_rx, a_withdrawn_range_quits_node_by_node_ascending_and_the_lock_is_free_in_between) {
    ASSERT_EQ(qel_register_without_thread(5, "five", keep_table, look_at_presence), 0);
    begin({}, {{5, 7}});
    for (const uint32_t node : {4u, 2u, 3u})
        shake_hands(7, node);
    qel_set_masks(1u << W);
    topology_event(TIPC_WITHDRAWN, 0x70002, 0x70004, 7);
    EXPECT_THAT(g_seen_by_callback,
                ElementsAre("quit 2, online: 0 1 1", "quit 3, online: 0 0 1", "quit 4, online: 0 0 0"));
    EXPECT_EQ(out.take(), "<qel_mng> 2: QEL perceived app 7/2 quit.\n"
                          "<qel_mng> 2: QEL perceived app 7/3 quit.\n"
                          "<qel_mng> 2: QEL perceived app 7/4 quit.\n"
                          "<qel_mng> 2: QEL perceived app 7/2 join.\n" // their names stand
                          "<qel_mng> 2: QEL perceived app 7/3 join.\n"
                          "<qel_mng> 2: QEL perceived app 7/4 join.\n");
}

TEST_F(qel_rx, after_the_withdrawal_of_a_range_the_peer_is_subscribed_anew_so_that_what_stands_is_announced) {
    begin({5}, {{5, 7}});
    shake_hands(7, 2);
    topology_event(TIPC_WITHDRAWN, 0, 0xFFFFFFFF, 7); // somebody's wide name went; 7 on node 2 stands
    EXPECT_FALSE(qel_is_app_online(2, 7)) << "until its new handshake";
    tipc_subscr cancel = peer_subscription(7);
    cancel.filter = 6;
    const std::vector<qel_fake::call> sends = qel_fake::calls(op::send);
    ASSERT_EQ(sends.size(), 2u);
    EXPECT_EQ(sends[0].data, as_bytes(cancel)) << "exactly the record that was sent, and the cancel bit";
    EXPECT_EQ(sends[1].data, as_bytes(peer_subscription(7)));
    EXPECT_EQ(qel_fake::subscriptions().size(), 3u) << "5, 7 and the monitor: none is doubled";
    const std::vector<sent_msg> sent = take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_TRUE(sent[0].sync()) << "the new subscription announced it";
    EXPECT_TRUE(out.has("<qel_mng> 1: QEL cancel TIPC subscription instance [0x70000, 0x7ffff] event.\n"
                        "<qel_mng> 1: QEL subscribe TIPC instance [0x70000, 0x7ffff] event.\n"
                        "<qel_mng> 0: QEL perceived app [0x70002, 0x70002] join.\n"));
}

TEST_F(qel_rx, unknown_kinds_of_events_and_timers_do_nothing) {
    begin({5}, {{5, 7}});
    for (const uint32_t event : {0u, 4u, 0xFFFFFFFFu})
        topology_event(event, 0x70002, 0x70002, 7);
    EXPECT_EQ(out.take(), "");
    timer_event(3, 7);
    timer_event(0xFFFFFFFF, 0xFFFFFFFE);
    EXPECT_EQ(out.take(), "<qel_mng> 0: QEL perceived timer event of type 3 seq 7.\n"
                          "<qel_mng> 0: QEL perceived timer event of type -1 seq -2.\n");
    EXPECT_THAT(take_short(), ElementsAre());
}

TEST_F(qel_rx, timers_without_a_record_do_nothing) {
    begin({5}, {{5, 7}});
    timer_event(0, 1);
    timer_event(0, 0);
    timer_event(1, 1);
    timer_event(1, 0);
    EXPECT_EQ(out.take(), "<qel_mng> 0: QEL perceived timer event of type 0 seq 1.\n"
                          "<qel_mng> 0: QEL perceived timer event of type 0 seq 0.\n"
                          "<qel_mng> 0: QEL perceived timer event of type 1 seq 1.\n"
                          "<qel_mng> 0: QEL perceived timer event of type 1 seq 0.\n");
    EXPECT_THAT(take_short(), ElementsAre());
}

// ---- the monitor -----------------------------------------------------------------------------------------

TEST_F(qel_rx, the_monitor_expires_after_1800_s_then_after_1_2_4_to_512_hours_then_again_after_1) {
    begin({5});
    qel_set_masks(0);
    std::vector<std::pair<uint32_t, uint32_t>> intervals; // seconds, sequence
    for (int i = 0; i < 13; i++) {
        const std::vector<qel_fake::timer> timers = qel_fake::timers();
        ASSERT_EQ(timers.size(), 1u) << "one at a time";
        EXPECT_EQ(timers[0].type, 2u);
        intervals.emplace_back(timers[0].ms / 1000, timers[0].seq);
        ASSERT_TRUE(qel_fake::end_timer(2, timers[0].seq));
        settle();
    }
    const std::vector<std::pair<uint32_t, uint32_t>> wanted = {
        {1800, 1},          {3600, 2},       {3600 * 2, 4},    {3600 * 4, 8},     {3600 * 8, 16},
        {3600 * 16, 32},    {3600 * 32, 64}, {3600 * 64, 128}, {3600 * 128, 256}, {3600 * 256, 512},
        {3600 * 512, 1024}, {3600, 2},       {3600 * 2, 4}};
    EXPECT_EQ(intervals, wanted);
}

TEST_F(qel_rx, a_monitor_expiry_with_any_sequence_starts_exactly_one_next_timer) {
    begin({5});
    qel_set_masks(0);
    const std::vector<std::array<uint32_t, 3>> cases = {
        {0, 3600, 2},    {1, 3600, 2},    {3, 10800, 6},         {1023, 3600 * 1023, 2046},
        {1024, 3600, 2}, {2046, 3600, 2}, {0x7FFFFFFF, 3600, 2}, {0xFFFFFFFF, 3600, 2}};
    for (const auto &[seq, seconds, next] : cases) {
        qel_fake::take_calls();
        timer_event(2, seq);
        EXPECT_THAT(take_short(), ElementsAre(qel_format("send timer %u 2/%u", seconds * 1000, next))) << seq;
    }
}

TEST_F(qel_rx, at_its_time_the_monitor_tells_the_time_and_rewrites_the_statistics_of_the_first_application) {
    setenv("TZ", "UTC", 1);
    tzset();
    set_conf("[MISC_CONF]\nqel_log_cfg = 8\n"); // without a log there are no statistics
    begin({5, 9}, {{5, 7}});
    pass(1800s - 1ns);
    EXPECT_EQ(out.take(), "");
    const std::string before = lib_print(5);
    pass(1ns);
    EXPECT_EQ(out.take(), "<qel_mng> 0: QEL perceived timer event of type 2 seq 1.\n"
                          "<qel_mng> 0: QEL monitor timer: Tue Jan  2 03:34:06 2024\n"
                          "<qel_mng> 0: QEL add timer event type 2, seq 2.\n");
    EXPECT_THAT(take_short(), ElementsAre("send timer 3600000 2/2"));
    ASSERT_EQ(before, lib_print(5));
    const std::string text =
        lib_print(5) + "\n" + app_print(5) + "\n" + fc_print(5) + "\n" + rpc_print(5) + "\n";
    std::string file;
    for (const std::string &name : list_dir(log_dir))
        if (name.starts_with("stat-"))
            file = read_file(log_dir + "/" + name);
    EXPECT_EQ(file, "Tue Jan  2 03:34:06 2024\n" + text + '\0');

    shake_hands(7, 2); // the next snapshot replaces the whole file
    pass(3600s);
    EXPECT_TRUE(out.has("<qel_mng> 0: QEL monitor timer: Tue Jan  2 04:34:06 2024\n"));
    for (const std::string &name : list_dir(log_dir))
        if (name.starts_with("stat-"))
            file = read_file(log_dir + "/" + name);
    EXPECT_THAT(file, StartsWith("Tue Jan  2 04:34:06 2024\nApplication 5/1 process's QEL library"));
    EXPECT_THAT(file, HasSubstr("    Application 7 instance online on nodes: 2\n"));
}

} // namespace
