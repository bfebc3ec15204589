"""Each row of the tables of bodies in docs/security.md is true: what the
documents say of wrong forms and of bodies that never end is played."""

import os
import pathlib
import random
import re
import unittest

from probe import END, FORM, Arrived, field, part, post, run, upload
from verdict import main

SECURITY = (pathlib.Path(os.environ["SOURCE"]) / "docs" / "security.md").read_text()
URL_ENCODED = "application/x-www-form-urlencoded"
# What follows a part must arrive whatever has become of the part.
NEXT = field(b"z", b"2")
NEXT_ONLY = Arrived({b"z": b"2"})
# As long as those of browsers.
BOUNDARY = b"----------------------------------------"


def rows(title):
    """The first cells of the table in that section."""
    section = re.search(rf"^## {title}\n(.*?)^## ", SECURITY, re.DOTALL | re.MULTILINE)[1]
    lines = re.findall(r"^\| (.*?) \|", section, re.MULTILINE)
    return lines[1:]


def with_next(text):
    return post(text + NEXT + END)


def cut(body, behind, offset=0):
    """The body in two reads, the first of which ends so far behind a text."""
    place = body.index(behind) + len(behind) + offset
    return [body[:place], body[place:]]


def headed(header, value=b"1"):
    return b"--XY\r\n" + header + b"\r\n\r\n" + value + b"\r\n"


class Rows(unittest.TestCase):
    """One method for each row of a table, which it names by its beginning."""

    title = ""

    def check_rows(self):
        """No row without a case, no case without a row, and each as the table has
        it."""
        texts = rows(self.title)
        self.assertEqual(len(texts), len(self.cases()))
        for text, (beginning, case) in zip(texts, self.cases()):
            with self.subTest(row=beginning):
                self.assertTrue(text.startswith(beginning), text)
                case()


class WrongFormsTest(Rows):
    title = "Whose forms come out wrong"

    def cases(self):
        return [
            ("A file, of which the read", self.file_cut),
            ("A CR LF outside of a file", self.line_end_cut),
            ("A field with line ends that are LF", self.bare_lf),
            ("A header's name in other case", self.other_case),
            ("A header without the blank", self.no_blank),
            ("A header that is folded", self.folded),
            ("A name without quotes", self.unquoted),
            ("A `filename` before the `name`", self.file_name_first),
            ("A `filename*`", self.extended),
            ("A file name with a `;`", self.semicolon),
            ('A file name with a `"`', self.quote),
            ("A boundary in quotes", self.quoted_boundary),
            ("A disposition type other", self.other_type),
            ("A part with a file name and no field name", self.nameless),
            ("Two uploads with one file name", self.one_name),
            ("A field named `filename`", self.field_filename),
            ("A field named `filename` after an upload", self.field_filename_after),
            ("A body without its closing boundary", self.not_closed),
        ]

    def test_each_row_is_as_the_table_has_it(self):
        self.check_rows()

    def file_cut(self):
        body = upload(b"u", b"f", b"abc\r\ndef") + NEXT + END
        for beginning, wrong in (("\r", b"Y"), ("\r\n", b"Y\r")):
            pieces = cut(body, b"abc" + beginning.encode())
            arrived = post(pieces)
            self.assertEqual(arrived.files[b"f"], b"abc" + wrong + b"\r\ndef"[len(wrong):])
            self.assertEqual(arrived.params, {b"u": b"f", b"z": b"2"})

    def line_end_cut(self):
        body = field(b"a", b"1") + NEXT + END
        value = post(cut(body, b"\r\n\r\n1\r"))
        self.assertEqual(list(value.params), [b"a"])
        self.assertIn(b'name="z"', value.params[b"a"])
        header = post(cut(body, b'name="a"\r'))
        self.assertEqual(header, NEXT_ONLY)

    def bare_lf(self):
        self.assertEqual(
            with_next(field(b"a", b"one\ntwo\nthree")).params[b"a"], b"on\ntw\nthree"
        )

    def lost(self, *parts):
        for text in parts:
            self.assertEqual(with_next(text), NEXT_ONLY, text)

    def added_to_the_part_before(self, header):
        text = headed(header, b"value")
        self.lost(text)
        arrived = with_next(field(b"a", b"1") + text)
        self.assertEqual(arrived, Arrived({b"a": b"1\nvalue", b"z": b"2"}))
        arrived = with_next(upload(b"u", b"f", b"bytes") + text)
        self.assertEqual(arrived.files, {b"f": b"value"})

    def other_case(self):
        self.added_to_the_part_before(b'content-disposition: form-data; name="b"')
        self.added_to_the_part_before(b'CONTENT-DISPOSITION: form-data; name="b"; filename="g"')

    def no_blank(self):
        self.added_to_the_part_before(b'Content-Disposition:form-data; name="b"')

    def folded(self):
        self.lost(headed(b'Content-Disposition: form-data;\r\n name="a"'))
        self.assertEqual(
            with_next(headed(b'Content-Disposition: form-data; name="a";\r\n filename="f"')),
            Arrived({b"a": b"1", b"z": b"2"}),
        )

    def unquoted(self):
        self.lost(part(b"name=a", b"1"), part(b'name="a"; filename=f', b"1"))

    def file_name_first(self):
        self.assertEqual(
            with_next(part(b'filename="f"; name="a"', b"1")), Arrived({b"a": b"1", b"z": b"2"})
        )

    def extended(self):
        self.lost(
            part(b"name=\"a\"; filename*=UTF-8''f", b"1"),
            part(b"name=\"a\"; filename=\"f\"; filename*=UTF-8''f", b"1"),
        )
        arrived = with_next(part(b"name=\"a\"; filename*=UTF-8''f; filename=\"f\"", b"1"))
        self.assertEqual(arrived.files, {b"f": b"1"})

    def semicolon(self):
        arrived = with_next(upload(b"a", b"f;g.txt", b"1"))
        self.assertEqual((arrived.params[b"a"], arrived.files), (b"f", {b"f": b"1"}))
        self.lost(upload(b"a", b"f;names.txt", b"1"))

    def quote(self):
        arrived = with_next(upload(b"a", b'f\\"g.txt', b"1"))
        self.assertEqual((arrived.params[b"a"], arrived.files), (b"f\\", {b"f\\": b"1"}))
        arrived = with_next(upload(b"a", b"f%22g.txt", b"1"))
        self.assertEqual(arrived.files, {b"f%22g.txt": b"1"})

    def quoted_boundary(self):
        arrived = post(upload(b"a", b"f", b"1") + END, 'multipart/form-data; boundary="XY"')
        self.assertEqual((len(arrived.params), arrived.files), (1, {}))
        self.assertNotIn(b"a", arrived.params)

    def other_type(self):
        self.lost(
            headed(b'Content-Disposition: attachment; name="a"'),
            headed(b'Content-Disposition: Form-Data; name="a"; filename="f"'),
        )

    def nameless(self):
        arrived = with_next(field(b"a", b"1") + part(b'filename="f"', b"2"))
        self.assertEqual(arrived.params[b"a"], b"f")

    def one_name(self):
        arrived = with_next(upload(b"a", b"f", b"one") + upload(b"b", b"f", b"two"))
        self.assertEqual(arrived.params, {b"a": b"f", b"b": b"f", b"z": b"2"})
        self.assertEqual(arrived.files, {b"f": b"two"})

    def field_filename(self):
        self.lost(field(b"filename", b"1"))

    def field_filename_after(self):
        arrived = with_next(upload(b"a", b"f", b"bytes") + field(b"filename", b"value"))
        self.assertEqual(arrived.files, {b"f": b"value"})

    def not_closed(self):
        arrived = post(upload(b"a", b"f", b"12345")[:-4])
        self.assertEqual(arrived, Arrived({b"a": b"f"}, {b"f": b"123"}))
        arrived = post(field(b"a", b"1\r\n2345")[:-4])
        self.assertEqual(arrived, Arrived({b"a": b"1"}))


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


