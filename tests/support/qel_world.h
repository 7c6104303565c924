// A whole process of the bus in a world of the test's own: virtual time, a transport without network, the
// files of a node, and peers that the test plays.
//
//     struct my_test : qel_world {};
//     TEST_F(my_test, ...) {
//         add_app(5);                                 // registers application 5 on node 1
//         ASSERT_EQ(qel_comm_with(5, 7), 0);
//         ASSERT_TRUE(run());                         // qel_run() and the second that follows
//         ASSERT_TRUE(bring_online(7, 2));         // application 7 on node 2 shakes hands with 5
//         deliver(5, wire({.src_app = 7, .src_node = 2, .dst_app = 5}, "text"));
//         ASSERT_TRUE(qel_fake::settle());
//     }
//
// The library's globals cannot be reset, so a test of a world needs a process of its own, as ctest gives it.
#ifndef QEL_WORLD_H
#define QEL_WORLD_H

#include <cstdint>
#include <string>
#include <vector>

#include "qel/qel.h"
#include "qel_fake_port.h"
#include "qel_fake_time.h"
#include "qel_node.h"
#include "qel_tlv.h"

// A header in host order; wire() puts it in front of data in network order.
struct qel_head {
    uint8_t flags = 0;
    uint32_t src_app = 0, src_node = 0, dst_app = 0, dst_node = 1;
    uint32_t app_ver = 1, seq = 0, status = 0;
    uint8_t version = 1, qos = 0;
    int64_t len = -1; // what the field says; -1: what is true
};
qel_fake::bytes wire(const qel_head &head, const qel_fake::bytes &data = {});
qel_fake::bytes wire(const qel_head &head, const std::string &data);
qel_fake::bytes to_bytes(const std::string &text);
// A received or sent datagram taken apart again, in host order; the data behind it.
struct qel_seen {
    qel_hdr hdr{};
    qel_fake::bytes data;
};
qel_seen unwire(const qel_fake::bytes &b);
// One TLV item; words in network order.
qel_fake::bytes tlv(uint16_t type, const std::vector<uint32_t> &words = {});
uint32_t be32_at(const qel_fake::bytes &b, size_t offset);
uint32_t host32_at(const qel_fake::bytes &b, size_t offset);

struct qel_world : qel_node {
    qel_world();
    ~qel_world() override;

    // A dispatcher table {1, keep}: messages are kept in got() and freed.
    static const qel_dispatcher keep_table[];
    struct kept {
        qel_hdr hdr;
        qel_fake::bytes data;
    };
    static std::vector<kept> got(); // by all applications of keep_table, in order
    static void on_event(qel_app_event event);
    static std::vector<qel_app_event> events();

    static int add_app(int32_t app, bool with_thread = true);
    // qel_run(), and on until the library thread waits for its first message.
    static bool run();
    // Publishes @peer on @node and shakes hands for it with every local application that sends it a sync;
    // true when the instance is online.
    static bool bring_online(uint32_t peer, uint32_t node, bool server = true, uint32_t pid = 4711);
    static void deliver(uint32_t app, const qel_fake::bytes &datagram);
};

#endif
