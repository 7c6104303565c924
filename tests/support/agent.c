/*
 * qel-test-agent: a process on the bus that a test drives line by line. It knows the public header only.
 *
 * Each line of its input is "TAG COMMAND ARGUMENT..."; each is answered by one line "= TAG RESULT...", those
 * that wait for something on a thread of their own, so answers come in any order. Events of the bus are lines
 * "! ...". Lines of the library's log begin with "<". A command that cannot be understood is answered "= TAG
 * ? reason".
 *
 *   register APP [nothread] [noevents] [noname] [client] [v=1,2]   result of the registration
 *   unregister APP | comm APP PEER | run | ready | online NODE APP
 *   send APP DST COUNT SIZE FLAGS [KEY=VALUE]...       "RESULT SENT MICROSECONDS": ends at the first result
 *        that is not 0
 *   sendto APP DST NODE COUNT SIZE FLAGS [KEY=VALUE]...
 *        SIZE: bytes, or "mix" (0 to 65536); ver=V, qos=Q (stays instead of the sequence), first=SEQUENCE,
 *        retry=MS: tries again for so long while there is no server
 *   sent APP DST                                       messages sent in the current or last send to DST
 *   received APP PEER NODE                             "COUNT BYTES FIRST NEXT GAPS DUPLICATES BAD REQUESTS"
 *   await APP PEER NODE COUNT MS                       the same once COUNT messages have come, or after MS
 *   forget APP PEER NODE                               starts its account anew
 *   delay APP MICROSECONDS | hold APP | release APP    what the dispatcher does with each message
 *   serve APP echo|self|never|null|die|late|relay [N]  what it does with a request: N is the delay of a late
 *        reply in milliseconds; a relay calls application N from the dispatcher and passes its answer on
 *   rpc APP DST SIZE FLAGS TIMEOUT [ver=V]             "RESULT COUNT MS node/app:status:content ..."
 *   rpcto APP NODE DST SIZE FLAGS TIMEOUT [ver=V]
 *   storm APP NODE DST THREADS CALLS SIZE PEERS        "GOOD WRONG FAILED": many calls at once
 *   mkapps APP | addapp APP G M | delapp APP G M | rmapps APP G | mknodes ... likewise
 *   appmbrs APP DST | nodembrs APP NODE | confmbrs G   "RESULT MEMBER ..."
 *   resume on|off | threads | rss | fds | sleepers | pid | exit STATUS
 */
#include <errno.h>
#include <inttypes.h>
#include <pthread.h>
#include <qel/qel.h>
#include <signal.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <stdio.h>
#include <time.h>

#include <dirent.h>

enum { WORDS_MAX = 24, APPS_MAX = 64, STREAMS_MAX = 512, PATTERN = QEL_MSG_DATA_MAX };

/* ---- content ----------------------------------------------------------------------------------------------
 */

/* Data of 16 bytes and more begin with this; shorter ones are the pattern alone. The low byte of the sequence
 * is in the header's qos, so that messages too short for it are in order or not all the same. */
struct content {
    uint64_t seq;
    uint32_t size;
    uint32_t reserved;
};

static unsigned char g_pattern[2 * PATTERN];

static uint64_t mixed(uint64_t x) { /* a hash: the same everywhere for the same number */
    x += 0x9E3779B97F4A7C15u;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9u;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBu;
    return x ^ (x >> 31);
}

static void fill_pattern(void) {
    for (uint32_t i = 0; i < PATTERN; i++)
        g_pattern[i] = g_pattern[i + PATTERN] = (unsigned char)mixed(i / 8) + (unsigned char)i;
}

static const unsigned char *pattern_of(uint64_t seq) { return g_pattern + seq * 7919 % PATTERN; }

/* 0 to 65536: as many of every magnitude, the two ends now and then. */
static uint32_t mixed_size(uint64_t seq) {
    uint64_t x = mixed(seq);
    if (x % 256 == 0)
        return 0;
    if (x % 1024 == 1)
        return QEL_MSG_DATA_MAX;
    return (uint32_t)((x >> 16) % (1u << (x % 17)));
}

