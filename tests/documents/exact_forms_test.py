"""Each row of the tables in docs/forms.md, and of the one in docs/guide.md that
compares the two parsers, is true: the guide's front ends are sent such forms."""

import os
import pathlib
import re
import subprocess
import tempfile

from probe import END, FORM, RowsTest, field, part, upload
from verdict import main

DOCS = pathlib.Path(os.environ["SOURCE"]) / "docs"
FORMS = (DOCS / "forms.md").read_text()
GUIDE = (DOCS / "guide.md").read_text()
PROGRAMS = pathlib.Path(os.environ["GUIDE_PROGRAMS"])
URL_ENCODED = "application/x-www-form-urlencoded"
FIELD = b"Content-Disposition: form-data; name=title"
MIXED = b"\r\nContent-Type: multipart/mixed; boundary=Z"
A_FIELD = b"<p>A<ul></ul>"
A_FILE = b"<p>f (), 1 bytes."


def send(program, body, content_type=FORM, **variables):
    """The page that answers this body, without its head."""
    with tempfile.TemporaryDirectory(prefix="forms-") as folder:
        # Its parent becomes the current directory.
        cgi = pathlib.Path(folder) / "cgi"
        cgi.mkdir()
        (cgi / program).symlink_to(PROGRAMS / program)
        answer = subprocess.run(
            [cgi / program],
            env={
                "REQUEST_METHOD": "POST", "CONTENT_TYPE": content_type,
                "CONTENT_LENGTH": str(len(body)), "HTTP_SEC_FETCH_SITE": "same-origin", **variables,
            },
            input=body, stdout=subprocess.PIPE, timeout=60,
        ).stdout
    head, page = answer.split(b"\r\n\r\n", 1)
    status = int(re.match(rb"Status: (\d+)", head)[1])
    text = page.removeprefix(b"<!doctype html><title>Panel</title>").removesuffix(b"\n")
    return text if status == 200 else status


def fields(text, content_type=FORM, **variables):
    return send("form", text, content_type, **variables)


def files(text):
    return send("upload", text + END)


def headed(header, value=b"A"):
    return b"--XY\r\n" + header + b"\r\n\r\n" + value + b"\r\n" + END


def named(name):
    return b"<p>" + name + b" (), 1 bytes."


def title(value):
    return b"<p>" + value + b"<ul></ul>"


def taken():
    a_field = field(b"title", b"A")
    yield "Names of headers", [
        (fields(headed(b"CONTENT-disposition: Form-DATA; NAME=title")), A_FIELD),
        (fields(a_field + END, FORM.replace("form-data", "Form-Data")), A_FIELD),
    ]
    yield "A boundary or a name without quotes", [
        (fields(headed(FIELD)), A_FIELD),
        (fields(headed(FIELD), FORM.replace("XY", '"XY"')), A_FIELD),
        (files(upload(b"u", rb"f\"\\g", b"1")), named(rb"f&quot;\g")),
    ]
    yield "White space round", [
        (fields(headed(b"Content-Disposition : form-data ;\tname = title ")), A_FIELD),
        (fields(headed(FIELD.replace(b" name", b"\r\n name"))), A_FIELD),
    ]
    yield "Spaces and tabs after a boundary", [
        (fields((a_field + END).replace(b"XY\r\n", b"XY \t\r\n")), A_FIELD),
    ]
    yield "Text before the first boundary", [
        (fields(b"before\r\n" + a_field + END + b"after\r\n--XY\r\n"), A_FIELD),
    ]
    yield "Other headers of a part", [
        (fields(headed(b"X-Other: 1\r\n" + FIELD + b"; other=2")), A_FIELD),
    ]
    yield "A `filename` before", [(files(part(b'filename="f"; name="u"', b"1")), A_FILE)]
    yield "A `filename*` without", [
        (files(part(b"name=u; filename*=UTF-8''%c3%a4", b"1")), named(b"\xc3\xa4")),
        (files(part(b"name=u; filename*=iso-8859-1'de'%e4", b"1")), named(b"\xc3\xa4")),
    ]
    yield "CR, LF and zero bytes", [
        (fields(field(b"title", b"\r1\n2\n\r\0\r\n") + END), title(b"\r1\n2\n\r\0\r\n")),
        (files(upload(b"u", b"f", b"\0\n\r")), b"<p>f (), 3 bytes."),
    ]
    encoded = {b"a+b": b"a b", b"%41": b"A", b"%4": b"%4", b"A&&tag=1": b"A"}
    tags = b"<ul><li>1</ul>"
    yield "In URL-encoded forms", [
        (fields(b"title=" + text, URL_ENCODED).replace(tags, b"<ul></ul>"), title(value))
        for text, value in encoded.items()
    ]


