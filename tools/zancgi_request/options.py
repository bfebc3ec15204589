"""The command line."""

import dataclasses
import getopt
import os
import shlex
import signal
import sys
import types
from collections.abc import Callable
from typing import Any, NoReturn

from zancgi_request.failures import Status, misused
from zancgi_tools.version import version

NAME = "zancgi-request"
NAME_AND_VERSION = f"{NAME}/{version()}"
# In seconds; the system's timers can hold it.
LONGEST_WAIT = 1e9


class Settings(types.SimpleNamespace):
    """The program, the URL and the fields of the options."""


@dataclasses.dataclass(frozen=True)
class Field:
    """A field of the settings, and how an option changes it."""

    name: str
    change: Callable[[Any, str], Any]
    default: Any
    # What the value of the option must be.
    needs: str = ""


@dataclasses.dataclass(frozen=True)
class Option:
    name: str
    letter: str
    # The name of its value in the help; empty if it has none.
    value: str
    help: str
    field: Field


def keep(
    name: str, convert: Callable[[str], Any] = str, default: Any = "", needs: str = ""
) -> Field:
    return Field(name, lambda _, text: convert(text), default, needs)


def switch(name: str) -> Field:
    return Field(name, lambda *_: True, False)


def append(name: str, convert: Callable[[str], Any] = str, needs: str = "") -> Field:
    return Field(name, lambda before, text: [*before, convert(text)], [], needs)


# Options of curl that change nothing here.
IGNORED = switch("ignored")


def keep_number(name: str, least: int, default: int | None) -> Field:
    def converted(text: str) -> int:
        if int(text) < least:
            raise ValueError
        return int(text)

    return keep(name, converted, default, f"a number of at least {least}")


def sizes(text: str) -> list[int]:
    found = [int(size) for size in text.split(",")]
    if min(found) < 1:
        raise ValueError
    return found


def wait(text: str) -> float:
    if not 0 <= float(text) <= LONGEST_WAIT:
        raise ValueError
    return float(text)


def milliseconds(text: str) -> float:
    return wait(text) / 1000


def signal_number(text: str) -> int:
    if text.isdecimal():
        return int(signal.Signals(int(text)))
    return int(signal.Signals["SIG" + text.upper().removeprefix("SIG")])


def keep_word(name: str, words: tuple[str, ...], default: str) -> Field:
    needs = "one of " + ", ".join(words)
    return keep(name, {word: word for word in words}.__getitem__, default, needs)


def assignment(name: str) -> Callable[[str], str]:
    return lambda value: f"{name}={value}"


def run_dir(text: str) -> str:
    # The program is started in another folder.
    return assignment("TOV_RUN_DIR")(os.path.abspath(text) if text else "")


def variable(text: str) -> str:
    """NAME=VALUE, or NAME, which stands for the caller's value."""
    name, equals, _ = text.partition("=")
    if not name:
        raise ValueError
    return text if equals else f"{name}={os.environ.get(name, '')}"


def append_to(name: str, option: str) -> Field:
    return append(name, lambda value: (option, value))


STDIN_KINDS = ("pipe", "socket", "file", "closed", "null")
SERVERS = ("rfc3875", "lighttpd", "apache", "nginx-fcgiwrap", "busybox")

