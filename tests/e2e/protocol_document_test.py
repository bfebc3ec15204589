"""What docs/backend-protocol.md shows must work, and be right to the byte."""

import contextlib
import os
import pathlib
import re
import signal
import stat
import subprocess
import sys
import tempfile
import unittest

from back_end import scripted_back_end
from panel_server import run_front
from processes import listens, wait_for
from verdict import main

DOCUMENT = pathlib.Path(os.environ["SOURCE"]) / "docs" / "backend-protocol.md"
TEXT = DOCUMENT.read_text()


def block_that_begins_with(text):
    (block,) = re.findall(r"^```\w*\n(" + text + r".*?)```", TEXT, re.DOTALL | re.MULTILINE)
    return block


def example_request():
    shown = block_that_begins_with("208:")
    return shown.replace("\n", "").replace("<00>", "\0").encode()


def example_answer():
    head, body = block_that_begins_with("Content-Type:").split("\n\n")
    return (head.replace("\n", "\r\n") + "\r\n\r\n" + body).encode()


class ProtocolDocumentTest(unittest.TestCase):
    def setUp(self):
        self.run_dir = self.enterContext(tempfile.TemporaryDirectory(prefix="document-"))
        self.path = os.path.join(self.run_dir, "panel.sock")

    def test_example_request_is_what_the_library_sends(self):
        # The page wants more: the second answer is for nobody.
        with scripted_back_end(self.path, lambda _: [example_answer()]) as requests:
            run_front(
                self.run_dir, HTTPS="on", HTTP_COOKIE="panelses5=3f9c27d1",
                HTTP_HOST="panel.example", REMOTE_ADDR="192.0.2.7",
                REQUEST_URI="/panel?page=start", SERVER_PORT="443",
            )
        self.assertEqual(requests[0], example_request())

    def test_numbers_shown_are_right(self):
        head, body = example_answer().split(b"\r\n\r\n")
        self.assertIn(b"Content-Length: %d" % len(body), head)
        self.assertIn(f"request has {len(example_request())}", TEXT)
        self.assertIn(f"The answer has {len(example_answer())};", TEXT)

    def start(self, *command, **options):
        """Waits until it listens; at the end it has to end when asked to."""
        server = subprocess.Popen(command, start_new_session=True, **options)
        self.addCleanup(server.kill)

        def has_ended():
            # Again and again, and to each process: uWSGI's lose a signal that comes early
            # in their start, and the master waits for its workers for a minute.
            with contextlib.suppress(ProcessLookupError):
                os.killpg(server.pid, signal.SIGTERM)
            return server.poll() is not None

        self.addCleanup(wait_for, has_ended, 300)
        wait_for(lambda: os.path.exists(self.path) and listens(self.path))

    def test_the_back_end_shown_works(self):
        program = block_that_begins_with("import os")
        self.start(sys.executable, "-c", program, env={"TOV_RUN_DIR": self.run_dir})
        self.assert_it_serves()

    def test_the_back_end_shown_works_under_uwsgi(self):
        files = {
            "backend.py": block_that_begins_with("import os"),
            "wsgi.py": block_that_begins_with(r"# wsgi\.py"),
            "uwsgi.ini": block_that_begins_with(r"\[uwsgi\]").replace("/run/tov", self.run_dir),
        }
        for name, text in files.items():
            (pathlib.Path(self.run_dir) / name).write_text(text)
        self.start("uwsgi", "--ini", "uwsgi.ini", cwd=self.run_dir, stderr=subprocess.DEVNULL)
        self.assert_it_serves()
        # The configuration's socket, not one that the program has put there.
        self.assertEqual(stat.S_IMODE(os.stat(self.path).st_mode), 0o660)

    def assert_it_serves(self):
        cookie = "panelses5=3f9c27d1"
        page = run_front(self.run_dir, os.environ["README_FRONT"], HTTP_COOKIE=cookie)
        self.assertIn("You are alice.", page)


if __name__ == "__main__":
    main()
