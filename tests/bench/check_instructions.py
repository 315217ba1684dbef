"""check_instructions.py parse|write|items|iq FOLDER: counts what the work costs, with the programs in that folder.

parse and write: a stanza's way from bytes to a tree, and back, in proportion to expat with handlers that do nothing. items: the
same of a piece of a bulk document. iq: a tracked IQ, sent and answered, with many in flight and one at a time.
"""
import os
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "bench"))
from harness.programs import Bench  # noqa: E402

BOUNDS = {"parse": 1.22, "write": 1.38, "items": 1.2}  # times expat
IQ_BOUNDS = {64: 43000, 1: 62000}  # instructions, by how many are in flight
COUNTS = {"iq": (100, 600), "event": (100, 600), "payload": (20, 70), "items": (20, 70)}
STANZAS = ("iq", "event", "payload")


def judge(what, value, bound):
    good = value <= bound
    print(f"{what}: {value:,.2f}, at most {bound:,.2f}: {'good' if good else 'TOO MUCH'}")
    return good


def check_stanza(bench, mode, stanza):
    def count(mode):
        low, high = COUNTS[stanza]
        return bench.count_instructions("parse_ours", "count", low, high, mode=mode, stanza=stanza)
    return judge(f"{mode} of {stanza}, times expat", count(mode) / count("expat"), BOUNDS[mode])


def check_iq(bench, in_flight):
    # The server is a process of its own, which is not counted.
    cost = bench.count_instructions("query_async", "requests", 500, 1500, in_flight=in_flight, **bench.echo_options())
    return judge(f"instructions of a tracked IQ with {in_flight} in flight", cost, IQ_BOUNDS[in_flight])


def main():
    what, folder = sys.argv[1:]
    with tempfile.TemporaryDirectory(prefix="qlk-bench-") as work:
        bench = Bench(folder, work)
        try:
            if what == "iq":
                results = [check_iq(bench, in_flight) for in_flight in IQ_BOUNDS]
            else:
                results = [check_stanza(bench, what, stanza) for stanza in (("items",) if what == "items" else STANZAS)]
        finally:
            bench.close()
    return 0 if all(results) else 1


sys.exit(main())
