// The waits of remote procedure calls: who is struck off when, how long a caller sleeps, what its set holds.
#include <cerrno>
#include <gtest/gtest.h>

#include "qel_mng.h"
#include "qel_mng_int.h"
#include "qel_process.h"
#include "qel_rpc.h"

namespace {

using namespace std::chrono_literals;
using qel_time::sys;

#define RPC(level, ...) qel_line("qel_rpc", level, __VA_ARGS__)
constexpr uint32_t me = 5;

// Application 5 of node 1, registered, not running.
struct rpc : qel_process {
    rpc() {
        if (add_app(me, false) != 0)
            abort();
        qel_set_masks(0);
        (void)take_sent();
    }

    static qel_msg *reply(uint32_t app, uint32_t node, uint32_t seq, uint32_t status = 0) {
        qel_msg *msg = qel_msg_alloc(0, 1, 0);
        qel_encode_msg_hdr(msg, QEL_FLAG_REQUEST | QEL_FLAG_ACK, app, node, me, 1, seq, status);
        return msg;
    }
    static int32_t add(uint32_t app, uint32_t node, uint32_t seq, uint32_t status = 0) {
        qel_msg *msg = reply(app, node, seq, status);
        const int32_t ret = qel_rpc_add_reply(msg);
        if (ret != 0)
            free(msg);
        return ret;
    }
    static unsigned broadcasts() { return qel_time::calls(sys::cond_broadcast); }
};
using rpc_death = rpc;

// A wait of application 5 with its set and, once begun, its caller.
struct open_wait {
    open_wait(uint32_t number, uint32_t timeout_s, const std::vector<std::pair<uint32_t, uint32_t>> &peers)
        : seq(number) {
        EXPECT_EQ(qel_rpc_prepare_wait(me, seq, timeout_s, &set), 0);
        for (const auto &[app, node] : peers)
            EXPECT_EQ(qel_rpc_set_wait(me, seq, app, node), 0);
    }
    ~open_wait() {
        if (caller && !caller->ended()) { // the test failed
            for (uint32_t app = 6; app < 10; app++)
                for (uint32_t node = 0; node < 10; node++)
                    (void)qel_terminate_rpc(me, app, node);
        }
        caller.reset();
        if (qel_get_rpc_wait(me, seq))
            qel_rpc_del_wait(me, seq);
        qel_reply_msg_free(&set);
    }
    void begin() {
        caller = std::make_unique<qel_task>([this] {
            qel_thread_set_name("qel_caller");
            ret = qel_rpc_wait_reply(me, seq);
        });
        EXPECT_TRUE(qel_time::settle());
    }
    // "app/node status" of each reply.
    std::vector<std::string> replies() const {
        std::vector<std::string> all;
        for (int32_t i = 0; i < set.count; i++)
            all.push_back(qel_format("%u/%u %u", set.msg[i]->hdr.src_app, set.msg[i]->hdr.src_node,
                                     set.msg[i]->hdr.rpc_status));
        return all;
    }
    bool gone() const { return !qel_get_rpc_wait(me, seq); }

