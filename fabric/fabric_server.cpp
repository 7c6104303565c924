#include "fabric_server.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fabric {

constexpr size_t requests_per_round = 64; // of one connection, so that nobody starves
constexpr int records_per_round = 512;    // of one closing socket
constexpr uint64_t lock_patience_ns = 1'000'000'000;
constexpr size_t events_per_connection_max = 1'000'000;
constexpr size_t events_max = 4'000'000;
constexpr size_t subscriptions_max = 65'535;
constexpr uint32_t publications_per_node_max = 65'535;
constexpr uint32_t reserved_types = 64;
constexpr uint32_t bump_each_max = 256; // a wider name raises all generations
constexpr uint64_t ms_ns = 1'000'000;

uint64_t monotonic_ns() {
    timespec t{};
    (void)clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<uint64_t>(t.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(t.tv_nsec);
}
uint32_t node_address(uint32_t number) { return 0x01001000u + (number & 0xFFF); }

// ---- timers ---------------------------------------------------------------------------------------------

uint64_t server::timer_at(uint64_t due_ns, clock_fun fun) {
    const uint64_t id = next_timer_++;
    timer_index_[id] = timers_.emplace(due_ns, std::pair{id, std::move(fun)});
    return id;
}
void server::timer_cancel(uint64_t id) {
    const auto at = timer_index_.find(id);
    if (at == timer_index_.end())
        return;
    timers_.erase(at->second);
    timer_index_.erase(at);
}
void server::timers_run() {
    while (!timers_.empty() && timers_.begin()->first <= now_ns_) {
        auto node = timers_.extract(timers_.begin());
        timer_index_.erase(node.mapped().first);
        node.mapped().second();
    }
}
int server::wait_ms() const {
    if (timers_.empty())
        return -1;
    const uint64_t due = timers_.begin()->first;
    if (due <= now_ns_)
        return 0;
    const uint64_t ms = (due - now_ns_ + ms_ns - 1) / ms_ns; // rounded up: never early
    return ms > 60'000 ? 60'000 : static_cast<int>(ms);
}

// ---- the page -------------------------------------------------------------------------------------------

// Writable here through a mapping made before the seal; nobody else gets a writable one.
bool server::make_page() {
    page_fd_.reset(memfd_create("qel-fabric", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!page_fd_ || ftruncate(page_fd_.fd, static_cast<off_t>(qel_fabric_page_bytes)) != 0)
        return false;
    void *at = mmap(nullptr, qel_fabric_page_bytes, PROT_READ | PROT_WRITE, MAP_SHARED, page_fd_.fd, 0);
    if (at == MAP_FAILED)
        return false;
    page_ = static_cast<qel_fabric_page *>(at);
    page_->magic = qel_fabric_magic;
    page_->version = qel_fabric_version;
    return fcntl(page_fd_.fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_FUTURE_WRITE | F_SEAL_SEAL) ==
           0;
}
void server::bump(uint32_t type, uint32_t lower, uint32_t upper) {
    if (upper - lower >= bump_each_max) {
        bump_all();
        return;
    }
    for (uint64_t i = lower; i <= upper; i++)
        page_->gens[qel_fabric_gen_index(type, static_cast<uint32_t>(i))].fetch_add(
            1, std::memory_order_release);
}
void server::bump_port(uint32_t ref) { bump(qel_fabric_gen_type_port, ref, ref); }
void server::bump_all() {
    for (auto &gen : page_->gens)
        gen.fetch_add(1, std::memory_order_release);
}

// ---- start and loop -------------------------------------------------------------------------------------

server::server() : names_([this](subscription &s, const tipc_event &e) { on_event(s, e); }) {
    uint32_t start = 0;
    if (getrandom(&start, sizeof start, GRND_NONBLOCK) != sizeof start)
        start = static_cast<uint32_t>(monotonic_ns() >> 10);
    next_ref_ = start | 1;
    now_ns_ = monotonic_ns();
    names_.publish(TIPC_TOP_SRV, TIPC_TOP_SRV, TIPC_TOP_SRV, TIPC_NODE_SCOPE, next_ref_, 0);
}

bool server::start(int listen_fd) {
    epoll_.reset(epoll_create1(EPOLL_CLOEXEC));
    listen_.reset(listen_fd);
    if (!epoll_ || !make_page()) {
        fprintf(stderr, "qel-fabric: cannot start: %s\n", strerror(errno));
        return false;
    }
    return true;
}

void server::watch(connection &c, bool out) {
    epoll_event e{};
    e.events = static_cast<uint32_t>(out ? EPOLLIN | EPOLLOUT : EPOLLIN);
    e.data.fd = c.fd;
    (void)epoll_ctl(epoll_.fd, EPOLL_CTL_MOD, c.fd, &e);
    c.wants_out = out;
}

void server::run(int signal_fd) {
    epoll_event e{};
    e.events = EPOLLIN;
    e.data.fd = signal_fd;
    (void)epoll_ctl(epoll_.fd, EPOLL_CTL_ADD, signal_fd, &e);
    e.data.fd = listen_.fd;
    (void)epoll_ctl(epoll_.fd, EPOLL_CTL_ADD, listen_.fd, &e);
    bool busy = false;
    for (;;) {
        epoll_event events[64];
        int timeout = wait_ms();
        if (busy)
            timeout = 0;
        else if (!jobs_.empty() && (timeout < 0 || timeout > 1))
            timeout = 1; // a lock is taken: try again
        const int count = epoll_wait(epoll_.fd, events, 64, timeout);
        now_ns_ = monotonic_ns();
        for (int i = 0; i < count; i++) {
            const int fd = events[i].data.fd;
            if (fd == signal_fd)
                return;
            if (fd == listen_.fd) {
                accept_all();
                continue;
            }
            const auto at = connections_.find(fd);
            if (at == connections_.end())
                continue; // taken down earlier in this round
            connection &c = *at->second;
            if (events[i].events & EPOLLOUT) {
                flush_events(c);
                flush_text(c);
            }
            if (!c.dead && (events[i].events & (EPOLLIN | EPOLLHUP | EPOLLERR)))
                readable(c);
            flush_dirty();
            if (c.dead)
                take_down(c);
        }
        timers_run();
        busy = jobs_run();
        flush_dirty();
        for (auto at = connections_.begin(); at != connections_.end();) {
            connection &c = *at->second;
            ++at;
            if (c.dead)
                take_down(c);
        }
    }
}

// ---- connections ----------------------------------------------------------------------------------------

void server::accept_all() {
    for (int i = 0; i < 64; i++) {
        const int fd = accept4(listen_.fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) {
            if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
                // Those who wait in the queue stay there; look again when a connection may have ended.
                (void)epoll_ctl(epoll_.fd, EPOLL_CTL_DEL, listen_.fd, nullptr);
                (void)timer_at(now_ns_ + 100 * ms_ns, [this] {
                    epoll_event e{};
                    e.events = EPOLLIN;
                    e.data.fd = listen_.fd;
                    (void)epoll_ctl(epoll_.fd, EPOLL_CTL_ADD, listen_.fd, &e);
                });
            }
            return;
        }
        ucred peer{};
        socklen_t len = sizeof peer;
        if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &len) != 0 ||
            (peer.uid != geteuid() && peer.uid != 0)) {
            ::close(fd);
            continue;
        }
        auto c = std::make_unique<connection>();
        c->fd = fd;
        c->self.conn = c.get();
        epoll_event e{};
        e.events = EPOLLIN;
        e.data.fd = fd;
        if (epoll_ctl(epoll_.fd, EPOLL_CTL_ADD, fd, &e) != 0) {
            ::close(fd);
            continue;
        }
        connections_[fd] = std::move(c);
    }
}

