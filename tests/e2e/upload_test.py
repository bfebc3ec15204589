"""Uploads to the panel: what arrives, who is refused, and what stays behind."""

import os
import pathlib
import resource
import shutil
import signal
import socket
import subprocess
import tempfile
import time

from panel_server import (
    BOUNDARY,
    FORM,
    PANEL,
    URLENCODED,
    Panel,
    PanelTest,
    field,
    file,
    form,
    part,
)
from processes import wait_for
from verdict import main

LIMIT = 100 << 20
TOO_LARGE = "Post data too large. Max allowed length is 102400KB"


class Upload:
    """An upload in progress: begun, and waiting for the rest."""

    def __init__(self, panel, session, first, length):
        self.panel = panel
        self.client = socket.create_connection(("127.0.0.1", panel.port), timeout=60)
        head = (
            "POST /panel?page=upload HTTP/1.1\r\nHost: panel\r\n"
            f"Cookie: panelses5={session}\r\nContent-Type: {FORM['Content-Type']}\r\n"
        )
        if length is None:
            head += "Transfer-Encoding: chunked\r\n\r\n"
        else:
            head += f"Content-Length: {length}\r\n\r\n"
        self.client.sendall(head.encode() + first)

    def bytes_stored(self):
        return sum(path.stat().st_size for path in self.panel.spool.glob("upload-*/*"))

    def processes(self):
        """The front end, and its guardian."""
        found = self.panel.front_processes()
        (guardian,) = [process for process, parent in found.items() if parent in found]
        return found[guardian], guardian

    def status(self):
        line = self.client.recv(12)
        return int(line.split()[1])

    def answer(self):
        """To the end of its page: the server waits for the rest of the body."""
        answer = b""
        while b"</html>" not in answer:
            piece = self.client.recv(65536)
            if not piece:
                raise EOFError(answer.decode())
            answer += piece
        return answer.decode()

    def close(self):
        self.client.close()


class UploadTest(PanelTest):
    def setUp(self):
        self.session = self.panel.new_session(self.panel.user)
        self.token = self.panel.token(self.session)
        self.addCleanup(self.assert_nothing_left)
        self.addCleanup(self.empty_home)

    def post(self, body, session=None, headers=None):
        cookie = {"Cookie": f"panelses5={session or self.session}"}
        return self.panel.request("POST", {**FORM, **cookie, **(headers or {})}, body, page="upload")

    def upload(self, *parts):
        return self.post(form(field("token", self.token), *parts))

    def assert_received(self, answer, *files):
        self.assert_page(answer, 200)
        received = [(sent, int(size)) for sent, _, size in self.rows(answer)]
        self.assertEqual(received, list(files))
        total = sum(size for _, size in files)
        self.assertIn(f'<th>Together</th><th></th><th class="numbers">{total}</th>', answer.body)

    def begin(self, content=b"x" * 100_000, before=0):
        """A file that is on its way and never complete. So many bytes of others
        are there before."""
        first = field("token", self.token) + file("f", content)[:-2]
        upload = Upload(self.panel, self.session, first, len(first) + 1_000_000)
        self.addCleanup(upload.close)
        expected = len(content) + before
        wait_for(lambda: upload.bytes_stored() == expected)
        return upload


class Received(UploadTest):
    def test_files_of_any_size(self):
        for size in (0, 1, 65_535, 65_536, 65_537, 3_000_000):
            answer = self.upload(file(f"f{size}", bytes(size)))
            self.assert_received(answer, (f"f{size}", size))
            self.assertEqual(self.panel.kept()[f"f{size}"], bytes(size))

    def test_several_files_in_order_of_their_names(self):
        answer = self.upload(file("b", b"12"), file("a", b"1"), file("\u00e9", b"123"))
        self.assert_received(answer, ("a", 1), ("b", 2), ("\u00e9", 3))

    def test_names_stay_text(self):
        for sent in (
            "<b>bold</b>&amp.txt",
            "%22quoted%22.txt",
            "it's.txt",
            "\u0416\u4e16\U0001f600.txt",
            "../../etc/passwd",
            "C:\\a.txt",
        ):
            answer = self.upload(file(sent, b"abc"))
            self.assert_received(answer, (sent, 3))
            self.assertNotIn("<b>", answer.body)

    def test_what_is_odd_about_the_parts_and_harmless(self):
        one = file("a", b"1")
        for what, parts, received in (
            ("a semicolon ends a name", [file("a;b.txt", b"abc")], [("a", 3)]),
            ("of two files with one name the last counts",
             [file("same", b"the first"), file("same", b"second")], [("same", 6)]),
            ("inputs left empty beside a file",
             [file("", b""), one, file("", b"")], [("a", 1)]),
            ("a parameter that would add to a query",
             [field("sfrom", "x&func=whoami"), one], [("a", 1)]),
            ("what the form has announced",
             [field("announced", "2 3"), one, file("b", b"12")], [("a", 1), ("b", 2)]),
        ):  # fmt: skip
            with self.subTest(what):
                self.assert_received(self.upload(*parts), *received)
                self.empty_home()


