"""What bench/run makes of figures: which are met, which are missed, and that a failure loses nothing."""
import contextlib
import io
import json
import os
import sys
import tempfile
import unittest
from unittest import mock

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "bench"))
from harness import cli, growth, lines, plots, programs, report  # noqa: E402

SIZES = (1, 10, 100, 1000, 10000)
CPU = growth.Panel("cpu", "CPU", 1, 0.1)
FLAT = growth.Panel("cpu", "CPU of one", 0, 0.1)
LEFT = growth.Panel("cpu", "left behind", 0, 1, left_behind=512)


def line(key, value):
    """A line whose goal is at most twice the limit, and in absolute figures at most 5."""
    goal = lines.ratio_goal("ratio", "ours", "limit", "us", 2, absolute=lines.figure_goal("us", "ours", "us", 5))
    run = lambda figure: lambda *_: {"us": figure() if callable(figure) else figure}
    contenders = (lines.Contender("limit", lines.LIMIT, run(5)), lines.Contender("ours", lines.OURS, run(value)))
    return lines.Line(key, key, (lines.Figure("us", "us"),), contenders, (goal,))


def growing(key, panel, values, ours=True):
    at = dict(zip(SIZES, values))
    series = growth.Series("libqlk" if ours else "gloox", lambda bench, size, short: {"cpu": at[size]}, ours)
    return growth.Growth(key, key, "sizes", SIZES, SIZES, (series,), (panel,))


class HarnessTest(unittest.TestCase):
    def measure(self, some_lines, some_growths):
        results = {"machine": report.machine(), "rounds": 2, "short": False, "lines": {}, "growths": {}, "failed": {}}
        with tempfile.TemporaryDirectory() as folder, contextlib.redirect_stderr(io.StringIO()), mock.patch.object(plots, "draw"):
            cli.measure(None, (some_lines, some_growths), 2, False, results, folder)
            with open(os.path.join(folder, "results.json"), encoding="utf-8") as file:
                self.assertEqual(json.load(file)["failed"], results["failed"])
            with open(os.path.join(folder, "results.md"), encoding="utf-8") as file:
                self.text = file.read()
        return results

    def test_lines(self):
        def breaks():
            raise KeyError("lost")
        results = self.measure([line("good", 7), line("broken", breaks), line("slow", 11)], [])
        self.assertEqual(report.missed(results), ["slow: ratio"])
        self.assertEqual(list(results["failed"]), ["broken"])
        self.assertIn("| good | ratio | 1.40, at most 2 | 7.00, at most 5: MISSED | met |", self.text)
        self.assertIn("| slow | ratio | 2.20, at most 2 | 11.0, at most 5: MISSED | MISSED |", self.text)
        self.assertRegex(self.text, r"\| broken \| KeyError.* FAILED \|")

    def test_every_line_is_well_formed(self):
        for one in lines.all_lines():
            with self.subTest(one.key):
                self.assertGreaterEqual(one.rounds * one.rounds_factor, 0)
                self.assertTrue(all(isinstance(note, str) for note in one.notes))
                self.assertTrue(all(isinstance(goal, lines.Goal) for goal in one.goals))

    def test_growths(self):
        cases = (  # panel, values, whether it is met
            (CPU, (5.9, 6.8, 8.4, 11.9, 52), True),  # mostly a fixed share
            (CPU, (0.25, 0.25, 0.12, 1, 8), True),  # scatter at the lower end
            (CPU, (1, 11, 104, 1010, 18000), True),  # the last step falls out of a cache
            (CPU, (5, 5, 6, 105, 10005), False),  # quadratic
            (CPU, (0, 0, 0, 0, 0), True),
            (CPU, (0, 0, 0, 0, 100), False),  # nothing, and then much
            (FLAT, (57, 10, 4.8, 5, 5.2), True),
            (FLAT, (5, 5, 5.4, 9, 45), False),  # linear
            (FLAT, (0, 0, 0, 0, 0), True),
            (LEFT, (192, 244, 344, 356, 400), True),
            (LEFT, (0, 0, 0, 0, 513), False),
        )
        results = self.measure([], [growing(str(place), panel, values) for place, (panel, values, _) in enumerate(cases)])
        self.assertEqual(results["failed"], {})
        for place, (panel, values, met) in enumerate(cases):
            self.assertEqual([goal["met"] for goal in results["growths"][str(place)]["goals"]], [met], f"{panel.title}: {values}")

    def test_who_is_judged(self):
        quadratic = [size * size for size in SIZES]
        wall = growth.Panel("cpu", "time", 1, 0.1, is_wall_time=True)
        results = self.measure([], [growing("peer", CPU, quadratic, ours=False), growing("wall", wall, quadratic)])
        self.assertEqual((report.missed(results), results["failed"]), ([], {}))
        unmeasured = growing("none", growth.Panel("memory", "memory", 0, 1), quadratic)
        self.assertEqual(list(self.measure([], [unmeasured])["failed"]), ["none"])

    def test_few_sizes(self):
        self.assertIsNone(CPU.slope((1, 10), (1, 10)))
        self.assertFalse(CPU.judge("libqlk", (1, 10), None)["met"])
        self.assertAlmostEqual(FLAT.slope((1, 10), (1, 10)), 1)

    def test_failed_program(self):
        def run(*_):
            raise programs.Failed("a | b\nc")
        broken = growth.Growth("g", "g", "sizes", SIZES, SIZES, (growth.Series("libqlk", run),), (CPU,))
        self.measure([], [broken])
        self.assertIn("| g | Failed: a / b c | - | - | FAILED |", self.text)


unittest.main()
