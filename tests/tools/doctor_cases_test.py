"""The findings of zancgi-doctor, with a table of situations for each check."""

import functools
import os
import re
import shlex
import unittest

from doctor_support import DENIED, DOCTOR, HAS_ALL_RIGHTS, IS_ROOT, ME, NOT_THERE, OTHERS_ONLY
from doctor_support import OWN_NAME, ROOT_ONLY, STRANGER, WORDS, DoctorTest
from zancgi_doctor.cli import EXIT_STATUS
from zancgi_doctor.files import mount_of
from zancgi_doctor.texts import group_name, user_name

# For each group: commands to prepare it, options, subject and path. Here and in the tables, ~ is
# the folder of the case, in which the shell runs, and @ the subject.
SERVICE = ("mkdir run", "--run-dir ~/run --service @", "panel", "~/run/@.sock")
GROUPS = {
    "identity": ("", "", OWN_NAME, ""),
    "run-dir": ("mkdir run", "--run-dir @", "~/run", "@"),
    "socket": SERVICE,
    "back-end": SERVICE,
    "fcgi": ("", "--fcgi-socket @", "~/fcgi.sock", "@"),
    "tmp-dir": ("mkdir -m 700 tmp", "--tmp-dir @", "~/tmp", "@"),
    "program": ("mkdir bin; cp /bin/true bin/panel", "--program @", "~/bin/panel", "@"),
    "pam": ("", "", "/etc/pam.d/login", "@"),
    "account": ("mkdir -m 700 tmp", "--tmp-dir ~/tmp --account @", "alice", "/srv/alice"),
    "nss": ("", "", "/etc/nsswitch.conf", "@"),
    "process": ("", "", "this process", ""),
    "log": ("", "TOV_LOG=@", "~/log", "@"),
}


def case(reason_to_skip, prepare, outcome, arguments="", **values):
    """Arguments may begin with variables of the environment. An outcome of None
    expects no finding."""
    return reason_to_skip, prepare, outcome, arguments, values


anyone = functools.partial(case, "")
root = functools.partial(case, "" if HAS_ALL_RIGHTS else ROOT_ONLY)
others = functools.partial(case, OTHERS_ONLY if IS_ROOT else "")
IN_MEMORY = "/tmp is in memory" if mount_of("/tmp").kind in ("tmpfs", "ramfs") else ""

LEVEL = {"subject": "TOV_LOG_LEVEL"}
BY_STRANGER = {"arguments": f"--as {STRANGER}", "user": str(STRANGER)}
OPEN_FOLDER = "'~/open' is writable by everybody"
NO_LISTENER = {"error": NOT_THERE, "listener": "the back end"}
LINKED = "mkdir panel; sockets 660 panel/panel.sock; ln -s $PWD/panel/panel.sock run"
# After a link, ".." is the parent of its target.
PATHS = """
mkdir -m 777 open
mkdir open/run
ln -s $PWD/run open/link
ln -s $PWD/open/run link
ln -s open/run/.. back
"""
UNIT = "/etc/systemd/system/panel.service"
BY_UNIT = f"printf '[Service]\\nRuntimeDirectory=a tov\\n' > {UNIT}"
RULE = "mkdir /run/tmpfiles.d; echo 'd /run/tov' > /run/tmpfiles.d/tov.conf"
MASK = "ln -s /dev/null /etc/tmpfiles.d/tov.conf"
OTHER_RULES = """
echo '# d /run/tov' > /etc/tmpfiles.d/x.conf
echo 'd /run/tov2' > /etc/tmpfiles.d/y.conf
mkfifo /etc/tmpfiles.d/z.conf
"""
UPLOADS = """
old tmp/zantempAAAAAA 10 1
old tmp/another 10 99
mkdir tmp/zantempfolder
ln -s another tmp/zantemplink
mkfifo tmp/zantempfifo
"""
OLD_UPLOADS = UPLOADS + """
old tmp/zantempBBBBBB 2048 50
old tmp/zantempCCCCCC 1024 30
old tmp/.tov-AbC12 1024 99
old tmp/.tov-AbC1234 1024 99
"""
COPIES = """
homes
cd /srv/alice
old .tov-fresh1 9 0
for name in theirs .tov-theirs .tov-short .tov-too-long; do old $name 99 99; done
mkdir .tov-folder
touch -d '-99 hours' .tov-folder
chown alice .tov-theirs
"""
SEVERAL = r"""
echo 'session required c.so' > /etc/pam.d/more
cat > /etc/pam.d/login <<'END'
# session required comment.so
@include more
-session optional may_be_missing.so
session [success=ok default=ignore] a.so with arguments
SESSION required \
 b.so
session substack login
session include more
account required other.so
END
"""
SOUND = r"login 'auth required nothing.so\nsession required pam_unix.so\n'"
OWN_FILES = "homes; install -d -o alice -m 700 /srv/alice/files"
PAM_AT_HOME = "homes; mkdir -p /srv/alice/etc/pam.d; touch /srv/alice/etc/pam.d/login"
SMALL_HOME = "homes; mount -t tmpfs -o size=4M none /srv/alice"
NOT_OWN = "'/srv/alice' is writable by others than its owner"
OF_ALICE = "'/srv/alice' belongs to user 'alice'"


