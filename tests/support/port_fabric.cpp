#include "port_fabric.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "port_peer.h"
#include "port_sock.h"

namespace port_test {
namespace {
constexpr int nodes = 2;
constexpr int start_timeout_ms = 10000;
} // namespace

local_fabric &local_fabric::get() {
    static local_fabric &one = *new local_fabric; // stopped by stop_at_exit()
    return one;
}

local_fabric::local_fabric() {
    start();
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
    const std::string fabric = directory_ + "/fabric";
    fs::create_directory(fabric, err);
    setenv("QEL_FABRIC", fabric.c_str(), 1);
    setenv("QEL_ROOT", local_node_root(1).c_str(), 1);
    setenv("QEL_TRANSPORT", "local", 1);
    std::string path = program;
    char *argv[] = {path.data(), nullptr};
    if (int ret = posix_spawn(&pid_, program, nullptr, nullptr, argv, environ)) {
        trouble_ = path + ": " + strerror(ret);
        pid_ = -1;
        return;
    }
    // It is there when a socket can be made.
    const auto deadline = steady::now() + milliseconds(start_timeout_ms);
    for (;;) {
        const int fd = g_qel_port_local.socket(AF_TIPC, SOCK_RDM, 0);
        if (fd >= 0) {
            g_qel_port_local.close(fd);
            return;
        }
        int status;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            trouble_ = path + " ended with wait status " + std::to_string(status);
            return;
        }
        if (steady::now() > deadline) {
            trouble_ = "no socket of the local transport: " + std::string(strerror(errno));
            return;
        }
        poll(nullptr, 0, 5);
    }
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
}

void local_fabric::stop_at_exit() { get().stop(); }

} // namespace port_test
