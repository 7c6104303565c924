"""Log and statistics files of an application: names, modes, content, the ring, how many stay."""
import os
import re
import stat
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../support"))
from qel_agents import Agent, SystemTest, main  # noqa: E402

NAME = r"(log|stat)-qel-test-agent-(\d+)-\d{8}-\d{6}"
LINE = re.compile(r"[A-Z][a-z]{2} [A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d \d{4} <\w+, \d+> [0-3]: .*")
RING = 99_999  # a line that begins behind this many bytes goes to the start of the file


class Files(SystemTest):
    backends = ("local", "netns")

    def files(self, node=1):
        directory = os.path.join(self.node(node).velt_dir, "dev/qel")
        names = sorted(os.listdir(directory)) if os.path.isdir(directory) else []
        return {name: os.path.join(directory, name) for name in names}

    def read(self, path):
        with open(path, encoding="latin-1") as file:
            return file.read()

    def configure(self, debug=0, log=0):
        for node in (1, 2):
            self.node(node).write_conf(f"[MISC_CONF]\nqel_dbg_cfg={debug}\nqel_log_cfg={log}\n")

    def test_without_a_log_mask_no_file_and_no_line_appears(self):
        self.configure()
        a, b = self.pair()
        self.assertEqual(a.call("send", 20, 21, 10, 10, 0)[0], 0)
        self.assertEqual(self.files(), {})
        self.assertEqual([line for line in a.proc.lines if line[0] not in "=!"], [])

    def test_both_files_are_named_and_open_to_all(self):
        self.configure(log=15)
        a, b = self.pair()
        self.assertEqual([line for line in a.proc.lines if line[0] not in "=!"], [], "the debug mask is 0")
        files = self.files()
        names = [re.fullmatch(NAME, name) for name in files]
        self.assertEqual([m.group(1) for m in names], ["log", "stat"])
        self.assertEqual({int(m.group(2)) for m in names}, {a.value("pid")})
        self.assertEqual(len({name.partition("-")[2] for name in files}), 1, "one stem")
        for path in files.values():
            self.assertEqual(stat.S_IMODE(os.stat(path).st_mode), 0o777, path)
        for directory in ("dev", "dev/qel"):
            self.assertTrue(os.path.isdir(os.path.join(self.node(1).velt_dir, directory)))
        log, statistics = files.values()
        self.assertEqual(self.read(statistics), "", "nothing before the monitor's first half hour")
        lines = self.read(log).splitlines()
        for line in lines:
            self.assertRegex(line, LINE)
        text = "\n".join(lines)
        self.assertIn("QEL init lib on first app registeration.", text)
        self.assertIn("QEL registeration for app 20 [agent 20] OK.", text)
        self.assertIn("QEL perceived app 21/2 join.", text)
        self.assertIn("QEL set app 21/2 online.", text)
        self.assertEqual(a.value("fds"), a.value("fds"))

    def test_each_mask_lets_its_levels_through_and_no_others(self):
        self.configure(debug=2, log=4)
        a, b = self.pair()
        b.kill()
        a.quit(21, 2)
        shown = [line for line in a.proc.lines if line[0] == "<"]
        self.assertEqual({re.match(r"<\w+, \d+> (\d): ", line).group(1) for line in shown}, {"1"})
        log = [path for name, path in self.files().items() if name.startswith("log")][0]
        self.assertEqual({re.search(r"<\w+, \d+> (\d): ", line).group(1)
                          for line in self.read(log).splitlines()}, {"2"})

    def test_the_log_is_a_ring_that_is_rewritten_over_its_old_lines(self):
        self.configure(log=15)
        a, b = self.pair()
        log = [path for name, path in self.files().items() if name.startswith("log")][0]
        size = 0
        while size <= RING:  # a message logs some hundred bytes
            before = self.read(log)
            self.assertEqual(a.call("send", 20, 21, 10, 10, 0)[0], 0)
            size = os.stat(log).st_size
        limit = RING + 25 + 512
        self.assertEqual(a.call("send", 20, 21, 100, 10, 0)[0], 0)
        after = self.read(log)
        self.assertLessEqual(len(after), limit)
        self.assertNotEqual(after[:2000], before[:2000], "it starts over")
        self.assertRegex(after.split("\n")[0], LINE)
        self.assertEqual(after[80_000:90_000], before[80_000:90_000], "what is behind the new lines stays")
        for _ in range(20):
            self.assertEqual(a.call("send", 20, 21, 100, 10, 0)[0], 0)
        self.assertLessEqual(os.stat(log).st_size, limit, "however much is logged")

    def test_of_older_files_the_five_newest_stay(self):
        self.configure(log=8)
        directory = os.path.join(self.node(1).velt_dir, "dev/qel")
        os.makedirs(directory)
        now = time.time()
        for kind in ("log", "stat"):
            for age in range(1, 8):
                path = os.path.join(directory, f"{kind}-qel-test-agent-{age}-20200101-00000{age}")
                with open(path, "w") as file:
                    file.write("old\n")
                os.utime(path, (now - 1000 * age, now - 1000 * age))
        with open(os.path.join(directory, "log-another-1-20200101-000000"), "w"):
            pass
        a = Agent(self.node(1))
        self.assertEqual(a.value("register", 20), 0)
        left = list(self.files())
        self.assertEqual(len(left), 13)
        self.assertIn("log-another-1-20200101-000000", left)
        for kind in ("log", "stat"):
            ages = sorted(int(n.split("-")[4]) for n in left if n.startswith(f"{kind}-qel-test-agent"))
            self.assertEqual([age for age in ages if age < 8], [1, 2, 3, 4, 5])

    def test_a_directory_that_cannot_be_made_stops_nobody(self):
        self.configure(log=15)
        for node in (1, 2):
            with open(os.path.join(self.node(node).velt_dir, "dev"), "w"):
                pass  # a file where the directory should be
        a, b = self.pair()
        self.assertEqual(a.call("send", 20, 21, 10, 10, 0)[0], 0)
        b.arrived(21, 20, 1, 10)

    def test_a_link_in_place_of_the_log_is_not_followed(self):
        self.configure(log=15)
        target = os.path.join(self.node(1).root, "precious")
        with open(target, "w") as file:
            file.write("kept")
        directory = os.path.join(self.node(1).velt_dir, "dev/qel")
        os.makedirs(directory)
        a = Agent(self.node(1))
        pid = a.value("pid")
        now = int(time.time())
        for at in range(now - 5, now + 60):  # the name tells the second
            stamp = time.strftime("%Y%m%d-%H%M%S", time.gmtime(at))
            for kind in ("log", "stat"):
                os.symlink(target, os.path.join(directory, f"{kind}-qel-test-agent-{pid}-{stamp}"))
        self.assertEqual(a.value("register", 20), 0)
        with open(target) as file:
            self.assertEqual(file.read(), "kept")


if __name__ == "__main__":
    main()
