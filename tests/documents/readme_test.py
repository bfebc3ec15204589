"""The README's program answers as the README shows."""

import os
import pathlib
import re
import socket
import subprocess
import tempfile
import threading
import unittest

SOURCE = pathlib.Path(os.environ["SOURCE"])
README = (SOURCE / "README.md").read_text()


REFUSAL = b"<?xml version='1.0'?><doc><error type='access'/></doc>"


class Refusing:
    """A back end that refuses whoever it is asked about."""

    def __init__(self, folder):
        self.server = socket.socket(socket.AF_UNIX)
        self.server.bind(f"{folder}/panel.sock")
        self.server.listen()
        self.asked = 0
        self.thread = threading.Thread(target=self.serve, daemon=True)
        self.thread.start()

    def serve(self):
        while True:
            connection, _ = self.server.accept()
            self.asked += 1
            with connection:
                connection.recv(65536)
                connection.sendall(REFUSAL)


class ReadmeTest(unittest.TestCase):
    def test_the_program_refuses_a_stranger_as_anybody_else(self):
        with tempfile.TemporaryDirectory() as folder:
            back_end = Refusing(folder)
            for method in ("GET", "HEAD"):
                with self.subTest(method=method):
                    environment = {"REQUEST_METHOD": method, "TOV_RUN_DIR": folder}
                    answer = subprocess.run(
                        [os.environ["README_FRONT"]],
                        env=environment, capture_output=True, text=True, timeout=60,
                    ).stdout  # fmt: skip
                    self.assertTrue(answer.startswith("Status: 403 Forbidden\n"), answer)
                    self.assertTrue(
                        answer.endswith("<p>You do not authorized for this operation"), answer
                    )
            self.assertEqual(back_end.asked, 2)

    def test_the_program_answers_as_shown(self):
        shown = re.findall(r"^```console\n\$ (.*)\n(.*)\n```$", README, re.MULTILINE)
        self.assertEqual(len(shown), 1)
        command, answer = shown[0]
        with tempfile.TemporaryDirectory() as folder:
            (pathlib.Path(folder) / "whoami").symlink_to(os.environ["README_FRONT"])
            # The folder of the system may be there, and serve somebody.
            command = command.replace("./whoami", f"--run-dir {folder} ./whoami")
            played = subprocess.run(
                ["bash", "-c", command],
                cwd=folder,
                env={"PATH": f"{SOURCE / 'tools'}:{os.environ['PATH']}"},
                stdout=subprocess.PIPE,
                text=True,
                timeout=60,
            ).stdout
        self.assertEqual(played.replace(folder, "/run/tov"), answer)


if __name__ == "__main__":
    unittest.main()
