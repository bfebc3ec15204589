"""The checks of zancgi-doctor of back ends and sockets."""

import contextlib
import os
import pathlib
import re
import resource
import shlex
import shutil
import socket
import subprocess
import time
import unittest

from doctor_support import AS_ROOT, DENIED, LONG, REFUSAL, STRANGER, WORDS
from doctor_support import DoctorTest, ServiceTest, answering, with_length
from processes import kill, listens, start, wait_for
from zancgi_doctor.checks import back_end
from zancgi_doctor.whoami import length_error

# The program of the README, which greets its user.
FRONT = os.environ["README_FRONT"]
LARGE = "8.0 KB"
NAME_AND_ANSWER = ("--check", "socket.name", "--check", "back-end")
# A typical back end.
APPLICATION = """
def application(environ, start_response):
    body = b'<?xml version="1.0"?><doc><error type="access"/></doc>'
    start_response("200 OK", [("Content-Length", str(len(body)))])
    return [body]
"""


class SocketTest(ServiceTest):
    def test_name_too_long_for_a_socket_is_refused(self):
        service = "x" * (107 - len(f"{self.run_dir}/.sock") + 1)
        arguments = ("--run-dir", self.run_dir, "--service", service)
        error = "the path of its socket has 108 bytes, more than 107"
        report = self.doctor("--json", *NAME_AND_ANSWER, *arguments)
        self.expect(report, "socket.name", "failure", service, error=error)
        self.expect(report, "back-end.connect", "unchecked name", service)

    def test_longest_name_is_accepted(self):
        service = "x" * (107 - len(f"{self.run_dir}/.sock"))
        self.path = self.run_dir / f"{service}.sock"
        self.listen(answering(with_length(REFUSAL)))
        arguments = ("--run-dir", self.run_dir, "--service", service)
        report = self.doctor("--json", *NAME_AND_ANSWER, *arguments)
        self.expect(report, "socket.name", "ok", service)
        self.expect(report, "back-end.answer", "ok refuses", service)

    def test_run_dir_without_sockets_is_reported(self):
        report = self.examine("socket", "--run-dir", self.run_dir)
        self.expect(report, "socket.kind", "warning none", self.run_dir)


class PanelTest(ServiceTest):
    def answer(self, data, *arguments):
        self.listen(answering(data))
        return self.run_checks("back-end", *arguments)

    def judge(self, report, check, outcome, **values):
        self.expect(report, f"back-end.{check}", outcome, "panel", path=str(self.path), **values)

    def assert_well(self, report):
        """Everything is ok except, on a busy machine, the time."""
        states = {check["name"]: check["state"] for check in report.checks}
        self.assertIn(states.pop("back-end.time"), ("ok", "warning"))
        self.assertEqual(set(states.values()), {"ok"}, report.all())