OPTIONS = (
    Option("request", "X", "METHOD", "use this method", keep("method")),
    Option("header", "H", "LINE", "add, change or (NAME:) remove a header", append("headers")),
    Option("cookie", "b", "NAME=VALUE|FILE", "send a cookie, or those of a jar", append("cookies")),
    Option("cookie-jar", "c", "FILE", "write all cookies to this jar", keep("cookie_jar")),
    Option("data", "d", "DATA", "POST this, or the lines of @FILE", append_to("data", "data")),
    Option("data-ascii", "", "DATA", "the same as --data", append_to("data", "data")),
    Option("data-binary", "", "DATA", "POST this, or @FILE unchanged", append_to("data", "binary")),
    Option("data-raw", "", "DATA", "POST this, even if it begins with @",
           append_to("data", "raw")),
    Option("data-urlencode", "", "DATA", "POST this URL-encoded", append_to("data", "urlencode")),
    Option("json", "", "DATA", "POST this as JSON", append_to("data", "json")),
    Option("form", "F", "NAME=VALUE", "POST a form; @FILE is an upload, <FILE a text",
           append_to("form", "form")),
    Option("form-string", "", "NAME=VALUE", "POST a form; the value is a text",
           append_to("form", "string")),
    Option("form-escape", "", "", "escape names in forms with backslashes", switch("form_escape")),
    Option("boundary", "", "TEXT", "the boundary of the form", keep("boundary")),
    Option("upload-file", "T", "FILE", "PUT this file; - is standard input", keep("upload")),
    Option("get", "G", "", "put --data into the query", switch("get")),
    Option("head", "I", "", "request and print the header only", switch("head")),
    Option("user", "u", "USER:PASSWORD", "send them by Basic authentication",
           keep("user", default=None)),
    Option("user-agent", "A", "NAME", "the header User-Agent",
           keep("agent", default=NAME_AND_VERSION)),
    Option("referer", "e", "URL", "the header Referer", keep("referer")),
    Option("location", "L", "", "follow redirects to the same program", switch("follow")),
    Option("max-redirs", "", "N", "follow at most this many redirects (50)",
           keep_number("most_redirects", 0, 50)),
    Option("include", "i", "", "print the answer's header too", switch("include")),
    Option("output", "o", "FILE", "write the answer to a file", keep("output", default="-")),
    Option("dump-header", "D", "FILE", "write the answer's header to a file", keep("dump_header")),
    Option("write-out", "w", "FORMAT", "print this at the end", keep("write_out")),
    Option("silent", "s", "", "do not report problems", switch("silent")),
    Option("show-error", "S", "", "report them even with --silent", switch("show_error")),
    Option("verbose", "v", "", "show the variables and the header", switch("verbose")),
    Option("fail", "f", "", "if HTTP status >= 400: no body, exit status 22", switch("fail")),
    Option("max-time", "m", "SECONDS", "end the program after this time",
           keep("max_time", wait, 0.0, "a number of seconds")),
    Option("globoff", "g", "", "ignored, for curl; URLs have no patterns here", IGNORED),
    Option("no-buffer", "N", "", "ignored, for curl; output is never buffered", IGNORED),
    Option("stdin", "", "KIND", "kind of standard input: " + ", ".join(STDIN_KINDS),
           keep_word("stdin", STDIN_KINDS, "")),
    Option("chunk", "", "SIZES", "bytes of each write, such as 1 or 3,7,65536",
           keep("chunk", sizes, [], "sizes such as 1 or 3,7,65536")),
    Option("pause", "", "MS", "wait this time between writes",
           keep("pause", milliseconds, 0.0, "a number of milliseconds")),
    Option("hold-open", "", "", "do not close standard input after the body", switch("hold_open")),
    Option("content-length", "", "N|none", "the CONTENT_LENGTH, whatever is sent",
           keep("content_length", default=None)),
    Option("abort-after", "", "N", "disconnect after this many bytes of the body",
           keep_number("abort_after", 0, None)),
    Option("abort-signal", "", "SIGNAL", "send this signal then, for example TERM",
           keep("abort_signal", signal_number, 0, "a signal such as TERM or 15")),
    Option("server", "", "KIND", "imitate this web server: " + ", ".join(SERVERS),
           keep_word("server", SERVERS, SERVERS[0])),
    Option("remote-addr", "", "ADDRESS", "the client's address",
           keep("remote_addr", default="127.0.0.1")),
    Option("script-name", "", "PATH", "the part of the URL's path for the program",
           keep("script_name")),
    Option("path-info", "", "PATH", "the rest of the URL's path", keep("path_info")),
    Option("env", "", "NAME[=VALUE]", "set a variable, or copy the caller's",
           append("environment", variable, "NAME or NAME=VALUE")),
    Option("unset", "", "NAME", "remove a variable", append("unset")),
    Option("run-dir", "", "FOLDER", "the folder of back ends' sockets (TOV_RUN_DIR)",
           append("environment", run_dir)),
    Option("log-level", "", "LEVEL", "the log level of libzancgi, 0 to 9 (TOV_LOG_LEVEL)",
           append("environment", assignment("TOV_LOG_LEVEL"))),
    Option("keep-proxy-header", "", "", "pass on a header Proxy", switch("keep_proxy_header")),
    Option("debugger", "", "COMMAND", "run the program under this, for example 'gdb --args'",
           keep("debugger", shlex.split, [], "a command with its quotes closed")),
    Option("valgrind", "", "", "run the program under valgrind", switch("valgrind")),
    Option("repeat", "", "N", "play it this many times, and print the time",
           keep_number("repeat", 1, 1)),
)  # fmt: skip


