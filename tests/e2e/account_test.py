"""The panel as its user's system account: who it becomes, what it shows and
keeps then, and when it refuses."""

import html
import json
import os
import pathlib
import re
import signal
import stat
import tempfile
import unittest
import urllib.parse

from accounts import GID, IS_ROOT, UID, WRAPPERS
from panel_server import FORM, URLENCODED, PanelTest, field, file, form
from verdict import main

NOT_BECOME = "You may not do this, or your session has ended."
NOT_CONFINED = "The panel cannot be confined to your home folder"
needs_root = unittest.skipUnless(IS_ROOT, "needs root")


class AccountTest(PanelTest):
    made = 0

    def setUp(self):
        self.session = self.panel.new_session()
        self.addCleanup(self.empty_home)
        self.account, self.home = self.panel.account, self.panel.home
        self.front = self.panel.front

    def use_account(self, account):
        """From here on the visitor is another one, with this account."""
        AccountTest.made += 1
        self.session = self.panel.new_session(f"visitor {self.made}", account)
        self.account = account

    def add_account(self, home, **ids):
        """An account with this home; the visitor has it from here on."""
        self.use_account(f"account{self.made}")
        self.home = pathlib.Path(home)
        self.panel.accounts.add(self.account, home, **ids)

    def make_home(self, mode):
        """Of another account; the visitor has it from here on."""
        self.use_account(f"homed{self.made}")
        self.home = self.panel.accounts.make_home(self.account)
        self.home.chmod(mode)

    def page(self, **items):
        return self.panel.with_session(self.session, **items)

    def upload(self, *files, **items):
        body = form(field("token", self.panel.token(self.session)), *files)
        return self.panel.request("POST", FORM, body, session=self.session, page="upload", **items)

    def change(self, action, *names, to="", path="", token=None, **headers):
        """The form of a folder's page, filled in."""
        token = self.panel.token(self.session) if token is None else token
        items = [("token", token), ("action", action), ("to", to)]
        body = urllib.parse.urlencode([*items, *(("name", name) for name in names)])
        headers = {**URLENCODED, **headers}
        query = {"page": "change", "path": path}
        return self.panel.request("POST", headers, body, session=self.session, **query)

    def give(self, *paths):
        """To the account."""
        for path in paths:
            os.chown(path, UID, GID, follow_symlinks=False)

    def run_front(self, body=b"", status=0, **variables):
        """What a front end answers; what it logs is kept."""
        start = self.panel.start_front(self.session, body=body, front=self.front, **variables)
        with start as front:
            answer, errors = front.communicate(timeout=60)
        self.assertEqual(front.returncode, status, errors)
        self.errors = errors.decode()
        return html.unescape(answer.decode())

    def names(self, path=""):
        return set(self.listing(self.session, path))

    def assert_turned_away(self, status, text):
        self.assert_page(self.page(page="home"), status, text)
        self.assert_page(self.upload(file("a", b"1")), status, text)


class Home(AccountTest):
    def test_lists_names_with_sizes_or_kinds(self):
        """No link is followed, nothing opened, and names stay text."""
        name = "<script>alert('1')&amp;\""
        (self.home / "report.txt").write_bytes(b"x" * 1234)
        (self.home / "folder").mkdir()
        (self.home / ".hidden").touch()
        (self.home / name).touch()
        (self.home / "link").symlink_to("/etc/passwd")
        (self.home / "dangling").symlink_to("nowhere")
        os.mkfifo(self.home / "pipe")
        sizes = {"report.txt": "1234", ".hidden": "0", name: "0"}
        kinds = {"folder": "folder", "link": "link", "dangling": "link", "pipe": "special"}
        self.assertEqual(self.listing(self.session), {**sizes, **kinds})
        answer = self.page(page="home")
        self.assertNotIn("<script>", answer.body)
        self.assert_page(answer, 200, f'<b id="account">{self.account}</b>, user {UID}.')

    def test_with_very_many_files_shows_a_part(self):
        self.make_home(0o700)
        for number in range(1001):
            (self.home / str(number)).touch()
        names = self.names()
        self.assertEqual(len(names), 1000)
        self.assertEqual(self.change("delete", *names).status, 303)
        self.assertEqual(len(self.names()), 1)

    def test_is_sent_to_the_script_in_json(self):
        (self.home / 'a"\\\n.txt').write_bytes(b"123")
        accept = {"Accept": "application/json"}
        answer = self.panel.request(headers=accept, session=self.session, page="home")
        self.assertEqual(answer.headers["Content-Type"], "application/json")
        (entry,) = json.loads(answer.body)["entries"]
        self.assertEqual(entry, {"name": 'a"\\\n.txt', "kind": "file", "size": 3})

    @needs_root
    def test_is_read_with_the_rights_of_the_account(self):
        self.make_home(0o300)
        self.assertEqual(self.page(page="home").status, 403)


