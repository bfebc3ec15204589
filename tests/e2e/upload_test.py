"""Uploads to the panel: what arrives, who is refused, and what stays behind."""

import contextlib
import glob
import os
import pathlib
import resource
import shutil
import signal
import socket
import subprocess
import tempfile
import time

from panel_server import FORM, PANEL, URLENCODED, Panel, PanelTest, field, file, form
from processes import wait_for
from verdict import main

LIMIT = 100 << 20
TOO_LARGE = "Please send less at a time."


def bytes_on_their_way(folder):
    """Of each file below the folder that a process has open, with a name or
    without."""
    sizes = []
    for link in glob.iglob("/proc/[0-9]*/fd/*"):
        with contextlib.suppress(OSError):  # gone meanwhile
            if os.readlink(link).startswith(f"{folder}/"):
                sizes.append(os.stat(link).st_size)
    return sorted(sizes)


class Upload:
    """An upload in progress: begun, and waiting for the rest."""

    def __init__(self, panel, session, first, length):
        self.client = socket.create_connection(("127.0.0.1", panel.port), timeout=60)
        head = (
            "POST /panel?page=upload HTTP/1.1\r\nHost: panel\r\nOrigin: http://panel\r\n"
            f"Cookie: panelses5={session}\r\nContent-Type: {FORM['Content-Type']}\r\n"
        )
        if length is None:
            head += "Transfer-Encoding: chunked\r\n\r\n"
        else:
            head += f"Content-Length: {length}\r\n\r\n"
        self.client.sendall(head.encode() + first)

    def status(self):
        line = self.client.recv(12)
        return int(line.split()[1])

    def close(self):
        self.client.close()


class UploadTest(PanelTest):
    def setUp(self):
        self.session = self.panel.new_session(self.panel.user)
        self.token = self.panel.token(self.session)
        self.addCleanup(self.empty_home)
        self.addCleanup(self.assert_nothing_left)

    def post(self, body, session=None, headers=None, **items):
        cookie = {"Cookie": f"panelses5={session or self.session}"}
        headers = {**FORM, **cookie, **(headers or {})}
        return self.panel.request("POST", headers, body, page="upload", **items)

    def upload(self, *parts, **items):
        return self.post(form(field("token", self.token), *parts), **items)

    def assert_kept(self, answer, **files):
        self.assert_page(answer, 303)
        self.assertEqual(self.panel.kept(), files)

    def begin(self, content=b"x" * 100_000, before=()):
        """A file that is on its way and never complete; the sizes of others are
        there before."""
        first = field("token", self.token) + file("f", content)[:-2]
        upload = Upload(self.panel, self.session, first, len(first) + 1_000_000)
        self.addCleanup(upload.close)
        expected = sorted([*before, len(content)])
        wait_for(lambda: bytes_on_their_way(self.panel.home) == expected)
        return upload


class Received(UploadTest):
    def test_files_of_any_size(self):
        for size in (0, 1, 65_535, 65_536, 65_537, 3_000_000):
            content = os.urandom(size)
            self.assert_kept(self.upload(file("f", content)), f=content)
            self.empty_home()

    def test_what_is_odd_about_the_parts_and_harmless(self):
        one = file("a", b"1")
        for what, parts, kept in (
            ("a semicolon", [file("a;b.txt", b"abc")], {"a;b.txt": b"abc"}),
            ("several files", [file("b", b"12"), one], {"a": b"1", "b": b"12"}),
            ("inputs left empty", [file("", b""), one, file("", b"")], {"a": b"1"}),
            ("a field for the back end", [field("sfrom", "x&func=whoami"), one], {"a": b"1"}),
            ("a long line", [field("long", "x" * 300_000), one], {"a": b"1"}),
        ):
            with self.subTest(what):
                self.assert_kept(self.upload(*parts), **kept)
                self.empty_home()

    def test_into_the_folder_that_is_shown(self):
        folder = self.panel.home / "inner" / "most & +"
        folder.mkdir(parents=True)
        for each in (folder, folder.parent):
            os.chown(each, self.panel.home.stat().st_uid, self.panel.home.stat().st_gid)
        answer = self.upload(file("a", b"1"), path="inner/most & +")
        self.assert_page(answer, 303)
        self.assertEqual(answer.headers["Location"], "/panel?page=home&path=inner%2Fmost%20%26%20%2B")
        self.assertEqual((folder / "a").read_bytes(), b"1")


