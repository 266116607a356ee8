#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""Under sudo what a run makes belongs to the user who called it; what was there before keeps its owner."""
import os
import shutil
import subprocess
import unittest

from support import CLI, ENVIRONMENT, LIMIT, Held, TestCase, main, run

USER, GROUP = 4321, 8765


@unittest.skipUnless(os.geteuid() == 0, "only root can give files away")
class Sudo(TestCase):
    def setUp(self):
        ENVIRONMENT.update(SUDO_UID=str(USER), SUDO_GID=str(GROUP))

    def tearDown(self):
        for name in ("SUDO_UID", "SUDO_GID"):
            ENVIRONMENT.pop(name, None)

    def owners(self, folder):
        return {str(p.relative_to(folder)): (p.lstat().st_uid, p.lstat().st_gid) for p in sorted(folder.rglob("*"))}

    def all_are(self, owner, folder):
        owners = self.owners(folder)
        self.assertTrue(owners)
        self.assertEqual({name: o for name, o in owners.items() if o != owner}, {})

    def test_recovery(self):
        base = self.target()
        r = run("recover", self.stick, "--out", base / "new" / "found", "--report", base / "report.jsonl")
        self.assertEqual(r.returncode, 0, r.stderr)
        self.all_are((USER, GROUP), base)
        self.assertEqual((base.stat().st_uid, base.stat().st_gid), (0, 0), "the folder that was there")
        held = Held("recover", self.stick, "--out", base / "held", HOLD_AT_NAME=3)
        self.assertEqual({(p.stat().st_uid, p.stat().st_gid) for p in base.glob("held/.brenlow-*")}, {(USER, GROUP)})
        held.go_on()
        for wrong in ("", "-1", "4294967295", "12x"):
            ENVIRONMENT["SUDO_UID"] = wrong
            out = self.target()
            self.assertEqual(run("recover", self.stick, "--out", out / "found", "--ext", "txt").returncode, 0)
            self.all_are((0, 0), out)

    def test_what_was_there(self):
        """Folders, files, reports and what links lead to keep their owners."""
        out, elsewhere = self.target(), self.target()
        self.assertEqual(run("recover", self.stick, "--out", out).returncode, 0)
        kept = [next(p for p in out.iterdir() if p.is_dir()), next(out.rglob("*.txt"))]
        for name in ("secret", "report.jsonl"):
            (elsewhere / name).write_bytes(b"")
            kept.append(elsewhere / name)
        for path in kept:
            os.chown(path, 0, 0)
        again = next(p for p in out.rglob("*.txt") if p not in kept)
        again.unlink()
        (out / ".brenlow-lock").symlink_to(elsewhere / "secret")
        r = run("recover", self.stick, "--out", out, "--conflict", "skip", "--report", elsewhere / "report.jsonl")
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual({p.name: (p.stat().st_uid, p.stat().st_gid) for p in kept}, {p.name: (0, 0) for p in kept})
        self.assertEqual(again.stat().st_uid, USER)

    def test_images(self):
        out = self.target()
        for more in (["--out", out / "a.img", "--map", out / "a.map"], ["--out", out / "b.dsk", "--compressed"]):
            r = run("image", self.stick, *more)
            self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(set(self.owners(out)), {"a.img", "a.map", "b.dsk"})
        self.all_are((USER, GROUP), out)

class Settings(TestCase):
    def test_unreadable(self):
        """Told once, and the program works without them."""
        program = self.target() / "brenlow-cli"
        shutil.copy(CLI, program)
        settings = program.parent / "Settings.ini"
        settings.mkdir()
        r = subprocess.run([program, "ls", self.stick], capture_output=True, text=True, timeout=LIMIT, env=ENVIRONMENT)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertIn("letter 1.txt", r.stdout)
        self.assertEqual(r.stderr.count("%s: these settings cannot be read" % settings), 1, r.stderr)
        settings.rmdir()
        r = subprocess.run([program, "ls", self.stick], capture_output=True, text=True, timeout=LIMIT, env=ENVIRONMENT)
        self.assertNotIn("settings", r.stderr)


if __name__ == "__main__":
    main()
