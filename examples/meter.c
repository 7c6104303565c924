/*
 * meter: measures the bus between two nodes.
 *
 *     meter                            answers, until SIGTERM or SIGINT
 *     meter NODE [COUNT [SIZE]]        measures towards the meter that answers on NODE; by default with 20000
 *                                      messages and a tenth of it calls, of 64 bytes
 */
#include <errno.h>
#include <pthread.h>
#include <qel/qel.h>
#include <signal.h>
#include <stdio.h>
#include <time.h>

enum { METER_APP = 210, METER_CLIENT_APP = 211, METER_PROTOCOL = 1 };

static void on_message(qel_msg *msg) {
    if (msg->hdr.flags & QEL_FLAG_REQUEST) {
        int result = qel_rpc_reply(msg, msg, 0); /* the request itself is the reply */
        if (result != 0)
            fprintf(stderr, "meter: no reply: %d\n", result);
    }
    free(msg);
}

static double seconds(void) {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (double)t.tv_sec + (double)t.tv_nsec / 1e9;
}

/* One call; 0 or what went wrong. */
static int call(int node, qel_msg *msg) {
    qel_reply_set replies;
    int result = qel_rpcto(METER_CLIENT_APP, node, METER_APP, msg, 0, 30, &replies);
    if (result == 0 && replies.msg[0]->hdr.rpc_status != QEL_STATUS_SUCCESS)
        result = (int)replies.msg[0]->hdr.rpc_status;
    qel_reply_msg_free(&replies);
    return result;
}

static int measure(int node, long count, qel_msg *msg) {
    int result, waits = 0;
    while ((result = call(node, msg)) == -ENOENT && waits++ < 100)
        usleep(100000); /* nobody is known right after qel_run() */
    double begin = seconds();
    for (long i = 0; i < count && result == 0; i++)
        result = qel_sendto(METER_CLIENT_APP, METER_APP, node, msg, 0);
    if (result == 0)
        result = call(node, msg); /* is answered when every message before it has been dispatched */
    double sent = seconds();
    for (long i = 0; i < count / 10 && result == 0; i++)
        result = call(node, msg);
    double called = seconds();
    if (result != 0) {
        fprintf(stderr, "meter: failed: %d\n", result);
        return 1;
    }
    printf("meter: %ld messages of %u bytes to node %d: %.2f us each, %.0f a second\n", count,
           qel_msg_data_len(msg), node, (sent - begin) / (double)count * 1e6, (double)count / (sent - begin));
    printf("meter: %ld calls: %.2f us each\n", count / 10, (called - sent) / ((double)count / 10) * 1e6);
    return 0;
}

int main(int argc, char **argv) {
    static const qel_dispatcher dispatchers[] = {{METER_PROTOCOL, on_message}, {0, NULL}};
    int serves = argc == 1;
    long count = argc > 2 ? strtol(argv[2], NULL, 0) : 20000;
    qel_msg *msg = qel_msg_alloc(argc > 3 ? (int32_t)strtol(argv[3], NULL, 0) : 64, METER_PROTOCOL, 0);
    if (count < 10 || msg == NULL) {
        fprintf(stderr, "usage: %s [NODE [COUNT [SIZE]]], COUNT from 10, SIZE up to 65536\n", argv[0]);
        return 2;
    }
    memset(qel_msg_data(msg), 'q', qel_msg_data_len(msg));
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    if (serves)
        pthread_sigmask(SIG_BLOCK, &signals, NULL);

    int app = serves ? METER_APP : METER_CLIENT_APP;
    int result = qel_register(app, "meter", serves ? dispatchers : NULL, NULL);
    if (result == 0)
        result = qel_comm_with(app, serves ? METER_CLIENT_APP : METER_APP);
    if (result == 0)
        result = qel_run();
    if (result != 0) {
        fprintf(stderr, "meter: application %d cannot join the bus: %d\n", app, result);
        free(msg);
        return 1;
    }
    int signal_number;
    result = serves ? sigwait(&signals, &signal_number) : measure((int)strtol(argv[1], NULL, 0), count, msg);
    free(msg);
    return result;
}
