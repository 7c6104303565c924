"""Applications on the bus for system tests: agents, which a test drives by calls, and raw sockets.

    class Something(SystemTest):
        nodes = 2                                       # of the cluster that the tests of this class share

        def test_a_thing_holds(self):
            a = self.agent(1, {20: [21]})               # node 1: application 20, which talks to 21; running
            b = self.agent(2, {21: [20]})
            a.joined(21, 2); b.joined(20, 1)            # waits for the events
            self.assertEqual(a.call("send", 20, 21, 10, 100, 0)[0], 0)
            b.arrived(21, 20, 1, 10)

The commands of an agent are at the top of agent.c, those of a raw socket at the top of raw.cpp. A test file
runs by itself (`python3 tests/system/test_x.py`), on the back end of QEL_TEST_BACKEND (qel_nodes.py).
"""
import collections
import os
import re
import sys
import time
import unittest

from qel_nodes import Cluster, NodeError

HERE = os.path.dirname(os.path.abspath(__file__))
BUILD = os.environ.get("QEL_BUILD_DIR", os.path.join(HERE, "../../build/release"))
AGENT = os.environ.get("QEL_AGENT_BIN", os.path.join(BUILD, "tests/qel-test-agent"))
RAW = os.path.join(os.path.dirname(AGENT), "qel-test-raw")
FABRIC = os.environ.get("QEL_FABRIC_BIN", os.path.join(BUILD, "qel-fabric"))
EXAMPLES = os.environ.get("QEL_BIN_DIR", os.path.join(BUILD, "examples"))
os.environ.setdefault("QEL_FABRIC_BIN", FABRIC)
SANITIZED = any(word in BUILD for word in ("asan", "tsan"))

ENOENT, EAGAIN, EEXIST, EINVAL, ENOBUFS = -2, -11, -17, -22, -105
NOWAIT, NOT_SELF = 1, 4
SUCCESS, UNAVAILABLE, APP_VERSION, SYSTEM, TIMEOUT = 0, 2, 3, 4, 5
JOIN_S = 5  # from the start of two processes to the join event in each

Received = collections.namedtuple("Received", "count bytes first next gaps duplicates bad requests")
Reply = collections.namedtuple("Reply", "node app status content")


class Call:
    """A command that has been given and may not be answered yet."""

    def __init__(self, talker, tag, text):
        self.talker, self.tag, self.text = talker, tag, text

    def done(self):
        return self.talker.scan(lambda: self.tag in self.talker.answers)

    def result(self, timeout=30):
        """The words of the answer, numbers as such."""
        if not self.talker.wait(lambda: self.tag in self.talker.answers, timeout):
            raise NodeError(f"{self.talker.proc}: no answer to {self.text!r} in {timeout} s")
        words = self.talker.answers.pop(self.tag).split()
        if words[:1] == ["?"]:
            raise NodeError(f"{self.talker.proc}: {self.text!r}: {' '.join(words[1:])}")
        return [int(w) if re.fullmatch(r"-?\d+", w) else w for w in words]


class Talker:
    """A process that takes "TAG COMMAND" lines, answers "= TAG RESULT" and reports "! EVENT"."""

    def __init__(self, node, argv, env=None):
        self.node = node
        self.proc = node.spawn(argv, env=env)
        self.answers, self.events, self.position, self.tags = {}, [], 0, 0

    def scan(self, condition):
        with self.proc.changed:
            end = self.proc.text.rfind("\n") + 1
            for line in self.proc.text[self.position:end].splitlines():
                if line.startswith("= "):
                    tag, _, result = line[2:].partition(" ")
                    self.answers[int(tag)] = result
                elif line.startswith("! "):
                    self.events.append(line[2:])
            self.position = end
            return condition()

    def wait(self, condition, timeout):
        deadline = time.monotonic() + timeout
        with self.proc.changed:
            while not self.scan(condition):
                self.proc.node.cluster.check()
                left = deadline - time.monotonic()
                if self.proc.status is not None:
                    raise NodeError(f"{self.proc} ended with status {self.proc.status}")
                if left <= 0:
                    return False
                self.proc.changed.wait(left)
            return True

    def start(self, *words):
        """Gives a command without waiting for the answer."""
        self.tags += 1
        text = " ".join(str(w) for w in words)
        self.proc.send(f"{self.tags} {text}")
        return Call(self, self.tags, text)

    def call(self, *words, timeout=30):
        return self.start(*words).result(timeout)

    def value(self, *words):
        return self.call(*words)[0]

    def event(self, pattern, timeout=JOIN_S):
        """Waits for an event that @pattern matches as a whole, takes it out and gives the match."""
        found = []

        def look():
            for i, event in enumerate(self.events):
                if match := re.fullmatch(pattern, event):
                    del self.events[i]
                    found.append(match)
                    return True
            return False

        if not self.wait(look, timeout):
            raise NodeError(f"{self.proc}: no event {pattern!r} in {timeout} s; there are: {self.events}")
        return found[0]

    def seen(self, pattern):
        """Events so far that match as a whole, left where they are."""
        return self.scan(lambda: [e for e in self.events if re.fullmatch(pattern, e)])

    def log(self, pattern):
        """Lines of the library's log so far, without prefix, if the configuration has a debug mask."""
        with self.proc.changed:
            lines = [re.fullmatch(r"<(\w+), \d+> (\d): (.*)", line) for line in self.proc.text.split("\n")]
        return [m.group(3) for m in lines if m and re.search(pattern, m.group(3))]

    def kill(self, *args, **kw):
        self.proc.kill(*args, **kw)


