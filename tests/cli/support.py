# SPDX-License-Identifier: GPL-3.0-or-later
"""What all tests of the program share: how it is run, a stick with files, folders to write into. Each file
NAME_test.py beside this one is a test of its own:   NAME_test.py BRENLOW-CLI DATA-FOLDER"""
import hashlib
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

CLI, DATA = sys.argv[1], pathlib.Path(sys.argv[2])


# Neither the settings nor the locale of whoever runs the tests play a part.
ENVIRONMENT = {**{k: v for k, v in os.environ.items() if not k.startswith(("LC_", "LANG"))}, "LC_ALL": "C.UTF-8"}


def run(*arguments, **more):
    return subprocess.run([CLI, *map(str, arguments)], capture_output=True, text=True, timeout=60, env=ENVIRONMENT, **more)


def mounted(options, script, folder, *arguments):
    """Runs a script in a mount namespace of its own with a tmpfs over `folder`; None where that is not allowed."""
    command = "mount -t tmpfs -o %s tmpfs \"$1\" || exit 77; shift; %s" % (options, script)
    rights = ["-m"] if os.geteuid() == 0 else ["-Urm"]
    r = subprocess.run(["unshare", *rights, "sh", "-c", command, "sh", str(folder), *map(str, arguments)],
                       capture_output=True, text=True, timeout=60, env=ENVIRONMENT)
    return None if r.returncode == 77 or "unshare" in r.stderr else r


def digest(path):
    return hashlib.sha256(pathlib.Path(path).read_bytes()).hexdigest()


def mbr(first, count):
    """The first sector of a disk with one FAT32 partition."""
    return (bytes(446) + bytes([0, 0, 0, 0, 0x0C, 0, 0, 0]) + first.to_bytes(4, "little") + count.to_bytes(4, "little")).ljust(510, b"\0") + b"\x55\xaa"


class TestCase(unittest.TestCase):
    """A stick to read from; that it was never changed is checked at the end."""

    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.stick = pathlib.Path(cls.folder.name) / "stick.img"
        subprocess.run(["zstd", "-dqf", str(DATA / "demo-stick.img.zst"), "-o", str(cls.stick)], check=True)
        cls.before = digest(cls.stick)

    @classmethod
    def tearDownClass(cls):
        assert digest(cls.stick) == cls.before, "the source was changed"
        cls.folder.cleanup()

    def target(self):
        return pathlib.Path(tempfile.mkdtemp(dir=self.folder.name))


def main():
    unittest.main(argv=[sys.argv[0]])
