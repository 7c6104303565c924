// Flow control: what is counted, who is admitted, who waits how long, and what is said and sent meanwhile.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <gtest/gtest.h>
#include <sched.h>

#include "qel_app_info.h"
#include "qel_flow_ctrl.h"
#include "qel_mng.h"
#include "qel_mng_int.h"
#include "qel_mng_msg.h"
#include "qel_process.h"

namespace {

using namespace std::chrono_literals;
using qel_time::sys;

#define FC(level, ...) qel_line("qel_flow_ctrl", level, __VA_ARGS__)

// Application 5 of node 1, registered, not running: no other thread counts or sends anything.
struct flow_ctrl : qel_process {
    static constexpr uint32_t me = 5;

    flow_ctrl() {
        if (add_app(me, false) != 0)
            abort();
        qel_set_masks(0);
        (void)qel_fake::take_sent();
    }

    static void send_ok(uint32_t app, uint32_t node, uint32_t times = 1) {
        for (uint32_t i = 0; i < times; i++)
            qel_fc_update_sent_ok(me, app, node);
    }
    static void receive(uint32_t app, uint32_t node, uint32_t times = 1) {
        for (uint32_t i = 0; i < times; i++)
            qel_fc_update_recv_ok(app, node, me);
    }
    static bool admitted(uint32_t app) { return qel_fc_check(me, app, QEL_SEND_NOWAIT) == 0; }

    // What a statistics print says, put together anew.
    struct totals {
        int send = 0, unack = 0, mcast_reject = 0, reply_exception = 0, recv = 0, recv_unack = 0,
            exception = 0;
    };
    static std::string stat(const totals &t, const std::string &peers = "") {
        return qel_format("Application 5 overall statistics:\n"
                          "  total send %d, unack %d, mcast reject %d, RPC reply exception %d\n"
                          "  total receive %d, unack %d, exception %d\n",
                          t.send, t.unack, t.mcast_reject, t.reply_exception, t.recv, t.recv_unack,
                          t.exception) +
               peers;
    }
    static std::string to(int app, int node, int send, int unack, int reject = 0, int reply_reject = 0) {
        return qel_format(
            "    Send to application %d/%d: send %d, unack %d, reject %d, RPC reply reject %d\n", app, node,
            send, unack, reject, reply_reject);
    }
    static std::string from(int app, int node, int recv, int unack, int drop = 0, int returned = 0) {
        return qel_format("    Receive from application %d/%d: receive %d, unack %d, drop %d, return %d\n",
                          app, node, recv, unack, drop, returned);
    }

