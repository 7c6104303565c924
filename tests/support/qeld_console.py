"""The daemon and its console, for system tests.

    class Something(DaemonTest):
        def test_a_thing_holds(self):
            console = self.daemon(1)                    # on node 1, listed by itself: it serves
            self.assertEqual(console.command("show debug"), ["QEL debug status:", ...])

`/bin/stty sane` turns the echo of the terminal on, so each line comes back before its answer.
"""
import os
import re
import time

from qel_agents import BUILD, NodeError, SystemTest

QELD = os.environ.get("QELD_BIN", os.path.join(BUILD, "qeld"))
PROMPT = "(qel)"
LOG_LINE = re.compile(r"<\w+, \d+> \d: [^\n]*\n")
UNKNOWN = "% Unrecognized command."
USAGE = """Usage:\x20
       qeld [options]
\x20\x20
  valid options:
  -pt                      Enable QEL performance testing functionality
  -help                    This usage list
"""
HELP = """\x20\x20
  The command should match exactly to one list below, and the operation affect only on the local node
\x20\x20
  valid commands                       description
  show qel status                      Show QEL overall status
  show qel app <id> stat               Show local QEL app statistics
  show qel app <id>/<node> stat        Show the specific app/node statistics
  show debug                           Show all QEL app debug info
  debug all                            Turn on all QEL app's debug
  no debug all                         Turn off all QEL app's debug
  debug qel app <id> <level>           Turn on the specific app debug, argument level should be\x20
                                       one of 'verbose info warn error all'
  no debug qel app <id> <level>        Turn off the specific app debug, argument level should be\x20
                                       one of 'verbose info warn error all'
  qel performance test                 Test performance of message sending and RPC
                                       please don't do other operation while testing
  quit                                 Quit the app qeld
  help                                 This usage list
\x20\x20
"""


class Console:
    def __init__(self, node, *options, env=None, program=(QELD,)):
        self.node = node
        self.proc = node.spawn([*program, *options], env=env, pty=True)
        self.read = 0  # characters of the output that are behind us

    def since(self):
        return self.proc.output[self.read:].replace("\r\n", "\n")

    def until_prompt(self, timeout=10):
        """The output up to the next prompt at its end."""
        deadline = time.monotonic() + timeout
        proc = self.proc
        with proc.changed:
            while not LOG_LINE.sub("", self.since()).endswith(PROMPT):  # lines may come behind it
                left = deadline - time.monotonic()
                if proc.status is not None or left <= 0:
                    raise NodeError(f"{proc}: no prompt, status {proc.status}: {proc.text[self.read:]!r}")
                proc.changed.wait(left)
            before, _, behind = self.since().rpartition(PROMPT)
            self.read = len(proc.text)
        return before + behind

    def say(self, line, timeout=10):
        """What a line makes it print, to the byte, without lines of the log."""
        self.proc.send(line)
        text = LOG_LINE.sub("", self.until_prompt(timeout))
        assert text.startswith(line + "\n"), (line, text)  # the echo
        return text[len(line) + 1:]

    def command(self, line, timeout=10):
        """The same as a list of lines."""
        return self.say(line, timeout).split("\n")[:-1]

    def end(self, timeout=10):
        """Waits for its end: its status and what it printed last."""
        status = self.proc.wait(timeout)
        return status, self.since()

    def processes(self):
        """{pid: [applications]} as "show qel status" tells it."""
        found, pid = {}, None
        for line in self.command("show qel status"):
            if match := re.fullmatch(r"  Process (-?\d+):", line):
                pid = int(match[1])
            elif match := re.fullmatch(r"    Applications:((?: \d+)+)\.", line):
                found[pid] = [int(word) for word in match[1].split()]
        return found

    def applications(self):
        """All applications but the daemon's own, ascending."""
        return sorted(app for apps in self.processes().values() for app in apps if app != 1)

    def log(self):
        """Lines of its log so far: (file, level, text)."""
        pattern = re.compile(r"<(\w+), \d+> (\d): (.*)")
        lines = self.proc.output.replace("\r\n", "\n").split("\n")
        return [(m[1], int(m[2]), m[3]) for m in map(pattern.search, lines) if m]


