#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""Runs the program as a user would: verbs, exit status, messages, JSON, stop."""
import hashlib
import json
import os
import pathlib
import subprocess
import unittest

from fat_image import fat16
from support import CLI, DATA, ENVIRONMENT, Held, TestCase, digest, main, mbr, mounted, run


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
        for at in (20, 30, 40):
            # The map is kept each 5 s; the clock goes a second a look.
            Held(*arguments, HOLD_SOURCE=source, HOLD_AT_READ=at, CLOCK_STEP=1000).kill()
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

    def test_json(self):
        rows = [json.loads(line) for line in run("ls", self.stick, "--json").stdout.splitlines()]
        row = next(r for r in rows if r["name"] == "letter 1.txt")
        self.assertEqual(set(row), {"id", "path", "name", "size", "folder", "virtual", "deleted", "overwritten", "deep", "compressed", "encrypted", "drive", "volume_sector", "created", "modified", "accessed", "first_cluster", "place"})
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

    def image(self, files):
        path = self.target() / "made.img"
        path.write_bytes(fat16(files))
        return path

    def test_taken_names(self):
        image = self.image([("a.txt", b"new a", False), ("b.txt", b"new b", False), ("a.txt", b"old a", True)])
        for how, a, b, others in (("replace", b"new a", b"new b", {"a (2).txt": b"old a"}), ("skip", b"mine", b"new b", {"a (2).txt": b"old a"}),
                                  ("rename", b"mine", b"new b", {"a (2).txt": b"new a", "a (2) (2).txt": b"old a"})):
            out = self.target()
            (out / "a.txt").write_bytes(b"mine")
            r = run("recover", image, "--out", out, "--conflict", how)
            self.assertEqual(r.returncode, 0, r.stderr)
            self.assertEqual((out / "a.txt").read_bytes(), a)
            self.assertEqual((out / "b.txt").read_bytes(), b)
            self.assertEqual("1 file skipped" in r.stdout, how == "skip")
            found = {p.name: p.read_bytes() for p in out.iterdir() if p.name not in ("a.txt", "b.txt")}
            self.assertEqual(sorted(found.values()), sorted(others.values()), how)

    def test_names_and_folders(self):
        image = self.image([("a:b?.txt", b"1", False), ("sub", [("c.txt", b"2", False), ("a:b?.txt", b"3", True)], False)])
        out = self.target()
        self.assertEqual(run("recover", image, "--out", out, "--replace-symbols", "-").returncode, 0)
        self.assertEqual({str(p.relative_to(out)) for p in out.rglob("*")}, {"a-b-.txt", "sub", "sub/c.txt", "sub/a-b-.txt"})
        out = self.target()
        self.assertEqual(run("recover", image, "--out", out, "--flat").returncode, 0)
        self.assertEqual({p.name: p.read_bytes() for p in out.iterdir()}, {"a_b_.txt": b"1", "c.txt": b"2", "a_b_ (2).txt": b"3"})
        for wrong in ("/", "ab", ""):
            self.assertEqual(run("recover", image, "--out", out, "--replace-symbols", wrong).returncode, 2)

    def test_hostile_names(self):
        long = "\u20ac" * 100 + ".jpeg"  # 305 bytes of UTF-8
        names = ["..", "../../up", "a/b", "nul\0tab\t\x1b[2J", long, "link", "\ud800lone", ".brenlow-partial", "CON. "]
        inner = [(name, name.encode("utf-16-le", "surrogatepass"), False) for name in names]
        image = self.image(inner + [("..", inner, False), ("/", [("deep", b"x", False)], False), ("linked", [("f", b"y", False)], False)])
        top = self.target()
        out, elsewhere = top / "out", top / "elsewhere"
        out.mkdir(), elsewhere.mkdir()
        (out / "link").symlink_to(elsewhere / "stolen")
        (out / "linked").symlink_to(elsewhere)
        report = top / "report.jsonl"
        for how in ("rename", "replace"):
            r = run("recover", image, "--out", out, "--conflict", how, "--report", report)
            self.assertEqual(r.returncode, 0, r.stderr + r.stdout)
            self.assertEqual(sorted(p.name for p in top.iterdir()), ["elsewhere", "out", "report.jsonl"])
            self.assertEqual(list(elsewhere.iterdir()), [])
            rows = [json.loads(line) for line in report.read_text().splitlines()]
            report.unlink()  # the next run would add its lines
            self.assertEqual(len(rows), 2 * len(names) + 2)
            for row in rows:
                target = out / row["target"]
                self.assertFalse(target.is_symlink())
                self.assertEqual(hashlib.sha256(target.read_bytes()).hexdigest(), row["sha256"])
                self.assertEqual(target.stat().st_size, row["size"])
                self.assertFalse({c for c in target.name if ord(c) < 32 or c in '\\/:*?"<>|'})
            self.assertEqual(len({row["target"] for row in rows}), len(rows))
            self.assertNotIn("\x1b", r.stdout)

    def test_long_paths(self):
        name = "n" * 200
        image = self.image([(name + "1.txt", b"1", False), (name + "2.txt", b"2", False), (name, [(name + ".txt", b"3", False)], False)])
        out = self.target() / ("p" * 80)
        self.assertEqual(run("recover", image, "--out", out).returncode, 0)
        self.assertEqual((out / name / (name + ".txt")).read_bytes(), b"3")
        out = self.target() / ("p" * 80)
        self.assertEqual(run("recover", image, "--out", out, "--long-paths", "shorten").returncode, 0)
        # Nothing leaves the target folder, nothing is lost where shortened names meet.
        self.assertEqual(sorted(p.read_bytes() for p in out.rglob("*") if p.is_file()), [b"1", b"2", b"3"])
        self.assertTrue(all(len(p.name) <= 104 for p in out.rglob("*") if p.is_file()))

    def test_full_and_read_only_targets(self):
        folder = self.target()
        image = self.image([("first.bin", os.urandom(20000), False), ("large.bin", os.urandom(300000), False), ("small.bin", b"s" * 100, False)])
        list_it = '"$1" recover "$2" --out "$3"; status=$?; ls "$3"; exit $status'
        r = mounted("size=128k", list_it, folder, CLI, image, folder)
        if r is None:
            self.skipTest("mount namespaces are not allowed here")
        self.assertEqual(r.returncode, 1)
        self.assertIn("The target is full.", r.stdout)
        self.assertIn("could not be written: No space left on device", r.stdout)
        # What fits is there, the rest is marked as a part, and nothing is left of a file without content.
        self.assertEqual(r.stdout.splitlines()[-2:], ["first.bin", "large.bin.partial"])
        self.assertIn("small.bin: could not be written", r.stdout)
        r = mounted("ro", '"$1" recover "$2" --out "$3"', folder, CLI, image, folder)
        self.assertEqual(r.returncode, 2)
        self.assertIn("Read-only file system", r.stderr)

    def test_killed_and_run_again(self):
        files = [("folder %d" % f, [("file %d.bin" % i, bytes([f, i]) * (100 + 37 * i), False) for i in range(60)] + [("file 7.bin", b"deleted", True)], False) for f in range(60)]
        image = self.image(files)
        complete = self.target()
        self.assertEqual(run("recover", image, "--out", complete).returncode, 0)
        expected = {p.relative_to(complete): p.read_bytes() for p in complete.rglob("*") if p.is_file()}
        self.assertEqual(len(expected), 60 * 61)
        for named in (1, 2, 1000, len(expected)):
            out = self.target()
            Held("recover", image, "--out", out, HOLD_AT_NAME=named).kill()
            left = {p.relative_to(out): p.read_bytes() for p in out.rglob("*") if p.is_file()}
            partial = {p for p in left if p.name.startswith(".brenlow")}
            self.assertLessEqual(len(partial), 2)
            self.assertEqual(len(left) - len(partial), named - 1)
            for path in left.keys() - partial:
                self.assertEqual(left[path], expected[path])
            r = run("recover", image, "--out", out, "--conflict", "skip")
            self.assertEqual(r.returncode, 0, r.stderr)
            again = {p.relative_to(out): p.read_bytes() for p in out.rglob("*") if p.is_file()}
            for path in again.keys() - expected.keys():
                self.assertTrue(path.name.startswith(".brenlow"))
            self.assertEqual({p: again[p] for p in expected}, expected)

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
