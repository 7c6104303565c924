// The server: connections, the sockets of the processes behind them, timers, and what happens when one dies.
// One thread, one epoll; nothing here waits for a client.
#ifndef FABRIC_SERVER_H
#define FABRIC_SERVER_H

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <sys/types.h>
#include <vector>

#include "fabric_names.h"
#include "qel_base.h"
#include "qel_fabric_proto.h"
#include "qel_port_local_queue.h"

namespace fabric {

struct connection;
struct subscriber {
    connection *conn = nullptr;
};

// A name as its socket asked for it. Under the fault "name-delay" it is not published yet.
struct bound_name {
    uint32_t type = 0, lower = 0, upper = 0;
    int32_t scope = 0;
    publication *published = nullptr;
    uint64_t timer = 0;
};

// A datagram socket of some process.
struct endpoint {
    uint32_t ref = 0, node = 0;
    connection *owner = nullptr;
    qel_fd queue_fd, event_fd;
    ino_t queue_inode = 0; // no other endpoint has this queue
    std::vector<std::unique_ptr<bound_name>> names;
    qel_lq q; // mapped while messages are returned to or from it
    uint64_t woken = 0;
    uint64_t busy_since_ns = 0; // when its lock was first found taken, until it is free
    bool closing = false;
};

// The end of an endpoint: no writer may put anything in, what is unread goes back, the names go, in this
// order.
struct closing_job {
    endpoint *e = nullptr;
    bool closed = false; // the queue takes nothing more
    qel_lq_reader reader;
    uint64_t give_up_ns = 0; // when a queue whose lock somebody keeps is closed by force
    bool asked = false;      // by a request, which is to be answered
    uint32_t request_number = 0;
};

struct pending_event {
    uint64_t due_ns;
    tipc_event event;
};

struct connection {
    int fd = -1;
    uint32_t kind = 0; // qel_fabric_kind, 0 before the hello
    uint32_t node = 0, pid = 0;
    bool dead = false; // to be taken down at the end of the round
    bool wants_out = false;
    bool dirty = false;

    std::set<uint32_t> endpoints; // process

    subscriber self;                                          // topology
    std::multimap<std::string, subscription *> subscriptions; // by their bytes
    std::deque<pending_event> events;
    uint64_t event_timer = 0;

    std::deque<std::string> text; // control
};

class server {
  public:
    server();
    // Takes the listening socket. False: one line was printed.
    bool start(int listen_fd);
    void run(int signal_fd);
    // One command of --control or of QEL_FABRIC_FAULTS. False: @answer says what is wrong with it.
    bool command(const std::string &line, std::string &answer);

  private:
    using clock_fun = std::function<void()>;
    uint64_t timer_at(uint64_t due_ns, clock_fun fun);
    void timer_cancel(uint64_t id);
    void timers_run();
    [[nodiscard]] int wait_ms() const;

    bool make_page();
    void bump(uint32_t type, uint32_t lower, uint32_t upper);
    void bump_port(uint32_t ref);
    void bump_all();

    void accept_all();
    void readable(connection &c);
    void hello(connection &c, const std::byte *data, size_t bytes);
    void reply(connection &c, const qel_fabric_reply &r, const int *fds = nullptr, size_t fd_count = 0);
    void take_down(connection &c);
    void watch(connection &c, bool out);

    void process_request(connection &c, const std::byte *data, size_t bytes, std::vector<qel_fd> &fds);
    int enroll(connection &c, const qel_fabric_request &q, std::vector<qel_fd> &fds, qel_fabric_reply &r);
    int bind(connection &c, const qel_fabric_request &q);
    int unbind(connection &c, const qel_fabric_request &q);
    int resolve(connection &c, const qel_fabric_request &q, qel_fabric_reply &r);
    int locate(connection &c, const qel_fabric_request &q, qel_fabric_reply &r, int (&fds)[2],
               size_t &fd_count);
    endpoint *endpoint_of(connection &c, uint32_t ref);
    void publish(endpoint &e, bound_name &n);
    void unpublish(bound_name &n);
    [[nodiscard]] uint32_t congested_ms(uint32_t from, uint32_t to) const;

    void close_endpoint(endpoint &e, bool asked, uint32_t request_number);
    bool jobs_run(); // true: there is more to do at once
    enum class progress { more, wait, done };
    progress job_step(closing_job &job);
    progress return_message(closing_job &job, const qel_lq_meta &meta);
    void job_end(closing_job &job);
    bool map_queue(endpoint &e);
    void node_up(uint32_t node);
    void node_down(uint32_t node);

    void subscriber_request(connection &c, const std::byte *data, size_t bytes);
    void end_subscription(subscription *s);
    void on_event(subscription &s, const tipc_event &event);
    void flush_events(connection &c);
    void flush_dirty();
    void flush_text(connection &c);
    void drop_topology();
    std::string list() const;

    qel_fd epoll_, listen_;
    qel_fd page_fd_;
    qel_fabric_page *page_ = nullptr;
    name_table names_;
    std::map<int, std::unique_ptr<connection>> connections_;
    std::vector<std::unique_ptr<connection>> zombies_; // processes that died with jobs still to do
    std::map<uint32_t, std::unique_ptr<endpoint>> endpoints_;
    std::vector<endpoint *> mapped_;
    std::vector<std::unique_ptr<closing_job>> jobs_;
    std::map<uint32_t, uint32_t> node_processes_;
    std::map<uint32_t, publication *> node_names_;
    std::map<uint32_t, uint32_t> node_publications_;
    std::multimap<uint64_t, std::pair<uint64_t, clock_fun>> timers_;
    std::map<uint64_t, std::multimap<uint64_t, std::pair<uint64_t, clock_fun>>::iterator> timer_index_;
    uint64_t next_timer_ = 1;
    uint32_t next_ref_ = 0;
    std::vector<connection *> dirty_;
    size_t events_waiting_ = 0;
    uint64_t now_ns_ = 0;

    uint64_t event_delay_ns_ = 0, name_delay_ns_ = 0;
    uint32_t lose_return_ = 0, returns_ = 0;
    std::map<uint32_t, uint64_t> congested_until_ns_;
    std::map<uint32_t, uint64_t> cut_timers_;
};

uint64_t monotonic_ns();
uint32_t node_address(uint32_t number);

} // namespace fabric
#endif
