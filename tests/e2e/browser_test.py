"""A person visits the panel in a browser; asserted is what she sees."""

import re
import sys
import time
import unittest

from browser import CHROMIUM, DRIVER, Browser
from panel_server import Panel


class BrowserTest(unittest.TestCase):
    def setUp(self):
        self.panel = Panel(user="alice", level=7)
        self.addCleanup(self.panel.stop)
        self.browser = Browser()
        self.addCleanup(self.browser.close)

    def assert_sees(self, *patterns):
        """The page may still be on its way after a click."""
        end = time.monotonic() + 30
        while True:
            text = self.browser.visible_text()
            missing = [pattern for pattern in patterns if not re.search(pattern, text)]
            if not missing:
                return
            self.assertLess(time.monotonic(), end, f"{missing} not in: {text}")
            time.sleep(0.1)

    def sign_in(self, password):
        self.browser.open(self.panel.url)
        self.browser.type_into("#user", "alice")
        self.browser.type_into("#password", password)
        self.browser.screenshot("sign-in")
        self.browser.click("button")

    def test_a_whole_visit(self):
        self.sign_in(self.panel.password)
        self.assert_sees("Who am I", r"Name\s+alice", r"Level\s+7")
        self.assert_sees(r"Session found in\s+the cookie")
        self.browser.screenshot("who-am-i")
        self.assertEqual(self.browser.url(), self.panel.url)

        self.browser.click_link("Sessions")
        self.assert_sees(r"alice .* 127\.0\.0\.1 this one")
        self.browser.screenshot("sessions")

        self.browser.click_link("Sign out")
        self.assert_sees("Password")
        self.browser.open(self.panel.url + "?page=whoami")
        self.assert_sees("Please sign in first.")
        self.browser.screenshot("signed-out")

    def test_a_wrong_password_is_explained_beside_the_form(self):
        self.sign_in(self.panel.password + "x")
        self.assert_sees("Name or password is wrong.", "Password")
        self.browser.screenshot("wrong-password")

    def test_scripts_cannot_read_the_session(self):
        self.sign_in(self.panel.password)
        self.assert_sees("Who am I")
        cookie = self.browser.run("return document.cookie")
        self.assertNotIn("panelses5", cookie)

    def test_the_service_being_away_is_readable(self):
        self.sign_in(self.panel.password)
        self.assert_sees("Who am I")
        hidden = self.panel.hide_back_end()
        self.browser.open(self.panel.url)
        self.assert_sees("Bad Gateway", "Please try again in a minute.")
        self.browser.screenshot("service-away")
        self.panel.show_back_end(hidden)


if __name__ == "__main__":
    if not (CHROMIUM and DRIVER):
        print("skipped: chromium or chromium-driver is not installed")
        sys.exit(77)
    unittest.main()
