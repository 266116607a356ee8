#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""Runs the program as a user would: verbs, exit status, messages, JSON, stop, and that a source is
never changed.   cli_test.py BRENLOW-CLI DATA-FOLDER"""
import hashlib
import json
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import unittest

CLI, DATA = sys.argv[1], pathlib.Path(sys.argv[2])


def run(*arguments, **more):
    return subprocess.run([CLI, *map(str, arguments)], capture_output=True, text=True, timeout=60, **more)


def digest(path):
    return hashlib.sha256(pathlib.Path(path).read_bytes()).hexdigest()


class Program(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.stick = pathlib.Path(cls.folder.name) / "stick.img"
        subprocess.run(["zstd", "-dqf", str(DATA / "demo-stick.img.zst"), "-o", str(cls.stick)], check=True)
        cls.before = digest(cls.stick)

    @classmethod
    def tearDownClass(cls):
        assert digest(cls.stick) == cls.before, "the source was changed"
        cls.folder.cleanup()

    def target(self):
        return pathlib.Path(tempfile.mkdtemp(dir=self.folder.name))

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

    def test_json(self):
        rows = [json.loads(line) for line in run("ls", self.stick, "--json").stdout.splitlines()]
        row = next(r for r in rows if r["name"] == "letter 1.txt")
        self.assertEqual(set(row), {"path", "name", "size", "folder", "deleted", "deep", "drive", "created", "modified", "accessed", "first_cluster"})
        self.assertEqual((row["size"], row["deleted"], row["deep"], row["drive"]), (900, False, False, 1))
        self.assertEqual(row["modified"], "2021-05-03T17:20:06")
        out = run("recover", self.stick, "--out", self.target(), "--json", "--path", "README.TXT")
        row = json.loads(out.stdout)
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
        for verb in ([], ["drives"], ["info"], ["ls"], ["recover"]):
            r = run(*verb, "--help")
            self.assertEqual(r.returncode, 0)
            self.assertIn("Example", r.stdout)

    def test_wrong_usage(self):
        for arguments in ([], ["fetch"], ["ls"], ["ls", self.stick, "--type", "song"], ["ls", self.stick, "--drive", "0"],
                          ["recover", self.stick], ["ls", self.stick, "--frobnicate"], ["ls", self.stick, "--drive", "9"],
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

    def test_stop(self):
        # A named pipe in the program's way would be refused, so the scan is slowed by its size.
        image = self.target() / "large.img"
        with open(image, "wb") as f, open(self.stick, "rb") as stick:
            boot = bytearray(stick.read(512))
            boot[32:36] = (64 << 20).to_bytes(4, "little")  # 32 GiB, sparse, all free
            boot[13] = 64
            size = (((64 << 20) // 64) * 4) // 512 + 8
            boot[36:40] = size.to_bytes(4, "little")
            f.write(boot)
            f.truncate(32 << 30)
        for verb in (["ls", image, "--lost-folders", "always"], ["recover", image, "--lost-folders", "always", "--out", self.target()]):
            process = subprocess.Popen([CLI, *map(str, verb)], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
            try:
                process.wait(0.7)
            except subprocess.TimeoutExpired:
                pass
            process.send_signal(signal.SIGINT)
            out, err = process.communicate(timeout=20)
            self.assertEqual(process.returncode, 130, err)
            self.assertIn("topped", out + err)

    def test_root_device_is_only_read(self):
        if os.geteuid() != 0:
            self.skipTest("listing the machine's drives in full needs root")
        self.assertEqual(run("drives").returncode, 0)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0]])
