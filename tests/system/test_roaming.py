"""Command 9 and the message bus: what the daemon publishes, what it takes from peers, and stations
that roam between whole access points."""
import ipaddress
import re

from access_points import *
from records import DNS_SHOW, jornctl

BUS_SOCKET = "/var/run/av_bus.sock"
SUBSCRIBE, ADD_PEER, PUBLISH, DELIVER = 1, 2, 3, 4
TOPIC = b"RflowRoamInfo"
NOTIFY = 9
STATION, HERE, THERE = "02:00:00:00:0a:0b", "00:1a:2b:00:00:01", "00:1a:2b:3c:4d:5e"
PEER = b"AP.00:1A:2B:3C:4D:5E"


def notify(to, *, station=STATION):
    """A notify about a station that went to `to`, an address or a number for an unknown family."""
    address = ipaddress.ip_address(to) if isinstance(to, str) else None
    family = {4: 2, 6: 10}[address.version] if address else to
    v4 = address.packed if family == 2 else bytes(4)
    v6 = address.packed if family == 10 else bytes(16)
    return struct.pack("=6s6s6sH4s4s16s4sH6s4s16s", mac(station), mac(HERE), mac(THERE), 2, b"",
                       bytes((192, 0, 2, 1)), b"", b"", family, b"", v4, v6)


def roam_flow(name, *addresses, server_index=1):
    client, server = (addresses if len(addresses) == 2 else ("10.0.0.2", *addresses))
    return struct.pack("=II12x2s4x2s2s2s4x4s4s24x64s", server_index, 0xBEEF, b"\x01\x02",
                       b"\x03\x04", struct.pack(">H", 40001), struct.pack(">H", 443),
                       socket.inet_aton(client), socket.inet_aton(server), name)


def message(*flows, count=None):
    return struct.pack("=I", len(flows) if count is None else count) + b"".join(flows)


def names_in(listing):
    """Names by address."""
    return dict(zip(re.findall("dst ip: (.*)", listing),
                    re.findall("application name: (.*)", listing)))


class Bus:
    """The far end of the bus socket."""

    def __init__(self):
        self.messages = Record("bus messages")
        self.connection = None
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self._listener.bind(BUS_SOCKET)
        self._listener.listen()
        threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self):
        with contextlib.suppress(OSError):  # closed
            self.connection = self._listener.accept()[0]
            while datagram := self.connection.recv(65536):
                self.messages.add((struct.unpack_from("=I", datagram)[0], datagram[4:]))

    def deliver(self, payload, *, sender=b"AP.peer", topic=TOPIC, kind=DELIVER):
        self.connection.send(struct.pack("=I64s64s", kind, sender, topic) + payload)

    def close(self):
        for end in (self._listener, self.connection):
            if end:
                end.shutdown(socket.SHUT_RDWR)
                end.close()
        os.unlink(BUS_SOCKET)


