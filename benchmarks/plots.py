"""Plots in SVG that can be read on a light and on a dark background."""
import html
import math

import entries

WIDTH = 760
STYLE = """<style>
text { font: 13px sans-serif; fill: #333 } .faint { fill: #777 } .title { font-weight: bold }
.ours { fill: #1f6fb2; stroke: #1f6fb2 } .others { fill: #999; stroke: #999 } .axis { stroke: #999; stroke-width: 1 }
.line { fill: none; stroke-width: 2 }
@media (prefers-color-scheme: dark) { text { fill: #ddd } .faint { fill: #999 } .ours { fill: #5aa9e6; stroke: #5aa9e6 } }
</style>"""


def svg(height, body):
    return (f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{height}" viewBox="0 0 {WIDTH} {height}">\n'
            + STYLE + "\n" + "\n".join(body) + "\n</svg>\n")


def words(x, y, content, classes="", anchor="start"):
    return f'<text x="{x:.1f}" y="{y:.1f}" class="{classes}" text-anchor="{anchor}">{html.escape(content)}</text>'


def colour(name):
    return "ours" if name.startswith("tavo") else "others"


def bars(title, values):
    """Horizontal bars, one for each name; longer is slower."""
    left, row, scale = 190, 24, (WIDTH - 190 - 70) / max(values.values())
    body = [words(10, 20, title, "title")]
    for index, (name, value) in enumerate(values.items()):
        y = 36 + row * index
        body += [words(left - 8, y + 13, name, anchor="end"),
                 f'<rect x="{left}" y="{y}" width="{value * scale:.1f}" height="{row - 8}" class="{colour(name)}"/>',
                 words(left + value * scale + 6, y + 13, f"{value:.2f}")]
    return svg(44 + row * len(values), body)


def lines(title, unit, series):
    """Lines over a logarithmic axis. `series` maps a name to its points."""
    left, right, top, bottom = 60, WIDTH - 150, 44, 260
    points = [point for each in series.values() for point in each]
    low, high = math.log(min(x for x, _ in points)), math.log(max(x for x, _ in points))
    most = max(y for _, y in points) * 1.1

    def place(x, y):
        return left + (math.log(x) - low) / (high - low) * (right - left), bottom - y / most * (bottom - top)
    body = [words(10, 20, title, "title"), words(left, top - 6, unit, "faint"),
            f'<path d="M{left} {top}V{bottom}H{right}" class="axis line"/>']
    body += [words(place(x, 0)[0], bottom + 18, f"{x:,}", "faint", "middle") for x in sorted({x for x, _ in points})]
    body += [words(left - 6, place(points[0][0], most * part)[1] + 4, f"{most * part:.2f}", "faint", "end")
             for part in (0, 0.5, 1)]
    label_y = 0
    for name, each in sorted(series.items(), key=lambda item: -item[1][-1][1]):
        placed = [place(x, y) for x, y in each]
        body.append('<path d="M' + "L".join(f"{x:.1f} {y:.1f}" for x, y in placed)
                    + f'" class="line" style="fill:none" stroke-dasharray="{"" if colour(name) == "ours" else "5 3"}" '
                    + f'stroke="{"#3d8fd1" if colour(name) == "ours" else "#999"}"/>')
        # Names don't overlap.
        label_y = max(placed[-1][1] + 4, label_y + 15)
        body.append(words(right + 8, label_y, name))
    return svg(290, body)


def by_client(rows, x, y):
    series = {}
    for row in sorted(rows, key=lambda row: row[x]):
        series.setdefault(row["client"], []).append((row[x], y(row)))
    return series


def of_section(name, result):
    """File name, description and text of each plot."""
    if name == "client_alone":
        for part, rows in result[name]["sets"].items():
            times = {client: row["ratios"]["seconds"] for client, row in rows.items() if row["ratios"]["seconds"] < 6}
            title = f"Time for {entries.in_words(part)}; the raw loop's is 1. Clients up to six times as slow"
            yield part, title, bars(title, times)
    if name == "growth":
        yield ("growth", "time per user, by number of users", lines(
            "Time per user in the fastest run", "µs, by number of users",
            by_client(result[name], "size", lambda row: row["fastest"] / row["size"] * 1e6)))
    if name == "page_sizes":
        yield ("page-sizes", "time by page size", lines(
            "100,000 users", "seconds, by page size", by_client(result[name], "page_size", lambda row: row["seconds"])))
