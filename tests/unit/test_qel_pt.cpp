// The performance test: its figures and texts, what it sends, what it answers, how it ends early.
#include "qel_flow_ctrl.h"
#include "qel_pt.h"
#include "qel_rpc.h"
#include "qeld_world.h"

#include <cerrno>
#include <dlfcn.h>
#include <thread>
#include <utility>

using std::chrono::milliseconds;
using std::chrono::seconds;

static std::atomic<int> g_clock_id_error{0};
// Under the system's name, without its parameters'.
extern "C" int clock_id_of_test(pid_t pid, clockid_t *clock) noexcept __asm__("clock_getcpuclockid");
extern "C" int clock_id_of_test(pid_t pid, clockid_t *clock) noexcept {
    static const auto real =
        reinterpret_cast<int (*)(pid_t, clockid_t *)>(dlsym(RTLD_NEXT, "clock_getcpuclockid"));
    return g_clock_id_error ? g_clock_id_error.load() : real(pid, clock);
}

// ---- figures and texts ----------------------------------------------------------------------------------

TEST(qel_pt_figures, elapsed_time_is_in_whole_milliseconds_each_part_cut_for_itself) {
    EXPECT_EQ(qel_time_sub({5, 0}, {3, 0}), 2000);
    EXPECT_EQ(qel_time_sub({5, 999'999'999}, {5, 0}), 999);
    EXPECT_EQ(qel_time_sub({6, 0}, {5, 999'999'999}), 1); // 1000 - 999, of 1 nanosecond
    EXPECT_EQ(qel_time_sub({6, 1'000'000}, {5, 2'000'000}), 999);
    EXPECT_EQ(qel_time_sub({5'000'000, 0}, {0, 0}), 5'000'000'000);
}

static std::string send_text(const char *what, const qel_pt_elapsed &elapsed, uint32_t count, uint32_t size) {
    char text[512];
    qel_pt_format_send(text, sizeof text, what, elapsed, count, size);
    return text;
}

TEST(qel_pt_figures, a_send_result_is_three_lines_and_its_rates_are_of_the_absolute_time) {
    EXPECT_EQ(send_text("sending", {4000, 1500, 1000}, 500000, 64),
              "QEL_PT sending time test result per message (in us):\n"
              "  absolute time 8.000, system CPU time 3.000, process CPU time 2.000.\n"
              "QEL_PT sending speed 125000 pps, 7.629 MBps, 61.035 Mbps.\n");
    EXPECT_EQ(send_text("receiving", {1, 0, 0}, 488, 65536),
              "QEL_PT receiving time test result per message (in us):\n"
              "  absolute time 2.049, system CPU time 0.000, process CPU time 0.000.\n"
              "QEL_PT receiving speed 488000 pps, 30500.000 MBps, 244000.000 Mbps.\n");
    EXPECT_EQ(send_text("transmission", {3000, 0, 0}, 7, 1024).substr(0, 20), "QEL_PT transmission ");
}

TEST(qel_pt_figures, packets_per_second_are_cut_not_rounded) {
    EXPECT_NE(send_text("sending", {3, 0, 0}, 2, 64).find("speed 666 pps"), std::string::npos);
}

TEST(qel_pt_figures, no_time_at_all_gives_zeros) {
    EXPECT_EQ(send_text("sending", {0, 0, 0}, 500000, 64),
              "QEL_PT sending time test result per message (in us):\n"
              "  absolute time 0.000, system CPU time 0.000, process CPU time 0.000.\n"
              "QEL_PT sending speed 0 pps, 0.000 MBps, 0.000 Mbps.\n");
    EXPECT_EQ(send_text("sending", {1000, 0, 0}, 0, 64), send_text("sending", {0, 0, 0}, 1, 64));
    EXPECT_EQ(send_text("sending", {-7, -1, -1}, 10, 64), send_text("sending", {0, 0, 0}, 1, 64));
}

TEST(qel_pt_figures, the_largest_times_and_rates_fit) {
    EXPECT_EQ(send_text("transmission", {4294967295.0, 4294967295.0, 4294967295.0}, 1, 65536),
              "QEL_PT transmission time test result per message (in us):\n"
              "  absolute time 4294967295000.000, system CPU time 4294967295000.000, process CPU time "
              "4294967295000.000.\n"
              "QEL_PT transmission speed 0 pps, 0.000 MBps, 0.000 Mbps.\n");
    EXPECT_NE(send_text("sending", {1, 0, 0}, 4'000'000'000, 64).find("speed 2147483647 pps"),
              std::string::npos);
}

TEST(qel_pt_figures, a_call_result_is_three_lines) {
    char text[512];
    qel_pt_format_rpc(text, sizeof text, {7500, 250, 125}, 250000);
    EXPECT_STREQ(text, "QEL_PT RPC time test result per message (in us):\n"
                       "  RPCs per second: 33333 rps.\n"
                       "  absolute time 30.000, system CPU time 1.000, process CPU time 0.500.\n");
    qel_pt_format_rpc(text, sizeof text, {0, 0, 0}, 250000);
    EXPECT_STREQ(text, "QEL_PT RPC time test result per message (in us):\n"
                       "  RPCs per second: 0 rps.\n"
                       "  absolute time 0.000, system CPU time 0.000, process CPU time 0.000.\n");
}

// ---- set-up ---------------------------------------------------------------------------------------------

struct qel_pt_setup : qeld_world {
    static constexpr char not_registered[] = "% QEL_PT had not registered, please quit and run 'qeld -pt'.\n";
    // qel_pt_init() fails with @told printed, and the test is not to be had.
    static void fails(int result, const std::string &told) {
        qel_set_masks(8);
        qel_capture out;
        EXPECT_EQ(qel_pt_init(), result);
        EXPECT_NE(out.take().find(told), std::string::npos);
        qel_performance_test();
        EXPECT_EQ(out.take(), not_registered);
    }
};

TEST_F(qel_pt_setup, without_it_the_command_prints_one_line) {
    qel_capture out;
    qel_performance_test();
    EXPECT_EQ(out.take(), not_registered);
}

TEST_F(qel_pt_setup, a_mutex_that_cannot_be_made_is_printed) {
    qel_time::fail(qel_time::sys::mutex_init, ENOMEM);
    fails(-ENOMEM, "% QEL_PT init mutex failed: Cannot allocate memory.\n");
}

TEST_F(qel_pt_setup, each_step_of_the_condition_is_printed_by_its_name) {
    qel_time::fail(qel_time::sys::condattr_init, ENOMEM);
    fails(-ENOMEM, "% QEL_PT init condition attribute failed: Cannot allocate memory.\n");
    qel_time::fail(qel_time::sys::condattr_setclock, EINVAL);
    fails(-EINVAL, "% QEL_PT set condition clock attribute failed: Invalid argument.\n");
    qel_time::fail(qel_time::sys::cond_init, EAGAIN);
    fails(-EAGAIN, "% QEL_PT init condition failed: Resource temporarily unavailable.\n");
}

TEST_F(qel_pt_setup, a_missing_clock_is_logged_with_one_percent_sign) {
    g_clock_id_error = ENOSYS;
    fails(-ENOSYS, "> 3: % QEL_PT get current process clock ID failed: Function not implemented.\n");
}

TEST_F(qel_pt_setup, a_failing_registration_is_logged) {
    add_app(6);
    fails(-17, "> 3: % QEL_PT register to QEL failed: File exists.\n");
}

// Groups may be made for an application as soon as it is known, before the one that registers it is told so:
// here by whoever reads that the registration is done.
TEST_F(qel_pt_setup, a_group_that_cannot_be_made_is_logged_and_there_is_no_test) {
    add_app(5); // the masks are read
    static std::string told;
    FILE *reader = fopencookie(nullptr, "w",
                               {.read = nullptr,
                                .write = [](void *, const char *text, size_t len) -> ssize_t {
                                    told.append(text, len);
                                    if (told.ends_with("registeration for app 6 [QEL_PT] OK.\n")) {
                                        for (uint32_t i = 0; i < QEL_GROUPS_MAX; i++)
                                            EXPECT_GT(qel_create_node_mcast(6), 0);
                                    }
                                    return static_cast<ssize_t>(len);
                                },
                                .seek = nullptr,
                                .close = nullptr});
    ASSERT_NE(reader, nullptr);
    setlinebuf(reader);
    qel_set_masks(2 | 8);
    FILE *usual = std::exchange(stdout, reader);
    EXPECT_EQ(qel_pt_init(), -ENOBUFS);
    qel_performance_test();
    stdout = usual;
    fclose(reader);
    EXPECT_NE(told.find("> 3: % QEL_PT create node-private-mcast failed: No buffer space available.\n"),
              std::string::npos);
    EXPECT_TRUE(told.ends_with(not_registered)) << told;
}

TEST_F(qel_pt_setup, a_failing_first_step_can_be_made_good_later) {
    qel_time::fail(qel_time::sys::cond_init, EAGAIN);
    EXPECT_EQ(qel_pt_init(), -EAGAIN);
    EXPECT_EQ(qel_pt_init(), 0);
}

TEST_F(qel_pt_setup, success_registers_application_6_without_a_thread_and_makes_its_group) {
    add_app(5); // the masks are read and the library's own threads are there
    qel_set_masks(1);
    qel_capture out;
    const unsigned threads = qel_time::calls(qel_time::sys::thread_create);
    ASSERT_EQ(qel_pt_init(), 0);
    EXPECT_EQ(qel_time::calls(qel_time::sys::thread_create), threads);
    EXPECT_TRUE(out.has(qel_line("qel_pt", V, "QEL performance testing init OK.\n")));
    const qel_app_info *info = qel_get_app_info(6);
    ASSERT_NE(info, nullptr);
    EXPECT_STREQ(info->name, "QEL_PT");
    qel_node_mc_group group;
    qel_get_node_mc_mbr(6, 0x80000, &group);
    EXPECT_EQ(group.id, 0x80000u);
}

// ---- a bus with application 6 ---------------------------------------------------------------------------

struct qel_pt : qeld_world {
    static constexpr uint32_t group_id = 0x80000;

    void SetUp() override {
        ASSERT_EQ(qel_pt_init(), 0);
        ASSERT_EQ(qel_comm_with(6, 6), 0);
        ASSERT_TRUE(run());
    }
    static std::string members() {
        qel_node_mc_group group;
        qel_get_node_mc_mbr(6, group_id, &group);
        std::string text;
        for (const uint32_t node : group.members)
            if (node < 65536)
                text += (text.empty() ? "" : " ") + std::to_string(node);
        return text;
    }
    static qel_fake::bytes payload(size_t size, uint32_t node, uint32_t counter, bool end) {
        qel_fake::bytes b(size);
        memcpy(b.data(), &node, 4);
        memcpy(b.data() + 4, &counter, 4);
        if (end)
            memcpy(b.data() + 20, "FIN", 4);
        return b;
    }
    static void give(const qel_fake::bytes &data, uint32_t node, uint8_t flags = 0, uint32_t seq = 0) {
        deliver(6, wire({.flags = flags, .src_app = 6, .src_node = node, .dst_app = 6, .seq = seq}, data));
        ASSERT_TRUE(qel_fake::settle());
    }
    // One-way messages and replies to 6/@node.
    static std::vector<qel_seen> sent_to_pt(uint32_t node) {
        std::vector<qel_seen> found;
        for (const qel_fake::call &c : qel_fake::calls(qel_fake::op::sendto)) {
            const qel_seen s = unwire(c.data);
            if (c.app() == 6 && c.node() == node && !(s.hdr.flags & (QEL_FLAG_MNG | QEL_FLAG_SYNC)))
                found.push_back(s);
        }
        return found;
    }
};

TEST_F(qel_pt, the_group_holds_the_nodes_that_run_the_test_the_own_one_included) {
    ASSERT_TRUE(bring_online(6, 1));
    ASSERT_TRUE(bring_online(6, 7));
    EXPECT_EQ(members(), "1 7");
    qel_fake::withdraw(6, 1);
    settle();
    EXPECT_EQ(members(), "7");
}

TEST_F(qel_pt, an_event_of_another_kind_changes_no_member) {
    qel_pt_event_proc({6, 2, 9, 6});
    EXPECT_EQ(members(), "");
    qel_pt_event_proc({6, 0, 9, 6});
    EXPECT_EQ(members(), "9");
    qel_pt_event_proc({6, 0xFFFFFFFF, 9, 6});
    EXPECT_EQ(members(), "9");
    qel_pt_event_proc({6, 1, 9, 6});
    EXPECT_EQ(members(), "");
}

TEST_F(qel_pt, a_request_of_any_size_is_echoed) {
    ASSERT_TRUE(bring_online(6, 7));
    for (const size_t size : {size_t{0}, size_t{5}, size_t{65536}}) {
        qel_fake::take_calls();
        qel_fake::bytes data(size);
        for (size_t i = 0; i < size; i++)
            data[i] = static_cast<uint8_t>(i * 7);
        give(data, 7, QEL_FLAG_REQUEST, 99);
        const auto sent = sent_to_pt(7);
        ASSERT_EQ(sent.size(), 1u);
        EXPECT_EQ(sent[0].hdr.flags, 0x06);
        EXPECT_EQ(sent[0].hdr.seq, 99u);
        EXPECT_EQ(sent[0].hdr.rpc_status, 0u);
        EXPECT_EQ(sent[0].data, data);
    }
}

TEST_F(qel_pt, the_last_message_is_sent_back_with_the_times_since_the_first) {
    ASSERT_TRUE(bring_online(6, 7));
    qel_fake::take_calls();
    give(payload(28, 7, 1, false), 7);
    qel_time::advance(milliseconds(1234));
    give(payload(28, 7, 2, false), 7);
    EXPECT_TRUE(sent_to_pt(7).empty());
    qel_time::advance(milliseconds(1000));
    give(payload(28, 7, 2, true), 7);
    const auto sent = sent_to_pt(7);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].hdr.flags, 0);
    EXPECT_EQ(sent[0].hdr.src_node, 1u);
    EXPECT_EQ(sent[0].hdr.app_ver, 1u);
    ASSERT_EQ(sent[0].data.size(), 28u);
    EXPECT_EQ(host32_at(sent[0].data, 0), 7u) << "the tester's node";
    EXPECT_EQ(host32_at(sent[0].data, 4), 2u);
    EXPECT_EQ(host32_at(sent[0].data, 8), 2234u);
    EXPECT_LT(host32_at(sent[0].data, 12), 2234u) << "processor time passes in real time";
    EXPECT_LT(host32_at(sent[0].data, 16), 2234u);
    EXPECT_EQ(memcmp(sent[0].data.data() + 20, "FIN", 4), 0);
}

