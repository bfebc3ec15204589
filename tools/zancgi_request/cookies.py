"""Cookies and their jar (RFC 6265), compatible with curl."""

import contextlib
import dataclasses
import datetime
import ipaddress
import os
import re
import stat
import tempfile
import time

from zancgi_request.body import read_file
from zancgi_request.failures import Status, failing_with
from zancgi_request.head import Head
from zancgi_request.options import NAME, Settings
from zancgi_request.output import Output
from zancgi_request.url import Url

CookieKey = tuple[str, str, bool, str]


@dataclasses.dataclass
class Cookie:
    """A cookie in a jar (RFC 6265, section 5.3)."""

    name: str
    value: str
    # Without a leading dot.
    domain: str
    # Whether hosts below the domain get it too.
    tail: bool
    path: str
    secure: bool = False
    http_only: bool = False
    # In seconds since 1970; 0 is the end of the session.
    expires: int = 0

    def key(self) -> CookieKey:
        return self.name, self.domain, self.tail, self.path

    def has_expired(self) -> bool:
        return 0 < self.expires <= time.time()

    def is_for(self, url: Url) -> bool:
        host = host_of(url)
        same_domain = domain_matches(host, self.domain) if self.tail else host == self.domain
        is_allowed = is_trustworthy(url) or not self.secure
        return same_domain and path_matches(path_of(url), self.path) and is_allowed

    def line(self) -> str:
        """Its line in the Netscape format, as curl writes it."""
        fields = (
            "#HttpOnly_" * self.http_only + "." * self.tail + self.domain,
            str(self.tail).upper(),
            self.path,
            str(self.secure).upper(),
            str(self.expires),
            self.name,
            self.value,
        )
        return "\t".join(fields)


def host_of(url: Url) -> str:
    return url.host.strip("[]").lower()


def path_of(url: Url) -> str:
    return url.uri.partition("?")[0]


def is_address(host: str) -> bool:
    with contextlib.suppress(ValueError):
        return bool(ipaddress.ip_address(host))
    return False


def is_trustworthy(url: Url) -> bool:
    """Whether Secure cookies are sent. Like browsers, curl sends them to localhost too."""
    return url.scheme == "https" or host_of(url) in ("localhost", "127.0.0.1", "::1")


def domain_matches(host: str, domain: str) -> bool:
    return host == domain or (host.endswith("." + domain) and not is_address(host))


def path_matches(path: str, of_cookie: str) -> bool:
    return (path + "/").startswith(of_cookie.rstrip("/") + "/")


def default_path(url: Url) -> str:
    return path_of(url).rpartition("/")[0] or "/"


MONTHS = ("jan", "feb", "mar", "apr", "may", "jun", "jul", "aug", "sep", "oct", "nov", "dec")


def parse_cookie_date(text: str) -> int | None:
    """Seconds since 1970 (RFC 6265, section 5.1.1); None if it is not a date."""
    clock = day = month = year = None
    for word in re.split(r"[\t \x21-\x2f\x3b-\x40\x5b-\x60\x7b-\x7e]+", text):
        found = re.match(r"(\d{1,2}):(\d{1,2}):(\d{1,2})(?!\d)", word)
        if clock is None and found:
            clock = tuple(map(int, found.groups()))
        elif day is None and (found := re.match(r"(\d{1,2})(?!\d)", word)):
            day = int(found[1])
        elif month is None and word[:3].lower() in MONTHS:
            month = MONTHS.index(word[:3].lower()) + 1
        elif year is None and (found := re.match(r"(\d{2,4})(?!\d)", word)):
            year = int(found[1])
    if clock is None or day is None or month is None or year is None:
        return None
    if year < 100:
        year += 1900 if year >= 70 else 2000
    with contextlib.suppress(ValueError, OverflowError):
        moment = datetime.datetime(year, month, day, *clock, tzinfo=datetime.timezone.utc)
        return int(moment.timestamp()) if year >= 1601 else None
    return None


# The expiry of a cookie to remove. 0 would be a session cookie.
LONG_AGO = 1
LAST_SECOND = (1 << 63) - 1


def seconds_of(digits: str) -> int:
    """Exact up to LAST_SECOND; other results are greater than that. Python refuses to
    convert thousands of digits."""
    return int(digits.lstrip("0")[:20] or "0")


def expiry(attributes: dict[str, str]) -> int:
    """The expiry of a cookie: Max-Age takes precedence over Expires."""
    age = attributes.get("max-age", "").strip('"')
    if re.fullmatch("-?[0-9]+", age):
        seconds = 0 if age.startswith("-") else seconds_of(age)
        return min(int(time.time()) + seconds, LAST_SECOND) if seconds else LONG_AGO
    date = parse_cookie_date(attributes.get("expires", ""))
    return 0 if date is None else max(date, LONG_AGO)


