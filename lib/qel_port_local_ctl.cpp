// The control connection, the targets and the name cache of the local transport.
//
// The name cache is read without a lock: each entry is guarded by a sequence number (odd while it is
// written), all its fields are atomic, and writers hold the control mutex. A new session (connection to a
// fabric) makes all entries stale at once.
#include "qel_port_local_ctl.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "qel_cfg.h"

constexpr uint32_t ctl_retry_ms = 100;
constexpr uint32_t targets_per_chunk = 64;
constexpr uint32_t target_chunks = 64; // 4,096 targets
constexpr uint32_t cache_sets = 512;
constexpr uint32_t cache_ways = 4;

// ---- state ----------------------------------------------------------------------------------------------

struct ctl_state {
    int fd = -1;
    uint32_t number = 0;    // of the last request
    uint64_t failed_ms = 0; // when the last attempt to connect failed
    bool told = false;      // about the outage
    uint32_t node = 0;
    bool node_known = false;
    qel_list<qel_local_socket, offsetof(qel_local_socket, link)> sockets;
    uint32_t target_count = 0; // records made
    uint32_t mapped = 0;       // targets of other processes in use
    uint32_t clock_hand = 0;   // for eviction
    qel_hash<qel_local_target, offsetof(qel_local_target, by_ref)> targets;
};
static constinit qel_mutex g_ctl_mutex;
static constinit ctl_state g_ctl QEL_GUARDED_BY(g_ctl_mutex);
static constinit std::atomic<int> g_ctl_fd{-1};      // what poll() watches
static constinit std::atomic<uint32_t> g_session{1}; // raised when the connection ends or begins
static constinit std::atomic<const qel_fabric_page *> g_page{nullptr};

struct alignas(64) cache_entry {
    std::atomic<uint32_t> guard;
    std::atomic<uint32_t> session, gen;
    std::atomic<uint32_t> type, instance, domain;
    std::atomic<uint32_t> count; // 0: nobody has the name
    std::atomic<uint32_t> turn;
    std::atomic<uint32_t> index[qel_fabric_targets_max];
    std::atomic<uint32_t> ref[qel_fabric_targets_max];
};
static_assert(sizeof(cache_entry) == 64);
static constinit cache_entry g_cache[cache_sets][cache_ways];
static constinit std::atomic<qel_local_target *> g_chunks[target_chunks];

// Port numbers are cached like names, under a domain that no lookup has.
constexpr uint32_t cache_domain_port = 0xFFFFFFFF;
constexpr uint32_t cache_no_port = 0xFFFFFFFF; // as a count: the node is there, the port is not

static uint64_t now_ms() {
    timespec t{};
    (void)clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<uint64_t>(t.tv_sec) * 1000 + static_cast<uint64_t>(t.tv_nsec) / 1'000'000;
}

int qel_local_control_fd() noexcept { return g_ctl_fd.load(std::memory_order_relaxed); }
const qel_fabric_page *qel_local_page() noexcept { return g_page.load(std::memory_order_acquire); }

static uint32_t my_node() QEL_REQUIRES(g_ctl_mutex) {
    if (!g_ctl.node_known) {
        const int32_t id = qel_get_my_node_id();
        g_ctl.node_known = true; // also when there is none: the fabric is told once
        g_ctl.node = id >= 0 ? 0x01001000u + (static_cast<uint32_t>(id) & 0xFFF) : 0;
    }
    return g_ctl.node;
}
uint32_t qel_local_node() noexcept {
    qel_lock lock(g_ctl_mutex);
    return my_node();
}

// ---- targets --------------------------------------------------------------------------------------------

static qel_local_target *target_at(uint32_t index) {
    return g_chunks[index / targets_per_chunk].load(std::memory_order_acquire) + index % targets_per_chunk;
}

static uint32_t mapped_max() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY)
        return targets_per_chunk * target_chunks / 2;
    const rlim_t quarter = limit.rlim_cur / 4 + 8;
    return quarter < targets_per_chunk * target_chunks / 2 ? static_cast<uint32_t>(quarter)
                                                           : targets_per_chunk * target_chunks / 2;
}

