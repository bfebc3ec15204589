"""zancgi-request must do what a web server does, and say what a program does
wrong. Where it has curl's options, they must mean what they mean to curl."""

import contextlib
import dataclasses
import hashlib
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

SOURCE = pathlib.Path(os.environ["SOURCE"])
sys.path.insert(0, str(SOURCE / "tests" / "e2e"))

import web_servers  # noqa: E402
from panel_server import Panel, wait_for  # noqa: E402

TOOL = SOURCE / "tools" / "zancgi-request"
MANUAL = SOURCE / "docs" / "man" / "zancgi-request.1"
PROBE = os.environ["CGI_PROBE"]
README_FRONT = os.environ["README_FRONT"]
LIBRARY_PATH = ":".join(sorted({os.path.dirname(p) for p in os.environ["LIBRARIES"].split(":")}))
PATH = "/usr/bin:/bin"
MEGABYTE = 1 << 20
# No proxy, and no configuration of whoever runs the tests.
ENVIRONMENT = {"PATH": PATH, "LC_ALL": "C.UTF-8", "FOREIGN": "not for the program"}


@dataclasses.dataclass
class Result:
    status: int
    output: bytes
    errors: str


def run(*arguments, folder=None, stdin=b"", seconds=60, **variables):
    done = subprocess.run(
        [TOOL, *map(str, arguments)],
        input=stdin,
        capture_output=True,
        cwd=folder,
        env={**ENVIRONMENT, **variables},
        timeout=seconds,
        check=False,
    )
    return Result(done.returncode, done.stdout, done.stderr.decode())


@dataclasses.dataclass
class Given:
    """What the probe was given, as it tells."""

    arguments: list
    folder: str
    variables: dict
    # Of standard input and output.
    kinds: list
    open: list
    reads: list
    # What poll told at the end of the body.
    polled: list
    body: bytes


def given(output):
    head, _, body = output.partition(b"\n\n")
    told = {}
    for line in head.decode().splitlines():
        what, _, text = line.partition(" ")
        told.setdefault(what, []).append(os.fsdecode(bytes.fromhex(text)))
    variables = {}
    for text in told["variable"]:
        name, _, value = text.partition("=")
        # As getenv finds them.
        variables.setdefault(name, value)
    return Given(
        told["argument"],
        told["folder"][0],
        variables,
        told["kind"],
        sorted(map(int, told["open"])),
        list(map(int, told.get("read", []))),
        told["polled"][0].split(),
        body,
    )


class RequestTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="request-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def program(self, text, name="program"):
        """A shell script, unless it says otherwise."""
        path = self.folder / name
        path.write_text(text if text.startswith("#!") else "#!/bin/sh\n" + text)
        path.chmod(0o755)
        return path

    def file(self, name, content):
        path = self.folder / name
        path.write_bytes(content)
        return path

    def run_in_folder(self, *arguments, **more):
        return run(*arguments, folder=self.folder, **more)

    def given(self, *arguments, program=PROBE, **more):
        result = self.run_in_folder(program, *arguments, **more)
        self.assertEqual((result.status, result.errors), (0, ""))
        return given(result.output)


# ---- the same as curl through real web servers

# Of ours, they are known to differ.
DIFFERENT_PORT = {"REMOTE_PORT"}
# The web server's own folders, and what the tests start it with.
OF_THE_SERVER = {"DOCUMENT_ROOT", "PATH_TRANSLATED", "PATH", "LD_LIBRARY_PATH",
                 "CONTEXT_DOCUMENT_ROOT"}  # fmt: skip
# curl asks before it sends a long body; some servers hand that on.
ASKED_BEFORE = {"HTTP_EXPECT"}
NOT_COMPARED = DIFFERENT_PORT | OF_THE_SERVER | ASKED_BEFORE

FASTCGI_PARAMETERS = {
    name: value
    for name, value in re.findall(
        r"^fastcgi_param\s+(\w+)\s+(\S+);", pathlib.Path("/etc/nginx/fastcgi_params").read_text(),
        re.MULTILINE,
    )
    # These are in the tests' configuration already.
    if name not in ("QUERY_STRING", "REQUEST_METHOD", "CONTENT_TYPE", "CONTENT_LENGTH",
                    "REMOTE_ADDR", "SERVER_ADDR", "HTTPS")
}  # fmt: skip

BOUNDARY = re.compile(rb"-{24}[0-9a-f]{16}")


def differences(actual, expected):
    """The facts that differ, as (actual, expected), variables one by one."""
    facts = [{**vars(told), **told.variables, "variables": None} for told in (actual, expected)]
    names = facts[0].keys() | facts[1].keys()
    pairs = {name: tuple(fact.get(name) for fact in facts) for name in names}
    return {name: pair for name, pair in pairs.items() if pair[0] != pair[1]}


