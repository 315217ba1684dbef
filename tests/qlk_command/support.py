"""A grid of its own, its members, and qlk run in a pipe or on a terminal."""
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
import threading
import time
import unittest

QLK, GRID, CONTROLLER, COMPLETION = (os.path.abspath(argument) for argument in sys.argv[1:5])
PATIENCE_SECONDS = 60
COMMANDS = ("doctor", "connect", "capabilities", "status", "subscribe", "publish", "query", "serve", "propose", "modify", "authorized",
            "token", "bulk")


class Grid:
    """One that approves nobody by itself."""

    def __init__(self):
        self.place = tempfile.TemporaryDirectory(prefix="a grid ")  # with a blank, which every layer has to get right
        self.folder = pathlib.Path(self.place.name, "grid")
        self.run("up", "--controller", CONTROLLER, "--approval", "manual")

    def close(self):
        self.run("down")
        self.place.cleanup()

    def run(self, *arguments):
        done = subprocess.run([GRID, "--folder", self.folder, *arguments], capture_output=True, text=True, check=False, timeout=PATIENCE_SECONDS)
        if done.returncode != 0:
            raise AssertionError(f"quillon-grid {arguments}: {done.stdout}{done.stderr}")
        return done.stdout

    def enroll(self, user, *arguments):
        """Returns the paths of certificate, key and profile."""
        return [pathlib.Path(line) for line in self.run("enroll", user, *arguments).splitlines()]

    def member(self, user, *arguments):
        """A user who is approved; returns the profile's path."""
        profile = self.enroll(user, *arguments)[2]
        self.run("approve", user)
        return profile


class Running:
    """qlk in the background, with what it has said so far."""

    def __init__(self, command, **options):
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, **options)
        self.out, self.err = [], []
        self.changed = threading.Condition()
        self.readers = [threading.Thread(target=self.collect, args=pair) for pair in
                        ((self.process.stdout, self.out), (self.process.stderr, self.err))]
        for reader in self.readers:
            reader.start()

    def collect(self, stream, lines):
        with contextlib.suppress(ValueError):  # closed by us
            for line in stream:
                with self.changed:
                    lines.append(line)
                    self.changed.notify_all()

    def until(self, lines, pattern):
        """Waits for a line of self.out or self.err."""
        with self.changed:
            if not self.changed.wait_for(lambda: any(re.search(pattern, line) for line in lines), PATIENCE_SECONDS):
                raise AssertionError(f"no '{pattern}' in {self.out} {self.err}")

    def end(self, number=signal.SIGINT):
        """Sends a signal, and returns the exit code."""
        if self.process.poll() is None:
            self.process.send_signal(number)
        return self.wait()

    def wait(self):
        code = self.process.wait(PATIENCE_SECONDS)
        for reader in self.readers:
            reader.join(PATIENCE_SECONDS)
        return code

    def close(self):
        self.process.kill()
        self.process.wait()
        for reader in self.readers:
            reader.join(PATIENCE_SECONDS)
        for stream in (self.process.stdin, self.process.stdout, self.process.stderr):
            with contextlib.suppress(BrokenPipeError):
                stream.close()


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