// Gives the memory of a dying target back once nobody is in it. True: it is unused now.
static bool target_release(qel_local_target &t) QEL_REQUIRES(g_ctl_mutex) {
    if (t.users.load(std::memory_order_seq_cst) != 0)
        return false;
    qel_lq_unmap(t.q);
    if (!t.own) {
        ::close(t.event_fd);
        g_ctl.mapped--;
    }
    t.event_fd = -1;
    t.ref.store(0, std::memory_order_relaxed);
    t.state.store(qel_local_target::unused, std::memory_order_release);
    return true;
}
static void target_kill(qel_local_target &t) QEL_REQUIRES(g_ctl_mutex) {
    g_ctl.targets.remove(&t);
    t.state.store(qel_local_target::dying, std::memory_order_seq_cst);
    (void)target_release(t);
}

// Gives back what nobody needs: dying targets, and queues whose owner is gone.
static void targets_sweep() QEL_REQUIRES(g_ctl_mutex) {
    for (uint32_t i = 0; i < g_ctl.target_count; i++) {
        qel_local_target &t = *target_at(i);
        const uint32_t state = t.state.load(std::memory_order_relaxed);
        if (state == qel_local_target::dying)
            (void)target_release(t);
        else if (state == qel_local_target::live && !t.own && qel_lq_is_closed(t.q))
            target_kill(t);
    }
}
// Unmaps one target that was not used lately. False: there is none.
static bool targets_evict_one() QEL_REQUIRES(g_ctl_mutex) {
    for (uint32_t i = 0; i < 2 * g_ctl.target_count; i++) {
        g_ctl.clock_hand = (g_ctl.clock_hand + 1) % g_ctl.target_count;
        qel_local_target &t = *target_at(g_ctl.clock_hand);
        if (t.own || t.state.load(std::memory_order_relaxed) != qel_local_target::live)
            continue;
        if (t.recent.exchange(0, std::memory_order_relaxed) != 0)
            continue;
        target_kill(t);
        if (t.state.load(std::memory_order_relaxed) == qel_local_target::unused)
            return true;
    }
    return false;
}

static qel_local_target *target_new() QEL_REQUIRES(g_ctl_mutex) {
    for (uint32_t i = 0; i < g_ctl.target_count; i++) {
        qel_local_target &t = *target_at(i);
        if (t.state.load(std::memory_order_relaxed) == qel_local_target::unused)
            return &t;
    }
    if (g_ctl.target_count == targets_per_chunk * target_chunks)
        return nullptr;
    const uint32_t chunk = g_ctl.target_count / targets_per_chunk;
    if (g_ctl.target_count % targets_per_chunk == 0) {
        auto *memory =
            static_cast<qel_local_target *>(qel_zalloc(targets_per_chunk * sizeof(qel_local_target)));
        for (uint32_t i = 0; i < targets_per_chunk; i++)
            ::new (&memory[i]) qel_local_target{};
        g_chunks[chunk].store(memory, std::memory_order_release);
    }
    qel_local_target *t = target_at(g_ctl.target_count);
    t->index = g_ctl.target_count++;
    return t;
}

static void target_start(qel_local_target &t, uint32_t ref, uint32_t node, int event_fd, bool own)
    QEL_REQUIRES(g_ctl_mutex) {
    t.ref.store(ref, std::memory_order_relaxed);
    t.node.store(node, std::memory_order_relaxed);
    t.event_fd = event_fd;
    t.own = own;
    t.woken.store(0, std::memory_order_relaxed);
    t.recent.store(1, std::memory_order_relaxed);
    g_ctl.targets.insert(&t, ref);
    t.state.store(qel_local_target::live, std::memory_order_seq_cst);
}

void qel_local_target_wake(qel_local_target &t) noexcept {
    const uint64_t number = qel_lq_sleeper(t.q);
    if (number == 0 || t.woken.load(std::memory_order_relaxed) == number)
        return;
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written =
        ::write(t.event_fd, &one, sizeof one); // full: it is awake anyway
    t.woken.store(number, std::memory_order_relaxed);
}

// ---- the connection -------------------------------------------------------------------------------------

