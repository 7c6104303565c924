#include "qel_fake_time.h"

#include <algorithm>
#include <cerrno>
#include <vector>

namespace qel_time {
namespace {

constexpr int64_t start_ns = 1000 * INT64_C(1'000'000'000);
constexpr time_t start_wall = 1704164645; // 2024-01-02 03:04:05 UTC
constexpr auto patience = std::chrono::seconds(10);

struct waiter {
    waiter *next, *prev;
    const void *key;
    int64_t deadline;
    bool counted, condition;
    bool woken = false;
    int result = 0;
    pthread_cond_t cond;
};

struct fault {
    unsigned first = 0, last = 0; // call numbers
    int error = 0;
};

// Never destroyed: threads of the library outlive main().
struct world {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t changed = PTHREAD_COND_INITIALIZER;
    waiter head{&head, &head, nullptr, 0, false, false, false, 0, {}};
    bool installed = false, automatic = false;
    int64_t now = start_ns;
    time_t wall = start_wall; // at start_ns
    unsigned blocked = 0;     // waiters that were not woken yet
    unsigned threads = 0, threads_blocked = 0;
    std::vector<uint64_t> sleeps;
    unsigned call_count[sys_count] = {};
    std::vector<fault> faults[sys_count];
    void (*at_exit)() = nullptr;
    uint64_t changes = 0;
};
world &w() {
    static world &the = *new world;
    return the;
}

void note_change() {
    w().changes++;
    pthread_cond_broadcast(&w().changed);
}

struct guard {
    guard() { pthread_mutex_lock(&w().mutex); }
    ~guard() { pthread_mutex_unlock(&w().mutex); }
    guard(const guard &) = delete;
    guard &operator=(const guard &) = delete;
};

thread_local bool t_counted = false; // made through the table, or enrolled

void wake_one(waiter *v, int result) {
    v->woken = true;
    v->result = result;
    w().blocked--;
    if (v->counted)
        w().threads_blocked--;
    pthread_cond_signal(&v->cond);
    note_change();
}

void move_to(int64_t when) {
    w().now = std::max(w().now, when);
    for (waiter *v = w().head.next; v != &w().head; v = v->next)
        if (!v->woken && v->deadline <= w().now)
            wake_one(v, ETIMEDOUT);
}

int64_t earliest() {
    int64_t first = never;
    for (const waiter *v = w().head.next; v != &w().head; v = v->next)
        if (!v->woken)
            first = std::min(first, v->deadline);
    return first;
}

void jump_if_all_blocked() {
    if (!w().automatic || w().threads == 0 || w().threads_blocked < w().threads)
        return;
    const int64_t first = earliest();
    if (first != never)
        move_to(first);
}

int block(const void *key, int64_t deadline, bool condition) {
    if (deadline <= w().now)
        return ETIMEDOUT;
    waiter v{&w().head, w().head.prev, key, deadline, t_counted, condition, false, 0, {}};
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&v.cond, &attr);
    pthread_condattr_destroy(&attr);
    v.prev->next = &v;
    w().head.prev = &v;
    w().blocked++;
    if (v.counted)
        w().threads_blocked++;
    note_change();
    jump_if_all_blocked();
    while (!v.woken)
        pthread_cond_wait(&v.cond, &w().mutex);
    v.next->prev = v.prev;
    v.prev->next = v.next;
    pthread_cond_destroy(&v.cond);
    return v.result;
}

// The error of this call of @function, or 0.
int called(sys function) {
    const auto f = static_cast<size_t>(function);
    const unsigned number = ++w().call_count[f];
    for (const fault &x : w().faults[f])
        if (number >= x.first && number <= x.last)
            return x.error;
    return 0;
}
int called_unlocked(sys function) {
    guard g;
    return called(function);
}

int fake_mutex_init(pthread_mutex_t *mutex) {
    const int error = called_unlocked(sys::mutex_init);
    return error ? error : g_qel_sys_native.mutex_init(mutex);
}
int fake_condattr_init(pthread_condattr_t *attr) {
    const int error = called_unlocked(sys::condattr_init);
    return error ? error : g_qel_sys_native.condattr_init(attr);
}
int fake_condattr_setclock(pthread_condattr_t *attr, clockid_t clock) {
    const int error = called_unlocked(sys::condattr_setclock);
    return error ? error : g_qel_sys_native.condattr_setclock(attr, clock);
}
int fake_cond_init(pthread_cond_t *cond, const pthread_condattr_t *attr) {
    const int error = called_unlocked(sys::cond_init);
    return error ? error : g_qel_sys_native.cond_init(cond, attr);
}

// The waiter is in the table before its mutex is released, and whoever wakes looks into the table: a wake-up
// that follows a change made under the mutex finds it.
int fake_cond_timedwait(pthread_cond_t *cond, pthread_mutex_t *mutex, const timespec *deadline) {
    int result;
    {
        guard g;
        if ((result = called(sys::cond_timedwait)) != 0)
            return result;
        pthread_mutex_unlock(mutex);
        result = block(cond, deadline->tv_sec * INT64_C(1'000'000'000) + deadline->tv_nsec, true);
    }
    pthread_mutex_lock(mutex);
    return result;
}
int fake_cond_signal(pthread_cond_t *cond) {
    guard g;
    if (const int error = called(sys::cond_signal))
        return error;
    for (waiter *v = w().head.next; v != &w().head; v = v->next)
        if (v->key == cond && !v->woken) {
            wake_one(v, 0);
            break;
        }
    return 0;
}
int fake_cond_broadcast(pthread_cond_t *cond) {
    guard g;
    if (const int error = called(sys::cond_broadcast))
        return error;
    wake(cond);
    return 0;
}

struct start {
    void *(*fun)(void *);
    void *arg;
};
void thread_ended(void *) {
    guard g;
    w().threads--;
    note_change();
    jump_if_all_blocked();
}
void *run_thread(void *p) {
    const start s = *static_cast<start *>(p);
    delete static_cast<start *>(p);
    t_counted = true;
    void *result = nullptr;
    pthread_cleanup_push(thread_ended, nullptr);
    result = s.fun(s.arg);
    pthread_cleanup_pop(1);
    return result;
}
int fake_thread_create(pthread_t *thread, void *(*fun)(void *), void *arg) {
    {
        guard g;
        if (const int error = called(sys::thread_create))
            return error;
        w().threads++;
    }
    auto *s = new start{fun, arg};
    const int error = g_qel_sys_native.thread_create(thread, run_thread, s);
    if (error) {
        delete s;
        thread_ended(nullptr);
    }
    return error;
}

int fake_clock_gettime(clockid_t clock, timespec *now) {
    guard g;
    if (const int error = called(sys::clock_gettime)) {
        errno = error;
        return -1;
    }
    if (clock != CLOCK_MONOTONIC)
        return ::clock_gettime(clock, now);
    now->tv_sec = static_cast<time_t>(w().now / 1'000'000'000);
    now->tv_nsec = static_cast<long>(w().now % 1'000'000'000);
    return 0;
}
void fake_sleep_us(uint64_t microseconds) {
    guard g;
    if (w().sleeps.size() < 1000)
        w().sleeps.push_back(microseconds);
    block(nullptr, w().now + static_cast<int64_t>(microseconds) * 1000, false);
}
time_t fake_time() {
    guard g;
    return w().wall + static_cast<time_t>((w().now - start_ns) / 1'000'000'000);
}
int fake_atexit(void (*fun)()) {
    {
        guard g;
        if (called(sys::atexit))
            return -1;
        w().at_exit = fun;
    }
    return ::atexit(fun);
}

constexpr qel_sys table = {
    .mutex_init = fake_mutex_init,
    .condattr_init = fake_condattr_init,
    .condattr_setclock = fake_condattr_setclock,
    .cond_init = fake_cond_init,
    .cond_timedwait = fake_cond_timedwait,
    .cond_signal = fake_cond_signal,
    .cond_broadcast = fake_cond_broadcast,
    .thread_create = fake_thread_create,
    .clock_gettime = fake_clock_gettime,
    .sleep_us = fake_sleep_us,
    .time = fake_time,
    .atexit = fake_atexit,
};

timespec patience_end() {
    timespec t;
    ::clock_gettime(CLOCK_MONOTONIC, &t);
    t.tv_sec += patience.count();
    return t;
}

// Lock held. A condition may let go of the lock while it looks: what changes meanwhile must not be missed.
bool wait_locked(const std::function<bool()> &condition) {
    const timespec end = patience_end();
    for (;;) {
        const uint64_t seen = w().changes;
        if (condition())
            return true;
        while (seen == w().changes)
            if (pthread_cond_clockwait(&w().changed, &w().mutex, CLOCK_MONOTONIC, &end) == ETIMEDOUT)
                return condition();
    }
}

bool all_blocked() { return w().threads_blocked + (t_counted ? 1 : 0) >= w().threads; }

} // namespace

void install() {
    guard g;
    w().installed = true;
    w().automatic = false;
    w().now = start_ns;
    w().wall = start_wall;
    w().sleeps.clear();
    w().at_exit = nullptr;
    for (size_t i = 0; i < sys_count; i++) {
        w().call_count[i] = 0;
        w().faults[i].clear();
    }
    g_qel_sys.store(&table);
}

void uninstall() {
    guard g;
    w().installed = false;
    g_qel_sys.store(&g_qel_sys_native);
}

nanoseconds now() {
    guard g;
    return nanoseconds(w().now);
}
void set_wall(time_t now) {
    guard g;
    w().wall = now - static_cast<time_t>((w().now - start_ns) / 1'000'000'000);
}

void advance(nanoseconds duration) {
    guard g;
    move_to(w().now + duration.count());
}

bool run_for(nanoseconds duration) {
    guard g;
    const int64_t end = w().now + duration.count();
    for (;;) {
        if (!wait_locked(all_blocked))
            return false;
        const int64_t first = earliest();
        if (first > end)
            break;
        move_to(first);
    }
    move_to(end);
    return true;
}

void auto_advance(bool on) {
    guard g;
    w().automatic = on;
    jump_if_all_blocked();
}

enrolled::enrolled() {
    guard g;
    t_counted = true;
    w().threads++;
}
enrolled::~enrolled() {
    guard g;
    t_counted = false;
    w().threads--;
    note_change();
    jump_if_all_blocked();
}

unsigned blocked() {
    guard g;
    return w().blocked;
}
bool wait_until_blocked(unsigned count) {
    guard g;
    return wait_locked([count] { return w().blocked >= count; });
}
bool settle() {
    guard g;
    return wait_locked(all_blocked);
}
bool wait_for(const std::function<bool()> &condition) {
    guard g;
    return wait_locked([&condition] {
        unlock(); // it may ask anything of this world
        const bool holds = condition();
        lock();
        return holds;
    });
}

nanoseconds next_deadline() {
    guard g;
    const int64_t first = earliest();
    return first == never ? nanoseconds(-1) : nanoseconds(first - w().now);
}
unsigned sleep_count() {
    guard g;
    return static_cast<unsigned>(w().sleeps.size());
}
uint64_t sleep_us(unsigned index) {
    guard g;
    return w().sleeps.at(index);
}

void wake_spuriously() {
    guard g;
    for (waiter *v = w().head.next; v != &w().head; v = v->next)
        if (v->condition && !v->woken)
            wake_one(v, 0);
}

void fail(sys function, int error, unsigned nth, unsigned times) {
    guard g;
    const auto f = static_cast<size_t>(function);
    const unsigned first = w().call_count[f] + nth;
    w().faults[f].push_back({first, first + times - 1, error});
}
unsigned calls(sys function) {
    guard g;
    return w().call_count[static_cast<size_t>(function)];
}
void (*atexit_function())() {
    guard g;
    return w().at_exit;
}

void lock() { pthread_mutex_lock(&w().mutex); }
void unlock() { pthread_mutex_unlock(&w().mutex); }
int wait(const void *key, int64_t deadline_ns) { return block(key, deadline_ns, false); }
void wake(const void *key) {
    for (waiter *v = w().head.next; v != &w().head; v = v->next)
        if (v->key == key && !v->woken)
            wake_one(v, 0);
}
int64_t now_ns() { return w().now; }
void changed() { note_change(); }

} // namespace qel_time
