// The daemon's start: options, one daemon per node, the order of its steps and what each failure gives.
#include "qeld_world.h"

#include <cerrno>
#include <cstdarg>
#include <dlfcn.h>
#include <fcntl.h>
#include <getopt.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

int qeld_main(int argc, char **argv);

// fcntl() with this command fails.
static int g_fcntl_cmd = -1, g_fcntl_error = 0;
extern "C" int fcntl(int fd, int cmd, ...) {
    static const auto real = reinterpret_cast<int (*)(int, int, ...)>(dlsym(RTLD_NEXT, "fcntl"));
    va_list args;
    va_start(args, cmd);
    void *arg = va_arg(args, void *);
    va_end(args);
    if (cmd == g_fcntl_cmd) {
        errno = g_fcntl_error;
        return -1;
    }
    return real(fd, cmd, arg);
}

static const char usage[] = "Usage: \n"
                            "       qeld [options]\n"
                            "  \n"
                            "  valid options:\n"
                            "  -pt                      Enable QEL performance testing functionality\n"
                            "  -help                    This usage list\n";

struct qeld : qeld_world {
    std::string pid_file = log_dir + "/qeld.pid";

    // main() with these arguments; what it printed.
    static int start_main(const std::vector<std::string> &args, std::string *printed = nullptr) {
        std::vector<std::string> words = {"qeld"};
        words.insert(words.end(), args.begin(), args.end());
        std::vector<char *> argv;
        argv.reserve(words.size() + 1);
        for (std::string &word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        optind = 0; // start over
        qel_capture out;
        const int status = qeld_main(static_cast<int>(words.size()), argv.data());
        if (printed)
            *printed = out.text();
        return status;
    }
    // In a process of its own; false when it ended otherwise than with 0.
    template <class Body> static bool in_child(Body body) {
        const pid_t child = fork();
        if (child == 0)
            _exit(body() ? 0 : 1);
        int status = -1;
        return waitpid(child, &status, 0) == child && status == 0;
    }
    void make_log_dir() const {
        for (const char *part : {"/velt", "/velt/dev", "/velt/dev/qel"})
            ASSERT_EQ(mkdir((dir + part).c_str(), 0777), 0);
    }
    std::string own_pid() const { return std::to_string(getpid()) + "\n"; }
    void fails_with(const std::string &line) const {
        qel_set_masks();
        qel_capture out;
        EXPECT_EQ(qeld_already_run(), 1u);
        EXPECT_EQ(out.take(), qel_line("qeld", X, "%s", line.c_str()));
    }
};

// ---- options --------------------------------------------------------------------------------------------

TEST_F(qeld, help_prints_the_usage_and_ends_with_0) {
    for (const char *option : {"-help", "--help", "-h", "-he", "--hel"}) {
        std::string printed;
        EXPECT_EQ(start_main({option}, &printed), 0) << option;
        EXPECT_EQ(printed, usage) << option;
    }
}

TEST_F(qeld, unknown_options_print_the_usage_and_end_with_minus_22) {
    for (const char *option : {"-x", "--x", "-pts", "-pt=1", "-helpme", "-?"}) {
        std::string printed;
        EXPECT_EQ(start_main({option}, &printed), -22) << option;
        EXPECT_EQ(printed, usage) << option;
    }
}

TEST_F(qeld, a_stray_argument_is_named_before_the_usage) {
    std::string printed;
    EXPECT_EQ(start_main({"foo"}, &printed), -22);
    EXPECT_EQ(printed, std::string("unexpected command argument 'foo'\n") + usage);
    EXPECT_EQ(start_main({"-pt", "a b", "c"}, &printed), -22);
    EXPECT_EQ(printed, std::string("unexpected command argument 'a b'\n") + usage);
    EXPECT_EQ(start_main({"--", "-help"}, &printed), -22);
    EXPECT_EQ(printed, std::string("unexpected command argument '-help'\n") + usage);
}

TEST_F(qeld, options_count_in_their_order) {
    EXPECT_EQ(start_main({"-help", "-x"}), 0);
    EXPECT_EQ(start_main({"-x", "-help"}), -22);
    EXPECT_EQ(start_main({"foo", "-help"}), 0);
}

// ---- one daemon per node --------------------------------------------------------------------------------

TEST_F(qeld, the_pid_file_holds_the_number_and_a_newline_and_is_open_to_all) {
    umask(0);
    EXPECT_EQ(qeld_already_run(), 0u);
    EXPECT_EQ(read_file(pid_file), own_pid());
    struct stat st {};
    ASSERT_EQ(stat(pid_file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0777u);
}

TEST_F(qeld, the_lock_holds_the_whole_file_as_long_as_the_process_lives) {
    EXPECT_EQ(qeld_already_run(), 0u);
    const int fd = open(pid_file.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(in_child([fd] {
        struct flock lock {};
        lock.l_type = F_WRLCK;
        lock.l_start = 1'000'000;
        lock.l_len = 1;
        return ::fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type == F_WRLCK && lock.l_pid == getppid();
    }));
    // the lock would go with the closing of any descriptor of the file: leave fd open
}

TEST_F(qeld, the_pid_file_is_closed_on_exec) {
    EXPECT_EQ(qeld_already_run(), 0u);
    bool found = false;
    for (int fd = 3; fd < 256; fd++) {
        char link[64], target[512] = "";
        snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
        if (readlink(link, target, sizeof target - 1) > 0 && pid_file == target) {
            found = true;
            EXPECT_TRUE(::fcntl(fd, F_GETFD) & FD_CLOEXEC);
        }
    }
    EXPECT_TRUE(found);
}

TEST_F(qeld, a_second_daemon_is_refused_and_changes_nothing) {
    EXPECT_EQ(qeld_already_run(), 0u);
    const std::string before = own_pid();
    EXPECT_TRUE(in_child([] {
        qel_set_masks();
        qel_capture out;
        return qeld_already_run() == 1 &&
               out.take() == qel_line("qeld", V, "QEL daemon had already running.\n");
    }));
    EXPECT_EQ(read_file(pid_file), before);
}

TEST_F(qeld, the_file_of_a_dead_daemon_is_taken_over) {
    make_log_dir();
    write_file(pid_file, "99999999\nand much more that somebody wrote there\n");
    ASSERT_EQ(chmod(pid_file.c_str(), 0600), 0);
    EXPECT_EQ(qeld_already_run(), 0u);
    EXPECT_EQ(read_file(pid_file), own_pid());
    struct stat st {};
    ASSERT_EQ(stat(pid_file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0777u);
}

TEST_F(qeld, a_daemon_that_died_leaves_its_file_and_no_lock) {
    EXPECT_TRUE(in_child([] { return qeld_already_run() == 0; }));
    EXPECT_NE(read_file(pid_file), "");
    EXPECT_EQ(qeld_already_run(), 0u);
    EXPECT_EQ(read_file(pid_file), own_pid());
}

TEST_F(qeld, without_a_directory_there_is_no_daemon_and_no_word) {
    write_file(dir + "/velt", "a file where the directory would be");
    qel_set_masks();
    qel_capture out;
    EXPECT_EQ(qeld_already_run(), 1u);
    EXPECT_EQ(out.text(), "");
}

TEST_F(qeld, a_directory_name_of_55_characters_has_room_for_the_file) {
    std::string base = dir + "/";
    base.append(55 - base.size(), 'd');
    ASSERT_EQ(setenv("VELT_DIR", base.c_str(), 1), 0);
    EXPECT_EQ(qeld_already_run(), 0u);
    EXPECT_EQ(read_file(base + "/dev/qel/qeld.pid"), own_pid());
}

TEST_F(qeld, a_link_in_place_of_the_file_is_not_followed) {
    make_log_dir();
    const std::string victim = dir + "/victim";
    write_file(victim, "precious");
    ASSERT_EQ(symlink(victim.c_str(), pid_file.c_str()), 0);
    fails_with("QELD open PID file " + pid_file + " failed: Too many levels of symbolic links.\n");
    EXPECT_EQ(read_file(victim), "precious");
}

TEST_F(qeld, a_hard_link_in_place_of_the_file_is_left_alone) {
    make_log_dir();
    const std::string victim = dir + "/victim";
    write_file(victim, "precious");
    ASSERT_EQ(chmod(victim.c_str(), 0600), 0);
    ASSERT_EQ(link(victim.c_str(), pid_file.c_str()), 0);
    fails_with("QELD open PID file " + pid_file + " failed: Too many links.\n");
    EXPECT_EQ(read_file(victim), "precious");
    struct stat st {};
    ASSERT_EQ(stat(victim.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
}

TEST_F(qeld, a_directory_in_place_of_the_file_is_told) {
    make_log_dir();
    ASSERT_EQ(mkdir(pid_file.c_str(), 0777), 0);
    fails_with("QELD open PID file " + pid_file + " failed: Is a directory.\n");
}

TEST_F(qeld, a_pipe_in_place_of_the_file_is_told_and_not_waited_for) {
    make_log_dir();
    ASSERT_EQ(mkfifo(pid_file.c_str(), 0777), 0);
    fails_with("QELD truncate PID file " + pid_file + " failed: Invalid argument.\n");
}

TEST_F(qeld, each_step_with_the_file_is_told_by_its_name) {
    g_fcntl_error = EIO;
    g_fcntl_cmd = F_GETFD;
    fails_with("QELD get PID file " + pid_file + " flags failed: Input/output error.\n");
    g_fcntl_cmd = F_SETFD;
    fails_with("QELD set PID file " + pid_file + " flags failed: Input/output error.\n");
    g_fcntl_cmd = F_SETLK;
    fails_with("QELD lock PID file " + pid_file + " failed: Input/output error.\n");
    g_fcntl_error = EACCES; // another daemon, as other systems say it
    qel_set_masks();
    qel_capture out;
    EXPECT_EQ(qeld_already_run(), 1u);
    EXPECT_EQ(out.take(), qel_line("qeld", V, "QEL daemon had already running.\n"));
}

TEST_F(qeld, a_file_that_cannot_be_written_is_told) {
    make_log_dir();
    ASSERT_NE(signal(SIGXFSZ, SIG_IGN), SIG_ERR);
    EXPECT_TRUE(in_child([this] {
        qel_set_masks();
        qel_capture out;
        const rlimit none = {0, RLIM_INFINITY}, all = {RLIM_INFINITY, RLIM_INFINITY};
        setrlimit(RLIMIT_FSIZE, &none);
        // what is printed must not fail to be written itself
        setvbuf(stdout, nullptr, _IOFBF, 65536);
        const bool refused = qeld_already_run() == 1;
        setrlimit(RLIMIT_FSIZE, &all);
        return refused &&
               out.take() ==
                   qel_line("qeld", X, "QELD write PID file %s failed: File too large.\n", pid_file.c_str());
    }));
}

// ---- the steps of main() --------------------------------------------------------------------------------

TEST_F(qeld, without_a_node_address_main_is_silent_and_gives_minus_1) {
    remove_node_address();
    std::string printed;
    EXPECT_EQ(start_main({}, &printed), -1);
    EXPECT_EQ(printed, "");
    EXPECT_EQ(list_dir(log_dir), std::vector<std::string>{}) << "nothing was begun";
}

TEST_F(qeld, main_refuses_to_be_the_second_daemon_silently_by_default) {
    EXPECT_EQ(qeld_already_run(), 0u);
    EXPECT_TRUE(in_child([] {
        std::string printed;
        return start_main({}, &printed) == -1 && printed.empty();
    }));
    set_conf("[MISC_CONF]\nqel_dbg_cfg=1\n");
    EXPECT_TRUE(in_child([] {
        std::string printed;
        if (start_main({}, &printed) != -1)
            return false;
        const std::string told = qel_line("qeld", V, "QEL daemon had already running.\n") +
                                 qel_line("qeld", V, "QELD has already running.\n");
        return printed.size() > told.size() && printed.substr(printed.size() - told.size()) == told;
    }));
}

TEST_F(qeld, a_failing_registration_ends_main_with_minus_1_and_the_file_stays) {
    set_conf("[MISC_CONF]\nqel_dbg_cfg=8\n");
    qel_fake::fail(qel_fake::op::connect, ECONNREFUSED);
    std::string printed;
    EXPECT_EQ(start_main({}, &printed), -1);
    const std::string told = qel_line("qeld", X, "QELD register to QEL failed.\n");
    EXPECT_EQ(printed.substr(printed.size() - told.size()), told);
    EXPECT_EQ(read_file(pid_file), own_pid());
}

TEST_F(qeld, an_event_thread_that_cannot_be_made_ends_main_with_minus_1) {
    set_conf("[MISC_CONF]\nqel_dbg_cfg=8\n");
    qel_time::fail(qel_time::sys::thread_create, EAGAIN, 3); // behind the library's and the application's
    std::string printed;
    EXPECT_EQ(start_main({}, &printed), -1);
    EXPECT_EQ(printed, qel_line("qeld", X,
                                "QELD create event process thread failed: Resource temporarily "
                                "unavailable.\n") +
                           qel_line("qeld", X, "QELD init event management failed.\n"));
}

static void run_main_without_terminal() {
    dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
    atexit([] { // as far as main() came
        const qel_app_info *info = qel_get_app_info(1);
        fprintf(stderr, "%s, priority %d, thread %d, %s, umask %o\n", info ? info->name : "none",
                info ? info->priority : -1, info ? info->thread_flag : -1,
                qel_fake::calls(qel_fake::op::socket).size() >= 2 ? "sockets" : "no sockets", umask(0));
    });
    char name[] = "qeld", *argv[] = {name, nullptr};
    (void)qeld_main(1, argv);
}

TEST_F(qeld, main_registers_the_daemon_and_ends_with_the_console) {
    umask(077);
    // standard input is no terminal: the console's first step ends the process
    ASSERT_EXIT(run_main_without_terminal(), testing::ExitedWithCode(1),
                "qel_daemon, priority 0, thread 1, sockets, umask 0\n$");
}
