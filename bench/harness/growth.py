"""What grows: the same work for more and more of something, each a plot with its slope."""
import dataclasses
import typing

from . import programs


@dataclasses.dataclass(frozen=True)
class Series:
    """A contender's figure over the sizes; run is given the bench, the size and whether it is the short form."""
    name: str
    run: typing.Callable
    sizes: tuple = ()  # when it is not measured at all sizes of the growth
    short_sizes: tuple = ()


@dataclasses.dataclass(frozen=True)
class Panel:
    """One plot: a figure of every series that has it, over the sizes. natural is the exponent that the work itself has."""
    key: str
    title: str
    natural: float
    scale: float = 1


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
        Panel("cpu_ms", "CPU of subscribing, ms", 1),
        Panel("grown_kib", "memory for them, KiB", 1),
        Panel("query_cpu_us", "CPU of a query afterwards, us", 0),
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
        Series("raw socket", flight_size("query_raw", 200000)),
        Series("libstrophe", flight_size("query_strophe", 30000), sizes[:-1], (1, 100)),
        Series("gloox", flight_size("query_gloox", 30000)),
        Series("Warbler", flight_size("query_async", 200000)),
    ), (Panel("cpu_us", "CPU of a request, us", 0),), ("libstrophe walks a list of handlers for every answer, and is left out at 10,000.",))


PAYLOADS = (100, 1000, 10000, 100000, 1000000, 4190000)


def payload_size(program, **server):
    def run(bench, size, short):
        requests = max(5, min(4000, (2000000 if short else 20000000) // size))
        return bench.run(program, payload=size, requests=requests, **bench.echo_options(**server))
    return run


def payloads():
    return Growth("payload", "size of a payload, there and back", "bytes", PAYLOADS, (100, 10000, 1000000), (
        Series("raw socket", payload_size("query_raw")),
        Series("libstrophe, plain TCP", payload_size("query_strophe", tls="no"), PAYLOADS[:4], PAYLOADS[:3:2]),
        Series("Warbler", payload_size("query_async")),
        Series("libqlk, synchronous", payload_size("query_sync")),
    ), (Panel("p50_us", "round trip, p50, us", 1), Panel("cpu_us", "CPU of a request, us", 1)),
        ("libstrophe waits a second for every record of TLS that is larger than its buffer, so that it is measured over plain TCP, and not above 100 KB.",))


def bulk_items():
    def run(bench, count, _):
        grid = bench.grid()
        return bench.run("bulk_items", url=grid["bulk_url"], ca=grid["ca"], certificate=grid["certificate"], key=grid["key"], user=programs.USER,
                         items=count)
    return Growth("bulk-items", "items of a bulk download", "items of 600 bytes", (1, 10, 100, 1000, 10000, 100000, 1000000), (1, 100, 10000),
                  (Series("libqlk", run),), (
                      Panel("cpu_ms", "CPU, ms", 1),
                      Panel("seconds", "time, ms", 1, 1e3),
                      Panel("peak_kib", "memory at its peak, KiB", 0),
                  ), ("Below some 10,000 items the transfer's beginning, TLS above all, is what costs.",))


def connections():
    def run(bench, count, _):
        return bench.run("growth", what="connections", count=count, **bench.echo_options())
    return Growth("connections", "connections in one process", "connections", (1, 5, 20, 100, 500), (1, 20, 100), (Series("libqlk", run),), (
        Panel("memory_kib", "memory of all, KiB", 1),
        Panel("threads", "threads of all", 1),
        Panel("seconds", "connecting them one after the other, ms", 1, 1e3),
    ))


def reconnects():
    def run(bench, count, _):
        return bench.run("growth", what="reconnects", count=count, **bench.echo_options())
    return Growth("reconnects", "reconnects of one connection", "reconnects", (1, 10, 100, 1000), (1, 10, 100), (Series("libqlk", run),), (
        Panel("cpu_ms", "CPU, ms", 1),
        Panel("memory_kib", "memory left behind, KiB", 0),
        Panel("threads", "threads left behind", 0),
        Panel("descriptors", "descriptors left behind", 0),
    ))


def all_growths():
    return [publishers(), requests_in_flight(), payloads(), bulk_items(), connections(), reconnects()]
