"""What the back end of one service answers, and how soon."""

import errno
import os
import re
import stat

from zancgi_doctor.deployment import name_error, socket_path
from zancgi_doctor.findings import failure, ok, unchecked, warning
from zancgi_doctor.impostors import why_not_trust_folder, why_not_trust_link
from zancgi_doctor.scgi import ANSWER_LIMIT, exchange
from zancgi_doctor.texts import printable, quote, size_text, time_text
from zancgi_doctor.whoami import NotAnAnswer, length_error, read_whoami, whoami_request

SLOW_SECONDS = 1.0
LARGE_COOKIE = 8192
NO_SERVER = (
    "HAProxy took the connection and ended it without a byte of answer: none of its servers is up, "
    "or the one that it chose has failed.",
    "Start the back ends behind HAProxy, and look at their health checks and logs.",
)
ENDS = {
    ("closed", "haproxy"): NO_SERVER,
    ("reset", "haproxy"): NO_SERVER,
    ("closed", ""): (
        "It took the connection and closed it without a byte of answer.",
        "Look into the back end's log: its worker has died, has been ended for being slow, or has "
        "raised an exception; a proxy in front may have no server that is up.",
    ),
    ("reset", ""): (
        "It has reset the connection without having read the whole request.",
        "Let the back end read requests of 64 KB (uWSGI: buffer-size = 65535), and read them whole "
        "before it answers.",
    ),
    ("timeout", ""): (
        "It took the connection but has not answered in time.",
        "Look whether all workers of the back end are busy or hang, and set a time limit in it "
        "(uWSGI: harakiri).",
    ),
    ("timeout half-way", ""): (
        "It has begun to answer but did not close the connection in time.",
        "Let the back end close the connection behind its answer; the front end waits for that.",
    ),
    ("too long", ""): (
        f"Its answer is longer than {size_text(ANSWER_LIMIT)}, which no answer to whoami is.",
        "See who listens on the socket; the front end would keep all of it in memory.",
    ),
}


def end_of(answer):
    """What to say of a request that has failed; nothing if it has not."""
    end = answer.end
    if end == "closed" and answer.data:
        return None
    if end == "timeout" and answer.data:
        end = "timeout half-way"
    return ENDS.get((end, answer.listener)) or ENDS[end, ""]


def check_back_end(site, service):
    if name_error(site, service):
        yield unchecked(
            "back-end.connect",
            service,
            "The library refuses the service's name.",
            "See what the check socket.name says.",
        )
        return
    path = socket_path(site, service)
    if not is_socket(path):
        yield unchecked(
            "back-end.connect",
            service,
            "There is no socket to connect to.",
            "See what the check socket.kind says.",
        )
        return
    if site.session:
        session = session_kept(site, service, path)
        yield session
        if session.state != "ok":
            return
    answer = exchange(path, whoami_request(service, site.session), site.timeout)
    if answer.end == "no connection":
        yield cannot_connect(service, path, answer.error)
        return
    listener = f" ({printable(answer.listener)})" if answer.listener else ""
    yield ok("back-end.connect", service, f"Somebody listens on {quote(path)}{listener}.")
    verdict = judge_answer(site, service, answer)
    yield verdict
    if end_of(answer):
        return
    yield answer_time(service, answer.seconds)
    if verdict.state != "failure":
        yield answer_length(service, answer)
    yield large_request(site, service, path)


def is_socket(path):
    """Also where that cannot be seen."""
    try:
        return stat.S_ISSOCK(os.stat(path).st_mode)
    except OSError as error:
        return error.errno == errno.EACCES


def session_kept(site, service, path):
    name = "back-end.session"
    unsafe = why_not_trust_folder(site.run_dir) or why_not_trust_link(site, service)
    if unsafe:
        return failure(
            name,
            service,
            f"The session was not sent to {quote(path)}, nor anything else asked there, since "
            f"others could be listening: {unsafe}.",
            "Mend what the checks run-dir.safe and socket.safe say first. Replace the session if "
            "it has been sent there before.",
        )
    return ok(name, service, "The session is sent to a socket that nobody else can replace.")


