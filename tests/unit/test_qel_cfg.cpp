#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

#include "qel_capture.h"
#include "qel_cfg.h"
#include "qel_dm.h"
#include "qel_log.h"
#include "qel_node.h"

namespace fs = std::filesystem;

namespace {

struct cfg : qel_node {
    qel_capture out;
    cfg() { qel_set_masks(0xF, 0); }

    std::string no_file() const {
        return qel_line("qel_cfg", X, "QEL open config file %s failed: No such file or directory.\n",
                        conf_path.c_str());
    }
    static std::string no_section(const char *name) {
        return qel_line("qel_cfg", W, "QEL can't locate section %s.\n", name);
    }
    static std::string value_line(const char *key, const char *value) {
        return qel_line("qel_cfg", V, "QEL get config '%s' value [%s].\n", key, value);
    }
    static std::string failed(const char *key) {
        return qel_line("qel_cfg", W, "QEL get config '%s' failed.\n", key);
    }
};

// ---- trimming -------------------------------------------------------------------------------------------

std::string trim(const std::string &text) {
    std::string copy = text;
    return qel_trim_space(copy.data());
}

TEST(cfg_trim, white_space_goes_at_both_ends_and_stays_inside) {
    EXPECT_EQ(trim(" \t\v\f\r\n a  b \t\r\n"), "a  b");
    EXPECT_EQ(trim("a"), "a");
    EXPECT_EQ(trim("a b"), "a b");
    EXPECT_EQ(trim("a\n"), "a");
    EXPECT_EQ(trim(" a"), "a");
}

TEST(cfg_trim, an_all_blank_text_keeps_its_blanks) {
    for (const char *text : {"", " ", "\n", " \t\n", "   \r\n"}) {
        char copy[8];
        snprintf(copy, sizeof copy, "%s", text);
        EXPECT_EQ(qel_trim_space(copy), copy);
        EXPECT_STREQ(copy, text);
    }
}

TEST(cfg_trim, bytes_above_127_are_no_white_space_and_no_trouble) {
    EXPECT_EQ(trim(" \xA0\xFF\x85 "), "\xA0\xFF\x85");
}

// ---- sections -------------------------------------------------------------------------------------------

int locate(const std::string &text, const char *name, std::string *next_line = nullptr) {
    std::string copy = text;
    FILE *file = copy.empty() ? fopen("/dev/null", "r") : fmemopen(copy.data(), copy.size(), "r");
    const int found = qel_locate_section(name, file);
    char line[256];
    if (next_line)
        *next_line = fgets(line, sizeof line, file) ? line : "";
    fclose(file);
    return found;
}

TEST(cfg_section, is_found_by_its_trimmed_line_and_reading_goes_on_behind_it) {
    std::string next;
    EXPECT_EQ(locate("x=1\n[A]\n  [B] \t\r\ny=2\n", "[B]", &next), 1);
    EXPECT_EQ(next, "y=2\n");
    EXPECT_EQ(locate("[B]", "[B]"), 1) << "the last line needs no newline";
}

TEST(cfg_section, must_be_the_whole_line) {
    EXPECT_EQ(locate("[B]x\n [B] x\n[Bb]\n#[B]\n# [B]\n[b]\n", "[B]"), 0);
    EXPECT_EQ(locate("", "[B]"), 0);
}

TEST(cfg_section, a_comment_that_is_the_name_is_skipped) { EXPECT_EQ(locate("#x\n", "#x"), 0); }

// ---- [MISC_CONF] ----------------------------------------------------------------------------------------

TEST_F(cfg, a_value_is_the_text_behind_the_first_equals_sign) {
    set_conf("[MISC_CONF]\nkey= a=b \nother=1\n");
    char value[16];
    EXPECT_EQ(qel_get_misc_cfg("key", value), 0);
    EXPECT_STREQ(value, " a=b");
    EXPECT_EQ(out.text(), value_line("key", " a=b"));
}

TEST_F(cfg, a_value_is_cut_to_15_characters_and_its_buffer_cleared_first) {
    set_conf("[MISC_CONF]\nkey=0123456789abcdefgh\nshort=x\n");
    char value[16];
    memset(value, 'q', sizeof value);
    EXPECT_EQ(qel_get_misc_cfg("key", value), 0);
    EXPECT_STREQ(value, "0123456789abcde");
    EXPECT_EQ(out.text(), value_line("key", "0123456789abcde"));
    EXPECT_EQ(qel_get_misc_cfg("short", value), 0);
    for (size_t i = 1; i < sizeof value; i++)
        EXPECT_EQ(value[i], '\0');
    memset(value, 'q', sizeof value);
    EXPECT_EQ(qel_get_misc_cfg("none", value), -1);
    EXPECT_STREQ(value, "");
}

TEST_F(cfg, a_missing_file_is_an_error_line) {
    remove_conf();
    char value[16];
    EXPECT_EQ(qel_get_misc_cfg("key", value), -1);
    EXPECT_EQ(out.text(), no_file());
}

TEST_F(cfg, a_missing_section_is_a_warning) {
    set_conf("key=1\n");
    char value[16];
    EXPECT_EQ(qel_get_misc_cfg("key", value), -1);
    EXPECT_EQ(out.text(), no_section("[MISC_CONF]"));
}

TEST_F(cfg, an_absent_key_is_a_warning) {
    set_conf("key=0\n[MISC_CONF]\nother=1\n");
    char value[16];
    EXPECT_EQ(qel_get_misc_cfg("key", value), -1);
    EXPECT_EQ(out.text(), failed("key"));
}

TEST_F(cfg, the_next_section_ends_the_search) {
    set_conf("[MISC_CONF]\nother=1\n [APP_INFO_TBL]\nkey=1\n[MISC_CONF]\nkey=2\n");
    char value[16];
    EXPECT_EQ(qel_get_misc_cfg("key", value), -1);
    EXPECT_EQ(out.text(), failed("key"));
}

TEST_F(cfg, comments_and_blank_lines_are_silent_in_the_misc_section) {
    set_conf("[MISC_CONF]\n#key=1\n   # key=2\n\n   \t\nkey=3\n");
    char value[16];
    EXPECT_EQ(qel_get_misc_cfg("key", value), 0);
    EXPECT_EQ(out.text(), value_line("key", "3"));
}

TEST_F(cfg, a_line_with_the_key_but_without_equals_sign_is_told_and_passed) {
    set_conf("[MISC_CONF]\n  key 5  \nkey=6\n");
    char value[16];
    EXPECT_EQ(qel_get_misc_cfg("key", value), 0);
    EXPECT_EQ(out.text(),
              qel_line("qel_cfg", V, "QEL get invalid config item: key 5.\n") + value_line("key", "6"));
}

TEST_F(cfg, a_longer_key_that_begins_alike_is_taken_for_the_key) {
    set_conf("[MISC_CONF]\nqel_log_cfg_old=3\nqel_log_cfg=1\n");
    EXPECT_EQ(qel_get_log_cfg(), 3);
}

TEST_F(cfg, blanks_around_the_equals_sign_are_accepted) {
    set_conf("[MISC_CONF]\n  qel_dbg_cfg  =  0x3  \n");
    EXPECT_EQ(qel_get_dbg_cfg(), 3);
    EXPECT_EQ(out.text(),
              value_line("qel_dbg_cfg", "  0x3") + qel_line("qel_cfg", V, "QEL get debug config 0x3.\n"));
}

TEST_F(cfg, masks_are_numbers_in_the_base_of_their_prefix) {
    const struct {
        const char *text;
        int32_t number;
    } rows[] = {{"0x1f", 0x1f},
                {"010", 8},
                {"12", 12},
                {"0", 0},
                {"-1", -1},
                {"+7", 7},
                {"7x", 7},
                {"xyz", 0},
                {"", 0},
                {"99999999999", INT32_MAX},
                {"-99999999999", INT32_MIN},
                {"0xFFFFFFFFFF", INT32_MAX}};
    for (const auto &row : rows) {
        set_conf("[MISC_CONF]\nqel_dbg_cfg=" + std::string(row.text) + "\nqel_log_cfg=" + row.text + "\n");
        EXPECT_EQ(qel_get_dbg_cfg(), row.number) << row.text;
        EXPECT_EQ(qel_get_log_cfg(), row.number) << row.text;
    }
}

TEST_F(cfg, an_absent_mask_is_0_and_its_line_says_so) {
    set_conf("[MISC_CONF]\n");
    EXPECT_EQ(qel_get_log_cfg(), 0);
    EXPECT_EQ(out.take(), failed("qel_log_cfg") + qel_line("qel_cfg", V, "QEL get log config 0x0.\n"));
    remove_conf();
    EXPECT_EQ(qel_get_dbg_cfg(), 0);
    EXPECT_EQ(out.take(), no_file() + qel_line("qel_cfg", V, "QEL get debug config 0x0.\n"));
}

TEST_F(cfg, only_a_trimmed_true_enables_the_blocked_resume) {
    const struct {
        const char *value;
        int enabled;
    } rows[] = {{"true", 1}, {"  true \t", 1}, {"TRUE", 0}, {"true1", 0}, {"1", 0},
                {"", 0},     {"yes", 0},       {"tru", 0},  {"false", 0}, {"true # on", 0}};
    for (const auto &row : rows) {
        set_conf("[MISC_CONF]\nqel_blocked_resume_enabled=" + std::string(row.value) + "\n");
        out.take();
        EXPECT_EQ(qel_cfg_get_blocked_resume_enabled(), row.enabled) << row.value;
        EXPECT_NE(out.take().find(qel_line("qel_cfg", V, "QEL get blocked resume enabled: %s.\n",
                                           row.enabled ? "true" : "false")),
                  std::string::npos);
    }
    remove_conf();
    EXPECT_EQ(qel_cfg_get_blocked_resume_enabled(), 0);
}

TEST_F(cfg, the_blocked_resume_switch_is_read_at_each_request) {
    set_conf("[MISC_CONF]\nqel_blocked_resume_enabled=true\n");
    EXPECT_EQ(qel_cfg_get_blocked_resume_enabled(), 1);
    set_conf("[MISC_CONF]\nqel_blocked_resume_enabled=false\n");
    EXPECT_EQ(qel_cfg_get_blocked_resume_enabled(), 0);
}

TEST_F(cfg, a_line_of_128_characters_and_more_is_read_in_pieces) {
    // the piece that begins at character 127 is judged alone
    set_conf("[MISC_CONF]\n" + std::string(127, 'x') + "qel_dbg_cfg=9\n");
    EXPECT_EQ(qel_get_dbg_cfg(), 9);
    set_conf("[MISC_CONF]\n" + std::string(126, 'x') + "qel_dbg_cfg=9\n");
    EXPECT_EQ(qel_get_dbg_cfg(), 0);
    set_conf("[MISC_CONF]\n#" + std::string(126, 'x') + "qel_dbg_cfg=9\n");
    EXPECT_EQ(qel_get_dbg_cfg(), 9) << "the second piece is no comment";
}

TEST_F(cfg, a_file_without_final_newline_and_with_carriage_returns_is_fine) {
    set_conf("[MISC_CONF]\r\nqel_dbg_cfg=6\r\nqel_log_cfg=5");
    EXPECT_EQ(qel_get_dbg_cfg(), 6);
    EXPECT_EQ(qel_get_log_cfg(), 5);
}

TEST_F(cfg, a_text_ends_at_its_nul_byte) {
    set_conf(std::string("[MISC_CONF]\nqel_dbg_cfg=1\0002\n", 27));
    EXPECT_EQ(qel_get_dbg_cfg(), 1);
}

TEST_F(cfg, a_directory_or_a_pipe_in_the_files_place_has_no_sections_and_stops_nobody) {
    remove_conf();
    fs::create_directories(conf_path);
    char value[16];
    EXPECT_EQ(qel_get_misc_cfg("key", value), -1);
    EXPECT_EQ(out.take(), no_section("[MISC_CONF]"));
    fs::remove(conf_path);
    ASSERT_EQ(mkfifo(conf_path.c_str(), 0600), 0);
    EXPECT_EQ(qel_get_misc_cfg("key", value), -1);
    EXPECT_EQ(out.take(), no_section("[MISC_CONF]"));
}

size_t open_descriptors() {
    size_t count = 0;
    for ([[maybe_unused]] const auto &entry : fs::directory_iterator("/proc/self/fd"))
        count++;
    return count;
}

TEST_F(cfg, every_way_out_closes_the_file) {
    const size_t before = open_descriptors();
    char value[16];
    qel_app_mc_cfg record;
    for (const char *text : {"", "[MISC_CONF]\nkey=1\n", "[MISC_CONF]\n", "[APP_INFO_TBL]\n1,a,2,b\n",
                             "[APP_MCAST_TBL]\n3001,a,1\n", "[APP_MCAST_TBL]\n"}) {
        set_conf(text);
        (void)qel_get_misc_cfg("key", value);
        (void)qel_get_app_priority(1);
        (void)qel_get_app_mc_cfg(0x3001, &record);
        (void)qel_get_my_node_id();
        EXPECT_EQ(open_descriptors(), before) << text;
    }
}

// ---- priorities -----------------------------------------------------------------------------------------

struct cfg_priority : cfg {
    static std::string ok(int id, const char *name, int priority, const char *developer,
                          const char *comment) {
        return qel_line("qel_cfg", V,
                        "QEL get app config OK: id [%d] name [%s] priority [%d] developer [%s] comment "
                        "[%s].\n",
                        id, name, priority, developer, comment);
    }
    static std::string last(int id, int priority) {
        return qel_line("qel_cfg", V, "QEL get app %d config priority %d.\n", id, priority);
    }
    static std::string invalid(const char *item) {
        return qel_line("qel_cfg", W, "QEL get invalid config item: %s.\n", item);
    }
};

TEST_F(cfg_priority, four_fields_make_a_valid_line) {
    set_conf("[APP_INFO_TBL]\n12 , app12 , 2 , team\n");
    EXPECT_EQ(qel_get_app_priority(12), 2);
    EXPECT_EQ(out.text(), ok(12, "app12", 2, "team", "") + last(12, 2));
}

TEST_F(cfg_priority, five_fields_with_and_without_blanks_are_kept_trimmed) {
    set_conf("[APP_INFO_TBL]\n12,app12,3,team,a comment, with a comma\n13 ,  x  ,\t1 , y ,  z  \n");
    EXPECT_EQ(qel_get_app_priority(12), 3);
    EXPECT_EQ(out.take(), ok(12, "app12", 3, "team", "a comment, with a comma") + last(12, 3));
    EXPECT_EQ(qel_get_app_priority(13), 1);
    EXPECT_EQ(out.take(), ok(13, "x", 1, "y", "z") + last(13, 1));
}

TEST_F(cfg_priority, fewer_fields_are_warned_about_and_passed) {
    set_conf(
        "[APP_INFO_TBL]\n12, app12, 2\n12, app12\n12\nnonsense\n12,,2,team\n12, a, x, team\n12, a, 1, t\n");
    EXPECT_EQ(qel_get_app_priority(12), 1);
    EXPECT_EQ(out.text(), invalid("12, app12, 2") + invalid("12, app12") + invalid("12") +
                              invalid("nonsense") + invalid("12,,2,team") + invalid("12, a, x, team") +
                              ok(12, "a", 1, "t", "") + last(12, 1));
}

TEST_F(cfg_priority, the_first_line_of_an_application_wins) {
    set_conf("[APP_INFO_TBL]\n11,a,1,t\n12,b,2,t\n12,c,3,t\n");
    EXPECT_EQ(qel_get_app_priority(12), 2);
}

TEST_F(cfg_priority, an_application_that_is_not_there_has_0_and_an_error_line) {
    set_conf("[APP_INFO_TBL]\n11,a,1,t\n");
    EXPECT_EQ(qel_get_app_priority(12), 0);
    EXPECT_EQ(out.text(), qel_line("qel_cfg", X, "QEL get app 12 config failed.\n") + last(12, 0));
}

TEST_F(cfg_priority, the_next_section_ends_the_table) {
    set_conf("[APP_INFO_TBL]\n11,a,1,t\n[APP_MCAST_TBL]\n12,b,2,t\n");
    EXPECT_EQ(qel_get_app_priority(12), 0);
}

TEST_F(cfg_priority, without_file_or_section_the_last_line_is_logged_all_the_same_and_only_that) {
    remove_conf();
    EXPECT_EQ(qel_get_app_priority(12), 0);
    EXPECT_EQ(out.take(), no_file() + last(12, 0));
    set_conf("[MISC_CONF]\n");
    EXPECT_EQ(qel_get_app_priority(12), 0);
    EXPECT_EQ(out.take(), no_section("[APP_INFO_TBL]") + last(12, 0));
}

TEST_F(cfg_priority, a_blank_line_in_the_table_is_warned_about_with_its_blanks) {
    set_conf("[APP_INFO_TBL]\n# a comment\n  \t\n\n12,a,1,t\n");
    EXPECT_EQ(qel_get_app_priority(12), 1);
    EXPECT_EQ(out.text(), invalid("  \t\n") + invalid("\n") + ok(12, "a", 1, "t", "") + last(12, 1));
}

TEST_F(cfg_priority, texts_are_trimmed_first_and_cut_to_31_characters_then) {
    const std::string a(31, 'a'), b(32, 'b'), c(40, 'c');
    set_conf("[APP_INFO_TBL]\n12,  " + a + "  , 1 , " + b + " , " + c + "\n");
    EXPECT_EQ(qel_get_app_priority(12), 1);
    EXPECT_EQ(out.text(),
              ok(12, a.c_str(), 1, b.substr(0, 31).c_str(), c.substr(0, 31).c_str()) + last(12, 1));
}

TEST_F(cfg_priority, a_field_that_fills_the_line_does_no_harm) {
    set_conf("[APP_INFO_TBL]\n1," + std::string(130, 'n') + ",1,t\n12,a,1," + std::string(300, 'd') +
             "\n12,a,2,t\n");
    EXPECT_EQ(qel_get_app_priority(12), 1);
    EXPECT_EQ(qel_get_app_priority(1), 0) << "cut in pieces: no valid line";
}

TEST_F(cfg_priority, numbers_beyond_int_are_saturated) {
    set_conf("[APP_INFO_TBL]\n12,a,99999999999999999999,t\n13,a,-99999999999,t\n99999999999,max,3,t\n");
    EXPECT_EQ(qel_get_app_priority(12), INT32_MAX);
    EXPECT_EQ(qel_get_app_priority(13), INT32_MIN);
    EXPECT_EQ(qel_get_app_priority(INT32_MAX), 3);
}

TEST_F(cfg_priority, identifiers_are_decimal) {
    set_conf("[APP_INFO_TBL]\n012,a,1,t\n0x0C,b,2,t\n");
    EXPECT_EQ(qel_get_app_priority(12), 1) << "a leading 0 means nothing";
}

TEST_F(cfg_priority, the_file_is_read_at_each_request) {
    set_conf("[APP_INFO_TBL]\n12,a,1,t\n");
    EXPECT_EQ(qel_get_app_priority(12), 1);
    set_conf("[APP_INFO_TBL]\n12,a,2,t\n");
    EXPECT_EQ(qel_get_app_priority(12), 2);
}

// ---- multicast groups -----------------------------------------------------------------------------------

std::vector<uint32_t> members_of(const char *text) {
    uint32_t members[16];
    memset(members, 0xFF, sizeof members);
    const uint32_t count = qel_parse_mc_members(text, members);
    for (uint32_t i = count; i < 16; i++)
        EXPECT_EQ(members[i], 0u) << "beyond the count";
    return {members, members + count};
}

TEST(cfg_members, are_numbers_in_the_base_of_their_prefix_between_anything_else) {
    EXPECT_EQ(members_of("3 5,0x10;010"), (std::vector<uint32_t>{3, 5, 16, 8}));
    EXPECT_EQ(members_of("a3b5-7+9.11"), (std::vector<uint32_t>{3, 5, 7, 9, 11}));
    EXPECT_EQ(members_of(""), std::vector<uint32_t>{});
    EXPECT_EQ(members_of(" ;: "), std::vector<uint32_t>{});
}

TEST(cfg_members, an_8_behind_a_leading_0_is_a_number_of_its_own) {
    EXPECT_EQ(members_of("08"), (std::vector<uint32_t>{0, 8}));
    EXPECT_EQ(members_of("0x"), (std::vector<uint32_t>{0}));
    EXPECT_EQ(members_of("0xg1"), (std::vector<uint32_t>{0, 1}));
}

TEST(cfg_members, zeros_count) { EXPECT_EQ(members_of("0 1 0"), (std::vector<uint32_t>{0, 1, 0})); }

TEST(cfg_members, the_first_16_of_20_are_kept) {
    std::string text;
    std::vector<uint32_t> expected;
    for (uint32_t i = 1; i <= 20; i++) {
        text += std::to_string(i) + " ";
        if (i <= 16)
            expected.push_back(i);
    }
    EXPECT_EQ(members_of(text.c_str()), expected);
}

TEST(cfg_members, numbers_beyond_int_are_saturated) {
    EXPECT_EQ(members_of("99999999999999999999 4294967295 5"),
              (std::vector<uint32_t>{0x7FFFFFFF, 0x7FFFFFFF, 5}));
}

struct cfg_mc : cfg {
    qel_app_mc_cfg record{};
    static std::string ok(unsigned id, const char *name, const char *members, const char *comment) {
        return qel_line("qel_cfg", V,
                        "QEL get app multi-cast config OK: id [0x%08x] name [%s] members [%s] comment "
                        "[%s].\n",
                        id, name, members, comment);
    }
    static std::string missing(unsigned id) {
        return qel_line("qel_cfg", X, "QEL get app multi-cast 0x%08x config failed.\n", id);
    }
    static std::string invalid(const char *item) {
        return qel_line("qel_cfg", W, "QEL get invalid config item: %s.\n", item);
    }
    std::vector<uint32_t> members() const { return {record.members, record.members + record.member_count}; }
};

TEST_F(cfg_mc, a_group_has_its_name_members_and_comment) {
    set_conf("[APP_MCAST_TBL]\n3001 ,  group one , 3 5;0x10;010 , all of them, really\n");
    memset(&record, 0xFF, sizeof record);
    EXPECT_EQ(qel_get_app_mc_cfg(0x3001, &record), 0);
    EXPECT_EQ(record.id, 0x3001u);
    EXPECT_STREQ(record.name, "group one");
    EXPECT_STREQ(record.comment, "all of them, really");
    EXPECT_EQ(members(), (std::vector<uint32_t>{3, 5, 16, 8}));
    for (uint32_t i = 4; i < 16; i++)
        EXPECT_EQ(record.members[i], 0u);
    EXPECT_EQ(out.text(), ok(0x3001, "group one", "3 5 16 8 ", "all of them, really"));
}

TEST_F(cfg_mc, a_comma_ends_the_members_and_the_rest_is_the_comment) {
    set_conf("[APP_MCAST_TBL]\n3001,g,3 5,0x10;010\n");
    EXPECT_EQ(qel_get_app_mc_cfg(0x3001, &record), 0);
    EXPECT_EQ(members(), (std::vector<uint32_t>{3, 5}));
    EXPECT_STREQ(record.comment, "0x10;010");
}

TEST_F(cfg_mc, three_fields_make_a_valid_line_and_fewer_are_warned_about) {
    set_conf("[APP_MCAST_TBL]\n3001,g\n3001\nxyz\n\n3001,g,7\n");
    EXPECT_EQ(qel_get_app_mc_cfg(0x3001, &record), 0);
    EXPECT_EQ(out.text(), invalid("3001,g") + invalid("3001") + invalid("xyz") + invalid("\n") +
                              ok(0x3001, "g", "7 ", ""));
}

TEST_F(cfg_mc, group_identifiers_are_hexadecimal_with_or_without_prefix) {
    set_conf("[APP_MCAST_TBL]\n0x3002,a,1\n3FFF,b,2\nffffffff,c,3\n");
    EXPECT_EQ(qel_get_app_mc_cfg(0x3002, &record), 0);
    EXPECT_EQ(qel_get_app_mc_cfg(0x3FFF, &record), 0);
    EXPECT_EQ(qel_get_app_mc_cfg(0xFFFFFFFF, &record), 0);
}

TEST_F(cfg_mc, the_first_line_of_a_group_wins_and_the_next_section_ends_the_table) {
    set_conf("[APP_MCAST_TBL]\n3001,a,1\n3001,b,2\n[MISC_CONF]\n3002,c,3\n");
    EXPECT_EQ(qel_get_app_mc_cfg(0x3001, &record), 0);
    EXPECT_STREQ(record.name, "a");
    out.take();
    EXPECT_EQ(qel_get_app_mc_cfg(0x3002, &record), -1);
    EXPECT_EQ(out.take(), missing(0x3002));
}

TEST_F(cfg_mc, without_file_or_section_a_group_is_unknown) {
    remove_conf();
    EXPECT_EQ(qel_get_app_mc_cfg(0x3001, &record), -1);
    EXPECT_EQ(out.take(), no_file());
    set_conf("[MISC_CONF]\n");
    EXPECT_EQ(qel_get_app_mc_cfg(0x3001, &record), -1);
    EXPECT_EQ(out.take(), no_section("[APP_MCAST_TBL]"));
}

TEST_F(cfg_mc, sixteen_of_twenty_members_are_kept_and_printed) {
    set_conf("[APP_MCAST_TBL]\n3001,g,1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20\n");
    EXPECT_EQ(qel_get_app_mc_cfg(0x3001, &record), 0);
    EXPECT_EQ(record.member_count, 16u);
    EXPECT_EQ(out.text(), ok(0x3001, "g", "1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 ", ""));
}

TEST_F(cfg_mc, sixteen_of_the_longest_members_are_printed_whole) {
    // 127 characters take 11 of these; base prefixes make short texts of long numbers
    std::string text = "[APP_MCAST_TBL]\n3001,g,";
    std::string printed;
    for (int i = 0; i < 11; i++) {
        text += "0x7FFFFFFF";
        text += i < 10 ? " " : "\n";
        printed += "2147483647 ";
    }
    set_conf(text);
    EXPECT_EQ(qel_get_app_mc_cfg(0x3001, &record), 0);
    EXPECT_EQ(out.text(), ok(0x3001, "g", printed.c_str(), ""));
}

TEST_F(cfg_mc, name_and_comment_are_cut_to_31_characters) {
    set_conf("[APP_MCAST_TBL]\n3001, " + std::string(40, 'n') + " , 1 , " + std::string(40, 'c') + "\n");
    EXPECT_EQ(qel_get_app_mc_cfg(0x3001, &record), 0);
    EXPECT_EQ(std::string(record.name), std::string(31, 'n'));
    EXPECT_EQ(std::string(record.comment), std::string(31, 'c'));
}

TEST_F(cfg_mc, the_public_call_gives_count_and_all_16_slots) {
    set_conf("[APP_MCAST_TBL]\n3001,g,7 8 9\n");
    uint32_t list[16];
    memset(list, 0xAA, sizeof list);
    EXPECT_EQ(qel_get_app_mc_members(0x3001, list), 3);
    EXPECT_EQ(list[0], 7u);
    EXPECT_EQ(list[2], 9u);
    for (size_t i = 3; i < 16; i++)
        EXPECT_EQ(list[i], 0u);
}

TEST_F(cfg_mc, the_public_call_leaves_the_array_alone_when_the_group_is_unknown) {
    set_conf("[APP_MCAST_TBL]\n3001,g,7\n");
    uint32_t list[16], before[16];
    memset(list, 0xAA, sizeof list);
    memcpy(before, list, sizeof list);
    EXPECT_EQ(qel_get_app_mc_members(0x3002, list), 0);
    EXPECT_EQ(memcmp(list, before, sizeof list), 0);
    remove_conf();
    EXPECT_EQ(qel_get_app_mc_members(0x3001, list), 0);
    EXPECT_EQ(memcmp(list, before, sizeof list), 0);
}

TEST_F(cfg_mc, the_file_is_read_at_each_request) {
    set_conf("[APP_MCAST_TBL]\n3001,g,7\n");
    EXPECT_EQ(qel_get_app_mc_cfg(0x3001, &record), 0);
    set_conf("[APP_MCAST_TBL]\n3001,g,8 9\n");
    EXPECT_EQ(qel_get_app_mc_cfg(0x3001, &record), 0);
    EXPECT_EQ(members(), (std::vector<uint32_t>{8, 9}));
}

// ---- node ID: each test in its own process ---------------------------------------------------------------

struct cfg_node : cfg {
    void expect_invalid(const char *content, int32_t shown) {
        set_node_address(content);
        out.take();
        EXPECT_EQ(qel_get_my_node_id(), -1) << content;
        EXPECT_EQ(out.take(), qel_line("qel_cfg", X, "QEL get node address %d invalid.\n", shown)) << content;
    }
    void expect_unreadable(const std::string &content) {
        set_node_address(content);
        out.take();
        EXPECT_EQ(qel_get_my_node_id(), -1) << content;
        EXPECT_EQ(out.take(), qel_line("qel_cfg", X, "QEL get node address config failed.\n")) << content;
    }
    void expect_node(const std::string &content, int32_t node) {
        set_node_address(content);
        EXPECT_EQ(qel_get_my_node_id(), node);
        EXPECT_EQ(out.text(), qel_line("qel_cfg", V, "QEL get self node config ID %d.\n", node));
    }
};

TEST_F(cfg_node, is_read_once_and_kept) {
    expect_node("7\n", 7);
    out.take();
    set_node_address("8\n");
    EXPECT_EQ(qel_get_my_node_id(), 7);
    remove_node_address();
    EXPECT_EQ(qel_get_my_node_id(), 7);
    EXPECT_EQ(out.take(), "") << "the file is not read again";
}

TEST_F(cfg_node, may_be_0) { expect_node("0", 0); }
TEST_F(cfg_node, may_be_65535) { expect_node("65535\n", 65535); }
TEST_F(cfg_node, may_stand_behind_white_space_and_lines) { expect_node(" \n\t\n  12 13\n", 12); }
TEST_F(cfg_node, may_stand_behind_more_white_space_than_a_line_holds) {
    expect_node(std::string(125, ' ') + "12345\n", 12345);
}
TEST_F(cfg_node, may_stand_behind_much_white_space) { expect_node(std::string(5000, '\n') + "123", 123); }
TEST_F(cfg_node, may_have_more_zeros_in_front_than_a_line_holds) {
    expect_node(std::string(1000, '0') + "42\n", 42);
}
TEST_F(cfg_node, ends_at_what_is_no_digit) { expect_node("7abc", 7); }
TEST_F(cfg_node, is_decimal) { expect_node("010", 10); }
TEST_F(cfg_node, may_have_a_plus) { expect_node("+5", 5); }

TEST_F(cfg_node, out_of_range_is_refused_each_time_anew) {
    expect_invalid("65536\n", 65536);
    expect_invalid("65536\n", 65536);
    expect_invalid("-1\n", -1);
    expect_invalid("-5", -5);
    expect_invalid("2147483647", INT32_MAX);
    expect_invalid("99999999999999999999", INT32_MAX);
    expect_invalid("-99999999999999999999", INT32_MIN);
    expect_invalid("4294967303", INT32_MAX); // 2^32 + 7 is not 7
}

TEST_F(cfg_node, that_is_no_number_is_refused) {
    expect_unreadable("");
    expect_unreadable("\n\n");
    expect_unreadable("abc\n");
    expect_unreadable("- 5\n");
    expect_unreadable(std::string("\0007\n", 3));
}

TEST_F(cfg_node, without_a_file_is_warned_about_and_picked_up_when_it_comes) {
    remove_node_address();
    EXPECT_EQ(qel_get_my_node_id(), -1);
    EXPECT_EQ(out.take(),
              qel_line("qel_cfg", W,
                       "QEL open node address config file %s failed: No such file or directory.\n",
                       addr_path.c_str()));
    set_node_address("9\n");
    EXPECT_EQ(qel_get_my_node_id(), 9);
}

TEST_F(cfg_node, in_a_directory_or_a_pipe_is_no_number) {
    remove_node_address();
    fs::create_directories(addr_path);
    EXPECT_EQ(qel_get_my_node_id(), -1);
    EXPECT_EQ(out.take(), qel_line("qel_cfg", X, "QEL get node address config failed.\n"));
    fs::remove(addr_path);
    ASSERT_EQ(mkfifo(addr_path.c_str(), 0600), 0);
    EXPECT_EQ(qel_get_my_node_id(), -1);
    EXPECT_EQ(out.take(), qel_line("qel_cfg", X, "QEL get node address config failed.\n"));
}

TEST_F(cfg_node, may_be_asked_by_many_threads_at_once) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++)
        threads.emplace_back([] {
            for (int j = 0; j < 50; j++)
                if (qel_get_my_node_id() != 1)
                    abort();
        });
    for (std::thread &t : threads)
        t.join();
}

