"""fronts/get.cpp with Python's urllib.parse and http.cookies."""

import http.cookies
import os
import sys
import urllib.parse

params = urllib.parse.parse_qs(
    os.environ["QUERY_STRING"], keep_blank_values=True)
cookies = http.cookies.SimpleCookie(os.environ["HTTP_COOKIE"])
answer = ["Content-Type: text/plain\r\n\r\n"]
answer += [f"{name}={params[name][0]}\n" for name in ("a", "b", "c")]
answer.append(f"session={cookies['session'].value}\n")
sys.stdout.write("".join(answer))
