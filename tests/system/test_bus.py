"""The message bus: avcores in namespaces of their own on one network, and clients on their bus
sockets in the place of daemons. The test itself is a further host of that network."""
import errno
import ssl

from access_points import *

PORT = 5670
TOPIC = "RflowRoamInfo"
PAYLOAD_MAX = 16_900


def wire(sender, topic, payload, length=None):
    body = struct.pack("64s64s", sender.encode(), topic.encode()) + payload
    return struct.pack(">I", len(body) if length is None else length) + body


class BusAccessPoint(AccessPoint):
    """One with clients on its bus socket."""

    def __init__(self, number):
        super().__init__(number)
        self.clients = []

    def client(self):
        self.clients.append(Client(self.bus_socket))
        return self.clients[-1]

    def stop(self):
        while self.clients:
            self.clients.pop().close()
        return super().stop()

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.process.pid}/fd"))

    def resident_kb(self):
        return int(read_file(f"/proc/{self.process.pid}/status").split("VmRSS:")[1].split()[0])


class Client:
    def __init__(self, path):
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self._socket.settimeout(DEADLINE)
        wait_until(lambda: self._socket.connect_ex(path) == 0, path)

    def send(self, kind, *fields, payload=b""):
        sizes = {1: "32s64s64s", 2: "64s48s", 3: "64s64s"}[kind]
        self._socket.send(struct.pack("=I" + sizes, kind, *(f.encode() for f in fields)) + payload)

    def subscribe(self, topic=TOPIC, sender="*"):
        self.send(1, "jorn", sender, topic)
        return self

    def add_peer(self, to, address=None):
        self.send(2, to.name, address or to.address)
        return self

    def publish(self, to, payload, topic=TOPIC):
        self.send(3, to.name, topic, payload=payload)
        return self

    def receive(self):
        """Sender, topic, payload."""
        datagram = self._socket.recv(65536)
        kind, sender, topic = struct.unpack_from("=I64s64s", datagram)
        assert kind == 4, datagram[:132]
        return text_of(sender), text_of(topic), datagram[132:]

    def payloads(self, until):
        """What is received up to the payload `until`, which is among it."""
        received = [self.receive()[2]]
        while received[-1] != until:
            received.append(self.receive()[2])
        return received

    def silent(self):
        return not select.select([self._socket], [], [], 0)[0]

    def close(self):
        self._socket.close()


def make_keys(a, b):
    run(BUS_KEYS, KEYS, a, b, "AP.other")
    run(BUS_KEYS, "/tmp/foreign", a)
    for end in ("pem", "key"):
        os.rename(f"/tmp/foreign/{a}.{end}", f"{KEYS}/foreign.{end}")
    shutil.copy("/tmp/foreign/ca.pem", f"{KEYS}/foreign-ca.pem")
    for name, days in (("expired", "-1"), ("ending", "7")):
        shutil.copy(f"{KEYS}/{a}.key", f"{KEYS}/{name}.key")
        request = subprocess.run(["openssl", "req", "-new", "-key", f"{KEYS}/{name}.key", "-subj",
                                  f"/CN={a}"], check=True, capture_output=True).stdout
        subprocess.run(["openssl", "x509", "-req", "-CA", f"{KEYS}/ca.pem", "-CAkey",
                        f"{KEYS}/ca.key", "-days", days, "-out", f"{KEYS}/{name}.pem"],
                       input=request, check=True, capture_output=True)


