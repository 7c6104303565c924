/*
 * sensor: publishes a temperature as one-way messages and answers remote procedure calls about itself.
 *
 *     sensor [APP [LISTENER [COUNT [INTERVAL_MS]]]]        by default 100 101 0 1000
 *
 * Runs as application APP and sends readings to every instance of application LISTENER, on whatever node;
 * COUNT of them or, with 0, until SIGTERM or SIGINT.
 */
#include "sensor_protocol.h"
#include <arpa/inet.h>
#include <errno.h>
#include <pthread.h>
#include <qel/qel.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdio.h>

static atomic_uint g_sent, g_unheard;

/* Runs on the application's own thread; the message is ours and we free it. */
static void on_message(qel_msg *request) {
    if (request->hdr.flags & QEL_FLAG_REQUEST) {
        struct sensor_status status = {htonl(g_sent), htonl(g_unheard)};
        qel_msg *reply = qel_msg_alloc(sizeof status, SENSOR_PROTOCOL, 0);
        memcpy(qel_msg_data(reply), &status, sizeof status);
        int result = qel_rpc_reply(request, reply, 0);
        if (result != 0)
            fprintf(stderr, "sensor: no reply to node %u: %d\n", request->hdr.src_node, result);
        free(reply);
    }
    free(request);
}

static int publish(int app, int listener, uint32_t node) {
    uint32_t number = g_sent + g_unheard + 1;
    struct sensor_reading reading = {htonl(node), htonl(number),
                                     (int32_t)htonl(20000 + number * 7919 % 5000)};
    qel_msg *msg = qel_msg_alloc(sizeof reading, SENSOR_PROTOCOL, 0);
    memcpy(qel_msg_data(msg), &reading, sizeof reading);
    /* Flags 0: if the listener falls behind by more than 1025 messages this waits for it. */
    int result = qel_send((uint32_t)app, (uint32_t)listener, msg, 0);
    free(msg);
    if (result == -ENOENT)
        g_unheard++;
    else
        g_sent++;
    return result;
}

static long argument(int argc, char **argv, int i, long otherwise) {
    return i < argc ? strtol(argv[i], NULL, 0) : otherwise;
}

int main(int argc, char **argv) {
    int app = (int)argument(argc, argv, 1, SENSOR_APP), listener = (int)argument(argc, argv, 2, MONITOR_APP);
    long count = argument(argc, argv, 3, 0), interval_ms = argument(argc, argv, 4, 1000);
    static const qel_dispatcher dispatchers[] = {{SENSOR_PROTOCOL, on_message}, {0, NULL}};

    /* Blocked before the first thread exists, the signals are left for sigtimedwait() below. */
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, NULL);

    int result = qel_register(app, "sensor", dispatchers, NULL);
    if (result == 0)
        result = qel_comm_with(app, listener); /* the listener says the same about us */
    if (result == 0)
        result = qel_comm_with(app, INVENTORY_APP);
    if (result == 0)
        result = qel_run();
    if (result != 0) {
        fprintf(stderr, "sensor: application %d cannot join the bus: %d\n", app, result);
        return 1;
    }
    uint32_t own[QEL_NODE_GROUP_MBRS]; /* this node's ID, to put into the readings */
    if (qel_get_node_mbrs((uint32_t)app, QEL_MY_NODE, own) != 0)
        return 1;
    const struct timespec interval = {interval_ms / 1000, interval_ms % 1000 * 1000000};
    while (count == 0 || g_sent < (unsigned long)count) {
        if (sigtimedwait(&signals, NULL, &interval) > 0)
            break;
        result = publish(app, listener, own[0]);
        if (result == -ENOENT)
            usleep(100000); /* nobody listens at the moment: no error, but no hurry either */
        else if (result != 0)
            fprintf(stderr, "sensor: a reading was not sent everywhere: %d\n", result);
    }
    usleep(500000); /* what a listener has not taken when we quit is discarded: leave it a moment */
    printf("sensor: %u readings sent, %u unheard\n", g_sent, g_unheard);
    return 0;
}
