// qel-fabric: the name table and topology server of one fabric of the local transport. Options, the directory
// and the socket in it; the work is done in fabric_server.cpp.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fabric_server.h"

static const char g_help[] =
    "usage: qel-fabric [--foreground] [--ready-fd N]\n"
    "       qel-fabric --control \"COMMAND\"\n"
    "\n"
    "Serves the name table and the topology events of one fabric of QEL's local transport, for every "
    "process\n"
    "that runs with QEL_TRANSPORT=local and the same fabric directory: QEL_FABRIC, or else qel-fabric below\n"
    "XDG_RUNTIME_DIR. Makes the directory (mode 0700) if it is missing. Stays in the foreground and ends on\n"
    "SIGTERM or SIGINT.\n"
    "\n"
    "  --foreground     the only mode there is\n"
    "  --ready-fd N     write a newline to descriptor N and close it once processes can connect\n"
    "  --control C      have the fabric that runs on the directory carry out a command\n"
    "  --help           this text\n"
    "\n"
    "Commands. All but the first two make faults that a real link shows now and then; QEL_FABRIC_FAULTS may\n"
    "hold some for the start, separated by semicolons.\n"
    "  list             names and who publishes them, sockets, nodes\n"
    "  drop-topology    end all topology connections\n"
    "  event-delay MS   hold topology events back: a peer's message comes before its PUBLISHED\n"
    "  name-delay MS    publish a bound name late: sends to it fail with EHOSTUNREACH until then\n"
    "  lose-return N    lose every N-th message that is to go back to its sender; 0: none\n"
    "  congest NODE MS  sends from other nodes to node NODE (0..4095) block for that long, or give EAGAIN\n"
    "  cut NODE MS      cut node NODE off: its names go, sends to and from it fail, and come back "
    "afterwards\n"
    "  clear            no faults any more\n";

static int fail(const char *what, const char *object) {
    fprintf(stderr, "qel-fabric: %s %s: %s\n", what, object, strerror(errno));
    return 1;
}

static int control(const char *command) {
    qel_fd fd(qel_fabric_connect(qel_fabric_kind::control, 0));
    char dir[qel_fabric_dir_max] = "";
    (void)qel_fabric_dir(dir);
    if (!fd) {
        fprintf(stderr, "qel-fabric: no fabric at \"%s\": %s\n", dir, strerror(errno));
        return 1;
    }
    size_t none = 0;
    std::byte data[8192];
    if (qel_fabric_send(fd.fd, command, strlen(command), nullptr, 0, 0) < 0)
        return fail("cannot send to", dir);
    qel_fabric_reply reply{};
    ssize_t got = qel_fabric_recv(fd.fd, data, sizeof data, nullptr, 0, none, 0);
    if (got <= 0 || !qel_fabric_decode(std::span(data, static_cast<size_t>(got)), reply)) {
        fprintf(stderr, "qel-fabric: no answer from the fabric at \"%s\"\n", dir);
        return 1;
    }
    FILE *out = reply.error ? stderr : stdout;
    while ((got = qel_fabric_recv(fd.fd, data, sizeof data, nullptr, 0, none, 0)) > 0)
        (void)fwrite(data, 1, static_cast<size_t>(got), out);
    if (got < 0)
        return fail("no more answer from the fabric at", dir);
    return reply.error ? 1 : fflush(out) == 0 ? 0 : 1;
}

// The directory, locked, and the listening socket. -1: one line was printed.
static int open_directory(const char *path, qel_fd &dir) {
    if (mkdir(path, 0700) != 0 && errno != EEXIST)
        return fail("cannot make directory", path), -1;
    dir.reset(open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat st {};
    if (!dir || fstat(dir.fd, &st) != 0)
        return fail("cannot open directory", path), -1;
    if (st.st_uid != geteuid()) {
        fprintf(stderr, "qel-fabric: directory %s belongs to another user\n", path);
        return -1;
    }
    if (st.st_mode & 077) {
        fprintf(stderr, "qel-fabric: directory %s is open to others (mode %04o, must be 0700)\n", path,
                st.st_mode & 07777);
        return -1;
    }
    // The directory itself is locked: a file in it could be removed, and a second fabric take its place.
    if (flock(dir.fd, LOCK_EX | LOCK_NB) != 0) {
        if (errno == EWOULDBLOCK)
            fprintf(stderr, "qel-fabric: another one serves directory %s\n", path);
        else
            (void)fail("cannot lock", path);
        return -1;
    }
    // The lock is ours, so a socket that is still here belongs to nobody.
    if (unlinkat(dir.fd, qel_fabric_socket_name, 0) != 0 && errno != ENOENT)
        return fail("cannot remove the old socket in", path), -1;
    qel_fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address;
    qel_fabric_address(address, path, dir.fd);
    (void)umask(077);
    if (!fd || bind(fd.fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        listen(fd.fd, 4096) != 0)
        return fail("cannot listen in", path), -1;
    return fd.release();
}

int main(int argc, char **argv) {
    int ready_fd = -1;
    for (int i = 1; i < argc; i++) {
        const std::string option = argv[i];
        if (option == "--help") {
            fputs(g_help, stdout);
            return 0;
        }
        if (option == "--foreground")
            continue;
        if (option == "--control" && i + 2 == argc)
            return control(argv[i + 1]);
        char *end = nullptr;
        const long number = option == "--ready-fd" && i + 1 < argc ? strtol(argv[i + 1], &end, 10) : -1;
        if (!end || *end || end == argv[i + 1] || number < 0 || number > 1'000'000 ||
            fcntl(static_cast<int>(number), F_GETFD) < 0) {
            fprintf(stderr, "qel-fabric: bad argument \"%s\"; try --help\n", argv[i]);
            return 2;
        }
        ready_fd = static_cast<int>(number);
        i++;
    }

    char path[qel_fabric_dir_max];
    if (!qel_fabric_dir(path)) {
        fputs("qel-fabric: no directory: set QEL_FABRIC, or XDG_RUNTIME_DIR\n", stderr);
        return 1;
    }
    rlimit files{};
    if (getrlimit(RLIMIT_NOFILE, &files) == 0) {
        files.rlim_cur = files.rlim_max;
        (void)setrlimit(RLIMIT_NOFILE, &files);
    }
    (void)signal(SIGPIPE, SIG_IGN);
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    (void)sigprocmask(SIG_BLOCK, &stop, nullptr);
    const qel_fd signals(signalfd(-1, &stop, SFD_CLOEXEC));
    if (!signals)
        return fail("cannot take", "signals");

    qel_fd dir;
    const int listen_fd = open_directory(path, dir);
    if (listen_fd < 0)
        return 1;
    fabric::server server;
    if (!server.start(listen_fd))
        return 1;
    const char *faults = secure_getenv("QEL_FABRIC_FAULTS");
    std::string rest = faults ? faults : "";
    while (!rest.empty()) {
        const size_t cut = rest.find(';');
        const std::string one = rest.substr(0, cut);
        rest = cut == std::string::npos ? "" : rest.substr(cut + 1);
        std::string answer;
        if (one.find_first_not_of(" \t") != std::string::npos && !server.command(one, answer)) {
            fprintf(stderr, "qel-fabric: QEL_FABRIC_FAULTS: %s", answer.c_str());
            return 1;
        }
    }
    if (ready_fd >= 0) {
        [[maybe_unused]] const ssize_t written = write(ready_fd, "\n", 1);
        close(ready_fd);
    }
    server.run(signals.fd);
    (void)unlinkat(dir.fd, qel_fabric_socket_name, 0);
    return 0;
}
