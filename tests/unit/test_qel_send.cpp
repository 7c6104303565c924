// One-way sending: destinations, admission, what is on the wire, results. Every test is a process of its own.
#include <cerrno>
#include <gtest/gtest.h>
#include <thread>

#include "qel_app_info.h"
#include "qel_capture.h"
#include "qel_flow_ctrl.h"
#include "qel_mng.h"
#include "qel_mng_msg.h"
#include "qel_world.h"

using namespace std::chrono_literals;
using qel_fake::op;

namespace {

using peer = std::pair<uint32_t, uint32_t>; // application, node

struct send : qel_world {
    qel_capture out;
    qel_msg *msg = nullptr;

    send() {
        qel_set_masks(0xF, 0);
        set_conf("[MISC_CONF]\nqel_dbg_cfg=15\n");
        msg = qel_msg_alloc(5, 7, 0);
        memcpy(qel_msg_data(msg), "hello", 5);
        msg->hdr.qos = 9;
    }
    ~send() override { free(msg); }

    // Application 5 of this process on node 1, with the peers that are online.
    void start(const std::vector<peer> &peers) {
        ASSERT_EQ(add_app(5), 0);
        for (const peer &p : peers)
            ASSERT_EQ(qel_comm_with(5, static_cast<int32_t>(p.first)), 0);
        ASSERT_TRUE(run());
        for (const peer &p : peers)
            ASSERT_TRUE(bring_online(p.first, p.second)) << p.first << "/" << p.second;
        qel_fake::take_calls();
        out.take();
    }
    // Where the datagrams went, and that each of them is complete.
    std::vector<peer> sent_to() const {
        std::vector<peer> to;
        for (const auto &c : qel_fake::take_sent()) {
            to.emplace_back(c.app(), c.node());
            const qel_seen s = unwire(c.data);
            EXPECT_EQ(s.hdr.dst_app, c.app());
            EXPECT_EQ(s.hdr.dst_node, c.node());
            EXPECT_EQ(s.data, to_bytes("hello"));
        }
        return to;
    }
    static void block(uint32_t app, uint32_t node) { // towards this peer no more fits
        for (int i = 0; i < 1025; i++)
            qel_fc_update_sent_ok(5, app, node);
    }
    static std::string statistics(uint32_t app = 5) {
        qel_lock lock(g_print_mutex);
        qel_buf_printf_reset();
        qel_cli_print_fc_stat(app);
        return static_cast<const char *>(qel_msg_const_data(g_print_msg));
    }
    static std::string totals(int sent, int unack, int mcast_reject) {
        return qel_format("  total send %d, unack %d, mcast reject %d, RPC reply exception 0\n", sent, unack,
                          mcast_reject);
    }
    static std::string to_line(unsigned app, unsigned node, int sent, int unack, int reject) {
        return qel_format("    Send to application %u/%u: send %d, unack %d, reject %d, RPC reply reject 0\n",
                          app, node, sent, unack, reject);
    }
    std::string entry(int app, int dst, unsigned flags) const {
        return qel_line("qel_user_proxy", V, "QEL user app %d send %d(0x%x), msg %p, flags 0x%x.\n", app, dst,
                        static_cast<unsigned>(dst), static_cast<void *>(msg), flags);
    }
    std::string entry_to(int app, int dst, int node, unsigned flags) const {
        return qel_line("qel_user_proxy", V, "QEL user app %d sendto %d/%d(0x%x/0x%x), msg %p, flags 0x%x.\n",
                        app, dst, node, static_cast<unsigned>(dst), static_cast<unsigned>(node),
                        static_cast<void *>(msg), flags);
    }
    static std::string invalid_app(int app, int dst) {
        return qel_line("qel_user_proxy", X, "QEL app %d to dst app ID %d invalid.\n", app, dst);
    }
    static std::string invalid_node(int app, int node) {
        return qel_line("qel_user_proxy", X, "QEL app %d to dst node ID %d invalid.\n", app, node);
    }
    static std::string member_has_none(int app, int member) {
        return qel_line("qel_user_proxy", V, "QEL app %d to %d has no server.\n", app, member);
    }
};
constexpr char no_server[] = "QEL app %d send %d(0x%x) has no server.\n";

uint32_t app_group(const std::vector<uint32_t> &members) {
    const int32_t id = qel_create_app_mcast(5);
    for (const uint32_t m : members)
        EXPECT_EQ(qel_add_app_mcast(5, static_cast<uint32_t>(id), m), 0);
    return static_cast<uint32_t>(id);
}
int32_t node_group(const std::vector<uint32_t> &nodes) {
    const int32_t id = qel_create_node_mcast(5);
    for (const uint32_t n : nodes)
        EXPECT_EQ(qel_add_node_mcast(5, static_cast<uint32_t>(id), n), 0);
    return id;
}

// ---- on the wire ----------------------------------------------------------------------------------------

TEST_F(send, a_datagram_has_these_bytes) {
    start({{7, 2}});
    EXPECT_EQ(qel_send(5, 7, msg, 0), 0);
    const auto sent = qel_fake::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    const qel_fake::bytes expected = {
        1,   0,   0,   9,   0,  0, 0, 41, 0, 0, 0, 1, 0, 0, 0, 2, // version, reserved, flags, qos, len, nodes
        0,   0,   0,   5,   0,  0, 0, 7,  0, 0, 0, 7, 0, 0, 0, 0, 0, 0, 0, 0, // apps, app_ver, seq, status
        'h', 'e', 'l', 'l', 'o'};
    EXPECT_EQ(sent[0].data, expected);
}

TEST_F(send, a_datagram_goes_from_the_applications_socket_to_the_name_of_the_peer_and_may_block) {
    start({{7, 65535}});
    EXPECT_EQ(qel_send(5, 7, msg, QEL_SEND_NOWAIT), 0);
    const auto sent = qel_fake::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].fd, qel_get_app_sd(5));
    EXPECT_EQ(sent[0].addr.family, AF_TIPC);
    EXPECT_EQ(sent[0].addr.addrtype, TIPC_ADDR_NAME);
    EXPECT_EQ(sent[0].addr.addr.name.name.type, 2303u);
    EXPECT_EQ(sent[0].addr.addr.name.name.instance, 0x0007FFFFu);
    EXPECT_EQ(sent[0].addr.addr.name.domain, 0u);
    EXPECT_EQ(sent[0].flags & MSG_DONTWAIT, 0) << "not waiting is for flow control only";
}

