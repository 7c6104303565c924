// The local transport with its fabric: what is particular to it. What every transport promises is tested by
// tests/contract.
//
// Every test has a fabric of its own in a temporary directory. Other processes are this program again,
// started with the name of a role.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <linux/tipc.h>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "qel_base.h"
#include "qel_fabric_proto.h"
#include "qel_guard.h"
#include "qel_port.h"
#include "qel_port_local_queue.h"

namespace {

using namespace std::chrono;
namespace fs = std::filesystem;
using strings = std::vector<std::string>;

const qel_port &port = g_qel_port_local;

#if defined(__SANITIZE_THREAD__)
constexpr int slow = 10;
#elif defined(__SANITIZE_ADDRESS__)
constexpr int slow = 4;
#else
constexpr int slow = 1;
#endif

// ---- sockets ----------------------------------------------------------------------------------------------

sockaddr_tipc name_address(uint32_t type, uint32_t instance) {
    sockaddr_tipc a{};
    a.family = AF_TIPC;
    a.addrtype = TIPC_SERVICE_ADDR;
    a.addr.name.name = {type, instance};
    return a;
}
sockaddr_tipc range_address(uint32_t type, uint32_t lower, uint32_t upper) {
    sockaddr_tipc a{};
    a.family = AF_TIPC;
    a.addrtype = TIPC_SERVICE_RANGE;
    a.scope = TIPC_CLUSTER_SCOPE;
    a.addr.nameseq = {type, lower, upper};
    return a;
}
template <class T> const sockaddr *generic(const T &a) { return reinterpret_cast<const sockaddr *>(&a); }

struct received {
    ssize_t result = -1;
    int error = 0;
    uint32_t code = 0; // of ERRINFO
    std::string data;  // or what came back
    uint32_t instance = 0;
    tipc_socket_addr from{};
};

struct sock {
    int fd;
    sock() : fd(port.socket(AF_TIPC, SOCK_RDM, 0)) {
        const int off = 0, high = 3;
        port.setsockopt(fd, SOL_TIPC, TIPC_DEST_DROPPABLE, &off, sizeof off);
        port.setsockopt(fd, SOL_TIPC, TIPC_IMPORTANCE, &high, sizeof high);
    }
    explicit sock(uint32_t instance) : sock() { EXPECT_EQ(bind(instance), 0) << strerror(errno); }
    ~sock() { close(); }
    sock(const sock &) = delete;
    sock &operator=(const sock &) = delete;
    void close() {
        if (fd >= 0)
            port.close(fd);
        fd = -1;
    }
    int bind(uint32_t instance) { return bind(instance, instance); }
    int bind(uint32_t lower, uint32_t upper) {
        const sockaddr_tipc a = range_address(type, lower, upper);
        return port.bind(fd, generic(a), sizeof a);
    }
    ssize_t send(uint32_t instance, const std::string &data, int flags = 0) {
        const sockaddr_tipc a = name_address(type, instance);
        const ssize_t sent = port.sendto(fd, data.data(), data.size(), flags, generic(a), sizeof a);
        return sent < 0 ? -errno : sent;
    }
    ssize_t send(tipc_socket_addr to, const std::string &data) {
        sockaddr_tipc a{};
        a.family = AF_TIPC;
        a.addrtype = TIPC_SOCKET_ADDR;
        a.addr.id = to;
        const ssize_t sent = port.sendto(fd, data.data(), data.size(), 0, generic(a), sizeof a);
        return sent < 0 ? -errno : sent;
    }
    received receive(int flags = MSG_DONTWAIT) {
        static thread_local char room[66000];
        iovec iov = {room, sizeof room};
        char control[1096];
        sockaddr_tipc from{};
        msghdr msg{};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof control;
        msg.msg_name = &from;
        msg.msg_namelen = sizeof from;
        received r;
        r.result = port.recvmsg(fd, &msg, flags);
        r.error = errno;
        if (r.result < 0)
            return r;
        r.data.assign(room, static_cast<size_t>(r.result));
        r.from = from.addr.id;
        for (cmsghdr *c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
            if (c->cmsg_type == TIPC_ERRINFO)
                memcpy(&r.code, CMSG_DATA(c), 4);
            if (c->cmsg_type == TIPC_RETDATA)
                r.data.assign(reinterpret_cast<char *>(CMSG_DATA(c)), c->cmsg_len - CMSG_LEN(0));
            if (c->cmsg_type == TIPC_DESTNAME)
                memcpy(&r.instance, CMSG_DATA(c) + 4, 4);
        }
        return r;
    }
    // Waits until something is there.
    received next(int timeout_ms = 20'000) {
        for (;;) {
            pollfd p = {fd, POLLIN, 0};
            if (port.poll(&p, 1, timeout_ms) <= 0)
                return {};
            received r = receive();
            if (r.result >= 0 || r.error != EAGAIN)
                return r;
        }
    }
    static constexpr uint32_t type = 2303;
};

struct topology {
    int fd;
    topology() : fd(port.socket(AF_TIPC, SOCK_SEQPACKET, 0)) {
        const sockaddr_tipc a = name_address(TIPC_TOP_SRV, TIPC_TOP_SRV);
        EXPECT_EQ(port.connect(fd, generic(a), sizeof a), 0) << strerror(errno);
    }
    ~topology() { port.close(fd); }
    topology(const topology &) = delete;
    topology &operator=(const topology &) = delete;
    void subscribe(uint32_t type, uint32_t lower, uint32_t upper, uint32_t filter = TIPC_SUB_PORTS) {
        tipc_subscr s{};
        s.seq = {type, lower, upper};
        s.timeout = static_cast<uint32_t>(TIPC_WAIT_FOREVER);
        s.filter = filter;
        EXPECT_EQ(port.send(fd, &s, sizeof s, 0), ssize_t{sizeof s});
    }
    // "P[5,5]", "W[5,5]", "end", or "nothing" after the time.
    std::string next(int timeout_ms = 20'000) {
        pollfd p = {fd, POLLIN, 0};
        if (port.poll(&p, 1, timeout_ms) <= 0)
            return "nothing";
        tipc_event e{};
        const ssize_t got = port.recv(fd, &e, sizeof e, MSG_DONTWAIT);
        if (got != sizeof e)
            return got == 0 ? "end" : "error";
        return (e.event == TIPC_PUBLISHED   ? "P["
                : e.event == TIPC_WITHDRAWN ? "W["
                                            : "T[") +
               std::to_string(e.found_lower) + "," + std::to_string(e.found_upper) + "]";
    }
};

// ---- processes --------------------------------------------------------------------------------------------

std::string program_path(const char *variable, const char *beside) {
    if (const char *named = getenv(variable))
        return named;
    return fs::read_symlink("/proc/self/exe").parent_path().parent_path() / beside;
}

struct process {
    pid_t pid = -1;
    qel_fd in, out; // its standard input and output
    process(const strings &args, const std::map<std::string, std::string> &env, bool with_errors = false) {
        int to[2], from[2];
        EXPECT_EQ(pipe2(to, O_CLOEXEC), 0);
        EXPECT_EQ(pipe2(from, O_CLOEXEC), 0);
        std::vector<char *> argv;
        for (const std::string &a : args)
            argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        strings words;
        for (char **e = environ; *e; e++)
            if (!env.contains(std::string(*e).substr(0, std::string(*e).find('='))))
                words.emplace_back(*e);
        for (const auto &[name, value] : env)
            if (value != "-")
                words.push_back(name + "=" + value);
        std::vector<char *> envp;
        for (std::string &w : words)
            envp.push_back(w.data());
        envp.push_back(nullptr);
        pid = fork();
        EXPECT_GE(pid, 0);
        if (pid == 0) { // nothing is left over when the test crashes
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            dup2(to[0], 0);
            dup2(from[1], 1);
            if (with_errors)
                dup2(from[1], 2);
            execve(argv[0], argv.data(), envp.data());
            _exit(127);
        }
        ::close(to[0]);
        ::close(from[1]);
        in.reset(to[1]);
        out.reset(from[0]);
    }
    ~process() { kill(); }
    process(const process &) = delete;
    process &operator=(const process &) = delete;
    int wait() {
        int status = -1;
        if (pid > 0)
            waitpid(pid, &status, 0);
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
    }
    void kill(int signal = SIGKILL) {
        if (pid <= 0)
            return;
        ::kill(pid, signal);
        wait();
    }
    std::string line() {
        std::string text;
        char c = 0;
        while (::read(out.fd, &c, 1) == 1 && c != '\n')
            text += c;
        return text;
    }
    std::string rest() {
        std::string text;
        char room[4096];
        for (ssize_t n = 0; (n = ::read(out.fd, room, sizeof room)) > 0;)
            text.append(room, static_cast<size_t>(n));
        return text;
    }
    void say(const std::string &text) {
        EXPECT_EQ(::write(in.fd, text.data(), text.size()), ssize_t(text.size()));
    }
};

struct local_port : testing::Test {
    std::string dir;
    std::unique_ptr<process> fabric;
    qel_guard guard;

    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "qel-local-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        dir = pattern;
        ASSERT_EQ(guard.watch(dir), 0);
        for (int n = 1; n <= 3; n++) {
            fs::create_directories(root(n) + "/tmp/addr");
            std::ofstream(root(n) + "/tmp/addr/.qel_node_addr") << n << "\n";
        }
        setenv("QEL_ROOT", root(1).c_str(), 1);
        setenv("QEL_FABRIC", fabric_dir().c_str(), 1);
        unsetenv("QEL_FABRIC_FAULTS");
    }
    void TearDown() override {
        fabric.reset();
        fs::remove_all(dir);
    }
    [[nodiscard]] std::string root(int node) const { return dir + "/node" + std::to_string(node); }
    [[nodiscard]] std::string fabric_dir() const { return dir + "/fabric"; }
    static std::string fabric_program() { return program_path("QEL_FABRIC_BIN", "qel-fabric"); }
    void start(const std::string &faults = "-") {
        fabric = std::make_unique<process>(strings{fabric_program(), "--ready-fd", "1"},
                                           std::map<std::string, std::string>{{"QEL_FABRIC_FAULTS", faults}});
        ASSERT_EQ(fabric->line(), "") << "a newline says that it serves";
    }
    std::string control(const std::string &command, int *status = nullptr) {
        process p({fabric_program(), "--control", command}, {}, true);
        std::string text = p.rest();
        const int result = p.wait();
        if (status)
            *status = result;
        else
            EXPECT_EQ(result, 0) << text;
        return text;
    }
    // This program in another role, on a node.
    [[nodiscard]] std::unique_ptr<process> role(const std::string &name, const std::string &argument = "",
                                                int node = 1) const {
        return std::make_unique<process>(
            strings{fs::read_symlink("/proc/self/exe").string(), "--role", name, argument},
            std::map<std::string, std::string>{{"QEL_ROOT", root(node)}});
    }
};

