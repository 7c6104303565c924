// A line of the console: it means what sscanf() says, whose numbers are only defined up to int.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "qel_cli.h"

static void check(bool ok, const char *what) {
    if (ok)
        return;
    fprintf(stderr, "fuzz qel_cli: %s\n", what);
    abort();
}

static bool sscanf_is_defined(const std::string &text) {
    int digits = 0;
    for (const char c : text) {
        digits = c >= '0' && c <= '9' ? digits + 1 : 0;
        if (digits > 9)
            return false;
    }
    return true;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string text(reinterpret_cast<const char *>(data), size);
    const char *line = text.c_str(); // ends at the first NUL
    const qel_cli_line got = qel_cli_parse(line);
    check(memchr(got.word, 0, sizeof got.word) != nullptr, "a word without an end");
    if (size >= qel_cli_line_size || !sscanf_is_defined(line))
        return 0;
    int app = 0, node = 0;
    char word[128] = "";
    const bool takes_numbers = got.command >= qel_cli_command::app_node_statistics;
    if (!takes_numbers)
        return 0;
    auto expected = qel_cli_command::unknown;
    if (sscanf(line, "show qel app %d/%d stat", &app, &node) == 2)
        expected = qel_cli_command::app_node_statistics;
    else if (node = 0, sscanf(line, "show qel app %d stat", &app) == 1)
        expected = qel_cli_command::app_statistics;
    else if (sscanf(line, "debug qel app %d %127s", &app, word) == 2)
        expected = qel_cli_command::debug_app;
    else if (sscanf(line, "no debug qel app %d %127s", &app, word) == 2)
        expected = qel_cli_command::no_debug_app;
    check(got.command == expected, "another command");
    if (expected == qel_cli_command::unknown)
        return 0;
    check(got.app == app && got.node == node, "other numbers");
    if (expected >= qel_cli_command::debug_app)
        check(strcmp(got.word, word) == 0, "another word");
    return 0;
}
