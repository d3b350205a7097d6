"""Flows for collectors, as one gets them that knows nothing but the templates that it was sent."""
import fcntl
import random
import struct
import termios

from test_history import *

BYTES, PACKETS, DROPPED, APPLICATION, NAME, STATION = 1, 2, 133, 95, 96, 365


class Collector:
    """Takes messages of IPFIX (RFC 7011), each whole and in its order or the test fails. One that
    comes late doesn't know what it missed."""

    is_late = False  # what came before may be missing

    def __init__(self, port=0, is_late=False, host="127.0.0.1"):
        self.is_late = is_late
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 8_000_000)
        self.socket.bind((host, port))
        self.port = self.socket.getsockname()[1]
        self.begin()
        threading.Thread(target=self.listen, daemon=True).start()

    def begin(self):
        self.templates, self.names, self.records, self.options = {}, {}, [], []
        self.sequence, self.wrong = None, []

    def listen(self):
        with contextlib.suppress(OSError):
            while message := self.socket.recv(65_536):
                try:
                    self.take(message)
                except Exception as error:
                    self.wrong.append((repr(error), message.hex()))

    def take(self, message):
        version, length, _, sequence, domain = struct.unpack_from(">HHIII", message)
        assert (version, length, domain) == (10, len(message), 1) and length <= 1_372
        if sequence == 0:
            self.sequence = 0  # a new start
        assert self.sequence in (None, sequence), (self.sequence, sequence)
        self.sequence, at = sequence, 16
        while at < len(message):
            number, size = struct.unpack_from(">HH", message, at)
            content = message[at + 4:at + size]
            assert len(content) == size - 4
            self.learn(content, number == 3) if number < 256 else self.read(number, content)
            at += size

    def learn(self, content, is_options):
        at = 0
        while at < len(content):
            number, count = struct.unpack_from(">HH", content, at)
            at += 6 if is_options else 4
            fields = []
            for _ in range(count):
                element, size = struct.unpack_from(">HH", content, at)
                at += 8 if element & 0x8000 else 4
                fields.append((element, size))
            self.templates[number] = fields

    def read(self, number, content):
        if self.is_late and not self.templates:
            self.sequence = None
            return
        fields, at = self.templates[number], 0
        while at < len(content):
            record = {}
            for element, size in fields:
                record[element] = content[at:at + size]
                assert len(record[element]) == size
                at += size
            self.sequence += 1
            if NAME in record:
                name = record[NAME].rstrip(b"\0").decode()
                assert self.names.setdefault(record[APPLICATION], name) == name, "a number means two"
            (self.options if number >= 264 else self.records).append(record)

    def sums(self):
        """Bytes, packets and dropped packets by application; each is explained before it is used."""
        sums = {}
        for record in list(self.records):
            name = self.names.get(record[APPLICATION]) if self.is_late else self.names[record[APPLICATION]]
            total = sums.setdefault(name, [0, 0, 0])
            for i, element in enumerate((BYTES, PACKETS, DROPPED)):
                total[i] += int.from_bytes(record[element], "big")
        return sums


def table(port, more="", host="127.0.0.1"):
    return f'[[export]]\nipfix = "udp://{host}:{port}"\nactive_timeout = 1\ninactive_timeout = 1\nrefresh = 2\n{more}\n'


