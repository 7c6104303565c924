// The console: what a line means, what each command prints, how it begins and ends.
#include "qel_cli.h"
#include "qeld_world.h"

#include <cerrno>
#include <dlfcn.h>
#include <fcntl.h>
#include <random>
#include <sys/wait.h>
#include <thread>

// The console's fork() and wait() can be made to fail.
static std::atomic<int> g_fork_error{0}, g_wait_error{0}, g_wait_status{-1};
static std::atomic<bool> g_show_execve{false};
extern "C" {
int execve(const char *path, char *const argv[], char *const envp[]) noexcept {
    static const auto real =
        reinterpret_cast<int (*)(const char *, char *const[], char *const[])>(dlsym(RTLD_NEXT, "execve"));
    if (!g_show_execve)
        return real(path, argv, envp);
    std::string text = std::string("execve ") + path + ":";
    for (; *argv; argv++)
        text += std::string(" ") + *argv;
    text += *envp ? ", some environment\n" : ", no environment\n";
    if (write(STDOUT_FILENO, text.data(), text.size()) < 0)
        abort();
    errno = ENOENT;
    return -1;
}
pid_t fork() noexcept {
    static const auto real = reinterpret_cast<pid_t (*)()>(dlsym(RTLD_NEXT, "fork"));
    if (g_fork_error) {
        errno = g_fork_error;
        return -1;
    }
    return real();
}
pid_t wait_of_test(int *status) __asm__("wait"); // under the system's name, without its parameter's
pid_t wait_of_test(int *status) {
    static const auto real = reinterpret_cast<pid_t (*)(int *)>(dlsym(RTLD_NEXT, "wait"));
    if (g_wait_error) {
        errno = g_wait_error;
        return -1;
    }
    const pid_t pid = real(status);
    if (g_wait_status >= 0)
        *status = g_wait_status;
    return pid;
}
}

static const char help[] =
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
    "  \n";

// ---- what a line means ----------------------------------------------------------------------------------

// "name app node word", the parts that the command has.
static std::string parsed(const std::string &text) {
    const qel_cli_line line = qel_cli_parse(text.c_str());
    const std::string app = std::to_string(line.app);
    switch (line.command) {
    case qel_cli_command::none:
        return "none";
    case qel_cli_command::quit:
        return "quit";
    case qel_cli_command::help:
        return "help";
    case qel_cli_command::show_status:
        return "status";
    case qel_cli_command::show_debug:
        return "show debug";
    case qel_cli_command::debug_all:
        return "debug all";
    case qel_cli_command::no_debug_all:
        return "no debug all";
    case qel_cli_command::performance_test:
        return "test";
    case qel_cli_command::app_node_statistics:
        return "stat " + app + "/" + std::to_string(line.node);
    case qel_cli_command::app_statistics:
        return "stat " + app;
    case qel_cli_command::debug_app:
        return "debug " + app + " " + line.word;
    case qel_cli_command::no_debug_app:
        return "no debug " + app + " " + line.word;
    case qel_cli_command::unknown:
        return "unknown";
    }
    return "";
}

TEST(qel_cli_parse, each_command_has_its_line) {
    EXPECT_EQ(parsed("\n"), "none");
    EXPECT_EQ(parsed("help\n"), "help");
    EXPECT_EQ(parsed("quit\n"), "quit");
    EXPECT_EQ(parsed("show qel status\n"), "status");
    EXPECT_EQ(parsed("show debug\n"), "show debug");
    EXPECT_EQ(parsed("debug all\n"), "debug all");
    EXPECT_EQ(parsed("no debug all\n"), "no debug all");
    EXPECT_EQ(parsed("qel performance test\n"), "test");
    EXPECT_EQ(parsed("show qel app 5 stat\n"), "stat 5");
    EXPECT_EQ(parsed("show qel app 5/3 stat\n"), "stat 5/3");
    EXPECT_EQ(parsed("debug qel app 5 all\n"), "debug 5 all");
    EXPECT_EQ(parsed("no debug qel app 5 verbose\n"), "no debug 5 verbose");
}

