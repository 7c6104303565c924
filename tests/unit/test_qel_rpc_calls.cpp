// Remote procedure calls as applications make and answer them.
#include <cerrno>
#include <cstdio>
#include <gtest/gtest.h>
#include <map>

#include "qel_app_info.h"
#include "qel_flow_ctrl.h"
#include "qel_mng.h"
#include "qel_mng_int.h"
#include "qel_process.h"
#include "qel_rpc.h"
#include "qel_user_proxy.h"

namespace {

using namespace std::chrono_literals;
using list = std::vector<std::string>;

#define UP(level, ...) qel_line("qel_user_proxy", level, __VA_ARGS__)
#define RPC(level, ...) qel_line("qel_rpc", level, __VA_ARGS__)
#define FC(level, ...) qel_line("qel_flow_ctrl", level, __VA_ARGS__)
#define MSG(level, ...) qel_line("qel_mng_msg", level, __VA_ARGS__)
#define MC(level, ...) qel_line("qel_mc", level, __VA_ARGS__)
constexpr uint32_t me = 5;

struct free_msg {
    void operator()(qel_msg *msg) const { free(msg); }
};
using msg_ptr = std::unique_ptr<qel_msg, free_msg>;

// A message of four bytes with a header full of what does not belong there.
msg_ptr new_msg(const char *text = "ping") {
    msg_ptr msg(qel_msg_alloc(4, 3, 0));
    memcpy(qel_msg_data(msg.get()), text, 4);
    qel_encode_msg_hdr(msg.get(), 0xFF, 91, 92, 93, 94, 95, 96);
    msg->hdr.qos = 9;
    return msg;
}

list replies_of(const qel_reply_set &set) {
    list all;
    for (int32_t i = 0; i < set.count; i++)
        all.push_back(qel_format("%u/%u %u", set.msg[i]->hdr.src_app, set.msg[i]->hdr.src_node,
                                 set.msg[i]->hdr.rpc_status));
    return all;
}

// A set as a careless caller leaves it.
struct dirty_set {
    dirty_set() {
        set.count = 77;
        for (qel_msg *&m : set.msg)
            m = reinterpret_cast<qel_msg *>(0x10);
    }
    ~dirty_set() { qel_reply_msg_free(&set); }
    bool cleared() const {
        for (const qel_msg *m : set.msg)
            if (m)
                return false;
        return set.count == 0;
    }
    list replies() const { return replies_of(set); }
    qel_reply_set set;
};

// A call on a thread of its own.
struct call : dirty_set {
    explicit call(uint32_t dst, uint32_t timeout_s = 30, uint32_t flags = 0)
        : task([this, dst, timeout_s, flags] { ret = qel_rpc(me, dst, msg.get(), flags, timeout_s, &set); }) {
        EXPECT_TRUE(qel_time::settle());
    }
    msg_ptr msg = new_msg();
    int32_t ret = 12345;
    qel_task task;
};

struct rpc_calls : qel_process {
    rpc_calls() {
        if (add_app(me, false) != 0)
            abort();
        qel_set_masks(0);
        (void)qel_fake::take_sent();
        qel_set_seq_for_test(4710); // the next call is 4711
    }
    ~rpc_calls() override { qel_fake::on_sendto(nullptr); }

    // What a peer would answer to 4711, or another number.
    static int32_t answer(uint32_t app, uint32_t node, uint32_t status = 0, uint32_t seq = 4711) {
        qel_msg *msg = qel_msg_alloc(0, 1, 0);
        qel_encode_msg_hdr(msg, QEL_FLAG_REQUEST | QEL_FLAG_ACK, app, node, me, 1, seq, status);
        const int32_t ret = qel_rpc_add_reply(msg);
        if (ret)
            free(msg);
        return ret;
    }
    // The counters of a peer, and of the application as a whole.
    static std::string peer(uint32_t app, uint32_t node) {
        const std::string all = fc_stat(me);
        const size_t at = all.find(qel_format("Send to application %u/%u: ", app, node));
        return at == std::string::npos ? "" : all.substr(at, all.find('\n', at) - at);
    }
    static std::string counted(uint32_t app, uint32_t node, int send, int unack, int reject,
                               int reply_reject = 0) {
        return qel_format("Send to application %u/%u: send %d, unack %d, reject %d, RPC reply reject %d", app,
                          node, send, unack, reject, reply_reject);
    }
    static std::string whole() {
        const std::string all = fc_stat(me);
        const size_t at = all.find("  total send");
        return all.substr(at, all.find('\n', at) - at);
    }
    static std::string totals(int send, int unack, int mcast_reject, int reply_exception = 0) {
        return qel_format("  total send %d, unack %d, mcast reject %d, RPC reply exception %d", send, unack,
                          mcast_reject, reply_exception);
    }
    static bool no_waits() { return rpc_stat(me) == "Application 5 RPC waits:\n"; }