TEST_F(qel_pt, messages_too_short_to_be_a_testers_are_dropped) {
    ASSERT_TRUE(bring_online(6, 7));
    qel_fake::take_calls();
    for (size_t size = 0; size < 24; size++)
        give(payload(24, 7, 1, true), 7); // one that counts, to have the thread work
    const size_t reported = sent_to_pt(7).size();
    EXPECT_EQ(reported, 24u);
    for (size_t size = 0; size < 24; size++) {
        qel_fake::bytes data = payload(24, 7, 1, true);
        data.resize(size);
        give(data, 7);
    }
    EXPECT_EQ(sent_to_pt(7).size(), reported);
}

TEST_F(qel_pt, an_end_marker_is_four_bytes) {
    ASSERT_TRUE(bring_online(6, 7));
    qel_fake::take_calls();
    qel_fake::bytes data = payload(28, 7, 1, true);
    data[23] = 'X';
    give(data, 7);
    EXPECT_TRUE(sent_to_pt(7).empty());
}

TEST_F(qel_pt, a_last_message_that_its_sender_did_not_begin_is_not_reported) {
    ASSERT_TRUE(bring_online(6, 7));
    qel_fake::take_calls();
    give(payload(28, 9, 1, true), 7); // else two daemons could be set to answer each other
    EXPECT_TRUE(qel_fake::calls(qel_fake::op::sendto).empty());
}

