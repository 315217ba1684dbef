#!/usr/bin/env python3
"""check_named_tests.py SOURCES: every test that docs/security.md names exists: its macro, its instance and the row that is its parameter, or, for a
name in small letters, the test that a CMakeLists.txt adds. A star stands for all rows."""

import pathlib
import re
import sys

NAME = re.compile(r"`((?:(\w+)/)?(\w+)\.(\w+)(?:/(\w+|\*))?)`")
DOCUMENTS = ("docs/security.md",)


def complaint_about(match, sources, added):
    name, instance, suite, test, row = match.groups()
    if name in added:
        return None
    for text in sources:
        if not re.search(rf"^TEST(_F|_P)?\({suite}, {test}\)", text, flags=re.M):
            continue
        if instance and not re.search(rf"INSTANTIATE_TEST_SUITE_P\(\s*{instance},\s*{suite}\b", text):
            return "has no such instance"
        if row and row != "*" and f'"{row}"' not in text:
            return "has no such row"
        return None
    return "is not there"


def main():
    root = pathlib.Path(sys.argv[1])
    sources = [path.read_text(encoding="utf-8") for path in (root / "tests").rglob("*.cpp")]
    added = {name for path in (root / "tests").rglob("CMakeLists.txt") for name in re.findall(r"add_test\(NAME (\S+)", path.read_text(encoding="utf-8"))}
    complaints = []
    count = 0
    for document in DOCUMENTS:
        for match in NAME.finditer((root / document).read_text(encoding="utf-8")):
            if match.group(1).endswith((".cmake", ".md")):
                continue
            count += 1
            complaint = complaint_about(match, sources, added)
            if complaint:
                complaints.append(f"{document}: {match.group(1)} {complaint}")
    print("\n".join(complaints) or f"{count} tests")
    return 1 if complaints or count < 50 else 0


if __name__ == "__main__":
    sys.exit(main())
