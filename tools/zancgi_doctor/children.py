"""Calls in child processes, which may have other rights and have a time limit."""

import contextlib
import ctypes
import json
import os
import select
import signal
import time

from zancgi_doctor.identities import Unknown
from zancgi_doctor.texts import describe_error, printable

PR_SET_PDEATHSIG = 1


class NoResult(Exception):
    """A child process returned no result."""


def run_in_child(seconds, function, *arguments, identity=None):
    """Calls a function in a forked process, and returns its result, which must fit into JSON."""
    reader, writer = os.pipe()
    parent = os.getpid()
    child = os.fork()
    if child == 0:
        be_child(parent, writer, function, arguments, identity)
    os.close(writer)
    try:
        text = read_until(reader, time.monotonic() + seconds)
    finally:
        os.close(reader)
        end_child(child)
    if text is None:
        raise NoResult(f"it took longer than {seconds:g} seconds")
    try:
        result = json.loads(text)
    except ValueError:
        raise NoResult("the checking process ended early") from None
    if "error" in result:
        raise NoResult(result["error"])
    return result["value"]


def be_child(parent, writer, function, arguments, identity):
    """Neither returns nor raises, and runs no exit handlers of the parent."""
    try:
        if identity is not None:
            identity.take_on()
        # A child that hangs must not outlive the doctor.
        ctypes.CDLL(None).prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
        if os.getppid() != parent:  # the parent ended before prctl
            os._exit(0)
        result = {"value": function(*arguments)}
    except OSError as error:
        result = {"error": describe_error(error)}
    except (NoResult, Unknown) as error:
        result = {"error": str(error)}
    except BaseException as error:  # the parent reports it
        result = {"error": printable(f"{type(error).__name__}: {error}")}
    with contextlib.suppress(BaseException), os.fdopen(writer, "w") as stream:
        json.dump(result, stream)
    os._exit(0)


def read_until(reader, deadline):
    """Everything up to the end of the pipe; None if that does not come in time."""
    pieces = []
    while True:
        left = max(deadline - time.monotonic(), 0)
        if not select.select([reader], [], [], left)[0]:
            return None
        piece = os.read(reader, 65536)
        if not piece:
            return b"".join(pieces)
        pieces.append(piece)


def end_child(child):
    os.kill(child, signal.SIGKILL)
    # A process that hangs in the kernel cannot be waited for.
    for _ in range(100):
        if os.waitpid(child, os.WNOHANG)[0]:
            return
        time.sleep(0.01)
