#!/usr/bin/env python3
"""check_commands.py COMPILE-COMMANDS SOURCES OPTION...: every source of the libraries and programs is compiled with each OPTION. What the finished
files show is only that some of it was."""

import json
import pathlib
import shlex
import sys

FOLDERS = ("src", "warbler/src", "grid", "tools", "testpeer/src")
FEWEST = 50  # sources


def main():
    commands, root, *options = sys.argv[1:]
    folders = [pathlib.Path(root).resolve() / folder for folder in FOLDERS]
    complaints = []
    count = 0
    for entry in json.loads(pathlib.Path(commands).read_text(encoding="utf-8")):
        source = (pathlib.Path(entry["directory"]) / entry["file"]).resolve()
        if not any(source.is_relative_to(folder) for folder in folders):
            continue
        count += 1
        given = shlex.split(entry["command"])
        complaints += [f"{source} is compiled without {option}" for option in options if option not in given]
    if count < FEWEST:
        complaints.append(f"{count} sources were found")
    print("\n".join(complaints) or f"{count} sources have {len(options)} options")
    return 1 if complaints or not options else 0


if __name__ == "__main__":
    sys.exit(main())
