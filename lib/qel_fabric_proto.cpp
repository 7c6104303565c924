// What a process and qel-fabric both need to talk: where the fabric is, and datagrams with descriptors.
#include "qel_fabric_proto.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "qel_base.h"

bool qel_fabric_dir(char (&path)[qel_fabric_dir_max]) noexcept {
    const char *dir = secure_getenv("QEL_FABRIC");
    const char *tail = "";
    if (!dir || !*dir) {
        dir = secure_getenv("XDG_RUNTIME_DIR");
        tail = "/qel-fabric";
        if (!dir || !*dir)
            return false;
    }
    const int len = snprintf(path, sizeof path, "%s%s", dir, tail);
    return len > 0 && static_cast<size_t>(len) < sizeof path;
}

void qel_fabric_address(sockaddr_un &address, const char *path, int dir_fd) noexcept {
    address = sockaddr_un{};
    address.sun_family = AF_UNIX;
    const int len =
        snprintf(address.sun_path, sizeof address.sun_path, "%s/%s", path, qel_fabric_socket_name);
    if (len < 0 || static_cast<size_t>(len) >= sizeof address.sun_path)
        (void)snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d/%s", dir_fd,
                       qel_fabric_socket_name);
}

int qel_fabric_connect(qel_fabric_kind kind, uint32_t node) noexcept {
    char path[qel_fabric_dir_max];
    if (!qel_fabric_dir(path)) {
        errno = ENOENT;
        return -1;
    }
    qel_fd dir(open(path, O_PATH | O_DIRECTORY | O_CLOEXEC));
    qel_fd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!fd)
        return -1;
    if (!dir) {
        if (errno == ENOENT || errno == ENOTDIR)
            errno = ECONNREFUSED;
        return -1;
    }
    const timeval patience = {qel_fabric_patience_s, 0};
    if (setsockopt(fd.fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience) != 0 ||
        setsockopt(fd.fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience) != 0)
        return -1;
    sockaddr_un address;
    qel_fabric_address(address, path, dir.fd);
    while (::connect(fd.fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        if (errno == EINTR)
            continue;
        if (errno == ENOENT)
            errno = ECONNREFUSED;
        return -1;
    }
    ucred peer{};
    socklen_t peer_len = sizeof peer;
    if (getsockopt(fd.fd, SOL_SOCKET, SO_PEERCRED, &peer, &peer_len) != 0)
        return -1;
    if (peer.uid != geteuid() && peer.uid != 0) {
        errno = EPERM;
        return -1;
    }
    const qel_fabric_hello hello = {.magic = qel_fabric_magic,
                                    .version = qel_fabric_version,
                                    .kind = static_cast<uint32_t>(kind),
                                    .node = node,
                                    .pid = static_cast<uint32_t>(getpid())};
    if (qel_fabric_send(fd.fd, &hello, sizeof hello, nullptr, 0, 0) != sizeof hello) {
        errno = ECONNREFUSED; // it ended between the two calls
        return -1;
    }
    return fd.release();
}

constexpr size_t proto_fds_max = 4;
union proto_control {
    cmsghdr align;
    char bytes[CMSG_SPACE(proto_fds_max * sizeof(int))];
};

ssize_t qel_fabric_send(int fd, const void *data, size_t bytes, const int *fds, size_t fd_count,
                        int flags) noexcept {
    QEL_ASSERT(fd_count <= proto_fds_max);
    iovec iov = {const_cast<void *>(data), bytes};
    proto_control control{};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    if (fd_count > 0) {
        msg.msg_control = &control;
        msg.msg_controllen = CMSG_SPACE(fd_count * sizeof(int));
        cmsghdr *c = CMSG_FIRSTHDR(&msg);
        c->cmsg_level = SOL_SOCKET;
        c->cmsg_type = SCM_RIGHTS;
        c->cmsg_len = CMSG_LEN(fd_count * sizeof(int));
        memcpy(CMSG_DATA(c), fds, fd_count * sizeof(int));
    }
    for (;;) {
        const ssize_t sent = ::sendmsg(fd, &msg, flags | MSG_NOSIGNAL);
        if (sent >= 0 || errno != EINTR)
            return sent;
    }
}

ssize_t qel_fabric_recv(int fd, void *data, size_t bytes, int *fds, size_t fd_max, size_t &fd_count,
                        int flags) noexcept {
    iovec iov = {data, bytes};
    proto_control control{};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = &control;
    msg.msg_controllen = sizeof control;
    fd_count = 0;
    ssize_t got = 0;
    do {
        got = ::recvmsg(fd, &msg, flags | MSG_CMSG_CLOEXEC);
    } while (got < 0 && errno == EINTR);
    if (got < 0)
        return got;
    int received[proto_fds_max];
    size_t count = 0;
    for (cmsghdr *c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
        if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS)
            continue;
        const size_t here = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < here && count < proto_fds_max; i++)
            memcpy(&received[count++], CMSG_DATA(c) + i * sizeof(int), sizeof(int));
    }
    if (msg.msg_flags & (MSG_TRUNC | MSG_CTRUNC) || count > fd_max) {
        for (size_t i = 0; i < count; i++)
            ::close(received[i]);
        // A process that is out of descriptors gets a cut record: it is to look for some and ask again.
        errno = msg.msg_flags & MSG_CTRUNC ? EMFILE : EPROTO;
        return -1;
    }
    for (size_t i = 0; i < count; i++)
        fds[i] = received[i];
    fd_count = count;
    return got;
}
