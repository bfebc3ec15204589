"""Visitors who go away in the middle of an upload, and those who are refused
before it, under each web server."""

import contextlib
import http.client
import os
import socket
import struct
import unittest

import web_servers
from accounts import IS_ROOT, NAMES_ONLY
from back_end import scripted_back_end
from browser import DIRECTLY
from processes import wait_for
from upload_test import bytes_on_their_way
from upload_probe import Form, Upload, content_type
from verdict import main
from web_servers import NOBODY

SIZE = 20_000_000
SENT = 5_000_000
# What lingers is thrown away at once: the peer sees a reset.
NO_LINGER = struct.pack("ii", 1, 0)


def answer(_):
    """Knows one session, and gives one answer to all questions about it."""
    yield (
        b'Content-Type: text/xml\r\n\r\n<?xml version="1.0"?>\n'
        b'<doc><user name="visitor" level="1"/>'
        b'<own token="token" account="visitor"/></doc>'
    )


def close(connection):
    connection.close()


def reset(connection):
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, NO_LINGER)
    connection.close()


def stop_sending(connection):
    connection.shutdown(socket.SHUT_WR)


class AbortTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = cls.kind(os.environ["FRONT"])
        cls.addClassCleanup(cls.server.stop)
        cls.home = cls.server.make_folder("home")
        path = cls.server.make_folder("run") / "panel.sock"
        cls.enterClassContext(scripted_back_end(path, answer))
        cls.server.start({"TOV_RUN_DIR": str(cls.server.folder / "run"), **cls.account()})

    @classmethod
    def account(cls):
        """The server's own, so that its programs may become it, by another name."""
        users = cls.server.folder / "passwd"
        ids = f"{NOBODY}:{NOBODY}" if IS_ROOT else f"{os.getuid()}:{os.getgid()}"
        users.write_text(f"visitor:x:{ids}::{cls.home}:/bin/sh\n")
        groups = cls.server.folder / "group"
        groups.touch()
        return {
            "LD_PRELOAD": NAMES_ONLY,
            "NSS_WRAPPER_PASSWD": str(users),
            "NSS_WRAPPER_GROUP": str(groups),
        }

    def begin_upload(self):
        connection = socket.create_connection((self.server.host, self.server.port), timeout=60)
        lines = (
            f"POST {self.server.path}?page=upload HTTP/1.1",
            f"Host: {self.server.host}",
            "Sec-Fetch-Site: same-origin",
            "Cookie: panelses5=session",
            f"Content-Type: {content_type(b'BOUNDARY')}",
            f"Content-Length: {SIZE}",
        )
        connection.sendall("\r\n".join([*lines, "", ""]).encode())
        form = Form(Upload(b"files", b"f", b"x" * SENT)).body(b"BOUNDARY")
        connection.sendall(form[:SENT])
        return connection

    def uploads_under_way(self):
        """As many bytes of each as have arrived, where they lie for now."""
        if not self.kind.hands_on_early:
            return self.server.gathered_bodies()
        return bytes_on_their_way(self.home)

    def are_in_the_middle(self, uploads):
        sizes = self.uploads_under_way()
        return len(sizes) == uploads and all(size > SENT / 2 for size in sizes)

    def is_busy(self):
        return self.server.running_programs() or self.server.gathered_bodies()

    def assert_leaves_nothing(self, go_away, uploads=1):
        connections = [self.begin_upload() for _ in range(uploads)]
        wait_for(lambda: self.are_in_the_middle(uploads))
        self.assertEqual(bool(self.server.running_programs()), self.kind.hands_on_early)
        for connection in connections:
            go_away(connection)
        wait_for(lambda: not self.is_busy())
        self.assertEqual(list(self.home.iterdir()), [], self.server.logs())
        self.assertEqual(list(self.server.bodies.iterdir()), [])
        for connection in connections:
            connection.close()
        self.assert_still_serves()

    def assert_still_serves(self):
        with DIRECTLY.open(self.server.url + "?page=signin", timeout=60) as answer:
            self.assertIn(b"Password", answer.read())

    def answer_to(self, query, size, **headers):
        connection = http.client.HTTPConnection(self.server.host, self.server.port, timeout=60)
        with contextlib.closing(connection):
            body = b"x" * size
            site = {"Sec-Fetch-Site": "same-origin"}
            connection.request("POST", f"{self.server.path}?{query}", body, {**site, **headers})
            answer = connection.getresponse()
            return answer.status, answer.read()

    def test_refusals_arrive_whatever_has_been_sent(self):
        session = {"Cookie": "panelses5=session"}
        plain = {"Content-Type": "application/x-www-form-urlencoded"}
        for query, headers, status, text in (
            ("page=upload", {}, 403, b"Please sign in first."),
            ("page=nonsense", session, 404, b"There is no such page or file."),
            ("page=signin", {}, 415, b"Please use the panel's own forms."),
            ("page=signin", plain, 413, b"Please send less at a time."),
            ("page=signout", {**session, **plain}, 413, b"Please send less at a time."),
            ("page=upload", {**session, "Sec-Fetch-Site": "cross-site"}, 403, b"Another site has sent"),
        ):
            for size in (100_000, 1_000_000):
                answer = self.answer_to(query, size, **headers)
                self.assertEqual(answer[0], status, (query, size, answer))
                self.assertIn(text, answer[1].replace(b"&#39;", b"'"))

    def test_visitor_who_closes_the_connection(self):
        self.assert_leaves_nothing(close)

    def test_visitor_whose_connection_is_reset(self):
        self.assert_leaves_nothing(reset)

    def test_visitor_who_stops_sending(self):
        self.assert_leaves_nothing(stop_sending)

    def test_several_visitors_at_once(self):
        self.assert_leaves_nothing(close, uploads=2)


def load_tests(loader, _tests, _pattern):
    suite = unittest.TestSuite()
    for kind in web_servers.ALL:
        test = type("AbortTest_" + kind.__name__, (AbortTest,), {"kind": kind})
        suite.addTests(loader.loadTestsFromTestCase(test))
    return suite


if __name__ == "__main__":
    main()