class Folder(AccountTest):
    def setUp(self):
        super().setUp()
        for path in (self.home / "a b", self.home / "a b" / "inner"):
            path.mkdir()
            self.give(path)
        (self.home / "a b" / "inner" / "file.txt").write_bytes(b"0123456789")
        self.give(self.home / "a b" / "inner" / "file.txt")

    def test_is_reached_by_links(self):
        answer = self.page(page="home")
        for name in ("a b", "inner"):
            (link,) = re.findall(f'<a href="([^"]*)">{name}</a>', answer.body)
            query = dict(urllib.parse.parse_qsl(html.unescape(link).partition("?")[2]))
            answer = self.page(**query)
        self.assert_page(answer, 200, "<h1>a b/inner</h1>", ">file.txt</a>", ">Up</a>")

    def test_outside_of_the_home_is_refused(self):
        outside = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory(prefix="outside-")))
        (outside / "secret").touch()
        outside.chmod(0o777)
        (self.home / "link").symlink_to(outside)
        (self.home / "a b" / "link").symlink_to(outside / "secret")
        for path, status in (
            ("..", 400), ("a b/..", 400), ("a b/../..", 400), ("/", 400), (str(outside), 400),
            (".", 400), ("a b//", 400), ("a b\0", 400), ("link", 404), ("link/secret", 404),
            ("a b/link", 404), ("none", 404),
        ):
            for page in ("home", "file"):
                answer = self.page(page=page, path=path)
                self.assertEqual(answer.status, status, (page, path))
            for action, names, to in (("folder", (), "x"), ("delete", ("secret",), "")):
                answer = self.change(action, *names, to=to, path=path)
                self.assertEqual(answer.status, status, (action, path))
        self.assertEqual([path.name for path in outside.iterdir()], ["secret"])

    def test_existing_files_stay_and_failures_are_named(self):
        (self.home / "there").write_bytes(b"before")
        there = "'there': this name is already in use. "
        none = "'none': No such file or directory. "
        for action, names, to, problem in (
            ("folder", (), "there", there),
            ("rename", ("a b",), "there", there),
            ("rename", ("none",), "none", none),
            ("delete", ("a b", "none"), "", "'a b': Directory not empty. " + none),
        ):
            self.assert_page(self.change(action, *names, to=to), 409, problem.strip())
            answer = self.change(action, *names, to=to, Accept="application/json")
            self.assertEqual((answer.status, json.loads(answer.body)), (409, {"problem": problem}))
        self.assertEqual((self.home / "there").read_bytes(), b"before")
        self.assertEqual(self.names(), {"a b", "there"})

    def test_forms_without_a_change_are_refused(self):
        for action, names, to in (
            ("folder", (), ""), ("folder", (), "a/b"), ("folder", (), ".."), ("folder", (), "a\0"),
            ("rename", (), "x"), ("rename", ("1", "2"), "x"), ("rename", ("a b",), "../x"),
            ("rename", ("../x",), "y"), ("delete", (), ""), ("delete", ("..",), ""),
            ("delete", ("a b/inner/file.txt",), ""), ("nonsense", ("a b",), ""),
        ):
            answer = self.change(action, *names, to=to)
            self.assertEqual(answer.status, 400, (action, names, to))
        self.assertEqual(self.names(), {"a b"})

    def test_is_changed_only_with_the_token(self):
        for token in ("", "wrong"):
            self.assert_refused(self.change("folder", to="new", token=token))
        self.assertEqual(self.names(), {"a b"})


