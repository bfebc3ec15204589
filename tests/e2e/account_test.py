"""The panel as its user's system account: who it becomes, what it shows and
keeps then, and when it refuses."""

import array
import contextlib
import ctypes
import fcntl
import html
import os
import pathlib
import shutil
import socket
import stat
import tempfile
import termios
import unittest

from accounts import FURTHER_GROUP, GID, IS_ROOT, NAMES_AND_IDS, NAMES_ONLY, UID
from panel_server import FORM, PanelTest, field, file, form
from processes import wait_for
from verdict import main

WRAPPERS = NAMES_ONLY if IS_ROOT else NAMES_AND_IDS
NOT_BECOME = "The panel could not become your account."
NOT_CONFINED = "The panel cannot be confined to your home folder"
PIDFD_GETFD = 438  # Python has no function for it.
needs_root = unittest.skipUnless(IS_ROOT, "needs root")


class AccountTest(PanelTest):
    made = 0

    def setUp(self):
        self.session = self.panel.new_session(self.panel.user)
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

    def page(self, **items):
        return self.panel.with_session(self.session, **items)

    def upload(self, *files):
        parts = field("token", self.panel.token(self.session)), *files
        headers = {**FORM, "Cookie": f"panelses5={self.session}"}
        return self.panel.post("upload", form(*parts), headers)

    def run_front(self, *prefix, body=b"", identity=(), **variables):
        """What a front end answers; what it logs is kept."""
        with self.panel.start_front(
            self.session, *prefix, body=body, front=self.front, options=identity, **variables
        ) as front:
            answer, errors = front.communicate(timeout=60)
        self.assertEqual(front.returncode, 0, errors)
        self.errors = errors.decode()
        return html.unescape(answer.decode())

    def listing(self):
        """Of the home page: a size or a kind by name."""
        answer = self.page(page="home")
        self.assert_page(answer, 200)
        return dict(self.rows(answer))

    def kept(self, answer):
        """Of an upload's page: what has become of each file, by its name."""
        return {sent: name for sent, name, _ in self.rows(answer)}

    def assert_nothing_left(self):
        super().assert_nothing_left()
        if self.home.exists():
            self.assertEqual(list(self.home.glob("zantemp*")), [])

    def assert_turned_away(self, status, text):
        """The home page, and an upload before any of it is stored."""
        self.assert_page(self.page(page="home"), status, text)
        with self.spool_unused():
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
        self.assertEqual(self.listing(), {**sizes, **kinds})
        self.assertNotIn("<script", self.page(page="home").body)

    def test_of_very_many_files_shows_a_part_and_says_so(self):
        self.assertNotIn("And more.", self.page(page="home").body)
        self.use_account("many")
        home = self.panel.accounts.make_home("many")
        for number in range(1000):
            (home / str(number)).touch()
        self.assertEqual(len(self.listing()), 1000)
        self.assertNotIn("And more.", self.page(page="home").body)
        (home / "one more").touch()
        self.assertEqual(len(self.listing()), 1000)
        self.assertIn("And more.", self.page(page="home").body)

    def test_tells_whose_it_is_wherever_the_session_is_from(self):
        for answer in (
            self.page(page="home"),
            self.panel.request(page="home", auth=self.session),
        ):
            self.assert_page(answer, 200, f'<b id="account">{self.account}</b>, user {UID}.')

    @needs_root
    def test_is_read_with_the_rights_of_the_account(self):
        self.use_account("unreadable")
        self.panel.accounts.make_home("unreadable").chmod(0o300)
        self.assertEqual(self.page(page="home").status, 500)

    def test_that_is_not_there(self):
        self.add_account("/nonexistent")
        self.assert_page(self.page(page="home"), 500, NOT_BECOME)
        self.assertNotIn("nonexistent", self.page(page="home").body)
        self.assert_page(self.upload(file("a", b"1")), 500, NOT_BECOME)
        self.assert_nothing_left()


