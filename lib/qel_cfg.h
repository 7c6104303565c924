// Static facts: the configuration file "/etc/qel.conf" (masks, priorities, multicast tables, the
// blocked-resume switch), read anew at every question, and the node address file "/tmp/addr/.qel_node_addr",
// whose value is kept once it has been read. The environment variable QEL_ROOT names a directory put before
// both paths, so that several nodes can live on one host.
//
// Any thread; nothing is locked but the one-time start.
#ifndef QEL_CFG_H
#define QEL_CFG_H

#include <cstdint>
#include <cstdio>

#include "qel/qel.h"

constexpr int32_t qel_cfg_name_max = 32; // bytes of a name or comment, terminator included

// One group of [APP_MCAST_TBL].
struct qel_app_mc_cfg {
    uint32_t id;
    uint32_t member_count; // 0..16
    char name[qel_cfg_name_max];
    uint32_t members[QEL_APP_GROUP_MBRS]; // 0 beyond the count
    char comment[qel_cfg_name_max];
};

// Reads the masks and opens the diagnostic files, once per process. 0, or -1 while the node ID is unknown.
int qel_cfg_init() noexcept;

int32_t qel_get_dbg_cfg() noexcept; // 0 when absent
int32_t qel_get_log_cfg() noexcept;
int qel_cfg_get_blocked_resume_enabled() noexcept;

// The TIPC importance of an application's socket; 0 when it is not configured.
int32_t qel_get_app_priority(int32_t app_id) noexcept;

// 0, or -1 when the group is not configured.
int qel_get_app_mc_cfg(uint32_t group_id, qel_app_mc_cfg *record) noexcept;

// This node's ID, 0..65535, or -1 as long as the address file cannot be read.
int32_t qel_get_my_node_id() noexcept;

// ---- parsers, for tests and fuzzing ----------------------------------------------------------------------

// Trims white space at both ends, in place; an all-blank text stays as it is. Returns the first character
// kept.
char *qel_trim_space(char *text) noexcept;
// Reads on until behind the line @name; 1, or 0 at the end of the file.
int qel_locate_section(const char *name, FILE *file) noexcept;
// The value of @key in [MISC_CONF], at most 15 characters and a terminator. 0 or -1.
int qel_get_misc_cfg(const char *key, char value[16]) noexcept;
// The member numbers of @text, any other character separates; base by prefix ("0x10", "010"). Returns the
// count.
uint32_t qel_parse_mc_members(const char *text, uint32_t members[QEL_APP_GROUP_MBRS]) noexcept;

struct qel_app_cfg_line {
    int32_t id, priority;
    char name[qel_cfg_name_max], developer[qel_cfg_name_max], comment[qel_cfg_name_max];
};
struct qel_mc_cfg_line {
    uint32_t id;
    char name[qel_cfg_name_max], comment[qel_cfg_name_max];
    char members[128];
};
// The number of fields that @line has: an application's takes 4 or 5, a group's 3 or 4; less is no valid
// line.
int qel_parse_app_cfg_line(const char *line, qel_app_cfg_line *out) noexcept;
int qel_parse_mc_cfg_line(const char *line, qel_mc_cfg_line *out) noexcept;
// The node ID that an address file holds, or -1 after an error line.
int32_t qel_parse_node_address(FILE *file) noexcept;

#endif
