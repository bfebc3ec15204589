"""Plays requests once or several times, with redirects and cookies."""

import contextlib
import functools
import itertools
import os
import signal
import statistics
import sys
import time

from zancgi_request.answer import Answer
from zancgi_request.body import Body, Stream
from zancgi_request.cookies import Jar
from zancgi_request.exchange import Debugger, Exchange, find_program, remaining_processes, start
from zancgi_request.failures import (
    Failure,
    Interrupted,
    Status,
    catch_signals,
    hold_signals,
    interrupt,
    misused,
)
from zancgi_request.feeder import Channel, Feeder
from zancgi_request.head import Head
from zancgi_request.headers import Request
from zancgi_request.make_request import again, follow, make_first_request
from zancgi_request.options import NAME, Settings, is_written
from zancgi_request.output import Output
from zancgi_request.report import Outcome, Report, write_out, write_out_values
from zancgi_request.servers import SERVER_BY_NAME, Variables

# In seconds; 0 would switch the timer off.
SHORTEST_TIMER = 0.001


class Player:
    def __init__(self, settings: Settings):
        self.settings = settings
        self.program = find_program(settings.program)
        self.is_raw_http = os.path.basename(self.program).startswith("nph-")
        self.server = SERVER_BY_NAME[settings.server]
        # Before files are opened, because gdb needs low descriptors.
        self.debugger = Debugger(settings)
        self.jar = Jar(settings)
        self.request = make_first_request(settings, self.jar)
        if isinstance(self.request.body, Stream) and (settings.repeat > 1 or settings.follow):
            misused("--repeat and --location need a body that can be sent again")
        self.output = Output(settings.output)
        self.header_output = Output(settings.dump_header)
        self.times: list[float] = []
        self.deadline = 0.0

    def play(self) -> int:
        try:
            status = self._play_all()
        except BaseException:
            # Like curl, keep the cookies, and report the first failure.
            with contextlib.suppress(Failure):
                self.jar.write()
            raise
        self.jar.write()
        return status

    def _play_all(self) -> int:
        status = Status.SUCCESS
        for number in range(self.settings.repeat):
            if number and self.jar.is_used:
                # The cookies may have changed.
                self.request = again(self.settings, self.request, self.jar)
            status = self._play_with_redirects() or status
        if self.settings.repeat > 1:
            self._print_times()
        return status

    def _play_with_redirects(self) -> int:
        self.deadline = time.monotonic() + self.settings.max_time
        begun = time.monotonic()
        request: Request | None = self.request
        for redirects in itertools.count():
            outcome = self._play_once(request)
            request = outcome.answer.next_request
            if outcome.status or request is None:
                break
            if redirects == self.settings.most_redirects:
                Report(self.settings).warn(f"there are more than {redirects} redirects")
                outcome.status = Status.TOO_MANY_REDIRECTS
                break
        if self.settings.write_out:
            outcome.begun = begun
            write_out(self.settings, write_out_values(outcome, redirects))
        return outcome.status

    def _find_next(self, request: Request, head: Head) -> Request | None:
        self.jar.take(head, request.url)
        if not self.settings.follow or head.problems:
            return None
        return follow(self.settings, request, head, self.jar)

    def _variables(self, request: Request) -> Variables:
        settings = self.settings
        variables = self.server.variables(request, self.program, settings.remote_addr)
        for text in settings.environment:
            name, _, value = text.partition("=")
            variables[name] = value
        for name in settings.unset:
            variables.pop(name, None)
        return variables

    def _stdin_kind(self, request: Request) -> str:
        kind = self.settings.stdin or self.server.stdin(request.body)
        is_free = not self.settings.stdin and kind in ("file", "null")
        return "pipe" if is_free and is_written(self.settings) else kind

    def _play_once(self, request: Request) -> Outcome:
        settings = self.settings
        catch_signals(self.debugger.is_interactive)
        if isinstance(request.body, Body):
            request.body.rewind()
        report = Report(settings)
        kind = self._stdin_kind(request)
        channel = Channel(kind, request.body)
        feeder = Feeder(channel, request.body, settings)
        find_next = functools.partial(self._find_next, request)
        is_head = request.method == "HEAD"
        answer = Answer(
            settings, self.is_raw_http, is_head, self.output, self.header_output, find_next
        )
        variables = self._variables(request)
        if settings.verbose:
            self._show_request(request, variables, kind)
        feeder.fill()
        begun = time.monotonic()
        argument = self.server.argument(self.program)
        # A signal before Exchange knows the process would leave it running.
        held = hold_signals()
        process = start(self.program, argument, variables, channel, self.debugger)
        exchange = Exchange(process, channel, feeder, answer, report)
        status = self._run_to_end(exchange, held)
        if status is None:
            self.times.append(time.monotonic() - begun)
            answer.finish()
            status = report.status(exchange.ended, answer, settings.valgrind)
            report.report_unread(feeder, request.body)
        found = remaining_processes()
        if found:
            report.warn(f"the program has ended, but these processes still run: {', '.join(found)}")
        channel.hang_up()
        return Outcome(request, answer, feeder, begun, status)

    def _run_to_end(self, exchange: Exchange, held_signals: list[int]) -> int | None:
        """The exit status if the tool had to end the program, otherwise None."""
        settings = self.settings
        try:
            catch_signals(self.debugger.is_interactive)
            if held_signals:
                interrupt(held_signals[0], None)
            if settings.max_time:
                left = max(self.deadline - time.monotonic(), SHORTEST_TIMER)
                signal.setitimer(signal.ITIMER_REAL, left)
            exchange.run(settings.abort_signal)
            return None
        except BaseException as error:
            signal.setitimer(signal.ITIMER_REAL, 0)
            exchange.end()
            if not isinstance(error, Interrupted) or error.number != signal.SIGALRM:
                raise
            exchange.report.warn(f"the program did not end within {settings.max_time:g} seconds")
            return Status.TIMED_OUT
        finally:
            signal.setitimer(signal.ITIMER_REAL, 0)

    def _show_request(self, request: Request, variables: Variables, kind: str) -> None:
        length = request.body.length if request.body is not None else 0
        lines = [
            f"* {self.program}, standard input: {kind}",
            *(f"> {name}={ascii(value)[1:-1]}" for name, value in sorted(variables.items())),
            f"* a body of {'unknown length' if length is None else f'{length} bytes'}",
        ]
        print("\n".join(lines), file=sys.stderr, flush=True)

    def _print_times(self) -> None:
        fastest, slowest = min(self.times), max(self.times)
        median = statistics.median(self.times)
        print(
            f"{NAME}: {len(self.times)} requests: fastest {fastest * 1000:.2f} ms, "
            f"median {median * 1000:.2f} ms, slowest {slowest * 1000:.2f} ms",
            file=sys.stderr,
        )
