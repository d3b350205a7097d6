"""The vocabulary of the system tests.

A test class derives from SystemTest, which runs inside `scripts/private`: names and paths are the
daemon's own, nothing else uses them, and what a test leaves behind is swept up before the next.

    platform = self.platform(mem_support="0")      the stand-in behind the AV channel
    daemon = self.daemon("-d")                     the built daemon on the capture pair
    verdicts = self.judge([ipv4_frame(udp(53, 1024))])
    daemon.stop()

Waiting always has a deadline and never a fixed length.
"""
import contextlib
import dataclasses
import glob
import os
import select
import shutil
import signal
import socket
import ssl
import struct
import subprocess
import sys
import threading
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "../.."))
from lab.network import *
from lab.programs import *

os.environ.pop("JORN_AV_SOCK", None)  # the daemon finds the channel where it is by default

CAPTURE, FEED = "cap0", "feed0"
AV_SOCKET = "/var/run/av_core.sock"
COMMAND_SOCKET = "/var/run/jorn.sock"
PID_FILE = "/var/run/jorn.pid"
PORT_SERVICE_FILE = "/writable/jorn/uploadjorport_file_1.0"
SANITIZER_LOG = "/tmp/sanitizer"

OP_IOCTL, OP_SET_APP, OP_RESET, OP_SWITCH, OP_SAFESEARCH, OP_SYSLOG = range(1, 7)
OP_ROAM, OP_DOMAIN, OP_CATEGORY, OP_VALUE = 33, 34, 35, 36

CLIENT_MAC, SERVER_MAC, PROBE_MAC = "02:00:00:00:00:0c", "02:00:00:00:00:05", "02:00:00:00:00:ff"
CLIENT, SERVER = "10.1.0.12", "192.0.2.5"
BURST = 100    # frames in a row: one or two blocks of the capture's ring, and the channel holds them


def jorn_path(name="jorn"):
    return os.path.join(os.environ["JORN_BIN_DIR"], name)


def is_sanitized(name):
    """Such a program takes several times as long, and its memory says nothing of ours."""
    with open(jorn_path(name), "rb") as program:
        return b"__asan_init" in program.read()


def mac(text):
    return bytes.fromhex(text.replace(":", ""))


def read_file(path):
    with open(path, newline="") as file:
        return file.read()


def write_file(path, text):
    """The folders above it are made, too."""
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as file:
        file.write(text if isinstance(text, bytes) else text.encode("latin-1"))


def text_of(field):
    return field.split(b"\0")[0].decode()


# Frames.

def ethernet(ether_type, payload=b"", *, src=CLIENT_MAC, dst=SERVER_MAC, vlan=None):
    tag = b"" if vlan is None else struct.pack(">HH", 0x8100, vlan)
    return mac(dst) + mac(src) + tag + struct.pack(">H", ether_type) + payload


def ipv4(protocol, payload=b"", *, src=CLIENT, dst=SERVER, options=b"", words=None, total=None,
         more=False, offset=0, tos=0):
    """`words` and `total` lie about the header's and the packet's length; `offset` is in units of
    8 bytes."""
    words = 5 + len(options) // 4 if words is None else words
    total = 20 + len(options) + len(payload) if total is None else total
    return struct.pack(">BBHHHBBH4s4s", 0x40 | words, tos, total, 1, more << 13 | offset, 64, protocol,
                       0, socket.inet_aton(src), socket.inet_aton(dst)) + options + payload


def tcp(src_port, dst_port, data=b"", *, words=5):
    return struct.pack(">HHIIBBHHH", src_port, dst_port, 0, 0, words << 4, 0x18, 512, 0, 0) + data


def udp(src_port, dst_port, data=b""):
    return struct.pack(">HHHH", src_port, dst_port, 8 + len(data), 0) + data


def icmp_echo():
    return struct.pack(">BBHHH", 8, 0, 0, 1, 1)


def arp_request(target=SERVER, sender=CLIENT, sender_mac=CLIENT_MAC):
    return struct.pack(">HHBBH6s4s6x4s", 1, 0x0800, 6, 4, 1, mac(sender_mac),
                       socket.inet_aton(sender), socket.inet_aton(target))


def pppoe_session(packet):
    return struct.pack(">BBHHH", 0x11, 0, 1, len(packet) + 2, 0x0021) + packet


