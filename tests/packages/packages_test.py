#!/usr/bin/python3
"""The Debian packages, on a Debian that has nothing else.

Made by debootstrap from the mirror of the machine's own apt, or from
ZANCGI_DEBIAN_MIRROR, in a folder and mounts of this process's own.
PACKAGES=FOLDER takes packages that scripts/package has left there.
"""

import functools
import os
import pathlib
import re
import shutil
import stat
import subprocess
import sys
import tempfile
import unittest

SOURCE = pathlib.Path(__file__).resolve().parents[2]
SUITE = "bookworm"
NEEDED = ("debootstrap", "git", "unshare")
IN_MOUNTS_OF_ITS_OWN = "ZANCGI_PACKAGES_TEST"

OURS = {"libtov-dev", "libtov1", "libzancgi-dev", "libzancgi1", "zancgi-doc", "zancgi-tools"}
# Not for installing, but for whoever looks into a core.
OF_DEBUGGERS = {"libtov1-dbgsym", "libzancgi1-dbgsym"}

# A package of a base library that is not ours.
SITE = "site-tov"
SITE_CONTROL = f"""\
Package: {SITE}
Version: 5.2
Architecture: amd64
Maintainer: the site <site@example.org>
Description: base library of this site
"""

# What any work with apt changes.
OF_APT = ("var/cache", "var/lib/apt", "var/lib/dpkg", "var/log", "tmp", "var/tmp")


def run(*command, **options):
    """What a command prints; its complaints, when it fails."""
    done = subprocess.run(
        command, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=1500, **options
    )
    if done.returncode != 0:
        raise AssertionError(f"{command} failed:\n{done.stdout}{done.stderr}")
    return done.stdout


def fields_of(package):
    """The control fields of a package's file."""
    text = run("dpkg-deb", "--field", package)
    return dict(re.findall(r"^([\w-]+): (.*)$", text, re.MULTILINE))


def mirror():
    given = os.environ.get("ZANCGI_DEBIAN_MIRROR")
    if given:
        return given
    run("apt-get", "update")
    known = run(
        "apt-get", "indextargets", "--format", "$(REPO_URI)",
        "Created-By: Packages", "Label: Debian", f"Codename: {SUITE}", "Component: main",
    ).split()
    if not known:
        raise AssertionError(f"apt knows no mirror of {SUITE}: name one by ZANCGI_DEBIAN_MIRROR")
    return known[0]


class Machine:
    """A fresh Debian in a folder."""

    def __init__(self, folder):
        self.root = folder
        # What the machine's apt needs to reach its mirror, this one's does.
        ways = run("apt-config", "dump", "Acquire::http", "Acquire::https", "Acquire::Retries",
                   "Acquire::Check-Valid-Until", "Acquire::Check-Date")
        proxy = re.search(r'^Acquire::http::Proxy "(.+)";', ways, re.MULTILINE)
        proxies = {"http_proxy": proxy[1]} if proxy else {}
        run("debootstrap", "--variant=minbase", SUITE, str(folder), mirror(),
            env={**proxies, **os.environ})
        (folder / "etc" / "apt" / "apt.conf.d" / "90way").write_text(ways)
        for kind, name in (("proc", "proc"), ("tmpfs", "run")):
            run("mount", "-t", kind, "none", str(folder / name))

    def close(self):
        for name in ("run", "proc"):
            run("umount", str(self.root / name))

    def run(self, *command):
        proxies = {name: value for name, value in os.environ.items() if "_proxy" in name.lower()}
        return run(
            "chroot", str(self.root), *command,
            env={
                **proxies, "DEBIAN_FRONTEND": "noninteractive", "HOME": "/root",
                "LC_ALL": "C.UTF-8",
                "PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
            },
        )

    def install(self, *packages):
        self.run("apt-get", "install", "--yes", "--no-install-recommends", *packages)

    def installed(self):
        listing = self.run("dpkg-query", "--show", "--showformat=${Package} ${db:Status-Status}\n")
        return set(re.findall(r"^(\S+) installed$", listing, re.MULTILINE))

    def purge(self, *packages):
        """Of packages that are not there, nothing."""
        self.run("dpkg", "--purge", *packages)

    def shell(self, commands):
        self.run("sh", "-ec", commands)

    def build(self, tree, profiles):
        """Has packages built with what they ask for, and no more."""
        self.run("apt-get", "build-dep", "--yes", "--no-install-recommends",
                 "--build-profiles", profiles, tree)
        self.shell(f"cd {tree} && dpkg-buildpackage --build=binary --build-profiles={profiles}")

    def add(self, source, target):
        shutil.copy(source, self.root / target)

    def files(self):
        """Every path but those that apt itself changes."""
        found = set()
        for folder, folders, names in os.walk(self.root):
            below = pathlib.Path(folder).relative_to(self.root)
            kept = [n for n in folders if str(below / n) not in (*OF_APT, "proc", "sys", "dev")]
            folders[:] = kept
            found |= {str(below / name) for name in (*kept, *names)}
        return found


