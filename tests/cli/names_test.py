#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""Names of recovered files: taken ones, hostile ones, long ones."""
import hashlib
import json

from support import TestCase, main, run


class NamesTest(TestCase):
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


if __name__ == "__main__":
    main()
