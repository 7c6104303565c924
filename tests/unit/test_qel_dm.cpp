#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "qel_capture.h"
#include "qel_dm.h"
#include "qel_fake_time.h"
#include "qel_node.h"
#define QEL_LOG_SRC "test_src"
#include "qel_log.h"

// ---- calls of the C library that fail or count on demand ------------------------------------------------

static bool g_fseek_fails = false;
static int g_fsyncs = 0;

extern "C" {
int fseek(FILE *file, long offset, int whence) {
    if (g_fseek_fails) {
        errno = EIO;
        return -1;
    }
    return fseeko(file, offset, whence);
}
int fsync(int fd) {
    g_fsyncs++;
    return static_cast<int>(syscall(SYS_fsync, fd));
}
}

namespace fs = std::filesystem;

namespace {

constexpr char stamp[] = "20240102-030405"; // of the virtual wall clock, in UTC

std::string program() { return fs::read_symlink("/proc/self/exe").filename(); }
std::string stem() { return program() + "-" + std::to_string(getpid()) + "-" + stamp; }
unsigned mode_of(const std::string &path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

struct dm : qel_node {
    dm() {
        qel_time::install();
        qel_set_masks(0, 0xF);
        setenv("TZ", "QEL-5", 1); // five hours east of UTC
        tzset();
    }
    ~dm() override { qel_dm_close_files(); }
    std::string log_path() const { return log_dir + "/log-" + stem(); }
    std::string stat_path() const { return log_dir + "/stat-" + stem(); }
    static void use_base(const std::string &base) { setenv("VELT_DIR", base.c_str(), 1); }
    // A directory whose name has @length characters, its parent there, itself not.
    std::string base_of_length(size_t length) const {
        std::string base = dir + "/";
        base.append(length - base.size(), 'b');
        return base;
    }
};

// ---- the directory --------------------------------------------------------------------------------------

TEST_F(dm, the_directory_is_dev_qel_below_the_variable_with_every_missing_level_made) {
    umask(0);
    char buf[64];
    EXPECT_EQ(qel_make_log_dir(buf, sizeof buf), 0);
    EXPECT_EQ(std::string(buf), dir + "/velt/dev/qel");
    EXPECT_EQ(mode_of(dir + "/velt"), 0777u);
    EXPECT_EQ(mode_of(dir + "/velt/dev"), 0777u);
    EXPECT_EQ(mode_of(dir + "/velt/dev/qel"), 0777u);
    EXPECT_EQ(qel_make_log_dir(buf, sizeof buf), 0) << "existing ones are fine";
}

TEST_F(dm, the_modes_of_the_directories_obey_the_umask) {
    umask(027);
    char buf[64];
    EXPECT_EQ(qel_make_log_dir(buf, sizeof buf), 0);
    EXPECT_EQ(mode_of(dir + "/velt/dev/qel"), 0750u);
}

TEST_F(dm, without_the_variable_it_is_velt) {
    // in a root of its own, so that this host's /velt stays untouched
    const pid_t child = fork();
    if (child == 0) {
        unsetenv("VELT_DIR");
        char buf[64];
        if (chroot(dir.c_str()) != 0 || chdir("/") != 0)
            _exit(77);
        const int ret = qel_make_log_dir(buf, sizeof buf);
        _exit(ret == 0 && strcmp(buf, "/velt/dev/qel") == 0 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 77)
        GTEST_SKIP() << "only root may change the root directory";
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_TRUE(fs::is_directory(dir + "/velt/dev/qel"));
}

TEST_F(dm, a_base_of_55_characters_works) {
    const std::string base = base_of_length(55);
    use_base(base);
    char buf[64];
    EXPECT_EQ(qel_make_log_dir(buf, sizeof buf), 0);
    EXPECT_EQ(std::string(buf), base + "/dev/qel");
    EXPECT_TRUE(fs::is_directory(base + "/dev/qel"));
}

TEST_F(dm, a_base_of_56_characters_fails_but_is_created) {
    const std::string base = base_of_length(56);
    use_base(base);
    char buf[64];
    EXPECT_EQ(qel_make_log_dir(buf, sizeof buf), -1);
    EXPECT_TRUE(fs::is_directory(base));
    EXPECT_FALSE(fs::exists(base + "/dev"));
}

TEST_F(dm, an_endless_base_is_cut_to_63_characters_created_and_refused) {
    const std::string base = base_of_length(300);
    use_base(base);
    char buf[64];
    EXPECT_EQ(qel_make_log_dir(buf, sizeof buf), -1);
    EXPECT_TRUE(fs::is_directory(base.substr(0, 63)));
    EXPECT_FALSE(fs::exists(base.substr(0, 64)));
}

TEST_F(dm, of_the_base_only_the_last_component_is_created) {
    use_base(dir + "/missing/base");
    char buf[64];
    EXPECT_EQ(qel_make_log_dir(buf, sizeof buf), -1);
    EXPECT_FALSE(fs::exists(dir + "/missing"));
}

TEST_F(dm, an_empty_base_fails) {
    use_base("");
    char buf[64];
    EXPECT_EQ(qel_make_log_dir(buf, sizeof buf), -1);
}

TEST_F(dm, a_file_in_the_place_of_a_directory_fails) {
    write_file(dir + "/velt", "");
    char buf[64];
    EXPECT_EQ(qel_make_log_dir(buf, sizeof buf), -1);
    fs::remove(dir + "/velt");
    fs::create_directories(dir + "/velt");
    write_file(dir + "/velt/dev", "");
    EXPECT_EQ(qel_make_log_dir(buf, sizeof buf), -1);
}

TEST_F(dm, a_link_to_nowhere_in_the_place_of_a_directory_fails) {
    fs::create_directories(dir + "/velt/dev");
    fs::create_symlink(dir + "/nowhere", dir + "/velt/dev/qel");
    char buf[64];
    EXPECT_EQ(qel_make_log_dir(buf, sizeof buf), -1);
    EXPECT_FALSE(fs::exists(dir + "/nowhere"));
}

TEST_F(dm, the_directory_fits_a_buffer_of_its_size_exactly) {
    const std::string want = dir + "/velt/dev/qel";
    std::vector<char> buf(want.size() + 1);
    EXPECT_EQ(qel_make_log_dir(buf.data(), buf.size()), 0);
    EXPECT_EQ(std::string(buf.data()), want);
    EXPECT_EQ(qel_make_log_dir(buf.data(), buf.size() - 1), -1);
}

// ---- opening --------------------------------------------------------------------------------------------

TEST_F(dm, opens_a_log_and_a_statistics_file_named_by_program_process_and_utc_time) {
    qel_dm_init();
    EXPECT_EQ(list_dir(log_dir), (std::vector<std::string>{"log-" + stem(), "stat-" + stem()}));
    EXPECT_NE(g_qel_log_fp, nullptr);
    EXPECT_NE(g_qel_stat_fp, nullptr);
    EXPECT_EQ(g_qel_log_offset, 0u);
}

TEST_F(dm, both_files_have_mode_0777_whatever_the_umask_and_are_closed_on_exec) {
    umask(077);
    qel_dm_init();
    EXPECT_EQ(mode_of(log_path()), 0777u);
    EXPECT_EQ(mode_of(stat_path()), 0777u);
    EXPECT_EQ(fcntl(fileno(g_qel_log_fp), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(fileno(g_qel_stat_fp), F_GETFD), FD_CLOEXEC);
}

TEST_F(dm, an_existing_file_of_the_name_is_truncated) {
    fs::create_directories(log_dir);
    write_file(log_path(), "old");
    write_file(stat_path(), "old");
    qel_dm_init();
    EXPECT_EQ(read_file(log_path()), "");
    EXPECT_EQ(read_file(stat_path()), "");
}

TEST_F(dm, without_a_directory_nothing_is_opened_and_nothing_said) {
    qel_set_masks(0xF, 0xF);
    use_base("");
    qel_capture out;
    qel_dm_init();
    EXPECT_EQ(g_qel_log_fp, nullptr);
    EXPECT_EQ(g_qel_stat_fp, nullptr);
    EXPECT_EQ(out.raw(), "");
}

TEST_F(dm, each_file_that_cannot_be_opened_is_told_and_the_other_one_opened) {
    qel_set_masks(0xF, 0);
    fs::create_directories(log_path());
    qel_capture out;
    qel_dm_init();
    EXPECT_EQ(out.take(), qel_line("qel_dm", X, "QEL open debug log file %s failed: Is a directory.\n",
                                   log_path().c_str()));
    EXPECT_EQ(g_qel_log_fp, nullptr);
    EXPECT_NE(g_qel_stat_fp, nullptr);
    qel_dm_close_files();
    fs::remove(log_path());
    fs::remove(stat_path());
    fs::create_directories(stat_path());
    qel_dm_init();
    EXPECT_EQ(out.take(),
              qel_line("qel_dm", X, "QEL open stat file %s failed: Is a directory.\n", stat_path().c_str()));
    EXPECT_NE(g_qel_log_fp, nullptr);
    EXPECT_EQ(g_qel_stat_fp, nullptr);
}

TEST_F(dm, a_planted_link_is_not_followed) {
    qel_set_masks(0xF, 0);
    write_file(dir + "/victim", "precious");
    fs::create_directories(log_dir);
    fs::create_symlink(dir + "/victim", log_path());
    fs::create_symlink(dir + "/victim", stat_path());
    qel_capture out;
    qel_dm_init();
    EXPECT_EQ(read_file(dir + "/victim"), "precious");
    EXPECT_EQ(out.take(),
              qel_line("qel_dm", X, "QEL open debug log file %s failed: Too many levels of symbolic links.\n",
                       log_path().c_str()) +
                  qel_line("qel_dm", X, "QEL open stat file %s failed: Too many levels of symbolic links.\n",
                           stat_path().c_str()));
}

TEST_F(dm, a_planted_hard_link_is_left_alone) {
    qel_set_masks(0xF, 0);
    write_file(dir + "/victim", "precious");
    fs::permissions(dir + "/victim", fs::perms::owner_read | fs::perms::owner_write);
    fs::create_directories(log_dir);
    fs::create_hard_link(dir + "/victim", log_path());
    fs::create_hard_link(dir + "/victim", stat_path());
    qel_capture out;
    qel_dm_init();
    EXPECT_EQ(
        out.take(),
        qel_line("qel_dm", X, "QEL open debug log file %s failed: Too many links.\n", log_path().c_str()) +
            qel_line("qel_dm", X, "QEL open stat file %s failed: Too many links.\n", stat_path().c_str()));
    EXPECT_EQ(read_file(dir + "/victim"), "precious");
    EXPECT_EQ(mode_of(dir + "/victim"), 0600u);
}

TEST_F(dm, a_planted_pipe_does_not_stop_the_process) {
    qel_set_masks(0xF, 0);
    fs::create_directories(log_dir);
    ASSERT_EQ(mkfifo(log_path().c_str(), 0777), 0);
    qel_capture out;
    qel_dm_init();
    EXPECT_EQ(out.take(),
              qel_line("qel_dm", X, "QEL open debug log file %s failed: No such device or address.\n",
                       log_path().c_str()));
    EXPECT_EQ(g_qel_log_fp, nullptr);
}

// Its reader could go at any time, and the next line would end the process by SIGPIPE.
TEST_F(dm, a_planted_pipe_with_a_reader_is_not_written_to) {
    qel_set_masks(0xF, 0);
    fs::create_directories(log_dir);
    ASSERT_EQ(mkfifo(log_path().c_str(), 0777), 0);
    ASSERT_EQ(mkfifo(stat_path().c_str(), 0777), 0);
    const int log_reader = open(log_path().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const int stat_reader = open(stat_path().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(log_reader, 0);
    ASSERT_GE(stat_reader, 0);
    qel_capture out;
    qel_dm_init();
    EXPECT_EQ(
        out.take(),
        qel_line("qel_dm", X, "QEL open debug log file %s failed: Invalid argument.\n", log_path().c_str()) +
            qel_line("qel_dm", X, "QEL open stat file %s failed: Invalid argument.\n", stat_path().c_str()));
    EXPECT_EQ(g_qel_log_fp, nullptr);
    EXPECT_EQ(g_qel_stat_fp, nullptr);
    close(log_reader);
    close(stat_reader);
}

// ---- old files ------------------------------------------------------------------------------------------

struct dm_old : dm {
    dm_old() { fs::create_directories(log_dir); }
    // Files <prefix>0 (the oldest) to <prefix>count-1.
    void make_old(const std::string &prefix, int count) const {
        for (int i = 0; i < count; i++)
            make_one(prefix + std::to_string(i), i);
    }
    void make_one(const std::string &name, int age_order) const {
        const std::string path = log_dir + "/" + name;
        write_file(path, name);
        const timespec times[2] = {{1000, 0}, {1'600'000'000 + age_order / 2, age_order % 2 * 1000}};
        utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
    }
};

TEST_F(dm_old, of_seven_older_files_of_each_kind_the_five_newest_and_the_new_one_remain) {
    make_old("log-" + program() + "-", 7);
    make_old("stat-" + program() + "-", 7);
    qel_dm_init();
    std::vector<std::string> expected = {"log-" + stem(), "stat-" + stem()};
    for (int i = 2; i < 7; i++) {
        expected.push_back("log-" + program() + "-" + std::to_string(i));
        expected.push_back("stat-" + program() + "-" + std::to_string(i));
    }
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(list_dir(log_dir), expected);
}

TEST_F(dm_old, five_stay_and_of_six_the_oldest_goes) {
    make_old("log-p", 5);
    qel_dm_remove_obsolete_files(log_dir.c_str(), "log-p");
    EXPECT_EQ(list_dir(log_dir).size(), 5u);
    make_one("log-p5", 5);
    qel_dm_remove_obsolete_files(log_dir.c_str(), "log-p");
    EXPECT_EQ(list_dir(log_dir),
              (std::vector<std::string>{"log-p1", "log-p2", "log-p3", "log-p4", "log-p5"}));
}

TEST_F(dm_old, the_modification_time_decides_down_to_the_nanosecond_not_the_name) {
    for (int i = 0; i < 9; i++)
        make_one("log-" + std::to_string(9 - i), i);
    qel_dm_remove_obsolete_files(log_dir.c_str(), "log-");
    EXPECT_EQ(list_dir(log_dir), (std::vector<std::string>{"log-1", "log-2", "log-3", "log-4", "log-5"}));
}

TEST_F(dm_old, of_equally_old_files_five_stay) {
    for (int i = 0; i < 10; i++)
        make_one("log-" + std::to_string(i), 0);
    qel_dm_remove_obsolete_files(log_dir.c_str(), "log-");
    EXPECT_EQ(list_dir(log_dir).size(), 5u);
}

TEST_F(dm_old, at_most_25_files_are_looked_at) {
    make_old("log-", 40);
    qel_dm_remove_obsolete_files(log_dir.c_str(), "log-");
    EXPECT_EQ(list_dir(log_dir).size(), 20u) << "20 of 25 are gone, 15 were not considered";
}

TEST_F(dm_old, another_programs_files_that_begin_alike_count_too) {
    make_old("log-qeld-", 6);
    make_old("log-qel-", 1);
    make_old("log-other-", 6);
    qel_dm_remove_obsolete_files(log_dir.c_str(), "log-qel");
    const std::vector<std::string> left = list_dir(log_dir);
    EXPECT_EQ(left.size(), 11u);
    EXPECT_EQ(std::count_if(left.begin(), left.end(), [](auto &n) { return n.rfind("log-other-", 0) == 0; }),
              6);
}

TEST_F(dm_old, only_regular_files_are_counted_or_removed) {
    make_old("log-", 5);
    fs::create_directories(log_dir + "/log-dir");
    fs::create_symlink(log_dir + "/log-0", log_dir + "/log-link");
    ASSERT_EQ(mkfifo((log_dir + "/log-pipe").c_str(), 0600), 0);
    qel_dm_remove_obsolete_files(log_dir.c_str(), "log-");
    EXPECT_EQ(list_dir(log_dir).size(), 8u);
    make_one("log-9", 9);
    qel_dm_remove_obsolete_files(log_dir.c_str(), "log-");
    EXPECT_EQ(list_dir(log_dir), (std::vector<std::string>{"log-1", "log-2", "log-3", "log-4", "log-9",
                                                           "log-dir", "log-link", "log-pipe"}));
}

TEST_F(dm_old, only_paths_within_127_characters_are_considered) {
    make_old("log-", 5);
    const size_t name_127 = 127 - log_dir.size() - 1;
    make_one("log-" + std::string(name_127 + 1 - 4, 'x'), 0);
    qel_dm_remove_obsolete_files(log_dir.c_str(), "log-");
    EXPECT_EQ(list_dir(log_dir).size(), 6u) << "128 characters: not seen";
    make_one("log-" + std::string(name_127 - 4, 'y'), 9);
    qel_dm_remove_obsolete_files(log_dir.c_str(), "log-");
    EXPECT_EQ(list_dir(log_dir).size(), 6u) << "127 characters: counted, and log-0 has to go";
    EXPECT_FALSE(fs::exists(log_dir + "/log-0"));
}

TEST_F(dm_old, a_directory_that_is_not_there_is_no_trouble) {
    qel_dm_remove_obsolete_files((dir + "/missing").c_str(), "log-");
    EXPECT_FALSE(fs::exists(dir + "/missing"));
}

// ---- the log file ---------------------------------------------------------------------------------------

TEST_F(dm, a_line_stands_in_the_file_at_once_behind_the_local_time) {
    qel_dm_init();
    QEL_ERROR("QEL first.\n");
    const std::string prefix = "Tue Jan  2 08:04:05 2024 ";
    EXPECT_EQ(qel_without_line_numbers(read_file(log_path())),
              prefix + qel_line("test_src", X, "QEL first.\n"));
    QEL_INFO("QEL second.\n");
    EXPECT_EQ(qel_without_line_numbers(read_file(log_path())),
              prefix + qel_line("test_src", X, "QEL first.\n") + prefix +
                  qel_line("test_src", I, "QEL second.\n"));
    EXPECT_EQ(g_qel_log_offset, read_file(log_path()).size());
}

TEST_F(dm, each_mask_decides_for_its_own_destination) {
    qel_dm_init();
    qel_capture out;
    std::string printed, logged;
    for (uint32_t debug = 0; debug < 16; debug++)
        for (uint32_t log = 0; log < 16; log++) {
            qel_set_masks(debug, log);
            QEL_VERBOSE("0\n");
            QEL_INFO("1\n");
            QEL_WARN("2\n");
            QEL_ERROR("3\n");
            for (int level = 0; level < 4; level++) {
                if (debug >> level & 1)
                    printed += qel_line("test_src", level, "%d\n", level);
                if (log >> level & 1)
                    logged += "Tue Jan  2 08:04:05 2024 " + qel_line("test_src", level, "%d\n", level);
            }
        }
    EXPECT_EQ(out.text(), printed);
    EXPECT_EQ(qel_without_line_numbers(read_file(log_path())), logged);
}

TEST_F(dm, with_debug_mask_8_and_log_mask_0_an_error_is_printed_and_not_logged) {
    qel_dm_init();
    qel_set_masks(0x8, 0);
    qel_capture out;
    QEL_ERROR("QEL error.\n");
    QEL_VERBOSE("QEL verbose.\n");
    EXPECT_EQ(out.text(), qel_line("test_src", X, "QEL error.\n"));
    EXPECT_EQ(read_file(log_path()), "");
}

TEST_F(dm, a_logged_line_is_cut_like_a_printed_one) {
    qel_dm_init();
    QEL_INFO("%s\n", std::string(600, 'a').c_str());
    fflush(g_qel_log_fp); // without its newline it waits for company
    EXPECT_EQ(read_file(log_path()).size(), 25u + 511);
}

TEST_F(dm, after_99999_bytes_the_next_line_is_at_the_start_and_what_lies_behind_stays) {
    qel_dm_init();
    for (int i = 0; i < 999; i++) // 100 bytes each, with the time
        qel_dm_record_log((std::string(74, 'x') + "\n").c_str());
    ASSERT_EQ(g_qel_log_offset, 99'900u);
    qel_dm_record_log((std::string(73, 'y') + "\n").c_str());
    ASSERT_EQ(g_qel_log_offset, 99'999u);
    qel_dm_record_log("still at the end\n");
    const std::string full = read_file(log_path());
    EXPECT_EQ(full.size(), 99'999u + 25 + 17);
    qel_dm_record_log("at the start again\n");
    const std::string line = "Tue Jan  2 08:04:05 2024 at the start again\n";
    EXPECT_EQ(g_qel_log_offset, line.size());
    const std::string now = read_file(log_path());
    EXPECT_EQ(now.substr(0, line.size()), line);
    EXPECT_EQ(now.substr(line.size()), full.substr(line.size())) << "a ring, not a new file";
}

TEST_F(dm, a_seek_that_fails_keeps_the_line_out_and_the_offset) {
    qel_dm_init();
    qel_dm_record_log("one\n");
    g_qel_log_offset = 100'000;
    g_fseek_fails = true;
    qel_dm_record_log("two\n");
    EXPECT_EQ(g_qel_log_offset, 100'000u);
    EXPECT_EQ(read_file(log_path()), "Tue Jan  2 08:04:05 2024 one\n");
    g_fseek_fails = false;
    qel_dm_record_log("six\n");
    EXPECT_EQ(read_file(log_path()), "Tue Jan  2 08:04:05 2024 six\n");
}

TEST_F(dm, without_a_log_file_a_line_goes_nowhere) {
    qel_dm_record_log("nowhere\n");
    EXPECT_EQ(g_qel_log_offset, 0u);
}

TEST_F(dm, lines_of_several_threads_stay_whole) {
    qel_dm_init();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([t] {
            for (int i = 0; i < 200; i++)
                QEL_INFO("QEL thread %d line %d %s.\n", t, i,
                         std::string(static_cast<size_t>(t) * 20, 'x').c_str());
        });
    for (std::thread &t : threads)
        t.join();
    const std::string all = qel_without_line_numbers(read_file(log_path()));
    size_t lines = 0, begin = 0;
    while (begin < all.size()) {
        const size_t end = all.find('\n', begin);
        ASSERT_NE(end, std::string::npos);
        const std::string line = all.substr(begin, end - begin);
        ASSERT_EQ(line.find("Tue Jan  2 08:04:05 2024 <test_src> 1: QEL thread "), 0u) << line;
        ASSERT_EQ(line.back(), '.') << line;
        begin = end + 1;
        lines++;
    }
    EXPECT_EQ(lines, 800u);
}

// ---- closing --------------------------------------------------------------------------------------------

TEST_F(dm, closing_flushes_syncs_and_forgets_both_files) {
    qel_dm_init();
    QEL_INFO("QEL last.\n");
    g_fsyncs = 0;
    qel_dm_close_files();
    EXPECT_EQ(g_fsyncs, 1) << "the log file";
    EXPECT_EQ(g_qel_log_fp, nullptr);
    EXPECT_EQ(g_qel_stat_fp, nullptr);
    const std::string logged = read_file(log_path());
    EXPECT_NE(logged, "");
    QEL_INFO("QEL too late.\n");
    qel_lock lock(g_print_mutex);
    qel_buf_printf_reset();
    qel_dm_record_stat();
    EXPECT_EQ(read_file(log_path()), logged);
    EXPECT_EQ(read_file(stat_path()), "");
    qel_dm_close_files();
}

// ---- the print buffer -----------------------------------------------------------------------------------

struct dm_print : dm {
    dm_print() { g_print_mutex.lock(); }
    ~dm_print() override { g_print_mutex.unlock(); }
    static std::string text() { return static_cast<const char *>(qel_msg_const_data(g_print_msg)); }
    static void fill(size_t bytes) {
        for (; bytes > 100; bytes -= 100)
            qel_buf_printf("%s", std::string(100, 'f').c_str());
        qel_buf_printf("%s", std::string(bytes, 'f').c_str());
    }
};
constexpr char notice[] = "*** PRINT BUFFER STRING OVERFLOW ***\n";

TEST_F(dm_print, a_reset_empties_link_header_and_text) {
    qel_buf_printf_reset();
    qel_buf_printf("something");
    memset(static_cast<void *>(g_print_msg), 0xFF, sizeof(qel_link) + QEL_MSG_HDR_LEN);
    qel_buf_printf_reset();
    EXPECT_EQ(g_print_msg->hdr.len, 37u);
    EXPECT_EQ(text(), "");
    EXPECT_EQ(g_print_msg->link.next, nullptr);
    EXPECT_EQ(g_print_msg->link.prev, nullptr);
    EXPECT_EQ(g_print_msg->hdr.version, 0);
    EXPECT_EQ(g_print_msg->hdr.app_ver, 0u);
    EXPECT_EQ(g_print_msg->hdr.flags, 0);
    EXPECT_EQ(g_print_msg->hdr.qos, 0);
    EXPECT_EQ(g_print_msg->hdr.src_app, 0u);
    EXPECT_EQ(g_print_msg->hdr.seq, 0u);
    EXPECT_EQ(g_print_msg->hdr.rpc_status, 0u);
}

TEST_F(dm_print, pieces_follow_each_other_and_the_length_counts_them_and_one_terminator) {
    qel_buf_printf_reset();
    qel_buf_printf("one %d", 1);
    EXPECT_EQ(g_print_msg->hdr.len, 37u + 5);
    qel_buf_printf("%s", "");
    qel_buf_printf(", two %s\n", "2");
    EXPECT_EQ(text(), "one 1, two 2\n");
    EXPECT_EQ(g_print_msg->hdr.len, 37u + 13);
}

TEST_F(dm_print, a_piece_is_cut_at_255_characters) {
    qel_buf_printf_reset();
    qel_buf_printf("%s", std::string(300, 'p').c_str());
    EXPECT_EQ(text(), std::string(255, 'p'));
    EXPECT_EQ(g_print_msg->hdr.len, 37u + 255);
}

TEST_F(dm_print, a_text_that_fills_the_buffer_exactly_has_no_notice) {
    qel_buf_printf_reset();
    fill(16368 - 37);
    EXPECT_EQ(g_print_msg->hdr.len, 16368u);
    EXPECT_EQ(text(), std::string(16368 - 37, 'f'));
    qel_buf_printf("%s", "");
    EXPECT_EQ(text(), std::string(16368 - 37, 'f')) << "an empty piece fits always";
}

TEST_F(dm_print, a_text_that_passes_the_end_is_cut_and_begins_with_the_notice) {
    qel_buf_printf_reset();
    fill(16368 - 37 - 10);
    qel_buf_printf("0123456789abc");
    EXPECT_EQ(g_print_msg->hdr.len, 16368u);
    const std::string t = text();
    EXPECT_EQ(t.size(), 16368u - 37);
    EXPECT_EQ(t.substr(0, 37), notice);
    EXPECT_EQ(t[37], 'f') << "written over the start, without a terminator";
    EXPECT_EQ(t.substr(t.size() - 11), "f0123456789");
}

TEST_F(dm_print, a_full_buffer_stays_full_and_takes_nothing_more) {
    qel_buf_printf_reset();
    fill(16368 - 37);
    for (int i = 0; i < 100; i++)
        qel_buf_printf("more %d", i);
    EXPECT_EQ(g_print_msg->hdr.len, 16368u);
    EXPECT_EQ(text(), notice + std::string(16368 - 37 - 37, 'f'));
    qel_buf_printf_reset();
    EXPECT_EQ(text(), "");
}

TEST_F(dm_print, an_answer_to_what_is_no_request_is_refused) {
    qel_buf_printf_reset();
    qel_msg *msg = qel_msg_alloc(0, 1, 0);
    qel_set_masks(0xF, 0);
    qel_capture out;
    EXPECT_EQ(qel_buf_printf_reply(msg), -22);
    EXPECT_TRUE(out.has(qel_line("qel_user_proxy", W, "QEL reply msg src is not RPC.\n")));
    free(msg);
}

// ---- the statistics file --------------------------------------------------------------------------------

TEST_F(dm_print, a_snapshot_is_the_local_time_the_text_and_its_terminator) {
    qel_dm_init();
    qel_buf_printf_reset();
    qel_buf_printf("snapshot\n");
    g_fsyncs = 0;
    qel_dm_record_stat();
    EXPECT_EQ(read_file(stat_path()), std::string("Tue Jan  2 08:04:05 2024\nsnapshot\n") + '\0');
    EXPECT_EQ(g_fsyncs, 1);
}

TEST_F(dm_print, a_shorter_snapshot_leaves_nothing_of_the_longer_one) {
    qel_dm_init();
    qel_buf_printf_reset();
    fill(10'000);
    qel_dm_record_stat();
    EXPECT_EQ(read_file(stat_path()).size(), 25u + 10'001);
    qel_time::advance(std::chrono::seconds(60));
    qel_buf_printf_reset();
    qel_dm_record_stat();
    EXPECT_EQ(read_file(stat_path()), std::string("Tue Jan  2 08:05:05 2024\n") + '\0');
}

TEST_F(dm_print, without_a_statistics_file_a_snapshot_goes_nowhere) {
    qel_set_masks(0xF, 0);
    qel_buf_printf_reset();
    qel_capture out;
    qel_dm_record_stat();
    EXPECT_EQ(out.raw(), "");
}

struct dm_stat_failure : dm_print {
    qel_capture out;
    dm_stat_failure() {
        qel_set_masks(0xF, 0);
        qel_buf_printf_reset();
        qel_buf_printf("text");
    }
    static void use(int fd) {
        if (g_qel_stat_fp)
            fclose(g_qel_stat_fp);
        g_qel_stat_fp = fdopen(fd, "w");
    }
    void expect_closed_after(const char *text) {
        qel_dm_record_stat();
        EXPECT_EQ(out.take(), qel_line("qel_dm", X, "%s", text));
        EXPECT_EQ(g_qel_stat_fp, nullptr);
        qel_dm_record_stat();
        EXPECT_EQ(out.take(), "") << "no later snapshot";
    }
};

TEST_F(dm_stat_failure, of_the_truncation_closes_the_file_for_good) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    use(ends[1]);
    expect_closed_after("QEL truncate stat file failed: Invalid argument.\n");
    EXPECT_EQ(fcntl(ends[1], F_GETFD), -1) << "really closed";
    close(ends[0]);
}

TEST_F(dm_stat_failure, of_the_seek_closes_the_file_for_good) {
    use(memfd_create("stat", 0));
    g_fseek_fails = true;
    expect_closed_after("QEL seek stat file failed: Input/output error.\n");
    g_fseek_fails = false;
}

TEST_F(dm_stat_failure, of_a_write_closes_the_file_for_good) {
    const int fd = memfd_create("stat", MFD_ALLOW_SEALING);
    ASSERT_EQ(fcntl(fd, F_ADD_SEALS, F_SEAL_WRITE), 0);
    use(fd);
    expect_closed_after("QEL write stat file failed: Operation not permitted.\n");
}

TEST_F(dm_stat_failure, of_a_write_that_does_not_fit_the_buffer_of_the_file_too) {
    const int fd = memfd_create("stat", MFD_ALLOW_SEALING);
    ASSERT_EQ(fcntl(fd, F_ADD_SEALS, F_SEAL_WRITE), 0);
    use(fd);
    fill(16000);
    expect_closed_after("QEL write stat file failed: Operation not permitted.\n");
}

} // namespace
