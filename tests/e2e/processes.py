"""What every test here needs of server processes: to start, to find, to wait for and
to end them."""

import contextlib
import glob
import inspect
import os
import pathlib
import signal
import socket
import subprocess
import time

DIRECTORIES = "/usr/sbin:/usr/bin:/sbin:/bin"


def wait_for(condition, seconds=30):
    """Fails with the condition's own words: whoever reads the last line shall see
    what was waited for."""
    end = time.monotonic() + seconds
    pause = 0.002
    while not (value := condition()):
        if time.monotonic() > end:
            with contextlib.suppress(OSError):
                condition = inspect.getsource(condition).strip()
            raise TimeoutError(f"after {seconds} s still {value!r}: {condition}")
        time.sleep(pause)
        pause = min(2 * pause, 0.1)


def start(command, log, **options):
    """A server in a session of its own, with its output at the end of a file."""
    with log.open("ab") as output:
        return subprocess.Popen(
            list(map(str, command)), stdin=subprocess.DEVNULL, stdout=output, stderr=output,
            start_new_session=True, **{"cwd": "/", "env": {"PATH": DIRECTORIES}, **options},
        )


def listens(address):
    """Whether a connection can be made to a host and port, or to a path."""
    family = socket.AF_INET if isinstance(address, tuple) else socket.AF_UNIX
    with socket.socket(family) as client:
        return client.connect_ex(address if isinstance(address, tuple) else str(address)) == 0


def free_address():
    """An address and port that nobody else comes by: each process has a
    loopback address of its own."""
    number = os.getpid()
    host = f"127.{64 + (number >> 16)}.{number >> 8 & 255}.{number & 255}"
    with socket.socket() as probe:
        probe.bind((host, 0))
        return probe.getsockname()


def processes_with(text, program=None):
    """The ids of those with this text in their environment, and with this program."""
    found = []
    for process in map(pathlib.Path, glob.iglob("/proc/[0-9]*")):
        with contextlib.suppress(OSError):  # gone, or another user's
            if program is None or os.readlink(process / "exe") == os.path.realpath(program):
                if os.fsencode(text) in (process / "environ").read_bytes():
                    found.append(int(process.name))
    return found


def open_files(folder):
    """The sizes of those that processes have open below a folder, even without a name."""
    sizes = []
    for link in glob.iglob("/proc/[0-9]*/fd/*"):
        with contextlib.suppress(OSError):  # gone, or another user's
            if os.readlink(link).startswith(f"{folder}/"):
                sizes.append(os.stat(link).st_size)
    return sorted(sizes)


def has_ended(process):
    """It stays a zombie, so that its id is nobody else's."""
    return os.waitid(os.P_PID, process.pid, os.WEXITED | os.WNOHANG | os.WNOWAIT)


def end_session(process):
    """Ends a process that leads a session, and what is left of its group."""
    os.killpg(process.pid, signal.SIGTERM)
    with contextlib.suppress(TimeoutError):
        wait_for(lambda: has_ended(process))
    kill(process)


def kill(process):
    """A crash of a server that has been started in a session of its own."""
    os.killpg(process.pid, signal.SIGKILL)
    process.wait(30)
