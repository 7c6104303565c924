// Registration, the application's socket and name, sequence numbers, and the library manager behind them.
// Every test is a process of its own.
#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <thread>

#include "qel_app_info.h"
#include "qel_capture.h"
#include "qel_cfg.h"
#define QEL_LOG_SRC "test_src"
#include "qel_mng_int.h"
#include "qel_mng_msg.h"
#include "qel_user_proxy.h"
#include "qel_world.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using qel_fake::op;
using qel_time::sys;

// ---- the platform's watchdog ----------------------------------------------------------------------------

namespace {
struct watched {
    char what; // r, f, u
    std::string name;
};
std::vector<watched> &watchdog_calls() {
    static auto &the = *new std::vector<watched>;
    return the;
}
void watchdog(char what, const char *name) {
    qel_time::lock();
    watchdog_calls().push_back({what, name});
    qel_time::unlock();
}
size_t count_watchdog(char what, const std::string &name) {
    qel_time::lock();
    const auto &all = watchdog_calls();
    const auto found =
        std::count_if(all.begin(), all.end(), [&](auto &w) { return w.what == what && w.name == name; });
    qel_time::unlock();
    return static_cast<size_t>(found);
}
} // namespace
void watchdog_register(const char *name) { watchdog('r', name); }
void watchdog_feed(const char *name) { watchdog('f', name); }
void watchdog_unregister(const char *name) {
    watchdog('u', name);
    fprintf(stderr, "watchdog: %s unregistered\n", name);
}

namespace {

std::string registered_line(int app, const char *name, int count, qel_event_fun fun) {
    return qel_line("qel_user_proxy", V, "QEL app %d [%s] registered: %d dispatcher version, event %p.\n",
                    app, name, count, reinterpret_cast<void *>(fun));
}
std::string ok_line(int app, const char *name) {
    return qel_line("qel_user_proxy", I, "QEL registeration for app %d [%s] OK.\n", app, name);
}
std::string failed_line(int app, const char *name, const char *why) {
    return qel_line("qel_user_proxy", I, "QEL registeration for app %d [%s] failed: %s.\n", app, name, why);
}
std::string init_line() { return qel_line("qel_mng", I, "QEL init lib on first app registeration.\n"); }

size_t open_sockets() {
    size_t made = 0;
    for (const auto &c : qel_fake::calls(op::socket))
        made += c.result >= 0;
    return made - qel_fake::calls(op::close).size();
}
std::vector<std::string> thread_names() {
    std::vector<std::string> names;
    for (const auto &task : fs::directory_iterator("/proc/self/task")) {
        const std::string name = qel_node::read_file(task.path() / "comm");
        if (!name.empty()) // it has not ended meanwhile
            names.push_back(name.substr(0, name.size() - 1));
    }
    std::sort(names.begin(), names.end());
    return names;
}

// A joined thread stays in the kernel's list for a moment.
bool eventually(const std::function<bool()> &condition) {
    const auto end = std::chrono::steady_clock::now() + 10s;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::yield();
    }
    return true;
}
bool threads_become(size_t count) {
    return eventually([count] { return thread_names().size() == count; });
}
// A sanitizer's own thread comes with the first one: it is to be counted from the beginning.
void make_first_thread() {
    std::string task;
    std::thread([&task] { task = "/proc/self/task/" + std::to_string(gettid()); }).join();
    ASSERT_TRUE(eventually([&task] { return !fs::exists(task); }));
}

struct registration : qel_world {
    qel_capture out;
    registration() {
        make_first_thread();
        qel_set_masks(0xF, 0);
        set_conf("[MISC_CONF]\nqel_dbg_cfg=15\n");
    }
};
void drop(qel_msg *msg) { free(msg); }

// ---- arguments ------------------------------------------------------------------------------------------

TEST_F(registration, identifiers_at_the_ends_of_both_ranges_are_accepted) {
    for (const int32_t app : {1, 8191, 16384, 20479})
        EXPECT_EQ(add_app(app), 0) << app;
}

TEST_F(registration, identifiers_outside_both_ranges_are_refused) {
    for (const int32_t app : {0, 8192, 12288, 16383, 20480, 65537, -1, INT32_MIN, INT32_MAX}) {
        out.take();
        EXPECT_EQ(add_app(app), -22) << app;
        EXPECT_NE(
            out.take().find(qel_line("qel_user_proxy", X, "QEL app registered with invalid ID %d.\n", app)),
            std::string::npos);
        EXPECT_EQ(add_app(app, false), -22) << app;
    }
    EXPECT_TRUE(qel_fake::calls().empty()) << "nothing was begun";
}

TEST_F(registration, a_null_name_is_refused) {
    EXPECT_EQ(qel_register(5, nullptr, keep_table, nullptr), -22);
    EXPECT_TRUE(out.has(qel_line("qel_user_proxy", X, "QEL app 5 registered name NULL.\n")));
    EXPECT_EQ(qel_register_without_thread(5, nullptr, keep_table, nullptr), -22);
    EXPECT_TRUE(qel_fake::calls().empty());
}

TEST_F(registration, an_invalid_identifier_is_told_before_a_null_name) {
    EXPECT_EQ(qel_register(0, nullptr, keep_table, nullptr), -22);
    EXPECT_TRUE(out.has(qel_line("qel_user_proxy", X, "QEL app registered with invalid ID 0.\n")));
    EXPECT_EQ(out.text().find("name NULL"), std::string::npos);
}

TEST_F(registration, without_a_node_address_everything_fails_before_any_other_check) {
    remove_node_address();
    EXPECT_EQ(add_app(5), -1);
    EXPECT_EQ(add_app(0), -1);
    EXPECT_EQ(qel_register(5, nullptr, keep_table, nullptr), -1);
    EXPECT_TRUE(out.lines("qel_user_proxy", X).empty());
    EXPECT_TRUE(out.lines("qel_user_proxy", I).empty());
    set_node_address("4");
    EXPECT_EQ(add_app(5), 0);
}

// ---- what a registration does ---------------------------------------------------------------------------

TEST_F(registration, the_first_one_starts_the_library_and_says_so_in_this_order) {
    set_conf("[MISC_CONF]\nqel_dbg_cfg=15\n[APP_INFO_TBL]\n5,five,2,team,some comment\n");
    ASSERT_EQ(qel_cfg_init(), 0);
    out.take();
    EXPECT_EQ(qel_register(5, "five", keep_table, on_event), 0);
    const int sd = qel_get_app_sd(5);
    EXPECT_EQ(
        out.take(),
        registered_line(5, "five", 1, on_event) + init_line() +
            qel_line("qel_mng", I, "QEL add new app 5 mgmt.\n") +
            qel_line("qel_flow_ctrl", V, "QEL add new flow ctrl for app 5.\n") +
            qel_line("qel_rpc", V, "QEL add new app 5 RPC wait mgmt.\n") +
            qel_line("qel_app_info", V, "QEL add app 5 info.\n") +
            qel_line("qel_cfg", V,
                     "QEL get app config OK: id [5] name [five] priority [2] developer [team] comment [some "
                     "comment].\n") +
            qel_line("qel_cfg", V, "QEL get app 5 config priority 2.\n") +
            qel_line("qel_user_proxy", V, "QEL app 5 create socket %d priority 2.\n", sd) +
            qel_line("qel_mng", I, "QEL app 5 add comm with 5.\n") +
            qel_line("qel_mng", I, "QEL app 5 add comm with 5 OK.\n") + ok_line(5, "five"));
}

TEST_F(registration, the_second_one_starts_nothing_anew) {
    ASSERT_EQ(add_app(5), 0);
    out.take();
    const size_t threads = thread_names().size();
    EXPECT_EQ(qel_register_without_thread(6, "six", keep_table, nullptr), 0);
    const std::string text = out.take();
    EXPECT_EQ(text.find("QEL init lib"), std::string::npos);
    EXPECT_NE(text.find(registered_line(6, "six", 1, nullptr)), std::string::npos);
    EXPECT_NE(text.find(ok_line(6, "six")), std::string::npos);
    EXPECT_TRUE(threads_become(threads));
}

