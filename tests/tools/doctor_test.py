"""The command line, reports and manual page of zancgi-doctor, and its checks of
processes and logs."""

import contextlib
import functools
import json
import os
import pathlib
import re
import resource
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest
from unittest.mock import Mock, patch

from doctor_support import AS_OTHERS, AS_ROOT, DENIED, DOCTOR, LONG, NOT_THERE, SOURCE
from doctor_support import STRANGER, DoctorTest, ServiceTest, answering
from processes import wait_for
from zancgi_doctor.findings import CHECKS, GROUPS, sentences
from zancgi_doctor.checks import process
from zancgi_doctor.children import NoResult, run_in_child
from zancgi_doctor.cli import make_parser
from zancgi_doctor.examination import chosen, run_job
from zancgi_doctor.files import text_or_nothing
from zancgi_doctor.findings import STATES, finding
from zancgi_doctor.identities import Identity
from zancgi_doctor.texts import printable

PACKAGES = (DOCTOR.with_name("zancgi_doctor"), DOCTOR.with_name("zancgi_tools"))


class CommandLineTest(DoctorTest):
    def test_only_the_wanted_check_or_its_obstacle_is_reported(self):
        for check, option, path, status, reported in (
            ("run-dir.length", "--run-dir", self.run_dir, 0, "run-dir.length"),
            ("tmp-dir.space", "--tmp-dir", self.folder / "none", 2, "tmp-dir.exists"),
            ("tmp-dir", "--tmp-dir", self.folder / "none", 2, "tmp-dir.exists"),
            ("program", "--program", self.run_dir, 2, "program.file"),
        ):
            report = self.examine(check, option, path)
            self.assertEqual([check["name"] for check in report.checks], [reported])
            self.assertEqual(report.status, status)

    def test_groups_without_a_subject_are_skipped(self):
        for group, check in (("program", "program.file"), ("account", "account.exists")):
            report = self.examine(group)
            self.expect(report, check, "skipped", "")
            self.assertEqual(report.status, 0)

    def test_usage_errors_end_with_3(self):
        timeout = "argument --timeout: not a number of seconds up to 3600"
        characters = "a session must not contain blanks, ';' or unprintable characters"
        one = "a session needs exactly one --service"
        for *arguments, message in (
            ("--no-such-option", "unrecognized arguments: --no-such-option"),
            ("--timeout", "0", f"{timeout}: 0"),
            ("--timeout", "soon", f"{timeout}: soon"),
            ("--min-free", "lots", "argument --min-free: not a size: lots"),
            ("--pid", "0", "argument --pid: not a process number: 0"),
            ("--check", "log.x", "argument --check: no such check: log.x (see --list)"),
            ("--session", "a b", "--service", "x", f"argument --session: {characters}"),
            ("--session", "abc", one),
            ("--session", "abc", "--service", "x", "--service", "y", one),
            ("--as", "nobody\x1b-such", "there is no user 'nobody\\x1b-such'"),
            ("--as", "root:no-such-group", "there is no group 'no-such-group'"),
            ("--as", "4294967295", "there is no user '4294967295'"),
            ("--as", "4294967295:33", "there is no user '4294967295'"),
            ("--as", "99999999999", "there is no user '99999999999'"),
            ("--as", "33:4294967295", "there is no group '4294967295'"),
            ("--check", "limits", "--pid", "1073741824",
             f"{NOT_THERE}: '/proc/1073741824/environ'"),
        ):  # fmt: skip
            report = self.doctor(*arguments)
            self.assertEqual((report.status, report.output), (3, ""), arguments)
            self.assertEqual(report.errors.splitlines()[-1], f"zancgi-doctor: {message}")

    def test_caller_may_ignore_sigchld(self):
        ignore = functools.partial(signal.signal, signal.SIGCHLD, signal.SIG_IGN)
        report = self.program("--check", "process", "-v", preexec_fn=ignore)
        self.assertIn("process.streams", report.output)

    def test_list_describes_every_check(self):
        report = self.program("--list")
        self.assertEqual(report.status, 0)
        listed = dict(line.split(maxsplit=1) for line in report.output.splitlines())
        self.assertEqual(listed, {name: check.about for name, check in CHECKS.items()})

    def test_outcomes_have_valid_states_and_problems_have_remedies(self):
        for name, check in CHECKS.items():
            for outcome, (message, remedy) in check.outcomes.items():
                with self.subTest(check=name, outcome=outcome):
                    state = outcome.partition(" ")[0]
                    self.assertIn(state, STATES)
                    self.assertRegex(message, r"\.$")
                    self.assertEqual(bool(remedy), state in ("failure", "warning", "unchecked"))

    def test_source_uses_exactly_the_listed_checks_and_outcomes(self):
        source = "".join(path.read_text() for path in PACKAGES[0].rglob("*.py"))
        quoted = set(re.findall(r'"([a-z-]+\.[a-z-]+)"', source))
        self.assertEqual({name for name in quoted if name.split(".")[0] in GROUPS}, set(CHECKS))
        words = set(re.findall(r'"([a-z -]+)"', source))
        for name, check in CHECKS.items():
            for outcome in check.outcomes:
                is_used = {outcome, outcome.partition(" ")[2]} & words
                self.assertTrue(is_used, f"no finding is {outcome!r} of {name}")

    def test_json_has_the_documented_form(self):
        found = json.loads(self.doctor("--json", "--run-dir", self.run_dir).output)
        self.assertEqual(set(found), {"version", "state", "checks"})
        self.assertEqual(found["version"], 1)
        self.assertIn(found["state"], STATES[:4])
        keys = [(check["name"], check["subject"]) for check in found["checks"]]
        self.assertEqual(len(keys), len(set(keys)))
        for check in found["checks"]:
            self.assertEqual(set(check), {"name", "subject", "state", "message", "remedy"})
            self.assertTrue(all(isinstance(value, str) for value in check.values()))
            self.assertIn(check["state"], STATES)

    def test_first_line_and_exit_status(self):
        """The worst state decides, in the order failure, warning, unchecked, ok."""
        none = self.folder / "none"
        missing = f"run-dir.exists {none}: The run directory '{none}' cannot be found: {NOT_THERE}."
        empty = f"socket.kind {self.run_dir}: There is no socket in '{self.run_dir}'."
        for checks, run_dir, status, line in (
            (["run-dir.exists"], self.run_dir, 0, "OK: 0 failures, 0 warnings, 0 unchecked, 1 ok"),
            (["run-dir.exists", "run-dir.length"], none, 2,
             f"FAILURE: 1 failure, 0 warnings, 0 unchecked, 1 ok; {missing}"),
            (["socket.kind"], self.run_dir, 1,
             f"WARNING: 0 failures, 1 warning, 0 unchecked, 0 ok; {empty}"),
            # Monitoring systems read figures after a bar.
            (["run-dir.exists"], "/no|ne", 2, "FAILURE: 1 failure, 0 warnings, 0 unchecked, 0 ok; "
             + missing.replace(str(none), r"/no\x7cne")),
        ):  # fmt: skip
            wanted = [argument for check in checks for argument in ("--check", check)]
            report = self.program("-q", "--run-dir", run_dir, *wanted)
            expected = (status, f"zancgi-doctor {line}\n")
            self.assertEqual((report.status, report.output), expected)

    def test_text_shows_problems_and_with_v_everything(self):
        arguments = ("--check", "run-dir", "--run-dir", self.folder / "none")
        lines = self.doctor(*arguments).output.splitlines()
        self.assertEqual(len(lines), 3)
        self.assertRegex(lines[1], "^FAILURE  run-dir.exists ")
        self.assertRegex(lines[2], "^    Create it at each boot, by a tmpfiles.d rule ")
        self.assertRegex(self.doctor("-v", *arguments).output, "\nOK  run-dir.length ")

    def test_non_ascii_output_in_a_posix_locale(self):
        """The machine may have no locale with another encoding."""
        command = [sys.executable, "-IBXutf8=0", DOCTOR, "-v", "--check", "run-dir.exists"]
        run = subprocess.run(
            [*command, "--run-dir", self.make_folder("é")], env={"LC_ALL": "POSIX"},
            capture_output=True, timeout=LONG, check=False,
        )  # fmt: skip
        self.assertEqual(run.returncode, 0, run.stderr)
        self.assertIn(rb"\xc3\xa9", run.stdout)

    def test_output_error_is_a_failure(self):
        with open("/dev/full", "w") as full:
            command = [DOCTOR, "--check", "run-dir.exists", "--run-dir", self.run_dir]
            run = subprocess.run(
                command, stdout=full, stderr=subprocess.PIPE, timeout=LONG, check=False
            )
        self.assertNotEqual(run.returncode, 0)


