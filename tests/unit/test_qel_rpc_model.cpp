// Every order of events: calls, sends that succeed or fail, replies early, late and doubled, quits,
// deadlines, wake-ups, and the moments in between at which a caller is about to run but has not.
//
// The library's own code runs here, qel_rpc() from its first line to its last, with one thread. Each caller
// is a context of its own that gives way where a real one could be overtaken: in the middle of sending a
// request and in its timed wait. A scheduler picks what happens next. Beside it runs a model of what must
// come of it, a few lines long, and after every single event both are compared: whose wait exists, what each
// set holds in which order, who sleeps, who is awake, who returned what.
#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <functional>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/mman.h>
#include <ucontext.h>
#include <unordered_set>

#include "qel_port.h"
#include "qel_process.h"
#include "qel_rpc.h"
#include "qel_user_proxy.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/common_interface_defs.h>
#define HAS_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#include <sanitizer/common_interface_defs.h>
#define HAS_ASAN 1
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#define HAS_TSAN 1
#endif
#ifndef HAS_ASAN
#define HAS_ASAN 0
#endif
#ifndef HAS_TSAN
#define HAS_TSAN 0
#endif
// The sanitizers make each run several times as long.
constexpr bool slow = HAS_ASAN || HAS_TSAN;

namespace {

constexpr uint32_t me = 5, peer_app = 7;
constexpr int calls_max = 3, peers_max = 3;
constexpr uint32_t first_seq = 100;

// ---- callers --------------------------------------------------------------------------------------------

// A context with a stack of its own that runs jobs, one after the other, and gives way in between.
//
// swapcontext() asks the kernel for the signal mask at every switch, which is most of the time a run takes.
// Where no sanitizer has to be told about stacks, jumps do.
class fiber {
  public:
    fiber() {
        stack_ = mmap(nullptr, stack_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (stack_ == MAP_FAILED || getcontext(&own_) != 0)
            abort();
        own_.uc_stack.ss_sp = stack_;
        own_.uc_stack.ss_size = stack_size;
        own_.uc_link = nullptr;
        makecontext(&own_, enter, 0);
#if HAS_TSAN
        tsan_ = __tsan_create_fiber(0);
#endif
    }
    fiber(const fiber &) = delete;
    fiber &operator=(const fiber &) = delete;
    std::function<void()> job; // null when done
    static fiber *current() { return now_running; }

    // Runs it until it gives way or its job is done. From outside of all fibers.
    void resume() {
        now_running = this;
#if HAS_ASAN
        void *fake = nullptr;
        __sanitizer_start_switch_fiber(&fake, stack_, stack_size);
        swapcontext(&home, &own_);
        __sanitizer_finish_switch_fiber(fake, nullptr, nullptr);
#elif HAS_TSAN
        home_tsan = __tsan_get_current_fiber();
        __tsan_switch_to_fiber(tsan_, 0);
        swapcontext(&home, &own_);
#else
        if (_setjmp(home_jump) == 0) {
            if (begun_)
                _longjmp(own_jump_, 1);
            begun_ = true;
            setcontext(&own_);
        }
#endif
        now_running = nullptr;
    }
    // Back to the scheduler until the next resume(). From inside.
    static void give_way() { now_running->leave(); }

  private:
    static void enter() {
#if HAS_ASAN
        __sanitizer_finish_switch_fiber(nullptr, &home_stack, &home_size);
#endif
        for (;;) {
            fiber *f = now_running;
            f->job();
            f->job = nullptr;
            give_way();
        }
    }
    void leave() {
#if HAS_ASAN
        void *fake = nullptr;
        __sanitizer_start_switch_fiber(&fake, home_stack, home_size);
        swapcontext(&own_, &home);
        __sanitizer_finish_switch_fiber(fake, &home_stack, &home_size);
#elif HAS_TSAN
        __tsan_switch_to_fiber(home_tsan, 0);
        swapcontext(&own_, &home);
#else
        if (_setjmp(own_jump_) == 0)
            _longjmp(home_jump, 1);
#endif
    }

    static constexpr size_t stack_size = 512 << 10;
    static inline fiber *now_running = nullptr;
    void *stack_;
    ucontext_t own_{};
#if HAS_ASAN
    static inline const void *home_stack = nullptr;
    static inline size_t home_size = 0;
    static inline ucontext_t home;
#elif HAS_TSAN
    static inline void *home_tsan = nullptr;
    static inline ucontext_t home;
    void *tsan_;
#else
    static inline jmp_buf home_jump;
    jmp_buf own_jump_{};
    bool begun_ = false;
#endif
};

// ---- the real thing -------------------------------------------------------------------------------------

enum class at { idle, sending, asleep, woken, timed_out, done };

struct real_call {
    fiber context;
    at where = at::idle;
    uint32_t seq = 0, timeout_s = 0;
    qel_msg *msg = nullptr;
    qel_reply_set set{};
    int32_t ret = 0;
    int sending_to = -1; // node
    bool send_ok = false;
    int64_t deadline_s = 0;
};

real_call *g_calls = nullptr; // calls_max of them
int64_t g_now_s = 5000;
unsigned g_strange = 0; // what no test ordered: a deadline of another length, a send to somebody else

real_call *of_current() {
    for (int c = 0; c < calls_max; c++)
        if (&g_calls[c].context == fiber::current())
            return &g_calls[c];
    return nullptr;
}

int model_timedwait(pthread_cond_t *, pthread_mutex_t *mutex, const timespec *deadline) {
    real_call *c = of_current();
    if (!c)
        abort();
    c->deadline_s = deadline->tv_sec;
    if (c->deadline_s - g_now_s != (c->timeout_s ? 30 : 1))
        g_strange++;
    c->where = at::asleep;
    pthread_mutex_unlock(mutex);
    fiber::give_way();
    pthread_mutex_lock(mutex);
    return c->where == at::timed_out ? ETIMEDOUT : 0;
}
int model_broadcast(pthread_cond_t *) {
    for (int c = 0; c < calls_max; c++)
        if (g_calls[c].where == at::asleep)
            g_calls[c].where = at::woken;
    return 0;
}
int model_clock(clockid_t, timespec *now) {
    *now = {g_now_s, 0};
    return 0;
}
ssize_t model_sendto(int, const void *data, size_t len, int, const sockaddr *to, socklen_t) {
    real_call *c = of_current();
    sockaddr_tipc name;
    memcpy(&name, to, sizeof name);
    qel_hdr hdr;
    memcpy(&hdr, data, sizeof hdr);
    if (!c || name.addr.name.name.instance >> 16 != peer_app || be32toh(hdr.seq) != c->seq) {
        g_strange++;
        return static_cast<ssize_t>(len);
    }
    c->sending_to = static_cast<int>(name.addr.name.name.instance & 0xFFFF);
    c->where = at::sending;
    fiber::give_way();
    if (c->send_ok)
        return static_cast<ssize_t>(len);
    errno = EHOSTUNREACH;
    return -1;
}

// ---- the model ------------------------------------------------------------------------------------------

struct struck_off {
    int node;
    uint32_t status;
    bool made_here;
};
struct model_call {
    at where = at::idle;
    uint32_t timeout_s = 0;
    bool pending[peers_max + 1] = {}; // by node, from 1
    int sending_to = 0;
    int64_t remaining_s = 0;
    std::vector<struck_off> replies;
    int strikes[peers_max + 1] = {};
    int32_t ret = 0;

