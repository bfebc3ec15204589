"""A site on several hosts: web servers with the front end, and back ends. They
are connected as configured in docs/scaling.md."""

import collections
import contextlib
import dataclasses
import grp
import http.client
import itertools
import os
import pathlib
import pwd
import re
import shutil
import socket
import subprocess
import tempfile
import threading
import time

from processes import DIRECTORIES, end_session, kill, listens, start, wait_for
from scaling_hosts import BOUND_TO_US, new_network
from web_servers import LIBRARIES

HERE = pathlib.Path(__file__).resolve().parent
DOCUMENTS = pathlib.Path(os.environ["SOURCE"]) / "docs"
FRONT = os.environ["README_FRONT"]
BACK_ENDS = ("back1", "back2", "back3")
WEB_HOSTS = 2
WORKERS = "8"
# The account of servers that need no privileges.
ACCOUNT = "www-data"
# The ports in docs/scaling.md.
CLEAR_PORT = 9000
SECURE_PORT = 9443
NEW_KEY = ("-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "2")
SESSIONS = itertools.count()
# The settings that only root may use.
FOR_ROOT = re.compile(r"^ *(?:chroot|user|group) .*\n", re.M)


def document(name):
    return (DOCUMENTS / f"{name}.md").read_text()


def block(label, number=0, name="scaling"):
    """Returns the configuration with this number among those in the document
    that have this label."""
    pattern = rf"^```{re.escape(label)}\b[^\n]*\n(.*?)^```"
    return re.findall(pattern, document(name), re.S | re.M)[number]


def back_end_command(socket_path, folder):
    """Returns the command for uWSGI with the configuration in docs/deployment.md
    and a socket, which systemd would otherwise pass to it."""
    configuration = folder / "uwsgi.ini"
    shown = {"/opt/panel/backend.py": HERE / "scaling_backend.py"}
    configuration.write_text(replaced(block("uwsgi", 0, "deployment"), shown))
    unit = block("systemd /etc/systemd/system/panel-backend.socket.d")
    backlog = re.search(r"^Backlog=(\d+)$", unit, re.M).group(1)
    own = ["--socket", socket_path, "--listen", backlog, "--workers", WORKERS, "--no-orphans"]
    return ["uwsgi", "--ini", configuration, *own]


def proxy_configuration(is_secure):
    """Returns the configuration of a web host."""
    clear = block("haproxy")
    if not is_secure:
        return clear
    return re.sub(r"(?:^ +server .*\n)+", lambda _: block("haproxy", 1), clear, flags=re.M)


def permitted(text):
    """Removes the settings that only root may use, unless root runs this."""
    if os.geteuid() == 0:
        return text
    return FOR_ROOT.sub("", text)


def replaced(text, replacements):
    """Throws unless the document contains each text that is replaced."""
    for shown, actual in replacements.items():
        if shown not in text:
            raise ValueError(f"the document does not contain {shown}")
        text = text.replace(shown, str(actual))
    return text


def openssl(*words):
    subprocess.run(["openssl", *words], stdin=subprocess.DEVNULL, capture_output=True, check=True)


class Service:
    """A server on a host, with all processes that it starts."""

    def __init__(self, host, folder, name, command, as_root=False, **environment):
        run_as = list(BOUND_TO_US)
        if os.geteuid() == 0 and not as_root:
            account = pwd.getpwnam(ACCOUNT)
            run_as += [f"--reuid={account.pw_uid}", f"--regid={account.pw_gid}", "--clear-groups"]
        self.process = start(
            [*host.enter, *run_as, *command],
            folder / f"{name}-output.log",
            env={"PATH": DIRECTORIES, **environment},
        )

    def signal(self, number):
        os.killpg(self.process.pid, number)

    def kill(self):
        """Kills it only once, because another process may get its id then."""
        if self.process.returncode is None:
            kill(self.process)

    def stop(self):
        """Ends it as an upgrade does."""
        end_session(self.process)


class BackEnd:
    """uWSGI, with HAProxy in front of it if TLS is used."""

    def __init__(self, site, number):
        self.name = BACK_ENDS[number]
        self.site = site
        self.host = site.network.add_host(11 + number)
        self.folder = site.make_folder(self.name)
        self.port = self.host.free_port(CLEAR_PORT)
        self.start()
        if site.is_secure:
            self.secure_port = self.host.free_port(SECURE_PORT)
            self.start_proxy(site.certificate(self.name))

    @property
    def public_address(self):
        port = self.secure_port if self.site.is_secure else self.port
        return f"{self.host.address}:{port}"

    def start(self):
        self.service = self.site.start_service(
            self.host,
            self.folder,
            "uwsgi",
            back_end_command(f"{self._inner_address()}:{self.port}", self.folder),
            HOST=self.name,
            ASKED=str(self.folder / "asked"),
            SECONDS=str(self.site.seconds),
        )

    def start_proxy(self, certificate):
        shown = {
            f"192.0.2.11:{SECURE_PORT}": self.public_address,
            f"127.0.0.1:{CLEAR_PORT}": f"{self._inner_address()}:{self.port}",
            "/etc/haproxy/tls/host.pem": certificate,
            "/etc/haproxy/tls/ca.pem": self.site.authority,
        }
        configuration = self.folder / "haproxy.cfg"
        configuration.write_text(permitted(replaced(block("haproxy", 2), shown)))
        command = ["haproxy", "-W", "-f", configuration]
        self.proxy = self.site.start_service(
            self.host, self.folder, "haproxy", command, as_root=True
        )

    def asked(self):
        """Returns the sessions of all queries so far, in order."""
        path = self.folder / "asked"
        return path.read_text().split() if path.exists() else []

    def _inner_address(self):
        """Returns the address on which uWSGI listens."""
        # Only a namespace has a loopback address of its own.
        if self.site.is_secure and self.host.enter:
            return "127.0.0.1"
        return self.host.address


class WebServer:
    """A web server that starts the front end for each visit."""

    def __init__(self, site, host, folder, run_dir):
        self.socket = folder / "http.sock"
        configuration = folder / "lighttpd.conf"
        configuration.write_text(
            f"""
            server.modules = ( "mod_setenv", "mod_cgi" )
            server.bind = "{self.socket}"
            server.document-root = "{site.documents}"
            server.errorlog = "{folder}/lighttpd.log"
            server.upload-dirs = ( "{folder}" )
            cgi.assign = ( "" => "" )
            setenv.set-environment = ( "TOV_RUN_DIR" => "{run_dir}",
                                       "LD_LIBRARY_PATH" => "{site.libraries}" )
            """
        )
        command = ["lighttpd", "-D", "-f", configuration]
        self.service = site.start_service(host, folder, "lighttpd", command)
        wait_for(lambda: listens(self.socket))

    def visit(self, session):
        """Returns the status and the page, or 0 and the text of an exception."""
        try:
            with contextlib.closing(UnixConnection(self.socket)) as connection:
                connection.request("GET", "/whoami", headers={"Cookie": f"panelses5={session}"})
                response = connection.getresponse()
                return response.status, response.read().decode()
        except (OSError, http.client.HTTPException) as error:
            return 0, repr(error)


class WebHost:
    """A web server with the front end, and HAProxy on the socket to which the
    front end connects."""

    def __init__(self, site, number):
        self.host = site.network.add_host(21 + number)
        self.site = site
        self.folder = site.make_folder(f"web{number + 1}")
        self.run_dir = site.make_folder(f"web{number + 1}/run")
        self.admin_socket = self.folder / "admin.sock"
        self.proxy_configuration = self.folder / "haproxy.cfg"
        self.proxy_configuration.write_text(self._proxy_configuration())
        self.proxy = self._start_proxy()
        wait_for(lambda: self.back_ends_up() == len(BACK_ENDS))
        self.web_server = WebServer(site, self.host, self.folder, self.run_dir)

    def _proxy_configuration(self):
        is_secure = self.site.is_secure
        shown = {
            "/run/tov/": f"{self.run_dir}/",
            "/run/haproxy/admin.sock": self.admin_socket,
        }
        if is_secure:
            shown["/etc/haproxy/tls/host.pem"] = self.site.certificate("web")
            shown["/etc/haproxy/tls/ca.pem"] = self.site.authority
        port = SECURE_PORT if is_secure else CLEAR_PORT
        for number, back_end in enumerate(self.site.back_ends, 11):
            line = f"server {back_end.name} "
            shown[f"{line}192.0.2.{number}:{port}"] = line + back_end.public_address
        if os.geteuid() != 0:
            shown["group www-data"] = f"group {grp.getgrgid(os.getegid()).gr_name}"
        return permitted(replaced(proxy_configuration(is_secure), shown))

    def _start_proxy(self):
        command = ["haproxy", "-W", "-f", self.proxy_configuration]
        return self.site.start_service(
            self.host, self.folder, "haproxy", command, as_root=True
        )

    def proxy_command(self, text):
        """Returns HAProxy's answer to a command."""
        with socket.socket(socket.AF_UNIX) as client:
            client.connect(str(self.admin_socket))
            client.sendall(text.encode() + b"\n")
            with client.makefile() as answer:
                return answer.read()

    def proxy_state(self, back_end):
        """Returns HAProxy's statistics of a back end by column."""
        lines = self.proxy_command("show stat").lstrip("# ").splitlines()
        columns = lines[0].split(",")
        for line in lines[1:]:
            state = dict(zip(columns, line.split(",")))
            if state.get("svname") == back_end:
                return state
        raise KeyError(back_end)

    def back_ends_up(self):
        """Returns the number of back ends that HAProxy uses. One that has failed
        its first check is still used, with the status "UP 1/2"."""
        with contextlib.suppress(OSError):
            return sum(self.proxy_state(name)["status"].startswith("UP") for name in BACK_ENDS)
        return 0


@dataclasses.dataclass
class Site:
    """All hosts and services. After stop() no process and no file is left."""

    # The time that a back end takes for a query.
    seconds: float
    is_secure: bool = False

    def __post_init__(self):
        self.network = new_network()
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="scaling-"))
        self.folder.chmod(0o755)
        self.services = []
        self.back_ends = []
        self.web_hosts = []
        try:
            self._start()
        except BaseException:
            print(self.logs())
            self.stop()
            raise

    def _start(self):
        self.documents = self.make_folder("www")
        self.libraries = self.make_folder("lib")
        shutil.copy(FRONT, self.documents / "whoami")
        for library in LIBRARIES:
            shutil.copy(library, self.libraries)
        if self.is_secure:
            self.authority = self.new_authority("authority")
        for number in range(len(BACK_ENDS)):
            self.back_ends.append(BackEnd(self, number))
        for number in range(WEB_HOSTS):
            self.web_hosts.append(WebHost(self, number))

    def make_folder(self, name):
        folder = self.folder / name
        folder.mkdir()
        if os.geteuid() == 0:
            shutil.chown(folder, ACCOUNT)
        return folder

    def wait_until_up(self):
        for web_host in self.web_hosts:
            wait_for(lambda host=web_host: host.back_ends_up() == len(BACK_ENDS))

    def web_servers(self):
        return [web_host.web_server for web_host in self.web_hosts]

    def new_authority(self, name):
        """Returns the self-signed certificate of a new authority."""
        file = self.folder / f"{name}.pem"
        openssl("req", "-x509", *NEW_KEY, "-subj", f"/CN={name}", "-keyout", f"{file}.key",
                "-out", file)
        return file

    def certificate(self, name, authority=None):
        """Returns a file with a new certificate for NAME.example and its key."""
        authority = authority or self.authority
        file = self.folder / f"{name}-by-{authority.stem}.pem"
        openssl("req", "-x509", *NEW_KEY, "-CA", authority, "-CAkey", f"{authority}.key",
                "-subj", f"/CN={name}", "-addext", f"subjectAltName=DNS:{name}.example",
                "-addext", "basicConstraints=critical,CA:FALSE", "-keyout", f"{file}.key",
                "-out", file)
        with file.open("a") as both:
            both.write(pathlib.Path(f"{file}.key").read_text())
        return file

    def start_service(self, *arguments, **options):
        self.services.append(Service(*arguments, **options))
        return self.services[-1]

    def logs(self):
        logs = sorted(self.folder.glob("*/*.log"))
        return "\n".join(f"{log}: {log.read_text(errors='replace')}" for log in logs)

    def stop(self):
        for service in reversed(self.services):
            service.kill()
        self.network.remove()
        shutil.rmtree(self.folder)

    def asked(self):
        """Returns the number of queries of each session."""
        return collections.Counter(
            itertools.chain.from_iterable(end.asked() for end in self.back_ends)
        )


