"""zancgi-request behaves as a web server, and reports the mistakes of programs."""

import concurrent.futures
import functools
import os
import pathlib
import re
import select
import shutil
import signal
import subprocess
import sys
import time
import unittest
import unittest.mock
import zipfile

from forked import LONG, SOURCE, Ended
from request_support import AGES, ENVIRONMENT, MEGABYTE, PATH, PROBE, TOOL
from request_support import RequestTest, given, run, run_program, start_program
from processes import processes_with, wait_for
from zancgi_request import exchange, player
from zancgi_request.body import Body
from zancgi_request.feeder import Channel, Feeder
from zancgi_request.options import SERVERS, default_settings


class VariablesTest(RequestTest):
    def test_environment_is_clean_and_complete(self):
        received = self.given("http://example.org:8080/a%20b?c=%64", "-d", "x=1", "-A", "me")
        expected = {
            "CONTENT_LENGTH": "3",
            "CONTENT_TYPE": "application/x-www-form-urlencoded",
            "DOCUMENT_ROOT": os.path.dirname(PROBE),
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
        }
        self.assertEqual(received.variables, expected)

    def test_program_runs_in_its_folder_under_its_own_path(self):
        os.symlink(PROBE, self.folder / "probe")
        received = self.given(program="./probe")
        self.assertEqual(received.arguments, [str(self.folder / "probe")])
        self.assertEqual(received.folder, str(self.folder))

    def test_program_gets_no_further_descriptors(self):
        for kind in ("pipe", "socket", "file", "null"):
            self.file("f", b"content")
            received = self.given("--stdin", kind, "-F", "f=@f")
            self.assertEqual(received.open, [0, 1, 2], kind)

    def test_variables(self):
        """None: the variable is not set."""
        proxy = ("-H", "Proxy: http://attacker/")
        for arguments, expected in (
            (("--env", "REMOTE_USER=joe"), {"REMOTE_USER": "joe"}),
            (("--env", "SERVER_NAME="), {"SERVER_NAME": ""}),
            (("--env", "EQUALS=a=b"), {"EQUALS": "a=b"}),
            (("--env", "FOREIGN"), {"FOREIGN": ENVIRONMENT["FOREIGN"]}),
            (("--unset", "SERVER_ADDR"), {"SERVER_ADDR": None}),
            (("--log-level", "9"), {"TOV_LOG_LEVEL": "9"}),
            (("--remote-addr", "192.0.2.1"), {"REMOTE_ADDR": "192.0.2.1"}),
            (("--run-dir", "run"), {"TOV_RUN_DIR": f"{self.folder}/run"}),
            (("--run-dir", "/run"), {"TOV_RUN_DIR": "/run"}),
            (("--run-dir", ""), {"TOV_RUN_DIR": ""}),
            *((("--server", server, *proxy), {"HTTP_PROXY": None}) for server in SERVERS),
            (("--keep-proxy-header", *proxy), {"HTTP_PROXY": "http://attacker/"}),
            (("https://example.org/",),
             {"HTTPS": "on", "SERVER_PORT": "443", "HTTP_HOST": "example.org"}),
            (("http://[::1]:81/",), {"SERVER_ADDR": "::1", "HTTP_HOST": "[::1]:81"}),
            # Invalid ports in the header.
            (("--server", "apache", "-H", "Host: a:" + "9" * 5000), {"SERVER_PORT": "80"}),
            (("--server", "apache", "-H", "Host: a:\u0661"), {"SERVER_PORT": "80"}),
        ):  # fmt: skip
            with self.subTest(arguments=arguments):
                variables = self.given(*arguments).variables
                self.assertEqual({name: variables.get(name) for name in expected}, expected)

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

    def test_line_ends_in_texts_but_not_files_become_crlf(self):
        content = b"l1\nl2\r\nl3\rl4"
        self.file("file", content)
        text = "l1\nl2\r\nl3\rl4\n\n"
        sent = b"l1\r\nl2\r\nl3\r\nl4\r\n\r\n"
        binary = b"\r\nContent-Type: application/octet-stream"
        for option, value, head, body in (
            ("-F", f"a={text}", b'name="a"', sent),
            ("-F", f"a={text};type=text/q", b'name="a"\r\nContent-Type: text/q', sent),
            ("--form-string", f"a={text}", b'name="a"', sent),
            ("-F", "a\nb=c", b'name="a%0D%0Ab"', b"c"),
            ("-F", f"a={text};filename=x", b'name="a"; filename="x"', text.encode()),
            ("-F", "a=<file", b'name="a"', content),
            ("-F", "a=@file", b'name="a"; filename="file"' + binary, content),
        ):
            with self.subTest(option=option, value=value):
                expected = b"--B\r\nContent-Disposition: form-data; %s\r\n\r\n%s\r\n--B--\r\n"
                received = self.given("--boundary", "B", option, value)
                self.assertEqual(received.body, expected % (head, body))
                content_type = received.variables["CONTENT_TYPE"]
                self.assertEqual(content_type, "multipart/form-data; boundary=B")

    def test_boundary_is_random(self):
        types = {self.given("-F", "a=1").variables["CONTENT_TYPE"] for _ in range(3)}
        self.assertEqual(len(types), 3)