    // A sender to @app that waits if it must.
    struct sender {
        explicit sender(uint32_t app) : task([this, app] { ret = qel_fc_check(me, app, 0); }) {}
        int32_t ret = 1;
        qel_task task;
    };
    static unsigned broadcasts() { return qel_time::calls(sys::cond_broadcast); }
};
using flow_ctrl_death = flow_ctrl;

// A management message to a peer as it must look on the wire.
void expect_mng(const qel_process::sent &s, uint32_t app, uint32_t node, uint16_t type,
                const std::vector<uint32_t> &words = {}) {
    EXPECT_EQ(s.to, qel_format("%u/%u", app, node));
    const qel_hdr &h = s.msg.hdr;
    EXPECT_EQ(h.version, 1);
    EXPECT_EQ(h.reserved, 0);
    EXPECT_EQ(h.flags, QEL_FLAG_MNG);
    EXPECT_EQ(h.qos, 0);
    EXPECT_EQ(h.len, 40 + 4 * words.size());
    EXPECT_EQ(h.src_app, 5u);
    EXPECT_EQ(h.src_node, 1u);
    EXPECT_EQ(h.dst_app, app);
    EXPECT_EQ(h.dst_node, node);
    EXPECT_EQ(h.app_ver, 1u);
    EXPECT_EQ(h.seq, 0u);
    EXPECT_EQ(h.rpc_status, 0u);
    EXPECT_EQ(s.msg.data, tlv(type, words));
}

// ---- the record -----------------------------------------------------------------------------------------

TEST_F(flow_ctrl, a_new_record_and_its_end_are_logged_and_null_is_ignored_in_silence) {
    qel_capture out;
    qel_set_masks();
    qel_app_fc *fc = qel_add_app_fc(77);
    ASSERT_NE(fc, nullptr);
    EXPECT_EQ(out.take(), FC(V, "QEL add new flow ctrl for app 77.\n"));
    qel_del_app_fc(fc);
    EXPECT_EQ(out.take(), FC(V, "QEL delete app 77 flow ctrl.\n"));
    qel_del_app_fc(nullptr);
    EXPECT_EQ(out.take(), "");
}

TEST_F(flow_ctrl, each_failing_step_of_a_new_record_has_its_own_error_line_and_gives_null) {
    const struct {
        sys step;
        int error;
        const char *text;
    } steps[] = {
        {sys::mutex_init, ENOMEM,
         "QEL init app 77 flow ctrl condition mutex failed: Cannot allocate memory.\n"},
        {sys::condattr_init, EAGAIN,
         "QEL init app 77 flow ctrl condition attribute failed: Resource temporarily unavailable.\n"},
        {sys::condattr_setclock, EINVAL,
         "QEL init app 77 flow ctrl condition clock attribute failed: Invalid argument.\n"},
        {sys::cond_init, EBUSY, "QEL init app 77 flow ctrl condition failed: Device or resource busy.\n"},
    };
    qel_capture out;
    qel_set_masks();
    for (const auto &s : steps) {
        qel_time::fail(s.step, s.error);
        EXPECT_EQ(qel_add_app_fc(77), nullptr);
        EXPECT_EQ(out.take(), FC(V, "QEL add new flow ctrl for app 77.\n") + FC(X, "%s", s.text));
    }
    qel_app_fc *fc = qel_add_app_fc(77);
    EXPECT_NE(fc, nullptr) << "the failures are gone";
    qel_del_app_fc(fc);
}

TEST_F(flow_ctrl, a_registration_whose_record_cannot_be_made_gives_eagain_and_can_be_tried_again) {
    for (const sys step : {sys::mutex_init, sys::condattr_init, sys::condattr_setclock, sys::cond_init}) {
        qel_time::fail(step, ENOMEM);
        EXPECT_EQ(add_app(6, false), -EAGAIN);
        EXPECT_EQ(qel_get_app_mng(6), nullptr);
    }
    EXPECT_EQ(add_app(6, false), 0);
}

TEST_F(flow_ctrl, without_an_application_the_check_gives_enoent_and_the_updates_only_log) {
    const std::string failed = FC(X, "QEL app 9 get flow control failed.\n");
    qel_capture out;
    qel_set_masks();
    EXPECT_EQ(qel_fc_check(9, 7, 0), -ENOENT);
    EXPECT_EQ(out.take(), failed);
    EXPECT_EQ(qel_fc_check(9, 7, QEL_SEND_NOWAIT), -ENOENT);
    EXPECT_EQ(out.take(), failed);
    qel_fc_update_sent_ok(9, 7, 2);
    EXPECT_EQ(out.take(), FC(V, "QEL app 9 update send OK to 7/2.\n") + failed);
    qel_fc_update_sent_reject(9, 7, 2);
    EXPECT_EQ(out.take(), FC(V, "QEL app 9 update send reject to 7/2.\n") + failed);
    qel_fc_update_rpc_reply_exception(9, 7, 2);
    EXPECT_EQ(out.take(), FC(V, "QEL app 9 update RPC reply reject to 7/2.\n") + failed);
    qel_fc_adjust_statistics(9, 7, 2);
    EXPECT_EQ(out.take(), failed);
    qel_fc_update_recv_ok(7, 2, 9);
    EXPECT_EQ(out.take(), FC(V, "QEL app 9 update recv OK from 7/2.\n") + failed);
    qel_fc_update_recv_drop(7, 2, 9, 3);
    EXPECT_EQ(out.take(), FC(V, "QEL app 9 update recv drop num 3 from 7/2.\n") + failed);
    qel_fc_update_recv_retdata(7, 2, 9);
    EXPECT_EQ(out.take(), FC(V, "QEL app 9 update recv retdata from 7/2.\n") + failed);
    qel_fc_update_recv_exception(9);
    EXPECT_EQ(out.take(), FC(X, "QEL app 9 update recv exception msg.\n") + failed);
    qel_fc_update_sent_ack(9, 7, 2, 512);
    EXPECT_EQ(out.take(), FC(V, "QEL app 9 update send ack from 7/2, ack num 512.\n") + failed);
    qel_fc_reset_unack(9, 7, 2);
    EXPECT_EQ(out.take(), FC(I, "QEL reset unack stat between app 9 and 7/2.\n") +
                              FC(X, "QEL get app 9 flow ctrl info failed.\n"));
    qel_fc_ping_request(7, 2, 9);
    EXPECT_EQ(out.take(), FC(X, "QEL app 9 recv ping request from 7/2.\n") +
                              FC(X, "QEL app 9 from 7/2 unprocess num: 0.\n") + failed);
    EXPECT_EQ(fc_stat(9), "");
    EXPECT_TRUE(take_sent().empty()) << "no acknowledgement, no echo";
    EXPECT_EQ(fc_stat(me), stat({}));
}

// ---- what is counted on the sending side ----------------------------------------------------------------

TEST_F(flow_ctrl, a_message_sent_counts_for_the_peer_and_for_the_application_and_makes_the_record_once) {
    qel_capture out;
    qel_set_masks();
    send_ok(7, 2);
    EXPECT_EQ(out.take(), FC(V, "QEL app 5 update send OK to 7/2.\n") +
                              FC(V, "QEL app 5 add new send flow ctrl to 7/2.\n"));
    send_ok(7, 2);
    EXPECT_EQ(out.take(), FC(V, "QEL app 5 update send OK to 7/2.\n"));
    send_ok(7, 3);
    send_ok(8, 2);
    EXPECT_EQ(fc_stat(me), stat({.send = 4, .unack = 4}, to(7, 2, 2, 2) + to(7, 3, 1, 1) + to(8, 2, 1, 1)));
}

TEST_F(flow_ctrl, a_message_sent_is_counted_whatever_the_ids_are) {
    send_ok(0x3001, 0xFFFFFFFF);
    EXPECT_EQ(fc_stat(me), stat({.send = 1, .unack = 1}, to(0x3001, -1, 1, 1)));
}

TEST_F(flow_ctrl, a_failed_send_is_laid_at_the_peers_door_only_if_it_is_one_application_on_one_node) {
    for (const uint32_t app : {1u, 8191u, 16384u, 20479u})
        qel_fc_update_sent_reject(me, app, 65535);
    qel_fc_update_sent_reject(me, 7, 0);
    const std::string peers = to(1, 65535, 0, 0, 1) + to(8191, 65535, 0, 0, 1) + to(16384, 65535, 0, 0, 1) +
                              to(20479, 65535, 0, 0, 1) + to(7, 0, 0, 0, 1);
    EXPECT_EQ(fc_stat(me), stat({}, peers));
    int others = 0;
    for (const uint32_t app : {0u, 8192u, 0x3000u, 0x3FFFu, 20480u, 0xFFFFFFFFu}) {
        qel_fc_update_sent_reject(me, app, 2);
        others++;
    }
    for (const uint32_t node : {65536u, 0x80000u, 0xFFFFFFFEu, 0xFFFFFFFFu}) {
        qel_fc_update_sent_reject(me, 7, node);
        others++;
    }
    EXPECT_EQ(fc_stat(me), stat({.mcast_reject = others}, peers));
}

TEST_F(flow_ctrl, a_failed_reply_is_laid_at_the_peers_door_only_if_it_is_one_application_on_one_node) {
    qel_capture out;
    qel_set_masks();
    qel_fc_update_rpc_reply_exception(me, 7, 65535);
    EXPECT_EQ(out.take(), FC(V, "QEL app 5 update RPC reply reject to 7/65535.\n") +
                              FC(V, "QEL app 5 add new send flow ctrl to 7/65535.\n"));
    qel_set_masks(0);
    int others = 0;
    for (const uint32_t app : {0u, 8192u, 0x3000u, 20480u}) {
        qel_fc_update_rpc_reply_exception(me, app, 2);
        others++;
    }
    for (const uint32_t node : {65536u, 0xFFFFFFFFu}) {
        qel_fc_update_rpc_reply_exception(me, 7, node);
        others++;
    }
    EXPECT_EQ(fc_stat(me), stat({.reply_exception = others}, to(7, 65535, 0, 0, 0, 1)));
}

// ---- a peer joins ---------------------------------------------------------------------------------------

TEST_F(flow_ctrl, at_a_join_what_was_sent_before_counts_as_rejected_and_the_total_falls_by_the_number_sent) {
    send_ok(7, 2, 600);
    send_ok(7, 3, 10);
    qel_fc_update_sent_ack(me, 7, 2, 512);
    qel_fc_update_sent_reject(me, 7, 2);
    qel_fc_update_rpc_reply_exception(me, 7, 2);
    receive(7, 2, 4);
    qel_fc_update_recv_drop(7, 2, me, 5);
    qel_fc_update_recv_retdata(7, 2, me);
    ASSERT_EQ(fc_stat(me), stat({.send = 610, .unack = 98, .recv = 4, .recv_unack = 4},
                                to(7, 2, 600, 88, 1, 1) + to(7, 3, 10, 10) + from(7, 2, 4, 4, 5, 1)));
    const unsigned before = broadcasts();
    qel_capture out;
    qel_set_masks();
    qel_fc_adjust_statistics(me, 7, 2);
    EXPECT_EQ(out.take(), FC(W, "QEL app 5 adjust sent reject num 600 to 7/2.\n"));
    EXPECT_EQ(broadcasts(), before + 1);
    EXPECT_EQ(fc_stat(me), stat({.send = 10, .unack = 98 - 600, .recv = 4, .recv_unack = 4},
                                to(7, 2, 0, 0, 601, 1) + to(7, 3, 10, 10) + from(7, 2, 4, 4)))
        << "what was received and is not acknowledged stays, drops and returns do not";
}

TEST_F(flow_ctrl, at_a_join_of_a_peer_nothing_was_sent_to_nothing_is_said_and_nobody_woken) {
    qel_fc_update_sent_reject(me, 7, 2);
    qel_fc_update_sent_ack(me, 7, 2, 3); // below zero
    receive(7, 2);
    qel_fc_update_recv_drop(7, 2, me, 5);
    qel_fc_update_recv_retdata(7, 2, me);
    const unsigned before = broadcasts();
    qel_capture out;
    qel_set_masks();
    qel_fc_adjust_statistics(me, 7, 2);
    EXPECT_EQ(out.take(), "");
    EXPECT_EQ(broadcasts(), before);
    EXPECT_EQ(fc_stat(me),
              stat({.unack = -3, .recv = 1, .recv_unack = 1}, to(7, 2, 0, -3, 1) + from(7, 2, 1, 1)));
    qel_fc_adjust_statistics(me, 7, 9);
    EXPECT_EQ(out.take(), FC(V, "QEL app 5 add new recv flow ctrl from 7/9.\n") +
                              FC(V, "QEL app 5 add new send flow ctrl to 7/9.\n"));
}

// ---- admission ------------------------------------------------------------------------------------------

TEST_F(flow_ctrl, after_1024_unacknowledged_messages_a_send_is_admitted_and_after_1025_refused) {
    send_ok(7, 2, 1024);
    qel_capture out;
    qel_set_masks();
    EXPECT_EQ(qel_fc_check(me, 7, 0), 0);
    EXPECT_EQ(out.take(), FC(V, "QEL app 5 accept new msg to 7.\n"));
    EXPECT_EQ(qel_fc_check(me, 7, QEL_SEND_NOWAIT), 0);
    qel_set_masks(0);
    send_ok(7, 2);
    qel_set_masks();
    (void)out.take();
    EXPECT_EQ(qel_fc_check(me, 7, QEL_SEND_NOWAIT), -EAGAIN);
    EXPECT_EQ(out.take(), FC(V, "QEL app 5 reject new msg to 7.\n"));
    qel_set_masks(0);
    qel_fc_update_sent_ack(me, 7, 2, 1);
    EXPECT_TRUE(admitted(7));
    EXPECT_EQ(fc_stat(me), stat({.send = 1025, .unack = 1024}, to(7, 2, 1025, 1024)))
        << "a check counts nothing";
}

TEST_F(flow_ctrl, an_application_never_sent_to_is_admitted) {
    EXPECT_EQ(qel_fc_check(me, 7, 0), 0);
    EXPECT_EQ(qel_fc_check(me, 0x3000, 0), 0);
    EXPECT_EQ(fc_stat(me), stat({}));
}

TEST_F(flow_ctrl, one_blocked_node_blocks_the_application_on_every_node_and_no_other_application) {
    send_ok(7, 1);
    send_ok(7, 2, 1025);
    send_ok(7, 3);
    send_ok(8, 2, 1024);
    EXPECT_FALSE(admitted(7));
    EXPECT_TRUE(admitted(8));
    EXPECT_TRUE(admitted(6));
    qel_fc_update_sent_ack(me, 7, 3, 1);
    EXPECT_FALSE(admitted(7)) << "another node's acknowledgement changes nothing";
    send_ok(7, 3, 1025);
    qel_fc_update_sent_ack(me, 7, 2, 512);
    EXPECT_FALSE(admitted(7)) << "the second blocked node still blocks";
    qel_fc_update_sent_ack(me, 7, 3, 512);
    EXPECT_TRUE(admitted(7));
}

TEST_F(flow_ctrl, the_limit_is_per_peer_and_not_on_their_sum) {
    for (uint32_t node = 1; node <= 5; node++)
        send_ok(7, node, 1024);
    EXPECT_TRUE(admitted(7));
}

TEST_F(flow_ctrl, only_bit_0_of_the_flags_means_not_to_wait) {
    send_ok(7, 2, 1025);
    for (const uint32_t flags : {0x1u, 0x3u, 0x5u, 0xFFFFFFFFu})
        EXPECT_EQ(qel_fc_check(me, 7, flags), -EAGAIN);
    for (const uint32_t flags : {0x0u, 0x2u, 0x4u, 0xFFFFFFFEu}) {
        int32_t ret = 1;
        qel_task waits([&ret, flags] { ret = qel_fc_check(me, 7, flags); });
        ASSERT_TRUE(qel_time::settle());
        EXPECT_FALSE(waits.ended()) << flags;
        qel_fc_update_sent_ack(me, 7, 2, 1);
        ASSERT_TRUE(waits.join());
        EXPECT_EQ(ret, 0);
        send_ok(7, 2);
    }
}

TEST_F(flow_ctrl, two_senders_may_pass_the_limit_together_for_the_count_comes_after_the_send) {
    send_ok(7, 2, 1024);
    EXPECT_TRUE(admitted(7));
    EXPECT_TRUE(admitted(7));
    send_ok(7, 2, 2);
    EXPECT_EQ(fc_stat(me), stat({.send = 1026, .unack = 1026}, to(7, 2, 1026, 1026)));
}

TEST_F(flow_ctrl, an_unacknowledged_count_below_zero_admits) {
    send_ok(7, 2, 100);
    qel_fc_adjust_statistics(me, 7, 2);
    qel_fc_update_sent_ack(me, 7, 2, 512); // the peer's count went on
    EXPECT_EQ(fc_stat(me), stat({.send = 0, .unack = -512}, to(7, 2, 0, -512, 100) + from(7, 2, 0, 0)));
    EXPECT_TRUE(admitted(7));
    send_ok(7, 2, 512 + 1024);
    EXPECT_TRUE(admitted(7));
    send_ok(7, 2);
    EXPECT_FALSE(admitted(7));
}

// ---- waiting for admission ------------------------------------------------------------------------------

TEST_F(flow_ctrl, a_refused_sender_says_so_waits_for_the_condition_and_says_when_it_goes_on) {
    send_ok(7, 2, 1025);
    qel_capture out;
    qel_set_masks();
    sender s(7);
    ASSERT_TRUE(qel_time::settle());
    EXPECT_EQ(out.take(), FC(V, "QEL app 5 reject new msg to 7.\n") +
                              FC(V, "QEL app 5 to 7 wait for sending.\n") +
                              FC(V, "QEL app 5 reject new msg to 7.\n") +
                              FC(V, "QEL app 5 to 7 wait for flow ctrl condition.\n"));
    qel_time::advance(60s);
    ASSERT_TRUE(qel_time::settle());
    EXPECT_EQ(out.take(), FC(V, "QEL app 5 reject new msg to 7.\n") +
                              FC(V, "QEL app 5 to 7 wait for flow ctrl condition.\n"))
        << "after a minute";
    qel_fc_update_sent_ack(me, 7, 2, 512);
    ASSERT_TRUE(s.task.join());
    EXPECT_EQ(s.ret, 0);
    const std::string all = out.take();
    EXPECT_NE(all.find(FC(V, "QEL app 5 update send ack from 7/2, ack num 512.\n")), std::string::npos);
    EXPECT_NE(all.find(FC(V, "QEL notify waiting app 5 to 7/2 continue to send msg.\n")), std::string::npos);
    EXPECT_NE(
        all.find(FC(V, "QEL app 5 accept new msg to 7.\n") + FC(V, "QEL app 5 to 7 continue to send.\n")),
        std::string::npos)
        << all;
}

TEST_F(flow_ctrl, an_acknowledgement_of_512_releases_a_sender_with_1025_unacknowledged_messages) {
    send_ok(7, 2, 1025);
    sender s(7);
    ASSERT_TRUE(qel_time::settle());
    EXPECT_FALSE(s.task.ended());
    qel_fc_update_sent_ack(me, 7, 2, 512);
    ASSERT_TRUE(s.task.join());
    EXPECT_EQ(s.ret, 0);
    EXPECT_EQ(fc_stat(me), stat({.send = 1025, .unack = 513}, to(7, 2, 1025, 513)));
}

TEST_F(flow_ctrl, a_quit_releases_blocked_senders_at_once) {
    send_ok(7, 2, 1025);
    sender a(7), b(7);
    ASSERT_TRUE(qel_time::settle());
    const auto before = qel_time::now();
    qel_fc_reset_unack(me, 7, 2);
    ASSERT_TRUE(a.task.join());
    ASSERT_TRUE(b.task.join());
    EXPECT_EQ(a.ret, 0);
    EXPECT_EQ(b.ret, 0);
    EXPECT_EQ(qel_time::now(), before);
}

TEST_F(flow_ctrl, a_join_releases_blocked_senders_at_once) {
    send_ok(7, 2, 1025);
    sender s(7);
    ASSERT_TRUE(qel_time::settle());
    qel_fc_adjust_statistics(me, 7, 2);
    ASSERT_TRUE(s.task.join());
    EXPECT_EQ(s.ret, 0);
}

TEST_F(flow_ctrl, every_broadcast_wakes_all_and_each_sender_looks_at_its_own_destination) {
    send_ok(7, 2, 1025);
    send_ok(8, 2, 1025);
    sender to7(7), to8(8);
    ASSERT_TRUE(qel_time::settle());
    qel_fc_update_sent_ack(me, 7, 2, 512);
    ASSERT_TRUE(to7.task.join());
    ASSERT_TRUE(qel_time::settle());
    EXPECT_FALSE(to8.task.ended());
    qel_fc_update_sent_ack(me, 8, 2, 512);
    ASSERT_TRUE(to8.task.join());
}

TEST_F(flow_ctrl, a_sender_waits_in_slices_of_sixty_seconds) {
    send_ok(7, 2, 1025);
    sender s(7);
    ASSERT_TRUE(qel_time::settle());
    const unsigned waits = qel_time::calls(sys::cond_timedwait);
    ASSERT_TRUE(qel_time::run_for(500ms)); // off the library thread's beat
    qel_capture out;
    qel_set_masks();
    ASSERT_TRUE(qel_time::run_for(59'499ms));
    EXPECT_EQ(out.take(), "");
    ASSERT_TRUE(qel_time::run_for(1ms));
    ASSERT_TRUE(qel_time::settle());
    EXPECT_EQ(out.take(), FC(V, "QEL app 5 reject new msg to 7.\n") +
                              FC(V, "QEL app 5 to 7 wait for flow ctrl condition.\n"));
    EXPECT_GT(qel_time::calls(sys::cond_timedwait), waits);
    qel_set_masks(0);
    qel_fc_reset_unack(me, 7, 2);
}

TEST_F(flow_ctrl,
       a_blocked_sender_diagnoses_after_5_10_20_40_and_80_minutes_reloads_once_at_15_and_never_returns) {
    send_ok(7, 2, 1025);
    qel_capture out;
    qel_set_masks(8);
    sender s(7);
    ASSERT_TRUE(qel_time::settle());
    for (int minute = 1; minute <= 100; minute++) {
        ASSERT_TRUE(qel_time::run_for(60s));
        ASSERT_TRUE(qel_time::settle());
        const bool diagnosis = minute == 5 || minute == 10 || minute == 20 || minute == 40 || minute == 80;
        std::string wanted;
        if (diagnosis)
            wanted = FC(X, "QEL app 5 to 7/2 was blocked for too long.\n") +
                     FC(X, "QEL app 5 total send 1025, unack 1025, mcast reject 0, RPC reply exception 0\n") +
                     FC(X, "QEL app 5 total receive 0, unack 0, exception 0\n") +
                     FC(X, "QEL app 5 send to application 7/2: send 1025, unack 1025, reject 0, "
                           "RPC reply reject 0\n");
        if (minute == 15)
            wanted = FC(X, "QEL app 5 try to reload 7/2 to resume communication.\n");
        EXPECT_EQ(out.take(), wanted) << minute;
        const std::vector<sent> told = take_sent();
        ASSERT_EQ(told.size(), wanted.empty() ? 0u : 1u) << minute;
        if (diagnosis)
            expect_mng(told[0], 7, 2, QEL_TLV_PING);
        else if (minute == 15)
            expect_mng(told[0], 7, 2, QEL_TLV_RELOAD);
    }
    EXPECT_FALSE(s.task.ended());
    qel_set_masks(0);
    qel_fc_reset_unack(me, 7, 2);
    ASSERT_TRUE(s.task.join());
    EXPECT_EQ(s.ret, 0);
}

TEST_F(flow_ctrl,
       the_diagnosis_shows_all_blocked_peers_of_the_destination_first_then_totals_then_each_with_a_ping) {
    send_ok(7, 3, 1024); // not blocked
    send_ok(7, 4, 1026);
    send_ok(8, 4, 1100); // another application
    send_ok(7, 2, 1025);
    qel_fc_update_sent_reject(me, 7, 2);
    qel_fc_update_rpc_reply_exception(me, 7, 2);
    qel_fc_update_sent_reject(me, 0x3000, 1);
    qel_fc_update_rpc_reply_exception(me, 0, 1);
    qel_fc_update_recv_exception(me);
    receive(7, 2, 3);
    receive(7, 3, 4);
    qel_fc_update_recv_drop(7, 2, me, 5);
    qel_fc_update_recv_retdata(7, 2, me);
    sender s(7);
    ASSERT_TRUE(qel_time::settle());
    ASSERT_TRUE(qel_time::run_for(299s));
    ASSERT_TRUE(qel_time::settle());
    qel_capture out;
    qel_set_masks(0xF);
    ASSERT_TRUE(qel_time::run_for(1s));
    ASSERT_TRUE(qel_time::settle());
    const auto ping = [](int node) {
        return qel_line("qel_mng_msg", V, "QEL app 5 ping to 7/%d.\n", node) +
               qel_line("qel_mng_msg", V, "QEL app 5 sent to 7/%d, msg len 40.\n", node);
    };
    EXPECT_EQ(
        out.take(),
        FC(X, "QEL app 5 to 7/4 was blocked for too long.\n") +
            FC(X, "QEL app 5 to 7/2 was blocked for too long.\n") +
            FC(X, "QEL app 5 total send 4175, unack 4175, mcast reject 1, RPC reply exception 1\n") +
            FC(X, "QEL app 5 total receive 7, unack 7, exception 1\n") + ping(4) +
            FC(X,
               "QEL app 5 send to application 7/4: send 1026, unack 1026, reject 0, RPC reply reject 0\n") +
            ping(2) +
            FC(X,
               "QEL app 5 send to application 7/2: send 1025, unack 1025, reject 1, RPC reply reject 1\n") +
            FC(X, "QEL app 5 receive from application 7/2: receive 3, unack 3, drop 5, return 1\n") +
            FC(V, "QEL app 5 reject new msg to 7.\n") +
            FC(V, "QEL app 5 to 7 wait for flow ctrl condition.\n"));
    qel_set_masks(0);
    const std::vector<sent> pings = take_sent();
    ASSERT_EQ(pings.size(), 2u);
    expect_mng(pings[0], 7, 4, QEL_TLV_PING);
    expect_mng(pings[1], 7, 2, QEL_TLV_PING);

    ASSERT_TRUE(qel_time::run_for(599s));
    ASSERT_TRUE(qel_time::settle());
    (void)take_sent();
    (void)out.take();
    qel_set_masks(0xF);
    ASSERT_TRUE(qel_time::run_for(1s));
    ASSERT_TRUE(qel_time::settle());
    const auto reload = [](int node) {
        return FC(X, "QEL app 5 try to reload 7/%d to resume communication.\n", node) +
               qel_line("qel_mng_msg", V, "QEL app 5 try to reload 7/%d.\n", node) +
               qel_line("qel_mng_msg", V, "QEL app 5 sent to 7/%d, msg len 40.\n", node);
    };
    EXPECT_EQ(out.take(), reload(4) + reload(2) + FC(V, "QEL app 5 reject new msg to 7.\n") +
                              FC(V, "QEL app 5 to 7 wait for flow ctrl condition.\n"));
    qel_set_masks(0);
    const std::vector<sent> reloads = take_sent();
    ASSERT_EQ(reloads.size(), 2u);
    expect_mng(reloads[0], 7, 4, QEL_TLV_RELOAD);
    expect_mng(reloads[1], 7, 2, QEL_TLV_RELOAD);
    qel_fc_reset_unack(me, 7, 2);
    qel_fc_reset_unack(me, 7, 4);
}

TEST_F(flow_ctrl, a_ping_or_reload_that_cannot_be_sent_stops_nothing) {
    send_ok(7, 2, 1025);
    send_ok(7, 3, 1025);
    qel_fake::fail_to(7, 2, EHOSTUNREACH, qel_fake::for_ever);
    qel_capture out;
    qel_set_masks(8);
    sender s(7);
    ASSERT_TRUE(qel_time::settle());
    ASSERT_TRUE(qel_time::run_for(15min));
    ASSERT_TRUE(qel_time::settle());
    EXPECT_EQ(take_destinations(), (std::vector<std::string>{"7/3", "7/3", "7/3"}));
    EXPECT_EQ(out.count("send to application 7/2: "), 2u);
    EXPECT_EQ(out.count("try to reload 7/2 "), 1u);
    qel_set_masks(0);
    EXPECT_FALSE(s.task.ended());
    qel_fc_reset_unack(me, 7, 2);
    qel_fc_reset_unack(me, 7, 3);
}

TEST_F(flow_ctrl, wake_ups_start_the_minute_anew_and_do_not_count) {
    send_ok(7, 2, 1025);
    send_ok(8, 2, 1);
    qel_capture out;
    qel_set_masks(8);
    sender s(7);
    ASSERT_TRUE(qel_time::settle());
    for (int i = 0; i < 30; i++) { // half an hour in which no minute passes undisturbed
        ASSERT_TRUE(qel_time::run_for(59s));
        if (i % 2)
            qel_fc_update_sent_ack(me, 8, 2, 0);
        else
            qel_time::wake_spuriously();
        ASSERT_TRUE(qel_time::settle());
    }
    EXPECT_EQ(out.take(), "");
    ASSERT_TRUE(qel_time::run_for(299s));
    ASSERT_TRUE(qel_time::settle());
    EXPECT_EQ(out.take(), "");
    ASSERT_TRUE(qel_time::run_for(1s));
    ASSERT_TRUE(qel_time::settle());
    EXPECT_EQ(out.count("was blocked for too long"), 1u) << "five whole minutes after the last wake-up";
    qel_set_masks(0);
    qel_fc_reset_unack(me, 7, 2);
}

TEST_F(flow_ctrl, each_blocked_sender_and_each_new_episode_counts_its_own_minutes) {
    send_ok(7, 2, 1025);
    qel_capture out;
    qel_set_masks(8);
    auto first = std::make_unique<sender>(7);
    ASSERT_TRUE(qel_time::settle());
    ASSERT_TRUE(qel_time::run_for(2min));
    sender second(7);
    ASSERT_TRUE(qel_time::settle());
    ASSERT_TRUE(qel_time::run_for(3min));
    ASSERT_TRUE(qel_time::settle());
    EXPECT_EQ(out.count("was blocked for too long"), 1u) << "the first";
    ASSERT_TRUE(qel_time::run_for(2min));
    ASSERT_TRUE(qel_time::settle());
    EXPECT_EQ(out.count("was blocked for too long"), 2u) << "the second";
    qel_fc_update_sent_ack(me, 7, 2, 512);
    ASSERT_TRUE(first->task.join());
    ASSERT_TRUE(second.task.join());
    send_ok(7, 2, 1025);
    first = std::make_unique<sender>(7);
    ASSERT_TRUE(qel_time::settle());
    ASSERT_TRUE(qel_time::run_for(299s));
    ASSERT_TRUE(qel_time::settle());
    EXPECT_EQ(out.count("was blocked for too long"), 2u);
    ASSERT_TRUE(qel_time::run_for(1s));
    ASSERT_TRUE(qel_time::settle());
    EXPECT_EQ(out.count("was blocked for too long"), 3u) << "five minutes again";
    EXPECT_EQ(out.count("try to reload"), 0u);
    qel_set_masks(0);
    qel_fc_reset_unack(me, 7, 2);
}

TEST_F(flow_ctrl,
       a_waiting_sender_is_registered_with_the_watchdog_under_its_thread_name_and_feeds_it_each_slice) {
    send_ok(7, 2, 1025);
    (void)qel_dog::take();
    EXPECT_FALSE(admitted(7));
    EXPECT_TRUE(admitted(8));
    EXPECT_TRUE(qel_dog::take("qel_sender").empty()) << "who does not wait needs none";
    qel_task s([] {
        qel_thread_set_name("qel_sender");
        (void)qel_fc_check(me, 7, 0);
    });
    ASSERT_TRUE(qel_time::settle());
    EXPECT_EQ(qel_dog::take("qel_sender"),
              (std::vector<std::string>{"register qel_sender", "feed qel_sender"}));
    ASSERT_TRUE(qel_time::run_for(3min));
    ASSERT_TRUE(qel_time::settle());
    EXPECT_EQ(qel_dog::take("qel_sender"), (std::vector<std::string>(3, "feed qel_sender")));
    qel_fc_reset_unack(me, 7, 2);
    ASSERT_TRUE(s.join());
    EXPECT_EQ(qel_dog::take("qel_sender"), (std::vector<std::string>{"unregister qel_sender"}));
}

TEST_F(flow_ctrl_death, a_condition_that_cannot_be_waited_for_is_an_assertion_failure) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    send_ok(7, 2, 1025);
    ASSERT_TRUE(qel_time::settle()); // nobody else is about to wait
    EXPECT_DEATH(
        {
            qel_time::fail(sys::cond_timedwait, EPERM);
            (void)qel_fc_check(me, 7, 0);
        },
        "qel_flow_ctrl.cpp:[0-9]+: assertion failed: \"ret == 0\"");
}

TEST_F(flow_ctrl_death, a_broadcast_that_fails_is_an_assertion_failure_for_acknowledgement_and_join) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    send_ok(7, 2);
    const char *wanted = "qel_flow_ctrl.cpp:[0-9]+: assertion failed: \"ret == 0\"";
    EXPECT_DEATH(
        {
            qel_time::fail(sys::cond_broadcast, EINVAL);
            qel_fc_update_sent_ack(me, 7, 2, 1);
        },
        wanted);
    EXPECT_DEATH(
        {
            qel_time::fail(sys::cond_broadcast, EINVAL);
            qel_fc_adjust_statistics(me, 7, 2);
        },
        wanted);
}

TEST_F(flow_ctrl, a_broadcast_that_fails_at_a_quit_is_ignored) {
    send_ok(7, 2, 3);
    qel_time::fail(sys::cond_broadcast, EINVAL);
    qel_fc_reset_unack(me, 7, 2);
    EXPECT_EQ(fc_stat(me), stat({}, to(7, 2, 0, 0) + from(7, 2, 0, 0)));
}

// ---- acknowledgements that arrive -----------------------------------------------------------------------

TEST_F(flow_ctrl, an_acknowledgement_lowers_record_and_total_and_wakes_all_senders_once) {
    send_ok(7, 2, 600);
    send_ok(7, 3, 600);
    const unsigned before = broadcasts();
    qel_capture out;
    qel_set_masks();
    qel_fc_update_sent_ack(me, 7, 2, 512);
    EXPECT_EQ(out.take(), FC(V, "QEL app 5 update send ack from 7/2, ack num 512.\n") +
                              FC(V, "QEL notify waiting app 5 to 7/2 continue to send msg.\n"));
    EXPECT_EQ(broadcasts(), before + 1);
    EXPECT_EQ(fc_stat(me), stat({.send = 1200, .unack = 688}, to(7, 2, 600, 88) + to(7, 3, 600, 600)));
}

TEST_F(flow_ctrl, an_acknowledgement_from_an_unknown_peer_makes_a_record_below_zero) {
    qel_capture out;
    qel_set_masks();
    qel_fc_update_sent_ack(me, 7, 2, 512);
    EXPECT_EQ(out.take(), FC(V, "QEL app 5 update send ack from 7/2, ack num 512.\n") +
                              FC(V, "QEL app 5 add new send flow ctrl to 7/2.\n") +
                              FC(V, "QEL notify waiting app 5 to 7/2 continue to send msg.\n"));
    EXPECT_EQ(fc_stat(me), stat({.unack = -512}, to(7, 2, 0, -512)));
}

TEST_F(flow_ctrl, acknowledgements_of_any_size_never_block_the_sender) {
    send_ok(7, 2, 10);
    for (const uint32_t num : {0xFFFFFFFFu, 0x80000000u, 0x7FFFFFFFu, 1u, 0x80000001u}) {
        qel_fc_update_sent_ack(me, 7, 2, num);
        EXPECT_TRUE(admitted(7)) << num;
        EXPECT_NE(fc_stat(me).find("send 10, unack -2147483648, "), std::string::npos) << num;
    }
    send_ok(7, 2);
    EXPECT_NE(fc_stat(me).find("send 11, unack -2147483647, "), std::string::npos);
    EXPECT_TRUE(admitted(7));
}

TEST_F(flow_ctrl, the_total_of_what_is_unacknowledged_wraps) {
    send_ok(7, 2, 10);
    qel_fc_update_sent_ack(me, 7, 2, 0x80000000u);
    qel_fc_update_sent_ack(me, 7, 2, 0x80000000u);
    EXPECT_EQ(fc_stat(me), stat({.send = 10, .unack = 10}, to(7, 2, 10, INT32_MIN)));
}

// ---- the receiving side ---------------------------------------------------------------------------------

TEST_F(flow_ctrl, the_513th_message_of_a_peer_sends_one_acknowledgement_of_512_and_leaves_1) {
    receive(7, 2, 512);
    EXPECT_TRUE(take_sent().empty());
    EXPECT_EQ(fc_stat(me), stat({.recv = 512, .recv_unack = 512}, from(7, 2, 512, 512)));
    qel_capture out;
    qel_set_masks();
    receive(7, 2);
    EXPECT_EQ(out.take(), FC(V, "QEL app 5 update recv OK from 7/2.\n") +
                              qel_line("qel_mng_msg", V, "QEL app 5 send msg ack num 512 to 7/2.\n") +
                              qel_line("qel_mng_msg", V, "QEL app 5 sent to 7/2, msg len 44.\n") +
                              FC(V, "QEL app 5 sent recv num ack 512 to 7/2 OK.\n"));
    const std::vector<sent> acks = take_sent();
    ASSERT_EQ(acks.size(), 1u);
    expect_mng(acks[0], 7, 2, QEL_TLV_FC_ACK, {512});
    EXPECT_EQ(fc_stat(me), stat({.recv = 513, .recv_unack = 1}, from(7, 2, 513, 1)));
}

TEST_F(flow_ctrl, further_acknowledgements_follow_every_512_messages) {
    for (uint32_t i = 1; i <= 513 + 3 * 512; i++) {
        receive(7, 2);
        const bool due = i >= 513 && (i - 513) % 512 == 0;
        ASSERT_EQ(take_sent().size(), due ? 1u : 0u) << i;
    }
    EXPECT_EQ(fc_stat(me), stat({.recv = 2049, .recv_unack = 1}, from(7, 2, 2049, 1)));
}

TEST_F(flow_ctrl, messages_are_acknowledged_for_each_peer_alone) {
    receive(7, 2, 512);
    receive(7, 3, 512);
    receive(8, 2, 512);
    EXPECT_TRUE(take_sent().empty());
    receive(8, 2);
    EXPECT_EQ(take_destinations(), (std::vector<std::string>{"8/2"}));
}

TEST_F(flow_ctrl, a_first_message_makes_the_receive_record_and_says_so) {
    qel_capture out;
    qel_set_masks();
    receive(7, 2);
    EXPECT_EQ(out.take(), FC(V, "QEL app 5 update recv OK from 7/2.\n") +
                              FC(V, "QEL app 5 add new recv flow ctrl from 7/2.\n"));
}

TEST_F(flow_ctrl, a_failed_acknowledgement_lowers_nothing_and_is_tried_again_with_the_next_message) {
    receive(7, 2, 512);
    qel_fake::fail_to(7, 2, EHOSTUNREACH, 2);
    qel_capture out;
    qel_set_masks();
    receive(7, 2);
    EXPECT_EQ(only(out.take(), "qel_flow_ctrl"), FC(V, "QEL app 5 update recv OK from 7/2.\n"));
    EXPECT_EQ(fc_stat(me), stat({.recv = 513, .recv_unack = 513}, from(7, 2, 513, 513)));
    receive(7, 2);
    EXPECT_EQ(fc_stat(me), stat({.recv = 514, .recv_unack = 514}, from(7, 2, 514, 514)));
    EXPECT_TRUE(take_sent().empty());
    receive(7, 2);
    const std::vector<sent> acks = take_sent();
    ASSERT_EQ(acks.size(), 1u);
    expect_mng(acks[0], 7, 2, QEL_TLV_FC_ACK, {512});
    EXPECT_EQ(fc_stat(me), stat({.recv = 515, .recv_unack = 3}, from(7, 2, 515, 3)));
}

TEST_F(flow_ctrl, after_long_failure_each_message_acknowledges_512_until_the_rest_is_small_enough) {
    qel_fake::fail_to(7, 2, EHOSTUNREACH, 1000);
    receive(7, 2, 1512); // the last 1000 of them tried
    EXPECT_TRUE(take_sent().empty());
    receive(7, 2);
    EXPECT_EQ(take_sent().size(), 1u);
    EXPECT_EQ(fc_stat(me), stat({.recv = 1513, .recv_unack = 1001}, from(7, 2, 1513, 1001)));
    receive(7, 2);
    EXPECT_EQ(take_sent().size(), 1u);
    EXPECT_EQ(fc_stat(me), stat({.recv = 1514, .recv_unack = 490}, from(7, 2, 1514, 490)));
    receive(7, 2);
    EXPECT_TRUE(take_sent().empty());
}

TEST_F(flow_ctrl, dropped_messages_are_counted_and_never_acknowledged) {
    qel_capture out;
    qel_set_masks();
    qel_fc_update_recv_drop(7, 2, me, 0);
    EXPECT_EQ(out.take(), "") << "none dropped: not even a line";
    EXPECT_EQ(fc_stat(me), stat({})) << "and no record";
    (void)out.take();
    qel_fc_update_recv_drop(7, 2, me, 600);
    EXPECT_EQ(out.take(), FC(V, "QEL app 5 update recv drop num 600 from 7/2.\n") +
                              FC(V, "QEL app 5 add new recv flow ctrl from 7/2.\n"));
    qel_fc_update_recv_drop(7, 2, me, 1);
    EXPECT_EQ(fc_stat(me), stat({}, from(7, 2, 0, 0, 601)));
    EXPECT_TRUE(take_sent().empty());
}

TEST_F(flow_ctrl, returned_data_is_counted_for_the_peer_but_not_for_the_daemon) {
    qel_capture out;
    qel_set_masks();
    qel_fc_update_recv_retdata(1, 2, me);
    EXPECT_EQ(out.take(), FC(V, "QEL app 5 update recv retdata from 1/2.\n"));
    EXPECT_EQ(fc_stat(me), stat({}));
    qel_fc_update_recv_retdata(7, 2, me);
    EXPECT_EQ(out.take(), FC(V, "QEL app 5 update recv retdata from 7/2.\n") +
                              FC(V, "QEL app 5 add new recv flow ctrl from 7/2.\n"));
    EXPECT_EQ(fc_stat(me), stat({}, from(7, 2, 0, 0, 0, 1)));
}

TEST_F(flow_ctrl, a_malformed_message_is_an_error_line_and_counts_as_exception) {
    qel_capture out;
    qel_set_masks();
    qel_fc_update_recv_exception(me);
    EXPECT_EQ(out.take(), FC(X, "QEL app 5 update recv exception msg.\n"));
    EXPECT_EQ(fc_stat(me), stat({.exception = 1}));
}

// ---- a peer quits ---------------------------------------------------------------------------------------

TEST_F(flow_ctrl, at_a_quit_every_counter_of_the_pair_is_cleared_in_both_directions_and_the_totals_fall) {
    send_ok(7, 2, 600);
    send_ok(7, 3, 10);
    qel_fc_update_sent_ack(me, 7, 2, 512);
    qel_fc_update_sent_reject(me, 7, 2);
    qel_fc_update_rpc_reply_exception(me, 7, 2);
    receive(7, 2, 514);
    receive(7, 3, 5);
    qel_fc_update_recv_drop(7, 2, me, 3);
    qel_fc_update_recv_retdata(7, 2, me);
    qel_fc_update_sent_reject(me, 0x3000, 0);
    const unsigned before = broadcasts();
    qel_capture out;
    qel_set_masks();
    qel_fc_reset_unack(me, 7, 2);
    EXPECT_EQ(out.take(), FC(I, "QEL reset unack stat between app 5 and 7/2.\n"));
    EXPECT_EQ(broadcasts(), before + 1);
    EXPECT_EQ(fc_stat(me), stat({.send = 10, .unack = 10, .mcast_reject = 1, .recv = 5, .recv_unack = 5},
                                to(7, 2, 0, 0) + to(7, 3, 10, 10) + from(7, 2, 0, 0) + from(7, 3, 5, 5)));
}

TEST_F(flow_ctrl, a_quit_takes_back_what_an_acknowledgement_drove_below_zero) {
    send_ok(7, 3, 10);
    qel_fc_update_sent_ack(me, 7, 2, 512);
    qel_fc_reset_unack(me, 7, 2);
    EXPECT_EQ(fc_stat(me),
              stat({.send = 10, .unack = 10}, to(7, 3, 10, 10) + to(7, 2, 0, 0) + from(7, 2, 0, 0)));
}

TEST_F(flow_ctrl, a_quit_of_an_unknown_peer_makes_empty_records) {
    qel_capture out;
    qel_set_masks();
    qel_fc_reset_unack(me, 7, 2);
    EXPECT_EQ(out.take(), FC(I, "QEL reset unack stat between app 5 and 7/2.\n") +
                              FC(V, "QEL app 5 add new send flow ctrl to 7/2.\n") +
                              FC(V, "QEL app 5 add new recv flow ctrl from 7/2.\n"));
}

// ---- ping -----------------------------------------------------------------------------------------------

TEST_F(flow_ctrl,
       a_ping_shows_what_waits_echoes_and_shows_totals_and_that_peers_records_and_moves_no_counter) {
    ASSERT_EQ(add_app(6, true), 0); // its thread waits for qel_run(): what is queued stays
    const auto queue = [](uint32_t app, uint32_t node, int times) {
        for (int i = 0; i < times; i++) {
            qel_msg *msg = qel_msg_alloc(0, 1, 0);
            qel_encode_msg_hdr(msg, 0, app, node, 6, 1, 0, 0);
            qel_enqueue_msg_dist(msg, qel_get_app_info(6));
        }
    };
    queue(7, 2, 3);
    queue(7, 3, 1);
    queue(8, 2, 1);
    for (int i = 0; i < 4; i++)
        qel_fc_update_sent_ok(6, 7, 2);
    qel_fc_update_sent_ok(6, 7, 3);
    qel_fc_update_recv_ok(7, 2, 6);
    qel_fc_update_recv_ok(8, 2, 6);
    const std::string before = fc_stat(6);
    qel_capture out;
    qel_set_masks();
    qel_fc_ping_request(7, 2, 6);
    EXPECT_EQ(
        out.take(),
        FC(X, "QEL app 6 recv ping request from 7/2.\n") + FC(X, "QEL app 6 from 7/2 unprocess num: 3.\n") +
            qel_line("qel_mng_msg", V, "QEL app 6 ping echo to 7/2.\n") +
            qel_line("qel_mng_msg", V, "QEL app 6 sent to 7/2, msg len 40.\n") +
            FC(X, "QEL app 6 total send 5, unack 5, mcast reject 0, RPC reply exception 0\n") +
            FC(X, "QEL app 6 total receive 2, unack 2, exception 0\n") +
            FC(X, "QEL app 6 send to application 7/2: send 4, unack 4, reject 0, RPC reply reject 0\n") +
            FC(X, "QEL app 6 receive from application 7/2: receive 1, unack 1, drop 0, return 0\n"));
    qel_set_masks(0);
    const std::vector<sent> echo = take_sent();
    ASSERT_EQ(echo.size(), 1u);
    EXPECT_EQ(echo[0].to, "7/2");
    EXPECT_EQ(echo[0].msg.hdr.src_app, 6u);
    EXPECT_EQ(echo[0].msg.hdr.flags, QEL_FLAG_MNG);
    EXPECT_EQ(echo[0].msg.data, tlv(QEL_TLV_PING_ECHO));
    EXPECT_EQ(fc_stat(6), before);
}

TEST_F(flow_ctrl, a_ping_of_an_unknown_peer_makes_no_record_and_a_failed_echo_stops_nothing) {
    qel_fake::fail_to(9, 2, EHOSTUNREACH);
    qel_capture out;
    qel_set_masks(8);
    qel_fc_ping_request(9, 2, me);
    EXPECT_EQ(only(out.take(), "qel_flow_ctrl"),
              FC(X, "QEL app 5 recv ping request from 9/2.\n") +
                  FC(X, "QEL app 5 from 9/2 unprocess num: 0.\n") +
                  FC(X, "QEL app 5 total send 0, unack 0, mcast reject 0, RPC reply exception 0\n") +
                  FC(X, "QEL app 5 total receive 0, unack 0, exception 0\n"));
    EXPECT_EQ(fc_stat(me), stat({}));
}

TEST_F(flow_ctrl, an_echo_is_one_error_line_whoever_gets_it) {
    qel_capture out;
    qel_set_masks();
    qel_fc_ping_echo(7, 2, me);
    EXPECT_EQ(out.take(), FC(X, "QEL app 5 recv ping echo from 7/2.\n"));
    qel_fc_ping_echo(7, 2, 9);
    EXPECT_EQ(out.take(), FC(X, "QEL app 9 recv ping echo from 7/2.\n"));
    EXPECT_TRUE(take_sent().empty());
    EXPECT_EQ(fc_stat(me), stat({}));
}

// ---- reload ---------------------------------------------------------------------------------------------

// A reload request of 7/2 as the library thread hands it on.
void receive_reload() {
    const qel_fake::bytes item = tlv(QEL_TLV_RELOAD);
    qel_msg *msg = qel_msg_alloc(static_cast<int32_t>(item.size()), 1, 0);
    qel_encode_msg_hdr(msg, QEL_FLAG_MNG, 7, 2, 5, 1, 0, 0);
    memcpy(qel_msg_data(msg), item.data(), item.size());
    qel_mng_msg_process(msg);
}
const char *const reload_allowed = "[MISC_CONF]\nqel_blocked_resume_enabled = true\n";

TEST_F(flow_ctrl, a_reload_is_ignored_unless_both_the_process_and_its_configuration_allow_it) {
    qel_capture out;
    qel_set_masks(8);
    receive_reload();
    qel_enable_blocked_resume();
    receive_reload();
    set_conf(reload_allowed);
    qel_disable_blocked_resume();
    receive_reload();
    set_conf("[MISC_CONF]\nqel_blocked_resume_enabled = false\n");
    qel_enable_blocked_resume();
    receive_reload();
    EXPECT_EQ(only(out.take(), "qel_mng_msg"), "");
}

TEST_F(flow_ctrl_death, a_reload_that_is_allowed_aborts_the_process_after_an_error_line) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    set_conf(reload_allowed);
    EXPECT_EXIT(
        {
            dup2(STDERR_FILENO, STDOUT_FILENO);
            qel_set_masks(8);
            qel_enable_blocked_resume();
            receive_reload();
        },
        testing::KilledBySignal(SIGABRT),
        "<qel_mng_msg, [0-9]+> 3: QEL app 5 abort the process requested by 7/2.\n");
}

