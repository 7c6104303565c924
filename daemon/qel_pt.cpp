#include "qel_pt.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "qel_base.h"
#include "qel_cfg.h"

#define QEL_LOG_SRC "qel_pt"
#include "qel_log.h"

constexpr uint32_t pt_app = 6;
constexpr uint32_t pt_version = 1;
constexpr uint32_t sizes[] = {64, 256, 1024, 4096, 16384, 32768, 65536};
constexpr uint32_t report_wait_s = 60;

// The data of a test message: words in host order, as both ends are of one device.
constexpr uint32_t node_at = 0, counter_at = 4, absolute_at = 8, process_at = 12, system_at = 16, end_at = 20;
static const char qel_pt_dummy_msg[] = "FIN"; // only in the last message of a test
constexpr uint32_t data_len_min = end_at + sizeof qel_pt_dummy_msg;
static_assert(sizes[0] - QEL_MSG_HDR_LEN >= data_len_min);

static uint32_t get_word(const qel_msg *msg, uint32_t offset) noexcept {
    return qel_load_host32(static_cast<const char *>(qel_msg_const_data(msg)) + offset);
}
static void set_word(qel_msg *msg, uint32_t offset, uint32_t value) noexcept {
    memcpy(static_cast<char *>(qel_msg_data(msg)) + offset, &value, sizeof value);
}
static bool is_end(const qel_msg *msg) noexcept {
    return !memcmp(static_cast<const char *>(qel_msg_const_data(msg)) + end_at, qel_pt_dummy_msg,
                   sizeof qel_pt_dummy_msg);
}

// The clocks at one point: the outer one is read first at a start and last at an end. Both processor clocks
// are this process's.
struct qel_pt_stamp {
    timespec absolute, system, process;
};

static constinit std::atomic<uint8_t> g_qel_pt_inited{0};
// A node came or went. Set by the presence callback, polled by the tester.
static constinit std::atomic<uint8_t> g_qel_pt_changed{0};
static constinit std::atomic<clockid_t> g_qel_pt_clock_id{CLOCK_PROCESS_CPUTIME_ID};
static constinit std::atomic<int32_t> g_node_mc_id{-1};

constinit qel_pt_volume g_qel_pt_volume{
    .send_bytes = 32'000'000, .rpc_bytes = 16'000'000, .messages_max = UINT32_MAX, .pause_us = 5'000'000};

static constinit qel_mutex g_qel_pt_mutex;
static constinit qel_cond g_qel_pt_cond;                                   // all reports are in
static uint32_t g_send_srv_num QEL_GUARDED_BY(g_qel_pt_mutex) = 0;         // reports that the test expects
static uint32_t g_recv_num QEL_GUARDED_BY(g_qel_pt_mutex) = 0;             // reports that came
static constinit qel_pt_elapsed g_report QEL_GUARDED_BY(g_qel_pt_mutex){}; // the last one
static constinit qel_pt_stamp g_all_in QEL_GUARDED_BY(g_qel_pt_mutex){};   // when the last one expected came

static uint32_t my_node() noexcept { return static_cast<uint32_t>(qel_get_my_node_id()); }

static void read_clock(clockid_t clock, timespec *now) noexcept {
    *now = {};
    (void)qel_sys_get().clock_gettime(clock, now);
}
static void stamp_start(qel_pt_stamp *stamp) noexcept {
    read_clock(CLOCK_MONOTONIC, &stamp->absolute);
    read_clock(CLOCK_PROCESS_CPUTIME_ID, &stamp->system);
    read_clock(g_qel_pt_clock_id.load(std::memory_order_relaxed), &stamp->process);
}
static void stamp_end(qel_pt_stamp *stamp) noexcept {
    read_clock(g_qel_pt_clock_id.load(std::memory_order_relaxed), &stamp->process);
    read_clock(CLOCK_PROCESS_CPUTIME_ID, &stamp->system);
    read_clock(CLOCK_MONOTONIC, &stamp->absolute);
}

