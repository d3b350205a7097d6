"""Namespaces, and what connects them. A namespace goes by its name; None is the process's own."""
import contextlib
import ctypes
import os
import socket
import subprocess

from .programs import run, wait_until

SLOW_WIRE = os.path.join(os.path.dirname(os.path.realpath(__file__)), "slow_wire.py")
ETH_P_ALL = 3


def inside(netns):
    """What stands before a command that runs there."""
    return ("nsenter", f"--net=/run/netns/{netns}") if netns else ()


@contextlib.contextmanager
def namespace(netns):
    """This thread is there, and what it opens stays there."""
    if not netns:
        yield
        return
    libc = ctypes.CDLL(None, use_errno=True)
    with open("/proc/thread-self/ns/net") as here, open(f"/run/netns/{netns}") as there:
        assert libc.setns(there.fileno(), 0) == 0, os.strerror(ctypes.get_errno())
        try:
            yield
        finally:
            assert libc.setns(here.fileno(), 0) == 0


def packet_socket(interface, *options):
    """For all packets there, and for no others: with a protocol from its beginning it would have those
    of all interfaces, and without the options, until it is bound."""
    made = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
    for option in options:
        made.setsockopt(*option)
    made.bind((interface, ETH_P_ALL))
    return made


def ip(netns, *words):
    run("ip", *(("-n", netns) if netns else ()), *words)


def set_switch(netns, name, value):
    """One of the kernel's, below /proc/sys/net."""
    with namespace(netns), open("/proc/sys/net/" + name, "w") as file:
        file.write(str(value))


def add_namespace(netns):
    ip(None, "netns", "add", netns)
    set_switch(netns, "ipv6/conf/default/accept_dad", 0)  # an address is there at once
    ip(netns, "link", "set", "lo", "up")


def add_addresses(netns, interface, *addresses):
    """Each with the length of its prefix."""
    for address in addresses:
        ip(netns, "addr", "replace", address, "dev", interface, *(("nodad",) if ":" in address else ()))


def add_bridge(name, netns=None):
    ip(netns, "link", "add", name, "type", "bridge", "mcast_snooping", "0")
    ip(netns, "link", "set", name, "up")


def add_capture_pair(one, other, netns=None):
    """As avcore and the daemon need it: room for the largest frame with its trailer, and no frames of
    the kernel's own."""
    ip(netns, "link", "add", one, "mtu", "65535", "type", "veth", "peer", other, "mtu", "65535")
    for end in (one, other):
        set_switch(netns, f"ipv6/conf/{end}/disable_ipv6", 1)
        ip(netns, "link", "set", end, "arp", "off", "up")


def plug(port, netns, interface, bridge=None, *options, at=None):
    """A cable between `port`, which a bridge may have, of the namespace `at` and the interface of
    another; both ends get the options."""
    ip(at, "link", "add", port, "type", "veth", "peer", interface, "netns", netns)
    ip(at, "link", "set", port, *(("master", bridge) if bridge else ()), *options, "up")
    ip(netns, "link", "set", interface, *options, "up")


def plug_far(port, netns, interface, milliseconds, bridge=None, *options, lost_percent=0):
    """The same by way of a slow wire, the process of which is returned. It begins where the options
    end."""
    add_namespace("wire")
    plug(port, "wire", "near", bridge, *options)
    plug("far", netns, interface, at="wire")
    wire = subprocess.Popen([*inside("wire"), SLOW_WIRE, "near", "far", str(milliseconds), str(lost_percent)])

    def carries():
        """Both its ends are bound; what comes before is lost."""
        with namespace("wire"), open("/proc/thread-self/net/packet") as sockets:
            return sum(line.split()[4] != "0" for line in list(sockets)[1:]) == 2
    wait_until(carries, "the slow wire")
    return wire
