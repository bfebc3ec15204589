"""The panel when something behind it fails, and what the logs then hold."""

import concurrent.futures
import contextlib
import os
import pathlib
import signal
import socket
import subprocess
import tempfile
import time
import unittest

from back_end import scripted_back_end
from panel_server import PANEL, Panel, PanelTest
from processes import wait_for
from verdict import main

# Ends at the third signal.
DEAF_BACK_END = """#!/usr/bin/python3
import os, signal, socket
state = os.environ["PANEL_STATE"]
signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGTERM])
listener = socket.socket(socket.AF_UNIX)
listener.bind(os.environ["TOV_RUN_DIR"] + "/panel.sock")
listener.listen()
for _ in range(3):
    number = signal.sigwait([signal.SIGTERM])
    with open(state + "/signals", "a") as log:
        log.write(str(int(number)))
"""


class FailureTest(PanelTest):
    def setUp(self):
        self.session = self.panel.sign_in()

    def whoami(self):
        return self.panel.with_session(self.session, page="whoami")

    def assert_no_answer(self, answer):
        self.assert_page(answer, 502, "The service behind this panel does not answer.")
        self.assertNotIn(str(self.panel.state), answer.body)

    def test_a_back_end_that_is_missing_or_killed_serves_after_a_new_start(self):
        """The page and the log name the failure until then."""
        with self.panel.back_end_away():
            self.assert_no_answer(self.whoami())
            reason = f"cannot connect to the back end at '{self.panel.socket}'"
            self.assertIn(reason, self.panel.logs()["front.log"])
            with self.panel.another_back_end():
                self.assertEqual(self.whoami().status, 200)
            # The socket's file is still there, and nobody listens.
            self.assertTrue(self.panel.socket.exists())
            self.assert_no_answer(self.whoami())
            with self.panel.another_back_end():
                self.assertEqual(self.whoami().status, 200)

    def test_crashed_workers_are_replaced(self):
        self.panel.kill_back_end_workers()
        wait_for(lambda: self.whoami().status == 200)

    def test_an_endless_answer_stops_at_the_memory_limit(self):
        def endless(_):
            while True:
                yield b"x" * 65536

        with self.panel.back_end_away(), scripted_back_end(self.panel.socket, endless):
            self.assert_page(self.whoami(), 500, "The panel has failed.")


class LogTest(PanelTest):
    """Passwords and session ids stay out of every log."""

    def wait_for_log(self, text):
        wait_for(lambda: text in self.panel.logs()["second-backend.log"])

    @contextlib.contextmanager
    def slow_back_end(self, *options):
        """One that waits for its database, as for a long transaction."""
        with self.panel.back_end_away(), self.panel.another_back_end(*options):
            with contextlib.closing(self.panel.database()) as database:
                database.execute("begin exclusive")
                yield database

    def assert_not_logged(self, *secrets):
        for name, text in self.panel.logs().items():
            for secret in secrets:
                self.assertNotIn(secret, text, name)

    def test_of_ordinary_visits_holds_no_secret(self):
        session = self.panel.sign_in()
        self.panel.send_sign_in(password="a wrong one")
        self.panel.with_session(session, page="whoami")
        self.panel.send_form("change", session=session, token="wrong")
        with self.panel.back_end_away():
            self.panel.with_session(session, page="whoami")
        self.assertIn("cannot connect", self.panel.logs()["front.log"])
        self.assert_not_logged(self.panel.password, session, "wrong")

    def test_of_a_slow_request_holds_no_password(self):
        with self.slow_back_end("--harakiri", "1") as database:
            with concurrent.futures.ThreadPoolExecutor() as workers:
                answer = workers.submit(self.panel.send_sign_in)
                self.wait_for_log("HARAKIRI ON WORKER")
                database.execute("rollback")
            self.assertEqual(answer.result().status, 303)
        self.assert_not_logged(self.panel.password)

    def test_of_a_caller_that_does_not_wait_holds_no_password(self):
        variables = {
            "CONTENT_LENGTH": "0", "SCGI": "1", "REQUEST_METHOD": "GET", "REMOTE_ADDR": "127.0.0.1",
            "REQUEST_URI": f"/panel?page=signin&password={self.panel.password}",
            "QUERY_STRING": f"func=session.new&user=a&password={self.panel.password}&out=xml",
        }
        header = "".join(f"{name}\0{value}\0" for name, value in variables.items())
        with self.slow_back_end() as database:
            with socket.socket(socket.AF_UNIX) as caller:
                caller.connect(str(self.panel.socket))
                caller.sendall(f"{len(header)}:{header},".encode())
                time.sleep(0.5)
            database.execute("rollback")
            self.wait_for_log("write error")
        self.assert_not_logged(self.panel.password)


class ServeTest(unittest.TestCase):
    def test_a_panel_without_its_back_end_ends(self):
        panel = Panel()
        self.addCleanup(panel.stop)
        os.kill(panel.back_end_process(), signal.SIGKILL)
        self.assertEqual(panel.server.wait(30), 1)
        with self.assertRaises(ConnectionRefusedError):
            panel.request()

    def test_a_back_end_that_loses_a_signal_is_signalled_again(self):
        with tempfile.TemporaryDirectory(prefix="serve-") as folder:
            state = pathlib.Path(folder)
            fake = state / "uwsgi"
            fake.write_text(DEAF_BACK_END)
            fake.chmod(0o700)
            with subprocess.Popen(
                [PANEL / "serve", os.environ["FRONT"], state], stdout=subprocess.PIPE,
                env=dict(os.environ, PATH=f"{state}:{os.environ['PATH']}"),
            ) as server:
                self.assertTrue(server.stdout.readline())
                server.terminate()
                self.assertEqual(server.wait(30), 0)
            self.assertEqual((state / "signals").read_text(), "15" * 3)

    def test_panels_side_by_side_do_not_mix(self):
        panels = [Panel() for _ in range(2)]
        for panel in panels:
            self.addCleanup(panel.stop)
        for panel in panels:
            answer = panel.with_session(panel.sign_in(), page="sessions")
            self.assertEqual(answer.body.count("<tr><td>"), 1)
            self.assertIn(panel.user, answer.body)


if __name__ == "__main__":
    main()
