"""The back end of the panel: a WSGI application over SCGI.

It owns the users and their sessions (in SQLite) and answers in XML. To make a
user: echo PASSWORD | PANEL_DB=FILE python3 backend.py NAME LEVEL [ACCOUNT]

ACCOUNT is the system account that the panel becomes to work for the user.
"""

import hashlib
import hmac
import os
import secrets
import sqlite3
import sys
import time
from contextlib import closing
from urllib.parse import parse_qsl
from xml.sax.saxutils import quoteattr

COOKIE = "panelses5"
SESSION_SECONDS = 8 * 3600
ADMINISTRATOR = 5


class Refused(Exception):
    """Carries the type of the error element."""


def connect():
    database = sqlite3.connect(os.environ["PANEL_DB"], isolation_level=None)
    database.row_factory = sqlite3.Row
    database.executescript(
        """create table if not exists user
             (name text primary key, level integer, salt blob, hash blob,
              account text);
           create table if not exists session
             (hash text primary key, user text, token text, started integer,
              address text);"""
    )
    return database


def hash_password(password, salt):
    return hashlib.scrypt(password.encode(), salt=salt, n=2**14, r=8, p=1)


def hash_session(session):
    """Only hashes are stored: who reads the database gets no session."""
    return hashlib.sha256(session.encode()).hexdigest()


def add_user(database, password, name, level, account=""):
    salt = secrets.token_bytes(16)
    database.execute(
        "insert or replace into user values (?, ?, ?, ?, ?)",
        (name, int(level), salt, hash_password(password, salt), account),
    )


def element(tag, /, **attributes):
    items = "".join(f" {key}={quoteattr(str(value))}" for key, value in attributes.items())
    return f"<{tag}{items}/>"


def clock(seconds):
    return time.strftime("%Y-%m-%d %H:%M:%S UTC", time.gmtime(seconds))


def query_items(environ):
    """The library adds "auth" and "sfrom" at the end, unencoded: a value from the
    browser could bring items along. So nothing may come twice, and nothing may
    stand behind the two."""
    pairs = parse_qsl(environ.get("QUERY_STRING", ""), keep_blank_values=True)
    names = [name for name, _ in pairs]
    added = [name for name in names if name in ("auth", "sfrom")]
    at_the_end = names[len(names) - len(added):] == added == sorted(added)
    if not at_the_end or len(set(names)) != len(names):
        raise Refused("query")
    return dict(pairs)


def session_id(environ, items):
    """Reads cookies just as the front end does: the last of a name counts."""
    session = ""
    for piece in environ.get("HTTP_COOKIE", "").split(";"):
        name, _, value = piece.strip(" \t\r\n\v\f").partition("=")
        if name == COOKIE:
            session = value
    return items.get("auth", session)


def own_session(database, environ, items):
    row = database.execute(
        "select * from session join user on user.name = session.user"
        " where session.hash = ? and started > ?",
        (hash_session(session_id(environ, items)), time.time() - SESSION_SECONDS),
    ).fetchone()
    if row is None:
        raise Refused("access")
    return row


def session_new(database, environ, items):
    row = database.execute(
        "select * from user where name = ?", (items.get("user", ""),)
    ).fetchone()
    # An unknown name takes as long as a wrong password.
    salt, expected = (row["salt"], row["hash"]) if row else (b"none", b"")
    actual = hash_password(items.get("password", ""), salt)
    if not hmac.compare_digest(actual, expected):
        raise Refused("access")
    session = secrets.token_hex(16)
    database.execute(
        "delete from session where started <= ?", (time.time() - SESSION_SECONDS,)
    )
    database.execute(
        "insert into session values (?, ?, ?, ?, ?)",
        (hash_session(session), row["name"], secrets.token_hex(16),
         int(time.time()), environ.get("REMOTE_ADDR", "")),
    )
    return element("session", id=session)


def whoami(database, environ, items):
    own = own_session(database, environ, items)
    return element("user", name=own["name"], level=own["level"])


def session_own(database, environ, items):
    own = own_session(database, environ, items)
    return element("own", token=own["token"], started=clock(own["started"]),
                   account=own["account"])


def session_list(database, environ, items):
    own = own_session(database, environ, items)
    everyone = own["level"] >= ADMINISTRATOR
    rows = database.execute(
        "select * from session where (user = ? or ?) and started > ?"
        " order by started, rowid",
        (own["name"], everyone, time.time() - SESSION_SECONDS),
    )
    return session_own(database, environ, items) + "".join(
        element("session", user=row["user"], started=clock(row["started"]),
                address=row["address"],
                note="this session" if row["hash"] == own["hash"] else "")
        for row in rows
    )


def session_end(database, environ, items):
    own = own_session(database, environ, items)
    if not hmac.compare_digest(own["token"], items.get("token", "")):
        raise Refused("access")
    database.execute("delete from session where token = ?", (own["token"],))
    return element("ok")


FUNCTIONS = {
    "whoami": whoami,
    "session.new": session_new,
    "session.own": session_own,
    "session.list": session_list,
    "session.end": session_end,
}


def answer(environ):
    try:
        items = query_items(environ)
        function = FUNCTIONS.get(items.get("func"))
        if function is None:
            raise Refused("function")
        with closing(connect()) as database:
            return function(database, environ, items)
    except Refused as refused:
        return element("error", type=refused)


def application(environ, start_response):
    body = f'<?xml version="1.0" encoding="UTF-8"?>\n<doc>{answer(environ)}</doc>\n'
    data = body.encode()
    start_response("200 OK", [("Content-Type", "text/xml"),
                              ("Content-Length", str(len(data)))])
    return [data]


if __name__ == "__main__":
    with closing(connect()) as the_database:
        add_user(the_database, sys.stdin.readline().rstrip("\n"), *sys.argv[1:])
