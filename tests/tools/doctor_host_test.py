"""What zancgi-doctor says of the temporary directory, of front ends' programs, of
PAM and of the accounts that front ends become."""

import os
import re
import shlex
import shutil
import struct
import subprocess
import sys
import time
import unittest
from unittest.mock import Mock, patch

from doctor_support import AS_OTHERS, AS_ROOT, DENIED, DOCTOR, IS_ROOT, LONG, NOT_THERE
from doctor_support import SOURCE, STRANGER, STRANGERS_NAME, WITHOUT_CONFIGURATION, DoctorTest
from zancgi_doctor.checks import accounts, nss, pam, program, tmp_dir
from zancgi_doctor.children import run_in_child
from zancgi_doctor.elf import NotElf
from zancgi_doctor.files import first_unsafe, way_to
from zancgi_doctor.findings import finding
from zancgi_doctor.identities import Identity
from zancgi_doctor.libraries import LibrarySearch
from zancgi_doctor.mounts import Mount, mount_of


def site_of(uid=0, name="www", **fields):
    return Mock(identity=Identity(name, uid, uid, []), **fields)


class FindingsTest(unittest.TestCase):
    """What cannot be brought about on each machine."""

    def test_of_the_temporary_directory(self):
        for kind, options, outcome in (
            ("nfs4", set(), "warning remote"),
            ("fuse.sshfs", set(), "warning remote"),
            ("ext4", {"usrquota"}, "ok quota"),
        ):
            with patch.object(tmp_dir, "mount_of", return_value=Mount("/x", kind, options)):
                found = tmp_dir.tmp_dir_file_system(site_of(tmp_dir="/x"))
            expected = finding("tmp-dir.file-system", "/x", outcome, kind=kind, user="www")
            self.assertEqual(found, expected)
        # The mode of a folder of everybody must stay.
        for path in ("/tmp", "/tmp/"):
            with patch.object(tmp_dir, "has_others", return_value=True):
                found = tmp_dir.tmp_dir_listing(site_of(tmp_dir=path))
            values = {"readers": "Every local user"}
            self.assertEqual(found, finding("tmp-dir.listing", path, "warning public", **values))
        found = tmp_dir.tmp_dir_inodes("/x", Mock(f_files=0))
        self.assertEqual(found, finding("tmp-dir.inodes", "/x", "ok none"))

    def test_space_for_root_counts_what_is_kept_for_root(self):
        blocks = Mock(f_bfree=10, f_bavail=5, f_frsize=1024)
        for uid, message in ((0, "10.0 KB are free"), (33, "5.0 KB are free")):
            site = site_of(uid, tmp_dir="/x", min_free=0)
            self.assertIn(message, tmp_dir.tmp_dir_space(site, blocks).message)

    def test_of_programs(self):
        site = site_of(program="/bin/true")
        site.as_front_end.return_value = ""
        with patch.object(program, "mount_of", return_value=Mount("/", "ext4", {"noexec"})):
            found = program.program_file(site)
        self.assertEqual(found, finding("program.file", "/bin/true", "failure noexec"))
        with patch.object(program, "dynamic_of", side_effect=PermissionError(13, DENIED)):
            (found,) = program.program_libraries(site_of(program="/x"), "/x")
        expected = finding("program.libraries", "/x", "unchecked", path="/x", error=DENIED)
        self.assertEqual(found, expected)

    def test_of_pam(self):
        with patch.object(pam.ctypes, "CDLL", side_effect=OSError("no file")):
            found = pam.pam_library()
        self.assertEqual(found, finding("pam.library", "libpam.so.0", "warning", error="no file"))
        no_reading = Mock(side_effect=PermissionError(13, DENIED))
        with patch.multiple(pam, read_file=no_reading, first_unsafe=Mock(return_value="")):
            found = pam.pam_service("/etc/passwd")
        self.assertEqual(found, finding("pam.service", "/etc/passwd", "unchecked", error=DENIED))

    def test_of_name_services(self):
        with patch.object(nss, "read_text", side_effect=FileNotFoundError(2, NOT_THERE)):
            (found,) = nss.check_nss(None)
        path = "/etc/nsswitch.conf"
        self.assertEqual(found, finding("nss.sources", path, "warning missing", error=NOT_THERE))

    def test_of_accounts(self):
        entry = Mock(pw_dir="/none", pw_name="alice")
        with patch.object(accounts.os, "geteuid", return_value=STRANGER):
            found = accounts.account_folder(None, entry)
        self.assertEqual(found, finding("account.folder", "alice", "unchecked"))
        found = accounts.account_leftovers(entry)
        values = {"path": "/none", "error": NOT_THERE}
        self.assertEqual(found, finding("account.leftovers", "alice", "unchecked", **values))

    def test_of_handing_over(self):
        entry = Mock(pw_dir="/srv", pw_name="alice")
        for kind, error, outcome in (
            ("nfs4", "", "warning remote"),
            ("fuse.sshfs", "", "warning fuse"),
            ("ext4", "Operation not permitted", "failure"),
            ("ext4", None, "unchecked"),
        ):
            site = site_of()
            site.as_front_end.return_value = error
            with patch.object(accounts, "mount_of", return_value=Mount("/", kind, set())):
                found = accounts.account_hand_over(site, entry)
            values = {"path": "/srv", "kind": kind, "error": error}
            self.assertEqual(found, finding("account.hand-over", "alice", outcome, **values))

    @AS_ROOT
    def test_of_confinement(self):
        for kind in ("fuse.bindfs", "fuseblk", "nfs4"):
            with patch.object(accounts, "mount_of", return_value=Mount("/", kind, set())):
                why = accounts.why_not_confine("/usr")
            self.assertEqual(why, f"'/usr' is on a file system of type '{kind}'")