class BackEndTest(PanelTest):
    def test_sound_back_end_passes_all_checks(self):
        report = self.answer(with_length(REFUSAL))
        name = pathlib.Path("/proc/self/comm").read_text().strip()
        self.judge(report, "connect", "ok", listener=f" ({name})")
        self.judge(report, "answer", "ok refuses")
        self.judge(report, "length", "ok")
        self.judge(report, "large-request", "ok", size=LARGE)
        self.assert_well(report)

    def test_answer_of_a_second_or_more_is_slow(self):
        for seconds, state, shown in (
            (0.5, "ok", "500.0 ms"),
            (0.9999, "ok", "999.9 ms"),
            (1, "warning", "1.0 s"),
            (1.5, "warning", "1.5 s"),
        ):
            found = back_end.answer_time("panel", seconds)
            message = f"The answer to whoami took {shown}."
            self.assertEqual((found.state, found.message), (state, message))

    def test_time_of_the_answer_is_measured(self):
        def answer(listener, connection):
            listener.read(connection)
            time.sleep(1.1)
            connection.sendall(REFUSAL)

        self.listen(answer)
        (found,) = self.run_checks().findings("back-end.time")
        self.assertEqual(found["state"], "warning")
        self.assertRegex(found["message"], r"^The answer to whoami took \d+\.\d s\.$")

    def test_services_are_found_by_their_sockets(self):
        self.listen(answering(with_length(REFUSAL)))
        self.bind(self.run_dir / "mail.sock", 0o660)
        (self.run_dir / ".hidden.sock").touch()
        report = self.examine("back-end.connect", "--run-dir", self.run_dir)
        found = [(check["subject"], check["state"]) for check in report.checks]
        self.assertEqual(found, [("mail", "failure"), ("panel", "ok")])

    def test_full_queue_is_reported_at_the_time_limit(self):
        listener = socket.socket(socket.AF_UNIX)
        self.addCleanup(listener.close)
        listener.bind(str(self.path))
        listener.listen(0)
        with contextlib.suppress(BlockingIOError):
            while True:
                client = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM | socket.SOCK_NONBLOCK)
                self.addCleanup(client.close)
                client.connect(str(self.path))
        begin = time.monotonic()
        report = self.run_checks("back-end", "--timeout", "0.5")
        self.assertGreaterEqual(time.monotonic() - begin, 0.5)
        self.judge(report, "connect", "failure", error="its queue is full")

    @AS_ROOT
    def test_doctor_connects_as_the_front_end(self):
        self.listen(answering(with_length(REFUSAL)))
        self.path.chmod(0o660)
        report = self.run_checks("back-end", "--as", STRANGER)
        self.judge(report, "connect", "failure", error=DENIED)

    def test_valid_answers_are_interpreted_as_by_authorize(self):
        session = ("--session", "a1")
        alice = b'<doc><user name="alice" level="%s"/></doc>'
        both = b'<doc><user name="x" level="1"/><error type="access"/></doc>'
        guest = b'<doc><user name="guest" level="0"/></doc>'
        odd = REFUSAL.replace(b"access", b"se&#10;ssion")
        untyped = REFUSAL.replace(b' type="access"', b"")
        for body, arguments, outcome, values in (
            (odd, (), "warning refuses", {"kind": "'se\\x0assion'"}),
            (untyped, (), "warning refuses", {"kind": "none"}),
            (REFUSAL, session, "failure refuses", {"kind": "'access'"}),
            (guest, (), "warning accepts", {"name": "guest"}),
            (alice % b"7", session, "ok", {"name": "alice", "level": "7"}),
            (alice % b"-12", session, "ok", {"name": "alice", "level": "-12"}),
            (alice % b"high", session, "warning level", {"name": "alice", "level": "high"}),
            (both, (), "ok refuses", {}),
        ):
            with self.subTest(body=body):
                self.judge(self.answer(body, *arguments), "answer", outcome, **values)

    def test_session_is_read_from_a_file_or_standard_input(self):
        listener = self.listen(answering(REFUSAL))
        file = self.make_file("session", "3f9c27d1\nmore\n")
        self.run_checks("back-end", "--session-file", file)
        with open(file) as stream:
            self.run_checks("back-end", "--session-file", "-", stdin=stream)
        for request in (listener.requests[0], listener.requests[2]):
            self.assertIn(b"panelses5=3f9c27d1\0", request)
        for text in ("", "a b\n"):
            file.write_text(text)
            self.assertEqual(self.run_checks("back-end", "--session-file", file).status, 3)
        for path in (self.folder / "none", self.make_fifo()):
            self.assertEqual(self.run_checks("back-end", "--session-file", path).status, 3)

    def test_no_part_of_the_session_is_shown(self):
        short, long = "s3f9c27d1secret", "s3f9c27d1" * 40
        for session, body in (
            (short, f'<doc><user name="{short}" level="{short}"/></doc>'),
            (short, f'<doc><error type="{short}"/></doc>'),
            (short, f"<{short}/>"),
            (long, f"<{long}/>"),
            (long, f'<?xml version="1.0" encoding="{long}"?><doc/>'),
        ):
            self.listen(answering(body.encode()))
            for option in ("-v", "--json"):
                report = self.doctor(
                    option, "--check", "back-end", "--run-dir", self.run_dir,
                    "--service", "panel", "--session", session,
                )  # fmt: skip
                self.assertNotIn("s3f9c27d1", report.all())
                self.assertIn("(session)", report.output)

    def test_session_of_digits_is_not_shown_as_a_level(self):
        session = "1234567890123456"
        body = f'<doc><user name="alice" level="{session}"/></doc>'.encode()
        report = self.answer(body, "--session", session)
        self.judge(report, "answer", "ok", name="alice", level="(session)")

    def test_session_is_not_sent_into_an_unsafe_folder(self):
        connections = []
        self.run_dir.chmod(0o777)
        self.listen(lambda _, connection: connections.append(connection))
        for check in ("back-end", "back-end.answer"):
            report = self.run_checks(check, "--session", "3f9c27d1")
            unsafe = f"'{self.run_dir}' is writable by everybody"
            self.judge(report, "session", "failure", unsafe=unsafe)
            self.assertEqual((report.status, len(report.checks)), (2, 1))
        self.assertEqual(connections, [])

    def test_session_is_not_sent_by_an_unsafe_link(self):
        other = self.make_folder("panel")
        link, self.path = self.path, other / "panel.sock"
        link.symlink_to(self.path)
        listener = self.listen(answering(REFUSAL))
        self.path = link
        self.judge(self.run_checks("back-end", "--session", "3f9c27d1"), "session", "ok")
        self.assertEqual(len(listener.requests), 2)
        other.chmod(0o777)
        report = self.run_checks("back-end", "--session", "3f9c27d1")
        self.judge(report, "session", "failure", unsafe=f"'{other}' is writable by everybody")
        self.assertEqual(len(listener.requests), 2)

    def test_unsafe_socket_gets_a_request_without_a_session(self):
        self.run_dir.chmod(0o777)
        report = self.answer(REFUSAL)
        self.judge(report, "answer", "ok refuses")
        self.assertEqual(report.findings("back-end.session"), [])

    def test_text_before_the_declaration_is_ignored(self):
        report = self.answer(b"Noise\n" + REFUSAL)
        self.judge(report, "answer", "ok refuses")
        self.judge(report, "length", "warning")

    def test_sound_lengths_are_recognized(self):
        for length in (b"5", b"6", b"0" * 5000 + b"6", b"0"):
            error = length_error(b"Content-Length: " + length + b"\r\n\r\n<doc/>")
            self.assertEqual(error, ("", True))

    def test_incomplete_answers_are_reported(self):
        def trickle(_, connection):
            """The time limit applies to the whole answer, not to each byte."""
            while True:
                connection.sendall(b"x")
                time.sleep(0.05)

        def never_closes(listener, connection):
            answering(with_length(REFUSAL))(listener, connection)
            connection.recv(1)

        def closes_with_more_to_read(_, connection):
            connection.recv(5)
            connection.recv(1, socket.MSG_PEEK)

        short = ("--timeout", "1")
        for answer, outcome, arguments in (
            (lambda listener, connection: listener.read(connection), "failure closed", ()),
            (closes_with_more_to_read, "failure reset", ()),
            (lambda _, connection: connection.recv(1 << 20) and connection.recv(1),
             "failure timeout", short),
            (never_closes, "failure timeout half-way", short),
            (trickle, "failure timeout half-way", short),
        ):  # fmt: skip
            with self.subTest(outcome=outcome):
                self.listen(answer)
                report = self.run_checks("back-end", *arguments)
                self.judge(report, "answer", outcome)
                self.assertEqual(report.findings("back-end.large-request"), [])

    def test_endless_answer_needs_little_memory(self):
        def answer(listener, connection):
            while True:
                connection.sendall(b"x" * 65536)

        self.listen(answer)
        limit = 128 << 20
        report = self.program(
            "--json", "--check", "back-end", "--run-dir", self.run_dir, "--service", "panel",
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_AS, (limit, limit)),
        )  # fmt: skip
        self.judge(report, "answer", "failure too long", limit="1.0 MB")

    def test_back_end_that_refuses_large_requests_is_reported(self):
        def answer(listener, connection):
            listener.read(connection)
            if len(listener.requests[-1]) < 8192:
                connection.sendall(REFUSAL)

        self.listen(answer)
        self.judge(self.run_checks(), "large-request", "failure", size=LARGE)

    def test_back_end_may_end_between_two_requests(self):
        def answer(listener, connection):
            answering(REFUSAL)(listener, connection)
            listener.socket.shutdown(socket.SHUT_RDWR)

        self.listen(answer)
        self.judge(self.run_checks(), "large-request", "unchecked", error="Connection refused")


