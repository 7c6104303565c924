// The application's record: its queue, its proxy thread, the choice of dispatchers, events. Every test is a
// process of its own.
#include <atomic>
#include <cerrno>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <thread>

#include "qel_app_info.h"
#include "qel_capture.h"
#include "qel_flow_ctrl.h"
#include "qel_mng_int.h"
#include "qel_world.h"

using namespace std::chrono_literals;
using qel_fake::bytes;
using qel_fake::op;
using qel_time::sys;

namespace {

// What dispatchers and callbacks saw. Never destroyed: their threads outlive main().
struct handled {
    uint32_t dispatcher; // its number; 0: the callback
    qel_hdr hdr;
    bytes data;
    qel_app_event event;
    bool linked;
    std::string thread;
};
std::vector<handled> &log_of_handled() {
    static auto &the = *new std::vector<handled>;
    return the;
}
std::string my_thread_name() {
    char name[16] = "";
    prctl(PR_GET_NAME, name, 0, 0, 0);
    return name;
}
void note(handled h) {
    h.thread = my_thread_name();
    qel_time::lock();
    log_of_handled().push_back(std::move(h));
    qel_time::changed();
    qel_time::unlock();
}
std::vector<handled> all_handled() {
    qel_time::lock();
    std::vector<handled> copy = log_of_handled();
    qel_time::unlock();
    return copy;
}

// A hook that runs inside the handlers, and a door that holds them.
void (*g_inside)(uint32_t dispatcher) = nullptr;
std::atomic<bool> g_hold{false};
const char g_door = 0;
void open_door() {
    qel_time::lock();
    g_hold = false;
    qel_time::wake(&g_door);
    qel_time::unlock();
}
void pass_door() {
    qel_time::lock();
    while (g_hold)
        qel_time::wait(&g_door, qel_time::never);
    qel_time::unlock();
}

template <uint32_t Number> void dispatcher(qel_msg *msg) {
    handled h{};
    h.dispatcher = Number;
    h.hdr = msg->hdr;
    const auto *data = static_cast<const uint8_t *>(qel_msg_const_data(msg));
    h.data.assign(data, data + qel_msg_data_len(msg));
    h.linked = qel_msg_queue::linked(msg);
    free(msg);
    note(h);
    if (g_inside)
        g_inside(Number);
    pass_door();
}
void note_event(qel_app_event event) {
    handled h{};
    h.event = event;
    note(h);
    if (g_inside)
        g_inside(0);
    pass_door();
}

constexpr qel_dispatcher two_versions[] = {{1, dispatcher<1>}, {2, dispatcher<2>}, {0, nullptr}};

struct app_info : qel_world {
    qel_capture out;
    app_info() {
        qel_set_masks(0xF, 0);
        set_conf("[MISC_CONF]\nqel_dbg_cfg=15\n");
    }
    // Application 5 with this table, and application 7 on nodes 2 and 3 online.
    void start(const qel_dispatcher *table, bool with_thread = true, qel_event_fun event = note_event) {
        ASSERT_EQ(with_thread ? qel_register(5, "five", table, event)
                              : qel_register_without_thread(5, "five", table, event),
                  0);
        ASSERT_EQ(qel_comm_with(5, 7), 0);
        ASSERT_TRUE(run());
        ASSERT_TRUE(bring_online(7, 2));
        ASSERT_TRUE(bring_online(7, 3));
        qel_fake::take_calls();
        forget();
    }
    void forget() {
        qel_time::lock();
        log_of_handled().clear();
        qel_time::unlock();
        out.take();
    }
    static bytes message(uint32_t version, const std::string &text, uint8_t flags = 0, uint32_t node = 2,
                         uint32_t app = 7, uint32_t seq = 0) {
        return wire(
            {.flags = flags, .src_app = app, .src_node = node, .dst_app = 5, .app_ver = version, .seq = seq},
            text);
    }
    static std::vector<std::string> texts() {
        std::vector<std::string> found;
        for (const handled &h : all_handled())
            found.emplace_back(h.data.begin(), h.data.end());
        return found;
    }
    static std::string dispatch_line(int app, int src_app, int src_node, int ver, int len,
                                     const char *flags) {
        return qel_line("qel_app_info", V,
                        "QEL dispatch app %d msg from %d/%d, ver %d, data len %d, msg flags: %s.\n", app,
                        src_app, src_node, ver, len, flags);
    }
};

// ---- the choice of a dispatcher -------------------------------------------------------------------------

TEST_F(app_info, the_dispatcher_is_chosen_by_the_exact_version) {
    start(two_versions);
    deliver(5, message(2, "b"));
    deliver(5, message(1, "a"));
    ASSERT_TRUE(qel_fake::settle());
    const auto h = all_handled();
    ASSERT_EQ(h.size(), 2u);
    EXPECT_EQ(h[0].dispatcher, 2u);
    EXPECT_EQ(h[1].dispatcher, 1u);
    EXPECT_TRUE(out.has(dispatch_line(5, 7, 2, 2, 1, "none")));
}

TEST_F(app_info, of_equal_versions_the_first_entry_wins) {
    constexpr qel_dispatcher twice[] = {
        {3, dispatcher<10>}, {4, dispatcher<20>}, {3, dispatcher<30>}, {0, nullptr}};
    start(twice);
    EXPECT_EQ(qel_get_dispatch_fun(qel_get_app_info(5), 3), dispatcher<10>);
    deliver(5, message(3, "x"));
    ASSERT_TRUE(qel_fake::settle());
    ASSERT_EQ(all_handled().size(), 1u);
    EXPECT_EQ(all_handled()[0].dispatcher, 10u);
}

TEST_F(app_info, the_highest_version_is_a_version_like_any_other_and_0_is_none) {
    constexpr qel_dispatcher top[] = {{UINT32_MAX, dispatcher<1>}, {0, nullptr}};
    start(top);
    deliver(5, message(UINT32_MAX, "x"));
    deliver(5, message(0, "y"));
    ASSERT_TRUE(qel_fake::settle());
    EXPECT_EQ(texts(), std::vector<std::string>{"x"});
    EXPECT_EQ(qel_get_dispatch_fun(qel_get_app_info(5), 0), nullptr);
}

TEST_F(app_info, the_message_is_the_dispatchers_whole_and_in_host_order) {
    start(two_versions);
    bytes raw = wire({.flags = QEL_FLAG_REQUEST,
                      .src_app = 7,
                      .src_node = 2,
                      .dst_app = 5,
                      .app_ver = 1,
                      .seq = 77,
                      .version = 9,
                      .qos = 33},
                     "data");
    deliver(5, raw);
    ASSERT_TRUE(qel_fake::settle());
    const auto h = all_handled();
    ASSERT_EQ(h.size(), 1u);
    EXPECT_EQ(h[0].hdr.version, 9) << "any version is accepted";
    EXPECT_EQ(h[0].hdr.qos, 33);
    EXPECT_EQ(h[0].hdr.flags, QEL_FLAG_REQUEST);
    EXPECT_EQ(h[0].hdr.len, 40u);
    EXPECT_EQ(h[0].hdr.src_app, 7u);
    EXPECT_EQ(h[0].hdr.src_node, 2u);
    EXPECT_EQ(h[0].hdr.dst_app, 5u);
    EXPECT_EQ(h[0].hdr.dst_node, 1u);
    EXPECT_EQ(h[0].hdr.seq, 77u);
    EXPECT_EQ(h[0].data, to_bytes("data"));
    EXPECT_FALSE(h[0].linked) << "no live links";
}

TEST_F(app_info, a_one_way_message_of_an_unknown_version_is_freed_in_silence_but_counted) {
    start(two_versions);
    deliver(5, message(3, "lost"));
    ASSERT_TRUE(qel_fake::settle());
    EXPECT_TRUE(all_handled().empty());
    EXPECT_TRUE(qel_fake::calls(op::sendto).empty()) << "no reply";
    EXPECT_EQ(
        out.lines("qel_app_info", V),
        (std::vector<std::string>{"QEL add app 5 info.\n",
                                  "QEL dispatch app 5 msg from 7/2, ver 3, data len 4, msg flags: none.\n",
                                  "QEL app 5 ver 3 dispatcher not exist.\n"}));
    EXPECT_TRUE(out.has(qel_line("qel_flow_ctrl", V, "QEL app 5 update recv OK from 7/2.\n")));
}

TEST_F(app_info, a_request_of_an_unknown_version_is_answered_with_the_range_of_versions) {
    start(two_versions);
    deliver(5, message(3, "call", QEL_FLAG_REQUEST, 2, 7, 99));
    ASSERT_TRUE(qel_fake::settle());
    EXPECT_TRUE(all_handled().empty());
    const auto sent = qel_fake::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].app(), 7u);
    EXPECT_EQ(sent[0].node(), 2u);
    EXPECT_EQ(sent[0].data.size(), 44u);
    const qel_seen s = unwire(sent[0].data);
    EXPECT_EQ(s.hdr.version, 1);
    EXPECT_EQ(s.hdr.flags, QEL_FLAG_REQUEST | QEL_FLAG_ACK);
    EXPECT_EQ(s.hdr.src_app, 5u);
    EXPECT_EQ(s.hdr.src_node, 1u);
    EXPECT_EQ(s.hdr.dst_app, 7u);
    EXPECT_EQ(s.hdr.dst_node, 2u);
    EXPECT_EQ(s.hdr.app_ver, 1u);
    EXPECT_EQ(s.hdr.seq, 99u);
    EXPECT_EQ(s.hdr.rpc_status, 3u);
    EXPECT_EQ(host32_at(s.data, 0), 1u) << "in this host's order";
    EXPECT_EQ(host32_at(s.data, 4), 2u);
    EXPECT_EQ(out.lines("qel_app_info", V),
              (std::vector<std::string>{
                  "QEL add app 5 info.\n",
                  "QEL dispatch app 5 msg from 7/2, ver 3, data len 4, msg flags: REQUEST.\n",
                  "QEL app 5 ver 3 dispatcher not exist.\n", "QEL app 5 version range [1, 2].\n"}));
}