// ---- print and size -------------------------------------------------------------------------------------

TEST_F(flow_ctrl, the_statistics_list_the_records_in_the_order_of_their_creation) {
    receive(9, 4);
    receive(7, 2);
    send_ok(8, 3);
    send_ok(7, 9);
    send_ok(7, 2);
    EXPECT_EQ(fc_stat(me),
              stat({.send = 3, .unack = 3, .recv = 2, .recv_unack = 2},
                   to(8, 3, 1, 1) + to(7, 9, 1, 1) + to(7, 2, 1, 1) + from(9, 4, 1, 1) + from(7, 2, 1, 1)));
    EXPECT_EQ(fc_stat(0), "");
}

int64_t cpu_ns() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return t.tv_sec * INT64_C(1'000'000'000) + t.tv_nsec;
}

TEST_F(flow_ctrl, with_records_of_every_node_a_message_costs_what_it_costs_with_ten) {
    const auto cost = [] {
        const int64_t begin = cpu_ns();
        for (uint32_t i = 0; i < 2000; i++) {
            const uint32_t node = i % 10;
            (void)admitted(7);
            send_ok(7, node);
            receive(7, node);
            qel_fc_update_sent_ack(me, 7, node, 1);
        }
        return cpu_ns() - begin;
    };
    (void)cost();
    const int64_t with_ten = cost();
    for (uint32_t node = 65535; node > 10; node--) {
        send_ok(7, node);
        receive(7, node);
    }
    const int64_t with_all = cost();
    EXPECT_LT(with_all, 20 * with_ten) << "a walk over all records would take thousands of times as long";
}

