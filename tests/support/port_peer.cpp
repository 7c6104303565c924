#include "port_peer.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <poll.h>
#include <sched.h>
#include <spawn.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace port_test {
namespace {

constexpr size_t slots = 16;
constexpr uid_t nobody = 65534;

// ---- the other process ----------------------------------------------------------------------------------
class servant {
  public:
    explicit servant(const qel_port &port) : port_(port) {}

    // The answer to one request; empty: leave.
    std::string answer(const std::string &line) {
        std::istringstream in(line);
        std::string what;
        in >> what;
        if (what == "exit")
            return "";
        if (what == "drop")
            return outcome(setgroups(0, nullptr) || setgid(nobody) || setuid(nobody) ? errno : 0);
        size_t s = slots;
        in >> s;
        if (s >= slots)
            return "err 22";
        if (what == "rdm" || what == "topology") {
            if (what == "rdm")
                socks_[s].emplace(port_, SOCK_RDM);
            else
                events_[s] = std::make_unique<topology>(port_);
            return outcome(0);
        }
        if (what == "subscribe" || what == "event")
            return events_[s] ? about_events(what, *events_[s], in) : "err 9";
        if (!socks_[s])
            return "err 9";
        if (what == "close") {
            socks_[s].reset();
            return outcome(0);
        }
        return about_messages(what, *socks_[s], in);
    }

  private:
    static std::string outcome(int err) { return err ? "err " + std::to_string(err) : "ok"; }

    static std::string about_events(const std::string &what, topology &t, std::istringstream &in) {
        uint32_t a = 0, b = 0, c = 0, d = 0, e = 0;
        in >> a >> b >> c >> d >> e;
        if (what == "subscribe")
            return outcome(t.subscribe(subscription(a, b, c, d, e)) ? 0 : EPIPE);
        tipc_event event{};
        if (!t.next(event, static_cast<int>(a)))
            return outcome(ETIME);
        std::ostringstream out;
        out << "ok " << text(event).substr(0, 1) << ' ' << event.found_lower << ' ' << event.found_upper
            << ' ' << event.port.node << ' ' << event.port.ref;
        return out.str();
    }

    static std::string about_messages(const std::string &what, sock &s, std::istringstream &in) {
        uint32_t a = 0, b = 0, c = 0, d = 0, e = 0, f = 0;
        in >> a >> b >> c >> d >> e >> f;
        if (what == "bind")
            return outcome(s.bind(a, b, c));
        if (what == "importance")
            return outcome(s.set(SOL_TIPC, TIPC_IMPORTANCE, a));
        if (what == "return")
            return outcome(s.return_undeliverable());
        if (what == "rcvbufforce")
            return outcome(s.set(SOL_SOCKET, SO_RCVBUFFORCE, a));
        if (what == "send")
            return send(s, name_address(a, b), c, d, e, static_cast<int>(f));
        if (what == "reply") {
            received r = s.next();
            if (!r.ok())
                return outcome(r.err);
            ssize_t ret = s.send(payload(tag_of(r.data), a), r.from);
            return outcome(ret < 0 ? static_cast<int>(-ret) : 0);
        }
        if (what == "next") {
            received r = s.next(static_cast<int>(a));
            if (!r.ok())
                return outcome(r.err);
            const control *back = r.find(TIPC_RETDATA);
            const bytes &data = back ? back->data : r.data;
            std::ostringstream out;
            out << "ok " << data.size() << ' ' << tag_of(data) << ' ' << r.returned_code() << ' '
                << (data == payload(tag_of(data), data.size())) << ' ' << r.from.addr.id.node << ' '
                << r.from.addr.id.ref;
            return out.str();
        }
        if (what == "drain")
            return drain(s, static_cast<int>(a), b);
        return "err 38";
    }

    static std::string send(sock &s, const sockaddr_tipc &to, size_t size, uint32_t tag, uint32_t count,
                            int flags) {
        uint32_t sent = 0;
        int err = 0;
        steady::duration longest{};
        for (; sent < count; sent++) {
            const bytes data = payload(tag + sent, size);
            const auto begin = steady::now();
            const ssize_t ret = s.send(data, to, flags);
            longest = std::max(longest, steady::now() - begin);
            if (ret != static_cast<ssize_t>(size)) {
                err = ret < 0 ? static_cast<int>(-ret) : EMSGSIZE;
                break;
            }
        }
        std::ostringstream out;
        out << "ok " << sent << ' ' << err << ' '
            << std::chrono::duration_cast<std::chrono::microseconds>(longest).count();
        return out.str();
    }

    static std::string drain(sock &s, int quiet_ms, uint32_t count) {
        uint32_t normal = 0, returned = 0, first = 0, last = 0;
        bool ordered = true, intact = true;
        while (normal + returned < count) {
            received r = s.next(quiet_ms);
            if (!r.ok())
                break;
            if (r.returned_code()) {
                returned++;
                continue;
            }
            uint32_t tag = tag_of(r.data);
            if (!normal)
                first = tag;
            else if (tag <= last)
                ordered = false;
            last = tag;
            intact = intact && r.data == payload(tag, r.data.size());
            normal++;
        }
        std::ostringstream out;
        out << "ok " << normal << ' ' << returned << ' ' << ordered << ' ' << intact << ' ' << first << ' '
            << last;
        return out.str();
    }

