"""The libraries are the same to the byte, in whichever folder they are built."""

import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest

SOURCE = pathlib.Path(os.environ["SOURCE"])
BUILD = pathlib.Path(os.environ["BUILD"])
LIBRARIES = [pathlib.Path(path) for path in os.environ["LIBRARIES"].split()]
# What the build takes of the tree.
PARTS = ("CMakeLists.txt", "cmake", "docs", "src", "testkit", "tools")


def run(*command):
    # A compiler's cache would hand out what was compiled in the first folder.
    environment = {**os.environ, "CCACHE_DISABLE": "1"}
    done = subprocess.run(command, env=environment, capture_output=True, text=True, timeout=3000)
    if done.returncode != 0:
        raise AssertionError(f"{command} failed:\n{done.stdout}{done.stderr}")


class ReproducibleTest(unittest.TestCase):
    def test_the_folder_leaves_no_trace_in_the_libraries(self):
        with tempfile.TemporaryDirectory(prefix="a-folder-of-another-name-") as name:
            tree = pathlib.Path(name) / "sources"
            build = pathlib.Path(name) / "made" / "here"
            tree.mkdir()
            for part in PARTS:
                copy = shutil.copytree if (SOURCE / part).is_dir() else shutil.copy
                copy(SOURCE / part, tree / part)
            run(
                os.environ["CMAKE"], "-S", tree, "-B", build, "-G", "Ninja",
                f"-DCMAKE_CXX_COMPILER={os.environ['CXX']}",
                f"-DCMAKE_BUILD_TYPE={os.environ['BUILD_TYPE']}",
                f"-DCMAKE_CXX_FLAGS={os.environ['CXX_FLAGS']}",
                "-DZANCGI_BUILD_TESTS=OFF", "-DZANCGI_BUILD_EXAMPLES=OFF",
                "-DZANCGI_BUILD_TESTKIT=OFF",
            )  # fmt: skip
            run(os.environ["CMAKE"], "--build", build, "--target", "src/tov/all", "src/zancgi/all")
            for library in LIBRARIES:
                with self.subTest(library=library.name):
                    again = build / library.relative_to(BUILD)
                    self.assertEqual(again.read_bytes(), library.read_bytes())


if __name__ == "__main__":
    unittest.main()