// ---- figures and texts ----------------------------------------------------------------------------------

int64_t qel_time_sub(const timespec &end, const timespec &start) noexcept {
    return (int64_t{end.tv_sec} - start.tv_sec) * 1000 + (int64_t{end.tv_nsec} - start.tv_nsec) / 1'000'000;
}

static qel_pt_elapsed elapsed_between(const qel_pt_stamp &end, const qel_pt_stamp &start) noexcept {
    return {.absolute_ms = static_cast<double>(qel_time_sub(end.absolute, start.absolute)),
            .system_ms = static_cast<double>(qel_time_sub(end.system, start.system)),
            .process_ms = static_cast<double>(qel_time_sub(end.process, start.process))};
}

// Milliseconds per message; 0 for what was too short to measure.
static double per_message(double elapsed_ms, uint32_t count) noexcept {
    return elapsed_ms > 0 && count > 0 ? elapsed_ms / count : 0;
}
// Per second, and 0 where there is no time to divide by.
static double rate(double amount, double milliseconds) noexcept {
    return milliseconds > 0 ? amount * 1000 / milliseconds : 0;
}
static int whole(double value) noexcept { return value < INT32_MAX ? static_cast<int>(value) : INT32_MAX; }

constexpr size_t result_size = 512;

void qel_pt_format_send(char *text, size_t text_size, const char *what, const qel_pt_elapsed &elapsed,
                        uint32_t count, uint32_t size) noexcept {
    const double t = per_message(elapsed.absolute_ms, count);
    const double megabytes = rate(size, t) / 1'048'576;
    snprintf(text, text_size,
             "QEL_PT %s time test result per message (in us):\n"
             "  absolute time %.3f, system CPU time %.3f, process CPU time %.3f.\n"
             "QEL_PT %s speed %d pps, %.3f MBps, %.3f Mbps.\n",
             what, t * 1000, per_message(elapsed.system_ms, count) * 1000,
             per_message(elapsed.process_ms, count) * 1000, what, whole(rate(1, t)), megabytes,
             megabytes * 8);
}

void qel_pt_format_rpc(char *text, size_t text_size, const qel_pt_elapsed &elapsed, uint32_t count) noexcept {
    const double t = per_message(elapsed.absolute_ms, count);
    snprintf(text, text_size,
             "QEL_PT RPC time test result per message (in us):\n"
             "  RPCs per second: %d rps.\n"
             "  absolute time %.3f, system CPU time %.3f, process CPU time %.3f.\n",
             whole(rate(1, t)), t * 1000, per_message(elapsed.system_ms, count) * 1000,
             per_message(elapsed.process_ms, count) * 1000);
}

// ---- the receiving side: library thread -----------------------------------------------------------------

// What came back to the tester, or was its own from the start: a test of the local node sends to itself.
static void take_report(const qel_msg *msg) noexcept {
    if (!is_end(msg))
        return;
    qel_lock lock(g_qel_pt_mutex);
    g_report = {.absolute_ms = static_cast<double>(get_word(msg, absolute_at)),
                .system_ms = static_cast<double>(get_word(msg, system_at)),
                .process_ms = static_cast<double>(get_word(msg, process_at))};
    // A report of an earlier test may still come in: more than expected is as good.
    if (++g_recv_num == g_send_srv_num) {
        stamp_end(&g_all_in);
        const int ret = g_qel_pt_cond.signal();
        QEL_ASSERT(ret == 0);
    }
}

