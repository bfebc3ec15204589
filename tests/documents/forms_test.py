"""Each row of the tables of bodies in docs/security.md is true: what the
documents say of wrong forms and of bodies that never end is played."""

import os
import pathlib
import random
import unittest

from probe import END, FORM, Arrived, RowsTest, field, part, post, run, upload
from verdict import full, main

SECURITY = (pathlib.Path(os.environ["SOURCE"]) / "docs" / "security.md").read_text()
URL_ENCODED = "application/x-www-form-urlencoded"
# What follows a part must arrive whatever has become of the part.
NEXT = field(b"z", b"2")
NEXT_ONLY = Arrived({b"z": b"2"})
# As long as those of browsers.
BOUNDARY = b"----------------------------------------"


def with_next(text):
    return post(text + NEXT + END)


def cut(body, end):
    """The body in two reads, the first of which ends with a text."""
    place = body.index(end) + len(end)
    return [body[:place], body[place:]]


def headed(header, value=b"1"):
    return b"--XY\r\n" + header + b"\r\n\r\n" + value + b"\r\n"


def wrong_forms():
    """Of each row its beginning, and pairs of what arrives and what the row says."""
    both = {b"u": b"f", b"z": b"2"}
    one = {b"a": b"1", b"z": b"2"}
    a_file = upload(b"u", b"f", b"abc\r\ndef") + NEXT + END
    yield "A file, of which the read", [
        (post(cut(a_file, b"abc\r")), Arrived(both, {b"f": b"abcY\ndef"})),
        (post(cut(a_file, b"abc\r\n")), Arrived(both, {b"f": b"abcY\rdef"})),
    ]
    fields = field(b"a", b"1") + NEXT + END
    value = post(cut(fields, b"\r\n\r\n1\r")).params
    yield "A CR LF outside of a file", [
        (list(value), [b"a"]),
        (b'name="z"' in value[b"a"], True),
        (post(cut(fields, b'name="a"\r')), NEXT_ONLY),
    ]
    lines = field(b"a", b"one\ntwo\nthree")
    yield "A field with line ends that are LF", [
        (with_next(lines), Arrived({b"a": b"on\ntw\nthree", b"z": b"2"})),
    ]
    yield "A header's name in other case", [
        *added_to_the_part_before(b'content-disposition: form-data; name="b"'),
        *added_to_the_part_before(b'CONTENT-DISPOSITION: form-data; name="b"; filename="g"'),
    ]
    yield "A header without the blank", added_to_the_part_before(
        b'Content-Disposition:form-data; name="b"'
    )
    folded = headed(b'Content-Disposition: form-data; name="a";\r\n filename="f"')
    yield "A header that is folded", [
        *lost(headed(b'Content-Disposition: form-data;\r\n name="a"')),
        (with_next(folded), Arrived(one)),
    ]
    yield "A name without quotes", lost(part(b"name=a", b"1"), part(b'name="a"; filename=f', b"1"))
    yield "A `filename` before the `name`", [
        (with_next(part(b'filename="f"; name="a"', b"1")), Arrived(one)),
    ]
    extended = b"filename*=UTF-8''f"
    extended_first = part(b'name="a"; %s; filename="f"' % extended, b"1")
    yield "A `filename*`", [
        *lost(
            part(b'name="a"; ' + extended, b"1"),
            part(b'name="a"; filename="f"; ' + extended, b"1"),
        ),
        (with_next(extended_first).files, {b"f": b"1"}),
    ]
    yield "A file name with a `;`", [
        (with_next(upload(b"a", b"f;g.txt", b"1")), named(b"f")),
        *lost(upload(b"a", b"f;names.txt", b"1")),
    ]
    yield 'A file name with a `"`', [
        (with_next(upload(b"a", b'f\\"g.txt', b"1")), named(b"f\\")),
        (with_next(upload(b"a", b"f%22g.txt", b"1")), named(b"f%22g.txt")),
    ]
    quoted = post(upload(b"a", b"f", b"1") + END, 'multipart/form-data; boundary="XY"')
    yield "A boundary in quotes", [
        ((len(quoted.params), quoted.files, b"a" in quoted.params), (1, {}, False)),
    ]
    yield "A disposition type other", lost(
        headed(b'Content-Disposition: attachment; name="a"'),
        headed(b'Content-Disposition: Form-Data; name="a"; filename="f"'),
    )
    nameless = field(b"a", b"1") + part(b'filename="f"', b"2")
    yield "A part with a file name and no field name", [(with_next(nameless).params[b"a"], b"f")]
    same = upload(b"a", b"f", b"one") + upload(b"b", b"f", b"two")
    yield "Two uploads with one file name", [
        (with_next(same), Arrived({b"a": b"f", b"b": b"f", b"z": b"2"}, {b"f": b"two"})),
    ]
    yield "A field named `filename`", lost(field(b"filename", b"1"))
    after = upload(b"a", b"f", b"bytes") + field(b"filename", b"value")
    yield "A field named `filename` after an upload", [(with_next(after).files, {b"f": b"value"})]
    yield "A body without its closing boundary", [
        (post(upload(b"a", b"f", b"12345")[:-4]), Arrived({b"a": b"f"}, {b"f": b"123"})),
        (post(field(b"a", b"1\r\n2345")[:-4]), Arrived({b"a": b"1"})),
    ]


