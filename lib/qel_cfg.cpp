#include "qel_cfg.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>

#include "qel_base.h"
#include "qel_dm.h"
#define QEL_LOG_SRC "qel_cfg"
#include "qel_log.h"

constexpr size_t line_size = 128; // a longer line is read in pieces, each judged by itself

static bool is_space(char c) noexcept { return isspace(static_cast<unsigned char>(c)) != 0; }

static int32_t saturate(long long value) noexcept {
    return static_cast<int32_t>(std::clamp<long long>(value, INT32_MIN, INT32_MAX));
}

// ---- files ----------------------------------------------------------------------------------------------

struct file_path {
    explicit file_path(const char *fixed) noexcept {
        const char *root = secure_getenv("QEL_ROOT");
        snprintf(text, sizeof text, "%s%s", root ? root : "", fixed);
    }
    char text[PATH_MAX];
};

struct file_guard {
    explicit file_guard(const char *path) noexcept {
        // without blocking: a pipe in the file's place must not stop the process
        qel_fd fd(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        if (fd && (file = fdopen(fd.fd, "r")) != nullptr)
            fd.release();
    }
    ~file_guard() {
        if (file)
            fclose(file);
    }
    file_guard(const file_guard &) = delete;
    file_guard &operator=(const file_guard &) = delete;
    FILE *file = nullptr;
};

// The next line of a section, trimmed, comments and empty lines left out; null at its end.
static char *next_line(FILE *file, char (&line)[line_size]) noexcept {
    while (fgets(line, sizeof line, file)) {
        char *text = qel_trim_space(line);
        if (*text == '\0' || *text == '#')
            continue;
        return *text == '[' ? nullptr : text;
    }
    return nullptr;
}

char *qel_trim_space(char *text) noexcept {
    char *first = text;
    while (is_space(*first))
        first++;
    if (*first == '\0')
        return text; // all blank: left alone, nothing matches it anyway
    for (char *last = first + strlen(first) - 1; is_space(*last); last--)
        *last = '\0';
    return first;
}

int qel_locate_section(const char *name, FILE *file) noexcept {
    char line[line_size];
    while (fgets(line, sizeof line, file)) {
        const char *text = qel_trim_space(line);
        if (*text != '#' && strcmp(text, name) == 0)
            return 1;
    }
    return 0;
}

// Opens the configuration at a section; logs what is missing.
static bool open_section(const file_guard &conf, const char *path, const char *section) noexcept {
    if (!conf.file) {
        QEL_ERROR("QEL open config file %s failed: %s.\n", path, strerror(errno));
        return false;
    }
    if (!qel_locate_section(section, conf.file)) {
        QEL_WARN("QEL can't locate section %s.\n", section);
        return false;
    }
    return true;
}

// ---- [MISC_CONF] ----------------------------------------------------------------------------------------

int qel_get_misc_cfg(const char *key, char value[16]) noexcept {
    memset(value, 0, 16);
    const file_path path("/etc/qel.conf");
    const file_guard conf(path.text);
    if (!open_section(conf, path.text, "[MISC_CONF]"))
        return -1;
    char line[line_size];
    while (const char *text = next_line(conf.file, line)) {
        if (strncmp(text, key, strlen(key)) != 0) // a longer key that begins alike matches too
            continue;
        const char *equals = strchr(text, '=');
        if (!equals) {
            QEL_VERBOSE("QEL get invalid config item: %s.\n", text);
            continue;
        }
        snprintf(value, 16, "%s", equals + 1);
        QEL_VERBOSE("QEL get config '%s' value [%s].\n", key, value);
        return 0;
    }
    QEL_WARN("QEL get config '%s' failed.\n", key);
    return -1;
}

static int32_t misc_number(const char *key) noexcept {
    char value[16];
    return qel_get_misc_cfg(key, value) == 0 ? saturate(strtoll(value, nullptr, 0)) : 0;
}

int32_t qel_get_dbg_cfg() noexcept {
    const int32_t value = misc_number("qel_dbg_cfg");
    QEL_VERBOSE("QEL get debug config 0x%x.\n", static_cast<unsigned>(value));
    return value;
}

int32_t qel_get_log_cfg() noexcept {
    const int32_t value = misc_number("qel_log_cfg");
    QEL_VERBOSE("QEL get log config 0x%x.\n", static_cast<unsigned>(value));
    return value;
}

int qel_cfg_get_blocked_resume_enabled() noexcept {
    char value[16];
    const bool enabled = qel_get_misc_cfg("qel_blocked_resume_enabled", value) == 0 &&
                         strcmp(qel_trim_space(value), "true") == 0;
    QEL_VERBOSE("QEL get blocked resume enabled: %s.\n", enabled ? "true" : "false");
    return enabled;
}

// ---- the tables -----------------------------------------------------------------------------------------

// A cursor over one table line. Each step leaves the cursor where it stands when it does not match.
struct fields {
    const char *at;

