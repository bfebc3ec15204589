"""The answer of a service's back end, and the time that it takes."""

import errno
import functools
import os
import re
import stat

from zancgi_doctor.deployment import name_error, socket_path
from zancgi_doctor.deployment import why_not_trust_folder, why_not_trust_link
from zancgi_doctor.findings import by_danger, finding, reporter
from zancgi_doctor.texts import printable, quote, size_text, time_text
from zancgi_doctor.whoami import ANSWER_LIMIT, NotAnAnswer, exchange, length_error, read_whoami
from zancgi_doctor.whoami import whoami_request

SLOW_SECONDS = 1.0
LARGE_COOKIE = 8192


def end_of(answer):
    """How a request failed; None if it did not."""
    if answer.end == "closed" and answer.data:
        return None
    if answer.end in ("closed", "reset") and answer.listener == "haproxy":
        return "no server"
    is_half_way = answer.end == "timeout" and answer.data
    return "timeout half-way" if is_half_way else answer.end


def check_back_end(site, service):
    if name_error(site, service):
        yield finding("back-end.connect", service, "unchecked name")
        return
    path = socket_path(site, service)
    if not is_socket(path):
        yield finding("back-end.connect", service, "unchecked kind")
        return
    if site.session:
        session = session_kept(site, service, path)
        yield session
        if session.state != "ok":
            return
    answer = exchange(path, whoami_request(service, site.session), site.timeout)
    yield connection(service, path, answer)
    if answer.end == "no connection":
        return
    verdict = judge_answer(site, service, answer)
    yield verdict
    if end_of(answer):
        return
    yield answer_time(service, answer.seconds)
    if verdict.state != "failure":
        has_length = length_error(answer.data)[1]
        yield finding("back-end.length", service, "ok" if has_length else "warning")
    yield large_request(site, service, path)


def is_socket(path):
    """Whether a path is a socket, or is hidden from the caller."""
    try:
        return stat.S_ISSOCK(os.stat(path).st_mode)
    except OSError as error:
        return error.errno == errno.EACCES


def session_kept(site, service, path):
    unsafe = why_not_trust_folder(site.run_dir) or why_not_trust_link(site, service)
    return by_danger(reporter("back-end.session", service, path=path), unsafe)


def connection(service, path, answer):
    report = reporter("back-end.connect", service, path=path)
    if answer.end == "no connection":
        is_left = answer.error == os.strerror(errno.ECONNREFUSED)
        return report("failure left" if is_left else "failure", error=answer.error)
    return report("ok", listener=f" ({printable(answer.listener)})" if answer.listener else "")


def judge_answer(site, service, answer):
    report = reporter("back-end.answer", service)
    ended = end_of(answer)
    if ended:
        return report(f"failure {ended}", limit=size_text(ANSWER_LIMIT))
    error, _ = length_error(answer.data)
    if error:
        return report("failure length", error=error)
    try:
        found = read_whoami(answer.data)
    except NotAnAnswer as error:
        return report("failure document", error=hide(site, str(error)))
    if "error" in found:
        return judge_refusal(site, report, found["error"].get("type"))
    return judge_user(site, report, found["user"])


def hide(site, text):
    """Replaces the session, which must not appear in logs. Call this before a text is
    shortened; otherwise a part of the session could remain."""
    return text.replace(site.session, "(session)") if site.session else text


def judge_refusal(site, report, kind):
    shown = quote(hide(site, kind)) if kind is not None else "none"
    if site.session:
        return report("failure refuses", kind=shown)
    return report("ok refuses" if kind == "access" else "warning refuses", kind=shown)


def judge_user(site, report, user):
    name, level = user.get("name", ""), user.get("level", "")
    report = functools.partial(report, name=hide(site, name))
    if not site.session:
        return report("warning accepts")
    if not re.fullmatch("[+-]?[0-9]+", level):
        return report("warning level", level=hide(site, level))
    return report("ok", level=hide(site, level)[:12])


def answer_time(service, seconds):
    outcome = "ok" if seconds < SLOW_SECONDS else "warning"
    return finding("back-end.time", service, outcome, time=time_text(seconds))


def large_request(site, service, path):
    report = reporter("back-end.large-request", service, size=size_text(LARGE_COOKIE))
    cookie = "zancgi-doctor=" + "x" * LARGE_COOKIE
    answer = exchange(path, whoami_request(service, site.session, cookie), site.timeout)
    if answer.end == "no connection":
        return report("unchecked", error=answer.error)
    return report("failure" if end_of(answer) else "ok")
