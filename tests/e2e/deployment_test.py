"""The configurations of docs/deployment.md, each taken out of the document and
run with the real servers: what arrives, what is refused, what is left afterwards."""

import concurrent.futures
import http.client
import json
import os
import pathlib
import pwd
import re
import secrets
import select
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import threading
import time
import unittest

from accounts import GID, UID
import deployment
from deployment import (
    BODY_FOLDERS, LAUNCHER, PIPE, UNITS, WEB, Visitor, machine, may_have_namespaces, needs_root,
    site, web_ids,
)
from panel_server import FORM
from processes import open_files, wait_for
from verdict import full, main


class SiteOfKindTest:
    """With what the person sees asserted, and the logs shown when it is not so."""

    purpose = "panel"

    @classmethod
    def setUpClass(cls):
        cls.site = site(cls.kind, cls.purpose)
        cls.machine = cls.site.machine

    def assert_answer(self, answer, status, text=""):
        if answer.status != status or text not in answer.body:
            came = f"expected {status} with {text!r}, came {answer.status}"
            self.fail(f"{self.machine.logs()}\n{answer.body}\n{came}")

    def test_a_refusal_arrives_though_the_body_is_not_read(self):
        for size in (1000, 1 << 20, 20 << 20):
            answer = self.site.request("POST", "probe=refuse", {}, b"\0" * size)
            self.assert_answer(answer, 413)
            self.assertEqual(answer.body, "Too much.")
        self.assert_nothing_left()

    def test_headers_that_pass_for_variables_do_not_arrive(self):
        names = ("Proxy", "X-Forwarded-For", "X_Forwarded_For", "X.Forwarded.For")
        headers = dict.fromkeys(names, "192.0.2.1")
        variables = json.loads(self.site.get("probe=env", **headers).body)
        self.assertEqual({"HTTP_PROXY", "HTTP_X_FORWARDED_FOR"} & set(variables), set())
        self.assertEqual(variables["TOV_RUN_DIR"], str(self.machine.at("/run/tov")))

    def assert_nothing_left(self):
        folders = [self.machine.at(folder) for folder in BODY_FOLDERS]
        wait_for(lambda: not any(os.listdir(folder) for folder in folders))


class AnswerTest(SiteOfKindTest):
    """What becomes of an answer that comes early, or not whole."""

    status_of_a_body_unread = 413

    def test_a_refusal_without_a_launcher_arrives_only_as_documented(self):
        with self.machine.edited(LAUNCHER, "GET:0 | HEAD:0)", "GET:0 | HEAD:0 | *)"):
            answer = self.site.request("POST", "probe=refuse", {}, bytes(1 << 20))
        self.assertEqual(answer.status, self.status_of_a_body_unread)

    def test_a_download_that_is_cut_off_shows_only_if_its_length_was_sent(self):
        for promised, expected in (("", None), (2 << 20, 1 << 20)):
            query = f"probe=send_part&{type(self).__name__}&{1 << 20}&{promised}"
            with self.site.begin_download(query) as answer:
                self.assertEqual(answer.status, 200)
                try:
                    content, missing = answer.read(), None
                except http.client.IncompleteRead as error:
                    content, missing = error.partial, error.expected
            self.assertEqual((len(content), missing), (1 << 20, expected))


class SiteTest(AnswerTest):
    """What every configuration has to give."""

    room_for_cookies = 30_000

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.visitor = Visitor(cls.site, *web_ids())

    def test_a_user_with_large_cookies_is_known(self):
        cookies = "other=" + "y" * self.room_for_cookies + "; " + self.visitor.cookie
        answer = self.site.get("page=whoami", Cookie=cookies)
        self.assert_answer(answer, 200, f'<b id="name">{self.visitor.name}</b>')

    def test_an_upload_arrives(self):
        content = secrets.token_bytes(2 << 20)
        self.assert_answer(self.visitor.upload(content), 303)
        self.assertEqual((self.visitor.home / "kept").read_bytes(), content)
        self.assert_nothing_left()

    def test_a_body_beyond_the_limit_is_refused(self):
        client = self.site.begin_upload("probe=env", {}, b"x", deployment.BODY_LIMIT + 1)
        with client, client.makefile("rb") as answer:
            self.assertIn(b" 413 ", answer.readline())

    def test_memory_is_bounded(self):
        self.assertEqual(self.site.get("probe=memory").body, "refused")

    def test_a_visitor_who_leaves_in_an_upload_leaves_nothing_behind(self):
        body = self.visitor.form(b"x" * (4 << 20))
        headers = {**FORM, "Cookie": self.visitor.cookie}
        client = self.site.begin_upload("page=upload", headers, body[: 2 << 20], len(body))
        with client:
            wait_for(self.bodies)
        wait_for(lambda: not self.bodies())
        self.assert_nothing_left()

    def bodies(self):
        """Where a body is being written to: by the front end or the server."""
        folders = [self.visitor.home, *map(self.machine.at, BODY_FOLDERS)]
        return [size for folder in folders for size in open_files(folder)]