TEST(qel_cli_parse, fixed_lines_match_to_the_byte) {
    for (const char *line : {"help",
                             "quit",
                             "quit \n",
                             " quit\n",
                             "HELP\n",
                             "help \n",
                             " help\n",
                             "hel\n",
                             "show qel statusx\n",
                             "show  qel status\n",
                             "show qel status",
                             "show\tdebug\n",
                             "debug all \n",
                             "no  debug all\n",
                             " \n",
                             "",
                             "\r\n",
                             "help\r\n",
                             "show qel\n",
                             "?\n",
                             "qel performance tes\n",
                             "qel performance test\n\n"})
        EXPECT_EQ(parsed(line), "unknown") << line;
}

TEST(qel_cli_parse, what_stands_behind_the_last_conversion_does_not_matter) {
    EXPECT_EQ(parsed("show qel app 5\n"), "stat 5");
    EXPECT_EQ(parsed("show qel app 5"), "stat 5");
    EXPECT_EQ(parsed("show qel app 5 anything\n"), "stat 5");
    EXPECT_EQ(parsed("show qel app 5x\n"), "stat 5");
    EXPECT_EQ(parsed("show qel app 5/\n"), "stat 5");
    EXPECT_EQ(parsed("show qel app 5/x\n"), "stat 5");
    EXPECT_EQ(parsed("show qel app 5 /3\n"), "stat 5");
    EXPECT_EQ(parsed("show qel app 5/3\n"), "stat 5/3");
    EXPECT_EQ(parsed("show qel app 5/ 3\n"), "stat 5/3");
    EXPECT_EQ(parsed("show qel app 5/3/4\n"), "stat 5/3");
    EXPECT_EQ(parsed("debug qel app 5 all or nothing\n"), "debug 5 all");
}

TEST(qel_cli_parse, blanks_match_any_white_space_or_none) {
    EXPECT_EQ(parsed("showqelapp5\n"), "stat 5");
    EXPECT_EQ(parsed("show \t\v\f\r qel\napp\n\n5/3\n"), "stat 5/3");
    EXPECT_EQ(parsed("debugqelapp5all\n"), "debug 5 all");
    EXPECT_EQ(parsed("nodebugqelapp5all\n"), "no debug 5 all");
    EXPECT_EQ(parsed("debug qel app 5all\n"), "debug 5 all");
    EXPECT_EQ(parsed(" show qel app 5\n"), "unknown") << "blanks in front are no part of any pattern";
    EXPECT_EQ(parsed("\tdebug qel app 5 all\n"), "unknown");
    EXPECT_EQ(parsed("sh ow qel app 5\n"), "unknown");
}

TEST(qel_cli_parse, numbers_are_decimal_signed_and_end_at_the_limits) {
    EXPECT_EQ(parsed("show qel app -5\n"), "stat -5");
    EXPECT_EQ(parsed("show qel app +5/+3\n"), "stat 5/3");
    EXPECT_EQ(parsed("show qel app 0x10\n"), "stat 0");
    EXPECT_EQ(parsed("show qel app 010\n"), "stat 10");
    EXPECT_EQ(parsed("show qel app 2147483647/-2147483648\n"), "stat 2147483647/-2147483648");
    EXPECT_EQ(parsed("show qel app 2147483648/-2147483649\n"), "stat 2147483647/-2147483648");
    EXPECT_EQ(parsed("show qel app 99999999999999999999999999/-99999999999999999999999999\n"),
              "stat 2147483647/-2147483648");
    EXPECT_EQ(parsed("show qel app -\n"), "unknown");
    EXPECT_EQ(parsed("show qel app --5\n"), "unknown");
    EXPECT_EQ(parsed("show qel app x\n"), "unknown");
    EXPECT_EQ(parsed("show qel app\n"), "unknown");
}

TEST(qel_cli_parse, a_debug_command_needs_a_number_and_a_word) {
    EXPECT_EQ(parsed("debug qel app 5\n"), "unknown");
    EXPECT_EQ(parsed("debug qel app 5 \n"), "unknown");
    EXPECT_EQ(parsed("debug qel app all\n"), "unknown");
    EXPECT_EQ(parsed("no debug qel app 5\n"), "unknown");
    EXPECT_EQ(parsed("debug qel app 5 loud\n"), "debug 5 loud");
}