class VersionTest(RequestTest):
    def test_version_is_the_projects(self):
        result = run_program("--version")
        self.assertEqual(result.output.decode(), f"zancgi-request {os.environ['VERSION']}\n")

    def test_packed_file_is_reproducible_and_has_a_version(self):
        files = [self.folder / "one", self.folder / "two"]
        for file in files:
            pack = [sys.executable, "-B", TOOL.with_name("pack.py"), "12.3.4", file]
            subprocess.run(pack, check=True)
            os.utime(self.folder, (0, 0))
        self.assertEqual(files[0].read_bytes(), files[1].read_bytes())
        with zipfile.ZipFile(files[0]) as archive:
            times = {entry.date_time for entry in archive.infolist()}
        self.assertEqual(times, {(1980, 1, 1, 0, 0, 0)})
        done = subprocess.run([files[0], "-V"], capture_output=True, text=True, check=True)
        self.assertEqual(done.stdout, "zancgi-request 12.3.4\n")


class StandardInputTest(RequestTest):
    def test_standard_input_has_the_requested_kind_and_ends_after_the_body(self):
        for kind, expected, reads, polled in (
            ("pipe", "pipe", [3, 0], select.POLLHUP),
            ("socket", "socket", [3, 0], select.POLLIN),
            ("file", "file", [3, 0], select.POLLIN),
            ("null", "device", [0], select.POLLIN),
            ("closed", "closed", [-1], select.POLLNVAL),
        ):
            with self.subTest(kind=kind):
                received = self.given("--stdin", kind, "-d", "a=1", "?to-the-end")
                self.assertEqual((received.kinds[0], received.reads), (expected, reads))
                self.assertEqual(received.polled, polled)
                self.assertEqual(received.variables["CONTENT_LENGTH"], "3")
                self.assertEqual(received.body, b"a=1" if reads == [3, 0] else b"")

    def test_body_is_complete_before_the_program_starts(self):
        for kind in ("pipe", "socket"):
            for body in (None, Body([b"abc"])):
                channel = Channel(kind, body)
                self.addCleanup(channel.hang_up)
                self.addCleanup(channel.give_away)
                Feeder(channel, body, default_settings()).fill()
                os.set_blocking(channel.stdin, False)
                self.assertEqual(os.read(channel.stdin, 9), b"abc" if body else b"")
                self.assertEqual(select.select([channel.stdin], [], [], 0)[0], [channel.stdin])

    def test_every_kind_of_standard_input_carries_a_long_body(self):
        content = os.urandom(3 * MEGABYTE)
        self.file("f", content)
        for kind in ("pipe", "socket", "file"):
            received = self.given("--stdin", kind, "--data-binary", "@f")
            self.assertTrue(received.body == content, kind)

    def test_each_chunk_is_read_by_itself(self):
        """The last size applies to the rest. Lighttpd would buffer a long body."""
        content = b"0123456789abcde"
        for arguments, reads in (
            (("--stdin", "pipe", "--chunk", "1"), [1] * 15),
            (("--stdin", "socket", "--chunk", "1"), [1] * 15),
            (("--chunk", "3,7,2"), [3, 7, 2, 2, 1]),
        ):
            received = self.given(*arguments, "--data-binary", "@-", stdin=content)
            self.assertEqual((received.reads, received.body), (reads, content), arguments)
        large = self.file("f", b"x" * 65537)
        chunks = ("--data-binary", f"@{large}", "--chunk", "60000")
        received = self.given("--server", "lighttpd", *chunks)
        self.assertEqual((received.kinds[0], received.reads), ("pipe", [60000, 5537]))

    def test_chunks_do_not_depend_on_the_parts_of_a_form(self):
        self.file("f", b"x" * 1000)
        received = self.given("--chunk", "500", "-F", "a=1", "-F", "f=@f", "-F", "g=@f")
        self.assertEqual(set(received.reads[:-1]), {500})
        self.assertEqual(sum(received.reads), int(received.variables["CONTENT_LENGTH"]))

    def test_pause_between_chunks(self):
        begun = time.monotonic()
        received = self.given("--pause", "150", "--chunk", "1", "-d", "abc")
        self.assertEqual(received.reads, [1, 1, 1])
        self.assertGreater(time.monotonic() - begun, 0.3)

    def test_standard_input_is_held_open(self):
        for kind in ("pipe", "socket"):
            received = self.given("--stdin", kind, "--hold-open", "-d", "abc")
            self.assertEqual((received.body, received.polled), (b"abc", 0), kind)
        result = run(PROBE, "--hold-open", "-d", "abc", "?to-the-end", "-m", "0.5")
        self.assertEqual(result.status, 28)
        self.assertIn("did not end within 0.5 seconds", result.errors)

    def test_holding_open_takes_no_processor_time(self):
        """Compared with a run that holds nothing open."""
        program = self.program("head -c 3 >&2; exec >&- <&-; sleep $SECONDS")

        def processor_time(*arguments):
            before = os.times()
            run(program, "-d", "abc", *arguments)
            # Of children that have ended.
            return sum(os.times()[2:4]) - sum(before[2:4])

        for kind in ("pipe", "socket"):
            least = processor_time("--stdin", kind, "--env", "SECONDS=0")
            held = processor_time("--stdin", kind, "--env", "SECONDS=1.5", "--hold-open")
            self.assertLess(held, 4 * least + 0.5, kind)

    def test_declared_length_may_differ_from_the_body(self):
        """Without a length, the program reads nothing."""
        fifo = self.folder / "fifo"
        os.mkfifo(fifo)
        writer = subprocess.Popen(["sh", "-c", f"echo hello > '{fifo}'"])
        self.addCleanup(writer.wait)
        for arguments, length, body in (
            (("-d", "abc", "--content-length", "1"), "1", b"a"),
            (("-d", "abc", "--content-length", "9"), "9", b"abc"),
            (("-d", "abc", "--content-length", "none"), None, b""),
            (("-d", "abc", "--content-length", "many"), "many", b""),
            (("-d", "abc", "-H", "Content-Length: 2"), "2", b"ab"),
            (("-d", "abc", "-H", "Content-Length:"), None, b""),
            (("-T", "-"), "8", b"uploaded"),
            (("-T", "."), "8", b"uploaded"),
            (("--data-binary", "@fifo"), "6", b"hello\n"),
        ):
            received = self.given(*arguments, stdin=b"uploaded")
            self.assertEqual(received.variables.get("CONTENT_LENGTH"), length, arguments)
            self.assertEqual(received.body, body, arguments)

    def test_stream_is_passed_on_as_it_arrives(self):
        program = self.program("echo Content-Type: text/plain; echo; exec cat")
        tool = start_program(
            "-T", "-", "--content-length", "none", program,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=0,
        )  # fmt: skip
        for text in (b"first", b"second"):
            tool.stdin.write(text)
            self.assertEqual(tool.stdout.read(100), text)
        tool.stdin.close()
        self.assertEqual(tool.stdout.read(), b"")
        tool.stdout.close()
        self.assertEqual(tool.wait(LONG), 0)

    def test_standard_input_is_a_pipe_by_default(self):
        large = self.file("f", b"x" * 65537)
        for body in ((), ("-d", "a"), ("--data-binary", f"@{large}")):
            self.assertEqual(self.given(*body).kinds[0], "pipe")

    def test_large_bodies_and_answers_need_little_memory(self):
        with (self.folder / "f").open("wb") as file:
            file.truncate(60 * MEGABYTE)
        reader = self.program(
            "echo Content-Type: text/plain; echo; cat | wc -c; cat /dev/zero | head -c 50000000"
        )
        for kind in ("pipe", "socket", "file"):
            tool = start_program(
                "--stdin", kind, "--data-binary", f"@{file.name}", reader, stdout=subprocess.PIPE
            )
            with tool.stdout:
                self.assertEqual(tool.stdout.readline().strip(), b"%d" % (60 * MEGABYTE))
                self.assertEqual(len(tool.stdout.read(49_000_000)), 49_000_000)
                status = pathlib.Path(f"/proc/{tool.pid}/status").read_text()
                self.assertEqual(len(tool.stdout.read()), 1_000_000)
            self.assertEqual(tool.wait(LONG), 0)
            self.assertLess(int(re.search(r"VmHWM:\s+(\d+) kB", status)[1]), 40_000, kind)


