"""The request whoami to a back end, and its answer as Authorize reads it."""

import dataclasses
import os
import re
import socket
import struct
import time
import xml.parsers.expat

from zancgi_doctor.files import text_or_nothing
from zancgi_doctor.texts import reason
from zancgi_tools.answers import TOKEN, parse_length

ANSWER_LIMIT = 1 << 20


@dataclasses.dataclass
class Answer:
    """The answer to one request, and how the connection ended."""

    end: str = "closed"
    error: str = ""
    data: bytes = b""
    seconds: float = 0
    listener: str = ""


def scgi_request(variables):
    pairs = [("CONTENT_LENGTH", "0"), ("SCGI", "1"), *sorted(variables.items())]
    header = b"".join(os.fsencode(f"{name}\0{value}\0") for name, value in pairs)
    return b"%d:%s," % (len(header), header)


def listener_of(client):
    """The name of the program at the other end; empty if it is hidden."""
    credentials = client.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12)
    pid, _, _ = struct.unpack("iII", credentials)
    return text_or_nothing(f"/proc/{pid}/comm").strip() if pid > 0 else ""


def connect(client, path, seconds):
    """Waits until the listener's queue has room, as the library does."""
    whole = int(seconds)
    limit = struct.pack("ll", whole, int((seconds - whole) * 1e6) or 1)
    client.setsockopt(socket.SOL_SOCKET, socket.SO_SNDTIMEO, limit)
    client.connect(path)


def exchange(path, request, seconds):
    """Sends a request and receives the answer."""
    answer = Answer()
    begin = time.monotonic()
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as client:
        try:
            connect(client, path, seconds)
        except OSError as error:
            answer.end = "no connection"
            is_full = isinstance(error, BlockingIOError)
            answer.error = "its queue is full" if is_full else reason(error)
            return answer
        answer.listener = listener_of(client)
        deadline = begin + seconds
        try:
            client.settimeout(seconds)
            client.sendall(request)
            receive(client, answer, deadline)
        except TimeoutError:
            answer.end = "timeout"
        except OSError as error:
            answer.end = "reset"
            answer.error = reason(error)
    answer.seconds = time.monotonic() - begin
    return answer


def receive(client, answer, deadline):
    pieces = bytearray()
    try:
        while len(pieces) <= ANSWER_LIMIT:
            left = deadline - time.monotonic()
            if left <= 0:
                raise TimeoutError
            client.settimeout(left)
            piece = client.recv(65536)
            if not piece:
                return
            pieces += piece
        answer.end = "too long"
    finally:
        answer.data = bytes(pieces)


def whoami_request(service, session, cookie=""):
    cookies = [f"{service}ses5={session}"] if session else []
    if cookie:
        cookies.append(cookie)
    variables = {
        "HTTP_HOST": "localhost",
        "HTTP_USER_AGENT": "zancgi-doctor",
        "QUERY_STRING": "func=whoami&out=xml",
        "REMOTE_ADDR": "127.0.0.1",
        "REQUEST_METHOD": "GET",
        "REQUEST_URI": "/zancgi-doctor",
        "SERVER_ADDR": "127.0.0.1",
    }
    if cookies:
        variables["HTTP_COOKIE"] = "; ".join(cookies)
    return scgi_request(variables)


def split_answer(data):
    """Header lines, if there are any, and the body."""
    headers = []
    position = 0
    while position < len(data):
        end = data.find(b"\n", position)
        line = data[position : len(data) if end < 0 else end].removesuffix(b"\r")
        if end >= 0 and not line:
            return headers, data[end + 1 :]
        name, colon, value = line.partition(b":")
        if not re.fullmatch(TOKEN.encode(), name) or not (colon or end < 0):
            return [], data
        if colon:
            headers.append((name.lower(), value.strip(b" \t")))
        position = len(data) if end < 0 else end + 1
    return headers, b""


def length_error(data):
    """Why Content-Length is wrong, empty if it is not, and whether there is one."""
    headers, body = split_answer(data)
    lengths = [value.decode("latin-1") for name, value in headers if name == b"content-length"]
    declared = set(map(parse_length, lengths))
    if not declared:
        return "", False
    if len(declared) > 1 or None in declared:
        return "its Content-Length is invalid", True
    (length,) = declared
    if len(body) < length:
        return f"its body has {len(body)} bytes, but its Content-Length is {length}", True
    return "", True


class NotAnAnswer(Exception):
    """Why Authorize would fail; the text may quote the answer."""


class WhoamiReader:
    """Reads /doc/user and /doc/error without building a tree."""

    def __init__(self):
        self.depth = 0
        self.found = {}
        self.parser = xml.parsers.expat.ParserCreate()
        self.parser.StartElementHandler = self._start
        self.parser.EndElementHandler = self._end
        self.parser.StartDoctypeDeclHandler = self._doctype

    def read(self, text):
        try:
            self.parser.Parse(text, True)
        except xml.parsers.expat.ExpatError as error:
            raise NotAnAnswer(f"it is not well-formed XML ({error})") from None
        except (LookupError, ValueError) as error:
            raise NotAnAnswer(f"its encoding is not supported ({error})") from None
        return self.found

    def _start(self, name, attributes):
        self.depth += 1
        if self.depth == 1 and name != "doc":
            raise NotAnAnswer(f"its document element is '{name}', not 'doc'")
        if self.depth == 2 and name in ("error", "user"):
            self.found.setdefault(name, attributes)

    def _end(self, _name):
        self.depth -= 1

    def _doctype(self, *_):
        raise NotAnAnswer("it has a document type declaration, which is not supported")


def read_whoami(data):
    """The attributes of the elements error and user."""
    begin = data.find(b"<?xml")
    text = data[max(begin, 0) :]
    if begin < 0 and split_answer(data)[0]:
        raise NotAnAnswer("it has header lines, but no '<?xml' after them")
    if b"\0" in text:
        raise NotAnAnswer("it contains a zero byte")
    found = WhoamiReader().read(text)
    if not found:
        raise NotAnAnswer("it has neither /doc/user nor /doc/error")
    return found
