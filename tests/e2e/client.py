"""Requests as a plain HTTP client sends them."""

import contextlib
import http.client
import socket


# Without a proxy, and without the configuration of whoever runs the tests.
CURL = ("curl", "-q", "-sS", "--noproxy", "*")


class Answer:
    def __init__(self, response):
        self.status, self.headers = response.status, response.headers
        self.content = response.read()
        self.body = self.content.decode(errors="replace")

    def cookie(self):
        return self.headers["Set-Cookie"].split(";")[0]

    def token(self):
        """What the panel's own pages prove themselves with."""
        return self.body.split('name="token" value="')[1].split('"')[0]


def exchange(address, method, path, headers=(), body=None, timeout=60):
    with contextlib.closing(http.client.HTTPConnection(*address, timeout=timeout)) as connection:
        connection.request(method, path, body, dict(headers))
        return Answer(connection.getresponse())


def begin_post(address, path, headers=(), sent=b"", length=None):
    """A connection on which so much of a body has been sent. Without a length the body
    is chunked."""
    size = {"Transfer-Encoding": "chunked"} if length is None else {"Content-Length": length}
    fields = {"Host": "panel", "Origin": "http://panel", **size, **dict(headers)}
    lines = (f"POST {path} HTTP/1.1", *(f"{name}: {fields[name]}" for name in fields), "", "")
    connection = socket.create_connection(address, timeout=60)
    connection.sendall("\r\n".join(lines).encode() + sent)
    return connection


def status_on(connection):
    return int(connection.recv(12).split()[1])