// ---- roles ------------------------------------------------------------------------------------------------

bool read_line() {
    char c = 0;
    while (read(0, &c, 1) == 1)
        if (c == '\n')
            return true;
    return false;
}
void say(const std::string &line) {
    const std::string text = line + "\n";
    (void)!write(1, text.data(), text.size());
}

// Binds an instance and does nothing more until its input ends.
int role_hold(uint32_t instance) {
    sock s(instance);
    say("ready");
    while (read_line()) {
    }
    return 0;
}
// Binds an instance and answers every message to its sender's socket address.
int role_echo(uint32_t instance) {
    sock s(instance);
    say("ready");
    for (;;) {
        const received r = s.next(-1);
        if (r.result > 0)
            s.send(r.from, r.data);
    }
}
// Sends numbered messages of changing sizes to instance 1 until it is killed.
int role_flood(uint32_t number) {
    sock s;
    say("ready");
    for (uint32_t i = 0;; i++) {
        std::string data(8 + (i * 37 % 9000) * (i % 5 == 0), 'x');
        memcpy(data.data(), &number, 4);
        memcpy(data.data() + 4, &i, 4);
        while (s.send(1, data) < 0)
            std::this_thread::yield();
    }
}
// Receives on instance 1, counting in a file that outlives it.
int role_count(const std::string &file) {
    qel_fd fd(open(file.c_str(), O_RDWR | O_CLOEXEC));
    auto *count = static_cast<std::atomic<uint64_t> *>(
        mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd.fd, 0));
    sock s(1);
    say("ready");
    for (;;)
        if (s.next(-1).result > 0)
            count->fetch_add(1);
}
// What an application on the local transport takes.
int role_idle(uint32_t sockets) {
    std::vector<std::unique_ptr<sock>> all;
    for (uint32_t i = 0; i < sockets; i++)
        all.push_back(std::make_unique<sock>(100 + i));
    topology t;
    t.subscribe(sock::type, 0, 1000);
    for (auto &s : all)
        s->send(100, "hello");
    while (t.next(0) != "nothing") {
    }
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("VmRSS"))
            say(line.substr(6));
    return 0;
}

// The error of a datagram to the topology server.
int role_to_server() {
    sock s;
    const sockaddr_tipc a = name_address(TIPC_TOP_SRV, TIPC_TOP_SRV);
    return port.sendto(s.fd, "hello", 5, 0, generic(a), sizeof a) < 0 ? errno : 0;
}

// The error that a socket gets.
int role_refused() { return port.socket(AF_TIPC, SOCK_RDM, 0) < 0 ? errno : 0; }

int run_role(const std::string &name, const std::string &argument) {
    const auto number = static_cast<uint32_t>(strtoul(argument.c_str(), nullptr, 10));
    if (name == "hold")
        return role_hold(number);
    if (name == "echo")
        return role_echo(number);
    if (name == "flood")
        return role_flood(number);
    if (name == "count")
        return role_count(argument);
    if (name == "idle")
        return role_idle(number);
    if (name == "to-server")
        return role_to_server();
    if (name == "refused")
        return role_refused();
    return 99;
}

// The queue of this process's only datagram socket, mapped once more.
struct own_queue {
    qel_lq q;
    own_queue() {
        for (const auto &entry : fs::directory_iterator("/proc/self/fd")) {
            std::error_code error;
            if (fs::read_symlink(entry.path(), error).string().starts_with("/memfd:qel-queue")) {
                EXPECT_EQ(qel_lq_map_file(q, std::stoi(entry.path().filename())), 0);
                return;
            }
        }
    }
    ~own_queue() { qel_lq_unmap(q); }
    unsigned char *bytes() { return reinterpret_cast<unsigned char *>(q.shared); }
};

// ---- the program ------------------------------------------------------------------------------------------

struct fabric_process : local_port {};

