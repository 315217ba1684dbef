"""Plots, by gnuplot: bars for the lines, curves with both axes logarithmic for what grows."""
import os
import subprocess

COLOURS = {"limit": "#808080", "peer": "#4878cf", "ours": "#d1382c"}
CURVES = {"raw socket": "#808080", "libstrophe": "#4878cf", "gloox": "#6acc65", "Warbler": "#d1382c", "libqlk": "#956cb4"}  # by how a name begins


def quote(text):
    return '"' + text.replace("\\", "\\\\").replace('"', '\\"') + '"'


def curve_colour(name):
    return next(colour for begin, colour in CURVES.items() if name.startswith(begin))


def draw(path, commands, size="720,420"):
    """Draws an SVG, or what else the file's name ends with."""
    terminal = os.path.splitext(path)[1][1:]
    head = f"set terminal {terminal} size {size} font 'sans-serif,12' background '#ffffff'\nset output {quote(path)}\n"
    subprocess.run(["gnuplot"], input=head + "\n".join(commands) + "\n", text=True, check=True)


def draw_line(folder, line, result):
    figure = line.figures[0]
    data = ["$data << END"]
    shown = []
    for contender in line.contenders:
        summary = result["contenders"][contender.name].get(figure.key)
        if summary is not None:
            place = len(shown)
            shown.append(contender)
            data.append(f"{place} {' '.join(str(summary[key] * figure.scale) for key in ('median', 'lowest', 'highest'))} {int(COLOURS[contender.role][1:], 16)}")
    names = ", ".join(f"{quote(contender.name)} {place}" for place, contender in enumerate(shown))
    draw(os.path.join(folder, f"{line.key}.svg"), [
        *data, "END", f"set label 1 {quote(line.title)} at screen 0.5,0.95 center noenhanced", "set tmargin 3", f"set xlabel {quote(figure.title)} noenhanced", "set xrange [0:*]",
        f"set yrange [{len(shown) - 0.4}:-0.6]", f"set ytics ({names}) noenhanced", "set grid xtics", "unset key", "set style fill solid 0.8",
        "plot $data using ($2/2):1:($2/2):(0.35):5 with boxxyerror linecolor rgb variable, "
        "$data using 2:1:3:4 with xerrorbars linecolor rgb '#000000' pointtype 0"], "1000,420")


def draw_panel(folder, growth, panel, result):
    commands, plots = [], []
    for place, (name, points) in enumerate(result["series"].items()):
        rows = [(size, figures[panel.key]) for size, figures in zip(points["sizes"], points["figures"]) if panel.key in figures]
        if not rows:
            continue
        commands.append(f"$data{place} << END")
        commands += [f"{size} {' '.join(str(summary[key] * panel.scale) for key in ('median', 'lowest', 'highest'))}" for size, summary in rows]
        commands.append("END")
        exponent = points["slopes"][panel.key]
        title = quote(name if exponent is None else f"{name}: exponent {round(exponent, 2) + 0:.2f}")
        plots.append(f"$data{place} using 1:2:3:4 with yerrorlines title {title} linecolor rgb '{curve_colour(name)}' pointtype 7 pointsize 0.5")
    # A figure that may be zero, such as what is left behind, has no place on a logarithmic axis.
    may_be_zero = any(figures[panel.key]["lowest"] <= 0 for points in result["series"].values() for figures in points["figures"] if panel.key in figures)
    draw(os.path.join(folder, f"{growth.key}-{panel.key}.svg"), [
        *commands, f"set title {quote(growth.title)} noenhanced", f"set xlabel {quote(growth.axis)} noenhanced", f"set ylabel {quote(panel.title)} noenhanced",
        "set logscale x", "set yrange [0:1<*]" if may_be_zero else "set logscale y", "set grid", "set key below noenhanced", "plot " + ", ".join(plots)])


def draw_growth(folder, growth, result):
    for panel in growth.panels:
        draw_panel(folder, growth, panel, result)
