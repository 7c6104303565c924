"""The console: every line and its answer, how it ends, and what the daemon knows of its node."""
import os
import re
import signal
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../support"))
from qel_agents import main, pause  # noqa: E402
from qeld_console import HELP, PROMPT, UNKNOWN, DaemonTest  # noqa: E402

UNKNOWN_AND_HELP = UNKNOWN + "\n" + HELP


class Lines(DaemonTest):
    def test_lines_and_their_answers(self):
        console = self.daemon(1)
        pid = next(iter(console.processes()))
        self.assertEqual(console.say(""), "")
        self.assertEqual(console.say("help"), HELP)
        for line in ("show qel statusx", " help", "HELP", "help ", "?", "show", "quit now", "stat",
                     "show qel app", "debug qel app 1", "show qel app x stat", "debug qel app 1 loud",
                     " show qel app 1"):
            self.assertEqual(console.say(line), UNKNOWN_AND_HELP, line)
        self.assertEqual(console.say("show qel status"),
                         "QEL current node ID: 1.\n"
                         "TIPC nodes within system: 1\n"
                         "\n"
                         "QEL node 1 application status:\n"
                         f"  Process {pid}:\n"
                         "    Debug level: none.\n"
                         "    Applications: 1.\n")
        self.assertEqual(console.say("show debug"),
                         "QEL debug status:\n"
                         f"Process {pid}:\n"
                         "  Debug level: none.\n"
                         "  Applications: 1.\n")
        absent = "% QEL set application debug failed: application not exist.\n"
        for line, answer in (
            ("debug qel app 9000 all", "% Application ID 9000 invalid.\n"),
            ("no debug qel app 0 info", "% Application ID 0 invalid.\n"),
            ("debug qel app 99999999999999999999 all", "% Application ID 2147483647 invalid.\n"),
            ("debug qel app 5 all", absent),
            ("no debug qel app 20479 verbose", absent),
            ("show qel app 8192 stat", "% Application ID 8192 invalid.\n"),
            ("show qel app -1", "% Application ID -1 invalid.\n"),
            ("show qel app 5/65536 stat", "% Node ID 65536 invalid.\n"),
            ("show qel app 5/-1", "% Node ID -1 invalid.\n"),
            ("show qel app 5 stat", "% QEL show application statistics failed: Operation not permitted.\n"),
            ("showqelapp5/1", "% QEL show application statistics failed: Operation not permitted.\n"),
            ("qel performance test", "% QEL_PT had not registered, please quit and run 'qeld -pt'.\n"),
        ):
            self.assertEqual(console.say(line), answer, line)

    def test_long_lines_are_taken_in_pieces(self):
        console = self.console(1)
        line = "x" * 126
        self.assertEqual(console.say(line), UNKNOWN_AND_HELP)
        text = self.all_prompts(console, "x" * 127, 2)
        self.assertEqual(text, UNKNOWN_AND_HELP + PROMPT)
        text = self.all_prompts(console, " " * 127 + "show debug", 2)
        self.assertTrue(text.startswith(UNKNOWN_AND_HELP + PROMPT + "QEL debug status:\n"), text)

    def all_prompts(self, console, line, count):
        """What a line of several pieces prints, prompts between them included."""
        console.proc.send(line)
        self.eventually(lambda: console.since().count(PROMPT) == count, "the prompts")
        text = console.until_prompt()
        return text[len(line) + 1:]

    def test_a_line_may_come_in_pieces(self):
        console = self.console(1)
        for piece in ("show", " de", "bu"):
            console.proc.write(piece)
            pause(0.05)
        console.proc.write("g\n")
        self.assertIn("QEL debug status:\n", console.until_prompt())

    def test_quit_ends_it_with_1(self):
        console = self.console(1)
        console.proc.send("quit")
        self.assertEqual(console.end(), (1, "quit\n"))

    def test_the_end_of_input_ends_it_with_1(self):
        console = self.console(1)
        console.proc.close_stdin()
        self.assertEqual(console.end()[0], 1)

    def test_a_line_without_its_end_is_judged_before_the_end_of_input(self):
        console = self.console(1)
        console.proc.write("quit\x04\x04")  # the first Ctrl-D hands over what is there
        self.assertEqual(console.end(), (1, "quit" + UNKNOWN_AND_HELP + PROMPT))

    def test_the_terminal_is_made_sane(self):
        console = self.console(1)
        settings = self.node(1).run(["sh", "-c", f"stty -a </proc/{console.proc.pid}/fd/0"]).output
        self.assertRegex(settings, r"(?<!-)\bicanon\b")
        self.assertRegex(settings, r"(?<!-)\becho\b")