class ClientDisconnectsTest(RequestTest):
    # Reports in files, because nobody reads its answer.
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

    def test_status_after_the_client_disconnects(self):
        """A crash and the time limit still count."""
        heeding, deaf = f"cat; sleep {AGES}", f"exec sleep {AGES}"
        for text, body, arguments, status, message, read in (
            (self.witness, 1000, ("--abort-after", "300", "--stdin", "pipe"), 0, "", "300"),
            (self.witness, 1000, ("--abort-after", "300", "--stdin", "socket"), 0, "", "300"),
            (self.witness, 3, ("--abort-after", "300"), 0, "", "3"),
            (heeding, 3, ("--abort-after", "2", "--abort-signal", "TERM"), 0, "", None),
            (heeding, 3, ("--abort-after", "2", "--abort-signal", "SIGTERM"), 0, "", None),
            (heeding, 3, ("--abort-after", "2", "--abort-signal", "15"), 0, "", None),
            (heeding, 3, ("--abort-after", "2", "--abort-signal", "KILL"), 0, "", None),
            # The client also disconnects if the program does not read.
            (deaf, 3, ("--abort-after", "2", "--abort-signal", "TERM"), 0, "", None),
            (f"wc -c > read; {deaf}", 3, ("--abort-after", "2", "-m", "3"), 28, "3 seconds", "2\n"),
            ("cat; kill -SEGV $$", 3, ("--abort-after", "2"), 139, "signal 11 (SIGSEGV)", None),
        ):
            with self.subTest(text=text, arguments=arguments):
                (self.folder / "read").unlink(missing_ok=True)
                result = run(self.program(text), "-d", "x" * body, *arguments)
                self.assertEqual((result.status, bool(result.errors)), (status, bool(message)))
                self.assertIn(message, result.errors)
                self.assertEqual(self.outcome("read"), read)

    def test_abort_signal_is_sent(self):
        """On a busy machine, it can arrive before the program catches it."""
        program = self.program(self.witness)
        for _ in range(20):
            result = run(
                program, "-d", "x" * 1000, "--abort-after", "300", "--abort-signal", "TERM"
            )
            self.assertEqual((result.status, result.errors), (0, ""))
            if self.outcome("signal"):
                break
        self.assertEqual((self.outcome("signal"), self.outcome("read")), ("TERM", None))


TEXT = "Content-Type: text/plain\n"