    static uint32_t app_group(const std::vector<uint32_t> &members) {
        const int32_t group = qel_create_app_mcast(me);
        for (const uint32_t m : members)
            EXPECT_EQ(qel_add_app_mcast(me, static_cast<uint32_t>(group), m), 0);
        return static_cast<uint32_t>(group);
    }
    static int32_t node_group(const std::vector<uint32_t> &nodes) {
        const int32_t group = qel_create_node_mcast(me);
        for (const uint32_t n : nodes)
            EXPECT_EQ(qel_add_node_mcast(me, static_cast<uint32_t>(group), n), 0);
        return group;
    }
    static std::vector<uint32_t> nodes(uint32_t count, uint32_t first = 1) {
        std::vector<uint32_t> all;
        for (uint32_t i = 0; i < count; i++)
            all.push_back(first + i);
        return all;
    }
};
using rpc_refused = rpc_calls;
using rpc_reply = rpc_calls;

// ---- arguments ------------------------------------------------------------------------------------------

TEST_F(rpc_refused, an_invalid_source_is_an_error_line_and_clears_the_set_first_and_counts_nothing) {
    const msg_ptr msg = new_msg();
    qel_capture out;
    for (const uint32_t src : {0u, 8192u, 0x3000u, 16383u, 20480u, 0x10005u, 0xFFFFFFFFu}) {
        const std::string wanted = UP(X, "QEL src app ID %d invalid.\n", static_cast<int>(src));
        qel_set_masks(8);
        dirty_set a, b, c;
        EXPECT_EQ(qel_rpc(src, 7, msg.get(), 0, 30, &a.set), -EINVAL);
        EXPECT_EQ(out.take(), wanted);
        EXPECT_EQ(qel_rpcto(src, 2, 7, msg.get(), 0, 30, &b.set), -EINVAL);
        EXPECT_EQ(out.take(), wanted);
        EXPECT_EQ(qel_rpcto(src, QEL_ANY_NODE, 7, nullptr, 0, 30, &c.set), -EINVAL);
        EXPECT_EQ(out.take(), wanted);
        EXPECT_EQ(qel_rpc(src, 7, nullptr, 0, 30, nullptr), -EINVAL);
        EXPECT_EQ(out.take(), wanted);
        EXPECT_TRUE(a.cleared());
        EXPECT_TRUE(b.cleared());
        EXPECT_TRUE(c.cleared());
        qel_set_masks(0);
    }
    EXPECT_EQ(whole(), totals(0, 0, 0));
    EXPECT_TRUE(take_sent().empty());
    EXPECT_EQ(qel_get_seq(), 4711u) << "no number was drawn";
}

TEST_F(rpc_refused, a_missing_message_or_set_is_an_error_line_and_counts_nothing) {
    serve(me, 7, {2});
    const msg_ptr msg = new_msg();
    dirty_set d;
    const std::string wanted = UP(X, "QEL app 5 RPC msg or reply buffer NULL.\n");
    qel_capture out;
    qel_set_masks(8);
    EXPECT_EQ(qel_rpc(me, 7, nullptr, 0, 30, &d.set), -EINVAL);
    EXPECT_TRUE(d.cleared());
    EXPECT_EQ(out.take(), wanted);
    EXPECT_EQ(qel_rpc(me, 7, msg.get(), 0, 30, nullptr), -EINVAL);
    EXPECT_EQ(out.take(), wanted);
    dirty_set e;
    EXPECT_EQ(qel_rpcto(me, 2, 7, nullptr, 0, 30, &e.set), -EINVAL);
    EXPECT_TRUE(e.cleared());
    EXPECT_EQ(out.take(), wanted);
    EXPECT_EQ(qel_rpcto(me, 2, 7, msg.get(), 0, 30, nullptr), -EINVAL);
    EXPECT_EQ(out.take(), wanted);
    qel_set_masks(0);
    EXPECT_EQ(whole(), totals(0, 0, 0));
    EXPECT_EQ(msg->hdr.flags, 0xFF) << "untouched";
    EXPECT_TRUE(take_sent().empty());
}

TEST_F(rpc_refused, an_invalid_destination_application_counts_one_reject_of_the_application) {
    const msg_ptr msg = new_msg();
    qel_capture out;
    int rejects = 0;
    for (const uint32_t dst : {8192u, 0x2FFFu, 20480u, 0x10007u, 0xFFFFFFFFu}) {
        qel_set_masks(0xE);
        const std::string wanted = UP(X, "QEL app 5 to dst app ID %d invalid.\n", static_cast<int>(dst));
        dirty_set a, b;
        EXPECT_EQ(qel_rpc(me, dst, msg.get(), 0, 30, &a.set), -EINVAL);
        EXPECT_EQ(out.take(), wanted);
        EXPECT_EQ(qel_rpcto(me, 70000, dst, msg.get(), 0, 30, &b.set), -EINVAL);
        EXPECT_EQ(out.take(), wanted) << "of two mistakes the application is told";
        EXPECT_TRUE(a.cleared());
        EXPECT_TRUE(b.cleared());
        qel_set_masks(0);
        EXPECT_EQ(whole(), totals(0, 0, rejects += 2));
    }
    EXPECT_TRUE(no_waits());
}

TEST_F(rpc_refused, an_invalid_destination_node_counts_one_reject_of_the_application) {
    serve(me, 7, {2});
    const msg_ptr msg = new_msg();
    qel_capture out;
    int rejects = 0;
    for (const int32_t node : {65536, 0x7FFFF, 0x90000, -3, INT32_MIN}) {
        qel_set_masks(0xE);
        dirty_set d;
        EXPECT_EQ(qel_rpcto(me, node, 7, msg.get(), 0, 30, &d.set), -EINVAL);
        EXPECT_EQ(out.take(), UP(X, "QEL app 5 to dst node ID %d invalid.\n", node));
        EXPECT_TRUE(d.cleared());
        qel_set_masks(0);
        EXPECT_EQ(whole(), totals(0, 0, ++rejects));
    }
    EXPECT_TRUE(take_sent().empty());
}

// ---- nobody there ---------------------------------------------------------------------------------------

TEST_F(rpc_refused, without_server_a_call_gives_enoent_says_so_and_counts_one_reject) {
    const msg_ptr msg = new_msg();
    dirty_set d;
    qel_capture out;
    qel_set_masks();
    EXPECT_EQ(qel_rpc(me, 7, msg.get(), 0x10, 31, &d.set), -ENOENT);
    EXPECT_EQ(out.take(), UP(V, "QEL user app 5 rpc 7(0x7), msg %p, flags 0x10, timeout 31, ret_buf %p.\n",
                             static_cast<void *>(msg.get()), static_cast<void *>(&d.set)) +
                              RPC(V, "QEL app 5 seq 4711 RPC prepare wait.\n") +
                              RPC(V, "QEL add new app 5 seq 4711 RPC wait.\n") +
                              UP(V, "QEL app 5 to 7 has no server.\n") +
                              UP(V, "QEL app 5 rpc 7(0x7) has no server.\n") +
                              RPC(V, "QEL delete app 5 seq 4711 RPC wait.\n") +
                              FC(V, "QEL app 5 update send reject to 7/-1.\n"));
    qel_set_masks(0);
    EXPECT_TRUE(d.cleared());
    EXPECT_TRUE(no_waits());
    EXPECT_EQ(whole(), totals(0, 0, 1));
    EXPECT_EQ(peer(7, 2), "") << "it is no peer's reject";
    EXPECT_TRUE(take_sent().empty());
}

TEST_F(rpc_refused, with_servers_on_other_nodes_only_a_call_to_nodes_gives_enoent_without_the_members_line) {
    serve(me, 7, {3, 4});
    const msg_ptr msg = new_msg();
    dirty_set d;
    qel_capture out;
    qel_set_masks();
    EXPECT_EQ(qel_rpcto(me, 2, 7, msg.get(), 0, 31, &d.set), -ENOENT);
    EXPECT_EQ(out.take(),
              UP(V, "QEL user app 5 rpcto 7/2(0x7/0x2), msg %p, flags 0x0, timeout 31, ret_buf %p.\n",
                 static_cast<void *>(msg.get()), static_cast<void *>(&d.set)) +
                  RPC(V, "QEL app 5 seq 4711 RPC prepare wait.\n") +
                  RPC(V, "QEL add new app 5 seq 4711 RPC wait.\n") +
                  UP(V, "QEL app 5 rpcto 7/2(0x7/0x2) has no server.\n") +
                  RPC(V, "QEL delete app 5 seq 4711 RPC wait.\n") +
                  FC(V, "QEL app 5 update send reject to 7/2.\n") +
                  FC(V, "QEL app 5 add new send flow ctrl to 7/2.\n"));
    qel_set_masks(0);
    EXPECT_TRUE(d.cleared());
    EXPECT_EQ(whole(), totals(0, 0, 0));
    EXPECT_EQ(peer(7, 2), counted(7, 2, 0, 0, 1)) << "one application on one node: that peer's reject";
}

TEST_F(rpc_refused, without_any_server_a_call_to_a_node_says_it_of_the_member_and_of_the_call) {
    const msg_ptr msg = new_msg();
    dirty_set d;
    qel_capture out;
    qel_set_masks();
    EXPECT_EQ(qel_rpcto(me, QEL_MY_NODE, 7, msg.get(), 0, 31, &d.set), -ENOENT);
    EXPECT_EQ(only(out.take(), "qel_user_proxy"),
              UP(V, "QEL user app 5 rpcto 7/-2(0x7/0xfffffffe), msg %p, flags 0x0, timeout 31, ret_buf %p.\n",
                 static_cast<void *>(msg.get()), static_cast<void *>(&d.set)) +
                  UP(V, "QEL app 5 to 7 has no server.\n") +
                  UP(V, "QEL app 5 rpcto 7/-2(0x7/0xfffffffe) has no server.\n"));
}

TEST_F(rpc_refused, a_refused_call_is_counted_with_the_destination_as_the_caller_wrote_it) {
    const msg_ptr msg = new_msg();
    const uint32_t apps = app_group({7, 8});
    const int32_t nodes_2_3 = node_group({2, 3});
    int rejects = 0;
    const auto refused = [&](uint32_t dst, int32_t node) {
        dirty_set d;
        EXPECT_EQ(qel_rpcto(me, node, dst, msg.get(), 0, 30, &d.set), -ENOENT);
        EXPECT_TRUE(d.cleared());
    };
    refused(0, 2); // application 0 is no peer, though it stands for one
    EXPECT_EQ(whole(), totals(0, 0, ++rejects));
    refused(7, QEL_MY_NODE); // nor is node -2
    EXPECT_EQ(whole(), totals(0, 0, ++rejects));
    refused(7, QEL_ANY_NODE);
    EXPECT_EQ(whole(), totals(0, 0, ++rejects));
    refused(apps, 2);
    EXPECT_EQ(whole(), totals(0, 0, ++rejects));
    refused(7, nodes_2_3);
    EXPECT_EQ(whole(), totals(0, 0, ++rejects));
    refused(7, 2);
    EXPECT_EQ(whole(), totals(0, 0, rejects));
    EXPECT_EQ(peer(7, 2), counted(7, 2, 0, 0, 1));
}

TEST_F(rpc_refused, an_unknown_group_has_no_members_and_so_no_server) {
    serve(me, 7, {2});
    const msg_ptr msg = new_msg();
    dirty_set a, b;
    qel_capture out;
    qel_set_masks();
    EXPECT_EQ(qel_rpc(me, 0x3005, msg.get(), 0, 30, &a.set), -ENOENT);
    std::string all = out.take();
    EXPECT_EQ(only(all, "qel_mc"), MC(X, "QEL app 5 does not create app-private-mcast 12293.\n"));
    EXPECT_NE(all.find(UP(V, "QEL app 5 rpc 12293(0x3005) has no server.\n")), std::string::npos);
    EXPECT_EQ(qel_rpcto(me, 0x80005, 7, msg.get(), 0, 30, &b.set), -ENOENT);
    all = out.take();
    EXPECT_EQ(only(all, "qel_mc"), MC(X, "QEL app 5 does not create node-private-mcast 524293.\n"));
    EXPECT_NE(all.find(UP(V, "QEL app 5 rpcto 7/524293(0x7/0x80005) has no server.\n")), std::string::npos);
}

TEST_F(rpc_refused, a_source_that_is_not_registered_here_gives_enoent_with_the_prepare_line) {
    serve(me, 7, {2});
    const msg_ptr msg = new_msg();
    dirty_set a, b;
    qel_capture out;
    qel_set_masks(0xE);
    EXPECT_EQ(qel_rpc(9, 7, msg.get(), 0, 30, &a.set), -ENOENT);
    EXPECT_EQ(out.take(), UP(W, "QEL app 9 to 7 prepare RPC wait failed: No such file or directory.\n") +
                              FC(X, "QEL app 9 get flow control failed.\n"));
    EXPECT_EQ(qel_rpcto(9, 2, 7, msg.get(), 0, 30, &b.set), -ENOENT);
    EXPECT_EQ(out.take(), UP(W, "QEL app 9 to 7/2 prepare RPC wait failed: No such file or directory.\n") +
                              FC(X, "QEL app 9 get flow control failed.\n"));
    EXPECT_TRUE(a.cleared());
    EXPECT_TRUE(b.cleared());
}

TEST_F(rpc_refused, two_calls_with_the_same_sequence_number_the_second_gives_eexist_and_the_first_goes_on) {
    serve(me, 7, {2});
    call first(7);
    (void)take_sent();
    qel_capture out;
    qel_set_masks(0xE);
    const msg_ptr msg = new_msg();
    dirty_set a, b;
    qel_set_seq_for_test(4710);
    EXPECT_EQ(qel_rpc(me, 7, msg.get(), 0, 30, &a.set), -EEXIST);
    EXPECT_EQ(out.take(), UP(W, "QEL app 5 to 7 prepare RPC wait failed: File exists.\n"));
    qel_set_seq_for_test(4710);
    EXPECT_EQ(qel_rpcto(me, 2, 7, msg.get(), 0, 30, &b.set), -EEXIST);
    EXPECT_EQ(out.take(), UP(W, "QEL app 5 to 7/2 prepare RPC wait failed: File exists.\n"));
    qel_set_masks(0);
    EXPECT_TRUE(a.cleared());
    EXPECT_TRUE(b.cleared());
    EXPECT_TRUE(take_sent().empty());
    EXPECT_EQ(whole(), totals(1, 1, 1));
    EXPECT_EQ(peer(7, 2), counted(7, 2, 1, 1, 1));
    EXPECT_EQ(answer(7, 2), 0);
    ASSERT_TRUE(first.task.join());
    EXPECT_EQ(first.ret, 0);
    EXPECT_EQ(first.replies(), (list{"7/2 0"}));
}

TEST_F(rpc_refused, more_than_64_peers_are_refused_before_anything_is_sent) {
    serve(me, 7, nodes(65));
    serve(me, 8, nodes(33));
    serve(me, 9, nodes(32));
    const uint32_t two_members = app_group({8, 9}), and_more = app_group({8, 9, 7});
    const int32_t many = node_group(nodes(64));
    const msg_ptr msg = new_msg();
    qel_capture out;
    const auto refused = [&](uint32_t dst, int32_t node) {
        dirty_set d;
        qel_set_masks(0xE);
        EXPECT_EQ(qel_rpcto(me, node, dst, msg.get(), 0, 30, &d.set), -ENOBUFS);
        qel_set_masks(0);
        EXPECT_EQ(out.take(), RPC(X, "QEL RPC wait reply num exceeds limit 64.\n"));
        EXPECT_TRUE(d.cleared());
        EXPECT_TRUE(no_waits());
    };
    refused(7, QEL_ANY_NODE);
    EXPECT_EQ(whole(), totals(0, 0, 1));
    refused(two_members, QEL_ANY_NODE);
    EXPECT_EQ(whole(), totals(0, 0, 2));
    refused(two_members, many);
    EXPECT_EQ(whole(), totals(0, 0, 3));
    refused(and_more, QEL_ANY_NODE); // of the members behind the one that is too many nothing is said
    EXPECT_EQ(whole(), totals(0, 0, 4));
    EXPECT_TRUE(take_sent().empty());
    EXPECT_EQ(msg->hdr.flags, 0xFF) << "not even the header was written";
}

// Standard output that runs a function when a text is written.
struct hooked_stdout {
    hooked_stdout(std::string text, std::function<void()> act)
        : wanted(std::move(text)), fun(std::move(act)) {
        fflush(stdout);
        before = stdout;
        stdout = fopencookie(this, "w", {nullptr, write, nullptr, nullptr});
        setvbuf(stdout, nullptr, _IOLBF, 4096);
    }
    ~hooked_stdout() {
        FILE *mine = stdout;
        stdout = before;
        fclose(mine);
    }
    static ssize_t write(void *cookie, const char *text, size_t len) {
        auto &me_too = *static_cast<hooked_stdout *>(cookie);
        if (std::string(text, len).find(me_too.wanted) != std::string::npos)
            if (const auto act = std::exchange(me_too.fun, nullptr)) {
                qel_set_masks(0);
                act();
            }
        return static_cast<ssize_t>(len);
    }
    std::string wanted;
    std::function<void()> fun;
    FILE *before;
};

TEST_F(rpc_refused,
       a_peer_that_quits_while_the_call_is_prepared_leaves_nothing_in_the_set_of_a_refused_call) {
    serve(me, 7, nodes(64));
    serve(me, 9, {1});
    const uint32_t group = app_group({7, 8, 9}); // after 64 repliers the line about 8, then one too many
    const msg_ptr msg = new_msg();
    dirty_set d;
    int32_t filed = 0;
    {
        const hooked_stdout out("QEL app 5 to 8 has no server.", [&] {
            qel_app_inst_force_quit(7, 2);
            filed = d.set.count;
        });
        qel_set_masks(1);
        EXPECT_EQ(qel_rpc(me, group, msg.get(), 0, 30, &d.set), -ENOBUFS);
    }
    EXPECT_EQ(filed, 1) << "the quit came in between";
    EXPECT_TRUE(d.cleared());
    EXPECT_TRUE(no_waits());
}

// ---- what goes out --------------------------------------------------------------------------------------

TEST_F(rpc_calls, the_request_reaches_every_server_in_ascending_order_of_nodes_with_one_number_and_flags_02) {
    serve(me, 7, {65535, 3, 0, 700});
    call c(7);
    const std::vector<sent> all = take_sent();
    ASSERT_EQ(all.size(), 4u);
    const uint32_t order[] = {0, 3, 700, 65535};
    for (size_t i = 0; i < 4; i++) {
        EXPECT_EQ(all[i].to, qel_format("7/%u", order[i]));
        const qel_hdr &h = all[i].msg.hdr;
        EXPECT_EQ(h.version, 1);
        EXPECT_EQ(h.reserved, 0);
        EXPECT_EQ(h.flags, 0x02) << "whatever the caller had set";
        EXPECT_EQ(h.qos, 9) << "the caller's";
        EXPECT_EQ(h.len, 40u);
        EXPECT_EQ(h.src_node, 1u);
        EXPECT_EQ(h.dst_node, order[i]);
        EXPECT_EQ(h.src_app, me);
        EXPECT_EQ(h.dst_app, 7u);
        EXPECT_EQ(h.app_ver, 3u) << "the caller's";
        EXPECT_EQ(h.seq, 4711u);
        EXPECT_EQ(h.rpc_status, 0u);
        EXPECT_EQ(all[i].msg.data, to_bytes("ping"));
    }
    for (const uint32_t node : order)
        EXPECT_EQ(answer(7, node), 0);
    ASSERT_TRUE(c.task.join());
    EXPECT_EQ(c.ret, 0);
    EXPECT_EQ(c.replies(), (list{"7/0 0", "7/3 0", "7/700 0", "7/65535 0"}));
    EXPECT_EQ(c.msg->hdr.dst_node, 65535u) << "in host order, the caller's own again";
    EXPECT_EQ(c.msg->hdr.len, 40u);
}

TEST_F(rpc_calls, a_call_says_each_of_its_steps) {
    serve(me, 7, {2, 3});
    qel_capture out;
    qel_set_masks();
    call c(7, 31, 0xF0);
    const auto step = [](int node) {
        return MSG(V, "QEL app 5 sent to 7/%d, msg len 40.\n", node) +
               FC(V, "QEL app 5 update send OK to 7/%d.\n", node) +
               FC(V, "QEL app 5 add new send flow ctrl to 7/%d.\n", node);
    };
    EXPECT_EQ(out.take(), UP(V, "QEL user app 5 rpc 7(0x7), msg %p, flags 0xf0, timeout 31, ret_buf %p.\n",
                             static_cast<void *>(c.msg.get()), static_cast<void *>(&c.set)) +
                              RPC(V, "QEL app 5 seq 4711 RPC prepare wait.\n") +
                              RPC(V, "QEL add new app 5 seq 4711 RPC wait.\n") +
                              "QEL app 5 seq 4711 wait for: 7/2 7/3.\n" + step(2) + step(3) +
                              RPC(V, "QEL app 5 seq 4711 wait for RPC reply in 31s.\n"));
    qel_set_masks(0);
    EXPECT_EQ(answer(7, 2), 0);
    EXPECT_EQ(answer(7, 3), 0);
    ASSERT_TRUE(c.task.join());
}

TEST_F(rpc_calls, a_call_to_nodes_goes_in_the_order_of_the_group_and_only_where_a_server_is) {
    serve(me, 7, {2, 3, 9, 100});
    serve(me, 8, {9});
    const int32_t ng = node_group({9, 4, 3, 2});
    ASSERT_EQ(qel_del_node_mcast(me, static_cast<uint32_t>(ng), 3), 0); // leaves a hole
    const uint32_t ag = app_group({8, 7, 6});
    const msg_ptr msg = new_msg();
    qel_reply_set set;
    int32_t ret = 1;
    qel_task task([&] { ret = qel_rpcto(me, ng, ag, msg.get(), 0, 30, &set); });
    ASSERT_TRUE(qel_time::settle());
    EXPECT_EQ(take_destinations(), (list{"8/9", "7/9", "7/2"}));
    for (const auto &[app, node] : {std::pair{7u, 2u}, {7u, 9u}, {8u, 9u}})
        EXPECT_EQ(answer(app, node), 0);
    ASSERT_TRUE(task.join());
    EXPECT_EQ(ret, 0);
    EXPECT_EQ(replies_of(set), (list{"7/2 0", "7/9 0", "8/9 0"}));
    qel_reply_msg_free(&set);
}

TEST_F(rpc_calls, a_call_to_one_node_reaches_that_node_and_minus_2_is_the_own_one) {
    serve(me, 7, {1, 2, 3});
    for (const int32_t node : {3, static_cast<int32_t>(QEL_MY_NODE)}) {
        const msg_ptr msg = new_msg();
        qel_reply_set set;
        int32_t ret = 1;
        qel_task task([&] { ret = qel_rpcto(me, node, 7, msg.get(), 0, 0, &set); });
        ASSERT_TRUE(qel_time::settle());
        const std::vector<sent> all = take_sent();
        ASSERT_EQ(all.size(), 1u);
        EXPECT_EQ(all[0].to, node == 3 ? "7/3" : "7/1");
        EXPECT_EQ(all[0].msg.hdr.dst_node, node == 3 ? 3u : 1u);
        EXPECT_EQ(answer(7, node == 3 ? 3 : 1, 0, all[0].msg.hdr.seq), 0);
        ASSERT_TRUE(task.join());
        EXPECT_EQ(ret, 0);
        qel_reply_msg_free(&set);
    }
}

TEST_F(rpc_calls, a_call_to_any_node_through_rpcto_is_the_same_as_rpc_and_logs_both_entry_lines) {
    serve(me, 7, {2, 3});
    const msg_ptr msg = new_msg();
    qel_reply_set set;
    int32_t ret = 1;
    qel_capture out;
    qel_set_masks();
    qel_task task([&] { ret = qel_rpcto(me, QEL_ANY_NODE, 7, msg.get(), 0, 30, &set); });
    ASSERT_TRUE(qel_time::settle());
    EXPECT_EQ(only(out.take(), "qel_user_proxy"),
              UP(V, "QEL user app 5 rpcto 7/-1(0x7/0xffffffff), msg %p, flags 0x0, timeout 30, ret_buf %p.\n",
                 static_cast<void *>(msg.get()), static_cast<void *>(&set)) +
                  UP(V, "QEL user app 5 rpc 7(0x7), msg %p, flags 0x0, timeout 30, ret_buf %p.\n",
                     static_cast<void *>(msg.get()), static_cast<void *>(&set)));
    qel_set_masks(0);
    EXPECT_EQ(take_destinations(), (list{"7/2", "7/3"}));
    EXPECT_EQ(answer(7, 2), 0);
    EXPECT_EQ(answer(7, 3), 0);
    ASSERT_TRUE(task.join());
    EXPECT_EQ(ret, 0);
    EXPECT_EQ(set.count, 2);
    qel_reply_msg_free(&set);
}

TEST_F(rpc_calls, application_0_is_the_callers_own_and_flag_4_leaves_out_its_own_node) {
    serve(me, me, {1, 2});
    {
        call c(0);
        EXPECT_EQ(take_destinations(), (list{"5/1", "5/2"}));
        EXPECT_EQ(answer(5, 1), 0);
        EXPECT_EQ(answer(5, 2), 0);
        ASSERT_TRUE(c.task.join());
        EXPECT_EQ(c.ret, 0);
    }
    {
        call c(0, 30, QEL_RPC_NOT_SELF);
        EXPECT_EQ(take_destinations(), (list{"5/2"}));
        EXPECT_EQ(answer(5, 2, 0, 4712), 0);
        ASSERT_TRUE(c.task.join());
    }
    vanish(me, {2});
    const msg_ptr msg = new_msg();
    dirty_set d;
    qel_capture out;
    qel_set_masks(1);
    EXPECT_EQ(qel_rpc(me, 0, msg.get(), QEL_RPC_NOT_SELF, 30, &d.set), -ENOENT);
    EXPECT_EQ(out.count("QEL app 5 to 5 has no server.\n"), 1u);
    EXPECT_EQ(out.count("QEL app 5 rpc 0(0x0) has no server.\n"), 1u);
    EXPECT_EQ(qel_rpcto(me, QEL_MY_NODE, me, msg.get(), QEL_RPC_NOT_SELF, 30, &d.set), -ENOENT);
    EXPECT_TRUE(d.cleared());
}

TEST_F(rpc_calls, flag_4_leaves_other_applications_on_the_own_node_alone_and_other_flags_mean_nothing) {
    serve(me, me, {1, 2});
    serve(me, 7, {1});
    const uint32_t group = app_group({7, me});
    {
        call c(group, 30, 0xFFFFFFFF);
        EXPECT_EQ(take_destinations(), (list{"7/1", "5/2"}));
        EXPECT_EQ(answer(7, 1), 0);
        EXPECT_EQ(answer(5, 2), 0);
    }
    call c(group, 30, 0xFFFFFFFB);
    EXPECT_EQ(take_destinations(), (list{"7/1", "5/1", "5/2"}));
    for (const auto &[app, node] : {std::pair{7u, 1u}, {5u, 1u}, {5u, 2u}})
        EXPECT_EQ(answer(app, node, 0, 4712), 0);
}

TEST_F(rpc_calls, sixty_four_peers_are_all_called) {
    serve(me, 8, nodes(32));
    serve(me, 9, nodes(32));
    call c(app_group({8, 9}));
    EXPECT_EQ(take_sent().size(), 64u);
    for (uint32_t node = 1; node <= 32; node++) {
        EXPECT_EQ(answer(9, node), 0);
        EXPECT_EQ(answer(8, node), 0);
    }
    ASSERT_TRUE(c.task.join());
    EXPECT_EQ(c.ret, 0);
    EXPECT_EQ(c.set.count, 64);
}

TEST_F(rpc_calls, a_member_without_servers_is_told_and_the_others_are_called) {
    serve(me, 7, {2});
    serve(me, 9, {3});
    qel_capture out;
    qel_set_masks(1);
    call c(app_group({7, 8, 9}));
    EXPECT_EQ(out.count(UP(V, "QEL app 5 to 8 has no server.\n")), 1u);
    EXPECT_EQ(out.count("has no server"), 1u);
    qel_set_masks(0);
    EXPECT_EQ(take_destinations(), (list{"7/2", "9/3"}));
    EXPECT_EQ(answer(7, 2), 0);
    EXPECT_EQ(answer(9, 3), 0);
}

TEST_F(rpc_calls, flow_control_never_refuses_a_call_but_counts_it) {
    serve(me, 7, {2});
    for (int i = 0; i < 1100; i++)
        qel_fc_update_sent_ok(me, 7, 2);
    ASSERT_EQ(qel_fc_check(me, 7, QEL_SEND_NOWAIT), -EAGAIN);
    for (const uint32_t flags : {0u, 1u}) {
        call c(7, 30, flags);
        EXPECT_EQ(take_destinations(), (list{"7/2"}));
        EXPECT_EQ(answer(7, 2, 0, 4711 + flags), 0);
        ASSERT_TRUE(c.task.join());
        EXPECT_EQ(c.ret, 0);
    }
    EXPECT_EQ(peer(7, 2), counted(7, 2, 1102, 1102, 0));
    EXPECT_EQ(whole(), totals(1102, 1102, 0));
}

TEST_F(rpc_calls, each_call_draws_a_number_of_its_own_and_never_0) {
    serve(me, 7, {2});
    qel_set_seq_for_test(0xFFFFFFFE);
    call a(7), b(7), c(7);
    const std::vector<sent> all = take_sent();
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[0].msg.hdr.seq, 0xFFFFFFFFu);
    EXPECT_EQ(all[1].msg.hdr.seq, 1u);
    EXPECT_EQ(all[2].msg.hdr.seq, 2u);
    EXPECT_EQ(answer(7, 2, 2, 1), 0);
    ASSERT_TRUE(b.task.join());
    ASSERT_TRUE(qel_time::settle());
    EXPECT_FALSE(a.task.ended());
    EXPECT_FALSE(c.task.ended());
    EXPECT_EQ(b.replies(), (list{"7/2 2"}));
    EXPECT_EQ(answer(7, 2, 3, 2), 0);
    EXPECT_EQ(answer(7, 2, 0, 0xFFFFFFFF), 0);
    ASSERT_TRUE(a.task.join());
    ASSERT_TRUE(c.task.join());
    EXPECT_EQ(a.replies(), (list{"7/2 0"}));
    EXPECT_EQ(c.replies(), (list{"7/2 3"}));
}

