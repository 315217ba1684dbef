#!/usr/bin/env python3
"""check_rules.py ROOT: the rules of this tree that no compiler knows. Each complaint says what to do instead.

Patterns are put together from pieces where this file would otherwise break its own rule.
"""

import os
import pathlib
import re
import sys
from dataclasses import dataclass

LINES_MAX = 600
CODE = (".c", ".h", ".cpp", ".hpp")
SCRIPTS = (".py", ".sh", ".cmake", ".lua", "")
PROSE = (".md", ".txt", ".json", ".in", ".yml", ".map")
LIBRARIES = ("src/", "warbler/src/", "warbler/include/", "include/")
NOT_OURS = {"LICENSE"}
MAY_BE_LONG = {"include/quillon.h"}  # the one public header, most of it comments


@dataclass(frozen=True)
class Rule:
    name: str
    pattern: str
    advice: str
    suffixes: tuple = CODE + SCRIPTS + PROSE
    folders: tuple = ("",)       # a file below one of them
    except_folders: tuple = ()   # and below none of these
    reason: str = ""             # a comment beginning so, on the line or the one before, says why this one is right


RULES = (
    Rule("document", "spec" + r"\.md|the specifi" + r"cation\b|\bPart [1-6]\.[1-7]\b",
         "say what the behaviour is for, not which document asks for it"),
    Rule("machine-path", r"(?<![\w.$}])/(?:wo" + "rk|fa" + r"rm|home|root)/",
         "a path of one machine: start from the repository or from a temporary folder"),
    Rule("registry-host", r"\b(?:deb\.deb" + r"ian\.org|registry\.np" + r"mjs|npm" + r"js\.(?:org|com)|py" + r"pi\.org|pythonhos" + r"ted\.org"
         + r"|cra" + r"tes\.io|proxy\.gol" + r"ang|repo\.mav" + r"en)",
         "name packages only (scripts/packages.txt); where they come from is the machine's setting"),
    Rule("unfinished", r"\b(?:TO" + "DO|FIX" + "ME|XX" + "X|HA" + r"CK)\b|not imple" + "mented",
         "finish it, or open an issue and leave no mark here"),
    Rule("skipped-test", r"\bGTEST" + r"_SKIP\b|\bDIS" + r"ABLED_\w",
         "a test that does not run proves nothing: mend it or delete it", folders=("tests/",)),
    Rule("sleep-for-luck", r"\b(?:sleep" + r"_for|sleep_until|us" + r"leep|nano" + r"sleep|sleep)\s*\(",
         "wait for the condition, with a deadline, by a helper of tests/support; where the delay is what is tested, say so in a comment "
         "that begins with 'Delay:'", suffixes=CODE, folders=("tests/",), except_folders=("tests/support/",), reason="Delay:"),
    Rule("cancelled-thread", r"\bpthread" + r"_cancel\b",
         "stop the thread by a flag, a wake-up item and a join", suffixes=CODE, except_folders=("tests/",)),
    Rule("environment", r"\b(?:secure_)?get" + r"env\s*\(",
         "the libraries read no environment variable: add a setter to the configuration", suffixes=CODE, folders=LIBRARIES),
    Rule("standard-output", r"\bstd::c" + r"out\b|(?<![\w.>])(?:pri" + r"ntf|puts|putchar)\s*\(",
         "standard output is the application's: log with wb_log", suffixes=CODE, folders=LIBRARIES),
)


def files_of(root):
    """The files of the tree: whatever is not hidden, not built, and text. Hidden names that belong to the tree are named here."""
    for folder, folders, names in os.walk(root):
        folders[:] = [name for name in folders if name == ".ci" or (name != "build" and name != "__pycache__" and not name.startswith("."))]
        for name in sorted(names):
            if name not in NOT_OURS and (not name.startswith(".") or name in (".clang-format", ".clang-tidy", ".gitignore")):
                yield pathlib.Path(folder, name).relative_to(root).as_posix()


def applies(rule, path):
    return (pathlib.PurePosixPath(path).suffix in rule.suffixes and path.startswith(rule.folders)
            and not (rule.except_folders and path.startswith(rule.except_folders)))


def check_text(path, text):
    """The complaints about one file, as 'path:line: name: advice'."""
    lines = text.splitlines()
    complaints = []
    if len(lines) > LINES_MAX and path not in MAY_BE_LONG and pathlib.PurePosixPath(path).suffix in CODE + (".py",):
        complaints.append(f"{path}:{LINES_MAX}: long-file: {len(lines)} lines: split it into modules of at most {LINES_MAX}")
    for rule in RULES:
        if not applies(rule, path):
            continue
        for number, line in enumerate(lines):
            if not re.search(rule.pattern, line):
                continue
            if rule.reason and any(rule.reason in near for near in lines[max(0, number - 1):number + 1]):
                continue
            complaints.append(f"{path}:{number + 1}: {rule.name}: {rule.advice}")
    return complaints


def main():
    root = pathlib.Path(sys.argv[1])
    complaints = []
    count = 0
    for path in files_of(root):
        try:
            text = (root / path).read_text(encoding="utf-8")
        except UnicodeDecodeError:
            continue  # no text: a corpus or a picture
        count += 1
        complaints += check_text(path, text)
    print("\n".join(complaints) or f"{count} files keep {len(RULES) + 1} rules")
    return 1 if complaints or count == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