class TmpDirTest(DoctorTest):
    group, option = "tmp-dir", "--tmp-dir"

    def setUp(self):
        super().setUp()
        self.subject = self.tmp = self.make_folder("tmp", 0o700)

    def test_exists(self):
        self.judge("exists", "ok")
        for environment, path in (({"TMP": str(self.tmp)}, self.tmp), ({"TMP": ""}, "/tmp")):
            report = self.examine("tmp-dir.exists", environment=environment)
            self.expect(report, "tmp-dir.exists", "ok", path)

    def test_is_none(self):
        self.judge("exists", "failure relative", subject="tmp")
        self.judge("exists", "failure kind", subject=self.make_fifo(), kind="a FIFO")
        none = self.folder / "none"
        report = self.examine("tmp-dir", "--tmp-dir", none)
        self.expect(report, "tmp-dir.exists", "failure missing", none, error=NOT_THERE)
        self.assertEqual(len(report.checks), 1)

    def test_writable(self):
        self.judge("writable", "ok")

    @AS_ROOT
    def test_not_writable(self):
        name, before = STRANGERS_NAME, f"mount -t tmpfs -o ro none {self.tmp}"
        self.judge("writable", "failure", "--as", name, user=name, error=DENIED)
        error = "the file system is mounted read-only"
        self.judge("writable", "failure", before=before, error=error)

    @AS_OTHERS
    def test_not_writable_by_oneself(self):
        self.judge("writable", "unchecked", "--as", "root", user="root")
        self.tmp.chmod(0o500)
        self.judge("writable", "failure", error=DENIED)
        self.tmp.chmod(0o333)
        self.judge("leftovers", "unchecked", error=DENIED)

    def test_safe(self):
        for mode in (0o700, 0o1777):
            self.tmp.chmod(mode)
            self.judge("safe", "ok")
        self.tmp.chmod(0o777)
        self.judge("safe", "failure", unsafe=f"'{self.tmp}' is writable by everybody")

    @AS_ROOT
    def test_belongs_to_a_stranger(self):
        os.chown(self.tmp, STRANGER, STRANGER)
        unsafe = f"'{self.tmp}' belongs to user number {STRANGER}"
        self.judge("safe", "failure", unsafe=unsafe)
        self.judge("safe", "ok", "--as", STRANGER)

    def test_listing(self):
        for mode, outcome, readers in (
            (0o1777, "warning", "Every local user"),
            (0o755, "warning", "Every local user"),
            (0o704, "warning", "Every local user"),
            (0o700, "ok", None),
            (0o1733, "ok", None),
            (0o711, "ok", None),
        ):
            self.tmp.chmod(mode)
            self.judge("listing", outcome, readers=readers)
        # By others, who cannot get there.
        self.tmp.chmod(0o1707)
        self.folder.chmod(0o700)
        self.judge("listing", "ok")

    @AS_ROOT
    def test_listing_by_a_group(self):
        os.chown(self.tmp, STRANGER, STRANGER)
        for mode, members, user, outcome, readers in (
            (0o750, "", "alice", "ok", None),
            (0o750, "", "bob", "warning", "Group 'alice' ('alice')"),
            (0o750, "alice,bob", "alice", "warning", "Group 'alice' ('bob')"),
            (0o730, "alice,bob", "alice", "ok", None),
        ):
            with self.subTest(mode=mode, members=members, user=user):
                self.tmp.chmod(mode)
                before = self.accounts(groups=f"alice:x:{STRANGER}:{members}")
                self.judge("listing", outcome, "--as", user, before=before, readers=readers)

    def test_file_system(self):
        """It may have quotas, and it may be in memory."""
        for path, min_free in ((self.tmp, "0"), ("/dev/shm", "0"), ("/dev/shm", "999T")):
            kind, state = mount_of(path).kind, "ok"
            message = rf"^'{path}' is on a file system of type '{kind}'"
            if kind in ("tmpfs", "ramfs"):
                state = "ok" if min_free == "0" else "warning"
                message = (
                    rf"^'{path}' is in memory \({kind}\), of which [0-9.]+ [KMG]B are available\.$"
                )
            report = self.examine(
                "tmp-dir.file-system", "--tmp-dir", path, "--min-free", min_free
            )
            (found,) = report.findings("tmp-dir.file-system")
            self.assertEqual(found["state"], state)
            self.assertRegex(found["message"], message)

    @AS_ROOT
    def test_space_and_inodes(self):
        fill = f"; head -c 4M /dev/zero > {self.tmp}/x"
        for options, then, min_free, check, outcome, values in (
            ("size=4M", "", "2M", "space", "ok", {"size": "4.0 MB"}),
            ("size=4M", "", "3M", "space", "warning", {"size": "4.0 MB"}),
            ("size=4M", "", "5M", "space", "failure", {"size": "4.0 MB"}),
            ("size=4M", fill, "100M", "space", "failure", {"size": "0 bytes"}),
            ("nr_inodes=20001", "", "0", "inodes", "ok", {"count": "20000 inodes are"}),
            ("nr_inodes=10001", "", "0", "inodes", "ok", {"count": "10000 inodes are"}),
            ("nr_inodes=10000", "", "0", "inodes", "warning", {"count": "9999 inodes are"}),
            ("nr_inodes=5001", "", "0", "inodes", "warning", {"count": "5000 inodes are"}),
            ("nr_inodes=2", "", "0", "inodes", "failure", {"count": "1 inode is"}),
            ("nr_inodes=1", "", "0", "inodes", "failure", {"count": "0 inodes are"}),
        ):
            with self.subTest(options=options, then=then, min_free=min_free):
                before = f"mount -t tmpfs -o {options} none {self.tmp}{then}"
                self.judge(check, outcome, "--min-free", min_free, before=before, **values)

    def test_space_as_anybody(self):
        for min_free, state in (("0", "ok"), ("9999T", "failure")):
            report = self.examine("tmp-dir.space", "--tmp-dir", self.tmp, "--min-free", min_free)
            self.assertEqual(report.state("tmp-dir.space"), state)

    def make_upload(self, name, size, hours):
        path = self.tmp / name
        path.write_bytes(b"x" * size)
        os.utime(path, (time.time() - hours * 3600,) * 2)

    def test_leftovers(self):
        self.judge("leftovers", "ok", count="0 uploads are")
        self.make_upload("zantempAAAAAA", 10, 1)
        self.make_upload("another", 10, 99)
        (self.tmp / "zantempfolder").mkdir()
        (self.tmp / "zantemplink").symlink_to("another")
        os.mkfifo(self.tmp / "zantempfifo")
        self.judge("leftovers", "ok", count="1 upload is")
        self.make_upload("zantempBBBBBB", 2048, 50)
        self.make_upload("zantempCCCCCC", 1024, 30)
        self.make_upload(".tov-AbC12", 1024, 99)
        self.make_upload(".tov-AbC1234", 1024, 99)
        self.judge("leftovers", "warning", count="2 uploads are", size="3.0 KB", age="50 hours")
        self.make_upload(".tov-AbC123", 1024, 60)
        self.judge("leftovers", "warning", count="3 uploads are", size="4.0 KB", age="60 hours")

    @AS_ROOT
    def test_ageing(self):
        systemd = "mkdir -p /run/systemd/system"
        for rule, then, outcome in (
            (f"d {self.tmp} 0700 root root 1d", systemd, "ok"),
            (f"e! {self.folder}/t*/ - - - 12h", systemd, "ok"),
            (f"d {self.tmp} 0700 root root -", systemd, "warning"),
            (f"r! {self.tmp}/zantemp*", systemd, "warning"),
            ("", systemd, "warning"),
            ("", "true", "skipped"),
        ):
            write = f"echo {shlex.quote(rule)} > /etc/tmpfiles.d/x.conf"
            self.judge("ageing", outcome, before="; ".join([*WITHOUT_CONFIGURATION, write, then]))


