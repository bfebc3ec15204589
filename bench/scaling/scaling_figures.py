"""Measures the figures of docs/scaling.md. Those that are compared are measured
in turn, in one run.

usage: scaling_figures.py [--quick]

--quick only tests that each part works.
"""

import contextlib
import hashlib
import importlib
import os
import pathlib
import re
import secrets
import socket
import statistics
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).parents[2] / "tests" / "e2e"))

from panel_server import PANEL
from processes import wait_for
from scaling_hosts import NamespaceHost
from scaling_site import Load, Site, WebServer, back_end_command

ROUNDS, VISITS_PER_ROUND, QUERIES_PER_ROUND = 10, 400, 500
SESSIONS, PASSWORDS, CONNECTIONS, IDLE_SECONDS = 1_000_000, 20, 1_000, 20
if "--quick" in sys.argv:
    ROUNDS, VISITS_PER_ROUND, QUERIES_PER_ROUND = 2, 20, 20
    SESSIONS, PASSWORDS, CONNECTIONS, IDLE_SECONDS = 1_000, 1, 10, 1

QUERY = (
    b"CONTENT_LENGTH\0" b"0\0" b"SCGI\0" b"1\0"
    b"HTTP_COOKIE\0panelses5=visit-0\0"
    b"QUERY_STRING\0func=whoami&out=xml\0"
    b"REQUEST_METHOD\0GET\0"
)
REQUEST = b"%d:%s," % (len(QUERY), QUERY)


class LocalBackEnd:
    """uWSGI on the host of the front end, which connects to it without HAProxy."""

    def __init__(self, site):
        self.run_dir = site.make_folder("local")
        self.socket = self.run_dir / "panel.sock"
        host = site.web_hosts[0].host
        self.service = site.start_service(
            host,
            self.run_dir,
            "uwsgi",
            back_end_command(self.socket, self.run_dir),
            HOST="local",
            ASKED=str(self.run_dir / "asked"),
            SECONDS="0",
        )
        wait_for(self.socket.exists)
        self.web_server = WebServer(site, host, self.run_dir, self.run_dir)


def report(figure, value):
    print(f"{figure}: {value}", flush=True)


def spread(values, form):
    low, middle, high = statistics.quantiles(values, n=4)
    return f"{middle:{form}} ({low:{form}} to {high:{form}})"


def seconds_of_query(path):
    """Sends a query as the library does and returns its duration."""
    began = time.perf_counter()
    with socket.socket(socket.AF_UNIX) as client:
        client.connect(str(path))
        client.sendall(REQUEST)
        answer = b""
        while piece := client.recv(65536):
            answer += piece
    if b"<user" not in answer:
        raise RuntimeError(f"answer {answer}")
    return time.perf_counter() - began


def visits_per_second(web_server):
    load = Load([web_server], 8)
    load.wait_for_visits(VISITS_PER_ROUND)
    visits = load.stop()
    if any(visit.back_end is None for visit in visits):
        raise RuntimeError("a visit has failed")
    return len(visits) / (visits[-1].ended - visits[0].began)


def processes_of(service):
    """Returns the ids of all processes in the session of the service."""
    done = subprocess.run(
        ["ps", "-o", "pid=", "-s", str(service.process.pid)],
        capture_output=True, text=True, check=True,
    )
    return [int(word) for word in done.stdout.split()]


def processor_seconds(service):
    """Returns the processor time of the running processes, to the nanosecond."""
    total = 0
    for process in processes_of(service):
        for task in pathlib.Path(f"/proc/{process}/task").glob("*/schedstat"):
            total += int(task.read_text().split()[0])
    return total / 1e9


def processor_seconds_of_children(service):
    """Returns the processor time of child processes that have ended."""
    line = pathlib.Path(f"/proc/{service.process.pid}/stat").read_text()
    fields = line.rpartition(")")[2].split()
    return (int(fields[13]) + int(fields[14])) / os.sysconf("SC_CLK_TCK")


def memory_kilobytes(service):
    total = 0
    for process in processes_of(service):
        rollup = pathlib.Path(f"/proc/{process}/smaps_rollup").read_text()
        total += int(re.search(r"^Pss: +(\d+)", rollup, re.M).group(1))
    return total


