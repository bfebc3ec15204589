"""Where accounts are looked up."""

import re

from zancgi_doctor.files import read_text
from zancgi_doctor.findings import sayer
from zancgi_doctor.libraries import linker_cache
from zancgi_doctor.texts import listed, reason


def check_nss(_site):
    path = "/etc/nsswitch.conf"
    say = sayer("nss.sources", path)
    try:
        text = read_text(path)
    except OSError as error:
        yield say("warning missing", error=reason(error))
        return
    sources = []
    for line in text.splitlines():
        database, colon, words = line.partition("#")[0].partition(":")
        if colon and database.strip() in ("passwd", "group", "initgroups"):
            sources += re.sub(r"\[[^]]*\]", " ", words).split()
    sources = list(dict.fromkeys(sources))
    # Built into the C library.
    modules = [source for source in sources if source not in ("files", "dns")]
    cache = linker_cache()
    missing = [source for source in modules if f"libnss_{source}.so.2" not in cache]
    yield say("warning" if missing else "ok", names=listed(missing or sources))
