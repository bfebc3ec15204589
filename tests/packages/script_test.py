"""That scripts/package removes nothing that it has not made."""

import os
import pathlib
import subprocess
import tempfile
import unittest

PACKAGE = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "package"
# A machine that has all packages, and where building ends as it begins.
MACHINE = {"dpkg-query": "echo installed", "mktemp": "echo building >&2\nexit 9"}


class ScriptTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="package-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        for program, text in MACHINE.items():
            (self.folder / program).write_text(f"#!/bin/sh\n{text}\n")
            (self.folder / program).chmod(0o755)

    def package(self, name):
        return subprocess.run(
            [PACKAGE, name], cwd=self.folder,
            env={"PATH": f"{self.folder}:{os.environ['PATH']}"},
            capture_output=True, text=True, timeout=60,
        )  # fmt: skip

    def test_a_folder_with_something_in_it_is_refused(self):
        for name in ("mine", self.folder / "mine"):
            with self.subTest(name):
                (self.folder / "mine").mkdir(exist_ok=True)
                (self.folder / "mine" / ".letter").touch()
                done = self.package(name)
                self.assertTrue((self.folder / "mine" / ".letter").exists())
                self.assertEqual((done.returncode, done.stdout), (2, ""), done.stderr)
                self.assertIn(f"{self.folder}/mine is not empty", done.stderr)

    def test_an_empty_or_missing_folder_is_taken_from_where_the_caller_is(self):
        (self.folder / "empty").mkdir()
        for name in ("empty", "missing"):
            with self.subTest(name):
                done = self.package(name)
                self.assertEqual((done.returncode, done.stderr), (9, "building\n"), done.stderr)
                self.assertTrue((self.folder / name).is_dir())


if __name__ == "__main__":
    unittest.main()