class LauncherTest(DoctorTest):
    """The program finds its own modules and no others."""

    def setUp(self):
        super().setUp()
        self.installed = self.make_folder("bin") / "zancgi-doctor"
        shutil.copy(DOCTOR, self.installed)
        self.share = self.make_folder("share")

    def install_modules(self, version="12.3.4"):
        for package in PACKAGES:
            folder = self.share / "zancgi-tools" / package.name
            shutil.copytree(package, folder, ignore=shutil.ignore_patterns("__pycache__"))
        file = folder / "version.py"
        file.write_text(file.read_text().replace("@PROJECT_VERSION@", version))

    def expect_version(self, program, version="12.3.4", option="-V", **options):
        run = subprocess.run(
            [program, option], capture_output=True, text=True, timeout=LONG, check=True, **options
        )
        self.assertEqual((run.stdout, run.stderr), (f"zancgi-doctor {version}\n", ""))

    def test_version_is_the_projects_or_unknown(self):
        for option in ("-V", "--version"):
            self.expect_version(DOCTOR, os.environ["VERSION"], option)
        self.install_modules("@PROJECT_VERSION@")
        self.expect_version(self.installed, "unknown")

    def test_installed_modules_are_found_and_not_compiled(self):
        self.install_modules()
        link = self.folder / "link"
        link.symlink_to("bin/zancgi-doctor")
        before = sorted(self.folder.rglob("*"))
        self.expect_version(self.installed)
        self.expect_version(link)
        self.expect_version("bin/zancgi-doctor", cwd=self.folder)
        self.assertEqual(sorted(self.folder.rglob("*")), before)

    def test_environment_cannot_replace_modules(self):
        self.install_modules()
        evil = self.make_folder("evil")
        for name in ("zancgi_doctor", "json", "argparse", "sitecustomize"):
            (evil / f"{name}.py").write_text("raise SystemExit('taken in')\n")
        environment = {**os.environ, "PYTHONPATH": str(evil), "PYTHONUSERBASE": str(evil)}
        for program, version in ((DOCTOR, os.environ["VERSION"]), (self.installed, "12.3.4")):
            self.expect_version(program, version, cwd=evil, env=environment)

    def test_missing_modules_are_reported(self):
        run = subprocess.run(
            [self.installed, "--list"], capture_output=True, text=True, timeout=LONG, check=False
        )
        message = f"zancgi-doctor: its modules are missing from {self.share}/zancgi-tools\n"
        self.assertEqual((run.returncode, run.stdout, run.stderr), (3, "", message))


