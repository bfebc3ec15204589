"""Plays a body to a front end that says what has arrived, cut as wanted."""

import array
import contextlib
import dataclasses
import fcntl
import os
import pathlib
import re
import subprocess
import tempfile
import termios
import time
import unittest

from upload_probe import PROBE, parse_report

FORM = "multipart/form-data; boundary=XY"
# Of processor time, in seconds: the program's own limit, and what is enough to see
# that it spins. A form that ends takes a hundredth of it.
LIMIT, ENOUGH = 1, 0.3


class RowsTest(unittest.TestCase):
    """Checks that the rows of a table and the cases of a test are the same."""

    def check(self, document, heading, cases):
        """A case has the beginning of its row, and pairs of an actual and an expected value."""
        section = re.search(rf"^## {heading}\n(.*?)(?=^##+ |\Z)", document, re.S | re.M)[1]
        rows = iter(re.findall(r"^\| (.*?) \|", section, re.M)[1:])
        for beginning, pairs in cases:
            with self.subTest(row=beginning):
                self.assertEqual(next(rows, "no row")[: len(beginning)], beginning)
                for number, (came, expected) in enumerate(pairs):
                    self.assertEqual(came, expected, number)
        self.assertEqual(list(rows), [])


@dataclasses.dataclass
class Arrived:
    params: dict = dataclasses.field(default_factory=dict)
    # Content by client file name.
    files: dict = dataclasses.field(default_factory=dict)
    error: str = ""
    # It has used too much processor time or, in a value that grows, memory.
    spins: bool = False
    # It was ended for taking too long, and has hardly used the processor.
    sleeps: bool = False
    # The library has written something at the default level.
    logged: bool = False


def part(attributes, content, disposition=b"Content-Disposition: form-data; "):
    return b"--XY\r\n" + disposition + attributes + b"\r\n\r\n" + content + b"\r\n"


def field(name, value):
    return part(b'name="%s"' % name, value)


def upload(name, file_name, content):
    return part(b'name="%s"; filename="%s"' % (name, file_name), content)


END = b"--XY--\r\n"


def as_file(body):
    """A regular file, which reads of 65536 bytes cut."""
    file = tempfile.TemporaryFile()
    file.write(body)
    file.seek(0)
    return file


def is_unread(pipe):
    count = array.array("i", [0])
    fcntl.ioctl(pipe, termios.FIONREAD, count)
    return count[0] > 0


def write_pieces(process, pieces):
    """Each piece is one read, as long as there is a reader."""
    pipe = process.stdin.fileno()
    for piece in pieces:
        with contextlib.suppress(BrokenPipeError):
            os.write(pipe, piece)
        while process.poll() is None and is_unread(pipe):
            time.sleep(0.0005)


def processor_time(process):
    """In seconds, so far."""
    fields = pathlib.Path(f"/proc/{process.pid}/stat").read_text().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def outcome(process, patience):
    """The program's output, or an Arrived that says how it did not end."""
    end = time.monotonic() + patience
    while True:
        try:
            output, _ = process.communicate(timeout=0.05)
        except subprocess.TimeoutExpired:
            used = processor_time(process)
            if used > ENOUGH or time.monotonic() > end:
                process.kill()
                process.communicate()
                return Arrived(spins=used > ENOUGH, sleeps=used < patience / 20)
        else:
            return Arrived(spins=True) if process.returncode else output.decode()


def run(program, body, environment, patience):
    """Of bytes the body is a regular file, of a list a pipe with a read for each."""
    in_pieces = isinstance(body, list)
    source = subprocess.PIPE if in_pieces else as_file(body)
    process = subprocess.Popen([program], env=environment, stdin=source, stdout=subprocess.PIPE)
    if not in_pieces:
        source.close()
        return outcome(process, patience)
    write_pieces(process, body)
    # Open for so long that nobody hangs up.
    with os.fdopen(os.dup(process.stdin.fileno()), "wb"):
        return outcome(process, patience)


def post(body, content_type=FORM, length=None, patience=60):
    """What has arrived of a body."""
    with tempfile.TemporaryDirectory(prefix="forms-") as name:
        folder = pathlib.Path(name)
        for part_of_it in ("record", "spool"):
            (folder / part_of_it).mkdir()
        whole = b"".join(body) if isinstance(body, list) else body
        environment = {
            "REQUEST_METHOD": "POST", "QUERY_STRING": "record", "CONTENT_TYPE": content_type,
            "CONTENT_LENGTH": str(length or len(whole)), "PROBE_RECORDS": str(folder),
            "PROBE_SPOOL": str(folder / "spool"), "PROBE_SECONDS": str(LIMIT),
            "TOV_LOG": str(folder / "log"),
        }
        answer = run(PROBE, body, environment, patience)
        if isinstance(answer, Arrived):
            return answer
        report = answer.split("\r\n\r\n", 1)[1]
        received = parse_report(report, folder / "record", "file", pathlib.Path.read_bytes)
        if received.error == b"std::bad_alloc":
            return Arrived(spins=True)
        log = folder / "log"
        logged = log.exists() and log.stat().st_size > 0
        error = received.error.decode()
        return Arrived(received.params, received.files, error, logged=logged)
