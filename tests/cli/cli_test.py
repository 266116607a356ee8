#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""Runs the program as a user would: verbs, exit status, messages, JSON, stop."""
import json
import os
import pathlib
import subprocess
import unittest

from support import CLI, DATA, ENVIRONMENT, TestCase, digest, main, mbr, run


class Program(TestCase):
    def test_recover_all(self):
        out = self.target() / "new folder"
        r = run("recover", self.stick, "--out", out)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(r.stderr, "", "no progress where there is no terminal")
        self.assertIn("Recovered 22 of 22 files", r.stdout)
        letter = out / "Documents/letter 2.txt"  # deleted on the stick
        self.assertEqual(letter.stat().st_size, 1800)
        self.assertTrue(letter.read_text().startswith("This is letter 2.txt, line 00000"))
        self.assertEqual(letter.stat().st_mtime, 1620062406)
        picture = (out / "Pictures/Summer 2020/beach 3.png").read_bytes()
        self.assertTrue(picture.startswith(b"\x89PNG") and picture.endswith(b"IEND\xaeB`\x82"))
        self.assertEqual((out / "Documents/Überweisung Müller №7.txt").stat().st_size, 732)
        self.assertEqual(len(list(out.glob("Lost and found/*/Chapter one/draft*"))), 8)
        # Again into the same folder: nothing is overwritten.
        r = run("recover", self.stick, "--out", out, "--type", "image")
        self.assertEqual(r.returncode, 0)
        self.assertTrue((out / "Pictures/Summer 2020/beach 3 (2).png").exists())
        self.assertFalse((out / "README (2).TXT").exists())

    def test_filters(self):
        def paths(*options):
            r = run("ls", self.stick, "--json", *options)
            self.assertEqual(r.returncode, 0, r.stderr)
            return {row["path"] for row in map(json.loads, r.stdout.splitlines()) if not row["folder"]}
        everything, deleted, existing = paths(), paths("--deleted"), paths("--existing")
        self.assertEqual(everything, deleted | existing)
        self.assertFalse(deleted & existing)
        self.assertIn("Documents/letter 2.txt", deleted)
        self.assertEqual(len(paths("--type", "image")), 4)
        self.assertEqual(paths("--type", "image", "--type", "document"), everything)
        self.assertEqual(paths("--path", "LETTER*.txt"), {"Documents/letter %d.txt" % i for i in (1, 2, 3)})
        self.assertEqual(paths("--path", "Pictures/*", "--deleted"), {"Pictures/Summer 2020/beach 3.png"})
        self.assertEqual(paths("--path", "*Überweisung*"), {"Documents/Überweisung Müller №7.txt"})
        self.assertNotIn("Lost and found", "".join(paths("--lost-folders", "never")))

    def test_deep(self):
        """Content without a file system, beside one, and outside of all volumes of a disk."""
        def rows(source, *options, status=0):
            r = run("ls", source, "--json", "--deep", *options)
            self.assertEqual(r.returncode, status, r.stderr)
            return [row for row in map(json.loads, r.stdout.splitlines()) if not row["folder"]]
        stick = self.stick.read_bytes()
        start = stick.index(b"\x89PNG")
        picture = stick[start:stick.index(b"IEND\xaeB`\x82", start) + 8]
        photo = b"\xff\xd8\xff\xe0" + bytes(range(1, 200)) * 30 + b"\xff\xd9"
        raw = self.target() / "raw.img"
        raw.write_bytes(b"".join(part.ljust((len(part) // 4096 + 1) * 4096, b"\0") for part in (b"", photo, picture, photo)) + bytes(1 << 20))
        r = run("ls", raw)
        self.assertEqual(r.returncode, 1)
        self.assertIn("--deep", r.stderr)
        self.assertEqual([(row["name"], row["deep"], row["size"]) for row in rows(raw)],
                         [("File 00001.jpg", True, len(photo)), ("File 00002.jpg", True, len(photo)), ("File 00001.png", True, len(picture))])
        self.assertIn("raw.img", run("ls", raw, "--deep").stdout.splitlines()[0])
        self.assertEqual([row["path"] for row in rows(raw, "--ext", "gif,PNG")], ["Deep analysis/Portable Network Graphic (.png)/File 00001.png"])
        self.assertEqual(rows(raw, "--type", "audio", status=1), [])
        out = self.target()
        r = run("recover", raw, "--deep", "--out", out)
        self.assertEqual(r.returncode, 0, r.stdout + r.stderr)
        self.assertEqual((out / "Deep analysis/Portable Network Graphic (.png)/File 00001.png").read_bytes(), picture)

        both, deep = rows(self.stick), rows(self.stick, "--fast-off")
        self.assertEqual({row["path"] for row in both if row["deep"]}, {row["path"] for row in deep})
        self.assertEqual(len(both) - len(deep), len([row for row in both if not row["deep"]]))
        self.assertIn("README.TXT", {row["path"] for row in both})

        disk = self.target() / "disk.img"
        disk.write_bytes(mbr(2048, len(stick) // 512) + bytes(2047 * 512) + stick + bytes(8192) + picture.ljust(1 << 20, b"\0"))
        found = rows(disk)
        self.assertIn("README.TXT", {row["path"] for row in found if row["drive"] == 2})
        behind = [row for row in found if row["deep"] and row["first_cluster"] * 512 == 2048 * 512 + len(stick) + 8192]
        self.assertEqual([(row["drive"], row["size"]) for row in behind], [(1, len(picture))])
        self.assertEqual({row["drive"] for row in rows(disk, "--drive", "2")}, {2})
        self.assertEqual(len(run("types", "--json").stdout.splitlines()), 41)
        self.assertIn("JPEG Image", run("types").stdout)

    def test_json(self):
        rows = [json.loads(line) for line in run("ls", self.stick, "--json").stdout.splitlines()]
        row = next(r for r in rows if r["name"] == "letter 1.txt")
        self.assertEqual(set(row), {"id", "path", "name", "size", "folder", "kind", "virtual", "deleted", "overwritten", "doubt", "deep", "compressed", "encrypted", "drive", "volume_sector", "created", "modified", "accessed", "first_cluster", "place"})
        self.assertEqual((row["size"], row["deleted"], row["deep"], row["drive"]), (900, False, False, 1))
        self.assertEqual(row["modified"], "2021-05-03T17:20:06")
        out = run("recover", self.stick, "--out", self.target(), "--json", "--path", "README.TXT")
        row, summary = map(json.loads, out.stdout.splitlines())
        self.assertTrue(summary["summary"])
        self.assertEqual((row["target"], row["outcome"]), ("README.TXT", "whole"))
        drive = json.loads(run("drives", self.stick, "--json").stdout)
        self.assertEqual((drive["number"], drive["file_system"], drive["label"]), (1, "FAT32", "DEMOSTICK"))
        info = json.loads(run("info", self.stick, "--json").stdout)
        self.assertEqual(info["cluster_size"], 512)

    def test_people(self):
        self.assertIn("FAT32", run("drives", self.stick).stdout)
        info = run("info", self.stick).stdout
        for words in ("Cluster size     512 bytes", "Label            DEMOSTICK", "40.0 MB"):
            self.assertIn(words, info)
        tree = run("ls", self.stick, "--tree").stdout
        self.assertIn("    letter 2.txt  1.76 KB  [deleted]\n", tree)
        for verb in ([], ["drives"], ["info"], ["ls"], ["recover"], ["find"], ["image"], ["types"]):
            r = run(*verb, "--help")
            self.assertEqual(r.returncode, 0)
            self.assertIn("Example", r.stdout)

    def test_wrong_usage(self):
        for arguments in ([], ["fetch"], ["ls"], ["ls", self.stick, "--type", "song"], ["ls", self.stick, "--drive", "0"],
                          ["recover", self.stick], ["ls", self.stick, "--frobnicate"], ["ls", self.stick, "--fast-off"], ["ls", self.stick, "--drive", "9"],
                          ["recover", self.stick, "--out", self.stick]):
            r = run(*arguments)
            self.assertEqual(r.returncode, 2, arguments)
            self.assertTrue(r.stderr)

    def test_unreadable_sources(self):
        folder = self.target()
        tiny, blank = folder / "tiny.img", folder / "blank.img"
        tiny.write_bytes(b"x" * 511)
        blank.write_bytes(bytes(1 << 20))
        for source, words in (("/does/not/exist.img", "No such file"), (folder, "is a folder"), (tiny, "smaller than one sector"), ("/dev/null", "neither a file nor a block device")):
            r = run("ls", source)
            self.assertEqual(r.returncode, 2)
            self.assertIn(words, r.stderr)
        r = run("ls", blank)
        self.assertEqual(r.returncode, 1)
        self.assertIn("no known file system", r.stderr)

    def test_failures_are_named(self):
        image = self.target() / "cut.img"
        image.write_bytes(self.stick.read_bytes())
        # The last file in use lies at the end of what is cut off.
        rows = [json.loads(line) for line in run("ls", image, "--json", "--existing").stdout.splitlines()]
        last = max((r for r in rows if not r["folder"] and r["size"] > 600), key=lambda r: r["first_cluster"])
        info = json.loads(run("info", image, "--json").stdout)
        data = image.read_bytes()
        reserved, tables, size = int.from_bytes(data[14:16], "little"), data[16], int.from_bytes(data[36:40], "little")
        image.write_bytes(data[:(reserved + tables * size + last["first_cluster"] - 2 + 1) * info["cluster_size"]])
        r = run("recover", image, "--out", self.target())
        self.assertEqual(r.returncode, 1)
        self.assertIn(last["name"] + ": parts of it lie where the source cannot be read", r.stdout)

    def test_specimens(self):
        specimens = DATA.resolve().parents[2] / "shared/specimens/ntfs"
        if not specimens.is_dir():
            self.skipTest("the specimens are not here")
        for truth in sorted(specimens.glob("*.truth.json")):
            image = self.target() / "specimen.raw"
            subprocess.run(["zstd", "-dqf", str(truth).replace(".truth.json", ".zst"), "-o", str(image)], check=True)
            out = self.target()
            # A file that only the log knows may be listed without content.
            self.assertIn(run("recover", image, "--out", out, "--streams", "files").returncode, (0, 1), truth.name)
            found = {str(p.relative_to(out)): digest(p) for p in out.rglob("*") if p.is_file()}
            for file in json.loads(truth.read_text())["files"]:
                if file.get("system") or "sha256" not in file:
                    continue
                if "$OrphanFiles" in file["path"]:  # others' name for what has no folder
                    self.assertIn(file["sha256"], found.values(), (truth.name, file["path"]))
                else:
                    self.assertEqual(found.get(file["path"]), file["sha256"], (truth.name, file["path"]))

    def test_languages(self):
        german = run("recover", self.stick, "--out", self.target(), "--language", "German")
        self.assertEqual(german.returncode, 0)
        self.assertIn("Wiederhergestellt: 22 von 22 Dateien", german.stdout)
        out = subprocess.run([CLI, "ls", "--help"], capture_output=True, text=True, env={**ENVIRONMENT, "LC_ALL": "de_DE.UTF-8"}).stdout
        self.assertIn("Nur gelöschte Dateien", out)
        self.assertNotIn("Only deleted", out)
        r = run("drives", self.stick, "--language=Klingon")
        self.assertIn("no texts for the language Klingon", r.stderr)
        self.assertIn("First sector", r.stdout)

    def test_root_device_is_only_read(self):
        if os.geteuid() != 0:
            self.skipTest("listing the machine's drives in full needs root")
        self.assertEqual(run("drives").returncode, 0)


if __name__ == "__main__":
    main()
