"""qlk, run in a pipe or on a terminal, as a member of a grid of its own."""
import contextlib
import os
import pathlib
import pty
import re
import select
import signal
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.append(os.path.join(os.path.dirname(os.path.abspath(__file__)), os.pardir, "support"))
from programs import PATIENCE_SECONDS, Grid, Running  # noqa: E402 pylint: disable=wrong-import-position

QLK, GRID, CONTROLLER, COMPLETION = (os.path.abspath(argument) for argument in sys.argv[1:5])
COMMANDS = ("doctor", "connect", "capabilities", "status", "subscribe", "publish", "query", "serve", "propose", "modify", "authorized",
            "token", "bulk", "top")


class Terminal:
    """qlk on a terminal of 80 columns, which is its controlling one."""

    def __init__(self, command, environment, stdout=None):
        self.pid, self.master = pty.fork()
        if self.pid == 0:
            try:
                if stdout is not None:
                    os.dup2(os.open(stdout, os.O_WRONLY | os.O_CREAT), 1)
                os.execve(command[0], command, environment)
            finally:
                os._exit(127)
        self.shown = ""

    def read_until(self, pattern):
        """Waits until the screen has shown the pattern; without one, until the program has ended."""
        deadline = time.monotonic() + PATIENCE_SECONDS
        while not (pattern and re.search(pattern, self.shown)):
            readable, _, _ = select.select([self.master], [], [], max(0, deadline - time.monotonic()))
            if not readable:
                raise AssertionError(f"no '{pattern}' in {self.shown!r}")
            try:
                self.shown += os.read(self.master, 4096).decode()
            except OSError:  # nobody has the terminal open any more
                if pattern:
                    raise AssertionError(f"no '{pattern}' in {self.shown!r}") from None
                return

    def type(self, text):
        os.write(self.master, text.encode())

    def wait(self):
        """Returns the exit code."""
        self.read_until(None)
        return os.waitstatus_to_exitcode(os.waitpid(self.pid, 0)[1])

    def close(self):
        with contextlib.suppress(ChildProcessError, ProcessLookupError):
            os.kill(self.pid, signal.SIGKILL)
            os.waitpid(self.pid, 0)
        os.close(self.master)


class Case(unittest.TestCase):
    """All have one grid, and do not disturb each other on it."""

    grid = None

    def setUp(self):
        place = tempfile.TemporaryDirectory(prefix="qlk ")
        self.addCleanup(place.cleanup)
        self.place = pathlib.Path(place.name)

    def environment(self, profile=None, **variables):
        kept = {name: value for name, value in os.environ.items() if name not in ("NO_COLOR", "QLK_PROFILE", "XDG_CONFIG_HOME")}
        kept |= {"HOME": str(self.place), "TERM": "xterm"} | variables
        return kept | ({"QLK_PROFILE": str(profile)} if profile else {})

    def qlk(self, profile, *arguments, code=0, stdin="", **options):
        """Returns what it printed on standard output and standard error."""
        done = subprocess.run([QLK, *map(str, arguments)], input=stdin, capture_output=True, text=True, check=False, timeout=PATIENCE_SECONDS,
                              env=self.environment(profile), start_new_session=True, **options)
        self.assertEqual(code, done.returncode, f"{arguments}: {done.stdout}{done.stderr}")
        return done.stdout, done.stderr

    def start(self, profile, *arguments):
        running = Running([QLK, *map(str, arguments)], env=self.environment(profile))
        self.addCleanup(running.close)
        return running

    def terminal(self, profile, *arguments, stdout=None, **variables):
        terminal = Terminal([QLK, *map(str, arguments)], self.environment(profile, **variables), stdout)
        self.addCleanup(terminal.close)
        return terminal

    def file(self, name, text):
        path = self.place / name
        path.write_text(text, encoding="utf-8")
        return path
