// One measurement between two processes on this host, told as one line of JSON.
//
//   bench_qel WHAT SIZE COUNT
//
// WHAT is a way of sending (messages per second; the clock stops when the receiver has handled the last):
//   dgram, seqpacket              Unix sockets
//   ring                          a minimal shared-memory ring of one writer and one reader
//   qel, qel-nothread             the bus on the local transport, receiver with a thread of its own or not
// or of asking (round trips, one outstanding: microseconds each as median, p99, p99.9):
//   ask-seqpacket                 Unix sockets
//   ask-handover                  with a thread to hand over to on each side, as the bus has them
//   ask-ring                      the shared-memory ring
//   ask-qel, ask-qel-nothread     a remote procedure call
//   echo-qel, echo-qel-nothread   a message there and back
//   calls-qel, calls-qel-nothread 8 threads that call at the same time: calls per second
// or "idle": resident memory, in KiB, of a process with one registered application.
//
// The bus needs a running qel-fabric (QEL_FABRIC) and QEL_TRANSPORT=local; bench/run starts them.
#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "qel/qel.h"

namespace {

double now_s() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

[[noreturn]] void fail(const char *what) {
    fprintf(stderr, "bench_qel: %s\n", what);
    exit(1);
}

void report_rate(const std::string &what, size_t size, uint64_t count, double seconds) {
    printf("{\"what\": \"%s\", \"size\": %zu, \"per_s\": %.0f}\n", what.c_str(), size,
           static_cast<double>(count) / seconds);
}

void report_trips(const std::string &what, size_t size, std::vector<double> &us) {
    std::sort(us.begin(), us.end());
    const auto at = [&](double part) {
        return us[std::min(us.size() - 1, static_cast<size_t>(static_cast<double>(us.size()) * part))];
    };
    printf("{\"what\": \"%s\", \"size\": %zu, \"p50_us\": %.2f, \"p99_us\": %.2f, \"p999_us\": %.2f}\n",
           what.c_str(), size, at(0.5), at(0.99), at(0.999));
}

// ---- what the bus is held against -----------------------------------------------------------------------

struct raw_ring { // one writer, one reader; a record is its length and its bytes
    static constexpr size_t bytes = 1 << 20;
    alignas(64) std::atomic<uint64_t> head;
    alignas(64) std::atomic<uint64_t> tail;
    alignas(64) char data[bytes];

    static size_t space(size_t size) { return (size + 8 + 7) & ~size_t{7}; }
    void write(const char *from, size_t size) {
        const size_t need = space(size);
        uint64_t t = tail.load(std::memory_order_relaxed);
        size_t at = t % bytes;
        if (at + need > bytes) { // the rest of the lap is skipped
            while (t + (bytes - at) - head.load(std::memory_order_acquire) > bytes)
                sched_yield();
            const uint64_t skip = UINT64_MAX;
            memcpy(data + at, &skip, 8);
            t += bytes - at;
            at = 0;
        }
        while (t + need - head.load(std::memory_order_acquire) > bytes)
            sched_yield();
        const uint64_t len = size;
        memcpy(data + at, &len, 8);
        memcpy(data + at + 8, from, size);
        tail.store(t + need, std::memory_order_release);
    }
    size_t read(char *to) {
        for (;;) {
            const uint64_t h = head.load(std::memory_order_relaxed);
            for (int spins = 0; tail.load(std::memory_order_acquire) == h; spins++)
                if (spins > 100)
                    sched_yield();
            const size_t at = h % bytes;
            uint64_t len;
            memcpy(&len, data + at, 8);
            if (len == UINT64_MAX) {
                head.store(h + (bytes - at), std::memory_order_release);
                continue;
            }
            memcpy(to, data + at + 8, len);
            head.store(h + space(len), std::memory_order_release);
            return len;
        }
    }
};

raw_ring *new_ring() {
    void *p = mmap(nullptr, sizeof(raw_ring), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED)
        fail("no memory");
    return new (p) raw_ring{};
}

void socket_pair(int type, int fd[2]) {
    if (socketpair(AF_UNIX, type, 0, fd) != 0)
        fail("no socket pair");
}

// A second process that runs @body and ends.
template <class Body> pid_t in_child(Body body) {
    fflush(stdout);
    const pid_t pid = fork();
    if (pid < 0)
        fail("no process");
    if (pid == 0) {
        body();
        _exit(0);
    }
    return pid;
}

void end_child(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || status != 0)
        fail("the other process failed");
}

