"""The files that docs/deployment.md shows, in a folder of their own, and the real
servers that run on them."""

import contextlib
import functools
import grp
import http.client
import os
import pathlib
import pwd
import re
import secrets
import shlex
import shutil
import signal
import socket
import subprocess
import tempfile
import unittest
import urllib.parse

from accounts import IS_ROOT, Accounts
from client import begin_post, exchange
from panel_server import FORM, PANEL, URLENCODED, add_user, field, file, form
from processes import end_session, free_address, has_ended, listens, processes_with, start, wait_for
from web_servers import LIBRARIES

HERE = pathlib.Path(__file__).parent
TEXT = (pathlib.Path(os.environ["SOURCE"]) / "docs" / "deployment.md").read_text()
PART = re.MULTILINE | re.DOTALL
# What the test puts elsewhere: folders that are the panel's or a server's own,
# and the port. What Debian's packages bring stays where it is.
PLACES = re.compile(r"(?<![\w./])/(?:opt|run|var|etc/(?:panel|apache2))(?=/|\b)")
UNITS = "/etc/systemd/system/"
LIGHTTPD, APACHE = "/etc/lighttpd/lighttpd.conf", "/etc/apache2/apache2.conf"
NGINX, BUSYBOX = "/etc/nginx/nginx.conf", UNITS + "panel-httpd.service"
PORTS = {
    LIGHTTPD: ("server.port = 80\n", 'server.bind = "{host}"\nserver.port = {port}\n'),
    APACHE: ("Listen 80\n", "Listen {host}:{port}\n"),
    NGINX: ("listen 80;", "listen {host}:{port};"), BUSYBOX: (" -p 80 ", " -p {host}:{port} "),
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
# In seconds.
TIME_LIMIT, PROCESSOR_LIMIT, HARAKIRI = 60, 10, 10
# What stands for the limits of the document where nobody wants to wait for them.
SHORTER = {}
if os.environ.get("LIMITS") == "shorter":
    TIME_LIMIT, PROCESSOR_LIMIT, HARAKIRI = 12, 1, 1
    SHORTER = {
        "seconds=60\n": f"seconds={TIME_LIMIT}\n", "Timeout 60\n": f"Timeout {TIME_LIMIT}\n",
        "max-write-idle = 60\n": f"max-write-idle = {TIME_LIMIT}\n",
        "send_timeout 60s;": f"send_timeout {TIME_LIMIT}s;",
        '"read-timeout" => 70': f'"read-timeout" => {TIME_LIMIT + 10}',
        "fastcgi_read_timeout 70s;": f"fastcgi_read_timeout {TIME_LIMIT + 10}s;",
        "ulimit -t 10\n": f"ulimit -t {PROCESSOR_LIMIT}\n",
        "RLimitCPU 10\n": f"RLimitCPU {PROCESSOR_LIMIT}\n",
        "harakiri = 10\n": f"harakiri = {HARAKIRI}\n",
    }

# The panel's back end, which takes its time for some visitors.
SLOW_BACK_END = """
answers = application

def application(environ, start_response):
    manner = environ.get("HTTP_USER_AGENT")
    if manner in ("never", "slowly"):
        with open("{notes}/" + manner, "a") as executions:
            executions.write(".")
        time.sleep(1000 if manner == "never" else 1)
    return answers(environ, start_response)
"""


if missing := [limit for limit in SHORTER if limit not in TEXT]:
    raise RuntimeError(f"the document does not show {missing}")


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

    def __init__(self, purpose):
        self.front_ends_of_root = purpose == "root"
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
        return processes_with(f"TMP={self.at('/var/spool/panel')}\0")

    def logs(self):
        paths = [*self.root.glob("*.log"), *self.root.glob("var/log/*/*")]
        return "\n".join(f"{path}: {path.read_text(errors='replace')}" for path in paths)

    def run(self, command, **options):
        name = pathlib.Path(command[0]).name
        process = start(command, self.root / f"{name}-{len(self.processes)}.log", **options)
        self.processes.append(process)
        return process

    def unit(self, name):
        path = UNITS + name
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
        end_session(process)
        self.processes.remove(process)
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
        command = [*self._namespaces(unit), *confinement(unit), *shlex.split(unit["ExecStart"])]
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
        for documented, shorter in SHORTER.items():
            text = text.replace(documented, shorter)
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
        owner = "root" if self.front_ends_of_root else WEB
        for mode, account, paths in (
            (0o755, None, "/opt/panel/bin /opt/panel/cgi /opt/panel/www"),
            (0o755, None, "/opt/panel/busybox/cgi-bin"),
            (0o755, None, "/etc/apache2 /etc/nginx /run/apache2 /var/log/apache2 /var/lib/nginx"),
            (0o755, WEB, "/var/log/lighttpd /var/log/nginx"),
            (0o755, WEB, "/var/cache/lighttpd/uploads /var/lib/nginx/body"),
            (0o700, owner, "/var/spool/panel /var/log/panel"),
            (0o700, "panel", "/var/lib/panel"),
            (0o777, None, "/notes"),
        ):
            for folder in map(self.at, paths.split()):
                folder.mkdir(parents=True)
                folder.chmod(mode)
                if account:
                    self._give(folder, account, account)

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
        front = self.accounts.front(front, LD_LIBRARY_PATH=libraries)
        shutil.copy(HERE / "deployment_probe.py", self.root / "probe.py")
        program = self.at("/opt/panel/bin/panel")
        probe = f"/usr/bin/python3 -IB {self.root}/probe.py {self.at('/notes')}"
        program.write_text(
            f"#!/bin/sh\ncase $QUERY_STRING in *probe=*) exec {probe} ;; *) exec {front} ;; esac\n"
        )
        program.chmod(0o755)
        self.at("/opt/panel/busybox/cgi-bin/panel").symlink_to("../../cgi/panel")

    def add_user(self, name, password, account):
        """As the administrator of the back end does."""
        prefix = confinement(self.unit("panel-backend.service"))
        database, program = self.at("/var/lib/panel/panel.db"), self.at("/opt/panel/backend.py")
        add_user(database, name, 7, password, account, program, prefix)

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
        *("setpriv", f"--reuid={user.pw_uid}", f"--regid={group.gr_gid}", "--init-groups"),
        *("--no-new-privs", ",+".join(["--bounding-set=-all", *bounds])),
        *("/usr/bin/python3", "-IBc", FILTER),
        *(" ".join(unit.words("RestrictAddressFamilies")), " ".join(calls)),
    ]