class LighttpdTest(SiteTest, unittest.TestCase):
    kind = deployment.LighttpdSite


class ApacheTest(SiteTest, unittest.TestCase):
    kind = deployment.ApacheSite


class NginxTest(SiteTest, unittest.TestCase):
    kind = deployment.NginxSite
    status_of_a_body_unread = 502

    def test_an_early_answer_that_a_pipe_cannot_hold_waits_for_the_time_limit(self):
        with self.machine.edited(LAUNCHER, "seconds=3600 ", "seconds=1 "):
            query = f"probe=refuse&long&{2 * PIPE}"
            answer = self.site.request("POST", query, {}, bytes(1 << 20))
        self.assertEqual(answer.status, 502)


class BusyboxTest(SiteTest, unittest.TestCase):
    kind = deployment.BusyboxSite
    # A longer line is cut.
    room_for_cookies = 8000
    # By chance: whoever goes on sending sees the connection closed.
    test_a_refusal_without_a_launcher_arrives_only_as_documented = None


class OtherSiteTest(AnswerTest):
    purpose = "other"


@full
class StreamingLighttpdTest(OtherSiteTest, unittest.TestCase):
    kind = deployment.StreamingLighttpdSite


@full
class ApacheWithThreadsTest(OtherSiteTest, unittest.TestCase):
    kind = deployment.ApacheWithThreads
    # By chance: the answer is often lost.
    test_a_refusal_without_a_launcher_arrives_only_as_documented = None


@full
class StreamingNginxTest(OtherSiteTest, unittest.TestCase):
    kind = deployment.StreamingNginxSite
    status_of_a_body_unread = 502


class PrivilegedSiteTest(SiteOfKindTest):
    """Front ends that become the visitor's account."""

    purpose = "root"

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.visitor = Visitor(cls.site, UID, GID)

    def test_the_front_end_becomes_the_account_and_uploads_belong_to_it(self):
        become = f"{self.visitor.account}</b>, user {UID}."
        self.assert_answer(self.visitor.page("home"), 200, become)
        self.assert_answer(self.visitor.upload(b"content"), 303)
        kept = self.visitor.home / "kept"
        self.assertEqual(kept.read_bytes(), b"content")
        self.assertEqual((kept.stat().st_uid, kept.stat().st_gid), (UID, GID))


@full
class PrivilegedLighttpdTest(PrivilegedSiteTest, unittest.TestCase):
    kind = deployment.LighttpdWithFcgiwrap


@full
class PrivilegedApacheTest(PrivilegedSiteTest, unittest.TestCase):
    kind = deployment.ApacheWithFcgiwrap


