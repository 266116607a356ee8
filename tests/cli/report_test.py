#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""What a recovery tells before, while and after it writes: the target, the plan, the report, JSON, the summary."""
import json
import os
import subprocess

from support import CLI, ENVIRONMENT, TestCase, digest, main, mounted, run


def lines(text):
    return [json.loads(line) for line in text.splitlines()]


class Report(TestCase):
    def test_wrong_targets_cost_no_scan(self):
        """The source has nothing to find: whoever scans first would say so."""
        empty, folder = self.image([]), self.target()
        (folder / "file").write_text("")
        (folder / "map").write_text("0x0 ? 1\n0x0 0x%X +\n" % empty.stat().st_size)
        for arguments, words in ((["--out", folder / "file/below"], "file/below"), (["--out", folder, "--report", folder / "none/report"], "none/report"),
                                 (["--out", folder, "--report", folder], str(folder)), (["--out", folder, "--report", folder / "map", "--map", folder / "map"], "lies on the source")):
            r = run("recover", empty, *arguments)
            self.assertEqual(r.returncode, 2, r.stderr)
            self.assertIn(words, r.stderr)
            self.assertNotIn("no files were found", r.stderr)
        self.assertRegex(run("recover", self.stick, "--out", folder / "new").stdout.splitlines()[0], r"^Target: .*new, [0-9.]+ [KMGT]B free\.$")

    def test_report_keeps_what_it_holds(self):
        image, out, report = self.image([("a.txt", b"a", False), ("b.txt", b"bb", True)]), self.target(), self.target() / "report"
        self.assertEqual(run("recover", image, "--out", out, "--report", report, "--existing").returncode, 0)
        first = report.read_text()
        report.write_text(first + '{"path": "cut off')  # as a power failure leaves it
        self.assertEqual(run("recover", image, "--out", out, "--report", report, "--conflict", "skip").returncode, 0)
        text = report.read_text()
        self.assertTrue(text.startswith(first + '{"path": "cut off\n'))
        rows = lines(text[text.index("cut off") + 8:])
        self.assertEqual([(row["path"], row["outcome"]) for row in rows], [("a.txt", "skipped"), ("b.txt", "whole")])
        known = {row["target"]: row["sha256"] for row in lines(first) + rows if row["sha256"]}
        self.assertEqual(known, {name: digest(out / name) for name in ("a.txt", "b.txt")})

    def test_report_of_a_killed_run(self):
        """Every file with its name on the target has its line, but for the one that the kill met."""
        image = self.image([("f%d" % f, [("%d.bin" % i, os.urandom(3000), False) for i in range(60)], False) for f in range(40)])
        for count in (1, 700, 1900):
            out, report = self.target(), self.target() / "report"
            process = subprocess.Popen([CLI, "recover", str(image), "--out", str(out), "--report", str(report)], stdout=subprocess.DEVNULL, env=ENVIRONMENT)
            while process.poll() is None and (not report.exists() or report.read_bytes().count(b"\n") < count):
                pass
            process.kill()
            process.wait()
            reported = {row["target"] for row in lines(report.read_text())}
            there = {str(p.relative_to(out)) for p in out.rglob("*.bin")}
            self.assertLessEqual(len(there - reported), 1)
            self.assertFalse(reported - there)

    def test_json(self):
        image, out = self.image([("a.txt", b"a" * 3000, False), ("b.txt", b"b", True)]), self.target()
        (out / "b.txt").write_text("mine")
        *rows, summary = lines(run("recover", image, "--out", out, "--json", "--conflict", "skip").stdout)
        self.assertEqual([(row["target"], row["outcome"], row["written"], row["errno"], row["error"]) for row in rows],
                         [("a.txt", "whole", 3000, 0, None), ("b.txt", "skipped", 0, 0, None)])
        self.assertEqual([row["sha256"] for row in rows], [digest(out / "a.txt"), None])
        self.assertEqual((summary["summary"], summary["files"], summary["whole"], summary["skipped"], summary["bytes"], summary["stopped"]),
                         (True, 2, 1, 1, 3000, False))
        folder = self.target()
        r = mounted("size=64k", '"$1" recover "$2" --out "$3" --json', folder, CLI, self.image([("large", os.urandom(200000), False)]), folder)
        if r is None:
            self.skipTest("mount namespaces are not allowed here")
        row, summary = lines(r.stdout)
        self.assertEqual((row["outcome"], row["errno"], summary["failed"], summary["target_full"]), ("failed", 28, 1, True))
        self.assertIn("the files take up to 195 KB, but the target has only 64.0 KB free", r.stderr)

    def test_dry_run(self):
        image, out = self.image([("a.txt", b"a" * 3000, False), ("sub", [("b.txt", b"b", True)], False)]), self.target()
        r = run("recover", image, "--out", out / "new", "--dry-run", "--report", out / "report")
        self.assertEqual((r.returncode, list(out.iterdir())), (0, []))
        self.assertIn("Would recover 2 files (2.93 KB)", r.stdout)
        rows = lines(run("recover", image, "--out", out / "new", "--dry-run", "--json", "--deleted").stdout)
        self.assertEqual([(row["path"], row["outcome"]) for row in rows], [("sub/b.txt", "planned")])
        self.assertEqual(list(out.iterdir()), [])

    def test_room_on_a_relative_target(self):
        image, out = self.image([("a.txt", b"a" * 3000, False)]), self.target()
        for more, said in (([], r"^Target: found, [0-9.]+ [KMGT]B free"), (["--dry-run"], r" to found, which has [0-9.]+ [KMGT]B free")):
            self.assertRegex(run("recover", image, "--out", "found", *more, cwd=out).stdout, said)

    def test_words(self):
        image = self.image([("sub", [("a.txt", b"a", True)], False)])
        listed = run("ls", image).stdout
        self.assertIn("1 file in 1 folder, 1 byte; 1 file deleted", listed)
        self.assertIn("      1 byte  deleted", listed)
        said = run("recover", image, "--out", self.target()).stdout.splitlines()[1:]
        self.assertRegex(said[0], r"^Recovered 1 of 1 file \(1 byte\) to ")
        self.assertEqual(said[1:], ["Deleted files among them: 1 file."])


if __name__ == "__main__":
    main()