class Refused(AccountTest):
    def test_user_without_an_account(self):
        self.use_account("")
        self.assert_turned_away(403, "Your user has no system account.")

    def test_account_that_does_not_exist(self):
        self.use_account("unheard-of")
        self.assert_turned_away(500, "Your system account does not exist.")

    def test_root_by_any_name(self):
        self.add_account("/", uid=0, gid=0)
        self.assert_turned_away(403, "The panel does not become root.")
        self.panel.accounts.add("root", "/root", uid=0, gid=0)
        self.use_account("root")
        self.assert_turned_away(403, "The panel does not become root.")

    def test_page_stays_usable(self):
        self.use_account("")
        answer = self.page(page="home")
        self.assertIn('<a href="/panel">Back to the panel</a>', answer.body)
        self.assertEqual(self.page(page="whoami").status, 200)


class NotBecome(AccountTest):
    """The library does not tell that a switch has failed; the panel looks."""

    def assert_not_become(self, answer):
        self.assertIn("Status: 500 ", answer)
        self.assertIn(NOT_BECOME, answer)
        self.assertNotIn("report.txt", answer)
        self.assertIn(f"not the account '{self.account}' after Su", self.errors)

    def setUp(self):
        super().setUp()
        (self.home / "report.txt").touch()

    def use_faults(self):
        wrappers = f"{os.environ['SWITCH_FAULTS']} {WRAPPERS}"
        self.front = self.panel.accounts.front(os.environ["FRONT"], wrappers)

    def test_page_shows_when_it_has(self):
        """What the other tests rest on."""
        self.assertIn("report.txt", self.run_front())

    def test_when_a_call_of_the_switch_fails(self):
        self.use_faults()
        self.assertIn("report.txt", self.run_front())
        for call in (" setuid ", " setgid "):
            self.assert_not_become(self.run_front(FAILING_CALLS=call))

    @needs_root
    def test_when_groups_of_before_stay(self):
        """Others, more, or fewer than the account has."""
        self.use_faults()
        for groups in ([], [0], [FURTHER_GROUP], [UID, FURTHER_GROUP, 6]):
            self.assertIn("report.txt", self.run_front(identity={"extra_groups": groups}))
            answer = self.run_front(
                identity={"extra_groups": groups}, FAILING_CALLS=" initgroups setgroups "
            )
            self.assert_not_become(answer)

    @needs_root
    def test_when_one_of_the_ids_stays(self):
        self.use_faults()
        for variable in ("USER_LEFT", "GROUP_LEFT"):
            for left in ("real", "effective", "saved"):
                self.assert_not_become(self.run_front(**{variable: left}))

    def test_when_the_process_is_let_become_root_again(self):
        self.use_faults()
        self.assert_not_become(self.run_front(ROOT_FOR_ALL="1"))

    @needs_root
    def test_when_a_capability_stays(self):
        self.use_faults()
        self.assert_not_become(self.run_front(KEEP_CAPABILITIES="1"))
        self.assert_not_become(self.run_front("setpriv", "--inh-caps=+chown"))

    @needs_root
    def test_when_the_process_could_become_root_again(self):
        self.assert_not_become(self.run_front("setpriv", "--securebits=+no_setuid_fixup"))

    def test_without_rights(self):
        """An ordinary user cannot become somebody else."""
        self.add_account(self.home, uid=UID + 1)
        self.front = self.panel.accounts.front(os.environ["FRONT"], NAMES_ONLY)
        ordinary = {"user": UID, "group": GID, "extra_groups": []} if IS_ROOT else ()
        os.chmod(self.panel.socket, 0o777)
        os.chmod(self.panel.socket.parent, 0o711)
        self.home.chmod(0o777)
        self.addCleanup(self.home.chmod, 0o700)
        with self.front_for_all():
            self.assert_not_become(self.run_front(identity=ordinary))

    @contextlib.contextmanager
    def front_for_all(self):
        """Where an ordinary user finds program and libraries."""
        with tempfile.TemporaryDirectory(prefix="front-") as name:
            folder = pathlib.Path(name)
            folder.chmod(0o755)
            for path in (os.environ["FRONT"], *os.environ["LIBRARIES"].split(":")):
                pathlib.Path(shutil.copyfile(path, folder / os.path.basename(path))).chmod(0o755)
            more = {"LD_LIBRARY_PATH": folder}
            self.front = self.panel.accounts.front(folder / "front", NAMES_ONLY, **more)
            yield


