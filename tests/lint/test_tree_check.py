#!/usr/bin/env python3
"""Every rule of tree_check.py finds its breach, and leaves alone what is no breach."""
import os
import tempfile
import unittest

import tree_check

GUARDED_HEADER = "#ifndef QEL_BASE_H\n#define QEL_BASE_H\n{}\n#endif\n"


class Rules(unittest.TestCase):
    def breaches(self, files, executable=()):
        with tempfile.TemporaryDirectory(prefix="qel-tree-") as root:
            for path, text in files.items():
                full = os.path.join(root, path)
                os.makedirs(os.path.dirname(full), exist_ok=True)
                with open(full, "w", encoding="utf-8") as file:
                    file.write(text)
                os.chmod(full, 0o755 if path in executable else 0o644)
            return tree_check.check(root)

    def assert_breach(self, files, text):
        found = self.breaches(files)
        self.assertEqual(len(found), 1, found)
        self.assertIn(text, found[0])

    def assert_fine(self, files, executable=()):
        self.assertEqual(self.breaches(files, executable), [])

    def test_upward_include_is_found(self):
        self.assert_breach({"lib/qel_base.cpp": '#include "qel_cfg.h"\n'}, "above qel_base")
        self.assert_fine({"lib/qel_cfg.cpp": '#include "qel_base.h"\n'})

    def test_upward_include_of_a_header_of_the_bus_is_found(self):
        header = "#ifndef QEL_MC_H\n#define QEL_MC_H\n{}#endif\n"
        self.assert_breach({"lib/qel_mc.h": header.format('#include "qel_app_info.h"\n')}, "above qel_mc")
        self.assert_fine({"lib/qel_mc.cpp": '#include "qel_app_info.h"\n'})

    def test_inner_header_in_a_foreign_file_is_found(self):
        self.assert_breach({"lib/qel_rpc.cpp": '#include "qel_mng_int.h"\n'}, "qel_mng files only")
        self.assert_fine({"lib/qel_mng_msg.cpp": '#include "qel_mng_int.h"\n'})

    def test_module_without_a_place_in_the_order_is_found(self):
        self.assert_breach({"lib/qel_new.cpp": '#include "qel_base.h"\n'}, "no place in LAYERS")

    def test_foreign_header_in_the_library_is_found(self):
        self.assert_breach({"lib/qel_cfg.cpp": '#include "qeld_msg.h"\n'}, "no header of the library")

    def test_internal_header_in_an_example_is_found(self):
        self.assert_breach({"examples/e.c": '#include "qel_base.h"\n'}, "public header only")
        self.assert_fine({"examples/e.c": '#include "qel/qel.h"\n'})

    def test_unprotected_global_is_found(self):
        for line in ("static int g_count = 0;", "int g_count;", "char *g_name{nullptr};",
                     "int g_list[3] = {1};", "const char *g_text = nullptr;"):
            self.assert_breach({"lib/qel_cfg.cpp": line + "\n"}, "not constinit")

    def test_protected_global_is_fine(self):
        for line in ("static constinit int g_count = 0;", "int g_count QEL_GUARDED_BY(g_mutex) = 0;",
                     "std::atomic<int> g_count{0};", "const int g_limit = 3;", "extern int g_count;",
                     "qel_mutex g_mutex;", "void f() {\n    g_count = 3;\n}"):
            self.assert_fine({"lib/qel_cfg.cpp": line + "\n"})

    def test_lock_named_at_the_declaration_is_enough(self):
        header = GUARDED_HEADER.format("extern int g_count QEL_GUARDED_BY(g_mutex);")
        self.assert_fine({"lib/qel_base.h": header, "lib/qel_base.cpp": "int g_count = 0;\n"})

    def test_cancelling_a_thread_is_found(self):
        self.assert_breach({"daemon/qeld.cpp": "void f(pthread_t t) { pthread_cancel(t); }\n"}, "locks held")
        self.assert_fine({"daemon/qeld.cpp": "// never pthread_cancel\n"})

    def test_growing_container_in_the_library_is_found(self):
        self.assert_breach({"lib/qel_cfg.cpp": "std::string s;\n"}, "dies without memory")
        self.assert_fine({"daemon/qeld.cpp": "std::string s;\n"})

    def test_throwing_allocation_in_the_library_is_found(self):
        self.assert_breach({"lib/qel_cfg.cpp": "int *p = new int[3];\n"}, "qel_new")
        self.assert_fine({"lib/qel_cfg.cpp": "T *p = ::new (memory) T{};\n"})

    def test_sleep_in_a_test_is_found(self):
        self.assert_breach({"tests/unit/test_x.cpp": "void f() { usleep(1); }\n"}, "MAY_SLEEP")
        self.assert_breach({"tests/system/test_x.py": "time.sleep(1)\n"}, "MAY_SLEEP")
        self.assert_fine({"lib/qel_base.cpp": "void f() { usleep(1); }\n"})

    def test_unfinished_work_is_found(self):
        self.assert_breach({"lib/qel_cfg.cpp": "// TO" "DO: later\n"}, "finish it")

    def test_foreign_reserved_name_is_found(self):
        self.assert_breach({"lib/qel_cfg.cpp": "int __add(int a) { return a; }\n"}, "two underscores only")
        self.assert_fine({"lib/qel_cfg.cpp": "static int __qel_add(int a) { return __builtin_abs(a); }\n"})

    def test_reserved_name_inside_a_word_is_found(self):
        self.assert_breach({"lib/qel_cfg.cpp": "int qel__add;\n"}, "within a name")

    def test_name_that_is_a_macro_of_the_system_is_found(self):
        name = "__qel_macro"
        tree = tree_check.Tree(self.enterContext(tempfile.TemporaryDirectory()))
        tree.code = {"lib/x.cpp": f"int {name}(int);\n"}
        tree.files = {"lib/x.cpp": f"#include <cstdio>\nint {name}(int);\n".encode()}
        original, tree_check.subprocess.run = tree_check.subprocess.run, lambda *args, **more: type(
            "Result", (), {"stdout": f"#define {name}(x) x\n", "returncode": 0})
        self.addCleanup(setattr, tree_check.subprocess, "run", original)
        tree.check_reserved_names()
        self.assertEqual(len(tree.breaches), 1)
        self.assertIn("is a macro", tree.breaches[0])

    def test_ugly_text_is_found(self):
        self.assert_breach({"lib/qel_cfg.cpp": "int a; \n"}, "blanks")
        self.assert_breach({"lib/qel_cfg.cpp": "\tint a;\n"}, "a tab")
        self.assert_breach({"lib/qel_cfg.cpp": "int a;"}, "no newline")
        self.assert_breach({"lib/qel_cfg.cpp": "int a;\n\n"}, "blank lines")
        self.assert_breach({"lib/qel_cfg.cpp": "//" + "x" * 120 + "\n"}, "columns")

    def test_header_with_the_guard_of_another_is_found(self):
        self.assert_breach({"lib/qel_mc.h": GUARDED_HEADER.format("int f();")}, "include guard")

    def test_header_without_a_guard_is_found(self):
        self.assert_breach({"lib/qel_base.h": "int f();\n"}, "include guard")

    def test_broken_or_dead_script_is_found(self):
        self.assert_breach({"x.sh": "#!/bin/sh\ntrue\n"}, "not executable")
        found = self.breaches({"x.sh": "#!/bin/sh\nif\n"}, executable=("x.sh",))
        self.assertTrue(found and "x.sh:1" in found[0], found)
        self.assert_fine({"x.sh": "#!/bin/sh\ntrue\n"}, executable=("x.sh",))


if __name__ == "__main__":
    unittest.main()