// ---- what comes of it -----------------------------------------------------------------------------------

TEST_F(rpc_calls, a_peer_the_request_cannot_be_sent_to_answers_with_status_4_and_the_others_go_on) {
    serve(me, 7, {2, 3, 4});
    qel_fake::fail_to(7, 3, EHOSTUNREACH);
    qel_capture out;
    qel_set_masks(0xE);
    call c(7);
    EXPECT_EQ(out.take(),
              MSG(X, "QEL sendto failed: No route to host.\n") +
                  MSG(W, "QEL app 5 sent to 7/3 failed: No route to host, msg len 40, sent -1.\n") +
                  RPC(W, "QEL add error reply for app 5 seq 4711 from 7/3 status systerm error.\n"));
    qel_set_masks(0);
    EXPECT_EQ(take_destinations(), (list{"7/2", "7/4"}));
    EXPECT_EQ(c.replies(), (list{"7/3 4"}));
    EXPECT_EQ(answer(7, 4), 0);
    EXPECT_EQ(answer(7, 2), 0);
    ASSERT_TRUE(c.task.join());
    EXPECT_EQ(c.ret, 0);
    EXPECT_EQ(c.replies(), (list{"7/3 4", "7/4 0", "7/2 0"}));
    EXPECT_EQ(c.set.msg[0]->hdr.flags, 0) << "made here";
    EXPECT_EQ(peer(7, 2), counted(7, 2, 1, 1, 0));
    EXPECT_EQ(peer(7, 3), counted(7, 3, 0, 0, 1));
    EXPECT_EQ(whole(), totals(2, 2, 0));
}

