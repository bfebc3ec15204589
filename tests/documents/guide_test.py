"""The guide's programs do what it says: each command that it shows is played,
and must answer as shown."""

import os
import pathlib
import re
import signal
import subprocess
import tempfile
import unittest

from accounts import GID, IS_ROOT, NAMES_ONLY, UID, Accounts
from processes import wait_for
from verdict import main

SOURCE = pathlib.Path(os.environ["SOURCE"])
GUIDE = (SOURCE / "docs" / "guide.md").read_text()
PROGRAMS = pathlib.Path(os.environ["GUIDE_PROGRAMS"])

# It needs accounts of the system.
NOT_PLAYED = {"account"}
# It tests the others.
TEST_PROGRAM = "kit"
# Its library may be missing.
OPTIONAL = {"json"}
# What each answers to a GET without a session or any other cookie.
FORBIDDEN = {"account", "domains", "download", "json", "upload", "whoami"}
WITHOUT_BACK_END = {"upload"}
TO_A_STRANGER = dict.fromkeys(FORBIDDEN, "403 Forbidden") | dict.fromkeys(
    ("exact", "form", "hello", "login", "parameters", "theme"), "200 OK"
)
END = "--- end of the answer ---"


def missing():
    return {program for program in OPTIONAL if not (PROGRAMS / program).exists()}


def strangers_programs():
    return TO_A_STRANGER.keys() - missing()


def blocks(language):
    return re.findall(rf"^```{language}\n(.*?)^```$", GUIDE, re.DOTALL | re.MULTILINE)


def commands():
    """Yields each command that can be played here, and its answer."""
    for block in blocks("console"):
        for exchange in re.split(r"^\$ ", block, flags=re.MULTILINE)[1:]:
            lines = exchange.splitlines(keepends=True)
            end = 1
            while end < len(lines) and lines[end].startswith("> "):
                end += 1
            command = "".join(line.removeprefix("> ") for line in lines[:end])
            if not any(f"./{program}" in command for program in missing()):
                yield command, "".join(lines[end:])


def is_listened_on(path):
    """Without a connection, which would be a query to answer."""
    sockets = map(str.split, pathlib.Path("/proc/net/unix").read_text().splitlines())
    return any(words[3] == "00010000" and words[-1] == str(path) for words in sockets)


class Shell:
    """One shell for all commands of a test, in a folder as the guide wants it."""

    def __init__(self, test):
        folder = test.enterContext(tempfile.TemporaryDirectory(prefix="guide-"))
        self.folder = pathlib.Path(folder)
        self.cgi = self.folder / "panel" / "cgi"
        self.cgi.mkdir(parents=True)
        for program in PROGRAMS.iterdir():
            (self.cgi / program.name).symlink_to(program)
        for text in blocks("python"):
            name = re.match(r"# (\S+\.py)\n", text)[1]
            (self.cgi / name).write_text(text)
        path = f"{SOURCE / 'tools'}:{os.environ['PATH']}"
        # What is left running is ended with it.
        self.process = subprocess.Popen(
            ["bash", "--norc"], cwd=self.cgi, env={"PATH": path, "TMPDIR": str(self.folder)},
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
            start_new_session=True,
        )
        test.addCleanup(self.end)

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

    def start_back_end(self):
        for command, _ in commands():
            if "TOV_RUN_DIR" in command or "backend.py" in command:
                self.answer_to(command)
        self.wait_for_back_end()

    def ask(self, program, method, **variables):
        """The header and the body of the answer to who has no session."""
        run_dir = next(self.folder.glob("*/panel.sock")).parent
        answer = subprocess.run(
            [self.cgi / program], cwd=self.cgi,
            env={"REQUEST_METHOD": method, "TOV_RUN_DIR": str(run_dir), **variables},
            capture_output=True, text=True, timeout=60,
        ).stdout
        head, _, body = answer.partition("\n\n")
        return head, body

    def wait_for_back_end(self):
        wait_for(lambda: any(map(is_listened_on, self.folder.glob("*/panel.sock"))))


