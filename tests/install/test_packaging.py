#!/usr/bin/env python3
"""The files by which a system starts the daemon: units that systemd accepts, whose command lines work.

Environment: QEL_SOURCE_DIR, QEL_BUILD_DIR. Works below a temporary directory.
"""
import os
import re
import shutil
import signal
import stat
import subprocess
import sys
import tempfile
import unittest

SOURCE = os.environ["QEL_SOURCE_DIR"]
BUILD = os.environ["QEL_BUILD_DIR"]
sys.path.insert(0, os.path.join(SOURCE, "tests/support"))
from qeld_console import HELP, PROMPT, DaemonTest  # noqa: E402

CTRL_BACKSLASH = "\x1c"
UNITS = (("qeld.service", "qeld.service"), ("qeld@.service", "qeld@tty8.service"))


class Packaged(DaemonTest):
    backends = ("local",)

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.scratch = tempfile.mkdtemp(prefix="qp-")  # short: it holds a socket
        cls.addClassCleanup(shutil.rmtree, cls.scratch)
        cls.prefix = os.path.join(cls.scratch, "usr")
        subprocess.run(["cmake", "--install", BUILD, "--prefix", cls.prefix], check=True,
                       stdout=subprocess.DEVNULL, timeout=120)

    def installed(self, path):
        with open(os.path.join(self.prefix, path), encoding="ascii") as file:
            return file.read()

    def unit(self, name):
        return self.installed("lib/systemd/system/" + name)

    def exec_start(self, name, **variables):
        """The command line of a unit as systemd takes it apart: $NAME becomes any number of words, ${NAME} a
        part of one."""
        line, = re.findall(r"^ExecStart=(.*)$", self.unit(name), re.M)
        line = re.sub(r"\$(\w+)", lambda m: variables.get(m[1], ""), line)
        return [re.sub(r"\$\{(\w+)\}", lambda m: variables[m[1]], word) for word in line.split()]

    def test_systemd_accepts_the_units(self):
        if not shutil.which("systemd-analyze"):
            self.skipTest("no systemd-analyze")
        for name, instance in UNITS:
            path = os.path.join(self.scratch, instance)
            with open(path, "w", encoding="ascii") as file:
                file.write(self.unit(name))
            result = subprocess.run(["systemd-analyze", "verify", "--man=no", path], capture_output=True,
                                    text=True, timeout=60)
            complaints = [line for line in result.stderr.splitlines() if "qeld" in line]
            self.assertEqual((result.returncode, complaints), (0, []), name)

    def test_the_units_start_the_daemon_again_however_often_it_ends(self):
        for name, _ in UNITS:
            unit, _, service = self.unit(name).partition("[Service]\n")
            self.assertIn("\nStartLimitIntervalSec=0\n", unit, name)
            self.assertIn("\nRestart=always\n", service, name)

    def test_systemd_accepts_the_directories(self):
        if not shutil.which("systemd-tmpfiles"):
            self.skipTest("no systemd-tmpfiles")
        root = os.path.join(self.scratch, "root")
        os.makedirs(os.path.join(root, "etc"))
        with open(os.path.join(root, "etc/passwd"), "w", encoding="ascii") as file:
            file.write("root:x:0:0::/:/bin/sh\n")
        with open(os.path.join(root, "etc/group"), "w", encoding="ascii") as file:
            file.write("root:x:0:\n")
        lines = os.path.join(root, "etc/qel.conf")
        with open(lines, "w", encoding="ascii") as file:
            file.write(self.installed("lib/tmpfiles.d/qel.conf").replace("\n#f+ ", "\nf+ "))
        result = subprocess.run(["systemd-tmpfiles", "--create", "--root=" + root, lines],
                                capture_output=True, text=True, timeout=60)
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertEqual(stat.S_IMODE(os.stat(os.path.join(root, "velt/dev/qel")).st_mode), 0o1777)
        self.assertEqual(stat.S_IMODE(os.stat(os.path.join(root, "velt/dev/qel/qeld.pid")).st_mode), 0o777)
        self.assertEqual(stat.S_IMODE(os.stat(os.path.join(root, "tmp/addr")).st_mode), 0o755)
        with open(os.path.join(root, "tmp/addr/.qel_node_addr"), encoding="ascii") as file:
            self.assertEqual(file.read(), "5", "the line for the node's number")

    def attach(self, socket):
        return self.node(1).spawn([self.prefix + "/bin/qeld-console"], env={"QELD_CONSOLE": socket}, pty=True)

    def test_the_console_of_the_service_can_be_joined_and_left(self):
        if not shutil.which("dtach"):
            self.skipTest("no dtach")
        runtime = os.path.join(self.scratch, "run")
        os.mkdir(runtime, 0o700)
        socket = os.path.join(runtime, "console")
        command = self.exec_start("qeld.service", RUNTIME_DIRECTORY=runtime)
        self.assertTrue(os.path.isabs(command[0]) and command[0] == shutil.which("dtach"), command)
        # as systemd starts it: without a terminal, with the end of input at once
        service = self.node(1).spawn(command)
        service.close_stdin()
        self.eventually(lambda: os.path.exists(socket), "the socket")
        self.assertEqual(stat.S_IMODE(os.stat(socket).st_mode) & 0o077, 0)
        self.eventually(lambda: os.path.exists(os.path.join(self.node(1).velt_dir, "dev/qel/qeld.pid")),
                        "the daemon")

        first = self.attach(socket)
        first.expect(r"Ctrl-\\ leaves the console")
        for terminal in (first, self.attach(socket)):  # a second one beside it
            terminal.write("\n")
            terminal.expect_prompt(r"\(qel\)")
            terminal.skip()
            terminal.send("show qel status")
            terminal.expect(r"QEL current node ID: 1\.")
            terminal.expect(r"QEL node 1 application status:")
        first.write(CTRL_BACKSLASH)
        first.wait()
        self.assertTrue(service.alive)
        again = self.attach(socket)
        again.send("help")
        again.expect("valid commands")
        again.send("quit")
        again.wait()
        service.wait()
        self.assertFalse(os.path.exists(socket))

    def test_a_service_that_is_told_to_stop_ends_with_a_status_that_is_no_failure(self):
        if not shutil.which("dtach"):
            self.skipTest("no dtach")
        runtime = tempfile.mkdtemp(dir=self.scratch)
        service = self.node(1).spawn(self.exec_start("qeld.service", RUNTIME_DIRECTORY=runtime))
        self.eventually(lambda: os.path.exists(os.path.join(self.node(1).velt_dir, "dev/qel/qeld.pid")),
                        "the daemon")
        service.kill(signal.SIGTERM)
        status = service.wait()
        allowed = re.findall(r"^SuccessExitStatus=(\d+)$", self.unit("qeld.service"), re.M)
        self.assertIn(status, [0, -signal.SIGTERM, *map(int, allowed)])

    def test_the_console_program_says_when_there_is_nothing_to_join(self):
        done = self.node(1).run([self.prefix + "/bin/qeld-console"],
                                env={"QELD_CONSOLE": os.path.join(self.scratch, "none")})
        self.assertEqual(done.status, 1)
        self.assertIn("is qeld.service running", done.output)
        self.assertEqual(self.node(1).run([self.prefix + "/bin/qeld-console", "x"]).status, 2)

    def test_the_terminal_unit_starts_the_daemon_as_it_is(self):
        command = self.exec_start("qeld@.service")
        self.assertEqual(command, [self.prefix + "/bin/qeld"])
        proc = self.node(1).spawn(command, pty=True)
        proc.expect_prompt(r"\(qel\)$")
        self.assertEqual(proc.output.replace("\r\n", "\n"), HELP + PROMPT)

    def test_the_units_take_options_for_the_daemon_from_a_file(self):
        for name, _ in UNITS:
            self.assertIn("\nEnvironmentFile=-/etc/default/qeld\n", self.unit(name))
            command = self.exec_start(name, RUNTIME_DIRECTORY="/run/qeld", QELD_OPTIONS="-pt")
            self.assertEqual(command[-2:], [self.prefix + "/bin/qeld", "-pt"])

    def test_the_example_configuration_is_understood(self):
        example = self.installed("share/doc/qel/examples/qel.conf")
        self.node(1).write_conf(example.replace("qel_dbg_cfg=0\n", "qel_dbg_cfg=0xF\n"))
        proc = self.node(1).spawn([self.prefix + "/bin/qeld", "-pt"], pty=True)
        proc.expect_prompt(r"\(qel\)")
        log = proc.output
        for line in ("QEL get log config 0xc.",
                     "QEL get app 1 config priority 0.", "QEL get app 6 config priority 3.",
                     "QEL get app config OK: id [6] name [QEL_PT] priority [3] developer [QEL] comment "
                     "[the test of qeld -pt: to 64 KiB]."):
            self.assertIn(line, log)
        self.assertNotIn("invalid config item", log)
        files = sorted(os.listdir(os.path.join(self.node(1).velt_dir, "dev/qel")))
        self.assertEqual([name.split("-")[0] for name in files], ["log", "qeld.pid", "stat"])

        agent = self.agent(1, {20: []})
        self.assertEqual(agent.call("confmbrs", 0x3000), [3, 20, 21, 22])
        self.assertIn("QEL get app 20 config failed.", agent.proc.output, "it has read the whole table")
        self.assertNotIn("invalid config item", agent.proc.output)

    def test_the_files_for_boot_are_there(self):
        self.assertEqual(self.installed("lib/modules-load.d/qel.conf").splitlines()[-1], "tipc")
        self.assertIn("net.tipc.tipc_rmem", self.installed("lib/sysctl.d/60-qel.conf"))


if __name__ == "__main__":
    unittest.main(verbosity=2)
