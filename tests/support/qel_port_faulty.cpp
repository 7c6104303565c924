#include "qel_port_faulty.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <deque>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <sys/eventfd.h>
#include <unistd.h>
#include <utility>

namespace qel_faulty {
namespace {

// A waiting poll() looks for injected datagrams this often.
constexpr int poll_slice_ms = 1;
constexpr size_t returned_bytes_max = 1024;

struct fault {
    call which{};
    bool any = false;   // counts the calls of every kind
    unsigned skip = 0;  // calls that still pass
    unsigned times = 1; // calls that still fail, for_ever: all
    int err = 0;        // 0: a short send
    size_t short_bytes = 0;
    bool spent = false;
};

struct hook {
    call which{};
    unsigned skip = 0;
    std::function<void()> run;
};

struct inbox {
    std::deque<datagram> datagrams;
    std::deque<std::vector<uint8_t>> records;
    bool ended = false;
};

struct state {
    std::mutex lock;
    const qel_port *inner = nullptr;
    std::vector<fault> faults;
    std::vector<hook> hooks;
    std::map<int, inbox> inboxes;
    std::array<unsigned, call_count> calls{};
    std::vector<sent> record;
    bool any_hit = false;
};

state &st() {
    static state &s = *new state; // never destroyed: threads of the tested code outlive main
    return s;
}

// What the faults say about this call.
struct verdict {
    int err = 0;
    bool cut = false;
    size_t short_bytes = 0;
};

verdict enter(call which) {
    state &s = st();
    std::vector<std::function<void()>> due;
    verdict v;
    {
        std::lock_guard guard(s.lock);
        s.calls[static_cast<size_t>(which)]++;
        for (auto it = s.hooks.begin(); it != s.hooks.end();) {
            if (it->which != which || it->skip-- != 0) {
                ++it;
                continue;
            }
            due.push_back(std::move(it->run));
            it = s.hooks.erase(it);
        }
        for (fault &f : s.faults) {
            bool mine = f.any ? which != call::poll && which != call::close : f.which == which;
            if (!mine || f.spent)
                continue;
            if (f.skip) {
                f.skip--;
                continue;
            }
            if (f.times != for_ever && --f.times == 0)
                f.spent = true;
            if (f.any)
                s.any_hit = true;
            if (v.err || v.cut)
                continue; // the fault set first decides; the others have counted this call
            v.err = f.err;
            v.cut = f.err == 0;
            v.short_bytes = f.short_bytes;
        }
    }
    for (auto &run : due)
        run();
    return v;
}

const qel_port *inner() {
    std::lock_guard guard(st().lock);
    return st().inner;
}

int failed(int err) {
    errno = err;
    return -1;
}

void keep(int fd, const void *data, size_t len, int flags, const sockaddr *to, socklen_t to_len) {
    sent one;
    one.fd = fd;
    one.data.resize(len);
    if (len)
        memcpy(one.data.data(), data, len);
    one.flags = flags;
    if (to && to_len >= sizeof(one.to)) {
        one.has_to = true;
        memcpy(&one.to, to, sizeof(one.to));
    }
    std::lock_guard guard(st().lock);
    st().record.push_back(std::move(one));
}

int f_socket(int domain, int type, int protocol) {
    if (verdict v = enter(call::socket); v.err)
        return failed(v.err);
    const qel_port *in = inner();
    return in ? in->socket(domain, type, protocol) : eventfd(0, EFD_CLOEXEC);
}

int f_bind(int fd, const sockaddr *addr, socklen_t len) {
    if (verdict v = enter(call::bind); v.err)
        return failed(v.err);
    const qel_port *in = inner();
    return in ? in->bind(fd, addr, len) : 0;
}

int f_connect(int fd, const sockaddr *addr, socklen_t len) {
    if (verdict v = enter(call::connect); v.err)
        return failed(v.err);
    const qel_port *in = inner();
    return in ? in->connect(fd, addr, len) : 0;
}

int f_setsockopt(int fd, int level, int option, const void *value, socklen_t len) {
    if (verdict v = enter(call::setsockopt); v.err)
        return failed(v.err);
    const qel_port *in = inner();
    return in ? in->setsockopt(fd, level, option, value, len) : 0;
}

int f_getsockopt(int fd, int level, int option, void *value, socklen_t *len) {
    if (verdict v = enter(call::getsockopt); v.err)
        return failed(v.err);
    if (const qel_port *in = inner())
        return in->getsockopt(fd, level, option, value, len);
    memset(value, 0, *len);
    return 0;
}

ssize_t f_sendto(int fd, const void *data, size_t len, int flags, const sockaddr *to, socklen_t to_len) {
    verdict v = enter(call::sendto);
    if (v.err)
        return failed(v.err);
    if (v.cut)
        len = std::min(len, v.short_bytes);
    const qel_port *in = inner();
    ssize_t ret = in ? in->sendto(fd, data, len, flags, to, to_len) : static_cast<ssize_t>(len);
    if (ret >= 0) {
        int err = errno;
        keep(fd, data, len, flags, to, to_len);
        errno = err;
    }
    return ret;
}

ssize_t f_send(int fd, const void *data, size_t len, int flags) {
    verdict v = enter(call::send);
    if (v.err)
        return failed(v.err);
    if (v.cut)
        len = std::min(len, v.short_bytes);
    const qel_port *in = inner();
    ssize_t ret = in ? in->send(fd, data, len, flags) : static_cast<ssize_t>(len);
    if (ret >= 0) {
        int err = errno;
        keep(fd, data, len, flags, nullptr, 0);
        errno = err;
    }
    return ret;
}

// Fills @msg as the kernel does: what does not fit is lost and flagged.
ssize_t show(const datagram &in, msghdr *msg) {
    if (in.err)
        return failed(in.err);
    msg->msg_flags = in.flags;
    size_t done = 0;
    for (size_t i = 0; i < msg->msg_iovlen && done < in.data.size(); i++) {
        size_t part = std::min(msg->msg_iov[i].iov_len, in.data.size() - done);
        if (part)
            memcpy(msg->msg_iov[i].iov_base, in.data.data() + done, part);
        done += part;
    }
    if (done < in.data.size())
        msg->msg_flags |= MSG_TRUNC;
    if (msg->msg_name) {
        memcpy(msg->msg_name, &in.from, std::min<size_t>(msg->msg_namelen, sizeof(in.from)));
        msg->msg_namelen = sizeof(in.from);
    }
    size_t room = msg->msg_control ? msg->msg_controllen : 0, used = 0;
    for (const control &c : in.controls) {
        if (room - used < CMSG_LEN(0)) {
            msg->msg_flags |= MSG_CTRUNC;
            break;
        }
        cmsghdr head{};
        head.cmsg_level = c.level;
        head.cmsg_type = c.type;
        head.cmsg_len = CMSG_LEN(c.data.size());
        if (head.cmsg_len > room - used) {
            msg->msg_flags |= MSG_CTRUNC;
            head.cmsg_len = room - used;
        }
        uint8_t *at = static_cast<uint8_t *>(msg->msg_control) + used;
        memcpy(at, &head, sizeof(head));
        if (head.cmsg_len > CMSG_LEN(0))
            memcpy(at + CMSG_LEN(0), c.data.data(), head.cmsg_len - CMSG_LEN(0));
        used += std::min(CMSG_SPACE(c.data.size()), room - used);
    }
    msg->msg_controllen = used;
    return static_cast<ssize_t>(done);
}

ssize_t f_recvmsg(int fd, msghdr *msg, int flags) {
    if (verdict v = enter(call::recvmsg); v.err)
        return failed(v.err);
    state &s = st();
    datagram in;
    bool have = false;
    {
        std::lock_guard guard(s.lock);
        auto box = s.inboxes.find(fd);
        if (box != s.inboxes.end() && !box->second.datagrams.empty()) {
            in = std::move(box->second.datagrams.front());
            box->second.datagrams.pop_front();
            have = true;
        }
    }
    if (have)
        return show(in, msg);
    const qel_port *next = inner();
    return next ? next->recvmsg(fd, msg, flags) : failed(EAGAIN);
}

ssize_t f_recv(int fd, void *data, size_t len, int flags) {
    if (verdict v = enter(call::recv); v.err)
        return failed(v.err);
    state &s = st();
    {
        std::lock_guard guard(s.lock);
        auto box = s.inboxes.find(fd);
        if (box != s.inboxes.end() && !box->second.records.empty()) {
            std::vector<uint8_t> in = std::move(box->second.records.front());
            box->second.records.pop_front();
            size_t part = std::min(len, in.size());
            if (part)
                memcpy(data, in.data(), part);
            return static_cast<ssize_t>(part);
        }
        if (box != s.inboxes.end() && box->second.ended)
            return failed(EAGAIN);
    }
    const qel_port *next = inner();
    return next ? next->recv(fd, data, len, flags) : failed(EAGAIN);
}

int64_t now_ms() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return int64_t{t.tv_sec} * 1000 + t.tv_nsec / 1000000;
}

int f_poll(pollfd *fds, nfds_t count, int timeout_ms) {
    if (verdict v = enter(call::poll); v.err)
        return failed(v.err);
    int64_t end = now_ms() + timeout_ms;
    for (;;) {
        std::vector<short> ours(count, 0);
        bool any = false;
        {
            std::lock_guard guard(st().lock);
            for (nfds_t i = 0; i < count; i++) {
                auto box = st().inboxes.find(fds[i].fd);
                if (fds[i].fd < 0 || box == st().inboxes.end())
                    continue;
                const inbox &b = box->second;
                if (!b.datagrams.empty() || !b.records.empty() || b.ended)
                    ours[i] = static_cast<short>(fds[i].events & POLLIN);
                if (b.ended)
                    ours[i] = static_cast<short>(ours[i] | POLLHUP);
                any |= ours[i] != 0;
            }
        }
        int64_t left = timeout_ms < 0 ? poll_slice_ms : end - now_ms();
        int slice = any || left <= 0 ? 0 : static_cast<int>(std::min<int64_t>(left, poll_slice_ms));
        const qel_port *in = inner();
        int ready;
        if (in) {
            ready = in->poll(fds, count, slice);
        } else {
            for (nfds_t i = 0; i < count; i++)
                fds[i].revents = 0;
            ready = ::poll(nullptr, 0, slice);
        }
        if (ready < 0)
            return ready;
        if (any) {
            ready = 0;
            for (nfds_t i = 0; i < count; i++) {
                fds[i].revents = static_cast<short>(fds[i].revents | ours[i]);
                ready += fds[i].revents != 0;
            }
        }
        if (ready > 0 || (timeout_ms >= 0 && left <= 0))
            return ready;
    }
}

int f_shutdown(int fd, int how) {
    if (verdict v = enter(call::shutdown); v.err)
        return failed(v.err);
    const qel_port *in = inner();
    return in ? in->shutdown(fd, how) : 0;
}

int f_close(int fd) {
    verdict v = enter(call::close);
    {
        std::lock_guard guard(st().lock);
        st().inboxes.erase(fd); // the number may come back as another socket
    }
    const qel_port *in = inner();
    int ret = in ? in->close(fd) : ::close(fd);
    return v.err ? failed(v.err) : ret;
}

int f_fcntl(int fd, int cmd, long arg) {
    if (verdict v = enter(call::fcntl); v.err)
        return failed(v.err);
    const qel_port *in = inner();
    return in ? in->fcntl(fd, cmd, arg) : ::fcntl(fd, cmd, arg);
}

const qel_port g_faulty = {
    .name = "faulty",
    .socket = f_socket,
    .bind = f_bind,
    .connect = f_connect,
    .setsockopt = f_setsockopt,
    .getsockopt = f_getsockopt,
    .sendto = f_sendto,
    .send = f_send,
    .recvmsg = f_recvmsg,
    .recv = f_recv,
    .poll = f_poll,
    .shutdown = f_shutdown,
    .close = f_close,
    .fcntl = f_fcntl,
};

control control_of(int type, const void *data, size_t len) {
    control c;
    c.type = type;
    c.data.resize(len);
    if (len)
        memcpy(c.data.data(), data, len);
    return c;
}

} // namespace

