"""A person visits the panel in a browser; asserted is what she sees."""

import sys
import unittest

from browser import CHROMIUM, DRIVER, Browser
from panel_server import Panel


class BrowserTest(unittest.TestCase):
    def setUp(self):
        self.panel = Panel(user="alice", level=7)
        self.addCleanup(self.panel.stop)
        self.browser = Browser()
        self.addCleanup(self.browser.close)

    def sign_in(self, password):
        self.browser.open(self.panel.url)
        self.browser.type_into("#user", "alice")
        self.browser.type_into("#password", password)
        self.browser.screenshot("sign-in")
        self.browser.click("button")

    def test_a_whole_visit(self):
        self.sign_in(self.panel.password)
        self.assertEqual(self.browser.url(), self.panel.url)
        text = self.browser.visible_text()
        self.browser.screenshot("who-am-i")
        self.assertIn("Who am I", text)
        self.assertRegex(text, r"Name\s+alice")
        self.assertRegex(text, r"Level\s+7")
        self.assertRegex(text, r"Session found in\s+the cookie")

        self.browser.click_link("Sessions")
        text = self.browser.visible_text()
        self.browser.screenshot("sessions")
        self.assertRegex(text, r"alice .* 127\.0\.0\.1 this one")

        self.browser.click_link("Sign out")
        self.assertIn("Password", self.browser.visible_text())
        self.browser.open(self.panel.url + "?page=whoami")
        self.browser.screenshot("signed-out")
        self.assertIn("Please sign in first.", self.browser.visible_text())

    def test_a_wrong_password_is_explained_beside_the_form(self):
        self.sign_in(self.panel.password + "x")
        text = self.browser.visible_text()
        self.browser.screenshot("wrong-password")
        self.assertIn("Name or password is wrong.", text)
        self.assertIn("Password", text)

    def test_scripts_cannot_read_the_session(self):
        self.sign_in(self.panel.password)
        cookie = self.browser._call(
            "POST", "/execute/sync", {"script": "return document.cookie", "args": []}
        )
        self.assertNotIn("panelses5", cookie)

    def test_the_service_being_away_is_readable(self):
        self.sign_in(self.panel.password)
        hidden = self.panel.hide_back_end()
        self.browser.open(self.panel.url)
        text = self.browser.visible_text()
        self.browser.screenshot("service-away")
        self.panel.show_back_end(hidden)
        self.assertIn("Bad Gateway", text)
        self.assertIn("Please try again in a minute.", text)


if __name__ == "__main__":
    if not (CHROMIUM and DRIVER):
        print("skipped: chromium or chromium-driver is not installed")
        sys.exit(77)
    unittest.main()
