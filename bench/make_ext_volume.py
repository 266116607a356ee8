#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""The recipe of the Ext4 volumes that are measured on, made by mke2fs.

    make_ext_volume.py many OUT [FILES] [FOLDERS]   FILES (500,000) small files in FOLDERS (1,000) folders
    make_ext_volume.py lost OUT [BYTES]             a volume of BYTES (1 GiB) without files, its free blocks full of noise
    make_ext_volume.py journal OUT                  a journal of 256 MiB, full of old copies of inodes
"""
import random
import struct
import subprocess
import sys

BLOCK = 4096


def mke2fs(out, size, *options):
    with open(out, "wb") as file:
        file.truncate(size)
    subprocess.run(["mke2fs", "-q", "-F", "-t", "ext4", *options, out], check=True, stdout=subprocess.DEVNULL)


class Tables:
    """Where the inodes of a volume lie, and blocks that nothing has."""

    def __init__(self, file):
        self.file = file
        file.seek(1024)
        head = file.read(1024)
        self.per_group, self.size = struct.unpack_from("<I", head, 40)[0], struct.unpack_from("<H", head, 88)[0]
        groups = -(-struct.unpack_from("<I", head, 4)[0] // 32768)
        file.seek(BLOCK)
        table = file.read(groups * 32)
        self.tables = [struct.unpack_from("<I", table, 32 * group + 8)[0] for group in range(groups)]
        # Flexible groups keep all tables in their first group.
        self.free = (block for group in range(groups) if group % 16 for block in range(group * 32768 + 2048, (group + 1) * 32768))
        self.buffers = [bytearray(self.per_group * self.size) for _ in range(groups)]

    def inode(self, number, mode, links, size, block, count):
        group, index = divmod(number - 1, self.per_group)
        time = 1_600_000_000 + number
        struct.pack_into("<HHIIIIIHHIII", self.buffers[group], index * self.size, mode, 0, size, time, time, time, 0, 0, links, count * 8, 0x80000, 0)
        struct.pack_into("<HHHHIIHHI", self.buffers[group], index * self.size + 40, 0xF30A, 1, 4, 0, 0, 0, count, 0, block)

    def write(self):
        for table, buffer in zip(self.tables, self.buffers):
            self.file.seek(table * BLOCK)
            old = self.file.read(len(buffer))
            kept = {number * self.size for number in range(len(buffer) // self.size) if any(old[number * self.size:number * self.size + 2])}
            for at in kept:  # the file system's own
                if not buffer[at]:
                    buffer[at:at + self.size] = old[at:at + self.size]
            self.file.seek(table * BLOCK)
            self.file.write(buffer)


def folder_blocks(own, above, entries):
    """The blocks of a folder, and no record across two of them."""
    blocks, block, last = [], bytearray(), 0
    for number, name, kind in [(own, b".", 2), (above, b"..", 2), *entries]:
        length = (8 + len(name) + 3) // 4 * 4
        if len(block) + length > BLOCK:
            struct.pack_into("<H", block, last + 4, BLOCK - last)
            blocks.append(block.ljust(BLOCK, b"\0"))
            block = bytearray()
        last = len(block)
        block += struct.pack("<IHBB", number, length, len(name), kind) + name.ljust(length - 8, b"\0")
    struct.pack_into("<H", block, last + 4, BLOCK - last)
    return b"".join(blocks) + block.ljust(BLOCK, b"\0")


def many(out, files=500_000, folders=1_000):
    mke2fs(out, (files + 40 * folders) * BLOCK * 5 // 4, "-b", str(BLOCK), "-N", str((files + folders) * 5 // 4), "-O", "^has_journal,^metadata_csum,^64bit,^resize_inode,^uninit_bg")
    with open(out, "r+b") as file:
        tables = Tables(file)
        free, first = tables.free, 100

        def folder(number, above, entries):
            bytes_ = folder_blocks(number, above, entries)
            count = len(bytes_) // BLOCK
            block = next(free)
            blocks = [block]
            while len(blocks) < count:
                block = next(free)
                blocks = [block] if block != blocks[-1] + 1 else blocks + [block]
            tables.inode(number, 0x41ED, 2, len(bytes_), blocks[0], count)
            file.seek(blocks[0] * BLOCK)
            file.write(bytes_)

        number, listed = first, []
        for each in range(folders):
            own, entries = number, []
            number += 1
            for i in range(each, files, folders):
                entries.append((number, b"picture number %07d.jpg" % i, 1))
                tables.inode(number, 0x81A4, 1, 140, next(free), 1)
                number += 1
            folder(own, 2, entries)
            listed.append((own, b"folder %04d" % each, 2))
        folder(2, 2, listed)
        tables.write()


def lost(out, size=1 << 30):
    mke2fs(out, size, "-b", str(BLOCK), "-O", "^has_journal", "-N", "1024")
    noise = random.Random(1).randbytes(1 << 20)
    with open(out, "r+b") as file:
        # Beyond the tables of the first group; copies of the superblock stay.
        for at in range(16 << 20, size, 1 << 20):
            if at % (128 << 20) == 0:
                continue
            file.seek(at)
            file.write(noise)


def journal(out):
    mke2fs(out, 1 << 30, "-b", str(BLOCK), "-J", "size=256", "-N", "65536", "-O", "^metadata_csum,^64bit,^fast_commit")
    blocks = subprocess.run(["debugfs", "-R", "blocks <8>", out], check=True, capture_output=True, text=True).stdout.split()
    blocks = [int(block) for block in blocks]
    with open(out, "r+b") as file:
        file.seek(BLOCK + 8)
        table = struct.unpack("<I", file.read(4))[0]
        chosen = random.Random(2)
        for first in range(1, len(blocks) - 101, 101):
            tags = b"".join(struct.pack(">IHH", table + chosen.randrange(64), 0, 2 | (8 if i == 99 else 0)) + (bytes(16) if i == 0 else b"")
                            for i in range(100))
            tags = tags[:6] + struct.pack(">H", 0) + tags[8:]  # the first one has the UUID after it
            file.seek(blocks[first] * BLOCK)
            file.write((struct.pack(">III", 0xC03B3998, 1, first) + tags).ljust(BLOCK, b"\0"))
            for block in blocks[first + 1:first + 101]:
                copy = b"".join(struct.pack("<HHIIIII", 0x81A4, 0, chosen.randrange(1, 4000), 1, 1, 1, 0) + struct.pack("<HHIII", 0, 1, 8, 0x80000, 0) +
                                struct.pack("<HHHHIIHHI", 0xF30A, 1, 4, 0, 0, 0, 1, 0, chosen.randrange(70000, 200000)) + bytes(36) +
                                struct.pack("<I", chosen.randrange(4)) + bytes(152) for _ in range(16))
                file.seek(block * BLOCK)
                file.write(copy[:BLOCK])


if __name__ == "__main__":
    {"many": many, "lost": lost, "journal": journal}[sys.argv[1]](sys.argv[2], *map(int, sys.argv[3:]))