class Kept(AccountTest):
    def setUp(self):
        super().setUp()
        self.addCleanup(self.assert_nothing_left)

    def test_files_are_the_accounts_own(self):
        self.assertEqual(self.upload(file("own.txt", b"content")).status, 200)
        status = (self.home / "own.txt").stat()
        self.assertEqual((status.st_uid, status.st_gid), (UID, GID))
        self.assertEqual(stat.S_IMODE(status.st_mode), 0o644)
        self.assertEqual(status.st_nlink, 1)
        self.assertEqual((self.home / "own.txt").read_bytes(), b"content")
        self.assertEqual(self.listing(), {"own.txt": "7"})

    def test_nothing_is_replaced(self):
        outside = self.panel.state / "outside"
        (self.home / "file").write_bytes(b"before")
        (self.home / "dangling").symlink_to(outside)
        (self.home / "directory").mkdir()
        names = ("file", "dangling", "directory")
        answer = self.upload(file("new", b"new"), *(file(name, b"new") for name in names))
        self.assertEqual(answer.status, 409)
        there = "not kept: there is one of this name"
        self.assertEqual(self.kept(answer), {"new": "new", **dict.fromkeys(names, there)})
        self.assertEqual((self.home / "file").read_bytes(), b"before")
        self.assertTrue((self.home / "dangling").is_symlink())
        self.assertFalse(outside.exists())
        self.assertEqual(list((self.home / "directory").iterdir()), [])
        self.assertEqual((self.home / "new").read_bytes(), b"new")

    def test_names_of_clients_stay_in_the_home(self):
        names = {
            "../../etc/passwd": "passwd",
            "/etc/shadow": "shadow",
            "C:\\Users\\me\\letter.doc": "letter.doc",
            ".profile": "_profile",
            "..": "_.",
            "/tmp/.": "_",
            "\x1b[31mred\x7f": "_[31mred_",
            "tab\there": "tab_here",
            "-rf": "-rf",
            "Жук 世.txt": "Жук 世.txt",
            "<b>bold</b>.txt": "b>.txt",
            "x" * 255: "x" * 255,
        }
        beside = set(self.home.parent.iterdir())
        answer = self.upload(*(file(name, name.encode()) for name in names))
        self.assertEqual(answer.status, 200, answer.body)
        self.assertEqual(self.kept(answer), names)
        for sent, name in names.items():
            self.assertEqual((self.home / name).read_bytes(), sent.encode())
        self.assertEqual(set(self.home.parent.iterdir()), beside)

    def test_names_that_cannot_be(self):
        names = {"a/": "it has no name", "y" * 256: "File name too long"}
        before = set(self.home.iterdir())
        answer = self.upload(*(file(name, b"1") for name in names))
        self.assertEqual(answer.status, 409)
        self.assertEqual(
            self.kept(answer), {name: "not kept: " + reason for name, reason in names.items()}
        )
        self.assertEqual(set(self.home.iterdir()), before)

    def test_of_two_that_would_have_one_name_the_first(self):
        answer = self.upload(file("a/same", b"first"), file("b/same", b"second"))
        self.assertEqual(answer.status, 409)
        self.assertEqual((self.home / "same").read_bytes(), b"first")

    @needs_root
    def test_nothing_where_the_account_may_not_write(self):
        self.use_account("read-only")
        self.home = self.panel.accounts.make_home("read-only")
        self.home.chmod(0o500)
        answer = self.upload(file("a", b"1"))
        self.assertEqual(self.kept(answer), {"a": "not kept: Permission denied"})
        self.assertEqual(list(self.home.iterdir()), [])

    @contextlib.contextmanager
    def front_after_the_hand_over(self):
        """Stuck, since nobody reads its answer, which is more than a pipe
        takes. None of the files can be kept."""
        taken = [f"{number:0250}" for number in range(400)]
        for name in taken:
            (self.home / name).touch()
        token = field("token", self.panel.token(self.session))
        body = form(token, *(file(name, b"1") for name in taken))
        with self.panel.start_front(self.session, body=body) as front:
            wait_for(lambda: len(self.handed_over()) == len(taken))
            # The account by now, and at its answer.
            wait_for(lambda: self.bytes_in(front.stdout) > 60_000)
            yield front
        for name in taken:
            (self.home / name).unlink()

    def handed_over(self):
        return list(self.home.glob("zantemp*"))

    def bytes_in(self, pipe):
        count = array.array("i", [0])
        fcntl.ioctl(pipe, termios.FIONREAD, count)
        return count[0]

    def test_nothing_of_an_upload_whose_front_end_is_killed_after_the_hand_over(self):
        with self.front_after_the_hand_over() as front:
            front.kill()
            wait_for(lambda: not self.handed_over())

    def test_nobody_tells_the_guardian_what_to_remove_after_the_hand_over(self):
        """It may be root, and the front end is an account then."""
        with self.front_after_the_hand_over() as front:
            with self.lifeline_of(front) as lifeline, self.assertRaises(BrokenPipeError):
                lifeline.send(os.fsencode(self.home / f"{0:0250}"))
            front.kill()
            wait_for(lambda: not self.handed_over())
            self.assertTrue((self.home / f"{0:0250}").exists())

    def lifeline_of(self, front):
        """The socket between a front end and its guardian."""
        links = pathlib.Path(f"/proc/{front.pid}/fd").iterdir()
        (number,) = [int(link.name) for link in links if os.readlink(link).startswith("socket:")]
        process = os.pidfd_open(front.pid)
        copied = ctypes.CDLL(None, use_errno=True).syscall(PIDFD_GETFD, process, number, 0)
        os.close(process)
        self.assertGreaterEqual(copied, 0, os.strerror(ctypes.get_errno()))
        return socket.socket(fileno=copied)


