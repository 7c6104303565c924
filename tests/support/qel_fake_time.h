// Time and threads under the control of a test: a table `qel_sys` whose clock moves only when the test says
// so.
//
//     qel_time::install();                        // before the first use of the library
//     ... qel_register(), a thread of the library waits with a deadline ...
//     ASSERT_TRUE(qel_time::settle());            // every thread of the library waits for something
//     qel_time::advance(std::chrono::seconds(1)); // its deadline passes; it is woken, none is lost
//
// Waits on conditions and sleeps of the library are kept in a table of the test's own. A thread counts as
// running from the moment it is woken, so settle() never mistakes a thread that is about to run for an idle
// one.
//
// The waits of settle() and the like are in real time and bounded: they return false when the state is not
// reached in ten seconds. All functions: any thread.
#ifndef QEL_FAKE_TIME_H
#define QEL_FAKE_TIME_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <pthread.h>

#include "qel_base.h"

namespace qel_time {

using std::chrono::nanoseconds;

// Puts the table in force, at 1000 seconds, with no fault; the wall clock shows 2024-01-02 03:04:05 UTC.
void install();
// Puts the system's own table back in force. Nobody may be blocked in this one.
void uninstall();

nanoseconds now();         // the virtual CLOCK_MONOTONIC
void set_wall(time_t now); // the virtual time(); moves along with the clock

// Moves the clock in one step and wakes whoever's deadline has passed.
void advance(nanoseconds duration);
// Moves the clock from deadline to deadline, letting the threads settle at each, as real time would. False
// when they did not settle.
bool run_for(nanoseconds duration);
// The clock jumps to the next deadline by itself whenever every thread that was made through the table or has
// enrolled is blocked.
void auto_advance(bool on);
struct enrolled { // the calling thread, as long as this lives
    enrolled();
    ~enrolled();
    enrolled(const enrolled &) = delete;
    enrolled &operator=(const enrolled &) = delete;
};

// Threads blocked in a virtual wait or sleep, polls of the fake port included.
unsigned blocked();
// Waits until at least @count threads are blocked.
bool wait_until_blocked(unsigned count);
// Waits until every thread that was made through the table is blocked or has ended.
bool settle();
// Waits until @condition holds, which is asked anew whenever a thread blocks, wakes or ends.
bool wait_for(const std::function<bool()> &condition);

// The next deadline anybody waits for, from now; negative without any.
nanoseconds next_deadline();
// Microseconds of the sleeps begun since install(), oldest first; at most the first 1000.
unsigned sleep_count();
uint64_t sleep_us(unsigned index);

// Lets every wait on a condition return 0 without a cause, as the system may.
void wake_spuriously();

// ---- faults ---------------------------------------------------------------------------------------------
enum class sys {
    mutex_init,
    condattr_init,
    condattr_setclock,
    cond_init,
    cond_timedwait,
    cond_signal,
    cond_broadcast,
    thread_create,
    clock_gettime,
    atexit,
};
inline constexpr size_t sys_count = 10;
// The @nth call from now on (1: the next one) and the @times - 1 after it return @error without doing
// anything (clock_gettime and atexit return -1).
void fail(sys function, int error, unsigned nth = 1, unsigned times = 1);
// Calls since install(), failed ones included.
unsigned calls(sys function);
// The last function given to atexit(), which is registered as well.
void (*atexit_function())();

// ---- for other fakes ------------------------------------------------------------------------------------
// The lock of this world, and waits under it that block like the library's own.
void lock();
void unlock();
inline constexpr int64_t never = INT64_MAX;
// Blocks until wake(@key) (0) or until the clock reaches @deadline_ns (ETIMEDOUT). Lock held.
int wait(const void *key, int64_t deadline_ns);
void wake(const void *key);
int64_t now_ns(); // lock held
// Tells wait_for() that something changed. Lock held.
void changed();

} // namespace qel_time

#endif
