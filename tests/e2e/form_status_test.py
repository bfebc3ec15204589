"""The answers of a front end that refuses a form arrive as they are under each
web server, whatever the client has sent."""

import os
import unittest

import web_servers
from client import exchange
from panel_server import FORM, URLENCODED, field, file, form
from verdict import main

LONG = b"x" * 300_000
WHOLE = form(field("a", "1"), file("f", LONG))
TOO_LONG = "the body is longer than 1048576 bytes"
NO_FORM = "the type of the body is none of a form"
NO_BOUNDARY = "the form announces no valid boundary"
NO_END = "the form ends without its closing boundary"

# Of each: its name, headers, body, status and the whole answer.
ROWS = (
    ("taken", FORM, WHOLE, 200, "1"),
    ("short and taken", URLENCODED, b"a=2", 200, "2"),
    ("longer than the limit", FORM, WHOLE * 4, 413, TOO_LONG),
    ("very much longer", URLENCODED, b"a=" + LONG * 40, 413, TOO_LONG),
    ("of another type", {"Content-Type": "application/json"}, b"{}", 415, NO_FORM),
    ("long and of another type", {"Content-Type": "text/plain"}, LONG, 415, NO_FORM),
    ("without a boundary", {"Content-Type": "multipart/form-data"}, WHOLE, 400, NO_BOUNDARY),
    ("without its end", FORM, WHOLE[:-8], 400, NO_END),
)


class FormStatusTest(unittest.TestCase):
    def test_answers_arrive(self):
        server = self.kind(os.environ["FORM_PROBE"])
        self.addCleanup(server.stop)
        spool = server.make_folder("spool")
        server.start({"TMP": str(spool)})
        for name, headers, body, status, text in ROWS:
            with self.subTest(name):
                answer = exchange(server.address, "POST", server.path, headers, body)
                self.assertEqual((answer.status, answer.body), (status, text))
                self.assertEqual(list(spool.iterdir()), [])


def load_tests(loader, _tests, _pattern):
    return web_servers.behind_each(loader, FormStatusTest)


if __name__ == "__main__":
    main()