def http_302(location):
    return f"HTTP/1.1 302 Found\r\nLocation:{location}\r\nContent-Length: 0\r\n\r\n".encode()


def dns_name(name):
    return b"".join(bytes([len(label)]) + label.encode() for label in name.split(".")) + b"\0"


def dns_answer(asked, alias, address):
    """The answer to a question for `asked`, which is an alias."""
    kind, family = (28, socket.AF_INET6) if ":" in address else (1, socket.AF_INET)
    data = socket.inet_pton(family, address)
    question = dns_name(asked) + struct.pack(">HH", kind, 1)
    target = dns_name(alias)
    return struct.pack(">HHHHHH", 7, 0x8180, 1, 2, 0, 0) + question + \
        b"\xc0\x0c" + struct.pack(">HHIH", 5, 1, 300, len(target)) + target + \
        target + struct.pack(">HHIH", kind, 1, 300, len(data)) + data


def client_hello(server_name):
    incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
    handshake = ssl.create_default_context().wrap_bio(incoming, outgoing,
                                                      server_hostname=server_name)
    try:
        handshake.do_handshake()
    except ssl.SSLWantReadError:
        pass
    return outgoing.read()


def ipv4_frame(protocol, payload=b"", **header):
    return ethernet(0x0800, ipv4(protocol, payload, **header))


def ipv6_frame(next_header, payload, *, src, dst, vlan=None):
    header = struct.pack(">IHBB", 0x60000000, len(payload), next_header, 64)
    addresses = b"".join(socket.inet_pton(socket.AF_INET6, each) for each in (src, dst))
    return ethernet(0x86DD, header + addresses + payload, vlan=vlan)


def tcp_frame(src_port, dst_port, data=b"", **header):
    return ipv4_frame(6, tcp(src_port, dst_port, data), **header)


def udp_frame(src_port, dst_port, data=b"", **header):
    return ipv4_frame(17, udp(src_port, dst_port, data), **header)


TRAILER_FIELDS = {"dst_utp_id": 0, "src_utp_id": 0, "word2": 0, "word3": 0, "dst_if_index": 2,
                  "src_if_index": 3, "dst_if_name": "eth0", "src_if_name": "wlan0", "flow_id": 0,
                  "filter_type": 0, "dpi_retry": 0, "url_retry": 0, "dpi_status": 0,
                  "dpi_app_id": 0, "dpi_cat_id": 0, "dpi_app_name": "", "kernel_domain": ""}


def trailer(**fields):
    if unknown := fields.keys() - TRAILER_FIELDS:
        raise TypeError(f"a trailer has no {unknown}")
    values = (TRAILER_FIELDS | fields).values()
    return struct.pack("=6I16s16sIIiiIHH128s68s",
                       *(v.encode() if isinstance(v, str) else v for v in values))


# Verdicts.

@dataclasses.dataclass
class Verdict:
    """The 232 bytes, each of them in a field. The defaults are the verdict on a flow that no policy
    knows, of a frame from the client to the server without an IPv4 header."""
    verdict: int = 1
    non_ip: int = 0
    dst_mac: str = SERVER_MAC
    src_mac: str = CLIENT_MAC
    dst_port: int = 0
    src_port: int = 0
    protocol: int = 0
    dst_ip: str = "0.0.0.0"
    src_ip: str = "0.0.0.0"
    default_policy: int = 1
    app_name: str = ""
    wfc_fqdn: str = ""
    app_id: int = 0
    app_cat_id: int = 0
    deny: int = 255
    mark_pri: int = 255
    mark_type: int = 255
    classify: int = 255
    classify_type: int = 255
    arc_match_src: int = 0
    url_decided: int = 255
    reserved_qos: int = 255
    ratelimit_up: int = 65535
    ratelimit_down: int = 65535
    arc_match_utp: int = 0
    match_info: int = 0
    wificalling_f: int = 0
    policy_type: int = 2
    zeros: bytes = bytes(35)  # all padding: of the flow key, and beside the application ids

    @classmethod
    def parse(cls, record):
        def read(field, value):
            if not isinstance(value, bytes):
                return value
            return {"mac": lambda: value.hex(":"), "port": lambda: int.from_bytes(value, "big"),
                    "ip": lambda: socket.inet_ntoa(value)}.get(
                        field.name.rpartition("_")[2], lambda: text_of(value))()

        values = struct.unpack("=II4x6s6s2s2sB3x4s4s24xI64s64s2xHH2x8BHHIIII", record)
        zeros = b"".join(record[begin:end] for begin, end in (
            (8, 12), (29, 32), (40, 64), (196, 198), (202, 204)))
        return cls(*map(read, dataclasses.fields(cls), values), zeros)


