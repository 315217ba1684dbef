#!/usr/bin/env python3
"""examples_test.py SOURCES EXAMPLES IMPATIENT CONTROLLER: every program of examples/c and examples/cpp, on one grid: what it prints, how it
fails, and that Ctrl-C ends it. IMPATIENT has the reconnecting clients that look every second."""
import functools
import os
import pathlib
import subprocess
import sys
import unittest

SOURCES, EXAMPLES, IMPATIENT, CONTROLLER = (pathlib.Path(argument).resolve() for argument in sys.argv[1:5])
sys.path.append(str(SOURCES / "tests/support"))
from programs import PATIENCE_SECONDS, Grid, Running  # noqa: E402 pylint: disable=wrong-import-position

LANGUAGES = ("c", "cpp")
NAMES = {"publisher", "subscriber", "query_server", "query_client", "reconnecting_client", "bulk_reader"}
LINES_BELOW = 80


def in_each_language(test):
    @functools.wraps(test)
    def run(self):
        for language in LANGUAGES:
            with self.subTest(language=language):
                test(self, language)
    return run


class Examples(unittest.TestCase):
    grid = None

    def environment(self):
        return os.environ | self.grid.environment()

    def start(self, *command):
        running = Running(command, env=self.environment())
        self.addCleanup(running.close)
        return running

    def ask(self, *command, code=0, **options):
        """Runs a program to its end, and returns what it printed on standard output and standard error."""
        done = subprocess.run(command, capture_output=True, text=True, check=False, timeout=PATIENCE_SECONDS,
                              **{"env": self.environment(), **options})
        self.assertEqual(code, done.returncode, f"{command}: {done.stdout}{done.stderr}")
        return done.stdout, done.stderr

    def end(self, running):
        self.assertEqual(0, running.end(), running.out + running.err)
        self.assertEqual([], running.err)

    @in_each_language
    def test_each_is_there_and_small(self, language):
        sources = list((SOURCES / "examples" / language).glob(f"*.{language}"))
        self.assertEqual(NAMES, {source.stem for source in sources})
        for source in sources:
            self.assertLess(len(source.read_text(encoding="utf-8").splitlines()), LINES_BELOW, source)

    @in_each_language
    def test_a_subscriber_prints_what_a_publisher_tells(self, language):
        subscriber = self.start(EXAMPLES / language / "subscriber", self.member("bob"))
        subscriber.until(subscriber.out, "^subscribed$")
        publisher = self.start(EXAMPLES / language / "publisher", self.member("alice"))
        subscriber.until(subscriber.out, "^reading: ", times=2)
        self.end(publisher)
        self.end(subscriber)
        self.assertEqual(["subscribed\n", "reading: 21 degrees\n", "reading: 22 degrees\n"], subscriber.out[:3])
        self.assertEqual(["publishing\n"], publisher.out)

    @in_each_language
    def test_a_query_is_answered(self, language):
        client = (EXAMPLES / language / "query_client", self.member("bob"), "Monday")
        self.assertIn("Capability not found", self.ask(*client, code=1)[1])  # nobody offers it
        server = self.start(EXAMPLES / language / "query_server", self.member("alice"))
        server.until(server.out, "^ready$")
        self.assertEqual(("sunny on Monday\n", ""), self.ask(*client))
        self.end(server)

    def test_a_client_comes_back_after_a_restart_of_the_server(self):
        running = [self.start(folder / language / "reconnecting_client", self.member(f"{folder.name}-{language}".lower()))
                   for folder in (EXAMPLES, IMPATIENT) for language in LANGUAGES]
        for client in running:
            client.until(client.out, "^connected$")
        self.grid.run("server-stop")
        for client in running:
            client.until(client.out, "^disconnected: ")
        self.grid.run("server-start")
        for client in running[len(LANGUAGES):]:
            client.until(client.out, "^connected$", times=2)
        for client in running:
            self.assertEqual(0, client.end(), client.out + client.err)

    @in_each_language
    def test_a_download_is_counted(self, language):
        reader = (EXAMPLES / language / "bulk_reader", self.member("bob"))
        self.assertEqual(("20000 readings\n", ""), self.ask(*reader, "20000"))
        nowhere = self.environment() | {"QUILLON_GRID_BULK_URL": "https://127.0.0.1:1/bulk"}
        out, err = self.ask(*reader, "1", code=1, env=nowhere)
        self.assertEqual("0 readings\n", out)
        self.assertIn("connect to server", err)

    @in_each_language
    def test_what_is_missing_is_told(self, language):
        for name in NAMES:
            program = EXAMPLES / language / name
            self.assertIn("usage: ", self.ask(program, code=2)[1])
            arguments = ("bob", "1") if name in ("query_client", "bulk_reader") else ("bob",)
            bare = {key: value for key, value in os.environ.items() if not key.startswith("QUILLON_")}
            self.assertIn("QUILLON_GRID_", self.ask(program, *arguments, code=2 if language == "c" else 1, env=bare)[1])
        self.assertIn("certificate", self.ask(EXAMPLES / language / "publisher", "nobody", code=1)[1])

    def member(self, user):
        self.grid.enroll(user)
        return user


def setUpModule():
    Examples.grid = Grid(SOURCES / "grid/quillon-grid", CONTROLLER, "auto")
    unittest.addModuleCleanup(Examples.grid.close)


if __name__ == "__main__":
    del sys.argv[1:5]
    unittest.main()