    uint32_t seq;
    qel_reply_set set{};
    int32_t ret = 12345;
    std::unique_ptr<qel_task> caller;
};
using list = std::vector<std::string>;

// Lets the virtual time pass in steps of a quarter of a second until the caller returns; in which.
std::chrono::milliseconds lasts(const open_wait &w, std::chrono::nanoseconds limit) {
    std::chrono::milliseconds passed{0};
    while (passed < limit && !w.caller->ended()) {
        if (!qel_time::run_for(250ms) || !qel_time::settle())
            break;
        passed += 250ms;
    }
    return w.caller->ended() ? passed : -1ms;
}

// A reply that was made here and not by the peer.
void expect_local(const qel_msg *msg, uint32_t app, uint32_t node, uint32_t seq, uint32_t status) {
    const qel_hdr &h = msg->hdr;
    EXPECT_EQ(msg->link.next, nullptr);
    EXPECT_EQ(msg->link.prev, nullptr);
    EXPECT_EQ(h.version, 1);
    EXPECT_EQ(h.reserved, 0);
    EXPECT_EQ(h.flags, 0);
    EXPECT_EQ(h.qos, 0);
    EXPECT_EQ(h.len, 36u);
    EXPECT_EQ(h.src_app, app);
    EXPECT_EQ(h.src_node, node);
    EXPECT_EQ(h.dst_app, me);
    EXPECT_EQ(h.dst_node, 1u);
    EXPECT_EQ(h.app_ver, 1u);
    EXPECT_EQ(h.seq, seq);
    EXPECT_EQ(h.rpc_status, status);
}

// ---- the registry ---------------------------------------------------------------------------------------

TEST_F(rpc, a_new_registry_and_its_end_are_logged_and_null_is_ignored_in_silence) {
    qel_capture out;
    qel_set_masks();
    qel_rpc_wait_mgmt *mgmt = qel_add_app_rpc_wait(77);
    ASSERT_NE(mgmt, nullptr);
    EXPECT_EQ(out.take(), RPC(V, "QEL add new app 77 RPC wait mgmt.\n"));
    qel_del_app_rpc_wait(mgmt);
    EXPECT_EQ(out.take(), RPC(V, "QEL delete app 77 RPC wait mgmt.\n"));
    qel_del_app_rpc_wait(nullptr);
    EXPECT_EQ(out.take(), "");
}

TEST_F(rpc, each_failing_step_of_a_new_registry_has_its_own_error_line_and_gives_null) {
    const struct {
        sys step;
        int error;
        const char *text;
    } steps[] = {
        {sys::mutex_init, ENOMEM, "QEL init app 77 RPC wait mutex failed: Cannot allocate memory.\n"},
        {sys::condattr_init, EAGAIN,
         "QEL init app 77 RPC wait condition attribute failed: Resource temporarily unavailable.\n"},
        {sys::condattr_setclock, EINVAL,
         "QEL set app 77 RPC wait condition clock attribute failed: Invalid argument.\n"},
        {sys::cond_init, EBUSY, "QEL init app 77 RPC wait condition failed: Device or resource busy.\n"},
    };
    qel_capture out;
    qel_set_masks();
    for (const auto &s : steps) {
        qel_time::fail(s.step, s.error);
        EXPECT_EQ(qel_add_app_rpc_wait(77), nullptr);
        EXPECT_EQ(out.take(), RPC(V, "QEL add new app 77 RPC wait mgmt.\n") + RPC(X, "%s", s.text));
    }
    qel_rpc_wait_mgmt *mgmt = qel_add_app_rpc_wait(77);
    EXPECT_NE(mgmt, nullptr) << "the failures are gone";
    qel_del_app_rpc_wait(mgmt);
}

TEST_F(rpc, a_registration_whose_registry_cannot_be_made_gives_eagain_and_can_be_tried_again) {
    for (const sys step : {sys::mutex_init, sys::condattr_init, sys::condattr_setclock, sys::cond_init}) {
        qel_time::fail(step, ENOMEM, 2); // the first is that of flow control
        EXPECT_EQ(add_app(6, false), -EAGAIN);
    }
    EXPECT_EQ(add_app(6, false), 0);
}

TEST_F(rpc, the_end_of_a_registry_frees_its_waits_but_not_their_replies) {
    qel_app_mng *slot = qel_get_app_mng(me);
    qel_rpc_wait_mgmt *own = slot->rpc;
    slot->rpc = qel_add_app_rpc_wait(me);
    qel_reply_set set{};
    ASSERT_EQ(qel_rpc_prepare_wait(me, 1, 30, &set), 0);
    ASSERT_EQ(qel_rpc_prepare_wait(me, 2, 30, &set), 0);
    ASSERT_EQ(qel_rpc_set_wait(me, 1, 7, 2), 0);
    ASSERT_EQ(add(7, 2, 1, 3), 0);
    qel_del_app_rpc_wait(slot->rpc);
    slot->rpc = own;
    EXPECT_EQ(set.count, 1);
    EXPECT_EQ(set.msg[0]->hdr.rpc_status, 3u) << "still there";
    qel_reply_msg_free(&set);
}

// ---- opening a wait -------------------------------------------------------------------------------------

TEST_F(rpc,
       a_prepared_wait_is_empty_knows_its_number_time_out_and_set_and_can_be_found_by_its_application_only) {
    ASSERT_EQ(add_app(6, false), 0);
    qel_reply_set set{};
    qel_capture out;
    qel_set_masks();
    EXPECT_EQ(qel_rpc_prepare_wait(me, 4711, 90, &set), 0);
    EXPECT_EQ(out.take(), RPC(V, "QEL app 5 seq 4711 RPC prepare wait.\n") +
                              RPC(V, "QEL add new app 5 seq 4711 RPC wait.\n"));
    qel_rpc_wait *wait = qel_get_rpc_wait(me, 4711);
    ASSERT_NE(wait, nullptr);
    EXPECT_EQ(wait->seq, 4711u);
    EXPECT_EQ(wait->timeout_s, 90u);
    EXPECT_EQ(wait->count, 0);
    EXPECT_EQ(wait->replies, &set);
    for (const uint32_t r : wait->repliers)
        EXPECT_EQ(r, 0u);
    EXPECT_EQ(qel_get_rpc_wait(me, 4712), nullptr);
    EXPECT_EQ(qel_get_rpc_wait(6, 4711), nullptr);
    EXPECT_EQ(qel_get_rpc_wait(9, 4711), nullptr) << "no such application";
    (void)out.take();
    qel_rpc_del_wait(me, 4711);
    EXPECT_EQ(out.take(), RPC(V, "QEL delete app 5 seq 4711 RPC wait.\n"));
    EXPECT_EQ(qel_get_rpc_wait(me, 4711), nullptr);
}

TEST_F(rpc, a_second_wait_with_the_same_number_is_refused_and_changes_nothing) {
    open_wait w(4711, 30, {{7, 2}});
    qel_reply_set other{};
    qel_capture out;
    qel_set_masks();
    EXPECT_EQ(qel_rpc_prepare_wait(me, 4711, 60, &other), -EEXIST);
    EXPECT_EQ(out.take(), RPC(V, "QEL app 5 seq 4711 RPC prepare wait.\n"));
    EXPECT_EQ(rpc_stat(me), "Application 5 RPC waits:\n  sequence 4711, timeout 30s\n    waiting for 7/2\n"
                            "    RPC already replies:\n\n");
    EXPECT_EQ(qel_get_rpc_wait(me, 4711)->replies, &w.set);
}

TEST_F(rpc, two_applications_may_use_the_same_number_at_once) {
    ASSERT_EQ(add_app(6, false), 0);
    open_wait w(4711, 30, {});
    qel_reply_set other{};
    EXPECT_EQ(qel_rpc_prepare_wait(6, 4711, 60, &other), 0);
    qel_rpc_del_wait(6, 4711);
    EXPECT_NE(qel_get_rpc_wait(me, 4711), nullptr);
}

TEST_F(rpc, without_an_application_a_wait_cannot_be_prepared_and_deleting_one_does_nothing) {
    qel_reply_set set{};
    qel_capture out;
    qel_set_masks();
    EXPECT_EQ(qel_rpc_prepare_wait(9, 1, 30, &set), -ENOENT);
    EXPECT_EQ(out.take(), RPC(V, "QEL app 9 seq 1 RPC prepare wait.\n"));
    qel_rpc_del_wait(9, 1);
    EXPECT_EQ(out.take(), RPC(V, "QEL delete app 9 seq 1 RPC wait.\n"));
    uint32_t peer = 0;
    EXPECT_FALSE(qel_rpc_get_replier(9, 1, 0, &peer));
    EXPECT_EQ(rpc_stat(9), "");
}

TEST_F(rpc, sixty_four_repliers_are_listed_in_order_and_the_65th_is_refused) {
    open_wait w(1, 30, {});
    for (uint32_t i = 0; i < 64; i++)
        ASSERT_EQ(qel_rpc_set_wait(me, 1, 20479 - i, 65535 - i), 0);
    qel_capture out;
    qel_set_masks();
    EXPECT_EQ(qel_rpc_set_wait(me, 1, 7, 2), -ENOBUFS);
    EXPECT_EQ(out.take(), RPC(X, "QEL RPC wait reply num exceeds limit 64.\n"));
    qel_set_masks(0);
    const qel_rpc_wait *wait = qel_get_rpc_wait(me, 1);
    ASSERT_EQ(wait->count, 64);
    uint32_t peer = 0;
    for (uint32_t i = 0; i < 64; i++) {
        EXPECT_EQ(wait->repliers[i], (20479 - i) << 16 | (65535 - i));
        ASSERT_TRUE(qel_rpc_get_replier(me, 1, static_cast<int32_t>(i), &peer));
        EXPECT_EQ(peer, (20479 - i) << 16 | (65535 - i));
    }
    EXPECT_FALSE(qel_rpc_get_replier(me, 1, 64, &peer));
    EXPECT_FALSE(qel_rpc_get_replier(me, 1, -1, &peer));
    EXPECT_FALSE(qel_rpc_get_replier(me, 2, 0, &peer));
}

TEST_F(rpc, a_replier_listed_twice_is_listed_twice) {
    open_wait w(1, 30, {{7, 2}, {7, 2}});
    EXPECT_EQ(qel_get_rpc_wait(me, 1)->count, 2);
}

TEST_F(rpc_death, a_replier_for_a_wait_that_is_not_there_or_on_no_node_is_an_assertion_failure) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    open_wait w(1, 30, {});
    EXPECT_EQ(qel_rpc_set_wait(me, 1, 7, 65535), 0);
    EXPECT_DEATH((void)qel_rpc_set_wait(me, 2, 7, 2),
                 "qel_rpc.cpp:[0-9]+: assertion failed: \"wait != NULL\"");
    EXPECT_DEATH((void)qel_rpc_set_wait(9, 1, 7, 2), // an application that is not here has no waits either
                 "qel_rpc.cpp:[0-9]+: assertion failed: \"wait != NULL\"");
    EXPECT_DEATH((void)qel_rpc_set_wait(me, 1, 7, 65536),
                 "qel_rpc.cpp:[0-9]+: assertion failed: \"qel_valid_node_id\\(dst_node\\)\"");
}

