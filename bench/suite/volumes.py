"""The volumes that the benchmarks work on."""

import os
import random
import shutil
import subprocess
from functools import cached_property

from .running import read_once
from .setting import ROOT

SEED = 1
BLOCK = 4096
TIB = 1 << 40


class Volumes:
    """The volumes that groups share, made when they are first asked for."""

    def __init__(self, setting):
        self._setting = setting

    @cached_property
    def files(self):
        """An ext4 volume of programs, headers and documents, seven tenths full."""
        setting = self._setting
        path = setting.folder / "files.raw"
        subprocess.run([ROOT / "scripts" / "make-volume", "--size", str(setting.volume_mib), path],
                       check=True, env={**os.environ, "TMPDIR": str(setting.folder)})
        read_once(path)
        return path

    @cached_property
    def noise(self):
        """A volume of bytes that don't compress."""
        path = self._setting.folder / "noise.raw"
        source = random.Random(SEED)
        with open(path, "wb") as file:
            for _ in range(self._setting.volume_mib):
                file.write(source.randbytes(1 << 20))
        return path


def change_blocks(volume, changed, share):
    """Makes a copy of the volume of which a share of the blocks, scattered, is new."""
    shutil.copyfile(volume, changed)
    source = random.Random(SEED)
    blocks = os.path.getsize(volume) // BLOCK
    with open(changed, "r+b") as file:
        for number in sorted(source.sample(range(blocks), int(blocks * share))):
            file.seek(number * BLOCK)
            file.write(source.randbytes(BLOCK))


def make_sparse_volume(path, size, data_mib, changed=()):
    """A volume that is a hole but for pieces of 1 MiB at equal distances; of the changed pieces
    the content is another."""
    with open(path, "wb") as file:
        file.truncate(size)
        for number in range(data_mib):
            file.seek(size // data_mib * number // BLOCK * BLOCK)
            file.write(random.Random(number + 1000 * (number in changed)).randbytes(1 << 20))