def tmpfs(options, then="true"):
    return f"mount -t tmpfs -o {options} none tmp; {then}"


def unsafe_homes():
    """Commands that create unsafe homes, and the reasons in findings."""
    return (
        ("homes; chown alice /srv/alice", OF_ALICE),
        ("homes; chmod 775 /srv/alice", NOT_OWN),
        ("homes; chmod 1777 /srv", "'/srv' is writable by others than its owner"),
    )


CASES = {
    "identity.rights": [
        anyone("", "ok"),
        root("", "ok", f"--as {STRANGER}:{STRANGER}", subject=str(STRANGER)),
        others("", "unchecked", "--as root", subject="root", caller=user_name(os.geteuid())),
    ],
    "run-dir.exists": [
        anyone("", "ok"),
        anyone("", "failure missing", subject="~/none", error=NOT_THERE),
        anyone("", "failure relative", subject="run"),
        anyone("mkfifo fifo", "failure kind", subject="~/fifo", kind="a FIFO"),
        root("chmod 750 run", "failure search", **BY_STRANGER, error=DENIED),
        others("chmod 600 run", "failure search", error=DENIED),
    ],
    "run-dir.length": [
        anyone("", outcome, subject="/" + "x" * (107 - len("/.sock") - room - 1), room=shown)
        for room, outcome, shown in (
            (16, "ok", "16 bytes"),
            (15, "warning", "15 bytes"),
            (1, "warning", "1 byte"),
            (0, "failure", "0 bytes"),
        )
    ],
    "run-dir.safe": [
        anyone("", "ok", owner=user_name(os.geteuid())),
        anyone("chmod 777 run", "failure", unsafe="'~/run' is writable by everybody"),
        # A sticky folder does not help: anybody can create the socket before the back end.
        *(anyone("chmod 1777 run; mkdir run/sub", "failure", subject=subject,
                 unsafe="'~/run' is writable by everybody")
          for subject in ("~/run", "~/run/sub/..")),
        root("chown 0:$N run; chmod 775 run", "failure",
             unsafe=f"'~/run' is writable by group {group_name(STRANGER)}"),
        others("chmod 775 run", "failure",
               unsafe=f"'~/run' is writable by group {group_name(os.getegid())}"),
        *(anyone(PATHS, "failure", subject=f"~/{path}", unsafe=OPEN_FOLDER)
          for path in ("open/run", "open/link", "link/..", "back")),
        root("mkdir -m 1777 sticky; ln -s $PWD/run sticky/link; chown -h $N sticky/link", "failure",
             subject="~/sticky/link",
             unsafe=f"'~/sticky/link' belongs to user number {STRANGER}"),
        root("chown $N:$N run", "warning", **BY_STRANGER),
    ],
    "run-dir.reboot": [
        case(IN_MEMORY, "", "ok disk"),
        # Of several mounts at one place, the last counts.
        root("mount -t tmpfs none run; mount --bind /usr/share run", "ok disk"),
        *(root(f"{prepare}; mkdir -m 755 /run/tov; {then}", outcome, maker=maker,
               subject="/run/tov")
          for prepare, then, outcome, maker in (
            ("unconfigured", "echo 'd /run/tov 0755 root root -' > /etc/tmpfiles.d/tov.conf",
             "ok made", "a tmpfiles.d rule"),
            ("unconfigured", "echo 'd /var/run/tov/ 0755 root root -' > /etc/tmpfiles.d/tov.conf",
             "ok made", "a tmpfiles.d rule"),
            ("unconfigured", BY_UNIT, "ok made", f"the unit '{UNIT}'"),
            ("systemd", "true", "warning", None),
            ("systemd", f"{RULE}; {MASK}", "warning", None),
            ("systemd", OTHER_RULES, "warning", None),
            ("unconfigured", "true", "skipped", None),
        )),
    ],
    "run-dir.names": [
        anyone("touch run/panel.pid run/panel.lock", "ok"),
        anyone("touch run/note0 run/note1 run/note2 run/note3 run/note4", "warning others",
               names="'note0', 'note1', 'note2' and 2 more"),
        anyone("touch run/.panel.sock", "warning hidden", names="'.panel.sock'"),
        others("chmod 311 run", "unchecked", error=DENIED),
    ],
    "socket.name": [
        anyone("", "failure", subject=subject, error=error)
        for subject, error in (
            ("", "it is empty"),
            (".panel", "it begins with a dot"),
            ("a/b", "it contains a slash"),
        )
    ],
    "socket.kind": [
        anyone("sockets 660 run/panel.sock", "ok"),
        anyone("", "failure missing", **NO_LISTENER),
        anyone("ln -s none run/panel.sock", "failure missing", **NO_LISTENER),
        *(anyone(make, "failure kind", kind=kind, listener="the back end")
          for make, kind in (
            ("mkfifo run/panel.sock", "a FIFO"),
            ("touch run/panel.sock", "a regular file"),
            ("mkdir run/panel.sock", "a folder"),
        )),
        others("chmod 600 run", "unchecked", error=DENIED),
    ],
    "socket.safe": [
        anyone(LINKED, "ok"),
        anyone(f"{LINKED}; chmod 777 panel", "failure",
               unsafe="'~/panel' is writable by everybody"),
    ],
    "socket.access": [
        anyone("sockets 660 run/panel.sock", "ok"),
        root("sockets 660 run/panel.sock", "failure", **BY_STRANGER, error=DENIED),
        root("sockets 660 run/panel.sock; chown 0:$M run/panel.sock", "ok",
             f"--as {STRANGER}:{STRANGER + 1}", user=str(STRANGER)),
        others("sockets 0 run/panel.sock", "failure", error=DENIED),
        others("sockets 660 run/panel.sock", "unchecked", "--as root", user="root"),
    ],
    "socket.strangers": [
        anyone("sockets 660 run/panel.sock", "ok"),
        anyone("sockets 666 run/panel.sock", "warning"),
        anyone("sockets 666 run/panel.sock; chmod 750 run", "ok"),
    ],
    "back-end.connect": [
        *(anyone("", "unchecked name", subject=subject) for subject in ("", ".panel", "a/b")),
        *(anyone(f"{make} run/panel.sock", "unchecked kind")
          for make in (":", "ln -s none", "mkfifo", "touch", "mkdir")),
        anyone("sockets 660 run/panel.sock", "failure left"),
    ],
    "fcgi.kind": [
        anyone("sockets 600 fcgi.sock", "ok"),
        anyone("", "failure missing", error=NOT_THERE, listener="fcgiwrap"),
        anyone("mkfifo fcgi.sock", "failure kind", kind="a FIFO", listener="fcgiwrap"),
    ],
    "fcgi.safe": [
        root("sockets 600 fcgi.sock", "ok"),
        # Also by a link.
        *(root("mkdir safe; sockets 600 safe/fcgi.sock; ln -s safe/fcgi.sock link", "ok",
               subject=subject)
          for subject in ("~/safe/fcgi.sock", "~/link")),
        # A sticky folder does not help: anybody can create the socket before fcgiwrap.
        *(anyone(f"mkdir -m {mode} open; sockets 600 open/fcgi.sock; ln -s open/fcgi.sock link",
                 "failure", subject=subject, unsafe=OPEN_FOLDER)
          for subject in ("~/open/fcgi.sock", "~/link") for mode in (777, 1777)),
        # A link in an unsafe folder, though its target is safe.
        anyone("sockets 600 fcgi.sock; mkdir -m 1777 open; ln -s $PWD/fcgi.sock open/link; "
               "mkdir closed; ln -s ../open/link closed/link", "failure",
               subject="~/closed/link", unsafe=OPEN_FOLDER),
        root("mkdir theirs; chown $N theirs; sockets 600 theirs/fcgi.sock", "failure",
             subject="~/theirs/fcgi.sock",
             unsafe=f"'~/theirs' belongs to user number {STRANGER}"),
        root("mkdir theirs; sockets 600 theirs/fcgi.sock; chown -R $N theirs", "ok",
             subject="~/theirs/fcgi.sock"),
    ],
    "fcgi.strangers": [
        anyone("sockets 600 fcgi.sock", "ok", accounts="root" if IS_ROOT else ME),
        anyone("sockets 666 fcgi.sock", "failure"),
        anyone("sockets 602 fcgi.sock", "failure"),
        # Users who cannot reach the socket cannot connect.
        root("people; mkdir -m 700 closed; sockets 666 closed/fcgi.sock", "ok",
             subject="~/closed/fcgi.sock", accounts="root"),
        *(root(f"group=alice:x:$N:{members}; people; sockets {mode} fcgi.sock; "
               f"chown {owner} fcgi.sock", outcome, "--as bob", user="bob", accounts=accounts)
          for mode, owner, members, outcome, accounts in (
            (600, "$N:0", "", "ok", "'alice'"),
            (660, "0:$N", "", "ok", "'alice'"),
            (660, "$N:$N", "", "ok", "'alice'"),
            (660, "0:$N", "bob", "warning", "'alice', 'bob'"),
            (660, "$M:$N", "", "warning", "'alice', 'bob'"),
        )),
    ],
    "tmp-dir.exists": [
        anyone("", "ok"),
        anyone("", "failure missing", subject="~/none", error=NOT_THERE),
        anyone("", "failure relative", subject="tmp"),
        anyone("mkfifo fifo", "failure kind", subject="~/fifo", kind="a FIFO"),
    ],
    "tmp-dir.writable": [
        anyone("", "ok"),
        root("", "failure", **BY_STRANGER, error=DENIED),
        root(tmpfs("ro"), "failure", error="the file system is mounted read-only"),
        others("chmod 500 tmp", "failure", error=DENIED),
        others("", "unchecked", "--as root", user="root"),
    ],
    "tmp-dir.safe": [
        anyone("", "ok"),
        anyone("chmod 1777 tmp", "ok"),
        anyone("chmod 777 tmp", "failure", unsafe="'~/tmp' is writable by everybody"),
        root("chown $N tmp", "failure", unsafe=f"'~/tmp' belongs to user number {STRANGER}"),
        root("chown $N tmp", "ok", **BY_STRANGER),
    ],
    "tmp-dir.listing": [
        *(anyone(f"chmod {mode} tmp", "warning", readers="Every local user")
          for mode in (1777, 755, 704)),
        *(anyone(f"chmod {mode} tmp", "ok") for mode in (700, 1733, 711)),
        # Others cannot reach it.
        anyone("chmod 1707 tmp; chmod 700 .", "ok"),
        *(root(f"group=alice:x:$N:{members}; people; chown $N:$N tmp; chmod {mode} tmp",
               outcome, f"--as {user}", readers=readers)
          for mode, members, user, outcome, readers in (
            (750, "", "alice", "ok", None),
            (750, "", "bob", "warning", "Group 'alice' ('alice')"),
            (750, "alice,bob", "alice", "warning", "Group 'alice' ('bob')"),
            (730, "alice,bob", "alice", "ok", None),
        )),
    ],
    "tmp-dir.space": [
        root(tmpfs("size=4M"), "ok", "--min-free 2M", size="4.0 MB"),
        root(tmpfs("size=4M"), "warning", "--min-free 3M", size="4.0 MB"),
        root(tmpfs("size=4M"), "failure", "--min-free 5M", size="4.0 MB"),
        root(tmpfs("size=4M", "head -c 4M /dev/zero > tmp/x"), "failure", size="0 bytes"),
    ],
    "tmp-dir.inodes": [
        root(tmpfs(f"nr_inodes={number + 1}"), outcome, "--min-free 0", count=count)
        for number, outcome, count in (
            (20000, "ok", "20000 inodes are"),
            (10000, "ok", "10000 inodes are"),
            (9999, "warning", "9999 inodes are"),
            (5000, "warning", "5000 inodes are"),
            (1, "failure", "1 inode is"),
            (0, "failure", "0 inodes are"),
        )
    ],
    "tmp-dir.leftovers": [
        anyone("", "ok", count="0 uploads are"),
        anyone(UPLOADS, "ok", count="1 upload is"),
        anyone(OLD_UPLOADS, "warning", count="2 uploads are", size="3.0 KB", age="50 hours"),
        anyone(OLD_UPLOADS + "old tmp/.tov-AbC123 1024 60", "warning",
               count="3 uploads are", size="4.0 KB", age="60 hours"),
        others("chmod 333 tmp", "unchecked", error=DENIED),
    ],
    "tmp-dir.ageing": [
        root(f"{prepare}; echo {rule} > /etc/tmpfiles.d/x.conf", outcome)
        for prepare, rule, outcome in (
            ("systemd", "d $PWD/tmp 0700 root root 1d", "ok"),
            ("systemd", '"e! $PWD/t*/ - - - 12h"', "ok"),
            ("systemd", "d $PWD/tmp 0700 root root -", "warning"),
            ("systemd", '"r! $PWD/tmp/zantemp*"', "warning"),
            ("systemd", "", "warning"),
            ("unconfigured", "", "skipped"),
        )
    ],
    "program.file": [
        anyone("", "ok"),
        anyone("", "failure missing", subject="~/none", error=NOT_THERE),
        anyone("mkfifo fifo", "failure kind", subject="~/fifo", kind="a FIFO"),
        anyone("", "failure kind", subject="~/bin", kind="a folder"),
        anyone("chmod 644 bin/panel", "failure", error=DENIED),
        others("", "unchecked", "--as root", user="root"),
    ],
    "program.safe": [
        anyone("", "ok" if IS_ROOT else "warning"),
        anyone("chmod 777 bin/panel", "failure", unsafe="'~/bin/panel' is writable by everybody"),
        anyone("chmod 777 bin", "failure", unsafe="'~/bin' is writable by everybody"),
        root("chown $N bin/panel", "failure",
             unsafe=f"'~/bin/panel' belongs to user number {STRANGER}"),
        # Its owner is trusted if it runs as another user.
        root("chown $N bin/panel", "ok", f"--as {STRANGER + 1}"),
    ],
    "program.set-id": [
        anyone("chmod 755 bin/panel", "ok"),
        anyone("chmod 4755 bin/panel", "warning", bit="set-uid"),
        anyone("chmod 2755 bin/panel", "warning", bit="set-gid"),
    ],
    "program.work-dir": [
        anyone("", "ok", path="~"),
        others("", "unchecked", "--as root", path="~", user="root"),
    ],
    "pam.library": [anyone("", "ok", subject="libpam.so.0")],
    "pam.service": [
        root(SOUND, "ok"),
        root("login ''; rm /etc/pam.d/login", "warning", error=NOT_THERE),
        root("login ''; rm /etc/pam.d/login; mkfifo /etc/pam.d/login", "failure kind",
             kind="a FIFO"),
        root("login ''; chmod o+w /etc/pam.d/login", "failure",
             unsafe="'/etc/pam.d/login' is writable by everybody"),
    ],
    "pam.modules": [
        root(SOUND, "ok", count="1 module"),
        root(f"login ''; {SEVERAL}", "warning", names="'c.so', 'a.so', 'b.so'"),
        # A FIFO is not opened.
        root(r"login '@include more\n'; mkfifo /etc/pam.d/more", "ok", count="0 modules"),
        # /tmp is the first unsafe folder on its path.
        root('touch module.so; login "session required $PWD/module.so"', "failure",
             unsafe="'/tmp' is writable by everybody"),
    ],
    "account.exists": [
        anyone("", "failure", subject="no-such\x1b[1m"),
        anyone("", "ok", subject="root"),
    ],
    "account.numbers": [
        anyone("", "warning root", subject="root"),
        root("homes", "ok"),
        root("uid=6; homes", "warning low", uid=6, group="'disk'"),
        root("uid=999; homes", "warning low", uid=999, group="number 999"),
        root("uid=1000; homes", "ok"),
        # A group with the number of the user.
        root("gid=100 group=secret:x:$N:; homes", "warning group", group="'secret'"),
        root("gid=100 group=secret:x:$N:bob,alice; homes", "ok"),
    ],
    "account.home": [
        root("homes", "ok"),
        root("home=; homes", "failure empty"),
        root("home=/srv/bob; homes", "failure missing", path="/srv/bob", error=NOT_THERE),
        root("home=/srv/x; homes; mkfifo /srv/x", "failure kind", path="/srv/x", kind="a FIFO"),
    ],
    "account.way": [
        anyone("", None, subject="root"),
        root("homes; chown alice /srv/alice", "ok"),
        root("homes; chmod 1777 /srv", "failure", unsafe="'/srv' is writable by everybody"),
        root("homes; chown 0:alice /srv; chmod 775 /srv", "failure",
             unsafe="'/srv' is writable by group 'alice'"),
        root("homes; chown alice /srv", "failure", unsafe="'/srv' belongs to user 'alice'"),
    ],
    "account.confinement": [
        root("homes", "ok", "--confined"),
        *(root(prepare, outcome, arguments, unsafe=unsafe)
          for prepare, unsafe in unsafe_homes()
          for outcome, arguments in (("failure", "--confined"), ("skipped", ""))),
    ],
    "account.folder": [
        root(OWN_FILES, None),
        *(root(prepare, "ok", "--confined", folder=folder)
          for prepare, folder in (
            (OWN_FILES, "/srv/alice/files"),
            ("homes; mkdir -p /srv/alice/a/b; install -d -o alice /srv/alice/a/c",
             "/srv/alice/a/c"),
            ("homes; install -d -g alice -m 770 /srv/alice/shared", "/srv/alice/shared"),
            ("homes; chown alice /srv/alice", "/srv/alice"),
            # A confined process does not need access to the folders above.
            (f"{OWN_FILES}; chmod 700 /srv", "/srv/alice/files"),
        )),
        *(root(f"homes; {then}", "failure", "--confined")
          for then in (
            "true",
            "mkdir -p /srv/alice/a/b; install -d -o bob /srv/alice/c",
            "install -d -o alice -m 500 /srv/alice/files",
            "install -d -o alice /srv/files; ln -s ../files /srv/alice/files",
            "mkdir -m 700 /srv/alice/closed; install -d -o alice /srv/alice/closed/files",
        )),
    ],
    "account.session": [
        root(PAM_AT_HOME, "ok", "--confined --pam", login="/srv/alice/etc/pam.d/login"),
        *(root(prepare, outcome, arguments, unsafe=unsafe)
          for prepare, unsafe in (
            ("homes", "PAM looks for '/srv/alice/etc/pam.d/login', which does not exist"),
            (f"{PAM_AT_HOME}; chown alice /srv/alice", OF_ALICE),
            (f"{PAM_AT_HOME}; chmod 775 /srv/alice", NOT_OWN),
        ) for outcome, arguments in (
            ("skipped", "--confined"), ("warning", "--confined --pam"), (None, "--pam")
        )),
    ],
    "account.leftovers": [
        # Only copies that belong to root.
        root(COPIES, "ok", count="1 copy of an upload is"),
        root(f"{COPIES}\nold .tov-AbC123 2048 30; old .tov-000000 2048 50", "warning",
             count="2 copies of uploads are", size="4.0 KB", age="50 hours"),
    ],
    "account.hand-over": [
        root("homes", "ok"),
        root("homes; mount -o remount,ro /srv", "failure read-only"),
        root("homes", "failure user", "--as alice", user="alice"),
    ],
    "account.space": [
        root("mkdir home; home=$PWD/home; homes", "ok moved", path="~/home"),
        *(root(SMALL_HOME, outcome, f"--min-free {min_free}", path="/srv/alice", tmp_dir="~/tmp",
               size="4.0 MB")
          for min_free, outcome in (("1M", "ok"), ("3M", "warning"), ("5M", "failure"))),
        root("homes; rmdir tmp", "unchecked", error=NOT_THERE),
    ],
    "nss.sources": [
        root("printf '# passwd: no\\npasswd: files [NOTFOUND=return] # x\\nhosts: none\\n' > own; "
             "mount --bind own /etc/nsswitch.conf", "ok", names="'files'"),
        root("printf 'passwd: files nosuch\\ngroup: files\\033\\n' > own; "
             "mount --bind own /etc/nsswitch.conf", "warning", names="'nosuch', 'files\\x1b'"),
    ],
    "process.environment": [
        *(anyone("", "ok", arguments) for arguments in ("", "LD_LIBRARY_PATH=/opt/x:/opt/y")),
        *(anyone("", "failure", f"LD_LIBRARY_PATH={path}")
          for path in ("/opt/x:", "lib", ":/opt/x", "/opt/x::/opt/y")),
        anyone("", "warning code", "LD_PRELOAD=libc.so.6", variable="LD_PRELOAD"),
        anyone("", "warning code", "LD_AUDIT=/none", variable="LD_AUDIT"),
        anyone("", "warning proxy", "HTTP_PROXY=http://x"),
    ],
    "log.target": [
        *(anyone("", "ok stderr", arguments, subject="stderr")
          for arguments in ("", "TOV_LOG=")),
        anyone("", "ok"),
        anyone("touch log", "ok"),
        anyone("", "warning relative", subject="log"),
        # Opening it would disturb its reader, or block without one.
        anyone("mkfifo log", "warning fifo"),
        *(anyone(prepare, "failure", subject=subject, error=error)
          for prepare, subject, error in (
            ("ln -s log link", "~/link", "it is a symbolic link, which is not followed"),
            ("", "~", "it is a folder"),
            ("sockets 600 socket", "~/socket", "it is a socket"),
            ("", "~/none/log", NOT_THERE),
            ("touch file", "~/file/log", "Not a directory"),
        )),
        root("touch log; chmod 640 log", "failure", **BY_STRANGER, error=DENIED),
        root("", "failure", **BY_STRANGER, error=DENIED),
        others("", "unchecked", "--as root", user="root"),
    ],
    "log.reader": [
        anyone("", "ok new"),
        anyone("touch log; chmod 640 log", "ok"),
        anyone("touch log; chmod 644 log", "warning"),
    ],
    "log.level": [
        anyone("", "ok none", **LEVEL),
        *(anyone("", outcome, f"TOV_LOG_LEVEL={text}", **LEVEL, level=level)
          for text, outcome, level in (
            ("", "ok none", None),
            ("6", "ok", "6"),
            ("004", "ok", "4"),
            ("0" * 30 + "4", "ok", "4"),
            ("3", "warning low", "3"),
            ("7", "warning high", "7"),
            ("9" * 50, "warning high", "9"),
            ("high", "warning number", "high"),
            ("-1", "warning number", "-1"),
        )),
    ],
}  # fmt: skip


