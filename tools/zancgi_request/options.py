"""The command line: its options, and how each of them is stored."""

import dataclasses
import getopt
import os
import shlex
import signal
import sys
from collections.abc import Callable
from typing import Any, NoReturn

from zancgi_request.failures import Status, misused
from zancgi_request.settings import NAME, NAME_AND_VERSION, Settings, is_written

# Within what the system's timers can hold, in seconds.
LONGEST_WAIT = 1e9


@dataclasses.dataclass(frozen=True)
class Field:
    """Of the settings, and what comes of it when the option is given."""

    name: str
    change: Callable[[Any, str], Any]
    default: Any


@dataclasses.dataclass(frozen=True)
class Option:
    name: str
    letter: str
    # What its value is called in the help; empty for an option without one.
    value: str
    help: str
    field: Field


def keep(name: str, convert: Callable[[str], Any] = str, default: Any = "") -> Field:
    return Field(name, lambda _, text: convert(text), default)


def switch(name: str) -> Field:
    return Field(name, lambda *_: True, False)


def append(name: str, convert: Callable[[str], Any] = str) -> Field:
    return Field(name, lambda before, text: [*before, convert(text)], [])


# What the option asks for curl is done anyway, or has no meaning here.
IGNORED = switch("ignored")


def number_from(least: float, convert: Callable[[str], Any]) -> Callable[[str], Any]:
    def checked(text: str) -> Any:
        number = convert(text)
        if not number >= least:
            raise ValueError
        return number

    return checked


def sizes(text: str) -> list[int]:
    return [number_from(1, int)(size) for size in text.split(",")]


def seconds(text: str) -> float:
    number = number_from(0, float)(text)
    if number > LONGEST_WAIT:
        raise ValueError
    return number


def milliseconds(text: str) -> float:
    return seconds(text) / 1000


def signal_number(text: str) -> int:
    if text.isdecimal():
        return int(signal.Signals(int(text)))
    try:
        return int(signal.Signals["SIG" + text.upper().removeprefix("SIG")])
    except KeyError:
        raise ValueError from None


def one_of(*words: str) -> Callable[[str], str]:
    def checked(text: str) -> str:
        if text not in words:
            raise ValueError
        return text

    return checked


def assignment(name: str) -> Callable[[str], str]:
    return lambda value: f"{name}={value}"


def run_dir(text: str) -> str:
    # The program is started elsewhere, and may go on to another folder yet.
    return assignment("TOV_RUN_DIR")(os.path.abspath(text) if text else "")


