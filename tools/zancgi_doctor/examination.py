"""Runs the checks of a deployment, each group in its own process."""

import dataclasses

from zancgi_doctor.checks.accounts import check_account, check_nss
from zancgi_doctor.checks.back_end import check_back_end
from zancgi_doctor.checks.log import check_log
from zancgi_doctor.checks.pam import check_pam
from zancgi_doctor.checks.process import check_identity, check_limits, check_process
from zancgi_doctor.checks.program import check_program
from zancgi_doctor.checks.sockets import check_fcgi, check_run_dir, check_socket
from zancgi_doctor.checks.tmp_dir import check_tmp_dir
from zancgi_doctor.children import NoResult, run_in_child
from zancgi_doctor.deployment import fcgi_sockets_of, services_of
from zancgi_doctor.findings import Finding, finding
from zancgi_doctor.texts import describe_error


def is_wanted(name, wanted):
    return not wanted or name in wanted or name.partition(".")[0] in wanted


def jobs(site):
    """Groups of checks, each with its function and arguments."""
    services = services_of(site)
    yield "identity", check_identity, ()
    yield "run-dir", check_run_dir, ()
    if not services:
        yield "socket", nothing("socket.kind", "warning none", site.run_dir), ()
    for service in services:
        yield "socket", check_socket, (service,)
        yield "back-end", check_back_end, (service,)
    fcgi_sockets = fcgi_sockets_of(site)
    if not fcgi_sockets:
        yield "fcgi", nothing("fcgi.kind", "skipped"), ()
    for path in fcgi_sockets:
        yield "fcgi", check_fcgi, (path,)
    yield "tmp-dir", check_tmp_dir, ()
    no_program = nothing("program.file", "skipped")
    yield "program", check_program if site.program else no_program, ()
    yield "pam", check_pam, ()
    if not site.accounts:
        yield "account", nothing("account.exists", "skipped"), ()
    for account in site.accounts:
        yield "account", check_account, (account,)
    yield "nss", check_nss, ()
    yield "limits", check_limits, ()
    yield "process", check_process, ()
    yield "log", check_log, ()


def nothing(check, outcome, subject=""):
    """Replaces a group that has nothing to check."""

    def report_nothing(_site):
        yield finding(check, subject, outcome)

    return report_nothing


def run_job(site, group, function, arguments):
    """The findings of one group. A fault in it is a finding too."""
    subject = arguments[0] if arguments else ""

    def give_up(error):
        return Finding(
            group,
            subject,
            "unchecked",
            f"The rest could not be checked: {error}.",
            "Remove this cause, or run zancgi-doctor as root.",
        )

    def work():
        findings = []
        try:
            for found in function(site, *arguments):
                findings.append(found)
        except NoResult as error:
            findings.append(give_up(error))
        except OSError as error:
            findings.append(give_up(describe_error(error)))
        return [dataclasses.asdict(found) for found in findings]

    # Several steps of a group may each take the whole time limit.
    seconds = 4 * site.timeout + 5
    identity = site.identity if group == "back-end" and site.has_rights else None
    try:
        found = run_in_child(seconds, work, identity=identity)
    except NoResult as error:
        return [give_up(error)]
    return [Finding(**fields) for fields in found]


def chosen(found, wanted):
    """The wanted findings of a group; if there are none, those that prevented them."""
    matching = [each for each in found if is_wanted(each.name, wanted) or "." not in each.name]
    return matching or [each for each in found if each.state != "ok"]


def examine(site, wanted):
    findings = []
    groups = {name.partition(".")[0] for name in wanted}
    for group, function, arguments in jobs(site):
        if not groups or group in groups:
            findings += chosen(run_job(site, group, function, arguments), wanted)
    return findings