class Download(AccountTest):
    def setUp(self):
        super().setUp()
        for name in ("file.txt", "page.html"):
            (self.home / name).write_bytes(b"0123456789")
            self.give(self.home / name)

    def get(self, path, method="GET", **headers):
        return self.panel.request(method, headers, session=self.session, page="file", path=path)

    def test_is_shown_without_running_scripts(self):
        for path, kind, disposition in (
            ("file.txt", "text/plain; charset=utf-8", None),
            ("page.html", "application/octet-stream", 'attachment; filename="page.html"'),
        ):
            answer = self.get(path)
            self.assertEqual((answer.status, answer.content), (200, b"0123456789"))
            self.assertEqual(answer.headers["Content-Type"], kind)
            self.assertEqual(answer.headers["Content-Disposition"], disposition)
            self.assertEqual(answer.headers["X-Content-Type-Options"], "nosniff")
            self.assertIn("sandbox", answer.headers["Content-Security-Policy"])

    def test_of_a_range_or_an_unchanged_file_is_short(self):
        answer = self.get("file.txt", Range="bytes=2-4")
        self.assertEqual((answer.status, answer.content), (206, b"234"))
        tag = answer.headers["ETag"]
        self.assertEqual(self.get("file.txt", **{"If-None-Match": tag}).status, 304)

    def test_of_anything_but_a_file_is_not_found(self):
        os.mkfifo(self.home / "pipe")
        (self.home / "folder").mkdir()
        self.give(self.home / "pipe", self.home / "folder")
        for path, status in (("pipe", 404), ("folder", 404), ("none", 404), ("", 400)):
            self.assertEqual(self.get(path).status, status, path)

    @needs_root
    def test_of_an_unreadable_file_is_forbidden(self):
        (self.home / "file.txt").chmod(0)
        self.assertEqual(self.get("file.txt").status, 403)


class Account(AccountTest):
    def test_is_needed_for_files(self):
        self.use_account("")
        self.assert_turned_away(403, "Your user has no system account.")
        answer = self.page(page="home")
        self.assertIn('<a href="/panel">Back to the panel</a>', answer.body)
        self.assertEqual(self.page(page="whoami").status, 200)

    def test_of_root_or_without_a_home_is_refused(self):
        """Root by any name is one."""
        self.panel.accounts.add("root", "/root", uid=0, gid=0)
        for account in ("unheard-of", "root"):
            self.use_account(account)
            self.assert_turned_away(403, NOT_BECOME)
        for home, ids in (("/", {"uid": 0, "gid": 0}), ("/nonexistent", {})):
            self.add_account(home, **ids)
            self.assert_turned_away(403, NOT_BECOME)
        self.assertNotIn("nonexistent", self.page(page="home").body)


class FailedSwitch(AccountTest):
    def test_shows_no_file(self):
        wrappers = f"{os.environ['SWITCH_FAULTS']} {WRAPPERS}"
        self.front = self.panel.accounts.front(os.environ["FRONT"], wrappers)
        (self.home / "report.txt").touch()
        self.assertIn("report.txt", self.run_front())
        answer = self.run_front(FAILING_CALLS=" setuid ")
        self.assertIn("Status: 403 ", answer)
        self.assertIn(NOT_BECOME, answer)
        self.assertNotIn("report.txt", answer)
        self.assertNotEqual(self.errors, "")
        if IS_ROOT:  # Rights of root that would stay end the process.
            answer = self.run_front(status=-signal.SIGABRT, FAILING_CALLS=" setgid ")
            self.assertEqual(answer, "")


