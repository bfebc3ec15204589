"""Uploads to the panel, driven by a plain HTTP client."""

import html
import http.client
import os
import pathlib
import re
import secrets
import signal
import socket
import time
import unittest

from panel_server import Panel, wait_for

BOUNDARY = "----boundary-of-the-test"
KIND = {"Content-Type": "multipart/form-data; boundary=" + BOUNDARY}
LIMIT = 100 * 1024 * 1024


def part(attributes, content):
    head = f"--{BOUNDARY}\r\nContent-Disposition: form-data; {attributes}\r\n\r\n"
    return head.encode() + content + b"\r\n"


def form(token, *files):
    body = part('name="token"', token.encode())
    for name, content in files:
        body += part(f'name="files"; filename="{name}"', content)
    return body + f"--{BOUNDARY}--\r\n".encode()


def front_ends(panel):
    """Process ids of the panel's front ends at work, guardians included."""
    found = []
    for folder in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            program = os.readlink(folder / "exe")
            environment = (folder / "environ").read_bytes().split(b"\0")
        except OSError:
            continue
        spool = f"PANEL_SPOOL={panel.state}/spool"
        if program == os.path.realpath(os.environ["FRONT"]) and spool.encode() in environment:
            found.append(int(folder.name))
    return sorted(found)


