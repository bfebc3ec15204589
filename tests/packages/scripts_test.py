#!/usr/bin/python3
"""What scripts/package does to a machine: it installs what the build asks for,
and removes nothing that it has not made."""

import os
import pathlib
import re
import subprocess
import tempfile
import unittest

SOURCE = pathlib.Path(__file__).resolve().parents[2]

# By which package one gets what the build asks for under another name.
PROVIDED_BY = {"debhelper-compat": "debhelper", "dh-sequence-python3": "dh-python"}

# A machine that has none of the packages, and notes what it is to install.
WITHOUT_PACKAGES = {
    "apt-get": '[ "$1" != install ] || printf "%s\\n" "$@" >>asked-for', "dpkg-query": "exit 1",
    "id": "echo 0",
}
# A machine that has all packages, and where building ends as it begins.
WITH_PACKAGES = {"dpkg-query": "echo installed", "mktemp": "echo building >&2\nexit 9"}


def build_depends():
    """Of a build without a profile; build-essential is asked for by every one."""
    control = (SOURCE / "debian" / "control").read_text()
    field = re.search(r"^Build-Depends:\s*((?:.*\n)(?:[ \t].*\n)*)", control, re.MULTILINE)[1]
    items = [item.strip() for item in field.split(",") if item.strip()]
    always = [item for item in items if not re.search(r"<[^!]", item)]
    names = {re.match(r"[\w.+-]+", item)[0] for item in always}
    return {"build-essential"} | {PROVIDED_BY.get(name, name) for name in names}


class ScriptsTest(unittest.TestCase):
    def setUp(self):
        folder = self.enterContext(tempfile.TemporaryDirectory(prefix="package-"))
        self.folder = pathlib.Path(folder)

    def run_on(self, machine, script, argument):
        for program, text in machine.items():
            (self.folder / program).write_text(f"#!/bin/sh\n{text}\n")
            (self.folder / program).chmod(0o755)
        return subprocess.run(
            [SOURCE / "scripts" / script, argument], cwd=self.folder,
            env={"PATH": f"{self.folder}:{os.environ['PATH']}"},
            capture_output=True, text=True, timeout=60,
        )

    def test_the_build_dependencies_are_installed(self):
        done = self.run_on(WITHOUT_PACKAGES, "install-deps", "package")
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        asked_for = set((self.folder / "asked-for").read_text().split())
        self.assertIn("cmake", build_depends())
        self.assertEqual(build_depends() - asked_for, set())

    def test_a_folder_with_something_in_it_is_refused_and_another_taken(self):
        """From where the caller is."""
        mine = self.folder / "mine"
        mine.mkdir()
        (mine / ".letter").touch()
        (self.folder / "empty").mkdir()
        for name in ("mine", mine):
            done = self.run_on(WITH_PACKAGES, "package", name)
            self.assertEqual((done.returncode, done.stdout), (2, ""), done.stderr)
            self.assertIn(f"{mine} is not empty", done.stderr)
        self.assertTrue((mine / ".letter").exists())
        for name in ("empty", "missing"):
            done = self.run_on(WITH_PACKAGES, "package", name)
            self.assertEqual((done.returncode, done.stderr), (9, "building\n"), done.stderr)
            self.assertTrue((self.folder / name).is_dir())


if __name__ == "__main__":
    unittest.main()
