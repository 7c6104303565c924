"""What demo.sh shows, step by step. A step fails if what it announces does not happen."""
import argparse
import os
import re
import signal
import subprocess
import sys
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "../tests/support"))
from qel_nodes import Cluster, NodeError  # noqa: E402

BUILD = os.environ["QEL_BUILD_DIR"]
QELD = os.path.join(BUILD, "qeld")
SENSOR, MONITOR, METER, CALCULATOR = 100, 101, 210, 200
STEP_S = 20
WINDOW = 1025
INTERVAL_MS = 1500
NODES = (1, 2, 3)


def program(name):
    return os.path.join(BUILD, "examples", name)


class Screen:
    """Prints what the processes write, line by line as it comes, each with its node."""

    def __init__(self, cluster):
        self.cluster = cluster
        self.shown = {}  # process -> how many of its lines; one that is not in it is not shown
        self.begin = time.monotonic()
        self.lock = threading.Lock()
        self.ended = threading.Event()
        self.thread = threading.Thread(target=self.follow, daemon=True)
        self.thread.start()

    def follow(self):
        while not self.ended.wait(0.05):
            self.flush()

    def flush(self):
        with self.lock:
            for proc, count in self.shown.items():
                lines = proc.lines
                for line in lines[count:]:
                    print(f"[node {proc.node.number}] {line}")
                self.shown[proc] = len(lines)
            sys.stdout.flush()

    def show(self, proc):
        with self.lock:
            self.shown[proc] = 0

    def title(self, text):
        self.flush()
        print(f"\n== {time.monotonic() - self.begin:4.1f} s: {text}", flush=True)

    def close(self):
        self.ended.set()
        self.thread.join()
        self.flush()
        self.shown.clear()  # what comes later is not this screen's


