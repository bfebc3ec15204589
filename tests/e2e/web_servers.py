"""Real web servers with one CGI program behind them, each on a port of its own.

    server = Lighttpd(program)
    spool = server.make_folder("spool")
    server.start({"TMP": str(spool)})
    ...
    server.stop()

Whoever runs the tests, the servers are run by an ordinary user.
"""

import os
import pathlib
import shutil
import tempfile
import unittest

from processes import (
    DIRECTORIES, end_session, free_address, has_ended, listens, open_files, processes_with, start,
    wait_for,
)

# What the program is linked with, wherever it has been built.
LIBRARIES = os.environ["LIBRARIES"].split(":")
NOBODY = 65534
UNLIMITED = 1 << 62

# What becomes of a chunked body, which has no declared length. A program that
# gets no CONTENT_LENGTH sees no body.
DECODED = "the program gets the length"
REFUSED = "the client must declare the length"
WITHOUT_LENGTH = "the program does not get the length"


class WebServer:
    # What the program's standard input is, for a short and for a long body.
    standard_input = ("pipe", "pipe")
    # Whether the program starts before all of the body has come, and whether a
    # piece of it, however short, reaches the program before the next has come.
    hands_on_early = False
    passes_pieces_on = False
    largest_body = UNLIMITED
    chunked_body = DECODED

    def __init__(self, program):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="web-server-"))
        self._give_away(self.folder)
        self.documents = self.make_folder("www")
        self.program = self._copy(program, self.make_folder("www/cgi-bin"))
        self.bodies = self.make_folder("bodies")
        self.libraries = self.make_folder("lib")
        for library in LIBRARIES:
            self._copy(library, self.libraries)
        self.address = self.host, self.port = free_address()
        self.path = "/cgi-bin/" + self.program.name
        self.url = f"http://{self.host}:{self.port}{self.path}"
        self.processes = []

    def start(self, variables):
        """The program gets these environment variables."""
        self.variables = {"LD_LIBRARY_PATH": str(self.libraries), **variables}
        try:
            self.start_processes()
            wait_for(self._accepts)
        except BaseException:
            print(self.logs())
            self.stop()
            raise

    def stop(self):
        for process in self.processes:
            end_session(process)
        wait_for(lambda: not self.running_programs())
        shutil.rmtree(self.folder)

    def make_folder(self, name):
        """A new folder that server and program may write into."""
        folder = self.folder / name
        folder.mkdir()
        self._give_away(folder)
        return folder

    def make_file(self, path):
        """An empty one that the program may write into."""
        path.touch()
        self._give_away(path)

    def running_programs(self):
        return processes_with(self.libraries, self.program)

    def gathered_bodies(self):
        """The sizes, so far, of the bodies that the server collects before it hands them on."""
        return open_files(self.bodies)

    def logs(self):
        logs = sorted(self.folder.glob("*.log"))
        return "\n".join(f"{log.name}: {log.read_text(errors='replace')}" for log in logs)

    def run(self, *command, **environment):
        log = self.folder / f"{command[0]}-output.log"
        environment = {"PATH": DIRECTORIES, **environment}
        self.processes.append(start(command, log, env=environment, **self._identity()))

    def configuration(self, text):
        path = self.folder / "server.conf"
        path.write_text(text)
        return path

    def _accepts(self):
        if any(has_ended(process) for process in self.processes):
            raise RuntimeError("the web server does not start")
        return listens(self.address)

    def _identity(self):
        if os.geteuid() != 0:
            return {}
        return {"user": NOBODY, "group": NOBODY, "extra_groups": [NOBODY]}

    def _give_away(self, path):
        if os.geteuid() == 0:
            os.chown(path, NOBODY, NOBODY)

    def _copy(self, source, folder):
        copy = pathlib.Path(shutil.copy(source, folder))
        copy.chmod(0o755)
        return copy


class Lighttpd(WebServer):
    """Hands the body to the program once all of it has come."""

    stream_request_body = 0
    standard_input = ("pipe", "file")

    def start_processes(self):
        variables = ", ".join(f'"{name}" => "{value}"' for name, value in self.variables.items())
        configuration = self.configuration(
            f"""
            server.modules = ( "mod_setenv", "mod_cgi" )
            server.bind = "{self.host}"
            server.port = {self.port}
            server.document-root = "{self.documents}"
            server.errorlog = "{self.folder}/lighttpd.log"
            server.upload-dirs = ( "{self.bodies}" )
            server.stream-request-body = {self.stream_request_body}
            cgi.assign = ( "" => "" )
            setenv.set-environment = ( {variables} )
            """
        )
        self.run("lighttpd", "-D", "-f", configuration)


