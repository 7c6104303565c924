// Presence: subscriptions to the topology server, and a peer instance's way up and down.
#include <gmock/gmock.h>

#include "qel_app_info.h"
#include "qel_engine.h"
#include "qel_flow_ctrl.h"
#include "qel_mng_int.h"
#include "qel_rpc.h"
#include "qel_user_proxy.h"

using namespace std::chrono_literals;
using qel_fake::bytes;
using qel_fake::op;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

struct qel_presence : qel_engine {
    std::unique_ptr<qel_node_map> servers_of(uint32_t peer) {
        auto map = std::make_unique<qel_node_map>();
        map->set(4711); // what it held before does not matter
        qel_get_app_server(peer, map.get());
        return map;
    }
    static std::string nodes_of(const qel_node_map &map) {
        std::string text;
        for (uint32_t node = map.next(0); node < qel_node_count; node = map.next(node + 1))
            text += qel_format(" %u", node);
        return text;
    }
    static std::string event_text(const qel_app_event &e) {
        return qel_format("%u: %s %u/%u", e.app_id, e.event == QEL_EVENT_JOIN ? "join" : "quit", e.peer_app,
                          e.node);
    }
    static std::vector<std::string> event_texts() {
        std::vector<std::string> all;
        for (const qel_app_event &e : events())
            all.push_back(event_text(e));
        return all;
    }
    // The handshake by hand.
    void sync_from(uint32_t peer, uint32_t node, uint32_t app, uint32_t pid = 4711) {
        receive(app, sync_of(peer, node, app, {.pid = pid}));
    }
    void ack_from(uint32_t peer, uint32_t node, uint32_t app, bool server = true, uint32_t pid = 4711) {
        receive(app, ack_of(peer, node, app,
                            {.seq = sync_seq(app, peer, node), .pid = pid, .server = server ? 1u : 0u}));
    }
};

// ---- who talks to whom -----------------------------------------------------------------------------------

TEST_F(qel_presence, an_application_is_registered_as_its_own_peer) {
    ASSERT_EQ(add_app(5, false), 0);
    EXPECT_TRUE(comm_app_exists(5));
    EXPECT_THAT(lib_print(5), HasSubstr("    Application 5 server's subscribers: 5\n"));
}

TEST_F(qel_presence, a_declaration_is_told_before_and_after_and_made_once) {
    ASSERT_EQ(add_app(5, false), 0);
    ASSERT_EQ(add_app(9, false), 0);
    qel_set_masks();
    out.take();
    const std::string lines = "<qel_mng> 1: QEL app 5 add comm with 7.\n"
                              "<qel_mng> 1: QEL app 5 add comm with 7 OK.\n";
    EXPECT_EQ(qel_comm_with(5, 7), 0);
    EXPECT_EQ(out.take(), lines);
    EXPECT_EQ(qel_comm_with(5, 7), 0);
    EXPECT_EQ(out.take(), lines);
    EXPECT_EQ(qel_comm_with(9, 7), 0);
    EXPECT_EQ(qel_comm_with(9, 5), 0);
    const std::string text = lib_print(5);
    EXPECT_THAT(text, HasSubstr("    Application 7 server's subscribers: 5 9\n")) << "in the order they came";
    EXPECT_THAT(text, HasSubstr("    Application 5 server's subscribers: 5 9\n"));
    EXPECT_THAT(text, HasSubstr("    Application 9 server's subscribers: 9\n"));
}

TEST_F(qel_presence, a_declaration_of_an_application_that_is_not_here_is_refused_with_2) {
    ASSERT_EQ(add_app(5, false), 0);
    qel_set_masks();
    out.take();
    EXPECT_EQ(qel_comm_with(6, 7), -2);
    EXPECT_EQ(out.take(), "<qel_mng> 3: QEL app 6 does not registered.\n");
    EXPECT_FALSE(comm_app_exists(7));
}

TEST_F(qel_presence, a_declaration_after_the_run_is_accepted_and_subscribed_only_on_a_new_connection) {
    begin({5});
    EXPECT_EQ(qel_comm_with(5, 7), 0);
    settle();
    EXPECT_EQ(qel_fake::calls(op::send).size(), 0u);
    publish(7, 2);
    EXPECT_THAT(out.take(), Not(HasSubstr("perceived")));
    qel_fake::push_recv_end(qel_fake::topology());
    settle();
    EXPECT_THAT(out.take(), HasSubstr("<qel_mng> 2: QEL perceived app 7/2 join.\n"));
}

// ---- subscriptions ---------------------------------------------------------------------------------------

TEST_F(qel_presence, a_subscription_is_28_bytes_in_host_order_for_the_whole_range_of_the_peer) {
    begin({5});
    ASSERT_EQ(qel_subscr_app_events(0x70000, 0x7FFFF), 0);
    EXPECT_EQ(out.take(), "<qel_mng> 1: QEL subscribe TIPC instance [0x70000, 0x7ffff] event.\n");
    const std::vector<qel_fake::call> sends = qel_fake::calls(op::send);
    ASSERT_EQ(sends.size(), 1u);
    const bytes wanted = {0xFF, 0x08, 0, 0, 0x00, 0x00, 0x07, 0, 0xFF, 0xFF, 0x07, 0, 0xFF, 0xFF,
                          0xFF, 0xFF, 2, 0, 0,    0,    0,    0, 0,    0,    0,    0, 0,    0};
    EXPECT_EQ(sends[0].data, wanted);
    EXPECT_EQ(sends[0].flags, MSG_NOSIGNAL);
}