void server::readable(connection &c) {
    for (size_t i = 0; i < requests_per_round && !c.dead; i++) {
        std::byte data[4096] = {};
        int fds[2];
        size_t fd_count = 0;
        ssize_t got = 0;
        std::vector<qel_fd> owned;
        if (c.kind == static_cast<uint32_t>(qel_fabric_kind::topology)) {
            got = ::recv(c.fd, data, sizeof data, MSG_DONTWAIT); // a longer record: its head counts
        } else {
            got = qel_fabric_recv(c.fd, data, sizeof data, fds, 2, fd_count, MSG_DONTWAIT);
            owned = std::vector<qel_fd>(fd_count);
            for (size_t k = 0; k < fd_count; k++)
                owned[k].reset(fds[k]);
        }
        if (got < 0 && (errno == EAGAIN || errno == EINTR))
            return;
        qel_fabric_request cut{};
        if (got < 0 && errno == EMFILE && qel_fabric_decode(std::span(data, sizeof cut), cut)) {
            // Its descriptors found no room here: refuse this one, the process keeps what it has.
            qel_fabric_reply r{};
            r.op = cut.op;
            r.number = cut.number;
            r.error = ENFILE;
            reply(c, r);
            continue;
        }
        if (got <= 0) {
            c.dead = true;
            return;
        }
        const auto bytes = static_cast<size_t>(got);
        switch (c.kind) {
        case 0:
            hello(c, data, bytes);
            break;
        case static_cast<uint32_t>(qel_fabric_kind::process):
            process_request(c, data, bytes, owned);
            break;
        case static_cast<uint32_t>(qel_fabric_kind::topology):
            subscriber_request(c, data, bytes);
            break;
        default: {
            const std::string line(reinterpret_cast<const char *>(data), bytes);
            std::string answer;
            qel_fabric_reply r{};
            r.error = command(line, answer) ? 0 : EINVAL;
            reply(c, r);
            for (size_t at = 0; at < answer.size(); at += 4096)
                c.text.push_back(answer.substr(at, 4096));
            c.text.emplace_back(); // the end
            flush_text(c);
            return;
        }
        }
    }
}

