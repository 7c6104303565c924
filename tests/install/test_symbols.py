#!/usr/bin/env python3
"""What the shared library shows to the world is what its header declares.

Environment: QEL_SOURCE_DIR, QEL_BUILD_DIR; QEL_SANITIZED when the build is instrumented.
"""
import os
import re
import subprocess
import unittest

SOURCE = os.environ["QEL_SOURCE_DIR"]
LIBRARY = os.path.join(os.environ["QEL_BUILD_DIR"], "libqel.so.1")


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def declared():
    """The functions of the header that are marked for export."""
    with open(os.path.join(SOURCE, "include/qel/qel.h"), encoding="ascii") as file:
        text = re.sub(r"/\*.*?\*/", "", file.read(), flags=re.S)
    text = re.sub(r"^#.*$", "", text, flags=re.M)
    return sorted(re.findall(r"\bQEL_API\b[^;(]*?\b(\w+)\s*\(", text))


def listed():
    """The names of the version script."""
    with open(os.path.join(SOURCE, "lib/libqel.map"), encoding="ascii") as file:
        text = re.sub(r"#.*", "", file.read())
    return sorted(re.findall(r"(\w+);", text.split("global:")[1].split("local:")[0]))


def exported():
    names = []
    for line in run("nm", "-D", "--defined-only", LIBRARY).splitlines():
        kind, name = line.split()[-2:]
        if kind != "A":  # the version itself
            names.append(name)
    return sorted(names)


class Symbols(unittest.TestCase):
    maxDiff = None

    def test_header_declares_functions(self):
        self.assertGreater(len(declared()), 30)
        self.assertEqual(len(declared()), len(set(declared())))

    def test_version_script_lists_what_the_header_declares(self):
        self.assertEqual(listed(), declared())

    def test_library_exports_what_the_header_declares_and_nothing_else(self):
        self.assertEqual(exported(), [name + "@@QEL_1" for name in declared()])

    def test_names_of_the_library_begin_with_its_prefix(self):
        self.assertEqual([name for name in declared() if not name.startswith("qel_")], [])

    def test_soname_carries_the_major_version(self):
        self.assertIn("Library soname: [libqel.so.1]", run("readelf", "-d", LIBRARY))
        self.assertTrue(os.path.realpath(LIBRARY).endswith("libqel.so.1.0.0"))

    @unittest.skipIf(os.environ.get("QEL_SANITIZED"), "an instrumented library needs its run-time library")
    def test_library_needs_the_standard_libraries_only(self):
        needed = set(re.findall(r"\(NEEDED\).*\[(.*?)\]", run("readelf", "-d", LIBRARY)))
        allowed = {"libstdc++.so.6", "libm.so.6", "libgcc_s.so.1", "libc.so.6", "ld-linux-x86-64.so.2"}
        self.assertEqual(needed - allowed, set())

    def test_library_throws_nothing_and_knows_no_types_at_run_time(self):
        undefined = run("nm", "-D", "--undefined-only", LIBRARY)
        for symbol in ("__cxa_throw", "__cxa_begin_catch", "__dynamic_cast", "_Znwm", "_Znam"):
            self.assertNotRegex(undefined, rf"\b{symbol}\b")


if __name__ == "__main__":
    unittest.main()
