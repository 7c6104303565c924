// The virtual time that other tests stand on.
#include <atomic>
#include <cerrno>
#include <gtest/gtest.h>

#include "qel_fake_time.h"

namespace {

using namespace std::chrono_literals;
using qel_time::sys;

struct fake_time : testing::Test {
    fake_time() { qel_time::install(); }
};

// A thread that waits on a condition until its flag is set or so many time-outs have passed.
struct waiting {
    qel_mutex mutex;
    qel_cond cond;
    bool flag QEL_GUARDED_BY(mutex) = false;
    std::atomic<int> timeouts{0}, wakes{0};
    uint32_t seconds = 1;
    int timeouts_max = 1;
    pthread_t thread{};

    static void *run(void *p) {
        auto &me = *static_cast<waiting *>(p);
        qel_lock lock(me.mutex);
        while (!me.flag && me.timeouts < me.timeouts_max) {
            const int ret = me.cond.wait_until(me.mutex, qel_deadline_s(me.seconds));
            if (ret == ETIMEDOUT)
                me.timeouts++;
            else if (ret == 0)
                me.wakes++;
            else
                abort();
        }
        return nullptr;
    }
    void start() { ASSERT_EQ(qel_sys_get().thread_create(&thread, run, this), 0); }
    void join() const { ASSERT_EQ(pthread_join(thread, nullptr), 0); }
};

TEST_F(fake_time, a_waiter_times_out_when_the_clock_reaches_its_deadline_and_not_before) {
    waiting w;
    w.start();
    ASSERT_TRUE(qel_time::settle());
    EXPECT_EQ(qel_time::blocked(), 1u);
    EXPECT_EQ(qel_time::next_deadline(), 1s);
    qel_time::advance(999'999'999ns);
    EXPECT_EQ(qel_time::blocked(), 1u);
    EXPECT_EQ(w.timeouts, 0);
    qel_time::advance(1ns);
    w.join();
    EXPECT_EQ(w.timeouts, 1);
}

TEST_F(fake_time, a_signal_wakes_one_waiter_and_a_broadcast_all) {
    waiting w[3];
    for (waiting &x : w) {
        x.timeouts_max = 1000;
        x.start();
    }
    ASSERT_TRUE(qel_time::settle());
    EXPECT_EQ(w[0].cond.signal(), 0);
    ASSERT_TRUE(qel_time::settle());
    EXPECT_EQ(w[0].wakes + w[1].wakes + w[2].wakes, 1);
    for (waiting &x : w) {
        qel_lock lock(x.mutex);
        x.flag = true;
        EXPECT_EQ(x.cond.broadcast(), 0);
    }
    for (waiting &x : w)
        x.join();
}

TEST_F(fake_time, no_wakeup_is_lost_between_two_threads) {
    waiting a;
    a.timeouts_max = 1000;
    a.seconds = 1'000'000;
    a.start();
    for (int i = 0; i < 2000; i++) {
        qel_lock lock(a.mutex);
        EXPECT_EQ(a.cond.signal(), 0);
    }
    {
        qel_lock lock(a.mutex);
        a.flag = true;
        EXPECT_EQ(a.cond.signal(), 0);
    }
    a.join();
    EXPECT_EQ(a.timeouts, 0);
}

TEST_F(fake_time, run_for_gives_every_slice_of_a_loop_its_turn) {
    waiting w;
    w.seconds = 30;
    w.timeouts_max = 40;
    w.start();
    ASSERT_TRUE(qel_time::run_for(29s));
    EXPECT_EQ(w.timeouts, 0);
    ASSERT_TRUE(qel_time::run_for(20min));
    w.join();
    EXPECT_EQ(w.timeouts, 40);
}

TEST_F(fake_time, the_clock_advances_by_itself_only_while_everybody_waits) {
    waiting w;
    w.seconds = 3600;
    w.timeouts_max = 100;
    const qel_time::enrolled me;
    qel_time::auto_advance(true);
    const auto begin = qel_time::now();
    w.start();
    EXPECT_EQ(qel_time::now(), begin) << "this thread runs";
    qel_sleep_us(101 * UINT64_C(3'600'000'000));
    EXPECT_EQ(qel_time::now() - begin, 101h);
    w.join();
    EXPECT_EQ(w.timeouts, 100);
    EXPECT_EQ(qel_time::sleep_count(), 1u);
    EXPECT_EQ(qel_time::sleep_us(0), 101 * UINT64_C(3'600'000'000));
}

TEST_F(fake_time, spurious_wakeups_return_zero) {
    waiting w;
    w.timeouts_max = 1;
    w.start();
    ASSERT_TRUE(qel_time::settle());
    qel_time::wake_spuriously();
    ASSERT_TRUE(qel_time::settle());
    EXPECT_EQ(w.wakes, 1);
    qel_time::advance(1s);
    w.join();
}

TEST_F(fake_time, the_wall_clock_moves_along) {
    EXPECT_EQ(qel_sys_get().time(), 1704164645);
    qel_time::set_wall(1000);
    qel_time::advance(90min);
    EXPECT_EQ(qel_sys_get().time(), 1000 + 5400);
}

extern "C" {
static void nothing() {}
static void *no_thread(void *p) { return p; }
}

TEST_F(fake_time, the_chosen_calls_fail_with_the_chosen_error) {
    pthread_mutex_t m;
    pthread_condattr_t attr;
    pthread_cond_t c;
    timespec t{};
    const qel_sys &s = qel_sys_get();
    for (int f = 0; f < static_cast<int>(qel_time::sys_count); f++)
        qel_time::fail(static_cast<sys>(f), EUCLEAN);
    EXPECT_EQ(s.mutex_init(&m), EUCLEAN);
    EXPECT_EQ(s.condattr_init(&attr), EUCLEAN);
    ASSERT_EQ(s.mutex_init(&m), 0);
    ASSERT_EQ(s.condattr_init(&attr), 0);
    EXPECT_EQ(s.condattr_setclock(&attr, CLOCK_MONOTONIC), EUCLEAN);
    EXPECT_EQ(s.condattr_setclock(&attr, CLOCK_MONOTONIC), 0);
    EXPECT_EQ(s.cond_init(&c, &attr), EUCLEAN);
    ASSERT_EQ(s.cond_init(&c, &attr), 0);
    EXPECT_EQ(s.cond_timedwait(&c, &m, &t), EUCLEAN);
    EXPECT_EQ(s.cond_signal(&c), EUCLEAN);
    EXPECT_EQ(s.cond_signal(&c), 0);
    EXPECT_EQ(s.cond_broadcast(&c), EUCLEAN);
    pthread_t thread;
    EXPECT_EQ(s.thread_create(&thread, no_thread, nullptr), EUCLEAN);
    EXPECT_EQ(s.clock_gettime(CLOCK_MONOTONIC, &t), -1);
    EXPECT_EQ(s.clock_gettime(CLOCK_MONOTONIC, &t), 0);
    EXPECT_EQ(t.tv_sec, 1000);
    EXPECT_EQ(s.atexit(nothing), -1);
    EXPECT_EQ(qel_time::atexit_function(), nullptr);
    EXPECT_EQ(s.atexit(nothing), 0);
    EXPECT_EQ(qel_time::atexit_function(), nothing);
    EXPECT_EQ(qel_time::calls(sys::atexit), 2u);
    qel_time::fail(sys::cond_signal, EINVAL, 2, 2);
    int results[4];
    for (int &r : results)
        r = s.cond_signal(&c);
    EXPECT_EQ(results[0], 0);
    EXPECT_EQ(results[1], EINVAL);
    EXPECT_EQ(results[2], EINVAL);
    EXPECT_EQ(results[3], 0);
    pthread_cond_destroy(&c);
    pthread_condattr_destroy(&attr);
    pthread_mutex_destroy(&m);
}

TEST_F(fake_time, a_thread_that_ended_does_not_keep_settle_waiting) {
    pthread_t thread;
    ASSERT_EQ(qel_sys_get().thread_create(&thread, no_thread, nullptr), 0);
    EXPECT_TRUE(qel_time::settle());
    pthread_join(thread, nullptr);
}

} // namespace
