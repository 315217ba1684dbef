#!/usr/bin/env python3
"""Every rule finds its bad sample, with advice, and leaves the good ones beside it alone."""

import pathlib
import tempfile
import unittest

import check_rules

# (rule, file, bad line); the pieces are put together so that this file keeps the rules itself.
BAD = (
    ("document", "docs/a.md", "as spec" + ".md says"),
    ("document", "src/a.cpp", "// see Part " + "3.4 for the order"),
    ("document", "src/a.cpp", "// the specifi" + "cation wants it so"),
    ("machine-path", "scripts/a.sh", "cd /wo" + "rk/main"),
    ("machine-path", "run-tests", "source '/home" + "/me/settings'"),
    ("registry-host", "scripts/a.sh", "curl https://deb.deb" + "ian.org/debian"),
    ("unfinished", "src/a.cpp", "// TO" + "DO: the rest"),
    ("unfinished", "grid/a.py", "raise RuntimeError('not imple" + "mented')"),
    ("skipped-test", "tests/qlk/a_test.cpp", "GTEST" + "_SKIP();"),
    ("skipped-test", "tests/qlk/a_test.cpp", "TEST(Config, DIS" + "ABLED_Clone) {"),
    ("sleep-for-luck", "tests/qlk/a_test.cpp", "std::this_thread::sleep" + "_for(100ms);"),
    ("sleep-for-luck", "tests/warbler/a_test.cpp", "us" + "leep(1000);"),
    ("cancelled-thread", "src/a.cpp", "pthread" + "_cancel(thread);"),
    ("environment", "warbler/src/a.cpp", 'const char *home = get' + 'env("HOME");'),
    ("standard-output", "src/a.cpp", 'pri' + 'ntf("here\\n");'),
)
GOOD = (
    ("docs/a.md", "a special modern machine; work/main is relative, build/" + "work/ too"),
    ("scripts/a.sh", 'cd "$root/wo' + 'rk/main"'),
    ("tests/qlk/a_test.cpp", "// Delay: the handler is slower than the time-out.\nstd::this_thread::sleep" + "_for(1200ms);"),
    ("tests/support/wait.h", "std::this_thread::sleep" + "_for(1ms);"),
    ("tests/qlk/a_test.cpp", "pthread" + "_cancel(own_thread);"),
    ("grid/controller.cpp", 'pri' + 'ntf("ready\\n");'),
    ("src/a.cpp", 'fpri' + 'ntf(stream, "x"); snpri' + 'ntf(text, 3, "x"); log.pri' + 'ntf("x");'),
    ("src/a.cpp", "int x = 0;\n" * check_rules.LINES_MAX),
)


class Rules(unittest.TestCase):
    def test_each_bad_sample_is_found_once_with_its_advice(self):
        advice = {rule.name: rule.advice for rule in check_rules.RULES}
        for name, path, line in BAD:
            with self.subTest(rule=name, line=line):
                self.assertEqual([f"{path}:2: {name}: {advice[name]}"], check_rules.check_text(path, "first\n" + line + "\n"))

    def test_every_rule_has_a_bad_sample(self):
        self.assertEqual({rule.name for rule in check_rules.RULES}, {name for name, _, _ in BAD})

    def test_good_samples_pass(self):
        for path, text in GOOD:
            with self.subTest(path=path, text=text[:40]):
                self.assertEqual([], check_rules.check_text(path, text))

    def test_long_file_is_found(self):
        found = check_rules.check_text("src/a.cpp", "int x = 0;\n" * (check_rules.LINES_MAX + 1))
        self.assertEqual(1, len(found), found)
        self.assertIn("split it into modules", found[0])

    def test_walk_sees_the_tree_and_nothing_that_was_made_in_it(self):
        with tempfile.TemporaryDirectory() as name:
            root = pathlib.Path(name)
            for path in ("src/a.cpp", ".ci/run", "run-tests", "LICENSE", "build/release/a.cpp", ".grid/a.md", ".git/config", ".clang-tidy"):
                (root / path).parent.mkdir(parents=True, exist_ok=True)
                (root / path).write_text("x\n")
            self.assertEqual({"src/a.cpp", ".ci/run", "run-tests", ".clang-tidy"}, set(check_rules.files_of(root)))


if __name__ == "__main__":
    unittest.main()