TEST_F(registration, a_null_callback_prints_as_the_c_library_prints_it) {
    EXPECT_EQ(qel_register(5, "five", nullptr, nullptr), 0);
    EXPECT_TRUE(out.has(
        qel_line("qel_user_proxy", V, "QEL app 5 [five] registered: 0 dispatcher version, event (nil).\n")));
}

TEST_F(registration, dispatchers_are_counted_up_to_the_first_version_0_or_null_function) {
    const qel_dispatcher second_null[] = {{1, drop}, {2, nullptr}, {3, drop}, {0, nullptr}};
    const qel_dispatcher first_zero[] = {{0, drop}, {1, drop}};
    const qel_dispatcher first_null[] = {{1, nullptr}, {2, drop}};
    const qel_dispatcher three[] = {{7, drop}, {1, drop}, {UINT32_MAX, drop}, {0, nullptr}};
    const struct {
        const qel_dispatcher *table;
        int count;
    } rows[] = {{second_null, 1}, {first_zero, 0}, {first_null, 0}, {three, 3}, {nullptr, 0}};
    int app = 10;
    for (const auto &row : rows) {
        app++;
        EXPECT_EQ(qel_register(app, "x", row.table, nullptr), 0);
        EXPECT_TRUE(out.has(registered_line(app, "x", row.count, nullptr))) << row.count;
        EXPECT_EQ(qel_is_app_server(static_cast<uint32_t>(app)), row.count > 0);
    }
    EXPECT_FALSE(qel_is_app_server(99)) << "not registered";
}

TEST_F(registration, the_table_is_copied) {
    qel_dispatcher table[] = {{1, drop}, {2, drop}, {0, nullptr}};
    EXPECT_EQ(qel_register(5, "x", table, nullptr), 0);
    memset(table, 0, sizeof table);
    const qel_app_info *app = qel_get_app_info(5);
    EXPECT_EQ(qel_get_dispatch_fun(app, 1), drop);
    EXPECT_EQ(qel_get_dispatch_fun(app, 2), drop);
    EXPECT_EQ(qel_get_dispatch_fun(app, 0), nullptr) << "the terminator is no entry";
}

TEST_F(registration, a_name_is_kept_up_to_31_characters) {
    EXPECT_EQ(qel_register(5, std::string(31, 'n').c_str(), keep_table, nullptr), 0);
    EXPECT_EQ(qel_register(6, std::string(500, 'm').c_str(), keep_table, nullptr), 0);
    EXPECT_EQ(qel_register(7, "", keep_table, nullptr), 0);
    EXPECT_STREQ(qel_get_app_info(5)->name, std::string(31, 'n').c_str());
    EXPECT_STREQ(qel_get_app_info(6)->name, std::string(31, 'm').c_str());
    EXPECT_STREQ(qel_get_app_info(7)->name, "");
}

TEST_F(registration, with_a_thread_there_is_one_more_thread_than_without) {
    EXPECT_EQ(add_app(5), 0);
    const size_t threads = thread_names().size();
    EXPECT_EQ(add_app(6, false), 0);
    EXPECT_TRUE(threads_become(threads));
    EXPECT_EQ(add_app(7), 0);
    EXPECT_TRUE(threads_become(threads + 1));
}

TEST_F(registration, any_flag_but_0_means_a_thread) {
    EXPECT_EQ(qel_app_register(5, "x", keep_table, nullptr, 0x80), 0);
    ASSERT_TRUE(qel_time::settle());
    const std::vector<std::string> names = thread_names();
    EXPECT_EQ(std::count(names.begin(), names.end(), "qel_app_5"), 1);
}

TEST_F(registration, threads_carry_their_names_and_register_them_with_the_watchdog) {
    ASSERT_EQ(add_app(5), 0);
    ASSERT_EQ(add_app(20479), 0);
    ASSERT_TRUE(qel_time::settle());
    const std::string lib = ("qel_lib_" + std::to_string(getpid())).substr(0, 15);
    const std::vector<std::string> names = thread_names();
    for (const std::string &name : {lib, std::string("qel_app_5"), std::string("qel_app_20479")}) {
        EXPECT_EQ(std::count(names.begin(), names.end(), name), 1) << name;
        EXPECT_EQ(count_watchdog('r', name), 1u) << name;
    }
}

TEST_F(registration, the_same_application_twice_is_refused) {
    ASSERT_EQ(add_app(5), 0);
    out.take();
    const size_t sockets = open_sockets();
    EXPECT_EQ(add_app(5), -17);
    EXPECT_EQ(out.take(), registered_line(5, "app5", 1, on_event) +
                              qel_line("qel_mng", X, "QEL app 5 has already registered.\n") +
                              failed_line(5, "app5", "File exists"));
    EXPECT_EQ(add_app(5, false), -17);
    EXPECT_EQ(open_sockets(), sockets);
}

TEST_F(registration, thirty_one_applications_fit_and_the_next_one_does_not) {
    for (int32_t app = 101; app <= 131; app++)
        ASSERT_EQ(add_app(app, app % 8 == 0), 0) << app;
    out.take();
    EXPECT_EQ(add_app(132), -105);
    EXPECT_EQ(out.take(), registered_line(132, "app132", 1, on_event) +
                              qel_line("qel_mng", I, "QEL add new app 132 mgmt.\n") +
                              qel_line("qel_mng", W, "QEL lib's app registeration full.\n") +
                              failed_line(132, "app132", "No buffer space available"));
    EXPECT_EQ(add_app(133), -105);
    EXPECT_EQ(add_app(131), -17);
    for (uint32_t app = 101; app <= 131; app++) {
        ASSERT_NE(qel_get_app_mng(app), nullptr);
        EXPECT_GE(qel_get_app_sd(app), 0);
    }
    EXPECT_EQ(qel_get_app_mng(132), nullptr);
    EXPECT_EQ(qel_get_app_sd(132), -1);
    EXPECT_TRUE(run());
}

TEST_F(registration, zero_and_unknown_applications_have_no_slot) {
    EXPECT_EQ(qel_get_app_mng(0), nullptr);
    EXPECT_EQ(qel_get_app_mng(5), nullptr);
    ASSERT_EQ(add_app(5), 0);
    EXPECT_EQ(qel_get_app_mng(0), nullptr) << "the end of the table is no application";
    EXPECT_NE(qel_get_app_mng(5), nullptr);
    EXPECT_EQ(qel_get_app_info(6), nullptr);
}

TEST_F(registration, after_run_every_valid_application_gets_minus_1_and_invalid_arguments_still_minus_22) {
    ASSERT_EQ(add_app(5), 0);
    ASSERT_TRUE(run());
    out.take();
    EXPECT_EQ(add_app(6), -1);
    const std::string text = out.take();
    EXPECT_NE(
        text.find(registered_line(6, "app6", 1, on_event) +
                  qel_line("qel_mng", X, "QEL had already running, and app 6 can not be registered.\n") +
                  failed_line(6, "app6", "Operation not permitted")),
        std::string::npos)
        << text;
    EXPECT_EQ(add_app(5), -1) << "registered or not";
    EXPECT_EQ(add_app(0), -22);
    EXPECT_EQ(qel_register(6, nullptr, keep_table, nullptr), -22);
}

TEST_F(registration, threads_that_register_at_the_same_time_all_get_their_slots) {
    std::vector<std::thread> threads;
    for (int32_t t = 0; t < 4; t++)
        threads.emplace_back([t] {
            for (int32_t i = 0; i < 5; i++)
                if (add_app(1 + t * 5 + i, i % 2 == 0) != 0)
                    abort();
        });
    for (std::thread &t : threads)
        t.join();
    for (uint32_t app = 1; app <= 20; app++)
        EXPECT_NE(qel_get_app_mng(app), nullptr);
    EXPECT_EQ(out.count(init_line()), 1u);
    EXPECT_TRUE(run());
}

// ---- unregistering --------------------------------------------------------------------------------------

