#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""Makes the seed inputs of the fuzz targets: small volumes and tables, built byte by byte.

    fuzz/make_corpus.py        writes fuzz/corpus/*/seed-*
"""
import pathlib
import struct

HERE = pathlib.Path(__file__).resolve().parent / "corpus"


def entry(name, attr, cluster, size):
    return struct.pack("<11sBBBHHHHHHHI", name, attr, 0, 0, 0x8A83, 0x52A3, 0x52A3, cluster >> 16, 0x8A83, 0x52A3, cluster & 0xFFFF, size)


def long_name(text, number, checksum, last=True):
    units = [ord(c) for c in text] + [0] + [0xFFFF] * 13
    units = units[:13]
    return (bytes([number | (0x40 if last else 0)]) + struct.pack("<5H", *units[:5]) + bytes([0x0F, 0, checksum]) +
            struct.pack("<6H", *units[5:11]) + b"\0\0" + struct.pack("<2H", *units[11:]))


def volume(width, total=0, size=4):
    """A volume with a few entries of each kind; `size` is that of one table, in sectors."""
    reserved, tables, entries = (32, 2, 0) if width == 32 else (1, 2, 64)
    total = total or (400 if width == 32 else 200)
    boot = bytearray(512)
    struct.pack_into("<HBHBHHBH", boot, 11, 512, 1, reserved, tables, entries, 0 if width == 32 else total, 0xF8, 0 if width == 32 else size)
    if width == 32:
        struct.pack_into("<I", boot, 32, total)
        struct.pack_into("<I", boot, 36, size)
        struct.pack_into("<I", boot, 44, 2)
        struct.pack_into("<H", boot, 50, 6)
    boot[510:512] = b"\x55\xAA"
    image = bytearray(total * 512)
    image[:512] = boot
    if width == 32:
        image[6 * 512:7 * 512] = boot
    end = (1 << (28 if width == 32 else width)) - 1
    chain = {2: end if width == 32 else 0, 5: 6, 6: end, 8: end}
    for table in range(tables):
        base = (reserved + table * size) * 512
        for cluster, value in chain.items():
            if width == 12:
                at = base + cluster * 3 // 2
                old = struct.unpack_from("<H", image, at)[0]
                struct.pack_into("<H", image, at, old & 0xF000 | value if cluster % 2 == 0 else old & 0xF | value << 4)
            else:
                struct.pack_into("<I" if width == 32 else "<H", image, base + cluster * width // 8, value)
    data = reserved + tables * size + entries * 32 // 512
    at = lambda cluster: (data + cluster - 2) * 512
    root = at(2) if width == 32 else (reserved + tables * size) * 512
    rows = [entry(b"LABEL      ", 8, 0, 0), long_name("long name.txt", 1, 0x33), entry(b"LONGNA~1TXT", 0x20, 5, 700),
            entry(b"DIR        ", 0x10, 8, 0), entry(b"\xE5ELETED JPG", 0x20, 10, 900), entry(b"\xE5IR2       ", 0x10, 12, 0)]
    image[root:root + 32 * len(rows)] = b"".join(rows)
    for folder in (8, 12):
        rows = [entry(b".          ", 0x10, folder, 0), entry(b"..         ", 0x10, 0, 0), entry(b"INSIDE  TXT", 0x20, 14, 10)]
        image[at(folder):at(folder) + 96] = b"".join(rows)
    return bytes(image)


def mbr(entries):
    table = bytearray(512)
    for i, (kind, start, count) in enumerate(entries):
        struct.pack_into("<4xB3xII", table, 446 + 16 * i, kind, start, count)
        table[446 + 16 * i + 5:446 + 16 * i + 8] = b"\0\0\0"
    table[510:512] = b"\x55\xAA"
    return bytes(table)


def write(folder, name, data):
    (HERE / folder).mkdir(parents=True, exist_ok=True)
    (HERE / folder / name).write_bytes(data)


def main():
    for width in (12, 16, 32):
        write("fat", "seed-fat%d" % width, bytes([0x80 | width]) + volume(width))
    blank = bytes(512)
    write("partitions", "seed-mbr-chain", mbr([(6, 4, 2), (5, 8, 20)]) + blank * 7 + mbr([(6, 1, 2), (5, 4, 4)]) + blank * 3 + mbr([(7, 1, 2)]) + blank * 8)
    header = bytearray(512)
    header[:8] = b"EFI PART"
    struct.pack_into("<I", header, 12, 92)
    struct.pack_into("<Q", header, 72, 2)
    struct.pack_into("<II", header, 80, 4, 128)
    row = bytearray(128)
    row[0] = 1
    struct.pack_into("<QQ", row, 32, 6, 9)
    write("partitions", "seed-gpt", mbr([(0xEE, 1, 30)]) + bytes(header) + bytes(row) + blank * 28)
    write("partitions", "seed-hybrid", mbr([(6, 6, 4), (0xEE, 1, 5)]) + bytes(header) + bytes(row) + blank * 28)
    apple = bytearray(512)
    apple[:4] = b"ER\x02\x00"
    row = bytearray(512)
    row[:2] = b"PM"
    struct.pack_into(">III", row, 4, 2, 3, 4)
    row[48:60] = b"Apple_HFS\0\0\0"
    write("partitions", "seed-apple", bytes(apple) + bytes(row) * 2 + blank * 20)


if __name__ == "__main__":
    main()
