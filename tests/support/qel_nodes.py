"""Nodes of a device for tests of whole programs: start processes on them, talk to them, kill them.

    from qel_nodes import Cluster

    with Cluster(nodes=2) as cluster:                   # the back end: see below
        a, b = cluster.node(1), cluster.node(2)
        a.write_conf("[MISC_CONF]\\nqel_log_cfg = 15\\n")
        daemon = a.spawn([QELD], pty=True)
        daemon.expect(r"^  valid commands")             # over whole lines, waits up to 10 s
        daemon.send("show qel status")
        match = daemon.expect(r"current node ID: (\\d+)", timeout=3)
        daemon.expect_prompt(r"\\(qel\\)$")             # text without an end of line yet
        peer = b.spawn([AGENT, "5"], env={"X": "1"})
        peer.kill(signal.SIGSTOP); peer.kill(signal.SIGCONT); peer.kill(signal.SIGKILL)
        assert peer.wait(5) == -signal.SIGKILL
        assert a.run(["true"]).status == 0              # spawn and wait; .output is what it wrote

The back end (argument, else the environment variable QEL_TEST_BACKEND, else "local") decides what a node is:

    local   a directory, with the processes on this host and the local transport (a qel-fabric of its own)
    netns   a network namespace of one user-mode-linux kernel with real TIPC
    pair    a user-mode-linux kernel of its own with real TIPC over a real link (2 nodes; more in full mesh)

A test that runs in a guest which has such nodes (kernel/vm.py) uses those for netns.

A test needs no change between them. Commands, their arguments and their files are paths of this host in all
three; in a kernel the host's file system is seen copy-on-write: what a process writes there is lost, and what
the host changes there after the start may not be seen. Exchanged in both directions at any time are the files
of a node, below node.root, laid out alike in all back ends:

    node.root/etc/qel.conf                  its configuration; absent until write_conf()
    node.root/tmp/addr/.qel_node_addr       its number
    node.root/velt                          its VELT_DIR (node.velt_dir)

and the directories given as mounts=[...], where processes in a kernel may write to the host.

A local process gets QEL_TRANSPORT, QEL_FABRIC, QEL_ROOT and VELT_DIR; one in a kernel gets
QEL_TRANSPORT=kernel and finds the files at the product's fixed paths (/etc/qel.conf, /tmp/addr, /velt). All
other variables are those of the test, with env=... on top (a value of None removes one). Standard output of a
process that is no terminal is block-buffered by the C library: use pty=True (a terminal without echo) or a
program that flushes.

A start takes 3 to 5 s with a kernel: share one Cluster between tests (setUpClass) and call cluster.reset()
between them, which kills all processes and restores the files of the nodes.

Leaving the "with" block kills every process and kernel and removes every file. If it is left by an exception,
the output of all processes is shown first, with times; cluster.dump() shows it at any time.

node.cut() and node.mend() take a node off the network and back, in every back end.
cluster.loss(percent) makes every wire lose packets; in netns that concerns link state and names only.
"""
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "kernel"))
import guest_init  # noqa: E402
import uml  # noqa: E402

AGENT = os.path.join(HERE, "node_agent.py")
BACKENDS = ("local", "netns", "pair")
START_TIMEOUT_S = 20
DUMP_LINES = 200


class NodeError(Exception):
    """A process, a node or the cluster did not do what the test asked of it."""


