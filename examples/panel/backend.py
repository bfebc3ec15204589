"""The back end of the panel: a WSGI application over SCGI.

It stores the users and their sessions in SQLite and answers in XML. To add or
change a user: echo PASSWORD | PANEL_DB=FILE python3 backend.py NAME LEVEL [ACCOUNT]

ACCOUNT is the system account that the panel becomes for the user. The command
ends all sessions of the user.
"""

import hashlib
import hmac
import os
import re
import secrets
import sqlite3
import sys
import time
from contextlib import closing
from urllib.parse import parse_qsl
from xml.sax.saxutils import quoteattr

COOKIE = "panelses5"
SESSION_SECONDS = 8 * 3600
SESSIONS_PER_USER = 20
SESSIONS_PER_PAGE = 100
ADMINISTRATOR = 5


class Refused(Exception):
    """The argument is the type of the error element in the answer."""


def make_file(path):
    """Makes a file that only this user can access. SQLite makes its journals with
    the same mode."""
    os.makedirs(os.path.dirname(os.path.abspath(path)), mode=0o700, exist_ok=True)
    os.close(os.open(path, os.O_CREAT | os.O_WRONLY, 0o600))


def connect():
    path = os.environ["PANEL_DB"]
    if not os.path.exists(path):
        make_file(path)
    database = sqlite3.connect(path, isolation_level=None)
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
    """Only hashes are stored, so that the database does not reveal session ids."""
    return hashlib.sha256(session.encode(errors="replace")).hexdigest()


def add_user(database, password, name, level, account=""):
    """Adds or replaces a user. Ends all sessions of the user, because somebody
    who knew the old password may have one."""
    salt = secrets.token_bytes(16)
    row = (name, int(level), salt, hash_password(password, salt), account)
    with database:
        database.execute("begin immediate")
        database.execute("insert or replace into user values (?, ?, ?, ?, ?)", row)
        database.execute("delete from session where user = ?", (name,))


def element(tag, /, **attributes):
    items = "".join(f" {key}={quoteattr(str(value))}" for key, value in attributes.items())
    return f"<{tag}{items}/>"


def clock(seconds):
    return time.strftime("%Y-%m-%d %H:%M:%S UTC", time.gmtime(seconds))


def query_items(environ):
    """Returns the items of the query. Refuses items that a value from the browser
    may have added: the library appends "auth" and "sfrom" without encoding them.
    So no item may appear twice, and none after those two."""
    # Bytes that are not text are replaced and match nothing.
    query = environ.get("QUERY_STRING", "").encode("ascii", "replace").decode()
    pairs = parse_qsl(query, keep_blank_values=True)
    names = [name for name, _ in pairs]
    added = [name for name in names if name in ("auth", "sfrom")]
    at_the_end = names[len(names) - len(added):] == added == sorted(added)
    if not at_the_end or len(set(names)) != len(names):
        raise Refused("query")
    return dict(pairs)


def session_id(environ, items):
    """Reads cookies as the front end does: of several cookies with the same name,
    the last one counts."""
    session = ""
    for piece in environ.get("HTTP_COOKIE", "").split(";"):
        name, _, value = piece.strip(" \t\r\n").partition("=")
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
    # An unknown name must take as long as a wrong password.
    salt, expected = (row["salt"], row["hash"]) if row else (b"none", b"")
    actual = hash_password(items.get("password", ""), salt)
    if not hmac.compare_digest(actual, expected):
        raise Refused("access")
    session = secrets.token_hex(16)
    database.execute(
        "delete from session where started <= ?", (time.time() - SESSION_SECONDS,)
    )
    # Inserts nothing if the password has changed since the query above.
    made = database.execute(
        "insert into session select ?, name, ?, ?, ? from user"
        " where name = ? and hash = ?",
        (hash_session(session), secrets.token_hex(16), int(time.time()),
         environ.get("REMOTE_ADDR", ""), row["name"], expected),
    )
    if made.rowcount != 1:
        raise Refused("access")
    database.execute(
        "delete from session where user = ?1 and rowid not in (select rowid"
        " from session where user = ?1 order by rowid desc limit ?2)",
        (row["name"], SESSIONS_PER_USER),
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
    """Lists the newest sessions first, starting with the number "from". An answer
    has only one page of them, because the front end searches the whole answer
    for each session."""
    own = own_session(database, environ, items)
    is_administrator = own["level"] >= ADMINISTRATOR
    start = items.get("from", "")
    first = int(start) if re.fullmatch("[0-9]{1,10}", start) else 0
    rows = database.execute(
        "select * from session where (user = ? or ?) and started > ?"
        " order by rowid desc limit ? offset ?",
        (own["name"], is_administrator, time.time() - SESSION_SECONDS,
         SESSIONS_PER_PAGE + 1, first),
    ).fetchall()
    elements = [
        element("session", user=row["user"], started=clock(row["started"]),
                address=row["address"],
                note="this session" if row["hash"] == own["hash"] else "")
        for row in rows[:SESSIONS_PER_PAGE]
    ]
    if len(rows) > SESSIONS_PER_PAGE:
        elements.append(element("older", number=first + SESSIONS_PER_PAGE))
    return session_own(database, environ, items) + "".join(elements)


def session_end(database, environ, items):
    own = own_session(database, environ, items)
    if not hmac.compare_digest(own["token"].encode(), items.get("token", "").encode()):
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


def main(name, level, account=""):
    password = sys.stdin.buffer.readline().rstrip(b"\n").decode()
    if not name or not (name + account).isprintable():
        raise ValueError("a name must contain only printable characters")
    if not re.fullmatch("[0-9]{1,9}", level):
        raise ValueError("a level must be a number from 0 to 999999999")
    with closing(connect()) as database:
        add_user(database, password, name, level, account)


if __name__ == "__main__":
    if not 3 <= len(sys.argv) <= 4:
        sys.exit("usage: echo PASSWORD | PANEL_DB=FILE python3 backend.py NAME LEVEL [ACCOUNT]")
    try:
        main(*sys.argv[1:])
    except ValueError as problem:
        sys.exit(f"backend.py: {problem}")
