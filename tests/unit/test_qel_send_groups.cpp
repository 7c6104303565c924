// Sending to groups: who gets what in which order, who is asked before, and what it counts.
#include <cerrno>
#include <gtest/gtest.h>

#include "qel_flow_ctrl.h"
#include "qel_mng_int.h"
#include "qel_process.h"

namespace {

using list = std::vector<std::string>;
#define UP(level, ...) qel_line("qel_user_proxy", level, __VA_ARGS__)
#define FC(level, ...) qel_line("qel_flow_ctrl", level, __VA_ARGS__)
#define MC(level, ...) qel_line("qel_mc", level, __VA_ARGS__)

struct send_groups : qel_process {
    static constexpr uint32_t me = 5;
    send_groups() {
        if (add_app(me, false) != 0)
            abort();
        qel_set_masks(0);
        (void)qel_fake::take_sent();
        msg = qel_msg_alloc(5, 8, 0);
        memcpy(qel_msg_data(msg), "hello", 5);
        msg->hdr.qos = 6;
    }
    ~send_groups() override {
        qel_fake::on_sendto(nullptr);
        free(msg);
    }
    qel_msg *msg;

    static uint32_t app_group(const std::vector<uint32_t> &members) {
        const auto group = static_cast<uint32_t>(qel_create_app_mcast(me));
        for (const uint32_t m : members)
            EXPECT_EQ(qel_add_app_mcast(me, group, m), 0);
        return group;
    }
    static int32_t node_group(const std::vector<uint32_t> &nodes) {
        const int32_t group = qel_create_node_mcast(me);
        for (const uint32_t n : nodes)
            EXPECT_EQ(qel_add_node_mcast(me, static_cast<uint32_t>(group), n), 0);
        return group;
    }
    static void block(uint32_t app, uint32_t node) {
        for (int i = 0; i < 1025; i++)
            qel_fc_update_sent_ok(me, app, node);
    }
    static std::string mcast_reject() {
        const std::string all = fc_stat(me);
        const size_t at = all.find("mcast reject ");
        return all.substr(at, all.find(',', at) - at);
    }
    static std::string peer(uint32_t app, uint32_t node) {
        const std::string all = fc_stat(me);
        const std::string to = qel_format("Send to application %u/%u: ", app, node);
        const size_t at = all.find(to);
        return at == std::string::npos ? "none"
                                       : all.substr(at + to.size(), all.find(", RPC", at) - at - to.size());
    }
};

// ---- who gets what --------------------------------------------------------------------------------------

TEST_F(send_groups, an_application_group_reaches_every_server_of_its_members_in_the_order_of_slots) {
    serve(me, 7, {9, 2});
    serve(me, 8, {4});
    serve(me, 20479, {65535, 0});
    const uint32_t group = app_group({20479, 6, 7, 8});
    ASSERT_EQ(qel_del_app_mcast(me, group, 6), 0);
    EXPECT_EQ(qel_send(me, group, msg, 0), 0);
    const std::vector<sent> all = take_sent();
    const std::pair<uint32_t, uint32_t> order[] = {{20479, 0}, {20479, 65535}, {7, 2}, {7, 9}, {8, 4}};
    ASSERT_EQ(all.size(), std::size(order));
    for (size_t i = 0; i < all.size(); i++) {
        EXPECT_EQ(all[i].to, qel_format("%u/%u", order[i].first, order[i].second));
        const qel_hdr &h = all[i].msg.hdr;
        EXPECT_EQ(h.flags, 0);
        EXPECT_EQ(h.qos, 6);
        EXPECT_EQ(h.len, 41u);
        EXPECT_EQ(h.src_app, me);
        EXPECT_EQ(h.src_node, 1u);
        EXPECT_EQ(h.dst_app, order[i].first) << "the member, not the group";
        EXPECT_EQ(h.dst_node, order[i].second);
        EXPECT_EQ(h.app_ver, 8u);
        EXPECT_EQ(h.seq, 0u);
        EXPECT_EQ(h.rpc_status, 0u);
        EXPECT_EQ(all[i].msg.data, to_bytes("hello"));
        EXPECT_EQ(peer(order[i].first, order[i].second), "send 1, unack 1, reject 0");
    }
}

TEST_F(send_groups, a_member_that_was_added_again_moves_in_the_order_of_sending) {
    for (const uint32_t app : {7u, 8u, 9u})
        serve(me, app, {2});
    const uint32_t group = app_group({7, 8, 9});
    ASSERT_EQ(qel_del_app_mcast(me, group, 7), 0);
    ASSERT_EQ(qel_add_app_mcast(me, group, 9), 0);
    EXPECT_EQ(qel_send(me, group, msg, 0), 0);
    EXPECT_EQ(take_destinations(), (list{"9/2", "8/2"}));
}

TEST_F(send_groups, a_node_group_reaches_the_listed_nodes_that_have_a_server_in_the_order_of_slots) {
    serve(me, 7, {0, 2, 3, 4, 65535});
    const int32_t group = node_group({65535, 9, 3, 2, 0});
    ASSERT_EQ(qel_del_node_mcast(me, static_cast<uint32_t>(group), 2), 0);
    EXPECT_EQ(qel_sendto(me, 7, group, msg, 0), 0);
    EXPECT_EQ(take_destinations(), (list{"7/65535", "7/3", "7/0"}));
}

TEST_F(send_groups, both_groups_at_once_go_member_by_member_and_node_by_node) {
    serve(me, 7, {2, 3, 4});
    serve(me, 8, {4, 5});
    EXPECT_EQ(qel_sendto(me, app_group({8, 7}), node_group({4, 3, 5}), msg, 0), 0);
    EXPECT_EQ(take_destinations(), (list{"8/4", "8/5", "7/4", "7/3"}));
}

TEST_F(send_groups, full_groups_reach_16_times_64_peers) {
    std::vector<uint32_t> apps, nodes;
    for (uint32_t i = 0; i < 16; i++)
        apps.push_back(100 - i);
    for (uint32_t i = 0; i < 64; i++)
        nodes.push_back(65535 - i);
    for (const uint32_t app : apps)
        serve(me, app, nodes);
    EXPECT_EQ(qel_sendto(me, app_group(apps), node_group(nodes), msg, 0), 0);
    list wanted;
    for (const uint32_t app : apps)
        for (const uint32_t node : nodes)
            wanted.push_back(qel_format("%u/%u", app, node));
    EXPECT_EQ(take_destinations(), wanted);
}

TEST_F(send_groups, to_any_node_or_to_the_own_one_an_application_group_may_be_sent_too) {
    serve(me, 7, {1, 2});
    serve(me, 8, {1});
    const uint32_t group = app_group({7, 8});
    EXPECT_EQ(qel_sendto(me, group, QEL_ANY_NODE, msg, 0), 0);
    EXPECT_EQ(take_destinations(), (list{"7/1", "7/2", "8/1"}));
    EXPECT_EQ(qel_sendto(me, group, QEL_MY_NODE, msg, 0), 0);
    EXPECT_EQ(take_destinations(), (list{"7/1", "8/1"}));
    EXPECT_EQ(qel_sendto(me, group, 2, msg, 0), 0);
    EXPECT_EQ(take_destinations(), (list{"7/2"}));
}

TEST_F(send_groups, flag_4_leaves_out_only_the_senders_own_instance_of_a_group_it_is_in) {
    serve(me, me, {1, 2});
    serve(me, 7, {1});
    const uint32_t group = app_group({7, me});
    EXPECT_EQ(qel_send(me, group, msg, 0), 0);
    EXPECT_EQ(take_destinations(), (list{"7/1", "5/1", "5/2"}));
    EXPECT_EQ(qel_send(me, group, msg, QEL_SEND_NOT_SELF), 0);
    EXPECT_EQ(take_destinations(), (list{"7/1", "5/2"}));
    EXPECT_EQ(qel_sendto(me, group, node_group({2, 1}), msg, QEL_SEND_NOT_SELF | QEL_SEND_NOWAIT), 0);
    EXPECT_EQ(take_destinations(), (list{"7/1", "5/2"}));
    EXPECT_EQ(qel_send(me, app_group({me}), msg, QEL_SEND_NOT_SELF), 0);
    EXPECT_EQ(take_destinations(), (list{"5/2"}));
}

TEST_F(send_groups, flag_4_with_nobody_else_in_the_group_finds_no_server) {
    serve(me, me, {1});
    const uint32_t group = app_group({me});
    qel_capture out;
    qel_set_masks(1);
    EXPECT_EQ(qel_send(me, group, msg, QEL_SEND_NOT_SELF), -ENOENT);
    EXPECT_EQ(only(out.take(), "qel_user_proxy"),
              UP(V, "QEL user app 5 send 12288(0x3000), msg %p, flags 0x4.\n", static_cast<void *>(msg)) +
                  UP(V, "QEL app 5 to 5 has no server.\n") +
                  UP(V, "QEL app 5 send 12288(0x3000) has no server.\n"));
    EXPECT_EQ(mcast_reject(), "mcast reject 1");
    EXPECT_TRUE(take_sent().empty());
}

// ---- nobody there ---------------------------------------------------------------------------------------

TEST_F(send_groups, a_member_without_server_is_told_and_the_others_get_theirs) {
    serve(me, 8, {2});
    const uint32_t group = app_group({7, 8, 9});
    qel_capture out;
    qel_set_masks(1);
    EXPECT_EQ(qel_send(me, group, msg, 0), 0);
    const std::string all = only(out.take(), "qel_user_proxy");
    EXPECT_EQ(all,
              UP(V, "QEL user app 5 send 12288(0x3000), msg %p, flags 0x0.\n", static_cast<void *>(msg)) +
                  UP(V, "QEL app 5 to 7 has no server.\n") + UP(V, "QEL app 5 to 9 has no server.\n"));
    EXPECT_EQ(take_destinations(), (list{"8/2"}));
    EXPECT_EQ(mcast_reject(), "mcast reject 0");
}

TEST_F(send_groups, a_member_with_servers_on_other_nodes_only_is_passed_over_in_silence) {
    serve(me, 7, {3});
    serve(me, 8, {2});
    const uint32_t group = app_group({7, 8});
    const int32_t nodes = node_group({2});
    qel_capture out;
    qel_set_masks(1);
    EXPECT_EQ(qel_sendto(me, group, nodes, msg, 0), 0);
    EXPECT_EQ(only(out.take(), "qel_user_proxy"),
              UP(V, "QEL user app 5 sendto 12288/524288(0x3000/0x80000), msg %p, flags 0x0.\n",
                 static_cast<void *>(msg)));
    EXPECT_EQ(take_destinations(), (list{"8/2"}));
}

TEST_F(send_groups, an_empty_unknown_or_destroyed_group_has_no_server_and_counts_as_reject_of_no_peer) {
    serve(me, 7, {2});
    const uint32_t empty = app_group({});
    const int32_t no_nodes = node_group({});
    const uint32_t destroyed = app_group({7});
    qel_destroy_app_mcast(me, destroyed);
    const int32_t gone_nodes = node_group({2});
    qel_destroy_node_mcast(me, static_cast<uint32_t>(gone_nodes));
    qel_capture out;
    const auto refused = [&](uint32_t dst, int32_t node, const std::string &wanted) {
        qel_set_masks(0xF);
        EXPECT_EQ(node == QEL_ANY_NODE ? qel_send(me, dst, msg, 0) : qel_sendto(me, dst, node, msg, 0),
                  -ENOENT);
        qel_set_masks(0);
        const std::string all = out.take();
        EXPECT_NE(all.find(wanted), std::string::npos) << all;
        EXPECT_NE(all.find(" has no server.\n"), std::string::npos);
    };
    refused(empty, QEL_ANY_NODE, UP(V, "QEL app 5 send 12288(0x3000) has no server.\n"));
    refused(destroyed, QEL_ANY_NODE, MC(X, "QEL app 5 does not create app-private-mcast 12289.\n"));
    refused(0x3FFF, QEL_ANY_NODE, MC(X, "QEL app 5 does not create app-private-mcast 16383.\n"));
    refused(0x3FFF, 2, UP(V, "QEL app 5 sendto 16383/2(0x3fff/0x2) has no server.\n"));
    refused(7, no_nodes, UP(V, "QEL app 5 sendto 7/524288(0x7/0x80000) has no server.\n"));
    refused(7, gone_nodes, MC(X, "QEL app 5 does not create node-private-mcast 524289.\n"));
    refused(7, 0x8FFFF, MC(X, "QEL app 5 does not create node-private-mcast 589823.\n"));
    EXPECT_EQ(mcast_reject(), "mcast reject 7");
    EXPECT_EQ(peer(7, 2), "none");
    EXPECT_TRUE(take_sent().empty());
}

TEST_F(send_groups, the_group_of_another_application_of_the_process_is_unknown) {
    ASSERT_EQ(add_app(6, false), 0);
    serve(me, 7, {2});
    serve(6, 7, {2});
    const uint32_t group = app_group({7});
    EXPECT_EQ(qel_send(6, group, msg, 0), -ENOENT);
    EXPECT_EQ(qel_send(me, group, msg, 0), 0);
    EXPECT_EQ(take_destinations(), (list{"7/2"}));
}

// ---- admission ------------------------------------------------------------------------------------------

TEST_F(send_groups, one_refused_member_of_a_group_keeps_all_from_getting_anything) {
    for (const uint32_t app : {7u, 8u, 9u})
        serve(me, app, {2, 3});
    const uint32_t group = app_group({7, 8, 9});
    block(8, 3);
    qel_capture out;
    qel_set_masks(0xF);
    EXPECT_EQ(qel_send(me, group, msg, QEL_SEND_NOWAIT), -EAGAIN);
    EXPECT_EQ(out.take(),
              UP(V, "QEL user app 5 send 12288(0x3000), msg %p, flags 0x1.\n", static_cast<void *>(msg)) +
                  FC(V, "QEL app 5 accept new msg to 7.\n") + FC(V, "QEL app 5 reject new msg to 8.\n") +
                  UP(W, "QEL app 5 to 8 check msg flow ctrl failed: Resource temporarily unavailable.\n") +
                  FC(V, "QEL app 5 update send reject to 12288/-1.\n"));
    qel_set_masks(0);
    EXPECT_TRUE(take_sent().empty());
    EXPECT_EQ(mcast_reject(), "mcast reject 1");
    EXPECT_EQ(peer(8, 3), "send 1025, unack 1025, reject 0");
    EXPECT_EQ(qel_sendto(me, group, 2, msg, QEL_SEND_NOWAIT), -EAGAIN)
        << "blocked on node 3 is blocked everywhere";
    EXPECT_EQ(mcast_reject(), "mcast reject 2");
    const int32_t nodes = node_group({2});
    EXPECT_EQ(qel_sendto(me, 8, nodes, msg, QEL_SEND_NOWAIT), -EAGAIN);
    EXPECT_EQ(mcast_reject(), "mcast reject 3");
    EXPECT_EQ(qel_sendto(me, 8, 2, msg, QEL_SEND_NOWAIT), -EAGAIN);
    EXPECT_EQ(peer(8, 2), "send 0, unack 0, reject 1") << "one application on one node is a peer";
    EXPECT_TRUE(take_sent().empty());
}

TEST_F(send_groups, a_blocked_member_without_a_server_that_is_meant_is_not_asked) {
    serve(me, 7, {2});
    serve(me, 8, {3});
    block(8, 3);
    block(9, 3); // no server at all
    const uint32_t group = app_group({7, 8, 9});
    EXPECT_EQ(qel_sendto(me, group, 2, msg, QEL_SEND_NOWAIT), 0);
    EXPECT_EQ(take_destinations(), (list{"7/2"}));
    EXPECT_EQ(qel_send(me, group, msg, QEL_SEND_NOWAIT), -EAGAIN);
}

TEST_F(send_groups, the_sender_itself_left_out_is_not_asked) {
    serve(me, me, {1});
    serve(me, 7, {2});
    block(me, 1);
    const uint32_t group = app_group({me, 7});
    EXPECT_EQ(qel_send(me, group, msg, QEL_SEND_NOWAIT), -EAGAIN);
    EXPECT_EQ(qel_send(me, group, msg, QEL_SEND_NOWAIT | QEL_SEND_NOT_SELF), 0);
    EXPECT_EQ(take_destinations(), (list{"7/2"}));
}

// A send to @group that waits for its second member, application 8, on node 2.
struct waiting_send {
    waiting_send(uint32_t group, int32_t node, qel_msg *msg)
        : task([this, group, node, msg] { ret = qel_sendto(5, group, node, msg, 0); }) {
        EXPECT_TRUE(qel_time::settle());
        EXPECT_FALSE(task.ended());
    }
    void admit() {
        qel_fc_update_sent_ack(5, 8, 2, 1000);
        EXPECT_TRUE(task.join());
    }
    int ret = 12345;
    qel_task task;
};

TEST_F(send_groups, a_send_that_waits_for_its_second_member_sends_to_all_when_it_is_admitted) {
    serve(me, 7, {2});
    serve(me, 8, {2});
    block(8, 2);
    waiting_send s(app_group({7, 8}), QEL_ANY_NODE, msg);
    EXPECT_TRUE(take_sent().empty());
    s.admit();
    EXPECT_EQ(s.ret, 0);
    EXPECT_EQ(take_destinations(), (list{"7/2", "8/2"}));
}

TEST_F(send_groups, servers_that_come_and_go_while_a_send_waits_are_seen_when_it_goes_on) {
    serve(me, 7, {2, 3});
    serve(me, 8, {2});
    block(8, 2);
    waiting_send s(app_group({7, 8}), QEL_ANY_NODE, msg);
    serve(me, 7, {4});
    vanish(7, {2});
    vanish(8, {2});
    s.admit();
    EXPECT_EQ(s.ret, 0);
    EXPECT_EQ(take_destinations(), (list{"7/3", "7/4"}));
    EXPECT_EQ(mcast_reject(), "mcast reject 0");
}

TEST_F(send_groups, a_group_changed_while_a_send_waits_is_sent_to_as_it_was) {
    serve(me, 7, {2});
    serve(me, 8, {2, 3});
    serve(me, 9, {2});
    block(8, 2);
    const uint32_t apps = app_group({7, 8});
    const int32_t nodes = node_group({2});
    waiting_send s(apps, nodes, msg);
    EXPECT_EQ(qel_add_app_mcast(me, apps, 9), 0);
    EXPECT_EQ(qel_del_app_mcast(me, apps, 7), 0);
    EXPECT_EQ(qel_add_node_mcast(me, static_cast<uint32_t>(nodes), 3), 0);
    qel_destroy_app_mcast(me, apps);
    s.admit();
    EXPECT_EQ(s.ret, 0);
    EXPECT_EQ(take_destinations(), (list{"7/2", "8/2"}));
}

TEST_F(send_groups, with_all_servers_gone_while_it_waited_a_send_finds_none_while_sending) {
    serve(me, 7, {2});
    serve(me, 8, {2});
    for (const int32_t node : {static_cast<int32_t>(QEL_ANY_NODE), node_group({2})}) {
        serve(me, 7, {2});
        serve(me, 8, {2});
        block(8, 2);
        waiting_send s(app_group({7, 8}), node, msg);
        qel_capture out;
        qel_set_masks(1);
        qel_app_inst_force_quit(7, 2);
        qel_app_inst_force_quit(8, 2); // releases the sender
        EXPECT_TRUE(s.task.join());
        const std::string all = only(out.take(), "qel_user_proxy");
        qel_set_masks(0);
        EXPECT_EQ(s.ret, -ENOENT);
        if (node == QEL_ANY_NODE) {
            EXPECT_EQ(all, UP(V, "QEL app 5 send 12288(0x3000) has no server while sending.\n"));
        } else {
            EXPECT_EQ(all,
                      UP(V, "QEL app 5 sendto 12289/524288(0x3001/0x80000) has no server while sending.\n"));
        }
    }
    EXPECT_EQ(mcast_reject(), "mcast reject 2");
    EXPECT_TRUE(take_sent().empty());
}

// ---- failures -------------------------------------------------------------------------------------------

TEST_F(send_groups, a_failed_datagram_is_that_peers_reject_and_the_rest_is_sent) {
    serve(me, 7, {2, 3});
    serve(me, 8, {2});
    qel_fake::fail_to(7, 2, EHOSTUNREACH);
    EXPECT_EQ(qel_send(me, app_group({7, 8}), msg, 0), -1);
    EXPECT_EQ(take_destinations(), (list{"7/3", "8/2"}));
    EXPECT_EQ(peer(7, 2), "send 0, unack 0, reject 1");
    EXPECT_EQ(peer(7, 3), "send 1, unack 1, reject 0");
    EXPECT_EQ(peer(8, 2), "send 1, unack 1, reject 0");
    EXPECT_EQ(mcast_reject(), "mcast reject 0");
    qel_fake::fail(qel_fake::op::sendto, EHOSTUNREACH, 1, qel_fake::for_ever);
    EXPECT_EQ(qel_sendto(me, app_group({7, 8}), node_group({2, 3}), msg, 0), -1) << "not a missing server";
    EXPECT_EQ(peer(8, 2), "send 1, unack 1, reject 1");
    EXPECT_EQ(mcast_reject(), "mcast reject 0");
}

TEST_F(send_groups, a_member_that_becomes_blocked_by_this_very_send_still_gets_all_of_it) {
    serve(me, 7, {2, 3, 4});
    for (int i = 0; i < 1024; i++)
        qel_fc_update_sent_ok(me, 7, 2);
    EXPECT_EQ(qel_sendto(me, 7, node_group({2, 3, 4}), msg, QEL_SEND_NOWAIT), 0);
    EXPECT_EQ(take_destinations(), (list{"7/2", "7/3", "7/4"}));
    EXPECT_EQ(qel_send(me, 7, msg, QEL_SEND_NOWAIT), -EAGAIN);
}

} // namespace