TEST_F(registration, unregistering_says_so_tears_nothing_down_and_the_application_keeps_receiving) {
    ASSERT_EQ(add_app(5), 0);
    ASSERT_EQ(qel_comm_with(5, 7), 0);
    ASSERT_TRUE(run());
    ASSERT_TRUE(bring_online(7, 2));
    out.take();
    EXPECT_EQ(qel_unregister(5), 0);
    EXPECT_EQ(out.take(), qel_line("qel_user_proxy", I, "QEL app 5 unregister service.\n"));
    EXPECT_TRUE(qel_fake::calls(op::close).empty());
    deliver(5, wire({.src_app = 7, .src_node = 2, .dst_app = 5}, "still here"));
    ASSERT_TRUE(qel_fake::settle());
    ASSERT_EQ(got().size(), 1u);
    EXPECT_EQ(got()[0].data, to_bytes("still here"));
}

TEST_F(registration, an_unregistered_application_cannot_be_registered_again) {
    ASSERT_EQ(add_app(5), 0);
    EXPECT_EQ(qel_unregister(5), 0);
    EXPECT_EQ(add_app(5), -17);
}

TEST_F(registration, unregistering_any_valid_identifier_succeeds_and_an_invalid_one_not) {
    EXPECT_EQ(qel_unregister(6), 0);
    EXPECT_EQ(out.take(), qel_line("qel_user_proxy", I, "QEL app 6 unregister service.\n"));
    for (const int32_t app : {0, 8192, 16383, 20480, -1}) {
        EXPECT_EQ(qel_unregister(app), -22);
        EXPECT_EQ(out.take(),
                  qel_line("qel_user_proxy", X, "QEL app unregistered with invalid ID %d.\n", app));
    }
}

// ---- the socket -----------------------------------------------------------------------------------------

TEST_F(registration, a_socket_is_made_in_this_order) {
    set_conf("[MISC_CONF]\nqel_dbg_cfg=15\n[APP_INFO_TBL]\n5,five,3,team\n");
    ASSERT_EQ(add_app(4), 0); // the library's own socket is made with the first application
    qel_fake::take_calls();
    ASSERT_EQ(add_app(5), 0);
    const auto calls = qel_fake::take_calls();
    ASSERT_EQ(calls.size(), 7u);
    const int sd = qel_get_app_sd(5);
    EXPECT_EQ(calls[0].what, op::socket);
    EXPECT_EQ(calls[0].domain, AF_TIPC);
    EXPECT_EQ(calls[0].type, SOCK_RDM);
    EXPECT_EQ(calls[0].result, sd);
    for (size_t i = 1; i < 7; i++)
        EXPECT_EQ(calls[i].fd, sd);
    EXPECT_EQ(calls[1].what, op::fcntl);
    EXPECT_EQ(calls[1].cmd, F_GETFD);
    EXPECT_EQ(calls[2].what, op::fcntl);
    EXPECT_EQ(calls[2].cmd, F_SETFD);
    EXPECT_EQ(calls[2].value, FD_CLOEXEC);
    const struct {
        int level, option, value;
    } options[] = {{SOL_TIPC, TIPC_IMPORTANCE, 3},
                   {SOL_TIPC, TIPC_SRC_DROPPABLE, 0},
                   {SOL_TIPC, TIPC_DEST_DROPPABLE, 0}};
    for (size_t i = 0; i < 3; i++) {
        EXPECT_EQ(calls[3 + i].what, op::setsockopt);
        EXPECT_EQ(calls[3 + i].level, options[i].level);
        EXPECT_EQ(calls[3 + i].option, options[i].option);
        EXPECT_EQ(calls[3 + i].value, options[i].value);
    }
    EXPECT_EQ(calls[6].option, SO_RCVBUFFORCE);
    EXPECT_GE(calls[6].value, 64 << 20);
    EXPECT_TRUE(out.has(qel_line("qel_user_proxy", V, "QEL app 5 create socket %d priority 3.\n", sd)));
    EXPECT_EQ(fcntl(sd, F_GETFD), FD_CLOEXEC);
}

TEST_F(registration, a_receive_queue_that_may_not_grow_is_no_failure_and_never_shrinks) {
    qel_fake::fail_option(SOL_SOCKET, SO_RCVBUFFORCE, EPERM);
    EXPECT_EQ(add_app(5), 0);
    EXPECT_EQ(out.text().find("Operation not permitted"), std::string::npos);
    for (const auto &c : qel_fake::calls(op::setsockopt))
        EXPECT_FALSE(c.level == SOL_SOCKET && c.option == SO_RCVBUF);
}

struct socket_step {
    const char *name;
    op what;
    unsigned nth; // of these calls
    int level, option;
    const char *text;
};
struct registration_socket : registration, testing::WithParamInterface<socket_step> {};

TEST_P(registration_socket, a_failing_step_closes_it_refuses_the_application_and_leaves_the_slot_free) {
    const socket_step &step = GetParam();
    ASSERT_EQ(add_app(4), 0);
    const size_t sockets = open_sockets(), threads = thread_names().size();
    if (step.what == op::setsockopt)
        qel_fake::fail_option(step.level, step.option, EDOM);
    else
        qel_fake::fail(step.what, EDOM, step.nth);
    out.take();
    EXPECT_EQ(add_app(5), -11);
    const std::string text = out.take();
    const int sd = static_cast<int>(qel_fake::calls(op::socket).back().result);
    EXPECT_NE(text.find(qel_line("qel_user_proxy", X, step.text, sd)), std::string::npos) << text;
    EXPECT_NE(text.find(failed_line(5, "app5", "Resource temporarily unavailable")), std::string::npos);
    EXPECT_EQ(text.find("QEL cancel"), std::string::npos) << "nothing was subscribed";
    EXPECT_EQ(open_sockets(), sockets);
    EXPECT_TRUE(threads_become(threads));
    EXPECT_EQ(qel_get_app_mng(5), nullptr);
    EXPECT_TRUE(qel_fake::calls(op::send).empty());
    if (step.what == op::setsockopt)
        qel_fake::fail_option(step.level, step.option, 0);
    EXPECT_EQ(add_app(5), 0) << "it can be tried again";
    EXPECT_TRUE(run());
}

INSTANTIATE_TEST_SUITE_P(
    steps, registration_socket,
    testing::Values(
        socket_step{"socket", op::socket, 1, 0, 0,
                    "QEL create app 5 socket failed: Numerical argument out of domain.\n"},
        socket_step{"get_flags", op::fcntl, 1, 0, 0,
                    "QEL get file %d flags error: Numerical argument out of domain.\n"},
        socket_step{"set_flags", op::fcntl, 2, 0, 0,
                    "QEL set file %d flags error: Numerical argument out of domain.\n"},
        socket_step{"importance", op::setsockopt, 0, SOL_TIPC, TIPC_IMPORTANCE,
                    "QEL set app 5 socket priority 0 failed: Numerical argument out of domain.\n"},
        socket_step{"src_droppable", op::setsockopt, 0, SOL_TIPC, TIPC_SRC_DROPPABLE,
                    "QEL set app 5 socket TIPC_SRC_DROPPABLE failed: Numerical argument out of domain.\n"},
        socket_step{"dest_droppable", op::setsockopt, 0, SOL_TIPC, TIPC_DEST_DROPPABLE,
                    "QEL set app 5 socket TIPC_DEST_DROPPABLE failed: Numerical argument out of "
                    "domain.\n"}),
    [](const auto &p) { return std::string(p.param.name); });

TEST_F(registration, an_importance_that_tipc_does_not_know_refuses_the_application_until_it_is_corrected) {
    set_conf("[MISC_CONF]\nqel_dbg_cfg=15\n[APP_INFO_TBL]\n5,five,4,team\n");
    EXPECT_EQ(add_app(5), -11);
    EXPECT_TRUE(out.has(
        qel_line("qel_user_proxy", X, "QEL set app 5 socket priority 4 failed: Invalid argument.\n")));
    set_conf("[APP_INFO_TBL]\n5,five,1,team\n");
    EXPECT_EQ(add_app(5), 0);
    EXPECT_EQ(qel_get_app_info(5)->priority, 1);
}

TEST_F(registration, close_on_exec_keeps_other_flags_and_names_a_bad_descriptor) {
    const int fd = open("/dev/null", O_RDONLY);
    EXPECT_EQ(qel_set_fd_close_on_exec(fd), 0);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(qel_set_fd_close_on_exec(fd), 0) << "twice is fine";
    close(fd);
    out.take();
    EXPECT_EQ(qel_set_fd_close_on_exec(fd), -1);
    EXPECT_EQ(out.take(),
              qel_line("qel_user_proxy", X, "QEL get file %d flags error: Bad file descriptor.\n", fd));
}

