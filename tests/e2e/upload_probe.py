"""Sends uploads to the probe behind a web server, and says what has come of
them: what the probe reports, and what the plain parser makes of the same
reads."""

import contextlib
import dataclasses
import hashlib
import http.client
import itertools
import os
import socket
import subprocess
import time
import unittest

PROBE = os.environ["UPLOAD_PROBE"]


@dataclasses.dataclass(frozen=True)
class Digest:
    size: int
    sha256: str


def digest(content):
    return Digest(len(content), hashlib.sha256(content).hexdigest())


def digest_of_file(path):
    with path.open("rb") as file:
        return Digest(path.stat().st_size, hashlib.file_digest(file, "sha256").hexdigest())


@dataclasses.dataclass
class Received:
    """What a request held, texts as bytes."""

    params: dict = dataclasses.field(default_factory=dict)
    # Digests by client file name.
    files: dict = dataclasses.field(default_factory=dict)
    # Of all files, as the library counts it.
    size: int = 0
    error: bytes = b""


# The probe has been ended by its limit of processor time.
WITHOUT_END = Received(error=b"parsed for ever")


def parse_report(report, folder, stem, read=digest_of_file):
    if report == "spins\n":
        return WITHOUT_END
    received = Received()
    for line in report.splitlines():
        kind, *words = line.split()
        texts = [bytes.fromhex(word[1:]) for word in words]
        if kind == "param":
            received.params[texts[0]] = texts[1]
        elif kind == "file":
            received.files[texts[0]] = read(folder / f"{stem}-{len(received.files)}")
        elif kind == "size":
            received.size = int(texts[0])
        else:
            received.error = texts[0]
    return received


class Record:
    """The files that the probe leaves of one request to a path, or by URL."""

    def __init__(self, folder, server):
        self.folder = folder
        self.path = f"{server.path}?{folder.name}"
        self.url = f"{server.url}?{folder.name}"
        # What the client was answered; None when the probe had no answer.
        self.report = None
        self.standard_input = None

    def was_read(self):
        return (self.folder / "reads").exists()

    def content_length(self):
        return (self.folder / "content-length").read_text()

    def reads(self):
        return [int(line) for line in (self.folder / "reads").read_text().split()]

    def body(self):
        return (self.folder / "body").read_bytes()

    def received(self):
        if self.report is None:
            return WITHOUT_END
        return parse_report(self.report, self.folder, "file")

    def predicted(self):
        command = [PROBE, self.folder]
        report = subprocess.run(command, env={}, capture_output=True, text=True, check=True).stdout
        return parse_report(report, self.folder, "predicted")

    def is_cut_where_it_hurts(self):
        """Whether a read ended inside the first boundary's line or between CR
        and LF: lines then run together, and a form is not received as sent.
        A cut after the last boundary does no harm."""
        body = self.body()
        first_line = body.find(b"\r\n") + 2
        return any(
            cut <= first_line or body[cut - 1 : cut + 1] == b"\r\n"
            for cut in itertools.accumulate(self.reads())
            if cut < len(body) - 2
        )


