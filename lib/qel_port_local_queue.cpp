// The queue of docs/local-transport.md. Invariants of the state that `commit` points at:
//   - the block that holds position `tail` is linked, also when `tail` is the block's first byte;
//   - the blocks from `reclaim_block` to `last_block` form one chain through `next`, in stream order; those
//     before the reader's head are free, and a writer takes them from the front;
//   - `next` of `last_block` means nothing, `spare` from its count on means nothing: both may be written
//     before the state that makes them count is switched in.
// Block sequence numbers are position / block size, modulo 2^32.
#include "qel_port_local_queue.h"

#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <linux/futex.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "qel_base.h"

// Fills a cache line; aligned to one only where it is shared: copies of it lie on stacks, which gcc 12 does
// not align that far under AddressSanitizer.
struct qel_lq_state {
    uint64_t tail;
    uint64_t cost;       // of everything ever put in
    uint64_t freed_seen; // the reader's count when a writer last looked; behind it, never ahead
    uint32_t tail_block;
    uint32_t last_block, last_seq;       // the newest linked block
    uint32_t reclaim_block, reclaim_seq; // the oldest block not taken back
    uint32_t fresh;                      // blocks from here on were never used
    uint32_t spare;                      // entries of the stack
    uint32_t peak;                       // blocks lately in use at most, times 256, slowly falling
    uint64_t unused;
};

// Each group of fields on cache lines of its own, two lines apart (processors fetch them in pairs).
struct qel_lq_shared {
    uint32_t magic, version;
    alignas(128) std::atomic<uint64_t> lock; // 0, or the owner: thread id, waiters bit, start time above
    std::atomic<uint32_t> commit;            // its lowest bit tells which state is true
    alignas(64) qel_lq_state states[2];
    alignas(128) std::atomic<uint64_t> tail; // what readers may read up to
    alignas(128) std::atomic<uint64_t> head; // the reader's, published
    std::atomic<uint64_t> freed;
    alignas(128) std::atomic<uint64_t> sleep; // odd while the reader sleeps
    alignas(128) std::atomic<uint64_t> rcvbuf;
    std::atomic<uint32_t> closed, broken;
};
static_assert(sizeof(qel_lq_state) == 64 && sizeof(qel_lq_shared) <= 4096);
static_assert(std::atomic<uint64_t>::is_always_lock_free && std::atomic<uint32_t>::is_always_lock_free);
static_assert(sizeof(std::atomic<uint32_t>) == 4);

constexpr uint32_t lq_magic = 0x514C5131;
constexpr uint32_t lq_version = 1;
constexpr size_t lq_head_bytes = 4096;
constexpr uint32_t lq_keep_free = 16;        // free blocks in circulation that nobody minds
constexpr uint32_t lq_keep_resident = 128;   // retired blocks that keep their pages
constexpr uint64_t lq_far_ahead = 512 << 10; // bytes; half of a processor's own cache these days
constexpr uint32_t lq_waiters = 0x80000000;  // in the lower half of the lock word

static uint32_t seq_of(uint64_t position) { return static_cast<uint32_t>(position / qel_lq_block_bytes); }
static uint32_t offset_of(uint64_t position) { return static_cast<uint32_t>(position % qel_lq_block_bytes); }
static uint64_t record_bytes(uint32_t size) {
    return qel_lq_unit_bytes +
           (static_cast<uint64_t>(size) + qel_lq_unit_bytes - 1) / qel_lq_unit_bytes * qel_lq_unit_bytes;
}
static uint32_t check_of(uint64_t position) {
    return static_cast<uint32_t>(position / qel_lq_unit_bytes) ^ 0x9E5C71A3;
}

// ---- records --------------------------------------------------------------------------------------------

// Measured on the kernel: a buffer is a power of two, at least 1 KiB, that holds the data and some 400 bytes
// of heads, plus 256 bytes for its descriptor.
uint32_t qel_lq_cost(uint32_t size) noexcept {
    const uint32_t need = size + 400;
    return (need <= 1024 ? 1024 : std::bit_ceil(need)) + 256;
}