static void take_test_message(qel_msg *msg) noexcept {
    static constinit qel_pt_stamp start{}; // the library's thread is the only one here
    if (get_word(msg, counter_at) == 1)
        stamp_start(&start);
    // Reported is to the tester only. To anybody else, two daemons could be set to answer each other for
    // ever.
    if (!is_end(msg) || get_word(msg, node_at) != msg->hdr.src_node)
        return;
    qel_pt_stamp end;
    stamp_end(&end);
    const auto milliseconds = [](const timespec &to, const timespec &from) noexcept {
        return static_cast<uint32_t>(qel_time_sub(to, from));
    };
    set_word(msg, absolute_at, milliseconds(end.absolute, start.absolute));
    set_word(msg, process_at, milliseconds(end.process, start.process));
    set_word(msg, system_at, milliseconds(end.system, start.system));
    // Without waiting: the acknowledgement that would release this thread could only be received by itself.
    // A report that is refused costs the tester its time-out.
    (void)qel_sendto(pt_app, pt_app, static_cast<int32_t>(msg->hdr.src_node), msg, QEL_SEND_NOWAIT);
}

extern "C" void qel_pt_msg_proc(qel_msg *msg) {
    if ((msg->hdr.flags & (QEL_FLAG_REQUEST | QEL_FLAG_ACK)) == QEL_FLAG_REQUEST)
        (void)qel_rpc_reply(msg, msg, 0);
    else if (qel_msg_data_len(msg) < data_len_min)
        ; // nothing of a tester's
    else if (get_word(msg, node_at) == my_node())
        take_report(msg);
    else
        take_test_message(msg);
    free(msg);
}

extern "C" void qel_pt_event_proc(qel_app_event event) {
    g_qel_pt_changed.store(1, std::memory_order_relaxed);
    const auto group = static_cast<uint32_t>(g_node_mc_id.load(std::memory_order_relaxed));
    if (event.event == QEL_EVENT_JOIN)
        (void)qel_add_node_mcast(pt_app, group, event.node);
    else if (event.event == QEL_EVENT_QUIT)
        (void)qel_del_node_mcast(pt_app, group, event.node);
}

// ---- set-up ---------------------------------------------------------------------------------------------

static const qel_dispatcher g_qel_pt_dispatcher[] = {{pt_version, qel_pt_msg_proc}, {0, nullptr}};

static int init_sync() noexcept {
    int error = g_qel_pt_mutex.init();
    if (error != 0) {
        printf("%% QEL_PT init mutex failed: %s.\n", strerror(error));
        return -error;
    }
    switch (g_qel_pt_cond.init(error)) {
    case qel_cond_step::none:
        return 0;
    case qel_cond_step::attr_init:
        printf("%% QEL_PT init condition attribute failed: %s.\n", strerror(error));
        break;
    case qel_cond_step::attr_clock:
        printf("%% QEL_PT set condition clock attribute failed: %s.\n", strerror(error));
        break;
    case qel_cond_step::cond_init:
        printf("%% QEL_PT init condition failed: %s.\n", strerror(error));
        break;
    }
    g_qel_pt_mutex.destroy();
    return -error;
}

int qel_pt_init() noexcept {
    const int failed = init_sync();
    if (failed != 0)
        return failed;
    clockid_t clock;
    const int error = clock_getcpuclockid(0, &clock);
    int ret = -error;
    if (error != 0) {
        QEL_ERROR("%% QEL_PT get current process clock ID failed: %s.\n", strerror(error));
    } else {
        g_qel_pt_clock_id.store(clock, std::memory_order_relaxed);
        ret = qel_register_without_thread(pt_app, "QEL_PT", g_qel_pt_dispatcher, qel_pt_event_proc);
        if (ret != 0)
            QEL_ERROR("%% QEL_PT register to QEL failed: %s.\n", strerror(std::abs(ret)));
    }
    if (ret != 0) {
        g_qel_pt_cond.destroy();
        g_qel_pt_mutex.destroy();
        return ret;
    }
    // From here on messages may come, and their handler uses both: they stay.
    const int32_t group = qel_create_node_mcast(pt_app);
    if (group < 0) {
        QEL_ERROR("%% QEL_PT create node-private-mcast failed: %s.\n", strerror(std::abs(group)));
        return group;
    }
    g_node_mc_id.store(group, std::memory_order_relaxed);
    QEL_VERBOSE("QEL performance testing init OK.\n");
    g_qel_pt_inited.store(1, std::memory_order_relaxed);
    return 0;
}