static void disconnect() QEL_REQUIRES(g_ctl_mutex) {
    g_ctl_fd.store(-1, std::memory_order_relaxed);
    g_session.fetch_add(1, std::memory_order_seq_cst); // every cached name is stale
    // Nobody tells when their owners end from now on, and a new fabric may give their numbers to others.
    for (uint32_t i = 0; i < g_ctl.target_count; i++) {
        qel_local_target &t = *target_at(i);
        if (!t.own && t.state.load(std::memory_order_relaxed) == qel_local_target::live)
            target_kill(t);
    }
    if (g_ctl.fd >= 0) {
        // Also for a thread that polls it and for a forked child's copy: the fabric is to see the end now.
        (void)::shutdown(g_ctl.fd, SHUT_RDWR);
        ::close(g_ctl.fd);
    }
    g_ctl.fd = -1;
}

// One request and its reply. 0, or an errno value: the fabric's, or EPIPE after the connection was given up.
static int transact(qel_fabric_request &request, const int *fds, size_t fd_count, qel_fabric_reply &reply,
                    int *reply_fds, size_t reply_fds_max, size_t &reply_fd_count) QEL_REQUIRES(g_ctl_mutex) {
    reply_fd_count = 0;
    if (g_ctl.fd < 0)
        return EPIPE;
    request.number = ++g_ctl.number;
    if (qel_fabric_send(g_ctl.fd, &request, sizeof request, fds, fd_count, 0) !=
        static_cast<ssize_t>(sizeof request)) {
        disconnect();
        return EPIPE;
    }
    std::byte raw[sizeof reply + 1];
    const ssize_t got =
        qel_fabric_recv(g_ctl.fd, raw, sizeof raw, reply_fds, reply_fds_max, reply_fd_count, 0);
    if (got < 0 && errno == EMFILE)
        return EMFILE; // the reply is gone with its descriptors; the connection is sound
    if (got <= 0 || !qel_fabric_decode(std::span(raw, static_cast<size_t>(got)), reply) ||
        reply.op != request.op || reply.number != request.number) {
        for (size_t i = 0; i < reply_fd_count; i++)
            ::close(reply_fds[i]);
        reply_fd_count = 0;
        disconnect();
        return EPIPE;
    }
    return reply.error;
}
static int transact(qel_fabric_request &request, qel_fabric_reply &reply) QEL_REQUIRES(g_ctl_mutex) {
    size_t none = 0;
    return transact(request, nullptr, 0, reply, nullptr, 0, none);
}

// Maps the page where the last one was, so that who reads it needs no care.
static bool map_page(int fd) QEL_REQUIRES(g_ctl_mutex) {
    struct stat st {};
    const int seals = fcntl(fd, F_GET_SEALS);
    if (fstat(fd, &st) != 0 || st.st_size != static_cast<off_t>(qel_fabric_page_bytes) || seals < 0 ||
        !(seals & F_SEAL_SHRINK))
        return false;
    const qel_fabric_page *old = g_page.load(std::memory_order_relaxed);
    void *at = mmap(const_cast<qel_fabric_page *>(old), qel_fabric_page_bytes, PROT_READ,
                    MAP_SHARED | (old ? MAP_FIXED : 0), fd, 0);
    if (at == MAP_FAILED)
        return false;
    const auto *page = static_cast<const qel_fabric_page *>(at);
    if (page->magic != qel_fabric_magic || page->version != qel_fabric_version)
        return false;
    g_page.store(page, std::memory_order_release);
    return true;
}

static int enroll_socket(qel_local_socket &s) QEL_REQUIRES(g_ctl_mutex) {
    qel_fabric_request request{};
    qel_fabric_reply reply{};
    request.op = static_cast<uint32_t>(qel_fabric_op::enroll);
    request.ref = s.ref.load(std::memory_order_relaxed);
    const int fds[2] = {s.queue_fd, s.fd};
    size_t none = 0;
    const int error = transact(request, fds, 2, reply, nullptr, 0, none);
    if (error)
        return error;
    if (reply.ref == 0) {
        disconnect();
        return EPIPE;
    }
    if (s.target && reply.ref != request.ref) { // somebody else has the old number
        g_ctl.targets.remove(s.target);
        s.target->ref.store(reply.ref, std::memory_order_relaxed);
        g_ctl.targets.insert(s.target, reply.ref);
    }
    s.ref.store(reply.ref, std::memory_order_relaxed);
    return 0;
}
static int bind_name(qel_local_socket &s, const qel_local_name &name) QEL_REQUIRES(g_ctl_mutex) {
    qel_fabric_request request{};
    qel_fabric_reply reply{};
    request.op = static_cast<uint32_t>(qel_fabric_op::bind);
    request.ref = s.ref.load(std::memory_order_relaxed);
    request.type = name.type;
    request.lower = name.lower;
    request.upper = name.upper;
    request.scope = name.scope;
    return transact(request, reply);
}

