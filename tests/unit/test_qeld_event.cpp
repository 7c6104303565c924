// The daemon's event threads: what they subscribe to, ask, record and survive.
#include "qel_rpc.h"
#include "qeld_world.h"

#include <cerrno>
#include <dirent.h>
#include <fstream>
#include <linux/tipc.h>

using std::chrono::seconds;

// The platform's watchdog: who is registered, how often it was fed.
static qel_mutex g_watchdog_mutex;
// Never destroyed: threads of the library and the daemon run on while the process ends.
static std::map<std::string, int> &g_registered = *new std::map<std::string, int>;
static std::map<std::string, int> &g_fed = *new std::map<std::string, int>;
extern "C" {
void watchdog_register(const char *name) {
    qel_lock lock(g_watchdog_mutex);
    g_registered[name]++;
}
void watchdog_feed(const char *name) {
    qel_lock lock(g_watchdog_mutex);
    g_fed[name]++;
}
void watchdog_unregister(const char *name) {
    qel_lock lock(g_watchdog_mutex);
    g_registered[name]--;
}
}
static int registered(const char *name) {
    qel_lock lock(g_watchdog_mutex);
    return g_registered[name];
}
static int fed(const char *name) {
    qel_lock lock(g_watchdog_mutex);
    return g_fed[name];
}

struct qeld_event : qeld_world {
    static void node_event(uint32_t event, uint32_t lower, uint32_t upper) {
        qel_fake::push_recv(g_app_mng.sd, event_record(event, 0, lower, upper));
    }
    static void range(uint32_t event, uint32_t lower, uint32_t upper) {
        qel_fake::push_recv(g_app_mng.sd, event_record(event, 2303, lower, upper));
    }
    static std::string nodes() {
        std::string text;
        for (uint32_t n = 0; n < 65536; n++)
            if (qeld_node_online(n))
                text += (text.empty() ? "" : " ") + std::to_string(n);
        return text;
    }
    static std::vector<std::string> thread_names() {
        std::vector<std::string> names;
        DIR *d = opendir("/proc/self/task");
        while (const dirent *e = readdir(d)) {
            std::ifstream file(std::string("/proc/self/task/") + e->d_name + "/comm");
            std::string name;
            if (std::getline(file, name))
                names.push_back(name);
        }
        closedir(d);
        return names;
    }
};

// ---- start ----------------------------------------------------------------------------------------------

TEST_F(qeld_event, both_subscriptions_are_sent_byte_for_byte_and_told_before) {
    qel_set_masks();
    const int fd = qel_create_subscription_socket();
    qel_capture out;
    ASSERT_EQ(qeld_subscr_event(fd), 0);
    EXPECT_EQ(out.take(), qel_line("qeld", V, "QELD subscribe TIPC node events.\n") +
                              qel_line("qeld", V, "QELD subscribe QEL app TIPC events.\n"));
    const auto sent = qel_fake::calls(qel_fake::op::send);
    ASSERT_EQ(sent.size(), 2u);
    const auto words = [](const std::vector<uint32_t> &w) {
        qel_fake::bytes b(w.size() * 4 + 8);
        memcpy(b.data(), w.data(), w.size() * 4);
        return b;
    };
    EXPECT_EQ(sent[0].data, words({0, 1, 0x7FFFFFFF, 0xFFFFFFFF, 2}));
    EXPECT_EQ(sent[1].data, words({2303, 0, 0xFFFFFFFF, 0xFFFFFFFF, 2}));
    EXPECT_EQ(sent[0].flags, MSG_NOSIGNAL);
    EXPECT_EQ(sent[1].flags, MSG_NOSIGNAL);
}

TEST_F(qeld_event, a_subscription_is_sent_again_while_the_kernel_is_short_of_something) {
    const int fd = qel_create_subscription_socket();
    qel_fake::fail(qel_fake::op::send, EINTR, 1);
    qel_fake::fail(qel_fake::op::send, ENOMEM, 2);
    qel_fake::fail(qel_fake::op::send, ENOBUFS, 4);
    EXPECT_EQ(qeld_subscr_event(fd), 0);
    EXPECT_EQ(qel_fake::count(qel_fake::op::send), 5u);
}