TEST_F(send, the_library_overwrites_what_the_caller_left_in_its_fields_and_keeps_the_rest) {
    start({{7, 2}});
    qel_encode_msg_hdr(msg, 0x0F, 99, 98, 97, 96, 95, 1);
    msg->hdr.version = 3;
    EXPECT_EQ(qel_send(5, 7, msg, 0), 0);
    const auto sent = qel_fake::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    const qel_hdr h = unwire(sent[0].data).hdr;
    EXPECT_EQ(h.flags, 0);
    EXPECT_EQ(h.src_app, 5u);
    EXPECT_EQ(h.src_node, 1u);
    EXPECT_EQ(h.dst_app, 7u);
    EXPECT_EQ(h.dst_node, 2u);
    EXPECT_EQ(h.seq, 0u);
    EXPECT_EQ(h.rpc_status, 0u);
    EXPECT_EQ(h.version, 3);
    EXPECT_EQ(h.qos, 9);
    EXPECT_EQ(h.app_ver, 7u);
    EXPECT_EQ(h.len, 41u);
}

void expect_host_order(const qel_msg *msg) {
    EXPECT_EQ(msg->hdr.version, 1);
    EXPECT_EQ(msg->hdr.flags, 0);
    EXPECT_EQ(msg->hdr.qos, 9);
    EXPECT_EQ(msg->hdr.len, 41u);
    EXPECT_EQ(msg->hdr.src_node, 1u);
    EXPECT_EQ(msg->hdr.dst_node, 2u);
    EXPECT_EQ(msg->hdr.src_app, 5u);
    EXPECT_EQ(msg->hdr.dst_app, 7u);
    EXPECT_EQ(msg->hdr.app_ver, 7u);
    EXPECT_EQ(msg->hdr.seq, 0u);
    EXPECT_EQ(msg->hdr.rpc_status, 0u);
    EXPECT_EQ(memcmp(qel_msg_const_data(msg), "hello", 5), 0);
}

TEST_F(send, the_callers_message_is_in_host_order_afterwards_sent_or_not) {
    start({{7, 2}});
    EXPECT_EQ(qel_send(5, 7, msg, 0), 0);
    expect_host_order(msg);
    qel_fake::fail_to(7, 2, EHOSTUNREACH);
    EXPECT_EQ(qel_send(5, 7, msg, 0), -1);
    expect_host_order(msg);
    EXPECT_EQ(qel_send(5, 7, msg, 0), 0) << "it can be sent again";
    EXPECT_EQ(sent_to(), (std::vector<peer>{{7, 2}, {7, 2}}));
}

