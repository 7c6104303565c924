#include "qel_guard.h"

#include <cerrno>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

int qel_guard::watch(const std::string &directory, pid_t process) {
    int wire[2];
    if (pipe2(wire, O_CLOEXEC) != 0)
        return errno;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, wire[0], 0);
    // A test runner may wait for the end of the output of all that a test has started.
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSID);
    std::string shell = "/bin/sh", option = "-c", pid = std::to_string(process), path = directory;
    std::string script = R"(read -r word && exit 0; [ "$0" = 0 ] || kill "$0"; exec rm -rf -- "$1")";
    char *argv[] = {shell.data(), option.data(), script.data(), pid.data(), path.data(), nullptr};
    const int error = posix_spawn(&pid_, argv[0], &actions, &attr, argv, environ);
    posix_spawnattr_destroy(&attr);
    posix_spawn_file_actions_destroy(&actions);
    ::close(wire[0]);
    wire_ = wire[1];
    if (error) {
        ::close(wire_);
        pid_ = wire_ = -1;
    }
    return error;
}

void qel_guard::dismiss() {
    if (pid_ <= 0)
        return;
    if (write(wire_, "done\n", 5) == 5)
        waitpid(pid_, nullptr, 0);
    ::close(wire_);
    pid_ = wire_ = -1;
}
