"""Uploads through real web servers: what arrives, and how."""

import functools
import hashlib
import itertools
import os
import random
import shutil
import unittest

import web_servers
from upload_probe import WITHOUT_END, Digest, Field, Form, Probe, Received, Upload, content_type
from verdict import main
from web_servers import UNLIMITED

MEGABYTE = 1 << 20
GIGABYTE = 1 << 30
URLENCODED = "application/x-www-form-urlencoded"
LONG = os.environ.get("ZANCGI_LONG") == "1"
# The edges of the library's chunks.
SIZES = (0, 1, 65_535, 65_536, 65_537)

chance = random.Random(20261121)


def without_cr(size):
    return chance.randbytes(size).replace(b"\r", b"\n")


def deceptive(size, boundary):
    """Made of what a separator is made of, without ever being one."""
    separator = b"\r\n--" + boundary
    pieces = [separator[:length] for length in range(1, len(separator))]
    pieces += [b"\r", b"\n", b"-", b"\0", b"\r\r\n--", b"x", b"--" + boundary[:-1] + b"\r\n"]
    content = b""
    while len(content) < size:
        content += b"".join(chance.choices(pieces, k=1000))
    return content[:size].replace(separator, b"")


def new_boundary():
    return b"-" * chance.randrange(20) + b"%032x" % chance.getrandbits(128)


@functools.cache
def probe_behind(kind, seconds):
    probe = Probe(kind, seconds)
    unittest.addModuleCleanup(probe.stop)
    return probe


class UploadTest(unittest.TestCase):
    # Of processor time, for each request.
    seconds = 1

    @classmethod
    def setUpClass(cls):
        cls.probe = probe_behind(cls.kind, cls.seconds)

    def assert_received(self, received, record, expected):
        hint = f"reads {record.reads()[:100]}\n{self.probe.server.logs()}"
        self.assertEqual(received, expected, hint)
        self.assertEqual(os.listdir(self.probe.spool), [])

    def post(self, form, boundary, pieces=None):
        """What arrives is what was sent; what is made of it, as predicted."""
        body = form.body(boundary)
        if pieces is None:
            record = self.probe.post(body, content_type(boundary))
        else:
            record = self.probe.post_in_pieces(pieces, content_type(boundary))
        predicted = record.predicted()
        if predicted == WITHOUT_END:
            self.take_away_what_is_left()
            body = body[: sum(record.reads())]
        self.assertTrue(record.body() == body, f"other bytes than sent: {record.reads()[:100]}")
        self.assert_received(record.received(), record, predicted)
        return record

    def take_away_what_is_left(self):
        """The probe is ended by its limit, so that no destructor runs."""
        for path in self.probe.spool.iterdir():
            path.unlink()

    def assert_arrives_as_sent(self, form):
        """The web server may cut the body where that changes the form. Not
        every time, though."""
        for _ in range(5):
            record = self.post(form, new_boundary())
            if not record.is_cut_where_it_hurts():
                return self.assert_received(record.received(), record, form.as_sent())
        return self.fail(f"cut at a line end again and again: {record.reads()[:100]}")


class Body(UploadTest):
    def test_of_a_query_string_may_have_any_size(self):
        bodies = {b"": {}, b"a": {b"a": b""}}
        for size in SIZES[2:]:
            value = b"x" * (size - 7 - len("%2B"))
            bodies[b"a=1&b=" + value + b"%2B+"] = {b"a": b"1", b"b": value + b"+ "}
        for body, params in bodies.items():
            record = self.probe.post(body, URLENCODED)
            self.assert_received(record.received(), record, Received(params))

    def test_of_a_form_may_have_any_size(self):
        for size in SIZES[2:]:
            boundary = new_boundary()
            frame = len(Form(Upload(b"u", b"f", b""), Field(b"z", b"1")).body(boundary))
            content = without_cr(size - frame)
            form = Form(Upload(b"u", b"f", content), Field(b"z", b"1"))
            self.assertEqual(len(self.post(form, boundary).body()), size)

    def test_arrives_by_the_documented_kind_of_standard_input(self):
        bodies = (b"a=" + b"x" * size for size in (10, 200_000))
        kinds = tuple(self.probe.post(body, URLENCODED).standard_input for body in bodies)
        self.assertEqual(kinds, self.kind.standard_input)

    def test_beyond_the_limit_is_refused(self):
        if self.kind.largest_body == UNLIMITED:
            self.skipTest("this web server has no limit")
        record = self.probe.new_record()
        with self.probe.connection() as connection:
            length = {"Content-Length": str(self.kind.largest_body + 1)}
            connection.request("POST", self.probe.path(record), b"", length)
            self.assertEqual(connection.getresponse().status, 400)
        self.assertFalse(record.was_read())