def elf_file(needed=(), runpath="", rpath="", behind_the_end=()):
    """A 64-bit ELF file that has a dynamic section and nothing else."""
    strings = b"\0"
    entries = []
    wanted = [(1, name) for name in needed] + [(29, runpath), (15, rpath)]
    for tag, text in [*wanted, (0, "end"), *((1, name) for name in behind_the_end)]:
        if text:
            entries.append((tag, len(strings)))
            strings += text.encode() + b"\0"
    table_at = 64 + 2 * 56
    size = 16 * (len(entries) + 1)
    entries.insert(0, (5, table_at + size))
    table = b"".join(struct.pack("<qQ", *entry) for entry in entries)
    whole = table_at + size + len(strings)
    header = b"\x7fELF\x02\x01\x01" + bytes(9)
    header += struct.pack("<HHIQQQIHHHHHH", 3, 62, 1, 0, 64, 0, 0, 64, 56, 2, 0, 0, 0)
    segments = struct.pack("<IIQQQQQQ", 1, 5, 0, 0, 0, whole, whole, 4096)
    segments += struct.pack("<IIQQQQQQ", 2, 6, table_at, table_at, 0, size, size, 8)
    return header + segments + table + strings


class ProgramTest(DoctorTest):
    group, option = "program", "--program"

    def setUp(self):
        super().setUp()
        self.bin = self.make_folder("bin")
        self.subject = self.program_path = self.bin / "panel"
        shutil.copy("/bin/true", self.program_path)
        if "noexec" in mount_of(self.folder).options:
            self.skipTest("no program below /tmp may be run here")

    def test_none_is_named(self):
        report = self.examine("program")
        self.expect(report, "program.file", "skipped", "")
        self.assertEqual(report.status, 0)

    def test_may_be_run(self):
        self.judge("file", "ok")
        self.program_path.chmod(0o644)
        self.judge("file", "failure", error=DENIED)

    def test_is_missing_or_no_program(self):
        self.make_fifo()
        for name, outcome, values in (
            ("none", "failure missing", {"error": NOT_THERE}),
            ("fifo", "failure kind", {"kind": "a FIFO"}),
            ("bin", "failure kind", {"kind": "a folder"}),
        ):
            report = self.examine("program", "--program", self.folder / name)
            self.expect(report, "program.file", outcome, self.folder / name, **values)
            self.assertEqual(len(report.checks), 1)

    @AS_OTHERS
    def test_rights_of_another_are_not_known(self):
        self.judge("file", "unchecked", "--as", "root", user="root")
        self.judge("work-dir", "unchecked", "--as", "root", user="root", path=str(self.folder))

    @AS_ROOT
    def test_noexec(self):
        before = f"mount -t tmpfs -o noexec,mode=755 none {self.bin}; "
        before += f"cp /bin/true {self.program_path}"
        report = self.examine("program.file", "--program", self.program_path, before=before)
        # The kernel's answer depends on how it is asked; both mean the same.
        (found,) = report.findings("program.file")
        self.assertEqual(found["state"], "failure")
        self.assertRegex(found["message"], "mounted noexec|Permission denied")

    def test_safe(self):
        self.judge("safe", "ok" if IS_ROOT else "warning")
        for path in (self.program_path, self.bin):
            path.chmod(0o777)
            self.judge("safe", "failure", unsafe=f"'{path}' is writable by everybody")
            path.chmod(0o755)

    @AS_ROOT
    def test_of_another_owner(self):
        os.chown(self.program_path, STRANGER, STRANGER)
        unsafe = f"'{self.program_path}' belongs to user number {STRANGER}"
        self.judge("safe", "failure", unsafe=unsafe)
        # Run as somebody else, its owner is trusted.
        self.judge("safe", "ok", "--as", STRANGER + 1)

    def test_set_id(self):
        for mode, outcome, bit in ((0o755, "ok", None), (0o4755, "warning", "set-uid"),
                                   (0o2755, "warning", "set-gid")):  # fmt: skip
            self.program_path.chmod(mode)
            self.judge("set-id", outcome, bit=bit)

    def test_work_dir(self):
        self.judge("work-dir", "ok", path=str(self.folder))

    @AS_ROOT
    def test_work_dir_cannot_be_entered(self):
        home = self.make_folder("home", 0o700)
        (home / "bin").mkdir()
        (self.folder / "front").symlink_to(home / "bin")
        shutil.copy("/bin/true", home / "bin" / "panel")
        stranger = Identity("x", STRANGER, STRANGER, [])
        site = Mock(program=f"{self.folder}/front/panel", identity=stranger)
        site.as_front_end.side_effect = lambda function, *arguments: run_in_child(
            LONG, function, *arguments, identity=stranger
        )
        found = program.program_work_dir(site)
        values = {"path": str(home), "user": "x", "error": DENIED}
        self.assertEqual(found, finding("program.work-dir", site.program, "warning", **values))

    def test_libraries(self):
        """They are those of the linker's own answer, for a program that may be run."""
        report = self.examine("program.libraries", "--program", self.program_path)
        (found,) = report.findings("program.libraries")
        self.assertEqual(found["state"], "ok")
        message = r"^The shared libraries of the program are found \(\d+\); libzancgi, if any, is "
        self.assertRegex(found["message"], message + r"linked in\.$")
        listing = subprocess.run(
            ["ldd", sys.executable], env={"PATH": os.environ["PATH"]}, capture_output=True,
            text=True, check=True,
        ).stdout  # fmt: skip
        named = re.findall(r"^\s*(\S+) => (\S+)", listing, re.MULTILINE)
        expected = {name: os.path.realpath(path) for name, path in named}
        search = LibrarySearch({})
        search.search(os.path.realpath(sys.executable))
        self.assertEqual(search.missing, [])
        found = {name: path for name, path in search.found.items() if not name.startswith("ld-")}
        self.assertEqual(found, expected)

    def write_elf(self, *arguments, **more):
        self.program_path.write_bytes(elf_file(*arguments, **more))

    def test_library_beside_the_program(self):
        """With the version of libzancgi, by the link's end."""
        lib = self.make_folder("lib")
        (lib / "libzancgi.so.1.2.3").write_bytes(elf_file(["libnone.so.9"]))
        (lib / "libzancgi.so.1").symlink_to("libzancgi.so.1.2.3")
        (lib / "libnone.so.9").write_bytes(elf_file())
        own = f"libzancgi is '{lib}/libzancgi.so.1.2.3'"
        # A RPATH counts for the libraries' libraries as well.
        self.write_elf(["libzancgi.so.1"], rpath="$ORIGIN/../lib")
        self.judge("libraries", "ok", count=2, own=own)
        # A RUNPATH does not.
        self.write_elf(["libzancgi.so.1"], runpath="${ORIGIN}/../lib")
        self.judge("libraries", "failure", names="'libnone.so.9'")
        environment = {"LD_LIBRARY_PATH": str(lib)}
        self.judge("libraries", "ok", environment=environment, count=2, own=own)
        # With a RUNPATH the RPATH does not count at all. By a name that is not
        # installed on any machine.
        self.write_elf(["libnone.so.9"], runpath="/none", rpath="$ORIGIN/../lib")
        self.judge("libraries", "failure", names="'libnone.so.9'")

    def test_library_is_missing(self):
        self.write_elf(["libc.so.6", "libzancgi.so.\x1b1"])
        self.judge("libraries", "failure", names="'libzancgi.so.\\x1b1'")
        # Nothing is needed after the end of the table.
        self.write_elf(["libc.so.6"], behind_the_end=["libnone.so.9"])
        report = self.examine("program", "--program", self.program_path)
        self.assertEqual(report.state("program.libraries"), "ok")

    def test_library_by_its_path(self):
        """Such a name is looked for nowhere else."""
        path = self.bin / "libown.so"
        self.write_elf([str(path)], runpath="$ORIGIN")
        self.judge("libraries", "failure", names=f"'{path}'")
        path.write_bytes(elf_file())
        self.judge("libraries", "ok", count=1, own="libzancgi, if any, is linked in")
        self.write_elf(["./libown.so"], runpath="$ORIGIN")
        self.judge("libraries", "failure", names="'./libown.so'")

    def test_no_elf_file(self):
        for data, error in (
            (b"\x7fELF\x01\x01" + bytes(99), "is no 64-bit program"),
            (b"\x7fELF\x02\x02" + bytes(99), "is no 64-bit program"),
            (b"", "is no 64-bit program"),
            (elf_file(["libc.so.6"])[:100], "is cut short"),
        ):
            self.program_path.write_bytes(data)
            self.judge("libraries", "skipped", error=error)

    def test_damaged_elf_files(self):
        """Whatever the bytes, there is a finding and no end by a fault."""
        whole = elf_file(["libc.so.6", "libm.so.6"], "/a:/b")
        for position in range(0, len(whole), 7):
            data = bytearray(whole)
            data[position : position + 8] = b"\xff" * 8
            self.program_path.write_bytes(data)
            try:
                LibrarySearch({}).search(str(self.program_path))
            except NotElf:
                pass

    def script(self, text):
        path = self.bin / "launcher"
        path.write_text("#!/bin/sh\n" + text)
        path.chmod(0o755)
        return path

    def examine_script(self, text):
        self.subject = self.script(text)
        return self.examine("program", "--program", self.subject)

    def expect_launcher(self, report, outcome, **values):
        path = self.subject
        self.expect(report, "program.launcher", outcome, path, path=str(path), **values)

    def test_script_that_names_its_program(self):
        """As the launcher of the documents: variables, limits, then a timer."""
        program_path = str(self.program_path)
        for line in (
            "exec /usr/bin/timeout --kill-after=2 $seconds {}",
            "exec {}",
            '  exec {} "$@"',
            "exec /usr/bin/env A=b \\\n  '{}' # /bin/false",
            "exec {} /etc/passwd; exit",
            "exec 2>>/var/log/none\nexec {}",
        ):
            report = self.examine_script(line.format(program_path) + "\n")
            self.expect_launcher(report, "ok", program=program_path)
            found = {check["name"]: check["subject"] for check in report.checks}
            for check in ("work-dir", "libraries", "search-path"):
                self.assertEqual(found[f"program.{check}"], program_path)
            subjects = [check["subject"] for check in report.findings("program.safe")]
            self.assertEqual(subjects, [str(self.subject), program_path])
        # The program is judged as well.
        self.program_path.chmod(0o777)
        report = self.examine_script(f"exec {program_path}\n")
        self.assertEqual(report.findings("program.safe")[1]["state"], "failure")

    def test_script_that_does_not_name_its_program(self):
        other = self.script(f"exec {self.program_path}\n").rename(self.bin / "other")
        for text in (
            "",
            f"{self.program_path}\n",
            'exec "$PROGRAM"\n',
            f"# exec {self.program_path}\n",
            "exec ./panel\n",
            f"exec {self.folder}/none\n",
            f"exec {other}\n",
            f"case $a in\n b)\nexec {self.program_path} ;;\nesac\nexec /bin/true\n",
            "exec 'unfinished\n",
        ):
            report = self.examine_script(text)
            self.expect_launcher(report, "unchecked")
            self.assertEqual(report.findings("program.work-dir"), [], text)

    def test_launcher_of_the_documents(self):
        """With its program's path only another one."""
        document = (SOURCE / "docs" / "deployment.md").read_text()
        text = re.search(r"(?ms)^```sh /opt/panel/cgi/panel\n(.*?)^```", document)
        text = text[1].replace("/opt/panel/bin/panel", str(self.program_path))
        self.assertEqual(self.examine_script(text).state("program.launcher"), "ok")

    def test_program_is_not_run(self):
        evidence = self.folder / "evidence"
        self.program_path.write_text(f"#!/bin/sh\ntouch {evidence}\n")
        self.doctor("--program", self.program_path)
        self.assertFalse(evidence.exists())

    def test_search_path(self):
        lib = self.make_folder("lib", 0o777)
        for runpath, outcome, unsafe in (
            ("", "ok", None),
            ("/usr/lib", "ok", None),
            ("/no/such/folder", "ok", None),
            ("$ORIGIN/../bin", "ok", None),
            ("/usr/lib:lib", "failure", "'lib' is relative to the current directory"),
            ("/usr/lib::/lib", "failure", "an empty item stands for the current directory"),
            (str(lib), "failure", f"'{lib}' is writable by everybody"),
        ):
            self.write_elf(["libc.so.6"], runpath)
            self.judge("search-path", outcome, unsafe=unsafe)


