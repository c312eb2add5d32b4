"""Makes one readable table of a result: medians, spread, ratios, goals."""

from statistics import median, quantiles

import goals


class Results:
    """The figures of one run."""

    def __init__(self, result, busy_machine=False):
        self.rows = result["rows"]
        self.busy_machine = busy_machine

    def figures(self, name):
        row = self.rows[name]
        # A server's time is nobody's CPU time here.
        always = row["manual"] or name.startswith("dns.")
        wall = row["wall"] and (always or not self.busy_machine)
        return row["real" if wall else "cpu"]

    def median(self, name):
        """Or, on a busy machine, the repetition that was disturbed least."""
        if name not in self.rows:
            return None
        return min(self.figures(name)) if self.busy_machine else median(self.figures(name))

    def spread(self, name):
        """Half the distance between the quartiles, in percent of the median."""
        figures = self.figures(name)
        if len(figures) < 2:
            return 0.0
        low, _, high = quantiles(figures, n=4)
        return 50 * (high - low) / median(figures)

    def contestants(self, row):
        """hnetd and the floor first, the others by name."""
        found = []
        for name in self.rows:
            key, who = name.split("/")[:2]
            if key == row and who not in found:
                found.append(who)
        return sorted(found, key=lambda who: ({"hnetd": 0, "floor": 1}.get(who, 2), who.lower()))

    def sizes(self, row):
        return sorted({int(name.split("/")[2]) for name in self.rows
                       if name.startswith(row + "/") and name.count("/") == 2}) or [None]

    def name(self, row, who, size=None):
        return f"{row}/{who}" + ("" if size is None else f"/{size}")

    def ratio(self, row, reference, size=None):
        """hnetd's median over that of a contestant, of another row, or of another size."""
        ours = self.median(self.name(row, "hnetd", size))
        if reference.startswith("/"):
            theirs = self.median(f"{row}/hnetd{reference}")
        elif "/" in reference:
            theirs = self.median(reference)
        else:
            theirs = self.median(self.name(row, reference, size))
        return ours / theirs if ours and theirs else None

    def busy(self):
        """How much longer single-threaded rows took than their CPU time: who else ran here."""
        shares = [median(row["real"]) / median(row["cpu"]) for row in self.rows.values()
                  if not row["wall"]]
        return median(shares) if shares else 1.0


def duration(ns):
    for unit, size in ("s ", 1e9), ("ms", 1e6), ("µs", 1e3):
        if ns >= size:
            return f"{ns / size:.3g} {unit}"
    return f"{ns:.3g} ns"


def verdict(value, limit):
    return "met" if value <= limit * 1.0000001 else f"MISSED by {100 * (value / limit - 1):.0f} %"


def against(row, reference):
    """What a goal compares with, in words."""
    if reference.startswith("/"):
        return f"hnetd with {reference[1:]} {row.sizes}"
    return f"hnetd's {reference.split('/')[0]}" if "/" in reference else reference


def ratio_text(value):
    return f"{value:.2f}" if value < 10 else f"{value:.0f}"