class Site:
    """The panel behind one of the document's web servers."""

    path = "/panel"
    services = ()

    def __init__(self, machine):
        self.machine = machine
        for name in self.services:
            machine.activate(name)
        self.start(machine.at(self.configuration))
        self.address = machine.addresses[self.configuration]
        wait_for(self.accepts)

    def accepts(self):
        if ended := [process.args for process in self.machine.processes if has_ended(process)]:
            raise RuntimeError(f"does not start: {ended}\n{self.machine.logs()}")
        return listens(self.address)

    def request(self, method, query, headers=(), body=None):
        own = {"Origin": "http://{}:{}".format(*self.address)}
        path = f"{self.path}?{query}"
        return exchange(self.address, method, path, {**own, **dict(headers)}, body, timeout=150)

    def get(self, query, **headers):
        return self.request("GET", query, headers)

    def begin_download(self, query, room=None):
        """A connection on which an answer has begun, perhaps with little room for it
        on this side."""
        client = socket.socket()
        if room:
            client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, room)
        client.settimeout(150)
        client.connect(self.address)
        # Else a server that has sent too little may wait for another request.
        head = f"GET {self.path}?{query} HTTP/1.1\r\nHost: panel\r\nConnection: close\r\n\r\n"
        client.sendall(head.encode())
        answer = http.client.HTTPResponse(client)
        client.close()  # the answer keeps it open
        answer.begin()
        return answer

    def begin_upload(self, query, headers, sent, length):
        """A connection on which so much of the body has come."""
        return begin_post(self.address, f"{self.path}?{query}", headers, sent, length)


class LighttpdSite(Site):
    configuration = LIGHTTPD

    def start(self, path):
        self.machine.run(["lighttpd", "-D", "-f", path])


class ApacheSite(Site):
    configuration = APACHE

    def start(self, path):
        self.machine.run(["apache2", "-f", path, "-D", "FOREGROUND"])


class NginxSite(Site):
    configuration = NGINX
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
    configuration = BUSYBOX
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
        setting = "server.stream-request-body = "
        self.machine.edit(LIGHTTPD, setting + "0", setting + "1")
        super().start(path)


class StreamingNginxSite(NginxSite):
    def start(self, path):
        passing = "fastcgi_pass unix:"
        self.machine.edit(NGINX, passing, "fastcgi_request_buffering off; " + passing)
        super().start(path)


SITES = (LighttpdSite, ApacheSite, NginxSite, BusyboxSite)
# What the document says of them in passing: not all of the panel is tried.
OTHER_SITES = (StreamingLighttpdSite, ApacheWithThreads, StreamingNginxSite)


def machine(purpose="panel"):
    """One for the panel, one for its front ends of root ("root"), and one for other
    sites ("other"), whose files differ."""
    return started(Machine, purpose)


def site(kind, purpose="panel"):
    return started(kind, machine(purpose))


@functools.cache
def started(kind, argument):
    """One of each for all tests of a module."""
    result = kind(argument)
    if kind is Machine:
        unittest.addModuleCleanup(result.stop)
        if argument != "other":
            result.activate("panel-backend")
    return result


class Visitor:
    """Somebody with a user of the panel's, and with an account of the machine's
    that is the one given."""

    def __init__(self, the_site, uid, gid):
        self.site = the_site
        self.name = "user-" + secrets.token_hex(4)
        self.account = "account-" + secrets.token_hex(4)
        machine = the_site.machine
        self.home = machine.accounts.make_home(self.account, uid, gid)
        machine.add_user(self.name, "password", self.account)
        items = urllib.parse.urlencode({"user": self.name, "password": "password"})
        answer = the_site.request("POST", "page=signin", URLENCODED, items)
        if answer.status != 303:
            raise RuntimeError(f"{answer.status}: {answer.body}\n{machine.logs()}")
        self.cookie = answer.cookie()
        self.token = self.page("whoami").token()

    def page(self, name, **headers):
        return self.site.get("page=" + name, Cookie=self.cookie, **headers)

    def form(self, content):
        return form(field("token", self.token), file("kept", content))

    def upload(self, content):
        headers = {**FORM, "Cookie": self.cookie}
        return self.site.request("POST", "page=upload", headers, self.form(content))
