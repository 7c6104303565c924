"""Applications that do not answer the daemon, and names that nobody should publish."""
import os
import signal
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../support"))
from qel_agents import Raw, main, pause  # noqa: E402
from qeld_console import DaemonTest  # noqa: E402


class Silent(DaemonTest):
    def test_events_are_read_while_an_application_does_not_answer(self):
        self.node(1).write_conf("[MISC_CONF]\nqel_dbg_cfg=8\n")
        console = self.daemon(1)
        raw = Raw(self.node(1))
        sock = raw.bind(300, 1)
        raw.message(sock, lambda data: len(data) == 40 and data[2] == 0x0A)
        agent = self.agent(1, {20: []})
        self.stays(lambda: console.applications() == [], "20 waits for its turn", 3)
        raw.kill(signal.SIGKILL)
        self.lists(console, [20])
        failed = [text for file, level, text in console.log() if file == "qeld" and level == 3]
        self.assertEqual(failed, ["QELD get app 300 info failed: systerm error."])
        agent.kill()
        self.lists(console, [])

    def test_a_stopped_application_is_listed_when_it_goes_on(self):
        console = self.daemon(1)
        agent = self.agent(1, {20: []}, run=False)
        # Published in a second: stopped as soon as it is, the question finds nobody at home.
        raw = Raw(self.node(1))
        topology = raw.value("topology")
        raw.call("subscribe", topology, 2303, 20 << 16, 20 << 16 | 0xFFFF, 0xFFFFFFFF, 2)
        agent.call("run")
        raw.event(rf"event {topology} 1 .*")
        agent.kill(signal.SIGSTOP)
        # The daemon waits in slices of a second; an answer that meets the end of one is lost by design.
        pause(1.5)
        agent.kill(signal.SIGCONT)
        self.lists(console, [20])

    def test_statistics_of_a_stopped_application_end_after_their_slice(self):
        console = self.daemon(1)
        agent = self.agent(1, {20: []})
        self.lists(console, [20])
        agent.kill(signal.SIGSTOP)
        begin = time.monotonic()
        self.assertEqual(console.say("show qel app 20 stat", 40),
                         "% QEL show application statistics failed: RPC timeout.\n")
        self.assertAlmostEqual(time.monotonic() - begin, 30, delta=3)
        agent.kill(signal.SIGCONT)
        self.assertIn("Application 20/1 [", console.say("show qel app 20 stat"))

    def test_an_application_that_dies_while_its_statistics_are_asked_is_told_at_once(self):
        console = self.daemon(1)
        agent = self.agent(1, {20: []})
        self.lists(console, [20])
        agent.kill(signal.SIGSTOP)
        console.proc.send("show qel app 20 stat")
        pause(0.5)
        agent.kill(signal.SIGKILL)
        self.assertEqual(console.until_prompt(),
                         "show qel app 20 stat\n% QEL show application statistics failed: systerm error.\n")
        self.lists(console, [])

    def test_a_name_over_everything_hides_nothing_for_good(self):
        console = self.daemon(1)
        agent = self.agent(1, {20: []})
        self.lists(console, [20])
        raw = Raw(self.node(1))
        sock = raw.value("socket")
        self.assertEqual(raw.call("bind", sock, 2303, 0, 0xFFFFFFFF)[0], 0)
        pause(1)
        self.assertEqual(console.say(""), "")  # the console lives
        raw.kill(signal.SIGKILL)
        # Every process on the bus now looks at each of the 65,536 nodes once; that takes a while.
        self.lists(console, [20], 60)
        other = self.agent(1, {30: []})
        self.lists(console, [20, 30], 60)
        agent.kill()
        other.kill()
        self.lists(console, [], 60)


if __name__ == "__main__":
    main()