class Refused(UploadTest):
    def test_without_a_session_before_anything_is_written(self):
        body = form(field("token", self.token), file("a", b"1"))
        with self.spool_unused():
            answer = self.panel.request("POST", FORM, body, page="upload")
            self.assert_page(answer, 403, "Please sign in first.")
            self.assert_refused(self.post(body, session="made-up"))
            answer = self.panel.request("POST", FORM, body, page="upload", auth=self.session)
            self.assertEqual(answer.status, 404)

    def test_upload_with_a_session_shows_in_the_spool(self):
        """What the tests for an unused spool rest on."""
        with self.assertRaises(AssertionError), self.spool_unused():
            self.assert_received(self.upload(file("a", b"1")), ("a", 1))

    def test_without_the_token_of_this_session(self):
        other = self.panel.token(self.panel.sign_in())
        for token in ("", "wrong", other):
            answer = self.post(form(field("token", token), file("a", b"1")))
            self.assert_refused(answer)
        self.assert_refused(self.post(form(file("a", b"1"))))

    def test_above_the_limit_before_anything_is_written(self):
        body = field("token", self.token) + file("f", bytes(10_000))
        with self.spool_unused():
            # Side by side: the front end waits for the rest of each for a while.
            uploads = [
                Upload(self.panel, self.session, sent, LIMIT + 1) for sent in (body, b"")
            ]
            for upload in uploads:
                answer = upload.answer()
                upload.close()
                self.assertRegex(answer, "^HTTP/1.1 413 ")
                self.assertIn(TOO_LARGE, answer)
                self.assertIn("Please send less at a time.", answer)

    def test_above_the_limit_while_the_client_is_still_sending(self):
        with tempfile.NamedTemporaryFile() as large, self.spool_unused():
            large.truncate(LIMIT)
            done = subprocess.run(
                ["curl", "-q", "--noproxy", "*", "-s", "-H", "Expect:", "-F", f"f=@{large.name}",
                 "-b", f"panelses5={self.session}", "-w", "%{http_code}", f"{self.panel.url}?page=upload"],
                capture_output=True,
                check=False,
                text=True,
                timeout=60,
            )
        self.assertIn(TOO_LARGE, done.stdout)
        self.assertRegex(done.stdout, "413$")

    def test_far_above_the_limit_by_the_web_server(self):
        with self.spool_unused():
            upload = Upload(self.panel, self.session, b"", 20 * LIMIT)
            answer = upload.answer()
            upload.close()
        self.assertRegex(answer, "^HTTP/1.1 413 ")
        self.assertIn("This is more than the panel takes at a time.", answer)

    def test_without_a_file(self):
        for parts in ([], [file("", b"")]):
            self.assert_page(self.upload(*parts), 400, "No file has been chosen.")
        answer = self.post(
            f"token={self.token}&files=a.txt",
            headers=URLENCODED,
        )
        self.assert_page(answer, 400, "No file has been chosen.")

    def test_other_than_announced(self):
        for announced in ("1 3", "2 2", "2", "2 3\nx"):
            parts = field("announced", announced), file("a", b"12"), file("b", b"3")
            self.assert_page(self.upload(*parts), 400, "A part was lost on the way.")

    def test_in_pieces_of_unknown_length(self):
        upload = Upload(self.panel, self.session, b"", None)
        self.addCleanup(upload.close)
        self.assertEqual(upload.status(), 411)

    def test_malformed(self):
        line = "x" * 262_145
        self.assert_page(self.upload(field("long", line)), 400, "Element value size")

    def test_sign_in_that_brings_a_file(self):
        body = form(field("user", self.panel.user), file("a", b"1"))
        with self.spool_unused():
            answer = self.panel.request("POST", FORM, body, page="signin")
        self.assertEqual(answer.status, 415)

    def test_page_that_takes_no_files(self):
        body = form(field("token", self.token), file("a", b"1"))
        headers = {**FORM, "Cookie": f"panelses5={self.session}"}
        with self.spool_unused():
            for items in ({}, {"page": "whoami"}, {"page": "upload", "x": "1"}):
                self.assertEqual(self.panel.request("POST", headers, body, **items).status, 404)

    def test_large_body_to_another_page_is_not_even_collected(self):
        answer = self.panel.request("POST", FORM, bytes(100_000), page="signin")
        self.assertEqual(answer.status, 413)


