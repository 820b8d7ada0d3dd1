"""Draws plots with gnuplot into bench/plots, or where a partial run keeps its own."""

import subprocess

SIZE = "560,360"
OURS, PEERS = 0x4477AA, 0xBBBBBB


def growth_plot(setting, name, axis, series):
    """Seconds against amounts, both logarithmic: a line for each (amount, seconds) series."""
    setting.plots.mkdir(parents=True, exist_ok=True)
    script = [f"set terminal pngcairo size {SIZE} font 'sans,10'",
              f"set output '{setting.plots / name}.png'",
              "set logscale xy", "set format '10^{%T}'", "set grid", "set key left top",
              f"set xlabel '{axis}'", "set ylabel 'seconds'"]
    curves = [f"'-' title '{title}' with linespoints pointtype 7 linewidth 2" for title in series]
    script.append("plot " + ", ".join(curves))
    for points in series.values():
        script += [f"{amount} {seconds}" for amount, seconds in points] + ["e"]
    draw(script)


def bar_plot(setting, name, axis, bars):
    """A bar for each (label, median, minimum, maximum); ours stand out."""
    setting.plots.mkdir(parents=True, exist_ok=True)
    script = [f"set terminal pngcairo size {SIZE} font 'sans,9'",
              f"set output '{setting.plots / name}.png'",
              "set style fill solid", "set boxwidth 0.6", "set grid ytics", "set yrange [0:*]",
              "set xtics rotate by -30", "set rmargin 8", "set pointintervalbox 0", "unset key",
              f"set ylabel '{axis}'",
              "plot '-' using 1:3:4:xtic(2) with boxes linecolor rgb variable, "
              "'-' using 1:2:3:4 with yerrorbars linecolor 'black' pointtype -1"]
    for i, (label, median, _, _) in enumerate(bars):
        script.append(f'{i} "{label}" {median} {OURS if label.startswith("kqimage") else PEERS}')
    script.append("e")
    script += [f"{i} {median} {low} {high}" for i, (_, median, low, high) in enumerate(bars)]
    script.append("e")
    draw(script)


def draw(script):
    subprocess.run(["gnuplot"], input="\n".join(script) + "\n", text=True, check=True)
