"""Whole volumes into images and back, beside programs that do the same: groups create, restore and
cipher."""

from .plots import bar_plot
from .report import contest, ratio
from .running import Contender, Failed, Samples, measure_in_turn, remove_outputs, run_command, \
    same_bytes
from .setting import KQIMAGE

PASSWORD_OPTIONS = ["--encrypt", "aes256", "--password-file"]

CREATE_NOTE = "writes the SHA-256 of the image, reads the end back, flushes the files"
LZO, NONE = "kqimage lzo", "kqimage none"
QEMU_ZLIB, QEMU_ZSTD = "qemu-img zlib", "qemu-img zstd"
EWF, LZOP = "ewfacquire fast", "lzop -1"
QEMU_RAW, CP_SPARSE, CP = "qemu-img qcow2", "cp --sparse=always", "cp"


def kqimage_create(volume, image, *options):
    return [KQIMAGE, "create", "--quiet", volume, image, *options]


def compressing(volume, folder):
    """Contenders that make a compressed image of a volume."""
    def qemu(kind):
        target = folder / f"{kind}.qcow2"
        return Contender(f"qemu-img {kind}",
                         ["qemu-img", "convert", "-f", "raw", "-c", "-O", "qcow2", "-o",
                          f"compression_type={kind}", volume, target], [target])
    ewf, lzop = folder / "image.ewf", folder / "lzop.lzo"
    return [
        Contender(LZO, kqimage_create(volume, folder / "lzo.twf", "--compress", "lzo"),
                  [folder / "lzo.twf"], CREATE_NOTE),
        qemu("zlib"),
        qemu("zstd"),
        Contender(EWF, ["ewfacquire", "-u", "-c", "fast", "-f", "encase6", "-S", "1TiB", "-t", ewf,
                        volume], [ewf], "an MD5 of the volume and checksums of its chunks"),
        Contender(LZOP, ["lzop", "-1", "-o", lzop, volume], [lzop], "checksums of its blocks"),
    ]


def plain(volume, folder):
    """Contenders that copy a volume without compression."""
    image, qcow2 = folder / "none.twf", folder / "plain.qcow2"
    sparse, copy = folder / "sparse.copy", folder / "plain.copy"
    return [
        Contender(NONE, kqimage_create(volume, image, "--compress", "none"), [image], CREATE_NOTE),
        Contender(QEMU_RAW, ["qemu-img", "convert", "-f", "raw", "-O", "qcow2", volume, qcow2],
                  [qcow2]),
        Contender(CP_SPARSE, ["cp", "--sparse=always", volume, sparse], [sparse]),
        Contender(CP, ["cp", volume, copy], [copy]),
    ]


def restoring(folder):
    """Contenders that bring a volume back from what those of compressing() have made."""
    def target(name):
        return folder / f"{name}.restored"
    return [
        Contender(LZO, [KQIMAGE, "restore", "--quiet", folder / "lzo.twf", "--to", target("kq")],
                  [target("kq")], "flushes the file"),
        Contender(QEMU_ZLIB, ["qemu-img", "convert", "-f", "qcow2", "-O", "raw",
                              folder / "zlib.qcow2", target("zlib")], [target("zlib")]),
        Contender(QEMU_ZSTD, ["qemu-img", "convert", "-f", "qcow2", "-O", "raw",
                              folder / "zstd.qcow2", target("zstd")], [target("zstd")]),
        Contender(EWF, ["ewfexport", "-u", "-f", "raw", "-S", "0", "-t", target("ewf"),
                        folder / "image.ewf.E01"], [target("ewf")], "checks its checksums"),
        Contender(LZOP, ["lzop", "-d", "-o", target("lzop"), folder / "lzop.lzo"],
                  [target("lzop")], "checks its checksums"),
    ]


