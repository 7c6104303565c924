// qel-test-raw: sockets of the transport, driven line by line. It stands beside the library on the same
// transport and sees and sends what a foreign member of the cluster could: any bytes to any name.
//
// Each line of its input is "TAG COMMAND ARGUMENT...", answered by one line "= TAG RESULT...":
//   socket                               a socket for datagrams; its number
//   topology                             a connection to the topology server; its number
//   bind S TYPE LOWER UPPER              "RESULT ERRNO", as all that follow
//   option S OPTION VALUE                of SOL_TIPC
//   send S TYPE INSTANCE HEX             HEX "-": no bytes
//   sendid S REF NODE HEX
//   subscribe S TYPE LOWER UPPER TIMEOUT FILTER
//   write S HEX                          bytes to the topology server
//   flood S TYPE INSTANCE COUNT SEED KIND HEX    "SENT FAILED"
//       KIND random: any bytes; bits: HEX with some bits changed; tail: HEX and random bytes, its length
//       field right; same: HEX; peers: HEX as from another node each time
//   gone S                               closes it
// and events "! ...":
//   msg S REF:NODE HEX                   a message; the first 2000 bytes
//   returned S CODE HEX                  one of ours that came back
//   event S WHAT LOWER UPPER REF:NODE    of the topology server
//   end S                                it closed the connection
#include "qel_port.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <linux/tipc.h>
#include <pthread.h>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr size_t shown_max = 2000;
constexpr int sockets_max = 256;
using bytes = std::vector<unsigned char>;

const qel_port *g_port;
int g_fds[sockets_max];
int g_count = 0;

std::string hex_of(const void *data, size_t len) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < std::min(len, shown_max); i++) {
        const unsigned char c = static_cast<const unsigned char *>(data)[i];
        text += digits[c >> 4];
        text += digits[c & 15];
    }
    return text.empty() ? "-" : text;
}

bytes bytes_of(const std::string &text) {
    bytes data;
    for (size_t i = 0; text != "-" && i + 1 < text.size(); i += 2)
        data.push_back(static_cast<unsigned char>(strtoul(text.substr(i, 2).c_str(), nullptr, 16)));
    return data;
}

void say(const std::string &text) {
    const std::string line = text + "\n";
    fwrite(line.data(), 1, line.size(), stdout); // one call, so that lines of several threads do not mix
}

std::string number(long value) { return std::to_string(value); }

// ---- receiving: a thread for each socket ------------------------------------------------------------------

bool one_message(int s, int fd) {
    static thread_local unsigned char data[66000];
    alignas(cmsghdr) char control[2048];
    sockaddr_tipc from{};
    iovec vec{data, sizeof data};
    msghdr head{};
    head.msg_name = &from;
    head.msg_namelen = sizeof from;
    head.msg_iov = &vec;
    head.msg_iovlen = 1;
    head.msg_control = control;
    head.msg_controllen = sizeof control;
    const ssize_t len = g_port->recvmsg(fd, &head, MSG_DONTWAIT);
    if (len < 0)
        return errno == EAGAIN || errno == EINTR;
    uint32_t error[2] = {0, 0};
    std::string returned;
    for (cmsghdr *c = CMSG_FIRSTHDR(&head); c != nullptr; c = CMSG_NXTHDR(&head, c)) {
        if (c->cmsg_type == TIPC_ERRINFO)
            memcpy(error, CMSG_DATA(c), sizeof error);
        else if (c->cmsg_type == TIPC_RETDATA)
            returned = hex_of(CMSG_DATA(c), c->cmsg_len - CMSG_LEN(0));
    }
    if (error[0] != 0)
        say("! returned " + number(s) + " " + number(error[0]) + " " + (returned.empty() ? "-" : returned));
    else
        say("! msg " + number(s) + " " + number(from.addr.id.ref) + ":" + number(from.addr.id.node) + " " +
            hex_of(data, static_cast<size_t>(len)));
    return true;
}

bool one_event(int s, int fd) {
    tipc_event event;
    const ssize_t len = g_port->recv(fd, &event, sizeof event, MSG_DONTWAIT);
    if (len < 0)
        return errno == EAGAIN || errno == EINTR;
    if (len == 0)
        return false;
    say("! event " + number(s) + " " + number(event.event) + " " + number(event.found_lower) + " " +
        number(event.found_upper) + " " + number(event.port.ref) + ":" + number(event.port.node));
    return true;
}

void *receive(void *arg) {
    const auto s = static_cast<int>(reinterpret_cast<intptr_t>(arg)) >> 1;
    const bool topology = (reinterpret_cast<intptr_t>(arg) & 1) != 0;
    for (;;) {
        pollfd entry{g_fds[s], POLLIN, 0};
        if (g_port->poll(&entry, 1, -1) < 0 && errno != EINTR)
            break;
        if (entry.revents != 0 && !(topology ? one_event(s, entry.fd) : one_message(s, entry.fd)))
            break;
    }
    say("! end " + number(s));
    return nullptr;
}

int add_socket(bool topology) {
    if (g_count == sockets_max)
        return -1;
    const int fd = g_port->socket(AF_TIPC, topology ? SOCK_SEQPACKET : SOCK_RDM, 0);
    if (fd < 0)
        return -1;
    int off = 0;
    if (topology) {
        sockaddr_tipc server{};
        server.family = AF_TIPC;
        server.addrtype = TIPC_ADDR_NAME;
        server.addr.name.name = {TIPC_TOP_SRV, TIPC_TOP_SRV};
        if (g_port->connect(fd, reinterpret_cast<sockaddr *>(&server), sizeof server) != 0)
            return -1;
    } else if (g_port->setsockopt(fd, SOL_TIPC, TIPC_DEST_DROPPABLE, &off, sizeof off) != 0) {
        return -1;
    }
    g_fds[g_count] = fd;
    pthread_t thread;
    const intptr_t arg = static_cast<intptr_t>(g_count) << 1 | (topology ? 1 : 0);
    if (pthread_create(&thread, nullptr, receive, reinterpret_cast<void *>(arg)) != 0)
        return -1;
    pthread_detach(thread);
    return g_count++;
}

