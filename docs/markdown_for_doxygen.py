#!/usr/bin/python3
"""Prints a Markdown document of this tree in the form that Doxygen understands.

usage: markdown_for_doxygen.py DOCUMENT

The documents are written for readers of plain Markdown, where headings are
targets of links by their text, a link may lead to any file of the tree, and a
backslash is a backslash.
"""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
FENCED = re.compile(r"^(?P<indent>[ \t]*)```.*?^(?P=indent)```[ \t]*$", re.DOTALL | re.MULTILINE)
CODE = re.compile(r"`([^`]+)`")
STRONG = re.compile(r"\*\*(?=\S)(.+?)(?<=\S)\*\*", re.DOTALL)
HEADING = re.compile(r"^(#+) (.*)$", re.MULTILINE)
LINK = re.compile(r"(?P<picture>!?)\[(?P<text>[^\]]*)\]\((?P<target>[^)\s]+)\)")


def page_id(path):
    """The name of a document among Doxygen's pages."""
    name = path.relative_to(ROOT).with_suffix("").as_posix()
    return name.replace("/", "_").replace("-", "_").lower()


def is_page(path):
    in_place = path == ROOT / "README.md" or path.parent == ROOT / "docs"
    return in_place and path.suffix == ".md" and path.exists()


def anchor(heading):
    """The anchor that Markdown readers give to a heading."""
    return re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-")


def label(path, fragment):
    return f"{page_id(path)}_{fragment}" if fragment else page_id(path)


def translated_link(document, link):
    text, target = link["text"], link["target"]
    if re.match(r"[a-z]+:", target):
        return link[0]
    name, _, fragment = target.partition("#")
    path = (document.parent / name).resolve() if name else document
    if link["picture"]:
        return f"![{text}]({path.name})"
    if is_page(path):
        return f"[{text}](@ref {label(path, fragment)})"
    if path.suffix == ".h" and path.is_relative_to(ROOT / "src"):
        return f'@ref {path.name} "{text}"'
    # Not among the pages: the name stays without a link.
    return text


def translated_code(code):
    """Two backticks, so that an apostrophe does not end the code, and an entity, so
    that a quote does not begin a string."""
    return "``" + code[1].replace('"', "&quot;") + "``"


class Headings:
    """Gives each heading its label; the first one is the page's title."""

    def __init__(self, document):
        self.document = document
        self.is_first = True

    def __call__(self, heading):
        marks, text = heading.groups()
        fragment = "" if self.is_first else anchor(text)
        self.is_first = False
        return f"{marks} {text} {{#{label(self.document, fragment)}}}"


def translated_text(document, headings, text):
    text = CODE.sub(translated_code, text.replace("\\", "\\\\"))
    # Doxygen does not recognise code between two asterisks.
    text = STRONG.sub(r"<b>\1</b>", text)
    text = HEADING.sub(headings, text)
    return LINK.sub(lambda link: translated_link(document, link), text)


def translated(document):
    document = document.resolve()
    text = document.read_text()
    headings = Headings(document)
    result = ""
    end = 0
    for block in FENCED.finditer(text):
        result += translated_text(document, headings, text[end : block.start()]) + block[0]
        end = block.end()
    return result + translated_text(document, headings, text[end:])


if __name__ == "__main__":
    sys.stdout.write(translated(pathlib.Path(sys.argv[1])))