void server::hello(connection &c, const std::byte *data, size_t bytes) {
    qel_fabric_hello h{};
    qel_fabric_reply r{};
    if (!qel_fabric_decode(std::span(data, bytes), h)) {
        r.error = EPROTO;
        reply(c, r);
        c.dead = true;
        return;
    }
    c.kind = h.kind;
    c.node = h.node;
    c.pid = h.pid;
    if (c.kind == static_cast<uint32_t>(qel_fabric_kind::process)) {
        node_up(c.node);
        flush_dirty();
        reply(c, r, &page_fd_.fd, 1);
    } else if (c.kind == static_cast<uint32_t>(qel_fabric_kind::topology)) {
        reply(c, r);
    }
}

// A client that does not take its replies is not one of ours.
void server::reply(connection &c, const qel_fabric_reply &r, const int *fds, size_t fd_count) {
    if (c.fd >= 0 && qel_fabric_send(c.fd, &r, sizeof r, fds, fd_count, MSG_DONTWAIT) != sizeof r)
        c.dead = true;
}

void server::take_down(connection &c) {
    const int fd = c.fd;
    for (auto &[bytes, s] : c.subscriptions) {
        timer_cancel(s->timer);
        names_.unsubscribe(s);
    }
    c.subscriptions.clear();
    timer_cancel(c.event_timer);
    events_waiting_ -= c.events.size();
    c.events.clear();
    dirty_.erase(std::remove(dirty_.begin(), dirty_.end(), &c), dirty_.end());
    (void)epoll_ctl(epoll_.fd, EPOLL_CTL_DEL, fd, nullptr);
    // Unread subscriptions would turn the end of the connection into an error for the other side.
    std::byte rest[4096];
    for (int i = 0; i < 1024 && ::recv(fd, rest, sizeof rest, MSG_DONTWAIT) > 0; i++) {
    }
    ::close(fd);
    c.fd = -1;
    auto node = connections_.extract(fd);
    if (c.kind != static_cast<uint32_t>(qel_fabric_kind::process))
        return;
    if (c.endpoints.empty()) {
        node_down(c.node);
        return;
    }
    zombies_.push_back(std::move(node.mapped()));
    const std::set<uint32_t> refs = c.endpoints;
    for (const uint32_t ref : refs)
        close_endpoint(*endpoints_[ref], false, 0);
}

// ---- requests of processes ------------------------------------------------------------------------------

endpoint *server::endpoint_of(connection &c, uint32_t ref) {
    const auto at = endpoints_.find(ref);
    return at != endpoints_.end() && at->second->owner == &c && !at->second->closing ? at->second.get()
                                                                                     : nullptr;
}

