"""The record of a library: each symbol that it exports with the release that it
came in, what each function returns, and the classes and enumerations that front
ends compile in. It is the same wherever the library was built.

    record.py NAME...

writes the records of these libraries anew. Debian's tools read the same files:
to them all that is not a symbol is a comment.
"""

import os
import pathlib
import sys
import xml.etree.ElementTree as ElementTree

import elf

OURS = ("zan_cgi", "str", "tov_")


def path(name):
    return pathlib.Path(__file__).with_name(f"{name}.symbols")


def symbols(name):
    """The release that each symbol came in."""
    lines = path(name).read_text().splitlines()
    return dict(line.split() for line in lines if line.startswith(" "))


def exported(library):
    """The symbols that a library exports, as records name them."""
    names = (line.split()[-1] for line in elf.nm(library, "--defined-only"))
    return {name.replace("@@", "@") if "@" in name else f"{name}@{name}" for name in names}


def libraries():
    """Those of this build."""
    return dict(pair.split("=", 1) for pair in os.environ["LIBRARIES"].split())


def library_for_debuggers(name):
    """Not optimised: else two functions alike become one, with one description."""
    if os.environ["BUILD_TYPE"] == "Debug":
        return libraries()[name]
    folder = pathlib.Path(os.environ["BUILD"])
    elf.run(
        os.environ["CMAKE"], "-S", os.environ["SOURCE"], "-B", folder, "-G", "Ninja",
        f"-DCMAKE_CXX_COMPILER={os.environ['CXX']}", "-DCMAKE_BUILD_TYPE=Debug",
        "-DZANCGI_INSTALL=OFF", "-DZANCGI_BUILD_TESTS=OFF", "-DZANCGI_BUILD_EXAMPLES=OFF",
        "-DZANCGI_BUILD_TESTKIT=OFF",
    )  # fmt: skip
    elf.run(os.environ["CMAKE"], "--build", folder, "--target", name)
    return folder / "src" / name / f"lib{name}.so"


