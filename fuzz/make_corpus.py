#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""Makes the seed inputs of the fuzz targets: small volumes and tables, built byte by byte.

    fuzz/make_corpus.py        writes fuzz/corpus/*/seed-*
"""
import gzip
import io
import pathlib
import struct
import zipfile
import zlib

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


def attribute(kind, value=None, name="", flags=0, runs=None, clusters=0, size=0, unit=0):
    """An NTFS attribute, resident with `value` or in clusters."""
    text = name.encode("utf-16-le")
    head = 0x18 if value is not None else 0x48
    body = head + (len(text) + 7) // 8 * 8
    content = value if value is not None else runs + b"\0"
    out = struct.pack("<IIBBHHH", kind, (body + len(content) + 7) // 8 * 8, value is None, len(name), head if name else 0, flags, 0)
    if value is not None:
        out += struct.pack("<IHH", len(value), body, 0)
    else:
        out += struct.pack("<QQHHIQQQ", 0, clusters - 1, body, unit, 0, clusters * 512, size, size) + bytes(8)
    out += text
    return (out + bytes(body - len(out)) + content).ljust((body + len(content) + 7) // 8 * 8, b"\0")


def file_name(parent, name, size=0):
    return struct.pack("<QQQQQQQII", parent, *[0x01D7402000000000] * 4, size, size, 0x20, 0) + bytes([len(name), 3]) + name.encode("utf-16-le")


def record(number, attributes, flags=1, base=0):
    used = b"".join(attributes) + struct.pack("<I", 0xFFFFFFFF)
    out = bytearray(1024)
    out[:4] = b"FILE"
    struct.pack_into("<HHQHHHHIIQHHI", out, 4, 0x30, 3, 0, 1, 1, 0x38, flags, 0x38 + len(used), 1024, base, 8, 0, number)
    out[0x38:0x38 + len(used)] = used
    for i in (1, 2):  # the ends of both blocks move into the update sequence
        out[0x30 + 2 * i:0x32 + 2 * i] = out[i * 512 - 2:i * 512]
        out[i * 512 - 2:i * 512] = out[0x30:0x32] = b"\x07\0"
    return bytes(out)


def ntfs():
    """64 KiB with clusters of 512 bytes: resident, compressed, sparse, listed, deleted and linked files."""
    image = bytearray(129 * 512)
    boot = bytearray(512)
    boot[3:11] = b"NTFS    "
    struct.pack_into("<HB", boot, 11, 512, 1)
    struct.pack_into("<QQQ", boot, 0x28, 128, 4, 100)
    boot[0x40] = 0xF6
    boot[510:512] = b"\x55\xAA"
    image[:512] = image[-512:] = boot
    info = attribute(0x10, struct.pack("<4QI", *[0x01D7402000000000] * 4, 0x20) + bytes(12))
    named = lambda parent, name, size=0: attribute(0x30, file_name(parent, name, size))
    packed = bytes([0x03, 0xB0, 0x02, 0x41, 0xFC, 0x0F]) * 2
    listed = b"".join(struct.pack("<IHBBQQH", kind, 0x20, 0, 0x1A, 0, number, 0).ljust(0x20, b"\0") for kind, number in ((0x10, 12), (0x80, 13)))
    index = struct.pack("<IIII", 0x30, 1, 4096, 0) + struct.pack("<IIII", 16, 120, 120, 0) + struct.pack("<QHHI", 14, 0x58, 0x48, 0) + file_name(10, "inner", 0)
    records = {
        0: record(0, [info, named(5, "$MFT"), attribute(0x80, runs=b"\x11\x24\x04", clusters=36, size=18432), attribute(0xB0, b"\xFF\xF7\x03")]),
        3: record(3, [named(5, "$Volume"), attribute(0x60, "SEED".encode("utf-16-le"))]),
        5: record(5, [named(5, ".")], 3),
        6: record(6, [named(5, "$Bitmap"), attribute(0x80, b"\xFF" * 8 + bytes(8))]),
        10: record(10, [info, named(5, "folder"), attribute(0x90, index, "$I30")], 3),
        11: record(11, [info, named(10, "gone.txt", 700), attribute(0x80, runs=b"\x11\x02\x40", clusters=2, size=700)], 0),
        12: record(12, [info, attribute(0x20, listed), named(5, "listed"), named(10, "link")]),
        13: record(13, [attribute(0x80, runs=b"\x11\x02\x42\x01\x03\x11\x01\x04", clusters=6, size=3000)], 1, 12),
        14: record(14, [info, named(10, "inner"), attribute(0x80, runs=b"\x11\x01\x48\x01\x0F", clusters=16, size=8192, flags=1, unit=4), attribute(0x80, b"stream", "named")]),
    }
    for number, bytes_of in records.items():
        image[2048 + number * 1024:3072 + number * 1024] = bytes_of
    image[100 * 512:104 * 512] = image[2048:4096]
    image[0x48 * 512:0x48 * 512 + len(packed)] = packed
    return bytes(image)


def sector(head=b"", inside=b"", place=0, fill=0x20):
    """A sector in the short form that the deep target takes."""
    return head[:24].ljust(24, bytes([fill])) + inside[:22].ljust(22, bytes([fill])) + bytes([place, fill])


def deep():
    """Sectors of each kind that means something to the deep analysis."""
    icon = struct.pack("<HHHBBBBHHII", 0, 1, 1, 16, 16, 0, 0, 1, 32, 700, 22)
    book = "Workbook".encode("utf-16-le").ljust(22, b"\0")
    sectors = [sector(), sector(b"\xff\xd8\xff\xe0", b"\xff\xff", 255), sector(b"\xff\xd8\xff\xe0", b"\xff\xd9", 100), sector(icon), sector(b"\x89PNG\r\n\x1a\n"),
               sector(fill=0), sector(b"PK\3\4", b"PK\5\6", 50), sector(b"PK\3\4\x14\0\6\0", b"word/_rels", 30), sector(b".xmlPK\5\6".ljust(24, b"\0")),
               sector(bytes.fromhex("d0cf11e0a1b11ae1"), b"Microsoft Excel", 60), sector(bytes.fromhex("d0cf11e0a1b11ae1")), sector(book, struct.pack("<HB", 18, 2), 32),
               sector(b"MZ\x90\0\3\0\0\0\4\0\0\0\xff\xff\0\0"), sector(b"ID3"), sector(b"\xff\xfb"), sector(b"\0\1\0\0Standard Jet DB"), sector(b"8BPS")]
    write("deep", "seed-sectors", b"".join(sectors))


def structure():
    """A small file of each kind, behind the number of its reader."""
    chunk = lambda kind, data: struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))
    packed = io.BytesIO()
    with zipfile.ZipFile(packed, "w") as archive:
        archive.writestr(zipfile.ZipInfo("a"), "b")
    wave = b"RIFF" + struct.pack("<I", 40) + b"WAVEfmt " + struct.pack("<I", 16) + bytes(16) + b"data" + struct.pack("<I", 4) + b"wave"
    files = [
        b"\xff\xd8\xff\xc0\0\4ab\xff\xda\0\4cd\xff\0ef\xff\xd9",
        b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", bytes(13)) + chunk(b"IEND", b""),
        b"GIF89a\2\0\2\0\x80\0\0" + bytes(6) + b",\0\0\0\0\2\0\2\0\0\2\2\x44\1\0;",
        b"BM" + struct.pack("<IIIIiiHHIIiiII", 78, 0, 54, 40, 3, 2, 1, 24, 0, 0, 0, 0, 0, 0) + bytes(24),
        wave,
        packed.getvalue(),
        b"\xd0\xcf\x11\xe0\xa1\xb1\x1a\xe1" + bytes(16) + struct.pack("<HHHHH", 0x3e, 3, 0xfffe, 9, 6) + bytes(10)
        + struct.pack("<IIIIIIII", 1, 1, 0, 4096, 0xfffffffe, 0, 0xfffffffe, 0) + struct.pack("<I", 0) + b"\xff" * 432
        + struct.pack("<II", 0xfffffffd, 0xfffffffe) + b"\xff" * 504 + bytes(512),
        gzip.compress(b"gzip", mtime=0),
        b"MThd" + struct.pack(">IHHH", 6, 0, 1, 96) + b"MTrk" + struct.pack(">I", 4) + b"\0\xff\x2f\0",
        b"ITSF" + struct.pack("<II", 3, 0x60) + bytes(0x2c) + struct.pack("<QQQQ", 0x60, 24, 0x78, 4) + bytes(8) + struct.pack("<QQQ", 0x1fe, 0x80, 0) + b"ITSP" + bytes(4),
        b"MSCF" + struct.pack("<IIIIIBBHHHHH", 0, 56, 0, 44, 0, 3, 1, 1, 0, 0, 0, 0) + struct.pack("<IHH", 44, 1, 0) + struct.pack("<IHH", 0, 4, 4) + b"data",
        bytes.fromhex("3026b2758e66cf11a6d900aa0062ce6c1800000000000000") + bytes.fromhex("3626b2758e66cf11a6d900aa0062ce6c1800000000000000"),
    ]
    for number, file in enumerate(files):
        write("structure", "seed-%d" % number, bytes([number]) + file)


def crc32c(data):
    crc = 0xFFFFFFFF
    for byte in data:
        crc ^= byte
        for _ in range(8):
            crc = (crc >> 1) ^ (0x82F63B78 if crc & 1 else 0)
    return crc ^ 0xFFFFFFFF


def images():
    """A small image of each kind."""
    def put(size, *fields):
        out = bytearray(size)
        for at, data in fields:
            out[at:at + len(data)] = data
        return bytes(out)
    le = lambda value, size: value.to_bytes(size, "little")
    be = lambda value, size: value.to_bytes(size, "big")
    dsk = b"DSK FILE" + le(70000, 8) + le(2, 8) + le(6, 2) + b"\xff\xff" + bytes.fromhex("03b00200fc0f") + bytes(4464)
    write("images", "seed-dsk", b"\0\0\0" + dsk)
    vmdk = put(4096, (0, b"KDMV" + le(1, 4) + le(5, 4) + le(250, 8) + le(8, 8)), (0x38, le(1, 8)), (512, le(2, 4)), (1024, le(6, 4) + le(0, 4) + le(1, 4)))
    write("images", "seed-vmdk", b"\1\0\0" + vmdk)
    write("images", "seed-descriptor", b"\1\0\0" + b"# Extent description\nRW 9 ZERO\nRW 4 FLAT \"a.bin\" 1\n\n" + bytes(500))
    vdi = put(2048, (0x40, le(0xBEDA107F, 4)), (0x4C, le(1, 4)), (0x154, le(512, 4)), (0x158, le(1024, 4)), (0x170, le(2048, 8)), (0x178, le(512, 4)), (512, le(1, 4) + b"\xff" * 4 + le(0, 4)))
    write("images", "seed-vdi", b"\2\0\0" + vdi)
    vhd = put(4096, (0, b"conectix"), (0x10, be(512, 8)), (0x30, be(2048, 8)), (0x3C, be(3, 4)), (512, b"cxsparse"), (528, be(1536, 8)), (540, be(4, 4)), (544, be(512, 4)), (1536, be(4, 4) + b"\xff" * 12))
    write("images", "seed-vhd", b"\3\0\0" + vhd)
    hdd = put(2048, (0, b"WithoutFreeSpace"), (28, le(1, 4) + le(4, 4) + le(4, 4)), (64, le(2, 4) + le(0, 4) + le(3, 4)))
    write("images", "seed-hdd", b"\5\0\0" + hdd)
    qcow2 = put(4096, (0, b"QFI\xfb" + be(3, 4)), (20, be(9, 4) + be(4096, 8)), (36, be(1, 4) + be(512, 8)), (100, be(104, 4)), (512, be(1024, 8)),
                (1024, be(1536, 8) + be(1, 8) + be((1 << 62) | 2048, 8)), (2048, bytes.fromhex("4b4ca43d00") + bytes(3)))
    write("images", "seed-qcow2", b"\7\0\0" + qcow2)
    entry = put(8192, (0, b"loge"), (8, le(8192, 4)), (16, le(7, 8) + le(1, 4)), (32, b"L" * 16), (64, b"desc"), (80, le(8192, 8) + le(7, 8)), (4096, b"data"), (8188, le(7, 4)))
    write("images", "seed-vhdx-log", b"\x08\0\0" + entry[:4] + le(crc32c(entry), 4) + entry[8:] + bytes(4096))
    write("images", "seed-map", b"\6\0\0" + b"# Mapfile\n0x0 ? 1\n0x00000000  0x00000400  +\n0x00000400  0x00000200  -\n")


def search():
    """Volumes that say that they are large enough to be taken notice of."""
    for width in (16, 32):
        image = bytearray(volume(width))
        struct.pack_into("<H", image, 19, 0)
        struct.pack_into("<I", image, 32, 24000)
        write("search", "seed-fat%d" % width, b"\0" + bytes(512 * 9) + bytes(image))


def exfat():
    """A volume with live and deleted files, in pieces and not, folders, and a set whose first slot is gone."""
    sector, table, heap, clusters = 512, 24, 28, 60
    image = bytearray((heap + clusters) * sector)
    at = lambda cluster: (heap + cluster - 2) * sector

    def entries(name, cluster, size, folder=False, chain=False, deleted=False):
        units = name.encode("utf-16-le")
        names = [units[i:i + 30] for i in range(0, len(units), 30)]
        rows = bytearray(struct.pack("<BBHHHIIIBBBBB7x", 0x85, 1 + len(names), 0, 0x10 if folder else 0x20, 0, *[0x52B16DA5] * 3, 50, 0, 0x88, 0x88, 0x88))
        rows += struct.pack("<BBBBHHQIIQ", 0xC0, 1 if chain else 3, 0, len(name), 0, 0, size, 0, cluster, size)
        rows += b"".join(b"\xC1\0" + piece.ljust(30, b"\0") for piece in names)
        total = 0
        for i, byte in enumerate(rows):
            if i not in (2, 3):
                total = ((total & 1) << 15) + (total >> 1) + byte & 0xFFFF
        struct.pack_into("<H", rows, 2, total)
        for i in range(0, len(rows) if deleted else 0, 32):
            rows[i] &= 0x7F
        return bytes(rows)

    boot = bytearray(sector)
    boot[:11] = b"\xEB\x76\x90EXFAT   "
    struct.pack_into("<QQIIIIIIHHBBBBB", boot, 0x40, 0, heap + clusters, table, 2, heap, clusters, 4, 1, 0x100, 0, 9, 0, 2, 0x80, 0xFF)
    boot[510:] = b"\x55\xAA"
    image[:sector] = image[12 * sector:13 * sector] = boot
    for cluster, value in {0: 0xFFFFFFF8, 1: 0xFFFFFFFF, 2: 0xFFFFFFFF, 3: 0xFFFFFFFF, 4: 6, 6: 0xFFFFFFFF, 20: 25, 25: 0xFFFFFFFF, 30: 33, 33: 0xFFFFFFFF}.items():
        struct.pack_into("<I", image, table * sector + cluster * 4, value)
        struct.pack_into("<I", image, (table + 2) * sector + cluster * 4, value)
    image[at(2):at(2) + 8] = bytes.fromhex("1f00140200000000")
    image[at(3):at(3) + 8] = bytes.fromhex("ffff610041004200")
    root = b"\x83\x01V\0".ljust(32, b"\0") + struct.pack("<BB18xIQ", 0x81, 0, 2, 8) + struct.pack("<B3xI12xIQ", 0x82, 0, 3, 8)
    root += entries("chain", 20, 700, chain=True) + entries("dir", 8, 512, folder=True) + entries("gone", 30, 900, chain=True, deleted=True)
    root += entries("old", 40, 1200, deleted=True) + entries("dir2", 10, 512, folder=True, deleted=True) + entries("a", 40, 100, deleted=True)[32:]
    image[at(4):at(4) + 512] = root[:512]
    image[at(6):at(6) + len(root) - 512] = root[512:]
    for folder, name in ((8, "inside this folder"), (10, "was here"), (12, "lost")):
        rows = entries(name, folder + 1, 100) + entries("sub", 14, 512, folder=True)
        image[at(folder):at(folder) + len(rows)] = rows
    return bytes(image)


def main():
    deep()
    structure()
    images()
    search()
    write("ntfs", "seed-volume", b"\0" + ntfs())
    write("exfat", "seed-volume", b"\0" + exfat())
    write("exfat", "seed-without-boot", b"\x83" + bytes(24 * 512) + exfat()[24 * 512:])
    write("ntfs_record", "seed-resident", ntfs()[2048 + 14 * 1024:2048 + 15 * 1024])
    write("ntfs_record", "seed-listed", ntfs()[2048 + 12 * 1024:2048 + 13 * 1024])
    write("ntfs_record", "seed-table", ntfs()[2048:3072])
    log = bytearray(3 * 4096)
    log[:4] = b"RSTR"
    struct.pack_into("<IH", log, 0x14, 4096, 0x30)
    struct.pack_into("<H", log, 0x30 + 0x26, 0x40)
    at = 4096 + 0x40
    image = record(0, [named for named in (attribute(0x30, file_name(5, "logged")), attribute(0x80, b"content"))])
    for lsn, operation, redo in ((9, 2, image), (10, 7, b"changed!"), (11, 0x0B, bytes(24)), (12, 2, image)):
        struct.pack_into("<QQQI4xI", log, at, lsn, 5, 5, 0x28 + len(redo), 1)
        struct.pack_into("<HHHH8xHHHHIIII", log, at + 0x30, operation, 0 if operation == 2 else operation, 0x28, len(redo), 0x38, 0x10, 0, 0, 3, 0, 9, 0)
        log[at + 0x58:at + 0x58 + len(redo)] = redo
        at += 0x58 + len(redo)
    write("ntfs_log", "seed-log", bytes(log))
    write("lznt1", "seed-text", bytes.fromhex("38b08846232000204720410010a24701a045204400084501507900c04520052413"
                                              "8805b4024a44ef0358028c091601484500be009e000401189000"))
    write("lznt1", "seed-stored", b"\x00\x30\x41\x03\xB0\x02\x00\xFC\x0F")
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