class Upload(AccountTest):
    def setUp(self):
        super().setUp()
        self.addCleanup(self.assert_nothing_left)

    def test_belongs_to_the_account(self):
        self.assertEqual(self.upload(file("own.txt", b"content")).status, 303)
        status = (self.home / "own.txt").stat()
        self.assertEqual((status.st_uid, status.st_gid, status.st_nlink), (UID, GID, 1))
        self.assertEqual(stat.S_IMODE(status.st_mode), 0o600)
        self.assertEqual((self.home / "own.txt").read_bytes(), b"content")
        self.assertEqual(self.listing(self.session), {"own.txt": "7"})

    def test_replaces_no_file(self):
        outside = self.panel.state / "outside"
        (self.home / "file").write_bytes(b"before")
        (self.home / "dangling").symlink_to(outside)
        (self.home / "directory").mkdir()
        names = ("file", "dangling", "directory")
        answer = self.upload(file("new", b"new"), *(file(name, b"new") for name in names))
        there = "".join(f"'{name}': this name is already in use. " for name in names)
        self.assert_page(answer, 409, there.strip())
        self.assertNotIn("zantemp", answer.body)
        self.assertEqual(self.names(), {"new", *names})
        for path, content in (("file", b"before"), ("new", b"new")):
            self.assertEqual((self.home / path).read_bytes(), content)
        self.assertTrue((self.home / "dangling").is_symlink())
        self.assertFalse(outside.exists())
        self.assertEqual(list((self.home / "directory").iterdir()), [])

    def test_stays_in_the_home_whatever_its_name(self):
        unchanged = ("-rf", "Жук 世.txt", "<b>bold<|b>.txt", "x" * 255)
        names = dict(zip(unchanged, unchanged)) | {
            "../../etc/passwd": "passwd", "C:\\Users\\me\\letter.doc": "letter.doc",
            ".profile": "_profile", "..": "_.", "/tmp/.": "_",
            "\x1b[31mred\x7f": "_[31mred_", "tab\there": "tab_here",
        }
        beside = set(self.home.parent.iterdir())
        answer = self.upload(*(file(name, name.encode()) for name in names))
        self.assertEqual(answer.status, 303, answer.body)
        self.assertEqual(self.names(), set(names.values()))
        for sent, name in names.items():
            self.assertEqual((self.home / name).read_bytes(), sent.encode())
        self.assertEqual(set(self.home.parent.iterdir()), beside)

    def test_of_a_bad_or_repeated_name_is_refused(self):
        same = (file("a/same", b"first"), file("b/same", b"second"))
        self.assertEqual(self.upload(*same).status, 409)
        self.assertEqual((self.home / "same").read_bytes(), b"first")
        names = {"a/": "it has no name", "y" * 256: "File name too long"}
        answer = self.upload(*(file(name, b"1") for name in names))
        problems = "".join(f"'{name}': {reason}. " for name, reason in names.items())
        self.assert_page(answer, 409, problems.strip())
        self.assertEqual(self.names(), {"same"})

    @needs_root
    def test_where_the_account_may_not_write_is_refused(self):
        self.make_home(0o500)
        answer = self.upload(file("a", b"1"))
        self.assertEqual(answer.status, 507)
        self.assertEqual(list(self.home.iterdir()), [])


class ConfinementTest(AccountTest):
    def setUp(self):
        super().setUp()
        self.addCleanup(self.assert_nothing_left)

    def confined(self, folder="/", *files):
        body = form(field("token", self.panel.token(self.session)), *files) if files else b""
        return self.run_front(PANEL_CONFINE=folder, body=body)

    def assert_not_confined(self, home=None):
        if home is not None:
            self.add_account(home)
        for files in ((), (file("a", b"1"),)):
            answer = self.confined("/", *files)
            self.assertIn("Status: 500 ", answer)
            self.assertIn(NOT_CONFINED, answer)