TEST_F(rpc_calls, a_call_none_of_whose_requests_can_be_sent_returns_at_once_with_status_4_of_all) {
    serve(me, 7, {2, 3});
    qel_fake::fail_to(7, 2, EHOSTUNREACH);
    qel_fake::fail_to(7, 3, EMSGSIZE);
    const msg_ptr msg = new_msg();
    dirty_set d;
    EXPECT_EQ(qel_rpc(me, 7, msg.get(), 0, 0, &d.set), 0);
    EXPECT_EQ(d.replies(), (list{"7/2 4", "7/3 4"}));
    EXPECT_TRUE(no_waits());
}

TEST_F(rpc_calls, a_request_without_a_possible_length_is_answered_with_status_4_by_every_peer) {
    serve(me, 7, {2});
    for (const uint32_t len : {0u, 35u, 65573u, 0xFFFFFFFFu}) {
        const msg_ptr msg = new_msg();
        msg->hdr.len = len;
        dirty_set d;
        EXPECT_EQ(qel_rpc(me, 7, msg.get(), 0, 0, &d.set), 0);
        EXPECT_EQ(d.replies(), (list{"7/2 4"}));
    }
    EXPECT_TRUE(take_sent().empty());
}

TEST_F(rpc_calls, a_silent_peer_answers_with_status_5_when_its_time_is_up_and_the_call_succeeds) {
    serve(me, 7, {2, 3});
    call c(7, 5);
    ASSERT_TRUE(qel_time::run_for(10s));
    EXPECT_EQ(answer(7, 3, 2), 0);
    ASSERT_TRUE(qel_time::run_for(29'999ms));
    ASSERT_TRUE(qel_time::settle());
    EXPECT_FALSE(c.task.ended());
    ASSERT_TRUE(qel_time::run_for(1ms));
    ASSERT_TRUE(c.task.join());
    EXPECT_EQ(c.ret, 0);
    EXPECT_EQ(c.replies(), (list{"7/3 2", "7/2 5"}));
    EXPECT_EQ(answer(7, 2), -ENOENT) << "late";
    EXPECT_EQ(c.set.count, 2);
}

TEST_F(rpc_calls, a_peer_that_quits_during_the_call_answers_with_status_4) {
    serve(me, 7, {2, 3});
    call c(7, 0);
    qel_app_inst_force_quit(7, 3);
    EXPECT_EQ(answer(7, 2), 0);
    ASSERT_TRUE(c.task.join());
    EXPECT_EQ(c.ret, 0);
    EXPECT_EQ(c.replies(), (list{"7/3 4", "7/2 0"}));
}

TEST_F(rpc_calls, a_peer_that_quits_before_its_request_is_sent_gets_none_and_answers_with_status_4) {
    serve(me, 7, {2, 3, 4});
    qel_fake::on_sendto([](const qel_fake::call &c) {
        if (c.node() == 2)
            qel_app_inst_force_quit(7, 3);
    });
    call c(7);
    EXPECT_EQ(take_destinations(), (list{"7/2", "7/4"}));
    EXPECT_EQ(peer(7, 3), counted(7, 3, 0, 0, 0)) << "of its quit, and nothing counted";
    EXPECT_EQ(answer(7, 2), 0);
    EXPECT_EQ(answer(7, 4), 0);
    ASSERT_TRUE(c.task.join());
    EXPECT_EQ(c.ret, 0);
    EXPECT_EQ(c.replies(), (list{"7/3 4", "7/2 0", "7/4 0"}));
}

TEST_F(rpc_calls, a_reply_that_comes_while_other_requests_are_still_being_sent_counts) {
    serve(me, 7, {2, 3});
    qel_fake::on_sendto([](const qel_fake::call &c) {
        if (c.node() == 3) {
            EXPECT_EQ(answer(7, 2), 0);
        }
    });
    call c(7);
    EXPECT_EQ(c.replies(), (list{"7/2 0"}));
    EXPECT_EQ(answer(7, 3), 0);
    ASSERT_TRUE(c.task.join());
    EXPECT_EQ(c.ret, 0);
}

TEST_F(rpc_calls,
       a_peer_that_quits_while_its_request_fails_ends_the_whole_call_with_enoent_and_an_empty_set) {
    serve(me, 7, {2, 3, 4});
    qel_fake::fail_to(7, 3, EHOSTUNREACH);
    qel_fake::on_sendto([](const qel_fake::call &c) {
        if (c.node() != 3)
            return;
        EXPECT_EQ(answer(7, 2), 0);
        qel_app_inst_force_quit(7, 3);
    });
    qel_capture out;
    qel_set_masks(0xC);
    const msg_ptr msg = new_msg();
    dirty_set d;
    EXPECT_EQ(qel_rpc(me, 7, msg.get(), 0, 0, &d.set), -ENOENT);
    EXPECT_EQ(out.count(RPC(W, "QEL terminate app 5 seq 4711 RPC to 7/3.\n")), 1u);
    EXPECT_EQ(out.count(RPC(X, "QEL app 5 seq 4711 clear wait for app 7/3 not exist.\n")), 1u);
    qel_set_masks(0);
    EXPECT_TRUE(d.cleared());
    EXPECT_TRUE(no_waits());
    EXPECT_EQ(take_destinations(), (list{"7/2"})) << "nothing more was sent";
    EXPECT_EQ(peer(7, 3), counted(7, 3, 0, 0, 1));
    EXPECT_EQ(answer(7, 4), -ENOENT);
}

TEST_F(rpc_calls, where_the_last_reply_meets_a_deadline_the_call_gives_positive_etimedout_and_an_empty_set) {
    serve(me, 7, {2});
    call c(7, 60);
    qel_at_deadline([] { EXPECT_EQ(answer(7, 2), 0); });
    ASSERT_TRUE(qel_time::run_for(30s));
    ASSERT_TRUE(c.task.join());
    EXPECT_EQ(c.ret, ETIMEDOUT);
    EXPECT_TRUE(c.cleared());
    EXPECT_TRUE(no_waits());
}

// ---- answering ------------------------------------------------------------------------------------------

struct request {
    explicit request(uint8_t flags = QEL_FLAG_REQUEST, uint32_t app = 7, uint32_t node = 2)
        : msg(new_msg("ask!")) {
        qel_encode_msg_hdr(msg.get(), flags, app, node, me, 1, 4711, 0);
    }
    msg_ptr msg;
};

TEST_F(rpc_reply, a_reply_goes_back_with_the_requests_flags_and_ack_its_number_and_status_0) {
    for (const uint8_t flags : {0x02, 0x0A, 0x03}) {
        const request r(flags);
        const msg_ptr reply = new_msg("pong");
        qel_capture out;
        qel_set_masks();
        EXPECT_EQ(qel_rpc_reply(r.msg.get(), reply.get(), 0xABC), 0);
        EXPECT_EQ(out.take(), UP(V, "QEL user rpc reply, src_msg %p, reply_msg %p, flags 0xabc.\n",
                                 static_cast<void *>(r.msg.get()), static_cast<void *>(reply.get())) +
                                  MSG(V, "QEL app 5 sent to 7/2, msg len 40.\n"));
        qel_set_masks(0);
        const std::vector<sent> all = take_sent();
        ASSERT_EQ(all.size(), 1u);
        EXPECT_EQ(all[0].to, "7/2");
        const qel_hdr &h = all[0].msg.hdr;
        EXPECT_EQ(h.version, 1);
        EXPECT_EQ(h.flags, flags | 0x04);
        EXPECT_EQ(h.qos, 9) << "the replier's";
        EXPECT_EQ(h.len, 40u);
        EXPECT_EQ(h.src_node, 1u);
        EXPECT_EQ(h.dst_node, 2u);
        EXPECT_EQ(h.src_app, me);
        EXPECT_EQ(h.dst_app, 7u);
        EXPECT_EQ(h.app_ver, 3u) << "the replier's";
        EXPECT_EQ(h.seq, 4711u);
        EXPECT_EQ(h.rpc_status, 0u);
        EXPECT_EQ(all[0].msg.data, to_bytes("pong"));
        EXPECT_EQ(r.msg->hdr.flags, flags) << "the request is untouched";
    }
    EXPECT_EQ(whole(), totals(0, 0, 0)) << "replies are not counted";
}

TEST_F(rpc_reply, the_request_itself_may_be_the_reply) {
    const request r;
    EXPECT_EQ(qel_rpc_reply(r.msg.get(), r.msg.get(), 0), 0);
    const std::vector<sent> all = take_sent();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].to, "7/2");
    EXPECT_EQ(all[0].msg.hdr.flags, 0x06);
    EXPECT_EQ(all[0].msg.hdr.src_app, me);
    EXPECT_EQ(all[0].msg.hdr.src_node, 1u);
    EXPECT_EQ(all[0].msg.hdr.dst_app, 7u);
    EXPECT_EQ(all[0].msg.hdr.dst_node, 2u);
    EXPECT_EQ(all[0].msg.hdr.seq, 4711u);
    EXPECT_EQ(all[0].msg.data, to_bytes("ask!"));
    EXPECT_EQ(qel_rpc_reply(r.msg.get(), r.msg.get(), 0), -EINVAL) << "it is a reply now";
}

