"""What the scenes share: what they say, the programs that they start, the network, and who asks what."""
import contextlib
import os
import signal
import socket
import subprocess
import sys
import time

from lab.network import *
from lab.programs import *

BIN = os.environ.get("JORN_BIN_DIR", "build/demo/bin")  # tests name theirs
LOGS = "/run/demo"     # a file for each program
FILES = "/run/demo.d"  # what the scenes write for them
IS_SLOW = not {"JORN_BIN_DIR", "JORN_EMULATED"}.isdisjoint(os.environ)
SECONDS = DEADLINE if IS_SLOW else 5  # that are waited for something at most
LAST_FRAMES_S = 0.3    # and their verdicts
ON_A_WIRE = ("gso_max_segs", "1")  # the sender cuts what it sends itself, so frames are as long as on a wire

NETWORK = "10.20.0"
CLIENT = NETWORK + ".2"
CLIENT6 = "fd00:20::2"
DNS_SERVER = NETWORK + ".53"
WEB_SERVER, WEB_NAME = NETWORK + ".80", "intranet.example"
VIDEO_SERVER, VIDEO_NAME = NETWORK + ".81", "www.youtube.com"

BOLD, DIM, RED, RESET = "\033[1m", "\033[2m", "\033[31m", "\033[0m"
if not sys.stdout.isatty() or os.environ.get("TERM", "dumb") == "dumb" or os.environ.get("NO_COLOR"):
    BOLD = DIM = RED = RESET = ""


class Failed(Exception):
    """The demo can't go on."""


# What is said.

def say(*lines):
    for line in lines:
        print(line, flush=True)


def heading(text):
    say(f"\n{BOLD}== {text}{RESET}")


def note(text):
    say(f"{DIM}{text}{RESET}")


def log(name):
    with open(f"{LOGS}/{name}") as file:
        return file.read()


def show_logs():
    for name in sorted(os.listdir(LOGS)):
        if text := log(name):
            print(f"\n{DIM}--- {name}{RESET}", *text.splitlines()[-15:], sep="\n", file=sys.stderr)


def show_rows(wanted):
    """Those of avcore's table of flows that are wanted, each as its fields."""
    heading("What jorn made of it")
    say(*(row for row in log("avcore").splitlines()
          if (fields := row.split()) and (fields[0] == "CLIENT" or wanted(fields))))


def server_port(fields):
    """Of a row of that table."""
    return fields[1].rpartition(":")[2] if len(fields) > 1 else ""


def show_flows(most=40):
    """The table's first screenful, and the totals behind the empty line."""
    heading("What jorn made of it")
    table, *totals = log("avcore").rstrip("\n").split("\n\n")
    rows = table.splitlines()
    say(*rows[:most])
    if len(rows) > most:
        say(f"... and {len(rows) - most} more flows")
    for each in totals:
        say("", each)


def show_names(most=24):
    heading("The names that jorn keeps")
    say("  jornctl show dns")
    listed = [line for line in jornctl("show", "dns").splitlines() if line.strip()]
    say(*("  " + line for line in listed[:most]))


# Programs.

class Program:
    """One that runs meanwhile. What it says is in its log."""

    def __init__(self, name, *words, netns=None):
        self.name = name
        with open(f"{LOGS}/{name}", "w") as file:
            self._process = subprocess.Popen([*inside(netns), *words], stdin=subprocess.DEVNULL,
                                             stdout=file, stderr=subprocess.STDOUT)

    def has_ended(self):
        return self._process.poll() is not None

    def stop(self, number=signal.SIGTERM):
        self._process.send_signal(number)
        return self._process.wait()


def wait_for(what, done):
    try:
        return wait_until(done, seconds=SECONDS)
    except AssertionError:
        raise Failed(f"no {what} after {SECONDS} seconds") from None


def wait_for_file(what, path):
    wait_for(what, lambda: os.path.exists(path))


def write(path, text):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w") as file:
        file.write(text)
    return path


def answer(*words, netns=None):
    """Exit status, and all that the command said."""
    done = subprocess.run([*inside(netns), *words], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True)
    return done.returncode, done.stdout.strip()


def output(*words):
    """Of a command that has to succeed."""
    done = subprocess.run(words, stdout=subprocess.PIPE, text=True)
    if done.returncode != 0:
        raise Failed(f"{os.path.basename(words[0])} failed")
    return done.stdout


# The access point.

CAPTURE = ("--capture", "av1")  # avcore makes it, for jorn -i av1


class Avcore(Program):
    """It plays the kernel module: `-i` it takes frames from a port of the bridge, `-r` from a file.
    It is there before the daemon, which asks once, at its start, whether there is a DPI engine."""

    def __init__(self, config, *options):
        words = (*CAPTURE, "-c", config, *options)
        say("  avcore " + " ".join(words))
        super().__init__("avcore", f"{BIN}/avcore", *words)
        wait_for_file("AV channel of avcore", "/run/av_core.sock")

    def report(self):
        """It ends, and leaves its table of flows in the log."""
        time.sleep(LAST_FRAMES_S)
        if self.stop(signal.SIGINT) != 0:
            raise Failed("avcore ended with an error")


