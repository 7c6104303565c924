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
    const qel_child child = qel_run_child([] {
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

TEST_F(qel_rx, overlapping_ranges_add_no_sync_to_one_under_way_but_the_name_of_an_instance_does) {
    begin({5, 9}, {{5, 7}, {9, 7}});
    for (uint32_t lower = 0x70000; lower < 0x70010; lower++)
        topology_event(TIPC_PUBLISHED, lower, 0x7000F + (lower & 3), 7);
    EXPECT_EQ(take_sent().size(), 2 * 19u) << "one for each of the two, to each instance";
    EXPECT_EQ(unacks(), 2 * 19u);
    topology_event(TIPC_PUBLISHED, 0x70002, 0x70002, 7);
    EXPECT_EQ(unacks_to(7, 2), 4u);
    topology_event(TIPC_WITHDRAWN, 0x70000, 0x70012, 7);
    EXPECT_EQ(unacks(), 0u);
    topology_event(TIPC_PUBLISHED, 0x70000, 0x70012, 7);
    EXPECT_EQ(unacks(), 2 * 19u);
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

// ---- messages --------------------------------------------------------------------------------------------

// Application 5 talks to 7, whose instance on node 2 is online.
struct qel_rx_msg : qel_rx {
    void SetUp() override {
        begin({5}, {{5, 7}});
        shake_hands(7, 2);
    }
    static bytes from_peer(qel_head head = {}, const std::string &text = "") {
        head.src_app = 7;
        head.src_node = 2;
        head.dst_app = 5;
        return wire(head, text);
    }
};

TEST_F(qel_rx_msg, a_one_way_message_reaches_the_dispatcher_in_host_order) {
    receive(5, from_peer({.dst_node = 1, .app_ver = 1, .qos = 9}, "text"));
    EXPECT_EQ(out.take(), "<qel_mng> 0: QEL app 5 recv new msg.\n"
                          "<qel_app_info> 0: QEL dispatch app 5 msg from 7/2, ver 1, data len 4, msg flags: "
                          "none.\n"
                          "<qel_flow_ctrl> 0: QEL app 5 update recv OK from 7/2.\n");
    ASSERT_EQ(got().size(), 1u);
    const qel_hdr hdr = got()[0].hdr;
    EXPECT_EQ(hdr.len, 40u);
    EXPECT_EQ(hdr.src_app, 7u);
    EXPECT_EQ(hdr.src_node, 2u);
    EXPECT_EQ(hdr.dst_app, 5u);
    EXPECT_EQ(hdr.dst_node, 1u);
    EXPECT_EQ(hdr.app_ver, 1u);
    EXPECT_EQ(hdr.qos, 9u);
    EXPECT_EQ(got()[0].data, to_bytes("text"));
}

TEST_F(qel_rx, with_a_thread_messages_are_queued_for_the_application_in_order_of_arrival) {
    begin({5}, {{5, 7}}, true);
    shake_hands(7, 2);
    for (uint32_t i = 0; i < 100; i++)
        deliver(5, wire({.src_app = 7, .src_node = 2, .dst_app = 5, .seq = i}));
    settle();
    ASSERT_EQ(got().size(), 100u);
    for (uint32_t i = 0; i < 100; i++)
        EXPECT_EQ(got()[i].hdr.seq, i);
}

TEST_F(qel_rx_msg, version_reserved_byte_and_destination_node_are_not_checked) {
    bytes b = from_peer({.dst_node = 4711, .version = 0}, "a");
    receive(5, b);
    b[0] = 0xFF;
    b[1] = 0xFF;
    receive(5, b);
    ASSERT_EQ(got().size(), 2u);
    EXPECT_EQ(got()[0].hdr.version, 0);
    EXPECT_EQ(got()[1].hdr.version, 0xFF);
    EXPECT_EQ(got()[1].hdr.reserved, 0xFF);
    EXPECT_EQ(got()[1].hdr.dst_node, 4711u);
}

std::string raw_dump(const bytes &b) {
    std::string text = qel_format("=== QEL message raw data len %zu ===\n", b.size());
    for (size_t i = 0; i < b.size(); i++)
        text += qel_format(i % 16 == 15 ? " %02x\n" : " %02x", b[i]);
    return text + "\n";
}
// What the dump shows: the fields of a whole header have been converted by then.
bytes converted(bytes b) {
    if (b.size() >= QEL_MSG_HDR_LEN)
        for (size_t at = 4; at < QEL_MSG_HDR_LEN; at += 4)
            qel_store_be32(&b[at], qel_load_host32(&b[at]));
    return b;
}
std::string length_error(const bytes &b, uint32_t expected) {
    return "<qel_mng> 0: QEL app 5 recv new msg.\n" +
           qel_line("qel_mng", X, "QEL app 5 recv msg len %zu, expectedly %d.\n", b.size(),
                    static_cast<int>(expected)) +
           "<qel_flow_ctrl> 3: QEL app 5 update recv exception msg.\n" + raw_dump(converted(b));
}

TEST_F(qel_rx_msg, every_prefix_of_a_message_is_a_length_error_an_exception_and_a_raw_dump) {
    const bytes whole = from_peer({.app_ver = 1}, "12345678");
    for (size_t size = 1; size < whole.size(); size++) {
        const bytes part(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
        receive(5, whole); // leaves its length in the buffer
        out.take();
        receive(5, part);
        uint32_t shown = 44;
        if (size < QEL_MSG_HDR_LEN) { // as it came: bytes that are missing read 0
            bytes head = part;
            head.resize(QEL_MSG_HDR_LEN);
            shown = qel_load_host32(&head[4]);
        }
        ASSERT_EQ(out.take(), length_error(part, shown)) << size;
        ASSERT_EQ(exceptions(5), size);
    }
    EXPECT_EQ(got().size(), whole.size() - 1) << "only the whole ones";
}

TEST_F(qel_rx_msg, a_length_field_that_is_not_the_received_size_is_an_error_whatever_it_says) {
    unsigned errors = 0;
    for (const int64_t len :
         {INT64_C(0), INT64_C(1), INT64_C(35), INT64_C(36), INT64_C(39), INT64_C(41), INT64_C(65572),
          INT64_C(65573), INT64_C(0x7FFFFFFF), INT64_C(0x80000000), INT64_C(0xFFFFFFFF)}) {
        const bytes b = from_peer({.len = len}, "text");
        receive(5, b);
        EXPECT_EQ(out.take(), length_error(b, static_cast<uint32_t>(len)));
        EXPECT_EQ(exceptions(5), ++errors);
    }
    EXPECT_EQ(got().size(), 0u);
}

TEST_F(qel_rx_msg, the_largest_message_passes_and_anything_longer_is_an_error_and_never_an_assertion) {
    receive(5, from_peer({}, std::string(65536, 'x')));
    ASSERT_EQ(got().size(), 1u);
    EXPECT_EQ(got()[0].hdr.len, 65572u);
    EXPECT_EQ(got()[0].data, to_bytes(std::string(65536, 'x')));
    out.take();
    unsigned errors = 0;
    for (const size_t size : {65573u, 65574u, 65999u, 66000u}) {
        const bytes b = from_peer({}, std::string(size - 36, 'y'));
        receive(5, b);
        EXPECT_EQ(out.take(), length_error(b, static_cast<uint32_t>(size)));
        EXPECT_EQ(exceptions(5), ++errors);
    }
    receive(5, from_peer({}, "after"));
    EXPECT_EQ(got().size(), 2u);
}

TEST_F(qel_rx_msg, a_datagram_longer_than_any_is_cut_and_refused) {
    const bytes b =
        from_peer({}, std::string(70000 - 36, 'z')); // no transport gives it; the buffer holds 66,000
    receive(5, b);
    bytes cut(b.begin(), b.begin() + 66000);
    EXPECT_EQ(out.take(), length_error(cut, 70000));
    receive(5, from_peer({}, "after"));
    EXPECT_EQ(got().size(), 1u);
}

// Dropped with nothing but the count of an exception.
TEST_F(qel_rx_msg, a_message_for_another_application_or_from_no_possible_sender_is_counted_and_dropped) {
    const uint32_t no_apps[] = {0, 8192, 12288, 12289, 16383, 20480, 0x10007, 0x80000007, 0xFFFFFFFF};
    std::vector<qel_head> bad;
    for (const uint8_t flags : {0x00, 0x01, 0x02, 0x06, 0x08, 0x0A, 0x0E}) {
        for (const uint32_t dst : {0u, 1u, 4u, 6u, 7u, 0x10005u, 0xFFFFFFFFu})
            bad.push_back({.flags = flags, .src_app = 7, .src_node = 2, .dst_app = dst});
        for (const uint32_t src : no_apps)
            bad.push_back({.flags = flags, .src_app = src, .src_node = 2, .dst_app = 5});
        for (const uint32_t node : {65536u, 65538u, 0x80000002u, 0xFFFFFFFFu})
            bad.push_back({.flags = flags, .src_app = 7, .src_node = node, .dst_app = 5});
    }
    unsigned count = 0;
    for (const qel_head &head : bad) {
        const bytes data =
            head.flags & QEL_FLAG_SYNC ? tlv(QEL_TLV_SYNC, {1, 4711, 1, 1, 600}) : tlv(QEL_TLV_FC_ACK, {1});
        receive(5, wire(head, data));
        ASSERT_EQ(out.take(), "<qel_mng> 0: QEL app 5 recv new msg.\n"
                              "<qel_flow_ctrl> 3: QEL app 5 update recv exception msg.\n")
            << head.src_app << "/" << head.src_node << " to " << head.dst_app << " flags " << +head.flags;
        ASSERT_EQ(exceptions(5), ++count);
    }
    EXPECT_EQ(take_sent().size(), 0u);
    EXPECT_EQ(got().size(), 0u);
    EXPECT_EQ(bits(7, 2), "SIAO");
    EXPECT_EQ(sync_ids(), 1u);
}

TEST_F(qel_rx_msg, every_possible_sender_is_let_through_the_gate) {
    for (const uint32_t app : {1u, 7u, 8191u, 16384u, 20479u})
        for (const uint32_t node : {0u, 2u, 65535u})
            receive(5, wire({.src_app = app, .src_node = node, .dst_app = 5}));
    EXPECT_EQ(exceptions(5), 0u);
    EXPECT_EQ(got().size(), 3u + 1u) << "the daemon's, and the online peer's";
}

TEST_F(qel_rx_msg, every_flipped_bit_of_a_message_is_refused_filtered_or_delivered_as_its_fields_say) {
    const bytes good = from_peer({.seq = 3, .qos = 5}, "data");
    for (size_t bit = 0; bit < good.size() * 8; bit++) {
        bytes b = good;
        b[bit / 8] = static_cast<uint8_t>(b[bit / 8] ^ 1u << bit % 8);
        const qel_seen s = unwire(b);
        const unsigned exceptions_before = exceptions(5);
        const size_t got_before = got().size();
        receive(5, b);
        const std::string text = out.take();
        const size_t delivered = got().size() - got_before;
        const unsigned refused = exceptions(5) - exceptions_before;
        if (s.hdr.len != b.size()) {
            EXPECT_THAT(text, HasSubstr("expectedly")) << bit;
            EXPECT_EQ(refused, 1u) << bit;
            EXPECT_EQ(delivered, 0u) << bit;
        } else if (s.hdr.dst_app != 5 || s.hdr.src_node > 65535 || !qel_valid_app_id(s.hdr.src_app)) {
            EXPECT_EQ(refused, 1u) << bit;
            EXPECT_EQ(delivered, 0u) << bit;
        } else if (s.hdr.flags & (QEL_FLAG_SYNC | QEL_FLAG_MNG)) {
            EXPECT_THAT(text, HasSubstr("QEL recv invalid TLV section for 5 from 7/2 .")) << bit;
            EXPECT_EQ(delivered, 0u) << bit;
        } else if (s.hdr.src_app != 7 || s.hdr.src_node != 2) {
            EXPECT_THAT(text, HasSubstr("had already quit")) << bit;
            EXPECT_EQ(delivered, 0u) << bit;
        } else {
            EXPECT_EQ(refused, 0u) << bit;
            EXPECT_EQ(delivered, s.hdr.app_ver == 1 ? 1u : 0u) << bit;
            if (delivered) {
                EXPECT_EQ(memcmp(&got().back().hdr, &s.hdr, sizeof s.hdr), 0) << bit;
            }
        }
    }
}

TEST_F(qel_rx_msg, each_of_the_256_values_of_the_flags_byte_goes_where_its_bits_say) {
    const bytes section = tlv(9, {});
    for (unsigned flags = 0; flags < 256; flags++) {
        const size_t got_before = got().size();
        receive(5, wire({.flags = static_cast<uint8_t>(flags), .src_app = 7, .src_node = 2, .dst_app = 5},
                        section));
        const std::string text = out.take();
        const bool sync = text.find("recv sync msg from 7/2, data len 0, type .\n") != std::string::npos;
        const bool mng = text.find("recv mgmt msg from 7/2, data len 0, type .\n") != std::string::npos;
        const bool reply = text.find("QEL add RPC reply for app 5 seq 0 from 7/2") != std::string::npos;
        const bool queued = got().size() == got_before + 1;
        EXPECT_EQ(sync + mng + reply + queued, 1) << flags << "\n" << text;
        EXPECT_EQ(sync, (flags & 1) != 0) << flags;
        EXPECT_EQ(mng, (flags & 9) == 8) << flags;
        EXPECT_EQ(reply, (flags & 9) == 0 && (flags & 6) == 6) << flags;
        if (queued) {
            EXPECT_EQ(got().back().hdr.flags, flags);
        }
    }
}

TEST_F(qel_rx_msg, a_source_that_is_not_online_is_refused_by_kind_for_each_value_of_the_flags_byte) {
    uint32_t drops = 0;
    const bytes section = tlv(9, {});
    for (unsigned flags = 0; flags < 256; flags++) {
        receive(
            5,
            wire({.flags = static_cast<uint8_t>(flags), .src_app = 7, .src_node = 3, .dst_app = 5, .seq = 77},
                 section));
        const std::string text = out.take();
        const std::vector<sent_msg> replies = take_sent();
        const bool quit =
            text.find("<qel_mng> 0: QEL app 5 recv msg from 7/3 had already quit.\n") != std::string::npos;
        EXPECT_EQ(quit, (flags & 1) == 0) << flags;
        const bool request = quit && (flags & 6) == 2;
        ASSERT_EQ(replies.size(), request ? 1u : 0u) << flags;
        if (request) {
            const qel_hdr &hdr = replies[0].hdr;
            EXPECT_EQ(hdr.flags, flags | 4u);
            EXPECT_EQ(hdr.version, 1);
            EXPECT_EQ(hdr.len, 36u);
            EXPECT_EQ(hdr.src_app, 5u);
            EXPECT_EQ(hdr.src_node, 1u);
            EXPECT_EQ(hdr.dst_app, 7u);
            EXPECT_EQ(hdr.dst_node, 3u);
            EXPECT_EQ(hdr.app_ver, 1u);
            EXPECT_EQ(hdr.seq, 77u);
            EXPECT_EQ(hdr.rpc_status, 2u);
            EXPECT_EQ(replies[0].app, 7u);
            EXPECT_EQ(replies[0].node, 3u);
        }
        drops += quit && !(flags & 8) && (flags & 6) != 6;
        if (drops) {
            EXPECT_EQ(recv_stat(5, 7, 3), qel_format("receive 0, unack 0, drop %u, return 0", drops))
                << flags;
        }
    }
    EXPECT_EQ(got().size(), 0u);
    EXPECT_EQ(exceptions(5), 0u);
}

TEST_F(qel_rx_msg, what_a_quit_source_sent_is_told_to_the_byte) {
    const qel_head head = {.src_app = 7, .src_node = 3, .dst_app = 5, .seq = 77};
    const std::string quit = "<qel_mng> 0: QEL app 5 recv new msg.\n"
                             "<qel_mng> 0: QEL app 5 recv msg from 7/3 had already quit.\n";
    const std::string drop = "<qel_flow_ctrl> 0: QEL app 5 update recv drop num 1 from 7/3.\n";
    const std::string unavailable = "<qel_rpc> 0: QEL app 5 reply to 7/3 seq 77 status: application service "
                                    "unavailable.\n"
                                    "<qel_mng_msg> 0: QEL app 5 sent to 7/3, msg len 36.\n";
    qel_head h = head;
    receive(5, wire(h, "one-way"));
    EXPECT_EQ(out.take(), quit + drop + "<qel_flow_ctrl> 0: QEL app 5 add new recv flow ctrl from 7/3.\n");
    h.flags = 2;
    receive(5, wire(h, "request"));
    EXPECT_EQ(out.take(), quit + drop + unavailable);
    h.flags = 6;
    receive(5, wire(h, "reply"));
    EXPECT_EQ(out.take(), quit);
    h.flags = 8;
    receive(5, wire(h, tlv(QEL_TLV_PING)));
    EXPECT_EQ(out.take(), quit);
    h.flags = 0x0A;
    receive(5, wire(h, tlv(QEL_TLV_APP_INFO)));
    EXPECT_EQ(out.take(), quit + unavailable);
    h.flags = 0x0E;
    receive(5, wire(h, tlv(QEL_TLV_APP_INFO)));
    EXPECT_EQ(out.take(), quit);
    EXPECT_EQ(recv_stat(5, 7, 3), "receive 0, unack 0, drop 2, return 0");
}

TEST_F(qel_rx_msg, a_request_that_cannot_be_answered_with_unavailable_is_freed_all_the_same) {
    qel_fake::fail_to(7, 3, EHOSTUNREACH);
    receive(5, wire({.flags = 2, .src_app = 7, .src_node = 3, .dst_app = 5}));
    EXPECT_TRUE(out.has("<qel_mng_msg> 2: QEL app 5 sent to 7/3 failed: No route to host, msg len 36, sent "
                        "-1.\n"));
    receive(5, from_peer({}, "after"));
    EXPECT_EQ(got().size(), 1u);
}

TEST_F(qel_rx_msg, syncs_and_messages_from_the_daemon_are_never_filtered_by_presence) {
    receive(5, wire({.src_app = 1, .src_node = 9, .dst_app = 5}, "daemon"));
    EXPECT_EQ(got().size(), 1u);
    receive(5, sync_of(8, 9, 5));
    EXPECT_EQ(take_sent().size(), 1u) << "the sync is acknowledged";
    EXPECT_THAT(out.take(), Not(HasSubstr("had already quit")));
}

TEST_F(qel_rx, messages_to_the_daemon_are_never_filtered_by_presence) {
    begin({1});
    for (unsigned flags = 0; flags < 16; flags++)
        receive(1, wire({.flags = static_cast<uint8_t>(flags), .src_app = 7, .src_node = 3, .dst_app = 1},
                        tlv(9)));
    EXPECT_THAT(out.take(), Not(HasSubstr("had already quit")));
    std::vector<unsigned> delivered;
    for (const kept &k : got())
        delivered.push_back(k.hdr.flags);
    EXPECT_THAT(delivered, ElementsAre(0u, 2u, 4u, 8u, 10u, 12u))
        << "replies found no call, syncs are no use";
}

TEST_F(qel_rx_msg, a_reply_that_somebody_waits_for_is_kept_and_one_that_nobody_waits_for_is_freed) {
    reply_set replies;
    open_rpc(5, 900, {{7, 2}}, &replies);
    receive(5, from_peer({.flags = 6, .seq = 901}, "stranger"));
    EXPECT_EQ(replies.set.count, 0);
    receive(5, from_peer({.flags = 6, .seq = 900}, "answer"));
    ASSERT_EQ(replies.set.count, 1);
    EXPECT_EQ(memcmp(qel_msg_data(replies.set.msg[0]), "answer", 6), 0);
    receive(5, from_peer({.flags = 6, .seq = 900}, "twice"));
    EXPECT_EQ(replies.set.count, 1);
}

TEST_F(qel_rx_msg, only_status_1_converts_data_words_and_only_whole_ones_that_are_there) {
    for (uint32_t status = 0; status <= 5; status++)
        for (size_t size = 0; size <= 13; size++) {
            std::string text;
            for (size_t i = 0; i < size; i++)
                text += static_cast<char>('a' + i);
            receive(5, from_peer({.status = status}, text));
            std::string wanted = text;
            for (size_t at = 0; status == 1 && at < 8 && at + 4 <= size; at += 4)
                std::reverse(wanted.begin() + static_cast<ptrdiff_t>(at),
                             wanted.begin() + static_cast<ptrdiff_t>(at) + 4);
            ASSERT_EQ(got().back().data, to_bytes(wanted)) << status << " " << size;
        }
}

TEST_F(qel_rx_msg, a_failed_receive_is_told_and_counted_and_one_with_nothing_to_read_leaves_no_trace) {
    unsigned count = 0;
    for (const auto &[error, text] : {std::pair{ENOMEM, "Cannot allocate memory"},
                                      {EINTR, "Interrupted system call"},
                                      {ECONNRESET, "Connection reset by peer"},
                                      {EFAULT, "Bad address"}}) {
        qel_fake::datagram in;
        in.err = error;
        receive(5, in);
        EXPECT_EQ(out.take(), qel_format("<qel_mng> 0: QEL app 5 recv new msg.\n"
                                         "<qel_mng> 3: QEL recv app 5 msg failed: %s.\n"
                                         "<qel_flow_ctrl> 3: QEL app 5 update recv exception msg.\n",
                                         text));
        EXPECT_EQ(exceptions(5), ++count);
    }
    qel_fake::datagram nothing; // a datagram of no length
    nothing.ghost = true;
    receive(5, nothing);
    EXPECT_EQ(out.take(), "");
    EXPECT_EQ(exceptions(5), count);
    receive(5, from_peer({}, "after"));
    EXPECT_EQ(got().size(), 1u);
}

TEST_F(qel_rx_msg, datagrams_of_no_length_never_block_the_thread) {
    for (int i = 0; i < 1000; i++) {
        qel_fake::datagram nothing;
        nothing.ghost = true;
        qel_fake::push(qel_get_app_sd(5), nothing);
    }
    receive(5, from_peer({}, "after"));
    EXPECT_EQ(got().size(), 1u);
    EXPECT_EQ(exceptions(5), 0u);
}

TEST_F(qel_rx_msg, the_control_data_of_a_message_with_data_is_not_looked_at) {
    qel_fake::datagram in;
    in.data = from_peer({}, "x");
    in.controls = {{.type = 99, .data = bytes(4)}, {.type = TIPC_RETDATA, .data = bytes(4)}};
    receive(5, in);
    EXPECT_EQ(got().size(), 1u);
    EXPECT_EQ(exceptions(5), 0u);
    EXPECT_THAT(out.take(), Not(testing::AnyOf(HasSubstr("ancillary"), HasSubstr("reject data"))));
}

// ---- what comes back -------------------------------------------------------------------------------------

qel_fake::control words_control(int type, const std::vector<uint32_t> &words) {
    qel_fake::control c;
    c.type = type;
    c.data.resize(words.size() * 4);
    memcpy(c.data.data(), words.data(), c.data.size());
    return c;
}

struct qel_rx_return : qel_rx_msg {
    // Of what 5 sent to 7 on node 2.
    static bytes ours(qel_head head = {}, const std::string &text = "hello") {
        head.src_app = 5;
        head.src_node = 1;
        head.dst_app = 7;
        head.dst_node = 2;
        return wire(head, text);
    }
    static bytes our_ack(uint32_t counter = 600, uint32_t seq = 0x5002) {
        return wire({.flags = 1, .src_app = 5, .src_node = 1, .dst_app = 7, .dst_node = 2},
                    tlv(QEL_TLV_SYNC_ACK, {seq, 99, 1, 0, counter}));
    }
    void receive_controls(std::vector<qel_fake::control> controls) {
        qel_fake::datagram in;
        in.controls = std::move(controls);
        receive(5, std::move(in));
    }
    void come_back(const bytes &what, uint32_t code = 4) {
        qel_fake::push_returned(qel_get_app_sd(5), code, what, 7, 2);
        settle();
    }
};
const std::string new_msg = "<qel_mng> 0: QEL app 5 recv new msg.\n";
const std::string rejected = "<qel_mng> 0: QEL app 5 recv TIPC reject data.\n";

TEST_F(qel_rx_return, a_returned_message_is_told_counted_and_dumped_in_the_order_of_the_records) {
    come_back(ours({.seq = 4, .qos = 2}));
    EXPECT_EQ(out.take(), new_msg +
                              "<qel_mng> 3: QEL app 5 recv error info TIPC overload, data size 41 bytes.\n" +
                              rejected +
                              "<qel_flow_ctrl> 0: QEL app 5 update recv retdata from 7/2.\n"
                              "===== QEL message header information =====\n"
                              "QEL version 1, flag: none, qos 2\n"
                              "message length 41, app version 1\n"
                              "src app/node 5/1, dst app/node 7/2\n"
                              "seq 4, RPC status RPC success\n"
                              "==========================================\n"
                              "<qel_mng> 0: QEL app 5 recv dst name = {0x8ff, 0x70002, 0x70002}");
    EXPECT_EQ(recv_stat(5, 7, 2), "receive 0, unack 0, drop 0, return 1");
    EXPECT_EQ(exceptions(5), 0u);
    come_back(ours({.flags = 2}));
    come_back(ours({.flags = 8}));
    EXPECT_EQ(recv_stat(5, 7, 2), "receive 0, unack 0, drop 0, return 3") << "of whatever kind";
}

TEST_F(qel_rx_return, a_long_message_comes_back_cut_and_counts_all_the_same) {
    come_back(ours({}, std::string(60000, 'x')));
    EXPECT_EQ(recv_stat(5, 7, 2), "receive 0, unack 0, drop 0, return 1");
    EXPECT_TRUE(out.has("message length 60036, app version 1\n"));
}

TEST_F(qel_rx_return, a_code_of_1_to_3_is_told_at_verbose_and_0_and_all_others_at_error) {
    const std::pair<uint32_t, const char *> codes[] = {
        {0, "3: QEL app 5 recv error info TIPC unknown"},
        {1, "0: QEL app 5 recv error info TIPC no name"},
        {2, "0: QEL app 5 recv error info TIPC no port"},
        {3, "0: QEL app 5 recv error info TIPC no node"},
        {4, "3: QEL app 5 recv error info TIPC overload"},
        {5, "3: QEL app 5 recv error info TIPC unknown"},
        {0xFFFFFFFF, "3: QEL app 5 recv error info TIPC unknown"}};
    for (const auto &[code, text] : codes) {
        receive_controls({words_control(TIPC_ERRINFO, {code, 0xFFFFFFFF})});
        EXPECT_EQ(out.take(), new_msg + "<qel_mng> " + text + ", data size 4294967295 bytes.\n");
    }
    EXPECT_EQ(exceptions(5), 0u) << "a datagram socket's error information is no failure";
}

TEST_F(qel_rx_return, when_the_socket_type_cannot_be_read_the_receive_counts_as_failed) {
    qel_fake::fail(op::getsockopt, ENOPROTOOPT);
    receive_controls({words_control(TIPC_ERRINFO, {2, 10})});
    EXPECT_EQ(out.take(),
              new_msg + "<qel_mng> 0: QEL app 5 recv error info TIPC no port, data size 10 bytes.\n" +
                  qel_line("qel_mng", X, "QEL app 5 get socket %d option failed: Protocol not available.\n",
                           qel_get_app_sd(5)) +
                  "<qel_mng> 3: QEL recv app 5 msg failed: Protocol not available.\n"
                  "<qel_flow_ctrl> 3: QEL app 5 update recv exception msg.\n");
    EXPECT_EQ(exceptions(5), 1u);
}

TEST_F(qel_rx_return, a_failed_receive_is_told_with_its_own_error_whatever_the_other_records_led_to) {
    qel_fake::fail(op::getsockopt, ENOPROTOOPT);
    come_back(our_ack()); // is kept, and a timer started: calls that leave their own errno
    EXPECT_EQ(resends(), 1u);
    EXPECT_TRUE(out.has("<qel_mng> 3: QEL recv app 5 msg failed: Protocol not available.\n")) << out.text();
}

TEST_F(qel_rx_return, a_failed_receive_still_walks_the_other_records) {
    qel_fake::fail(op::getsockopt, ENOPROTOOPT);
    come_back(ours());
    EXPECT_EQ(exceptions(5), 1u);
    EXPECT_EQ(recv_stat(5, 7, 2), "receive 0, unack 0, drop 0, return 1");
    EXPECT_TRUE(out.has("<qel_mng> 3: QEL recv app 5 msg failed: Protocol not available.\n"));
}

// What SO_TYPE says of the application's socket, in place of the truth.
int g_so_type;
int typed_getsockopt(int, int, int, void *value, socklen_t *len) {
    memcpy(value, &g_so_type, sizeof g_so_type);
    *len = sizeof g_so_type;
    return 0;
}

TEST_F(qel_rx_return, error_information_on_a_connection_is_a_failure_unless_it_was_shut_down) {
    static qel_port port = qel_port_get();
    port.getsockopt = typed_getsockopt;
    qel_port_set(&port);
    unsigned count = 0;
    for (const int type : {SOCK_STREAM, SOCK_SEQPACKET, SOCK_RDM, SOCK_DGRAM})
        for (uint32_t code = 0; code <= 6; code++) {
            g_so_type = type;
            receive_controls({words_control(TIPC_ERRINFO, {code, 0})});
            count += (type == SOCK_STREAM || type == SOCK_SEQPACKET) && code != 5;
            EXPECT_EQ(exceptions(5), count) << type << " " << code;
        }
}

TEST_F(qel_rx_return, a_result_of_0_without_control_data_is_nothing) {
    receive_controls({});
    EXPECT_EQ(out.take(), new_msg);
    EXPECT_EQ(exceptions(5), 0u);
}

TEST_F(qel_rx_return, records_of_other_types_are_told_and_the_walk_goes_on) {
    receive_controls({{.type = 0, .data = bytes(3)},
                      {.type = 4, .data = bytes(0)},
                      {.type = -1, .data = bytes(8)},
                      words_control(TIPC_DESTNAME, {2303, 0x70002, 0x70002})});
    EXPECT_EQ(out.take(), new_msg +
                              "<qel_mng> 2: QEL app 5 recv unrecognized ancillary data type 0\n"
                              "<qel_mng> 2: QEL app 5 recv unrecognized ancillary data type 4\n"
                              "<qel_mng> 2: QEL app 5 recv unrecognized ancillary data type 4294967295\n"
                              "<qel_mng> 0: QEL app 5 recv dst name = {0x8ff, 0x70002, 0x70002}");
    EXPECT_EQ(exceptions(5), 0u);
}

TEST_F(qel_rx_return, returned_data_below_a_header_is_incomplete_and_an_exception) {
    const bytes whole = ours();
    for (size_t size = 0; size < QEL_MSG_HDR_LEN; size++) {
        receive_controls({{.type = TIPC_RETDATA,
                           .data = bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size))}});
        ASSERT_EQ(out.take(), new_msg + rejected +
                                  "<qel_mng> 3: QEL app 5 recv incomplete reject data.\n"
                                  "<qel_flow_ctrl> 3: QEL app 5 update recv exception msg.\n")
            << size;
        ASSERT_EQ(exceptions(5), size + 1);
    }
    EXPECT_EQ(recv_stat(5, 7, 2), "receive 0, unack 0, drop 0, return 0");
}

TEST_F(qel_rx_return, error_information_or_a_name_that_is_too_short_ends_the_walk) {
    const qel_fake::control name = words_control(TIPC_DESTNAME, {2303, 1, 1});
    for (size_t size = 0; size < 8; size++) {
        receive_controls({{.type = TIPC_ERRINFO, .data = bytes(size)}, name});
        EXPECT_EQ(out.take(), new_msg) << size;
    }
    for (size_t size = 0; size < 12; size++) {
        receive_controls({{.type = TIPC_DESTNAME, .data = bytes(size)}, name});
        EXPECT_EQ(out.take(), new_msg) << size;
    }
    EXPECT_EQ(exceptions(5), 0u);
}

// The walk as it is told, on its own: the lines of the records that it reaches.
std::string walk_as_told(const bytes &control, bool *complete_return) {
    std::string text;
    *complete_return = false;
    for (size_t at = 0; control.size() >= 16 && at + 16 <= control.size();) {
        uint64_t len;
        int32_t level, type;
        memcpy(&len, &control[at], 8);
        memcpy(&level, &control[at + 8], 4);
        memcpy(&type, &control[at + 12], 4);
        if (len < 16 || len > control.size() - at)
            break;
        const uint64_t raised = (len + 7) & ~UINT64_C(7);
        if (at != 0 && raised > control.size() - at)
            break;
        const uint8_t *data = control.data() + at + 16;
        const size_t size = len - 16;
        if (type == TIPC_ERRINFO) {
            if (size < 8)
                break;
            const uint32_t code = qel_load_host32(data);
            text += qel_format("<qel_mng> %d: QEL app 5 recv error info %s, data size %u bytes.\n",
                               code >= 1 && code <= 3 ? V : X,
                               code == 1   ? "TIPC no name"
                               : code == 2 ? "TIPC no port"
                               : code == 3 ? "TIPC no node"
                               : code == 4 ? "TIPC overload"
                                           : "TIPC unknown",
                               qel_load_host32(data + 4));
        } else if (type == TIPC_RETDATA) {
            text += rejected;
            if (size < 36)
                text += "<qel_mng> 3: QEL app 5 recv incomplete reject data.\n";
            else
                *complete_return = true;
        } else if (type == TIPC_DESTNAME) {
            if (size < 12)
                break;
            text += qel_format("<qel_mng> 0: QEL app 5 recv dst name = {0x%x, 0x%x, 0x%x}",
                               qel_load_host32(data), qel_load_host32(data + 4), qel_load_host32(data + 8));
        } else {
            text += qel_format("<qel_mng> 2: QEL app 5 recv unrecognized ancillary data type %u\n",
                               static_cast<unsigned>(type));
        }
        at += raised;
    }
    return text;
}

// Only the lines of the walk itself.
std::string walk_lines(const std::string &text) {
    std::string lines;
    for (size_t at = 0; at < text.size();) {
        size_t end = text.find('\n', at);
        end = end == std::string::npos ? text.size() : end + 1;
        const std::string line = text.substr(at, end - at);
        for (const char *part :
             {"recv error info", "recv TIPC reject", "recv incomplete", "recv dst name", "recv unrecognized"})
            if (line.find(part) != std::string::npos)
                lines += line;
        at = end;
    }
    return lines;
}

bytes whole_control(const bytes &returned_message) {
    bytes b;
    for (const qel_fake::control &c :
         {words_control(TIPC_ERRINFO, {4, static_cast<uint32_t>(returned_message.size())}),
          qel_fake::control{.type = TIPC_RETDATA, .data = returned_message},
          words_control(TIPC_DESTNAME, {2303, 0x70002, 0x70002})}) {
        const uint64_t len = 16 + c.data.size();
        const int32_t level = SOL_TIPC, type = c.type;
        const size_t at = b.size();
        b.resize(at + ((len + 7) & ~UINT64_C(7)));
        memcpy(&b[at], &len, 8);
        memcpy(&b[at + 8], &level, 4);
        memcpy(&b[at + 12], &type, 4);
        if (!c.data.empty())
            memcpy(&b[at + 16], c.data.data(), c.data.size());
    }
    return b;
}

TEST_F(qel_rx_return, control_data_cut_at_any_length_is_walked_as_far_as_whole_records_reach) {
    for (const size_t data_size : {0u, 5u, 988u}) { // 988: the three records fill the buffer
        const bytes whole = whole_control(ours({}, std::string(data_size, 'x')));
        for (size_t cut = 0; cut <= whole.size(); cut++) {
            qel_fake::datagram in;
            in.raw_controls.assign(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(cut));
            receive(5, in);
            bool complete;
            const std::string wanted = walk_as_told(in.raw_controls, &complete);
            ASSERT_EQ(walk_lines(out.take()), wanted) << data_size << " cut at " << cut;
        }
        ASSERT_TRUE(data_size != 988 || whole.size() == 1096u);
    }
    EXPECT_EQ(exceptions(5), 0u);
}

TEST_F(qel_rx_return, control_data_with_any_flipped_bit_is_walked_without_leaving_it) {
    const bytes whole = whole_control(ours());
    for (size_t bit = 0; bit < whole.size() * 8; bit++) {
        qel_fake::datagram in;
        in.raw_controls = whole;
        in.raw_controls[bit / 8] = static_cast<uint8_t>(in.raw_controls[bit / 8] ^ 1u << bit % 8);
        receive(5, in);
        bool complete;
        const std::string wanted = walk_as_told(in.raw_controls, &complete);
        ASSERT_EQ(walk_lines(out.take()), wanted) << bit;
    }
}

TEST_F(qel_rx_return, any_record_length_ends_the_walk_or_steps_inside_the_data) {
    const bytes whole = whole_control(ours());
    for (const size_t record : {0u, 24u, 88u})
        for (const uint64_t len :
             {UINT64_C(0), UINT64_C(1), UINT64_C(15), UINT64_C(16), UINT64_C(17), UINT64_C(24), UINT64_C(27),
              UINT64_C(57), UINT64_C(64), UINT64_C(96), UINT64_C(119), UINT64_C(120), UINT64_C(121),
              UINT64_C(1096), UINT64_C(0x7FFFFFFFFFFFFFFF), UINT64_C(0x8000000000000000),
              UINT64_C(0xFFFFFFFFFFFFFFF8), UINT64_C(0xFFFFFFFFFFFFFFFF)}) {
            qel_fake::datagram in;
            in.raw_controls = whole;
            memcpy(&in.raw_controls[record], &len, 8);
            receive(5, in);
            bool complete;
            const std::string wanted = walk_as_told(in.raw_controls, &complete);
            ASSERT_EQ(walk_lines(out.take()), wanted) << record << " " << len;
        }
    come_back(ours());
    EXPECT_THAT(recv_stat(5, 7, 2), HasSubstr("return ")) << "and it lives";
}

TEST_F(qel_rx_return, a_message_to_the_daemon_that_comes_back_is_told_and_not_counted) {
    bytes b = wire({.src_app = 5, .src_node = 1, .dst_app = 1, .dst_node = 2}, "x");
    come_back(b);
    EXPECT_TRUE(out.has("<qel_flow_ctrl> 0: QEL app 5 update recv retdata from 1/2.\n"));
    EXPECT_EQ(recv_stat(5, 1, 2), "");
}

TEST_F(qel_rx, what_comes_back_to_the_daemon_ends_its_calls_to_that_instance_with_status_4) {
    begin({1});
    reply_set replies;
    open_rpc(1, 33, {{7, 2}, {7, 3}}, &replies);
    qel_fake::push_returned(
        qel_get_app_sd(1), 2,
        wire({.flags = 0x0A, .src_app = 1, .src_node = 1, .dst_app = 7, .dst_node = 2, .seq = 33}), 7, 2);
    settle();
    ASSERT_EQ(replies.set.count, 1);
    EXPECT_EQ(replies.set.msg[0]->hdr.rpc_status, 4u);
    EXPECT_EQ(replies.set.msg[0]->hdr.src_node, 2u);
    EXPECT_EQ(recv_stat(1, 7, 2), "") << "and counts nothing";
    EXPECT_TRUE(out.has("<qel_mng> 0: QEL app 1 recv TIPC reject data.\n"
                        "<qel_rpc> 0: QEL try to terminate app 1 RPC to 7/2.\n"
                        "<qel_rpc> 2: QEL terminate app 1 seq 33 RPC to 7/2.\n"
                        "===== QEL message header information =====\n"));
    EXPECT_EQ(exceptions(1), 0u);
}

TEST_F(qel_rx_return, a_destination_that_cannot_be_makes_no_record_of_flow_control) {
    for (const auto &[app, node] : std::vector<std::pair<uint32_t, uint32_t>>{
             {0, 2}, {0x10007, 2}, {7, 65536}, {7, 0xFFFFFFFF}, {0xFFFFFFFF, 2}, {12288, 2}}) {
        const std::string before = fc_print(5);
        come_back(wire({.src_app = 5, .src_node = 1, .dst_app = app, .dst_node = node}, "x"));
        EXPECT_EQ(fc_print(5), before) << app << "/" << node;
        EXPECT_TRUE(out.has("===== QEL message header information =====\n"));
    }
}

TEST_F(qel_rx_return, status_1_with_short_data_is_converted_within_the_returned_bytes_only) {
    for (size_t size = 0; size <= 9; size++) {
        come_back(ours({.status = 1}, std::string(size, 'x')));
        EXPECT_TRUE(out.take().find("seq 0, RPC status QEL version mismatch\n") != std::string::npos) << size;
    }
}

TEST_F(qel_rx_return, a_returned_acknowledgement_is_kept_for_a_second_with_one_try_less) {
    come_back(our_ack());
    EXPECT_EQ(out.take(), new_msg +
                              "<qel_mng> 3: QEL app 5 recv error info TIPC overload, data size 60 bytes.\n" +
                              rejected +
                              "<qel_mng> 0: QEL add timer event type 1, seq 102.\n"
                              "<qel_mng> 0: QEL add sync inst ack resend to 7/2, seq 20482.\n"
                              "===== QEL message header information =====\n"
                              "QEL version 1, flag: SYNC, qos 0\n"
                              "message length 60, app version 1\n"
                              "src app/node 5/1, dst app/node 7/2\n"
                              "seq 0, RPC status RPC success\n"
                              "==========================================\n"
                              "<qel_mng> 0: QEL app 5 recv dst name = {0x8ff, 0x70002, 0x70002}");
    EXPECT_THAT(take_short(), ElementsAre("other", "send timer 1000 1/102")); // SO_TYPE is read first
    EXPECT_EQ(resends(), 1u);
    EXPECT_EQ(recv_stat(5, 7, 2), "receive 0, unack 0, drop 0, return 0") << "a sync does not count";
    pass(1s - 1ns);
    EXPECT_EQ(take_sent().size(), 0u);
    pass(1ns);
    const std::vector<sent_msg> again = take_sent();
    ASSERT_EQ(again.size(), 1u);
    EXPECT_TRUE(again[0].ack());
    EXPECT_EQ(again[0].app, 7u);
    EXPECT_EQ(again[0].node, 2u);
    EXPECT_EQ(again[0].hdr.seq, 102u) << "the timer's";
    EXPECT_EQ(again[0].seq(), 0x5002u);
    EXPECT_EQ(be32_at(again[0].data, 8), 99u);
    EXPECT_EQ(be32_at(again[0].data, 12), 1u);
    EXPECT_EQ(again[0].counter(), 599u);
    EXPECT_EQ(resends(), 0u);
}

TEST_F(qel_rx_return, only_a_whole_sync_or_acknowledgement_is_kept_every_other_length_is_just_dumped) {
    const bytes whole = our_ack();
    for (size_t size = 36; size < whole.size(); size++) {
        bytes part(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
        come_back(part);
        ASSERT_EQ(resends(), 0u) << size;
        qel_store_be32(&part[4], static_cast<uint32_t>(size)); // and one whose length field agrees
        come_back(part);
        ASSERT_EQ(resends(), 0u) << size;
    }
    EXPECT_EQ(recv_stat(5, 7, 2), "receive 0, unack 0, drop 0, return 0");
    for (const int64_t len : {INT64_C(36), INT64_C(59), INT64_C(61), INT64_C(65572), INT64_C(0xFFFFFFFF)}) {
        bytes b = whole;
        qel_store_be32(&b[4], static_cast<uint32_t>(len));
        come_back(b);
        EXPECT_EQ(resends(), 0u) << len;
    }
    come_back(whole);
    EXPECT_EQ(resends(), 1u);
}

TEST_F(qel_rx_return, an_acknowledgement_with_more_behind_it_is_kept_whole) {
    bytes b = wire({.flags = 1, .src_app = 5, .src_node = 1, .dst_app = 7, .dst_node = 2}, [] {
        bytes section = tlv(QEL_TLV_SYNC_ACK, {0x5002, 99, 1, 0, 600});
        const bytes more = tlv(9, {1, 2, 3});
        section.insert(section.end(), more.begin(), more.end());
        return section;
    }());
    come_back(b);
    ASSERT_EQ(resends(), 1u);
    pass(1s);
    const std::vector<sent_msg> again = take_sent();
    ASSERT_EQ(again.size(), 1u);
    EXPECT_EQ(again[0].data.size(), 40u);
    EXPECT_EQ(be32_at(again[0].data, 20), 599u);
}

TEST_F(qel_rx_return, every_flipped_bit_of_a_returned_acknowledgement_is_kept_counted_or_dumped_as_it_reads) {
    const bytes whole = our_ack();
    for (size_t bit = 0; bit < whole.size() * 8; bit++) {
        bytes b = whole;
        b[bit / 8] = static_cast<uint8_t>(b[bit / 8] ^ 1u << bit % 8);
        const qel_seen s = unwire(b);
        const bool named = qel_valid_app_id(s.hdr.dst_app) && s.hdr.dst_node <= 65535;
        const bool sync = s.hdr.flags & QEL_FLAG_SYNC;
        // a section of status 1 was converted, so its first words are no section any more
        const bool stays = sync && named && s.hdr.src_app == 5 && s.hdr.len == 60 && s.hdr.rpc_status != 1 &&
                           s.data[0] == 0 && s.data[1] == 24 && s.data[2] == 0 && s.data[3] == 2;
        const size_t before = resends();
        const std::string stat = recv_stat(5, 7, 2);
        come_back(b);
        EXPECT_EQ(resends() - before, stays ? 1u : 0u) << bit;
        EXPECT_EQ(recv_stat(5, 7, 2) != stat, !sync && named) << bit;
        EXPECT_TRUE(out.take().find("===== QEL message header information =====\n") != std::string::npos);
    }
}

TEST_F(qel_rx_return, a_counter_of_0_is_not_kept_and_none_is_believed_above_600) {
    come_back(our_ack(0));
    EXPECT_EQ(resends(), 0u);
    EXPECT_THAT(out.take(), Not(HasSubstr("resend")));
    for (const auto &[counter, left] : std::vector<std::pair<uint32_t, uint32_t>>{
             {1, 0}, {2, 1}, {600, 599}, {601, 599}, {0xFFFFFFFF, 599}}) {
        take_sent();
        come_back(our_ack(counter));
        pass(1s);
        const std::vector<sent_msg> again = take_sent();
        ASSERT_EQ(again.size(), 1u) << counter;
        EXPECT_EQ(again[0].counter(), left) << counter;
    }
}

} // namespace
