"""A shell as a reader has it in a terminal: it takes commands, prints, and is ended by Ctrl-C."""
import os
import signal
import subprocess
import tempfile
import time

from snippets import matches

SECONDS = 60


class Terminal:
    def __init__(self, folder, environment):
        self.log = tempfile.TemporaryFile()
        self.shell = subprocess.Popen(["bash", "--noprofile", "--norc"], cwd=folder, env=environment, stdin=subprocess.PIPE, stdout=self.log,
                                      stderr=subprocess.STDOUT, start_new_session=True)
        self.read_from = 0
        self.count = 0

    def printed(self):
        return os.pread(self.log.fileno(), 1 << 24, self.read_from).decode(errors="replace")

    def send(self, text):
        self.shell.stdin.write(text.encode())
        self.shell.stdin.flush()

    def run(self, commands):
        """Runs the commands, each of which has to succeed. Returns (whether they did, what they printed)."""
        self.count += 1
        mark = f"end-of-block-{self.count}"
        self.read_from = os.fstat(self.log.fileno()).st_size
        # In the shell itself, so that what they set stays; the first that fails is the last that runs.
        self.send(f"trap 'echo \"failed: $BASH_COMMAND\"; block_failed=1' ERR; block_failed=\n{commands}\necho {mark}=${{block_failed:-0}}=\n")
        self.wait(lambda: f"{mark}=" in self.printed())
        text, _, verdict = self.printed().partition(mark)
        return verdict.startswith("=0="), text

    def start(self, commands, expected):
        """Types the commands and waits until they have printed what is expected. Returns (whether they did, what they printed)."""
        self.read_from = os.fstat(self.log.fileno()).st_size
        self.send(commands)
        done = self.wait(lambda: matches(expected, self.printed()))
        return done, self.printed()

    def wait(self, condition):
        deadline = time.monotonic() + SECONDS
        while not condition():
            if time.monotonic() > deadline or self.shell.poll() is not None:
                return condition()
            time.sleep(0.02)
        return True

    def end(self):
        """Ctrl-C, and the window is closed."""
        for number in (signal.SIGINT, signal.SIGHUP, signal.SIGKILL):
            try:
                os.killpg(self.shell.pid, number)
                if number == signal.SIGINT:
                    self.shell.stdin.close()
                self.shell.wait(10)
                break
            except (ProcessLookupError, BrokenPipeError, subprocess.TimeoutExpired):
                continue
        self.shell.poll()
        self.log.close()
