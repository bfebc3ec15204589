"""The bash completions of both tools."""

import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

TOOLS = pathlib.Path(os.environ["TOOLS"])
NAMES = ("zancgi-request", "zancgi-doctor")


class CompletionTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory(prefix="completion-")
        cls.addClassCleanup(folder.cleanup)
        cls.folder = pathlib.Path(folder.name)
        (cls.folder / "answer.txt").touch()
        made = cls.folder / "completions"
        subprocess.run([sys.executable, "-IB", TOOLS / "completion.py", made], check=True)

    def offered(self, *words):
        """The completions of the last word."""
        tool = words[0]
        script = (
            f'source "completions/{tool}"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1))\n'
            f'_{tool.replace("-", "_")}; printf "%s\\n" "${{COMPREPLY[@]}}"'
        )
        done = subprocess.run(
            ["bash", "-euc", script, "bash", *words],
            cwd=self.folder, capture_output=True, text=True, check=True,
        )  # fmt: skip
        self.assertEqual(done.stderr, "")
        return done.stdout.split()

    def test_every_option_of_the_help_is_offered(self):
        for tool in NAMES:
            text = subprocess.run(
                [TOOLS / tool, "--help"], capture_output=True, text=True, check=True
            ).stdout
            options = set(re.findall(r"^ +(?:-\w, +)?(--[\w-]+)", text, re.M))
            self.assertGreater(len(options), 15)
            self.assertLessEqual(options, set(self.offered(tool, "--")))

    def test_completions_begin_with_the_word(self):
        self.assertEqual(self.offered("zancgi-request", "--coo"), ["--cookie", "--cookie-jar"])
        self.assertEqual(self.offered("zancgi-doctor", "--nothing"), [])

    def test_values_of_a_choice_are_offered(self):
        for words, expected in (
            (("zancgi-request", "--stdin", "pi"), ["pipe"]),
            (("zancgi-request", "--server", "=", "ap"), ["apache"]),
            (("zancgi-doctor", "--check", "socket.k"), ["socket.kind"]),
        ):
            self.assertEqual(self.offered(*words), expected)
        self.assertIn("rfc3875", self.offered("zancgi-request", "--server", "="))

    def test_files_are_offered(self):
        for options in (["-o"], [], ["-i"]):
            words = ("zancgi-request", *options, "ans")
            self.assertEqual(self.offered(*words), ["answer.txt"])

    def test_nothing_is_offered_for_free_text(self):
        self.assertEqual(self.offered("zancgi-request", "--referer", "ans"), [])


if __name__ == "__main__":
    unittest.main()