void server::process_request(connection &c, const std::byte *data, size_t bytes, std::vector<qel_fd> &fds) {
    qel_fabric_request q{};
    if (!qel_fabric_decode(std::span(data, bytes), q)) {
        c.dead = true;
        return;
    }
    qel_fabric_reply r{};
    r.op = q.op;
    r.number = q.number;
    int reply_fds[2];
    size_t fd_count = 0;
    switch (static_cast<qel_fabric_op>(q.op)) {
    case qel_fabric_op::hello:
        c.dead = true;
        return;
    case qel_fabric_op::enroll:
        r.error = enroll(c, q, fds, r);
        break;
    case qel_fabric_op::bind:
        r.error = bind(c, q);
        break;
    case qel_fabric_op::unbind:
        r.error = unbind(c, q);
        break;
    case qel_fabric_op::resolve:
        r.error = resolve(c, q, r);
        break;
    case qel_fabric_op::locate:
        r.error = locate(c, q, r, reply_fds, fd_count);
        break;
    case qel_fabric_op::close: {
        endpoint *e = endpoint_of(c, q.ref);
        if (e) {
            close_endpoint(*e, true, q.number); // answered when it is done
            return;
        }
        r.error = ENOENT;
        break;
    }
    }
    flush_dirty();
    reply(c, r, reply_fds, fd_count);
}

static bool is_eventfd(int fd) {
    char link[64], target[64];
    (void)snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t len = readlink(link, target, sizeof target - 1);
    if (len <= 0)
        return false;
    target[len] = 0;
    return !strcmp(target, "anon_inode:[eventfd]");
}

int server::enroll(connection &c, const qel_fabric_request &q, std::vector<qel_fd> &fds,
                   qel_fabric_reply &r) {
    if (fds.size() != 2 || !is_eventfd(fds[1].fd))
        return EINVAL;
    qel_lq look; // maps only what is safe to touch
    if (qel_lq_map_file(look, fds[0].fd) != 0)
        return EINVAL;
    qel_lq_unmap(look);
    struct stat file {};
    if (fstat(fds[0].fd, &file) != 0)
        return EINVAL;
    for (const auto &[number, other] : endpoints_)
        if (other->queue_inode == file.st_ino)
            return EAGAIN; // its owner's connection was lost, it is closed first; or it is somebody else's
    (void)fcntl(fds[1].fd, F_SETFL, O_NONBLOCK);
    uint32_t ref = q.ref;
    if (ref == 0 || endpoints_.contains(ref)) {
        do {
            ref = ++next_ref_;
        } while (ref == 0 || endpoints_.contains(ref));
    }
    auto e = std::make_unique<endpoint>();
    e->ref = ref;
    e->node = c.node;
    e->owner = &c;
    e->queue_fd.reset(fds[0].release());
    e->queue_inode = file.st_ino;
    e->event_fd.reset(fds[1].release());
    endpoints_[ref] = std::move(e);
    c.endpoints.insert(ref);
    bump_port(ref);
    r.ref = ref;
    return 0;
}

void server::publish(endpoint &e, bound_name &n) {
    n.timer = 0;
    n.published = names_.publish(n.type, n.lower, n.upper, n.scope, e.ref, e.node);
    bump(n.type, n.lower, n.upper);
}
void server::unpublish(bound_name &n) {
    timer_cancel(n.timer);
    if (!n.published)
        return;
    names_.withdraw(n.published);
    n.published = nullptr;
    bump(n.type, n.lower, n.upper);
}

int server::bind(connection &c, const qel_fabric_request &q) {
    endpoint *e = endpoint_of(c, q.ref);
    if (!e || q.lower > q.upper)
        return EINVAL;
    if (q.type < reserved_types)
        return EACCES;
    uint32_t &count = node_publications_[e->node];
    if (count >= publications_per_node_max)
        return EINVAL; // as the kernel
    count++;
    auto n = std::make_unique<bound_name>();
    n->type = q.type;
    n->lower = q.lower;
    n->upper = q.upper;
    n->scope = q.scope == TIPC_NODE_SCOPE ? TIPC_NODE_SCOPE : TIPC_CLUSTER_SCOPE;
    bound_name *raw = n.get();
    e->names.push_back(std::move(n));
    if (name_delay_ns_)
        raw->timer = timer_at(now_ns_ + name_delay_ns_, [this, e, raw] { publish(*e, *raw); });
    else
        publish(*e, *raw);
    return 0;
}

