"""The README's program answers as the README shows."""

import os
import pathlib
import re
import subprocess
import tempfile
import unittest

from back_end import scripted_back_end
from verdict import main

SOURCE = pathlib.Path(os.environ["SOURCE"])
README = (SOURCE / "README.md").read_text()


class ReadmeTest(unittest.TestCase):
    def setUp(self):
        self.folder = self.enterContext(tempfile.TemporaryDirectory())

    def test_the_program_refuses_a_stranger_as_anybody_else(self):
        refusal = b"<?xml version='1.0'?><doc><error type='access'/></doc>"
        socket = f"{self.folder}/panel.sock"
        for method in ("GET", "HEAD"):
            with scripted_back_end(socket, lambda _: [refusal]) as asked:
                answer = subprocess.run(
                    [os.environ["README_FRONT"]],
                    env={"REQUEST_METHOD": method, "TOV_RUN_DIR": self.folder},
                    capture_output=True,
                    text=True,
                    timeout=60,
                ).stdout
            self.assertRegex(
                answer,
                r"\AStatus: 403 Forbidden\n(?s:.*)"
                r"<p>You do not authorized for this operation\Z",
            )
            self.assertEqual(len(asked), 1, method)

    def test_the_program_answers_as_shown(self):
        shown = re.findall(r"^```console\n\$ (.*)\n(.*)\n```$", README, re.MULTILINE)
        self.assertEqual(len(shown), 1)
        command, answer = shown[0]
        pathlib.Path(self.folder, "whoami").symlink_to(os.environ["README_FRONT"])
        # The folder of the system may be there, and serve somebody.
        command = command.replace("./whoami", f"--run-dir {self.folder} ./whoami")
        played = subprocess.run(
            ["bash", "-c", command],
            cwd=self.folder,
            env={"PATH": f"{SOURCE / 'tools'}:{os.environ['PATH']}"},
            stdout=subprocess.PIPE,
            text=True,
            timeout=60,
        ).stdout
        self.assertEqual(played.replace(self.folder, "/run/tov"), answer)


if __name__ == "__main__":
    main()
