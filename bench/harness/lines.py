"""The lines that are measured: who does what, and what is to be reached."""
import dataclasses
import subprocess
import typing

from . import programs

LIMIT, PEER, OURS = "limit", "peer", "ours"
STANZAS = {"iq": "IQ of 276 bytes", "event": "event of 632 bytes", "payload": "payload of 16 KiB"}
RECORD_BYTES = 600


@dataclasses.dataclass(frozen=True)
class Figure:
    """One of the numbers that a run yields. Where scale is given the number shown is the program's times that."""
    key: str
    title: str
    scale: float = 1


@dataclasses.dataclass(frozen=True)
class Contender:
    name: str
    role: str
    run: typing.Callable  # of the bench and whether it is the short form; returns the figures


@dataclasses.dataclass(frozen=True)
class Goal:
    """What ours must reach: value is given a function that returns the median of a contender's figure.

    On another machine the same program takes another time, so what decides is, where a limit was measured in the same run, the proportion
    to that. absolute is then the goal as it was set for one machine: it is told and judged too, and does not decide. The goal belongs to a
    contender's figure, and mark tells, of the same function, at which value of that figure it stands."""
    text: str
    contender: str
    figure: str
    value: typing.Callable
    bound: float
    mark: typing.Callable
    at_most: bool = True
    absolute: typing.Optional["Goal"] = None

    def met(self, value):
        return value <= self.bound if self.at_most else value >= self.bound

    def judge(self, of):
        value = self.value(of)
        judged = {"text": self.text, "value": value, "bound": self.bound, "at_most": self.at_most, "met": self.met(value),
                  "contender": self.contender, "figure": self.figure, "mark": self.mark(of)}
        if self.absolute is not None:
            judged["absolute"] = self.absolute.judge(of)
        return judged


def figure_goal(text, ours, figure, bound, scale=1, **options):
    return Goal(text, ours, figure, lambda of: of(ours, figure) * scale, bound, lambda of: bound / scale, **options)


def ratio_goal(text, ours, limit, figure, bound, **options):
    return Goal(text, ours, figure, lambda of: of(ours, figure) / of(limit, figure), bound, lambda of: bound * of(limit, figure), **options)


@dataclasses.dataclass(frozen=True)
class Line:
    key: str
    title: str
    figures: tuple
    contenders: tuple
    goals: tuple = ()
    rounds: int = 0  # 0: as many as the run has
    notes: tuple = ()
    rounds_factor: int = 1  # times that: for runs so short that the machine's mood of a moment would tell in a few of them

    def plotted(self):
        """The figures that have a goal, or else the first."""
        return [figure for figure in self.figures if figure.key in {goal.figure for goal in self.goals}] or list(self.figures[:1])


# --- parsing

def parse_contender(name, role, program, stanza, **options):
    def run(bench, short):
        low, high = (20, 70) if stanza == "payload" or short else (100, 600)
        return {"instructions": bench.count_instructions(program, "count", low, high, stanza=stanza, **options)}
    return Contender(name, role, run)


def parse_line(stanza, mode):
    contenders = [parse_contender("expat, empty handlers", LIMIT, "parse_ours", stanza, mode="expat")]
    contenders += [parse_contender(peer, PEER, "parse_peers", stanza, peer=peer, mode=mode) for peer in ("libxml2", "gloox", "libstrophe", "pugixml")]
    contenders.append(parse_contender("libqlk", OURS, "parse_ours", stanza, mode=mode))
    bound = 1.15 if mode == "parse" else 1.35
    goal = ratio_goal("ratio to expat", "libqlk", "expat, empty handlers", "instructions", bound)
    title = f"{STANZAS[stanza]}: bytes to a tree" + (" and back to bytes" if mode == "write" else "")
    return Line(f"{mode}-{stanza}", title, (Figure("instructions", "instructions a stanza"),), tuple(contenders), (goal,), 1,
                ("Instruction counts repeat to a tenth of a per cent, so one round tells all. pugixml and libstrophe parse a document a stanza, the others "
                 "one stream; pugixml knows no namespaces and checks little, so that what it does is another work.",))


# --- queries over the echo server