TEST_F(fabric_process, makes_its_directory_for_its_user_only) {
    start();
    struct stat st {};
    ASSERT_EQ(stat(fabric_dir().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0700u);
}

TEST_F(fabric_process, takes_the_runtime_directory_when_nothing_else_is_named) {
    process p({fabric_program(), "--ready-fd", "1"}, {{"QEL_FABRIC", "-"}, {"XDG_RUNTIME_DIR", dir}});
    ASSERT_EQ(p.line(), "");
    EXPECT_TRUE(fs::exists(dir + "/qel-fabric/socket"));
    unsetenv("QEL_FABRIC");
    setenv("XDG_RUNTIME_DIR", dir.c_str(), 1);
    sock s;
    EXPECT_GE(s.fd, 0);
}

TEST_F(fabric_process, without_a_directory_says_what_to_set) {
    process p({fabric_program()}, {{"QEL_FABRIC", "-"}, {"XDG_RUNTIME_DIR", "-"}}, true);
    EXPECT_EQ(p.rest(), "qel-fabric: no directory: set QEL_FABRIC, or XDG_RUNTIME_DIR\n");
    EXPECT_EQ(p.wait(), 1);
}

TEST_F(fabric_process, refuses_a_directory_that_others_may_enter) {
    fs::create_directory(fabric_dir());
    for (const mode_t mode : {0710u, 0701u, 0750u, 0777u}) {
        ASSERT_EQ(chmod(fabric_dir().c_str(), mode), 0);
        process p({fabric_program()}, {}, true);
        EXPECT_NE(p.rest().find("is open to others"), std::string::npos);
        EXPECT_EQ(p.wait(), 1);
    }
}

TEST_F(fabric_process, refuses_a_symbolic_link_as_its_directory) {
    fs::create_directory(dir + "/real");
    ASSERT_EQ(chmod((dir + "/real").c_str(), 0700), 0);
    fs::create_symlink(dir + "/real", fabric_dir());
    process p({fabric_program()}, {}, true);
    EXPECT_NE(p.rest().find("cannot open directory"), std::string::npos);
    EXPECT_EQ(p.wait(), 1);
}

TEST_F(fabric_process, ends_with_a_clear_error_where_another_one_serves) {
    start();
    process p({fabric_program()}, {}, true);
    EXPECT_EQ(p.rest(), "qel-fabric: another one serves directory " + fabric_dir() + "\n");
    EXPECT_EQ(p.wait(), 1);
    sock s;
    EXPECT_GE(s.fd, 0) << "the first one still serves";
}

TEST_F(fabric_process, serves_alone_also_when_its_directory_was_emptied) {
    start();
    for (const auto &entry : fs::directory_iterator(fabric_dir()))
        fs::remove(entry.path());
    process p({fabric_program(), "--ready-fd", "1"}, {}, true);
    EXPECT_EQ(p.line(), "qel-fabric: another one serves directory " + fabric_dir());
}

TEST_F(fabric_process, a_command_to_one_that_stands_still_ends_with_an_error) {
    start();
    kill(fabric->pid, SIGSTOP);
    int status = 0;
    EXPECT_EQ(control("list", &status),
              "qel-fabric: no answer from the fabric at \"" + fabric_dir() + "\"\n");
    EXPECT_EQ(status, 1);
}

TEST_F(fabric_process, removes_its_socket_when_it_is_asked_to_end) {
    for (const int signal : {SIGTERM, SIGINT}) {
        start();
        EXPECT_TRUE(fs::exists(fabric_dir() + "/socket"));
        kill(fabric->pid, signal);
        EXPECT_EQ(fabric->wait(), 0);
        EXPECT_FALSE(fs::exists(fabric_dir() + "/socket"));
    }
}

TEST_F(fabric_process, starts_over_the_socket_of_one_that_was_killed) {
    start();
    fabric->kill();
    EXPECT_TRUE(fs::exists(fabric_dir() + "/socket"));
    start();
    sock s;
    EXPECT_GE(s.fd, 0);
}

TEST_F(fabric_process, serves_a_directory_with_a_path_longer_than_a_socket_address) {
    const std::string deep = dir + "/" + std::string(120, 'd');
    setenv("QEL_FABRIC", deep.c_str(), 1);
    start();
    sock a(1), b;
    EXPECT_EQ(b.send(1, "hello"), 5);
    EXPECT_EQ(a.next().data, "hello");
}

TEST_F(fabric_process, out_of_descriptors_refuses_sockets_and_serves_those_it_has) {
    fabric = std::make_unique<process>(
        strings{"/bin/sh", "-c", "ulimit -n 40; exec \"$0\" --ready-fd 1", fabric_program()},
        std::map<std::string, std::string>{});
    ASSERT_EQ(fabric->line(), "");
    std::vector<std::unique_ptr<sock>> all;
    for (int i = 0; i < 40; i++) {
        auto s = std::make_unique<sock>();
        if (s->fd < 0) {
            EXPECT_EQ(port.socket(AF_TIPC, SOCK_RDM, 0), -1);
            EXPECT_EQ(errno, ENFILE);
            break;
        }
        EXPECT_EQ(s->bind(static_cast<uint32_t>(i)), 0);
        all.push_back(std::move(s));
    }
    ASSERT_GT(all.size(), 5u);
    ASSERT_LT(all.size(), 40u);
    ASSERT_EQ(all.back()->send(0, "hello"), 5);
    EXPECT_EQ(all.front()->next().data, "hello");
    all.pop_back();
    sock again;
    EXPECT_GE(again.fd, 0) << "one was given back";
}

TEST_F(fabric_process, explains_itself) {
    process p({fabric_program(), "--help"}, {});
    const std::string text = p.rest();
    EXPECT_EQ(p.wait(), 0);
    for (const char *word :
         {"QEL_FABRIC", "XDG_RUNTIME_DIR", "--ready-fd", "--control", "list", "drop-topology", "event-delay",
          "name-delay", "lose-return", "congest", "cut", "clear", "QEL_FABRIC_FAULTS"})
        EXPECT_NE(text.find(word), std::string::npos) << word;
}

TEST_F(fabric_process, refuses_arguments_it_does_not_know) {
    for (const strings &args : {strings{"--what"}, strings{"--ready-fd"}, strings{"--ready-fd", "x"},
                                strings{"--ready-fd", "999"}, strings{"word"}}) {
        strings all{fabric_program()};
        all.insert(all.end(), args.begin(), args.end());
        process p(all, {}, true);
        EXPECT_NE(p.rest().find("--help"), std::string::npos);
        EXPECT_EQ(p.wait(), 2);
    }
}

TEST_F(fabric_process, lists_names_and_who_has_them) {
    start();
    auto other = role("hold", "65537", 2);
    ASSERT_EQ(other->line(), "ready");
    const std::string text = control("list");
    EXPECT_NE(text.find("name {2303, 65537, 65537} scope cluster node 1001002"), std::string::npos) << text;
    EXPECT_NE(text.find("pid " + std::to_string(other->pid)), std::string::npos) << text;
    EXPECT_NE(text.find("node 2 (01001002): 1 processes"), std::string::npos) << text;
    const size_t server = text.find("name {1, 1, 1} scope node node 0 port ");
    ASSERT_NE(server, std::string::npos) << text;
    EXPECT_EQ(text.substr(text.find(" pid ", server), 7), " pid 0\n") << "no process has it: " << text;
}

TEST_F(fabric_process, refuses_commands_it_does_not_know) {
    start();
    for (const char *command :
         {"", "what", "list 1", "event-delay", "event-delay x", "event-delay 99999999999", "congest 4096 5",
          "congest 1", "cut 1", "lose-return -1 7"}) {
        int status = 0;
        control(command, &status);
        EXPECT_EQ(status, 1) << command;
    }
    sock s;
    EXPECT_GE(s.fd, 0);
}

TEST_F(fabric_process, refuses_faults_it_does_not_know) {
    process p({fabric_program()}, {{"QEL_FABRIC_FAULTS", "event-delay 5; what"}}, true);
    EXPECT_NE(p.rest().find("unknown command"), std::string::npos);
    EXPECT_EQ(p.wait(), 1);
}

// ---- without a fabric -------------------------------------------------------------------------------------

TEST_F(local_port, a_socket_without_a_fabric_is_refused_and_one_line_says_what_to_do) {
    testing::internal::CaptureStderr();
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(port.socket(AF_TIPC, SOCK_RDM, 0), -1);
        EXPECT_EQ(errno, ECONNREFUSED);
        EXPECT_EQ(port.socket(AF_TIPC, SOCK_SEQPACKET, 0), -1);
        EXPECT_EQ(errno, ECONNREFUSED);
    }
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
    EXPECT_NE(text.find("start qel-fabric"), std::string::npos);
    EXPECT_NE(text.find(fabric_dir()), std::string::npos);
}

TEST_F(local_port, a_socket_without_a_directory_finds_no_entry) {
    process p({fs::read_symlink("/proc/self/exe").string(), "--role", "refused", ""},
              {{"QEL_FABRIC", "-"}, {"XDG_RUNTIME_DIR", "-"}}, true);
    const std::string text = p.rest();
    EXPECT_EQ(p.wait(), ENOENT);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
    EXPECT_NE(text.find("set QEL_FABRIC"), std::string::npos) << text;
}

TEST_F(local_port, other_kinds_of_sockets_are_refused) {
    start();
    EXPECT_EQ(port.socket(AF_INET, SOCK_RDM, 0), -1);
    EXPECT_EQ(errno, EAFNOSUPPORT);
    EXPECT_EQ(port.socket(AF_TIPC, SOCK_STREAM, 0), -1);
    EXPECT_EQ(errno, EPROTOTYPE);
    EXPECT_EQ(port.socket(AF_TIPC, SOCK_RDM, 7), -1);
    EXPECT_EQ(errno, EPROTONOSUPPORT);
    EXPECT_EQ(port.close(-1), -1);
    EXPECT_EQ(errno, EBADF);
}

// ---- the end of a fabric ----------------------------------------------------------------------------------

