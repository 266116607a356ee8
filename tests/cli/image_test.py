#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""Images that the program writes, and lost volumes that it finds."""
import json
import os

from support import Held, TestCase, digest, main, run


class ImageTest(TestCase):
    def test_image(self):
        folder = self.target()
        out = folder / "copy.dsk"
        self.assertEqual(run("image", self.stick, "--out", folder / "copy.img").returncode, 0)
        self.assertEqual(digest(folder / "copy.img"), self.before)
        r = run("image", self.stick, "--out", out)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertIn(str(out), r.stdout)
        self.assertEqual(digest(out), self.before)
        for arguments in (["--out", out], ["--out", self.stick], ["--out", folder / "b.dsk", "--first", "99999999"],
                          ["--out", folder / "b.dsk", "--compressed", "--map", folder / "map"], ["--out", folder / "b.dsk", "--drive", "7"],
                          ["--out", folder / "b.dsk", "--map", folder / "../" / folder.name / "b.dsk"],
                          ["--out", folder / "b.dsk", "--map", folder / "b.dsk.partial"], ["--out", folder / "b.new", "--map", folder / "b"],
                          ["--out", folder / "b", "--map", folder / "../" / folder.name / "b.partial"]):
            r = run("image", self.stick, *arguments)
            self.assertEqual(r.returncode, 2, arguments)
            self.assertTrue(r.stderr)
        self.assertEqual(run("image", self.stick, "--out", out, "--compressed", "--overwrite").returncode, 0)
        self.assertLess(out.stat().st_size, self.stick.stat().st_size // 10)
        self.assertEqual(run("ls", out).stdout.splitlines()[1:], run("ls", self.stick).stdout.splitlines()[1:])
        r = run("image", self.stick, "--out", folder / "part.dsk", "--first", "10", "--count", "20", "--json")
        self.assertEqual(json.loads(r.stdout), {"path": str(folder / "part.dsk"), "size": 10240, "unreadable_sectors": 0})
        self.assertEqual((folder / "part.dsk").read_bytes(), self.stick.read_bytes()[5120:5120 + 10240])
        # What an earlier run got off the source is not thrown away unless asked for.
        part = folder / "again.dsk.partial"
        part.write_text("all that there is")
        r = run("image", self.stick, "--out", folder / "again.dsk")
        self.assertEqual((r.returncode, part.read_text()), (2, "all that there is"))
        self.assertIn(str(part), r.stderr)
        self.assertEqual(run("image", self.stick, "--out", folder / "again.dsk", "--overwrite").returncode, 0)
        # The places that a map calls bad are unreadable, and whoever recovers hears of it.
        picture = next(json.loads(line) for line in run("ls", self.stick, "--json", "--path", "beach 1.png").stdout.splitlines())
        start = self.stick.read_bytes().index(b"\x89PNG")
        size = self.stick.stat().st_size
        (folder / "map").write_text("0x0 ? 1\n0x0 0x%X +\n0x%X 0x200 -\n0x%X 0x%X +\n" % (start, start, start + 512, size - start - 512))
        r = run("recover", self.stick, "--map", folder / "map", "--out", folder / "found", "--json")
        outcomes = {row["name"]: row["outcome"] for row in map(json.loads, r.stdout.splitlines()[:-1])}
        self.assertEqual((r.returncode, outcomes[picture["name"]], outcomes["letter 1.txt"]), (1, "unreadable", "whole"))
        (folder / "map").write_text("0x0 ? 1\n0x0 0x1000 +\n")
        self.assertEqual(run("ls", self.stick, "--map", folder / "map").returncode, 2)

    def test_image_killed_and_resumed(self):
        folder = self.target()
        source, out, table = folder / "source.img", folder / "out.dsk", folder / "out.map"
        block = os.urandom(1 << 20)
        with open(source, "wb") as f:
            for i in range(32):
                f.write(i.to_bytes(8, "little") + block[8:])
        arguments = ["image", source, "--out", out, "--map", table]
        done = [0]
        for at in (15, 25, 35):
            # The map is kept each 5 s; the clock goes a second a look.
            Held(*arguments, HOLD_SOURCE=source, HOLD_READ_BYTES=65536, HOLD_AT_READ=at, CLOCK_STEP=1000).kill()
            self.assertFalse(out.exists(), "half an image has no name")
            rows = [line.split() for line in table.read_text().splitlines() if not line.startswith("#")][1:]
            done.append(sum(int(size, 16) for _, size, status in rows if status == "+"))
            self.assertGreater(done[-1], done[-2], "what a run got is kept")
            self.assertLess(done[-1], source.stat().st_size)
        r = run(*arguments)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(digest(out), digest(source))
        self.assertTrue(table.read_text().rstrip().endswith("+"))

    def test_find(self):
        folder = self.target()
        disk = folder / "lost.img"
        stick = self.stick.read_bytes()
        disk.write_bytes(bytes(63 * 512) + stick + bytes(3 << 20))
        for options in ([], ["--scan"], ["--systems", "fat"], ["--first", "63"]):
            r = run("find", disk, "--json", *options)
            self.assertEqual(r.returncode, 0, r.stderr)
            self.assertEqual([json.loads(line) for line in r.stdout.splitlines()],
                             [{"first_sector": 63, "sectors": len(stick) // 512, "file_system": "FAT32", "name": "DEMOSTICK", "size": len(stick)}])
        r = run("find", disk, "--systems", "ntfs")
        self.assertEqual((r.returncode, r.stdout), (1, ""))
        self.assertIn("--first", run("find", disk).stdout)
        want = run("ls", self.stick).stdout.splitlines()[1:]
        self.assertEqual(run("ls", disk, "--first", "63", "--count", str(len(stick) // 512)).stdout.splitlines()[1:], want)
        self.assertIn("README.TXT", run("ls", disk, "--scan").stdout)
        self.assertEqual(run("recover", disk, "--scan", "--out", folder / "found").returncode, 0)
        self.assertEqual((folder / "found/Documents/letter 2.txt").stat().st_size, 1800)


if __name__ == "__main__":
    main()
