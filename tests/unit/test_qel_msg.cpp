#include <cstring>
#include <gtest/gtest.h>
#include <string>

#include "qel/qel.h"
#include "qel_capture.h"
#include "qel_log.h"

namespace {

// ---- layout ---------------------------------------------------------------------------------------------

TEST(msg_layout, the_header_is_36_bytes_with_its_fields_where_the_wire_has_them) {
    EXPECT_EQ(sizeof(qel_hdr), 36u);
    EXPECT_EQ(offsetof(qel_hdr, version), 0u);
    EXPECT_EQ(offsetof(qel_hdr, reserved), 1u);
    EXPECT_EQ(offsetof(qel_hdr, flags), 2u);
    EXPECT_EQ(offsetof(qel_hdr, qos), 3u);
    EXPECT_EQ(offsetof(qel_hdr, len), 4u);
    EXPECT_EQ(offsetof(qel_hdr, src_node), 8u);
    EXPECT_EQ(offsetof(qel_hdr, dst_node), 12u);
    EXPECT_EQ(offsetof(qel_hdr, src_app), 16u);
    EXPECT_EQ(offsetof(qel_hdr, dst_app), 20u);
    EXPECT_EQ(offsetof(qel_hdr, app_ver), 24u);
    EXPECT_EQ(offsetof(qel_hdr, seq), 28u);
    EXPECT_EQ(offsetof(qel_hdr, rpc_status), 32u);
}

TEST(msg_layout, link_header_and_data_follow_each_other_without_a_gap) {
    qel_msg *msg = qel_msg_alloc(8, 1, 0);
    EXPECT_EQ(reinterpret_cast<char *>(&msg->hdr) - reinterpret_cast<char *>(msg),
              static_cast<ptrdiff_t>(sizeof(qel_link)));
    EXPECT_EQ(static_cast<char *>(qel_msg_data(msg)) - reinterpret_cast<char *>(&msg->hdr), 36);
    EXPECT_EQ(qel_msg_const_data(msg), qel_msg_data(msg));
    EXPECT_EQ(reinterpret_cast<uintptr_t>(qel_msg_data(msg)) % 4, 0u);
    free(msg);
}

TEST(msg_layout, flag_bits_and_status_codes_have_their_wire_values) {
    EXPECT_EQ(QEL_FLAG_SYNC, 1);
    EXPECT_EQ(QEL_FLAG_REQUEST, 2);
    EXPECT_EQ(QEL_FLAG_ACK, 4);
    EXPECT_EQ(QEL_FLAG_MNG, 8);
    EXPECT_EQ(QEL_STATUS_SUCCESS, 0);
    EXPECT_EQ(QEL_STATUS_QEL_VERSION, 1);
    EXPECT_EQ(QEL_STATUS_UNAVAILABLE, 2);
    EXPECT_EQ(QEL_STATUS_APP_VERSION, 3);
    EXPECT_EQ(QEL_STATUS_SYSTEM, 4);
    EXPECT_EQ(QEL_STATUS_TIMEOUT, 5);
}

TEST(msg_layout, a_reply_set_is_a_signed_count_and_64_pointers) {
    static_assert(std::is_same_v<decltype(qel_reply_set::count), int32_t>);
    EXPECT_EQ(sizeof(qel_reply_set::msg) / sizeof(qel_msg *), 64u);
    EXPECT_EQ(offsetof(qel_reply_set, msg), alignof(qel_msg *));
}

TEST(msg_layout, identifiers_have_their_ranges) {
    for (const uint32_t app : {1u, 8191u, 16384u, 20479u})
        EXPECT_EQ(qel_valid_app_id(app), 1) << app;
    for (const uint32_t app : {0u, 8192u, 12288u, 16383u, 20480u, 65536u + 5, UINT32_MAX})
        EXPECT_EQ(qel_valid_app_id(app), 0) << app;
    EXPECT_EQ(qel_valid_node_id(0), 1);
    EXPECT_EQ(qel_valid_node_id(65535), 1);
    EXPECT_EQ(qel_valid_node_id(65536), 0);
    EXPECT_EQ(qel_valid_node_id(UINT32_MAX), 0);
    EXPECT_EQ(qel_is_app_group(0x2FFF), 0);
    EXPECT_EQ(qel_is_app_group(0x3000), 1);
    EXPECT_EQ(qel_is_app_group(0x3FFF), 1);
    EXPECT_EQ(qel_is_app_group(0x4000), 0);
    EXPECT_EQ(qel_is_node_group(0x7FFFF), 0);
    EXPECT_EQ(qel_is_node_group(0x80000), 1);
    EXPECT_EQ(qel_is_node_group(0x8FFFF), 1);
    EXPECT_EQ(qel_is_node_group(0x90000), 0);
}

// ---- allocation -----------------------------------------------------------------------------------------

TEST(msg_alloc_fields, the_limits_of_the_data_length_are_0_and_65536_and_nothing_is_logged_beyond) {
    qel_set_masks();
    qel_capture out;
    qel_msg *empty = qel_msg_alloc(0, 1, 0);
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(empty->hdr.len, 36u);
    EXPECT_EQ(qel_msg_data_len(empty), 0u);
    free(empty);
    qel_msg *full = qel_msg_alloc(65536, 1, 0);
    ASSERT_NE(full, nullptr);
    EXPECT_EQ(full->hdr.len, 65572u);
    EXPECT_EQ(qel_msg_data_len(full), 65536u);
    memset(qel_msg_data(full), 0xAB, 65536); // all of it is ours
    free(full);
    EXPECT_EQ(qel_msg_alloc(-1, 1, 0), nullptr);
    EXPECT_EQ(qel_msg_alloc(65537, 1, 0), nullptr);
    EXPECT_EQ(out.raw(), "");
}

TEST(msg_alloc_fields, a_fresh_message_is_cleared_but_for_version_length_and_protocol_version) {
    for (int i = 0; i < 3; i++) {
        qel_msg *msg = qel_msg_alloc(16, 0xDEADBEEF, 0);
        EXPECT_EQ(msg->link.next, nullptr);
        EXPECT_EQ(msg->link.prev, nullptr);
        EXPECT_EQ(msg->hdr.version, 1);
        EXPECT_EQ(msg->hdr.reserved, 0);
        EXPECT_EQ(msg->hdr.flags, 0);
        EXPECT_EQ(msg->hdr.qos, 0);
        EXPECT_EQ(msg->hdr.len, 52u);
        EXPECT_EQ(msg->hdr.src_node, 0u);
        EXPECT_EQ(msg->hdr.dst_node, 0u);
        EXPECT_EQ(msg->hdr.src_app, 0u);
        EXPECT_EQ(msg->hdr.dst_app, 0u);
        EXPECT_EQ(msg->hdr.app_ver, 0xDEADBEEFu);
        EXPECT_EQ(msg->hdr.seq, 0u);
        EXPECT_EQ(msg->hdr.rpc_status, 0u);
        memset(msg, 0xFF, sizeof(qel_link) + 52); // dirt for the next one
        free(msg);
    }
}

TEST(msg_alloc_fields, the_third_argument_changes_nothing) {
    for (const int reserved : {0, 1, -1, INT32_MAX}) {
        qel_msg *msg = qel_msg_alloc(4, 7, reserved);
        ASSERT_NE(msg, nullptr);
        EXPECT_EQ(msg->hdr.len, 40u);
        EXPECT_EQ(msg->hdr.app_ver, 7u);
        EXPECT_EQ(msg->hdr.reserved, 0);
        free(msg);
    }
}

// ---- freeing a reply set --------------------------------------------------------------------------------

TEST(msg_reply_free, frees_what_is_there_skips_null_and_leaves_an_empty_set) {
    qel_reply_set set;
    memset(&set, 0, sizeof set);
    set.count = 3;
    set.msg[0] = qel_msg_alloc(0, 1, 0);
    set.msg[2] = qel_msg_alloc(100, 1, 0);
    qel_reply_msg_free(&set); // a leak of either would be seen by the sanitizer
    EXPECT_EQ(set.count, 0);
    EXPECT_EQ(set.msg[0], nullptr);
    EXPECT_EQ(set.msg[1], nullptr);
    EXPECT_EQ(set.msg[2], nullptr);
}

TEST(msg_reply_free, a_null_set_is_ignored) { qel_reply_msg_free(nullptr); }

TEST(msg_reply_free, a_count_above_64_frees_64_and_touches_nothing_behind) {
    struct {
        qel_reply_set set;
        uintptr_t guard;
    } s{};
    s.guard = 1;
    s.set.count = INT32_MAX;
    for (qel_msg *&m : s.set.msg)
        m = qel_msg_alloc(0, 1, 0);
    qel_reply_msg_free(&s.set);
    EXPECT_EQ(s.set.count, 0);
    for (const qel_msg *m : s.set.msg)
        EXPECT_EQ(m, nullptr);
    EXPECT_EQ(s.guard, 1u);
}

TEST(msg_reply_free, a_count_below_0_frees_nothing) {
    qel_reply_set set{};
    qel_msg *msg = qel_msg_alloc(0, 1, 0);
    set.msg[0] = msg;
    set.count = -1;
    qel_reply_msg_free(&set);
    EXPECT_EQ(set.count, 0);
    EXPECT_EQ(set.msg[0], msg);
    free(msg);
}

TEST(msg_encode, stores_seven_fields_and_leaves_the_others) {
    qel_msg *msg = qel_msg_alloc(4, 9, 0);
    msg->hdr.version = 3;
    msg->hdr.reserved = 4;
    msg->hdr.qos = 5;
    qel_encode_msg_hdr(msg, 0xFE, 10, 11, 12, 13, 14, 15);
    EXPECT_EQ(msg->hdr.flags, 0xFE);
    EXPECT_EQ(msg->hdr.src_app, 10u);
    EXPECT_EQ(msg->hdr.src_node, 11u);
    EXPECT_EQ(msg->hdr.dst_app, 12u);
    EXPECT_EQ(msg->hdr.dst_node, 13u);
    EXPECT_EQ(msg->hdr.seq, 14u);
    EXPECT_EQ(msg->hdr.rpc_status, 15u);
    EXPECT_EQ(msg->hdr.version, 3);
    EXPECT_EQ(msg->hdr.reserved, 4);
    EXPECT_EQ(msg->hdr.qos, 5);
    EXPECT_EQ(msg->hdr.len, 40u);
    EXPECT_EQ(msg->hdr.app_ver, 9u);
    free(msg);
}

// ---- texts ----------------------------------------------------------------------------------------------

TEST(msg_text, each_reply_status_has_its_text_and_any_other_code_none) {
    EXPECT_STREQ(qel_reply_stat_string(0), "RPC success");
    EXPECT_STREQ(qel_reply_stat_string(1), "QEL version mismatch");
    EXPECT_STREQ(qel_reply_stat_string(2), "application service unavailable");
    EXPECT_STREQ(qel_reply_stat_string(3), "application service version mismatch");
    EXPECT_STREQ(qel_reply_stat_string(4), "systerm error");
    EXPECT_STREQ(qel_reply_stat_string(5), "RPC timeout");
    EXPECT_STREQ(qel_reply_stat_string(6), "");
    EXPECT_STREQ(qel_reply_stat_string(0x80000000), "");
    EXPECT_STREQ(qel_reply_stat_string(0xFFFFFFFF), "");
}

TEST(msg_text, each_message_type_has_its_text_and_any_other_code_none) {
    const char *const texts[] = {
        "processed message num ack", "sync instance",           "sync instance ack",
        "debug switch command",      "application information", "application statistics",
        "application ping",          "application ping echo",   "reload application"};
    for (uint32_t i = 0; i < 9; i++)
        EXPECT_STREQ(qel_msg_type_string(i), texts[i]);
    EXPECT_STREQ(qel_msg_type_string(9), "");
    EXPECT_STREQ(qel_msg_type_string(0xFFFFFFFF), "");
}

TEST(msg_text, each_event_has_its_text_and_any_other_code_none) {
    EXPECT_STREQ(qel_event_type_string(0), "application join");
    EXPECT_STREQ(qel_event_type_string(1), "application quit");
    EXPECT_STREQ(qel_event_type_string(2), "");
    EXPECT_STREQ(qel_event_type_string(0xFFFFFFFF), "");
}

std::string flag_words(uint8_t flags) {
    char guarded[28];
    memset(guarded, 'x', sizeof guarded);
    char *const buf = guarded + 1;
    const char *text = qel_get_msg_flags_str(flags, buf);
    EXPECT_GE(text, buf);
    EXPECT_LT(text, buf + 26);
    EXPECT_EQ(guarded[0], 'x');
    EXPECT_EQ(guarded[27], 'x') << "26 bytes are enough";
    return text;
}

TEST(msg_text, flag_words_stand_in_the_order_of_their_bits) {
    EXPECT_EQ(flag_words(0x00), "none");
    EXPECT_EQ(flag_words(0x01), "SYNC");
    EXPECT_EQ(flag_words(0x02), "REQUEST");
    EXPECT_EQ(flag_words(0x04), "ACK");
    EXPECT_EQ(flag_words(0x06), "REQUEST ACK");
    EXPECT_EQ(flag_words(0x08), "QEL_MNG");
    EXPECT_EQ(flag_words(0x0A), "REQUEST QEL_MNG");
    EXPECT_EQ(flag_words(0x0E), "REQUEST ACK QEL_MNG");
    EXPECT_EQ(flag_words(0x0F), "SYNC REQUEST ACK QEL_MNG");
}

TEST(msg_text, flag_bits_without_a_word_are_ignored_and_alone_give_an_empty_text) {
    EXPECT_EQ(flag_words(0x10), "");
    EXPECT_EQ(flag_words(0xF0), "");
    EXPECT_EQ(flag_words(0xF1), "SYNC");
    EXPECT_EQ(flag_words(0xFF), "SYNC REQUEST ACK QEL_MNG");
}

// ---- dumps ----------------------------------------------------------------------------------------------

struct msg_dump : testing::Test {
    qel_msg *msg = qel_msg_alloc(4, 3, 0);
    ~msg_dump() override { free(msg); }
};

TEST_F(msg_dump, the_header_dump_has_its_six_lines) {
    qel_encode_msg_hdr(msg, 0x06, 5, 1, 7, 2, 99, 3);
    msg->hdr.qos = 200;
    qel_set_masks(0x1, 0);
    qel_capture out;
    qel_dump_msg_hdr_info(msg);
    EXPECT_EQ(out.raw(), "===== QEL message header information =====\n"
                         "QEL version 1, flag: REQUEST ACK, qos 200\n"
                         "message length 40, app version 3\n"
                         "src app/node 5/1, dst app/node 7/2\n"
                         "seq 99, RPC status application service version mismatch\n"
                         "==========================================\n");
}

TEST_F(msg_dump, the_header_dump_shows_fields_as_signed_and_unknown_codes_as_nothing) {
    qel_encode_msg_hdr(msg, 0x10, 0xFFFFFFFF, 1, 7, 0x80000000, 0xFFFFFFFE, 6);
    qel_set_masks(0x1, 0);
    qel_capture out;
    qel_dump_msg_hdr_info(msg);
    EXPECT_EQ(out.raw(), "===== QEL message header information =====\n"
                         "QEL version 1, flag: , qos 0\n"
                         "message length 40, app version 3\n"
                         "src app/node -1/1, dst app/node 7/-2147483648\n"
                         "seq -2, RPC status \n"
                         "==========================================\n");
}

TEST_F(msg_dump, the_header_dump_needs_the_verbose_bit_of_the_debug_mask_and_no_other) {
    qel_capture out;
    for (const uint32_t debug : {0x0u, 0x2u, 0x4u, 0x8u, 0xEu}) {
        qel_set_masks(debug, 0xF);
        qel_dump_msg_hdr_info(msg);
    }
    EXPECT_EQ(out.raw(), "");
}

TEST_F(msg_dump, the_raw_dump_needs_the_error_bit_of_the_debug_mask_and_no_other) {
    qel_capture out;
    for (const uint32_t debug : {0x0u, 0x1u, 0x2u, 0x4u, 0x7u}) {
        qel_set_masks(debug, 0xF);
        qel_dump_msg_raw("abc", 3);
    }
    EXPECT_EQ(out.raw(), "");
}

TEST_F(msg_dump, the_raw_dump_has_sixteen_bytes_a_line) {
    unsigned char bytes[18];
    for (size_t i = 0; i < sizeof bytes; i++)
        bytes[i] = static_cast<unsigned char>(i * 17);
    qel_set_masks(0x8, 0);
    qel_capture out;
    qel_dump_msg_raw(bytes, 18);
    EXPECT_EQ(out.raw(), "=== QEL message raw data len 18 ===\n"
                         " 00 11 22 33 44 55 66 77 88 99 aa bb cc dd ee ff\n"
                         " 10 21\n");
}

TEST_F(msg_dump, the_raw_dump_of_a_multiple_of_sixteen_ends_in_an_empty_line) {
    const unsigned char bytes[16] = {};
    qel_set_masks(0x8, 0);
    qel_capture out;
    qel_dump_msg_raw(bytes, 16);
    EXPECT_EQ(out.raw(), "=== QEL message raw data len 16 ===\n"
                         " 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00\n"
                         "\n");
}

TEST_F(msg_dump, the_raw_dump_of_nothing_is_its_title_and_an_empty_line) {
    qel_set_masks(0x8, 0);
    qel_capture out;
    qel_dump_msg_raw(nullptr, 0);
    EXPECT_EQ(out.raw(), "=== QEL message raw data len 0 ===\n\n");
}

TEST_F(msg_dump, the_raw_dump_of_a_negative_length_reads_nothing) {
    qel_set_masks(0x8, 0);
    qel_capture out;
    qel_dump_msg_raw(nullptr, -5);
    EXPECT_EQ(out.raw(), "=== QEL message raw data len -5 ===\n\n");
}

} // namespace