// Connects and brings every living socket and name back.
static int connect_now() QEL_REQUIRES(g_ctl_mutex) {
    qel_fd fd(qel_fabric_connect(qel_fabric_kind::process, my_node()));
    if (!fd)
        return errno;
    std::byte raw[sizeof(qel_fabric_reply) + 1];
    int page_fd = -1;
    size_t fd_count = 0;
    const ssize_t got = qel_fabric_recv(fd.fd, raw, sizeof raw, &page_fd, 1, fd_count, 0);
    qel_fd page(fd_count ? page_fd : -1);
    qel_fabric_reply reply{};
    if (got <= 0 || !qel_fabric_decode(std::span(raw, static_cast<size_t>(got)), reply))
        return got < 0 && errno == EMFILE ? EMFILE : ECONNREFUSED;
    if (reply.error)
        return reply.error;
    if (!page || !map_page(page.fd))
        return EPROTO;
    g_ctl.fd = fd.release();
    for (qel_local_socket &s : g_ctl.sockets) {
        int error = enroll_socket(s);
        for (qel_local_name *name = s.names.front(); name && !error; name = s.names.next(name))
            error = bind_name(s, *name);
        if (error) {
            disconnect();
            return error;
        }
        // A fabric that lost the connection took the owner for dead: the reader is to start the queue anew.
        if (qel_lq_is_closed(s.target->q)) {
            const uint64_t one = 1;
            [[maybe_unused]] const ssize_t written = ::write(s.fd, &one, sizeof one);
        }
    }
    g_session.fetch_add(1, std::memory_order_seq_cst);
    g_ctl_fd.store(g_ctl.fd, std::memory_order_relaxed);
    return 0;
}

static void tell(int error) QEL_REQUIRES(g_ctl_mutex) {
    if (g_ctl.told)
        return;
    g_ctl.told = true;
    char path[qel_fabric_dir_max];
    if (error == ENOENT || !qel_fabric_dir(path))
        fputs("qel: the local transport needs a directory: set QEL_FABRIC (or XDG_RUNTIME_DIR) and start "
              "qel-fabric\n",
              stderr);
    else
        fprintf(stderr, "qel: no fabric at \"%.200s\" (%s): start qel-fabric with the same QEL_FABRIC\n",
                path, strerror(error));
    errno = error;
}

static int connect_locked(bool at_once) QEL_REQUIRES(g_ctl_mutex) {
    if (g_ctl.fd >= 0) {
        pollfd look = {g_ctl.fd, 0, 0};
        if (!at_once || ::poll(&look, 1, 0) == 0)
            return 0;
        disconnect();
    }
    if (!at_once && g_ctl.failed_ms && now_ms() - g_ctl.failed_ms < ctl_retry_ms)
        return ECONNREFUSED;
    const int error = connect_now();
    if (error) {
        g_ctl.failed_ms = now_ms();
        tell(error);
    } else {
        g_ctl.failed_ms = 0;
        g_ctl.told = false;
    }
    return error;
}

int qel_local_connect() noexcept {
    qel_lock lock(g_ctl_mutex);
    return connect_locked(true);
}

void qel_local_check_connection() noexcept {
    qel_lock lock(g_ctl_mutex);
    if (g_ctl.fd >= 0) {
        pollfd look = {g_ctl.fd, 0, 0};
        if (::poll(&look, 1, 0) == 0)
            return;
        disconnect();
    }
    (void)connect_locked(false);
}

// ---- sockets and their names ----------------------------------------------------------------------------

