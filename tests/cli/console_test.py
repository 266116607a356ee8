#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""The program on a terminal, in a pipe, on a full disk, and under signals."""
import json
import os
import pty
import select
import signal
import subprocess
import unittest

from support import CLI, ENVIRONMENT, LIMIT, Held, TestCase, hold_environment, main, run


def on_terminal(*arguments, **hold):
    """All that a run writes to a terminal, and its exit status."""
    master, slave = pty.openpty()
    process = subprocess.Popen([CLI, *map(str, arguments)], stdin=slave, stdout=slave, stderr=slave, env=hold_environment(**hold))
    os.close(slave)
    text = b""
    while select.select([master], [], [], 60)[0]:
        try:
            piece = os.read(master, 65536)
        except OSError:  # the other end is closed
            break
        text += piece
    os.close(master)
    return text.decode("utf-8"), process.wait(60)


class Console(TestCase):
    def many(self):
        """An image whose files are many enough for a stop between them: path and contents by name."""
        files = {"file %02d.bin" % i: bytes([i]) * (3000 + i) for i in range(40)}
        return self.image([(name, content, False) for name, content in files.items()]), files

    def test_full_output(self):
        for arguments in (["--help"], ["--version"], ["help"], ["drives", self.stick], ["drives", self.stick, "--json"], ["info", self.stick],
                          ["ls", self.stick], ["ls", self.stick, "--json"], ["find", self.stick], ["types"], ["types", "--json"],
                          ["recover", self.stick, "--out", self.target()], ["recover", self.stick, "--out", self.target(), "--json"],
                          ["image", self.stick, "--out", self.target() / "copy.dsk"]):
            with open("/dev/full", "w") as full:
                r = subprocess.run([CLI, *map(str, arguments)], stdout=full, stderr=subprocess.PIPE, text=True, env=ENVIRONMENT, timeout=LIMIT)
            self.assertEqual(r.returncode, 1, arguments)
            self.assertIn("standard output: No space left on device.", r.stderr, arguments)
        # A whole recovery is whole all the same: only its summary has no place.
        out = self.target()
        with open("/dev/full", "w") as full:
            subprocess.run([CLI, "recover", str(self.stick), "--out", str(out)], stdout=full, stderr=subprocess.DEVNULL, env=ENVIRONMENT, timeout=LIMIT)
        self.assertEqual((out / "Documents/letter 2.txt").stat().st_size, 1800)

    def test_closed_pipe(self):
        for inherited in (True, False):  # the signal's default action, or ignored as some shells leave it
            r, w = os.pipe()
            os.close(r)
            done = subprocess.run([CLI, "ls", str(self.stick)], stdout=w, stderr=subprocess.PIPE, restore_signals=inherited, env=ENVIRONMENT, timeout=LIMIT)
            os.close(w)
            self.assertEqual((done.returncode, done.stderr), (-signal.SIGPIPE, b""))

    def test_stop_during_a_scan(self):
        for number, status in ((signal.SIGTERM, 143), (signal.SIGINT, 130)):
            out = self.target() / "out"
            held = Held("recover", self.stick, "--deep", "--out", out, HOLD_SOURCE=self.stick, HOLD_AT_READ=200)
            got, stdout, stderr = held.go_on(number)
            self.assertEqual(got, status, stderr)
            self.assertIn("nothing was written", stderr)
            self.assertIn("recover %s --drive 1" % self.stick, stderr)
            self.assertEqual([p for p in out.rglob("*") if p.is_file()] if out.exists() else [], [])
            # What was found is listed, or recovered where that is asked for.
            held = Held("ls", self.stick, "--deep", HOLD_SOURCE=self.stick, HOLD_AT_READ=200)
            got, stdout, stderr = held.go_on(number)
            self.assertEqual(got, status)
            self.assertIn("Documents/letter 1.txt", stdout)
            self.assertIn("stopped", stderr)
            held = Held("recover", self.stick, "--deep", "--recover-found", "--out", out, HOLD_SOURCE=self.stick, HOLD_AT_READ=200)
            got, stdout, stderr = held.go_on(number)
            self.assertEqual(got, status)
            self.assertTrue((out / "Documents/letter 1.txt").exists())
            raw = self.target() / "raw.img"
            raw.write_bytes(os.urandom(1 << 20) * 40)
            for verb in (["find"], ["image", "--out", raw.parent / "a.dsk"]):
                got, stdout, stderr = Held(verb[0], raw, *verb[1:], HOLD_SOURCE=raw, HOLD_READ_BYTES=65536, HOLD_AT_READ=30).go_on(number)
                self.assertEqual(got, status, verb)
                self.assertIn("stopped", stderr)

    def test_stop_during_the_recovery(self):
        image, files = self.many()
        for number, status in ((signal.SIGTERM, 143), (signal.SIGINT, 130)):
            out = self.target()
            got, stdout, stderr = Held("recover", image, "--out", out, HOLD_AT_NAME=20).go_on(number)
            self.assertEqual(got, status)
            found = {p.name: p.read_bytes() for p in out.iterdir()}
            self.assertEqual(len(found), 20, "the file in hand is finished, and no other is begun")
            self.assertEqual(found, {name: files[name] for name in found})
            self.assertIn("Stopped before the end", stdout)
        out = self.target()
        got, stdout, stderr = Held("recover", image, "--out", out, HOLD_AT_NAME=20).go_on(signal.SIGTERM, signal.SIGINT)
        self.assertIn(got, (130, 143))
        self.assertNotIn("Recovered", stdout, "the second one ends at once")
        self.assertEqual(len([p for p in out.iterdir() if p.name in files]), 19)

    def test_progress(self):
        long_scan = ["ls", self.stick, "--deep"]
        def lines(*more, **hold):
            r = subprocess.run([CLI, *map(str, long_scan), *more], capture_output=True, text=True, env=hold_environment(**hold), timeout=LIMIT)
            self.assertEqual(r.returncode, 0, r.stderr)
            return [line for line in r.stderr.splitlines() if "%" in line]
        # The clock that each look finds a second later: many lines, each by itself.
        told = lines(CLOCK_STEP=1000)
        self.assertGreater(len(told), 2)
        for line in told:
            self.assertRegex(line, r"^Analysing .*: \d+%, .*|^Deep.*: \d+%, .*")
            self.assertNotIn("\x1b", line)
        self.assertEqual(lines("--quiet", CLOCK_STEP=1000), [])
        self.assertEqual(run(*long_scan).stderr, "", "a short run says nothing")
        text, status = on_terminal(*long_scan, "--lost-folders", "always", CLOCK_STEP=50)
        self.assertEqual(status, 0)
        self.assertIn("\r\x1b[K", text, "drawn over and taken away")
        self.assertNotIn("\x1b[K", on_terminal(*long_scan, "--progress", CLOCK_STEP=1000)[0])
        self.assertNotIn("%", on_terminal(*long_scan, "--quiet", CLOCK_STEP=1000)[0])
        # Whoever asks is told at once, even with --quiet, and nothing ends.
        got, _, stderr = Held(*long_scan, "--quiet", HOLD_SOURCE=self.stick, HOLD_AT_READ=200, CLOCK_STEP=50).go_on(signal.SIGUSR1)
        self.assertEqual((got, stderr.count("%")), (0, 1), stderr)

    def test_terminals_are_safe(self):
        """Names and paths with escape sequences of both sets and changes of direction."""
        wild = "a\x1b[2J\x07\x9b31mb\u202egnp.exe\u2066c\x7f"
        safe = "a?[2J??31mb?gnp.exe?c?"
        image = self.image([(wild, b"x", False), ("Gr\u00fc\u00dfe \u05e9\u05dc\u05d5\u05dd \U0001f600", b"y", False)])
        hostile = image.parent / ("im\x1b]0;title\x07\u202eage.img")
        os.rename(image, hostile)
        raw = [c for c in wild if not c.isalnum() and c not in "[."]
        for arguments in (["ls", hostile], ["ls", hostile, "--tree"], ["ls", hostile, "--json"], ["drives", hostile], ["drives", hostile, "--json"], ["info", hostile],
                          ["info", hostile, "--json"], ["recover", hostile, "--out", self.target() / wild], ["image", hostile, "--out", self.target() / wild],
                          ["ls", str(hostile) + ".gone"], ["ls", hostile, "--drive", wild], [wild], ["ls", hostile, wild], ["ls", hostile, "--" + wild], ["find", hostile]):
            r = run(*arguments)
            for character in raw:
                self.assertNotIn(character, r.stdout + r.stderr, arguments)
        listed = run("ls", hostile).stdout
        self.assertIn(safe, listed)
        self.assertIn("Gr\u00fc\u00dfe \u05e9\u05dc\u05d5\u05dd \U0001f600", listed)
        self.assertIn(wild, [json.loads(line)["name"] for line in run("ls", hostile, "--json").stdout.splitlines()])

    def test_usage(self):
        """What is wrong is said in words; nothing of it ends well, and nothing is read or written."""
        image, out = self.stick, self.target() / "out"
        for arguments, words in ((["fetch"], "there is no command fetch: use drives, info, ls, recover, image, find, types or help."), ([], "no command given: drives, info, ls,"),
                                 (["help", "fetch"], "no command fetch"), (["--drive", "2", "ls", image], "--drive: options follow the command"), (["--frobnicate"], "--frobnicate: options follow"),
                                 (["ls", image, "--frobnicate"], "--frobnicate is not an option of this command"), (["ls"], "missing: SOURCE"), (["recover", image], "missing: --out"),
                                 (["ls", image, "extra"], "SOURCE: only one"), (["types", "extra"], "unexpected argument: extra."), (["ls", image, "find"], "SOURCE: only one"),
                                 (["ls", image, "--drive", "0"], "--drive: 0 is not a whole number of at least 1."), (["ls", image, "--drive", "abc"], "abc is not a whole number"),
                                 (["ls", image, "--first", "-1"], "--first: -1 is not a whole number of at least 0."), (["ls", image, "--count", "1.5"], "1.5 is not a whole number of at least 1."),
                                 (["ls", image, "--drive", "99999999999999999999"], "99999999999999999999"), (["ls", image, "--drive", "999999999999"], "--drive = 999999999999"), (["ls", image, "--drive"], "--drive needs a value."),
                                 (["ls", image, "--type", "song"], "song is not one of: archive, audio, "), (["ls", image, "--fast-off"], "--fast-off only works together with --deep."),
                                 (["ls", image, "--quiet", "--progress"], "--quiet and --progress cannot be used together."), (["recover", image, "--out", out, "--oem-codepage", "99999"], "code page 99999 is not known"),
                                 (["ls", image, "--oem-codepage", "latin"], "code page latin is not known")):
            r = run(*arguments)
            self.assertEqual((r.returncode, r.stdout), (2, ""), arguments)
            self.assertIn(words, r.stderr)
            self.assertNotIn("range", r.stderr)
        self.assertFalse(out.exists())
        self.assertEqual(run("help").stdout, run("--help").stdout)
        self.assertEqual(run("help", "recover").stdout, run("recover", "--help").stdout)
        self.assertEqual(run("ls", image, "--oem-codepage", "850").returncode, 0)


if __name__ == "__main__":
    main()
