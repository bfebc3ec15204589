"""The libraries as somebody outside of the tree uses them."""

import functools
import json
import os
import pathlib
import re
import shutil
import socketserver
import subprocess
import sys
import tempfile
import threading
import unittest

CMAKE = os.environ["CMAKE"]
CXX = os.environ["CXX"]
# Of packages that are installed there is neither.
BUILD = pathlib.Path(os.environ.get("BUILD", "/nonexistent"))
SOURCE = pathlib.Path(os.environ.get("SOURCE", "/nonexistent"))
# The packages' prefix, or nothing, and the build is installed.
INSTALLED = os.environ.get("INSTALLED")
VERSION = os.environ["VERSION"]
FRONT_END = pathlib.Path(os.environ["FRONT_END"])
FRONT_END_TEST = pathlib.Path(os.environ.get("FRONT_END_TEST", "/nonexistent"))
HERE = pathlib.Path(__file__).parent
STANDARDS = (11, 20)
USES_PKG_CONFIG = {"PkgConfigTest", "TestKitTest"}
# Nothing rests on more here.
QUICKLY_BUILT = ("-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS_DEBUG=-O0")
# A page of the panel.
SIGN_IN = {"REQUEST_METHOD": "GET", "QUERY_STRING": "page=signin"}
OF_THE_C_LIBRARY = {"libc.so.6", "ld-linux-x86-64.so.2"}

# Prints the field "a" of a form.
POST_READER = r"""
#include <zancgi/zancgi.h>

#include <cstdio>
#include <exception>
#ifdef WITH_STREAMS
#include <iostream>
#endif

int main(int, char** argv) {
#ifdef WITH_STREAMS
  std::cout << "by std::cout";
#endif
#ifdef AT_END
  std::cin.setstate(std::ios::eofbit);
#endif
  try {
    zan_cgi::Cgi cgi(argv[0], "");
    std::printf("%s\n", cgi.Param("a").c_str());
  } catch (const std::exception& error) {
    std::printf("%s\n", error.what());
  }
}
"""

# Has a pugixml of its own, and uses of it what ours is without.
PUGIXML_USER = r"""
#include <pugixml.hpp>
#include <tov/xml.h>
#include <zancgi/zancgi.h>

#include <cstdio>
#include <sstream>

struct Counter : pugi::xml_tree_walker {
  int count = 0;
  bool for_each(pugi::xml_node&) override { return ++count > 0; }
};

int main(int argc, char** argv) {
  if (argc > 1) zan_cgi::Cgi(argv[0], "");
  std::istringstream text("<a><b/><c/></a>");
  pugi::xml_document document;
  document.load(text);
  Counter counter;
  document.traverse(counter);
  bool is_refused = false;
  try {
    document.select_node("///[");
  } catch (const pugi::xpath_exception&) {
    is_refused = true;
  }
  tov_xml::Xml xml;
  xml.LoadFromString("<doc><user name='alice'/></doc>");
  std::printf("%d %d %s %d\n", counter.count, is_refused,
              xml.GetNode("/doc/user").GetProp("name").c_str(),
              static_cast<bool>(xml.GetNode("///[")));
}
"""

# All that a front end without accounts uses.
FORM_USER = r"""
#include <zancgi/account.h>
#include <zancgi/form.h>
#include <zancgi/request.h>
#include <zancgi/response.h>
#include <zancgi/zancgi.h>

#include <exception>

int main(int, char** argv) {
  int status = 200;
  try {
    zan_cgi::Cgi cgi(argv[0], "panel");
    if (zan_cgi::IsHttps()) cgi.Authorize(zan_cgi::Cgi::AuthInfo::AuthCookie);
    const zan_cgi::Form form(cgi);
    throw zan_cgi::AccountError(form.Value("a"));
  } catch (const std::exception& error) {
    status = zan_cgi::StatusOf(error);
  }
  zan_cgi::Response(status).Send("refused");
}
"""

ACCOUNT_CALLS = (
    'cgi.Su("alice", "", false, false)',
    'zan_cgi::BecomeAccount(cgi, "alice", {})',
    "zan_cgi::myconv(0, nullptr, nullptr, nullptr)",
)
ACCOUNT_USER = r"""
#include <zancgi/account.h>
#include <zancgi/zancgi.h>

int main(int argc, char** argv) {
  zan_cgi::Cgi cgi(argv[0], "panel");
  if (argc > 1) CALL;
}
"""