const char *qel_lq_parse(const qel_lq_header &raw, uint64_t position, uint64_t available,
                         qel_lq_meta &meta) noexcept {
    if (raw.check != check_of(position))
        return "no record at this position";
    if (raw.size > qel_lq_size_max)
        return "size above the limit of a message";
    if (record_bytes(raw.size) > available)
        return "record passes the end of the stream";
    if (raw.flags >> 18 || raw.zero != 0)
        return "unknown flags";
    const uint32_t importance = raw.flags & 0xFF;
    const uint32_t code = raw.flags >> 8 & 0xFF;
    if (importance > 4 || code > 5)
        return "importance or code out of range";
    if (code && raw.size > qel_lq_returned_max)
        return "returned message too long";
    meta = {
        .size = raw.size,
        .src_ref = raw.src_ref,
        .src_node = raw.src_node,
        .name_type = raw.name_type,
        .name_instance = raw.name_instance,
        .importance = static_cast<uint8_t>(importance),
        .code = static_cast<uint8_t>(code),
        .droppable = (raw.flags >> 16 & 1) != 0,
        .named = (raw.flags >> 17 & 1) != 0,
    };
    return nullptr;
}

static qel_lq_header header_of(const qel_lq_meta &meta, uint64_t position) {
    return {
        .check = check_of(position),
        .size = meta.size,
        .src_ref = meta.src_ref,
        .src_node = meta.src_node,
        .name_type = meta.name_type,
        .name_instance = meta.name_instance,
        .flags = meta.importance | static_cast<uint32_t>(meta.code) << 8 |
                 static_cast<uint32_t>(meta.droppable) << 16 | static_cast<uint32_t>(meta.named) << 17,
        .zero = 0,
    };
}

// ---- the memory -----------------------------------------------------------------------------------------

static size_t table_bytes(uint32_t block_count) {
    return (static_cast<size_t>(block_count) * 4 + 4095) / 4096 * 4096;
}
size_t qel_lq_bytes(uint32_t block_count) noexcept {
    return lq_head_bytes + 2 * table_bytes(block_count) +
           static_cast<size_t>(block_count) * qel_lq_block_bytes;
}

void qel_lq_attach(qel_lq &q, void *memory, uint32_t block_count) noexcept {
    auto *at = static_cast<unsigned char *>(memory);
    q.shared = reinterpret_cast<qel_lq_shared *>(at);
    at += lq_head_bytes;
    q.next = reinterpret_cast<std::atomic<uint32_t> *>(at);
    at += table_bytes(block_count);
    q.spare = reinterpret_cast<std::atomic<uint32_t> *>(at);
    at += table_bytes(block_count);
    q.blocks = at;
    q.block_count = block_count;
    q.bytes = qel_lq_bytes(block_count);
}

void qel_lq_init(const qel_lq &q, uint64_t rcvbuf_bytes) noexcept {
    q.shared->magic = lq_magic;
    q.shared->version = lq_version;
    q.shared->states[0].fresh = 1; // block 0 holds position 0
    q.shared->rcvbuf.store(rcvbuf_bytes, std::memory_order_release);
}

constexpr int lq_seals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;

