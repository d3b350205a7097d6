"""An access point whose gate is to be seen at work: a client, the access point (the test's own
namespace, where avcore and the daemon run) and a server, each with IPv4 and IPv6.

    client              access point                     server
    eth0 ------- wlan0 [routes or bridges] eth0 ------- eth0, far away where a test wants it

What is asserted is what arrives at the far side's interface.
"""
import contextlib
import ctypes
import sys
import unittest
from typing import NamedTuple

from records import *

CLIENTS, SERVERS, NAMED = ({4: "10.1.0.12", 6: "fd00:1::12"}, {4: "192.0.2.5", 6: "fd00:2::5"},
                           {4: "192.0.2.6", 6: "fd00:2::6"})
GATEWAYS = {"wlan0": ("10.1.0.1/16", "fd00:1::1/64"), "eth0": ("192.0.2.1/24", "fd00:2::1/64")}
FAMILIES = {4: socket.AF_INET, 6: socket.AF_INET6}
TCP, UDP = 6, 17
RST = 4
SOL_PACKET, PACKET_STATISTICS, VNET_HDR, IGNORE_OUTGOING = 263, 6, 15, 23
SO_ATTACH_FILTER, SO_RCVBUFFORCE, SO_TIMESTAMPNS = 26, 33, 35
SO_RCVPRIORITY = 82  # since Linux 6.14
CONFIG = "/tmp/inline.toml"
REPORT = "/tmp/inline.json"
PAUSE = 0.05  # s, before another look: most are by a program

