"""Bodies of multipart/form-data in the same form as curl's."""

import dataclasses
import os
import re
import secrets
from typing import BinaryIO

from zancgi_request.body import Body, open_regular
from zancgi_request.failures import misused
from zancgi_request.options import Settings

# The types that curl derives from file names.
TYPES = {
    ".gif": "image/gif",
    ".jpg": "image/jpeg",
    ".jpeg": "image/jpeg",
    ".png": "image/png",
    ".svg": "image/svg+xml",
    ".txt": "text/plain",
    ".htm": "text/html",
    ".html": "text/html",
    ".pdf": "application/pdf",
    ".xml": "application/xml",
}


def type_by_name(name: str) -> str:
    return TYPES.get(os.path.splitext("x" + name)[1].lower(), "")


@dataclasses.dataclass
class Part:
    name: str
    content: bytes | BinaryIO = b""
    # None: the part is not a file.
    file_name: str | None = None
    type: str = ""
    headers: list[str] = dataclasses.field(default_factory=list)


class PartText:
    """The value of --form: CONTENT[;type=TYPE][;filename=NAME][;headers=LINE]"""

    attributes = ("type=", "filename=", "headers=", "encoder=")

    def __init__(self, text: str):
        self.text = text
        self.ends = ";,"

    def parse(self, name: str) -> Part:
        part = Part(name)
        if self.text.startswith("(") or (self.text == ")" and not name):
            misused("nested parts of a form are not supported")
        sign = self.text[:1]
        if sign in ("@", "<"):
            self.text = self.text[1:]
        else:
            self.ends = ";"
        word = self._word()
        while self.text:
            self._attribute(part)
        self._set_content(part, sign, word)
        return part

    def _set_content(self, part: Part, sign: str, word: str) -> None:
        if sign == "@":
            part.content = open_regular(word)
            if part.file_name is None:
                part.file_name = os.path.basename(word)
            is_named = word != "-"
            part.type = part.type or type_by_name(part.file_name)
            part.type = part.type or (is_named and type_by_name(word)) or ""
            part.type = part.type or ("application/octet-stream" if is_named else "")
            return
        if part.file_name is None and sign != "<":
            word = with_line_ends_of_browsers(word)
        part.content = open_regular(word) if sign == "<" else os.fsencode(word)
        if part.file_name is not None:
            part.type = part.type or type_by_name(part.file_name)

    def _word(self) -> str:
        """Removes a word, quoted or not, and the rest before a ";"."""
        self.text = self.text.lstrip(" \t")
        quoted = re.match(r'"((?:[^"\\]|\\.)*)"', self.text, re.DOTALL)
        if quoted:
            self._skip(quoted.end())
            self._until_end()
            return re.sub(r'\\(["\\])', r"\1", quoted[1])
        return self._until_end()

    def _until_end(self) -> str:
        word = re.match(f"[^{self.ends}]*", self.text)[0]
        self._skip(len(word))
        if self.text.startswith(","):
            misused("each --form takes one file: quote a file name that contains a comma")
        return word.rstrip(" \t")

    def _skip(self, length: int) -> None:
        self.text = self.text[length:]

    def _attribute(self, part: Part) -> None:
        self.text = self.text[1:].lstrip(" \t")
        known = next((a for a in self.attributes if self.text.startswith(a)), "")
        self._skip(len(known))
        if known == "type=":
            part.type = self._type()
        elif known == "filename=":
            part.file_name = self._word()
        elif known == "headers=":
            part.headers.append(self._word())
        elif known == "encoder=":
            misused("encoded parts of a form are not supported")
        else:
            misused(f"--form has no attribute {self._until_end()!r}")

    def _type(self) -> str:
        """A type, which may have attributes after a ";"."""
        words = [self._until_end()]
        if not re.match("[^/ ]+/[^;, \n]+", words[0]):
            misused(f"--form needs a type such as text/plain, not {words[0]!r}")
        while self.text and not self.text[1:].lstrip(" \t").startswith(self.attributes):
            self._skip(1)
            words.append(";" + self._until_end())
        return "".join(words)


def parse_part(option: str, text: str) -> Part:
    name, equals, value = text.partition("=")
    if not equals:
        misused(f"--form needs NAME=VALUE, not {text!r}")
    name = with_line_ends_of_browsers(name)
    if option == "string":
        return Part(name, os.fsencode(with_line_ends_of_browsers(value)))
    return PartText(value).parse(name)


def with_line_ends_of_browsers(text: str) -> str:
    return re.sub("\r\n?|\n", "\r\n", text)


FORM_TYPE = "multipart/form-data"


class Form:
    def __init__(self, settings: Settings):
        self.parts = [parse_part(option, text) for option, text in settings.form]
        # In the same form as curl's.
        self.boundary = settings.boundary or "-" * 24 + secrets.token_hex(8)
        self.escapes = (
            {"\\": "\\\\", '"': '\\"'}
            if settings.form_escape
            else {'"': "%22", "\r": "%0D", "\n": "%0A"}
        )

    def content_type(self) -> str:
        return f"{FORM_TYPE}; boundary={self.boundary}"

    def body(self) -> Body:
        pieces: list[bytes | BinaryIO] = []
        for part in self.parts:
            pieces += [self._head(part), part.content, b"\r\n"]
        return Body([*pieces, os.fsencode(f"--{self.boundary}--\r\n")])

    def _head(self, part: Part) -> bytes:
        disposition = "Content-Disposition: form-data"
        if part.name:
            disposition += f'; name="{self._escaped(part.name)}"'
        if part.file_name is not None:
            disposition += f'; filename="{self._escaped(part.file_name)}"'
        lines = [f"--{self.boundary}", disposition]
        if part.type:
            lines.append(f"Content-Type: {part.type}")
        return os.fsencode("\r\n".join([*lines, *part.headers, "", ""]))

    def _escaped(self, name: str) -> str:
        return name.translate(str.maketrans(self.escapes))