int qel_lq_create_file() noexcept {
    qel_fd fd(memfd_create("qel-queue", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!fd || ftruncate(fd.fd, static_cast<off_t>(qel_lq_bytes(qel_lq_blocks))) != 0 ||
        fcntl(fd.fd, F_ADD_SEALS, lq_seals) != 0)
        return -1;
    return fd.release();
}

int qel_lq_map_file(qel_lq &q, int fd) noexcept {
    struct stat st {};
    if (fstat(fd, &st) != 0)
        return -1;
    const int seals = fcntl(fd, F_GET_SEALS);
    // Of this size and sealed: no later change of the file can make an access fail.
    if (!S_ISREG(st.st_mode) || static_cast<size_t>(st.st_size) != qel_lq_bytes(qel_lq_blocks) || seals < 0 ||
        (seals & (F_SEAL_SHRINK | F_SEAL_WRITE)) != F_SEAL_SHRINK) {
        errno = EPROTO;
        return -1;
    }
    void *memory =
        mmap(nullptr, qel_lq_bytes(qel_lq_blocks), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_NORESERVE, fd, 0);
    if (memory == MAP_FAILED)
        return -1;
    (void)madvise(memory, qel_lq_bytes(qel_lq_blocks), MADV_DONTDUMP);
    qel_lq_attach(q, memory, qel_lq_blocks);
    return 0;
}

void qel_lq_unmap(qel_lq &q) noexcept {
    if (q.shared)
        (void)munmap(q.shared, q.bytes);
    q = qel_lq{};
}

// ---- the lock -------------------------------------------------------------------------------------------

// Start time of thread @tid in clock ticks, modulo 2^32, from /proc/<tid>/stat. False: it runs no more.
static bool thread_start(uint32_t tid, uint32_t &start) {
    char path[40];
    (void)snprintf(path, sizeof path, "/proc/%u/stat", tid);
    qel_fd fd(open(path, O_RDONLY | O_CLOEXEC));
    if (!fd) {
        if (errno == ENOENT || errno == ESRCH)
            return false;
        start = 0; // cannot be known (no descriptors left): taken as living
        return true;
    }
    char text[1024];
    const ssize_t got = read(fd.fd, text, sizeof text - 1);
    if (got <= 0)
        return false; // it ended meanwhile
    text[got] = 0;
    const char *at = strrchr(text, ')'); // the name before it may hold anything
    if (!at || at[1] != ' ')
        return false;
    if (at[2] == 'Z' || at[2] == 'X')
        return false;
    at += 2;
    for (int field = 3; field < 22; field++) { // the start time is field 22
        at = strchr(at, ' ');
        if (!at)
            return false;
        at++;
    }
    start = static_cast<uint32_t>(strtoull(at, nullptr, 10));
    return true;
}

static thread_local uint64_t t_self __attribute__((tls_model("initial-exec")));

// A forked child is another thread under the same variable.
static void forget_self() { t_self = 0; }
static void watch_forks() { (void)pthread_atfork(nullptr, nullptr, forget_self); }
static pthread_once_t g_fork_once = PTHREAD_ONCE_INIT;

static uint64_t lock_word_of_self() {
    if (__builtin_expect(t_self == 0, 0)) {
        (void)pthread_once(&g_fork_once, watch_forks);
        const auto tid = static_cast<uint32_t>(syscall(SYS_gettid));
        uint32_t start = 0;
        (void)thread_start(tid, start);
        t_self = static_cast<uint64_t>(start) << 32 | tid;
    }
    return t_self;
}

static bool lock_owner_lives(uint64_t word) {
    const uint32_t tid = static_cast<uint32_t>(word) & ~lq_waiters;
    const auto start = static_cast<uint32_t>(word >> 32);
    uint32_t now_start = 0;
    if (tid == 0 || !thread_start(tid, now_start))
        return false;
    return start == 0 || now_start == 0 || now_start == start;
}

static void futex_wait_1ms(std::atomic<uint64_t> &word, uint32_t expected) {
    const timespec slice = {0, 1'000'000};
    auto *low = reinterpret_cast<uint32_t *>(&word) + (std::endian::native == std::endian::big ? 1 : 0);
    (void)syscall(SYS_futex, low, FUTEX_WAIT, expected, &slice, nullptr, 0);
}
static void futex_wake_one(std::atomic<uint64_t> &word) {
    auto *low = reinterpret_cast<uint32_t *>(&word) + (std::endian::native == std::endian::big ? 1 : 0);
    (void)syscall(SYS_futex, low, FUTEX_WAKE, 1, nullptr, nullptr, 0);
}

static void relax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
    asm volatile("yield");
#endif
}

static uint64_t now_ms() {
    timespec t{};
    (void)clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<uint64_t>(t.tv_sec) * 1000 + static_cast<uint64_t>(t.tv_nsec) / 1'000'000;
}