class Messages(SystemTest):
    def started(self, *options):
        platform, bus = self.platform(), Bus()
        self.addCleanup(bus.close)
        daemon = self.daemon("-d", *options)
        self.wait_until_judging()
        kind, body = bus.messages.wait(lambda m: True)
        self.assertEqual((kind, body), (SUBSCRIBE, struct.pack("=32s64s64s", b"jorn", b"*", TOPIC)))
        return platform, bus, daemon

    def listed(self, *, until):
        """The DNS listing, once it has this address."""
        return wait_until(lambda: until in (found := names_in(command(DNS_SHOW).decode())) and found,
                          f"{until} isn't listed")

    def test_what_a_notify_publishes(self):
        platform, bus, daemon = self.started()
        one = roam_flow(b"one.example", "198.51.100.1")
        for what, to, rc, answer, published, says in (
                ("IPv4", "192.0.2.9", 0, message(one), message(one), None),
                ("IPv6", "2001:db8::9", 0, message(one, one), message(one, one), None),
                ("128", "192.0.2.9", 0, message(*[one] * 128), message(*[one] * 128), None),
                ("a count of 129 is the first 128", "192.0.2.9", 0,
                 message(*[one] * 128, count=129), message(*[one] * 128), None),
                ("none", "192.0.2.9", 0, message(), None, "need to be synchronized is 0"),
                ("fewer than counted", "192.0.2.9", 0, message(one, count=2), None,
                 "psms_rflow_get_roam error rc =-1"),
                ("refused", "192.0.2.9", 7, b"", None, "psms_rflow_get_roam error rc =7"),
                ("no family", 0, 0, message(one), None, "sync to peer AP failed, ret is 26")):
            with self.subTest(what):
                asked = []
                platform.answers[OP_ROAM] = lambda body: (asked.append(body), (rc, answer))[1]
                since, lines = len(bus.messages), len(daemon.lines)
                if to:
                    jornctl("roam", "--station", STATION.upper(), "--to", THERE, "--address", to,
                            "--from", HERE, "--from-address", "192.0.2.1")
                else:
                    command(NOTIFY, notify(to))
                self.assertEqual(asked, [notify(to)])
                if says:
                    daemon.wait_line(says, since=lines)
                    self.assertEqual(bus.messages.items[since:], [])
                    continue
                bus.messages.wait_length(since + 2)
                self.assertEqual(bus.messages.items[since:], [
                    (ADD_PEER, struct.pack("=64s48s", PEER, to.encode())),
                    (PUBLISH, struct.pack("=64s64s", PEER, TOPIC) + published)])
        for line in ("station mac:2:0:0:0:A:B", "AP mac (roam to):0:1A:2B:3C:4D:5E",
                     "AP IP family (roam to): Unknown", "AP IPv6 (roam to): 2001:db8::9",
                     "1: 0102 0304       10.0.0.2 198.51.100.1   40001   443     BEEF     "
                     "                    one.example"):
            self.assertTrue(any(line in s for s in daemon.lines.items), line)

    def test_a_bus_that_is_back_before_its_end_was_heard(self):
        platform, bus, daemon = self.started()
        platform.answers[OP_ROAM] = lambda _: (0, message(roam_flow(b"a", "198.51.100.1")))
        tried = time.monotonic()
        wait_until(lambda: time.monotonic() > tried + 1)  # one connection a second
        daemon.send_signal(signal.SIGSTOP)
        wait_until(lambda: ") T " in read_file(f"/proc/{daemon.pid}/stat"))
        bus.close()
        bus.__init__()
        with socket.socket(socket.AF_UNIX) as waiting:
            waiting.connect(COMMAND_SOCKET)
            waiting.sendall(struct.pack("=II8xI", 0, NOTIFY, 76) + notify("192.0.2.9"))
            daemon.send_signal(signal.SIGCONT)
            bus.messages.wait(lambda m: m[0] == PUBLISH)

    def test_a_bus_that_comes_while_packets_do(self):
        self.platform()
        daemon = self.daemon()
        self.wait_until_judging()
        bus = Bus()
        self.addCleanup(bus.close)
        frames = [udp_frame(1, n) for n in range(200)]
        wait_until(lambda: self.judge(frames, burst=50) and bus.messages.items)
        # Behind its packets the loop waits again.
        wait_until(lambda: ") S " in read_file(f"/proc/{daemon.pid}/stat"))

    def test_what_peers_send(self):
        platform, bus, daemon = self.started("-x")  # an unknown option starts all the same
        platform.domains["198.51.100.9"] = (1, 1, 1, "known.example")
        self.judge([ipv4_frame(17, udp(1, 2), dst="198.51.100.9")])
        full = roam_flow(b"n" * 64, "198.51.100.3")
        one = roam_flow(b"x.example", "198.51.100.1")
        for payload in (message(one, count=0), message(one, count=129), message(one, one, count=3),
                        message(one)[:135], b"", b"\1\0", bytes(16901)):
            bus.deliver(payload)
        bus.deliver(message(one), kind=PUBLISH)
        bus.deliver(message(one), topic=b"Other")
        bus.connection.send(b"\4\0\0\0short")
        bus.deliver(message(roam_flow(b"first.example", "203.0.113.1", "198.51.100.2", server_index=0),
                            roam_flow(b"skipped", "198.51.100.8", server_index=2),
                            roam_flow(b"other.example", "198.51.100.9"), full,
                            roam_flow(b"a\nb", "198.51.100.4"),
                            roam_flow(b"", "198.51.100.5")) + b"bytes behind",
                    sender=b"AP.a\nb".ljust(64, b"x"))
        self.assertEqual(self.listed(until="198.51.100.5"), {
            "203.0.113.1": "first.example", "198.51.100.9": "known.example",
            "198.51.100.3": "n" * 63, "198.51.100.4": "a?b", "198.51.100.5": ""})
        for line in ("sync rflow count (0) error!", "sync rflow count (129) error!",
                     "3 flows don't fit into the 268 bytes", "1 flows don't fit into the 135 bytes",
                     "(Debug) what came isn't a message of the bus", "receive RflowRoamInfo from AP.a?bxx"):
            daemon.wait_line(line)