TEST(cfg_paths, without_a_root_the_paths_are_the_fixed_ones) {
    unsetenv("QEL_ROOT");
    if (fs::exists("/etc/qel.conf") || fs::exists("/tmp/addr/.qel_node_addr"))
        GTEST_SKIP() << "this host has files of the bus";
    qel_set_masks(0xF, 0);
    qel_capture out;
    char value[16];
    EXPECT_EQ(qel_get_misc_cfg("key", value), -1);
    EXPECT_EQ(
        out.take(),
        qel_line("qel_cfg", X, "QEL open config file /etc/qel.conf failed: No such file or directory.\n"));
    EXPECT_EQ(qel_get_my_node_id(), -1);
    EXPECT_EQ(out.take(), qel_line("qel_cfg", W,
                                   "QEL open node address config file /tmp/addr/.qel_node_addr failed: No "
                                   "such file or directory.\n"));
}

// ---- start: each test in its own process -----------------------------------------------------------------

struct cfg_start : qel_node {
    ~cfg_start() override { qel_dm_close_files(); }
};

TEST_F(cfg_start, sets_the_masks_from_the_low_four_bits) {
    set_conf("[MISC_CONF]\nqel_dbg_cfg=0x1f\nqel_log_cfg=0x30\n");
    const qel_capture out;
    EXPECT_EQ(qel_cfg_init(), 0);
    EXPECT_EQ(g_qel_dbg_level.load(), 0xFu);
    EXPECT_EQ(g_qel_log_level.load(), 0u);
    EXPECT_EQ(g_qel_log_fp, nullptr);
    EXPECT_FALSE(fs::exists(log_dir)) << "log mask 0: nothing is opened or made";
}