TEST_F(rpc_death, deleting_a_wait_that_is_not_there_is_an_assertion_failure) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(qel_rpc_del_wait(me, 1), "qel_rpc.cpp:[0-9]+: assertion failed: \"wait != NULL\"");
}

TEST_F(rpc, an_aborted_wait_is_gone_and_its_set_empty) {
    open_wait w(1, 30, {{7, 2}, {7, 3}});
    ASSERT_EQ(add(7, 2, 1), 0);
    ASSERT_EQ(qel_terminate_rpc(me, 7, 3), 0); // may come before the caller knows that it fails
    ASSERT_EQ(w.set.count, 2);
    qel_rpc_abort_wait(me, 1, &w.set);
    EXPECT_TRUE(w.gone());
    EXPECT_EQ(w.set.count, 0);
    EXPECT_EQ(w.set.msg[0], nullptr);
    EXPECT_EQ(w.set.msg[1], nullptr);
}

// ---- waiting --------------------------------------------------------------------------------------------

TEST_F(rpc, a_wait_without_repliers_ends_at_once_with_an_empty_set) {
    for (const uint32_t timeout : {0u, 30u}) {
        open_wait w(1, timeout, {});
        qel_capture out;
        qel_set_masks();
        EXPECT_EQ(qel_rpc_wait_reply(me, 1), 0);
        EXPECT_EQ(out.take(), RPC(V, "QEL app 5 seq 1 RPC all replied.\n"));
        qel_set_masks(0);
        EXPECT_EQ(w.set.count, 0);
        EXPECT_TRUE(w.gone());
    }
}

TEST_F(rpc, a_wait_whose_repliers_have_all_answered_before_ends_at_once) {
    open_wait w(1, 30, {{7, 2}});
    ASSERT_EQ(add(7, 2, 1), 0);
    EXPECT_EQ(qel_rpc_wait_reply(me, 1), 0);
    EXPECT_EQ(w.replies(), (list{"7/2 0"}));
    EXPECT_TRUE(w.gone());
}

TEST_F(rpc, the_answers_are_taken_in_the_order_of_arrival) {
    open_wait w(1, 30, {{7, 1}, {7, 2}, {8, 1}, {9, 4}});
    w.begin();
    EXPECT_EQ(add(8, 1, 1, 3), 0);
    EXPECT_EQ(qel_rpc_add_error_reply(me, 1, 9, 4, QEL_STATUS_SYSTEM), 0);
    EXPECT_EQ(add(7, 2, 1, 2), 0);
    ASSERT_TRUE(qel_time::settle());
    EXPECT_FALSE(w.caller->ended());
    EXPECT_EQ(add(7, 1, 1), 0);
    ASSERT_TRUE(w.caller->join());
    EXPECT_EQ(w.ret, 0);
    EXPECT_EQ(w.replies(), (list{"8/1 3", "9/4 4", "7/2 2", "7/1 0"}));
    EXPECT_TRUE(w.gone());
}

TEST_F(rpc, a_silent_peer_is_given_up_after_slices_of_thirty_seconds_with_one_reply_of_status_5) {
    const struct {
        uint32_t timeout_s;
        std::chrono::seconds real;
    } cases[] = {{1, 30s},  {5, 30s},  {29, 30s}, {30, 30s},  {31, 60s},
                 {60, 60s}, {61, 90s}, {90, 90s}, {100, 120s}};
    for (const auto &c : cases) {
        open_wait w(c.timeout_s, c.timeout_s, {{7, 2}});
        w.begin();
        EXPECT_EQ(lasts(w, 200s), c.real) << c.timeout_s;
        EXPECT_EQ(w.ret, 0);
        ASSERT_EQ(w.set.count, 1);
        expect_local(w.set.msg[0], 7, 2, c.timeout_s, QEL_STATUS_TIMEOUT);
        EXPECT_TRUE(w.gone());
    }
}

