#include "qel_cli.h"

#include <cstdio>
#include <sys/wait.h>

#include "qel_cfg.h"
#include "qel_dbg.h"
#include "qel_pt.h"
#include "qeld.h"
#include "qeld_msg.h"

#define QEL_LOG_SRC "qel_cli"
#include "qel_log.h"

static const char help_text[] =
    "  \n"
    "  The command should match exactly to one list below, and the operation affect only on the local node\n"
    "  \n"
    "  valid commands                       description\n"
    "  show qel status                      Show QEL overall status\n"
    "  show qel app <id> stat               Show local QEL app statistics\n"
    "  show qel app <id>/<node> stat        Show the specific app/node statistics\n"
    "  show debug                           Show all QEL app debug info\n"
    "  debug all                            Turn on all QEL app's debug\n"
    "  no debug all                         Turn off all QEL app's debug\n"
    "  debug qel app <id> <level>           Turn on the specific app debug, argument level should be \n"
    "                                       one of 'verbose info warn error all'\n"
    "  no debug qel app <id> <level>        Turn off the specific app debug, argument level should be \n"
    "                                       one of 'verbose info warn error all'\n"
    "  qel performance test                 Test performance of message sending and RPC\n"
    "                                       please don't do other operation while testing\n"
    "  quit                                 Quit the app qeld\n"
    "  help                                 This usage list\n"
    "  ";

void qel_cli_print_help() noexcept { puts(help_text); }

void qeld_cmd_unknown() noexcept {
    printf("%% Unrecognized command.\n");
    qel_cli_print_help();
}

static uint32_t my_node() noexcept { return static_cast<uint32_t>(qel_get_my_node_id()); }

// ---- reading a line -------------------------------------------------------------------------------------

static bool is_blank(char c) noexcept { return c == ' ' || (c >= '\t' && c <= '\r'); }
static bool is_digit(char c) noexcept { return c >= '0' && c <= '9'; }

static const char *skip_blanks(const char *text) noexcept {
    while (is_blank(*text))
        text++;
    return text;
}

// A decimal number at @text; gives what is behind it, or null when there is none.
static const char *scan_number(const char *text, int32_t *number) noexcept {
    text = skip_blanks(text);
    const bool negative = *text == '-';
    if (negative || *text == '+')
        text++;
    if (!is_digit(*text))
        return nullptr;
    int64_t value = 0;
    for (; is_digit(*text); text++)
        if (value <= INT32_MAX)
            value = value * 10 + (*text - '0');
    if (negative)
        value = -value;
    *number = static_cast<int32_t>(value > INT32_MAX ? INT32_MAX : value < INT32_MIN ? INT32_MIN : value);
    return text;
}

static const char *scan_word(const char *text, char word[qel_cli_line_size]) noexcept {
    text = skip_blanks(text);
    size_t len = 0;
    while (*text && !is_blank(*text) && len < qel_cli_line_size - 1)
        word[len++] = *text++;
    word[len] = '\0';
    return len > 0 ? text : nullptr;
}

int qel_cli_scan(const char *text, const char *pattern, int32_t numbers[2],
                 char word[qel_cli_line_size]) noexcept {
    int converted = 0, number_count = 0;
    for (; *pattern; pattern++) {
        if (is_blank(*pattern)) {
            text = skip_blanks(text);
        } else if (*pattern == '%') {
            pattern++;
            text = *pattern == 'd' ? scan_number(text, &numbers[number_count++]) : scan_word(text, word);
            if (!text)
                break;
            converted++;
        } else if (*text++ != *pattern) {
            break;
        }
    }
    return converted;
}

qel_cli_line qel_cli_parse(const char *text) noexcept {
    static constexpr struct {
        const char *text;
        qel_cli_command command;
    } exact[] = {
        {"\n", qel_cli_command::none},
        {"quit\n", qel_cli_command::quit},
        {"help\n", qel_cli_command::help},
        {"show qel status\n", qel_cli_command::show_status},
        {"show debug\n", qel_cli_command::show_debug},
        {"debug all\n", qel_cli_command::debug_all},
        {"no debug all\n", qel_cli_command::no_debug_all},
        {"qel performance test\n", qel_cli_command::performance_test},
    };
    // In this order. What stands behind the last conversion does not matter, the word "stat" included.
    static constexpr struct {
        const char *pattern;
        int conversions;
        qel_cli_command command;
    } patterns[] = {
        {"show qel app %d/%d stat", 2, qel_cli_command::app_node_statistics},
        {"show qel app %d stat", 1, qel_cli_command::app_statistics},
        {"debug qel app %d %s", 2, qel_cli_command::debug_app},
        {"no debug qel app %d %s", 2, qel_cli_command::no_debug_app},
    };
    qel_cli_line line{};
    for (const auto &row : exact) {
        if (!strcmp(text, row.text)) {
            line.command = row.command;
            return line;
        }
    }
    for (const auto &row : patterns) {
        int32_t numbers[2] = {};
        if (qel_cli_scan(text, row.pattern, numbers, line.word) == row.conversions) {
            line.command = row.command;
            line.app = numbers[0];
            line.node = numbers[1];
            return line;
        }
    }
    line.command = qel_cli_command::unknown;
    return line;
}