class File(UploadTest):
    def test_may_have_any_size(self):
        for size in SIZES:
            with self.subTest(size=size):
                upload = Upload(b"upload", b"random.bin", without_cr(size))
                self.assert_arrives_as_sent(
                    Form(Field(b"before", b"1\r\n2"), upload, Field(b"after", b"3\xff"))
                )

    def test_may_have_4_megabytes(self):
        upload = Upload(b"upload", b"large.bin", without_cr(4 * MEGABYTE))
        self.assert_arrives_as_sent(Form(Field(b"a", b"1"), upload, Field(b"b", b"2")))

    def test_may_consist_of_separators(self):
        boundary = new_boundary()
        for size in (100, 65_537, MEGABYTE):
            upload = Upload(b"upload", b"deceptive", deceptive(size, boundary))
            self.post(Form(Field(b"a", b"1"), upload, Field(b"b", b"2")), boundary)

    def test_may_have_line_ends(self):
        self.post(Form(Upload(b"u", b"f", chance.randbytes(2 * MEGABYTE))), new_boundary())


class PieceOfABody(UploadTest):
    """A slow client may have its body cut where its pieces end."""

    upload = Upload(b"u", b"f", b"x\r\n--y\r\n--BOUNDARX")
    form = Form(Field(b"a", b"1\r\n2"), upload, Field(b"b", b"3"))
    boundary = b"BOUNDARY"
    body = form.body(boundary)
    first_line = len(b"--BOUNDARY\r\n")

    def post_cut(self, cut):
        return self.post(self.form, self.boundary, [self.body[:cut], self.body[cut:]])

    def test_may_end_anywhere(self):
        data = self.body.index(b"x\r\n--y")
        around_the_data = range(data - 3, self.body.index(b"Content", data) + 1)
        anywhere = chance.sample(range(self.first_line + 1, len(self.body)), 15)
        for cut in sorted({*around_the_data, *anywhere}):
            with self.subTest(cut=cut):
                record = self.post_cut(cut)
                if self.kind.passes_pieces_on:
                    self.assertEqual(record.reads()[0], cut)

    def test_may_have_any_length(self):
        for length in (1, 2, 3, 7, 64):
            with self.subTest(length=length):
                # Short ones after one that holds the first boundary's line.
                cuts = [0, *range(40, len(self.body), length), len(self.body)]
                pieces = [self.body[start:end] for start, end in itertools.pairwise(cuts)]
                record = self.post(self.form, self.boundary, pieces)
                if self.kind.passes_pieces_on:
                    self.assertEqual(record.reads()[:2], [40, length])

    def test_that_ends_with_the_first_boundary_is_parsed_without_end(self):
        if not self.kind.passes_pieces_on:
            self.skipTest("this web server gathers the pieces")
        record = self.post_cut(self.first_line - 2)
        self.assertEqual(record.reads(), [self.first_line - 2])
        self.assertEqual(record.received(), WITHOUT_END)


@unittest.skipUnless(LONG, "takes minutes, and gigabytes of disk: set ZANCGI_LONG=1")
class LargeFile(UploadTest):
    seconds = 120

    def test_may_have_3_gigabytes(self):
        boundary = new_boundary()
        head, tail = Form(Upload(b"u", b"f", b"CONTENT")).body(boundary).split(b"CONTENT")
        size = min(3 * GIGABYTE, self.kind.largest_body - len(head) - len(tail))
        sent = hashlib.sha256()

        def pieces():
            yield head
            for piece in different_blocks(size):
                sent.update(piece)
                yield piece
            yield tail

        length = {"Content-Length": str(len(head) + size + len(tail))}
        record = self.probe.post(pieces(), content_type(boundary), keeps_body=False, **length)
        # The next web server needs the room.
        self.addCleanup(shutil.rmtree, record.folder)
        expected = Received({b"u": b"f"}, {b"f": Digest(size, sent.hexdigest())}, size)
        self.assert_received(record.received(), record, expected)


def different_blocks(size):
    block = without_cr(MEGABYTE)
    for start in range(0, size, MEGABYTE):
        number = b"%08x" % (start // MEGABYTE)
        yield (number + block[len(number) :])[: size - start]


def load_tests(loader, _tests, _pattern):
    return web_servers.behind_each(loader, Body, File, PieceOfABody, LargeFile)


if __name__ == "__main__":
    main()
