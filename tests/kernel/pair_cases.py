"""Contract cases that need a real link, which namespaces of one kernel do not have: two kernels, one node
each, joined by a wire that can be cut and made lossy. Each case_<name> is one ctest entry (battery.py), given
a Link with a process of the contract tests on both sides (tests/support/port_peer.h: what they can be asked).
"""
import itertools
import time

PATIENCE_S = 30
LARGEST = 65572  # the bus's largest datagram
NORMAL, NO_PORT, OVERLOAD = 0, 2, 4
EAGAIN, ETIME, EHOSTUNREACH = 11, 62, 113
MSG_DONTWAIT = 0x40
NODE_0 = 0x01001000

types = itertools.count(50000)


class Peer:
    """A process of the contract tests on one node."""

    def __init__(self, node, binary):
        self.proc = node.spawn([binary, "--peer", "kernel"])

    def begin(self, request):
        self.proc.send(request)

    def end(self, timeout=PATIENCE_S):
        """The numbers (and words) of the answer to the request that was begun."""
        answer = self.proc.expect(r"^(ok|err)\b(.*)$", timeout)
        words = [int(w) if w.lstrip("-").isdigit() else w for w in answer.group(2).split()]
        assert answer.group(1) == "ok", f"{self.proc} answers: {answer.group(0)}"
        return words

    def ask(self, request, timeout=PATIENCE_S):
        self.begin(request)
        return self.end(timeout)

    def error(self, request, timeout=PATIENCE_S):
        self.begin(request)
        answer = self.proc.expect(r"^(ok|err)\b(.*)$", timeout)
        return int(answer.group(2)) if answer.group(1) == "err" else 0


class Link:
    def __init__(self, cluster, binary):
        self.cluster, self.type = cluster, next(types)
        self.near, self.far = Peer(cluster.node(1), binary), Peer(cluster.node(2), binary)

    def receiver(self):
        """Socket 0 of the far process, bound to instance 5; the near one's socket 0 gets back what fails."""
        self.far.ask("rdm 0")
        self.far.ask(f"bind 0 {self.type} 5 5")
        self.near.ask("rdm 0")
        self.near.ask("return 0")
        self.near.ask("topology 1")
        self.near.ask(f"subscribe 1 {self.type} 5 5 4294967295 2")
        assert self.event()[0] == "P"

    def event(self, timeout=PATIENCE_S):
        return self.near.ask(f"event 1 {timeout * 1000}", timeout + 5)

    def send(self, size, first, count, flags=0):
        """Gives how many were sent and the errno that ended it."""
        return self.near.ask(f"send 0 {self.type} 5 {size} {first} {count} {flags}", 2 * PATIENCE_S)

    def transfer(self, size, count, window):
        """Sends @count datagrams, at most @window of them unread; all must arrive, whole and in order."""
        for first in range(1, count + 1, window):
            part = min(window, count + 1 - first)
            self.far.begin(f"drain 0 {PATIENCE_S * 1000} {part}")
            sent, err, _ = self.send(size, first, part)
            assert (sent, err) == (part, 0), f"sent {sent} of {part}, error {err}"
            got = self.far.end(2 * PATIENCE_S)
            assert got == [part, 0, 1, 1, first, first + part - 1], f"{size} bytes, from {first}: {got}"

    def cut(self):
        self.cluster.loss(100)

    def mend(self):
        self.cluster.loss(0)


def restore(cluster):
    """After a case: the wire whole, the nodes linked again."""
    cluster.loss(0)
    linked = "until tipc link list | grep -q 'vec0: up'; do sleep 0.1; done"
    for node in cluster.nodes:
        node.run(["sh", "-c", linked], timeout=PATIENCE_S, check=True)


def case_a_largest_datagram_passes_in_one_piece(link):
    """65,572 bytes are fragmented by the link and put together again."""
    link.receiver()
    link.transfer(LARGEST, 40, 8)


def case_datagrams_arrive_in_order(link):
    """Of any size, in the order of sending."""
    link.receiver()
    for size, count, window in ((64, 3000, 300), (1000, 2000, 200), (5000, 500, 50), (20000, 100, 20)):
        link.transfer(size, count, window)


def case_datagrams_arrive_in_order_on_a_wire_that_loses_3_percent(link):
    """The link sends again what the wire lost: nothing is missing, doubled or out of order."""
    link.receiver()
    link.cluster.loss(3)
    for size, count, window in ((64, 1000, 300), (1000, 1000, 200), (LARGEST, 24, 8)):
        link.transfer(size, count, window)


def case_answers_by_socket_address_cross_the_link(link):
    """The address that recvmsg gave leads back to an unbound sender on the other node."""
    link.receiver()
    link.send(100, 77, 1)
    link.far.ask("reply 0 3000")
    size, tag, code, intact, node, _ = link.near.ask(f"next 0 {PATIENCE_S * 1000}")
    assert (size, tag, code, intact, node) == (3000, 77, NORMAL, 1, NODE_0 + 2)


