"""Runs the example panel for a test, and talks to it as a client would."""

import contextlib
import http.client
import os
import pathlib
import re
import secrets
import shutil
import signal
import socket
import sqlite3
import subprocess
import tempfile
import threading
import time
import urllib.parse

from accounts import Accounts

PANEL = pathlib.Path(os.environ["PANEL"])


class Answer:
    def __init__(self, response):
        self.status = response.status
        self.headers = response.headers
        self.body = response.read().decode(errors="replace")

    def session(self):
        """The session id that the answer's cookie carries."""
        return self.headers["Set-Cookie"].split(";")[0].partition("=")[2]

    def token(self):
        """What the panel's own pages prove themselves with."""
        return self.body.split('name="token" value="')[1].split('"')[0]


class Panel:
    """The panel on a free port, with one administrator of a random name, who
    has a system account of another. Its configuration is in the environment."""

    def __init__(self, front=os.environ["FRONT"], home=PANEL, **configuration):
        self.user = "user-" + secrets.token_hex(4)
        self.level = 10 + secrets.randbelow(1000)
        self.password = secrets.token_urlsafe(12)
        self.account = "account-" + secrets.token_hex(4)
        self.state = pathlib.Path(tempfile.mkdtemp(prefix="panel-"))
        # An account finds the way to its home.
        self.state.chmod(0o711)
        self.accounts = Accounts(self.state / "accounts")
        self.home = self.accounts.make_home(self.account)
        self.add_user(self.user, self.level, self.password, self.account)
        self.front = self.accounts.front(front)
        self.server = subprocess.Popen(
            [home / "serve", self.front, self.state],
            env={**os.environ, **configuration},
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            text=True,
        )
        self.url = self.server.stdout.readline().strip()
        if not self.url:
            self.stop()
            raise RuntimeError("the panel does not start")
        self.port = urllib.parse.urlsplit(self.url).port

    def stop(self):
        self.server.terminate()
        self.server.wait(30)
        self.server.stdout.close()
        shutil.rmtree(self.state)

    def database(self):
        return sqlite3.connect(self.state / "panel.db", isolation_level=None)

    def add_user(self, name, level, password, account=""):
        subprocess.run(
            ["/usr/bin/python3", "-B", PANEL / "backend.py", name, str(level), account],
            input=password + "\n",
            env={"PANEL_DB": str(self.state / "panel.db")},
            text=True,
            check=True,
        )

    def request(self, method="GET", headers=(), body=None, path="/panel", **items):
        """One request; items become the query string."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=60)
        query = "?" + urllib.parse.urlencode(items) if items else ""
        connection.request(method, path + query, body, dict(headers))
        try:
            return Answer(connection.getresponse())
        finally:
            connection.close()

    def with_session(self, session, **items):
        cookie = {"Cookie": "panelses5=" + session}
        return self.request(headers=cookie, **items)

    def post(self, page, body, headers=()):
        return self.request("POST", headers, body, page=page)

    def send_form(self, page, headers=(), **items):
        kind = {"Content-Type": "application/x-www-form-urlencoded"}
        return self.post(page, urllib.parse.urlencode(items), {**kind, **dict(headers)})

    def send_sign_in(self, user=None, password=None, headers=(), **more):
        """The sign-in form, filled in."""
        items = {"user": user or self.user, "password": password or self.password}
        return self.send_form("signin", headers, **items, **more)

    def sign_in(self, user=None, password=None):
        answer = self.send_sign_in(user, password)
        assert answer.status == 303, answer.body
        return answer.session()

    def sign_out(self, session, token, headers=()):
        return self.send_form("signout", {"Cookie": "panelses5=" + session, **dict(headers)}, token=token)

    def token(self, session):
        return self.with_session(session, page="whoami").token()

    @property
    def spool(self):
        return self.state / "spool"

    def spooled(self):
        """What is left of uploads."""
        return sorted(path.name for path in self.spool.iterdir())

    def kept(self):
        """What lies in the account's home."""
        return {path.name: path.read_bytes() for path in self.home.iterdir()}

    def front_processes(self):
        """The front ends at work, their guardians included, each with its
        parent."""
        found = {}
        for process in pathlib.Path("/proc").glob("[0-9]*"):
            with contextlib.suppress(OSError):  # gone, or another user's
                if os.readlink(process / "exe") != os.path.realpath(os.environ["FRONT"]):
                    continue
                if os.fsencode(self.spool) in (process / "environ").read_bytes():
                    status = (process / "status").read_text()
                    found[int(process.name)] = int(re.search(r"PPid:\s+(\d+)", status).group(1))
        return found

    def logs(self):
        return {path.name: path.read_text(errors="replace") for path in self.state.glob("*.log")}

    def back_end_process(self):
        return int((self.state / "backend.pid").read_text())

    def kill_back_end_workers(self):
        """The workers die as by a crash; the master starts new ones."""
        master = self.back_end_process()
        children = pathlib.Path(f"/proc/{master}/task/{master}/children").read_text()
        for child in children.split():
            os.kill(int(child), signal.SIGKILL)

    def kill_back_end(self):
        os.kill(self.back_end_process(), signal.SIGKILL)

    @property
    def socket(self):
        return self.state / "run" / "panel.sock"

    @contextlib.contextmanager
    def back_end_away(self):
        """Nothing is where the front end looks for the back end."""
        hidden = self.socket.rename(self.socket.with_suffix(".hidden"))
        try:
            yield
        finally:
            hidden.rename(self.socket)

    @contextlib.contextmanager
    def scripted_back_end(self, answer):
        """In place of the back end: answer is called with each request and
        yields the pieces of the reply. Gives the list of the requests."""
        requests = []

        def serve(listener):
            with contextlib.suppress(OSError):
                while True:
                    connection, _ = listener.accept()
                    with connection:
                        requests.append(connection.recv(65536).decode())
                        for piece in answer(requests[-1]):
                            connection.sendall(piece)

        with self.back_end_away(), socket.socket(socket.AF_UNIX) as listener:
            listener.bind(str(self.socket))
            listener.listen()
            thread = threading.Thread(target=serve, args=[listener])
            thread.start()
            try:
                yield requests
            finally:
                listener.shutdown(socket.SHUT_RDWR)
                thread.join()

    def start_back_end(self, *options):
        """Another back end of the same kind, on the socket of the first."""
        log = self.state / "second-backend.log"
        with log.open("ab") as output:
            process = subprocess.Popen(
                ["uwsgi", "--ini", PANEL / "uwsgi.ini", *options],
                env=dict(
                    os.environ,
                    PANEL_HOME=str(PANEL),
                    PANEL_DB=str(self.state / "panel.db"),
                    TOV_RUN_DIR=str(self.socket.parent),
                ),
                stdin=subprocess.DEVNULL,
                stdout=output,
                stderr=output,
                start_new_session=True,
            )
        wait_for(self.back_end_accepts)
        return process

    def back_end_accepts(self):
        with socket.socket(socket.AF_UNIX) as client:
            return client.connect_ex(str(self.socket)) == 0


def run_front(run_dir, front=os.environ["FRONT"], **environment):
    """A front end as a web server would start it; its whole answer."""
    return subprocess.run(
        [front],
        env={"TOV_RUN_DIR": str(run_dir), "REQUEST_METHOD": "GET", **environment},
        capture_output=True,
        text=True,
        timeout=60,
        check=True,
    ).stdout


def wait_for(condition, seconds=30):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            raise TimeoutError
        time.sleep(0.1)


def kill(process):
    """A crash of a server that has been started in a session of its own."""
    os.killpg(process.pid, signal.SIGKILL)
    process.wait(30)
