"""What docs/backend-protocol.md shows must work, and be right to the byte."""

import os
import pathlib
import re
import subprocess
import sys
import tempfile
import threading
import socket
import time
import unittest

DOCUMENT = pathlib.Path(os.environ["SOURCE"]) / "docs" / "backend-protocol.md"
TEXT = DOCUMENT.read_text()


def indented_block_with(text):
    blocks = re.findall(r"(?:^    .*\n)+", TEXT, re.MULTILINE)
    (block,) = [block for block in blocks if text in block]
    return [line[4:] for line in block.splitlines()]


def example_request():
    return "".join(indented_block_with("167:CONTENT_LENGTH")).replace("␀", "\0").encode()


def example_answer():
    shown = "".join(indented_block_with("Status: 200 OK"))
    return shown.replace("␍", "\r").replace("␊", "\n").encode()


def run_front(run_dir, **environment):
    return subprocess.run(
        [os.environ["FRONT"]],
        env={"TOV_RUN_DIR": run_dir, "REQUEST_METHOD": "GET", **environment},
        capture_output=True,
        text=True,
        timeout=60,
        check=True,
    ).stdout


class ProtocolDocumentTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="document-")
        self.addCleanup(folder.cleanup)
        self.run_dir = folder.name
        self.path = os.path.join(self.run_dir, "panel.sock")

    def test_example_request_is_what_the_library_sends(self):
        server = socket.socket(socket.AF_UNIX)
        self.addCleanup(server.close)
        server.bind(self.path)
        server.listen()
        seen = []

        def serve():
            connection, _ = server.accept()
            # The page wants more, which is refused: one answer is enough here.
            server.close()
            with connection:
                seen.append(connection.recv(65536))
                connection.sendall(example_answer())

        thread = threading.Thread(target=serve)
        thread.start()
        run_front(
            self.run_dir,
            HTTP_COOKIE="panelses5=4f1c",
            HTTP_HOST="localhost",
            REMOTE_ADDR="127.0.0.1",
            SERVER_NAME="localhost",
        )
        thread.join(60)
        self.assertEqual(seen, [example_request()])

    def test_example_answer_keeps_its_promise(self):
        head, body = example_answer().split(b"\r\n\r\n")
        self.assertIn(b"Content-Length: %d" % len(body), head)

    def test_the_back_end_shown_works(self):
        (program,) = re.findall(r"```python\n(.*?)```", TEXT, re.DOTALL)
        server = subprocess.Popen([sys.executable, "-c", program], env={"TOV_RUN_DIR": self.run_dir})
        self.addCleanup(server.wait, 30)
        self.addCleanup(server.terminate)
        end = time.monotonic() + 30
        while not os.path.exists(self.path) and time.monotonic() < end:
            time.sleep(0.05)
        time.sleep(0.1)
        page = run_front(self.run_dir, QUERY_STRING="page=whoami&auth=x")
        self.assertIn('<b id="name">everyone</b>', page)
        refused = run_front(
            self.run_dir, QUERY_STRING="page=whoami&auth=x&sfrom=y%26func%3Dz"
        )
        self.assertIn("unknown authorization error", refused)


if __name__ == "__main__":
    unittest.main()