class AccessPoints(unittest.TestCase):
    """A daemon and an avcore each, in namespaces of their own."""

    def setUp(self):
        lay_out()
        self.points = [AccessPoint(number) for number in (1, 2, 3)]
        self.daemons = []
        self.addCleanup(self.end)

    def end(self):
        for each in (*self.daemons, *self.points):
            self.assertEqual(each.stop(), 0, each.lines.items[-20:])
        for each in self.daemons:
            each.kill()

    def start_daemon(self, point):
        self.daemons.append(point.daemon("-d"))
        wait_for_listener(COMMAND_SOCKET, self.daemons[-1].pid)

    def listed(self, point):
        return names_in(point.jornctl("show", "dns"))

    def wait_listed(self, point, entries, before=lambda: None):
        wait_until(lambda: before() or entries.items() <= self.listed(point).items(), entries)

    def talk(self, point, name, address, port):
        """The station learns a name by DNS and talks to its address."""
        frames = (ethernet(0x0800, ipv4(17, udp(53, 1024, dns_answer(name, name, address)), src=SERVER,
                                        dst=CLIENT), src=SERVER_MAC, dst=STATION),
                  ethernet(0x0800, ipv4(6, tcp(port, 443, b"x"), dst=address), src=STATION))
        self.wait_listed(point, {address: name}, before=lambda: point.feed(*frames))

    def roam(self, leaves, reaches):
        leaves.jornctl("roam", "--station", STATION, "--to", reaches.name[3:], "--address",
                       reaches.address)

    def test_names_follow_a_station(self):
        one, two, three = self.points
        self.start_daemon(two)  # before its avcore
        for each in self.points:
            each.start()
        self.start_daemon(one)
        self.start_daemon(three)
        self.talk(two, "known.example", "198.51.100.2", 50002)
        self.talk(one, "one.example", "198.51.100.1", 50001)
        self.talk(one, "renamed.example", "198.51.100.2", 50003)
        self.roam(one, two)
        self.wait_listed(two, {"198.51.100.1": "one.example", "198.51.100.2": "known.example"})

        # Without its avcore the daemon goes on, and with the next one the names arrive again.
        self.assertEqual(two.stop(), 0)
        self.talk(one, "later.example", "198.51.100.3", 50004)
        self.roam(one, two)
        two.start()
        self.wait_listed(two, {"198.51.100.1": "one.example", "198.51.100.2": "known.example",
                               "198.51.100.3": "later.example"})
        two.wait_report("1 received, 1 delivered")
        three.wait_report("0 received, 0 delivered")
        self.assertEqual(self.listed(three), {})

        # It walks on, and takes along what it brought.
        brought = ethernet(0x0800, ipv4(6, tcp(50001, 443, b"x"), dst="198.51.100.1"), src=STATION)
        def walks_on():
            two.feed(brought)
            self.roam(two, three)
        self.wait_listed(three, {"198.51.100.1": "one.example"}, before=walks_on)


if __name__ == "__main__":
    unittest.main()
