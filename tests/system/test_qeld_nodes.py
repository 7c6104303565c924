"""Daemons of several nodes."""
import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../support"))
from qel_agents import main  # noqa: E402
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


if __name__ == "__main__":
    main()