BASE_USER = """\
#include <tov/str.h>

#include <cstdio>

int main() { std::puts(str::url::Encode("one & two").c_str()); }
"""


def run(*command, **options):
    """What a command prints; its complaints, when it fails."""
    options = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **options}
    done = subprocess.run(command, text=True, timeout=500, **options)
    if done.returncode != 0:
        raise AssertionError(f"{command} failed:\n{done.stdout}{done.stderr}")
    return done.stdout


def dynamic_section(file):
    return run("readelf", "--dynamic", "--wide", file)


def needed(file):
    return set(re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic_section(file)))


class Alice(socketserver.StreamRequestHandler):
    """A back end to whom everybody is alice."""

    def handle(self):
        self.connection.recv(65536)
        self.wfile.write(
            b"Content-Type: text/xml\r\n\r\n"
            b'<?xml version="1.0"?><doc><user name="alice" level="7"/></doc>'
        )


class InstallTest(unittest.TestCase):
    """Has a folder for each class, and the libraries installed below it, unless
    they are installed already: not where their prefix says, so that nothing can
    rest on that."""

    @classmethod
    def setUpClass(cls):
        folder = cls.enterClassContext(tempfile.TemporaryDirectory(prefix="install-"))
        cls.folder = pathlib.Path(folder)
        cls.root = pathlib.Path(INSTALLED) if INSTALLED else cls.install("root")
        cls.base_user = cls.folder / "base_user.cpp"
        cls.base_user.write_text(BASE_USER)

    @classmethod
    def install(cls, name, *options):
        run(
            CMAKE, "--install", BUILD, "--prefix", "/opt/zancgi", *options,
            env={**os.environ, "DESTDIR": str(cls.folder / name)},
        )  # fmt: skip
        return cls.folder / name / "opt" / "zancgi"

    def installed(self, name):
        (path,) = self.root.rglob(name)
        return path


