#include "qel_engine.h"

#include <cstdlib>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "qel_app_info.h"
#include "qel_dm.h"
#include "qel_flow_ctrl.h"
#include "qel_mng_int.h"
#include "qel_rpc.h"
#include "qel_user_proxy.h"

void qel_engine::begin(std::initializer_list<int32_t> apps,
                       std::initializer_list<std::pair<int32_t, int32_t>> pairs, bool with_thread) {
    for (const int32_t app : apps)
        ASSERT_EQ(add_app(app, with_thread), 0);
    for (const auto &[app, peer] : pairs)
        ASSERT_EQ(qel_comm_with(app, peer), 0);
    ASSERT_TRUE(run());
    qel_set_masks();
    qel_set_seq_for_test(100);
    out.take();
    qel_fake::take_calls();
}

// ---- what happens to the library ------------------------------------------------------------------------

void qel_engine::settle() { ASSERT_TRUE(qel_fake::settle()); }
void qel_engine::settle_threads() { ASSERT_TRUE(qel_time::settle()); }
void qel_engine::pass(std::chrono::nanoseconds time) {
    ASSERT_TRUE(qel_time::run_for(time));
    settle();
}
void qel_engine::publish(uint32_t peer, uint32_t node) {
    qel_fake::publish(peer, node);
    settle();
}
void qel_engine::withdraw(uint32_t peer, uint32_t node) {
    qel_fake::withdraw(peer, node);
    settle();
}
void qel_engine::receive(uint32_t app, const bytes &datagram) {
    qel_fake::push(qel_get_app_sd(app), datagram, app, datagram.size() < 16 ? 1 : be32_at(datagram, 12));
    settle();
}
void qel_engine::receive(uint32_t app, qel_fake::datagram in) {
    qel_fake::push(qel_get_app_sd(app), std::move(in));
    settle();
}
void qel_engine::topology_event(uint32_t event, uint32_t lower, uint32_t upper,
                                const tipc_subscr &subscription) {
    tipc_event e{};
    e.event = event;
    e.found_lower = lower;
    e.found_upper = upper;
    e.s = subscription;
    bytes b(sizeof e);
    memcpy(b.data(), &e, sizeof e);
    qel_fake::push_recv(qel_fake::topology(), b);
    settle();
}
void qel_engine::topology_event(uint32_t event, uint32_t lower, uint32_t upper, uint32_t peer) {
    topology_event(event, lower, upper, peer_subscription(peer));
}
void qel_engine::timer_event(uint32_t type, uint32_t seq) {
    topology_event(TIPC_SUBSCR_TIMEOUT, 0, 0, timer_subscription(1000, type, seq));
}

// ---- bytes ----------------------------------------------------------------------------------------------

static qel_fake::bytes sync_datagram(uint16_t type, uint32_t peer, uint32_t node, uint32_t app,
                                     const sync_words &w) {
    return wire({.flags = QEL_FLAG_SYNC, .src_app = peer, .src_node = node, .dst_app = app},
                tlv(type, {w.seq, w.pid, w.server, w.resume, w.counter}));
}
qel_fake::bytes qel_engine::sync_of(uint32_t peer, uint32_t node, uint32_t app, const sync_words &w) {
    return sync_datagram(QEL_TLV_SYNC, peer, node, app, w);
}
qel_fake::bytes qel_engine::ack_of(uint32_t peer, uint32_t node, uint32_t app, const sync_words &w) {
    return sync_datagram(QEL_TLV_SYNC_ACK, peer, node, app, w);
}

tipc_subscr qel_engine::peer_subscription(uint32_t peer) {
    tipc_subscr s{};
    s.seq = {2303, peer << 16, peer << 16 | 0xFFFF};
    s.timeout = 0xFFFFFFFF;
    s.filter = 2;
    return s;
}
tipc_subscr qel_engine::timer_subscription(uint32_t ms, uint32_t type, uint32_t seq) {
    tipc_subscr s{};
    s.seq = {1, 0, 0};
    s.timeout = ms;
    s.filter = 2;
    memcpy(s.usr_handle, &type, 4);
    memcpy(s.usr_handle + 4, &seq, 4);
    return s;
}
qel_fake::bytes qel_engine::as_bytes(const tipc_subscr &s) {
    bytes b(sizeof s);
    memcpy(b.data(), &s, sizeof s);
    return b;
}

// ---- what the library does ------------------------------------------------------------------------------

std::vector<qel_engine::sent_msg> qel_engine::take_sent() {
    std::vector<sent_msg> all;
    for (const qel_fake::call &c : qel_fake::take_sent()) {
        const qel_seen seen = unwire(c.data);
        all.push_back({c.app(), c.node(), seen.hdr, seen.data});
    }
    return all;
}

uint32_t qel_engine::sync_seq(uint32_t app, uint32_t peer, uint32_t node) {
    uint32_t seq = 0;
    for (const qel_fake::call &c : qel_fake::calls(qel_fake::op::sendto)) {
        const qel_seen s = unwire(c.data);
        if (c.result > 0 && c.app() == peer && c.node() == node && s.hdr.src_app == app &&
            s.hdr.flags == QEL_FLAG_SYNC && s.data.size() == 24 && s.data[3] == QEL_TLV_SYNC)
            seq = be32_at(s.data, 4);
    }
    return seq;
}

