"""The program's answer, as a client would see it."""

import dataclasses
import re
import sys
import time
from collections.abc import Callable

from zancgi_request.head import BODYLESS, Head, LONGEST_HEAD
from zancgi_request.headers import Request
from zancgi_request.options import Settings
from zancgi_request.output import Output


@dataclasses.dataclass
class Answer:
    """Parses the program's output, and prints it as a client would see it."""

    settings: Settings
    is_raw_http: bool
    # The answer to a HEAD request.
    has_no_body: bool
    output: Output
    header_output: Output
    find_next: Callable[[Head], Request | None]
    # The request that a redirect leads to.
    next_request: Request | None = None
    head: Head | None = None
    unparsed: bytes = b""
    # Bytes of the body that the program wrote.
    size: int = 0
    begun: float | None = None

    def feed(self, content: bytes) -> None:
        if self.begun is None:
            self.begun = time.monotonic()
        if self.head is not None:
            self._body(content)
            return
        looked_through = max(0, len(self.unparsed) - 3)
        self.unparsed += content
        end = re.compile(rb"\n\r?\n").search(self.unparsed, looked_through)
        end = end or re.match(rb"\r?\n", self.unparsed)
        if end:
            self._begin(self.unparsed[: end.end()], self.unparsed[end.end() :])
        elif len(self.unparsed) > LONGEST_HEAD:
            self._begin(self.unparsed, b"")

    def finish(self) -> None:
        if self.head is None and self.unparsed:
            self._begin(self.unparsed, b"")
            self.head.problems.append("the empty line at the end of the header is missing")
        if self.head is not None and not self.head.is_none:
            self._check_end()

    def is_wanted(self) -> bool:
        is_failure = self.settings.fail and self.head.status >= 400
        return not is_failure and self.next_request is None

    def _begin(self, raw: bytes, rest: bytes) -> None:
        self.head = Head(raw, self.is_raw_http)
        self.unparsed = b""
        if len(raw) > LONGEST_HEAD:
            self.head.problems.append(f"the header is longer than {LONGEST_HEAD} bytes")
        if self.head.is_none:
            # Printed unchanged: probably an error message.
            self.output.write(raw)
        else:
            self.next_request = self.find_next(self.head)
            self._show_head()
        self._body(rest)

    def _show_head(self) -> None:
        text = self.head.as_http()
        if self.settings.verbose:
            for line in text.splitlines():
                sys.stderr.write(f"< {ascii(line)[1:-1]}\n")
        content = text.encode(errors="surrogateescape")
        if self.settings.dump_header:
            self.header_output.write(content)
        if self.settings.include or self.settings.head:
            self.output.write(content)
        elif self.is_wanted():
            self.output.open()

    def _body(self, content: bytes) -> None:
        before = self.size
        self.size += len(content)
        if self.head.is_none:
            self.output.write(content)
            return
        length = self.head.content_length()
        if length is not None:
            content = content[: max(0, length - before)]
        if content and self.is_wanted() and not self._may_have_no_body():
            self.output.write(content)

    def _may_have_no_body(self) -> bool:
        return self.has_no_body or self.head.status in BODYLESS

    def _check_end(self) -> None:
        head, problems = self.head, self.head.problems
        if head.status in BODYLESS and self.size:
            problems.append(
                f"an answer with status {head.status} must not have a body, but this one has "
                f"{self.size} bytes"
            )
        elif self.size and head.get("content-type") is None:
            problems.append("the header has no Content-Type, but there is a body")
        elif not any(head.get(name) for name in ("content-type", "location", "status")):
            if not self.is_raw_http:
                problems.append("the header has neither Content-Type nor Location nor Status")
        length = head.content_length()
        if length is not None and self.size > length:
            more = self.size - length
            problems.append(f"the body is {more} bytes longer than its Content-Length of {length}")
        if self.has_no_body and self.size:
            head.notes.append(f"the request is HEAD: the body of {self.size} bytes is dropped")

    def missing(self) -> int:
        length = self.head.content_length() if self.head is not None else None
        if length is None or self._may_have_no_body():
            return 0
        return max(0, length - self.size)
