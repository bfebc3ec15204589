"""zancgi-doctor must say what is wrong, and how to mend it, in the very words
that people look for; and nothing that it looks at may harm or stop it."""

import contextlib
import errno
import grp
import itertools
import json
import os
import pathlib
import pwd
import re
import resource
import shlex
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import unittest.mock

from zancgi_doctor.catalogue import KNOWN
from zancgi_doctor.checks import accounts, back_end, clock, nss, pam, program, tmp_dir
from zancgi_doctor.children import NoResult, run_in_child
from zancgi_doctor.cli import make_parser
from zancgi_doctor.elf import NotElf
from zancgi_doctor.examination import run_job
from zancgi_doctor.files import first_unsafe, text_or_nothing, way_to
from zancgi_doctor.findings import STATES, ok
from zancgi_doctor.identities import Identity, find_user
from zancgi_doctor.libraries import LibrarySearch
from zancgi_doctor.mounts import Mount, mount_of
from zancgi_doctor.texts import group_name, printable, user_name

DOCTOR = pathlib.Path(os.environ["SOURCE"]) / "tools" / "zancgi-doctor"
MODULES = DOCTOR.with_name("zancgi_doctor")
MANUAL = pathlib.Path(os.environ["SOURCE"]) / "docs" / "man" / "zancgi-doctor.1"
# The README's, which tells its caller who they are.
FRONT = os.environ["README_FRONT"]
IS_ROOT = os.geteuid() == 0
# As the doctor names it.
ME = f"'{find_user(str(os.geteuid()))[0]}'"
# Seconds that nothing here takes, however busy the machine is.
LONG = 300
os.umask(0o022)


def free_number():
    """This and the next two are of no user and no group of the machine."""

    def is_free(number):
        for look_up in (pwd.getpwuid, grp.getgrgid):
            with contextlib.suppress(KeyError):
                look_up(number)
                return False
        return True

    return next(n for n in itertools.count(54321) if all(map(is_free, range(n, n + 3))))


def may_mount():
    command = ["unshare", "--mount", "--propagation", "private", "true"]
    return subprocess.run(command, stderr=subprocess.DEVNULL, check=False).returncode == 0


STRANGER = free_number()
REFUSAL = b'<?xml version="1.0" encoding="UTF-8"?>\n<doc><error type="access"/></doc>\n'
AS_ROOT = unittest.skipUnless(
    IS_ROOT and may_mount(), "only root with all rights may take on other ids, mount, or see all"
)
AS_OTHERS = unittest.skipIf(IS_ROOT, "root may do everything")

# A back end as people write them.
APPLICATION = """
def application(environ, start_response):
    body = b'<?xml version="1.0"?><doc><error type="access"/></doc>'
    start_response("200 OK", [("Content-Length", str(len(body)))])
    return [body]
"""


def with_length(body):
    return b"Status: 200 OK\r\nContent-Length: %d\r\n\r\n%s" % (len(body), body)


class Report:
    """What one run has said."""

    def __init__(self, run):
        self.status = run.returncode
        self.output = run.stdout
        self.errors = run.stderr

    @property
    def json(self):
        return json.loads(self.output)

    def findings(self, name):
        return [check for check in self.json["checks"] if check["name"] == name]

    def all(self):
        """For the message of a test that fails."""
        return self.output + self.errors


class DoctorTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        # Short: the path of a socket has 107 bytes.
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="doctor-", dir="/tmp"))
        self.folder.chmod(0o755)
        self.addCleanup(self.remove_folder)
        self.run_dir = self.make_folder("run")

    def remove_folder(self):
        for path in [self.folder, *self.folder.rglob("*")]:
            if path.is_dir() and not path.is_symlink():
                path.chmod(0o700)
        shutil.rmtree(self.folder)

    def make_folder(self, name, mode=0o755):
        path = self.folder / name
        path.mkdir()
        path.chmod(mode)
        return path

    def make_file(self, name, text="", mode=0o644):
        path = self.folder / name
        path.write_text(text)
        path.chmod(mode)
        return path

    def doctor(self, *arguments, before="", environment=(), **options):
        """Runs it; before is what a shell does first, root in mounts of its own."""
        command = [str(DOCTOR), "--timeout", str(LONG), *map(str, arguments)]
        if before:
            script = f"set -e; {before}; exec {shlex.join(command)}"
            command = ["/bin/sh", "-c", script]
            if IS_ROOT:
                command = ["unshare", "--mount", "--propagation", "private", *command]
        variables = {"PATH": os.environ["PATH"], "LANG": "C.UTF-8", **dict(environment)}
        # No user of the machine's may be able to tell what the files are like.
        options.setdefault("stdin", subprocess.DEVNULL)
        return Report(
            subprocess.run(
                command,
                env=variables,
                stdout=subprocess.PIPE,
                stderr=subprocess.PIPE,
                text=True,
                timeout=LONG,
                check=False,
                **options,
            )
        )

    def examine(self, check, *arguments, **options):
        return self.doctor("--json", "--check", check, *arguments, **options)

    def expect(self, report, name, state, message, remedy=None):
        """The one finding of a name."""
        found = report.findings(name)
        self.assertEqual(len(found), 1, report.all())
        self.assertEqual((found[0]["state"], found[0]["message"]), (state, message))
        if remedy is not None:
            self.assertEqual(found[0]["remedy"], remedy)
        needs_remedy = state in ("failure", "warning", "unchecked")
        self.assertEqual(bool(found[0]["remedy"]), needs_remedy, found[0])


class CommandLineTest(DoctorTest):
    def test_what_stops_a_check_is_told_in_its_place(self):
        report = self.examine("tmp-dir.space", "--tmp-dir", self.folder / "none")
        self.assertEqual(report.status, 2)
        names = [check["name"] for check in report.json["checks"]]
        self.assertEqual(names, ["tmp-dir.exists"])

    def test_usage_errors_end_with_3(self):
        for arguments in (
            ["--no-such-option"],
            ["--timeout", "0"],
            ["--timeout", "soon"],
            ["--min-free", "lots"],
            ["--pid", "0"],
            ["--check", "run-dir.nothing"],
            ["--session", "a b", "--service", "x"],
            ["--session", "abc"],
            ["--session", "abc", "--service", "x", "--service", "y"],
        ):
            report = self.doctor(*arguments)
            self.assertEqual(report.status, 3, arguments)
            self.assertEqual(report.output, "")
            self.assertIn("zancgi-doctor: ", report.errors)

    def test_unknown_user_and_group(self):
        report = self.doctor("--as", "nobody\x1b-such")
        self.assertEqual(report.status, 3)
        self.assertIn("zancgi-doctor: there is no user 'nobody\\x1b-such'\n", report.errors)
        report = self.doctor("--as", "root:no-such-group")
        self.assertEqual(report.status, 3)
        self.assertIn("zancgi-doctor: there is no group 'no-such-group'\n", report.errors)

    def test_numbers_that_nobody_can_have(self):
        for text in ("4294967295", "4294967295:33", "99999999999", "33:4294967295"):
            report = self.doctor("--as", text)
            self.assertEqual(report.status, 3, text)
            self.assertRegex(report.errors, "there is no (user|group) '[0-9]+'")

    def test_caller_who_ignores_the_end_of_children(self):
        report = self.doctor(
            "--check",
            "process",
            "-v",
            preexec_fn=lambda: signal.signal(signal.SIGCHLD, signal.SIG_IGN),
        )
        self.assertIn("process.streams", report.output)

    def test_list_names_every_check(self):
        report = self.doctor("--list")
        self.assertEqual(report.status, 0)
        names = [line.split()[0] for line in report.output.splitlines()]
        expected = [f"{group}.{name}" for group, checks in KNOWN.items() for name in checks]
        self.assertEqual(names, expected)

    def test_source_uses_listed_names_only_and_all_of_them(self):
        source = "".join(path.read_text() for path in MODULES.rglob("*.py"))
        quoted = set(re.findall(r'"([a-z-]+\.[a-z-]+)"', source))
        listed = {f"{group}.{name}" for group, checks in KNOWN.items() for name in checks}
        self.assertEqual({name for name in quoted if name.split(".")[0] in KNOWN}, listed)

    def test_only_the_wanted_check_is_reported(self):
        report = self.examine("run-dir.length", "--run-dir", self.run_dir)
        self.assertEqual([check["name"] for check in report.json["checks"]], ["run-dir.length"])

    def test_json_has_the_documented_form(self):
        report = self.doctor("--json", "--run-dir", self.run_dir)
        found = report.json
        self.assertEqual(set(found), {"version", "state", "checks"})
        self.assertEqual(found["version"], 1)
        self.assertIn(found["state"], ("ok", "warning", "failure", "unchecked"))
        keys = [(check["name"], check["subject"]) for check in found["checks"]]
        self.assertEqual(len(keys), len(set(keys)))
        for check in found["checks"]:
            self.assertEqual(set(check), {"name", "subject", "state", "message", "remedy"})
            self.assertTrue(all(isinstance(value, str) for value in check.values()))
            self.assertIn(check["state"], ("ok", "warning", "failure", "unchecked", "skipped"))
            self.assertRegex(check["message"], r"\.$")

    def test_first_line_and_exit_status(self):
        """The worst state counts: failure, warning, unchecked, ok, in this order."""
        cases = [
            (["run-dir.exists"], self.run_dir, 0, "OK: 0 failures, 0 warnings, 0 unchecked, 1 ok"),
            (
                ["run-dir.exists", "run-dir.length"],
                self.folder / "none",
                2,
                "FAILURE: 1 failure, 0 warnings, 0 unchecked, 1 ok; run-dir.exists "
                f"{self.folder}/none: The run directory '{self.folder}/none' cannot be found: "
                "No such file or directory.",
            ),
            (
                ["socket.kind"],
                self.run_dir,
                1,
                f"WARNING: 0 failures, 1 warning, 0 unchecked, 0 ok; socket.kind {self.run_dir}: "
                f"There is no socket in '{self.run_dir}'.",
            ),
        ]
        for checks, run_dir, status, line in cases:
            wanted = [argument for check in checks for argument in ("--check", check)]
            report = self.doctor("-q", "--run-dir", run_dir, *wanted)
            self.assertEqual(report.output, f"zancgi-doctor {line}\n")
            self.assertEqual(report.status, status)

    @AS_OTHERS
    def test_unchecked_ends_with_3(self):
        report = self.doctor("-q", "--check", "identity", "--as", "root")
        self.assertEqual(report.status, 3)
        self.assertRegex(report.output, "^zancgi-doctor UNCHECKED: 0 failures, 0 warnings, 1 un")

    def test_text_shows_what_is_wrong_and_with_v_all(self):
        arguments = ("--check", "run-dir", "--run-dir", self.folder / "none")
        lines = self.doctor(*arguments).output.splitlines()
        self.assertEqual(len(lines), 3)
        self.assertRegex(lines[1], "^FAILURE  run-dir.exists ")
        self.assertRegex(lines[2], "^    Have it made by a tmpfiles.d rule ")
        lines = self.doctor("-v", *arguments).output.splitlines()
        self.assertRegex(lines[3], "^OK  run-dir.length ")

    def test_first_line_has_no_bar(self):
        """Monitoring takes what stands behind one for figures."""
        report = self.doctor("-q", "--check", "run-dir.exists", "--run-dir", "/no|ne")
        self.assertNotIn("|", report.output)
        self.assertIn(r"/no\x7cne", report.output)

    def test_output_of_foreign_text_without_utf8(self):
        """As in a locale of another encoding, of which the machine may have none."""
        run_dir = self.make_folder("é")
        run = subprocess.run(
            [sys.executable, "-IBXutf8=0", DOCTOR, "-v", "--check", "run-dir.exists"]
            + ["--run-dir", run_dir],
            env={"LC_ALL": "POSIX"},
            capture_output=True,
            timeout=LONG,
            check=False,
        )
        self.assertEqual(run.returncode, 0, run.stderr)
        self.assertIn(rb"\xc3\xa9", run.stdout)

    def test_output_that_cannot_be_written_is_no_success(self):
        with open("/dev/full", "w") as full:
            run = subprocess.run(
                [DOCTOR, "--check", "run-dir.exists", "--run-dir", self.run_dir],
                stdout=full,
                stderr=subprocess.PIPE,
                timeout=LONG,
                check=False,
            )
        self.assertNotEqual(run.returncode, 0)


class VersionTest(DoctorTest):
    def test_is_the_projects(self):
        for option in ("-V", "--version"):
            report = self.doctor(option)
            self.assertEqual(report.output, f"zancgi-doctor {os.environ['VERSION']}\n")
            self.assertEqual(report.status, 0)

    def test_is_the_one_that_the_installation_has_filled_in(self):
        for filled_in, shown in (("12.3.4", "12.3.4"), ("@PROJECT_VERSION@", "unknown")):
            folder = self.make_folder(shown)
            shutil.copytree(MODULES, folder / "zancgi_doctor")
            shutil.copy(DOCTOR, folder)
            file = folder / "zancgi_doctor" / "version.py"
            file.write_text(file.read_text().replace("@PROJECT_VERSION@", filled_in))
            run = subprocess.run([folder / "zancgi-doctor", "-V"], capture_output=True, check=True)
            self.assertEqual(run.stdout.decode(), f"zancgi-doctor {shown}\n")


class LauncherTest(DoctorTest):
    """The program finds its modules, and takes no others."""

    def setUp(self):
        super().setUp()
        self.installed = self.make_folder("bin") / "zancgi-doctor"
        shutil.copy(DOCTOR, self.installed)
        self.share = self.make_folder("share")

    def install_modules(self):
        folder = self.share / "zancgi-tools" / "zancgi_doctor"
        shutil.copytree(MODULES, folder, ignore=shutil.ignore_patterns("__pycache__"))

    def list_checks(self, program, **options):
        run = subprocess.run(
            [program, "--list"], capture_output=True, text=True, timeout=LONG, **options
        )
        self.assertEqual((run.returncode, run.stderr), (0, ""))
        self.assertEqual(run.stdout, self.doctor("--list").output)

    def test_is_found_where_it_is_installed(self):
        self.install_modules()
        self.list_checks(self.installed)
        link = self.folder / "link"
        link.symlink_to("bin/zancgi-doctor")
        self.list_checks(link)
        self.list_checks("bin/zancgi-doctor", cwd=self.folder)

    def test_leaves_no_compiled_files(self):
        self.install_modules()
        before = sorted(self.folder.rglob("*"))
        self.list_checks(self.installed)
        self.assertEqual(sorted(self.folder.rglob("*")), before)

    def test_nobody_else_chooses_the_modules(self):
        self.install_modules()
        evil = self.make_folder("evil")
        for name in ("zancgi_doctor", "json", "argparse", "sitecustomize"):
            (evil / f"{name}.py").write_text("raise SystemExit('taken in')\n")
        for tool in (DOCTOR, self.installed):
            environment = {**os.environ, "PYTHONPATH": str(evil), "PYTHONUSERBASE": str(evil)}
            self.list_checks(tool, cwd=evil, env=environment)

    def test_modules_that_are_missing(self):
        run = subprocess.run(
            [self.installed, "--list"], capture_output=True, text=True, timeout=LONG, check=False
        )
        self.assertEqual(run.returncode, 3)
        message = f"zancgi-doctor: its modules are not in {self.share}/zancgi-tools\n"
        self.assertEqual((run.stdout, run.stderr), ("", message))


class ManualTest(unittest.TestCase):
    TEXT = MANUAL.read_text()

    def test_has_every_check_with_its_sentence(self):
        shown = re.findall(r"^\.It Cm ([a-z-]+\.[a-z-]+)\n(.*)$", self.TEXT, re.MULTILINE)
        expected = [
            (f"{group}.{name}", sentence)
            for group, checks in KNOWN.items()
            for name, sentence in checks.items()
        ]
        self.assertEqual(shown, expected)

    def test_has_every_option(self):
        """In the synopsis and in the list."""
        synopsis, _, listed = self.TEXT.partition(".Sh DESCRIPTION")
        for action in make_parser()._actions:
            option = action.option_strings[-1]
            if option == "--help":
                continue
            flag = f"Fl {option[1:]}\\b"
            self.assertRegex(listed, rf"\.It {flag}|, {flag[3:]}")
            short = rf"Fl [qv]*{action.option_strings[0][1:]}"
            self.assertRegex(synopsis, rf"{flag}|{short}")

    def test_has_every_state(self):
        for state in STATES:
            self.assertIn(f".It Cm {state}\n", self.TEXT)

    def test_is_well_formed(self):
        lint = subprocess.run(
            ["mandoc", "-T", "lint", "-W", "style", MANUAL],
            capture_output=True,
            text=True,
            check=False,
        )
        # Where the library's own pages are not installed they are not found.
        complaints = [
            line for line in lint.stdout.splitlines() if "referenced manual not found" not in line
        ]
        self.assertEqual(complaints, [])


