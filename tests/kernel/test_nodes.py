#!/usr/bin/env python3
"""What tests rely on in uml.py and qel_nodes.py, on all three back ends."""
import glob
import os
import re
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "support"))
from qel_nodes import Cluster, NodeError  # noqa: E402
import vm  # noqa: E402

UML = os.path.join(HERE, "uml.py")
VM = os.path.join(HERE, "vm.py")
BUILD = os.environ.get("QEL_BUILD_DIR", os.path.join(HERE, "../../build/release"))
PEER = os.path.join(BUILD, "tests/contract_test_port")
os.environ.setdefault("QEL_FABRIC_BIN", os.path.join(BUILD, "qel-fabric"))


def uml(*words, python=sys.executable, script=UML, **kw):
    return subprocess.run([python, "-B", script, *words], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          text=True, timeout=150, **kw)


def running_kernels(text):
    """The processes whose command line names @text."""
    found = []
    for path in glob.glob("/proc/[0-9]*/cmdline"):
        try:
            with open(path, "rb") as f:
                line = f.read()
        except OSError:
            continue
        if line.startswith(b"linux.uml") and text.encode() in line:
            found.append(path)
    return found


class OneKernel(unittest.TestCase):
    def test_the_status_and_both_streams_are_the_commands(self):
        done = uml("--", "sh", "-c", "echo out; echo err >&2; exit 7")
        self.assertEqual((done.returncode, done.stdout, done.stderr), (7, "out\n", "err\n"))

    def test_a_signal_is_the_shells_status(self):
        self.assertEqual(uml("--", "sh", "-c", "kill -9 $$").returncode, 137)

    def test_a_command_that_is_not_there_is_127(self):
        done = uml("--", "/nonexistent/command")
        self.assertEqual(done.returncode, 127)
        self.assertIn("/nonexistent/command", done.stderr)

    def test_nodes_are_linked_and_have_their_own_files(self):
        done = uml("--nodes", "3", "--", "sh", "-c",
                   "for i in 1 2 3; do onnode $i sh -c 'tipc node get address; cat /tmp/addr/.qel_node_addr; "
                   "tipc link list | grep -c vec0..: >/dev/null; tipc link list | grep -c 100100.*up; "
                   "echo x > /velt/x; ls /velt'; done")
        self.assertEqual(done.stdout, "".join(f"0100100{i}\n{i}\n2\nx\n" for i in (1, 2, 3)), done.stderr)

    def test_the_hosts_files_stay_and_an_out_directory_is_the_hosts(self):
        with tempfile.TemporaryDirectory() as keep, tempfile.TemporaryDirectory() as out:
            path = os.path.join(keep, "file")
            with open(path, "w") as f:
                f.write("old")
            commands = f"echo new > {path}; cat {path}; cp {path} {out}/copy"
            done = uml("--out", out, "--", "sh", "-c", commands)
            self.assertEqual((done.returncode, done.stdout), (0, "new\n"), done.stderr)
            with open(path) as f:
                self.assertEqual(f.read(), "old")
            with open(os.path.join(out, "copy")) as f:
                self.assertEqual(f.read(), "new\n")

    def test_much_output_is_complete(self):
        done = uml("--", "seq", "1", "200000")
        self.assertEqual(done.stdout, "".join(f"{i}\n" for i in range(1, 200001)))

    def test_a_time_out_is_124_and_leaves_nothing(self):
        with tempfile.TemporaryDirectory() as tmp:
            done = uml("--timeout", "8", "--", "sleep", "1000", env=dict(os.environ, TMPDIR=tmp))
            self.assertEqual(done.returncode, 124)
            self.assertIn("not done after 8 s", done.stderr)
            self.assertEqual(running_kernels(tmp), [])
            self.assertEqual(os.listdir(tmp), [])

    def test_a_panic_is_125_and_told(self):
        done = uml("--", "sh", "-c", "echo c > /proc/sysrq-trigger; sleep 100")
        self.assertEqual(done.returncode, 125)
        self.assertIn("panic", done.stderr)

    def test_a_killed_launcher_takes_its_kernel_along(self):
        with tempfile.TemporaryDirectory() as tmp:
            proc = subprocess.Popen([sys.executable, "-B", UML, "--", "sh", "-c", "echo up; sleep 1000"],
                                    stdout=subprocess.PIPE, env=dict(os.environ, TMPDIR=tmp))
            self.assertEqual(proc.stdout.readline(), b"up\n")
            self.assertNotEqual(running_kernels(tmp), [])
            proc.kill()
            proc.wait()
            proc.stdout.close()
            deadline = time.monotonic() + 20
            while running_kernels(tmp) and time.monotonic() < deadline:
                os.sched_yield()
            self.assertEqual(running_kernels(tmp), [])
            while os.listdir(tmp) and time.monotonic() < deadline:
                os.sched_yield()
            self.assertEqual(os.listdir(tmp), [])

    def test_several_run_at_the_same_time(self):
        procs = [subprocess.Popen([sys.executable, "-B", UML, "--", "echo", str(i)], stdout=subprocess.PIPE)
                 for i in range(3)]
        self.assertEqual([p.communicate(timeout=150)[0] for p in procs], [b"0\n", b"1\n", b"2\n"])

    def test_missing_programs_are_named(self):
        done = subprocess.run([sys.executable, "-B", "-c",
                               "import sys, shutil; shutil.which = lambda *a, **k: None\n"
                               f"sys.path.insert(0, {HERE!r}); sys.argv = ['uml.py', '--', 'true']\n"
                               "import uml; sys.exit(uml.main())"],
                              stderr=subprocess.PIPE, text=True, timeout=60, check=False)
        self.assertEqual(done.returncode, 125)
        self.assertIn("apt-get install user-mode-linux iproute2", done.stderr)

    @unittest.skipIf(os.getuid() != 0, "it is one already")
    def test_an_unprivileged_user_may_run_it(self):
        with tempfile.TemporaryDirectory() as tmp, tempfile.TemporaryDirectory() as copy:
            os.chmod(tmp, 0o777)
            os.chmod(copy, 0o755)  # the checkout may lie where only its owner gets
            for part in ("kernel", "support"):
                shutil.copytree(os.path.join(HERE, "..", part), os.path.join(copy, part))
            done = uml("--nodes", "2", "--node", "2", "--", "sh", "-c", "tipc node get address; id -u",
                       script=os.path.join(copy, "kernel", "uml.py"), user=65534, group=65534,
                       extra_groups=[], cwd="/", python="/usr/bin/python3",
                       env=dict(os.environ, TMPDIR=tmp, HOME=tmp))
            self.assertEqual((done.returncode, done.stdout), (0, "01001002\n0\n"), done.stderr)
            self.assertEqual(os.listdir(tmp), [])

    def test_two_kernels_run_a_command_each(self):
        done = uml("--kernels", "2", "--loss", "1", "--", "tipc", "link", "list", "++", "sh", "-c",
                   "tc qdisc show dev vec0; exit 3")
        self.assertEqual(done.returncode, 3, done.stderr)
        self.assertIn("1001001:vec0-1001002:vec0: up", done.stdout)
        self.assertIn("loss 1%", done.stdout)


