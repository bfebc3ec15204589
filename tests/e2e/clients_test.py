"""Uploads by real clients: each has its own way to write a form."""

import pathlib
import subprocess
import tempfile
import time
import unittest

import requests
from browser import CHROMIUM, DRIVER, Browser
from client import CURL
from upload_probe import Field, Form, ProbeTest, Received, Upload, content_type, digest
from verdict import full, main
from web_servers import LighttpdStreaming

CLIENTS = pathlib.Path(__file__).parent / "clients"
URLENCODED = "application/x-www-form-urlencoded"
# No proxy, and no configuration of whoever runs the tests.
ENVIRONMENT = {"PATH": "/usr/bin:/bin", "LC_ALL": "C.UTF-8"}


def run(*command, **environment):
    return subprocess.run(
        command, env=dict(ENVIRONMENT, **environment), capture_output=True, check=True, timeout=120
    ).stdout.decode()


class ClientTest(ProbeTest):
    kind = LighttpdStreaming

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        folder = cls.enterClassContext(tempfile.TemporaryDirectory(prefix="client-"))
        cls.folder = pathlib.Path(folder)

    def exchange(self, send, *arguments):
        """Sends something to the address of the probe. Returns the record."""
        return self.uncut_record(lambda record: send(record.url, *arguments))

    def make_file(self, name, content):
        path = self.folder / name
        path.write_bytes(content)
        return path


class FormClient:
    """A client that sends a text and files as a form."""

    # How it writes what could end a file name early.
    quote = b"%22"
    backslash = b"\\"
    # How the lines "x" and "y" are received. The library removes the byte before a bare
    # LF.
    two_lines = b"x\ny"

    def test_form_arrives_as_documented(self):
        """A row has a file's name, the name sent, the name received (none if the file is
        lost), and its content."""
        quoted = b"q" + self.quote + b"b.txt"
        escaped = b"e" + self.backslash + b"b.txt"
        utf_8 = "\u00fc \u65e5\u672c \U0001f642.txt"
        rows = (
            ("file 1", b"file 1", b"file 1", bytes(range(14, 256)) * 5000),
            # It ends at the first double quote.
            ('q"b.txt', quoted, quoted.partition(b'"')[0], b"one\ntwo"),
            ("a%22b.txt", b"a%22b.txt", b"a%22b.txt", b""),
            ("e\\b.txt", escaped, escaped, b"1"),
            ("s;b.txt", b"s;b.txt", b"s", b"2"),
            ("b;name.txt", b"b;name.txt", b"", b"3"),
            (utf_8, utf_8.encode(), utf_8.encode(), b"last"),
        )
        files = [str(self.make_file(name, content)) for name, _, _, content in rows]
        text = "1 < 2 & b=c; 100 % + \u00fcx\ny"
        record = self.exchange(self.send, text, files)
        note = text.encode().replace(b"x\ny", self.two_lines)
        expected = Received({b"note": note})
        for number, (_, sent, received, content) in enumerate(rows):
            self.assertIn(b'; filename="%s"\r\n' % sent, record.body())
            if received:
                Upload(b"upload%d" % number, received, content).add_to(expected)
        self.assertEqual(record.received(), expected)


class Curl(FormClient, ClientTest):
    two_lines = b"\ny"

    def send(self, url, text, files):
        form = ["--form-string", "note=" + text]
        for number, file in enumerate(files):
            quoted = file.replace("\\", "\\\\").replace('"', '\\"')
            form += ["--form", f'upload{number}=@"{quoted}"']
        return run(*CURL, *form, url)


class PythonRequests(FormClient, ClientTest):
    backslash = b"\\\\"
    two_lines = b"\ny"

    def send(self, url, text, files):
        uploads = [
            (f"upload{number}", (pathlib.Path(file).name, pathlib.Path(file).read_bytes()))
            for number, file in enumerate(files)
        ]
        # Without a file it would send no form of this kind.
        fields = [("note", (None, text))]
        with requests.Session() as session:
            session.trust_env = False
            return session.post(url, files=fields + uploads, timeout=60).text