TEST_F(app_info, a_range_that_cannot_be_sent_back_is_an_error_line) {
    start(two_versions);
    qel_fake::fail_to(7, 2, EHOSTUNREACH);
    deliver(5, message(3, "call", QEL_FLAG_REQUEST, 2, 7, 99));
    ASSERT_TRUE(qel_fake::settle());
    EXPECT_EQ(out.lines("qel_app_info", X),
              std::vector<std::string>{
                  "QEL app 5 reply app mismatch [1, 2] to 7/2 failed: Operation not permitted.\n"});
}

TEST_F(app_info, the_range_is_the_lowest_and_the_highest_in_whatever_order) {
    constexpr qel_dispatcher table[] = {
        {2, dispatcher<1>}, {5, dispatcher<1>}, {3, dispatcher<1>}, {0, nullptr}};
    start(table);
    const qel_ver_range range = qel_get_app_ver_range(qel_get_app_info(5));
    EXPECT_EQ(range.lowest, 2u);
    EXPECT_EQ(range.highest, 5u);
}

TEST_F(app_info, an_empty_table_frees_messages_and_answers_requests_with_the_empty_range) {
    start(nullptr);
    const qel_ver_range range = qel_get_app_ver_range(qel_get_app_info(5));
    EXPECT_EQ(range.lowest, 0xFFFFFFFFu);
    EXPECT_EQ(range.highest, 0u);
    deliver(5, message(1, "one-way"));
    deliver(5, message(1, "call", QEL_FLAG_REQUEST, 2, 7, 5));
    ASSERT_TRUE(qel_fake::settle());
    const auto sent = qel_fake::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    const qel_seen s = unwire(sent[0].data);
    EXPECT_EQ(s.hdr.rpc_status, 3u);
    EXPECT_EQ(host32_at(s.data, 0), 0xFFFFFFFFu);
    EXPECT_EQ(host32_at(s.data, 4), 0u);
    EXPECT_TRUE(out.has(qel_line("qel_app_info", V, "QEL app 5 version range [-1, 0].\n")));
}