TEST_F(qeld_event, a_subscription_that_fails_is_told_with_a_comma_behind_the_newline) {
    qel_set_masks(8);
    const int fd = qel_create_subscription_socket();
    qel_capture out;
    qel_fake::fail(qel_fake::op::send, EPIPE, 1);
    EXPECT_EQ(qeld_subscr_event(fd), -1);
    EXPECT_EQ(out.take(), qel_line("qeld", X, "QELD send node subscription msg failed: Broken pipe.\n,"));
    qel_fake::fail(qel_fake::op::send, EPIPE, 2);
    EXPECT_EQ(qeld_subscr_event(fd), -1);
    EXPECT_EQ(out.take(), qel_line("qeld", X, "QELD send QEL app subscription msg failed: Broken pipe.\n,"));
}

TEST_F(qeld_event, without_a_topology_server_the_process_ends_with_1) {
    qel_set_masks(8);
    qel_fake::fail(qel_fake::op::connect, ECONNREFUSED);
    EXPECT_EXIT(
        {
            dup2(STDERR_FILENO, STDOUT_FILENO);
            (void)qeld_event_process(nullptr);
        },
        testing::ExitedWithCode(1), "> 3: QELD create subscription socket failed\\.\n$");
}

TEST_F(qeld_event, a_failed_first_subscription_ends_the_process_with_1) {
    qel_set_masks(8);
    qel_fake::fail(qel_fake::op::send, EPIPE, 2);
    EXPECT_EXIT(
        {
            dup2(STDERR_FILENO, STDOUT_FILENO);
            (void)qeld_event_process(nullptr);
        },
        testing::ExitedWithCode(1),
        "QELD send QEL app subscription msg failed: Broken pipe\\.\n"
        ",<qeld, [0-9]+> 3: QELD subscribe TIPC event failed\\.\n$");
}

TEST_F(qeld_event, threads_that_cannot_be_made_are_told_and_returned) {
    qel_set_masks(8);
    qel_capture out;
    const std::string told = qel_line("qeld", X,
                                      "QELD create event process thread failed: "
                                      "Resource temporarily unavailable.\n");
    qel_time::fail(qel_time::sys::thread_create, EAGAIN, 1);
    EXPECT_EQ(qeld_event_init(), -EAGAIN);
    EXPECT_EQ(out.take(), told);
    qel_time::fail(qel_time::sys::thread_create, EAGAIN, 2);
    EXPECT_EQ(qeld_event_init(), -EAGAIN);
    EXPECT_EQ(out.take(), told);
}

TEST_F(qeld_event, nothing_is_read_before_the_daemon_itself_is_online) {
    add(5, {.pid = 5000500});
    start();
    for (int i = 0; i < 5; i++) {
        qel_time::advance(seconds(1));
        settle();
    }
    EXPECT_TRUE(sent_to(5).empty());
    EXPECT_EQ(registry(), "");
    come_up();
    EXPECT_EQ(sent_to(5).size(), 1u);
    EXPECT_EQ(others(), "5000500:0:5");
}

TEST_F(qeld_event, the_threads_have_their_names_as_the_kernel_keeps_them) {
    start();
    come_up();
    const auto names = thread_names();
    EXPECT_EQ(std::count(names.begin(), names.end(), "qeld_event_proc"), 1);
    EXPECT_EQ(std::count(names.begin(), names.end(), "qeld_app_info"), 1);
}

TEST_F(qeld_event, the_watchdog_is_left_at_each_second_of_waiting_and_fed_at_each_turn) {
    ASSERT_NO_FATAL_FAILURE(start());
    const char name[] = "qeld_event_process";
    EXPECT_EQ(registered(name), -1) << "run() is one second: two rounds";
    qel_time::advance(seconds(1));
    settle();
    EXPECT_EQ(registered(name), -2);
    EXPECT_EQ(fed(name), 0);
    come_up();
    const int before = fed(name);
    EXPECT_GT(before, 0);
    ASSERT_TRUE(qel_time::run_for(seconds(10)));
    EXPECT_GE(fed(name) - before, 4);
    EXPECT_EQ(registered(name), -2) << "never registered again";
}

