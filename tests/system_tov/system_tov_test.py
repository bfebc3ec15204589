"""The product on a base library that is not ours: other headers, larger
classes, other functions inline, and not one name beyond those that the product
asks for. The product is built from a tree without our own."""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

import elf
from elf import run

CMAKE = os.environ["CMAKE"]
CXX = os.environ["CXX"]
SOURCE = pathlib.Path(os.environ["SOURCE"])
SEAM = pathlib.Path(os.environ["SEAM"])
HERE = pathlib.Path(__file__).parent
SITE = HERE / "site"
FRONT_END = HERE / "front.cpp"
OF_THE_BASE_LIBRARY = re.compile(r"(typeinfo for )?(str|tov_\w+)::")

SITE_PC = """\
Name: tov
Description: Base library of this site
Version: 5.2
Cflags: -I{prefix}/include -DSITE_INLINE
Libs: -L{prefix}/lib -ltov
"""

SITE_PACKAGE = """\
foreach(library tov tov_static)
  add_library(tov::${library} STATIC IMPORTED)
  set_target_properties(tov::${library} PROPERTIES
    IMPORTED_LOCATION "${CMAKE_CURRENT_LIST_DIR}/../../libtov.a"
    INTERFACE_INCLUDE_DIRECTORIES "${CMAKE_CURRENT_LIST_DIR}/../../../include")
endforeach()
"""

PAGE = {
    "REQUEST_METHOD": "GET",
    "QUERY_STRING": "a=1&b=two%20%26+three&a=4",
    "HTTP_COOKIE": "first=x; second=y=z; panelses5=3f9c27d1; panellang5=de:en",
    "REMOTE_ADDR": "192.0.2.7",
}


def base_symbols(library, selection):
    return {name for name in elf.symbols(library, selection) if OF_THE_BASE_LIBRARY.match(name)}


