"""Runs the example panel for a test, and talks to it as a client would."""

import http.client
import os
import pathlib
import secrets
import shutil
import signal
import subprocess
import tempfile
import time
import urllib.parse

PANEL = pathlib.Path(os.environ["PANEL"])


class Answer:
    def __init__(self, response):
        self.status = response.status
        self.headers = response.headers
        self.body = response.read().decode()

    def session(self):
        """The session id that the answer's cookie carries."""
        return self.headers["Set-Cookie"].split(";")[0].partition("=")[2]


class Panel:
    """The panel on a free port, with one user of a given level."""

    def __init__(self, user="alice", level=7):
        self.user = user
        self.password = secrets.token_urlsafe(12)
        self.state = pathlib.Path(tempfile.mkdtemp(prefix="panel-"))
        self.add_user(user, level, self.password)
        self.server = subprocess.Popen(
            [PANEL / "serve", os.environ["FRONT"], self.state],
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

    def add_user(self, name, level, password):
        subprocess.run(
            ["/usr/bin/python3", "-B", PANEL / "backend.py", name, str(level)],
            input=password + "\n",
            env={"PANEL_DB": str(self.state / "panel.db")},
            text=True,
            check=True,
        )

    def request(self, method="GET", headers=(), body=None, raw_query="", **items):
        """One request; items become the query string."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=60)
        query = raw_query or urllib.parse.urlencode(items)
        connection.request(method, "/panel?" + query, body, dict(headers))
        try:
            return Answer(connection.getresponse())
        finally:
            connection.close()

    def with_session(self, session, **items):
        cookie = {"Cookie": "panelses5=" + session}
        return self.request(headers=cookie, **items)

    def sign_in(self, user=None, password=None):
        answer = self.request(
            page="signin", user=user or self.user, password=password or self.password
        )
        assert answer.status == 303, answer.body
        return answer.session()

    def logs(self):
        return {path.name: path.read_text(errors="replace") for path in self.state.glob("*.log")}

    def kill_back_end_workers(self):
        """The workers die as by a crash; the master starts new ones."""
        master = int((self.state / "backend.pid").read_text())
        children = pathlib.Path(f"/proc/{master}/task/{master}/children").read_text()
        for child in children.split():
            os.kill(int(child), signal.SIGKILL)

    def hide_back_end(self):
        """Nobody listens where the front end looks."""
        socket = self.state / "run" / "panel.sock"
        return socket.rename(socket.with_suffix(".hidden"))

    def show_back_end(self, hidden):
        hidden.rename(self.state / "run" / "panel.sock")


def wait_for(condition, seconds=30):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            raise TimeoutError
        time.sleep(0.1)