TEST_F(send, the_smallest_and_the_largest_message_pass) {
    start({{7, 2}});
    for (const int32_t len : {0, 65536}) {
        qel_msg *m = qel_msg_alloc(len, 1, 0);
        memset(qel_msg_data(m), 0x5A, static_cast<size_t>(len));
        EXPECT_EQ(qel_send(5, 7, m, 0), 0);
        const auto sent = qel_fake::take_sent();
        ASSERT_EQ(sent.size(), 1u);
        EXPECT_EQ(sent[0].data.size(), static_cast<size_t>(len) + 36);
        EXPECT_EQ(be32_at(sent[0].data, 4), static_cast<uint32_t>(len) + 36);
        free(m);
    }
}

TEST_F(send, a_length_that_no_message_can_have_is_refused_unsent) {
    start({{7, 2}});
    for (const uint32_t len : {0u, 35u, 65573u, UINT32_MAX}) {
        msg->hdr.len = len;
        out.take();
        EXPECT_EQ(qel_send(5, 7, msg, 0), -1) << len;
        EXPECT_NE(
            out.take().find(qel_line("qel_mng_msg", W,
                                     "QEL app 5 sent to 7/2 failed: Invalid argument, msg len %d, sent -1.\n",
                                     static_cast<int>(len))),
            std::string::npos);
        EXPECT_EQ(msg->hdr.len, len);
    }
    EXPECT_TRUE(qel_fake::calls(op::sendto).empty());
}

// The first two data words of status 1 travel in network order, those of every other status as they are.
TEST_F(send, only_status_1_converts_two_data_words_and_converts_them_back) {
    start({{7, 2}});
    for (const uint32_t status : {0u, 1u, 2u, 3u, 4u, 5u})
        for (const int32_t len : {0, 3, 4, 7, 8, 12}) {
            SCOPED_TRACE(qel_format("status %u, %d bytes", status, len));
            qel_msg *m = qel_msg_alloc(len, 1, 0);
            const uint32_t words[3] = {0x01020304, 0x05060708, 0x090A0B0C};
            memcpy(qel_msg_data(m), words, static_cast<size_t>(len));
            qel_encode_msg_hdr(m, QEL_FLAG_REQUEST | QEL_FLAG_ACK, 5, 1, 7, 2, 1, status);
            EXPECT_EQ(qel_tipc_sendto(5, m, 7, 2, 0), 0);
            EXPECT_EQ(memcmp(qel_msg_data(m), words, static_cast<size_t>(len)), 0) << "the sender's own";
            const auto sent = qel_fake::take_sent();
            ASSERT_EQ(sent.size(), 1u);
            const auto *first = reinterpret_cast<const uint8_t *>(words);
            qel_fake::bytes expected(first, first + len);
            for (size_t i = 0; i < 2 && status == 1; i++)
                if (len >= static_cast<int32_t>(4 * i + 4))
                    qel_store_be32(&expected[4 * i], words[i]);
            EXPECT_EQ(unwire(sent[0].data).data, expected);
            free(m);
        }
}

TEST_F(send, a_received_message_of_status_1_has_its_first_two_words_in_host_order) {
    start({{7, 2}});
    for (const uint32_t status : {1u, 3u})
        for (const size_t len : {size_t{0}, size_t{5}, size_t{8}, size_t{12}}) {
            const qel_fake::bytes data = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
            deliver(5, wire({.src_app = 7, .src_node = 2, .dst_app = 5, .status = status},
                            qel_fake::bytes(data.begin(), data.begin() + static_cast<ptrdiff_t>(len))));
            ASSERT_TRUE(qel_fake::settle());
            const kept k = got().back();
            ASSERT_EQ(k.data.size(), len);
            for (size_t i = 0; i < len / 4; i++) {
                const bool converted = status == 1 && i < 2;
                EXPECT_EQ(host32_at(k.data, 4 * i), converted ? be32_at(data, 4 * i) : host32_at(data, 4 * i))
                    << status << " " << len << " " << i;
            }
            if (len % 4 != 0) {
                EXPECT_EQ(k.data.back(), data[len - 1]) << "no whole word: left alone";
            }
        }
}

// ---- who gets it ----------------------------------------------------------------------------------------

TEST_F(send, every_node_of_the_server_gets_one_datagram_in_ascending_order) {
    start({{7, 300}, {7, 2}, {7, 65535}, {7, 0}, {8, 5}});
    EXPECT_EQ(qel_send(5, 7, msg, 0), 0);
    EXPECT_EQ(sent_to(), (std::vector<peer>{{7, 0}, {7, 2}, {7, 300}, {7, 65535}}));
}

