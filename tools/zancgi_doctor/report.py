"""Reports in text and JSON."""

import dataclasses
import json

from zancgi_doctor.findings import STATES
from zancgi_doctor.texts import counted, printable

SCHEMA_VERSION = 1


def overall(findings):
    present = {finding.state for finding in findings}
    return next((state for state in STATES[:3] if state in present), "ok")


def summary_line(findings):
    """Monitoring systems show this line, but only up to a "|"."""
    state = overall(findings)
    number = {name: sum(finding.state == name for finding in findings) for name in STATES}
    line = (
        f"zancgi-doctor {state.upper()}: {counted(number['failure'], 'failure')}, "
        f"{counted(number['warning'], 'warning')}, {number['unchecked']} unchecked, "
        f"{number['ok']} ok"
    )
    worst = next((finding for finding in findings if finding.state == state != "ok"), None)
    if worst:
        line += f"; {described(worst)}"
    return line.replace("|", r"\x7c")


def described(finding):
    subject = f" {printable(finding.subject)}" if finding.subject else ""
    return f"{finding.name}{subject}: {finding.message}"


def text_report(findings, quiet, verbose):
    lines = [summary_line(findings)]
    if quiet:
        return lines
    shown = STATES if verbose else STATES[:3]
    for finding in findings:
        if finding.state in shown:
            lines.append(f"{finding.state.upper()}  {described(finding)}")
            if finding.remedy:
                lines.append(f"    {finding.remedy}")
    return lines


def json_report(findings):
    checks = [dataclasses.asdict(finding) for finding in findings]
    for check in checks:
        check["subject"] = printable(check["subject"])
    return json.dumps(
        {"version": SCHEMA_VERSION, "state": overall(findings), "checks": checks}, indent=2
    )
