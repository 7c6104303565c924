#!/usr/bin/env python3
"""Real TIPC for tests: boots user-mode-linux kernels, without root and without touching the host's files.

    uml.py [--nodes N] [--timeout S] [--out DIR]... [--node I] -- COMMAND...

boots one kernel with N nodes (network namespaces with the TIPC addresses 1.1.1 to 1.1.N, linked), runs
COMMAND in it as root in a copy-on-write view of the host's file system, and ends with its status. Each DIR is
the host's own directory: what COMMAND writes there stays. Inside, `onnode I command...` runs a process of
node I; --node I does so with COMMAND. 124 is the status of a time-out, 125 of a kernel that could not be
started or broke.

    uml.py --kernels 2 [--loss PERCENT] ... -- COMMAND1 ++ COMMAND2

boots two kernels of one node each, joined by a real TIPC link, runs COMMAND1 on node 1 and COMMAND2 on node
2, and ends with the first status that is not 0.

As a module: Kernels starts them and runs processes on their nodes; qel_nodes.py stands on it. What a test
must know about the two set-ups: messages between namespaces of one kernel take a short cut, there is no link
window, no fragmentation, no loss; between two kernels there is. A guest has one processor and hides data
races.
"""
import argparse
import ctypes
import glob
import itertools
import json
import os
import select
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
AGENT = os.path.join(HERE, "..", "support", "node_agent.py")
MEMORY = "512M"
BOOT_TIMEOUT_S = 90  # 3 s on an idle host
QUIT_TIMEOUT_S = 5  # a tenth of a second on an idle host
INPUT_WINDOW = 2048  # what may be on its way into a guest; more than 4096 and its terminal sticks
VECTOR_SOCKET_BYTES = 4 << 20
PR_SET_PDEATHSIG = 1


class KernelError(Exception):
    """The kernel could not be started or broke; the text tells why."""


def die_with_parent():
    ctypes.CDLL(None).prctl(PR_SET_PDEATHSIG, signal.SIGTERM, 0, 0, 0)


def missing():
    """What this host lacks for a kernel: a text, or None."""
    lacking = [package for program, package in (
        ("linux.uml", "user-mode-linux"), ("tipc", "iproute2"), ("ip", "iproute2"),
    ) if not shutil.which(program, path=os.environ.get("PATH", "") + ":/usr/sbin:/sbin")]
    if not lacking and not glob.glob("/usr/lib/uml/modules/*/kernel/net/tipc/tipc.ko"):
        lacking = ["user-mode-linux"]
    if lacking:
        return "real TIPC needs Debian packages that are missing here: " + " ".join(sorted(set(lacking))) + \
            "\n(apt-get install user-mode-linux iproute2)"
    return None


class Channel:
    """The host's end of an agent's lines. Subclass hooks: received(event), closed()."""

    def __init__(self, sock_in, sock_out, window=None):
        self.sock_in, self.sock_out, self.window = sock_in, sock_out, window
        self.credit = threading.Condition()
        self.unread = 0
        self.is_closed = False
        self.sending = threading.Lock()

    def listen(self, received, closed):
        self.received, self.on_closed = received, closed
        self.reader = threading.Thread(target=self.read, daemon=True)
        self.reader.start()

    def read(self):
        text = b""
        while True:
            try:
                data = os.read(self.sock_in, 65536)
            except OSError:
                data = b""
            if not data:
                break
            *lines, text = (text + data).split(b"\n")
            for line in lines:
                event = json.loads(line)
                if event["ev"] == "ack":
                    with self.credit:
                        self.unread -= event["bytes"]
                        self.credit.notify_all()
                else:
                    self.received(event)
        with self.credit:
            self.is_closed = True
            self.credit.notify_all()
        self.on_closed()

    def send(self, **op):
        data = json.dumps(op, separators=(",", ":")).encode() + b"\n"
        with self.sending:
            while data:
                part = len(data)
                if self.window:
                    with self.credit:
                        self.credit.wait_for(lambda: self.unread < self.window or self.is_closed)
                        part = min(part, self.window - self.unread)
                        self.unread += part
                if self.is_closed:
                    raise KernelError("the nodes are gone")
                part = os.write(self.sock_out, data[:part])
                data = data[part:]


