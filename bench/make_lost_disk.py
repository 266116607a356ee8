#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""Makes a sparse disk of 1 TiB whose partition table is gone.

    make_lost_disk.py FILE      FAT32 of 100 GiB, NTFS of 250 and 400 GiB, with room between them
"""
import os
import pathlib
import subprocess
import sys

GIB = 1 << 30
VOLUMES = [(100, ["mkfs.fat", "-F", "32", "-s", "128", "-n", "BIGFAT"], 1 << 20), (250, ["mkntfs", "-F", "-f", "-q", "-L", "BIGNTFS"], 150 * GIB + 512 * 777),
           (400, ["mkntfs", "-F", "-f", "-q", "-L", "HUGENTFS"], 500 * GIB + (1 << 20))]


def copy_data(source, target, at):
    """Only what is no hole."""
    end, position = os.fstat(source).st_size, 0
    while position < end:
        try:
            position = os.lseek(source, position, os.SEEK_DATA)
        except OSError:
            return
        hole = os.lseek(source, position, os.SEEK_HOLE)
        while position < hole:
            data = os.pread(source, min(1 << 20, hole - position), position)
            os.pwrite(target, data, at + position)
            position += len(data)


def main():
    path = pathlib.Path(sys.argv[1])
    volume = path.with_suffix(".volume")
    with open(path, "wb") as disk:
        disk.truncate(1024 * GIB)
        for size, command, at in VOLUMES:
            with open(volume, "wb") as f:
                f.truncate(size * GIB)
            subprocess.run([*command, str(volume)], check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            with open(volume, "rb") as f:
                copy_data(f.fileno(), disk.fileno(), at)
    volume.unlink()


if __name__ == "__main__":
    main()
