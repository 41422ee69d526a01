"""Curves over the number of sessions as an SVG that is legible on light and dark pages."""
import math

STYLE = """text{font:11px sans-serif;fill:#24292f}.grid{stroke:#d0d7de}.a{stroke:#0969da;fill:#0969da}
.b{stroke:#9a6700;fill:#9a6700}polyline{fill:none!important;stroke-width:2}text.a,text.b{stroke:none}
@media(prefers-color-scheme:dark){text{fill:#e6edf3}.grid{stroke:#30363d}.a{stroke:#58a6ff;fill:#58a6ff}
.b{stroke:#d29922;fill:#d29922}}"""
PANEL, PLOT = (244, 190), (48, 34, 165, 110)  # width and height; left, top, width, height within


def decades(values):
    """The powers of ten around values, as exponents."""
    low, high = math.floor(math.log10(min(values))), math.ceil(math.log10(max(values)))
    return low, max(high, low + 1)


def panel(title, curves, at):
    """One figure's curves: {name: [(sessions, value)]}, both axes logarithmic."""
    left, top, width, height = PLOT
    points = [point for curve in curves.values() for point in curve if point[1] > 0]
    if not points:
        return []
    (x0, x1), (y0, y1) = decades([x for x, _ in points]), decades([y for _, y in points])

    def place(x, y):
        return (left + width * (math.log10(x) - x0) / (x1 - x0), top + height * (y1 - math.log10(y)) / (y1 - y0))

    out = [f'<g transform="translate({at})">', f'<text x="{left}" y="20" font-weight="bold">{title}</text>']
    for exponent in range(y0, y1 + 1):
        y = place(10**x0, 10**exponent)[1]
        out.append(f'<line class="grid" x1="{left}" x2="{left + width}" y1="{y:.1f}" y2="{y:.1f}"/>'
                   f'<text x="{left - 5}" y="{y + 4:.1f}" text-anchor="end">{10.0**exponent:,g}</text>')
    for exponent in range(x0, x1 + 1):
        x = place(10**exponent, 10**y0)[0]
        out.append(f'<line class="grid" x1="{x:.1f}" x2="{x:.1f}" y1="{top}" y2="{top + height}"/>'
                   f'<text x="{x:.1f}" y="{top + height + 15}" text-anchor="middle">{10**exponent:,}</text>')
    for mark, curve in zip("ab", curves.values()):
        placed = [place(x, y) for x, y in curve if y > 0]
        line = " ".join(f"{x:.1f},{y:.1f}" for x, y in placed)
        out.append(f'<polyline class="{mark}" points="{line}"/>')
        out += [f'<circle class="{mark}" cx="{x:.1f}" cy="{y:.1f}" r="3"/>' for x, y in placed]
    return [*out, "</g>"]


def picture(figures):
    """figures: {title: {name: [(sessions, value)]}}, two names."""
    width, height = PANEL
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width * 2} {height * 2 + 24}" '
           f'width="{width * 2}" height="{height * 2 + 24}"><title>Cost of a session over the number of sessions</title>'
           f"<style>{STYLE}</style>"]
    for number, (title, curves) in enumerate(figures.items()):
        out += panel(title, curves, f"{number % 2 * width},{number // 2 * height}")
    names = list(next(iter(figures.values())))
    for number, (mark, name) in enumerate(zip("ab", names)):
        out.append(f'<text class="{mark}" x="{48 + 80 * number}" y="{2 * height + 14}">● {name}</text>')
    out.append(f'<text x="{2 * width - 31}" y="{2 * height + 14}" text-anchor="end">over sessions held</text></svg>\n')
    return "\n".join(out)
