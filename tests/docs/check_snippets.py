#!/usr/bin/env python3
"""check_snippets.py SOURCES BUILD WORK CC CXX: does what README.md and the pages of docs/ say, as a reader would: installs the build where
the README says, compiles every program, runs every command as it is printed, and compares what it prints with what is shown."""

import fcntl
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

from snippets import blocks_of, matches
from terminal import Terminal

# The pages in the order in which they are read; a page goes on where the one before it ended. Others may show programs, and no commands.
PAGES = ("README.md", "docs/guide.md", "examples/README.md")
# Commands that are not run here, and why that is right.
ELSEWHERE = {
    "./quickstart": "run for every change",
    "./run-tests": "this very test is part of it",
    "scripts/build-preset release installed": "run by ./run-tests",
    "scripts/install-dependencies": "run by ./run-tests",
    "(cd build/release && cpack)": "tests/packages",
    "sudo apt install ./build/release/packages/*.deb": "changes the machine; tests/packages asks the package manager whether it would",
}
STRICT = {"c": ["-std=gnu11", "-Wall", "-Wextra", "-Wpedantic", "-Werror"], "cpp": ["-std=c++20", "-Wall", "-Wextra", "-Wpedantic", "-Werror"]}
AROUND_LINES = """#include <quillon.h>
#include <stdlib.h>
#include "setup.h"
void lines(quillon_config *config, quillon_connection *connection, quillon_capability *weather, wb_dom_node *request, wb_dom_node *node);
void lines(quillon_config *config, quillon_connection *connection, quillon_capability *weather, wb_dom_node *request, wb_dom_node *node) {
  (void)config, (void)connection, (void)weather, (void)request, (void)node;
%s}
"""


