"""The options of zancgi-request mean the same as curl's, and its variables and
bodies are those of each web server."""

import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import time
import unittest
import urllib.parse

from request_support import ENVIRONMENT, LONG, MEGABYTE, PROBE, TOOL, RequestTest, given, run
import web_servers

DIFFERENT_PORT = {"REMOTE_PORT"}
# The web server's own folders, and what the tests set.
OF_THE_SERVER = {"DOCUMENT_ROOT", "PATH_TRANSLATED", "PATH", "LD_LIBRARY_PATH",
                 "CONTEXT_DOCUMENT_ROOT"}  # fmt: skip
# curl sends Expect before a long body; some servers pass it on.
EXPECT = {"HTTP_EXPECT"}
NOT_COMPARED = DIFFERENT_PORT | OF_THE_SERVER | EXPECT


def fastcgi_parameters():
    """The parameters of Debian's package; empty without nginx."""
    path = pathlib.Path("/etc/nginx/fastcgi_params")
    text = path.read_text() if path.exists() else ""
    found = dict(re.findall(r"^fastcgi_param\s+(\w+)\s+(\S+);", text, re.MULTILINE))
    # The tests' configuration already sets these.
    for name in ("QUERY_STRING", "REQUEST_METHOD", "CONTENT_TYPE", "CONTENT_LENGTH", "REMOTE_ADDR",
                 "SERVER_ADDR", "HTTPS"):  # fmt: skip
        found.pop(name, None)
    return found


def start_server(test, kind, program, *needed, **variables):
    """Starts the server of a test class, or skips the class if a program is missing."""
    for name in needed:
        if not shutil.which(name, path="/usr/sbin:/usr/bin:/sbin:/bin"):
            raise unittest.SkipTest(f"there is no {name} on this machine")
    test.server = kind(program)
    test.addClassCleanup(test.server.stop)
    test.server.start(variables)


def options(name, values):
    return [word for value in values for word in (name, value)]


BOUNDARY = re.compile(rb"-{24}[0-9a-f]{16}")


def differences(actual, expected):
    """The differences, as (actual, expected), each variable and part of a form by itself."""
    facts = [
        {**vars(each), **each.variables, **dict(enumerate(BOUNDARY.split(each.body)))}
        for each in (actual, expected)
    ]
    names = (facts[0].keys() | facts[1].keys()) - {"variables", "body"}
    pairs = {name: tuple(fact.get(name) for fact in facts) for name in names}
    return {name: pair for name, pair in pairs.items() if pair[0] != pair[1]}


class ComparedWithCurl(RequestTest):
    """Sends each request by curl through a web server, and by the tool."""

    def address(self, path, host=None):
        return f"http://{host or self.host}:{self.server.port}{self.server.path}{path}"

    def by_curl(self, *arguments, path="", host=None, stdin=b""):
        resolve = f"{host or self.host}:{self.server.port}:{self.server.host}"
        return subprocess.run(
            ["curl", "-q", "-sS", "-A", "client", "--resolve", resolve, *arguments,
             self.address(path, host)],
            input=stdin, capture_output=True, cwd=self.folder, env=ENVIRONMENT, timeout=LONG,
            check=True,
        ).stdout  # fmt: skip

    def by_tool(self, *arguments, path="", host=None, stdin=b""):
        result = self.run_in_folder(
            self.server.program, "--server", self.name, "-A", "client", *arguments,
            self.address(path, host), stdin=stdin,
        )  # fmt: skip
        self.assertEqual((result.status, result.errors), (0, ""))
        return result.output