static bool lock_slowly(std::atomic<uint64_t> &lock, uint64_t self, qel_lq_patience patience) {
    for (int i = 0; i < 200; i++) {
        uint64_t free_word = 0;
        if (lock.load(std::memory_order_relaxed) == 0 &&
            lock.compare_exchange_weak(free_word, self, std::memory_order_acquire, std::memory_order_relaxed))
            return true;
        relax();
    }
    const uint64_t begin = now_ms();
    uint64_t asked = begin; // when the owner was last looked at
    uint64_t ask_after = 1;
    // From here on take the lock with the waiters bit: somebody else may sleep as well.
    for (;;) {
        uint64_t word = lock.load(std::memory_order_relaxed);
        if (word == 0) {
            if (lock.compare_exchange_strong(word, self | lq_waiters, std::memory_order_acquire,
                                             std::memory_order_relaxed))
                return true;
            continue;
        }
        const uint64_t now = now_ms();
        if (patience == qel_lq_patience::once || now - asked >= ask_after) {
            if (!lock_owner_lives(word) &&
                lock.compare_exchange_strong(word, self | lq_waiters, std::memory_order_acquire,
                                             std::memory_order_relaxed))
                return true;
            asked = now;
            ask_after = ask_after < 64 ? ask_after * 2 : ask_after;
        }
        if (patience == qel_lq_patience::once || now - begin >= 2000)
            return false;
        if ((static_cast<uint32_t>(word) & lq_waiters) == 0) {
            const uint64_t with_bit = word | lq_waiters;
            if (!lock.compare_exchange_strong(word, with_bit, std::memory_order_relaxed))
                continue;
            word = with_bit;
        }
        futex_wait_1ms(lock, static_cast<uint32_t>(word));
    }
}

static bool lock_queue(const qel_lq &q, qel_lq_patience patience) {
    std::atomic<uint64_t> &lock = q.shared->lock;
    const uint64_t self = lock_word_of_self();
    uint64_t free_word = 0;
    if (__builtin_expect(lock.compare_exchange_strong(free_word, self, std::memory_order_acquire,
                                                      std::memory_order_relaxed),
                         1))
        return true;
    return lock_slowly(lock, self, patience);
}

static void unlock_queue(const qel_lq &q) {
    const uint64_t old = q.shared->lock.exchange(0, std::memory_order_release);
    if (__builtin_expect(static_cast<uint32_t>(old) & lq_waiters, 0))
        futex_wake_one(q.shared->lock);
}

void qel_lq_lock_for_test(const qel_lq &q) noexcept { (void)lock_queue(q, qel_lq_patience::bounded); }

// ---- writing --------------------------------------------------------------------------------------------

// Judges a private copy of the state.
static bool state_is_sane(const qel_lq &q, const qel_lq_state &s) {
    const uint32_t n = q.block_count;
    return s.tail % qel_lq_unit_bytes == 0 && s.tail_block < n && s.last_block < n && s.reclaim_block < n &&
           s.fresh <= n && s.spare <= n && s.last_seq - seq_of(s.tail) < n &&
           seq_of(s.tail) - s.reclaim_seq < n;
}

static void switch_state(const qel_lq &q, const qel_lq_state &s, uint32_t &commit) {
    commit++;
    q.shared->states[commit & 1] = s;
    q.shared->commit.store(commit, std::memory_order_release);
}

static void drop_pages(const qel_lq &q, uint32_t block) {
    (void)madvise(q.blocks + static_cast<size_t>(block) * qel_lq_block_bytes, qel_lq_block_bytes,
                  MADV_REMOVE);
}

// Moves the oldest free block from the chain to the stack.
static bool retire_block(const qel_lq &q, qel_lq_state &s, uint32_t &commit) {
    const uint32_t block = s.reclaim_block;
    const uint32_t following = q.next[block].load(std::memory_order_relaxed);
    if (following >= q.block_count || s.spare >= q.block_count)
        return false;
    q.spare[s.spare].store(block, std::memory_order_relaxed);
    const bool drop = s.spare >= lq_keep_resident;
    s.spare++;
    s.reclaim_block = following;
    s.reclaim_seq++;
    switch_state(q, s, commit);
    if (drop)
        drop_pages(q, block);
    return true;
}

enum class link_result { ok, none, broken };