TEST(qel_cli_parse, a_line_ends_at_a_nul) {
    EXPECT_EQ(parsed(std::string("quit\0\n", 6)), "unknown");
    EXPECT_EQ(parsed(std::string("show qel app 5\0/3\n", 18)), "stat 5");
}

TEST(qel_cli_parse, a_word_as_long_as_a_line_fits) {
    const std::string word(200, 'w');
    const qel_cli_line line = qel_cli_parse(("debug qel app 5 " + word).c_str());
    EXPECT_EQ(std::string(line.word), word.substr(0, 127));
}

static size_t longest_number(const std::string &text) {
    size_t longest = 0, digits = 0;
    for (const char c : text) {
        digits = c >= '0' && c <= '9' ? digits + 1 : 0;
        longest = std::max(longest, digits);
    }
    return longest;
}

TEST(qel_cli_parse, lines_mean_what_sscanf_says_they_mean) {
    static const char *const parts[] = {"show", " ",  "qel", "app", "debug", "no", "5",   "/",  "16384", "-1",
                                        "stat", "\t", "all", "x",   "\n",    "+",  "007", "  ", "%",     "d"};
    static const char *const begins[] = {"show qel app ", "debug qel app ", "no debug qel app "};
    std::mt19937 random(20240102);
    unsigned matched = 0;
    for (int round = 0; round < 200000; round++) {
        std::string text;
        if (round % 2)
            text = begins[round / 2 % 3];
        for (unsigned n = random() % 8; n > 0; n--)
            text += parts[random() % std::size(parts)];
        if (longest_number(text) > 9) // beyond int sscanf() says nothing sensible
            continue;
        int app = 0, node = 0;
        char word[128] = "";
        std::string expected;
        if (sscanf(text.c_str(), "show qel app %d/%d stat", &app, &node) == 2)
            expected = "stat " + std::to_string(app) + "/" + std::to_string(node);
        else if (sscanf(text.c_str(), "show qel app %d stat", &app) == 1)
            expected = "stat " + std::to_string(app);
        else if (sscanf(text.c_str(), "debug qel app %d %127s", &app, word) == 2)
            expected = "debug " + std::to_string(app) + " " + word;
        else if (sscanf(text.c_str(), "no debug qel app %d %127s", &app, word) == 2)
            expected = "no debug " + std::to_string(app) + " " + word;
        else
            expected = text == "\n" ? "none" : "unknown";
        matched += expected != "unknown";
        ASSERT_EQ(parsed(text), expected) << "\"" << text << "\"";
    }
    EXPECT_GT(matched, 10000u);
}

// ---- what commands print --------------------------------------------------------------------------------

struct qel_cli : qeld_world {
    std::string command(const std::string &line) {
        qel_capture out;
        qel_cli_execute(qel_cli_parse((line + "\n").c_str()));
        return out.take();
    }
    // Two processes: 300 with 5 and 7, 4000 with 16384.
    void fill() {
        ASSERT_EQ(qeld_add_app_id(16384, 4000), 0);
        ASSERT_EQ(qeld_add_app_id(7, 300), 0);
        ASSERT_EQ(qeld_add_app_id(5, 300), 0);
        ASSERT_EQ(qeld_update_dbg_status(4000, 2), 0);
    }
    void SetUp() override { start(false); }
    static std::vector<qel_fake::call> sent() { return qel_fake::calls(qel_fake::op::sendto); }
};

TEST_F(qel_cli, help_is_nineteen_lines) {
    EXPECT_EQ(command("help"), help);
    EXPECT_EQ(std::count(help, help + sizeof help, '\n'), 19);
}

TEST_F(qel_cli, an_empty_line_prints_nothing) { EXPECT_EQ(command(""), ""); }

TEST_F(qel_cli, an_unknown_line_is_told_with_the_help) {
    EXPECT_EQ(command("show qel statusx"), std::string("% Unrecognized command.\n") + help);
}

TEST_F(qel_cli, the_status_of_an_empty_node_is_three_headings) {
    EXPECT_EQ(command("show qel status"), "QEL current node ID: 1.\n"
                                          "TIPC nodes within system:\n"
                                          "\n"
                                          "QEL node 1 application status:\n");
}

