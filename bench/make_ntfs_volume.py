#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""The recipe of the NTFS volumes that are measured on, written record by record; one by ntfs-3g.

    make_ntfs_volume.py many OUT [FILES] [FOLDERS]   FILES (500,000) small files in FOLDERS (5,000) folders
    make_ntfs_volume.py used OUT [FILES] [FOLDERS]   the same through mkntfs and ntfs-3g (needs root and FUSE;
                                                     minutes), a tenth of the files deleted again
    make_ntfs_volume.py pieces OUT [BYTES] [COUNT]   one file of BYTES (1 GiB) in COUNT (1,000) pieces
"""
import os
import struct
import subprocess
import sys
import tempfile

SECTOR, CLUSTER, RECORD = 512, 4096, 1024
TABLE = 16  # cluster where $MFT begins
TIME = 0x01D7402000000000
FIRST_FREE = 24  # records below are the system's


def attribute(kind, value=None, runs=None, clusters=0, size=0, name=""):
    text = name.encode("utf-16-le")
    head = 0x18 if value is not None else 0x40
    body = head + (len(text) + 7) // 8 * 8
    content = value if value is not None else runs
    out = struct.pack("<IIBBHHH", kind, (body + len(content) + 7) // 8 * 8, value is None, len(name), head if name else 0, 0, 0)
    if value is not None:
        out += struct.pack("<IHH", len(value), body, 0)
    else:
        out += struct.pack("<QQHHIQQQ", 0, clusters - 1, body, 0, 0, clusters * CLUSTER, size, size)
    return ((out + text).ljust(body, b"\0") + content).ljust((body + len(content) + 7) // 8 * 8, b"\0")


def file_name(parent, name, size=0, folder=False):
    return attribute(0x30, struct.pack("<QQQQQQQII", parent | 1 << 48, TIME, TIME, TIME, TIME, -(-size // CLUSTER) * CLUSTER, size, 0x10000000 if folder else 0x20, 0) + bytes([len(name), 3]) + name.encode("utf-16-le"))


def run_list(runs):
    """Runs of (first cluster, count) as they are stored."""
    out, before = b"", 0
    for first, count in runs:
        delta = first - before
        sizes = [next(n for n in range(1, 9) if -(1 << 8 * n - 1) <= v < 1 << 8 * n - 1) for v in (count, delta)]
        out += bytes([sizes[0] | sizes[1] << 4]) + count.to_bytes(sizes[0], "little", signed=True) + delta.to_bytes(sizes[1], "little", signed=True)
        before = first
    return out + b"\0"


def record(number, attributes, flags=1):
    used = b"".join(attributes) + struct.pack("<I", 0xFFFFFFFF)
    out = bytearray(RECORD)
    out[:4] = b"FILE"
    struct.pack_into("<HHQHHHHIIQHHI", out, 4, 0x30, 3, 0, 1, 1, 0x38, flags, 0x38 + len(used) + 4, RECORD, 0, 8, 0, number)
    out[0x38:0x38 + len(used)] = used
    for i in (1, 2):
        out[0x30 + 2 * i:0x32 + 2 * i] = out[i * SECTOR - 2:i * SECTOR]
        out[i * SECTOR - 2:i * SECTOR] = out[0x30:0x32] = b"\x07\0"
    return bytes(out)


INFO = attribute(0x10, struct.pack("<4QI", TIME, TIME, TIME, TIME, 0x20).ljust(48, b"\0"))


class Volume:
    def __init__(self, path, records, clusters):
        self.file = open(path, "w+b")
        self.table_clusters = -(-records * RECORD // CLUSTER)
        usage_clusters = -(-records // 8 // CLUSTER) + 1
        self.next = TABLE + self.table_clusters + usage_clusters + 4
        self.clusters = self.next + clusters + 16
        self.file.truncate(self.clusters * CLUSTER)
        usage = TABLE + self.table_clusters
        self.put(0, [INFO, file_name(5, "$MFT"), attribute(0x80, runs=run_list([(TABLE, self.table_clusters)]), clusters=self.table_clusters, size=records * RECORD),
                     attribute(0xB0, runs=run_list([(usage, usage_clusters)]), clusters=usage_clusters, size=-(-records // 8))])
        self.put(3, [INFO, file_name(5, "$Volume"), attribute(0x60, "BENCH".encode("utf-16-le")), attribute(0x70, bytes(8) + b"\3\1\0\0")])
        root = struct.pack("<IIIIIIII", 0x30, 1, 4096, 1, 16, 32, 32, 0) + struct.pack("<QHHI", 0, 16, 0, 2)
        self.put(5, [INFO, file_name(5, ".", folder=True), attribute(0x90, root, name="$I30")], 3)
        used = self.clusters // 8
        bitmap = self.take(-(-used // CLUSTER))
        self.put(6, [INFO, file_name(5, "$Bitmap"), attribute(0x80, runs=run_list([(bitmap, -(-used // CLUSTER))]), clusters=-(-used // CLUSTER), size=used)])
        self.write(usage, b"\xFF" * (records // 8))

    def take(self, count):
        first, self.next = self.next, self.next + count
        return first

    def put(self, number, attributes, flags=1):
        self.file.seek(TABLE * CLUSTER + number * RECORD)
        self.file.write(record(number, attributes, flags))

    def write(self, cluster, data):
        self.file.seek(cluster * CLUSTER)
        self.file.write(data)

    def close(self):
        boot = bytearray(SECTOR)
        boot[:11] = b"\xEB\x52\x90NTFS    "
        struct.pack_into("<HB", boot, 11, SECTOR, CLUSTER // SECTOR)
        boot[0x15] = 0xF8
        struct.pack_into("<IQQQ", boot, 0x24, 0x800080, self.clusters * CLUSTER // SECTOR - 1, TABLE, 2)
        boot[0x40], boot[0x44] = 0xF6, 1
        boot[510:512] = b"\x55\xAA"
        self.file.seek(TABLE * CLUSTER)
        head = self.file.read(4 * RECORD)
        self.write(2, head)
        for at in (0, self.clusters * CLUSTER - SECTOR):
            self.file.seek(at)
            self.file.write(boot)
        self.file.close()


def many(path, files=500000, folders=5000):
    v = Volume(path, FIRST_FREE + files + folders, 0)
    index = struct.pack("<IIIIIIII", 0x30, 1, 4096, 1, 16, 32, 32, 0) + struct.pack("<QHHI", 0, 16, 0, 2)
    for f in range(folders):
        v.put(FIRST_FREE + f, [INFO, file_name(5, "Folder %05d" % f, folder=True), attribute(0x90, index, name="$I30")], 3)
    for i in range(files):
        size = 500 + i % 3000
        v.put(FIRST_FREE + folders + i, [INFO, file_name(FIRST_FREE + i * 7919 % folders, "IMG_%08d.JPG" % i, size),
                                         attribute(0x80, runs=run_list([(64 + i % 50000, 1)]), clusters=1, size=size)])
    v.close()


def used(path, files=500000, folders=5000):
    with open(path, "wb") as f:
        f.truncate(1400 << 20)
    subprocess.run(["mkntfs", "-F", "-Q", "-s", "512", "-c", "512", path], check=True, stdout=subprocess.DEVNULL)
    top = tempfile.mkdtemp()
    subprocess.run(["ntfs-3g", "-o", "noatime,big_writes", path, top], check=True)
    try:
        for f in range(folders):
            folder = os.path.join(top, "Folder %05d" % f)
            os.mkdir(folder)
            for i in range(files // folders):
                with open(os.path.join(folder, "IMG_%08d.JPG" % (f * 1000 + i)), "wb") as out:
                    out.write(b"content %d" % i)
            for i in range(0, files // folders, 10):
                os.unlink(os.path.join(folder, "IMG_%08d.JPG" % (f * 1000 + i)))
    finally:
        subprocess.run(["umount", top], check=True)
        os.rmdir(top)


def pieces(path, size=1 << 30, count=1000):
    """The pieces lie in reverse order, each with a gap behind it."""
    per = size // CLUSTER // count
    clusters = per * count
    v = Volume(path, 64, (per + 3) * count)
    first = v.take((per + 3) * count)
    starts = [first + (count - 1 - i) * (per + 3) for i in range(count)]
    block = os.urandom(per * CLUSTER)
    for i, start in enumerate(starts):
        v.write(start, struct.pack("<Q", i) + block[8:])
    # One record holds some hundred runs: the rest is in extension records.
    groups = [starts[i:i + 150] for i in range(0, count, 150)]
    listed, done = b"", 0
    for g, group in enumerate(groups):
        data = attribute(0x80, runs=run_list([(s, per) for s in group]), clusters=per * len(group), size=clusters * CLUSTER)
        data = data[:0x10] + struct.pack("<QQ", done, done + per * len(group) - 1) + data[0x20:]
        listed += struct.pack("<IHBBQQH", 0x80, 0x20, 0, 0x1A, done, FIRST_FREE + 1 + g | 1 << 48, 0).ljust(0x20, b"\0")
        extension = bytearray(record(FIRST_FREE + 1 + g, [data]))
        struct.pack_into("<Q", extension, 0x20, FIRST_FREE | 1 << 48)
        v.file.seek(TABLE * CLUSTER + (FIRST_FREE + 1 + g) * RECORD)
        v.file.write(extension)
        done += per * len(group)
    v.put(FIRST_FREE, [INFO, attribute(0x20, listed), file_name(5, "PIECES.BIN", clusters * CLUSTER)])
    v.close()


if __name__ == "__main__":
    {"many": many, "used": used, "pieces": pieces}[sys.argv[1]](sys.argv[2], *map(int, sys.argv[3:]))
