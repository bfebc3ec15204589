"""Reads built files."""

import re
import subprocess


def run(*command):
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout


def read_elf(file, *selection):
    return run("readelf", "--wide", *selection, file)


def symbols(library, selection):
    """Demangled names, without the compiler's notes on the string type and
    without versions."""
    names = set()
    for line in run("nm", "--dynamic", "--demangle", selection, library).splitlines():
        name = re.sub(r"^[0-9a-f]*\s+\w ", "", line)
        name = re.sub(r"@@?[A-Z_0-9.]+$", "", name).replace("[abi:cxx11]", "")
        names.add(shorten(name))
    return names


def shorten(name):
    string = r"std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >"
    return re.sub(string, "std::string", name)