class PrivilegedNginxTest(PrivilegedSiteTest, unittest.TestCase):
    kind = deployment.NginxSite

    def set_up_panel(self, variables):
        documented = "PANEL_CONFINE='' PANEL_PAM='' "
        self.enterContext(self.machine.edited(LAUNCHER, documented, variables))

    @needs_root
    def test_the_account_can_be_confined_and_have_a_session(self):
        self.set_up_panel("PANEL_CONFINE=/files PANEL_PAM=1 ")
        visitor = Visitor(self.site, UID, GID)
        home = visitor.home
        os.chown(home, 0, 0)
        home.chmod(0o755)
        (home / "files").mkdir()
        os.chown(home / "files", UID, GID)
        self.assert_answer(visitor.upload(b"content"), 303)
        self.assertEqual((home / "files" / "kept").read_bytes(), b"content")

    @needs_root
    def test_a_session_is_opened(self):
        self.set_up_panel("PANEL_CONFINE= PANEL_PAM=1 ")
        log = self.machine.at("/var/log/panel/front.log")
        before = log.read_text()
        self.assertEqual(self.visitor.page("home").status, 200)
        self.assertEqual(log.read_text().removeprefix(before), "")

    @needs_root
    def test_only_the_web_server_may_connect(self):
        path = self.machine.at("/run/panel-fcgi.sock")
        connect = "import socket, sys; socket.socket(socket.AF_UNIX).connect(sys.argv[1])"
        for user, may in (("nobody", False), (WEB, True)):
            command = ["setpriv", f"--reuid={user}", "--clear-groups"]
            command += ["/usr/bin/python3", "-c", connect, path]
            done = subprocess.run(command, capture_output=True, text=True)
            self.assertEqual(done.returncode == 0, may, done.stderr)

    def test_who_may_connect_chooses_neither_program_nor_loader(self):
        launcher = str(self.machine.at(LAUNCHER))
        request = {"REQUEST_METHOD": "GET", "QUERY_STRING": "probe=env"}
        evil = {"LD_PRELOAD": "/evil.so", "TOV_RUN_DIR": "/evil", "ENV": "/evil", "PATH": "/evil"}
        answer = self.ask({"SCRIPT_FILENAME": launcher, **request, **evil})
        self.assertIn("TOV_RUN_DIR", answer)
        self.assertNotIn("evil", answer)
        program = str(self.machine.at("/opt/panel/bin/panel"))
        answer = self.ask({"SCRIPT_FILENAME": program, **request})
        self.assertIn("403", answer)
        self.assertNotIn("TOV_RUN_DIR", answer)

    def ask(self, variables):
        """One request in FastCGI; everything that comes back."""
        content = b"".join(
            struct.pack(">II", len(name) | 1 << 31, len(value) | 1 << 31) + (name + value).encode()
            for name, value in variables.items()
        )
        records = ((1, b"\0\1" + bytes(6)), (4, content), (4, b""), (5, b""))
        with socket.socket(socket.AF_UNIX) as client:
            client.connect(str(self.machine.at("/run/panel-fcgi.sock")))
            for kind, data in records:
                client.sendall(struct.pack(">BBHHBx", 1, kind, 1, len(data), 0) + data)
            with client.makefile("rb") as answer:
                return answer.read().decode(errors="replace")


