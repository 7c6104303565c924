// gateway: takes readings from sensors and passes the warm ones on, never waiting for a slow listener.
//
//     gateway [APP [SENSOR [LISTENER [LIMIT]]]]        by default 102 100 101 22000
//
// Runs as application APP until SIGTERM or SIGINT and relays readings above LIMIT millidegrees. A relay that
// waits for its listener makes its senders wait in turn, on every node; this one rather drops what flow
// control refuses and counts it.
#include "sensor_protocol.h"
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <memory>
#include <qel/qel.h>

namespace {

// A message is one block of malloc(): this frees it at the end of the scope.
struct free_msg {
    void operator()(qel_msg *msg) const { free(msg); }
};
using msg_ptr = std::unique_ptr<qel_msg, free_msg>;

uint32_t g_app, g_listener;
int32_t g_limit;
std::atomic<unsigned> g_seen, g_relayed, g_cold, g_refused, g_unheard, g_failed;

void on_reading(qel_msg *received) {
    const msg_ptr msg(received);
    sensor_reading reading;
    if (qel_msg_data_len(msg.get()) != sizeof reading)
        return;
    memcpy(&reading, qel_msg_const_data(msg.get()), sizeof reading);
    g_seen++;
    if (static_cast<int32_t>(ntohl(static_cast<uint32_t>(reading.millidegrees))) <= g_limit) {
        g_cold++;
        return;
    }
    // The received message can be sent on as it is: a send rewrites the header and leaves the data.
    switch (qel_send(g_app, g_listener, msg.get(), QEL_SEND_NOWAIT)) {
    case 0:
        g_relayed++;
        break;
    case -EAGAIN: // the listener is 1025 messages behind
        g_refused++;
        break;
    case -ENOENT:
        g_unheard++;
        break;
    default: // some listener did not get it
        g_failed++;
    }
}

long argument(int argc, char **argv, int i, long otherwise) {
    return i < argc ? strtol(argv[i], nullptr, 0) : otherwise;
}

} // namespace

int main(int argc, char **argv) {
    g_app = static_cast<uint32_t>(argument(argc, argv, 1, GATEWAY_APP));
    g_listener = static_cast<uint32_t>(argument(argc, argv, 3, MONITOR_APP));
    g_limit = static_cast<int32_t>(argument(argc, argv, 4, 22000));

    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    const qel_dispatcher dispatchers[] = {{SENSOR_PROTOCOL, on_reading}, {0, nullptr}};
    const auto app = static_cast<int32_t>(g_app);
    int result = qel_register(app, "gateway", dispatchers, nullptr);
    if (result == 0)
        result = qel_comm_with(app, static_cast<int32_t>(argument(argc, argv, 2, SENSOR_APP)));
    if (result == 0)
        result = qel_comm_with(app, static_cast<int32_t>(g_listener));
    if (result == 0)
        result = qel_run();
    if (result != 0) {
        fprintf(stderr, "gateway: application %u cannot join the bus: %d\n", g_app, result);
        return 1;
    }
    int signal_number;
    sigwait(&signals, &signal_number);
    printf("gateway: %u readings: %u relayed, %u below the limit, %u refused by flow control, %u unheard, %u "
           "failed\n",
           g_seen.load(), g_relayed.load(), g_cold.load(), g_refused.load(), g_unheard.load(),
           g_failed.load());
    return 0;
}
