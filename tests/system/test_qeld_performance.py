"""The performance test of the daemons of two nodes."""
import os
import re
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../support"))
from qel_agents import BUILD, SANITIZED, main  # noqa: E402
from qeld_console import TEST_SIZES, DaemonTest, PerformanceReport, test_group  # noqa: E402


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

    def test_it_runs_through_for_the_own_node_the_other_and_the_group_of_all(self):
        # More messages of most sizes than a window of flow control, several times; shorter pauses.
        short = [os.path.join(BUILD, "tests/qel-test-qeld-short")]
        most = "1500" if SANITIZED or self.real else "4000"
        first, second = [self.console(n, "-pt", env={"QELD_SHORT": most}, program=short) for n in (1, 2)]
        for console in (first, second):
            self.eventually(lambda c=console: sorted(test_group(c)) == [1, 2], "both have the test", 20)
        for console in (first, second):
            order = test_group(console)
            text = console.say("qel performance test", 200)
            report = PerformanceReport(text, console.node.number, order)
            self.assertEqual(len(report.sends), 3 * len(TEST_SIZES))
            self.assertEqual(test_group(console), [n for n in order if n != console.node.number],
                             "the own node is not put back")
            for rates in report.sends.values():
                if rates["sending"]:  # else it was over within a millisecond
                    self.assertGreaterEqual(rates["sending"], rates["transmission"], "reported early")


if __name__ == "__main__":
    main()
