"""The panel behind lighttpd and uWSGI, driven by a plain HTTP client."""

import contextlib
import html
import importlib
import os
import pathlib
import re
import secrets
import stat
import subprocess
import sys
import tempfile
import time
import unittest
import unittest.mock
import urllib.parse

from client import begin_post
from panel_server import PANEL, Panel, PanelTest, run_front
from verdict import main

sys.path.insert(0, str(PANEL))
backend = importlib.import_module("backend")


# What no name, password, session or token is.
ODD = ("\u00e9", b"\xff", b"\xed\xa0\x80", b"a\0b", "9" * 1000, "\ufffd", "\u0661", "'", "%", "&")


class VisitTest(PanelTest):
    def setUp(self):
        self.session = self.panel.new_session()

    def assert_sees_own_name(self, answer, *texts):
        self.assert_page(answer, 200, f'<b id="name">{self.panel.user}</b>', *texts)


class SignIn(VisitTest):
    def test_sets_a_cookie_that_nobody_can_guess(self):
        answer = self.panel.send_sign_in()
        self.assert_page(answer, 303)
        self.assertEqual(answer.headers["Location"], "/panel")
        name, *attributes = answer.headers["Set-Cookie"].split("; ")
        self.assertRegex(name, "^panelses5=[0-9a-f]{32}$")
        self.assertEqual(sorted(attributes), ["HttpOnly", "Path=/", "SameSite=Strict"])
        stored = b"".join(path.read_bytes() for path in self.panel.state.glob("panel.db*"))
        self.assertIn(self.panel.user.encode(), stored)
        for secret in (self.panel.password, name.partition("=")[2]):
            self.assertNotIn(secret.encode(), stored)

    def test_with_a_wrong_password_or_name_is_refused(self):
        wrong = self.panel.send_sign_in(password="no")
        self.assert_page(wrong, 403, "Name or password is wrong.", 'type="password"')
        self.assertNotIn("Set-Cookie", wrong.headers)
        unknown = self.panel.send_sign_in("nobody", "no")
        self.assert_page(unknown, 403)
        self.assertEqual(unknown.body.replace("nobody", self.panel.user), wrong.body)

    def test_takes_any_character_in_a_password(self):
        password = "a&b=c 100%25+1 \"<'\u00e9\u4e16 ;"
        self.panel.add_user("carol", 1, password)
        self.assertEqual(self.panel.send_sign_in("carol", password).status, 303)

    def test_of_a_slow_client_holds_no_process(self):
        """The web server collects a form before it starts the front end."""
        with begin_post(self.panel.address, "/panel?page=signin", {}, b"user=", 100):
            time.sleep(0.5)
            self.assertEqual(self.panel.front_processes(), [])


class Session(VisitTest):
    def test_is_taken_from_the_cookie_alone(self):
        level = f"<dd>{self.panel.level}</dd>"
        self.assert_sees_own_name(self.panel.with_session(self.session, auth="wrong"), level)
        self.assert_refused(self.panel.with_session(secrets.token_hex(16), page="whoami"))

    def test_ends_after_a_day_of_work(self):
        age = "update session set started = ?"
        self.panel.execute(age, int(time.time()) - 8 * 3600 + 60)
        self.assert_sees_own_name(self.panel.with_session(self.session))
        self.panel.execute("update session set started = started - 61")
        self.assert_refused(self.panel.with_session(self.session))

    def test_front_end_and_back_end_take_the_same_cookie(self):
        for cookie, status in (
            (f"other=1 panelses5={self.session}", 403),
            (f"panelses5=wrong; panelses5={self.session}", 200),
            (f"panelses5={self.session}; panelses5=wrong", 403),
            (f"filler={'x' * 20_000}; panelses5={self.session}", 200),
        ):
            answer = self.panel.request(headers={"Cookie": cookie}, page="whoami")
            self.assert_page(answer, status)