TEST_F(qel_cli, the_status_lists_nodes_processes_and_applications_ascending) {
    for (const uint32_t node : {65535u, 3u, 0u, 64u})
        qeld_set_node(node, true);
    fill();
    qel_set_masks(12);
    EXPECT_EQ(command("show qel status"), "QEL current node ID: 1.\n"
                                          "TIPC nodes within system: 0 3 64 65535\n"
                                          "\n"
                                          "QEL node 1 application status:\n"
                                          "  Process 300:\n"
                                          "    Debug level: none.\n"
                                          "    Applications: 5 7.\n"
                                          "  Process 4000:\n"
                                          "    Debug level: warn error.\n"
                                          "    Applications: 16384.\n");
}

TEST_F(qel_cli, the_debug_list_shows_the_daemons_own_words_for_any_level) {
    EXPECT_EQ(command("show debug"), "QEL debug status:\n");
    fill();
    EXPECT_EQ(command("show debug"), "QEL debug status:\n"
                                     "Process 300:\n"
                                     "  Debug level: none.\n"
                                     "  Applications: 5 7.\n"
                                     "Process 4000:\n"
                                     "  Debug level: .\n"
                                     "  Applications: 16384.\n");
    qel_set_masks(15);
    EXPECT_EQ(command("show debug"), "QEL debug status:\n"
                                     "Process 300:\n"
                                     "  Debug level: none.\n"
                                     "  Applications: 5 7.\n"
                                     "Process 4000:\n"
                                     "  Debug level: verbose info warn error.\n"
                                     "  Applications: 16384.\n");
}

TEST_F(qel_cli, a_process_id_beyond_int_is_printed_as_a_signed_number) {
    ASSERT_EQ(qeld_add_app_id(5, 0xFFFFFFFF), 0);
    EXPECT_EQ(command("show debug"),
              "QEL debug status:\nProcess -1:\n  Debug level: none.\n  Applications: 5.\n");
}

TEST_F(qel_cli, debug_all_goes_once_to_the_lowest_application_of_each_process) {
    fill();
    EXPECT_EQ(command("debug all"), "");
    ASSERT_EQ(sent().size(), 2u);
    EXPECT_EQ(sent()[0].app(), 5u);
    EXPECT_EQ(sent()[1].app(), 16384u);
    for (const qel_fake::call &c : sent())
        EXPECT_EQ(unwire(c.data).data, host_tlv(3, {4, 1}));
    EXPECT_EQ(registry(), "300:15:5,7 4000:15:16384");
    qel_fake::take_calls();
    EXPECT_EQ(command("no debug all"), "");
    ASSERT_EQ(sent().size(), 2u);
    for (const qel_fake::call &c : sent())
        EXPECT_EQ(unwire(c.data).data, host_tlv(3, {4, 0}));
    EXPECT_EQ(registry(), "300:0:5,7 4000:0:16384");
}

TEST_F(qel_cli, debug_all_tells_the_processes_that_it_did_not_reach_and_goes_on) {
    fill();
    qel_fake::fail_to(5, 1, EHOSTUNREACH, qel_fake::for_ever);
    EXPECT_EQ(command("debug all"), "% QEL start process 300 debug failed: Operation not permitted.\n");
    EXPECT_EQ(registry(), "300:0:5,7 4000:15:16384");
    EXPECT_EQ(command("no debug all"), "% QEL stop process 300 debug failed: Operation not permitted.\n");
    EXPECT_EQ(registry(), "300:0:5,7 4000:0:16384");
}

TEST_F(qel_cli, debug_all_passes_over_a_process_without_applications) {
    ASSERT_EQ(qeld_update_dbg_status(50, 1), 0);
    EXPECT_EQ(command("no debug all"), "");
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(registry(), "50:1:");
}

TEST_F(qel_cli, debug_all_is_told_in_the_log) {
    qel_set_masks(1);
    EXPECT_EQ(command("debug all"), qel_line("qel_cli", V, "QELD start all app's debug.\n"));
    EXPECT_EQ(command("no debug all"), qel_line("qel_cli", V, "QELD stop all app's debug.\n"));
}