def flow(src_port=0, dst_port=0, protocol=0, *, src=CLIENT, dst=SERVER, **fields):
    """The verdict on an IPv4 flow that no policy and, unless `app_name` is given, nobody knows."""
    fields.setdefault("app_name", f"{src} {dst}:{dst_port}")
    return Verdict(src_ip=src, dst_ip=dst, src_port=src_port, dst_port=dst_port, protocol=protocol,
                   **fields)


# What happens elsewhere, to be waited for.

class Record:
    """A list that grows in another thread."""

    def __init__(self, what):
        self.items = []
        self._what = what
        self._grown = threading.Condition()

    def add(self, item):
        with self._grown:
            self.items.append(item)
            self._grown.notify_all()

    def __len__(self):
        return len(self.items)

    def wait(self, wanted, *, since=0, timeout=DEADLINE):
        """The first item from `since` on that `wanted` accepts, which is asked once about each."""
        looked_at = since

        def find():
            nonlocal looked_at
            while looked_at < len(self.items):
                looked_at += 1
                if wanted(self.items[looked_at - 1]):
                    return (self.items[looked_at - 1],)
            return ()

        return self._wait(find, timeout, since)[0]

    def wait_length(self, length, *, timeout=DEADLINE):
        self._wait(lambda: len(self.items) >= length, timeout)

    def _wait(self, found, timeout, since=0):
        with self._grown:
            if result := self._grown.wait_for(found, timeout):
                return result
        raise AssertionError(f"in {timeout} s not what was awaited of the {self._what}; the last "
                             f"of {len(self.items) - since}: {self.items[since:][-20:]}")


class SyslogListener:
    """The syslog of the tests: `lines` holds what arrives at /dev/log."""

    def __init__(self):
        self.lines = Record("syslog lines")
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind("/dev/log")
        self._thread = threading.Thread(target=self._receive)
        self._thread.start()

    def _receive(self):
        while line := self._socket.recv(4096):
            self.lines.add(line.decode(errors="replace"))

    def close(self):
        os.unlink("/dev/log")
        self._socket.shutdown(socket.SHUT_RDWR)
        self._thread.join()
        self._socket.close()


class Platform:
    """The listener behind the AV channel. `verdicts`, `probes` (the verdicts on the frames that find
    out whether the daemon judges) and `messages` (pairs of op and body of everything else) grow as
    they come. Questions are answered from `values` (op 36: key to
    text), `domains` (op 34: address to three words and a name) and `answers` (any op: a function
    from the body to rc and body); to all others the answer is rc -1."""

    def __init__(self, **values):
        self.values = values
        self.domains = {}
        self.answers = {OP_VALUE: self._value, OP_DOMAIN: self._domain}
        self.verdicts = Record("verdicts")
        self.probes = Record("probes' verdicts")
        self.messages = Record("AV messages")
        self.connections = []
        self.reading = threading.Event()  # cleared: it stays connected and reads nothing
        self.reading.set()
        self._listener = None
        self.start()

    def start(self):
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self._listener.bind(AV_SOCKET)
        self._listener.listen()
        threading.Thread(target=self._accept, args=(self._listener,), daemon=True).start()

    def kill(self):
        """Goes away as a killed process does: its connections close, the socket's name stays until
        a restart removes it."""
        for connection in (self._listener, *self.connections):
            try:
                connection.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass  # the daemon was faster
            connection.close()
        self.connections.clear()
        self.reading.set()

    def restart(self):
        os.unlink(AV_SOCKET)
        self.start()

    def _accept(self, listener):
        try:
            while True:
                connection = listener.accept()[0]
                self.connections.append(connection)
                threading.Thread(target=self._serve, args=(connection,), daemon=True).start()
        except OSError:
            pass  # killed

    def _serve(self, connection):
        try:
            while message := connection.recv(65536):
                op, seq = struct.unpack_from("=II", message)
                body = message[8:]
                if op == OP_IOCTL and body[:12] == struct.pack("=iiI", 8, 0, 232):
                    verdict = Verdict.parse(body[12:])
                    (self.probes if verdict.src_mac == PROBE_MAC else self.verdicts).add(verdict)
                else:
                    self.messages.add((op, body))
                if op >= OP_ROAM:
                    for datagram in self.reply(op, seq, body):
                        connection.send(datagram)
                self.reading.wait()
        except OSError:
            pass  # killed

    def reply(self, op, seq, body):
        """The datagrams that answer a question."""
        rc, answer = self.answers.get(op, lambda _: (-1, b""))(body)
        return [struct.pack("=IIi", op, seq, rc) + answer]

    def _value(self, body):
        value = self.values.get(text_of(body[:64]))
        return (-1, b"") if value is None else (0, struct.pack("128s", value.encode()))

    def _domain(self, body):
        found = self.domains.get(socket.inet_ntoa(body[:4]))
        *words, name = found or (0, 0, 0, "")
        return 0, struct.pack("=III256s", *words, name.encode())


