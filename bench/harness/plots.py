"""Plots, by gnuplot: bars for the lines, curves, mostly with both axes logarithmic, for what grows."""
import os
import subprocess

GOAL = "#117733"
COLOURS = {"limit": "#808080", "peer": "#4878cf", "ours": "#d1382c"}
CURVES = {"raw socket": "#808080", "libstrophe": "#4878cf", "gloox": "#6acc65", "Warbler": "#d1382c", "libqlk": "#956cb4"}  # by how a name begins


def quote(text):
    return '"' + text.replace("\\", "\\\\").replace('"', '\\"') + '"'


def curve_colour(name):
    return next(colour for begin, colour in CURVES.items() if name.startswith(begin))


def draw(path, commands, size="720,460"):
    """Draws an SVG, or what else the file's name ends with."""
    terminal = os.path.splitext(path)[1][1:]
    head = f"set terminal {terminal} size {size} font 'sans-serif,12' background '#ffffff'\nset output {quote(path)}\n"
    subprocess.run(["gnuplot"], input=head + "\n".join(commands) + "\n", text=True, check=True)


def summary_row(summary, scale):
    return " ".join(str(summary[key] * scale) for key in ("median", "lowest", "highest"))


def draw_figure(folder, line, figure, result):
    """A bar for each contender that has the figure, and on the bar of whom a goal is for, the value at which it stands."""
    shown = [contender for contender in line.contenders if figure.key in result["contenders"][contender.name]]
    summaries = [result["contenders"][contender.name][figure.key] for contender in shown]
    places = {contender.name: place for place, contender in enumerate(shown)}
    goals = [goal for goal in result["goals"] if goal["figure"] == figure.key]
    bars = [f"{place} {summary_row(summary, figure.scale)} {int(COLOURS[contender.role][1:], 16)}"
            for place, (contender, summary) in enumerate(zip(shown, summaries))]
    names = ", ".join(f"{quote(name)} {place}" for name, place in places.items())
    plots = ["$bars using ($2/2):1:($2/2):(0.35):5 with boxxyerror linecolor rgb variable notitle",
             "$bars using 2:1:3:4 with xerrorbars linecolor rgb '#000000' pointtype 0 notitle"]
    if goals:
        text = quote(f"goal: {'at most' if goals[0]['at_most'] else 'at least'}")
        plots.append(f"$goals using 1:($2-0.45):(0):(0.9) with vectors nohead linecolor rgb '{GOAL}' linewidth 3 title {text}")
    plots += [f"keyentry with boxes linecolor rgb '{colour}' title {quote(role)}" for role, colour in COLOURS.items()
              if any(contender.role == role for contender in shown)]
    largest = max(*(summary["highest"] for summary in summaries), *(goal["mark"] for goal in goals), 0) * figure.scale
    draw(os.path.join(folder, f"{line.key}-{figure.key}.svg"), [
        "$bars << END", *bars, "END", "$goals << END", *(f"{goal['mark'] * figure.scale} {places[goal['contender']]}" for goal in goals), "END",
        f"set title {quote(line.title)} noenhanced", f"set xlabel {quote(figure.title)} noenhanced", f"set xrange [0:{1.05 * largest or 1}]",
        f"set yrange [{len(shown) - 0.4}:-0.6]", f"set ytics ({names}) noenhanced", "set grid xtics", "set key outside right top Left reverse samplen 2", "set style fill solid 0.8",
        "plot " + ", ".join(plots)], "1000,460")


def draw_line(folder, line, result):
    for figure in line.plotted():
        draw_figure(folder, line, figure, result)


def draw_panel(folder, growth, panel, result):
    data, plots, guide = [], [], None
    highest, lowest = [], []
    for place, series in enumerate(growth.series):
        points = result["series"][series.name]
        rows = [(size, figures[panel.key]) for size, figures in zip(points["sizes"], points["figures"]) if panel.key in figures]
        if not rows:
            continue
        data += [f"$data{place} << END", *(f"{size} {summary_row(summary, panel.scale)}" for size, summary in rows), "END"]
        exponent = points["slopes"][panel.key]
        title = quote(series.name if exponent is None else f"{series.name}: exponent {round(exponent, 2) + 0:.2f}")
        plots.append(f"$data{place} using 1:2:3:4 with yerrorlines title {title} linecolor rgb '{curve_colour(series.name)}' pointtype 7 pointsize 0.5")
        highest += [summary["highest"] * panel.scale for _, summary in rows]
        lowest += [summary["lowest"] * panel.scale for _, summary in rows]
        if series.ours and guide is None:
            guide = rows[-1][0], rows[-1][1]["median"] * panel.scale
    # A figure that may be zero, such as what is left behind, has no place on a logarithmic axis.
    may_be_zero = min(lowest) <= 0 or panel.left_behind is not None
    dashes = "with lines dashtype 2 linecolor rgb '#404040'"
    if panel.left_behind is not None:
        highest.append(panel.left_behind * panel.scale)
        plots.append(f"{highest[-1]} {dashes} title 'goal: at most'")
    elif guide is not None and not may_be_zero:
        # Above the curve, so that both are seen, and only where the exponent is taken.
        size, value = guide
        begin = result["sizes"][len(result["sizes"]) // 2]
        plots.append(f"[{begin}:{size}] {1.5 * value}*(x/{size}.0)**{panel.natural} {dashes} title 'natural: exponent {panel.natural:g}'")
    top = 1.1 * max(highest) or 1
    from_zero = f"set yrange [{-0.05 * top}:{top}]"  # with room below, so that a line at zero is seen
    draw(os.path.join(folder, f"{growth.key}-{panel.key}.svg"), [
        *data, f"set title {quote(growth.title)} noenhanced", f"set xlabel {quote(growth.axis)} noenhanced", f"set ylabel {quote(panel.title)} noenhanced",
        "set logscale x", from_zero if may_be_zero else "set logscale y", "set grid", "set key below noenhanced",
        "plot " + ", ".join(plots)])


def draw_growth(folder, growth, result):
    for panel in growth.panels:
        draw_panel(folder, growth, panel, result)