def case_a_full_receiver_gives_back_with_code_4_and_blocks_nobody(link):
    """What a receiver's queue does not take comes back; every datagram is either delivered or returned."""
    link.receiver()
    count = 2500  # of 64 bytes 910 to 1638 fit, by the kernel
    sent, err, longest_us = link.send(64, 1, count)
    assert (sent, err) == (count, 0)
    assert longest_us < 1000000, f"a send took {longest_us} us"
    delivered, returned, ordered, intact, *_ = link.far.ask("drain 0 500 10000")
    assert 800 < delivered < 1800 and returned == 0 and ordered == intact == 1, delivered
    size, _, code, intact, node, _ = link.near.ask(f"next 0 {PATIENCE_S * 1000}")
    assert (size, code, intact, node) == (64, OVERLOAD, 1, NODE_0 + 2)
    normal, returned, *_ = link.near.ask("drain 0 500 10000")
    assert (normal, returned) == (0, count - delivered - 1)


def case_a_killed_receiver_gives_its_unread_datagrams_back(link):
    """With code 2, and its name is withdrawn."""
    link.receiver()
    assert link.send(200, 1, 100)[:2] == [100, 0]
    assert link.far.ask(f"drain 0 {PATIENCE_S * 1000} 10")[0] == 10
    link.far.proc.kill()
    assert link.event()[0] == "W"
    for tag in range(11, 101):
        size, got, code, intact, *_ = link.near.ask(f"next 0 {PATIENCE_S * 1000}")
        assert (size, got, code, intact) == (200, tag, NO_PORT, 1), f"number {tag}: {got}, code {code}"


def case_a_send_blocks_on_a_dead_link_until_it_is_declared_lost(link):
    """The link's window takes some datagrams, then sendto() sleeps; it ends with EHOSTUNREACH, and nothing
    of what the link held comes back."""
    link.receiver()
    link.cut()
    sent, err, longest_us = link.send(1000, 1, 10000)
    assert err == EHOSTUNREACH, f"error {err} after {sent}"
    assert 10 < sent < 1000, sent
    assert 1000000 < longest_us < 10000000, f"the longest send took {longest_us} us"
    assert link.event()[0] == "W"
    assert link.near.error("next 0 200") == ETIME


def case_a_send_without_waiting_is_eagain_on_a_dead_link(link):
    """MSG_DONTWAIT gives EAGAIN where it would have slept."""
    link.receiver()
    link.cut()
    sent, err, longest_us = link.send(1000, 1, 10000, MSG_DONTWAIT)
    assert err == EAGAIN, f"error {err} after {sent}"
    assert 10 < sent < 1000, sent
    assert longest_us < 1000000, longest_us


def case_a_silent_node_is_withdrawn_with_its_names_and_comes_back(link):
    """1.5 s of silence are a lost link: the node and its names go within a moment of each other. When the
    wire works again they come back without anybody doing anything, and datagrams pass."""
    link.receiver()
    link.near.ask("topology 2")
    link.near.ask(f"subscribe 2 0 {NODE_0 + 2} {NODE_0 + 2} 4294967295 2")
    assert link.near.ask("event 2 30000")[0] == "P"
    begin = time.monotonic()
    link.cut()
    kind, lower, *_ = link.near.ask("event 2 30000", 35)
    took = time.monotonic() - begin
    assert (kind, lower) == ("W", NODE_0 + 2)
    assert took > 1.0, f"after {took:.1f} s of silence already"
    assert link.event()[0] == "W"
    assert link.near.error("event 2 0") == ETIME
    assert link.send(100, 1, 1)[:2] == [0, EHOSTUNREACH]
    link.mend()
    assert link.near.ask("event 2 30000", 35)[0] == "P"
    assert link.event()[0] == "P"
    link.transfer(1000, 50, 50)


def case_what_a_receiver_has_is_readable_after_its_link_is_lost(link):
    """Only what lies in the link is lost with it."""
    link.receiver()
    assert link.send(1000, 1, 20)[:2] == [20, 0]
    assert link.far.ask(f"next 0 {PATIENCE_S * 1000}")[1] == 1
    link.cut()
    assert link.event()[0] == "W"
    assert link.far.ask("drain 0 500 100") == [19, 0, 1, 1, 2, 20]


def case_a_bearer_that_is_taken_away_withdraws_at_once(link):
    """No silence has to be waited for then."""
    link.receiver()
    node = link.cluster.node(1)
    node.cut()
    try:
        assert link.event()[0] == "W"
        assert link.send(100, 1, 1)[:2] == [0, EHOSTUNREACH]
    finally:
        node.mend()
    assert link.event()[0] == "P"
    link.transfer(1000, 50, 50)