void raw_one_way(const std::string &what, size_t size, uint64_t count) {
    std::vector<char> out(size, 'x'), in(1 << 17);
    int fd[2], done[2];
    if (pipe(done) != 0)
        fail("no pipe");
    raw_ring *ring = what == "ring" ? new_ring() : nullptr;
    socket_pair(what == "dgram" ? SOCK_DGRAM : SOCK_SEQPACKET, fd);
    const pid_t pid = in_child([&] {
        for (uint64_t i = 0; i < count; i++)
            if ((ring ? static_cast<ssize_t>(ring->read(in.data())) : recv(fd[1], in.data(), in.size(), 0)) <=
                0)
                _exit(1);
        if (write(done[1], "", 1) != 1)
            _exit(1);
    });
    const double start = now_s();
    for (uint64_t i = 0; i < count; i++) {
        if (ring)
            ring->write(out.data(), size);
        else if (send(fd[0], out.data(), size, 0) != static_cast<ssize_t>(size))
            fail("send");
    }
    if (read(done[0], out.data(), 1) != 1)
        fail("the receiver ended");
    const double seconds = now_s() - start;
    end_child(pid);
    report_rate(what, size, count, seconds);
}

// A thread that takes what the receiving one hands over, as a proxy thread does.
struct handover {
    std::mutex mutex;
    std::condition_variable cond;
    uint64_t given = 0, taken = 0;
    void give() {
        const std::lock_guard lock(mutex);
        given++;
        cond.notify_one();
    }
    void take() {
        std::unique_lock lock(mutex);
        cond.wait(lock, [&] { return given != taken; });
        taken++;
    }
};

void raw_ask(const std::string &what, size_t size, uint64_t count) {
    std::vector<char> buffer(std::max<size_t>(size, 1), 'x'), in(1 << 17);
    std::vector<double> us;
    us.reserve(count);
    raw_ring *there = what == "ask-ring" ? new_ring() : nullptr, *back = there ? new_ring() : nullptr;
    const bool hand = what == "ask-handover";
    int fd[2];
    socket_pair(SOCK_SEQPACKET, fd);
    const pid_t pid = in_child([&] {
        if (there) {
            for (uint64_t i = 0; i < count; i++)
                back->write(in.data(), there->read(in.data()));
            return;
        }
        handover h;
        std::thread server;
        if (hand) {
            server = std::thread([&] {
                for (uint64_t i = 0; i < count; i++) {
                    h.take();
                    if (send(fd[1], in.data(), size, 0) != static_cast<ssize_t>(size))
                        _exit(1);
                }
            });
        }
        for (uint64_t i = 0; i < count; i++) {
            if (recv(fd[1], in.data(), in.size(), 0) <= 0)
                _exit(1);
            if (hand)
                h.give();
            else if (send(fd[1], in.data(), size, 0) != static_cast<ssize_t>(size))
                _exit(1);
        }
        if (hand)
            server.join();
    });
    handover h;
    std::thread receiver;
    if (hand) {
        receiver = std::thread([&] {
            for (uint64_t i = 0; i < count; i++) {
                if (recv(fd[0], in.data(), in.size(), 0) <= 0)
                    fail("the server ended");
                h.give();
            }
        });
    }
    for (uint64_t i = 0; i < count; i++) {
        const double start = now_s();
        if (there) {
            there->write(buffer.data(), size);
            back->read(in.data());
        } else {
            if (send(fd[0], buffer.data(), size, 0) != static_cast<ssize_t>(size))
                fail("send");
            if (hand)
                h.take();
            else if (recv(fd[0], in.data(), in.size(), 0) <= 0)
                fail("the server ended");
        }
        us.push_back((now_s() - start) * 1e6);
    }
    if (hand)
        receiver.join();
    end_child(pid);
    report_trips(what, size, us);
}

// ---- the bus --------------------------------------------------------------------------------------------

constexpr uint32_t asker = 100, server = 101;
std::atomic<uint64_t> g_received{0};
uint64_t g_expected = 0;
int g_done[2];
std::atomic<int> g_joined{0};
bool g_answer = false;
handover g_echo;

void on_server_msg(qel_msg *msg) {
    if (msg->hdr.flags & QEL_FLAG_REQUEST)
        (void)qel_rpc_reply(msg, msg, 0);
    else if (g_answer)
        (void)qel_send(server, asker, msg, QEL_SEND_NOWAIT);
    free(msg);
    if (g_received.fetch_add(1, std::memory_order_relaxed) + 1 == g_expected && write(g_done[1], "", 1) != 1)
        _exit(1);
}
void on_asker_msg(qel_msg *msg) {
    free(msg);
    g_echo.give();
}
void on_event(qel_app_event event) {
    if (event.peer_app == asker || event.peer_app == server)
        g_joined.store(event.event == QEL_EVENT_JOIN ? g_joined.load() + 1 : 0);
}

void node_root(int node) {
    const char *base = getenv("QEL_BENCH_DIR");
    if (!base)
        fail("QEL_BENCH_DIR is not set; use bench/run");
    const std::string root = std::string(base) + "/node" + std::to_string(node);
    setenv("QEL_ROOT", root.c_str(), 1);
}

void join_bus(int node, uint32_t app, uint32_t peer, qel_dispatch_fun fun, bool thread) {
    node_root(node);
    const qel_dispatcher table[] = {{1, fun}, {0, nullptr}};
    const auto id = static_cast<int32_t>(app);
    if ((thread ? qel_register(id, "bench", table, on_event)
                : qel_register_without_thread(id, "bench", table, on_event)) != 0)
        fail("cannot register; is qel-fabric running?");
    if (qel_comm_with(id, static_cast<int32_t>(peer)) != 0 || qel_run() != 0)
        fail("cannot run");
}

