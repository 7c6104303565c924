// The kernel's transport, which is the system calls themselves, and the choice between the transports.
//
// What the bus leans on in the kernel's TIPC, each pinned by a contract test: a datagram of 65,572 bytes
// passes in one piece (66,000 is the limit); a send to a name that nobody publishes fails at once; a message
// that its receiver's full queue or death rejects comes back to the sender's socket; a zero-length datagram
// makes poll say readable and then blocks a blocking recvmsg, which is why nothing here is received without
// MSG_DONTWAIT.
#include "qel_port.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

static int kernel_socket(int domain, int type, int protocol) {
    const int fd = ::socket(domain, type, protocol);
    if (fd < 0 && errno == EAFNOSUPPORT) {
        static std::atomic<bool> told{false};
        if (!told.exchange(true, std::memory_order_relaxed)) {
            fputs(
                "qel: this kernel has no TIPC: load the module (modprobe tipc), or set QEL_TRANSPORT=local\n",
                stderr);
            errno = EAFNOSUPPORT;
        }
    }
    return fd;
}
static int kernel_fcntl(int fd, int cmd, long arg) { return ::fcntl(fd, cmd, arg); }
static int kernel_bind(int fd, const sockaddr *addr, socklen_t len) { return ::bind(fd, addr, len); }
static int kernel_connect(int fd, const sockaddr *addr, socklen_t len) { return ::connect(fd, addr, len); }
static ssize_t kernel_sendto(int fd, const void *data, size_t len, int flags, const sockaddr *to,
                             socklen_t to_len) {
    return ::sendto(fd, data, len, flags, to, to_len);
}

constinit const qel_port g_qel_port_kernel = {
    .name = "kernel",
    .socket = kernel_socket,
    .bind = kernel_bind,
    .connect = kernel_connect,
    .setsockopt = ::setsockopt,
    .getsockopt = ::getsockopt,
    .sendto = kernel_sendto,
    .send = ::send,
    .recvmsg = ::recvmsg,
    .recv = ::recv,
    .poll = ::poll,
    .shutdown = ::shutdown,
    .close = ::close,
    .fcntl = kernel_fcntl,
};

// For a transport that does not exist: no socket is ever made, so no other function is reached through it.
static int refuse_socket(int, int, int) {
    errno = EPROTONOSUPPORT;
    return -1;
}
static qel_port refusing_port() {
    qel_port port = g_qel_port_kernel;
    port.name = "none";
    port.socket = refuse_socket;
    return port;
}

static constinit std::atomic<const qel_port *> g_port{nullptr};
static pthread_once_t g_port_once = PTHREAD_ONCE_INIT;

static void choose_port() {
    static const qel_port refusing = refusing_port();
    if (g_port.load(std::memory_order_relaxed))
        return; // a test was faster
    const char *name = secure_getenv("QEL_TRANSPORT");
    const qel_port *port = &refusing;
    if (!name || !strcmp(name, g_qel_port_kernel.name))
        port = &g_qel_port_kernel;
    else if (!strcmp(name, g_qel_port_local.name))
        port = &g_qel_port_local;
    else
        fprintf(stderr, "qel: QEL_TRANSPORT is \"%.64s\"; it may be \"kernel\" or \"local\"\n", name);
    g_port.store(port, std::memory_order_release);
}

const qel_port &qel_port_get() noexcept {
    const qel_port *port = g_port.load(std::memory_order_acquire);
    if (__builtin_expect(!port, 0)) {
        pthread_once(&g_port_once, choose_port);
        port = g_port.load(std::memory_order_acquire);
    }
    return *port;
}

void qel_port_set(const qel_port *port) noexcept { g_port.store(port, std::memory_order_release); }