static void write_content(void *data, uint32_t size, uint64_t seq) {
    struct content head = {seq, size, 0};
    memcpy(data, pattern_of(seq), size);
    if (size >= sizeof head)
        memcpy(data, &head, sizeof head);
}

static bool right_content(const void *data, uint32_t size, uint64_t seq) {
    struct content head;
    if (size < sizeof head)
        return memcmp(data, pattern_of(seq), size) == 0;
    memcpy(&head, data, sizeof head);
    return head.seq == seq && head.size == size &&
           memcmp((const char *)data + sizeof head, pattern_of(seq) + sizeof head, size - sizeof head) == 0;
}

/* ---- state ------------------------------------------------------------------------------------------------
 */

enum serve { SERVE_ECHO, SERVE_SELF, SERVE_NEVER, SERVE_NULL, SERVE_DIE, SERVE_LATE, SERVE_RELAY };
static const char *const g_serve_words[] = {"echo", "self", "never", "null", "die", "late", "relay"};

struct app {
    uint32_t id;
    atomic_int delay_us, held, serve, serve_value;
};

/* What came from one peer, or went to one. */
struct stream {
    uint32_t app, peer;
    int32_t node; /* -1: outgoing */
    uint64_t count, bytes, first, next, gaps, duplicates, bad, requests;
};

static pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t g_changed; /* on CLOCK_MONOTONIC */
static struct app g_apps[APPS_MAX];
static atomic_int g_app_count;
static struct stream g_streams[STREAMS_MAX];
static int g_stream_count;
static atomic_int g_awaiting;

static struct app *app_of(uint32_t id) {
    for (int i = 0; i < g_app_count; i++)
        if (g_apps[i].id == id)
            return &g_apps[i];
    return NULL;
}

/* With g_lock held. The last one serves all that do not fit; a test that sees its count is broken anyway. */
static struct stream *stream_of(uint32_t app, uint32_t peer, int32_t node) {
    for (int i = 0; i < g_stream_count; i++)
        if (g_streams[i].app == app && g_streams[i].peer == peer && g_streams[i].node == node)
            return &g_streams[i];
    if (g_stream_count == STREAMS_MAX)
        return &g_streams[STREAMS_MAX - 1];
    struct stream *s = &g_streams[g_stream_count++];
    *s = (struct stream){.app = app, .peer = peer, .node = node};
    return s;
}

static struct timespec now(void) {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t;
}

static int64_t us_since(struct timespec begin) {
    struct timespec t = now();
    return (int64_t)(t.tv_sec - begin.tv_sec) * 1000000 + (t.tv_nsec - begin.tv_nsec) / 1000;
}

static void wait_us(int64_t us) {
    struct timespec t = {us / 1000000, us % 1000000 * 1000};
    while (nanosleep(&t, &t) != 0 && errno == EINTR) {
    }
}

/* One line in one call of the C library, so that lines of several threads do not mix. */
static void say(const char *format, ...) __attribute__((format(printf, 1, 2)));
static void say(const char *format, ...) {
    char line[16384];
    va_list args;
    va_start(args, format);
    int len = vsnprintf(line, sizeof line - 1, format, args);
    va_end(args);
    if (len > (int)sizeof line - 2)
        len = (int)sizeof line - 2;
    line[len++] = '\n';
    fwrite(line, 1, (size_t)len, stdout);
}

static void thread_name(char name[32]) {
    FILE *file = fopen("/proc/thread-self/comm", "r");
    if (file == NULL || fgets(name, 32, file) == NULL)
        strcpy(name, "?");
    name[strcspn(name, "\n")] = 0;
    if (file != NULL)
        fclose(file);
}

/* ---- what the bus calls -----------------------------------------------------------------------------------
 */

