#!/usr/bin/env python3
"""Rules of this source tree that no compiler knows. `tree_check.py [ROOT]` prints every breach and fails.

The tables come first; they are what changes as the tree grows.
"""
import os
import re
import shutil
import subprocess
import sys

# The order of modules. A header includes those of its own row and of the rows above it, and so do sources as
# far as FOUNDATION; the sources of the bus itself call each other both ways.
LAYERS = [
    ["qel/qel"],  # the public header knows nothing of us
    ["qel_watchdog"],
    ["qel_base"],  # the toolbox knows nothing of the bus
    ["qel_port", "qel_tlv", "qel_node_map"],
    ["qel_log", "qel_dbg", "qel_dm", "qel_msg"],
    ["qel_cfg"],
    ["qel_mc"],
    ["qel_rpc"],
    ["qel_flow_ctrl"],
    ["qel_app_info"],
    ["qel_mng_msg"],
    ["qel_user_proxy"],
    ["qel_mng"],
    ["qel_mng_int"],
]
FOUNDATION = "qel_cfg"
# The files of one module have one place in the order.
MODULE_OF = {
    "qel_port_local": "qel_port",
    "qel_port_local_queue": "qel_port",
    "qel_port_local_ctl": "qel_port",
    "qel_fabric_proto": "qel_port",
    "qel_mng_rx": "qel_mng_int",
    "qel_mng_presence": "qel_mng_int",
    "qel_mng_sync": "qel_mng_int",
}
# file -> the headers it may include against the order, and why.
UPWARD = {
    "lib/qel_port_local_ctl.cpp": {"qel_cfg": "the fabric is told which node this process lives on"},
}

# Tests wait for conditions, not for time. file -> why time itself is what it waits for.
MAY_SLEEP = {
    "tests/support/agent.c": "applications that are slow on purpose",
    "tests/support/qel_agents.py": "what is waited for is in another process or must not happen",
    "tests/unit/test_qel_port_local.cpp": "signals are repeated until one meets the poll() they are to end",
    "tests/kernel/guest_init.py": "the first process of a guest has nobody who could tell it anything",
}

# Globals whose type synchronises by itself.
SYNC_TYPES = r"\b(std::atomic|qel_mutex|qel_cond|qel_gate|pthread_once_t|pthread_key_t)\b"

# Names beginning with two underscores that compiler and C library give us.
LENT_NAMES = re.compile(
    r"__(builtin_\w+|attribute__|has_\w+|sanitizer_\w+|lsan_\w+|asan_\w+|tsan_\w+|gcov_\w+|extension__|asm__"
    r"|fpurge|kernel_\w+|errno_location|real_\w+|wrap_\w+)$"
)

COLUMNS = 110
NOT_OURS = {"build", ".git", ".cache", "corpus", "__pycache__"}
PRODUCT = ("lib", "daemon", "fabric", "include")
CODE_SUFFIXES = (".h", ".c", ".cpp")
TEXT_SUFFIXES = CODE_SUFFIXES + (".py", ".sh", ".cmake", ".txt", ".json", ".map", ".in", ".md", ".yml")
LINE_LENGTH_FREE = (".md", ".json")


def strip(text):
    """C or C++ without comments and the insides of literals; line numbers stay."""
    pattern = re.compile(
        r"//[^\n]*|/\*.*?\*/|R\"(?P<d>[^(\s]*)\(.*?\)(?P=d)\""
        r"|\"(?:\\.|[^\"\\\n])*\"|(?<!\w)'(?:\\.|[^'\\\n])*'",
        re.S,
    )

    def blank(match):
        token = match.group(0)
        body = "\n" * token.count("\n")
        if token.startswith(("//", "/*")):
            return " " + body
        return token[0] + body + token[-1]

    return pattern.sub(blank, text)


