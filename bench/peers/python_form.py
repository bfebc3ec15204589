"""fronts/form.cpp with Python's cgi module. It iterates over the fields, because
a look-up by name searches all of them."""

import cgi
import os
import sys


def fnv1a(value, state):
    for byte in value:
        state = (state ^ byte) * 1099511628211 & 0xFFFFFFFFFFFFFFFF
    return state


# Latin-1 decodes each byte to one character.
fields = cgi.FieldStorage(keep_blank_values=True, encoding="latin-1").list
line = f"{len(fields)} {sum(len(field.value) for field in fields)}"
if os.environ.get("HASH") != "no":
    state = 14695981039346656037
    for field in fields:
        state = fnv1a(field.value.encode("latin-1"), state)
    line += f" {state:016x}"
sys.stdout.write(f"Content-Type: text/plain\r\n\r\n{line}\n")
