"""Hosts for a test: network namespaces, or loopback addresses of this machine.

The kernel removes a namespace and its interfaces when the last process in it
ends. So a test that is killed leaves nothing, and the machine's own network is
never changed.
"""

import os
import socket
import subprocess

from processes import wait_for

# The kernel kills the command when the thread that started it ends.
BOUND_TO_US = ("setpriv", "--pdeathsig", "KILL")


class Namespace:
    """A network namespace."""

    def __init__(self):
        command = (*BOUND_TO_US, "unshare", "--net", "sleep", "infinity")
        self.holder = subprocess.Popen(command, stdin=subprocess.DEVNULL)
        self.path = f"/proc/{self.holder.pid}/ns/net"
        self.enter = ("nsenter", f"--net={self.path}")
        wait_for(self._is_separate)
        self.ip("link", "set", "lo", "up")

    def ip(self, *words):
        subprocess.run([*self.enter, "ip", *words], check=True)

    def remove(self):
        self.holder.kill()
        self.holder.wait(30)

    def _is_separate(self):
        return os.readlink(self.path) != os.readlink("/proc/self/ns/net")


class NamespaceHost(Namespace):
    def __init__(self, switch, address):
        super().__init__()
        self.address = address
        port = f"port{self.holder.pid}"
        peer = ("peer", "name", port, "netns", str(switch.holder.pid))
        self.ip("link", "add", "eth0", "type", "veth", *peer)
        self.ip("address", "add", f"{address}/24", "dev", "eth0")
        self.ip("link", "set", "eth0", "up")
        switch.ip("link", "set", port, "master", "bridge", "up")

    def free_port(self, usual):
        return usual

    def cut_off(self):
        """As in a power failure: the host closes no connection."""
        self.ip("link", "set", "eth0", "down")

    def plug_in(self):
        self.ip("link", "set", "eth0", "up")


class NamespaceNetwork:
    """Hosts on one switch, with the addresses in docs/scaling.md."""

    def __init__(self):
        self.switch = Namespace()
        self.switch.ip("link", "add", "bridge", "type", "bridge")
        self.switch.ip("link", "set", "bridge", "up")
        self.hosts = []

    def add_host(self, number):
        self.hosts.append(NamespaceHost(self.switch, f"192.0.2.{number}"))
        return self.hosts[-1]

    def remove(self):
        for namespace in (*self.hosts, self.switch):
            namespace.remove()


class LoopbackHost:
    enter = ()

    def __init__(self, address):
        self.address = address

    def free_port(self, _):
        with socket.socket() as probe:
            probe.bind((self.address, 0))
            return probe.getsockname()[1]


class LoopbackNetwork:
    """Hosts for ordinary users: loopback addresses that contain the process id,
    so that tests running at the same time use different ones."""

    def add_host(self, number):
        high, middle, low = os.getpid() >> 16, os.getpid() >> 8 & 255, os.getpid() & 255
        return LoopbackHost(f"127.{64 * (number % 10) + high}.{middle}.{low}")

    def remove(self):
        pass


def new_network():
    if can_make_namespaces():
        return NamespaceNetwork()
    return LoopbackNetwork()


def can_make_namespaces():
    done = subprocess.run(
        ["unshare", "--net", "true"], stdin=subprocess.DEVNULL, capture_output=True, check=False
    )
    return os.geteuid() == 0 and done.returncode == 0