class AnswerTest(RequestTest):
    def answer(self, text, *arguments, name="program"):
        """The result of a program that writes this text."""
        self.file("answer", text.encode())
        return run(self.program(f"cat '{self.folder}/answer'", name), *arguments)

    def judge(self, text, *arguments, status=0, output=None, messages=(), **more):
        """Each message contains the given words."""
        with self.subTest(text=text[:100], arguments=arguments):
            result = self.answer(text, *arguments, **more)
            self.assertEqual(result.status, status, result.errors)
            lines = [x.removeprefix("zancgi-request: ") for x in result.errors.splitlines()]
            self.assertEqual(len(lines), len(messages), lines)
            for line, words in zip(lines, messages, strict=True):
                self.assertIn(words, line)
            if output is not None:
                self.assertEqual(result.output, output)

    def test_http_status_decides_about_exit_status(self):
        for status, expected in ((200, 0), (201, 0), (302, 0), (399, 0), (400, 4), (404, 4),
                                 (499, 4), (500, 5), (503, 5), (999, 5)):  # fmt: skip
            text = f"Status: {status} X\n{TEXT}\nbody"
            self.judge(text, output=b"body", status=expected)

    def test_fail_suppresses_the_body_of_an_error(self):
        self.judge(TEXT + "\nbody", "--fail", output=b"body")
        text = f"Status: 404 No\n{TEXT}\nbody"
        self.judge(text, "-f", status=22, output=b"", messages=["answered with status 404"])

    def test_header_is_printed_in_http_format(self):
        plain = b"Content-Type: text/plain\r\n"
        for text, status, output in (
            ("status: 404 Nothing here\r\nX-A:1\r\nContent-Type:  text/plain \r\n\r\nbody", 4,
             b"404 Nothing here\r\nX-A: 1\r\n" + plain + b"\r\nbody"),
            (TEXT + "\n", 0, b"200 OK\r\n" + plain + b"\r\n"),
            (f"Status: 503\n{TEXT}\n", 5, b"503 Service Unavailable\r\n" + plain + b"\r\n"),
            ("Location: http://x/\n\n", 0, b"302 Found\r\nLocation: http://x/\r\n\r\n"),
            (f"Status: 303 Go\nLocation: /y\n{TEXT}\nz", 0,
             b"303 Go\r\nLocation: /y\r\n" + plain + b"\r\nz"),
        ):  # fmt: skip
            for option in (("-i",), ("--include",), ("-D", "-")):
                self.judge(text, *option, status=status, output=b"HTTP/1.1 " + output)

    def test_default_reasons_are_those_of_rfc_9110(self):
        """Versions of Python have different ones."""
        for line in ("413 Content Too Large", "414 URI Too Long", "416 Range Not Satisfiable",
                     "422 Unprocessable Content"):  # fmt: skip
            result = self.answer(f"Status: {line[:3]}\n{TEXT}\n", "-i")
            self.assertEqual(result.output.splitlines()[0].decode(), f"HTTP/1.1 {line}")

    def test_answer_to_head_has_no_body(self):
        head = b"HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 9\r\n\r\n"
        self.judge(TEXT + "Content-Length: 9\n\n", "-I", output=head)
        messages = ["the body of 4 bytes is dropped"]
        self.judge(TEXT + "\nbody", "-X", "HEAD", output=b"", messages=messages)

    def test_nph_program_writes_http(self):
        text = "HTTP/1.0 404 No\r\nContent-Type: a/b\r\n\r\nbody"
        self.judge(text, output=b"body", status=4, name="nph-program")
        self.judge(text, status=8, messages=["which only programs named nph-... may do"])
        messages = ["named nph-... must begin with HTTP/1.1"]
        self.judge(TEXT + "\n", status=8, messages=messages, name="nph-program")

    def test_problems_of_the_answer_are_reported(self):
        neither = "neither Content-Type nor Location nor Status"
        for text, *messages in (
            ("Location: here\n\n", "neither a complete URL nor an absolute path"),
            ("\nbody", "no Content-Type, but there is a body"),
            ("\n", neither),
            ("X-A: 1\n\n", neither),
            ("X-A: 1\n\nbody", "no Content-Type, but there is a body"),
            ("Status: 200\n\nbody", "no Content-Type, but there is a body"),
            (TEXT + "nonsense\n\n", "not have the form NAME: VALUE: 'nonsense'"),
            (TEXT + "X A: 1\n\n", "not have the form NAME: VALUE"),
            (TEXT + "X-A : 1\n\n", "not have the form NAME: VALUE"),
            (TEXT + " folded\n\n", "not have the form NAME: VALUE"),
            (TEXT + ": 1\n\n", "not have the form NAME: VALUE"),
            (TEXT + "X-A: \033[2J\n\n", "control characters: 'X-A: \\x1b[2J'"),
            (TEXT + TEXT + "\n", "2 lines Content-Type"),
            ("Status: ok\n" + TEXT + "\n", "Status is not a three-digit number: 'ok'"),
            (TEXT + "Content-Length: -1\n\n", "Content-Length is not a 64-bit number: '-1'"),
            (TEXT + f"Content-Length: {1 << 64}\n\n", "not a 64-bit number: '184467440737095516"),
            (TEXT + "Content-Length: " + "9" * 5000 + "\n\n", "not a 64-bit number: '9999"),
            (TEXT, "the empty line at the end of the header is missing"),
            (TEXT + "X-A: " + "x" * 70000 + "\n\n", "longer than 65536 bytes"),
            ("Status: 204 No\n" + TEXT + "\nbody", "204 must not have a body, but this one has 4"),
        ):
            self.judge(text, status=8, messages=messages)
        text = "Traceback\noops\n\nmore"
        messages = ["form NAME: VALUE: 'Traceback'", "form NAME: VALUE: 'oops'"]
        self.judge(text, status=8, messages=messages, output=text.encode())
        self.judge("Location: /here?a\n\n", messages=["'/here?a' is a local redirect"])

    def test_length_of_the_answer_is_checked(self):
        length = TEXT + "Content-Length: "
        self.judge(length + "4\n\nbody", output=b"body")
        self.judge(length + "0" * 5000 + "4\n\nbody", output=b"body")
        messages = ["1 bytes longer than its Content-Length of 3"]
        self.judge(length + "3\n\nbody", status=8, output=b"bod", messages=messages)
        messages = ["2 bytes shorter than its Content-Length of 6"]
        self.judge(length + "6\n\nbody", status=18, output=b"body", messages=messages)

    def test_header_may_arrive_in_pieces(self):
        program = self.program(
            "#!/usr/bin/python3 -u\nimport os, time\n"
            "pieces = b'Status: 404 No\\r', b'\\nContent-Type: a/b\\r\\n', b'\\r', b'\\n', b'x'\n"
            "for piece in pieces:\n"
            "    os.write(1, piece)\n    time.sleep(0.1)\n"
        )
        result = run(program)
        self.assertEqual((result.status, result.output, result.errors), (4, b"x", ""))

    def test_silent_suppresses_messages(self):
        nothing = ["the program sent no answer"]
        quiet, loud = (["-s"], ["--silent"]), ([], ["-sS"])
        for options, expected in (*((o, ()) for o in quiet), *((o, nothing) for o in loud)):
            self.judge("", *options, status=52, messages=expected)

    def test_crash_and_exit_status_are_reported(self):
        for end, status, message in (
            ("kill -SEGV $$", 139, "the program was ended by signal 11 (SIGSEGV)"),
            ("exit 3", 0, "the program ended with exit status 3, which web servers ignore"),
        ):
            result = run(self.program(f"printf '{TEXT}\\nbody'; {end}"))
            self.assertEqual((result.status, result.output), (status, b"body"))
            self.assertEqual(result.errors, f"zancgi-request: {message}\n")

    def test_crash_is_noticed_even_if_the_caller_ignores_sigchld(self):
        program = self.program("kill -SEGV $$")
        result = run_program(
            program, preexec_fn=lambda: signal.signal(signal.SIGCHLD, signal.SIG_IGN)
        )
        self.assertEqual(result.status, 128 + signal.SIGSEGV)

    def test_closed_standard_output_is_an_error(self):
        program = self.program(f"printf '{TEXT}\\nbody'")
        result = run_program(program, preexec_fn=lambda: os.close(1))
        self.assertEqual(result.status, 23)
        self.assertIn("standard output is closed", result.errors)

    def test_standard_error_of_the_program_is_passed_on(self):
        result = run(self.program(f"echo oops >&2; printf '{TEXT}\\n'"))
        self.assertEqual((result.status, result.errors), (0, "oops\n"))

    def test_answer_and_header_are_written_to_files(self):
        out, head = self.folder / "out", self.folder / "head"
        for text, status in ((TEXT + "\nbody", 0), (f"Status: 500\n{TEXT}\nbody", 5)):
            self.judge(text, "-o", out, "-D", head, status=status, output=b"")
            self.assertEqual(out.read_bytes(), b"body")
            self.assertTrue(head.read_bytes().startswith(b"HTTP/1.1 "))
        result = self.answer(TEXT + "\nbody", "-o", self.folder / "none" / "out")
        self.assertEqual(result.status, 23)

    def test_reader_closes_the_output(self):
        program = self.program(f"printf '{TEXT}\\n'; exec cat /dev/zero")
        tool = start_program(program, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        tool.stdout.read(10)
        tool.stdout.close()
        self.assertIn(b"cannot write the answer", tool.stderr.read())
        tool.stderr.close()
        self.assertEqual(tool.wait(LONG), 23)

    def test_write_out_prints_the_fields(self):
        form = "%{http_code} %{content_type} %{size_download} %{size_upload} %{method}%%\\t|\\n"
        text, output = f"Status: 404\n{TEXT}\nbody", b"body404 text/plain 4 3 POST%\t|\n"
        self.judge(text, "-d", "abc", "-w", form, status=4, output=output)
        result = self.answer(TEXT + "\n", "-w", "%{time_starttransfer} %{time_total}")
        first, last = map(float, result.output.split())
        self.assertTrue(0 < first <= last)
        self.assertEqual(self.answer("", "-w", "%{http_code} %{exitcode}").output, b"000 52")

    def test_verbose_shows_variables_and_header(self):
        result = self.answer(TEXT + "\nbody", "-v", "-d", "a=1", "?x")
        for line in ("> QUERY_STRING=x", "> CONTENT_LENGTH=3", "< HTTP/1.1 200 OK",
                     "< Content-Type: text/plain", "* a body of 3 bytes"):  # fmt: skip
            self.assertIn(line, result.errors.splitlines())
        self.assertEqual(result.output, b"body")

    def test_repeated_request_sends_the_body_again(self):
        program = self.program(f"printf '{TEXT}\\n'; exec cat")
        self.file("f", b"file")
        result = self.run_in_folder(program, "--repeat", "3", "--data-binary", "@f")
        self.assertEqual((result.status, result.output), (0, b"filefilefile"))
        self.assertRegex(result.errors, r"3 requests: fastest [\d.]+ ms, median .*, slowest .* ms")


class EndTest(RequestTest):
    def sleeper(self):
        """A copy of sleep, and whether a process of it runs."""
        path = shutil.copy("/usr/bin/sleep", self.folder / f"sleep{os.getpid()}")
        return path.name, functools.partial(processes_with, "GATEWAY_INTERFACE", path)

    def test_program_may_answer_before_it_has_read_the_body(self):
        program = self.program(f"printf '{TEXT}\\nbody'")
        self.file("f", b"x" * MEGABYTE)
        for kind in ("pipe", "socket"):
            result = self.run_in_folder(program, "--stdin", kind, "--data-binary", "@f")
            self.assertEqual((result.status, result.output), (0, b"body"), kind)
            self.assertIn("bytes of the body unread", result.errors)

    def test_program_and_tool_may_write_at_the_same_time(self):
        program = self.program(
            f"printf '{TEXT}\\n'; head -c 3000000 /dev/zero; cat >/dev/null; echo end"
        )
        self.file("f", b"x" * 3 * MEGABYTE)
        for kind in ("pipe", "socket", "file"):
            result = self.run_in_folder(program, "--stdin", kind, "--data-binary", "@f")
            self.assertEqual((result.status, result.output[-4:]), (0, b"end\n"), kind)

    def test_time_limit_ends_all_processes_of_the_program(self):
        name, is_running = self.sleeper()
        for text in (f"./{name} {AGES} & ./{name} {AGES}", f"trap '' TERM; ./{name} {AGES}"):
            with unittest.mock.patch.object(exchange, "HEED_SIGTERM_SECONDS", 0.5):
                result = run(self.program(text), "-m", "0.5")
            self.assertEqual(result.status, 28)
            self.assertFalse(is_running(), text)

    def test_time_limit_applies_while_nobody_reads_the_answer(self):
        program = self.program(f"printf '{TEXT}\\n'; exec cat /dev/zero")
        tool = start_program(program, "-sm", "0.5", stdout=subprocess.PIPE)
        self.assertEqual(tool.wait(LONG), 28)
        tool.stdout.close()

    def test_signal_also_ends_the_program(self):
        """Even if it arrives twice."""
        name, is_running = self.sleeper()
        sleeping = f"./{name} {AGES}"
        deaf = f"trap '' TERM INT; {sleeping}; {sleeping}"
        for text, number, times in (
            (sleeping, signal.SIGTERM, 1),
            (sleeping, signal.SIGINT, 1),
            (sleeping, signal.SIGHUP, 1),
            (deaf, signal.SIGINT, 2),
        ):
            tool = start_program(self.program(text))
            wait_for(is_running, LONG)
            tool.send_signal(number)
            for _ in range(times - 1):
                time.sleep(0.3)
                tool.send_signal(number)
            self.assertEqual(tool.wait(LONG), 128 + number)
            self.assertFalse(is_running())

    def test_signal_ends_a_program_that_has_just_started(self):
        name, is_running = self.sleeper()

        def start_then_signal(*arguments):
            process = exchange.start(*arguments)
            wait_for(is_running, LONG)
            os.kill(os.getpid(), signal.SIGTERM)
            return process

        for debugger in ((), ("--debugger", "env")):
            with unittest.mock.patch.object(player, "start", start_then_signal):
                result = run(self.program(f"exec ./{name} {AGES}"), *debugger)
            self.assertEqual(result.status, 128 + signal.SIGTERM)
            self.assertFalse(is_running())

    def test_processes_that_outlive_the_program_are_reported(self):
        name, is_running = self.sleeper()
        for start in (f"./{name} {AGES}", f"setsid ./{name} {AGES}"):
            result = run(self.program(f"{start} >&- 2>&- <&- & printf '{TEXT}\\nbody'"))
            self.assertEqual((result.status, result.output), (0, b"body"))
            left = re.search(rf"these processes still run: {name} \((\d+)\)", result.errors)
            self.assertIsNotNone(left, result.errors)
            os.kill(int(left[1]), signal.SIGKILL)
            wait_for(lambda: not is_running(), LONG)

    def test_process_that_soon_ends_is_not_reported(self):
        """It has a second, which may be too short on a busy machine."""
        program = self.program(f"sleep 0.2 >&- 2>&- <&- & printf '{TEXT}\\nbody'")
        results = (run(program) for _ in range(20))
        self.assertIn(Ended(0, b"body", ""), results)

    def test_tool_waits_while_output_is_held_open(self):
        # The process writes after the tool has reported that it waits.
        program = self.program(
            f"printf '{TEXT}\\nbody'\n"
            f"(while ! [ -e go-on ]; do ./{self.sleeper()[0]} 0.1; done; echo late) 2>&- <&- &"
        )
        tool = start_program(program, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        report = tool.stderr.readline()
        self.file("go-on", b"")
        output, errors = tool.communicate(timeout=LONG)
        self.assertEqual((tool.returncode, output), (0, b"bodylate\n"))
        self.assertIn(b"holds its standard output open", report + errors)

    def test_temporary_files_are_removed(self):
        temporary = self.folder / "tmp"
        temporary.mkdir()
        self.file("f", b"x" * MEGABYTE)
        program = self.program(
            f"printf '{TEXT}\\n'; cat >&-; [ -z \"$SLOW\" ] || exec sleep {AGES}"
        )
        for arguments, status in (
            (("--stdin", "file", "-F", "f=@f"), 0),
            (("-T", "-"), 0),
            (("--stdin", "file", "-F", "f=@f", "--env", "SLOW=1", "-m", "0.3"), 28),
        ):
            result = self.run_in_folder(program, *arguments, stdin=b"abc", TMPDIR=str(temporary))
            self.assertEqual(result.status, status, arguments)
            self.assertEqual(list(temporary.iterdir()), [])


class RefusalTest(RequestTest):
    def refuse(self, *arguments, status, message):
        with self.subTest(arguments=arguments):
            result = self.run_in_folder(*arguments)
            self.assertEqual((result.status, result.output), (status, b""))
            self.assertIn(message, result.errors)

    def test_programs_that_cannot_run_are_refused(self):
        self.file("plain", b"no program\n").chmod(0o755)
        self.file("not-executable", b"").chmod(0o644)
        for program, status, message in (
            ("./none", 127, "there is no program ./none"),
            ("not-executable", 126, "is not executable"),
            (self.folder, 126, "is a folder"),
            ("plain", 126, "neither a program nor a script that begins with #!"),
        ):
            self.refuse(program, status=status, message=message)

    def test_wrong_options_are_refused(self):
        for *arguments, message in (
            ("--nonsense", "--nonsense"),
            ("-d", "a", "-F", "b=c", "more than one kind"),
            ("-d", "a", "-T", "f", "more than one kind"),
            ("-I", "-d", "a", "more than one kind"),
            ("-G", "-F", "a=b", "more than one kind"),
            ("-F", "a", "NAME=VALUE"),
            ("-F", "a=@b,c", "each --form takes one file"),
            ("-F", "a=b;type=none", "--form needs a type such as text/plain, not 'none'"),
            ("-F", "a=b;nonsense=1", "'nonsense=1'"),
            ("-F", "a=b;encoder=base64", "encoded parts"),
            ("-H", "nonsense", "NAME: VALUE"),
            ("-H", "X A: 1", "not a header name"),
            ("-H", "X: a\nY: b", "must not contain control characters"),
            ("-A", "a\r\nY: b", "must not contain control characters"),
            ("-b", "a=1\nY: b", "must not contain control characters"),
            ("-e", "a\x7f", "must not contain control characters"),
            ("-X", "GET /\r\n", "not a method"),
            ("-L", "--abort-after", "1", "--location and --abort-after exclude"),
            ("-L", "-T", "-", "--content-length", "none", "sent again"),
            ("--max-redirs", "-1", "--max-redirs needs a number of at least 0, not '-1'"),
            ("-m", "-1", "-m needs a number of seconds, not '-1'"),
            ("-m", "nan", "a number of seconds, not 'nan'"),
            ("-m", "inf", "a number of seconds, not 'inf'"),
            ("--pause", "1e300", "--pause needs a number of milliseconds, not '1e300'"),
            ("--chunk", "0", "--chunk needs sizes such as 1 or 3,7,65536, not"),
            ("--chunk", "1,x", "--chunk needs sizes such as 1 or 3,7,65536, not"),
            ("--stdin", "tape", "needs one of pipe, socket, file, closed, null, not 'tape'"),
            ("--server", "none", "lighttpd"),
            ("--abort-signal", "NONE", "--abort-after", "1", "a signal such as TERM or 15, not"),
            ("--abort-signal", "TERM", "--abort-signal needs --abort-after"),
            ("--abort-after", "1", "--hold-open", "--hold-open and --abort-after exclude"),
            ("--stdin", "file", "--chunk", "1", "need --stdin pipe or socket, not file"),
            ("--debugger", "gdb", "--valgrind", "--debugger and --valgrind exclude"),
            ("--debugger", "gdb", "--repeat", "2", "--repeat cannot be used with gdb"),
            ("-T", "-", "--content-length", "none", "--repeat", "2", "sent again"),
            ("--script-name", "/a", "/b", "does not begin with --script-name '/a'"),
            ("--env", "=x", "--env needs NAME or NAME=VALUE"),
            ("/b", "/c", "expected a program and at most one URL"),
        ):
            self.refuse(PROBE, *arguments, status=2, message=message)
        self.refuse(status=2, message="expected a program and at most one URL")

    def test_invalid_urls_are_refused(self):
        for url in ("/a b", "/a%00b", "http:///x", "ftp://x/", "http://x:y/", "http://x:1:2/"):
            self.refuse(PROBE, url, status=3, message="zancgi-request: ")
        self.refuse(PROBE, "-G", "-d", "a b", status=3, message="no blanks")

    def test_unreadable_files_are_refused(self):
        for arguments in (("-d", "@none"), ("--data-binary", "@none"), ("-F", "a=@none"),
                          ("-T", "none"), ("-F", "a=<."), ("-T", "/"),
                          ("--data-urlencode", "@none"), ("-H", "@none"),
                          ("-b", ".")):  # fmt: skip
            self.refuse(PROBE, *arguments, status=26, message="cannot read")


# Without the symbols of libraries, which load slowly.
GDB = "gdb -batch -iex 'set auto-solib-add off' -ex run"


class DebuggerTest(RequestTest):
    def test_program_in_gdb_gets_the_body_and_writes_the_answer(self):
        self.file("f", os.urandom(MEGABYTE))
        for kind in ("pipe", "socket", "file"):
            arguments = ("--stdin", kind, "-F", "f=@f", "--boundary", "B", "-b", 'a=it\'s "b" $c')
            alone = self.given(*arguments)
            result = run_program(PROBE, *arguments, "--debugger", GDB, folder=self.folder)
            self.assertEqual(result.status, 0)
            self.assertIn("exited normally", result.errors)
            debugged = given(result.output)
            self.assertEqual(debugged.variables, alone.variables)
            self.assertTrue(debugged.body == alone.body)
            self.assertEqual((debugged.kinds, debugged.folder), (alone.kinds, alone.folder))

    def test_gdb_reads_commands_from_the_terminal(self):
        result = run_program(
            PROBE, "-d", "a=1", "--debugger", "gdb -q -iex 'set auto-solib-add off' --args",
            stdin=b"break main\nrun\nprint 40 + 2\ncontinue\nquit\n",
        )  # fmt: skip
        self.assertIn("Breakpoint 1, ", result.errors)
        self.assertIn("$1 = 42", result.errors)
        self.assertEqual(given(result.output).body, b"a=1")

    def test_standard_input_can_be_closed_in_gdb(self):
        result = run_program(PROBE, "--stdin", "closed", "--debugger", GDB)
        self.assertEqual(given(result.output).kinds[0], "closed")

    def test_time_limit_ends_gdb(self):
        copy = shutil.copy(PROBE, self.folder / "cgi_probe_copy")
        options = ("--hold-open", "-m", "2", "--debugger", GDB)
        self.assertEqual(run_program(copy, "?to-the-end", *options).status, 28)
        self.assertFalse(processes_with("GATEWAY_INTERFACE", copy))

    def test_other_debuggers_pass_standard_input_on(self):
        received = self.given("-d", "a=1", "--debugger", "env FRONT=1")
        self.assertEqual((received.body, received.variables["FRONT"]), (b"a=1", "1"))

    def test_interrupt_ends_other_debuggers(self):
        tool = start_program("--debugger", "env", self.program(f"exec sleep {AGES}"))
        self.addCleanup(tool.wait)
        self.addCleanup(tool.terminate)
        children = pathlib.Path(f"/proc/{tool.pid}/task/{tool.pid}/children")
        wait_for(lambda: children.read_text(), LONG)
        tool.send_signal(signal.SIGINT)
        self.assertEqual(tool.wait(LONG), 128 + signal.SIGINT)

    def test_other_debuggers_ignore_no_signals(self):
        program = self.program(f"printf '{TEXT}\\n'; exec grep SigIgn: /proc/self/status")
        result = run("--debugger", "env", program)
        self.assertEqual(result.output.split(), [b"SigIgn:", b"0" * 16])

    def test_valgrind_finds_errors(self):
        self.assertEqual(self.given("-d", "a=1", "--valgrind").body, b"a=1")
        source = self.file(
            "faulty.c",
            b"""#include <stdio.h>
            #include <stdlib.h>
            int main() {
              volatile char* freed = malloc(8);
              free((void*)freed);
              printf("Content-Type: text/plain\\n\\n%d", freed[0] == freed[1]);
            }""",
        )
        faulty = self.folder / "faulty"
        subprocess.run(["gcc", "-O0", "-w", "-o", faulty, source], check=True)
        result = run(faulty, "--valgrind")
        self.assertEqual((result.status, result.output), (99, b"1"))
        self.assertIn("Invalid read", result.errors)
        self.assertIn("valgrind found errors", result.errors)
        self.assertEqual(run(faulty).status, 0)


class ManualTest(RequestTest):
    TEXT = (SOURCE / "docs" / "man" / "zancgi-request.1").read_text()

    def examples(self):
        """The commands of the examples."""
        section = self.TEXT.partition(".Sh EXAMPLES")[2].partition("\n.Sh ")[0]
        text = section.replace("\\e", "\\").replace("\\(aq", "'").replace("\\(dq", '"')
        for block in re.findall(r"^\.Bd [^\n]*\n(.*?)^\.Ed", text, re.DOTALL | re.MULTILINE):
            yield from re.findall(r"^\$ ((?:[^\n]*\\\n)*[^\n]*)$", block, re.MULTILINE)

    def test_manual_describes_all_options(self):
        helped = run("--help").output.decode()
        options = re.findall(r"^  (?:-(\w), |    )--([\w-]+)", helped, re.MULTILINE)
        self.assertGreater(len(options), 40)
        manual = self.TEXT.replace("\\-", "-")
        for letter, name in options:
            item = f".It Fl {letter} , Fl -{name}" if letter else f".It Fl -{name}"
            self.assertRegex(manual, f"(?m)^{re.escape(item)}( |$)")
        self.assertEqual(manual.count("\n.It Fl "), len(options) + 2)

    def test_examples_work(self):
        (self.folder / "bin").mkdir()
        os.symlink(TOOL, self.folder / "bin" / "zancgi-request")
        for name in ("front.cgi", "upload.cgi"):
            os.symlink(PROBE, self.folder / name)
        self.file("photo.jpg", os.urandom(1000))
        self.file("form.bin", b"--B--\r\n")
        commands = list(self.examples())
        self.assertGreater(len(commands), 12)

        def play(command):
            return subprocess.run(
                ["sh", "-c", command], cwd=self.folder, capture_output=True, check=False,
                input=b"run\nquit\n", timeout=LONG,
                env={**ENVIRONMENT, "PATH": f"{self.folder}/bin:{PATH}"},
            )  # fmt: skip

        with concurrent.futures.ThreadPoolExecutor(4) as pool:
            for command, done in zip(commands, pool.map(play, commands)):
                # This example runs into its time limit.
                expected = 28 if "--hold-open" in command else 0
                self.assertEqual(done.returncode, expected, (command, done.stderr))


if __name__ == "__main__":
    unittest.main()
