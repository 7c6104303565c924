#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "qel_capture.h"
#include "qel_dbg.h"
#define QEL_LOG_SRC "test_src"
#include "qel_log.h"

namespace {

std::string status_line(const char *words) {
    return qel_line("qel_dbg", V, "QEL process %d current debug status: %s.\n", getpid(), words);
}

// ---- levels ---------------------------------------------------------------------------------------------

TEST(dbg_level, each_level_has_its_bit_and_4_has_all) {
    EXPECT_EQ(qel_dbg_get_level_value(0), 1u);
    EXPECT_EQ(qel_dbg_get_level_value(1), 2u);
    EXPECT_EQ(qel_dbg_get_level_value(2), 4u);
    EXPECT_EQ(qel_dbg_get_level_value(3), 8u);
    EXPECT_EQ(qel_dbg_get_level_value(4), 15u);
    EXPECT_EQ(qel_dbg_get_level_value(5), 32u);
    EXPECT_EQ(qel_dbg_get_level_value(31), 0x80000000u);
}

TEST(dbg_level, a_level_beyond_the_mask_has_no_bit) {
    EXPECT_EQ(qel_dbg_get_level_value(32), 0u);
    EXPECT_EQ(qel_dbg_get_level_value(33), 0u);
    EXPECT_EQ(qel_dbg_get_level_value(UINT32_MAX), 0u);
}

TEST(dbg_level, both_masks_are_0_at_start) {
    EXPECT_EQ(g_qel_dbg_level.load(), 0u);
    EXPECT_EQ(g_qel_log_level.load(), 0u);
}

TEST(dbg_update, level_4_switches_all_and_others_their_bit) {
    qel_set_masks(0, 0);
    qel_dbg_update_level(1, 4);
    EXPECT_EQ(g_qel_dbg_level.load(), 15u);
    qel_dbg_update_level(0, 2);
    EXPECT_EQ(g_qel_dbg_level.load(), 11u);
    qel_dbg_update_level(0, 4);
    EXPECT_EQ(g_qel_dbg_level.load(), 0u);
    for (uint32_t level = 0; level < 4; level++) {
        qel_dbg_update_level(1, level);
        EXPECT_EQ(g_qel_dbg_level.load(), (2u << level) - 1);
    }
}

TEST(dbg_update, any_non_zero_switch_is_on) {
    qel_set_masks(0, 0);
    qel_dbg_update_level(0x80, 3);
    EXPECT_EQ(g_qel_dbg_level.load(), 8u);
    qel_dbg_update_level(255, 3);
    EXPECT_EQ(g_qel_dbg_level.load(), 8u);
}

TEST(dbg_update, level_5_and_above_change_nothing_and_say_nothing) {
    qel_set_masks(0x5, 0);
    qel_capture out;
    for (const uint32_t level : {5u, 6u, 31u, 32u, UINT32_MAX}) {
        qel_dbg_update_level(1, level);
        qel_dbg_update_level(0, level);
        EXPECT_EQ(g_qel_dbg_level.load(), 5u) << level;
    }
    EXPECT_EQ(out.raw(), "");
}

TEST(dbg_update, the_new_status_is_told_when_verbose_is_on_afterwards) {
    qel_set_masks(0, 0);
    qel_capture out;
    qel_dbg_update_level(1, 2);
    EXPECT_EQ(out.take(), "") << "verbose is off";
    qel_dbg_update_level(1, 0);
    EXPECT_EQ(out.take(), status_line("verbose warn"));
    qel_dbg_update_level(1, 4);
    EXPECT_EQ(out.take(), status_line("verbose info warn error"));
    qel_dbg_update_level(0, 3);
    EXPECT_EQ(out.take(), status_line("verbose info warn"));
    qel_dbg_update_level(0, 0);
    EXPECT_EQ(out.take(), "") << "verbose is off now";
    qel_dbg_update_level(0, 4);
    EXPECT_EQ(out.take(), "");
}

TEST(dbg_update, the_log_mask_never_changes) {
    qel_set_masks(0, 0x6);
    qel_dbg_update_level(1, 4);
    qel_dbg_update_level(0, 4);
    EXPECT_EQ(g_qel_log_level.load(), 6u);
}

TEST(dbg_update, switches_of_several_threads_do_not_undo_each_other) {
    qel_set_masks(0, 0);
    std::vector<std::thread> threads;
    for (uint32_t level = 0; level < 4; level++)
        threads.emplace_back([level] {
            for (int i = 0; i < 1000; i++) {
                qel_dbg_update_level(0, level);
                qel_dbg_update_level(1, level);
                if (!(g_qel_dbg_level.load() >> level & 1))
                    abort();
                qel_dbg_update_level(level == 0 ? 0 : 1, level);
            }
        });
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(g_qel_dbg_level.load(), 0xEu);
}

// ---- status words ---------------------------------------------------------------------------------------

std::string words(uint32_t mask) {
    char guarded[26];
    memset(guarded, 'x', sizeof guarded);
    char *const buf = guarded + 1;
    const char *text = qel_get_dbg_status_str(mask, buf);
    EXPECT_GE(text, buf);
    EXPECT_LT(text, buf + 24);
    EXPECT_EQ(guarded[0], 'x');
    EXPECT_EQ(guarded[25], 'x') << "24 bytes are enough";
    return text;
}

TEST(dbg_status, a_mask_of_0_is_none_whatever_the_own_mask) {
    for (const uint32_t own : {0u, 15u}) {
        qel_set_masks(own, 0);
        EXPECT_EQ(words(0), "none");
    }
}

TEST(dbg_status, the_words_are_those_of_the_own_mask_in_bit_order) {
    const struct {
        uint32_t own;
        const char *text;
    } rows[] = {{1, "verbose"},
                {2, "info"},
                {4, "warn"},
                {8, "error"},
                {12, "warn error"},
                {5, "verbose warn"},
                {15, "verbose info warn error"}};
    for (const auto &row : rows) {
        qel_set_masks(row.own, 0);
        for (const uint32_t mask : {1u, 8u, 15u, 0x100u, UINT32_MAX})
            EXPECT_EQ(words(mask), row.text) << mask << ": only tested for 0";
    }
}

TEST(dbg_status, an_empty_own_mask_gives_an_empty_text) {
    qel_set_masks(0, 0);
    EXPECT_EQ(words(15), "");
}

TEST(dbg_tipc, each_error_code_has_its_text) {
    EXPECT_STREQ(qel_tipc_err_string(1), "TIPC no name");
    EXPECT_STREQ(qel_tipc_err_string(2), "TIPC no port");
    EXPECT_STREQ(qel_tipc_err_string(3), "TIPC no node");
    EXPECT_STREQ(qel_tipc_err_string(4), "TIPC overload");
    for (const uint32_t code : {0u, 5u, 100u, UINT32_MAX})
        EXPECT_STREQ(qel_tipc_err_string(code), "TIPC unknown") << code;
}

// ---- the log line ---------------------------------------------------------------------------------------

TEST(log_line, has_file_line_and_level_in_front) {
    qel_set_masks(0xF, 0);
    qel_capture out;
    const int line = __LINE__ + 1;
    QEL_ERROR("QEL app %d.\n", 5);
    QEL_WARN("warn.\n");
    QEL_INFO("info.\n");
    QEL_VERBOSE("verbose.\n");
    EXPECT_EQ(out.raw(), qel_format("<test_src, %d> 3: QEL app 5.\n"
                                    "<test_src, %d> 2: warn.\n"
                                    "<test_src, %d> 1: info.\n"
                                    "<test_src, %d> 0: verbose.\n",
                                    line, line + 1, line + 2, line + 3));
}

TEST(log_line, is_printed_exactly_when_the_debug_mask_has_its_level) {
    qel_capture out;
    for (uint32_t mask = 0; mask < 16; mask++) {
        qel_set_masks(mask, 0);
        QEL_VERBOSE("0\n");
        QEL_INFO("1\n");
        QEL_WARN("2\n");
        QEL_ERROR("3\n");
        std::string expected;
        for (int level = 0; level < 4; level++)
            if (mask >> level & 1)
                expected += qel_line("test_src", level, "%d\n", level);
        EXPECT_EQ(out.take(), expected) << mask;
    }
}

TEST(log_line, is_not_even_formatted_when_no_mask_has_its_level) {
    qel_set_masks(0x8, 0x4);
    qel_capture out;
    int formatted = 0;
    QEL_VERBOSE("%d\n", ++formatted);
    QEL_INFO("%d\n", ++formatted);
    EXPECT_EQ(formatted, 0);
    QEL_WARN("%d\n", ++formatted); // for the file, which is not open
    EXPECT_EQ(formatted, 1);
    QEL_ERROR("%d\n", ++formatted);
    EXPECT_EQ(formatted, 2);
    EXPECT_EQ(out.text(), qel_line("test_src", X, "2\n"));
}

TEST(log_line, is_cut_at_511_characters_and_loses_its_newline) {
    qel_set_masks(0xF, 0);
    const std::string text(600, 'a');
    qel_capture out;
    QEL_INFO("%s\n", text.c_str());
    const std::string printed = out.raw();
    EXPECT_EQ(printed.size(), 511u);
    EXPECT_EQ(printed.back(), 'a');
}

TEST(log_line, of_511_characters_with_its_newline_is_whole) {
    qel_set_masks(0xF, 0);
    const std::string prefix = qel_format("<test_src, %d> 1: ", __LINE__ + 3);
    const std::string text(511 - prefix.size() - 1, 'b');
    qel_capture out;
    QEL_INFO("%s\n", text.c_str());
    EXPECT_EQ(out.raw(), prefix + text + "\n");
}

} // namespace
