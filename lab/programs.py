"""Running programs, and waiting for what they do."""
import os
import subprocess
import time

PROJECT = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
EXAMPLES = PROJECT + "/examples"
BUS_KEYS = PROJECT + "/scripts/bus-keys"
DEADLINE = 60  # seconds, for what takes milliseconds on an idle machine


def run(*words):
    subprocess.run(words, check=True)


def wait_until(done, what="what was awaited", seconds=DEADLINE):
    """What `done` returns, once that is something."""
    ends = time.monotonic() + seconds
    while not (found := done()):
        assert time.monotonic() < ends, what
        time.sleep(0.01)
    return found


def wait_for_listener(path, process="self"):
    """Until a local socket of the process's network takes connections: its name is there before. The
    name of one that was killed stays."""
    def listens():
        with open(f"/proc/{process}/net/unix") as sockets:
            return any((flags, rest[-1]) == ("00010000", path)
                       for _, _, _, flags, *rest in map(str.split, sockets))
    wait_until(listens, path)


def name_server(*options, settings="/dev/null"):
    """The words that start one. Its debugging mode keeps the user that it has: in a user namespace
    there is no other."""
    return ("dnsmasq", "--no-daemon", f"--conf-file={settings}", "--no-resolv", "--no-hosts", "--pid-file=",
            *options)


def with_own_folders(netns, folder):
    """What stands before a command in a namespace whose /run and /writable are those of `folder`."""
    for path in (f"{folder}/run", f"{folder}/writable", "/writable"):
        os.makedirs(path, exist_ok=True)
    return ("ip", "netns", "exec", netns, "sh", "-c",
            'mount --bind "$0/writable" /writable && mount --bind "$0/run" /run && exec "$@"', folder)