TEST_F(local_port, when_the_fabric_dies_topology_connections_end_and_names_are_gone) {
    start();
    auto other = role("hold", "5", 2);
    ASSERT_EQ(other->line(), "ready");
    sock s(1);
    topology t;
    t.subscribe(sock::type, 0, 100);
    EXPECT_EQ(t.next(), "P[5,5]");
    EXPECT_EQ(t.next(), "P[1,1]");
    EXPECT_EQ(s.send(5, "hello"), 5);
    testing::internal::CaptureStderr();
    fabric->kill();
    pollfd both[2] = {{t.fd, POLLIN, 0}, {s.fd, POLLIN, 0}};
    ASSERT_EQ(port.poll(both, 2, 20'000), 1);
    EXPECT_EQ(both[0].revents, POLLIN | POLLHUP);
    EXPECT_EQ(t.next(), "end");
    char c = 0;
    EXPECT_EQ(port.recv(t.fd, &c, 1, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(port.send(t.fd, &c, 1, 0), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(s.send(5, "hello"), -EHOSTUNREACH);
    EXPECT_EQ(s.send(1, "hello"), -EHOSTUNREACH);
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
}

TEST_F(local_port, sockets_that_a_fabric_took_for_dead_receive_again) {
    start();
    std::vector<std::unique_ptr<sock>> all;
    for (uint32_t i = 1; i <= 20; i++)
        all.push_back(std::make_unique<sock>(i));
    testing::internal::CaptureStderr();
    fabric->kill();
    // One that has no room for all of them: the connection ends with some of them taken.
    fabric = std::make_unique<process>(
        strings{"/bin/sh", "-c", "ulimit -n 30; exec \"$0\" --ready-fd 1", fabric_program()},
        std::map<std::string, std::string>{});
    ASSERT_EQ(fabric->line(), "");
    pollfd p = {all[0]->fd, POLLIN, 0};
    port.poll(&p, 1, 500);
    fabric->kill();
    start();
    std::vector<bool> heard(all.size());
    const auto end = steady_clock::now() + seconds(20);
    while (std::find(heard.begin(), heard.end(), false) != heard.end() && steady_clock::now() < end) {
        for (uint32_t i = 0; i < all.size(); i++) {
            if (heard[i])
                continue;
            (void)all[0]->send(i + 1, "hello");
            for (;;) {
                const received r = all[i]->receive();
                heard[i] = heard[i] || r.data == "hello";
                if (r.result < 0 && r.error != EIO)
                    break;
            }
        }
    }
    EXPECT_EQ(std::count(heard.begin(), heard.end(), true), 20);
    (void)testing::internal::GetCapturedStderr();
}

// How many queues this process has mapped.
size_t queues_mapped() {
    std::ifstream maps("/proc/self/maps");
    size_t count = 0;
    for (std::string line; std::getline(maps, line);)
        count += line.find("/memfd:qel-queue") != std::string::npos;
    return count;
}

TEST_F(local_port, the_queue_of_a_process_that_died_while_no_fabric_ran_is_not_kept) {
    start();
    auto far = role("hold", "5", 2);
    ASSERT_EQ(far->line(), "ready");
    sock s(1);
    ASSERT_EQ(s.send(5, "hello"), 5);
    ASSERT_EQ(queues_mapped(), 2u);
    testing::internal::CaptureStderr();
    fabric->kill();
    far->kill();
    (void)s.next(200); // which finds the fabric gone
    start();
    ssize_t sent = 0;
    for (int i = 0; i < 2000 && sent != 5; i++) {
        (void)s.next(10);
        sent = s.send(1, "hello");
    }
    EXPECT_EQ(sent, 5);
    EXPECT_EQ(queues_mapped(), 1u);
    (void)testing::internal::GetCapturedStderr();
}

TEST_F(local_port, a_new_fabric_gets_every_living_socket_back) {
    start();
    auto far = role("echo", "5", 2);
    ASSERT_EQ(far->line(), "ready");
    sock s(1);
    sock unbound;
    EXPECT_EQ(s.bind(7, 9), 0);
    EXPECT_EQ(s.bind(20), 0);
    sockaddr_tipc gone = range_address(sock::type, 20, 20);
    gone.scope = -TIPC_CLUSTER_SCOPE;
    EXPECT_EQ(port.bind(s.fd, generic(gone), sizeof gone), 0);
    ASSERT_EQ(s.send(1, "kept"), 4) << "lies in the queue all the time";
    ASSERT_EQ(s.send(5, "first"), 5);
    EXPECT_EQ(s.next().data, "kept");
    const received first = s.next();
    EXPECT_EQ(first.data, "first");
    ASSERT_EQ(s.send(1, "kept again"), 10);
    for (const int signal : {SIGKILL, SIGTERM}) {
        fabric->kill(signal);
        start();
        topology t;
        t.subscribe(sock::type, 0, 100);
        std::set<std::string> seen;
        for (int i = 0; i < 3; i++)
            seen.insert(t.next());
        EXPECT_EQ(seen, (std::set<std::string>{"P[1,1]", "P[5,5]", "P[7,9]"}));
        EXPECT_EQ(t.next(100), "nothing") << "and only the names it had";
        EXPECT_EQ(s.next().data, "kept again");
        ASSERT_EQ(unbound.send(5, "second"), 6);
        const received second = unbound.next();
        EXPECT_EQ(second.data, "second") << "answered to a socket that was never bound";
        EXPECT_EQ(second.from.ref, first.from.ref) << "port numbers stay";
        EXPECT_EQ(unbound.send(first.from, "third"), 5);
        EXPECT_EQ(unbound.next().data, "third");
        ASSERT_EQ(s.send(1, "kept again"), 10);
    }
}

TEST_F(local_port, a_process_that_died_while_no_fabric_ran_is_not_announced_again) {
    start();
    auto far = role("hold", "5", 2);
    ASSERT_EQ(far->line(), "ready");
    sock s(1);
    EXPECT_EQ(s.send(5, "hello"), 5);
    fabric->kill();
    far->kill();
    start();
    topology t;
    t.subscribe(sock::type, 0, 100);
    t.subscribe(TIPC_NODE_STATE, 0, 0xFFFFFFFF);
    EXPECT_EQ(t.next(), "P[1,1]");
    EXPECT_EQ(t.next(), "P[16781313,16781313]");
    EXPECT_EQ(t.next(100), "nothing");
    EXPECT_EQ(s.send(5, "hello"), -EHOSTUNREACH);
}

// ---- deaths -----------------------------------------------------------------------------------------------

TEST_F(local_port, senders_killed_in_the_middle_of_writing_harm_nobody) {
    start();
    sock s(1);
    std::map<uint32_t, uint32_t> next;
    std::mt19937 random(1);
    for (uint32_t round = 0; round < 30; round++) {
        auto victim = role("flood", std::to_string(2 * round)),
             other = role("flood", std::to_string(2 * round + 1));
        ASSERT_EQ(victim->line(), "ready");
        ASSERT_EQ(other->line(), "ready");
        const uint32_t kill_after = 200 + random() % 2000;
        uint32_t count = 0, after = 0;
        bool killed = false;
        while (after < 500) {
            const received r = s.next();
            ASSERT_GE(r.result, 8) << "round " << round << ": " << strerror(r.error);
            uint32_t number = 0, i = 0;
            memcpy(&number, r.data.data(), 4);
            memcpy(&i, r.data.data() + 4, 4);
            ASSERT_GE(i, next[number]) << "in order; what the full queue refused is missing";
            next[number] = i + 1;
            count++;
            if (!killed && count == kill_after) {
                victim->kill();
                killed = true;
            }
            after += killed && number % 2 == 1; // the other one goes on
        }
        other->kill();
        while (s.receive().result >= 0) {
        }
    }
}

TEST_F(local_port, every_message_to_killed_receivers_is_received_once_or_comes_back) {
    start();
    const std::string file = dir + "/count";
    qel_fd fd(open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(ftruncate(fd.fd, 4096), 0);
    auto *count = static_cast<std::atomic<uint64_t> *>(
        mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd.fd, 0));
    sock s;
    topology t;
    t.subscribe(sock::type, 1, 1);
    for (int round = 0; round < 30; round++) {
        auto receiver = role("count", file, 2);
        ASSERT_EQ(receiver->line(), "ready");
        ASSERT_EQ(t.next(), "P[1,1]");
        count->store(0);
        uint64_t sent = 0, back = 0;
        std::thread killer([&] {
            while (count->load() < 200 && receiver->pid > 0)
                std::this_thread::yield();
            kill(receiver->pid, SIGKILL);
        });
        const std::string data(100, 'x');
        std::vector<uint64_t> order;
        // Until the name is gone; the rest of the accounting is in this socket's queue then.
        for (;;) {
            std::string numbered = data;
            memcpy(numbered.data(), &sent, 8);
            const ssize_t result = s.send(1, numbered);
            if (result == -EHOSTUNREACH)
                break;
            ASSERT_EQ(result, 100);
            sent++;
            for (received r = s.receive(); r.result >= 0; r = s.receive()) {
                ASSERT_TRUE(r.code == TIPC_ERR_NO_PORT || r.code == TIPC_ERR_OVERLOAD) << r.code;
                back++;
                uint64_t n = 0;
                memcpy(&n, r.data.data(), 8);
                order.push_back(n);
            }
        }
        killer.join();
        receiver->wait();
        ASSERT_EQ(t.next(), "W[1,1]");
        for (received r = s.receive(); r.result >= 0; r = s.receive()) {
            back++;
            uint64_t n = 0;
            memcpy(&n, r.data.data(), 8);
            if (r.code == TIPC_ERR_NO_PORT)
                order.push_back(n);
        }
        const uint64_t got = count->load();
        EXPECT_GE(got + back + 1, sent) << "one may have been taken but not counted yet";
        EXPECT_LE(got + back, sent) << "nothing twice";
        std::set<uint64_t> different(order.begin(), order.end());
        EXPECT_EQ(different.size(), order.size());
    }
}

TEST_F(local_port, unread_messages_come_back_in_order_before_the_withdrawal) {
    start();
    sock s;
    topology t;
    t.subscribe(sock::type, 5, 5);
    for (int round = 0; round < 20; round++) {
        auto receiver = role("hold", "5", 2);
        ASSERT_EQ(receiver->line(), "ready");
        ASSERT_EQ(t.next(), "P[5,5]");
        for (int i = 0; i < 300; i++)
            ASSERT_GT(s.send(5, std::to_string(i)), 0);
        kill(receiver->pid, SIGKILL);
        pollfd both[2] = {{t.fd, POLLIN, 0}, {s.fd, POLLIN, 0}};
        for (int i = 0; i < 300;) {
            ASSERT_GT(port.poll(both, 2, 20'000), 0);
            ASSERT_TRUE(!both[0].revents || both[1].revents) << "withdrawn before message " << i;
            if (!both[1].revents)
                continue;
            const received r = s.receive();
            ASSERT_EQ(r.code, uint32_t{TIPC_ERR_NO_PORT});
            ASSERT_EQ(r.data, std::to_string(i++));
        }
        EXPECT_EQ(t.next(), "W[5,5]");
        EXPECT_EQ(s.receive().error, EAGAIN);
    }
}

TEST_F(local_port, a_dead_receiver_is_withdrawn_soon_however_many_messages_a_frozen_sender_gets_back) {
    start();
    sock frozen;
    own_queue its;
    ASSERT_NE(its.q.shared, nullptr);
    sock s;
    topology t;
    t.subscribe(sock::type, 1, 1);
    auto receiver = role("hold", "1", 2);
    ASSERT_EQ(receiver->line(), "ready");
    ASSERT_EQ(t.next(), "P[1,1]");
    constexpr int messages = 3000;
    for (int i = 0; i < messages; i++) {
        ASSERT_EQ(frozen.send(1, "a"), 1);
        ASSERT_EQ(s.send(1, "b"), 1);
    }
    qel_lq_lock_for_test(its.q); // as a writer would that is stopped inside
    const auto begin = steady_clock::now();
    receiver->kill();
    EXPECT_EQ(t.next(), "W[1,1]");
    EXPECT_LT(steady_clock::now() - begin, seconds(6));
    for (int i = 0; i < messages; i++)
        EXPECT_EQ(s.receive().code, uint32_t{TIPC_ERR_NO_PORT});
}

TEST_F(local_port, a_dead_receiver_gives_back_what_it_had_at_its_end_whatever_others_write_to_its_memory) {
    start();
    sock s(2);
    topology t;
    t.subscribe(sock::type, 1, 1);
    // Where the queue says that it is closed.
    qel_fd file(qel_lq_create_file());
    qel_lq q;
    ASSERT_EQ(qel_lq_map_file(q, file.fd), 0);
    auto *bytes = reinterpret_cast<unsigned char *>(q.shared);
    ASSERT_TRUE(qel_lq_close(q, qel_lq_patience::once));
    const auto closed = static_cast<size_t>(std::find(bytes, bytes + 4096, 1) - bytes);
    ASSERT_LT(closed, 4096u);
    bytes[closed] = 0;

    qel_lq_init(q, uint64_t{1} << 40);
    qel_lq_meta meta{};
    ASSERT_EQ(s.send(2, "who am I"), 8);
    meta.src_ref = s.next().from.ref;
    meta.src_node = 0x01001001;
    constexpr int messages = 12'000; // which take the fabric a while
    const std::string data(1000, 'x');
    meta.size = 1000;
    for (int i = 0; i < messages; i++)
        ASSERT_EQ(qel_lq_write(q, meta, data.data(), qel_lq_patience::bounded), qel_lq_put::ok);
    {
        qel_fd dead(qel_fabric_connect(qel_fabric_kind::process, 0x01001002));
        char page[200];
        ASSERT_GT(recv(dead.fd, page, sizeof page, 0), 0);
        qel_fd event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        const int fds[2] = {file.fd, event.fd};
        qel_fabric_request request{};
        qel_fabric_reply reply{};
        request.op = static_cast<uint32_t>(qel_fabric_op::enroll);
        ASSERT_GT(qel_fabric_send(dead.fd, &request, sizeof request, fds, 2, 0), 0);
        ASSERT_EQ(recv(dead.fd, &reply, sizeof reply, 0), ssize_t{sizeof reply});
        request.op = static_cast<uint32_t>(qel_fabric_op::bind);
        request.ref = reply.ref;
        request.type = sock::type;
        request.lower = request.upper = 1;
        ASSERT_GT(qel_fabric_send(dead.fd, &request, sizeof request, nullptr, 0, 0), 0);
        ASSERT_EQ(t.next(), "P[1,1]");
    }
    // Opened again as soon as the fabric has closed it, and written to.
    while (!qel_lq_is_closed(q)) {
    }
    bytes[closed] = 0;
    meta.size = 4;
    ASSERT_EQ(qel_lq_write(q, meta, "late", qel_lq_patience::bounded), qel_lq_put::ok);
    EXPECT_EQ(t.next(), "W[1,1]");
    for (int i = 0; i < messages; i++)
        ASSERT_EQ(s.receive().data, data);
    EXPECT_EQ(s.receive().error, EAGAIN);
    qel_lq_unmap(q);
}

TEST_F(local_port, a_frozen_sender_does_not_keep_a_dead_receiver_published) {
    start();
    auto receiver = role("hold", "1", 2);
    ASSERT_EQ(receiver->line(), "ready");
    auto sender = role("flood", "0", 3);
    ASSERT_EQ(sender->line(), "ready");
    topology t;
    t.subscribe(sock::type, 1, 1);
    ASSERT_EQ(t.next(), "P[1,1]");
    kill(sender->pid, SIGSTOP); // perhaps inside the lock of the receiver's queue
    receiver->kill();
    EXPECT_EQ(t.next(), "W[1,1]");
}

// ---- damage and hostility ---------------------------------------------------------------------------------

TEST_F(local_port, a_sleeping_reader_finds_a_message_also_when_nobody_sees_that_it_sleeps) {
    start();
    sock s(1);
    own_queue mine;
    sock sender;
    qel_fd file(qel_lq_create_file());
    qel_lq other;
    ASSERT_EQ(qel_lq_map_file(other, file.fd), 0);
    qel_lq_reader reader;
    qel_lq_sleep_begin(other, reader);
    auto *bytes = reinterpret_cast<unsigned char *>(other.shared);
    const auto sleep = static_cast<size_t>(std::find(bytes, bytes + 4096, 1) - bytes);
    ASSERT_LT(sleep, 4096u);
    qel_lq_unmap(other);

    std::thread writer([&] {
        while (qel_lq_sleeper(mine.q) == 0)
            std::this_thread::yield();
        memset(mine.bytes() + sleep, 0, 8);
        EXPECT_EQ(sender.send(1, "hello"), 5);
    });
    const auto begin = steady_clock::now();
    EXPECT_EQ(s.next(30'000).data, "hello");
    EXPECT_LT(steady_clock::now() - begin, seconds(15));
    writer.join();
}

TEST_F(local_port, a_damaged_queue_reports_an_error_once_and_goes_on) {
    start();
    sock s(1);
    own_queue mine;
    ASSERT_NE(mine.q.shared, nullptr);
    for (int round = 0; round < 5; round++) {
        ASSERT_EQ(s.send(1, "hello"), 5);
        EXPECT_EQ(s.next().data, "hello");
        ASSERT_EQ(s.send(1, "damaged"), 7);
        memset(mine.q.blocks, 0xAA, 2 * qel_lq_block_bytes);
        const received r = s.next();
        EXPECT_EQ(r.result, -1);
        EXPECT_EQ(r.error, EIO);
        EXPECT_EQ(s.receive().error, EAGAIN) << "what was queued is lost";
    }
    ASSERT_EQ(s.send(1, std::string(60'000, 'x')), 60'000);
    EXPECT_EQ(s.next().result, 60'000);
}

TEST_F(local_port, a_sender_that_finds_a_damaged_queue_gets_its_message_back_and_the_owner_starts_anew) {
    start();
    auto other = role("echo", "5", 2);
    ASSERT_EQ(other->line(), "ready");
    sock s(1);
    own_queue mine;
    auto far = role("echo", "6", 2);
    ASSERT_EQ(far->line(), "ready");
    ASSERT_EQ(s.send(6, "hello"), 5);
    EXPECT_EQ(s.next().data, "hello");
    memset(mine.bytes() + 192, 0xFF, 128); // the writers' state
    ASSERT_EQ(s.send(6, "lost"), 4);
    received r = s.next(); // the answer could not be put in
    EXPECT_EQ(r.error, EIO);
    ASSERT_EQ(s.send(6, "well"), 4);
    r = s.next();
    EXPECT_EQ(r.data, "well");
}

TEST_F(local_port, scribbling_over_a_queue_crashes_neither_process_nor_fabric) {
    start();
    auto other = role("echo", "5", 2);
    ASSERT_EQ(other->line(), "ready");
    sock s(1);
    own_queue mine;
    std::mt19937 random(7);
    for (int round = 0; round < 300; round++) {
        (void)s.send(5, std::string(random() % 3000, 'x'));
        (void)s.send(1, std::string(random() % 20'000, 'x'));
        for (int i = 0; i < 10; i++) {
            size_t where = random() % 3 ? random() % 1024 : random() % (qel_lq_block_bytes * 4) + 4096 * 65;
            if (where / 8 != 16) // the lock: a word that names a living thread is waited for
                mine.bytes()[where] = static_cast<unsigned char>(random());
        }
        for (int i = 0; i < 20 && s.receive().result >= 0; i++) {
        }
    }
    s.close(); // the fabric reads what is left
    sock fresh(1);
    EXPECT_EQ(fresh.send(5, "hello"), 5);
    EXPECT_EQ(fresh.next().data, "hello");
}

int raw_connection() {
    const char *path = getenv("QEL_FABRIC");
    if (!path)
        return -1;
    qel_fd dir(open(path, O_PATH | O_CLOEXEC));
    sockaddr_un address;
    qel_fabric_address(address, path, dir.fd);
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    return fd;
}
// True when the other side ended the connection.
bool ended(int fd) {
    pollfd p = {fd, POLLIN, 0};
    char room[100];
    while (poll(&p, 1, 20'000) == 1) {
        const ssize_t got = recv(fd, room, sizeof room, MSG_DONTWAIT);
        if (got <= 0)
            return true;
    }
    return false;
}

TEST_F(local_port, the_fabric_ends_connections_that_talk_nonsense_and_serves_the_others) {
    start();
    sock s(1);
    std::mt19937 random(3);
    for (int round = 0; round < 100; round++) {
        const int fd = raw_connection();
        std::string junk(random() % 100 + 1, 0);
        for (char &c : junk)
            c = static_cast<char>(random());
        ASSERT_GT(::send(fd, junk.data(), junk.size(), 0), 0);
        EXPECT_TRUE(ended(fd));
        ::close(fd);
    }
    for (int round = 0; round < 200; round++) {
        const int fd = qel_fabric_connect(qel_fabric_kind::process, 0x01001002);
        ASSERT_GE(fd, 0);
        char page[200];
        ASSERT_GT(recv(fd, page, sizeof page, 0), 0);
        qel_fabric_request q{};
        q.op = random() % 9;
        q.ref = random() % 4;
        q.node = random() % 2 ? 0x01001001 : random();
        q.type = random() % 3 ? sock::type : random();
        q.lower = random() % 5;
        q.upper = random() % 5;
        q.scope = static_cast<int32_t>(random() % 5);
        ASSERT_GT(::send(fd, &q, round % 10 ? sizeof q : random() % sizeof q + 1, 0), 0);
        pollfd p = {fd, POLLIN, 0};
        EXPECT_EQ(poll(&p, 1, 20'000), 1) << "an answer or the end";
        ::close(fd);
    }
    EXPECT_EQ(s.send(1, "hello"), 5);
    EXPECT_EQ(s.next().data, "hello");
}

TEST_F(local_port, the_fabric_takes_only_queues_that_are_safe_to_touch) {
    start();
    const int fd = qel_fabric_connect(qel_fabric_kind::process, 0x01001002);
    char page[200];
    ASSERT_GT(recv(fd, page, sizeof page, 0), 0);
    const auto enroll = [&](const std::vector<int> &fds) {
        qel_fabric_request q{};
        q.op = static_cast<uint32_t>(qel_fabric_op::enroll);
        EXPECT_GT(qel_fabric_send(fd, &q, sizeof q, fds.data(), fds.size(), 0), 0);
        qel_fabric_reply r{};
        EXPECT_EQ(recv(fd, &r, sizeof r, 0), ssize_t{sizeof r});
        return r.error;
    };
    qel_fd queue(qel_lq_create_file()), event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    qel_fd unsealed(memfd_create("x", MFD_CLOEXEC));
    ASSERT_EQ(ftruncate(unsealed.fd, static_cast<off_t>(qel_lq_bytes(qel_lq_blocks))), 0);
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    EXPECT_EQ(enroll({}), EINVAL);
    EXPECT_EQ(enroll({queue.fd}), EINVAL);
    EXPECT_EQ(enroll({unsealed.fd, event.fd}), EINVAL);
    EXPECT_EQ(enroll({queue.fd, ends[1]}), EINVAL) << "a pipe could make the fabric wait";
    EXPECT_EQ(enroll({event.fd, queue.fd}), EINVAL);
    EXPECT_EQ(enroll({queue.fd, event.fd}), 0);
    EXPECT_EQ(enroll({queue.fd, event.fd}), EAGAIN) << "a queue has one owner";
    ::close(ends[0]);
    ::close(ends[1]);
    ::close(fd);
}

TEST_F(local_port, a_subscriber_that_does_not_read_costs_nobody_anything_and_loses_nothing) {
    start();
    topology deaf, other;
    deaf.subscribe(sock::type, 0, 100);
    other.subscribe(sock::type, 50, 50);
    constexpr int rounds = 15'000 / slow;
    sock s;
    for (int i = 0; i < rounds; i++) {
        ASSERT_EQ(s.bind(7), 0);
        sockaddr_tipc gone = range_address(sock::type, 7, 7);
        gone.scope = -TIPC_CLUSTER_SCOPE;
        ASSERT_EQ(port.bind(s.fd, generic(gone), sizeof gone), 0);
    }
    EXPECT_EQ(s.bind(50), 0);
    EXPECT_EQ(other.next(), "P[50,50]");
    for (int i = 0; i < rounds; i++) {
        ASSERT_EQ(deaf.next(), "P[7,7]");
        ASSERT_EQ(deaf.next(), "W[7,7]");
    }
    EXPECT_EQ(deaf.next(), "P[50,50]");
}

TEST_F(local_port, a_subscription_beyond_the_limit_ends_its_connection) {
    start();
    topology first, second;
    for (uint32_t i = 0; i < 65'535; i++)
        first.subscribe(sock::type, i, i);
    sock s(65'534);
    EXPECT_EQ(first.next(), "P[65534,65534]") << "the last one was read";
    second.subscribe(sock::type, 0, 0);
    EXPECT_EQ(second.next(), "end");
    EXPECT_EQ(s.bind(9), 0);
    EXPECT_EQ(first.next(), "P[9,9]") << "the others live on";
}

TEST_F(local_port, subscribers_that_do_not_read_are_dropped_before_those_that_do) {
    if (slow > 1)
        GTEST_SKIP() << "four million waiting events take too much memory with a sanitizer";
    start();
    sock s;
    constexpr uint32_t names = 9'000;
    for (uint32_t i = 0; i < names; i++)
        ASSERT_EQ(s.bind(i), 0);
    std::vector<std::unique_ptr<topology>> deaf;
    for (int i = 0; i < 5; i++) {
        deaf.push_back(std::make_unique<topology>());
        for (int k = 0; k < (i < 4 ? 98 : 50); k++)
            deaf.back()->subscribe(sock::type, 0, 2 * names);
    }
    topology good;
    good.subscribe(sock::type, names, 2 * names);
    for (uint32_t i = names; i < names + 300; i++) { // on which the 4,000,000th waits
        ASSERT_EQ(s.bind(i), 0);
        ASSERT_EQ(good.next(), "P[" + std::to_string(i) + "," + std::to_string(i) + "]");
    }
    int dropped = 0;
    for (auto &d : deaf) {
        pollfd p = {d->fd, 0, 0};
        dropped += port.poll(&p, 1, 0) == 1 && (p.revents & POLLHUP);
    }
    EXPECT_EQ(dropped, 1);
}

// ---- names ------------------------------------------------------------------------------------------------

TEST_F(local_port, a_datagram_to_the_topology_servers_name_reaches_nobody) {
    for (int round = 0; round < 10; round++) { // port numbers start at random
        start();
        process p({fs::read_symlink("/proc/self/exe").string(), "--role", "to-server", ""},
                  {{"QEL_ROOT", dir}});
        EXPECT_EQ(p.wait(), EHOSTUNREACH);
        fabric->kill();
    }
}

TEST_F(local_port, messages_go_round_over_more_binders_than_a_reply_names) {
    start();
    std::vector<std::unique_ptr<sock>> all;
    for (int i = 0; i < 7; i++)
        all.push_back(std::make_unique<sock>(5));
    sock s;
    for (int i = 0; i < 70; i++)
        ASSERT_EQ(s.send(5, "hello"), 5);
    for (auto &r : all) {
        for (int i = 0; i < 10; i++)
            ASSERT_EQ(r->receive().data, "hello");
        ASSERT_EQ(r->receive().error, EAGAIN);
    }
}

TEST_F(local_port, a_sender_prefers_the_binder_on_its_own_node) {
    start();
    auto far = role("hold", "5", 2);
    ASSERT_EQ(far->line(), "ready");
    sock near(5), s;
    for (int i = 0; i < 10; i++)
        ASSERT_EQ(s.send(5, "hello"), 5);
    for (int i = 0; i < 10; i++)
        ASSERT_EQ(near.receive().data, "hello");
}

TEST_F(local_port, a_process_with_few_descriptors_can_send_to_more_sockets_than_it_can_map) {
    start();
    auto far = role("idle", "0"); // keeps the node up
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    std::vector<std::unique_ptr<process>> others;
    for (int i = 0; i < 40; i++) {
        others.push_back(role("echo", std::to_string(200 + i), 2));
        ASSERT_EQ(others.back()->line(), "ready");
        // The pipes to it are not what this test is about.
        others.back()->in.reset();
        others.back()->out.reset();
    }
    files.rlim_cur = 32;
    sock s(1);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &files), 0);
    for (int round = 0; round < 5; round++)
        for (uint32_t i = 0; i < 40; i++) {
            ASSERT_EQ(s.send(200 + i, std::to_string(i)), i < 10 ? 1 : 2) << i;
            ASSERT_EQ(s.next().data, std::to_string(i));
        }
}

TEST_F(local_port, port_numbers_that_nobody_has_give_messages_back_while_the_node_lives) {
    start();
    auto far = role("hold", "5", 2);
    ASSERT_EQ(far->line(), "ready");
    sock s;
    EXPECT_EQ(s.send({12345, 0x01001002}, "hello"), 5);
    const received r = s.next();
    EXPECT_EQ(r.code, uint32_t{TIPC_ERR_NO_PORT});
    EXPECT_EQ(r.data, "hello");
    EXPECT_EQ(r.from.ref, 12345u);
    EXPECT_EQ(s.send({12345, 0x01001003}, "hello"), -EHOSTUNREACH);
}

// ---- poll and wake-ups ------------------------------------------------------------------------------------

TEST_F(local_port, a_port_number_is_unreachable_when_the_last_process_of_its_node_is_gone) {
    start();
    auto last = role("hold", "5", 2);
    ASSERT_EQ(last->line(), "ready");
    auto far = role("echo", "6", 2);
    ASSERT_EQ(far->line(), "ready");
    topology t;
    t.subscribe(sock::type, 5, 6);
    ASSERT_EQ(t.next(), "P[5,5]");
    ASSERT_EQ(t.next(), "P[6,6]");
    sock s;
    ASSERT_EQ(s.send(6, "hello"), 5);
    const tipc_socket_addr id = s.next().from;
    far->kill();
    ASSERT_EQ(t.next(), "W[6,6]");
    ASSERT_EQ(s.send(id, "hello"), 5);
    EXPECT_EQ(s.next().code, uint32_t{TIPC_ERR_NO_PORT});
    last->kill();
    ASSERT_EQ(t.next(), "W[5,5]");
    (void)control("list"); // the node went with the last of its sockets
    EXPECT_EQ(s.send(id, "hello"), -EHOSTUNREACH);
}

TEST_F(local_port, a_flood_of_messages_does_not_hide_events_from_poll) {
    start();
    sock s(1), sender;
    topology t;
    t.subscribe(sock::type, 50, 50);
    for (int i = 0; i < 1000; i++)
        ASSERT_EQ(sender.send(1, "hello"), 5);
    sock made(50);
    pollfd both[2] = {{t.fd, POLLIN, 0}, {s.fd, POLLIN, 0}};
    bool seen = false;
    for (int i = 0; i < 3 && !seen; i++) {
        ASSERT_GT(port.poll(both, 2, 0), 0);
        EXPECT_TRUE(both[1].revents & POLLIN);
        seen = both[0].revents != 0;
        s.receive();
    }
    EXPECT_TRUE(seen);
}

TEST_F(local_port, poll_serves_ordinary_descriptors_beside_a_busy_queue) {
    start();
    sock s(1);
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    for (int i = 0; i < 200; i++)
        ASSERT_EQ(s.send(1, "hello"), 5);
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    pollfd both[3] = {{ends[0], POLLIN, 0}, {s.fd, POLLIN, 0}, {-1, POLLIN, 7}};
    bool seen = false;
    for (int i = 0; i < 100 && !seen; i++) {
        ASSERT_GT(port.poll(both, 3, 0), 0);
        EXPECT_EQ(both[2].revents, 0);
        seen = both[0].revents != 0;
        s.receive();
    }
    EXPECT_TRUE(seen);
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST_F(local_port, a_closed_descriptor_is_invalid_in_poll) {
    start();
    sock s(1);
    pollfd p = {s.fd, POLLIN, 0};
    s.close();
    EXPECT_EQ(port.poll(&p, 1, 0), 1);
    EXPECT_EQ(p.revents, POLLNVAL);
}

TEST_F(local_port, no_wake_up_is_lost_between_processes) {
    start();
    auto far = role("echo", "5", 2);
    ASSERT_EQ(far->line(), "ready");
    sock s(1);
    for (int i = 0; i < 20'000 / slow; i++) {
        ASSERT_EQ(s.send(5, "ping"), 4);
        if (i % 3 == 0) // meet the other side at all times
            for (std::atomic<int> k{0}; k < i % 500; k++) {
            }
        const received r = i % 2 ? s.next() : s.receive(0);
        ASSERT_EQ(r.data, "ping") << "round " << i;
    }
}

TEST_F(local_port, no_wake_up_is_lost_with_several_senders) {
    start();
    sock s(1);
    constexpr int senders = 3, each = 20'000 / slow;
    std::vector<std::thread> threads;
    for (int t = 0; t < senders; t++)
        threads.emplace_back([] {
            sock mine;
            for (int i = 0; i < each; i++) {
                EXPECT_EQ(mine.send(1, "message"), 7);
                if (i % 16 == 0)
                    std::this_thread::yield();
                while (mine.receive().result >= 0) // the queue was full
                    i--;
            }
        });
    int got = 0;
    for (; got < senders * each; got++) {
        if (s.next(20'000).data != "message")
            break;
    }
    for (auto &t : threads)
        t.join();
    for (; s.receive().result >= 0; got++) {
    }
    EXPECT_GE(got, senders * each);
}

TEST_F(local_port, a_signal_ends_poll) {
    start();
    sock s(1);
    struct sigaction act {};
    act.sa_handler = [](int) {};
    sigaction(SIGUSR1, &act, nullptr);
    const pthread_t me = pthread_self();
    std::atomic<bool> done{false};
    std::thread other([&] {
        while (!done) {
            pthread_kill(me, SIGUSR1);
            std::this_thread::yield();
        }
    });
    pollfd p = {s.fd, POLLIN, 0};
    EXPECT_EQ(port.poll(&p, 1, 20'000), -1);
    EXPECT_EQ(errno, EINTR);
    done = true;
    other.join();
}

// ---- faults on demand -------------------------------------------------------------------------------------

TEST_F(local_port, events_can_be_held_back_while_messages_pass) {
    start("event-delay 300");
    sock s(1);
    topology t;
    t.subscribe(sock::type, 5, 5);
    const auto begin = steady_clock::now();
    auto far = role("flood", "0", 2);
    auto named = role("hold", "5", 2);
    ASSERT_EQ(far->line(), "ready");
    ASSERT_EQ(named->line(), "ready");
    EXPECT_GT(s.next().result, 0);
    EXPECT_EQ(t.next(), "P[5,5]");
    EXPECT_GE(steady_clock::now() - begin, 300ms);
    control("clear");
    named->kill();
    EXPECT_EQ(t.next(), "W[5,5]");
}

TEST_F(local_port, a_name_can_come_late) {
    start("name-delay 300");
    const auto begin = steady_clock::now();
    sock r(5), s;
    topology t;
    t.subscribe(sock::type, 5, 5);
    EXPECT_EQ(s.send(5, "early"), -EHOSTUNREACH);
    EXPECT_EQ(t.next(), "P[5,5]");
    EXPECT_GE(steady_clock::now() - begin, 300ms);
    EXPECT_EQ(s.send(5, "late"), 4);
    sock never(6);
    never.close();
    EXPECT_EQ(s.send(6, "early"), -EHOSTUNREACH);
}

TEST_F(local_port, returns_can_be_lost) {
    start();
    control("lose-return 3");
    sock s;
    {
        sock r(5);
        for (int i = 0; i < 30; i++)
            ASSERT_EQ(s.send(5, "hello"), 5);
    }
    int back = 0;
    while (s.receive().code == TIPC_ERR_NO_PORT)
        back++;
    EXPECT_EQ(back, 20);
    control("lose-return 1");
    sock full(6);
    int sent = 0;
    for (; sent < 20'000; sent++)
        ASSERT_EQ(s.send(6, "hello"), 5);
    EXPECT_EQ(s.receive().error, EAGAIN) << "of " << sent << " messages none came back";
    control("lose-return 0");
    ASSERT_EQ(s.send(6, "hello"), 5);
    EXPECT_EQ(s.receive().code, uint32_t{TIPC_ERR_OVERLOAD});
}

TEST_F(local_port, a_link_can_be_congested) {
    start();
    auto far = role("echo", "5", 2);
    ASSERT_EQ(far->line(), "ready");
    sock s(1);
    ASSERT_EQ(s.send(5, "hello"), 5);
    EXPECT_EQ(s.next().data, "hello");
    const auto begin = steady_clock::now();
    control("congest 2 500");
    EXPECT_EQ(s.send(5, "hello", MSG_DONTWAIT), -EAGAIN);
    EXPECT_EQ(s.send(1, "self"), 4) << "its own node can be reached";
    EXPECT_EQ(s.next().data, "self");
    EXPECT_EQ(s.send(5, "again"), 5);
    EXPECT_GE(steady_clock::now() - begin, 500ms);
    EXPECT_EQ(s.next().data, "again");
    control("congest 2 60000");
    const int on = 1;
    ASSERT_EQ(port.setsockopt(s.fd, SOL_TIPC, TIPC_SRC_DROPPABLE, &on, sizeof on), 0);
    EXPECT_EQ(s.send(5, "dropped"), 7);
    control("clear");
    EXPECT_EQ(s.send(5, "after"), 5);
    EXPECT_EQ(s.next().data, "after");
}

TEST_F(local_port, a_node_that_is_cut_off_keeps_its_own_topology_server) {
    start();
    topology before;
    before.subscribe(TIPC_TOP_SRV, 0, 1);
    EXPECT_EQ(before.next(), "P[1,1]");
    control("cut 1 60000");
    topology after;
    after.subscribe(TIPC_TOP_SRV, 0, 1);
    EXPECT_EQ(after.next(), "P[1,1]");
    EXPECT_EQ(before.next(50), "nothing");
}

TEST_F(local_port, a_node_can_be_cut_off_and_comes_back) {
    start();
    auto far = role("echo", "5", 2);
    ASSERT_EQ(far->line(), "ready");
    auto third = role("hold", "6", 3);
    ASSERT_EQ(third->line(), "ready");
    sock s(1);
    topology names, nodes;
    names.subscribe(sock::type, 5, 5, TIPC_SUB_SERVICE);
    nodes.subscribe(TIPC_NODE_STATE, 0x01001002, 0x01001003);
    EXPECT_EQ(names.next(), "P[5,5]");
    EXPECT_EQ(nodes.next(), "P[16781314,16781314]");
    EXPECT_EQ(nodes.next(), "P[16781315,16781315]");
    ASSERT_EQ(s.send(5, "hello"), 5);
    const received r = s.next();
    EXPECT_EQ(r.data, "hello");
    control("cut 2 60000");
    EXPECT_EQ(names.next(), "W[5,5]");
    EXPECT_EQ(nodes.next(), "W[16781314,16781314]");
    EXPECT_EQ(s.send(5, "hello"), -EHOSTUNREACH);
    EXPECT_EQ(s.send(r.from, "hello"), -EHOSTUNREACH);
    EXPECT_EQ(s.send(6, "others"), 6);
    EXPECT_EQ(names.next(50), "nothing");
    control("cut 2 200");
    EXPECT_EQ(names.next(), "P[5,5]");
    EXPECT_EQ(nodes.next(), "P[16781314,16781314]");
    ASSERT_EQ(s.send(5, "again"), 5);
    EXPECT_EQ(s.next().data, "again");
}

TEST_F(local_port, all_topology_connections_can_be_dropped) {
    start();
    topology one, two;
    one.subscribe(sock::type, 0, 100);
    sock s(1);
    EXPECT_EQ(one.next(), "P[1,1]");
    control("drop-topology");
    EXPECT_EQ(one.next(), "end");
    EXPECT_EQ(two.next(), "end");
    topology fresh;
    fresh.subscribe(sock::type, 0, 100);
    EXPECT_EQ(fresh.next(), "P[1,1]");
    EXPECT_EQ(s.send(1, "hello"), 5);
}

// ---- cost -------------------------------------------------------------------------------------------------

TEST_F(local_port, an_idle_process_is_small) {
    if (slow > 1)
        GTEST_SKIP() << "a sanitizer takes more than all the rest";
    start();
    auto idle = role("idle", "8");
    const std::string line = idle->line();
    EXPECT_LT(strtoul(line.c_str(), nullptr, 10), 6u * 1024) << line;
    EXPECT_EQ(idle->wait(), 0);
}

TEST_F(local_port, a_queue_that_was_full_gives_its_memory_back_when_nothing_happens) {
    start();
    sock s(1);
    own_queue mine;
    const auto used = [&] {
        for (const auto &entry : fs::directory_iterator("/proc/self/fd")) {
            std::error_code error;
            struct stat st {};
            if (fs::read_symlink(entry.path(), error).string().starts_with("/memfd:qel-queue") &&
                stat(entry.path().c_str(), &st) == 0)
                return st.st_blocks * 512;
        }
        return long{0};
    };
    for (int i = 0; i < 100; i++)
        ASSERT_EQ(s.send(1, std::string(66'000, 'x')), 66'000);
    for (int i = 0; i < 100; i++)
        ASSERT_EQ(s.receive().result, 66'000);
    EXPECT_GT(used(), 6 << 20);
    pollfd p = {s.fd, POLLIN, 0};
    EXPECT_EQ(port.poll(&p, 1, 1500), 0);
    EXPECT_LT(used(), 2 << 20);
    ASSERT_EQ(s.send(1, "hello"), 5);
    EXPECT_EQ(s.next().data, "hello");
}

TEST_F(local_port, closed_sockets_leave_nothing_open) {
    start();
    { sock first; }
    const auto open_files = [] {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator{});
    };
    const auto before = open_files();
    for (int i = 0; i < 50; i++) {
        sock a(1), b(2);
        topology t;
        EXPECT_EQ(a.send(2, "hello"), 5);
        EXPECT_EQ(b.send(1, "hello"), 5);
    }
    EXPECT_EQ(open_files(), before);
}

TEST_F(local_port, every_descriptor_is_closed_on_exec) {
    std::vector<std::string> inherited; // the test runner's, which has habits of its own
    std::error_code gone;
    for (const auto &entry : fs::directory_iterator("/proc/self/fd"))
        inherited.push_back(entry.path().string() + fs::read_symlink(entry.path(), gone).string());
    start();
    auto far = role("echo", "5", 2);
    ASSERT_EQ(far->line(), "ready");
    sock s(1);
    topology t;
    ASSERT_EQ(s.send(5, "hello"), 5);
    EXPECT_EQ(s.next().data, "hello");
    for (const auto &entry : fs::directory_iterator("/proc/self/fd")) {
        const int fd = std::stoi(entry.path().filename());
        std::error_code error;
        const std::string target = fs::read_symlink(entry.path(), error).string();
        if (std::find(inherited.begin(), inherited.end(), entry.path().string() + target) != inherited.end())
            continue;
        if (fd > 2 && (target.find("qel") != std::string::npos ||
                       target.find("eventfd") != std::string::npos || target.starts_with("socket:"))) {
            EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC) << target;
        }
    }
}

} // namespace

int main(int argc, char **argv) {
    if (argc == 4 && !strcmp(argv[1], "--role"))
        return run_role(argv[2], argv[3]);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
