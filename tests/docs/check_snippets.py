#!/usr/bin/env python3
"""check_snippets.py SOURCES WORK CC LIBRARY...: compiles and links every C program that README.md and docs/ show."""

import pathlib
import re
import subprocess
import sys


def main():
    sources, work, compiler, *libraries = sys.argv[1:]
    sources, work = pathlib.Path(sources), pathlib.Path(work)
    count = failed = 0
    for document in [sources / "README.md", *sorted((sources / "docs").glob("*.md"))]:
        for program in re.findall(r"^```c\n(.*?)^```$", document.read_text(), flags=re.S | re.M):
            if "int main(" not in program:
                continue
            count += 1
            file = work / f"snippet{count}.c"
            file.write_text(program)
            command = [compiler, "-std=c11", "-Wall", "-Wextra", "-Wpedantic", "-Werror", f"-I{sources}/include",
                       f"-I{sources}/warbler/include", str(file), "-o", str(file.with_suffix("")), *libraries]
            if subprocess.run(command, check=False).returncode != 0:
                print(f"{document.relative_to(sources)}: a program in it does not build")
                failed += 1
    print(f"{count} programs")
    return 0 if count > 0 and failed == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