static void account(struct stream *s, const qel_msg *msg) {
    uint32_t size = qel_msg_data_len(msg);
    uint64_t seq = s->next;
    if (size >= sizeof(struct content))
        memcpy(&seq, qel_msg_const_data(msg), sizeof seq);
    else if (s->count > 0) /* the nearest number with this low byte */
        seq = s->next + (uint64_t)(int64_t)(int8_t)(uint8_t)(msg->hdr.qos - (uint8_t)s->next);
    else
        seq = msg->hdr.qos;
    if (s->count++ == 0)
        s->first = s->next = seq;
    s->bytes += size;
    if ((uint8_t)seq != msg->hdr.qos || !right_content(qel_msg_const_data(msg), size, seq))
        s->bad++;
    else if (seq > s->next)
        s->gaps++;
    else if (seq < s->next)
        s->duplicates++;
    if (seq >= s->next)
        s->next = seq + 1;
}

struct late_reply {
    qel_msg *request;
    int ms;
};

static void reply_to(qel_msg *request, bool itself) {
    int result;
    if (itself) {
        result = qel_rpc_reply(request, request, 0);
    } else {
        uint32_t size = qel_msg_data_len(request);
        qel_msg *reply = qel_msg_alloc((int32_t)size, request->hdr.app_ver, 0);
        memcpy(qel_msg_data(reply), qel_msg_const_data(request), size);
        result = qel_rpc_reply(request, reply, 0);
        free(reply);
    }
    if (result != 0)
        say("! reply failed %d", result);
}

static void *reply_late(void *arg) {
    struct late_reply *late = arg;
    wait_us((int64_t)late->ms * 1000);
    reply_to(late->request, false);
    free(late->request);
    free(late);
    return NULL;
}

static void start_thread(void *(*function)(void *), void *arg) {
    pthread_t thread;
    int result = pthread_create(&thread, NULL, function, arg);
    if (result != 0) {
        fprintf(stderr, "qel-test-agent: no thread: %s\n", strerror(result));
        abort();
    }
    pthread_detach(thread);
}

static void relay(struct app *app, qel_msg *request) {
    qel_reply_set set;
    uint32_t size = qel_msg_data_len(request);
    qel_msg *inner = qel_msg_alloc((int32_t)size, 1, 0);
    memcpy(qel_msg_data(inner), qel_msg_const_data(request), size);
    int32_t result = qel_rpc(app->id, (uint32_t)(int)app->serve_value, inner, 0, 30, &set);
    if (result != 0 || qel_rpc_reply(request, set.msg[0], 0) != 0)
        say("! relay failed %" PRId32, result);
    qel_reply_msg_free(&set);
    free(inner);
}

static void serve(struct app *app, qel_msg *request) {
    switch ((enum serve)app->serve) {
    case SERVE_ECHO:
        reply_to(request, false);
        break;
    case SERVE_SELF:
        reply_to(request, true);
        break;
    case SERVE_NEVER:
        break;
    case SERVE_NULL:
        if (qel_rpc_reply(request, NULL, 0) != 0)
            say("! reply failed");
        break;
    case SERVE_DIE:
        kill(getpid(), SIGKILL);
        break;
    case SERVE_LATE: {
        struct late_reply *late = malloc(sizeof *late);
        *late = (struct late_reply){request, app->serve_value};
        start_thread(reply_late, late);
        return; /* it frees the request */
    }
    case SERVE_RELAY:
        relay(app, request);
        break;
    }
    free(request);
}

static void on_message(qel_msg *msg) {
    struct app *app = app_of(msg->hdr.dst_app);
    bool request = (msg->hdr.flags & QEL_FLAG_REQUEST) != 0;
    if (app == NULL || (msg->hdr.flags & ~QEL_FLAG_REQUEST) != 0) {
        say("! astray dst %" PRIu32 " flags 0x%x", msg->hdr.dst_app, msg->hdr.flags);
        free(msg);
        return;
    }
    pthread_mutex_lock(&g_lock);
    struct stream *s = stream_of(app->id, msg->hdr.src_app, (int32_t)msg->hdr.src_node);
    if (request)
        s->requests++;
    else
        account(s, msg);
    if (g_awaiting > 0)
        pthread_cond_broadcast(&g_changed);
    while (app->held)
        pthread_cond_wait(&g_changed, &g_lock);
    pthread_mutex_unlock(&g_lock);
    if (app->delay_us > 0)
        wait_us(app->delay_us);
    if (request)
        serve(app, msg);
    else
        free(msg);
}

