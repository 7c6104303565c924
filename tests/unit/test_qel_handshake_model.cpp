// The handshake explored: several processes of the bus, a network that delivers in any order, rejects, and
// processes that crash and come back. The processes run the library's own code.
//
// The library keeps its state in one global. Each process of the model has its own image of it, which is put
// in place while that process takes a step; no thread of the library runs, the steps are called one by one.
// What a process knows besides (presence bits, process IDs, pending syncs, resumes, resends) is written out
// after each step into a state of the whole world that can be compared, kept and put back. So the exploration
// visits each state once and never repeats a path.
//
// The network: a name table per node that learns of names with any delay; a stream of topology events per
// process; a channel per pair of sockets, in order, but independent of all others; messages that a full queue
// rejects (code 4), that die with their receiver (code 2), that arrive after it (code 1, or at its successor)
// or that are lost with it. Timers pass in any order when nothing else is under way, those of a second also
// before.
//
// QEL_MODEL_CRASHES, QEL_MODEL_RETURNS, QEL_MODEL_EARLY, QEL_MODEL_STATES and QEL_MODEL_SEED widen a run.
#include <algorithm>
#include <array>
#include <cstdarg>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include <sys/syscall.h>

#include "qel_app_info.h"
#include "qel_capture.h"
#include "qel_mng_int.h"
#include "qel_mng_msg.h"
#include "qel_node.h"
#include "qel_port.h"
#include "qel_tlv.h"
#include "qel_user_proxy.h"
#include "qel_world.h"

namespace {

constexpr uint32_t node = 1; // of all: nothing here depends on it
#ifdef __SANITIZE_THREAD__
constexpr uint32_t slower = 4; // one thread has nothing to show to this sanitizer
#else
constexpr uint32_t slower = 1;
#endif
constexpr uint32_t counter_shown = 500; // of tries that are left: more than a run uses up

// ---- what the world is made of ---------------------------------------------------------------------------

// Which applications there are, in which processes, and who talks to whom.
struct layout {
    unsigned procs = 0;
    struct app {
        uint32_t id;
        unsigned proc;
    };
    std::vector<app> apps;
    std::vector<std::pair<unsigned, unsigned>> pairs; // of indexes into apps, each in both directions
    // One subscriber per peer and process: online means joined, and there is no quit without a join.
    bool strict = true;