class Reader:
    def __init__(self, sources, build, work, compilers):
        self.sources, self.work, self.compilers = sources, work, compilers
        self.complaints = []
        self.counts = {"programs": 0, "lines of programs": 0, "commands": 0}
        home, checkout = work / "home", work / "checkout"
        shutil.rmtree(work, ignore_errors=True)
        for folder in (home, checkout / "build", work / "lines"):
            folder.mkdir(parents=True)
        (checkout / "build/release").symlink_to(build)
        shutil.copytree(sources / "examples", checkout / "examples")
        self.environment = {name: value for name, value in os.environ.items() if not name.startswith(("QUILLON_", "QLK_", "LD_", "PKG_"))}
        self.environment.update(HOME=str(home), NO_COLOR="1", LC_ALL="C.UTF-8", PS1="$ ")
        self.checkout = checkout
        self.terminals = {}

    def complain(self, block, text):
        self.complaints.append(f"{block.place}: {text if len(text) < 3000 else text[:1500] + ' [...] ' + text[-1500:]}")

    def terminal(self, name="main"):
        if name not in self.terminals:
            self.terminals[name] = Terminal(self.checkout, self.environment)
            if name != "main":  # a reader opens it where he is; nothing of what he has set is set there
                self.terminals[name].run(f"cd '{self.folder()}'")
        return self.terminals[name]

    def run(self, commands):
        return self.terminal().run(commands)

    def folder(self):
        return pathlib.Path(self.run("pwd")[1].strip())

    def variable(self, name):
        return self.run(f'echo "${name}"')[1].strip()

    # --- one block

    def read(self, block):
        if block.language in STRICT:
            if block.words:
                self.keep_program(block)
            elif "int main(" in block.text:
                self.complain(block, "a program without a name: nobody can compile it")
            else:
                self.compile_lines(block)
        elif block.language == "sh":
            self.run_commands(block)
        elif block.language == "text" and block.words[:1] == ["in"]:
            self.watch(block)
        elif block.language == "":
            self.complain(block, "a block without a language: say what it is")
        elif block.words:
            (self.folder() / block.words[0]).write_text(block.text, encoding="utf-8")

    def watch(self, block):
        """What a terminal prints because of something that was done in another."""
        terminal = self.terminal(block.words[1])
        if not terminal.wait(lambda: matches(block.text, terminal.printed())):
            self.complain(block, f"the terminal printed:\n{terminal.printed()}instead of:\n{block.text}")

    def keep_program(self, block):
        self.counts["programs"] += 1
        file = self.folder() / block.words[0]
        file.write_text(block.text, encoding="utf-8")
        if "int main(" in block.text:
            self.compile(block, file)

    def compile_lines(self, block):
        """Lines compile inside of a function or outside of any."""
        self.counts["lines of programs"] += 1
        file = self.work / "lines" / f"lines{self.counts['lines of programs']}.{block.language}"
        outcomes = []
        for text in (AROUND_LINES % block.text, AROUND_LINES % "" + block.text):
            file.write_text(text, encoding="utf-8")
            outcomes.append(self.compile(None, file, ["-c", "-Wno-unused-function", "-Wno-unused-variable", "-iquote", str(self.folder())]))
        if None not in outcomes:
            self.complain(block, "these lines do not compile:\n" + outcomes[0])

    def compile(self, block, file, options=()):
        compiler = self.compilers[file.suffix == ".cpp"]
        packages = ["libqlk-testpeer", "libqlk"] if "#include <qlk/testpeer" in file.read_text(encoding="utf-8") else ["libqlk"]
        flags = subprocess.run(["pkg-config", "--cflags", "--libs", *packages], capture_output=True, text=True, check=False,
                               env={**self.environment, "PKG_CONFIG_PATH": self.variable("PKG_CONFIG_PATH")}).stdout.split()
        language = "cpp" if file.suffix == ".cpp" else "c"
        done = subprocess.run([compiler, *STRICT[language], *options, str(file), "-o", str(self.work / "lines/output"), *flags], check=False,
                              capture_output=True, text=True)
        if done.returncode == 0:
            return None
        if block:
            self.complain(block, f"{file.name} does not compile:\n{done.stderr}")
        return done.stderr

    def run_commands(self, block):
        if block.words == ["elsewhere"]:
            for command in filter(None, block.text.split("\n")):
                if re.sub(r"\s+#.*", "", command) not in ELSEWHERE:
                    self.complain(block, f"not run, and nobody says why: {command}")
            return
        self.counts["commands"] += len([line for line in block.text.split("\n") if line.strip()])
        if block.words[:1] == ["in"]:
            done, printed = self.terminal(block.words[1]).start(block.text, block.output or "")
        else:
            done, printed = self.terminal().run(block.text)
        if not done:
            self.complain(block, f"this failed:\n{block.text}and printed:\n{printed}")
        elif block.output and not matches(block.output, printed):
            self.complain(block, f"printed:\n{printed}instead of:\n{block.output}")

    def read_pages(self):
        others = sorted(path.relative_to(self.sources).as_posix() for path in (self.sources / "docs").glob("*.md"))
        for page in [*PAGES, *(page for page in others if page not in PAGES)]:
            if (self.checkout / page).exists():
                self.run(f"cd '{(self.checkout / page).parent}'")  # a page of a folder's own is read in it
            for block in blocks_of(page, (self.sources / page).read_text(encoding="utf-8")):
                if page in PAGES:
                    self.read(block)
                elif block.language in STRICT and "int main(" in block.text:
                    block.words = block.words or [f"program{block.line}.{block.language}"]
                    self.keep_program(block)
            for name in [name for name in self.terminals if name != "main"]:
                self.terminals.pop(name).end()

    def leave(self):
        for terminal in self.terminals.values():
            terminal.end()
        for state in self.work.rglob("grid.json"):  # a page that broke off has left its grid up
            subprocess.run([self.sources / "grid/quillon-grid", "--folder", state.parent, "down"], check=False, stdout=subprocess.DEVNULL)


def main():
    sources, build, work = (pathlib.Path(argument).resolve() for argument in sys.argv[1:4])
    lock = open(pathlib.Path(tempfile.gettempdir(), "libqlk-documents.lock"), "w", encoding="ascii")  # a page names a port
    fcntl.flock(lock, fcntl.LOCK_EX)
    reader = Reader(sources, build, work, sys.argv[4:6])
    try:
        reader.read_pages()
    finally:
        reader.leave()
    print("\n".join(reader.complaints) or ", ".join(f"{count} {name}" for name, count in reader.counts.items()))
    return 1 if reader.complaints or 0 in reader.counts.values() else 0


if __name__ == "__main__":
    sys.exit(main())
