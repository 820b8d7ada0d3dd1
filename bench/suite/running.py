"""Runs programs in turn (A B C A B C ...) and keeps what each run took."""

import glob
import os
import shutil
import statistics
import subprocess
import tempfile
import threading
import time
from dataclasses import dataclass, field

LONGEST_RUN_SECONDS = 900


class Failed(Exception):
    """A program is missing or has failed; the text says which and how."""


@dataclass
class Run:
    seconds: float
    cpu_seconds: float
    output: str  # what it has printed


@dataclass
class Contender:
    """A command to measure. Outputs are removed with all files whose names begin with theirs,
    before each run and behind it."""

    name: str
    command: list
    outputs: list = field(default_factory=list)
    note: str = ""  # what it does that the others don't
    accepts: tuple = (0,)  # exit statuses
    keep: bool = False  # the outputs of the last run


@dataclass
class Samples:
    """What the runs of one contender took, or why there are none."""

    name: str
    note: str = ""
    runs: list = field(default_factory=list)
    output_bytes: int = 0
    failure: str = None

    @property
    def values(self):
        return [run.seconds for run in self.runs]

    @property
    def median(self):
        return None if self.failure or not self.runs else statistics.median(self.values)

    @property
    def cpu(self):
        return statistics.median(run.cpu_seconds for run in self.runs)


def run_command(command, accepts=(0,)):
    """Runs a command to its end. Raises Failed with the last line it said if it does not succeed."""
    command = [str(word) for word in command]
    if shutil.which(command[0]) is None:
        raise Failed(f"{os.path.basename(command[0])} is missing")
    with tempfile.TemporaryFile() as output, tempfile.TemporaryFile() as errors:
        before = os.times()
        start = time.perf_counter()
        try:
            program = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output,
                                       stderr=errors)
        except OSError as problem:
            raise Failed(f"failed: {problem}") from problem
        # A wait with a limit looks only every 50 ms whether the program has ended.
        limit = threading.Timer(LONGEST_RUN_SECONDS, program.kill)
        limit.start()
        try:
            status = program.wait()
            seconds = time.perf_counter() - start
        finally:
            program.kill()
            limit.cancel()
        after = os.times()
        if status not in accepts:
            raise Failed(f"failed with {status}: {last_line(errors) or last_line(output)}")
        output.seek(0)
        printed = output.read().decode(errors="replace")
    cpu = (after.children_user - before.children_user
           + after.children_system - before.children_system)
    return Run(seconds, cpu, printed)


def last_line(file):
    file.seek(0)
    lines = file.read().decode(errors="replace").splitlines()
    return next((line.strip()[:160] for line in reversed(lines) if line.strip()), "")


def outputs_of(names):
    """All files whose names begin with one of the given ones."""
    return [path for name in names for path in glob.glob(glob.escape(str(name)) + "*")]


def remove_outputs(names):
    for path in outputs_of(names):
        os.unlink(path)


def output_bytes(names):
    return sum(os.stat(path).st_blocks * 512 for path in outputs_of(names))


def read_once(*paths):
    """Brings files into the page cache."""
    for path in paths:
        with open(path, "rb", buffering=0) as file:
            while file.read(1 << 20):
                pass


def measure_in_turn(contenders, runs, check=None):
    """Gives the Samples of each contender by name. One that fails is left alone from then on.
    check(contender) is called behind each one's first run and may raise Failed."""
    results = {contender.name: Samples(contender.name, contender.note) for contender in contenders}
    for number in range(runs):
        for contender in contenders:
            samples = results[contender.name]
            if samples.failure:
                continue
            remove_outputs(contender.outputs)
            try:
                samples.runs.append(run_command(contender.command, contender.accepts))
                if number == 0 and check:
                    check(contender)
            except Failed as problem:
                samples.failure = str(problem)
            samples.output_bytes = output_bytes(contender.outputs)
            if not contender.keep:
                remove_outputs(contender.outputs)
    return results


def same_bytes(path, expected):
    if subprocess.run(["cmp", "-s", str(path), str(expected)], check=False).returncode != 0:
        raise Failed("failed: the result differs from the volume")
