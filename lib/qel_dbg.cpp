#include "qel_dbg.h"

#include <cstring>
#include <unistd.h>

#define QEL_LOG_SRC "qel_dbg"
#include "qel_log.h"

uint32_t qel_dbg_get_level_value(uint32_t level) noexcept {
    if (level == QEL_LEVEL_ALL)
        return 15;
    return level < 32 ? 1u << level : 0;
}

void qel_dbg_update_level(uint8_t on, uint32_t level) noexcept {
    if (level > QEL_LEVEL_ALL)
        return;
    const uint32_t bits = qel_dbg_get_level_value(level);
    if (level == QEL_LEVEL_ALL)
        g_qel_dbg_level.store(on ? bits : 0, std::memory_order_relaxed);
    else if (on)
        g_qel_dbg_level.fetch_or(bits, std::memory_order_relaxed);
    else
        g_qel_dbg_level.fetch_and(~bits, std::memory_order_relaxed);

    char words[32];
    QEL_VERBOSE("QEL process %d current debug status: %s.\n", static_cast<int>(getpid()),
                qel_get_dbg_status_str(g_qel_dbg_level.load(std::memory_order_relaxed), words));
}

// The words are those of the process's own mask on purpose: @mask only chooses between them and "none".
const char *qel_get_dbg_status_str(uint32_t mask, char *buf) noexcept {
    static constexpr const char *words[] = {"verbose", "info", "warn", "error"};
    if (mask == 0)
        return strcpy(buf, "none");
    const uint32_t own = g_qel_dbg_level.load(std::memory_order_relaxed);
    char *end = buf;
    *end = '\0';
    for (uint32_t level = 0; level < 4; level++) {
        if (!(own >> level & 1))
            continue;
        if (end != buf)
            *end++ = ' ';
        end = stpcpy(end, words[level]);
    }
    return buf;
}

const char *qel_tipc_err_string(uint32_t code) noexcept {
    switch (code) {
    case 1:
        return "TIPC no name";
    case 2:
        return "TIPC no port";
    case 3:
        return "TIPC no node";
    case 4:
        return "TIPC overload";
    default:
        return "TIPC unknown";
    }
}