TEST_F(qel_pt, a_report_does_not_wait_for_flow_control) {
    ASSERT_TRUE(bring_online(6, 7));
    for (int i = 0; i <= 1024; i++)
        qel_fc_update_sent_ok(6, 6, 7); // 1025 that were never acknowledged
    qel_fake::take_calls();
    give(payload(28, 7, 1, true), 7);
    EXPECT_TRUE(sent_to_pt(7).empty());
    give({}, 7, QEL_FLAG_REQUEST, 5); // the thread is free to answer
    EXPECT_EQ(sent_to_pt(7).size(), 1u);
}

TEST_F(qel_pt, reports_that_nobody_asked_for_do_no_harm) {
    for (int i = 0; i < 3; i++)
        give(payload(28, 1, 1, true), 7);
    ASSERT_TRUE(bring_online(6, 7));
    EXPECT_EQ(members(), "7");
}

// ---- whole tests ----------------------------------------------------------------------------------------

// A transport and clocks of its own, on one thread: a million messages in a second.
struct qel_pt_run : qel_pt {
    struct peers_state {
        unsigned messages = 0, requests = 0, ends = 0;
        uint32_t last_counter = 0, size = 0;
        std::vector<uint32_t> nodes;
        bool lose_reports = false;
        unsigned reports_per_end = 1;
        int fail_at = 0;          // the n-th one-way message
        int status_at = 0;        // the n-th request is answered with a status
        int request_fails_at = 0; // the n-th request cannot be sent
        int change_at = 0;        // at the n-th message somebody joins
        uint64_t absolute_ns = 5'000'000'000'000, system_ns = 7'000'000'000, process_ns = 900'000'000;
        std::vector<uint64_t> sleeps;
    };
    static peers_state g;
    static const qel_port *fake;