// ---- applications ---------------------------------------------------------------------------------------

TEST_F(qeld_event, an_application_that_joins_is_asked_who_it_is_and_listed_until_it_quits) {
    start();
    come_up();
    qel_set_masks(1);
    qel_capture out;
    add(5, {.pid = 5000077, .mask = 6});
    settle();
    EXPECT_EQ(others(), "5000077:6:5");
    std::string lines;
    for (const std::string &line : out.lines("qeld", V))
        lines += line;
    EXPECT_EQ(lines, "QELD perceived app 5 join.\n"
                     "QELD get app 5 info.\n"
                     "QELD add new process 5000077 info.\n"
                     "QELD add new app 5 id to process 5000077.\n");
    const auto asked = sent_to(5);
    ASSERT_EQ(asked.size(), 1u);
    EXPECT_EQ(asked[0].hdr.len, 40u);
    EXPECT_EQ(asked[0].hdr.flags, 0x0A);
    EXPECT_EQ(asked[0].hdr.app_ver, 1u);
    EXPECT_EQ(asked[0].hdr.rpc_status, 0u);
    EXPECT_NE(asked[0].hdr.seq, 0u);
    EXPECT_EQ(asked[0].data, (qel_fake::bytes{0, 4, 0, 4}));
    remove(5);
    settle();
    EXPECT_TRUE(out.has(qel_line("qeld", V, "QELD perceived app 5 quit.\n")));
    EXPECT_EQ(others(), "");
}

TEST_F(qeld_event, the_daemon_asks_itself_as_well) {
    start();
    come_up();
    const auto sent = sent_to(1);
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].hdr.flags + sent[1].hdr.flags, 0x0A + 0x0E); // in whatever order they were recorded
    EXPECT_EQ(registry(), std::to_string(getpid()) + ":0:1");
}

TEST_F(qeld_event, two_applications_of_a_process_are_one_process_until_the_second_quits) {
    start();
    come_up();
    add(6, {.pid = 5000077});
    add(5, {.pid = 5000077});
    settle();
    EXPECT_EQ(others(), "5000077:0:5,6");
    remove(5);
    settle();
    EXPECT_EQ(others(), "5000077:0:6");
    remove(6);
    settle();
    EXPECT_EQ(others(), "");
}

TEST_F(qeld_event, only_ids_of_applications_and_only_of_this_node_count) {
    start();
    come_up();
    for (const uint32_t id : {0u, 8191u, 8192u, 16383u, 16384u, 20479u, 20480u, 65535u})
        add(id, {.pid = 5000010 + id});
    qel_fake::publish(5, 2);
    settle();
    EXPECT_EQ(others(), "5008201:0:8191 5016394:0:16384 5020489:0:20479");
    for (const uint32_t id : {0u, 8192u, 16383u, 20480u, 65535u})
        EXPECT_TRUE(sent_to(id).empty());
}

TEST_F(qeld_event, of_a_range_every_application_of_this_node_is_handled) {
    start();
    come_up();
    for (const uint32_t id : {4u, 5u, 6u, 7u})
        add(id, {.pid = 5000070 + id}, false);
    range(TIPC_PUBLISHED, 4 << 16 | 2, 7 << 16 | 0); // from 5/1 (4/1 lies before) to 6/1
    settle();
    EXPECT_EQ(others(), "5000075:0:5 5000076:0:6");
    range(TIPC_PUBLISHED, 4 << 16 | 1, 4 << 16 | 1);
    settle();
    EXPECT_EQ(others(), "5000074:0:4 5000075:0:5 5000076:0:6");
    range(TIPC_WITHDRAWN, 5 << 16, 6 << 16 | 0xFFFF);
    settle();
    EXPECT_EQ(others(), "5000074:0:4");
}

TEST_F(qeld_event, the_range_of_all_names_ends_and_reaches_the_last_application) {
    start();
    come_up();
    add(20479, {.pid = 5000007}, false);
    range(TIPC_PUBLISHED, 0, 0xFFFFFFFF);
    settle();
    EXPECT_EQ(others(), "5000007:0:20479");
}

