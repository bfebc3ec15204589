"""Visitors who go away in the middle of an upload, and the answers to those who
stay, under each web server."""

import os
import socket
import struct
import unittest

import web_servers
from accounts import GID, IS_ROOT, NAMES_ONLY, UID, Accounts
from back_end import scripted_back_end
from client import begin_post, exchange
from panel_server import URLENCODED
from processes import open_files, wait_for
from upload_probe import Field, Form, Upload, content_type
from verdict import main
from web_servers import NOBODY

SIZE = 20_000_000
SENT = 5_000_000
# What lingers is thrown away at once: the peer sees a reset.
NO_LINGER = struct.pack("ii", 1, 0)
SESSION = {"Cookie": "panelses5=session"}
MULTIPART = {"Content-Type": content_type(b"BOUNDARY")}


def answer(_):
    """Knows one session, and gives one answer to all questions about it."""
    yield (
        b'Content-Type: text/xml\r\n\r\n<?xml version="1.0"?>\n<doc>'
        b'<user name="visitor" level="1"/><own token="token" account="visitor"/></doc>'
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
        # The server's own account, so that its programs may become it.
        ids = (NOBODY, NOBODY) if IS_ROOT else (UID, GID)
        accounts = Accounts(cls.server.folder / "accounts")
        accounts.add("visitor", cls.home, *ids)
        cls.server.start({
            "TOV_RUN_DIR": str(path.parent), "LD_PRELOAD": NAMES_ONLY,
            "NSS_WRAPPER_PASSWD": str(accounts.users), "NSS_WRAPPER_GROUP": str(accounts.groups),
        })  # fmt: skip

    def begin_upload(self):
        body = Form(Upload(b"files", b"f", b"x" * SENT)).body(b"BOUNDARY")
        headers = {**SESSION, **MULTIPART, "Sec-Fetch-Site": "same-origin"}
        path = self.server.path + "?page=upload"
        return begin_post(self.server.address, path, headers, body[:SENT], SIZE)

    def are_in_the_middle(self, uploads):
        early = self.kind.hands_on_early
        sizes = open_files(self.home) if early else self.server.gathered_bodies()
        return len(sizes) == uploads and all(size > SENT / 2 for size in sizes)

    def is_busy(self):
        return self.server.running_programs() or self.server.gathered_bodies()

    def test_visitors_who_go_away_leave_no_file_and_no_process(self):
        for go_away, uploads in ((close, 1), (reset, 1), (stop_sending, 1), (close, 2)):
            with self.subTest(go_away.__name__, uploads=uploads):
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
                page = exchange(self.server.address, "GET", self.server.path + "?page=signin")
                self.assertIn("Password", page.body)

    def post(self, query, body, headers):
        headers = {"Sec-Fetch-Site": "same-origin", **headers}
        return exchange(self.server.address, "POST", f"{self.server.path}?{query}", headers, body)

    def test_forms_are_taken(self):
        page = self.post("page=signin", b"user=a&password=b", URLENCODED)
        self.assertEqual(page.status, 303, page.body)
        form = Form(Field(b"token", b"token"), Upload(b"files", b"f", b"x" * 300_000))
        page = self.post("page=upload", form.body(b"BOUNDARY"), {**SESSION, **MULTIPART})
        self.assertEqual(page.status, 303, page.body)
        self.assertEqual((self.home / "f").read_bytes(), b"x" * 300_000)
        (self.home / "f").unlink()

    def test_refusals_arrive_whatever_has_been_sent(self):
        """By the front end before it reads, by its form, and without an end of the form."""
        cross_site = {**SESSION, "Sec-Fetch-Site": "cross-site"}
        for query, headers, status, text in (
            ("page=upload", {}, 403, "Please sign in first."),
            ("page=nonsense", SESSION, 404, "There is no such page or file."),
            ("page=upload", cross_site, 403, "Another site has sent"),
            ("page=signin", URLENCODED, 413, "Please send less at a time."),
            ("page=signin", {"Content-Type": "text/plain"}, 415, "own forms."),
            ("page=upload", {**SESSION, "Content-Type": "multipart/form-data"}, 400, "not valid."),
            ("page=upload", {**SESSION, **MULTIPART}, 400, "Your request is incomplete"),
        ):
            for size in (8000, 1_000_000, 12_000_000):
                page = self.post(query, b"x" * size, headers)
                self.assertEqual(page.status, status, (query, size, page.body))
                self.assertIn(text, page.body)
                self.assertEqual(list(self.home.iterdir()), [])


def load_tests(loader, _tests, _pattern):
    return web_servers.behind_each(loader, AbortTest)


if __name__ == "__main__":
    main()
