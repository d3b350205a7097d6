#!/usr/bin/env python3
"""What a verdict costs while the message bus is attacked.

    export JORN_BIN_DIR=$PWD/build/release/bin
    scripts/private python3 -B bench/bus_attack.py [SECONDS [ROW]]

jorn and avcore with [bus] get a frame every two milliseconds, each of a flow of its own whose
server the daemon's cache names; attackers at forty addresses do what they can to the bus. Measured
is the time from a frame's sending until avcore has taken its verdict: this program stands between
the two on the AV channel, sends a question behind each verdict, and takes the time of its answer.
It runs on the first CPU, before them, the attackers on the last. "elsewhere" is the control, as many
connections to a port where nobody listens; "late" by how much this program was woken too late at
worst, which only the machine can do. ROW picks the rows that have it in their names.
"""
import multiprocessing
import os
import re
import ssl
import sys
import weakref
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)) + "/../tests/system")
from access_points import *

CPUS = sorted(os.sched_getaffinity(0))
ATTACKERS = [f"10.9.0.{host}" for host in range(100, 140)]
PEER, FOREIGN = "AP.02:00:00:00:00:02", "/tmp/foreign"
INTERVAL_S, WARM_UP_S, FIRST_PORT = 0.002, 4, 1024
OURS = 1 << 31  # in the sequence numbers of this program's questions, above a frame's port
VERDICT_SIZE, PORT_IN_VERDICT = 8 + 12 + 232, 8 + 12 + 4 + 22


# What an attacker does to its connection, again and again; it comes anew when that ends.
def be_silent(connection):
    if connection.recv(1) == b"":
        raise ConnectionError


def reset(connection):
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    raise ConnectionError  # and what is closed then is reset


class Send:
    """The data once, or without end; with TLS the handshake first, or alone."""

    def __init__(self, data, endless=False):
        self.data, self.endless = memoryview(data), endless
        self.reached = weakref.WeakKeyDictionary()

    def __call__(self, connection):
        if isinstance(connection, ssl.SSLSocket):
            connection.do_handshake()
        at = self.reached.get(connection, 0)
        if at == len(self.data):
            return be_silent(connection)
        at += connection.send(self.data[at:at + 16384])
        self.reached[connection] = 0 if self.endless and at == len(self.data) else at


def messages(topic):
    """More names at more addresses than the daemon's cache has room for, 128 a message."""
    data = b""
    for address in range(0x0B000000, 0x0B000000 + 20_480, 128):
        body = struct.pack("64s64sI", PEER.encode(), topic.encode(), 128) + b"".join(
            struct.pack("=I36x4s24x64s", 1, (address + n).to_bytes(4, "big"),
                        b"name%d.example" % n) for n in range(128))
        data += struct.pack(">I", len(body)) + body
    return Send(data, endless=True)


def attack(act, tls=None, port=5670):
    os.sched_setaffinity(0, CPUS[-1:])
    held = {}
    while True:
        for address in ATTACKERS:
            try:
                if address not in held:
                    held[address] = socket.create_connection(("10.9.0.1", port), 0.2, (address, 0))
                    if tls:
                        held[address] = tls.wrap_socket(held[address], False, False)
                    held[address].setblocking(False)
                act(held[address])
            except (BlockingIOError, ssl.SSLWantReadError, ssl.SSLWantWriteError):
                pass
            except OSError:
                held.pop(address, None)  # and closed with it


def tls(folder=None):
    made = ssl._create_unverified_context()
    if folder:
        made.load_cert_chain(f"{folder}/{PEER}.pem", f"{folder}/{PEER}.key")
    return made


def attacks(secured, word):
    strangers = {"silent connections": (be_silent,), "reset at once": (reset,),
                 "one byte, then silent": (Send(b"\x16" if secured else b"\0"),),
                 "garbage": (Send(os.urandom(4096)),)}
    if secured:
        strangers |= {"handshakes, no certificate": (Send(b""), tls()),
                      "handshakes, a foreign one": (Send(b""), tls(FOREIGN))}
    peer = tls(KEYS) if secured else None
    senders = {f"messages, {what}": (messages(topic), peer)
               for what, topic in (("another topic", "junk"), ("full of names", "RflowRoamInfo"))}
    every = strangers | senders
    rows = {"none": [], "elsewhere": [(be_silent, None, 5671)],
            **{what: [one] for what, one in every.items()},
            "all but the messages": strangers.values(), "all": every.values()}
    return {what: attackers for what, attackers in rows.items() if word in what}