class IdentityTest(DoctorTest):
    def test_own_rights(self):
        report = self.examine("identity")
        name = find_user(str(os.geteuid()))[0]
        message = f"What the front end may do is checked with the rights of user '{name}'."
        self.expect(report, "identity.rights", "ok", message)

    @AS_ROOT
    def test_another_user_without_an_entry(self):
        report = self.examine("identity", "--as", f"{STRANGER}:{STRANGER}")
        message = f"What the front end may do is checked with the rights of user '{STRANGER}'."
        self.expect(report, "identity.rights", "ok", message)

    @AS_OTHERS
    def test_another_user_without_rights(self):
        report = self.examine("identity", "--as", "root")
        name = user_name(os.geteuid())
        message = f"What user 'root' may do cannot be checked with the rights of user {name}."
        self.expect(report, "identity.rights", "unchecked", message, "Run zancgi-doctor as root.")

    @AS_OTHERS
    def test_hidden_from_oneself(self):
        """The front end's user may see what the caller does not."""
        path = self.make_folder("closed", 0) / "file"
        for check, option in (
            ("run-dir.exists", "--run-dir"),
            ("tmp-dir.exists", "--tmp-dir"),
            ("program.file", "--program"),
        ):
            group = check.partition(".")[0]
            report = self.examine(group, option, path, "--as", "root")
            message = f"'{path}' cannot be looked at: Permission denied."
            self.expect(report, check, "unchecked", message, "Run zancgi-doctor as root.")
            states = {found["state"] for found in report.json["checks"]}
            self.assertLessEqual(states, {"ok", "unchecked"})
            report = self.examine(check, option, path)
            self.assertEqual(report.findings(check)[0]["state"], "failure")

    @AS_ROOT
    def test_rights_are_really_given_up(self):
        """Group and further groups too."""
        identity = Identity("someone", STRANGER, STRANGER + 1, [STRANGER + 2])

        def ids():
            return [*os.getresuid(), *os.getresgid(), *os.getgroups()]

        self.assertEqual(
            run_in_child(LONG, ids, identity=identity),
            [STRANGER] * 3 + [STRANGER + 1] * 3 + [STRANGER + 2],
        )


# Nothing of what is installed on this machine for systemd.
WITHOUT_CONFIGURATION = [
    "mount -t tmpfs none /run",
    "mkdir -p /etc/tmpfiles.d /etc/systemd/system",
    "for folder in /etc /usr/local/lib /usr/lib /lib; do "
    "for kind in tmpfiles.d systemd/system; do "
    "if [ -d $folder/$kind ]; then mount -t tmpfs none $folder/$kind; fi; done; done",
]


class MachineTest(DoctorTest):
    """With accounts of its own, and none of this machine's: alice, bob and root."""

    def setUp(self):
        super().setUp()
        self.uid = self.gid = STRANGER
        self.group_line = f"alice:x:{STRANGER}:"
        self.password_file = self.make_file("passwd")
        self.group_file = self.make_file("group")
        self.sources = self.make_file("nsswitch.conf", "passwd: files\ngroup: files\n")

    def accounts(self, home="/srv/alice"):
        """What makes them, before the doctor is run."""
        self.password_file.write_text(
            f"root:x:0:0::/root:/bin/sh\nalice:x:{self.uid}:{self.gid}::{home}:/bin/sh\n"
            f"bob:x:{STRANGER + 1}:{STRANGER + 1}::/srv/bob:/bin/sh\n"
        )
        self.group_file.write_text(
            f"root:x:0:\ndisk:x:6:\nusers:x:100:\nbob:x:{STRANGER + 1}:\n{self.group_line}\n"
        )
        return "; ".join(
            f"mount --bind {file} /etc/{file.name}"
            for file in (self.password_file, self.group_file, self.sources)
        )


class RunDirTest(DoctorTest):
    def run_dir_check(self, name, path=None, **options):
        return self.examine(f"run-dir.{name}", "--run-dir", path or self.run_dir, **options)

    def test_exists(self):
        message = f"The run directory '{self.run_dir}' exists."
        self.expect(self.run_dir_check("exists"), "run-dir.exists", "ok", message)

    def test_comes_from_the_environment(self):
        report = self.examine("run-dir.exists", environment={"TOV_RUN_DIR": str(self.run_dir)})
        self.expect(report, "run-dir.exists", "ok", f"The run directory '{self.run_dir}' exists.")
        for environment in ({}, {"TOV_RUN_DIR": ""}):
            report = self.examine("run-dir.length", environment=environment)
            self.assertEqual(report.json["checks"][0]["subject"], "/run/tov")

    def test_is_missing(self):
        path = self.folder / "none"
        report = self.run_dir_check("exists", path)
        message = f"The run directory '{path}' cannot be found: No such file or directory."
        self.expect(report, "run-dir.exists", "failure", message)
        self.assertEqual(report.status, 2)

    def test_is_relative(self):
        self.expect(
            self.run_dir_check("exists", "run"),
            "run-dir.exists",
            "failure",
            "The run directory 'run' is relative, and the library changes the current directory "
            "before it looks there.",
            "Set TOV_RUN_DIR to a path that begins with a slash.",
        )

    def test_is_a_fifo(self):
        path = self.folder / "fifo"
        os.mkfifo(path)
        message = f"The run directory '{path}' is a FIFO."
        self.expect(self.run_dir_check("exists", path), "run-dir.exists", "failure", message)

    @AS_ROOT
    def test_cannot_be_searched(self):
        self.run_dir.chmod(0o750)
        self.expect(
            self.examine("run-dir.exists", "--run-dir", self.run_dir, "--as", str(STRANGER)),
            "run-dir.exists",
            "failure",
            f"The run directory '{self.run_dir}' cannot be searched by user '{STRANGER}': "
            "Permission denied.",
        )

    @AS_OTHERS
    def test_cannot_be_searched_by_oneself(self):
        self.run_dir.chmod(0o600)
        name = ME
        self.expect(
            self.run_dir_check("exists"),
            "run-dir.exists",
            "failure",
            f"The run directory '{self.run_dir}' cannot be searched by user {name}: "
            "Permission denied.",
        )

    def test_length(self):
        for room, state in ((16, "ok"), (15, "warning"), (1, "warning"), (0, "failure")):
            path = "/" + "x" * (107 - len("/.sock") - room - 1)
            message = (
                f"The path of the run directory leaves {room} byte{'' if room == 1 else 's'} for "
                "the name of a service."
            )
            self.expect(self.run_dir_check("length", path), "run-dir.length", state, message)

    def test_is_safe(self):
        owner = user_name(os.geteuid())
        message = f"Only root and user {owner} can replace a socket."
        self.expect(self.run_dir_check("safe"), "run-dir.safe", "ok", message)

    def test_is_writable_by_everybody_or_a_group(self):
        group = group_name(os.getegid() or STRANGER)
        if IS_ROOT:
            os.chown(self.run_dir, 0, STRANGER)
        # A sticky one as well: anybody can come before the back end.
        for mode, what in (
            (0o777, "everybody"),
            (0o1777, "everybody"),
            (0o775, f"group {group}"),
        ):
            self.run_dir.chmod(mode)
            self.expect(
                self.run_dir_check("safe"),
                "run-dir.safe",
                "failure",
                f"Others can pose as a back end: '{self.run_dir}' is writable by {what}.",
                "Let it and every folder above it be writable by root and the back end's user only "
                "(chown, chmod go-w).",
            )

    def test_a_folder_above_is_writable(self):
        inner = self.make_folder("open", 0o777) / "run"
        inner.mkdir()
        self.expect(
            self.run_dir_check("safe", inner),
            "run-dir.safe",
            "failure",
            f"Others can pose as a back end: '{self.folder}/open' is writable by everybody.",
        )

    def test_way_over_a_link_in_a_writable_folder(self):
        link = self.make_folder("open", 0o777) / "link"
        link.symlink_to(self.run_dir)
        self.expect(
            self.run_dir_check("safe", link),
            "run-dir.safe",
            "failure",
            f"Others can pose as a back end: '{self.folder}/open' is writable by everybody.",
        )

    def test_way_back_from_the_target_of_a_link(self):
        """Where two dots lead, the kernel decides after the link."""
        target = self.make_folder("open", 0o777) / "target"
        target.mkdir(0o755)
        (self.folder / "link").symlink_to(target)
        (self.folder / "back").symlink_to("open/target/..")
        for way in ("link/..", "back"):
            self.expect(
                self.run_dir_check("safe", f"{self.folder}/{way}"),
                "run-dir.safe",
                "failure",
                f"Others can pose as a back end: '{self.folder}/open' is writable by everybody.",
            )

    @AS_ROOT
    def test_link_of_a_stranger_in_a_sticky_folder(self):
        link = self.make_folder("sticky", 0o1777) / "link"
        link.symlink_to(self.run_dir)
        os.lchown(link, STRANGER, STRANGER)
        self.expect(
            self.run_dir_check("safe", link),
            "run-dir.safe",
            "failure",
            f"Others can pose as a back end: '{link}' belongs to user number {STRANGER}.",
        )

    @AS_ROOT
    def test_front_end_may_write_there(self):
        os.chown(self.run_dir, STRANGER, STRANGER)
        self.expect(
            self.examine("run-dir.safe", "--run-dir", self.run_dir, "--as", str(STRANGER)),
            "run-dir.safe",
            "warning",
            f"The front end's user '{STRANGER}' may write in '{self.run_dir}', and so replace a "
            "socket.",
        )

    def test_outlasts_a_reboot_on_disk(self):
        message = f"'{self.run_dir}' is on a disk and outlasts a reboot."
        if mount_of(self.run_dir).kind in ("tmpfs", "ramfs"):
            self.skipTest("the temporary directory is in memory")
        self.expect(self.run_dir_check("reboot"), "run-dir.reboot", "ok", message)

    def in_memory(self, *more):
        """A run directory /run/tov in memory, on a machine as more makes it."""
        before = "; ".join([*WITHOUT_CONFIGURATION, "mkdir -m 755 /run/tov", *more])
        return self.run_dir_check("reboot", "/run/tov", before=before)

    @AS_ROOT
    def test_is_made_by_a_rule(self):
        message = "'/run/tov' is made at every start by a tmpfiles.d rule."
        for path in ("/run/tov", "/var/run/tov/"):
            report = self.in_memory(f"echo 'd {path} 0755 root root -' > /etc/tmpfiles.d/tov.conf")
            self.expect(report, "run-dir.reboot", "ok", message)

    @AS_ROOT
    def test_is_made_by_a_unit(self):
        unit = "/etc/systemd/system/panel.service"
        report = self.in_memory(f"printf '[Service]\\nRuntimeDirectory=a tov\\n' > {unit}")
        message = f"'/run/tov' is made at every start by the unit '{unit}'."
        self.expect(report, "run-dir.reboot", "ok", message)

    @AS_ROOT
    def test_is_made_by_nothing(self):
        rule = "mkdir /run/tmpfiles.d; echo 'd /run/tov' > /run/tmpfiles.d/tov.conf"
        mask = "ln -s /dev/null /etc/tmpfiles.d/tov.conf"
        comment = "echo '# d /run/tov' > /etc/tmpfiles.d/x.conf"
        other = "echo 'd /run/tov2' > /etc/tmpfiles.d/y.conf"
        fifo = "mkfifo /etc/tmpfiles.d/z.conf"
        for more in ([], [rule, mask], [comment, other, fifo]):
            self.expect(
                self.in_memory("mkdir -p /run/systemd/system", *more),
                "run-dir.reboot",
                "warning",
                "'/run/tov' is in memory and nothing makes it again after a reboot.",
                "Put 'd /run/tov 0755 root root' into /etc/tmpfiles.d/tov.conf, or "
                "RuntimeDirectory= into the back end's unit.",
            )

    @AS_ROOT
    def test_without_systemd(self):
        report = self.in_memory()
        self.expect(
            report,
            "run-dir.reboot",
            "skipped",
            "'/run/tov' is in memory; whatever starts the back end has to make it, since systemd "
            "does not run here.",
        )
        self.assertEqual(report.status, 0)

    def test_names(self):
        for name in ("panel.pid", "panel.lock"):
            (self.run_dir / name).touch()
        message = f"Nothing but sockets lies in '{self.run_dir}'."
        self.expect(self.run_dir_check("names"), "run-dir.names", "ok", message)

    def test_other_files(self):
        for number in range(5):
            (self.run_dir / f"note{number}").touch()
        self.expect(
            self.run_dir_check("names"),
            "run-dir.names",
            "warning",
            f"In '{self.run_dir}' lies what is no socket: 'note0', 'note1', 'note2' and 2 more.",
        )

    def test_hidden_socket(self):
        (self.run_dir / ".panel.sock").touch()
        self.expect(
            self.run_dir_check("names"),
            "run-dir.names",
            "warning",
            "'.panel.sock' cannot be asked for: the name of a service must not begin with a dot.",
        )

    @AS_OTHERS
    def test_cannot_be_listed(self):
        self.run_dir.chmod(0o311)
        message = f"'{self.run_dir}' cannot be listed: Permission denied."
        report = self.run_dir_check("names")
        self.expect(report, "run-dir.names", "unchecked", message, "Run zancgi-doctor as root.")
        self.assertEqual(report.status, 3)


class Listener:
    """A back end that answers each request as a function says."""

    def __init__(self, path, answer):
        self.requests = []
        self.answer = answer
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.bind(str(path))
        self.socket.listen()
        self.thread = threading.Thread(target=self.serve)
        self.thread.start()

    def serve(self):
        with contextlib.suppress(OSError):
            while True:
                connection, _ = self.socket.accept()
                with connection, contextlib.suppress(OSError):
                    self.answer(self, connection)

    def read(self, connection):
        digits = b""
        while not digits.endswith(b":"):
            digits += connection.recv(1)
        left = int(digits[:-1]) + 1
        request = b""
        while len(request) < left:
            request += connection.recv(left - len(request))
        self.requests.append(digits + request)

    def stop(self):
        self.socket.shutdown(socket.SHUT_RDWR)
        self.thread.join(30)
        self.socket.close()


def answering(data):
    def answer(listener, connection):
        listener.read(connection)
        connection.sendall(data)

    return answer


class ServiceTest(DoctorTest):
    def setUp(self):
        super().setUp()
        self.path = self.run_dir / "panel.sock"

    def listen(self, answer):
        listener = Listener(self.path, answer)
        self.addCleanup(listener.stop)
        self.path.chmod(0o666)
        return listener

    def ask(self, check="back-end", *arguments, **options):
        return self.examine(
            check, "--run-dir", self.run_dir, "--service", "panel", *arguments, **options
        )

    def assert_well(self, report):
        """But for the time, which a busy machine takes."""
        states = {check["name"]: check["state"] for check in report.json["checks"]}
        self.assertIn(states.pop("back-end.time"), ("ok", "warning"))
        self.assertEqual(set(states.values()), {"ok"}, report.all())

    def bind(self):
        """A socket that nobody listens on."""
        with socket.socket(socket.AF_UNIX) as left_behind:
            left_behind.bind(str(self.path))
        self.path.chmod(0o660)


