"""Line charts as SVG, drawn with nothing but Python: light, 700 pixels wide, a label at the end of every line."""
import math
from collections import namedtuple
from xml.sax.saxutils import escape

# points: (x, y) pairs. dash: an SVG dash pattern or "".
Series = namedtuple("Series", "label color dash points")
Panel = namedtuple("Panel", "title x_label y_label x_log y_log series")

WIDTH, HEIGHT = 700, 270          # of a panel
LEFT, RIGHT, TOP, BOTTOM = 64, 148, 30, 44
INK, FAINT = "#333", "#e4e4e4"
COLORS = {"zvxkvt": "#c0392b", "zvxkvt, 2": "#e08a3c", "zvxkvt, 4": "#d4b106", "boost": "#2e6da4", "asio": "#6aaed6",
          "state threads": "#3a8a4d", "go": "#1c9aa8", "pthreads": "#7a5aa6", "redis": "#2e6da4", "bare ring": "#888",
          "zvxkvt, threads": "#7a5aa6"}


def tick_text(value):
    if value >= 1e6:
        return f"{value / 1e6:g} M"
    return f"{value:,.0f}" if value >= 10 or value == int(value) else f"{value:g}"


class Axis:
    """Maps values to pixels; logarithmic ones have ticks at powers of ten, and at 2 and 5 where those are few."""

    def __init__(self, values, log, start, end):
        low, high = min(values), max(values)
        self.log, self.start, self.end = log, start, end
        if log:
            self.low, self.high = math.floor(math.log10(low) + 1e-9), math.ceil(math.log10(high) - 1e-9)
            self.high = max(self.high, self.low + 1)
            parts = (1, 2, 5) if self.high - self.low <= 2 else (1,)
            self.ticks = [p * 10.0 ** e for e in range(self.low, self.high + 1) for p in parts]
            self.ticks = [t for t in self.ticks if t <= 10.0 ** self.high * 1.001]
        else:
            step = 10 ** math.floor(math.log10(high or 1))
            step = next(s for s in (step / 5, step / 2, step, step * 2) if high / s <= 6)
            self.low, self.high = 0, step * math.ceil(high / step)
            self.ticks = [step * i for i in range(round(self.high / step) + 1)]

    def at(self, value):
        if self.log:
            value = math.log10(value)
        return self.start + (value - self.low) / (self.high - self.low) * (self.end - self.start)


def text(x, y, words, anchor="start", color=INK, size=12, more=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" fill="{color}" font-size="{size}"{more}>{escape(words)}</text>'


def spread(places, room, low, high):
    """Moves label positions apart, in their order, so that none covers another; they stay between low and high."""
    order = sorted(range(len(places)), key=lambda i: places[i])
    for n, i in enumerate(order):
        floor = low if n == 0 else places[order[n - 1]] + room
        places[i] = max(places[i], floor)
    ceiling = high
    for i in reversed(order):
        places[i] = min(places[i], ceiling)
        ceiling = places[i] - room
    return places


def draw_panel(panel, top):
    series = [s for s in panel.series if s.points]
    lines = [text(LEFT, top + 18, panel.title, size=14, more=' font-weight="bold"')]
    if not series:
        return lines + [text(LEFT, top + 60, "no values")]
    right, bottom = WIDTH - RIGHT, top + HEIGHT - BOTTOM
    x = Axis([p[0] for s in series for p in s.points], panel.x_log, LEFT, right)
    y = Axis([p[1] for s in series for p in s.points], panel.y_log, bottom, top + TOP)
    for tick in y.ticks:
        lines.append(f'<line x1="{LEFT}" x2="{right}" y1="{y.at(tick):.1f}" y2="{y.at(tick):.1f}" stroke="{FAINT}"/>')
        lines.append(text(LEFT - 6, y.at(tick) + 4, tick_text(tick), "end", size=11))
    for tick in x.ticks:
        lines.append(f'<line x1="{x.at(tick):.1f}" x2="{x.at(tick):.1f}" y1="{bottom}" y2="{bottom + 4}" stroke="{INK}"/>')
        lines.append(text(x.at(tick), bottom + 17, tick_text(tick), "middle", size=11))
    lines.append(f'<line x1="{LEFT}" x2="{right}" y1="{bottom}" y2="{bottom}" stroke="{INK}"/>')
    lines.append(text((LEFT + right) / 2, bottom + 35, panel.x_label, "middle"))
    middle = (top + TOP + bottom) / 2
    lines.append(text(14, middle, panel.y_label, "middle", more=f' transform="rotate(-90 14 {middle:.1f})"'))
    for s in series:
        points = [(x.at(a), y.at(b)) for a, b in sorted(s.points)]
        dash = f' stroke-dasharray="{s.dash}"' if s.dash else ""
        path = " ".join(f"{a:.1f},{b:.1f}" for a, b in points)
        lines.append(f'<polyline points="{path}" fill="none" stroke="{s.color}" stroke-width="1.8"{dash}/>')
        lines += [f'<circle cx="{a:.1f}" cy="{b:.1f}" r="2.2" fill="{s.color}"/>' for a, b in points]
    ends = [max(s.points) for s in series]
    places = spread([y.at(b) for _, b in ends], 13, top + TOP, bottom)
    for s, (a, b), place in zip(series, ends, places):
        lines.append(f'<line x1="{x.at(a) + 3:.1f}" y1="{y.at(b):.1f}" x2="{right + 10}" y2="{place:.1f}" stroke="{s.color}" '
                     'stroke-width="0.6"/>')
        lines.append(text(right + 13, place + 4, s.label, color=s.color, size=11))
    return lines


def draw(panels):
    """The picture as text: the panels one below the other."""
    height = HEIGHT * len(panels) + 8
    lines = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{height}" viewBox="0 0 {WIDTH} {height}" '
             'font-family="Helvetica, Arial, sans-serif">', f'<rect width="{WIDTH}" height="{height}" fill="#fff"/>']
    for n, panel in enumerate(panels):
        lines += draw_panel(panel, n * HEIGHT)
    return "\n".join(lines + ["</svg>", ""])


def write(name, panels):
    with open(name, "w", encoding="utf-8") as file:
        file.write(draw(panels))