    bool alive() const { return where != at::idle && where != at::done; }
};

struct model {
    int peers = 0;
    std::vector<model_call> calls;

    void wake_all() {
        for (model_call &c : calls)
            if (c.where == at::asleep)
                c.where = at::woken;
    }
    static void strike(model_call &c, int node, uint32_t status, bool made_here) {
        c.pending[node] = false;
        c.strikes[node]++;
        c.replies.push_back({node, status, made_here});
    }
    bool all_answered(const model_call &c) const {
        for (int n = 1; n <= peers; n++)
            if (c.pending[n])
                return false;
        return true;
    }
    void finish(model_call &c, int32_t ret) const {
        c.where = at::done;
        c.ret = ret;
        if (ret != 0)
            c.replies.clear();
    }
    void sleep_or_finish(model_call &c, int32_t ret) const {
        if (all_answered(c))
            finish(c, ret);
        else
            c.where = at::asleep;
    }
    void send_next(model_call &c) const {
        while (++c.sending_to <= peers)
            if (c.pending[c.sending_to]) {
                c.where = at::sending;
                return;
            }
        sleep_or_finish(c, 0);
    }

    void start(model_call &c) const {
        for (int n = 1; n <= peers; n++)
            c.pending[n] = true;
        c.sending_to = 0;
        c.remaining_s = c.timeout_s;
        send_next(c);
    }
    void sent(model_call &c, bool ok) {
        if (!ok) {
            if (!c.pending[c.sending_to]) { // it quit meanwhile: known, and ends the call
                finish(c, -ENOENT);
                return;
            }
            strike(c, c.sending_to, QEL_STATUS_SYSTEM, true);
            wake_all();
        }
        send_next(c);
    }
    int32_t reply(model_call &c, int node, uint32_t status) {
        if (!c.alive() || !c.pending[node])
            return -ENOENT;
        strike(c, node, status, false);
        wake_all();
        return 0;
    }
    void quit(int node) {
        for (model_call &c : calls)
            if (c.alive() && c.pending[node])
                strike(c, node, QEL_STATUS_SYSTEM, true);
        wake_all();
    }
    void run(model_call &c) const {
        const bool late = c.where == at::timed_out;
        int32_t ret = late ? ETIMEDOUT : 0;
        if (c.timeout_s) {
            c.remaining_s -= 30;
            if (late && c.remaining_s < 1) {
                for (int n = 1; n <= peers; n++)
                    if (c.pending[n])
                        strike(c, n, QEL_STATUS_TIMEOUT, true);
                ret = 0;
            }
        }
        sleep_or_finish(c, ret);
    }
};

// ---- events ---------------------------------------------------------------------------------------------

enum class what : uint8_t { start, start_same_number, send_ok, send_fails, reply, quit, deadline, run };
struct event {
    what kind;
    int8_t call, node;
};
using path = std::vector<event>;

std::string text(const path &p) {
    static const char *const names[] = {"start", "start-same-number", "send-ok", "send-fails", "reply",
                                        "quit",  "deadline",          "run"};
    std::string all;
    for (const event &e : p)
        all += qel_format(" %s(%d/%d)", names[static_cast<int>(e.kind)], e.call, e.node);
    return all;
}

class world {
  public:
    world(int calls, int peers, const std::vector<uint32_t> &timeouts, bool sends)
        : peers_(peers), sends_(sends) {
        m_.peers = peers;
        m_.calls.resize(static_cast<size_t>(calls));
        for (int c = 0; c < calls; c++) {
            model_call &mc = m_.calls[static_cast<size_t>(c)];
            mc.timeout_s = timeouts[static_cast<size_t>(c)];
            mc.replies.reserve(peers_max);
            real_call &rc = g_calls[c];
            rc.where = at::idle;
            rc.seq = first_seq + static_cast<uint32_t>(c);
            rc.timeout_s = mc.timeout_s;
            rc.ret = 12345;
        }
    }

