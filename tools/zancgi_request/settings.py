"""What the command line asks for."""

import dataclasses
from collections.abc import Callable

from zancgi_tools.version import version

NAME = "zancgi-request"
NAME_AND_VERSION = f"{NAME}/{version()}"


@dataclasses.dataclass
class Settings:
    program: str = ""
    url: str = "/"
    method: str = ""
    headers: list[str] = dataclasses.field(default_factory=list)
    cookies: list[str] = dataclasses.field(default_factory=list)
    cookie_files: list[str] = dataclasses.field(default_factory=list)
    cookie_jar: str = ""
    # (option, value) each, in their order.
    data: list[tuple[str, str]] = dataclasses.field(default_factory=list)
    form: list[tuple[str, str]] = dataclasses.field(default_factory=list)
    form_escape: bool = False
    boundary: str = ""
    upload: str = ""
    get: bool = False
    head: bool = False
    user: str | None = None
    agent: str = NAME_AND_VERSION
    referer: str = ""
    follow: bool = False
    most_redirects: int = 50
    include: bool = False
    output: str = "-"
    dump_header: str = ""
    write_out: str = ""
    silent: bool = False
    show_error: bool = False
    verbose: bool = False
    fail: bool = False
    max_time: float = 0.0
    stdin: str = ""
    chunk: list[int] = dataclasses.field(default_factory=list)
    pause: float = 0.0
    hold_open: bool = False
    content_length: str | None = None
    abort_after: int | None = None
    abort_signal: int = 0
    server: str = "rfc3875"
    remote_addr: str = "127.0.0.1"
    script_name: str = ""
    path_info: str = ""
    environment: list[str] = dataclasses.field(default_factory=list)
    unset: list[str] = dataclasses.field(default_factory=list)
    keep_proxy_header: bool = False
    debugger: list[str] = dataclasses.field(default_factory=list)
    valgrind: bool = False
    repeat: int = 1


Store = Callable[[Settings, str], None]


def is_written(settings: Settings) -> bool:
    """Whether it matters how the body is written."""
    goes_away = settings.abort_after is not None
    return bool(goes_away or settings.hold_open or settings.chunk or settings.pause)
