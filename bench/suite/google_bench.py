"""Runs the project's Google Benchmark programs and reads what they print."""

import json
import os
import statistics

from .running import Failed, run_command
from .setting import bench_program

UNIT_SECONDS = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}


class Measured:
    """All repetitions of one benchmark. Seconds are processor time: nothing here waits."""

    def __init__(self):
        self.seconds = []
        self.records = []

    def add(self, record):
        self.seconds.append(record["cpu_time"] * UNIT_SECONDS[record["time_unit"]])
        self.records.append(record)

    @property
    def median_seconds(self):
        return statistics.median(self.seconds)

    @property
    def best_seconds(self):
        return min(self.seconds)

    def median(self, counter):
        return statistics.median(record[counter] for record in self.records)


def run_benchmarks(setting, name, pattern, repetitions=None, min_time=None, in_turn=True):
    """Gives Measured by the benchmark's name. The repetitions of all benchmarks take turns, unless
    they are not compared. Raises Failed."""
    result = setting.folder / f"{name}.json"
    command = [bench_program(name), f"--benchmark_filter={pattern}",
               f"--benchmark_out={result}", "--benchmark_out_format=json"]
    if repetitions:
        command += [f"--benchmark_repetitions={repetitions}",
                    f"--benchmark_enable_random_interleaving={str(in_turn).lower()}"]
    if min_time:
        command.append(f"--benchmark_min_time={min_time}")
    os.environ["KQ_BENCH_FOLDER"] = str(setting.folder)
    run_command(command)
    measured = {}
    for record in json.loads(result.read_text(encoding="utf-8"))["benchmarks"]:
        if record.get("run_type") == "aggregate":
            continue
        base = record.get("run_name", record["name"])
        if record.get("error_occurred"):
            raise Failed(f"{base}: {record['error_message']}")
        measured.setdefault(base, Measured()).add(record)
    if not measured:
        raise Failed(f"{name}_bench has no benchmark {pattern}")
    return measured
