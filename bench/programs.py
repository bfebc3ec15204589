"""The programs that the benchmark measures, and how each is started.

All programs of a workload do the same work and print the same answer:

get     A GET. QUERY_STRING contains the parameters a, b and c, HTTP_COOKIE the
        cookie "session". Prints the lines "a=...", "b=...", "c=..." and
        "session=...".
form    A POST of the fields f0, f1 and so on, in this order. Prints the number
        of fields, the total size of their values and the FNV-1a hash (64 bits,
        in 16 hexadecimal digits) of the concatenated values. Our programs hash
        the values in byte order of the names, except "exact_...", which use
        zan_cgi::Form. HASH=no in the environment omits the hash, which takes
        longer than the request. In a multipart body, no multiple of 65536
        bytes may separate a CR from its LF: our parser reads pieces of that
        size and treats a line end that is split as part of the line.
upload  A POST (multipart/form-data) with a file in the field "u". Stores the
        file as $STORE, a path in the folder {folder}, and prints its size. The
        floor "copy" stores the whole body. "copy_shifted" omits the first
        $SKIP bytes, so that its writes are aligned differently from its reads.
query   Queries the SCGI server at $TOV_RUN_DIR/bench.sock with QUERY_STRING and
        prints the size of the answer, including header lines.
service The work of "get" in a FastCGI process that the web server starts once.
empty   Does nothing, to show the cost of a process. Prints nothing.

Each answer begins with the header "Content-Type: text/plain" and an empty line,
both ending with CR LF.
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
    """How to start a program. In `command` and `environment`, {built} is the
    folder of the built programs, {bench} the folder of this file, and {folder}
    the folder for uploads."""

    name: str
    workload: str
    title: str
    command: tuple
    environment: dict = dataclasses.field(default_factory=dict)
    is_ours: bool = False
    is_floor: bool = False
    # Whether it hashes the fields in byte order of their names.
    sorts_fields: bool = False
    # Too slow for the full number of runs.
    is_slow: bool = False
    # A command that succeeds if the modules that a script needs are installed.
    probe: tuple = ()

    def argv(self, **folders):
        return [word.format(**folders) for word in self.command]

    def variables(self, **folders):
        """The variables it needs besides those of the request."""
        return {
            name: value.format(**folders)
            for name, value in self.environment.items()
        }

    def is_available(self, **folders):
        """Whether the program is built, or its interpreter is installed."""
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


def built_peer(name, workload, title):
    return Program(
        f"{name}_{workload}",
        workload,
        title,
        ("{built}/" + f"{name}_{workload}",),
    )


def cgicc(workload):
    return built_peer("cgicc", workload, "libcgicc")


def rude(workload):
    return built_peer("rude", workload, "librudecgi")


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
    # The option suppresses the warning that the module "cgi" is deprecated.
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
            # php-cgi runs the script of this name, but only if REDIRECT_STATUS
            # is set.
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
        for peer in (cgicc, rude, cgi_pm, php, python, go)
    ),
)