TEST_F(cfg_start, opens_the_files_when_the_log_mask_is_not_0) {
    set_conf("[MISC_CONF]\nqel_log_cfg=010\n");
    EXPECT_EQ(qel_cfg_init(), 0);
    EXPECT_EQ(g_qel_dbg_level.load(), 0u);
    EXPECT_EQ(g_qel_log_level.load(), 8u);
    EXPECT_NE(g_qel_log_fp, nullptr);
    EXPECT_EQ(list_dir(log_dir).size(), 2u);
}

TEST_F(cfg_start, reads_the_masks_once) {
    set_conf("[MISC_CONF]\nqel_dbg_cfg=4\nqel_log_cfg=2\n");
    EXPECT_EQ(qel_cfg_init(), 0);
    set_conf("[MISC_CONF]\nqel_dbg_cfg=15\nqel_log_cfg=15\n");
    const qel_capture out;
    EXPECT_EQ(qel_cfg_init(), 0);
    EXPECT_EQ(g_qel_dbg_level.load(), 4u);
    EXPECT_EQ(g_qel_log_level.load(), 2u);
    EXPECT_EQ(list_dir(log_dir).size(), 2u);
}

TEST_F(cfg_start, without_a_configuration_has_no_masks_and_succeeds) {
    qel_capture out;
    EXPECT_EQ(qel_cfg_init(), 0);
    EXPECT_EQ(g_qel_dbg_level.load(), 0u);
    EXPECT_EQ(g_qel_log_level.load(), 0u);
    EXPECT_EQ(out.raw(), "");
}

