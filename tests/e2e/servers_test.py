"""Uploads through real web servers: what arrives, and how."""

import hashlib
import http.client
import os
import random
import shutil
import subprocess
import unittest

import web_servers
from client import CURL, begin_post, status_on
from processes import wait_for
from upload_probe import (
    WITHOUT_END, Digest, Field, Form, ProbeTest, Received, Upload, content_type,
)
from verdict import main
from web_servers import REFUSED, UNLIMITED, WITHOUT_LENGTH

MEGABYTE = 1 << 20
GIGABYTE = 1 << 30
URLENCODED = "application/x-www-form-urlencoded"
LONG = os.environ.get("ZANCGI_LONG") == "1"
# The edges of the library's chunks, and more than servers keep in memory.
SIZES = (0, 1, 65_535, 65_536, 65_537, 4 * MEGABYTE)

chance = random.Random(20261121)


def without_cr(size):
    return chance.randbytes(size).replace(b"\r", b"\n")


def deceptive(count, boundary):
    """So many pieces of what a separator is made of, which never make one."""
    separator = b"\r\n--" + boundary
    pieces = [separator[:length] for length in range(1, len(separator))]
    pieces += [b"\r", b"\n", b"-", b"\0", b"\r\r\n--", b"x", b"--" + boundary[:-1] + b"\r\n"]
    return b"".join(chance.choices(pieces, k=count)).replace(separator, b"")


class Body(ProbeTest):
    seconds = 1

    def post(self, form, boundary):
        body = form.body(boundary)
        return lambda record: self.probe.post(record, body, content_type(boundary))

    def test_of_a_form_arrives_as_sent(self):
        files = [Upload(b"u%d" % size, b"f%d" % size, without_cr(size)) for size in SIZES]
        form = Form(Field(b"before", b"1\r\n2"), *files, Field(b"after", b"3\xff"))
        record = self.uncut_record(self.post(form, b"%032x" % chance.getrandbits(128)))
        self.assertEqual(record.received(), form.as_sent())

    def test_may_hold_what_separators_are_made_of(self):
        boundary = b"-----BOUNDARY"
        contents = (deceptive(10, boundary), deceptive(100_000, boundary))
        files = [Upload(b"%d" % len(each), b"%d" % len(each), each) for each in contents]
        form = Form(*files, Field(b"b", chance.randbytes(MEGABYTE)))
        record = self.record(self.post(form, boundary))
        body = form.body(boundary)
        if record.report is None:
            body = body[: sum(record.reads())]
        self.assertTrue(record.body() == body, record.reads()[:100])

    def test_of_a_query_string_comes_by_the_documented_kind_of_standard_input(self):
        kinds = []
        for size in (10, *SIZES[2:5], 200_000):
            value = b"x" * (size - 10)
            body = b"a=1&b=" + value + b"%2B+"
            record = self.record(lambda record: self.probe.post(record, body, URLENCODED))
            self.assertEqual(record.received(), Received({b"a": b"1", b"b": value + b"+ "}))
            kinds.append(record.standard_input)
        self.assertEqual((kinds[0], kinds[-1]), self.kind.standard_input)

    def cut(self, body, place):
        pieces = [body[:place], body[place:]]
        kind = content_type(b"BOUNDARY")
        return self.record(lambda record: self.probe.post_in_pieces(record, pieces, kind))

    def test_may_be_cut_where_the_pieces_of_a_slow_client_end(self):
        upload = Upload(b"u", b"f", b"x\r\n--y\r\n--BOUNDARX")
        body = Form(Field(b"a", b"1\r\n2"), upload, Field(b"b", b"3")).body(b"BOUNDARY")
        data = body.index(b"x\r\n--y")
        for place in (data - 1, data, data + 2, data + 3, body.index(b"--BOUNDARX"), len(body) - 1):
            record = self.cut(body, place)
            if self.kind.passes_pieces_on:
                self.assertEqual(record.reads()[0], place)
        if self.kind.passes_pieces_on:
            record = self.cut(body, len(b"--BOUNDARY"))
            self.assertEqual(record.reads(), [len(b"--BOUNDARY")])
            self.assertEqual(record.received(), WITHOUT_END)

    def test_beyond_the_limit_is_refused(self):
        if self.kind.largest_body == UNLIMITED:
            self.skipTest("this web server has no limit")
        record = self.probe.new_record()
        with self.probe.connection() as connection:
            length = {"Content-Length": str(self.kind.largest_body + 1)}
            connection.request("POST", record.path, b"", length)
            self.assertEqual(connection.getresponse().status, 400)
        self.assertFalse(record.was_read())

    def test_arrives_after_100_continue(self):
        content = b"x" * 100_000
        command = [*CURL, "-H", "Expect: 100-continue", "-F", "u=@-;filename=f"]

        def send(record):
            done = subprocess.run([*command, record.url], input=content, capture_output=True)
            return done.stdout.decode()

        expected = Form(Upload(b"u", b"f", content)).as_sent()
        self.assertEqual(self.uncut_record(send).received(), expected)

    def test_without_a_length_is_treated_as_documented(self):
        record = self.probe.new_record()
        headers, treatment = {"Content-Type": URLENCODED}, self.kind.chunked_body
        address = self.probe.server.address
        with begin_post(address, record.path, headers, b"3\r\na=1\r\n") as client:
            if treatment == WITHOUT_LENGTH:
                wait_for(lambda: record.was_read() and not self.probe.server.running_programs())
                self.assertEqual((record.content_length(), record.reads()), ("", []))
            elif treatment == REFUSED:
                self.assertEqual(status_on(client), 411)
                self.assertFalse(record.was_read())
            else:
                client.sendall(b"4\r\n&b=2\r\n0\r\n\r\n")
                response = http.client.HTTPResponse(client)
                response.begin()
                record.report = response.read().decode()
                self.assertEqual(record.received(), Received({b"a": b"1", b"b": b"2"}))


@unittest.skipUnless(LONG, "takes minutes, and gigabytes of disk: set ZANCGI_LONG=1")
class LargeFile(ProbeTest):
    seconds = 120

    def test_may_have_3_gigabytes(self):
        boundary = b"BOUNDARY"
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
        record = self.probe.new_record(keeps_body=False)
        # The next web server needs the room.
        self.addCleanup(shutil.rmtree, record.folder)
        record.report = self.probe.post(record, pieces(), content_type(boundary), **length)
        expected = Received({b"u": b"f"}, {b"f": Digest(size, sent.hexdigest())}, size)
        self.assertEqual(record.received(), expected, self.probe.server.logs())
        self.assertEqual(list(self.probe.spool.iterdir()), [])


def different_blocks(size):
    block = without_cr(MEGABYTE)
    for start in range(0, size, MEGABYTE):
        number = b"%08x" % (start // MEGABYTE)
        yield (number + block[len(number) :])[: size - start]


def load_tests(loader, _tests, _pattern):
    return web_servers.behind_each(loader, Body, LargeFile)


if __name__ == "__main__":
    main()