    bool talk(unsigned a, unsigned b) const {
        return std::any_of(pairs.begin(), pairs.end(), [=](const auto &p) {
            return p == std::pair{a, b} || p == std::pair{b, a};
        });
    }
};

struct message {
    uint8_t type = 0; // QEL_TLV_SYNC, QEL_TLV_SYNC_ACK
    uint32_t seq = 0, pid = 0, server = 0, resume = 0;
    bool orphan = false; // its sender is gone: nobody gets it back
};
struct pending { // a sync without acknowledgement, or something to be sent again
    unsigned src = 0, dst = 0;
    message msg;
    uint32_t timer_seq = 0;
};
struct resuming {
    unsigned peer = 0;
    uint32_t seq = 0;
};
struct timer {
    uint32_t type = 0, seq = 0;
};
struct event {
    unsigned app = 0;
    bool published = false;
};
struct process {
    bool alive = false;
    uint32_t pid = 0;
    std::vector<event> events;
    std::vector<timer> timers;
    std::vector<uint8_t> names;                    // per application: in this node's table
    std::vector<uint8_t> bits;                     // per application: 1 server, 2 instance, 4 acked, 8 online
    std::vector<uint32_t> sync_id, ack_id, joined; // per pair of applications
    std::vector<pending> unacks, resends;
    std::vector<resuming> resumes;
};
struct world {
    std::vector<process> procs;
    std::vector<std::vector<message>> wire;   // per pair of applications
    std::vector<std::vector<uint8_t>> naming; // per application and process: 1 published, 0 withdrawn
    std::vector<std::vector<std::pair<message, unsigned>>> returned; // per application: and to which
    uint32_t crashes = 0, rejects = 0, early = 0;                    // that may still happen
    uint32_t last_pid = 0;
};

template <class T> T take_first(std::vector<T> &queue) {
    const T first = queue.front();
    queue.erase(queue.begin());
    return first;
}

enum class what { name, topology, deliver, reject, come_back, timer, crash, restart };
struct choice {
    what kind = what::name;
    unsigned a = 0, b = 0;
};

// ---- the library in the middle of it ---------------------------------------------------------------------

const layout *g_layout;
world *g_world;
unsigned g_proc;     // whose image is in place
std::string g_fault; // what went wrong in a step
// Never destroyed: what the images point to is reachable until the end.
std::vector<std::vector<unsigned char>> &g_images = *new std::vector<std::vector<unsigned char>>;
struct {
    bool back = false;
    uint32_t code = 0;
    qel_fake::bytes bytes;
} g_inject; // what the next receive gives

unsigned n_apps() { return static_cast<unsigned>(g_layout->apps.size()); }
size_t at(unsigned a, unsigned b) { return size_t{a} * n_apps() + b; }
unsigned index_of(uint32_t id) {
    for (unsigned i = 0; i < n_apps(); i++)
        if (g_layout->apps[i].id == id)
            return i;
    abort();
}
process &me() { return g_world->procs[g_proc]; }

qel_fake::bytes bytes_of(const message &m, unsigned src, unsigned dst) {
    return wire({.flags = QEL_FLAG_SYNC,
                 .src_app = g_layout->apps[src].id,
                 .src_node = node,
                 .dst_app = g_layout->apps[dst].id,
                 .dst_node = node},
                tlv(m.type, {m.seq, m.pid, m.server, m.resume, counter_shown}));
}
message message_of(const qel_fake::bytes &data) {
    const qel_seen s = unwire(data);
    if (data.size() != 60 || s.hdr.flags != QEL_FLAG_SYNC || s.data[1] != 24)
        g_fault = "something else than a sync was sent";
    message m;
    m.type = s.data.at(3);
    m.seq = be32_at(s.data, 4);
    m.pid = be32_at(s.data, 8);
    m.server = be32_at(s.data, 12);
    m.resume = be32_at(s.data, 16);
    return m;
}

int model_socket(int, int, int) {
    static int next = 1000;
    return next++;
}
int model_bind(int, const sockaddr *, socklen_t) { return 0; }
int model_setsockopt(int, int, int, const void *, socklen_t) { return 0; }
int model_getsockopt(int, int, int, void *value, socklen_t *) {
    const int type = SOCK_RDM;
    memcpy(value, &type, sizeof type);
    return 0;
}
ssize_t model_sendto(int fd, const void *data, size_t len, int, const sockaddr *to, socklen_t) {
    sockaddr_tipc addr;
    memcpy(&addr, to, sizeof addr);
    const unsigned dst = index_of(addr.addr.name.name.instance >> 16);
    unsigned src = n_apps();
    for (unsigned i = 0; i < n_apps(); i++)
        if (g_layout->apps[i].proc == g_proc && qel_get_app_sd(g_layout->apps[i].id) == fd)
            src = i;
    if (src == n_apps())
        abort();
    if (!me().names[dst]) {
        errno = EHOSTUNREACH;
        return -1;
    }
    const auto *b = static_cast<const uint8_t *>(data);
    g_world->wire[at(src, dst)].push_back(message_of({b, b + len}));
    return static_cast<ssize_t>(len);
}
ssize_t model_send(int, const void *data, size_t len, int) {
    tipc_subscr s;
    if (len != sizeof s)
        abort();
    memcpy(&s, data, sizeof s);
    if (s.seq.type == 1)
        me().timers.push_back({qel_load_host32(s.usr_handle), qel_load_host32(s.usr_handle + 4)});
    return static_cast<ssize_t>(len);
}
ssize_t model_recvmsg(int, msghdr *msg, int) {
    if (!g_inject.back) {
        memcpy(msg->msg_iov[0].iov_base, g_inject.bytes.data(), g_inject.bytes.size());
        msg->msg_controllen = 0;
        return static_cast<ssize_t>(g_inject.bytes.size());
    }
    auto *to = static_cast<unsigned char *>(msg->msg_control);
    size_t used = 0;
    auto put = [&](int type, const void *data, size_t size) {
        cmsghdr head{};
        head.cmsg_len = CMSG_LEN(size);
        head.cmsg_level = SOL_TIPC;
        head.cmsg_type = type;
        memcpy(to + used, &head, sizeof head);
        memcpy(to + used + CMSG_LEN(0), data, size);
        used += CMSG_SPACE(size);
    };
    const uint32_t info[2] = {g_inject.code, static_cast<uint32_t>(g_inject.bytes.size())};
    put(TIPC_ERRINFO, info, sizeof info);
    put(TIPC_RETDATA, g_inject.bytes.data(), g_inject.bytes.size());
    msg->msg_controllen = used;
    return 0;
}
ssize_t model_recv(int, void *, size_t, int) { abort(); }
int model_poll(pollfd *, nfds_t, int) { abort(); }
int model_close(int) { return 0; }
int model_fcntl(int, int, long) { return 0; }

constexpr qel_port model_port = {
    .name = "model",
    .socket = model_socket,
    .bind = model_bind,
    .connect = model_bind,
    .setsockopt = model_setsockopt,
    .getsockopt = model_getsockopt,
    .sendto = model_sendto,
    .send = model_send,
    .recvmsg = model_recvmsg,
    .recv = model_recv,
    .poll = model_poll,
    .shutdown = [](int, int) { return 0; },
    .close = model_close,
    .fcntl = model_fcntl,
};

int no_thread(pthread_t *thread, void *(*)(void *), void *) { // one that ends at once
    return pthread_create(
        thread, nullptr, [](void *) -> void * { return nullptr; }, nullptr);
}

// A second join without a quit in between tells the application nothing new. It happens when a process that
// was asked to resume has two syncs under way to the one who asked, and both are acknowledged.
void on_event(qel_app_event e) {
    uint32_t &joined = me().joined[at(index_of(e.app_id), index_of(e.peer_app))];
    if (e.event == QEL_EVENT_QUIT && joined == 0 && g_layout->strict)
        g_fault = qel_format("application %u: a quit of %u without a join", e.app_id, e.peer_app);
    joined = e.event == QEL_EVENT_JOIN ? 1 : 0;
}

// ---- a process's knowledge, into the library and out of it -----------------------------------------------

qel_msg *kept_msg(const pending &p) {
    const qel_fake::bytes b = bytes_of(p.msg, p.src, p.dst);
    qel_msg *msg = qel_msg_alloc(24, 1, 0);
    memcpy(&msg->hdr, b.data(), b.size());
    qel_hdr_to_host(&msg->hdr, b.size());
    msg->hdr.seq = p.timer_seq;
    return msg;
}
pending pending_of(qel_msg *msg) {
    pending p;
    p.src = index_of(msg->hdr.src_app);
    p.dst = index_of(msg->hdr.dst_app);
    p.timer_seq = msg->hdr.seq;
    const qel_sync_wire *w = qel_sync_of(msg);
    p.msg.type = static_cast<const uint8_t *>(qel_msg_data(msg))[3];
    p.msg.seq = qel_load_be32(w->seq);
    p.msg.pid = qel_load_be32(w->pid);
    p.msg.server = qel_load_be32(w->server);
    p.msg.resume = qel_load_be32(w->resume);
    return p;
}
void set_bit(qel_node_map &map, bool on) {
    if (on)
        map.set(node);
    else
        map.clear(node);
}

// The image of the process in place of the library's state, filled with what it knows.
void enter(unsigned proc) {
    g_proc = proc;
    memcpy(static_cast<void *>(&g_qel_mng), g_images[proc].data(), sizeof g_qel_mng);
    const process &p = me();
    for (unsigned a = 0; a < n_apps(); a++)
        for (unsigned b = 0; b < n_apps(); b++) {
            if (p.sync_id[at(a, b)])
                qel_update_inst_sync_id(g_layout->apps[a].id, g_layout->apps[b].id, node,
                                        p.sync_id[at(a, b)]);
            if (p.ack_id[at(a, b)])
                qel_update_inst_sync_ack_id(g_layout->apps[a].id, g_layout->apps[b].id, node,
                                            p.ack_id[at(a, b)]);
        }
    qel_lock lock(g_lib_mutex);
    for (unsigned a = 0; a < n_apps(); a++)
        if (qel_comm_app *peer = __qel_find_comm_app(g_layout->apps[a].id)) {
            set_bit(peer->servers, p.bits[a] & 1);
            set_bit(peer->instances, p.bits[a] & 2);
            set_bit(peer->acked, p.bits[a] & 4);
            set_bit(peer->online, p.bits[a] & 8);
        }
    for (const pending &u : p.unacks)
        __qel_add_inst_sync_msg(kept_msg(u));
    for (const resuming &r : p.resumes) {
        auto *resume = qel_new<qel_resume_comm>();
        resume->timer_seq = r.seq;
        resume->peer_app = g_layout->apps[r.peer].id;
        resume->peer_node = node;
        g_qel_mng.resumes.push_back(resume);
        g_qel_mng.resume_index.insert(resume, qel_peer_key(resume->peer_app, node));
    }
    for (const pending &r : p.resends) {
        auto *resend = qel_new<qel_resend_sync>();
        resend->msg = kept_msg(r);
        g_qel_mng.resends.push_back(resend);
        g_qel_mng.resend_index.insert(resend, r.timer_seq);
    }
}

void leave() {
    process &p = me();
    qel_lock lock(g_lib_mutex);
    for (unsigned a = 0; a < n_apps(); a++)
        if (qel_comm_app *peer = __qel_find_comm_app(g_layout->apps[a].id))
            p.bits[a] = static_cast<uint8_t>(
                (peer->servers.test(node) ? 1 : 0) | (peer->instances.test(node) ? 2 : 0) |
                (peer->acked.test(node) ? 4 : 0) | (peer->online.test(node) ? 8 : 0));
    for (unsigned a = 0; a < n_apps(); a++)
        for (unsigned b = 0; b < n_apps(); b++)
            if (qel_inst_sync_id *ids =
                    __qel_find_inst_sync_id(g_layout->apps[a].id, g_layout->apps[b].id, node)) {
                p.sync_id[at(a, b)] = ids->sync_id;
                p.ack_id[at(a, b)] = ids->ack_id;
                g_qel_mng.sync_ids.remove(ids);
                qel_delete(ids);
            }
    p.unacks.clear();
    while (qel_unack_sync *u = g_qel_mng.unacks.front()) {
        p.unacks.push_back(pending_of(u->msg));
        g_qel_mng.unacks.unlink(u);
        g_qel_mng.unack_index.remove(u);
        free(u->msg);
        qel_delete(u);
    }
    p.resumes.clear();
    while (qel_resume_comm *r = g_qel_mng.resumes.front()) {
        p.resumes.push_back({index_of(r->peer_app), r->timer_seq});
        g_qel_mng.resumes.unlink(r);
        g_qel_mng.resume_index.remove(r);
        qel_delete(r);
    }
    p.resends.clear();
    while (qel_resend_sync *r = g_qel_mng.resends.front()) {
        p.resends.push_back(pending_of(r->msg));
        g_qel_mng.resends.unlink(r);
        g_qel_mng.resend_index.remove(r);
        free(r->msg);
        qel_delete(r);
    }
    if (g_qel_mng.sync_ids.size() || g_qel_mng.unack_index.size() || g_qel_mng.resume_index.size() ||
        g_qel_mng.resend_index.size())
        g_fault = "an index holds what no list holds";
    memcpy(g_images[g_proc].data(), static_cast<const void *>(&g_qel_mng), sizeof g_qel_mng);
    // a timer that nothing waits for does nothing when it expires
    std::erase_if(p.timers, [&p](const timer &t) {
        const auto waits = [&t](const auto &r) { return r.seq == t.seq; };
        const auto resent = [&t](const pending &r) { return r.timer_seq == t.seq; };
        return t.type == QEL_TIMER_RESUME ? std::none_of(p.resumes.begin(), p.resumes.end(), waits)
                                          : std::none_of(p.resends.begin(), p.resends.end(), resent);
    });
}

// ---- steps -----------------------------------------------------------------------------------------------

void topology_step(unsigned proc, uint32_t kind, uint32_t lower, uint32_t upper, uint32_t type,
                   uint32_t seq) {
    tipc_event e{};
    e.event = kind;
    e.found_lower = lower;
    e.found_upper = upper;
    e.s.seq = {2303, lower & 0xFFFF0000, lower | 0xFFFF};
    if (kind == TIPC_SUBSCR_TIMEOUT) {
        memcpy(e.s.usr_handle, &type, 4);
        memcpy(e.s.usr_handle + 4, &seq, 4);
    }
    enter(proc);
    qel_rx_topology_event(&e);
    leave();
}

void receive_step(unsigned app) {
    enter(g_layout->apps[app].proc);
    uint32_t slot = 0;
    while (g_qel_mng.apps[slot].app_id.load() != g_layout->apps[app].id)
        slot++;
    qel_rx_app_socket(slot);
    leave();
}

void give_back(const message &m, unsigned src, unsigned dst) {
    if (!m.orphan && g_world->procs[g_layout->apps[src].proc].alive)
        g_world->returned[src].emplace_back(m, dst);
}

bool subscribed(unsigned proc, unsigned peer) {
    for (unsigned a = 0; a < n_apps(); a++)
        if (g_layout->apps[a].proc == proc && g_layout->talk(a, peer))
            return true;
    return false;
}

void set_name(unsigned proc, unsigned app, bool on) {
    process &p = g_world->procs[proc];
    if (p.names[app] == on)
        return;
    p.names[app] = on;
    if (p.alive && subscribed(proc, app))
        p.events.push_back({app, on});
}

void forget(process &p) {
    p.events.clear();
    p.timers.clear();
    p.unacks.clear();
    p.resends.clear();
    p.resumes.clear();
    std::fill(p.bits.begin(), p.bits.end(), uint8_t{0});
    for (std::vector<uint32_t> *v : {&p.sync_id, &p.ack_id, &p.joined})
        std::fill(v->begin(), v->end(), 0u);
}

void crash(unsigned proc, unsigned how) {
    process &p = g_world->procs[proc];
    p.alive = false;
    for (unsigned a = 0; a < n_apps(); a++) {
        if (g_layout->apps[a].proc != proc)
            continue;
        for (unsigned b = 0; b < n_apps(); b++) {
            for (message &m : g_world->wire[at(a, b)])
                m.orphan = true;
            std::vector<message> &to_it = g_world->wire[at(b, a)];
            if (how == 0)
                for (const message &m : to_it)
                    give_back(m, b, a);
            if (how != 2)
                to_it.clear();
        }
        g_world->returned[a].clear();
        for (unsigned q = 0; q < g_layout->procs; q++)
            if (q == proc)
                set_name(q, a, false);
            else
                g_world->naming[a * g_layout->procs + q].push_back(0);
    }
    forget(p);
}

void restart(unsigned proc, bool new_pid) {
    process &p = g_world->procs[proc];
    p.alive = true;
    if (new_pid || p.pid == 0)
        p.pid = ++g_world->last_pid;
    for (unsigned a = 0; a < n_apps(); a++)
        if (p.names[a] && subscribed(proc, a))
            p.events.push_back({a, true});
    for (unsigned a = 0; a < n_apps(); a++) {
        if (g_layout->apps[a].proc != proc)
            continue;
        for (unsigned q = 0; q < g_layout->procs; q++)
            if (q == proc)
                set_name(q, a, true);
            else
                g_world->naming[a * g_layout->procs + q].push_back(1);
    }
}

void expire(unsigned proc, unsigned index) {
    process &p = g_world->procs[proc];
    const timer t = p.timers[index];
    p.timers.erase(p.timers.begin() + index);
    topology_step(proc, TIPC_SUBSCR_TIMEOUT, 0, 0, t.type, t.seq);
}

bool under_way() {
    for (const auto &q : g_world->naming)
        if (!q.empty())
            return true;
    for (const auto &q : g_world->wire)
        if (!q.empty())
            return true;
    for (const auto &q : g_world->returned)
        if (!q.empty())
            return true;
    return std::any_of(g_world->procs.begin(), g_world->procs.end(),
                       [](const process &p) { return p.alive && !p.events.empty(); });
}

// Everything that can happen now; without @faults only what must.
std::vector<choice> choices(bool faults) {
    std::vector<choice> all;
    const world &w = *g_world;
    for (unsigned a = 0; a < n_apps(); a++)
        for (unsigned q = 0; q < g_layout->procs; q++)
            if (!w.naming[a * g_layout->procs + q].empty())
                all.push_back({what::name, a, q});
    for (unsigned p = 0; p < g_layout->procs; p++)
        if (w.procs[p].alive && !w.procs[p].events.empty())
            all.push_back({what::topology, p, 0});
    for (unsigned a = 0; a < n_apps(); a++)
        if (!w.returned[a].empty())
            all.push_back({what::come_back, a, 0});
    for (unsigned a = 0; a < n_apps(); a++)
        for (unsigned b = 0; b < n_apps(); b++)
            if (!w.wire[at(a, b)].empty()) {
                all.push_back({what::deliver, a, b});
                if (faults && w.rejects && w.procs[g_layout->apps[b].proc].alive)
                    all.push_back({what::reject, a, b});
            }
    for (unsigned p = 0; p < g_layout->procs; p++) {
        if (!w.procs[p].alive) {
            all.push_back({what::restart, p, 1});
            if (faults && w.procs[p].pid)
                all.push_back({what::restart, p, 0});
        } else if (faults && w.crashes) {
            bool expected = false;
            for (unsigned a = 0; a < n_apps(); a++)
                for (unsigned b = 0; b < n_apps(); b++)
                    expected = expected || (g_layout->apps[b].proc == p && !w.wire[at(a, b)].empty());
            for (unsigned how = 0; how < (expected ? 3u : 1u); how++)
                all.push_back({what::crash, p, how});
        }
    }
    const bool quiet = !under_way();
    for (const uint32_t type : {QEL_TIMER_RESEND, QEL_TIMER_RESUME})
        for (unsigned p = 0; p < g_layout->procs; p++)
            for (unsigned t = 0; t < w.procs[p].timers.size(); t++)
                if (w.procs[p].timers[t].type == type) { // the oldest of its kind
                    if (quiet || (faults && w.early && type == QEL_TIMER_RESEND))
                        all.push_back({what::timer, p, t});
                    break;
                }
    return all;
}

void take(const choice &c) {
    world &w = *g_world;
    switch (c.kind) {
    case what::name: {
        std::vector<uint8_t> &q = w.naming[c.a * g_layout->procs + c.b];
        set_name(c.b, c.a, take_first(q) != 0);
        break;
    }
    case what::topology: {
        const event e = take_first(w.procs[c.a].events);
        const uint32_t instance = g_layout->apps[e.app].id << 16 | node;
        topology_step(c.a, e.published ? TIPC_PUBLISHED : TIPC_WITHDRAWN, instance, instance, 0, 0);
        break;
    }
    case what::deliver: {
        std::vector<message> &q = w.wire[at(c.a, c.b)];
        const message m = take_first(q);
        if (!w.procs[g_layout->apps[c.b].proc].alive) {
            give_back(m, c.a, c.b);
            break;
        }
        g_inject = {false, 0, bytes_of(m, c.a, c.b)};
        receive_step(c.b);
        break;
    }
    case what::reject: {
        std::vector<message> &q = w.wire[at(c.a, c.b)];
        w.rejects--;
        give_back(take_first(q), c.a, c.b);
        break;
    }
    case what::come_back: {
        const auto [m, dst] = take_first(w.returned[c.a]);
        g_inject = {true, 4, bytes_of(m, c.a, dst)};
        receive_step(c.a);
        break;
    }
    case what::timer:
        if (under_way())
            w.early--;
        expire(c.a, c.b);
        break;
    case what::crash:
        w.crashes--;
        crash(c.a, c.b);
        break;
    case what::restart:
        restart(c.a, c.b);
        break;
    }
}

std::string text_of(const choice &c) {
    const auto app = [](unsigned i) { return g_layout->apps[i].id; };
    switch (c.kind) {
    case what::name:
        return qel_format("the node of process %u learns about the name of %u", c.b, app(c.a));
    case what::topology:
        return qel_format("process %u reads a topology event", c.a);
    case what::deliver:
        return qel_format("a message of %u reaches %u", app(c.a), app(c.b));
    case what::reject:
        return qel_format("a message of %u is rejected by %u", app(c.a), app(c.b));
    case what::come_back:
        return qel_format("%u gets a message back", app(c.a));
    case what::timer:
        return qel_format("timer %u of process %u expires", c.b, c.a);
    case what::crash:
        return qel_format("process %u crashes, messages to it are %s", c.a,
                          c.b == 0   ? "returned"
                          : c.b == 1 ? "lost"
                                     : "still under way");
    case what::restart:
        return qel_format("process %u starts with %s process ID", c.a, c.b ? "a new" : "the same");
    }
    return "";
}

// ---- the state of the world as bytes ---------------------------------------------------------------------

struct writer {
    std::string out;
    std::vector<uint32_t> seqs; // in the order they were met: the n-th becomes n
    void u8(uint64_t v) { out += static_cast<char>(v); }
    void seq(uint32_t v) {
        if (v == 0) {
            u8(0);
            return;
        }
        const auto it = std::find(seqs.begin(), seqs.end(), v);
        u8(static_cast<uint64_t>(it - seqs.begin()) + 1);
        if (it == seqs.end())
            seqs.push_back(v);
    }
    void msg(const message &m) {
        u8(m.type);
        seq(m.seq);
        u8(m.pid);
        u8(m.server);
        u8(m.resume);
        u8(m.orphan);
    }
};
struct reader {
    const std::string &in;
    size_t pos = 0;
    uint32_t u8() { return static_cast<uint8_t>(in[pos++]); }
    message msg() {
        message m;
        m.type = static_cast<uint8_t>(u8());
        m.seq = u8();
        m.pid = u8();
        m.server = u8();
        m.resume = u8();
        m.orphan = u8();
        return m;
    }
};

std::string pack(const world &w) {
    writer o;
    for (const process &p : w.procs) {
        o.u8(p.alive);
        o.u8(p.pid);
        o.u8(p.events.size());
        for (const event &e : p.events)
            o.u8(e.app << 1 | (e.published ? 1u : 0u));
        for (const uint8_t n : p.names)
            o.u8(n);
        for (const uint8_t b : p.bits)
            o.u8(b);
        for (const std::vector<uint32_t> *v : {&p.sync_id, &p.ack_id, &p.joined})
            for (const uint32_t x : *v)
                o.u8(x);
        for (const std::vector<pending> *v : {&p.unacks, &p.resends}) {
            o.u8(v->size());
            for (const pending &x : *v) {
                o.u8(x.src);
                o.u8(x.dst);
                o.msg(x.msg);
                o.seq(x.timer_seq);
            }
        }
        o.u8(p.resumes.size());
        for (const resuming &r : p.resumes) {
            o.u8(r.peer);
            o.seq(r.seq);
        }
        o.u8(p.timers.size());
        for (const timer &t : p.timers) {
            o.u8(t.type);
            o.seq(t.seq);
        }
    }
    for (const auto &q : w.wire) {
        o.u8(q.size());
        for (const message &m : q)
            o.msg(m);
    }
    for (const auto &q : w.naming) {
        o.u8(q.size());
        for (const uint8_t n : q)
            o.u8(n);
    }
    for (const auto &q : w.returned) {
        o.u8(q.size());
        for (const auto &[m, dst] : q) {
            o.msg(m);
            o.u8(dst);
        }
    }
    o.u8(w.crashes);
    o.u8(w.rejects);
    o.u8(w.early);
    o.u8(w.last_pid);
    if (o.seqs.size() > 250)
        abort();
    return o.out;
}

world empty_world() {
    world w;
    w.procs.resize(g_layout->procs);
    for (process &p : w.procs) {
        p.names.resize(n_apps());
        p.bits.resize(n_apps());
        for (std::vector<uint32_t> *v : {&p.sync_id, &p.ack_id, &p.joined})
            v->resize(size_t{n_apps()} * n_apps());
    }
    w.wire.resize(size_t{n_apps()} * n_apps());
    w.naming.resize(size_t{n_apps()} * g_layout->procs);
    w.returned.resize(n_apps());
    return w;
}

world unpack(const std::string &s) {
    world w = empty_world();
    reader i{s};
    for (process &p : w.procs) {
        p.alive = i.u8();
        p.pid = i.u8();
        p.events.resize(i.u8());
        for (event &e : p.events) {
            const uint32_t v = i.u8();
            e = {v >> 1, (v & 1) != 0};
        }
        for (uint8_t &n : p.names)
            n = static_cast<uint8_t>(i.u8());
        for (uint8_t &b : p.bits)
            b = static_cast<uint8_t>(i.u8());
        for (std::vector<uint32_t> *v : {&p.sync_id, &p.ack_id, &p.joined})
            for (uint32_t &x : *v)
                x = i.u8();
        for (std::vector<pending> *v : {&p.unacks, &p.resends}) {
            v->resize(i.u8());
            for (pending &x : *v) {
                x.src = i.u8();
                x.dst = i.u8();
                x.msg = i.msg();
                x.timer_seq = i.u8();
            }
        }
        p.resumes.resize(i.u8());
        for (resuming &r : p.resumes) {
            r.peer = i.u8();
            r.seq = i.u8();
        }
        p.timers.resize(i.u8());
        for (timer &t : p.timers) {
            t.type = i.u8();
            t.seq = i.u8();
        }
    }
    for (auto &q : w.wire) {
        q.resize(i.u8());
        for (message &m : q)
            m = i.msg();
    }
    for (auto &q : w.naming) {
        q.resize(i.u8());
        for (uint8_t &n : q)
            n = static_cast<uint8_t>(i.u8());
    }
    for (auto &q : w.returned) {
        q.resize(i.u8());
        for (auto &[m, dst] : q) {
            m = i.msg();
            dst = i.u8();
        }
    }
    w.crashes = i.u8();
    w.rejects = i.u8();
    w.early = i.u8();
    w.last_pid = i.u8();
    if (i.pos != s.size())
        abort();
    return w;
}

// ---- what must hold --------------------------------------------------------------------------------------

// In every state; "" when it does.
std::string broken(const world &w) {
    if (!g_fault.empty())
        return g_fault;
    if (!g_layout->strict)
        return "";
    for (unsigned a = 0; a < n_apps(); a++)
        for (unsigned b = 0; b < n_apps(); b++) {
            const process &p = w.procs[g_layout->apps[a].proc];
            if (!g_layout->talk(a, b) || !p.alive)
                continue;
            const bool online = (p.bits[b] & 9) == 9;
            if (online != (p.joined[at(a, b)] == 1))
                return qel_format("%u was told %s of %u, which is %s", g_layout->apps[a].id,
                                  p.joined[at(a, b)] ? "the join" : "the quit", g_layout->apps[b].id,
                                  online ? "online" : "not online");
        }
    return "";
}

// When nothing is under way and no timer runs any more.
std::string unfinished(const world &w) {
    for (unsigned a = 0; a < n_apps(); a++)
        for (unsigned b = 0; b < n_apps(); b++) {
            if (!g_layout->talk(a, b))
                continue;
            const process &p = w.procs[g_layout->apps[a].proc], &q = w.procs[g_layout->apps[b].proc];
            if (p.alive && q.alive && (p.bits[b] & 9) != 9)
                return qel_format("%u and %u live, but for %u the other is not online (bits %x)",
                                  g_layout->apps[a].id, g_layout->apps[b].id, g_layout->apps[a].id,
                                  p.bits[b]);
            if (p.alive && !q.alive && (p.bits[b] & 8))
                return qel_format("%u is dead, but %u has it online", g_layout->apps[b].id,
                                  g_layout->apps[a].id);
        }
    for (unsigned i = 0; i < g_layout->procs; i++) {
        const process &p = w.procs[i];
        if (!p.unacks.empty() || !p.resumes.empty())
            return qel_format("process %u still has %zu syncs and %zu resumes", i, p.unacks.size(),
                              p.resumes.size());
        if (!p.resends.empty())
            return qel_format("process %u still has %zu resends", i, p.resends.size());
    }
    return "";
}

// ---- exploring -------------------------------------------------------------------------------------------

uint32_t from_env(const char *name, uint32_t otherwise) {
    const char *text = getenv(name);
    return text ? static_cast<uint32_t>(strtoul(text, nullptr, 10)) : otherwise;
}

struct qel_handshake_model : qel_node {
    void set_up(const layout &l) {
        g_layout = &l;
        static qel_sys sys = g_qel_sys_native;
        sys.thread_create = no_thread;
        g_qel_sys.store(&sys);
        qel_port_set(&model_port);
        static const qel_dispatcher table[] = {{1, [](qel_msg *msg) { free(msg); }}, {0, nullptr}};
        const auto *const raw = reinterpret_cast<const unsigned char *>(&g_qel_mng);
        const std::vector<unsigned char> pristine(raw, raw + sizeof g_qel_mng);
        world nobody = empty_world();
        g_world = &nobody;
        for (unsigned p = 0; p < l.procs; p++) {
            g_proc = p;
            if (p > 0) { // the library was started by the first
                memcpy(static_cast<void *>(&g_qel_mng), pristine.data(), pristine.size());
                g_qel_mng.subscription_socket.store(qel_create_subscription_socket());
            }
            for (const layout::app &a : l.apps)
                if (a.proc == p) {
                    ASSERT_EQ(
                        qel_register_without_thread(static_cast<int32_t>(a.id), "model", table, on_event), 0);
                }
            for (unsigned a = 0; a < n_apps(); a++)
                for (unsigned b = 0; b < n_apps(); b++)
                    if (l.apps[a].proc == p && l.talk(a, b)) {
                        ASSERT_EQ(qel_comm_with(static_cast<int32_t>(l.apps[a].id),
                                                static_cast<int32_t>(l.apps[b].id)),
                                  0);
                    }
            g_images.emplace_back(raw, raw + sizeof g_qel_mng);
        }
        qel_set_masks(0);
        g_world = nullptr;
    }

