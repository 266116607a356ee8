#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""Which files the options choose, and what is said when none is chosen or none is there."""
import json
import pathlib
import struct

from fat_image import fat16
from support import TestCase, main, run


def timed(image, name, date, time=0):
    """Gives the entry of a short name another time of modification."""
    at = image.index(name)
    struct.pack_into("<HH", image, at + 22, time, date)


class Selection(TestCase):
    def setUp(self):
        self.image = self.target() / "made.img"
        image = bytearray(fat16([("a.txt", b"a" * 10, False), ("b.jpg", b"b" * 5000, False), ("c.tmp", b"c" * 100, False),
                                 ("sub", [("d.txt", b"d" * 3000, False), ("e.jpg", b"e", True)], False)]))
        timed(image, b"F0000001", (2010 - 1980) << 9 | 1 << 5 | 2)
        self.image.write_bytes(image)

    def names(self, *options, status=0):
        r = run("ls", self.image, "--json", *options)
        self.assertEqual(r.returncode, status, r.stderr)
        return [row["name"][0] for row in map(json.loads, r.stdout.splitlines()) if not row["folder"]]

    def test_chosen(self):
        for options, wanted in (
                (["--path", "*.txt", "--path", "b.*"], "abd"),
                (["--exclude", "*.TMP", "--exclude", "/sub/e*"], "abd"),
                (["--exclude", "sub"], "abc"),
                (["--path", "*.txt", "--exclude", "sub"], "a"),
                (["--min-size", "1K"], "bd"), (["--max-size", "3000"], "acde"), (["--min-size", "0.0977k", "--max-size", "2.95KB"], "cd"),
                (["--newer", "2021-05-03 17:20:06"], "bcde"), (["--older", "2021-05-03T17:20:06"], "a"), (["--older", "2010-01-02"], ""),
                (["--ext", "jpg, txt"], "abde"), (["--ext", ".JPG txt"], "abde"), (["--ext", "jpg", "--ext", "tmp"], "bce"),
                (["--type", "image, audio", "--existing"], "b")):
            with self.subTest(options=options):
                self.assertEqual("".join(sorted(self.names(*options, status=0 if wanted else 1))), wanted)
        # An option before the source leaves the source alone.
        self.assertEqual(run("ls", "--ext", "jpg", "--path", "b*", self.image).returncode, 0)
        out = self.target()
        self.assertEqual(run("recover", self.image, "--out", out, "--exclude", "sub", "--min-size", "50").returncode, 0)
        self.assertEqual(sorted(p.name for p in out.iterdir()), ["b.jpg", "c.tmp"])

    def test_wrong_values(self):
        for option, value, words in (("--min-size", "big", "not a size"), ("--max-size", "3X", "not a size"), ("--newer", "yesterday", "not a time"),
                                     ("--older", "2021-02-30", "not a time"), ("--type", "image,song", "song is not one of: archive")):
            r = run("ls", self.image, option, value)
            self.assertEqual(r.returncode, 2, value)
            self.assertIn(words, r.stderr)

    def test_nothing_chosen(self):
        for verb in (["ls"], ["recover", "--out", self.target()]):
            r = run(verb[0], self.image, *verb[1:], "--path", "*.doc")
            self.assertEqual(r.returncode, 1, r.stdout)
            self.assertIn("5 files found, none of them selected", r.stderr)

    def test_nothing_found(self):
        empty = self.target() / "empty.img"
        empty.write_bytes(fat16([]))
        for options, says, says_not in (([], ["--scan", "--deep", "--best"], []), (["--scan"], ["--deep"], ["--scan looks"]),
                                        (["--scan", "--deep"], ["no files were found."], ["--deep"])):
            for verb in (["ls"], ["recover", "--out", self.target()]):
                r = run(verb[0], empty, *verb[1:], *options)
                self.assertEqual(r.returncode, 1, (verb, options))
                for word in says:
                    self.assertIn(word, r.stderr)
                for word in says_not:
                    self.assertNotIn(word, r.stderr)


if __name__ == "__main__":
    main()
