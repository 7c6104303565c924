#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <list>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <thread>
#include <vector>

#include "qel_base.h"
#include "qel_fake_time.h"

// ---- a calloc() that fails on demand --------------------------------------------------------------------

static std::atomic<bool> g_no_memory{false};
static thread_local bool t_may_lack_memory = false;

extern "C" {
void *libc_calloc(size_t count, size_t size) __asm__("__libc_calloc");
void *sanitizer_calloc(size_t count, size_t size) __asm__("__interceptor_calloc") __attribute__((weak));
// The sanitizer's own threads call it before the sanitizer knows them, so it must not watch this function.
__attribute__((no_sanitize("thread"))) void *calloc(size_t count, size_t size) noexcept {
    if (t_may_lack_memory && g_no_memory.load())
        return nullptr;
    return sanitizer_calloc ? sanitizer_calloc(count, size) : libc_calloc(count, size);
}
}

namespace {

using namespace std::chrono_literals;
using qel_time::sys;

// ---- assertions -----------------------------------------------------------------------------------------

TEST(base_assert, names_expression_file_and_line_on_standard_error_and_aborts) {
    const int ret = 1;
    EXPECT_EXIT(QEL_ASSERT(ret == 0), testing::KilledBySignal(SIGABRT),
                "test_qel_base.cpp:[0-9]+: assertion failed: \"ret == 0\"");
}

TEST(base_assert, a_true_expression_is_evaluated_once_and_does_nothing) {
    int times = 0;
    QEL_ASSERT(++times == 1);
    EXPECT_EQ(times, 1);
}

TEST(base_assert, a_text_longer_than_the_line_buffer_is_cut_not_lost) {
    const std::string expression(2000, 'x');
    EXPECT_EXIT(qel_assert_fail(expression.c_str(), "file", 7), testing::KilledBySignal(SIGABRT),
                "file:7: assertion failed: \"x+$");
}

// ---- memory ---------------------------------------------------------------------------------------------

TEST(base_memory, zalloc_gives_cleared_memory) {
    for (const size_t size : {1, 17, 4096, 1'000'000}) {
        auto *p = static_cast<unsigned char *>(qel_zalloc(size));
        for (size_t i = 0; i < size; i++)
            ASSERT_EQ(p[i], 0);
        memset(p, 0xFF, size);
        free(p);
    }
}

TEST(base_memory, without_memory_the_caller_waits_in_steps_of_10_microseconds_and_then_gets_it) {
    qel_time::install();
    g_no_memory = true;
    pthread_t thread;
    auto allocate = [](void *) -> void * {
        t_may_lack_memory = true;
        void *p = qel_zalloc(100);
        t_may_lack_memory = false;
        return p;
    };
    ASSERT_EQ(qel_sys_get().thread_create(&thread, allocate, nullptr), 0);
    for (unsigned step = 1; step <= 5; step++) {
        ASSERT_TRUE(qel_time::settle());
        ASSERT_EQ(qel_time::sleep_count(), step);
        EXPECT_EQ(qel_time::sleep_us(step - 1), 10u);
        EXPECT_EQ(qel_time::next_deadline(), 10us);
        if (step == 5)
            g_no_memory = false;
        qel_time::advance(10us);
    }
    void *p = nullptr;
    ASSERT_EQ(pthread_join(thread, &p), 0);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(static_cast<char *>(p)[99], 0);
    EXPECT_EQ(qel_time::sleep_count(), 5u);
    free(p);
}

struct counted {
    int value = 5;
    static int destroyed;
    ~counted() { destroyed++; }
};
int counted::destroyed = 0;

TEST(base_memory, new_runs_the_initialisers_and_delete_the_destructor_null_is_ignored) {
    counted *c = qel_new<counted>();
    EXPECT_EQ(c->value, 5);
    qel_delete(c);
    EXPECT_EQ(counted::destroyed, 1);
    qel_delete<counted>(nullptr);
    EXPECT_EQ(counted::destroyed, 1);
}

// ---- locks, conditions, time ----------------------------------------------------------------------------

struct base_sync : testing::Test {
    base_sync() { qel_time::install(); }
};

TEST_F(base_sync, a_global_mutex_works_without_init) {
    static qel_mutex m;
    m.lock();
    EXPECT_EQ(pthread_mutex_trylock(&m.m), EBUSY);
    m.unlock();
    EXPECT_EQ(pthread_mutex_trylock(&m.m), 0);
    m.unlock();
}

TEST_F(base_sync, a_failing_mutex_init_gives_its_error) {
    qel_mutex m;
    qel_time::fail(sys::mutex_init, EAGAIN);
    EXPECT_EQ(m.init(), EAGAIN);
    EXPECT_EQ(m.init(), 0);
    m.lock();
    m.unlock();
    m.destroy();
}

TEST_F(base_sync, a_lock_guard_can_be_opened_and_closed_and_ends_unlocked) {
    qel_mutex m;
    {
        qel_lock lock(m);
        lock.unlock();
        EXPECT_EQ(pthread_mutex_trylock(&m.m), 0);
        m.unlock();
        lock.lock();
        EXPECT_EQ(pthread_mutex_trylock(&m.m), EBUSY);
    }
    {
        qel_lock lock(m);
        lock.unlock();
    }
    EXPECT_EQ(pthread_mutex_trylock(&m.m), 0);
    m.unlock();
}

TEST_F(base_sync, a_failing_step_of_a_condition_is_named_with_its_error) {
    const struct {
        sys function;
        qel_cond_step step;
    } steps[] = {{sys::condattr_init, qel_cond_step::attr_init},
                 {sys::condattr_setclock, qel_cond_step::attr_clock},
                 {sys::cond_init, qel_cond_step::cond_init}};
    for (const auto &s : steps) {
        qel_cond c;
        int error = 0;
        qel_time::fail(s.function, EUCLEAN);
        EXPECT_EQ(c.init(error), s.step);
        EXPECT_EQ(error, EUCLEAN);
    }
    qel_cond c;
    int error = -1;
    EXPECT_EQ(c.init(error), qel_cond_step::none);
    EXPECT_EQ(error, 0);
    c.destroy();
}

TEST_F(base_sync, a_failing_step_of_a_condition_ends_the_later_ones) {
    qel_cond c;
    int error = 0;
    qel_time::fail(sys::condattr_setclock, EINVAL);
    (void)c.init(error);
    EXPECT_EQ(qel_time::calls(sys::cond_init), 0u);
}

struct base_native : testing::Test {
    base_native() { qel_time::uninstall(); }
};

TEST_F(base_native, a_condition_waits_on_the_monotonic_clock) {
    qel_cond c;
    int error = 0;
    ASSERT_EQ(c.init(error), qel_cond_step::none);
    qel_mutex m;
    qel_lock lock(m);
    // Long past on the monotonic clock, in the far past on every other one too; and soon on the monotonic
    // clock only, where a wait on the wall clock would not end at all or at once.
    EXPECT_EQ(c.wait_until(m, timespec{0, 0}), ETIMEDOUT);
    timespec begin, end, deadline;
    clock_gettime(CLOCK_MONOTONIC, &begin);
    deadline = begin;
    deadline.tv_nsec += 20'000'000;
    if (deadline.tv_nsec >= 1'000'000'000) {
        deadline.tv_nsec -= 1'000'000'000;
        deadline.tv_sec++;
    }
    int ret;
    while ((ret = c.wait_until(m, deadline)) == 0) {
    }
    EXPECT_EQ(ret, ETIMEDOUT);
    clock_gettime(CLOCK_MONOTONIC, &end);
    EXPECT_GE((end.tv_sec - begin.tv_sec) * 1'000'000'000 + end.tv_nsec - begin.tv_nsec, 20'000'000);
    c.destroy();
}

TEST_F(base_native, a_signal_and_a_broadcast_wake_a_real_waiter) {
    for (const bool all : {false, true}) {
        qel_cond c;
        qel_mutex m;
        bool flag = false;
        int error = 0;
        ASSERT_EQ(c.init(error), qel_cond_step::none);
        std::thread other([&] {
            qel_lock lock(m);
            flag = true;
            EXPECT_EQ(all ? c.broadcast() : c.signal(), 0);
        });
        {
            qel_lock lock(m);
            while (!flag)
                EXPECT_EQ(c.wait_until(m, qel_deadline_s(60)), 0);
        }
        other.join();
        c.destroy();
    }
}

TEST_F(base_native, a_sleep_takes_at_least_its_time) {
    timespec begin, end;
    clock_gettime(CLOCK_MONOTONIC, &begin);
    qel_sleep_us(3000);
    clock_gettime(CLOCK_MONOTONIC, &end);
    EXPECT_GE((end.tv_sec - begin.tv_sec) * 1'000'000'000 + end.tv_nsec - begin.tv_nsec, 3'000'000);
}

TEST_F(base_native, the_wall_clock_is_the_systems) {
    const time_t before = time(nullptr);
    const time_t now = qel_sys_get().time();
    EXPECT_GE(now, before);
    EXPECT_LE(now, time(nullptr));
}

TEST_F(base_sync, a_deadline_is_now_and_the_seconds) {
    timespec now;
    ASSERT_EQ(qel_sys_get().clock_gettime(CLOCK_MONOTONIC, &now), 0);
    const timespec d = qel_deadline_s(7);
    EXPECT_EQ(d.tv_sec, now.tv_sec + 7);
    EXPECT_EQ(d.tv_nsec, now.tv_nsec);
    EXPECT_EQ(qel_deadline_s(UINT32_MAX).tv_sec, now.tv_sec + time_t{UINT32_MAX});
}

TEST_F(base_sync, a_clock_that_cannot_be_read_is_a_broken_invariant) {
    qel_time::fail(sys::clock_gettime, EINVAL);
    EXPECT_EXIT((void)qel_deadline_s(1), testing::KilledBySignal(SIGABRT), "\"ret == 0\"");
}

// ---- threads --------------------------------------------------------------------------------------------

TEST(base_thread, a_name_is_cut_to_what_the_kernel_keeps) {
    std::thread([] {
        char name[16];
        qel_thread_set_name("qel_app_1");
        ASSERT_EQ(prctl(PR_GET_NAME, name, 0, 0, 0), 0);
        EXPECT_STREQ(name, "qel_app_1");
        qel_thread_set_name("qeld_event_process");
        ASSERT_EQ(prctl(PR_GET_NAME, name, 0, 0, 0), 0);
        EXPECT_STREQ(name, "qeld_event_proc");
    }).join();
}

TEST(base_gate, opens_for_those_who_wait_already_and_for_those_who_come_later) {
    qel_gate gate;
    std::atomic<int> through{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++)
        threads.emplace_back([&] { through += gate.wait() ? 1 : 100; });
    gate.decide(qel_gate::decision::open);
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(through, 4);
    EXPECT_TRUE(gate.wait());
}

TEST(base_gate, giving_up_sends_everybody_home) {
    qel_gate gate;
    std::atomic<int> home{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++)
        threads.emplace_back([&] { home += gate.wait() ? 100 : 1; });
    gate.decide(qel_gate::decision::give_up);
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(home, 4);
    EXPECT_FALSE(gate.wait());
}

// ---- descriptors ----------------------------------------------------------------------------------------

bool is_open(int fd) { return fcntl(fd, F_GETFD) != -1; }

TEST(base_fd, is_closed_at_the_end_of_its_owner_and_errno_survives) {
    int number;
    {
        const qel_fd fd(open("/dev/null", O_RDONLY));
        ASSERT_TRUE(fd);
        number = fd.fd;
        errno = ENOTCONN;
    }
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_FALSE(is_open(number));
}

TEST(base_fd, a_bad_descriptor_is_no_owner_and_is_not_closed) {
    errno = 0;
    {
        const qel_fd none;
        const qel_fd failed(-1);
        EXPECT_FALSE(none);
        EXPECT_FALSE(failed);
    }
    EXPECT_EQ(errno, 0);
}

TEST(base_fd, release_gives_the_descriptor_away_and_reset_replaces_it) {
    qel_fd fd(open("/dev/null", O_RDONLY));
    const int number = fd.release();
    EXPECT_FALSE(fd);
    EXPECT_TRUE(is_open(number));
    fd.reset(number);
    EXPECT_TRUE(fd);
    fd.reset();
    EXPECT_FALSE(is_open(number));
    EXPECT_EQ(fd.fd, -1);
}

// ---- the list -------------------------------------------------------------------------------------------

struct item {
    int value = 0;
    qel_link link{};
};
using item_list = qel_list<item, offsetof(item, link)>;

std::vector<int> values(item_list &list) {
    std::vector<int> v;
    for (const item &x : list)
        v.push_back(x.value);
    return v;
}

struct base_list : testing::Test {
    item_list list;
    item items[6];
    base_list() {
        for (int i = 0; i < 6; i++)
            items[i].value = i;
    }
};

TEST_F(base_list, an_empty_list_has_nothing) {
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(list.front(), nullptr);
    EXPECT_EQ(list.pop_front(), nullptr);
    EXPECT_TRUE(values(list).empty());
}

TEST_F(base_list, appends_at_the_tail_and_pops_at_the_head) {
    for (int i = 0; i < 3; i++)
        list.push_back(&items[i]);
    EXPECT_EQ(values(list), (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(list.front(), &items[0]);
    EXPECT_EQ(list.next(&items[0]), &items[1]);
    EXPECT_EQ(list.next(&items[2]), nullptr);
    EXPECT_EQ(list.pop_front(), &items[0]);
    EXPECT_EQ(list.pop_front(), &items[1]);
    EXPECT_EQ(list.pop_front(), &items[2]);
    EXPECT_TRUE(list.empty());
}

TEST_F(base_list, unlinks_anywhere_and_leaves_no_live_links) {
    for (item &i : items)
        list.push_back(&i);
    for (const int i : {2, 0, 5}) {
        EXPECT_TRUE(item_list::linked(&items[i]));
        item_list::unlink(&items[i]);
        EXPECT_FALSE(item_list::linked(&items[i]));
        EXPECT_EQ(items[i].link.next, nullptr);
        EXPECT_EQ(items[i].link.prev, nullptr);
    }
    EXPECT_EQ(values(list), (std::vector<int>{1, 3, 4}));
    list.push_back(&items[2]);
    EXPECT_EQ(values(list), (std::vector<int>{1, 3, 4, 2}));
}

TEST_F(base_list, inserts_before_an_item_or_at_the_tail) {
    list.push_back(&items[1]);
    list.insert_before(&items[1], &items[0]);
    list.insert_before(nullptr, &items[2]);
    EXPECT_EQ(values(list), (std::vector<int>{0, 1, 2}));
}

TEST_F(base_list, a_second_insert_of_a_linked_item_is_a_broken_invariant) {
    list.push_back(&items[0]);
    EXPECT_EXIT(list.push_back(&items[0]), testing::KilledBySignal(SIGABRT), "assertion failed");
}

TEST_F(base_list, unlinking_what_is_on_no_list_is_a_broken_invariant) {
    EXPECT_EXIT(item_list::unlink(&items[0]), testing::KilledBySignal(SIGABRT), "assertion failed");
}

TEST_F(base_list, a_walk_may_unlink_and_free_the_item_it_stands_on) {
    item_list heap;
    for (int i = 0; i < 100; i++) {
        item *x = qel_new<item>();
        x->value = i;
        heap.push_back(x);
    }
    int seen = 0;
    for (item &x : heap) {
        EXPECT_EQ(x.value, seen++);
        if (x.value % 3 != 0) {
            item_list::unlink(&x);
            qel_delete(&x);
        }
    }
    EXPECT_EQ(seen, 100);
    EXPECT_EQ(values(heap).size(), 34u);
    while (item *x = heap.pop_front())
        qel_delete(x);
}

TEST_F(base_list, behaves_like_a_model_under_random_operations) {
    std::mt19937 random(1);
    std::vector<item> pool(200);
    std::list<item *> model;
    for (int i = 0; i < 200; i++)
        pool[static_cast<size_t>(i)].value = i;
    for (int step = 0; step < 20000; step++) {
        item *x = &pool[random() % pool.size()];
        if (item_list::linked(x)) {
            item_list::unlink(x);
            model.remove(x);
        } else if (random() % 2 != 0 || model.empty()) {
            list.push_back(x);
            model.push_back(x);
        } else {
            auto at = model.begin();
            std::advance(at, static_cast<long>(random() % model.size()));
            list.insert_before(*at, x);
            model.insert(at, x);
        }
        if (step % 100 == 0) {
            std::vector<int> expected;
            for (const item *m : model)
                expected.push_back(m->value);
            ASSERT_EQ(values(list), expected) << "step " << step;
        }
    }
}

// ---- the hash index -------------------------------------------------------------------------------------

struct record {
    uint64_t number = 0;
    qel_hash_hook hook{};
};
using record_hash = qel_hash<record, offsetof(record, hook)>;

std::multiset<uint64_t> with_key(const record_hash &hash, uint64_t key) {
    std::multiset<uint64_t> found;
    for (record *r = hash.first(key); r; r = record_hash::next(r))
        found.insert(r->number);
    return found;
}

TEST(base_hash, an_empty_index_finds_nothing) {
    record_hash hash;
    EXPECT_EQ(hash.first(0), nullptr);
    EXPECT_EQ(hash.first(UINT64_MAX), nullptr);
    EXPECT_EQ(hash.size(), 0u);
    hash.destroy();
}

TEST(base_hash, finds_each_of_100000_records_of_many_peers) {
    constexpr size_t count = 100'000;
    record_hash hash;
    const auto records = std::make_unique<record[]>(count);
    auto key_of = [](size_t i) { return uint64_t{i / 50'000 + 1} << 32 | i % 50'000; };
    for (size_t i = 0; i < count; i++) {
        records[i].number = i;
        hash.insert(&records[i], key_of(i));
    }
    EXPECT_EQ(hash.size(), count);
    for (size_t i = 0; i < count; i++) {
        ASSERT_EQ(hash.first(key_of(i)), &records[i]);
        ASSERT_EQ(record_hash::next(&records[i]), nullptr);
    }
    for (size_t i = 0; i < count; i += 2)
        hash.remove(&records[i]);
    EXPECT_EQ(hash.size(), count / 2);
    for (size_t i = 0; i < count; i++)
        ASSERT_EQ(hash.first(key_of(i)), i % 2 ? &records[i] : nullptr);
    hash.destroy();
    EXPECT_EQ(hash.size(), 0u);
    EXPECT_EQ(hash.first(key_of(1)), nullptr);
}

// Keys of the shapes that are in use must not gather in a few slots. What is counted is the work of a
// look-up, not its time: the length of the chains that a walk over all keys passes.
TEST(base_hash, keys_of_consecutive_peers_spread) {
    constexpr uint32_t count = 65536;
    for (const auto &shape : std::vector<std::pair<int, int>>{{32, 0}, {16, 0}, {48, 16}, {0, 0}, {33, 1}}) {
        record_hash hash;
        const auto records = std::make_unique<record[]>(count);
        for (uint32_t i = 0; i < count; i++)
            hash.insert(&records[i], uint64_t{5} << shape.first | uint64_t{i} << shape.second);
        uint64_t steps = 0;
        for (uint32_t i = 0; i < count; i++)
            for (const qel_hash_hook *h = &records[i].hook; h; h = h->next)
                steps++;
        EXPECT_LT(steps, count * 8) << shape.first << "/" << shape.second;
        hash.destroy();
    }
}

TEST(base_hash, walks_all_of_many_equal_keys_and_only_those) {
    constexpr size_t count = 5000;
    record_hash hash;
    const auto same = std::make_unique<record[]>(count), other = std::make_unique<record[]>(count);
    std::multiset<uint64_t> expected;
    for (size_t i = 0; i < count; i++) {
        same[i].number = i;
        other[i].number = count + i;
        hash.insert(&same[i], 42);
        hash.insert(&other[i], 1000 + i);
        expected.insert(i);
    }
    EXPECT_EQ(with_key(hash, 42), expected);
    for (size_t i = 0; i < count; i += 3) {
        hash.remove(&same[i]);
        expected.erase(i);
    }
    EXPECT_EQ(with_key(hash, 42), expected);
    for (size_t i = 0; i < count; i++)
        ASSERT_EQ(hash.first(1000 + i), &other[i]);
    hash.destroy();
}

TEST(base_hash, removing_what_is_not_there_is_a_broken_invariant) {
    record_hash hash;
    record there, absent;
    EXPECT_EXIT(hash.remove(&absent), testing::KilledBySignal(SIGABRT), "assertion failed");
    hash.insert(&there, 1);
    absent.hook.key = 1;
    EXPECT_EXIT(hash.remove(&absent), testing::KilledBySignal(SIGABRT), "assertion failed");
    hash.destroy();
}

TEST(base_hash, behaves_like_a_model_under_random_operations) {
    std::mt19937_64 random(7);
    record_hash hash;
    std::vector<std::unique_ptr<record>> pool;
    std::map<uint64_t, std::multiset<uint64_t>> model;
    std::set<record *> in;
    for (uint64_t i = 0; i < 2000; i++) {
        pool.push_back(std::make_unique<record>());
        pool.back()->number = i;
    }
    for (int step = 0; step < 50'000; step++) {
        record *r = pool[random() % pool.size()].get();
        if (in.erase(r)) {
            auto &numbers = model[r->hook.key];
            numbers.erase(r->number);
            hash.remove(r);
        } else {
            const uint64_t key = random() % 300 * 0x1'0000'0001;
            hash.insert(r, key);
            model[key].insert(r->number);
            in.insert(r);
        }
        const uint64_t key = random() % 300 * 0x1'0000'0001;
        ASSERT_EQ(with_key(hash, key), model[key]) << "step " << step;
        ASSERT_EQ(hash.size(), in.size());
    }
    hash.destroy();
}

// ---- wire integers --------------------------------------------------------------------------------------

// ---- short waits ----------------------------------------------------------------------------------------

// A clock that goes on by @step with every look at it.
static std::chrono::nanoseconds g_clock_now{0}, g_clock_step{0};
static void clock_goes_by(std::chrono::nanoseconds step) {
    static qel_sys table = g_qel_sys_native;
    table.clock_gettime = [](clockid_t, timespec *now) {
        now->tv_sec = g_clock_now / 1s;
        now->tv_nsec = (g_clock_now % 1s).count();
        g_clock_now += g_clock_step;
        return 0;
    };
    g_qel_sys = &table;
    g_clock_step = step;
}
static unsigned looks_in_vain(std::atomic<uint64_t> &last_ns) {
    unsigned looks = 0;
    qel_short_wait wait(last_ns);
    EXPECT_FALSE(wait.until([&] {
        looks++;
        return false;
    }));
    return looks;
}

TEST(base_short_wait, what_is_there_at_a_later_look_is_taken) {
    std::atomic<uint64_t> last_ns{0};
    clock_goes_by(0ns);
    unsigned looks = 0;
    qel_short_wait wait(last_ns);
    EXPECT_TRUE(wait.until([&] { return ++looks == 3; }));
    EXPECT_EQ(looks, 3u);
}

TEST(base_short_wait, it_looks_for_ten_microseconds_and_often_enough_for_a_clock_that_stands) {
    std::atomic<uint64_t> last_ns{0};
    clock_goes_by(0ns);
    EXPECT_EQ(looks_in_vain(last_ns), 50u);
    clock_goes_by(1us); // three times for each look
    EXPECT_EQ(looks_in_vain(last_ns), 3u);
}

TEST(base_short_wait, it_does_not_look_again_where_the_last_wait_was_a_long_one) {
    std::atomic<uint64_t> last_ns{250'001};
    clock_goes_by(1us);
    EXPECT_EQ(looks_in_vain(last_ns), 0u);
    EXPECT_EQ(last_ns, 1'000u) << "this one was short: the next looks";
    EXPECT_GT(looks_in_vain(last_ns), 0u);
}

TEST(base_short_wait, its_length_is_noted_with_the_sleep_that_follows) {
    std::atomic<uint64_t> last_ns{0};
    clock_goes_by(0ns);
    {
        qel_short_wait wait(last_ns);
        EXPECT_FALSE(wait.until([] { return false; }));
        g_clock_now += 2s; // asleep
    }
    EXPECT_EQ(last_ns, 2'000'000'000u);
    EXPECT_EQ(looks_in_vain(last_ns), 0u);
}

TEST(base_short_wait, a_turn_that_others_kept_for_long_is_not_given_away_for_ten_times_as_long) {
    clock_goes_by(3ms); // passes while the turn is given away
    EXPECT_TRUE(qel_give_way());
    unsigned refused = 0;
    while (!qel_give_way())
        refused++;
    EXPECT_EQ(refused, 8u) << "looks at 6, 9 ... 27 ms; the next is 30 ms behind the first";
}

TEST(base_short_wait, a_turn_of_two_milliseconds_is_nothing_unusual) {
    clock_goes_by(2ms);
    for (int i = 0; i < 10; i++)
        EXPECT_TRUE(qel_give_way());
}

TEST(base_wire, numbers_are_big_endian_at_any_address) {
    unsigned char b[16] = {};
    for (size_t at = 0; at < 4; at++) {
        qel_store_be32(b + at, 0x01020304);
        EXPECT_EQ(b[at], 1);
        EXPECT_EQ(b[at + 3], 4);
        EXPECT_EQ(qel_load_be32(b + at), 0x01020304u);
        qel_store_be16(b + at, 0xA1B2);
        EXPECT_EQ(b[at], 0xA1);
        EXPECT_EQ(b[at + 1], 0xB2);
        EXPECT_EQ(qel_load_be16(b + at), 0xA1B2);
        const uint32_t host = 0xCAFEBABE;
        memcpy(b + at, &host, 4);
        EXPECT_EQ(qel_load_host32(b + at), host);
    }
}

} // namespace
