"""How the cost of operations grows: exponents held to bench/scaling.toml, a plot, a table."""
import math
import pathlib
import re
import tomllib

root = pathlib.Path(__file__).resolve().parent.parent
page = root / "docs/performance.md"
plot = root / "docs/scaling.svg"


def slope(points):
    """Of the straight line nearest to the points in a plot with logarithmic axes."""
    xs, ys = ([math.log(v) for v in values] for values in zip(*points))
    x, y = sum(xs) / len(xs), sum(ys) / len(ys)
    return sum((a - x) * (b - y) for a, b in zip(xs, ys)) / sum((a - x) ** 2 for a in xs)


def exponent(costs, constant):
    """The exponent with which the cost grows.

    A fixed cost hides how the rest grows, a quadratic part within a linear limit too. As sizes
    double, the increments of a + b * n^k grow with k whatever a is, so what may grow is judged by
    its increments; but what hardly grows has increments of chance, and there the slope of the cost
    itself says more.
    """
    points = sorted(costs.items())
    whole = slope(points)
    steps = [(n, cost - before) for (_, before), (n, cost) in zip(points, points[1:])]
    if constant or any(step <= 0 for _, step in steps):
        return whole
    return max(whole, slope(steps))


def check(costs, update):
    """Prints all exponents; returns those that are too large."""
    expected = tomllib.loads((root / "bench/scaling.toml").read_text())
    rows, wrong = {}, []
    for (operation, varied), cost in costs.items():
        constant = varied not in expected["grows-with"].get(operation, [])
        found = exponent(cost, constant)
        limit = expected["constant" if constant else "linear"]
        rows.setdefault(operation, {})[varied] = found, constant
        print(f"{operation:20} {varied:13} {found:6.3f}, at most {limit}: ",
              ", ".join(f"{n} {c:,.0f}" for n, c in cost.items()))
        if found > limit:
            wrong.append(f"{operation}: grows with {varied} by the exponent {found:.2f}, "
                         f"{limit} is the limit")
    wrong += [f"{operation}: was not run" for operation in expected["grows-with"].keys() - rows]
    if update:
        plot.write_text(svg(costs, rows))
        text = page.read_text()
        text = re.sub(r"(?<=<!-- scaling: begin -->\n).*(?=<!-- scaling: end -->)",
                      lambda _: markdown(rows), text, flags=re.DOTALL)
        page.write_text(text)
    return wrong


def markdown(rows):
    variables = list(dict.fromkeys(varied for row in rows.values() for varied in row))
    lines = [["operation", *variables], ["---"] * (len(variables) + 1)]
    for operation, row in rows.items():
        cells = []
        for varied in variables:
            found, constant = row.get(varied, (None, True))
            cell = "" if found is None else f"{found:.2f}".replace("-0.00", "0.00")
            cells.append(cell if constant else f"**{cell}**")
        lines.append([operation, *cells])
    return "".join(f"| {' | '.join(line)} |\n" for line in lines)


class Panel:
    """A plot of some lines, with logarithmic axes, at a place in the picture."""
    width, height, labels = 230, 300, 100  # of the plot; right of it the names of its lines

    def __init__(self, left, top, title, lines):
        self.left, self.top, self.title, self.lines = left, top, title, lines
        self.numbers = sorted(next(iter(lines.values()))[0])
        costs = [cost for line, _ in lines.values() for cost in line.values()]
        self.low, self.high = (f(math.log10(c)) for f, c in
                               ((math.floor, min(costs)), (math.ceil, max(costs))))

    def x(self, number):
        first, last = self.numbers[0], self.numbers[-1]
        return self.left + self.width * math.log(number / first) / math.log(last / first)

    def y(self, cost):
        share = (math.log10(cost) - self.low) / (self.high - self.low)
        return self.top + self.height * (1 - share)

    def draw(self):
        right, bottom = self.left + self.width, self.top + self.height
        for power in range(self.low, self.high + 1):
            y = self.y(10 ** power)
            yield f'<path d="M{self.left} {y:.1f}H{right}" stroke="#ddd"/>'
            yield (f'<text x="{self.left - 5}" y="{y + 4:.1f}" text-anchor="end">10'
                   f'<tspan dy="-4" font-size="8">{power}</tspan></text>')
        for number in self.numbers:
            yield f'<path d="M{self.x(number):.1f} {self.top}V{bottom}" stroke="#eee"/>'
            yield (f'<text x="{self.x(number):.1f}" y="{bottom + 14}" '
                   f'text-anchor="middle">{number}</text>')
        yield (f'<text x="{(self.left + right) / 2}" y="{bottom + 30}" text-anchor="middle" '
               f'font-weight="bold">{self.title}</text>')
        yield (f'<text transform="translate({self.left - 34} {(self.top + bottom) / 2}) '
               f'rotate(-90)" text-anchor="middle">instructions</text>')
        last = self.numbers[-1]
        below = self.top - 20
        for name, (line, colour) in sorted(self.lines.items(), key=lambda l: -l[1][0][last]):
            points = " ".join(f"{self.x(n):.1f},{self.y(c):.1f}" for n, c in line.items())
            yield f'<polyline points="{points}" fill="none" stroke="{colour}" stroke-width="1.5"/>'
            for n, c in line.items():
                yield f'<circle cx="{self.x(n):.1f}" cy="{self.y(c):.1f}" r="2" fill="{colour}"/>'
            below = max(self.y(line[last]), below + 11)  # names of close lines keep apart
            yield (f'<path d="M{right + 3} {self.y(line[last]):.1f}L{right + 12} {below:.1f}" '
                   f'stroke="{colour}" stroke-width="0.5"/>')
            yield f'<text x="{right + 14}" y="{below + 3:.1f}" fill="{colour}">{name}</text>'


def svg(costs, rows):
    """A panel for each variable that several operations have, with a line for each."""
    constant, linear = "#1f5fa8", "#c2500f"
    panels = {}
    for (operation, varied), cost in costs.items():
        colour = constant if rows[operation][varied][1] else linear
        panels.setdefault(varied, {})[operation] = cost, colour
    panels = {varied: lines for varied, lines in panels.items() if len(lines) > 1}
    columns, across, down = 3, Panel.width + Panel.labels + 70, Panel.height + 60
    width, height = columns * across, -(-len(panels) // columns) * down + 40
    lines = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" '
             'font-family="sans-serif" font-size="10">',
             f'<rect width="{width}" height="{height}" fill="white"/>']
    for i, (colour, text) in enumerate(((constant, "must not grow"), (linear, "may grow linearly"))):
        lines.append(f'<path d="M{60 + i * 130} 16h24" stroke="{colour}" stroke-width="2"/>'
                     f'<text x="{90 + i * 130}" y="20" font-size="12">{text}</text>')
    for i, (varied, operations) in enumerate(sorted(panels.items(), key=lambda p: -len(p[1]))):
        lines += Panel(60 + i % columns * across, 40 + i // columns * down, varied,
                       operations).draw()
    return "\n".join(lines) + "\n</svg>\n"
