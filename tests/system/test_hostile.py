"""A foreign member of the cluster throws any bytes it likes at an application: it lives on, serves its peers,
and does not grow."""
import os
import re
import struct
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../support"))
from qel_agents import SANITIZED, SUCCESS, Raw, Reply, SystemTest, main  # noqa: E402
from qel_wire import (ACK, MNG, PROCESSED, REQUEST, SYNC, SYNC_ACK, Peer, body, header,  # noqa: E402
                      is_sync, message, sync, sync_fields, tlv)

TARGET, PEER, FRIEND = (20, 1), (30, 2), (21, 2)
DESTINATION_DROPPABLE = 129
GROWTH_KB = 40_000 if SANITIZED else 16_000
HUGE_NODES = (65535, 65536, 65537, 0x80000, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFE, 0xFFFFFFFF)
APPS = (0, 1, 8191, 8192, 12288, 16383, 16384, 20479, 20480, 0x10014, 0x7FFFFFFF, 0xFFFFFFFF)


class Hostile(SystemTest):
    """20 on node 1 is the target, 21 on node 2 its friend through the library, 30 there a peer by hand."""

    def setUp(self):
        self.last = None
        self.target = self.agent(1, {20: [21, 30]})
        self.friend = self.agent(2, {21: [20]})
        self.raw = Raw(self.node(2))
        self.peer = Peer(self.raw, PEER)
        self.target.joined(21, 2)
        self.friend.joined(20, 1)
        self.peer.join(TARGET)
        self.target.joined(30, 2)
        self.stranger = self.raw.value("socket")
        # What the target's queue does not take may go: it is not what is tested.
        for sock in (self.peer.sock, self.stranger):
            self.assertEqual(self.raw.call("option", sock, DESTINATION_DROPPABLE, 1)[0], 0)
        self.pid = self.target.value("pid")
        self.threads = self.library_threads()
        self.resident = self.target.value("rss")

    def library_threads(self):
        names = self.target.call("threads")[1:]
        return sorted(name for name in names if name.startswith(("qel_app", "qel_lib")))

    def check_alive(self, friend_lost=False):
        """The target is the process it was and serves, unless the attacker could take the friend down."""
        if self.last:
            self.last.result(120)
        if not friend_lost:
            self.friend.call("forget", 21, 20, 1)
            self.assertEqual(self.target.call("sendto", 20, 21, 2, 1500, 100, 0, "first=0")[:2], [0, 1500])
            self.friend.arrived(21, 20, 1, 1500)
            calling = self.friend.rpcto(21, 1, 20, 500, 0, 30)
            self.assertEqual(calling[::2], (0, [Reply(1, 20, SUCCESS, "same")]))
        self.assertEqual(self.target.value("pid"), self.pid)
        self.assertEqual(self.library_threads(), self.threads)
        growth = self.target.value("rss") - self.resident
        self.assertLess(growth, GROWTH_KB, "the process grows")

    def throw(self, data):
        # The result is not of interest: what is no message may be refused by the transport.
        self.last = self.raw.start("send", self.peer.sock, 2303, 20 << 16 | 1, data.hex() or "-")

    def flood(self, count, seed, kind, model=b""):
        sent, failed = self.raw.call("flood", self.stranger, 2303, 20 << 16 | 1, count, seed, kind,
                                     model.hex() or "-", timeout=120)
        self.assertEqual(failed, 0)

    def models(self):
        """One message of every kind, as a peer would send it."""
        yield sync(PEER, TARGET, 5, 6)
        yield sync(PEER, TARGET, 5, 6, kind=SYNC_ACK)
        for kind in range(10):
            value = {PROCESSED: struct.pack(">I", 1), 3: struct.pack("=II", 9, 1)}.get(kind, b"")
            yield message(PEER, TARGET, tlv(kind, value), MNG)
        yield message(PEER, TARGET, tlv(4), MNG | REQUEST, seq=1)
        yield message(PEER, TARGET, tlv(5), MNG | REQUEST, seq=1)
        yield message(PEER, TARGET, b"request", REQUEST, seq=1)
        yield message(PEER, TARGET, b"reply", REQUEST | ACK, seq=1)
        yield message(PEER, TARGET, b"12345678", REQUEST | ACK, seq=1, rpc_status=1)

    def test_every_truncation_of_every_kind_of_message(self):
        for model in self.models():
            for size in range(len(model)):
                self.throw(model[:size])  # says more than is there
                if size >= 36:
                    self.throw(model[:4] + struct.pack(">I", size) + model[8:size])  # says the truth
            self.throw(model + b"\0")
            self.throw(model + b"\0" * 64)
        self.check_alive()

    def test_every_length_field(self):
        for model in self.models():
            for length in (0, 1, 35, 36, 37, len(model) - 1, len(model) + 1, 65572, 65573, 66000, 0x7FFFFFFF,
                           0x80000000, 0xFFFFFFFF, 0xFFFFFFFF - 35):
                self.throw(model[:4] + struct.pack(">I", length & 0xFFFFFFFF) + model[8:])
        for size in (65573, 65574, 65999, 66000):  # the transport carries more than the bus
            self.throw(message(PEER, TARGET, b"\0" * (size - 36)))
        self.check_alive()

    def test_huge_nodes_and_odd_applications(self):
        for flags in (0, SYNC, REQUEST, REQUEST | ACK, MNG, MNG | REQUEST, MNG | REQUEST | ACK, 15, 255):
            data = tlv(1, struct.pack(">5I", 1, 2, 1, 1, 600)) if flags & SYNC else tlv(0, b"\0\0\0\1")
            for node in HUGE_NODES:
                self.throw(message((30, node), TARGET, data, flags))
                self.throw(message((20, node), TARGET, data, flags))
            for app in APPS:
                if app in (1, 30):
                    continue
                self.throw(message((app, 2), TARGET, data, flags))
                self.throw(message((app, 0xFFFFFFFF), TARGET, data, flags))
                self.throw(message(PEER, (app, 1), data, flags if flags != SYNC else 0))
            for node in HUGE_NODES:
                self.throw(message((40, 2), (20, node), data, flags))
        self.check_alive()

    def test_item_lengths_and_counts_in_management_sections(self):
        for flags in (MNG, MNG | REQUEST, SYNC):
            for length in (0, 1, 2, 3, 4, 5, 7, 8, 23, 24, 25, 0x7FFF, 0x8000, 0xFFFC, 0xFFFF):
                for kind in (0, 1, 2, 3, 4, 5, 6, 7, 9, 0xFFFF):
                    if flags == SYNC and kind == 1:
                        continue  # a sync of a peer takes it down, which is its right
                    for tail in (b"", b"\0", b"\0\0\0", b"\0" * 20):
                        self.throw(message((40, 2) if flags == SYNC else PEER, TARGET,
                                           struct.pack(">HH", length, kind) + tail, flags))
        self.throw(message(PEER, TARGET, tlv(6) * 200, MNG))  # each asks for an answer
        self.check_alive()

    def test_statistics_are_asked_for_in_one_message_a_thousand_times(self):
        self.throw(message(PEER, TARGET, tlv(5) * 1000, MNG | REQUEST, seq=4))
        self.check_alive()

    def test_random_bytes(self):
        count = 8000 if self.real else 20000
        self.flood(count, 1, "random")
        self.check_alive()
        text = Peer(self.raw, (1, 2)).statistics(20, 1).decode()
        counted = int(re.search(r"  total receive \d+, unack \d+, exception (\d+)", text).group(1))
        self.assertGreater(counted, count * 3 // 4, "it has received and refused them")

    def test_changed_bits_in_messages_of_every_kind(self):
        # From an application that the target does not know: its own peers may be taken down by a lucky sync.
        for seed, model in enumerate(self.models()):
            model = model[:16] + struct.pack(">I", 40) + model[20:]
            self.flood(1500, seed, "bits", model)
            self.flood(500, seed, "tail", model)
        self.check_alive(friend_lost=True)
        successor = self.agent(2, {22: []})  # the bus as such is as it was
        successor.joined(22, 2)

    def test_syncs_of_ten_thousand_instances_nobody_has_heard_of(self):
        for resume in (0,) if self.real else (0, 1):
            self.flood(10000, 0, "peers", sync((40, 0), TARGET, 5, 6, resume=resume))
        self.check_alive()

    def test_messages_of_ten_thousand_instances_nobody_has_heard_of(self):
        self.flood(10000, 0, "peers", message((40, 0), TARGET, b"hello"))
        self.flood(10000, 0, "peers", message((41, 0), TARGET, b"hello", REQUEST, seq=7))
        self.flood(10000, 0, "peers", message((42, 0), TARGET, tlv(0, b"\0\0\2\0"), MNG))
        self.check_alive()
        # Its statistics are long now; the reply stays within its buffer.
        daemon = Peer(self.raw, (1, 2))
        text = daemon.statistics(20, 1)
        self.assertLessEqual(len(text), 16384)

    def test_replies_that_nobody_waits_for_do_not_reach_a_call(self):
        self.friend.call("serve", 21, "late", 1500)
        calling = self.target.start("rpc", 20, 21, 64, 0, 30)
        for seq in list(range(100)) + [0x7FFFFFFF, 0x80000000, 0xFFFFFFFF]:
            for status in (0, 1, 3, 9):
                self.throw(message(FRIEND, TARGET, b"12345678", REQUEST | ACK, seq=seq, rpc_status=status))
                self.throw(message(PEER, TARGET, b"12345678", REQUEST | ACK, seq=seq, rpc_status=status))
        words = calling.result()
        self.assertEqual(words[:2] + words[3:], [0, 1, f"2/21:{SUCCESS}:same"])
        self.check_alive()

    def test_repeated_syncs_take_down_only_who_sends_them(self):
        for round_ in range(50):
            self.throw(sync(PEER, TARGET, round_, 1000 + round_))
        self.peer.receive(lambda d: is_sync(SYNC_ACK, 20)(d) and sync_fields(d).seq == 49)
        self.check_alive()
        self.assertEqual(self.target.value("online", 2, 30), 0)

    def test_nobody_learns_bytes_of_the_process(self):
        """Whatever comes back is a message that is as long as it says."""
        for model in self.models():
            for cut in range(0, 24, 3):
                self.throw(model[:len(model) - cut])
        daemon = Peer(self.raw, (1, 2))
        daemon.statistics(20, 1)
        for event in self.raw.seen(rf"msg {self.peer.sock} \S+ \w+"):
            data = bytes.fromhex(re.fullmatch(r"msg \d+ \S+ (\w+)", event).group(1))
            self.assertGreaterEqual(len(data), 36)
            if len(data) < 2000:
                self.assertEqual(header(data).len, len(data))
                self.assertLessEqual(len(body(data)), 65536)


if __name__ == "__main__":
    main()