class Machine(unittest.TestCase):
    def test_a_killed_launcher_takes_its_machine_along(self):
        with tempfile.TemporaryDirectory() as tmp:
            def make(path, text=""):
                os.makedirs(os.path.dirname(f"{tmp}/{path}"), exist_ok=True)
                with open(f"{tmp}/{path}", "w") as f:
                    f.write(text)
                os.chmod(f"{tmp}/{path}", 0o755)

            # A machine that never ends, and as much of a kernel as the launcher looks at.
            make("bin/qemu-system-x86_64", "#!/bin/sh\necho $$\nexec sleep 1000\n")
            for program in ("busybox", "cpio", "tipc", "dpkg-deb"):
                make(f"bin/{program}", "#!/bin/sh\nexec cat\n")
            make("cache/kernel/boot/vmlinuz-0")
            for module in vm.MODULES:
                make(f"cache/kernel/lib/modules/0/kernel/{module}.ko")
            os.mkdir(f"{tmp}/work")
            env = dict(os.environ, TMPDIR=f"{tmp}/work", QEL_VM_CACHE=f"{tmp}/cache",
                       PATH=f"{tmp}/bin:{os.environ['PATH']}")
            for sig in (signal.SIGKILL, signal.SIGTERM, signal.SIGHUP):
                proc = subprocess.Popen([sys.executable, "-B", VM, "--", "true"], env=env,
                                        stdout=subprocess.PIPE)
                machine = os.pidfd_open(int(proc.stdout.readline()))
                proc.send_signal(sig)
                proc.wait()
                proc.stdout.close()
                ended, _, _ = select.select([machine], [], [], 20)
                if not ended:
                    signal.pidfd_send_signal(machine, signal.SIGKILL)
                os.close(machine)
                self.assertTrue(ended, f"it runs on after {sig!r}")
                deadline = time.monotonic() + 20
                while os.listdir(f"{tmp}/work") and time.monotonic() < deadline:
                    os.sched_yield()
                self.assertEqual(os.listdir(f"{tmp}/work"), [])


