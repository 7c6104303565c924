// The start of the daemon: options, the lock by which there is one daemon per node, and the order in which
// its parts come up. It stays in the foreground: its terminal is the operator's console.
#include "qeld.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <getopt.h>
#include <sys/stat.h>

#include "qel_cfg.h"
#include "qel_cli.h"
#include "qel_dm.h"
#include "qel_pt.h"
#include "qeld_msg.h"

#define QEL_LOG_SRC "qeld"
#include "qel_log.h"

static const qel_dispatcher g_dispatcher[] = {{1, qeld_msg_dispatch}, {0, nullptr}};

// Holds the lock on the PID file: open as long as the process lives.
static constinit std::atomic<int> g_pid_file_fd{-1};

static const char usage_text[] = "Usage: \n"
                                 "       qeld [options]\n"
                                 "  \n"
                                 "  valid options:\n"
                                 "  -pt                      Enable QEL performance testing functionality\n"
                                 "  -help                    This usage list";

static void print_usage() noexcept { puts(usage_text); }

// The directory is open to everybody, so the path may hold a link of either kind, or a pipe, that
// somebody put there.
uint32_t qeld_already_run() noexcept {
    static const char file_name[] = "/qeld.pid";
    char dir[64];
    if (qel_make_log_dir(dir, sizeof dir))
        return 1;
    char path[sizeof dir + sizeof file_name];
    snprintf(path, sizeof path, "%s%s", dir, file_name);

    const int fd = open(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK, 0777);
    if (fd < 0 || !qel_dm_has_one_name(fd)) {
        QEL_ERROR("QELD open PID file %s failed: %s.\n", path, strerror(errno));
        return 1;
    }
    g_pid_file_fd.store(fd, std::memory_order_relaxed);
    const int flags = fcntl(fd, F_GETFD);
    if (flags < 0) {
        QEL_ERROR("QELD get PID file %s flags failed: %s.\n", path, strerror(errno));
        return 1;
    }
    if (fcntl(fd, F_SETFD, flags | FD_CLOEXEC) < 0) {
        QEL_ERROR("QELD set PID file %s flags failed: %s.\n", path, strerror(errno));
        return 1;
    }

    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET; // and length 0: the whole file, however long it grows
    if (fcntl(fd, F_SETLK, &lock) < 0) {
        if (errno == EAGAIN || errno == EACCES)
            QEL_VERBOSE("QEL daemon had already running.\n");
        else
            QEL_ERROR("QELD lock PID file %s failed: %s.\n", path, strerror(errno));
        return 1;
    }
    (void)fchmod(fd, 0777); // whoever made it

    if (ftruncate(fd, 0) < 0) {
        QEL_ERROR("QELD truncate PID file %s failed: %s.\n", path, strerror(errno));
        return 1;
    }
    char text[32];
    const int len = snprintf(text, sizeof text, "%ld\n", static_cast<long>(getpid()));
    errno = 0;
    if (write(fd, text, static_cast<size_t>(len)) != len) {
        QEL_ERROR("QELD write PID file %s failed: %s.\n", path, strerror(errno));
        return 1;
    }
    return 0;
}

// A standard stream that was closed by whoever started this must not become a file or socket of ours, into
// which the console would print.
static void open_standard_streams() noexcept {
    int fd;
    do
        fd = open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0)
        close(fd);
}

int main(int argc, char **argv) {
    open_standard_streams();
    enum { option_pt = 1, option_help = 2 };
    static const option options[] = {{"pt", no_argument, nullptr, option_pt},
                                     {"help", no_argument, nullptr, option_help},
                                     {nullptr, 0, nullptr, 0}};
    bool performance_test = false;
    int found;
    while ((found = getopt_long_only(argc, argv, "", options, nullptr)) != -1) {
        switch (found) {
        case option_pt:
            performance_test = true;
            break;
        case option_help:
            print_usage();
            return 0;
        default:
            print_usage();
            return -EINVAL;
        }
    }
    if (optind < argc) {
        printf("unexpected command argument '%s'\n", argv[optind]);
        print_usage();
        return -EINVAL;
    }

    umask(0); // what is created here has the modes that are asked for

    // What was set up is not undone on a failure: the end of the process does that.
    if (qel_cfg_init() != 0)
        return -1;
    if (qeld_already_run() != 0) {
        QEL_VERBOSE("QELD has already running.\n");
        return -1;
    }
    if (qel_register(1, "qel_daemon", g_dispatcher, nullptr) != 0) {
        QEL_ERROR("QELD register to QEL failed.\n");
        return -1;
    }
    if (qeld_event_init() != 0) {
        QEL_ERROR("QELD init event management failed.\n");
        return -1;
    }
    if (performance_test)
        (void)qel_pt_init(); // a daemon without the test is better than none
    (void)qel_run();
    (void)qeld_cli_init();
    return 0;
}
