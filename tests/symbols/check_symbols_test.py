#!/usr/bin/env python3
"""The symbol check, on small libraries that are right and wrong on purpose: check_symbols_test.py C-COMPILER NM."""

import pathlib
import subprocess
import sys
import tempfile
import unittest

import check_symbols

HEADER = """
#define SAMPLE_API __attribute__((visibility("default")))
/* SAMPLE_API int in_a_comment(void); */
SAMPLE_API int sample_first(int (*callback)(void));
SAMPLE_API extern const char *const sample_text;
"""
GOOD = """
#include "sample.h"
const char *const sample_text = "x";
int sample_first(int (*callback)(void)) { return callback(); }
"""


class CheckSymbols(unittest.TestCase):
    def complaints(self, source):
        with tempfile.TemporaryDirectory() as name:
            folder = pathlib.Path(name)
            (folder / "sample.h").write_text(HEADER)
            (folder / "sample.c").write_text(source)
            subprocess.run([COMPILER, "-fPIC", "-fvisibility=hidden", "-c", "sample.c", "-o", "sample.o"], cwd=folder, check=True)
            subprocess.run([COMPILER, "-shared", "sample.o", "-o", "sample.so"], cwd=folder, check=True)
            subprocess.run(["ar", "rc", "sample.a", "sample.o"], cwd=folder, check=True)
            return check_symbols.check(NM, "SAMPLE_API", folder, folder / "sample.so", folder / "sample.a")

    def test_exact_library_passes(self):
        self.assertEqual([], self.complaints(GOOD))

    def test_missing_definition_is_named(self):
        found = "\n".join(self.complaints('#include "sample.h"\nconst char *const sample_text = "x";\n'))
        self.assertIn("declared but not exported: sample_first", found)
        self.assertIn("declared but not defined: sample_first", found)

    def test_undeclared_export_is_named(self):
        found = self.complaints(GOOD + "SAMPLE_API int stray(void) { return 1; }\n")
        self.assertTrue(any("declared in no public header: stray" in line for line in found), found)

    def test_hidden_c_name_in_the_archive_is_named(self):
        found = self.complaints(GOOD + "int domain(void) { return 1; }\n")
        self.assertEqual(1, len(found), found)
        self.assertIn("may clash with a name of the application: domain", found[0])


if __name__ == "__main__":
    NM = sys.argv.pop()
    COMPILER = sys.argv.pop()
    unittest.main()
