"""The checks of zancgi-doctor of the temporary directory, programs, PAM and accounts."""

import contextlib
import os
import re
import shutil
import struct
import subprocess
import sys
import unittest
from unittest.mock import Mock, patch

from doctor_support import AS_ROOT, DENIED, LONG, NOT_THERE, SOURCE, STRANGER, DoctorTest
from zancgi_doctor.checks import accounts, pam, program, tmp_dir
from zancgi_doctor.children import run_in_child
from zancgi_doctor.files import Mount, first_unsafe, mount_of, path_to
from zancgi_doctor.findings import finding
from zancgi_doctor.identities import Identity
from zancgi_doctor.libraries import LibrarySearch, NotElf


def site_of(uid=0, name="www", **fields):
    return Mock(identity=Identity(name, uid, uid, []), **fields)


class FindingsTest(unittest.TestCase):
    """Situations that cannot be created on every machine."""

    def judge(self, found, check, outcome, subject, **values):
        self.assertEqual(found, finding(check, subject, outcome, **values))

    def test_findings_of_the_temporary_directory(self):
        megabyte = 1 << 20
        for kind, options, min_free, outcome in (
            ("nfs4", set(), 0, "warning remote"),
            ("fuse.sshfs", set(), 0, "warning remote"),
            ("ext4", {"usrquota"}, 0, "ok quota"),
            ("tmpfs", set(), megabyte, "ok memory"),
            ("ramfs", set(), megabyte + 1, "warning memory"),
        ):
            mount = Mock(return_value=Mount("/x", kind, options))
            available = Mock(return_value=megabyte)
            with patch.multiple(tmp_dir, mount_of=mount, memory_available=available):
                found = tmp_dir.tmp_dir_file_system(site_of(tmp_dir="/x", min_free=min_free))
            values = {"kind": kind, "user": "www", "size": "1.0 MB"}
            self.judge(found, "tmp-dir.file-system", outcome, "/x", **values)
        # The mode of a public folder must not be changed.
        readers = "Every local user"
        for path in ("/tmp", "/tmp/"):
            with patch.object(tmp_dir, "has_others", return_value=True):
                found = tmp_dir.tmp_dir_listing(site_of(tmp_dir=path))
            self.judge(found, "tmp-dir.listing", "warning public", path, readers=readers)
        found = tmp_dir.tmp_dir_inodes("/x", Mock(f_files=0))
        self.judge(found, "tmp-dir.inodes", "ok none", "/x")

    def test_root_can_use_reserved_space(self):
        blocks = Mock(f_bfree=10, f_bavail=5, f_frsize=1024)
        for uid, kilobytes, outcome, size in (
            (0, 5, "ok", "10.0 KB"),
            (0, 6, "warning", "10.0 KB"),
            (33, 6, "failure", "5.0 KB"),
        ):
            site = site_of(uid, tmp_dir="/x", min_free=kilobytes << 10)
            found = tmp_dir.tmp_dir_space(site, blocks)
            self.judge(found, "tmp-dir.space", outcome, "/x", size=size)

    def test_findings_of_programs(self):
        site = site_of(program="/bin/true")
        site.as_front_end.return_value = ""
        with patch.object(program, "mount_of", return_value=Mount("/", "ext4", {"noexec"})):
            found = program.program_file(site)
        self.judge(found, "program.file", "failure noexec", "/bin/true")
        with patch.object(program, "dynamic_of", side_effect=PermissionError(13, DENIED)):
            (found,) = program.program_libraries(site_of(program="/x"), "/x")
        self.judge(found, "program.libraries", "unchecked", "/x", path="/x", error=DENIED)

    def test_findings_of_pam(self):
        with patch.object(pam.ctypes, "CDLL", side_effect=OSError("no file")):
            found = pam.pam_library()
        self.judge(found, "pam.library", "warning", "libpam.so.0", error="no file")
        no_reading = Mock(side_effect=PermissionError(13, DENIED))
        with patch.multiple(pam, read_file=no_reading, first_unsafe=Mock(return_value="")):
            found = pam.pam_service("/etc/passwd")
        self.judge(found, "pam.service", "unchecked", "/etc/passwd", error=DENIED)

    def test_findings_of_accounts(self):
        entry = Mock(pw_dir="/none", pw_name="alice")
        with patch.object(accounts.os, "geteuid", return_value=STRANGER):
            found = accounts.account_folder(None, entry)
        self.judge(found, "account.folder", "unchecked", "alice")
        found = accounts.account_leftovers(entry)
        self.judge(found, "account.leftovers", "unchecked", "alice", path="/none", error=NOT_THERE)
        with patch.object(accounts.os, "stat", side_effect=PermissionError(13, DENIED)):
            found = accounts.account_home(entry)
        self.judge(found, "account.home", "unchecked", "alice", path="/none", error=DENIED)
        for kind in ("fuse.bindfs", "fuseblk", "nfs4"):
            with patch.object(accounts, "mount_of", return_value=Mount("/", kind, set())):
                why = accounts.why_not_confine("/usr")
            self.assertEqual(why, f"'/usr' is on a file system of type '{kind}'")
        with patch.object(accounts, "read_text", side_effect=FileNotFoundError(2, NOT_THERE)):
            (found,) = accounts.check_nss(None)
        path = "/etc/nsswitch.conf"
        self.judge(found, "nss.sources", "warning missing", path, error=NOT_THERE)

    def test_findings_of_the_hand_over(self):
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
            self.judge(found, "account.hand-over", outcome, "alice", **values)