def query(program, requests, instructed=0, **options):
    """A run of a query program against the echo server; with so many instructed requests also under callgrind, in the first round: what
    it counts would be the same in every other, and takes longer than all else."""
    instructions = []
    server = {"tls": options.pop("tls")} if "tls" in options else {}

    def run(bench, short):
        figures = bench.run(program, requests=requests // 10 if short else requests, **options, **bench.echo_options(**server))
        if instructed and not instructions:
            low, high = instructed, 3 * instructed
            instructions.append(bench.count_instructions(program, "requests", low, high, **options, **bench.echo_options(**server)))
            figures["instructions"] = instructions[0]
        return figures
    return run


ROUND_TRIP = (Figure("p50_us", "p50, us"), Figure("p99_us", "p99, us"), Figure("cpu_us", "CPU of the client, us"))
INSTRUCTIONS = Figure("instructions", "instructions, k", 1e-3)
RATE = (Figure("per_second", "requests, k/s", 1e-3), Figure("cpu_us", "CPU of the client, us"))


PENDING = "libqlk, asynchronous queries"


def one_at_a_time():
    raw, sync, on_loop = "raw socket", "libqlk, synchronous call", "Warbler, completion on its thread"
    return Line("query", "query, one at a time, TLS", ROUND_TRIP + (INSTRUCTIONS,), (
        Contender(raw, LIMIT, query("query_raw", 8000, 500)),
        Contender("libstrophe", PEER, query("query_strophe", 8000, 200)),
        Contender("gloox", PEER, query("query_gloox", 8000, 200)),
        Contender(on_loop, OURS, query("query_async", 8000, 500)),
        Contender(PENDING, OURS, query("query_pending", 8000, 500)),
        Contender(sync, OURS, query("query_sync", 8000)),
    ), (
        ratio_goal("completion on the library's thread, ratio of p50 to the raw socket", on_loop, raw, "p50_us", 1.15),
        ratio_goal("synchronous call, ratio of p50 to the raw socket", sync, raw, "p50_us", 1.6),
    ), rounds_factor=3, notes=("gloox speaks TLS 1.2, everybody else TLS 1.3.",))


def one_at_a_time_plain():
    return Line("query-plain", "query, one at a time, plain TCP", ROUND_TRIP, (
        Contender("raw socket", LIMIT, query("query_raw", 20000, tls="no")),
        Contender("libstrophe", PEER, query("query_strophe", 20000, tls="no")),
        Contender("gloox", PEER, query("query_gloox", 20000, tls="no")),
    ), notes=("Ours always uses TLS; the line tells what TLS costs the others.",))


def in_flight():
    raw, ours = "raw socket", "Warbler, completion on its thread"
    return Line("in-flight", "queries with 64 in flight, TLS", RATE + (INSTRUCTIONS,), (
        Contender(raw, LIMIT, query("query_raw", 150000, 2000, in_flight=64)),
        Contender("libstrophe", PEER, query("query_strophe", 15000, 200, in_flight=64)),
        Contender("gloox", PEER, query("query_gloox", 15000, 200, in_flight=64)),
        Contender(ours, OURS, query("query_async", 150000, 2000, in_flight=64)),
        Contender(PENDING, OURS, query("query_pending", 150000, 2000, in_flight=64)),
    ), (
        ratio_goal("requests a second, ratio to the raw socket", ours, raw, "per_second", 0.43, at_most=False,
                   absolute=figure_goal("requests, k/s", ours, "per_second", 250, 1e-3, at_most=False)),
        ratio_goal("CPU a request, ratio to the raw socket", ours, raw, "cpu_us", 4, absolute=figure_goal("CPU a request, us", ours, "cpu_us", 4)),
    ), rounds_factor=3)


def threads():
    raw, ours = "raw socket, one at a time", "libqlk, synchronous calls"
    return Line("threads", "queries from 16 threads through one connection, TLS", RATE + ROUND_TRIP[:2], (
        Contender(raw, LIMIT, query("query_raw", 20000)),
        Contender(ours, OURS, query("query_sync", 160000, threads=16)),
    ), (Goal("requests within one round trip of the raw socket", ours, "per_second", lambda of: of(ours, "per_second") * of(raw, "p50_us") / 1e6, 3.9,
             lambda of: 3.9e6 / of(raw, "p50_us"), at_most=False, absolute=figure_goal("requests, k/s", ours, "per_second", 60, 1e-3, at_most=False)),),
        notes=("No peer may be used by several threads.",))


# --- connecting

def connect(who, password=False):
    def run(bench, short):
        options = bench.password_options if password else bench.grid_options
        figures = bench.run("connect", who=who, count=5 if short else 20, **options())
        with programs.Relay(int(options()["port"])) as relay:
            # The program ends without a word as soon as the session is there, and prints nothing.
            subprocess.run(bench.command("connect", {"who": who, "count": 0, **options(relay.port)}), check=True, timeout=60)
        figures["round_trips"] = relay.round_trips
        return figures
    return run


def connecting():
    raw = "raw socket"
    return Line("connect", "connect to a bound session on Prosody", (
        Figure("p50_ms", "p50, ms"), Figure("highest_ms", "highest of a round, ms"), Figure("round_trips", "round trips after TCP"),
    ), (
        Contender(raw, LIMIT, connect("raw")),
        Contender("gloox, password", PEER, connect("gloox", password=True)),
        Contender("libstrophe, password", PEER, connect("libstrophe", password=True)),
        Contender("libstrophe", PEER, connect("libstrophe")),
        Contender("Warbler", OURS, connect("warbler")),
        Contender("libqlk, until the controller has approved", OURS, connect("libqlk")),
    ), (
        ratio_goal("ratio of p50 to the raw socket", "Warbler", raw, "p50_ms", 1.56, absolute=figure_goal("p50, ms", "Warbler", "p50_ms", 5)),
        figure_goal("round trips", "Warbler", "round_trips", 4),
    ), notes=("Who comes without a password comes with a client certificate, which the server has to verify.",))


# --- bulk

BULK_JID = f"{programs.USER}@{programs.DOMAIN}"


def curl_to(reader):
    """curl writing into a pipe, from which the reader parses on a core of its own."""
    def run(bench, records):
        options = bench.bulk_options()
        body = f'<bulkRequest xmlns="http://quillon.internal/quillon" records="{records}" recordSize="{RECORD_BYTES}"/>'
        command = ["curl", "--fail", "--silent", "--show-error", "--cacert", options["ca"], "--cert", options["certificate"], "--key", options["key"],
                   "--header", f"user:{BULK_JID}", "--header", "Content-Type: application/xml", "--data", body, options["url"]]
        with subprocess.Popen(command, stdout=subprocess.PIPE) as curl:
            figures = bench.run("bulk_reader", who=reader, items=records, stdin=curl.stdout)
        if curl.returncode != 0:
            raise programs.Failed(f"curl ended with {curl.returncode}")
        return figures
    return run


def curl_alone(who):
    return lambda bench, records: bench.run("bulk_curl", who=who, user=BULK_JID, items=records, **bench.bulk_options())


def item_by_item(bench, records):
    return bench.run("bulk_items", user=programs.USER, items=records, **bench.bulk_options())


class Document:
    """What everybody downloads: who sees its bytes must have seen as many as the others. The library sees items, and has counted those."""

    def __init__(self):
        self.bytes = None

    def contender(self, name, role, download):
        def run(bench, short):
            figures = download(bench, (64 if short else 1024) * 2**20 // RECORD_BYTES)
            seen = figures.pop("bytes", self.bytes)
            self.bytes = self.bytes or seen
            if seen != self.bytes:
                raise programs.Failed(f"{name} has seen {seen} bytes, and the others {self.bytes}")
            return {**figures, "mb_per_second": self.bytes / figures["seconds"] / 1e6}
        return Contender(name, role, run)


def bulk():
    document = Document()
    one_thread, ours = "curl feeding expat, one thread", "libqlk, item by item"
    return Line("bulk", "bulk, 1 GiB, records of 600 bytes, HTTPS", (Figure("mb_per_second", "MB/s"), Figure("peak_kib", "memory at its peak, MiB", 1 / 1024)), (
        document.contender("curl to nowhere", LIMIT, curl_alone("nowhere")),
        document.contender(one_thread, LIMIT, curl_alone("expat")),
        document.contender("expat on a core of its own, curl through a pipe", LIMIT, curl_to("expat")),
        document.contender("libxml2's reader, curl through a pipe", PEER, curl_to("libxml2")),
        document.contender(ours, OURS, item_by_item),
    ), (
        ratio_goal("MB/s, ratio to curl feeding expat in one thread", ours, one_thread, "mb_per_second", 1.1, at_most=False,
                   absolute=figure_goal("MB/s", ours, "mb_per_second", 300, at_most=False)),
        figure_goal("memory, MiB", ours, "peak_kib", 32, 1 / 1024),
    ), notes=("The short form downloads 64 MiB.",))


# --- notifications

def notifications():
    ours = "libqlk"

    def run(bench, short):
        return bench.run("notifications", notifications=20000 if short else 200000, **bench.echo_options())
    return Line("notifications", "notifications dispatched to a handler", (
        Figure("per_second", "notifications, k/s", 1e-3), Figure("cpu_us", "CPU, us"), Figure("grown_kib", "growth after the first fifth, KiB"),
        Figure("peak_kib", "memory at its peak, KiB"),
    ), (Contender(ours, OURS, run),), (
        figure_goal("notifications, k/s", ours, "per_second", 150, 1e-3, at_most=False),
        figure_goal("growth after the first fifth, KiB", ours, "grown_kib", 1024),
    ))


def all_lines():
    lines = [parse_line(stanza, mode) for mode in ("parse", "write") for stanza in STANZAS]
    return lines + [one_at_a_time(), one_at_a_time_plain(), in_flight(), threads(), connecting(), bulk(), notifications()]