// Links one more block to the end of the chain.
static link_result link_block(const qel_lq &q, qel_lq_state &s, uint32_t &commit) {
    const uint64_t head = q.shared->head.load(std::memory_order_acquire);
    uint32_t free_blocks = seq_of(head) - s.reclaim_seq;
    const uint32_t used = s.last_seq - seq_of(head) + 1;
    if (free_blocks >= q.block_count || used > q.block_count)
        return link_result::broken;
    uint32_t block = 0;
    if (free_blocks > 0) {
        block = s.reclaim_block;
        const uint32_t following = q.next[block].load(std::memory_order_relaxed);
        if (following >= q.block_count)
            return link_result::broken;
        s.reclaim_block = following;
        s.reclaim_seq++;
        free_blocks--;
    } else if (s.spare > 0) {
        block = q.spare[s.spare - 1].load(std::memory_order_relaxed);
        if (block >= q.block_count)
            return link_result::broken;
        s.spare--;
    } else if (s.fresh < q.block_count) {
        block = s.fresh++;
    } else {
        return link_result::none;
    }
    q.next[s.last_block].store(block, std::memory_order_relaxed);
    s.last_block = block;
    s.last_seq++;
    switch_state(q, s, commit);
    // Far more free than lately in use: a burst is over. Two per block taken, so that it ends before long.
    // The peak falls by half in some 3,000 blocks (25 MB): what comes and goes faster keeps its pages.
    s.peak -= s.peak / 4096;
    if (s.peak < used * 256)
        s.peak = used * 256;
    for (int i = 0; i < 2 && used + free_blocks > lq_keep_free + s.peak / 128; i++, free_blocks--) {
        if (!retire_block(q, s, commit))
            return link_result::broken;
    }
    return link_result::ok;
}

static void copy_in(const qel_lq &q, uint32_t block, uint32_t offset, const unsigned char *data, size_t bytes,
                    bool &sane) {
    while (bytes > 0) {
        if (offset == qel_lq_block_bytes) {
            block = q.next[block].load(std::memory_order_relaxed);
            if (block >= q.block_count) {
                sane = false;
                return;
            }
            offset = 0;
        }
        size_t piece = qel_lq_block_bytes - offset;
        if (piece > bytes)
            piece = bytes;
        memcpy(q.blocks + static_cast<size_t>(block) * qel_lq_block_bytes + offset, data, piece);
        data += piece;
        bytes -= piece;
        offset += static_cast<uint32_t>(piece);
    }
}

static qel_lq_put mark_broken(const qel_lq &q) {
    q.shared->broken.store(1, std::memory_order_seq_cst);
    return qel_lq_put::broken;
}

static qel_lq_put write_locked(const qel_lq &q, const qel_lq_meta &meta, const void *data) {
    qel_lq_shared &shared = *q.shared;
    if (shared.closed.load(std::memory_order_relaxed))
        return qel_lq_put::closed;
    if (shared.broken.load(std::memory_order_relaxed))
        return qel_lq_put::broken;
    uint32_t commit = shared.commit.load(std::memory_order_relaxed);
    qel_lq_state s = shared.states[commit & 1];
    if (!state_is_sane(q, s))
        return mark_broken(q);

    const uint32_t cost = qel_lq_cost(meta.size);
    const uint64_t limit = shared.rcvbuf.load(std::memory_order_relaxed) << (meta.importance & 7);
    if (s.cost - s.freed_seen + cost >= limit) {
        s.freed_seen = shared.freed.load(std::memory_order_relaxed);
        if (s.cost - s.freed_seen + cost >= limit)
            return qel_lq_put::full;
    }

    const uint64_t end = s.tail + record_bytes(meta.size);
    while (static_cast<int32_t>(seq_of(end) - s.last_seq) > 0) {
        switch (link_block(q, s, commit)) {
        case link_result::ok:
            break;
        case link_result::none:
            return qel_lq_put::full;
        case link_result::broken:
            return mark_broken(q);
        }
    }

    const qel_lq_header header = header_of(meta, s.tail);
    const uint32_t offset = offset_of(s.tail);
    memcpy(q.blocks + static_cast<size_t>(s.tail_block) * qel_lq_block_bytes + offset, &header,
           sizeof header);
    bool sane = true;
    copy_in(q, s.tail_block, offset + qel_lq_unit_bytes, static_cast<const unsigned char *>(data), meta.size,
            sane);
    for (uint32_t seq = seq_of(s.tail); sane && seq != seq_of(end); seq++) {
        s.tail_block = q.next[s.tail_block].load(std::memory_order_relaxed);
        sane = s.tail_block < q.block_count;
    }
    if (!sane)
        return mark_broken(q);
    s.tail = end;
    s.cost += cost;
    switch_state(q, s, commit);
    shared.tail.store(end, std::memory_order_seq_cst); // before qel_lq_sleeper(): see qel_lq_sleep_begin()
    return qel_lq_put::ok;
}