TEST_F(qel_presence, a_timer_is_a_subscription_to_a_name_that_nobody_publishes) {
    begin({5});
    ASSERT_EQ(qel_subscr_timer_event(60, 0x01020304, 0xA1B2C3D4), 0);
    EXPECT_EQ(out.take(), "<qel_mng> 0: QEL add timer event type 16909060, seq -1582119980.\n");
    const std::vector<qel_fake::call> sends = qel_fake::calls(op::send);
    ASSERT_EQ(sends.size(), 1u);
    const bytes wanted = {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,    0,    0x60, 0xEA,
                          0, 0, 2, 0, 0, 0, 4, 3, 2, 1, 0xD4, 0xC3, 0xB2, 0xA1};
    EXPECT_EQ(sends[0].data, wanted);
    EXPECT_EQ(sends[0].flags, MSG_NOSIGNAL);
}

TEST_F(qel_presence, a_cancel_is_the_subscription_with_filter_6_and_the_time_out_it_is_given) {
    begin({5});
    ASSERT_EQ(qel_cancel_app_events(0x70000, 0x7FFFF, 0), 0);
    EXPECT_EQ(out.take(), "<qel_mng> 1: QEL cancel TIPC subscription instance [0x70000, 0x7ffff] event.\n");
    tipc_subscr wanted = peer_subscription(7);
    wanted.timeout = 0;
    wanted.filter = 6;
    ASSERT_EQ(qel_cancel_app_events(0x70000, 0x7FFFF, 0xFFFFFFFF), 0);
    const std::vector<qel_fake::call> sends = qel_fake::calls(op::send);
    ASSERT_EQ(sends.size(), 2u);
    EXPECT_EQ(sends[0].data, as_bytes(wanted));
    wanted.timeout = 0xFFFFFFFF;
    EXPECT_EQ(sends[1].data, as_bytes(wanted));
    EXPECT_EQ(sends[0].flags, MSG_NOSIGNAL);
}

struct sending {
    const char *name;
    int (*send)();
    const char *first_line, *failed;
};
struct qel_presence_send : qel_presence, testing::WithParamInterface<sending> {};
INSTANTIATE_TEST_SUITE_P(
    sends, qel_presence_send,
    testing::Values(sending{"subscription", [] { return qel_subscr_app_events(0x70000, 0x7FFFF); },
                            "<qel_mng> 1: QEL subscribe TIPC instance [0x70000, 0x7ffff] event.\n",
                            "subscription"},
                    sending{"cancel", [] { return qel_cancel_app_events(0x70000, 0x7FFFF, 0); },
                            "<qel_mng> 1: QEL cancel TIPC subscription instance [0x70000, 0x7ffff] event.\n",
                            "canceling subscription"},
                    sending{"timer", [] { return qel_subscr_timer_event(1, 2, 3); },
                            "<qel_mng> 0: QEL add timer event type 2, seq 3.\n", "timer subscription"}),
    [](const auto &p) { return p.param.name; });

TEST_P(qel_presence_send, it_is_repeated_at_once_and_silently_while_memory_lacks_or_it_was_interrupted) {
    begin({5});
    for (const int error : {ENOBUFS, EINTR, ENOMEM}) {
        const unsigned before = qel_fake::count(op::send);
        qel_fake::fail(op::send, error, 1, 5);
        EXPECT_EQ(GetParam().send(), 0);
        EXPECT_EQ(qel_fake::count(op::send) - before, 6u);
        EXPECT_EQ(out.take(), GetParam().first_line);
    }
    EXPECT_EQ(qel_time::sleep_count(), 1u) << "none but the second after the run";
}

TEST_P(qel_presence_send, any_other_failure_gives_up_with_a_line_that_ends_in_a_comma) {
    begin({5});
    for (const auto &[error, text] : {std::pair{EPIPE, "Broken pipe"},
                                      {EAGAIN, "Resource temporarily unavailable"},
                                      {EBADF, "Bad file descriptor"},
                                      {ENOSPC, "No space left on device"}}) {
        const unsigned before = qel_fake::count(op::send);
        qel_fake::fail(op::send, error, 1, 1);
        EXPECT_EQ(GetParam().send(), -1);
        EXPECT_EQ(qel_fake::count(op::send) - before, 1u);
        EXPECT_EQ(out.take(),
                  GetParam().first_line +
                      qel_format("<qel_mng> 3: QEL send %s msg failed: %s.\n,", GetParam().failed, text));
    }
}

TEST_P(qel_presence_send, a_short_send_is_a_failure_and_an_old_errno_does_not_make_it_a_retry) {
    begin({5});
    for (const size_t count : {0u, 1u, 27u}) {
        const unsigned before = qel_fake::count(op::send);
        qel_fake::short_send(count);
        errno = EINTR;
        EXPECT_EQ(GetParam().send(), -1) << count;
        EXPECT_EQ(qel_fake::count(op::send) - before, 1u);
        EXPECT_THAT(out.take(),
                    HasSubstr(qel_format("<qel_mng> 3: QEL send %s msg failed: ", GetParam().failed)));
    }
}

TEST_F(qel_presence, all_peers_are_subscribed_in_the_order_of_their_records_feeding_the_watchdog) {
    begin({5, 9}, {{9, 20479}, {5, 1}, {5, 8191}});
    qel_subscr_tipc_events("dog");
    std::vector<uint32_t> peers;
    for (const qel_fake::call &c : qel_fake::calls(op::send)) {
        tipc_subscr s;
        memcpy(&s, c.data.data(), sizeof s);
        EXPECT_EQ(s.seq.lower, s.seq.upper & 0xFFFF0000);
        EXPECT_EQ(s.seq.upper & 0xFFFF, 0xFFFFu);
        peers.push_back(s.seq.lower >> 16);
    }
    EXPECT_THAT(peers, ElementsAre(5u, 9u, 20479u, 1u, 8191u));
}

