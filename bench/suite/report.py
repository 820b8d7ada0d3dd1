"""Collects tables, goals and plots, and writes them as a Markdown document."""

from dataclasses import dataclass, field

from .running import Samples


TEXT_COLUMNS = {"remark", "what it does besides"}


@dataclass
class Goal:
    key: str  # by which bench/remarks.txt knows it
    what: str
    bound: str
    measured: str
    met: object  # True, False, or None if it could not be measured


@dataclass
class Section:
    title: str
    parts: list = field(default_factory=list)  # Markdown paragraphs and tables in their order

    def text(self, paragraph):
        self.parts.append(paragraph)

    def table(self, columns, rows):
        marks = ["---" if column in TEXT_COLUMNS else "---:" for column in columns[1:]]
        lines = ["| " + " | ".join(columns) + " |", "|" + "|".join(["---", *marks]) + "|"]
        lines += ["| " + " | ".join(str(cell) for cell in row) + " |" for row in rows]
        self.parts.append("\n".join(lines))

    def plot(self, name, caption):
        self.parts.append(f"![{caption}](plots/{name})")


class Report:
    def __init__(self):
        self.sections = []
        self.goals = []

    def section(self, title):
        self.sections.append(Section(title))
        return self.sections[-1]

    def at_least(self, key, what, value, bound, unit=""):
        self._goal(key, what, "at least", value, bound, unit, lambda: value >= bound)

    def at_most(self, key, what, value, bound, unit=""):
        self._goal(key, what, "at most", value, bound, unit, lambda: value <= bound)

    def lost(self, key, what, problem):
        """Goals that could not be measured, all in one."""
        self.goals.append(Goal(key, what, "", str(problem), None))

    def _goal(self, key, what, relation, value, bound, unit, holds):
        measured = "not measured" if value is None else f"{number(value)}{unit}"
        met = None if value is None else holds()
        self.goals.append(Goal(key, what, f"{relation} {number(bound)}{unit}", measured, met))


def number(value):
    """Three significant digits, without an exponent."""
    if value is None:
        return "-"
    size = abs(value)
    if size >= 100:
        return f"{value:,.0f}"
    if size >= 10:
        return f"{value:.1f}"
    return f"{value:.2f}" if size >= 0.1 or size == 0 else f"{value:.2g}"


def spread(values, scale=1):
    return f"{number(min(values) * scale)} .. {number(max(values) * scale)}"


def ratio(samples, other):
    """How many times the other's median is this one's, or None."""
    if samples.median is None or other.median is None:
        return None
    return other.median / samples.median


def contest(section, results, ours: Samples, volume_mib):
    """The table of a contest between programs on one volume."""
    rows = []
    for samples in results.values():
        if samples.median is None:
            rows.append([samples.name, samples.failure] + [""] * 5 + [samples.note])
            continue
        rows.append([
            samples.name, number(samples.median), spread(samples.values), number(samples.cpu),
            number(volume_mib / samples.median), f"{samples.output_bytes / 2**20:,.0f}",
            "1" if samples is ours else number(ratio(ours, samples)), samples.note])
    section.table(["program", "median s", "min .. max", "CPU s", "MiB/s", "output MiB",
                   "times ours", "what it does besides"], rows)


def read_remarks(path):
    """Remarks by the key of their goal: lines "key: text", further lines of a text indented."""
    remarks, key = {}, None
    for line in path.read_text(encoding="utf-8").splitlines():
        if not line.strip() or line.startswith("#"):
            continue
        if line[0].isspace() and key:
            remarks[key] += " " + line.strip()
        else:
            key, _, text = line.partition(":")
            remarks[key] = text.strip()
    return remarks


def goal_rows(goals, remarks):
    said = {True: "yes", False: "**no**", None: "not measured"}
    for goal in goals:
        missing = f"no remark yet (`{goal.key}`)" if goal.met is False else ""
        remark = "" if goal.met else remarks.get(goal.key, missing)
        yield [goal.what, goal.bound, goal.measured, said[goal.met], remark]


def render(report, facts, remarks):
    head = Section("Results")
    head.text("Made by `scripts/bench`, which measures everything side by side in one run; see "
              "[Measuring](../docs/performance.md#measuring). Don't edit: remarks on missed goals "
              "come from `remarks.txt`.")
    head.table(["", ""], facts)
    goals = Section("Goals")
    met = sum(goal.met is True for goal in report.goals)
    goals.text(f"{met} of {len(report.goals)} are met.")
    goals.table(["what", "goal", "measured", "met", "remark"], goal_rows(report.goals, remarks))
    lines = ["# Results", "", "\n\n".join(head.parts)]
    for section in [goals] + report.sections:
        lines += ["", f"## {section.title}", "", "\n\n".join(section.parts)]
    return "\n".join(lines) + "\n"