class ManualTest(unittest.TestCase):
    PATH = SOURCE / "docs" / "man" / "zancgi-doctor.1"
    TEXT = PATH.read_text()

    def test_manual_describes_every_check(self):
        shown = re.findall(r"^\.It Cm ([a-z-]+\.[a-z-]+) Ta (.*)$", self.TEXT, re.MULTILINE)
        self.assertEqual(shown, [(name, check.about) for name, check in CHECKS.items()])

    def test_manual_describes_every_option(self):
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

    def test_manual_describes_every_state(self):
        for state in STATES:
            self.assertIn(f".It Cm {state} Ta ", self.TEXT)

    def test_pages_of_both_tools_pass_mandoc(self):
        for page in (self.PATH, self.PATH.with_stem("zancgi-request")):
            command = ["mandoc", "-T", "lint", "-W", "style", page]
            lint = subprocess.run(command, capture_output=True, text=True, check=False)
            # Not every manual is installed everywhere, and the text is filled.
            ignored = re.compile("referenced manual not found|longer than 80 bytes|new sentence,")
            wrong = [line for line in lint.stdout.splitlines() if not ignored.search(line)]
            self.assertEqual(wrong, [])


class IdentityTest(DoctorTest):
    @AS_OTHERS
    def test_unchecked_is_the_third_state(self):
        report = self.doctor("-q", "--check", "identity", "--as", "root")
        self.assertEqual(report.status, 3)
        self.assertRegex(report.output, "^zancgi-doctor UNCHECKED: 0 failures, 0 warnings, 1 un")

    @AS_OTHERS
    def test_hidden_paths_are_unchecked_for_another_user(self):
        path = self.make_folder("closed", 0) / "file"
        for check, outcome, option in (
            ("run-dir.exists", "unchecked", "--run-dir"),
            ("tmp-dir.exists", "unchecked", "--tmp-dir"),
            ("program.file", "unchecked hidden", "--program"),
        ):
            report = self.examine(check.partition(".")[0], option, path, "--as", "root")
            self.expect(report, check, outcome, path, error=DENIED)
            self.assertLessEqual({found["state"] for found in report.checks}, {"ok", "unchecked"})
            report = self.examine(check, option, path)
            self.expect(report, check, "failure missing", path, error=DENIED)

    @AS_ROOT
    def test_identity_replaces_user_and_all_groups(self):
        identity = Identity("someone", STRANGER, STRANGER + 1, [STRANGER + 2])

        def ids():
            return [*os.getresuid(), *os.getresgid(), *os.getgroups()]

        self.assertEqual(
            run_in_child(LONG, ids, identity=identity),
            [STRANGER] * 3 + [STRANGER + 1] * 3 + [STRANGER + 2],
        )