class ThisMachineTest(DoctorTest):
    """Findings that depend on the machine that runs the tests."""

    def test_pam_service_of_this_machine(self):
        path = "/etc/pam.d/login"
        if not os.path.exists(path):
            self.skipTest("the package login is not installed")
        if first_unsafe(path_to(path), {0}, allows_sticky=False):
            self.skipTest("others than root can change /etc/pam.d/login on this machine")
        self.expect(self.examine("pam"), "pam.service", "ok", path)

    def test_file_system_of_uploads(self):
        report = self.examine("tmp-dir", "--tmp-dir", self.folder)
        self.assertIn(f"'{self.folder}' is ", report.findings("tmp-dir.file-system")[0]["message"])
        memory = os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGE_SIZE")
        self.assertTrue(memory / 200 < tmp_dir.memory_available() <= memory)


def elf_file(needed=(), runpath="", rpath="", after_the_end=()):
    """A 64-bit ELF file that only has a dynamic section."""
    strings = b"\0"
    entries = []
    wanted = [(1, name) for name in needed] + [(29, runpath), (15, rpath)]
    further = [(1, name) for name in after_the_end] or [(0, "end")]
    for tag, text in [*wanted, *further]:
        if text:
            entries.append((tag, len(strings)))
            strings += text.encode() + b"\0"
    table_at = 64 + 2 * 56
    entries.insert(0, (5, table_at + 16 * (len(entries) + 1)))
    table = b"".join(struct.pack("<qQ", *entry) for entry in entries)
    size = len(table) - 16 * len(after_the_end)
    whole = table_at + len(table) + len(strings)
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

    @AS_ROOT
    def test_program_on_a_noexec_mount(self):
        before = f"mount -t tmpfs -o noexec,mode=755 none {self.bin}; "
        before += f"cp /bin/true {self.program_path}"
        report = self.examine("program.file", "--program", self.program_path, before=before)
        # Kernels differ in the error; both mean the same.
        (found,) = report.findings("program.file")
        self.assertEqual(found["state"], "failure")
        self.assertRegex(found["message"], "mounted noexec|Permission denied")

    @AS_ROOT
    def test_working_directory_cannot_be_entered(self):
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

    def test_libraries_are_those_that_the_linker_finds(self):
        report = self.examine("program.libraries", "--program", self.program_path)
        (found,) = report.findings("program.libraries")
        self.assertEqual(found["state"], "ok")
        message = r"^The shared libraries of the program are found \(\d+\); libzancgi, if used, is "
        self.assertRegex(found["message"], message + r"linked statically\.$")
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

    def test_libraries_are_found_by_search_paths(self):
        """libzancgi is reported with its version, from the link's target."""
        lib = self.make_folder("lib")
        (lib / "libzancgi.so.1.2.3").write_bytes(elf_file(["libnone.so.9"]))
        (lib / "libzancgi.so.1").symlink_to("libzancgi.so.1.2.3")
        (lib / "libnone.so.9").write_bytes(elf_file())
        own = f"libzancgi is '{lib}/libzancgi.so.1.2.3'"
        # An RPATH also applies to the libraries of libraries.
        self.write_elf(["libzancgi.so.1"], rpath="$ORIGIN/../lib")
        self.judge("libraries", "ok", count=2, own=own)
        # A RUNPATH does not.
        self.write_elf(["libzancgi.so.1"], runpath="${ORIGIN}/../lib")
        self.judge("libraries", "failure", names="'libnone.so.9'")
        environment = {"LD_LIBRARY_PATH": str(lib)}
        self.judge("libraries", "ok", environment=environment, count=2, own=own)
        # A RUNPATH disables the RPATH. No machine has a library of this name.
        self.write_elf(["libnone.so.9"], runpath="/none", rpath="$ORIGIN/../lib")
        self.judge("libraries", "failure", names="'libnone.so.9'")

    def test_missing_libraries_are_reported(self):
        self.write_elf(["libc.so.6", "libzancgi.so.\x1b1"])
        self.judge("libraries", "failure", names="'libzancgi.so.\\x1b1'")
        # Entries after the end of the table are ignored.
        self.write_elf(["libc.so.6"], after_the_end=["libnone.so.9"])
        report = self.examine("program", "--program", self.program_path)
        self.assertEqual(report.state("program.libraries"), "ok")

    def test_library_named_by_a_path_is_not_searched_for(self):
        path = self.bin / "libown.so"
        self.write_elf([str(path)], runpath="$ORIGIN")
        self.judge("libraries", "failure", names=f"'{path}'")
        path.write_bytes(elf_file())
        self.judge("libraries", "ok", count=1, own="libzancgi, if used, is linked statically")
        self.write_elf(["./libown.so"], runpath="$ORIGIN")
        self.judge("libraries", "failure", names="'./libown.so'")

    def test_other_files_than_elf_are_skipped(self):
        for data, error in (
            (b"\x7fELF\x01\x01" + bytes(99), "is not a 64-bit program"),
            (b"\x7fELF\x02\x02" + bytes(99), "is not a 64-bit program"),
            (b"", "is not a 64-bit program"),
            (elf_file(["libc.so.6"])[:100], "is truncated"),
        ):
            self.program_path.write_bytes(data)
            self.judge("libraries", "skipped", error=error)

    def test_damaged_elf_files_cause_no_other_exception(self):
        whole = elf_file(["libc.so.6", "libm.so.6"], "/a:/b")
        search = LibrarySearch({})
        for position in range(0, len(whole), 7):
            data = bytearray(whole)
            data[position : position + 8] = b"\xff" * 8
            self.program_path.write_bytes(data)
            with contextlib.suppress(NotElf):
                search.search(str(self.program_path))

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

    def test_program_started_by_a_script_is_found(self):
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
        # The program is checked as well.
        self.program_path.chmod(0o777)
        report = self.examine_script(f"exec {program_path}\n")
        self.assertEqual(report.findings("program.safe")[1]["state"], "failure")

    def test_program_started_by_a_script_is_unclear(self):
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

    def test_launcher_in_the_documents_is_understood(self):
        """With another path of its program."""
        document = (SOURCE / "docs" / "deployment.md").read_text()
        text = re.search(r"(?ms)^```sh /opt/panel/cgi/panel\n(.*?)^```", document)
        text = text[1].replace("/opt/panel/bin/panel", str(self.program_path))
        self.assertEqual(self.examine_script(text).state("program.launcher"), "ok")

    def test_program_is_never_run(self):
        evidence = self.folder / "evidence"
        self.program_path.write_text(f"#!/bin/sh\ntouch {evidence}\n")
        self.doctor("--program", self.program_path)
        self.assertFalse(evidence.exists())

    def test_search_path_has_trusted_folders_only(self):
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


if __name__ == "__main__":
    unittest.main()