int qel_local_enroll(qel_local_socket &s) noexcept {
    qel_lock lock(g_ctl_mutex);
    int error = connect_locked(false);
    if (error)
        return error;
    qel_local_target *t = target_new();
    if (!t)
        return ENFILE;
    if (qel_lq_map_file(t->q, s.queue_fd) != 0)
        return errno;
    qel_lq_init(t->q, s.rcvbuf.load(std::memory_order_relaxed));
    error = enroll_socket(s);
    if (error) {
        qel_lq_unmap(t->q);
        return error == EPIPE ? ECONNREFUSED : error;
    }
    s.node = my_node();
    s.target = t;
    target_start(*t, s.ref.load(std::memory_order_relaxed), s.node, s.fd, true);
    g_ctl.sockets.push_back(&s);
    return 0;
}

void qel_local_dismiss(qel_local_socket &s) noexcept {
    qel_lock lock(g_ctl_mutex);
    g_ctl.sockets.unlink(&s);
    qel_fabric_request request{};
    qel_fabric_reply reply{};
    request.op = static_cast<uint32_t>(qel_fabric_op::close);
    request.ref = s.ref.load(std::memory_order_relaxed);
    (void)transact(request, reply);
    while (qel_local_name *name = s.names.pop_front())
        qel_delete(name);
    // A thread of this process may be writing to the socket just now; what it wakes must not be closed
    // before.
    target_kill(*s.target);
    for (int i = 0; i < 60'000 && s.target->state.load(std::memory_order_relaxed) == qel_local_target::dying;
         i++) {
        qel_sleep_us(50);
        (void)target_release(*s.target);
    }
    s.target = nullptr;
}

int qel_local_bind(qel_local_socket &s, uint32_t type, uint32_t lower, uint32_t upper,
                   int32_t scope) noexcept {
    qel_lock lock(g_ctl_mutex);
    int error = connect_locked(false);
    if (error)
        return error;
    qel_local_name *name = qel_new<qel_local_name>();
    name->type = type;
    name->lower = lower;
    name->upper = upper;
    name->scope = scope;
    error = bind_name(s, *name);
    if (error)
        qel_delete(name);
    else
        s.names.push_back(name);
    return error == EPIPE ? ECONNREFUSED : error;
}

int qel_local_unbind(qel_local_socket &s, uint32_t type, uint32_t lower, uint32_t upper,
                     int32_t scope) noexcept {
    qel_lock lock(g_ctl_mutex);
    bool found = scope == 0;
    for (qel_local_name *name = s.names.front(); name;) {
        qel_local_name *following = s.names.next(name);
        if (scope == 0 ||
            (name->scope == scope && name->type == type && name->lower == lower && name->upper == upper)) {
            s.names.unlink(name);
            qel_delete(name);
            found = true;
            if (scope != 0)
                break;
        }
        name = following;
    }
    if (!found)
        return EINVAL;
    qel_fabric_request request{};
    qel_fabric_reply reply{};
    request.op = static_cast<uint32_t>(qel_fabric_op::unbind);
    request.ref = s.ref.load(std::memory_order_relaxed);
    request.type = type;
    request.lower = lower;
    request.upper = upper;
    request.scope = scope;
    const int error = transact(request, reply);
    return error == EPIPE ? 0 : error; // without a fabric the name is not published any more
}

// ---- names ----------------------------------------------------------------------------------------------

static uint32_t cache_hash(uint32_t type, uint32_t instance, uint32_t domain) {
    const uint64_t key = (static_cast<uint64_t>(type ^ domain << 7) << 32 | instance) * 0x9E3779B97F4A7C15u;
    return static_cast<uint32_t>(key >> 40) % cache_sets;
}
static uint32_t gen_now(uint32_t type, uint32_t instance, uint32_t domain) {
    const qel_fabric_page *page = qel_local_page();
    const uint32_t gen_type = domain == cache_domain_port ? qel_fabric_gen_type_port : type;
    const uint32_t gen_instance = domain == cache_domain_port ? type : instance; // of ports: the number
    return page->gens[qel_fabric_gen_index(gen_type, gen_instance)].load(std::memory_order_acquire);
}

enum class cache_result { miss, found, nobody, no_port };

