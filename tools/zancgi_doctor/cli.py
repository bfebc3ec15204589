"""The command line of zancgi-doctor."""

import argparse
import contextlib
import os
import re
import signal
import sys

from zancgi_doctor.children import NoResult, run_in_child
from zancgi_doctor.deployment import Site
from zancgi_doctor.examination import examine
from zancgi_doctor.files import read_text
from zancgi_doctor.findings import CHECKS, GROUPS
from zancgi_doctor.identities import Identity, resolve_identity
from zancgi_doctor.report import json_report, overall, text_report
from zancgi_doctor.texts import MEBIBYTE, describe_error, printable
from zancgi_tools.version import version

EXIT_STATUS = {"ok": 0, "warning": 1, "failure": 2, "unchecked": 3}
USAGE_ERROR = 3
SESSION_LINE_LIMIT = 1 << 16


class Parser(argparse.ArgumentParser):
    def error(self, message):
        self.print_usage(sys.stderr)
        self.exit(USAGE_ERROR, f"{self.prog}: {printable(message)}\n")


def parse_size(text):
    match = re.fullmatch(r"(\d{1,15})([KMGT]?)", text, re.I)
    if not match:
        raise argparse.ArgumentTypeError(f"not a size: {text}")
    return int(match[1]) << {"": 0, "K": 10, "M": 20, "G": 30, "T": 40}[match[2].upper()]


def parse_seconds(text):
    with contextlib.suppress(ValueError):
        if 0 < float(text) <= 3600:
            return float(text)
    raise argparse.ArgumentTypeError(f"not a number of seconds up to 3600: {text}")


def parse_pid(text):
    if not re.fullmatch("[1-9][0-9]{0,9}", text):
        raise argparse.ArgumentTypeError(f"not a process number: {text}")
    return int(text)


def parse_check(text):
    if text in CHECKS or text in GROUPS:
        return text
    raise argparse.ArgumentTypeError(f"no such check: {text} (see --list)")


def parse_session(text):
    if not re.fullmatch(r"[!-:<-~]+", text):
        raise argparse.ArgumentTypeError(
            "a session must not contain blanks, ';' or unprintable characters"
        )
    return text


def make_parser():
    parser = Parser(
        prog="zancgi-doctor",
        allow_abbrev=False,
        description="Checks a deployment of front ends made with libzancgi.",
        epilog="Exit status: 0 no problems, 1 warnings, 2 failures, 3 something was not checked.",
    )
    add = parser.add_argument
    flag = {"action": "store_true"}
    several = {"action": "append", "default": []}
    text = {"default": ""}
    add("--service", dest="services", metavar="NAME", **several,
        help="check this back end (default: all with a socket)")
    add("--fcgi-socket", dest="fcgi_sockets", metavar="PATH", **several,
        help="check this socket of fcgiwrap (default: those found)")
    add("--program", metavar="FILE", help="check this front end", **text)
    add("--as", dest="user", metavar="USER[:GROUP]", **text,
        help="the user of front ends (default: yourself)")
    add("--run-dir", metavar="DIR", help="the folder of the sockets", **text)
    add("--tmp-dir", metavar="DIR", help="the folder of uploads", **text)
    add("--account", dest="accounts", metavar="NAME", **several,
        help="check this account, which front ends become")
    add("--confined", help="front ends confine the accounts to their homes", **flag)
    add("--pam", help="front ends open PAM sessions for the accounts", **flag)
    add("--session", type=parse_session, metavar="ID",
        help="a session that the service accepts (visible to other users)")
    add("--session-file", metavar="FILE", **text,
        help="read the session from the first line of a file; - is standard input")
    add("--pid", type=parse_pid, default=0, metavar="PID",
        help="use the environment and limits of this process, such as the web server")
    add("--timeout", type=parse_seconds, default=5.0, metavar="S",
        help="seconds to wait for an answer (default: 5)")
    add("--min-free", type=parse_size, default=100 * MEBIBYTE, metavar="SIZE",
        help="free space that uploads need (default: 100M)")
    add("--check", type=parse_check, metavar="NAME", **several,
        help="make only this check or group of checks")
    add("--list", help="list the checks", **flag)
    add("--json", help="report as JSON", **flag)
    add("-q", "--quiet", help="print the first line only", **flag)
    add("-v", "--verbose", help="also show checks that passed or were skipped", **flag)
    add("-V", "--version", action="version", version=f"%(prog)s {version()}")
    return parser


def read_environment(pid):
    if not pid:
        return dict(os.environ)
    variables = read_text(f"/proc/{pid}/environ").split("\0")
    return dict(line.split("=", 1) for line in variables if "=" in line)


def read_session(site):
    if not site.session_file:
        return site.session or ""
    if site.session_file == "-":
        line = sys.stdin.readline(SESSION_LINE_LIMIT)
    else:
        line = read_text(site.session_file).partition("\n")[0]
    return parse_session(line.strip())


def find_closed_streams():
    """To be called first: later, other descriptors take these numbers."""
    closed = []
    for number in range(3):
        try:
            os.fstat(number)
        except OSError:
            closed.append(number)
    return closed


def complete(site):
    """Sets what the options leave to the environment and the machine."""
    site.identity = Identity(*run_in_child(site.timeout, resolve_identity, site.user))
    site.has_rights = os.geteuid() == 0 or site.identity.is_own()
    site.environment = read_environment(site.pid)
    site.run_dir = site.run_dir or site.environment.get("TOV_RUN_DIR", "") or "/run/tov"
    site.tmp_dir = site.tmp_dir or site.environment.get("TMP", "") or "/tmp"
    site.session = read_session(site)


def refuse(message):
    print(f"zancgi-doctor: {message}", file=sys.stderr)
    return USAGE_ERROR


def print_list():
    for name, check in CHECKS.items():
        print(f"{name:<25} {check.about}")


def main():
    closed_streams = find_closed_streams()
    # If the caller ignores SIGCHLD, children cannot be waited for.
    signal.signal(signal.SIGCHLD, signal.SIG_DFL)
    site = make_parser().parse_args(namespace=Site(closed_streams=closed_streams))
    if sys.stdout is not None:
        sys.stdout.reconfigure(errors="backslashreplace")
    if site.list:
        print_list()
        return 0
    if (site.session or site.session_file) and len(site.services) != 1:
        return refuse("a session needs exactly one --service")
    try:
        complete(site)
    except (NoResult, OSError, argparse.ArgumentTypeError) as error:
        return refuse(describe_error(error) if isinstance(error, OSError) else error)
    findings = examine(site, site.check)
    if site.json:
        print(json_report(findings))
    else:
        print("\n".join(text_report(findings, site.quiet, site.verbose)))
    return EXIT_STATUS[overall(findings)]