// ---- the name -------------------------------------------------------------------------------------------

TEST(registration_name, the_instance_is_application_and_node) {
    EXPECT_EQ(qel_name_instance(5, 3), 0x00050003u);
    EXPECT_EQ(qel_name_instance(20479, 65535), 0x4FFFFFFFu);
    EXPECT_EQ(qel_name_instance(1, 0x12345), 0x00012345u) << "16 bits of the node";
}

TEST_F(registration, application_5_on_node_3_binds_its_name_in_the_cluster) {
    set_node_address("3\n");
    ASSERT_EQ(add_app(5), 0);
    ASSERT_TRUE(run());
    const auto binds = qel_fake::calls(op::bind);
    ASSERT_EQ(binds.size(), 1u);
    const sockaddr_tipc &a = binds[0].addr;
    EXPECT_EQ(a.family, AF_TIPC);
    EXPECT_EQ(a.addrtype, TIPC_ADDR_NAME);
    EXPECT_EQ(a.scope, TIPC_CLUSTER_SCOPE);
    EXPECT_EQ(a.addr.name.name.type, 2303u);
    EXPECT_EQ(a.addr.name.name.instance, 0x00050003u);
    EXPECT_EQ(a.addr.name.domain, 0u);
    EXPECT_EQ(binds[0].fd, qel_get_app_sd(5));
}

TEST_F(registration, nothing_is_published_before_run_and_the_second_that_follows_it) {
    ASSERT_EQ(add_app(5), 0);
    ASSERT_TRUE(qel_time::run_for(10min));
    EXPECT_TRUE(qel_fake::calls(op::bind).empty());
    EXPECT_EQ(qel_fake::count(op::poll), 0u) << "nothing is received either";
    ASSERT_EQ(qel_run(), 0);
    ASSERT_TRUE(qel_time::run_for(999ms));
    EXPECT_TRUE(qel_fake::calls(op::bind).empty());
    EXPECT_TRUE(qel_fake::subscriptions().empty());
    EXPECT_FALSE(out.has(qel_line("qel_mng", I, "QEL socket msg distribute thread start.\n")));
    qel_time::advance(1ms);
    ASSERT_TRUE(qel_fake::settle());
    EXPECT_EQ(qel_fake::calls(op::bind).size(), 1u);
    EXPECT_TRUE(out.has(qel_line("qel_mng", I, "QEL socket msg distribute thread start.\n")));
}

TEST_F(registration, after_run_come_subscriptions_then_binds_in_table_order_then_the_monitor_timer) {
    for (const int32_t app : {9, 5, 7})
        ASSERT_EQ(add_app(app, app != 5), 0);
    ASSERT_EQ(qel_comm_with(5, 8), 0);
    qel_fake::take_calls();
    ASSERT_TRUE(run());
    std::vector<std::string> order;
    for (const auto &c : qel_fake::calls()) {
        if (c.what == op::send) {
            tipc_subscr s{};
            ASSERT_EQ(c.data.size(), sizeof s);
            memcpy(&s, c.data.data(), sizeof s);
            order.push_back(qel_format("sub %u %x %x", s.seq.type, s.seq.lower, s.seq.upper));
        } else if (c.what == op::bind) {
            order.push_back(qel_format("bind %u/%u", c.app(), c.node()));
        }
    }
    EXPECT_EQ(order, (std::vector<std::string>{"sub 2303 90000 9ffff", "sub 2303 50000 5ffff",
                                               "sub 2303 70000 7ffff", "sub 2303 80000 8ffff", "bind 9/1",
                                               "bind 5/1", "bind 7/1", "sub 1 0 0"}));
    ASSERT_EQ(qel_fake::timers().size(), 1u);
    EXPECT_EQ(qel_fake::timers()[0].ms, 1'800'000u);
    EXPECT_EQ(qel_fake::timers()[0].type, 2u);
    EXPECT_EQ(qel_fake::timers()[0].seq, 1u);
}

TEST_F(registration, a_bind_without_memory_is_repeated_until_it_succeeds) {
    ASSERT_EQ(add_app(5), 0);
    qel_fake::fail(op::bind, ENOMEM, 1, 3);
    ASSERT_TRUE(run());
    EXPECT_EQ(qel_fake::calls(op::bind).size(), 4u);
    EXPECT_EQ(
        out.count(qel_line("qel_user_proxy", X, "QEL app 5 bind socket %d failed: Cannot allocate memory.\n",
                           qel_get_app_sd(5))),
        3u)
        << "one line each";
}

// In a process of its own: it ends.
void die_of_a_failed_bind(unsigned nth) {
    dup2(STDERR_FILENO, STDOUT_FILENO);
    setvbuf(stdout, nullptr, _IONBF, 0);
    qel_set_masks(0xF, 0);
    qel_world::add_app(5);
    qel_world::add_app(6);
    qel_fake::fail(op::bind, EACCES, nth);
    (void)qel_world::run();
}

using registration_death = qel_world;

TEST_F(registration_death, a_bind_that_fails_ends_the_process_with_status_1_and_without_watchdog) {
    set_conf("[MISC_CONF]\nqel_dbg_cfg=15\n");
    EXPECT_EXIT(die_of_a_failed_bind(1), testing::ExitedWithCode(1),
                "<qel_user_proxy, [0-9]+> 3: QEL app 5 bind socket [0-9]+ failed: Permission denied.\n(.|\n)*"
                "watchdog: qel_lib_[0-9]+ unregistered");
}

TEST_F(registration_death, the_bind_of_a_later_application_ends_it_too) {
    set_conf("[MISC_CONF]\nqel_dbg_cfg=15\n");
    EXPECT_EXIT(die_of_a_failed_bind(2), testing::ExitedWithCode(1),
                "<qel_user_proxy, [0-9]+> 3: QEL app 6 bind socket [0-9]+ failed: Permission denied.\n");
}

// ---- run ------------------------------------------------------------------------------------------------

TEST_F(registration, run_and_ready_both_return_0_and_may_be_repeated) {
    ASSERT_EQ(add_app(5), 0);
    EXPECT_EQ(qel_app_ready(), 0);
    EXPECT_EQ(qel_run(), 0);
    ASSERT_TRUE(run());
    EXPECT_EQ(qel_fake::calls(op::bind).size(), 1u);
}

TEST_F(registration, a_run_before_any_registration_is_lost) {
    EXPECT_EQ(qel_run(), 0);
    EXPECT_EQ(add_app(5), 0) << "not refused";
    EXPECT_EQ(add_app(6), 0);
    ASSERT_TRUE(qel_time::run_for(1min));
    EXPECT_TRUE(qel_fake::calls(op::bind).empty());
    ASSERT_TRUE(run());
    EXPECT_EQ(qel_fake::calls(op::bind).size(), 2u);
}

TEST_F(registration, a_run_after_a_start_that_failed_is_lost_and_finds_a_condition_fit_for_use) {
    qel_time::fail(sys::atexit, 1);
    ASSERT_EQ(add_app(5), -1);
    const pthread_cond_t fresh = PTHREAD_COND_INITIALIZER;
    // its bytes are all there is to be seen of it; NOLINTNEXTLINE(bugprone-suspicious-memory-comparison)
    EXPECT_EQ(memcmp(&g_qel_mng.running_cond.c, &fresh, sizeof fresh), 0) << "not a destroyed one";
    EXPECT_EQ(qel_run(), 0);
    EXPECT_EQ(add_app(5), 0) << "not refused";
    EXPECT_TRUE(run());
}