TEST_F(qeld_event, after_the_withdrawal_of_a_range_the_living_are_announced_anew) {
    start();
    come_up();
    add(5, {.pid = 5000077});
    settle();
    qel_fake::take_calls();
    range(TIPC_WITHDRAWN, 0, 0xFFFFFFFF);
    settle();
    EXPECT_EQ(others(), "5000077:0:5");
    const auto sent = qel_fake::calls(qel_fake::op::send);
    ASSERT_EQ(sent.size(), 2u);
    qel_fake::bytes cancel = sent[1].data;
    cancel[16] = 2 | 4;
    EXPECT_EQ(sent[0].data, cancel) << "all 28 bytes but the cancel bit";
}

TEST_F(qeld_event, a_new_subscription_that_fails_after_a_range_makes_the_connection_anew) {
    start();
    come_up();
    add(5, {.pid = 5000077});
    settle();
    const int32_t before = g_app_mng.sd;
    qel_fake::fail(qel_fake::op::send, EPIPE, 2);
    range(TIPC_WITHDRAWN, 0, 0xFFFFFFFF);
    settle();
    EXPECT_EQ(g_app_mng.sd, -1);
    qel_time::advance(seconds(1));
    settle();
    EXPECT_GE(g_app_mng.sd, 0);
    EXPECT_EQ(qel_fake::calls(qel_fake::op::close).back().fd, before);
    EXPECT_EQ(others(), "5000077:0:5");
}

TEST_F(qeld_event, a_publication_of_a_range_costs_no_new_subscription) {
    start();
    come_up();
    qel_fake::take_calls();
    range(TIPC_PUBLISHED, 5 << 16, 6 << 16);
    settle();
    EXPECT_TRUE(qel_fake::calls(qel_fake::op::send).empty());
}

TEST_F(qeld_event, events_of_other_kinds_and_types_are_ignored) {
    start();
    come_up();
    qel_fake::take_calls();
    range(TIPC_SUBSCR_TIMEOUT, 5 << 16 | 1, 5 << 16 | 1);
    range(0, 5 << 16 | 1, 5 << 16 | 1);
    range(0xFFFFFFFF, 0, 0xFFFFFFFF);
    qel_fake::push_recv(g_app_mng.sd, event_record(TIPC_PUBLISHED, 1, 5 << 16 | 1, 5 << 16 | 1));
    settle();
    EXPECT_TRUE(qel_fake::calls(qel_fake::op::sendto).empty());
    EXPECT_EQ(others(), "");
}

TEST_F(qeld_event, a_withdrawal_of_an_unknown_application_leaves_the_registry_alone) {
    start();
    come_up();
    add(5, {.pid = 5000077});
    settle();
    range(TIPC_WITHDRAWN, 6 << 16 | 1, 6 << 16 | 1);
    settle();
    EXPECT_EQ(others(), "5000077:0:5");
}

TEST_F(qeld_event, a_send_that_fails_is_told_and_the_application_stays_unlisted) {
    start();
    come_up();
    qel_set_masks(8);
    qel_capture out;
    qel_fake::publish(5, my_node); // nobody behind the name
    settle();
    EXPECT_TRUE(out.has(qel_line("qeld", X, "QELD get app 5 info failed: Operation not permitted.\n")));
    EXPECT_EQ(others(), "");
    ASSERT_TRUE(qel_time::run_for(seconds(100)));
    EXPECT_EQ(sent_to(5).size(), 1u) << "it is not asked again";
}

TEST_F(qeld_event, an_error_status_is_told_by_its_text) {
    start();
    come_up();
    qel_set_masks(8);
    qel_capture out;
    add(5, {.how = played::answers_status, .status = 3});
    settle();
    EXPECT_TRUE(
        out.has(qel_line("qeld", X, "QELD get app 5 info failed: application service version mismatch.\n")));
    EXPECT_EQ(others(), "");
}