class Guard:
    """Cleans up after this process if it is killed: ends process groups, removes a directory."""

    SCRIPT = """groups=
        while read word; do [ "$word" = done ] && exit 0; groups="$groups -$word"; done
        [ -z "$groups" ] || kill -KILL -- $groups
        exec rm -rf -- "$1" """

    def __init__(self, directory):
        self.proc = subprocess.Popen(["sh", "-c", self.SCRIPT, "guard", directory], stdin=subprocess.PIPE,
                                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                     start_new_session=True)

    def add(self, group):
        self.proc.stdin.write(b"%d\n" % group)
        self.proc.stdin.flush()

    def dismiss(self):
        if self.proc.returncode is None:
            self.proc.communicate(b"done\n")


class Guest:
    """One running user-mode-linux."""

    def __init__(self, number, work, arguments, links, guard):
        self.console = os.path.join(work, f"console{number}")
        self.failed = os.path.join(work, f"failed{number}")
        ours, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_STREAM)
        command = ["linux.uml", f"mem={MEMORY}", "rootfstype=hostfs", "rootflags=/", "rw", "quiet",
                   f"init={work}/guest_init.py", f"W={work}", f"FAILED={self.failed}", f"uml_dir={work}/uml/",
                   f"umid=k{number}",
                   "con=null", "con0=null,fd:2", f"con1=fd:{theirs.fileno()}", "ssl=null"]
        command += [f"{k}={v}" for k, v in arguments.items()]
        for i, (sock, mac) in enumerate(links):
            command.append(f"vec{i}:transport=fd,fd={sock.fileno()},depth=128,mac={mac}")
        with open(self.console, "wb") as console:
            self.proc = subprocess.Popen(
                command, stdin=subprocess.DEVNULL, stdout=console, stderr=console, start_new_session=True,
                env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "TMPDIR": self.memory_dir(), "HOME": work},
                pass_fds=[theirs.fileno()] + [sock.fileno() for sock, _ in links])
        guard.add(self.proc.pid)
        self.pidfd = os.pidfd_open(self.proc.pid)
        theirs.close()
        self.sock = ours
        self.channel = Channel(ours.fileno(), ours.fileno(), INPUT_WINDOW)

    @staticmethod
    def memory_dir():
        """Where the guest's memory lies, as an unlinked sparse file."""
        return "/dev/shm" if os.access("/dev/shm", os.W_OK) else tempfile.gettempdir()

    def trouble(self):
        """What is known about its end."""
        text = ""
        if os.path.exists(self.failed):
            with open(self.failed) as f:
                text += f.read().strip() + "\n"
        end = os.waitid(os.P_PID, self.proc.pid, os.WEXITED | os.WNOHANG | os.WNOWAIT)
        text += "it is running\n" if end is None else f"its status is {end.si_status}\n"
        with open(self.console, "rb") as f:
            lines = f.read().decode("latin-1").replace("\r", "").splitlines()
        return text + "\n".join("  console: " + line for line in lines[-40:] if line.strip())

    def ended(self, timeout_s):
        """Whether it ends within that time; its process ID stays taken."""
        poll = select.poll()
        poll.register(self.pidfd, select.POLLIN)
        return bool(poll.poll(timeout_s * 1000))

    def quit(self):
        """Asks it to power off."""
        try:
            self.sock.shutdown(socket.SHUT_WR)  # its agent sees the end of its input
        except OSError:
            pass

    def stop(self):
        """Ends it and whatever it left. It is to power off by itself: by SIGTERM it hangs now and then."""
        self.quit()
        if not self.ended(QUIT_TIMEOUT_S):
            self.proc.terminate()
            self.ended(QUIT_TIMEOUT_S)
        try:
            os.killpg(self.proc.pid, signal.SIGKILL)
        except (ProcessLookupError, PermissionError):
            pass
        self.proc.wait()
        try:
            self.sock.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        if hasattr(self.channel, "reader"):
            self.channel.reader.join()
        self.sock.close()
        os.close(self.pidfd)