class Confinement(ConfinementTest):
    """What comes before it is the same for everyone; to confine itself, the
    front end needs root."""

    def test_is_refused_unless_root_owns_the_whole_path_of_the_home(self):
        self.assert_not_confined()
        below_tmp = self.enterContext(tempfile.TemporaryDirectory(dir="/tmp", prefix="jail-"))
        os.chmod(below_tmp, 0o755)
        # This is there: the front end runs in the folder above its program's.
        relative = pathlib.Path(os.environ["FRONT"]).parent.name
        for home in (below_tmp, relative, "/etc/passwd", "/nonexistent"):
            with self.subTest(home):
                self.assert_not_confined(home)

    def test_is_tried_for_a_home_of_root(self):
        """So the folders on the way to it have been found in order."""
        self.add_account("/usr")
        self.assertIn("Seen by" if IS_ROOT else NOT_BECOME, self.confined())
        if not IS_ROOT:
            self.assertIn("failed to chroot to users home folder", self.errors)


@needs_root


class Jail(ConfinementTest):
    """A home that belongs to root all the way, with a folder of the account."""

    def setUp(self):
        super().setUp()
        # Below /tmp all may write, and in some containers below /run.
        place = next(each for each in ("/run", "/var/lib") if not os.stat(each).st_mode & 0o022)
        folder = self.enterContext(tempfile.TemporaryDirectory(dir=place, prefix="jail-"))
        self.jail = pathlib.Path(folder)
        self.jail.chmod(0o755)
        (self.jail / "home").mkdir(mode=0o755)
        (self.jail / "home" / "files").mkdir()
        os.chown(self.jail / "home" / "files", UID, GID)
        self.add_account(self.jail / "home")

    def test_is_entered(self):
        answer = self.confined()
        self.assertIn(">files</a></td><td>folder</td></tr>", answer)
        self.assertIn(f"</b>, user {UID}.", answer)
        (self.home / "files" / "report.txt").write_bytes(b"123")
        for folder in ("/files", "files", "/../../../files"):
            self.assertIn(">report.txt</a></td><td>3</td></tr>", self.confined(folder))

    def test_keeps_uploads_in_the_account_s_folder(self):
        self.assertIn("Status: 507 ", self.confined("/", file("a.txt", b"content")))
        self.assertIn("Status: 303 ", self.confined("/files", file("a.txt", b"content")))
        kept = self.home / "files" / "a.txt"
        self.assertEqual(kept.read_bytes(), b"content")
        self.assertEqual((kept.stat().st_uid, kept.stat().st_gid), (UID, GID))
        self.assertEqual(list(self.home.iterdir()), [kept.parent])

    def test_is_refused_when_others_may_write_or_own_a_folder(self):
        for folder in (self.jail, self.home):
            for owner, mode in ((0, 0o775), (0, 0o757), (0, 0o1777), (UID, 0o755)):
                with self.subTest(folder.name, owner=owner, mode=mode):
                    os.chown(folder, owner, 0)
                    folder.chmod(mode)
                    self.assert_not_confined()
            os.chown(folder, 0, 0)
            folder.chmod(0o755)
        os.chown(self.home, 0, GID)
        self.assertIn("files", self.confined())

    def test_is_refused_through_a_link(self):
        (self.jail / "link").symlink_to(self.jail / "home")
        for home in ("link", "link/", "link/files", "link/../home"):
            self.assert_not_confined(f"{self.jail}/{home}")


class Session(AccountTest):
    """The session of PAM, which is run before the account is the process."""

    def setUp(self):
        super().setUp()
        folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory(prefix="pam-")))
        self.opened = folder / "opened"
        services = folder / "services"
        services.mkdir()
        module = f"session required pam_exec.so seteuid /usr/bin/touch {self.opened}\n"
        (services / "login").write_text(module)
        self.front = self.panel.accounts.front(
            os.environ["FRONT"], "libpam_wrapper.so " + WRAPPERS,
            PAM_WRAPPER=1, PAM_WRAPPER_SERVICE_DIR=services,
        )

    def test_is_opened_when_configured(self):
        for pam, opened in ((None, False), ("", False), ("1", True)):
            settings = {} if pam is None else {"PANEL_PAM": pam}
            self.assertIn("Seen by", self.run_front(**settings))
            self.assertEqual(self.opened.exists(), opened, self.errors)


if __name__ == "__main__":
    main()