class SocketTest(ServiceTest):
    def test_names(self):
        long = "x" * (107 - len(f"{self.run_dir}/.sock") + 1)
        for service, error in (
            ("", "it is empty"),
            (".panel", "it begins with a dot"),
            ("a/b", "it contains a slash"),
            (long, "the path of its socket has 108 bytes, more than 107"),
        ):
            report = self.examine("socket", "--run-dir", self.run_dir, "--service", service)
            self.expect(
                report,
                "socket.name",
                "failure",
                f"The library refuses the service name '{service}': {error}.",
                "Choose a shorter name without a slash, and no dot in front, or a shorter "
                "TOV_RUN_DIR.",
            )
            report = self.examine("back-end", "--run-dir", self.run_dir, "--service", service)
            message = "The library refuses the service's name."
            self.expect(report, "back-end.connect", "unchecked", message)

    def test_longest_name(self):
        service = "x" * (107 - len(f"{self.run_dir}/.sock"))
        self.path = self.run_dir / f"{service}.sock"
        self.listen(answering(with_length(REFUSAL)))
        report = self.doctor("--json", "--run-dir", self.run_dir, "--service", service)
        message = f"The service name '{service}' is accepted."
        self.expect(report, "socket.name", "ok", message)
        message = "It answers, and refuses a request without a session."
        self.expect(report, "back-end.answer", "ok", message)

    def test_is_a_socket(self):
        self.bind()
        report = self.ask("socket.kind")
        self.expect(report, "socket.kind", "ok", f"'{self.path}' is a socket.")

    def test_is_missing(self):
        for make in (lambda: None, lambda: self.path.symlink_to(self.folder / "none")):
            make()
            self.expect(
                self.ask("socket.kind"),
                "socket.kind",
                "failure",
                f"There is no socket at '{self.path}': No such file or directory.",
                "Start the back end, and see that it makes its socket there.",
            )
            message = "There is no socket to connect to."
            self.expect(self.ask(), "back-end.connect", "unchecked", message)

    def test_a_back_end_that_could_not_be_asked_is_not_fine(self):
        report = self.ask("back-end.time")
        self.assertEqual(report.status, 3)
        self.expect(report, "back-end.connect", "unchecked", "There is no socket to connect to.")

    def test_is_something_else(self):
        for make, what in (
            (os.mkfifo, "a FIFO"),
            (pathlib.Path.touch, "a regular file"),
            (os.mkdir, "a folder"),
        ):
            make(self.path)
            message = f"'{self.path}' is {what}, not a socket."
            self.expect(self.ask("socket.kind"), "socket.kind", "failure", message)
            message = "There is no socket to connect to."
            self.expect(self.ask(), "back-end.connect", "unchecked", message)
            self.path.rmdir() if self.path.is_dir() else self.path.unlink()

    @AS_OTHERS
    def test_cannot_be_looked_at(self):
        self.run_dir.chmod(0o600)
        message = f"'{self.path}' cannot be looked at: Permission denied."
        report = self.ask("socket.kind")
        self.expect(report, "socket.kind", "unchecked", message, "Run zancgi-doctor as root.")

    def test_no_socket_at_all(self):
        report = self.examine("socket", "--run-dir", self.run_dir)
        message = f"There is no socket in '{self.run_dir}'."
        self.expect(report, "socket.kind", "warning", message)

    def test_link_to_a_socket(self):
        other = self.make_folder("panel")
        self.path.symlink_to(other / "panel.sock")
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(str(other / "panel.sock"))
            self.expect(
                self.ask("socket.safe"),
                "socket.safe",
                "ok",
                f"No link leads from '{self.path}' to where others can write.",
            )
            other.chmod(0o777)
            self.expect(
                self.ask("socket.safe"),
                "socket.safe",
                "failure",
                f"Others can pose as the back end behind the link '{self.path}': '{other}' is "
                "writable by everybody.",
            )

    def test_may_connect(self):
        self.bind()
        name = ME
        message = f"User {name} may connect to '{self.path}'."
        self.expect(self.ask("socket.access"), "socket.access", "ok", message)

    def refused(self, user, *arguments):
        self.expect(
            self.ask("socket.access", *arguments),
            "socket.access",
            "failure",
            f"User {user} may not connect to '{self.path}': Permission denied.",
            "Let the socket's group be the front end's and its mode 660 (uWSGI: chmod-socket = "
            "660 and chown-socket).",
        )

    @AS_ROOT
    def test_another_may_not_connect(self):
        self.bind()
        self.refused(f"'{STRANGER}'", "--as", str(STRANGER))

    @AS_ROOT
    def test_group_of_another_may_connect(self):
        self.bind()
        os.chown(self.path, 0, STRANGER + 1)
        report = self.ask("socket.access", "--as", f"{STRANGER}:{STRANGER + 1}")
        message = f"User '{STRANGER}' may connect to '{self.path}'."
        self.expect(report, "socket.access", "ok", message)

    @AS_OTHERS
    def test_oneself_may_not_connect(self):
        self.bind()
        self.path.chmod(0)
        self.refused(ME)

    @AS_OTHERS
    def test_access_of_another_is_not_known(self):
        self.bind()
        message = f"Whether user 'root' may connect to '{self.path}' is not known."
        report = self.ask("socket.access", "--as", "root")
        self.expect(report, "socket.access", "unchecked", message, "Run zancgi-doctor as root.")

    def test_strangers(self):
        self.bind()
        message = f"Strangers may not connect to '{self.path}'."
        self.expect(self.ask("socket.strangers"), "socket.strangers", "ok", message)
        self.path.chmod(0o666)
        self.expect(
            self.ask("socket.strangers"),
            "socket.strangers",
            "warning",
            f"Every local user may connect to '{self.path}', and claim any caller's address.",
        )
        self.run_dir.chmod(0o750)
        self.expect(self.ask("socket.strangers"), "socket.strangers", "ok", message)


class BackEndTest(ServiceTest):
    def answer(self, data, *arguments):
        self.listen(answering(data))
        return self.ask("back-end", *arguments)

    def test_all_is_well(self):
        report = self.answer(with_length(REFUSAL))
        name = pathlib.Path("/proc/self/comm").read_text().strip()
        message = f"Somebody listens on '{self.path}' ({name})."
        self.expect(report, "back-end.connect", "ok", message)
        message = "It answers, and refuses a request without a session."
        self.expect(report, "back-end.answer", "ok", message)
        self.expect(report, "back-end.length", "ok", "The answer tells its length.")
        message = "A cookie of 8.0 KB is no trouble."
        self.expect(report, "back-end.large-request", "ok", message)
        self.assert_well(report)

    def test_quick_answer(self):
        for seconds, state in ((0.5, "ok"), (1.5, "warning")):
            self.assertEqual(back_end.answer_time("panel", seconds).state, state)

    def test_request_byte_for_byte(self):
        listener = self.listen(answering(with_length(REFUSAL)))
        self.ask("back-end", "--session", "a1")
        header = (
            b"CONTENT_LENGTH\0000\0SCGI\0001\0HTTP_COOKIE\0panelses5=a1\0HTTP_HOST\0localhost\0"
            b"HTTP_USER_AGENT\0zancgi-doctor\0QUERY_STRING\0func=whoami&out=xml\0"
            b"REMOTE_ADDR\000127.0.0.1\0REQUEST_METHOD\0GET\0REQUEST_URI\0/zancgi-doctor\0"
            b"SERVER_ADDR\000127.0.0.1\0"
        )
        self.assertEqual(listener.requests[0], b"%d:%s," % (len(header), header))
        cookie = re.search(rb"HTTP_COOKIE\0([^\0]*)\0", listener.requests[1])[1]
        self.assertEqual(cookie, b"panelses5=a1; zancgi-doctor=" + b"x" * 8192)

    def test_services_are_found_by_their_sockets(self):
        self.listen(answering(with_length(REFUSAL)))
        self.bind_other("mail")
        (self.run_dir / ".hidden.sock").touch()
        report = self.examine("back-end.connect", "--run-dir", self.run_dir)
        found = [(check["subject"], check["state"]) for check in report.json["checks"]]
        self.assertEqual(found, [("mail", "failure"), ("panel", "ok")])

    def bind_other(self, service):
        with socket.socket(socket.AF_UNIX) as left_behind:
            left_behind.bind(str(self.run_dir / f"{service}.sock"))

    def test_nobody_listens(self):
        self.bind()
        self.expect(
            self.ask(),
            "back-end.connect",
            "failure",
            f"Nobody listens on '{self.path}': the socket was left behind.",
            "Start the back end; if it cannot make its socket, remove the old one.",
        )

    def test_full_queue(self):
        """The library would wait; the doctor waits for its time."""
        self.bind_with_full_queue()
        begin = time.monotonic()
        report = self.ask("back-end", "--timeout", "2")
        self.assertGreaterEqual(time.monotonic() - begin, 2)
        message = f"'{self.path}' cannot be connected to: its queue is full."
        self.expect(report, "back-end.connect", "failure", message)

    def bind_with_full_queue(self):
        listener = socket.socket(socket.AF_UNIX)
        self.addCleanup(listener.close)
        listener.bind(str(self.path))
        listener.listen(0)
        with contextlib.suppress(BlockingIOError):
            while True:
                client = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM | socket.SOCK_NONBLOCK)
                self.addCleanup(client.close)
                client.connect(str(self.path))

    @AS_ROOT
    def test_connects_as_the_front_end(self):
        self.listen(answering(with_length(REFUSAL)))
        self.path.chmod(0o660)
        report = self.ask("back-end", "--as", str(STRANGER))
        message = f"'{self.path}' cannot be connected to: Permission denied."
        self.expect(report, "back-end.connect", "failure", message)

    def test_other_refusal_without_a_session(self):
        for attribute, shown in ((b' type="se&#10;ssion"', "'se\\x0assion'"), (b"", "none")):
            report = self.answer(REFUSAL.replace(b' type="access"', attribute))
            self.expect(
                report,
                "back-end.answer",
                "warning",
                f"It refuses a request without a session with an error of type {shown}, not "
                "'access'.",
                'Answer an empty or unknown session with <error type="access"/>.',
            )
            self.path.unlink()

    def test_user_without_a_session(self):
        report = self.answer(b'<doc><user name="guest" level="0"/></doc>')
        self.expect(
            report,
            "back-end.answer",
            "warning",
            "It takes a request without a session for user 'guest'.",
            'Answer an empty session with <error type="access"/>, else everybody is signed in.',
        )

    def test_session(self):
        report = self.answer(b'<doc><user name="alice" level="7"/></doc>', "--session", "a1")
        message = "It knows the session as user 'alice', level 7."
        self.expect(report, "back-end.answer", "ok", message)

    def test_session_of_no_level(self):
        report = self.answer(b'<doc><user name="alice" level="high"/></doc>', "--session", "a1")
        message = "It knows the session as user 'alice', but level 'high' counts as 0."
        self.expect(report, "back-end.answer", "warning", message)

    def test_session_is_refused(self):
        report = self.answer(REFUSAL, "--session", "a1")
        message = "It refuses the session that was given, with an error of type 'access'."
        self.expect(report, "back-end.answer", "failure", message)

    def test_error_counts_before_user(self):
        both = b'<doc><user name="x" level="1"/><error type="access"/></doc>'
        report = self.answer(both)
        message = "It answers, and refuses a request without a session."
        self.expect(report, "back-end.answer", "ok", message)

    def test_session_from_a_file(self):
        listener = self.listen(answering(REFUSAL))
        file = self.make_file("session", "3f9c27d1\nmore\n")
        self.ask("back-end", "--session-file", file)
        self.assertIn(b"panelses5=3f9c27d1\0", listener.requests[0])
        for text in ("", "a b\n"):
            file.write_text(text)
            self.assertEqual(self.ask("back-end", "--session-file", file).status, 3)
        os.mkfifo(self.folder / "fifo")
        for path in ("none", "fifo"):
            report = self.ask("back-end", "--session-file", self.folder / path)
            self.assertEqual(report.status, 3)

    def test_session_from_standard_input(self):
        listener = self.listen(answering(REFUSAL))
        reading, writing = os.pipe()
        os.write(writing, b"3f9c27d1\n")
        os.close(writing)
        with os.fdopen(reading) as stream:
            self.ask("back-end", "--session-file", "-", stdin=stream)
        self.assertIn(b"panelses5=3f9c27d1\0", listener.requests[0])

    def test_session_is_never_shown(self):
        session = "s3f9c27d1secret"
        for body in (
            f'<doc><user name="{session}" level="{session}"/></doc>',
            f'<doc><error type="{session}"/></doc>',
            f"<{session}/>",
        ):
            self.listen(answering(b'<?xml version="1.0"?>' + body.encode()))
            for options in (["-v"], ["--json"]):
                report = self.doctor(
                    *options,
                    "--run-dir",
                    self.run_dir,
                    "--service",
                    "panel",
                    "--session",
                    session,
                )
                self.assertNotIn(session, report.all())
                self.assertIn("(session)", report.output)
            self.path.unlink()

    def not_sent(self, unsafe):
        """Nobody has even connected."""
        connections = []
        self.listen(lambda _, connection: connections.append(connection))
        for check in ("back-end", "back-end.answer"):
            report = self.ask(check, "--session", "3f9c27d1")
            self.expect(
                report,
                "back-end.session",
                "failure",
                f"The session was not sent to '{self.path}', nor anything else asked there, since "
                f"others could be listening: {unsafe}.",
                "Mend what the checks run-dir.safe and socket.safe say first. Replace the session "
                "if it has been sent there before.",
            )
            self.assertEqual((report.status, len(report.json["checks"])), (2, 1))
        self.assertEqual(connections, [])

    def test_session_is_not_sent_into_an_unsafe_folder(self):
        self.run_dir.chmod(0o777)
        self.not_sent(f"'{self.run_dir}' is writable by everybody")

    def test_session_is_not_sent_by_an_unsafe_link(self):
        other = self.make_folder("panel")
        self.path.symlink_to(other / "panel.sock")
        self.path = other / "panel.sock"
        listener = self.listen(answering(REFUSAL))
        self.path = self.run_dir / "panel.sock"
        report = self.ask("back-end", "--session", "3f9c27d1")
        self.assertEqual(report.findings("back-end.session")[0]["state"], "ok")
        self.assertEqual(len(listener.requests), 2)
        other.chmod(0o777)
        report = self.ask("back-end", "--session", "3f9c27d1")
        (found,) = report.findings("back-end.session")
        self.assertEqual(found["state"], "failure")
        self.assertIn(f"'{other}' is writable by everybody", found["message"])
        self.assertEqual(len(listener.requests), 2)

    def test_without_a_session_an_unsafe_socket_is_asked(self):
        self.run_dir.chmod(0o777)
        report = self.answer(REFUSAL)
        message = "It answers, and refuses a request without a session."
        self.expect(report, "back-end.answer", "ok", message)
        self.assertEqual(report.findings("back-end.session"), [])

    def test_long_session_is_not_shown_in_part(self):
        session = "s3f9c27d1" * 40
        for answer in (f"<{session}/>", f'<?xml version="1.0" encoding="{session}"?><doc/>'):
            report = self.answer(answer.encode(), "--session", session)
            self.assertNotIn("s3f9c27d1", report.all())
            self.assertIn("(session)", report.output)
            self.path.unlink()

    def test_session_of_digits_is_not_shown_in_part(self):
        session = "1234567890123456"
        body = f'<doc><user name="alice" level="{session}"/></doc>'.encode()
        report = self.answer(body, "--session", session)
        message = "It knows the session as user 'alice', level (session)."
        self.expect(report, "back-end.answer", "ok", message)

    def not_understood(self, data, why):
        self.expect(
            self.answer(data),
            "back-end.answer",
            "failure",
            f"Its answer to whoami cannot be understood: {why}.",
            "Let it answer func=whoami with an XML document in UTF-8 that has /doc/user or "
            "/doc/error.",
        )

    def test_text(self):
        why = "it is no well-formed XML (syntax error: line 1, column 0)"
        self.not_understood(b"hello", why)

    def test_half_a_document(self):
        why = "it is no well-formed XML (unclosed token: line 1, column 27)"
        self.not_understood(b'<doc><user name="a" level="7', why.replace("27", "5"))

    def test_two_documents(self):
        why = "it is no well-formed XML (junk after document element: line 1, column 6)"
        self.not_understood(b"<doc/><doc/>", why)

    def test_unknown_encodings(self):
        for encoding, why in (
            ("x-none", "unknown encoding: x-none"),
            ("shift_jis", "multi-byte encodings are not supported"),
        ):
            body = f'<?xml version="1.0" encoding="{encoding}"?><doc/>'.encode()
            self.not_understood(body, f"its encoding is not read here ({why})")
            self.path.unlink()

    def test_other_document(self):
        self.not_understood(b"<html/>", "its document element is 'html', not 'doc'")

    def test_other_depth(self):
        body = b'<doc><a><user name="x"/></a></doc>'
        self.not_understood(body, "it has neither /doc/user nor /doc/error")

    def test_zero_byte(self):
        self.not_understood(REFUSAL + b"\0", "it contains a zero byte")

    def test_header_without_declaration(self):
        body = b"<doc><error/></doc>"
        self.not_understood(with_length(body), "it has header lines, but no '<?xml' behind them")

    def test_xml_bomb(self):
        """Entities that grow a billionfold are not even declared."""
        entities = b'<!ENTITY a0 "ha">' + b"".join(
            b'<!ENTITY a%d "%s">' % (i, b"&a%d;" % (i - 1) * 10) for i in range(1, 10)
        )
        bomb = b'<?xml version="1.0"?><!DOCTYPE doc [' + entities + b"]><doc>&a9;</doc>"
        why = "it has a document type declaration, which is not read here"
        self.not_understood(bomb, why)

    def test_deep_document(self):
        depth = 100_000
        body = b"<doc>" + b"<a>" * depth + b"</a>" * depth + b"</doc>"
        self.not_understood(body, "it has neither /doc/user nor /doc/error")

    def test_text_before_the_declaration(self):
        report = self.answer(b"Noise\n" + REFUSAL)
        message = "It answers, and refuses a request without a session."
        self.expect(report, "back-end.answer", "ok", message)
        self.expect(
            report,
            "back-end.length",
            "warning",
            "The answer has no Content-Length, so one that is cut looks like a short one.",
            "Have the application set Content-Length.",
        )

    def failed(self, data, error):
        self.expect(
            self.answer(data),
            "back-end.answer",
            "failure",
            f"Its answer has failed: {error}.",
            "Correct Content-Length, or see in the log why the answer was cut.",
        )

    def test_short_answer(self):
        self.failed(b"Content-Length: 99\r\n\r\n<doc/>", "it has 6 bytes, but announces 99")

    def test_answer_that_ends_in_its_header(self):
        self.failed(b"Content-Length: 99\r\nX: y", "it has 0 bytes, but announces 99")

    def test_bad_length(self):
        error = "its Content-Length makes no sense"
        for line in (b"many", b"-1", b"", b"5\r\nContent-Length: 6"):
            self.failed(b"Content-Length: " + line + b"\r\n\r\n<doc/>", error)
            self.path.unlink()

    def broken(self, answer, message, remedy=None, *arguments):
        self.listen(answer)
        report = self.ask("back-end", *arguments)
        self.expect(report, "back-end.answer", "failure", message, remedy)
        self.assertEqual(report.findings("back-end.large-request"), [])

    def test_closes_without_a_byte(self):
        self.broken(
            lambda listener, connection: listener.read(connection),
            "It took the connection and closed it without a byte of answer.",
            "Look into the back end's log: its worker has died, has been ended for being slow, or "
            "has raised an exception; a proxy in front may have no server that is up.",
        )

    def test_resets(self):
        """With part of the request unread."""
        self.broken(
            lambda listener, connection: connection.recv(5),
            "It has reset the connection without having read the whole request.",
        )

    def test_never_answers(self):
        self.broken(
            lambda listener, connection: connection.recv(1 << 20) and connection.recv(1),
            "It took the connection but has not answered in time.",
            None,
            "--timeout",
            "2",
        )

    def test_never_closes(self):
        def answer(listener, connection):
            answering(with_length(REFUSAL))(listener, connection)
            connection.recv(1)

        message = "It has begun to answer but did not close the connection in time."
        self.broken(answer, message, None, "--timeout", "2")

    def test_trickle(self):
        """The time is for the whole answer, not for each byte."""

        def answer(listener, connection):
            while True:
                connection.sendall(b"x")
                time.sleep(0.1)

        message = "It has begun to answer but did not close the connection in time."
        self.broken(answer, message, None, "--timeout", "2")

    def test_endless_answer_in_bounded_memory(self):
        def answer(listener, connection):
            while True:
                connection.sendall(b"x" * 65536)

        self.listen(answer)
        limit = 128 << 20
        report = self.ask(preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_AS, (limit, limit)))
        message = "Its answer is longer than 1.0 MB, which no answer to whoami is."
        self.expect(report, "back-end.answer", "failure", message)

    def test_slow_answer(self):
        def answer(listener, connection):
            listener.read(connection)
            time.sleep(1.1)
            connection.sendall(REFUSAL)

        self.listen(answer)
        (found,) = self.ask().findings("back-end.time")
        self.assertEqual(found["state"], "warning")
        self.assertRegex(found["message"], r"^The answer to whoami has taken \d+\.\d s\.$")

    def test_large_request_is_not_answered(self):
        def answer(listener, connection):
            listener.read(connection)
            if len(listener.requests[-1]) < 8192:
                connection.sendall(REFUSAL)

        self.listen(answer)
        self.expect(
            self.ask(),
            "back-end.large-request",
            "failure",
            "It answers, but not when the request has a cookie of 8.0 KB.",
            "Raise the limit of its requests to 64 KB (uWSGI: buffer-size = 65535); else users "
            "with many cookies are shut out.",
        )

    def test_ends_between_two_requests(self):
        def answer(listener, connection):
            answering(REFUSAL)(listener, connection)
            listener.socket.shutdown(socket.SHUT_RDWR)

        listener = Listener(self.path, answer)
        report = self.ask()
        listener.thread.join(30)
        listener.socket.close()
        message = "The second connection has failed: Connection refused."
        self.expect(report, "back-end.large-request", "unchecked", message)


