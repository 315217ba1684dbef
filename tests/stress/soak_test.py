"""What tests/soak makes of samples: flat ones, rising ones, and those of a machine that has other work."""
import importlib.machinery
import importlib.util
import os
import random
import sys
import unittest

sys.dont_write_bytecode = True
PATH = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "soak")
LOADER = importlib.machinery.SourceFileLoader("soak", PATH)
soak = importlib.util.module_from_spec(importlib.util.spec_from_loader("soak", LOADER))
LOADER.exec_module(soak)

STEADY = {"resident_kib": 18000, "used_kib": 1800, "descriptors": 13, "threads": 20, "cost_us": 60, "async_us": 30000, "median_us": 30000,
          "others_cpu": 0.02}


def sampled(**changed):
    """Ten minutes, with some scatter; changed tells how a value changes with the part of the run that is over."""
    chance = random.Random(7)
    samples = []
    for second in range(1, 601):
        sample = dict.fromkeys(soak.COLUMNS, 0) | {key: value * chance.uniform(0.97, 1.03) for key, value in STEADY.items()}
        sample |= {"seconds": second, "is_calm": second % 60 > 3, "restarts": second // 60, "low_kib": second // 60 and 720, "answers": second, "async_answers": second, "received": second, "documents": second}
        if not sample["is_calm"]:
            sample |= {"used_kib": 500, "async_us": 900000, "threads": 90}
        for key, change in changed.items():
            sample[key] = change(sample[key], second / 600)
        samples.append(sample)
    return samples + samples[-1:]  # the last one is taken when all has ended, and so soon that the time is the same


class SoakTest(unittest.TestCase):
    def test_verdict(self):
        busy_from_half = {"others_cpu": lambda value, part: 1.4 if part > 0.5 else value}
        cases = (  # how the samples change, the lines that rise
            ({}, set()),
            ({"used_kib": lambda value, part: value + 1000 * part}, {"used_kib"}),
            ({"used_kib": lambda value, part: value + 1000 * min(part, 0.15)}, set()),  # while it warms up
            ({"low_kib": lambda value, part: value + value / 10 * part}, {"low_kib"}),
            ({"resident_kib": lambda value, part: value + 2500 * part}, {"resident_kib"}),
            ({"descriptors": lambda value, part: value + 4 * part, "threads": lambda value, part: value + 3 * part}, {"descriptors", "threads"}),
            ({"async_us": lambda value, part: value * (1 + 2 * part)}, {"async_us"}),
            ({"median_us": lambda value, part: value * (1 + 2 * part)}, {"median_us"}),
            ({"async_us": lambda value, part: value * (40 if 0.4 < part < 0.7 else 1)}, set()),  # and comes down again
            # Others take the processors: what the clock says is not believed, but what is paid is.
            ({"async_us": lambda value, part: value * (20 if part > 0.5 else 1), **busy_from_half}, set()),
            ({"cost_us": lambda value, part: value * (1 + 6 * part), **busy_from_half}, {"cost_us"}),
        )
        titles = {title: key for key, title, *_ in soak.LINES + soak.SPANS} | {title: key for title, key, _ in soak.LOWS}
        for number, (changed, rising) in enumerate(cases):
            with self.subTest(number):
                samples = sampled(**changed)
                rows = soak.judge(samples)
                self.assertEqual({titles[title] for title, _, is_flat in rows if not is_flat}, rising, rows)
                self.assertEqual(bool(soak.faults(samples, rows, 0)), bool(rising))
                self.assertEqual("not judged: " in soak.report(samples, rows, []).splitlines()[-1], "others_cpu" in changed)

    def test_counts(self):
        rows = soak.judge(sampled())
        for key, value, code in (("wrong", 1, 0), ("lost", 1, 0), ("repeated", 1, 0), ("documents", 0, 0), ("async_answers", 0, 0), ("answers", 5, 1)):
            with self.subTest(key):
                self.assertEqual(len(soak.faults([dict(sampled()[-1]) | {key: value}], rows, code)), 1)


if __name__ == "__main__":
    unittest.main()
