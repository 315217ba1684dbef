#!/usr/bin/env python3
"""check_hardening.py READELF OPTIMIZED FILE...

Every FILE, a shared library or a program, must be position-independent, have full RELRO, no executable stack and no text relocations,
call the stack protector, stay in its process if it is a library, have a landing mark for indirect jumps at least at every function that
it exports, where the processor knows of such marks, and, where OPTIMIZED is 1, call fortified functions. That a file as a whole is marked for
control-flow protection is not asked for: the linker leaves the mark out where the C library's start-up objects lack it."""

import pathlib
import platform
import re
import subprocess
import sys

ENDBR64 = bytes.fromhex("f30f1efa")


def complaints_of(readelf, path, is_optimized):
    def dump(*options):
        return subprocess.run([readelf, "--wide", *options, path], check=True, capture_output=True, text=True).stdout

    header, segments, dynamic, symbols = dump("-h"), dump("-l"), dump("-d"), dump("--dyn-syms")
    exported = len(re.findall(r"\bFUNC\s+GLOBAL\s+DEFAULT\s+\d", symbols))
    landing_marks = pathlib.Path(path).read_bytes().count(ENDBR64)
    stack = re.search(r"^\s*GNU_STACK\s.*?\s(R?W?E?)\s+0x", segments, flags=re.M)
    rules = (
        (re.search(r"Type:\s+DYN", header), "is not position-independent"),
        (re.search(r"^\s*GNU_RELRO\s", segments, flags=re.M), "has no RELRO"),
        (re.search(r"\(FLAGS_1\).*\bNOW\b", dynamic), "binds lazily: its RELRO is partial"),
        (stack and "E" not in stack.group(1), "has an executable stack"),
        (not re.search(r"\(TEXTREL\)", dynamic), "has text relocations"),
        ("NODELETE" in dynamic or "(SONAME)" not in dynamic, "is a library that dlclose takes away, under threads that may come back to it"),
        (re.search(r"\b__stack_chk_fail\b", symbols), "does not call the stack protector"),
        (re.search(r"\b__\w+_chk\b", symbols) or not is_optimized, "calls no fortified functions"),
        (landing_marks >= max(exported, 20) or platform.machine() != "x86_64", "lacks the landing marks of control-flow protection"),
    )
    return [f"{path} {complaint}" for holds, complaint in rules if not holds]


def main():
    readelf, optimized, *paths = sys.argv[1:]
    complaints = [complaint for path in paths for complaint in complaints_of(readelf, path, optimized == "1")]
    print("\n".join(complaints) or f"{len(paths)} files are hardened")
    return 1 if complaints or not paths else 0


if __name__ == "__main__":
    sys.exit(main())