const qel_port *wrap(const qel_port *inner_port) {
    reset();
    std::lock_guard guard(st().lock);
    st().inner = inner_port;
    return &g_faulty;
}

void reset() {
    state &s = st();
    std::lock_guard guard(s.lock);
    s.faults.clear();
    s.hooks.clear();
    s.inboxes.clear();
    s.calls.fill(0);
    s.record.clear();
    s.any_hit = false;
}

void fail(call which, int err, unsigned nth, unsigned times) {
    fault f;
    f.which = which;
    f.err = err;
    f.skip = nth - 1;
    f.times = times;
    std::lock_guard guard(st().lock);
    st().faults.push_back(f);
}

void fail_any(unsigned nth, int err) {
    fault f;
    f.any = true;
    f.err = err;
    f.skip = nth - 1;
    std::lock_guard guard(st().lock);
    st().any_hit = false;
    st().faults.push_back(f);
}

bool any_failed() {
    std::lock_guard guard(st().lock);
    return st().any_hit;
}

void short_send(call which, size_t bytes, unsigned nth, unsigned times) {
    fault f;
    f.which = which;
    f.short_bytes = bytes;
    f.skip = nth - 1;
    f.times = times;
    std::lock_guard guard(st().lock);
    st().faults.push_back(f);
}

