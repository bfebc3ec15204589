"""Runs the example panel for a test, and talks to it as a client would."""

import contextlib
import functools
import hashlib
import html
import os
import pathlib
import re
import secrets
import shutil
import signal
import sqlite3
import subprocess
import tempfile
import time
import unittest
import urllib.parse

from accounts import Accounts
from client import exchange
from processes import kill, listens, processes_with, start, wait_for

PANEL = pathlib.Path(os.environ["PANEL"])
URLENCODED = {"Content-Type": "application/x-www-form-urlencoded"}
BOUNDARY = "----a9f3boundary"
FORM = {"Content-Type": f"multipart/form-data; boundary={BOUNDARY}"}


def part(name, content, attribute=""):
    head = f'--{BOUNDARY}\r\nContent-Disposition: form-data; name="{name}"{attribute}\r\n'
    return head.encode() + b"\r\n" + content + b"\r\n"


def field(name, text):
    return part(name, text.encode())


def file(name, content):
    return part("files", content, f'; filename="{name}"')


def form(*parts):
    return b"".join(parts) + f"--{BOUNDARY}--\r\n".encode()


def add_user(database, name, level, password, account="", program=PANEL / "backend.py", prefix=()):
    """As the administrator of the back end does."""
    subprocess.run(
        [*prefix, "/usr/bin/python3", "-B", program, name, str(level), account],
        input=password + "\n", env={"PANEL_DB": str(database)}, text=True, check=True,
    )


class Panel:
    """The panel on a free port, with one administrator of a random name, who
    has a system account of another. Its configuration is in the environment."""

    def __init__(self, front=os.environ["FRONT"], home=PANEL, **configuration):
        self.user = "user-" + secrets.token_hex(4)
        self.level = 10 + secrets.randbelow(1000)
        self.password = secrets.token_urlsafe(12)
        self.account = "account-" + secrets.token_hex(4)
        self.state = pathlib.Path(tempfile.mkdtemp(prefix="panel-"))
        self.socket = self.state / "run" / "panel.sock"
        # An account finds the way to its home.
        self.state.chmod(0o711)
        self.accounts = Accounts(self.state / "accounts")
        self.home = self.accounts.make_home(self.account)
        self.add_user(self.user, self.level, self.password, self.account)
        self.front = self.accounts.front(front)
        self.server = subprocess.Popen(
            [home / "serve", self.front, self.state], env={**os.environ, **configuration},
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True,
        )
        self.url = self.server.stdout.readline().strip()
        if not self.url:
            self.stop()
            raise RuntimeError("the panel does not start")
        self.address = "127.0.0.1", urllib.parse.urlsplit(self.url).port

    def stop(self):
        self.server.terminate()
        self.server.wait(30)
        self.server.stdout.close()
        shutil.rmtree(self.state)

    def database(self):
        return sqlite3.connect(self.state / "panel.db", isolation_level=None)

    def execute(self, statement, *values):
        with contextlib.closing(self.database()) as database:
            database.execute(statement, values)

    def add_user(self, *user):
        add_user(self.state / "panel.db", *user)

    def new_session(self, user=None, account=None):
        """As after a sign-in, without the password's hash, which takes
        its time. With an account the user is made, too."""
        session, user = secrets.token_hex(16), user or self.user
        if account is not None:
            self.execute("insert into user values (?, 1, x'', x'', ?)", user, account)
        name = hashlib.sha256(session.encode()).hexdigest()
        row = (name, user, secrets.token_hex(16), int(time.time()))
        self.execute("insert into session values (?, ?, ?, ?, '192.0.2.7')", *row)
        return session

    def request(self, method="GET", headers=(), body=None, at="/panel", session=None, **items):
        """One request; items become the query string. A POST comes from the panel's
        own site unless its headers say otherwise."""
        own = {"Origin": self.url.removesuffix("/panel")}
        if session is not None:
            own["Cookie"] = "panelses5=" + session
        query = "?" + urllib.parse.urlencode(items) if items else ""
        return exchange(self.address, method, at + query, {**own, **dict(headers)}, body)

    def with_session(self, session, **items):
        return self.request(session=session, **items)

    def send_form(self, page, headers=(), session=None, **items):
        body = urllib.parse.urlencode(items)
        headers = {**URLENCODED, **dict(headers)}
        return self.request("POST", headers, body, session=session, page=page)

    def send_sign_in(self, user=None, password=None, **more):
        """The sign-in form, filled in."""
        items = {"user": user or self.user, "password": password or self.password}
        return self.send_form("signin", **items, **more)

    def sign_in(self, user=None, password=None):
        answer = self.send_sign_in(user, password)
        assert answer.status == 303, answer.body
        return answer.cookie().partition("=")[2]

    def sign_out(self, session, token):
        return self.send_form("signout", session=session, token=token)

    def token(self, session):
        return self.with_session(session, page="whoami").token()

    def kept(self):
        """What lies in the account's home."""
        return {path.name: path.read_bytes() for path in self.home.iterdir()}

    def front_processes(self):
        """The front ends at work."""
        return processes_with(self.socket.parent, os.environ["FRONT"])

    def logs(self):
        return {path.name: path.read_text(errors="replace") for path in self.state.glob("*.log")}

    def back_end_process(self):
        return int((self.state / "backend.pid").read_text())

    def kill_back_end_workers(self):
        """The workers die as by a crash; the master starts new ones."""
        master = self.back_end_process()
        for child in pathlib.Path(f"/proc/{master}/task/{master}/children").read_text().split():
            os.kill(int(child), signal.SIGKILL)

    @contextlib.contextmanager
    def back_end_away(self):
        """Nothing is where the front end looks for the back end."""
        hidden = self.socket.rename(self.socket.with_suffix(".hidden"))
        try:
            yield
        finally:
            hidden.rename(self.socket)

    @contextlib.contextmanager
    def another_back_end(self, *options):
        """Of the same kind, on the socket of the first; crashes at the end."""
        variables = {
            "PANEL_HOME": str(PANEL), "PANEL_DB": str(self.state / "panel.db"),
            "TOV_RUN_DIR": str(self.socket.parent),
        }
        command = ["uwsgi", "--ini", PANEL / "uwsgi.ini", *options]
        log = self.state / "second-backend.log"
        process = start(command, log, env={**os.environ, **variables})
        wait_for(lambda: listens(self.socket))
        try:
            yield
        finally:
            kill(process)

    @contextlib.contextmanager
    def start_front(self, session, *prefix, body=b"", front=None, options=(), **variables):
        """A front end as the web server would start it, for an upload if there is a
        body, else for the home page."""
        environment = {
            "REQUEST_METHOD": "POST" if body else "GET",
            "QUERY_STRING": "page=upload" if body else "page=home",
            "CONTENT_TYPE": FORM["Content-Type"], "CONTENT_LENGTH": str(len(body)),
            "HTTP_COOKIE": f"panelses5={session}", "TOV_RUN_DIR": str(self.socket.parent),
            "HTTP_SEC_FETCH_SITE": "same-origin", "PATH": os.environ["PATH"], **variables,
        }
        with tempfile.TemporaryFile() as stdin:
            stdin.write(body)
            stdin.seek(0)
            pipes = {"stdin": stdin, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE}
            command = [*prefix, front or self.front]
            options = {**pipes, **dict(options)}
            with subprocess.Popen(command, env=environment, **options) as process:
                yield process


