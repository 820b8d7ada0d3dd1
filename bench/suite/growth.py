"""How cost grows with the amount of work: group growth."""

import math

from .google_bench import run_benchmarks
from .plots import growth_plot
from .report import number
from .running import Failed

# Times waver; a real power of n that is above n log n goes far beyond this.
TOLERANCE = 0.15


def growth(setting, report, _volumes):
    section = report.section("Growth")
    section.text(
        "How much longer it takes with more of everything. The exponent is the slope of the last "
        "decade of the series (time of all the work against its amount, both logarithmic): 1 is "
        "linear, 0 independent of the amount. n log n makes up to some 0.1 more than 1; "
        f"what is above n log n by more than {TOLERANCE} misses its goal.")
    rows = []
    for program in SERIES:
        try:
            rows += series_of(setting, report, *program)
        except Failed as problem:
            rows.append([program[0], f"not measured: {problem}", "", "", ""])
    section.table(["work", "n", "seconds at each n", "exponent", "n log n would be"], rows)
    for name, _, _, _ in SERIES:
        section.plot(f"growth-{name}.png", f"growth with the number of {AXES[name]}")


# Program, its benchmarks with N for the amount, the largest power of ten in a quick run, and what
# they do: a title, and whether that should hardly depend on the amount.
SERIES = [
    ("chain", "^(OpenChain|WarmReads)/N$", 2, {
        "OpenChain": ("open a chain", False), "WarmReads": ("one warm read of 4 KiB", False)}),
    ("read", "^ReadOfSingleSectors/N$", 4, {
        "ReadOfSingleSectors": ("one read of n pieces", False)}),
    ("chunks", "/N$", 4, {
        "Write": ("write a file", False), "Open": ("open a file", False),
        "RandomReads": ("one random read", True)}),
    ("sparse", "^Random(Writes|Reads)/N/1000$", 4, {
        "RandomWrites": ("write n extents at random", False),
        "RandomReads": ("one random read", True)}),
    ("enumeration", "^AddDirectory/N$", 3, {"AddDirectory": ("scan a folder", False)}),
]
AXES = {"chain": "files in a chain", "read": "pieces in a request", "chunks": "chunks in a file",
        "sparse": "extents in a sparse file", "enumeration": "files in a catalogue"}


def series_of(setting, report, program, pattern, quick_limit, titles):
    amounts = f"10{{0,{quick_limit}}}" if setting.quick else "10*"
    measured = run_benchmarks(setting, program, pattern.replace("N", amounts, 1), min_time=0.1)
    lines = {}
    for name, each in measured.items():
        benchmark, amount = name.split("/")[:2]
        title, single = titles[benchmark]
        lines.setdefault((benchmark, title, single), []).append((int(amount), each.median_seconds))
    growth_plot(setting, f"growth-{program}", AXES[program],
                {title: points for (_, title, _), points in lines.items()})
    rows = []
    for (benchmark, title, single), points in lines.items():
        exponent, allowed = slopes(points, single)
        rows.append([f"{title} ({AXES[program]})", f"{points[0][0]:,} .. {points[-1][0]:,}",
                     ", ".join(f"{seconds:.2g}" for _, seconds in points), number(exponent),
                     number(allowed)])
        report.at_most(f"growth.{program}.{benchmark}",
                       f"{title}, by {AXES[program]}: exponent", exponent, allowed + TOLERANCE)
    return rows


def slopes(points, single):
    """The exponent over the last decade, and what n log n comes to there. For single operations
    the growth allowed is that of log n."""
    (first, first_seconds), (last, last_seconds) = points[-2:]
    decades = math.log10(last / first)
    log_growth = math.log10(math.log(last) / math.log(first)) / decades
    exponent = math.log10(last_seconds / first_seconds) / decades
    return exponent, log_growth if single else 1 + log_growth
