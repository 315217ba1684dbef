#!/usr/bin/env python3
"""check_manuals.py PAGE COMMAND [PAGE COMMAND]...: each manual page is without a fault, and tells every subcommand and every option
that the command's own --help tells, in its own --help and that of each subcommand."""

import os
import re
import subprocess
import sys
import tempfile

OPTION = re.compile(r"(?<![\w-])(--?[a-zA-Z][\w-]*)")


def run(*command, **environment):
    done = subprocess.run(command, capture_output=True, text=True, check=False, timeout=60, env={**os.environ, **environment})
    return done.returncode, done.stdout, done.stderr


def faults(page):
    """What the two formatters that systems have complain of. Long lines of the source are no fault."""
    _, lint, _ = run("mandoc", "-Tlint", "-W", "warning", page)
    with tempfile.TemporaryDirectory() as folder:  # man reads local pages only with a slash in their name, and warns on standard error
        _, _, warnings = run("man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z", os.path.abspath(page), HOME=folder, LC_ALL="C.UTF-8",
                             MANWIDTH="80")
    return [line for line in (lint + warnings).splitlines() if line.strip()]


def text_of(page):
    code, text, errors = run("mandoc", "-Tascii", "-Owidth=200", page)
    if code > 1:
        sys.exit(f"{page}: {errors}")
    return re.sub(r".\x08", "", text)


def options_of(text):
    """The options that a --help lists: those at the beginning of indented lines, and not what its examples pass to other programs."""
    rows = re.findall(r"^ {1,6}(-\S.*?)(?: {2,}|$)", text, flags=re.M)
    return {option for row in rows for option in OPTION.findall(row)}


def help_of(*command):
    code, text, errors = run(*command, "--help", COLUMNS="200", NO_COLOR="1")
    if code != 0 or not text:
        sys.exit(f"{' '.join(command)} --help: exit code {code}: {errors}")
    return text


def subcommands(text):
    """The names at the beginning of indented lines below a heading of commands."""
    names = []
    inside = False
    for line in text.splitlines():
        if re.match(r"^\S.*:$|^[A-Z]", line):
            inside = bool(re.match(r"(?i)^(sub)?commands|^positional arguments|^COMMANDS", line))
        elif inside and (found := re.match(r"^ {2,4}([a-z][\w-]*)(?:\s{2,}|$)", line)):
            names.append(found.group(1))
    return names


def section_of(page_text, name):
    """What the page says of one subcommand: from its tag to the next line that is indented no further."""
    lines = page_text.splitlines()
    starts = [i for i, line in enumerate(lines) if re.match(rf"^ +{re.escape(name)}(?: |$)", line)]
    found = []
    for start in starts:
        depth = len(lines[start]) - len(lines[start].lstrip())
        found.append(lines[start])
        for line in lines[start + 1:]:
            if line.strip() and len(line) - len(line.lstrip()) <= depth:
                break
            found.append(line)
    return "\n".join(found)


def check(page, command):
    complaints = [f"{page}: {fault}" for fault in faults(page)]
    text = text_of(page)
    top = help_of(command)
    general = options_of(top)
    names = subcommands(top)
    if len(names) < 3:
        complaints.append(f"{command} --help: hardly a subcommand found: {names}")
    count = 0
    for option in sorted(general):
        count += 1
        if option not in OPTION.findall(text):
            complaints.append(f"{page}: {option} is not described")
    for name in names:
        section = section_of(text, name)
        if not section:
            complaints.append(f"{page}: the command {name} is not described")
            continue
        # An option that several commands share is described once, for all of them, outside their sections.
        outside = set(OPTION.findall(shared_part(text, names)))
        for option in sorted(options_of(help_of(command, name)) - {"-h", "--help"}):
            count += 1
            if option not in OPTION.findall(section) and option not in outside:
                complaints.append(f"{page}: {name}: {option} is not described")
    print(f"{page}: {len(names)} commands, {count} options")
    return complaints


def shared_part(text, names):
    for name in names:
        for line in section_of(text, name).splitlines():
            text = text.replace(line + "\n", "", 1)
    return text


def main():
    arguments = sys.argv[1:]
    complaints = [complaint for page, command in zip(arguments[::2], arguments[1::2]) for complaint in check(page, command)]
    print("\n".join(complaints))
    return 1 if complaints or not arguments else 0


if __name__ == "__main__":
    sys.exit(main())