    struct visited {
        std::string state;
        size_t parent;
        choice by;
        unsigned depth;
    };
    std::vector<visited> states;
    // Steps that must come about sooner or later while all processes live, between states that were expanded.
    std::vector<std::pair<uint32_t, uint32_t>> progress;

    // Whether they can go round in a circle: then the processes might be busy with each other for ever. Gives
    // a state of the circle, or 0.
    size_t circle() {
        std::sort(progress.begin(), progress.end());
        enum colour : uint8_t { unseen, open, done };
        std::vector<colour> colours(states.size(), unseen);
        std::vector<std::pair<uint32_t, size_t>> stack; // a state and the next of its steps
        const auto first_of = [this](uint32_t from) {
            return static_cast<size_t>(
                std::lower_bound(progress.begin(), progress.end(), std::pair{from, 0u}) - progress.begin());
        };
        for (uint32_t start = 0; start < states.size(); start++) {
            if (colours[start] != unseen)
                continue;
            colours[start] = open;
            stack.emplace_back(start, first_of(start));
            while (!stack.empty()) {
                auto &[from, edge] = stack.back();
                if (edge == progress.size() || progress[edge].first != from) {
                    colours[from] = done;
                    stack.pop_back();
                    continue;
                }
                const uint32_t to = progress[edge++].second;
                if (colours[to] == open)
                    return to;
                if (colours[to] == unseen) {
                    colours[to] = open;
                    stack.emplace_back(to, first_of(to));
                }
            }
        }
        return 0;
    }