class AsThroughServer(ComparedWithCurl):
    """Compares the variables and bodies."""

    variables = {}

    @classmethod
    def setUpClass(cls):
        start_server(cls, cls.kind, PROBE, *cls.programs, **cls.variables)
        cls.host = cls.server.host

    def assert_same(self, *arguments, **where):
        with self.subTest(arguments=arguments, **where):
            expected = self.comparable(self.by_curl(*arguments, **where))
            actual = self.comparable(self.by_tool(*arguments, **where))
            self.assertEqual(differences(actual, expected), {})
            return actual

    def comparable(self, output):
        received = given(output)
        # Reads depend on the pipes; fcgiwrap leaves a descriptor open.
        received.reads = sum(received.reads)
        received.open = received.open[:3]
        received.variables = {
            name: BOUNDARY.sub(b"BOUNDARY", os.fsencode(value))
            for name, value in received.variables.items()
            if name not in NOT_COMPARED
        }
        self.normalize(received.variables)
        return received

    def normalize(self, variables):
        pass

    def test_without_a_body(self):
        self.assert_same()
        self.assert_same("-X", "DELETE")
        self.assert_same("-d", "")

    def test_query(self):
        self.assert_same(path='?a=1&b=%20+2&c=\u00fc"<>&d')
        self.assert_same(path="?")
        self.assert_same("-g", path="?a[]={1}")

    def test_path(self):
        self.assert_same(path="/pa%20th/x?a=/../b")
        self.assert_same(path="/a/../b/./c")

    def test_data(self):
        self.assert_same("-d", "a=1", "-d", "b=2")
        self.assert_same("-X", "PUT", "-d", "x=1")

    def test_long_form(self):
        self.file("large", os.urandom(3 * MEGABYTE))
        received = self.assert_same("-F", "a=1", "-F", "f=@large", "-F", "g=@large;type=x/y")
        self.assertGreater(len(received.body), 6 * MEGABYTE)

    def test_body_about_64_kilobytes(self):
        for size in (65535, 65536, 65537):
            self.file("data", b"x" * size)
            self.assert_same("--data-binary", "@data")

    def test_upload_file(self):
        self.file("data", b"content\r\n")
        # With Expect, curl would wait for a second.
        at_once = ("-T", "data", "-H", "Expect:")
        self.assert_same(*at_once)
        self.assert_same(*at_once, "-X", "POST", "-H", "Content-Type: a/b")

    def test_headers(self):
        self.assert_same("-H", "X-A: 1", "-H", "x-b:2", "-H", "X-T: 1  ")
        self.assert_same("-H", "X-A: 1", "-H", "X-A: 2")
        self.assert_same("-H", "Accept:", "-H", "User-Agent:", "-H", "X-F: ")
        self.assert_same("-H", "X-Empty;")
        self.assert_same("-H", "X_Under: 1")
        self.assert_same("-H", "X.Dot: 1")
        self.assert_same("-H", "Host: example.org")
        self.assert_same("-H", "Host: example.org:81")
        self.assert_same("-d", "x", "-H", "Content-Type:")
        self.assert_same("-d", "x", "-H", "Content-Type: a/b")
        self.assert_same("-H", "Content-Type: a/b")
        self.assert_same("-H", "Cookie: a=1", "-H", "Cookie: b=2")
        self.assert_same("-u", "joe:pass:word")


