"""The panel behind lighttpd and uWSGI, driven by a plain HTTP client."""

import html
import secrets
import unittest

from panel_server import Panel, wait_for


class PanelTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.panel = Panel()

    @classmethod
    def tearDownClass(cls):
        cls.panel.stop()

    def assert_page(self, answer, status, *texts):
        self.assertEqual(answer.status, status, answer.body)
        for text in texts:
            self.assertIn(text, answer.body)

    def test_stranger_is_asked_to_sign_in(self):
        self.assert_page(self.panel.request(), 200, 'type="password"')

    def test_wrong_password_is_refused(self):
        answer = self.panel.request(page="signin", user="alice", password="no")
        self.assert_page(answer, 403, "Name or password is wrong.")
        self.assertNotIn("Set-Cookie", answer.headers)

    def test_unknown_user_gets_the_same_answer(self):
        unknown = self.panel.request(page="signin", user="nobody", password="no")
        wrong = self.panel.request(page="signin", user="alice", password="no")
        self.assertEqual((unknown.status, unknown.body), (wrong.status, wrong.body))

    def test_sign_in_sets_the_cookie_and_hides_the_password(self):
        answer = self.panel.request(page="signin", user="alice", password=self.panel.password)
        self.assertEqual(answer.status, 303)
        self.assertEqual(answer.headers["Location"], "/panel")
        name, *attributes = answer.headers["Set-Cookie"].split("; ")
        self.assertTrue(name.startswith("panelses5="))
        self.assertEqual(sorted(attributes), ["HttpOnly", "Path=/", "SameSite=Strict"])

    def test_session_in_the_cookie(self):
        session = self.panel.sign_in()
        answer = self.panel.with_session(session, page="whoami")
        self.assert_page(answer, 200, '<b id="name">alice</b>', "<dd>7</dd>", "the cookie")

    def test_session_in_the_parameters(self):
        session = self.panel.sign_in()
        answer = self.panel.request(page="whoami", auth=session)
        self.assert_page(answer, 200, '<b id="name">alice</b>', "the parameters")
        self.assertIn("&amp;auth=" + session, answer.body)

    def test_cookie_goes_before_parameters(self):
        session = self.panel.sign_in()
        answer = self.panel.with_session(session, page="whoami", auth="wrong")
        self.assert_page(answer, 200, "the cookie")

    def test_list_of_sessions_shows_no_session_id(self):
        first = self.panel.sign_in()
        second = self.panel.sign_in()
        answer = self.panel.with_session(second, page="sessions")
        self.assert_page(answer, 200, "<td>alice</td>", "127.0.0.1", "this one")
        self.assertNotIn(first, answer.body)
        self.assertNotIn(second, answer.body)

    def test_ordinary_user_sees_only_own_sessions(self):
        self.panel.sign_in()
        self.panel.add_user("bob", 1, "bobs password")
        session = self.panel.sign_in("bob", "bobs password")
        answer = self.panel.with_session(session, page="sessions")
        self.assert_page(answer, 200, "<td>bob</td>")
        self.assertNotIn("<td>alice</td>", answer.body)

    def test_sign_out_ends_the_session_only_with_its_token(self):
        session = self.panel.sign_in()
        refused = self.panel.with_session(session, page="signout", token="wrong")
        self.assert_page(refused, 403)
        page = self.panel.with_session(session, page="whoami")
        token = page.body.split("token=")[1].split('"')[0]
        done = self.panel.with_session(session, page="signout", token=token)
        self.assertEqual(done.status, 303)
        self.assertIn("Max-Age=0", done.headers["Set-Cookie"])
        after = self.panel.with_session(session, page="whoami")
        self.assert_page(after, 403, "You do not authorized for this operation")

    def test_no_session_at_all(self):
        self.assert_page(self.panel.request(page="whoami"), 401, "Please sign in first.")

    def test_unknown_session_is_refused(self):
        answer = self.panel.with_session("made-up", page="whoami")
        self.assert_page(answer, 403, "You do not authorized for this operation")

    def test_unknown_page(self):
        session = self.panel.sign_in()
        self.assert_page(self.panel.with_session(session, page="nonsense"), 404)

    def test_other_methods_are_refused_by_name(self):
        for method in ("POST", "PUT", "DELETE"):
            answer = self.panel.request(method, body="a=1")
            self.assertEqual(answer.status, 405)
            self.assertIn(f"bad request method '{method}'", html.unescape(answer.body))

    def test_markup_from_outside_stays_text(self):
        name = "<script>alert(1)</script>\"'&"
        self.panel.add_user(name, 9, "x")
        session = self.panel.sign_in(name, "x")
        for page in ("whoami", "sessions"):
            answer = self.panel.with_session(session, page=page)
            self.assertIn(name, html.unescape(answer.body))
            self.assertNotIn("<script", answer.body)
        answer = self.panel.request(page="whoami", auth='"><script>')
        self.assertNotIn("<script", answer.body)

    def test_parameter_that_injects_a_second_function_is_refused(self):
        session = self.panel.sign_in()
        answer = self.panel.with_session(
            session, page="whoami", sfrom="x&func=session.end"
        )
        self.assert_page(answer, 502, "unknown authorization error")
        self.assert_page(self.panel.with_session(session, page="whoami"), 200)

    def test_parameter_that_injects_another_session_is_refused(self):
        own = self.panel.sign_in()
        planted = self.panel.sign_in()
        answer = self.panel.with_session(own, page="whoami", sfrom=f"x&auth={planted}")
        self.assert_page(answer, 502, "unknown authorization error")

    def test_back_end_takes_the_cookie_that_the_front_end_takes(self):
        session = self.panel.sign_in()
        for cookie, status in (
            (f"other=1 panelses5={session}", 401),
            (f"panelses5=wrong; panelses5={session}", 200),
            (f"panelses5={session}; panelses5=wrong", 403),
        ):
            answer = self.panel.request(headers={"Cookie": cookie}, page="whoami")
            self.assertEqual(answer.status, status, cookie)

    def test_large_cookies_reach_the_back_end(self):
        session = self.panel.sign_in()
        for size in (5_000, 20_000):
            headers = {"Cookie": f"filler={'x' * size}; panelses5={session}"}
            answer = self.panel.request(headers=headers, page="whoami")
            self.assert_page(answer, 200, "alice")

    def test_claimed_addresses_and_proxies_do_not_count(self):
        session = self.panel.sign_in()
        headers = {
            "Cookie": f"panelses5={session}",
            "X-Forwarded-For": "10.1.2.3",
            "X_Forwarded_For": "10.1.2.3",
            "Proxy": "http://10.1.2.3/",
        }
        answer = self.panel.request(headers=headers, page="sessions")
        self.assert_page(answer, 200, "127.0.0.1")
        self.assertNotIn("10.1.2.3", answer.body)

    def test_every_page_forbids_scripts_and_storing(self):
        for answer in (self.panel.request(), self.panel.request(page="whoami")):
            self.assertIn("default-src 'none'", answer.headers["Content-Security-Policy"])
            self.assertEqual(answer.headers["Cache-Control"], "no-store")
            self.assertEqual(answer.headers["Referrer-Policy"], "no-referrer")

    def test_back_end_that_is_away_is_said_so(self):
        session = self.panel.sign_in()
        hidden = self.panel.hide_back_end()
        try:
            answer = self.panel.with_session(session, page="whoami")
        finally:
            self.panel.show_back_end(hidden)
        self.assert_page(answer, 502, "cannot connect to the back end", "try again")
        self.assert_page(self.panel.with_session(session, page="whoami"), 200)

    def test_back_end_that_crashes_comes_back(self):
        session = self.panel.sign_in()
        self.panel.kill_back_end_workers()
        wait_for(lambda: self.panel.with_session(session, page="whoami").status == 200)

    def test_no_secret_in_any_log(self):
        wrong = secrets.token_hex(8)
        self.panel.request(page="signin", user="alice", password=wrong)
        session = self.panel.sign_in()
        self.panel.request(page="whoami", auth=session)
        self.panel.request("POST", page="whoami", auth=session)
        logs = self.panel.logs()
        self.assertIn("lighttpd.log", logs)
        for name, text in logs.items():
            for secret in (wrong, session, self.panel.password):
                self.assertNotIn(secret, text, name)


if __name__ == "__main__":
    unittest.main()
