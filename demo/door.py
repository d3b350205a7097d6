"""The way into a box from the machine around it: two listening sockets, one on the machine's loopback for
a browser, one in the build folder for avwatch. They are opened here and handed to the command that makes the
box, which answers there; the standard input over which they go ends when this process has gone, however
that was, and with it goes the box.

    python3 -m demo.door COMMAND ..."""
from .stage import *

WATCH_SOCKET = os.path.dirname(BIN) + "/watch.sock"
PORTS = (*range(8080, 8090), 0)  # 0 is any


def listen_for_browser():
    for port in PORTS:
        with contextlib.suppress(OSError):
            return socket.create_server(("127.0.0.1", port))
    sys.exit("demo: no port of 127.0.0.1 is free")


def listen_for_avwatch():
    with socket.socket(socket.AF_UNIX) as tried:
        if tried.connect_ex(WATCH_SOCKET) == 0:
            sys.exit("demo: the page of another scripts/demo is open already")
    with contextlib.suppress(FileNotFoundError):
        os.unlink(WATCH_SOCKET)
    listener = socket.socket(socket.AF_UNIX)
    umask = os.umask(0o177)  # who uses what is not everybody's business
    listener.bind(WATCH_SOCKET)
    os.umask(umask)
    listener.listen()
    if os.geteuid() == 0:
        folder = os.stat(".")
        os.chown(WATCH_SOCKET, folder.st_uid, folder.st_gid)
    return listener


def main(*command):
    listeners = [listen_for_avwatch(), listen_for_browser()]
    here, there = socket.socketpair()
    socket.send_fds(here, [b"\0"], [each.fileno() for each in listeners])
    # Where it is sudo that makes the box, it doesn't get this signal, but its input ends all the same.
    with subprocess.Popen(["setpriv", "--pdeathsig", "KILL", *command], stdin=there) as box:
        there.close()
        status = box.wait()
    os.unlink(WATCH_SOCKET)
    return status


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
