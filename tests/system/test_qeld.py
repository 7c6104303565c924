"""The daemon's start: options, exit statuses, one daemon per node, its files and threads."""
import os
import signal
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../support"))
from qel_agents import SANITIZED, Raw, main  # noqa: E402
from qeld_console import HELP, QELD, USAGE, Console, DaemonTest  # noqa: E402


class Start(DaemonTest):
    def pid_file(self, node=1):
        return os.path.join(self.node(node).velt_dir, "dev/qel/qeld.pid")

    def read(self, path):
        with open(path) as file:
            return file.read()

    def test_options_and_their_statuses(self):
        node = self.node(1)
        for options, status, printed in (
            (["-help"], 0, USAGE),
            (["--help"], 0, USAGE),
            (["-x"], 234, USAGE),
            (["foo"], 234, "unexpected command argument 'foo'\n" + USAGE),
            (["-pt", "foo"], 234, "unexpected command argument 'foo'\n" + USAGE),
        ):
            proc = node.spawn([QELD, *options], merge=False)
            self.assertEqual(proc.wait(), status, options)
            self.assertEqual(proc.output, printed, options)
        self.assertFalse(os.path.exists(self.pid_file()))

    def test_without_a_node_address_it_ends_with_255_and_no_word(self):
        node = self.node(1)
        os.unlink(node.addr_path)
        done = node.run([QELD])
        self.assertEqual((done.status, done.output), (255, ""))

    def test_without_a_terminal_it_ends_with_1(self):
        proc = self.node(1).spawn([QELD], merge=False)
        self.assertEqual(proc.wait(), 1)
        self.assertEqual(proc.output, "")
        self.assertIn("stty", proc.err_text)

    def test_with_a_closed_standard_stream_nothing_is_printed_into_its_files(self):
        for closed in ("1>&-", "2>&-", "1>&- 2>&-"):
            console = self.node(1).spawn(["/bin/sh", "-c", f"echo $$; exec {QELD} {closed}"], pty=True)
            console.send("debug qel app 5 loud")
            console.send("quit")
            self.assertEqual(console.wait(), 1, closed)
            self.assertEqual(self.read(self.pid_file()), console.lines[0] + "\n", closed)

    def test_a_terminal_set_up_that_cannot_be_waited_for_ends_it_with_0(self):
        # with SIGCHLD ignored the child leaves no status behind
        code = "import os, signal as s, sys; s.signal(s.SIGCHLD, s.SIG_IGN); os.execl(*sys.argv[1:])"
        proc = self.node(1).spawn([sys.executable, "-c", code, QELD, QELD], pty=True)
        self.assertEqual(proc.wait(), 0)
        self.assertNotIn("(qel)", proc.output)

    def test_it_greets_with_the_help_and_a_prompt(self):
        console = Console(self.node(1))
        self.assertEqual(console.until_prompt(), HELP)

    def test_there_is_one_daemon_per_node(self):
        first = self.console(1)
        owner = self.read(self.pid_file())
        self.assertRegex(owner, r"\A[1-9]\d*\n\Z")
        if not self.real:
            self.assertEqual(owner, f"{first.proc.pid}\n")
        self.assertEqual(os.stat(self.pid_file()).st_mode & 0o7777, 0o777)

        second = self.node(1).run([QELD])
        self.assertEqual((second.status, second.output), (255, ""))
        self.assertEqual(self.read(self.pid_file()), owner)
        self.node(1).write_conf("[MISC_CONF]\nqel_dbg_cfg=1\n")
        second = self.node(1).run([QELD])
        self.assertEqual(second.status, 255)
        self.assertRegex(second.output, r"<qeld, \d+> 0: QEL daemon had already running\.\r?\n"
                                        r"<qeld, \d+> 0: QELD has already running\.\r?\n\Z")
        self.assertEqual(self.read(self.pid_file()), owner)
        self.assertTrue(first.proc.alive)

        self.node(1).write_conf("")
        first.proc.kill(signal.SIGKILL)
        first.proc.wait()
        self.assertEqual(self.read(self.pid_file()), owner, "the file of a dead daemon stays")
        third = self.console(1)
        self.assertRegex(self.read(self.pid_file()), r"\A[1-9]\d*\n\Z")
        self.assertNotEqual(self.read(self.pid_file()), owner)
        third.proc.kill(signal.SIGKILL)
        third.proc.wait()
        with open(self.pid_file(), "w") as file:
            file.write("1234567890\nof another time\n")
        self.console(1)
        self.assertRegex(self.read(self.pid_file()), r"\A[1-9]\d{0,6}\n\Z")


    def test_files_and_directories_have_the_modes_that_are_asked_for(self):
        self.node(1).write_conf("[MISC_CONF]\nqel_log_cfg=8\n")
        proc = self.node(1).spawn(["sh", "-c", f"umask 077; exec {QELD}"], pty=True)
        proc.expect_prompt(r"\(qel\)$")
        directory = os.path.dirname(self.pid_file())
        names = sorted(os.listdir(directory))
        self.assertEqual([name.split("-")[0] for name in names], ["log", "qeld.pid", "stat"])
        made = [os.path.join(directory, name) for name in names]
        if not self.real:  # a guest's directories are made by the host, under the umask of the test
            made += [directory, os.path.dirname(directory)]
        for path in made:
            self.assertEqual(os.stat(path).st_mode & 0o777, 0o777, path)

    def test_its_threads_have_names(self):
        console = self.daemon(1)
        names = self.node(1).run(["sh", "-c", f"cat /proc/{console.proc.pid}/task/*/comm"]).output.split()
        pid = console.proc.pid
        self.assertIn("qeld_event_proc", names)
        self.assertIn("qeld_app_info", names)
        self.assertIn("qel_app_1", names)
        self.assertIn(f"qel_lib_{pid}", names)
        if not SANITIZED:  # one sanitizer has a thread of its own
            self.assertEqual(len(names), 5)

    def test_its_name_appears_on_the_transport(self):
        self.console(1)
        raw = Raw(self.node(1))
        topology = raw.value("topology")
        raw.call("subscribe", topology, 2303, 0x10000, 0x1FFFF, 0xFFFFFFFF, 2)
        raw.event(rf"event {topology} 1 {0x10001} {0x10001} .*")

    def test_a_registration_that_fails_ends_it_with_255(self):
        self.node(1).write_conf("[MISC_CONF]\nqel_dbg_cfg=8\n[APP_INFO_TBL]\n1, qel_daemon, 4, us\n")
        done = self.node(1).run([QELD])
        self.assertEqual(done.status, 255)
        self.assertRegex(done.output, r"<qeld, \d+> 3: QELD register to QEL failed\.\r?\n\Z")

    def test_a_performance_test_that_cannot_be_set_up_leaves_a_daemon(self):
        self.node(1).write_conf("[APP_INFO_TBL]\n6, QEL_PT, 4, us\n")
        console = self.daemon(1, "-pt")
        self.assertEqual(console.processes()[self.own(console)], [1])
        self.assertEqual(console.command("qel performance test"),
                         ["% QEL_PT had not registered, please quit and run 'qeld -pt'."])

    @staticmethod
    def own(console):
        return next(pid for pid, apps in console.processes().items() if 1 in apps)


if __name__ == "__main__":
    main()
