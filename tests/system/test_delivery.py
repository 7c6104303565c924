"""Many messages of all sizes from one process to another: none is lost, doubled, changed or out of order."""
import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../support"))
from qel_agents import SANITIZED, SystemTest, main  # noqa: E402


class Delivery(SystemTest):
    def test_a_million_messages_of_mixed_sizes_arrive_once_whole_and_in_order(self):
        count = 100_000 if self.real or SANITIZED else 1_000_000
        a, b = self.pair()
        sending = a.start("sendto", 20, 21, 2, count, "mix", 0)
        got = b.arrived(21, 20, 1, count, timeout=280)
        self.assertEqual(sending.result()[:2], [0, count])
        self.assertEqual((got.first, got.next), (0, count))
        self.assertGreater(got.bytes, count * 2000)

    def test_the_largest_and_the_smallest_message_alternate(self):
        a, b = self.pair()
        for size in (65536, 0) * 5:
            self.assertEqual(a.call("sendto", 20, 21, 2, 20, size, 0)[:2], [0, 20])
        b.arrived(21, 20, 1, 200)

    def test_messages_for_all_instances_reach_each_of_them_in_order(self):
        a = self.agent(1, {20: [21]})
        near, far = self.agent(1, {21: [20]}), self.agent(2, {21: [20]})
        for n in (1, 2):
            a.joined(21, n)
        near.joined(20, 1)
        far.joined(20, 1)
        far.call("delay", 21, 20)
        self.assertEqual(a.call("send", 20, 21, 30000, 64, 0, timeout=60)[:2], [0, 30000])
        near.arrived(21, 20, 1, 30000)
        far.arrived(21, 20, 1, 30000)

    def test_an_application_sends_to_itself_under_load(self):
        a = self.agent(1, {20: []})
        a.joined(20, 1)
        self.assertEqual(a.call("sendto", 20, 0, -2, 50000, 128, 0, timeout=60)[:2], [0, 50000])
        a.arrived(20, 20, 1, 50000)


if __name__ == "__main__":
    main()