// ---- the tester: console thread -------------------------------------------------------------------------

static bool is_group(int32_t destination) noexcept {
    return qel_is_node_group(static_cast<uint32_t>(destination));
}

// Prints "%d." or the members of a group, behind @head; gives the number of nodes.
static uint32_t print_destination(const char *head, uint32_t size, int32_t destination) noexcept {
    printf("%s data length %d to ", head, static_cast<int>(size));
    if (!is_group(destination)) {
        printf("%d.\n", destination);
        return 1;
    }
    uint32_t count = 0;
    qel_node_mc_group group;
    qel_get_node_mc_mbr(pt_app, static_cast<uint32_t>(destination), &group);
    for (const uint32_t node : group.members) {
        if (qel_valid_node_id(node)) {
            printf("%d ", static_cast<int>(node));
            count++;
        }
    }
    putchar('\n');
    return count;
}

// How many messages of @size bytes a test of @bytes is.
static uint32_t message_count(uint32_t bytes, uint32_t size) noexcept {
    return std::min(bytes / size, g_qel_pt_volume.messages_max);
}

static qel_msg *new_test_message(uint32_t size) noexcept {
    qel_msg *msg = qel_msg_alloc(static_cast<int32_t>(size - QEL_MSG_HDR_LEN), pt_version, 0);
    QEL_ASSERT(msg != NULL);
    memset(qel_msg_data(msg), 0, qel_msg_data_len(msg));
    set_word(msg, node_at, my_node());
    return msg;
}

static bool environment_changed() noexcept {
    if (!g_qel_pt_changed.load(std::memory_order_relaxed))
        return false;
    printf("%% QEL performance testing environment changed, please test again later.\n");
    return true;
}

static int send_one(qel_msg *msg, int32_t destination) noexcept {
    const int ret = qel_sendto(pt_app, pt_app, destination, msg, 0);
    if (ret != 0)
        printf("%% QEL_PT send message failed: %s, please test again later.\n", strerror(std::abs(ret)));
    return ret;
}

// The messages of one send test; the last one carries the end marker. 0 or a negative error that was told.
static int send_all(qel_msg *msg, uint32_t count, int32_t destination, qel_pt_stamp *sent) noexcept {
    for (uint32_t counter = 1; counter < count; counter++) {
        if (environment_changed())
            return -EAGAIN;
        set_word(msg, counter_at, counter);
        const int ret = send_one(msg, destination);
        if (ret != 0)
            return ret;
    }
    stamp_end(sent);
    memcpy(static_cast<char *>(qel_msg_data(msg)) + end_at, qel_pt_dummy_msg, sizeof qel_pt_dummy_msg);
    return send_one(msg, destination);
}

// Waits for the reports; false when they do not all come.
static bool wait_for_reports(qel_pt_elapsed *report, qel_pt_stamp *all_in) noexcept {
    const timespec deadline = qel_deadline_s(report_wait_s);
    qel_lock lock(g_qel_pt_mutex);
    while (g_recv_num < g_send_srv_num) {
        const int ret = g_qel_pt_cond.wait_until(g_qel_pt_mutex, deadline);
        QEL_ASSERT(ret == 0 || ret == ETIMEDOUT);
        if (ret == ETIMEDOUT && g_recv_num < g_send_srv_num)
            return false;
    }
    *report = g_report;
    *all_in = g_all_in;
    return true;
}

static void print_send_result(const char *what, const qel_pt_elapsed &elapsed, uint32_t count,
                              uint32_t size) noexcept {
    char text[result_size];
    qel_pt_format_send(text, sizeof text, what, elapsed, count, size);
    fputs(text, stdout);
}

