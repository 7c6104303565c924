"""Flow control between real processes: the window, blocking, release by acknowledgement and by death."""
import os
import signal
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../support"))
from qel_agents import EAGAIN, NOWAIT, SystemTest, main  # noqa: E402

WINDOW = 1025  # messages without an acknowledgement after which a destination is blocked


class FlowControl(SystemTest):
    def blocked_pair(self):
        """20 on node 1, whose send of 3000 messages to 21 on node 2 waits at the end of the window."""
        a, b = self.pair()
        b.call("hold", 21)
        sending = a.start("sendto", 20, 21, 2, 3000, 100, 0)
        self.eventually(lambda: a.value("sent", 20, 21) == WINDOW, "the window is full")
        return a, b, sending

    def test_without_waiting_exactly_1025_messages_are_admitted(self):
        a, b = self.pair()
        b.call("hold", 21)
        self.assertEqual(a.call("sendto", 20, 21, 2, 5000, 100, NOWAIT)[:2], [EAGAIN, WINDOW])
        self.assertEqual(a.call("sendto", 20, 21, 2, 5000, 100, NOWAIT)[:2], [EAGAIN, 0])
        self.assertEqual(a.call("send", 20, 21, 5000, 100, NOWAIT)[:2], [EAGAIN, 0])
        b.call("release", 21)
        b.arrived(21, 20, 1, WINDOW)
        # Of the 1025, two batches of 512 were acknowledged: one message is left.
        self.eventually(lambda: a.call("sendto", 20, 21, 2, 1, 100, NOWAIT)[0] == 0, "released")
        b.call("hold", 21)

    def test_a_sender_waits_at_the_window_and_goes_on_when_the_receiver_does(self):
        a, b, sending = self.blocked_pair()
        self.stays(lambda: a.value("sent", 20, 21) == WINDOW and not sending.done(), "it waits", 1)
        b.call("release", 21)
        self.assertEqual(sending.result()[:2], [0, 3000])
        b.arrived(21, 20, 1, 3000)

    def test_the_second_batch_of_512_opens_the_window_by_512(self):
        a, b = self.pair()
        b.call("hold", 21)  # the message in the dispatcher counts as received
        self.assertEqual(a.call("sendto", 20, 21, 2, 5000, 10, NOWAIT)[:2], [EAGAIN, WINDOW])
        b.call("release", 21)
        b.arrived(21, 20, 1, WINDOW)
        b.call("hold", 21)
        # 1025 sent, 1024 acknowledged: unacknowledged is 1, so 1024 more fill the window.
        self.eventually(lambda: a.call("sendto", 20, 21, 2, 1, 10, NOWAIT)[0] == 0, "released")
        sent = a.call("sendto", 20, 21, 2, 5000, 10, NOWAIT)
        self.assertEqual(sent[0], EAGAIN)
        self.assertEqual(sent[1] + 1, 1024)

    def test_a_receiver_slower_than_the_sender_gets_everything_in_order(self):
        a, b = self.pair()
        b.call("delay", 21, 200)
        sent = a.call("sendto", 20, 21, 2, 5000, 300, 0, timeout=60)
        self.assertEqual(sent[:2], [0, 5000])
        self.assertGreater(sent[2], 3975 * 200, "the sender was not held back")
        b.arrived(21, 20, 1, 5000)

    def test_another_destination_is_not_blocked(self):
        a = self.agent(1, {20: [21, 23]})
        b, c = self.agent(2, {21: [20]}), self.agent(2, {23: [20]})
        a.joined(21, 2)
        a.joined(23, 2)
        b.joined(20, 1)
        c.joined(20, 1)
        b.call("hold", 21)
        self.assertEqual(a.call("send", 20, 21, 2000, 10, NOWAIT)[:2], [EAGAIN, WINDOW])
        self.assertEqual(a.call("send", 20, 23, 3000, 10, 0)[:2], [0, 3000])
        c.arrived(23, 20, 1, 3000)

    def test_one_blocked_node_blocks_the_application_on_every_node(self):
        a = self.agent(1, {20: [21]})
        near, far = self.agent(1, {21: [20]}), self.agent(2, {21: [20]})
        for n in (1, 2):
            a.joined(21, n)
        near.joined(20, 1)
        far.joined(20, 1)
        far.call("hold", 21)
        self.assertEqual(a.call("sendto", 20, 21, 2, 2000, 10, NOWAIT)[:2], [EAGAIN, WINDOW])
        self.assertEqual(a.call("sendto", 20, 21, 1, 1, 10, NOWAIT)[:2], [EAGAIN, 0])
        far.kill()
        a.quit(21, 2)
        self.assertEqual(a.call("sendto", 20, 21, 1, 1, 10, NOWAIT)[:2], [0, 1])

    def test_remote_procedure_calls_pass_a_full_window(self):
        a, b = self.pair()
        b.call("hold", 21)
        self.assertEqual(a.call("sendto", 20, 21, 2, 5000, 10, NOWAIT)[:2], [EAGAIN, WINDOW])
        calls = [a.start("rpcto", 20, 2, 21, 64, 0, 0) for _ in range(5)]
        b.call("release", 21)
        for call in calls:
            words = call.result()
            self.assertEqual(words[:2] + words[3:], [0, 1, "2/21:0:same"])

    def test_killing_the_receiver_releases_the_sender_and_its_successor_joins(self):
        a, b, sending = self.blocked_pair()
        b.kill(signal.SIGKILL)
        a.quit(21, 2, timeout=5)
        words = sending.result(10)
        self.assertEqual(words[0], -2, "released into a world without receivers")
        # At most the one message that waited has gone out since, to nobody.
        self.assertIn(words[1], (WINDOW, WINDOW + 1))
        successor = self.agent(2, {21: [20]})
        a.joined(21, 2)
        successor.joined(20, 1)
        self.assertEqual(a.call("sendto", 20, 21, 2, 3000, 100, 0, "first=0")[:2], [0, 3000])
        successor.arrived(21, 20, 1, 3000)

    def test_many_blocked_threads_are_all_released(self):
        a, b = self.pair()
        b.call("hold", 21)
        self.assertEqual(a.call("sendto", 20, 21, 2, 5000, 10, NOWAIT)[:2], [EAGAIN, WINDOW])
        senders = [a.start("sendto", 20, 21, 2, 300, 10, 0) for _ in range(8)]
        self.stays(lambda: not any(s.done() for s in senders), "all wait", 0.5)
        b.call("release", 21)
        for sender in senders:
            self.assertEqual(sender.result()[:2], [0, 300])
        self.eventually(lambda: b.received(21, 20, 1).count == WINDOW + 8 * 300, "all arrive")

    def test_a_full_window_in_both_directions_is_no_deadlock(self):
        a, b = self.pair()
        there = a.start("sendto", 20, 21, 2, 20000, 200, 0)
        back = b.start("sendto", 21, 20, 1, 20000, 200, 0)
        self.assertEqual(there.result(60)[:2], [0, 20000])
        self.assertEqual(back.result(60)[:2], [0, 20000])
        a.arrived(20, 21, 2, 20000)
        b.arrived(21, 20, 1, 20000)


if __name__ == "__main__":
    main()
