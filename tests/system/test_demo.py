"""The demonstration ends well: on the local transport or, with QEL_TEST_BACKEND=netns, on the kernel's."""
import os
import subprocess
import sys
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


if __name__ == "__main__":
    unittest.main(verbosity=2)