int qel_pt_test_send(uint32_t size, int32_t destination) noexcept {
    const uint32_t count = message_count(g_qel_pt_volume.send_bytes, size);
    qel_msg *msg = new_test_message(size);
    const uint32_t expected = print_destination("\nQEL_PT send", size, destination);
    {
        qel_lock lock(g_qel_pt_mutex);
        g_recv_num = 0;
        g_send_srv_num = expected;
    }
    qel_pt_stamp start, sent;
    stamp_start(&start);
    const int ret = send_all(msg, count, destination, &sent);
    free(msg);
    if (ret != 0)
        return ret;

    qel_pt_elapsed report;
    qel_pt_stamp all_in;
    if (!wait_for_reports(&report, &all_in)) {
        printf("%% QEL_PT testing timeout.\n");
        return 0;
    }
    print_send_result("sending", elapsed_between(sent, start), count, size);
    if (!is_group(destination) && destination != qel_get_my_node_id())
        print_send_result("receiving", report, count, size);
    print_send_result("transmission", elapsed_between(all_in, start), count, size);
    return 0;
}

// One call; 0 or a negative error that was told.
static int call_one(qel_msg *msg, int32_t destination) noexcept {
    qel_reply_set replies;
    int32_t ret = qel_rpcto(pt_app, destination, pt_app, msg, 0, 0, &replies);
    if (ret != 0) {
        printf("%% QEL_PT RPC message failed: %s, please test again later.\n", strerror(std::abs(ret)));
        return ret < 0 ? ret : -ret;
    }
    for (int32_t i = 0; i < replies.count && ret == 0; i++) {
        const uint32_t status = replies.msg[i]->hdr.rpc_status;
        if (status != QEL_STATUS_SUCCESS) {
            printf("%% QEL_PT RPC reply failed %d, please test again later.\n", static_cast<int>(status));
            ret = -EINVAL;
        }
    }
    qel_reply_msg_free(&replies);
    return ret;
}

int qel_pt_test_rpc(uint32_t size, int32_t destination) noexcept {
    const uint32_t count = message_count(g_qel_pt_volume.rpc_bytes, size);
    qel_msg *msg = new_test_message(size);
    (void)print_destination(is_group(destination) ? "QEL_PT RPC" : "\nQEL_PT RPC", size, destination);
    qel_pt_stamp start, end;
    stamp_start(&start);
    int ret = 0;
    for (uint32_t i = 0; i < count && ret == 0; i++)
        ret = environment_changed() ? -EAGAIN : call_one(msg, destination);
    free(msg);
    if (ret != 0)
        return ret;
    stamp_end(&end);
    char text[result_size];
    qel_pt_format_rpc(text, sizeof text, elapsed_between(end, start), count);
    fputs(text, stdout);
    return 0;
}

// Both tests for every size, with time to settle behind each.
static int test_all_sizes(int32_t destination) noexcept {
    for (const uint32_t size : sizes) {
        int ret = qel_pt_test_send(size, destination);
        if (ret != 0)
            return ret;
        qel_sleep_us(g_qel_pt_volume.pause_us);
        ret = qel_pt_test_rpc(size, destination);
        if (ret != 0)
            return ret;
        qel_sleep_us(g_qel_pt_volume.pause_us);
    }
    return 0;
}

void qel_performance_test() noexcept {
    if (!g_qel_pt_inited.load(std::memory_order_relaxed)) {
        printf("%% QEL_PT had not registered, please quit and run 'qeld -pt'.\n");
        return;
    }
    const int32_t group_id = g_node_mc_id.load(std::memory_order_relaxed);
    g_qel_pt_changed.store(0, std::memory_order_relaxed);
    puts("Uni-cast performance testing.");
    qel_node_mc_group group;
    qel_get_node_mc_mbr(pt_app, static_cast<uint32_t>(group_id), &group);
    for (const uint32_t node : group.members)
        if (qel_valid_node_id(node) && test_all_sizes(static_cast<int32_t>(node)) != 0)
            return;

    puts("\nMulti-cast performance testing.");
    // The local node has had its turn. It is not put back: its next join does that.
    (void)qel_del_node_mcast(pt_app, static_cast<uint32_t>(group_id), my_node());
    (void)test_all_sizes(group_id);
}