def help_text() -> str:
    lines = [f"usage: {NAME} [OPTION]... PROGRAM [URL]", ""]
    for option in OPTIONS:
        letter = f"-{option.letter}, " if option.letter else "    "
        name = f"{letter}--{option.name} {option.value}".rstrip()
        lines.append(f"  {name:<34} {option.help}")
    lines += ["", f"See {NAME}(1) for details.", ""]
    return "\n".join(lines)


def default_settings() -> Settings:
    return Settings(program="", url="/", **{o.field.name: o.field.default for o in OPTIONS})


def print_and_leave(text: str) -> NoReturn:
    sys.stdout.write(text)
    sys.exit(Status.SUCCESS)


def parse_command_line(arguments: list[str]) -> Settings:
    letters = "hV" + "".join(o.letter + ":" * bool(o.value) for o in OPTIONS if o.letter)
    names = ["help", "version"] + [o.name + "=" * bool(o.value) for o in OPTIONS]
    by_text = {f"--{o.name}": o for o in OPTIONS}
    by_text |= {f"-{o.letter}": o for o in OPTIONS if o.letter}
    try:
        given, rest = getopt.gnu_getopt(arguments, letters, names)
    except getopt.GetoptError as error:
        misused(str(error))
    settings = default_settings()
    for text, value in given:
        if text in ("-h", "--help"):
            print_and_leave(help_text())
        if text in ("-V", "--version"):
            print_and_leave(NAME_AND_VERSION.replace("/", " ") + "\n")
        store_option(settings, by_text[text], text, value)
    if not 1 <= len(rest) <= 2:
        misused("expected a program and at most one URL")
    settings.program, settings.url = (rest + ["/"])[:2]
    check(settings)
    return settings


def store_option(settings: Settings, option: Option, text: str, value: str) -> None:
    field = option.field
    try:
        setattr(settings, field.name, field.change(getattr(settings, field.name), value))
    except (KeyError, ValueError):
        misused(f"{text} needs {field.needs}, not {value!r}")


def is_written(settings: Settings) -> bool:
    """Whether options control how the body is written."""
    disconnects = settings.abort_after is not None
    return bool(disconnects or settings.hold_open or settings.chunk or settings.pause)


def check(settings: Settings) -> None:
    kinds = (settings.data and not settings.get, settings.form, settings.upload)
    if sum(map(bool, kinds)) + settings.head > 1 or (settings.get and settings.form):
        misused("the options select more than one kind of request")
    if settings.abort_signal and settings.abort_after is None:
        misused("--abort-signal needs --abort-after")
    if settings.abort_after is not None and settings.hold_open:
        misused("--hold-open and --abort-after exclude each other")
    if settings.debugger and settings.valgrind:
        misused("--debugger and --valgrind exclude each other")
    if settings.follow and settings.abort_after is not None:
        misused("--location and --abort-after exclude each other")
    if is_written(settings) and settings.stdin not in ("", "pipe", "socket"):
        misused(
            f"--abort-after, --hold-open, --chunk and --pause need --stdin pipe or socket, not "
            f"{settings.stdin}"
        )
