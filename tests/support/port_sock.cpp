#include "port_sock.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <utility>

namespace port_test {

sockaddr_tipc range_address(uint32_t type, uint32_t lower, uint32_t upper) {
    sockaddr_tipc a{};
    a.family = AF_TIPC;
    a.addrtype = TIPC_SERVICE_RANGE;
    a.scope = TIPC_CLUSTER_SCOPE;
    a.addr.nameseq = {type, lower, upper};
    return a;
}

sockaddr_tipc name_address(uint32_t type, uint32_t instance) {
    sockaddr_tipc a{};
    a.family = AF_TIPC;
    a.addrtype = TIPC_SERVICE_ADDR;
    a.addr.name.name = {type, instance};
    return a;
}

bytes payload(uint32_t tag, size_t size) {
    constexpr size_t block = 256;
    static const std::array<uint8_t, 2 *block> ramp = [] {
        std::array<uint8_t, 2 * block> r{};
        for (size_t i = 0; i < r.size(); i++)
            r[i] = static_cast<uint8_t>(i);
        return r;
    }();
    bytes data(size);
    for (size_t at = 0; at < size; at += block) // each block begins elsewhere on the ramp
        memcpy(data.data() + at, ramp.data() + (tag + at / block * 7) % block, std::min(block, size - at));
    for (size_t i = 0; i < std::min<size_t>(4, size); i++)
        data[i] = static_cast<uint8_t>(tag >> 8 * i);
    return data;
}

uint32_t tag_of(const bytes &data) {
    uint32_t tag = 0;
    for (size_t i = 0; i < std::min<size_t>(4, data.size()); i++)
        tag |= uint32_t{data[i]} << 8 * i;
    return tag;
}

uint32_t control::word(size_t index) const {
    uint32_t value = 0;
    if (data.size() >= 4 * index + 4)
        memcpy(&value, data.data() + 4 * index, 4);
    return value;
}

const control *received::find(int type) const {
    for (const control &c : controls)
        if (c.level == SOL_TIPC && c.type == type)
            return &c;
    return nullptr;
}

uint32_t received::returned_code() const {
    const control *info = find(TIPC_ERRINFO);
    return info ? info->word(0) : 0;
}

sock::sock(const qel_port &port, int type) : port_(&port), fd_(port.socket(AF_TIPC, type, 0)) {
    if (fd_ < 0)
        ADD_FAILURE() << port.name << ": no socket: " << strerror(errno);
}

sock::sock(sock &&other) noexcept : port_(other.port_), fd_(std::exchange(other.fd_, -1)) {}

sock &sock::operator=(sock &&other) noexcept {
    if (this != &other) {
        close();
        port_ = other.port_;
        fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
}

sock::~sock() { close(); }

void sock::close() {
    if (fd_ >= 0 && port_->close(std::exchange(fd_, -1)) != 0)
        ADD_FAILURE() << "close: " << strerror(errno);
}

int sock::bind(uint32_t type, uint32_t lower, uint32_t upper, int scope) {
    sockaddr_tipc a = range_address(type, lower, upper);
    a.scope = static_cast<signed char>(scope);
    return port_->bind(fd_, reinterpret_cast<sockaddr *>(&a), sizeof(a)) == 0 ? 0 : errno;
}

int sock::connect(uint32_t type, uint32_t instance) {
    sockaddr_tipc a = name_address(type, instance);
    return port_->connect(fd_, reinterpret_cast<sockaddr *>(&a), sizeof(a)) == 0 ? 0 : errno;
}

int sock::set(int level, int option, uint32_t value) {
    return port_->setsockopt(fd_, level, option, &value, sizeof(value)) == 0 ? 0 : errno;
}

int sock::get(int level, int option, uint32_t &value) {
    socklen_t len = sizeof(value);
    return port_->getsockopt(fd_, level, option, &value, &len) == 0 ? 0 : errno;
}

ssize_t sock::send(const bytes &data, const sockaddr_tipc &to, int flags) {
    ssize_t ret = port_->sendto(fd_, data.data(), data.size(), flags, reinterpret_cast<const sockaddr *>(&to),
                                sizeof(to));
    return ret < 0 ? -errno : ret;
}

ssize_t sock::write(const void *data, size_t size, int flags) {
    ssize_t ret = port_->send(fd_, data, size, flags);
    return ret < 0 ? -errno : ret;
}

int sock::readable(int timeout_ms) {
    pollfd p{fd_, POLLIN, 0};
    int ret = port_->poll(&p, 1, timeout_ms);
    if (ret < 0)
        ADD_FAILURE() << "poll: " << strerror(errno);
    return ret > 0 ? p.revents : 0;
}

received sock::take(size_t data_room, size_t control_room) {
    static thread_local bytes data;
    static thread_local std::vector<uint64_t> control_store; // aligned as records must be
    data.resize(data_room);
    control_store.assign(control_room / 8 + 1, 0);
    received r;
    iovec v{data.data(), data_room};
    msghdr m{};
    m.msg_name = &r.from;
    m.msg_namelen = sizeof(r.from);
    m.msg_iov = &v;
    m.msg_iovlen = 1;
    m.msg_control = control_store.data();
    m.msg_controllen = control_room;
    r.ret = port_->recvmsg(fd_, &m, MSG_DONTWAIT);
    if (r.ret < 0) {
        r.err = errno;
        return r;
    }
    r.flags = m.msg_flags;
    r.data.assign(data.begin(), data.begin() + r.ret);
    r.from_len = m.msg_namelen;
    r.control_len = m.msg_controllen;
    for (cmsghdr *c = CMSG_FIRSTHDR(&m); c; c = CMSG_NXTHDR(&m, c)) {
        const uint8_t *at = CMSG_DATA(c);
        r.controls.push_back(
            {c->cmsg_level, c->cmsg_type, c->cmsg_len, bytes(at, at + (c->cmsg_len - CMSG_LEN(0)))});
    }
    return r;
}

received sock::next(int timeout_ms) {
    const auto end = steady::now() + milliseconds(timeout_ms);
    for (;;) {
        const auto left = std::chrono::duration_cast<milliseconds>(end - steady::now()).count();
        if (left <= 0 || !readable(static_cast<int>(left))) {
            received r;
            r.err = ETIME;
            return r;
        }
        received r = take();
        if (r.ok() || r.err != EAGAIN) // a message without bytes wakes poll and is thrown away
            return r;
    }
}

tipc_subscr subscription(uint32_t type, uint32_t lower, uint32_t upper, uint32_t timeout_ms, uint32_t filter,
                         const char *handle) {
    tipc_subscr s{};
    s.seq = {type, lower, upper};
    s.timeout = timeout_ms;
    s.filter = filter;
    memcpy(s.usr_handle, handle, std::min(strlen(handle), sizeof(s.usr_handle)));
    return s;
}

tipc_subscr swapped(tipc_subscr s) {
    for (uint32_t *word : {&s.seq.type, &s.seq.lower, &s.seq.upper, &s.timeout, &s.filter})
        *word = __builtin_bswap32(*word);
    return s;
}

topology::topology(const qel_port &port) : sock(port, SOCK_SEQPACKET) {
    if (int err = valid() ? connect(TIPC_TOP_SRV, TIPC_TOP_SRV) : 0)
        ADD_FAILURE() << "no connection to the topology server: " << strerror(err);
}

bool topology::subscribe(const tipc_subscr &s) {
    ssize_t ret = write(&s, sizeof(s));
    if (ret != sizeof(s))
        ADD_FAILURE() << "subscription: " << ret;
    return ret == sizeof(s);
}

bool topology::next(tipc_event &event, int timeout_ms) {
    if (!readable(timeout_ms))
        return false;
    ssize_t ret = port_->recv(fd_, &event, sizeof(event), MSG_DONTWAIT);
    if (ret != sizeof(event) && ret != 0)
        ADD_FAILURE() << "event of " << ret << " bytes: " << strerror(errno);
    return ret == sizeof(event);
}

std::vector<tipc_event> topology::settled() {
    // The server works in order: behind the answer to this question nothing older comes.
    static std::atomic<uint32_t> number{0};
    char handle[9];
    snprintf(handle, sizeof(handle), "#%07u", ++number % 10000000);
    std::vector<tipc_event> events;
    if (!subscribe(subscription(TIPC_TOP_SRV, 0, 0, 1, TIPC_SUB_SERVICE, handle)))
        return events;
    tipc_event e;
    while (next(e)) {
        if (e.event == TIPC_SUBSCR_TIMEOUT && !memcmp(e.s.usr_handle, handle, sizeof(e.s.usr_handle)))
            return events;
        events.push_back(e);
    }
    ADD_FAILURE() << "the topology server does not answer";
    return events;
}

bool topology::dropped(int timeout_ms) {
    const auto end = steady::now() + milliseconds(timeout_ms);
    do {
        pollfd p{fd_, POLLIN, 0};
        const auto left = std::chrono::duration_cast<milliseconds>(end - steady::now()).count();
        if (left <= 0 || port_->poll(&p, 1, static_cast<int>(left)) < 0)
            return false;
        if (p.revents & POLLHUP)
            return true;
        tipc_event e;
        if (p.revents && port_->recv(fd_, &e, sizeof(e), MSG_DONTWAIT) == 0)
            return true;
    } while (true);
}

std::string text(const tipc_event &event) {
    const char *kinds = "?PWT";
    std::string t(1, kinds[event.event < 4 ? event.event : 0]);
    return t + "[" + std::to_string(event.found_lower) + "," + std::to_string(event.found_upper) + "]";
}

std::vector<std::string> texts(const std::vector<tipc_event> &events) {
    std::vector<std::string> all;
    for (const tipc_event &e : events)
        all.push_back(text(e));
    return all;
}

} // namespace port_test