class ListOfSessions(VisitTest):
    def test_shows_no_session_id(self):
        other = self.panel.new_session()
        answer = self.panel.with_session(self.panel.sign_in(), page="sessions")
        self.assert_page(answer, 200, self.panel.user, "127.0.0.1", "this session")
        self.assertGreaterEqual(answer.body.count("<tr><td>"), 2)
        self.assertNotIn(other, answer.body)

    def pages_of_names(self, session):
        query = {"page": "sessions"}
        while query:
            answer = self.panel.with_session(session, **query)
            self.assert_page(answer, 200)
            yield re.findall("<tr><td>(.*?) <small>", answer.body)
            older = re.search(r'page=sessions&amp;from=(\d+)">Older<', answer.body)
            query = {"page": "sessions", "from": older.group(1)} if older else None

    def test_is_shown_by_the_hundred_with_the_newest_first(self):
        names = [f"user number {number}" for number in range(250)]
        now = int(time.time())
        rows = [(secrets.token_hex(32), name, "token", now, "192.0.2.7") for name in names]
        with contextlib.closing(self.panel.database()) as database:
            database.execute("begin")
            database.executemany("insert into session values (?, ?, ?, ?, ?)", rows)
            database.execute("commit")
        first, second, third, *more = self.pages_of_names(self.session)
        self.assertEqual((len(first), len(second), more), (100, 100, []))
        self.assertEqual((first + second + third)[:250], names[::-1])
        self.assertEqual(third[50], self.panel.user)

    def test_shows_ordinary_users_their_own_only(self):
        session = self.panel.new_session("bob", "")
        answer = self.panel.with_session(session, page="sessions")
        self.assert_page(answer, 200, "<td>bob ")
        self.assertNotIn(self.panel.user, answer.body)


class SignOut(VisitTest):
    def test_ends_the_session_whose_token_it_has(self):
        other = self.panel.new_session()
        for token in ("", "wrong", self.panel.token(other)):
            self.assert_refused(self.panel.sign_out(self.session, token))
        self.assert_sees_own_name(self.panel.with_session(self.session, page="whoami"))
        done = self.panel.sign_out(self.session, self.panel.token(self.session))
        self.assertEqual(done.status, 303)
        self.assertRegex(done.headers["Set-Cookie"], "^panelses5=; .*Max-Age=0")
        self.assert_refused(self.panel.with_session(self.session, page="whoami"))
        self.assert_sees_own_name(self.panel.with_session(other, page="whoami"))


class Request(VisitTest):
    def test_for_an_unknown_page_is_not_found(self):
        self.assert_page(self.panel.with_session(self.session, page="nonsense"), 404)
        for page in ("nonsense", "whoami", ""):
            answer = self.panel.request("POST", body="a=1", session=self.session, page=page)
            self.assert_page(answer, 404)
        for path in ("/panelx", "/panel/", "/panel/x", "/panel../front"):
            self.assertIn(self.panel.request(at=path).status, (403, 404), path)
        self.assertEqual(self.panel.request(at="/").headers["Location"], "/panel")
        self.assertEqual(self.panel.request(at="/panel.css").status, 200)

    def test_with_odd_text_anywhere_is_answered(self):
        for odd in ODD:
            self.assert_page(self.panel.sign_out(self.session, odd), 403)
            # Of these lighttpd refuses some by itself.
            cookie = b"panelses5=" + urllib.parse.unquote_to_bytes(urllib.parse.quote(odd))
            if b"\0" not in cookie:
                answer = run_front(self.panel.socket.parent, HTTP_COOKIE=cookie)
                self.assertIn("Status: 403 Forbidden", answer)
        self.assertNotIn("Traceback", self.panel.logs()["backend.log"])

    def test_with_markup_is_shown_as_text(self):
        name = "<script>alert(1)</script>\"'&"
        session = self.panel.new_session(name, "")
        answers = [self.panel.with_session(session, page=page) for page in ("whoami", "sessions")]
        answers.append(self.panel.send_sign_in(name, "wrong"))
        for answer in answers:
            self.assertIn(name, html.unescape(answer.body))
            self.assertNotIn("<script>", answer.body)

    def test_cannot_add_to_the_query_of_the_back_end(self):
        planted = self.panel.new_session("somebody else", "")
        for added in ("x&func=session.end", f"x&auth={planted}"):
            answer = self.panel.with_session(self.session, page="whoami", sfrom=added)
            self.assert_sees_own_name(answer)
        # Nor is the password blamed for it.
        answer = self.panel.send_sign_in(sfrom="x&func=whoami")
        self.assert_page(answer, 502)
        self.assertNotIn("Set-Cookie", answer.headers)

    def test_is_answered_with_headers_against_foreign_scripts_and_caches(self):
        for answer in (self.panel.request(), self.panel.request("POST")):
            policy = answer.headers["Content-Security-Policy"]
            self.assertTrue(policy.startswith("default-src 'none'; "), policy)
            self.assertNotIn("unsafe", policy)
            self.assertEqual(answer.headers["Cache-Control"], "no-store")
            self.assertEqual(answer.headers["Referrer-Policy"], "same-origin")