class ProcessTest(DoctorTest):
    group, subject = "process", "this process"

    def sleeper(self, which=None, limit=0, **options):
        """The option for a process, and its subject in findings."""
        sleeper = subprocess.Popen(
            ["sleep", "3600"], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            preexec_fn=lambda: which is None or resource.setrlimit(which, (limit, limit)),
            **options,
        )  # fmt: skip
        self.addCleanup(sleeper.wait, 30)
        self.addCleanup(sleeper.kill)
        return ("--pid", sleeper.pid), f"process {sleeper.pid}"

    def test_limits_of_a_process_and_of_the_doctor(self):
        unlimited = resource.RLIM_INFINITY
        for which, check, limit, outcome, shown in (
            (resource.RLIMIT_NOFILE, "descriptors", 64, "ok", "64"),
            (resource.RLIMIT_NOFILE, "descriptors", 63, "warning", "63"),
            (resource.RLIMIT_NOFILE, "descriptors", 15, "failure", "15"),
            (resource.RLIMIT_AS, "memory", unlimited, "ok none", None),
            (resource.RLIMIT_AS, "memory", 256 << 20, "ok", "256.0 MB"),
            (resource.RLIMIT_AS, "memory", 64 << 20, "ok", "64.0 MB"),
            (resource.RLIMIT_AS, "memory", 63 << 20, "warning", "63.0 MB"),
            (resource.RLIMIT_AS, "memory", 32 << 20, "warning", "32.0 MB"),
            (resource.RLIMIT_AS, "memory", 31 << 20, "failure", "31.0 MB"),
            (resource.RLIMIT_CPU, "processor", unlimited, "ok none", None),
            (resource.RLIMIT_CPU, "processor", 30, "ok", "30 seconds"),
            (resource.RLIMIT_CPU, "processor", 5, "ok", "5 seconds"),
            (resource.RLIMIT_CPU, "processor", 4, "warning", "4 seconds"),
            (resource.RLIMIT_CPU, "processor", 1, "warning", "1 second"),
            (resource.RLIMIT_FSIZE, "file-size", unlimited, "ok none", None),
            (resource.RLIMIT_FSIZE, "file-size", 1 << 20, "warning", "1.0 MB"),
        ):
            with self.subTest(check=check, limit=limit):
                _, hard = resource.getrlimit(which)
                if hard != unlimited and not 0 <= limit <= hard:
                    self.skipTest("the tests run under a lower limit")
                arguments, name = self.sleeper(which, limit)
                report = self.examine("limits", *arguments)
                self.expect(report, f"limits.{check}", outcome, name, limit=shown)
        limit = functools.partial(resource.setrlimit, resource.RLIMIT_NOFILE, (63, 63))
        report = self.program("--json", "--check", "limits", preexec_fn=limit)
        self.expect(report, "limits.descriptors", "warning", self.subject, limit="63")

    def test_limits_too_low_for_any_process(self):
        rows = ("Max open files", "Max address space", "Max cpu time", "Max file size")
        limits = {**dict.fromkeys(rows), "Max cpu time": 0}
        with patch.object(process, "soft_limits", return_value=limits):
            found = list(process.check_limits(Mock(pid=0)))
        for expected in (
            finding("limits.processor", self.subject, "failure", limit="0 seconds"),
            finding("limits.descriptors", self.subject, "ok none"),
        ):
            self.assertIn(expected, found)

    def test_streams_of_the_doctor(self):
        self.judge("streams", "ok")
        report = self.program("--json", "--check", "process.streams", before="exec <&- 2>&-")
        values = {"numbers": "0 and 2"}
        self.expect(report, "process.streams", "warning closed", self.subject, **values)
        with patch.object(process.os, "listdir", side_effect=PermissionError(13, DENIED)):
            found = process.process_streams(Mock(pid=7))
        self.assertEqual(found, finding("process.streams", "process 7", "unchecked", error=DENIED))

    def test_streams_of_a_process(self):
        for environment, outcome in (
            ({}, "warning lost"),
            ({"TOV_LOG": "stderr"}, "warning lost"),
            ({"TOV_LOG": "syslog"}, "ok"),
        ):
            arguments, name = self.sleeper(stderr=subprocess.DEVNULL, env=environment)
            self.judge("streams", outcome, *arguments, subject=name)

    @AS_OTHERS
    def test_process_of_another_user_is_not_readable(self):
        with contextlib.suppress(OSError), open("/proc/1/environ") as readable:
            readable.close()
            self.skipTest("the first process of this machine is the caller's own")
        report = self.examine("process", "--pid", "1")
        self.assertEqual(report.status, 3)
        self.assertIn(DENIED, report.all())

    def test_folders_come_from_the_environment_of_the_process(self):
        """Without --pid, of the doctor itself."""
        tmp = self.make_folder("a=b")
        environment = {"TOV_RUN_DIR": str(self.run_dir), "TMP": str(tmp)}
        arguments, _ = self.sleeper(env=environment)
        for report in (
            self.doctor("--json", *arguments),
            self.doctor("--json", environment=environment),
        ):
            self.expect(report, "run-dir.exists", "ok", self.run_dir)
            self.expect(report, "tmp-dir.exists", "ok", tmp)
        for environment in ({}, {"TOV_RUN_DIR": "", "TMP": ""}):
            checks = ("--check", "run-dir.length", "--check", "tmp-dir.exists")
            report = self.doctor("--json", *checks, environment=environment)
            self.assertEqual([x["subject"] for x in report.checks], ["/run/tov", "/tmp"])