TEST_F(qeld_event, a_reply_that_is_no_application_information_is_told_and_not_read_past_its_end) {
    start();
    come_up();
    qel_set_masks(8);
    const std::string told = qel_line("qeld", X, "QELD get app 5 info reply type invalid.\n");
    qel_fake::bytes too_long = host_tlv(4, {5, 5000077, 0});
    too_long[1] = 17;
    qel_fake::bytes short_head = {0, 16};
    qel_fake::bytes no_len = host_tlv(4, {5, 5000077, 0});
    no_len[1] = 3;
    const std::vector<qel_fake::bytes> replies = {{},
                                                  host_tlv(5, {5, 5000077, 0}),
                                                  host_tlv(4, {5, 5000077}),
                                                  host_tlv(4, {}),
                                                  host_tlv(4, {0, 77, 0}),
                                                  host_tlv(4, {8192, 77, 0}),
                                                  host_tlv(4, {0x10005, 77, 0}),
                                                  host_tlv(4, {0xFFFFFFFF, 77, 0}),
                                                  too_long,
                                                  short_head,
                                                  no_len};
    for (size_t i = 0; i < replies.size(); i++) {
        qel_capture out;
        add(5, {.how = played::answers_data, .data = replies[i]});
        settle();
        EXPECT_EQ(out.count(told), 1u) << i;
        EXPECT_EQ(others(), "") << i;
        remove(5);
        settle();
    }
}

TEST_F(qeld_event, the_application_named_in_the_reply_is_listed_also_with_more_items_behind) {
    start();
    come_up();
    qel_fake::bytes two = host_tlv(4, {16384, 5000077, 2});
    const qel_fake::bytes more = host_tlv(9, {1});
    two.insert(two.end(), more.begin(), more.end());
    add(5, {.how = played::answers_data, .data = two});
    settle();
    EXPECT_EQ(others(), "5000077:2:16384");
}

TEST_F(qeld_event, a_full_registry_is_told_with_the_process_id_as_a_signed_number) {
    start();
    come_up();
    for (uint32_t pid = 1; pid < qeld_records_max; pid++)
        ASSERT_EQ(qeld_add_app_id(9, 0x1000000 + pid), 0);
    qel_set_masks(8);
    qel_capture out;
    add(5, {.pid = 0xFFFFFFFE});
    settle();
    EXPECT_TRUE(out.has(qel_line("qeld", X, "QELD add app 5 pid -2 info failed.\n")));
}

// ---- applications that do not answer --------------------------------------------------------------------

TEST_F(qeld_event, events_are_read_while_an_application_is_being_asked) {
    start();
    come_up();
    add(5, {.how = played::is_silent});
    add(7, {.pid = 5000070});
    settle();
    ASSERT_TRUE(qel_time::run_for(seconds(3600))); // there is no limit of time
    node_event(TIPC_PUBLISHED, 0x01001009, 0x01001009);
    settle();
    EXPECT_EQ(nodes(), "9");
    EXPECT_EQ(others(), "") << "the others wait for their turn";
    EXPECT_EQ(qeld_work_pending(), 1u);
}

TEST_F(qeld_event, the_quit_of_the_application_being_asked_ends_the_question_and_the_others_have_their_turn) {
    start();
    come_up();
    qel_set_masks();
    qel_capture out;
    add(5, {.how = played::is_silent});
    add(7, {.pid = 5000070});
    settle();
    remove(5);
    ASSERT_TRUE(qel_time::run_for(seconds(3)));
    std::string order;
    for (const std::string &line : out.lines("qeld", V))
        order += line;
    EXPECT_TRUE(out.has(qel_line("qeld", X, "QELD get app 5 info failed: systerm error.\n")));
    EXPECT_EQ(order, "QELD perceived app 5 join.\n"
                     "QELD get app 5 info.\n"
                     "QELD perceived app 7 join.\n"
                     "QELD get app 7 info.\n"
                     "QELD add new process 5000070 info.\n"
                     "QELD add new app 7 id to process 5000070.\n"
                     "QELD perceived app 5 quit.\n");
    EXPECT_EQ(others(), "5000070:0:7");
}