class UnixConnection(http.client.HTTPConnection):
    def __init__(self, path):
        super().__init__("panel.example", timeout=60)
        self.path = str(path)

    def connect(self):
        self.sock = socket.socket(socket.AF_UNIX)
        self.sock.settimeout(self.timeout)
        self.sock.connect(self.path)


@dataclasses.dataclass
class Visit:
    session: str
    began: float
    ended: float
    status: int
    page: str

    @property
    def seconds(self):
        return self.ended - self.began

    @property
    def back_end(self):
        """The name of the back end that answered; None if the visit failed."""
        found = re.search(r"You are (\w+)\.$", self.page)
        return found.group(1) if found and self.status == 200 else None


class Load:
    """Visitors who request one page after another until stop() is called."""

    def __init__(self, web_servers, visitors):
        self.web_servers = web_servers
        self.visits = []
        self.stopped = threading.Event()
        self.threads = [
            threading.Thread(target=self._visit_until_stopped, args=[number])
            for number in range(visitors)
        ]
        for thread in self.threads:
            thread.start()

    def wait_for(self, condition):
        wait_for(lambda: condition() or self._is_over(), 60)

    def wait_for_visits(self, count):
        """Waits for this number of further visits."""
        goal = len(self.visits) + count
        self.wait_for(lambda: len(self.visits) >= goal)

    def stop(self):
        """Returns all visits in the order in which they ended."""
        self.stopped.set()
        for thread in self.threads:
            thread.join()
        return self.visits

    def _is_over(self):
        if any(thread.is_alive() for thread in self.threads):
            return False
        raise RuntimeError("all visitors have stopped")

    def _visit_until_stopped(self, number):
        web_server = self.web_servers[number % len(self.web_servers)]
        while not self.stopped.is_set():
            session = f"visit-{next(SESSIONS)}"
            began = time.monotonic()
            status, page = web_server.visit(session)
            self.visits.append(Visit(session, began, time.monotonic(), status, page))
