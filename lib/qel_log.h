// The log line: a level test, then "<file, line> level: text". A source file that logs defines QEL_LOG_SRC,
// its module's name, before it includes this; modules of several files share one name.
//
// Any thread. Takes only the log file's leaf lock, so it may be called with any lock held.
#ifndef QEL_LOG_H
#define QEL_LOG_H

#include <atomic>
#include <cstdint>

enum qel_level : uint32_t {
    QEL_LEVEL_VERBOSE = 0,
    QEL_LEVEL_INFO = 1,
    QEL_LEVEL_WARN = 2,
    QEL_LEVEL_ERROR = 3,
    QEL_LEVEL_ALL = 4, // of commands only
};

// Which levels are printed on standard output, and which are appended to the log file: bits 1 << level.
// Relaxed atomics: a line more or less around a change does not matter.
extern std::atomic<uint32_t> g_qel_dbg_level;
extern std::atomic<uint32_t> g_qel_log_level;

inline bool qel_log_enabled(qel_level level) noexcept {
    const uint32_t mask =
        g_qel_dbg_level.load(std::memory_order_relaxed) | g_qel_log_level.load(std::memory_order_relaxed);
    return __builtin_expect((mask >> level & 1) != 0, 0);
}

// One line of at most 511 characters to where its level goes.
[[gnu::format(printf, 4, 5)]] void qel_log_write(const char *src, int line, qel_level level, const char *fmt,
                                                 ...) noexcept;

#define QEL_LOG(level, ...)                                                                                  \
    do {                                                                                                     \
        if (qel_log_enabled(level))                                                                          \
            qel_log_write(QEL_LOG_SRC, __LINE__, level, __VA_ARGS__);                                        \
    } while (0)
#define QEL_VERBOSE(...) QEL_LOG(QEL_LEVEL_VERBOSE, __VA_ARGS__)
#define QEL_INFO(...) QEL_LOG(QEL_LEVEL_INFO, __VA_ARGS__)
#define QEL_WARN(...) QEL_LOG(QEL_LEVEL_WARN, __VA_ARGS__)
#define QEL_ERROR(...) QEL_LOG(QEL_LEVEL_ERROR, __VA_ARGS__)

#endif
