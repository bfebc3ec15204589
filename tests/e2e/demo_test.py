"""scripts/demo as a newcomer runs it."""

import os
import pathlib
import shutil
import signal
import subprocess
import tempfile
import unittest
import urllib.request

from processes import processes_with, wait_for
from verdict import main

DEMO = pathlib.Path(os.environ["SOURCE"]) / "scripts" / "demo"
DIRECTLY = urllib.request.build_opener(urllib.request.ProxyHandler({}))


def as_from_a_terminal():
    """A shell cannot catch what is ignored when it starts, as these signals are
    when the tests run in the background."""
    for number in (signal.SIGINT, signal.SIGQUIT, signal.SIGHUP):
        signal.signal(number, signal.SIG_DFL)


class DemoTest(unittest.TestCase):
    def setUp(self):
        # Everything that the demo makes at run time lands here.
        self.scratch = tempfile.mkdtemp(prefix="demo-")
        # The account has to find its home in it.
        os.chmod(self.scratch, 0o711)
        # The proxy is set up for other hosts; nobody answers there.
        proxy = {"http_proxy": "http://127.0.0.1:9/"}
        self.environment = {**os.environ, "TMPDIR": self.scratch, **proxy}

    def tearDown(self):
        shutil.rmtree(self.scratch)

    def assert_nothing_left(self):
        self.assertEqual(os.listdir(self.scratch), [])
        # A server's worker may take a moment longer than its master to go.
        wait_for(lambda: not processes_with(self.scratch))

    def start(self, *arguments):
        return subprocess.Popen(
            [DEMO, *arguments], cwd="/", env=self.environment, stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, start_new_session=True,
            preexec_fn=as_from_a_terminal,
        )

    def read_to(self, demo, text):
        lines = [""]
        while text not in lines[-1]:
            lines.append(demo.stdout.readline())
            self.assertTrue(lines[-1], "ended early:\n" + "".join(lines))
        return lines[-1]

    def assert_passes(self, demo):
        output, _ = demo.communicate(timeout=200)
        self.assertEqual(demo.returncode, 0, output)
        self.assertIn("Every step gave the expected result.", output)

    def test_several_visits_at_a_time(self):
        demos = [self.start("--once") for _ in range(2)]
        for demo in demos:
            with demo:
                self.assert_passes(demo)
        self.assert_nothing_left()

    def test_serves_until_interrupted(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            with self.start() as demo:
                url = self.read_to(demo, "The panel is at ").split()[4]
                with DIRECTLY.open(url, timeout=30) as page:
                    self.assertIn(b"Sign in", page.read())
                # As a terminal does: to all that run in it.
                os.killpg(demo.pid, number)
                demo.communicate(timeout=60)
            self.assertEqual(demo.returncode, 128 + number)
            self.assert_nothing_left()

    def test_ends_in_the_middle_of_the_visit(self):
        with self.start() as demo:
            self.read_to(demo, "1. ")
            demo.send_signal(signal.SIGTERM)
            demo.communicate(timeout=60)
        self.assertEqual(demo.returncode, 128 + signal.SIGTERM)
        self.assert_nothing_left()

    def test_step_that_fails_makes_the_demo_fail(self):
        # A web server that cannot be started.
        fake = pathlib.Path(self.scratch) / "bin" / "lighttpd"
        fake.parent.mkdir()
        fake.write_text("#!/bin/sh\nexit 1\n")
        fake.chmod(0o755)
        self.environment["PATH"] = f"{fake.parent}:{self.environment['PATH']}"
        with self.start("--once") as demo:
            output, _ = demo.communicate(timeout=200)
        self.assertEqual(demo.returncode, 1, output)
        self.assertIn("the panel does not start", output)
        shutil.rmtree(fake.parent)
        self.assert_nothing_left()


if __name__ == "__main__":
    main()