TEST_F(send, destination_0_is_every_instance_of_the_sender_this_one_included) {
    start({{5, 1}, {5, 3}});
    EXPECT_EQ(qel_send(5, 0, msg, 0), 0);
    EXPECT_EQ(sent_to(), (std::vector<peer>{{5, 1}, {5, 3}}));
    EXPECT_EQ(qel_send(5, 5, msg, 0), 0);
    EXPECT_EQ(sent_to(), (std::vector<peer>{{5, 1}, {5, 3}})) << "the same by name";
}

TEST_F(send, flag_4_leaves_out_the_senders_own_instance_on_this_node) {
    start({{5, 1}, {5, 3}});
    EXPECT_EQ(qel_send(5, 5, msg, 4), 0);
    EXPECT_EQ(sent_to(), (std::vector<peer>{{5, 3}}));
    EXPECT_EQ(qel_sendto(5, 0, QEL_MY_NODE, msg, 4), -2);
    EXPECT_TRUE(sent_to().empty());
}

TEST_F(send, flag_4_leaves_out_only_the_sender_itself) {
    start({{7, 1}, {7, 2}});
    EXPECT_EQ(qel_send(5, 7, msg, 4), 0);
    EXPECT_EQ(sent_to(), (std::vector<peer>{{7, 1}, {7, 2}})) << "another application on this node";
}

TEST_F(send, flag_4_with_no_other_instance_finds_no_server) {
    start({{5, 1}});
    EXPECT_EQ(qel_send(5, 5, msg, 4), -2);
    EXPECT_TRUE(sent_to().empty());
    EXPECT_EQ(out.take(), entry(5, 5, 4) + member_has_none(5, 5) +
                              qel_line("qel_user_proxy", V, no_server, 5, 5, 5) +
                              qel_line("qel_flow_ctrl", V, "QEL app 5 update send reject to 5/-1.\n"));
}

TEST_F(send, a_peer_that_is_no_server_gets_nothing) {
    start({{7, 2}});
    EXPECT_TRUE(bring_online(7, 3, false)) << "online, but without dispatchers";
    qel_fake::take_sent();
    EXPECT_EQ(qel_send(5, 7, msg, 0), 0);
    EXPECT_EQ(sent_to(), (std::vector<peer>{{7, 2}}));
    EXPECT_EQ(qel_sendto(5, 7, 3, msg, 0), -2);
}

TEST_F(send, a_group_reaches_its_members_in_list_order_each_on_its_nodes) {
    start({{7, 3}, {7, 2}, {8, 1}, {9, 4}});
    const uint32_t group = app_group({9, 7, 8, 10});
    EXPECT_EQ(qel_send(5, group, msg, 0), 0);
    EXPECT_EQ(sent_to(), (std::vector<peer>{{9, 4}, {7, 2}, {7, 3}, {8, 1}}));
    EXPECT_TRUE(out.has(member_has_none(5, 10)));
}

TEST_F(send, the_sender_in_a_group_obeys_flag_4) {
    start({{5, 1}, {5, 2}, {7, 1}});
    const uint32_t group = app_group({5, 7});
    EXPECT_EQ(qel_send(5, group, msg, 4), 0);
    EXPECT_EQ(sent_to(), (std::vector<peer>{{5, 2}, {7, 1}}));
}

// ---- sendto ---------------------------------------------------------------------------------------------

TEST_F(send, sendto_any_node_is_a_send_with_both_entry_lines) {
    start({{7, 2}, {7, 3}});
    EXPECT_EQ(qel_sendto(5, 7, -1, msg, 4), 0);
    const std::string text = out.take();
    EXPECT_EQ(text.rfind(entry_to(5, 7, -1, 4) + entry(5, 7, 4), 0), 0u) << text;
    EXPECT_EQ(sent_to(), (std::vector<peer>{{7, 2}, {7, 3}}));
    EXPECT_EQ(qel_sendto(5, 9, -1, msg, 0), -2);
    EXPECT_EQ(qel_sendto(5, 8192, -1, msg, 0), -22);
}

TEST_F(send, sendto_my_node_reaches_only_this_node) {
    start({{7, 1}, {7, 2}});
    EXPECT_EQ(qel_sendto(5, 7, -2, msg, 0), 0);
    EXPECT_EQ(sent_to(), (std::vector<peer>{{7, 1}}));
}

