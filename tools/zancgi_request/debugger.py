"""Commands that run the program, such as gdb."""

import os
import shlex

from zancgi_request.failures import Failure, Status, misused
from zancgi_request.feeder import Channel
from zancgi_request.options import Settings
from zancgi_request.servers import Variables


class Debugger:
    """The command that runs the program, or none."""

    def __init__(self, settings: Settings):
        self.words = settings.debugger
        if settings.valgrind:
            self.words = ["valgrind", "-q", f"--error-exitcode={Status.MEMORY_ERRORS}"]
        # gdb reads commands, so it gets the terminal.
        self.is_interactive = bool(self.words) and "gdb" in os.path.basename(self.words[0])
        if self.is_interactive and settings.repeat > 1:
            misused("--repeat cannot be used with gdb")
        # gdb starts the program by a shell, which can redirect descriptors 0 to 9 only.
        self.reserved = [
            os.open(os.devnull, os.O_RDWR | os.O_CLOEXEC) for _ in range(2 * self.is_interactive)
        ]
        if any(descriptor > 9 for descriptor in self.reserved):
            raise Failure(Status.CANNOT_RUN, "too many descriptors are open for a debugger")

    def command(self, argument: str, variables: Variables) -> list[str]:
        if not self.is_interactive:
            return [*self.words, argument]
        environment = " ".join(shlex.quote(f"{n}={v}") for n, v in sorted(variables.items()))
        return [
            self.words[0],
            "-ex",
            f"set exec-wrapper env -i {environment}",
            "-ex",
            f"set args {self._redirections}",
            *self.words[1:],
            argument,
        ]

    def lend(self, channel: Channel) -> None:
        """gdb passes these descriptors on, and the program's shell redirects them."""
        stdin, stdout = self.reserved
        self._redirections = f"<&- >&{stdout}"
        if channel.stdin is not None:
            os.dup2(channel.stdin, stdin)
            self._redirections = f"<&{stdin} >&{stdout}"
        os.dup2(channel.stdout, stdout)

    def take_back(self) -> None:
        for descriptor in self.reserved:
            os.close(descriptor)