    const qel_port &port_;
    std::optional<sock> socks_[slots];
    std::unique_ptr<topology> events_[slots];
};

// ---- starting it ----------------------------------------------------------------------------------------
std::string &roots() {
    static std::string directory;
    return directory;
}

// Starts @argv in the network namespace of @node, if there is one.
int spawn_on_node(pid_t &pid, int node, const posix_spawn_file_actions_t &actions, char **argv, char **env) {
    int ret = 0;
    auto start = [&] { ret = posix_spawn(&pid, argv[0], &actions, nullptr, argv, env); };
    if (node == 0) {
        start();
        return ret;
    }
    // Namespaces belong to a thread; a child gets those of the thread that starts it.
    std::thread([&] {
        const std::string path = "/run/netns/n" + std::to_string(node);
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0 || setns(fd, CLONE_NEWNET) != 0)
            ret = errno;
        else
            start();
        if (fd >= 0)
            ::close(fd);
    }).join();
    return ret;
}

} // namespace

int peer_main(const qel_port &port) {
    servant s(port);
    std::string line;
    int c;
    while ((c = getchar()) != EOF) {
        if (c != '\n') {
            line.push_back(static_cast<char>(c));
            continue;
        }
        const std::string answer = s.answer(line);
        line.clear();
        if (answer.empty())
            return 0;
        puts(answer.c_str());
        fflush(stdout);
    }
    return 0;
}

void set_local_node_roots(const std::string &directory) { roots() = directory; }
std::string local_node_root(int node) { return roots() + "/node" + std::to_string(node); }

peer::peer(const qel_port &port, int node) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        ADD_FAILURE() << "socketpair: " << strerror(errno);
        return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], 0);
    posix_spawn_file_actions_adddup2(&actions, ends[1], 1);
    std::vector<std::string> env;
    const bool local = !strcmp(port.name, "local");
    for (char **e = environ; *e; e++)
        if (!(local && node && !strncmp(*e, "QEL_ROOT=", 9)))
            env.emplace_back(*e);
    if (local && node)
        env.push_back("QEL_ROOT=" + local_node_root(node));
    std::vector<char *> env_pointers;
    for (std::string &e : env)
        env_pointers.push_back(e.data());
    env_pointers.push_back(nullptr);
    std::string path = "/proc/self/exe", argument = peer_argument, name = port.name;
    char *argv[] = {path.data(), argument.data(), name.data(), nullptr};
    if (int err = spawn_on_node(pid_, local ? 0 : node, actions, argv, env_pointers.data())) {
        ADD_FAILURE() << "cannot start a process on node " << node << ": " << strerror(err);
        pid_ = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    ::close(ends[1]);
    wire_ = ends[0];
}

peer::~peer() {
    if (pid_ > 0)
        kill();
    if (wire_ >= 0)
        ::close(wire_);
}

std::string peer::exchange(const std::string &request) {
    const std::string line = request + "\n";
    if (pid_ < 0 ||
        ::send(wire_, line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size()))
        return "err 32";
    for (;;) {
        if (size_t end = unread_.find('\n'); end != std::string::npos) {
            std::string answer = unread_.substr(0, end);
            unread_.erase(0, end + 1);
            return answer;
        }
        pollfd p{wire_, POLLIN, 0};
        char buffer[512];
        if (poll(&p, 1, 3 * patience_ms) <= 0)
            return "err 62";
        ssize_t n = read(wire_, buffer, sizeof(buffer));
        if (n <= 0)
            return "err 32";
        unread_.append(buffer, static_cast<size_t>(n));
    }
}

std::string peer::ask(const std::string &request) {
    std::string answer = exchange(request);
    if (answer.substr(0, 2) != "ok") {
        ADD_FAILURE() << "the other process answers \"" << request << "\" with: " << answer;
        return "";
    }
    return answer.size() > 3 ? answer.substr(3) : "";
}

std::vector<long> peer::numbers(const std::string &request) {
    std::istringstream in(ask(request));
    std::vector<long> all;
    for (long n; in >> n;)
        all.push_back(n);
    all.resize(std::max<size_t>(all.size(), 6), -1); // an answer that is too short fails by its values
    return all;
}

int peer::error_of(const std::string &request) {
    const std::string answer = exchange(request);
    return answer.substr(0, 4) == "err " ? std::stoi(answer.substr(4)) : 0;
}

void peer::signal(int sig) {
    if (pid_ > 0)
        ::kill(pid_, sig);
}

void peer::reap() {
    int status;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
}

void peer::kill() {
    signal(SIGKILL);
    if (pid_ > 0)
        reap();
}

void peer::quit() {
    ::shutdown(wire_, SHUT_WR);
    reap();
}

} // namespace port_test