TEST_F(send, sendto_a_node_reaches_only_that_node_the_ends_of_the_range_included) {
    start({{7, 0}, {7, 2}, {7, 65535}});
    for (const int32_t node : {65535, 0, 2}) {
        EXPECT_EQ(qel_sendto(5, 7, node, msg, 0), 0);
        EXPECT_EQ(sent_to(), (std::vector<peer>{{7, static_cast<uint32_t>(node)}}));
    }
}

TEST_F(send, sendto_a_node_group_follows_the_order_of_the_list) {
    start({{7, 2}, {7, 9}, {7, 4}, {7, 5}});
    const int32_t group = node_group({9, 3, 2, 4});
    EXPECT_EQ(qel_sendto(5, 7, group, msg, 0), 0);
    EXPECT_EQ(sent_to(), (std::vector<peer>{{7, 9}, {7, 2}, {7, 4}}));
}

TEST_F(send, sendto_both_groups_goes_member_by_member) {
    start({{7, 2}, {7, 3}, {8, 3}, {8, 2}, {8, 4}});
    EXPECT_EQ(qel_sendto(5, app_group({8, 7}), node_group({3, 2}), msg, 0), 0);
    EXPECT_EQ(sent_to(), (std::vector<peer>{{8, 3}, {8, 2}, {7, 3}, {7, 2}}));
}

TEST_F(send, sendto_a_member_that_serves_on_other_nodes_only_is_passed_in_silence) {
    start({{7, 2}, {8, 3}});
    EXPECT_EQ(qel_sendto(5, app_group({7, 8}), 3, msg, 0), 0);
    EXPECT_EQ(sent_to(), (std::vector<peer>{{8, 3}}));
    EXPECT_FALSE(out.has(member_has_none(5, 7)));
    EXPECT_FALSE(out.has(member_has_none(5, 8)));
}

TEST_F(send, sendto_without_a_server_there_says_so_and_counts_one_rejection) {
    start({{7, 2}});
    EXPECT_EQ(qel_sendto(5, 7, 3, msg, 0), -2);
    EXPECT_EQ(out.take(),
              entry_to(5, 7, 3, 0) +
                  qel_line("qel_user_proxy", V, "QEL app 5 sendto 7/3(0x7/0x3) has no server.\n") +
                  qel_line("qel_flow_ctrl", V, "QEL app 5 update send reject to 7/3.\n") +
                  qel_line("qel_flow_ctrl", V, "QEL app 5 add new send flow ctrl to 7/3.\n"));
    EXPECT_NE(statistics().find(to_line(7, 3, 0, 0, 1)), std::string::npos) << statistics();
    EXPECT_EQ(qel_sendto(5, 8, 3, msg, 0), -2);
    EXPECT_NE(out.take().find(member_has_none(5, 8)), std::string::npos) << "no server anywhere";
}

// ---- arguments ------------------------------------------------------------------------------------------

TEST_F(send, a_bad_source_or_a_null_message_is_refused_and_counts_nothing) {
    start({{7, 2}});
    const std::string before = statistics();
    for (const uint32_t app : {0u, 8192u, 16383u, 20480u, UINT32_MAX}) {
        out.take();
        EXPECT_EQ(qel_send(app, 7, msg, 0), -22);
        EXPECT_EQ(out.take(),
                  entry(static_cast<int>(app), 7, 0) +
                      qel_line("qel_user_proxy", X, "QEL src app ID %d invalid.\n", static_cast<int>(app)));
        EXPECT_EQ(qel_sendto(app, 7, 2, msg, 0), -22);
    }
    out.take();
    EXPECT_EQ(qel_send(5, 7, nullptr, 0), -22);
    EXPECT_EQ(out.take(),
              qel_line("qel_user_proxy", V, "QEL user app 5 send 7(0x7), msg (nil), flags 0x0.\n") +
                  qel_line("qel_user_proxy", X, "QEL app 5 send msg NULL.\n"));
    EXPECT_EQ(qel_sendto(5, 7, 2, nullptr, 0), -22);
    EXPECT_EQ(qel_sendto(5, 7, -1, nullptr, 0), -22);
    EXPECT_EQ(statistics(), before);
    EXPECT_TRUE(sent_to().empty());
}