TEST_F(app_info, every_dispatched_message_counts_as_received) {
    start(two_versions);
    for (int i = 0; i < 3; i++)
        deliver(5, message(1, "x"));
    deliver(5, message(1, "y", 0, 3));
    ASSERT_TRUE(qel_fake::settle());
    qel_lock lock(g_print_mutex);
    qel_buf_printf_reset();
    qel_cli_print_fc_stat(5);
    const std::string text = static_cast<const char *>(qel_msg_const_data(g_print_msg));
    EXPECT_NE(text.find("    Receive from application 7/2: receive 3, unack 3, drop 0, return 0\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("    Receive from application 7/3: receive 1, unack 1, drop 0, return 0\n"),
              std::string::npos);
}

// ---- queue and order ------------------------------------------------------------------------------------

TEST_F(app_info, messages_that_come_while_the_thread_is_busy_are_dispatched_in_order_of_arrival) {
    start(two_versions);
    g_hold = true;
    std::vector<std::string> expected;
    for (int i = 0; i < 50; i++) {
        expected.push_back("message " + std::to_string(i));
        deliver(5, message(1 + i % 2, expected.back(), 0, 2 + i % 3 / 2));
    }
    ASSERT_TRUE(qel_fake::settle());
    EXPECT_EQ(texts().size(), 1u) << "the first one holds the thread";
    EXPECT_EQ(qel_unprocess_app_msg_num(5, 7, 2) + qel_unprocess_app_msg_num(5, 7, 3), 49);
    open_door();
    ASSERT_TRUE(qel_fake::settle());
    EXPECT_EQ(texts(), expected);
    EXPECT_EQ(qel_unprocess_app_msg_num(5, 7, 2), 0);
}

TEST_F(app_info, events_and_messages_share_one_order) {
    start(two_versions);
    g_hold = true;
    deliver(5, message(1, "first"));
    ASSERT_TRUE(qel_fake::settle());
    EXPECT_EQ(qel_enqueue_event_msg(5, qel_new_event_msg(5, QEL_EVENT_JOIN, 9, 8)), 0);
    deliver(5, message(1, "second"));
    ASSERT_TRUE(qel_fake::settle());
    EXPECT_EQ(qel_enqueue_event_msg(5, qel_new_event_msg(5, QEL_EVENT_QUIT, 9, 8)), 0);
    open_door();
    ASSERT_TRUE(qel_fake::settle());
    const auto h = all_handled();
    ASSERT_EQ(h.size(), 4u);
    EXPECT_EQ(h[0].data, to_bytes("first"));
    EXPECT_EQ(h[1].dispatcher, 0u);
    EXPECT_EQ(h[1].event.event, 0u);
    EXPECT_EQ(h[2].data, to_bytes("second"));
    EXPECT_EQ(h[3].dispatcher, 0u);
    EXPECT_EQ(h[3].event.event, 1u);
}

TEST_F(app_info, handlers_of_one_application_run_on_its_thread_one_at_a_time) {
    start(two_versions);
    for (int i = 0; i < 5; i++)
        deliver(5, message(1, "x"));
    ASSERT_EQ(qel_enqueue_event_msg(5, qel_new_event_msg(5, 0, 9, 8)), 0);
    ASSERT_TRUE(qel_fake::settle());
    const auto h = all_handled();
    ASSERT_EQ(h.size(), 6u);
    for (const handled &x : h)
        EXPECT_EQ(x.thread, "qel_app_5");
}

TEST_F(app_info, a_handler_may_call_the_library_also_about_its_own_queue) {
    start(two_versions);
    g_inside = [](uint32_t) {
        if (qel_is_app_online(2, 7) != 1 || qel_unprocess_app_msg_num(5, 7, 2) < 0)
            abort();
        qel_msg *msg = qel_msg_alloc(0, 1, 0);
        if (qel_sendto(5, 7, 2, msg, 0) != 0)
            abort();
        free(msg);
        qel_discard_app_msg(5, 7, 3);
    };
    deliver(5, message(1, "x"));
    ASSERT_EQ(qel_enqueue_event_msg(5, qel_new_event_msg(5, 0, 9, 8)), 0);
    ASSERT_TRUE(qel_fake::settle());
    EXPECT_EQ(all_handled().size(), 2u);
    EXPECT_EQ(qel_fake::take_sent().size(), 2u);
    g_inside = nullptr;
}

TEST_F(app_info, an_idle_thread_wakes_every_second_and_survives_wakeups_without_a_cause) {
    start(two_versions);
    ASSERT_TRUE(qel_time::settle());
    EXPECT_LE(qel_time::next_deadline(), 1s);
    for (int i = 0; i < 10; i++) {
        qel_time::wake_spuriously();
        ASSERT_TRUE(qel_time::settle());
    }
    ASSERT_TRUE(qel_time::run_for(1h));
    deliver(5, message(1, "still awake"));
    ASSERT_TRUE(qel_fake::settle());
    EXPECT_EQ(texts(), std::vector<std::string>{"still awake"});
}

TEST_F(app_info, many_threads_may_append_at_once) {
    start(two_versions);
    qel_set_masks(0, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([t] {
            for (int i = 0; i < 100; i++) {
                qel_msg *msg = qel_msg_alloc(4, 1, 0);
                msg->hdr.src_app = 7;
                msg->hdr.src_node = static_cast<uint32_t>(t);
                memcpy(qel_msg_data(msg), &i, 4);
                qel_enqueue_msg_dist(msg, qel_get_app_info(5));
            }
        });
    for (std::thread &t : threads)
        t.join();
    ASSERT_TRUE(qel_time::settle());
    const auto h = all_handled();
    ASSERT_EQ(h.size(), 400u);
    uint32_t next[4] = {};
    for (const handled &x : h)
        EXPECT_EQ(host32_at(x.data, 0), next[x.hdr.src_node]++) << "in order for each sender";
}

using app_info_death = qel_world;

TEST_F(app_info_death, a_signal_that_fails_is_a_broken_invariant) {
    EXPECT_EXIT(
        {
            qel_register(5, "five", two_versions, nullptr);
            qel_time::settle();
            qel_time::fail(sys::cond_signal, EINVAL);
            qel_enqueue_msg_dist(qel_msg_alloc(0, 1, 0), qel_get_app_info(5));
        },
        testing::KilledBySignal(SIGABRT), "assertion failed: \"ret == 0\"");
}

TEST_F(app_info_death, a_wait_that_fails_other_than_by_time_out_is_a_broken_invariant) {
    EXPECT_EXIT(
        {
            qel_register(5, "five", two_versions, nullptr);
            run();
            // the proxy thread's and the library thread's next waits; one of them is on its queue
            qel_time::fail(sys::cond_timedwait, EINVAL, 1, 100);
            qel_time::advance(1s);
            qel_time::settle();
        },
        testing::KilledBySignal(SIGABRT), "qel_app_info.cpp:[0-9]+: assertion failed: \"ret == 0\"");
}

// ---- events ---------------------------------------------------------------------------------------------

TEST_F(app_info, an_event_reaches_the_callback_with_its_four_words) {
    start(two_versions);
    ASSERT_EQ(qel_enqueue_event_msg(5, qel_new_event_msg(5, QEL_EVENT_QUIT, 65535, 20479)), 0);
    ASSERT_TRUE(qel_fake::settle());
    const auto h = all_handled();
    ASSERT_EQ(h.size(), 1u);
    EXPECT_EQ(h[0].event.app_id, 5u);
    EXPECT_EQ(h[0].event.event, 1u);
    EXPECT_EQ(h[0].event.node, 65535u);
    EXPECT_EQ(h[0].event.peer_app, 20479u);
    EXPECT_EQ(out.take(),
              qel_line("qel_app_info", I, "QEL app 5 dispatch app 20479/65535 event: application quit.\n"));
}

TEST_F(app_info, an_event_message_is_a_management_message_of_52_bytes) {
    qel_msg *msg = qel_new_event_msg(5, QEL_EVENT_JOIN, 9, 8);
    EXPECT_EQ(msg->hdr.flags, QEL_FLAG_MNG);
    EXPECT_EQ(msg->hdr.app_ver, 1u);
    EXPECT_EQ(msg->hdr.len, 52u);
    const uint32_t words[4] = {5, 0, 9, 8};
    EXPECT_EQ(memcmp(qel_msg_data(msg), words, 16), 0) << "in host order";
    free(msg);
}

TEST_F(app_info, an_event_for_an_application_without_callback_is_refused) {
    start(two_versions, true, nullptr);
    qel_msg *msg = qel_new_event_msg(5, 0, 9, 8);
    EXPECT_EQ(qel_enqueue_event_msg(5, msg), -1);
    free(msg); // it stays the caller's
    ASSERT_TRUE(qel_fake::settle());
    EXPECT_TRUE(all_handled().empty());
}

TEST_F(app_info, an_event_for_an_application_that_is_not_here_is_refused) {
    qel_msg *msg = qel_new_event_msg(5, 0, 9, 8);
    EXPECT_EQ(qel_enqueue_event_msg(5, msg), -1);
    EXPECT_EQ(qel_enqueue_event_msg(0, msg), -1);
    free(msg);
}

TEST_F(app_info, join_and_quit_of_a_peer_come_as_events) {
    ASSERT_EQ(qel_register(5, "five", two_versions, note_event), 0);
    ASSERT_EQ(qel_comm_with(5, 7), 0);
    ASSERT_TRUE(run());
    forget();
    ASSERT_TRUE(bring_online(7, 2));
    qel_fake::withdraw(7, 2);
    ASSERT_TRUE(qel_fake::settle());
    const auto h = all_handled();
    ASSERT_EQ(h.size(), 2u);
    for (size_t i = 0; i < 2; i++) {
        EXPECT_EQ(h[i].event.app_id, 5u);
        EXPECT_EQ(h[i].event.event, i);
        EXPECT_EQ(h[i].event.node, 2u);
        EXPECT_EQ(h[i].event.peer_app, 7u);
    }
}

TEST_F(app_info, without_a_callback_a_peers_join_and_quit_go_nowhere) {
    start(two_versions, true, nullptr);
    EXPECT_EQ(qel_is_app_online(2, 7), 1);
    qel_fake::withdraw(7, 2);
    ASSERT_TRUE(qel_fake::settle());
    EXPECT_EQ(qel_is_app_online(2, 7), 0);
    EXPECT_TRUE(all_handled().empty());
}

// ---- without a thread -----------------------------------------------------------------------------------

TEST_F(app_info, without_a_thread_everything_runs_on_the_library_thread) {
    start(two_versions, false);
    deliver(5, message(1, "x"));
    ASSERT_TRUE(qel_fake::settle());
    qel_fake::withdraw(7, 2);
    ASSERT_TRUE(qel_fake::settle());
    ASSERT_TRUE(bring_online(7, 2));
    const auto h = all_handled();
    ASSERT_EQ(h.size(), 3u);
    const std::string lib = ("qel_lib_" + std::to_string(getpid())).substr(0, 15);
    for (const handled &x : h)
        EXPECT_EQ(x.thread, lib);
    EXPECT_EQ(h[0].data, to_bytes("x"));
    EXPECT_EQ(h[1].event.event, 1u);
    EXPECT_EQ(h[2].event.event, 0u);
}

TEST_F(app_info, without_a_thread_a_callback_may_call_the_library_while_a_peer_quits) {
    start(two_versions, false);
    g_inside = [](uint32_t) {
        (void)qel_is_app_online(2, 7);
        (void)qel_comm_with(5, 8);
        qel_msg *msg = qel_msg_alloc(0, 1, 0);
        (void)qel_send(5, 7, msg, QEL_SEND_NOWAIT);
        free(msg);
    };
    qel_fake::withdraw(7, 2);
    ASSERT_TRUE(qel_fake::settle()) << "the callback ran under a lock that it needs";
    ASSERT_EQ(all_handled().size(), 1u);
    EXPECT_EQ(all_handled()[0].event.event, 1u);
    const auto sent = qel_fake::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].node(), 3u) << "the one that is left";
    g_inside = nullptr;
}

