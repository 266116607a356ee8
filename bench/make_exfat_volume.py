#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""Writes an exFAT volume for the benchmarks, structure by structure.

    make_exfat_volume.py many IMAGE    200,000 files of one cluster in 200 folders; the content is a hole

Format: Microsoft, "exFAT file system specification".
"""
import struct
import sys

SECTOR, CLUSTER = 512, 4096
FAT_OFFSET = 2048                       # sectors
FOLDERS, FILES = 200, 1000


def rotate_add(value, byte, bits):
    return (((value & 1) << (bits - 1)) + (value >> 1) + byte) & ((1 << bits) - 1)


def set_checksum(entries):
    total = 0
    for i, byte in enumerate(entries):
        if i not in (2, 3):
            total = ((total & 1) << 15) + (total >> 1) + byte & 0xFFFF
    return total


def name_hash(name):
    total = 0
    for byte in name.upper().encode("utf-16-le"):
        total = rotate_add(total, byte, 16)
    return total


def entry_set(name, folder, cluster, size):
    units = name.encode("utf-16-le")
    names = [units[i:i + 30] for i in range(0, len(units), 30)]
    stamp = (2021 - 1980) << 25 | 5 << 21 | 17 << 16 | 13 << 11 | 45 << 5 | 10
    first = struct.pack("<BBHHHIIIBBBBB7x", 0x85, 1 + len(names), 0, 0x10 if folder else 0x20, 0, stamp, stamp, stamp, 50, 0, 0x88, 0x88, 0x88)
    stream = struct.pack("<BBBBHHQIIQ", 0xC0, 3, 0, len(name), name_hash(name), 0, size, 0, cluster, size)
    entries = bytearray(first + stream + b"".join(b"\xC1\0" + piece.ljust(30, b"\0") for piece in names))
    struct.pack_into("<H", entries, 2, set_checksum(entries))
    return bytes(entries)


def up_case_table():
    """Units that stay as they are, packed, with the letters a to z between them."""
    units = [0xFFFF, 0x61] + list(range(0x41, 0x5B)) + [0xFFFF, 0x10000 - 0x7B]
    return struct.pack("<%dH" % len(units), *units)


def boot_region(clusters, fat_sectors, heap, root):
    boot = bytearray(SECTOR)
    boot[:11] = b"\xEB\x76\x90EXFAT   "
    struct.pack_into("<QQIIIIIIHHBBBBB", boot, 0x40, 0, heap + clusters * CLUSTER // SECTOR, FAT_OFFSET, fat_sectors, heap, clusters,
                     root, 0x12345678, 0x100, 0, 9, 3, 1, 0x80, 99)
    boot[510:] = b"\x55\xAA"
    extended = bytes(SECTOR - 4) + b"\0\0\x55\xAA"
    region = bytes(boot) + extended * 8 + bytes(2 * SECTOR)
    total = 0
    for i, byte in enumerate(region):
        if i not in (106, 107, 112):
            total = rotate_add(total, byte, 32)
    return region + struct.pack("<I", total) * (SECTOR // 4)


def main():
    what, path = sys.argv[1:]
    assert what == "many", what
    per_folder = -(-FILES * 128 // CLUSTER) + 1
    clusters = FOLDERS * (per_folder + FILES) + 4096
    fat_sectors = -(-(clusters + 2) * 4 // SECTOR) // 8 * 8 + 8
    heap = FAT_OFFSET + fat_sectors
    at = lambda cluster: heap * SECTOR + (cluster - 2) * CLUSTER
    bitmap_clusters = -(-clusters // 8 // CLUSTER) + 1
    up_case = 2 + bitmap_clusters
    root = up_case + 1
    root_clusters = 1 + FOLDERS * 96 // CLUSTER + 1
    free = root + root_clusters
    table = up_case_table()
    total = 0
    for byte in table:
        total = rotate_add(total, byte, 32)
    top = struct.pack("<BB22x8x", 0x83, 5)[:2] + "BENCH".encode("utf-16-le").ljust(30, b"\0")
    top += struct.pack("<BB18xIQ", 0x81, 0, 2, -(-clusters // 8))
    top += struct.pack("<B3xI12xIQ", 0x82, total, up_case, len(table))
    with open(path, "wb") as image:
        image.truncate(heap * SECTOR + clusters * CLUSTER)
        for folder in range(FOLDERS):
            place, free = free, free + per_folder
            entries = bytearray()
            for i in range(FILES):
                entries += entry_set("Document %03d-%04d draft.txt" % (folder, i), False, free, 3000)
                free += 1
            image.seek(at(place))
            image.write(entries)
            top += entry_set("Folder %03d" % folder, True, place, per_folder * CLUSTER)
        image.seek(at(root))
        image.write(top)
        image.seek(at(up_case))
        image.write(table)
        image.seek(at(2))
        image.write(b"\xFF" * ((free - 2) // 8) + bytes([(1 << (free - 2) % 8) - 1]))
        image.seek(FAT_OFFSET * SECTOR)
        image.write(struct.pack("<II", 0xFFFFFFF8, 0xFFFFFFFF))
        for first, count in ((2, bitmap_clusters), (up_case, 1), (root, root_clusters)):
            image.seek(FAT_OFFSET * SECTOR + first * 4)
            image.write(b"".join(struct.pack("<I", c + 1) for c in range(first, first + count - 1)) + struct.pack("<I", 0xFFFFFFFF))
        image.seek(0)
        image.write(boot_region(clusters, fat_sectors, heap, root) * 2)


main()
