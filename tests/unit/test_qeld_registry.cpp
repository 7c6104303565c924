// The registry of processes and applications.
#include "qeld_world.h"

#include <cerrno>

struct qeld_registry : qeld_world {};

TEST_F(qeld_registry, processes_and_their_applications_are_ascending_in_whatever_order_they_come) {
    for (const auto &[app, pid] : std::vector<std::pair<uint32_t, uint32_t>>{
             {9, 300}, {5, 100}, {20479, 200}, {7, 300}, {16384, 200}, {8, 300}, {8191, 4000000000}})
        ASSERT_EQ(qeld_add_app_id(app, pid), 0);
    EXPECT_EQ(registry(), "100:0:5 200:0:16384,20479 300:0:7,8,9 4000000000:0:8191");
}

TEST_F(qeld_registry, an_application_is_listed_once_per_process) {
    ASSERT_EQ(qeld_add_app_id(5, 100), 0);
    ASSERT_EQ(qeld_add_app_id(5, 100), 0);
    EXPECT_EQ(registry(), "100:0:5");
}

TEST_F(qeld_registry, a_process_goes_with_its_last_application) {
    ASSERT_EQ(qeld_add_app_id(5, 100), 0);
    ASSERT_EQ(qeld_add_app_id(6, 100), 0);
    qeld_clean_app_info(5);
    EXPECT_EQ(registry(), "100:0:6");
    EXPECT_FALSE(qeld_app_exist(5));
    EXPECT_EQ(qeld_app_exist(6), 1);
    qeld_clean_app_info(6);
    EXPECT_EQ(registry(), "");
}

TEST_F(qeld_registry, removing_an_unknown_application_changes_nothing) {
    ASSERT_EQ(qeld_add_app_id(5, 100), 0);
    qeld_clean_app_info(6);
    EXPECT_EQ(registry(), "100:0:5");
}

TEST_F(qeld_registry, a_removal_ends_at_the_process_that_it_emptied) {
    ASSERT_EQ(qeld_add_app_id(5, 100), 0);
    ASSERT_EQ(qeld_add_app_id(6, 100), 0);
    ASSERT_EQ(qeld_add_app_id(5, 200), 0);
    ASSERT_EQ(qeld_add_app_id(5, 300), 0);
    qeld_clean_app_info(5);
    EXPECT_EQ(registry(), "100:0:6 300:0:5");
}

TEST_F(qeld_registry, the_debug_status_of_an_unknown_process_makes_its_record) {
    ASSERT_EQ(qeld_update_dbg_status(100, 9), 0);
    EXPECT_EQ(registry(), "100:9:");
    ASSERT_EQ(qeld_add_app_id(5, 100), 0);
    ASSERT_EQ(qeld_update_dbg_status(100, 3), 0);
    EXPECT_EQ(registry(), "100:3:5");
}

TEST_F(qeld_registry, debug_levels_are_added_and_taken_out_of_the_owning_process) {
    ASSERT_EQ(qeld_add_app_id(5, 100), 0);
    ASSERT_EQ(qeld_add_app_id(6, 200), 0);
    EXPECT_EQ(qeld_update_dbg_level(6, true, 0), 0);
    EXPECT_EQ(qeld_update_dbg_level(6, true, 3), 0);
    EXPECT_EQ(registry(), "100:0:5 200:9:6");
    EXPECT_EQ(qeld_update_dbg_level(6, true, 4), 0);
    EXPECT_EQ(registry(), "100:0:5 200:15:6");
    EXPECT_EQ(qeld_update_dbg_level(6, false, 1), 0);
    EXPECT_EQ(registry(), "100:0:5 200:13:6");
    EXPECT_EQ(qeld_update_dbg_level(6, false, 4), 0);
    EXPECT_EQ(registry(), "100:0:5 200:0:6");
    EXPECT_EQ(qeld_update_dbg_level(7, true, 4), -17);
}

TEST_F(qeld_registry, new_records_are_told) {
    qel_set_masks();
    qel_capture out;
    ASSERT_EQ(qeld_add_app_id(5, 100), 0);
    EXPECT_EQ(out.take(), qel_line("qeld", V, "QELD add new process 100 info.\n") +
                              qel_line("qeld", V, "QELD add new app 5 id to process 100.\n"));
    ASSERT_EQ(qeld_add_app_id(5, 100), 0);
    EXPECT_EQ(out.take(), "");
    ASSERT_EQ(qeld_update_dbg_status(101, 1), 0);
    EXPECT_EQ(out.take(), qel_line("qeld", V, "QELD add new process 101 info.\n"));
}

TEST_F(qeld_registry, more_records_than_a_node_can_have_are_refused_and_leave_no_empty_process) {
    for (uint32_t pid = 1; pid <= qeld_records_max; pid++)
        ASSERT_EQ(qeld_add_app_id(5, pid), 0);
    EXPECT_EQ(qeld_add_app_id(5, qeld_records_max + 1), -ENOMEM);
    EXPECT_EQ(qeld_update_dbg_status(qeld_records_max + 1, 1), -ENOMEM);
    EXPECT_EQ(qeld_add_app_id(6, 1), -ENOMEM); // room for processes only
    qeld_clean_app_info(5);
    qeld_clean_app_info(5);
    ASSERT_EQ(qeld_add_app_id(6, 3), 0);
    EXPECT_EQ(qeld_add_app_id(7, 2), 0) << "the process record of a refused application was left over";
}

TEST_F(qeld_registry, a_cleaned_registry_is_empty_and_usable) {
    for (uint32_t app = 1; app < 100; app++)
        ASSERT_EQ(qeld_add_app_id(app, 1000 + app % 7), 0);
    qeld_clean_registry();
    EXPECT_EQ(registry(), "");
    ASSERT_EQ(qeld_add_app_id(5, 100), 0);
    EXPECT_EQ(registry(), "100:0:5");
}

TEST_F(qeld_registry, lock_failures_are_told_and_otherwise_ignored) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "ThreadSanitizer reports the misuse of a mutex that this test commits";
#endif
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_init(&g_app_mng.mutex.m, &attr);
    pthread_mutexattr_destroy(&attr);
    qel_set_masks(8);
    qel_capture out;
    qeld_app_mng_unlock();
    EXPECT_EQ(out.take(),
              qel_line("qeld", X, "QELD unlock app mgmt mutex failed: Operation not permitted.\n"));
    qeld_app_mng_lock();
    qeld_app_mng_lock();
    EXPECT_EQ(out.take(),
              qel_line("qeld", X, "QELD lock app mgmt mutex failed: Resource deadlock avoided.\n"));
    qeld_app_mng_unlock();
    EXPECT_EQ(out.take(), "");
}

TEST_F(qeld_registry, nodes_are_kept_apart_and_above_65535_there_are_none) {
    for (const uint32_t node : {0u, 63u, 64u, 65535u})
        qeld_set_node(node, true);
    qeld_set_node(65536, true);
    EXPECT_TRUE(qeld_node_online(0) && qeld_node_online(63) && qeld_node_online(64) &&
                qeld_node_online(65535));
    EXPECT_FALSE(qeld_node_online(1) || qeld_node_online(62) || qeld_node_online(65) ||
                 qeld_node_online(65534) || qeld_node_online(65536));
    qeld_set_node(64, false);
    EXPECT_FALSE(qeld_node_online(64));
    EXPECT_TRUE(qeld_node_online(63));
    qeld_clear_nodes();
    for (const uint32_t node : {0u, 63u, 65535u})
        EXPECT_FALSE(qeld_node_online(node));
}