void bus(const std::string &what, size_t size, uint64_t count) {
    const bool thread = what.find("-nothread") == std::string::npos;
    const bool rpc = what.starts_with("ask-") || what.starts_with("calls-"), echo = what.starts_with("echo-");
    if (size < QEL_MSG_HDR_LEN)
        size = QEL_MSG_HDR_LEN; // sizes are those of the whole message
    if (pipe(g_done) != 0)
        fail("no pipe");
    int stop[2];
    if (pipe(stop) != 0)
        fail("no pipe");
    const pid_t pid = in_child([&] {
        close(stop[1]);
        g_expected = count;
        g_answer = echo;
        join_bus(2, server, asker, on_server_msg, thread);
        char byte;
        (void)!read(stop[0], &byte, 1); // until the asker is done
        fflush(stdout);
    });
    close(stop[0]);
    join_bus(1, asker, server, on_asker_msg, true);
    for (int i = 0; !qel_is_app_online(2, server) || g_joined.load() < 2; i++) {
        if (i > 1000)
            fail("the server does not come up");
        usleep(10000);
    }
    usleep(300000); // the server's side of the handshake
    qel_msg *msg = qel_msg_alloc(static_cast<int32_t>(size - QEL_MSG_HDR_LEN), 1, 0);
    memset(qel_msg_data(msg), 'x', size - QEL_MSG_HDR_LEN);
    std::vector<double> us;
    const double start = now_s();
    if (what.starts_with("calls-")) {
        std::vector<std::thread> callers;
        std::atomic<int> bad{0};
        callers.reserve(8);
        for (int i = 0; i < 8; i++) {
            callers.emplace_back([&] {
                qel_msg *own = qel_msg_alloc(static_cast<int32_t>(size - QEL_MSG_HDR_LEN), 1, 0);
                memset(qel_msg_data(own), 'x', size - QEL_MSG_HDR_LEN);
                qel_reply_set set;
                for (uint64_t c = 0; c < count / 8; c++) {
                    const int32_t ret = qel_rpc(asker, server, own, 0, 0, &set);
                    if (ret == -17 || ret == 110) {
                        c--;
                        continue;
                    }
                    if (ret != 0 || set.count != 1 || set.msg[0]->hdr.rpc_status != 0)
                        bad++;
                    qel_reply_msg_free(&set);
                }
                free(own);
            });
        }
        for (std::thread &t : callers)
            t.join();
        if (bad)
            fail("a call failed");
        report_rate(what, size, count / 8 * 8, now_s() - start);
    } else if (rpc || echo) {
        us.reserve(count);
        qel_reply_set set;
        for (uint64_t i = 0; i < count; i++) {
            const double at = now_s();
            if (rpc) {
                const int32_t ret = qel_rpc(asker, server, msg, 0, 0, &set);
                if (ret != 0 || set.count != 1 || set.msg[0]->hdr.rpc_status != 0)
                    fail("a call failed");
                qel_reply_msg_free(&set);
            } else {
                if (qel_send(asker, server, msg, 0) != 0)
                    fail("a send failed");
                g_echo.take();
            }
            us.push_back((now_s() - at) * 1e6);
        }
        report_trips(what, size, us);
    } else {
        for (uint64_t i = 0; i < count; i++)
            if (qel_send(asker, server, msg, 0) != 0)
                fail("a send failed");
        char byte;
        if (read(g_done[0], &byte, 1) != 1)
            fail("the receiver ended");
        report_rate(what, size, count, now_s() - start);
    }
    fflush(stdout);
    close(stop[1]);
    free(msg);
    end_child(pid);
}

void idle() {
    join_bus(1, asker, server, on_asker_msg, true);
    sleep(2);
    FILE *status = fopen("/proc/self/status", "r");
    char line[256];
    long kib = -1;
    while (status && fgets(line, sizeof line, status))
        if (!strncmp(line, "VmRSS:", 6))
            kib = strtol(line + 6, nullptr, 10);
    if (status)
        fclose(status);
    printf("{\"what\": \"idle\", \"rss_kib\": %ld}\n", kib);
}

} // namespace

int main(int argc, char **argv) {
    const std::string what = argc > 1 ? argv[1] : "";
    const size_t size = argc > 2 ? strtoul(argv[2], nullptr, 10) : 64;
    const uint64_t count = argc > 3 ? strtoull(argv[3], nullptr, 10) : 100000;
    if (what == "idle")
        idle();
    else if (what == "dgram" || what == "seqpacket" || what == "ring")
        raw_one_way(what, size, count);
    else if (what == "ask-seqpacket" || what == "ask-handover" || what == "ask-ring")
        raw_ask(what, size, count);
    else if (what.find("qel") != std::string::npos)
        bus(what, size, count);
    else
        fail("usage: bench_qel WHAT SIZE COUNT; the file's head tells WHAT");
    fflush(stdout);
    _exit(0); // threads of the bus live on; nothing is left to undo
}