class Export(Served):
    def export(self):
        return {each["to"]: each for each in json.loads(self.avwatch("status", "--json"))["history"]["exports"]}

    def equal(self, collector, expected):
        with contextlib.suppress(AssertionError):
            wait_until(lambda: collector.sums() == expected)
        self.assertEqual(collector.sums(), expected)
        self.assertEqual(collector.wrong, [])

    def traffic(self, rng, counts, avcore):
        for number in rng.sample(sorted(counts), 10):
            for i in range(4):
                counts[number][i] += rng.randrange(1, 5_000)
            avcore.tell({"flow": self.flow(number, counts[number])})
        avcore.flows = [self.flow(number, each) for number, each in counts.items()]

    @staticmethod
    def flow(number, counts, **members):
        return flow(number) | {"up": counts[:2], "down": counts[2:], "last_us": int(time.time() * 1e6)} | members

    @staticmethod
    def expected(counts):
        sums = {}
        for number, each in counts.items():
            total = sums.setdefault(f"app{number % 3}", [0, 0, 0])
            total[0] += each[1] + each[3]
            total[1] += each[0] + each[2]
        return sums

    def test_each_count_once_over_the_death_of_either(self):
        collector = Collector()
        self.configure(table(collector.port))
        rng, counts = random.Random(5), {number: [0, 0, 0, 0] for number in range(30)}
        avcore = Avcore(self.socket)
        self.serve()
        for turn in range(9):
            self.traffic(rng, counts, avcore)
            time.sleep(rng.random() * 2)
            if turn % 3 == 0:
                self.stop()
                avcore.following.clear()
                self.serve()
            elif turn % 3 == 1:
                avcore.kill()
                avcore = Avcore(self.socket, avcore.flows)
        avcore.tell(*({"flow": self.flow(number, each, ended="fin")} for number, each in counts.items()),
                    {"sum": {"client_mac": MAC.format(1), "application": "late", "verdict": "deny", "flows": 2,
                             "up": [1, 10], "down": [1, 5], "dropped": [4, 0]}})
        self.equal(collector, self.expected(counts) | {"late": [15, 2, 4]})
        self.assertEqual(self.export()[f"udp://127.0.0.1:{collector.port}"]["failed"], 0)
        self.stop()

        # Killed: what wasn't sent is lost, and nothing comes twice.
        collector.begin()
        counts = {number: [0, 0, 0, 0] for number in range(100, 130)}
        avcore.flows = []
        avcore.following.clear()
        self.serve()
        for _ in range(5):
            self.traffic(rng, counts, avcore)
            time.sleep(rng.random() * 3)
            self.server.kill()
            self.server.wait()
            avcore.following.clear()
            self.serve()
        self.traffic(rng, counts, avcore)
        self.stop()
        time.sleep(0.5)
        sums, most = collector.sums(), self.expected(counts)
        for application, (octets, packets, _) in sums.items():
            self.assertLessEqual((octets, packets), tuple(most[application][:2]))
        self.assertGreater(sum(each[1] for each in sums.values()), sum(each[1] for each in most.values()) / 4)
        self.assertEqual(collector.wrong, [])

    def test_a_locked_history(self):
        """What isn't stored isn't sent, or the next run would count and send it again."""
        collector = Collector()
        self.configure(table(collector.port))
        avcore = Avcore(self.socket)
        self.serve()
        avcore.tell({"flow": self.flow(1, [1, 100, 0, 0])})
        wait_until(lambda: collector.sums() == {"app1": [100, 1, 0]})
        with contextlib.closing(sqlite3.connect(self.history, isolation_level=None)) as other:
            other.execute("BEGIN IMMEDIATE")
            avcore.tell({"flow": self.flow(1, [2, 300, 0, 0])}, ended(3, 5_000))
            time.sleep(2)
            self.assertIn("locked", self.stop())
        self.assertEqual(collector.sums(), {"app1": [100, 1, 0]})
        avcore.flows = [self.flow(1, [3, 600, 0, 0]), ended(3, 5_000)["flow"]]
        self.serve()
        self.equal(collector, {"app1": [600, 3, 0], "app0": [5_000, 50, 0]})
        self.stop()

    def test_names_and_what_is_said_of_clients(self):
        everything, little = Collector(), Collector()
        self.configure('names = "full"\n' + table(everything.port, "enterprise = 99999\naccess_point = \"02:00:00:00:00:AA\"") +
                       table(little.port, 'clients = false\nnames = "domain"'))
        avcore = Avcore(self.socket)
        self.serve()
        dpi, dns = {"named_by": "dpi", "app_id": 124, "cat_id": 1}, {"named_by": "dns"}
        avcore.tell(
            ended(1, 100, 1_000, application="youtube", why=dpi, dscp=[46, 8], interface="lo"),
            ended(2, 500, 0, application="www.example.co.uk", why=dns, client="2001:db8::2"),
            ended(3, 300, 0, application="n\x1b\n\u202e" + "\u20ac" * 100, why=dns),
            ended(4, 700, 0, application="", verdict="deny", dropped=[9, 0],
                  why={"reason": "category 69 (Games)", "text": "www.games.example, named by DNS; by a policy"}),
            {"sum": {"client": "192.0.2.7", "application": "", "verdict": "none", "flows": 1, "up": [1, 60],
                     "down": [0, 0], "dropped": [0, 0]}})
        wait_until(lambda: len(everything.records) == len(little.records) == 6)
        self.assertEqual(everything.names[b"\x16\0\x7c"], "youtube")
        self.assertEqual(set(everything.names.values()), {"youtube", "www.example.co.uk", "\u20ac" * 21, "unnamed"})
        self.assertEqual(set(little.names.values()) & {"example.co.uk", "www.example.co.uk"}, {"example.co.uk"})
        up, down = sorted((r for r in everything.records if r[APPLICATION] == b"\x16\0\x7c"), key=lambda r: r[61])
        lo = socket.if_nametoindex("lo").to_bytes(4, "big")
        station, access_point = bytes.fromhex("020000000001"), bytes.fromhex("0200000000aa")
        self.assertEqual([up[number] for number in (8, 12, 195, 10, 14, 56, STATION, 367, 89, 136)],
                         [bytes((192, 0, 2, 1)), bytes((198, 51, 100, 7)), b"\x2e", lo, bytes(4), station, station,
                          access_point, b"\x40", b"\3"])
        self.assertEqual([down[number] for number in (8, 12, 195, 10, 14, 80)],
                         [up[12], up[8], b"\x08", bytes(4), lo, station])
        denied = next(r for r in everything.records if r[DROPPED] == b"\0" * 7 + b"\x09")
        self.assertEqual([denied[89], denied[233], denied[0x8002].rstrip(b"\0")], [b"\x82", b"\3", b"category 69 (Games)"])
        self.assertFalse([r for r in little.records if {56, 80, STATION, 0x8001} & r.keys()])
        self.assertEqual({r[8] if 8 in r else r[27] for r in little.records if r[61] == b"\0"}, {bytes(4), bytes(16)})
        wanted = {record[82].rstrip(b"\0"): record[10] for record in everything.options if 82 in record}
        self.assertEqual(wanted, {b"lo": lo})
        self.assertTrue(any(record.get(34) == b"\0\0\0\1" for record in everything.options))
        self.stop()
        names = dict(everything.names)  # and they are the same at the next start
        avcore.following.clear()
        self.serve()
        avcore.tell(ended(5, 1, application="new.example", why=dns),
                    *(ended(6, 1, id=name, application=name, why=dns) for name in names.values() if "." in name))
        wait_until(lambda: len(everything.records) == 8)
        self.assertEqual(names.items() <= everything.names.items(), True)
        self.stop()
        self.assertEqual(everything.wrong + little.wrong, [])

    def test_collectors_that_are_not_there(self):
        """One whose port is closed, one that nobody leads to, one without an address: the others get all."""
        refusing, good = Collector(), Collector()
        refusing.socket.close()
        self.configure(table(refusing.port) + table(good.port) + table(4739, host="192.0.2.200") +
                       table(4739, host="nowhere.invalid"))
        avcore = Avcore(self.socket)
        self.serve()
        count = 3_000
        for i in range(3):
            avcore.tell(*(ended(number, 100 + i, application=f"{number}.example", id=f"{i}-{number}")
                          for number in range(count)))
            time.sleep(1.2)
        expected = {f"{number}.example": [303, 3, 0] for number in range(count)}
        self.equal(good, expected)
        wait_until(lambda: self.export()[f"udp://127.0.0.1:{refusing.port}"]["failed"] > 0, seconds=15)
        status = self.avwatch("status")
        self.assertIn(f"export: udp://127.0.0.1:{good.port}", status)
        self.assertIn(f'jorn_export_records_total{{to="udp://127.0.0.1:{good.port}"}}', self.metrics())
        late = Collector(refusing.port, is_late=True)  # templates and the names of what comes reach it, too
        avcore.tell(ended(7, 100, application="7.example", id="late"))
        wait_until(lambda: late.templates and good.sums()["7.example"][0] == 403)
        time.sleep(2.5)
        avcore.tell(ended(7, 100, application="7.example", id="later"))
        wait_until(lambda: late.sums().get("7.example"))
        complained = self.stop()
        self.assertEqual(sum("refused" in line for line in complained.splitlines()), 1, complained)
        self.assertEqual(good.wrong + late.wrong, [])

    def test_this_machine_moves(self):
        """It has no address for a while, then another one: nothing is lost, whatever the socket was bound to."""
        def move_to(*addresses):
            for address in addresses:
                ip(None, "address", "add", address, "dev", "lo")
                ip(None, "route", "replace", "local", "192.0.2.9", "dev", "lo", "src", address, "table", "local")

        move_to("192.0.2.1")
        collector = Collector(host="192.0.2.9")
        self.configure(table(collector.port, host="192.0.2.9"))
        avcore = Avcore(self.socket)
        self.serve()
        for number, (leaves, reaches) in enumerate((((), ()), (["192.0.2.1"], ()), ((), ["192.0.2.2"])), 1):
            for address in leaves:
                ip(None, "address", "del", address + "/32", "dev", "lo")
            move_to(*reaches)
            avcore.tell(ended(3, 100, id=f"{number}"))
            time.sleep(1.5)
        self.equal(collector, {"app0": [300, 3, 0]})
        self.assertEqual([self.export()[f"udp://192.0.2.9:{collector.port}"][each] for each in ("failed", "dropped")], [0, 0])
        ip(None, "address", "del", "192.0.2.2/32", "dev", "lo")
        self.assertIn("unreachable", self.stop())

    def test_lines(self):
        avcore = Avcore(self.socket, [flow(1, 5_000, 70_000)])  # which is no business of this run's
        printing = subprocess.Popen(self.words("export", "--json", "--active-timeout", "1"), stdout=subprocess.PIPE, text=True)
        self.addCleanup(printing.stdout.close)
        self.addCleanup(printing.kill)
        wait_until(lambda: avcore.following)
        avcore.tell({"flow": flow(1, 5_100, 70_000)}, ended(2, 300, 400, application="a\x1b", client="2001:db8::2"))
        lines = [json.loads(printing.stdout.readline()) for _ in range(3)]
        by_end = {(line["source"], line["direction"]): line for line in lines}
        self.assertEqual({key: (line["bytes"], line["end"]) for key, line in by_end.items()}, {
            ("192.0.2.1", "up"): (100, "active"), ("2001:db8::2", "up"): (300, "ended"),
            ("198.51.100.7", "down"): (400, "ended")})
        self.assertEqual(by_end["2001:db8::2", "up"]["application"], "a?")
        avcore.kill()  # and it goes on when that is back: with what passed, and ended, meanwhile
        avcore = Avcore(self.socket, [flow(1, 5_100, 70_050), flow(2, 300, 400, client="2001:db8::2", ended="fin"),
                                      flow(3, 0, 7, ended="fin")])
        line = json.loads(printing.stdout.readline())
        self.assertEqual((line["bytes"], line["end"]), (7, "ended"))
        printing.terminate()
        self.assertEqual(json.loads(printing.stdout.read())["bytes"], 50)
        self.assertEqual(printing.wait(DEADLINE), 0)
        self.assertIn("--json", self.avwatch("export", status=1))

    def test_a_reader_that_stalls_holds_up_no_end(self):
        avcore = Avcore(self.socket)
        printing = subprocess.Popen(self.words("export", "--json"), stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        self.addCleanup(printing.stdout.close)
        self.addCleanup(printing.kill)
        wait_until(lambda: avcore.following)
        avcore.tell(*(ended(number, 100, id=f"{number}") for number in range(1_000)))
        wait_until(lambda: struct.unpack("i", fcntl.ioctl(printing.stdout, termios.FIONREAD, bytes(4)))[0] == 65_536)
        printing.terminate()
        self.assertEqual(printing.wait(DEADLINE), 1)

    def test_what_is_refused(self):
        for text, why in ((table(4739, host="A") + '[[export]]\nipfix = "udp://a"', "two [[export]]"), (table(0), "'ipfix' must say"),
                          (table(70_000), "'ipfix' must say"), ('[[export]]\n', "'ipfix' must say"),
                          (table(4739).replace("active_timeout = 1", "active_timeout = 0", 1), "at least 1"),
                          ('names = "none"\n' + table(4739, 'names = "full"'), "tells more"),
                          (table(4739, 'access_point = "here"'), "MAC address"), (table(4739, "enterprise = 0"), "at least 1"),
                          ("[export]\nipfix = \"udp://a\"", "[[export]] tables"),
                          ("".join(table(port) for port in range(1, 6)), "may be 4")):
            with self.subTest(text):
                self.configure(text)
                self.assertIn(why, self.avwatch("serve", status=1))


if __name__ == "__main__":
    unittest.main()