// ---- up --------------------------------------------------------------------------------------------------

TEST_F(qel_presence, a_join_sends_one_sync_per_subscriber_in_their_order) {
    begin({9, 5, 6}, {{5, 7}, {9, 7}});
    publish(7, 2);
    const std::vector<sent_msg> all = take_sent();
    ASSERT_EQ(all.size(), 2u);
    for (const sent_msg &m : all) {
        EXPECT_TRUE(m.sync());
        EXPECT_EQ(m.app, 7u);
        EXPECT_EQ(m.node, 2u);
        EXPECT_EQ(m.resume(), 0u);
    }
    EXPECT_EQ(all[0].hdr.src_app, 5u);
    EXPECT_EQ(all[1].hdr.src_app, 9u);
    EXPECT_EQ(bits(7, 2), "") << "nothing is there yet";
    EXPECT_EQ(unacks(), 2u);
}

TEST_F(qel_presence, a_sync_that_cannot_be_sent_is_told_and_the_other_subscribers_are_served) {
    begin({5, 9}, {{5, 7}, {9, 7}});
    qel_fake::fail_to(7, 2, EHOSTUNREACH, 1);
    publish(7, 2);
    EXPECT_EQ(out.take(),
              "<qel_mng> 0: QEL perceived app [0x70002, 0x70002] join.\n"
              "<qel_mng> 2: QEL perceived app 7/2 join.\n"
              "<qel_mng_msg> 0: QEL app 5 sync inst to 7/2, seq 101.\n"
              "<qel_mng_msg> 0: QEL app 5 sent to 7/2, msg len 60.\n"
              "<qel_mng_msg> 3: QEL sendto failed: No route to host.\n"
              "<qel_mng_msg> 2: QEL app 5 sent to 7/2 failed: No route to host, msg len 60, sent -1.\n"
              "<qel_mng> 3: QEL send app 5 server notification to 7/2 failed.\n"
              "<qel_mng_msg> 0: QEL app 9 sync inst to 7/2, seq 102.\n"
              "<qel_mng_msg> 0: QEL app 9 sent to 7/2, msg len 60.\n");
    EXPECT_EQ(unacks(), 1u) << "what was not sent is not waited for";
    pass(300s);
    EXPECT_EQ(take_sent().size(), 1u) << "and is not repeated by itself";
}

TEST_F(qel_presence, sync_then_acknowledgement_brings_an_instance_online_and_joins_it) {
    begin({5}, {{5, 7}});
    publish(7, 2);
    sync_from(7, 2, 5);
    EXPECT_EQ(bits(7, 2), "I");
    EXPECT_EQ(qel_is_app_online(2, 7), 0);
    out.take();
    ack_from(7, 2, 5);
    EXPECT_EQ(bits(7, 2), "SIAO");
    EXPECT_EQ(qel_is_app_online(2, 7), 1);
    EXPECT_THAT(event_texts(), ElementsAre("5: join 7/2"));
    EXPECT_EQ(unacks(), 0u);
    EXPECT_EQ(out.take(),
              "<qel_mng> 0: QEL app 5 recv new msg.\n"
              "<qel_mng_msg> 1: QEL app 5 recv sync msg from 7/2, data len 20, type sync instance "
              "ack.\n"
              "<qel_mng> 1: QEL set app 7/2 online.\n"
              "<qel_flow_ctrl> 0: QEL app 5 add new recv flow ctrl from 7/2.\n"
              "<qel_flow_ctrl> 0: QEL app 5 add new send flow ctrl to 7/2.\n"
              "<qel_app_info> 1: QEL app 5 dispatch app 7/2 event: application join.\n");
}

TEST_F(qel_presence, acknowledgement_then_sync_brings_an_instance_online_too) {
    begin({5}, {{5, 7}});
    publish(7, 2);
    ack_from(7, 2, 5);
    EXPECT_EQ(bits(7, 2), "SA");
    EXPECT_EQ(event_texts().size(), 0u);
    sync_from(7, 2, 5);
    EXPECT_EQ(bits(7, 2), "SIAO");
    EXPECT_THAT(event_texts(), ElementsAre("5: join 7/2"));
}

TEST_F(qel_presence, an_instance_whose_ids_differ_never_comes_online_and_loses_its_instances_bit) {
    begin({5}, {{5, 7}});
    publish(7, 2);
    sync_from(7, 2, 5, 4711);
    ack_from(7, 2, 5, true, 4712);
    EXPECT_EQ(bits(7, 2), "SA");
    EXPECT_EQ(qel_is_app_online(2, 7), 0);
    EXPECT_EQ(event_texts().size(), 0u);
    EXPECT_EQ(out.count("<qel_mng> 2: QEL app 5 to 7/2 instance id not equal.\n"), 1u);
    sync_from(7, 2, 5, 4712); // now both carry the same
    EXPECT_EQ(bits(7, 2), "SIAO");
}

TEST_F(qel_presence, an_id_that_was_never_given_equals_none) {
    begin({5}, {{5, 7}});
    publish(7, 2);
    ack_from(7, 2, 5, true, 4711);
    qel_set_app_inst(7, 2); // present without a sync
    qel_try_notify_app_join(5, 2, 7);
    EXPECT_EQ(bits(7, 2), "SA");
    EXPECT_TRUE(out.has("<qel_mng> 2: QEL app 5 to 7/2 instance id not equal.\n"));
    out.take();
    qel_set_app_inst(7, 3); // and without anything
    qel_set_app_inst_ack(7, 3);
    qel_try_notify_app_join(5, 3, 7);
    EXPECT_EQ(bits(7, 3), "A");
    EXPECT_EQ(out.take(), "<qel_mng> 2: QEL app 5 to 7/3 instance id not equal.\n");
}

