"""A process that is stopped for ten seconds: the others wait for it, and it finds its way back."""
import os
import signal
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../support"))
from qel_agents import NOWAIT, EAGAIN, SUCCESS, Reply, SystemTest, main, pause  # noqa: E402

STOPPED_S = 10


class Stopped(SystemTest):
    def test_peers_of_a_stopped_process_wait_and_lose_nothing(self):
        a, b = self.pair(20, 21)  # a sends to b without waiting, and then waits
        c, d = self.pair(30, 31)  # c calls d
        e, f = self.pair(40, 41)  # e is replaced while f is stopped
        for agent in (b, d, f):
            agent.kill(signal.SIGSTOP)
        sent = a.call("sendto", 20, 21, 2, 5000, 100, NOWAIT)
        self.assertEqual(sent[:2], [EAGAIN, 1025])
        sending = a.start("sendto", 20, 21, 2, 3000, 100, 0)
        calling = c.start("rpcto", 30, 2, 31, 64, 0, 60)
        e.kill()
        successor = self.agent(1, {40: [41]})
        pause(STOPPED_S)
        self.assertFalse(sending.done())
        self.assertFalse(calling.done())
        for agent in (a, c, successor):
            self.assertEqual(agent.seen("quit .*"), [], "a stopped process is not gone")
        self.assertEqual(successor.value("online", 2, 41), 0, "no handshake yet")
        for agent in (b, d, f):
            agent.kill(signal.SIGCONT)
        self.assertEqual(sending.result()[:2], [0, 3000])
        b.arrived(21, 20, 1, 1025 + 3000)
        words = calling.result()
        self.assertEqual(words[:2] + words[3:], [0, 1, f"2/31:{SUCCESS}:same"])
        f.quit(40, 1)
        f.joined(40, 1)
        successor.joined(41, 2)
        self.assertEqual(successor.call("sendto", 40, 41, 2, 100, 100, 0)[:2], [0, 100])
        f.arrived(41, 40, 1, 100)
        self.assertEqual(f.rpcto(41, 1, 40, 64, 0, 30)[::2], (0, [Reply(1, 40, SUCCESS, "same")]))

    def test_a_stopped_process_that_is_killed_is_seen_as_gone(self):
        a, b = self.pair()
        b.kill(signal.SIGSTOP)
        self.assertEqual(a.call("sendto", 20, 21, 2, 5000, 100, NOWAIT)[:2], [EAGAIN, 1025])
        sending = a.start("sendto", 20, 21, 2, 10, 100, 0)
        calling = a.start("rpcto", 20, 2, 21, 64, 0, 0)
        self.eventually(lambda: a.value("sent", 20, 21) == 0 and not sending.done(), "it waits")
        b.kill(signal.SIGKILL)
        a.quit(21, 2)
        self.assertIn(sending.result(5)[0], (0, -2))
        words = calling.result(5)
        self.assertIn(words[:2] + words[3:], ([0, 1, "2/21:4:empty"], [-2, 0]))


if __name__ == "__main__":
    main()