class LauncherTest(unittest.TestCase):
    def setUp(self):
        self.standard_input = subprocess.DEVNULL

    def start(self, *command, query="probe=env", **variables):
        process = subprocess.Popen(
            [*command, "/bin/busybox", "sh", machine().at(LAUNCHER)], stdin=self.standard_input,
            env={"REQUEST_METHOD": "GET", "QUERY_STRING": query, **variables},
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
        )
        self.addCleanup(self.give_up, process)
        return process

    def give_up(self, process):
        """Though what it has started may hold its output open."""
        process.kill()
        process.stdout.close()
        process.stderr.close()
        process.wait(60)

    def run_with(self, *command, **variables):
        process = self.start(*command, **variables)
        output, self.errors = process.communicate(timeout=60)
        self.returned = process.returncode
        return output

    def post(self, query, **variables):
        return self.run_with(query=query, REQUEST_METHOD="POST", **variables)

    def change(self, text, replacement):
        self.enterContext(machine().edited(LAUNCHER, text, replacement))

    def open_pipe(self):
        """Sets standard input to a pipe that does not end. Returns its other end."""
        reader, writer = os.pipe()
        self.standard_input = self.enterContext(open(reader, "rb", 0))
        return self.enterContext(open(writer, "wb", 0))

    def open_file(self, size):
        """Sets standard input to a file of zero bytes."""
        self.standard_input = self.enterContext(tempfile.TemporaryFile(buffering=0))
        self.standard_input.truncate(size)

    def test_secrets_of_the_visitor_are_in_no_command_line(self):
        steps = ["set startup-with-shell off", "catch exec", "run"]
        steps += ["info proc cmdline", "continue"] * 4
        debugger = ["gdb", "-nx", "-batch", *(f"--eval-command={step}" for step in steps), "--args"]
        for method in ("GET", "POST"):
            output = self.run_with(*debugger, REQUEST_METHOD=method, HTTP_COOKIE="panelses5=secret")
            commands = re.findall("^cmdline = '(.*)'$", output, re.MULTILINE | re.DOTALL)
            self.assertTrue([each for each in commands if "timeout" in each], output)
            self.assertEqual([each for each in commands if "secret" in each], [])

    def test_variables_pass_by_their_names_whatever_their_values_are(self):
        agent = "it's *\nexport HTTP_COOKIE='x'\nHTTP_HOST\n1\nIFS\nname\n$(exit 3)"
        given = {"HTTP_USER_AGENT": agent, "HTTP_COOKIE": "a=b", "HTTP_HOST": "panel.example"}
        given |= {"HTTP_ORIGIN": "http://panel", "HTTP_SEC_FETCH_SITE": "none"}
        withheld = ("body_limit", "IFS", "SHLVL", "HTTP_PROXY", "LD_PRELOAD", "stopped", "status")
        others = dict.fromkeys((*withheld, "HTTP_X.FORWARDED.FOR"), "3")
        names = {}
        for method in ("GET", "POST"):
            answer = self.run_with(REQUEST_METHOD=method, **given, **others)
            variables = json.loads(answer.partition("\n\n")[2])
            passed = {name: variables.pop(name, None) for name in (*given, "QUERY_STRING")}
            self.assertEqual(passed, {**given, "QUERY_STRING": "probe=env"})
            self.assertEqual(others.keys() & variables.keys(), set())
            names[method] = set(variables)
        self.assertEqual(names["GET"], names["POST"])

    def test_a_page_costs_no_process_but_the_time_limit_s(self):
        for method, length, parent in (
            ("GET", "", "timeout"), ("HEAD", "0", "timeout"), ("GET", "1", "busybox"),
            ("POST", "", "busybox"),
        ):
            variables = {"REQUEST_METHOD": method, "CONTENT_LENGTH": length}
            answer = self.run_with(query="probe=parent", **variables)
            self.assertEqual(answer.partition("\n\n")[2], parent)

    def test_the_exit_status_is_that_of_the_front_end(self):
        signals = (signal.SIGTERM, signal.SIGKILL, signal.SIGXCPU, signal.SIGSEGV)
        ends = [(f"signal&{number}", -number) for number in signals]
        ends += [(f"status&{status}", status) for status in (0, 7, 255)]
        for query, returned in ends:
            for method in ("GET", "POST"):
                with self.subTest(query, method=method):
                    self.run_with(query="probe=end&" + query, REQUEST_METHOD=method)
                    self.assertEqual(self.returned, returned, self.errors)

    def test_the_rest_of_a_body_is_read(self):
        length = {"CONTENT_LENGTH": str(1 << 20)}
        self.open_file(1 << 20)
        self.assertIn("Too much.", self.post("probe=refuse", **length))
        self.assertEqual(self.standard_input.tell(), 1 << 20)
        command = ["head", "--bytes", str(1 << 20), "/dev/zero"]
        with subprocess.Popen(command, stdout=subprocess.PIPE) as sender:
            self.standard_input = sender.stdout
            self.assertIn("Too much.", self.post("probe=refuse", **length))
            self.assertEqual(self.returned, 0)
        self.assertEqual(sender.returncode, 0)

    def test_a_body_beyond_the_limit_is_read_before_its_refusal_ends(self):
        """No more than the limit is read."""
        self.change(f"body_limit={deployment.BODY_LIMIT}\n", f"body_limit={1 << 20}\n")
        self.open_file(16 << 20)
        answer = self.post("probe=env", CONTENT_LENGTH=str((1 << 20) + 1))
        head = "Status: 413 Content Too Large\nContent-Type: text/plain\n\n"
        self.assertEqual(answer, head + "That is more than this server takes.\n")
        self.assertEqual(self.returned, 0)
        # One byte is read to see whether there is more.
        self.assertEqual(self.standard_input.tell(), (1 << 20) + 1)

    def test_a_body_that_does_not_come_is_not_waited_for(self):
        self.change("--foreground 30 ", "--foreground 1 ")
        self.open_pipe()
        started = time.monotonic()
        self.assertIn("Too much.", self.post("probe=refuse", CONTENT_LENGTH="1"))
        self.assertGreater(time.monotonic() - started, 0.9)
        self.assertEqual(self.returned, 0)

    def test_the_time_limit_ends_the_wait_for_a_body_too(self):
        self.change("seconds=3600 ", "seconds=1 ")
        body = select.poll()
        body.register(self.open_pipe(), 0)
        self.post("probe=refuse", CONTENT_LENGTH="1")
        self.assertEqual(self.returned, 124)
        self.assertEqual(body.poll(0), [])
        self.standard_input.close()
        self.assertEqual([event for _, event in body.poll(10_000)], [select.POLLERR])

    def test_a_front_end_that_ignores_the_time_limit_s_signal_is_ended(self):
        self.change("seconds=3600 ", "seconds=3 ")
        self.post("probe=wait_stubbornly&stubborn")
        process, _ = (machine().at("/notes") / "stubborn").read_text().split()
        wait_for(lambda: int(process) not in machine().programs())

    def test_the_rest_of_a_body_is_not_read_after_a_signal(self):
        self.open_pipe().write(b"body")
        process = self.start(query="probe=wait&launcher", REQUEST_METHOD="POST")
        wait_for((machine().at("/notes") / "launcher").exists)
        process.terminate()
        self.assertEqual(process.wait(60), -signal.SIGTERM)
        self.assertEqual(self.standard_input.read(10), b"body")

    def test_shellcheck_accepts_the_launcher(self):
        if not shutil.which("shellcheck"):
            self.skipTest("not installed: shellcheck")
        text = machine().files[LAUNCHER]
        inner = text.partition("/bin/busybox sh -c '")[2].partition("\n' launcher")[0]
        self.assertIn("exit", inner)
        for script in (text, inner):
            # busybox's shell has "read -t", others like it do not.
            command = ["shellcheck", "--shell=dash", "--severity=warning", "--exclude=SC3045", "-"]
            done = subprocess.run(command, input=script, text=True, capture_output=True)
            self.assertEqual(done.stdout, "")


