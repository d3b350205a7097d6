"""Packets that wait for their flow's verdict, and what becomes of them."""
import concurrent.futures
import fcntl
import itertools
import unittest

from inline_lab import *

HOLD, HOLD_OPEN = (f'fail = "{fail}"\nundecided = "hold"\n' for fail in ("closed", "open"))
PAGES = 8080
PAGE = b"POST / HTTP/1.1\r\nHost: www.open.example\r\nContent-Length: 200000\r\n\r\n" + os.urandom(200_000)
SEGMENT = 1000  # bytes
UDP_SEGMENT = 103
SIOCETHTOOL, ETHTOOL_SGRO = 0x8946, 0x2C
PACKET_AUXDATA, VLAN_VALID = 8, 0x10
KERNEL = tuple(map(int, os.uname().release.split(".")[:2]))


def numbered(number, size=8):
    return struct.pack(">Q", number).ljust(size, b"x")


class Holding:
    slips_through = 0

    def _lay_out(self, wire_ms):
        """With a connection of each family from the time before the gate."""
        super()._lay_out(wire_ms)
        self.sources = itertools.count(20000)  # the kernel's choice may be one that was there before
        self.older = {version: self.pair(socket.SOCK_STREAM, version, ALLOWED)
                      for version in FAMILIES}

    def counts(self):
        return self.status()["counts"]

    def grown(self, before):
        return {key: value - before[key] for key, value in self.counts().items()}

    def wait_for_held(self, lost=0):
        """Until all have gone on or were dropped, but those that are lost for good."""
        self.until(lambda: self.counts()["held_missing"] == lost)

    def configure_anew(self, enforce, **shown):
        generation = self.status()["generation"]
        super().configure_anew(enforce)
        self.until(lambda: (status := self.status()) == status | shown
                   and status["generation"] != generation)

    def stop_for_now(self, program):
        program.send_signal(signal.SIGSTOP)
        self.addCleanup(program.send_signal, signal.SIGCONT)

    def flow(self, address, port=ALLOWED):
        return self.connected(socket.SOCK_DGRAM, address, port, next(self.sources))

    def numbers(self, flow, arrivals=None):
        """Of a flow's datagrams, in the order in which they came."""
        self.arrived(flow)
        version = 6 if flow.family == socket.AF_INET6 else 4
        return [int.from_bytes(packet.payload, "big") for packet in (arrivals or self.at_server).of(
            flow.getpeername()[1], version, UDP, source=flow.getsockname()[1])]

    def listen(self, port):
        """A server that sends back what it was sent."""
        listener = self.bind("server", socket.SOCK_STREAM, "::", port)
        self.addCleanup(listener.close)
        listener.listen(100)

        def answer(connection):
            with connection, contextlib.suppress(OSError):
                connection.sendall(connection.makefile("rb").read())

        def accept():
            with contextlib.suppress(OSError):
                while True:
                    threading.Thread(target=answer, args=(listener.accept()[0],), daemon=True).start()

        threading.Thread(target=accept, daemon=True).start()

    def fetch(self, place):
        """None if the connection was refused, else whether the page came whole."""
        with self.bind("client", socket.SOCK_STREAM, CLIENTS[6 if ":" in place[0] else 4], 0) as client:
            try:
                client.connect(place)
            except ConnectionRefusedError:
                return None
            client.sendall(PAGE)
            client.shutdown(socket.SHUT_WR)
            return client.makefile("rb").read() == PAGE

    def fetch_all(self, places):
        with concurrent.futures.ThreadPoolExecutor(8) as pool:
            return list(pool.map(self.fetch, places))

    def strangers(self):
        """A function that sends the server a datagram of another client, one of 256."""
        send = self.raw()
        return lambda client, source, port=ALLOWED, size=8: send(
            summed(ipv4(UDP, udp(source, port, bytes(size)), src=f"10.2.0.{client}", dst=SERVERS[4])),
            sender=bytes((2, 0, 0, 0, 1, client)))

    def of_strangers(self, first, end):
        """How many of their datagrams have arrived, by the ports that sent them."""
        self.arrived(self.flow(SERVERS[4]))
        return sum(first <= packet.src_port < end for packet in self.at_server.of(ALLOWED, 4, UDP))

    def check_sums(self):
        said = json.loads(subprocess.check_output([*inside("server"), "nstat", "-asj"]))["kernel"]
        self.assertEqual([key for key in said if key.endswith("InCsumErrors") and said[key]], [])

    def test_nothing_of_a_denied_flow_arrives(self):
        self.start(HOLD + "reset = true")
        for port in DENIED, PAGES:
            self.listen(port)
        for version in FAMILIES:
            with self.subTest(version=version):
                since, before = time.time(), self.counts()
                self.tell_name(version, "shop.example", NAMED[version])
                places = [(SERVERS[version], DENIED), (NAMED[version], PAGES)] * 50
                self.assertEqual(self.fetch_all(places), [None] * len(places))
                flows = [self.flow(*place) for place in
                         [(SERVERS[version], DENIED), (NAMED[version], SHOP)] * 30]
                for number in range(4):
                    for flow in flows:
                        flow.send(numbered(number))
                self.wait_for_held()
                self.arrived(flows[0])
                self.assertEqual([packet for port in (DENIED, PAGES, SHOP)
                                  for packet in self.at_server.of(port, version, since=since)], [])
                self.assertGreaterEqual(self.grown(before)["denied"], len(places) + len(flows))

    @counts_rates
    def test_what_is_allowed_comes_whole_and_in_order(self):
        """From a client whose frames are lost and swapped, beside others that open flows."""
        self.lost_percent = 2
        self.start(HOLD_OPEN + "holds = 10000")
        # Beside the wire, which it would keep off its processor otherwise.
        os.sched_setaffinity(self.avcore.pid, {max(os.sched_getaffinity(0))})
        ip("server", "route", "add", "blackhole", "10.2.0.0/16")
        self.listen(ALLOWED)
        at_gate = Arrivals(interface="wlan0")
        self.addCleanup(at_gate.close)
        flows, before = [], self.counts()
        with self.crowd(2000):
            for version in list(FAMILIES) * 10:
                flow = Sender(self.flow(SERVERS[version]), 0.0002)
                flows.append(flow)
                flow.send_more(200)
                flow.stop()
                self.until(lambda: self.numbers(flow.socket))
            places = [(SERVERS[version], ALLOWED) for version in FAMILIES] * 10
            self.assertEqual(self.fetch_all(places), [True] * len(places))
        # Those that are written back come to the interface once more.
        came = [list(dict.fromkeys(self.numbers(flow.socket, at_gate))) for flow in flows]
        self.assertEqual([self.numbers(flow.socket) for flow in flows], came)
        self.assertTrue(any(len(numbers) < flow.sent for flow, numbers in zip(flows, came)))
        self.assertTrue(any(numbers != sorted(numbers) for numbers in came))
        self.assertGreater(self.grown(before)["held"], len(flows) + len(places))
        self.check_sums()

    @contextlib.contextmanager
    def crowd(self, flows_per_second):
        """Four clients that open so many."""
        send, ends = self.strangers(), threading.Event()

        def open_flows():
            begun = time.monotonic()
            for number in itertools.count():
                if ends.wait(max(0, begun + number / flows_per_second - time.monotonic())):
                    return
                send(number % 4, 1024 + number // 4, 80)

        thread = threading.Thread(target=open_flows, daemon=True)
        thread.start()
        try:
            yield
        finally:
            ends.set()
            thread.join()

    def test_what_segmentation_has_joined(self):
        self.start(HOLD)
        for version in FAMILIES:
            with self.subTest(version=version):
                server = self.server_at(socket.SOCK_DGRAM, version, ALLOWED)
                before, short, long = self.counts(), *(self.flow(SERVERS[version]) for _ in range(2))
                for flow in short, long:
                    flow.setsockopt(socket.IPPROTO_UDP, UDP_SEGMENT, SEGMENT)
                datagrams = [numbered(number, SEGMENT) for number in range(50)]
                short.send(b"".join(datagrams[:10]))
                self.assertEqual([server.recv(2 * SEGMENT) for _ in range(10)], datagrams[:10])
                client, accepted = self.older[version]
                client.sendall(PAGE[:9000])
                self.assertEqual(accepted.makefile("rb").read(9000), PAGE[:9000])
                self.assertFalse(any(packet.frames > 1 for packet in self.at_server.of(ALLOWED, version)))
                held = self.grown(before)["held"]
                self.assertGreaterEqual(held, 10 + 7)
                if KERNEL < (5, 11):
                    continue  # veth has the sender cut them
                verdicts = self.status()["verdicts"]
                long.send(b"".join(datagrams))
                self.until(lambda: sum(self.status()["verdicts"].values()) > sum(verdicts.values()))
                long.send(numbered(99))
                self.assertEqual(server.recv(2 * SEGMENT), numbered(99))
                grown = self.grown(before)
                self.assertEqual((grown["held_long"], grown["held"]), (50, held))
        self.check_sums()

    def test_programs_that_are_killed(self):
        self.start(HOLD)
        older = self.talk(SERVERS[4], ALLOWED)
        self.until(lambda: self.arrived(older.socket))
        held = self.counts()["held"]
        self.configure_anew(HOLD)
        older.send_more(20)
        sent = list(range(older.stop()))
        self.assertEqual(self.arrived(older.socket), sent)
        self.assertEqual(self.counts()["held"], held)  # a new generation alone has nothing taken
        for fail, enforce in ("closed", HOLD), ("open", HOLD_OPEN):
            self.configure_anew(enforce, fail=fail)
            for who in "jorn", "avcore":
                with self.subTest(fail=fail, killed=who):
                    self.kill_and_restart(who, fail)

    def kill_and_restart(self, who, fail):
        """While more flows wait than the daemon is shown at once."""
        flows = [self.flow(SERVERS[version]) for version in FAMILIES for _ in range(100)]
        before, begun = self.counts(), time.monotonic()
        self.stop_for_now(self.jorn)
        for flow in flows:
            flow.send(numbered(0))
        self.until(lambda: self.counts()["held"] == before["held"] + len(flows))
        if who == "avcore":
            self.avcore.kill()
            self.avcore.wait()
        else:
            self.jorn.kill()
            self.wait_for_held(before["held_missing"])
        lasted, grown = time.monotonic() - begun, self.grown(before)
        becomes = "held_missing" if who == "avcore" else "back" if fail == "open" else "held_unjudged"
        self.assertTrue(grown[becomes] == len(flows) or who == "avcore" and lasted > 1, grown)
        self.assertEqual(sum(len(self.arrived(flow)) for flow in flows), grown["back"])
        if who == "avcore":
            self.jorn.send_signal(signal.SIGCONT)
            self.start_avcore()
            if fail == "open":
                self.lines.wait(lambda line: all(word in line for word in HOLD.split("\n")))
        else:
            self.jorn = self.start_daemon()
        for version in FAMILIES:
            self.until(lambda: self.is_shut(version))
            self.until(lambda: self.comes_through(version))

    def comes_through(self, version):
        """Slower than a client's bounds, however long the verdict is on its way. False: the machine stood
        for as long as a packet is held."""
        before, flow = self.counts(), self.talk(SERVERS[version], ALLOWED, 0.005)
        flow.send_more(100)
        sent = list(range(flow.stop()))

        def stood():
            grown = self.grown(before)
            return grown["held_unjudged"] or grown["shut"]
        self.until(lambda: self.arrived(flow.socket) == sent or stood())
        self.assertGreater(self.grown(before)["held"], 0)
        return self.arrived(flow.socket) == sent

    @counts_rates
    def test_more_than_can_be_held(self):
        self.start(HOLD + 'holds = 50\nexcess = "pass"')
        send, before = self.strangers(), self.counts()
        beside = [self.flow(SERVERS[4]) for _ in range(10)]
        for number in range(500):
            send(1, 1 + number)
            if number % 50 == 0:
                beside[number // 50].send(numbered(number))
        self.wait_for_held()
        refused = self.grown(before)["holds_refused"]
        self.assertGreater(refused, 250)
        self.assertEqual(self.of_strangers(1, 501), 500 - refused)
        self.assertEqual([self.numbers(flow) for flow in beside], [[n] for n in range(0, 500, 50)])

        self.configure_anew(HOLD, holds=500)
        self.stop_for_now(self.jorn)
        before = self.counts()
        for number in range(500):
            send(2, 1001 + number)
        self.wait_for_held()
        grown = self.grown(before)
        self.assertEqual(grown["held_crowded"] + grown["held_unjudged"], 500, grown)
        self.assertEqual(self.of_strangers(1001, 1501), 0)
        self.jorn.send_signal(signal.SIGCONT)
        self.until(lambda: self.is_shut(4))

        self.stop_for_now(self.avcore)
        before = self.counts()
        for number in range(6000):
            send(16 + number % 16, 2001 + number, size=1400)
        grown = self.grown(before)
        self.avcore.send_signal(signal.SIGCONT)
        self.assertEqual(sum(grown[key] for key in ("held", "holds_lost", "shut")), 6000, grown)
        self.wait_for_held()
        self.assertEqual(self.of_strangers(2001, 8001), self.grown(before)["back"])
        self.until(lambda: self.is_shut(4))
        if not grown["holds_lost"]:
            self.skipTest("the beat ended before the ring was full")


class Routed(Holding, InlineTest):
    pass


class Bridged(Holding, InlineTest):
    bridged = True

    def _connect(self, netns, port, wire_ms):
        """With generic receive offload (GRO), which joins segments, where the client comes in."""
        super()._connect(netns, port, wire_ms)
        order = ctypes.create_string_buffer(struct.pack("=II", ETHTOOL_SGRO, 1))
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
            fcntl.ioctl(any_socket, SIOCETHTOOL, struct.pack("16sP16x", port.encode(),
                                                             ctypes.addressof(order)))

    def test_vlan_tags(self):
        self.start(HOLD)
        with namespace("server"):
            taken = packet_socket("eth0", (SOL_PACKET, PACKET_AUXDATA, 1))
        self.addCleanup(taken.close)
        taken.settimeout(DEADLINE)
        send, before = self.raw(), self.counts()
        for version, tags in itertools.product(FAMILIES, (b"\x81\x00\x20\x07",
                                                          b"\x88\xa8\x00\x09\x81\x00\x00\x07")):
            packet = of_client(version, UDP, udp(next(self.sources), ALLOWED, os.urandom(8)))
            send(packet, tags)
            frame = b""
            while packet not in frame:
                frame, ((_, _, beside), *_), _, _ = taken.recvmsg(2000, 64)
            status, tag, protocol = struct.unpack("=I12xHH", beside)
            if status & VLAN_VALID:
                frame = frame[:12] + struct.pack(">HH", protocol, tag) + frame[12:]
            self.assertEqual((frame[12:12 + len(tags)], frame[14 + len(tags):]), (tags, packet))
        self.assertEqual(self.grown(before)["held"], 4)


del Holding  # its tests are run in both

if __name__ == "__main__":
    unittest.main()