class UploadTest(unittest.TestCase):
    def setUp(self):
        self.panel = Panel()
        self.addCleanup(self.panel.stop)
        self.session = self.panel.sign_in()
        self.cookie = {"Cookie": "panelses5=" + self.session}
        page = self.panel.with_session(self.session, page="upload")
        self.token = re.search(r'name="token" value="(\w+)"', page.body).group(1)

    def upload(self, *files, token=None, headers=None):
        body = form(self.token if token is None else token, *files)
        return self.panel.post("upload", body, {**KIND, **(headers or self.cookie)})

    def assert_uploaded(self, answer, *files):
        self.assertEqual(answer.status, 200, answer.body)
        rows = re.findall(r'<tr><td>(.*?)</td><td class="numbers">(\d+)</td></tr>', answer.body)
        self.assertEqual([(html.unescape(name), int(size)) for name, size in rows], list(files))
        total = sum(size for _, size in files)
        self.assertIn(f'<th>Together</th><th class="numbers">{total}</th>', answer.body)
        self.assertEqual(self.panel.spooled(), [])

    def test_of_several_files(self):
        answer = self.upload(("b.txt", b"12345"), ("a.bin", secrets.token_bytes(300_000)))
        self.assert_uploaded(answer, ("a.bin", 300_000), ("b.txt", 5))

    def test_of_sizes_around_a_chunk(self):
        for size in (0, 1, 65535, 65536, 65537, 20_000_000):
            self.assert_uploaded(self.upload(("f", b"x" * size)), ("f", size))

    def test_of_names_that_are_markup(self):
        name = "<img src=x onerror=alert(1)>&amp;' \u00e4\u4e2d"
        answer = self.upload((name, b"x"))
        self.assert_uploaded(answer, (name.partition(";")[0], 1))
        self.assertNotIn("<img", answer.body)

    def test_with_nothing_chosen(self):
        self.assert_uploaded(self.upload(("", b"")))

    def test_of_two_files_with_one_name_keeps_the_later(self):
        self.assert_uploaded(self.upload(("f", b"first"), ("f", b"the later")), ("f", 9))

    def test_without_a_session_is_refused_unread(self):
        answer = self.upload(("f", b"x" * 100_000), headers={"X-None": "1"})
        self.assertEqual(answer.status, 403)
        self.assertIn("Please sign in first.", answer.body)

    def test_with_a_made_up_session_spools_nothing(self):
        headers = {**KIND, "Cookie": "panelses5=" + secrets.token_hex(16)}
        request = self.begin(headers, 1000)
        answer = request.recv(65536).decode()
        request.close()
        # The answer is there before the body is.
        self.assertIn(" 403 ", answer.splitlines()[0])
        self.assertEqual(self.panel.spooled(), [])

    def test_with_the_wrong_token_is_refused(self):
        other = self.panel.sign_in()
        page = self.panel.with_session(other, page="upload")
        others = re.search(r'name="token" value="(\w+)"', page.body).group(1)
        for token in ("", "wrong", others):
            answer = self.upload(("f", b"x"), token=token)
            self.assertEqual(answer.status, 403)
            self.assertIn("You do not authorized for this operation", answer.body)
            self.assertEqual(self.panel.spooled(), [])

    def test_above_the_limit_is_refused_readably(self):
        answer = self.upload(("f", b"x" * LIMIT))
        self.assertEqual(answer.status, 413)
        self.assertIn("Post data too large. Max allowed length is 102400KB", answer.body)
        self.assertEqual(self.panel.spooled(), [])

    def test_far_above_the_limit_is_refused_by_the_web_server(self):
        request = self.begin({**KIND, **self.cookie}, 1 << 40)
        self.assertIn(b" 413 ", request.recv(65536).splitlines()[0])
        request.close()

    def test_that_injects_into_the_query_for_the_token_is_refused(self):
        body = part('name="sfrom"', b"x&func=whoami") + form(self.token, ("f", b"x"))
        answer = self.panel.post("upload", body, {**KIND, **self.cookie})
        self.assertEqual(answer.status, 502)

    def test_without_a_boundary_holds_no_files(self):
        body = f"token={self.token}&files=x".encode()
        answer = self.panel.post("upload", body, self.cookie)
        self.assert_uploaded(answer)

    def test_of_a_field_line_that_is_too_long_is_explained(self):
        body = part('name="a"', b"x" * 262_145) + form(self.token)
        answer = self.panel.post("upload", body, {**KIND, **self.cookie})
        self.assertEqual(answer.status, 400)
        self.assertIn("Element value size must be less than 262144", answer.body)

    def begin(self, headers, length):
        """A connection that has sent the header of a POST."""
        request = socket.create_connection(("127.0.0.1", self.panel.port), timeout=60)
        lines = ["POST /panel?page=upload HTTP/1.1", "Host: panel", f"Content-Length: {length}"]
        lines += [f"{name}: {value}" for name, value in headers.items()]
        request.sendall("\r\n".join([*lines, "", ""]).encode())
        return request

    def begin_upload(self):
        """An upload that stops in the middle of its file."""
        request = self.begin({**KIND, **self.cookie}, 50_000_000)
        request.sendall(form(self.token, ("f", b"x" * 10_000_000))[:-100])
        wait_for(self.has_spooled)
        return request

    def has_spooled(self):
        spool = self.panel.state / "spool"
        return any(path.stat().st_size > 1_000_000 for path in spool.glob("*/zantemp*"))

    def assert_nothing_is_left(self):
        wait_for(lambda: not self.panel.spooled() and not front_ends(self.panel))

    def test_that_the_visitor_leaves_behind_goes_away(self):
        request = self.begin_upload()
        self.assertEqual(len(front_ends(self.panel)), 2)
        request.close()
        self.assert_nothing_is_left()

    def test_whose_front_end_is_killed_goes_away(self):
        for signal_number in (signal.SIGTERM, signal.SIGKILL):
            request = self.begin_upload()
            first = front_ends(self.panel)[0]
            os.kill(first, signal_number)
            self.assert_nothing_is_left()
            request.close()

    def test_that_spins_ends_by_the_limit_of_its_processor_time(self):
        # The first boundary in the last bytes of the first chunk.
        request = self.begin({**KIND, **self.cookie}, 1000)
        request.sendall(b"--" + BOUNDARY.encode())
        started = time.monotonic()
        wait_for(lambda: len(front_ends(self.panel)) == 2)
        self.assert_nothing_is_left()
        self.assertGreater(time.monotonic() - started, 5)
        response = http.client.HTTPResponse(request)
        response.begin()
        self.assertEqual(response.status, 500)
        request.close()


if __name__ == "__main__":
    unittest.main()
