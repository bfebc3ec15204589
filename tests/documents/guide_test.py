"""The guide's programs do what it says: each command that it shows is played,
and must answer as shown."""

import os
import pathlib
import re
import signal
import subprocess
import tempfile
import time
import unittest

SOURCE = pathlib.Path(os.environ["SOURCE"])
GUIDE = (SOURCE / "docs" / "guide.md").read_text()
PROGRAMS = pathlib.Path(os.environ["GUIDE_PROGRAMS"])

# They want accounts, or folders of the system's; the example panel's tests do
# the same with both.
NOT_PLAYED = {"account", "spool"}
END = "--- end of the answer ---"


def blocks(language):
    return re.findall(rf"^```{language}\n(.*?)^```$", GUIDE, re.DOTALL | re.MULTILINE)


def commands():
    """Yields each command and its answer."""
    for block in blocks("console"):
        for exchange in re.split(r"^\$ ", block, flags=re.MULTILINE)[1:]:
            lines = exchange.splitlines(keepends=True)
            end = 1
            while end < len(lines) and lines[end].startswith("> "):
                end += 1
            yield "".join(line.removeprefix("> ") for line in lines[:end]), "".join(lines[end:])


class Shell:
    """One shell for all commands, in a folder as the guide wants it."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        self.cgi = self.folder / "panel" / "cgi"
        self.cgi.mkdir(parents=True)
        for program in PROGRAMS.iterdir():
            (self.cgi / program.name).symlink_to(program)
        for text in blocks("python"):
            name = re.match(r"# (\S+\.py)\n", text)[1]
            (self.cgi / name).write_text(text)
        self.process = subprocess.Popen(
            ["bash", "--norc"],
            cwd=self.cgi,
            env={
                "PATH": f"{SOURCE / 'tools'}:{os.environ['PATH']}",
                "TMPDIR": str(self.folder),
            },
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            # What is left running is ended with it.
            start_new_session=True,
        )

    def end(self):
        os.killpg(self.process.pid, signal.SIGKILL)
        self.process.wait(30)
        self.process.stdin.close()
        self.process.stdout.close()

    def answer_to(self, command):
        # The next command may ask for the status of this one.
        self.process.stdin.write(f"{command}\nstatus=$?; echo '{END}'; (exit $status)\n")
        self.process.stdin.flush()
        answer = ""
        while not answer.endswith(f"{END}\n"):
            line = self.process.stdout.readline()
            if not line:
                raise EOFError(answer)
            answer += line
        return answer.removesuffix(f"{END}\n")

    def wait_for_back_end(self):
        end = time.monotonic() + 30
        while not list(self.folder.glob("*/panel.sock")):
            if time.monotonic() > end:
                raise TimeoutError
            time.sleep(0.05)
        # Bound is not yet listening.
        time.sleep(0.2)


class GuideTest(unittest.TestCase):
    def test_commands_answer_as_shown(self):
        folder = tempfile.TemporaryDirectory(prefix="guide-")
        self.addCleanup(folder.cleanup)
        shell = Shell(folder.name)
        self.addCleanup(shell.end)
        played = 0
        for command, answer in commands():
            with self.subTest(command=command):
                self.assertEqual(shell.answer_to(command), answer)
            if command.rstrip().endswith("&"):
                shell.wait_for_back_end()
            played += 1
        self.assertGreater(played, 15)

    def test_each_program_is_played(self):
        shown = set(re.findall(r"^// (\w+)\.cpp\b", GUIDE, re.MULTILINE))
        played = set(re.findall(r"\./(\w+)", "".join(command for command, _ in commands())))
        self.assertEqual(shown - played, NOT_PLAYED)
        # Those of an earlier guide may still lie there.
        self.assertLessEqual(shown, {program.name for program in PROGRAMS.iterdir()})

    def test_each_program_has_a_name(self):
        for text in blocks("cpp"):
            self.assertRegex(text, r"\A// \w+\.(cpp|h)\b")


if __name__ == "__main__":
    unittest.main()
