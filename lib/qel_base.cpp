#include "qel_base.h"

#include <cerrno>
#include <cstdio>
#include <sched.h>
#include <sys/auxv.h>
#include <sys/prctl.h>

#include "qel_watchdog.h"

// Straight to the descriptor: the process may be in any state, stdio's locks included.
void qel_assert_fail(const char *expression, const char *file, int line) noexcept {
    char text[512];
    const int len = snprintf(text, sizeof text, "%s:%d: assertion failed: \"%s\"\n", file, line, expression);
    if (len > 0) {
        const size_t size =
            static_cast<size_t>(len) < sizeof text ? static_cast<size_t>(len) : sizeof text - 1;
        [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, text, size);
    }
    abort();
}

static int native_mutex_init(pthread_mutex_t *mutex) { return pthread_mutex_init(mutex, nullptr); }
static int native_thread_create(pthread_t *thread, void *(*fun)(void *), void *arg) {
    return pthread_create(thread, nullptr, fun, arg);
}
static void native_sleep_us(uint64_t us) {
    timespec left = {static_cast<time_t>(us / 1'000'000), static_cast<long>(us % 1'000'000 * 1000)};
    while (clock_nanosleep(CLOCK_MONOTONIC, 0, &left, &left) == EINTR) {
    }
}
static time_t native_time() { return ::time(nullptr); }

constinit const qel_sys g_qel_sys_native = {
    .mutex_init = native_mutex_init,
    .condattr_init = pthread_condattr_init,
    .condattr_setclock = pthread_condattr_setclock,
    .cond_init = pthread_cond_init,
    .cond_timedwait = pthread_cond_timedwait,
    .cond_signal = pthread_cond_signal,
    .cond_broadcast = pthread_cond_broadcast,
    .thread_create = native_thread_create,
    .clock_gettime = ::clock_gettime,
    .sleep_us = native_sleep_us,
    .time = native_time,
    .atexit = ::atexit,
};
constinit std::atomic<const qel_sys *> g_qel_sys{&g_qel_sys_native};

timespec qel_deadline_s(uint32_t seconds) noexcept {
    timespec t{};
    const int ret = qel_sys_get().clock_gettime(CLOCK_MONOTONIC, &t);
    QEL_ASSERT(ret == 0);
    t.tv_sec += static_cast<time_t>(seconds);
    return t;
}

void *qel_zalloc(size_t size) noexcept {
    void *p = calloc(1, size);
    while (!p) {
        qel_sleep_us(10);
        p = calloc(1, size);
    }
    return p;
}

qel_cond_step qel_cond::init(int &error) noexcept {
    const qel_sys &sys = qel_sys_get();
    pthread_condattr_t attr;
    error = sys.condattr_init(&attr);
    if (error)
        return qel_cond_step::attr_init;
    qel_cond_step failed = qel_cond_step::none;
    if ((error = sys.condattr_setclock(&attr, CLOCK_MONOTONIC)) != 0)
        failed = qel_cond_step::attr_clock;
    else if ((error = sys.cond_init(&c, &attr)) != 0)
        failed = qel_cond_step::cond_init;
    (void)pthread_condattr_destroy(&attr);
    return failed;
}

// prctl cuts a longer name where pthread_setname_np would refuse it.
void qel_thread_set_name(const char *name) noexcept { (void)prctl(PR_SET_NAME, name, 0, 0, 0); }

qel_watchdog_guard::qel_watchdog_guard() noexcept {
    name[0] = '\0';
    (void)prctl(PR_GET_NAME, name, 0, 0, 0);
    name[sizeof name - 1] = '\0';
    qel_watchdog_register(name);
}

void qel_gate::decide(decision d) noexcept {
    qel_lock lock(mutex);
    decided = d;
    const int ret = pthread_cond_broadcast(&cond);
    QEL_ASSERT(ret == 0);
}

bool qel_gate::wait() noexcept {
    qel_lock lock(mutex);
    while (decided == decision::none) {
        const int ret = pthread_cond_wait(&cond, &mutex.m);
        QEL_ASSERT(ret == 0);
    }
    return decided == decision::open;
}

int qel_fd::errno_value() noexcept { return errno; }
void qel_fd::set_errno(int value) noexcept { errno = value; }

// ---- hash index -----------------------------------------------------------------------------------------

