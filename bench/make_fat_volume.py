#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""The recipe of the FAT32 volumes that are measured on; all are written in seconds.

    make_fat_volume.py many OUT [FILES] [FOLDERS]   FILES (100,000) small files in FOLDERS (1,000) folders
    make_fat_volume.py small OUT                    100,000 files of 4 KiB in 1,000 folders
    make_fat_volume.py large OUT [BYTES]            one file of BYTES (1 GiB) in one piece
"""
import os
import struct
import sys

CLUSTER, SECTOR, RESERVED = 4096, 512, 32
END = 0x0FFFFFFF


def entry(name, attr, cluster, size):
    return struct.pack("<11sBBBHHHHHHHI", name, attr, 0, 0, 0x8A83, 0x52A3, 0x52A3, cluster >> 16, 0x8A83, 0x52A3, cluster & 0xFFFF, size)


def long_entries(text, short):
    checksum = 0
    for c in short:
        checksum = ((checksum & 1) << 7) + (checksum >> 1) + c & 0xFF
    units = [ord(c) for c in text] + [0]
    units += [0xFFFF] * (-len(units) % 13)
    count = len(units) // 13
    out = b""
    for n in range(count, 0, -1):
        u = units[13 * (n - 1):13 * n]
        out += struct.pack("<B5HBBB6HH2H", n | (0x40 if n == count else 0), *u[:5], 0x0F, 0, checksum, *u[5:11], 0, *u[11:])
    return out


class Volume:
    def __init__(self, path, clusters):
        self.clusters = clusters
        self.table = [0x0FFFFFF8, END] + [0] * clusters
        self.table_sectors = -(-(clusters + 2) * 4 // SECTOR)
        self.data = RESERVED + 2 * self.table_sectors
        self.total = self.data + clusters * CLUSTER // SECTOR
        self.file = open(path, "wb")
        self.file.truncate(self.total * SECTOR)
        self.next = 3

    def take(self, size):
        """Clusters in one piece; the result is the first."""
        n = max(1, -(-size // CLUSTER))
        first, self.next = self.next, self.next + n
        self.table[first:first + n] = list(range(first + 1, first + n)) + [END]
        return first

    def write(self, cluster, data):
        self.file.seek((self.data + (cluster - 2) * CLUSTER // SECTOR) * SECTOR)
        self.file.write(data)

    def chain_root(self, size):
        """The root begins at cluster 2 and goes on wherever there is room."""
        rest = -(-size // CLUSTER) - 1
        if rest > 0:
            self.table[2] = self.take(rest * CLUSTER)
        else:
            self.table[2] = END

    def write_root(self, data):
        self.write(2, data[:CLUSTER])
        if len(data) > CLUSTER:
            self.write(self.table[2], data[CLUSTER:])

    def close(self):
        boot = bytearray(SECTOR)
        struct.pack_into("<HBHB", boot, 11, SECTOR, CLUSTER // SECTOR, RESERVED, 2)
        boot[21] = 0xF8
        struct.pack_into("<II", boot, 32, self.total, self.table_sectors)
        struct.pack_into("<IHH", boot, 44, 2, 1, 6)
        boot[66] = 0x29
        boot[71:90] = b"BENCH      FAT32   "
        boot[510:512] = b"\x55\xAA"
        info = bytearray(SECTOR)
        info[:4], info[484:488], info[508:512] = b"RRaA", b"rrAa", b"\0\0\x55\xAA"
        struct.pack_into("<II", info, 488, 0xFFFFFFFF, 0xFFFFFFFF)
        for at in (0, 6):
            self.file.seek(at * SECTOR)
            self.file.write(bytes(boot) + bytes(info))
        packed = struct.pack("<%dI" % len(self.table), *self.table)
        for n in range(2):
            self.file.seek((RESERVED + n * self.table_sectors) * SECTOR)
            self.file.write(packed)
        self.file.close()


def small(path):
    many(path, sizes=lambda folder, number: 4096, fill=True)


def many(path, files=100000, folders=1000, sizes=lambda folder, number: 500 + (folder * 31 + number * 7) % 3000, fill=False):
    v = Volume(path, files + folders * 4 + files // 50 + 1000)
    v.chain_root(folders * 64)
    root, per = b"", files // folders
    for f in range(folders):
        rows = b""
        cluster = v.take((per * 4 + 3) * 32)
        for i in range(per):
            size = sizes(f, i)
            first = v.take(size)
            if fill:
                v.write(first, (b"%08d" % (f * per + i)) * (size // 8))
            short = b"FILE%04dTXT" % i
            rows += long_entries("file number %04d of %04d.txt" % (i, f), short) + entry(short, 0x20, first, size)
        dots = entry(b".          ", 0x10, cluster, 0) + entry(b"..         ", 0x10, 0, 0)
        v.write(cluster, dots + rows)
        short = b"DIR%04d    " % f
        root += entry(short, 0x10, cluster, 0)
    v.write_root(root)
    v.close()


def large(path, size=1 << 30):
    v = Volume(path, size // CLUSTER + 100)
    v.table[2] = END
    cluster = v.take(size)
    v.write(2, entry(b"LARGE   BIN", 0x20, cluster, size))
    v.file.seek((v.data + (cluster - 2) * CLUSTER // SECTOR) * SECTOR)
    block = os.urandom(1 << 20)
    for i in range(0, size, len(block)):
        v.file.write(struct.pack("<Q", i) + block[8:min(len(block), size - i)])
    v.close()


if __name__ == "__main__":
    {"many": many, "small": small, "large": large}[sys.argv[1]](sys.argv[2], *map(int, sys.argv[3:]))