class BackEnd(unittest.TestCase):
    """Asked without a front end, and so for what a front end never asks."""

    def setUp(self):
        folder = self.enterContext(tempfile.TemporaryDirectory(prefix="back-end-"))
        self.file = pathlib.Path(folder) / "new" / "panel.db"
        self.enterContext(unittest.mock.patch.dict(os.environ, PANEL_DB=str(self.file)))

    def add_user(self, password, name="user"):
        with contextlib.closing(backend.connect()) as database:
            backend.add_user(database, password, name, 1)

    def ask(self, query, cookie=""):
        return backend.answer({"QUERY_STRING": query, "HTTP_COOKIE": cookie})

    def sign_in(self, password, name="user"):
        return self.ask(f"func=session.new&user={name}&password={password}")

    def sessions(self, count, password, name="user"):
        """Of a user who signs in so often."""
        answers = [self.sign_in(password, name) for _ in range(count)]
        return [re.search('id="(.*)"', answer).group(1) for answer in answers]

    def known(self, sessions):
        return ["<user " in self.ask(f"func=whoami&auth={session}") for session in sessions]

    def command(self, *arguments, password=b"password\n", umask=0o022):
        command = ["/usr/bin/python3", "-B", PANEL / "backend.py", *arguments]
        return subprocess.run(command, input=password, capture_output=True, umask=umask)

    def test_sees_the_cookies_of_the_front_end(self):
        """One that begins with a vertical tab or a form feed has another name."""
        self.add_user("password")
        (session,) = self.sessions(1, "password")
        for odd in ("\v", "\f", "\x85", "\xa0"):
            cookie = f"panelses5={session}; {odd}panelses5=planted"
            self.assertIn("<own ", self.ask("func=session.own", cookie), repr(odd))

    def test_keeps_the_twenty_newest_sessions_of_a_user(self):
        self.hash_quickly()
        self.add_user("password")
        self.add_user("password", "bystander")
        bystander = self.sessions(1, "password", "bystander")
        sessions = self.sessions(21, "password")
        self.assertEqual(self.known(sessions + bystander), [False] + 21 * [True])

    def test_ends_all_sessions_of_a_user_with_a_new_password(self):
        self.add_user("old")
        self.add_user("password", "bystander")
        sessions = self.sessions(2, "old") + self.sessions(1, "password", "bystander")
        self.add_user("new")
        self.assertEqual(self.known(sessions), [False, False, True])
        self.assertEqual(self.sign_in("old"), '<error type="access"/>')
        self.assertEqual(self.known(self.sessions(1, "new")), [True])

    def hash_quickly(self):
        def join(password, salt):
            return password.encode() + salt

        self.enterContext(unittest.mock.patch.object(backend, "hash_password", join))

    def test_refuses_odd_items(self):
        self.hash_quickly()
        self.add_user("password")
        (session,) = self.sessions(1, "password")
        cookie = "panelses5=" + session
        self.assertIn("<own ", self.ask("func=session.own", cookie))
        no_access, no_query, no_function = (
            f'<error type="{kind}"/>' for kind in ("access", "query", "function")
        )
        # Encoded and not, and what else no name, password, session or token is.
        encoded = "%C3%A9 %FF %00 %ED%A0%80 %EF%BF%BD %D9%A1 %25 %26 a%00b".split()
        for odd in ("", *encoded, "\xe9", "\udce9", "9" * 5000, "%", "'", "-1", "x", "1e3"):
            for query, refusal in (
                (f"func=session.end&token={odd}", no_access),
                (f"func=session.new&user={odd}&password=password", no_access),
                (f"func=session.new&user=user&password={odd}", no_access),
                (f"func=whoami&auth={odd}", no_access),
                (f"func={odd}", no_function),
                (f"func=session.own&{odd}=1&{odd}=2", no_query),
            ):
                self.assertEqual(self.ask(query, cookie), refusal, query)
            self.assertEqual(self.ask("func=whoami", "panelses5=" + odd), no_access)
            self.assertIn("<session ", self.ask(f"func=session.list&from={odd}", cookie), odd)
        self.assertNotIn("<session ", self.ask("func=session.list&from=2147483647", cookie))
        for query, refusal in (
            ("", no_function), ("func=session.end", no_access), ("func=session.new", no_access),
            ("func=session.new&user=user", no_access),
            ("func=session.end&token=a&token=b", no_query),
        ):
            self.assertEqual(self.ask(query, cookie), refusal, query)
        self.assertEqual(backend.answer({}), no_function)
        self.assertIn("<session ", self.ask("func=session.list", cookie))

    def test_signs_nobody_in_whose_password_changes_meanwhile(self):
        self.add_user("old")
        hash_password = backend.hash_password

        def slow(*arguments):
            with unittest.mock.patch.object(backend, "hash_password", hash_password):
                self.add_user("new")
            return hash_password(*arguments)

        with unittest.mock.patch.object(backend, "hash_password", slow):
            self.assertEqual(self.sign_in("old"), '<error type="access"/>')
        self.assertIn("<session ", self.sign_in("new"))

    def test_makes_private_files_whatever_the_umask(self):
        done = self.command("user", "1", umask=0)
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        with contextlib.closing(backend.connect()) as database:
            database.execute("begin")
            database.execute("insert into session values ('', 'user', '', 0, '')")
            files = self.file.parent.iterdir()
            modes = {path.name: stat.S_IMODE(path.stat().st_mode) for path in files}
        self.assertEqual(modes, {"panel.db": 0o600, "panel.db-journal": 0o600})
        self.assertEqual(stat.S_IMODE(self.file.parent.stat().st_mode), 0o700)

    def test_reports_what_is_wrong_with_a_new_user(self):
        usage = b"usage: echo PASSWORD | PANEL_DB=FILE python3 backend.py NAME LEVEL [ACCOUNT]\n"
        name = b"backend.py: a name must contain only printable characters\n"
        level = b"backend.py: a level must be a number from 0 to 999999999\n"
        for arguments, message in (
            (["user"], usage), (["user", "1", "account", "more"], usage),
            (["", "1"], name), ([b"\xff", "1"], name), (["user", "1", "a\x01"], name),
            (["user", "x"], level), (["user", "-1"], level), (["user", "9" * 30], level),
        ):
            done = self.command(*arguments)
            self.assertEqual((done.returncode, done.stderr), (1, message), arguments)
        done = self.command("user", "1", password=b"\xff\n")
        self.assertEqual(done.returncode, 1)
        self.assertRegex(done.stderr, b"^backend.py: .*can't decode byte 0xff.*\n$")


