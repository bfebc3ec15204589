"""SCGI requests to a back end."""

import dataclasses
import os
import socket
import struct
import time

from zancgi_doctor.files import text_or_nothing
from zancgi_doctor.texts import reason

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
