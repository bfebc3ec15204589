"""Uploads to the panel: what arrives, what is refused, and which files stay."""

import contextlib
import os
import pathlib
import resource
import shutil
import signal
import subprocess
import tempfile
import time

from client import CURL, begin_post, status_on
from panel_server import FORM, PANEL, URLENCODED, Panel, PanelTest, field, file, form
from processes import open_files, wait_for
from verdict import full, main

LIMIT = 100 << 20
TOO_LARGE = "Please send less at a time."


class UploadTest(PanelTest):
    def setUp(self):
        self.session = self.panel.new_session()
        self.token = self.panel.token(self.session)
        self.addCleanup(self.empty_home)
        self.addCleanup(self.assert_nothing_left)

    def post(self, body, headers=(), session=None, page="upload", **items):
        headers = {**FORM, **dict(headers)}
        session = self.session if session is None else session
        return self.panel.request("POST", headers, body, session=session, page=page, **items)

    def upload(self, *parts, **items):
        return self.post(form(field("token", self.token), *parts), **items)

    def assert_kept(self, answer, **files):
        self.assert_page(answer, 303)
        self.assertEqual(self.panel.kept(), files)

    def begin(self, sent, length, panel=None, session=None):
        """An upload in progress, waiting for the rest."""
        headers = {**FORM, "Cookie": f"panelses5={session or self.session}"}
        address = (panel or self.panel).address
        connection = begin_post(address, "/panel?page=upload", headers, sent, length)
        self.addCleanup(connection.close)
        return connection

    def begin_file(self, content=b"x" * 100_000, before=()):
        """One that is never complete; the sizes of others are there before."""
        first = field("token", self.token) + file("f", content)[:-2]
        connection = self.begin(first, len(first) + 1_000_000)
        expected = sorted([*before, len(content)])
        wait_for(lambda: open_files(self.panel.home) == expected)
        return connection


class ReceivedFile(UploadTest):
    def test_arrives_whatever_its_size_and_among_odd_but_harmless_parts(self):
        one = file("a", b"1")
        sizes = (0, 1, 65_535, 65_536, 65_537, 3_000_000)
        contents = {f"{size} bytes": os.urandom(size) for size in sizes}
        for what, parts, kept in (
            ("files of any size", [file(*each) for each in contents.items()], contents),
            ("a semicolon", [file("a;b.txt", b"abc")], {"a;b.txt": b"abc"}),
            ("several files", [file("b", b"12"), one], {"a": b"1", "b": b"12"}),
            ("inputs left empty", [file("", b""), one, file("", b"")], {"a": b"1"}),
            ("a field for the back end", [field("sfrom", "x&func=whoami"), one], {"a": b"1"}),
            ("a long line", [field("long", "x" * 300_000), one], {"a": b"1"}),
        ):
            with self.subTest(what):
                self.assert_kept(self.upload(*parts), **kept)
                self.empty_home()

    def test_is_stored_in_the_folder_that_is_shown(self):
        folder = self.panel.home / "inner" / "most & +"
        folder.mkdir(parents=True)
        for each in (folder, folder.parent):
            os.chown(each, self.panel.home.stat().st_uid, self.panel.home.stat().st_gid)
        answer = self.upload(file("a", b"1"), path="inner/most & +")
        self.assert_page(answer, 303)
        location = "/panel?page=home&path=inner%2Fmost%20%26%20%2B"
        self.assertEqual(answer.headers["Location"], location)
        self.assertEqual((folder / "a").read_bytes(), b"1")


