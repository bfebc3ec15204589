"""The bash completions of both tools."""

import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

TOOLS = pathlib.Path(os.environ["TOOLS"])
SERVERS = ["rfc3875", "lighttpd", "apache", "nginx-fcgiwrap", "busybox"]
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

    def test_completions_of_words(self):
        for words, expected in (
            (("zancgi-request", "--coo"), ["--cookie", "--cookie-jar"]),
            (("zancgi-doctor", "--nothing"), []),
            # Values of a choice.
            (("zancgi-request", "--stdin", "pi"), ["pipe"]),
            (("zancgi-request", "--server", "=", "ap"), ["apache"]),
            (("zancgi-request", "--server", "=", ""), SERVERS),
            (("zancgi-doctor", "--check", "socket.k"), ["socket.kind"]),
            # Files.
            (("zancgi-request", "-o", "ans"), ["answer.txt"]),
            (("zancgi-request", "ans"), ["answer.txt"]),
            (("zancgi-request", "-i", "ans"), ["answer.txt"]),
            # Free text.
            (("zancgi-request", "--referer", "ans"), []),
        ):
            self.assertEqual(self.offered(*words), expected, words)


if __name__ == "__main__":
    unittest.main()