TEST_F(qeld_event, a_quit_read_too_early_to_find_the_wait_ends_it_a_moment_later) {
    start();
    come_up();
    qel_set_masks(15);
    qel_capture out;
    // Just before the request goes out, to somebody who does not answer, the withdrawal is read. That the
    // peer is expected once more afterwards stands for a wait that was not yet there to be struck.
    std::atomic<bool> once{false};
    qel_fake::on_sendto([&](const qel_fake::call &c) {
        if (c.app() != 5 || once.exchange(true))
            return;
        range(TIPC_WITHDRAWN, 5 << 16 | 1, 5 << 16 | 1);
        (void)qel_time::wait_for(
            [&out] { return out.has(qel_line("qel_rpc", V, "QEL try to terminate app 1 RPC to 5/1.\n")); });
        (void)qel_rpc_set_wait(1, unwire(c.data).hdr.seq, 5, 1);
    });
    qel_fake::publish(5, my_node);
    ASSERT_TRUE(qel_time::run_for(seconds(5)));
    EXPECT_EQ(out.count(qel_line("qeld", X, "QELD get app 5 info failed: systerm error.\n")), 1u);
    EXPECT_EQ(qeld_work_pending(), 0u);
}

TEST_F(qeld_event, an_application_that_returns_while_its_first_instance_is_asked_is_asked_again) {
    start();
    come_up();
    add(5, {.how = played::is_silent});
    settle();
    remove(5);
    add(5, {.pid = 5000088});
    ASSERT_TRUE(qel_time::run_for(seconds(3)));
    EXPECT_EQ(others(), "5000088:0:5");
}

TEST_F(qeld_event, a_late_answer_of_one_who_quit_does_not_list_it) {
    start();
    come_up();
    add(5, {.how = played::is_silent});
    settle();
    const uint32_t seq = sent_to(5).at(0).hdr.seq;
    remove(5);
    ASSERT_TRUE(qel_time::run_for(seconds(3)));
    deliver(1, wire({.flags = 0x0E, .src_app = 5, .src_node = 1, .dst_app = 1, .seq = seq},
                    host_tlv(4, {5, 5000077, 0})));
    settle();
    EXPECT_EQ(others(), "");
}

TEST_F(qeld_event, a_flood_of_names_while_one_is_asked_is_condensed_and_ends_right) {
    start();
    come_up();
    add(5, {.how = played::is_silent});
    settle();
    for (uint32_t i = 0; i < qeld_work_verbatim_max; i++) // fills the list with joins and quits of one
        range(i % 2 ? TIPC_WITHDRAWN : TIPC_PUBLISHED, 6 << 16 | 1, 6 << 16 | 1);
    settle();
    EXPECT_EQ(qeld_work_pending(), qeld_work_verbatim_max);
    add(7, {.pid = 5000070});
    add(8, {.pid = 5000080});
    settle();
    EXPECT_EQ(qeld_work_pending(), qeld_work_verbatim_max + 2);
    range(TIPC_PUBLISHED, 7 << 16 | 1, 7 << 16 | 1); // a second join says nothing new
    settle();
    EXPECT_EQ(qeld_work_pending(), qeld_work_verbatim_max + 2);
    remove(8);
    for (int i = 0; i < 10; i++) {
        add(8, {.pid = 5000081});
        remove(8);
    }
    settle();
    EXPECT_EQ(qeld_work_pending(), qeld_work_verbatim_max + 2) << "one quit left of eleven";
    add(6, {.pid = 5000060});
    settle();
    EXPECT_EQ(qeld_work_pending(), qeld_work_verbatim_max + 3);
    remove(6);
    settle();
    EXPECT_EQ(qeld_work_pending(), 3u) << "of 6 only the quit is left, all before it is void";
    add(6, {.pid = 5000061});
    settle();
    remove(5);
    ASSERT_TRUE(qel_time::run_for(seconds(3)));
    EXPECT_EQ(qeld_work_pending(), 0u);
    EXPECT_EQ(others(), "5000061:0:6 5000070:0:7");
}

// ---- nodes ----------------------------------------------------------------------------------------------