// ---- status ---------------------------------------------------------------------------------------------

static void print_processes(const char *indent) noexcept {
    qeld_registry_copy copy;
    qeld_registry_copy::proc proc;
    while (copy.next(&proc)) {
        char level[32];
        printf("%sProcess %d:\n", indent, static_cast<int>(proc.pid));
        printf("%s  Debug level: %s.\n", indent, qel_get_dbg_status_str(proc.dbg_status, level));
        printf("%s  Applications:", indent);
        for (uint32_t i = 0; i < proc.app_count; i++)
            printf(" %d", static_cast<int>(proc.apps[i]));
        puts(".");
    }
}

void qel_cli_show_status() noexcept {
    const int node = qel_get_my_node_id();
    printf("QEL current node ID: %d.\n", node);
    printf("TIPC nodes within system:");
    for (uint32_t n = 0; n <= QEL_NODE_ID_MAX; n++)
        if (qeld_node_online(n))
            printf(" %d", static_cast<int>(n));
    puts("\n");
    printf("QEL node %d application status:\n", node);
    print_processes("  ");
}

void qel_show_all_dbg() noexcept {
    puts("QEL debug status:");
    print_processes("");
}

// ---- debug switches -------------------------------------------------------------------------------------

// One command per process, to its lowest application, as the mask is the process's. The registry stays locked
// over the sends; what failed is printed afterwards.
static void switch_all(bool on, uint32_t status, const char *verb) noexcept {
    struct failure {
        uint32_t pid;
        int error;
    };
    size_t failed = 0;
    qeld_app_mng_lock();
    auto *failures = static_cast<failure *>(qel_zalloc((g_app_mng.proc_count + 1) * sizeof(failure)));
    for (qeld_proc_info &proc : g_app_mng.procs) {
        const qeld_app_id *app = proc.apps.front();
        if (!app)
            continue;
        const int ret = qeld_send_dbg_cmd(app->app_id, QEL_LEVEL_ALL, on ? 1 : 0);
        if (ret != 0)
            failures[failed++] = {proc.pid, std::abs(ret)};
        else
            proc.dbg_status = status;
    }
    qeld_app_mng_unlock();
    for (size_t i = 0; i < failed; i++)
        printf("%% QEL %s process %d debug failed: %s.\n", verb, static_cast<int>(failures[i].pid),
               strerror(failures[i].error));
    free(failures);
}

void qel_start_all_dbg() noexcept {
    QEL_VERBOSE("QELD start all app's debug.\n");
    switch_all(true, qel_dbg_get_level_value(QEL_LEVEL_ALL), "start");
}

void qel_stop_all_dbg() noexcept {
    QEL_VERBOSE("QELD stop all app's debug.\n");
    switch_all(false, 0, "stop");
}

void qel_cli_dbg(int32_t app, uint32_t level, bool on) noexcept {
    const auto app_id = static_cast<uint32_t>(app);
    if (!qel_valid_app_id(app_id)) {
        printf("%% Application ID %d invalid.\n", app);
        return;
    }
    if (!qeld_app_exist(app_id)) {
        printf("%% QEL set application debug failed: application not exist.\n");
        return;
    }
    QEL_VERBOSE("QEL execute CLI: set app %d debug %d on %d.\n", app, static_cast<int>(level), on ? 1 : 0);
    const int ret = qeld_send_dbg_cmd(app_id, level, on ? 1 : 0);
    if (ret != 0) {
        printf("%% QEL set application debug failed: %s.\n", strerror(std::abs(ret)));
        return;
    }
    (void)qeld_update_dbg_level(app_id, on, level);
}

void qeld_parse_dbg_cmd(int32_t app, const char *word, bool on) noexcept {
    static constexpr const char *words[] = {"verbose", "info", "warn", "error", "all"};
    static_assert(std::size(words) == QEL_LEVEL_ALL + 1);
    for (uint32_t level = 0; level < std::size(words); level++) {
        if (!strcmp(word, words[level])) {
            qel_cli_dbg(app, level, on);
            return;
        }
    }
    qeld_cmd_unknown();
}

