"""Random reads of 4 KiB: of chains beside qcow2 (group random), through a mount (group mount)."""

import json
import mmap
import os
import random
import statistics
import subprocess
import time

from .report import number, spread
from .running import Failed, run_command
from .setting import KQIMAGE, bench_program
from .volumes import SEED
from .whole_volumes import kqimage_create

BLOCK = 4096
WARM_BYTES = 8 << 20
MOUNTED_READS = 100_000
MOUNT_SECONDS = 30


def random_reads(setting, report, volumes):
    section = report.section("Random reads of 4 KiB")
    section.text(
        "Microseconds a read, from chains of so many files and qcow2 files with as many backing "
        "files, of the volume's first 256 MiB. Cold reads go anywhere in it, and mostly need a chunk "
        "(1 MiB here, a cluster of 64 KiB there) decoded; warm ones go to 8 MiB that have been read "
        "before. qemu-io's times include reading its commands from a pipe, which alone takes what "
        "the last column tells. Opening the files is not included.")
    depths = [1, 5] if setting.quick else [1, 5, 50]
    rounds = collect_rounds(setting, volumes.files, depths)
    columns = ["cold", "qcow2Cold", "warm", "qcow2Warm", "commands"]
    rows = []
    for (depth, compressed), lines in rounds.items():
        cells = [f"{statistics.median(values):.2f} ({spread(values)})"
                 for values in ([line[column] for line in lines] for column in columns)]
        rows.append([f"{depth}, {'lzo / zstd' if compressed else 'none / none'}", *cells])
        report.at_most(f"random.warm.{depth}.{'lzo' if compressed else 'none'}",
                       f"warm read of 4 KiB, {depth} files, {'lzo' if compressed else 'none'}",
                       statistics.median(line["warm"] for line in lines), 1, " us")
    section.table(["files, compression", "cold", "qcow2 cold", "warm", "qcow2 warm",
                   "qemu-io's commands"], rows)


def collect_rounds(setting, files, depths):
    os.environ["KQ_BENCH_FOLDER"] = str(setting.folder)
    said = run_command([bench_program("random_read"), files, setting.runs, *depths]).output
    rounds = {}
    for line in said.splitlines():
        measured = json.loads(line)
        rounds.setdefault((measured["depth"], measured["compressed"]), []).append(measured)
    return rounds


def mounted(setting, report, volumes):
    section = report.section("Reads through a mount")
    section.text(
        "Random reads of 4 KiB a second from the file that `kqimage mount` shows, by one thread, in "
        "8 MiB that have been read before: as programs read it, where the kernel keeps what it has "
        "read, and with O_DIRECT, where each read is the client's.")
    image, folder = setting.folder / "mounted.twf", setting.folder / "mountpoint"
    run_command(kqimage_create(volumes.files, image))
    folder.mkdir()
    try:
        rates = mounted_rates(setting, image, folder)
    except Failed as problem:
        section.text(f"Not measured: {problem}")
        rates = {}
    finally:
        image.unlink()
        folder.rmdir()
    section.table(["reads", "median a second", "min .. max"],
                  [[name, number(statistics.median(values)), spread(values)]
                   for name, values in rates.items()])
    for name in ("through the page cache", "O_DIRECT"):
        values = rates.get(name)
        report.at_least(f"mount.{name}", f"mounted, reads of 4 KiB a second, {name}",
                        statistics.median(values) if values else None, 50_000)


def mounted_rates(setting, image, folder):
    volume = folder / "volume"
    client = subprocess.Popen([KQIMAGE, "mount", "--foreground", "--quiet", image, folder],
                              stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL)
    try:
        end = time.monotonic() + MOUNT_SECONDS
        while not volume.exists():
            if client.poll() is not None or time.monotonic() > end:
                raise Failed("kqimage mount has failed; it needs /dev/fuse")
            time.sleep(0.01)
        rates = {"through the page cache": [], "O_DIRECT": []}
        for _ in range(setting.runs):
            rates["through the page cache"].append(reads_a_second(volume, 0))
            rates["O_DIRECT"].append(reads_a_second(volume, os.O_DIRECT))
        return rates
    except OSError as problem:
        raise Failed(str(problem)) from problem
    finally:
        subprocess.run(["fusermount3", "-u", folder], check=False, stderr=subprocess.DEVNULL)
        if client.poll() is None:
            client.wait(MOUNT_SECONDS)


def reads_a_second(path, flags):
    source = random.Random(SEED)
    offsets = [source.randrange(WARM_BYTES // BLOCK) * BLOCK for _ in range(MOUNTED_READS)]
    block = mmap.mmap(-1, BLOCK)  # at the address that a direct transfer needs
    file = os.open(path, os.O_RDONLY | flags)
    try:
        for offset in range(0, WARM_BYTES, BLOCK):
            os.preadv(file, [block], offset)
        start = time.perf_counter()
        for offset in offsets:
            os.preadv(file, [block], offset)
        return len(offsets) / (time.perf_counter() - start)
    finally:
        os.close(file)
