#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""What the program shows of sources: rows and their numbers, partitions of every size, names in the table, lost volumes."""
import json
import os
import pathlib
import struct
import subprocess
import unittest
import uuid

from support import DATA, TestCase, main, mbr, run

SECTOR = 512


def small_fat12(label, content):
    """A FAT12 volume of 4 MiB with one file."""
    sectors, cluster, reserved, table, root = 8192, 4, 1, 6, 32
    image = bytearray(sectors * SECTOR)
    struct.pack_into("<HBHBHHBH", image, 11, SECTOR, cluster, reserved, 2, root * SECTOR // 32, sectors, 0xF8, table)
    image[0:3], image[38] = b"\xeb\x3c\x90", 0x29
    image[43:62] = label.ljust(11).encode() + b"FAT12   "
    image[510:512] = b"\x55\xaa"
    for n in range(2):
        at = (reserved + n * table) * SECTOR
        image[at:at + 6] = b"\xf8\xff\xff\xff\x0f\x00"
    at = (reserved + 2 * table) * SECTOR
    image[at:at + 32] = struct.pack("<11sB10xHHHI", b"NOTE    TXT", 0x20, 0x8A83, 0x52A3, 2, len(content))
    at += root * SECTOR
    image[at:at + len(content)] = content
    return bytes(image)


def gpt(volumes, sectors):
    """Header and entries of a table of (first sector, content or sectors, name, type)."""
    data = {"basic": "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7", "reserved": "E3C9E316-0B5C-4DB8-817D-F92DF00215AE"}
    entries = b"".join(struct.pack("<16s16sQQQ72s", uuid.UUID(data[kind]).bytes_le, uuid.UUID(int=first).bytes_le, first, first + count - 1, 0,
                                   name.encode("utf-16-le")) for first, count, name, kind in volumes)
    header = struct.pack("<8sIIIIQQQQ16sQIII", b"EFI PART", 0x10000, 92, 0, 0, 1, sectors - 1, 34, sectors - 34, bytes(16), 2, 128, 128, 0)
    protective = (bytes(446) + struct.pack("<B3sB3sII", 0, bytes(3), 0xEE, bytes(3), 1, sectors - 1)).ljust(510, b"\0") + b"\x55\xaa"
    return protective + header.ljust(SECTOR, b"\0") + entries.ljust(128 * 128, b"\0")


def rows(*arguments):
    r = run(*arguments, "--json")
    assert r.returncode == 0, r.stderr
    return [json.loads(line) for line in r.stdout.splitlines()]


class Drives(TestCase):
    def disk(self):
        """The stick as a large partition, a small one, and a reserved one."""
        stick, small = self.stick.read_bytes(), small_fat12("TINY", b"kept in a small place")
        at = 2048 + len(stick) // SECTOR
        self.small_at = at + 2048
        volumes = [(2048, len(stick) // SECTOR, "Holiday \u2600 pictures", "basic"), (self.small_at, len(small) // SECTOR, "B\u202eoot\x1b!", "basic"), (self.small_at + 16384, 40960, "Reserved", "reserved")]
        sectors = self.small_at + 16384 + 40960 + 2048
        path = self.target() / "disk.img"
        with open(path, "wb") as f:
            f.write(gpt(volumes, sectors))
            f.seek(2048 * SECTOR)
            f.write(stick)
            f.seek(self.small_at * SECTOR)
            f.write(small)
            f.truncate(sectors * SECTOR)
        return path

    def test_small_partitions_and_names(self):
        disk = self.disk()
        plain = rows("drives", disk)
        everything = rows("drives", disk, "--all")
        self.assertEqual(everything[:len(plain)], plain, "the numbers of the others stay")
        self.assertEqual([(r["partition_name"], r["first_sector"]) for r in plain if r["partition_name"]], [("Holiday \u2600 pictures", 2048)])
        small, reserved = everything[len(plain):]
        self.assertEqual((small["type"], small["file_system"], small["label"], small["first_sector"], small["sectors"], small["partition_name"]),
                         ("volume", "FAT12", "TINY", self.small_at, 8192, "B\u202eoot\x1b!"))
        self.assertEqual((reserved["partition_name"], reserved["file_system"]), ("Reserved", None))
        self.assertEqual([r["number"] for r in everything], list(range(1, len(everything) + 1)))
        text = run("drives", disk, "--all").stdout
        self.assertIn("[Holiday \u2600 pictures]", text)
        self.assertIn("[B?oot?!]", text)
        self.assertIn("Partition name   Holiday \u2600 pictures", run("info", disk).stdout)
        self.assertEqual([r["partition_name"] for r in rows("info", disk, "--drive", small["number"])], ["B\u202eoot\x1b!"])
        # Whoever leaves it out says so; by its number and by its range it reads.
        for verb in (["drives", disk], ["ls", disk], ["recover", disk, "--out", self.target()]):
            self.assertIn("1 volume below 8 MiB is left out", run(*verb).stderr)
        for options in (["--drive", small["number"]], ["--first", small["first_sector"], "--count", small["sectors"]]):
            files = rows("ls", disk, *options)
            self.assertEqual([(r["name"], r["size"]) for r in files], [("NOTE.TXT", 21)])
            out = self.target()
            self.assertEqual(run("recover", disk, *options, "--out", out).returncode, 0)
            self.assertEqual((out / "NOTE.TXT").read_bytes(), b"kept in a small place")
        self.assertEqual(run("ls", disk, "--drive", len(everything) + 1).returncode, 2)

    def test_numbers(self):
        """One numbering: that of `drives SOURCE`, in lists, JSON and folders, whatever a scan adds."""
        stick = self.stick.read_bytes()
        count = len(stick) // SECTOR
        path = self.target() / "two.img"
        path.write_bytes(mbr(2048, count) + bytes(2047 * SECTOR) + stick + bytes(4096 * SECTOR) + stick + bytes(1 << 20))
        lost = 2048 + count + 4096
        table = {r["first_sector"]: r["number"] for r in rows("drives", path) if r["type"] == "volume"}
        self.assertEqual(table, {2048: 2})
        for options in (["--drive", "2"], ["--drive", "1"], ["--first", "2048", "--count", count]):
            listed = rows("ls", path, *options)
            self.assertEqual({r["drive"] for r in listed}, {2}, options)
            self.assertIn("Drive 2: FAT32", run("ls", path, *options).stdout)
        text = run("ls", path, "--scan").stdout
        self.assertIn("Drive 2: FAT32", text)
        self.assertRegex(text, r"Drive \d, sector %d: FAT32" % lost)
        out = self.target()
        run("recover", path, "--scan", "--out", out)
        self.assertEqual(sorted(p.name for p in out.iterdir()), ["2 DEMOSTICK", "Sector %d DEMOSTICK" % lost])
        # Several sources: each row with what other verbs take for it.
        listed = rows("drives", self.stick, path)
        self.assertEqual([(r["source"], r["number"]) for r in listed[:3]], [(str(self.stick), 1), (str(path), 1), (str(path), 2)])
        self.assertIn("%s --drive 2\n" % path, run("drives", self.stick, path).stdout)

    def test_machine(self):
        """Without a source, each row names one that verbs take, with its number there."""
        r = run("drives", "--json")
        self.assertEqual(r.returncode, 0)
        for row in map(json.loads, r.stdout.splitlines()):
            self.assertTrue(row["source"].startswith("/dev/"))
            if os.access(row["source"], os.R_OK):
                again = run("drives", row["source"], "--json")
                if again.returncode == 0:
                    same = [json.loads(line) for line in again.stdout.splitlines()][row["number"] - 1]
                    self.assertEqual((same["first_sector"], same["sectors"], same["type"]), (row["first_sector"], row["sectors"], row["type"]))

    def test_lost_boot_sectors(self):
        """`find` and `drives` agree where only a copy of the boot sector is left."""
        ntfs = self.target() / "ntfs.img"
        subprocess.run(["zstd", "-dqf", str(DATA / "lab-ntfs.img.zst"), "-o", str(ntfs)], check=True)
        fat = self.target() / "fat.img"
        fat.write_bytes(self.stick.read_bytes())
        for path, system in ((fat, "FAT32"), (ntfs, "NTFS")):
            with open(path, "r+b") as f:
                f.write(bytes(SECTOR))
            drive = rows("drives", path)[0]
            self.assertEqual(drive["file_system"], system)
            for options in ([], ["--scan"]):
                found = rows("find", path, *options)
                self.assertEqual([(r["first_sector"], r["file_system"]) for r in found], [(0, system)], options)
                self.assertEqual(found[0]["sectors"], drive["sectors"])
            self.assertEqual(run("find", path, "--systems", "ntfs" if system == "FAT32" else "fat").returncode, 1)
        blank = self.target() / "blank.img"
        blank.write_bytes(bytes(20 << 20))
        for verb in (["find", blank], ["find", blank, "--scan"], ["ls", blank, "--scan"]):
            r = run(*verb)
            self.assertEqual(r.returncode, 1)
            self.assertRegex(r.stderr, "--scan|--deep")


if __name__ == "__main__":
    main()
