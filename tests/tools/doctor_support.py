"""Fixtures of the tests of zancgi-doctor: a folder, runs of the doctor, and expected
findings."""

import contextlib
import ctypes
import dataclasses
import grp
import importlib
import itertools
import json
import os
import pathlib
import pwd
import shlex
import shutil
import socket
import socketserver
import subprocess
import tempfile
import threading
import unittest

from forked import LONG, SOURCE, Ended, run_forked
from zancgi_doctor.cli import main
from zancgi_doctor.findings import finding
from zancgi_doctor.identities import find_user
from zancgi_doctor.texts import printable

DOCTOR = SOURCE / "tools" / "zancgi-doctor"
IS_ROOT = os.geteuid() == 0
OWN_NAME = find_user(str(os.geteuid()))[0]
# As the doctor prints it.
ME = f"'{OWN_NAME}'"
CLONE_NEWNS, MS_REC, MS_PRIVATE = 0x20000, 0x4000, 0x40000
# Loaded once for all runs of the doctor.
importlib.import_module("elftools.elf.elffile")


def free_number():
    """A number that, like the next two, no user and no group has."""
    taken = {user.pw_uid for user in pwd.getpwall()} | {group.gr_gid for group in grp.getgrall()}
    return next(n for n in itertools.count(54321) if taken.isdisjoint(range(n, n + 3)))


def may_mount():
    command = ["unshare", "--mount", "--propagation", "private", "true"]
    return subprocess.run(command, stderr=subprocess.DEVNULL, check=False).returncode == 0


STRANGER = free_number()
NOT_THERE = "No such file or directory"
DENIED = "Permission denied"
HAS_ALL_RIGHTS = IS_ROOT and may_mount()
ROOT_ONLY = "only root with all rights may take on other ids, mount, or see all"
OTHERS_ONLY = "root may do everything"
AS_ROOT = unittest.skipUnless(HAS_ALL_RIGHTS, ROOT_ONLY)
AS_OTHERS = unittest.skipIf(IS_ROOT, OTHERS_ONLY)

# Shell functions that prepare the machine. They need root and mounts of their own.
WORDS = f"""
set -e
N={STRANGER} M={STRANGER + 1}

# Only the accounts alice, bob and root.
people() {{
    printf '%s:/bin/sh\\n' root:x:0:0::/root bob:x:$M:$M::/srv/bob \\
        "alice:x:${{uid-$N}}:${{gid-$N}}::${{home-/srv/alice}}" > passwd
    printf '%s\\n' root:x:0: disk:x:6: users:x:100: bob:x:$M: "${{group-alice:x:$N:}}" > group
    printf 'passwd: files\\ngroup: files\\n' > nsswitch.conf
    for file in passwd group nsswitch.conf; do mount --bind $file /etc/$file; done
}}

# The same, and homes below /srv.
homes() {{
    people
    mount -t tmpfs -o mode=755 none /srv
    mkdir /srv/alice
}}

# Hides the configuration of systemd.
unconfigured() {{
    mount -t tmpfs none /run
    mkdir -p /etc/tmpfiles.d /etc/systemd/system
    for folder in /etc /usr/local/lib /usr/lib /lib; do
        for kind in tmpfiles.d systemd/system; do
            ! [ -d $folder/$kind ] || mount -t tmpfs none $folder/$kind
        done
    done
}}

systemd() {{
    unconfigured
    mkdir -p /run/systemd/system
}}

# Sockets without a listener: sockets MODE PATH...
sockets() {{
    mode=$1
    shift
    /usr/bin/python3 -ISc 'import socket, sys
for path in sys.argv[1:]: socket.socket(socket.AF_UNIX).bind(path)' "$@"
    chmod $mode "$@"
}}

# A file: old PATH BYTES HOURS
old() {{
    head -c $2 /dev/zero > $1
    touch -d "-$3 hours" $1
}}

# A copy of PAM's configuration, with this text as the service login.
login() {{
    cp -a /etc/pam.d .
    mount --bind pam.d /etc/pam.d
    printf "$1" > /etc/pam.d/login
}}
"""


class Report(Ended):
    """The output of one run."""

    @property
    def checks(self):
        return json.loads(self.output)["checks"]

    def findings(self, name):
        return [check for check in self.checks if check["name"] == name]

    def state(self, name):
        (found,) = self.findings(name)
        return found["state"]

    def all(self):
        return self.output + self.errors


def enter_own_mounts():
    library = ctypes.CDLL(None, use_errno=True)
    if library.unshare(CLONE_NEWNS) or library.mount(b"", b"/", None, MS_REC | MS_PRIVATE, None):
        raise OSError(ctypes.get_errno(), "mounts of its own")


def prepare_machine(before):
    if before:
        if HAS_ALL_RIGHTS:
            enter_own_mounts()
        subprocess.run(["/bin/sh", "-c", f"set -e; {before}"], check=True)


