// The fabric of the local transport for tests in one process: started once, in a directory of its own, gone
// with the process. This process is a process of node 1.
#ifndef PORT_FABRIC_H
#define PORT_FABRIC_H

#include <string>
#include <sys/types.h>

#include "qel_guard.h"

namespace port_test {

class local_fabric {
  public:
    // Starts it at the first call and points the environment (QEL_FABRIC, QEL_ROOT) to it.
    static local_fabric &get();
    // Empty, or why it does not run.
    const std::string &trouble() const { return trouble_; }
    const std::string &directory() const { return directory_; }

  private:
    local_fabric();
    void start();
    void stop();
    static void stop_at_exit();
    std::string directory_, trouble_;
    pid_t pid_ = -1;
    qel_guard guard_;
};

} // namespace port_test

#endif