TEST_F(app_info, without_a_thread_messages_and_events_keep_their_order) {
    start(two_versions, false);
    deliver(5, message(1, "before"));
    ASSERT_TRUE(qel_fake::settle());
    qel_fake::withdraw(7, 2);
    deliver(5, message(1, "after", 0, 3));
    ASSERT_TRUE(qel_fake::settle());
    const auto h = all_handled();
    ASSERT_EQ(h.size(), 3u);
    EXPECT_EQ(h[0].data, to_bytes("before"));
    EXPECT_EQ(h[1].event.event, 1u);
    EXPECT_EQ(h[2].data, to_bytes("after"));
}

TEST_F(app_info, without_a_thread_an_unknown_version_is_answered_as_well) {
    start(two_versions, false);
    deliver(5, message(9, "call", QEL_FLAG_REQUEST, 3, 7, 4));
    ASSERT_TRUE(qel_fake::settle());
    const auto sent = qel_fake::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(unwire(sent[0].data).hdr.rpc_status, 3u);
}

// ---- discarding -----------------------------------------------------------------------------------------

TEST_F(app_info, a_discard_frees_one_peers_messages_counts_them_and_leaves_the_others) {
    start(two_versions);
    ASSERT_EQ(qel_comm_with(5, 8), 0);
    g_hold = true;
    deliver(5, message(1, "busy"));
    ASSERT_TRUE(qel_fake::settle());
    for (int i = 0; i < 3; i++) {
        deliver(5, message(1, "from 2", 0, 2));
        deliver(5, message(1, "from 3", 0, 3));
    }
    ASSERT_TRUE(qel_fake::settle());
    EXPECT_EQ(qel_unprocess_app_msg_num(5, 7, 2), 3);
    out.take();
    qel_discard_app_msg(5, 7, 2);
    EXPECT_EQ(out.take(), qel_line("qel_app_info", I, "QEL app 5 discard 7/2 msg.\n") +
                              qel_line("qel_flow_ctrl", V, "QEL app 5 update recv drop num 3 from 7/2.\n"));
    EXPECT_EQ(qel_unprocess_app_msg_num(5, 7, 2), 0);
    EXPECT_EQ(qel_unprocess_app_msg_num(5, 7, 3), 3);
    open_door();
    ASSERT_TRUE(qel_fake::settle());
    EXPECT_EQ(texts(), (std::vector<std::string>{"busy", "from 3", "from 3", "from 3"}));
}