void before(call which, unsigned nth, std::function<void()> run) {
    std::lock_guard guard(st().lock);
    st().hooks.push_back({which, nth - 1, std::move(run)});
}

datagram normal(const std::vector<uint8_t> &data, uint32_t type, uint32_t lower, uint32_t upper) {
    const uint32_t name[3] = {type, lower, upper};
    datagram d;
    d.data = data;
    d.from.family = AF_TIPC;
    d.from.addrtype = TIPC_ADDR_ID;
    d.from.addr.id = {1, 0x01001001};
    d.controls.push_back(control_of(TIPC_DESTNAME, name, sizeof(name)));
    return d;
}

datagram returned(uint32_t code, const std::vector<uint8_t> &data, uint32_t type, uint32_t instance) {
    datagram d = normal({}, type, instance, instance);
    const uint32_t info[2] = {code, static_cast<uint32_t>(std::min(data.size(), returned_bytes_max))};
    d.controls.insert(d.controls.begin(), control_of(TIPC_RETDATA, data.data(), info[1]));
    d.controls.insert(d.controls.begin(), control_of(TIPC_ERRINFO, info, sizeof(info)));
    return d;
}

void inject(int fd, datagram in) {
    std::lock_guard guard(st().lock);
    st().inboxes[fd].datagrams.push_back(std::move(in));
}

void inject_recv(int fd, std::vector<uint8_t> data) {
    std::lock_guard guard(st().lock);
    inbox &b = st().inboxes[fd];
    if (data.empty())
        b.ended = true;
    b.records.push_back(std::move(data));
}

unsigned calls(call which) {
    std::lock_guard guard(st().lock);
    return st().calls[static_cast<size_t>(which)];
}

std::vector<sent> take_sent() {
    std::lock_guard guard(st().lock);
    return std::exchange(st().record, {});
}

} // namespace qel_faulty