static void on_event(qel_app_event event) {
    char thread[32];
    thread_name(thread);
    say("! %s app %" PRIu32 " peer %" PRIu32 "/%" PRIu32 " thread %s",
        event.event == QEL_EVENT_JOIN ? "join" : (event.event == QEL_EVENT_QUIT ? "quit" : "strange"),
        event.app_id, event.peer_app, event.node, thread);
}

/* ---- commands ---------------------------------------------------------------------------------------------
 */

struct command {
    char line[4096];
    char *word[WORDS_MAX];
    int words;
};

static long number(const struct command *c, int i) { return i < c->words ? strtol(c->word[i], NULL, 0) : 0; }
static uint32_t id(const struct command *c, int i) { return (uint32_t)number(c, i); }

/* The value of "KEY=value" among the words, or null. */
static const char *option(const struct command *c, const char *key) {
    size_t len = strlen(key);
    for (int i = 2; i < c->words; i++)
        if (strncmp(c->word[i], key, len) == 0 && c->word[i][len] == '=')
            return c->word[i] + len + 1;
    return NULL;
}

static bool flag(const struct command *c, const char *word) {
    for (int i = 2; i < c->words; i++)
        if (strcmp(c->word[i], word) == 0)
            return true;
    return false;
}

static void answer(const struct command *c, const char *format, ...) __attribute__((format(printf, 2, 3)));
static void answer(const struct command *c, const char *format, ...) {
    char text[12288];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    say("= %s %s", c->word[0], text);
}

static void do_register(const struct command *c) {
    qel_dispatcher table[33] = {{0, NULL}};
    const char *versions = option(c, "v");
    int count = 0;
    if (!flag(c, "client")) {
        for (const char *p = versions != NULL ? versions : "1"; *p != 0 && count < 32;) {
            char *end;
            table[count++] = (qel_dispatcher){(uint32_t)strtoul(p, &end, 0), on_message};
            p = *end == ',' ? end + 1 : end;
            if (p == end && *p != 0)
                break;
        }
    }
    char name[32];
    snprintf(name, sizeof name, "agent %ld", number(c, 2));
    int32_t app = (int32_t)number(c, 2);
    int slot = g_app_count;
    if (slot < APPS_MAX && app_of((uint32_t)app) == NULL) {
        g_apps[slot].id = (uint32_t)app;
        g_app_count = slot + 1;
    }
    int result = (flag(c, "nothread") ? qel_register_without_thread : qel_register)(
        app, flag(c, "noname") ? NULL : name, table, flag(c, "noevents") ? NULL : on_event);
    answer(c, "%d", result);
}

static void *do_send(void *arg) {
    struct command *c = arg;
    bool to = strcmp(c->word[1], "sendto") == 0;
    uint32_t app = id(c, 2), dst = id(c, 3);
    int32_t node = to ? (int32_t)number(c, 4) : QEL_ANY_NODE;
    long count = number(c, 4 + to);
    bool mix = strcmp(c->word[5 + to], "mix") == 0;
    uint32_t size = id(c, 5 + to), flags = id(c, 6 + to);
    const char *ver = option(c, "ver"), *qos = option(c, "qos"), *first = option(c, "first");
    int64_t retry_us = option(c, "retry") != NULL ? strtoll(option(c, "retry"), NULL, 0) * 1000 : 0;
    pthread_mutex_lock(&g_lock);
    struct stream *s = stream_of(app, dst, -1);
    if (first != NULL)
        s->next = strtoull(first, NULL, 0);
    s->count = 0;
    uint64_t seq = s->next;
    pthread_mutex_unlock(&g_lock);

    const struct timespec begin = now();
    int result = 0;
    long sent = 0;
    while (sent < count && result == 0) {
        uint32_t len = mix ? mixed_size(seq) : size;
        qel_msg *msg = qel_msg_alloc((int32_t)len, ver != NULL ? (uint32_t)strtoul(ver, NULL, 0) : 1, 0);
        if (msg == NULL) {
            result = -EMSGSIZE;
            break;
        }
        write_content(qel_msg_data(msg), len, seq);
        msg->hdr.qos = qos != NULL ? (uint8_t)strtoul(qos, NULL, 0) : (uint8_t)seq;
        do {
            result = to ? qel_sendto(app, dst, node, msg, flags) : qel_send(app, dst, msg, flags);
            if (result == -ENOENT && us_since(begin) < retry_us)
                wait_us(10000);
        } while (result == -ENOENT && us_since(begin) < retry_us);
        if (msg->hdr.len != len + QEL_MSG_HDR_LEN)
            say("! a send changed the length from %" PRIu32 " to %" PRIu32, len + QEL_MSG_HDR_LEN,
                msg->hdr.len);
        free(msg);
        if (result == 0) {
            sent++;
            pthread_mutex_lock(&g_lock);
            s->count++;
            s->next = ++seq;
            pthread_mutex_unlock(&g_lock);
        }
    }
    answer(c, "%d %ld %" PRId64, result, sent, us_since(begin));
    free(c);
    return NULL;
}