def cannot_connect(service, path, error):
    if error == os.strerror(errno.ECONNREFUSED):
        return failure(
            "back-end.connect",
            service,
            f"Nobody listens on {quote(path)}: the socket was left behind.",
            "Start the back end; if it cannot make its socket, remove the old one.",
        )
    return failure(
        "back-end.connect",
        service,
        f"{quote(path)} cannot be connected to: {error}.",
        "See that the back end runs and that the front end's user may write to its socket; a full "
        "queue wants more workers.",
    )


def judge_answer(site, service, answer):
    name = "back-end.answer"
    ended = end_of(answer)
    if ended:
        return failure(name, service, *ended)
    error, _ = length_error(answer.data)
    if error:
        return failure(
            name,
            service,
            f"Its answer has failed: {error}.",
            "Correct Content-Length, or see in the log why the answer was cut.",
        )
    try:
        found = read_whoami(answer.data)
    except NotAnAnswer as error:
        return failure(
            name,
            service,
            f"Its answer to whoami cannot be understood: {printable(hide(site, str(error)))}.",
            "Let it answer func=whoami with an XML document in UTF-8 that has /doc/user or "
            "/doc/error.",
        )
    if "error" in found:
        return judge_refusal(site, service, found["error"].get("type"))
    return judge_user(site, service, found["user"])


def hide(site, text):
    """An answer may quote the session, which belongs into no log. To be called
    before a text is shortened, lest a part of it remain."""
    return text.replace(site.session, "(session)") if site.session else text


def judge_refusal(site, service, kind):
    name = "back-end.answer"
    shown = quote(hide(site, kind)) if kind is not None else "none"
    if site.session:
        return failure(
            name,
            service,
            f"It refuses the session that was given, with an error of type {shown}.",
            "Give a session that is valid, or look into the back end's log.",
        )
    if kind != "access":
        return warning(
            name,
            service,
            f"It refuses a request without a session with an error of type {shown}, not 'access'.",
            'Answer an empty or unknown session with <error type="access"/>.',
        )
    return ok(name, service, "It answers, and refuses a request without a session.")


def judge_user(site, service, user):
    name = "back-end.answer"
    shown = quote(hide(site, user.get("name", "")))
    if not site.session:
        return warning(
            name,
            service,
            f"It takes a request without a session for user {shown}.",
            'Answer an empty session with <error type="access"/>, else everybody is signed in.',
        )
    level = user.get("level", "")
    if not re.fullmatch("[+-]?[0-9]+", level):
        return warning(
            name,
            service,
            f"It knows the session as user {shown}, but level {quote(hide(site, level))} counts "
            "as 0.",
            "Let the attribute level be a decimal number.",
        )
    return ok(
        name, service, f"It knows the session as user {shown}, level {hide(site, level)[:12]}."
    )


def answer_time(service, seconds):
    name, message = "back-end.time", f"The answer to whoami has taken {time_text(seconds)}."
    if seconds < SLOW_SECONDS:
        return ok(name, service, message)
    return warning(
        name,
        service,
        message,
        "Each page waits for this at least once: give the back end more workers, or see "
        "what its whoami waits for.",
    )


def answer_length(service, answer):
    name = "back-end.length"
    if length_error(answer.data)[1]:
        return ok(name, service, "The answer tells its length.")
    return warning(
        name,
        service,
        "The answer has no Content-Length, so one that is cut looks like a short one.",
        "Have the application set Content-Length.",
    )


def large_request(site, service, path):
    name = "back-end.large-request"
    cookie = "zancgi-doctor=" + "x" * LARGE_COOKIE
    answer = exchange(path, whoami_request(service, site.session, cookie), site.timeout)
    if answer.end == "no connection":
        return unchecked(
            name,
            service,
            f"The second connection has failed: {answer.error}.",
            "See whether the back end has just ended.",
        )
    if end_of(answer):
        return failure(
            name,
            service,
            f"It answers, but not when the request has a cookie of {size_text(LARGE_COOKIE)}.",
            "Raise the limit of its requests to 64 KB (uWSGI: buffer-size = 65535); else users "
            "with many cookies are shut out.",
        )
    return ok(name, service, f"A cookie of {size_text(LARGE_COOKIE)} is no trouble.")