class Probe:
    """The probe behind a web server of the given kind."""

    def __init__(self, kind, seconds):
        """The probe is ended when it has used that many of processor time."""
        self.server = kind(PROBE)
        self.records = self.server.make_folder("records")
        self.spool = self.server.make_folder("spool")
        self.numbers = itertools.count()
        self.server.start(
            {
                "PROBE_RECORDS": str(self.records), "PROBE_SPOOL": str(self.spool),
                "PROBE_SECONDS": str(seconds),
            }
        )

    def stop(self):
        self.server.stop()

    def new_record(self, keeps_body=True):
        folder = self.server.make_folder(f"records/{next(self.numbers)}")
        if keeps_body:
            self.server.make_file(folder / "body")
        return Record(folder, self.server)

    def post(self, record, body, content_type, **headers):
        """A body, or the pieces of one with its length among the headers. Returns
        the report, if there is one: not every web server says so when the probe
        has been ended."""
        headers["Content-Type"] = content_type
        with self.connection() as connection, contextlib.suppress(ConnectionError):
            connection.request("POST", record.path, body, headers)
            answer = connection.getresponse()
            record.standard_input = answer.headers["X-Standard-Input"]
            if record.standard_input:
                return answer.read().decode()

    def post_in_pieces(self, record, pieces, content_type):
        """A piece at a time, so that reads end where pieces end, under a web
        server that passes them on."""
        length = {"Content-Length": str(sum(map(len, pieces)))}
        return self.post(record, self._one_by_one(record, pieces), content_type, **length)

    def _one_by_one(self, record, pieces):
        sent = 0
        are_passed_on = self.server.passes_pieces_on
        for piece in pieces:
            are_passed_on = are_passed_on and self._reads(record, sent)
            yield piece
            sent += len(piece)

    def _reads(self, record, count):
        """Waits until the probe has read so many bytes; not if it has ended."""
        while count > 0 and not (record.was_read() and sum(record.reads()) >= count):
            if record.was_read() and not self.server.running_programs():
                return False
            time.sleep(0.001)
        return True

    @contextlib.contextmanager
    def connection(self):
        connection = http.client.HTTPConnection(*self.server.address, timeout=120)
        connection.connect()
        connection.sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        try:
            yield connection
        finally:
            connection.close()


class ProbeTest(unittest.TestCase):
    """Starts the probe under one kind of web server."""

    # Of processor time, for each request.
    seconds = 2

    @classmethod
    def setUpClass(cls):
        cls.probe = Probe(cls.kind, cls.seconds)
        cls.addClassCleanup(cls.probe.stop)

    def record(self, send):
        """Sends a request, checks its result against the prediction, returns its record."""
        record = self.probe.new_record()
        record.report = send(record)
        hint = f"reads {record.reads()[:100]}\n{self.probe.server.logs()}"
        self.assertEqual(record.received(), record.predicted(), hint)
        # The destructors of a probe that has been ended by its limit do not run.
        if record.report is None:
            for path in self.probe.spool.iterdir():
                path.unlink()
        self.assertEqual(os.listdir(self.probe.spool), [])
        return record

    def uncut_record(self, send):
        """One that is not cut where that changes a form, which a web server may do,
        though not every time."""
        for _ in range(5):
            record = self.record(send)
            if not record.is_cut_where_it_hurts():
                return record
        return self.fail(f"cut at a line end again and again: {record.reads()[:100]}")


@dataclasses.dataclass
class Field:
    name: bytes
    content: bytes

    def header(self):
        return b'Content-Disposition: form-data; name="%s"' % self.name

    def add_to(self, received):
        received.params[self.name] = self.content.replace(b"\r\n", b"\n")


@dataclasses.dataclass
class Upload:
    name: bytes
    file_name: bytes
    content: bytes

    def header(self):
        disposition = b'Content-Disposition: form-data; name="%s"; filename="%s"'
        kind = b"\r\nContent-Type: application/octet-stream"
        return disposition % (self.name, self.file_name) + kind

    def add_to(self, received):
        received.params[self.name] = self.file_name
        received.files[self.file_name] = digest(self.content)
        received.size += len(self.content)


class Form:
    def __init__(self, *parts):
        self.parts = parts

    def body(self, boundary):
        pieces = [
            b"--%s\r\n%s\r\n\r\n%s\r\n" % (boundary, part.header(), part.content)
            for part in self.parts
        ]
        return b"".join(pieces) + b"--%s--\r\n" % boundary

    def as_sent(self):
        """What is received of it when nothing is lost."""
        received = Received()
        for part in self.parts:
            part.add_to(received)
        return received


def content_type(boundary):
    return "multipart/form-data; boundary=" + boundary.decode()