class Daemon:
    """The daemon without a terminal, as an access point starts it; `lines` holds what it writes to
    standard error and standard output, `status` waits for its end."""

    def __init__(self, *options, before=()):
        self.lines = Record("daemon's lines")
        self._process = subprocess.Popen(
            [*before, jorn_path(), *options], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, start_new_session=True, text=True, errors="replace",
            env=os.environ | {f"{tool}_OPTIONS": f"log_path={SANITIZER_LOG}"
                              for tool in ("ASAN", "UBSAN", "LSAN")})
        self.pid = self._process.pid
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        for line in self._process.stdout:
            if line.strip():
                self.lines.add(line.strip())

    def wait_line(self, text, **how):
        return self.lines.wait(lambda line: text in line, **how)

    def status(self):
        """Its exit status, once it has ended and all that it wrote is in `lines`."""
        status = self._process.wait(DEADLINE)
        self._reader.join(DEADLINE)
        return status

    def runs(self):
        return self._process.poll() is None

    def send_signal(self, number):
        self._process.send_signal(number)

    def stop(self, number=signal.SIGTERM):
        if self.runs():
            self.send_signal(number)
        return self.status()

    def kill(self):
        self._process.kill()
        self._process.wait()
        self._reader.join(DEADLINE)
        self._process.stdout.close()


def pid_file():
    return int(read_file(PID_FILE))


def end_background_daemon(pid):
    """Asks a daemon that isn't our child to stop, and waits for its end."""
    try:
        process = os.pidfd_open(pid)
        signal.pidfd_send_signal(process, signal.SIGTERM)
    except ProcessLookupError:
        return
    ended = select.select([process], [], [], DEADLINE)[0]
    os.close(process)
    assert ended, f"process {pid} still runs"


def command(number, payload=b"", *, length=None):
    """Sends one command to the daemon and returns its reply; `length` lies about the payload's."""
    length = len(payload) if length is None else length
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as connection:
        connection.settimeout(DEADLINE)
        connection.connect(COMMAND_SOCKET)
        connection.sendall(struct.pack("=II8xI", 0, number, length) + payload)
        reply = b""
        while piece := connection.recv(65536):
            reply += piece
        return reply


