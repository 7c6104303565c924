// inventory: asks every sensor on every node at once, with one remote procedure call, and prints a line each.
//
//     inventory [NODES [APP [SENSOR]]]        by default 1 110 100
//
// Runs as application APP, waits until SENSOR has joined on NODES nodes (10 seconds at most), calls them all
// and ends; with 0 when all NODES nodes have answered.
#include "sensor_protocol.h"
#include <arpa/inet.h>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <qel/qel.h>
#include <set>

namespace {

std::mutex g_lock;
std::condition_variable g_changed;
std::set<uint32_t> g_nodes; // where the sensor is
uint32_t g_sensor;

void on_event(qel_app_event event) {
    const std::lock_guard hold(g_lock);
    if (event.event == QEL_EVENT_JOIN)
        g_nodes.insert(event.node);
    else
        g_nodes.erase(event.node);
    g_changed.notify_all();
}

// The caller owns the replies; this frees them at the end of the scope.
struct reply_set : qel_reply_set {
    reply_set() : qel_reply_set() {}
    ~reply_set() { qel_reply_msg_free(this); }
    reply_set(const reply_set &) = delete;
    reply_set &operator=(const reply_set &) = delete;
};

long argument(int argc, char **argv, int i, long otherwise) {
    return i < argc ? strtol(argv[i], nullptr, 0) : otherwise;
}

} // namespace

int main(int argc, char **argv) {
    const auto nodes = static_cast<size_t>(argument(argc, argv, 1, 1));
    const auto app = static_cast<int32_t>(argument(argc, argv, 2, INVENTORY_APP));
    g_sensor = static_cast<uint32_t>(argument(argc, argv, 3, SENSOR_APP));

    // No dispatchers: nobody sends to it. Replies find their call without.
    int result = qel_register(app, "inventory", nullptr, on_event);
    if (result == 0)
        result = qel_comm_with(app, static_cast<int32_t>(g_sensor));
    if (result == 0)
        result = qel_run();
    if (result != 0) {
        fprintf(stderr, "inventory: application %d cannot join the bus: %d\n", app, result);
        return 1;
    }
    {
        std::unique_lock hold(g_lock);
        g_changed.wait_for(hold, std::chrono::seconds(10), [&] { return g_nodes.size() >= nodes; });
    }
    const std::unique_ptr<qel_msg, decltype(&free)> request(qel_msg_alloc(0, SENSOR_PROTOCOL, 0), &free);
    reply_set replies;
    result = qel_rpc(static_cast<uint32_t>(app), g_sensor, request.get(), 0, 30, &replies);
    if (result != 0) {
        fprintf(stderr, "inventory: the call failed: %d\n", result);
        return 1;
    }
    std::map<uint32_t, const qel_msg *> by_node; // they came in any order
    for (int32_t i = 0; i < replies.count; i++)
        by_node[replies.msg[i]->hdr.src_node] = replies.msg[i];
    size_t answered = 0;
    for (const auto &[node, reply] : by_node) {
        sensor_status status;
        if (reply->hdr.rpc_status == QEL_STATUS_SUCCESS && qel_msg_data_len(reply) == sizeof status) {
            memcpy(&status, qel_msg_const_data(reply), sizeof status);
            printf("node %u: %u readings sent, %u unheard\n", node, ntohl(status.sent),
                   ntohl(status.unheard));
            answered++;
        } else {
            printf("node %u: %s\n", node, qel_reply_stat_string(reply->hdr.rpc_status));
        }
    }
    return answered == nodes ? 0 : 1;
}