class AgainstTheLibraryTest(PanelTest):
    """Front ends and the doctor agree about a back end."""

    def run_front(self, **environment):
        return subprocess.run(
            [FRONT],
            env={"TOV_RUN_DIR": str(self.run_dir), **environment},
            stdin=subprocess.DEVNULL,
            capture_output=True,
            timeout=LONG,
            check=True,
        ).stdout

    def test_front_end_sends_the_same_request(self):
        listener = self.listen(answering(REFUSAL))
        self.run_checks("back-end", "--session", "a1")
        of_doctor, large = listener.requests
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
        cookie = re.search(rb"HTTP_COOKIE\0([^\0]*)\0", large)[1]
        self.assertEqual(cookie, b"panelses5=a1; zancgi-doctor=" + b"x" * 8192)

    def test_front_end_and_doctor_refuse_the_same_answers(self):
        """None: both accept it."""
        user = b'<doc><user name="alice" level="7"/></doc>'
        declared = b'<?xml version="1.0"?>' + user
        encoded = '<?xml version="1.0" encoding="{}"?><doc/>'.format
        # Entities that expand a billionfold.
        entities = b'<!ENTITY a0 "ha">' + b"".join(
            b'<!ENTITY a%d "%s">' % (i, b"&a%d;" % (i - 1) * 10) for i in range(1, 10)
        )
        bomb = b'<?xml version="1.0"?><!DOCTYPE doc [' + entities + b"]><doc>&a9;</doc>"
        ill = "it is not well-formed XML ({})".format
        unread = "its encoding is not supported ({})".format
        headed = "it has header lines, but no '<?xml' after them"
        neither = "it has neither /doc/user nor /doc/error"
        element = "its document element is '{}', not 'doc'".format
        short = "its body has {} bytes, but its Content-Length is {}".format
        senseless = "its Content-Length is invalid"
        for data, error in (
            (user, None),
            (declared, None),
            (with_length(declared), None),
            (with_length(user), headed),
            (b"Noise: x\nmore\n" + declared, None),
            (b"noise " + user, ill("syntax error: line 1, column 0")),
            (b"A: b\n\n" + user, headed),
            (declared + b" \n", None),
            (declared + b"x", ill("junk after document element: line 1, column 62")),
            (declared + b"\0", "it contains a zero byte"),
            (declared + user, ill("junk after document element: line 1, column 62")),
            (declared[:-1], ill("unclosed token: line 1, column 56")),
            (b"\xef\xbb\xbf" + user, None),
            (b"<doc><a/><!-- --><user name='alice'/></doc>", None),
            (b"<doc><a><user name='alice'/></a></doc>", neither),
            (b"<doc>" + b"<a>" * 100_000 + b"</a>" * 100_000 + b"</doc>", neither),
            (b"<DOC><user name='alice'/></DOC>", element("DOC")),
            (b"<doc/>", neither),
            (encoded("x-none").encode(), unread("unknown encoding: x-none")),
            (encoded("shift_jis").encode(), unread("multi-byte encodings are not supported")),
            (bomb, "it has a document type declaration, which is not supported"),
            (b"Content-Length: 5\r\n\r\n" + declared, None),
            (b"Content-Length: 500\r\n\r\n" + declared, short(62, 500)),
            (b"Content-Length: x\r\n\r\n" + declared, senseless),
            (b"Content-Length: -1\r\n\r\n" + declared, senseless),
            (b"Content-Length: \r\n\r\n" + declared, senseless),
            (b"Content-Length: 5\ncontent-length: 6\n\n" + declared, senseless),
            (b"content-length:\t" + b"0" * 24 + b"5 \nContent-Length: 5\n\n" + declared, None),
            (b"Content-Length: 18446744073709551615\n\n" + declared, short(62, (1 << 64) - 1)),
            (b"Content-Length: 18446744073709551616\n\n" + declared, senseless),
            (b"Content-Length: " + b"9" * 5000 + b"\n\n" + declared, senseless),
            (b"Content-Length: 500\nno header\n\n" + declared, None),
            (b"Content-Length: 500\n" + declared, None),
            (b"Content-Length: 500", short(0, 500)),
            (b"Content-Length: 99\r\nX: y", short(0, 99)),
            (b"Content-Length: 99\r\nX-Cut", short(0, 99)),
            (b"Content-Length", ill("syntax error: line 1, column 0")),
            (b" \r\n\r\n" + declared, None),
            (b"\r\n" + declared, None),
            (b"\r", ill("no element found: line 2, column 0")),
            (b":\n\n" + declared, None),
        ):
            with self.subTest(data=data[:99]):
                self.listen(answering(data))
                answer = self.run_front(REQUEST_METHOD="GET", HTTP_COOKIE="panelses5=a1")
                self.assertEqual(answer.endswith(b"<p>You are alice."), error is None)
                report = self.run_checks("back-end", "--session", "a1")
                if error is None:
                    self.assertIn(report.state("back-end.answer"), ("ok", "warning"))
                    continue
                outcome = "failure length" if "Content-Length" in error else "failure document"
                self.judge(report, "answer", outcome, error=error)
                self.assertEqual(report.findings("back-end.length"), [])