class Agent(Talker):
    def __init__(self, node, env=None):
        super().__init__(node, [AGENT], env)
        self.event("agent", 20)

    def joined(self, peer, node, app=r"\d+", timeout=JOIN_S):
        return self.event(rf"join app {app} peer {peer}/{node} thread \S+", timeout)

    def quit(self, peer, node, app=r"\d+", timeout=JOIN_S):
        return self.event(rf"quit app {app} peer {peer}/{node} thread \S+", timeout)

    def received(self, app, peer, node):
        return Received(*self.call("received", app, peer, node))

    def arrived(self, app, peer, node, count, timeout=30):
        """Waits for @count messages from a peer, all whole and in order; gives the account."""
        got = Received(*self.call("await", app, peer, node, count, int(timeout * 1000), timeout=timeout + 10))
        if got.count != count or got.gaps or got.duplicates or got.bad:
            raise NodeError(f"{self.proc}: of {count} messages from {peer}/{node} came {got}")
        return got

    def rpc(self, *words, timeout=60):
        """A remote procedure call: its result, its milliseconds and its replies by node and application."""
        return rpc_result(self.call("rpc", *words, timeout=timeout))

    def rpcto(self, *words, timeout=60):
        return rpc_result(self.call("rpcto", *words, timeout=timeout))


def rpc_result(words):
    result, count, ms = words[:3]
    replies = [Reply(*map(int, re.split("[/:]", w)[:3]), w.split(":")[2]) for w in words[3:]]
    if len(replies) != count:
        raise NodeError(f"{count} replies are told, {len(replies)} are there: {words}")
    return result, ms, replies


class Raw(Talker):
    """A process with sockets of the transport itself: what it sends need not be what a library sends."""

    def __init__(self, node, env=None):
        super().__init__(node, [RAW], env)
        self.event("raw", 20)

    def bind(self, app, node):
        """A socket under the name of an application."""
        sock = self.value("socket")
        name = app << 16 | node
        assert self.call("bind", sock, 2303, name, name)[0] == 0
        return sock

    def send(self, sock, app, node, data):
        """The result and errno of sending @data to an application."""
        return tuple(self.call("send", sock, 2303, app << 16 | node, data.hex() or "-"))

    def message(self, sock, condition=lambda data: True, timeout=JOIN_S):
        """Waits for a message on @sock that @condition accepts and takes it out. Its bytes."""
        found = []

        def look():
            for i, event in enumerate(self.events):
                words = event.split()
                if words[:2] == ["msg", str(sock)]:
                    data = bytes.fromhex(words[3]) if words[3] != "-" else b""
                    if condition(data):
                        del self.events[i]
                        found.append(data)
                        return True
            return False

        if not self.wait(look, timeout):
            raise NodeError(f"{self.proc}: no such message on {sock} in {timeout} s")
        return found[0]


class SystemTest(unittest.TestCase):
    """Tests on one cluster of @nodes nodes, which is started for the class and emptied for each test."""
    nodes = 2
    backends = ("local", "netns", "pair")
    mounts = ()
    cluster = None

    @classmethod
    def setUpClass(cls):
        backend = os.environ.get("QEL_TEST_BACKEND", "local")
        if backend not in cls.backends:
            raise unittest.SkipTest(f"not for the back end {backend}")
        cls.cluster = Cluster(nodes=cls.nodes, mounts=cls.mounts)

    @classmethod
    def tearDownClass(cls):
        if cls.cluster:
            cls.cluster.close()
            cls.cluster = None

    def run(self, result=None):
        before = len(result.failures) + len(result.errors) if result else 0
        super().run(result)
        if result and len(result.failures) + len(result.errors) > before and self.cluster:
            self.cluster.dump()
        if self.cluster:
            self.cluster.reset()

    @property
    def real(self):
        """Is this the kernel's TIPC?"""
        return self.cluster.backend != "local"

    def node(self, number):
        return self.cluster.node(number)

    def agent(self, node, apps, run=True, env=None, options=""):
        """An agent on @node with applications {app: [its peers]}, running."""
        agent = Agent(self.node(node), env)
        for app, peers in apps.items():
            self.assertEqual(agent.value("register", app, options), 0)
        for app, peers in apps.items():
            for peer in peers:
                self.assertEqual(agent.value("comm", app, peer), 0)
        if run:
            self.assertEqual(agent.value("run"), 0)
        return agent

    def pair(self, a=20, b=21):
        """Two agents on nodes 1 and 2 that have found each other."""
        first, second = self.agent(1, {a: [b]}), self.agent(2, {b: [a]})
        first.joined(b, 2)
        second.joined(a, 1)
        return first, second

    def eventually(self, condition, what, timeout=10, every=0.05):
        """Waits for something that nobody announces."""
        deadline = time.monotonic() + timeout
        while not (value := condition()):
            if time.monotonic() > deadline:
                self.fail(f"not in {timeout} s: {what}")
            pause(every)
        return value

    def stays(self, condition, what, seconds, every=0.1):
        """For what must not happen: there is no event to wait for, so this takes its time."""
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline:
            self.assertTrue(condition(), what)
            pause(every)


def pause(seconds):
    time.sleep(seconds)


def main():
    sys.path.insert(0, HERE)
    unittest.main(verbosity=2)