TEST_F(rpc, the_deadline_is_thirty_seconds_to_the_nanosecond) {
    open_wait w(1, 5, {{7, 2}});
    w.begin();
    qel_time::advance(29'999'999'999ns);
    ASSERT_TRUE(qel_time::settle());
    EXPECT_FALSE(w.caller->ended());
    qel_time::advance(1ns);
    ASSERT_TRUE(w.caller->join());
    EXPECT_EQ(w.replies(), (list{"7/2 5"}));
}

TEST_F(rpc, a_wait_that_times_out_says_each_step_and_files_its_replies_in_the_order_of_the_list) {
    open_wait w(4711, 31, {{7, 2}, {8, 3}, {6, 4}});
    qel_capture out;
    qel_set_masks();
    w.begin();
    EXPECT_EQ(out.take(), RPC(V, "QEL app 5 seq 4711 wait for RPC reply in 31s.\n"));
    qel_time::advance(30s);
    ASSERT_TRUE(qel_time::settle());
    EXPECT_EQ(out.take(), RPC(I, "QEL app 5 seq 4711 wait for RPC reply timeout.\n") +
                              RPC(V, "QEL app 5 seq 4711 wait for RPC reply in 31s.\n"))
        << "the configured value, not what is left";
    qel_time::advance(30s);
    ASSERT_TRUE(w.caller->join());
    EXPECT_EQ(out.take(), RPC(I, "QEL app 5 seq 4711 wait for RPC reply timeout.\n") +
                              RPC(I, "QEL app 5 seq 4711 wait for 7/2 timeout.\n") +
                              RPC(I, "QEL app 5 seq 4711 wait for 8/3 timeout.\n") +
                              RPC(I, "QEL app 5 seq 4711 wait for 6/4 timeout.\n") +
                              RPC(V, "QEL app 5 seq 4711 RPC all replied.\n"));
    EXPECT_EQ(w.ret, 0);
    EXPECT_EQ(w.replies(), (list{"7/2 5", "8/3 5", "6/4 5"}));
}

TEST_F(rpc, of_sixty_seconds_an_answer_after_one_leaves_the_silent_peer_thirty) {
    open_wait w(1, 60, {{7, 2}, {7, 3}});
    w.begin();
    ASSERT_TRUE(qel_time::run_for(1s));
    EXPECT_EQ(add(7, 3, 1), 0);
    ASSERT_TRUE(qel_time::settle());
    EXPECT_EQ(lasts(w, 200s), 30s);
    EXPECT_EQ(w.ret, 0);
    EXPECT_EQ(w.replies(), (list{"7/3 0", "7/2 5"}));
}

TEST_F(rpc, a_wake_up_that_spends_the_last_slice_still_gives_a_whole_slice_more) {
    open_wait w(1, 30, {{7, 2}, {7, 3}});
    w.begin();
    ASSERT_TRUE(qel_time::run_for(10s));
    EXPECT_EQ(add(7, 3, 1), 0);
    ASSERT_TRUE(qel_time::settle());
    EXPECT_EQ(lasts(w, 200s), 30s);
    EXPECT_EQ(w.replies(), (list{"7/3 0", "7/2 5"}));
}

TEST_F(rpc, every_wake_up_of_any_call_of_the_application_costs_every_waiting_call_a_slice) {
    open_wait a(1, 120, {{7, 2}}), b(2, 120, {{8, 2}, {8, 3}});
    a.begin();
    b.begin();
    ASSERT_TRUE(qel_time::run_for(1s));
    EXPECT_EQ(add(8, 2, 2), 0); // 90 left to each
    ASSERT_TRUE(qel_time::settle());
    ASSERT_TRUE(qel_time::run_for(1s));
    EXPECT_EQ(add(8, 3, 2), 0); // 60 left
    ASSERT_TRUE(b.caller->join());
    ASSERT_TRUE(qel_time::settle());
    qel_time::wake_spuriously(); // 30 left
    ASSERT_TRUE(qel_time::settle());
    EXPECT_EQ(lasts(a, 200s), 30s);
    EXPECT_EQ(a.replies(), (list{"7/2 5"}));
    EXPECT_EQ(b.replies(), (list{"8/2 0", "8/3 0"}));
}

TEST_F(rpc, a_refused_reply_wakes_nobody) {
    open_wait w(1, 60, {{7, 2}});
    w.begin();
    const unsigned before = broadcasts();
    EXPECT_EQ(add(7, 3, 1), -ENOENT);
    EXPECT_EQ(add(7, 2, 2), -ENOENT);
    EXPECT_EQ(qel_rpc_add_error_reply(me, 1, 7, 3, 4), -ENOENT);
    EXPECT_EQ(qel_rpc_add_error_reply(me, 2, 7, 2, 4), -ENOENT);
    EXPECT_EQ(broadcasts(), before);
    EXPECT_EQ(lasts(w, 200s), 60s);
}

TEST_F(rpc, a_time_out_beyond_the_range_of_an_int_does_not_wrap) {
    for (const uint32_t timeout : {0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
        open_wait w(1, timeout, {{7, 2}});
        w.begin();
        ASSERT_TRUE(qel_time::run_for(1h));
        ASSERT_TRUE(qel_time::settle());
        EXPECT_FALSE(w.caller->ended()) << timeout;
        EXPECT_EQ(add(7, 2, 1), 0);
        ASSERT_TRUE(w.caller->join());
        EXPECT_EQ(w.ret, 0);
    }
}

TEST_F(rpc, with_time_out_0_a_call_waits_for_ever_in_slices_of_a_second) {
    open_wait w(4711, 0, {{7, 2}});
    qel_capture out;
    qel_set_masks();
    w.begin();
    EXPECT_EQ(out.take(), RPC(V, "QEL app 5 seq 4711 wait for RPC reply in 0s.\n"));
    for (int i = 0; i < 3; i++) {
        qel_time::advance(999'999'999ns);
        ASSERT_TRUE(qel_time::settle());
        EXPECT_EQ(out.take(), "");
        qel_time::advance(1ns);
        ASSERT_TRUE(qel_time::settle());
        EXPECT_EQ(out.take(), RPC(V, "QEL app 5 seq 4711 wait for RPC reply in 0s.\n"));
    }
    qel_set_masks(0);
    ASSERT_TRUE(qel_time::run_for(1h));
    ASSERT_TRUE(qel_time::settle());
    EXPECT_FALSE(w.caller->ended());
    EXPECT_EQ(add(7, 2, 4711), 0);
    ASSERT_TRUE(w.caller->join());
    EXPECT_EQ(w.ret, 0);
    EXPECT_EQ(w.replies(), (list{"7/2 0"}));
}

TEST_F(rpc, with_time_out_0_a_peer_that_quits_ends_the_wait_with_status_4) {
    open_wait w(1, 0, {{7, 2}});
    w.begin();
    ASSERT_TRUE(qel_time::run_for(10min));
    EXPECT_EQ(qel_terminate_rpc(me, 7, 2), 0);
    ASSERT_TRUE(w.caller->join());
    EXPECT_EQ(w.ret, 0);
    ASSERT_EQ(w.set.count, 1);
    expect_local(w.set.msg[0], 7, 2, 1, QEL_STATUS_SYSTEM);
    EXPECT_STREQ(qel_reply_stat_string(w.set.msg[0]->hdr.rpc_status), "systerm error");
}

TEST_F(rpc, a_waiting_caller_is_registered_with_the_watchdog_under_its_thread_name_and_feeds_it_each_slice) {
    open_wait endless(1, 0, {{7, 2}});
    (void)qel_dog::take();
    endless.begin();
    EXPECT_EQ(qel_dog::take("qel_caller"), (list{"register qel_caller", "feed qel_caller"}));
    ASSERT_TRUE(qel_time::run_for(4s));
    ASSERT_TRUE(qel_time::settle());
    EXPECT_EQ(qel_dog::take("qel_caller"), list(4, "feed qel_caller"));
    EXPECT_EQ(add(7, 2, 1), 0);
    ASSERT_TRUE(endless.caller->join());
    EXPECT_EQ(qel_dog::take("qel_caller"), (list{"unregister qel_caller"}));
    open_wait limited(2, 90, {{7, 2}});
    limited.begin();
    ASSERT_TRUE(qel_time::run_for(90s));
    ASSERT_TRUE(limited.caller->join());
    EXPECT_EQ(qel_dog::take("qel_caller"), (list{"register qel_caller", "feed qel_caller", "feed qel_caller",
                                                 "feed qel_caller", "unregister qel_caller"}));
}

TEST_F(rpc_death, waiting_without_registry_or_wait_is_an_assertion_failure) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH((void)qel_rpc_wait_reply(9, 1), "qel_rpc.cpp:[0-9]+: assertion failed: \"rpc != NULL\"");
    EXPECT_DEATH((void)qel_rpc_wait_reply(me, 1), "qel_rpc.cpp:[0-9]+: assertion failed: \"wait != NULL\"");
}

TEST_F(rpc_death, a_condition_that_cannot_be_waited_for_is_an_assertion_failure) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    open_wait limited(1, 30, {{7, 2}}), endless(2, 0, {{7, 2}});
    ASSERT_TRUE(qel_time::settle()); // nobody else is about to wait
    for (const uint32_t seq : {1u, 2u})
        EXPECT_DEATH(
            {
                qel_time::fail(sys::cond_timedwait, EPERM);
                (void)qel_rpc_wait_reply(me, seq);
            },
            "qel_rpc.cpp:[0-9]+: assertion failed: \"ret == 0\"");
}

