// The engine of the library under a test: a world whose applications have no threads, so that the library
// thread does everything and the order of all lines and datagrams is fixed; and short words for what tests of
// the library thread, of presence, of the handshake and of management messages say all the time.
//
//     struct my_test : qel_engine {};
//     TEST_F(my_test, ...) {
//         begin({5}, {{5, 7}});                    // application 5 talks to 7; running
//         publish(7, 2);                           // the name of 7 on node 2 appears
//         EXPECT_EQ(out.take(), "<qel_mng> 2: ..."); // all that was printed
//         EXPECT_EQ(bits(7, 2), "");
//         receive(5, sync_of(7, 2, 5));
//         EXPECT_EQ(bits(7, 2), "I");
//     }
#ifndef QEL_ENGINE_H
#define QEL_ENGINE_H

#include <functional>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "qel_capture.h"
#include "qel_world.h"

// The words of a sync or of its acknowledgement.
struct sync_words {
    uint32_t seq = 0x5001, pid = 4711, server = 1, resume = 0, counter = 600;
};

struct qel_engine : qel_world {
    using bytes = qel_fake::bytes;

    qel_capture out;

    // Registers the applications without threads, declares the pairs, runs, then forgets what was printed and
    // called so far; all levels are printed from then on and the next sequence number is 101.
    void begin(std::initializer_list<int32_t> apps,
               std::initializer_list<std::pair<int32_t, int32_t>> pairs = {}, bool with_thread = false);

    // Each lets the library work it off.
    void publish(uint32_t peer, uint32_t node);
    void withdraw(uint32_t peer, uint32_t node);
    void receive(uint32_t app, const bytes &datagram);
    void receive(uint32_t app, qel_fake::datagram in);
    void topology_event(uint32_t event, uint32_t lower, uint32_t upper, uint32_t peer);
    void topology_event(uint32_t event, uint32_t lower, uint32_t upper, const tipc_subscr &subscription);
    void timer_event(uint32_t type, uint32_t seq);
    void settle();
    void settle_threads();                    // the same without asking for a thread that waits in poll()
    void pass(std::chrono::nanoseconds time); // of the clock

    static bytes sync_of(uint32_t peer, uint32_t node, uint32_t app, const sync_words &words = {});
    static bytes ack_of(uint32_t peer, uint32_t node, uint32_t app, const sync_words &words);
    // The subscription to all instances of @peer, and a timer's.
    static tipc_subscr peer_subscription(uint32_t peer);
    static tipc_subscr timer_subscription(uint32_t ms, uint32_t type, uint32_t seq);
    static bytes as_bytes(const tipc_subscr &subscription);

    // What was sent since the last take_sent() or take_calls().
    struct sent_msg {
        uint32_t app, node; // to
        qel_hdr hdr;
        bytes data;
        bool sync() const { return hdr.flags == QEL_FLAG_SYNC && data.size() == 24 && data[3] == 1; }
        bool ack() const { return hdr.flags == QEL_FLAG_SYNC && data.size() == 24 && data[3] == 2; }
        uint32_t seq() const { return be32_at(data, 4); }
        uint32_t resume() const { return be32_at(data, 16); }
        uint32_t counter() const { return be32_at(data, 20); }
    };
    static std::vector<sent_msg> take_sent();
    // The sequence of the last sync that was sent to the peer for @app; 0 when none was.
    static uint32_t sync_seq(uint32_t app, uint32_t peer, uint32_t node);
    // The handshake with each local application that sent a sync; ends with the instance online.
    void shake_hands(uint32_t peer, uint32_t node, bool server = true, uint32_t pid = 4711);

    // The sets in which the library has the instance: S servers, I instances, A acked, O online.
    static std::string bits(uint32_t peer, uint32_t node);
    static size_t unacks(), resumes(), resends(), sync_ids();
    static size_t unacks_to(uint32_t peer, uint32_t node);
    static bool comm_app_exists(uint32_t peer);
    static std::string lib_print(uint32_t app), fc_print(uint32_t app), app_print(uint32_t app),
        rpc_print(uint32_t app);
    static unsigned exceptions(uint32_t app); // of receiving
    // "receive %d, unack %d, drop %d, return %d" of the peer instance, or "".
    static std::string recv_stat(uint32_t app, uint32_t peer, uint32_t node);
    static std::string send_stat(uint32_t app, uint32_t peer, uint32_t node);

    // An open call of @app to these instances: what a caller leaves behind. Its replies end up in @set.
    struct reply_set {
        qel_reply_set set{};
        reply_set() = default;
        ~reply_set() { qel_reply_msg_free(&set); }
        reply_set(const reply_set &) = delete;
        reply_set &operator=(const reply_set &) = delete;
    };
    static void open_rpc(uint32_t app, uint32_t seq, std::initializer_list<std::pair<uint32_t, uint32_t>> to,
                         reply_set *replies);
};

// Runs @what in a child process, which must be done before the first use of the library here: it printed
// @output and ended with @status as waitpid() tells it.
struct qel_child {
    int status = 0;
    std::string output; // without line numbers
};
qel_child qel_run_child(const std::function<void()> &what);

#endif