def matters_of_taste():
    latin = b"\xe4"
    yield "Text in another encoding", [
        (fields(field(b"_charset_", b"iso-8859-1") + field(b"title", latin) + END), title(latin)),
        (fields(headed(FIELD + b"\r\nContent-Type: a/b; charset=latin1", latin)), title(latin)),
        (fields(b"_charset_=iso-8859-1&title=%e4", URL_ENCODED), title(latin)),
    ]
    yield "Names such as", [(fields(field(b"tag[]", b"1") + END), title(b""))]
    paths = {b"C:\\dir\\f": b"C:\\dir\\f", b"../f": b"../f"}
    yield "A file name with a path", [
        (files(upload(b"u", path, b"1")), named(shown)) for path, shown in paths.items()
    ]
    yield "`%22`", [(files(upload(b"u", b"%22%0D%0A", b"1")), named(b"%22%0D%0A"))]
    yield "A file input without a choice", [
        (files(upload(b"u", b"", b"")), b""),
        (files(upload(b"u", b"", b"1")), named(b"")),
        (files(upload(b"u", b"f", b"")), b"<p>f (), 0 bytes."),
    ]
    yield "Two uploads", [(files(upload(b"u", b"f", b"1") + upload(b"v", b"f", b"1")), A_FILE * 2)]
    yield "`--`, the boundary and", [
        (fields(headed(FIELD, b"A\r\n--XYZ")), 400),
        (fields(headed(FIELD, b"A\r\n--XYZ: 1\r\n" + FIELD + b"\r\n\r\nB")), 400),
        (fields(headed(FIELD, b"A --XYZ")), title(b"A --XYZ")),
    ]
    whole = headed(FIELD)
    yield "CR or LF alone", [
        (fields(whole.replace(b"\r\n", end, 1)), 400) for end in (b"\n", b"\r")
    ] + [
        (fields(whole.replace(b"A\r\n", b"A" + end)), 400) for end in (b"\n", b"\r")
    ] + [
        (fields(whole.replace(b"title\r\n", b"title" + end)), 400) for end in (b"\n", b"\r")
    ]
    yield "Two dispositions", [
        (fields(headed(FIELD + b"\r\n" + FIELD)), 400),
        (fields(headed(FIELD + b"; name=title")), 400),
        (files(part(b"name=u; filename=f; filename=f", b"1")), 400),
        (fields(headed(FIELD + b"\r\nContent-Type: a/b\r\nContent-Type: a/b")), 400),
    ]
    yield "A header or parameter whose name", [
        (fields(headed(FIELD + b"\r\nX(1): 2")), 400), (fields(headed(FIELD + b"; x[]=2")), 400),
    ]
    yield "Text after a quoted word", [(fields(headed(FIELD.replace(b"title", b'"title"b'))), 400)]
    yield "A `filename*` in quotes", [
        (files(part(b"name=u; filename*=" + value, b"1")), 400)
        for value in (b"\"UTF-8''f\"", b"KOI8-R''%e4", b"UTF-8''%e4")
    ]
    yield "A `filename` and a `filename*`", [
        (files(part(b"name=u; filename*=UTF-8''g; filename=f", b"1")), A_FILE),
    ]
    yield "A part without a `name`", [
        (fields(headed(b"Content-Disposition: form-data")), 400),
        (fields(headed(b"Content-Disposition: form-data; name*=UTF-8''title")), 400),
    ]
    yield "A part encoded as", [
        (fields(headed(FIELD + b"\r\nContent-Transfer-Encoding: " + encoding)), 400)
        for encoding in (b"base64", b"quoted-printable")
    ]
    inner = b"--Z\r\nContent-Disposition: file; filename=f\r\n\r\n1\r\n--Z--"
    yield "A `multipart/mixed`", [(fields(headed(FIELD + MIXED, inner)), title(inner))]
    yield "An upload without a type", [(files(upload(b"u", b"f", b"1")), A_FILE)]
    yield "A body without a type", [(fields(b"title=A", ""), 415), (fields(b"", ""), title(b""))]
    chunked = {"CONTENT_LENGTH": "", "HTTP_TRANSFER_ENCODING": "chunked"}
    yield "A chunked body", [(fields(b"title=A", URL_ENCODED, **chunked), 400)]
    yield "A `;` between", [(fields(b"title=A;tag=1", URL_ENCODED), title(b"A;tag=1"))]


def without_and_with_a_form(expected, *request, **variables):
    """Pairs of what a request becomes and what is expected, for both parsers."""
    for program, params in zip(("parameters", "exact"), expected):
        page = send(program, *request, **variables)
        if isinstance(page, bytes):
            # One of the programs also says which parameters are files.
            page = page.removeprefix(b"<ul>").removesuffix(b"</ul>").replace(b" (a file)", b"")
        yield page, params


def differences():
    both = without_and_with_a_form
    repeated = field(b"a", b"1") + field(b"a", b"2") + END
    in_query = {"REQUEST_METHOD": "GET", "QUERY_STRING": "a=1&a=2"}
    yield "A name that repeats", [
        *both((b"<li>a: 1, 2", b"<li>a: 1, 2"), b"", **in_query),
        *both((b"<li>a: 1\n2", b"<li>a: 1, 2"), repeated),
        *both((b"<li>a: 2", b"<li>a: 1, 2"), b"a=1&a=2", URL_ENCODED),
    ]
    yield "Names in a URL-encoded body", [
        *both((b"<li>a%5B%5D: 1", b"<li>a[]: 1"), b"a%5B%5D=1", URL_ENCODED),
    ]
    two_files = upload(b"u", b"f", b"1") + upload(b"v", b"f", b"1") + END
    yield "Two uploads with one file name", [
        *both((b"<li>u: f<li>v: f", b"<li>u: f<li>v: f (2)"), two_files),
    ]
    yield "Methods", [*both((405, b"<li>a: 1"), b"a=1", URL_ENCODED, REQUEST_METHOD="PUT")]
    yield "A body that is no form", [*both((b"<li>{}: ", 415), b"{}", "application/json")]
    yield "A body without its closing boundary", [*both((b"<li>a: 1", 400), field(b"a", b"1"))]


class ExactFormsTest(RowsTest):
    def test_what_is_taken(self):
        self.check(FORMS, "What is taken", taken())

    def test_matters_of_taste(self):
        self.check(FORMS, "Matters of taste", matters_of_taste())

    def test_what_a_form_changes(self):
        self.check(GUIDE, "The parser that never changes", differences())


if __name__ == "__main__":
    main()
