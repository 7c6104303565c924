"""Daemons of several nodes, and the performance test between them."""
import os
import re
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../support"))
from qel_agents import SANITIZED, main  # noqa: E402
from qeld_console import DaemonTest  # noqa: E402


class Nodes(DaemonTest):
    nodes = 3

    def test_nodes_that_are_up_are_listed(self):
        consoles = [self.daemon(n) for n in (1, 2, 3)]
        for console in consoles:
            self.eventually(lambda c=console: c.command("show qel status")[1].endswith(": 1 2 3"),
                            "three nodes", every=0.2)
        for number, console in enumerate(consoles, 1):
            lines = console.command("show qel status")
            self.assertEqual(lines[0], f"QEL current node ID: {number}.")
            self.assertEqual(lines[3], f"QEL node {number} application status:")

    def test_statistics_and_registries_of_other_nodes(self):
        consoles = [self.daemon(n) for n in (1, 2, 3)]
        agents = [self.agent(n, {20: []}) for n in (2, 3)]
        self.lists(consoles[1], [20])
        self.lists(consoles[2], [20])
        self.assertEqual(consoles[0].applications(), [], "a daemon lists its own node only")
        self.assertIn("Application 20/3 [", consoles[0].say("show qel app 20/3 stat"))
        self.assertEqual(consoles[0].say("show qel app 20 stat"),
                         "% QEL show application statistics failed: Operation not permitted.\n")
        self.assertIn("Application 1/2 [qel_daemon]", consoles[0].say("show qel app 1/2 stat"))
        for agent in agents:
            agent.kill()
        self.lists(consoles[1], [])

    def test_a_node_that_goes_down_leaves_the_list(self):
        if self.cluster.backend == "pair":
            self.skipTest("its link takes its time")
        console = self.daemon(1)
        other = self.daemon(3)
        self.eventually(lambda: console.command("show qel status")[1].endswith(" 3"), "node 3 is up",
                        every=0.2)
        if self.real:
            self.node(3).cut()
        else:
            other.proc.kill()
        self.eventually(lambda: not console.command("show qel status")[1].endswith(" 3"), "node 3 is down",
                        every=0.2)
        if self.real:
            self.node(3).mend()
        else:
            other.proc.wait()
            self.daemon(3)
        self.eventually(lambda: console.command("show qel status")[1].endswith(" 3"), "node 3 is up again",
                        every=0.2)


class PerformanceTest(DaemonTest):
    nodes = 2

    def test_it_begins_with_the_own_node_and_ends_when_somebody_joins(self):
        console = self.daemon(1, "-pt")
        self.assertEqual(console.applications(), [6])
        console.proc.send("qel performance test")
        # in the first pause of five seconds or before: the second node's test application comes up
        self.eventually(lambda: "data length 64 to 1.\n" in console.since(), "it begins", 20)
        self.console(2, "-pt")
        text = console.until_prompt(120 if SANITIZED else 60)
        lines = text.split("\n")
        self.assertEqual(lines[:4], ["qel performance test", "Uni-cast performance testing.", "",
                                     "QEL_PT send data length 64 to 1."])
        self.assertEqual(lines[-2:],
                         ["% QEL performance testing environment changed, please test again later.", ""])
        self.assertNotIn("receiving", text, "the own node has no receiving lines")
        number = r"\d+\.\d{3}"
        times = rf"  absolute time {number}, system CPU time {number}, process CPU time {number}\."
        allowed = re.compile(
            r"QEL_PT (send|RPC) data length \d+ to \d+\."
            rf"|QEL_PT (sending|transmission) time test result per message \(in us\):|{times}"
            rf"|QEL_PT (sending|transmission) speed \d+ pps, {number} MBps, {number} Mbps\."
            r"|QEL_PT RPC time test result per message \(in us\):|  RPCs per second: \d+ rps\.|")
        for line in lines[3:-2]:
            self.assertTrue(allowed.fullmatch(line), line)


if __name__ == "__main__":
    main()
