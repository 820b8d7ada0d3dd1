"""An increment of a volume of which one percent has changed: group increment."""

from .report import contest, ratio
from .running import Contender, measure_in_turn, read_once, remove_outputs, run_command
from .setting import KQIMAGE, bench_program
from .volumes import change_blocks
from .whole_volumes import kqimage_create

READER = "read_once_bench"
COMPARE_DIFFERENT = 3  # its exit status


def increment(setting, report, volumes):
    section = report.section("Increment")
    section.text(
        "One percent of the volume's blocks of 4 KiB is new, scattered at random. The measure is a "
        "plain reader, `read_once_bench`: the changed volume and then the chain that has its former "
        "state, front to back, 1 MiB a call, one thread. `kqimage compare` reads the same and tells "
        "what differs.")
    files = volumes.files
    changed, base = setting.folder / "changed.raw", setting.folder / "base.twf"
    out = setting.folder / "increment.twi"
    change_blocks(files, changed, 0.01)
    for compression in ("lzo", "none"):
        remove_outputs([base])
        run_command(kqimage_create(files, base, "--compress", compression))
        read_once(changed, base)
        ours = f"increment, {compression}"
        results = measure_in_turn([
            Contender(ours, [KQIMAGE, "increment", "--quiet", changed, base, out], [out]),
            Contender(READER, [bench_program("read_once"), changed, base]),
            Contender("compare", [KQIMAGE, "compare", "--quiet", base, changed],
                      accepts=(COMPARE_DIFFERENT,)),
        ], setting.runs)
        section.text(f"Chain compressed with {compression}:")
        contest(section, results, results[ours], setting.volume_mib)
        report.at_most(f"increment.{compression}",
                       f"increment, {compression}: time to reading both once",
                       ratio(results[READER], results[ours]), 1.3)
    remove_outputs([changed, base, out])
