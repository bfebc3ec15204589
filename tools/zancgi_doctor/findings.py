"""What a check has found out, and the states that it may be in."""

import dataclasses

STATES = ("failure", "warning", "unchecked", "ok", "skipped")
BECOME_ROOT = "Run zancgi-doctor as root."


@dataclasses.dataclass
class Finding:
    name: str
    subject: str
    state: str
    message: str
    remedy: str = ""


def ok(name, subject, message):
    return Finding(name, subject, "ok", message)


def warning(name, subject, message, remedy):
    return Finding(name, subject, "warning", message, remedy)


def failure(name, subject, message, remedy):
    return Finding(name, subject, "failure", message, remedy)


def unchecked(name, subject, message, remedy):
    return Finding(name, subject, "unchecked", message, remedy)


def skipped(name, subject, message):
    return Finding(name, subject, "skipped", message)