class PamTest(DoctorTest):
    group, subject = "pam", "/etc/pam.d/login"

    def test_library(self):
        self.judge("library", "ok", subject="libpam.so.0")

    def test_service_of_this_machine(self):
        if not os.path.exists(self.subject):
            self.skipTest("the package login is not installed")
        if first_unsafe(way_to(self.subject), {0}, allows_sticky=False):
            self.skipTest("others than root can change /etc/pam.d/login on this machine")
        self.judge("service", "ok")

    @AS_ROOT
    def test_services_and_modules(self):
        """On a machine whose service 'login' reads like this."""
        module = self.make_file("module.so", "", 0o666)
        sound = "auth required nothing.so\nsession required pam_unix.so\n"
        several = (
            "# session required comment.so\n"
            "@include more\n"
            "-session optional may_be_missing.so\n"
            "session [success=ok default=ignore] a.so with arguments\n"
            "SESSION required \\\n b.so\n"
            "session substack login\n"
            "session include more\n"
            "account required other.so\n"
        )
        login = self.subject
        everybody = "is writable by everybody"
        names = "'c.so', 'a.so', 'b.so'"
        with_c = "echo 'session required c.so' > /etc/pam.d/more"
        # The folder of all tests comes first on the path.
        unsafe = f"'/tmp' {everybody}"
        for text, then, check, outcome, values in (
            (sound, "true", "service", "ok", {}),
            (sound, "true", "modules", "ok", {"count": "1 module"}),
            ("", f"rm {login}", "service", "warning", {"error": NOT_THERE}),
            ("", f"rm {login}; mkfifo {login}", "service", "failure kind", {"kind": "a FIFO"}),
            ("", f"chmod o+w {login}", "service", "failure", {"unsafe": f"'{login}' {everybody}"}),
            (several, with_c, "modules", "warning", {"names": names}),
            # What is no regular file is not waited for.
            ("@include more\n", "mkfifo /etc/pam.d/more", "modules", "ok", {"count": "0 modules"}),
            (f"session required {module}\n", "true", "modules", "failure", {"unsafe": unsafe}),
        ):
            with self.subTest(text=text, then=then):
                before = (
                    f"cp -a /etc/pam.d {self.folder}; mount --bind {self.folder}/pam.d /etc/pam.d; "
                    f"printf %s {shlex.quote(text)} > {login}; {then}"
                )
                report = self.examine("pam", before=before)
                self.expect(report, f"pam.{check}", outcome, login, **values)
                shutil.rmtree(self.folder / "pam.d")