TEST_F(app_info, a_discard_of_nothing_says_so_and_reports_0_in_silence) {
    start(two_versions);
    qel_discard_app_msg(5, 9, 9);
    EXPECT_EQ(out.take(), qel_line("qel_app_info", I, "QEL app 5 discard 9/9 msg.\n"));
}

TEST_F(app_info, a_discard_for_an_application_that_is_not_here_does_nothing) {
    qel_discard_app_msg(5, 7, 2);
    EXPECT_EQ(out.take(), "");
    EXPECT_EQ(qel_unprocess_app_msg_num(5, 7, 2), 0);
}

TEST_F(app_info, a_discard_leaves_events_alone) {
    start(two_versions);
    g_hold = true;
    deliver(5, message(1, "busy"));
    ASSERT_TRUE(qel_fake::settle());
    ASSERT_EQ(qel_enqueue_event_msg(5, qel_new_event_msg(5, QEL_EVENT_JOIN, 2, 7)), 0);
    qel_discard_app_msg(5, 7, 2);
    open_door();
    ASSERT_TRUE(qel_fake::settle());
    EXPECT_EQ(all_handled().size(), 2u);
}

TEST_F(app_info, what_a_peer_left_in_the_queue_goes_when_it_quits) {
    start(two_versions);
    g_hold = true;
    deliver(5, message(1, "busy"));
    ASSERT_TRUE(qel_fake::settle());
    deliver(5, message(1, "too late", 0, 2));
    deliver(5, message(1, "in time", 0, 3));
    ASSERT_TRUE(qel_fake::settle());
    qel_fake::withdraw(7, 2);
    ASSERT_TRUE(qel_fake::settle());
    open_door();
    ASSERT_TRUE(qel_fake::settle());
    const auto h = all_handled();
    ASSERT_EQ(h.size(), 3u);
    EXPECT_EQ(h[1].data, to_bytes("in time"));
    EXPECT_EQ(h[2].event.event, 1u);
}

