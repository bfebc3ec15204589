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