    static constexpr uint32_t absolute_step = 8000, system_step = 3000, process_step = 2000;

    // Time passes with each message only.
    static void tick() {
        g.absolute_ns += absolute_step;
        g.system_ns += system_step;
        g.process_ns += process_step;
    }
    static int clock(clockid_t id, timespec *now) {
        const uint64_t ns = id == CLOCK_MONOTONIC            ? g.absolute_ns
                            : id == CLOCK_PROCESS_CPUTIME_ID ? g.system_ns
                                                             : g.process_ns;
        *now = {static_cast<time_t>(ns / 1'000'000'000), static_cast<long>(ns % 1'000'000'000)};
        return 0;
    }
    static void note_pause(uint64_t us) { g.sleeps.push_back(us); }

    static ssize_t peers(int fd, const void *data, size_t len, int flags, const sockaddr *to,
                         socklen_t to_len) {
        sockaddr_tipc name{};
        memcpy(&name, to, sizeof name);
        const uint32_t node = name.addr.name.name.instance & 0xFFFF;
        qel_hdr hdr;
        memcpy(&hdr, data, sizeof hdr);
        if (name.addr.name.name.instance >> 16 != 6 || hdr.flags & (QEL_FLAG_MNG | QEL_FLAG_SYNC))
            return fake->sendto(fd, data, len, flags, to, to_len);
        const auto *bytes = static_cast<const uint8_t *>(data);
        tick();
        if (hdr.flags == QEL_FLAG_REQUEST) {
            g.requests++;
            qel_fc_update_sent_ack(6, 6, node, 1);
            if (static_cast<int>(g.requests) == g.request_fails_at) {
                errno = EHOSTUNREACH;
                return -1;
            }
            qel_msg *reply = qel_msg_alloc(0, 1, 0);
            reply->hdr.flags = 6;
            reply->hdr.src_app = reply->hdr.dst_app = 6;
            reply->hdr.src_node = node;
            reply->hdr.seq = be32toh(hdr.seq);
            reply->hdr.rpc_status = static_cast<int>(g.requests) == g.status_at ? 3 : 0;
            if (qel_rpc_add_reply(reply) != 0)
                free(reply);
            return static_cast<ssize_t>(len);
        }
        if (static_cast<int>(++g.messages) == g.fail_at) {
            errno = EHOSTUNREACH;
            return -1;
        }
        if (static_cast<int>(g.messages) == g.change_at)
            qel_pt_event_proc({6, 0, 99, 6});
        g.size = static_cast<uint32_t>(len);
        qel_fc_update_sent_ack(6, 6, node, 1);
        EXPECT_EQ(qel_load_host32(bytes + 36), 1u);
        g.last_counter = qel_load_host32(bytes + 40);
        const bool end = !memcmp(bytes + 56, "FIN", 4);
        for (size_t i = end ? 60 : 56; i < std::min<size_t>(len, 100); i++)
            EXPECT_EQ(bytes[i], 0) << i;
        if (!end)
            return static_cast<ssize_t>(len);
        g.ends++;
        for (unsigned i = 0; i < g.reports_per_end && !g.lose_reports; i++) {
            qel_msg *report = qel_msg_alloc(static_cast<int32_t>(len) - 36, 1, 0);
            memcpy(qel_msg_data(report), bytes + 36, len - 36);
            const uint32_t times[] = {4000 + node, 1000, 2000}; // absolute, process, system
            memcpy(static_cast<char *>(qel_msg_data(report)) + 8, times, sizeof times);
            report->hdr.src_app = report->hdr.dst_app = 6;
            report->hdr.src_node = node;
            qel_pt_msg_proc(report);
        }
        return static_cast<ssize_t>(len);
    }

