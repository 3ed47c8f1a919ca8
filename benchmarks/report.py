"""The table and the chart of the measurements. Measures nothing: values in, text out."""

import collections
import html

BEGIN, END = "<!-- measured: begin -->", "<!-- measured: end -->"

# `driver` are times by name; `commands` are those with our agent and with the least one, by the
# name of the placement; `movements` is what measurements.card_movements gives, `calls` what
# measurements.system_calls does.
Results = collections.namedtuple("Results", "driver commands movements calls machine")
# `ratio`: whether it is compared with the bare exchange.
Row = collections.namedtuple("Row", "what median p90 limit target ratio",
                             defaults=(None, "", True))

BARE_FACTOR, LONG_FACTOR = 2.5, 4
INSERTION, REMOVAL, BURST = 800, 400, 500_000  # microseconds


def command_rows(ours, least):
    short = ours["null, short"].median + BARE_FACTOR * ours["bare exchange"].median
    long = LONG_FACTOR * ours["null, 65 kB"].median

    def row(what, time, *rest):
        return Row(what, time.median, time.p90, *rest)

    return [
        row("bare exchange of the same bytes", ours["bare exchange"]),
        row("short command, handler that answers at once", ours["null, short"]),
        row("short command, reader, least agent", least["reader, short"]),
        row("short command, reader, our agent", ours["reader, short"], short,
            f"at once + {BARE_FACTOR} x bare"),
        row("65 kB answer, handler that answers at once", ours["null, 65 kB"]),
        row("65 kB answer, reader, least agent", least["reader, 65 kB"]),
        row("65 kB answer, reader, our agent", ours["reader, 65 kB"], long,
            f"{LONG_FACTOR} x at once"),
    ]


def movement_rows(moves):
    return [
        Row("insertion seen by a client", *moves["insertion"][:2], INSERTION, "0.8 ms", False),
        Row("removal seen by a client", *moves["removal"][:2], REMOVAL, "0.4 ms", False),
        Row(f"card seen as it is after {moves['swaps']} swaps in a row", moves["after burst"], None,
            BURST if moves["seen"] else 0, "0.5 s", False),
        Row(f"quick swaps missed, of {moves['swaps']} one by one", moves["missed"], None, 0, "0",
            False),
    ]


def groups(results):
    """The rows with targets, by what they have in common."""
    return {**{f"Through pcscd, on {placement}": command_rows(*times)
               for placement, times in results.commands.items()},
            "A card that comes and goes": movement_rows(results.movements)}


def driver_rows(results):
    return [Row(name, time.median, time.p90) for name, time in results.driver.items()]


def number(value):
    if value is None:
        return ""
    return f"{value:.0f}" if value >= 100 or value == 0 else f"{value:.1f}"


def is_missed(row):
    return row.limit is not None and row.median > row.limit


def missed(results):
    """The rows that miss their target."""
    return [f"{title}: {row.what}" for title, rows in groups(results).items() for row in rows
            if is_missed(row)]


def verdict(row):
    if row.limit is None:
        return ""
    return f"{row.target}: {number(row.limit)}, {'MISSED' if is_missed(row) else 'kept'}"


def table(head, lines):
    """Aligned Markdown, readable as plain text."""
    widths = [max(len(str(line[i])) for line in (head, *lines)) for i in range(len(head))]

    def text(line):
        cells = [str(cell).ljust(width) if i == 0 else str(cell).rjust(width)
                 for i, (cell, width) in enumerate(zip(line, widths))]
        return f"| {' | '.join(cells)} |"

    rule = "|".join("-" * (width + 1) + ("-" if i == 0 else ":") for i, width in enumerate(widths))
    return "\n".join([text(head), f"|{rule}|", *map(text, lines)])


def times_table(title, rows):
    floor = next((row.median for row in rows if row.what.startswith("bare exchange")), None)
    lines = [(row.what, number(row.median), number(row.p90),
              f"{row.median / floor:.1f}" if row.ratio else "",
              verdict(row)) for row in rows]
    return table((title, "median", "90 %", "x bare", "target"), lines)


def calls_table(calls):
    if calls is None:
        return "System calls were not counted: strace is not there or may not trace."
    names = sorted({name for each in calls.values() for name in each},
                   key=lambda name: -max(each.get(name, 0) for each in calls.values()))
    lines = [(name, *(f"{each.get(name, 0):.1f}" for each in calls.values())) for name in names
             if any(each.get(name, 0) >= 0.05 for each in calls.values())]
    lines.append(("all", *(f"{sum(each.values()):.1f}" for each in calls.values())))
    return table(("System calls of a short command", *calls), lines)


def text(results):
    return "\n\n".join([
        f"Times in microseconds on {results.machine}.",
        *(times_table(title, rows) for title, rows in groups(results).items()),
        times_table("The driver alone, with the least agent, on one processor",
                    driver_rows(results)),
        calls_table(results.calls)])


def rewritten(page, results):
    """The page with the text between its marks replaced."""
    before, begin, rest = page.partition(BEGIN)
    _, end, after = rest.partition(END)
    if not begin or not end:
        raise ValueError(f"the page has no {BEGIN} and {END}")
    return f"{before}{BEGIN}\n{text(results)}\n{END}{after}"


BAR, GAP, LEFT, WIDTH = 22, 8, 250, 760


def bars(rows, top):
    """A group of bars of one scale, with the target as a line on its own bar."""
    scale = (WIDTH - LEFT - 90) / max(max(row.median, row.limit or 0) for row in rows)
    parts = []
    for index, row in enumerate(rows):
        y = top + index * (BAR + GAP)
        end = LEFT + row.median * scale
        colour = "#c1121f" if is_missed(row) else "#2a6f97"
        parts.append(f'<text x="{LEFT - 10}" y="{y + 16}" text-anchor="end">'
                     f'{html.escape(row.what.partition(", ")[2] or row.what)}</text>')
        parts.append(f'<rect x="{LEFT}" y="{y}" width="{end - LEFT:.1f}" height="{BAR}" '
                     f'fill="{colour}"/>')
        parts.append(f'<text x="{end + 8:.1f}" y="{y + 16}">{number(row.median)} µs</text>')
        if row.limit:
            x = LEFT + row.limit * scale
            parts.append(f'<line x1="{x:.1f}" x2="{x:.1f}" y1="{y - 3}" y2="{y + BAR + 3}" '
                         f'stroke="#000" stroke-width="2" stroke-dasharray="3 2"/>')
    return parts, top + len(rows) * (BAR + GAP)


def chart(results):
    parts, y = [], 20
    for title, rows in groups(results).items():
        for group in (rows[:4], rows[4:]) if rows[0].ratio else (rows[:2],):
            what = group[-1].what.partition(", ")[0] if rows[0].ratio else ""
            parts.append(f'<text x="10" y="{y}" font-weight="bold">'
                         f'{title}{": " if what else ""}{what}</text>')
            drawn, y = bars(group, y + 12)
            parts += drawn
            y += 24
    parts.append(f'<text x="10" y="{y}" fill="#555">Medians; dashed: the target. '
                 f'{html.escape(results.machine)}</text>')
    return "\n".join([
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{y + 14}" '
        f'font-family="sans-serif" font-size="13">',
        '<rect width="100%" height="100%" fill="#fff"/>', *parts, "</svg>", ""])
