#!/usr/bin/python3
"""The rules for the folders of sockets and uploads, as systemd-tmpfiles reads
them, in a root directory of their own."""

import os
import pathlib
import re
import shlex
import shutil
import stat
import subprocess
import sys
import tempfile
import unittest

SOURCE = pathlib.Path(__file__).resolve().parents[2]
RULES = {name: SOURCE / "src" / name / "tmpfiles.conf" for name in ("tov", "zancgi")}
DEPLOYMENT = (SOURCE / "docs" / "deployment.md").read_text()
INTERRUPTED_UPLOAD = os.environ["INTERRUPTED_UPLOAD"]
NOBODY = 65534
ANOTHER = 65533

FORM = (
    b'--x\r\nContent-Disposition: form-data; name="a"; filename="a.txt"\r\n\r\ntext\r\n--x--\r\n'
)


class TmpfilesTest(unittest.TestCase):
    def setUp(self):
        folder = self.enterContext(tempfile.TemporaryDirectory(prefix="tmpfiles-"))
        self.root = pathlib.Path(folder)
        self.root.chmod(0o755)
        rules = self.root / "usr" / "lib" / "tmpfiles.d"
        rules.mkdir(parents=True)
        for name, file in RULES.items():
            shutil.copy(file, rules / f"lib{name}1.conf")
        for name in ("tmp", "var/tmp"):
            (self.root / name).mkdir(parents=True)
        self.spool = self.root / "var" / "spool" / "zancgi"

    def apply(self, *options, later=None):
        """Has the rules obeyed, now or at a later time by the clock."""
        clock = ["faketime", "-f", f"+{later}"] if later else []
        done = subprocess.run(
            [*clock, "systemd-tmpfiles", f"--root={self.root}", *options],
            # Else files would become younger by as much.
            env={**os.environ, "NO_FAKE_STAT": "1"},
            capture_output=True, text=True, timeout=60,
        )
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))

    def make(self, *names):
        for name in names:
            path = self.root / name
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text("text")

    def left(self, folder):
        return sorted(os.listdir(self.root / folder))

    def as_another(self, program):
        """What another account sees of a Python program's errors."""
        return subprocess.run(
            [sys.executable, "-c", program], user=ANOTHER, group=ANOTHER, extra_groups=[],
            capture_output=True, text=True, timeout=60,
        ).stderr

    def upload_until_killed(self):
        """Returns the file that is left."""
        self.apply("--create")
        program = self.root / "front"
        shutil.copy(INTERRUPTED_UPLOAD, program)
        variables = {
            "TMP": str(self.spool), "REQUEST_METHOD": "POST", "CONTENT_LENGTH": str(len(FORM)),
            "CONTENT_TYPE": "multipart/form-data; boundary=x",
        }
        nobody = {"user": NOBODY, "group": NOBODY, "extra_groups": []}
        done = subprocess.run([program], env=variables, input=FORM, timeout=60, **nobody)
        self.assertEqual(done.returncode, -9)
        (upload,) = self.spool.iterdir()
        return upload

    def test_only_root_puts_sockets_into_their_folder_and_everybody_uploads(self):
        # One that was there before is put right.
        self.spool.mkdir(parents=True)
        os.chown(self.spool, NOBODY, NOBODY)
        self.spool.chmod(0o777)
        self.apply("--create")
        for name, mode in (("run/tov", "drwxr-xr-x"), ("var/spool/zancgi", "drwx-wx-wt")):
            status = (self.root / name).lstat()
            self.assertEqual(stat.filemode(status.st_mode), mode)
            self.assertEqual((status.st_uid, status.st_gid), (0, 0))

    def test_an_upload_whose_front_end_was_killed_goes_after_a_day(self):
        upload = self.upload_until_killed()
        self.assertRegex(upload.name, r"^zantemp\w{6}$")
        self.assertEqual(upload.read_bytes(), b"text")
        self.apply("--clean", later="23h")
        self.assertTrue(upload.exists())
        self.apply("--clean", later="25h")
        self.assertEqual(self.left("var/spool/zancgi"), [])

    def test_no_other_account_can_touch_an_upload(self):
        upload = self.upload_until_killed()
        for attempt in (
            f"os.listdir({str(self.spool)!r})", f"os.unlink({str(upload)!r})",
            f"os.rename({str(upload)!r}, {str(self.spool / 'zantempAAAAAA')!r})",
            f"open({str(upload)!r})",
        ):
            with self.subTest(attempt):
                errors = self.as_another("import os; " + attempt)
                self.assertRegex(errors, "PermissionError|not permitted")
        self.assertTrue(upload.exists())
        # On its way to an account it is found only where the spool can be listed.
        upload.chmod(0o644)
        watch = f"import os; [open(each).close() for each in os.scandir({str(self.spool)!r})]"
        for mode, finds in ((0o1733, False), (0o700, False), (0o1777, True)):
            with self.subTest(mode=mode):
                self.spool.chmod(mode)
                errors = self.as_another(watch)
                self.assertEqual("PermissionError" not in errors, finds, errors)

    def test_an_upload_that_is_still_written_stays(self):
        self.apply("--create")
        self.make("var/spool/zancgi/zantempAAAAAA")
        an_hour_ago_by_then = os.stat(self.root).st_mtime + 24 * 3600
        os.utime(self.spool / "zantempAAAAAA", (0, an_hour_ago_by_then))
        self.apply("--clean", later="25h")
        self.assertEqual(self.left("var/spool/zancgi"), ["zantempAAAAAA"])

    def test_folders_of_single_requests_go_and_sockets_stay(self):
        for folder, name, later, left in (
            ("var/spool/zancgi", "upload-AAAAAA/zantempAAAAAA", "25h", []),
            ("run/tov", "panel.sock", "9000h", ["panel.sock"]),
        ):
            with self.subTest(name):
                self.apply("--create")
                self.make(f"{folder}/{name}")
                self.apply("--clean", later=later)
                self.assertEqual(self.left(folder), left)

    def test_uploads_go_from_the_shared_folders_at_boot_and_nothing_else(self):
        names = ["other", "zantempAAAAAA", "zantmp"]
        for options, later, left in (
            (("--create", "--remove", "--clean"), "9000h", names),
            (("--remove", "--boot"), None, ["other", "zantmp"]),
        ):
            for folder in ("tmp", "var/tmp"):
                with self.subTest(options=options, folder=folder):
                    self.make(*(f"{folder}/{name}" for name in names))
                    self.apply(*options, later=later)
                    self.assertEqual(self.left(folder), left)

    drafts = ("home/alice/.tov-aB3dE6", "home/bob/.tov-AAAAAA")
    others = (
        "home/alice/.tov-AAAAA", "home/alice/.tov-AAAAAAA", "home/alice/tov-AAAAAA",
        "home/alice/mail/.tov-AAAAAA", "home/alice/zantempAAAAAA",
    )

    def left_in_homes(self):
        return [name for name in (*self.drafts, *self.others) if (self.root / name).exists()]

    def test_a_rule_of_the_administrator_s_clears_homes_of_what_killed_copies_left_at_boot(self):
        self.make(*self.drafts, *self.others)
        # Homes are not the package's.
        self.apply("--create", "--remove", "--clean", "--boot", later="9000h")
        self.assertEqual(self.left_in_homes(), [*self.drafts, *self.others])
        (rule,) = re.findall("^#(r.*)$", RULES["zancgi"].read_text(), re.MULTILINE)
        self.assertIn(f"```tmpfiles\n{rule}\n```", DEPLOYMENT)
        rules = self.root / "etc" / "tmpfiles.d"
        rules.mkdir(parents=True)
        (rules / "homes.conf").write_text(rule + "\n")
        self.apply("--create", "--remove", "--clean", later="9000h")
        self.assertEqual(self.left_in_homes(), [*self.drafts, *self.others])
        self.apply("--remove", "--boot")
        self.assertEqual(self.left_in_homes(), [*self.others])

    def test_the_documented_command_finds_what_killed_copies_left_in_homes_a_day_ago(self):
        self.make(*self.drafts, *self.others)
        old, young = (self.root / name for name in self.drafts)
        os.utime(old, (0, 0))
        another_s = self.root / "home" / "alice" / ".tov-BBBBBB"
        self.make(another_s)
        os.utime(another_s, (0, 0))
        os.chown(another_s, ANOTHER, ANOTHER)
        (command,) = re.findall("^find /home .*$", DEPLOYMENT, re.MULTILINE)
        command = command.replace("/home", str(self.root / "home"))
        found = subprocess.run(shlex.split(command), capture_output=True, text=True, check=True)
        self.assertEqual(found.stdout, f"{old}\n")
        self.assertTrue(young.exists())


def reason_to_skip():
    missing = [name for name in ("systemd-tmpfiles", "faketime") if not shutil.which(name)]
    if missing:
        return f"not installed: {' '.join(missing)}"
    return "" if os.geteuid() == 0 else "only root gives folders away"


if __name__ == "__main__":
    if reason_to_skip():
        print("skipped:", reason_to_skip())
        sys.exit(77)
    unittest.main()