TEST_F(qel_cli, a_debug_command_is_sent_recorded_and_silent) {
    fill();
    const std::vector<std::pair<std::string, uint32_t>> words = {
        {"verbose", 0}, {"info", 1}, {"warn", 2}, {"error", 3}, {"all", 4}};
    for (const auto &[word, level] : words) {
        qel_fake::take_calls();
        EXPECT_EQ(command("debug qel app 7 " + word), "");
        ASSERT_EQ(sent().size(), 1u);
        EXPECT_EQ(sent()[0].app(), 7u);
        EXPECT_EQ(sent()[0].node(), 1u);
        EXPECT_EQ(unwire(sent()[0].data).data, host_tlv(3, {level, 1}));
    }
    EXPECT_EQ(registry(), "300:15:5,7 4000:2:16384");
    qel_fake::take_calls();
    EXPECT_EQ(command("no debug qel app 5 warn"), "");
    EXPECT_EQ(unwire(sent().at(0).data).data, host_tlv(3, {2, 0}));
    EXPECT_EQ(registry(), "300:11:5,7 4000:2:16384");
}

TEST_F(qel_cli, a_debug_command_for_nobody_sends_nothing) {
    const std::string absent = "% QEL set application debug failed: application not exist.\n";
    EXPECT_EQ(command("debug qel app 5 all"), absent);
    EXPECT_EQ(command("no debug qel app 20479 info"), absent);
    EXPECT_EQ(command("debug qel app 9000 all"), "% Application ID 9000 invalid.\n");
    EXPECT_EQ(command("debug qel app 0 all"), "% Application ID 0 invalid.\n");
    EXPECT_EQ(command("debug qel app -1 all"), "% Application ID -1 invalid.\n");
    EXPECT_EQ(command("no debug qel app 20480 all"), "% Application ID 20480 invalid.\n");
    EXPECT_EQ(command("debug qel app 99999999999 all"), "% Application ID 2147483647 invalid.\n");
    EXPECT_TRUE(sent().empty());
}

TEST_F(qel_cli, an_unknown_level_is_an_unknown_command_whatever_the_application) {
    EXPECT_EQ(command("debug qel app 5 loud"), std::string("% Unrecognized command.\n") + help);
    EXPECT_EQ(command("debug qel app 9000 ALL"), std::string("% Unrecognized command.\n") + help);
}

TEST_F(qel_cli, a_debug_command_that_fails_is_told_and_not_recorded) {
    fill();
    qel_fake::fail_to(7, 1, EHOSTUNREACH);
    EXPECT_EQ(command("debug qel app 7 all"),
              "% QEL set application debug failed: Operation not permitted.\n");
    EXPECT_EQ(registry(), "300:0:5,7 4000:2:16384");
}

TEST_F(qel_cli, a_debug_command_is_told_in_the_log_once_it_is_known_to_be_possible) {
    fill();
    qel_set_masks(1);
    EXPECT_NE(command("debug qel app 7 error")
                  .find(qel_line("qel_cli", V, "QEL execute CLI: set app 7 debug 3 on 1.\n")),
              std::string::npos);
    EXPECT_EQ(command("no debug qel app 6 error"),
              "% QEL set application debug failed: application not exist.\n");
}

// ---- statistics -----------------------------------------------------------------------------------------

TEST_F(qel_cli, statistics_of_invalid_numbers_are_refused) {
    EXPECT_EQ(command("show qel app 8192 stat"), "% Application ID 8192 invalid.\n");
    EXPECT_EQ(command("show qel app 5/65536 stat"), "% Node ID 65536 invalid.\n");
    EXPECT_EQ(command("show qel app 5/-1 stat"), "% Node ID -1 invalid.\n");
    EXPECT_EQ(command("show qel app 0/-1 stat"), "% Application ID 0 invalid.\n");
    EXPECT_TRUE(sent().empty());
}

TEST_F(qel_cli, statistics_of_an_absent_application_fail_at_once) {
    qel_fake::fail_to(5, 1, EHOSTUNREACH);
    EXPECT_EQ(command("show qel app 5 stat"),
              "% QEL show application statistics failed: Operation not permitted.\n");
}

TEST_F(qel_cli, statistics_of_a_silent_application_time_out) {
    qel_time::auto_advance(true);
    const qel_time::enrolled me;
    EXPECT_EQ(command("show qel app 5/65535"), "% QEL show application statistics failed: RPC timeout.\n");
}

