"""What grows: the same work for more and more of something, each a plot with its slope."""
import dataclasses
import math
import typing

from . import programs

EXPONENT_SLACK = 0.25  # above the natural exponent: more than a loaded machine adds, far less than the next order
LEFT_BEHIND_KIB = 512  # what the allocators of a few threads keep


@dataclasses.dataclass(frozen=True)
class Series:
    """A contender's figure over the sizes; run is given the bench, the size and whether it is the short form. Only ours are judged."""
    name: str
    run: typing.Callable
    ours: bool = True
    sizes: tuple = ()  # when it is not measured at all sizes of the growth
    short_sizes: tuple = ()


@dataclasses.dataclass(frozen=True)
class Panel:
    """One plot: a figure of every series that has it, over the sizes. natural is the exponent that the work itself has; resolution, in the
    figure's own unit, what is too little to tell growth from scatter. A wall time is shown and not judged: on a loaded machine it says little.

    Where left_behind is given it is what may be left at the largest size, and the exponent does not matter."""
    key: str
    title: str
    natural: float
    resolution: float
    scale: float = 1
    is_wall_time: bool = False
    left_behind: typing.Optional[float] = None

    def slope(self, sizes, values):
        """The exponent by which the values grow over the upper half of the sizes. Of work that grows by nature it is taken of what came on top
        of the smallest size, so that a fixed share does not hide it; None where there are too few sizes to take it of."""
        has_base = self.natural > 0
        base = values[0] if has_base else 0
        points = list(zip(sizes, values))[has_base:]
        if len(points) < 2:
            return None
        upper = points[-max(2, math.ceil(len(sizes) / 2)):]
        across = [math.log(size) for size, _ in upper]
        up = [math.log(max(value - base, self.resolution)) for _, value in upper]
        middle = sum(across) / len(across)
        return sum((x - middle) * y for x, y in zip(across, up)) / sum((x - middle) ** 2 for x in across)

    def judge(self, name, values, exponent):
        """Whether the series of that name stays within its bound; a goal as those of the lines are."""
        if self.left_behind is not None:
            text, value, bound = f"{name}: {self.title}, at the largest size", values[-1] * self.scale, self.left_behind * self.scale
        else:
            text, value, bound = f"{name}: exponent of {self.title}", exponent, self.natural + EXPONENT_SLACK
        return {"text": text, "value": value, "bound": bound, "at_most": True, "met": value is not None and value <= bound}


@dataclasses.dataclass(frozen=True)
class Growth:
    key: str
    title: str
    axis: str
    sizes: tuple
    short_sizes: tuple
    series: tuple
    panels: tuple
    notes: tuple = ()


def publishers():
    def run(bench, count, _):
        return bench.run("growth", what="publishers", count=count, **bench.echo_options(publishers=count))
    return Growth("publishers", "publishers of a capability", "publishers", (1, 10, 100, 1000, 10000), (1, 100, 10000), (Series("libqlk", run),), (
        Panel("cpu_ms", "CPU of subscribing, ms", 1, 0.1),
        Panel("grown_kib", "memory for them, KiB", 1, 64),
        Panel("query_cpu_us", "CPU of a query afterwards, us", 0, 1),
    ))


