"""The configurations of docs/deployment.md, each taken out of the document and
run with the real servers: limits, what arrives, and what stays behind."""

import concurrent.futures
import contextlib
import functools
import glob
import grp
import hashlib
import http.client
import json
import os
import pathlib
import pwd
import re
import secrets
import select
import shlex
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import threading
import time
import unittest
import urllib.parse

from accounts import GID, IS_ROOT, NAMES_AND_IDS, NAMES_ONLY, UID, Accounts
from panel_server import PANEL, wait_for
from upload_test import FORM, field, file, form
from web_servers import LIBRARIES, end_session, free_address, has_ended

TEXT = (pathlib.Path(os.environ["SOURCE"]) / "docs" / "deployment.md").read_text()
PART = re.MULTILINE | re.DOTALL
# What the test puts elsewhere: folders that are the panel's or a server's own,
# and the port. What Debian's packages bring stays where it is.
PLACES = re.compile(r"(?<![\w./])/(?:opt|run|var|etc/(?:panel|apache2))(?=/|\b)")
PORTS = {
    "/etc/lighttpd/lighttpd.conf": (
        "server.port = 80\n",
        'server.bind = "{host}"\nserver.port = {port}\n',
    ),
    "/etc/apache2/apache2.conf": ("Listen 80\n", "Listen {host}:{port}\n"),
    "/etc/nginx/nginx.conf": ("listen 80;", "listen {host}:{port};"),
    "/etc/systemd/system/panel-httpd.service": (" -p 80 ", " -p {host}:{port} "),
}
LAUNCHER = "/opt/panel/cgi/panel"
MODES = {LAUNCHER: 0o755}
needs_root = unittest.skipUnless(IS_ROOT, "needs root")
WEB = "www-data"
# The document's account of the back end is nobody's on this machine.
USERS = {"panel": "nobody", WEB: WEB, "root": "root"}
GROUPS = {"panel": "nogroup", WEB: WEB, "root": "root"}

# Where bodies are written to, by front ends and by servers.
BODY_FOLDERS = ("/var/spool/panel", "/var/cache/lighttpd/uploads", "/var/lib/nginx/body")

PIPE = 65536
BODY_LIMIT = 134217728
TIME_LIMIT = 60
PROCESSOR_LIMIT = 10
HARAKIRI = 10
# More than what server and kernel keep for a client that takes its time.
DOWNLOAD = 32 << 20
ATTEMPTS = 4

# Stands where the front end would, and does what the query says.
PROBE = """
import hashlib, json, os, signal, sys, time

def env():
    return json.dumps(dict(os.environ))

def body():
    content = sys.stdin.buffer.read(int(os.environ["CONTENT_LENGTH"]))
    return hashlib.sha256(content).hexdigest()

def memory():
    try:
        return str(len(bytearray(1 << 30)))
    except MemoryError:
        return "refused"

def wait():
    note("begun")
    time.sleep(1000)

def wait_stubbornly():
    signal.signal(signal.SIGTERM, signal.SIG_IGN)
    wait()

def spin():
    while True:
        note(str(time.process_time()))
        for _ in range(1000000):
            pass

def refuse():
    print("Status: 413 Content Too Large\\r\\n\\r\\nToo much.", end="")
    print("." * int(value or 0), end="", flush=True)
    os._exit(0)

def send():
    size, promised = value.split("&")
    print("Content-Type: application/octet-stream\\r")
    if promised:
        print(f"Content-Length: {promised}\\r")
    print("\\r", flush=True)
    note("begun")
    for _ in range(int(size) >> 16):
        sys.stdout.buffer.write(bytes(65536))
    sys.stdout.flush()

def send_all():
    send()
    os._exit(0)

def send_part():
    send()
    os.kill(os.getpid(), signal.SIGTERM)

def parent():
    with open(f"/proc/{os.getppid()}/comm") as name:
        return name.read().strip()

def end():
    if name == "signal":
        os.kill(os.getpid(), int(value))
    sys.exit(int(value))

def become():
    uid, gid = map(int, value.split("&"))
    note("begun")
    os.setgroups([])
    os.setgid(gid)
    os.setuid(uid)
    time.sleep(1000)

def note(text):
    path = sys.argv[1] + "/" + name
    with open(path + ".new", "w") as notes:
        notes.write(f"{os.getpid()} {text}")
    os.rename(path + ".new", path)

_, _, request = os.environ["QUERY_STRING"].partition("probe=")
action, _, value = request.partition("&")
name, _, value = value.partition("&")
answer = globals()[action]()
print("Content-Type: text/plain\\r\\n\\r\\n" + answer, end="")
"""

# The panel's back end, which takes its time for some visitors.
SLOW_BACK_END = """
answers = application

def application(environ, start_response):
    manner = environ.get("HTTP_USER_AGENT")
    if manner in ("never", "slowly"):
        with open("{notes}/" + manner, "a") as executions:
            executions.write(".")
        time.sleep(1000 if manner == "never" else 3)
    return answers(environ, start_response)
"""


def documented_files():
    """The text of each file that the document shows, by its path."""
    return dict(re.findall(r"^```\w+ (/\S+)\n(.*?)^```$", TEXT, PART))


class Unit:
    """What unit files say: of some settings all values count, of others the
    last."""

    def __init__(self, *texts):
        self.settings = {}
        for name, value in re.findall(r"^(\w+)=(.*)$", "".join(texts), re.MULTILINE):
            self.settings.setdefault(name, []).append(value)

    def __getitem__(self, name):
        return self.settings[name][-1]

    def get(self, name):
        return self[name] if name in self.settings else None

    def words(self, name):
        return " ".join(self.settings.get(name, [])).split()


def runs(process, program):
    """Whatever the path is by which the process sees the program."""
    with contextlib.suppress(OSError):  # gone, or not ours to look at
        return os.path.samefile(f"/proc/{process}/exe", program)


def place():
    """A folder in which homes can be root's all the way, if root runs this."""
    if not IS_ROOT:
        return None
    return next(each for each in ("/var/lib", "/opt") if not os.stat(each).st_mode & 0o022)