class SystemTest(unittest.TestCase):
    way = ("-o", FEED)  # avcore's, to the daemon

    def setUp(self):
        self._platform = self._feed = self.jorn = None
        # Nothing saved before; the port-service file is there, or its want would be reported.
        shutil.rmtree("/writable/jorn", ignore_errors=True)
        write_file(PORT_SERVICE_FILE, "")
        self.make_links()
        self.addCleanup(lambda: subprocess.run(["ip", "link", "del", FEED], capture_output=True))
        self.addCleanup(lambda: self._feed and self._feed.close())
        self.addCleanup(self._check_sanitizers)

    def make_links(self):
        """The capture's pair, and a socket at its far end."""
        if self._feed:
            self._feed.close()
        add_capture_pair(CAPTURE, FEED)
        self._feed = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
        self._feed.bind((FEED, 0))

    def _check_sanitizers(self):
        reports = ""
        for path in glob.glob(SANITIZER_LOG + ".*"):
            reports += read_file(path)
            os.unlink(path)
        self.assertFalse(reports, reports)

    def platform(self, **values):
        self._platform = Platform(**values)
        self.addCleanup(os.unlink, AV_SOCKET)
        self.addCleanup(self._platform.kill)
        return self._platform

    def run_avcore(self, *options, before=(), **streams):
        """The real one in the platform's place, with its frames' way to the daemon."""
        streams = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE} | streams
        avcore = subprocess.Popen([*before, jorn_path("avcore"), *self.way, *options], text=True, **streams)
        self.addCleanup(avcore.communicate)
        self.addCleanup(avcore.kill)
        return avcore

    def daemon_behind_avcore(self, *options):
        """Starts once avcore listens, of which the daemon asks much at its start, and is waited for
        until it takes commands."""
        wait_for_listener(AV_SOCKET)
        daemon = self.daemon(*options)
        wait_for_listener(COMMAND_SOCKET)
        return daemon

    def daemon(self, *options, interface=CAPTURE, before=()):
        daemon = Daemon("-i", interface, *options, before=before)
        self.addCleanup(self._end, daemon)
        return daemon

    def start(self, *options):
        """The daemon, or the next one, until it judges."""
        if self.jorn:
            self.assertEqual(self.jorn.stop(), 0)
        self.jorn = self.daemon(*options)
        self.wait_until_judging()

    def _end(self, daemon):
        try:
            if daemon.runs():
                self.assertEqual(daemon.stop(), 0, daemon.lines.items[-20:])
            if os.path.exists(PID_FILE):
                end_background_daemon(pid_file())
        finally:
            daemon.kill()
            for path in (PID_FILE, COMMAND_SOCKET):
                if os.path.exists(path):
                    os.unlink(path)

    def send(self, frame, trailing=trailer()):
        self._feed.send(frame + trailing)

    def wait_until_judging(self):
        """Repeats a frame until a verdict answers it: frames that come before the capture is open
        vanish, and so do verdicts while the channel is down."""
        probes = self._platform.probes
        since = len(probes)

        def answered():
            self.send(ethernet(0x9000, src=PROBE_MAC))
            with contextlib.suppress(AssertionError):
                probes.wait_length(since + 1, timeout=0.2)
            return len(probes) > since
        wait_until(answered, "the daemon judges nothing")

    def messages_so_far(self):
        """How many the platform has been sent up to now: a verdict comes behind them."""
        self.wait_until_judging()
        return len(self._platform.messages)

    def lines_so_far(self, daemon):
        """How many the daemon has written up to now: those of a command of ours come behind them."""
        number = len(daemon.lines) + 1000
        command(39, struct.pack("=I", number))
        daemon.wait_line(f"Unknown testid = {number}")
        return len(daemon.lines)

    def judge(self, frames, trailing=trailer(), *, burst=1, timeout=DEADLINE):
        """The verdicts on `frames`, one each and in their order. Sends a burst once the one before
        is answered, so that neither the capture's ring nor the channel overflows."""
        self.wait_until_judging()
        verdicts = self._platform.verdicts
        since = len(verdicts)
        for first in range(0, len(frames), burst):
            sent = frames[first:first + burst]
            for frame in sent:
                self.send(frame, trailing)
            verdicts.wait_length(since + first + len(sent), timeout=timeout)
        return verdicts.items[since:]


class PipedTest(SystemTest):
    """avcore reads frames from a pipe."""
    daemon_options = ()

    def start_on_pipe(self, config, *options):
        """With the daemon behind it."""
        write_file("/tmp/categories", self.categories)
        write_file("/tmp/avcore.toml", config)
        os.mkfifo("/tmp/pipe")
        self.addCleanup(os.unlink, "/tmp/pipe")
        self.avcore = self.run_avcore("-r", "/tmp/pipe", "-c", "/tmp/avcore.toml", "--json",
                                      "--categories", "/tmp/categories", *options)
        self.jorn = self.daemon_behind_avcore(*self.daemon_options)
        self.pipe = open("/tmp/pipe", "wb", buffering=0)
        self.addCleanup(self.pipe.close)
        self.pipe.write(struct.pack("=IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 262_144, 1))

    def feed(self, *frames, at=0):
        """`at` is in seconds."""
        self.pipe.write(b"".join(struct.pack("=IIII", 1_700_000_000 + at, 0, len(frame), len(frame)) + frame
                                 for frame in frames))


class JudgingTest(SystemTest):
    """The daemon judges from the start, before a platform with these values."""
    values = {}

    def setUp(self):
        super().setUp()
        self.av = self.platform(**self.values)
        self.start()