int server::unbind(connection &c, const qel_fabric_request &q) {
    endpoint *e = endpoint_of(c, q.ref);
    if (!e)
        return EINVAL;
    bool found = q.scope == 0;
    for (auto at = e->names.begin(); at != e->names.end();) {
        bound_name &n = **at;
        if (q.scope != 0 &&
            (n.type != q.type || n.lower != q.lower || n.upper != q.upper || n.scope != q.scope)) {
            ++at;
            continue;
        }
        unpublish(n);
        node_publications_[e->node]--;
        at = e->names.erase(at);
        found = true;
        if (q.scope != 0)
            break;
    }
    return found ? 0 : EINVAL;
}

uint32_t server::congested_ms(uint32_t from, uint32_t to) const {
    const auto at = congested_until_ns_.find(to);
    if (from == to || at == congested_until_ns_.end() || at->second <= now_ns_)
        return 0;
    return static_cast<uint32_t>((at->second - now_ns_) / ms_ns) + 1;
}

int server::resolve(connection &c, const qel_fabric_request &q, qel_fabric_reply &r) {
    r.gen = page_->gens[qel_fabric_gen_index(q.type, q.lower)].load(std::memory_order_relaxed);
    std::vector<publication *> found;
    if (q.type >= reserved_types) // the others are the fabric's own and have no queue
        names_.lookup(q.type, q.lower, q.node, c.node, found);
    if (found.empty())
        return EHOSTUNREACH;
    r.ref = congested_ms(c.node, found[0]->node);
    if (r.ref)
        return EAGAIN;
    r.count = static_cast<uint32_t>(found.size());
    if (found.size() > qel_fabric_targets_max) {
        r.count = 1;
        r.flags = qel_fabric_flag_once;
    }
    for (uint32_t i = 0; i < r.count; i++)
        r.targets[i] = {found[i]->ref, found[i]->node};
    return 0;
}

int server::locate(connection &c, const qel_fabric_request &q, qel_fabric_reply &r, int (&fds)[2],
                   size_t &fd_count) {
    r.gen =
        page_->gens[qel_fabric_gen_index(qel_fabric_gen_type_port, q.ref)].load(std::memory_order_relaxed);
    const auto node = node_processes_.find(q.node);
    if (node == node_processes_.end() || !names_.reachable(c.node, q.node))
        return EHOSTUNREACH;
    r.ref = congested_ms(c.node, q.node);
    if (r.ref)
        return EAGAIN;
    const auto at = endpoints_.find(q.ref);
    if (at == endpoints_.end() || at->second->closing || at->second->node != q.node)
        return ENOENT;
    r.count = 1;
    r.targets[0] = {q.ref, q.node};
    fds[0] = at->second->queue_fd.fd;
    fds[1] = at->second->event_fd.fd;
    fd_count = 2;
    return 0;
}

// ---- the end of a socket --------------------------------------------------------------------------------

void server::close_endpoint(endpoint &e, bool asked, uint32_t request_number) {
    if (e.closing) {
        return; // asked for it, then died
    }
    e.closing = true;
    for (auto &n : e.names) {
        timer_cancel(n->timer);
        if (n->published) {
            n->published->leaving = true;
            bump(n->type, n->lower, n->upper);
        }
    }
    bump_port(e.ref);
    auto job = std::make_unique<closing_job>();
    job->e = &e;
    job->give_up_ns = now_ns_ + lock_patience_ns;
    job->asked = asked;
    job->request_number = request_number;
    jobs_.push_back(std::move(job));
}

bool server::map_queue(endpoint &e) {
    if (e.q.shared)
        return true;
    if (qel_lq_map_file(e.q, e.queue_fd.fd) != 0)
        return false;
    mapped_.push_back(&e);
    return true;
}

