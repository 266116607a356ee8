#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""`--best`: everything that there is, in one list, nothing twice."""
import hashlib
import json

from fat_image import fat16
from support import TestCase, main, mbr, run


class Best(TestCase):
    def rows(self, source, *options):
        r = run("ls", source, "--json", "--best", *options)
        self.assertEqual(r.returncode, 0, r.stderr)
        return [row for row in map(json.loads, r.stdout.splitlines()) if not row["folder"]]

    def test_names_before_content(self):
        stick = self.stick.read_bytes()
        start = stick.index(b"\x89PNG")
        picture = stick[start:stick.index(b"IEND\xaeB`\x82", start) + 8]
        # A volume that the table names, one that it does not, and a picture outside of both.
        disk = self.target() / "disk.img"
        lost_at = 2048 + len(stick) // 512 + 2048
        alone = (lost_at + len(stick) // 512 + 2048) * 512
        disk.write_bytes((mbr(2048, len(stick) // 512) + bytes(2047 * 512) + stick + bytes(2048 * 512) + stick).ljust(alone, b"\0") + picture.ljust(1 << 20, b"\0"))
        found = self.rows(disk)
        plain = [json.loads(line) for line in run("ls", self.stick, "--json").stdout.splitlines()]
        names = sorted(row["path"] for row in plain if not row["folder"])
        by_drive = {}
        for row in found:
            if not row["deep"]:
                by_drive.setdefault(row["drive"], []).append(row["path"])
        named, lost = by_drive.values()
        self.assertEqual(sorted(named), names)
        self.assertLessEqual({"README.TXT", "Documents/letter 2.txt", "Pictures/Summer 2020/beach 3.png"}, set(lost))
        self.assertLessEqual(set(lost), set(names))
        # No picture that a folder lists comes a second time.
        self.assertEqual([row["first_cluster"] * 512 for row in found if row["deep"] and row["name"].endswith(".png")], [alone])
        out = self.target()
        self.assertEqual(run("recover", disk, "--best", "--type", "image", "--out", out).returncode, 0)
        self.assertIn(hashlib.sha256(picture).hexdigest(), {hashlib.sha256(p.read_bytes()).hexdigest() for p in out.rglob("*Deep*/*/*.png")})

    def test_longer_content_where_a_deleted_file_begins(self):
        head = b"\xff\xd8\xff\xe0\x00\x10JFIF\x00\x01\x01\x00\x00\x01\x00\x01\x00\x00"
        picture = head + bytes(i * 7 % 199 for i in range(6000)) + b"\xff\xd9"
        for size, twice in ((1000, True), (len(picture), False)):
            # The deleted file comes last, so that nothing live lies in the picture.
            image = bytearray(fat16([("live.txt", b"text", False), ("gone.jpg", picture[:size], True)]))
            start = image.index(head)
            image[start:start + len(picture)] = picture
            path = self.target() / "volume.img"
            path.write_bytes(image)
            found = {(row["deep"], row["size"]) for row in self.rows(path) if row["name"].endswith(".jpg")}
            self.assertEqual(found, {(False, size)} | ({(True, len(picture))} if twice else set()))

    def test_one_volume(self):
        plain = [json.loads(line)["path"] for line in run("ls", self.stick, "--json").stdout.splitlines()]
        best = [json.loads(line)["path"] for line in run("ls", self.stick, "--json", "--best").stdout.splitlines()]
        self.assertEqual(set(plain) - set(best), set())
        for other in (["--scan"], ["--deep"]):
            self.assertEqual(run("ls", self.stick, "--best", *other).returncode, 2)


if __name__ == "__main__":
    main()
