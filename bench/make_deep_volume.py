#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""Makes images without a file system for the deep analysis.

    make_deep_volume.py kinds FILE      1 GiB: files of all kinds on 4 KiB borders, zeros and noise between
    make_deep_volume.py headers FILE    1 GiB of what costs most: every sector a header
    make_deep_volume.py icons FILE      256 MiB: every sector an icon whose directory has 65,535 entries
    make_deep_volume.py endless FILE    256 MiB: one header, and then what its type keeps looking for

Beside `kinds` lies FILE.truth, a JSON line a file: sector, size, kind, sha256, ext (under which it is to be
listed). The lab next to the project (../shared/lab/content.py) makes most contents.
"""
import bz2
import hashlib
import json
import pathlib
import random
import struct
import sys

LAB = pathlib.Path(__file__).resolve().parents[2] / "shared/lab"
SIZE = 1 << 30
DISTINCT = 12                                             # contents of a kind; they repeat over the image
# Kinds of the lab that no header of the table begins: they lie there like noise.
UNLISTED = {"mp4", "txt", "html", "csv", "eml", "sqlite", "bin"}
# How a kind is listed, where that is not its own name.
LISTED_AS = {"xlsx": "zip", "docx": "zip", "docx-word": "docx", "xlsx-excel": "xlsx", "doc-word": "doc", "wma": "asf"}


def plain(head):
    """A file of which only the head matters: the rest is noise without zeros."""
    return lambda content, rng, size: head + rng.randbytes(max(64, size - len(head))).replace(b"\0", b"\1")


def icon(content, rng, size):
    images = [rng.randbytes(max(40, size // 3)) for _ in range(3)]
    at, entries = 6 + 16 * len(images), b""
    for i, image in enumerate(images):
        entries += struct.pack("<BBBBHHII", 16 << i, 16 << i, 0, 0, 1, 32, len(image), at)
        at += len(image)
    return struct.pack("<HHH", 0, 1, len(images)) + entries + b"".join(images)


def document(kind):
    def build(content, rng, size):
        return content.archive(rng, [("mimetype", b"application/vnd.oasis.opendocument." + kind),
                                     ("content.xml", content.text(rng, max(300, size))),
                                     ("media/image1.jpeg", rng.randbytes(max(100, size // 2)))], ("mimetype",))
    return build


def office(folder):
    """As the programs that the format comes from write it: the flags of the first member, the last one an .xml."""
    def build(content, rng, size):
        out = content.archive(rng, [("[Content_Types].xml", b"<Types/>"), (folder + "/_rels/document.xml.rels", b"<Relationships/>"),
                                    (folder + "/document.xml", content.text(rng, max(300, size))),
                                    ("media/image1.jpeg", rng.randbytes(max(100, size // 2))), ("docProps/app.xml", b"<app/>")])
        return out[:6] + b"\6\0" + out[8:]
    return build


def compound(program):
    def build(content, rng, size):
        return content.doc(rng, size) + rng.randbytes(300) + program + b" 97-2003 Document\0"
    return build


OWN = {
    "ani": plain(b"RIFF\1\2\3\1ACON"), "asf": plain(bytes.fromhex("3026b2758e66cf11a6d900aa0062ce6c")), "cab": plain(b"MSCF\1\1\1\1"),
    "bz": lambda content, rng, size: bz2.compress(rng.randbytes(size)), "chm": plain(b"ITSF\3"), "crw": plain(b"II\x1a\0\0\0HEAPCCDR"),
    "cur": plain(b"\0\0\2\0\1\0"), "hlp": plain(b"?_\3\0"), "ico": icon, "mdb": plain(b"\0\1\0\0Standard Jet DB\0"),
    "mny": plain(b"\0\1\0\0MSISAM Database\0"), "mid": plain(b"MThd\1\1\1\6"), "mov": plain(b"\1\2\3\4moov"),
    "mpg": plain(bytes.fromhex("000001ba2100010001801b91000001bb000c80c88504e1ff")), "odp": document(b"presentation"),
    "ods": document(b"spreadsheet"), "psd": plain(b"8BPS"), "rar": plain(b"Rar!\x1a\7\1"), "rm": plain(b".RMF\1"),
    "rmi": plain(b"RIFF\1\2\3\1RMIDdata"), "swf": plain(b"FWS\6"), "tiff": plain(b"MM\0*\1"), "wma": plain(bytes.fromhex("3026b2758e66cf11")),
    "wmf": plain(bytes.fromhex("d7cdc69a")), "wri": plain(bytes.fromhex("31be000000ab0000000000000000")),
    "docx-word": office("word"), "xlsx-excel": office("xl"), "doc-word": compound(b"Microsoft Word"), "xls": compound(b"Microsoft Excel"),
    "ppt": compound(b"Microsoft PowerPoint"),
}


def contents(rng):
    sys.path.insert(0, str(LAB))
    import content
    made = []
    for kind in list(content.KINDS) + list(OWN):
        for i in range(DISTINCT):
            size = (1 << 20) + rng.randrange(1 << 20) if kind == "mp3" else int(2 ** rng.uniform(11, 18 if kind in content.TEXTUAL else 20))
            data = OWN[kind](content, rng, size) if kind in OWN else content.make(kind, i, size)
            made.append((kind, data, hashlib.sha256(data).hexdigest()))
    return made


def kinds(path):
    rng = random.Random(5)
    made = contents(rng)
    with open(path, "wb") as image, open(str(path) + ".truth", "w") as truth:
        image.write(rng.randbytes(65536))
        order = []
        while True:
            if not order:
                order = rng.sample(made, len(made))
            kind, data, digest = order.pop()
            if image.tell() + len(data) + 65536 > SIZE:
                break
            if kind not in UNLISTED:
                truth.write(json.dumps({"sector": image.tell() // 512, "size": len(data), "kind": kind, "ext": LISTED_AS.get(kind, kind), "sha256": digest}) + "\n")
            image.write(data + bytes(-len(data) % 4096))
            gap = rng.randrange(5) * 4096
            image.write(rng.choice((bytes(gap), rng.randbytes(gap))))
        image.write(bytes(SIZE - image.tell()))


def repeated(path, sector, size):
    with open(path, "wb") as image:
        piece = sector * ((1 << 20) // len(sector))
        for _ in range(size // len(piece)):
            image.write(piece)


def headers(path):
    rng = random.Random(6)
    heads = [b"\xff\xd8\xff\xe0", b"GIF89a", b"%PDF-1.4", b"PK\3\4", b"PK\3\4\x14\0\6\0", b"MZ\x90\0\3\0\0\0\4\0\0\0\xff\xff\0\0",
             bytes.fromhex("d0cf11e0a1b11ae1"), b"ID3", b"RIFF\0\0\0\0AVI LIST", b"MM\0*", b"BZh9"]
    repeated(path, b"".join(rng.choice(heads).ljust(512, b" ") for _ in range(2048)), SIZE)


def icons(path):
    count = 0xFFFF
    entry = struct.pack("<BBBBHHII", 16, 16, 0, 0, 1, 32, 0, 6 + 16 * count)
    sector = (struct.pack("<HHH", 0, 1, count) + entry * 32)[:512]
    repeated(path, sector, SIZE // 4)


def endless(path):
    """A document that never says what it is, made of the first letters of all that it might say."""
    with open(path, "wb") as image:
        image.write(bytes(512) + b"PK\3\4".ljust(512, b"P"))
        while image.tell() < SIZE // 4:
            image.write(b"miPKmimetypeapplication/vnd.oasis.opendocument.PKmi" * 4096)


if __name__ == "__main__":
    {"kinds": kinds, "headers": headers, "icons": icons, "endless": endless}[sys.argv[1]](pathlib.Path(sys.argv[2]))