// Every load of a field is an acquire: the guard's second load stays behind them.
static cache_result cache_find(uint32_t type, uint32_t instance, uint32_t domain, qel_local_where &where) {
    cache_entry *set = g_cache[cache_hash(type, instance, domain)];
    for (uint32_t way = 0; way < cache_ways; way++) {
        cache_entry &e = set[way];
        const uint32_t guard = e.guard.load(std::memory_order_acquire);
        if (guard & 1 || e.type.load(std::memory_order_acquire) != type ||
            e.instance.load(std::memory_order_acquire) != instance ||
            e.domain.load(std::memory_order_acquire) != domain)
            continue;
        const uint32_t session = e.session.load(std::memory_order_acquire);
        const uint32_t gen = e.gen.load(std::memory_order_acquire);
        const uint32_t count = e.count.load(std::memory_order_acquire);
        uint32_t pick = 0;
        if (count > 1 && count <= qel_fabric_targets_max)
            pick = e.turn.fetch_add(1, std::memory_order_acq_rel) % count;
        const uint32_t index = e.index[pick].load(std::memory_order_acquire);
        const uint32_t ref = e.ref[pick].load(std::memory_order_acquire);
        if (e.guard.load(std::memory_order_relaxed) != guard || guard == 0 ||
            session != g_session.load(std::memory_order_acquire) || gen != gen_now(type, instance, domain))
            return cache_result::miss;
        if (count == 0)
            return cache_result::nobody;
        if (count == cache_no_port)
            return cache_result::no_port;
        where.target = target_at(index);
        where.ref = ref;
        return cache_result::found;
    }
    return cache_result::miss;
}

static void cache_store(uint32_t type, uint32_t instance, uint32_t domain, uint32_t gen, uint32_t count,
                        qel_local_target *const *targets) QEL_REQUIRES(g_ctl_mutex) {
    cache_entry *set = g_cache[cache_hash(type, instance, domain)];
    cache_entry *e = nullptr;
    for (uint32_t way = 0; way < cache_ways && !e; way++) {
        cache_entry &x = set[way];
        if (x.type.load(std::memory_order_relaxed) == type &&
            x.instance.load(std::memory_order_relaxed) == instance &&
            x.domain.load(std::memory_order_relaxed) == domain)
            e = &x;
    }
    const uint32_t session = g_session.load(std::memory_order_relaxed);
    for (uint32_t way = 0; way < cache_ways && !e; way++) {
        if (set[way].session.load(std::memory_order_relaxed) != session)
            e = &set[way];
    }
    if (!e)
        e = &set[(type ^ instance) / cache_sets % cache_ways];
    const uint32_t guard = e->guard.load(std::memory_order_relaxed);
    e->guard.store(guard + 1, std::memory_order_relaxed);
    // Release: not seen before the odd guard.
    e->session.store(session, std::memory_order_release);
    e->gen.store(gen, std::memory_order_release);
    e->type.store(type, std::memory_order_release);
    e->instance.store(instance, std::memory_order_release);
    e->domain.store(domain, std::memory_order_release);
    e->count.store(count, std::memory_order_release);
    e->turn.store(1, std::memory_order_release); // whoever asked takes the first
    for (uint32_t i = 0; targets && i < count && i < qel_fabric_targets_max; i++) {
        e->index[i].store(targets[i]->index, std::memory_order_release);
        e->ref[i].store(targets[i]->ref.load(std::memory_order_relaxed), std::memory_order_release);
    }
    e->guard.store(guard + 2 ? guard + 2 : 2, std::memory_order_release);
}

static qel_local_target *target_known(uint32_t ref, uint32_t node) QEL_REQUIRES(g_ctl_mutex) {
    for (qel_local_target *t = g_ctl.targets.first(ref); t; t = g_ctl.targets.next(t)) {
        if (t->node.load(std::memory_order_relaxed) == node && (t->own || !qel_lq_is_closed(t->q)))
            return t;
    }
    return nullptr;
}

