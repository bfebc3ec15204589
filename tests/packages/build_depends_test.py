#!/usr/bin/python3
"""scripts/package on a fresh machine: install-deps brings what the build asks for."""

import os
import pathlib
import re
import subprocess
import tempfile
import unittest

SOURCE = pathlib.Path(__file__).resolve().parents[2]

# By which package one gets what the build asks for under another name.
PROVIDED_BY = {"debhelper-compat": "debhelper", "dh-sequence-python3": "dh-python"}

# A machine that has none of the packages, and tells what it is to install.
COMMANDS = {
    "apt-get": '[ "$1" != install ] || printf "%s\\n" "$@" >>"$ASKED_FOR"',
    "dpkg-query": "exit 1",
    "id": "echo 0",
}


def asked_for(purpose):
    with tempfile.TemporaryDirectory() as folder:
        for name, command in COMMANDS.items():
            path = pathlib.Path(folder) / name
            path.write_text(f"#!/bin/sh\n{command}\n")
            path.chmod(0o755)
        asked = pathlib.Path(folder) / "asked"
        subprocess.run(
            [SOURCE / "scripts" / "install-deps", purpose],
            env={"PATH": f"{folder}:{os.environ['PATH']}", "ASKED_FOR": str(asked)},
            stdout=subprocess.DEVNULL,
            check=True,
            timeout=60,
        )
        return set(asked.read_text().split())


def build_depends():
    """Of a build without a profile; build-essential is asked for by every one."""
    control = (SOURCE / "debian" / "control").read_text()
    field = re.search(r"^Build-Depends:\s*((?:.*\n)(?:[ \t].*\n)*)", control, re.MULTILINE)[1]
    items = [item.strip() for item in field.split(",") if item.strip()]
    always = [item for item in items if not re.search(r"<[^!]", item)]
    names = {re.match(r"[\w.+-]+", item)[0] for item in always}
    return {"build-essential"} | {PROVIDED_BY.get(name, name) for name in names}


class BuildDependsTest(unittest.TestCase):
    def test_all_of_them_are_installed_for_the_packages(self):
        self.assertIn("cmake", build_depends())
        self.assertEqual(build_depends() - asked_for("package"), set())


if __name__ == "__main__":
    unittest.main()