class LighttpdStreaming(Lighttpd):
    """Hands the body on while it comes, and slows the client down."""

    stream_request_body = 2
    standard_input = ("pipe", "pipe")
    hands_on_early = True
    passes_pieces_on = True
    chunked_body = REFUSED


class Apache(WebServer):
    """Threads, and a daemon of its own that starts the programs."""

    standard_input = ("socket", "socket")
    hands_on_early = True
    passes_pieces_on = True
    chunked_body = WITHOUT_LENGTH
    modules = ("mpm_event", "authz_core", "alias", "env", "cgid")

    def start_processes(self):
        modules = "\n".join(
            f"LoadModule {name}_module /usr/lib/apache2/modules/mod_{name}.so"
            for name in self.modules
        )
        variables = "\n".join(
            f'SetEnv "{name}" "{value}"' for name, value in self.variables.items()
        )
        configuration = self.configuration(
            f"""
            {modules}
            ServerName {self.host}
            Listen {self.host}:{self.port}
            ErrorLog "{self.folder}/apache.log"
            PidFile "{self.folder}/apache.pid"
            DefaultRuntimeDir "{self.folder}"
            ScriptSock "{self.folder}/cgid.sock"
            ServerLimit 1
            ThreadsPerChild 8
            MaxRequestWorkers 8
            MaxSpareThreads 8
            LimitRequestBody 0
            DocumentRoot "{self.documents}"
            ScriptAlias /cgi-bin/ "{self.program.parent}/"
            {variables}
            """
        )
        self.run("apache2", "-f", configuration, "-D", "FOREGROUND")


class Nginx(WebServer):
    """Hands the body to the program once all of it has come."""

    request_buffering = "on"

    def start_processes(self):
        variables = "\n".join(
            f'fastcgi_param {name} "{value}";' for name, value in self.variables.items()
        )
        own_paths = "\n".join(
            f'{kind}_temp_path "{self.folder}/nginx-{kind}";'
            for kind in ("proxy", "fastcgi", "uwsgi", "scgi")
        )
        configuration = self.configuration(
            f"""
            daemon off;
            worker_processes 1;
            pid "{self.folder}/nginx.pid";
            events {{ }}
            http {{
                access_log off;
                {own_paths}
                client_body_temp_path "{self.bodies}";
                client_max_body_size 0;
                server {{
                    listen {self.host}:{self.port};
                    location {self.path} {{
                        fastcgi_pass "unix:{self.folder}/fcgiwrap.sock";
                        fastcgi_request_buffering {self.request_buffering};
                        fastcgi_param SCRIPT_FILENAME "{self.program}";
                        fastcgi_param QUERY_STRING $query_string;
                        fastcgi_param REQUEST_METHOD $request_method;
                        fastcgi_param CONTENT_TYPE $content_type;
                        fastcgi_param CONTENT_LENGTH $content_length;
                        fastcgi_param REMOTE_ADDR $remote_addr;
                        fastcgi_param SERVER_ADDR $server_addr;
                        {variables}
                    }}
                }}
            }}
            """
        )
        self.run("fcgiwrap", "-f", "-c", "2", "-s", f"unix:{self.folder}/fcgiwrap.sock")
        wait_for((self.folder / "fcgiwrap.sock").exists)
        self.run("nginx", "-e", self.folder / "nginx.log", "-c", configuration)


class NginxStreaming(Nginx):
    """Hands the body on while it comes, in pieces that fcgiwrap gathers."""

    request_buffering = "off"
    hands_on_early = True
    chunked_body = WITHOUT_LENGTH


class Busybox(WebServer):
    """A process for each connection, and no configuration."""

    hands_on_early = True
    passes_pieces_on = True
    largest_body = (1 << 31) - 1
    chunked_body = WITHOUT_LENGTH

    def start_processes(self):
        address = f"{self.host}:{self.port}"
        self.run("busybox", "httpd", "-f", "-p", address, "-h", self.documents, **self.variables)


ALL = (Lighttpd, LighttpdStreaming, Apache, Nginx, NginxStreaming, Busybox)


def behind_each(loader, *tests):
    """These tests, with each kind of web server as their "kind"."""
    suite = unittest.TestSuite()
    for kind in ALL:
        for test in tests:
            name = f"{test.__name__}_{kind.__name__}"
            suite.addTests(loader.loadTestsFromTestCase(type(name, (test,), {"kind": kind})))
    return suite
