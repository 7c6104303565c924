"""Runs commands on the nodes of one kernel for a test that sits outside it.

Usage: node_agent.py [TTY | --inside]. Speaks lines of JSON over TTY (in a guest) or over its standard input
and output (on the host and --inside a guest), ends when the other side closes, and takes everything it has
started with it.

To the agent:
    {"op": "spawn", "id": 1, "node": 2, "argv": [...], "env": {...}, "cwd": "/", "pty": false, "merge": true}
    {"op": "in", "id": 1, "data": "..."}   bytes for its standard input, one character each
    {"op": "eof", "id": 1}                 closes its standard input
    {"op": "kill", "id": 1, "sig": 9}      "group": true: its whole process group
    {"op": "quit"}
From the agent:
    {"ev": "hello"}
    {"ev": "started", "id": 1, "pid": 77}, or {"ev": "failed", "id": 1, "error": "..."}
    {"ev": "out", "id": 1, "fd": 1, "data": "..."}
    {"ev": "exit", "id": 1, "status": 0}   negative: the signal; everything it wrote before has been sent
    {"ev": "stopped", "id": 1}             after SIGSTOP to it alone: all its threads stand, or it has ended
    {"ev": "ack", "bytes": 2048}           input bytes consumed: a guest's terminal holds 4096 and then sticks

Node 0 is the kernel itself. Of the other nodes each has a network namespace n<node>, where the kernel has
any, and its files under /run/q/node<node>, which its processes see in a mount namespace of their own as
/run/node (where /etc/qel.conf, /tmp/addr and /velt lead).
"""
import ctypes
import errno
import fcntl
import json
import os
import pty
import select
import signal
import subprocess
import sys
import termios
import tty

CLONE_NEWNS, CLONE_NEWNET = 0x00020000, 0x40000000
ROOT = "/run/r"  # of the agent at a terminal of a guest
MS_BIND, MS_REC, MS_SLAVE = 4096, 16384, 1 << 19
PR_SET_CHILD_SUBREAPER = 36

libc = ctypes.CDLL(None, use_errno=True)


def check(ret, what):
    if ret != 0:
        err = ctypes.get_errno()
        raise OSError(err, f"{what}: {os.strerror(err)}")


class Namespaces:
    """The nodes of a guest. The agent itself steps into a node for the moment of starting a process there: a
    child made by vfork() is ten times faster here than one that forks the interpreter and steps over on its
    own."""

    def __init__(self, root):
        self.root = root  # None: that of the mount namespace
        self.home = self.open_own()
        self.mounts = {}  # node -> its mount namespace

    @staticmethod
    def open_own():
        return [os.open(f"/proc/self/ns/{kind}", os.O_RDONLY) for kind in ("net", "mnt")]

    def step(self, fd, kind):
        check(libc.setns(fd, kind), "setns")
        if kind == CLONE_NEWNS and self.root:
            os.chroot(self.root)  # setns() led to the root of the namespace

    def enter(self, node):
        netns = f"/run/netns/n{node}"
        if os.path.exists(netns):
            fd = os.open(netns, os.O_RDONLY)
            try:
                self.step(fd, CLONE_NEWNET)
            finally:
                os.close(fd)
        if node in self.mounts:
            self.step(self.mounts[node], CLONE_NEWNS)
            return
        check(libc.unshare(CLONE_NEWNS), "unshare")
        check(libc.mount(b"none", b"/run", None, MS_REC | MS_SLAVE, None), "mount /run")
        check(libc.mount(f"/run/q/node{node}".encode(), b"/run/node", None, MS_BIND, None), "mount /run/node")
        self.mounts[node] = os.open("/proc/self/ns/mnt", os.O_RDONLY)

    def leave(self):
        self.step(self.home[0], CLONE_NEWNET)
        self.step(self.home[1], CLONE_NEWNS)


class Child:
    def __init__(self, proc, stdin, outputs):
        self.proc = proc
        self.stdin = stdin  # None: closed
        self.pending = b""
        self.eof = False
        self.outputs = outputs  # descriptor -> 1 or 2