TEST_F(registration, who_waits_for_running_feeds_the_watchdog_every_second) {
    ASSERT_EQ(add_app(5), 0);
    ASSERT_TRUE(qel_time::settle());
    EXPECT_EQ(qel_time::next_deadline(), 1s);
    const std::string lib = ("qel_lib_" + std::to_string(getpid())).substr(0, 15);
    const size_t lib_before = count_watchdog('f', lib), app_before = count_watchdog('f', "qel_app_5");
    ASSERT_TRUE(qel_time::run_for(30s));
    EXPECT_EQ(count_watchdog('f', lib), lib_before + 30);
    EXPECT_EQ(count_watchdog('f', "qel_app_5"), app_before + 30);
    EXPECT_FALSE(out.has(qel_line("qel_app_info", I, "QEL app 5 proxy thread start.\n")));
    EXPECT_TRUE(run());
    EXPECT_EQ(out.count(qel_line("qel_app_info", I, "QEL app 5 proxy thread start.\n")), 1u);
}

TEST_F(registration, waiting_for_running_survives_wakeups_without_a_cause) {
    ASSERT_EQ(add_app(5), 0);
    for (int i = 0; i < 10; i++) {
        ASSERT_TRUE(qel_time::settle());
        qel_time::wake_spuriously();
    }
    ASSERT_TRUE(qel_time::settle());
    EXPECT_TRUE(qel_fake::calls(op::bind).empty());
    EXPECT_TRUE(run());
}

TEST_F(registration, waiting_for_running_returns_at_once_when_running) {
    ASSERT_EQ(add_app(5), 0);
    ASSERT_EQ(qel_run(), 0);
    qel_wait_for_running("test");
    EXPECT_EQ(count_watchdog('f', "test"), 0u);
    ASSERT_TRUE(run());
}

TEST_F(registration_death, a_failing_broadcast_is_a_broken_invariant) {
    EXPECT_EXIT(
        {
            add_app(5, false);
            qel_time::settle();
            qel_time::fail(sys::cond_broadcast, EINVAL);
            qel_run();
        },
        testing::KilledBySignal(SIGABRT), "assertion failed: \"ret == 0\"");
}

TEST_F(registration_death, a_wait_that_fails_other_than_by_time_out_is_a_broken_invariant) {
    EXPECT_EXIT(
        {
            qel_time::fail(sys::cond_timedwait, EINVAL);
            qel_wait_for_running("test");
        },
        testing::KilledBySignal(SIGABRT), "assertion failed: \"ret == 0\"");
}

// ---- start of the library -------------------------------------------------------------------------------

struct start_step {
    const char *name;
    int result;
    std::vector<std::string> lines; // %d: the descriptor
    void (*arrange)();
};
struct registration_start : registration, testing::WithParamInterface<start_step> {};

TEST_P(registration_start, a_failing_step_undoes_the_earlier_ones_and_the_next_registration_tries_again) {
    const start_step &step = GetParam();
    ASSERT_EQ(qel_cfg_init(), 0);
    const size_t threads = thread_names().size();
    step.arrange();
    out.take();
    EXPECT_EQ(add_app(5), step.result);
    std::string expected = registered_line(5, "app5", 1, on_event) + init_line();
    const auto made = qel_fake::calls(op::socket);
    for (const std::string &line : step.lines)
        expected += qel_line(line.rfind("QEL get file", 0) == 0 || line.rfind("QEL set file", 0) == 0
                                 ? "qel_user_proxy"
                                 : "qel_mng",
                             X, line.c_str(), made.empty() ? -1 : static_cast<int>(made[0].result));
    expected +=
        qel_line("qel_mng", X, "QEL init lib failed.\n") + failed_line(5, "app5", strerror(-step.result));
    EXPECT_EQ(out.take(), expected);
    EXPECT_EQ(open_sockets(), 0u);
    EXPECT_EQ(g_qel_mng.subscription_socket.load(), -1);
    EXPECT_TRUE(threads_become(threads));
    EXPECT_EQ(qel_get_app_mng(5), nullptr);

    EXPECT_EQ(add_app(5), 0);
    EXPECT_EQ(out.count(init_line()), 2u) << "told on each attempt";
    EXPECT_EQ(add_app(6), 0);
    EXPECT_TRUE(run());
    EXPECT_EQ(out.count(init_line()), 2u);
    EXPECT_EQ(qel_fake::calls(op::bind).size(), 2u);
}

INSTANTIATE_TEST_SUITE_P(
    steps, registration_start,
    testing::Values(
        start_step{"condition_attribute",
                   -1,
                   {"QEL init running condition attribute failed: Cannot allocate memory.\n"},
                   [] { qel_time::fail(sys::condattr_init, ENOMEM); }},
        start_step{"condition_clock",
                   -1,
                   {"QEL set running condition clock attribute failed: Invalid argument.\n"},
                   [] { qel_time::fail(sys::condattr_setclock, EINVAL); }},
        start_step{"condition",
                   -1,
                   {"QEL init running condition failed: Resource temporarily unavailable.\n"},
                   [] { qel_time::fail(sys::cond_init, EAGAIN); }},
        start_step{"socket",
                   -1,
                   {"QEL create subscription socket descriptor failed: Address family not supported by "
                    "protocol.\n",
                    "QEL create subscription socket failed.\n"},
                   [] { qel_fake::fail(op::socket, EAFNOSUPPORT); }},
        start_step{"get_flags",
                   -1,
                   {"QEL get file %d flags error: Input/output error.\n",
                    "QEL create subscription socket failed.\n"},
                   [] { qel_fake::fail(op::fcntl, EIO); }},
        start_step{"set_flags",
                   -1,
                   {"QEL set file %d flags error: Input/output error.\n",
                    "QEL create subscription socket failed.\n"},
                   [] { qel_fake::fail(op::fcntl, EIO, 2); }},
        start_step{"connect",
                   -1,
                   {"QEL connect to TIPC topology server failed: Connection refused.\n",
                    "QEL create subscription socket failed.\n"},
                   [] { qel_fake::fail(op::connect, ECONNREFUSED); }},
        start_step{"thread",
                   -ENOMEM,
                   {"QEL create socket msg distribute thread failed: Cannot allocate memory.\n"},
                   [] { qel_time::fail(sys::thread_create, ENOMEM); }},
        start_step{
            "atexit", -1, {"QEL add exit callback failed.\n"}, [] { qel_time::fail(sys::atexit, 1); }}),
    [](const auto &p) { return std::string(p.param.name); });

TEST_F(registration, the_start_can_fail_many_times_at_any_step_and_leaves_nothing) {
    const size_t threads = thread_names().size();
    for (int i = 0; i < 20; i++) {
        qel_time::fail(sys::atexit, 1);
        ASSERT_EQ(add_app(5), -1);
        qel_time::fail(sys::thread_create, EAGAIN);
        ASSERT_EQ(add_app(5), -11);
    }
    EXPECT_TRUE(threads_become(threads));
    EXPECT_EQ(open_sockets(), 0u);
    EXPECT_EQ(add_app(5), 0);
    EXPECT_TRUE(run());
}

TEST_F(registration, the_subscription_socket_is_made_and_connected_in_this_order) {
    ASSERT_EQ(add_app(5), 0);
    const auto calls = qel_fake::calls();
    ASSERT_GE(calls.size(), 4u);
    EXPECT_EQ(calls[0].what, op::socket);
    EXPECT_EQ(calls[0].domain, AF_TIPC);
    EXPECT_EQ(calls[0].type, SOCK_SEQPACKET);
    EXPECT_EQ(calls[1].cmd, F_GETFD);
    EXPECT_EQ(calls[2].cmd, F_SETFD);
    EXPECT_EQ(calls[2].value, FD_CLOEXEC);
    EXPECT_EQ(calls[3].what, op::connect);
    const sockaddr_tipc &a = calls[3].addr;
    EXPECT_EQ(a.family, AF_TIPC);
    EXPECT_EQ(a.addrtype, TIPC_ADDR_NAME);
    EXPECT_EQ(a.addr.name.name.type, 1u);
    EXPECT_EQ(a.addr.name.name.instance, 1u);
    EXPECT_EQ(a.addr.name.domain, 0u);
}

TEST_F(registration, the_exit_handler_is_registered_once_and_prints_nothing) {
    ASSERT_EQ(add_app(5), 0);
    ASSERT_EQ(add_app(6), 0);
    EXPECT_EQ(qel_time::calls(sys::atexit), 1u);
    ASSERT_NE(qel_time::atexit_function(), nullptr);
    out.take();
    qel_time::atexit_function()();
    EXPECT_EQ(out.take(), "");
    EXPECT_TRUE(run());
}

