"""The switch as any user can try it: under wrappers that make a process believe
in accounts, identities and PAM stacks that are not the machine's.

The identities are those that the process believes in. Its files, its root
directory and what it may do are the machine's.
"""

import glob
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

PROGRAM = os.environ["SWITCH_PROGRAM"]
IS_ROOT = os.getuid() == 0
WRAPPERS = [f"lib{name}_wrapper.so" for name in ("nss", "uid", "pam")]

VISITOR = ["54321 54321 54321", "54322 54322 54322", "54321 54330"]
ROOT = ["0 0 0", "0 0 0", "0"]

BODY = (
    b"--XY\r\n"
    b'Content-Disposition: form-data; name="field"; filename="a.txt"\r\n'
    b"\r\n"
    b"content\r\n"
    b"--XY--\r\n"
)

RESOLVER = "trace: ChRoot Init resolver"
STARTING = "debug: zancgi_unix.cpp:N starting PAM session for user 'visitor'"
STARTED = [STARTING, "debug: zancgi_unix.cpp:N PAM start done"]
WHOLE_SESSION = STARTED + [
    "debug: zancgi_unix.cpp:N PAM open_session - ok",
    "debug: zancgi_unix.cpp:N PAM close_session - ok",
]


class Switched:
    """What the program said, and what was written while it switched."""

    def __init__(self, process):
        self.said = dict(line.partition(" ")[::2] for line in process.stdout.splitlines())
        self.error = self.said.get("error")
        self.identity = [self.said[name] for name in ("users", "groups", "supplementary")]
        self.stderr = process.stderr.split("switching\n")[1].split("switched\n")[0]
        log = re.findall(r"zancgi\[\d+\] core (.*)", self.stderr)
        self.log = [re.sub(r"cpp:\d+", "cpp:N", line) for line in log]

    def pam_calls(self):
        """The functions of PAM that its wrapper has seen."""
        return re.findall(r"TRACE\S* \S+ - pwrap_(pam_\w+): (?!.* rc=)", self.stderr)


class SwitchTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="zancgi-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name).resolve()
        self.folder.chmod(0o755)
        for name in ("home/www", "other", "spool", "start/cgi", "pam.d"):
            (self.folder / name).mkdir(parents=True)
        self.home = self.folder / "home"
        self.write(
            "passwd",
            "root:x:0:0::/:/bin/sh",
            f"visitor:x:54321:54322::{self.home}:/bin/sh",
            f"own:x:{os.getuid()}:{os.getgid()}::{self.home}:/bin/sh",
            f"homeless:x:54321:54322::{self.folder}/missing:/bin/sh",
        )
        self.write("group", "root:x:0:", "visitors:x:54322:", "helpers:x:54330:visitor")

    def write(self, name, *lines):
        (self.folder / name).write_text("".join(line + "\n" for line in lines))

    def run_program(self, arguments, request, wrappers, body=b""):
        environment = {
            "TOV_LOG_LEVEL": "9",
            "TMP": str(self.folder / "spool"),
            "LD_PRELOAD": ":".join(wrappers),
            "NSS_WRAPPER_PASSWD": str(self.folder / "passwd"),
            "NSS_WRAPPER_GROUP": str(self.folder / "group"),
            "UID_WRAPPER": "1",
            "UID_WRAPPER_ROOT": "1",
            "PAM_WRAPPER": "1",
            "PAM_WRAPPER_SERVICE_DIR": str(self.folder / "pam.d"),
            "PAM_WRAPPER_DEBUGLEVEL": "4",
        }
        process = subprocess.run(
            [str(self.folder / "start/cgi/front"), *arguments],
            executable=PROGRAM,
            env=environment | request,
            input=body,
            capture_output=True,
            timeout=60,
        )
        process.stdout = process.stdout.decode()
        process.stderr = process.stderr.decode()
        self.assertEqual(process.returncode, 0, process.stderr)
        self.assertNotIn("ERROR: ld.so", process.stderr)
        return Switched(process)

    def switch(self, *arguments, request=None, body=b""):
        wrappers = WRAPPERS if "pam" in arguments else WRAPPERS[:2]
        get = {"REQUEST_METHOD": "GET", "QUERY_STRING": ""}
        return self.run_program(arguments, request or get, wrappers, body)

    def switch_with_upload(self, *arguments):
        post = {
            "REQUEST_METHOD": "POST",
            "CONTENT_TYPE": "multipart/form-data; boundary=XY",
            "CONTENT_LENGTH": str(len(BODY)),
        }
        return self.switch(*arguments, request=post, body=BODY)