class ThroughServer(RequestTest):
    """Plays each request both ways."""

    variables = {}

    @classmethod
    def setUpClass(cls):
        cls.server = cls.kind(PROBE)
        cls.addClassCleanup(cls.server.stop)
        cls.server.start(cls.variables)

    def by_curl(self, arguments, url, stdin):
        done = subprocess.run(
            ["curl", "-q", "-sS", "-A", "client", *arguments, url],
            input=stdin,
            capture_output=True,
            cwd=self.folder,
            env=ENVIRONMENT,
            timeout=60,
            check=True,
        )
        return done.stdout

    def by_tool(self, arguments, url, stdin):
        result = self.run_in_folder(
            "--server", self.name, "-A", "client", *arguments, self.server.program, url,
            stdin=stdin,
        )  # fmt: skip
        self.assertEqual((result.status, result.errors), (0, ""))
        return result.output

    def assert_same(self, *arguments, path="", stdin=b""):
        url = self.server.url + path
        with self.subTest(arguments=arguments, path=path):
            expected = self.comparable(self.by_curl(arguments, url, stdin))
            actual = self.comparable(self.by_tool(arguments, url, stdin))
            self.assertEqual(differences(actual, expected), {})
            return expected

    def comparable(self, output):
        told = given(output)
        told.body = BOUNDARY.sub(b"BOUNDARY", told.body)
        # They are up to the pipes in between; fcgiwrap leaves one of its own open.
        told.reads = sum(told.reads)
        told.open = told.open[:3]
        told.variables = {
            name: BOUNDARY.sub(b"BOUNDARY", os.fsencode(value))
            for name, value in told.variables.items()
            if name not in NOT_COMPARED
        }
        self.normalize(told.variables)
        return told

    def normalize(self, variables):
        pass


class AsThroughServer(ThroughServer):
    def test_without_a_body(self):
        self.assert_same()
        self.assert_same("-X", "DELETE")
        self.assert_same("-d", "")

    def test_query(self):
        self.assert_same(path="?a=1&b=%20+2&c=\u00fc\"<>&d")
        self.assert_same(path="?")
        self.assert_same("-G", "-d", "a=1", "--data-urlencode", "b=x y&z", path="?z=9")
        self.assert_same("-G", "-d", "a=1", path="#fragment")
        self.assert_same("-G", "-d", "a=1", "-X", "DELETE")
        self.assert_same("-g", path="?a[]={1}")

    def test_path(self):
        self.assert_same(path="/pa%20th/x?a=/../b")
        self.assert_same(path="/a/../b/./c")

    def test_data(self):
        self.file("lines", b"l1\r\nl2\nl3")
        self.assert_same("-d", "a=1", "-d", "b=2")
        self.assert_same("-d", "-leads")
        self.assert_same("-d", "x", "-d", "")
        self.assert_same("-d", "", "-d", "x")
        self.assert_same("-d", "@lines")
        self.assert_same("-d", "a=1", "--data-binary", "@lines")
        self.assert_same("--data-raw", "@lines")
        self.assert_same("--data-ascii", "@lines")
        self.assert_same("-d", "@-", stdin=b"a=1\r\n")
        self.assert_same("--data-binary", "@-", stdin=b"a=1\r\n\0")
        self.assert_same("-X", "PUT", "-d", "x=1")

    def test_long_form(self):
        self.file("large", os.urandom(3 * MEGABYTE))
        told = self.assert_same("-F", "a=1", "-F", "f=@large", "-F", "g=@large;type=x/y")
        self.assertGreater(len(told.body), 6 * MEGABYTE)

    def test_body_about_64_kilobytes(self):
        for size in (65535, 65536, 65537):
            self.file("data", b"x" * size)
            self.assert_same("--data-binary", "@data")

    def test_upload_file(self):
        self.file("data", b"content\r\n")
        # Nothing is asked before, which takes curl a second.
        at_once = ("-T", "data", "-H", "Expect:")
        self.assert_same(*at_once)
        self.assert_same(*at_once, "-X", "POST", "-H", "Content-Type: a/b")
        self.assert_same(*at_once, path="/sub/")

    def test_headers(self):
        self.file("lines", b"X-A: 1\nX-B: 2\n")
        self.assert_same("-H", "X-A: 1", "-H", "x-b:2", "-H", "X-T: 1  ")
        self.assert_same("-H", "X-A: 1", "-H", "X-A: 2")
        self.assert_same("-H", "Accept:", "-H", "User-Agent:", "-H", "X-F: ")
        self.assert_same("-H", "X-Empty;")
        self.assert_same("-H", "@lines")
        self.assert_same("-H", "X_Under: 1")
        self.assert_same("-H", "X.Dot: 1")
        self.assert_same("-H", "Host: example.org")
        self.assert_same("-H", "Host: example.org:81")
        self.assert_same("-d", "x", "-H", "Content-Type:")
        self.assert_same("-d", "x", "-H", "Content-Type: a/b")
        self.assert_same("-H", "Content-Type: a/b")
        self.assert_same("-A", "", "-e", "")
        self.assert_same("-A", "me", "-e", "http://r/")
        self.assert_same("-e", "http://r/;auto")

    def test_cookies(self):
        self.assert_same("-b", "a=b", "-b", "c=d; e")
        self.assert_same("-b", "a=b", "-H", "Cookie: x=y")
        self.assert_same("-H", "Cookie: a=1", "-H", "Cookie: b=2")
        self.assert_same("-b", "")

    def test_user(self):
        self.assert_same("-u", "joe:pass:word")
        self.assert_same("-u", "joe:")