// ---- the race of deadline and last reply ----------------------------------------------------------------

TEST_F(rpc, where_the_last_reply_meets_a_deadline_the_call_fails_with_etimedout_and_an_empty_set) {
    open_wait w(4711, 90, {{7, 2}, {7, 3}}), other(4712, 600, {{7, 3}});
    w.begin();
    ASSERT_TRUE(qel_time::run_for(1s));
    EXPECT_EQ(add(7, 2, 4711), 0);
    ASSERT_TRUE(qel_time::settle());
    ASSERT_EQ(w.set.count, 1);
    qel_capture out;
    qel_set_masks();
    std::string meanwhile;
    qel_at_deadline([&] {
        EXPECT_EQ(add(7, 3, 4711), 0);
        meanwhile = out.take();
    });
    qel_time::advance(30s);
    ASSERT_TRUE(w.caller->join());
    EXPECT_EQ(meanwhile, RPC(V, "QEL add RPC reply for app 5 seq 4711 from 7/3 status RPC success.\n") +
                             RPC(V, "QEL app 5 seq 4711 to 7/3 RPC replied.\n"));
    EXPECT_EQ(out.take(),
              RPC(I, "QEL app 5 seq 4711 wait for RPC reply timeout.\n") +
                  RPC(X, "QEL app 5 seq 4711 wait for RPC reply failed: Connection timed out.\n"));
    EXPECT_EQ(w.ret, ETIMEDOUT);
    EXPECT_EQ(w.set.count, 0);
    EXPECT_EQ(w.set.msg[0], nullptr);
    EXPECT_EQ(w.set.msg[1], nullptr);
    EXPECT_TRUE(w.gone());
    EXPECT_FALSE(other.gone());
}

TEST_F(rpc, with_time_out_0_the_race_is_met_at_each_second) {
    open_wait w(4711, 0, {{7, 2}});
    w.begin();
    ASSERT_TRUE(qel_time::run_for(10s));
    qel_capture out;
    qel_set_masks(8);
    qel_at_deadline([] { EXPECT_EQ(add(7, 2, 4711), 0); });
    ASSERT_TRUE(qel_time::run_for(1s));
    ASSERT_TRUE(w.caller->join());
    EXPECT_EQ(out.take(), RPC(X, "QEL app 5 seq 4711 wait for RPC reply failed: Connection timed out.\n"));
    EXPECT_EQ(w.ret, ETIMEDOUT);
    EXPECT_EQ(w.set.count, 0);
    EXPECT_TRUE(w.gone());
}

TEST_F(rpc, a_termination_or_error_reply_that_meets_a_deadline_is_the_same_race) {
    const std::function<void()> acts[] = {
        [] { EXPECT_EQ(qel_terminate_rpc(me, 7, 2), 0); },
        [] { EXPECT_EQ(qel_rpc_add_error_reply(me, 4711, 7, 2, QEL_STATUS_SYSTEM), 0); },
    };
    for (const auto &act : acts) {
        open_wait w(4711, 60, {{7, 2}});
        w.begin();
        qel_at_deadline(act);
        ASSERT_TRUE(qel_time::run_for(30s));
        ASSERT_TRUE(w.caller->join());
        EXPECT_EQ(w.ret, ETIMEDOUT);
        EXPECT_EQ(w.set.count, 0);
    }
}

TEST_F(rpc, a_last_reply_that_meets_the_last_deadline_is_a_success) {
    open_wait w(4711, 30, {{7, 2}});
    w.begin();
    qel_capture out;
    qel_set_masks();
    qel_at_deadline([&out] {
        EXPECT_EQ(add(7, 2, 4711, 3), 0);
        (void)out.take();
    });
    qel_time::advance(30s);
    ASSERT_TRUE(w.caller->join());
    EXPECT_EQ(out.take(), RPC(I, "QEL app 5 seq 4711 wait for RPC reply timeout.\n") +
                              RPC(V, "QEL app 5 seq 4711 RPC all replied.\n"));
    EXPECT_EQ(w.ret, 0);
    EXPECT_EQ(w.replies(), (list{"7/2 3"}));
}

TEST_F(rpc, a_reply_that_meets_the_last_deadline_counts_and_only_the_silent_time_out) {
    open_wait w(4711, 30, {{7, 2}, {7, 3}, {7, 4}});
    w.begin();
    qel_at_deadline([] { EXPECT_EQ(add(7, 3, 4711), 0); });
    ASSERT_TRUE(qel_time::run_for(30s));
    ASSERT_TRUE(w.caller->join());
    EXPECT_EQ(w.ret, 0);
    EXPECT_EQ(w.replies(), (list{"7/3 0", "7/2 5", "7/4 5"}));
}

TEST_F(rpc, a_reply_in_time_after_slices_that_ran_out_is_a_success) {
    for (const uint32_t timeout : {0u, 90u}) {
        open_wait w(1, timeout, {{7, 2}});
        w.begin();
        ASSERT_TRUE(qel_time::run_for(31s));
        ASSERT_TRUE(qel_time::settle());
        EXPECT_EQ(add(7, 2, 1), 0);
        ASSERT_TRUE(w.caller->join());
        EXPECT_EQ(w.ret, 0);
        EXPECT_EQ(w.replies(), (list{"7/2 0"}));
    }
}

// ---- replies that are received --------------------------------------------------------------------------

