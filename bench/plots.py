"""Draws a result: the goals, everybody's figures side by side, and what grows with what is alive."""

import os

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402
from matplotlib.ticker import FuncFormatter, NullFormatter  # noqa: E402

import goals  # noqa: E402
import table  # noqa: E402

INK, GRID = "#222222", "#dddddd"
MET, MISSED = "#2a7f62", "#c0392b"
STYLES = {  # marker and colour of whoever appears in several rows
    "hnetd": ("D", "#111111"), "floor": ("s", "#888888"),
    "libevent": ("^", "#b5651d"), "libuv": ("v", "#7d3c98"),
    "std": ("P", "#1f77b4"), "Boost": ("o", "#d35400"), "Signals2": ("o", "#f0b27a"),
    "GLib": ("X", "#2e86c1"), "g_": ("X", "#2e86c1"), "sigc++": ("*", "#8e44ad"),
}
LIBC = ("h", "#16a085")  # sem_t, pipe, malloc, inet_pton, ...

plt.rcParams.update({"font.size": 10, "axes.edgecolor": INK, "axes.spines.top": False,
                     "axes.spines.right": False, "figure.dpi": 110})


def style(who):
    for start, found in STYLES.items():
        if who.startswith(start):
            return found
    return LIBC


def family(who):
    for start in STYLES:
        if who.startswith(start):
            return {"std": "C++ library", "g_": "GLib", "Signals2": "Boost.Signals2 without names",
                    "floor": "floor of the model"}.get(start, start)
    return "C library, kernel"


def save(figure, directory, name):
    path = os.path.join(directory, name)
    figure.savefig(path, bbox_inches="tight", facecolor="white")
    plt.close(figure)
    return path


def plot_goals(verdicts, directory):
    """Each goal as a bar: how much of what is allowed hnetd takes."""
    shown = [each for each in verdicts if each[2] > 0]
    if not shown:
        return None
    figure, axes = plt.subplots(figsize=(11, 1.2 + 0.23 * len(shown)))
    for place, (what, value, limit, met) in enumerate(shown):
        share = max(value / limit, 0.005)
        axes.barh(place, share - 1, left=1, color=MET if met else MISSED, height=0.7)
        axes.text(1.02 if share <= 1 else share * 1.02, place,
                  f"{table.ratio_text(value)} of {table.ratio_text(limit)}", va="center",
                  fontsize=8, color=INK)
    axes.set_yticks(range(len(shown)), [each[0] for each in shown], fontsize=8)
    axes.set_ylim(len(shown) - 0.4, -0.6)
    axes.set_xscale("log")
    axes.xaxis.set_major_formatter(FuncFormatter(lambda x, _: f"{x:g}"))
    axes.xaxis.set_minor_formatter(NullFormatter())
    axes.axvline(1, color=INK, linewidth=1)
    axes.set_xlabel("hnetd's figure over what the goal allows (log scale): left of the line is met")
    axes.set_title("Goals")
    axes.grid(axis="x", color=GRID)
    axes.set_axisbelow(True)
    return save(figure, directory, "goals.png")


def plot_contestants(results, directory):
    """One line for each row: where everybody stands, hnetd being 1."""
    lines = []
    for rows in goals.SECTIONS.values():
        for row in rows:
            others = set(results.contestants(row.key)) - {"hnetd"}
            if not others or "hnetd" not in results.contestants(row.key):
                continue
            sizes = results.sizes(row.key)
            for size in sizes if len(sizes) <= 4 else [size for size in sizes if size == 300]:
                lines.append((row, size))
    if not lines:
        return None
    figure, axes = plt.subplots(figsize=(11, 1.4 + 0.27 * len(lines)))
    families = {}
    for place, (row, size) in enumerate(lines):
        ours = results.median(results.name(row.key, "hnetd", size))
        for who in results.contestants(row.key):
            theirs = results.median(results.name(row.key, who, size))
            if theirs is None or ours is None:
                continue
            marker, colour = style(who)
            dots = axes.scatter(theirs / ours, place, marker=marker, color=colour, s=46,
                                zorder=3 if who == "hnetd" else 4)
            families.setdefault(family(who), dots)
    labels = [row.title + ("" if size is None else f" ({size:,} {row.sizes})")
              for row, size in lines]
    axes.set_yticks(range(len(lines)), labels, fontsize=8)
    axes.set_ylim(len(lines) - 0.4, -0.6)
    axes.set_xscale("log")
    axes.xaxis.set_major_formatter(FuncFormatter(lambda x, _: f"{x:g}"))
    axes.xaxis.set_minor_formatter(NullFormatter())
    axes.axvline(1, color=INK, linewidth=1)
    axes.grid(color=GRID)
    axes.set_axisbelow(True)
    axes.set_xlabel("time over hnetd's (log scale): right of the line is slower than hnetd")
    axes.set_title("Everybody, by row")
    axes.legend(families.values(), families.keys(), loc="upper center", ncol=4, frameon=False,
                bbox_to_anchor=(0.3, -0.35 / (1.4 + 0.27 * len(lines)) * 2), fontsize=9)
    return save(figure, directory, "contestants.png")


def draw_growth(axes, results, row):
    for who in results.contestants(row.key):
        points = [(size, results.median(results.name(row.key, who, size)))
                  for size in results.sizes(row.key)]
        points = [point for point in points if point[1] is not None]
        marker, colour = style(who)
        axes.plot(*zip(*points), marker=marker, color=colour, label=who,
                  linewidth=2.4 if who == "hnetd" else 1.3, markersize=6)
    axes.set_xscale("log")
    axes.set_yscale("log")
    axes.set_title(row.title, fontsize=9)
    axes.set_xlabel(row.sizes)
    axes.xaxis.set_major_formatter(FuncFormatter(lambda x, _: f"{x:,.0f}"))
    axes.xaxis.set_minor_formatter(NullFormatter())
    axes.yaxis.set_major_formatter(FuncFormatter(lambda y, _: table.duration(y)))
    low, high = axes.get_ylim()
    axes.set_ylim(low / 2, high * 2)  # a flat line looks flat
    axes.yaxis.set_minor_formatter(NullFormatter())
    axes.grid(color=GRID)


def plot_growth(results, directory, name):
    """Cost over the number alive, for the rows of one picture."""
    rows = {row.key: row for section in goals.SECTIONS.values() for row in section}
    panels = [rows[key] for key in goals.GROWTH[name] if len(results.sizes(key)) > 1]
    if not panels:
        return None
    figure, all_axes = plt.subplots(1, len(panels), figsize=(4.4 * len(panels), 4), squeeze=False)
    legend = {}
    for axes, row in zip(all_axes[0], panels):
        draw_growth(axes, results, row)
        for line, who in zip(*axes.get_legend_handles_labels()):
            legend.setdefault(who, line)
    figure.legend(legend.values(), legend.keys(), loc="upper center", ncol=6, frameon=False,
                  bbox_to_anchor=(0.5, 0.02))
    figure.tight_layout()
    return save(figure, directory, f"growth-{name}.png")


def plot_all(result, verdicts, directory, busy_machine=False):
    results = table.Results(result, busy_machine)
    made = [plot_goals(verdicts, directory), plot_contestants(results, directory)]
    made += [plot_growth(results, directory, name) for name in goals.GROWTH]
    return [path for path in made if path is not None]