// One unread message goes back to its sender, if it wants it back and still lives.
server::progress server::return_message(closing_job &job, const qel_lq_meta &meta) {
    if (meta.droppable || meta.code)
        return progress::more;
    const auto at = endpoints_.find(meta.src_ref);
    if (at == endpoints_.end() || at->second->closing || at->second->node != meta.src_node ||
        !map_queue(*at->second))
        return progress::more;
    if (lose_return_ && ++returns_ % lose_return_ == 0)
        return progress::more;
    unsigned char data[qel_lq_returned_max];
    qel_lq_meta back = meta;
    back.size = meta.size < sizeof data ? meta.size : static_cast<uint32_t>(sizeof data);
    const iovec to = {data, sizeof data};
    if (!qel_lq_copy(job.e->q, job.reader, &to, 1, back.size))
        return progress::done; // a damaged queue has nothing more to give
    back.src_ref = job.e->ref;
    back.src_node = job.e->node;
    back.importance = 4;
    back.code = TIPC_ERR_NO_PORT;
    back.droppable = true;
    endpoint &sender = *at->second;
    if (qel_lq_write(sender.q, back, data, qel_lq_patience::once) == qel_lq_put::busy) {
        // Whoever keeps its lock is waited for once, not once for every message.
        if (!sender.busy_since_ns)
            sender.busy_since_ns = now_ns_;
        if (now_ns_ - sender.busy_since_ns >= lock_patience_ns)
            return progress::more; // lost
        if (lose_return_)
            returns_--;
        return progress::wait;
    }
    sender.busy_since_ns = 0;
    const uint64_t sleeper = qel_lq_sleeper(sender.q);
    pollfd room = {sender.event_fd.fd, POLLOUT, 0};
    if (sleeper && sleeper != sender.woken && ::poll(&room, 1, 0) == 1 && (room.revents & POLLOUT)) {
        const uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = ::write(sender.event_fd.fd, &one, sizeof one);
        sender.woken = sleeper;
    }
    return progress::more;
}

server::progress server::job_step(closing_job &job) {
    endpoint &e = *job.e;
    if (!map_queue(e))
        return progress::done;
    if (!job.closed) {
        if (!qel_lq_close(e.q, qel_lq_patience::once)) {
            if (now_ns_ < job.give_up_ns)
                return progress::wait;
            qel_lq_close_by_force(e.q);
        }
        job.closed = true;
        if (!qel_lq_reader_of_dead(e.q, job.reader))
            return progress::done;
    }
    for (int i = 0; i < records_per_round; i++) {
        qel_lq_meta meta{};
        if (job.reader.head == job.reader.tail) // no further: others may still write to its memory
            return progress::done;
        if (qel_lq_peek(e.q, job.reader, meta) != qel_lq_get::record)
            return progress::done;
        const progress p = return_message(job, meta);
        if (p != progress::more)
            return p;
        if (!qel_lq_consume(e.q, job.reader, meta))
            return progress::done;
    }
    return progress::more;
}

void server::job_end(closing_job &job) {
    endpoint &e = *job.e;
    for (auto at = e.names.rbegin(); at != e.names.rend(); ++at) { // the last one bound goes first
        unpublish(**at);
        node_publications_[e.node]--;
    }
    connection *owner = e.owner;
    owner->endpoints.erase(e.ref);
    flush_dirty();
    if (job.asked) {
        qel_fabric_reply r{};
        r.op = static_cast<uint32_t>(qel_fabric_op::close);
        r.number = job.request_number;
        reply(*owner, r);
    }
    if (e.q.shared) {
        mapped_.erase(std::remove(mapped_.begin(), mapped_.end(), &e), mapped_.end());
        qel_lq_unmap(e.q);
    }
    bump_port(e.ref);
    endpoints_.erase(e.ref);
    if (owner->fd < 0 && owner->endpoints.empty()) {
        node_down(owner->node);
        zombies_.erase(std::find_if(zombies_.begin(), zombies_.end(),
                                    [owner](const auto &z) { return z.get() == owner; }));
    }
}

bool server::jobs_run() {
    bool more = false;
    for (size_t i = 0; i < jobs_.size();) {
        const progress p = job_step(*jobs_[i]);
        if (p != progress::done) {
            more |= p == progress::more;
            i++;
            continue;
        }
        const std::unique_ptr<closing_job> job = std::move(jobs_[i]);
        jobs_.erase(jobs_.begin() + static_cast<std::ptrdiff_t>(i));
        job_end(*job);
    }
    if (jobs_.empty()) {
        for (endpoint *e : mapped_)
            qel_lq_unmap(e->q);
        mapped_.clear();
    }
    return more;
}

void server::node_up(uint32_t node) {
    if (node_processes_[node]++ > 0)
        return;
    if (node)
        node_names_[node] = names_.publish(TIPC_NODE_STATE, node, node, TIPC_CLUSTER_SCOPE, 0, node);
    bump_all(); // whether a port number there is unreachable or gives messages back
}
void server::node_down(uint32_t node) {
    if (--node_processes_[node] > 0)
        return;
    node_processes_.erase(node);
    const auto at = node_names_.find(node);
    if (at != node_names_.end()) {
        names_.withdraw(at->second);
        node_names_.erase(at);
    }
    bump_all();
}

