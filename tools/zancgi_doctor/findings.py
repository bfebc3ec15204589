"""The checks of checks.ini, and their findings."""

import configparser
import dataclasses
import errno
import functools
import os
import pathlib
import string

from zancgi_doctor.files import kind_of
from zancgi_doctor.texts import printable, quote, reason

BECOME_ROOT = "Run zancgi-doctor as root."
STATES = ("failure", "warning", "unchecked", "ok", "skipped")


@dataclasses.dataclass
class Check:
    about: str
    # Message and remedy of each outcome. An outcome begins with its state.
    outcomes: dict


class Sentence(string.Formatter):
    """str.format with the conversions q and p."""

    conversions = {"q": quote, "p": printable}

    def convert_field(self, value, conversion):
        if conversion in self.conversions:
            return self.conversions[conversion](value)
        return super().convert_field(value, conversion)


def read_outcomes(options):
    for words, text in options.items():
        message, _, remedy = (part.strip() for part in text.replace("\n", " ").partition(" | "))
        for outcome in words.split(", "):
            state = outcome.partition(" ")[0]
            default = BECOME_ROOT if state == "unchecked" else ""
            yield outcome, (message, "" if state in ("ok", "skipped") else remedy or default)


def read_catalogue():
    parser = configparser.ConfigParser(
        delimiters=["="],
        comment_prefixes=["#"],
        interpolation=configparser.ExtendedInterpolation(),
    )
    parser.optionxform = str
    parser.read_string(pathlib.Path(__file__).with_name("checks.ini").read_text("utf-8"))
    checks = {}
    for name in parser.sections():
        options = dict(parser[name])
        if "about" in options:
            checks[name] = Check(options.pop("about"), dict(read_outcomes(options)))
    return checks


CHECKS = read_catalogue()
GROUPS = {name.partition(".")[0] for name in CHECKS}


def sentences(check, outcome, values):
    """Message and remedy."""
    return [Sentence().vformat(text, (), values) for text in CHECKS[check].outcomes[outcome]]


@dataclasses.dataclass
class Finding:
    name: str
    subject: str
    state: str
    message: str
    remedy: str = ""


def finding(check, subject, outcome, **values):
    """The finding of a check, with its text from the catalogue."""
    state = outcome.partition(" ")[0]
    message, remedy = sentences(check, outcome, {"subject": subject, **values})
    return Finding(check, subject, state, message, remedy)


def reporter(check, subject, **values):
    """A function that makes findings of one check and subject."""
    return functools.partial(finding, check, subject, **values)


def by_access(report, error):
    """The finding from access_error for the front end's user; None is unknown."""
    if error is None:
        return report("unchecked")
    return report("failure", error=error) if error else report("ok")


def by_danger(report, unsafe, outcome="failure"):
    """The finding from the reason why something is unsafe; empty if it is safe."""
    return report(outcome if unsafe else "ok", unsafe=unsafe)


def by_kind(report, path, is_kind, hidden="unchecked"):
    """The finding from the kind of file at a path; hidden is the outcome if the caller
    has no permission to see it."""
    try:
        mode = os.stat(path).st_mode
    except OSError as error:
        outcome = hidden if error.errno == errno.EACCES else "failure missing"
        return report(outcome, error=reason(error))
    return report("ok") if is_kind(mode) else report("failure kind", kind=kind_of(mode))


def by_amount(report, amount, too_few, few):
    if amount < too_few:
        return report("failure")
    return report("warning") if amount < few else report("ok")