TEST_SIZES = (64, 256, 1024, 4096, 16384, 32768, 65536)  # of the performance test
FIGURE = r"(\d+\.\d{3})"
TIMES = rf"  absolute time {FIGURE}, system CPU time {FIGURE}, process CPU time {FIGURE}\."


class PerformanceReport:
    """What "qel performance test" printed, taken apart; ValueError at the first line that is not as it must
    be in a run that went through.

    .sends: (node or "group", size) -> {"sending" | "receiving" | "transmission": messages per second}
    .calls: (node or "group", size) -> calls per second
    """

    def __init__(self, text, own_node, order):
        """@order: the nodes as they were taken into the group, the own one among them."""
        self.lines, self.at = text.split("\n"), 0
        self.sends, self.calls = {}, {}
        self.take("Uni-cast performance testing\\.")
        for node in order:
            phases = ["sending", *([] if node == own_node else ["receiving"]), "transmission"]
            for size in TEST_SIZES:
                self.sends[node, size] = self.send(size, rf"{node}\.", phases)
                self.take("")
                self.calls[node, size] = self.call(size, rf"{node}\.")
        self.take("")
        self.take("Multi-cast performance testing\\.")
        others = "".join(rf"{node} " for node in order if node != own_node)
        for size in TEST_SIZES:
            self.sends["group", size] = self.send(size, others, ["sending", "transmission"])
            self.calls["group", size] = self.call(size, others)
        if self.lines[self.at:] not in ([], [""]):
            raise ValueError(f"more than expected: {self.lines[self.at:]}")

    def take(self, pattern):
        line = self.lines[self.at] if self.at < len(self.lines) else None
        match = re.fullmatch(pattern, line) if line is not None else None
        if not match:
            raise ValueError(f"line {self.at + 1} is {line!r}, not {pattern!r}")
        self.at += 1
        return match

    def send(self, size, to, phases):
        self.take("")
        self.take(rf"QEL_PT send data length {size} to {to}")
        rates = {}
        for phase in phases:
            self.take(rf"QEL_PT {phase} time test result per message \(in us\):")
            self.take(TIMES)
            speed = self.take(rf"QEL_PT {phase} speed (\d+) pps, {FIGURE} MBps, {FIGURE} Mbps\.")
            rates[phase] = int(speed[1])
        return rates

    def call(self, size, to):
        self.take(rf"QEL_PT RPC data length {size} to {to}")
        self.take(r"QEL_PT RPC time test result per message \(in us\):")
        rate = int(self.take(r"  RPCs per second: (\d+) rps\.")[1])
        self.take(TIMES)
        return rate


def test_group(console):
    """The nodes whose daemons have the performance test, in the order in which the group of @console's holds
    them."""
    for line in console.command(f"show qel app 6/{console.node.number} stat", 40):
        if match := re.fullmatch(r"    ID 0x80000, members:((?: \d+)*)", line):
            return [int(word) for word in match[1].split()]
    return []


class DaemonTest(SystemTest):
    nodes = 1

    def console(self, node, *options, env=None, program=(QELD,)):
        """A daemon whose console has come up."""
        console = Console(self.node(node), *options, env=env, program=program)
        console.until_prompt()
        return console

    def daemon(self, node, *options):
        """One that has found itself, a few seconds later."""
        console = self.console(node, *options)
        self.eventually(lambda: console.proc.pid in console.processes() or self.listed_alone(console),
                        "the daemon lists itself", every=0.2)
        return console

    @staticmethod
    def listed_alone(console):
        # in a kernel of its own a process has another number
        return any(1 in apps for apps in console.processes().values())

    def lists(self, console, apps, timeout=10):
        """Waits until the daemon knows exactly these applications beside itself."""
        apps = sorted(apps)
        self.eventually(lambda: console.applications() == apps, f"the applications {apps} are listed",
                        timeout, every=0.1)