EMPTY_INPUT = part(
    b'name="u"; filename=""\r\nContent-Type: application/octet-stream', b""
)


class EndlessTest(Rows):
    title = "Bodies that never end"

    def cases(self):
        return [
            ("A read of 0 bytes in the middle", self.early_end),
            ("A boundary that is searched for", self.boundary_ends_read),
            ("A boundary that ends a file and a read", self.single_byte),
            ("A first read of 0 bytes", self.nothing_at_first),
            ("The same at any place of a body without", self.short_query_string),
            ("The same while the body is drained", self.drained),
        ]

    def test_each_row_is_as_the_table_has_it(self):
        self.check_rows()

    def assert_spins(self, body, **more):
        self.assertTrue(post(body, **more).spins, body)

    def assert_sleeps(self, body, content_type=FORM):
        self.assertTrue(post(body, content_type, length=1000, patience=2).sleeps, body)

    def early_end(self):
        self.assert_spins(field(b"a", b"1") + NEXT, length=1000)

    def boundary_ends_read(self):
        body = field(b"a", b"1") + NEXT + END
        self.assert_spins(cut(body, b"--XY"))
        self.assert_spins(cut(body, b"--XY\r"))
        self.assertEqual(post(cut(body, b"--XY\r\n")).params, {b"a": b"1", b"z": b"2"})
        ignored = headed(b'Content-Disposition: attachment; name="a"')
        for text in (EMPTY_INPUT, ignored):
            head = field(b"a", b"1") + text
            self.assert_spins(cut(head + NEXT + END, head + b"--XY"))
            self.assert_spins(cut(head + NEXT + END, head + b"--XY\r"))
        # Nobody has cut this one but the parser itself.
        filled = 65536 - len(field(b"a", b"") + EMPTY_INPUT + b"--XY")
        self.assert_spins(field(b"a", b"v" * filled) + EMPTY_INPUT + NEXT + END)

    def single_byte(self):
        body = upload(b"u", b"f", b"abc") + NEXT + END
        first, rest = cut(body, b"abc\r\n--XY")
        self.assert_spins([first, rest[:1], rest[1:]])
        self.assertEqual(post([first, rest]).params, {b"u": b"f", b"z": b"2"})

    def nothing_at_first(self):
        self.assert_sleeps(b"")

    def short_query_string(self):
        self.assert_sleeps(b"a=1", URL_ENCODED)

    def drained(self):
        environment = {
            "REQUEST_METHOD": "POST",
            "CONTENT_TYPE": FORM,
            "CONTENT_LENGTH": "1000",
            "TMP": "/nonexistent",
        }
        parameters = f"{os.environ['GUIDE_PROGRAMS']}/parameters"
        self.assertEqual(run(parameters, b"--XY", environment, 2), Arrived(sleeps=True))


if __name__ == "__main__":
    main()