class Nodes:
    """The same for every back end."""

    backend = None

    @classmethod
    def setUpClass(cls):
        cls.cluster = Cluster(cls.backend, nodes=2)

    @classmethod
    def tearDownClass(cls):
        work = cls.cluster.work
        cls.cluster.close()
        assert not os.path.exists(work), "files are left"

    def setUp(self):
        self.cluster.reset()
        self.a, self.b = self.cluster.node(1), self.cluster.node(2)

    def path_of(self, node, fixed, in_root):
        return os.path.join(node.root, in_root) if self.backend == "local" else fixed

    def test_a_process_is_talked_to(self):
        cat = self.b.spawn(["cat"])
        cat.send("first line")
        self.assertEqual(cat.expect(r"^first (\w+)$").group(1), "line")
        cat.send("x" * 100000)
        cat.expect(r"^x{100000}$")
        self.assertEqual(len(cat.lines), 2)
        with self.assertRaisesRegex(NodeError, "not in 0.2 s"):
            cat.expect("first", timeout=0.2)
        cat.close_stdin()
        self.assertEqual(cat.wait(), 0)
        with self.assertRaisesRegex(NodeError, "status 0"):
            cat.expect("first")

    def test_what_must_not_come_is_noticed(self):
        cat = self.a.spawn(["cat"])
        cat.send("bad")
        with self.assertRaisesRegex(NodeError, "bad"):
            cat.refute("bad", 10)
        cat.refute("worse", 0.1)

    def test_signals_reach_a_process_and_its_end_is_told(self):
        cat = self.a.spawn(["cat"])
        cat.kill(signal.SIGSTOP)
        cat.send("asleep")
        cat.refute("asleep", 0.3)
        cat.kill(signal.SIGCONT)
        cat.expect("asleep")
        cat.kill(signal.SIGKILL)
        self.assertEqual(cat.wait(), -signal.SIGKILL)

    def test_standard_error_can_be_kept_apart(self):
        proc = self.a.spawn(["sh", "-c", "echo out; echo err >&2"], merge=False)
        self.assertEqual(proc.wait(), 0)
        self.assertEqual((proc.output, proc.err_text), ("out\n", "err\n"))

    def test_a_terminal_is_one(self):
        script = "test -t 0 && test -t 1 && printf 'name? '; read x; echo \"is $x\"; cat"
        proc = self.a.spawn(["sh", "-c", script], pty=True)
        proc.expect_prompt(r"name\? $")
        proc.send("n")
        proc.expect(r"is n$")
        proc.close_stdin()
        self.assertEqual(proc.wait(), 0)

    def test_a_program_that_is_not_there_is_told(self):
        with self.assertRaisesRegex(NodeError, "did not start"):
            self.a.spawn(["/nonexistent/program"])

    def test_files_of_a_node_are_exchanged_at_any_time(self):
        conf = self.path_of(self.a, "/etc/qel.conf", "etc/qel.conf")
        velt = self.path_of(self.a, "/velt", "velt")
        self.assertNotEqual(self.a.run(["cat", conf]).status, 0)
        for text in ("one\n", "two, longer\n", "3\n"):
            self.a.write_conf(text)
            self.assertEqual(self.a.run(["cat", conf]).output, text)
        addr = self.path_of(self.b, "/tmp/addr/.qel_node_addr", "tmp/addr/.qel_node_addr")
        self.assertEqual(self.b.run(["cat", addr]).output, "2\n")
        for text in ("a", "bb"):
            self.a.run(["sh", "-c", f"echo {text} >> {velt}/log"], check=True)
        with open(os.path.join(self.a.velt_dir, "log")) as f:
            self.assertEqual(f.read(), "a\nbb\n")
        self.assertEqual(os.listdir(self.b.velt_dir), [])

    def test_the_environment_is_the_tests_with_changes(self):
        os.environ["QEL_NODES_TEST"] = "kept"
        out = self.a.run(["env"], env={"ADDED": 1, "LANG": None}).output
        self.assertIn("QEL_NODES_TEST=kept\n", out)
        self.assertIn("ADDED=1\n", out)
        self.assertNotIn("LANG=", re.sub(r"\w+LANG=", "", out))
        kind = "local" if self.backend == "local" else "kernel"
        self.assertIn(f"QEL_TRANSPORT={kind}\n", out)

    def test_reset_kills_whatever_was_started(self):
        self.a.spawn(["sh", "-c", "sleep 1000 & exec sleep 1000"])
        proc = self.a.spawn(["cat"])
        self.cluster.reset()
        self.assertFalse(proc.alive)
        self.assertEqual(self.cluster.running(), [])

    def test_a_node_is_cut_off_and_mended(self):
        near = self.a.spawn([PEER, "--peer", "local" if self.backend == "local" else "kernel"])
        far = self.b.spawn([PEER, "--peer", "local" if self.backend == "local" else "kernel"])
        near.send("topology 0")
        near.send("subscribe 0 5000 7 7 4294967295 2")
        far.send("rdm 0")
        far.send("bind 0 5000 7 7")
        near.send("event 0 20000")
        near.expect("^ok P 7 7", timeout=30)
        self.b.cut()
        near.send("event 0 20000")
        near.expect("^ok W 7 7", timeout=30)
        self.b.mend()
        near.send("event 0 20000")
        near.expect("^ok P 7 7", timeout=30)


class Local(Nodes, unittest.TestCase):
    backend = "local"


class Namespaces(Nodes, unittest.TestCase):
    backend = "netns"


class Pair(Nodes, unittest.TestCase):
    backend = "pair"


if __name__ == "__main__":
    unittest.main()
