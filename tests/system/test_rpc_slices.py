"""Time limits of remote procedure calls, which pass in slices of 30 seconds: all cases at once."""
import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../support"))
from qel_agents import SUCCESS, SYSTEM, TIMEOUT, Reply, SystemTest, main  # noqa: E402


class Slices(SystemTest):
    nodes = 3

    def test_one_answers_one_dies_one_is_silent_and_limits_last_whole_slices(self):
        a = self.agent(1, {20: [21]})
        answering, dying, silent = (self.agent(n, {21: [20]}) for n in (1, 2, 3))
        for n in (1, 2, 3):
            a.joined(21, n)
        for agent in (answering, dying, silent):
            agent.joined(20, 1)
        dying.call("serve", 21, "die")
        silent.call("serve", 21, "never")
        three = a.start("rpc", 20, 21, 64, 0, 5)

        c = self.agent(1, {30: [31]})
        second, never = self.agent(2, {31: [30]}), self.agent(3, {31: [30]})
        for n in (2, 3):
            c.joined(31, n)
        second.joined(30, 1)
        never.joined(30, 1)
        second.call("serve", 31, "late", 1000)
        never.call("serve", 31, "never")
        two = c.start("rpc", 30, 31, 64, 0, 60)

        e = self.agent(1, {40: [41]})
        late, patient = self.agent(2, {41: [40]}), self.agent(3, {41: [40]})
        for n in (2, 3):
            e.joined(41, n)
        late.joined(40, 1)
        patient.joined(40, 1)
        late.call("serve", 41, "late", 32000)
        patient.call("serve", 41, "never")
        limited = e.start("rpcto", 40, 2, 41, 64, 0, 1)
        f = self.agent(1, {50: [51]})
        g = self.agent(2, {51: [50]})
        f.joined(51, 2)
        g.joined(50, 1)
        g.call("serve", 51, "never")
        unlimited = f.start("rpcto", 50, 2, 51, 64, 0, 0)

        words = three.result(50)
        self.assertEqual(words[:2], [0, 3])
        self.assertEqual(words[3:], [f"1/21:{SUCCESS}:same", f"2/21:{SYSTEM}:empty", f"3/21:{TIMEOUT}:empty"])
        self.assertTrue(30000 <= words[2] < 34000, f"one slice for 5 s: {words[2]} ms")
        words = two.result(20)
        self.assertEqual(words[:2] + words[3:], [0, 2, f"2/31:{SUCCESS}:same", f"3/31:{TIMEOUT}:empty"])
        self.assertTrue(31000 <= words[2] < 35000, f"a reply takes a slice of 60 s: {words[2]} ms")
        words = limited.result(20)
        self.assertEqual(words[:2] + words[3:], [0, 1, f"2/41:{TIMEOUT}:empty"])
        self.assertTrue(30000 <= words[2] < 34000, f"one slice for 1 s: {words[2]} ms")
        self.assertFalse(unlimited.done(), "a call without limit waits on")
        g.kill()
        words = unlimited.result(10)
        self.assertEqual(words[:2] + words[3:], [0, 1, f"2/51:{SYSTEM}:empty"])

        # The reply that comes after its call has ended is not taken for that of a later one.
        late.call("serve", 41, "late", 3000)
        result, _, replies = e.rpcto(40, 2, 41, 64, 0, 30)
        self.assertEqual((result, replies), (0, [Reply(2, 41, SUCCESS, "same")]))


if __name__ == "__main__":
    main()