TEST_F(rpc, a_received_reply_becomes_the_sets_and_strikes_its_peer_off) {
    open_wait w(4711, 30, {{7, 2}, {7, 3}});
    qel_msg *msg = reply(7, 3, 4711, 3);
    const unsigned before = broadcasts();
    qel_capture out;
    qel_set_masks();
    EXPECT_EQ(qel_rpc_add_reply(msg), 0);
    EXPECT_EQ(
        out.take(),
        RPC(V,
            "QEL add RPC reply for app 5 seq 4711 from 7/3 status application service version mismatch.\n") +
            RPC(V, "QEL app 5 seq 4711 to 7/3 RPC replied.\n"));
    EXPECT_EQ(broadcasts(), before + 1);
    EXPECT_EQ(w.set.count, 1);
    EXPECT_EQ(w.set.msg[0], msg) << "not a copy";
    uint32_t peer = 1;
    ASSERT_TRUE(qel_rpc_get_replier(me, 4711, 1, &peer));
    EXPECT_EQ(peer, 0u);
    ASSERT_TRUE(qel_rpc_get_replier(me, 4711, 0, &peer));
    EXPECT_EQ(peer, 7u << 16 | 2);
}

TEST_F(rpc, a_reply_for_an_application_that_is_not_here_is_refused) {
    qel_msg *msg = reply(7, 2, 4711);
    msg->hdr.dst_app = 9;
    qel_capture out;
    qel_set_masks();
    EXPECT_EQ(qel_rpc_add_reply(msg), -ENOENT);
    EXPECT_EQ(out.take(), RPC(V, "QEL add RPC reply for app 9 seq 4711 from 7/2 status RPC success.\n") +
                              RPC(X, "QEL get app 9 RPC wait not exist.\n"));
    free(msg);
}

TEST_F(rpc, a_reply_for_a_call_that_has_ended_or_never_was_is_refused) {
    open_wait w(4711, 30, {{7, 2}});
    w.begin();
    EXPECT_EQ(lasts(w, 60s), 30s);
    qel_capture out;
    qel_set_masks();
    EXPECT_EQ(add(7, 2, 4711), -ENOENT);
    EXPECT_EQ(out.take(), RPC(V, "QEL add RPC reply for app 5 seq 4711 from 7/2 status RPC success.\n") +
                              RPC(V, "QEL app 5 seq 4711 to 7/2 RPC wait not exist.\n"));
    EXPECT_EQ(w.replies(), (list{"7/2 5"}));
}

TEST_F(rpc, a_second_reply_of_a_peer_and_one_of_a_peer_that_was_not_asked_are_refused) {
    open_wait w(4711, 30, {{7, 2}, {7, 3}});
    EXPECT_EQ(add(7, 2, 4711), 0);
    qel_capture out;
    qel_set_masks();
    EXPECT_EQ(add(7, 2, 4711), -ENOENT);
    EXPECT_EQ(out.take(), RPC(V, "QEL add RPC reply for app 5 seq 4711 from 7/2 status RPC success.\n") +
                              RPC(X, "QEL app 5 seq 4711 clear wait for app 7/2 not exist.\n"));
    EXPECT_EQ(add(8, 2, 4711), -ENOENT);
    EXPECT_EQ(out.take(), RPC(V, "QEL add RPC reply for app 5 seq 4711 from 8/2 status RPC success.\n") +
                              RPC(X, "QEL app 5 seq 4711 clear wait for app 8/2 not exist.\n"));
    EXPECT_EQ(add(7, 4, 4711), -ENOENT);
    EXPECT_EQ(w.replies(), (list{"7/2 0"}));
}

TEST_F(rpc, of_the_node_number_in_a_reply_16_bits_count) {
    open_wait w(1, 30, {{8, 2}, {8, 3}});
    EXPECT_EQ(add(8, 0x10002, 1), 0);
    EXPECT_EQ(qel_terminate_rpc(me, 8, 0xFFFF0003), 0);
    EXPECT_EQ(w.replies(), (list{"8/65538 0", "8/3 4"}));
}

TEST_F(rpc, of_a_peer_listed_twice_each_reply_strikes_one_entry) {
    open_wait w(1, 30, {{7, 2}, {7, 2}});
    EXPECT_EQ(add(7, 2, 1), 0);
    EXPECT_EQ(add(7, 2, 1), 0);
    EXPECT_EQ(add(7, 2, 1), -ENOENT);
    EXPECT_EQ(w.set.count, 2);
}

TEST_F(rpc, a_full_set_of_64_replies_is_collected) {
    open_wait w(1, 30, {});
    for (uint32_t node = 0; node < 64; node++)
        ASSERT_EQ(qel_rpc_set_wait(me, 1, 7, node), 0);
    w.begin();
    for (uint32_t node = 64; node-- > 0;)
        EXPECT_EQ(add(7, node, 1), 0);
    ASSERT_TRUE(w.caller->join());
    EXPECT_EQ(w.ret, 0);
    ASSERT_EQ(w.set.count, 64);
    for (uint32_t i = 0; i < 64; i++)
        EXPECT_EQ(w.set.msg[i]->hdr.src_node, 63 - i);
}

TEST_F(rpc_death, a_broadcast_that_fails_is_an_assertion_failure) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    open_wait w(1, 30, {{7, 2}});
    const std::function<void()> acts[] = {
        [] { (void)add(7, 2, 1); },
        [] { (void)qel_rpc_add_error_reply(me, 1, 7, 2, 4); },
        [] { (void)qel_terminate_rpc(me, 7, 2); },
    };
    for (const auto &act : acts)
        EXPECT_DEATH(
            {
                qel_time::fail(sys::cond_broadcast, EINVAL);
                act();
            },
            "qel_rpc.cpp:[0-9]+: assertion failed: \"ret == 0\"");
}

// ---- error replies made here ----------------------------------------------------------------------------

TEST_F(rpc, an_error_reply_is_filed_like_one_of_the_peer) {
    open_wait w(4711, 30, {{8, 2}, {7, 3}});
    const unsigned before = broadcasts();
    qel_capture out;
    qel_set_masks();
    EXPECT_EQ(qel_rpc_add_error_reply(me, 4711, 7, 3, QEL_STATUS_SYSTEM), 0);
    EXPECT_EQ(out.take(), RPC(W, "QEL add error reply for app 5 seq 4711 from 7/3 status systerm error.\n"));
    EXPECT_EQ(broadcasts(), before + 1);
    ASSERT_EQ(w.set.count, 1);
    expect_local(w.set.msg[0], 7, 3, 4711, QEL_STATUS_SYSTEM);
    EXPECT_EQ(qel_rpc_add_error_reply(me, 4711, 8, 0x10002, 77), 0) << "of the node number 16 bits count";
    EXPECT_EQ(out.take(), RPC(W, "QEL add error reply for app 5 seq 4711 from 8/65538 status .\n"));
    expect_local(w.set.msg[1], 8, 2, 4711, 77);
}