TEST_F(qel_presence, a_join_is_tried_only_when_present_and_acknowledged_and_says_nothing_otherwise) {
    begin({5}, {{5, 7}});
    qel_try_notify_app_join(5, 2, 7);
    qel_set_app_inst(7, 2);
    qel_try_notify_app_join(5, 2, 7);
    qel_set_app_inst_ack(7, 3);
    qel_try_notify_app_join(5, 3, 7);
    EXPECT_EQ(out.take(), "");
    EXPECT_EQ(bits(7, 2), "I");
    EXPECT_EQ(bits(7, 3), "A");
}

TEST_F(qel_presence, what_has_no_record_is_told_by_each_operation_and_changes_nothing) {
    begin({5});
    qel_set_app_server(7, 2);
    qel_set_app_inst(7, 2);
    qel_set_app_inst_ack(7, 2);
    qel_try_notify_app_join(5, 2, 7);
    EXPECT_EQ(out.take(), "<qel_mng> 3: QEL get app 7 online status for server setting failed.\n"
                          "<qel_mng> 3: QEL get app 7 online status for inst setting failed.\n"
                          "<qel_mng> 3: QEL get app 7 online status for inst ack setting failed.\n"
                          "<qel_mng> 3: QEL get app 7 online status failed.\n");
    qel_app_inst_join(7, 2, 0);
    qel_app_inst_try_quit(7, 2);
    qel_app_inst_force_quit(7, 2);
    qel_app_inst_withdrawn(7, 2);
    EXPECT_EQ(out.take(), "") << "these look for pending syncs and resumes only";
    EXPECT_FALSE(comm_app_exists(7));
    EXPECT_EQ(qel_app_online(7, 2), 0);
}

TEST_F(qel_presence, a_peer_without_dispatchers_comes_online_without_a_join_and_is_no_destination) {
    begin({5}, {{5, 7}});
    shake_hands(7, 2, false);
    EXPECT_EQ(bits(7, 2), "IAO");
    EXPECT_EQ(qel_is_app_online(2, 7), 1);
    EXPECT_EQ(event_texts().size(), 0u);
    EXPECT_EQ(nodes_of(*servers_of(7)), "");
    withdraw(7, 2);
    EXPECT_EQ(bits(7, 2), "");
    EXPECT_EQ(event_texts().size(), 0u) << "nor does it quit";
    EXPECT_THAT(out.take(), Not(HasSubstr("notify app")));
}

TEST_F(qel_presence, a_second_join_of_an_online_instance_only_warns) {
    begin({5}, {{5, 7}});
    shake_hands(7, 2);
    topology_event(TIPC_PUBLISHED, 0x70002, 0x70002, 7);
    EXPECT_EQ(out.take(), "<qel_mng> 0: QEL perceived app [0x70002, 0x70002] join.\n"
                          "<qel_mng> 2: QEL perceived app 7/2 join.\n"
                          "<qel_mng> 2: QEL app 7/2 had already online.\n");
    EXPECT_EQ(take_sent().size(), 0u);
    EXPECT_EQ(unacks(), 0u);
    EXPECT_EQ(bits(7, 2), "SIAO");
    EXPECT_THAT(event_texts(), ElementsAre("5: join 7/2"));
}

TEST_F(qel_presence, a_second_join_of_an_instance_that_is_not_online_sends_another_sync) {
    begin({5}, {{5, 7}});
    publish(7, 2);
    topology_event(TIPC_PUBLISHED, 0x70002, 0x70002, 7);
    const std::vector<sent_msg> all = take_sent();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_NE(all[0].seq(), all[1].seq());
    EXPECT_EQ(unacks(), 2u);
}

TEST_F(qel_presence, an_application_joins_itself_on_its_own_node_and_can_send_to_itself_only_then) {
    begin({5});
    qel_msg *msg = qel_msg_alloc(0, 1, 0);
    EXPECT_EQ(qel_send(5, 5, msg, 0), -2);
    shake_hands(5, 1);
    EXPECT_THAT(event_texts(), ElementsAre("5: join 5/1"));
    EXPECT_EQ(qel_send(5, 5, msg, 0), 0);
    free(msg);
    const std::vector<sent_msg> all = take_sent();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].app, 5u);
    EXPECT_EQ(all[0].node, 1u);
}

TEST_F(qel_presence, a_server_is_a_destination_only_while_it_is_online) {
    begin({5}, {{5, 7}});
    publish(7, 2);
    publish(7, 3);
    EXPECT_EQ(nodes_of(*servers_of(7)), "") << "published";
    ack_from(7, 2, 5);
    EXPECT_EQ(nodes_of(*servers_of(7)), "") << "a server that acknowledged";
    sync_from(7, 2, 5);
    EXPECT_EQ(nodes_of(*servers_of(7)), " 2") << "online";
    sync_from(7, 3, 5);
    ack_from(7, 3, 5);
    EXPECT_EQ(nodes_of(*servers_of(7)), " 2 3");
    withdraw(7, 2);
    EXPECT_EQ(nodes_of(*servers_of(7)), " 3");
}

TEST_F(qel_presence, the_servers_of_an_unknown_peer_are_none) {
    begin({5});
    const auto map = servers_of(7);
    EXPECT_EQ(nodes_of(*map), "");
    EXPECT_EQ(qel_has_app_server(*map), 0);
    EXPECT_EQ(qel_app_online(7, 2), 0);
    EXPECT_EQ(qel_is_app_online(2, 7), 0);
}

