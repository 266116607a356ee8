#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""Nothing that the program writes ever lands in what it reads from: every path that it takes, in every disguise."""
import os
import shutil
import subprocess

from support import CLI, TestCase, digest, main, run


class SourceGuardTest(TestCase):
    def setUp(self):
        self.dir = self.target()

    def put(self, name):
        shutil.copy(self.stick, self.dir / name)
        return self.dir / name

    def vmdk(self):
        """A descriptor and its one extent."""
        extent = self.put("d-flat.vmdk")
        disk = self.dir / "d.vmdk"
        disk.write_text("# Disk DescriptorFile\n# Extent description\nRW %d FLAT \"d-flat.vmdk\" 0\n" % (extent.stat().st_size // 512))
        return disk, extent

    def refused(self, reads, *arguments):
        before = {path: digest(path) for path in reads}
        names = sorted(p.name for p in self.dir.iterdir())
        r = run(*arguments)
        self.assertEqual(r.returncode, 2, (arguments, r.stdout, r.stderr))
        self.assertIn("source", r.stderr)
        self.assertEqual({path: digest(path) for path in reads}, before, arguments)
        self.assertEqual(sorted(p.name for p in self.dir.iterdir()), names, arguments)

    def test_image(self):
        for source, out, more in (("a.dsk", "a.dsk", []), ("b.dsk.partial", "b.dsk", []), ("c.map", "c", ["--map", "c.map"]), ("e.map.new", "e", ["--map", "e.map"])):
            image = self.put(source)
            more = [str(self.dir / word) if word.endswith("map") and not word.startswith("-") else word for word in more]
            for compressed in ([], ["--compressed"]) if not more else ([],):
                self.refused([image], "image", image, "--out", self.dir / out, "--overwrite", *more, *compressed)
            image.unlink()
        # The folder by another name.
        image = self.put("p.dsk")
        other = self.target() / "link"
        other.symlink_to(self.dir)
        self.refused([image], "image", image, "--out", other / "p.dsk", "--overwrite")

    def test_report(self):
        disk, extent = self.vmdk()
        (self.dir / "link").symlink_to(extent)
        os.link(extent, self.dir / "second name")
        size = extent.stat().st_size
        (self.dir / "the.map").write_text("0x0 ? 1\n0x0 0x%X +\n" % size)
        for report in (extent, disk, self.dir / "link", self.dir / "second name"):
            self.refused([disk, extent], "recover", disk, "--out", self.dir / "out", "--report", report)
        self.refused([extent, self.dir / "the.map"], "recover", extent, "--map", self.dir / "the.map", "--out", self.dir / "out", "--report", self.dir / "the.map")
        self.refused([extent], "recover", extent, "--out", extent)

    def test_replaced_files(self):
        image = self.put("README.TXT")
        before = digest(image)
        inside = run("recover", image, "--path", "README.TXT", "--out", self.target() / "out", "--report", "/dev/null")
        self.assertEqual(inside.returncode, 0, inside.stderr)
        r = run("recover", image, "--path", "README.TXT", "--out", self.dir, "--conflict", "replace")
        self.assertEqual(r.returncode, 0, r.stderr + r.stdout)
        self.assertEqual(digest(image), before)
        # The file is there nevertheless, beside the source.
        self.assertEqual(sorted(p.name for p in self.dir.iterdir()), ["README (2).TXT", "README.TXT"])
        disk, extent = self.vmdk()
        extent.rename(self.dir / "README (2).TXT")
        disk.write_text(disk.read_text().replace("d-flat.vmdk", "README (2).TXT"))
        r = run("recover", disk, "--path", "README.TXT", "--out", self.dir, "--conflict", "replace")
        self.assertEqual((r.returncode, digest(self.dir / "README (2).TXT")), (0, before), r.stderr)

    def test_loop_devices(self):
        image, other = self.put("p.img"), self.target()
        loops = []
        try:
            for _ in range(2):
                made = subprocess.run(["losetup", "--find", "--show", str(image)], capture_output=True, text=True)
                if made.returncode != 0:
                    self.skipTest("no loop devices here")
                loops.append(made.stdout.strip())
            self.refused([image], "recover", image, "--out", other / "out", "--report", loops[0])
            self.refused([image], "recover", loops[0], "--out", other / "out", "--report", loops[1])
            self.refused([image], "recover", loops[0], "--out", other / "out", "--report", image)
            self.refused([image], "image", loops[0], "--out", other / "x", "--map", loops[1])
            mounted = subprocess.run(["unshare", "-m", "sh", "-c", 'mount -o ro "$1" "$2" || exit 77; shift 2; "$@"', "sh", loops[1], str(other), CLI,
                                      "recover", str(image), "--out", str(other / "new")], capture_output=True, text=True)
            if mounted.returncode != 77:
                self.assertEqual(mounted.returncode, 2, mounted.stderr)
                self.assertIn("source", mounted.stderr)
        finally:
            for loop in loops:
                subprocess.run(["losetup", "-d", loop])


if __name__ == "__main__":
    main()
