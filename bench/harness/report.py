"""From figures to tables: markdown for people, JSON for programs."""
import json
import math
import os
import platform
import statistics
import subprocess

from . import programs


def summarize(values):
    return {"median": statistics.median(values), "lowest": min(values), "highest": max(values), "values": values}


def slope(sizes, values, natural):
    """The exponent by which the values grow at the large end. Of work that grows by nature it is taken of what came on top of the smallest size, so
    that a fixed share does not hide it; None where there is nothing to take it of."""
    base = values[0] if natural > 0 else 0
    added = [value - base for value in values[-2:]]
    if len(values) < 3 or min(added) <= 0:
        return None
    return math.log(added[1] / added[0]) / math.log(sizes[-1] / sizes[-2])


def machine():
    model = next((line.partition(":")[2].strip() for line in open("/proc/cpuinfo", encoding="utf-8") if line.startswith("model name")), "unknown")
    commit = subprocess.run(["git", "-C", programs.ROOT, "describe", "--always", "--dirty"], capture_output=True, text=True, check=False).stdout.strip()
    return {"processor": model, "cores": os.cpu_count(), "kernel": platform.release(), "commit": commit, "load": os.getloadavg()[0]}


def number(value):
    if value is None:
        return "-"
    if value != 0 and abs(value) < 10:
        return f"{value:.2f}"
    return f"{value:,.1f}" if abs(value) < 100 else f"{value:,.0f}"


def cell(summary, scale=1):
    if summary is None:
        return "-"
    text = number(summary["median"] * scale)
    if summary["lowest"] == summary["highest"]:
        return text
    return f"{text} ({number(summary['lowest'] * scale)} to {number(summary['highest'] * scale)})"


def row(cells):
    return "| " + " | ".join(cells) + " |"


def table(head, rows):
    return [row(head), row(["---"] * len(head)), *map(row, rows)]


def goal_markdown(goal):
    text = f"{goal['text']}: {number(goal['value'])}, to be {'at most' if goal['at_most'] else 'at least'} {goal['bound']:g}: {'met' if goal['met'] else 'MISSED'}"
    absolute = goal.get("absolute")
    return f"- {text}" if absolute is None else f"- {text}; in absolute figures, which do not decide, {goal_markdown(absolute)[2:]}"


def line_markdown(line, result):
    text = [f"## {line.title}", ""]
    rows = []
    for contender in line.contenders:
        figures = result["contenders"][contender.name]
        rows.append([contender.name, contender.role, *(cell(figures.get(figure.key), figure.scale) for figure in line.figures)])
    text += table(["", "", *(figure.title for figure in line.figures)], rows) + [""]
    text += [goal_markdown(goal) for goal in result["goals"]]
    text += [f"- {note}" for note in line.notes]
    return text + [""]


def growth_markdown(growth, result):
    text = [f"## Growth: {growth.title}", ""]
    sizes = result["sizes"]
    for panel in growth.panels:
        rows = []
        for name, points in result["series"].items():
            by_size = dict(zip(points["sizes"], points["figures"]))
            cells = [cell(by_size[size].get(panel.key), panel.scale) if size in by_size else "-" for size in sizes]
            rows.append([name, *cells, number(points["slopes"][panel.key])])
        text += table([panel.title, *(f"{size:,}" for size in sizes), f"exponent (natural: {panel.natural:g})"], rows)
        text += ["", f"![{growth.title}: {panel.title}]({growth.key}-{panel.key}.svg)", ""]
    return text + [f"- {note}" for note in growth.notes] + [""]


def write(folder, lines, growths, results):
    about = results["machine"]
    text = ["# Measured", "", f"{about['processor']}, {about['cores']} cores, Linux {about['kernel']}, commit {about['commit']}, load {about['load']:.1f} at the "
            f"beginning; {results['rounds']} interleaved rounds{', short form' if results['short'] else ''}. Each figure is the median, with the lowest and the "
            "highest of the rounds in brackets.", ""]
    for line in lines:
        if line.key in results["lines"]:
            text += line_markdown(line, results["lines"][line.key])
    for growth in growths:
        if growth.key in results["growths"]:
            text += growth_markdown(growth, results["growths"][growth.key])
    with open(os.path.join(folder, "results.md"), "w", encoding="utf-8") as file:
        file.write("\n".join(text))
    with open(os.path.join(folder, "results.json"), "w", encoding="utf-8") as file:
        json.dump(results, file, indent=1)
    return "\n".join(text)