class AgainstTheLibraryTest(ServiceTest):
    """A real front end must see the back end as the doctor does."""

    def run_front(self, **environment):
        return subprocess.run(
            [FRONT],
            env={"TOV_RUN_DIR": str(self.run_dir), **environment},
            stdin=subprocess.DEVNULL,
            capture_output=True,
            timeout=LONG,
            check=True,
        ).stdout

    def test_same_request(self):
        listener = self.listen(answering(REFUSAL))
        self.ask("back-end", "--session", "a1")
        (of_doctor, _) = listener.requests
        self.run_front(
            HTTP_COOKIE="panelses5=a1",
            HTTP_HOST="localhost",
            HTTP_USER_AGENT="zancgi-doctor",
            REMOTE_ADDR="127.0.0.1",
            REQUEST_METHOD="GET",
            REQUEST_URI="/zancgi-doctor",
            SERVER_ADDR="127.0.0.1",
        )
        self.assertEqual(listener.requests[-1], of_doctor)

    def test_same_verdict(self):
        user = b'<doc><user name="alice" level="7"/></doc>'
        declared = b'<?xml version="1.0"?>' + user
        answers = [
            user,
            declared,
            with_length(declared),
            with_length(user),
            b"Noise: x\nmore\n" + declared,
            b"noise " + user,
            b"A: b\n\n" + user,
            declared + b" \n",
            declared + b"x",
            declared + b"\0",
            declared + user,
            declared[:-1],
            b"\xef\xbb\xbf" + user,
            b"<doc><a/><!-- --><user name='alice'/></doc>",
            b"<doc><a><user name='alice'/></a></doc>",
            b"<DOC><user name='alice'/></DOC>",
            b"<doc><user name='alice'/><error/></doc>",
            b"<doc/>",
            b"Content-Length: 5\r\n\r\n" + declared,
            b"Content-Length: 500\r\n\r\n" + declared,
            b"Content-Length: x\r\n\r\n" + declared,
            b"Content-Length: 5\ncontent-length: 6\n\n" + declared,
            b"content-length:\t0000000000000000000000005 \nContent-Length: 5\n\n" + declared,
            b"Content-Length: 99999999999999999999\n\n" + declared,
            b"Content-Length: 18446744073709551615\n\n" + declared,
            b"Content-Length: 500\nno header\n\n" + declared,
            b"Content-Length: 500\n" + declared,
            b"Content-Length: 500",
            b"Content-Length",
            b" \r\n\r\n" + declared,
            b"\r\n" + declared,
            b"\r",
            b":\n\n" + declared,
        ]
        verdicts = set()
        for data in answers:
            self.listen(answering(data))
            answer = self.run_front(REQUEST_METHOD="GET", HTTP_COOKIE="panelses5=a1")
            accepted = answer.endswith(b"<p>You are alice.")
            (found,) = self.ask("back-end.answer", "--session", "a1").findings("back-end.answer")
            self.assertEqual(found["state"] != "failure", accepted, (data, answer, found))
            verdicts.add(accepted)
            self.path.unlink()
        self.assertEqual(verdicts, {True, False})


class RealBackEndTest(ServiceTest):
    def start(self, *command):
        if not shutil.which(command[0]):
            self.skipTest(f"there is no {command[0]} on this machine")
        process = subprocess.Popen(
            command,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
            start_new_session=True,
        )
        self.addCleanup(process.wait, 30)
        self.addCleanup(os.killpg, process.pid, signal.SIGKILL)
        end = time.monotonic() + LONG
        with socket.socket(socket.AF_UNIX) as client:
            while client.connect_ex(str(self.path)) != 0:
                self.assertLess(time.monotonic(), end, "the server does not start")
                time.sleep(0.05)

    def start_uwsgi(self, *options):
        application = self.make_file("application.py", APPLICATION)
        self.start(
            "uwsgi",
            "--need-plugin=python3",
            f"--scgi-socket={self.path}",
            f"--wsgi-file={application}",
            "--master",
            "--workers=1",
            "--need-app",
            *options,
        )

    def test_uwsgi(self):
        self.start_uwsgi("--buffer-size=65535")
        report = self.ask()
        self.assert_well(report)
        message = f"Somebody listens on '{self.path}' (uwsgi)."
        self.expect(report, "back-end.connect", "ok", message)

    def test_uwsgi_with_its_own_buffer(self):
        self.start_uwsgi()
        report = self.ask()
        message = "It answers, and refuses a request without a session."
        self.expect(report, "back-end.answer", "ok", message)
        message = "It answers, but not when the request has a cookie of 8.0 KB."
        self.expect(report, "back-end.large-request", "failure", message)

    def test_haproxy_with_all_servers_down(self):
        configuration = self.make_file(
            "haproxy.cfg",
            "defaults\n mode tcp\n timeout connect 1s\n timeout client 9s\n timeout server 9s\n"
            f"listen panel\n bind unix@{self.path}\n server a unix@{self.folder}/none\n",
        )
        self.start("haproxy", "-db", "-f", str(configuration))
        self.expect(
            self.ask(),
            "back-end.answer",
            "failure",
            "HAProxy took the connection and ended it without a byte of answer: none of its "
            "servers is up, or the one that it chose has failed.",
            "Start the back ends behind HAProxy, and look at their health checks and logs.",
        )


class FcgiTest(MachineTest):
    REMEDY = (
        "Let it belong to the web server's user with mode 0600 (SocketUser= and SocketMode=0600 in "
        "its socket unit)."
    )

    def setUp(self):
        super().setUp()
        self.path = self.folder / "fcgi.sock"

    def bind(self, mode=0o600):
        with socket.socket(socket.AF_UNIX) as left_behind:
            left_behind.bind(str(self.path))
        self.path.chmod(mode)

    def fcgi_check(self, *arguments, check="fcgi", **options):
        return self.examine(check, "--fcgi-socket", self.path, *arguments, **options)

    def test_all_is_well(self):
        self.bind()
        report = self.fcgi_check()
        self.expect(report, "fcgi.kind", "ok", f"'{self.path}' is a socket.")
        message = f"Nobody else can replace the socket '{self.path}'."
        if IS_ROOT:
            self.expect(report, "fcgi.safe", "ok", message)
        who = "root" if IS_ROOT else ME
        message = f"Only {who} may connect to '{self.path}'."
        self.expect(report, "fcgi.strangers", "ok", message)

    def test_is_missing_or_something_else(self):
        self.expect(
            self.fcgi_check(),
            "fcgi.kind",
            "failure",
            f"There is no socket at '{self.path}': No such file or directory.",
            "Start fcgiwrap, and see that it makes its socket there.",
        )
        os.mkfifo(self.path)
        self.expect(
            self.fcgi_check(),
            "fcgi.kind",
            "failure",
            f"'{self.path}' is a FIFO, not a socket.",
            "Remove it and start fcgiwrap again.",
        )

    def test_everybody_may_connect(self):
        for mode in (0o666, 0o602):
            self.bind(mode)
            self.expect(
                self.fcgi_check(),
                "fcgi.strangers",
                "failure",
                f"Every local user may connect to '{self.path}', and so start front ends as user "
                f"{ME} with any variables.",
                self.REMEDY,
            )
            self.path.unlink()

    def test_everybody_may_connect_but_cannot_get_there(self):
        self.path = self.make_folder("closed", 0o700) / "fcgi.sock"
        self.bind(0o666)
        (found,) = self.fcgi_check().findings("fcgi.strangers")
        self.assertNotEqual(found["state"], "failure")

    @AS_ROOT
    def test_web_server_may_connect(self):
        for mode, owner, group in ((0o600, STRANGER, 0), (0o660, 0, STRANGER),
                                   (0o660, STRANGER, STRANGER)):  # fmt: skip
            self.bind(mode)
            os.chown(self.path, owner, group)
            report = self.fcgi_check(before=self.accounts())
            message = f"Only 'alice' may connect to '{self.path}'."
            self.expect(report, "fcgi.strangers", "ok", message)
            self.path.unlink()

    @AS_ROOT
    def test_several_accounts_may_connect(self):
        for owner, group_line in ((0, f"alice:x:{STRANGER}:bob"),
                                  (STRANGER + 1, f"alice:x:{STRANGER}:")):  # fmt: skip
            self.group_line = group_line
            self.bind(0o660)
            os.chown(self.path, owner, STRANGER)
            self.expect(
                self.fcgi_check("--as", "bob", before=self.accounts()),
                "fcgi.strangers",
                "warning",
                f"Not only the web server may connect to '{self.path}' and start front ends as "
                "user 'bob', but all of 'alice', 'bob'.",
                self.REMEDY,
            )
            self.path.unlink()

    def expect_unsafe(self, why):
        self.expect(
            self.fcgi_check(),
            "fcgi.safe",
            "failure",
            f"Others can listen in place of fcgiwrap, and get the sessions of all visitors: {why}.",
            "Put the socket into a folder that only root can change, such as /run.",
        )

    def test_can_be_replaced(self):
        # A sticky folder as well: anybody can come before fcgiwrap.
        for mode in (0o777, 0o1777):
            folder = self.make_folder(f"open-{mode:o}", mode)
            self.path = folder / "fcgi.sock"
            self.bind()
            self.expect_unsafe(f"'{folder}' is writable by everybody")

    def test_link_to_a_socket(self):
        link = self.path
        for mode in (0o755, 0o777, 0o1777):
            folder = self.make_folder(f"other-{mode:o}", mode)
            self.path = folder / "fcgi.sock"
            self.bind()
            link.symlink_to(self.path)
            self.path = link
            if mode != 0o755:
                self.expect_unsafe(f"'{folder}' is writable by everybody")
            elif IS_ROOT:
                (found,) = self.fcgi_check().findings("fcgi.safe")
                self.assertEqual(found["state"], "ok")
            link.unlink()

    def test_link_that_others_can_exchange(self):
        """Though it leads to where nobody can write, and over one more link."""
        self.bind()
        folder = self.make_folder("open", 0o1777)
        (folder / "link").symlink_to(self.path)
        self.path = self.make_folder("closed") / "link"
        self.path.symlink_to("../open/link")
        self.expect_unsafe(f"'{folder}' is writable by everybody")

    @AS_ROOT
    def test_folder_of_another_account(self):
        folder = self.make_folder("others")
        os.chown(folder, STRANGER, STRANGER)
        self.path = folder / "fcgi.sock"
        self.bind()
        self.expect_unsafe(f"'{folder}' belongs to user number {STRANGER}")
        os.chown(self.path, STRANGER, STRANGER)
        (found,) = self.fcgi_check().findings("fcgi.safe")
        self.assertEqual(found["state"], "ok")

    def found(self, *more):
        """Where it is looked for, on a machine as more makes it."""
        bind = "import socket, sys\nfor path in sys.argv[1:]:\n socket.socket(1).bind(path)"
        paths = [f"/run/{name}" for name in ("fcgiwrap.socket", "a.sock", "b.sock", "c.sock")]
        make = shlex.join([sys.executable, "-c", bind, *paths])
        before = "; ".join([*WITHOUT_CONFIGURATION, make, *more])
        report = self.examine("fcgi.kind", before=before)
        return [(check["subject"], check["state"]) for check in report.json["checks"]]

    def unit(self, name, text):
        path = f"/etc/systemd/system/{name}"
        return f"mkdir -p {os.path.dirname(path)}; printf %s {shlex.quote(text)} > {path}"

    @AS_ROOT
    def test_is_found_where_the_package_puts_it(self):
        self.assertEqual(self.found(), [("/run/fcgiwrap.socket", "ok")])
        self.assertEqual(self.found("rm /run/fcgiwrap.socket"), [("", "skipped")])

    @AS_ROOT
    def test_is_found_by_units(self):
        runs = "[Service]\nExecStart=/usr/sbin/fcgiwrap -f -c 8\n"
        listens = "[Socket]\nListenStream=/run/{}.sock\n"
        default = ("/run/fcgiwrap.socket", "ok")
        for units, expected in (
            ({"panel.service": runs, "panel.socket": listens.format("a")}, ["a"]),
            (
                {
                    "panel.service": "[Service]\nExecStart=-/x/fcgiwrap -s unix:/run/b.sock -c 1\n",
                    "other.service": "[Service]\nExecStart=/usr/sbin/fcgiwrapper\n",
                    "other.socket": listens.format("a"),
                },
                ["b"],
            ),
            (
                {
                    "panel.service": runs,
                    "web.socket": listens.format("c") + "Service=panel.service\n",
                    "panel.socket.d/more.conf": listens.format("a"),
                },
                ["c", "a"],
            ),
            ({"panel.service": runs, "panel.socket": listens.format("none")}, []),
        ):
            found = self.found(*(self.unit(name, text) for name, text in units.items()))
            paths = [(f"/run/{name}.sock", "ok") for name in expected]
            self.assertEqual(sorted(found), sorted([default, *paths]), units)


