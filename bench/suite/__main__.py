"""The driver behind scripts/bench, which installs and builds before."""

import argparse
import os
import resource
import shutil
import sys
import time

from . import growth, increments, inside, memory, random_reads, whole_volumes
from .report import Report, read_remarks, render
from .running import Failed
from .setting import BUILD, ROOT, Setting, machine_facts, make_folder
from .volumes import Volumes

GROUPS = {
    "create": whole_volumes.create,
    "restore": whole_volumes.restore,
    "cipher": whole_volumes.cipher,
    "increment": increments.increment,
    "random": random_reads.random_reads,
    "mount": random_reads.mounted,
    "inside": inside.inside,
    "growth": growth.growth,
    "memory": memory.memory,
}


def parse_arguments():
    parser = argparse.ArgumentParser(
        prog="scripts/bench",
        description="Measures everything side by side with its peers in one run and writes "
                    "bench/RESULTS.md. A quick run, or one of single groups, writes "
                    "build/bench-results/RESULTS.md instead.")
    parser.add_argument("--quick", action="store_true",
                        help="volumes of 256 MiB, two runs, smaller amounts")
    parser.add_argument("--only", action="append", choices=GROUPS, metavar="GROUP",
                        help=f"only this group; may be given again: {', '.join(GROUPS)}")
    parser.add_argument("--runs", type=int, help="of each contender (5, quick: 2)")
    parser.add_argument("--folder", metavar="DIR",
                        help="for the files (/dev/shm, which is memory, if there is room)")
    return parser.parse_args()


def main():
    arguments = parse_arguments()
    volume_mib = 256 if arguments.quick else 1024
    partial = arguments.quick or arguments.only
    results = BUILD / "bench-results" if partial else ROOT / "bench"
    setting = Setting(make_folder(arguments.folder, volume_mib),
                      arguments.runs or (2 if arguments.quick else 5), arguments.quick, volume_mib,
                      results / "plots")
    # A chain of a thousand files has them all open.
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    try:
        measure_all(setting, arguments.only or list(GROUPS), results)
    finally:
        shutil.rmtree(setting.folder)


def children_cpu_seconds():
    now = os.times()
    return now.children_user + now.children_system


def measure_all(setting, groups, results):
    start = time.monotonic()
    facts = machine_facts(setting)
    volumes = Volumes(setting)
    report = Report()
    for name in groups:
        began, cpu = time.monotonic(), children_cpu_seconds()
        try:
            GROUPS[name](setting, report, volumes)
        except Failed as problem:
            report.lost(f"group.{name}", f"all of group {name}", problem)
        print(f"{name}: {time.monotonic() - began:.0f} s, of processors "
              f"{children_cpu_seconds() - cpu:.0f} s", flush=True)
    facts += [("Made", time.strftime("%Y-%m-%d %H:%M")),
              ("Took", f"{(time.monotonic() - start) / 60:.1f} minutes without the build")]
    results.mkdir(parents=True, exist_ok=True)
    text = render(report, facts, read_remarks(ROOT / "bench" / "remarks.txt"))
    (results / "RESULTS.md").write_text(text, encoding="utf-8")
    met, goals = sum(goal.met is True for goal in report.goals), len(report.goals)
    print(f"{results / 'RESULTS.md'}: {met} of {goals} goals are met")


sys.exit(main())