class Proc:
    """One process on a node. Its output is text, one character per byte."""

    def __init__(self, node, ident, argv):
        self.node, self.ident, self.argv = node, ident, argv
        self.pid = None
        self.status = None  # negative: the signal
        self.error = None
        self.stops = 0
        self.chunks = []  # (seconds since the start of the cluster, text)
        self.text = ""
        self.err_text = ""  # with merge=False
        self.position = 0  # up to where expect() has come
        self.changed = node.cluster.changed

    def __repr__(self):
        return f"<node {self.node.number}: {' '.join(self.argv)}>"

    def event(self, event):  # with the lock of the cluster
        what = event["ev"]
        if what == "started":
            self.pid = event["pid"]
        elif what == "failed":
            self.error, self.status = event["error"], 127
        elif what == "out":
            self.chunks.append((time.monotonic() - self.node.cluster.begin, event["data"]))
            if event["fd"] == 1:
                self.text += event["data"]
            else:
                self.err_text += event["data"]
        elif what == "stopped":
            self.stops += 1
        elif what == "exit":
            self.status = event["status"]

    @property
    def lines(self):
        """The whole lines of its output so far."""
        with self.changed:
            return self.text.replace("\r\n", "\n").split("\n")[:-1]

    @property
    def output(self):
        with self.changed:
            return self.text

    @property
    def alive(self):
        with self.changed:
            return self.status is None

    def write(self, text):
        """Writes to its standard input, without waiting for it to read."""
        self.node.tell(op="in", id=self.ident, data=text)

    def send(self, line):
        self.write(line + "\n")

    def close_stdin(self):
        """The end of its input (Ctrl-D on a terminal)."""
        self.node.tell(op="eof", id=self.ident)

    def kill(self, sig=signal.SIGKILL, group=False):
        """Sends a signal; nothing happens if it has ended. @group: to all processes of its session's first
        group. After SIGSTOP without @group it stands when this returns."""
        with self.changed:
            stops = self.stops
        self.node.tell(op="kill", id=self.ident, sig=int(sig), group=group)
        if sig == signal.SIGSTOP and not group:
            with self.changed:
                if not self.changed.wait_for(lambda: self.stops > stops or self.status is not None, 10):
                    raise NodeError(f"{self} does not stop")

    def wait(self, timeout=10):
        """Waits for its end. Gives its status, negative for a signal."""
        with self.changed:
            if not self.changed.wait_for(lambda: self.status is not None, timeout):
                raise NodeError(f"{self} still runs after {timeout} s")
            self.node.cluster.check()
            return self.status

    def expect(self, pattern, timeout=10):
        """Waits until @pattern (multi-line mode) is in whole lines behind the last match. Gives the match."""
        return self._search(pattern, timeout, lambda: self.text.rfind("\n") + 1)

    def expect_prompt(self, pattern, timeout=10):
        """As expect(), over all output so far, also an unfinished line."""
        return self._search(pattern, timeout, lambda: len(self.text))

    def refute(self, pattern, seconds):
        """Fails if @pattern comes behind the last match within @seconds."""
        try:
            match = self._search(pattern, seconds, lambda: len(self.text), may_end=True)
        except TimeoutError:
            return
        raise NodeError(f"{self} wrote what it must not: {match.group(0)!r}")

    def skip(self):
        """The next expect() looks only at what comes from now on."""
        with self.changed:
            self.position = len(self.text)

    def _search(self, pattern, timeout, end, may_end=False):
        regex = re.compile(pattern, re.MULTILINE)
        deadline = time.monotonic() + timeout
        with self.changed:
            while True:
                self.node.cluster.check()
                match = regex.search(self.text, min(self.position, end()), end())
                if match:
                    self.position = match.end()
                    return match
                left = deadline - time.monotonic()
                if left <= 0 or (self.status is not None and not may_end):
                    why = f"not in {timeout} s"
                    if self.status is not None:
                        why = f"it ended with status {self.status}"
                    tail = self.text[self.position:][-2000:]
                    error = ExpectTimeout if self.status is None or may_end else NodeError
                    raise error(f"{self}: no {pattern!r}: {why}; behind the last match stands:\n{tail}")
                self.changed.wait(left)


class ExpectTimeout(NodeError, TimeoutError):
    pass


class Done:
    def __init__(self, status, output):
        self.status, self.output = status, output


class Node:
    def __init__(self, cluster, number, root):
        self.cluster, self.number, self.root = cluster, number, root
        self.velt_dir = os.path.join(root, "velt")
        self.conf_path = os.path.join(root, "etc/qel.conf")
        self.addr_path = os.path.join(root, "tmp/addr/.qel_node_addr")

    def tell(self, **op):
        self.cluster.channel(self.number).send(**op)

    def write_conf(self, text):
        with open(self.conf_path, "w") as f:
            f.write(text)

    def write_addr(self, text):
        with open(self.addr_path, "w") as f:
            f.write(text)

    def environment(self, changes):
        env = {k: v for k, v in os.environ.items() if not k.startswith("QEL_TRANSPORT")}
        for name in ("QEL_FABRIC", "QEL_ROOT", "VELT_DIR"):
            env.pop(name, None)
        env.update(self.cluster.environment(self))
        env.update(changes or {})
        return {k: str(v) for k, v in env.items() if v is not None}

    def spawn(self, argv, env=None, pty=False, merge=True, cwd=None):
        """Starts a process; it runs the program when this returns. @merge=False: standard error apart,
        err_text."""
        cluster = self.cluster
        argv = [str(a) for a in argv]
        with cluster.changed:
            cluster.check()
            cluster.last_id += 1
            proc = Proc(self, cluster.last_id, argv)
            cluster.procs[proc.ident] = proc
        self.tell(op="spawn", id=proc.ident, node=self.number, argv=argv, env=self.environment(env), pty=pty,
                  merge=merge, cwd=cwd or os.getcwd())
        with cluster.changed:
            ok = cluster.changed.wait_for(lambda: proc.pid or proc.error or cluster.broken, START_TIMEOUT_S)
            cluster.check()
            if not ok or proc.error:
                raise NodeError(f"{proc} did not start: {proc.error or 'no answer'}")
        return proc

    def run(self, argv, timeout=30, check=False, **kw):
        """Runs a process to its end. @check: a status other than 0 is an error."""
        proc = self.spawn(argv, **kw)
        proc.close_stdin()
        status = proc.wait(timeout)
        if check and status != 0:
            raise NodeError(f"{proc} ended with status {status}:\n{proc.text}")
        return Done(status, proc.text)

    def kill_all(self, sig=signal.SIGKILL):
        """Signals all running processes of this node (a power failure, as far as processes see one)."""
        procs = [p for p in self.cluster.running() if p.node is self]
        for proc in procs:
            proc.kill(sig, group=True)
        if sig == signal.SIGKILL:
            for proc in procs:
                proc.wait()

    def cut(self):
        if self.cluster.fabric:
            self.cluster.control(f"cut {self.number} 3600000")
            return
        # An interface set down cannot come up again where it is a wire between two kernels.
        self._bearer("disable")

    def mend(self):
        if self.cluster.fabric:
            self.cluster.control(f"cut {self.number} 0")
            return
        self._bearer("enable")

    def _bearer(self, verb):
        self.run(["tipc", "bearer", verb, "media", "eth", "device", self.cluster.interface()], check=True)