class Kernels:
    """Running kernels with linked nodes 1..nodes: all in one kernel (kernels=1) or one in each
    (kernels=nodes).

    @work is an existing directory for this object alone; work/node<n>/ become the nodes' own files (etc/,
    tmp/addr/, velt/), seen by their processes under the product's fixed paths. @mounts are directories that
    the guests may write to. The events of the agents go to received(kernel_index, event);
    closed(kernel_index) tells that one ended.
    """

    def __init__(self, nodes, kernels, work, received, closed, mounts=(), boot_timeout_s=BOOT_TIMEOUT_S):
        if text := missing():
            raise KernelError(text)
        if kernels not in (1, nodes) or nodes < 1:
            raise KernelError("all nodes in one kernel, or one in each")
        if any(c in os.path.abspath(work) for c in " ,:"):
            raise KernelError(f"the path of the work directory has a blank, comma or colon: {work}")
        self.nodes, self.kernels, self.work = nodes, kernels, os.path.abspath(work)
        for n in range(1, nodes + 1):
            make_node_files(self.work, n)
        os.mkdir(os.path.join(self.work, "uml"))
        for source, name in ((os.path.join(HERE, "guest_init.py"), "guest_init.py"), (AGENT, "agent.py"),
                             (os.path.join(HERE, "onnode"), "onnode")):
            shutil.copyfile(source, os.path.join(self.work, name))
            os.chmod(os.path.join(self.work, name), 0o755)
        with open(os.path.join(self.work, "mounts"), "w") as f:
            f.writelines(os.path.abspath(m) + "\n" for m in mounts)
        hellos = [threading.Event() for _ in range(kernels)]
        self.guests = []
        self.guard = Guard(self.work)
        wires = []
        links = [[] for _ in range(kernels)]
        for a, b in itertools.combinations(range(kernels), 2):
            pair = socket.socketpair(socket.AF_UNIX, socket.SOCK_DGRAM)
            for sock, here in zip(pair, (a, b)):
                sock.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, VECTOR_SOCKET_BYTES)
                links[here].append((sock, f"02:00:00:00:{len(links[here]):02x}:{here + 1:02x}"))
            wires += pair

        def on_event(k, event):
            if event["ev"] == "hello":
                hellos[k].set()
            else:
                received(k, event)

        try:
            for k in range(kernels):
                arguments = {"NODES": nodes, "PEERS": nodes - 1} if kernels == 1 else \
                    {"NODES": 0, "SELF": k + 1, "LINKS": len(links[k]), "PEERS": nodes - 1}
                self.guests.append(Guest(k + 1, self.work, arguments, links[k], self.guard))
            for k, guest in enumerate(self.guests):
                guest.channel.listen(lambda event, k=k: on_event(k, event),
                                     lambda k=k: (hellos[k].set(), closed(k)))
            deadline = time.monotonic() + boot_timeout_s
            for hello, guest in zip(hellos, self.guests):
                if not hello.wait(max(0, deadline - time.monotonic())):
                    raise KernelError(f"a kernel did not start in {boot_timeout_s} s: " + guest.trouble())
                if guest.channel.is_closed:
                    guest.ended(10)
                    raise KernelError("a kernel did not start: " + guest.trouble())
        except BaseException:
            self.stop()
            raise
        finally:
            for sock in wires:
                sock.close()

    def of_node(self, node):
        return 0 if self.kernels == 1 or node == 0 else node - 1

    def channel(self, node):
        return self.guests[self.of_node(node)].channel

    def stop(self):
        for guest in self.guests:
            guest.quit()
        for guest in self.guests:
            guest.stop()
        self.guests = []
        self.guard.dismiss()


def make_node_files(work, node):
    """The files of one node: its address and no configuration. Gives its directory."""
    root = os.path.join(work, f"node{node}")
    for d in ("etc", "tmp/addr", "velt"):
        os.makedirs(os.path.join(root, d))
    with open(os.path.join(root, "tmp/addr/.qel_node_addr"), "w") as f:
        f.write(f"{node}\n")
    return root


