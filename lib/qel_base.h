// The toolbox under every module: assertions, locks, conditions, threads, time, intrusive lists and hash
// indexes, descriptors, wire integers. It knows nothing of the bus.
//
// Everything that blocks, reads a clock or starts a thread goes through the table `qel_sys`, so that a test
// can take over time and make any of these calls fail. Mutexes are locked directly.
#ifndef QEL_BASE_H
#define QEL_BASE_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <endian.h>
#include <new>
#include <pthread.h>
#include <type_traits>
#include <unistd.h>
#include <utility>

#include "qel/qel.h"

// ---- thread-safety annotations (clang checks them, other compilers see nothing) -------------------------
#if defined(__clang__)
#define QEL_TSA(x) __attribute__((x))
#else
#define QEL_TSA(x)
#endif
#define QEL_CAPABILITY(x) QEL_TSA(capability(x))
#define QEL_SCOPED_CAPABILITY QEL_TSA(scoped_lockable)
#define QEL_GUARDED_BY(x) QEL_TSA(guarded_by(x))
#define QEL_PT_GUARDED_BY(x) QEL_TSA(pt_guarded_by(x))
#define QEL_ACQUIRED_AFTER(...) QEL_TSA(acquired_after(__VA_ARGS__))
#define QEL_REQUIRES(...) QEL_TSA(requires_capability(__VA_ARGS__))
#define QEL_ACQUIRE(...) QEL_TSA(acquire_capability(__VA_ARGS__))
#define QEL_RELEASE(...) QEL_TSA(release_capability(__VA_ARGS__))
#define QEL_TRY_ACQUIRE(...) QEL_TSA(try_acquire_capability(__VA_ARGS__))
#define QEL_EXCLUDES(...) QEL_TSA(locks_excluded(__VA_ARGS__))
#define QEL_NO_TSA QEL_TSA(no_thread_safety_analysis)