TEST_F(send, an_invalid_destination_application_is_refused_and_counted_once) {
    start({{7, 2}});
    int rejects = 0;
    for (const uint32_t dst : {8192u, 12287u, 20480u, 65536u + 7, UINT32_MAX}) {
        out.take();
        EXPECT_EQ(qel_send(5, dst, msg, 0), -22) << dst;
        const auto shown = static_cast<int>(dst);
        EXPECT_EQ(out.take(),
                  entry(5, shown, 0) + invalid_app(5, shown) +
                      qel_line("qel_flow_ctrl", V, "QEL app 5 update send reject to %d/-1.\n", shown));
        EXPECT_EQ(qel_sendto(5, dst, 2, msg, 0), -22);
        rejects += 2;
    }
    EXPECT_NE(statistics().find(totals(0, 0, rejects)), std::string::npos) << statistics();
}

TEST_F(send, an_invalid_destination_node_is_refused_and_counted_once) {
    start({{7, 2}});
    int rejects = 0;
    for (const int32_t node : {65536, 0x7FFFF, 0x90000, -3, INT32_MIN, INT32_MAX}) {
        out.take();
        EXPECT_EQ(qel_sendto(5, 7, node, msg, 0), -22) << node;
        EXPECT_EQ(out.take(),
                  entry_to(5, 7, node, 0) + invalid_node(5, node) +
                      qel_line("qel_flow_ctrl", V, "QEL app 5 update send reject to 7/%d.\n", node));
        rejects++;
    }
    EXPECT_NE(statistics().find(totals(0, 0, rejects)), std::string::npos) << statistics();
    EXPECT_TRUE(sent_to().empty());
}

TEST_F(send, the_application_is_judged_before_the_node) {
    start({{7, 2}});
    EXPECT_EQ(qel_sendto(5, 8192, 65536, msg, 0), -22);
    EXPECT_TRUE(out.has(invalid_app(5, 8192)));
    EXPECT_FALSE(out.has(invalid_node(5, 65536)));
}

TEST_F(send, an_unknown_group_and_a_group_without_members_have_no_server) {
    start({{7, 2}});
    EXPECT_EQ(qel_send(5, 0x3777, msg, 0), -2);
    EXPECT_TRUE(out.has(qel_line("qel_user_proxy", V, no_server, 5, 0x3777, 0x3777)));
    EXPECT_EQ(qel_send(5, app_group({}), msg, 0), -2);
    EXPECT_EQ(qel_sendto(5, 7, 0x80777, msg, 0), -2);
    EXPECT_TRUE(out.has(
        qel_line("qel_user_proxy", V, "QEL app 5 sendto 7/%d(0x7/0x80777) has no server.\n", 0x80777)));
    EXPECT_EQ(qel_sendto(5, 7, node_group({}), msg, 0), -2);
    EXPECT_NE(statistics().find(totals(0, 0, 4)), std::string::npos) << statistics();
    EXPECT_TRUE(sent_to().empty());
}

TEST_F(send, without_the_peer_online_there_is_no_server) {
    ASSERT_EQ(add_app(5), 0);
    ASSERT_EQ(qel_comm_with(5, 7), 0);
    EXPECT_EQ(qel_send(5, 7, msg, 0), -2) << "before run";
    ASSERT_TRUE(run());
    qel_fake::publish(7, 2);
    ASSERT_TRUE(qel_fake::settle());
    EXPECT_EQ(qel_send(5, 7, msg, 0), -2) << "published is not online";
    EXPECT_EQ(qel_send(5, 5, msg, 0), -2) << "nor is this instance";
    qel_fake::withdraw(7, 2);
    ASSERT_TRUE(bring_online(7, 2));
    EXPECT_EQ(qel_send(5, 7, msg, 0), 0);
    qel_fake::withdraw(7, 2);
    ASSERT_TRUE(qel_fake::settle());
    EXPECT_EQ(qel_send(5, 7, msg, 0), -2) << "and gone again";
}

TEST_F(send, a_source_that_is_not_registered_here_finds_a_server_but_no_flow_control) {
    start({{7, 2}});
    EXPECT_EQ(qel_send(6, 7, msg, 0), -2);
    EXPECT_EQ(out.take(),
              entry(6, 7, 0) + qel_line("qel_flow_ctrl", X, "QEL app 6 get flow control failed.\n") +
                  qel_line("qel_user_proxy", W,
                           "QEL app 6 to 7 check msg flow ctrl failed: No such file or directory.\n") +
                  qel_line("qel_flow_ctrl", V, "QEL app 6 update send reject to 7/-1.\n") +
                  qel_line("qel_flow_ctrl", X, "QEL app 6 get flow control failed.\n"));
    EXPECT_TRUE(sent_to().empty());
}

