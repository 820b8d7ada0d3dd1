"""Peak memory and time of each of the client's commands: group memory."""

from .increments import COMPARE_DIFFERENT
from .report import number
from .running import Failed, remove_outputs, run_command
from .setting import KQIMAGE
from .volumes import TIB, change_blocks, make_sparse_volume

LIMIT_MIB = 256
SPARSE_PIECES = 64
LONGEST_SECONDS = 60
STOPPED = 124  # the exit status of timeout
COLUMNS = ["command", "peak MiB", "seconds"]


def memory(setting, report, volumes):
    section = report.section("Memory")
    huge_bytes = TIB // 64 if setting.quick else 8 * TIB
    section.text(f"Peak resident memory of each command, as `time` tells it, and its time, one run "
                 f"each: on the volume of {setting.volume_mib} MiB, then on one of "
                 f"{huge_bytes >> 30:,} GiB that is a hole but for {SPARSE_PIECES} MiB. A command "
                 f"is stopped after {LONGEST_SECONDS} s, and its peak is that up to then.")
    files, changed = volumes.files, setting.folder / "changed.raw"
    change_blocks(files, changed, 0.01)
    section.text(f"Volume of {setting.volume_mib} MiB:")
    measure(setting, report, section, "files", files, changed)
    changed.unlink()
    huge = [setting.folder / "huge.raw", setting.folder / "huge-changed.raw"]
    make_sparse_volume(huge[0], huge_bytes, SPARSE_PIECES)
    make_sparse_volume(huge[1], huge_bytes, SPARSE_PIECES, changed=(3, 40))
    section.text("Sparse volume:")
    measure(setting, report, section, "sparse", *huge)
    remove_outputs(huge)


def measure(setting, report, section, name, volume, changed):
    base, newer = setting.folder / "memory.twf", setting.folder / "memory-i001.twi"
    restored = setting.folder / "restored.raw"
    rows = []

    def command(verb, *arguments):
        try:
            peak, seconds = peak_and_seconds(setting, [KQIMAGE, verb, *arguments])
            said = "stopped" if seconds >= LONGEST_SECONDS else number(seconds)
        except Failed as problem:
            peak, seconds, said = None, None, str(problem)
        rows.append([verb, number(peak), said])
        report.at_most(f"memory.{name}.{verb}", f"{verb}, volume {name}: peak memory", peak,
                       LIMIT_MIB, " MiB")
        report.at_most(f"memory.{name}.{verb}.seconds", f"{verb}, volume {name}: ends", seconds,
                       LONGEST_SECONDS, " s")

    command("create", volume, base)
    command("increment", changed, base, newer)
    newest = newer if newer.exists() else base
    command("restore", newest, "--to", restored)
    command("verify", newest)
    command("compare", newest, changed)
    command("info", newest)
    command("list", setting.folder)
    section.table(COLUMNS, rows)
    remove_outputs([base, newer, restored])


def peak_and_seconds(setting, command):
    """Through GNU time: the peak of a child of this program would not be below its own."""
    figures = setting.folder / "time"
    run = run_command(["time", "--format=%M", f"--output={figures}", "timeout",
                       LONGEST_SECONDS, *command],
                      accepts=(0, COMPARE_DIFFERENT, STOPPED))
    return int(figures.read_text(encoding="ascii").split()[-1]) / 1024, run.seconds
