// The queue in shared memory by itself: what is written is read, in order, whoever dies and whatever somebody
// scribbles over it.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <random>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "qel_base.h"
#include "qel_port_local_queue.h"

namespace {

using namespace std::chrono;
using bytes = std::vector<unsigned char>;

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr bool sanitized = true;
#else
constexpr bool sanitized = false;
#endif

constexpr uint32_t effort = sanitized ? 1 : 10; // what is repeated with other random numbers

constexpr uint64_t base = 2 << 20; // the kernel's default

// A queue between two pages that nobody may touch, shared with child processes.
struct memory {
    explicit memory(uint32_t blocks, uint64_t rcvbuf = base) : size(qel_lq_bytes(blocks)) {
        whole = static_cast<unsigned char *>(
            mmap(nullptr, size + 2 * 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        mprotect(whole, 4096, PROT_NONE);
        mprotect(whole + 4096 + size, 4096, PROT_NONE);
        qel_lq_attach(q, at(), blocks);
        qel_lq_init(q, rcvbuf);
    }
    ~memory() { munmap(whole, size + 2 * 4096); }
    memory(const memory &) = delete;
    memory &operator=(const memory &) = delete;
    [[nodiscard]] unsigned char *at() const { return whole + 4096; }
    size_t size;
    unsigned char *whole;
    qel_lq q;
};

qel_lq_meta meta_of(size_t size, uint32_t number = 0, uint8_t importance = 3) {
    return {.size = static_cast<uint32_t>(size),
            .src_ref = number,
            .src_node = 0x01001001,
            .name_type = 2303,
            .name_instance = number,
            .importance = importance,
            .code = 0,
            .droppable = false,
            .named = true};
}
bytes pattern(size_t size, uint32_t number) {
    bytes data(size);
    for (size_t i = 0; i < size; i++)
        data[i] = static_cast<unsigned char>(number * 31 + i * 7 + (i >> 8));
    return data;
}
qel_lq_put write_one(const qel_lq &q, size_t size, uint32_t number, uint8_t importance = 3) {
    return qel_lq_write(q, meta_of(size, number, importance), pattern(size, number).data(),
                        qel_lq_patience::bounded);
}
// The next record, checked against the pattern of its number. False: none, or not what was written.
testing::AssertionResult read_one(const qel_lq &q, qel_lq_reader &r, uint32_t &number) {
    qel_lq_meta meta{};
    const qel_lq_get got = qel_lq_peek(q, r, meta);
    if (got != qel_lq_get::record)
        return testing::AssertionFailure() << (got == qel_lq_get::empty ? "empty" : "broken");
    bytes data(meta.size);
    const iovec to = {data.data(), data.size()};
    if (!qel_lq_copy(q, r, &to, 1, meta.size) || !qel_lq_consume(q, r, meta))
        return testing::AssertionFailure() << "broken chain";
    number = meta.src_ref;
    if (data != pattern(meta.size, number))
        return testing::AssertionFailure() << "other data in message " << number << " of " << meta.size;
    return testing::AssertionSuccess();
}
testing::AssertionResult reads(const qel_lq &q, qel_lq_reader &r, uint32_t expected) {
    uint32_t number = 0;
    if (auto result = read_one(q, r, number); !result)
        return result;
    if (number != expected)
        return testing::AssertionFailure() << "message " << number << " instead of " << expected;
    return testing::AssertionSuccess();
}

TEST(local_queue, a_message_of_any_size_is_read_as_it_was_written) {
    memory m(64);
    qel_lq_reader r;
    uint32_t number = 0;
    for (const size_t size : {0,    1,    31,   32,   33,   63,    64,    65,    8127,  8128,  8159,
                              8160, 8161, 8191, 8192, 8193, 16351, 16352, 16384, 65572, 65999, 66000}) {
        ASSERT_EQ(write_one(m.q, size, ++number), qel_lq_put::ok) << size;
        ASSERT_TRUE(reads(m.q, r, number)) << size;
        ASSERT_FALSE(qel_lq_readable(m.q, r));
    }
}

TEST(local_queue, every_field_of_a_record_arrives) {
    memory m(4);
    qel_lq_reader r;
    qel_lq_meta sent = meta_of(5, 0xFFFFFFFF);
    sent.importance = 4;
    sent.code = 4;
    sent.droppable = true;
    sent.named = false;
    ASSERT_EQ(qel_lq_write(m.q, sent, "hello", qel_lq_patience::bounded), qel_lq_put::ok);
    qel_lq_meta got{};
    ASSERT_EQ(qel_lq_peek(m.q, r, got), qel_lq_get::record);
    EXPECT_EQ(got.size, 5u);
    EXPECT_EQ(got.src_ref, 0xFFFFFFFF);
    EXPECT_EQ(got.src_node, 0x01001001u);
    EXPECT_EQ(got.name_type, 2303u);
    EXPECT_EQ(got.name_instance, 0xFFFFFFFF);
    EXPECT_EQ(got.importance, 4);
    EXPECT_EQ(got.code, 4);
    EXPECT_TRUE(got.droppable);
    EXPECT_FALSE(got.named);
}

TEST(local_queue, messages_of_random_sizes_stay_in_order_while_the_queue_fills_and_empties) {
    for (uint32_t seed = 1; seed <= 2 * effort; seed++) {
        memory m(20, 1 << 30);
        qel_lq_reader r;
        std::mt19937 random(seed);
        std::deque<uint32_t> waiting;
        uint32_t number = 0;
        for (int step = 0; step < 3000; step++) {
            const bool fill = random() % 100 < (step / 200 % 2 ? 30u : 70u);
            if (fill) {
                const size_t size = random() % 3 ? random() % 300 : random() % 20000;
                const qel_lq_put put = write_one(m.q, size, number);
                if (put == qel_lq_put::ok)
                    waiting.push_back(number++);
                else
                    ASSERT_EQ(put, qel_lq_put::full) << "seed " << seed;
            } else if (!waiting.empty()) {
                ASSERT_TRUE(reads(m.q, r, waiting.front())) << "seed " << seed;
                waiting.pop_front();
            } else {
                ASSERT_FALSE(qel_lq_readable(m.q, r)) << "seed " << seed;
            }
        }
    }
}

TEST(local_queue, as_many_messages_wait_as_in_the_kernel) {
    const struct {
        uint32_t size;
        uint8_t importance;
        int count;
    } cases[] = {
        {64, 0, 1638},  {64, 1, 3276},  {64, 2, 6553},  {64, 3, 13107},  {100, 0, 1638}, {2048, 0, 481},
        {4096, 0, 248}, {4096, 1, 496}, {4096, 2, 992}, {4096, 3, 1985}, {16384, 0, 63}, {61440, 0, 31},
        {65572, 0, 15}, {65572, 1, 31}, {65572, 2, 63}, {65572, 3, 127},
    };
    for (const auto &c : cases) {
        memory m(4096);
        int count = 0;
        while (write_one(m.q, c.size, 0, c.importance) == qel_lq_put::ok)
            count++;
        EXPECT_EQ(count, c.count) << c.size << " bytes, importance " << int{c.importance};
    }
}

TEST(local_queue, a_returned_message_finds_room_where_no_other_does) {
    memory m(8192);
    while (write_one(m.q, 64, 0, 3) == qel_lq_put::ok) {
    }
    qel_lq_meta back = meta_of(64);
    back.importance = 4;
    back.code = 4;
    int count = 0;
    while (qel_lq_write(m.q, back, pattern(64, 0).data(), qel_lq_patience::bounded) == qel_lq_put::ok)
        count++;
    EXPECT_EQ(13107 + count, 26214) << "32 MB in all";
}

TEST(local_queue, a_read_message_makes_room_for_another) {
    memory m(4096);
    qel_lq_reader r;
    while (write_one(m.q, 64, 0, 0) == qel_lq_put::ok) {
    }
    uint32_t number = 0;
    for (int i = 0; i < 100; i++) {
        ASSERT_TRUE(read_one(m.q, r, number));
        ASSERT_EQ(write_one(m.q, 64, 0, 0), qel_lq_put::ok);
        ASSERT_EQ(write_one(m.q, 64, 0, 0), qel_lq_put::full);
    }
}

TEST(local_queue, a_steady_load_stays_in_few_blocks) {
    memory m(qel_lq_blocks, 1 << 30);
    qel_lq_reader r;
    uint32_t number = 0;
    for (uint32_t i = 0; i < 1025; i++)
        ASSERT_EQ(write_one(m.q, 64, 0), qel_lq_put::ok);
    for (int i = 0; i < 200'000; i++) {
        ASSERT_TRUE(read_one(m.q, r, number));
        ASSERT_EQ(write_one(m.q, 64, 0), qel_lq_put::ok);
    }
    EXPECT_LE(qel_lq_get_usage(m.q).fresh, 1025u * 96 / qel_lq_block_bytes + 3);
}

// Resident bytes of the queue's memory.
size_t resident(const memory &m) {
    std::vector<unsigned char> pages((m.size + 4095) / 4096);
    EXPECT_EQ(mincore(m.at(), m.size, pages.data()), 0);
    size_t count = 0;
    for (const unsigned char p : pages)
        count += p & 1;
    return count * 4096;
}

TEST(local_queue, a_burst_gives_its_memory_back_when_trimmed) {
    memory m(qel_lq_blocks, 1 << 30);
    qel_lq_reader r;
    for (int i = 0; i < 500; i++)
        ASSERT_EQ(write_one(m.q, 66000, 0), qel_lq_put::ok);
    EXPECT_GT(resident(m), 30u << 20);
    uint32_t number = 0;
    for (int i = 0; i < 500; i++)
        ASSERT_TRUE(read_one(m.q, r, number));
    qel_lq_trim(m.q);
    EXPECT_LT(resident(m), 3u << 20);
    for (uint32_t i = 0; i < 300; i++)
        ASSERT_EQ(write_one(m.q, 66000, i), qel_lq_put::ok) << "and its blocks can be used again";
    for (uint32_t i = 0; i < 300; i++)
        ASSERT_TRUE(reads(m.q, r, i));
}

TEST(local_queue, after_a_burst_a_steady_load_returns_to_few_blocks) {
    memory m(qel_lq_blocks, 1 << 30);
    qel_lq_reader r;
    const bytes data(66000);
    const auto write = [&](size_t size) {
        return qel_lq_write(m.q, meta_of(size), data.data(), qel_lq_patience::bounded) == qel_lq_put::ok;
    };
    const auto skip = [&] {
        qel_lq_meta meta{};
        return qel_lq_peek(m.q, r, meta) == qel_lq_get::record && qel_lq_consume(m.q, r, meta);
    };
    for (int i = 0; i < 300; i++)
        ASSERT_TRUE(write(66000));
    for (int i = 0; i < 300; i++)
        ASSERT_TRUE(skip());
    for (int i = 0; i < 30'000; i++) {
        ASSERT_TRUE(write(8000));
        ASSERT_TRUE(skip());
    }
    const qel_lq_usage usage = qel_lq_get_usage(m.q);
    EXPECT_LT(usage.fresh - usage.spare, 100u);
}

TEST(local_queue, a_closed_queue_takes_nothing_and_keeps_what_it_has) {
    memory m(4);
    qel_lq_reader r;
    ASSERT_EQ(write_one(m.q, 10, 1), qel_lq_put::ok);
    ASSERT_TRUE(qel_lq_close(m.q, qel_lq_patience::bounded));
    EXPECT_EQ(write_one(m.q, 10, 2), qel_lq_put::closed);
    EXPECT_TRUE(reads(m.q, r, 1));
    EXPECT_FALSE(qel_lq_readable(m.q, r));
}

TEST(local_queue, what_a_dead_reader_left_is_found_from_what_it_had_published) {
    for (uint32_t consumed = 0; consumed <= 40; consumed++) {
        memory m(64);
        qel_lq_reader r;
        for (uint32_t i = 0; i < 40; i++)
            ASSERT_EQ(write_one(m.q, i * 250, i), qel_lq_put::ok);
        for (uint32_t i = 0; i < consumed; i++)
            ASSERT_TRUE(reads(m.q, r, i));
        qel_lq_reader heir;
        ASSERT_TRUE(qel_lq_reader_of_dead(m.q, heir));
        for (uint32_t i = consumed; i < 40; i++)
            ASSERT_TRUE(reads(m.q, heir, i));
        EXPECT_FALSE(qel_lq_readable(m.q, heir));
    }
}

// ---- the lock -------------------------------------------------------------------------------------------

TEST(local_queue, a_lock_that_a_living_thread_keeps_is_given_up_in_bounded_time) {
    memory m(4);
    std::atomic<bool> locked{false}, done{false};
    std::thread owner([&] {
        qel_lq_lock_for_test(m.q);
        locked = true;
        while (!done)
            std::this_thread::yield();
    });
    while (!locked)
        std::this_thread::yield();
    auto begin = steady_clock::now();
    EXPECT_EQ(qel_lq_write(m.q, meta_of(4), "abc", qel_lq_patience::once), qel_lq_put::busy);
    EXPECT_LT(steady_clock::now() - begin, 500ms);
    begin = steady_clock::now();
    EXPECT_EQ(write_one(m.q, 4, 0), qel_lq_put::busy);
    EXPECT_GE(steady_clock::now() - begin, 1900ms);
    EXPECT_LT(steady_clock::now() - begin, 10s);
    done = true;
    owner.join();
}

TEST(local_queue, the_lock_of_a_thread_that_ended_is_taken_over_at_once) {
    memory m(4);
    qel_lq_reader r;
    for (uint32_t i = 0; i < 20; i++) {
        std::thread([&] { qel_lq_lock_for_test(m.q); }).join();
        const auto begin = steady_clock::now();
        ASSERT_EQ(write_one(m.q, 4, i), qel_lq_put::ok);
        EXPECT_LT(steady_clock::now() - begin, 1s);
        ASSERT_TRUE(reads(m.q, r, i));
    }
}

TEST(local_queue, the_lock_of_a_killed_process_is_taken_over_also_before_it_is_waited_for) {
    memory m(4);
    qel_lq_reader r;
    const pid_t child = fork();
    if (child == 0) {
        qel_lq_lock_for_test(m.q);
        raise(SIGKILL);
    }
    siginfo_t info{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0); // it stays a zombie
    EXPECT_EQ(write_one(m.q, 4, 1), qel_lq_put::ok);
    EXPECT_TRUE(reads(m.q, r, 1));
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
}

TEST(local_queue, a_lock_word_that_names_nobody_is_taken_over) {
    memory m(4);
    const uint64_t words[] = {1, 0x7FFFFFFF, 0xFFFFFFFF, ~uint64_t{0}, uint64_t{0x12345678} << 32 | 1};
    for (const uint64_t word : words) {
        if (word == 1)
            continue; // a living process with an unknown start
        memcpy(m.at() + 128, &word, sizeof word);
        const auto begin = steady_clock::now();
        EXPECT_EQ(write_one(m.q, 4, 1), qel_lq_put::ok) << std::hex << word;
        EXPECT_LT(steady_clock::now() - begin, 1s);
    }
}

TEST(local_queue, threads_that_write_at_once_lose_and_mix_nothing) {
    constexpr int writers = 4;
    constexpr uint32_t each = sanitized ? 3000 : 50'000;
    memory m(64, 1 << 30);
    std::vector<std::thread> threads;
    for (uint32_t w = 0; w < writers; w++)
        threads.emplace_back([&m, w] {
            for (uint32_t i = 0; i < each;) {
                const qel_lq_put put = write_one(m.q, i % 7 ? i % 100 : i % 9000, w << 24 | i);
                if (put == qel_lq_put::ok)
                    i++;
                else
                    std::this_thread::yield();
            }
        });
    qel_lq_reader r;
    uint32_t next[writers] = {};
    for (uint32_t left = writers * each; left > 0;) {
        if (!qel_lq_readable(m.q, r)) {
            std::this_thread::yield();
            continue;
        }
        uint32_t number = 0;
        ASSERT_TRUE(read_one(m.q, r, number));
        ASSERT_EQ(number & 0xFFFFFF, next[number >> 24]++);
        left--;
    }
    for (auto &t : threads)
        t.join();
}

// ---- death at every instruction -------------------------------------------------------------------------

// A child that stands before its write, traced. It writes in memory that is already mapped and locked in.
pid_t child_before_write(const memory &m, const bytes &data, uint32_t number) {
    const pid_t child = fork();
    if (child == 0) {
        qel_lq_lock_for_test(m.q); // lets the thread learn its own name first
        const uint64_t zero = 0;
        memcpy(m.at() + 128, &zero, sizeof zero);
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        const qel_lq_put put =
            qel_lq_write(m.q, meta_of(data.size(), number), data.data(), qel_lq_patience::once);
        _exit(put == qel_lq_put::ok ? 0 : 1);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFSTOPPED(status))
        return -1;
    return child;
}

// One instruction of the child. False when it ended, well or not.
bool step(pid_t child, bool &good) {
    int status = 0;
    good = ptrace(PTRACE_SINGLESTEP, child, nullptr, nullptr) == 0 && waitpid(child, &status, 0) == child &&
           (WIFSTOPPED(status) || (WIFEXITED(status) && WEXITSTATUS(status) == 0));
    return good && WIFSTOPPED(status);
}

constexpr uint32_t victim = 1000; // the number of the message whose writer dies

// Some blocks have been around already; the last two messages are still unread.
void prepare(const memory &m, qel_lq_reader &r, uint32_t before) {
    for (uint32_t i = 0; i < before; i++) {
        ASSERT_EQ(write_one(m.q, 5000, i), qel_lq_put::ok);
        if (i >= 2) {
            ASSERT_TRUE(reads(m.q, r, i - 2));
        }
    }
}

// The next writers and the reader notice nothing. @seen: the dead writer's message was there.
void check_after_death(const qel_lq &q, qel_lq_reader r, uint32_t before, bool &seen) {
    for (uint32_t i = 0; i < 3; i++)
        ASSERT_EQ(write_one(q, 7000, 2000 + i), qel_lq_put::ok);
    for (uint32_t i = before > 2 ? before - 2 : 0; i < before; i++)
        ASSERT_TRUE(reads(q, r, i));
    uint32_t number = 0;
    ASSERT_TRUE(read_one(q, r, number));
    seen = number == victim;
    if (seen) {
        ASSERT_TRUE(read_one(q, r, number));
    }
    ASSERT_EQ(number, 2000u);
    ASSERT_TRUE(reads(q, r, 2001));
    ASSERT_TRUE(reads(q, r, 2002));
    // No block was lost: the queue can still be filled to the end.
    uint32_t filled = 0;
    while (write_one(q, 8160, filled) == qel_lq_put::ok)
        filled++;
    ASSERT_GE(filled, q.block_count - 2);
    for (uint32_t i = 0; i < filled; i++)
        ASSERT_TRUE(reads(q, r, i));
}

TEST(local_queue, a_writer_killed_at_any_instruction_harms_nobody) {
    if (sanitized)
        GTEST_SKIP() << "a write has too many instructions under a sanitizer";
    int deaths = 0, seen = 0;
    for (int n = 1;; n += 3) {
        memory m(8, 1 << 30);
        qel_lq_reader r;
        const pid_t child = child_before_write(m, pattern(64, victim), victim);
        ASSERT_GT(child, 0);
        bool lives = true, good = true;
        for (int i = 0; i < n && lives; i++)
            lives = step(child, good);
        ASSERT_TRUE(good) << n;
        if (lives) {
            kill(child, SIGKILL);
            ASSERT_EQ(waitpid(child, nullptr, 0), child);
            deaths++;
        }
        bool was_seen = false;
        check_after_death(m.q, r, 0, was_seen);
        ASSERT_FALSE(HasFatalFailure()) << "killed after " << n << " instructions";
        seen += was_seen;
        if (!lives)
            break;
    }
    EXPECT_GT(deaths, 50);
    EXPECT_GT(seen, 1) << "some died after the message was visible";
    EXPECT_LT(seen, deaths) << "some died before";
}

// The same on copies of the queue, taken after every instruction that changed heads or tables. In a copy the
// lock is free, as if it had been taken over.
void copy_after_every_instruction(size_t size, memory &m, qel_lq_reader &r, uint32_t before) {
    if (sanitized)
        GTEST_SKIP() << "a write has too many instructions under a sanitizer";
    memory copy(m.q.block_count);
    prepare(m, r, before);
    ASSERT_FALSE(testing::Test::HasFatalFailure());
    const pid_t child = child_before_write(m, pattern(size, victim), victim);
    ASSERT_GT(child, 0);
    const size_t heads = 4096 * 3;
    bytes last(heads);
    int states = 0, seen = 0;
    bool good = true;
    while (step(child, good)) {
        if (memcmp(last.data(), m.at(), heads) == 0)
            continue;
        memcpy(last.data(), m.at(), heads);
        memcpy(copy.at(), m.at(), m.size);
        memset(copy.at() + 128, 0, 8);
        bool was_seen = false;
        check_after_death(copy.q, r, before, was_seen);
        if (testing::Test::HasFatalFailure()) {
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
            FAIL() << "in state " << states;
        }
        states++;
        seen += was_seen;
    }
    ASSERT_TRUE(good);
    EXPECT_GT(states, 10);
    EXPECT_GT(seen, 0);
    EXPECT_LT(seen, states);
    for (uint32_t i = before > 2 ? before - 2 : 0; i < before; i++)
        ASSERT_TRUE(reads(m.q, r, i));
    ASSERT_TRUE(reads(m.q, r, victim));
}
TEST(local_queue, a_writer_killed_in_a_message_of_several_blocks_harms_nobody) {
    memory m(12, 1 << 30);
    qel_lq_reader r;
    copy_after_every_instruction(20'000, m, r, 0);
}
TEST(local_queue, a_writer_killed_while_it_takes_used_blocks_harms_nobody) {
    memory m(12, 1 << 30);
    qel_lq_reader r;
    copy_after_every_instruction(20'000, m, r, 9);
}
TEST(local_queue, a_writer_killed_while_it_retires_blocks_harms_nobody) {
    if (sanitized)
        GTEST_SKIP() << "a write has too many instructions under a sanitizer";
    memory m(100, 1 << 30);
    qel_lq_reader r;
    uint32_t number = 0;
    for (int i = 0; i < 90; i++)
        ASSERT_EQ(write_one(m.q, 8000, 0), qel_lq_put::ok);
    for (int i = 0; i < 90; i++)
        ASSERT_TRUE(read_one(m.q, r, number));
    for (int i = 0; i < 100'000 && qel_lq_get_usage(m.q).spare == 0; i++) {
        ASSERT_EQ(write_one(m.q, 8000, 0), qel_lq_put::ok);
        ASSERT_TRUE(read_one(m.q, r, number));
    }
    const uint32_t spare = qel_lq_get_usage(m.q).spare;
    ASSERT_GT(spare, 0u);
    // A short message at the end of a block takes another one; step through the first that retires one too.
    memory trial(m.q.block_count);
    for (int i = 0; i < 500; i++) {
        const uint32_t left = qel_lq_block_bytes - static_cast<uint32_t>(r.head % qel_lq_block_bytes);
        if (left > 64) {
            ASSERT_EQ(write_one(m.q, left - 64 - qel_lq_unit_bytes, 0), qel_lq_put::ok);
            ASSERT_TRUE(read_one(m.q, r, number));
        }
        memcpy(trial.at(), m.at(), m.size);
        ASSERT_EQ(write_one(trial.q, 100, 0), qel_lq_put::ok);
        if (qel_lq_get_usage(trial.q).spare > spare)
            break;
        ASSERT_EQ(write_one(m.q, 100, 0), qel_lq_put::ok);
        ASSERT_TRUE(read_one(m.q, r, number));
    }
    ASSERT_EQ(qel_lq_get_usage(m.q).spare, spare);
    copy_after_every_instruction(100, m, r, 0);
    EXPECT_GT(qel_lq_get_usage(m.q).spare, spare);
}

// ---- damage ---------------------------------------------------------------------------------------------

TEST(local_queue, damage_anywhere_is_survived_and_the_queue_works_again) {
    for (uint32_t seed = 1; seed <= 300 * effort; seed++) {
        memory m(8);
        qel_lq_reader r;
        std::mt19937 random(seed);
        for (uint32_t i = 0; i < 6; i++)
            ASSERT_EQ(write_one(m.q, random() % 9000, i), qel_lq_put::ok);
        qel_lq_meta meta{};
        ASSERT_EQ(qel_lq_peek(m.q, r, meta), qel_lq_get::record);
        ASSERT_TRUE(qel_lq_consume(m.q, r, meta));
        for (uint32_t i = 0; i < 1 + seed % 20; i++) {
            size_t where = seed % 3 == 0 ? random() % m.size : random() % 1024;
            if (where / 8 == 128 / 8)
                where += 8; // a lock that somebody living seems to hold is another test
            m.at()[where] = static_cast<unsigned char>(random());
        }
        unsigned char room[66000];
        const iovec to = {room, sizeof room};
        bool broken = false;
        for (int i = 0; i < 20; i++) {
            const qel_lq_get got = qel_lq_peek(m.q, r, meta);
            if (got == qel_lq_get::empty)
                break;
            if (got == qel_lq_get::broken || !qel_lq_copy(m.q, r, &to, 1, meta.size) ||
                !qel_lq_consume(m.q, r, meta)) {
                qel_lq_restart(m.q, r, base);
                broken = true;
            }
        }
        qel_lq_reader heir;
        if (qel_lq_reader_of_dead(m.q, heir) && qel_lq_peek(m.q, heir, meta) == qel_lq_get::record)
            (void)qel_lq_copy(m.q, heir, &to, 1, meta.size);
        // A writer either delivers or says that it cannot; after its owner looked everything is well.
        for (uint32_t i = 0; i < 3; i++) {
            const qel_lq_put put = write_one(m.q, 5000, 100);
            if (put == qel_lq_put::ok && qel_lq_peek(m.q, r, meta) == qel_lq_get::record &&
                meta.src_ref == 100 && qel_lq_consume(m.q, r, meta))
                continue;
            broken = true;
        }
        if (broken) {
            qel_lq_restart(m.q, r, base);
            for (uint32_t i = 0; i < 20; i++) {
                ASSERT_EQ(write_one(m.q, 5000, i), qel_lq_put::ok) << "seed " << seed;
                ASSERT_TRUE(reads(m.q, r, i)) << "seed " << seed;
            }
        }
    }
}

TEST(local_queue, scribbling_while_others_write_and_read_is_survived) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "scribbling is a data race";
#endif
    memory m(16);
    std::atomic<bool> done{false};
    std::thread scribbler([&] {
        std::mt19937 random(1);
        while (!done) {
            size_t where = random() % 4 ? random() % 1024 : random() % m.size;
            if (where / 8 != 128 / 8)
                const_cast<volatile unsigned char *>(m.at())[where] = static_cast<unsigned char>(random());
            std::this_thread::yield();
        }
    });
    std::thread writer([&] {
        const bytes data = pattern(66000, 1);
        for (uint32_t i = 0; !done; i++)
            (void)qel_lq_write(m.q, meta_of(i * 997 % 66000, i), data.data(), qel_lq_patience::once);
    });
    qel_lq_reader r;
    std::vector<unsigned char> room(66000);
    const iovec to = {room.data(), room.size()};
    int restarts = 0;
    const auto begin = steady_clock::now();
    while (steady_clock::now() - begin < 1s) {
        qel_lq_meta meta{};
        const qel_lq_get got = qel_lq_peek(m.q, r, meta);
        if (got == qel_lq_get::empty) {
            std::this_thread::yield();
            continue;
        }
        if (got == qel_lq_get::broken || !qel_lq_copy(m.q, r, &to, 1, meta.size) ||
            !qel_lq_consume(m.q, r, meta)) {
            qel_lq_restart(m.q, r, base);
            restarts++;
        }
    }
    done = true;
    scribbler.join();
    writer.join();
    EXPECT_GT(restarts, 0);
    qel_lq_restart(m.q, r, base);
    ASSERT_EQ(write_one(m.q, 5000, 7), qel_lq_put::ok);
    EXPECT_TRUE(reads(m.q, r, 7));
}

TEST(local_queue, a_record_is_judged_field_by_field) {
    const qel_lq_header good = {.check = 0x9E5C71A3,
                                .size = 100,
                                .src_ref = 1,
                                .src_node = 2,
                                .name_type = 3,
                                .name_instance = 4,
                                .flags = 3 | 1 << 17,
                                .zero = 0};
    qel_lq_meta meta{};
    EXPECT_EQ(qel_lq_parse(good, 0, 160, meta), nullptr);
    EXPECT_EQ(meta.size, 100u);
    EXPECT_TRUE(meta.named);
    const auto refused = [&](auto change, uint64_t position = 0, uint64_t available = 100'000) {
        qel_lq_header h = good;
        change(h);
        return qel_lq_parse(h, position, available, meta) != nullptr;
    };
    EXPECT_TRUE(refused([](auto &) {}, 32)) << "a record of another position";
    EXPECT_TRUE(refused([](auto &) {}, 0, 128)) << "the end of the stream within it";
    EXPECT_TRUE(refused([](auto &h) { h.check++; }));
    EXPECT_TRUE(refused([](auto &h) { h.size = 66001; }));
    EXPECT_TRUE(refused([](auto &h) { h.size = 0xFFFFFFFF; }));
    EXPECT_TRUE(refused([](auto &h) { h.flags |= 1 << 18; }));
    EXPECT_TRUE(refused([](auto &h) { h.flags = 5; })) << "importance";
    EXPECT_TRUE(refused([](auto &h) { h.flags |= 6 << 8; })) << "code";
    EXPECT_TRUE(refused([](auto &h) { h.zero = 1; }));
    EXPECT_TRUE(refused([](auto &h) {
        h.flags |= 2 << 8;
        h.size = 1025;
    })) << "a returned message keeps 1024 bytes";
}

// ---- the file -------------------------------------------------------------------------------------------

TEST(local_queue, a_file_that_could_change_its_size_is_not_mapped) {
    qel_lq q;
    qel_fd good(qel_lq_create_file());
    ASSERT_TRUE(good);
    EXPECT_EQ(qel_lq_map_file(q, good.fd), 0);
    qel_lq_unmap(q);
    EXPECT_NE(ftruncate(good.fd, 4096), 0);

    qel_fd unsealed(memfd_create("x", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    ASSERT_EQ(ftruncate(unsealed.fd, static_cast<off_t>(qel_lq_bytes(qel_lq_blocks))), 0);
    EXPECT_EQ(qel_lq_map_file(q, unsealed.fd), -1);
    EXPECT_EQ(errno, EPROTO);

    qel_fd small(memfd_create("x", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    ASSERT_EQ(ftruncate(small.fd, 4096), 0);
    ASSERT_EQ(fcntl(small.fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW), 0);
    EXPECT_EQ(qel_lq_map_file(q, small.fd), -1);

    qel_fd directory(open("/", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(qel_lq_map_file(q, directory.fd), -1);
}

TEST(local_queue, an_unused_queue_takes_a_few_pages) {
    qel_lq q;
    qel_fd fd(qel_lq_create_file());
    ASSERT_EQ(qel_lq_map_file(q, fd.fd), 0);
    qel_lq_init(q, base);
    qel_lq_reader r;
    ASSERT_EQ(write_one(q, 64, 1), qel_lq_put::ok);
    ASSERT_TRUE(reads(q, r, 1));
    struct stat st {};
    ASSERT_EQ(fstat(fd.fd, &st), 0);
    EXPECT_LE(st.st_blocks * 512, 5 * 4096);
    qel_lq_unmap(q);
}

// ---- sleeping -------------------------------------------------------------------------------------------

TEST(local_queue, a_sleeping_reader_shows_a_number_that_never_comes_again) {
    memory m(4);
    qel_lq_reader r;
    EXPECT_EQ(qel_lq_sleeper(m.q), 0u);
    uint64_t last = 0;
    for (int i = 0; i < 100; i++) {
        qel_lq_sleep_begin(m.q, r);
        EXPECT_GT(qel_lq_sleeper(m.q), last);
        last = qel_lq_sleeper(m.q);
        qel_lq_sleep_end(m.q, r);
        EXPECT_EQ(qel_lq_sleeper(m.q), 0u);
    }
}

} // namespace