@functools.cache
def packages():
    """The folder of the packages, which are made once."""
    if "PACKAGES" in os.environ:
        return pathlib.Path(os.environ["PACKAGES"])
    folder = unittest.enterModuleContext(tempfile.TemporaryDirectory(prefix="packages-"))
    run(str(SOURCE / "scripts" / "package"), folder)
    return pathlib.Path(folder)


class PackagesTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.debs = {path.name.partition("_")[0]: path for path in packages().glob("*.deb")}

    def contents(self, name):
        listing = run("dpkg-deb", "--contents", str(self.debs[name]))
        return set(re.findall(r"^-\S+ .* \./(\S+)", listing, re.MULTILINE))


class FilesTest(PackagesTest):
    def test_packages_are_the_promised_ones(self):
        self.assertEqual(set(self.debs), OURS | OF_DEBUGGERS)

    def test_every_package_has_the_licences_of_what_is_in_it(self):
        folder = self.enterContext(tempfile.TemporaryDirectory(prefix="packages-"))
        for name in OURS:
            with self.subTest(name):
                tree = pathlib.Path(folder) / name
                run("dpkg-deb", "--extract", str(self.debs[name]), str(tree))
                text = (tree / "usr" / "share" / "doc" / name / "copyright").read_text()
                self.assertIn("the libzancgi authors", text)
                self.assertIn("Permission is hereby granted", text)
                self.assertIn("Arseny Kapoulkine", text)
                for author in self.authors_of_scripts(tree):
                    self.assertIn(author, text)

    def authors_of_scripts(self, tree):
        """Of those that Doxygen adds to its pages."""
        scripts = [path.read_text() for path in tree.rglob("html/*.js")]
        self.assertEqual(bool(scripts), tree.name == "zancgi-doc")
        notice = r"(?:Copyright|\(c\)) (?:\([cC]\) )?[-–\d, ]*(?:by )?((?:[A-Z]\w+ ?)+)"
        return {author.strip() for text in scripts for author in re.findall(notice, text)}

    def test_the_example_has_the_files_that_the_documents_name(self):
        names = run("git", "-C", str(SOURCE), "ls-files", "examples/panel").split()
        self.assertIn("examples/panel/front.cpp", names)
        installed = {f"usr/share/doc/zancgi/{name}" for name in names}
        self.assertEqual(installed - self.contents("zancgi-doc"), set())

    def test_a_library_with_pugixml_inside_names_its_version(self):
        for name in ("libtov1", "libtov-dev"):
            built_using = fields_of(self.debs[name])["Built-Using"]
            self.assertRegex(built_using, r"^pugixml \(= \S+\)$")

    def test_every_library_comes_with_its_bill_of_materials(self):
        for name in ("libtov1", "libtov-dev", "libzancgi1", "libzancgi-dev"):
            self.assertIn(f"usr/share/doc/{name}/sbom.spdx.json", self.contents(name))

    def test_libraries_promise_the_symbols_that_are_recorded(self):
        for name in ("libtov1", "libzancgi1"):
            promised = run("dpkg-deb", "--info", str(self.debs[name]), "symbols")
            recorded = (SOURCE / "debian" / f"{name}.symbols").read_text()
            recorded, promised = (
                set(re.findall(r"^ .+", text, re.MULTILINE)) for text in (recorded, promised)
            )
            self.assertTrue(recorded)
            self.assertEqual(promised, recorded)

    def test_two_versions_of_a_library_could_lie_side_by_side(self):
        for name in ("libtov1", "libzancgi1"):
            for file in self.contents(name):
                if not file.startswith(f"usr/share/doc/{name}/"):
                    self.assertRegex(file, rf"{name[:-1]}(1|\.so\.1)", name)


