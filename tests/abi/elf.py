"""Reads built files."""

import re
import subprocess


def run(*command, **options):
    """What a command prints; its complaints, when it fails."""
    done = subprocess.run(command, capture_output=True, text=True, timeout=500, **options)
    if done.returncode != 0:
        raise AssertionError(f"{command} failed:\n{done.stdout}{done.stderr}")
    return done.stdout


def read_elf(file, *selection):
    return run("readelf", "--wide", *selection, file)


def nm(library, *selection):
    """A line for each symbol that the loader knows."""
    return run("nm", "--dynamic", *selection, library).splitlines()


def symbols(library, selection):
    """Demangled names."""
    return set(demangled(line.split()[-1] for line in nm(library, selection)).values())


def demangled(names):
    """What each name is in C++, without versions and without the compiler's
    notes on the string type."""
    names = list(names)
    text = run("c++filt", *(re.sub(r"@.*", "", name) for name in names))
    lines = text.replace("[abi:cxx11]", "").splitlines()
    return {name: shorten(line) for name, line in zip(names, lines, strict=True)}


def shorten(name):
    string = r"std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >"
    return re.sub(string, "std::string", name)