TEST_F(rpc, an_error_reply_without_wait_or_for_a_peer_not_waited_for_is_refused) {
    open_wait w(4711, 30, {{7, 2}});
    const std::string told =
        RPC(W, "QEL add error reply for app 5 seq 4711 from 7/2 status systerm error.\n");
    EXPECT_EQ(add(7, 2, 4711), 0);
    qel_capture out;
    qel_set_masks();
    EXPECT_EQ(qel_rpc_add_error_reply(me, 4711, 7, 2, QEL_STATUS_SYSTEM), -ENOENT);
    EXPECT_EQ(out.take(), told + RPC(X, "QEL app 5 seq 4711 clear wait for app 7/2 not exist.\n"));
    qel_rpc_del_wait(me, 4711);
    (void)out.take();
    EXPECT_EQ(qel_rpc_add_error_reply(me, 4711, 7, 2, QEL_STATUS_SYSTEM), -ENOENT);
    EXPECT_EQ(out.take(), told + RPC(V, "QEL app 5 seq 4711 RPC wait not exist.\n"));
    EXPECT_EQ(w.set.count, 1);
}

TEST_F(rpc_death, an_error_reply_or_termination_for_an_application_that_is_not_here_is_an_assertion_failure) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const char *wanted = "qel_rpc.cpp:[0-9]+: assertion failed: \"rpc != NULL\"";
    EXPECT_DEATH((void)qel_rpc_add_error_reply(9, 1, 7, 2, 4), wanted);
    EXPECT_DEATH((void)qel_terminate_rpc(9, 7, 2), wanted);
}

// ---- a peer quits ---------------------------------------------------------------------------------------

TEST_F(rpc, a_termination_strikes_the_peer_off_every_wait_of_the_application_with_status_4) {
    ASSERT_EQ(add_app(6, false), 0);
    open_wait a(1, 30, {{7, 2}, {7, 3}}), b(2, 0, {{8, 2}, {7, 2}}), c(3, 30, {{8, 2}, {7, 3}});
    qel_reply_set of_6{};
    ASSERT_EQ(qel_rpc_prepare_wait(6, 1, 30, &of_6), 0);
    ASSERT_EQ(qel_rpc_set_wait(6, 1, 7, 2), 0);
    const unsigned before = broadcasts();
    qel_capture out;
    qel_set_masks();
    EXPECT_EQ(qel_terminate_rpc(me, 7, 2), 0);
    EXPECT_EQ(out.take(), RPC(V, "QEL try to terminate app 5 RPC to 7/2.\n") +
                              RPC(W, "QEL terminate app 5 seq 1 RPC to 7/2.\n") +
                              RPC(W, "QEL terminate app 5 seq 2 RPC to 7/2.\n"));
    qel_set_masks(0);
    EXPECT_EQ(broadcasts(), before + 1) << "once for all";
    EXPECT_EQ(a.replies(), (list{"7/2 4"}));
    EXPECT_EQ(b.replies(), (list{"7/2 4"}));
    EXPECT_EQ(c.set.count, 0);
    EXPECT_EQ(of_6.count, 0) << "another application's wait";
    expect_local(a.set.msg[0], 7, 2, 1, QEL_STATUS_SYSTEM);
    expect_local(b.set.msg[0], 7, 2, 2, QEL_STATUS_SYSTEM);
    EXPECT_EQ(qel_terminate_rpc(me, 7, 2), 0);
    EXPECT_EQ(a.set.count, 1) << "struck off once";
    EXPECT_EQ(add(7, 2, 1), -ENOENT);
    qel_rpc_del_wait(6, 1);
}

TEST_F(rpc, a_termination_strikes_only_the_first_of_two_equal_entries_of_a_wait) {
    open_wait w(1, 30, {{7, 2}, {7, 2}});
    EXPECT_EQ(qel_terminate_rpc(me, 7, 2), 0);
    EXPECT_EQ(w.set.count, 1);
    uint32_t first = 1, second = 0;
    ASSERT_TRUE(qel_rpc_get_replier(me, 1, 0, &first));
    ASSERT_TRUE(qel_rpc_get_replier(me, 1, 1, &second));
    EXPECT_EQ(first, 0u);
    EXPECT_EQ(second, 7u << 16 | 2);
}

TEST_F(rpc, a_termination_without_any_wait_broadcasts_and_gives_0) {
    const unsigned before = broadcasts();
    qel_capture out;
    qel_set_masks();
    EXPECT_EQ(qel_terminate_rpc(me, 7, 2), 0);
    EXPECT_EQ(out.take(), RPC(V, "QEL try to terminate app 5 RPC to 7/2.\n"));
    EXPECT_EQ(broadcasts(), before + 1);
}

TEST_F(rpc, a_termination_of_a_stranger_still_costs_every_waiting_call_a_slice) {
    open_wait w(1, 60, {{7, 2}});
    w.begin();
    ASSERT_TRUE(qel_time::run_for(1s));
    EXPECT_EQ(qel_terminate_rpc(me, 9, 9), 0);
    ASSERT_TRUE(qel_time::settle());
    EXPECT_EQ(lasts(w, 200s), 30s);
}

TEST_F(rpc, a_peer_that_quits_ends_the_calls_of_the_first_subscriber) {
    ASSERT_EQ(add_app(6, false), 0);
    serve(me, 7, {2, 3});
    serve(6, 7, {2, 3});
    open_wait w(1, 0, {{7, 2}, {7, 3}});
    qel_reply_set of_6{};
    ASSERT_EQ(qel_rpc_prepare_wait(6, 1, 30, &of_6), 0);
    ASSERT_EQ(qel_rpc_set_wait(6, 1, 7, 2), 0);
    w.begin();
    qel_app_inst_force_quit(7, 2);
    ASSERT_TRUE(qel_time::settle());
    EXPECT_FALSE(w.caller->ended());
    qel_app_inst_force_quit(7, 3);
    ASSERT_TRUE(w.caller->join());
    EXPECT_EQ(w.replies(), (list{"7/2 4", "7/3 4"}));
    EXPECT_EQ(of_6.count, 0) << "known: the second subscriber's calls wait for their time-out";
    qel_rpc_del_wait(6, 1);
}

// ---- replies made for a request -------------------------------------------------------------------------