class AsThroughLighttpd(AsThroughServer):
    kind = web_servers.Lighttpd
    programs = ["lighttpd"]
    name = "lighttpd"

    def test_url_is_normalized(self):
        self.assert_same(path="/a%2fb%41%7e%c3?%41+%2f%7e%zz")

    # The rest does not depend on the web server.

    def test_lines_and_files_of_data(self):
        self.file("lines", b"l1\r\nl2\nl3")
        self.assert_same("-d", "-leads")
        self.assert_same("-d", "x", "-d", "")
        self.assert_same("-d", "", "-d", "x")
        self.assert_same("-d", "@lines")
        self.assert_same("-d", "a=1", "--data-binary", "@lines")
        self.assert_same("--data-raw", "@lines")
        self.assert_same("--data-ascii", "@lines")
        self.assert_same("-d", "@-", stdin=b"a=1\r\n")
        self.assert_same("--data-binary", "@-", stdin=b"a=1\r\n\0")

    def test_data_in_the_query(self):
        self.assert_same("-G", "-d", "a=1", "--data-urlencode", "b=x y&z", path="?z=9")
        self.assert_same("-G", "-d", "a=1", path="#fragment")
        self.assert_same("-G", "-d", "a=1", "-X", "DELETE")

    def test_name_of_an_upload(self):
        self.file("data", b"content\r\n")
        self.assert_same("-T", "data", "-H", "Expect:", path="/sub/")

    def test_headers_of_options(self):
        self.file("lines", b"X-A: 1\nX-B: 2\n")
        self.assert_same("-H", "@lines")
        self.assert_same("-A", "", "-e", "")
        self.assert_same("-A", "me", "-e", "http://r/")
        self.assert_same("-e", "http://r/;auto")
        self.assert_same("-b", "a=b", "-b", "c=d; e")
        self.assert_same("-b", "a=b", "-H", "Cookie: x=y")
        self.assert_same("-b", "")
        self.assert_same("-u", "joe:")

    def test_data_urlencoded(self):
        self.file("lines", b"l1\r\nl2\0\xff")
        texts = ("a b&c", "=a b=c", "n m=a b/~-_.\u00fc", "@lines", "n@lines", "a=@lines", "=",
                 "a@b=c", "a=b@c")  # fmt: skip
        self.assert_same(*options("--data-urlencode", texts))

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
        fields = (
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
        )  # fmt: skip
        self.assert_same(*options("-F", fields))
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
        # The version changes with each security update.
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
        received = super().comparable(output)
        if received.variables["REQUEST_METHOD"] == b"PUT":
            # The part of the body that arrives with the header varies.
            received.polled = None
        return received


# Only the derived classes are tests.
del AsThroughServer


# Sends the header lines in the query, and prints the request.
GUEST = """#!/usr/bin/python3 -IS
import os, sys, urllib.parse
lines = urllib.parse.parse_qs(os.environ["QUERY_STRING"], encoding="latin-1").get("line", [])
head = "".join(line + "\\r\\n" for line in lines) + "Content-Type: text/plain\\r\\n\\r\\n"
names = ("REQUEST_METHOD", "REQUEST_URI", "HTTP_COOKIE", "HTTP_REFERER", "CONTENT_TYPE")
given = [name + "=" + os.environ.get(name, "") for name in names]
body = sys.stdin.read(int(os.environ.get("CONTENT_LENGTH") or 0))
sys.stdout.write(head + "\\n".join([*given, "body=" + body, ""]))
"""


def asking_for(*lines, path=""):
    return path + "?" + urllib.parse.urlencode([("line", line) for line in lines])


class GuestTest(ComparedWithCurl):
    """Compares the answers."""

    name, host = "rfc3875", "localhost"

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory(prefix="request-")
        cls.addClassCleanup(folder.cleanup)
        guest = pathlib.Path(folder.name) / "guest"
        guest.write_text(GUEST)
        start_server(cls, web_servers.Lighttpd, guest, "lighttpd")

    def assert_same(self, *arguments, **where):
        with self.subTest(arguments=arguments, **where):
            answer = self.by_tool(*arguments, **where)
            self.assertEqual(answer, self.by_curl(*arguments, **where))
            return answer


def jar_of(*cookies):
    """A jar of (name, value, path, expires), of which the last may be omitted."""
    usual = ("a", "1", "/", "0")
    cookies = [(*given, *usual[len(given) :]) for given in cookies]
    lines = [f"localhost\tFALSE\t{path}\tFALSE\t{seconds}\t{name}\t{value}\r\n"
             for name, value, path, seconds in cookies]  # fmt: skip
    return "".join(lines).encode()


