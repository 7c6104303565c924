// The platform's watchdog where there is one: calls its three functions if the program or one of its
// libraries defines them, does nothing otherwise.
#ifndef QEL_WATCHDOG_H
#define QEL_WATCHDOG_H

#include "qel/qel.h"

inline void qel_watchdog_register(const char *name) noexcept {
    if (watchdog_register)
        watchdog_register(name);
}
inline void qel_watchdog_feed(const char *name) noexcept {
    if (watchdog_feed)
        watchdog_feed(name);
}
inline void qel_watchdog_unregister(const char *name) noexcept {
    if (watchdog_unregister)
        watchdog_unregister(name);
}

// Registered while it lives, under the calling thread's own name: for application threads that wait inside.
struct qel_watchdog_guard {
    qel_watchdog_guard() noexcept;
    ~qel_watchdog_guard() { qel_watchdog_unregister(name); }
    qel_watchdog_guard(const qel_watchdog_guard &) = delete;
    qel_watchdog_guard &operator=(const qel_watchdog_guard &) = delete;
    void feed() const noexcept { qel_watchdog_feed(name); }
    char name[16];
};

#endif
