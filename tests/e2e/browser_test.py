"""A person visits the panel in a browser; asserted is what she sees."""

import contextlib
import http.server
import re
import sys
import threading
import time

from browser import CHROMIUM, DRIVER, Browser
from panel_server import PanelTest
from processes import wait_for
from selenium.webdriver.common.keys import Keys
from verdict import full, main


class BrowserTest(PanelTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.browser = Browser()
        cls.addClassCleanup(cls.browser.quit)

    def setUp(self):
        self.user = self.panel.user
        self.addCleanup(self.empty_home)
        self.addCleanup(self.browser.reset)

    def assert_sees(self, *patterns):
        """The page may still be on its way after a click."""
        end = time.monotonic() + 30
        while missing := self.missing(patterns):
            self.assertLess(time.monotonic(), end, f"{missing} not in: {self.seen}")
            time.sleep(0.02)

    def missing(self, patterns):
        self.seen = self.browser.visible_text()
        return [pattern for pattern in patterns if not re.search(pattern, self.seen)]

    def sign_in(self, password):
        self.open_sign_in(self.panel.url, password)

    def open_sign_in(self, url, password):
        self.browser.get(url)
        self.browser.type_into("#user", self.user)
        self.browser.type_into("#password", password)
        self.browser.click("button")

    def signed_in(self, page="whoami"):
        """As after a sign-in, on a page."""
        self.browser.get(self.panel.url.removesuffix("/panel") + "/panel.css")
        cookie = {"name": "panelses5", "value": self.panel.new_session(self.user)}
        self.browser.add_cookie({**cookie, "httpOnly": True, "sameSite": "Strict"})
        self.browser.get(f"{self.panel.url}?page={page}")

    def open_upload(self):
        self.signed_in("home")
        self.assert_sees("Files to upload")

    def choose(self, *files):
        """Files of these names and sizes."""
        paths = [self.panel.state / name for name, _ in files]
        for path, (_, size) in zip(paths, files):
            with path.open("wb") as file:
                file.truncate(size)
        self.browser.choose_files("#uploads", *paths)

    def focused(self):
        return self.browser.execute_script("return document.activeElement.textContent")

    def check(self, *names):
        for name in names:
            self.browser.click(f"input[value='{name}']")

    def do(self, action):
        self.browser.click(f"button[value={action}]")


class Visit(BrowserTest):
    def test_a_visitor_signs_in_looks_around_and_signs_out(self):
        self.sign_in(self.panel.password)
        self.assert_sees("Who am I", rf"Name\s+{self.user}", rf"Level\s+{self.panel.level}")
        self.assertEqual(self.browser.current_url, self.panel.url)
        self.assertNotIn("panelses5", self.browser.execute_script("return document.cookie"))
        cookie = self.browser.get_cookie("panelses5")
        self.assertEqual((cookie["httpOnly"], cookie["sameSite"]), (True, "Strict"))

        self.browser.click_link("Sessions")
        self.assert_sees(rf"{self.user} this session .* 127\.0\.0\.1")

        self.browser.click("nav button")
        self.assert_sees("Password")
        self.browser.get(self.panel.url + "?page=whoami")
        self.assert_sees("Please sign in first.")

        self.browser.add_cookie(cookie)
        self.browser.get(self.panel.url + "?page=whoami")
        self.assert_sees("You may not do this, or your session has ended.")
        self.browser.click_link("Sign in")
        self.assert_sees("Password")

    def test_several_files_are_uploaded(self):
        self.open_upload()
        self.assertEqual(self.browser.label("#uploads"), "Files to upload")
        self.assertFalse(self.browser.is_enabled("#send"))
        self.choose(("report.pdf", 3_000_000), ("a<b>.txt", 12))
        self.assert_sees("report.pdf, 2.9 MB", "a<b>.txt, 12 bytes", "Together: 2.9 MB")
        self.browser.click("#send")
        self.assert_sees(r"report\.pdf 3000000", r"a<b>\.txt 12")
        # By keyboard.
        self.choose(("report.pdf", 7))
        self.browser.execute_script("document.querySelector('#uploads').focus()")
        self.browser.press(Keys.TAB + Keys.ENTER)
        self.assert_sees("'report.pdf': this name is already in use.", r"report\.pdf 3000000")
        self.choose(("disk.img", 101 * 1024 * 1024))
        self.assert_sees("Together these are 101.0 MB, more than the limit of 100.0 MB")
        self.assertFalse(self.browser.is_enabled("#send"))

    def test_files_are_changed_with_and_without_scripts(self):
        """A new folder, a file in it, another name for it, and its end."""
        for scripts in (True, False):
            with self.subTest(scripts=scripts):
                if not scripts:
                    self.browser.enable_scripts(False)
                self.open_upload()
                self.change_files()

    def change_files(self):
        self.browser.type_into("#to", "papers")
        self.do("folder")
        self.assert_sees("papers folder")
        self.browser.click_link("papers")
        self.assert_sees("Up")
        self.choose(("notes.txt", 7))
        self.browser.click("#send")
        self.assert_sees("notes.txt 7")
        self.check("notes.txt")
        self.browser.type_into("#to", "kept.txt")
        self.do("rename")
        self.assert_sees("kept.txt 7")
        self.browser.click_link("Up")
        self.assert_sees("papers folder")
        self.check("papers")
        self.do("delete")
        self.assert_sees("'papers': Directory not empty.")
        (self.panel.home / "papers" / "kept.txt").unlink()
        self.browser.click_link("Home")
        self.assert_sees("papers folder")
        self.check("papers")
        self.do("delete")
        wait_for(lambda: not list(self.panel.home.iterdir()))

    def test_an_upload_shows_its_progress_and_can_be_cancelled(self):
        self.open_upload()
        self.browser.slow_down(500_000)
        self.choose(("backup.tar", 20_000_000))
        self.browser.click("#send")
        self.assert_sees(r"[1-9][.]\d MB of 19[.]1 MB", "Cancel")
        self.assertFalse(self.browser.is_enabled("#uploads"))
        shown = self.browser.execute_script("return document.querySelector('progress').value")
        self.assertGreater(shown, 0)
        # The button has the focus.
        self.browser.press(Keys.ENTER)
        self.assert_sees("Cancelled. Nothing was kept.")
        self.assertEqual(self.focused(), "Upload")
        self.assert_nothing_left()

    def test_another_site_cannot_use_the_session(self):
        self.signed_in()
        link = f'<a href="{self.panel.url}?page=whoami">Look at this</a>'
        with another_site(link) as port:
            self.browser.get(f"http://localhost:{port}/")
            self.browser.click_link("Look at this")
            self.assert_sees("Please sign in first.")
        self.browser.get(self.panel.url + "?page=whoami")
        self.assert_sees(rf"Name\s+{self.user}")


@full
class Detail(BrowserTest):
    def test_a_wrong_password_is_explained_beside_the_form(self):
        """Only the keyboard is used, and labels name the fields."""
        self.browser.get(self.panel.url)
        self.assertEqual(self.browser.label("#user"), "Name")
        self.assertEqual(self.browser.label("#password"), "Password")
        self.browser.press(self.user + Keys.TAB + "wrong" + Keys.ENTER)
        self.assert_sees("Name or password is wrong.", "Password")
        # The name is still there.
        self.browser.type_into("#password", self.panel.password)
        self.browser.press(Keys.ENTER)
        self.assert_sees(rf"Name\s+{self.user}")

    def test_several_files_are_deleted_at_once_as_far_as_they_can_be(self):
        for name in ("one", "two", "three"):
            (self.panel.home / name).touch()
        (self.panel.home / "full" / "inner").mkdir(parents=True)
        (self.panel.home / "notes.txt").write_text("Remember the milk.")
        (self.panel.home / "notes.txt").chmod(0o644)
        (self.panel.home / "link").symlink_to("full")
        self.open_upload()
        self.check("one", "three", "link", "full")
        self.do("delete")
        self.assert_sees("'full': Directory not empty.", "two 0", "full folder")
        self.assertNotRegex(self.browser.visible_text(), "one|three|link")
        self.browser.click_link("notes.txt")
        self.assert_sees("^Remember the milk.$")

    def drop_file(self, name, text):
        """Anywhere on the page. Whether the page has taken it."""
        return self.browser.execute_script(
            "const data = new DataTransfer();"
            f"data.items.add(new File([{text!r}], {name!r}));"
            "return !document.querySelector('header').dispatchEvent("
            "  new DragEvent('drop', {dataTransfer: data, bubbles: true, cancelable: true}));"
        )

    def test_dropped_files_of_one_name_are_not_mixed_up(self):
        self.open_upload()
        self.choose(("same.txt", 1))
        for text in ("one", "three"):
            self.assertTrue(self.drop_file("same.txt", text))
        self.assert_sees("same.txt, 1 byte\n", "same.txt, 3 bytes", "same.txt, 5 bytes")
        self.browser.click("#send")
        self.assert_sees("'same.txt': this name is already in use.")
        self.assertEqual(self.panel.kept(), {"same.txt": b"\0"})
        self.open_upload()
        self.drop_file("x;names.txt", "abc")
        self.browser.click("#send")
        self.assert_sees(r"x;names\.txt 3")

    def test_an_upload_after_the_session_has_ended_is_refused_readably(self):
        self.open_upload()
        self.choose(("notes.txt", 7))
        self.panel.execute("delete from session")
        self.browser.click("#send")
        self.assert_sees("You may not do this, or your session has ended.", "notes.txt, 7 bytes")

    def test_files_are_uploaded_without_scripts(self):
        self.browser.enable_scripts(False)
        self.open_upload()
        self.choose(("notes.txt", 7))
        self.browser.click("#send")
        self.assert_sees("notes.txt 7")
        # Not kept from being sent here, so the front end has to say it.
        self.choose(("disk.img", 101 * 1024 * 1024))
        self.browser.click("#send")
        self.assert_sees("Please send less at a time.")
        self.browser.click_link("Back to the panel")
        self.browser.click_link("Home")
        # The web server refuses this one by itself.
        self.choose(("disks.img", 1024**3))
        self.browser.click("#send")
        self.assert_sees("This is more than the panel accepts at once.")
        self.browser.click_link("Back to the files")
        self.assert_sees("Files to upload")

    def assert_cannot_sign_in(self, url, host):
        """By a form of another site, under a name that is not the visitor's."""
        items = {"user": self.user, "password": self.panel.password}
        inputs = "".join(f'<input name="{name}" value="{items[name]}">' for name in items)
        form = f'<form method="post" action="{url}?page=signin">{inputs}<button>Win</button></form>'
        with another_site(form) as port:
            self.browser.get(f"http://{host}:{port}/")
            self.browser.click("button")
            self.assert_sees("Another site has sent this request.")
        self.browser.get(url + "?page=whoami")
        self.assert_sees("Please sign in first.")

    def test_another_site_cannot_sign_a_visitor_in(self):
        self.assert_cannot_sign_in(self.panel.url, "localhost")

    def test_forms_work_where_the_browser_names_no_site(self):
        """Under plain HTTP it does so for this machine only."""
        url = self.panel.url.replace("127.0.0.1", "panel.test")
        self.open_sign_in(url, self.panel.password)
        self.assert_sees("Who am I")
        self.browser.click("nav button")
        self.assert_sees("Password")
        self.assert_cannot_sign_in(url, "other.test")

    def test_pages_fit_a_small_dark_screen(self):
        self.browser.set_window_size(500, 900)
        self.browser.prefer("dark")
        self.browser.get(self.panel.url)
        self.assertLess(self.brightness_of_the_page(), 100)
        self.signed_in()
        for page in ("Who am I", "Sessions", "Home"):
            self.browser.click_link(page)
            self.assert_sees(page)
            if page == "Home":
                long_name = "a-long-name-without-a-single-blank-" * 3 + ".tar.gz"
                self.choose((long_name, 123_456))
            overhang = "return document.scrollingElement.scrollWidth - innerWidth"
            self.assertLessEqual(self.browser.execute_script(overhang), 0)

    def brightness_of_the_page(self):
        background = "return getComputedStyle(document.body).backgroundColor"
        color = self.browser.execute_script(background)
        return max(int(part) for part in re.findall(r"\d+", color)[:3])


@contextlib.contextmanager
def another_site(markup):
    """A page with this markup, on a port of its own, which "with" gives."""

    class Handler(http.server.BaseHTTPRequestHandler):
        def do_GET(self):
            self.send_response(200)
            self.send_header("Content-Type", "text/html")
            self.end_headers()
            self.wfile.write(markup.encode())

        def log_message(self, *_):
            pass

    with http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler) as server:
        thread = threading.Thread(target=server.serve_forever, args=[0.02])
        thread.start()
        yield server.server_port
        server.shutdown()
        thread.join()


if __name__ == "__main__":
    if not (CHROMIUM and DRIVER):
        print("skipped: chromium or chromium-driver is not installed")
        sys.exit(77)
    main()
