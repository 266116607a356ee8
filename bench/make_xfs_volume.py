#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""The recipe of the XFS volumes that are measured on, made by mkfs.xfs from a description of their tree.

    make_xfs_volume.py many OUT [FILES] [FOLDERS]   FILES (300,000) empty files in FOLDERS (3,000) folders
    make_xfs_volume.py lost OUT [BYTES]             BYTES (1 GiB) of noise in free blocks, as a search for lost inodes meets it
"""
import os
import subprocess
import sys
import tempfile

# Bytes at the start of each of the 4 groups that the new volume may use; the third one has the log.
HEADER_ROOM, LOG_ROOM = 16 << 20, 128 << 20


def format_volume(out, size, tree=None):
    if os.path.exists(out):
        os.unlink(out)
    options = ["-p", tree] if tree else []
    subprocess.run(["mkfs.xfs", "-q", "-i", "maxpct=80", *options, "-d", f"file,name={out},size={size}"], check=True)


def many(out, files=300_000, folders=3_000):
    per_folder = -(-files // folders)
    with tempfile.NamedTemporaryFile("w", suffix=".proto") as tree:
        tree.write("/\n0 0\nd--755 0 0\n")
        for folder in range(folders):
            tree.write(f"folder{folder:05d} d--755 0 0\n")
            for i in range(min(per_folder, files - folder * per_folder)):
                tree.write(f"file_number_{folder * per_folder + i:07d}.dat ---644 0 0 /dev/null\n")
            tree.write("$\n")
        tree.write("$\n")
        tree.flush()
        format_volume(out, max(512 << 20, files * 1200), tree.name)


def lost(out, size=1 << 30):
    """What is not metadata of the new volume is noise: every byte of it has to be looked at."""
    format_volume(out, size)
    group = size // 4
    piece = os.urandom(1 << 20).replace(b"IN", b"in").replace(b"XD", b"xd")
    with open(out, "r+b") as image:
        for start in range(0, size, group):
            for at in range(start + (LOG_ROOM if start == 2 * group else HEADER_ROOM), start + group, len(piece)):
                image.seek(at)
                image.write(piece[:start + group - at])


if __name__ == "__main__":
    {"many": many, "lost": lost}[sys.argv[1]](sys.argv[2], *map(int, sys.argv[3:]))
