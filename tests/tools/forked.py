"""Runs a tool in a child process, without starting Python for each run."""

import dataclasses
import os
import pathlib
import sys
import tempfile
import warnings

SOURCE = pathlib.Path(os.environ["SOURCE"])
# The folder of processes and web_servers.
sys.path.insert(0, str(SOURCE / "tests" / "e2e"))
# A time limit in seconds that is long enough on a busy machine.
LONG = 300
os.umask(0o022)
# The bytes that a pipe holds without a reader.
PIPE_CAPACITY = 65536


@dataclasses.dataclass
class Ended:
    status: int
    output: bytes | str
    errors: str


def pipe_with(content):
    """The reading end of a pipe with this content."""
    assert len(content) <= PIPE_CAPACITY
    reader, writer = os.pipe()
    os.write(writer, content)
    os.close(writer)
    return reader


def be_tool(main, arguments, environment, prepare, descriptors):
    """Does not return."""
    status = 70
    try:
        # unittest enables warnings for tests, but the tool runs without.
        warnings.simplefilter("ignore")
        prepare()
        for number, descriptor in enumerate(descriptors):
            os.dup2(descriptor, number)
        os.environ.clear()
        os.environ.update(environment)
        sys.argv = arguments
        sys.stdin, sys.stdout = open(0), open(1, "w")
        sys.stderr = open(2, "w", errors="backslashreplace", buffering=1)
        status = main()
    except SystemExit as end:
        status = end.code
    finally:
        sys.stdout.flush()
        sys.stderr.flush()
        os._exit(status)


def run_forked(main, arguments, environment, stdin=b"", prepare=lambda: None):
    """Runs a main function in a child, which calls prepare first."""
    reader, writer = os.pipe()
    given = pipe_with(stdin) if isinstance(stdin, bytes) else os.dup(stdin.fileno())
    with tempfile.TemporaryFile() as errors:
        child = os.fork()
        if child == 0:
            be_tool(main, arguments, environment, prepare, [given, writer, errors.fileno()])
        os.close(writer)
        os.close(given)
        with os.fdopen(reader, "rb") as stream:
            output = stream.read()
        status = os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])
        return Ended(status, output, os.pread(errors.fileno(), 1 << 24, 0).decode())
