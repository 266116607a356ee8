# SPDX-License-Identifier: GPL-3.0-or-later
"""What all tests of the program share: how it is run, a stick with files, folders to write into. Each file
NAME_test.py beside this one is a test of its own:   NAME_test.py BRENLOW-CLI DATA-FOLDER FAILING-READ-LIBRARY HOLD-LIBRARY"""
import hashlib
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import unittest

from fat_image import fat16

CLI, DATA = sys.argv[1], pathlib.Path(sys.argv[2])
FAILING_READ = sys.argv[3] if len(sys.argv) > 3 else None
HOLD = sys.argv[4] if len(sys.argv) > 4 else None


# Neither the settings nor the locale of whoever runs the tests play a part.
ENVIRONMENT = {**{k: v for k, v in os.environ.items() if not k.startswith(("LC_", "LANG"))}, "LC_ALL": "C.UTF-8"}


# Seconds that a run of the program may take: it hangs when it takes longer, on a busy machine too.
LIMIT = 300


def run(*arguments, **more):
    return subprocess.run([CLI, *map(str, arguments)], capture_output=True, text=True, timeout=LIMIT, env=ENVIRONMENT, **more)


class FailingReads:
    """Runs the program on a source that does not read in some places.

    `ranges` are pairs of first byte and size; each failure takes `wait` milliseconds. A read that touches a bad
    place fails as a whole, with `short` it gives what lies before the place. `failures` has a pair of position and
    size for every failed read of all runs so far."""

    def __init__(self, source, ranges, wait=0, short=False):
        if FAILING_READ is None:
            raise unittest.SkipTest("the library that makes reads fail was not named")
        self.source, self.ranges, self.wait, self.short = source, list(ranges), wait, short
        self.log = tempfile.NamedTemporaryFile(prefix="failing-read-")

    def run(self, *arguments, timeout=LIMIT, **more):
        environment = {**ENVIRONMENT, "LD_PRELOAD": FAILING_READ, "FAILING_READ_FILE": str(self.source),
                       "FAILING_READ_RANGES": ",".join("%d+%d" % r for r in self.ranges),
                       "FAILING_READ_WAIT": str(self.wait), "FAILING_READ_SHORT": str(int(self.short)),
                       "FAILING_READ_LOG": self.log.name}
        # Under the address sanitizer its library need not come first.
        environment["ASAN_OPTIONS"] = environment.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"
        return subprocess.run([CLI, *map(str, arguments)], capture_output=True, text=True, timeout=timeout,
                              env=environment, **more)

    @property
    def failures(self):
        return [tuple(map(int, line.split())) for line in pathlib.Path(self.log.name).read_text().splitlines()]


def hold_environment(**hold):
    """What hold.cpp is told, see there."""
    if HOLD is None:
        raise unittest.SkipTest("the library that holds runs was not named")
    # Under the address sanitizer its library need not come first.
    return {**ENVIRONMENT, "LD_PRELOAD": HOLD, "ASAN_OPTIONS": ENVIRONMENT.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0",
            **{k: str(v) for k, v in hold.items()}}


class Held:
    """A run that is stopped (SIGSTOP) at a known point, see hold.cpp."""

    def __init__(self, *arguments, **hold):
        environment = hold_environment(**hold)
        self.process = subprocess.Popen([CLI, *map(str, arguments)], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, env=environment)
        _, status = os.waitpid(self.process.pid, os.WUNTRACED)
        assert os.WIFSTOPPED(status), "the run ended before the point where it was to be held"

    def go_on(self, *signals):
        """Lets it go on with these signals pending: exit status, standard output, standard error."""
        for number in signals:
            self.process.send_signal(number)
        self.process.send_signal(signal.SIGCONT)
        out, err = self.process.communicate(timeout=LIMIT)
        return self.process.returncode, out, err

    def kill(self):
        self.process.kill()
        self.process.communicate(timeout=LIMIT)


def mounted(options, script, folder, *arguments):
    """Runs a script in a mount namespace of its own with a tmpfs over `folder`; None where that is not allowed."""
    command = "mount -t tmpfs -o %s tmpfs \"$1\" || exit 77; shift; %s" % (options, script)
    rights = ["-m"] if os.geteuid() == 0 else ["-Urm"]
    r = subprocess.run(["unshare", *rights, "sh", "-c", command, "sh", str(folder), *map(str, arguments)],
                       capture_output=True, text=True, timeout=LIMIT, env=ENVIRONMENT)
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
        subprocess.run(["zstd", "-dqf", "--no-sparse", str(DATA / "demo-stick.img.zst"), "-o", str(cls.stick)], check=True)
        cls.before = digest(cls.stick)

    @classmethod
    def tearDownClass(cls):
        assert digest(cls.stick) == cls.before, "the source was changed"
        cls.folder.cleanup()

    def target(self):
        return pathlib.Path(tempfile.mkdtemp(dir=self.folder.name))

    def image(self, files):
        """A made volume, see fat_image.py."""
        path = self.target() / "made.img"
        path.write_bytes(fat16(files))
        return path


def main():
    unittest.main(argv=[sys.argv[0]])