struct request {
    explicit request(uint8_t flags = QEL_FLAG_REQUEST) : msg(qel_msg_alloc(4, 9, 0)) {
        memcpy(qel_msg_data(msg), "abcd", 4);
        qel_encode_msg_hdr(msg, flags, 7, 2, me, 1, 4711, 0);
        msg->hdr.qos = 3;
        before = msg->hdr;
    }
    ~request() {
        EXPECT_EQ(memcmp(&before, &msg->hdr, sizeof before), 0) << "the request stays as it was";
        free(msg);
    }
    qel_msg *msg;
    qel_hdr before;
};

void expect_reply(const qel_process::sent &s, uint8_t flags, uint32_t len, uint32_t status) {
    EXPECT_EQ(s.to, "7/2");
    const qel_hdr &h = s.msg.hdr;
    EXPECT_EQ(h.version, 1);
    EXPECT_EQ(h.reserved, 0);
    EXPECT_EQ(h.flags, flags);
    EXPECT_EQ(h.qos, 0);
    EXPECT_EQ(h.len, len);
    EXPECT_EQ(h.src_node, 1u);
    EXPECT_EQ(h.dst_node, 2u);
    EXPECT_EQ(h.src_app, me);
    EXPECT_EQ(h.dst_app, 7u);
    EXPECT_EQ(h.app_ver, 1u);
    EXPECT_EQ(h.seq, 4711u);
    EXPECT_EQ(h.rpc_status, status);
    EXPECT_EQ(s.msg.data.size(), len - 36);
}

TEST_F(rpc, a_bare_reply_has_36_bytes_and_the_requests_flags_with_ack) {
    for (const uint8_t flags : {0x02, 0x0A}) {
        const request r(flags);
        qel_capture out;
        qel_set_masks();
        EXPECT_EQ(qel_rpc_reply_error(r.msg, QEL_STATUS_UNAVAILABLE), 0);
        EXPECT_EQ(only(out.take(), "qel_rpc"),
                  RPC(V, "QEL app 5 reply to 7/2 seq 4711 status: application service unavailable.\n"));
        qel_set_masks(0);
        const std::vector<sent> all = take_sent();
        ASSERT_EQ(all.size(), 1u);
        expect_reply(all[0], flags | QEL_FLAG_ACK, 36, QEL_STATUS_UNAVAILABLE);
    }
}

TEST_F(rpc, a_version_range_reply_has_44_bytes_status_3_and_the_range_in_host_order) {
    const request r;
    const uint32_t range[2] = {2, 0x01020304};
    qel_capture out;
    qel_set_masks();
    EXPECT_EQ(qel_rpc_reply_app_mismatch(r.msg, range), 0);
    EXPECT_EQ(only(out.take(), "qel_rpc"),
              RPC(V, "QEL app 5 reply to 7/2 seq 4711 app ver range [2, 16909060].\n"));
    qel_set_masks(0);
    const std::vector<sent> all = take_sent();
    ASSERT_EQ(all.size(), 1u);
    expect_reply(all[0], 0x06, 44, QEL_STATUS_APP_VERSION);
    EXPECT_EQ(host32_at(all[0].msg.data, 0), 2u);
    EXPECT_EQ(host32_at(all[0].msg.data, 4), 0x01020304u);
}

TEST_F(rpc, a_reply_that_cannot_be_sent_gives_the_result_of_the_send) {
    const uint32_t range[2] = {1, 2};
    {
        const request r;
        qel_fake::fail_to(7, 2, EHOSTUNREACH, 2);
        EXPECT_EQ(qel_rpc_reply_error(r.msg, 4), -1);
        EXPECT_EQ(qel_rpc_reply_app_mismatch(r.msg, range), -1);
    }
    qel_msg *msg = qel_msg_alloc(0, 1, 0);
    qel_encode_msg_hdr(msg, QEL_FLAG_REQUEST, 7, 2, 9, 1, 1, 0); // to nobody here
    EXPECT_EQ(qel_rpc_reply_error(msg, 4), -EINVAL);
    EXPECT_EQ(qel_rpc_reply_app_mismatch(msg, range), -EINVAL);
    free(msg);
    EXPECT_TRUE(take_sent().empty());
}

// ---- prints ---------------------------------------------------------------------------------------------

TEST_F(rpc, the_debug_print_shows_all_repliers_answered_or_not_and_only_with_the_verbose_debug_bit) {
    open_wait w(4711, 30, {{7, 2}, {8, 65535}, {6, 0}}), none(4712, 30, {});
    EXPECT_EQ(add(8, 65535, 4711), 0);
    qel_capture out;
    qel_set_masks(0xE, 0xF);
    qel_rpc_print_wait(me, 4711);
    EXPECT_EQ(out.take(), "");
    qel_set_masks(1);
    qel_rpc_print_wait(me, 4711);
    EXPECT_EQ(out.take(), "QEL app 5 seq 4711 wait for: 7/2 0/0 6/0.\n");
    qel_rpc_print_wait(me, 4712);
    EXPECT_EQ(out.take(), "QEL app 5 seq 4712 wait for:.\n");
}

TEST_F(rpc_death, the_debug_print_of_a_wait_that_is_not_there_is_an_assertion_failure) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    qel_rpc_print_wait(me, 1); // not printed, not looked for
    for (const uint32_t app : {me, 9u})
        EXPECT_DEATH(
            {
                qel_set_masks(1);
                qel_rpc_print_wait(app, 1);
            },
            "qel_rpc.cpp:[0-9]+: assertion failed: \"wait != NULL\"");
}

TEST_F(rpc, the_statistics_show_each_wait_with_who_is_waited_for_and_who_has_replied) {
    EXPECT_EQ(rpc_stat(me), "Application 5 RPC waits:\n");
    open_wait a(4711, 30, {{7, 2}, {8, 3}, {6, 0}}), b(0xFFFFFFFF, 0, {{7, 2}}), c(2, 600, {});
    EXPECT_EQ(add(8, 3, 4711, 3), 0);
    EXPECT_EQ(qel_terminate_rpc(me, 7, 2), 0);
    EXPECT_EQ(rpc_stat(me), "Application 5 RPC waits:\n"
                            "  sequence 4711, timeout 30s\n"
                            "    waiting for 6/0\n"
                            "    RPC already replies:\n"
                            "      8/3, application service version mismatch\n"
                            "      7/2, systerm error\n"
                            "\n"
                            "  sequence -1, timeout 0s\n"
                            "    waiting for\n"
                            "    RPC already replies:\n"
                            "      7/2, systerm error\n"
                            "\n"
                            "  sequence 2, timeout 600s\n"
                            "    waiting for\n"
                            "    RPC already replies:\n"
                            "\n");
    EXPECT_EQ(rpc_stat(0), "");
}

} // namespace
