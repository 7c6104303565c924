#include "qel_fake_port.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <map>
#include <memory>
#include <set>
#include <sys/eventfd.h>
#include <unistd.h>

#include "qel_fake_time.h"

namespace qel_fake {
namespace {

constexpr uint32_t name_type = 2303;

struct record_in { // one recv()
    bytes data;
    int err = 0;
    bool end = false;
};
struct subscription {
    tipc_subscr s{};
    int64_t due = qel_time::never;
};
struct sock {
    int type = 0;
    bool topology = false;
    unsigned connected = 0; // order of connecting
    std::deque<datagram> datagrams;
    std::deque<record_in> records;
    std::vector<subscription> subscriptions;
    bool ended = false;

    bool readable() const { return !datagrams.empty() || !records.empty() || ended; }
};
struct fault {
    unsigned first, last; // call numbers
    int err;
    long cut = -1; // short send
};
struct to_fault {
    uint32_t app, node;
    int err;
    unsigned times;
};

// Never destroyed: the library's thread outlives main(). Guarded by the lock of qel_time.
struct state {
    std::map<int, sock> socks;
    std::vector<call> calls;
    size_t taken = 0; // of calls, by take_sent()
    unsigned counts[op_count] = {};
    std::vector<fault> faults[op_count];
    std::vector<to_fault> to_faults;
    std::map<std::pair<int, int>, int> option_errors;
    std::function<void(const call &)> hook;
    std::multiset<std::pair<uint32_t, uint32_t>> published; // application, node
    std::deque<int> poll_errors;
    unsigned connections = 0;
    unsigned pollers = 0;
    std::set<int> polled; // what the waiting polls look at
    bool automatic = true;
};
std::unique_ptr<state> &holder() {
    static auto &the = *new std::unique_ptr<state>(new state);
    return the;
}
state &st() { return *holder(); }
const char poll_key = 0;

struct guard {
    guard() { qel_time::lock(); }
    ~guard() { qel_time::unlock(); }
    guard(const guard &) = delete;
    guard &operator=(const guard &) = delete;
};

void readable_changed() {
    qel_time::wake(&poll_key);
    qel_time::changed();
}

// The fault of this call, or null.
const fault *called(op what) {
    const auto o = static_cast<size_t>(what);
    const unsigned number = ++st().counts[o];
    for (const fault &f : st().faults[o])
        if (number >= f.first && number <= f.last)
            return &f;
    return nullptr;
}

long finish(call &c, long result, int err) {
    c.result = result;
    c.err = result < 0 ? err : 0;
    c.at_ms = qel_time::now_ns() / 1'000'000;
    st().calls.push_back(c);
    qel_time::changed();
    errno = err;
    return result;
}

sock *find(int fd) {
    const auto it = st().socks.find(fd);
    return it == st().socks.end() ? nullptr : &it->second;
}

sockaddr_tipc copy_addr(const sockaddr *addr, socklen_t len) {
    sockaddr_tipc a{};
    memcpy(&a, addr, std::min<size_t>(len, sizeof a));
    return a;
}

int fake_socket(int domain, int type, int) {
    guard g;
    call c;
    c.what = op::socket;
    c.domain = domain;
    c.type = type;
    if (const fault *f = called(op::socket))
        return static_cast<int>(finish(c, -1, f->err));
    c.fd = ::eventfd(0, 0);
    if (c.fd < 0)
        return static_cast<int>(finish(c, -1, errno));
    st().socks[c.fd].type = type;
    return static_cast<int>(finish(c, c.fd, 0));
}

int fake_bind(int fd, const sockaddr *addr, socklen_t len) {
    guard g;
    call c;
    c.what = op::bind;
    c.fd = fd;
    c.addr = copy_addr(addr, len);
    if (const fault *f = called(op::bind))
        return static_cast<int>(finish(c, -1, f->err));
    return static_cast<int>(find(fd) ? finish(c, 0, 0) : finish(c, -1, EBADF));
}

int fake_connect(int fd, const sockaddr *addr, socklen_t len) {
    guard g;
    call c;
    c.what = op::connect;
    c.fd = fd;
    c.addr = copy_addr(addr, len);
    if (const fault *f = called(op::connect))
        return static_cast<int>(finish(c, -1, f->err));
    sock *s = find(fd);
    if (!s)
        return static_cast<int>(finish(c, -1, EBADF));
    s->topology = true;
    s->connected = ++st().connections;
    return static_cast<int>(finish(c, 0, 0));
}

int fake_setsockopt(int fd, int level, int option, const void *value, socklen_t len) {
    guard g;
    call c;
    c.what = op::setsockopt;
    c.fd = fd;
    c.level = level;
    c.option = option;
    int number = 0;
    memcpy(&number, value, std::min<size_t>(len, sizeof number));
    c.value = number;
    if (const fault *f = called(op::setsockopt))
        return static_cast<int>(finish(c, -1, f->err));
    const auto it = st().option_errors.find({level, option});
    if (it != st().option_errors.end())
        return static_cast<int>(finish(c, -1, it->second));
    if (level == SOL_TIPC && option == TIPC_IMPORTANCE && number > TIPC_CRITICAL_IMPORTANCE)
        return static_cast<int>(finish(c, -1, EINVAL));
    return static_cast<int>(find(fd) ? finish(c, 0, 0) : finish(c, -1, EBADF));
}

int fake_getsockopt(int fd, int level, int option, void *value, socklen_t *len) {
    guard g;
    call c;
    c.what = op::getsockopt;
    c.fd = fd;
    c.level = level;
    c.option = option;
    if (const fault *f = called(op::getsockopt))
        return static_cast<int>(finish(c, -1, f->err));
    const sock *s = find(fd);
    if (!s)
        return static_cast<int>(finish(c, -1, EBADF));
    const int number = level == SOL_SOCKET && option == SO_TYPE ? s->type : 0;
    memcpy(value, &number, std::min<size_t>(*len, sizeof number));
    *len = sizeof number;
    return static_cast<int>(finish(c, 0, 0));
}

bool matches(const tipc_subscr &s, uint32_t lower, uint32_t upper) {
    return s.seq.type == name_type && s.seq.lower <= upper && s.seq.upper >= lower;
}

void push_event(sock &to, uint32_t event, uint32_t lower, uint32_t upper, const tipc_subscr &s) {
    tipc_event e{};
    e.event = event;
    e.found_lower = lower;
    e.found_upper = upper;
    e.s = s;
    record_in r;
    r.data.resize(sizeof e);
    memcpy(r.data.data(), &e, sizeof e);
    to.records.push_back(r);
    readable_changed();
}

// A record of the topology connection.
void subscribe(sock &to, const bytes &data) {
    tipc_subscr s{};
    if (data.size() != sizeof s) {
        to.ended = true;
        return;
    }
    memcpy(&s, data.data(), sizeof s);
    if (s.filter & TIPC_SUB_CANCEL) {
        s.filter &= ~static_cast<uint32_t>(TIPC_SUB_CANCEL);
        const auto it = std::find_if(to.subscriptions.begin(), to.subscriptions.end(),
                                     [&s](const subscription &x) { return memcmp(&x.s, &s, sizeof s) == 0; });
        if (it != to.subscriptions.end())
            to.subscriptions.erase(it);
        return;
    }
    subscription sub;
    sub.s = s;
    if (s.timeout != static_cast<uint32_t>(TIPC_WAIT_FOREVER))
        sub.due = qel_time::now_ns() + int64_t{s.timeout} * 1'000'000;
    to.subscriptions.push_back(sub);
    qel_time::wake(&poll_key); // a new deadline
    for (auto it = st().published.begin(); it != st().published.end(); it = st().published.upper_bound(*it)) {
        const uint32_t instance = it->first << 16 | (it->second & 0xFFFF);
        if (matches(s, instance, instance))
            push_event(to, TIPC_PUBLISHED, instance, instance, s);
    }
}

ssize_t send_any(op what, int fd, const void *data, size_t len, int flags, const sockaddr *to,
                 socklen_t to_len) {
    call c;
    c.what = what;
    c.fd = fd;
    c.flags = flags;
    if (to)
        c.addr = copy_addr(to, to_len);
    const auto *b = static_cast<const uint8_t *>(data);
    c.data.assign(b, b + len);
    std::function<void(const call &)> hook;
    {
        guard g;
        if (what == op::sendto)
            hook = st().hook;
    }
    if (hook)
        hook(c);
    guard g;
    if (const fault *f = called(what)) {
        if (f->cut < 0)
            return finish(c, -1, f->err);
        const auto cut = static_cast<size_t>(f->cut);
        return finish(c, static_cast<long>(std::min(cut, len)), f->err ? f->err : errno);
    }
    if (what == op::sendto) {
        for (to_fault &f : st().to_faults) {
            if (f.times != 0 && f.app == c.app() && f.node == c.node()) {
                if (f.times != UINT32_MAX)
                    f.times--;
                return finish(c, -1, f.err);
            }
        }
    }
    sock *s = find(fd);
    if (!s)
        return finish(c, -1, EBADF);
    if (len > TIPC_MAX_USER_MSG_SIZE)
        return finish(c, -1, EMSGSIZE);
    const long result = finish(c, static_cast<long>(len), 0);
    if (what == op::send && s->topology)
        subscribe(*s, c.data);
    return result;
}
ssize_t fake_sendto(int fd, const void *data, size_t len, int flags, const sockaddr *to, socklen_t to_len) {
    return send_any(op::sendto, fd, data, len, flags, to, to_len);
}
ssize_t fake_send(int fd, const void *data, size_t len, int flags) {
    return send_any(op::send, fd, data, len, flags, nullptr, 0);
}

ssize_t fake_recvmsg(int fd, msghdr *msg, int flags) {
    guard g;
    if (const fault *f = called(op::recvmsg)) {
        errno = f->err;
        return -1;
    }
    for (;;) {
        sock *s = find(fd);
        if (!s) {
            errno = EBADF;
            return -1;
        }
        if (!s->datagrams.empty())
            break;
        if (flags & MSG_DONTWAIT) {
            errno = EAGAIN;
            return -1;
        }
        qel_time::wait(&poll_key, qel_time::never);
    }
    std::deque<datagram> &queue = find(fd)->datagrams;
    const datagram in = queue.front();
    queue.pop_front();
    qel_time::changed();
    if (in.ghost || in.err) {
        errno = in.err ? in.err : EAGAIN;
        return -1;
    }
    msg->msg_flags = in.flags;
    size_t done = 0;
    for (size_t i = 0; i < msg->msg_iovlen && done < in.data.size(); i++) {
        const size_t part = std::min(in.data.size() - done, msg->msg_iov[i].iov_len);
        memcpy(msg->msg_iov[i].iov_base, in.data.data() + done, part);
        done += part;
    }
    if (done < in.data.size())
        msg->msg_flags |= MSG_TRUNC;
    if (msg->msg_name) {
        msg->msg_namelen = std::min<socklen_t>(msg->msg_namelen, sizeof in.from);
        memcpy(msg->msg_name, &in.from, msg->msg_namelen);
    }
    size_t room = msg->msg_control ? msg->msg_controllen : 0;
    auto *at = static_cast<unsigned char *>(msg->msg_control);
    for (const control &c : in.controls) {
        if (CMSG_SPACE(c.data.size()) > room) {
            msg->msg_flags |= MSG_CTRUNC;
            break;
        }
        cmsghdr head{};
        head.cmsg_len = CMSG_LEN(c.data.size());
        head.cmsg_level = c.level;
        head.cmsg_type = c.type;
        memset(at, 0, CMSG_SPACE(c.data.size()));
        memcpy(at, &head, sizeof head);
        if (!c.data.empty())
            memcpy(at + CMSG_LEN(0), c.data.data(), c.data.size());
        at += CMSG_SPACE(c.data.size());
        room -= CMSG_SPACE(c.data.size());
    }
    const size_t raw = std::min(in.raw_controls.size(), room);
    if (raw) {
        memcpy(at, in.raw_controls.data(), raw);
        room -= raw;
    }
    msg->msg_controllen = msg->msg_control ? msg->msg_controllen - room : 0;
    return static_cast<ssize_t>(done);
}

ssize_t fake_recv(int fd, void *data, size_t len, int flags) {
    guard g;
    if (const fault *f = called(op::recv)) {
        errno = f->err;
        return -1;
    }
    for (;;) {
        sock *s = find(fd);
        if (!s) {
            errno = EBADF;
            return -1;
        }
        if (!s->records.empty())
            break;
        if (s->ended)
            return 0;
        if (flags & MSG_DONTWAIT) {
            errno = EAGAIN;
            return -1;
        }
        qel_time::wait(&poll_key, qel_time::never);
    }
    sock *s = find(fd);
    const record_in in = s->records.front();
    s->records.pop_front();
    qel_time::changed();
    if (in.err) {
        errno = in.err;
        return -1;
    }
    if (in.end) {
        s->ended = true;
        return 0;
    }
    const size_t part = std::min(len, in.data.size());
    memcpy(data, in.data.data(), part);
    return static_cast<ssize_t>(part);
}

// Ends the timers of @s that are due; the next one that will be.
int64_t end_due_timers(sock &s) {
    int64_t next = qel_time::never;
    if (!st().automatic)
        return next;
    for (size_t i = 0; i < s.subscriptions.size();) {
        const subscription sub = s.subscriptions[i];
        if (sub.due <= qel_time::now_ns()) {
            s.subscriptions.erase(s.subscriptions.begin() + static_cast<ptrdiff_t>(i));
            push_event(s, TIPC_SUBSCR_TIMEOUT, sub.s.seq.lower, sub.s.seq.upper, sub.s);
        } else {
            next = std::min(next, sub.due);
            i++;
        }
    }
    return next;
}

int fake_poll(pollfd *fds, nfds_t count, int timeout_ms) {
    guard g;
    if (const fault *f = called(op::poll)) {
        errno = f->err;
        return -1;
    }
    const int64_t end =
        timeout_ms < 0 ? qel_time::never : qel_time::now_ns() + int64_t{timeout_ms} * 1'000'000;
    for (;;) {
        if (!st().poll_errors.empty()) {
            errno = st().poll_errors.front();
            st().poll_errors.pop_front();
            qel_time::changed();
            return -1;
        }
        int ready = 0;
        int64_t wake_at = end;
        for (nfds_t i = 0; i < count; i++) {
            fds[i].revents = 0;
            if (fds[i].fd < 0)
                continue;
            sock *s = find(fds[i].fd);
            if (!s) {
                fds[i].revents = POLLNVAL;
            } else {
                wake_at = std::min(wake_at, end_due_timers(*s));
                if (s->readable())
                    fds[i].revents = static_cast<short>(fds[i].events & POLLIN);
                if (s->ended || (!s->records.empty() && s->records.front().end))
                    fds[i].revents |= POLLHUP;
            }
            ready += fds[i].revents != 0;
        }
        if (ready > 0 || end <= qel_time::now_ns())
            return ready;
        std::set<int> mine;
        for (nfds_t i = 0; i < count; i++)
            mine.insert(fds[i].fd);
        st().pollers++;
        st().polled.swap(mine);
        qel_time::changed();
        qel_time::wait(&poll_key, wake_at);
        st().pollers--;
    }
}

int fake_shutdown(int fd, int) {
    guard g;
    call c;
    c.what = op::shutdown;
    c.fd = fd;
    if (const fault *f = called(op::shutdown))
        return static_cast<int>(finish(c, -1, f->err));
    return static_cast<int>(finish(c, 0, 0));
}

int fake_close(int fd) {
    guard g;
    call c;
    c.what = op::close;
    c.fd = fd;
    const fault *f = called(op::close);
    st().socks.erase(fd);
    ::close(fd);
    qel_time::wake(&poll_key);
    return static_cast<int>(f ? finish(c, -1, f->err) : finish(c, 0, 0));
}

int fake_fcntl(int fd, int cmd, long arg) {
    guard g;
    call c;
    c.what = op::fcntl;
    c.fd = fd;
    c.cmd = cmd;
    c.value = arg;
    if (const fault *f = called(op::fcntl))
        return static_cast<int>(finish(c, -1, f->err));
    const int result = ::fcntl(fd, cmd, arg);
    return static_cast<int>(finish(c, result, errno));
}

constexpr qel_port table = {
    .name = "fake",
    .socket = fake_socket,
    .bind = fake_bind,
    .connect = fake_connect,
    .setsockopt = fake_setsockopt,
    .getsockopt = fake_getsockopt,
    .sendto = fake_sendto,
    .send = fake_send,
    .recvmsg = fake_recvmsg,
    .recv = fake_recv,
    .poll = fake_poll,
    .shutdown = fake_shutdown,
    .close = fake_close,
    .fcntl = fake_fcntl,
};

void push_record(int fd, record_in r) {
    guard g;
    if (sock *s = find(fd))
        s->records.push_back(std::move(r));
    readable_changed();
}

sock *topology_sock(int *fd = nullptr) {
    sock *last = nullptr;
    for (auto &[number, s] : st().socks)
        if (s.topology && (!last || s.connected > last->connected)) {
            last = &s;
            if (fd)
                *fd = number;
        }
    return last;
}

void tell(uint32_t event, uint32_t lower, uint32_t upper) {
    for (auto &[number, s] : st().socks)
        for (const subscription &sub : s.subscriptions)
            if (matches(sub.s, lower, upper))
                push_event(s, event, lower, upper, sub.s);
}

timer timer_of(const subscription &sub) {
    timer t{};
    t.ms = sub.s.timeout;
    memcpy(&t.type, sub.s.usr_handle, 4);
    memcpy(&t.seq, sub.s.usr_handle + 4, 4);
    t.left_ms = (sub.due - qel_time::now_ns()) / 1'000'000;
    return t;
}

bool idle_locked() {
    if (st().pollers == 0 || !st().poll_errors.empty())
        return false;
    for (const auto &[fd, s] : st().socks)
        if (st().polled.count(fd) && s.readable())
            return false;
    return true;
}

} // namespace

uint32_t call::app() const noexcept { return addr.addr.name.name.instance >> 16; }
uint32_t call::node() const noexcept { return addr.addr.name.name.instance & 0xFFFF; }

const qel_port *install() {
    {
        guard g;
        holder() = std::make_unique<state>();
    }
    qel_port_set(&table);
    return &table;
}

std::vector<call> calls() {
    guard g;
    return st().calls;
}
std::vector<call> take_calls() {
    guard g;
    st().taken = 0;
    return std::exchange(st().calls, {});
}
std::vector<call> calls(op what) {
    guard g;
    std::vector<call> found;
    for (const call &c : st().calls)
        if (c.what == what)
            found.push_back(c);
    return found;
}
std::vector<call> take_sent() {
    guard g;
    std::vector<call> found;
    for (size_t i = st().taken; i < st().calls.size(); i++) {
        const call &c = st().calls[i];
        if (c.what == op::sendto && c.result == static_cast<long>(c.data.size()))
            found.push_back(c);
    }
    st().taken = st().calls.size();
    return found;
}
unsigned count(op what) {
    guard g;
    return st().counts[static_cast<size_t>(what)];
}

void fail(op what, int err, unsigned nth, unsigned times) {
    guard g;
    const auto o = static_cast<size_t>(what);
    const unsigned first = st().counts[o] + nth;
    st().faults[o].push_back({first, times == for_ever ? UINT32_MAX : first + times - 1, err});
}
void fail_to(uint32_t app, uint32_t node, int err, unsigned times) {
    guard g;
    st().to_faults.push_back({app, node, err, times == for_ever ? UINT32_MAX : times});
}
void short_send(size_t count, unsigned nth, int err) {
    guard g;
    for (const op what : {op::sendto, op::send}) {
        const auto o = static_cast<size_t>(what);
        const unsigned number = st().counts[o] + nth;
        st().faults[o].push_back({number, number, err, static_cast<long>(count)});
    }
}
void fail_option(int level, int option, int err) {
    guard g;
    if (err)
        st().option_errors[{level, option}] = err;
    else
        st().option_errors.erase({level, option});
}
void on_sendto(std::function<void(const call &)> hook) {
    guard g;
    st().hook = std::move(hook);
}

void push(int fd, datagram in) {
    guard g;
    if (sock *s = find(fd))
        s->datagrams.push_back(std::move(in));
    readable_changed();
}

static control number_control(int type, const std::vector<uint32_t> &words) {
    control c;
    c.type = type;
    c.data.resize(words.size() * 4);
    memcpy(c.data.data(), words.data(), c.data.size());
    return c;
}
static control name_control(uint32_t app, uint32_t node) {
    const uint32_t instance = app << 16 | (node & 0xFFFF);
    return number_control(TIPC_DESTNAME, {name_type, instance, instance});
}

void push(int fd, const bytes &data, uint32_t app, uint32_t node) {
    datagram in;
    in.data = data;
    in.controls = {name_control(app, node)};
    push(fd, std::move(in));
}

void push_returned(int fd, uint32_t code, const bytes &data, uint32_t app, uint32_t node) {
    datagram in;
    control kept;
    kept.type = TIPC_RETDATA;
    kept.data.assign(data.begin(),
                     data.begin() + static_cast<ptrdiff_t>(std::min<size_t>(data.size(), 1024)));
    in.controls = {number_control(TIPC_ERRINFO, {code, static_cast<uint32_t>(data.size())}), kept,
                   name_control(app, node)};
    push(fd, std::move(in));
}

void push_recv(int fd, const bytes &record) { push_record(fd, {record, 0, false}); }
void push_recv_error(int fd, int err) { push_record(fd, {{}, err, false}); }
void push_recv_end(int fd) { push_record(fd, {{}, 0, true}); }
void push_poll_error(int err) {
    guard g;
    st().poll_errors.push_back(err);
    readable_changed();
}

int topology() {
    guard g;
    int fd = -1;
    topology_sock(&fd);
    return fd;
}
std::vector<tipc_subscr> subscriptions() {
    guard g;
    std::vector<tipc_subscr> found;
    if (const sock *s = topology_sock())
        for (const subscription &sub : s->subscriptions)
            found.push_back(sub.s);
    return found;
}

void publish(uint32_t app, uint32_t node) {
    guard g;
    st().published.insert({app, node});
    const uint32_t instance = app << 16 | (node & 0xFFFF);
    if (st().published.count({app, node}) == 1)
        tell(TIPC_PUBLISHED, instance, instance);
}
void withdraw(uint32_t app, uint32_t node) {
    guard g;
    const auto it = st().published.find({app, node});
    if (it != st().published.end())
        st().published.erase(it);
    const uint32_t instance = app << 16 | (node & 0xFFFF);
    if (st().published.count({app, node}) == 0)
        tell(TIPC_WITHDRAWN, instance, instance);
}
void range_event(uint32_t event, uint32_t lower, uint32_t upper) {
    guard g;
    tell(event, lower, upper);
}

void automatic_timers(bool on) {
    guard g;
    st().automatic = on;
    qel_time::wake(&poll_key);
}
bool end_timer(uint32_t type, uint32_t seq) {
    guard g;
    sock *s = topology_sock();
    if (!s)
        return false;
    for (size_t i = 0; i < s->subscriptions.size(); i++) {
        const subscription sub = s->subscriptions[i];
        const timer t = timer_of(sub);
        if (sub.due == qel_time::never || t.type != type || t.seq != seq)
            continue;
        s->subscriptions.erase(s->subscriptions.begin() + static_cast<ptrdiff_t>(i));
        push_event(*s, TIPC_SUBSCR_TIMEOUT, sub.s.seq.lower, sub.s.seq.upper, sub.s);
        return true;
    }
    return false;
}
std::vector<timer> timers() {
    guard g;
    std::vector<timer> found;
    if (const sock *s = topology_sock())
        for (const subscription &sub : s->subscriptions)
            if (sub.due != qel_time::never)
                found.push_back(timer_of(sub));
    return found;
}

bool wait_until_idle() {
    return qel_time::wait_for([] {
        guard g;
        return idle_locked();
    });
}

bool settle() {
    // Idle and settled at the same moment: neither alone stays true while the other comes about.
    for (int round = 0; round < 1000; round++) {
        if (!wait_until_idle() || !qel_time::settle())
            return false;
        guard g;
        if (idle_locked())
            return true;
    }
    return false;
}

} // namespace qel_fake