// ---- topology -------------------------------------------------------------------------------------------

static std::string bytes_of(const tipc_subscr &record) {
    return {reinterpret_cast<const char *>(&record), sizeof record};
}

void server::subscriber_request(connection &c, const std::byte *data, size_t bytes) {
    tipc_subscr record{};
    if (bytes < sizeof record) {
        c.dead = true;
        return;
    }
    memcpy(&record, data, sizeof record);
    auto s = std::make_unique<subscription>();
    s->owner = &c.self;
    s->viewer = c.node;
    switch (read_subscr(record, *s)) {
    case subscr_kind::illegal:
        c.dead = true;
        return;
    case subscr_kind::cancel: {
        const auto at = c.subscriptions.find(bytes_of(s->record));
        if (at != c.subscriptions.end())
            end_subscription(at->second);
        return;
    }
    case subscr_kind::subscribe:
        break;
    }
    if (names_.subscriptions() >= subscriptions_max) {
        c.dead = true;
        return;
    }
    subscription *raw = names_.subscribe(std::move(s));
    c.subscriptions.emplace(bytes_of(raw->record), raw);
    if (raw->timeout != static_cast<uint32_t>(TIPC_WAIT_FOREVER))
        raw->timer = timer_at(monotonic_ns() + raw->timeout * ms_ns, [this, raw] {
            raw->timer = 0;
            on_event(*raw, make_event(*raw, TIPC_SUBSCR_TIMEOUT, raw->lower, raw->upper, 0, 0));
            end_subscription(raw);
        });
}

void server::end_subscription(subscription *s) {
    connection &c = *s->owner->conn;
    const auto [from, to] = c.subscriptions.equal_range(bytes_of(s->record));
    for (auto at = from; at != to; ++at) {
        if (at->second == s) {
            c.subscriptions.erase(at);
            break;
        }
    }
    timer_cancel(s->timer);
    names_.unsubscribe(s);
}

// Only queued here: the caller is walking the table.
void server::on_event(subscription &s, const tipc_event &event) {
    connection &c = *s.owner->conn;
    c.events.push_back({event_delay_ns_ ? now_ns_ + event_delay_ns_ : 0, event});
    events_waiting_++;
    if (!c.dirty) {
        c.dirty = true;
        dirty_.push_back(&c);
    }
}

