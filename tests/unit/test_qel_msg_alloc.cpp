// The inline helpers of the public header, with an allocator and a sleep that the test watches.
#include <cstdlib>
#include <gtest/gtest.h>
#include <unistd.h>
#include <vector>

static int g_failures_left = 0;
static std::vector<unsigned> g_sleeps;
static std::vector<size_t> g_sizes;

static void *watched_malloc(size_t size) noexcept {
    g_sizes.push_back(size);
    if (g_failures_left > 0) {
        g_failures_left--;
        return nullptr;
    }
    return malloc(size);
}
static int watched_usleep(unsigned microseconds) noexcept {
    g_sleeps.push_back(microseconds);
    return 0;
}
#define malloc watched_malloc
#define usleep watched_usleep
#include "qel/qel.h"
#undef malloc
#undef usleep

namespace {

TEST(msg_alloc, without_memory_the_caller_waits_in_steps_of_10_microseconds_and_never_gets_null) {
    g_failures_left = 1000;
    void *p = qel_malloc(64);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(g_sleeps, std::vector<unsigned>(1000, 10));
    free(p);
}

TEST(msg_alloc, with_memory_nobody_sleeps) {
    g_failures_left = 0;
    g_sleeps.clear();
    free(qel_malloc(64));
    EXPECT_TRUE(g_sleeps.empty());
}

TEST(msg_alloc, a_message_waits_for_memory_like_everything) {
    g_failures_left = 3;
    g_sleeps.clear();
    qel_msg *msg = qel_msg_alloc(100, 1, 0);
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(g_sleeps, std::vector<unsigned>(3, 10));
    free(msg);
}

TEST(msg_alloc, a_size_out_of_range_is_refused_before_anything_is_allocated) {
    g_failures_left = 0;
    g_sizes.clear();
    for (const int32_t len : {-1, INT32_MIN, 65537, INT32_MAX})
        EXPECT_EQ(qel_msg_alloc(len, 1, 0), nullptr) << len;
    EXPECT_TRUE(g_sizes.empty());
}

TEST(msg_alloc, one_block_holds_link_header_and_data) {
    for (const int32_t len : {0, 1, 3, 4, 5, 65536}) {
        g_sizes.clear();
        free(qel_msg_alloc(len, 1, 0));
        ASSERT_EQ(g_sizes.size(), 1u);
        EXPECT_GE(g_sizes[0], sizeof(qel_link) + 36 + static_cast<size_t>(len));
        EXPECT_GE(g_sizes[0], sizeof(qel_msg)) << "the object is whole";
    }
}

} // namespace
