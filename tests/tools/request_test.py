"""zancgi-request must do what a web server does, and say what a program does
wrong."""

import contextlib
import os
import pathlib
import re
import select
import shutil
import signal
import socketserver
import subprocess
import sys
import threading
import time
import unittest

from forked import Ended
from request_support import (
    AGES,
    ENVIRONMENT,
    LIBRARY_PATH,
    LONG,
    MANUAL,
    MEGABYTE,
    PACK,
    PATH,
    PROBE,
    README_FRONT,
    TOOL,
    RequestTest,
    given,
    run,
    run_program,
)
from panel_server import Panel, wait_for
from zancgi_request.body import Body
from zancgi_request.feeder import Channel, Feeder
from zancgi_request.settings import Settings

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

    def test_port_that_no_server_has_is_none(self):
        """In the header that the client sends, not in its URL."""
        for port in ("9" * 5000, "\u0661"):
            told = self.given("--server", "apache", "-H", f"Host: example.org:{port}")
            self.assertEqual(told.variables["SERVER_PORT"], "80")

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


class VersionTest(RequestTest):
    def test_is_the_projects(self):
        result = run_program("--version")
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
            held = processor_time("--stdin", kind, "--env", "SECONDS=1.5", "--hold-open")
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
            file.truncate(100 * MEGABYTE)
        reader = self.program(
            "echo Content-Type: text/plain; echo; cat | wc -c; cat /dev/zero | head -c 50000000"
        )
        for kind in ("pipe", "socket", "file"):
            tool = subprocess.Popen(
                [TOOL, "--stdin", kind, "--data-binary", "@f", reader],
                cwd=self.folder, stdout=subprocess.PIPE, env=ENVIRONMENT,
            )  # fmt: skip
            with tool.stdout:
                self.assertEqual(tool.stdout.readline().strip(), b"%d" % (100 * MEGABYTE))
                self.assertEqual(len(tool.stdout.read(49_000_000)), 49_000_000)
                status = pathlib.Path(f"/proc/{tool.pid}/status").read_text()
                self.assertEqual(len(tool.stdout.read()), 1_000_000)
            self.assertEqual(tool.wait(LONG), 0)
            self.assertLess(int(re.search(r"VmHWM:\s+(\d+) kB", status)[1]), 40_000, kind)


class ClientGoesAwayTest(RequestTest):
    # Tells in a file what became of it, since nobody takes its answer.
    witness = """#!/usr/bin/python3
import os, signal, sys
def term(*_):
    open("signal", "w").write("TERM")
    sys.exit()
signal.signal(signal.SIGTERM, term)
read = 0
while block := os.read(0, 65536):
    read += len(block)
open("read", "w").write(str(read))
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
        program = self.program(f"wc -c > read; exec sleep {AGES}")
        result = run(program, "-d", "xyz", "--abort-after", "2", "-m", "3")
        self.assertEqual(result.status, 28)
        self.assertEqual(self.outcome("read"), "2\n")

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
            (TEXT + "Content-Length: -1\n\n", "Content-Length is no number of 64 bits: '-1'"),
            (TEXT + f"Content-Length: {1 << 64}\n\n", "no number of 64 bits: '184467440737095516"),
            (TEXT + "Content-Length: " + "9" * 5000 + "\n\n", "no number of 64 bits: '9999"),
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
        self.assert_sound(TEXT + "Content-Length: " + "0" * 5000 + "4\n\nbody", b"body")
        self.assert_wrong(
            TEXT + "Content-Length: 6\n\nbody", "of the 6 bytes of Content-Length 2 are missing",
            status=18, output=b"body",
        )  # fmt: skip

    def test_header_that_ends_in_several_pieces(self):
        program = self.program(
            "#!/usr/bin/python3 -u\nimport os, time\n"
            "pieces = b'Status: 404 No\\r', b'\\nContent-Type: a/b\\r\\n', b'\\r', b'\\n', b'x'\n"
            "for piece in pieces:\n"
            "    os.write(1, piece)\n    time.sleep(0.1)\n"
        )
        result = run(program)
        self.assertEqual((result.status, result.output, result.errors), (4, b"x", ""))

    def test_nothing(self):
        self.assert_wrong("", "has answered nothing at all", status=52)

    def test_how_the_program_ends(self):
        for end, status, message in (
            ("kill -SEGV $$", 139, "the program was ended by signal 11 (SIGSEGV)"),
            ("exit 3", 0, "the program ended with exit status 3, which web servers ignore"),
        ):
            result = run(self.program(f"printf '{TEXT}\\nbody'; {end}"))
            self.assertEqual((result.status, result.output), (status, b"body"))
            self.assertEqual(result.errors, f"zancgi-request: {message}\n")

    def test_end_by_a_signal_where_ends_of_children_are_ignored(self):
        program = self.program("kill -SEGV $$")
        result = run_program(
            program, preexec_fn=lambda: signal.signal(signal.SIGCHLD, signal.SIG_IGN)
        )
        self.assertEqual(result.status, 128 + signal.SIGSEGV)

    def test_output_that_is_closed(self):
        program = self.program(f"printf '{TEXT}\\nbody'")
        result = run_program(program, preexec_fn=lambda: os.close(1))
        self.assertEqual(result.status, 23)
        self.assertIn("standard output is closed", result.errors)

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
        self.assertIn(Ended(0, b"body", ""), results)

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
        self.assertEqual((tool.returncode, output), (0, b"bodylate\n"))
        self.assertIn(b"holds its standard output open", said + errors)

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
            result = run_program(
                PROBE, *arguments, "--debugger", "gdb -batch -ex run", folder=self.folder
            )
            self.assertEqual(result.status, 0)
            self.assertIn("exited normally", result.errors)
            debugged = given(result.output)
            self.assertEqual(debugged.variables, alone.variables)
            self.assertTrue(debugged.body == alone.body)
            self.assertEqual((debugged.kinds, debugged.folder), (alone.kinds, alone.folder))

    def test_gdb_takes_its_commands_from_the_terminal(self):
        result = run_program(
            PROBE, "-d", "a=1", "--debugger", "gdb -q --args",
            stdin=b"break main\nrun\nprint 40 + 2\ncontinue\nquit\n",
        )  # fmt: skip
        self.assertIn("Breakpoint 1, ", result.errors)
        self.assertIn("$1 = 42", result.errors)
        self.assertEqual(given(result.output).body, b"a=1")

    def test_gdb_with_standard_input_closed(self):
        result = run_program(PROBE, "--stdin", "closed", "--debugger", "gdb -batch -ex run")
        self.assertEqual(given(result.output).kinds[0], "closed")

    def test_time_limit_ends_gdb(self):
        copy = shutil.copy(PROBE, self.folder / "cgi_probe_copy")
        result = run_program(copy, "?to-the-end", "--hold-open", "-m", "5", "--debugger",
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