class FilesTest(InstallTest):
    maxDiff = None

    def files(self, root):
        return [path for path in root.rglob("*") if not path.is_dir()]

    def test_headers_are_the_public_ones(self):
        include = self.root / "include"
        headers = {str(path.relative_to(include)) for path in include.rglob("*.h")}
        product = ("account", "form", "request", "response", "zancgi")
        ours = ("api", "client", "env", "err", "file", "log", "proc", "str", "xml")
        kit = (
            "account backend child form identity input log program request response scratch visit"
        ).split()
        self.assertEqual(
            headers,
            {
                *(f"zancgi/{name}.h" for name in product),
                *(f"tov/{name}.h" for name in ours),
                *(f"zancgi/testing/{name}.h" for name in kit),
            },
        )

    def test_headers_are_complete(self):
        everything = self.folder / "everything.cpp"
        kit = set(self.root.rglob("testing/*.h"))
        include = f"-I{self.root}/include"
        for standard, headers in ((11, set((self.root / "include").rglob("*.h")) - kit), (17, kit)):
            everything.write_text("".join(f'#include "{path}"\n' for path in headers))
            run(
                CXX, f"-std=c++{standard}", "-fsyntax-only", "-Wall", "-Werror",
                include, everything,
            )  # fmt: skip

    def test_no_file_names_the_build_folder(self):
        for path in self.files(self.root):
            content = path.read_bytes()
            for place in (SOURCE, BUILD, self.folder):
                self.assertNotIn(str(place).encode(), content, path)

    def test_shared_libraries_carry_their_version(self):
        for name in ("zancgi", "tov"):
            library = self.installed(f"lib{name}.so")
            soname = f"lib{name}.so.1"
            self.assertIn(f"[{soname}]", dynamic_section(library))
            self.assertTrue((library.parent / soname).exists())
            self.assertEqual(library.resolve().name, f"lib{name}.so.{VERSION}")

    def test_the_archive_keeps_its_pugixml_to_itself(self):
        symbols = run("nm", "--extern-only", "--demangle", self.installed("libtov.a"))
        self.assertIn("tov_xml::Xml::GetNode", symbols)
        self.assertNotIn("pugi", symbols)

    def files_of(self, component):
        root = self.install(component, "--component", component)
        return {str(path.relative_to(root)) for path in self.files(root)}

    def test_a_machine_that_only_runs_front_ends_gets_what_they_run_with_alone(self):
        for name, licences in (("zancgi", ["LICENSE"]), ("tov", ["LICENSE", "LICENSE.pugixml"])):
            self.assertEqual(
                self.files_of(name),
                {
                    *(f"share/doc/zancgi/{licence}" for licence in licences),
                    "share/doc/zancgi/sbom.spdx.json",
                    f"lib/lib{name}.so.1",
                    f"lib/lib{name}.so.{VERSION}",
                    f"lib/tmpfiles.d/lib{name}1.conf",
                },
            )

    def test_the_bill_of_materials_names_pugixml_and_its_version(self):
        sbom = json.loads(self.installed("sbom.spdx.json").read_text())
        versions = {package["name"]: package["versionInfo"] for package in sbom["packages"]}
        macro = run(CXX, "-E", "-dM", "-x", "c++", "-include", "pugixml.hpp", "/dev/null")
        number = int(re.search(r"#define PUGIXML_VERSION (\d+)", macro)[1])
        pugixml = f"{number // 1000}.{number % 1000 // 10}"
        self.assertEqual(
            versions, {"libzancgi": VERSION, "libtov": VERSION, "pugixml": pugixml}
        )
        relations = {
            (one["spdxElementId"], one["relationshipType"], one["relatedSpdxElement"])
            for one in sbom["relationships"]
        }
        self.assertIn(("SPDXRef-libtov", "CONTAINS", "SPDXRef-pugixml"), relations)

    def test_manual_pages_go_with_what_they_describe(self):
        for component, section in (("zancgi-dev", 3), ("zancgi-tools", 1)):
            pages = {path.name for path in (SOURCE / "docs" / "man").glob(f"*.{section}")}
            self.assertTrue(pages)
            man = f"share/man/man{section}/"
            files = self.files_of(component)
            self.assertEqual({name[len(man) :] for name in files if name.startswith(man)}, pages)

    def test_tools_are_programs_with_a_manual_page_each(self):
        files = self.files_of("zancgi-tools")
        names = {pathlib.Path(name).name for name in files if name.startswith("bin/")}
        self.assertTrue(names)
        for name in names:
            self.assertIn(f"share/man/man1/{name}.1", files)
            self.assertIn(f"share/bash-completion/completions/{name}", files)
            self.assertTrue(os.access(self.root / "bin" / name, os.X_OK))
            self.assertIn(name, run(self.root / "bin" / name, "--help"))
            self.assertEqual(run(self.root / "bin" / name, "--version"), f"{name} {VERSION}\n")

    def test_tools_have_their_modules(self):
        tools = SOURCE / "tools"
        paths = [*tools.glob("zancgi_[dt]*/**/*.py"), *tools.glob("zancgi_doctor/*.ini")]
        expected = {f"share/zancgi-tools/{path.relative_to(tools)}" for path in paths}
        for name in ("zancgi_doctor/cli.py", "zancgi_doctor/checks.ini", "zancgi_tools/version.py"):
            self.assertIn(f"share/zancgi-tools/{name}", expected)
        files = {name for name in self.files_of("zancgi-tools") if name.startswith("share/zancgi-")}
        self.assertEqual(files, expected)

    def test_a_copy_of_zancgi_request_needs_no_other_file(self):
        self.files_of("zancgi-tools")
        copy = shutil.copy(self.root / "bin" / "zancgi-request", self.folder / "copy")
        self.assertEqual(run(copy, "--version"), f"zancgi-request {VERSION}\n")

    def test_links_between_documents_lead_to_what_is_installed_with_them(self):
        self.files_of("zancgi-doc")
        root = self.folder / "zancgi-doc" / "opt" / "zancgi" / "share" / "doc" / "zancgi"
        documents = [path for path in root.rglob("*.md")]
        self.assertIn(root / "docs" / "guide.md", documents)
        for document in documents:
            prose = re.sub(r"(?ms)^```.*?^```$", "", document.read_text())
            for link in re.findall(r"\]\(([^)#:]+)[^):]*\)", prose):
                target = (document.parent / link).resolve().relative_to(root)
                if target.parts[0] in ("docs", "examples"):
                    self.assertTrue((root / target).exists(), f"{document.name}: {link}")


