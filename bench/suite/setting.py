"""What a run of the benchmarks is given: folders, number of runs, and the machine as it is."""

import os
import platform
import shutil
import subprocess
import tempfile
from dataclasses import dataclass
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
BUILD = ROOT / "build"
KQIMAGE = BUILD / "kqimage"
IN_MEMORY = Path("/dev/shm")
GIB = 1 << 30


@dataclass
class Setting:
    folder: Path  # of this run alone, on a file system with enough room; removed at the end
    runs: int
    quick: bool
    volume_mib: int
    plots: Path


def bench_program(name):
    return BUILD / "bench" / f"{name}_bench"


def room_needed(volume_mib):
    """Bytes: two volumes, an image of one by each program, and what is being measured."""
    return 8 * volume_mib * (1 << 20) + 2 * GIB


def make_folder(chosen, volume_mib):
    """A new folder below the chosen one, else in memory if there is room, so that programs are
    measured and not the disk."""
    needed = room_needed(volume_mib)
    candidates = [Path(chosen)] if chosen else [IN_MEMORY, Path(tempfile.gettempdir())]
    for parent in candidates:
        if parent.is_dir() and shutil.disk_usage(parent).free >= needed:
            return Path(tempfile.mkdtemp(prefix="kqimage-bench-", dir=parent))
    raise SystemExit(f"{needed / GIB:.0f} GiB are needed in {' or '.join(map(str, candidates))}")


def first_line(command):
    """What a command says of itself, or None if there is no such command."""
    try:
        done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    except OSError:
        return None
    return next((line.strip() for line in done.stdout.splitlines() if line.strip()), "")


def package_version(name):
    return first_line(["dpkg-query", "-W", "-f=${Version}", name]) or "missing"


def cpu_model():
    with open("/proc/cpuinfo", encoding="ascii") as lines:
        for line in lines:
            if line.startswith("model name"):
                return line.split(":", 1)[1].strip()
    return platform.machine()


def memory_gib():
    return os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGE_SIZE") / GIB


def machine_facts(setting):
    """Rows (what, value) for the head of the results."""
    file_system = first_line(["stat", "-f", "-c", "%T", str(setting.folder)])
    load = os.getloadavg()[0]
    facts = [
        ("Processor", f"{cpu_model()}, {os.cpu_count()} processors"),
        ("Memory", f"{memory_gib():.0f} GiB"),
        ("System", f"{platform.freedesktop_os_release()['PRETTY_NAME']}, "
                   f"Linux {platform.release().split('-')[0]}"),
        ("Compiler", first_line(["c++", "--version"])),
        ("Revision", first_line(["git", "-C", str(ROOT), "describe", "--always", "--dirty"])),
        ("Files", f"on {file_system}, {setting.runs} runs, volumes of {setting.volume_mib} MiB"),
        ("Load at the start", f"{load:.1f}"),
    ]
    peers = ["qemu-utils", "ewf-tools", "lzop", "coreutils", "liblzo2-2", "libssl3"]
    facts.append(("Peers", ", ".join(f"{name} {package_version(name)}" for name in peers)))
    return facts