    // What can happen now.
    std::vector<event> possible() const {
        std::vector<event> all;
        const auto add = [&all](what kind, int call, int node) {
            all.push_back({kind, static_cast<int8_t>(call), static_cast<int8_t>(node)});
        };
        for (int c = 0; c < count(); c++) {
            const model_call &mc = m_.calls[static_cast<size_t>(c)];
            if (mc.where == at::idle) {
                add(what::start, c, 0);
                continue;
            }
            if (mc.alive() && sends_)
                add(what::start_same_number, c, 0);
            if (mc.where == at::sending) {
                add(what::send_ok, c, 0);
                add(what::send_fails, c, 0);
            }
            for (int n = 1; n <= peers_; n++)
                add(what::reply, c, n);
            if (mc.where == at::asleep)
                add(what::deadline, c, 0);
            if (mc.where == at::woken || mc.where == at::timed_out)
                add(what::run, c, 0);
        }
        for (int n = 1; n <= peers_; n++)
            add(what::quit, 0, n);
        return all;
    }

    // Lets it happen in both worlds. False when they differ afterwards.
    bool happen(const event &e) {
        model_call &mc = m_.calls[static_cast<size_t>(e.call)];
        real_call &rc = g_calls[e.call];
        switch (e.kind) {
        case what::start:
            m_.start(mc);
            rc.msg = qel_msg_alloc(0, 1, 0);
            memset(&rc.set, 0x55, sizeof rc.set);
            qel_set_seq_for_test(rc.seq - 1);
            rc.context.job = [&rc] {
                rc.ret = qel_rpc(me, peer_app, rc.msg, 0, rc.timeout_s, &rc.set);
                rc.where = at::done;
                free(rc.msg);
                rc.msg = nullptr;
            };
            rc.context.resume();
            break;
        case what::start_same_number: {
            qel_reply_set other;
            qel_msg *msg = qel_msg_alloc(0, 1, 0);
            qel_set_seq_for_test(rc.seq - 1);
            if (qel_rpc(me, peer_app, msg, 0, 30, &other) != -EEXIST || other.count != 0)
                wrong_ = "a second call with a living number was accepted";
            free(msg);
            break;
        }
        case what::send_ok:
        case what::send_fails:
            rc.send_ok = e.kind == what::send_ok;
            m_.sent(mc, rc.send_ok);
            rc.context.resume();
            break;
        case what::reply: {
            const uint32_t status = e.node % 2 ? QEL_STATUS_SUCCESS : QEL_STATUS_APP_VERSION;
            qel_msg *msg = qel_msg_alloc(0, 1, 0);
            qel_encode_msg_hdr(msg, QEL_FLAG_REQUEST | QEL_FLAG_ACK, peer_app, static_cast<uint32_t>(e.node),
                               me, 1, rc.seq, status);
            const int32_t wanted = m_.reply(mc, e.node, status), ret = qel_rpc_add_reply(msg);
            if (ret != 0)
                free(msg);
            if (ret != wanted)
                wrong_ = qel_format("a reply was answered with %d instead of %d", ret, wanted);
            break;
        }
        case what::quit:
            m_.quit(e.node);
            if (qel_terminate_rpc(me, peer_app, static_cast<uint32_t>(e.node)) != 0)
                wrong_ = "a termination failed";
            break;
        case what::deadline:
            g_now_s = std::max(g_now_s, rc.deadline_s);
            rc.where = at::timed_out;
            mc.where = at::timed_out;
            break;
        case what::run:
            m_.run(mc);
            rc.context.resume();
            break;
        }
        return same();
    }