class ConfinementTest(AccountTest):
    def setUp(self):
        super().setUp()
        self.addCleanup(self.assert_nothing_left)

    def confined(self, folder="/", body=b""):
        return self.run_front(PANEL_CONFINE=folder, body=body)

    def upload_body(self, *files):
        return form(field("token", self.panel.token(self.session)), *files)

    def assert_not_confined(self):
        with self.spool_unused():
            for body in (b"", self.upload_body(file("a", b"1"))):
                answer = self.confined(body=body)
                self.assertIn("Status: 500 ", answer)
                self.assertIn(NOT_CONFINED, answer)


class Confinement(ConfinementTest):
    """What comes before it is the same for everyone; to confine itself, the
    front end needs root."""

    def test_is_refused_for_a_home_of_the_account(self):
        self.assert_not_confined()

    def test_is_refused_for_a_home_that_is_no_folder_from_the_root_on(self):
        # The first is there: the front end runs in the folder above its program's.
        relative = pathlib.Path(os.environ["FRONT"]).parent.name
        for home in (relative, "/etc/passwd", "/nonexistent"):
            with self.subTest(home):
                self.add_account(home)
                self.assert_not_confined()

    def test_is_refused_below_a_folder_that_all_may_write(self):
        home = self.enterContext(tempfile.TemporaryDirectory(dir="/tmp", prefix="jail-"))
        os.chmod(home, 0o755)
        self.add_account(home)
        self.assert_not_confined()

    def test_needs_a_folder_as_seen_from_the_home(self):
        for folder in ("1", "files", "../etc"):
            answer = self.confined(folder)
            self.assertIn("Status: 500 ", answer)
            self.assertIn("The panel is set up wrongly.", answer)

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
        self.assertIn('<tr><td>files</td><td class="numbers">folder</td></tr>', answer)
        self.assertIn(f"</b>, user {UID}.", answer)
        (self.home / "files" / "report.txt").write_bytes(b"123")
        for folder in ("/files", "/../../../files"):
            answer = self.confined(folder)
            self.assertIn('<tr><td>report.txt</td><td class="numbers">3</td></tr>', answer)

    def test_is_left_when_the_groups_are_not_the_accounts(self):
        wrappers = f"{os.environ['SWITCH_FAULTS']} {WRAPPERS}"
        self.front = self.panel.accounts.front(os.environ["FRONT"], wrappers)
        (self.home / "etc").mkdir()
        (self.home / "etc" / "group").write_text(f"disk:x:6:{self.account}\n")
        self.assertIn("Seen by", self.confined())
        answer = self.run_front(PANEL_CONFINE="/", FAILING_CALLS=" setgroups ")
        self.assertIn("Status: 500 ", answer)
        self.assertIn(NOT_BECOME, answer)

    def test_keeps_uploads_in_the_folder_of_the_account(self):
        answer = self.confined("/files", self.upload_body(file("a.txt", b"content")))
        self.assertIn("Status: 200 ", answer)
        kept = self.home / "files" / "a.txt"
        self.assertEqual(kept.read_bytes(), b"content")
        self.assertEqual((kept.stat().st_uid, kept.stat().st_gid), (UID, GID))
        self.assertEqual(list(self.home.iterdir()), [kept.parent])

    def test_keeps_nothing_in_the_folder_of_root(self):
        answer = self.confined("/", self.upload_body(file("a.txt", b"content")))
        self.assertIn("not kept: Permission denied", answer)
        self.assertEqual(list(self.home.iterdir()), [self.home / "files"])

    def test_is_refused_when_others_may_write(self):
        for folder in (self.jail, self.home):
            for mode in (0o775, 0o757, 0o1777):
                folder.chmod(mode)
                self.assert_not_confined()
            folder.chmod(0o755)
        self.assertIn("files", self.confined())

    def test_is_refused_when_somebody_else_owns_a_folder(self):
        for folder in (self.jail, self.home):
            os.chown(folder, UID, 0)
            self.assert_not_confined()
            os.chown(folder, 0, 0)
        os.chown(self.home, 0, GID)
        self.assertIn("files", self.confined())

    def test_is_refused_by_way_of_a_link(self):
        (self.jail / "link").symlink_to(self.jail / "home")
        for home in ("link", "link/", "link/files", "link/../home"):
            self.add_account(f"{self.jail}/{home}")
            self.assert_not_confined()


class Configuration(AccountTest):
    configuration = {"PANEL_CONFINE": "/"}

    def test_reaches_the_front_end_from_the_administrator(self):
        self.assert_turned_away(500, NOT_CONFINED)


class Session(AccountTest):
    """The session of PAM, which is run before the account is the process."""

    def setUp(self):
        super().setUp()
        folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory(prefix="pam-")))
        self.opened = folder / "opened"
        services = folder / "services"
        services.mkdir()
        (services / "login").write_text(
            f"session required pam_exec.so seteuid /usr/bin/touch {self.opened}\n"
        )
        self.front = self.panel.accounts.front(
            os.environ["FRONT"],
            "libpam_wrapper.so " + WRAPPERS,
            PAM_WRAPPER=1,
            PAM_WRAPPER_SERVICE_DIR=services,
        )

    def test_is_opened_when_asked_for(self):
        self.assertIn("Seen by", self.run_front(PANEL_PAM="1"))
        self.assertTrue(self.opened.exists(), self.errors)

    def test_is_not_opened_otherwise(self):
        for setting in ({}, {"PANEL_PAM": ""}):
            self.assertIn("Seen by", self.run_front(**setting))
        self.assertFalse(self.opened.exists())


if __name__ == "__main__":
    main()
