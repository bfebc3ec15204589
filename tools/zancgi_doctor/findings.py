"""The findings of checks, and their states."""

import dataclasses
import errno
import functools
import os

from zancgi_doctor.catalogue import sentences
from zancgi_doctor.files import kind_of
from zancgi_doctor.texts import reason

STATES = ("failure", "warning", "unchecked", "ok", "skipped")


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


def sayer(check, subject, **values):
    """A function that makes findings of one check and subject."""
    return functools.partial(finding, check, subject, **values)


def by_access(say, error):
    """The finding from access_error for the front end's user; None is unknown."""
    if error is None:
        return say("unchecked")
    return say("failure", error=error) if error else say("ok")


def by_danger(say, unsafe, outcome="failure"):
    """The finding from the reason why something is unsafe; empty if it is safe."""
    return say(outcome if unsafe else "ok", unsafe=unsafe)


def by_kind(say, path, is_kind, hidden="unchecked"):
    """The finding from the kind of file at a path; hidden is the outcome if the caller
    has no permission to see it."""
    try:
        mode = os.stat(path).st_mode
    except OSError as error:
        outcome = hidden if error.errno == errno.EACCES else "failure missing"
        return say(outcome, error=reason(error))
    return say("ok") if is_kind(mode) else say("failure kind", kind=kind_of(mode))


def by_amount(say, amount, too_few, few):
    if amount < too_few:
        return say("failure")
    return say("warning") if amount < few else say("ok")
