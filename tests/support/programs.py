"""For tests that run programs as their users do: a grid of the test's own, and a program in the background."""
import contextlib
import json
import os
import pathlib
import re
import shlex
import signal
import subprocess
import tempfile
import threading

PATIENCE_SECONDS = 60


class Grid:
    """A grid in a temporary folder; command is quillon-grid."""

    def __init__(self, command, controller, approval):
        self.command, self.controller = command, controller
        self.place = tempfile.TemporaryDirectory(prefix="a grid ")  # with a blank, which every layer has to get right
        self.folder = pathlib.Path(self.place.name, "grid")
        self.up("--approval", approval)

    def close(self):
        self.run("down")
        self.place.cleanup()

    def up(self, *arguments):
        """With the programs of the build that is tested, never those of another."""
        self.run("up", "--controller", self.controller, *arguments)

    def run(self, *arguments):
        done = subprocess.run([self.command, "--folder", self.folder, *arguments], capture_output=True, text=True, check=False,
                              timeout=PATIENCE_SECONDS)
        if done.returncode != 0:
            raise AssertionError(f"quillon-grid {arguments}: {done.stdout}{done.stderr}")
        return done.stdout

    def restart_controller(self):
        """It dies without a word, and is brought back beside the running server."""
        os.kill(json.loads(pathlib.Path(self.folder, "grid.json").read_text(encoding="utf-8"))["controller"]["pid"], signal.SIGKILL)
        self.up()

    def enroll(self, user, *arguments):
        """Returns the paths of certificate, key and profile."""
        return [pathlib.Path(line) for line in self.run("enroll", user, *arguments).splitlines()]

    def member(self, user, *arguments):
        """A user who is approved; returns the profile's path."""
        profile = self.enroll(user, *arguments)[2]
        self.run("approve", user)
        return profile

    def environment(self):
        """What the shell has after eval "$(quillon-grid env --export)"."""
        return dict(word.split("=", 1) for word in shlex.split(self.run("env", "--export")) if word != "export")


class Running:
    """A program in the background, with what it has said so far."""

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

    def until(self, lines, pattern, times=1):
        """Waits for that many lines of self.out or self.err."""
        with self.changed:
            if not self.changed.wait_for(lambda: sum(bool(re.search(pattern, line)) for line in lines) >= times, PATIENCE_SECONDS):
                raise AssertionError(f"no '{pattern}' ({times}) in {self.out} {self.err}")

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
