"""The benchmark's picture: cost per call beside plain Python, and the summary's cost as tools grow.
Plain SVG.
"""

from math import log10

PLAIN, MODULE, TEXT, GRID = "#b0b7c3", "#2f6db5", "#1f2933", "#e3e7ec"
WIDTH, ROW, LEFT, BAR = 860, 44, 250, 15


def _text(x, y, text, anchor="start", size=13):
    place = f'x="{x:.0f}" y="{y:.0f}" text-anchor="{anchor}"'
    return f'<text {place} font-size="{size}" fill="{TEXT}">{text}</text>'


def _bar(x, y, width, fill):
    size = f'width="{max(width, 1):.0f}" height="{BAR}"'
    return f'<rect x="{x:.0f}" y="{y:.0f}" {size} fill="{fill}"/>'


def _calls(rows, top):
    """Two bars a row: plain Python above, the module below."""
    scale = (WIDTH - LEFT - 90) / max(plain for _, plain, _, _ in rows)
    for index, (name, plain, module, ratio) in enumerate(rows):
        y = top + index * ROW
        yield _text(LEFT - 10, y + 20, name, "end")
        for offset, seconds, fill in ((0, plain, PLAIN), (BAR + 1, module, MODULE)):
            yield _bar(LEFT, y + offset, seconds * scale, fill)
            note = f"{seconds * 1e9:.0f} ns" + (f"  ({ratio:.1f} x)" if fill == MODULE else "")
            yield _text(LEFT + seconds * scale + 6, y + offset + 12, note, size=12)


def _summary(points, top, height):
    """Milliseconds over the number of tools, both logarithmic."""
    known = [value for _, plain, module in points for value in (plain, module) if value]
    low, high = log10(min(known)) - 0.2, log10(max(known)) + 0.2
    first, last = log10(points[0][0]), log10(points[-1][0])

    def at(tools, seconds):
        x = LEFT + (log10(tools) - first) / (last - first) * (WIDTH - LEFT - 120)
        return x, top + height - (log10(seconds) - low) / (high - low) * height

    for power in range(-5, 1):
        if low <= power <= high:
            _, y = at(points[0][0], 10 ** power)
            ends = f'x1="{LEFT}" x2="{WIDTH - 110}" y1="{y:.0f}" y2="{y:.0f}"'
            yield f'<line {ends} stroke="{GRID}"/>'
            yield _text(LEFT - 10, y + 4, f"{10 ** power * 1e3:g} ms", "end", 12)
    for which, fill in ((1, PLAIN), (2, MODULE)):
        line = [at(point[0], point[which]) for point in points if point[which]]
        path = " ".join(f"{x:.0f},{y:.0f}" for x, y in line)
        yield f'<polyline points="{path}" fill="none" stroke="{fill}" stroke-width="3"/>'
        for (x, y), point in zip(line, [point for point in points if point[which]]):
            yield f'<circle cx="{x:.0f}" cy="{y:.0f}" r="4" fill="{fill}"/>'
            yield _text(x + 8, y + 14, f"{point[which] * 1e3:.2g} ms", size=12)
    for tools, _, _ in points:
        yield _text(at(tools, 1)[0], top + height + 22, f"{tools:,} tools", "middle", 12)


def _served(rows, top):
    """The slowest call of each daemon, over the logarithm of the milliseconds."""
    scale = (WIDTH - LEFT - 160) / log10(max(slowest for *_, slowest in rows) * 1e3)
    for index, (name, calls, _, slowest) in enumerate(rows):
        y, width = top + index * 28, max(0, log10(slowest * 1e3)) * scale
        yield _text(LEFT - 10, y + 12, name, "end")
        yield _bar(LEFT, y, width, PLAIN if "through" in name else MODULE)
        yield _text(LEFT + width + 6, y + 12, f"{slowest * 1e3:,.0f} ms, {calls:,} calls", size=12)


def draw(path, rows, points, served):
    """Writes the picture.

    `rows` are (name, plain seconds, module seconds, ratio), `points` (tools, plain, module), and
    `served` (name, calls, 99th percentile, slowest).
    """
    top, height = 60, 220
    calls = top + len(served) * 28 + 50
    below = calls + len(rows) * ROW + 60
    parts = [
        _text(20, 30, "The slowest of a client's calls in 8 s, 16 at once", size=16),
        *_served(served, top),
        _text(20, calls - 20, "Cost of a call: plain Python (grey) and the module (blue)", size=16),
        *_calls(rows, calls),
        _text(20, below - 20, "get_health_summary as tools grow, 5 usage keys a tool", size=16),
        *_summary(points, below, height)]
    total = below + height + 50
    size = f'width="{WIDTH}" height="{total}"'
    path.write_text(f'<svg xmlns="http://www.w3.org/2000/svg" {size} font-family="sans-serif">'
                    f'<rect width="100%" height="100%" fill="white"/>{"".join(parts)}</svg>\n')
