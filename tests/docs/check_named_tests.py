#!/usr/bin/env python3
"""check_named_tests.py SOURCES PROGRAM...: every test that docs/security.md or docs/reliability.md names is one that a PROGRAM, of GoogleTest, lists,
or one that a CMakeLists.txt adds. A star stands for all rows. Each claim of the tables that say by what they are shown names a test, and the fault
tables have as many rows as docs/reliability.md says."""

import pathlib
import re
import subprocess
import sys

NAME = re.compile(r"`((?:\w+/)?\w+\.\w+(?:/(?:\w+|\*))?)`")
FILES = (".cmake", ".md", ".cpp", ".h", ".py", ".png")
DOCUMENTS = ("docs/security.md", "docs/reliability.md")
ROWS = re.compile(r"`tests/faults` has a row for each fault at each stage, (\d+) in all")


def listed_by(program):
    """The full names of a program's tests."""
    names = []
    suite = ""
    for line in subprocess.run([program, "--gtest_list_tests"], check=True, capture_output=True, text=True).stdout.splitlines():
        name = line.split("#")[0].strip()
        if not line.startswith(" "):
            suite = name if name.endswith(".") else ""
        elif suite:
            names.append(suite + name)
    return names


def names_of(text):
    return [name for name in NAME.findall(text) if not name.endswith(FILES)]


def is_there(name, tests):
    return any(test.startswith(name[:-1]) for test in tests) if name.endswith("*") else name in tests


def unshown(text):
    """Claims of the tables with the column "Shown by" that name no test."""
    is_shown = False
    for line in text.splitlines():
        if not line.startswith("|"):
            is_shown = False
        elif line.rstrip().endswith("| Shown by |"):
            is_shown = True
        elif is_shown and not line.startswith("|---") and not names_of(line.rstrip("| ").rpartition("|")[2]):
            yield line


def main():
    root, programs = pathlib.Path(sys.argv[1]), sys.argv[2:]
    tests = {test for program in programs for test in listed_by(program)}
    for path in (root / "tests").rglob("CMakeLists.txt"):
        tests.update(re.findall(r"add_test\(NAME (\S+)", path.read_text(encoding="utf-8")))
    texts = {document: (root / document).read_text(encoding="utf-8") for document in DOCUMENTS}
    named = [(document, name) for document, text in texts.items() for name in names_of(text)]
    complaints = [f"{document}: {name} is not there" for document, name in named if not is_there(name, tests)]
    complaints += [f"{document}: nothing shows {line}" for document, text in texts.items() for line in unshown(text)]
    rows = sum(len(listed_by(program)) for program in programs if program.endswith("fault_tests"))
    claimed = ROWS.search(texts["docs/reliability.md"])
    if not claimed or int(claimed.group(1)) > rows:
        complaints.append(f"docs/reliability.md: the fault tables have {rows} rows")
    print("\n".join(complaints) or f"{len(named)} tests")
    return 1 if complaints or len(named) < 50 else 0


if __name__ == "__main__":
    sys.exit(main())