class Bench:
    def __init__(self, secured):
        self.point = point = AccessPoint(1)
        point.start(point.keys() if secured else OPEN)
        wait_for_listener(point.bus_socket, point.process.pid)
        self.avcore = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.avcore.connect(point.av_socket)
        point.av_socket = f"/tmp/between.{time.monotonic_ns()}"  # where jorn will look
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as listener:
            listener.bind(point.av_socket)
            listener.listen()
            self.daemon = point.daemon()
            self.jorn = listener.accept()[0]
        with namespace(point.netns):
            self.station = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
            self.station.bind(("in1", 0))
        self.sent_ns, self.taken_ns, self.late_s = {}, {}, 0

    def feed(self, frames):
        """One frame at each interval, and time for the last one's verdict."""
        due = time.monotonic()
        for port, frame in frames:
            self.sent_ns[port] = time.monotonic_ns()
            self.station.send(frame)
            due += INTERVAL_S
            self.pass_on(due)
            self.late_s = max(self.late_s, time.monotonic() - due)
        self.pass_on(due + 2)

    def pass_on(self, until):
        while (left := until - time.monotonic()) > 0:
            for source in select.select([self.jorn, self.avcore], [], [], left)[0]:
                self.pass_one(source.recv(65536), source is self.jorn)

    def pass_one(self, message, to_avcore):
        op, seq = struct.unpack_from("=II", message)
        if seq & OURS:
            return self.taken_ns.setdefault(seq ^ OURS, time.monotonic_ns())
        (self.avcore if to_avcore else self.jorn).send(message)
        if op == OP_IOCTL and len(message) == VERDICT_SIZE:
            port = int.from_bytes(message[PORT_IN_VERDICT:PORT_IN_VERDICT + 2], "big")
            self.avcore.send(struct.pack("=II64s", OP_VALUE, OURS | port, b"fw_version"))


def measure(secured, attackers, seconds):
    bench = Bench(secured)
    os.sched_setscheduler(0, os.SCHED_FIFO | os.SCHED_RESET_ON_FORK, os.sched_param(1))
    named = dns_answer("a.example", "b.example", SERVER)
    while 53 not in bench.taken_ns:
        bench.feed([(53, udp_frame(53, 1, named, src="192.0.2.53", dst=CLIENT))])
    processes = [multiprocessing.Process(target=attack, args=one) for one in attackers]
    for process in processes:
        process.start()
    ports = range(FIRST_PORT, FIRST_PORT + int((WARM_UP_S + seconds) / INTERVAL_S))
    bench.feed([(port, udp_frame(port, 443)) for port in ports])
    for process in processes:
        process.kill()
    os.sched_setscheduler(0, os.SCHED_OTHER, os.sched_param(0))
    measured = ports[int(WARM_UP_S / INTERVAL_S):]
    delays = sorted((taken_ns - bench.sent_ns[port]) / 1e6
                    for port, taken_ns in bench.taken_ns.items() if port in measured)
    assert bench.daemon.stop() == 0 and bench.point.stop() == 0
    return delays, bench.late_s * 1e3, len(measured) - len(delays), str(bench.point.lines.items)


def main():
    seconds = float(sys.argv[1]) if sys.argv[1:] else 20
    os.sched_setaffinity(0, CPUS[:1])
    os.setpriority(os.PRIO_PROCESS, 0, -10)
    lay_out()
    add_addresses(None, "br0", *(address + "/24" for address in ("10.9.0.254", *ATTACKERS)))
    for folder in (KEYS, FOREIGN):
        run(BUS_KEYS, folder, PEER, AccessPoint(1).name)
    for secured in (False, True):
        print(f"\n{'with certificates, ms' if secured else 'without, ms':28}  median     p99     max"
              "    late  no verdict  refused  gave way  messages", flush=True)
        for what, attackers in attacks(secured, "".join(sys.argv[2:])).items():
            delays, late, missing, lines = measure(secured, attackers, seconds)
            counts = [re.findall(f"{each}([0-9]+)", lines) or [0] for each in
                      ("connections refused: ", "gave way to others: ", "sent, ")]
            print("{:28}{:8.2f}{:8.2f}{:8.2f}{:8.2f}{:12}{:>9}{:>10}{:>10}".format(
                what, *(delays[round((len(delays) - 1) * share)] for share in (0.5, 0.99, 1)),
                late, missing, *(each[-1] for each in counts)), flush=True)


if __name__ == "__main__":
    main()
