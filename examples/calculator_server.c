/*
 * calculator_server: answers remote procedure calls. A request's data are a text like "6 * 7", the reply's
 * the result or what was wrong.
 *
 *     calculator_server [APP [CLIENT [COUNT]]]        by default 200 201 0
 *
 * Runs as application APP and ends after COUNT requests or, with 0, at SIGTERM or SIGINT.
 */
#include <pthread.h>
#include <qel/qel.h>
#include <signal.h>
#include <stdio.h>

enum { CALCULATOR_PROTOCOL = 1, TEXT_MAX = 128 };

static long g_count, g_answered;

static void calculate(const char *text, char *result, size_t size) {
    double a, b;
    char operation;
    if (sscanf(text, "%lf %c %lf", &a, &operation, &b) != 3)
        snprintf(result, size, "not understood");
    else if (operation == '+')
        snprintf(result, size, "%g", a + b);
    else if (operation == '-')
        snprintf(result, size, "%g", a - b);
    else if (operation == '*')
        snprintf(result, size, "%g", a * b);
    else if (operation == '/' && b != 0)
        snprintf(result, size, "%g", a / b);
    else
        snprintf(result, size, "cannot do that");
}

static void on_request(qel_msg *request) {
    char text[TEXT_MAX] = "", result[TEXT_MAX];
    uint32_t len = qel_msg_data_len(request);
    if (len < sizeof text) { /* what comes over the bus has any length and no terminator */
        memcpy(text, qel_msg_const_data(request), len);
        calculate(text, result, sizeof result);
    } else {
        snprintf(result, sizeof result, "too long");
    }
    printf("calculator_server: node %u asks %s: %s\n", request->hdr.src_node, text, result);
    qel_msg *reply = qel_msg_alloc((int32_t)strlen(result), CALCULATOR_PROTOCOL, 0);
    memcpy(qel_msg_data(reply), result, strlen(result));
    int status = qel_rpc_reply(request, reply, 0);
    if (status != 0)
        fprintf(stderr, "calculator_server: no reply to node %u: %d\n", request->hdr.src_node, status);
    free(reply);
    free(request);
    if (++g_answered == g_count)
        kill(getpid(), SIGTERM);
}

static long argument(int argc, char **argv, int i, long otherwise) {
    return i < argc ? strtol(argv[i], NULL, 0) : otherwise;
}

int main(int argc, char **argv) {
    int app = (int)argument(argc, argv, 1, 200), client = (int)argument(argc, argv, 2, 201);
    static const qel_dispatcher dispatchers[] = {{CALCULATOR_PROTOCOL, on_request}, {0, NULL}};
    g_count = argument(argc, argv, 3, 0);
    setvbuf(stdout, NULL, _IOLBF, 0);

    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, NULL);

    int result = qel_register(app, "calculator", dispatchers, NULL);
    if (result == 0)
        result = qel_comm_with(app, client);
    if (result == 0)
        result = qel_run();
    if (result != 0) {
        fprintf(stderr, "calculator_server: application %d cannot join the bus: %d\n", app, result);
        return 1;
    }
    int signal_number;
    sigwait(&signals, &signal_number);
    return 0;
}
