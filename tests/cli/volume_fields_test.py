#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""What tells volumes apart and how they are known, in text and JSON; lists that go on after a blank."""
import json
import subprocess

from support import DATA, TestCase, main, run

SECTOR = 512


def rows(*arguments):
    return [json.loads(line) for line in run(*arguments, "--json").stdout.splitlines()]


class VolumeFields(TestCase):
    def test_two_lost_volumes(self):
        stick = self.stick.read_bytes()
        second = 2048 + len(stick) // SECTOR + 4096
        path = self.target() / "two.img"
        path.write_bytes(bytes(2048 * SECTOR) + stick + bytes(4096 * SECTOR) + stick + bytes(1 << 20))
        listed = rows("ls", path, "--scan")
        letters = {r["volume_sector"]: r for r in listed if r["name"] == "letter 1.txt"}
        self.assertEqual(sorted(letters), [2048, second])
        self.assertEqual({r["drive"] for r in letters.values()}, {1})
        report = self.target() / "report.jsonl"
        recovered = rows("recover", path, "--scan", "--path", "letter 1.txt", "--out", self.target(), "--report", report)
        self.assertEqual([r["volume_sector"] for r in recovered if "name" in r], [2048, second])
        self.assertEqual([json.loads(line)["volume_sector"] for line in report.read_text().splitlines() if "name" in line], [2048, second])

    def test_known_by_a_copy(self):
        ntfs, fat = self.target() / "ntfs.img", self.target() / "fat.img"
        subprocess.run(["zstd", "-dqf", str(DATA / "lab-ntfs.img.zst"), "-o", str(ntfs)], check=True)
        fat.write_bytes(self.stick.read_bytes())
        for path in (ntfs, fat):
            for code in ("stored", "copy"):
                for verb in ("drives", "info"):
                    self.assertEqual([r["geometry"] for r in rows(verb, path) if r["file_system"]], [code], (verb, path))
                isTold = code == "copy"
                self.assertEqual("known only from copies or traces of its structures" in run("drives", path).stdout, isTold)
                self.assertEqual("copies or traces of its structures only" in run("info", path).stdout, isTold)
                with open(path, "r+b") as f:
                    f.write(bytes(SECTOR))
        blank = self.target() / "blank.img"
        blank.write_bytes(bytes(20 << 20))
        self.assertEqual([r["geometry"] for r in rows("drives", blank)], [None])

    def test_lists_that_go_on(self):
        def names(*arguments):
            r = run("ls", *arguments, "--json")
            self.assertEqual(r.returncode, 0, r.stderr)
            return [json.loads(line)["path"] for line in r.stdout.splitlines()]
        for option, one, two in (("--type", "image", "document"), ("--ext", "png", "txt"), ("--systems", "fat", "ntfs")):
            scan = ["--scan"] if option == "--systems" else []
            wanted = names(self.stick, *scan, option, one + "," + two)
            for list_of in ([option, one + ",", two], [option, one, "," + two], [option, one, ",", two], [option + "=" + one + ",", two]):
                self.assertEqual(names(self.stick, *scan, *list_of), wanted, list_of)
                self.assertEqual(names(*scan, *list_of, self.stick), wanted, list_of)
            if not scan:
                self.assertNotEqual(names(self.stick, option, one), wanted)
        # Other words and other options are left as they are.
        self.assertEqual(run("ls", self.stick, "--ext", "png", "txt").returncode, 2)
        self.assertEqual(run("ls", self.stick, "--path", "a,", "b").returncode, 2)
        self.assertEqual(names(self.stick, "--ext", "png,", "--existing"), names(self.stick, "--ext", "png", "--existing"))


if __name__ == "__main__":
    main()