class EnvironmentTest(unittest.TestCase):
    """What the web server's configuration lets through to the front end."""

    def setUp(self):
        folder = self.enterContext(tempfile.TemporaryDirectory(prefix="environment-"))
        front = pathlib.Path(folder) / "front"
        front.write_text("#!/bin/sh\nprintf 'Content-Type: text/plain\\r\\n\\r\\n'\nenv\n")
        front.chmod(0o700)
        self.panel = Panel(front, PANEL_CONFINE="/files")
        self.addCleanup(self.panel.stop)

    def test_the_administrator_sets_up_the_front_end_and_headers_do_not(self):
        claims = ("Tov-Run-Dir", "Ld-Preload", "Nss-Wrapper-Passwd")
        headers = {
            **dict.fromkeys(claims, "/elsewhere"), "Panel-Confine": "/", "Panel-Pam": "1",
            "Proxy": "http://10.1.2.3/", "Tov-Log-Level": "9", "User-Agent": "an ordinary header",
        }  # fmt: skip
        lines = self.panel.request(headers=headers).body.splitlines()
        for line in (
            "HTTP_USER_AGENT=an ordinary header", f"TOV_RUN_DIR={self.panel.socket.parent}",
            "REMOTE_ADDR=127.0.0.1", f"NSS_WRAPPER_PASSWD={self.panel.accounts.users}",
            "PANEL_CONFINE=/files", "PANEL_PAM=",
        ):
            self.assertIn(line, lines)
        names = [line.partition("=")[0] for line in lines]
        self.assertEqual({"HTTP_PROXY", "TOV_LOG_LEVEL"} & set(names), set())
        claimed = [line for line in lines if line.endswith("=/elsewhere")]
        self.assertEqual(len(claimed), 3)
        self.assertTrue(all(line.startswith("HTTP_") for line in claimed), claimed)


if __name__ == "__main__":
    main()
