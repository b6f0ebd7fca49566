"""The benchmark's figures as Markdown tables, and as a picture that gnuplot draws."""

import subprocess

PICTURE = """
set terminal svg size 860,1180 font "sans-serif,13" background "white"
set output
set multiplot layout 3,1
set style data histograms
set style histogram clustered gap 1
set style fill solid
set key outside top center horizontal
set lmargin at screen 0.14
set rmargin at screen 0.97
set grid y
set yrange [0:]
set title "A client's calls answered in 8 s, 16 in flight, by what keeps the health"
set ylabel "calls"
set xtics noenhanced
plot $served using 2:xtic(1) title "database free" linecolor "#2f6db5", \\
     $served using 3 title "database locked" linecolor "#b0b7c3"
set title "Cost of a call"
set ylabel "nanoseconds"
set xtics rotate by 20 right
plot $calls using 2:xtic(1) title "plain Python" linecolor "#b0b7c3", \\
     $calls using 3 title "module" linecolor "#2f6db5"
set title "get\\\\_health\\\\_summary as tools grow, 5 usage keys a tool (both axes logarithmic)"
set ylabel "milliseconds"
set xlabel "tools"
set key inside top left vertical
set xtics norotate
set logscale xy
set yrange [*:*]
set style data linespoints
plot $summary using 1:2 title "plain Python" linewidth 2 linecolor "#b0b7c3", \\
     $summary using 1:3 title "module" linewidth 2 linecolor "#2f6db5"
"""


def _block(name, rows):
    lines = ("\t".join(f'"{it}"' if isinstance(it, str) else f"{it:g}" for it in row)
             for row in rows)
    return "\n".join([f"{name} << END", *lines, "END\n"])


def draw(path, figures):
    """Draw the picture of the combined figures into an SVG file. Needs gnuplot."""
    served = figures["served"]
    blocks = _block("$served", (
        (free[0].rsplit(", ", 1)[0], free[2], locked[2])
        for free, locked in zip(served[::2], served[1::2])))
    blocks += _block("$calls", (
        (name, plain * 1e9, module * 1e9)
        for name, plain, module, *_ in figures["rows"] if plain < 5e-6))
    blocks += _block("$summary", (
        (tools, *(float("nan") if it is None else it * 1e3 for it in times))
        for tools, *times in figures["summary"]))
    drawn = subprocess.run(
        ["gnuplot"], input=blocks + PICTURE, text=True, capture_output=True, check=True)
    path.write_text(drawn.stdout)


def _time(seconds):
    scale, unit = next(it for it in ((1e9, "ns"), (1e6, "µs"), (1e3, "ms"))
                       if seconds * it[0] < 5000 or it[1] == "ms")
    value = seconds * scale
    return f"{value:,.0f} {unit}" if value >= 100 else f"{value:.3g} {unit}"


def tables(figures):
    """The combined figures as Markdown."""
    lines = ["| A client's calls | Answered in 8 s | 99 % within |", "|---|--:|--:|"]
    for name, percentile, calls, low, high in figures["served"]:
        within = "" if percentile is None else _time(percentile)
        lines.append(f"| {name} | {calls:,.0f} ({low:,}–{high:,}) | {within} |")
    lines += ["", "| Operation | Plain Python | Module | Ratio |", "|---|--:|--:|--:|"]
    for name, plain, module, ratio, low, high in figures["rows"]:
        lines.append(f"| {name} | {_time(plain)} | {_time(module)} |"
                     f" {ratio:.2f} ({low:.2f}–{high:.2f}) |")
    lines += ["", "| Scaling | Times as much |", "|---|--:|"]
    for name, _, _, ratio, low, high in figures["scaling"]:
        lines.append(f"| {name} | {ratio:.2f} ({low:.2f}–{high:.2f}) |")
    lines += ["", "| An event loop was late at worst, during | by |", "|---|--:|"]
    for name, worst, low, high in figures["late"]:
        lines.append(f"| {name} | {_time(worst)} ({_time(low)}–{_time(high)}) |")
    return "\n".join(lines) + "\n"
