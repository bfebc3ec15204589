"""zancgi-request must do what a web server does, and say what a program does
wrong. Where it has curl's options, they must mean what they mean to curl."""

import contextlib
import dataclasses
import os
import pathlib
import re
import select
import shutil
import signal
import socketserver
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import urllib.parse

SOURCE = pathlib.Path(os.environ["SOURCE"])
sys.path.insert(0, str(SOURCE / "tests" / "e2e"))

import web_servers  # noqa: E402
from panel_server import Panel, wait_for  # noqa: E402
from zancgi_request.body import Body  # noqa: E402
from zancgi_request.feeder import Channel, Feeder  # noqa: E402
from zancgi_request.settings import Settings  # noqa: E402

TOOL = SOURCE / "tools" / "zancgi-request"
PACK = TOOL.with_name("pack.py")
MANUAL = SOURCE / "docs" / "man" / "zancgi-request.1"
PROBE = os.environ["CGI_PROBE"]
README_FRONT = os.environ["README_FRONT"]
LIBRARY_PATH = ":".join(sorted({os.path.dirname(p) for p in os.environ["LIBRARIES"].split(":")}))
PATH = "/usr/bin:/bin"
MEGABYTE = 1 << 20
# Seconds that nothing here takes, however busy the machine is.
LONG = 300
os.umask(0o022)
# Seconds that no test takes: what sleeps so long has to be ended.
AGES = 3600
# No proxy, and no configuration of whoever runs the tests.
ENVIRONMENT = {"PATH": PATH, "LC_ALL": "C.UTF-8", "FOREIGN": "not for the program"}


@dataclasses.dataclass
class Result:
    status: int
    output: bytes
    errors: str


def run(*arguments, folder=None, stdin=b"", seconds=LONG, **variables):
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


# Of ours, they are known to differ.
DIFFERENT_PORT = {"REMOTE_PORT"}
# The web server's own folders, and what the tests start it with.
OF_THE_SERVER = {"DOCUMENT_ROOT", "PATH_TRANSLATED", "PATH", "LD_LIBRARY_PATH",
                 "CONTEXT_DOCUMENT_ROOT"}  # fmt: skip
# curl asks before it sends a long body; some servers hand that on.
ASKED_BEFORE = {"HTTP_EXPECT"}
NOT_COMPARED = DIFFERENT_PORT | OF_THE_SERVER | ASKED_BEFORE


def fastcgi_parameters():
    """The package's; nginx, without which there are none, is looked for later."""
    path = pathlib.Path("/etc/nginx/fastcgi_params")
    text = path.read_text() if path.exists() else ""
    found = dict(re.findall(r"^fastcgi_param\s+(\w+)\s+(\S+);", text, re.MULTILINE))
    # These are in the tests' configuration already.
    for name in ("QUERY_STRING", "REQUEST_METHOD", "CONTENT_TYPE", "CONTENT_LENGTH", "REMOTE_ADDR",
                 "SERVER_ADDR", "HTTPS"):  # fmt: skip
        found.pop(name, None)
    return found