class CasesTest(DoctorTest):
    """Each check alone has exactly the expected finding."""

    def setUp(self):
        super().setUp()
        if DOCTOR.is_relative_to("/srv"):
            self.skipTest("the tools are below /srv, which this test hides")

    def play(self, check, folder, prepare, outcome, arguments, values):
        made, options, subject, path = GROUPS[check.partition(".")[0]]
        subject = values.pop("subject", subject)

        def filled(text):
            return text.replace("~", str(folder)) if isinstance(text, str) else text

        subject = filled(subject)
        words = shlex.split(filled(options).replace("@", shlex.quote(subject)))
        words += shlex.split(filled(arguments))
        variables = [word for word in words if re.match("[A-Z_]+=", word)]
        before = f"{WORDS}\ncd {folder}\n{made}\n{prepare}"
        report = self.examine(
            check, *(word for word in words if word not in variables), before=before,
            environment=dict(word.split("=", 1) for word in variables),
        )  # fmt: skip
        if outcome is None:
            self.assertEqual(report.findings(check), [])
            # The check was not prevented either.
            states = {found["state"] for found in report.checks}
            self.assertLessEqual(states, {"skipped", "warning"})
            return
        values = {"user": OWN_NAME, "path": path.replace("@", subject), **values}
        values = {name: filled(value) for name, value in values.items()}
        self.expect(report, check, outcome, subject, **values)
        self.assertEqual(report.status, EXIT_STATUS.get(outcome.partition(" ")[0], 0))


def test_of(check, cases):
    def test(self):
        for number, (reason_to_skip, *situation) in enumerate(cases):
            with self.subTest(prepare=situation[0], outcome=situation[1], number=number):
                if reason_to_skip:
                    self.skipTest(reason_to_skip)
                self.play(check, self.make_folder(str(number)), *situation)

    return test


for name, table in CASES.items():
    setattr(CasesTest, "test_" + re.sub("[.-]", "_", name), test_of(name, table))


if __name__ == "__main__":
    unittest.main()