TEST_F(qel_presence, the_lowest_and_the_highest_node_are_tracked_and_none_beyond) {
    begin({5}, {{5, 7}});
    for (const uint32_t node : {0u, 1u, 63u, 64u, 65534u, 65535u})
        shake_hands(7, node);
    EXPECT_EQ(nodes_of(*servers_of(7)), " 0 1 63 64 65534 65535");
    EXPECT_EQ(qel_has_app_server(*servers_of(7)), 1);
    for (const uint32_t node : {65536u, 65537u, 0x80000000u, 0xFFFFFFFFu}) {
        qel_set_app_server(7, node);
        qel_set_app_inst(7, node);
        qel_set_app_inst_ack(7, node);
        EXPECT_EQ(bits(7, node), "");
        EXPECT_EQ(qel_app_online(7, node), 0);
        EXPECT_EQ(qel_is_app_online(node, 7), 0);
    }
    EXPECT_EQ(nodes_of(*servers_of(7)), " 0 1 63 64 65534 65535");
    withdraw(7, 65535);
    withdraw(7, 0);
    EXPECT_EQ(nodes_of(*servers_of(7)), " 1 63 64 65534");
}

TEST_F(qel_presence, the_event_message_is_as_long_and_filled_as_an_event_is) {
    qel_msg *msg = qel_new_event_msg(5, QEL_EVENT_QUIT, 2, 7);
    EXPECT_EQ(msg->hdr.version, 1);
    EXPECT_EQ(msg->hdr.flags, 8);
    EXPECT_EQ(msg->hdr.len, 52u);
    EXPECT_EQ(msg->hdr.app_ver, 1u);
    for (const uint32_t zero : {msg->hdr.src_app, msg->hdr.src_node, msg->hdr.dst_app, msg->hdr.dst_node,
                                msg->hdr.seq, msg->hdr.rpc_status})
        EXPECT_EQ(zero, 0u);
    const uint32_t wanted[4] = {5, 1, 2, 7};
    EXPECT_EQ(memcmp(qel_msg_data(msg), wanted, 16), 0);
    free(msg);
}

TEST_F(qel_presence, join_and_quit_carry_the_application_the_kind_the_node_and_the_peer) {
    begin({5}, {{5, 7}});
    shake_hands(7, 2);
    withdraw(7, 2);
    const std::vector<qel_app_event> all = events();
    ASSERT_EQ(all.size(), 2u);
    for (size_t i = 0; i < 2; i++) {
        EXPECT_EQ(all[i].app_id, 5u);
        EXPECT_EQ(all[i].event, i);
        EXPECT_EQ(all[i].node, 2u);
        EXPECT_EQ(all[i].peer_app, 7u);
    }
}

TEST_F(qel_presence, what_was_sent_before_the_join_counts_as_rejected_then) {
    begin({5}, {{5, 7}});
    for (int i = 0; i < 3; i++)
        qel_fc_update_sent_ok(5, 7, 2);
    publish(7, 2);
    sync_from(7, 2, 5);
    EXPECT_EQ(send_stat(5, 7, 2), "send 3, unack 3, reject 0, RPC reply reject 0");
    out.take();
    ack_from(7, 2, 5);
    EXPECT_EQ(send_stat(5, 7, 2), "send 0, unack 0, reject 3, RPC reply reject 0");
    EXPECT_TRUE(out.has("<qel_flow_ctrl> 2: QEL app 5 adjust sent reject num 3 to 7/2.\n"));
}

TEST_F(qel_presence, without_a_callback_events_are_freed_in_silence) {
    ASSERT_EQ(qel_register_without_thread(5, "five", keep_table, nullptr), 0);
    begin({}, {{5, 7}});
    shake_hands(7, 2);
    EXPECT_EQ(bits(7, 2), "SIAO");
    withdraw(7, 2);
    EXPECT_EQ(bits(7, 2), "");
    EXPECT_THAT(out.take(), Not(HasSubstr("event: application")));
}

TEST_F(qel_presence, an_application_with_a_thread_gets_its_events_from_its_thread_in_order) {
    begin({5}, {{5, 7}}, true);
    for (int i = 0; i < 10; i++) {
        shake_hands(7, 2, true, 100 + static_cast<uint32_t>(i));
        withdraw(7, 2);
    }
    std::vector<std::string> wanted;
    for (int i = 0; i < 10; i++) {
        wanted.push_back("5: join 7/2");
        wanted.push_back("5: quit 7/2");
    }
    EXPECT_EQ(event_texts(), wanted);
}

// ---- two subscribers -------------------------------------------------------------------------------------

TEST_F(qel_presence, with_two_subscribers_the_quit_event_goes_to_the_first_only_the_reset_to_both) {
    begin({9, 5}, {{5, 7}, {9, 7}});
    shake_hands(7, 2);
    for (const uint32_t app : {5u, 9u}) {
        qel_fc_update_sent_ok(app, 7, 2);
        qel_fc_update_recv_ok(7, 2, app);
    }
    reply_set set5, set9;
    open_rpc(5, 1, {{7, 2}}, &set5);
    open_rpc(9, 1, {{7, 2}}, &set9);
    const size_t before = events().size();
    out.take();
    withdraw(7, 2);
    const std::vector<std::string> all = event_texts();
    ASSERT_EQ(all.size(), before + 1);
    EXPECT_EQ(all.back(), "5: quit 7/2") << "the first that declared the peer";
    EXPECT_EQ(out.take(), "<qel_mng> 0: QEL perceived app [0x70002, 0x70002] quit.\n"
                          "<qel_mng> 2: QEL perceived app 7/2 quit.\n"
                          "<qel_mng> 1: QEL clear app 7/2 online.\n"
                          "<qel_flow_ctrl> 1: QEL reset unack stat between app 5 and 7/2.\n"
                          "<qel_app_info> 1: QEL app 5 discard 7/2 msg.\n"
                          "<qel_rpc> 0: QEL try to terminate app 5 RPC to 7/2.\n"
                          "<qel_rpc> 2: QEL terminate app 5 seq 1 RPC to 7/2.\n"
                          "<qel_mng> 1: QEL notify app 5 of 7/2 quit.\n"
                          "<qel_flow_ctrl> 1: QEL reset unack stat between app 9 and 7/2.\n"
                          "<qel_app_info> 1: QEL app 9 discard 7/2 msg.\n"
                          "<qel_app_info> 1: QEL app 5 dispatch app 7/2 event: application quit.\n");
    EXPECT_EQ(set5.set.count, 1);
    EXPECT_EQ(set9.set.count, 0);
    for (const uint32_t app : {5u, 9u}) {
        EXPECT_EQ(send_stat(app, 7, 2), "send 0, unack 0, reject 0, RPC reply reject 0");
        EXPECT_EQ(recv_stat(app, 7, 2), "receive 0, unack 0, drop 0, return 0");
    }
}

