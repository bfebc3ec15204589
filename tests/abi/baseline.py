"""Describes what front ends are compiled and linked against: the exported
functions and variables of a library, and the classes that they take.

    baseline.py FOLDER

writes, of each library, the description and the list of its exports to FOLDER.
The description is abidw's, without what is not ours to promise: private
functions and classes are left out, and of the standard library's classes it has
the names and sizes alone. It is the same wherever the library was built.
"""

import os
import pathlib
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as ElementTree

import elf

LIBRARIES = ("zancgi", "tov")
OURS = ("zan_cgi", "str", "tov_")


def run(*command):
    done = subprocess.run(command, capture_output=True, text=True, timeout=500)
    if done.returncode != 0:
        raise RuntimeError(f"{command} failed:\n{done.stdout}{done.stderr}")


def build(source, folder):
    """Builds both libraries of a source tree as they are released, and with the
    debugging information that abidw reads. Says where they are."""
    run(
        os.environ["CMAKE"], "-S", source, "-B", folder, "-G", "Ninja",
        f"-DCMAKE_CXX_COMPILER={os.environ['CXX']}", "-DCMAKE_BUILD_TYPE=Release",
        "-DCMAKE_CXX_FLAGS=-g", "-DZANCGI_INSTALL=OFF", "-DZANCGI_BUILD_TESTS=OFF",
        "-DZANCGI_BUILD_EXAMPLES=OFF", "-DZANCGI_BUILD_TESTKIT=OFF",
    )  # fmt: skip
    run(os.environ["CMAKE"], "--build", folder, "--target", *LIBRARIES)
    return {name: pathlib.Path(folder) / "src" / name / f"lib{name}.so" for name in LIBRARIES}


class Description:
    """What abidw writes, as a tree, and which parts of it are kept."""

    def __init__(self, text):
        self.root = ElementTree.fromstring(text)
        self.parents = {child: parent for parent in self.root.iter() for child in parent}
        # Some are there twice, with the same contents.
        self.types = {}
        self.exported = {}
        for element in self.root.iter():
            self.types.setdefault(element.get("id"), element)
            self.exported.setdefault(element.get("elf-symbol-id"), element)
        for unnamed in (self.types, self.exported):
            unnamed.pop(None)
        self.kept = set()

    def text(self):
        if not self.exported:
            raise RuntimeError("the library has no debugging information")
        for symbols in ("elf-function-symbols", "elf-variable-symbols"):
            self.kept.update(self.root.find(symbols).iter())
        for element in self.exported.values():
            self.keep(element)
        self.remove_the_rest(self.root)
        ElementTree.indent(self.root)
        return ElementTree.tostring(self.root, encoding="unicode") + "\n"

    def keep(self, element):
        """Keeps it, what it lies in, what belongs to it, and the types that it
        speaks of."""
        if element in self.kept:
            return
        self.kept.add(element)
        if element in self.parents:
            self.keep(self.parents[element])
        for name in ("type-id", "naming-typedef-id"):
            if element.get(name) in self.types:
                self.keep(self.types[element.get(name)])
        if element.tag == "class-decl" and not self.is_ours(element):
            return
        for child in element:
            if self.belongs(child, element):
                self.keep(child)

    def belongs(self, child, parent):
        if child.tag == "member-type":
            is_first = self.types.get(child[0].get("id")) is child[0]
            return is_first and child.get("access") == "public"
        if child.tag == "member-function":
            return "vtable-offset" in child.attrib
        return parent.tag not in ("abi-corpus", "abi-instr", "namespace-decl")

    def is_ours(self, element):
        while element.tag != "abi-instr":
            outermost = element.get("name", "")
            element = self.parents[element]
        return outermost.startswith(OURS)

    def remove_the_rest(self, element):
        for child in list(element):
            if child in self.kept:
                self.remove_the_rest(child)
            else:
                element.remove(child)
        if len(element) == 0:
            element.text = None


def describe(library):
    with tempfile.TemporaryDirectory(prefix="abi-") as folder:
        file = pathlib.Path(folder) / "description"
        run(
            "abidw", "--no-corpus-path", "--no-comp-dir-path", "--no-show-locs", "--no-elf-needed",
            "--no-parameter-names", "--type-id-style", "hash", "--out-file", file, library,
        )  # fmt: skip
        return Description(file.read_text()).text()


def main():
    folder = pathlib.Path(sys.argv[1])
    built = build(os.environ["SOURCE"], os.environ["BUILD"])
    for name, library in built.items():
        (folder / f"{name}.abi").write_text(describe(library))
        exports = sorted(elf.symbols(library, "--defined-only"))
        (folder / f"{name}.symbols").write_text("\n".join(exports) + "\n")


if __name__ == "__main__":
    main()