class Cluster:
    def __init__(self, backend=None, nodes=2, mounts=()):
        self.backend = backend or os.environ.get("QEL_TEST_BACKEND", "local")
        if self.backend not in BACKENDS:
            raise NodeError(f"QEL_TEST_BACKEND is {self.backend!r}; it may be " + ", ".join(BACKENDS))
        self.begin = time.monotonic()
        self.changed = threading.Condition(threading.RLock())
        self.procs = {}
        self.last_id = 0
        self.broken = None
        self.closing = False
        self.kernels = self.agent = self.fabric = self.guard = None
        self.inside = self.backend == "netns" and os.path.exists("/run/netns/n1")
        self.work = "/run/q" if self.inside else tempfile.mkdtemp(prefix="qn-")
        try:
            if self.inside:
                self._start_inside(nodes)
            elif self.backend == "local":
                self.guard = uml.Guard(self.work)
                self._start_local(nodes)
            else:
                self.kernels = uml.Kernels(nodes, 1 if self.backend == "netns" else nodes, self.work,
                                           lambda _, event: self._received(event), self._closed, mounts)
            self.nodes = [Node(self, n, os.path.join(self.work, f"node{n}")) for n in range(1, nodes + 1)]
        except uml.KernelError as e:
            self.close()
            raise NodeError(str(e)) from None
        except BaseException:
            self.close()
            raise

    def node(self, number):
        return self.nodes[number - 1]

    # ---- the local back end
    def _start_local(self, nodes):
        for n in range(1, nodes + 1):
            uml.make_node_files(self.work, n)
        self.fabric_dir = os.path.join(self.work, "fabric")
        self.start_fabric()
        self._start_agent()

    def _start_inside(self, nodes):
        """This is a guest that has nodes: uses the first of them, the others unlinked."""
        for n in range(1, 1 + len(os.listdir("/run/netns"))):
            shutil.rmtree(os.path.join(self.work, f"node{n}"), ignore_errors=True)
            uml.make_node_files(self.work, n)
            verb = "enable" if n <= nodes else "disable"
            subprocess.run(["ip", "netns", "exec", f"n{n}", "tipc", "bearer", verb, "media", "eth",
                            "device", "eth0"], stderr=subprocess.DEVNULL, check=False)
        guest_init.wait_for_links(range(1, nodes + 1), nodes - 1)
        self._start_agent("--inside")

    def _start_agent(self, *arguments):
        self.agent = subprocess.Popen([sys.executable, "-B", "-E", "-S", AGENT, *arguments],
                                      stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                      preexec_fn=uml.die_with_parent)
        self.local_channel = uml.Channel(self.agent.stdout.fileno(), self.agent.stdin.fileno())
        self.local_channel.listen(self._received, lambda: self._closed(0))

    def start_fabric(self):
        """Starts the fabric of the local back end; also after stop_fabric()."""
        ready, theirs = os.pipe()
        program = os.environ.get("QEL_FABRIC_BIN", "qel-fabric")
        self.fabric = subprocess.Popen([program, "--ready-fd", str(theirs)], pass_fds=[theirs],
                                       env={**os.environ, "QEL_FABRIC": self.fabric_dir},
                                       preexec_fn=uml.die_with_parent)
        os.close(theirs)
        with os.fdopen(ready, "rb") as pipe:
            if pipe.read() != b"\n":
                raise NodeError(f"{program} did not start: status {self.fabric.wait(10)}")

    def stop_fabric(self, sig=signal.SIGKILL):
        self.fabric.send_signal(sig)
        self.fabric.wait(10)

    def control(self, command):
        """Has the fabric carry out a command (`qel-fabric --help` tells which); gives what it prints."""
        done = subprocess.run([os.environ.get("QEL_FABRIC_BIN", "qel-fabric"), "--control", command],
                              env={**os.environ, "QEL_FABRIC": self.fabric_dir}, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
        if done.returncode:
            raise NodeError(f"qel-fabric --control {command!r}: {done.stdout}")
        return done.stdout

    def environment(self, node):
        if self.backend == "local":
            return {"QEL_TRANSPORT": "local", "QEL_FABRIC": self.fabric_dir, "QEL_ROOT": node.root,
                    "VELT_DIR": node.velt_dir}
        return {"QEL_TRANSPORT": "kernel", "HOME": "/root", "TMPDIR": "/tmp",
                "PATH": "/run/q:" + os.environ.get("PATH", "") + ":/usr/sbin:/sbin"}

    def interface(self):
        if self.backend == "local":
            raise NodeError("the local back end has no interfaces")
        return "eth0" if self.backend == "netns" else "vec0"

    # ---- events
    def channel(self, number):
        return self.kernels.channel(number) if self.kernels else self.local_channel

    def _received(self, event):
        with self.changed:
            proc = self.procs.get(event.get("id"))
            if proc:
                proc.event(event)
            self.changed.notify_all()

    def _closed(self, index):
        with self.changed:
            if not self.closing:
                self.broken = index
            self.changed.notify_all()

    def check(self):
        if self.broken is None:
            return
        if self.kernels:
            raise NodeError("a kernel ended: " + self.kernels.guests[self.broken].trouble())
        raise NodeError("the agent of the nodes ended")

    def running(self):
        with self.changed:
            return [p for p in self.procs.values() if p.status is None and not p.error]

    def loss(self, percent):
        """What share of the packets every wire loses, each way; 100 cuts nodes off silently, 0 ends it."""
        for node in self.nodes:
            verb = ["replace"] if percent else ["del"]
            tail = ["netem", "loss", f"{percent}%"] if percent else []
            # Without a discipline of ours there is nothing to delete.
            node.run(["tc", "qdisc", *verb, "dev", self.interface(), "root", *tail], check=percent > 0)

    # ---- the end
    def dump(self, file=None):
        """Shows the output of all processes so far."""
        file = file or sys.stderr
        with self.changed:
            for proc in self.procs.values():
                state = "runs" if proc.status is None else f"status {proc.status}"
                print(f"---- node {proc.node.number}, {state}: {' '.join(proc.argv)}", file=file)
                shown = [f"{at:8.3f} {line}" for at, text in proc.chunks for line in text.splitlines()]
                if len(shown) > DUMP_LINES:
                    print(f"     ({len(shown) - DUMP_LINES} lines before)", file=file)
                print("\n".join(shown[-DUMP_LINES:]), file=file)
            print("----", file=file, flush=True)

    def kill_all(self):
        """Kills all processes and forgets them and their output."""
        for node in self.nodes:
            node.kill_all()
        with self.changed:
            self.procs.clear()

    def reset(self):
        """kill_all(), and the files of the nodes are as at the start."""
        self.kill_all()
        for node in self.nodes:
            for d in ("etc", "tmp", "velt"):
                shutil.rmtree(os.path.join(node.root, d))
            uml.make_node_files(self.work, node.number)

    def close(self):
        self.closing = True
        if self.agent:
            self.agent.stdin.close()
            try:
                self.agent.wait(10)
            except subprocess.TimeoutExpired:
                self.agent.kill()
                self.agent.wait()
            self.local_channel.reader.join(10)
            self.agent.stdout.close()
            self.agent = None
        if self.fabric:
            if self.fabric.poll() is None:
                self.stop_fabric()
            self.fabric = None
        if self.kernels:
            self.kernels.stop()
            self.kernels = None
        if not self.inside:
            shutil.rmtree(self.work, ignore_errors=True)
        if self.guard:
            self.guard.dismiss()

    def __enter__(self):
        return self

    def __exit__(self, kind, value, trace):
        if kind and not issubclass(kind, KeyboardInterrupt):
            self.dump()
        self.close()