// Asks the fabric for a port number; the target is mapped if it was not.
static int target_get(uint32_t ref, uint32_t node, qel_local_target *&target, uint32_t &gen,
                      uint32_t &wait_ms) QEL_REQUIRES(g_ctl_mutex) {
    targets_sweep();
    while (g_ctl.mapped >= mapped_max() && targets_evict_one()) {
    }
    for (int attempt = 0;; attempt++) {
        qel_fabric_request request{};
        qel_fabric_reply reply{};
        request.op = static_cast<uint32_t>(qel_fabric_op::locate);
        request.ref = ref;
        request.node = node;
        int fds[2] = {-1, -1};
        size_t fd_count = 0;
        int error = transact(request, nullptr, 0, reply, fds, 2, fd_count);
        qel_fd queue_fd(fd_count > 0 ? fds[0] : -1);
        qel_fd event_fd(fd_count > 1 ? fds[1] : -1);
        gen = reply.gen;
        wait_ms = reply.ref;
        if (error == EMFILE && attempt < 8 && targets_evict_one())
            continue;
        if (error)
            return error;
        if (!event_fd) {
            disconnect();
            return EPIPE;
        }
        target = target_known(ref, node);
        if (target)
            return 0;
        qel_local_target *t = target_new();
        if (!t)
            return ENFILE;
        if (qel_lq_map_file(t->q, queue_fd.fd) != 0)
            return errno;
        target_start(*t, ref, node, event_fd.release(), false);
        g_ctl.mapped++;
        target = t;
        return 0;
    }
}

// What a sender sees of a failed question.
static int as_unreachable(int error) { return error == EAGAIN || error == ENOENT ? error : EHOSTUNREACH; }

static int resolve_slowly(uint32_t type, uint32_t instance, uint32_t domain, qel_local_where &where,
                          uint32_t &wait_ms) {
    qel_lock lock(g_ctl_mutex);
    for (int attempt = 0; attempt < 4; attempt++) {
        if (connect_locked(false) != 0)
            return EHOSTUNREACH;
        qel_fabric_request request{};
        qel_fabric_reply reply{};
        request.op = static_cast<uint32_t>(qel_fabric_op::resolve);
        request.type = type;
        request.lower = instance;
        request.node = domain;
        const int error = transact(request, reply);
        if (error == EPIPE)
            continue; // a fabric that has just been started anew
        wait_ms = reply.ref;
        if (error == EHOSTUNREACH) {
            cache_store(type, instance, domain, reply.gen, 0, nullptr);
            return error;
        }
        if (error)
            return as_unreachable(error);
        qel_local_target *targets[qel_fabric_targets_max];
        uint32_t count = 0;
        for (uint32_t i = 0; i < reply.count; i++) {
            uint32_t gen = 0;
            targets[count] = target_known(reply.targets[i].ref, reply.targets[i].node);
            if (targets[count] ||
                target_get(reply.targets[i].ref, reply.targets[i].node, targets[count], gen, wait_ms) == 0)
                count++;
        }
        if (count == 0)
            continue; // gone between the two questions
        if (!(reply.flags & qel_fabric_flag_once) && count == reply.count)
            cache_store(type, instance, domain, reply.gen, count, targets);
        where.target = targets[0];
        where.ref = targets[0]->ref.load(std::memory_order_relaxed);
        return 0;
    }
    return EHOSTUNREACH;
}

int qel_local_resolve(uint32_t type, uint32_t instance, uint32_t domain, bool anew, qel_local_where &where,
                      uint32_t &wait_ms) noexcept {
    switch (anew ? cache_result::miss : cache_find(type, instance, domain, where)) {
    case cache_result::found:
        return 0;
    case cache_result::nobody:
    case cache_result::no_port:
        return EHOSTUNREACH;
    case cache_result::miss:
        break;
    }
    return resolve_slowly(type, instance, domain, where, wait_ms);
}

int qel_local_locate(uint32_t ref, uint32_t node, bool anew, qel_local_where &where,
                     uint32_t &wait_ms) noexcept {
    switch (anew ? cache_result::miss : cache_find(ref, node, cache_domain_port, where)) {
    case cache_result::found:
        return 0;
    case cache_result::nobody:
        return EHOSTUNREACH;
    case cache_result::no_port:
        return ENOENT;
    case cache_result::miss:
        break;
    }
    qel_lock lock(g_ctl_mutex);
    if (connect_locked(false) != 0)
        return EHOSTUNREACH;
    qel_local_target *target = nullptr;
    uint32_t gen = 0;
    const int error = target_get(ref, node, target, gen, wait_ms);
    if (error == ENOENT || error == EHOSTUNREACH) {
        cache_store(ref, node, cache_domain_port, gen, error == ENOENT ? cache_no_port : 0, nullptr);
        return error;
    }
    if (error)
        return as_unreachable(error);
    cache_store(ref, node, cache_domain_port, gen, 1, &target);
    where.target = target;
    where.ref = ref;
    return 0;
}
