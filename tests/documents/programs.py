"""Takes the C++ programs out of the documents, so that they can be compiled.

usage: programs.py FOLDER DOCUMENT...

Writes each block that a Markdown document marks as C++, and each display in the
section EXAMPLES of a manual page, to a file of its own, and leaves nothing else
in FOLDER. Prints one line "PATH STANDARD" for each program: the standard is the
lowest that it compiles in.

A block is a whole program if it includes something; else it is wrapped into a
function in which "cgi" is the request. Its first line may be "// NAME.cpp",
which names the file, and may add a standard: "// NAME.cpp (C++17)". A block that
begins "// NAME.h" is a header that the others include.
"""

import pathlib
import re
import sys
import textwrap

FENCE = re.compile(
    r"^(?P<indent>[ \t]*)(?P<fence>```+|~~~+)[ \t]*\{?\.?(?:cpp|c\+\+|cc|cxx)\b[^\n]*\n"
    r"(?P<text>.*?)^(?P=indent)(?P=fence)[ \t]*$",
    re.DOTALL | re.IGNORECASE | re.MULTILINE,
)
EXAMPLES = re.compile(r"^\.Sh EXAMPLES\n(.*?)^\.Sh ", re.DOTALL | re.MULTILINE)
DISPLAY = re.compile(r"^\.Bd [^\n]*\n(.*?)^\.Ed$", re.DOTALL | re.MULTILINE)
TITLE = re.compile(r"// (?P<name>[\w-]+)\.(?P<suffix>cpp|h)(?: \(C\+\+(?P<standard>\d+)\))?$", re.M)
LOWEST_STANDARD = "11"

FRAGMENT = """\
#include <stdlib.h>
#include <unistd.h>
#include <zancgi/account.h>
#include <zancgi/response.h>
#include <zancgi/zancgi.h>

#include <cstdio>
#include <exception>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

void Fragment(zan_cgi::Cgi& cgi);

void Fragment(zan_cgi::Cgi& cgi) {{
  static_cast<void>(cgi);
{text}}}
"""


def unescape(roff):
    """The text of a literal display in a manual page."""
    return roff.replace("\\&", "").replace("\\e", "\\")


def blocks(path):
    text = path.read_text()
    if path.suffix == ".md":
        return [textwrap.dedent(match["text"]) for match in FENCE.finditer(text)]
    return [
        unescape(display)
        for section in EXAMPLES.findall(text)
        for display in DISPLAY.findall(section)
    ]


def files(path):
    """Yields file name, standard and text of each block."""
    for number, block in enumerate(blocks(path), 1):
        title = TITLE.match(block)
        if title and title["suffix"] == "h":
            yield f"{title['name']}.h", None, block
            continue
        name = title["name"] if title else str(number)
        standard = title and title["standard"] or LOWEST_STANDARD
        if "#include" not in block:
            block = FRAGMENT.format(text=textwrap.indent(block, "  "))
        yield f"{path.stem}_{name}.cpp", standard, block


def write_if_changed(path, text):
    if not path.exists() or path.read_text() != text:
        path.write_text(text)


def main(folder, *documents):
    folder = pathlib.Path(folder)
    folder.mkdir(parents=True, exist_ok=True)
    written = set()
    for document in documents:
        for name, standard, text in files(pathlib.Path(document)):
            path = folder / name
            if path in written:
                sys.exit(f"programs.py: {document} shows a second {name}")
            written.add(path)
            write_if_changed(path, text)
            if standard:
                print(path, standard)
    for path in set(folder.iterdir()) - written:
        path.unlink()


if __name__ == "__main__":
    main(*sys.argv[1:])