def create(setting, report, volumes):
    section = report.section("Full images")
    section.text("Volume files is an ext4 file system of programs, headers and documents, seven "
                 "tenths full; volume noise does not compress. Output is what the result takes on "
                 "the file system.")
    for name, volume in (("files", volumes.files), ("noise", volumes.noise)):
        results = measure_in_turn(compressing(volume, setting.folder), setting.runs)
        section.text(f"Compressed, volume {name}:")
        contest(section, results, results[LZO], setting.volume_mib)
        bounds = {QEMU_ZLIB: 10, QEMU_ZSTD: 3, EWF: 1, LZOP: 1.5}
        for peer, bound in bounds.items():
            report.at_least(f"create.{name}.{peer}", f"create lzo, {name}: speed to {peer}",
                            ratio(results[LZO], results[peer]), bound)
        copies = measure_in_turn(plain(volume, setting.folder), setting.runs)
        section.text(f"Not compressed, volume {name}:")
        contest(section, copies, copies[NONE], setting.volume_mib)
        for peer in (CP_SPARSE, CP):
            report.at_most(f"create.{name}.{peer}", f"create none, {name}: time to {peer}",
                           ratio(copies[peer], copies[NONE]), 1.2)
        plot(setting, section, f"create-{name}", results | copies)


def plot(setting, section, name, results):
    bar_plot(setting, name, "seconds",
             [(each.name, each.median, min(each.values), max(each.values))
              for each in results.values() if each.median is not None])
    section.plot(f"{name}.png", f"seconds of each program, {name}")


def restore(setting, report, volumes):
    section = report.section("Restore")
    section.text("From compressed images back to a raw file. The results of the first runs are "
                 "compared with the volume.")
    for name, volume in (("files", volumes.files), ("noise", volumes.noise)):
        made = compressing(volume, setting.folder)
        failures = {}
        for contender in made:
            remove_outputs(contender.outputs)
            try:
                run_command(contender.command)
            except Failed as problem:
                failures[contender.name] = f"no image: {problem}"
        contenders = restoring(setting.folder)
        results = {name: Samples(name, failure=failure) for name, failure in failures.items()}
        results |= measure_in_turn(
            [each for each in contenders if each.name not in failures], setting.runs,
            lambda contender: same_bytes(find_output(contender), volume))
        section.text(f"Volume {name}:")
        contest(section, results, results[LZO], setting.volume_mib)
        for peer in (QEMU_ZLIB, QEMU_ZSTD, EWF, LZOP):
            report.at_least(f"restore.{name}.{peer}", f"restore lzo, {name}: speed to {peer}",
                            ratio(results[LZO], results[peer]), 1)
        plot(setting, section, f"restore-{name}", results)
        for contender in made:
            remove_outputs(contender.outputs)


def find_output(contender):
    """The file that a contender has made; one of them adds an extension to the name."""
    base = contender.outputs[0]
    raw = base.with_name(base.name + ".raw")
    return raw if raw.exists() else base


def cipher(setting, report, volumes):
    section = report.section("Enciphered")
    section.text("The same with and without AES-256, volume files.")
    files, key = volumes.files, setting.folder / "key"
    key.write_text("a password of some length\n", encoding="ascii")
    plain_image, secret_image = setting.folder / "plain.twf", setting.folder / "secret.twf"
    plain_raw, secret_raw = setting.folder / "plain.raw", setting.folder / "secret.raw"
    made = [
        Contender("create lzo", kqimage_create(files, plain_image), [plain_image], keep=True),
        Contender("create lzo, aes256", kqimage_create(files, secret_image, *PASSWORD_OPTIONS, key),
                  [secret_image], keep=True),
    ]
    results = measure_in_turn(made, setting.runs)
    restore_command = [KQIMAGE, "restore", "--quiet"]
    restored = [
        Contender("restore lzo", [*restore_command, plain_image, "--to", plain_raw], [plain_raw]),
        Contender("restore lzo, aes256", [*restore_command, secret_image, "--to", secret_raw,
                                          "--password-file", key], [secret_raw]),
    ]
    results |= measure_in_turn(restored, setting.runs,
                               lambda contender: same_bytes(contender.outputs[0], files))
    for verb, bound in (("create", 1.6), ("restore", 1.25)):
        pair = {name: results[name] for name in (f"{verb} lzo", f"{verb} lzo, aes256")}
        ours = pair[f"{verb} lzo"]
        contest(section, pair, ours, setting.volume_mib)
        report.at_most(f"cipher.{verb}", f"{verb}, aes256: time to the plain run",
                       ratio(ours, pair[f"{verb} lzo, aes256"]), bound)
    remove_outputs([plain_image, secret_image])