class Bus(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        lay_out()
        add_addresses(None, "br0", "10.9.0.254/24")
        make_keys("AP.02:00:00:00:00:01", "AP.02:00:00:00:00:02")

    def setUp(self):
        self.a, self.b, self.c = (BusAccessPoint(number) for number in (1, 2, 3))
        for each in (self.a, self.b, self.c):
            self.addCleanup(self.end, each)

    def end(self, access_point):
        self.assertEqual(access_point.stop(), 0, access_point.lines.items)

    def black_hole(self, on):
        """A's packets to B get lost on the way, and nobody says so."""
        ip("ap1", "neigh", "replace" if on else "del", self.b.address, "dev", "eth0",
           *(("lladdr", "02:ff:00:00:00:00", "nud", "permanent") if on else ()))

    def test_messages_reach_whom_they_are_for(self):
        for each in (self.a, self.b, self.c):
            each.start()
        a = self.a.client().add_peer(self.b).add_peer(self.c, self.c.ipv6)
        b, picky, c = self.b.client().subscribe(), self.b.client(), self.c.client().subscribe()
        picky.subscribe("other").subscribe(sender="AP.nobody")

        sizes = [0, 1, PAYLOAD_MAX, 4] * 50
        for n, size in enumerate(sizes):
            a.publish(self.b, bytes([n]) * size)
            self.assertEqual(b.receive(), (self.a.name, TOPIC, bytes([n]) * size))
        a.publish(self.b, b"of another topic", "other")
        self.assertEqual(picky.receive(), (self.a.name, "other", b"of another topic"))
        self.assertTrue(b.silent() and picky.silent() and c.silent())
        a.publish(self.c, b"over IPv6")
        self.assertEqual(c.receive(), (self.a.name, TOPIC, b"over IPv6"))

        # Refused and dropped: the old address holds, and order is kept.
        for address in ("224.0.0.1", "ap2"):
            a.send(2, self.b.name, address)
        a.publish(self.a, b"to itself").send(3, "AP.stranger", TOPIC, payload=b"where?")
        a.publish(self.b, b"still there")
        self.assertEqual(b.receive()[2], b"still there")
        for line in ("203 for peers, 203 sent", "addresses refused: 2", "own name: 1",
                     "where the peer is: 1"):
            self.a.wait_report(line)

    def test_messages_wait_for_a_peer_that_is_away(self):
        """The newest of them, and they come when it comes back."""
        def refuse():
            self.b.stop()
            return lambda: self.b.start()

        def black_hole():
            descriptors = self.a.descriptors()
            self.black_hole(True)
            self.b.stop()
            self.b.start()  # the old connection ends unheard
            wait_until(lambda: self.a.descriptors() < descriptors, "A finds out by itself")
            return lambda: self.black_hole(False)

        def take_nothing():
            self.b.stop()
            with namespace(self.b.netns):
                listener = socket.create_server((self.b.address, PORT), backlog=1)
            listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)

            def back():
                listener.close()
                self.b.start()
            return back

        for leave in (refuse, black_hole, take_nothing):
            with self.subTest(leave.__name__):
                self.a.start()
                self.b.start()
                a, b = self.a.client().add_peer(self.b), self.b.client().subscribe()
                a.publish(self.b, b"before")
                self.assertEqual(b.receive()[2], b"before")
                come_back = leave()
                b.close()
                sent = [struct.pack("I", n).ljust(PAYLOAD_MAX, b"\0")
                        for n in range(40 if leave is take_nothing else 20)]
                for payload in sent:
                    a.publish(self.b, payload)
                if leave is take_nothing:
                    self.a.wait_line("it takes nothing")
                else:
                    self.a.wait_report("waited for a peer: 4")
                come_back()
                received = self.b.client().subscribe().payloads(sent[-1])
                self.assertEqual(received, sent[-len(received):])
                if leave is not take_nothing:  # a try may lose what the kernel took
                    self.assertEqual(len(received), 16)
                self.a.stop()
                self.b.stop()

    def test_messages_wait_for_a_daemon_that_is_slow_or_away(self):
        self.a.start()
        self.b.start()
        a = self.a.client().add_peer(self.b)
        for n in range(20):
            a.publish(self.b, bytes([n]), "wanted" if n % 2 else "unwanted")
            self.b.wait_report(f"{n + 1} received")
        b = self.b.client().subscribe("wanted")
        self.assertEqual([b.receive()[2][0] for _ in range(8)], list(range(5, 20, 2)))

        # While its socket takes them none is lost; then the newest wait.
        sent = [struct.pack("I", n).ljust(PAYLOAD_MAX, b"\0") for n in range(60)]
        for n, payload in enumerate(sent):
            a.publish(self.b, payload, "wanted")
            self.b.wait_report(f"{n + 21} received")
        received = b.payloads(sent[-1])
        self.assertEqual(received, sent[:len(received) - 16] + sent[-16:])
        self.assertGreater(len(received), 16)
        # What still waits when it goes waits for the next.
        for n, payload in enumerate(sent):
            a.publish(self.b, payload, "wanted")
            self.b.wait_report(f"{n + 81} received")
        b.close()
        self.assertEqual(self.b.client().subscribe("wanted").payloads(sent[-1]), sent[-16:])

    def test_certificates(self):
        """Who isn't what it should be is refused with a line on the side that notices, nothing
        gets through, and when that side is mended the other needs nothing."""
        own_a, own_b = self.a.keys(), self.b.keys()
        rows = [
            # A's files, B's files (its own or those that are mended), who says what
            (self.a.keys("foreign"), own_b, self.b, "from 10.9.0.1 refused: its certificate: "),
            (self.a.keys("expired"), own_b, self.b, "its certificate: certificate has expired"),
            (self.a.keys("AP.other"), own_b, self.b,
             f"a message names the sender {self.a.name}, the certificate AP.other"),
            (own_a, self.b.keys("AP.other"), self.a, "its certificate is of AP.other"),
            (own_a, self.b.keys("foreign"), self.a, "its certificate: "),
            (OPEN, own_b, self.b, "from 10.9.0.1 refused: TLS: wrong version number"),
            (own_a, self.b.keys(authority="foreign-ca"), self.b, "refused: its certificate: "),
            (own_a, OPEN, self.b, "from 10.9.0.1 refused: a message of "),
        ]
        for a_files, b_files, witness, line in rows:
            with self.subTest(line):
                self.a.start(a_files)
                self.b.start(b_files)
                since = len(witness.lines)
                a, b = self.a.client().add_peer(self.b), self.b.client().subscribe()
                a.publish(self.b, b"refused")
                witness.wait_line(line, since)
                self.assertTrue(b.silent())
                if b_files == own_b:
                    self.a.stop()
                    a = self.a.start(own_a).client().add_peer(self.b)
                else:
                    self.b.stop()
                    b = self.b.start(own_b).client().subscribe()
                a.publish(self.b, b"taken")
                self.assertEqual(b.payloads(b"taken")[0], b"taken" if b_files == own_b else b"refused")
                said = [each for each in witness.lines.items[since:] if line in each]
                self.assertEqual(len(said), 1, said)
                self.a.stop()
                self.b.stop()

    def test_what_is_wrong_with_the_files_is_said_at_the_start(self):
        os.chmod(f"{KEYS}/AP.other.key", 0o644)
        self.addCleanup(os.chmod, f"{KEYS}/AP.other.key", 0o600)
        for files, line, status in (
                (self.a.keys("AP.other"), "chmod 600", 1),
                (self.a.keys("absent"), "absent.pem: No such file", 1),
                (self.a.keys(authority="absent"), "absent.pem: No such file", 1),
                (self.a.keys().replace(f"{self.a.name}.key", f"{self.b.name}.key"), "key values mismatch", 1),
                (OPEN, "bus: insecure = true: without certificates whoever reaches port 5670", 0),
                (OPEN + 'listen = "10.9.0.9:5670"', "Cannot assign requested address", 1),
                (self.a.keys("ending"), "the certificate ends in 6 days", 0),
                (self.a.keys("expired"), "the certificate has ended", 0),
                (self.a.keys(self.b.name), f"is of {self.b.name}, this is {self.a.name}", 0)):
            with self.subTest(line):
                since = len(self.a.lines)
                self.a.start(files)
                self.a.wait_line(line, since)
                self.assertEqual(self.a.stop() if status == 0 else self.a.status(), status)

    def test_who_reaches_the_bus(self):
        """Nobody where there is no [bus], and without certificates this machine alone."""
        def refused(family, address):
            with socket.socket(family) as stranger:
                return stranger.connect_ex((address, PORT)) == errno.ECONNREFUSED

        for bus in (None, 'listen = "127.0.0.1:5670"'):
            self.a.start(bus)
            self.a.wait_report("frames")
            with namespace(self.a.netns):
                self.assertTrue(refused(socket.AF_INET, self.a.address))
                self.assertTrue(refused(socket.AF_INET6, self.a.ipv6))
                self.assertEqual(refused(socket.AF_INET, "127.0.0.1"), bus is None)
            self.assertEqual(os.path.exists(self.a.bus_socket), bus is not None)
            if bus is None:
                self.a.stop()
        with namespace(self.a.netns):
            listener = socket.create_server(("127.0.0.2", PORT))
        a = self.a.client().add_peer(self.c, "127.0.0.2")
        a.add_peer(self.b).publish(self.b, b"out").publish(self.c, b"in").add_peer(self.c)
        with listener, listener.accept()[0] as accepted:
            expected = wire(self.a.name, TOPIC, b"in")
            self.assertEqual(accepted.recv(len(expected), socket.MSG_WAITALL), expected)
        self.a.wait_line(f'refused the address "{self.b.address}", for without certificates')
        self.a.wait_report("addresses refused: 2")

    def stranger(self):
        """A connection to B, whose bus may have opened for its own daemon alone so far."""
        def connect():
            with contextlib.suppress(ConnectionRefusedError):
                return socket.create_connection((self.b.address, PORT), DEADLINE)
        return wait_until(connect, "B listens")

    def test_strangers_on_an_open_bus(self):
        self.a.start()
        self.b.start()
        a, b = self.a.client().add_peer(self.b), self.b.client().subscribe()
        refused = 0
        for length in (0, 127, 17_029, 0xFFFF_FFFF):
            since = len(self.b.lines)
            with self.stranger() as stranger:
                stranger.sendall(struct.pack(">I", length))
                self.assertEqual(stranger.recv(1), b"", length)
            refused += 1
            self.b.wait_line(f"refused: a message of {length} bytes", since)
        dribbled = wire("AP.x", TOPIC, b"dribbled")
        pieces = [dribbled[n:n + 1] for n in range(8)]
        for step, rest, arrives in ((0.003, [dribbled[8:]], True), (0.4, [], False)):
            with socket.create_connection((self.b.address, PORT), DEADLINE) as stranger, \
                    contextlib.suppress(ConnectionError):
                for piece in pieces + rest:
                    stranger.send(piece)
                    time.sleep(step)
            if arrives:
                self.assertEqual(b.receive(), ("AP.x", TOPIC, b"dribbled"))
        self.b.wait_report("in two seconds: 1")
        # One that was let in may be silent, and goes after those that weren't.
        friend = socket.create_connection((self.b.address, PORT), DEADLINE)
        friend.sendall(wire("AP.x", TOPIC, b"first"))
        self.assertEqual(b.receive()[2], b"first")
        self.flood(a, b)
        friend.sendall(wire("AP.x", TOPIC, b"second"))
        self.assertEqual(b.receive()[2], b"second")
        friend.close()

    def test_strangers_on_a_secured_bus(self):
        self.a.start(self.a.keys())
        self.b.start(self.b.keys())
        a, b = self.a.client().add_peer(self.b), self.b.client().subscribe()
        context = ssl.create_default_context(cafile=f"{KEYS}/ca.pem")
        context.check_hostname = False
        with self.stranger() as stranger:
            with self.assertRaises(ssl.SSLError), context.wrap_socket(stranger) as secured:
                secured.recv(1)
        self.b.wait_line("refused: TLS: peer did not return a certificate")
        self.flood(a, b)

    def flood(self, a, b):
        """A thousand silent connections and some that never come to an end, all held open as long
        as B lets them; meanwhile what A sends arrives."""
        a.publish(self.b, b"before")
        self.assertEqual(b.receive()[2], b"before")
        descriptors, memory = self.b.descriptors(), self.b.resident_kb()
        with contextlib.ExitStack() as held:
            for n in range(1000):
                stranger = held.enter_context(
                    socket.create_connection((self.b.address, PORT), DEADLINE))
                if n % 100 == 0:
                    stranger.settimeout(0.01)
                    with contextlib.suppress(OSError):
                        stranger.sendall(wire("AP.x", "junk", bytes(PAYLOAD_MAX)) * 20)
                    a.publish(self.b, struct.pack("I", n))
                    self.assertEqual(b.receive()[2], struct.pack("I", n))
                    self.assertLess(self.b.descriptors(), descriptors + 40)
        self.b.wait_report("gave way")
        self.assertLess(self.b.resident_kb() - memory, 8192)


if __name__ == "__main__":
    unittest.main()