    // From now on 6 on these nodes answers.
    void with_nodes(const std::vector<uint32_t> &nodes) {
        for (const uint32_t node : nodes)
            ASSERT_TRUE(bring_online(6, node));
        g.nodes = nodes;
        fake = &qel_port_get();
        static qel_port port;
        port = *fake;
        port.sendto = peers;
        qel_port_set(&port);
        static qel_sys sys;
        sys = qel_sys_get();
        sys.clock_gettime = clock;
        sys.sleep_us = note_pause;
        g_qel_sys.store(&sys);
        forget_changes();
    }
    // The joins so far are a change to a test; a new command forgets them, and ends at once.
    static void forget_changes() {
        const peers_state kept = std::exchange(g, {});
        g.fail_at = 1;
        (void)all_of(qel_performance_test);
        for (const uint32_t node : kept.nodes) // the second part may have been reached
            (void)qel_add_node_mcast(6, group_id, node);
        g = kept;
    }
    static std::string all_of(void (*what)()) {
        qel_capture out;
        what();
        return out.take();
    }

    static std::string result(const char *what, double absolute, double system, double process, uint32_t n,
                              uint32_t size) {
        const double t = absolute / n;
        const double mb = absolute > 0 ? size * 1000.0 / t / 1048576 : 0;
        return qel_format("QEL_PT %s time test result per message (in us):\n"
                          "  absolute time %.3f, system CPU time %.3f, process CPU time %.3f.\n"
                          "QEL_PT %s speed %d pps, %.3f MBps, %.3f Mbps.\n",
                          what, t * 1000, system / n * 1000, process / n * 1000, what,
                          absolute > 0 ? static_cast<int>(1000 / t) : 0, mb, mb * 8);
    }
    // Whole milliseconds of @count steps, as far as the test's clocks begin at whole milliseconds.
    static double ms(uint64_t before, uint64_t after) {
        const auto s = [](uint64_t ns) { return static_cast<int64_t>(ns / 1'000'000'000); };
        const auto rest = [](uint64_t ns) { return static_cast<int64_t>(ns % 1'000'000'000); };
        const int64_t elapsed = (s(after) - s(before)) * 1000 + (rest(after) - rest(before)) / 1'000'000;
        return static_cast<double>(elapsed);
    }
    // What both tests of one size print, by clocks that begin where @at stands and are moved on.
    static std::string expected(uint32_t size, const std::string &to, uint32_t peers_count, bool receiving,
                                uint32_t node, peers_state *at) {
        const uint32_t n = 32'000'000 / size;
        const auto moved = [](uint64_t from, uint64_t ops, uint32_t step) { return from + ops * step; };
        const uint64_t sent_ops = uint64_t{n - 1} * peers_count, all_ops = uint64_t{n} * peers_count;
        std::string text = qel_format("\nQEL_PT send data length %u to %s\n", size, to.c_str());
        const auto line = [&](const char *what, uint64_t ops) {
            return result(what, ms(at->absolute_ns, moved(at->absolute_ns, ops, absolute_step)),
                          ms(at->system_ns, moved(at->system_ns, ops, system_step)),
                          ms(at->process_ns, moved(at->process_ns, ops, process_step)), n, size);
        };
        text += line("sending", sent_ops);
        if (receiving)
            text += result("receiving", 4000 + node, 2000, 1000, n, size);
        text += line("transmission", all_ops);
        at->absolute_ns = moved(at->absolute_ns, all_ops, absolute_step);
        at->system_ns = moved(at->system_ns, all_ops, system_step);
        at->process_ns = moved(at->process_ns, all_ops, process_step);

        const uint32_t m = 16'000'000 / size;
        const uint64_t calls = uint64_t{m} * peers_count;
        text += qel_format("%sQEL_PT RPC data length %u to %s\n", peers_count == 1 && receiving ? "\n" : "",
                           size, to.c_str());
        const double absolute = ms(at->absolute_ns, moved(at->absolute_ns, calls, absolute_step)),
                     system = ms(at->system_ns, moved(at->system_ns, calls, system_step)),
                     process = ms(at->process_ns, moved(at->process_ns, calls, process_step));
        text += qel_format("QEL_PT RPC time test result per message (in us):\n"
                           "  RPCs per second: %d rps.\n"
                           "  absolute time %.3f, system CPU time %.3f, process CPU time %.3f.\n",
                           static_cast<int>(1000 / (absolute / m)), absolute / m * 1000, system / m * 1000,
                           process / m * 1000);
        at->absolute_ns = moved(at->absolute_ns, calls, absolute_step);
        at->system_ns = moved(at->system_ns, calls, system_step);
        at->process_ns = moved(at->process_ns, calls, process_step);
        return text;
    }
};
qel_pt_run::peers_state qel_pt_run::g;
const qel_port *qel_pt_run::fake;

TEST_F(qel_pt_run, the_whole_command_prints_what_it_must_to_the_byte) {
    with_nodes({2});
    peers_state at = g;
    std::string text = "Uni-cast performance testing.\n";
    for (const uint32_t size : {64u, 256u, 1024u, 4096u, 16384u, 32768u, 65536u})
        text += expected(size, "2.", 1, true, 2, &at);
    text += "\nMulti-cast performance testing.\n";
    for (const uint32_t size : {64u, 256u, 1024u, 4096u, 16384u, 32768u, 65536u})
        text += expected(size, "2 ", 1, false, 2, &at);
    EXPECT_EQ(all_of(qel_performance_test), text);
    EXPECT_EQ(g.sleeps, std::vector<uint64_t>(28, 5'000'000));
    EXPECT_EQ(g.ends, 14u);
    const unsigned per_round = 500000 + 125000 + 31250 + 7812 + 1953 + 976 + 488;
    EXPECT_EQ(g.messages, 2 * per_round);
    EXPECT_EQ(g.requests, 2u * (250000 + 62500 + 15625 + 3906 + 976 + 488 + 244));
}

TEST_F(qel_pt_run, a_send_test_counts_from_1_and_marks_its_last_message_only) {
    with_nodes({2});
    qel_capture out;
    ASSERT_EQ(qel_pt_test_send(65536, 2), 0);
    EXPECT_EQ(g.messages, 488u);
    EXPECT_EQ(g.ends, 1u);
    EXPECT_EQ(g.last_counter, 487u) << "the last message carries no number of its own";
    EXPECT_EQ(g.size, 65536u);
    EXPECT_EQ(out.text().find("\nQEL_PT send data length 65536 to 2.\nQEL_PT sending time"), 0u);
}

TEST_F(qel_pt_run, a_test_of_the_own_node_has_no_receiving_lines) {
    with_nodes({1});
    qel_capture out;
    ASSERT_EQ(qel_pt_test_send(65536, 1), 0);
    EXPECT_EQ(out.text().find("receiving"), std::string::npos);
    EXPECT_NE(out.text().find("transmission"), std::string::npos);
}

TEST_F(qel_pt_run, a_group_is_named_by_its_nodes_and_every_one_of_them_reports) {
    with_nodes({2, 3, 9});
    qel_capture out;
    ASSERT_EQ(qel_pt_test_send(65536, group_id), 0);
    EXPECT_EQ(out.take().find("\nQEL_PT send data length 65536 to 2 3 9 \nQEL_PT sending time"), 0u);
    EXPECT_EQ(out.text().find("receiving"), std::string::npos);
    EXPECT_EQ(g.messages, 3u * 488);
    EXPECT_EQ(g.ends, 3u);
    ASSERT_EQ(qel_pt_test_rpc(65536, group_id), 0);
    EXPECT_EQ(out.take().find("QEL_PT RPC data length 65536 to 2 3 9 \nQEL_PT RPC time"), 0u);
    EXPECT_EQ(g.requests, 3u * 244);
}

TEST_F(qel_pt_run, the_own_node_leaves_the_group_for_the_second_part_and_stays_out) {
    with_nodes({1, 2});
    g.fail_at = 2 * 667479 + 1; // the first message of the second part
    const std::string printed = all_of(qel_performance_test);
    EXPECT_NE(printed.find("\nQEL_PT send data length 64 to 1.\n"), std::string::npos);
    EXPECT_NE(
        printed.find("\nMulti-cast performance testing.\n\nQEL_PT send data length 64 to 2 \n"
                     "% QEL_PT send message failed: Operation not permitted, please test again later.\n"),
        std::string::npos);
    EXPECT_EQ(members(), "2");
}

TEST_F(qel_pt_run, alone_the_second_part_has_nobody_to_send_to) {
    with_nodes({1});
    const std::string printed = all_of(qel_performance_test);
    const std::string tail = "\nMulti-cast performance testing.\n\nQEL_PT send data length 64 to \n"
                             "% QEL_PT send message failed: No such file or directory, please test again "
                             "later.\n";
    ASSERT_GT(printed.size(), tail.size());
    EXPECT_EQ(printed.substr(printed.size() - tail.size()), tail);
    EXPECT_EQ(all_of(qel_performance_test), "Uni-cast performance testing.\n" + tail)
        << "a second run does not test the own node";
}

TEST_F(qel_pt_run, a_join_during_the_test_ends_the_command) {
    with_nodes({2});
    g.change_at = 1000;
    EXPECT_EQ(all_of(qel_performance_test),
              "Uni-cast performance testing.\n"
              "\nQEL_PT send data length 64 to 2.\n"
              "% QEL performance testing environment changed, please test again later.\n");
    EXPECT_EQ(g.messages, 1000u);
    EXPECT_TRUE(g.sleeps.empty());
}

TEST_F(qel_pt_run, a_change_before_the_calls_ends_the_command_too) {
    with_nodes({2});
    g.change_at = 488; // with the last message, behind the last look
    qel_capture out;
    EXPECT_EQ(qel_pt_test_send(65536, 2), 0);
    (void)out.take();
    EXPECT_EQ(qel_pt_test_rpc(65536, 2), -11);
    EXPECT_EQ(out.take(), "\nQEL_PT RPC data length 65536 to 2.\n"
                          "% QEL performance testing environment changed, please test again later.\n");
    EXPECT_EQ(g.requests, 0u);
    EXPECT_EQ(qel_pt_test_send(65536, 2), -11);
}

TEST_F(qel_pt_run, a_new_command_forgets_the_changes_before_it) {
    qel_pt_event_proc({6, 1, 99, 6});
    with_nodes({2});
    g.request_fails_at = 1;
    EXPECT_EQ(all_of(qel_performance_test).find("environment changed"), std::string::npos);
}

TEST_F(qel_pt_run, a_message_that_cannot_be_sent_ends_the_command) {
    with_nodes({2});
    g.fail_at = 500000; // the end marker
    EXPECT_EQ(all_of(qel_performance_test),
              "Uni-cast performance testing.\n"
              "\nQEL_PT send data length 64 to 2.\n"
              "% QEL_PT send message failed: Operation not permitted, please test again later.\n");
}

TEST_F(qel_pt_run, an_error_reply_ends_the_command) {
    with_nodes({2});
    g.status_at = 3;
    qel_capture out;
    EXPECT_EQ(qel_pt_test_rpc(65536, 2), -22);
    EXPECT_EQ(out.take(), "\nQEL_PT RPC data length 65536 to 2.\n"
                          "% QEL_PT RPC reply failed 3, please test again later.\n");
    g.request_fails_at = 4; // its send fails: a reply made here
    EXPECT_EQ(qel_pt_test_rpc(65536, 2), -22);
    EXPECT_EQ(out.take(), "\nQEL_PT RPC data length 65536 to 2.\n"
                          "% QEL_PT RPC reply failed 4, please test again later.\n");
}

TEST_F(qel_pt_run, a_call_without_a_server_ends_the_command) {
    with_nodes({2});
    qel_capture out;
    EXPECT_EQ(qel_pt_test_rpc(65536, 3), -2);
    EXPECT_EQ(out.take(),
              "\nQEL_PT RPC data length 65536 to 3.\n"
              "% QEL_PT RPC message failed: No such file or directory, please test again later.\n");
}

TEST_F(qel_pt_run, more_reports_than_expected_are_as_good) {
    with_nodes({2});
    g.reports_per_end = 3;
    qel_capture out;
    EXPECT_EQ(qel_pt_test_send(65536, 2), 0);
    EXPECT_EQ(qel_pt_test_send(65536, 2), 0);
    EXPECT_EQ(out.text().find("timeout"), std::string::npos);
}

TEST_F(qel_pt_run, report_times_are_unsigned) {
    with_nodes({2});
    g.lose_reports = true;
    qel_capture out;
    // instead of the peer's: one that claims the longest times
    static qel_port port;
    port = qel_port_get();
    port.sendto = [](int fd, const void *data, size_t len, int flags, const sockaddr *to, socklen_t to_len) {
        const ssize_t ret = peers(fd, data, len, flags, to, to_len);
        if (g.ends == 1) {
            qel_fake::bytes report = payload(28, 1, 1, true);
            memset(report.data() + 8, 0xFF, 12);
            qel_msg *msg = qel_msg_alloc(static_cast<int32_t>(report.size()), 1, 0);
            memcpy(qel_msg_data(msg), report.data(), report.size());
            qel_pt_msg_proc(msg);
        }
        return ret;
    };
    qel_port_set(&port);
    EXPECT_EQ(qel_pt_test_send(65536, 2), 0);
    EXPECT_NE(out.text().find(result("receiving", 4294967295.0, 4294967295.0, 4294967295.0, 488, 65536)),
              std::string::npos);
}

TEST_F(qel_pt, a_report_that_does_not_come_ends_the_test_after_a_minute_without_an_error) {
    ASSERT_TRUE(bring_online(6, 7));
    qel_fake::on_sendto([](const qel_fake::call &c) {
        if (c.app() == 6 && c.node() == 7)
            qel_fc_update_sent_ack(6, 6, 7, 1);
    });
    qel_fake::fail_to(6, 7, EHOSTUNREACH);
    {
        const qel_capture unseen; // a command forgets the join; this one ends at once
        qel_performance_test();
    }
    qel_time::auto_advance(true);
    const qel_time::enrolled me;
    qel_capture out;
    const auto begin = qel_time::now();
    EXPECT_EQ(qel_pt_test_send(65536, 7), 0);
    EXPECT_EQ(qel_time::now() - begin, seconds(60));
    EXPECT_EQ(out.text(), "\nQEL_PT send data length 65536 to 7.\n% QEL_PT testing timeout.\n");
}