class DoctorTest(unittest.TestCase):
    maxDiff = None
    # The group of the checks that judge makes, and the option for their subject.
    group = option = ""

    def setUp(self):
        # Short, because the path of a socket has at most 107 bytes.
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="doctor-", dir="/tmp"))
        self.folder.chmod(0o755)
        self.addCleanup(self.remove_folder)
        self.run_dir = self.make_folder("run")

    def remove_folder(self):
        for path in [self.folder, *self.folder.rglob("*")]:
            if path.is_dir() and not path.is_symlink():
                path.chmod(0o700)
        shutil.rmtree(self.folder)

    def make_folder(self, name, mode=0o755):
        path = self.folder / name
        path.mkdir()
        path.chmod(mode)
        return path

    def make_file(self, name, text="", mode=0o644):
        path = self.folder / name
        path.write_text(text)
        path.chmod(mode)
        return path

    def make_fifo(self):
        path = self.folder / "fifo"
        os.mkfifo(path)
        return path

    def bind(self, path, mode):
        """A socket without a listener."""
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(str(path))
        path.chmod(mode)

    @staticmethod
    def command_line(arguments, environment):
        variables = {"PATH": os.environ["PATH"], "LANG": "C.UTF-8", **dict(environment)}
        return ["--timeout", str(LONG), *map(str, arguments)], variables

    def doctor(self, *arguments, before="", environment=(), stdin=b""):
        """One run. First runs shell commands, as root in its own mounts."""
        arguments, variables = self.command_line(arguments, environment)
        ended = run_forked(
            main,
            ["zancgi-doctor", *arguments],
            variables,
            stdin,
            lambda: prepare_machine(before),
        )
        return Report(ended.status, ended.output.decode(), ended.errors)

    def program(self, *arguments, before="", environment=(), **options):
        """One run as a separate process. First runs shell commands."""
        arguments, variables = self.command_line(arguments, environment)
        command = [str(DOCTOR), *arguments]
        if before:
            command = ["/bin/sh", "-c", f"set -e; {before}; exec {shlex.join(command)}"]
        done = subprocess.run(
            command, env=variables, stdin=subprocess.DEVNULL, capture_output=True, text=True,
            timeout=LONG, check=False, **options,
        )  # fmt: skip
        return Report(done.returncode, done.stdout, done.stderr)

    def examine(self, check, *arguments, **options):
        return self.doctor("--json", "--check", check, *arguments, **options)

    def expect(self, report, check, outcome, subject, **values):
        """Expects exactly this finding of a check."""
        wanted = dataclasses.asdict(finding(check, str(subject), outcome, **values))
        wanted["subject"] = printable(wanted["subject"])
        self.assertEqual(report.findings(check), [wanted])

    def judge(self, check, outcome, *arguments, subject=None, before="", environment=(), **values):
        """Runs one check of the group, and expects its finding."""
        subject = subject or self.subject
        check = f"{self.group}.{check}"
        arguments = (self.option, subject, *arguments) if self.option else arguments
        report = self.examine(check, *arguments, before=before, environment=environment)
        values = {"user": OWN_NAME, "path": str(subject), **values}
        self.expect(report, check, outcome, subject, **values)
        return report


class Listener(socketserver.UnixStreamServer):
    """A back end that answers each request by a function."""

    def __init__(self, path, answer):
        super().__init__(str(path), None)
        self.requests = []
        self.answer = answer
        self.thread = threading.Thread(target=self.serve_forever, args=(0.01,))
        self.thread.start()

    def finish_request(self, connection, _):
        with contextlib.suppress(OSError):
            self.answer(self, connection)

    def read(self, connection):
        digits = b""
        while not digits.endswith(b":"):
            digits += connection.recv(1)
        left = int(digits[:-1]) + 1
        request = connection.recv(left, socket.MSG_WAITALL)
        self.requests.append(digits + request)

    def stop(self):
        self.shutdown()
        self.thread.join()
        self.server_close()


def answering(data):
    def answer(listener, connection):
        listener.read(connection)
        connection.sendall(data)

    return answer


REFUSAL = b'<?xml version="1.0" encoding="UTF-8"?>\n<doc><error type="access"/></doc>\n'


def with_length(body):
    return b"Status: 200 OK\r\nContent-Length: %d\r\n\r\n%s" % (len(body), body)


class ServiceTest(DoctorTest):
    """Tests with a back end of the service panel."""

    def setUp(self):
        super().setUp()
        self.path = self.run_dir / "panel.sock"

    def listen(self, answer):
        """Replaces the previous listener."""
        self.path.unlink(missing_ok=True)
        listener = Listener(self.path, answer)
        self.addCleanup(listener.stop)
        self.path.chmod(0o666)
        return listener

    def run_checks(self, check="back-end", *arguments, **options):
        return self.examine(
            check, "--run-dir", self.run_dir, "--service", "panel", *arguments, **options
        )