TEST_F(qel_presence, the_second_subscribers_acknowledgement_sets_online_and_joins_again_for_itself_alone) {
    begin({5, 9}, {{5, 7}, {9, 7}});
    publish(7, 2);
    sync_from(7, 2, 5);
    sync_from(7, 2, 9);
    ack_from(7, 2, 5);
    EXPECT_THAT(event_texts(), ElementsAre("5: join 7/2"));
    out.take();
    ack_from(7, 2, 9);
    EXPECT_THAT(event_texts(), ElementsAre("5: join 7/2", "9: join 7/2"));
    EXPECT_EQ(out.count("<qel_mng> 1: QEL set app 7/2 online.\n"), 2u);
    EXPECT_EQ(bits(7, 2), "SIAO");
}

TEST_F(qel_presence, the_peers_sync_to_the_second_subscriber_takes_the_instance_down_for_the_first) {
    begin({5, 9}, {{5, 7}, {9, 7}});
    publish(7, 2);
    sync_from(7, 2, 5);
    ack_from(7, 2, 5);
    sync_from(7, 2, 9); // one set of bits for both
    EXPECT_THAT(event_texts(), ElementsAre("5: join 7/2", "5: quit 7/2"));
    EXPECT_EQ(bits(7, 2), "I");
    ack_from(7, 2, 9);
    EXPECT_EQ(bits(7, 2), "SIAO");
    EXPECT_THAT(event_texts(), ElementsAre("5: join 7/2", "5: quit 7/2", "9: join 7/2"));
    EXPECT_EQ(resumes(), 0u) << "while a sync is not acknowledged, none is started";
}

TEST_F(qel_presence, a_quit_of_the_first_subscriber_without_a_callback_costs_the_second_its_event) {
    ASSERT_EQ(qel_register_without_thread(5, "five", keep_table, nullptr), 0);
    begin({9}, {{5, 7}, {9, 7}});
    shake_hands(7, 2);
    const size_t before = events().size();
    withdraw(7, 2);
    EXPECT_EQ(events().size(), before);
}

// ---- down ------------------------------------------------------------------------------------------------

// Keeps the application's thread busy until the test lets it go.
struct gate {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    bool entered = false, open = false;
} g_gate;
void wait_at_gate(qel_msg *msg) {
    free(msg);
    pthread_mutex_lock(&g_gate.mutex);
    g_gate.entered = true;
    pthread_cond_broadcast(&g_gate.cond);
    while (!g_gate.open)
        pthread_cond_wait(&g_gate.cond, &g_gate.mutex);
    pthread_mutex_unlock(&g_gate.mutex);
}

TEST_F(qel_presence, a_quit_discards_and_counts_what_waits_for_each_subscriber_from_that_instance_only) {
    static const qel_dispatcher table[] = {
        {1, qel_world::keep_table[0].fun}, {2, wait_at_gate}, {0, nullptr}};
    ASSERT_EQ(qel_register(5, "five", table, on_event), 0);
    begin({}, {{5, 7}});
    shake_hands(7, 2);
    shake_hands(7, 3);
    deliver(5, wire({.src_app = 1, .src_node = 9, .dst_app = 5, .app_ver = 2})); // occupies the thread
    ASSERT_TRUE(qel_fake::wait_until_idle());
    pthread_mutex_lock(&g_gate.mutex);
    while (!g_gate.entered)
        pthread_cond_wait(&g_gate.cond, &g_gate.mutex);
    pthread_mutex_unlock(&g_gate.mutex);
    for (uint32_t i = 0; i < 3; i++)
        deliver(5, wire({.src_app = 7, .src_node = 2, .dst_app = 5, .seq = i}));
    deliver(5, wire({.src_app = 7, .src_node = 3, .dst_app = 5, .seq = 33}));
    ASSERT_TRUE(qel_fake::wait_until_idle());
    EXPECT_EQ(qel_unprocess_app_msg_num(5, 7, 2), 3);
    qel_fake::withdraw(7, 2);
    ASSERT_TRUE(qel_fake::wait_until_idle());
    EXPECT_EQ(qel_unprocess_app_msg_num(5, 7, 2), 0);
    EXPECT_EQ(qel_unprocess_app_msg_num(5, 7, 3), 1);
    EXPECT_EQ(recv_stat(5, 7, 2), "receive 0, unack 0, drop 3, return 0");
    pthread_mutex_lock(&g_gate.mutex);
    g_gate.open = true;
    pthread_cond_broadcast(&g_gate.cond);
    pthread_mutex_unlock(&g_gate.mutex);
    settle();
    ASSERT_EQ(got().size(), 1u);
    EXPECT_EQ(got()[0].hdr.seq, 33u);
    EXPECT_EQ(event_text(events().back()), "5: quit 7/2");
}

