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


REFUSAL = b"<?xml version='1.0'?><doc><error type='access'/></doc>"
ALICE = b"<?xml version='1.0'?><doc><user name='alice' level='1'/></doc>"


class ReadmeTest(unittest.TestCase):
    def setUp(self):
        self.folder = self.enterContext(tempfile.TemporaryDirectory())

    def answer(self, document, body="", **environment):
        """The program's, when the back end gives this one; how often that is asked."""
        with scripted_back_end(f"{self.folder}/panel.sock", lambda _: [document]) as asked:
            done = subprocess.run(
                [os.environ["README_FRONT"]], env={"TOV_RUN_DIR": self.folder, **environment},
                input=body, capture_output=True, text=True, timeout=60,
            )
        return done.stdout, len(asked)

    def test_the_program_lists_what_was_sent(self):
        disposition = 'Content-Disposition: form-data; name="file"; filename="a&b"'
        body = f"--XY\r\n{disposition}\r\n\r\n12345\r\n--XY--\r\n"
        environment = {
            "REQUEST_METHOD": "POST", "CONTENT_TYPE": "multipart/form-data; boundary=XY",
            "CONTENT_LENGTH": str(len(body)), "TMP": self.folder,
        }
        for site, page in (
            ("same-origin", "<ul><li>a&amp;b, 5 bytes</ul><p>You are alice."),
            ("cross-site", "<p>That did not work."),
        ):
            answer, _ = self.answer(ALICE, body, HTTP_SEC_FETCH_SITE=site, **environment)
            self.assertTrue(answer.endswith(page), answer)
            self.assertEqual(os.listdir(self.folder), [])

    def test_the_program_refuses_a_stranger_as_anybody_else(self):
        for method, page in (("GET", ".*<p>That did not work."), ("HEAD", "")):
            answer, asked = self.answer(REFUSAL, REQUEST_METHOD=method)
            self.assertRegex(answer, rf"\AStatus: 403 Forbidden\n(?s:.*)\n\n{page}\Z")
            self.assertEqual(asked, 1, method)

    def test_the_program_answers_as_shown(self):
        shown = re.findall(r"^```console\n\$ (.*)\n((?s:.*?))\n```$", README, re.MULTILINE)
        self.assertEqual(len(shown), 1)
        command, answer = shown[0]
        pathlib.Path(self.folder, "whoami").symlink_to(os.environ["README_FRONT"])
        # The folder of the system may be there, and serve somebody.
        command = command.replace("./whoami", f"--run-dir {self.folder} ./whoami")
        played = subprocess.run(
            ["bash", "-c", command], cwd=self.folder,
            env={"PATH": f"{SOURCE / 'tools'}:{os.environ['PATH']}"}, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, text=True, timeout=60,
        ).stdout
        self.assertEqual(played.replace(self.folder, "/run/tov"), answer)


if __name__ == "__main__":
    main()
