"""The parts of the library beside their peers, through the programs of bench/: group inside."""

import os
import statistics

from .google_bench import run_benchmarks
from .report import number, spread
from .running import Failed, run_command
from .setting import bench_program

COLUMNS = ["part", "ours", "peer", "ratio", "min .. max of ours"]


def inside(setting, report, volumes):
    section = report.section("Parts of the library")
    section.text("Medians in MB/s of processor time, ours and the peer's in turn; a ratio above 1 is "
                 "in our favour. KQNewImageFileWrite and overlays by the clock.")
    rows = []
    for measure in (lzo, huffman, aes, zeros, sequential_reads, split_chains, new_images,
                    conversions, overlays):
        try:
            rows += measure(setting, report, volumes)
        except Failed as problem:
            part = measure.__name__
            report.lost(f"inside.{part}", part.replace("_", " "), problem)
    section.table(COLUMNS, rows)


def rates(measured):
    return [record["bytes_per_second"] / 1e6 for record in measured.records]


def row(what, ours, peers=None):
    """A row of the table from both sides' rates in MB/s."""
    mine = statistics.median(ours)
    if not peers:
        return [what, number(mine), "", "", spread(ours)]
    theirs = statistics.median(peers)
    return [what, number(mine), number(theirs), number(mine / theirs), spread(ours)]


def lzo(setting, report, _volumes):
    measured = run_benchmarks(setting, "codec", "^Lzo")
    rows = []
    for name, each in measured.items():
        if "Lzo1x_1" in name:
            continue
        verb, data = name.split("/")[:2]
        what = f"LZO {verb.removeprefix('Lzo').lower()}, {data}"
        ratio = each.median("ratio")
        mega = 2**20 / 1e6
        rows.append([what, number(each.median("MiBps") * mega),
                     number(each.median("peerMiBps") * mega), number(ratio), ""])
        if data == "Noise":
            continue
        if verb == "LzoCompress":
            report.at_least(f"inside.{verb}.{data}", f"{what}: speed to lzo1x_1_15", ratio, 1)
        else:
            report.at_least(f"inside.{verb}.{data}", f"{what}: speed to lzo1x_decompress_safe",
                            ratio, 1.8)
    return rows


def huffman(setting, report, _volumes):
    measured = run_benchmarks(setting, "huffman", ".", setting.runs, 0.1)
    rows = []
    for name, each in measured.items():
        verb, data = name.split("/")[:2]
        rows.append(row(f"Huffman {verb.lower()}, {data}", rates(each)))
        report.at_least(f"inside.Huffman.{verb}.{data}", f"Huffman {verb.lower()}, {data}",
                        statistics.median(rates(each)), 700 if verb == "Decode" else 500, " MB/s")
    return rows


def aes(setting, report, _volumes):
    measured = run_benchmarks(setting, "crypto", "^Cbc(De|En)crypt(Libcrypto)?/", setting.runs, 0.1)
    rows = []
    for bits in (128, 256):
        for verb in ("CbcDecrypt", "CbcEncrypt"):
            ours = rates(measured[f"{verb}/{bits}"])
            peers = rates(measured[f"{verb}Libcrypto/{bits}"])
            what = f"AES-{bits} CBC {verb.removeprefix('Cbc').lower()}"
            rows.append(row(what, ours, peers))
            if verb == "CbcDecrypt":
                report.at_least(f"inside.aes.{bits}", f"{what}: speed to libcrypto",
                                statistics.median(ours) / statistics.median(peers), 1)
    return rows


def zeros(setting, report, _volumes):
    measured = run_benchmarks(setting, "codec", "^AllZero", setting.runs, 0.1)
    rows = []
    for size in (1 << 20, 64 << 20):
        ours = rates(measured[f"AllZero/{size}"])
        peers = rates(measured[f"AllZeroMemchr/{size}"])
        what = f"zero test, {size >> 20} MiB"
        rows.append(row(what, ours, peers))
        report.at_least(f"inside.zero.{size >> 20}", f"{what}: speed to memchr",
                        statistics.median(ours) / statistics.median(peers), 1)
    return rows


def sequential_reads(setting, report, _volumes):
    measured = run_benchmarks(setting, "read", "^Sequential|^WarmSmallRead", setting.runs, 0.2)
    ours = rates(measured["SequentialRead"])
    peers = rates(measured["SequentialPread"])
    report.at_least("inside.sequential", "sequential read without compression: speed to pread",
                    statistics.median(ours) / statistics.median(peers), 0.5)
    warm = measured["WarmSmallRead/4096"].median_seconds * 1e6
    report.at_most("inside.warm", "warm read of 4 KiB, ascending", warm, 1, " us")
    return [row("sequential read, none, to pread", ours, peers)]


def split_chains(setting, report, _volumes):
    """The same data in thirty files, each with every thirtieth piece, and in one."""
    measured = run_benchmarks(setting, "chain", "^ReadSplit", setting.runs, 0.2)
    rows = []
    for compression in ("none", "lzo"):
        for piece in (8 << 20, 1 << 20, 64 << 10):
            name = f"ReadSplit/{compression}/files:%d/piece:{piece}"
            thirty, one = rates(measured[name % 30]), rates(measured[name % 1])
            what = f"{compression}, 30 files with every 30th {piece >> 10} KiB"
            rows.append(row(f"{what}, to one file", thirty, one))
            report.at_most(f"inside.split.{compression}.{piece >> 10}", f"{what}: time to one file",
                           statistics.median(one) / statistics.median(thirty), 1.05)
    return rows


def new_images(setting, _report, volumes):
    os.environ["KQ_BENCH_DIR"] = str(setting.folder)
    os.environ["KQ_BENCH_VOLUME"] = str(volumes.files)
    measured = run_benchmarks(setting, "write", "Plain|encryption:0", setting.runs, 0.1)
    plain = rates(measured["PlainWrite/real_time"])
    kinds = {0: "none", 3: "lzw", 4: "lzss", 5: "lzo", 6: "lzo-huffman"}
    return [row(f"KQNewImageFileWrite, {name}, to write()",
                rates(measured[f"NewImageWrite/compression:{kind}/encryption:0/real_time"]), plain)
            for kind, name in kinds.items()]


def conversions(setting, _report, _volumes):
    measured = run_benchmarks(setting, "convert", ".", setting.runs, 0.1)
    plain = rates(measured.pop("PlainCopy"))
    rows = []
    for name, each in measured.items():
        fields = dict(field.split(":") for field in name.split("/")[1:])
        order = "shuffled" if fields["shuffled"] == "1" else "in order"
        rows.append(row(f"conversion, extents of {int(fields['extent']) >> 10} KiB {order}, "
                        "to a copy", rates(each), plain))
    return rows


def overlays(setting, _report, _volumes):
    """Operations of 4 KiB a second instead of MB/s."""
    os.environ["KQ_BENCH_FOLDER"] = str(setting.folder)
    counts = [10_000] if setting.quick else [10_000, 100_000]
    rounds = [run_command([bench_program("overlay"), *counts]).output.splitlines()[1:]
              for _ in range(min(setting.runs, 3))]
    rows = []
    for lines in zip(*rounds):
        cells = [[float(cell) for cell in line.split()] for line in lines]
        extents = int(cells[0][0])
        for verb, ours, peer in (("writes", 1, 2), ("reads", 4, 5)):
            rows.append(row(f"overlay of {extents} extents, {verb} a second, to qcow2",
                            [line[ours] for line in cells], [line[peer] for line in cells]))
    return rows
