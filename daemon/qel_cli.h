// The operator's console: one command per line on standard input, matched word for word; answers on standard
// output. Everything here runs on the daemon's main thread. No lock is held while the console prints.
#ifndef QEL_CLI_H
#define QEL_CLI_H

#include <cstddef>
#include <cstdint>

constexpr size_t qel_cli_line_size = 128; // longer lines are taken in pieces

enum class qel_cli_command : uint8_t {
    none, // an empty line
    quit,
    help,
    show_status,
    show_debug,
    debug_all,
    no_debug_all,
    performance_test,
    app_node_statistics, // app, node
    app_statistics,      // app
    debug_app,           // app, word
    no_debug_app,        // app, word
    unknown,
};

struct qel_cli_line {
    qel_cli_command command;
    int32_t app, node;
    char word[qel_cli_line_size];
};

// What @text says. Pure; @text may be any string.
qel_cli_line qel_cli_parse(const char *text) noexcept;

// Reads @text as sscanf() does by a @pattern of plain characters, blanks (any white space or none), "%d" (at
// most two; numbers beyond int32_t become its limits) and "%s" (at most one). Gives the number of conversions
// made.
int qel_cli_scan(const char *text, const char *pattern, int32_t numbers[2],
                 char word[qel_cli_line_size]) noexcept;

// Sets the terminal up and runs the console; at "quit" and at the end of input the process ends with
// status 1. Returns -1, and only when the terminal's set-up cannot be waited for.
int qeld_cli_init() noexcept;

// The commands.
void qel_cli_execute(const qel_cli_line &line) noexcept; // all but quit
void qel_cli_print_help() noexcept;
void qel_cli_show_status() noexcept;
void qel_show_all_dbg() noexcept;
void qel_start_all_dbg() noexcept;
void qel_stop_all_dbg() noexcept;
void qel_cli_show_app_statistics(int32_t app, int32_t node) noexcept;
void qeld_parse_dbg_cmd(int32_t app, const char *word, bool on) noexcept;
void qel_cli_dbg(int32_t app, uint32_t level, bool on) noexcept;
void qeld_cmd_unknown() noexcept;

#endif