void server::flush_events(connection &c) {
    if (c.dead || c.fd < 0)
        return;
    bool sent = false, blocked = false;
    while (!c.events.empty() && !blocked) {
        const pending_event &p = c.events.front();
        if (p.due_ns > now_ns_) {
            if (!c.event_timer)
                c.event_timer = timer_at(p.due_ns, [this, &c] {
                    c.event_timer = 0;
                    flush_events(c);
                });
            break;
        }
        const ssize_t got = ::send(c.fd, &p.event, sizeof p.event, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (got == sizeof p.event) {
            c.events.pop_front();
            events_waiting_--;
            sent = true;
        } else if (got < 0 && (errno == EAGAIN || errno == ENOBUFS || errno == EINTR)) {
            blocked = true;
        } else {
            c.dead = true;
            break;
        }
    }
    if (sent) // after the send: whoever sees the number finds the event
        page_->event_count.fetch_add(1, std::memory_order_release);
    if (c.events.size() > events_per_connection_max)
        c.dead = true;
    if (events_waiting_ > events_max) // at the cost of the one that reads least
        std::max_element(connections_.begin(), connections_.end(), [](const auto &a, const auto &b) {
            return a.second->events.size() < b.second->events.size();
        })->second->dead = true;
    if (blocked != c.wants_out)
        watch(c, blocked);
}

void server::flush_dirty() {
    std::vector<connection *> list;
    list.swap(dirty_);
    for (connection *c : list) {
        c->dirty = false;
        flush_events(*c);
    }
}

void server::drop_topology() {
    for (auto &[fd, c] : connections_)
        if (c->kind == static_cast<uint32_t>(qel_fabric_kind::topology))
            c->dead = true;
    page_->event_count.fetch_add(1, std::memory_order_release);
}

// ---- control --------------------------------------------------------------------------------------------

// The empty text at the end closes the connection.
void server::flush_text(connection &c) {
    bool blocked = false;
    while (!c.text.empty() && !c.dead && !blocked) {
        const std::string &text = c.text.front();
        if (text.empty()) {
            c.dead = true;
            return;
        }
        const ssize_t got = ::send(c.fd, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (got == static_cast<ssize_t>(text.size()))
            c.text.pop_front();
        else if (got < 0 && errno == EAGAIN)
            blocked = true;
        else
            c.dead = true;
    }
    if (!c.dead && c.kind == static_cast<uint32_t>(qel_fabric_kind::control) && blocked != c.wants_out)
        watch(c, blocked);
}

std::string server::list() const {
    std::string out;
    char line[160];
    for (const auto &[node, processes] : node_processes_) {
        (void)snprintf(line, sizeof line, "node %u (%08x): %u processes\n", node & 0xFFF, node, processes);
        out += line;
    }
    names_.for_each([&](const publication &p) {
        uint32_t pid = 0;
        const auto at = endpoints_.find(p.ref);
        if (at != endpoints_.end())
            pid = at->second->owner->pid;
        (void)snprintf(line, sizeof line, "name {%u, %u, %u} scope %s node %x port %u pid %u\n", p.type,
                       p.lower, p.upper, p.scope == TIPC_NODE_SCOPE ? "node" : "cluster", p.node, p.ref, pid);
        out += line;
    });
    for (const auto &[ref, e] : endpoints_) {
        (void)snprintf(line, sizeof line, "socket %u node %x pid %u names %zu%s\n", ref, e->node,
                       e->owner->pid, e->names.size(), e->closing ? " closing" : "");
        out += line;
    }
    size_t topology = 0;
    for (const auto &[fd, c] : connections_)
        topology += c->kind == static_cast<uint32_t>(qel_fabric_kind::topology);
    (void)snprintf(line, sizeof line, "topology: %zu connections, %zu subscriptions, %zu events waiting\n",
                   topology, names_.subscriptions(), events_waiting_);
    out += line;
    return out;
}

bool server::command(const std::string &line, std::string &answer) {
    char word[32] = "";
    unsigned long a = 0, b = 0;
    const int fields = sscanf(line.c_str(), " %31[a-z-] %lu %lu", word, &a, &b);
    const std::string name = fields >= 1 ? word : "";
    constexpr unsigned long ms_max = 3'600'000;
    answer.clear();
    if (name == "list" && fields == 1) {
        answer = list();
        return true;
    }
    if (name == "drop-topology" && fields == 1) {
        drop_topology();
        return true;
    }
    if (name == "event-delay" && fields == 2 && a <= ms_max) {
        event_delay_ns_ = a * ms_ns;
        return true;
    }
    if (name == "name-delay" && fields == 2 && a <= ms_max) {
        name_delay_ns_ = a * ms_ns;
        return true;
    }
    if (name == "lose-return" && fields == 2 && a <= UINT32_MAX) {
        lose_return_ = static_cast<uint32_t>(a);
        returns_ = 0;
        page_->lose_return.store(lose_return_, std::memory_order_release);
        return true;
    }
    if (name == "congest" && fields == 3 && a < 4096 && b <= ms_max) {
        const uint32_t node = node_address(static_cast<uint32_t>(a));
        congested_until_ns_[node] = now_ns_ + b * ms_ns;
        bump_all();
        return true;
    }
    if (name == "cut" && fields == 3 && a < 4096 && b <= ms_max) {
        const uint32_t node = node_address(static_cast<uint32_t>(a));
        timer_cancel(cut_timers_[node]);
        names_.isolate(node, true);
        bump_all();
        cut_timers_[node] = timer_at(now_ns_ + b * ms_ns, [this, node] {
            cut_timers_.erase(node);
            names_.isolate(node, false);
            bump_all();
        });
        return true;
    }
    if (name == "clear" && fields == 1) {
        event_delay_ns_ = name_delay_ns_ = 0;
        lose_return_ = 0;
        page_->lose_return.store(0, std::memory_order_release);
        congested_until_ns_.clear();
        for (const auto &[node, timer] : cut_timers_) {
            timer_cancel(timer);
            names_.isolate(node, false);
        }
        cut_timers_.clear();
        bump_all();
        return true;
    }
    answer = "unknown command or wrong arguments: \"" + line.substr(0, 200) + "\"\n";
    return false;
}

} // namespace fabric