TEST_F(rpc_reply, the_request_itself_as_a_reply_that_fails_is_counted_for_the_caller) {
    const request r;
    qel_fake::fail_to(7, 2, EHOSTUNREACH);
    EXPECT_EQ(qel_rpc_reply(r.msg.get(), r.msg.get(), 0), -1);
    EXPECT_EQ(peer(7, 2), counted(7, 2, 0, 0, 0, 1));
}

TEST_F(rpc_reply, a_missing_reply_answers_with_status_4) {
    const request r;
    qel_capture out;
    qel_set_masks();
    EXPECT_EQ(qel_rpc_reply(r.msg.get(), nullptr, 0), 0);
    EXPECT_EQ(out.take(), UP(V, "QEL user rpc reply, src_msg %p, reply_msg %p, flags 0x0.\n",
                             static_cast<void *>(r.msg.get()), static_cast<void *>(nullptr)) +
                              RPC(V, "QEL app 5 reply to 7/2 seq 4711 status: systerm error.\n") +
                              MSG(V, "QEL app 5 sent to 7/2, msg len 36.\n"));
    qel_set_masks(0);
    const std::vector<sent> all = take_sent();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].msg.hdr.flags, 0x06);
    EXPECT_EQ(all[0].msg.hdr.rpc_status, 4u);
    EXPECT_EQ(all[0].msg.hdr.len, 36u);
}