class IdentityTest(SwitchTest):
    def test_an_account_is_taken_on_with_all_its_groups(self):
        for directory, entered in (("", "home"), ("/", "home"), ("www", "home/www")):
            switched = self.switch("visitor", directory)
            self.assertIsNone(switched.error)
            self.assertEqual(switched.identity, VISITOR)
            self.assertEqual(switched.said["work_dir"], str(self.folder / entered))
            self.assertEqual(switched.log, [])

    def test_the_kernel_was_not_asked(self):
        switched = self.switch("visitor", "")
        self.assertEqual(set(switched.said["true_users"].split()), {str(os.getuid())})

    def test_root_ignores_the_flags(self):
        switched = self.switch("root", str(self.folder / "other"), "chroot", "pam")
        self.assertIsNone(switched.error)
        self.assertEqual(switched.identity, ROOT)
        self.assertEqual(switched.said["work_dir"], str(self.folder / "other"))
        self.assertEqual(switched.log, [])
        self.assertEqual(switched.pam_calls(), [])

    def test_an_account_that_is_missing_changes_nothing(self):
        switched = self.switch("nobody-here", "")
        self.assertEqual(switched.error, "failed to get pw entry")
        self.assertEqual(switched.identity, ROOT)
        self.assertEqual(switched.said["work_dir"], str(self.folder / "start"))

    def test_a_home_that_is_missing_changes_nothing(self):
        switched = self.switch("homeless", "")
        self.assertEqual(switched.error, "failed to chroot to users home folder")
        self.assertEqual(switched.identity, ROOT)
        self.assertEqual(switched.said["work_dir"], str(self.folder / "start"))

    def test_a_directory_outside_is_refused_after_the_switch(self):
        switched = self.switch("visitor", "../other")
        self.assertEqual(switched.error, "it is not your folder")
        self.assertEqual(switched.identity, VISITOR)
        self.assertEqual(switched.said["work_dir"], str(self.folder / "other"))

    @unittest.skipUnless(IS_ROOT, "needs root")
    def test_confinement_keeps_the_groups_of_the_account(self):
        switched = self.switch("visitor", "/", "chroot")
        self.assertIsNone(switched.error)
        self.assertEqual(switched.identity, VISITOR)
        self.assertEqual(switched.said["work_dir"], "/")
        self.assertEqual(switched.log, [RESOLVER])

    @unittest.skipIf(IS_ROOT, "root may confine")
    def test_confinement_without_the_right_changes_nothing(self):
        switched = self.switch("visitor", "/", "chroot")
        self.assertEqual(switched.error, "failed to chroot to users home folder")
        self.assertEqual(switched.identity, ROOT)
        self.assertEqual(switched.said["work_dir"], str(self.folder / "start"))
        self.assertEqual(switched.log, [RESOLVER])


class PamTest(SwitchTest):
    def switch_with(self, *stack):
        self.write("pam.d/login", *stack)
        switched = self.switch("visitor", "www", "pam")
        # Whatever PAM says, the switch goes on.
        self.assertIsNone(switched.error)
        self.assertEqual(switched.identity, VISITOR)
        self.assertEqual(switched.said["work_dir"], str(self.home / "www"))
        return switched

    def test_the_functions_that_the_program_has_are_called(self):
        switched = self.switch_with("session required pam_permit.so")
        self.assertEqual(
            switched.pam_calls(),
            ["pam_start", "pam_open_session", "pam_close_session", "pam_end"],
        )
        self.assertIn("pam_start service=login, user=visitor\n", switched.stderr)
        self.assertIn("pam_end status=0\n", switched.stderr)

    def test_a_session_is_opened_and_closed(self):
        switched = self.switch_with("session required pam_permit.so")
        self.assertEqual(switched.log, WHOLE_SESSION)

    def test_a_session_of_a_module_with_accounts_of_its_own(self):
        [matrix] = glob.glob("/usr/lib/*/pam_wrapper/pam_matrix.so")
        accounts = self.folder / "accounts"
        self.write("accounts", "visitor:secret:login")
        switched = self.switch_with(f"session required {matrix} passdb={accounts}")
        self.assertEqual(switched.log, WHOLE_SESSION)

    def test_a_session_that_is_denied(self):
        switched = self.switch_with("session required pam_deny.so")
        denied = (
            "warning: PAM error 14 (Cannot make/remove an entry for the specified"
            " session) on open_session"
        )
        self.assertEqual(switched.log, STARTED + [denied])
        self.assertEqual(switched.pam_calls()[-1], "pam_end")
        self.assertNotIn("pam_close_session", switched.pam_calls())
        self.assertIn("pam_end status=14\n", switched.stderr)

    def test_a_service_without_a_configuration(self):
        (self.folder / "pam.d/other-service").touch()
        switched = self.switch("visitor", "", "pam")
        self.assertEqual(switched.log, [STARTING, "warning: failed to start PAM session"])
        self.assertEqual(switched.pam_calls(), ["pam_start"])
        self.assertEqual(switched.identity, VISITOR)