TEST_F(cfg_start, without_a_node_address_fails_until_there_is_one) {
    set_conf("[MISC_CONF]\nqel_dbg_cfg=0\n");
    remove_node_address();
    EXPECT_EQ(qel_cfg_init(), -1);
    set_node_address("65536\n");
    EXPECT_EQ(qel_cfg_init(), -1);
    set_node_address("3\n");
    EXPECT_EQ(qel_cfg_init(), 0);
    remove_node_address();
    EXPECT_EQ(qel_cfg_init(), 0);
}

TEST_F(cfg_start, shows_the_log_masks_lines_but_never_the_debug_masks_and_logs_neither) {
    set_conf("[MISC_CONF]\nqel_dbg_cfg=1\nqel_log_cfg=0xF\n");
    qel_capture out;
    EXPECT_EQ(qel_cfg_init(), 0);
    EXPECT_EQ(out.text(), qel_line("qel_cfg", V, "QEL get config 'qel_log_cfg' value [0xF].\n") +
                              qel_line("qel_cfg", V, "QEL get log config 0xf.\n") +
                              qel_line("qel_cfg", V, "QEL get self node config ID 1.\n"));
    for (const std::string &name : list_dir(log_dir)) {
        const std::string text = read_file(log_dir + "/" + name);
        EXPECT_EQ(text.find("log config"), std::string::npos);
        EXPECT_EQ(text.find("QEL get self node config ID 1.\n") != std::string::npos,
                  name.rfind("log-", 0) == 0)
            << "the log file is open by then";
    }
}

TEST_F(cfg_start, runs_once_for_all_threads) {
    set_conf("[MISC_CONF]\nqel_log_cfg=2\n");
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++)
        threads.emplace_back([] {
            if (qel_cfg_init() != 0)
                abort();
        });
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(list_dir(log_dir).size(), 2u);
}

} // namespace
