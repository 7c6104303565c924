// The daemon's requests to applications, and the management messages that it takes.
#include "qel_rpc.h"
#include "qel_user_proxy.h"
#include "qeld_world.h"

#include <algorithm>
#include <cerrno>
#include <thread>

using qel_fake::bytes;
using std::chrono::seconds;

struct qeld_msg : qeld_world {
    void SetUp() override {
        start(false);
        ASSERT_TRUE(run());
        qel_fake::take_calls();
    }
    static bytes joined(const std::vector<bytes> &parts) {
        bytes all;
        for (const bytes &part : parts)
            all.insert(all.end(), part.begin(), part.end());
        return all;
    }
    // A message of 7/3 to the daemon.
    static void give(const bytes &data, uint8_t flags = QEL_FLAG_MNG, uint32_t seq = 0) {
        deliver(1, wire({.flags = flags, .src_app = 7, .src_node = 3, .dst_app = 1, .seq = seq}, data));
        ASSERT_TRUE(qel_fake::settle());
    }
    static std::string daemon_lines(qel_capture &out) {
        std::string all;
        for (int level = 0; level < 4; level++)
            for (const std::string &line : out.lines("qeld_msg", level))
                all += std::to_string(level) + ": " + line;
        return all;
    }
    static std::vector<qel_seen> to(uint32_t app, uint32_t node) {
        std::vector<qel_seen> found;
        for (const qel_fake::call &c : qel_fake::calls(qel_fake::op::sendto))
            if (c.app() == app && c.node() == node)
                found.push_back(unwire(c.data));
        return found;
    }
};

// ---- requests -------------------------------------------------------------------------------------------

TEST_F(qeld_msg, the_debug_command_is_one_message_of_48_bytes_with_its_words_in_host_order) {
    ASSERT_EQ(qeld_send_dbg_cmd(5, 3, 1), 0);
    const auto sent = to(5, 1);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].hdr.version, 1);
    EXPECT_EQ(sent[0].hdr.len, 48u);
    EXPECT_EQ(sent[0].hdr.flags, 8);
    EXPECT_EQ(sent[0].hdr.src_app, 1u);
    EXPECT_EQ(sent[0].hdr.src_node, 1u);
    EXPECT_EQ(sent[0].hdr.dst_app, 5u);
    EXPECT_EQ(sent[0].hdr.dst_node, 1u);
    EXPECT_EQ(sent[0].hdr.app_ver, 1u);
    EXPECT_EQ(sent[0].hdr.seq, 0u);
    EXPECT_EQ(sent[0].hdr.rpc_status, 0u);
    EXPECT_EQ(sent[0].data, host_tlv(3, {3, 1}));
}

TEST_F(qeld_msg, a_debug_command_that_cannot_be_sent_gives_the_result_of_the_send) {
    qel_fake::fail_to(5, 1, EHOSTUNREACH);
    EXPECT_EQ(qeld_send_dbg_cmd(5, 4, 0), -1);
}

TEST_F(qeld_msg, the_statistics_request_is_40_bytes_to_any_node_under_a_fresh_number) {
    qel_reply_set replies;
    uint32_t last_seq = 0;
    for (int i = 0; i < 2; i++) {
        std::thread console([&replies] { EXPECT_EQ(qeld_rpc_get_app_statistics(5, 9, &replies), 0); });
        ASSERT_TRUE(qel_time::wait_for([i] { return to(5, 9).size() == static_cast<size_t>(i) + 1; }));
        const qel_seen asked = to(5, 9).back();
        EXPECT_EQ(asked.hdr.len, 40u);
        EXPECT_EQ(asked.hdr.flags, 0x0A);
        EXPECT_EQ(asked.hdr.app_ver, 1u);
        EXPECT_EQ(asked.hdr.src_app, 1u);
        EXPECT_EQ(asked.hdr.dst_node, 9u);
        EXPECT_EQ(asked.hdr.rpc_status, 0u);
        EXPECT_NE(asked.hdr.seq, 0u);
        EXPECT_NE(asked.hdr.seq, last_seq);
        last_seq = asked.hdr.seq;
        EXPECT_EQ(asked.data, (bytes{0, 4, 0, 5}));
        deliver(1, wire({.flags = 0x0E, .src_app = 5, .src_node = 9, .dst_app = 1, .seq = last_seq}, "text"));
        console.join();
        ASSERT_EQ(replies.count, 1);
        EXPECT_EQ(qel_msg_data_len(replies.msg[0]), 4u);
        qel_reply_msg_free(&replies);
    }
}

TEST_F(qeld_msg, silent_statistics_end_after_thirty_seconds_with_a_time_out_reply) {
    qel_time::auto_advance(true);
    qel_time::enrolled me;
    qel_reply_set replies;
    const auto begin = qel_time::now();
    ASSERT_EQ(qeld_rpc_get_app_statistics(5, 9, &replies), 0);
    EXPECT_EQ(qel_time::now() - begin, seconds(30));
    ASSERT_EQ(replies.count, 1);
    EXPECT_EQ(replies.msg[0]->hdr.rpc_status, 5u);
    qel_reply_msg_free(&replies);
}