def start_server(test, kind, program, *needed, **variables):
    """For all tests of a class, which are skipped where a program is missing."""
    for name in needed:
        if not shutil.which(name, path="/usr/sbin:/usr/bin:/sbin:/bin"):
            raise unittest.SkipTest(f"there is no {name} on this machine")
    test.server = kind(program)
    test.addClassCleanup(test.server.stop)
    test.server.start(variables)


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
        start_server(cls, cls.kind, PROBE, *cls.programs, **cls.variables)

    def by_curl(self, arguments, url, stdin):
        done = subprocess.run(
            ["curl", "-q", "-sS", "-A", "client", *arguments, url],
            input=stdin,
            capture_output=True,
            cwd=self.folder,
            env=ENVIRONMENT,
            timeout=LONG,
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
        self.assert_same(path='?a=1&b=%20+2&c=\u00fc"<>&d')
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
    programs = ["lighttpd"]
    name = "lighttpd"

    def test_address_is_normalized(self):
        self.assert_same(path="/a%2fb%41%7e%c3?%41+%2f%7e%zz")


class BodiesAsThroughLighttpd(ThroughServer):
    kind = web_servers.Lighttpd
    programs = ["lighttpd"]
    name = "lighttpd"

    # What curl makes of it does not depend on the web server.

    def test_data_urlencoded(self):
        self.file("lines", b"l1\r\nl2\0\xff")
        for text in ("a b&c", "=a b=c", "n m=a b/~-_.\u00fc", "@lines", "n@lines", "a=@lines", "=",
                     "a@b=c", "a=b@c"):  # fmt: skip
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
        self.assert_same("-F", "a=1", "-H", "Content-Type: multipart/form-data; charset=utf-8")
        self.assert_same("-F", "a=@-", stdin=b"abc")
        self.assert_same("-F", "a=@-;filename=x.txt", stdin=b"abc")
        self.assert_same("-F", "a=<-", stdin=b"abc")


class AsThroughApache(AsThroughServer):
    kind = web_servers.Apache
    programs = ["apache2"]
    name = "apache"

    def normalize(self, variables):
        # With a number that changes with each security update.
        variables["SERVER_SOFTWARE"] = variables["SERVER_SOFTWARE"][:10]


class AsThroughNginx(AsThroughServer):
    kind = web_servers.Nginx
    programs = ["nginx", "fcgiwrap"]
    name = "nginx-fcgiwrap"
    variables = fastcgi_parameters()


class AsThroughBusybox(AsThroughServer):
    kind = web_servers.Busybox
    programs = ["busybox"]
    name = "busybox"

    def comparable(self, output):
        told = super().comparable(output)
        if told.variables["REQUEST_METHOD"] == b"PUT":
            # What comes along with the header is handed on: as chance will have it.
            told.polled = None
        return told


# They are run by those that are derived of them.
del ThroughServer, AsThroughServer


class VariablesTest(RequestTest):
    def test_environment_is_clean_and_complete(self):
        told = self.given("http://example.org:8080/a%20b?c=%64", "-d", "x=1", "-A", "me")
        folder = os.path.dirname(PROBE)
        self.assertEqual(
            told.variables,
            {
                "CONTENT_LENGTH": "3",
                "CONTENT_TYPE": "application/x-www-form-urlencoded",
                "DOCUMENT_ROOT": folder,
                "GATEWAY_INTERFACE": "CGI/1.1",
                "HTTP_ACCEPT": "*/*",
                "HTTP_HOST": "example.org:8080",
                "HTTP_USER_AGENT": "me",
                "PATH": PATH,
                "QUERY_STRING": "c=%64",
                "REMOTE_ADDR": "127.0.0.1",
                "REMOTE_PORT": "49152",
                "REQUEST_METHOD": "POST",
                "REQUEST_SCHEME": "http",
                "REQUEST_URI": "/a%20b?c=%64",
                "SCRIPT_FILENAME": PROBE,
                "SCRIPT_NAME": "/a b",
                "SERVER_ADDR": "127.0.0.1",
                "SERVER_NAME": "example.org",
                "SERVER_PORT": "8080",
                "SERVER_PROTOCOL": "HTTP/1.1",
                "SERVER_SOFTWARE": "zancgi-request/" + os.environ["VERSION"],
            },
        )

    def test_program_runs_in_its_folder_under_its_own_path(self):
        os.symlink(PROBE, self.folder / "probe")
        told = self.given(program="./probe")
        self.assertEqual(told.arguments, [str(self.folder / "probe")])
        self.assertEqual(told.folder, str(self.folder))

    def test_program_gets_no_further_descriptors(self):
        for kind in ("pipe", "socket", "file", "null"):
            self.file("f", b"content")
            told = self.given("--stdin", kind, "-F", "f=@f")
            self.assertEqual(told.open, [0, 1, 2], kind)

    def test_variables_are_set_last(self):
        told = self.given(
            "--env", "REMOTE_USER=joe", "--env", "SERVER_NAME=", "--env", "EQUALS=a=b",
            "--env", "FOREIGN", "--unset", "SERVER_ADDR", "--run-dir", "/run", "--log-level", "9",
            "--remote-addr", "192.0.2.1",
        )  # fmt: skip
        for name, value in (
            ("REMOTE_USER", "joe"),
            ("SERVER_NAME", ""),
            ("EQUALS", "a=b"),
            ("FOREIGN", ENVIRONMENT["FOREIGN"]),
            ("SERVER_ADDR", None),
            ("TOV_RUN_DIR", "/run"),
            ("TOV_LOG_LEVEL", "9"),
            ("REMOTE_ADDR", "192.0.2.1"),
        ):
            self.assertEqual(told.variables.get(name), value, name)

    def test_run_dir_is_the_callers(self):
        for text, path in (("run", f"{self.folder}/run"), ("/run", "/run"), ("", "")):
            told = self.given("--run-dir", text)
            self.assertEqual(told.variables["TOV_RUN_DIR"], path)

    def test_header_proxy_names_no_proxy(self):
        proxy = ("-H", "Proxy: http://attacker/")
        for server in ("rfc3875", "lighttpd", "apache", "nginx-fcgiwrap", "busybox"):
            told = self.given("--server", server, *proxy)
            self.assertNotIn("HTTP_PROXY", told.variables, server)
        told = self.given("--keep-proxy-header", *proxy)
        self.assertEqual(told.variables["HTTP_PROXY"], "http://attacker/")

    def test_https(self):
        told = self.given("https://example.org/")
        self.assertEqual(told.variables["HTTPS"], "on")
        self.assertEqual(told.variables["SERVER_PORT"], "443")
        self.assertEqual(told.variables["HTTP_HOST"], "example.org")

    def test_address_of_a_server_without_a_name(self):
        told = self.given("http://[::1]:81/")
        self.assertEqual(told.variables["SERVER_ADDR"], "::1")
        self.assertEqual(told.variables["HTTP_HOST"], "[::1]:81")

    def test_path(self):
        os.symlink(PROBE, self.folder / "probe")
        for arguments, script, info, uri in (
            ((), "/", None, "/"),
            (("/panel",), "/panel", None, "/panel"),
            (("?a=1",), "/", None, "/?a=1"),
            (("/cgi/probe/x%2fy?a",), "/cgi/probe", "/x/y", "/cgi/probe/x%2fy?a"),
            (("/cgi/probes/x",), "/cgi/probes/x", None, "/cgi/probes/x"),
            (("--script-name", "/p q"), "/p q", None, "/p%20q"),
            (("--script-name", "/p", "/p/x"), "/p", "/x", "/p/x"),
            (("--path-info", "/x y"), "", "/x y", "/x%20y"),
            (("--path-info", "/x", "/p?a"), "/p", "/x", "/p/x?a"),
            (("--path-info", "/x", "/p/x"), "/p", "/x", "/p/x"),
            (("--script-name", "/p", "--path-info", "/p"), "/p", "/p", "/p/p"),
        ):
            with self.subTest(arguments=arguments):
                variables = self.given(*arguments, program="./probe").variables
                self.assertEqual(variables["SCRIPT_NAME"], script)
                self.assertEqual(variables.get("PATH_INFO"), info)
                self.assertEqual(variables["REQUEST_URI"], uri)
                translated = info and str(self.folder) + info
                self.assertEqual(variables.get("PATH_TRANSLATED"), translated)

    def test_boundary(self):
        told = self.given("-F", "a=1", "--boundary", "B")
        self.assertEqual(told.variables["CONTENT_TYPE"], "multipart/form-data; boundary=B")
        self.assertTrue(told.body.startswith(b"--B\r\n"))
        self.assertTrue(told.body.endswith(b"\r\n--B--\r\n"))

    def test_line_ends_of_texts_are_those_of_browsers(self):
        """Files stay as they are."""
        self.file("file", b"l1\nl2\r\nl3\rl4")
        text = "l1\nl2\r\nl3\rl4\n\n"
        sent = b"l1\r\nl2\r\nl3\r\nl4\r\n\r\n"
        for form, head, content in (
            (("-F", f"a={text}"), b'name="a"', sent),
            (("-F", f"a={text};type=text/q"), b'name="a"\r\nContent-Type: text/q', sent),
            (("--form-string", f"a={text}"), b'name="a"', sent),
            (("-F", "a\nb=c"), b'name="a%0D%0Ab"', b"c"),
            (("-F", f"a={text};filename=x"), b'name="a"; filename="x"', text.encode()),
            (("-F", "a=<file"), b'name="a"', b"l1\nl2\r\nl3\rl4"),
            (
                ("-F", "a=@file"),
                b'name="a"; filename="file"\r\nContent-Type: application/octet-stream',
                b"l1\nl2\r\nl3\rl4",
            ),
        ):
            with self.subTest(form=form):
                expected = b"--B\r\nContent-Disposition: form-data; %s\r\n\r\n%s\r\n--B--\r\n"
                told = self.given("--boundary", "B", *form)
                self.assertEqual(told.body, expected % (head, content))

    def test_boundary_is_another_each_time(self):
        types = {self.given("-F", "a=1").variables["CONTENT_TYPE"] for _ in range(3)}
        self.assertEqual(len(types), 3)


# Sends the lines that the query names as its header, and tells what it was asked.
GUEST = """#!/usr/bin/python3
import os, sys, urllib.parse
lines = urllib.parse.parse_qs(os.environ["QUERY_STRING"], encoding="latin-1").get("line", [])
head = "".join(line + "\\r\\n" for line in lines) + "Content-Type: text/plain\\r\\n\\r\\n"
names = ("REQUEST_METHOD", "REQUEST_URI", "HTTP_COOKIE", "HTTP_REFERER", "CONTENT_TYPE")
told = [name + "=" + os.environ.get(name, "") for name in names]
body = sys.stdin.read(int(os.environ.get("CONTENT_LENGTH") or 0))
sys.stdout.write(head + "\\n".join([*told, "body=" + body, ""]))
"""


def asking_for(*lines, path=""):
    return path + "?" + urllib.parse.urlencode([("line", line) for line in lines])


class GuestTest(RequestTest):
    """Plays each visit both ways, by curl through a web server."""

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory(prefix="request-")
        cls.addClassCleanup(folder.cleanup)
        guest = pathlib.Path(folder.name) / "guest"
        guest.write_text(GUEST)
        start_server(cls, web_servers.Lighttpd, guest, "lighttpd")

    def address(self, path, host=None):
        return f"http://{host or self.server.host}:{self.server.port}{self.server.path}{path}"

    def by_curl(self, *arguments, path="", host="localhost"):
        return subprocess.run(
            ["curl", "-q", "-s", "--resolve", f"{host}:{self.server.port}:{self.server.host}",
             *arguments, self.address(path, host)],
            capture_output=True, cwd=self.folder, env=ENVIRONMENT, timeout=LONG, check=True,
        ).stdout  # fmt: skip

    def by_tool(self, *arguments, path="", host="localhost"):
        result = self.run_in_folder(self.server.program, *arguments, self.address(path, host))
        self.assertEqual((result.status, result.errors), (0, ""))
        return result.output

    def assert_same(self, *arguments, **where):
        with self.subTest(arguments=arguments, **where):
            told = self.by_tool(*arguments, **where)
            self.assertEqual(told, self.by_curl(*arguments, **where))
            return told


class CookieTest(GuestTest):
    def jar(self, name):
        """Its cookies as the fields of their lines; a path with or without a slash
        at its end is for the same pages, a domain has no case."""
        lines = (self.folder / name).read_text().split("\n")
        cookies = [line.split("\t") for line in lines if line.count("\t") == 6]
        for fields in cookies:
            fields[0] = fields[0].lower()
            fields[2] = fields[2].rstrip("/") or "/"
        return sorted(cookies)

    def cookies(self, told):
        found = re.search(rb"HTTP_COOKIE=(.*)", told)[1].decode()
        return sorted(found.split("; ")) if found else []

    def assert_same_jar(self, *cookies, host="localhost", path="/x/y"):
        path = asking_for(*(f"Set-Cookie: {text}" for text in cookies), path=path)
        with self.subTest(cookies=cookies, host=host):
            self.by_curl("-c", "of-curl", path=path, host=host)
            self.by_tool("-c", "of-tool", path=path, host=host)
            of_curl, of_tool = self.jar("of-curl"), self.jar("of-tool")
            for ours, theirs in zip(of_tool, of_curl):
                if re.search('max-age="?1000', cookies[0].lower()):
                    # Counted from when each of them was run.
                    self.assertLess(abs(int(ours[4]) - int(theirs[4])), 900)
                    ours[4] = theirs[4]
            self.assertEqual(of_tool, of_curl)
            return of_tool

    def test_what_is_set_is_kept_as_by_curl(self):
        for text in (
            "a=1", "a=1=2", "a=", 'a="b c"', "  a = b c  ; ", "a=1; HttpOnly",
            "a=1;httponly;secure", "a=1; Path=/", "a=1; Path=/x/y/z", "a=1; path=/x",
            "a=1; Max-Age=1000", 'a=1; max-age="1000"',
            "a=1; Max-Age=1000; Expires=Thu, 01 Jan 1981 00:00:00 GMT", "a=1; Expires=Wed, 01 Jan 2098 01:02:03 GMT",
            "a=1; Max-Age=" + "9" * 4000, "a=1; Max-Age=1" + "0" * 19,
            "a=1; expires=Friday, 01-Jan-49 01:02:03 GMT",
            "a=1; Expires=Wed Jan  1 01:02:03 2098",
            "__Secure-a=1; Secure", "__Secure-a=1", "__Host-a=1; Secure; Path=/",
            "__Host-a=1; Secure; Path=/x", "__Host-a=1; Path=/",
            "__Host-a=1; Secure; Path=/; Domain=localhost", "a=1; SameSite=Strict; Odd=1",
        ):  # fmt: skip
            self.assert_same_jar(text)

    def test_path_that_is_none_does_not_count(self):
        """In a browser; curl keeps it, and sends the cookie nowhere or everywhere."""
        for attribute in ("Path=x", "Path=", "Path"):
            self.by_tool("-c", "jar", path=asking_for(f"Set-Cookie: a=1; {attribute}", path="/x/y"))
            self.assertEqual([fields[2] for fields in self.jar("jar")], ["/cgi-bin/guest/x"])

    def test_age_of_thousands_of_digits(self):
        """In a browser; curl ignores so long a cookie."""
        last = str((1 << 63) - 1)
        for age, times in (("9" * 5000, [last]), ("0" * 5000, []), ("-" + "9" * 5000, [])):
            self.by_tool("-c", "jar", path=asking_for(f"Set-Cookie: a=1; Max-Age={age}"))
            self.assertEqual([fields[4] for fields in self.jar("jar")], times)

    def test_what_is_ignored_is_ignored_by_curl(self):
        for text in ("a", "=1", "", "a=\t1\t2", "a=1; Domain=other.example", "a=1; Max-Age=0",
                     "a=1; Max-Age=-5", "a=1; Expires=Thu, 01 Jan 1981 00:00:00 GMT",
                     "a=1; Max-Age=0; Expires=Wed, 01 Jan 2098 01:02:03 GMT"):  # fmt: skip
            self.assertEqual(self.assert_same_jar(text), [])

    def test_domains_as_by_curl(self):
        for host, domain, is_kept in (
            ("www.panel.example", "panel.example", True),
            ("www.panel.example", ".Panel.Example", True),
            ("www.panel.example", "www.panel.example", True),
            ("www.panel.example", "example", False),
            ("www.panel.example", "other.panel.example", False),
            ("www.panel.example", "anel.example", False),
            ("panel.example", "www.panel.example", False),
            (self.server.host, self.server.host, True),
            (self.server.host, "0.0.1", False),
        ):
            kept = self.assert_same_jar(f"a=1; Domain={domain}", host=host)
            self.assertEqual(bool(kept), is_kept, (host, domain))
        # Whoever is not to be trusted cannot set what is to be secret.
        self.assertEqual(self.assert_same_jar("a=1; Secure", host="panel.example"), [])

    def test_same_cookie_is_replaced_and_removed(self):
        kept = self.assert_same_jar("a=1", "b=2", "a=3", "a=4; Path=/", "a=5; Domain=localhost")
        self.assertEqual(len(kept), 4)
        self.assertEqual(self.assert_same_jar("a=1", "a=; Max-Age=0"), [])
        self.assertEqual(len(self.assert_same_jar("a=1", "a=; Max-Age=0; Path=/")), 1)

    JAR = """# Netscape HTTP Cookie File

localhost\tFALSE\t/\tFALSE\t0\troot\t1
#HttpOnly_localhost\tFALSE\t/\tFALSE\t4000000000\thidden\t2
localhost\tFALSE\t/\tTRUE\t0\tsecret\t3
localhost\tFALSE\t/\tFALSE\t1000000000\tlong-gone\t4
localhost\tFALSE\t/cgi-bin/guest/x\tFALSE\t0\tinside\t5
localhost\tFALSE\t/cgi-bin/guest/x/\tFALSE\t0\tslash\t6
localhost\tFALSE\t/cgi-bin/gu\tFALSE\t0\tbeside\t7
.panel.example\tTRUE\t/\tFALSE\t0\tall\t8
panel.example\tFALSE\t/\tFALSE\t0\tone\t9
panel.example\tFALSE\t/\tTRUE\t0\tsafe\t10
#localhost\tFALSE\t/\tFALSE\t0\tcomment\t11
localhost\tFALSE\t/\tFALSE\t0\tempty\t
too\tfew\tfields
127.0.0.1\tFALSE\t/\tFALSE\t0\taddress\t12
"""

    def test_jar_is_sent_as_by_curl(self):
        self.file("jar", self.JAR.encode())
        for host, path, names in (
            ("localhost", "", {"root", "hidden", "secret", "empty"}),
            ("localhost", "/x", {"root", "hidden", "secret", "empty", "inside", "slash"}),
            ("localhost", "/x/y?z=/", {"root", "hidden", "secret", "empty", "inside", "slash"}),
            ("localhost", "/xx", {"root", "hidden", "secret", "empty"}),
            ("panel.example", "", {"all", "one"}),
            ("www.panel.example", "", {"all"}),
            ("xpanel.example", "", set()),
        ):
            with self.subTest(host=host, path=path):
                sent = self.cookies(self.by_tool("-b", "jar", path=path, host=host))
                expected = self.by_curl("-b", "jar", path=path, host=host)
                self.assertEqual(sent, self.cookies(expected))
                self.assertEqual({text.partition("=")[0] for text in sent}, names)

    def test_times_of_a_jar_as_by_curl(self):
        last = str((1 << 63) - 1)
        lines = [f"localhost\tFALSE\t/\tFALSE\t{seconds}\t{name}\t1"
                 for name, seconds in (("last", last), ("zeros", "0" * 4400 + last),
                                       ("more", str(1 << 63)), ("most", "9" * 4500))]  # fmt: skip
        self.file("jar", "\n".join(lines).encode())
        for sent in (self.by_tool("-b", "jar"), self.by_curl("-b", "jar")):
            self.assertEqual(self.cookies(sent), ["last=1", "zeros=1"])

    def test_lines_of_a_jar_end_as_by_curl(self):
        values = ["1\x852", "3\u20284\u20295", "6"]
        lines = [f"localhost\tFALSE\t/\tFALSE\t0\t{name}\t{value}\r\n"
                 for name, value in zip("abc", values)]  # fmt: skip
        self.file("jar", "".join(lines).encode())
        for sent in (self.by_tool("-b", "jar", "-c", "new"), self.by_curl("-b", "jar")):
            self.assertEqual(self.cookies(sent), [f"{n}={v}" for n, v in zip("abc", values)])
        self.assertEqual([fields[6] for fields in self.jar("new")], values)

    def test_secure_cookies_are_sent_by_https(self):
        self.file("jar", self.JAR.encode())
        result = self.run_in_folder(self.server.program, "-b", "jar", "https://panel.example/")
        self.assertEqual(self.cookies(result.output), ["all=8", "one=9", "safe=10"])

    def test_the_longest_path_comes_first(self):
        lines = [f"localhost\tFALSE\t{path}\tFALSE\t0\ta\t{value}"
                 for value, path in enumerate(("/", "/cgi-bin/guest", "/cgi-bin"))]  # fmt: skip
        self.file("jar", "\n".join(lines).encode())
        self.assertIn(b"HTTP_COOKIE=a=1; a=2; a=0\n", self.assert_same("-b", "jar"))

    def test_jars_are_read_by_each_other(self):
        path = asking_for("Set-Cookie: a=1; HttpOnly", "Set-Cookie: b=2; Path=/; Max-Age=1000",
                          "Set-Cookie: c=3; Domain=localhost; Secure")  # fmt: skip
        for make, read in ((self.by_curl, self.by_tool), (self.by_tool, self.by_curl)):
            make("-c", "jar", path=path)
            self.assertEqual(self.cookies(read("-b", "jar")), ["a=1", "b=2", "c=3"])

    def test_a_visit_with_one_jar(self):
        """The jar need not be there at first; what is in it goes on."""
        both = ("-b", "jar", "-c", "jar")
        self.by_tool(*both, path=asking_for("Set-Cookie: a=1"))
        self.by_tool(*both, path=asking_for("Set-Cookie: b=2"))
        self.assertEqual(self.cookies(self.by_tool(*both)), ["a=1", "b=2"])
        self.by_tool(*both, path=asking_for("Set-Cookie: a=; Max-Age=0"))
        self.assertEqual(self.cookies(self.by_tool(*both)), ["b=2"])

    def test_jar_that_is_only_written_begins_empty(self):
        self.file("jar", self.JAR.encode())
        self.assertEqual(self.cookies(self.by_tool("-c", "jar")), [])
        self.assertEqual(self.jar("jar"), [])

    def test_data_is_sent_beside_the_jar_and_not_kept(self):
        self.file("jar", b"localhost\tFALSE\t/\tFALSE\t0\ta\t1\n")
        told = self.assert_same("-b", "jar", "-b", "b=2; c=3", "-c", "new")
        self.assertIn(b"HTTP_COOKIE=a=1; b=2; c=3\n", told)
        self.assertEqual([fields[5:] for fields in self.jar("new")], [["a", "1"]])
        self.assert_same("-b", "jar", "-b", "b=2", "-H", "Cookie: d=4")
        self.assertEqual(self.cookies(self.assert_same("-b", "none")), [])

    def test_jar_is_nobody_elses(self):
        self.file("old", b"").chmod(0o644)
        self.by_tool("-c", "jar", "-o", "output")
        self.by_tool("-c", "old", "-o", "output")
        modes = [(self.folder / name).stat().st_mode & 0o777 for name in ("jar", "old", "output")]
        self.assertEqual(modes, [0o600, 0o600, 0o644])

    def test_jar_that_cannot_be_written_stays_as_it_was(self):
        jar = self.file("jar", self.JAR.encode())
        done = subprocess.run(
            ["sh", "-c", 'ulimit -f 0; exec "$@"', "sh",
             TOOL, "-b", "jar", "-c", "jar", self.server.program],
            capture_output=True, cwd=self.folder, env=ENVIRONMENT, timeout=LONG, check=False,
        )  # fmt: skip
        message = b"zancgi-request: cannot write jar: File too large\n"
        self.assertEqual((done.returncode, done.stderr), (23, message))
        self.assertEqual(jar.read_text(), self.JAR)
        self.assertEqual(os.listdir(self.folder), ["jar"])

    def test_jar_is_kept_when_the_request_fails(self):
        address = self.address(asking_for("Set-Cookie: a=1"))
        for jar in ("jar", "none/jar"):
            result = self.run_in_folder(
                self.server.program, "-c", jar, "-o", "none/output", address
            )
            message = "zancgi-request: cannot write none/output: No such file or directory\n"
            self.assertEqual((result.status, result.errors), (23, message))
        self.assertEqual([fields[5:] for fields in self.jar("jar")], [["a", "1"]])

    def test_jar_on_standard_output(self):
        link = self.folder / "link"
        link.symlink_to("/dev/stdout")
        for jar in ("-", "link"):
            output = self.by_tool("-c", jar, path=asking_for("Set-Cookie: a=1"))
            line = "localhost\tFALSE\t/cgi-bin\tFALSE\t0\ta\t1\n"
            self.assertTrue(output.endswith(line.encode()), output)
        self.assertTrue(link.is_symlink())

    def test_repeated_requests_have_the_cookies_of_those_before(self):
        path = asking_for("Set-Cookie: a=1")
        result = self.run_in_folder(
            self.server.program, "--repeat", "2", "-c", "jar", self.address(path)
        )
        self.assertEqual(re.findall(rb"HTTP_COOKIE=(.*)", result.output), [b"", b"a=1"])


class RedirectTest(GuestTest):
    """The address of the server stands in some of the answers."""

    def redirect(self, status, location, *more):
        return asking_for(f"Status: {status}", f"Location: {location}", *more, path="/from")

    def to(self, path):
        return self.server.path + path

    def test_methods_and_bodies_as_by_curl(self):
        self.file("f", b"content")
        for status in (301, 302, 303, 307, 308):
            path = self.redirect(status, self.to("/to?a=1"))
            for arguments in ((), ("-d", "x=1"), ("-T", "f"), ("-X", "DELETE"),
                              ("-d", "x", "-H", "X-A: 1", "-e", "http://r/;auto")):  # fmt: skip
                if arguments == ("-X", "DELETE") and status == 303:
                    continue  # curl asks by DELETE once more
                told = self.assert_same("-L", *arguments, path=path)
                self.assertIn(b"REQUEST_URI=/cgi-bin/guest/to?a=1\n", told)

    def test_what_a_form_becomes(self):
        for status, method, content_type, body in (
            (302, b"GET", b"", b""),
            (307, b"POST", b"application/x-www-form-urlencoded", b"x=1"),
        ):
            told = self.by_tool("-L", "-d", "x=1", path=self.redirect(status, self.to("/to")))
            for line in (b"REQUEST_METHOD=" + method, b"CONTENT_TYPE=" + content_type,
                         b"body=" + body):  # fmt: skip
                self.assertIn(line, told.splitlines())

    def test_after_303_everything_is_asked_by_get(self):
        path = self.redirect(303, self.to("/to"))
        for method in ("POST", "PUT", "DELETE"):
            told = self.by_tool("-L", "-X", method, path=path)
            self.assertIn(b"REQUEST_METHOD=GET\n", told)

    def test_head_stays_head(self):
        path = self.address(self.redirect(303, self.to("/to")))
        output = self.run_in_folder(self.server.program, "-L", "-I", path).output
        self.assertEqual(re.findall(rb"^HTTP/1.1 (\d+)", output, re.MULTILINE), [b"303", b"200"])

    def test_body_is_sent_again_from_its_beginning(self):
        self.file("f", b"content")
        for arguments in (("--data-binary", "@f"), ("--data-binary", "@-"), ("-F", "a=@f")):
            result = self.run_in_folder(
                self.server.program, "-L", *arguments, "--boundary", "B",
                self.address(self.redirect(307, self.to("/to"))), stdin=b"content",
            )  # fmt: skip
            self.assertEqual((result.status, result.errors), (0, ""))
            self.assertIn(b"content", result.output.partition(b"body=")[2])

    def test_is_not_followed_without_being_asked(self):
        told = self.assert_same(path=self.redirect(302, self.to("/to")))
        self.assertIn(b"REQUEST_URI=/cgi-bin/guest/from?", told)

    def test_only_the_last_body_is_shown_and_all_headers(self):
        path = self.redirect(302, self.to("/to"))
        output = self.by_tool("-L", "-i", "-D", "head", path=path)
        self.assertEqual(output.count(b"HTTP/1.1 "), 2)
        self.assertEqual(output.count(b"REQUEST_URI="), 1)
        head = (self.folder / "head").read_bytes()
        self.assertEqual(re.findall(rb"^HTTP/1.1 (\d+)", head, re.MULTILINE), [b"302", b"200"])

    def test_cookies_go_along_when_there_is_a_jar(self):
        path = self.redirect(302, self.to("/to"), "Set-Cookie: a=1")
        self.assertIn(b"HTTP_COOKIE=a=1; b=2\n", self.assert_same("-L", "-b", "", "-b", "b=2",
                                                                  path=path))  # fmt: skip
        self.assertIn(b"HTTP_COOKIE=\n", self.assert_same("-L", path=path))

    def test_whole_addresses_of_the_program(self):
        for location in (self.address("/to", "localhost"), self.address("/to", "LOCALHOST")):
            told = self.by_tool("-L", path=self.redirect(302, location))
            self.assertIn(b"REQUEST_URI=/cgi-bin/guest/to\n", told)
        result = self.run_in_folder(
            self.server.program, "-L", "http://panel.example"
            + self.server.path + self.redirect(301, "https://panel.example" + self.server.path),
        )  # fmt: skip
        self.assertEqual((result.status, result.errors), (0, ""))
        self.assertIn(b"REQUEST_URI=/cgi-bin/guest\n", result.output)

    def test_what_leads_away_is_not_followed(self):
        for location in ("/", "/cgi-bin/guests", "http://other.example" + self.server.path,
                         f"http://localhost:{self.server.port + 1}{self.server.path}",
                         "mailto:joe@panel.example", "ftp://localhost/"):  # fmt: skip
            with self.subTest(location=location):
                path = self.redirect(302, location)
                result = self.run_in_folder(
                    self.server.program, "-L", self.address(path, "localhost")
                )
                self.assertEqual(
                    (result.status, result.errors),
                    (0, f"zancgi-request: '{location}' is not followed: it leads away from the "
                        "program\n"),
                )  # fmt: skip
                self.assertIn(b"REQUEST_URI=/cgi-bin/guest/from?", result.output)

    def test_paths_below_a_program_that_the_url_names(self):
        program = self.program(
            "case $REQUEST_URI in\n"
            '*/end) printf "Content-Type: a/b\\n\\n$SCRIPT_NAME $PATH_INFO";;\n'
            '*) printf "Status: 302 Found\\nLocation: /panel/end\\n\\n";; esac\n'
        )
        for arguments, output in (
            (("--script-name", "/panel"), b"/panel /end"),
            (("--script-name", "/panel", "--path-info", "/begin"), b"/panel /end"),
            (("/panel",), b"/panel/end "),
        ):
            self.assertEqual(run(program, "-L", *arguments).output, output)

    def test_limit(self):
        program = self.program('printf "Status: 302 Found\\nLocation: /loop\\n\\n"; echo >> visits')
        for arguments, most in ((("--max-redirs", "2"), 2), (("--max-redirs", "0"), 0), ((), 50)):
            result = run(program, "-L", *arguments, "/loop", "-w", "%{num_redirects}")
            message = f"zancgi-request: there are more than {most} redirects\n"
            self.assertEqual((result.status, result.errors), (47, message))
            self.assertEqual(result.output, str(most).encode())
            visits = self.folder / "visits"
            self.assertEqual(visits.read_text().count("\n"), most + 1)
            visits.unlink()

    def test_time_limit_is_for_all_of_them(self):
        program = self.program(
            'printf "Status: 302 Found\\nLocation: /loop\\n\\n"; exec sleep 0.3'
        )
        self.assertEqual(run(program, "-L", "-m", "1", "/loop").status, 28)

    def test_what_is_wrong_is_not_followed(self):
        program = self.program('printf "Status: 302 Found\\nLocation: /x\\nnonsense\\n\\n"')
        self.assertEqual(run(program, "-L", "/x").status, 8)

    def test_write_out(self):
        path = self.redirect(302, self.to("/to?a=b"))
        form = "%{http_code} %{num_redirects} %{url_effective}\\n"
        self.assert_same("-L", "-o", "body", "-w", form, path=path)


class VersionTest(RequestTest):
    def test_is_the_projects(self):
        result = run("--version")
        self.assertEqual(result.output.decode(), f"zancgi-request {os.environ['VERSION']}\n")

    def test_is_packed_with_it_into_one_file_that_is_always_the_same(self):
        files = []
        for name in ("one", "two"):
            files.append(self.folder / name)
            subprocess.run([sys.executable, "-B", PACK, "12.3.4", files[-1]], check=True)
            os.utime(self.folder, (0, 0))
        self.assertEqual(files[0].read_bytes(), files[1].read_bytes())
        done = subprocess.run([files[0], "-V"], capture_output=True, text=True, check=True)
        self.assertEqual(done.stdout, "zancgi-request 12.3.4\n")


class StandardInputTest(RequestTest):
    def test_kinds(self):
        for kind, expected, reads, polled in (
            ("pipe", "pipe", [3], ["hang-up"]),
            ("socket", "socket", [3], ["readable"]),
            ("file", "file", [3], ["readable"]),
            ("null", "device", [0], ["readable"]),
            ("closed", "closed", [-1], ["invalid"]),
        ):
            with self.subTest(kind=kind):
                told = self.given("--stdin", kind, "-d", "a=1")
                self.assertEqual(told.kinds[0], expected)
                self.assertEqual(told.reads, reads)
                self.assertEqual(told.polled, polled)
                self.assertEqual(told.variables["CONTENT_LENGTH"], "3")
                self.assertEqual(told.body, b"a=1" if reads == [3] else b"")

    def test_body_has_ended_before_the_program_starts(self):
        for kind in ("pipe", "socket"):
            for body in (None, Body([b"abc"])):
                channel = Channel(kind, body)
                self.addCleanup(channel.hang_up)
                self.addCleanup(channel.give_away)
                Feeder(channel, body, Settings()).fill()
                os.set_blocking(channel.stdin, False)
                self.assertEqual(os.read(channel.stdin, 9), b"abc" if body else b"")
                self.assertEqual(select.select([channel.stdin], [], [], 0)[0], [channel.stdin])

    def test_body_ends_also_for_who_reads_on(self):
        for kind in ("pipe", "socket", "file"):
            told = self.given("--stdin", kind, "-d", "a=1", "?to-the-end")
            self.assertEqual((told.reads, told.body), ([3, 0], b"a=1"), kind)

    def test_long_body_by_each_kind(self):
        content = os.urandom(3 * MEGABYTE)
        self.file("f", content)
        for kind in ("pipe", "socket", "file"):
            told = self.given("--stdin", kind, "--data-binary", "@f")
            self.assertTrue(told.body == content, kind)

    def test_chunks_are_read_one_by_one(self):
        for kind in ("pipe", "socket"):
            told = self.given("--stdin", kind, "--chunk", "1", "-d", "abcd")
            self.assertEqual((told.reads, told.body), ([1, 1, 1, 1], b"abcd"), kind)

    def test_last_chunk_size_counts_for_the_rest(self):
        told = self.given("--chunk", "3,7,2", "--data-binary", "@-", stdin=b"0123456789abcde")
        self.assertEqual(told.reads, [3, 7, 2, 2, 1])
        self.assertEqual(told.body, b"0123456789abcde")

    def test_chunks_across_pieces_of_a_form(self):
        self.file("f", b"x" * 1000)
        told = self.given("--chunk", "500", "-F", "a=1", "-F", "f=@f", "-F", "g=@f")
        self.assertEqual(set(told.reads[:-1]), {500})
        self.assertEqual(sum(told.reads), int(told.variables["CONTENT_LENGTH"]))

    def test_pause(self):
        begun = time.monotonic()
        told = self.given("--pause", "150", "--chunk", "1", "-d", "abc")
        self.assertEqual(told.reads, [1, 1, 1])
        self.assertGreater(time.monotonic() - begun, 0.3)

    def test_held_open(self):
        for kind in ("pipe", "socket"):
            told = self.given("--stdin", kind, "--hold-open", "-d", "abc")
            self.assertEqual((told.body, told.polled), (b"abc", []), kind)

    def test_held_open_costs_nothing(self):
        """Beside what it costs to hold nothing open, which depends on the machine."""
        program = self.program("head -c 3 >&2; exec >&- <&-; sleep $SECONDS")

        def processor_time(*arguments):
            before = os.times()
            run(program, "-d", "abc", *arguments)
            after = os.times()
            return (
                after.children_user + after.children_system
                - before.children_user - before.children_system
            )  # fmt: skip

        for kind in ("pipe", "socket"):
            least = processor_time("--stdin", kind, "--env", "SECONDS=0")
            held = processor_time("--stdin", kind, "--env", "SECONDS=3", "--hold-open")
            self.assertLess(held, 4 * least + 0.5, kind)

    def test_who_reads_on_waits_for_what_is_held_open(self):
        result = run(PROBE, "--hold-open", "-d", "abc", "?to-the-end", "-m", "0.5")
        self.assertEqual(result.status, 28)
        self.assertIn("has not come to an end in 0.5 seconds", result.errors)

    def test_length_may_be_a_lie(self):
        for arguments, length, body in (
            (("--content-length", "1"), "1", b"a"),
            (("--content-length", "9"), "9", b"abc"),
            (("--content-length", "none"), None, b""),
            (("--content-length", "many"), "many", b""),
            (("-H", "Content-Length: 2"), "2", b"ab"),
            (("-H", "Content-Length:"), None, b""),
        ):
            told = self.given("-d", "abc", *arguments)
            self.assertEqual(told.variables.get("CONTENT_LENGTH"), length, arguments)
            self.assertEqual(told.body, body, arguments)

    def test_upload_from_standard_input_has_a_length(self):
        for name in ("-", "."):
            told = self.given("-T", name, stdin=b"abc")
            self.assertEqual((told.variables["CONTENT_LENGTH"], told.body), ("3", b"abc"))

    def test_what_can_be_read_once_has_a_length(self):
        fifo = self.folder / "fifo"
        os.mkfifo(fifo)
        writer = subprocess.Popen(["sh", "-c", f"echo hello > '{fifo}'"])
        self.addCleanup(writer.wait)
        told = self.given("--data-binary", "@fifo")
        self.assertEqual((told.variables["CONTENT_LENGTH"], told.body), ("6", b"hello\n"))

    def test_stream_goes_through_while_it_comes(self):
        program = self.program("echo Content-Type: text/plain; echo; exec cat")
        tool = subprocess.Popen(
            [TOOL, "-T", "-", "--content-length", "none", program],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, env=ENVIRONMENT, bufsize=0,
        )  # fmt: skip
        for text in (b"first", b"second"):
            tool.stdin.write(text)
            self.assertEqual(tool.stdout.read(100), text)
        tool.stdin.close()
        self.assertEqual(tool.stdout.read(), b"")
        tool.stdout.close()
        self.assertEqual(tool.wait(LONG), 0)

    def test_servers_own_ways(self):
        large = self.file("f", b"x" * 65537)
        for server, kinds in (
            ("rfc3875", ["pipe", "pipe", "pipe"]),
            ("lighttpd", ["device", "pipe", "file"]),
            ("apache", ["socket", "socket", "socket"]),
            ("nginx-fcgiwrap", ["pipe", "pipe", "pipe"]),
            ("busybox", ["pipe", "pipe", "pipe"]),
        ):
            told = [
                self.given("--server", server, *body).kinds[0]
                for body in ((), ("-d", "a"), ("--data-binary", f"@{large}"))
            ]
            self.assertEqual(told, kinds, server)

    def test_pieces_are_written_also_where_a_server_would_collect_them(self):
        large = self.file("f", b"x" * 65537)
        told = self.given("--server", "lighttpd", "--data-binary", f"@{large}", "--chunk", "60000")
        self.assertEqual((told.kinds[0], told.reads), ("pipe", [60000, 5537]))

    def test_much_fits_into_little_memory(self):
        with (self.folder / "f").open("wb") as file:
            file.truncate(300 * MEGABYTE)
        reader = self.program(
            "echo Content-Type: text/plain; echo; cat | wc -c; cat /dev/zero | head -c 50000000"
        )
        for kind in ("pipe", "socket", "file"):
            tool = subprocess.Popen(
                [TOOL, "--stdin", kind, "--data-binary", "@f", reader],
                cwd=self.folder, stdout=subprocess.PIPE, env=ENVIRONMENT,
            )  # fmt: skip
            with tool.stdout:
                self.assertEqual(tool.stdout.readline().strip(), b"%d" % (300 * MEGABYTE))
                self.assertEqual(len(tool.stdout.read(49_000_000)), 49_000_000)
                status = pathlib.Path(f"/proc/{tool.pid}/status").read_text()
                self.assertEqual(len(tool.stdout.read()), 1_000_000)
            self.assertEqual(tool.wait(LONG), 0)
            self.assertLess(int(re.search(r"VmHWM:\s+(\d+) kB", status)[1]), 40_000, kind)


class ClientGoesAwayTest(RequestTest):
    # Tells in a file what became of it, since nobody takes its answer.
    witness = """#!/usr/bin/python3
import os, signal, sys, time
def term(*_):
    open("signal", "w").write("TERM")
    sys.exit()
signal.signal(signal.SIGTERM, term)
read = 0
while block := os.read(0, 65536):
    read += len(block)
open("read", "w").write(str(read))
time.sleep(float(os.environ.get("SLEEP", "0")))
"""

    def outcome(self, name):
        path = self.folder / name
        return path.read_text() if path.exists() else None

    def test_after_some_bytes(self):
        program = self.program(self.witness)
        for kind in ("pipe", "socket"):
            result = run(program, "--stdin", kind, "-d", "x" * 1000, "--abort-after", "300")
            self.assertEqual((result.status, result.output, result.errors), (0, b"", ""), kind)
            self.assertEqual(self.outcome("read"), "300")

    def test_after_all_of_it_at_most(self):
        run(self.program(self.witness), "-d", "xyz", "--abort-after", "300")
        self.assertEqual(self.outcome("read"), "3")

    def test_with_a_signal(self):
        """A program that has not begun in a second, on a busy machine, is ended."""
        program = self.program(self.witness)
        for _ in range(20):
            result = run(
                program, "-d", "x" * 1000, "--abort-after", "300", "--abort-signal", "TERM"
            )
            self.assertEqual((result.status, result.errors), (0, ""))
            if self.outcome("signal"):
                break
        self.assertEqual((self.outcome("signal"), self.outcome("read")), ("TERM", None))

    def test_program_may_heed_the_signal_by_its_end(self):
        program = self.program(f"cat; sleep {AGES}")
        for name in ("TERM", "SIGTERM", "15", "KILL"):
            result = run(program, "-d", "xyz", "--abort-after", "2", "--abort-signal", name)
            self.assertEqual((result.status, result.errors), (0, ""), name)

    def test_program_must_end_nevertheless(self):
        program = self.program(self.witness)
        result = run(program, "-d", "xyz", "--abort-after", "2", "--env", f"SLEEP={AGES}",
                     "-m", "10")  # fmt: skip
        self.assertEqual(result.status, 28)
        self.assertEqual(self.outcome("read"), "2")

    def test_crash_in_mid_body(self):
        program = self.program("cat; kill -SEGV $$")
        result = run(program, "-d", "xyz", "--abort-after", "2")
        self.assertEqual(result.status, 128 + signal.SIGSEGV)
        self.assertIn("signal 11 (SIGSEGV)", result.errors)

    def test_program_that_does_not_read_is_left_too(self):
        program = self.program(f"exec sleep {AGES}")
        result = run(program, "-d", "xyz", "--abort-after", "2", "--abort-signal", "TERM")
        self.assertEqual(result.status, 0)


TEXT = "Content-Type: text/plain\n"


class AnswerTest(RequestTest):
    def answer(self, text, *arguments, name="program"):
        """The program writes this, byte for byte."""
        self.file("answer", text.encode())
        return run(self.program(f"cat '{self.folder}/answer'", name), *arguments)

    def assert_sound(self, text, output, *arguments, status=0, **more):
        result = self.answer(text, *arguments, **more)
        self.assertEqual((result.status, result.output, result.errors), (status, output, ""))

    def assert_wrong(self, text, *messages, status=8, output=None, arguments=(), **more):
        result = self.answer(text, *arguments, **more)
        said = [line.removeprefix("zancgi-request: ") for line in result.errors.splitlines()]
        self.assertEqual(len(said), len(messages), said)
        for line, message in zip(said, messages, strict=True):
            self.assertIn(message, line)
        self.assertEqual(result.status, status)
        if output is not None:
            self.assertEqual(result.output, output)

    def test_status_decides(self):
        for status, expected in ((200, 0), (201, 0), (302, 0), (399, 0), (400, 4), (404, 4),
                                 (499, 4), (500, 5), (503, 5), (999, 5)):  # fmt: skip
            self.assert_sound(f"Status: {status} X\n{TEXT}\nbody", b"body", status=expected)

    def test_fail_as_curl_does(self):
        self.assert_sound(TEXT + "\nbody", b"body", "--fail")
        result = self.answer(f"Status: 404 No\n{TEXT}\nbody", "-f")
        self.assertEqual((result.status, result.output), (22, b""))
        self.assertIn("has answered 404", result.errors)

    def test_header_as_http_has_it(self):
        self.assert_sound(
            "status: 404 Nothing here\r\nX-A:1\r\nContent-Type:  text/plain \r\n\r\nbody",
            b"HTTP/1.1 404 Nothing here\r\nX-A: 1\r\nContent-Type: text/plain\r\n\r\nbody",
            "-i",
            status=4,
        )
        self.assert_sound(
            TEXT + "\n", b"HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n\r\n", "--include"
        )
        self.assert_sound(
            f"Status: 503\n{TEXT}\n",
            b"HTTP/1.1 503 Service Unavailable\r\nContent-Type: text/plain\r\n\r\n",
            "-i", status=5,
        )  # fmt: skip

    def test_redirects(self):
        self.assert_sound(
            "Location: http://x/\n\n", b"HTTP/1.1 302 Found\r\nLocation: http://x/\r\n\r\n", "-i"
        )
        self.assert_sound(
            f"Status: 303 Go\nLocation: /y\n{TEXT}\nz",
            b"HTTP/1.1 303 Go\r\nLocation: /y\r\nContent-Type: text/plain\r\n\r\nz",
            "-i",
        )
        self.assert_wrong("Location: /here?a\n\n", "'/here?a' is a local redirect", status=0)
        self.assert_wrong("Location: here\n\n", "neither a whole URL nor a path")

    def test_head(self):
        self.assert_sound(
            TEXT + "Content-Length: 9\n\n",
            b"HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 9\r\n\r\n",
            "-I",
        )
        self.assert_wrong(
            TEXT + "\nbody", "the body of 4 bytes is dropped",
            status=0, output=b"", arguments=("-X", "HEAD"),
        )  # fmt: skip

    def test_raw_http_of_a_program_named_so(self):
        text = "HTTP/1.0 404 No\r\nContent-Type: a/b\r\n\r\nbody"
        self.assert_sound(text, b"body", status=4, name="nph-program")
        self.assert_wrong(text, "as those of programs named nph-", status=8)
        self.assert_wrong(TEXT + "\n", "begins its answer with HTTP/1.1", name="nph-program")

    def test_wrong_headers(self):
        for text, message in (
            ("\nbody", "no Content-Type"),
            ("\n", "neither Content-Type nor Location nor Status"),
            ("X-A: 1\n\n", "neither Content-Type nor Location nor Status"),
            ("X-A: 1\n\nbody", "no Content-Type"),
            ("Status: 200\n\nbody", "no Content-Type"),
            (TEXT + "nonsense\n\n", "no NAME: VALUE: 'nonsense'"),
            (TEXT + "X A: 1\n\n", "no NAME: VALUE"),
            (TEXT + "X-A : 1\n\n", "no NAME: VALUE"),
            (TEXT + " folded\n\n", "no NAME: VALUE"),
            (TEXT + ": 1\n\n", "no NAME: VALUE"),
            (TEXT + "X-A: \033[2J\n\n", "control characters: 'X-A: \\x1b[2J'"),
            (TEXT + TEXT + "\n", "2 fields Content-Type"),
            ("Status: ok\n" + TEXT + "\n", "Status is no number of three digits: 'ok'"),
            (TEXT + "Content-Length: -1\n\n", "Content-Length is no number"),
            (TEXT, "does not end: an empty line is missing"),
            (TEXT + "X-A: " + "x" * 70000 + "\n\n", "longer than 65536 bytes"),
            ("Status: 204 No\n" + TEXT + "\nbody", "204 has no body, but one of 4 bytes"),
        ):
            with self.subTest(text=text[:100]):
                self.assert_wrong(text, message)

    def test_no_header_at_all_is_shown_as_it_is(self):
        text = "Traceback\noops\n\nmore"
        self.assert_wrong(
            text, "no NAME: VALUE: 'Traceback'", "no NAME: VALUE: 'oops'", output=text.encode()
        )

    def test_length(self):
        self.assert_sound(TEXT + "Content-Length: 4\n\nbody", b"body")
        self.assert_wrong(
            TEXT + "Content-Length: 3\n\nbody", "1 bytes came after the 3", output=b"bod"
        )
        self.assert_wrong(
            TEXT + "Content-Length: 6\n\nbody", "of the 6 bytes of Content-Length 2 are missing",
            status=18, output=b"body",
        )  # fmt: skip

    def test_header_that_ends_in_several_pieces(self):
        program = self.program(
            "#!/usr/bin/python3 -u\nimport os, time\n"
            "for piece in (b'Status: 404 No\\r', b'\\nContent-Type: a/b\\r\\n', b'\\r', b'\\n', b'x'):\n"
            "    os.write(1, piece)\n    time.sleep(0.1)\n"
        )
        result = run(program)
        self.assertEqual((result.status, result.output, result.errors), (4, b"x", ""))

    def test_nothing(self):
        self.assert_wrong("", "has answered nothing at all", status=52)

    def test_end_by_a_signal(self):
        result = run(self.program(f"printf '{TEXT}\\nbody'; kill -SEGV $$"))
        self.assertEqual((result.status, result.output), (139, b"body"))
        self.assertIn("was ended by signal 11 (SIGSEGV)", result.errors)

    def test_end_by_a_signal_where_ends_of_children_are_ignored(self):
        program = self.program("kill -SEGV $$")
        done = subprocess.run(
            [TOOL, program],
            capture_output=True,
            check=False,
            preexec_fn=lambda: signal.signal(signal.SIGCHLD, signal.SIG_IGN),
        )
        self.assertEqual(done.returncode, 128 + signal.SIGSEGV)

    def test_output_that_is_closed(self):
        program = self.program(f"printf '{TEXT}\\nbody'")
        closing = f"exec '{TOOL}' '{program}' >&-"
        done = subprocess.run(["/bin/sh", "-c", closing], capture_output=True, check=False)
        self.assertEqual(done.returncode, 23)
        self.assertIn(b"standard output is closed", done.stderr)

    def test_exit_status_of_the_program(self):
        result = run(self.program(f"printf '{TEXT}\\nbody'; exit 3"))
        self.assertEqual((result.status, result.output), (0, b"body"))
        self.assertIn("ended with exit status 3", result.errors)

    def test_what_the_program_says_on_standard_error_comes_through(self):
        result = run(self.program(f"echo oops >&2; printf '{TEXT}\\n'"))
        self.assertEqual((result.status, result.errors), (0, "oops\n"))

    def test_silence(self):
        self.assertEqual(self.answer("", "-s").errors, "")
        self.assertEqual(self.answer("", "--silent").status, 52)
        self.assertIn("nothing at all", self.answer("", "-sS").errors)

    def test_files(self):
        for text, status in ((TEXT + "\nbody", 0), (f"Status: 500\n{TEXT}\nbody", 5)):
            self.assert_sound(
                text, b"", "-o", self.folder / "out", "-D", self.folder / "head", status=status
            )
            self.assertEqual((self.folder / "out").read_bytes(), b"body")
            self.assertTrue((self.folder / "head").read_bytes().startswith(b"HTTP/1.1 "))
        self.assert_sound(TEXT + "\nx", b"HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n\r\nx",
                          "-D", "-")  # fmt: skip
        result = self.answer(TEXT + "\nbody", "-o", self.folder / "none" / "out")
        self.assertEqual(result.status, 23)

    def test_reader_who_goes_away(self):
        program = self.program(f"printf '{TEXT}\\n'; exec cat /dev/zero")
        tool = subprocess.Popen(
            [TOOL, program], stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=ENVIRONMENT
        )
        tool.stdout.read(10)
        tool.stdout.close()
        self.assertIn(b"cannot write the answer", tool.stderr.read())
        tool.stderr.close()
        self.assertEqual(tool.wait(LONG), 23)

    def test_write_out(self):
        form = "%{http_code} %{content_type} %{size_download} %{size_upload} %{method}%%\\t|\\n"
        self.assert_sound(
            f"Status: 404\n{TEXT}\nbody", b"body404 text/plain 4 3 POST%\t|\n",
            "-d", "abc", "-w", form, status=4,
        )  # fmt: skip
        result = self.answer(TEXT + "\n", "-w", "%{time_starttransfer} %{time_total}")
        first, last = map(float, result.output.split())
        self.assertTrue(0 < first <= last)
        self.assertEqual(self.answer("", "-w", "%{http_code} %{exitcode}").output, b"000 52")

    def test_verbose(self):
        result = self.answer(TEXT + "\nbody", "-v", "-d", "a=1", "?x")
        for line in ("> QUERY_STRING=x", "> CONTENT_LENGTH=3", "< HTTP/1.1 200 OK",
                     "< Content-Type: text/plain", "* a body of 3 bytes"):  # fmt: skip
            self.assertIn(line, result.errors.splitlines())
        self.assertEqual(result.output, b"body")

    def test_repeated(self):
        result = self.answer(TEXT + "\nbody", "--repeat", "3", "-d", "abc")
        self.assertEqual((result.status, result.output), (0, b"bodybodybody"))
        self.assertRegex(result.errors, r"3 requests: fastest [\d.]+ ms, median .*, slowest .* ms")

    def test_body_is_sent_again_when_repeated(self):
        program = self.program(f"printf '{TEXT}\\n'; exec cat")
        self.file("f", b"file")
        result = self.run_in_folder(program, "--repeat", "3", "--data-binary", "@f")
        self.assertEqual(result.output, b"filefilefile")


def is_running(name):
    """A process whose name is of this test alone."""
    for path in pathlib.Path("/proc").glob("[0-9]*/comm"):
        with contextlib.suppress(OSError):
            state = (path.parent / "stat").read_text().rpartition(")")[2].split()[0]
            if path.read_text().strip() == name and state != "Z":
                return True
    return False


class EndTest(RequestTest):
    def sleeper(self):
        """A program of an own name that sleeps for long."""
        name = f"sleep{os.getpid()}"
        shutil.copy("/usr/bin/sleep", self.folder / name)
        return name

    def test_early_answer(self):
        program = self.program(f"printf '{TEXT}\\nbody'")
        self.file("f", b"x" * MEGABYTE)
        for kind in ("pipe", "socket"):
            result = self.run_in_folder(program, "--stdin", kind, "--data-binary", "@f")
            self.assertEqual((result.status, result.output), (0, b"body"), kind)
            self.assertIn("bytes of the body unread", result.errors)

    def test_both_sides_write_at_once(self):
        program = self.program(
            f"printf '{TEXT}\\n'; head -c 3000000 /dev/zero; cat >/dev/null; echo end"
        )
        self.file("f", b"x" * 3 * MEGABYTE)
        for kind in ("pipe", "socket", "file"):
            result = self.run_in_folder(program, "--stdin", kind, "--data-binary", "@f")
            self.assertEqual((result.status, result.output[-4:]), (0, b"end\n"), kind)

    def test_time_limit_ends_all_processes(self):
        name = self.sleeper()
        program = self.program(f"./{name} {AGES} & ./{name} {AGES}")
        result = run(program, "-m", "0.5")
        self.assertEqual(result.status, 28)
        self.assertFalse(is_running(name))

    def test_time_limit_ends_who_does_not_heed_it(self):
        name = self.sleeper()
        result = run(self.program(f"trap '' TERM; ./{name} {AGES}"), "-m", "0.5")
        self.assertEqual(result.status, 28)
        self.assertFalse(is_running(name))

    def test_time_limit_holds_while_nobody_takes_the_answer(self):
        program = self.program(f"printf '{TEXT}\\n'; exec cat /dev/zero")
        tool = subprocess.Popen([TOOL, program, "-sm", "0.5"], stdout=subprocess.PIPE,
                                env=ENVIRONMENT)  # fmt: skip
        self.assertEqual(tool.wait(LONG), 28)
        tool.stdout.close()

    def test_signal_ends_the_program_too(self):
        name = self.sleeper()
        program = self.program(f"./{name} {AGES}")
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            tool = subprocess.Popen([TOOL, program], env=ENVIRONMENT)
            wait_for(lambda: is_running(name), LONG)
            tool.send_signal(number)
            self.assertEqual(tool.wait(LONG), 128 + number)
            self.assertFalse(is_running(name))

    def test_signal_that_comes_again_does_not_keep_the_program_from_its_end(self):
        name = self.sleeper()
        program = self.program(f"trap '' TERM INT; ./{name} {AGES}; ./{name} {AGES}")
        tool = subprocess.Popen([TOOL, program], env=ENVIRONMENT)
        wait_for(lambda: is_running(name), LONG)
        tool.send_signal(signal.SIGINT)
        time.sleep(0.3)
        tool.send_signal(signal.SIGINT)
        self.assertEqual(tool.wait(LONG), 128 + signal.SIGINT)
        self.assertFalse(is_running(name))

    def test_processes_left_behind(self):
        name = self.sleeper()
        for start in (f"./{name} {AGES}", f"setsid ./{name} {AGES}"):
            program = self.program(f"{start} >&- 2>&- <&- & printf '{TEXT}\\nbody'")
            result = run(program)
            self.assertEqual((result.status, result.output), (0, b"body"))
            left = re.search(rf"has left behind: {name} \((\d+)\)", result.errors)
            self.assertIsNotNone(left, result.errors)
            os.kill(int(left[1]), signal.SIGKILL)
            wait_for(lambda: not is_running(name), LONG)

    def test_process_that_cleans_up_is_not_left_behind(self):
        """It has a second, which on a busy machine it may not get."""
        program = self.program(f"sleep 0.2 >&- 2>&- <&- & printf '{TEXT}\\nbody'")
        results = (run(program) for _ in range(20))
        self.assertIn(Result(0, b"body", ""), results)

    def test_output_held_open_is_waited_for(self):
        name = self.sleeper()
        # Until it has been said that it is waited for.
        program = self.program(
            f"printf '{TEXT}\\nbody'\n"
            f"(while ! [ -e said ]; do ./{name} 0.1; done; echo late) 2>&- <&- &"
        )
        tool = subprocess.Popen([TOOL, program], env=ENVIRONMENT, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE)  # fmt: skip
        said = tool.stderr.readline()
        self.file("said", b"")
        output, errors = tool.communicate(timeout=LONG)
        result = Result(tool.returncode, output, (said + errors).decode())
        self.assertEqual((result.status, result.output), (0, b"bodylate\n"))
        self.assertIn("holds its standard output open", result.errors)

    def test_no_temporary_file_is_left(self):
        temporary = self.folder / "tmp"
        temporary.mkdir()
        self.file("f", b"x" * MEGABYTE)
        for arguments, status in (
            (("--stdin", "file", "-F", "f=@f"), 0),
            (("-T", "-"), 0),
            (("--stdin", "file", "-F", "f=@f", "--env", "SLOW=1", "-m", "0.3"), 28),
        ):
            program = self.program(
                f"printf '{TEXT}\\n'; cat >&-; [ -z \"$SLOW\" ] || exec sleep {AGES}"
            )
            result = self.run_in_folder(program, *arguments, stdin=b"abc", TMPDIR=str(temporary))
            self.assertEqual(result.status, status, arguments)
            self.assertEqual(list(temporary.iterdir()), [])


class RefusalTest(RequestTest):
    def test_programs_that_cannot_be_run(self):
        plain = self.file("plain", b"no program\n")
        not_executable = self.file("not-executable", b"")
        not_executable.chmod(0o644)
        plain.chmod(0o755)
        for program, status, message in (
            ("./none", 127, "there is no program ./none"),
            ("not-executable", 126, "may not be executed"),
            (self.folder, 126, "is a folder"),
            ("plain", 126, "begins with no #! line"),
        ):
            result = self.run_in_folder(program)
            self.assertEqual(result.status, status)
            self.assertIn(message, result.errors)

    def test_misuse(self):
        for arguments, message in (
            ((), "a program is wanted"),
            (("a", "b", "c"), "a program is wanted"),
            (("--nonsense", PROBE), "--nonsense"),
            (("-d", "a", "-F", "b=c", PROBE), "more than one kind"),
            (("-d", "a", "-T", "f", PROBE), "more than one kind"),
            (("-I", "-d", "a", PROBE), "more than one kind"),
            (("-G", "-F", "a=b", PROBE), "more than one kind"),
            (("-F", "a", PROBE), "NAME=VALUE"),
            (("-F", "a=@b,c", PROBE), "one --form takes one file"),
            (("-F", "a=b;type=none", PROBE), "type that is none"),
            (("-F", "a=b;nonsense=1", PROBE), "'nonsense=1'"),
            (("-F", "a=b;encoder=base64", PROBE), "encoded parts"),
            (("-H", "nonsense", PROBE), "NAME: VALUE"),
            (("-H", "X A: 1", PROBE), "no name of a header"),
            (("-H", "X: a\nY: b", PROBE), "no control characters"),
            (("-A", "a\r\nY: b", PROBE), "no control characters"),
            (("-b", "a=1\nY: b", PROBE), "no control characters"),
            (("-e", "a\x7f", PROBE), "no control characters"),
            (("-X", "GET /\r\n", PROBE), "no method"),
            (("-L", "--abort-after", "1", PROBE), "either --location or --abort-after"),
            (("-L", "-T", "-", "--content-length", "none", PROBE), "sent again"),
            (("--max-redirs", "-1", PROBE), "--max-redirs cannot be '-1'"),
            (("-m", "-1", PROBE), "-m cannot be '-1'"),
            (("-m", "nan", PROBE), "cannot be 'nan'"),
            (("-m", "inf", PROBE), "cannot be 'inf'"),
            (("--pause", "1e300", PROBE), "cannot be '1e300'"),
            (("--chunk", "0", PROBE), "--chunk cannot be"),
            (("--chunk", "1,x", PROBE), "--chunk cannot be"),
            (("--stdin", "tape", PROBE), "pipe, socket, file, closed, null"),
            (("--server", "none", PROBE), "lighttpd"),
            (("--abort-signal", "NONE", "--abort-after", "1", PROBE), "cannot be 'NONE'"),
            (("--abort-signal", "TERM", PROBE), "wants --abort-after"),
            (("--abort-after", "1", "--hold-open", PROBE), "either"),
            (("--stdin", "file", "--chunk", "1", PROBE), "nothing is written"),
            (("--debugger", "gdb", "--valgrind", PROBE), "either"),
            (("--debugger", "gdb", "--repeat", "2", PROBE), "--repeat"),
            (("-T", "-", "--content-length", "none", "--repeat", "2", PROBE), "sent again"),
            (("--script-name", "/a", PROBE, "/b"), "does not begin with '/a'"),
            (("--env", "=x", PROBE), "--env"),
        ):
            with self.subTest(arguments=arguments):
                result = run(*arguments)
                self.assertEqual((result.status, result.output), (2, b""))
                self.assertIn(message, result.errors)

    def test_addresses_that_are_none(self):
        for url in ("/a b", "/a%00b", "http:///x", "ftp://x/", "http://x:y/", "http://x:1:2/"):
            self.assertEqual(run(PROBE, url).status, 3, url)
        self.assertEqual(run(PROBE, "-G", "-d", "a b").status, 3)

    def test_files_that_cannot_be_read(self):
        for arguments in (("-d", "@none"), ("--data-binary", "@none"), ("-F", "a=@none"),
                          ("-T", "none"), ("-F", "a=<."), ("-T", "/"),
                          ("--data-urlencode", "@none"), ("-H", "@none"),
                          ("-b", ".")):  # fmt: skip
            result = self.run_in_folder(PROBE, *arguments)
            self.assertEqual(result.status, 26, arguments)
            self.assertIn("cannot read", result.errors)


class DebuggerTest(RequestTest):
    def test_gdb_leaves_body_and_answer_to_the_program(self):
        self.file("f", os.urandom(MEGABYTE))
        for kind in ("pipe", "socket", "file"):
            arguments = ("--stdin", kind, "-F", "f=@f", "--boundary", "B", "-b", 'a=it\'s "b" $c')
            alone = self.given(*arguments)
            result = self.run_in_folder(PROBE, *arguments, "--debugger", "gdb -batch -ex run")
            self.assertEqual(result.status, 0)
            self.assertIn("exited normally", result.errors)
            debugged = given(result.output)
            self.assertEqual(debugged.variables, alone.variables)
            self.assertTrue(debugged.body == alone.body)
            self.assertEqual((debugged.kinds, debugged.folder), (alone.kinds, alone.folder))

    def test_gdb_takes_its_commands_from_the_terminal(self):
        result = run(
            PROBE, "-d", "a=1", "--debugger", "gdb -q --args",
            stdin=b"break main\nrun\nprint 40 + 2\ncontinue\nquit\n",
        )  # fmt: skip
        self.assertIn("Breakpoint 1, ", result.errors)
        self.assertIn("$1 = 42", result.errors)
        self.assertEqual(given(result.output).body, b"a=1")

    def test_gdb_with_standard_input_closed(self):
        result = run(PROBE, "--stdin", "closed", "--debugger", "gdb -batch -ex run")
        self.assertEqual(given(result.output).kinds[0], "closed")

    def test_time_limit_ends_gdb(self):
        copy = shutil.copy(PROBE, self.folder / "cgi_probe_copy")
        result = run(copy, "?to-the-end", "--hold-open", "-m", "10", "--debugger",
                     "gdb -batch -ex run")  # fmt: skip
        self.assertEqual(result.status, 28)
        self.assertFalse(is_running("cgi_probe_copy"))

    def test_other_programs_in_front_hand_standard_input_on(self):
        told = self.given("-d", "a=1", "--debugger", "env FRONT=1")
        self.assertEqual((told.body, told.variables["FRONT"]), (b"a=1", "1"))

    def test_interrupt_ends_other_programs_in_front(self):
        program = self.program(f"exec sleep {AGES}")
        tool = subprocess.Popen([TOOL, "--debugger", "env", program], env=ENVIRONMENT)
        self.addCleanup(tool.wait)
        self.addCleanup(tool.terminate)
        children = pathlib.Path(f"/proc/{tool.pid}/task/{tool.pid}/children")
        wait_for(lambda: children.read_text(), LONG)
        tool.send_signal(signal.SIGINT)
        self.assertEqual(tool.wait(LONG), 128 + signal.SIGINT)

    def test_other_programs_in_front_ignore_no_signals(self):
        program = self.program(f"printf '{TEXT}\\n'; exec grep SigIgn: /proc/self/status")
        result = run("--debugger", "env", program)
        self.assertEqual(result.output.split(), [b"SigIgn:", b"0" * 16])

    def test_valgrind(self):
        told = self.given("-d", "a=1", "--valgrind")
        self.assertEqual(told.body, b"a=1")

    def test_valgrind_finds_errors(self):
        source = self.file(
            "faulty.cpp",
            b"""#include <cstdio>
            int main() {
              volatile char* freed = new char[8];
              delete[] freed;
              std::printf("Content-Type: text/plain\\n\\n%d", freed[0] == freed[1]);
            }""",
        )
        faulty = self.folder / "faulty"
        subprocess.run(["g++", "-O0", "-w", "-o", faulty, source], check=True)
        result = run(faulty, "--valgrind")
        self.assertEqual((result.status, result.output), (99, b"1"))
        self.assertIn("Invalid read", result.errors)
        self.assertIn("valgrind has found errors", result.errors)
        self.assertEqual(run(faulty).status, 0)


class BackEnd(socketserver.BaseRequestHandler):
    def handle(self):
        self.request.recv(65536)
        self.request.sendall(
            b'Content-Type: text/xml\r\n\r\n<?xml version="1.0"?>'
            b'<doc><user name="visitor" level="1"/></doc>'
        )


class ReadmeFrontTest(RequestTest):
    def front(self, *arguments):
        return run(
            README_FRONT, "--env", f"LD_LIBRARY_PATH={LIBRARY_PATH}", "--run-dir", self.folder,
            *arguments,
        )  # fmt: skip

    def start_back_end(self):
        """It has one answer to all questions."""
        path = str(self.folder / "panel.sock")
        server = socketserver.UnixStreamServer(path, BackEnd)
        thread = threading.Thread(target=server.serve_forever)
        thread.start()
        self.addCleanup(thread.join)
        self.addCleanup(server.server_close)
        self.addCleanup(server.shutdown)

    def test_who_is_known(self):
        self.start_back_end()
        result = self.front("-b", "panelses5=session", "-i")
        self.assertEqual((result.status, result.errors), (0, ""))
        self.assertIn(b"HTTP/1.1 200 OK\r\n", result.output)
        self.assertIn(b"You are visitor.", result.output)

    def test_who_is_not(self):
        result = self.front()
        self.assertEqual(result.status, 4)
        self.assertIn(b"<!doctype html>", result.output)
        self.assertEqual(self.front("-f").status, 22)


class PanelTest(RequestTest):
    """The same requests, to the panel and to its front end alone."""

    @classmethod
    def setUpClass(cls):
        cls.panel = Panel()
        cls.addClassCleanup(cls.panel.stop)

    def setUp(self):
        super().setUp()
        self.spool = self.folder / "spool"
        self.spool.mkdir()

    def front(self, *arguments):
        return run(
            self.panel.front, "--env", f"LD_LIBRARY_PATH={LIBRARY_PATH}",
            "--run-dir", self.panel.state / "run", "--env", f"PANEL_SPOOL={self.spool}",
            "--server", "lighttpd", "-i", *arguments,
        )  # fmt: skip

    def by_curl(self, *arguments):
        *options, path = arguments
        done = subprocess.run(
            ["curl", "-q", "-sS", *options, self.panel.url.removesuffix("/panel") + path],
            capture_output=True, env=ENVIRONMENT, check=True, timeout=LONG,
        )  # fmt: skip
        return done.stdout

    def sign_in(self):
        result = self.front(
            "--data-urlencode", f"user={self.panel.user}",
            "--data-urlencode", f"password={self.panel.password}", "/panel?page=signin",
        )  # fmt: skip
        self.assertEqual((result.status, result.errors), (0, ""))
        cookie = re.search(rb"Set-Cookie: (panelses5=[^;]+)", result.output)
        self.assertIsNotNone(cookie, result.output)
        return cookie[1].decode()

    def test_page_for_strangers(self):
        result = self.front("/panel?page=signin")
        self.assertEqual((result.status, result.errors), (0, ""))
        self.assertTrue(result.output.endswith(b"\r\n\r\n" + self.by_curl("/panel?page=signin")))

    def test_page_for_a_visitor(self):
        cookie = ("-b", self.sign_in())
        result = self.front(*cookie, "/panel")
        self.assertEqual((result.status, result.errors), (0, ""))
        self.assertIn(self.panel.user.encode(), result.output)
        self.assertTrue(result.output.endswith(b"\r\n\r\n" + self.by_curl(*cookie, "/panel")))

    def test_strangers_are_refused(self):
        result = self.front("-d", "user=nobody&password=wrong", "/panel?page=signin")
        self.assertEqual(result.status, 4)
        self.assertEqual(self.front("-F", "a=1", "/panel?page=upload").status, 4)

    def upload(self, *arguments):
        cookie = self.sign_in()
        self.file("f", b"x" * 3 * MEGABYTE)
        return self.front(
            "-b", cookie, "-F", f"token={self.panel.token(cookie.partition('=')[2])}",
            "-F", f"files=@{self.folder}/f", "/panel?page=upload", *arguments,
        )  # fmt: skip

    def test_upload(self):
        result = self.upload()
        self.assertEqual((result.status, result.errors), (0, ""))
        self.assertEqual(list(self.spool.iterdir()), [])

    def test_upload_of_a_client_who_goes_away(self):
        for more in ((), ("--abort-signal", "TERM"), ("--abort-signal", "KILL")):
            result = self.upload("--abort-after", 2 * MEGABYTE, *more)
            self.assertEqual((result.status, result.output), (0, b""), more)
            self.assertNotIn("zancgi-request", result.errors)
            self.assertEqual(list(self.spool.iterdir()), [])


MANUAL_TEXT = MANUAL.read_text()


def manual_examples():
    """The commands of the manual, after the mark that begins each."""
    section = MANUAL_TEXT.partition(".Sh EXAMPLES")[2].partition("\n.Sh ")[0]
    text = section.replace("\\e", "\\").replace("\\(aq", "'").replace("\\(dq", '"')
    commands = []
    for block in re.findall(r"^\.Bd [^\n]*\n(.*?)^\.Ed", text, re.DOTALL | re.MULTILINE):
        commands += re.findall(r"^\$ ((?:[^\n]*\\\n)*[^\n]*)$", block, re.MULTILINE)
    return commands


class ManualTest(RequestTest):
    def test_is_clean(self):
        done = subprocess.run(
            ["mandoc", "-T", "lint", "-W", "style", MANUAL], stdout=subprocess.PIPE, text=True,
            check=False,
        )  # fmt: skip
        # It is up to the machine which other manuals are installed.
        wrong = [x for x in done.stdout.splitlines() if "referenced manual not found" not in x]
        self.assertEqual(wrong, [])

    def test_names_all_options(self):
        helped = run("--help").output.decode()
        options = re.findall(r"^  (?:-(\w), |    )--([\w-]+)", helped, re.MULTILINE)
        self.assertGreater(len(options), 40)
        told = MANUAL_TEXT.replace("\\-", "-")
        for letter, name in options:
            item = f".It Fl {letter} , Fl -{name}" if letter else f".It Fl -{name}"
            self.assertRegex(told, f"(?m)^{re.escape(item)}( |$)")
        self.assertEqual(told.count("\n.It Fl "), len(options) + 2)

    def test_examples_work(self):
        os.symlink(PROBE, self.folder / "front.cgi")
        os.symlink(PROBE, self.folder / "upload.cgi")
        self.file("photo.jpg", os.urandom(1000))
        self.file("form.bin", b"--B--\r\n")
        (self.folder / "bin").mkdir()
        os.symlink(TOOL, self.folder / "bin" / "zancgi-request")
        commands = manual_examples()
        self.assertGreater(len(commands), 12)
        for command in commands:
            with self.subTest(command=command):
                done = subprocess.run(
                    ["sh", "-c", command], cwd=self.folder, capture_output=True, check=False,
                    input=b"run\nquit\n", timeout=LONG,
                    env={**ENVIRONMENT, "PATH": f"{self.folder}/bin:{PATH}"},
                )  # fmt: skip
                # The one of a client that never hangs up is about its time limit.
                expected = 28 if "--hold-open" in command else 0
                self.assertEqual(done.returncode, expected, done.stderr)


if __name__ == "__main__":
    unittest.main()