TEST_F(qeld_event, node_events_set_and_clear_the_low_twelve_bits) {
    start();
    come_up();
    node_event(TIPC_PUBLISHED, 0x01001001, 0x01001001);
    node_event(TIPC_PUBLISHED, 0x01001FFF, 0x01001FFF);
    node_event(TIPC_PUBLISHED, 0x7FFFF000, 0x7FFFF000);
    settle();
    EXPECT_EQ(nodes(), "0 1 4095");
    node_event(TIPC_WITHDRAWN, 0x02001001, 0x02001001);
    settle();
    EXPECT_EQ(nodes(), "0 4095");
    node_event(TIPC_SUBSCR_TIMEOUT, 0x01001005, 0x01001005);
    settle();
    EXPECT_EQ(nodes(), "0 4095");
}

TEST_F(qeld_event, node_events_are_told_with_their_range_and_each_node) {
    start();
    come_up();
    qel_set_masks(1);
    qel_capture out;
    node_event(TIPC_PUBLISHED, 0x01001FFF, 0x01002001);
    node_event(TIPC_WITHDRAWN, 0x01002000, 0x01002000);
    node_event(3, 7, 7);
    settle();
    std::string lines;
    for (const std::string &line : out.lines("qeld", V))
        lines += line;
    EXPECT_EQ(lines, "QELD recv TIPC node event 1, [16785407, 16785409].\n"
                     "QELD set node 4095 online.\n"
                     "QELD set node 0 online.\n"
                     "QELD set node 1 online.\n"
                     "QELD recv TIPC node event 2, [16785408, 16785408].\n"
                     "QELD clear node 0 online.\n"
                     "QELD recv TIPC node event 3, [7, 7].\n");
}

TEST_F(qeld_event, the_widest_node_range_handles_each_node_once) {
    tipc_event event{};
    event.event = TIPC_PUBLISHED;
    event.found_upper = 0xFFFFFFFF;
    qel_set_masks(1);
    {
        qel_capture out;
        qeld_process_tipc_node_event(&event);
        EXPECT_EQ(out.lines("qeld", V).size(), 4097u);
    }
    for (uint32_t n = 0; n < 4096; n++)
        ASSERT_TRUE(qeld_node_online(n));
    EXPECT_FALSE(qeld_node_online(4096));
    event.event = TIPC_WITHDRAWN;
    event.found_lower = 0xFFFFFFFF; // one at the end of all numbers
    qel_set_masks(0);
    qeld_process_tipc_node_event(&event);
    EXPECT_FALSE(qeld_node_online(4095));
    EXPECT_TRUE(qeld_node_online(4094));
    event.found_upper = 0xFFFFFFFE; // an empty range
    qeld_process_tipc_node_event(&event);
    EXPECT_TRUE(qeld_node_online(4094));
}

// ---- the connection -------------------------------------------------------------------------------------

TEST_F(qeld_event, a_dropped_connection_is_told_and_made_anew_with_what_lives_announced_again) {
    start();
    come_up();
    add(5, {.pid = 5000077});
    add(6, {.pid = 5000078});
    node_event(TIPC_PUBLISHED, 3, 3);
    settle();
    EXPECT_EQ(nodes(), "3");
    qel_set_masks(8);
    qel_capture out;
    const int32_t before = g_app_mng.sd;
    {
        // 6 dies while nobody listens
        qel_fake::push_recv_end(before);
        settle();
        EXPECT_EQ(out.lines("qeld", X),
                  std::vector<std::string>{"QELD recv subscription event failed: Success.\n"});
        EXPECT_EQ(g_app_mng.sd, -1);
        remove(6);
    }
    qel_time::advance(seconds(1));
    settle();
    EXPECT_GE(g_app_mng.sd, 0);
    EXPECT_EQ(qel_fake::calls(qel_fake::op::close).back().fd, before);
    EXPECT_EQ(nodes(), "");
    EXPECT_EQ(others(), "5000077:0:5");
    EXPECT_EQ(qel_fake::subscriptions().size(), 2u);
}

