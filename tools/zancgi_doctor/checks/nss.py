"""Where accounts are looked up."""

import re

from zancgi_doctor.files import read_text
from zancgi_doctor.findings import ok, warning
from zancgi_doctor.libraries import linker_cache
from zancgi_doctor.texts import listed, quote, reason


def check_nss(_site):
    name, path = "nss.sources", "/etc/nsswitch.conf"
    try:
        text = read_text(path)
    except OSError as error:
        yield warning(
            name,
            path,
            f"{quote(path)} cannot be read: {reason(error)}.",
            "Write one with the lines 'passwd: files' and 'group: files'.",
        )
        return
    sources = []
    for line in text.splitlines():
        database, colon, words = line.partition("#")[0].partition(":")
        if colon and database.strip() in ("passwd", "group", "initgroups"):
            sources += re.sub(r"\[[^]]*\]", " ", words).split()
    # Built into the C library.
    modules = [source for source in dict.fromkeys(sources) if source not in ("files", "dns")]
    cache = linker_cache()
    missing = [source for source in modules if f"libnss_{source}.so.2" not in cache]
    if missing:
        yield warning(
            name,
            path,
            f"Accounts are looked up in sources whose modules are not there: "
            f"{listed(missing)}.",
            f"Install the packages libnss-..., or take the words out of {path}.",
        )
        return
    yield ok(name, path, f"Accounts are looked up in {listed(list(dict.fromkeys(sources)))}.")