class Agent:
    def __init__(self, fd_in, fd_out, guest):
        self.fd_in, self.fd_out, self.guest = fd_in, fd_out, guest
        self.children = {}
        self.input = b""
        self.poll = select.poll()
        self.by_fd = {}
        self.namespaces = Namespaces(ROOT if fd_in == fd_out else None) if guest else None

    def tell(self, **event):
        data = json.dumps(event, separators=(",", ":")).encode() + b"\n"
        while data:
            data = data[os.write(self.fd_out, data):]

    def spawn(self, op):
        node = op.get("node", 0)
        outer = {}
        if op.get("pty"):
            master, slave = pty.openpty()
            attr = termios.tcgetattr(slave)
            attr[1] &= ~termios.ONLCR  # output byte for byte
            attr[3] &= ~termios.ECHO
            termios.tcsetattr(slave, termios.TCSANOW, attr)
            files = {"stdin": slave, "stdout": slave, "stderr": slave}
        else:
            files = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE,
                     "stderr": subprocess.STDOUT if op.get("merge", True) else subprocess.PIPE}

        def own_terminal():
            fcntl.ioctl(0, termios.TIOCSCTTY, 0)

        try:
            try:
                if node and self.guest:
                    self.namespaces.enter(node)
                proc = subprocess.Popen(op["argv"], env=op.get("env"), cwd=op.get("cwd"),
                                        start_new_session=True,
                                        preexec_fn=own_terminal if op.get("pty") else None, **files)
            finally:
                if node and self.guest:
                    self.namespaces.leave()
        except (OSError, subprocess.SubprocessError) as e:
            if op.get("pty"):
                os.close(master)
                os.close(slave)
            self.tell(ev="failed", id=op["id"], error=str(e))
            return
        if op.get("pty"):
            os.close(slave)
            stdin, outer = master, {master: 1}
        else:
            stdin = proc.stdin.fileno()
            outer = {proc.stdout.fileno(): 1}
            if proc.stderr:
                outer[proc.stderr.fileno()] = 2
        for fd in {stdin, *outer}:
            os.set_blocking(fd, False)
        self.children[op["id"]] = child = Child(proc, stdin, outer)
        for fd in outer:
            self.by_fd[fd] = (op["id"], child)
            self.poll.register(fd, select.POLLIN)
        self.tell(ev="started", id=op["id"], pid=proc.pid)

    def forget(self, fd):
        self.poll.unregister(fd)
        del self.by_fd[fd]

    def feed(self, child):
        while child.pending and child.stdin is not None:
            try:
                child.pending = child.pending[os.write(child.stdin, child.pending):]
            except BlockingIOError:
                return
            except OSError:  # it does not read any more
                child.pending = b""
        if child.eof and not child.pending and child.stdin is not None:
            if child.proc.stdin:
                child.proc.stdin.close()
            else:
                os.write(child.stdin, b"\x04")  # a terminal's end of input
            child.stdin = None

    def drain(self, fd):
        """Everything that is readable now. False at the end of the output."""
        ident, child = self.by_fd[fd]
        while True:
            try:
                data = os.read(fd, 16384)
            except BlockingIOError:
                return True
            except OSError as e:
                if e.errno != errno.EIO:  # the last user of a terminal is gone
                    raise
                data = b""
            if not data:
                self.forget(fd)
                return False
            self.tell(ev="out", id=ident, fd=child.outputs[fd], data=data.decode("latin-1"))

    def reap(self):
        for ident, child in list(self.children.items()):
            status = child.proc.poll()
            if status is None:
                continue
            # A child of it may still hold the output; what has been written until now counts.
            for fd in child.outputs:
                if fd in self.by_fd and self.drain(fd):
                    self.forget(fd)
            for file in (child.proc.stdin, child.proc.stdout, child.proc.stderr):
                if file:
                    file.close()
            for fd in child.outputs:
                if not child.proc.stdout:
                    os.close(fd)
            del self.children[ident]
            self.tell(ev="exit", id=ident, status=status)

    def signal(self, op):
        child = self.children.get(op["id"])
        if child is None or child.proc.returncode is not None:
            return
        pid, group = child.proc.pid, op.get("group")
        try:
            (os.killpg if group else os.kill)(pid, op["sig"])
            if op["sig"] == signal.SIGSTOP and not group:
                # It runs on until the kernel comes round to it, on a busy host for a good while.
                os.waitid(os.P_PID, pid, os.WSTOPPED | os.WEXITED | os.WNOWAIT)
                self.tell(ev="stopped", id=op["id"])
        except (ProcessLookupError, ChildProcessError):
            pass

    def handle(self, line):
        op = json.loads(line)
        what = op["op"]
        if what == "spawn":
            self.spawn(op)
        elif what == "in" and op["id"] in self.children:
            self.children[op["id"]].pending += op["data"].encode("latin-1")
        elif what == "eof" and op["id"] in self.children:
            self.children[op["id"]].eof = True
        elif what == "kill":
            self.signal(op)
        return what != "quit"

    def run(self):
        wake_r, wake_w = os.pipe()
        os.set_blocking(wake_w, False)
        os.set_blocking(wake_r, False)
        signal.set_wakeup_fd(wake_w, warn_on_full_buffer=False)
        signal.signal(signal.SIGCHLD, lambda *_: None)
        ended = []
        for sig in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            signal.signal(sig, lambda *_: ended.append(1))
        libc.prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
        self.poll.register(self.fd_in, select.POLLIN)
        self.poll.register(wake_r, select.POLLIN)
        self.tell(ev="hello")
        while not ended:
            waiting = any(c.pending or c.eof and c.stdin is not None for c in self.children.values())
            for fd, _ in self.poll.poll(5 if waiting else None):
                if fd == self.fd_in:
                    data = os.read(fd, 65536)
                    if not data:
                        return
                    self.tell(ev="ack", bytes=len(data))
                    *lines, self.input = (self.input + data).split(b"\n")
                    if not all([self.handle(line) for line in lines]):
                        return
                elif fd == wake_r:
                    os.read(fd, 4096)
                elif fd in self.by_fd:
                    self.drain(fd)
            for child in self.children.values():
                self.feed(child)
            self.reap()

    def end(self):
        for child in self.children.values():
            try:
                os.killpg(child.proc.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        # Whatever left its group has become a child of this process.
        while True:
            with open(f"/proc/self/task/{os.getpid()}/children") as f:
                pids = [int(p) for p in f.read().split()]
            if not pids:
                return
            for pid in pids:
                os.kill(pid, signal.SIGKILL)
                os.waitpid(pid, 0)


def main():
    inside = sys.argv[1:] == ["--inside"]
    if len(sys.argv) > 1 and not inside:
        fd = os.open(sys.argv[1], os.O_RDWR | os.O_NOCTTY)
        tty.setraw(fd)
        agent = Agent(fd, fd, True)
    else:
        # The descriptors of the protocol must not reach the children.
        commands, events = (fcntl.fcntl(fd, fcntl.F_DUPFD_CLOEXEC, 10) for fd in (0, 1))
        agent = Agent(commands, events, inside)
        null = os.open("/dev/null", os.O_RDWR)
        os.dup2(null, 0)
        os.dup2(2, 1)
    try:
        agent.run()
    except OSError as e:
        if e.errno not in (errno.EIO, errno.EPIPE):  # the other side is gone
            raise
    finally:
        agent.end()


if __name__ == "__main__":
    main()