struct qel_cli_statistics : qel_cli {
    void SetUp() override {
        start(false);
        ASSERT_TRUE(run());
    }
    // What is printed when 5/3 answers with @data.
    std::string answered(const qel_fake::bytes &data, uint32_t status = 0) {
        qel_fake::take_calls();
        qel_capture out;
        std::thread console([] { qel_cli_execute(qel_cli_parse("show qel app 5/3 stat\n")); });
        EXPECT_TRUE(qel_time::wait_for([] { return !sent().empty(); }));
        deliver(1, wire({.flags = 0x0E,
                         .src_app = 5,
                         .src_node = 3,
                         .dst_app = 1,
                         .seq = unwire(sent().at(0).data).hdr.seq,
                         .status = status},
                        data));
        console.join();
        return out.take();
    }
};

TEST_F(qel_cli_statistics, the_text_comes_as_the_application_wrote_it) {
    const std::string text = "Line 1\n  50%% of %s\n\n";
    EXPECT_EQ(answered(to_bytes(text + '\0')), text);
}

TEST_F(qel_cli_statistics, a_text_without_a_terminator_ends_with_the_message) {
    EXPECT_EQ(answered(to_bytes("abc")), "abc");
    EXPECT_EQ(answered({}), "");
    EXPECT_EQ(answered(to_bytes(std::string("abc\0def", 7))), "abc");
    const std::string longest(65536, 'x');
    EXPECT_EQ(answered(to_bytes(longest)), longest);
}

TEST_F(qel_cli_statistics, an_error_status_is_told_by_its_text) {
    EXPECT_EQ(answered({}, 4), "% QEL show application statistics failed: systerm error.\n");
    EXPECT_EQ(answered(to_bytes("text"), 2),
              "% QEL show application statistics failed: application service unavailable.\n");
    EXPECT_EQ(answered({}, 77), "% QEL show application statistics failed: .\n");
}

TEST_F(qel_cli_statistics, the_request_is_told_in_the_log) {
    qel_set_masks(1);
    EXPECT_NE(
        answered(to_bytes("x")).find(qel_line("qel_cli", V, "QEL execute CLI: get app 5/3 statistics.\n")),
        std::string::npos);
}

// ---- the loop -------------------------------------------------------------------------------------------

// The leak check looks for the threads of the parent in a child that was only forked, and may hang over it.
static bool g_in_child = false;
extern "C" int __lsan_is_turned_off();
extern "C" int __lsan_is_turned_off() { return g_in_child; }