class GuideTest(unittest.TestCase):
    def test_commands_answer_as_shown(self):
        shell = Shell(self)
        played = 0
        for command, answer in commands():
            with self.subTest(command=command):
                self.assertEqual(shell.answer_to(command), answer)
            if command.rstrip().endswith("&"):
                shell.wait_for_back_end()
            played += 1
        self.assertGreater(played, 15)

    def test_each_program_knows_a_stranger_and_answers_head_without_a_body(self):
        shell = Shell(self)
        shell.start_back_end()
        for program in sorted(strangers_programs()):
            with self.subTest(program=program):
                head, body = shell.ask(program, "GET")
                self.assertEqual(re.match(r"Status: (.*)", head)[1], TO_A_STRANGER[program])
                self.assertTrue(body)
                if program == "parameters":
                    self.assertIn("HEAD is refused like PUT", GUIDE)
                    self.assertRegex(shell.ask(program, "HEAD")[0], r"\AStatus: 405 ")
                    continue
                head, _ = shell.ask(program, "GET", QUERY_STRING="a=1")
                self.assertEqual(shell.ask(program, "HEAD", QUERY_STRING="a=1"), (head, ""))

    def test_a_fault_shows_the_visitor_no_path(self):
        shell = Shell(self)
        shell.start_back_end()
        for program in sorted(FORBIDDEN - WITHOUT_BACK_END - missing()):
            with self.subTest(program=program):
                head, body = shell.ask(
                    program, "GET", TOV_RUN_DIR="/nonexistent", HTTP_SEC_FETCH_SITE="same-origin"
                )
                self.assertRegex(head, r"\AStatus: 502 ")
                self.assertIn("The panel has a fault.", body)
                self.assertNotIn("/nonexistent", body)

    def test_json_library_is_there(self):
        if missing():
            self.skipTest("no nlohmann/json.hpp")

    def test_each_program_is_played_and_known_to_strangers(self):
        shown = set(re.findall(r"^// (\w+)\.cpp\b", GUIDE, re.MULTILINE))
        self.assertEqual(TO_A_STRANGER.keys() | {TEST_PROGRAM}, shown)
        played = set(re.findall(r"\./(\w+)", "".join(command for command, _ in commands())))
        self.assertEqual(shown - played, NOT_PLAYED | missing())
        # Those of an earlier guide may still lie there.
        self.assertLessEqual(shown - missing(), {program.name for program in PROGRAMS.iterdir()})

    def test_each_program_has_a_name(self):
        for text in blocks("cpp"):
            self.assertRegex(text, r"\A// \w+\.(cpp|h)\b")


class AccountProgramTest(unittest.TestCase):
    @unittest.skipUnless(IS_ROOT, "needs root")
    def test_keeps_the_upload_as_the_account(self):
        shell = Shell(self)
        shell.folder.chmod(0o755)
        accounts = Accounts(shell.folder / "accounts")
        home = accounts.make_home("alice")
        for command, _ in commands():
            if re.match("export|python3|play\\(|play -i -d|SESSION=|echo 'Dear", command):
                shell.answer_to(command)
            if command.rstrip().endswith("&"):
                shell.wait_for_back_end()
        answer = shell.answer_to(
            f"zancgi-request --env TOV_RUN_DIR --env NSS_WRAPPER_PASSWD={accounts.users} "
            f"--env NSS_WRAPPER_GROUP={accounts.groups} --env LD_PRELOAD={NAMES_ONLY} "
            "-H 'Sec-Fetch-Site: same-origin' "
            '-b "$SESSION" -F backup=@notes.txt ./account'
        )
        self.assertEqual(answer, "<!doctype html><title>Panel</title><p>Kept.\n")
        kept = home / "backup"
        self.assertEqual(kept.read_text(), "Dear diary\n")
        self.assertEqual((kept.stat().st_uid, kept.stat().st_gid), (UID, GID))


if __name__ == "__main__":
    main()