@full
class BackEndTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.visitor = Visitor(site(deployment.LighttpdSite), *web_ids())

    def visit(self, manner):
        return self.visitor.page("whoami", **{"User-Agent": manner})

    def executions(self, manner):
        notes = machine().at("/notes") / manner
        return len(notes.read_text()) if notes.exists() else 0

    def test_a_restart_finishes_what_is_under_way(self):
        with concurrent.futures.ThreadPoolExecutor() as workers:
            visit = workers.submit(self.visit, "slowly")
            wait_for(lambda: self.executions("slowly") >= 1)
            machine().restart("panel-backend", signal.SIGTERM)
            self.assertEqual(visit.result().status, 200)
        # The page asks twice: who it is, and for the session's data.
        self.assertEqual(self.executions("slowly"), 2)

    def test_restarts_and_crashes_lose_no_request(self):
        for number in (signal.SIGTERM, signal.SIGKILL):
            with self.subTest(number):
                statuses, restarted = [], threading.Event()

                def visit_on():
                    while not restarted.is_set():
                        statuses.append(self.visit("").status)

                with concurrent.futures.ThreadPoolExecutor() as workers:
                    visits = [workers.submit(visit_on) for _ in range(4)]
                    try:
                        for _ in range(3):
                            # A master that has just started loses a signal.
                            time.sleep(0.5)
                            answered = len(statuses) + 8
                            wait_for(lambda: len(statuses) >= answered)
                            machine().restart("panel-backend", number)
                    finally:
                        # Else the visitors would go on for ever.
                        restarted.set()
                for visit in visits:
                    visit.result()
                self.assertGreater(len(statuses), 20)
                self.assertEqual(set(statuses), {200})


class SystemdTest(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory(prefix="units-")))
        for path, text in deployment.documented_files().items():
            if path.startswith(UNITS):
                unit = self.folder / path.removeprefix(UNITS)
                unit.parent.mkdir(exist_ok=True)
                unit.write_text(text)

    def analyze(self, *arguments):
        environment = {"PATH": os.environ["PATH"], "SYSTEMD_UNIT_PATH": f"{self.folder}:"}
        return subprocess.run(
            ["systemd-analyze", *arguments], env=environment, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, text=True,
        )

    def test_the_units_are_sound_and_the_services_confined(self):
        services = [*self.folder.glob("*.service")]
        units = [*services, *self.folder.glob("*.socket")]
        self.assertEqual(len(units), 5)
        done = self.analyze("verify", *units)
        self.assertEqual((done.returncode, done.stdout), (0, ""))
        for unit in services:
            with self.subTest(unit.name):
                done = self.analyze("security", "--offline=yes", "--threshold=35", unit)
                self.assertEqual(done.returncode, 0, done.stdout)