    bool number(int base, long long &out) noexcept {
        char *end;
        out = strtoll(at, &end, base);
        if (end == at)
            return false;
        at = end;
        return true;
    }
    bool comma() noexcept {
        const char *p = at;
        while (is_space(*p))
            p++;
        if (*p != ',')
            return false;
        for (p++; is_space(*p); p++) {
        }
        at = p;
        return true;
    }
    // What stands before any of @stops, at least one character. @size is 128: no field of a line is longer.
    bool text(const char *stops, char *out, size_t size) noexcept {
        const size_t len = strcspn(at, stops);
        if (len == 0)
            return false;
        snprintf(out, size, "%.*s", static_cast<int>(std::min(len, size - 1)), at);
        at += len;
        return true;
    }
};

static void keep_trimmed(char (&out)[qel_cfg_name_max], char *text) noexcept {
    snprintf(out, sizeof out, "%.*s", qel_cfg_name_max - 1, qel_trim_space(text));
}

int qel_parse_app_cfg_line(const char *line, qel_app_cfg_line *out) noexcept {
    *out = {};
    fields f{line};
    char text[line_size];
    long long number;
    if (!f.number(10, number))
        return 0;
    out->id = saturate(number);
    if (!f.comma() || !f.text(",", text, sizeof text))
        return 1;
    keep_trimmed(out->name, text);
    if (!f.comma() || !f.number(10, number))
        return 2;
    out->priority = saturate(number);
    if (!f.comma() || !f.text(",", text, sizeof text))
        return 3;
    keep_trimmed(out->developer, text);
    if (!f.comma() || !f.text("\r\n", text, sizeof text))
        return 4;
    keep_trimmed(out->comment, text);
    return 5;
}

int qel_parse_mc_cfg_line(const char *line, qel_mc_cfg_line *out) noexcept {
    *out = {};
    fields f{line};
    char text[line_size];
    long long number;
    if (!f.number(16, number))
        return 0;
    out->id = static_cast<uint32_t>(std::clamp<long long>(number, INT32_MIN, UINT32_MAX));
    if (!f.comma() || !f.text(",", text, sizeof text))
        return 1;
    keep_trimmed(out->name, text);
    if (!f.comma() || !f.text(",", out->members, sizeof out->members))
        return 2;
    if (!f.comma() || !f.text("\r\n", text, sizeof text))
        return 3;
    keep_trimmed(out->comment, text);
    return 4;
}

uint32_t qel_parse_mc_members(const char *text, uint32_t members[QEL_APP_GROUP_MBRS]) noexcept {
    memset(members, 0, sizeof(uint32_t) * QEL_APP_GROUP_MBRS);
    uint32_t count = 0;
    for (const char *p = text; *p;) {
        if (!isdigit(static_cast<unsigned char>(*p))) {
            p++;
            continue;
        }
        if (count == QEL_APP_GROUP_MBRS)
            break;
        char *end;
        members[count++] = static_cast<uint32_t>(saturate(strtoll(p, &end, 0)));
        p = end;
    }
    return count;
}

int32_t qel_get_app_priority(int32_t app_id) noexcept {
    const file_path path("/etc/qel.conf");
    const file_guard conf(path.text);
    int32_t priority = 0;
    if (open_section(conf, path.text, "[APP_INFO_TBL]")) {
        bool found = false;
        char line[line_size];
        while (const char *text = next_line(conf.file, line)) {
            qel_app_cfg_line app;
            if (qel_parse_app_cfg_line(text, &app) < 4) {
                QEL_WARN("QEL get invalid config item: %s.\n", text);
                continue;
            }
            if (app.id != app_id)
                continue;
            QEL_VERBOSE(
                "QEL get app config OK: id [%d] name [%s] priority [%d] developer [%s] comment [%s].\n",
                app.id, app.name, app.priority, app.developer, app.comment);
            priority = app.priority;
            found = true;
            break;
        }
        if (!found)
            QEL_ERROR("QEL get app %d config failed.\n", app_id);
    }
    QEL_VERBOSE("QEL get app %d config priority %d.\n", app_id, priority);
    return priority;
}

int qel_get_app_mc_cfg(uint32_t group_id, qel_app_mc_cfg *record) noexcept {
    const file_path path("/etc/qel.conf");
    const file_guard conf(path.text);
    if (!open_section(conf, path.text, "[APP_MCAST_TBL]"))
        return -1;
    char line[line_size];
    while (const char *text = next_line(conf.file, line)) {
        qel_mc_cfg_line group;
        if (qel_parse_mc_cfg_line(text, &group) < 3) {
            QEL_WARN("QEL get invalid config item: %s.\n", text);
            continue;
        }
        if (group.id != group_id)
            continue;
        *record = {};
        record->id = group_id;
        memcpy(record->name, group.name, sizeof record->name);
        memcpy(record->comment, group.comment, sizeof record->comment);
        record->member_count = qel_parse_mc_members(group.members, record->members);
        char printed[QEL_APP_GROUP_MBRS * 12 + 1] = "";
        size_t len = 0;
        for (uint32_t i = 0; i < record->member_count; i++)
            len += static_cast<size_t>(
                snprintf(printed + len, sizeof printed - len, "%d ", static_cast<int>(record->members[i])));
        QEL_VERBOSE("QEL get app multi-cast config OK: id [0x%08x] name [%s] members [%s] comment [%s].\n",
                    group_id, record->name, printed, record->comment);
        return 0;
    }
    QEL_ERROR("QEL get app multi-cast 0x%08x config failed.\n", group_id);
    return -1;
}

int32_t qel_get_app_mc_members(uint32_t group_id, uint32_t members[QEL_APP_GROUP_MBRS]) noexcept {
    qel_app_mc_cfg record;
    if (qel_get_app_mc_cfg(group_id, &record) != 0)
        return 0;
    memcpy(members, record.members, sizeof record.members);
    return static_cast<int32_t>(record.member_count);
}

// ---- node ID --------------------------------------------------------------------------------------------

// -1 until it is known. Every thread that reads the file first writes the same value.
static constinit std::atomic<int32_t> g_node_id{-1};

// Character by character: a number may stand anywhere, and across what would be the border of a line buffer.
int32_t qel_parse_node_address(FILE *file) noexcept {
    int c = fgetc(file);
    while (c != EOF && isspace(c))
        c = fgetc(file);
    const bool negative = c == '-';
    if (c == '-' || c == '+')
        c = fgetc(file);
    if (!isdigit(c)) {
        QEL_ERROR("QEL get node address config failed.\n");
        return -1;
    }
    long long value = 0;
    for (; isdigit(c); c = fgetc(file))
        if (value <= INT32_MAX) // beyond it more digits change nothing
            value = value * 10 + (c - '0');
    const int32_t node = saturate(negative ? -value : value);
    if (node < 0 || node > QEL_NODE_ID_MAX) {
        QEL_ERROR("QEL get node address %d invalid.\n", node);
        return -1;
    }
    return node;
}

int32_t qel_get_my_node_id() noexcept {
    int32_t node = g_node_id.load(std::memory_order_relaxed);
    if (node != -1)
        return node;
    const file_path path("/tmp/addr/.qel_node_addr");
    const file_guard addr(path.text);
    if (!addr.file) {
        QEL_WARN("QEL open node address config file %s failed: %s.\n", path.text, strerror(errno));
        return -1;
    }
    node = qel_parse_node_address(addr.file);
    if (node < 0)
        return -1;
    g_node_id.store(node, std::memory_order_relaxed);
    QEL_VERBOSE("QEL get self node config ID %d.\n", node);
    return node;
}

// ---- start ----------------------------------------------------------------------------------------------

static void __qel_cfg_init() noexcept {
    g_qel_dbg_level.store(static_cast<uint32_t>(qel_get_dbg_cfg()) & 0xF, std::memory_order_relaxed);
    g_qel_log_level.store(static_cast<uint32_t>(qel_get_log_cfg()) & 0xF, std::memory_order_relaxed);
    if (g_qel_log_level.load(std::memory_order_relaxed) != 0)
        qel_dm_init();
}

int qel_cfg_init() noexcept {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    const int ret = pthread_once(&once, __qel_cfg_init);
    QEL_ASSERT(ret == 0);
    return qel_get_my_node_id() >= 0 ? 0 : -1;
}