class Machine:
    """The document's files in a folder of their own, with everything that they
    name, and the servers that run on them."""

    def __init__(self, front_ends_of_root=False):
        self.front_ends_of_root = front_ends_of_root
        self.root = pathlib.Path(tempfile.mkdtemp(prefix="deploy-", dir=place()))
        self.root.chmod(0o755)
        self.processes = []
        self.listeners = {}
        self.services = {}
        self.addresses = {}
        self.files = {path: self._adapted(path, text) for path, text in documented_files().items()}
        self._make_folders()
        for path, text in self.files.items():
            target = self.at(path)
            target.parent.mkdir(parents=True, exist_ok=True)
            target.write_text(text)
            target.chmod(MODES.get(path, 0o644))
        self._install_panel()

    def at(self, path):
        """Where a path of the document is on this machine."""
        return self.root / path.lstrip("/")

    def address(self, path):
        """Host and port of the server with this configuration."""
        return self.addresses[path]

    def part(self, heading):
        """What the document puts in place of running the program directly."""
        found = re.search(rf"^```{heading}\n(.*?)^```$", TEXT, PART)
        return self._moved(found.group(1))

    def stop(self):
        for process in reversed(self.processes):
            end_session(process)
        for listener in self.listeners.values():
            listener.close()
        # Those that no limit has ended, if there are any, have failed a test.
        for process in self.programs():
            with contextlib.suppress(ProcessLookupError):
                os.kill(process, signal.SIGKILL)
        wait_for(lambda: not self.programs())
        shutil.rmtree(self.root)

    def programs(self):
        """The processes of requests: front ends, launchers and probes."""
        mine = os.fsencode(self.at("/var/spool/panel"))
        found = []
        for process in pathlib.Path("/proc").glob("[0-9]*"):
            with contextlib.suppress(OSError):
                if b"PANEL_SPOOL=" + mine in (process / "environ").read_bytes().split(b"\0"):
                    found.append(int(process.name))
        return found

    def logs(self):
        paths = [*self.root.glob("*.log"), *self.root.glob("var/log/*/*")]
        return "\n".join(f"{path}: {path.read_text(errors='replace')}" for path in paths)

    def run(self, command, **options):
        name = pathlib.Path(command[0]).name
        with (self.root / f"{name}-{len(self.processes)}.log").open("ab") as output:
            process = subprocess.Popen(
                command,
                stdin=subprocess.DEVNULL,
                stdout=output,
                stderr=output,
                cwd="/",
                start_new_session=True,
                **{"env": {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin"}, **options},
            )
        self.processes.append(process)
        return process

    def end(self, process):
        end_session(process)
        self.processes.remove(process)

    def unit(self, name):
        path = "/etc/systemd/system/" + name
        drop_in = self.files.get(path + ".d/root.conf", "") if self.front_ends_of_root else ""
        return Unit(self.files[path], drop_in)

    @contextlib.contextmanager
    def edited(self, path, text, replacement):
        self.edit(path, text, replacement)
        try:
            yield
        finally:
            self.edit(path, replacement, text)

    def edit(self, path, text, replacement):
        """What an administrator does to a file of the document."""
        file = self.at(path)
        before = file.read_text()
        if before.count(text) != 1:
            raise RuntimeError(f"not once in {path}: {text}")
        file.write_text(before.replace(text, replacement))

    def activate(self, name):
        """Has a service of this name run on a socket of this name."""
        if name not in self.services:
            self.listen(name + ".socket")
            self.services[name] = self.start_service(name + ".service")

    def restart(self, name, number):
        """What systemd does when a service has ended, or is to: its socket
        stays."""
        process = self.services[name]
        if self.unit(name + ".service").get("KillMode") == "mixed":
            process.send_signal(number)
        else:
            os.killpg(process.pid, number)
        wait_for(lambda: has_ended(process))
        self.end(process)
        self.services[name] = self.start_service(name + ".service")

    def listen(self, name):
        """What systemd does for a socket unit."""
        unit = self.unit(name)
        path = unit["ListenStream"]
        pathlib.Path(path).parent.mkdir(parents=True, exist_ok=True)
        listener = socket.socket(socket.AF_UNIX)
        listener.bind(path)
        os.chmod(path, int(unit["SocketMode"], 8))
        self._give(path, unit["SocketUser"], unit["SocketGroup"])
        listener.listen(int(unit.get("Backlog") or 4096))
        self.listeners[name] = listener

    def start_service(self, name):
        """What systemd does for a service unit, as far as an ordinary process
        can: account, environment, capabilities and the socket of its name."""
        unit = self.unit(name)
        environment = dict(item.split("=", 1) for item in unit.words("Environment"))
        environment["PATH"] = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"
        listener = self.listeners.get(name.replace(".service", ".socket"))
        command = [
            *self._namespaces(unit),
            *confinement(unit),
            *shlex.split(unit["ExecStart"]),
        ]
        options = {"env": environment}
        if listener:
            options["pass_fds"] = [listener.fileno()]
            taker = ("/usr/bin/python3", "-IBc", TAKE_SOCKET, str(listener.fileno()))
            command = [*taker, *command]
        process = self.run(command, **options)
        program = shlex.split(unit["ExecStart"])[0]
        wait_for(lambda: has_ended(process) or runs(process.pid, program))
        return process

    def _namespaces(self, unit):
        """The command that runs another one with a unit's view of network and
        files."""
        if not may_have_namespaces():
            return []
        network = ["--net"] if unit.get("PrivateNetwork") == "yes" else []
        state = [f"/var/lib/{name}" for name in unit.words("StateDirectory")]
        # Homes, since the visitors' accounts are the front end's own for once.
        places = [*state, "/home", "/notes"]
        writable = [*unit.words("ReadWritePaths"), *(str(self.at(place)) for place in places)]
        return [
            *("unshare", "--mount", *network, "/bin/sh", "-c", NARROW_FILE_SYSTEM, "sh"),
            *(unit["ProtectSystem"], " ".join(writable)),
        ]

    def _moved(self, text):
        return PLACES.sub(lambda found: str(self.root) + found.group(), text)

    def _adapted(self, path, text):
        text = self._moved(text)
        if path in PORTS:
            documented, mine = PORTS[path]
            host, port = self.addresses[path] = free_address()
            if text.count(documented) != 1:
                raise RuntimeError(f"no port in {path}")
            text = text.replace(documented, mine.format(host=host, port=port))
        return text

    def _make_folders(self):
        for path in (
            "/opt/panel/bin", "/opt/panel/cgi", "/opt/panel/www", "/opt/panel/busybox/cgi-bin",
            "/etc/apache2", "/etc/nginx", "/run/apache2", "/var/log/apache2", "/var/lib/nginx",
        ):
            self.at(path).mkdir(parents=True)
        for path in (
            "/var/log/lighttpd", "/var/log/nginx", "/var/cache/lighttpd/uploads",
            "/var/lib/nginx/body",
        ):
            self.at(path).mkdir(parents=True)
            self._give(self.at(path), WEB, WEB)
        self.at("/notes").mkdir()
        self.at("/notes").chmod(0o777)
        owner = "root" if self.front_ends_of_root else WEB
        for path in ("/var/spool/panel", "/var/log/panel"):
            self.at(path).mkdir(mode=0o700, parents=True)
            self._give(self.at(path), owner, owner)
        self.at("/var/lib/panel").mkdir(mode=0o700)
        self._give(self.at("/var/lib/panel"), "panel", "panel")

    def _install_panel(self):
        libraries = self.at("/opt/panel/lib")
        libraries.mkdir()
        for library in LIBRARIES:
            shutil.copy(library, libraries)
        front = shutil.copy(os.environ["FRONT"], self.at("/opt/panel/lib/front"))
        shutil.copytree(PANEL / "www", self.at("/opt/panel/www"), dirs_exist_ok=True)
        back_end = self.at("/opt/panel/backend.py")
        slow = SLOW_BACK_END.replace("{notes}", str(self.at("/notes")))
        back_end.write_text((PANEL / "backend.py").read_text() + slow)
        self.accounts = Accounts(self.at("/home"))
        wrappers = NAMES_ONLY if IS_ROOT else NAMES_AND_IDS
        front = self.accounts.front(front, wrappers, LD_LIBRARY_PATH=libraries)
        (self.root / "probe.py").write_text(PROBE)
        program = self.at("/opt/panel/bin/panel")
        program.write_text(
            f"""#!/bin/sh
case $QUERY_STRING in
  *probe=*) exec /usr/bin/python3 -IB {self.root}/probe.py {self.at('/notes')} ;;
  *) exec {front} ;;
esac
"""
        )
        program.chmod(0o755)
        self.at("/opt/panel/busybox/cgi-bin/panel").symlink_to("../../cgi/panel")

    def make_home(self, name, uid, gid):
        home = self.at("/home") / name
        home.mkdir(mode=0o700)
        if IS_ROOT:
            os.chown(home, uid, gid)
        self.accounts.add(name, home, uid, gid)
        return home

    def add_user(self, name, password, account):
        """As the administrator of the back end does."""
        subprocess.run(
            [
                *confinement(self.unit("panel-backend.service")),
                *("/usr/bin/python3", "-B", self.at("/opt/panel/backend.py"), name, "7", account),
            ],
            input=password + "\n",
            env={"PANEL_DB": str(self.at("/var/lib/panel/panel.db"))},
            text=True,
            check=True,
        )

    def _give(self, path, user, group):
        if IS_ROOT:
            shutil.chown(path, USERS[user], GROUPS[group])


def web_ids():
    """Those of the web server's account, which unprivileged front ends have."""
    if not IS_ROOT:
        return os.getuid(), os.getgid()
    account = pwd.getpwnam(WEB)
    return account.pw_uid, account.pw_gid


# Runs a command with a socket of systemd's, which has one number for it.
TAKE_SOCKET = """
import os, sys
number, command = int(sys.argv[1]), sys.argv[2:]
os.dup2(number, 3)
os.environ.update(LISTEN_FDS="1", LISTEN_PID=str(os.getpid()))
os.execvp(command[0], command)
"""

# Allows a command these system calls only, and sockets of these families only.
FILTER = """
import ctypes, errno, os, socket, sys

ALLOW, DENY = 0x7fff0000, 0x00050000
EQUAL = 4
FAMILIES = 46

class Comparison(ctypes.Structure):
    _fields_ = [("argument", ctypes.c_uint), ("operator", ctypes.c_int),
                ("value", ctypes.c_uint64), ("unused", ctypes.c_uint64)]

families, calls, command = sys.argv[1].split(), sys.argv[2].split(), sys.argv[3:]
library = ctypes.CDLL("libseccomp.so.2")
library.seccomp_init.restype = ctypes.c_void_p
context = ctypes.c_void_p(library.seccomp_init(DENY | errno.EPERM))

def rule(action, name, *comparisons):
    number = library.seccomp_syscall_resolve_name(name.encode())
    if number >= 0:
        array = (Comparison * len(comparisons))(*comparisons)
        if library.seccomp_rule_add_array(context, action, number, len(comparisons), array):
            sys.exit("no rule for " + name)

for name in calls:
    if name != "socket":
        rule(ALLOW, name)
known = [getattr(socket, name) for name in families]
for family in range(FAMILIES):
    action = ALLOW if family in known else DENY | errno.EAFNOSUPPORT
    rule(action, "socket", Comparison(0, EQUAL, family, 0))
if library.seccomp_load(context):
    sys.exit("no filter")
os.execvp(command[0], command)
"""


@functools.cache
def system_calls(name):
    """Those of a group of systemd's, or the one of this name."""
    if not name.startswith("@"):
        return frozenset({name})
    listing = subprocess.run(
        ["systemd-analyze", "syscall-filter", name], capture_output=True, text=True, check=True
    )
    members = [line.strip() for line in listing.stdout.splitlines() if line.startswith("    ")]
    return frozenset().union(*(system_calls(item) for item in members if item[0] != "#"))


# Runs a command with a file system of its own: "strict" or "full" is said of it
# as systemd does, and what may be written to nevertheless.
NARROW_FILE_SYSTEM = """
set -e
system=$1 writable=$2
shift 2
for path in $writable; do
  mount --bind "$path" "$path"
done
case $system in
  strict) mount -o remount,bind,ro / ;;
  full)
    for path in /usr /etc; do
      mount --bind $path $path
      mount -o remount,bind,ro $path
    done
    ;;
esac
for path in /tmp /var/tmp; do
  mount -t tmpfs tmpfs $path
done
exec "$@"
"""


@functools.cache
def may_have_namespaces():
    """In some containers not even root may."""
    return IS_ROOT and not subprocess.run(["unshare", "--net", "--mount", "true"]).returncode


def confinement(unit):
    """The command that runs another one as a unit would be: as its account, with
    its capabilities, system calls and kinds of sockets. Needs root."""
    if not IS_ROOT:
        return []
    user = pwd.getpwnam(USERS[unit["User"]])
    group = grp.getgrnam(GROUPS[unit["Group"]])
    bounds = [name.removeprefix("CAP_").lower() for name in unit.words("CapabilityBoundingSet")]
    calls = frozenset().union(*map(system_calls, unit.words("SystemCallFilter")))
    return [
        *("setpriv", f"--reuid={user.pw_uid}", f"--regid={group.gr_gid}", "--clear-groups"),
        *("--no-new-privs", ",+".join(["--bounding-set=-all", *bounds])),
        *("/usr/bin/python3", "-IBc", FILTER),
        *(" ".join(unit.words("RestrictAddressFamilies")), " ".join(calls)),
    ]


class Answer:
    def __init__(self, response):
        self.status = response.status
        self.headers = response.headers
        self.body = response.read().decode()


class Site:
    """The panel behind one of the document's web servers."""

    path = "/panel"
    services = ()

    def __init__(self, machine):
        self.machine = machine
        for name in self.services:
            machine.activate(name)
        self.start(machine.at(self.configuration))
        self.host, self.port = machine.address(self.configuration)
        wait_for(self.accepts)

    def accepts(self):
        if ended := [process.args for process in self.machine.processes if has_ended(process)]:
            raise RuntimeError(f"does not start: {ended}\n{self.machine.logs()}")
        with socket.socket() as client:
            return client.connect_ex((self.host, self.port)) == 0

    def request(self, method, query, headers=(), body=None):
        connection = http.client.HTTPConnection(self.host, self.port, timeout=150)
        try:
            connection.request(method, f"{self.path}?{query}", body, dict(headers))
            return Answer(connection.getresponse())
        finally:
            connection.close()

    def get(self, query, **headers):
        return self.request("GET", query, headers)

    def begin_download(self, query):
        """A connection on which an answer has begun, with little room for it on
        this side."""
        client = socket.socket()
        client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, PIPE)
        client.settimeout(150)
        client.connect((self.host, self.port))
        client.sendall(f"GET {self.path}?{query} HTTP/1.1\r\nHost: panel\r\n\r\n".encode())
        answer = http.client.HTTPResponse(client)
        client.close()  # the answer keeps it open
        answer.begin()
        return answer

    def begin_upload(self, query, headers, sent, length):
        """A connection on which so much of the body has come."""
        client = socket.create_connection((self.host, self.port), timeout=60)
        head = f"POST {self.path}?{query} HTTP/1.1\r\nHost: panel\r\nContent-Length: {length}\r\n"
        head += "".join(f"{name}: {value}\r\n" for name, value in headers.items())
        client.sendall(head.encode() + b"\r\n" + sent)
        return client


class LighttpdSite(Site):
    configuration = "/etc/lighttpd/lighttpd.conf"

    def start(self, path):
        self.machine.run(["lighttpd", "-D", "-f", path])


class ApacheSite(Site):
    configuration = "/etc/apache2/apache2.conf"

    def start(self, path):
        self.machine.run(["apache2", "-f", path, "-D", "FOREGROUND"])


class NginxSite(Site):
    configuration = "/etc/nginx/nginx.conf"
    services = ("panel-fcgi",)

    def start(self, path):
        if not IS_ROOT:
            # Debian's folders for what this server does not do are root's.
            own = "".join(
                f"{kind}_temp_path {self.machine.at('/var/lib/nginx')}/{kind};\n"
                for kind in ("proxy", "fastcgi", "uwsgi", "scgi")
            )
            path.write_text(path.read_text().replace("http {\n", "http {\n" + own))
        self.machine.run(["nginx", "-c", path, "-g", "daemon off;"])


class BusyboxSite(Site):
    configuration = "/etc/systemd/system/panel-httpd.service"
    path = "/cgi-bin/panel"

    def start(self, path):
        self.machine.start_service(path.name)


class LighttpdWithFcgiwrap(LighttpdSite):
    services = ("panel-fcgi",)

    def start(self, path):
        text = path.read_text().replace('"mod_cgi"', '"mod_fastcgi"')
        path.write_text(text[: text.index("$HTTP[")] + self.machine.part("lighttpd with fcgiwrap"))
        super().start(path)


class OtherApacheSite(ApacheSite):
    """One for which the document has another last part."""

    def start(self, path):
        lines = path.read_text().splitlines(True)
        text = "".join(line for line in lines if not any(each in line for each in self.replaced))
        path.write_text(text[: text.index("ScriptAlias")] + self.machine.part(self.part))
        super().start(path)


class ApacheWithFcgiwrap(OtherApacheSite):
    services = ("panel-fcgi",)
    replaced = ("mod_cgi",)
    part = "apache with fcgiwrap"


class ApacheWithThreads(OtherApacheSite):
    replaced = ("mod_cgi", "mpm_prefork")
    part = "apache with threads"


class StreamingLighttpdSite(LighttpdSite):
    """Passes a body on while it comes."""

    def start(self, path):
        self.machine.edit(
            self.configuration, "server.stream-request-body = 0", "server.stream-request-body = 1"
        )
        super().start(path)


class StreamingNginxSite(NginxSite):
    def start(self, path):
        self.machine.edit(
            self.configuration,
            "fastcgi_read_timeout 70s;\n",
            "fastcgi_read_timeout 70s;\nfastcgi_request_buffering off;\n",
        )
        super().start(path)


SITES = (LighttpdSite, ApacheSite, NginxSite, BusyboxSite)
# Of these the front ends are started by root, if root runs the tests.
PRIVILEGED_SITES = (NginxSite, LighttpdWithFcgiwrap, ApacheWithFcgiwrap)


# What the document says of them in passing: not all of the panel is tried.
OTHER_SITES = (StreamingLighttpdSite, ApacheWithThreads, StreamingNginxSite)


def new_machine(front_ends_of_root=False):
    the_machine = Machine(front_ends_of_root)
    unittest.addModuleCleanup(the_machine.stop)
    return the_machine


@functools.cache
def machine(front_ends_of_root=False):
    the_machine = new_machine(front_ends_of_root)
    the_machine.activate("panel-backend")
    return the_machine


@functools.cache
def machine_of_other_sites():
    return new_machine()


@functools.cache
def site(kind):
    return kind(machine())


@functools.cache
def privileged_site(kind):
    return kind(machine(front_ends_of_root=True))


@functools.cache
def other_site(kind):
    return kind(machine_of_other_sites())


class Visitor:
    """Somebody with a user of the panel's, and with an account of the machine's
    that is the one given."""

    def __init__(self, the_site, uid, gid):
        self.site = the_site
        self.name = "user-" + secrets.token_hex(4)
        self.account = "account-" + secrets.token_hex(4)
        self.home = the_site.machine.make_home(self.account, uid, gid)
        the_site.machine.add_user(self.name, "password", self.account)
        form_type = {"Content-Type": "application/x-www-form-urlencoded"}
        items = urllib.parse.urlencode({"user": self.name, "password": "password"})
        answer = the_site.request("POST", "page=signin", form_type, items)
        if answer.status != 303:
            raise RuntimeError(f"{answer.status}: {answer.body}\n{the_site.machine.logs()}")
        self.cookie = answer.headers["Set-Cookie"].split(";")[0]
        self.token = self.page("whoami").body.split('name="token" value="')[1].split('"')[0]

    def page(self, name, **headers):
        return self.site.get("page=" + name, Cookie=self.cookie, **headers)

    def form(self, content):
        return form(field("token", self.token), file("kept", content))

    def upload(self, content):
        headers = {**FORM, "Cookie": self.cookie}
        return self.site.request("POST", "page=upload", headers, self.form(content))


def open_files(folder):
    """What processes have open below a folder, even if it has no name there any
    more."""
    found = []
    for descriptors in map(pathlib.Path, glob.iglob("/proc/[0-9]*/fd")):
        with contextlib.suppress(OSError):  # gone, or another user's
            files = [os.readlink(link) for link in descriptors.iterdir()]
            found += [file for file in files if file.startswith(f"{folder}/")]
    return found


class RefusalTest:
    def test_a_refusal_arrives_though_the_body_is_not_read(self):
        for size in (1000, 1 << 20, 20 << 20):
            answer = self.site.request("POST", "probe=refuse", {}, b"\0" * size)
            self.assertEqual((answer.status, answer.body), (413, "Too much."), self.machine.logs())
        self.assert_nothing_left()

    def assert_nothing_left(self):
        folders = [self.machine.at(folder) for folder in BODY_FOLDERS]
        wait_for(lambda: not any(os.listdir(folder) for folder in folders))


class AnswerTest(RefusalTest):
    """What becomes of an answer that comes early, or not whole."""

    status_of_a_body_unread = 413
    # Whether the front end gets rid of an answer at the client's pace only, and
    # is ended with it by the launcher's limit for a page.
    ends_slow_downloads = False

    def test_a_refusal_without_a_launcher_that_reads_the_body(self):
        with self.machine.edited(LAUNCHER, "GET:0 | HEAD:0)", "GET:0 | HEAD:0 | *)"):
            answer = self.site.request("POST", "probe=refuse", {}, bytes(1 << 20))
        self.assertEqual(answer.status, self.status_of_a_body_unread)

    def test_a_download_that_is_cut_off_shows_only_if_its_length_was_sent(self):
        for promised, expected in (("", None), (2 << 20, 1 << 20)):
            query = f"probe=send_part&{type(self).__name__}&{1 << 20}&{promised}"
            with self.site.begin_download(query) as answer:
                self.assertEqual(answer.status, 200)
                try:
                    content, missing = answer.read(), None
                except http.client.IncompleteRead as error:
                    content, missing = error.partial, error.expected
            self.assertEqual((len(content), missing), (1 << 20, expected))

    def test_a_slow_client_gets_a_download_whole(self):
        run = slow_runs()[self.kind, "download"].result()
        self.assertEqual((run.announced, run.received), (DOWNLOAD, DOWNLOAD))
        self.assertGreater(run.seconds, TIME_LIMIT)

    def test_a_slow_client_gets_a_page_as_far_as_the_time_goes(self):
        run = slow_runs()[self.kind, "page"].result()
        self.assertEqual(run.announced, DOWNLOAD)
        self.assertEqual(run.received < DOWNLOAD, self.ends_slow_downloads)

    def test_a_client_that_takes_nothing_keeps_no_front_end(self):
        run = slow_runs()[self.kind, "stall"].result()
        self.assertTrue(run.has_ended)


class SiteTest(AnswerTest):
    """What every configuration has to give."""

    room_for_cookies = 30_000

    @classmethod
    def setUpClass(cls):
        cls.site = site(cls.kind)
        cls.machine = cls.site.machine
        cls.visitor = Visitor(cls.site, *web_ids())

    def test_a_user_with_large_cookies_is_known(self):
        cookies = "other=" + "y" * self.room_for_cookies + "; " + self.visitor.cookie
        answer = self.site.get("page=whoami", Cookie=cookies)
        self.assertEqual(answer.status, 200, answer.body)
        self.assertIn(f'<b id="name">{self.visitor.name}</b>', answer.body)

    def test_an_upload_arrives(self):
        content = secrets.token_bytes(2 << 20).replace(b"\r", b"\n")
        answer = self.visitor.upload(content)
        self.assertEqual(answer.status, 200, answer.body + self.machine.logs())
        self.assertEqual((self.visitor.home / "kept").read_bytes(), content)
        self.assert_nothing_left()

    def test_a_body_arrives_as_it_was_sent(self):
        body = secrets.token_bytes(300_000)
        answer = self.site.request("POST", "probe=body", {}, body)
        self.assertEqual(answer.body, hashlib.sha256(body).hexdigest())

    def test_a_body_beyond_the_limit_is_refused(self):
        client = self.site.begin_upload("probe=body", {}, b"x", BODY_LIMIT + 1)
        with client, client.makefile("rb") as answer:
            self.assertIn(b" 413 ", answer.readline())

    def test_a_refusal_arrives_whatever_has_been_sent(self):
        for size in (1000, 300_000, 3_000_000):
            body = form(file("kept", b"x" * size))
            answer = self.site.request("POST", "page=upload", FORM, body)
            self.assertEqual(answer.status, 403, answer.body)
        self.assert_nothing_left()

    def test_a_form_of_another_site_is_refused(self):
        for header in ({"Origin": "http://elsewhere.test"}, {"Sec-Fetch-Site": "cross-site"}):
            headers = {"Content-Type": "application/x-www-form-urlencoded", **header}
            answer = self.site.request("POST", "page=signin", headers, "user=x&password=y")
            self.assertEqual(answer.status, 403, answer.body)
            self.assertIn("Another site has sent this request.", answer.body)

    def test_headers_that_pass_for_variables_do_not_arrive(self):
        headers = {
            "Proxy": "http://evil.example/",
            "X-Forwarded-For": "192.0.2.1",
            "X_Forwarded_For": "192.0.2.2",
            "X.Forwarded.For": "192.0.2.3",
        }
        variables = json.loads(self.site.get("probe=env", **headers).body)
        self.assertEqual(variables.get("HTTP_PROXY"), None)
        self.assertEqual(variables.get("HTTP_X_FORWARDED_FOR"), None)
        self.assertEqual(variables["TOV_RUN_DIR"], str(self.machine.at("/run/tov")))

    def test_memory_is_bounded(self):
        self.assertEqual(self.site.get("probe=memory").body, "refused")

    def test_a_visitor_who_leaves_in_an_upload_leaves_nothing_behind(self):
        body = self.visitor.form(b"x" * (4 << 20))
        headers = {**FORM, "Cookie": self.visitor.cookie}
        client = self.site.begin_upload("page=upload", headers, body[: 2 << 20], len(body))
        with client:
            wait_for(self.bodies)
        wait_for(lambda: not self.bodies())
        self.assert_nothing_left()

    def bodies(self):
        """Where a body is being written to: by the front end or the server."""
        return [found for folder in BODY_FOLDERS for found in open_files(self.machine.at(folder))]

    def test_a_program_that_never_ends_is_ended(self):
        for action in ("wait", "wait_stubbornly"):
            with self.subTest(action):
                run = slow_runs()[self.kind, action].result()
                self.assertGreater(run.seconds, TIME_LIMIT - 1)
                self.assertLess(run.seconds, TIME_LIMIT + 20)
                self.assertIn(run.status, self.statuses_at_the_end)
                self.assertTrue(run.has_ended)

    def test_a_program_that_spins_is_ended_by_its_processor_time(self):
        run = slow_runs()[self.kind, "spin"].result()
        # The kernel counts in ticks, and less exactly than the program.
        self.assertGreater(float(run.note), PROCESSOR_LIMIT * 0.5)
        self.assertLess(run.seconds, TIME_LIMIT - 1)
        self.assertIn(run.status, self.statuses_at_the_end)
        self.assertTrue(run.has_ended)


class Run:
    """A request that takes its time, and what becomes of the probe."""

    def __init__(self, the_site, action, *arguments):
        name = f"{type(the_site).__name__}-{type(self).__name__}-{action}"
        machine = the_site.machine
        started = time.monotonic()
        self.make(the_site, name, action, *arguments)
        self.seconds = time.monotonic() - started
        process, self.note = (machine.at("/notes") / name).read_text().split()
        with contextlib.suppress(TimeoutError):
            wait_for(lambda: int(process) not in machine.programs(), 20)
        self.has_ended = int(process) not in machine.programs()


class SlowRun(Run):
    """A request that the probe would never answer."""

    method = "GET"

    def make(self, the_site, name, action, value=""):
        try:
            query = f"probe={action}&{name}&{value}"
            self.status = the_site.request(self.method, query).status
        except (http.client.HTTPException, OSError):
            self.status = None


class SlowPost(SlowRun):
    """The launcher gives it an hour."""

    method = "POST"


class SlowDownload(Run):
    """One that takes the client longer than a page may take."""

    def make(self, the_site, name, action):
        query = f"probe=send_all&{name}&{DOWNLOAD}&{DOWNLOAD}"
        with the_site.begin_download(f"page={action}&{query}") as answer:
            self.announced = answer.length
            self.received = sum(map(len, self.pieces(answer)))

    def pieces(self, answer):
        until = time.monotonic() + TIME_LIMIT + 5
        with contextlib.suppress(http.client.IncompleteRead, ConnectionError):
            while piece := answer.read(PIPE):
                yield piece
                if time.monotonic() < until:
                    time.sleep(1)


class StalledDownload(SlowDownload):
    """One of which the client takes the beginning only, and stays."""

    def pieces(self, answer):
        yield answer.read(PIPE)
        time.sleep(TIME_LIMIT + 10)


@functools.cache
def slow_runs():
    """All of them side by side: each takes as long as the limits are."""
    sites = {kind: site(kind) for kind in SITES}
    all_sites = sites | {kind: other_site(kind) for kind in OTHER_SITES}
    workers = concurrent.futures.ThreadPoolExecutor(len(sites) * 2 + len(all_sites) * 3 + 3)
    runs = {
        (kind, action): workers.submit(SlowRun, the_site, action)
        for kind, the_site in sites.items()
        for action in ("wait", "wait_stubbornly")
    }
    runs |= {
        (kind, action): workers.submit(run, the_site, action)
        for kind, the_site in all_sites.items()
        for run, action in (
            (SlowDownload, "download"), (SlowDownload, "page"), (StalledDownload, "stall"),
        )
    }  # fmt: skip
    runs |= {
        (kind, "post"): workers.submit(SlowPost, sites[kind], "wait_stubbornly")
        for kind in (ApacheSite, NginxSite)
    }
    if IS_ROOT:
        ids = f"{UID}&{GID}"
        runs["become"] = workers.submit(SlowRun, privileged_site(NginxSite), "become", ids)
    # One after the other: it takes them longer side by side.
    spinner = concurrent.futures.ThreadPoolExecutor(1)
    runs |= {
        (kind, "spin"): spinner.submit(SlowRun, the_site, "spin")
        for kind, the_site in sites.items()
    }
    for pool in (workers, spinner):
        pool.shutdown(wait=False)
    return runs


class PostTest(unittest.TestCase):
    """One that never ends: the launcher gives it an hour, and the server less."""

    def test_is_ended_by_apache_s_limit(self):
        self.assert_ended(ApacheSite, (500, 504), True)

    def test_is_given_up_by_nginx_and_goes_on(self):
        self.assert_ended(NginxSite, (504,), False)

    def assert_ended(self, kind, statuses, expected):
        run = slow_runs()[kind, "post"].result()
        self.assertIn(run.status, statuses)
        self.assertLess(run.seconds, TIME_LIMIT + 40)
        self.assertEqual(run.has_ended, expected)


class LighttpdTest(SiteTest, unittest.TestCase):
    kind = LighttpdSite
    statuses_at_the_end = (500,)


class ApacheTest(SiteTest, unittest.TestCase):
    kind = ApacheSite
    statuses_at_the_end = (500, 504)


class NginxTest(SiteTest, unittest.TestCase):
    kind = NginxSite
    status_of_a_body_unread = 502
    statuses_at_the_end = (502,)

    def test_an_early_answer_that_a_pipe_cannot_hold_waits_for_the_time_limit(self):
        with self.machine.edited(LAUNCHER, "seconds=3600 ", "seconds=3 "):
            query = f"probe=refuse&long&{2 * PIPE}"
            answer = self.site.request("POST", query, {}, bytes(1 << 20))
        self.assertEqual(answer.status, 502)


class BusyboxTest(SiteTest, unittest.TestCase):
    kind = BusyboxSite
    # A longer line is cut.
    room_for_cookies = 8000
    # By chance: whoever goes on sending sees the connection closed.
    test_a_refusal_without_a_launcher_that_reads_the_body = None
    statuses_at_the_end = (None,)
    ends_slow_downloads = True


class OtherSiteTest(AnswerTest):
    @classmethod
    def setUpClass(cls):
        cls.site = other_site(cls.kind)
        cls.machine = cls.site.machine


class StreamingLighttpdTest(OtherSiteTest, unittest.TestCase):
    kind = StreamingLighttpdSite


class ApacheWithThreadsTest(OtherSiteTest, unittest.TestCase):
    kind = ApacheWithThreads
    # By chance: the answer is often lost.
    test_a_refusal_without_a_launcher_that_reads_the_body = None
    ends_slow_downloads = True


class StreamingNginxTest(OtherSiteTest, unittest.TestCase):
    kind = StreamingNginxSite
    status_of_a_body_unread = 502


class PrivilegedSiteTest(RefusalTest):
    """Front ends that become the visitor's account."""

    @classmethod
    def setUpClass(cls):
        cls.site = privileged_site(cls.kind)
        cls.machine = cls.site.machine

    def setUp(self):
        self.visitor = Visitor(self.site, UID, GID)

    def test_the_front_end_becomes_the_account(self):
        answer = self.visitor.page("home")
        self.assertEqual(answer.status, 200, answer.body + self.machine.logs())
        self.assertIn(f'{self.visitor.account}</b>, user {UID}.', answer.body)

    def test_an_upload_is_handed_over(self):
        answer = self.visitor.upload(b"content")
        self.assertEqual(answer.status, 200, answer.body + self.machine.logs())
        kept = self.visitor.home / "kept"
        self.assertEqual(kept.read_bytes(), b"content")
        self.assertEqual((kept.stat().st_uid, kept.stat().st_gid), (UID, GID))

    def test_headers_that_pass_for_variables_do_not_arrive(self):
        headers = {"Proxy": "http://evil.example/", "X-Forwarded-For": "192.0.2.1"}
        variables = json.loads(self.site.get("probe=env", **headers).body)
        self.assertNotIn("HTTP_PROXY", variables)
        self.assertNotIn("HTTP_X_FORWARDED_FOR", variables)


class PrivilegedLighttpdTest(PrivilegedSiteTest, unittest.TestCase):
    kind = LighttpdWithFcgiwrap


class PrivilegedApacheTest(PrivilegedSiteTest, unittest.TestCase):
    kind = ApacheWithFcgiwrap


class PrivilegedNginxTest(PrivilegedSiteTest, unittest.TestCase):
    kind = NginxSite

    def set_up_panel(self, variables):
        documented = "PANEL_CONFINE='' PANEL_PAM='' "
        self.enterContext(self.machine.edited(LAUNCHER, documented, variables))

    @needs_root
    def test_the_account_can_be_confined_and_have_a_session(self):
        self.set_up_panel("PANEL_CONFINE=/files PANEL_PAM=1 ")
        home = self.visitor.home
        os.chown(home, 0, 0)
        home.chmod(0o755)
        (home / "files").mkdir()
        os.chown(home / "files", UID, GID)
        answer = self.visitor.upload(b"content")
        self.assertEqual(answer.status, 200, answer.body + self.machine.logs())
        self.assertEqual((home / "files" / "kept").read_bytes(), b"content")

    @needs_root
    def test_a_session_is_opened(self):
        self.set_up_panel("PANEL_CONFINE= PANEL_PAM=1 ")
        log = self.machine.at("/var/log/panel/front.log")
        before = log.read_text()
        self.assertEqual(self.visitor.page("home").status, 200)
        self.assertEqual(log.read_text().removeprefix(before), "")

    @needs_root
    def test_one_that_has_become_an_account_and_never_ends_is_ended(self):
        run = slow_runs()["become"].result()
        self.assertGreater(run.seconds, TIME_LIMIT - 1)
        self.assertLess(run.seconds, TIME_LIMIT + 20)
        self.assertTrue(run.has_ended)

    @needs_root
    def test_only_the_web_server_may_connect(self):
        path = self.machine.at("/run/panel-fcgi.sock")
        connect = "import socket, sys; socket.socket(socket.AF_UNIX).connect(sys.argv[1])"
        for user, may in (("nobody", False), (WEB, True)):
            command = ["setpriv", f"--reuid={user}", "--clear-groups"]
            done = subprocess.run(
                [*command, "/usr/bin/python3", "-c", connect, path], capture_output=True, text=True
            )
            self.assertEqual(done.returncode == 0, may, done.stderr)

    def test_who_may_connect_chooses_neither_program_nor_loader(self):
        launcher = str(self.machine.at(LAUNCHER))
        request = {"REQUEST_METHOD": "GET", "QUERY_STRING": "probe=env"}
        evil = {"LD_PRELOAD": "/evil.so", "TOV_RUN_DIR": "/evil", "ENV": "/evil", "PATH": "/evil"}
        answer = self.ask({"SCRIPT_FILENAME": launcher, **request, **evil})
        self.assertIn("TOV_RUN_DIR", answer)
        self.assertNotIn("evil", answer)
        program = str(self.machine.at("/opt/panel/bin/panel"))
        answer = self.ask({"SCRIPT_FILENAME": program, **request})
        self.assertIn("403", answer)
        self.assertNotIn("TOV_RUN_DIR", answer)

    def ask(self, variables):
        """One request in FastCGI; everything that comes back."""
        content = b"".join(
            struct.pack(">II", len(name) | 1 << 31, len(value) | 1 << 31) + (name + value).encode()
            for name, value in variables.items()
        )
        records = ((1, b"\0\1" + bytes(6)), (4, content), (4, b""), (5, b""))
        with socket.socket(socket.AF_UNIX) as client:
            client.connect(str(self.machine.at("/run/panel-fcgi.sock")))
            for kind, data in records:
                client.sendall(struct.pack(">BBHHBx", 1, kind, 1, len(data), 0) + data)
            with client.makefile("rb") as answer:
                return answer.read().decode(errors="replace")


class LauncherTest(unittest.TestCase):
    def start(self, *command, query="probe=env", **variables):
        environment = {"REQUEST_METHOD": "GET", "QUERY_STRING": query, **variables}
        process = subprocess.Popen(
            [*command, "/bin/busybox", "sh", machine().at(LAUNCHER)],
            env=environment, stdin=self.standard_input, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, text=True,
        )  # fmt: skip
        self.addCleanup(self.give_up, process)
        return process

    def give_up(self, process):
        """Though what it has started may hold its output open."""
        process.kill()
        process.stdout.close()
        process.stderr.close()
        process.wait(60)

    def run_with(self, *command, **variables):
        process = self.start(*command, **variables)
        output, self.errors = process.communicate(timeout=60)
        self.returned = process.returncode
        return output

    def post(self, query, **variables):
        return self.run_with(query=query, REQUEST_METHOD="POST", **variables)

    def setUp(self):
        self.standard_input = subprocess.DEVNULL

    def change(self, text, replacement):
        self.enterContext(machine().edited(LAUNCHER, text, replacement))

    def open_pipe(self):
        """Has standard input be a pipe that does not end. Returns its other end."""
        self.standard_input, other_end = os.pipe()
        self.addCleanup(self.close_standard_input)
        self.addCleanup(os.close, other_end)
        return other_end

    def feed(self, size):
        """Has standard input be a pipe with so much to read. The result is how
        much of it was taken."""
        sent = concurrent.futures.Future()

        def write(end):
            count = 0
            try:
                with contextlib.suppress(OSError), open(end, "wb", 0) as pipe:
                    while count < size:
                        count += pipe.write(bytes(PIPE))
            finally:
                sent.set_result(count)

        self.standard_input, end = os.pipe()
        threading.Thread(target=write, args=[end]).start()
        self.addCleanup(sent.result)
        self.addCleanup(self.close_standard_input)
        return sent

    def close_standard_input(self):
        """Here: what has been started may have it open."""
        if self.standard_input is not None:
            os.close(self.standard_input)
        self.standard_input = None

    def test_what_only_the_visitor_knows_is_no_argument_of_a_command(self):
        steps = ["set startup-with-shell off", "catch exec", "run"]
        steps += ["info proc cmdline", "continue"] * 4
        debugger = ["gdb", "-nx", "-batch", *(f"--eval-command={step}" for step in steps), "--args"]
        for method in ("GET", "POST"):
            told = self.run_with(*debugger, REQUEST_METHOD=method, HTTP_COOKIE="panelses5=secret")
            commands = re.findall("^cmdline = '(.*)'$", told, re.MULTILINE | re.DOTALL)
            self.assertTrue([each for each in commands if "timeout" in each], told)
            self.assertEqual([each for each in commands if "secret" in each], [])

    def test_variables_pass_by_their_names_whatever_their_values_are(self):
        names = {}
        agent = "it's *\nexport HTTP_COOKIE='x'\nHTTP_HOST\n1\nIFS\nname\n$(exit 3)"
        for method in ("GET", "POST"):
            answer = self.run_with(
                REQUEST_METHOD=method,
                HTTP_USER_AGENT=agent, HTTP_COOKIE="a=b", HTTP_HOST="panel.example",
                body_limit="x", IFS="x", SHLVL="3", HTTP_PROXY="x", LD_PRELOAD="/x",
                stopped="x", status="x", **{"HTTP_X.FORWARDED.FOR": "x"},
            )  # fmt: skip
            variables = json.loads(answer.partition("\n\n")[2])
            for name, value in (
                ("HTTP_USER_AGENT", agent), ("HTTP_COOKIE", "a=b"), ("HTTP_HOST", "panel.example"),
            ):  # fmt: skip
                self.assertEqual(variables.pop(name), value)
            self.assertEqual(variables.pop("QUERY_STRING"), "probe=env")
            given = {"HTTP_PROXY", "HTTP_X.FORWARDED.FOR", "IFS", "LD_PRELOAD", "SHLVL"}
            given |= {"body_limit", "status", "stopped"}
            self.assertEqual(given & set(variables), set())
            names[method] = set(variables)
        self.assertEqual(names["GET"], names["POST"])

    def test_a_page_costs_no_process_but_the_time_limit_s(self):
        for method, length, parent in (
            ("GET", "", "timeout"), ("HEAD", "0", "timeout"), ("GET", "1", "busybox"),
            ("POST", "", "busybox"),
        ):  # fmt: skip
            answer = self.run_with(
                query="probe=parent", REQUEST_METHOD=method, CONTENT_LENGTH=length
            )
            self.assertEqual(answer.partition("\n\n")[2], parent)

    def test_the_end_is_that_of_the_front_end(self):
        for query, returned in (
            ("status&0", 0), ("status&7", 7), ("status&255", 255),
            *((f"signal&{number}", -number) for number in (
                signal.SIGTERM, signal.SIGKILL, signal.SIGXCPU, signal.SIGSEGV)),
        ):  # fmt: skip
            for method in ("GET", "POST"):
                with self.subTest(query, method=method):
                    self.run_with(query="probe=end&" + query, REQUEST_METHOD=method)
                    self.assertEqual(self.returned, returned, self.errors)

    def test_what_a_front_end_has_not_read_is_read(self):
        sent = self.feed(1 << 20)
        self.assertIn("Too much.", self.post("probe=refuse", CONTENT_LENGTH=str(1 << 20)))
        self.close_standard_input()
        self.assertEqual((sent.result(), self.returned), (1 << 20, 0))

    def test_what_a_front_end_has_not_read_of_a_file_is_read(self):
        with tempfile.TemporaryFile() as body:
            body.write(bytes(1 << 20))
            body.seek(0)
            self.standard_input = body.fileno()
            self.assertIn("Too much.", self.post("probe=refuse", CONTENT_LENGTH=str(1 << 20)))
            self.assertEqual(os.lseek(body.fileno(), 0, os.SEEK_CUR), 1 << 20)

    def test_a_body_beyond_the_limit_is_read_before_its_refusal_ends(self):
        self.change(f"body_limit={BODY_LIMIT}\n", f"body_limit={1 << 20}\n")
        sent = self.feed(1 << 20)
        answer = self.post("probe=env", CONTENT_LENGTH=str((1 << 20) + 1))
        self.assertEqual(
            answer,
            "Status: 413 Content Too Large\n"
            "Content-Type: text/plain\n\n"
            "That is more than this server takes.\n",
        )
        self.close_standard_input()
        self.assertEqual((sent.result(), self.returned), (1 << 20, 0))

    def test_no_more_than_the_limit_is_read_for_a_refusal(self):
        self.change(f"body_limit={BODY_LIMIT}\n", f"body_limit={1 << 20}\n")
        sent = self.feed(16 << 20)
        self.post("probe=refuse")
        self.close_standard_input()
        self.assertLess(sent.result(), 2 << 20)

    def test_a_body_that_does_not_come_is_not_waited_for(self):
        self.change("--foreground 30 ", "--foreground 1 ")
        self.open_pipe()
        started = time.monotonic()
        self.assertIn("Too much.", self.post("probe=refuse", CONTENT_LENGTH="1"))
        self.assertGreater(time.monotonic() - started, 0.9)
        self.assertEqual(self.returned, 0)

    def test_the_time_limit_ends_the_wait_for_a_body_too(self):
        self.change("seconds=3600 ", "seconds=3 ")
        body = select.poll()
        body.register(self.open_pipe(), 0)
        self.post("probe=refuse", CONTENT_LENGTH="1")
        self.assertEqual(self.returned, 124)
        self.assertEqual(body.poll(0), [])
        self.close_standard_input()
        self.assertEqual([event for _, event in body.poll(10_000)], [select.POLLERR])

    def test_one_that_ignores_the_time_limit_s_signal_is_ended(self):
        self.change("seconds=3600 ", "seconds=3 ")
        self.post("probe=wait_stubbornly&stubborn")
        process, _ = (machine().at("/notes") / "stubborn").read_text().split()
        wait_for(lambda: int(process) not in machine().programs())

    def test_a_front_end_that_a_signal_ends_has_nothing_read_for_it(self):
        os.write(self.open_pipe(), b"body")
        process = self.start(query="probe=wait&launcher", REQUEST_METHOD="POST")
        wait_for((machine().at("/notes") / "launcher").exists)
        process.terminate()
        self.assertEqual(process.wait(60), -signal.SIGTERM)
        self.assertEqual(os.read(self.standard_input, 10), b"body")

    def test_one_that_sleeps_over_its_body_for_ever_is_ended(self):
        """Standard input is at its end before the first read."""
        self.change("seconds=3600 ", "seconds=3 ")
        form_type = "application/x-www-form-urlencoded"
        # The log is this account's.
        as_web = ["setpriv", f"--reuid={WEB}", f"--regid={WEB}", "--clear-groups"]
        self.run_with(
            *(as_web if IS_ROOT else ()), query="page=signin", REQUEST_METHOD="POST",
            CONTENT_TYPE=form_type, CONTENT_LENGTH="10",
        )  # fmt: skip
        self.assertEqual(self.returned, 124, self.errors)

    def test_is_sound(self):
        if not shutil.which("shellcheck"):
            self.skipTest("not installed: shellcheck")
        text = machine().files[LAUNCHER]
        inner = text.partition("/bin/busybox sh -c '")[2].partition("\n' launcher")[0]
        self.assertIn("exit", inner)
        for script in (text, inner):
            # busybox's shell has "read -t", others like it do not.
            done = subprocess.run(
                ["shellcheck", "--shell=dash", "--severity=warning", "--exclude=SC3045", "-"],
                input=script, text=True, capture_output=True,
            )  # fmt: skip
            self.assertEqual(done.stdout, "")


class BackEndTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.visitor = Visitor(site(LighttpdSite), *web_ids())

    def visit(self, manner):
        return self.visitor.page("whoami", **{"User-Agent": manner})

    def executions(self, manner):
        notes = machine().at("/notes") / manner
        return len(notes.read_text()) if notes.exists() else 0

    def test_one_that_never_answers_is_given_up_in_time(self):
        started = time.monotonic()
        answer = self.visit("never")
        seconds = time.monotonic() - started
        self.assertEqual(answer.status, 502)
        self.assertIn("The service behind this panel does not answer.", answer.body)
        self.assertEqual(self.executions("never"), ATTEMPTS)
        self.assertGreater(seconds, ATTEMPTS * HARAKIRI - 4)
        self.assertLess(seconds, TIME_LIMIT - 5)
        print(f"{seconds:.1f} s for {ATTEMPTS} attempts", end=" ", flush=True)

    def test_a_restart_finishes_what_is_under_way(self):
        with concurrent.futures.ThreadPoolExecutor() as workers:
            visit = workers.submit(self.visit, "slowly")
            wait_for(lambda: self.executions("slowly") == 1)
            machine().restart("panel-backend", signal.SIGTERM)
            self.assertEqual(visit.result().status, 200)
        # The page asks twice: who it is, and for the session's data.
        self.assertEqual(self.executions("slowly"), 2)

    def test_restarts_and_crashes_lose_no_request(self):
        for number in (signal.SIGTERM, signal.SIGKILL):
            with self.subTest(number):
                statuses, restarted = [], threading.Event()

                def visit_on():
                    while not restarted.is_set():
                        statuses.append(self.visit("").status)

                with concurrent.futures.ThreadPoolExecutor() as workers:
                    visits = [workers.submit(visit_on) for _ in range(4)]
                    try:
                        for _ in range(3):
                            time.sleep(1)
                            machine().restart("panel-backend", number)
                    finally:
                        # Else the visitors would go on for ever.
                        restarted.set()
                for visit in visits:
                    visit.result()
                self.assertGreater(len(statuses), 20)
                self.assertEqual(set(statuses), {200})


class SystemdTest(unittest.TestCase):
    def units(self):
        folder = tempfile.TemporaryDirectory(prefix="units-")
        self.addCleanup(folder.cleanup)
        for path, text in documented_files().items():
            if path.startswith("/etc/systemd/system/"):
                unit = pathlib.Path(folder.name) / path.removeprefix("/etc/systemd/system/")
                unit.parent.mkdir(exist_ok=True)
                unit.write_text(text)
        return pathlib.Path(folder.name)

    def analyze(self, folder, *arguments):
        return subprocess.run(
            ["systemd-analyze", *arguments],
            env={"PATH": os.environ["PATH"], "SYSTEMD_UNIT_PATH": f"{folder}:"},
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
        )

    def test_the_units_are_sound(self):
        folder = self.units()
        units = [*folder.glob("*.service"), *folder.glob("*.socket")]
        self.assertEqual(len(units), 5)
        done = self.analyze(folder, "verify", *units)
        self.assertEqual((done.returncode, done.stdout), (0, ""))

    def test_the_services_are_confined(self):
        folder = self.units()
        for unit in folder.glob("*.service"):
            with self.subTest(unit.name):
                done = self.analyze(folder, "security", "--offline=yes", "--threshold=35", unit)
                self.assertEqual(done.returncode, 0, done.stdout)



class ConfinementTest(unittest.TestCase):
    """That the services above have run as their units say."""

    def status(self, process):
        text = pathlib.Path(f"/proc/{process.pid}/status").read_text()
        return dict(line.split(":\t", 1) for line in text.splitlines())

    @needs_root
    def test_takes_rights_away(self):
        site(NginxSite)
        status = self.status(machine().services["panel-fcgi"])
        self.assertEqual((status["NoNewPrivs"], status["Seccomp"]), ("1", "2"))
        self.assertEqual(int(status["CapBnd"], 16), 0)
        self.assertNotIn("0", status["Uid"].split())

    @needs_root
    def test_leaves_root_what_the_switch_takes(self):
        privileged_site(NginxSite)
        status = self.status(machine(front_ends_of_root=True).services["panel-fcgi"])
        self.assertEqual((status["NoNewPrivs"], status["Seccomp"]), ("1", "2"))
        self.assertEqual(int(status["CapBnd"], 16).bit_count(), 7)
        self.assertEqual(set(status["Uid"].split()), {"0"})

    @unittest.skipUnless(may_have_namespaces(), "needs root, with the right to namespaces")
    def test_takes_network_and_files_away(self):
        process = machine().services["panel-backend"]
        own, its = (os.readlink(f"/proc/{each}/ns/net") for each in ("self", process.pid))
        self.assertNotEqual(own, its)
        view = pathlib.Path(f"/proc/{process.pid}/root")
        self.assertTrue(os.statvfs(view).f_flag & os.ST_RDONLY)
        state = str(machine().at("/var/lib/panel"))
        self.assertFalse(os.statvfs(f"{view}{state}").f_flag & os.ST_RDONLY)


class FolderTest(unittest.TestCase):
    """Those of uploads and logs, as rules of the document make and keep them."""

    def setUp(self):
        self.spool = machine().at("/var/spool/panel")
        self.logs = machine().at("/var/log/panel")

    @needs_root
    def test_are_made(self):
        rules = machine().at("/etc/tmpfiles.d/panel.conf")
        subprocess.run(["systemd-tmpfiles", "--create", rules], check=True)
        for folder, mode in ((self.spool, 0o700), (self.logs, 0o750)):
            self.assertEqual(folder.stat().st_mode & 0o7777, mode)
            self.assertEqual((folder.owner(), folder.group()), (WEB, WEB))

    @needs_root
    def test_lose_what_is_old(self):
        rules = machine().root / "older-than-a-second.conf"
        text = machine().files["/etc/tmpfiles.d/panel.conf"]
        self.assertEqual(text.count(" 1d\n"), 1)
        rules.write_text(text.replace(" 1d\n", " 1s\n"))
        left = self.spool / "upload-OLDOLD"
        left.mkdir()
        (left / "zantempOLDOLD").write_text("left behind")
        time.sleep(2)
        subprocess.run(["systemd-tmpfiles", "--clean", rules], check=True)
        self.assertFalse(left.exists())

    @needs_root
    def test_have_the_log_rotated(self):
        site(BusyboxSite)
        log = self.logs / "front.log"
        self.assertEqual(self.provoke_message(), 1)
        state = machine().root / "logrotate.state"
        rules = machine().at("/etc/logrotate.d/panel")
        done = subprocess.run(
            ["logrotate", "--verbose", "--force", "--state", state, rules],
            capture_output=True,
            text=True,
            check=True,
        )
        # Root must not rename where another can put links.
        self.assertIn(f"switching euid from 0 to {pwd.getpwnam(WEB).pw_uid}", done.stderr)
        self.assertEqual((self.logs / "front.log.1").owner(), WEB)
        self.assertFalse(log.exists())
        self.assertEqual(self.provoke_message(), 1)

    def provoke_message(self):
        """Gives the number of times that it is in the log then."""
        name = secrets.token_hex(8)
        site(BusyboxSite).get("=" + name)
        return (self.logs / "front.log").read_text().count(name)


if __name__ == "__main__":
    unittest.main()