    // Brings all calls that have begun to their end, tries late replies, and looks for what is left over.
    bool end() {
        for (int round = 0; round < 100; round++) {
            bool busy = false;
            for (int c = 0; c < count(); c++) {
                const model_call &mc = m_.calls[static_cast<size_t>(c)];
                if (!mc.alive())
                    continue;
                busy = true;
                const auto call = static_cast<int8_t>(c);
                const bool fine = mc.where == at::sending  ? happen({what::send_ok, call, 0})
                                  : mc.where != at::asleep ? happen({what::run, call, 0})
                                  : mc.timeout_s           ? happen({what::deadline, call, 0})
                                                           : all_quit();
                if (!fine)
                    return false;
            }
            if (!busy)
                break;
        }
        for (int c = 0; c < count(); c++) {
            const model_call &mc = m_.calls[static_cast<size_t>(c)];
            if (mc.alive()) {
                wrong_ = "a call does not end";
                return false;
            }
            if (mc.where == at::idle)
                continue;
            for (int n = 1; n <= peers_; n++) {
                if (mc.ret == 0 && mc.strikes[n] != 1) {
                    wrong_ = qel_format("peer %d was struck off %d times", n, mc.strikes[n]);
                    return false;
                }
                if (!happen({what::reply, static_cast<int8_t>(c), static_cast<int8_t>(n)}))
                    return false;
            }
        }
        for (int c = 0; c < count(); c++)
            if (m_.calls[static_cast<size_t>(c)].where == at::done)
                qel_reply_msg_free(&g_calls[c].set);
        if (qel_process::rpc_stat(me) != "Application 5 RPC waits:\n")
            wrong_ = "a wait is left over";
        return wrong_.empty();
    }

