/*
 * calculator_client: calls a remote procedure of the calculator on one node, or of every calculator there is.
 *
 *     calculator_client NODE "6 * 7" [APP [SERVER]]        APP and SERVER by default 201 and 200
 *
 * NODE -1 asks every node. Ends with 0 when every calculator that was asked has answered.
 */
#include <errno.h>
#include <qel/qel.h>
#include <stdio.h>

enum { CALCULATOR_PROTOCOL = 1, WAIT_MS = 100, WAITS = 100 };

int main(int argc, char **argv) {
    if (argc < 3 || strlen(argv[2]) > QEL_MSG_DATA_MAX) {
        fprintf(stderr, "usage: %s NODE \"A + B\" [APP [SERVER]]\n", argv[0]);
        return 2;
    }
    int node = (int)strtol(argv[1], NULL, 0);
    int app = argc > 3 ? (int)strtol(argv[3], NULL, 0) : 201;
    int server = argc > 4 ? (int)strtol(argv[4], NULL, 0) : 200;
    /* No dispatchers: nobody sends to a client. Replies find their call without. */
    int result = qel_register(app, "calculator client", NULL, NULL);
    if (result == 0)
        result = qel_comm_with(app, server);
    if (result == 0)
        result = qel_run();
    if (result != 0) {
        fprintf(stderr, "calculator_client: application %d cannot join the bus: %d\n", app, result);
        return 1;
    }
    int32_t len = (int32_t)strlen(argv[2]);
    qel_msg *request = qel_msg_alloc(len, CALCULATOR_PROTOCOL, 0);
    memcpy(qel_msg_data(request), argv[2], (size_t)len);

    if (node == QEL_ANY_NODE)
        usleep(2000000); /* a call goes to those who are known; time for all of them to get known */
    /* Right after qel_run() nobody is known: -ENOENT until a calculator has joined. */
    qel_reply_set replies;
    int waits = 0;
    do {
        if (waits > 0)
            usleep(WAIT_MS * 1000);
        result = qel_rpcto((uint32_t)app, node, (uint32_t)server, request, 0, 30, &replies);
    } while (result == -ENOENT && ++waits < WAITS);
    free(request);
    if (result != 0) {
        fprintf(stderr, "calculator_client: the call failed: %d\n", result);
        return 1;
    }
    int failed = 0;
    for (int i = 0; i < replies.count; i++) {
        const qel_msg *reply = replies.msg[i];
        if (reply->hdr.rpc_status == QEL_STATUS_SUCCESS) {
            printf("node %u: %.*s\n", reply->hdr.src_node, (int)qel_msg_data_len(reply),
                   (const char *)qel_msg_const_data(reply));
        } else {
            printf("node %u: %s\n", reply->hdr.src_node, qel_reply_stat_string(reply->hdr.rpc_status));
            failed = 1;
        }
    }
    qel_reply_msg_free(&replies);
    return failed;
}