class SystemTovTest(unittest.TestCase):
    """Has a folder for each class with the other base library in "site" and the
    product in "product"."""

    maxDiff = None
    # Not optimised: what is looked at is how the parts fit together.
    build_type = "None"

    @classmethod
    def setUpClass(cls):
        folder = cls.enterClassContext(tempfile.TemporaryDirectory(prefix="system-tov-"))
        cls.folder = pathlib.Path(folder)
        parts = ("site", "product", "build", "tree")
        cls.site, cls.product, cls.build, cls.tree = (cls.folder / part for part in parts)
        without = shutil.ignore_patterns("build", ".*", "node_modules")
        shutil.copytree(SOURCE, cls.tree, symlinks=True, ignore=without)
        shutil.rmtree(cls.tree / "src" / "tov")
        cls.install_site()
        cls.install_product()
        cls.front_ends = cls.build_front_ends()

    @classmethod
    def compile_site(cls, *options):
        (cls.site / "lib").mkdir(parents=True)
        shutil.copytree(SITE / "include", cls.site / "include")
        run(
            CXX, "-std=c++20", "-fPIC", "-fvisibility-inlines-hidden", *options,
            "-c", SITE / "site.cpp", f"-I{SITE / 'include'}", "-o", cls.folder / "site.o",
        )

    @classmethod
    def make_libraries(cls, *suffixes):
        library = cls.site / "lib" / "libtov.so"
        if "so" in suffixes:
            soname = "-Wl,-soname,libtov.so.5"
            run(CXX, "-shared", "-o", library, cls.folder / "site.o", soname)
            library.with_suffix(".so.5").symlink_to(library.name)
        if "a" in suffixes:
            run("ar", "rc", library.with_suffix(".a"), cls.folder / "site.o")

    @classmethod
    def configure(cls, source, build, *options):
        run(
            CMAKE, "-S", source, "-B", build, "-G", "Ninja", "-DZANCGI_TOV=system",
            f"-DCMAKE_CXX_COMPILER={CXX}", f"-DCMAKE_PREFIX_PATH={cls.product};{cls.site}",
            f"-DCMAKE_BUILD_TYPE={cls.build_type}", "-DZANCGI_WERROR=ON", *options,
        )

    @classmethod
    def install_product(cls):
        cls.configure(cls.tree, cls.build, "-DZANCGI_BUILD_TESTS=OFF", "-DZANCGI_BUILD_TESTKIT=OFF")
        run(CMAKE, "--build", cls.build)
        run(CMAKE, "--install", cls.build, "--prefix", cls.product)

    @classmethod
    def pkg_config(cls, *arguments):
        known = [path.parent for path in cls.folder.glob("*/lib/**/*.pc")]
        known = ":".join(map(str, sorted(set(known))))
        return run("pkg-config", *arguments, env={**os.environ, "PKG_CONFIG_LIBDIR": known}).split()

    @classmethod
    def build_front_ends(cls, *options):
        """With both libraries, as pkg-config says."""
        flags = cls.pkg_config("--cflags", "zancgi")
        assert flags == cls.pkg_config("--cflags", "zancgi-static"), flags
        compiled = cls.folder / "front.o"
        run(CXX, "-std=c++20", "-c", FRONT_END, "-o", compiled, *flags, *options)
        front_ends = []
        for package in ("zancgi", "zancgi-static"):
            libdir = cls.pkg_config("--variable=libdir", package)[0]
            front_ends.append(cls.folder / f"{package}-front")
            run(
                CXX, compiled, "-o", front_ends[-1],
                *cls.pkg_config("--libs", package), *options, f"-Wl,-rpath,{libdir}",
            )
        return front_ends

    def library(self):
        (library,) = self.product.rglob("libzancgi.so")
        return library

    def answer(self, front_end, environment, *arguments, body=b""):
        """What the front end prints, and its log."""
        done = subprocess.run(
            [front_end, *arguments], env={"TMP": str(self.folder), **environment}, input=body,
            capture_output=True, timeout=60, check=True,
        )
        printed = dict(line.split("=", 1) for line in done.stdout.decode().splitlines())
        return printed, done.stderr.decode()

    def test_request_is_served(self):
        expected = {
            "a": "1, 4", "b": "two & three", "cookie": "y=z", "user": "alice", "level": "7",
            "language": "en",
        }
        for front_end in self.front_ends:
            with self.subTest(front_end=front_end.name):
                printed, log = self.answer(front_end, PAGE)
                self.assertEqual(log, "")
                answer = printed.pop("answer")
                self.assertEqual(printed, expected)
                self.assertRegex(answer, r"^<\?xml.*</doc>$")
                self.assertIn("QUERY_STRING=func=a%20list&out=xml;", answer)
                self.assertIn("REMOTE_ADDR=192.0.2.7;", answer)

    def test_upload_is_stored_and_taken_away_again(self):
        content = "a line\n" * 20000
        disposition = "Content-Disposition: form-data; name="
        body = (
            f'--X\r\n{disposition}"field"\r\n\r\nvalue\r\n'
            f'--X\r\n{disposition}"file"; filename="f.txt"\r\n\r\n{content}\r\n--X--\r\n'
        ).encode()
        environment = {
            **PAGE, "REQUEST_METHOD": "POST", "CONTENT_LENGTH": str(len(body)),
            "CONTENT_TYPE": "multipart/form-data; boundary=X",
        }
        expected = {"field": "value", "file": "f.txt", "size": str(len(content)), "user": "alice"}
        for front_end in self.front_ends:
            with self.subTest(front_end=front_end.name):
                refused, _ = self.answer(front_end, environment, body=body)
                self.assertIn("Post data too large", refused["exception"])
                printed, _ = self.answer(front_end, environment, "panel", "200000", body=body)
                self.assertEqual({name: printed[name] for name in expected}, expected)
                self.assertRegex(printed["path"], f"^{self.folder}/zantemp-site-[0-9]+$")
                self.assertEqual(list(self.folder.glob("zantemp*")), [])

    def test_errors_and_log_are_the_other_library_s(self):
        for front_end in self.front_ends:
            with self.subTest(front_end=front_end.name):
                for key, value, arguments, changes in (
                    ("missed", "site: no tovname []", [""], {}),
                    ("value", "site: bad auth []", [], {"HTTP_COOKIE": ""}),
                    ("user", "alice", [], {"SITE_FAILURES": "3"}),
                    ("error", "site: no connection to panel", [], {"SITE_FAILURES": "4"}),
                ):
                    printed, _ = self.answer(front_end, {**PAGE, **changes}, *arguments)
                    self.assertEqual(printed.get(key), value, printed)
                _, log = self.answer(front_end, {**PAGE, "SITE_LOG": "9", "TOV_LOG_LEVEL": "9"})
                self.assertIn("site: zancgi/core 7: cgi.Query('func=whoami&out=xml')", log)
                self.assertIn("site: zancgi/core 9: zancgi_unix.cpp:", log)
                foreign = [line for line in log.splitlines() if not line.startswith("site: ")]
                self.assertEqual(foreign, [])

    def test_no_file_of_ours_has_the_name_tov(self):
        installed = [path for path in self.product.rglob("*") if not path.is_dir()]
        self.assertIn("zancgi.h", {path.name for path in installed})
        self.assertEqual([path for path in installed if "tov" in path.name], [])
        for path in self.build.rglob("libtov*"):
            self.fail(f"built: {path}")