qel_lq_put qel_lq_write(const qel_lq &q, const qel_lq_meta &meta, const void *data,
                        qel_lq_patience patience) noexcept {
    QEL_ASSERT(meta.size <= qel_lq_size_max);
    if (!lock_queue(q, patience))
        return qel_lq_put::busy;
    const qel_lq_put result = write_locked(q, meta, data);
    unlock_queue(q);
    return result;
}

bool qel_lq_far_ahead(const qel_lq &q) noexcept {
    return q.shared->tail.load(std::memory_order_relaxed) - q.shared->head.load(std::memory_order_relaxed) >
           lq_far_ahead;
}

uint64_t qel_lq_sleeper(const qel_lq &q) noexcept {
    const uint64_t number = q.shared->sleep.load(std::memory_order_seq_cst);
    return number & 1 ? number : 0;
}

bool qel_lq_close(const qel_lq &q, qel_lq_patience patience) noexcept {
    if (!lock_queue(q, patience))
        return false;
    q.shared->closed.store(1, std::memory_order_relaxed);
    unlock_queue(q);
    return true;
}
void qel_lq_close_by_force(const qel_lq &q) noexcept { q.shared->closed.store(1, std::memory_order_relaxed); }

bool qel_lq_is_closed(const qel_lq &q) noexcept {
    return q.shared->closed.load(std::memory_order_relaxed) != 0;
}

void qel_lq_set_rcvbuf(const qel_lq &q, uint64_t bytes) noexcept {
    q.shared->rcvbuf.store(bytes, std::memory_order_relaxed);
}

// ---- reading --------------------------------------------------------------------------------------------

bool qel_lq_readable(const qel_lq &q, qel_lq_reader &r) noexcept {
    if (r.head != r.tail)
        return true;
    r.tail = q.shared->tail.load(std::memory_order_seq_cst);
    return r.head != r.tail || q.shared->broken.load(std::memory_order_relaxed) != 0;
}

static const unsigned char *record_at(const qel_lq &q, const qel_lq_reader &r) {
    return q.blocks + static_cast<size_t>(r.block) * qel_lq_block_bytes + offset_of(r.head);
}

qel_lq_get qel_lq_peek(const qel_lq &q, qel_lq_reader &r, qel_lq_meta &meta) noexcept {
    if (q.shared->broken.load(std::memory_order_relaxed))
        return qel_lq_get::broken;
    if (!qel_lq_readable(q, r))
        return qel_lq_get::empty;
    const uint64_t available = r.tail - r.head;
    if (available < qel_lq_unit_bytes || available % qel_lq_unit_bytes ||
        available > static_cast<uint64_t>(q.block_count) * qel_lq_block_bytes)
        return qel_lq_get::broken;
    qel_lq_header header;
    memcpy(&header, record_at(q, r), sizeof header);
    return qel_lq_parse(header, r.head, available, meta) ? qel_lq_get::broken : qel_lq_get::record;
}

bool qel_lq_copy(const qel_lq &q, const qel_lq_reader &r, const iovec *iov, size_t iov_count,
                 size_t bytes) noexcept {
    uint32_t block = r.block;
    uint32_t offset = offset_of(r.head) + qel_lq_unit_bytes;
    for (size_t i = 0; i < iov_count && bytes > 0; i++) {
        auto *to = static_cast<unsigned char *>(iov[i].iov_base);
        size_t room = iov[i].iov_len < bytes ? iov[i].iov_len : bytes;
        bytes -= room;
        while (room > 0) {
            if (offset == qel_lq_block_bytes) {
                block = q.next[block].load(std::memory_order_relaxed);
                if (block >= q.block_count)
                    return false;
                offset = 0;
            }
            size_t piece = qel_lq_block_bytes - offset;
            if (piece > room)
                piece = room;
            memcpy(to, q.blocks + static_cast<size_t>(block) * qel_lq_block_bytes + offset, piece);
            to += piece;
            room -= piece;
            offset += static_cast<uint32_t>(piece);
        }
    }
    return true;
}

bool qel_lq_consume(const qel_lq &q, qel_lq_reader &r, const qel_lq_meta &meta) noexcept {
    const uint64_t end = r.head + record_bytes(meta.size);
    for (uint32_t seq = seq_of(r.head); seq != seq_of(end); seq++) {
        r.block = q.next[r.block].load(std::memory_order_relaxed);
        if (r.block >= q.block_count) {
            r.block = 0;
            return false;
        }
    }
    r.head = end;
    r.freed += qel_lq_cost(meta.size);
    q.shared->freed.store(r.freed, std::memory_order_relaxed);
    q.shared->head.store(r.head, std::memory_order_release); // the blocks before it may be written again
    return true;
}

