"""Small requests per second through a web server that starts a program for each, or
passes them to FastCGI processes that stay. Interpreters are left out, because most of
the time would be their start-up."""

import contextlib
import http.client
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import time
from collections.abc import Iterator

from frame import Bench, Case, Experiment
from groups.startup import ANSWER, REQUEST
from programs import Program
from spawner import Failed
from summary import summarize

HOST = "127.0.0.1"
PORT_SECONDS = 10
CONNECTIONS = 4


def run(bench: Bench) -> None:
    missing = [tool for tool in ("lighttpd", "wrk") if shutil.which(tool) is None]
    if missing:
        bench.absent.update(missing)
        return
    programs = [program for program in bench.programs_of("get") if not program.is_slow]
    services = bench.programs_of("service")
    with tempfile.TemporaryDirectory(dir=bench.memory) as folder:
        documents = pathlib.Path(folder) / "documents"
        documents.mkdir()
        for program in programs:
            (documents / program.name).symlink_to(program_file(bench, program))
        commands = {url_path(program): program_file(bench, program) for program in services}
        with web_server(pathlib.Path(folder), documents, commands) as port:
            programs += services
            passed = [program for program in programs if check(bench, program, port)]
            if not bench.only_checks:
                compare(bench, passed, port)


def program_file(bench: Bench, program: Program) -> str:
    return bench.command(Case(program, REQUEST, ANSWER))[0]


@contextlib.contextmanager
def web_server(
    folder: pathlib.Path, documents: pathlib.Path, services: dict[str, str]
) -> Iterator[int]:
    port = free_port()
    configuration = folder / "lighttpd.conf"
    fastcgi = ", ".join(
        f'"{path}" => (( "bin-path" => "{command}", "socket" => "{folder}{path}.socket", '
        f'"max-procs" => {CONNECTIONS}, "check-local" => "disable" ))'
        for path, command in services.items()
    )
    configuration.write_text(
        f"""
        server.modules = ( "mod_fastcgi", "mod_cgi" )
        server.bind = "{HOST}"
        server.port = {port}
        server.document-root = "{documents}"
        server.errorlog = "{folder}/lighttpd.log"
        server.upload-dirs = ( "{folder}" )
        cgi.assign = ( "" => "" )
        fastcgi.server = ( {fastcgi} )
        """
    )
    # The kernel ends the server when this process ends, even if it is killed.
    command = ["setpriv", "--pdeathsig", "TERM", "lighttpd", "-D", "-f", configuration]
    with subprocess.Popen(command, start_new_session=True) as process:
        try:
            wait_until_it_listens(process, port)
            yield port
        finally:
            # Ends the server and the processes that it started.
            os.killpg(process.pid, signal.SIGTERM)


def free_port() -> int:
    with socket.socket() as probe:
        probe.bind((HOST, 0))
        return probe.getsockname()[1]


def wait_until_it_listens(process: subprocess.Popen, port: int) -> None:
    for _ in range(PORT_SECONDS * 100):
        with socket.socket() as client:
            if client.connect_ex((HOST, port)) == 0:
                return
        if process.poll() is not None:
            break
        time.sleep(0.01)
    raise Failed("lighttpd did not start")


def url_path(program: Program) -> str:
    return f"/{program.name}"


def url(program: Program) -> str:
    return f"{url_path(program)}?{REQUEST.variables['QUERY_STRING']}"


def cookie() -> str:
    return REQUEST.variables["HTTP_COOKIE"]


def check(bench: Bench, program: Program, port: int) -> bool:
    """Like Bench.check(), through the web server."""
    connection = http.client.HTTPConnection(HOST, port, timeout=60)
    with contextlib.closing(connection):
        connection.request("GET", url(program), headers={"Cookie": cookie()})
        response = connection.getresponse()
        body = response.read()
    if (response.status, body) == (200, ANSWER):
        bench.passed_checks += 1
        return True
    bench.report_failure(f"{program.name} through lighttpd: {response.status}, {body[:200]!r}")
    return False


def compare(bench: Bench, programs: list[Program], port: int) -> None:
    """Measures in turn for a second each, so that a disturbance affects all."""
    rounds = 3 if bench.quick else 15
    runs: dict[str, list[dict[str, float]]] = {program.name: [] for program in programs}
    for number in range(rounds):
        begin = number % len(programs)
        for program in programs[begin:] + programs[:begin]:
            runs[program.name].append(slice_of(program, port))
    bench.record(
        Experiment(
            "requests/get",
            f"GET through lighttpd, {CONNECTIONS} at a time",
            {name: summarize(measured) for name, measured in runs.items()},
            references=("cgicc_get",),
            quantity="requests_per_second",
        )
    )


def slice_of(program: Program, port: int) -> dict[str, float]:
    done = subprocess.run(
        [
            "wrk",
            "--threads=1",
            f"--connections={CONNECTIONS}",
            "--duration=1s",
            "--timeout=10s",
            f"--header=Cookie: {cookie()}",
            f"http://{HOST}:{port}{url(program)}",
        ],
        capture_output=True,
        text=True,
        check=False,
    )
    found = re.search(r"^Requests/sec: +([0-9.]+)$", done.stdout, re.M)
    # The output mentions errors only if there are some.
    if found is None or "errors" in done.stdout or "Non-2xx" in done.stdout:
        raise Failed(f"{program.name} through lighttpd: {done.stdout}{done.stderr}")
    return {"requests_per_second": float(found.group(1))}
