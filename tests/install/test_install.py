#!/usr/bin/env python3
"""A program finds, builds against and runs with an installed QEL, and the header needs nothing but itself.

Environment: QEL_SOURCE_DIR, QEL_BUILD_DIR. Works below a temporary directory.
"""
import os
import shutil
import subprocess
import tempfile
import unittest

SOURCE = os.environ["QEL_SOURCE_DIR"]
BUILD = os.environ["QEL_BUILD_DIR"]
HERE = os.path.join(SOURCE, "tests/install")
STRICT = ["-Wall", "-Wextra", "-Wpedantic", "-Wshadow", "-Werror"]


def run(*command, **options):
    """Standard output of a command; its errors are shown when it fails."""
    result = subprocess.run(command, capture_output=True, text=True, timeout=120, **options)
    if result.returncode:
        raise AssertionError(f"{' '.join(command)}: {result.returncode}\n{result.stdout}{result.stderr}")
    return result.stdout


class HeaderAlone(unittest.TestCase):
    def compile(self, compiler, standard, language, *macros):
        with tempfile.TemporaryDirectory(prefix="qel-header-") as scratch:
            source = os.path.join(scratch, "alone." + language)
            with open(source, "w", encoding="ascii") as file:
                file.write("#include <qel/qel.h>\n#include <qel/qel.h>\nint alone;\n")
            run(compiler, "-std=" + standard, *STRICT, *macros, f"-I{SOURCE}/include",
                "-c", source, "-o", "/dev/null")

    def test_c11_by_gcc(self):
        self.compile("gcc", "c11", "c")

    def test_c11_by_clang(self):
        self.compile("clang", "c11", "c")

    def test_gnu_c_by_gcc(self):
        self.compile("gcc", "gnu17", "c")

    def test_c_of_programs_that_ask_for_one_posix_only(self):
        for standard in "gnu17", "c11":
            for macro in "-D_POSIX_C_SOURCE=200809L", "-D_XOPEN_SOURCE=700", "-D_GNU_SOURCE":
                for compiler in "gcc", "clang":
                    with self.subTest(standard=standard, macro=macro, compiler=compiler):
                        self.compile(compiler, standard, "c", macro)

    def test_cpp20_by_gcc(self):
        self.compile("g++", "c++20", "cpp")

    def test_cpp20_by_clang(self):
        self.compile("clang++", "c++20", "cpp")


class Installed(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.mkdtemp(prefix="qel-install-")
        cls.addClassCleanup(shutil.rmtree, cls.scratch)
        cls.prefix = os.path.join(cls.scratch, "usr")
        run("cmake", "--install", BUILD, "--prefix", cls.prefix)
        cls.files = set()
        for directory, _, names in os.walk(cls.prefix):
            cls.files.update(os.path.relpath(os.path.join(directory, name), cls.prefix) for name in names)
        cls.libdir = os.path.join(cls.prefix, os.path.dirname(cls.find("libqel.so.1")))
        cls.env = dict(os.environ, PKG_CONFIG_PATH=os.path.join(cls.libdir, "pkgconfig"))

    @classmethod
    def find(cls, name):
        """The one installed file of this name, relative to the prefix."""
        found = [path for path in cls.files if os.path.basename(path) == name]
        if len(found) != 1:
            raise AssertionError(f"{name}: installed as {found}")
        return found[0]

    def test_header_library_and_programs_are_there(self):
        self.assertEqual(self.find("qel.h"), "include/qel/qel.h")
        self.assertTrue(os.path.islink(os.path.join(self.prefix, self.find("libqel.so"))))
        for program in ("qeld", "qel-fabric"):
            self.assertEqual(self.find(program), "bin/" + program)
            self.assertTrue(os.access(os.path.join(self.prefix, "bin", program), os.X_OK))

    def test_no_internal_header_or_static_library_is_there(self):
        headers = sorted(path for path in self.files if path.endswith(".h"))
        self.assertEqual(headers, ["include/qel/qel.h"])
        self.assertEqual([path for path in self.files if path.endswith(".a")], [])

    def test_every_man_page_is_there(self):
        pages = os.path.join(SOURCE, "docs/man")
        for page in os.listdir(pages) if os.path.isdir(pages) else []:
            if page[-2:-1] == "." and page[-1].isdigit():
                self.assertEqual(self.find(page), f"share/man/man{page[-1]}/{page}")

    def test_units_start_the_daemon_where_it_was_installed_wherever_that_is(self):
        for unit in ("qeld.service", "qeld@.service"):
            with open(os.path.join(self.prefix, "lib/systemd/system", unit), encoding="ascii") as file:
                starts, = [line.split() for line in file if line.startswith("ExecStart=")]
            self.assertEqual([starts[-2].removeprefix("ExecStart="), starts[-1]],
                             [self.prefix + "/bin/qeld", "$QELD_OPTIONS"])

    def test_installed_programs_find_every_library(self):
        for program in ("qeld", "qel-fabric"):
            self.assertNotIn("not found", run("ldd", os.path.join(self.prefix, "bin", program)))

    def test_c11_program_by_pkg_config(self):
        flags = run("pkg-config", "--cflags", "--libs", "qel", env=self.env).split()
        self.assertEqual(run("pkg-config", "--modversion", "qel", env=self.env), "1.0.0\n")
        program = os.path.join(self.scratch, "by_pkg_config")
        run("gcc", "-std=c11", *STRICT, os.path.join(HERE, "consumer.c"), "-o", program, *flags)
        self.assertEqual(run(program, env=dict(self.env, LD_LIBRARY_PATH=self.libdir)), "libqel answers\n")

    def test_cpp20_program_by_find_package(self):
        build = os.path.join(self.scratch, "by_find_package")
        run("cmake", "-S", os.path.join(HERE, "consumer"), "-B", build, "-DCMAKE_PREFIX_PATH=" + self.prefix,
            "-DCMAKE_BUILD_TYPE=Release", "-G", "Ninja")
        run("cmake", "--build", build)
        self.assertEqual(run(os.path.join(build, "consumer")), "libqel answers\n")

    def test_moved_tree_still_serves_pkg_config(self):
        moved = os.path.join(self.scratch, "moved")
        shutil.copytree(self.prefix, moved, symlinks=True)
        directory = os.path.join(moved, os.path.relpath(self.libdir, self.prefix), "pkgconfig")
        env = dict(os.environ, PKG_CONFIG_PATH=directory)
        include = run("pkg-config", "--variable=includedir", "qel", env=env).strip()
        self.assertEqual(os.path.realpath(include), os.path.join(os.path.realpath(moved), "include"))


if __name__ == "__main__":
    unittest.main()
