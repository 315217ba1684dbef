"""From figures to tables: markdown for people, JSON for programs."""
import json
import os
import platform
import statistics
import subprocess

from . import programs


def summarize(values):
    return {"median": statistics.median(values), "lowest": min(values), "highest": max(values), "values": values}


def machine():
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        model = next((line.partition(":")[2].strip() for line in file if line.startswith("model name")), "unknown")
    commit = subprocess.run(["git", "-C", programs.ROOT, "describe", "--always", "--dirty"], capture_output=True, text=True, check=False).stdout.strip()
    return {"processor": model, "cores": os.cpu_count(), "kernel": platform.release(), "commit": commit, "load": os.getloadavg()[0]}


def number(value):
    if value is None:
        return "-"
    if value != 0 and abs(value) < 10:
        return f"{round(value, 2) + 0:.2f}"  # and not -0.00
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


def verdict(goal):
    return "met" if goal["met"] else "MISSED"


def against_bound(goal):
    return f"{number(goal['value'])}, {'at most' if goal['at_most'] else 'at least'} {goal['bound']:g}"


def goal_markdown(goal):
    text = f"- {goal['text']}: {against_bound(goal)}: {verdict(goal)}"
    absolute = goal.get("absolute")
    return text if absolute is None else f"{text}; in absolute figures, which do not decide, {goal_markdown(absolute)[2:]}"


def remarks(item, result):
    return [goal_markdown(goal) for goal in result["goals"]] + [f"- {note}" for note in item.notes] + [""]


def line_markdown(line, result):
    text = [f"## {line.title}", ""]
    rows = []
    for contender in line.contenders:
        figures = result["contenders"][contender.name]
        rows.append([contender.name, contender.role, *(cell(figures.get(figure.key), figure.scale) for figure in line.figures)])
    text += table(["", "", *(figure.title for figure in line.figures)], rows) + [""]
    text += remarks(line, result)
    for figure in line.plotted():
        text += [f"![{line.title}: {figure.title}]({line.key}-{figure.key}.svg)", ""]
    return text


def growth_markdown(growth, result):
    text = [f"## Growth: {growth.title}", ""]
    sizes = result["sizes"]
    for panel in growth.panels:
        rows = []
        for name, points in result["series"].items():
            by_size = dict(zip(points["sizes"], points["figures"]))
            cells = [cell(by_size[size].get(panel.key), panel.scale) if size in by_size else "-" for size in sizes]
            rows.append([name, *cells, number(points["slopes"].get(panel.key))])
        judged = ", not judged: a wall time" if panel.is_wall_time else ""
        text += table([panel.title, *(f"{size:,}" for size in sizes), f"exponent (natural: {panel.natural:g}{judged})"], rows)
        text += ["", f"![{growth.title}: {panel.title}]({growth.key}-{panel.key}.svg)", ""]
    return text + remarks(growth, result)


def summary_table(items, results):
    """One row a goal: what decides, what the absolute figure is where it does not decide, and whether it is met."""
    rows = []
    for item in items:
        measured = results["lines"].get(item.key) or results["growths"].get(item.key)
        for goal in measured["goals"] if measured else ():
            absolute = goal.get("absolute")
            rows.append([item.key, goal["text"], against_bound(goal), f"{against_bound(absolute)}: {verdict(absolute)}" if absolute else "-", verdict(goal)])
        if item.key in results["failed"]:
            rows.append([item.key, results["failed"][item.key].replace("\n", " ").replace("|", "/"), "-", "-", "FAILED"])
    return table(["line", "goal", "what decides", "in absolute figures", ""], rows) + [""]


def missed(results):
    measured = {**results["lines"], **results["growths"]}
    return [f"{key}: {goal['text']}" for key, result in measured.items() for goal in result["goals"] if not goal["met"]]


def markdown(lines, growths, results):
    about = results["machine"]
    text = ["# Measured", "", f"{about['processor']}, {about['cores']} cores, Linux {about['kernel']}, commit {about['commit']}, load {about['load']:.1f} at the "
            f"beginning; {results['rounds']} interleaved rounds{', short form' if results['short'] else ''}. Each figure is the median, with the lowest and the "
            "highest of the rounds in brackets.", ""]
    text += summary_table((*lines, *growths), results)
    for kind, items, write_item in (("lines", lines, line_markdown), ("growths", growths, growth_markdown)):
        for item in items:
            if item.key in results[kind]:
                text += write_item(item, results[kind][item.key])
    return "\n".join(text)


def write(folder, lines, growths, results):
    with open(os.path.join(folder, "results.md"), "w", encoding="utf-8") as file:
        file.write(markdown(lines, growths, results))
    with open(os.path.join(folder, "results.json"), "w", encoding="utf-8") as file:
        json.dump(results, file, indent=1)
