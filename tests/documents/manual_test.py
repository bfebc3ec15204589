"""The manual pages say what the header and the sources say."""

import os
import pathlib
import re
import subprocess
import unittest

from verdict import main

SOURCE = pathlib.Path(os.environ["SOURCE"])
FILES = {path.stem: path for path in sorted((SOURCE / "docs" / "man").glob("*.3"))}
# Several operations share a page; the files of the others lead to it.
ALIASES = {
    name: found[1]
    for name, path in FILES.items()
    if (found := re.fullmatch(r"\.so man3/(\w+)\.3\n", path.read_text()))
}
PAGES = {name: path for name, path in FILES.items() if name not in ALIASES}
OPERATION_PAGES = {name: path for name, path in PAGES.items() if name != "zancgi"}
HEADER = SOURCE / "src" / "zancgi" / "zancgi.h"
# Each class is shown whole. A page may show all functions of one of them, and
# has its name then.
OTHER_HEADERS = [
    HEADER.with_name(f"{name}.h") for name in ("account", "form", "request", "response")
]

PAGES_OF_THE_SYSTEM = {
    "alarm(2)", "capabilities(7)", "chroot(2)", "getgrouplist(3)", "initgroups(3)", "malloc(3)",
    "nsswitch.conf(5)", "pam_conv(3)", "pam_open_session(3)", "pam_start(3)", "rename(2)",
    "sendfile(2)", "session-keyring(7)", "setrlimit(2)", "setuid(2)", "tmpfiles.d(5)",
}
# Which pages of others this machine has does not matter here, and text is filled.
IGNORED = (
    "referenced manual not found",
    "input text line longer than 80 bytes",
    "new sentence, new line",
)
SECTIONS = ["NAME", "SYNOPSIS", "DESCRIPTION", "RETURN VALUES", "EXAMPLES", "ERRORS", "SEE ALSO"]
# String literals, those side by side as one.
LITERALS = re.compile(r'"(?:\\.|[^"\\\n])*"(?:\s*"(?:\\.|[^"\\\n])*")*')
# A guard against what cannot happen.
NEVER_THROWN = {"Boundary definition not found"}


def section(page, title):
    found = re.search(
        rf"^\.Sh {title}\n(.*?)(?=^\.Sh |\Z)", page.read_text(), re.DOTALL | re.MULTILINE
    )
    return found[1] if found else ""


def statements(text):
    """Splits declarations at each ";" that stands in no braces."""
    depth = 0
    begin = 0
    for i, character in enumerate(text):
        depth += (character == "{") - (character == "}")
        if character == ";" and depth == 0:
            yield text[begin : i + 1]
            begin = i + 1


def body(text):
    return text[text.index("{") + 1 : text.rindex("}")]


def normalised(declaration):
    """Without layout, and without what a place in the header says anyway."""
    declaration = re.sub(r"\b(zan_cgi|Cgi|AuthInfo)::", "", declaration)
    declaration = re.sub(r"\b(ZANCGI_API|public:)", " ", declaration)
    return re.sub(r"\s*([(){};,])\s*|\s+", lambda m: m[1] or " ", declaration).strip()


def header_statements(header):
    """What a header declares in the namespace."""
    text = re.sub(r"//[^\n]*", "", header.read_text())
    text = re.sub(r"^#(?:[^\n]*\\\n)*[^\n]*", "", text, flags=re.MULTILINE)
    for statement in statements(body(text[text.index("namespace zan_cgi") :])):
        # Neither an alias nor a class that is only announced is for users.
        if not re.match(r"\s*(using |(class|struct) \w+;)", statement):
            yield statement


def request_declarations():
    """Those of the header whose class has a page for each operation."""
    request, record, *functions = header_statements(HEADER)
    public = body(request).split("private:")[0]
    caller, _, *operations = statements(public)
    method, *fields = statements(body(caller))
    yield normalised(method)
    yield normalised("struct AuthInfo {" + "".join(fields) + "};")
    yield from map(normalised, [*operations, record, *functions])


def declarations(header):
    for statement in header_statements(header):
        yield normalised(re.sub(r"private:.*};", "};", statement, flags=re.DOTALL))


def header_declarations():
    yield from request_declarations()
    for header in OTHER_HEADERS:
        yield from declarations(header)


def page_declarations(page):
    for display in re.findall(r"^\.Bd [^\n]*\n(.*?)^\.Ed", section(page, "SYNOPSIS"), re.S | re.M):
        yield from map(normalised, statements(display))


def source_texts():
    """The string literals of the sources, cut where something is filled in."""
    for path in [*(SOURCE / "src").rglob("*.cpp"), *(SOURCE / "src").rglob("*.h")]:
        for literals in LITERALS.findall(path.read_text()):
            text = re.sub(r'"\s*"', "", literals)[1:-1]
            yield from re.split(r"%\w+", text)


def fixed_parts(text):
    """What a message says whatever it is about."""
    value = re.fullmatch(r"(bad value ').*?(' of ')(.*)'", text)
    missed = re.fullmatch(r"(missing value of ')(.*)'", text)
    if value or missed:
        return (value or missed).groups()
    return [part for part in re.split(r"\.\.\.|\d+", text) if part.strip()]


def messages(page):
    for title in ("ERRORS", "DIAGNOSTICS"):
        yield from re.findall(r'^\.It [^\n]*Li "([^\n]*)"$', section(page, title), re.MULTILINE)