class RefusedUpload(UploadTest):
    def setUp(self):
        super().setUp()
        self.addCleanup(lambda: self.assertEqual(self.panel.kept(), {}))

    def test_has_no_session_or_not_its_token(self):
        self.assert_refused(self.upload(file("a", b"1"), session="made-up"))
        self.assert_refused(self.post(form(file("a", b"1"))))
        for token in ("", "wrong", self.panel.token(self.panel.new_session())):
            self.assert_refused(self.post(form(field("token", token), file("a", b"1"))))

    def test_is_above_the_limit_and_still_arriving(self):
        for size, text in ((LIMIT, TOO_LARGE), (20 * LIMIT, "This is more than the panel accepts")):
            with tempfile.NamedTemporaryFile() as large:
                large.truncate(size)
                done = subprocess.run(
                    [*CURL, "-H", "Expect:", "-F", f"f=@{large.name}", "-w", "%{http_code}",
                     "-H", f"Origin: {self.panel.url.removesuffix('/panel')}",
                     "-b", f"panelses5={self.session}", f"{self.panel.url}?page=upload"],
                    capture_output=True, check=False, text=True, timeout=60,
                )
            self.assertIn(text, done.stdout)
            self.assertRegex(done.stdout, "413$")

    def test_has_no_file(self):
        for parts in ([], [file("", b"")]):
            self.assert_page(self.upload(*parts), 400, "No file has been chosen.")

    def test_is_no_form(self):
        body = form(field("token", self.token), file("a", b"1"))
        for headers, body, status in (
            (URLENCODED, f"token={self.token}&files=a.txt", 415),
            ({"Content-Type": "text/plain"}, body, 415),
            ({"Content-Type": "multipart/form-data"}, body, 400),
            ({}, body[:-10], 400),
            ({}, body.replace(b"form-data", b"attachment"), 400),
        ):
            self.assert_page(self.post(body, headers=headers), status)

    def test_has_no_declared_length(self):
        self.assertEqual(status_on(self.begin(b"", None)), 411)

    def test_goes_to_a_page_that_takes_no_files(self):
        for page, status in (("signin", 415), ("signout", 415), ("change", 415), ("whoami", 404)):
            self.assertEqual(self.upload(file("a", b"1"), page=page).status, status, page)

    def test_is_large_and_goes_to_another_page(self):
        answer = self.panel.request("POST", FORM, bytes(100_000), page="signin")
        self.assertEqual(answer.status, 413)

    def test_is_larger_than_a_file_may_be(self):
        """As where a disk takes no more."""
        limits = (1000, 1000)
        options = {"preexec_fn": lambda: resource.setrlimit(resource.RLIMIT_FSIZE, limits)}
        body = form(field("token", self.token), file("g", bytes(10_000)))
        with self.panel.start_front(self.session, body=body, options=options) as front:
            answer, errors = front.communicate(timeout=60)
        self.assertIn("Status: 507 ", answer.decode(), errors)


class BrokenOffUpload(UploadTest):
    """Nothing is left, as each test asserts at its end."""

    def setUp(self):
        super().setUp()
        self.addCleanup(lambda: self.assertEqual(list(self.panel.home.iterdir()), []))

    def test_leaves_no_file_if_a_signal_ends_the_front_end(self):
        for name in ("TERM", "KILL", "XCPU", "HUP", "INT"):
            upload = self.begin_file()
            (front,) = self.panel.front_processes()
            os.kill(front, signal.Signals["SIG" + name])
            self.assertEqual(status_on(upload), 500, name)
            self.assert_nothing_left()

    def test_by_a_client_that_goes_away_does_not_disturb_another(self):
        broken = self.begin_file(b"1" * 1000)
        other = self.begin_file(b"2" * 500, before=[1000])
        broken.close()
        wait_for(lambda: open_files(self.panel.home) == [500])
        other.close()
        self.assert_nothing_left()


class SlowUpload(UploadTest):
    def test_may_take_longer_than_other_requests(self):
        folder = self.enterContext(tempfile.TemporaryDirectory(prefix="slow-"))
        home = pathlib.Path(folder) / "panel"
        shutil.copytree(PANEL, home)
        settings = home / "lighttpd.conf"
        text = settings.read_text()
        self.assertIn('"read-timeout" => 60,', text)
        settings.write_text(text.replace('"read-timeout" => 60,', '"read-timeout" => 1,'))
        panel = Panel(home=home)
        self.addCleanup(panel.stop)
        session = panel.new_session()
        # Not from a page: on a loaded machine even that may take longer now.
        with contextlib.closing(panel.database()) as database:
            (token,) = database.execute("select token from session").fetchone()
        body = form(field("token", token), file("f", b"x" * 10_000))
        upload = self.begin(body[:5000], len(body), panel, session)
        time.sleep(3)
        upload.sendall(body[5000:])
        self.assertEqual(status_on(upload), 303)


@full
class SilentUpload(UploadTest):
    """A client that falls silent is waited for, but not for ever."""

    def test_is_ended_after_half_a_minute(self):
        begun = field("token", self.token) + file("f", b"x" * 1000)
        reader, writer = os.pipe()
        self.addCleanup(os.close, writer)
        os.write(writer, begun)
        started = time.monotonic()
        options = {"options": {"stdin": reader}, "CONTENT_LENGTH": "100000"}
        with self.panel.start_front(self.session, body=begun, **options) as front:
            answer, errors = front.communicate(timeout=90)
        os.close(reader)
        self.assertGreater(time.monotonic() - started, 29)
        self.assertIn(b"Status: 408 ", answer, errors)


if __name__ == "__main__":
    main()