// ---- the print ------------------------------------------------------------------------------------------

std::string print(uint32_t app) {
    qel_lock lock(g_print_mutex);
    qel_buf_printf_reset();
    qel_cli_print_app_info(app);
    return static_cast<const char *>(qel_msg_const_data(g_print_msg));
}

TEST_F(app_info, the_print_shows_the_whole_record) {
    set_conf("[MISC_CONF]\nqel_dbg_cfg=15\n[APP_INFO_TBL]\n5,five,2,team\n");
    start(two_versions);
    ASSERT_EQ(qel_create_app_mcast(5), 0x3000);
    ASSERT_EQ(qel_add_app_mcast(5, 0x3000, 9), 0);
    ASSERT_EQ(qel_create_node_mcast(5), 0x80000);
    g_hold = true;
    for (int i = 0; i < 3; i++)
        deliver(5, message(1, "x"));
    ASSERT_TRUE(qel_fake::settle());
    const qel_app_info *app = qel_get_app_info(5);
    EXPECT_EQ(print(5),
              qel_format("Application 5/1 [five] information:\n"
                         "  Proxy thread 0x%x, socket %d, priority 2\n"
                         "  Callback functions: event %p, message dispatchers:\n"
                         "    version 1 %p  version 2 %p\n"
                         "  Communication peer applications: 5 7\n"
                         "  Unprocessed message number 2\n"
                         "\n"
                         "  Private application multicast number 1:\n"
                         "    ID 0x3000, members: 9\n"
                         "  Private node multicast number 1:\n"
                         "    ID 0x80000, members:\n",
                         static_cast<unsigned>(app->thread), app->sd, reinterpret_cast<void *>(note_event),
                         reinterpret_cast<void *>(dispatcher<1>), reinterpret_cast<void *>(dispatcher<2>)));
    open_door();
    ASSERT_TRUE(qel_fake::settle());
}