def thrown_texts():
    """The beginnings of the texts of exceptions."""
    folder = SOURCE / "src" / "zancgi"
    thrown = re.compile(
        r'(?:runtime_error|FormError|AccountError|Refuse)\(\s*(?:\d+,\s*)?(?:std::string\(\s*)?'
        rf"({LITERALS.pattern})"
    )
    for path in folder.rglob("*.cpp"):
        yield from thrown.findall(path.read_text())
    # Its checks hand their texts on.
    checks = (folder / "account.cpp").read_text()
    yield from (literal for literal in re.findall(r'"[^"\n]*"', checks) if " " in literal)


def tells(message, text):
    """Whether a message of a page is the text, or begins with it."""
    pattern = ".*".join(map(re.escape, message.split("...")))
    return message.startswith(text) or re.fullmatch(pattern, text)


class ManualTest(unittest.TestCase):
    def check(self, pages, assert_right):
        for name, page in pages.items():
            with self.subTest(page=name):
                assert_right(name, page)

    def test_pages_are_clean_and_set_without_warnings(self):
        def lint(_, page):
            command = ["mandoc", "-T", "lint", "-W", "style", page]
            run = subprocess.run(command, capture_output=True, text=True)
            lines = run.stdout.splitlines()
            complaints = [line for line in lines if not any(each in line for each in IGNORED)]
            self.assertEqual(complaints, [])
            self.assertLess(run.returncode, 3, run.stderr)
            command = ["groff", "-mdoc", "-ww", "-z", "-Tutf8", page]
            run = subprocess.run(command, capture_output=True, text=True)
            self.assertEqual((run.returncode, run.stderr), (0, ""))

        self.check(PAGES, lint)

    def test_pages_have_their_names_and_all_sections(self):
        def assert_complete(name, page):
            text = page.read_text()
            self.assertIn(f"\n.Dt {name.upper()} 3\n", text)
            self.assertRegex(section(page, "NAME"), rf"\A\.Nm {name}\b")
            titles = re.findall(r"^\.Sh (.*)$", text, re.MULTILINE)
            missing = {"RETURN VALUES"} if name == "zancgi" else set()
            wanted = [title for title in SECTIONS if title not in missing]
            self.assertEqual([title for title in titles if title in SECTIONS], wanted)

        self.check(PAGES, assert_complete)

    def test_each_declaration_of_the_header_has_a_page(self):
        shown = [each for page in OPERATION_PAGES.values() for each in page_declarations(page)]
        self.assertEqual(sorted(shown), sorted(header_declarations()))

    def test_declarations_stand_in_the_page_of_their_name(self):
        def assert_first(name, page):
            operation = name.removeprefix("zancgi_")
            if operation in [header.stem for header in OTHER_HEADERS]:
                header = HEADER.with_name(f"{operation}.h")
                self.assertEqual(list(page_declarations(page)), list(declarations(header)))
                return
            self.assertRegex(next(page_declarations(page)), rf"\b{operation}[({{]")

        self.check(OPERATION_PAGES, assert_first)

    def test_aliases_lead_to_pages_that_have_their_names(self):
        self.assertTrue(ALIASES)
        for name, target in ALIASES.items():
            with self.subTest(alias=name):
                self.assertIn(f".Nm {name} ,\n", section(PAGES[target], "NAME"))

    def test_references_lead_somewhere(self):
        ours = {f"{name}(3)" for name in FILES} | {"zancgi-doctor(1)", "zancgi-request(1)"}
        reference = re.compile(r"\bXr (\S+) (\d)")

        def assert_known(name, page):
            found = reference.findall(page.read_text())
            references = {f"{target}({number})" for target, number in found}
            self.assertTrue(references)
            self.assertLessEqual(references, ours | PAGES_OF_THE_SYSTEM)
            self.assertIn("zancgi(3)", references | {f"{name}(3)"})

        self.check(PAGES, assert_known)

    def test_overview_lists_all_pages_and_summarises_as_they_do(self):
        overview = PAGES["zancgi"].read_text()
        listed = re.findall(r"^\.It Xr (\S+) 3$", overview, re.MULTILINE)
        self.assertEqual(sorted(listed), sorted(OPERATION_PAGES))
        summaries = dict(re.findall(r"^\.It Xr (\S+) 3\n(.*)$", overview, re.MULTILINE))
        self.check(
            OPERATION_PAGES,
            lambda name, page: self.assertIn(f".Nd {summaries[name]}\n", page.read_text()),
        )

    def test_messages_are_those_of_the_sources(self):
        texts = list(source_texts())
        shown = []

        def assert_from_the_sources(_, page):
            for message in messages(page):
                for part in fixed_parts(message):
                    found = any(part in text or part.strip() == text.strip() for text in texts)
                    self.assertTrue(found, f"'{part}' of '{message}'")
                shown.append(message)

        self.check(PAGES, assert_from_the_sources)
        self.assertGreater(len(shown), 40)

    def test_no_exception_is_left_out(self):
        thrown = {re.sub(r'"\s*"', "", literal)[1:-1] for literal in thrown_texts()}
        self.assertGreater(len(thrown), 75)
        told = [message for page in PAGES.values() for message in messages(page)]
        for text in sorted(thrown - NEVER_THROWN):
            with self.subTest(text=text):
                self.assertTrue(any(tells(message, text) for message in told))


if __name__ == "__main__":
    main()