// ---- records that cannot be made ------------------------------------------------------------------------

struct record_step {
    const char *name;
    const char *file;
    const char *text;
    void (*arrange)();
};
struct registration_record : registration, testing::WithParamInterface<record_step> {};

TEST_P(registration_record, a_failure_is_told_all_three_are_tried_and_everything_is_undone) {
    const record_step &step = GetParam();
    ASSERT_EQ(add_app(4), 0);
    ASSERT_TRUE(qel_time::settle());
    const size_t sockets = open_sockets(), threads = thread_names().size();
    step.arrange();
    out.take();
    EXPECT_EQ(add_app(5), -11);
    const std::string text = out.take();
    EXPECT_NE(text.find(qel_line(step.file, X, "%s", step.text)), std::string::npos) << text;
    for (const std::string &line : {qel_line("qel_flow_ctrl", V, "QEL add new flow ctrl for app 5.\n"),
                                    qel_line("qel_rpc", V, "QEL add new app 5 RPC wait mgmt.\n"),
                                    qel_line("qel_app_info", V, "QEL add app 5 info.\n")})
        EXPECT_NE(text.find(line), std::string::npos) << "not tried: " << line;
    const bool fc = std::string(step.file) == "qel_flow_ctrl", rpc = std::string(step.file) == "qel_rpc",
               info = std::string(step.file) == "qel_app_info";
    EXPECT_EQ(text.find(qel_line("qel_flow_ctrl", V, "QEL delete app 5 flow ctrl.\n")) != std::string::npos,
              !fc);
    EXPECT_EQ(text.find(qel_line("qel_rpc", V, "QEL delete app 5 RPC wait mgmt.\n")) != std::string::npos,
              !rpc);
    EXPECT_EQ(text.find(qel_line("qel_app_info", I, "QEL destroy app 5 info.\n")) != std::string::npos,
              !info);
    EXPECT_EQ(text.find("add comm"), std::string::npos) << "only when all three exist";
    EXPECT_EQ(text.find("QEL cancel"), std::string::npos);
    EXPECT_EQ(open_sockets(), sockets);
    EXPECT_TRUE(threads_become(threads)) << "the proxy thread was joined";
    EXPECT_EQ(qel_get_app_mng(5), nullptr);
    EXPECT_EQ(qel_comm_with(5, 7), -2);

    EXPECT_EQ(add_app(5), 0) << "the slot is free";
    EXPECT_EQ(qel_get_app_mng(5), &g_qel_mng.apps[1]);
    EXPECT_TRUE(run());
    EXPECT_EQ(qel_fake::calls(op::bind).size(), 2u);
}

INSTANTIATE_TEST_SUITE_P(
    steps, registration_record,
    testing::Values(
        record_step{"fc_mutex", "qel_flow_ctrl",
                    "QEL init app 5 flow ctrl condition mutex failed: Cannot allocate memory.\n",
                    [] { qel_time::fail(sys::mutex_init, ENOMEM, 1); }},
        record_step{"fc_attribute", "qel_flow_ctrl",
                    "QEL init app 5 flow ctrl condition attribute failed: Cannot allocate memory.\n",
                    [] { qel_time::fail(sys::condattr_init, ENOMEM, 1); }},
        record_step{"fc_clock", "qel_flow_ctrl",
                    "QEL init app 5 flow ctrl condition clock attribute failed: Invalid argument.\n",
                    [] { qel_time::fail(sys::condattr_setclock, EINVAL, 1); }},
        record_step{"fc_condition", "qel_flow_ctrl",
                    "QEL init app 5 flow ctrl condition failed: Resource temporarily unavailable.\n",
                    [] { qel_time::fail(sys::cond_init, EAGAIN, 1); }},
        record_step{"rpc_mutex", "qel_rpc", "QEL init app 5 RPC wait mutex failed: Cannot allocate memory.\n",
                    [] { qel_time::fail(sys::mutex_init, ENOMEM, 2); }},
        record_step{"rpc_attribute", "qel_rpc",
                    "QEL init app 5 RPC wait condition attribute failed: Cannot allocate memory.\n",
                    [] { qel_time::fail(sys::condattr_init, ENOMEM, 2); }},
        record_step{"rpc_clock", "qel_rpc",
                    "QEL set app 5 RPC wait condition clock attribute failed: Invalid argument.\n",
                    [] { qel_time::fail(sys::condattr_setclock, EINVAL, 2); }},
        record_step{"rpc_condition", "qel_rpc",
                    "QEL init app 5 RPC wait condition failed: Resource temporarily unavailable.\n",
                    [] { qel_time::fail(sys::cond_init, EAGAIN, 2); }},
        record_step{"info_mutex", "qel_app_info",
                    "QEL init app 5 info mutex failed: Cannot allocate memory.\n",
                    [] { qel_time::fail(sys::mutex_init, ENOMEM, 3); }},
        record_step{"info_attribute", "qel_app_info",
                    "QEL init app 5 condition attribute failed: Cannot allocate memory.\n",
                    [] { qel_time::fail(sys::condattr_init, ENOMEM, 3); }},
        record_step{"info_clock", "qel_app_info",
                    "QEL set app 5 condition clock attribute failed: Invalid argument.\n",
                    [] { qel_time::fail(sys::condattr_setclock, EINVAL, 3); }},
        record_step{"info_condition", "qel_app_info",
                    "QEL init app 5 msg distribute condition failed: Resource temporarily unavailable.\n",
                    [] { qel_time::fail(sys::cond_init, EAGAIN, 3); }},
        record_step{"info_thread", "qel_app_info",
                    "QEL create app 5 proxy thread failed: Resource temporarily unavailable.\n",
                    [] { qel_time::fail(sys::thread_create, EAGAIN, 1); }}),
    [](const auto &p) { return std::string(p.param.name); });

TEST_F(registration, undoing_records_again_and_again_neither_deadlocks_nor_leaves_threads) {
    ASSERT_EQ(add_app(4), 0);
    ASSERT_TRUE(qel_time::settle());
    const size_t threads = thread_names().size(), sockets = open_sockets();
    for (int i = 0; i < 100; i++) {
        qel_time::fail(sys::mutex_init, ENOMEM, i % 2 + 1); // the proxy thread exists by then
        ASSERT_EQ(add_app(5), -11);
    }
    EXPECT_TRUE(threads_become(threads));
    EXPECT_EQ(open_sockets(), sockets);
}

TEST_F(registration, the_first_application_can_fail_after_the_library_has_started) {
    qel_time::fail(sys::mutex_init, ENOMEM, 1);
    EXPECT_EQ(add_app(5), -11);
    EXPECT_EQ(add_app(6), 0);
    EXPECT_EQ(out.count(init_line()), 1u);
    EXPECT_EQ(qel_get_app_mng(6), &g_qel_mng.apps[0]);
    EXPECT_TRUE(run());
    EXPECT_EQ(qel_fake::subscriptions().size(), 2u) << "application 6 and the monitor";
}

// ---- taking an application out of its peers' subscribers -------------------------------------------------

void del_comm_app(uint32_t app) {
    qel_lock lock(g_lib_mutex);
    __qel_del_comm_app(app);
}
std::vector<uint32_t> peers() {
    qel_lock lock(g_lib_mutex);
    std::vector<uint32_t> found;
    for (const qel_comm_app &p : g_qel_mng.comm_apps)
        found.push_back(p.peer_app);
    return found;
}