class TmpDirTest(MachineTest):
    def setUp(self):
        super().setUp()
        self.tmp = self.make_folder("tmp", 0o700)

    def tmp_check(self, name, path=None, *arguments, **options):
        return self.examine(f"tmp-dir.{name}", "--tmp-dir", path or self.tmp, *arguments, **options)

    def test_exists(self):
        message = f"The temporary directory '{self.tmp}' exists."
        self.expect(self.tmp_check("exists"), "tmp-dir.exists", "ok", message)

    def test_comes_from_the_environment(self):
        for environment, path in (({"TMP": str(self.tmp)}, self.tmp), ({"TMP": ""}, "/tmp")):
            report = self.examine("tmp-dir.exists", environment=environment)
            message = f"The temporary directory '{path}' exists."
            self.expect(report, "tmp-dir.exists", "ok", message)

    def test_is_missing(self):
        path = self.folder / "none"
        message = f"The temporary directory '{path}' cannot be found: No such file or directory."
        report = self.doctor("--json", "--check", "tmp-dir", "--tmp-dir", path)
        self.expect(report, "tmp-dir.exists", "failure", message)
        self.assertEqual(len(report.json["checks"]), 1)

    def test_is_relative(self):
        self.expect(
            self.tmp_check("exists", "tmp"),
            "tmp-dir.exists",
            "failure",
            "The temporary directory 'tmp' is relative, so where uploads go depends on the place "
            "of the program.",
        )

    def test_is_a_fifo(self):
        path = self.folder / "fifo"
        os.mkfifo(path)
        message = f"The temporary directory '{path}' is a FIFO."
        self.expect(self.tmp_check("exists", path), "tmp-dir.exists", "failure", message)

    def test_writable(self):
        name = ME
        message = f"User {name} may write in '{self.tmp}'."
        self.expect(self.tmp_check("writable"), "tmp-dir.writable", "ok", message)

    @AS_ROOT
    def test_not_writable_by_another(self):
        report = self.tmp_check("writable", None, "--as", str(STRANGER))
        message = f"User '{STRANGER}' cannot write in '{self.tmp}': Permission denied."
        self.expect(report, "tmp-dir.writable", "failure", message)

    @AS_ROOT
    def test_read_only(self):
        report = self.tmp_check("writable", before=f"mount -t tmpfs -o ro none {self.tmp}")
        message = f"User 'root' cannot write in '{self.tmp}': the file system is mounted read-only."
        self.expect(report, "tmp-dir.writable", "failure", message)

    @AS_OTHERS
    def test_not_writable_by_oneself(self):
        self.tmp.chmod(0o500)
        name = ME
        message = f"User {name} cannot write in '{self.tmp}': Permission denied."
        self.expect(self.tmp_check("writable"), "tmp-dir.writable", "failure", message)

    @AS_OTHERS
    def test_writable_by_another_is_not_known(self):
        report = self.tmp_check("writable", None, "--as", "root")
        message = f"Whether user 'root' may write in '{self.tmp}' is not known."
        self.expect(report, "tmp-dir.writable", "unchecked", message)

    def test_safe(self):
        message = f"Nobody else can exchange uploads in '{self.tmp}'."
        for mode in (0o700, 0o1777):
            self.tmp.chmod(mode)
            self.expect(self.tmp_check("safe"), "tmp-dir.safe", "ok", message)

    def test_unsafe(self):
        self.tmp.chmod(0o777)
        self.expect(
            self.tmp_check("safe"),
            "tmp-dir.safe",
            "failure",
            "Others can exchange uploads for files of their own: "
            f"'{self.tmp}' is writable by everybody.",
            "Let it belong to the front end's user with mode 0700, or to root with mode 1733 "
            "for front ends of several users.",
        )

    def expect_listed_by(self, readers, *arguments, **options):
        self.expect(
            self.tmp_check("listing", None, *arguments, **options),
            "tmp-dir.listing",
            "warning",
            f"{readers} can list '{self.tmp}', and read an upload there while it is handed over: "
            "it has mode 0644 before it is moved.",
            "Set its mode to 0700, or for front ends of several users to 1733, owned by root, as "
            "the package's /var/spool/zancgi.",
        )

    def test_listing(self):
        for mode in (0o1777, 0o755, 0o704):
            self.tmp.chmod(mode)
            self.expect_listed_by("Every local user")
        message = f"Nobody else can list the uploads in '{self.tmp}'."
        for mode in (0o700, 0o1733, 0o711):
            self.tmp.chmod(mode)
            self.expect(self.tmp_check("listing"), "tmp-dir.listing", "ok", message)
        self.tmp.chmod(0o1777)
        self.folder.chmod(0o700)
        self.expect(self.tmp_check("listing"), "tmp-dir.listing", "ok", message)

    @AS_ROOT
    def test_listing_by_a_group(self):
        os.chown(self.tmp, STRANGER, STRANGER)
        self.tmp.chmod(0o750)
        options = {"before": self.accounts()}
        message = f"Nobody else can list the uploads in '{self.tmp}'."
        report = self.tmp_check("listing", None, "--as", "alice", **options)
        self.expect(report, "tmp-dir.listing", "ok", message)
        self.expect_listed_by("Group 'alice' ('alice')", "--as", "bob", **options)
        self.group_line = f"alice:x:{STRANGER}:alice,bob"
        options = {"before": self.accounts()}
        self.expect_listed_by("Group 'alice' ('bob')", "--as", "alice", **options)
        self.tmp.chmod(0o730)
        report = self.tmp_check("listing", None, "--as", "alice", **options)
        self.expect(report, "tmp-dir.listing", "ok", message)

    def test_listing_of_the_folder_of_everybody(self):
        """Its mode must stay."""
        for path in ("/tmp", "/tmp/"):
            site = unittest.mock.Mock(tmp_dir=path)
            with unittest.mock.patch.object(tmp_dir, "has_others", return_value=True):
                found = tmp_dir.tmp_dir_listing(site)
            self.assertEqual(
                (found.state, found.remedy),
                (
                    "warning",
                    "Set TMP to a folder of the front ends' own with mode 0700, or to the "
                    "package's /var/spool/zancgi; without TMP uploads go to /tmp.",
                ),
            )

    @AS_ROOT
    def test_belongs_to_a_stranger(self):
        os.chown(self.tmp, STRANGER, STRANGER)
        self.expect(
            self.tmp_check("safe"),
            "tmp-dir.safe",
            "failure",
            "Others can exchange uploads for files of their own: "
            f"'{self.tmp}' belongs to user number {STRANGER}.",
        )
        report = self.tmp_check("safe", None, "--as", str(STRANGER))
        message = f"Nobody else can exchange uploads in '{self.tmp}'."
        self.expect(report, "tmp-dir.safe", "ok", message)

    def test_file_system(self):
        kind = mount_of(self.tmp).kind
        if kind in ("tmpfs", "ramfs"):
            self.skipTest("the temporary directory is in memory")
        (found,) = self.tmp_check("file-system").findings("tmp-dir.file-system")
        self.assertEqual(found["state"], "ok")
        # It may have quotas.
        message = f"'{self.tmp}' is on a file system of type '{kind}'"
        self.assertEqual(found["message"][: len(message)], message)

    def test_in_memory(self):
        if mount_of("/dev/shm").kind != "tmpfs":
            self.skipTest("/dev/shm is not in memory here")
        for min_free, state in (("0", "ok"), ("999T", "warning")):
            report = self.tmp_check("file-system", "/dev/shm", "--min-free", min_free)
            (found,) = report.findings("tmp-dir.file-system")
            self.assertEqual(found["state"], state)
            self.assertRegex(
                found["message"],
                r"^'/dev/shm' is in memory \(tmpfs\), of which [0-9.]+ [GM]B are available\.$",
            )

    def test_other_file_systems(self):
        """These cannot be mounted in a test."""
        for kind, options, state, message in (
            ("nfs4", set(), "warning", "'/x' is on a file system of type 'nfs4'."),
            ("fuse.sshfs", set(), "warning", "'/x' is on a file system of type 'fuse.sshfs'."),
            (
                "ext4",
                {"usrquota"},
                "ok",
                "'/x' is on a file system of type 'ext4', with quotas: see what user 'www' has "
                "left.",
            ),
        ):
            site = unittest.mock.Mock(tmp_dir="/x", who=lambda: "user 'www'")
            mount = Mount("/x", kind, options)
            with unittest.mock.patch.object(tmp_dir, "mount_of", return_value=mount):
                found = tmp_dir.tmp_dir_file_system(site)
            self.assertEqual((found.state, found.message), (state, message))

    def in_file_system(self, options, check, *arguments, then="true"):
        before = f"mount -t tmpfs -o {options} none {self.tmp}; {then}"
        return self.tmp_check(check, None, *arguments, before=before)

    @AS_ROOT
    def test_space(self):
        for min_free, state in (("2M", "ok"), ("3M", "warning"), ("5M", "failure")):
            report = self.in_file_system("size=4M", "space", "--min-free", min_free)
            message = f"4.0 MB are free on the file system of '{self.tmp}'."
            self.expect(report, "tmp-dir.space", state, message)

    @AS_ROOT
    def test_full(self):
        fill = f"head -c 4M /dev/zero > {self.tmp}/x"
        report = self.in_file_system("size=4M", "space", then=fill)
        message = f"0 bytes are free on the file system of '{self.tmp}'."
        self.expect(
            report,
            "tmp-dir.space",
            "failure",
            message,
            "Remove what is not needed, or use a larger file system; see --min-free.",
        )

    def test_space_as_anybody(self):
        for min_free, state in (("0", "ok"), ("9999T", "failure")):
            (found,) = self.tmp_check("space", None, "--min-free", min_free).findings(
                "tmp-dir.space"
            )
            self.assertEqual(found["state"], state)

    def test_space_for_root_counts_what_is_kept_for_root(self):
        blocks = unittest.mock.Mock(f_bfree=10, f_bavail=5, f_frsize=1024)
        for uid, message in ((0, "10.0 KB are free"), (33, "5.0 KB are free")):
            site = unittest.mock.Mock(tmp_dir="/x", min_free=0)
            site.identity.uid = uid
            self.assertIn(message, tmp_dir.tmp_dir_space(site, blocks).message)

    @AS_ROOT
    def test_inodes(self):
        for number, state, message in (
            (20001, "ok", "20000 inodes are free"),
            (5001, "warning", "5000 inodes are free"),
            (2, "failure", "1 inode is free"),
            (1, "failure", "0 inodes are free"),
        ):
            report = self.in_file_system(f"nr_inodes={number}", "inodes")
            message = f"{message} on the file system of '{self.tmp}'."
            self.expect(report, "tmp-dir.inodes", state, message)

    def test_inodes_without_a_number(self):
        found = tmp_dir.tmp_dir_inodes("/x", unittest.mock.Mock(f_files=0))
        message = "The file system of '/x' has no fixed number of inodes."
        self.assertEqual((found.state, found.message), ("ok", message))

    def make_upload(self, name, size, age):
        path = self.tmp / name
        path.write_bytes(b"x" * size)
        os.utime(path, (time.time() - age,) * 2)

    def test_leftovers(self):
        message = f"0 uploads are in '{self.tmp}', none older than a day."
        self.expect(self.tmp_check("leftovers"), "tmp-dir.leftovers", "ok", message)
        self.make_upload("zantempAAAAAA", 10, 3600)
        self.make_upload("another", 10, 99 * 3600)
        (self.tmp / "zantempfolder").mkdir()
        (self.tmp / "zantemplink").symlink_to("another")
        os.mkfifo(self.tmp / "zantempfifo")
        message = f"1 upload is in '{self.tmp}', none older than a day."
        self.expect(self.tmp_check("leftovers"), "tmp-dir.leftovers", "ok", message)
        self.make_upload("zantempBBBBBB", 2048, 50 * 3600)
        self.make_upload("zantempCCCCCC", 1024, 30 * 3600)
        self.make_upload(".tov-AbC12", 1024, 99 * 3600)
        self.make_upload(".tov-AbC1234", 1024, 99 * 3600)
        self.expect(
            self.tmp_check("leftovers"),
            "tmp-dir.leftovers",
            "warning",
            f"In '{self.tmp}' 2 uploads are left over, 3.0 KB in all, the oldest 50 hours old.",
        )
        self.make_upload(".tov-AbC123", 1024, 60 * 3600)
        self.expect(
            self.tmp_check("leftovers"),
            "tmp-dir.leftovers",
            "warning",
            f"In '{self.tmp}' 3 uploads are left over, 4.0 KB in all, the oldest 60 hours old.",
            "Remove files named zantemp* and .tov-?????? that are older than a day, and have that "
            "done by a tmpfiles.d rule; see why front ends are killed.",
        )

    @AS_OTHERS
    def test_leftovers_of_others(self):
        self.tmp.chmod(0o333)
        message = f"'{self.tmp}' cannot be listed: Permission denied."
        self.expect(self.tmp_check("leftovers"), "tmp-dir.leftovers", "unchecked", message)

    def ageing(self, rule, then="mkdir -p /run/systemd/system"):
        before = "; ".join(WITHOUT_CONFIGURATION)
        before += f"; echo {shlex.quote(rule)} > /etc/tmpfiles.d/x.conf; {then}"
        return self.tmp_check("ageing", before=before)

    @AS_ROOT
    def test_ageing(self):
        message = f"A tmpfiles.d rule removes old files from '{self.tmp}'."
        for rule in (f"d {self.tmp} 0700 root root 1d", f"e! {self.folder}/t*/ - - - 12h"):
            self.expect(self.ageing(rule), "tmp-dir.ageing", "ok", message)
        for rule in (f"d {self.tmp} 0700 root root -", f"r! {self.tmp}/zantemp*", ""):
            self.expect(
                self.ageing(rule),
                "tmp-dir.ageing",
                "warning",
                f"No tmpfiles.d rule removes old files from '{self.tmp}', where killed front ends "
                "leave their uploads.",
            )
        self.expect(
            self.ageing("", then="true"),
            "tmp-dir.ageing",
            "skipped",
            f"Whether old files are removed from '{self.tmp}' is not known, since systemd does "
            "not run here.",
        )


def elf_file(needed=(), runpath="", rpath="", behind_the_end=()):
    """A 64-bit ELF file that has a dynamic section and nothing else."""
    strings = b"\0"
    entries = []
    wanted = [(1, name) for name in needed] + [(29, runpath), (15, rpath)]
    for tag, text in [*wanted, (0, "end"), *((1, name) for name in behind_the_end)]:
        if text:
            entries.append((tag, len(strings)))
            strings += text.encode() + b"\0"
    table_at = 64 + 2 * 56
    size = 16 * (len(entries) + 1)
    entries.insert(0, (5, table_at + size))
    table = b"".join(struct.pack("<qQ", *entry) for entry in entries)
    whole = table_at + size + len(strings)
    header = b"\x7fELF\x02\x01\x01" + bytes(9)
    header += struct.pack("<HHIQQQIHHHHHH", 3, 62, 1, 0, 64, 0, 0, 64, 56, 2, 0, 0, 0)
    segments = struct.pack("<IIQQQQQQ", 1, 5, 0, 0, 0, whole, whole, 4096)
    segments += struct.pack("<IIQQQQQQ", 2, 6, table_at, table_at, 0, size, size, 8)
    return header + segments + table + strings