TEST_F(qel_presence, a_tried_quit_drops_a_resume_and_quits_only_an_online_instance) {
    begin({5}, {{5, 7}});
    sync_from(7, 2, 5);
    ASSERT_EQ(resumes(), 1u);
    out.take();
    qel_app_inst_try_quit(7, 2);
    EXPECT_EQ(resumes(), 0u);
    EXPECT_EQ(bits(7, 2), "I") << "an instance that is not online keeps its bits";
    EXPECT_EQ(out.take(), "<qel_mng> 0: QEL clear resume comm to 7/2.\n");
    shake_hands(7, 3);
    qel_app_inst_try_quit(7, 3);
    EXPECT_EQ(bits(7, 3), "");
    EXPECT_EQ(event_texts().back(), "5: quit 7/3");
}

TEST_F(qel_presence, a_tried_quit_keeps_syncs_that_wait_for_an_acknowledgement) {
    begin({5}, {{5, 7}});
    publish(7, 2);
    qel_app_inst_try_quit(7, 2);
    EXPECT_EQ(unacks(), 1u);
}

TEST_F(qel_presence, a_forced_quit_drops_syncs_and_resumes_of_that_instance_only) {
    begin({5}, {{5, 7}});
    publish(7, 2);
    publish(7, 3);
    sync_from(8, 2, 5);
    sync_from(8, 3, 5);
    ASSERT_EQ(unacks(), 2u);
    ASSERT_EQ(resumes(), 2u);
    qel_app_inst_force_quit(7, 2);
    EXPECT_EQ(unacks(), 1u);
    EXPECT_EQ(unacks_to(7, 3), 1u);
    out.take();
    qel_app_inst_force_quit(8, 2);
    EXPECT_EQ(resumes(), 1u);
    EXPECT_EQ(out.take(), "<qel_mng> 0: QEL clear resume comm to 8/2.\n");
}

TEST_F(qel_presence, a_forced_quit_of_an_instance_that_is_not_online_clears_it_and_ends_the_firsts_calls) {
    begin({5, 9}, {{5, 7}, {9, 7}});
    publish(7, 2);
    ack_from(7, 2, 5);
    qel_set_app_inst(7, 2);
    ASSERT_EQ(bits(7, 2), "SIA");
    reply_set set5, set9;
    open_rpc(5, 1, {{7, 2}}, &set5);
    open_rpc(9, 1, {{7, 2}}, &set9);
    out.take();
    qel_app_inst_force_quit(7, 2);
    EXPECT_EQ(bits(7, 2), "") << "the instances bit too";
    EXPECT_EQ(events().size(), 0u);
    EXPECT_EQ(out.take(), "<qel_flow_ctrl> 1: QEL reset unack stat between app 5 and 7/2.\n"
                          "<qel_flow_ctrl> 0: QEL app 5 add new send flow ctrl to 7/2.\n"
                          "<qel_flow_ctrl> 0: QEL app 5 add new recv flow ctrl from 7/2.\n"
                          "<qel_rpc> 0: QEL try to terminate app 5 RPC to 7/2.\n"
                          "<qel_rpc> 2: QEL terminate app 5 seq 1 RPC to 7/2.\n"
                          "<qel_flow_ctrl> 1: QEL reset unack stat between app 9 and 7/2.\n"
                          "<qel_flow_ctrl> 0: QEL app 9 add new send flow ctrl to 7/2.\n"
                          "<qel_flow_ctrl> 0: QEL app 9 add new recv flow ctrl from 7/2.\n");
    EXPECT_EQ(set5.set.count, 1);
    EXPECT_EQ(set9.set.count, 0);
}

TEST_F(qel_presence, a_withdrawal_of_an_instance_with_all_bits_but_online_keeps_the_instances_bit_alone) {
    begin({5}, {{5, 7}});
    publish(7, 2);
    ack_from(7, 2, 5);
    qel_set_app_inst(7, 2);
    ASSERT_EQ(bits(7, 2), "SIA");
    withdraw(7, 2);
    EXPECT_EQ(bits(7, 2), "I");
}

TEST_F(qel_presence, a_forced_quit_of_an_online_instance_is_a_quit_with_its_event) {
    begin({5}, {{5, 7}});
    shake_hands(7, 2);
    qel_app_inst_force_quit(7, 2);
    EXPECT_EQ(bits(7, 2), "");
    EXPECT_EQ(event_texts().back(), "5: quit 7/2");
    EXPECT_EQ(out.take(), "<qel_mng> 1: QEL clear app 7/2 online.\n"
                          "<qel_flow_ctrl> 1: QEL reset unack stat between app 5 and 7/2.\n"
                          "<qel_app_info> 1: QEL app 5 discard 7/2 msg.\n"
                          "<qel_rpc> 0: QEL try to terminate app 5 RPC to 7/2.\n"
                          "<qel_mng> 1: QEL notify app 5 of 7/2 quit.\n"
                          "<qel_app_info> 1: QEL app 5 dispatch app 7/2 event: application quit.\n");
}

TEST_F(qel_presence, a_join_drops_a_pending_resume_also_of_an_unknown_peer) {
    begin({5}, {{5, 7}});
    sync_from(7, 2, 5);
    sync_from(8, 2, 5);
    ASSERT_EQ(resumes(), 2u);
    out.take();
    qel_app_inst_join(8, 2, 0);
    EXPECT_EQ(out.take(), "<qel_mng> 0: QEL clear resume comm to 8/2.\n");
    publish(7, 2);
    EXPECT_EQ(resumes(), 0u);
}