static void tell_received(const struct command *c) {
    pthread_mutex_lock(&g_lock);
    struct stream s = *stream_of(id(c, 2), id(c, 3), (int32_t)number(c, 4));
    pthread_mutex_unlock(&g_lock);
    answer(c, "%" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64,
           s.count, s.bytes, s.first, s.next, s.gaps, s.duplicates, s.bad, s.requests);
}

static void *do_await(void *arg) {
    struct command *c = arg;
    uint64_t count = (uint64_t)number(c, 5);
    struct timespec deadline = now();
    deadline.tv_sec += number(c, 6) / 1000;
    deadline.tv_nsec += number(c, 6) % 1000 * 1000000;
    if (deadline.tv_nsec >= 1000000000) {
        deadline.tv_nsec -= 1000000000;
        deadline.tv_sec++;
    }
    pthread_mutex_lock(&g_lock);
    g_awaiting++;
    const struct stream *s = stream_of(id(c, 2), id(c, 3), (int32_t)number(c, 4));
    while (s->count < count && pthread_cond_timedwait(&g_changed, &g_lock, &deadline) == 0) {
    }
    g_awaiting--;
    pthread_mutex_unlock(&g_lock);
    tell_received(c);
    free(c);
    return NULL;
}

static int compare_replies(const void *a, const void *b) {
    const qel_hdr *x = &(*(qel_msg *const *)a)->hdr, *y = &(*(qel_msg *const *)b)->hdr;
    uint64_t kx = (uint64_t)x->src_node << 32 | x->src_app, ky = (uint64_t)y->src_node << 32 | y->src_app;
    return kx < ky ? -1 : kx > ky;
}

static void *do_rpc(void *arg) {
    struct command *c = arg;
    bool to = strcmp(c->word[1], "rpcto") == 0;
    uint32_t app = id(c, 2), dst = id(c, 3 + to), size = id(c, 4 + to), flags = id(c, 5 + to);
    uint32_t timeout = id(c, 6 + to);
    const char *ver = option(c, "ver");
    qel_msg *request = qel_msg_alloc((int32_t)size, ver != NULL ? (uint32_t)strtoul(ver, NULL, 0) : 1, 0);
    if (request == NULL) {
        answer(c, "? size");
        free(c);
        return NULL;
    }
    uint64_t seq = (uint64_t)us_since((struct timespec){0, 0});
    write_content(qel_msg_data(request), size, seq);
    request->hdr.flags = 0xFF; /* whatever stands there must not reach the peer */
    qel_reply_set set = {.count = 77};
    const struct timespec begin = now();
    int32_t result = to ? qel_rpcto(app, (int32_t)number(c, 3), dst, request, flags, timeout, &set)
                        : qel_rpc(app, dst, request, flags, timeout, &set);
    char text[8192];
    int len = snprintf(text, sizeof text, "%" PRId32 " %" PRId32 " %" PRId64, result, set.count,
                       us_since(begin) / 1000);
    if (set.count > 0 && set.count <= QEL_REPLIES_MAX)
        qsort(set.msg, (size_t)set.count, sizeof set.msg[0], compare_replies);
    for (int i = 0; i < set.count && i < QEL_REPLIES_MAX && len < (int)sizeof text - 64; i++) {
        const qel_msg *reply = set.msg[i];
        uint32_t reply_size = qel_msg_data_len(reply), words[2];
        len += snprintf(text + len, sizeof text - (size_t)len, " %" PRIu32 "/%" PRIu32 ":%" PRIu32 ":",
                        reply->hdr.src_node, reply->hdr.src_app, reply->hdr.rpc_status);
        if (reply->hdr.rpc_status == QEL_STATUS_APP_VERSION && reply_size == sizeof words) {
            memcpy(words, qel_msg_const_data(reply), sizeof words);
            len +=
                snprintf(text + len, sizeof text - (size_t)len, "%" PRIu32 "-%" PRIu32, words[0], words[1]);
        } else {
            bool right = reply_size == size && right_content(qel_msg_const_data(reply), size, seq);
            len += snprintf(text + len, sizeof text - (size_t)len, "%s",
                            right ? "same" : (reply_size == 0 ? "empty" : "different"));
        }
    }
    qel_reply_msg_free(&set);
    free(request);
    answer(c, "%s", text);
    free(c);
    return NULL;
}