class RealBackEndTest(PanelTest):
    def start(self, *command):
        if not shutil.which(command[0]):
            self.skipTest(f"there is no {command[0]} on this machine")
        self.addCleanup(kill, start(command, self.folder / "log"))
        wait_for(lambda: listens(self.path), LONG)

    def start_uwsgi(self, *options):
        application = self.make_file("application.py", APPLICATION)
        self.start(
            "uwsgi", "--need-plugin=python3", f"--scgi-socket={self.path}",
            f"--wsgi-file={application}", "--master", "--workers=1", "--need-app", *options,
        )  # fmt: skip

    def test_uwsgi_passes_all_checks(self):
        self.start_uwsgi("--buffer-size=65535")
        report = self.run_checks()
        self.assert_well(report)
        self.judge(report, "connect", "ok", listener=" (uwsgi)")

    def test_uwsgi_with_its_default_buffer_refuses_large_requests(self):
        self.start_uwsgi()
        report = self.run_checks()
        self.judge(report, "answer", "ok refuses")
        self.judge(report, "large-request", "failure", size=LARGE)

    def test_haproxy_without_servers_is_recognized(self):
        configuration = self.make_file(
            "haproxy.cfg",
            "defaults\n mode tcp\n timeout connect 1s\n timeout client 9s\n timeout server 9s\n"
            f"listen panel\n bind unix@{self.path}\n server a unix@{self.folder}/none\n",
        )
        self.start("haproxy", "-db", "-f", str(configuration))
        self.judge(self.run_checks(), "answer", "failure no server")