TEST_F(qeld_msg, a_request_that_cannot_be_sent_returns_at_once_and_leaves_no_wait) {
    qel_time::enrolled me;
    qel_reply_set replies;
    memset(static_cast<void *>(&replies), 0x5A, sizeof replies);
    qel_fake::fail_to(5, 9, EHOSTUNREACH);
    EXPECT_EQ(qeld_rpc_get_app_statistics(5, 9, &replies), -1);
    EXPECT_EQ(replies.count, 0);
    for (const qel_msg *msg : replies.msg)
        EXPECT_EQ(msg, nullptr);
    qel_lock lock(g_print_mutex);
    qel_buf_printf_reset();
    qel_cli_print_rpc_stat(1);
    EXPECT_STREQ(static_cast<const char *>(qel_msg_const_data(g_print_msg)), "Application 1 RPC waits:\n");
}

TEST_F(qeld_msg, a_quit_between_wait_and_failed_send_leaves_nothing_in_the_reply_set) {
    qel_reply_set replies;
    qel_fake::on_sendto([](const qel_fake::call &c) {
        if (c.app() == 5) {
            (void)qel_terminate_rpc(1, 5, 9);
            qel_fake::fail_to(5, 9, EHOSTUNREACH);
        }
    });
    EXPECT_EQ(qeld_rpc_get_app_statistics(5, 9, &replies), -1);
    EXPECT_EQ(replies.count, 0);
    EXPECT_EQ(replies.msg[0], nullptr);
}

TEST_F(qeld_msg, two_questions_that_draw_one_number_are_told) {
    qel_set_masks(4);
    qel_capture out;
    qel_set_seq_for_test(41);
    qel_reply_set other, replies;
    ASSERT_EQ(qel_rpc_prepare_wait(1, 42, 0, &other), 0);
    EXPECT_EQ(qeld_rpc_get_app_info(5, &replies), -17);
    EXPECT_EQ(daemon_lines(out), "2: QELD app 1 seq 42 to 5/1 prepare RPC wait failed: File exists.\n");
    EXPECT_TRUE(to(5, 1).empty());
    qel_rpc_del_wait(1, 42);
}

// ---- received messages ----------------------------------------------------------------------------------

TEST_F(qeld_msg, an_empty_section_is_taken_without_a_word) {
    qel_set_masks();
    qel_capture out;
    give({});
    EXPECT_EQ(daemon_lines(out), "");
    EXPECT_TRUE(qel_fake::calls(qel_fake::op::sendto).empty());
}

TEST_F(qeld_msg, a_debug_command_switches_the_daemons_own_mask) {
    give(host_tlv(3, {3, 1}));
    EXPECT_EQ(g_qel_dbg_level, 8u);
    give(host_tlv(3, {4, 0x100}));
    EXPECT_EQ(g_qel_dbg_level, 15u);
    give(host_tlv(3, {2, 0}));
    EXPECT_EQ(g_qel_dbg_level, 11u);
    give(host_tlv(3, {5, 1}));
    EXPECT_EQ(g_qel_dbg_level, 11u);
    give(host_tlv(3, {4, 0}));
    EXPECT_EQ(g_qel_dbg_level, 0u);
}

TEST_F(qeld_msg, the_daemon_tells_who_it_is) {
    g_qel_dbg_level = 4;
    qel_capture out;
    give(host_tlv(4, {}), QEL_FLAG_MNG | QEL_FLAG_REQUEST, 99);
    const auto sent = to(7, 3);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].hdr.flags, 0x0E);
    EXPECT_EQ(sent[0].hdr.seq, 99u);
    EXPECT_EQ(sent[0].hdr.len, 52u);
    EXPECT_EQ(sent[0].data, host_tlv(4, {1, static_cast<uint32_t>(getpid()), 4}));
}

TEST_F(qeld_msg, the_daemon_tells_its_statistics_as_a_text) {
    give(host_tlv(5, {}), QEL_FLAG_MNG | QEL_FLAG_REQUEST, 99);
    const auto sent = to(7, 3);
    ASSERT_EQ(sent.size(), 1u);
    const std::string text(sent[0].data.begin(), sent[0].data.end());
    EXPECT_NE(text.find("Application 1/1 [qel_daemon] information:\n"), std::string::npos);
    EXPECT_EQ(text.back(), '\0');
}

TEST_F(qeld_msg, each_item_is_told_with_the_length_of_its_value_and_the_name_of_its_type) {
    qel_set_masks(1);
    qel_capture out;
    give(joined({host_tlv(4, {}), host_tlv(3, {0, 1}), host_tlv(5, {})}));
    EXPECT_EQ(daemon_lines(out),
              "0: QEL app 1 recv mgmt msg from 7/3, data len 0, type application information.\n"
              "0: QEL app 1 recv mgmt msg from 7/3, data len 8, type debug switch command.\n"
              "0: QEL app 1 recv mgmt msg from 7/3, data len 0, type application statistics.\n");
}

