#include "port_fabric.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "port_peer.h"
#include "port_sock.h"

namespace port_test {
namespace {
constexpr int nodes = 2;
constexpr int start_timeout_ms = 10000;
constexpr int ready_fd =
    100; // in the fabric; above all that is open here, so that dup2() clears close-on-exec
} // namespace

local_fabric &local_fabric::get() {
    static local_fabric &one = *new local_fabric; // stopped by stop_at_exit()
    return one;
}

local_fabric::local_fabric() {
    start();
    if (const int error = trouble_.empty() ? guard_.watch(directory_, pid_) : 0)
        trouble_ = std::string("no guard: ") + strerror(error);
    if (!trouble_.empty())
        stop();
    else
        atexit(stop_at_exit);
}

void local_fabric::start() {
    namespace fs = std::filesystem;
    const char *program = getenv("QEL_FABRIC_BIN");
    if (!program) {
        trouble_ = "QEL_FABRIC_BIN does not say where qel-fabric is";
        return;
    }
    std::error_code err;
    std::string pattern = fs::temp_directory_path(err).string() + "/qp-XXXXXX";
    if (!mkdtemp(pattern.data())) {
        trouble_ = std::string("no temporary directory: ") + strerror(errno);
        return;
    }
    directory_ = pattern;
    set_local_node_roots(directory_);
    for (int n = 1; n <= nodes; n++) {
        fs::create_directories(local_node_root(n) + "/tmp/addr", err);
        std::ofstream(local_node_root(n) + "/tmp/addr/.qel_node_addr") << n << "\n";
    }
    const std::string fabric = directory_ + "/fabric"; // made by the program, closed to others
    setenv("QEL_FABRIC", fabric.c_str(), 1);
    setenv("QEL_ROOT", local_node_root(1).c_str(), 1);
    setenv("QEL_TRANSPORT", "local", 1);
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) != 0) {
        trouble_ = std::string("no pipe: ") + strerror(errno);
        return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ready[1], ready_fd);
    std::string path = program, option = "--ready-fd", number = std::to_string(ready_fd);
    char *argv[] = {path.data(), option.data(), number.data(), nullptr};
    int ret = posix_spawn(&pid_, program, &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(ready[1]);
    char newline = 0;
    if (ret) {
        trouble_ = path + ": " + strerror(ret);
        pid_ = -1;
    } else {
        pollfd p{ready[0], POLLIN, 0};
        if (poll(&p, 1, start_timeout_ms) != 1 || read(ready[0], &newline, 1) != 1)
            trouble_ = path + " did not start";
    }
    ::close(ready[0]);
}

void local_fabric::stop() {
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
    std::error_code err;
    if (!directory_.empty())
        std::filesystem::remove_all(directory_, err);
    guard_.dismiss();
}

void local_fabric::stop_at_exit() { get().stop(); }

} // namespace port_test