void qel_engine::shake_hands(uint32_t peer, uint32_t node, bool server, uint32_t pid) {
    ASSERT_TRUE(bring_online(peer, node, server, pid));
    out.take();
    qel_fake::take_calls();
}

std::string qel_engine::bits(uint32_t peer, uint32_t node) {
    qel_lock lock(g_lib_mutex);
    const qel_comm_app *p = __qel_find_comm_app(peer);
    if (!p)
        return "no record";
    std::string s;
    for (const auto &[map, letter] :
         {std::pair{&p->servers, 'S'}, {&p->instances, 'I'}, {&p->acked, 'A'}, {&p->online, 'O'}})
        if (map->test(node))
            s += letter;
    return s;
}

bool qel_engine::comm_app_exists(uint32_t peer) {
    qel_lock lock(g_lib_mutex);
    return __qel_find_comm_app(peer) != nullptr;
}

template <class List> static size_t length_of(List &list) {
    size_t n = 0;
    for ([[maybe_unused]] const auto &item : list)
        n++;
    return n;
}
// List and index must agree at any time.
size_t qel_engine::unacks() {
    qel_lock lock(g_lib_mutex);
    const size_t n = length_of(g_qel_mng.unacks);
    EXPECT_EQ(n, g_qel_mng.unack_index.size());
    return n;
}
size_t qel_engine::resumes() {
    qel_lock lock(g_lib_mutex);
    const size_t n = length_of(g_qel_mng.resumes);
    EXPECT_EQ(n, g_qel_mng.resume_index.size());
    return n;
}
size_t qel_engine::resends() {
    qel_lock lock(g_lib_mutex);
    const size_t n = length_of(g_qel_mng.resends);
    EXPECT_EQ(n, g_qel_mng.resend_index.size());
    return n;
}
size_t qel_engine::sync_ids() {
    qel_lock lock(g_lib_mutex);
    return g_qel_mng.sync_ids.size();
}
size_t qel_engine::unacks_to(uint32_t peer, uint32_t node) {
    size_t n = 0;
    qel_lock lock(g_lib_mutex);
    for (const qel_unack_sync &u : g_qel_mng.unacks)
        n += u.msg->hdr.dst_app == peer && u.msg->hdr.dst_node == node;
    return n;
}

template <class Print> static std::string printed(Print print) {
    qel_lock lock(g_print_mutex);
    qel_buf_printf_reset();
    print();
    return std::string(static_cast<const char *>(qel_msg_data(g_print_msg)));
}
std::string qel_engine::lib_print(uint32_t app) {
    return printed([app]() QEL_NO_TSA { qel_cli_print_lib_info(app); });
}
std::string qel_engine::fc_print(uint32_t app) {
    return printed([app]() QEL_NO_TSA { qel_cli_print_fc_stat(app); });
}
std::string qel_engine::app_print(uint32_t app) {
    return printed([app]() QEL_NO_TSA { qel_cli_print_app_info(app); });
}
std::string qel_engine::rpc_print(uint32_t app) {
    return printed([app]() QEL_NO_TSA { qel_cli_print_rpc_stat(app); });
}

unsigned qel_engine::exceptions(uint32_t app) {
    const std::string text = fc_print(app), mark = ", exception ";
    const size_t at = text.find(mark);
    return at == std::string::npos
               ? 0
               : static_cast<unsigned>(strtoul(text.c_str() + at + mark.size(), nullptr, 10));
}

static std::string rest_of_line(const std::string &text, const std::string &start) {
    const size_t at = text.find(start);
    return at == std::string::npos ? ""
                                   : text.substr(at + start.size(), text.find('\n', at) - at - start.size());
}
std::string qel_engine::recv_stat(uint32_t app, uint32_t peer, uint32_t node) {
    return rest_of_line(fc_print(app), qel_format("    Receive from application %u/%u: ", peer, node));
}
std::string qel_engine::send_stat(uint32_t app, uint32_t peer, uint32_t node) {
    return rest_of_line(fc_print(app), qel_format("    Send to application %u/%u: ", peer, node));
}

void qel_engine::open_rpc(uint32_t app, uint32_t seq, std::initializer_list<std::pair<uint32_t, uint32_t>> to,
                          reply_set *replies) {
    ASSERT_EQ(qel_rpc_prepare_wait(app, seq, 0, &replies->set), 0);
    for (const auto &[peer, node] : to)
        ASSERT_EQ(qel_rpc_set_wait(app, seq, peer, node), 0);
}

// ---- a process that ends --------------------------------------------------------------------------------

qel_child qel_run_child(const std::function<void()> &what) {
    qel_child child;
    fflush(stdout);
    const int file = memfd_create("qel_child", MFD_CLOEXEC);
    const pid_t pid = fork();
    if (file < 0 || pid < 0)
        abort();
    if (pid == 0) {
        dup2(file, STDOUT_FILENO);
        what();
        fflush(stdout);
        _exit(0);
    }
    if (waitpid(pid, &child.status, 0) != pid)
        abort();
    char part[4096];
    ssize_t len;
    std::string text;
    while ((len = pread(file, part, sizeof part, static_cast<off_t>(text.size()))) > 0)
        text.append(part, static_cast<size_t>(len));
    close(file);
    child.output = qel_without_line_numbers(text);
    return child;
}