class CookieTest(GuestTest):
    def jar(self, name):
        """The fields of its cookies. A slash at the end of a path and the case of a
        domain do not matter."""
        lines = (self.folder / name).read_text().split("\n")
        cookies = [line.split("\t") for line in lines if line.count("\t") == 6]
        for fields in cookies:
            fields[0] = fields[0].lower()
            fields[2] = fields[2].rstrip("/") or "/"
        return sorted(cookies)

    def cookies(self, answer):
        found = re.search(rb"HTTP_COOKIE=(.*)", answer)[1].decode()
        return sorted(found.split("; ")) if found else []

    def assert_same_jar(self, *cookies, host="localhost", path="/x/y"):
        path = asking_for(*(f"Set-Cookie: {text}" for text in cookies), path=path)
        with self.subTest(cookies=cookies, host=host):
            self.by_curl("-c", "of-curl", path=path, host=host)
            self.by_tool("-c", "of-tool", path=path, host=host)
            of_curl, of_tool = self.jar("of-curl"), self.jar("of-tool")
            for ours, theirs in zip(of_tool, of_curl):
                # Max-Age counts from the time of each run.
                if abs(int(ours[4]) - int(theirs[4])) < 900 < int(theirs[4]) - time.time() < 1900:
                    ours[4] = theirs[4]
            different = [[c for c in of_tool if c not in of_curl],
                         [c for c in of_curl if c not in of_tool]]  # fmt: skip
            self.assertEqual(different, [[], []])
            return of_tool

    def test_cookies_are_kept_as_by_curl(self):
        kept = self.assert_same_jar(
            "a=1", "b=1=2", "c=", 'd="b c"', "  e = b c  ; ", "f=1; HttpOnly",
            "g=1;httponly;secure", "h=1; Path=/", "i=1; Path=/x/y/z", "j=1; path=/x",
            "k=1; Max-Age=1000", 'l=1; max-age="1000"',
            "m=1; Max-Age=1000; Expires=Thu, 01 Jan 1981 00:00:00 GMT",
            "n=1; Expires=Wed, 01 Jan 2098 01:02:03 GMT",
            "o=1; Max-Age=1" + "0" * 19,
            "p=1; expires=Friday, 01-Jan-49 01:02:03 GMT",
            "q=1; Expires=Wed Jan  1 01:02:03 2098",
            "v=1; Expires=1 Jan 2098 25:02:03 GMT",
            "w=1; Expires=Wed, 01 Jan 2098 01:02:03", "x=1; Expires=soon",
            "__Secure-r=1; Secure", "__Host-s=1; Secure; Path=/", "t=1; SameSite=Strict; Odd=1",
        )  # fmt: skip
        self.assertEqual(len(kept), 23)
        self.assertEqual(len(self.assert_same_jar("a=1; Max-Age=" + "9" * 4000)), 1)

    def test_cookies_are_kept_as_by_browsers(self):
        """curl keeps a relative path, and sends the cookie nowhere or everywhere. It
        ignores a cookie with thousands of digits."""
        path, last = "/cgi-bin/guest/x", str((1 << 63) - 1)
        for attribute, kept in (
            ("Path=x", [[path, "0"]]),
            ("Path=", [[path, "0"]]),
            ("Path", [[path, "0"]]),
            ("Max-Age=" + "9" * 5000, [[path, last]]),
            ("Max-Age=" + "0" * 5000, []),
            ("Max-Age=-" + "9" * 5000, []),
        ):
            self.by_tool("-c", "jar", path=asking_for(f"Set-Cookie: a=1; {attribute}", path="/x/y"))
            self.assertEqual([[fields[2], fields[4]] for fields in self.jar("jar")], kept)

    def test_invalid_and_expired_cookies_are_ignored_as_by_curl(self):
        kept = self.assert_same_jar(
            "a", "=1", "", "b=\t1\t2", "c=1; Domain=other.example", "d=1; Max-Age=0",
            "e=1; Max-Age=-5", "f=1; Expires=Thu, 01 Jan 1981 00:00:00 GMT",
            "g=1; Max-Age=0; Expires=Wed, 01 Jan 2098 01:02:03 GMT",
            "__Secure-h=1", "__Host-i=1; Secure; Path=/x", "__Host-j=1; Path=/",
            "__Host-k=1; Secure; Path=/; Domain=localhost",
        )  # fmt: skip
        self.assertEqual(kept, [])

    def test_domains_are_accepted_as_by_curl(self):
        for host, domain, is_kept in (
            ("www.panel.example", "panel.example", True),
            ("www.panel.example", ".Panel.Example", True),
            ("www.panel.example", "www.panel.example", True),
            ("www.panel.example", "example", False),
            ("www.panel.example", "other.panel.example", False),
            ("www.panel.example", "anel.example", False),
            ("panel.example", "www.panel.example", False),
            (self.server.host, self.server.host, True),
            (self.server.host, self.server.host.partition(".")[2], False),
        ):
            kept = self.assert_same_jar(f"a=1; Domain={domain}", host=host)
            self.assertEqual(bool(kept), is_kept, (host, domain))
        # Secure cookies cannot be set over http.
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

    def test_expiry_times_in_a_jar_are_read_as_by_curl(self):
        last = str((1 << 63) - 1)
        times = {"last": last, "zeros": "0" * 4400 + last, "more": str(1 << 63), "most": "9" * 4500}
        self.file("jar", jar_of(*((name, "1", "/", time) for name, time in times.items())))
        for sent in (self.by_tool("-b", "jar"), self.by_curl("-b", "jar")):
            self.assertEqual(self.cookies(sent), ["last=1", "zeros=1"])

    def test_lines_of_a_jar_are_split_as_by_curl(self):
        values = ["1\x852", "3\u20284\u20295", "6"]
        self.file("jar", jar_of(*zip("abc", values)))
        for sent in (self.by_tool("-b", "jar", "-c", "new"), self.by_curl("-b", "jar")):
            self.assertEqual(self.cookies(sent), [f"{n}={v}" for n, v in zip("abc", values)])
        self.assertEqual([fields[6] for fields in self.jar("new")], values)

    def test_secure_cookies_are_sent_by_https(self):
        self.file("jar", self.JAR.encode())
        result = self.run_in_folder(self.server.program, "-b", "jar", "https://panel.example/")
        self.assertEqual(self.cookies(result.output), ["all=8", "one=9", "safe=10"])

    def test_cookie_with_the_longest_path_is_sent_first(self):
        self.file("jar", jar_of(("a", 0), ("a", 1, "/cgi-bin/guest"), ("a", 2, "/cgi-bin")))
        self.assertIn(b"HTTP_COOKIE=a=1; a=2; a=0\n", self.assert_same("-b", "jar"))

    def test_curl_and_tool_read_each_others_jars(self):
        path = asking_for("Set-Cookie: a=1; HttpOnly", "Set-Cookie: b=2; Path=/; Max-Age=1000",
                          "Set-Cookie: c=3; Domain=localhost; Secure")  # fmt: skip
        for make, read in ((self.by_curl, self.by_tool), (self.by_tool, self.by_curl)):
            make("-c", "jar", path=path)
            self.assertEqual(self.cookies(read("-b", "jar")), ["a=1", "b=2", "c=3"])

    def test_jar_is_read_and_written(self):
        """The jar need not exist at first, and keeps its cookies."""
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

    def test_cookies_of_options_are_sent_but_not_kept(self):
        self.file("jar", jar_of(("a", "1")))
        answer = self.assert_same("-b", "jar", "-b", "b=2; c=3", "-c", "new")
        self.assertIn(b"HTTP_COOKIE=a=1; b=2; c=3\n", answer)
        self.assertEqual([fields[5:] for fields in self.jar("new")], [["a", "1"]])
        self.assert_same("-b", "jar", "-b", "b=2", "-H", "Cookie: d=4")
        self.assertEqual(self.cookies(self.assert_same("-b", "none")), [])

    def test_only_the_owner_can_read_a_jar(self):
        self.file("old", b"").chmod(0o644)
        self.by_tool("-c", "jar", "-o", "output")
        self.by_tool("-c", "old", "-o", "output")
        modes = [(self.folder / name).stat().st_mode & 0o777 for name in ("jar", "old", "output")]
        self.assertEqual(modes, [0o600, 0o600, 0o644])

    def test_jar_that_cannot_be_written_is_unchanged(self):
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
            arguments = ("-c", jar, "-o", "none/output", address)
            result = self.run_in_folder(self.server.program, *arguments)
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

    def test_repeated_requests_send_the_cookies_of_earlier_ones(self):
        address = self.address(asking_for("Set-Cookie: a=1"))
        result = self.run_in_folder(self.server.program, "--repeat", "2", "-c", "jar", address)
        self.assertEqual(re.findall(rb"HTTP_COOKIE=(.*)", result.output), [b"", b"a=1"])