def lost(*parts):
    return [(with_next(text), NEXT_ONLY) for text in parts]


def named(name):
    """What arrives of a file of one byte in a field a."""
    return Arrived({b"a": name, b"z": b"2"}, {name: b"1"})


def added_to_the_part_before(header):
    text = headed(header, b"value")
    return [
        *lost(text),
        (with_next(field(b"a", b"1") + text), Arrived({b"a": b"1\nvalue", b"z": b"2"})),
        (with_next(upload(b"u", b"f", b"bytes") + text).files, {b"f": b"value"}),
    ]


def endless_bodies():
    """The same of the other table."""
    body = field(b"a", b"1") + NEXT + END
    yield "A read of 0 bytes in the middle", spinning(field(b"a", b"1") + NEXT, length=1000)
    ignored = headed(b'Content-Disposition: attachment; name="a"')
    heads = [field(b"a", b"1") + text for text in (EMPTY_INPUT, ignored)]
    filled = 65536 - len(field(b"a", b"") + EMPTY_INPUT + b"--XY")
    yield "A boundary that is searched for", [
        *spinning(cut(body, b"--XY")),
        *spinning(cut(body, b"--XY\r")),
        (post(cut(body, b"--XY\r\n")).params, {b"a": b"1", b"z": b"2"}),
        *(
            pair
            for head in heads
            for end in (b"--XY", b"--XY\r")
            for pair in spinning(cut(head + NEXT + END, head + end))
        ),
        # Nobody has cut this one but the parser itself.
        *spinning(field(b"a", b"v" * filled) + EMPTY_INPUT + NEXT + END),
    ]
    first, rest = cut(upload(b"u", b"f", b"abc") + NEXT + END, b"abc\r\n--XY")
    yield "A boundary that ends a file and a read", [
        *spinning([first, rest[:1], rest[1:]]),
        (post([first, rest]).params, {b"u": b"f", b"z": b"2"}),
    ]
    yield "A first read of 0 bytes", sleeping(b"")
    yield "The same at any place of a body without", sleeping(b"a=1", URL_ENCODED)
    environment = {
        "REQUEST_METHOD": "POST", "CONTENT_TYPE": FORM, "CONTENT_LENGTH": "1000",
        "TMP": "/nonexistent",
    }  # fmt: skip
    parameters = f"{os.environ['GUIDE_PROGRAMS']}/parameters"
    yield "The same while the body is drained", [
        (run(parameters, b"--XY", environment, 1), Arrived(sleeps=True)),
    ]


EMPTY_INPUT = part(b'name="u"; filename=""\r\nContent-Type: application/octet-stream', b"")


def spinning(body, **more):
    return [(post(body, **more).spins, True)]


def sleeping(body, content_type=FORM):
    return [(post(body, content_type, length=1000, patience=1).sleeps, True)]


class TableTest(RowsTest):
    def test_whose_forms_come_out_wrong(self):
        self.check(SECURITY, "Whose forms come out wrong", wrong_forms())

    def test_bodies_that_never_end(self):
        self.check(SECURITY, "Bodies that never end", endless_bodies())


@full
class OddsTest(unittest.TestCase):
    """The odds of ordinary forms that a web server hands over in a file."""

    def setUp(self):
        self.random = random.Random(1)

    def text(self):
        size = self.random.randint(100_000, 240_000)
        lines = []
        while size > 0:
            # 54 bytes on average.
            lines.append(b"x" * self.random.randint(22, 82) + b"\r\n")
            size -= len(lines[-1])
        return b"".join(lines)

    def wrong(self, count, make):
        """How many forms of so many do not arrive as sent."""
        wrong = 0
        for _ in range(count):
            body, expected = make()
            body = body.replace(b"--XY", b"--" + BOUNDARY)
            arrived = post(body, FORM.replace("XY", BOUNDARY.decode()))
            wrong += arrived != expected
        return wrong

    def make_upload(self):
        text = self.text()
        body = upload(b"u", b"notes.txt", text) + END
        return body, Arrived({b"u": b"notes.txt"}, {b"notes.txt": text})

    def make_fields(self):
        values = {b"field%d" % i: b"v" * self.random.randint(1, 40) for i in range(1500)}
        return b"".join(field(*item) for item in values.items()) + END, Arrived(values)

    def test_uploads(self):
        self.assertIn("3.7 % of text files", SECURITY)
        # Of 200, 3.7 % are 7.
        self.assertIn(self.wrong(200, self.make_upload), range(2, 16))

    def test_forms_of_many_fields(self):
        self.assertIn("7 % of forms with 1,500 fields", SECURITY)
        body, _ = self.make_fields()
        self.assertAlmostEqual(len(body.replace(b"--XY", b"--" + BOUNDARY)), 170_000, delta=10_000)
        # Of 120, 7 % are 8.
        self.assertIn(self.wrong(120, self.make_fields), range(2, 20))

    def test_files_with_other_line_ends_are_whole(self):
        def make():
            text = self.text().replace(b"\r", b"")
            return upload(b"u", b"f", text) + END, Arrived({b"u": b"f"}, {b"f": text})

        self.assertEqual(self.wrong(30, make), 0)


if __name__ == "__main__":
    main()