TEST_F(qeld_msg, unknown_types_are_told_and_what_follows_them_is_taken) {
    qel_set_masks(4);
    qel_capture out;
    give(joined({host_tlv(0, {1}), host_tlv(8, {}), host_tlv(0xFFFF, {}), host_tlv(3, {3, 1})}));
    EXPECT_EQ(daemon_lines(out), "2: QELD app 1 recv unexpected data type 0 from 7/3.\n"
                                 "2: QELD app 1 recv unexpected data type 8 from 7/3.\n"
                                 "2: QELD app 1 recv unexpected data type 65535 from 7/3.\n");
    EXPECT_EQ(g_qel_dbg_level, 12u);
}

TEST_F(qeld_msg, a_length_below_its_own_head_ends_the_message_with_what_was_before_it_done) {
    qel_set_masks(8);
    qel_capture out;
    give(joined({host_tlv(3, {2, 1}), {0, 3, 0, 4}, host_tlv(3, {4, 0})}));
    EXPECT_EQ(daemon_lines(out), "3: QELD recv invalid TLV len for 1 from 7/3(len:3).\n");
    EXPECT_EQ(g_qel_dbg_level, 12u);
}

TEST_F(qeld_msg, a_debug_command_without_both_words_is_not_read_past_its_end) {
    qel_set_masks(8);
    qel_capture out;
    give(host_tlv(3, {4}));
    give({0, 4, 0, 3});
    give({0, 11, 0, 3, 4, 0, 0, 0, 1, 0, 0, 0});
    EXPECT_EQ(daemon_lines(out), "3: QELD recv invalid TLV len for 1 from 7/3(len:8).\n"
                                 "3: QELD recv invalid TLV len for 1 from 7/3(len:4).\n"
                                 "3: QELD recv invalid TLV len for 1 from 7/3(len:11).\n");
    EXPECT_EQ(g_qel_dbg_level, 8u);
}

TEST_F(qeld_msg, a_section_that_does_not_come_out_even_is_told_behind_its_good_items) {
    qel_set_masks(8);
    const std::string told = "3: QELD recv invalid TLV section for 1 from 7/3 .\n";
    const std::vector<bytes> bad = {{0},
                                    {0, 4, 0},
                                    {0, 5, 0, 4},          // longer than the section
                                    {0xFF, 0xFF, 0, 4},    //
                                    {0, 5, 0, 9, 0},       // its padding is missing: done, then told
                                    {0, 5, 0, 9, 0, 0, 0}, //
                                    {0, 4, 0, 4, 0},       // bytes behind the last item
                                    {0, 4, 0, 4, 0, 0, 0}};
    for (size_t i = 0; i < bad.size(); i++) {
        qel_capture out;
        give(bad[i]);
        EXPECT_EQ(daemon_lines(out), told) << i;
    }
    qel_capture out;
    give({0, 5, 0, 9, 0, 0, 0, 0}); // with its padding
    EXPECT_EQ(daemon_lines(out), "");
}

TEST_F(qeld_msg, a_message_without_the_management_bit_is_taken_by_the_daemons_own_thread) {
    give(host_tlv(3, {3, 1}), 0);
    EXPECT_EQ(g_qel_dbg_level, 8u);
    give(host_tlv(4, {}), QEL_FLAG_REQUEST, 5);
    const auto sent = to(7, 3);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].hdr.flags, 0x06);
}

TEST_F(qeld_msg, every_prefix_and_flipped_byte_of_a_section_is_survived) {
    const bytes whole = joined({host_tlv(3, {0, 0}), host_tlv(4, {}), host_tlv(5, {}), host_tlv(7, {1})});
    const auto take = [](const bytes &data) {
        qel_msg *msg = qel_msg_alloc(static_cast<int32_t>(data.size()), 1, 0);
        msg->hdr.src_app = 7;
        msg->hdr.src_node = 3;
        msg->hdr.dst_app = 1;
        msg->hdr.flags = QEL_FLAG_MNG | QEL_FLAG_REQUEST;
        std::copy(data.begin(), data.end(), static_cast<uint8_t *>(qel_msg_data(msg)));
        qeld_msg_dispatch(msg);
    };
    for (size_t len = 0; len <= whole.size(); len++)
        take({whole.begin(), whole.begin() + static_cast<ptrdiff_t>(len)});
    for (size_t at = 0; at < whole.size(); at++) {
        for (int bit = 0; bit < 8; bit++) {
            bytes flipped = whole;
            flipped[at] ^= static_cast<uint8_t>(1 << bit);
            take(flipped);
        }
    }
    g_qel_dbg_level = 0;
    EXPECT_EQ(qeld_send_dbg_cmd(5, 0, 0), 0);
}