// Peers choose the keys, so where they lie depends on a number that no peer knows: 8 of the 16 random bytes
// that the kernel gives every process.
static uint64_t hash_seed() noexcept {
    uint64_t seed = 0;
    if (const auto *random = reinterpret_cast<const void *>(getauxval(AT_RANDOM)))
        std::memcpy(&seed, random, sizeof seed);
    return seed;
}

static size_t slot_of(uint64_t key, size_t slot_count) noexcept {
    static const uint64_t seed = hash_seed();
    uint64_t h = key ^ seed; // every bit of the key reaches every bit of the slot
    h = (h ^ h >> 33) * 0xFF51AFD7ED558CCDu;
    h = (h ^ h >> 33) * 0xC4CEB9FE1A85EC53u;
    return static_cast<size_t>(h ^ h >> 33) & (slot_count - 1);
}

void qel_hash_base::grow() noexcept {
    const size_t new_count = slot_count_ ? slot_count_ * 2 : 16;
    auto **table = static_cast<qel_hash_hook **>(qel_zalloc(new_count * sizeof(qel_hash_hook *)));
    for (size_t i = 0; i < slot_count_; i++) {
        for (qel_hash_hook *hook = slots_[i]; hook;) {
            qel_hash_hook *next = hook->next;
            qel_hash_hook **slot = &table[slot_of(hook->key, new_count)];
            hook->next = *slot;
            *slot = hook;
            hook = next;
        }
    }
    free(slots_);
    slots_ = table;
    slot_count_ = new_count;
}

void qel_hash_base::insert(qel_hash_hook *hook, uint64_t key) noexcept {
    if (count_ >= slot_count_)
        grow();
    qel_hash_hook **slot = &slots_[slot_of(key, slot_count_)];
    hook->key = key;
    hook->next = *slot;
    *slot = hook;
    count_++;
}

void qel_hash_base::remove(qel_hash_hook *hook) noexcept {
    QEL_ASSERT(slot_count_ != 0);
    qel_hash_hook **at = &slots_[slot_of(hook->key, slot_count_)];
    while (*at != hook) {
        QEL_ASSERT(*at != nullptr);
        at = &(*at)->next;
    }
    *at = hook->next;
    hook->next = nullptr;
    count_--;
}

qel_hash_hook *qel_hash_base::first(uint64_t key) const noexcept {
    if (slot_count_ == 0)
        return nullptr;
    qel_hash_hook *hook = slots_[slot_of(key, slot_count_)];
    while (hook && hook->key != key)
        hook = hook->next;
    return hook;
}

qel_hash_hook *qel_hash_base::next_same(qel_hash_hook *hook) noexcept {
    const uint64_t key = hook->key;
    for (hook = hook->next; hook && hook->key != key; hook = hook->next) {
    }
    return hook;
}

void qel_hash_base::destroy() noexcept {
    free(slots_);
    slots_ = nullptr;
    slot_count_ = count_ = 0;
}

// ---- short waits ----------------------------------------------------------------------------------------

constexpr uint64_t short_wait_ns = 10'000, usual_wait_ns = 250'000;
constexpr uint32_t short_wait_rounds = 50; // enough of them for the time; a test's clock may stand
constexpr uint64_t lost_ns = 2'000'000;    // others computed: longer than our own threads work at a stretch
constexpr uint64_t lost_rest = 10;         // times as long no turn is given away then

static uint64_t now_ns() noexcept {
    timespec t{};
    (void)qel_sys_get().clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<uint64_t>(t.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(t.tv_nsec);
}

bool qel_give_way() noexcept {
    static constinit std::atomic<uint64_t> not_before{0};
    const uint64_t begin = now_ns();
    if (begin < not_before.load(std::memory_order_relaxed))
        return false;
    (void)sched_yield();
    const uint64_t passed = now_ns() - begin;
    if (passed > lost_ns)
        not_before.store(begin + passed * lost_rest, std::memory_order_relaxed);
    return true;
}

qel_short_wait::qel_short_wait(std::atomic<uint64_t> &last_ns) noexcept
    : last_ns_(last_ns), begin_(now_ns()) {}
qel_short_wait::~qel_short_wait() { last_ns_.store(now_ns() - begin_, std::memory_order_relaxed); }

bool qel_short_wait::again() noexcept {
    return last_ns_.load(std::memory_order_relaxed) <= usual_wait_ns && rounds_++ < short_wait_rounds &&
           now_ns() - begin_ < short_wait_ns && qel_give_way();
}
