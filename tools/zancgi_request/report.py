"""Messages about a request, and its exit status."""

import dataclasses
import re
import signal
import sys
import time

from zancgi_request.answer import Answer
from zancgi_request.body import Body, Stream
from zancgi_request.failures import Status
from zancgi_request.feeder import Feeder
from zancgi_request.headers import Request
from zancgi_request.options import NAME, Settings


class Report:
    """Prints messages, and determines the exit status."""

    def __init__(self, settings: Settings):
        self.settings = settings
        self.has_reported_open_output = False
        self.has_disconnected = False
        self.sent_signal = 0

    def warn(self, text: str) -> None:
        if not self.settings.silent or self.settings.show_error:
            print(f"{NAME}: {text}", file=sys.stderr, flush=True)

    def report_open_output(self, processes: list[str]) -> None:
        self.has_reported_open_output = True
        who = ", ".join(processes) or "another process"
        self.warn(
            f"the program has ended, but {who} holds its standard output open: a web server "
            f"would wait for it"
        )

    def report_unread(self, feeder: Feeder, body: Body | Stream | None) -> None:
        if not feeder.was_refused or self.has_disconnected or not isinstance(body, Body):
            return
        if body.length > feeder.sent:
            self.warn(
                f"the program left at least {body.length - feeder.sent} bytes of the body unread: "
                f"nginx with fcgiwrap would answer 502"
            )

    def status(self, ended: int, answer: Answer, valgrind: bool) -> int:
        if self.has_disconnected:
            return self._status_without_client(ended)
        if ended < 0:
            self.warn(f"the program was ended by {signal_name(-ended)}")
        elif valgrind and ended == Status.MEMORY_ERRORS:
            self.warn("valgrind found errors")
        elif ended > 0 and not answer.settings.debugger:
            self.warn(f"the program ended with exit status {ended}, which web servers ignore")
        status = self._status_of_answer(answer)
        if ended < 0:
            return Status.SIGNALLED - ended
        return Status.MEMORY_ERRORS if valgrind and ended == Status.MEMORY_ERRORS else status

    def _status_without_client(self, ended: int) -> int:
        expected = (self.sent_signal, signal.SIGPIPE)
        if ended < 0 and -ended not in expected:
            self.warn(f"after the client disconnected, {signal_name(-ended)} ended the program")
            return Status.SIGNALLED - ended
        return Status.SUCCESS

    def _status_of_answer(self, answer: Answer) -> int:
        if answer.head is None:
            self.warn("the program sent no answer")
            return Status.NO_ANSWER
        for text in answer.head.problems + answer.head.notes:
            self.warn(text)
        if answer.head.problems:
            return Status.BROKEN_ANSWER
        if answer.missing():
            length = answer.head.content_length()
            self.warn(
                f"the body is {answer.missing()} bytes shorter than its Content-Length of {length}"
            )
            return Status.SHORT_ANSWER
        return self._status_of_http(answer.head.status)

    def _status_of_http(self, status: int) -> int:
        if status < 400:
            return Status.SUCCESS
        if self.settings.fail:
            self.warn(f"the program answered with status {status}")
            return Status.HTTP_ERROR
        return Status.CLIENT_ERROR if status < 500 else Status.SERVER_ERROR


def signal_name(number: int) -> str:
    try:
        return f"signal {number} ({signal.Signals(number).name})"
    except ValueError:
        return f"signal {number}"


def write_out(settings: Settings, values: dict[str, object]) -> None:
    escapes = {"\\n": "\n", "\\t": "\t", "\\r": "\r", "%%": "%"}

    def replace(found: re.Match[str]) -> str:
        if found[1] is None:
            return escapes[found[0]]
        return str(values.get(found[1], ""))

    text = re.sub(r"%\{(\w+)\}|%%|\\[ntr]", replace, settings.write_out)
    sys.stdout.write(text)
    sys.stdout.flush()


@dataclasses.dataclass
class Outcome:
    """The results of one request."""

    request: Request
    answer: Answer
    feeder: Feeder
    begun: float
    status: int


def write_out_values(outcome: Outcome, redirects: int) -> dict[str, object]:
    request, answer, begun = outcome.request, outcome.answer, outcome.begun
    head = answer.head
    now = time.monotonic()
    code = f"{head.status if head is not None and not head.is_none else 0:03d}"
    return {
        "http_code": code,
        "response_code": code,
        "content_type": (head.get("content-type") if head is not None else None) or "",
        "redirect_url": (head.get("location") if head is not None else None) or "",
        "method": request.method,
        "size_download": answer.size,
        "num_redirects": redirects,
        "size_upload": outcome.feeder.sent,
        "time_starttransfer": f"{(answer.begun or now) - begun:.6f}",
        "time_total": f"{now - begun:.6f}",
        "url_effective": request.url.whole(),
        "exitcode": outcome.status,
    }