class Demo:
    def __init__(self, cluster):
        self.cluster, self.screen = cluster, Screen(cluster)

    def start(self, node, name, *arguments, show=True):
        print(f"[node {node}] $ {' '.join([name, *map(str, arguments)])}", flush=True)
        path = QELD if name == "qeld" else program(name)
        proc = self.cluster.node(node).spawn([path, *arguments], pty=name == "qeld")
        if show:
            self.screen.show(proc)
        return proc

    def run(self, node, name, *arguments):
        """Runs a program to its end, which must be a good one."""
        proc = self.start(node, name, *arguments)
        if (status := proc.wait(STEP_S)) != 0:
            raise NodeError(f"{name} on node {node} ended with {status}")
        self.screen.flush()
        return proc.output

    def appear(self):
        self.screen.title("three nodes with a daemon, a sensor, a calculator and a meter each")
        self.monitor = self.start(1, "monitor")
        self.daemons = {n: self.start(n, "qeld", "-pt", show=False) for n in NODES}
        for n in NODES:
            self.start(n, "calculator_server")
            self.start(n, "meter")
        self.sensors = {n: self.start(n, "sensor", SENSOR, MONITOR, 0, INTERVAL_MS) for n in NODES}
        self.expect_all(self.monitor, [rf"application {SENSOR} on node {n} joins" for n in NODES])
        self.screen.title("readings come from every node")
        self.expect_all(self.monitor, [rf"reading 2 of node {n}: " for n in NODES])

    def expect_all(self, proc, patterns):
        """Waits for lines in any order."""
        position = proc.position
        ends = []
        for pattern in patterns:
            proc.position = position
            proc.expect(pattern, STEP_S)
            ends.append(proc.position)
        proc.position = max(ends)

    def call(self):
        self.screen.title("remote procedure calls: to all sensors, to one calculator, to all calculators")
        text = self.run(2, "inventory", len(NODES))
        for n in NODES:
            if not re.search(rf"^node {n}: \d+ readings sent", text, re.M):
                raise NodeError(f"no line about node {n} in the inventory")
        if "node 3: 42\n" not in self.run(1, "calculator_client", 3, "6 * 7"):
            raise NodeError("6 * 7 is not 42")
        text = self.run(1, "calculator_client", -1, "355 / 113")
        if text.count("3.14159") != len(NODES):
            raise NodeError("not every calculator has answered")

    def flow(self):
        self.screen.title("flow control: a fast sensor, a monitor that takes a millisecond for each reading")
        print(f"   (it takes 1500; the sensor may be {WINDOW} ahead, then it waits)", flush=True)
        slow = self.start(2, "monitor", 103, 104, 1500, 1000, show=False)
        fast = self.start(3, "sensor", 104, 103, 0, 0)
        slow.expect(r"reading \d+ of node 3", STEP_S)
        match = self.console(1, "show qel app 104/3 stat",
                             r"^    Send to application 103/2: send (\d+), unack (\d+), .*$", brief=True)
        if not 0 < int(match.group(2)) <= WINDOW:
            raise NodeError(f"{match.group(2)} readings are on their way")
        if slow.wait(STEP_S) != 0:
            raise NodeError("the slow monitor failed")
        numbers = [int(x) for x in re.findall(r"reading (\d+) of node 3", slow.output)]
        if numbers != list(range(numbers[0], numbers[0] + 1500)):
            raise NodeError("readings were lost or came out of order")
        print("   all 1500 have come, in order", flush=True)
        fast.kill(signal.SIGTERM)
        if fast.wait(STEP_S) != 0:
            raise NodeError("the fast sensor failed")

    def lose(self):
        self.screen.title("the sensor on node 2 is killed: everybody is told at once")
        self.monitor.skip()
        self.sensors[2].kill(signal.SIGKILL)
        self.monitor.expect(rf"application {SENSOR} on node 2 quits", STEP_S)
        self.screen.title("and started again: it joins, and its readings begin anew")
        self.sensors[2] = self.start(2, "sensor", SENSOR, MONITOR, 0, INTERVAL_MS)
        self.monitor.expect(rf"application {SENSOR} on node 2 joins", STEP_S)
        self.monitor.expect(r"reading 1 of node 2: ", STEP_S)

    def console(self, node, command, *patterns, brief=False):
        """Types a command at a node's console and shows the answer, in which all @patterns must be; @brief:
        only what they match. Gives the last match."""
        daemon = self.daemons[node]
        daemon.skip()
        daemon.send(command)
        daemon.expect_prompt(r"\(qel\)$", STEP_S)
        answer = daemon.output[:daemon.position].replace("\r\n", "\n")
        answer = answer[answer.rindex("(qel)", 0, len(answer) - 5) + 5:-5]
        lines = answer.splitlines()
        if lines[:1] == [command]:  # the terminal's echo
            del lines[0]
        self.screen.flush()
        print(f"[node {node}] (qel){command}")
        match = None
        shown = []
        for pattern in patterns:
            if not (match := re.search(pattern, answer, re.M)):
                raise NodeError(f"{command!r} does not show {pattern!r}")
            shown.append(match.group())
        for line in shown if brief else lines:
            print(f"[node {node}] {line}")
        sys.stdout.flush()
        return match

    def operate(self):
        self.screen.title("the operator's console of node 1")
        self.console(1, "show qel status", r"^QEL current node ID: 1\.", r"^TIPC nodes within system: 1 2 3$",
                     rf"^    Applications: {SENSOR}\.$", rf"^    Applications: {MONITOR}\.$")
        self.console(1, f"show qel app {SENSOR}/3 stat", rf"^    Send to application {MONITOR}/1: send \d+")
        self.screen.title("the debug switch: the calculator's library tells what it does")
        self.console(1, f"debug qel app {CALCULATOR} info")
        self.console(1, "show debug", rf"^  Applications: {CALCULATOR}\.$")
        self.run(2, "calculator_client", 1, "2 + 3")
        self.console(1, f"no debug qel app {CALCULATOR} info")

    def measure(self):
        self.screen.title("a short measurement between two nodes")
        self.run(1, "meter", 2, 5000)

    def finish(self):
        self.screen.title("the sensors are told to end")
        for n, sensor in self.sensors.items():
            sensor.kill(signal.SIGTERM)
            if sensor.wait(STEP_S) != 0:
                raise NodeError(f"the sensor on node {n} did not end well")
        self.expect_all(self.monitor, [rf"application {SENSOR} on node {n} quits" for n in NODES])

    def shell(self):
        """Node 1's daemon on this terminal; the other nodes run in the background."""
        self.monitor = self.start(1, "monitor")
        for n in NODES:
            for name in ("calculator_server", "meter"):
                self.start(n, name)
            self.start(n, "sensor", SENSOR, MONITOR, 0, INTERVAL_MS)
            if n != 1:
                self.start(n, "qeld", "-pt", show=False)
        self.expect_all(self.monitor, [rf"application {SENSOR} on node {n} joins" for n in NODES])
        self.screen.close()
        print(f"""
This is node 1 of three, on the local transport. Applications: monitor {MONITOR} here; sensor {SENSOR},
calculator {CALCULATOR} and meter {METER} on every node. In two seconds, when the daemon knows them, try
"show qel status", "show qel app {SENSOR}/2 stat"; "quit" ends it.
""", flush=True)
        node = self.cluster.node(1)
        subprocess.run([QELD, "-pt"], env=node.environment({}), check=False)

    def steps(self):
        return (self.appear, self.call, self.flow, self.lose, self.operate, self.measure, self.finish)


def main():
    parser = argparse.ArgumentParser(prog="demo.sh", add_help=True)
    mode = parser.add_mutually_exclusive_group()
    mode.add_argument("--kernel", action="store_true", help="over the kernel's TIPC, in user-mode-linux")
    mode.add_argument("--shell", action="store_true", help="leave me in the console of node 1")
    arguments = parser.parse_args()
    if arguments.shell and not sys.stdin.isatty():
        print("demo.sh: --shell needs a terminal", file=sys.stderr)
        return 2
    try:
        where = "in user-mode-linux" if arguments.kernel else "on this host"
        print(f"starting three nodes {where}", flush=True)
        backend = "netns" if arguments.kernel else "local"
        with Cluster(backend=backend, nodes=len(NODES)) as cluster:
            demo = Demo(cluster)
            try:
                for step in [demo.shell] if arguments.shell else demo.steps():
                    step()
                if not arguments.shell:
                    demo.screen.title("done: everything happened that was announced")
                return 0
            except NodeError as error:
                demo.screen.flush()
                print(f"\ndemo.sh: {error}", file=sys.stderr)
                return 1
            finally:
                demo.screen.close()
    except NodeError as error:  # there are no nodes
        print(f"demo.sh: {error}", file=sys.stderr)
        return 1


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:  # everything has been cleaned up on the way here
        sys.exit(128 + signal.SIGINT)