TEST_F(qeld_event, a_connection_that_cannot_be_made_again_is_tried_every_second_without_an_end) {
    start();
    come_up();
    qel_set_masks(8);
    qel_capture out;
    qel_fake::fail(qel_fake::op::connect, ECONNREFUSED, 1, 3);
    qel_fake::fail(qel_fake::op::send, EPIPE, 2, 1);
    qel_fake::push_recv_error(g_app_mng.sd, ENOTCONN);
    settle();
    for (int i = 1; i <= 3; i++) {
        qel_time::advance(seconds(1));
        settle();
        EXPECT_EQ(out.count(qel_line("qeld", X, "QELD create subscription socket failed.\n")),
                  static_cast<unsigned>(i));
        EXPECT_EQ(g_app_mng.sd, -1);
    }
    EXPECT_TRUE(out.has(qel_line("qeld", X,
                                 "QELD recv subscription event failed: Transport endpoint is not "
                                 "connected.\n")));
    qel_time::advance(seconds(1));
    settle();
    EXPECT_TRUE(out.has(qel_line("qeld", X, "QELD subscribe TIPC event failed.\n")));
    EXPECT_EQ(g_app_mng.sd, -1);
    qel_time::advance(seconds(1));
    settle();
    EXPECT_GE(g_app_mng.sd, 0);
    add(5, {.pid = 5000077});
    settle();
    EXPECT_EQ(others(), "5000077:0:5");
}

TEST_F(qeld_event, a_drop_while_an_application_is_asked_ends_the_question) {
    start();
    come_up();
    add(5, {.how = played::is_silent});
    add(7, {.pid = 5000070});
    settle();
    qel_fake::push_recv_end(g_app_mng.sd);
    remove(5); // of which nothing is heard any more
    ASSERT_TRUE(qel_time::run_for(seconds(4)));
    EXPECT_EQ(others(), "5000070:0:7");
    EXPECT_EQ(qeld_work_pending(), 0u);
}

TEST_F(qeld_event, an_answer_that_crosses_the_drop_leaves_no_stale_entry) {
    start();
    come_up();
    add(5, {.how = played::is_silent});
    settle();
    const uint32_t seq = sent_to(5).at(0).hdr.seq;
    qel_fake::push_recv_end(g_app_mng.sd);
    deliver(1, wire({.flags = 0x0E, .src_app = 5, .src_node = 1, .dst_app = 1, .seq = seq},
                    host_tlv(4, {5, 5000077, 0})));
    remove(5);
    ASSERT_TRUE(qel_time::run_for(seconds(4)));
    EXPECT_EQ(others(), "");
}

TEST_F(qeld_event, a_record_of_another_length_is_told_and_the_connection_stays) {
    start();
    come_up();
    qel_set_masks(8);
    qel_capture out;
    const int32_t before = g_app_mng.sd;
    qel_fake::push_recv(before, qel_fake::bytes(47));
    add(5, {.pid = 5000077});
    settle();
    EXPECT_EQ(out.lines("qeld", X).size(), 1u);
    EXPECT_EQ(out.lines("qeld", X).at(0).rfind("QELD recv subscription event failed: ", 0), 0u);
    EXPECT_EQ(g_app_mng.sd, before);
    EXPECT_EQ(others(), "5000077:0:5");
}

TEST_F(qeld_event, nothing_to_read_and_interruptions_leave_no_trace) {
    start();
    come_up();
    qel_set_masks();
    qel_capture out;
    const int32_t before = g_app_mng.sd;
    qel_fake::push_recv_error(before, EAGAIN);
    qel_fake::push_recv_error(before, EINTR);
    settle();
    EXPECT_EQ(out.text(), "");
    EXPECT_EQ(g_app_mng.sd, before);
}

TEST_F(qeld_event, a_quiet_socket_is_not_readable_for_two_seconds) {
    const int fd = qel_create_subscription_socket();
    qel_time::auto_advance(true);
    qel_time::enrolled me;
    const auto begin = qel_time::now();
    EXPECT_NE(socket_wait_readable(fd), 0);
    EXPECT_EQ(qel_time::now() - begin, seconds(2));
    qel_fake::push_recv(fd, qel_fake::bytes(48));
    EXPECT_EQ(socket_wait_readable(fd), 0);
    qel_fake::push_poll_error(EINTR);
    EXPECT_NE(socket_wait_readable(fd), 0);
}