def flight_size(program, requests):
    def run(bench, count, short):
        # Fewer in flight take longer each, and a second of them tells enough.
        total = max(min(requests // (10 if short else 1), 10000 * count), 3 * count)
        return bench.run(program, requests=total, in_flight=count, **bench.echo_options())
    return run


def requests_in_flight():
    sizes = (1, 10, 100, 1000, 10000)
    return Growth("flight", "requests in flight", "requests in flight", sizes, (1, 100, 10000), (
        Series("raw socket", flight_size("query_raw", 200000), False),
        Series("libstrophe", flight_size("query_strophe", 30000), False, sizes[:-1], (1, 100)),
        Series("gloox", flight_size("query_gloox", 30000), False),
        Series("Warbler", flight_size("query_async", 200000)),
        Series("libqlk, asynchronous queries", flight_size("query_pending", 200000)),
    ), (Panel("cpu_us", "CPU of a request, us", 0, 0.1),), ("libstrophe walks a list of handlers for every answer, and is left out at 10,000.",))


PAYLOADS = (100, 1000, 10000, 100000, 1000000, 4190000)


def payload_size(program, **server):
    def run(bench, size, short):
        requests = max(5, min(4000, (2000000 if short else 20000000) // size))
        return bench.run(program, payload=size, requests=requests, **bench.echo_options(**server))
    return run


def payloads():
    return Growth("payload", "size of a payload, there and back", "bytes", PAYLOADS, (100, 10000, 1000000), (
        Series("raw socket", payload_size("query_raw"), False),
        Series("libstrophe, plain TCP", payload_size("query_strophe", tls="no"), False, PAYLOADS[:4], PAYLOADS[:3:2]),
        Series("Warbler", payload_size("query_async")),
        Series("libqlk, synchronous", payload_size("query_sync")),
    ), (Panel("p50_us", "round trip, p50, us", 1, 10, is_wall_time=True), Panel("cpu_us", "CPU of a request, us", 1, 10)),
        ("libstrophe waits a second for every record of TLS that is larger than its buffer, so that it is measured over plain TCP, and not above 100 KB.",
         "gloox is left out: its program builds the content of a request element by element and takes no payload of another size.",
         "The largest size is not 4 MiB, 4,194,304 bytes, but what leaves room for the IQ around it: that is the limit of a stanza."))


def bulk_items():
    def run(bench, count, _):
        return bench.run("bulk_items", user=programs.USER, items=count, **bench.bulk_options())
    return Growth("bulk-items", "items of a bulk download", "items of 600 bytes", (1, 10, 100, 1000, 10000, 100000, 1000000), (1, 100, 10000),
                  (Series("libqlk", run),), (
                      Panel("cpu_ms", "CPU, ms", 1, 0.5),
                      Panel("seconds", "time, ms", 1, 5e-3, 1e3, is_wall_time=True),
                      Panel("peak_kib", "memory at its peak, KiB", 0, 64),
                  ), ("Below some 10,000 items the transfer's beginning, TLS above all, is what costs.",))


def connections():
    def run(bench, count, _):
        return bench.run("growth", what="connections", count=count, **bench.echo_options())
    return Growth("connections", "connections in one process", "connections", (1, 5, 20, 100, 500), (1, 20, 100), (Series("libqlk", run),), (
        Panel("memory_kib", "memory of all, KiB", 1, 64),
        Panel("memory_each_kib", "memory of each after the first, KiB", 0, 1),
        Panel("threads", "threads of all", 1, 1),
        Panel("cpu_ms", "CPU of connecting them one after the other, ms", 1, 1),
        Panel("seconds", "connecting them one after the other, ms", 1, 5e-3, 1e3, is_wall_time=True),
    ))


def coming_back(what, title, axis, sizes):
    def run(bench, count, _):
        return bench.run("growth", what=what, count=count, **bench.echo_options())
    return Growth(what, title, axis, sizes, (1, 10, 100), (Series("libqlk", run),), (
        Panel("cpu_ms", "CPU, ms", 1, 1),
        Panel("memory_kib", "memory left behind, KiB", 0, 1, left_behind=LEFT_BEHIND_KIB),
        Panel("threads", "threads left behind", 0, 1, left_behind=0),
        Panel("descriptors", "descriptors left behind", 0, 1, left_behind=0),
    ))


def reconnects():
    return coming_back("reconnects", "reconnects of one connection", "reconnects", (1, 10, 100, 1000))


def losses():
    return coming_back("losses", "lost links, each until a query is answered again", "lost links", (1, 10, 100))


def all_growths():
    return [publishers(), requests_in_flight(), payloads(), bulk_items(), connections(), reconnects(), losses()]
