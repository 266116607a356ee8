#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""The target of a recovery: one run at a time, nothing left behind, no more written than a source can hold."""
import json
import os
import re
import struct
import subprocess
import time

from support import CLI, DATA, Held, TestCase, main, mounted, run


class TargetTest(TestCase):
    def content(self, folder):
        return {str(p.relative_to(folder)): p.read_bytes() for p in folder.rglob("*") if p.is_file()}

    def test_two_runs_into_one_folder(self):
        files = [("f%02d.bin" % i, bytes([i]) * (500 + 99 * i), False) for i in range(40)]
        image, out = self.image(files), self.target()
        expected = {name: content for name, content, _ in files}
        first = Held("recover", image, "--path", "f*[13579].bin", "--out", out, HOLD_AT_NAME=7)
        for report in ([], ["--json"]):
            second = run("recover", image, "--path", "f*[02468].bin", "--out", out, *report)
            self.assertEqual((second.returncode, second.stdout), (2, ""))
            self.assertIn("Another run of this program is writing there", second.stderr)
            self.assertEqual(len([name for name in self.content(out) if not name.startswith(".brenlow")]), 6)
        status, _, error = first.go_on()
        self.assertEqual(status, 0, error)
        self.assertEqual(self.content(out), {n: c for n, c in expected.items() if int(n[1:3]) % 2})
        self.assertEqual(run("recover", image, "--path", "f*[02468].bin", "--out", out).returncode, 0)
        self.assertEqual(self.content(out), expected)

    def test_nothing_is_left_of_killed_runs(self):
        files = [("sub", [("f%02d.bin" % i, bytes([i]) * 3000, False) for i in range(20)], False)]
        image, out = self.image(files), self.target()
        for named in (3, 9):
            Held("recover", image, "--out", out, "--conflict", "skip", HOLD_AT_NAME=named).kill()
        (out / "sub" / ".brenlow-partial-1-12345678").write_bytes(b"of a run that is gone")
        self.assertEqual(run("recover", image, "--out", out, "--conflict", "skip").returncode, 0)
        self.assertEqual(self.content(out), {"sub/" + n: c for n, c, _ in files[0][1]})

    def test_sizes_beyond_all_measure(self):
        image = self.image([("small%02d.bin" % i, b"x" * 100, False) for i in range(12)])
        data = bytearray(image.read_bytes())
        for entry in re.finditer(rb"F\d{7}   \x20", bytes(data)):
            data[entry.start() + 28:entry.start() + 32] = struct.pack("<I", 0x7FFFFFFF)
        image.write_bytes(data)
        out = self.target() / "out"
        r = run("recover", image, "--out", out)
        self.assertEqual(r.returncode, 2)
        self.assertIn("--allow-expand", r.stderr)
        self.assertEqual(self.content(out) if out.exists() else {}, {})
        self.assertEqual(run("recover", image, "--out", out, "--path", "small0[12].bin").returncode, 1)
        self.assertEqual(sorted(self.content(out)), ["small01.bin", "small02.bin"])
        self.assertEqual(run("recover", image, "--out", out, "--allow-expand").returncode, 1)
        self.assertEqual(len(self.content(out)), 14)

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

    def test_symbolic_links(self):
        folder = self.target()
        image, out = folder / "linux.img", folder / "out"
        subprocess.run(["zstd", "-dqf", str(DATA / "lab-ext4.img.zst"), "-o", str(image)], check=True)
        kinds = {row["name"]: row["kind"] for row in map(json.loads, run("ls", image, "--json").stdout.splitlines())}
        self.assertEqual((kinds["short link"], kinds["README.TXT"], kinds["Documents"]), ("link", "file", "folder"))
        arguments = ["recover", image, "--out", out, "--path", "short link"]
        link = out / "short link"
        for conflict in ("rename", "replace"):
            self.assertEqual(run(*arguments, "--conflict", conflict).returncode, 0)
            self.assertEqual(os.readlink(link), "README.TXT")
            self.assertLess(os.lstat(link).st_mtime, time.time() - 1e6, "the times of the source")
        # What a link of that name leads to stays as it is.
        (folder / "kept").write_text("kept")
        link.unlink()
        link.symlink_to(folder / "kept")
        self.assertEqual(run(*arguments, "--conflict", "replace").returncode, 0)
        self.assertEqual((os.readlink(link), (folder / "kept").read_text()), ("README.TXT", "kept"))
        self.assertEqual(sorted(p.name for p in out.iterdir()), ["short link"])

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


if __name__ == "__main__":
    main()
