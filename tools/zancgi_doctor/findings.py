"""What a check has found out, and the states that it may be in."""

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
    """One of the outcomes that the catalogue has for the check."""
    state = outcome.partition(" ")[0]
    message, remedy = sentences(check, outcome, {"subject": subject, **values})
    return Finding(check, subject, state, message, remedy)


def sayer(check, subject, **values):
    """Makes the findings of one check and subject."""
    return functools.partial(finding, check, subject, **values)


def by_access(say, error):
    """The finding of an attempt with the front end's rights, which may be unknown."""
    if error is None:
        return say("unchecked")
    return say("failure", error=error) if error else say("ok")


def by_danger(say, unsafe, outcome="failure"):
    """The finding from the reason why something is unsafe, which is empty if it is safe."""
    return say(outcome if unsafe else "ok", unsafe=unsafe)


def by_kind(say, path, is_kind, hidden="unchecked"):
    """The finding from what lies at a path. Hidden is the outcome if the caller may
    not look there."""
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