class PackagesUser(InstallTest):
    def pkg_config(self, *arguments):
        known = str(self.installed("zancgi.pc").parent)
        return run("pkg-config", *arguments, env={**os.environ, "PKG_CONFIG_LIBDIR": known}).split()

    @functools.cache
    def compiled(self, source, standard, *options):
        """An object, for every package: the options for compiling are the same."""
        name = f"{source.stem}-{standard}{''.join(options)}.o"
        flags = self.pkg_config("--cflags", "zancgi")
        run(CXX, f"-std=c++{standard}", *options, "-c", source, "-o", self.folder / name, *flags)
        return self.folder / name

    def linked(self, package, *words):
        """A program of what the linker is given; "PACKAGE" stands for the options
        of the package."""
        program = self.folder / f"program-{package}"
        libdir = self.pkg_config("--variable=libdir", package)[0]
        # A static PIE with a run path ends at its start.
        run_path = [] if package == "zancgi-standalone" else [f"-Wl,-rpath,{libdir}"]
        at = words.index("PACKAGE")
        run(
            CXX, "-o", program, *words[:at], *self.pkg_config("--libs", package), *words[at + 1 :],
            *run_path,
        )  # fmt: skip
        return program


class FrontEndTest(InstallTest):
    """For classes that say how a program comes about, of a library and for a
    standard."""

    def assert_works(self, program):
        self.assertIn("You are alice.", self.answer_of_back_end_to(program))
        log = self.folder / "log"
        with log.open("w") as stderr:
            refused = self.answer(program, self.folder, stderr=stderr)
        self.assertIn("502 Bad Gateway", refused)
        self.assertIn("panel.sock", log.read_text())

    def answer_of_back_end_to(self, program):
        with tempfile.TemporaryDirectory(dir=self.folder) as run_dir:
            with socketserver.UnixStreamServer(f"{run_dir}/panel.sock", Alice) as server:
                thread = threading.Thread(target=server.serve_forever)
                thread.start()
                try:
                    return self.answer(program, run_dir)
                finally:
                    server.shutdown()
                    thread.join()

    def answer(self, program, run_dir, **options):
        # Nothing else: what it needs it must find by itself.
        request = {"REQUEST_METHOD": "GET", "HTTP_COOKIE": "panelses5=3f9c27d1"}
        return run(program, env={**request, "TOV_RUN_DIR": str(run_dir)}, **options)

    def assert_hardened(self, program):
        section = dynamic_section(program)
        self.assertRegex(section, r"FLAGS_1.*\bPIE\b")
        self.assertRegex(section, r"FLAGS.*\bBIND_NOW\b")
        segments = run("readelf", "--program-headers", "--wide", program)
        self.assertRegex(segments, "GNU_RELRO")
        self.assertRegex(segments, r"GNU_STACK.* RW ")
        self.assertNotIn("TEXTREL", section)

    def libraries_of(self, library, standard):
        """Checks that a front end works. Returns the libraries that it loads."""
        program = self.program(library, standard)
        self.assert_hardened(program)
        self.assert_works(program)
        return needed(program)

    def test_links_with_each_library(self):
        for standard in STANDARDS:
            with self.subTest(standard=standard):
                self.assertIn("libzancgi.so.1", self.libraries_of("zancgi", standard))
                libraries = self.libraries_of("zancgi_static", standard)
                self.assertLessEqual(libraries, OF_THE_C_LIBRARY)
                self.assertIn("libc.so.6", libraries)
                self.assertEqual(self.libraries_of("zancgi_standalone", standard), set())
                standalone = self.program("zancgi_standalone", standard)
                self.assertNotIn("INTERP", run("readelf", "--program-headers", standalone))
                base = self.program("tov", standard)
                self.assertIn("libtov.so.1", needed(base))
                self.assertEqual(run(base), "one%20%26%20two\n")