class LogTest(DoctorTest):
    def test_log_file_is_not_changed(self):
        path = self.folder / "log"
        for text in (None, "", "A line.\n"):
            if text is not None:
                path.write_text(text)
            report = self.examine("log", environment={"TOV_LOG": str(path)})
            self.assertEqual(report.state("log.target"), "ok")
            self.assertEqual(path.read_text() if path.exists() else None, text)

    @AS_ROOT
    def test_syslog_needs_a_logger(self):
        dev = self.make_folder("dev")
        before = f"mount -t tmpfs none {dev}; " + (
            f"for d in null zero urandom full; do touch {dev}/$d; "
            f"mount --bind /dev/$d {dev}/$d; done; mount --rbind {dev} /dev"
        )
        link = f"{before}; ln -s {self.folder}/logger /dev/log"
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as logger:
            logger.bind(str(self.folder / "logger"))
            for before, outcome in ((before, "failure syslog"), (link, "ok syslog")):
                environment = {"TOV_LOG": "syslog"}
                report = self.examine("log.target", environment=environment, before=before)
                self.expect(report, "log.target", outcome, "syslog", error=NOT_THERE)


class ChildrenTest(unittest.TestCase):
    def test_result_of_a_child_is_returned(self):
        for value in ([1, "é"], "x" * 1_000_000):
            self.assertEqual(run_in_child(LONG, lambda given: given, value), value)

    def reason(self, seconds, function, *arguments):
        with self.assertRaises(NoResult) as caught:
            run_in_child(seconds, function, *arguments)
        return str(caught.exception)

    def test_time_limit_of_a_child(self):
        self.assertEqual(self.reason(0.2, time.sleep, LONG), "it took longer than 0.2 seconds")

    def test_time_limit_ends_grandchildren_too(self):
        with tempfile.TemporaryDirectory() as folder:

            def sleep():
                pathlib.Path(folder, str(os.getpid())).touch()
                time.sleep(LONG)

            # On a busy machine, it may not have started yet.
            seconds = 0.1
            while not os.listdir(folder):
                self.reason(seconds, lambda: run_in_child(LONG, sleep))
                seconds *= 2
            for pid in os.listdir(folder):
                status = f"/proc/{pid}/status"
                wait_for(lambda: re.search(r"State:\s+Z|^$", text_or_nothing(status)), LONG / 2)

    def test_fault_in_a_child_is_an_exception(self):
        for function, argument, reason in (
            (lambda zero: 1 / zero, 0, "ZeroDivisionError: division by zero"),
            (os.stat, "/no\x1bne", f"{NOT_THERE}: '/no\\x1bne'"),
            (os._exit, 0, "the checking process ended early"),
            (sys.exit, 0, "SystemExit: 0"),
        ):
            self.assertEqual(self.reason(LONG, function, argument), reason)

    def test_fault_in_a_check_is_a_finding(self):
        site = Mock(timeout=LONG, has_rights=False)

        def check(_site):
            yield finding("pam.library", "x", "ok")
            raise OSError(5, "Input/output error", "/x")

        found = run_job(site, "pam", check, ())
        self.assertEqual([each.state for each in found], ["ok", "unchecked"])
        message = "The rest could not be checked: Input/output error: '/x'."
        self.assertEqual((found[1].name, found[1].message), ("pam", message))
        self.assertEqual(chosen(found, ["pam.library"]), found)