class ProgramTest(DoctorTest):
    def setUp(self):
        super().setUp()
        self.bin = self.make_folder("bin")
        self.program = self.bin / "panel"
        shutil.copyfile("/bin/true", self.program)
        self.program.chmod(0o755)
        self.me = ME
        if "noexec" in mount_of(self.folder).options:
            self.skipTest("no program below /tmp may be run here")

    def program_check(self, name, path=None, *arguments, **options):
        return self.examine(
            f"program.{name}", "--program", path or self.program, *arguments, **options
        )

    def test_none_is_named(self):
        report = self.examine("program")
        message = "No front end was named with --program."
        self.expect(report, "program.file", "skipped", message)
        self.assertEqual(report.status, 0)

    def test_may_be_run(self):
        message = f"User {self.me} may run '{self.program}'."
        self.expect(self.program_check("file"), "program.file", "ok", message)

    def test_is_missing_or_no_program(self):
        os.mkfifo(self.folder / "fifo")
        for name, what in (
            ("none", "cannot be found: No such file or directory"),
            ("fifo", "is a FIFO"),
            ("bin", "is a folder"),
        ):
            path = self.folder / name
            report = self.doctor("--json", "--check", "program", "--program", path)
            message = f"The program '{path}' {what}."
            self.expect(report, "program.file", "failure", message)
            self.assertEqual(len(report.json["checks"]), 1)

    def test_may_not_be_run(self):
        self.program.chmod(0o644)
        message = f"User {self.me} may not run '{self.program}': Permission denied."
        self.expect(self.program_check("file"), "program.file", "failure", message)

    @AS_OTHERS
    def test_rights_of_another_are_not_known(self):
        report = self.program_check("file", None, "--as", "root")
        message = f"Whether user 'root' may run '{self.program}' is not known."
        self.expect(report, "program.file", "unchecked", message)
        report = self.program_check("work-dir", None, "--as", "root")
        message = f"Whether user 'root' may enter '{self.folder}' is not known."
        self.expect(report, "program.work-dir", "unchecked", message)

    @AS_ROOT
    def test_noexec(self):
        before = f"mount -t tmpfs -o noexec,mode=755 none {self.bin}; cp /bin/true {self.program}"
        report = self.program_check("file", before=before)
        # The kernel's answer depends on how it is asked; both mean the same.
        (found,) = report.findings("program.file")
        self.assertEqual(found["state"], "failure")
        self.assertRegex(found["message"], "mounted noexec|Permission denied")

    def test_safe(self):
        if IS_ROOT:
            self.expect(
                self.program_check("safe"),
                "program.safe",
                "ok",
                f"Only root and its owner can change '{self.program}'.",
            )
            return
        self.expect(
            self.program_check("safe"),
            "program.safe",
            "warning",
            f"The program belongs to the user {self.me} that it runs as, who can change it.",
            "Let the program and every folder above it belong to root, writable by root only.",
        )

    def test_unsafe(self):
        self.program.chmod(0o777)
        message = f"Others can replace the program: '{self.program}' is writable by everybody."
        self.expect(self.program_check("safe"), "program.safe", "failure", message)
        self.program.chmod(0o755)
        self.bin.chmod(0o777)
        message = f"Others can replace the program: '{self.bin}' is writable by everybody."
        self.expect(self.program_check("safe"), "program.safe", "failure", message)

    @AS_ROOT
    def test_of_another_owner(self):
        os.chown(self.program, STRANGER, STRANGER)
        message = (
            f"Others can replace the program: '{self.program}' belongs to user number {STRANGER}."
        )
        self.expect(self.program_check("safe"), "program.safe", "failure", message)
        # Run as somebody else, its owner is trusted.
        report = self.program_check("safe", None, "--as", str(STRANGER + 1))
        message = f"Only root and its owner can change '{self.program}'."
        self.expect(report, "program.safe", "ok", message)

    def test_set_id(self):
        message = "The program has no set-uid or set-gid bit."
        self.expect(self.program_check("set-id"), "program.set-id", "ok", message)
        for mode, bit in ((0o4755, "set-uid"), (0o2755, "set-gid")):
            self.program.chmod(mode)
            self.expect(
                self.program_check("set-id"),
                "program.set-id",
                "warning",
                f"The program has the {bit} bit: whoever may run it chooses its environment, "
                "TOV_RUN_DIR and TOV_LOG included.",
            )

    def test_work_dir(self):
        message = f"The program's working directory will be '{self.folder}'."
        self.expect(self.program_check("work-dir"), "program.work-dir", "ok", message)

    @AS_ROOT
    def test_work_dir_cannot_be_entered(self):
        home = self.make_folder("home", 0o755)
        bin_dir = home / "bin"
        bin_dir.mkdir()
        link = self.folder / "front"
        link.symlink_to(bin_dir)
        shutil.copyfile("/bin/true", bin_dir / "panel")
        (bin_dir / "panel").chmod(0o755)
        home.chmod(0o700)
        site = unittest.mock.Mock(program=str(bin_dir / "panel"))
        site.who.return_value = "user 'x'"
        site.as_front_end.side_effect = lambda function, *arguments: run_in_child(
            LONG, function, *arguments, identity=Identity("x", STRANGER, STRANGER, [])
        )
        found = program.program_work_dir(site)
        self.assertEqual(found.state, "warning")
        self.assertEqual(
            found.message,
            f"The program's working directory '{home}' cannot be entered by user 'x': "
            "Permission denied; it stays where the web server starts it.",
        )

    def test_libraries(self):
        (found,) = self.program_check("libraries").findings("program.libraries")
        self.assertEqual(found["state"], "ok")
        self.assertRegex(
            found["message"],
            r"^The shared libraries of the program are found \(\d+\); libzancgi, if any, is linked "
            r"in\.$",
        )

    def test_libraries_are_those_of_the_linker(self):
        """The linker's own answer, for a program that may be run."""
        listing = subprocess.run(
            ["ldd", sys.executable],
            env={"PATH": os.environ["PATH"]},
            capture_output=True,
            text=True,
            check=True,
        ).stdout
        expected = {
            line.split()[0]: os.path.realpath(line.split()[2])
            for line in listing.splitlines()
            if "=>" in line
        }
        search = LibrarySearch({})
        search.search(os.path.realpath(sys.executable))
        self.assertEqual(search.missing, [])
        found = {name: path for name, path in search.found.items() if not name.startswith("ld-")}
        self.assertEqual(found, expected)

    def test_library_is_missing(self):
        self.program.write_bytes(elf_file(["libc.so.6", "libzancgi.so.\x1b1"]))
        self.expect(
            self.program_check("libraries"),
            "program.libraries",
            "failure",
            "The program needs shared libraries that are not found: 'libzancgi.so.\\x1b1'.",
            "Install the packages that have them; behind an installation of your own run ldconfig.",
        )

    def test_library_beside_the_program(self):
        """With the version of libzancgi, by the link's end."""
        lib = self.make_folder("lib")
        (lib / "libzancgi.so.1.2.3").write_bytes(elf_file(["libnone.so.9"]))
        (lib / "libzancgi.so.1").symlink_to("libzancgi.so.1.2.3")
        (lib / "libnone.so.9").write_bytes(elf_file())
        message = (
            "The shared libraries of the program are found (2); libzancgi is "
            f"'{lib}/libzancgi.so.1.2.3'."
        )
        # A RPATH counts for the libraries' libraries as well.
        self.program.write_bytes(elf_file(["libzancgi.so.1"], rpath="$ORIGIN/../lib"))
        self.expect(self.program_check("libraries"), "program.libraries", "ok", message)
        # A RUNPATH does not.
        self.program.write_bytes(elf_file(["libzancgi.so.1"], runpath="${ORIGIN}/../lib"))
        report = self.program_check("libraries")
        self.assertEqual(report.findings("program.libraries")[0]["state"], "failure")
        report = self.program_check("libraries", environment={"LD_LIBRARY_PATH": str(lib)})
        self.expect(report, "program.libraries", "ok", message)
        # With a RUNPATH the RPATH does not count at all. By a name that is not
        # installed on any machine.
        self.program.write_bytes(
            elf_file(["libnone.so.9"], runpath="/none", rpath="$ORIGIN/../lib")
        )
        report = self.program_check("libraries")
        self.assertEqual(report.findings("program.libraries")[0]["state"], "failure")

    def test_nothing_is_needed_behind_the_end_of_the_table(self):
        self.program.write_bytes(elf_file(["libc.so.6"], behind_the_end=["libnone.so.9"]))
        report = self.program_check("libraries")
        self.assertEqual(report.findings("program.libraries")[0]["state"], "ok")

    def test_library_by_its_path(self):
        """Such a name is looked for nowhere else."""
        path = self.bin / "libown.so"
        self.program.write_bytes(elf_file([str(path)], runpath="$ORIGIN"))
        message = f"The program needs shared libraries that are not found: '{path}'."
        self.expect(self.program_check("libraries"), "program.libraries", "failure", message)
        path.write_bytes(elf_file())
        report = self.program_check("libraries")
        self.assertEqual(report.findings("program.libraries")[0]["state"], "ok")
        self.program.write_bytes(elf_file(["./libown.so"], runpath="$ORIGIN"))
        message = "The program needs shared libraries that are not found: './libown.so'."
        self.expect(self.program_check("libraries"), "program.libraries", "failure", message)

    def test_no_elf_file(self):
        for data, what in (
            (b"\x7fELF\x01\x01" + bytes(99), "is no 64-bit program"),
            (b"", "is no 64-bit program"),
            (elf_file(["libc.so.6"])[:100], "is cut short"),
        ):
            self.program.write_bytes(data)
            message = f"'{self.program}' {what}: what it needs was not looked for."
            report = self.program_check("libraries")
            self.expect(report, "program.libraries", "skipped", message)

    def script(self, text):
        path = self.bin / "launcher"
        path.write_text("#!/bin/sh\n" + text)
        path.chmod(0o755)
        return path

    def test_script_that_names_its_program(self):
        """As the launcher of the documents: variables, limits, then a timer."""
        for line in (
            "exec /usr/bin/timeout --kill-after=2 $seconds {}",
            "exec {}",
            '  exec {} "$@"',
            "exec /usr/bin/env A=b \\\n  '{}' # /bin/false",
            "exec {} /etc/passwd; exit",
            "exec 2>>/var/log/none\nexec {}",
        ):
            path = self.script(line.format(self.program) + "\n")
            report = self.doctor("--json", "--check", "program", "--program", path)
            self.expect(
                report,
                "program.launcher",
                "ok",
                f"'{path}' is a script that starts '{self.program}', which is checked as well; the "
                "variables and limits that the script sets are not known.",
            )
            found = {check["name"]: check["subject"] for check in report.json["checks"]}
            for check in ("work-dir", "libraries", "search-path"):
                self.assertEqual(found[f"program.{check}"], str(self.program))
            subjects = [check["subject"] for check in report.findings("program.safe")]
            self.assertEqual(subjects, [str(path), str(self.program)])

    def test_program_of_a_script_is_judged(self):
        path = self.script(f"exec {self.program}\n")
        self.program.chmod(0o777)
        report = self.doctor("--json", "--check", "program", "--program", path)
        found = {check["subject"]: check["state"] for check in report.findings("program.safe")}
        self.assertEqual(found[str(self.program)], "failure")

    def test_script_that_does_not_name_its_program(self):
        other = self.script(f"exec {self.program}\n").rename(self.bin / "other")
        for text in (
            "",
            f"{self.program}\n",
            'exec "$PROGRAM"\n',
            f"# exec {self.program}\n",
            "exec ./panel\n",
            f"exec {self.folder}/none\n",
            f"exec {other}\n",
            f"case $a in\n b)\nexec {self.program} ;;\nesac\nexec /bin/true\n",
            "exec 'unfinished\n",
        ):
            path = self.script(text)
            report = self.doctor("--json", "--check", "program", "--program", path)
            self.expect(
                report,
                "program.launcher",
                "unchecked",
                f"'{path}' is a script, and the program that it starts is not plain from it: its "
                "libraries and its working directory were not looked at.",
                "Name the front end's own program with --program.",
            )
            self.assertEqual(report.findings("program.work-dir"), [], text)

    def test_launcher_of_the_documents(self):
        """With its program's path only another one."""
        document = (DOCTOR.parents[1] / "docs" / "deployment.md").read_text()
        text = re.search(r"(?ms)^```sh /opt/panel/cgi/panel\n(.*?)^```", document)
        path = self.script("")
        path.write_text(text[1].replace("/opt/panel/bin/panel", str(self.program)))
        report = self.doctor("--json", "--check", "program", "--program", path)
        self.assertEqual(report.findings("program.launcher")[0]["state"], "ok", report.all())

    def test_damaged_elf_files(self):
        """Whatever the bytes, there is a finding and no end by a fault."""
        whole = elf_file(["libc.so.6", "libm.so.6"], "/a:/b")
        for position in range(0, len(whole), 7):
            data = bytearray(whole)
            data[position : position + 8] = b"\xff" * 8
            self.program.write_bytes(data)
            try:
                LibrarySearch({}).search(str(self.program))
            except NotElf:
                pass

    def test_program_is_not_run(self):
        evidence = self.folder / "evidence"
        self.program.write_text(f"#!/bin/sh\ntouch {evidence}\n")
        self.doctor("--program", self.program)
        self.assertFalse(evidence.exists())

    def test_search_path(self):
        message = "Shared libraries are looked for in trusted folders only."
        for runpath in ("", "/usr/lib", "/no/such/folder", "$ORIGIN/../bin"):
            self.program.write_bytes(elf_file(["libc.so.6"], runpath))
            report = self.program_check("search-path")
            self.expect(report, "program.search-path", "ok", message)

    def test_unsafe_search_path(self):
        lib = self.make_folder("lib", 0o777)
        for runpath, why in (
            ("/usr/lib:lib", "'lib' is relative to the current directory"),
            ("/usr/lib::/lib", "an empty item stands for the current directory"),
            (str(lib), f"'{lib}' is writable by everybody"),
        ):
            self.program.write_bytes(elf_file(["libc.so.6"], runpath))
            self.expect(
                self.program_check("search-path"),
                "program.search-path",
                "failure",
                f"Shared libraries are looked for where others can put them: {why}.",
            )


class PamTest(DoctorTest):
    def with_login(self, text, check="pam", then="true"):
        """On a machine whose service 'login' reads like this."""
        before = (
            f"cp -a /etc/pam.d {self.folder}/pam.d; mount --bind {self.folder}/pam.d /etc/pam.d"
        )
        before += f"; printf %s {shlex.quote(text)} > /etc/pam.d/login; {then}"
        report = self.examine(check, before=before)
        shutil.rmtree(self.folder / "pam.d")
        return report

    def test_library(self):
        report = self.examine("pam.library")
        self.expect(report, "pam.library", "ok", "libpam.so.0 can be loaded.")

    def test_no_library(self):
        with unittest.mock.patch.object(pam.ctypes, "CDLL", side_effect=OSError("no file")):
            found = pam.pam_library()
        self.assertEqual(found.state, "warning")
        self.assertEqual(
            found.message,
            "libpam.so.0 cannot be loaded (no file), so the switch to an account goes on without "
            "a session.",
        )

    def test_service_of_this_machine(self):
        if not os.path.exists("/etc/pam.d/login"):
            self.skipTest("the package login is not installed")
        if first_unsafe(way_to("/etc/pam.d/login"), {0}, allows_sticky=False):
            self.skipTest("others than root can change /etc/pam.d/login on this machine")
        report = self.examine("pam")
        message = "The PAM service 'login' is configured."
        self.expect(report, "pam.service", "ok", message)

    @AS_ROOT
    def test_service(self):
        report = self.with_login("auth required nothing.so\nsession required pam_unix.so\n")
        message = "The PAM service 'login' is configured."
        self.expect(report, "pam.service", "ok", message)
        message = "1 module of the session stack of 'login' can be found."
        self.expect(report, "pam.modules", "ok", message)

    @AS_ROOT
    def test_no_service(self):
        self.expect(
            self.with_login("", then="rm /etc/pam.d/login"),
            "pam.service",
            "warning",
            "The PAM service 'login' is not configured (No such file or directory), so PAM takes "
            "the service 'other', which mostly refuses.",
        )

    @AS_ROOT
    def test_service_is_a_fifo(self):
        report = self.with_login("", then="rm /etc/pam.d/login; mkfifo /etc/pam.d/login")
        self.expect(report, "pam.service", "failure", "'/etc/pam.d/login' is a FIFO.")

    @AS_ROOT
    def test_service_can_be_changed(self):
        self.expect(
            self.with_login("", then="chmod o+w /etc/pam.d/login"),
            "pam.service",
            "failure",
            "Others can choose what PAM runs as root: '/etc/pam.d/login' is writable by everybody.",
        )

    @AS_ROOT
    def test_modules(self):
        text = (
            "# session required comment.so\n"
            "@include more\n"
            "-session optional may_be_missing.so\n"
            "session [success=ok default=ignore] a.so with arguments\n"
            "SESSION required \\\n b.so\n"
            "session substack login\n"
            "session include more\n"
            "account required other.so\n"
        )
        more = "echo 'session required c.so' > /etc/pam.d/more"
        self.expect(
            self.with_login(text, then=more),
            "pam.modules",
            "warning",
            "The session stack of 'login' names modules that are not there: 'c.so', 'a.so', "
            "'b.so'.",
            "Install the packages that have them, or take the lines out; if one fails, the switch "
            "to an account goes on without a session.",
        )

    @AS_ROOT
    def test_included_fifo(self):
        """What is no regular file is not waited for."""
        report = self.with_login("@include more\n", then="mkfifo /etc/pam.d/more")
        message = "0 modules of the session stack of 'login' can be found."
        self.expect(report, "pam.modules", "ok", message)

    @AS_ROOT
    def test_module_can_be_changed(self):
        module = self.make_file("module.so", "", 0o666)
        self.expect(
            self.with_login(f"session required {module}\n"),
            "pam.modules",
            "failure",
            # The folder of all tests comes first on the way.
            "Others can change a PAM module, which runs as root: '/tmp' is writable by everybody.",
        )