TEST_F(qel_presence, instances_come_and_go_without_touching_those_on_other_nodes) {
    begin({5}, {{5, 7}});
    for (const uint32_t node : {2u, 3u, 4u})
        shake_hands(7, node);
    withdraw(7, 3);
    EXPECT_EQ(bits(7, 2), "SIAO");
    EXPECT_EQ(bits(7, 3), "");
    EXPECT_EQ(bits(7, 4), "SIAO");
    shake_hands(7, 3);
    EXPECT_EQ(nodes_of(*servers_of(7)), " 2 3 4");
}

// ---- callbacks of applications without a thread
// ------------------------------------------------------------

int g_send_result = 1, g_online_in_callback = -1;
void call_everything(qel_app_event event) {
    if (event.event != QEL_EVENT_QUIT)
        return;
    g_online_in_callback = qel_is_app_online(event.node, event.peer_app);
    qel_msg *msg = qel_msg_alloc(0, 1, 0);
    g_send_result = qel_send(5, 7, msg, QEL_SEND_NOWAIT);
    (void)qel_comm_with(5, 8);
    free(msg);
}

TEST_F(qel_presence, a_quit_callback_may_call_the_library_for_it_runs_after_the_lock_was_released) {
    ASSERT_EQ(qel_register_without_thread(5, "five", keep_table, call_everything), 0);
    begin({}, {{5, 7}});
    shake_hands(7, 2);
    withdraw(7, 2);
    EXPECT_EQ(g_online_in_callback, 0);
    EXPECT_EQ(g_send_result, -2);
    EXPECT_TRUE(comm_app_exists(8));
    g_send_result = 1;
    shake_hands(7, 3);
    qel_app_inst_force_quit(7, 3);
    EXPECT_EQ(g_send_result, -2);
    g_send_result = 1;
    shake_hands(7, 4);
    qel_app_inst_try_quit(7, 4);
    EXPECT_EQ(g_send_result, -2);
}

TEST_F(qel_presence, a_join_callback_may_call_the_library_and_finds_the_instance_online) {
    static int online = -1, sent_to_it = 1;
    ASSERT_EQ(qel_register_without_thread(5, "five", keep_table,
                                          [](qel_app_event e) {
                                              online = qel_is_app_online(e.node, e.peer_app);
                                              qel_msg *msg = qel_msg_alloc(0, 1, 0);
                                              sent_to_it = qel_send(5, 7, msg, 0);
                                              free(msg);
                                          }),
              0);
    begin({}, {{5, 7}});
    shake_hands(7, 2);
    EXPECT_EQ(online, 1);
    EXPECT_EQ(sent_to_it, 0);
}

std::vector<std::string> g_order;
TEST_F(qel_presence, the_callback_of_an_event_runs_before_the_message_that_waits_beside_it) {
    static const qel_dispatcher table[] = {{1,
                                            [](qel_msg *msg) {
                                                g_order.push_back("message");
                                                free(msg);
                                            }},
                                           {2,
                                            [](qel_msg *msg) { // both are there when the thread looks again
                                                deliver(5, wire({.src_app = 7, .src_node = 3, .dst_app = 5}));
                                                qel_fake::withdraw(7, 2);
                                                free(msg);
                                            }},
                                           {0, nullptr}};
    ASSERT_EQ(qel_register_without_thread(5, "five", table,
                                          [](qel_app_event e) { g_order.push_back(event_text(e)); }),
              0);
    begin({}, {{5, 7}});
    shake_hands(7, 2);
    shake_hands(7, 3);
    g_order.clear();
    receive(5, wire({.src_app = 7, .src_node = 3, .dst_app = 5, .app_ver = 2}));
    EXPECT_THAT(g_order, ElementsAre("5: quit 7/2", "message"));
}

// ---- roll-back -------------------------------------------------------------------------------------------

TEST_F(qel_presence, taking_an_application_out_cancels_what_nobody_is_left_for_and_keeps_the_rest) {
    begin({5, 9}, {{5, 7}, {9, 7}, {5, 8}});
    {
        qel_lock lock(g_lib_mutex);
        __qel_del_comm_app(5);
    }
    EXPECT_EQ(out.take(), "<qel_mng> 1: QEL cancel TIPC subscription instance [0x50000, 0x5ffff] event.\n"
                          "<qel_mng> 1: QEL cancel TIPC subscription instance [0x80000, 0x8ffff] event.\n");
    std::vector<bytes> wanted;
    for (const uint32_t peer : {5u, 8u}) {
        tipc_subscr s = peer_subscription(peer);
        s.timeout = 0;
        s.filter = 6;
        wanted.push_back(as_bytes(s));
    }
    const std::vector<qel_fake::call> sends = qel_fake::calls(op::send);
    ASSERT_EQ(sends.size(), 2u);
    EXPECT_EQ(sends[0].data, wanted[0]);
    EXPECT_EQ(sends[1].data, wanted[1]);
    EXPECT_FALSE(comm_app_exists(5));
    EXPECT_FALSE(comm_app_exists(8));
    EXPECT_THAT(lib_print(9), HasSubstr("    Application 7 server's subscribers: 9\n"));
}

TEST_F(qel_presence, a_cancel_that_fails_is_told_and_the_record_goes_nevertheless) {
    begin({5});
    qel_fake::fail(op::send, EPIPE);
    {
        qel_lock lock(g_lib_mutex);
        __qel_del_comm_app(5);
    }
    EXPECT_EQ(out.take(), "<qel_mng> 1: QEL cancel TIPC subscription instance [0x50000, 0x5ffff] event.\n"
                          "<qel_mng> 3: QEL send canceling subscription msg failed: Broken pipe.\n,");
    EXPECT_FALSE(comm_app_exists(5));
}

} // namespace