def compare_proxies(local, clear, secure):
    connections = {
        "without HAProxy": local,
        "HAProxy": clear.web_hosts[0],
        "HAProxy, TLS": secure.web_hosts[0],
    }
    rates = {name: [] for name in connections}
    seconds = {name: [] for name in connections}
    for _ in range(ROUNDS):
        for name, connection in connections.items():
            rates[name].append(visits_per_second(connection.web_server))
            path = connection.run_dir / "panel.sock"
            seconds[name] += [seconds_of_query(path) for _ in range(QUERIES_PER_ROUND)]
    for name in connections:
        report(f"visits a second, {name}", spread(rates[name], ".0f"))
        report(f"microseconds a query, {name}", spread([1e6 * s for s in seconds[name]], ".0f"))


def report_processor_time(site, kind):
    web_host = site.web_hosts[0]
    services = {
        "lighttpd": web_host.web_server.service,
        "HAProxy": web_host.proxy,
        "uWSGI": site.back_ends[0].service,
    }
    if site.is_secure:
        services["HAProxy of the back end"] = site.back_ends[0].proxy
    before = {name: processor_seconds(service) for name, service in services.items()}
    children = processor_seconds_of_children(services["lighttpd"])
    asked = len(site.back_ends[0].asked())
    load = Load([web_host.web_server], 8)
    load.wait_for_visits(ROUNDS * VISITS_PER_ROUND)
    visits = len(load.stop())
    asked = len(site.back_ends[0].asked()) - asked
    for name, service in services.items():
        spent = processor_seconds(service) - before[name]
        count = visits if service in (web_host.web_server.service, web_host.proxy) else asked
        report(f"processor microseconds a visit, {name}, {kind}", f"{1e6 * spent / count:.0f}")
    spent = processor_seconds_of_children(services["lighttpd"]) - children
    report(f"processor microseconds a visit, front end, {kind}", f"{1e6 * spent / visits:.0f}")


def report_checks(site, kind):
    """Reports the cost of HAProxy's checks, without visitors."""
    proxy, back_end = site.web_hosts[0].proxy, site.back_ends[0].service
    before = processor_seconds(proxy), processor_seconds(back_end)
    time.sleep(IDLE_SECONDS)
    checks = 3 * IDLE_SECONDS
    spent = processor_seconds(proxy) - before[0]
    report(f"HAProxy's processor microseconds a check, {kind}", f"{1e6 * spent / checks:.0f}")
    spent = processor_seconds(back_end) - before[1]
    checks = len(site.web_hosts) * IDLE_SECONDS
    report(f"uWSGI's processor microseconds a check, {kind}", f"{1e6 * spent / checks:.0f}")


def report_resumption(site):
    web_host = site.web_hosts[0]
    reused = sum(int(web_host.proxy_state(end.name)["ssl_reused_sess"]) for end in site.back_ends)
    new = sum(int(web_host.proxy_state(end.name)["ssl_sess"]) for end in site.back_ends)
    report("TLS sessions resumed", f"{reused} of {reused + new}")


def report_traffic(site):
    web_host = site.web_hosts[0]
    before = {end.name: web_host.proxy_state(end.name) for end in site.back_ends}
    load = Load([web_host.web_server], 8)
    load.wait_for_visits(VISITS_PER_ROUND)
    visits = len(load.stop())
    for column, direction in (("bin", "to"), ("bout", "from")):
        total = sum(
            int(web_host.proxy_state(name)[column]) - int(state[column])
            for name, state in before.items()
        )
        report(f"bytes a query {direction} the back end", f"{total / visits:.0f}")


def waiting_connections(host):
    done = subprocess.run(
        [*host.enter, "ss", "-Htan", "state", "time-wait"],
        capture_output=True, text=True, check=True,
    )
    return len(done.stdout.splitlines())


