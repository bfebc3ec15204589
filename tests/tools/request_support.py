"""Runs of zancgi-request, and programs that report what they receive."""

import os
import pathlib
import subprocess
import tempfile
import types
import unittest

from forked import LONG, SOURCE, Ended, run_forked
from zancgi_request.cli import main

TOOL = SOURCE / "tools" / "zancgi-request"
PROBE = os.environ["CGI_PROBE"]
PATH = "/usr/bin:/bin"
MEGABYTE = 1 << 20
# Seconds that no test takes: processes that sleep this long must be ended.
AGES = 3600
# Without proxies and configuration of the user who runs the tests.
ENVIRONMENT = {"PATH": PATH, "LC_ALL": "C.UTF-8", "FOREIGN": "not for the program"}


def run(*arguments, folder=None, stdin=b"", **variables):
    arguments = list(map(str, arguments))
    return run_forked(
        lambda: main(arguments),
        [str(TOOL), *arguments],
        {**ENVIRONMENT, **variables},
        stdin,
        lambda: folder and os.chdir(folder),
    )


def run_program(*arguments, folder=None, stdin=b"", **options):
    """The same as a separate process."""
    done = subprocess.run(
        [TOOL, *map(str, arguments)], input=stdin, capture_output=True, cwd=folder,
        env=ENVIRONMENT, timeout=LONG, check=False, **options,
    )  # fmt: skip
    return Ended(done.returncode, done.stdout, done.stderr.decode())


def start_program(*arguments, **options):
    return subprocess.Popen([TOOL, *map(str, arguments)], env=ENVIRONMENT, **options)


def kind_of(target):
    """The kind of a descriptor, from its link in /proc."""
    name, colon, _ = target.partition(":[")
    return name if colon else "device" if target.startswith("/dev/") else "file"


def given(output):
    """What the probe reports. The kinds are those of standard input and output."""
    head, _, body = output.partition(b"\0\0")
    facts = {}
    for fact in os.fsdecode(head).split("\0"):
        what, _, text = fact.partition(" ")
        facts.setdefault(what, []).append(text)
    descriptors = dict(text.split(" ", 1) for text in facts["open"] if not text.endswith("/fd"))
    return types.SimpleNamespace(
        arguments=facts["argument"],
        folder=facts["folder"][0],
        # Like getenv, takes the first of several values.
        variables=dict(text.split("=", 1) for text in reversed(facts["variable"])),
        kinds=[kind_of(descriptors[n]) if n in descriptors else "closed" for n in "01"],
        open=sorted(map(int, descriptors)),
        reads=list(map(int, facts.get("read", []))),
        polled=int(facts["polled"][0]),
        body=body,
    )


class RequestTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="request-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def program(self, text, name="program"):
        """A script, by default of the shell."""
        path = self.folder / name
        path.write_text(text if text.startswith("#!") else "#!/bin/sh\n" + text)
        path.chmod(0o755)
        return path

    def file(self, name, content):
        path = self.folder / name
        path.write_bytes(content)
        return path

    def run_in_folder(self, *arguments, **more):
        return run(*arguments, folder=self.folder, **more)

    def given(self, *arguments, program=PROBE, **more):
        result = self.run_in_folder(program, *arguments, **more)
        self.assertEqual((result.status, result.errors), (0, ""))
        return given(result.output)