class AsThroughLighttpd(AsThroughServer):
    kind = web_servers.Lighttpd
    name = "lighttpd"

    def test_address_is_normalized(self):
        self.assert_same(path="/a%2fb%41%7e%c3?%41+%2f%7e%zz")


class BodiesAsThroughLighttpd(ThroughServer):
    kind = web_servers.Lighttpd
    name = "lighttpd"

    # What curl makes of it does not depend on the web server.

    def test_data_urlencoded(self):
        self.file("lines", b"l1\r\nl2\0\xff")
        for text in ("a b&c", "=a b=c", "n m=a b/~-_.\u00fc", "@lines", "n@lines", "a=@lines", "="):
            self.assert_same("--data-urlencode", text)

    def test_json(self):
        self.assert_same("--json", '{"a":1}')
        self.assert_same("--json", "1", "--json", "2", "-H", "Content-Type: x/y")
        self.assert_same("--json", "1", "-d", "2")

    def test_form(self):
        for name, content in (
            ("file", b"\0\xff\r\n"),
            ("p.txt", b"text"),
            ('a"b\\c.HTML', b"<p>"),
            ("we ird;na,me.png", b""),
        ):
            self.file(name, content)
        for field in (
            "a=1", "a=", "=v", "a=b=c", 'a"b\\c=1', "a= val", "a=val ", "a= val ;type=a/b",
            'a=x\\y"z', 'a="b', 'a=b"c;type=x/y', 'a="val;type=text/q"', "a=x,y",
            'a="q\\"u\\\\o"', "a=val;type=text/q", "a=;type=x/y",
            "a=b;filename=x", "a=b;filename=x.txt", "a=b;filename=x;type=m/n",
            "f=@file", "f=@./file", 'f=@a"b\\c.HTML', 'f=@"a\\"b\\\\c.HTML"', "f=@p.txt",
            'f=@"we ird;na,me.png"', 'f=@"file" ;type=a/b', "f=@file;filename=",
            "f=@file;filename=../x/y", 'f=@file;filename="a b" trailing;type=x/y',
            'f=@file;type=text/x-y;filename=na"me.bin',
            'f=@file;filename="q\\"u;x.pdf";type=a/b', "f=@p.txt;filename=x.svg",
            "f=@p.txt;filename=x.unknown", "f=@file;filename=a\nb\rc",
            "f=@file;type=text/plain; charset=utf-8;filename=x",
            'f=@file;headers="X-Y: 1"', 'f=@file;headers=X-Y: 1;headers="X-Z: \\"2\\""',
            "f=<p.txt", "f=<p.txt;type=text/q", "f=<file",
        ):  # fmt: skip
            self.assert_same("-F", field)
        self.assert_same("--form-string", "a=@p.txt;type=x", "-F", "b=1", "-F", "c=@file")
        self.assert_same("--form-escape", "-F", 'a"\\=@a"b\\c.HTML')
        self.assert_same("-F", "a=@-", stdin=b"abc")
        self.assert_same("-F", "a=@-;filename=x.txt", stdin=b"abc")
        self.assert_same("-F", "a=<-", stdin=b"abc")


class AsThroughApache(AsThroughServer):
    kind = web_servers.Apache
    name = "apache"

    def normalize(self, variables):
        # With a number that changes with each security update.
        variables["SERVER_SOFTWARE"] = variables["SERVER_SOFTWARE"][:10]


class AsThroughNginx(AsThroughServer):
    kind = web_servers.Nginx
    name = "nginx-fcgiwrap"
    variables = FASTCGI_PARAMETERS


class AsThroughBusybox(AsThroughServer):
    kind = web_servers.Busybox
    name = "busybox"


del AsThroughServer


if __name__ == "__main__":
    unittest.main()