class Registry(DaemonTest):
    def test_applications_that_come_and_go(self):
        console = self.daemon(1)
        both = self.agent(1, {20479: [], 5: []})
        one = self.agent(1, {16384: []})
        self.lists(console, [5, 16384, 20479])
        processes = console.processes()
        self.assertEqual(list(processes), sorted(processes))
        self.assertIn([5, 20479], processes.values())
        self.assertIn([16384], processes.values())
        both.kill(signal.SIGKILL)
        self.lists(console, [16384])
        one.kill(signal.SIGTERM)
        self.lists(console, [])
        self.assertEqual(len(console.processes()), 1)

    def test_applications_that_were_there_before_the_daemon_are_found(self):
        agent = self.agent(1, {20: [21], 21: [20]})
        agent.joined(21, 1, app=20)
        console = self.daemon(1)
        self.lists(console, [20, 21])
        console.proc.kill()
        console.proc.wait()
        console = self.daemon(1)
        self.lists(console, [20, 21])

    def test_a_process_that_crashes_and_returns_again_and_again_is_listed_right(self):
        console = self.daemon(1)
        for _ in range(5):
            agent = self.agent(1, {20: []})
            self.lists(console, [20])
            self.assertIn(agent.value("pid"), console.processes())
            agent.kill(signal.SIGKILL)  # the next one comes while the daemon may still ask this one
        self.lists(console, [])

    def test_statistics(self):
        console = self.daemon(1)
        agent = self.agent(1, {20: []})
        self.lists(console, [20])
        text = console.say("show qel app 20 stat")
        self.assertTrue(text.startswith("Application 20/1 process's QEL library information:\n"), text)
        for head in ("Application 20/1 [", "Application 20 overall statistics:", "Application 20 RPC waits:"):
            self.assertIn(head, text)
        self.assertEqual(text.split("\n")[0], console.command("show qel app 20/1")[0])
        self.assertEqual(text.split("\n")[0], console.command("show qel app 20 anything")[0])
        self.assertIn("Application 1/1 [qel_daemon] information:", console.say("show qel app 1 stat"))
        agent.kill()

    def test_debug_switches_reach_the_process(self):
        console = self.daemon(1)
        agent, other = self.agent(1, {20: [], 30: []}), self.agent(1, {40: []})
        self.lists(console, [20, 30, 40])
        self.assertEqual(console.say("debug qel app 30 verbose"), "")
        self.assertEqual(console.say("debug qel app 30 error"), "")

        def tells():
            agent.call("sendto", 20, 40, 1, 1, 10, 1)  # no server: told at level 0
            return agent.log("has no server")
        self.eventually(tells, "its log is printed")
        self.assertEqual(other.log(""), [])
        # the daemon shows the words of its own mask: none
        self.assertIn("    Debug level: .", console.command("show qel status"))
        self.assertEqual(console.say("no debug qel app 20 all"), "")
        self.assertNotIn("    Debug level: .", console.command("show qel status"))

        def tells_more():
            before = len(agent.log(""))
            tells()
            return len(agent.log("")) > before
        self.eventually(lambda: not tells_more(), "its log is quiet")

        console.proc.send("debug all")
        self.eventually(lambda: agent.log("current debug status: verbose info warn error")
                        and other.log("current debug status: verbose info warn error"), "both are switched")
        self.eventually(lambda: any(m[0] == "qel_dbg" for m in console.log()), "the daemon itself too")
        console.proc.send("no debug all")
        self.eventually(lambda: self.is_quiet(console), "it is quiet again")
        levels = [line for line in console.command("show debug") if "Debug level" in line]
        self.assertEqual(levels, ["  Debug level: none."] * 3)

    @staticmethod
    def is_quiet(console):
        """Does an empty line find nothing but a prompt?"""
        console.read = len(console.proc.output)
        console.proc.send("")
        pause(0.3)
        text, console.read = console.since(), len(console.proc.output)
        return text == "\n" + PROMPT

    def test_the_daemons_own_debug_switch_prints_its_own_lines(self):
        console = self.daemon(1)
        console.proc.send("debug qel app 1 all")
        self.eventually(lambda: ("qel_mng_msg", 0, "QEL recv get app 1 info request.") in console.log()
                        or any(text.endswith("current debug status: verbose info warn error.")
                               for _, _, text in console.log()), "it prints")
        agent = self.agent(1, {20: []})
        self.eventually(lambda: ("qeld", 0, "QELD perceived app 20 join.") in console.log(), "the join")
        self.eventually(lambda: any(re.fullmatch(r"QELD add new app 20 id to process \d+\.", text)
                                    for _, _, text in console.log()), "and the record")
        agent.kill()
        self.eventually(lambda: ("qeld", 0, "QELD perceived app 20 quit.") in console.log(), "the quit")
        console.proc.send("debug qel app 1 loud")
        self.eventually(lambda: UNKNOWN in console.since(), "the console answers all the same")

    def test_debug_commands_that_cannot_be_sent_are_told(self):
        console = self.daemon(1)
        agent = self.agent(1, {20: []})
        self.lists(console, [20])
        pid = agent.value("pid")
        # listed by its answer, its name then taken away without its process: only a raw socket can do that
        agent.kill()
        self.lists(console, [])
        self.assertNotIn(pid, console.processes())
        self.assertEqual(console.say("debug qel app 20 all"),
                         "% QEL set application debug failed: application not exist.\n")


if __name__ == "__main__":
    main()