    // What decides about everything that can still happen.
    uint64_t state() const {
        // Peers in the order of the list count as different while requests are sent, and else as alike.
        bool sending = false;
        for (const model_call &c : m_.calls)
            sending = sending || c.where == at::sending || c.where == at::idle;
        int order[peers_max] = {1, 2, 3};
        uint64_t least = UINT64_MAX;
        do {
            uint64_t key = 0;
            for (const model_call &c : m_.calls) {
                key = key << 3 | static_cast<uint64_t>(c.where);
                for (int i = 0; i < peers_; i++)
                    key = key << 1 | (c.alive() && c.pending[order[i]]);
                const bool last_slice = c.remaining_s <= 30;
                key = key << 1 | (c.alive() && c.timeout_s && last_slice);
                key = key << 2 | static_cast<uint64_t>(c.where == at::sending ? c.sending_to : 0);
            }
            least = std::min(least, key);
        } while (!sending && std::next_permutation(order, order + peers_));
        return least;
    }
    const std::string &wrong() const { return wrong_; }

  private:
    int count() const { return static_cast<int>(m_.calls.size()); }
    bool all_quit() {
        for (int n = 1; n <= peers_; n++)
            if (!happen({what::quit, 0, static_cast<int8_t>(n)}))
                return false;
        return true;
    }

    bool same() {
        if (g_strange)
            wrong_ = "a strange wait or send";
        for (int c = 0; c < count() && wrong_.empty(); c++) {
            const model_call &mc = m_.calls[static_cast<size_t>(c)];
            const real_call &rc = g_calls[c];
            if (rc.where != mc.where)
                wrong_ = qel_format("call %d is at %d instead of %d", c, static_cast<int>(rc.where),
                                    static_cast<int>(mc.where));
            else if (mc.where == at::sending && rc.sending_to != mc.sending_to)
                wrong_ = qel_format("call %d sends to %d instead of %d", c, rc.sending_to, mc.sending_to);
            else if (mc.where == at::done && rc.ret != mc.ret)
                wrong_ = qel_format("call %d returned %d instead of %d", c, rc.ret, mc.ret);
            else if (mc.where == at::idle)
                continue;
            else if ((qel_get_rpc_wait(me, rc.seq) != nullptr) != mc.alive())
                wrong_ = qel_format("the wait of call %d should%s be there", c, mc.alive() ? "" : " not");
            else
                compare_sets(c, rc.set, mc.replies);
        }
        return wrong_.empty();
    }
    void compare_sets(int c, const qel_reply_set &set, const std::vector<struck_off> &wanted) {
        if (set.count != static_cast<int32_t>(wanted.size())) {
            wrong_ =
                qel_format("the set of call %d holds %d replies instead of %zu", c, set.count, wanted.size());
            return;
        }
        for (size_t i = 0; i < wanted.size(); i++) {
            const qel_hdr &h = set.msg[i]->hdr;
            if (h.src_app != peer_app || static_cast<int>(h.src_node) != wanted[i].node ||
                h.rpc_status != wanted[i].status || h.seq != g_calls[c].seq || h.dst_app != me ||
                (h.flags == 0) != wanted[i].made_here)
                wrong_ =
                    qel_format("reply %zu of call %d is %u/%u %u", i, c, h.src_app, h.src_node, h.rpc_status);
        }
        for (size_t i = wanted.size(); i < QEL_REPLIES_MAX; i++)
            if (set.msg[i])
                wrong_ = qel_format("the set of call %d holds something behind its count", c);
    }

    int peers_;
    bool sends_;
    model m_;
    std::string wrong_;
};

// ---- exploring ------------------------------------------------------------------------------------------

struct rpc_model : qel_process {
    rpc_model() {
        if (add_app(me, false) != 0)
            abort();
        qel_set_masks(0);
        g_calls = new real_call[calls_max];
        // From here on nobody but this thread runs; the library's own sleeps in a world whose time stands
        // still.
        EXPECT_TRUE(qel_time::settle());
        static qel_sys table;
        table = qel_sys_get();
        table.cond_timedwait = model_timedwait;
        table.cond_broadcast = model_broadcast;
        table.clock_gettime = model_clock;
        g_qel_sys.store(&table);
        static qel_port port;
        port = qel_port_get();
        port.sendto = model_sendto;
        qel_port_set(&port);
    }

    struct bounds {
        int calls, peers;
        std::vector<uint32_t> timeouts;
        bool begun;      // all calls have begun and sent all their requests
        size_t depth;    // events in a row
        bool every_path; // or each state once
    };