@unittest.skipUnless(os.geteuid() == 0, "only root makes a fresh Debian")
class FreshMachineTest(PackagesTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        folder = cls.enterClassContext(tempfile.TemporaryDirectory(prefix="packages-"))
        cls.machine = Machine(pathlib.Path(folder) / "machine")
        cls.addClassCleanup(cls.machine.close)
        cls.machine.run("apt-get", "update")
        # Stands in for systemd; and what tests call.
        cls.machine.install("systemd-standalone-tmpfiles", "autopkgtest")
        (cls.machine.root / "debs").mkdir()
        for name in OURS:
            cls.machine.add(cls.debs[name], f"debs/{name}.deb")

    def setUp(self):
        self.before = self.machine.files()
        self.machine.install(*(f"/debs/{name}.deb" for name in OURS))

    def tearDown(self):
        self.machine.purge(*OURS, SITE)

    def test_installing_makes_the_folders_of_sockets_and_uploads(self):
        for name, mode in (("run/tov", "drwxr-xr-x"), ("var/spool/zancgi", "drwx-wx-wt")):
            status = (self.machine.root / name).lstat()
            self.assertEqual(stat.filemode(status.st_mode), mode)
            self.assertEqual((status.st_uid, status.st_gid), (0, 0))

    def test_purging_leaves_nothing_behind(self):
        (self.machine.root / "var/spool/zancgi/zantempAAAAAA").touch()
        self.machine.run("apt-get", "purge", "--yes", *OURS)
        self.assertEqual(self.machine.files() - self.before, set())

    def test_removing_keeps_uploads_and_running_back_ends(self):
        upload = self.machine.root / "var/spool/zancgi/zantempAAAAAA"
        socket = self.machine.root / "run/tov/panel.sock"
        for path in (upload, socket):
            path.touch()
        self.machine.run("apt-get", "remove", "--yes", *OURS)
        self.assertTrue(upload.exists() and socket.exists())
        self.machine.purge(*OURS)
        self.assertFalse(upload.exists())
        self.assertTrue(socket.exists())
        socket.unlink()

    def test_a_base_library_of_the_site_takes_the_place_of_ours(self):
        self.install_site("libtov-implementation-dev")
        # Front ends run on.
        kept = OURS - {"libtov-dev", "libzancgi-dev"} | {SITE}
        self.assertEqual(self.machine.installed() & (OURS | {SITE}), kept)

    def test_of_two_base_libraries_with_one_soname_one_is_installed(self):
        self.install_site("libtov-implementation-1")
        kept = {SITE, "zancgi-doc", "zancgi-tools"}
        self.assertEqual(self.machine.installed() & (OURS | {SITE}), kept)

    def test_the_product_is_packaged_on_a_base_library_of_the_site(self):
        self.machine.install("build-essential")
        self.install_site("libtov-implementation-dev")
        build = self.machine.root / "site-build"
        self.extract_source(build / "zancgi")
        changelog = build / "zancgi" / "debian" / "changelog"
        text = changelog.read_text()
        changelog.write_text(text.replace("-1)", "-1+site)", 1))
        self.machine.build("/site-build/zancgi", "pkg.zancgi.systemtov,nocheck")

        made = {path.name.partition("_")[0]: path for path in build.glob("*.deb")}
        self.assertEqual(set(made) & OURS, OURS - {"libtov1", "libtov-dev"})
        self.machine.install(*(f"/site-build/{made[name].name}" for name in set(made) & OURS))
        self.assertIn("libtov1", self.machine.installed())
        self.machine.purge("libtov1")
        self.assertIn(SITE, fields_of(made["libzancgi1"])["Depends"])

        front = SOURCE / "tests" / "packages" / "interrupted_upload.cpp"
        self.machine.add(front, "site-build/front.cpp")
        self.machine.shell(
            "cd /site-build && g++ front.cpp -o front $(pkg-config --cflags --libs zancgi)"
        )
        libraries = self.machine.run("ldd", "/site-build/front")
        self.assertRegex(libraries, r"libtov\.so\.5 => /")
        self.assertNotIn("libtov.so.1", libraries)

    def install_site(self, provided):
        """A package of another base library, the only one that provides this."""
        tree = self.machine.root / "site"
        self.addCleanup(shutil.rmtree, tree)
        (tree / "DEBIAN").mkdir(parents=True)
        fields = f"Provides: {provided}\nConflicts: {provided}\n"
        (tree / "DEBIAN" / "control").write_text(SITE_CONTROL + fields)
        (tree / "DEBIAN" / "shlibs").write_text(f"libtov 5 {SITE}\n")
        library = tree / "usr" / "lib" / "x86_64-linux-gnu"
        library.mkdir(parents=True)
        source = SOURCE / "tests" / "system_tov" / "site"
        shutil.copytree(source / "include", tree / "usr" / "include")
        run("g++", "-std=c++20", "-shared", "-fPIC", "-fvisibility-inlines-hidden",
            f"-I{source / 'include'}", str(source / "site.cpp"),
            "-Wl,-soname,libtov.so.5", "-o", str(library / "libtov.so.5"))
        (library / "libtov.so").symlink_to("libtov.so.5")
        run("dpkg-deb", "--root-owner-group", "--build", str(tree),
            str(self.machine.root / "debs" / "site.deb"))
        self.machine.install("/debs/site.deb")

    def extract_source(self, folder):
        folder.parent.mkdir(exist_ok=True)
        (description,) = packages().glob("*.dsc")
        run("dpkg-source", "--extract", str(description), str(folder))

    def test_front_ends_are_built_and_run_and_the_tools_work(self):
        self.extract_source(self.machine.root / "zancgi")
        # Prints what has failed.
        self.machine.run("autopkgtest", "--no-built-binaries", "/zancgi", "--", "null")


def reenter_in_mounts_of_its_own():
    os.execvpe(
        "unshare",
        ["unshare", "--mount", "--propagation", "private", "--pid", "--fork", "--kill-child",
         "--mount-proc", sys.executable, "-B", *sys.argv],
        {**os.environ, IN_MOUNTS_OF_ITS_OWN: "1"},
    )


def reason_to_skip():
    if "ONLY_WHEN_LONG" in os.environ and os.environ.get("ZANCGI_LONG") != "1":
        return "builds packages and a Debian to install them on: set ZANCGI_LONG=1"
    missing = [name for name in NEEDED if not shutil.which(name)]
    return f"not installed: {' '.join(missing)}" if missing else ""


if __name__ == "__main__":
    if reason_to_skip():
        print("skipped:", reason_to_skip())
        sys.exit(77)
    if os.geteuid() == 0 and IN_MOUNTS_OF_ITS_OWN not in os.environ:
        reenter_in_mounts_of_its_own()
    unittest.main()