def parse_set_cookie(text: str, url: Url) -> Cookie | None:
    """The cookie of a Set-Cookie header; None if clients ignore it."""
    pair, *rest = text.split(";")
    name, equals, value = (word.strip(" \t") for word in pair.partition("="))
    if not equals or not name:
        return None
    attributes: dict[str, str] = {}
    for text in rest:
        key, _, attribute = (word.strip(" \t") for word in text.partition("="))
        attributes[key.lower()] = attribute
    cookie = Cookie(name, value, host_of(url), False, default_path(url))
    if attributes.get("path", "").startswith("/"):
        cookie.path = attributes["path"]
    domain = attributes.get("domain", "").removeprefix(".").lower()
    if domain:
        cookie.domain, cookie.tail = domain, not is_address(domain)
    cookie.secure = "secure" in attributes
    cookie.http_only = "httponly" in attributes
    cookie.expires = expiry(attributes)
    if re.search(r"[\x00-\x1f\x7f]", cookie.line().replace("\t", "", 6)):
        return None
    is_accepted = may_set(cookie, url) and fulfils_prefix(cookie)
    return cookie if is_accepted else None


def may_set(cookie: Cookie, url: Url) -> bool:
    """A cookie for a whole top-level domain such as "com" is refused."""
    host = host_of(url)
    is_own = host == cookie.domain or (
        "." in cookie.domain and domain_matches(host, cookie.domain)
    )
    return is_own and (is_trustworthy(url) or not cookie.secure)


def fulfils_prefix(cookie: Cookie) -> bool:
    """Whether the cookie has the attributes that its name's prefix requires."""
    if cookie.name.startswith("__Host-"):
        return cookie.secure and cookie.path == "/" and not cookie.tail
    return cookie.secure or not cookie.name.startswith("__Secure-")


def parse_jar_line(line: str) -> Cookie | None:
    """The cookie of a line; None for comments and malformed lines."""
    http_only = line.startswith("#HttpOnly_")
    fields = line.removeprefix("#HttpOnly_").split("\t")
    if len(fields) == 6:
        fields.append("")
    if fields[0].startswith("#") or len(fields) != 7 or not re.fullmatch("[0-9]+", fields[4]):
        return None
    domain, tail, path, secure, expires, name, value = fields
    cookie = Cookie(name, value, domain.removeprefix(".").lower(), tail == "TRUE", path)
    cookie.secure, cookie.http_only = secure == "TRUE", http_only
    cookie.expires = seconds_of(expires)
    is_accepted = name and cookie.expires <= LAST_SECOND and fulfils_prefix(cookie)
    return cookie if is_accepted else None


def is_file_or_missing(path: str) -> bool:
    """False for links such as /dev/stdout, which must not be replaced."""
    try:
        return stat.S_ISREG(os.lstat(path).st_mode)
    except OSError:
        return True


def replace_file(path: str, content: bytes) -> None:
    """Replaces a file atomically. Only its owner can read the new one."""
    with failing_with(Status.CANNOT_WRITE, f"cannot write {path}"):
        descriptor, new = tempfile.mkstemp(prefix=".", dir=os.path.dirname(path) or ".")
        try:
            with open(descriptor, "wb") as file:
                file.write(content)
            os.replace(new, path)
        except BaseException:
            os.unlink(new)
            raise


class Jar:
    """The client's cookies in the order of their creation."""

    def __init__(self, settings: Settings):
        self.path = settings.cookie_jar
        # Like curl: a text without "=" is a file. An empty name is an empty jar.
        files = [text for text in settings.cookies if "=" not in text]
        # Like curl: without any file, no cookies are kept.
        self.is_used = bool(self.path or files)
        self.cookies: dict[CookieKey, Cookie] = {}
        for path in filter(None, files):
            self._read(path)

    def _read(self, path: str) -> None:
        # The jar need not exist before the first request.
        if path != "-" and not os.path.exists(path):
            return
        # splitlines() would also split at characters that cookies can contain.
        for line in re.split("\r?\n", os.fsdecode(read_file(path))):
            cookie = parse_jar_line(line)
            if cookie:
                self._put(cookie)

    def _put(self, cookie: Cookie) -> None:
        if cookie.has_expired():
            self.cookies.pop(cookie.key(), None)
        else:
            self.cookies[cookie.key()] = cookie

    def take(self, head: Head, url: Url) -> None:
        """Sets and removes the cookies of an answer from this URL."""
        for name, value in head.fields:
            if self.is_used and name.lower() == "set-cookie":
                cookie = parse_set_cookie(value, url)
                if cookie:
                    self._put(cookie)

    def header(self, url: Url) -> str:
        found = [c for c in self.cookies.values() if c.is_for(url) and not c.has_expired()]
        found.sort(key=lambda cookie: -len(cookie.path))
        return "; ".join(f"{cookie.name}={cookie.value}" for cookie in found)

    def write(self) -> None:
        if not self.path:
            return
        lines = ["# Netscape HTTP Cookie File", f"# Written by {NAME}.", ""]
        lines += [c.line() for c in self.cookies.values() if not c.has_expired()]
        content = "".join(line + "\n" for line in lines).encode(errors="surrogateescape")
        # The jar contains session ids, so only its owner may read it.
        if self.path != "-" and is_file_or_missing(self.path):
            replace_file(self.path, content)
            return
        output = Output(self.path, 0o600)
        output.write(content)
        output.close()
