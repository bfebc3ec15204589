"""The programs that the benchmark measures, and how each is started.

A program does one workload and prints the answer of that workload, whatever it
is built on:

get     A GET. QUERY_STRING has the parameters a, b and c, HTTP_COOKIE the cookie
        "session". Prints "a=...", "b=...", "c=..." and "session=...", a line
        each.
form    A POST of the fields f0, f1 and so on, in this order. Prints their
        number, the size of their values together and the FNV-1a hash (64 bits,
        decimal) of these values one behind the other. With HASH=no in its
        environment it leaves out the hash, which takes longer than the request.
upload  A POST (multipart/form-data) with a file in the field "u". Keeps the file
        as $STORE, a path in the folder {folder}, and prints its size.
query   Asks the SCGI server at $TOV_RUN_DIR/bench.sock for QUERY_STRING and
        prints the size of what it sends, header lines included.
empty   Nothing: how long a process takes.

Before the answer stands "Content-Type: text/plain" and an empty line, with CR LF.
"""

import dataclasses
import sys

PYTHON = sys.executable


@dataclasses.dataclass(frozen=True)
class Program:
    """How to start a program. In its strings {programs} stands for the folder of
    the built ones, {bench} for the one that this file is in, and {folder} for
    the one in which uploads are kept."""

    name: str
    workload: str
    title: str
    command: tuple
    environment: dict = dataclasses.field(default_factory=dict)
    # A floor does less than its workload asks for; see its title.
    is_floor: bool = False

    def argv(self, **folders):
        return [word.format(**folders) for word in self.command]

    def variables(self, **folders):
        return {
            name: value.format(**folders)
            for name, value in self.environment.items()
        }


# What every server gives, and what some of the programs cannot do without.
REQUEST = {
    "GATEWAY_INTERFACE": "CGI/1.1",
    "SERVER_PROTOCOL": "HTTP/1.1",
    "SERVER_NAME": "localhost",
    "SERVER_PORT": "80",
    "SERVER_ADDR": "127.0.0.1",
    "REMOTE_ADDR": "127.0.0.1",
    "HTTP_HOST": "localhost",
    "SCRIPT_NAME": "/bench",
    "PATH": "/usr/bin:/bin",
}