    std::string path_to(size_t i) const {
        std::vector<std::string> steps;
        for (; i != 0; i = states[i].parent)
            steps.push_back(text_of(states[i].by));
        std::string text;
        for (size_t n = steps.size(); n-- > 0;)
            text += qel_format("  %zu. ", steps.size() - n) + steps[n] + "\n";
        return text;
    }

    // Lets everything arrive and every timer pass, no more faults, in the order of the choices or by chance.
    // "" when all is well at the end.
    static std::string run_out(world &w, std::string *steps, std::mt19937 *random = nullptr) {
        for (int i = 0; i < 3000; i++) {
            const std::vector<choice> all = choices(false);
            if (all.empty())
                return unfinished(w);
            const choice c = all[random ? (*random)() % all.size() : 0];
            *steps += "  then " + text_of(c) + "\n";
            take(c);
            const std::string wrong = broken(w);
            if (!wrong.empty())
                return wrong;
            qel_set_seq_for_test(1000 + static_cast<uint32_t>(i) * 100);
        }
        return "it does not come to rest";
    }

    // Visits every state that up to @max_states of them, nearest first, have in front of them. Those that are
    // not expanded any more are run out.
    void explore(uint32_t crashes, uint32_t rejects, uint32_t early, size_t max_states) {
        std::unordered_map<std::string, size_t> known;
        static world w; // g_world shows it to the library
        w = empty_world();
        w.crashes = from_env("QEL_MODEL_CRASHES", crashes);
        w.rejects = from_env("QEL_MODEL_RETURNS", rejects);
        w.early = from_env("QEL_MODEL_EARLY", early);
        max_states = from_env("QEL_MODEL_STATES", static_cast<uint32_t>(max_states));
        states.push_back({pack(w), 0, {}, 0});
        known.emplace(states[0].state, 0);
        size_t ends = 0, run_outs = 0;
        for (size_t i = 0; i < states.size(); i++) {
            const world from = unpack(states[i].state);
            w = from;
            g_world = &w;
            const std::vector<choice> all = choices(true);
            if (states.size() >= max_states) {
                qel_set_seq_for_test(500);
                std::string steps;
                const std::string wrong = run_out(w, &steps);
                run_outs++;
                ASSERT_EQ(wrong, "") << path_to(i) << steps;
                continue;
            }
            const bool must = std::any_of(all.begin(), all.end(), [](const choice &c) {
                return c.kind != what::crash && c.kind != what::restart;
            });
            if (!must) { // nobody does anything any more unless something happens
                ends++;
                ASSERT_EQ(unfinished(w), "") << path_to(i);
            }
            const bool all_live =
                std::all_of(from.procs.begin(), from.procs.end(), [](const process &p) { return p.alive; });
            const bool quiet = !under_way();
            for (const choice &c : all) {
                w = from;
                qel_set_seq_for_test(300);
                take(c);
                const std::string wrong = broken(w);
                std::string next = pack(w);
                const auto [it, fresh] = known.emplace(std::move(next), states.size());
                if (all_live && c.kind != what::crash && c.kind != what::reject &&
                    (c.kind != what::timer || quiet))
                    progress.emplace_back(i, it->second);
                if (!fresh && wrong.empty())
                    continue;
                states.push_back({it->first, i, c, states[i].depth + 1});
                ASSERT_EQ(wrong, "") << path_to(states.size() - 1);
            }
        }
        printf("%zu states up to %u steps away, %zu of them at rest, %zu run out\n", states.size(),
               states.back().depth, ends, run_outs);
        RecordProperty("states", static_cast<int>(states.size()));
        EXPECT_GT(ends + run_outs, 0u);
        const size_t on_circle = circle();
        EXPECT_EQ(on_circle, 0u) << "endless:\n" << path_to(on_circle);
        g_world = nullptr;
    }