TEST_F(rpc_reply, a_missing_request_is_an_error_line) {
    const msg_ptr reply = new_msg();
    qel_capture out;
    qel_set_masks(0xE);
    EXPECT_EQ(qel_rpc_reply(nullptr, reply.get(), 0), -EINVAL);
    EXPECT_EQ(out.take(), UP(X, "QEL RPC reply invalid argument.\n"));
    EXPECT_EQ(qel_rpc_reply(nullptr, nullptr, 0), -EINVAL);
    EXPECT_TRUE(take_sent().empty());
}

TEST_F(rpc_reply, what_is_no_request_is_not_answered) {
    qel_capture out;
    for (const uint8_t flags : {0x00, 0x01, 0x04, 0x06, 0x08, 0x0C, 0x0E, 0xFF}) {
        const request r(flags);
        const msg_ptr reply = new_msg();
        const qel_hdr before = reply->hdr;
        qel_set_masks(0xE);
        EXPECT_EQ(qel_rpc_reply(r.msg.get(), reply.get(), 0), -EINVAL);
        EXPECT_EQ(out.take(), UP(W, "QEL reply msg src is not RPC.\n"));
        EXPECT_EQ(qel_rpc_reply(r.msg.get(), nullptr, 0), -EINVAL);
        EXPECT_EQ(out.take(), UP(W, "QEL reply msg src is not RPC.\n"));
        qel_set_masks(0);
        EXPECT_EQ(memcmp(&before, &reply->hdr, sizeof before), 0);
    }
    EXPECT_TRUE(take_sent().empty());
    EXPECT_EQ(whole(), totals(0, 0, 0));
}

TEST_F(rpc_reply, a_reply_that_cannot_be_sent_counts_for_the_peer_or_if_it_is_none_for_the_application) {
    const msg_ptr reply = new_msg();
    qel_fake::fail(qel_fake::op::sendto, EHOSTUNREACH, 1, qel_fake::for_ever);
    {
        const request r;
        EXPECT_EQ(qel_rpc_reply(r.msg.get(), reply.get(), 0), -1);
        EXPECT_EQ(peer(7, 2), counted(7, 2, 0, 0, 0, 1));
        EXPECT_EQ(qel_rpc_reply(r.msg.get(), nullptr, 0), -1);
        EXPECT_EQ(peer(7, 2), counted(7, 2, 0, 0, 0, 2));
        EXPECT_EQ(whole(), totals(0, 0, 0));
    }
    const request no_app(QEL_FLAG_REQUEST, 8192, 2), no_node(QEL_FLAG_REQUEST, 7, 65536);
    EXPECT_EQ(qel_rpc_reply(no_app.msg.get(), reply.get(), 0), -1);
    EXPECT_EQ(qel_rpc_reply(no_node.msg.get(), reply.get(), 0), -1);
    EXPECT_EQ(whole(), totals(0, 0, 0, 2));
}