// ---- assertions: broken invariants of our own, never input; they stay on in release builds --------------
[[noreturn]] void qel_assert_fail(const char *expression, const char *file, int line) noexcept;
#define QEL_ASSERT(expression)                                                                               \
    (__builtin_expect(!!(expression), 1) ? (void)0 : qel_assert_fail(#expression, __FILE__, __LINE__))

// ---- the system calls that block, tell the time or make threads -----------------------------------------
struct qel_sys {
    int (*mutex_init)(pthread_mutex_t *mutex);
    int (*condattr_init)(pthread_condattr_t *attr);
    int (*condattr_setclock)(pthread_condattr_t *attr, clockid_t clock);
    int (*cond_init)(pthread_cond_t *cond, const pthread_condattr_t *attr);
    int (*cond_timedwait)(pthread_cond_t *cond, pthread_mutex_t *mutex, const timespec *deadline);
    int (*cond_signal)(pthread_cond_t *cond);
    int (*cond_broadcast)(pthread_cond_t *cond);
    int (*thread_create)(pthread_t *thread, void *(*fun)(void *), void *arg);
    int (*clock_gettime)(clockid_t clock, timespec *now);
    void (*sleep_us)(uint64_t microseconds);
    time_t (*time)(); // wall clock, seconds
    int (*atexit)(void (*fun)());
};
extern const qel_sys g_qel_sys_native;
// The table in force. Tests replace it before the first registration.
extern std::atomic<const qel_sys *> g_qel_sys;
inline const qel_sys &qel_sys_get() noexcept { return *g_qel_sys.load(std::memory_order_relaxed); }

// CLOCK_MONOTONIC now plus @seconds, as the deadline of a timed wait.
timespec qel_deadline_s(uint32_t seconds) noexcept;
inline void qel_sleep_us(uint64_t us) noexcept { qel_sys_get().sleep_us(us); }

// ---- memory: never null; a process without memory waits for it in steps of 10 microseconds --------------
void *qel_zalloc(size_t size) noexcept; // cleared
// A T in memory of qel_zalloc, value-initialised; given back with qel_delete.
template <class T> T *qel_new() noexcept { return ::new (qel_zalloc(sizeof(T))) T{}; }
template <class T> void qel_delete(T *p) noexcept {
    if (p) {
        p->~T();
        free(p);
    }
}

// ---- locks ----------------------------------------------------------------------------------------------
struct QEL_CAPABILITY("mutex") qel_mutex { // constant-initialised, trivially destructible
    constexpr qel_mutex() noexcept = default;
    qel_mutex(const qel_mutex &) = delete;
    qel_mutex &operator=(const qel_mutex &) = delete;
    // 0 or an error number. Only records made at run time need it; globals are ready as they are.
    [[nodiscard]] int init() noexcept { return qel_sys_get().mutex_init(&m); }
    void destroy() noexcept { (void)pthread_mutex_destroy(&m); }
    void lock() noexcept QEL_ACQUIRE() {
        const int ret = pthread_mutex_lock(&m);
        QEL_ASSERT(ret == 0);
    }
    void unlock() noexcept QEL_RELEASE() {
        const int ret = pthread_mutex_unlock(&m);
        QEL_ASSERT(ret == 0);
    }
    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
};

struct QEL_SCOPED_CAPABILITY qel_lock {
    explicit qel_lock(qel_mutex &mutex) noexcept QEL_ACQUIRE(mutex) : m(mutex) { m.lock(); }
    ~qel_lock() QEL_RELEASE() {
        if (held)
            m.unlock();
    }
    qel_lock(const qel_lock &) = delete;
    qel_lock &operator=(const qel_lock &) = delete;
    void unlock() noexcept QEL_RELEASE() {
        held = false;
        m.unlock();
    }
    void lock() noexcept QEL_ACQUIRE() {
        m.lock();
        held = true;
    }

  private:
    qel_mutex &m;
    bool held = true;
};

// Which step of making a condition on CLOCK_MONOTONIC failed.
enum class qel_cond_step { none, attr_init, attr_clock, cond_init };

struct qel_cond { // constant-initialised; init() puts it on CLOCK_MONOTONIC, destroy() takes it back to that
    // @error receives the error number of the failed step. Nothing is left over after a failure.
    [[nodiscard]] qel_cond_step init(int &error) noexcept;
    void destroy() noexcept {
        (void)pthread_cond_destroy(&c);
        *this = {};
    }
    // 0 when woken, ETIMEDOUT, or an error number.
    [[nodiscard]] int wait_until(qel_mutex &mutex, const timespec &deadline) noexcept QEL_REQUIRES(mutex) {
        return qel_sys_get().cond_timedwait(&c, &mutex.m, &deadline);
    }
    [[nodiscard]] int signal() noexcept { return qel_sys_get().cond_signal(&c); }
    [[nodiscard]] int broadcast() noexcept { return qel_sys_get().cond_broadcast(&c); }
    pthread_cond_t c = PTHREAD_COND_INITIALIZER;
};

// ---- threads --------------------------------------------------------------------------------------------
// Names the calling thread; the kernel keeps 15 characters.
void qel_thread_set_name(const char *name) noexcept;

// Holds a new thread back until its maker has decided whether it is wanted.
struct qel_gate {
    enum class decision { none, open, give_up };
    void decide(decision d) noexcept QEL_EXCLUDES(mutex);
    bool wait() noexcept QEL_EXCLUDES(mutex); // true: go on; false: end
    qel_mutex mutex;
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    decision decided QEL_GUARDED_BY(mutex) = decision::none;
};

// Lets other threads run for a moment. False, and nothing done: the last time that took so long (somebody
// computes) that for a while it is left out.
bool qel_give_way() noexcept;

// One wait of a thread. What it waits for is often there within microseconds, while putting it to sleep and
// waking it up costs both sides as many: so it looks again for ten microseconds before it sleeps, if the last
// wait at this place was a short one. The object lives from before the first look to the end of the wait.
class qel_short_wait {
  public:
    explicit qel_short_wait(std::atomic<uint64_t> &last_ns) noexcept;
    ~qel_short_wait();
    qel_short_wait(const qel_short_wait &) = delete;
    qel_short_wait &operator=(const qel_short_wait &) = delete;
    // True: @ready() was. False: time to sleep.
    template <class Ready> bool until(Ready ready) noexcept {
        while (again())
            if (ready())
                return true;
        return false;
    }

  private:
    bool again() noexcept;
    std::atomic<uint64_t> &last_ns_;
    uint64_t begin_;
    uint32_t rounds_ = 0;
};

// ---- a descriptor with an owner -------------------------------------------------------------------------
struct qel_fd {
    qel_fd() = default;
    explicit qel_fd(int number) : fd(number) {}
    qel_fd(const qel_fd &) = delete;
    qel_fd &operator=(const qel_fd &) = delete;
    ~qel_fd() { reset(); }
    void reset(int number = -1) noexcept { // keeps errno
        if (fd >= 0) {
            const int saved = errno_value();
            ::close(fd);
            set_errno(saved);
        }
        fd = number;
    }
    int release() noexcept { return std::exchange(fd, -1); }
    explicit operator bool() const noexcept { return fd >= 0; }
    int fd = -1;

  private:
    static int errno_value() noexcept;
    static void set_errno(int value) noexcept;
};

// ---- an intrusive circular list, appended at the tail ---------------------------------------------------
// Hook: a qel_link member of T. A hook that is on no list is {null, null}; inserting it twice asserts.
template <class T, size_t Offset> class qel_list {
  public:
    constexpr qel_list() noexcept : head_{&head_, &head_} {}
    qel_list(const qel_list &) = delete;
    qel_list &operator=(const qel_list &) = delete;

    [[nodiscard]] bool empty() const noexcept { return head_.next == &head_; }
    T *front() noexcept { return empty() ? nullptr : owner(head_.next); }
    T *next(T *item) noexcept { return hook(item)->next == &head_ ? nullptr : owner(hook(item)->next); }
    void push_back(T *item) noexcept { insert(&head_, item); }
    void insert_before(T *position, T *item) noexcept { insert(position ? hook(position) : &head_, item); }
    static void unlink(T *item) noexcept {
        qel_link *l = hook(item);
        QEL_ASSERT(l->next != nullptr);
        l->prev->next = l->next;
        l->next->prev = l->prev;
        l->next = l->prev = nullptr;
    }
    static bool linked(T *item) noexcept { return hook(item)->next != nullptr; }
    T *pop_front() noexcept {
        T *item = front();
        if (item)
            unlink(item);
        return item;
    }

    // for (T &x : list): the body may unlink and free x itself, nothing else.
    struct iterator {
        qel_link *at, *after;
        T &operator*() const noexcept { return *owner(at); }
        iterator &operator++() noexcept {
            at = after;
            after = at->next;
            return *this;
        }
        bool operator!=(const iterator &o) const noexcept { return at != o.at; }
    };
    iterator begin() noexcept { return {head_.next, head_.next->next}; }
    iterator end() noexcept { return {&head_, nullptr}; }

  private:
    static qel_link *hook(T *item) noexcept {
        return reinterpret_cast<qel_link *>(reinterpret_cast<char *>(item) + Offset);
    }
    static T *owner(qel_link *l) noexcept {
        return reinterpret_cast<T *>(reinterpret_cast<char *>(l) - Offset);
    }
    static void insert(qel_link *before, T *item) noexcept {
        qel_link *l = hook(item);
        QEL_ASSERT(l->next == nullptr);
        l->next = before;
        l->prev = before->prev;
        before->prev->next = l;
        before->prev = l;
    }
    qel_link head_;
};

// ---- an intrusive hash index ----------------------------------------------------------------------------
// Finds records by a 64-bit key in constant time however many a peer makes us keep. Several records may
// share a key; first()/next() walk them in no particular order. The table grows, never shrinks. The owner of
// the index guards it.
struct qel_hash_hook {
    qel_hash_hook *next = nullptr;
    uint64_t key = 0;
};
class qel_hash_base {
  public:
    constexpr qel_hash_base() noexcept = default;
    qel_hash_base(const qel_hash_base &) = delete;
    qel_hash_base &operator=(const qel_hash_base &) = delete;
    [[nodiscard]] size_t size() const noexcept { return count_; }
    void destroy() noexcept; // gives the table back; the records are the owner's

  protected:
    void insert(qel_hash_hook *hook, uint64_t key) noexcept;
    void remove(qel_hash_hook *hook) noexcept;
    [[nodiscard]] qel_hash_hook *first(uint64_t key) const noexcept;
    [[nodiscard]] static qel_hash_hook *next_same(qel_hash_hook *hook) noexcept;

  private:
    void grow() noexcept;
    qel_hash_hook **slots_ = nullptr;
    size_t slot_count_ = 0; // a power of two, or 0
    size_t count_ = 0;
};
template <class T, size_t Offset> class qel_hash : public qel_hash_base {
  public:
    void insert(T *item, uint64_t key) noexcept { qel_hash_base::insert(hook(item), key); }
    void remove(T *item) noexcept { qel_hash_base::remove(hook(item)); }
    [[nodiscard]] T *first(uint64_t key) const noexcept { return owner(qel_hash_base::first(key)); }
    [[nodiscard]] static T *next(T *item) noexcept { return owner(next_same(hook(item))); }

  private:
    static qel_hash_hook *hook(T *item) noexcept {
        return reinterpret_cast<qel_hash_hook *>(reinterpret_cast<char *>(item) + Offset);
    }
    static T *owner(qel_hash_hook *h) noexcept {
        return h ? reinterpret_cast<T *>(reinterpret_cast<char *>(h) - Offset) : nullptr;
    }
};

// ---- wire integers: bytes, not numbers ------------------------------------------------------------------
inline uint16_t qel_load_be16(const void *p) noexcept {
    uint16_t v;
    std::memcpy(&v, p, sizeof v);
    return be16toh(v);
}
inline uint32_t qel_load_be32(const void *p) noexcept {
    uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return be32toh(v);
}
inline void qel_store_be16(void *p, uint16_t v) noexcept {
    v = htobe16(v);
    std::memcpy(p, &v, sizeof v);
}
inline void qel_store_be32(void *p, uint32_t v) noexcept {
    v = htobe32(v);
    std::memcpy(p, &v, sizeof v);
}
inline uint32_t qel_load_host32(const void *p) noexcept {
    uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
#endif