// ---- many threads ---------------------------------------------------------------------------------------

TEST_F(flow_ctrl, eight_senders_and_a_peer_that_acknowledges_in_batches_all_come_to_their_end) {
    constexpr uint32_t threads = 8, each = 3000, all = threads * each;
    std::atomic<uint32_t> counted{0};
    uint32_t acknowledged = 0, most = 0;
    {
        qel_task peer([&] { // the 513th of a batch brings the acknowledgement
            while (acknowledged + 513 <= all) {
                const uint32_t outstanding = counted - acknowledged;
                most = std::max(most, outstanding);
                if (outstanding < 513) {
                    sched_yield();
                    continue;
                }
                acknowledged += 512;
                qel_fc_update_sent_ack(me, 7, 2, 512);
            }
        });
        std::vector<std::unique_ptr<qel_task>> senders;
        for (uint32_t t = 0; t < threads; t++)
            senders.push_back(std::make_unique<qel_task>([&counted] {
                for (uint32_t i = 0; i < each; i++) {
                    if (qel_fc_check(me, 7, 0) != 0)
                        abort();
                    qel_fc_update_sent_ok(me, 7, 2);
                    counted++;
                }
            }));
        for (auto &s : senders)
            ASSERT_TRUE(s->join());
        ASSERT_TRUE(peer.join());
    }
    EXPECT_LE(most, 1024 + threads) << "together they may pass the limit by one each";
    const auto left = static_cast<int>(all - acknowledged);
    EXPECT_EQ(fc_stat(me), stat({.send = all, .unack = left}, to(7, 2, all, left)));
}

} // namespace