class PkgConfigTest(PackagesUser, FrontEndTest):
    PACKAGES = ("zancgi", "zancgi-static", "zancgi-standalone", "tov", "zancgi-testing")

    def test_version_is_that_of_the_project(self):
        for package in self.PACKAGES:
            self.assertEqual(self.pkg_config("--modversion", package), [VERSION])

    def test_one_object_can_be_linked_with_each_of_the_packages(self):
        (flag,) = self.pkg_config("--cflags", "zancgi")
        self.assertTrue(pathlib.Path(flag.removeprefix("-I")).samefile(self.root / "include"))
        for package in self.PACKAGES:
            self.assertEqual(self.pkg_config("--cflags", package), [flag])

    def built(self, package, source, standard, *options):
        return self.linked(package, self.compiled(source, standard, *options), "PACKAGE")

    def program(self, library, standard):
        source = self.base_user if library == "tov" else FRONT_END
        return self.built(library.replace("_", "-"), source, standard)

    def written(self, name, text):
        (self.folder / name).write_text(text)
        return self.folder / name

    def test_std_cin_is_asked_where_a_front_end_uses_it(self):
        source = self.written("post.cpp", POST_READER)
        whole = {"REQUEST_METHOD": "POST", "CONTENT_LENGTH": "3"}
        cut = {"REQUEST_METHOD": "POST", "CONTENT_LENGTH": "5"}
        closed = "Error reading STDIN\n"
        at_end = "POST read failed: CONTENT_LENGTH=5, bytes read:3\n"
        for options, error, streamed in (
            ([], closed, ""),
            (["-DWITH_STREAMS"], closed, "by std::cout"),
            (["-DWITH_STREAMS", "-DAT_END"], at_end, "by std::cout"),
        ):
            for package in ("zancgi", "zancgi-static", "zancgi-standalone"):
                with self.subTest(package=package, options=options):
                    program = self.built(package, source, 20, *options)
                    self.assertEqual(run(program, env=whole, input="a=1"), f"{streamed}1\n")
                    self.assertEqual(run(program, env=cut, input="a=1"), f"{streamed}{error}")

    def test_a_front_end_may_have_a_pugixml_of_its_own(self):
        user = self.compiled(self.written("pugixml.cpp", PUGIXML_USER), 20)
        of_its_own = "-l:libpugixml.a"
        for package in ("zancgi", "zancgi-static", "zancgi-standalone"):
            base = ["-ltov"] if package == "zancgi" else []
            for words in ([of_its_own, "PACKAGE"], ["PACKAGE", of_its_own]):
                with self.subTest(package=package, words=words):
                    program = self.linked(package, user, *words, *base)
                    self.assertEqual(run(program), "3 1 alice 0\n")

    def test_a_standalone_front_end_without_accounts_links_without_a_warning(self):
        user = self.compiled(self.written("forms.cpp", FORM_USER), 20)
        program = self.linked("zancgi-standalone", user, "PACKAGE", "-Wl,--fatal-warnings")
        self.assertIn("Status: 403", run(program, env={"REQUEST_METHOD": "GET"}))
        symbols = run("nm", program)
        for of_accounts in ("getpwnam", "initgroups", "dlopen"):
            self.assertNotRegex(symbols, rf" [TW] {of_accounts}$")

    def test_a_standalone_front_end_with_accounts_is_refused_by_the_linker(self):
        for number, call in enumerate(ACCOUNT_CALLS):
            with self.subTest(call=call):
                source = self.written(f"account-{number}.cpp", ACCOUNT_USER.replace("CALL", call))
                user = self.compiled(source, 20)
                with self.assertRaisesRegex(AssertionError, "account_needs_the_shared_C_library"):
                    self.linked("zancgi-standalone", user, "PACKAGE")
                self.linked("zancgi-static", user, "PACKAGE")


class CMakeTest(FrontEndTest):
    @classmethod
    def build_project(cls, *options):
        cls.build = cls.folder / "build"
        run(
            CMAKE, "-S", HERE / "project", "-B", cls.build, "-G", "Ninja",
            f"-DCMAKE_CXX_COMPILER={CXX}", f"-DFRONT_END={FRONT_END}",
            f"-DBASE_USER={cls.base_user}", *options,
        )  # fmt: skip
        run(CMAKE, "--build", cls.build)

    def program(self, library, standard):
        return self.build / f"{library}-{standard}"