class AccountTest(MachineTest):
    def setUp(self):
        super().setUp()
        if DOCTOR.is_relative_to("/srv"):
            self.skipTest("the tools lie below /srv, where the accounts of this test have homes")
        self.tmp = self.make_folder("tmp", 0o700)

    def account_check(self, name, home, *arguments, then="true", confined=False):
        """An account alice, in a machine of its own, which has no accounts of this
        machine's, and with homes below /srv."""
        before = self.accounts(home) + (
            f"; mount -t tmpfs -o mode=755 none /srv; mkdir -p /srv/alice; {then}"
        )
        if confined:
            arguments = (*arguments, "--confined")
        return self.examine(
            f"account.{name}",
            "--account",
            "alice",
            "--tmp-dir",
            self.tmp,
            *arguments,
            before=before,
        )

    def test_none_is_named(self):
        message = "No account was named with --account."
        self.expect(self.examine("account"), "account.exists", "skipped", message)

    def test_no_account(self):
        report = self.examine("account", "--account", "no-such\x1b[1m")
        message = "There is no account 'no-such\\x1b[1m'."
        self.expect(report, "account.exists", "failure", message)

    def test_root(self):
        report = self.examine("account", "--account", "root")
        self.expect(report, "account.exists", "ok", "The account 'root' exists.")
        self.expect(
            report,
            "account.numbers",
            "warning",
            "The account 'root' has user number 0: nothing is handed over, nothing confined, and "
            "the request goes on as root.",
            "Have the front end refuse accounts with user number 0.",
        )
        self.assertEqual(report.findings("account.way"), [])

    @AS_ROOT
    def test_numbers(self):
        report = self.account_check("numbers", "/srv/alice")
        message = "The numbers of account 'alice' bring it no foreign group."
        self.expect(report, "account.numbers", "ok", message)

    @AS_ROOT
    def test_low_number(self):
        self.uid = 6
        self.expect(
            self.account_check("numbers", "/srv/alice"),
            "account.numbers",
            "warning",
            "The account 'alice' has user number 6, and the process will be in group 'disk' of "
            "the same number.",
        )

    @AS_ROOT
    def test_group_of_the_users_number(self):
        self.gid = 100
        for members, state, message in (
            (
                "",
                "warning",
                "The process will be in group 'secret', whose number is that of user 'alice', "
                "though the account is not in it.",
            ),
            ("bob,alice", "ok", "The numbers of account 'alice' bring it no foreign group."),
        ):
            self.group_line = f"secret:x:{STRANGER}:{members}"
            report = self.account_check("numbers", "/srv/alice")
            self.expect(report, "account.numbers", state, message)

    @AS_ROOT
    def test_home(self):
        report = self.account_check("home", "/srv/alice")
        self.expect(report, "account.home", "ok", "The home '/srv/alice' exists.")
        for home, then, message in (
            (
                "",
                "true",
                "The account 'alice' has an empty home, which stands for the front end's current "
                "directory.",
            ),
            (
                "/srv/bob",
                "true",
                "The home '/srv/bob' of account 'alice' cannot be found: No such file or "
                "directory.",
            ),
            ("/srv/x", "mkfifo /srv/x", "The home '/srv/x' of account 'alice' is a FIFO."),
        ):
            report = self.account_check("home", home, then=then)
            self.expect(report, "account.home", "failure", message)

    @AS_OTHERS
    def test_home_cannot_be_looked_at(self):
        closed = self.make_folder("closed", 0)
        entry = unittest.mock.Mock(pw_dir=str(closed / "home"), pw_name="alice")
        found = accounts.account_home(entry)
        message = f"The home '{closed}/home' cannot be looked at: Permission denied."
        self.assertEqual((found.state, found.message), ("unchecked", message))

    @AS_ROOT
    def test_way(self):
        report = self.account_check("way", "/srv/alice", then=f"chown {STRANGER} /srv/alice")
        message = "Only root can change the way to '/srv/alice'."
        self.expect(report, "account.way", "ok", message)
        for then, why in (
            ("chmod 1777 /srv", "'/srv' is writable by everybody"),
            (f"chown 0:{STRANGER} /srv; chmod 775 /srv", "'/srv' is writable by group 'alice'"),
            (f"chown {STRANGER} /srv", "'/srv' belongs to user 'alice'"),
        ):
            self.expect(
                self.account_check("way", "/srv/alice", then=then),
                "account.way",
                "failure",
                f"Root can be led astray on the way to the home: {why}.",
            )

    @AS_ROOT
    def test_confinement(self):
        report = self.account_check("confinement", "/srv/alice", confined=True)
        message = "A process may be confined to '/srv/alice'."
        self.expect(report, "account.confinement", "ok", message)
        for then, why in (
            (f"chown {STRANGER} /srv/alice", "'/srv/alice' belongs to user 'alice'"),
            ("chmod 775 /srv/alice", "'/srv/alice' is writable by others than its owner"),
            ("chmod 1777 /srv", "'/srv' is writable by others than its owner"),
        ):
            message = f"No process must be confined to '/srv/alice': {why}."
            report = self.account_check("confinement", "/srv/alice", then=then, confined=True)
            self.expect(report, "account.confinement", "failure", message)
            report = self.account_check("confinement", "/srv/alice", then=then)
            self.expect(report, "account.confinement", "skipped", message)

    def folder_check(self, then):
        return self.account_check("folder", "/srv/alice", then=then, confined=True)

    @AS_ROOT
    def test_folder(self):
        files = f"install -d -o alice -m 700 /srv/alice/files"
        for then, folder in (
            (files, "/srv/alice/files"),
            ("mkdir -p /srv/alice/a/b; install -d -o alice /srv/alice/a/c", "/srv/alice/a/c"),
            ("install -d -g alice -m 770 /srv/alice/shared", "/srv/alice/shared"),
            ("chown alice /srv/alice", "/srv/alice"),
            # A confined process need not get there from outside.
            (f"{files}; chmod 700 /srv", "/srv/alice/files"),
        ):
            message = f"The account 'alice' may write in '{folder}'."
            self.expect(self.folder_check(then), "account.folder", "ok", message)

    @AS_ROOT
    def test_no_folder(self):
        for then in (
            "true",
            "mkdir -p /srv/alice/a/b; install -d -o bob /srv/alice/c",
            "install -d -o alice -m 500 /srv/alice/files",
            "install -d -o alice /srv/files; ln -s ../files /srv/alice/files",
            "mkdir -m 700 /srv/alice/closed; install -d -o alice /srv/alice/closed/files",
        ):
            report = self.folder_check(then)
            self.expect(
                report,
                "account.folder",
                "failure",
                "Confined to '/srv/alice', the account 'alice' may write in no folder there, so "
                "its front ends cannot keep a file, nor rename or remove what was uploaded.",
                "Make a folder inside that belongs to the account, for instance 'install -d -o "
                "alice -m 0700 /srv/alice/files'.",
            )
            self.assertEqual(report.status, 2)

    @AS_ROOT
    def test_folder_of_an_account_that_is_not_confined(self):
        report = self.account_check("folder", "/srv/alice")
        self.assertEqual(report.findings("account.folder"), [])

    def test_folder_is_not_known(self):
        entry = unittest.mock.Mock(pw_dir="/srv/alice", pw_name="alice")
        with unittest.mock.patch.object(accounts.os, "geteuid", return_value=STRANGER):
            found = accounts.account_folder(None, entry)
        message = "Where account 'alice' may write is not known."
        self.assertEqual((found.state, found.message), ("unchecked", message))

    @AS_ROOT
    def test_session_of_a_confined_account(self):
        login = "mkdir -p /srv/alice/etc/pam.d; touch /srv/alice/etc/pam.d/login"
        start = "Confined to '/srv/alice', "
        for then, why in (
            ("true", "'/srv/alice/etc/pam.d/login' does not exist, where PAM then looks"),
            (f"{login}; chown alice /srv/alice", "'/srv/alice' belongs to user 'alice'"),
            (f"{login}; chmod 775 /srv/alice", "'/srv/alice' is writable by others than its owner"),
        ):
            message = start + f"the account 'alice' gets no PAM session: {why}."
            report = self.account_check("session", "/srv/alice", then=then, confined=True)
            self.expect(report, "account.session", "skipped", message)
            report = self.account_check("session", "/srv/alice", "--pam", then=then, confined=True)
            self.expect(
                report,
                "account.session",
                "warning",
                message,
                "Ask for use_chroot or for use_pam, not for both; or keep in the home, which must "
                "be root's own, a configuration of PAM and the modules that it names.",
            )
            report = self.account_check("session", "/srv/alice", "--pam", then=then)
            self.assertEqual(report.findings("account.session"), [])
        report = self.account_check("session", "/srv/alice", "--pam", then=login, confined=True)
        message = start + "PAM finds '/srv/alice/etc/pam.d/login'."
        self.expect(report, "account.session", "ok", message)

    @AS_ROOT
    def test_leftovers(self):
        """Copies that are root's, and no others."""
        files = (
            "cd /srv/alice; head -c 9 /dev/zero > .tov-fresh1; head -c 99 /dev/zero > theirs; "
            "cp theirs .tov-theirs; cp theirs .tov-short; cp theirs .tov-too-long; "
            "mkdir .tov-folder; chown alice .tov-theirs; touch -d '-99 hours' .tov-* theirs; touch .tov-fresh1; cd /"
        )
        message = "1 copy of an upload is in '/srv/alice', none older than a day."
        report = self.account_check("leftovers", "/srv/alice", then=files)
        self.expect(report, "account.leftovers", "ok", message)
        files += (
            "; head -c 2048 /dev/zero > /srv/alice/.tov-AbC123; cp /srv/alice/.tov-A* "
            "/srv/alice/.tov-000000; touch -d '-30 hours' /srv/alice/.tov-A*; "
            "touch -d '-50 hours' /srv/alice/.tov-0*"
        )
        self.expect(
            self.account_check("leftovers", "/srv/alice", then=files),
            "account.leftovers",
            "warning",
            "In '/srv/alice' 2 copies of uploads are left over, 4.0 KB in all, the oldest 50 "
            "hours old.",
            "They are root's and count in no quota of the account. Remove them: find '/srv/alice' "
            "-maxdepth 1 -name '.tov-??????' -user root -mtime +0 -delete; and see why front ends "
            "are killed while they copy.",
        )

    @AS_ROOT
    def test_confinement_to_fuse_and_nfs(self):
        for kind in ("fuse.bindfs", "fuseblk", "nfs4"):
            mount = Mount("/", kind, set())
            with unittest.mock.patch.object(accounts, "mount_of", return_value=mount):
                self.assertEqual(
                    accounts.why_not_confine("/usr"),
                    f"'/usr' is on a file system of type '{kind}'",
                )

    @AS_ROOT
    def test_hand_over(self):
        report = self.account_check("hand-over", "/srv/alice")
        message = "Root can put uploads into '/srv/alice'."
        self.expect(report, "account.hand-over", "ok", message)
        report = self.account_check("hand-over", "/srv/alice", then="mount -o remount,ro /srv")
        message = "Uploads cannot be put into '/srv/alice': the file system is mounted read-only."
        self.expect(report, "account.hand-over", "failure", message)
        report = self.account_check("hand-over", "/srv/alice", "--as", "alice")
        message = "Uploads cannot be handed over, since user 'alice' is not root."
        self.expect(report, "account.hand-over", "failure", message)

    def test_hand_over_to_remote_homes(self):
        entry = unittest.mock.Mock(pw_dir="/home/alice", pw_name="alice")
        for kind, message in (
            (
                "nfs4",
                "The home '/home/alice' is on 'nfs4', whose server mostly does not let root write "
                "(root_squash).",
            ),
            (
                "fuse.sshfs",
                "The home '/home/alice' is on 'fuse.sshfs', which mostly does not let root in.",
            ),
        ):
            mount = Mount("/home", kind, set())
            with unittest.mock.patch.object(accounts, "mount_of", return_value=mount):
                found = accounts.account_hand_over(None, entry)
            self.assertEqual((found.state, found.message), ("warning", message))

    def hand_over_with(self, error):
        site = unittest.mock.Mock()
        site.identity.uid = 0
        site.as_front_end.return_value = error
        entry = unittest.mock.Mock(pw_dir=str(self.folder), pw_name="alice")
        found = accounts.account_hand_over(site, entry)
        return found.state, found.message

    def test_hand_over_that_root_is_refused(self):
        message = f"Uploads cannot be put into '{self.folder}': Operation not permitted."
        self.assertEqual(self.hand_over_with("Operation not permitted"), ("failure", message))
        message = f"Whether root can write in '{self.folder}' is not known."
        self.assertEqual(self.hand_over_with(None), ("unchecked", message))

    @AS_ROOT
    def test_space(self):
        home = self.make_folder("home")
        report = self.account_check("space", home)
        message = f"Uploads are moved to '{home}' without being copied."
        self.expect(report, "account.space", "ok", message)
        for min_free, state in (("1M", "ok"), ("3M", "warning"), ("5M", "failure")):
            report = self.account_check(
                "space",
                "/srv/alice",
                "--min-free",
                min_free,
                then="mount -t tmpfs -o size=4M none /srv/alice",
            )
            message = (
                f"Uploads are copied from '{self.tmp}' to another file system, on which 4.0 MB "
                "are free."
            )
            self.expect(report, "account.space", state, message)
        report = self.account_check("space", "/srv/alice", then=f"rmdir {self.tmp}")
        message = "Whether uploads have to be copied is not known: No such file or directory."
        self.expect(report, "account.space", "unchecked", message)


class NssTest(DoctorTest):
    def sources(self, text, then="true"):
        file = self.make_file("nsswitch.conf", text)
        before = f"mount --bind {file} /etc/nsswitch.conf; {then}"
        return self.examine("nss", before=before)

    @AS_ROOT
    def test_sources(self):
        report = self.sources("# passwd: no\npasswd: files [NOTFOUND=return] # x\nhosts: none\n")
        message = "Accounts are looked up in 'files'."
        self.expect(report, "nss.sources", "ok", message)

    @AS_ROOT
    def test_missing_module(self):
        report = self.sources("passwd: files nosuch\ngroup: files\x1b\n")
        message = (
            "Accounts are looked up in sources whose modules are not there: 'nosuch', "
            "'files\\x1b'."
        )
        self.expect(report, "nss.sources", "warning", message)

    def test_no_file(self):
        error = FileNotFoundError(2, "No such file or directory")
        with unittest.mock.patch.object(nss, "read_text", side_effect=error):
            (found,) = nss.check_nss(None)
        message = "'/etc/nsswitch.conf' cannot be read: No such file or directory."
        self.assertEqual((found.state, found.message), ("warning", message))


