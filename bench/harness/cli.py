"""The command bench/run."""
import argparse
import os
import sys
import tempfile

from . import growth as growth_module
from . import lines as lines_module
from . import plots, programs, report


def make_parser(keys):
    parser = argparse.ArgumentParser(prog="bench/run", description="Measures the library beside its peers and beside the limit, and writes results.md, "
                                     "results.json and plots.", epilog="lines: " + " ".join(keys) + "; exit codes: 0 every line is met, 1 one is missed or failed, 2 wrong usage")
    parser.add_argument("lines", nargs="*", metavar="LINE", help="which lines (default: all)")
    parser.add_argument("--short", action="store_true", help="less of everything and fewer sizes: to see that it works, not to judge by")
    parser.add_argument("--rounds", type=int, help="how many interleaved rounds (default: 5, in the short form 1)")
    parser.add_argument("--results", metavar="FOLDER", default=os.path.join(programs.BENCH, "results"), help="where the results go (default: bench/results)")
    parser.add_argument("--build", metavar="FOLDER", default=os.path.join(programs.ROOT, "build", "bench"), help="where to build (default: build/bench)")
    parser.add_argument("--no-build", action="store_true", help="take the programs as they are there, and install no packages")
    return parser


def tell(text):
    print(text, file=sys.stderr, flush=True)


def rotated(items, number):
    """The items in another order each round, so that nobody always comes behind the same other."""
    first = number % len(items)
    return items[first:] + items[:first]


def measure_line(bench, line, rounds, short):
    """Each round runs every contender once, so that a change of the machine's mood meets all of them."""
    values = {contender.name: {} for contender in line.contenders}
    for number in range((line.rounds or rounds) * line.rounds_factor):
        for contender in rotated(line.contenders, number):
            tell(f"{line.key}, round {number + 1}: {contender.name}")
            for key, value in contender.run(bench, short).items():
                values[contender.name].setdefault(key, []).append(value)
    contenders = {name: {key: report.summarize(numbers) for key, numbers in figures.items()} for name, figures in values.items()}
    goals = [goal.judge(lambda name, key: contenders[name][key]["median"]) for goal in line.goals]
    return {"title": line.title, "contenders": contenders, "goals": goals}


def measure_growth(bench, growth, rounds, short):
    sizes = growth.short_sizes if short else growth.sizes
    values = {}
    sizes_of = {series.name: (series.short_sizes if short else series.sizes) or sizes for series in growth.series}
    for number in range(rounds):
        for size in sizes:
            for series in rotated(growth.series, number):
                if size not in sizes_of[series.name]:
                    continue
                tell(f"{growth.key}, round {number + 1}: {series.name}, {size:,}")
                for key, value in series.run(bench, size, short).items():
                    values.setdefault((series.name, size), {}).setdefault(key, []).append(value)
    result = {"title": growth.title, "sizes": list(sizes), "series": {}, "goals": []}
    for series in growth.series:
        mine = list(sizes_of[series.name])
        figures = [{key: report.summarize(numbers) for key, numbers in values[series.name, size].items()} for size in mine]
        slopes = {}
        for panel in growth.panels:
            if series.ours and panel.key not in figures[-1]:
                raise programs.Failed(f"{series.name} does not tell {panel.key}")
            points = [(size, at[panel.key]["median"]) for size, at in zip(mine, figures) if panel.key in at]
            if not points:
                continue
            slopes[panel.key] = None if panel.left_behind is not None else panel.slope(*zip(*points))
            if series.ours and not panel.is_wall_time:
                result["goals"].append(panel.judge(series.name, [value for _, value in points], slopes[panel.key]))
        result["series"][series.name] = {"sizes": mine, "figures": figures, "slopes": slopes}
    return result


def measure(bench, chosen, rounds, short, results, folder):
    """Measures one after the other, and writes after each what there is; what one of them throws is its own failure."""
    for kind, items, function, draw in (("lines", chosen[0], measure_line, plots.draw_line), ("growths", chosen[1], measure_growth, plots.draw_growth)):
        for item in items:
            try:
                results[kind][item.key] = function(bench, item, rounds, short)
                draw(folder, item, results[kind][item.key])
            except Exception as error:  # pylint: disable=broad-except
                tell(f"{item.key} FAILED: {error!r}")
                results["failed"][item.key] = f"{type(error).__name__}: {error}"
            report.write(folder, *chosen, results)


def main():
    lines, growths = lines_module.all_lines(), growth_module.all_growths()
    keys = [item.key for item in (*lines, *growths)]
    parser = make_parser(keys)
    options = parser.parse_args()
    unknown = set(options.lines) - set(keys)
    if unknown:
        parser.error(f"no line is called {', '.join(sorted(unknown))}")
    wanted = options.lines or keys
    chosen = [[item for item in items if item.key in wanted] for items in (lines, growths)]
    rounds = options.rounds or (1 if options.short else 5)
    if not options.no_build:
        programs.install_packages()
        programs.build(options.build)
    os.makedirs(options.results, exist_ok=True)
    results = {"machine": report.machine(), "rounds": rounds, "short": options.short, "lines": {}, "growths": {}, "failed": {}}
    with tempfile.TemporaryDirectory(prefix="qlk-bench-") as work:
        bench = programs.Bench(os.path.join(options.build, "bench"), work)
        try:
            measure(bench, chosen, rounds, options.short, results, options.results)
        finally:
            bench.close()
    print(report.markdown(*chosen, results))
    missed = report.missed(results)
    for text in missed:
        tell(f"missed: {text}")
    return 1 if results["failed"] or missed else 0