class HostileTextTest(ServiceTest):
    EVIL = "\x1b[31m\r\n\u202e\x7f\udcff\\|"

    def test_control_characters_never_reach_the_terminal(self):
        (self.run_dir / self.EVIL.replace("\\", "")).touch()
        self.path = self.run_dir / "red\x1b[31m.sock"
        body = '<doc><user name="&#10;\u202e\x9b31m" level="1"/></doc>'
        self.listen(answering(body.encode()))
        tmp = self.make_folder("evil\x1b]0;title\x07")
        for option in ("-v", "--json"):
            report = self.doctor(
                option, "--run-dir", self.run_dir, "--tmp-dir", tmp, "--program", tmp,
                environment={"TOV_LOG": "\x1b", "TOV_LOG_LEVEL": "\n"},
            )  # fmt: skip
            text = report.output.replace("\n", "")
            self.assertTrue(text.isprintable(), [c for c in text if not c.isprintable()])
        (found,) = report.findings("back-end.answer")
        self.assertEqual(found["subject"], "red\\x1b[31m")
        self.assertIn(r"'\x0a\u202e\x9b31m'", found["message"])

    def test_printable_escapes_and_shortens(self):
        self.assertEqual(
            printable("aé \\\n\x1b\udcff\u202e\U000e0001"),
            (r"aé \\\x0a\x1b\xff\u202e\U000e0001"),
        )
        self.assertEqual(printable("x" * 300), "x" * 200 + "...")

    def test_sentences_quote_and_escape_names(self):
        message, remedy = sentences(
            "account.folder", "failure", {"subject": "al\x1b", "path": "/a\\"}
        )
        self.assertIn("Confined to '/a\\\\', the account 'al\\x1b' cannot", message)
        self.assertIn("-o al\\x1b -m 0700 /a\\\\/files", remedy)


if __name__ == "__main__":
    unittest.main()
