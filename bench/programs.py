"""The programs that the benchmark measures, and how each is started.

A program does one workload and prints the answer of that workload, whatever it
is built on:

get     A GET. QUERY_STRING has the parameters a, b and c, HTTP_COOKIE the
        cookie "session". Prints "a=...", "b=...", "c=..." and "session=...",
        a line each.
form    A POST of the fields f0, f1 and so on, in this order. Prints their
        number, the size of their values together and the FNV-1a hash (64 bits,
        in 16 hexadecimal digits) of the values one behind the other: ours in
        the order that it keeps them in, that of the names' bytes, unless it
        reads them by zan_cgi::Form ("exact_..."). With HASH=no
        in its environment it leaves out the hash, which takes longer than the
        request. In a multipart body no CR LF may lie across a multiple of
        65536 bytes: ours reads pieces of that size, and takes a line end that
        is cut in two for a part of the line.
upload  A POST (multipart/form-data) with a file in the field "u". Keeps the
        file as $STORE, a path in the folder {folder}, and prints its size. The
        floors keep the rest of the body as well, one of them all but its first
        $SKIP bytes: what is written then no longer lies as it was read.
query   Asks the SCGI server at $TOV_RUN_DIR/bench.sock for QUERY_STRING and
        prints the size of what it sends, header lines included.
service As get, in a FastCGI process that the web server starts once.
empty   Nothing: what a process takes. Prints nothing.

Before an answer stands "Content-Type: text/plain" and an empty line, both with
CR LF.
"""

import dataclasses
import shutil
import subprocess

# Variables that every server sets and that some of the programs need.
SERVER_VARIABLES = {
    "GATEWAY_INTERFACE": "CGI/1.1",
    "HTTP_HOST": "localhost",
    "PATH": "/usr/bin:/bin",
    "REMOTE_ADDR": "127.0.0.1",
    "SCRIPT_NAME": "/bench",
    "SERVER_ADDR": "127.0.0.1",
    "SERVER_NAME": "localhost",
    "SERVER_PORT": "80",
    "SERVER_PROTOCOL": "HTTP/1.1",
}


@dataclasses.dataclass(frozen=True)
class Program:
    """How to start a program. In command and environment {built} stands for the
    folder of the built programs, {bench} for the one that this file is in, and
    {folder} for the one in which uploads are kept."""

    name: str
    workload: str
    title: str
    command: tuple
    environment: dict = dataclasses.field(default_factory=dict)
    is_ours: bool = False
    is_floor: bool = False
    # Whether the fields come in byte order of their names.
    sorts_fields: bool = False
    # Too slow for the full number of runs.
    is_slow: bool = False
    # A command that succeeds if everything else the program needs is installed.
    probe: tuple = ()

    def argv(self, **folders):
        return [word.format(**folders) for word in self.command]

    def variables(self, **folders):
        """What the program needs besides SERVER_VARIABLES and its request."""
        return {
            name: value.format(**folders)
            for name, value in self.environment.items()
        }

    def is_there(self, **folders):
        """Whether it was built, or what interprets it is installed."""
        if shutil.which(self.argv(**folders)[0]) is None:
            return False
        if not self.probe:
            return True
        done = subprocess.run(self.probe, capture_output=True, check=False)
        return done.returncode == 0


def ours(workload, build, title):
    return Program(
        f"{workload}_{build}",
        workload,
        title,
        ("{built}/" + f"{workload}_{build}",),
        is_ours=True,
        sorts_fields=True,
    )


def exact(workload, build, title):
    return dataclasses.replace(
        ours(f"exact_{workload}", build, f"{title}, exact"),
        workload=workload,
        sorts_fields=False,
    )


def floor(name, workload, title):
    return Program(
        name, workload, title, ("{built}/" + name,), is_floor=True
    )


def built_peer(name, workload, title, **environment):
    return Program(
        f"{name}_{workload}",
        workload,
        title,
        ("{built}/" + f"{name}_{workload}",),
        environment,
    )


def go(workload):
    return Program(
        f"go_{workload}",
        workload,
        "Go",
        ("{built}/go/" + workload,),
        # The default limit is 1000 fields.
        {"GODEBUG": "multipartmaxparts=1000000"},
    )


def script(name, workload, title, interpreter, suffix, probe=()):
    path = "{bench}/peers/" + f"{name}_{workload}.{suffix}"
    return Program(
        f"{name}_{workload}",
        workload,
        title,
        (*interpreter, path),
        {"TMPDIR": "{folder}"},
        is_slow=True,
        probe=probe,
    )


def cgi_pm(workload):
    return script(
        "cgi_pm",
        workload,
        "CGI.pm",
        ("/usr/bin/perl",),
        "pl",
        probe=("/usr/bin/perl", "-MCGI", "-e1"),
    )


def python(workload):
    # Suppresses the warning at each start that the module "cgi" is deprecated.
    return script(
        "python",
        workload,
        "Python",
        ("/usr/bin/python3", "-W", "ignore"),
        "py",
    )


def php(workload):
    settings = {
        "default_charset": "",
        "expose_php": "0",
        "max_input_vars": "1000000",
        "post_max_size": "8G",
        "upload_max_filesize": "8G",
        "upload_tmp_dir": "{folder}",
    }
    options = [
        word
        for name, value in settings.items()
        for word in ("-d", f"{name}={value}")
    ]
    return Program(
        f"php_{workload}",
        workload,
        "php-cgi -n",
        ("/usr/bin/php-cgi", "-n", *options),
        {
            # php-cgi runs the script named here, and refuses to without the
            # status.
            "SCRIPT_FILENAME": "{bench}/peers/" + f"php_{workload}.php",
            "REDIRECT_STATUS": "200",
        },
        is_slow=True,
    )


SHARED = "libzancgi, shared"
ARCHIVES = "libzancgi, archives"
STANDALONE = "libzancgi, standalone"

PROGRAMS = (
    floor("empty_c", "empty", "empty C program"),
    floor("empty_c_static", "empty", "empty C program, static"),
    floor("empty_cpp", "empty", "empty C++ program"),
    floor("empty_cpp_two", "empty", "the same with two empty shared libraries"),
    ours("get", "shared", SHARED),
    ours("get", "archive", ARCHIVES),
    ours("get", "archive_nopie", f"{ARCHIVES}, not PIE"),
    ours("get", "standalone", STANDALONE),
    ours("form", "shared", SHARED),
    ours("form", "archive", ARCHIVES),
    ours("upload", "shared", SHARED),
    ours("upload", "archive", ARCHIVES),
    exact("form", "shared", SHARED),
    exact("form", "archive", ARCHIVES),
    exact("upload", "shared", SHARED),
    exact("upload", "archive", ARCHIVES),
    floor("copy", "upload", "plain read and write loop"),
    Program(
        "copy_shifted",
        "upload",
        "plain loop, without the beginning",
        ("{built}/copy", "shifted"),
        is_floor=True,
    ),
    ours("query", "shared", SHARED),
    ours("query", "archive", ARCHIVES),
    floor("exchange", "query", "bare socket loop"),
    built_peer("fcgi", "get", "libfcgi"),
    Program("fcgi_service", "service", "libfcgi, FastCGI", ("{built}/fcgi_get",)),
    *(
        peer(workload)
        for workload in ("get", "form", "upload")
        for peer in (
            lambda workload: built_peer("cgicc", workload, "libcgicc"),
            lambda workload: built_peer("rude", workload, "librudecgi"),
            cgi_pm,
            php,
            python,
            go,
        )
    ),
)