class Tree:
    def __init__(self, root):
        self.root = root
        self.breaches = []
        self.files = {}
        for directory, names, files in os.walk(root):
            names[:] = sorted(set(names) - NOT_OURS)
            for name in sorted(files):
                path = os.path.relpath(os.path.join(directory, name), root)
                with open(os.path.join(directory, name), "rb") as file:
                    data = file.read()
                if path.endswith(TEXT_SUFFIXES) or data.startswith(b"#!"):
                    self.files[path] = data
        self.code = {
            path: strip(self.text(path))
            for path in self.files
            if path.endswith(CODE_SUFFIXES)
        }

    def text(self, path):
        return self.files[path].decode("utf-8", "replace")

    def breach(self, path, line, text):
        self.breaches.append(f"{path}:{line}: {text}")

    def grep(self, pattern, where, text, code_only=True):
        """A breach for every match of a pattern in the files that @where accepts."""
        for path in self.code if code_only else self.files:
            if where(path):
                content = self.code[path] if code_only else self.text(path)
                for match in re.finditer(pattern, content):
                    self.breach(path, content.count("\n", 0, match.start()) + 1, text.format(match.group(0)))

    # ---- the rules --------------------------------------------------------------------------------------

    def check_include_order(self):
        rank = {name: row for row, names in enumerate(LAYERS) for name in names}
        own = re.compile(r'^[ \t]*#[ \t]*include[ \t]*"([^"]+)\.h"', re.M)
        for path in self.code:
            top, stem = path.split(os.sep)[0], os.path.splitext(os.path.basename(path))[0]
            stem = "qel/qel" if path.startswith("include") else stem
            text = self.files[path].decode("utf-8", "replace")
            for match in own.finditer(text):
                header, line = match.group(1), text.count("\n", 0, match.start()) + 1
                wanted = MODULE_OF.get(header, header)
                if top in ("lib", "include"):
                    module = MODULE_OF.get(stem, stem)
                    if module not in rank:
                        self.breach(path, line, f"module {module} has no place in LAYERS of tree_check.py")
                    elif wanted not in rank:
                        self.breach(path, line, f"{header}.h is no header of the library")
                    elif path.endswith(".cpp") and rank[module] > rank[FOUNDATION]:
                        if header.endswith("_int") and not module.startswith(header.removesuffix("_int")):
                            self.breach(path, line, f"{header}.h is for the {header[:-4]} files only")
                    elif rank[wanted] > rank[module] and header not in UPWARD.get(path, {}):
                        self.breach(path, line, f"{header}.h stands above {module} in the order of modules")
                elif top in ("examples", "docs") and header != "qel/qel" \
                        and os.path.join(top, header + ".h") not in self.code:
                    self.breach(path, line, f"an example includes the public header only, not {header}.h")
                elif top == "fabric" and header.startswith("qeld"):
                    self.breach(path, line, "the fabric knows nothing of the daemon")

    def check_globals(self):
        declared = re.compile(
            r"^(?![ \t#}])(?P<head>[^\n;{}=()]*?)\b(?P<name>g_\w+)\b(?P<rest>[^;{=]*)(?P<end>[;{=])", re.M
        )
        guarded = set()
        for path, text in self.code.items():
            for match in declared.finditer(text):
                if "QEL_GUARDED_BY" in match["rest"] or "QEL_PT_GUARDED_BY" in match["rest"]:
                    guarded.add(match["name"])
        for path, text in self.code.items():
            if not path.startswith(PRODUCT):
                continue
            for match in declared.finditer(text):
                head, rest = match["head"], match["rest"]
                if not head.strip() or re.search(r"\b(extern|using|return|typedef|namespace)\b", head):
                    continue
                if re.match(r"\s*(\.|->|\(|\[\w*\]\s*\.)", rest):
                    continue  # a use, not a definition
                fine = (
                    re.search(r"\b(constinit|constexpr|thread_local)\b", head)
                    or re.search(r"\bconst\s*$|\bconst\b(?!.*\*)", head)
                    or re.search(SYNC_TYPES, head)
                    or match["name"] in guarded
                )
                if not fine:
                    self.breach(path, text.count("\n", 0, match.start()) + 1,
                                f"{match['name']} is not constinit, const, atomic or guarded by a lock")

    def check_banned(self):
        product = lambda path: path.startswith(PRODUCT)
        library = lambda path: path.startswith("lib" + os.sep)
        everywhere = lambda path: True
        self.grep(r"\bpthread_cancel\b", everywhere, "{}: it leaves locks held; set a flag and join")
        self.grep(r"\bstd::(vector|string|map|set|deque|list|function|unordered_\w+)\b", library,
                  "{} dies without memory where the library has to wait")
        self.grep(r"(?<!operator )\bnew\s+[\w:]+\s*[\[({;]", library,
                  "{}: use qel_new(), which waits for memory")
        self.grep(r"(?<!asm )\bvolatile\b", product, "{}: between threads it orders nothing; use std::atomic")
        self.grep(r"\b(sprintf|vsprintf|gets|strtok|atoi|atol)\s*\(", product,
                  "{}: cannot tell the end of its buffer or a fault")
        self.grep(r"\b(TO[D]O|FIX[M]E|XX[X])\b", everywhere,
                  "{}: finish it or describe the limit", code_only=False)

    def check_sleeps(self):
        sleeps = r"\b(usleep|sleep|nanosleep|clock_nanosleep|sleep_for|sleep_until)\s*\("
        for path, data in self.files.items():
            if path.startswith("tests" + os.sep) and path.endswith((".cpp", ".c", ".h", ".py")):
                if path in MAY_SLEEP or path.startswith(os.path.join("tests", "lint")):
                    continue
                text = self.code.get(path) or re.sub(r"#.*", "", self.text(path))
                for match in re.finditer(sleeps, text):
                    self.breach(path, text.count("\n", 0, match.start()) + 1,
                                f"{match.group(1)}: wait for the condition, or enter the file in MAY_SLEEP")

    def reserved_names(self):
        """Functions of ours whose name begins with two underscores."""
        names = {}
        for path, text in self.code.items():
            for match in re.finditer(r"(?<![\w.])(__[a-z]\w*)\s*\(", text):
                if not LENT_NAMES.match(match.group(1)):
                    names.setdefault(match.group(1), (path, text.count("\n", 0, match.start()) + 1))
        return names

    def check_reserved_names(self):
        names = self.reserved_names()
        for name, (path, line) in names.items():
            if not name.startswith(("__qel_", "__qeld_")):
                self.breach(path, line, f"{name}: two underscores only before qel_ or qeld_")
            if path.startswith("include"):
                self.breach(path, line, f"{name}: the public header stays out of the reserved names")
        for path, text in self.code.items():
            if path.startswith(PRODUCT):
                for match in re.finditer(r"\b[A-Za-z]\w*[a-z0-9]__\w*", text):
                    if not match.group(0).startswith(("QEL_", "be16", "be32")):
                        self.breach(path, text.count("\n", 0, match.start()) + 1,
                                    f"{match.group(0)}: two underscores within a name are reserved")
        headers = sorted({match for path in self.code if path.startswith(PRODUCT)
                          for match in re.findall(r"^#include (<[\w./]+>)", self.text(path), re.M)})
        compiler = shutil.which("g++")
        if names and compiler:
            source = "".join(f"#include {header}\n" for header in headers)
            result = subprocess.run([compiler, "-std=c++20", "-D_GNU_SOURCE", "-dM", "-E", "-x", "c++", "-"],
                                    input=source, capture_output=True, text=True, check=True)
            macros = set(re.findall(r"^#define (\w+)", result.stdout, re.M))
            for name in sorted(macros & set(names)):
                self.breach(*names[name], f"{name} is a macro of the compiler or a system header")

    def check_text(self):
        for path, data in self.files.items():
            text = self.text(path)
            if "\ufffd" in text:
                self.breach(path, 1, "not UTF-8")
            if data and not data.endswith(b"\n"):
                self.breach(path, text.count("\n") + 1, "no newline at the end")
            if data.endswith(b"\n\n"):
                self.breach(path, text.count("\n"), "blank lines at the end")
            for number, line in enumerate(text.splitlines(), 1):
                if line != line.rstrip():
                    self.breach(path, number, "blanks at the end of the line")
                if "\t" in line and path.endswith(CODE_SUFFIXES + (".py", ".txt", ".cmake")):
                    self.breach(path, number, "a tab")
                if len(line) > COLUMNS and not path.endswith(LINE_LENGTH_FREE):
                    self.breach(path, number, f"{len(line)} columns, {COLUMNS} are the limit")

    def check_headers(self):
        for path, data in self.files.items():
            if path.endswith(".h") and path.startswith(PRODUCT + ("tests",)):
                guard = os.path.basename(path).upper().replace(".", "_").replace("-", "_")
                if not re.search(rf"#ifndef (\w*{guard})\n#define \1\n", self.text(path)):
                    self.breach(path, 1, f"no include guard that ends in {guard}")

    def check_scripts(self):
        for path, data in self.files.items():
            first = data.split(b"\n", 1)[0].decode("ascii", "replace")
            if not first.startswith("#!"):
                continue
            if not os.access(os.path.join(self.root, path), os.X_OK):
                self.breach(path, 1, "begins with #! and is not executable")
            shell = re.match(r"#!\s*/(?:usr/)?bin/(?:env )?(sh|bash|dash)\b", first)
            if shell and shutil.which(shell[1]):
                command = [shell[1], "-n", os.path.join(self.root, path)]
                result = subprocess.run(command, capture_output=True, text=True, check=False)
                if result.returncode:
                    self.breach(path, 1, result.stderr.strip())


def check(root):
    tree = Tree(root)
    for name in sorted(dir(tree)):
        if name.startswith("check_"):
            getattr(tree, name)()
    return tree.breaches


if __name__ == "__main__":
    found = check(sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "../.."))
    print("\n".join(found) if found else "the tree is in order")
    sys.exit(1 if found else 0)