class AccountTest(DoctorTest):
    group, subject = "account", "alice"
    HOME = "/srv/alice"

    def setUp(self):
        super().setUp()
        if DOCTOR.is_relative_to("/srv"):
            self.skipTest("the tools lie below /srv, where the accounts of this test have homes")
        self.tmp = self.make_folder("tmp", 0o700)

    def prepare(self, then="true", home=HOME, **accounts):
        """A machine that has alice and none of this machine's, with homes below /srv."""
        return self.accounts(home, **accounts) + (
            f"; mount -t tmpfs -o mode=755 none /srv; mkdir -p /srv/alice; {then}"
        )

    def judge_alice(self, check, outcome, *arguments, then="true", home=HOME, machine=(), **values):
        arguments = ("--account", "alice", "--tmp-dir", self.tmp, *arguments)
        before = self.prepare(then, home, **dict(machine))
        values = {"path": str(home), "tmp_dir": str(self.tmp), **values}
        return self.judge(check, outcome, *arguments, before=before, **values)

    def expect_none(self, check, *arguments, then="true"):
        arguments = ("--account", "alice", *arguments)
        report = self.examine(f"account.{check}", *arguments, before=self.prepare(then))
        self.assertEqual(report.findings(f"account.{check}"), [])

    def test_no_account(self):
        self.expect(self.examine("account"), "account.exists", "skipped", "")
        name = "no-such\x1b[1m"
        self.expect(self.examine("account", "--account", name), "account.exists", "failure", name)

    def test_root(self):
        report = self.examine("account", "--account", "root")
        self.expect(report, "account.exists", "ok", "root")
        self.expect(report, "account.numbers", "warning root", "root")
        self.assertEqual(report.findings("account.way"), [])

    @AS_ROOT
    def test_numbers(self):
        secret = f"secret:x:{STRANGER}:"
        for machine, outcome, group in (
            ({}, "ok", None),
            ({"uid": 6}, "warning low", "'disk'"),
            ({"uid": 999}, "warning low", "number 999"),
            ({"uid": 1000}, "ok", None),
            # A group of the user's number.
            ({"gid": 100, "groups": secret}, "warning group", "'secret'"),
            ({"gid": 100, "groups": secret + "bob,alice"}, "ok", None),
        ):
            uid = machine.get("uid")
            self.judge_alice("numbers", outcome, machine=machine, uid=uid, group=group)

    @AS_ROOT
    def test_home(self):
        self.judge_alice("home", "ok")
        self.judge_alice("home", "failure empty", home="")
        self.judge_alice("home", "failure missing", home="/srv/bob", error=NOT_THERE)
        self.judge_alice(
            "home", "failure kind", home="/srv/x", then="mkfifo /srv/x", kind="a FIFO"
        )

    @AS_OTHERS
    def test_home_cannot_be_looked_at(self):
        path = str(self.make_folder("closed", 0) / "home")
        found = accounts.account_home(Mock(pw_dir=path, pw_name="alice"))
        values = {"path": path, "error": DENIED}
        self.assertEqual(found, finding("account.home", "alice", "unchecked", **values))

    @AS_ROOT
    def test_way(self):
        self.judge_alice("way", "ok", then=f"chown {STRANGER} /srv/alice")
        for then, unsafe in (
            ("chmod 1777 /srv", "'/srv' is writable by everybody"),
            (f"chown 0:{STRANGER} /srv; chmod 775 /srv", "'/srv' is writable by group 'alice'"),
            (f"chown {STRANGER} /srv", "'/srv' belongs to user 'alice'"),
        ):
            self.judge_alice("way", "failure", then=then, unsafe=unsafe)

    @AS_ROOT
    def test_confinement(self):
        self.judge_alice("confinement", "ok", "--confined")
        for then, unsafe in (
            (f"chown {STRANGER} /srv/alice", "'/srv/alice' belongs to user 'alice'"),
            ("chmod 775 /srv/alice", "'/srv/alice' is writable by others than its owner"),
            ("chmod 1777 /srv", "'/srv' is writable by others than its owner"),
        ):
            self.judge_alice("confinement", "failure", "--confined", then=then, unsafe=unsafe)
            self.judge_alice("confinement", "skipped", then=then, unsafe=unsafe)

    @AS_ROOT
    def test_folder(self):
        """None of another is one, nor one out of reach; whether the way to the home
        is free counts only outside."""
        files = "install -d -o alice -m 700 /srv/alice/files"
        closed = "mkdir -m 700 /srv/alice/closed; install -d -o alice /srv/alice/closed/files"
        for then, folder in (
            (files, "/srv/alice/files"),
            ("mkdir -p /srv/alice/a/b; install -d -o alice /srv/alice/a/c", "/srv/alice/a/c"),
            ("install -d -g alice -m 770 /srv/alice/shared", "/srv/alice/shared"),
            ("chown alice /srv/alice", "/srv/alice"),
            (f"{files}; chmod 700 /srv", "/srv/alice/files"),
            ("true", None),
            ("mkdir -p /srv/alice/a/b; install -d -o bob /srv/alice/c", None),
            ("install -d -o alice -m 500 /srv/alice/files", None),
            ("install -d -o alice /srv/files; ln -s ../files /srv/alice/files", None),
            (closed, None),
        ):
            outcome = "ok" if folder else "failure"
            report = self.judge_alice("folder", outcome, "--confined", then=then, folder=folder)
            self.assertEqual(report.status, 0 if folder else 2)
        self.expect_none("folder")

    @AS_ROOT
    def test_session_of_a_confined_account(self):
        login = "mkdir -p /srv/alice/etc/pam.d; touch /srv/alice/etc/pam.d/login"
        path = "/srv/alice/etc/pam.d/login"
        both = ("--confined", "--pam")
        for then, unsafe in (
            ("true", f"'{path}' does not exist, where PAM then looks"),
            (f"{login}; chown alice /srv/alice", "'/srv/alice' belongs to user 'alice'"),
            (f"{login}; chmod 775 /srv/alice", "'/srv/alice' is writable by others than its owner"),
        ):
            with self.subTest(then=then):
                self.judge_alice("session", "skipped", "--confined", then=then, unsafe=unsafe)
                self.judge_alice("session", "warning", *both, then=then, unsafe=unsafe)
                self.expect_none("session", "--pam", then=then)
        self.judge_alice("session", "ok", *both, then=login, login=path)

    @AS_ROOT
    def test_leftovers(self):
        """Copies that are root's, and no others."""
        files = (
            "cd /srv/alice; head -c 9 /dev/zero > .tov-fresh1; head -c 99 /dev/zero > theirs; "
            "cp theirs .tov-theirs; cp theirs .tov-short; cp theirs .tov-too-long; "
            "mkdir .tov-folder; chown alice .tov-theirs; touch -d '-99 hours' .tov-* theirs; "
            "touch .tov-fresh1; cd /"
        )
        self.judge_alice("leftovers", "ok", then=files, count="1 copy of an upload is")
        files += (
            "; head -c 2048 /dev/zero > /srv/alice/.tov-AbC123; cp /srv/alice/.tov-A* "
            "/srv/alice/.tov-000000; touch -d '-30 hours' /srv/alice/.tov-A*; "
            "touch -d '-50 hours' /srv/alice/.tov-0*"
        )
        values = {"count": "2 copies of uploads are", "size": "4.0 KB", "age": "50 hours"}
        self.judge_alice("leftovers", "warning", then=files, **values)

    @AS_ROOT
    def test_hand_over(self):
        self.judge_alice("hand-over", "ok")
        self.judge_alice("hand-over", "failure read-only", then="mount -o remount,ro /srv")
        self.judge_alice("hand-over", "failure user", "--as", "alice", user="alice")

    @AS_ROOT
    def test_space(self):
        self.judge_alice("space", "ok moved", home=self.make_folder("home"))
        small = "mount -t tmpfs -o size=4M none /srv/alice"
        for min_free, outcome in (("1M", "ok"), ("3M", "warning"), ("5M", "failure")):
            self.judge_alice("space", outcome, "--min-free", min_free, then=small, size="4.0 MB")
        self.judge_alice("space", "unchecked", then=f"rmdir {self.tmp}", error=NOT_THERE)


class NssTest(DoctorTest):
    group, subject = "nss", "/etc/nsswitch.conf"

    @AS_ROOT
    def test_sources(self):
        for text, outcome, names in (
            ("# passwd: no\npasswd: files [NOTFOUND=return] # x\nhosts: none\n", "ok", "'files'"),
            ("passwd: files nosuch\ngroup: files\x1b\n", "warning", "'nosuch', 'files\\x1b'"),
        ):
            before = f"mount --bind {self.make_file('nsswitch.conf', text)} {self.subject}"
            self.judge("sources", outcome, before=before, names=names)


if __name__ == "__main__":
    unittest.main()
