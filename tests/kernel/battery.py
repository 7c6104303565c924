#!/usr/bin/env python3
"""The contract tests on real TIPC: one boot for all cases, one ctest entry for each.

    battery.py netns RESULTS BINARY  boots a kernel with two nodes, runs the kernel cases of BINARY on node 1
    battery.py pair RESULTS BINARY   boots two kernels with a real link between them, runs pair_cases.py
    battery.py cmake OUT TARGET BINARY [TARGET BINARY]...
                                     writes the ctest entries battery.<kind>.<target> and those of its cases

The first two store what stored_result.py shows. They end with 0 when every case has a result, passed or not;
what fails is the entry of the case.
"""
import inspect
import json
import os
import re
import subprocess
import sys
import time
import traceback

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "support"))
sys.path.insert(0, HERE)
import pair_cases  # noqa: E402
from qel_nodes import Cluster, NodeError  # noqa: E402

SILENCE_S = 60  # a case that prints nothing for so long hangs
WHOLE_S = 300
RESULT = re.compile(r"^\[ +(RUN|OK|FAILED|SKIPPED) +\] (\S+?)(?:,| \(|$)")


def gtest_cases(binary):
    """The kernel cases of a GoogleTest program, by their full names."""
    listing = subprocess.run([binary, "--gtest_list_tests", "--gtest_filter=kernel/*"], check=True,
                             stdout=subprocess.PIPE, text=True).stdout
    cases, suite = [], ""
    for line in listing.splitlines():
        name = line.split("#")[0].rstrip()
        if not line.startswith(" "):
            suite = name
        elif name:
            cases.append(suite + name.strip())
    return cases


def short(case):
    """kernel/port_contract.a_name/kernel -> a_name"""
    return case.split(".", 1)[1].rsplit("/", 1)[0]


class Results:
    def __init__(self, path):
        self.path, self.cases = path, {}
        if os.path.exists(path):
            os.unlink(path)

    def add(self, name, passed, output):
        self.cases[name] = {"passed": passed, "output": output}

    def store(self):
        os.makedirs(os.path.dirname(self.path), exist_ok=True)
        with open(self.path + ".new", "w") as f:
            json.dump(self.cases, f, indent=1)
        os.rename(self.path + ".new", self.path)


def run_gtest_cases(node, binary, cases, results):
    """Runs all @cases; one that crashes or hangs costs only itself."""
    deadline = time.monotonic() + WHOLE_S
    left = list(cases)
    while left and time.monotonic() < deadline:
        done = [c for c in cases if c not in left]
        proc = node.spawn([binary, "--gtest_filter=kernel/*" + ("-" + ":".join(done) if done else "")])
        proc.close_stdin()
        current, text = None, []
        while True:
            try:
                line = proc.expect(r"^.*\n", timeout=SILENCE_S).group(0).rstrip("\n")
            except NodeError as e:
                if proc.alive:
                    proc.kill()
                    proc.wait()
                text.append(f"the case did not end: {e}" if current else str(e))
                break
            match = RESULT.match(line)
            if match and match.group(1) == "RUN":
                current, text = match.group(2), []
            text.append(line)
            if match and match.group(2) == current and match.group(1) != "RUN":
                results.add(short(current), match.group(1) == "OK", "\n".join(text))
                left.remove(current)
                current, text = None, []
        if current:
            results.add(short(current), False, "\n".join(text))
            left.remove(current)
        elif left:
            raise NodeError(f"{binary} ended with {len(left)} cases to go:\n" + proc.output[-3000:])
    if left:
        raise NodeError(f"{len(left)} cases were not reached in {WHOLE_S} s")


def netns(path, binary):
    results = Results(path)
    cases = gtest_cases(binary)
    begin = time.monotonic()
    with Cluster("netns", nodes=2) as cluster:
        booted = time.monotonic()
        run_gtest_cases(cluster.node(1), binary, cases, results)
    results.store()
    report(results, begin, booted)


def pair(path, binary):
    results = Results(path)
    begin = time.monotonic()
    with Cluster("pair", nodes=2) as cluster:
        booted = time.monotonic()
        for name, function in pair_functions():
            output = ""
            try:
                function(pair_cases.Link(cluster, binary))
                passed = True
            except (AssertionError, NodeError):
                passed, output = False, traceback.format_exc()
            cluster.kill_all()
            results.add(name, passed, output or inspect.getdoc(function))
            pair_cases.restore(cluster)
    results.store()
    report(results, begin, booted)


def pair_functions():
    return [(name[5:], f) for name, f in vars(pair_cases).items() if name.startswith("case_")]


def report(results, begin, booted):
    failed = sorted(name for name, r in results.cases.items() if not r["passed"])
    took = time.monotonic() - booted
    print(f"booted in {booted - begin:.1f} s, {len(results.cases)} cases in {took:.1f} s")
    for name in failed:
        print("failed:", name)


def cmake(out, pairs):
    """Writes ctest entries for the cases of the programs in @pairs: [target, binary, target...]."""
    me, base = os.path.abspath(__file__), os.path.dirname(os.path.abspath(out))
    shower = os.path.join(HERE, "stored_result.py")
    text = []

    def boot(kind, target, binary, names):
        boot_name, path = f"battery.{kind}.{target}", f"{base}/{kind}.{target}.json"
        text.append(f'add_test([=[{boot_name}]=] "{sys.executable}" -B "{me}" {kind} "{path}" "{binary}")')
        text.append(f'set_tests_properties([=[{boot_name}]=] PROPERTIES LABELS "contract;kernel" TIMEOUT 420 '
                    f'FIXTURES_SETUP {boot_name})')
        for name in names:
            entry = f"{target}.{kind}.{name}"
            text.append(f'add_test([=[{entry}]=] "{sys.executable}" -BES "{shower}" "{path}" "{name}")')
            text.append(f'set_tests_properties([=[{entry}]=] PROPERTIES LABELS "contract;kernel" TIMEOUT 30 '
                        f'FIXTURES_REQUIRED {boot_name})')

    for target, binary in zip(pairs[::2], pairs[1::2]):
        cases = [short(c) for c in gtest_cases(binary)]
        if cases:
            boot("netns", target, binary, cases)
        if target.endswith("test_port"):
            boot("pair", target, binary, [name for name, _ in pair_functions()])
    with open(out, "w") as f:
        f.write("\n".join(text) + "\n")


def main():
    kind, *arguments = sys.argv[1:]
    if kind == "cmake":
        cmake(arguments[0], arguments[1:])
    else:
        try:
            {"netns": netns, "pair": pair}[kind](*arguments)
        except NodeError as e:
            print(f"battery.py: {e}", file=sys.stderr)
            return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
