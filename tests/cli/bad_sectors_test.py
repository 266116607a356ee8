# SPDX-License-Identifier: GPL-3.0-or-later
"""Sources with places that do not read."""
from support import *


class BadSectors(TestCase):
    def test_only_the_chosen_places_fail(self):
        bad = FailingReads(self.stick, [(1 << 20, 512)])
        folder = self.target()
        r = bad.run("image", self.stick, "--out", folder / "image")
        self.assertEqual(r.returncode, 1, r.stderr)
        self.assertIn("1 unreadable sector ", r.stdout)
        self.assertTrue(all(at <= 1 << 20 < at + size for at, size in bad.failures), bad.failures)
        self.assertIn((1 << 20, 512), bad.failures)
        image, source = (folder / "image.dsk").read_bytes(), self.stick.read_bytes()
        self.assertEqual(image[:1 << 20], source[:1 << 20])
        self.assertEqual(image[(1 << 20) + 512:], source[(1 << 20) + 512:len(image)])


if __name__ == "__main__":
    main()