TEST_F(rpc_reply, a_reply_of_an_impossible_length_or_from_an_application_that_is_not_here_gives_einval) {
    const request r;
    const msg_ptr reply = new_msg();
    reply->hdr.len = 65573;
    EXPECT_EQ(qel_rpc_reply(r.msg.get(), reply.get(), 0), -EINVAL);
    EXPECT_EQ(peer(7, 2), counted(7, 2, 0, 0, 0, 1));
    reply->hdr.len = 40;
    r.msg->hdr.dst_app = 9;
    qel_capture out;
    qel_set_masks(8);
    EXPECT_EQ(qel_rpc_reply(r.msg.get(), reply.get(), 0), -EINVAL);
    EXPECT_EQ(out.take(), MSG(X, "QEL app 9 socket descriptor invalid.\n") +
                              FC(X, "QEL app 9 get flow control failed.\n"));
    EXPECT_TRUE(take_sent().empty());
}

// ---- through the whole library --------------------------------------------------------------------------

// Application 5 runs, and application 7 on nodes 2 and 3 has shaken hands with it.
struct rpc_on_the_wire : qel_process {
    void start() {
        ASSERT_EQ(add_app(me), 0);
        qel_set_masks(0);
        ASSERT_EQ(qel_comm_with(me, 7), 0);
        ASSERT_TRUE(run());
        ASSERT_TRUE(bring_online(7, 2));
        ASSERT_TRUE(bring_online(7, 3));
        qel_set_seq_for_test(4710);
        (void)qel_fake::take_sent();
    }
    static qel_head reply_head(uint32_t app = 7, uint32_t node = 2) {
        return {.flags = 0x06, .src_app = app, .src_node = node, .dst_app = me, .app_ver = 3, .seq = 4711};
    }
    static void arrive(const qel_head &head, const std::string &data = "pong") {
        deliver(me, wire(head, data));
        EXPECT_TRUE(qel_fake::settle());
    }
    static std::string exceptions() {
        const std::string all = fc_stat(me);
        return all.substr(all.find("exception ", all.find("total receive")), 11);
    }
};

TEST_F(rpc_on_the_wire, replies_from_the_socket_end_the_call_with_their_data_and_header) {
    start();
    call c(7, 0);
    EXPECT_EQ(take_destinations(), (list{"7/2", "7/3"}));
    qel_head from_3 = reply_head(7, 3);
    from_3.qos = 4;
    arrive(from_3, "from three");
    EXPECT_FALSE(c.task.ended());
    arrive(reply_head(), "");
    ASSERT_TRUE(c.task.join());
    EXPECT_EQ(c.ret, 0);
    ASSERT_EQ(c.replies(), (list{"7/3 0", "7/2 0"}));
    EXPECT_EQ(c.set.msg[0]->hdr.flags, 0x06);
    EXPECT_EQ(c.set.msg[0]->hdr.qos, 4);
    EXPECT_EQ(c.set.msg[0]->hdr.app_ver, 3u);
    EXPECT_EQ(c.set.msg[0]->hdr.dst_app, me);
    EXPECT_EQ(c.set.msg[0]->hdr.dst_node, 1u);
    EXPECT_EQ(c.set.msg[0]->hdr.seq, 4711u);
    EXPECT_EQ(std::string(static_cast<const char *>(qel_msg_const_data(c.set.msg[0])), 10), "from three");
    EXPECT_EQ(qel_msg_data_len(c.set.msg[1]), 0u);
    const std::string all = fc_stat(me);
    EXPECT_NE(all.find("total receive 0, unack 0, "), std::string::npos) << "replies are not counted";
    EXPECT_NE(all.find("from application 7/2: receive 0, unack 0, drop 0, return 0\n"), std::string::npos);
}

TEST_F(rpc_on_the_wire, a_doubled_late_or_uncalled_for_reply_is_thrown_away) {
    start();
    call c(7, 0);
    arrive(reply_head());
    arrive(reply_head());
    qel_head unknown = reply_head();
    unknown.seq = 4712;
    arrive(unknown);
    EXPECT_EQ(c.set.count, 1);
    arrive(reply_head(7, 3));
    ASSERT_TRUE(c.task.join());
    EXPECT_EQ(c.replies(), (list{"7/2 0", "7/3 0"}));
    arrive(reply_head(7, 3));
    EXPECT_EQ(c.set.count, 2);
}

TEST_F(rpc_on_the_wire, a_reply_with_a_forged_source_never_strikes_a_peer_off) {
    start();
    serve(me, 9, {4});
    call c(7, 0);
    int refused = 0;
    const auto forged = [&](const qel_head &head) {
        arrive(head);
        EXPECT_EQ(exceptions(), qel_format("exception %d", ++refused));
        EXPECT_EQ(c.set.count, 0);
    };
    forged(reply_head(0x10007, 2)); // 16 bits of it are application 7
    forged(reply_head(7, 0x10002)); // 16 bits of it are node 2
    forged(reply_head(0, 0));       // the mark of an entry that has been answered
    forged(reply_head(0x10000, 0x10000));
    forged(reply_head(0xFFFFFFFF, 2));
    forged(reply_head(0x3000, 2));
    qel_head to_another = reply_head();
    to_another.dst_app = 0x10005;
    forged(to_another);
    to_another.dst_app = 9;
    forged(to_another);
    arrive(reply_head(9, 4)); // somebody real who was not asked
    EXPECT_EQ(c.set.count, 0);
    arrive(reply_head());
    arrive(reply_head(7, 3));
    ASSERT_TRUE(c.task.join());
    EXPECT_EQ(c.replies(), (list{"7/2 0", "7/3 0"}));
}

TEST_F(rpc_on_the_wire, answered_entries_cannot_be_struck_off_by_a_peer_of_number_0) {
    start();
    call c(7, 0);
    arrive(reply_head());
    ASSERT_EQ(c.set.count, 1);
    arrive(reply_head(0, 0));
    arrive(reply_head(0x10000, 0));
    EXPECT_EQ(c.set.count, 1);
    arrive(reply_head(7, 3));
    ASSERT_TRUE(c.task.join());
    EXPECT_EQ(c.set.count, 2);
}

TEST_F(rpc_on_the_wire, the_name_of_a_peer_withdrawn_ends_its_part_of_the_call) {
    start();
    call c(7, 0);
    arrive(reply_head());
    qel_fake::withdraw(7, 3);
    ASSERT_TRUE(qel_fake::settle());
    ASSERT_TRUE(c.task.join());
    EXPECT_EQ(c.ret, 0);
    EXPECT_EQ(c.replies(), (list{"7/2 0", "7/3 4"}));
}

TEST_F(rpc_on_the_wire,
       a_request_of_a_peer_that_is_not_online_is_answered_with_status_2_and_counted_as_drop) {
    start();
    qel_head ask = {.flags = 0x02, .src_app = 7, .src_node = 9, .dst_app = me, .seq = 55};
    arrive(ask, "ask!");
    const std::vector<sent> all = take_sent();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].to, "7/9");
    EXPECT_EQ(all[0].msg.hdr.flags, 0x06);
    EXPECT_EQ(all[0].msg.hdr.rpc_status, 2u);
    EXPECT_EQ(all[0].msg.hdr.seq, 55u);
    EXPECT_EQ(all[0].msg.hdr.len, 36u);
    EXPECT_NE(fc_stat(me).find("Receive from application 7/9: receive 0, unack 0, drop 1, return 0\n"),
              std::string::npos);
    EXPECT_TRUE(got().empty());
}

TEST_F(rpc_on_the_wire, a_request_of_an_unknown_version_is_answered_with_status_3_and_the_range) {
    start();
    qel_head ask = {.flags = 0x02, .src_app = 7, .src_node = 2, .dst_app = me, .app_ver = 4, .seq = 55};
    arrive(ask, "ask!");
    const std::vector<sent> all = take_sent();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].to, "7/2");
    EXPECT_EQ(all[0].msg.hdr.flags, 0x06);
    EXPECT_EQ(all[0].msg.hdr.rpc_status, 3u);
    EXPECT_EQ(all[0].msg.hdr.seq, 55u);
    ASSERT_EQ(all[0].msg.data.size(), 8u);
    EXPECT_EQ(host32_at(all[0].msg.data, 0), 1u);
    EXPECT_EQ(host32_at(all[0].msg.data, 4), 1u);
    EXPECT_NE(fc_stat(me).find("Receive from application 7/2: receive 1, unack 1, "), std::string::npos)
        << "counted at dispatch";
}