class Refused(UploadTest):
    def setUp(self):
        super().setUp()
        self.addCleanup(lambda: self.assertEqual(self.panel.kept(), {}))

    def test_without_a_session(self):
        body = form(field("token", self.token), file("a", b"1"))
        for cookie, text in (
            ("", "Please sign in first."),
            ("panelses5=", "Please sign in first."),
            ("panelses5=made-up", "your session has ended"),
        ):
            answer = self.panel.request("POST", {**FORM, "Cookie": cookie}, body, page="upload")
            self.assert_page(answer, 403, text)

    def test_without_the_token_of_this_session(self):
        other = self.panel.token(self.panel.sign_in())
        for token in ("", "wrong", other):
            self.assert_refused(self.post(form(field("token", token), file("a", b"1"))))
        self.assert_refused(self.post(form(file("a", b"1"))))

    def test_from_another_site(self):
        body = form(field("token", self.token), file("a", b"1"))
        answer = self.post(body, headers={"Origin": "http://elsewhere"})
        self.assert_page(answer, 403, "Another site has sent this request.")

    def test_above_the_limit_while_the_client_is_still_sending(self):
        for size, text in ((LIMIT, TOO_LARGE), (20 * LIMIT, "This is more than the panel takes")):
            with tempfile.NamedTemporaryFile() as large:
                large.truncate(size)
                done = subprocess.run(
                    ["curl", "-q", "--noproxy", "*", "-s", "-H", "Expect:", "-F", f"f=@{large.name}",
                     "-H", f"Origin: {self.panel.url.removesuffix('/panel')}",
                     "-b", f"panelses5={self.session}", "-w", "%{http_code}",
                     f"{self.panel.url}?page=upload"],
                    capture_output=True, check=False, text=True, timeout=60,
                )  # fmt: skip
            self.assertIn(text, done.stdout)
            self.assertRegex(done.stdout, "413$")

    def test_without_a_file(self):
        for parts in ([], [file("", b"")]):
            self.assert_page(self.upload(*parts), 400, "No file has been chosen.")

    def test_forms_that_are_none(self):
        body = form(field("token", self.token), file("a", b"1"))
        for headers, body, status in (
            (URLENCODED, f"token={self.token}&files=a.txt", 415),
            ({"Content-Type": "text/plain"}, body, 415),
            ({"Content-Type": "multipart/form-data"}, body, 400),
            ({}, body[:-10], 400),
            ({}, body.replace(b"form-data", b"attachment"), 400),
        ):
            self.assert_page(self.post(body, headers=headers), status)

    def test_in_pieces_of_unknown_length(self):
        upload = Upload(self.panel, self.session, b"", None)
        self.addCleanup(upload.close)
        self.assertEqual(upload.status(), 411)

    def test_pages_that_take_no_files(self):
        headers = {**FORM, "Cookie": f"panelses5={self.session}"}
        for page, status in (("signin", 415), ("signout", 415), ("change", 415), ("whoami", 404)):
            body = form(field("token", self.token), file("a", b"1"))
            answer = self.panel.request("POST", headers, body, page=page)
            self.assertEqual(answer.status, status, page)

    def test_large_body_to_another_page_is_not_even_collected(self):
        answer = self.panel.request("POST", FORM, bytes(100_000), page="signin")
        self.assertEqual(answer.status, 413)

    def test_above_what_a_file_may_hold(self):
        """As where a disk takes no more."""
        options = {
            # Python has SIGXFSZ ignored; the front end is not to inherit that.
            "preexec_fn": lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (1000, 1000)),
        }
        body = form(field("token", self.token), file("g", bytes(10_000)))
        with self.panel.start_front(self.session, body=body, options=options) as front:
            answer, errors = front.communicate(timeout=60)
        self.assertIn("Status: 507 ", answer.decode(), errors)


class BrokenOff(UploadTest):
    """Nothing is left, as each test asserts at its end."""

    def setUp(self):
        super().setUp()
        self.addCleanup(lambda: self.assertEqual(list(self.panel.home.iterdir()), []))

    def test_by_the_client(self):
        self.begin().close()
        self.assert_nothing_left()

    def test_by_a_signal_to_the_front_end(self):
        for name in ("TERM", "KILL", "XCPU", "HUP", "INT"):
            upload = self.begin()
            (front,) = self.panel.front_processes()
            os.kill(front, signal.Signals["SIG" + name])
            self.assertEqual(upload.status(), 500, name)
            self.assert_nothing_left()

    def test_while_another_goes_on(self):
        broken = self.begin(b"1" * 1000)
        other = self.begin(b"2" * 500, before=[1000])
        broken.close()
        wait_for(lambda: bytes_on_their_way(self.panel.home) == [500])
        other.close()
        self.assert_nothing_left()


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
        self.assertEqual(upload.status(), 303)


if __name__ == "__main__":
    main()