struct storm {
    uint32_t app, dst, size, peers;
    int32_t node;
    long calls;
    int thread;
    uint64_t good, wrong, failed;
};

static void *storm_thread(void *arg) {
    struct storm *s = arg;
    for (long i = 0; i < s->calls; i++) {
        uint64_t seq = mixed((uint64_t)s->thread << 40 | (uint64_t)i);
        qel_msg *request = qel_msg_alloc((int32_t)s->size, 1, 0);
        write_content(qel_msg_data(request), s->size, seq);
        qel_reply_set set;
        int32_t result;
        do /* two calls may draw the same number: the interface says to call again */
            result = qel_rpcto(s->app, s->node, s->dst, request, 0, 30, &set);
        while (result == -EEXIST);
        if (result != 0)
            s->failed++;
        else if (set.count != (int32_t)s->peers)
            s->wrong++;
        for (int k = 0; k < set.count; k++) {
            const qel_msg *reply = set.msg[k];
            if (reply->hdr.rpc_status != QEL_STATUS_SUCCESS)
                s->failed++;
            else if (qel_msg_data_len(reply) != s->size ||
                     !right_content(qel_msg_const_data(reply), s->size, seq))
                s->wrong++;
            else
                s->good++;
        }
        qel_reply_msg_free(&set);
        free(request);
    }
    return NULL;
}

static void *do_storm(void *arg) {
    struct command *c = arg;
    long count = number(c, 5);
    struct storm storms[64], sum = {0};
    pthread_t threads[64];
    if (count < 1 || count > 64 || id(c, 7) < sizeof(struct content)) {
        answer(c, "? threads or size");
        free(c);
        return NULL;
    }
    for (int i = 0; i < count; i++) {
        storms[i] = (struct storm){.app = id(c, 2),
                                   .node = (int32_t)number(c, 3),
                                   .dst = id(c, 4),
                                   .calls = number(c, 6),
                                   .size = id(c, 7),
                                   .peers = id(c, 8),
                                   .thread = i};
        if (pthread_create(&threads[i], NULL, storm_thread, &storms[i]) != 0)
            abort();
    }
    for (int i = 0; i < count; i++) {
        pthread_join(threads[i], NULL);
        sum.good += storms[i].good;
        sum.wrong += storms[i].wrong;
        sum.failed += storms[i].failed;
    }
    answer(c, "%" PRIu64 " %" PRIu64 " %" PRIu64, sum.good, sum.wrong, sum.failed);
    free(c);
    return NULL;
}

