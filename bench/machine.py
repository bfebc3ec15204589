"""Facts about the machine and its installed packages."""

import os
import pathlib
import platform
import re
import subprocess

# The peers' programs and libraries.
PACKAGES = (
    "libcgicc3 librudecgi5 libfcgi0ldbl libcgi-pm-perl php8.2-cgi python3.11 golang-1.19-go "
    "lighttpd wrk libc6 libstdc++6"
).split()


def facts(build: pathlib.Path) -> dict[str, object]:
    return {
        "processor": processor(),
        "processors": os.cpu_count(),
        "kernel": platform.release(),
        "compiler": compiler(build),
        "packages": package_versions(),
        "file_systems": {"memory": file_system("/dev/shm"), "disk": file_system(str(build))},
        "load_at_begin": load(),
    }


def load() -> float:
    """The load average of the last minute."""
    return round(os.getloadavg()[0], 2)


def processor() -> str:
    found = re.search(r"^model name\s*: (.*)$", pathlib.Path("/proc/cpuinfo").read_text(), re.M)
    return found.group(1) if found else platform.machine()


def compiler(build: pathlib.Path) -> str:
    cache = (build / "CMakeCache.txt").read_text()
    path = re.search(r"^CMAKE_CXX_COMPILER:\w+=(.*)$", cache, re.M).group(1)
    return first_line(path, "--version")


def package_versions() -> dict[str, str]:
    """The versions of those PACKAGES that are installed."""
    versions = {}
    for package in PACKAGES:
        version = first_line("dpkg-query", "--show", "--showformat=${Version}", package)
        if version:
            versions[package] = version
    return versions


def file_system(path: str) -> str:
    return first_line("findmnt", "--noheadings", "--output", "FSTYPE", "--target", path)


def first_line(*command: str) -> str:
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    return done.stdout.partition("\n")[0]