class Perl(FormClient, ClientTest):
    quote = b'\\"'
    backslash = b"\\\\"
    two_lines = b"\ny"

    def send(self, url, text, files):
        return run("perl", CLIENTS / "upload.pl", url, text, *files)


class Node(FormClient, ClientTest):
    def send(self, url, text, files):
        return run("node", CLIENTS / "upload.mjs", url, text, *files)


@full
class Go(FormClient, ClientTest):
    quote = b'\\"'
    backslash = b"\\\\"
    two_lines = b"\ny"

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.client = cls.folder / "upload"
        settings = {"GOCACHE": str(cls.folder / "cache"), "GOFLAGS": "-mod=mod", "GOPROXY": "off"}
        run("go", "build", "-o", cls.client, CLIENTS / "upload.go", **settings)

    def send(self, url, text, files):
        return run(self.client, url, text, *files)


PAGE = """data:text/html;charset=utf-8,<form method="post"
enctype="multipart/form-data" action="{url}"><textarea name="note"></textarea>
{inputs}<button>Send</button></form>"""


@unittest.skipUnless(CHROMIUM and DRIVER, "needs Chromium and its driver")
class Chromium(FormClient, ClientTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.browser = Browser()
        cls.addClassCleanup(cls.browser.quit)

    def send(self, url, text, files):
        inputs = "".join(
            f'<input type="file" name="upload{number}">' for number in range(len(files))
        )
        return self.submit(url, inputs, text, files)

    def submit(self, url, inputs, text, files):
        self.browser.get(PAGE.format(url=url, inputs=inputs))
        self.browser.type_into("textarea", text)
        for number, file in enumerate(files):
            self.browser.type_into(f"[name=upload{number}]", file)
        self.browser.click("button")
        end = time.monotonic() + 30
        while not (report := self.browser.visible_text()).startswith("param "):
            self.assertLess(time.monotonic(), end, report)
            time.sleep(0.02)
        return report

    def test_file_input_that_is_left_empty_is_ignored(self):
        inputs = '<input type="file" name="upload0"><input name="after" value="1">'
        record = self.exchange(self.submit, inputs, "text", [])
        self.assertIn(b'; filename=""\r\n', record.body())
        self.assertEqual(record.received(), Received({b"note": b"text", b"after": b"1"}))

    def test_several_files_of_one_input_are_all_there(self):
        inputs = '<input type="file" name="upload0" multiple>'
        files = [self.make_file(name, name.encode()) for name in ("one", "two")]
        paths = "\n".join(map(str, files))
        received = self.exchange(self.submit, inputs, "text", [paths]).received()
        self.assertEqual(received.params, {b"note": b"text", b"upload0": b"two"})
        self.assertEqual(received.files, {b"one": digest(b"one"), b"two": digest(b"two")})


class Wget(ClientTest):
    def send(self, url, file, kind):
        return run(
            *("wget", "--no-config", "-q", "-O", "-"),
            *("--header", "Content-Type: " + kind, "--post-file", file, url),
        )

    def test_a_query_string_arrives(self):
        file = self.make_file("query", b"a=1&b=%C3%BC+2")
        record = self.exchange(self.send, file, URLENCODED)
        self.assertEqual(record.received(), Received({b"a": b"1", b"b": "\u00fc 2".encode()}))

    def test_a_form_arrives(self):
        form = Form(Field(b"a", b"1"), Upload(b"u", b"f", b"\n\0-" * 50_000))
        file = self.make_file("form", form.body(b"BOUNDARY"))
        record = self.exchange(self.send, file, content_type(b"BOUNDARY"))
        self.assertEqual(record.received(), form.as_sent())


if __name__ == "__main__":
    main()