def variable(text: str) -> str:
    """NAME=VALUE, or NAME, which takes the caller's value."""
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
    Option("data-binary", "", "DATA", "POST this, or @FILE as it is", append_to("data", "binary")),
    Option("data-raw", "", "DATA", "POST this, also when it begins with @",
           append_to("data", "raw")),
    Option("data-urlencode", "", "DATA", "POST this URL-encoded", append_to("data", "urlencode")),
    Option("json", "", "DATA", "POST this as JSON", append_to("data", "json")),
    Option("form", "F", "NAME=VALUE", "POST a form; @FILE uploads, <FILE reads",
           append_to("form", "form")),
    Option("form-string", "", "NAME=VALUE", "POST a form, value as text",
           append_to("form", "string")),
    Option("form-escape", "", "", "escape names with backslashes", switch("form_escape")),
    Option("boundary", "", "TEXT", "the boundary of the form", keep("boundary")),
    Option("upload-file", "T", "FILE", "PUT this file; - is standard input", keep("upload")),
    Option("get", "G", "", "put --data into the query", switch("get")),
    Option("head", "I", "", "use HEAD, and print the header", switch("head")),
    Option("user", "u", "USER:PASSWORD", "send them by Basic authentication",
           keep("user", default=None)),
    Option("user-agent", "A", "NAME", "what the client calls itself",
           keep("agent", default=NAME_AND_VERSION)),
    Option("referer", "e", "URL", "the page that the client comes from", keep("referer")),
    Option("location", "L", "", "follow redirects within the program", switch("follow")),
    Option("max-redirs", "", "N", "follow so many at most (50)",
           keep("most_redirects", number_from(0, int), 50)),
    Option("include", "i", "", "print the answer's header too", switch("include")),
    Option("output", "o", "FILE", "write the answer to a file", keep("output", default="-")),
    Option("dump-header", "D", "FILE", "write the answer's header to a file", keep("dump_header")),
    Option("write-out", "w", "FORMAT", "print this when all is over", keep("write_out")),
    Option("silent", "s", "", "say nothing about what is wrong", switch("silent")),
    Option("show-error", "S", "", "with --silent, do say it", switch("show_error")),
    Option("verbose", "v", "", "show what goes to and fro", switch("verbose")),
    Option("fail", "f", "", "no body and status 22 from HTTP status 400 on", switch("fail")),
    Option("max-time", "m", "SECONDS", "end it after so long", keep("max_time", seconds, 0.0)),
    Option("globoff", "g", "", "accepted as curl's; URLs have no patterns here", IGNORED),
    Option("no-buffer", "N", "", "accepted as curl's; nothing is held back", IGNORED),
    Option("stdin", "", "KIND", "what standard input is: " + ", ".join(STDIN_KINDS),
           keep("stdin", one_of(*STDIN_KINDS))),
    Option("chunk", "", "SIZES", "bytes of each write, such as 1 or 3,7,65536",
           keep("chunk", sizes, [])),
    Option("pause", "", "MS", "wait so long between writes", keep("pause", milliseconds, 0.0)),
    Option("hold-open", "", "", "do not close standard input after the body", switch("hold_open")),
    Option("content-length", "", "N|none", "the length to tell, whatever is sent",
           keep("content_length", default=None)),
    Option("abort-after", "", "N", "go away after so many bytes of the body",
           keep("abort_after", number_from(0, int), None)),
    Option("abort-signal", "", "SIGNAL", "send this signal then, such as TERM",
           keep("abort_signal", signal_number, 0)),
    Option("server", "", "KIND", "do as this one does: " + ", ".join(SERVERS),
           keep("server", one_of(*SERVERS), SERVERS[0])),
    Option("remote-addr", "", "ADDRESS", "the client's address",
           keep("remote_addr", default="127.0.0.1")),
    Option("script-name", "", "PATH", "the part of the URL's path that is the program's",
           keep("script_name")),
    Option("path-info", "", "PATH", "the part of the URL's path behind that", keep("path_info")),
    Option("env", "", "NAME[=VALUE]", "set a variable, or take the caller's",
           append("environment", variable)),
    Option("unset", "", "NAME", "take a variable away", append("unset")),
    Option("run-dir", "", "FOLDER", "where the sockets of back ends are (TOV_RUN_DIR)",
           append("environment", run_dir)),
    Option("log-level", "", "LEVEL", "what the library logs, 0 to 9 (TOV_LOG_LEVEL)",
           append("environment", assignment("TOV_LOG_LEVEL"))),
    Option("keep-proxy-header", "", "", "let a header Proxy through", switch("keep_proxy_header")),
    Option("debugger", "", "COMMAND", "run the program under this, such as 'gdb --args'",
           keep("debugger", shlex.split, [])),
    Option("valgrind", "", "", "run the program under valgrind", switch("valgrind")),
    Option("repeat", "", "N", "play it so many times, and tell how long it took",
           keep("repeat", number_from(1, int), 1)),
)  # fmt: skip


def help_text() -> str:
    lines = [f"usage: {NAME} [OPTION]... PROGRAM [URL]", ""]
    for option in OPTIONS:
        letter = f"-{option.letter}, " if option.letter else "    "
        name = f"{letter}--{option.name} {option.value}".rstrip()
        lines.append(f"  {name:<34} {option.help}")
    lines += ["", f"The manual, {NAME}(1), tells the rest.", ""]
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
        misused("a program is wanted, and at most one URL")
    settings.program, settings.url = (rest + ["/"])[:2]
    check(settings)
    return settings


def store_option(settings: Settings, option: Option, text: str, value: str) -> None:
    field = option.field
    try:
        setattr(settings, field.name, field.change(getattr(settings, field.name), value))
    except ValueError:
        misused(f"{text} cannot be {value!r}: {option.help}")


def check(settings: Settings) -> None:
    kinds = (settings.data and not settings.get, settings.form, settings.upload)
    if sum(map(bool, kinds)) + settings.head > 1 or (settings.get and settings.form):
        misused("the options ask for more than one kind of request")
    if settings.abort_signal and settings.abort_after is None:
        misused("--abort-signal wants --abort-after")
    if settings.abort_after is not None and settings.hold_open:
        misused("either --hold-open or --abort-after")
    if settings.debugger and settings.valgrind:
        misused("either --debugger or --valgrind")
    if settings.follow and settings.abort_after is not None:
        misused("either --location or --abort-after")
    if is_written(settings) and settings.stdin not in ("", "pipe", "socket"):
        misused(f"nothing is written to a standard input that is {settings.stdin}")
