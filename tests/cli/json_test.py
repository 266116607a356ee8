#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""What scripts rely on: ids that stay, exact paths, times with their zone, the same values in every language."""
import base64
import json
import subprocess
import unittest

from fat_image import fat16
from support import CLI, DATA, ENVIRONMENT, TestCase, main, run


def rows(*arguments, **more):
    r = run(*arguments, "--json", **more)
    return [json.loads(line) for line in r.stdout.splitlines()]


class Json(TestCase):
    def test_ids(self):
        listed = rows("ls", self.stick)
        self.assertEqual(len({row["id"] for row in listed}), len(listed))
        again = rows("ls", self.stick, "--deleted", "--lost-folders", "always", "--language", "German")
        known = {row["id"] for row in listed}
        self.assertTrue(all(row["id"] in known for row in again), "a second run gives the same ids")
        # Deep rows are numbered by what is looked for; their ids are not.
        deep = {row["first_cluster"]: row["id"] for row in rows("ls", self.stick, "--deep", "--fast-off") if not row["folder"]}
        self.assertTrue(deep)
        for row in rows("ls", self.stick, "--deep", "--ext", "png"):
            if row["deep"]:
                self.assertEqual(row["id"], deep[row["first_cluster"]])

    def test_recover_by_id(self):
        listed = rows("ls", self.stick)
        letter = next(row for row in listed if row["name"] == "letter 2.txt")
        folder = next(row for row in listed if row["virtual"] == "lost_folder")
        ids = self.target() / "ids"
        below = sorted(row["name"] for row in listed if not row["folder"] and row["path"].startswith(folder["path"] + "/"))
        self.assertEqual(len(below), 9)
        for text in ("%s\n\n  %s\n" % (letter["id"], folder["id"]), "".join(json.dumps(row) + "\n" for row in (letter, {"summary": True}, folder))):
            ids.write_text(text)
            out = self.target()
            r = run("recover", self.stick, "--out", out, "--id", ids)
            self.assertEqual(r.returncode, 0, r.stderr)
            self.assertEqual(sorted(p.name.replace("_", "?") for p in out.rglob("*") if p.is_file()), sorted(below + ["letter 2.txt"]))
        r = run("ls", self.stick, "--id", "-", input=letter["id"] + "\n")
        self.assertIn("1 file in 0 folders", r.stdout)
        # An id that is not there is told, and what is there comes back.
        out = self.target()
        r = run("recover", self.stick, "--out", out, "--id", "-", input=letter["id"] + "\n0123456789abcdef\n")
        self.assertEqual((r.returncode, len(list(out.rglob("letter 2.txt")))), (1, 1))
        self.assertIn("not found: 1", r.stderr)
        for text in ("letter 2.txt\n", letter["id"] + "0\n", "{\"id\": \n"):
            r = run("recover", self.stick, "--out", out, "--id", "-", input=text)
            self.assertEqual(r.returncode, 2)
            self.assertIn("line 1 is not an id", r.stderr)
        self.assertEqual(run("recover", self.stick, "--out", out, "--id", self.target() / "none").returncode, 2)

    def test_the_same_in_every_language(self):
        for verb in (["ls", self.stick], ["ls", self.stick, "--deep"], ["info", self.stick], ["drives", self.stick]):
            english, german = rows(*verb), rows(*verb, "--language", "German")
            self.assertEqual(english, german)
        codes = {row["path"]: row["virtual"] for row in rows("ls", self.stick, "--deep") if row["virtual"]}
        self.assertEqual(codes["Lost and found"], "lost_and_found")
        self.assertEqual(codes["Deep analysis"], "deep_analysis")
        self.assertEqual(codes["Deep analysis/Portable Network Graphic (.png)"], "deep_type")

    def test_exact_paths(self):
        image = self.target() / "names.img"
        image.write_bytes(fat16([("\ud800lone\U0001F600.txt", b"1", False), ("plain.txt", b"2", False)]))
        lone, plain = rows("ls", image)
        self.assertEqual(lone["path"], "\ufffdlone\U0001F600.txt")
        self.assertEqual(base64.b64decode(lone["path_base64"]), b"\xed\xa0\x80lone\xf0\x9f\x98\x80.txt")
        self.assertNotIn("path_base64", plain)

    def test_times(self):
        # FAT has local times of an unknown zone, and of the last access the date; NTFS has UTC.
        row = next(row for row in rows("ls", self.stick) if row["name"] == "letter 1.txt")
        self.assertEqual((row["modified"], row["accessed"]), ("2021-05-03T17:20:06", "2021-05-03"))
        self.assertEqual({row["modified"] for row in rows("ls", self.stick) if row["virtual"]}, {None})
        specimen = DATA.resolve().parents[2] / "shared/specimens/ntfs/undelete-7.raw.zst"
        if not specimen.is_file():
            self.skipTest("the specimens are not here")
        image = self.target() / "ntfs.raw"
        subprocess.run(["zstd", "-dqf", str(specimen), "-o", str(image)], check=True)
        times = {}
        for zone in ("UTC", "Asia/Kathmandu", "America/St_Johns"):
            out = subprocess.run([CLI, "ls", str(image), "--json"], capture_output=True, text=True, env={**ENVIRONMENT, "TZ": zone}).stdout
            times[zone] = [json.loads(line)["modified"] for line in out.splitlines()]
        instants = {zone: [t and __import__("datetime").datetime.fromisoformat(t) for t in all_times] for zone, all_times in times.items()}
        self.assertEqual(instants["UTC"], instants["Asia/Kathmandu"])
        self.assertEqual(instants["UTC"], instants["America/St_Johns"])
        self.assertTrue(any(t and t.endswith("+05:45") for t in times["Asia/Kathmandu"]))
        self.assertTrue(any(t and t.endswith(("-03:30", "-02:30")) for t in times["America/St_Johns"]))


if __name__ == "__main__":
    main()