class RedirectTest(GuestTest):
    """Some answers contain the address of the server."""

    def redirect(self, status, location, *more):
        return asking_for(f"Status: {status}", f"Location: {location}", *more, path="/from")

    def to(self, path):
        return self.server.path + path

    def test_methods_and_bodies_are_those_of_curl(self):
        self.file("f", b"content")
        for status in (301, 302, 303, 307, 308):
            path = self.redirect(status, self.to("/to?a=1"))
            for arguments in ((), ("-d", "x=1"), ("-T", "f"), ("-X", "DELETE"),
                              ("-d", "x", "-H", "X-A: 1", "-e", "http://r/;auto")):  # fmt: skip
                if arguments == ("-X", "DELETE") and status == 303:
                    continue  # curl would send DELETE again
                answer = self.assert_same("-L", *arguments, path=path)
                self.assertIn(b"REQUEST_URI=/cgi-bin/guest/to?a=1\n", answer)

    def test_status_303_changes_every_method_to_get(self):
        path = self.redirect(303, self.to("/to"))
        for method in ("POST", "PUT", "DELETE"):
            answer = self.by_tool("-L", "-X", method, path=path)
            self.assertIn(b"REQUEST_METHOD=GET\n", answer)

    def test_status_303_does_not_change_head(self):
        path = self.address(self.redirect(303, self.to("/to")))
        output = self.run_in_folder(self.server.program, "-L", "-I", path).output
        self.assertEqual(re.findall(rb"^HTTP/1.1 (\d+)", output, re.MULTILINE), [b"303", b"200"])
        # The answer to GET would have a body.
        self.assertNotIn(b"REQUEST_METHOD=", output)

    def test_body_is_sent_again_from_its_beginning(self):
        self.file("f", b"content")
        for arguments in (("--data-binary", "@f"), ("--data-binary", "@-"), ("-F", "a=@f")):
            path = self.redirect(307, self.to("/to"))
            answer = self.by_tool("-L", *arguments, "--boundary", "B", path=path, stdin=b"content")
            self.assertIn(b"content", answer.partition(b"body=")[2])

    def test_redirect_is_not_followed_by_default(self):
        answer = self.assert_same(path=self.redirect(302, self.to("/to")))
        self.assertIn(b"REQUEST_URI=/cgi-bin/guest/from?", answer)

    def test_all_headers_but_only_the_last_body_are_printed(self):
        path = self.redirect(302, self.to("/to"))
        output = self.by_tool("-L", "-i", "-D", "head", path=path)
        self.assertEqual(output.count(b"HTTP/1.1 "), 2)
        self.assertEqual(output.count(b"REQUEST_URI="), 1)
        head = (self.folder / "head").read_bytes()
        self.assertEqual(re.findall(rb"^HTTP/1.1 (\d+)", head, re.MULTILINE), [b"302", b"200"])

    def test_redirect_carries_cookies_if_there_is_a_jar(self):
        path = self.redirect(302, self.to("/to"), "Set-Cookie: a=1")
        self.assertIn(b"HTTP_COOKIE=a=1; b=2\n", self.assert_same("-L", "-b", "", "-b", "b=2",
                                                                  path=path))  # fmt: skip
        self.assertIn(b"HTTP_COOKIE=\n", self.assert_same("-L", path=path))

    def test_complete_urls_of_the_program_are_followed(self):
        for location in (self.address("/to", "localhost"), self.address("/to", "LOCALHOST")):
            answer = self.by_tool("-L", path=self.redirect(302, location))
            self.assertIn(b"REQUEST_URI=/cgi-bin/guest/to\n", answer)
        result = self.run_in_folder(
            self.server.program, "-L", "http://panel.example"
            + self.server.path + self.redirect(301, "https://panel.example" + self.server.path),
        )  # fmt: skip
        self.assertEqual((result.status, result.errors), (0, ""))
        self.assertIn(b"REQUEST_URI=/cgi-bin/guest\n", result.output)

    def test_redirect_to_another_program_or_host_is_not_followed(self):
        for location in ("/", "/cgi-bin/guests", "http://other.example" + self.server.path,
                         f"http://localhost:{self.server.port + 1}{self.server.path}",
                         "mailto:joe@panel.example", "ftp://localhost/"):  # fmt: skip
            with self.subTest(location=location):
                address = self.address(self.redirect(302, location), "localhost")
                result = self.run_in_folder(self.server.program, "-L", address)
                reason = "is not followed: it leads to another program or host"
                expected = (0, f"zancgi-request: the redirect to '{location}' {reason}\n")
                self.assertEqual((result.status, result.errors), expected)
                self.assertIn(b"REQUEST_URI=/cgi-bin/guest/from?", result.output)

    def test_script_name_and_path_info_after_a_redirect(self):
        program = self.program(
            "case $REQUEST_URI in\n"
            '*/end) printf "Content-Type: a/b\\n\\n$SCRIPT_NAME $PATH_INFO";;\n'
            '*) printf "Status: 302 Found\\nLocation: /panel/end\\n\\n";; esac\n'
        )
        for arguments, output in (
            (("--script-name", "/panel"), b"/panel /end"),
            (("--script-name", "/panel", "--path-info", "/begin"), b"/panel /end"),
            (("--path-info", "/begin", "/panel"), b"/panel/end "),
            (("/panel",), b"/panel/end "),
        ):
            self.assertEqual(run(program, "-L", *arguments).output, output)

    def test_number_of_redirects_is_limited(self):
        program = self.program('printf "Status: 302 Found\\nLocation: /loop\\n\\n"; echo >> visits')
        for arguments, most in ((("--max-redirs", "2"), 2), (("--max-redirs", "0"), 0), ((), 50)):
            result = run(program, "-L", *arguments, "/loop", "-w", "%{num_redirects}")
            message = f"zancgi-request: there are more than {most} redirects\n"
            self.assertEqual((result.status, result.errors), (47, message))
            self.assertEqual(result.output, str(most).encode())
            visits = self.folder / "visits"
            self.assertEqual(visits.read_text().count("\n"), most + 1)
            visits.unlink()

    def test_time_limit_applies_to_all_redirects(self):
        program = self.program('printf "Status: 302 Found\\nLocation: /loop\\n\\n"; exec sleep 0.3')
        self.assertEqual(run(program, "-L", "-m", "1", "/loop").status, 28)

    def test_redirect_in_a_broken_header_is_not_followed(self):
        program = self.program('printf "Status: 302 Found\\nLocation: /x\\nnonsense\\n\\n"')
        self.assertEqual(run(program, "-L", "/x").status, 8)

    def test_write_out(self):
        path = self.redirect(302, self.to("/to?a=b"))
        form = "%{http_code} %{num_redirects} %{url_effective}\\n"
        self.assert_same("-L", "-o", "body", "-w", form, path=path)


if __name__ == "__main__":
    unittest.main()