class BrokenOff(UploadTest):
    """Nothing is left, as each test asserts at its end."""

    def test_by_the_client(self):
        self.begin().close()

    def test_by_a_signal_to_the_front_end(self):
        for name in ("TERM", "KILL", "XCPU", "HUP", "INT", "PIPE"):
            upload = self.begin()
            front, _ = upload.processes()
            os.kill(front, signal.Signals["SIG" + name])
            self.assertEqual(upload.status(), 500, name)
            self.assert_nothing_left()

    def test_after_signals_to_the_guardian(self):
        upload = self.begin()
        front, guardian = upload.processes()
        self.assertNotEqual(os.getpgid(front), os.getpgid(guardian))
        for number in (signal.SIGTERM, signal.SIGHUP, signal.SIGINT, signal.SIGQUIT):
            os.kill(guardian, number)
        upload.close()

    def test_by_the_end_of_the_web_server(self):
        panel = Panel()
        self.addCleanup(panel.stop)
        session = panel.sign_in()
        first = field("token", panel.token(session)) + file("f", b"x" * 1000)
        upload = Upload(panel, session, first, len(first) + 1000)
        self.addCleanup(upload.close)
        wait_for(lambda: upload.bytes_stored() > 0)
        front, _ = upload.processes()
        os.kill(panel.front_processes()[front], signal.SIGKILL)
        wait_for(lambda: not panel.spooled())

    def test_while_another_goes_on(self):
        broken = self.begin(b"1" * 1000)
        other = self.begin(b"2" * 500, before=1000)
        broken.close()
        wait_for(lambda: other.bytes_stored() == 500)
        other.close()

    def test_by_a_body_that_makes_the_parser_go_on_for_ever(self):
        """A chunk that ends with a separator, and one of a single byte."""
        first = field("token", self.token) + file("f", b"abc") + f"--{BOUNDARY}".encode()
        upload = Upload(self.panel, self.session, first, len(first) + 4)
        self.addCleanup(upload.close)
        wait_for(lambda: upload.bytes_stored() == 3)
        front, _ = upload.processes()
        self.assertEqual(resource.prlimit(front, resource.RLIMIT_CPU), (10, 10))
        # One second is enough to see it.
        resource.prlimit(front, resource.RLIMIT_CPU, (1, 1))
        upload.client.sendall(b"-")
        self.assertEqual(upload.status(), 500)


class SlowUpload(PanelTest):
    def test_may_take_longer_than_other_requests(self):
        home = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory(prefix="slow-"))) / "panel"
        shutil.copytree(PANEL, home)
        settings = home / "lighttpd.conf"
        text = settings.read_text()
        quicker = text.replace('"read-timeout" => 60,', '"read-timeout" => 1,')
        self.assertNotEqual(quicker, text)
        settings.write_text(quicker)
        panel = Panel(home=home)
        self.addCleanup(panel.stop)
        session = panel.sign_in()
        body = form(field("token", panel.token(session)), file("f", b"x" * 10_000))
        upload = Upload(panel, session, body[:5000], len(body))
        self.addCleanup(upload.close)
        time.sleep(3)
        upload.client.sendall(body[5000:])
        self.assertEqual(upload.status(), 200)


class FrontEndAlone(PanelTest):
    """Without a web server, to hand it what none would."""

    def setUp(self):
        self.session = self.panel.new_session(self.panel.user)
        self.begun = field("token", self.panel.token(self.session)) + file("f", b"x" * 1000)
        self.spool = self.enterContext(tempfile.TemporaryDirectory(prefix="spool-"))

    def assert_answer(self, status, text, body, **variables):
        """What the log holds is returned."""
        options = variables.pop("options", {})
        variables = {"PANEL_SPOOL": self.spool, **variables}
        with self.panel.start_front(
            self.session, body=body, options=options, **variables
        ) as front:
            answer, errors = front.communicate(timeout=60)
        self.assertEqual(front.returncode, 0, errors)
        self.assertIn(f"Status: {status} ", answer.decode())
        self.assertIn(text, answer.decode())
        self.assertEqual(os.listdir(self.spool), [])
        return errors.decode()

    def test_a_value_that_grows_for_ever_ends_at_the_memory_limit(self):
        """Needs a fifth of the ten seconds of processor time that the panel has."""
        body = field("token", self.panel.token(self.session)) + part("endless", b"x")
        self.assert_answer(500, "The panel has failed.", body, CONTENT_LENGTH=str(len(body) + 1))

    def test_a_body_that_is_cut_short(self):
        reader, writer = os.pipe()
        os.write(writer, self.begun)
        os.close(writer)
        self.assert_answer(
            400,
            "Your request has arrived in part only.",
            self.begun,
            CONTENT_LENGTH=str(len(self.begun) + 1),
            options={"stdin": reader},
        )
        os.close(reader)

    def test_a_disk_that_takes_no_more(self):
        limit = (1000, 1000)
        # Python has SIGXFSZ ignored; the front end is to inherit that.
        options = {
            "restore_signals": False,
            "preexec_fn": lambda: resource.setrlimit(resource.RLIMIT_FSIZE, limit),
        }
        body = form(self.begun, file("g", bytes(10_000)))
        self.assert_answer(507, "error writing temporary file", body, options=options)

    def test_a_spool_that_is_not_there(self):
        """Its name is for the log only."""
        gone = f"{self.spool}/gone"
        wrong = "The panel has failed."
        errors = self.assert_answer(500, wrong, form(self.begun), PANEL_SPOOL=gone)
        self.assertIn(f"no folder for uploads in '{gone}'", errors)


if __name__ == "__main__":
    main()