static void do_members(const struct command *c) {
    uint32_t apps[QEL_APP_GROUP_MBRS] = {0}, nodes[QEL_NODE_GROUP_MBRS];
    memset(nodes, 0xFF, sizeof nodes);
    int result, len;
    char text[1024];
    if (strcmp(c->word[1], "nodembrs") == 0)
        result = qel_get_node_mbrs(id(c, 2), (int32_t)number(c, 3), nodes);
    else if (strcmp(c->word[1], "appmbrs") == 0)
        result = qel_get_app_mbrs(id(c, 2), id(c, 3), apps);
    else
        result = qel_get_app_mc_members(id(c, 2), apps);
    len = snprintf(text, sizeof text, "%d", result);
    for (int i = 0; i < QEL_APP_GROUP_MBRS; i++)
        if (apps[i] != 0)
            len += snprintf(text + len, sizeof text - (size_t)len, " %" PRIu32, apps[i]);
    for (int i = 0; i < QEL_NODE_GROUP_MBRS; i++)
        if (nodes[i] <= QEL_NODE_ID_MAX)
            len += snprintf(text + len, sizeof text - (size_t)len, " %" PRIu32, nodes[i]);
    answer(c, "%s", text);
}

/* Names of the process's threads, sorted by number, or how many descriptors it has. */
static void do_list(const struct command *c, const char *path, bool names) {
    char text[4096] = "", file_name[300], name[32];
    size_t len = 0;
    int count = 0;
    DIR *dir = opendir(path);
    for (struct dirent *e; dir != NULL && (e = readdir(dir)) != NULL;) {
        if (e->d_name[0] == '.')
            continue;
        count++;
        snprintf(file_name, sizeof file_name, "%s/%s/comm", path, e->d_name);
        FILE *file = names ? fopen(file_name, "r") : NULL;
        if (file != NULL) {
            if (fgets(name, sizeof name, file) != NULL) {
                name[strcspn(name, "\n")] = 0;
                len += (size_t)snprintf(text + len, sizeof text - len, " %s", name);
            }
            fclose(file);
        }
        if (len >= sizeof text - 64)
            break;
    }
    if (dir != NULL)
        closedir(dir);
    answer(c, "%d%s", count, text);
}

static long resident_kb(void) {
    long pages = 0, ignored;
    FILE *file = fopen("/proc/self/statm", "r");
    if (file == NULL || fscanf(file, "%ld %ld", &ignored, &pages) != 2)
        pages = -1;
    if (file != NULL)
        fclose(file);
    return pages * (sysconf(_SC_PAGESIZE) / 1024);
}

static bool is(const struct command *c, const char *word) { return strcmp(c->word[1], word) == 0; }

static void set_reply(const struct command *c) {
    struct app *app = app_of(id(c, 2));
    for (int i = 0; app != NULL && c->words > 3 && i <= SERVE_RELAY; i++) {
        if (strcmp(c->word[3], g_serve_words[i]) == 0) {
            app->serve_value = (int)number(c, 4);
            app->serve = i;
            answer(c, "0");
            return;
        }
    }
    answer(c, "? application or word");
}

static void set_pace(const struct command *c) {
    struct app *app = app_of(id(c, 2));
    if (app == NULL) {
        answer(c, "? application");
        return;
    }
    pthread_mutex_lock(&g_lock);
    if (is(c, "delay"))
        app->delay_us = (int)number(c, 3);
    else
        app->held = is(c, "hold");
    pthread_cond_broadcast(&g_changed);
    pthread_mutex_unlock(&g_lock);
    answer(c, "0");
}

static void do_group(const struct command *c) {
    uint32_t app = id(c, 2), group = id(c, 3), member = id(c, 4);
    int result = 0;
    if (is(c, "mkapps"))
        result = qel_create_app_mcast(app);
    else if (is(c, "mknodes"))
        result = qel_create_node_mcast(app);
    else if (is(c, "addapp"))
        result = qel_add_app_mcast(app, group, member);
    else if (is(c, "addnode"))
        result = qel_add_node_mcast(app, group, member);
    else if (is(c, "delapp"))
        result = qel_del_app_mcast(app, group, member);
    else if (is(c, "delnode"))
        result = qel_del_node_mcast(app, group, member);
    else if (is(c, "rmapps"))
        qel_destroy_app_mcast(app, group);
    else
        qel_destroy_node_mcast(app, group);
    answer(c, "%d", result);
}