void qel_lq_restart(const qel_lq &q, qel_lq_reader &r, uint64_t rcvbuf_bytes) noexcept {
    // The lock word may be part of the damage. A living writer that is pushed aside here can damage the
    // queue again; it is then found and started anew again.
    const bool locked = lock_queue(q, qel_lq_patience::bounded);
    if (!locked)
        q.shared->lock.store(lock_word_of_self(), std::memory_order_relaxed);
    qel_lq_shared &shared = *q.shared;
    // Positions go on behind everything used so far, at the beginning of a block: no old record fits them.
    const uint64_t past = static_cast<uint64_t>(q.block_count + 1) * qel_lq_block_bytes;
    r.head = (r.head / qel_lq_block_bytes + 1) * qel_lq_block_bytes + past;
    r.tail = r.head;
    r.block = 0;
    qel_lq_state s{};
    s.tail = r.head;
    s.cost = s.freed_seen = r.freed;
    s.last_seq = s.reclaim_seq = seq_of(r.head);
    s.fresh = 1;
    uint32_t commit = shared.commit.load(std::memory_order_relaxed);
    switch_state(q, s, commit);
    shared.freed.store(r.freed, std::memory_order_relaxed);
    shared.head.store(r.head, std::memory_order_release);
    shared.tail.store(r.head, std::memory_order_seq_cst);
    shared.rcvbuf.store(rcvbuf_bytes, std::memory_order_relaxed);
    shared.closed.store(0, std::memory_order_relaxed); // its owner, who is here, has not closed it
    shared.broken.store(0, std::memory_order_relaxed);
    unlock_queue(q);
}

void qel_lq_sleep_begin(const qel_lq &q, qel_lq_reader &r) noexcept {
    r.sleep_number += 1 + (r.sleep_number & 1);
    // Partner: qel_lq_write() stores tail, then qel_lq_sleeper() loads this. One of the two sees the other.
    q.shared->sleep.store(r.sleep_number, std::memory_order_seq_cst);
}
void qel_lq_sleep_end(const qel_lq &q, qel_lq_reader &r) noexcept {
    r.sleep_number++;
    q.shared->sleep.store(r.sleep_number, std::memory_order_relaxed);
}

void qel_lq_trim(const qel_lq &q) noexcept {
    if (!lock_queue(q, qel_lq_patience::once))
        return;
    uint32_t commit = q.shared->commit.load(std::memory_order_relaxed);
    qel_lq_state s = q.shared->states[commit & 1];
    if (!q.shared->broken.load(std::memory_order_relaxed) && state_is_sane(q, s)) {
        const uint32_t free_blocks = seq_of(q.shared->head.load(std::memory_order_relaxed)) - s.reclaim_seq;
        for (uint32_t i = lq_keep_free; i < free_blocks && i < q.block_count; i++) {
            if (!retire_block(q, s, commit))
                break;
        }
    }
    unlock_queue(q);
}

bool qel_lq_reader_of_dead(const qel_lq &q, qel_lq_reader &r) noexcept {
    const uint32_t commit = q.shared->commit.load(std::memory_order_acquire);
    const qel_lq_state s = q.shared->states[commit & 1];
    r = qel_lq_reader{};
    r.head = q.shared->head.load(std::memory_order_acquire);
    r.tail = q.shared->tail.load(std::memory_order_acquire);
    r.freed = q.shared->freed.load(std::memory_order_relaxed);
    const uint32_t steps = seq_of(r.head) - s.reclaim_seq;
    if (!state_is_sane(q, s) || r.head % qel_lq_unit_bytes || steps >= q.block_count)
        return false;
    r.block = s.reclaim_block;
    for (uint32_t i = 0; i < steps; i++) {
        r.block = q.next[r.block].load(std::memory_order_relaxed);
        if (r.block >= q.block_count)
            return false;
    }
    return true;
}

qel_lq_usage qel_lq_get_usage(const qel_lq &q) noexcept {
    const qel_lq_state &s = q.shared->states[q.shared->commit.load(std::memory_order_acquire) & 1];
    return {s.fresh, s.spare};
}
