"""How cost grows with the amount of work: group growth."""

import math

from .google_bench import run_benchmarks
from .plots import growth_plot
from .report import number
from .running import Failed

# Times waver; a real power of n that is above n log n goes far beyond this.
TOLERANCE = 0.15
REPETITIONS = 2  # of which the faster counts: memory that is new to the system costs the first more
LINEAR, N_LOG_N, LOG_N = "n", "n log n", "log n"

# Program, its benchmarks with N for the amount, the largest power of ten in a quick run, and what
# they do: a title, and how it may grow.
SERIES = [
    ("chain", "^(OpenChain|WarmReads)/N$", 2, {
        "OpenChain": ("open a chain", LINEAR), "WarmReads": ("one warm read of 4 KiB", N_LOG_N)}),
    ("read", "^ReadOfSingleSectors/N$", 4, {
        "ReadOfSingleSectors": ("one read of n pieces", N_LOG_N)}),
    ("chunks", "/N$", 4, {
        "Write": ("write a file", N_LOG_N), "Open": ("open a file", N_LOG_N),
        "RandomReads": ("one random read", LOG_N)}),
    ("sparse", "^Random(Writes|Reads)/N/", 4, {
        "RandomWrites/1000": ("write n extents, cache of 1,000 nodes", N_LOG_N),
        "RandomWrites/65535": ("write n extents, cache of 65,535 nodes", N_LOG_N),
        "RandomReads/1000": ("one random read, cache of 1,000 nodes", LOG_N),
        "RandomReads/65535": ("one random read, cache of 65,535 nodes", LOG_N)}),
    ("enumeration", "^AddDirectory/N$", 3, {"AddDirectory": ("scan a folder", N_LOG_N)}),
]
AXES = {"chain": "files in a chain", "read": "pieces in a request", "chunks": "chunks in a file",
        "sparse": "extents in a sparse file", "enumeration": "files in a catalogue"}


def growth(setting, report, _volumes):
    section = report.section("Growth")
    section.text(
        "How much longer it takes with more of everything. The exponent is the slope of the last "
        "decade of the series (time of all the work against its amount, both logarithmic): 1 is "
        "linear, 0 independent of the amount, n log n somewhat above 1, log n somewhat above 0. The "
        f"goal leaves {TOLERANCE} for times that waver.")
    rows, plots = [], []
    for program in SERIES:
        try:
            rows += series_of(setting, report, *program)
            plots.append(program[0])
        except Failed as problem:
            report.lost(f"growth.{program[0]}", f"growth by {AXES[program[0]]}", problem)
    section.table(["work", "n", "seconds at each n", "exponent", "it may be"], rows)
    for name in plots:
        section.plot(f"growth-{name}.png", f"growth with the number of {AXES[name]}")


def series_of(setting, report, program, pattern, quick_limit, titles):
    amounts = f"10{{0,{quick_limit}}}" if setting.quick else "10*"
    measured = run_benchmarks(setting, program, pattern.replace("N", amounts, 1), REPETITIONS, 0.05,
                              in_turn=False)
    lines = {}
    for name, each in measured.items():
        benchmark, amount, *others = name.split("/")
        benchmark = "/".join([benchmark, *others])
        title, bound = titles[benchmark]
        lines.setdefault((benchmark, title, bound), []).append((int(amount), each.best_seconds))
    growth_plot(setting, f"growth-{program}", AXES[program],
                {title: points for (_, title, _), points in lines.items()})
    rows = []
    for (benchmark, title, bound), points in lines.items():
        exponent, allowed = slopes(points, bound)
        rows.append([f"{title} ({AXES[program]})", f"{points[0][0]:,} .. {points[-1][0]:,}",
                     ", ".join(f"{seconds:.2g}" for _, seconds in points), number(exponent),
                     f"{bound}: {number(allowed)}"])
        report.at_most(f"growth.{program}.{benchmark}",
                       f"{title}, by {AXES[program]}: exponent", exponent, allowed + TOLERANCE)
    return rows


def slopes(points, bound):
    """The exponent over the last decade, and what the bound comes to there."""
    (first, first_seconds), (last, last_seconds) = points[-2:]
    decades = math.log10(last / first)
    log_growth = math.log10(math.log(last) / math.log(first)) / decades
    allowed = {LINEAR: 1, N_LOG_N: 1 + log_growth, LOG_N: log_growth}[bound]
    return math.log10(last_seconds / first_seconds) / decades, allowed