    // Long runs by chance, each run out at its end.
    void walk(uint32_t walks, uint32_t steps, uint32_t crashes, uint32_t rejects, uint32_t early) {
        const uint32_t first = from_env("QEL_MODEL_SEED", 1);
        for (uint32_t seed = first; seed < first + walks; seed++) {
            std::mt19937 random(seed);
            world w = empty_world();
            w.crashes = crashes;
            w.rejects = rejects;
            w.early = early;
            g_world = &w;
            std::string path = qel_format("seed %u\n", seed);
            std::string wrong;
            for (uint32_t step = 0; step < steps && wrong.empty(); step++) {
                std::vector<choice> all = choices(true);
                // faults are rare among what can happen, so that something comes about in between
                if (random() % 4 != 0)
                    std::erase_if(
                        all, [](const choice &c) { return c.kind == what::crash || c.kind == what::reject; });
                if (all.empty())
                    break;
                const choice c = all[random() % all.size()];
                path += "  " + text_of(c) + "\n";
                qel_set_seq_for_test(300 + step * 100);
                take(c);
                wrong = broken(w);
            }
            qel_set_seq_for_test(100'000);
            if (wrong.empty())
                wrong = run_out(w, &path, g_layout->strict ? nullptr : &random);
            ASSERT_EQ(wrong, "") << path;
        }
        g_world = nullptr;
    }
};

const layout two = {.procs = 2, .apps = {{5, 0}, {7, 1}}, .pairs = {{0, 1}}};
const layout three = {.procs = 3, .apps = {{5, 0}, {7, 1}, {9, 2}}, .pairs = {{0, 1}, {0, 2}, {1, 2}}};
const layout alone = {.procs = 1, .apps = {{5, 0}}, .pairs = {{0, 0}}};
const layout with_itself = {.procs = 2, .apps = {{5, 0}, {7, 1}}, .pairs = {{0, 0}, {0, 1}, {1, 1}}};
// Two applications of one process share the bits of their peer.
const layout shared = {
    .procs = 2, .apps = {{5, 0}, {6, 0}, {7, 1}}, .pairs = {{0, 2}, {1, 2}}, .strict = false};

TEST_F(qel_handshake_model, two_processes_come_online_in_every_order_of_deliveries) {
    set_up(two);
    explore(0, 0, 0, 1'000'000);
}

TEST_F(qel_handshake_model, two_processes_come_online_whatever_syncs_and_acknowledgements_come_back) {
    set_up(two);
    explore(0, 2, 2, 1'000'000);
}

TEST_F(qel_handshake_model, two_processes_come_online_again_after_a_crash_of_either_at_any_moment) {
    set_up(two);
    explore(1, 0, 0, 1'000'000);
}

TEST_F(qel_handshake_model, two_processes_come_online_again_after_crashes_and_rejected_messages) {
    set_up(two);
    explore(2, 1, 1, 12'000 / slower);
}

TEST_F(qel_handshake_model, a_process_comes_online_for_itself_whatever_comes_back_and_after_a_crash) {
    set_up(alone);
    explore(1, 2, 1, 1'000'000);
}

TEST_F(qel_handshake_model, three_processes_come_online_for_each_other) {
    set_up(three);
    explore(0, 0, 0, 6'000 / slower);
}

TEST_F(qel_handshake_model, two_processes_come_online_after_long_runs_with_many_faults) {
    set_up(two);
    walk(3000 / slower, 60, 4, 4, 4);
}

TEST_F(qel_handshake_model, three_processes_come_online_after_long_runs_with_many_faults) {
    set_up(three);
    walk(1000 / slower, 120, 4, 4, 4);
}

TEST_F(qel_handshake_model,
       processes_that_also_talk_to_themselves_come_online_after_long_runs_with_many_faults) {
    set_up(with_itself);
    walk(1000 / slower, 100, 4, 4, 4);
}

TEST_F(qel_handshake_model, two_applications_of_one_process_come_online_with_their_shared_peer) {
    set_up(shared);
    explore(0, 1, 0, 200'000);
}

} // namespace

// The process that has the word.
extern "C" pid_t getpid() noexcept {
    return g_world && g_proc < g_world->procs.size() && g_world->procs[g_proc].pid
               ? static_cast<pid_t>(g_world->procs[g_proc].pid)
               : static_cast<pid_t>(syscall(SYS_getpid));
}
