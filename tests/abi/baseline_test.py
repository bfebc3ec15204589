"""That front ends which were compiled against an earlier release go on working:
compares what the libraries are with what was written down at that time."""

import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

import baseline

ABI = pathlib.Path(os.environ["ABI"])


def difference(before, after):
    """What abidiff says; empty when there is none."""
    done = subprocess.run(
        ["abidiff", "--harmless", before, after], capture_output=True, text=True, timeout=120
    )
    return done.stdout + done.stderr if done.returncode else ""


class BaselineTest(unittest.TestCase):
    maxDiff = None

    def test_nothing_has_changed_for_front_ends_that_are_compiled_already(self):
        built = baseline.build(os.environ["SOURCE"], os.environ["BUILD"])
        for name, library in built.items():
            with self.subTest(library=name), tempfile.TemporaryDirectory() as folder:
                described = pathlib.Path(folder) / "described"
                described.write_text(baseline.describe(library))
                self.assertEqual(difference(ABI / f"{name}.abi", described), "")


if __name__ == "__main__":
    missing = [program for program in ("abidw", "abidiff", "ninja") if not shutil.which(program)]
    if missing:
        print("skipped: not installed:", *missing)
        sys.exit(77)
    unittest.main()