TEST_F(registration, a_peer_that_nobody_is_left_for_is_cancelled_and_forgotten) {
    ASSERT_EQ(add_app(5), 0);
    ASSERT_EQ(add_app(6), 0);
    ASSERT_EQ(qel_comm_with(5, 7), 0);
    ASSERT_EQ(qel_comm_with(6, 7), 0);
    ASSERT_EQ(qel_comm_with(5, 20479), 0);
    out.take();
    del_comm_app(5);
    EXPECT_EQ(out.take(),
              qel_line("qel_mng", I, "QEL cancel TIPC subscription instance [0x50000, 0x5ffff] event.\n") +
                  qel_line("qel_mng", I,
                           "QEL cancel TIPC subscription instance [0x4fff0000, 0x4fffffff] event.\n"));
    EXPECT_EQ(peers(), (std::vector<uint32_t>{6, 7}));
    const auto sent = qel_fake::calls(op::send);
    ASSERT_EQ(sent.size(), 2u);
    tipc_subscr s{};
    ASSERT_EQ(sent[1].data.size(), 28u);
    memcpy(&s, sent[1].data.data(), sizeof s);
    EXPECT_EQ(s.seq.type, 2303u);
    EXPECT_EQ(s.seq.lower, 0x4FFF0000u);
    EXPECT_EQ(s.seq.upper, 0x4FFFFFFFu);
    EXPECT_EQ(s.timeout, 0u);
    EXPECT_EQ(s.filter, 6u);
    for (const char c : s.usr_handle)
        EXPECT_EQ(c, 0);
    EXPECT_EQ(sent[1].flags, MSG_NOSIGNAL);
    EXPECT_EQ(sent[1].fd, qel_fake::topology());
}

TEST_F(registration, a_cancel_is_repeated_at_once_for_what_passes_by_itself) {
    ASSERT_EQ(add_app(5), 0);
    out.take();
    qel_fake::fail(op::send, ENOBUFS, 1, 2);
    qel_fake::fail(op::send, EINTR, 3, 2);
    qel_fake::fail(op::send, ENOMEM, 5, 2);
    del_comm_app(5);
    EXPECT_EQ(qel_fake::calls(op::send).size(), 7u);
    EXPECT_EQ(out.take(),
              qel_line("qel_mng", I, "QEL cancel TIPC subscription instance [0x50000, 0x5ffff] event.\n"));
    EXPECT_EQ(qel_time::sleep_count(), 0u);
}

TEST_F(registration, any_other_failure_of_a_cancel_ends_it_with_an_error_and_the_record_goes_all_the_same) {
    ASSERT_EQ(add_app(5), 0);
    out.take();
    qel_fake::fail(op::send, EPIPE);
    del_comm_app(5);
    EXPECT_EQ(qel_fake::calls(op::send).size(), 1u);
    EXPECT_EQ(out.take(),
              qel_line("qel_mng", I, "QEL cancel TIPC subscription instance [0x50000, 0x5ffff] event.\n") +
                  qel_line("qel_mng", X, "QEL send canceling subscription msg failed: Broken pipe.\n,"));
    EXPECT_TRUE(peers().empty());
}

TEST_F(registration, taking_out_an_application_that_subscribes_to_nothing_changes_nothing) {
    ASSERT_EQ(add_app(5), 0);
    out.take();
    del_comm_app(6);
    EXPECT_EQ(out.take(), "");
    EXPECT_EQ(peers(), std::vector<uint32_t>{5});
}

// ---- declaring peers ------------------------------------------------------------------------------------

TEST_F(registration, comm_with_refuses_invalid_identifiers_the_source_first) {
    ASSERT_EQ(add_app(5), 0);
    for (const int32_t bad : {0, 8192, 16383, 20480, -1}) {
        out.take();
        EXPECT_EQ(qel_comm_with(bad, bad), -22);
        EXPECT_EQ(out.take(), qel_line("qel_user_proxy", X, "QEL src app ID %d invalid.\n", bad));
        EXPECT_EQ(qel_comm_with(5, bad), -22);
        EXPECT_EQ(out.take(), qel_line("qel_user_proxy", X, "QEL dst app ID %d invalid.\n", bad));
    }
}

TEST_F(registration, comm_with_for_an_application_that_is_not_registered_here_finds_nothing) {
    EXPECT_EQ(qel_comm_with(5, 7), -2);
    EXPECT_EQ(out.take(), qel_line("qel_mng", X, "QEL app 5 does not registered.\n"));
    ASSERT_EQ(add_app(5), 0);
    out.take();
    EXPECT_EQ(qel_comm_with(6, 5), -2);
    EXPECT_EQ(out.take(), qel_line("qel_mng", X, "QEL app 6 does not registered.\n"));
}

TEST_F(registration, comm_with_adds_each_subscriber_once_in_order) {
    ASSERT_EQ(add_app(5), 0);
    ASSERT_EQ(add_app(6), 0);
    out.take();
    EXPECT_EQ(qel_comm_with(5, 7), 0);
    EXPECT_EQ(out.take(), qel_line("qel_mng", I, "QEL app 5 add comm with 7.\n") +
                              qel_line("qel_mng", I, "QEL app 5 add comm with 7 OK.\n"));
    EXPECT_EQ(qel_comm_with(6, 7), 0);
    EXPECT_EQ(qel_comm_with(5, 7), 0);
    EXPECT_EQ(qel_comm_with(5, 5), 0) << "a peer of itself already";
    EXPECT_EQ(peers(), (std::vector<uint32_t>{5, 6, 7}));
    qel_lock lock(g_lib_mutex);
    std::vector<uint32_t> subscribers;
    for (const qel_comm_subscriber &s : __qel_find_comm_app(7)->subscribers)
        subscribers.push_back(s.app_id);
    EXPECT_EQ(subscribers, (std::vector<uint32_t>{5, 6}));
}

TEST_F(registration, comm_with_after_the_subscriptions_succeeds_but_nothing_is_subscribed) {
    ASSERT_EQ(add_app(5), 0);
    ASSERT_TRUE(run());
    const size_t before = qel_fake::subscriptions().size();
    EXPECT_EQ(qel_comm_with(5, 7), 0);
    ASSERT_TRUE(qel_time::run_for(5s));
    EXPECT_EQ(qel_fake::subscriptions().size(), before);
}

// ---- online ---------------------------------------------------------------------------------------------

TEST_F(registration, is_online_takes_the_node_first) {
    ASSERT_EQ(add_app(9), 0);
    ASSERT_EQ(qel_comm_with(9, 5), 0);
    ASSERT_EQ(qel_comm_with(9, 3), 0);
    ASSERT_TRUE(run());
    ASSERT_TRUE(bring_online(5, 3));
    EXPECT_EQ(qel_is_app_online(3, 5), 1);
    EXPECT_EQ(qel_is_app_online(5, 3), 0);
    EXPECT_EQ(qel_app_online(5, 3), 1) << "the inner call has the application first";
}

TEST_F(registration, is_online_is_0_for_unknown_applications_and_nodes_out_of_range) {
    EXPECT_EQ(qel_is_app_online(3, 5), 0) << "before any registration";
    ASSERT_EQ(add_app(5), 0);
    ASSERT_TRUE(run());
    ASSERT_TRUE(bring_online(5, 65535));
    EXPECT_EQ(qel_is_app_online(65535, 5), 1);
    for (const uint32_t node : {65536u, 65536u + 65535u, UINT32_MAX})
        EXPECT_EQ(qel_is_app_online(node, 5), 0) << node;
    EXPECT_EQ(qel_is_app_online(3, 7), 0);
    EXPECT_EQ(qel_is_app_online(3, UINT32_MAX), 0);
}

// ---- sequence numbers -----------------------------------------------------------------------------------

TEST(registration_seq, counts_up_and_never_gives_0) {
    qel_set_seq_for_test(41);
    EXPECT_EQ(qel_get_seq(), 42u);
    EXPECT_EQ(qel_get_seq(), 43u);
    qel_set_seq_for_test(0xFFFFFFFE);
    EXPECT_EQ(qel_get_seq(), 0xFFFFFFFFu);
    EXPECT_EQ(qel_get_seq(), 1u) << "0 is left out";
    qel_set_seq_for_test(0);
    EXPECT_EQ(qel_get_seq(), 1u);
}