class Table:
    def __init__(self, results):
        self.results = results
        self.lines = []
        self.verdicts = []  # (what, value, limit, met)

    def judge(self, what, value, limit):
        self.verdicts.append((what, value, limit, value <= limit * 1.0000001))
        return verdict(value, limit)

    def plain_row(self, row):
        results = self.results
        for who in results.contestants(row.key):
            name = results.name(row.key, who)
            line = (f"    {who:<28}{duration(results.median(name)):>9}"
                    f"  ±{results.spread(name):3.0f} %")
            value = None if who == "hnetd" else results.ratio(row.key, who)
            if value is not None:
                line += f"   {ratio_text(value):>6}"
                if who in row.goals:
                    limit = row.goals[who]
                    line += (f"   at most {ratio_text(limit)}: "
                             f"{self.judge(f'{row.title}: {who}', value, limit)}")
            self.lines.append(line)
        for reference, limit in row.goals.items():
            value = results.ratio(row.key, reference) if "/" in reference else None
            if value is not None:
                theirs = against(row, reference)
                said = self.judge(f"{row.title}: {theirs}", value, limit)
                self.lines.append(f"    {'over ' + theirs:<46}   {ratio_text(value):>6}"
                                  f"   at most {ratio_text(limit)}: {said}")

    def sized_row(self, row):
        results, sizes = self.results, self.results.sizes(row.key)
        self.lines.append(f"    {row.sizes:<28}" + "".join(f"{size:>9,}" for size in sizes))
        for who in results.contestants(row.key):
            names = [results.name(row.key, who, size) for size in sizes]
            there = [name for name in names if name in results.rows]
            cells = "".join(f"{duration(results.median(name)) if name in there else '':>9}"
                            for name in names)
            spread = max(results.spread(name) for name in there)
            self.lines.append(f"    {who:<28}{cells}  ±{spread:3.0f} %")
        for reference, limit in row.goals.items():
            self.sized_goal(row, reference, limit, sizes)

    def sized_goal(self, row, reference, limit, sizes):
        values = {size: self.results.ratio(row.key, reference, size) for size in sizes}
        values = {size: value for size, value in values.items() if value is not None}
        if not values:
            return
        label = f"over {against(row, reference)}"
        cells = "".join(f"{ratio_text(values[size]) if size in values else '':>9}"
                        for size in sizes)
        limits = limit if isinstance(limit, dict) else {size: limit for size in row.only or values}
        said = [self.judge(f"{row.title} ({size:,} {row.sizes}): {against(row, reference)}",
                           values[size], limits[size])
                for size in values if size in limits and reference != f"/{size}"]
        missed = [text for text in said if text != "met"]
        most = ", ".join(ratio_text(each) for each in dict.fromkeys(limits.values()))
        self.lines.append(f"    {label:<28}{cells}   at most {most}: "
                          f"{', '.join(missed) if missed else 'met'}")

    def section(self, title, rows):
        rows = [row for row in rows if self.results.contestants(row.key)]
        if not rows:
            return
        self.lines += ["", title, "=" * len(title)]
        for row in rows:
            self.lines.append(f"  {row.title}")
            if self.results.sizes(row.key) == [None]:
                self.plain_row(row)
            else:
                self.sized_row(row)

    def facts(self, facts):
        if not facts:
            return
        self.lines += ["", "Counted", "======="]
        for name, value in facts.items():
            what, _, operation = name.partition(".")
            if what != "allocations":
                continue
            limit = goals.ALLOCATIONS.get(operation, 0)
            title = f"allocations: {operation.replace('-', ' ')}"
            self.lines.append(f"    {title:<44}{value:>4g}   at most {limit}: "
                              f"{'met' if value <= limit else 'MISSED'}")
            self.verdicts.append((title, value, limit, value <= limit))
        before, after = facts["deletions.before-kib"], facts["deletions.after-kib"]
        grown = after - before
        title = "resident memory, 10,000 deleted tasks later"
        self.lines.append(f"    {title:<44}{grown:>+4.0f} KiB of {before:.0f}   at most "
                          f"+{goals.LEFT_KIB}: "
                          f"{'met' if grown <= goals.LEFT_KIB else 'MISSED'}")
        self.verdicts.append((title, grown, goals.LEFT_KIB, grown <= goals.LEFT_KIB))

    def idle(self, idle):
        if not idle:
            return
        busy = self.results.busy_machine
        self.lines += ["", "The idle daemon", "==============="]

        def line(title, ours, floor, goal, value, limit):
            self.lines.append(f"    {title:<40}{ours:>12}   floor {floor:<10} {goal}: "
                              f"{self.judge(title, value, limit)}")

        def mid(name):
            return min(idle[name]) if busy and name.startswith("start") else median(idle[name])

        line("resident memory", f"{mid('rss.hnetd'):.0f} KiB", f"{mid('rss.floor'):.0f} KiB",
             f"at most {goals.RSS_KIB} KiB", mid("rss.hnetd"), goals.RSS_KIB)
        share = mid("cpu.hnetd") / mid("cpu.floor")
        line("share of a CPU", f"{100 * mid('cpu.hnetd'):.3f} %",
             f"{100 * mid('cpu.floor'):.3f} %",
             f"{share:.2f}, at most {goals.CPU_RATIO}", share, goals.CPU_RATIO)
        line("from start to hnetInit", f"{mid('start.hnetd'):.2f} ms",
             f"{mid('start.floor'):.2f} ms", f"at most {goals.START_MS:g} ms",
             mid("start.hnetd"), goals.START_MS)
        late = idle["lateness"]
        mean = sum(late) / len(late)
        line("software timers late, on average", f"{mean:.1f} ms", "-",
             f"at most {goals.LATE_MS:g} ms", mean, goals.LATE_MS)
        self.lines.append(f"    {len(late)} timers, from {min(late):.1f} to {max(late):.1f} ms; "
                          "before time: the pump counts a cycle whole")


def make(result, busy_machine=False):
    """The table as text, and the verdicts."""
    results = Results(result, busy_machine)
    table = Table(results)
    for title, rows in goals.SECTIONS.items():
        table.section(title, rows)
    table.facts(result["facts"])
    table.idle(result["idle"])
    for error in sorted(set(result["errors"])):
        table.lines.append(f"FAILED {error}")

    head = [result["machine"],
            f"{result['date']}, {result['elapsed']:.0f} s, rows in random order, the contestants "
            "of each interleaved at random;",
            "median, half the distance between the quartiles (±), and hnetd's median over the "
            "other's."]
    if busy_machine:
        head.append("A busy machine: CPU time throughout, and the fastest repetition instead of "
                    "the median.")
    elif results.busy() > 1.03:
        head.append(f"THE MACHINE WAS BUSY: rows took {results.busy():.2f} times their CPU time. "
                    "Rows of several threads mean little.")
    met = sum(1 for each in table.verdicts if each[3])
    tail = ["", f"Goals: {met} of {len(table.verdicts)} met."]
    for what, value, limit, is_met in table.verdicts:
        if not is_met:
            tail.append(f"    missed: {what}: {ratio_text(value)} instead of {ratio_text(limit)}")
    return "\n".join(head + table.lines + tail) + "\n", table.verdicts