// ---- sending ----------------------------------------------------------------------------------------------

ssize_t send_to_name(int fd, uint32_t type, uint32_t instance, const bytes &data) {
    sockaddr_tipc to{};
    to.family = AF_TIPC;
    to.addrtype = TIPC_ADDR_NAME;
    to.scope = TIPC_CLUSTER_SCOPE;
    to.addr.name.name = {type, instance};
    return g_port->sendto(fd, data.data(), data.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
}

void put_be32(bytes &data, size_t at, uint32_t value) {
    for (size_t i = 0; i < 4 && at + i < data.size(); i++)
        data[at + i] = static_cast<unsigned char>(value >> (24 - 8 * i));
}

bytes hostile(std::mt19937 &dice, const std::string &kind, const bytes &model, uint32_t count) {
    if (kind == "random") {
        bytes data(1 + dice() % 700);
        for (auto &c : data)
            c = static_cast<unsigned char>(dice());
        if (dice() % 2 == 0)
            put_be32(data, 4, static_cast<uint32_t>(data.size())); // else nothing passes the length check
        return data;
    }
    bytes data = model;
    if (kind == "peers") {
        put_be32(data, 8, count & 0xFFFF);
    } else if (kind == "bits") {
        for (uint32_t flips = 1 + dice() % 8; flips > 0; flips--)
            data[dice() % data.size()] ^= static_cast<unsigned char>(1u << dice() % 8);
        if (dice() % 4 != 0)
            put_be32(data, 4, static_cast<uint32_t>(data.size()));
    } else if (kind == "tail") {
        for (uint32_t more = dice() % 64; more > 0; more--)
            data.push_back(static_cast<unsigned char>(dice() % 3 == 0 ? dice() : dice() % 10));
        put_be32(data, 4, static_cast<uint32_t>(data.size()));
    }
    return data;
}

// ---- commands ---------------------------------------------------------------------------------------------

using words = std::vector<std::string>;

uint32_t value(const words &w, size_t i) {
    return static_cast<uint32_t>(i < w.size() ? strtoul(w[i].c_str(), nullptr, 0) : 0);
}

std::string outcome(ssize_t result) { return number(result) + " " + number(result < 0 ? errno : 0); }

std::string flood(int fd, const words &w) {
    std::mt19937 dice(value(w, 6));
    const bytes model = bytes_of(w[8]);
    uint32_t sent = 0, failed = 0;
    for (uint32_t i = 0; i < value(w, 5); i++)
        (send_to_name(fd, value(w, 3), value(w, 4), hostile(dice, w[7], model, i)) >= 0 ? sent : failed)++;
    return number(sent) + " " + number(failed);
}

std::string execute(const words &w) {
    const std::string &what = w[1];
    if (what == "socket" || what == "topology")
        return number(add_socket(what == "topology"));
    const uint32_t s = value(w, 2);
    if (w.size() < 3 || s >= static_cast<uint32_t>(g_count))
        return "? no such socket";
    const int fd = g_fds[s];
    if (what == "bind" && w.size() == 6) {
        sockaddr_tipc name{};
        name.family = AF_TIPC;
        name.addrtype = TIPC_ADDR_NAMESEQ;
        name.scope = TIPC_CLUSTER_SCOPE;
        name.addr.nameseq = {value(w, 3), value(w, 4), value(w, 5)};
        return outcome(g_port->bind(fd, reinterpret_cast<sockaddr *>(&name), sizeof name));
    }
    if (what == "option" && w.size() == 5) {
        const uint32_t setting = value(w, 4);
        return outcome(
            g_port->setsockopt(fd, SOL_TIPC, static_cast<int>(value(w, 3)), &setting, sizeof setting));
    }
    if (what == "send" && w.size() == 6)
        return outcome(send_to_name(fd, value(w, 3), value(w, 4), bytes_of(w[5])));
    if (what == "sendid" && w.size() == 6) {
        sockaddr_tipc to{};
        to.family = AF_TIPC;
        to.addrtype = TIPC_ADDR_ID;
        to.addr.id = {value(w, 3), value(w, 4)};
        const bytes data = bytes_of(w[5]);
        return outcome(
            g_port->sendto(fd, data.data(), data.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to));
    }
    if (what == "subscribe" && w.size() == 8) {
        const tipc_subscr subscription{{value(w, 3), value(w, 4), value(w, 5)}, value(w, 6), value(w, 7), {}};
        return outcome(g_port->send(fd, &subscription, sizeof subscription, MSG_NOSIGNAL));
    }
    if (what == "write" && w.size() == 4) {
        const bytes data = bytes_of(w[3]);
        return outcome(g_port->send(fd, data.data(), data.size(), MSG_NOSIGNAL));
    }
    if (what == "flood" && w.size() == 9)
        return flood(fd, w);
    if (what == "gone")
        return outcome(g_port->close(fd));
    return "? unknown command or wrong number of arguments";
}

} // namespace

int main() {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    g_port = &qel_port_get();
    say("! raw");
    char *line = nullptr;
    size_t size = 0;
    while (getline(&line, &size, stdin) >= 0) {
        words w;
        char *rest = line;
        for (char *word; (word = strtok_r(rest, " \n", &rest)) != nullptr;)
            w.emplace_back(word);
        if (w.size() >= 2)
            say("= " + w[0] + " " + execute(w));
    }
    free(line);
    return 0;
}