// ---- statistics -----------------------------------------------------------------------------------------

void qel_cli_show_app_statistics(int32_t app, int32_t node) noexcept {
    const auto app_id = static_cast<uint32_t>(app), node_id = static_cast<uint32_t>(node);
    if (!qel_valid_app_id(app_id)) {
        printf("%% Application ID %d invalid.\n", app);
        return;
    }
    if (!qel_valid_node_id(node_id)) {
        printf("%% Node ID %d invalid.\n", node);
        return;
    }
    QEL_VERBOSE("QEL execute CLI: get app %d/%d statistics.\n", app, node);
    qel_reply_set replies;
    const int ret = qeld_rpc_get_app_statistics(app_id, node_id, &replies);
    const qel_msg *reply = ret == 0 && replies.count > 0 ? replies.msg[0] : nullptr;
    const char *failure = nullptr;
    if (ret != 0)
        failure = strerror(std::abs(ret));
    else if (!reply)
        failure = qel_reply_stat_string(QEL_STATUS_SYSTEM);
    else if (reply->hdr.rpc_status != QEL_STATUS_SUCCESS)
        failure = qel_reply_stat_string(reply->hdr.rpc_status);
    if (failure)
        printf("%% QEL show application statistics failed: %s.\n", failure);
    else // a text, but nobody promises its terminator
        printf("%.*s", static_cast<int>(qel_msg_data_len(reply)),
               static_cast<const char *>(qel_msg_const_data(reply)));
    qel_reply_msg_free(&replies);
}

// ---- the loop -------------------------------------------------------------------------------------------

void qel_cli_execute(const qel_cli_line &line) noexcept {
    switch (line.command) {
    case qel_cli_command::none:
    case qel_cli_command::quit:
        break;
    case qel_cli_command::help:
        qel_cli_print_help();
        break;
    case qel_cli_command::show_status:
        qel_cli_show_status();
        break;
    case qel_cli_command::show_debug:
        qel_show_all_dbg();
        break;
    case qel_cli_command::debug_all:
        qel_start_all_dbg();
        break;
    case qel_cli_command::no_debug_all:
        qel_stop_all_dbg();
        break;
    case qel_cli_command::performance_test:
        qel_performance_test();
        break;
    case qel_cli_command::app_node_statistics:
        qel_cli_show_app_statistics(line.app, line.node);
        break;
    case qel_cli_command::app_statistics:
        qel_cli_show_app_statistics(line.app, static_cast<int32_t>(my_node()));
        break;
    case qel_cli_command::debug_app:
        qeld_parse_dbg_cmd(line.app, line.word, true);
        break;
    case qel_cli_command::no_debug_app:
        qeld_parse_dbg_cmd(line.app, line.word, false);
        break;
    case qel_cli_command::unknown:
        qeld_cmd_unknown();
        break;
    }
}

static void prompt() noexcept {
    fputs("(qel)", stdout);
    (void)fflush(stdout);
}

// Gives the exit status of "stty sane", or -1 when it cannot be waited for.
static int make_terminal_sane() noexcept {
    static char program[] = "/bin/stty", name[] = "stty", argument[] = "sane";
    char *const arguments[] = {name, argument, nullptr};
    char *const environment[] = {nullptr};
    (void)fflush(stdout); // the child has a copy of what is not written yet
    const pid_t child = fork();
    if (child < 0)
        exit(1);
    if (child == 0) {
        (void)execve(program, arguments, environment);
        _exit(1);
    }
    int status;
    if (wait(&status) < 0)
        return -1;
    return status >> 8 & 0xFF;
}

int qeld_cli_init() noexcept {
    static char buf[qel_cli_line_size];
    QEL_VERBOSE("QELD CLI init.\n");
    const int status = make_terminal_sane();
    if (status < 0)
        return -1;
    if (status != 0)
        exit(1); // no console without a terminal
    setlinebuf(stdin);
    setlinebuf(stdout);
    QEL_VERBOSE("QELD CLI init OK.\n");

    qel_cli_print_help();
    prompt();
    while (fgets(buf, sizeof buf, stdin)) {
        const qel_cli_line line = qel_cli_parse(buf);
        if (line.command == qel_cli_command::quit)
            break;
        qel_cli_execute(line);
        prompt();
    }
    exit(1); // however it ended: whoever watches the daemon starts it again
}