class ConfinementTest(unittest.TestCase):
    """That the services above have run as their units say."""

    def status(self, process):
        text = pathlib.Path(f"/proc/{process.pid}/status").read_text()
        return dict(line.split(":\t", 1) for line in text.splitlines())

    @needs_root
    def test_takes_rights_away_but_leaves_root_what_the_switch_takes(self):
        web = str(pwd.getpwnam(WEB).pw_uid)
        for purpose, user, capabilities in (("panel", web, 0), ("root", "0", 7)):
            site(deployment.NginxSite, purpose)
            status = self.status(machine(purpose).services["panel-fcgi"])
            self.assertEqual((status["NoNewPrivs"], status["Seccomp"]), ("1", "2"))
            self.assertEqual(int(status["CapBnd"], 16).bit_count(), capabilities)
            self.assertEqual(set(status["Uid"].split()), {user})

    @unittest.skipUnless(may_have_namespaces(), "needs root, with the right to namespaces")
    def test_takes_network_and_files_away(self):
        process = machine().services["panel-backend"]
        own, its = (os.readlink(f"/proc/{each}/ns/net") for each in ("self", process.pid))
        self.assertNotEqual(own, its)
        view = pathlib.Path(f"/proc/{process.pid}/root")
        self.assertTrue(os.statvfs(view).f_flag & os.ST_RDONLY)
        state = str(machine().at("/var/lib/panel"))
        self.assertFalse(os.statvfs(f"{view}{state}").f_flag & os.ST_RDONLY)


class FolderTest(unittest.TestCase):
    """Those of uploads and logs, as rules of the document make and keep them."""

    def setUp(self):
        self.spool = machine().at("/var/spool/panel")
        self.logs = machine().at("/var/log/panel")

    @needs_root
    def test_are_made(self):
        rules = machine().at("/etc/tmpfiles.d/panel.conf")
        subprocess.run(["systemd-tmpfiles", "--create", rules], check=True)
        for folder, mode in ((self.spool, 0o700), (self.logs, 0o750)):
            self.assertEqual(folder.stat().st_mode & 0o7777, mode)
            self.assertEqual((folder.owner(), folder.group()), (WEB, WEB))

    @needs_root
    def test_lose_what_is_old(self):
        rules = machine().root / "older.conf"
        text = machine().files["/etc/tmpfiles.d/panel.conf"]
        self.assertEqual(text.count(" 1d\n"), 1)
        rules.write_text(text.replace(" 1d\n", " 100ms\n"))
        left = self.spool / "upload-OLDOLD"
        left.mkdir()
        (left / "zantempOLDOLD").write_text("left behind")
        time.sleep(0.2)
        subprocess.run(["systemd-tmpfiles", "--clean", rules], check=True)
        self.assertFalse(left.exists())

    @needs_root
    def test_have_the_log_rotated(self):
        site(deployment.BusyboxSite)
        log = self.logs / "front.log"
        self.assertEqual(self.provoke_message(), 1)
        state = machine().root / "logrotate.state"
        rules = machine().at("/etc/logrotate.d/panel")
        command = ["logrotate", "--verbose", "--force", "--state", state, rules]
        done = subprocess.run(command, capture_output=True, text=True, check=True)
        # Root must not rename where another can put links.
        self.assertIn(f"switching euid from 0 to {pwd.getpwnam(WEB).pw_uid}", done.stderr)
        self.assertEqual((self.logs / "front.log.1").owner(), WEB)
        self.assertFalse(log.exists())
        self.assertEqual(self.provoke_message(), 1)

    def provoke_message(self):
        """Returns how many more messages the log holds then."""
        before = self.messages()
        site(deployment.BusyboxSite).get("page=whoami", Cookie="panelses5=made-up")
        return self.messages() - before

    def messages(self):
        log = self.logs / "front.log"
        return log.read_text().count("You do not authorized") if log.exists() else 0


if __name__ == "__main__":
    main()