def report_ports(site):
    """Sends many queries from few ports."""
    web_host = site.web_hosts[0]
    if not isinstance(web_host.host, NamespaceHost):
        report("ports", "not measured without network namespaces")
        return
    path = "/proc/sys/net/ipv4/ip_local_port_range"
    command = f"echo 40000 40099 > {path}"
    subprocess.run([*web_host.host.enter, "sh", "-c", command], check=True)
    socket_path = web_host.run_dir / "panel.sock"
    seconds = [seconds_of_query(socket_path) for _ in range(10 * QUERIES_PER_ROUND)]
    figure = f"{len(seconds):,} queries from 100 ports, longest, milliseconds"
    report(figure, f"{1e3 * max(seconds):.0f}")
    report("connections in TIME_WAIT, web host", waiting_connections(web_host.host))
    report("connections in TIME_WAIT, back end", waiting_connections(site.back_ends[0].host))


def report_memory(site):
    web_host = site.web_hosts[0]
    report("KB of uWSGI with 8 workers", memory_kilobytes(site.back_ends[0].service))
    before = memory_kilobytes(web_host.proxy)
    report("KB of HAProxy", before)
    with contextlib.ExitStack() as open_clients:
        for _ in range(CONNECTIONS):
            client = open_clients.enter_context(socket.socket(socket.AF_UNIX))
            client.connect(str(web_host.run_dir / "panel.sock"))
            client.sendall(REQUEST[:10])
        time.sleep(1)
        grown = memory_kilobytes(web_host.proxy) - before
    report("KB of HAProxy a connection", f"{grown / CONNECTIONS:.1f}")


def report_sessions():
    """Measures the example panel's back end with a million sessions."""
    sys.path.insert(0, str(PANEL))
    backend = importlib.import_module("backend")
    with tempfile.TemporaryDirectory(prefix="sessions-") as folder:
        os.environ["PANEL_DB"] = f"{folder}/panel.db"
        with contextlib.closing(backend.connect()) as database:
            fill(backend, database)
            size = os.path.getsize(os.environ["PANEL_DB"])
            report("bytes a session in the store", f"{size / SESSIONS:.0f}")
        microseconds = 1e6 * seconds_each(backend, whoami, 10 * QUERIES_PER_ROUND)
        report("processor microseconds a whoami", f"{microseconds:.0f}")
        for query in (password, sign_in):
            milliseconds = 1e3 * seconds_each(backend, query, PASSWORDS)
            report(f"processor milliseconds a {query.__name__}", f"{milliseconds:.1f}")


def session_name(number):
    return hashlib.md5(b"%d" % number).hexdigest()


def fill(backend, database):
    backend.add_user(database, "password", "somebody", 5)
    now = int(time.time())
    database.execute("begin")
    database.executemany(
        "insert into session values (?, 'somebody', ?, ?, '192.0.2.77')",
        (
            (backend.hash_session(session_name(number)), secrets.token_hex(16), now)
            for number in range(SESSIONS)
        ),
    )
    database.execute("commit")


def seconds_each(backend, query, count):
    began = time.process_time()
    for number in range(count):
        answer = query(backend, number)
        if "error" in answer:
            raise RuntimeError(answer)
    return (time.process_time() - began) / count


def whoami(backend, _):
    session = session_name(secrets.randbelow(SESSIONS))
    return backend.answer(
        {"QUERY_STRING": "func=whoami&out=xml", "HTTP_COOKIE": f"panelses5={session}"}
    )


def password(backend, _):
    return str(backend.hash_password("password", b"16 bytes of salt"))


def sign_in(backend, _):
    query = "func=session.new&user=somebody&password=password&out=xml"
    return backend.answer({"QUERY_STRING": query})


def main():
    report("load at the beginning", os.getloadavg()[0])
    report_sessions()
    with contextlib.ExitStack() as sites:
        clear = Site(seconds=0)
        sites.callback(clear.stop)
        secure = Site(seconds=0, is_secure=True)
        sites.callback(secure.stop)
        compare_proxies(LocalBackEnd(clear), clear, secure)
        for site, kind in ((clear, "clear"), (secure, "TLS")):
            report_processor_time(site, kind)
            report_checks(site, kind)
        report_resumption(secure)
        report_traffic(clear)
        report_ports(clear)
        # Last, because its incomplete requests occupy the workers for seconds.
        report_memory(clear)
    report("load at the end", os.getloadavg()[0])


if __name__ == "__main__":
    main()
