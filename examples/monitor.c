/*
 * monitor: shows sensors and gateways that come and go, and the readings they send.
 *
 *     monitor [APP [SENSOR [COUNT [DELAY_US]]]]        by default 101 100 0 0
 *
 * Runs as application APP and ends after COUNT readings or, with 0, at SIGTERM or SIGINT. DELAY_US is what it
 * spends on each reading: a slow monitor holds its senders back as soon as they are 1025 messages ahead.
 */
#include "sensor_protocol.h"
#include <arpa/inet.h>
#include <pthread.h>
#include <qel/qel.h>
#include <signal.h>
#include <stdio.h>

static long g_count, g_received;
static useconds_t g_delay_us;

/* Dispatcher and event callback run one at a time, on the application's own thread. */
static void on_reading(qel_msg *msg) {
    struct sensor_reading reading;
    if (qel_msg_data_len(msg) == sizeof reading && (g_count == 0 || g_received < g_count)) {
        memcpy(&reading, qel_msg_const_data(msg), sizeof reading);
        printf("monitor: reading %u of node %u: %.3f degrees\n", ntohl((uint32_t)reading.number),
               ntohl(reading.node), (int32_t)ntohl((uint32_t)reading.millidegrees) / 1000.0);
        if (++g_received == g_count)
            kill(getpid(), SIGTERM);
        if (g_delay_us != 0)
            usleep(g_delay_us);
    }
    free(msg);
}

static void on_event(qel_app_event event) {
    printf("monitor: application %u on node %u %s\n", event.peer_app, event.node,
           event.event == QEL_EVENT_JOIN ? "joins" : "quits");
}

static long argument(int argc, char **argv, int i, long otherwise) {
    return i < argc ? strtol(argv[i], NULL, 0) : otherwise;
}

int main(int argc, char **argv) {
    int app = (int)argument(argc, argv, 1, MONITOR_APP), sensor = (int)argument(argc, argv, 2, SENSOR_APP);
    static const qel_dispatcher dispatchers[] = {{SENSOR_PROTOCOL, on_reading}, {0, NULL}};
    g_count = argument(argc, argv, 3, 0);
    g_delay_us = (useconds_t)argument(argc, argv, 4, 0);
    setvbuf(stdout, NULL, _IOLBF, 0); /* whoever reads a pipe sees each line at once */

    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, NULL);

    int result = qel_register(app, "monitor", dispatchers, on_event);
    if (result == 0)
        result = qel_comm_with(app, sensor);
    if (result == 0)
        result = qel_comm_with(app, GATEWAY_APP);
    if (result == 0)
        result = qel_run();
    if (result != 0) {
        fprintf(stderr, "monitor: application %d cannot join the bus: %d\n", app, result);
        return 1;
    }
    int signal_number;
    sigwait(&signals, &signal_number);
    printf("monitor: ends\n");
    return 0;
}