    // Explores level by level: each path of the last level is run again from the beginning with each event
    // that is possible then. Every run is brought to its end.
    void explore(const bounds &b) {
        struct known {
            path way;
            std::vector<event> next;
        };
        path prelude;
        if (b.begun)
            for (int c = 0; c < b.calls; c++) {
                prelude.push_back({what::start, static_cast<int8_t>(c), 0});
                for (int n = 0; n < b.peers; n++)
                    prelude.push_back({what::send_ok, static_cast<int8_t>(c), 0});
            }
        std::unordered_set<uint64_t> seen;
        size_t runs = 0, events = 0, depth = 0;
        const auto run = [&](const path &way, known *reached, uint64_t *state) {
            world w(b.calls, b.peers, b.timeouts, !b.begun);
            bool fine = true;
            for (size_t i = 0; i < prelude.size() && fine; i++)
                fine = w.happen(prelude[i]);
            for (size_t i = 0; i < way.size() && fine; i++)
                fine = w.happen(way[i]);
            events += prelude.size() + way.size();
            runs++;
            if (fine && reached) {
                *reached = {way, w.possible()};
                *state = w.state();
            }
            if (!fine || !w.end())
                FAIL() << w.wrong() << " after" << text(prelude) << text(way);
        };
        std::vector<known> level(1);
        uint64_t state = 0;
        run({}, &level[0], &state);
        seen.insert(state);
        const struct mallinfo2 before = mallinfo2();
        for (; depth < b.depth && !level.empty(); depth++) {
            std::vector<known> deeper;
            for (const known &k : level)
                for (const event &e : k.next) {
                    path way = k.way;
                    way.push_back(e);
                    known reached;
                    run(way, &reached, &state);
                    if (HasFatalFailure())
                        return;
                    const bool fresh = seen.insert(state).second;
                    if (depth + 1 < b.depth && (fresh || b.every_path))
                        deeper.push_back(std::move(reached));
                }
            level = std::move(deeper);
        }
        level.clear();
        if (!slow) { // else the sanitizer counts, to the byte
            const struct mallinfo2 after = mallinfo2();
            const auto per_run = 8u; // less than the smallest block: the tables here, but not one leak a run
            EXPECT_LT(after.uordblks, before.uordblks + seen.size() * 64 + runs * per_run + 100'000);
        }
        EXPECT_TRUE(b.every_path || level.empty());
        printf("%d calls, %d peers, %s: %s %zu events; %zu runs, %zu events, %zu states\n", b.calls, b.peers,
               b.begun ? "all requests sent" : "from the first line of each call",
               b.every_path ? "every order of up to" : "every event in every state, found within", depth,
               runs, events, seen.size());
        RecordProperty("runs", static_cast<int>(runs));
        RecordProperty("depth", static_cast<int>(depth));
        RecordProperty("states", static_cast<int>(seen.size()));
    }
};

constexpr size_t unlimited = 1000;

TEST_F(rpc_model, each_peer_is_struck_off_once_and_nothing_is_left_in_every_order_of_events) {
    serve(me, peer_app, {1, 2, 3});
    explore({.calls = 3,
             .peers = 3,
             .timeouts = {30, 60, 0},
             .begun = true,
             .depth = slow ? 3 : 4,
             .every_path = true});
}

TEST_F(rpc_model, each_peer_is_struck_off_once_and_nothing_is_left_at_every_event_in_every_state) {
    serve(me, peer_app, {1, 2, 3});
    explore({.calls = slow ? 2 : 3,
             .peers = 3,
             .timeouts = slow ? std::vector<uint32_t>{60, 0} : std::vector<uint32_t>{30, 60, 0},
             .begun = true,
             .depth = unlimited,
             .every_path = false});
}

TEST_F(rpc_model, each_peer_is_struck_off_once_and_nothing_is_left_in_every_order_of_events_sends_included) {
    serve(me, peer_app, {1, 2});
    explore({.calls = 2,
             .peers = 2,
             .timeouts = {60, 0},
             .begun = false,
             .depth = slow ? 4 : 6,
             .every_path = true});
}

TEST_F(rpc_model,
       each_peer_is_struck_off_once_and_nothing_is_left_at_every_event_in_every_state_sends_included) {
    serve(me, peer_app, slow ? std::vector<uint32_t>{1, 2} : std::vector<uint32_t>{1, 2, 3});
    explore({.calls = 2,
             .peers = slow ? 2 : 3,
             .timeouts = {60, 0},
             .begun = false,
             .depth = unlimited,
             .every_path = false});
}

} // namespace