TEST_F(send, a_process_without_any_registration_can_send_nothing) {
    remove_node_address();
    EXPECT_EQ(qel_send(5, 7, msg, 0), -2);
    EXPECT_EQ(qel_send(5, 5, msg, 4), -2);
    EXPECT_FALSE(out.has(member_has_none(5, 5))) << "which node this is is not known: the member is left out";
    EXPECT_EQ(qel_sendto(5, 7, -2, msg, 0), -2);
    EXPECT_TRUE(qel_fake::calls().empty());
}

// ---- failures on the way --------------------------------------------------------------------------------

TEST_F(send, a_failed_datagram_makes_minus_1_and_the_rest_is_sent) {
    start({{7, 2}, {7, 3}, {7, 4}});
    qel_fake::fail_to(7, 3, EHOSTUNREACH);
    EXPECT_EQ(qel_send(5, 7, msg, 0), -1);
    EXPECT_EQ(sent_to(), (std::vector<peer>{{7, 2}, {7, 4}}));
    const std::string stat = statistics();
    EXPECT_NE(stat.find(totals(2, 2, 0)), std::string::npos) << stat;
    EXPECT_NE(stat.find(to_line(7, 2, 1, 1, 0)), std::string::npos);
    EXPECT_NE(stat.find(to_line(7, 3, 0, 0, 1)), std::string::npos);
    EXPECT_NE(stat.find(to_line(7, 4, 1, 1, 0)), std::string::npos);
}

TEST_F(send, sendto_with_every_datagram_failing_is_minus_1_and_not_a_missing_server) {
    start({{7, 2}, {7, 3}});
    qel_fake::fail(op::sendto, EHOSTUNREACH, 1, 2);
    EXPECT_EQ(qel_sendto(5, 7, node_group({2, 3}), msg, 0), -1);
    const std::string stat = statistics();
    EXPECT_NE(stat.find(to_line(7, 2, 0, 0, 1)), std::string::npos) << stat;
    EXPECT_NE(stat.find(to_line(7, 3, 0, 0, 1)), std::string::npos);
    EXPECT_NE(stat.find(totals(0, 0, 0)), std::string::npos);
}

TEST_F(send, flow_control_that_refuses_the_second_member_keeps_the_first_from_getting_anything) {
    start({{7, 2}, {8, 3}});
    block(8, 3);
    out.take();
    const uint32_t group = app_group({7, 8});
    EXPECT_EQ(qel_send(5, group, msg, QEL_SEND_NOWAIT), -11);
    EXPECT_TRUE(sent_to().empty());
    EXPECT_TRUE(out.has(qel_line("qel_user_proxy", W,
                                 "QEL app 5 to 8 check msg flow ctrl failed: Resource temporarily "
                                 "unavailable.\n")));
    EXPECT_NE(statistics().find(totals(1025, 1025, 1)), std::string::npos) << statistics();
    EXPECT_EQ(qel_sendto(5, group, node_group({2, 3}), msg, QEL_SEND_NOWAIT), -11);
    EXPECT_TRUE(sent_to().empty());
    EXPECT_NE(statistics().find(totals(1025, 1025, 2)), std::string::npos) << statistics();
}

TEST_F(send, a_member_without_a_server_on_the_listed_nodes_is_not_asked_of_flow_control) {
    start({{7, 2}, {8, 3}});
    block(8, 3);
    EXPECT_EQ(qel_sendto(5, app_group({7, 8}), 2, msg, QEL_SEND_NOWAIT), 0);
    EXPECT_EQ(sent_to(), (std::vector<peer>{{7, 2}}));
}

TEST_F(send, without_the_flag_a_refused_sender_waits_until_it_is_admitted) {
    start({{7, 2}});
    block(7, 2);
    int result = 1;
    std::thread sender([&] { result = qel_send(5, 7, msg, 0); });
    ASSERT_TRUE(qel_time::wait_for([&] { // it waits beside the library's and the proxy thread
        return out.has(qel_line("qel_flow_ctrl", V, "QEL app 5 to 7 wait for flow ctrl condition.\n")) &&
               qel_time::blocked() >= 3;
    }));
    EXPECT_TRUE(qel_fake::calls(op::sendto).empty());
    qel_fc_update_sent_ack(5, 7, 2, 512);
    sender.join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(sent_to(), (std::vector<peer>{{7, 2}}));
}