TEST_F(app_info, the_print_of_a_bare_application_shows_no_thread_no_callback_and_no_dispatcher) {
    ASSERT_EQ(qel_register_without_thread(6, "", nullptr, nullptr), 0);
    EXPECT_EQ(print(6), qel_format("Application 6/1 [] information:\n"
                                   "  Proxy thread 0x0, socket %d, priority 0\n"
                                   "  Callback functions: event (nil), message dispatchers:\n"
                                   "  \n"
                                   "  Communication peer applications: 6\n"
                                   "  Unprocessed message number 0\n"
                                   "\n"
                                   "  Private application multicast number 0:\n"
                                   "  Private node multicast number 0:\n",
                                   qel_get_app_sd(6)));
}

TEST_F(app_info, the_print_of_an_application_that_is_not_here_is_empty) { EXPECT_EQ(print(6), ""); }

TEST_F(app_info, a_printed_text_answers_a_request_and_carries_version_0_and_protocol_version_0) {
    start(two_versions);
    qel_msg *request = qel_msg_alloc(0, 1, 0);
    qel_encode_msg_hdr(request, QEL_FLAG_REQUEST | QEL_FLAG_MNG, 7, 2, 5, 1, 99, 0);
    {
        qel_lock lock(g_print_mutex);
        qel_buf_printf_reset();
        qel_buf_printf("all is well\n");
        EXPECT_EQ(qel_buf_printf_reply(request), 0);
    }
    free(request);
    const auto sent = qel_fake::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].app(), 7u);
    EXPECT_EQ(sent[0].node(), 2u);
    const qel_seen s = unwire(sent[0].data);
    EXPECT_EQ(s.hdr.version, 0);
    EXPECT_EQ(s.hdr.app_ver, 0u);
    EXPECT_EQ(s.hdr.flags, 0x0E);
    EXPECT_EQ(s.hdr.seq, 99u);
    EXPECT_EQ(s.hdr.rpc_status, 0u);
    EXPECT_EQ(s.hdr.len, 36u + 13);
    EXPECT_EQ(s.data, to_bytes(std::string("all is well\n") + '\0'));
}

// ---- records made and undone by hand ---------------------------------------------------------------------

TEST_F(app_info, a_record_can_be_made_and_undone_without_the_library) {
    for (const uint8_t thread : {0, 1}) {
        qel_app_info *app = qel_add_app_info(5, "five", thread, 2, two_versions, note_event);
        ASSERT_NE(app, nullptr);
        EXPECT_EQ(app->app_id, 5);
        EXPECT_STREQ(app->name, "five");
        EXPECT_EQ(app->event_cb, note_event);
        EXPECT_EQ(app->dispatchers[2].version, 0u);
        EXPECT_EQ(app->dispatchers[2].fun, nullptr);
        EXPECT_EQ(app->mc.apps.next_id, 0x3000u);
        out.take();
        const size_t closes = qel_fake::calls(op::close).size();
        qel_del_app_info(app);
        EXPECT_EQ(out.take(), qel_line("qel_app_info", I, "QEL destroy app 5 info.\n"));
        EXPECT_EQ(qel_fake::calls(op::close).size(), closes + 1);
    }
}

} // namespace