@functools.cache
def shared_panel():
    """One for all tests of a module."""
    panel = Panel()
    unittest.addModuleCleanup(panel.stop)
    return panel


class PanelTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.panel = shared_panel()

    def assert_page(self, answer, status, *texts):
        """With each text in it, with or without its entities resolved."""
        shown = html.unescape(answer.body)
        missing = [text for text in texts if text not in answer.body and text not in shown]
        if answer.status != status or missing:
            self.fail(f"{shown}\nexpected {status} and {missing}, came {answer.status}")

    def assert_refused(self, answer):
        self.assert_page(answer, 403, "You may not do this, or your session has ended.")

    def empty_home(self):
        for path in self.panel.home.iterdir():
            if path.is_dir() and not path.is_symlink():
                shutil.rmtree(path)
            else:
                path.unlink()

    def assert_nothing_left(self):
        wait_for(lambda: not self.panel.front_processes())
        self.assertEqual(list(self.panel.home.glob("zantemp*")), [])

    def listing(self, session, path=""):
        """Of the folder's page: a size or a kind by name."""
        answer = self.panel.with_session(session, page="home", path=path)
        self.assert_page(answer, 200)
        rows = re.findall(r"<tr>(<td><input .*?)</tr>", answer.body)
        cells = [re.findall("<td>(.*?)</td>", row) for row in rows]
        return {html.unescape(re.sub("<.*?>", "", name)): size for _, name, size in cells}


def run_front(run_dir, front=os.environ["FRONT"], **environment):
    """A front end as a web server would start it; its whole answer."""
    return subprocess.run(
        [front], env={"TOV_RUN_DIR": str(run_dir), "REQUEST_METHOD": "GET", **environment},
        capture_output=True, text=True, timeout=60, check=True,
    ).stdout