class FindPackageTest(CMakeTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.build_project(f"-DCMAKE_PREFIX_PATH={cls.root}", f"-DVERSION={VERSION}")

    def test_packages_are_the_installed_ones(self):
        cache = (self.build / "CMakeCache.txt").read_text()
        for name in ("zancgi", "tov"):
            self.assertIn(f"{name}_DIR:PATH={self.root}/", cache)

    def test_a_copy_of_the_example_can_be_built(self):
        example = self.root / "share" / "doc" / "zancgi" / "examples" / "panel"
        if not example.exists():
            self.skipTest("the documents are not installed")
        copy = shutil.copytree(example, self.folder / "panel")
        run(
            CMAKE, "-S", copy, "-B", copy / "build", "-G", "Ninja",
            f"-DCMAKE_CXX_COMPILER={CXX}", f"-DCMAKE_PREFIX_PATH={self.root}",
        )  # fmt: skip
        run(CMAKE, "--build", copy / "build")
        page = run(copy / "build" / "front", env=SIGN_IN)
        self.assertIn("Status: 200 OK", page)
        self.assertIn("<form", page)


class AddSubdirectoryTest(CMakeTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.build_project(f"-DTREE={SOURCE}", *QUICKLY_BUILT)

    def test_project_installs_nothing_of_ours(self):
        prefix = self.folder / "project"
        run(CMAKE, "--install", self.build, "--prefix", prefix)
        self.assertFalse(prefix.exists())


class TestKitTest(PackagesUser):
    """A front end and its test, which know the installation only."""

    def configure(self, component):
        run(
            CMAKE, "-S", HERE / "test_project", "-B", self.folder / component, "-G", "Ninja",
            f"-DCMAKE_CXX_COMPILER={CXX}", f"-DCMAKE_PREFIX_PATH={self.root}",
            f"-DFRONT_END={FRONT_END}", f"-DFRONT_END_TEST={FRONT_END_TEST}",
            f"-DCOMPONENT={component}", "-DCMAKE_CXX_STANDARD=20",
        )  # fmt: skip
        return self.folder / component

    def assert_passes(self, program, front_end):
        printed = run(program, env={"FRONT": str(front_end)})
        self.assertRegex(printed, r"\[  PASSED  \] [1-9]\d* tests")
        self.assertNotIn("FAILED", printed)

    def test_front_ends_are_tested_with_find_package_and_with_pkg_config(self):
        build = self.configure("testing")
        run(CMAKE, "--build", build)
        self.assert_passes(build / "front_test", build / "front")
        symbols = run("nm", "--demangle", build / "front")
        self.assertNotIn("zan_cgi::testing", symbols)

        test = self.compiled(FRONT_END_TEST, 17)
        words = (test, "PACKAGE", "-lgtest", "-lgtest_main")
        self.assert_passes(self.linked("zancgi-testing", *words), build / "front")

    def test_a_component_that_does_not_exist_is_missed(self):
        with self.assertRaisesRegex(AssertionError, "there is no zancgi::nonsense in it"):
            self.configure("nonsense")


class BareMachineTest(unittest.TestCase):
    """Builds the tree where there is a compiler, and of all else only what the
    libraries are built with."""

    PROGRAMS = (
        "ar as awk basename c++ cat cmake g++ grep ld make mktemp nm objcopy ranlib rm sed sh"
    ).split()
    LEFT_OUT = {
        "No Doxygen": 'the target "documentation" is',
        "No GoogleTest": "the tests are",
        "No Python in /usr/bin": "the tests are",
    }

    def test_what_is_missing_is_left_out_and_named_in_a_line(self):
        programs = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory(prefix="bare-")))
        for name in self.PROGRAMS:
            (programs / name).symlink_to(shutil.which(name))
        environment = {"PATH": str(programs), "HOME": "/nonexistent"}
        # The kit takes as long as all the rest and has no conditions of its own.
        build = programs / "build"
        output = run(
            CMAKE, "-S", SOURCE, "-B", build, "-G", "Unix Makefiles",
            *QUICKLY_BUILT, "-DZANCGI_BUILD_TESTKIT=OFF",
            "-DCMAKE_IGNORE_PATH=/usr/bin;/bin", "-DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON",
            env=environment,
        )  # fmt: skip
        for missing, what in self.LEFT_OUT.items():
            self.assertIn(f"\n-- {missing}: {what} left out\n", output)
        run(CMAKE, "--build", build, "--parallel", "2", env=environment)
        page = run(build / "examples" / "panel" / "front", env=SIGN_IN)
        self.assertIn("<form", page)
        self.assertNotIn("documentation:", run(CMAKE, "--build", build, "--target", "help"))


def missing_programs():
    programs = {CXX} | ({"pkg-config"} if USES_PKG_CONFIG & set(sys.argv) else set())
    return sorted(program for program in programs if not shutil.which(program))


if __name__ == "__main__":
    if missing_programs():
        print("skipped: not installed:", *missing_programs())
        sys.exit(77)
    unittest.main()