struct qel_cli_loop : qel_cli {
    // Runs the console in a child with @input; gives its exit status, and in @printed its standard output.
    int console(const std::string &input, std::string *printed = nullptr) {
        int in[2], out[2];
        EXPECT_EQ(pipe(in), 0);
        EXPECT_EQ(pipe(out), 0);
        EXPECT_EQ(write(in[1], input.data(), input.size()), static_cast<ssize_t>(input.size()));
        close(in[1]);
        EXPECT_TRUE(qel_time::settle()); // no thread is in the middle of anything that its copy would need
        fflush(stdout);
        const int fork_error = g_fork_error.exchange(0);
        const pid_t child = ::fork();
        if (child == 0) {
            g_in_child = true;
            g_fork_error = fork_error;
            dup2(in[0], STDIN_FILENO);
            dup2(out[1], STDOUT_FILENO);
            exit(qeld_cli_init() == -1 ? 99 : 98);
        }
        close(in[0]);
        close(out[1]);
        std::string all;
        char part[4096];
        ssize_t len;
        while ((len = read(out[0], part, sizeof part)) > 0)
            all.append(part, static_cast<size_t>(len));
        close(out[0]);
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        if (printed)
            *printed = all;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    // The same on a terminal that is always sane.
    std::string session(const std::string &input) {
        g_wait_status = 0;
        std::string printed;
        EXPECT_EQ(console(input, &printed), 1);
        return printed;
    }
    static constexpr char unknown[] = "% Unrecognized command.\n";
};

TEST_F(qel_cli_loop, it_begins_with_the_help_and_prompts_after_each_line) {
    EXPECT_EQ(session("\n\nshow debug\nquit\n"),
              std::string(help) + "(qel)(qel)(qel)QEL debug status:\n(qel)");
}

TEST_F(qel_cli_loop, quit_and_the_end_of_input_end_the_process_with_1) {
    EXPECT_EQ(session("quit\nshow debug\n"), std::string(help) + "(qel)");
    EXPECT_EQ(session(""), std::string(help) + "(qel)");
    EXPECT_EQ(session("\n"), std::string(help) + "(qel)(qel)");
}

TEST_F(qel_cli_loop, a_last_line_without_its_end_is_judged_as_it_stands) {
    EXPECT_EQ(session("quit"), std::string(help) + "(qel)" + unknown + help + "(qel)");
    EXPECT_EQ(session("debug qel app 9000 all"),
              std::string(help) + "(qel)% Application ID 9000 invalid.\n(qel)");
}

TEST_F(qel_cli_loop, a_long_line_is_taken_in_pieces_of_127) {
    // 127 blanks, then a command of its own
    EXPECT_EQ(session(std::string(127, ' ') + "show debug\n"),
              std::string(help) + "(qel)" + unknown + help + "(qel)QEL debug status:\n(qel)");
    EXPECT_EQ(session(std::string(127, 'x') + "\n"),
              std::string(help) + "(qel)" + unknown + help + "(qel)(qel)");
    EXPECT_EQ(session(std::string(126, 'x') + "\n"), std::string(help) + "(qel)" + unknown + help + "(qel)");
    EXPECT_EQ(session(std::string(127 * 3, 'x') + "\n"), std::string(help) + "(qel)" + unknown + help +
                                                             "(qel)" + unknown + help + "(qel)" + unknown +
                                                             help + "(qel)(qel)");
}

TEST_F(qel_cli_loop, a_nul_hides_the_rest_of_its_line_and_nothing_else) {
    EXPECT_EQ(session(std::string("quit\0\n\nshow debug\n", 18)),
              std::string(help) + "(qel)" + unknown + help + "(qel)(qel)QEL debug status:\n(qel)");
}

TEST_F(qel_cli_loop, start_up_is_told_in_the_log) {
    qel_set_masks(1);
    EXPECT_EQ(qel_without_line_numbers(session("quit\n")), qel_line("qel_cli", V, "QELD CLI init.\n") +
                                                               qel_line("qel_cli", V, "QELD CLI init OK.\n") +
                                                               help + "(qel)");
}

TEST_F(qel_cli_loop, the_terminal_is_set_up_by_stty_without_an_environment_and_must_succeed) {
    g_show_execve = true; // and fails
    std::string printed;
    EXPECT_EQ(console("show debug\n", &printed), 1);
    EXPECT_EQ(printed, "execve /bin/stty: stty sane, no environment\n");
}

TEST_F(qel_cli_loop, without_a_terminal_the_process_ends_with_1_before_any_prompt) {
    std::string printed;
    EXPECT_EQ(console("show debug\n", &printed), 1);
    EXPECT_EQ(printed, "");
}

TEST_F(qel_cli_loop, the_first_line_of_the_log_is_written_once) {
    qel_set_masks(1);
    std::string printed;
    EXPECT_EQ(console("", &printed), 1);
    EXPECT_EQ(qel_without_line_numbers(printed), qel_line("qel_cli", V, "QELD CLI init.\n"));
}

TEST_F(qel_cli_loop, a_failing_fork_ends_the_process_with_1) {
    g_fork_error = EAGAIN;
    std::string printed;
    EXPECT_EQ(console("", &printed), 1);
    EXPECT_EQ(printed, "");
}

TEST_F(qel_cli_loop, only_a_failing_wait_lets_the_console_return) {
    g_wait_error = ECHILD;
    EXPECT_EQ(console(""), 99);
}

TEST_F(qel_cli_loop, a_set_up_that_a_signal_ended_counts_as_done) {
    g_wait_status = SIGKILL; // no exit status: its second byte is 0
    std::string printed;
    EXPECT_EQ(console("", &printed), 1);
    EXPECT_EQ(printed, std::string(help) + "(qel)");
}
