"""The demonstration ends well: on the local transport or, with QEL_TEST_BACKEND=netns, on the kernel's."""
import fcntl
import os
import pty
import select
import subprocess
import termios
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
DEMO = os.path.join(HERE, "../../examples/demo.sh")
BUILD = os.environ.get("QEL_BUILD_DIR", os.path.join(HERE, "../../build/release"))
KERNEL = os.environ.get("QEL_TEST_BACKEND", "local") != "local"


class Demo(unittest.TestCase):
    def run_demo(self, *arguments, build=BUILD):
        return subprocess.run([DEMO, *arguments], env={**os.environ, "QEL_BUILD_DIR": build}, text=True,
                              check=False, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, timeout=200)

    def test_it_shows_every_step_and_ends_well_within_a_minute(self):
        begin = time.monotonic()
        done = self.run_demo(*(["--kernel"] if KERNEL else []))
        took = time.monotonic() - begin
        self.assertEqual(done.returncode, 0, done.stdout[-4000:])
        for line in ("[node 1] monitor: application 100 on node 2 joins", "[node 1] node 3: 42",
                     "[node 1] monitor: application 100 on node 2 quits", "[node 1] QEL current node ID: 1.",
                     "[node 1] TIPC nodes within system: 1 2 3"):
            self.assertIn(line + "\n", done.stdout)
        self.assertNotIn("Traceback", done.stdout)
        self.assertLess(took, 60 if not os.environ.get("CI") else 120)

    @unittest.skipIf(KERNEL, "once is enough")
    def test_it_says_what_is_missing(self):
        done = self.run_demo(build="/nonexistent")
        self.assertEqual(done.returncode, 2)
        self.assertIn("build first", done.stdout)
        self.assertEqual(self.run_demo("--shell").returncode, 2, "there is no terminal")
        self.assertEqual(self.run_demo("--unknown").returncode, 2)
        self.assertEqual(self.run_demo("--kernel", "--shell").returncode, 2, "one or the other")

    def run_shell(self, last_input, before=None):
        """Ends the demonstration by what is typed at its console. @before: a command and what it must show
        first, however often it takes. Gives the exit status and what followed the last input."""
        terminal, others = pty.openpty()
        with open(terminal, "r+b", buffering=0) as screen:
            demo = subprocess.Popen([DEMO, "--shell"], env={**os.environ, "QEL_BUILD_DIR": BUILD},
                                    stdin=others, stdout=others, stderr=others, start_new_session=True,
                                    preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0))
            os.close(others)
            text, typed, end = b"", 0, time.monotonic() + 60
            while time.monotonic() < end and select.select([screen], [], [], end - time.monotonic())[0]:
                try:
                    text += screen.read(4096)
                except OSError:  # nobody has the terminal any more
                    break
                if not text.endswith(b"(qel)"):
                    continue
                if before and before[1] not in text[typed:]:
                    select.select([screen], [], [], 0.1)  # the next try in a moment
                    screen.write(before[0])
                else:
                    before = None
                    screen.write(last_input)
                typed = len(text)
            return demo.wait(10), text[typed:].decode().replace("\r\n", "\n")

    @unittest.skipIf(KERNEL, "the shell is on the local transport")
    def test_its_shell_ends_with_the_console_and_leaves_nothing_behind_on_the_screen(self):
        status, text = self.run_shell(b"quit\n", before=(b"show debug\n", b"  Applications: 100."))
        self.assertEqual((status, text), (0, "quit\n"))

    @unittest.skipIf(KERNEL, "the shell is on the local transport")
    def test_its_shell_ends_at_an_interrupt(self):
        status, text = self.run_shell(b"\x03")
        self.assertEqual((status, text), (130, "^C"))


if __name__ == "__main__":
    unittest.main(verbosity=2)