class ProcessTest(DoctorTest):
    def with_limit(self, which, soft, *arguments):
        _, hard = resource.getrlimit(which)
        if hard != resource.RLIM_INFINITY and not 0 <= soft <= hard:
            self.skipTest("whoever runs the tests has limited them further")
        return self.examine(
            "limits",
            *arguments,
            preexec_fn=lambda: resource.setrlimit(which, (soft, hard)),
        )

    def without_limit(self, which):
        return self.with_limit(which, resource.RLIM_INFINITY)

    def test_descriptors(self):
        for limit, state in ((64, "ok"), (63, "warning"), (15, "failure")):
            report = self.with_limit(resource.RLIMIT_NOFILE, limit)
            message = f"The limit of open files is {limit}."
            self.expect(report, "limits.descriptors", state, message)

    def test_memory(self):
        report = self.with_limit(resource.RLIMIT_AS, 256 << 20)
        message = "The limit of memory is 256.0 MB."
        self.expect(report, "limits.memory", "ok", message)
        message = "There is no limit of memory; front ends have to set one themselves."
        self.expect(self.without_limit(resource.RLIMIT_AS), "limits.memory", "ok", message)

    def test_low_memory(self):
        """The doctor itself could not run so: another process has the limit."""
        for limit, state in ((63, "warning"), (31, "failure")):
            sleeper = self.sleeper(resource.RLIMIT_AS, limit << 20)
            report = self.examine("limits", "--pid", str(sleeper.pid))
            message = f"The limit of memory is {limit}.0 MB."
            self.expect(report, "limits.memory", state, message)
            self.assertEqual(
                report.findings("limits.memory")[0]["subject"], f"process {sleeper.pid}"
            )

    def sleeper(self, which=None, limit=0, **options):
        def set_limit():
            if which is not None:
                resource.setrlimit(which, (limit, limit))

        sleeper = subprocess.Popen(
            ["sleep", "3600"],
            preexec_fn=set_limit,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            **options,
        )
        self.addCleanup(sleeper.wait, 30)
        self.addCleanup(sleeper.kill)
        return sleeper

    def test_processor(self):
        for limit, state in ((30, "ok"), (4, "warning")):
            report = self.with_limit(resource.RLIMIT_CPU, limit)
            message = f"The limit of processor time is {limit} seconds."
            self.expect(report, "limits.processor", state, message)

    def test_file_size(self):
        message = "There is no limit of the size of files."
        self.expect(self.without_limit(resource.RLIMIT_FSIZE), "limits.file-size", "ok", message)
        report = self.with_limit(resource.RLIMIT_FSIZE, 1 << 20)
        message = (
            "The limit of the size of files is 1.0 MB: a larger upload kills the front end, and "
            "its file stays."
        )
        self.expect(report, "limits.file-size", "warning", message)

    def test_no_such_process(self):
        self.assertEqual(self.examine("limits", "--pid", str(1 << 30)).status, 3)

    def test_streams(self):
        report = self.examine("process.streams")
        message = "Standard input, output and error of this process are open."
        self.expect(report, "process.streams", "ok", message)

    def test_closed_streams(self):
        report = self.examine("process.streams", before="exec <&- 2>&-")
        self.expect(
            report,
            "process.streams",
            "warning",
            "Of the descriptors 0, 1 and 2 of this process, 0 and 2 cannot be used: closed.",
            "Start the web server with all three open, at least to /dev/null.",
        )

    def test_streams_of_a_process(self):
        lost = self.sleeper(stderr=subprocess.DEVNULL, env={})
        report = self.examine("process.streams", "--pid", str(lost.pid))
        message = (
            f"Standard error of process {lost.pid} is /dev/null, so the log of front ends is lost "
            "unless the web server gives them another."
        )
        self.expect(report, "process.streams", "warning", message)
        logged = self.sleeper(stderr=subprocess.DEVNULL, env={"TOV_LOG": "syslog"})
        report = self.examine("process.streams", "--pid", str(logged.pid))
        message = f"Standard input, output and error of process {logged.pid} are open."
        self.expect(report, "process.streams", "ok", message)

    @AS_OTHERS
    def test_process_of_another(self):
        with contextlib.suppress(OSError), open("/proc/1/environ") as readable:
            readable.close()
            self.skipTest("the first process of this machine is the caller's own")
        report = self.examine("process", "--pid", "1")
        self.assertEqual(report.status, 3)
        self.assertIn("Permission denied", report.all())

    def test_environment_of_a_process(self):
        environment = {"TOV_RUN_DIR": str(self.run_dir), "TMP": str(self.folder)}
        sleeper = self.sleeper(env=environment)
        report = self.doctor("--json", "--pid", str(sleeper.pid))
        message = f"The run directory '{self.run_dir}' exists."
        self.expect(report, "run-dir.exists", "ok", message)
        message = f"The temporary directory '{self.folder}' exists."
        self.expect(report, "tmp-dir.exists", "ok", message)

    def test_environment(self):
        message = "The environment holds nothing that endangers front ends."
        for environment in ({}, {"LD_LIBRARY_PATH": "/opt/x:/opt/y"}):
            report = self.examine("process.environment", environment=environment)
            self.expect(report, "process.environment", "ok", message)

    def test_library_path(self):
        for path in ("/opt/x:", "lib", ":/opt/x", "/opt/x::/opt/y"):
            sleeper = self.sleeper(env={"LD_LIBRARY_PATH": path})
            self.expect(
                self.examine("process.environment", "--pid", str(sleeper.pid)),
                "process.environment",
                "failure",
                "LD_LIBRARY_PATH has an empty or relative item, which stands for the current "
                "directory, an account's home for instance.",
            )

    def test_dangerous_variables(self):
        for variable, value, message in (
            ("LD_PRELOAD", "libc.so.6", "LD_PRELOAD is set, so foreign code runs in front ends."),
            ("LD_AUDIT", "/none", "LD_AUDIT is set, so foreign code runs in front ends."),
            (
                "HTTP_PROXY",
                "http://x",
                "HTTP_PROXY is set, which front ends and back ends take for a header of the "
                "browser.",
            ),
        ):
            sleeper = self.sleeper(env={variable: value}, stderr=subprocess.DEVNULL)
            report = self.examine("process.environment", "--pid", str(sleeper.pid))
            self.expect(report, "process.environment", "warning", message)


class LogTest(DoctorTest):
    def log_check(self, name, target=None, level=None, **options):
        environment = {}
        if target is not None:
            environment["TOV_LOG"] = str(target)
        if level is not None:
            environment["TOV_LOG_LEVEL"] = level
        return self.examine(f"log.{name}", environment=environment, **options)

    def setUp(self):
        super().setUp()
        self.me = ME

    def test_standard_error(self):
        message = "Messages go to standard error, the web server's error log."
        for target in (None, "", "stderr"):
            self.expect(self.log_check("target", target), "log.target", "ok", message)

    @AS_ROOT
    def test_syslog(self):
        before = "mount -t tmpfs none /dev"
        message = "Messages are to go to syslog, but nobody takes them: No such file or directory."
        before = f"mkdir {self.folder}/dev; mount -t tmpfs none {self.folder}/dev; " + (
            f"for d in null zero urandom full; do touch {self.folder}/dev/$d; "
            f"mount --bind /dev/$d {self.folder}/dev/$d; done; mount --rbind {self.folder}/dev /dev"
        )
        report = self.log_check("target", "syslog", before=before)
        self.expect(report, "log.target", "failure", message)
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as logger:
            logger.bind(str(self.folder / "logger"))
            before += f"; ln -s {self.folder}/logger /dev/log"
            report = self.log_check("target", "syslog", before=before.replace("mkdir ", "true ", 1))
            self.expect(report, "log.target", "ok", "Messages go to syslog.")

    def test_file(self):
        message = f"User {self.me} can write the log '{self.folder}/log'."
        for make in (lambda: None, lambda: self.make_file("log")):
            make()
            report = self.log_check("target", self.folder / "log")
            self.expect(report, "log.target", "ok", message)
        self.assertEqual((self.folder / "log").read_text(), "")

    def test_nothing_is_made(self):
        self.log_check("target", self.folder / "log")
        self.assertFalse((self.folder / "log").exists())

    def test_relative_file(self):
        self.expect(
            self.log_check("target", "log"),
            "log.target",
            "warning",
            "The path 'log' in TOV_LOG is relative, so the place of the log depends on who starts "
            "the front end.",
        )

    def cannot_write(self, path, error, *arguments, user=None):
        report = self.examine("log.target", *arguments, environment={"TOV_LOG": str(path)})
        self.expect(
            report,
            "log.target",
            "failure",
            f"User {user or self.me} cannot write the log '{path}': {error}; messages go to "
            "standard error instead.",
        )

    def test_what_cannot_be_written(self):
        (self.folder / "link").symlink_to("log")
        self.cannot_write(self.folder / "link", "it is a symbolic link, which is not followed")
        self.cannot_write(self.folder, "it is a folder")
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(str(self.folder / "socket"))
        self.cannot_write(self.folder / "socket", "it is a socket")
        self.cannot_write(self.folder / "none" / "log", "No such file or directory")
        file = self.make_file("file")
        self.cannot_write(file / "log", "Not a directory")

    def test_fifo(self):
        """To open it would disturb its reader, or wait for one."""
        path = self.folder / "fifo"
        os.mkfifo(path)
        self.expect(
            self.log_check("target", path),
            "log.target",
            "warning",
            f"The log '{path}' is a FIFO: while nobody reads from it, messages go to standard "
            "error instead.",
        )

    @AS_ROOT
    def test_of_another(self):
        file = self.make_file("log", "", 0o640)
        arguments = ("--as", str(STRANGER))
        self.cannot_write(file, "Permission denied", *arguments, user=f"'{STRANGER}'")
        path = self.folder / "new"
        self.cannot_write(path, "Permission denied", *arguments, user=f"'{STRANGER}'")

    @AS_OTHERS
    def test_of_another_is_not_known(self):
        path = self.folder / "log"
        report = self.examine("log.target", "--as", "root", environment={"TOV_LOG": str(path)})
        message = f"Whether user 'root' may write '{path}' is not known."
        self.expect(report, "log.target", "unchecked", message)

    def test_readers(self):
        path = self.folder / "log"
        message = "The log will be made with mode 0640."
        self.expect(self.log_check("reader", path), "log.reader", "ok", message)
        self.make_file("log", "", 0o640)
        message = "Strangers cannot read the log."
        self.expect(self.log_check("reader", path), "log.reader", "ok", message)
        path.chmod(0o644)
        self.expect(
            self.log_check("reader", path),
            "log.reader",
            "warning",
            f"Everybody can read the log '{path}'.",
        )

    def test_levels(self):
        for level, state, message in (
            (None, "ok", "Messages are written up to level 4, warnings."),
            ("", "ok", "Messages are written up to level 4, warnings."),
            ("6", "ok", "Messages are written up to level 6."),
            ("004", "ok", "Messages are written up to level 4."),
            ("0" * 30 + "4", "ok", "Messages are written up to level 4."),
            ("3", "warning", "At level 3 warnings are not logged."),
            (
                "7",
                "warning",
                "At level 7 the log holds queries, and with them session ids and passwords.",
            ),
            (
                "9" * 50,
                "warning",
                "At level 9 the log holds queries, and with them session ids and passwords.",
            ),
            ("high", "warning", "TOV_LOG_LEVEL is 'high', which is no number and counts as 4."),
            ("-1", "warning", "TOV_LOG_LEVEL is '-1', which is no number and counts as 4."),
        ):
            self.expect(self.log_check("level", level=level), "log.level", state, message)


class ClockTest(unittest.TestCase):
    def clock(self, seconds, state):
        with unittest.mock.patch.object(clock.time, "time", return_value=seconds):
            with unittest.mock.patch.object(clock, "clock_state", return_value=state):
                (found,) = clock.check_clock(None)
        return found.state, found.message

    def test_states(self):
        now = time.time()
        message = "The clock is synchronised."
        self.assertEqual(self.clock(now, 0), ("ok", message))
        message = "The clock is not synchronised, so sessions may end early or late."
        self.assertEqual(self.clock(now, clock.TIME_ERROR), ("warning", message))
        message = "The clock says 1970-01-02."
        self.assertEqual(self.clock(86400, 0), ("failure", message))

    def test_the_kernel_is_asked(self):
        self.assertIn(clock.clock_state(), range(6))

    def test_the_kernel_does_not_tell(self):
        """As in a container that may not ask."""
        library = unittest.mock.Mock()
        library.adjtimex.return_value = -1
        with unittest.mock.patch.object(clock.ctypes, "CDLL", return_value=library):
            with unittest.mock.patch.object(clock.ctypes, "get_errno", return_value=errno.EPERM):
                with self.assertRaises(PermissionError) as caught:
                    clock.clock_state()
        self.assertEqual(caught.exception.strerror, "Operation not permitted")


class ChildrenTest(unittest.TestCase):
    def test_values(self):
        self.assertEqual(run_in_child(LONG, lambda a, b: [a, b], 1, "é"), [1, "é"])

    def test_large_value(self):
        self.assertEqual(len(run_in_child(LONG, lambda: "x" * 1_000_000)), 1_000_000)

    def reason(self, seconds, function, *arguments):
        with self.assertRaises(NoResult) as caught:
            run_in_child(seconds, function, *arguments)
        return str(caught.exception)

    def test_time_is_up(self):
        self.assertEqual(self.reason(0.2, time.sleep, LONG), "it took longer than 0.2 seconds")

    def test_time_is_up_for_children_of_children(self):
        """None of them stays behind."""
        with tempfile.TemporaryDirectory() as folder:

            def sleep():
                pathlib.Path(folder, str(os.getpid())).touch()
                time.sleep(LONG)

            # On a busy machine it may not have begun.
            seconds = 0.5
            while not os.listdir(folder):
                self.reason(seconds, lambda: run_in_child(LONG, sleep))
                seconds *= 2
            self.assertTrue(all(self.ends(int(pid)) for pid in os.listdir(folder)))

    def ends(self, pid):
        end = time.monotonic() + LONG / 2
        while time.monotonic() < end:
            status = text_or_nothing(f"/proc/{pid}/status")
            if not status or re.search(r"State:\s+Z", status):
                return True
            time.sleep(0.05)
        return False

    def test_faults(self):
        self.assertEqual(self.reason(LONG, lambda: 1 / 0), "ZeroDivisionError: division by zero")
        self.assertEqual(
            self.reason(LONG, os.stat, "/no\x1bne"), "No such file or directory: '/no\\x1bne'"
        )
        self.assertEqual(self.reason(LONG, os._exit, 0), "the checking process has ended early")
        self.assertEqual(self.reason(LONG, sys.exit, 0), "SystemExit: 0")

    def test_fault_of_a_check_is_a_finding(self):
        site = unittest.mock.Mock(timeout=LONG, has_rights=False)

        def check(_site):
            yield ok("clock.time", "x", "Well.")
            raise OSError(5, "Input/output error", "/x")

        found = run_job(site, "clock", check, ())
        self.assertEqual([finding.state for finding in found], ["ok", "unchecked"])
        message = "The rest could not be checked: Input/output error: '/x'."
        self.assertEqual((found[1].name, found[1].message), ("clock", message))


class HostileTextTest(ServiceTest):
    EVIL = "\x1b[31m\r\n\u202e\x7f\udcff\\|"

    def test_nothing_reaches_the_terminal(self):
        (self.run_dir / self.EVIL.replace("\\", "")).touch()
        self.path = self.run_dir / "red\x1b[31m.sock"
        body = '<doc><user name="&#10;\u202e\x9b31m" level="1"/></doc>'
        self.listen(answering(body.encode()))
        tmp = self.make_folder("evil\x1b]0;title\x07")
        for options in (["-v"], ["--json"]):
            report = self.doctor(
                *options,
                "--run-dir",
                self.run_dir,
                "--tmp-dir",
                tmp,
                "--program",
                tmp,
                environment={"TOV_LOG": "\x1b", "TOV_LOG_LEVEL": "\n"},
            )
            text = report.output.replace("\n", "")
            self.assertTrue(text.isprintable(), [c for c in text if not c.isprintable()])
        self.assertEqual(report.findings("back-end.answer")[0]["subject"], "red\\x1b[31m")
        self.assertIn(r"'\x0a\u202e\x9b31m'", report.findings("back-end.answer")[0]["message"])

    def test_escapes(self):
        self.assertEqual(
            printable("aé \\\n\x1b\udcff\u202e\U000e0001"),
            (r"aé \\\x0a\x1b\xff\u202e\U000e0001"),
        )
        self.assertEqual(printable("x" * 300), "x" * 200 + "...")


if __name__ == "__main__":
    unittest.main()