// The server is there when the sender is admitted and gone when it is about to send: it waits between the
// two, and the quit that wakes it takes the server away.
TEST_F(send, a_server_that_vanishes_after_the_admission_is_no_server_while_sending) {
    for (const bool to_node : {false, true}) {
        SCOPED_TRACE(to_node);
        if (!to_node) {
            start({{7, 2}});
        } else {
            ASSERT_TRUE(bring_online(7, 2));
        }
        qel_fake::take_sent();
        block(7, 2);
        out.take();
        int result = 1;
        std::thread sender([&] { result = to_node ? qel_sendto(5, 7, 2, msg, 0) : qel_send(5, 7, msg, 0); });
        ASSERT_TRUE(qel_time::wait_for([] { return qel_time::blocked() >= 3; }));
        qel_fake::withdraw(7, 2);
        sender.join();
        EXPECT_EQ(result, -2);
        EXPECT_TRUE(sent_to().empty());
        ASSERT_TRUE(qel_fake::settle());
        const std::string text = out.take();
        EXPECT_NE(text.find(to_node ? qel_line("qel_user_proxy", V,
                                               "QEL app 5 sendto 7/2(0x7/0x2) has no server while "
                                               "sending.\n")
                                    : qel_line("qel_user_proxy", V,
                                               "QEL app 5 send 7(0x7) has no server while sending.\n")),
                  std::string::npos)
            << text;
        EXPECT_NE(text.find(qel_line("qel_flow_ctrl", V, "QEL app 5 update send reject to 7/%d.\n",
                                     to_node ? 2 : -1)),
                  std::string::npos);
    }
}

// ---- lists of destinations ------------------------------------------------------------------------------

std::vector<uint32_t> app_list(uint32_t dst, int expected = 0) {
    uint32_t members[QEL_APP_GROUP_MBRS];
    memset(members, 0xEE, sizeof members);
    EXPECT_EQ(qel_get_app_mbrs(5, dst, members), expected) << dst;
    return {members, members + QEL_APP_GROUP_MBRS};
}
std::vector<uint32_t> padded(std::vector<uint32_t> v, size_t size, uint32_t empty) {
    v.resize(size, empty);
    return v;
}

TEST_F(send, the_list_of_applications_has_16_slots_with_0_for_empty) {
    start({});
    EXPECT_EQ(app_list(0), padded({5}, 16, 0));
    EXPECT_EQ(app_list(1), padded({1}, 16, 0));
    EXPECT_EQ(app_list(20479), padded({20479}, 16, 0));
    EXPECT_EQ(app_list(app_group({9, 8})), padded({9, 8}, 16, 0));
    EXPECT_EQ(app_list(0x3FFF), padded({}, 16, 0)) << "unknown: nobody";
    for (const uint32_t bad : {8192u, 12287u, 20480u, UINT32_MAX})
        (void)app_list(bad, -22);
}

std::vector<uint32_t> node_list(int32_t node, int expected = 0) {
    uint32_t nodes[QEL_NODE_GROUP_MBRS];
    memset(nodes, 0xEE, sizeof nodes);
    EXPECT_EQ(qel_get_node_mbrs(5, node, nodes), expected) << node;
    return {nodes, nodes + QEL_NODE_GROUP_MBRS};
}

TEST_F(send, the_list_of_nodes_has_64_slots_with_all_ones_for_empty) {
    start({});
    EXPECT_EQ(node_list(-2), padded({1}, 64, UINT32_MAX));
    EXPECT_EQ(node_list(0), padded({0}, 64, UINT32_MAX));
    EXPECT_EQ(node_list(65535), padded({65535}, 64, UINT32_MAX));
    EXPECT_EQ(node_list(node_group({9, 8, 65535})), padded({9, 8, 65535}, 64, UINT32_MAX));
    EXPECT_EQ(node_list(0x8FFFF), padded({}, 64, UINT32_MAX)) << "unknown: no node";
    for (const int32_t bad : {-1, -3, 65536, 0x7FFFF, 0x90000, INT32_MIN})
        (void)node_list(bad, -22);
}

// ---- from several threads --------------------------------------------------------------------------------

TEST_F(send, threads_with_messages_of_their_own_send_side_by_side) {
    start({{7, 2}, {8, 3}});
    qel_set_masks(0, 0);
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < 4; t++)
        threads.emplace_back([t] {
            qel_msg *mine = qel_msg_alloc(5, t, 0);
            memcpy(qel_msg_data(mine), "hello", 5);
            for (int i = 0; i < 100; i++)
                if (qel_send(5, t % 2 ? 7 : 8, mine, 0) != 0)
                    abort();
            free(mine);
        });
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(sent_to().size(), 400u);
    EXPECT_NE(statistics().find(totals(400, 400, 0)), std::string::npos) << statistics();
}

} // namespace
