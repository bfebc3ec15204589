"""The checks and their findings, read from checks.ini."""

import configparser
import dataclasses
import pathlib
import string

from zancgi_doctor.texts import printable, quote

BECOME_ROOT = "Run zancgi-doctor as root."


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