# The applications of the policy, by the server's port.
DENIED, ALLOWED, VOICE_CALL, SLOW, FAST, SWITCHED, SHOP = range(7001, 7008)
NTP = 123
LIMITS = {SLOW: 2_000_000, FAST: 8_000_000}  # bit/s
RULES = {DENIED: {"deny": True}, SWITCHED: {}, VOICE_CALL: {"qos": {"mark": {"kind": "both", "type": "Voice"}}},
         **{port: {"rate_up": limit // 1000, "rate_down": limit // 1000}
            for port, limit in LIMITS.items()}}

counts_rates = unittest.skipIf("JORN_EMULATED" in os.environ, "an emulated machine has other rates")


def policies(rules, names=("youtube", "icmp")):
    """The document: an application for each port, names that the client may not reach, and rules
    by name; one more is denied by the servers' profile."""
    by_name = [{"app_name": name} | rules[name] for name in rules if isinstance(name, str)]
    rules = {port: rules[port] for port in rules if isinstance(port, int)}
    known = [{"app_name": f"app-{port}", "app_id": 30000 + port, "cat_id": "User Defined"}
             for port in rules]
    return {"applications": [application | {"dst_port": port}
                             for application, port in zip(known, rules)],
            "policies": [{"utp_id": 1, "name": "lab", "rules": [
                *[application | rules[port] for application, port in zip(known, rules)],
                *[{"app_name": name, "deny": True}
                  for name in names], *by_name]},
                {"utp_id": 2, "name": "servers", "rules": [
                    {"app_name": "shop.example", "deny": True}]}]}


def summed(packet):
    """An IPv4 packet that routers take."""
    total = sum(struct.unpack(">10H", packet[:20]))
    return packet[:10] + struct.pack(">H", ~(total + (total >> 16)) & 0xFFFF) + packet[12:]


def of_client(version, protocol, payload, **words):
    if version == 4:
        return summed(ipv4(protocol, payload, src=CLIENTS[4], dst=SERVERS[4], **words))
    return (struct.pack(">IHBB", 6 << 28, len(payload), protocol, 64)
            + b"".join(socket.inet_pton(socket.AF_INET6, address[6]) for address in (CLIENTS, SERVERS))
            + payload)


def link_address(*words):
    [link] = json.loads(subprocess.check_output(["ip", "-j", *words]))
    return link["address"]


def queues_at(interface):
    """Whether what exceeds a limit waits there."""
    return "htb" in subprocess.run(["tc", "qdisc", "show", "dev", interface, "root"], text=True,
                                   capture_output=True).stdout


class Packet(NamedTuple):
    at: float          # time.time()
    version: int
    protocol: int
    src_port: int
    dst_port: int
    dscp: int
    flags: int         # of TCP
    frames: int        # on the wire, where a large packet is several,
    size: int          # and their bytes of IP
    payload: bytes     # its beginning


def parse(record, at):
    gso_size = int.from_bytes(record[4:6], sys.byteorder)
    frame = record[10:].ljust(94, b"\0")  # as long as headers are: some are cut short
    version = {b"\x08\x00": 4, b"\x86\xdd": 6}.get(frame[12:14])
    if version is None:
        return Packet(at, None, None, 0, 0, 0, 0, 1, 0, frame[14:22])
    if version == 4:
        protocol, head, size = frame[23], (frame[14] & 15) * 4, int.from_bytes(frame[16:18], "big")
        dscp = frame[15] >> 2
    else:
        protocol, head, size = frame[20], 40, 40 + int.from_bytes(frame[18:20], "big")
        dscp = (int.from_bytes(frame[14:16], "big") >> 6) & 63
    if protocol not in (TCP, UDP):
        return Packet(at, version, protocol, 0, 0, dscp, 0, 1, size, frame[14 + head:])
    transport = frame[14 + head:]
    header = (transport[12] >> 4) * 4 if protocol == TCP else 8
    frames = -(-(size - head - header) // gso_size) if gso_size else 1
    size += (frames - 1) * (head + header)
    return Packet(at, version, protocol, int.from_bytes(transport[:2], "big"),
                  int.from_bytes(transport[2:4], "big"), dscp,
                  transport[13] if protocol == TCP else 0, frames, size,
                  transport[header:header + 8])


# All but IPv4's TCP to port 80, of which there may be too much to be recorded.
NOT_THE_FLOOD = b"".join(struct.pack("=HBBI", *step) for step in (
    (0x28, 0, 0, 12), (0x15, 0, 5, 0x0800), (0x30, 0, 0, 23), (0x15, 0, 3, TCP), (0x28, 0, 0, 36),
    (0x15, 0, 1, 80), (0x06, 0, 0, 0), (0x06, 0, 0, 65535)))


class Arrivals:
    """What comes in at an interface, from now on."""

    def __init__(self, netns=None, interface="eth0"):
        steps = ctypes.create_string_buffer(NOT_THE_FLOOD)
        filtered = struct.pack("HP", len(NOT_THE_FLOOD) // 8, ctypes.addressof(steps))
        with namespace(netns):
            self._socket = packet_socket(
                interface, (SOL_PACKET, VNET_HDR, 1), (SOL_PACKET, IGNORE_OUTGOING, 1),
                *((socket.SOL_SOCKET, *option) for option in (
                    (SO_RCVBUFFORCE, 32 << 20), (SO_TIMESTAMPNS, 1), (SO_ATTACH_FILTER, filtered))))
        self._socket.settimeout(0.1)
        self._packets = Record("packets")
        self._open = True
        self._thread = threading.Thread(target=self._receive, daemon=True)
        self._thread.start()

    def _receive(self):
        while self._open:
            try:
                record, ((_, _, stamp), *_), _, _ = self._socket.recvmsg(200, 64)
            except OSError:  # nothing came, or the interface goes
                continue
            seconds, nanoseconds = struct.unpack("ll", stamp)
            if packet := parse(record, seconds + nanoseconds / 1e9):
                self._packets.add(packet)

    def close(self):
        self._open = False
        self._thread.join()
        self._socket.close()

    def __len__(self):
        return len(self._packets)

    def all(self):
        return self._packets.items[:]

    def lost(self):
        """How many it didn't record since this was asked last."""
        return struct.unpack("II", self._socket.getsockopt(SOL_PACKET, PACKET_STATISTICS, 8))[1]

    def of(self, port, version=None, protocol=None, *, since=0.0, source=None):
        """The packets of one of the applications, or of one flow."""
        return [packet for packet in self._packets.items
                if port in (packet.src_port, packet.dst_port) and packet.at >= since
                and version in (None, packet.version) and protocol in (None, packet.protocol)
                and source in (None, packet.src_port)]

    def wait(self, wanted, **how):
        return self._packets.wait(wanted, **how)

    def rate(self, port, version, protocol, start, end):
        """In bit/s."""
        return sum(packet.size for packet in self.of(port, version, protocol)
                   if start <= packet.at < end) * 8 / (end - start)

    def up_to(self, moment):
        """All packets, once there is one that came at that moment or later."""
        wait_until(lambda: self._packets.items and self._packets.items[-1].at >= moment)
        return self._packets.items[:]


def passed_by_bucket(packets, bytes_per_second, burst, begins, ends):
    """The bytes of those between two moments that a token bucket, full at first, lets pass."""
    tokens, filled, passed = burst, 0, 0
    for packet in packets:
        tokens = min(burst, tokens + (packet.at - filled) * bytes_per_second)
        filled = packet.at
        if tokens > 0:
            tokens -= packet.size
            passed += packet.size if begins <= packet.at < ends else 0
    return passed


class Sender(threading.Thread):
    """Numbered datagrams of one flow, one each `interval`, until it is stopped. One that is late
    makes up for it."""

    def __init__(self, connected, interval=0.001, size=8):
        super().__init__(daemon=True)
        self.socket, self._interval, self._padding = connected, interval, bytes(size - 8)
        self.times = []  # when each was sent, or a little before
        self._on = True
        self.start()

    def run(self):
        begun = time.monotonic()
        while self._on:
            at = time.time()
            try:
                self.socket.send(struct.pack(">Q", self.sent) + self._padding)
            except ConnectionRefusedError:
                continue  # an ICMP message about the one before
            self.times.append(at)
            time.sleep(max(0, begun + self.sent * self._interval - time.monotonic()))

    @property
    def sent(self):
        return len(self.times)

    def send_more(self, count):
        """The number of the first of as many more."""
        first = self.sent
        wait_until(lambda: self.sent >= first + count)
        return first

    def stop(self):
        """How many it sent."""
        self._on = False
        self.join()
        return self.sent

    close = stop


class InlineTest(SystemTest):
    bridged = False
    inspections = "[]"
    lost_percent = 0   # of the frames between the client and the access point
    slips_through = 1  # of a denied flow's packets, before it is judged

    def setUp(self):
        with open("/proc/self/uid_map") as file:
            if file.read().split() != ["0", "0", "4294967295"]:
                self.skipTest("the gate takes root of the machine itself")
        super().setUp()

    def start(self, enforce="", *options, wire_ms=0, rules=RULES):
        """All of it, and the policy is in force."""
        self._lay_out(wire_ms)
        self.configure(enforce)
        self.options = options
        self.start_avcore()
        self.jorn = self.start_daemon()
        self.assertEqual(jornctl("apply", "-", document=policies(rules))[::2], (0, ""))
        self.at_server = Arrivals("server")
        self.addCleanup(self.at_server.close)
        self.at_client = Arrivals("client")
        self.addCleanup(self.at_client.close)
        self.marker = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
        self.addCleanup(self.marker.close)
        self.marker.bind(("eth0", 0))
        self.marks = 0
        for version in FAMILIES if DENIED in rules else ():
            self.until(lambda: self.is_shut(version))

    def configure(self, enforce):
        write_file(CONFIG, f"[client]\nutp_id = 1\nfilter_type = {self.inspections}\n"
                   f"[uplink]\nutp_id = 2\n[enforce]\n{enforce}\n")

    def configure_anew(self, enforce):
        self.configure(enforce)
        self.avcore.send_signal(signal.SIGHUP)

    def start_avcore(self):
        self.lines = Record("lines of avcore")
        with open(REPORT, "w") as report:
            self.avcore = subprocess.Popen(
                [jorn_path("avcore"), "-o", FEED, "--inline", "wlan0", *self.attach(), "-c", CONFIG,
                 "--json", *self.options], stdout=report, stderr=subprocess.PIPE, text=True)
        threading.Thread(target=self._read, args=(self.avcore.stderr, self.lines), daemon=True).start()
        self.addCleanup(self.stop_avcore, self.avcore)
        wait_for_listener(AV_SOCKET)

    def attach(self):
        """Routed as the kernel has it, bridged the older way, so that both are tried."""
        return ("--attach", "clsact") if self.bridged else ()

    def _read(self, stream, lines):
        with stream:
            for line in stream:
                lines.add(line.strip())

    def reported_flows(self):
        """By the server's port and the client's address, once avcore has ended."""
        self.stop_avcore(self.avcore)
        with open(REPORT) as report:
            return {(row["server_port"], row["client"]): row for row in map(json.loads, report)}

    def stop_avcore(self, avcore):
        if avcore.poll() is None:
            avcore.terminate()
            self.assertEqual(avcore.wait(DEADLINE), 0)

    def start_daemon(self):
        daemon = self.daemon()
        wait_for_listener(COMMAND_SOCKET)
        return daemon

    def until(self, done):
        ends = time.monotonic() + DEADLINE
        while not (found := done()):
            self.assertLess(time.monotonic(), ends, self.lines.items[-20:])
            time.sleep(PAUSE)
        return found

    def status(self):
        done = subprocess.run([jorn_path("avcore"), "status", "--json"], capture_output=True,
                              text=True, check=True)
        return json.loads(done.stdout)

    # The network.

    def _lay_out(self, wire_ms):
        for name, value in (("ipv4/ip_forward", 1), ("ipv6/conf/all/forwarding", 1),
                            ("ipv6/conf/default/accept_dad", 0)):
            set_switch(None, name, value)
        self.addCleanup(self._tear_down)
        if self.bridged:
            add_bridge("br0")
        self._add_station("client", "wlan0", 0, CLIENTS)
        self._add_station("server", "eth0", wire_ms, SERVERS, NAMED)
        for port, addresses in GATEWAYS.items():
            add_addresses(None, "br0" if self.bridged else port, *addresses)
        for port in (DENIED, ALLOWED, SWITCHED, SHOP):
            self.addCleanup(self.bind("server", socket.SOCK_DGRAM, "::", port).close)

    def _add_station(self, netns, port, wire_ms, *addresses):
        """To the access point's port. Bridged, all stations are neighbours."""
        add_namespace(netns)
        self._connect(netns, port, wire_ms)
        self.join(netns, port, *addresses)

    def join(self, netns, port, *addresses):
        """By an interface that is there."""
        for each in addresses:
            add_addresses(netns, "eth0", each[4] + "/32", each[6] + "/128")
        for address in GATEWAYS[port]:
            gateway = address.split("/")[0]
            ip(netns, "route", "add", gateway, "dev", "eth0")
            ip(netns, "route", "add", "::/0" if ":" in gateway else "0.0.0.0/0",
               *(() if self.bridged else ("via", gateway)), "dev", "eth0")

    def _connect(self, netns, port, wire_ms):
        """The port, and the station's eth0."""
        bridge = "br0" if self.bridged else None
        lost_percent = self.lost_percent if netns == "client" else 0
        if wire_ms or lost_percent:
            wire = plug_far(port, netns, "eth0", wire_ms or 1, bridge, lost_percent=lost_percent)
            # From one processor, or the kernel might swap frames behind where a test sees them.
            os.sched_setaffinity(wire.pid, {min(os.sched_getaffinity(wire.pid))})
            self.addCleanup(wire.wait)
            self.addCleanup(wire.kill)
        else:
            plug(port, netns, "eth0", bridge)

    def _tear_down(self):
        subprocess.run([jorn_path("avcore"), "teardown"], capture_output=True)
        for link in ("wlan0", "wlan1", "eth0", "br0"):
            subprocess.run(["ip", "link", "del", link], capture_output=True)
        for netns in ("client", "server", "wire"):
            subprocess.run(["ip", "netns", "del", netns], capture_output=True)

    # Flows.

    def bind(self, netns, kind, address, port):
        with namespace(netns):
            bound = socket.socket(socket.AF_INET6 if ":" in address else socket.AF_INET, kind)
        if ":" in address:
            bound.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, address != "::")
        bound.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        bound.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
        bound.settimeout(DEADLINE)
        bound.bind((address, port))
        return bound

    def connected(self, kind, address, port, source=0):
        """A client's socket."""
        client = self.bind("client", kind, CLIENTS[6 if ":" in address else 4], source)
        self.addCleanup(client.close)
        client.connect((address, port))
        return client

    def server_at(self, kind, version, port):
        """A server's socket."""
        server = self.bind("server", kind, SERVERS[version], port)
        self.addCleanup(server.close)
        if kind == socket.SOCK_STREAM:
            server.listen(100)
        return server

    def pair(self, kind, version, port):
        """Both ends of a flow."""
        server = self.server_at(kind, version, port)
        client = self.connected(kind, SERVERS[version], port)
        if kind == socket.SOCK_STREAM:
            accepted = server.accept()[0]
            server.close()
            self.addCleanup(accepted.close)
            accepted.settimeout(DEADLINE)
            return client, accepted
        client.send(b"hello")
        server.connect(server.recvfrom(8)[1])
        return client, server

    def talk(self, address, port, interval=0.001):
        """A client's flow of datagrams; nobody answers."""
        sender = Sender(self.connected(socket.SOCK_DGRAM, address, port), interval)
        self.addCleanup(sender.stop)
        return sender

    def raw(self, interface="eth0"):
        """A function that sends a packet behind tags, as the client's or of another MAC address."""
        with namespace("client"):
            out = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
        self.addCleanup(out.close)
        with namespace("client"):
            out.bind((interface, 0))
        next_hop = "-n server link show eth0" if self.bridged else "link show wlan0"
        receiver, client = (mac(link_address(*words.split()))
                            for words in (next_hop, "-n client link show eth0"))
        return lambda packet, tags=b"", sender=client: out.send(
            receiver + sender + tags + (b"\x08\x00" if packet[0] >> 4 == 4 else b"\x86\xdd") + packet)

    def tell_name(self, version, name, address):
        """The client asks for an address, and a server answers."""
        with self.bind("server", socket.SOCK_DGRAM, SERVERS[version], 53) as resolver:
            client = self.connected(socket.SOCK_DGRAM, SERVERS[version], 53)
            answer = dns_answer(name, "cdn.example", address)
            client.send(answer[:2] + b"\1\0\0\1\0\0\0\0\0\0" + dns_name(name) +
                        struct.pack(">HH", 28 if ":" in address else 1, 1))
            resolver.sendto(answer, resolver.recvfrom(512)[1])
        client.recv(512)

    def arrived(self, flow):
        """The numbers of a client's datagrams that have come through so far."""
        self.marks += 1
        mark, since = struct.pack(">Q", self.marks), len(self.at_server)
        self.marker.send(ethernet(0x88B5, mark))
        self.at_server.wait(lambda packet: packet.version is None and packet.payload == mark,
                            since=since)
        version = 6 if flow.family == socket.AF_INET6 else 4
        return sorted(int.from_bytes(packet.payload, "big") for packet in self.at_server.of(
            flow.getpeername()[1], version, UDP, source=flow.getsockname()[1]))

    def is_stopped(self, flow, count=20):
        """Whether none of its next datagrams comes through."""
        first = flow.send_more(count)
        return max(self.arrived(flow.socket), default=0) < first

    def is_shut(self, version, port=DENIED):
        """Whether a new flow is stopped before its second datagram, once the first was judged."""
        client = self.connected(socket.SOCK_DGRAM, SERVERS[version], port)
        denied, ends = self.status()["verdicts"]["deny"], time.monotonic() + 2
        client.send(struct.pack(">Q", 0))
        while self.status()["verdicts"]["deny"] == denied:
            if time.monotonic() > ends:
                return False
            time.sleep(PAUSE)
        client.send(struct.pack(">Q", 1))
        return self.arrived(client) == list(range(self.slips_through))

    def settle(self, *flows):
        """Until all of them are decided."""
        def are_decided():
            before = self.status()["counts"]["undecided"]
            for flow in flows:
                flow.send_more(20)
            return self.status()["counts"]["undecided"] == before
        self.until(are_decided)

    def ping(self, address):
        """The answers to three."""
        done = subprocess.run([*inside("client"), "ping", "-q", "-c", "3", "-i", "0.1", "-W", "1",
                               address], capture_output=True, text=True)
        return int(done.stdout.split(" received")[0].split()[-1])