def start_jorn():
    say("  jorn -i av1")
    jorn = Program("jorn", f"{BIN}/jorn", "-i", "av1")
    wait_for_file("command socket of jorn", "/run/jorn.sock")
    return jorn


def jornctl(*words):
    return output(f"{BIN}/jornctl", *words)


def apply(document):
    say("  jornctl apply " + document)
    say(*("  " + line for line in jornctl("apply", document).splitlines()))


def show_use(client, name):
    """While avcore runs: what it tells whoever asks, and why the client doesn't get what has the name."""
    heading("Who uses what, and why")
    for words in ("clients",), ("why", client, "--name", name):
        say("  avwatch " + " ".join(words))
        status, said = answer(f"{BIN}/avwatch", *words)
        if status > 1:  # 1: why says that it is blocked
            raise Failed(said)
        say(*("    " + line for line in said.splitlines()))


# The network.

def add_host(netns):
    add_namespace(netns)
    set_switch(netns, "ipv6/conf/default/disable_ipv6", 1)  # where a scene needs it it is added


def add_station(netns, port):
    """In a namespace of its own, at a port of the access point."""
    add_host(netns)
    plug(port, netns, "eth0", "br0", *ON_A_WIRE)


def add_ipv4(netns, *addresses):
    add_addresses(netns, "eth0", *(address + "/24" for address in addresses))


def add_ipv6(netns, *addresses):
    set_switch(netns, "ipv6/conf/eth0/disable_ipv6", 0)
    add_addresses(netns, "eth0", *(address + "/64" for address in addresses))


# What the client asks for.

def attempt(what, ask, *arguments):
    print(f"  {what:34} ", end="", flush=True)
    status, said = ask(*arguments)
    if status != 0:
        raise Failed("no answer: " + said)
    say(said)


def curl(shown, *words, netns="client"):
    return answer("curl", "-sS", "-k", "--noproxy", "*", "--max-time", str(SECONDS - 1), "-o", "/dev/null",
                  "-w", shown, *words, netns=netns)


def fetch(*words):
    return curl("%{http_code} from %{remote_ip}, %{size_download} bytes", *words)


# What it gets its answers from.

def listens(protocol, address):
    return lambda: answer("ss", "-Hln", protocol, "src", address, netns="server")[1]


def start_name_server(log_name, address, names, *options, settings="/dev/null"):
    """`names` are pairs of a name and its address."""
    server = Program(log_name, *name_server(
        "--bind-interfaces", "--listen-address=" + address, "--local-ttl=300", *options,
        *(f"--address=/{name}/{address}" for name, address in names), settings=settings),
        netns="server")
    wait_for("name server", listens("-u", address + ":53"))
    return server


def use_demo_dns():
    """The clients ask the demo's name server and nobody else."""
    for path, text in (("/etc/resolv.conf", f"nameserver {DNS_SERVER}\n"),
                       ("/etc/nsswitch.conf", "hosts: dns\n")):
        with contextlib.suppress(FileNotFoundError):
            os.unlink(path)  # a link to the machine's
        write(path, text)


def make_certificate():
    """Its file, and its key's."""
    certificate, key = FILES + "/crt", FILES + "/key"
    os.makedirs(FILES, exist_ok=True)
    status, said = answer(
        "openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
        "-days", "1", "-subj", "/CN=" + VIDEO_NAME, "-keyout", key, "-out", certificate)
    if status != 0:
        raise Failed(said)
    return certificate, key


class Servers:
    """The clients' name server, and a web server without and one with TLS."""

    def __init__(self, names):
        write(FILES + "/www/index.html", "<h1>The intranet</h1>\n")
        certificate, key = make_certificate()
        self.resolver = start_name_server("dnsmasq", DNS_SERVER, names, "--local=/#/")
        self._web = None
        self.serve_web(WEB_SERVER, f"{WEB_SERVER}:80")
        Program("https", "openssl", "s_server", "-quiet", "-www", "-accept", "443", "-key",
                key, "-cert", certificate, netns="server")
        wait_for("TLS server", listens("-t", ":443"))

    def serve_web(self, bind, listening):
        if self._web:
            self._web.stop()
        self._web = Program("http", "python3", "-m", "http.server", "80", "--bind", bind, "--directory",
                            FILES + "/www", netns="server")
        wait_for("web server", listens("-t", listening))

    def forward(self, server, *options, settings="/dev/null"):
        """The clients' name server asks another one from now on. It reads its settings at its start
        only."""
        self.resolver.stop()
        self.resolver = start_name_server("dnsmasq", DNS_SERVER, (), "--server=" + server, *options,
                                          settings=settings)
