// A registered process whose peers are there by decree: no handshake, no qel_run(). For tests of what
// applications do with their peers: sending, flow control, remote procedure calls, groups.
//
//     struct my_test : qel_process {};
//     TEST_F(my_test, ...) {
//         add_app(5);
//         serve(5, 7, {2, 3}); // application 7 has servers on nodes 2 and 3, for application 5
//         qel_task caller([&] { ret = qel_rpc(5, 7, msg, 0, 30, &set); });
//         ASSERT_TRUE(qel_time::settle());
//         ...
//         ASSERT_TRUE(caller.join());
//     }
#ifndef QEL_PROCESS_H
#define QEL_PROCESS_H

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "qel_capture.h"
#include "qel_world.h"

// A thread of the test that counts as one of the library's: settle() and run_for() wait for it.
class qel_task {
  public:
    explicit qel_task(std::function<void()> fun);
    ~qel_task(); // joins; ends the process when that takes ten seconds
    qel_task(const qel_task &) = delete;
    qel_task &operator=(const qel_task &) = delete;
    bool ended() const { return state_->ended; }
    // Waits for its end; false after ten seconds.
    bool join();

  private:
    struct state {
        std::function<void()> fun;
        std::atomic<bool> ended{false};
    };
    std::shared_ptr<state> state_;
    pthread_t thread_{};
    bool joined_ = false;
};

// Runs @act on the next qel_task whose timed wait ends by its deadline, before the wait returns and while the
// task has not got its mutex back: what is done then is in time for the task's next look and too late for its
// deadline. Null takes it back.
void qel_at_deadline(std::function<void()> act);

struct qel_process : qel_world {
    qel_process();

    // @peer has servers on @nodes that are online, declared by @app, which is registered.
    static void serve(uint32_t app, uint32_t peer, const std::vector<uint32_t> &nodes);
    // They are no longer there; nobody is told.
    static void vanish(uint32_t peer, const std::vector<uint32_t> &nodes);

    // What the modules print about an application.
    static std::string fc_stat(uint32_t app);
    static std::string rpc_stat(uint32_t app);
    static std::string mc_stat(uint32_t app);

    // The lines of @text that @module logged.
    static std::string only(const std::string &text, const std::string &module);

    // Datagrams sent since the last call: destination "app/node" of the name, and what was in them.
    struct sent {
        std::string to;
        qel_seen msg;
    };
    static std::vector<sent> take_sent();
    static std::vector<std::string> take_destinations();
};

// What the platform's watchdog was told, as "register name", "feed name", "unregister name". A test that uses
// it has a watchdog.
namespace qel_dog {
std::vector<std::string> take();
// The same about the thread @name only.
std::vector<std::string> take(const std::string &name);
} // namespace qel_dog

#endif