TEST_F(rpc_on_the_wire, a_request_reaches_the_dispatcher_and_513_of_them_are_acknowledged) {
    start();
    const qel_head ask = {.flags = 0x02, .src_app = 7, .src_node = 2, .dst_app = me, .seq = 55};
    for (int i = 0; i < 512; i++)
        deliver(me, wire(ask, "ask!"));
    ASSERT_TRUE(qel_fake::settle());
    ASSERT_EQ(got().size(), 512u);
    EXPECT_EQ(got()[0].hdr.flags, 0x02);
    EXPECT_TRUE(take_sent().empty());
    arrive(ask);
    const std::vector<sent> all = take_sent();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].to, "7/2");
    EXPECT_EQ(all[0].msg.hdr.flags, QEL_FLAG_MNG);
    EXPECT_EQ(all[0].msg.data, tlv(QEL_TLV_FC_ACK, {512}));
}

// ---- without a thread -----------------------------------------------------------------------------------

// Application 5 has no thread of its own: what its dispatcher does it does on the library's.
struct rpc_without_thread : rpc_on_the_wire {
    static inline int32_t ret, count;
    static inline uint32_t status;
    static void call_back(qel_msg *msg) {
        qel_reply_set set;
        ret = qel_rpc(me, msg->hdr.src_app, msg, 0, 30, &set);
        count = set.count;
        status = count == 1 ? set.msg[0]->hdr.rpc_status : 77;
        qel_reply_msg_free(&set);
        free(msg);
    }
    static void send_back(qel_msg *msg) {
        ret = qel_send(me, msg->hdr.src_app, msg, 0);
        free(msg);
    }
    void start_with(qel_dispatch_fun fun) {
        const qel_dispatcher table[] = {{1, fun}, {0, nullptr}};
        ASSERT_EQ(qel_register_without_thread(me, "app5", table, nullptr), 0);
        qel_set_masks(0);
        ASSERT_EQ(qel_comm_with(me, 7), 0);
        ASSERT_TRUE(run());
        ASSERT_TRUE(bring_online(7, 2));
        qel_set_seq_for_test(4710);
        (void)qel_fake::take_sent();
        ret = 12345;
    }
};

TEST_F(rpc_without_thread, a_call_from_its_dispatcher_never_sees_the_reply_and_times_out) {
    start_with(call_back);
    deliver(me, wire({.src_app = 7, .src_node = 2, .dst_app = me}, "do it"));
    ASSERT_TRUE(qel_time::settle());
    EXPECT_EQ(take_destinations(), (list{"7/2"}));
    deliver(me, wire(reply_head())); // nobody is there to take it
    ASSERT_TRUE(qel_time::run_for(29'999ms));
    ASSERT_TRUE(qel_time::settle());
    EXPECT_EQ(ret, 12345);
    ASSERT_TRUE(qel_time::run_for(1ms));
    ASSERT_TRUE(qel_fake::settle());
    EXPECT_EQ(ret, 0);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(status, QEL_STATUS_TIMEOUT);
}

TEST_F(rpc_without_thread, a_send_from_its_dispatcher_that_is_held_back_stops_all_reception) {
    start_with(send_back);
    for (int i = 0; i < 1025; i++)
        qel_fc_update_sent_ok(me, 7, 2);
    const qel_head head = {.src_app = 7, .src_node = 2, .dst_app = me};
    deliver(me, wire(head, "first"));
    ASSERT_TRUE(qel_time::settle());
    qel_head ack = head;
    ack.flags = QEL_FLAG_MNG;
    deliver(me, wire(ack, tlv(QEL_TLV_FC_ACK, {512}))); // it would release the sender
    ASSERT_TRUE(qel_time::run_for(1h));
    ASSERT_TRUE(qel_time::settle());
    EXPECT_EQ(ret, 12345);
    qel_fc_update_sent_ack(me, 7, 2, 1); // for the end of the test, from outside
    ASSERT_TRUE(qel_fake::settle());
    EXPECT_EQ(ret, 0);
}

// ---- many at once ---------------------------------------------------------------------------------------

TEST_F(rpc_on_the_wire, eight_threads_that_call_at_once_each_get_their_own_answers) {
    start();
    constexpr int threads = 8, calls_each = 150;
    std::atomic<int> done{0}, drawn_twice{0}, wrong{0};
    // The peers answer as soon as they are asked, what they were asked, from their nodes; some twice, and
    // with forged replies in between.
    qel_fake::on_sendto([&](const qel_fake::call &c) {
        const qel_seen ask = unwire(c.data);
        if (ask.hdr.flags != QEL_FLAG_REQUEST)
            return;
        const qel_head head = {
            .flags = 0x06, .src_app = 7, .src_node = c.node(), .dst_app = me, .seq = ask.hdr.seq};
        qel_head forged = head;
        forged.src_app = 0x10007;
        if (ask.hdr.seq % 3 == 0)
            deliver(me, wire(forged, "no"));
        deliver(me, wire(head, ask.data));
        if (ask.hdr.seq % 5 == 0)
            deliver(me, wire(head, "twice"));
    });
    {
        std::vector<std::unique_ptr<qel_task>> tasks;
        for (int t = 0; t < threads; t++)
            tasks.push_back(std::make_unique<qel_task>([&, t] {
                for (int i = 0; i < calls_each; i++) {
                    const msg_ptr msg(qel_msg_alloc(8, 3, 0));
                    const int text[2] = {t, i};
                    memcpy(qel_msg_data(msg.get()), text, sizeof text);
                    qel_reply_set set;
                    const int32_t ret = qel_rpc(me, 7, msg.get(), 0, 0, &set);
                    if (ret == -EEXIST) { // known: two may draw the same number
                        drawn_twice++;
                        i--;
                        continue;
                    }
                    bool right = ret == 0 && set.count == 2;
                    for (int32_t k = 0; right && k < 2; k++)
                        right = set.msg[k]->hdr.seq == msg->hdr.seq &&
                                qel_msg_data_len(set.msg[k]) == sizeof text &&
                                memcmp(qel_msg_const_data(set.msg[k]), text, sizeof text) == 0;
                    right = right && set.msg[0]->hdr.src_node != set.msg[1]->hdr.src_node;
                    wrong += !right;
                    done++;
                    qel_reply_msg_free(&set);
                }
            }));
        for (auto &t : tasks)
            ASSERT_TRUE(t->join());
    }
    ASSERT_TRUE(qel_fake::settle());
    qel_fake::on_sendto(nullptr);
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(done, threads * calls_each);
    EXPECT_EQ(rpc_stat(me), "Application 5 RPC waits:\n");
    const std::string both = fc_stat(me);
    const std::string rejected = qel_format("mcast reject %d,", drawn_twice.load());
    EXPECT_NE(both.find(rejected), std::string::npos) << both;
    RecordProperty("drawn_twice", drawn_twice);
}

TEST_F(rpc_on_the_wire, quits_joins_and_terminations_during_many_calls_leave_no_wait_and_no_half_filled_set) {
    start();
    constexpr int threads = 4, calls_each = 100;
    std::atomic<bool> stop{false};
    std::atomic<int> half{0};
    qel_fake::on_sendto([&](const qel_fake::call &c) {
        const qel_seen ask = unwire(c.data);
        if (ask.hdr.flags == QEL_FLAG_REQUEST && c.node() == 3)
            deliver(me,
                    wire({.flags = 0x06, .src_app = 7, .src_node = 3, .dst_app = me, .seq = ask.hdr.seq}));
    });
    { // node 2 never answers: it is its terminations that end the calls
        qel_task quitter([&] {
            while (!stop)
                (void)qel_terminate_rpc(me, 7, 2);
        });
        std::vector<std::unique_ptr<qel_task>> tasks;
        for (int t = 0; t < threads; t++)
            tasks.push_back(std::make_unique<qel_task>([&] {
                for (int i = 0; i < calls_each; i++) {
                    const msg_ptr msg = new_msg();
                    qel_reply_set set;
                    const int32_t ret = qel_rpc(me, 7, msg.get(), 0, 0, &set);
                    half += ret == 0 ? set.count != 2 : set.count != 0;
                    qel_reply_msg_free(&set);
                }
            }));
        for (auto &t : tasks)
            EXPECT_TRUE(t->join());
        stop = true;
    }
    ASSERT_TRUE(qel_fake::settle());
    qel_fake::on_sendto(nullptr);
    EXPECT_EQ(half, 0);
    EXPECT_EQ(rpc_stat(me), "Application 5 RPC waits:\n");
}

} // namespace
