# SPDX-License-Identifier: GPL-3.0-or-later
"""Sources with places that do not read."""
import json
import random

from support import *

SECTOR = 512


class BadSectors(TestCase):
    def source(self, packed, more=b""):
        """An image of its own to copy from."""
        path = self.target() / "source.img"
        subprocess.run(["zstd", "-dqf", str(DATA / packed), "-o", str(path)], check=True)
        path.write_bytes(path.read_bytes() + more)
        return path

    def assert_tried_once(self, bad):
        # What kind of image a source is, is told by its first and its last bytes, before any of this.
        ends = (0, bad.source.stat().st_size // SECTOR * SECTOR - SECTOR)
        alone = [at for at, size in bad.failures if size == SECTOR and at not in ends]
        self.assertLess(len(alone) - len(set(alone)), 5)

    def test_an_image_is_of_the_whole_source_and_a_second_run_completes_it(self):
        # The copy of the boot sector of NTFS lies behind the volume; of the last sector only a part is there.
        for packed, more in (("lab-ntfs.img.zst", b""), ("demo-stick.img.zst", b""), ("lab-ntfs.img.zst", b"rest" * 25)):
            source = self.source(packed, more)
            sectors = source.stat().st_size // SECTOR
            places = [0, sectors - 1] + random.Random(1).sample(range(1, sectors - 1), 198)
            bad = FailingReads(source, [(n * SECTOR, SECTOR) for n in places], short=bool(more))
            folder = self.target()
            command = ["image", source, "--out", folder / "copy.dsk", "--map", folder / "copy.map", "--json"]
            r = bad.run(*command)
            self.assertEqual(r.returncode, 1, r.stderr)
            self.assertEqual(json.loads(r.stdout)["unreadable_sectors"], 200, packed)
            self.assert_tried_once(bad)
            expected = bytearray(source.read_bytes())
            for n in places:
                expected[n * SECTOR:(n + 1) * SECTOR] = bytes(SECTOR)
            self.assertEqual((folder / "copy.dsk").read_bytes(), expected)
            r = run(*command)
            self.assertEqual((r.returncode, json.loads(r.stdout)["unreadable_sectors"]), (0, 0), r.stderr)
            self.assertEqual(digest(folder / "copy.dsk"), digest(source))

    def test_a_compressed_image_has_the_rest_of_the_source_too(self):
        source = self.source("lab-ntfs.img.zst", b"rest" * 25)
        folder = self.target()
        self.assertEqual(run("image", source, "--out", folder / "packed.dsk", "--compressed").returncode, 0)
        self.assertEqual(run("image", folder / "packed.dsk", "--out", folder / "flat.dsk").returncode, 0)
        self.assertEqual(digest(folder / "flat.dsk"), digest(source))

    def test_a_bad_zone_costs_searches_a_few_failures_and_content_each_sector_once(self):
        zone = (660 << 10, 32 << 10)  # in the content of files
        bad = FailingReads(self.stick, [zone], wait=12)
        r = bad.run("ls", self.stick, "--deep", "--json")
        self.assertLess(len(bad.failures), 40)
        self.assertIn("could not be read", r.stderr)
        self.assertIn("--retry", r.stderr)
        folder = self.target()
        bad = FailingReads(self.stick, [zone], wait=12)
        r = bad.run("recover", self.stick, "--out", folder)
        self.assertLess(len(bad.failures), zone[1] // SECTOR + 40)
        self.assert_tried_once(bad)
        whole = self.target()
        run("recover", self.stick, "--out", whole)
        for file in (p for p in whole.rglob("*") if p.is_file()):
            twin = folder / file.relative_to(whole)
            self.assertTrue(twin.exists(), file)
            if twin.read_bytes() != file.read_bytes():
                self.assertIn(file.name, r.stdout)  # what lacks sectors is named

    def test_a_further_run_leaves_what_did_not_read_alone(self):
        folder = self.target()
        bad = FailingReads(self.stick, [(660 << 10, 32 << 10)])
        arguments = ["recover", self.stick, "--bad-map", folder / "bad.map", "--json", "--out"]
        first = bad.run(*arguments, folder / "first")
        failed = len(bad.failures)
        second = bad.run(*arguments, folder / "second")
        self.assertGreater(failed, 60)
        self.assertEqual(len(bad.failures), failed, "nothing failed again")
        self.assertEqual(first.stdout.replace(str(folder / "first"), str(folder / "second")), second.stdout)
        content = {p.relative_to(folder / "first"): p.read_bytes() for p in (folder / "first").rglob("*") if p.is_file()}
        self.assertEqual(content, {p.relative_to(folder / "second"): p.read_bytes() for p in (folder / "second").rglob("*") if p.is_file()})
        for wrong in (self.stick, folder / "first"):  # the source itself, and what is not a map of it
            self.assertEqual(run("ls", self.stick, "--bad-map", wrong).returncode, 2)
        (folder / "other.map").write_text("0x0 ? 1\n0x0 0x1000 -\n")
        self.assertEqual(run("ls", self.stick, "--bad-map", folder / "other.map").returncode, 2)

    def test_failures_take_no_longer_than_they_may(self):
        bad = FailingReads(self.stick, [(8 << 20, 4 << 20)], wait=20)
        r = bad.run("ls", self.stick, "--deep", "--retry", "--bad-time", "2")
        self.assertGreater(len(bad.failures), 20)
        self.assertLess(len(bad.failures), 400)  # of 8,192 sectors
        self.assertIn("--bad-time", r.stderr)


if __name__ == "__main__":
    main()