class PlainTest(SystemTovTest):
    """Headers and libraries, and no word of them to anybody."""

    # As it is delivered, since its own tests look at what is built.
    build_type = "Release"

    @classmethod
    def install_site(cls):
        cls.compile_site()
        cls.make_libraries("so")

    @classmethod
    def build_front_ends(cls):
        libraries = cls.site / "lib"
        return super().build_front_ends(
            f"-I{cls.site}/include", f"-L{libraries}", "-ltov", f"-Wl,-rpath,{libraries}"
        )

    def test_the_other_library_defines_only_the_listed_names(self):
        listed = set(SEAM.read_text().splitlines())
        had = base_symbols(self.site / "lib" / "libtov.so", "--defined-only")
        # One that virtual functions bring along, and nobody calls.
        self.assertEqual(had - {"typeinfo for tov_client::Protocol"}, listed)
        # The other one that all of Error's users have, since all is inline.
        taken = base_symbols(self.library(), "--undefined-only")
        self.assertEqual(taken, listed - {"typeinfo for tov_err::Error"})

    def test_what_is_installed_refers_to_the_other_library(self):
        dynamic = run("readelf", "--dynamic", "--wide", self.library())
        self.assertIn("Shared library: [libtov.so.5]", dynamic)
        self.assertIn(f"{self.site}/lib", re.search("RUNPATH.*", dynamic)[0])
        libraries = self.pkg_config("--libs", "zancgi-static")
        self.assertIn(f"{self.site}/lib/libtov.so", libraries)
        self.assertNotIn("-static-libstdc++", libraries)

    def test_its_own_tests_pass(self):
        run(CMAKE, "-DZANCGI_BUILD_TESTS=ON", self.build)
        ctest = CMAKE.replace("cmake", "ctest")
        printed = run(ctest, "--test-dir", self.build, "--output-on-failure")
        self.assertRegex(printed, "100% tests passed.* out of [1-9]")


class PkgConfigTest(SystemTovTest):
    """Known to pkg-config, which also declares its functions inline."""

    @classmethod
    def install_site(cls):
        cls.compile_site("-DSITE_INLINE")
        cls.make_libraries("so", "a")
        file = cls.site / "lib" / "pkgconfig" / "tov.pc"
        file.parent.mkdir()
        file.write_text(SITE_PC.format(prefix=cls.site))

    def test_inline_functions_are_those_of_the_other_library(self):
        listed = set(SEAM.read_text().splitlines())
        taken = base_symbols(self.library(), "--undefined-only")
        self.assertLess(taken, listed)
        for name in ("tov_err::Missed::~Missed()", "tov_log::Module::Check(tov_log::Level)"):
            self.assertNotIn(name, taken)

    def test_what_is_installed_refers_to_the_other_library(self):
        self.assertIn("-DSITE_INLINE", self.pkg_config("--cflags", "zancgi"))
        self.assertIn("tov", self.pkg_config("--print-requires-private", "zancgi"))
        libraries = self.pkg_config("--libs", "zancgi-static")
        self.assertIn(f"{self.site}/lib/libtov.a", libraries)
        needed = run("readelf", "--dynamic", "--wide", self.front_ends[1])
        self.assertNotIn("libtov", needed)
        self.assertNotIn("libstdc++", needed)


class PackageTest(SystemTovTest):
    """A CMake package of an archive alone. The product is a part of a project
    there, and another project has what that installs."""

    @classmethod
    def install_site(cls):
        cls.compile_site()
        cls.make_libraries("a")
        file = cls.site / "lib" / "cmake" / "tov" / "tov-config.cmake"
        file.parent.mkdir(parents=True)
        file.write_text(SITE_PACKAGE)

    @classmethod
    def build_project(cls, name, *options):
        build = cls.folder / name
        cls.configure(
            HERE / "project", build, f"-DFRONT_END={FRONT_END}", "-DCMAKE_CXX_STANDARD=20", *options
        )
        run(CMAKE, "--build", build)
        return [build / f"{library}-front" for library in ("zancgi", "zancgi_static")]

    @classmethod
    def install_product(cls):
        cls.front_ends_of_whole = cls.build_project(
            "build", f"-DTREE={cls.tree}", "-DZANCGI_INSTALL=ON"
        )
        run(CMAKE, "--install", cls.build, "--prefix", cls.product)

    @classmethod
    def build_front_ends(cls):
        return cls.build_project("front")

    def test_a_project_can_have_the_product_as_a_part(self):
        for front_end in self.front_ends_of_whole:
            printed, _ = self.answer(front_end, PAGE)
            self.assertEqual(printed["user"], "alice")

    def test_the_archive_is_inside_and_stays_there(self):
        self.assertEqual(base_symbols(self.library(), "--undefined-only"), set())
        self.assertEqual(base_symbols(self.library(), "--defined-only"), set())


if __name__ == "__main__":
    missing = [program for program in (CXX, "pkg-config", "ninja") if not shutil.which(program)]
    if missing:
        print("skipped: not installed:", *missing)
        sys.exit(77)
    del SystemTovTest
    unittest.main()