TEST(registration_seq, no_thread_ever_sees_0_and_the_counter_counts_them_all) {
    qel_set_seq_for_test(0xFFFFFFFF - 20'000);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([] {
            for (int i = 0; i < 10'000; i++)
                if (qel_get_seq() == 0)
                    abort();
        });
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(qel_get_seq(), 20'001u) << "40000 taken, 0 left out";
}

TEST(registration_seq, is_seeded_at_random) {
    // Three seeds that are all equal to their neighbours come once in 2^64 times.
    uint32_t seeds[3];
    for (uint32_t &seed : seeds) {
        qel_set_seq_for_test(7);
        qel_init_seq();
        seed = qel_get_seq();
    }
    EXPECT_FALSE(seeds[0] == seeds[1] && seeds[1] == seeds[2]);
}

TEST(registration_seq, stays_as_it_is_when_there_is_no_seed) {
    qel_set_seq_for_test(100);
    rlimit limit{}, before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    limit = {0, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    qel_init_seq();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(qel_get_seq(), 101u);
}

TEST_F(registration, the_first_registration_seeds_the_sequence_and_later_ones_do_not) {
    qel_set_seq_for_test(100);
    ASSERT_EQ(add_app(5), 0);
    const uint32_t seed = qel_get_seq();
    EXPECT_NE(seed, 101u) << "once in 2^32 times";
    ASSERT_EQ(add_app(6), 0);
    EXPECT_EQ(qel_get_seq(), seed + 1 ? seed + 1 : 1);
}

// ---- blocked resume -------------------------------------------------------------------------------------

TEST_F(registration, blocked_resume_needs_the_process_and_the_configuration) {
    ASSERT_EQ(add_app(5), 0);
    const std::string on = "[MISC_CONF]\nqel_blocked_resume_enabled=true\n", off = "[MISC_CONF]\n";
    for (const bool configured : {false, true})
        for (const bool enabled : {false, true}) {
            set_conf(configured ? on : off);
            enabled ? qel_enable_blocked_resume() : qel_disable_blocked_resume();
            EXPECT_EQ(qel_blocked_resume_enabled(), configured && enabled);
        }
}

TEST_F(registration, the_first_registration_switches_blocked_resume_off) {
    set_conf("[MISC_CONF]\nqel_blocked_resume_enabled=true\n");
    qel_enable_blocked_resume();
    ASSERT_EQ(add_app(5), 0);
    EXPECT_EQ(qel_blocked_resume_enabled(), 0);
    qel_enable_blocked_resume();
    ASSERT_EQ(add_app(6), 0);
    EXPECT_EQ(qel_blocked_resume_enabled(), 1) << "only the first";
}

// ---- prints ---------------------------------------------------------------------------------------------

std::string print_lib(uint32_t app) {
    qel_lock lock(g_print_mutex);
    qel_buf_printf_reset();
    qel_cli_print_lib_info(app);
    return static_cast<const char *>(qel_msg_const_data(g_print_msg));
}
std::string print_comm(uint32_t app) {
    qel_lock lock(g_print_mutex);
    qel_buf_printf_reset();
    qel_cli_print_app_comm(app);
    return static_cast<const char *>(qel_msg_const_data(g_print_msg));
}
std::string print_head(int app) {
    return qel_format("Application %d/1 process's QEL library information:\n"
                      "  QEL library thread 0x%x, subscription socket %d\n",
                      app, static_cast<unsigned>(g_qel_mng.thread), qel_fake::topology());
}

TEST_F(registration, the_library_print_without_optional_lists_ends_after_online) {
    ASSERT_EQ(add_app(5), 0);
    ASSERT_EQ(add_app(6), 0);
    ASSERT_EQ(qel_comm_with(6, 7), 0);
    ASSERT_EQ(qel_comm_with(5, 7), 0);
    qel_set_app_server(7, 65535);
    qel_set_app_server(7, 0);
    qel_set_app_server(7, 9);
    qel_set_app_inst(7, 3);
    qel_set_app_inst_ack(5, 2);
    {
        qel_lock lock(g_lib_mutex);
        __qel_find_comm_app(6)->online.set(4);
        __qel_find_comm_app(6)->online.set(1);
    }
    EXPECT_EQ(print_lib(5), print_head(5) + "  Applications in this process: 5 6\n"
                                            "  Online application servers:\n"
                                            "    Application 5 server on nodes:\n"
                                            "    Application 5 server's subscribers: 5\n"
                                            "    Application 6 server on nodes:\n"
                                            "    Application 6 server's subscribers: 6\n"
                                            "    Application 7 server on nodes: 0 9 65535\n"
                                            "    Application 7 server's subscribers: 6 5\n"
                                            "\n"
                                            "  Online application instances:\n"
                                            "    Application 5 instance on nodes:\n"
                                            "    Application 6 instance on nodes:\n"
                                            "    Application 7 instance on nodes: 3\n"
                                            "\n"
                                            "  Online application instances acked:\n"
                                            "    Application 5 instance acked on nodes: 2\n"
                                            "    Application 6 instance acked on nodes:\n"
                                            "    Application 7 instance acked on nodes:\n"
                                            "\n"
                                            "  Online application instances online:\n"
                                            "    Application 5 instance online on nodes:\n"
                                            "    Application 6 instance online on nodes: 1 4\n"
                                            "    Application 7 instance online on nodes:\n");
}

qel_msg *sync_msg(uint32_t src, uint32_t dst, uint32_t node, uint32_t seq) {
    qel_msg *msg = qel_msg_alloc(24, 1, 0);
    memset(qel_msg_data(msg), 0, 24);
    qel_encode_msg_hdr(msg, QEL_FLAG_SYNC, src, 1, dst, node, 0, 0);
    qel_store_be32(qel_sync_of(msg)->seq, seq);
    return msg;
}

TEST_F(registration, the_library_print_shows_each_optional_list_behind_an_empty_line) {
    ASSERT_EQ(add_app(5), 0);
    {
        qel_lock lock(g_lib_mutex);
        __qel_add_inst_sync_msg(sync_msg(5, 7, 2, 11));
        __qel_add_inst_sync_msg(sync_msg(6, 8, 65535, 0x80000001)); // the big ones read as signed
        for (const auto &[seq, app, node] : {std::tuple{21u, 7u, 2u}, {0xFFFFFFFFu, 8u, 3u}}) {
            auto *r = qel_new<qel_resume_comm>();
            r->timer_seq = seq;
            r->peer_app = app;
            r->peer_node = node;
            g_qel_mng.resumes.push_back(r);
            g_qel_mng.resume_index.insert(r, qel_peer_key(app, node));
        }
        for (const uint32_t seq : {31u, 32u}) {
            auto *r = qel_new<qel_resend_sync>();
            r->msg = sync_msg(5, 7, 2, seq);
            g_qel_mng.resends.push_back(r);
            g_qel_mng.resend_index.insert(r, seq);
        }
    }
    const std::string text = print_lib(5);
    const std::string tail = "    Application 5 instance online on nodes:\n"
                             "\n"
                             "  Unack instance sync(src_app/seq->dst_app/dst_node):\n"
                             "    5/11->7/2 6/-2147483647->8/65535\n"
                             "\n"
                             "  Communication resume info(src_app/seq->dst_app/dst_node):\n"
                             "    0/21->7/2 0/-1->8/3\n"
                             "\n"
                             "  Resend instance sync ack(src_app->dst_app/dst_node/seq):\n"
                             "    5->7/2/31 5->7/2/32\n";
    ASSERT_GE(text.size(), tail.size());
    EXPECT_EQ(text.substr(text.size() - tail.size()), tail);
}

TEST_F(registration, a_library_print_that_is_too_long_is_cut_and_says_so) {
    ASSERT_EQ(add_app(5), 0);
    for (uint32_t node = 0; node < 65536; node++)
        qel_set_app_server(5, node);
    const std::string text = print_lib(5);
    EXPECT_EQ(text.size(), 16368u - 37);
    EXPECT_EQ(text.rfind("*** PRINT BUFFER STRING OVERFLOW ***\n", 0), 0u);
}

TEST_F(registration, the_partners_of_an_application_are_printed_in_list_order) {
    ASSERT_EQ(add_app(5), 0);
    ASSERT_EQ(add_app(6), 0);
    ASSERT_EQ(qel_comm_with(5, 20000), 0);
    ASSERT_EQ(qel_comm_with(6, 8), 0);
    ASSERT_EQ(qel_comm_with(5, 7), 0);
    EXPECT_EQ(print_comm(5), "  Communication peer applications: 5 20000 7\n");
    EXPECT_EQ(print_comm(6), "  Communication peer applications: 6 8\n");
    EXPECT_EQ(print_comm(99), "  Communication peer applications:\n");
}

} // namespace