class Description:
    """What abidw says of a library."""

    def __init__(self, library):
        text = elf.run("abidw", "--no-show-locs", "--no-parameter-names", library)
        self.root = ElementTree.fromstring(text)
        self.parents = {child: parent for parent in self.root.iter() for child in parent}
        # Some are there twice, with the same contents.
        self.types, self.functions = {}, {}
        for element in self.root.iter():
            self.types.setdefault(element.get("id"), element)
            symbol = element.get("elf-symbol-id", "").replace("@@", "@")
            self.functions.setdefault(symbol, element)
        self.types.pop(None)
        self.functions.pop("")
        if not self.functions:
            raise RuntimeError(f"{library} has no debugging information")
        self.sizes = {
            "{}@{}".format(symbol.get("name"), symbol.get("version")): symbol.get("size")
            for symbol in self.root.find("elf-variable-symbols")
        }
        self.reached = set()

    def of_symbol(self, symbol, name):
        """Its name as C++ has it, with what the name itself does not say."""
        if symbol in self.sizes:
            return f"{name}, {self.sizes[symbol]} bytes"
        function = self.functions.get(symbol)
        if function is None:
            return name
        is_static = self.parents[function].get("static") == "yes"
        returned = self.type_name(function.find("return"))
        words = ["static"] * is_static + [returned] * (returned != "void") + [name]
        return " ".join(words)

    def type_name(self, element):
        """Of the type that an element speaks of, as the demangler writes it."""
        kind = self.types[element.get("type-id")]
        if kind.tag == "pointer-type-def":
            return self.type_name(kind) + "*"
        if kind.tag == "reference-type-def":
            return self.type_name(kind) + ("&" if kind.get("kind") == "lvalue" else "&&")
        if kind.tag == "qualified-type-def":
            names = [name for name in ("const", "volatile") if kind.get(name) == "yes"]
            return " ".join([self.type_name(kind), *names])
        if kind.tag == "typedef-decl":
            stands_for = self.type_name(kind)
            own = self.name(kind)
            return stands_for if own == stands_for else f"{own} = {stands_for}"
        return self.name(kind)

    def name(self, element):
        names = [element.attrib["name"]]
        while element.tag != "abi-instr":
            element = self.parents[element]
            if element.tag in ("namespace-decl", "class-decl"):
                names.insert(0, element.get("name"))
        return elf.shorten("::".join(names))

    def of_types(self):
        """Of our classes and enumerations that exported functions lead to."""
        for function in self.functions.values():
            self.reach(function)
        kinds = self.reached & set(self.types.values())
        named = [kind for kind in kinds if kind.tag in ("class-decl", "union-decl", "enum-decl")]
        for kind in sorted(filter(self.is_ours, named), key=self.name):
            yield from self.of_type(kind)

    def reach(self, element):
        if element in self.reached:
            return
        self.reached.add(element)
        if element.get("type-id") in self.types:
            self.reach(self.types[element.get("type-id")])
        if element.tag == "class-decl" and not self.is_ours(element):
            return
        if element in self.parents:
            self.reach(self.parents[element])
        for child in element:
            if self.is_promised(child, element):
                self.reach(child)

    def is_promised(self, child, parent):
        """Private classes are not, nor functions that a library does not export."""
        if child.tag in ("member-type", "member-function"):
            return child.tag == "member-type" and child.get("access") == "public"
        return parent.tag not in ("abi-corpus", "abi-instr", "namespace-decl")

    def is_ours(self, element):
        return self.name(element).startswith(OURS)

    def of_type(self, kind):
        if kind.tag == "enum-decl":
            underlying = self.types[kind.find("underlying-type").get("type-id")]
            yield f"enum {self.name(kind)}, {self.size(underlying)} bytes"
            for value in kind.iter("enumerator"):
                yield f"  {value.get('name')} = {value.get('value')}"
            return
        yield f"{kind.tag[:-5]} {self.name(kind)}, {self.size(kind)} bytes"
        # Of a destructor there are several.
        yield from dict.fromkeys(filter(None, map(self.of_member, kind)))

    def of_member(self, member):
        how = [name for name in ("is-virtual", "static") if member.get(name) == "yes"]
        if member.get("layout-offset-in-bits"):
            how.append(f"{int(member.get('layout-offset-in-bits')) / 8:g}")
        how.append(member.get("access"))
        if member.tag == "base-class":
            return "  {} base {}".format(" ".join(how), self.type_name(member))
        if member.tag == "data-member":
            (field,) = member
            return "  {} {} {}".format(" ".join(how), self.type_name(field), field.get("name"))
        if "vtable-offset" in member.attrib:
            (function,) = member
            (signature,) = elf.demangled([function.get("mangled-name")]).values()
            how += [self.type_name(function.find("return")), signature]
            return f"  virtual {member.get('vtable-offset')} {' '.join(how)}"
        return ""

    def size(self, element):
        # Of a class that is declared only, none.
        return int(element.get("size-in-bits", 0)) // 8


def made(name):
    """The record as it should be."""
    description = Description(library_for_debuggers(name))
    came_in = symbols(name)
    by_name = {}
    for symbol, demangled in elf.demangled(exported(libraries()[name])).items():
        by_name.setdefault(demangled, []).append(symbol)

    lines = path(name).read_text().splitlines()
    lines = [line for line in lines if not line.startswith((" ", "# "))]
    for demangled, variants in sorted(by_name.items()):
        described = [description.of_symbol(symbol, demangled) for symbol in variants]
        lines.append(f"# {max(described, key=len)}")
        release = os.environ["VERSION"]
        lines += [f" {symbol} {came_in.get(symbol, release)}" for symbol in sorted(variants)]
    lines += [f"# {line}" for line in description.of_types()]
    return "\n".join(lines) + "\n"


if __name__ == "__main__":
    for library in sys.argv[1:]:
        path(library).write_text(made(library))
