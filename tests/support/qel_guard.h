// Tidies up when a test is killed before it can: a shell of its own session that waits for the end of its
// input, which comes with the end of this process.
#ifndef QEL_GUARD_H
#define QEL_GUARD_H

#include <string>
#include <sys/types.h>

class qel_guard {
  public:
    qel_guard() = default;
    qel_guard(const qel_guard &) = delete;
    qel_guard &operator=(const qel_guard &) = delete;
    ~qel_guard() { dismiss(); }
    // Will remove @directory and, unless it is 0, terminate @process. 0 or an errno value.
    int watch(const std::string &directory, pid_t process = 0);
    // Nothing is left to do.
    void dismiss();

  private:
    pid_t pid_ = -1;
    int wire_ = -1;
};

#endif