static void *(*waiting_command(const struct command *c))(void *) {
    if ((is(c, "send") && c->words >= 7) || (is(c, "sendto") && c->words >= 8))
        return do_send;
    if ((is(c, "rpc") && c->words >= 7) || (is(c, "rpcto") && c->words >= 8))
        return do_rpc;
    if (is(c, "storm") && c->words >= 9)
        return do_storm;
    return is(c, "await") && c->words >= 7 ? do_await : NULL;
}

static void execute(const struct command *c) {
    if (is(c, "register")) {
        do_register(c);
    } else if (is(c, "unregister")) {
        answer(c, "%d", qel_unregister((int32_t)number(c, 2)));
    } else if (is(c, "comm")) {
        answer(c, "%d", qel_comm_with((int32_t)number(c, 2), (int32_t)number(c, 3)));
    } else if (is(c, "run")) {
        answer(c, "%d", qel_run());
    } else if (is(c, "ready")) {
        answer(c, "%d", qel_app_ready());
    } else if (is(c, "online")) {
        answer(c, "%d", qel_is_app_online(id(c, 2), id(c, 3)));
    } else if (is(c, "sent")) {
        pthread_mutex_lock(&g_lock);
        uint64_t count = stream_of(id(c, 2), id(c, 3), -1)->count;
        pthread_mutex_unlock(&g_lock);
        answer(c, "%" PRIu64, count);
    } else if (is(c, "received")) {
        tell_received(c);
    } else if (is(c, "forget")) {
        pthread_mutex_lock(&g_lock);
        struct stream *s = stream_of(id(c, 2), id(c, 3), (int32_t)number(c, 4));
        *s = (struct stream){.app = s->app, .peer = s->peer, .node = s->node};
        pthread_mutex_unlock(&g_lock);
        answer(c, "0");
    } else if (is(c, "delay") || is(c, "hold") || is(c, "release")) {
        set_pace(c);
    } else if (is(c, "serve")) {
        set_reply(c);
    } else if (is(c, "mkapps") || is(c, "mknodes") || is(c, "addapp") || is(c, "addnode") ||
               is(c, "delapp") || is(c, "delnode") || is(c, "rmapps") || is(c, "rmnodes")) {
        do_group(c);
    } else if (is(c, "appmbrs") || is(c, "nodembrs") || is(c, "confmbrs")) {
        do_members(c);
    } else if (is(c, "resume")) {
        (flag(c, "on") ? qel_enable_blocked_resume : qel_disable_blocked_resume)();
        answer(c, "0");
    } else if (is(c, "threads")) {
        do_list(c, "/proc/self/task", true);
    } else if (is(c, "fds")) {
        do_list(c, "/proc/self/fd", false);
    } else if (is(c, "rss")) {
        answer(c, "%ld", resident_kb());
    } else if (is(c, "pid")) {
        answer(c, "%ld", (long)getpid());
    } else if (is(c, "exit")) {
        answer(c, "0");
        exit((int)number(c, 2));
    } else {
        answer(c, "? unknown command, or too few arguments");
    }
}

int main(void) {
    setvbuf(stdout, NULL, _IOLBF, 0);
    fill_pattern();
    pthread_condattr_t attr;
    if (pthread_condattr_init(&attr) != 0 || pthread_condattr_setclock(&attr, CLOCK_MONOTONIC) != 0 ||
        pthread_cond_init(&g_changed, &attr) != 0)
        return 3;
    say("! agent");
    for (;;) {
        struct command *c = calloc(1, sizeof *c);
        if (c == NULL || fgets(c->line, sizeof c->line, stdin) == NULL) {
            free(c);
            return 0; /* the test has gone */
        }
        char *rest = c->line;
        for (char *word; c->words < WORDS_MAX && (word = strtok_r(rest, " \n", &rest)) != NULL;)
            c->word[c->words++] = word;
        if (c->words < 2) {
            free(c);
            continue;
        }
        void *(*function)(void *) = waiting_command(c);
        if (function != NULL) {
            start_thread(function, c);
        } else {
            execute(c);
            free(c);
        }
    }
}
