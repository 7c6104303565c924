// Another process that uses a transport, on any node, steered by lines of text: what two processes or two
// nodes are needed for. Tests in C++ start it with the class peer; tests in Python run the same program as a
// command.
//
// A line of input is a request, a line of output its answer, "ok ..." or "err <errno>". <s> is a number 0 to
// 15 that the request "rdm" or "topology" gives a socket; a closed one may be opened anew.
//
//     rdm <s> | topology <s>
//     bind <s> <type> <lower> <upper>
//     importance <s> <0-3> | return <s> (destination not droppable) | rcvbufforce <s> <bytes>
//     send <s> <type> <instance> <size> <first tag> <count> <flags>
//         ok <sent> <errno that ended it or 0> <longest send in us>
//     reply <s> <size>           to the socket that sent the next message
//     next <s> <ms>              ok <size> <tag> <code> <intact 0|1> <sender's node> <sender's port> or err
//     <errno> drain <s> <ms> <count>     receives until @count messages are there or none comes for @ms
//         ok <normal> <returned> <in order 0|1> <intact 0|1> <first tag> <last tag>
//     subscribe <s> <type> <lower> <upper> <timeout ms> <filter>
//     event <s> <ms>             ok <P|W|T> <lower> <upper> <node> <port>, or err 62
//     close <s>
//     drop                       from now on an unprivileged user
//     exit
#ifndef PORT_PEER_H
#define PORT_PEER_H

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

#include "port_sock.h"

namespace port_test {

// The other process: answers requests until the end of input or "exit". Gives the status.
int peer_main(const qel_port &port);

// How to start this program again as peer_main() with the transport @port: its own path and these arguments.
inline constexpr const char *peer_argument = "--peer";

// The parent's view of it. Node 0: the node of this process.
class peer {
  public:
    explicit peer(const qel_port &port, int node = 0);
    peer(const peer &) = delete;
    peer &operator=(const peer &) = delete;
    ~peer(); // kills it

    // The answer behind "ok"; a failure of the test if it is anything else.
    std::string ask(const std::string &request);
    // The numbers of it.
    std::vector<long> numbers(const std::string &request);
    // 0, or the number behind "err".
    int error_of(const std::string &request);

    void signal(int sig);
    void kill(); // SIGKILL, and waits for its end
    void quit(); // ends it the normal way and waits
    pid_t pid() const { return pid_; }

  private:
    std::string exchange(const std::string &request);
    void reap();
    pid_t pid_ = -1;
    int wire_ = -1;
    std::string unread_;
};

// The environment of processes of node @node with the local transport: its QEL_ROOT. Null: no such nodes.
void set_local_node_roots(const std::string &directory); // <directory>/node<n>
std::string local_node_root(int node);

} // namespace port_test

#endif
