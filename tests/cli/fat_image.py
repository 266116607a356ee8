# SPDX-License-Identifier: GPL-3.0-or-later
"""Builds small FAT16 volumes with any names, those that no tool writes included."""
import struct

SECTOR, CLUSTER, CLUSTERS, ROOT_ENTRIES = 512, 512, 20000, 512
TABLE_SECTORS = (CLUSTERS + 2) * 2 // SECTOR + 1
TIMES = (0x8A83, 0x52A3)  # 2021-05-03 17:20:06


def _entries(number, name, attributes, cluster, size, deleted):
    """A short entry with the pieces of its long name before it."""
    short = b"F%07d   " % number
    checksum = 0
    for c in short:
        checksum = ((checksum & 1) << 7) + (checksum >> 1) + c & 0xFF
    units = list(struct.unpack("<%dH" % (len(name.encode("utf-16-le", "surrogatepass")) // 2), name.encode("utf-16-le", "surrogatepass")))
    units += [0] + [0xFFFF] * (-(len(units) + 1) % 13) if len(units) % 13 else []
    count = len(units) // 13
    out = b""
    for n in range(count, 0, -1):
        u = units[13 * (n - 1):13 * n]
        out += struct.pack("<B5HBBB6HH2H", n | (0x40 if n == count else 0), *u[:5], 0x0F, 0, checksum, *u[5:11], 0, *u[11:])
    time, date = TIMES
    out += struct.pack("<11sBBBHHHHHHHI", short, attributes, 0, 0, time, date, date, 0, time, date, cluster, size)
    if deleted:
        out = b"".join(b"\xE5" + out[i + 1:i + 32] for i in range(0, len(out), 32))
    return out


class _Volume:
    def __init__(self):
        self.table = [0xFFF8, 0xFFFF] + [0] * CLUSTERS
        self.data = {}
        self.next = 2
        self.number = 0

    def store(self, data, deleted):
        first, count = self.next, max(1, -(-len(data) // CLUSTER))
        self.next += count
        self.data[first] = data
        if not deleted:
            self.table[first:first + count] = list(range(first + 1, first + count)) + [0xFFFF]
        return first

    def rows(self, files):
        out = b""
        for name, content, deleted in files:
            self.number += 1
            if isinstance(content, list):
                dots = struct.pack("<11s21x", b".".ljust(11)) + struct.pack("<11s21x", b"..".ljust(11))
                dots = b"".join(dots[i:i + 11] + b"\x10" + dots[i + 12:i + 32] for i in (0, 32))
                cluster = self.store(dots + self.rows(content), deleted)
                out += _entries(self.number, name, 0x10, cluster, 0, deleted)
            else:
                out += _entries(self.number, name, 0x20, self.store(content, deleted), len(content), deleted)
        return out


def fat16(files):
    """`files`: (name, bytes or list of files, deleted) each."""
    volume = _Volume()
    root = volume.rows(files)
    assert len(root) <= ROOT_ENTRIES * 32 and volume.next < CLUSTERS
    reserved, root_sectors = 1, ROOT_ENTRIES * 32 // SECTOR
    data_at = (reserved + 2 * TABLE_SECTORS + root_sectors) * SECTOR
    image = bytearray(data_at + CLUSTERS * CLUSTER)
    struct.pack_into("<HBHBHHBH", image, 11, SECTOR, CLUSTER // SECTOR, reserved, 2, ROOT_ENTRIES, 0, 0xF8, TABLE_SECTORS)
    struct.pack_into("<I", image, 32, len(image) // SECTOR)
    image[38] = 0x29
    image[43:62] = b"MADE       FAT16   "
    image[510:512] = b"\x55\xAA"
    table = struct.pack("<%dH" % len(volume.table), *volume.table)
    for n in range(2):
        at = (reserved + n * TABLE_SECTORS) * SECTOR
        image[at:at + len(table)] = table
    at = (reserved + 2 * TABLE_SECTORS) * SECTOR
    image[at:at + len(root)] = root
    for cluster, data in volume.data.items():
        at = data_at + (cluster - 2) * CLUSTER
        image[at:at + len(data)] = data
    return bytes(image)