def main():
    parser = argparse.ArgumentParser(usage=__doc__.split("\n\n", 1)[1], add_help=True)
    parser.add_argument("--nodes", type=int, default=1)
    parser.add_argument("--kernels", type=int, default=1)
    parser.add_argument("--timeout", type=float, default=300)
    parser.add_argument("--loss", type=float, default=0)
    parser.add_argument("--node", type=int, default=0)
    parser.add_argument("--out", action="append", default=[])
    parser.add_argument("command", nargs=argparse.REMAINDER)
    args = parser.parse_args()
    words = args.command[1:] if args.command[:1] == ["--"] else args.command
    if args.kernels > 1:
        args.nodes = args.kernels
        commands = [list(g) for sep, g in itertools.groupby(words, lambda w: w == "++") if not sep]
        if len(commands) != args.kernels:
            parser.error("one command for each kernel, separated by ++")
    else:
        commands = [words]
    if not all(commands) or not commands:
        parser.error("a command is needed")
    deadline = time.monotonic() + args.timeout
    changed = threading.Condition()
    ends = {}

    def received(k, event):
        if event["ev"] == "out":
            stream = sys.stdout if event["fd"] == 1 else sys.stderr
            stream.buffer.write(event["data"].encode("latin-1"))
            stream.flush()
        elif event["ev"] in ("exit", "failed"):
            if event["ev"] == "failed":
                print(f"uml.py: {event['error']}", file=sys.stderr)
            with changed:
                ends.setdefault((k, event["id"]), event.get("status", 127))
                changed.notify_all()

    def closed(k):
        with changed:
            for ident in range(1 + len(commands) + 1):
                ends.setdefault((k, ident), "the kernel is gone")
            changed.notify_all()

    def wait_all(keys):
        with changed:
            left = max(0, deadline - time.monotonic())
            if not changed.wait_for(lambda: all(k in ends for k in keys), left):
                print(f"uml.py: not done after {args.timeout:g} s", file=sys.stderr)
                return 124
        status = 0
        for k in keys:
            if isinstance(ends[k], str):
                print("uml.py: " + ends[k] + ": " + kernels.guests[k[0]].trouble(), file=sys.stderr)
                return 125
            status = status or (128 - ends[k] if ends[k] < 0 else ends[k])
        return status

    # A terminated uml.py still stops its kernels and clears its files.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))
    signal.signal(signal.SIGHUP, lambda *_: sys.exit(128 + signal.SIGHUP))
    kernels = None
    with tempfile.TemporaryDirectory(prefix="qel-uml-", ignore_cleanup_errors=True) as work:
        try:
            kernels = Kernels(args.nodes, args.kernels, work, received, closed, args.out,
                              min(BOOT_TIMEOUT_S, args.timeout))
            env = dict(os.environ, PATH="/run/q:/usr/sbin:/usr/bin:/sbin:/bin", HOME="/root", TMPDIR="/tmp")
            if args.loss and args.kernels > 1:
                for k in range(args.kernels):
                    kernels.guests[k].channel.send(
                        op="spawn", id=0, env=env, cwd="/",
                        argv=["tc", "qdisc", "add", "dev", "vec0", "root", "netem", "loss", f"{args.loss}%"])
                if status := wait_all([(k, 0) for k in range(args.kernels)]):
                    return status
            keys = []
            for i, command in enumerate(commands):
                node = i + 1 if args.kernels > 1 else args.node
                kernels.channel(node).send(op="spawn", id=i + 1, node=node, argv=command, cwd=os.getcwd(),
                                           env=env, merge=False)
                kernels.channel(node).send(op="eof", id=i + 1)
                keys.append((kernels.of_node(node), i + 1))
            return wait_all(keys)
        except KernelError as e:
            print(f"uml.py: {e}", file=sys.stderr)
            return 125
        finally:
            if kernels:
                kernels.stop()


if __name__ == "__main__":
    sys.exit(main())