class UploadTest(SwitchTest):
    def assert_handed_over(self, switched, path, owner):
        moving = (
            r"debug: zancgi_unix\.cpp:N moving file 'a\.txt' stored as"
            r" '(.*)/zantemp\w{6}' to '(.*)/(zantemp\w{6})'"
        )
        match = re.fullmatch(moving, switched.log[0])
        self.assertEqual(match[1], str(self.folder / "spool"))
        self.assertEqual(match[2], str(self.home))
        self.assertEqual(switched.said["file"], path + match[3])
        self.assertEqual(switched.said["content"], "content")
        self.assertEqual(switched.said["owner"], owner)
        self.assertEqual(switched.said["mode"], str(0o644))

    @unittest.skipUnless(IS_ROOT, "needs root")
    def test_an_upload_is_handed_over_before_the_switch(self):
        switched = self.switch_with_upload("visitor", "www")
        self.assertIsNone(switched.error)
        self.assertEqual(switched.identity, VISITOR)
        self.assert_handed_over(switched, f"{self.home}/", "54321 54322")

    @unittest.skipUnless(IS_ROOT, "needs root")
    def test_an_upload_is_handed_over_before_the_confinement(self):
        switched = self.switch_with_upload("visitor", "/", "chroot")
        self.assertIsNone(switched.error)
        self.assertEqual(switched.identity, VISITOR)
        self.assert_handed_over(switched, "/", "54321 54322")
        self.assertEqual(switched.log[1:], [RESOLVER])

    @unittest.skipIf(IS_ROOT, "root's uploads stay where they are")
    def test_an_upload_is_handed_over_to_the_account_that_made_it(self):
        switched = self.switch_with_upload("own", "www")
        self.assertIsNone(switched.error)
        self.assertEqual(switched.identity[0], " ".join([str(os.getuid())] * 3))
        self.assertEqual(switched.identity[1], " ".join([str(os.getgid())] * 3))
        self.assertEqual(switched.said["work_dir"], str(self.home / "www"))
        self.assert_handed_over(switched, f"{self.home}/", f"{os.getuid()} {os.getgid()}")

    @unittest.skipIf(IS_ROOT, "root may give files away")
    def test_an_upload_that_cannot_be_given_away_ends_the_switch(self):
        switched = self.switch_with_upload("visitor", "www")
        path = switched.said["file"]
        self.assertEqual(pathlib.Path(path).parent, self.folder / "spool")
        self.assertRegex(switched.error, f"^cannot set the owner of '{re.escape(path)}'")
        self.assertEqual(switched.identity, ROOT)
        self.assertEqual(switched.said["work_dir"], str(self.folder / "start"))
        self.assertEqual(switched.said["content"], "content")
        self.assertEqual(switched.log, [])

    def test_an_upload_of_root_stays_where_it_is(self):
        switched = self.switch_with_upload("root", str(self.folder / "other"))
        self.assertIsNone(switched.error)
        self.assertEqual(
            pathlib.Path(switched.said["file"]).parent, self.folder / "spool"
        )
        self.assertEqual(switched.said["owner"], f"{os.getuid()} {os.getgid()}")
        self.assertEqual(switched.log, [])


def complaint_of_the_loader():
    """Empty when the machine has all of the wrappers."""
    environment = {"LD_PRELOAD": ":".join(WRAPPERS)}
    return subprocess.run(
        ["/bin/true"], env=environment, stderr=subprocess.PIPE, text=True, check=True
    ).stderr


if __name__ == "__main__":
    if complaint := complaint_of_the_loader():
        print("skipped:", complaint)
        sys.exit(77)
    unittest.main()