class FcgiTest(DoctorTest):
    def found(self, *more):
        """The sockets that the doctor finds after these commands."""
        paths = [f"/run/{name}" for name in ("fcgiwrap.socket", "a.sock", "b.sock", "c.sock")]
        make = f"{WORDS}\nunconfigured; sockets 600 {' '.join(paths)}"
        report = self.examine("fcgi.kind", before="; ".join([make, *more]))
        return [(check["subject"], check["state"]) for check in report.checks]

    def unit(self, name, text):
        path = f"/etc/systemd/system/{name}"
        return f"mkdir -p {os.path.dirname(path)}; printf %s {shlex.quote(text)} > {path}"

    @AS_ROOT
    def test_socket_of_the_package_is_found(self):
        self.assertEqual(self.found(), [("/run/fcgiwrap.socket", "ok")])
        self.assertEqual(self.found("rm /run/fcgiwrap.socket"), [("", "skipped")])

    @AS_ROOT
    def test_sockets_of_units_are_found(self):
        runs = "[Service]\nExecStart=/usr/sbin/fcgiwrap -f -c 8\n"
        listens = "[Socket]\nListenStream=/run/{}.sock\n"
        default = ("/run/fcgiwrap.socket", "ok")
        listens_itself = {
            "panel.service": "[Service]\nExecStart=-/x/fcgiwrap -s unix:/run/b.sock -c 1\n",
            "other.service": "[Service]\nExecStart=/usr/sbin/fcgiwrapper\n",
            "other.socket": listens.format("a"),
        }
        by_another_name = {
            "panel.service": runs,
            "web.socket": listens.format("c") + "Service=panel.service\n",
            "panel.socket.d/more.conf": listens.format("a"),
        }
        for units, expected in (
            ({"panel.service": runs, "panel.socket": listens.format("a")}, ["a"]),
            (listens_itself, ["b"]),
            (by_another_name, ["c", "a"]),
            ({"panel.service": runs, "panel.socket": listens.format("none")}, []),
        ):
            found = self.found(*(self.unit(name, text) for name, text in units.items()))
            paths = [(f"/run/{name}.sock", "ok") for name in expected]
            self.assertEqual(sorted(found), sorted([default, *paths]), units)


if __name__ == "__main__":
    unittest.main()
