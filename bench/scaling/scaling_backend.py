"""A back end that answers with the name of its host and records the sessions of
its queries. A session is "visit-" and a number."""

import os
import time
from urllib.parse import parse_qsl

HOST = os.environ["HOST"]
ASKED = os.open(os.environ["ASKED"], os.O_WRONLY | os.O_APPEND | os.O_CREAT, 0o600)
SECONDS = float(os.environ["SECONDS"])


def session_of(environ):
    for piece in environ.get("HTTP_COOKIE", "").split(";"):
        name, _, value = piece.strip().partition("=")
        if name == "panelses5":
            return value
    return ""


def answer(environ):
    items = dict(parse_qsl(environ["QUERY_STRING"]))
    session = session_of(environ)
    if items["func"] != "whoami" or not session.startswith("visit-"):
        return '<error type="access"/>'
    os.write(ASKED, session.encode() + b"\n")
    time.sleep(SECONDS)
    return f'<user name="{HOST}" level="0"/>'


def application(environ, start_response):
    body = f'<?xml version="1.0" encoding="UTF-8"?>\n<doc>{answer(environ)}</doc>\n'
    data = body.encode()
    start_response(
        "200 OK", [("Content-Type", "text/xml"), ("Content-Length", str(len(data)))]
    )
    return [data]
