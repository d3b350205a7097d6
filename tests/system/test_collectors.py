"""What avwatch exports, as collectors that people have take it: run by scripts/test-collectors. pmacct's
nfacctd and nfdump's nfcapd each get it, tshark captures and dissects all of it, and a reader of our own
reads the capture."""
import glob
import re

from test_export import Collector
from test_usage import *

CAPTURED = "/tmp/usage/export.pcap"
NFACCTD, NFCAPD = 4739, 4740
REFRESH = 2
EXPORT = """\
[[export]]
ipfix = "udp://127.0.0.1:{}"
active_timeout = 1
inactive_timeout = 1
refresh = %d
""" % REFRESH
NFACCTD_SETTINGS = f"""\
nfacctd_ip: 127.0.0.1
nfacctd_port: {NFACCTD}
nfacctd_disable_checks: false
aggregate_primitives: {FOLDER}/primitives
aggregate: class, direction
plugins: print
print_refresh_time: 1
print_output: json
print_output_file: {FOLDER}/nfacctd.json
print_output_file_append: true
"""


class Captured(Collector):
    """All that went to one port, as the reader takes it that believes nothing but what it was sent."""

    def __init__(self, port):
        self.begin()
        with open(CAPTURED, "rb") as file:
            file.read(24)
            while head := file.read(16):
                frame = file.read(struct.unpack("=4I", head)[2])
                if struct.unpack_from(">H", frame, 14 + 20 + 2)[0] == port:
                    self.take(frame[14 + 20 + 8:])

    def sums(self):
        """Packets and bytes by application and direction."""
        sums = collections.Counter()
        for record in self.records:
            packets, size, direction = (int.from_bytes(record[element], "big") for element in (2, 1, 61))
            add(sums, self.names[record[95]], direction, packets, size)
        return sums


def add(sums, application, direction, packets, size):
    if packets:
        before = sums[application, direction] or (0, 0)
        sums[application, direction] = before[0] + packets, before[1] + size


class Collectors(Routed):
    test_to_the_byte_whoever_is_killed = None

    def setUp(self):
        super().setUp()
        os.mkdir(FOLDER + "/nfcapd")
        for name, text in (("primitives", "name=direction field_type=61 len=1 semantics=u_int\n"),
                           ("nfacctd", NFACCTD_SETTINGS), ("avwatch.toml", read_file(SETTINGS) + "".join(
                               EXPORT.format(port) for port in (NFACCTD, NFCAPD)))):
            write_file(f"{FOLDER}/{name}", text)
        self.said = open(FOLDER + "/said", "w+")
        self.addCleanup(self.said.close)
        self.tshark = subprocess.Popen(["tshark", "-q", "-i", "lo", "-F", "pcap", "-w", CAPTURED, "-f",
                                        f"udp portrange {NFACCTD}-{NFCAPD}"], stderr=subprocess.DEVNULL)
        self.addCleanup(self.tshark.wait)
        self.addCleanup(self.tshark.terminate)
        wait_until(lambda: os.path.exists(CAPTURED) and os.path.getsize(CAPTURED) >= 24)

    def start_collectors(self):
        self.collectors = [
            subprocess.Popen(["nfacctd", "-f", FOLDER + "/nfacctd"], stdout=self.said, stderr=self.said),
            subprocess.Popen(["nfcapd", "-p", str(NFCAPD), "-b", "127.0.0.1", "-w", FOLDER + "/nfcapd", "-t", "2"],
                             stdout=self.said, stderr=self.said)]
        for each in self.collectors:
            self.addCleanup(each.wait)
            self.addCleanup(each.kill)
        for port in NFACCTD, NFCAPD:
            self.until(lambda: subprocess.check_output(["ss", "-Hlun", f"sport = :{port}"]))

    def stop_collectors(self):
        for each in self.collectors:
            each.send_signal(signal.SIGINT)
        for each in self.collectors:
            each.wait(DEADLINE)

    def stop_serve(self):
        """What waits is exported before."""
        self.server.terminate()
        self.assertEqual(self.server.wait(DEADLINE), 0)

    def counted(self):
        """Packets and bytes by application and direction, as the history has them."""
        sums = collections.Counter()
        for application, counts in self.used()[0].items():
            for direction in (0, 1):
                add(sums, application or "unnamed", direction, *counts[2 * direction:][:2])
        return sums

    def taken_by_nfacctd(self):
        sums = collections.Counter()
        with contextlib.suppress(FileNotFoundError), open(FOLDER + "/nfacctd.json") as lines:
            for row in map(json.loads, lines):
                add(sums, row["class"], int(row["direction"]), row["packets"], row["bytes"])
        return sums

    def taken_by_nfcapd(self, names):
        """It keeps ids, and shows the last byte of one, then those before as a number of this machine's."""
        said = subprocess.check_output(["nfdump", "-R", FOLDER + "/nfcapd", "-o", "raw"], text=True)
        sums = collections.Counter()
        for record in said.split("Flow Record:")[1:]:
            fields = dict(re.findall(r"^ +(\S.*?) += +(.*)$", record, re.MULTILINE))
            last, before = map(int, re.match(r"(\d+)\.\.(\d+)", fields["app ID"]).groups())
            application = before.to_bytes(4 if before > 65_535 else 2, sys.byteorder) + bytes([last])
            add(sums, names[application], int(fields["direction"]), int(fields["in packets"]), int(fields["in bytes"]))
        return sums

    def until_equal(self, ask, wanted):
        """Both go on until what waits in queues has come."""
        with contextlib.suppress(AssertionError):
            wait_until(lambda: ask() == wanted(), seconds=40)
        self.assertEqual(ask(), wanted())

    def test_a_mixed_load_over_restarts_on_either_side(self):
        self.start("", "--watch-socket", WATCH_SOCKET)
        self.start_servers()
        self.start_collectors()
        self.serve()
        senders = self.load_all()
        self.kill(self.avcore)
        self.browse("--resolve", f"{NAME}:{PAGES}:{NAMED[4]},{NAMED[6]}")
        self.start_avcore()
        self.stop_serve()
        self.load(6)
        self.serve()
        for sender in senders:
            sender.stop()
        self.until_equal(lambda: self.used()[1], lambda: self.arrived_in_all(0)[1])
        self.until_equal(self.taken_by_nfacctd, self.counted)

        self.stop_collectors()
        self.start_collectors()
        time.sleep(2 * REFRESH)  # until the templates come again they understand nothing
        for sender in self.load_all():
            sender.stop()
        time.sleep(LINGER)
        self.until_equal(lambda: self.used()[1], lambda: self.arrived_in_all(0)[1])
        self.stop_serve()
        self.stop_collectors()
        self.tshark.send_signal(signal.SIGINT)
        self.tshark.wait(DEADLINE)
        self.check_what_was_taken()
        self.check_what_was_sent()

    def check_what_was_taken(self):
        counted = self.counted()
        self.assertGreaterEqual({application for application, _ in counted}, {NAME, APPLICATIONS[SLOW], "unnamed"})
        self.assertEqual(self.taken_by_nfacctd(), counted)
        to_nfacctd, to_nfcapd = Captured(NFACCTD), Captured(NFCAPD)
        self.assertEqual(to_nfacctd.sums(), counted)
        self.assertEqual(to_nfcapd.sums(), counted)
        self.assertEqual(self.taken_by_nfcapd(to_nfcapd.names), counted)
        self.said.seek(0)
        # nfcapd's sequence leaves out the tables' records; nfacctd says where the exporter began anew.
        self.assertEqual(re.findall(".*(?:WARN|ERROR|malformed|received '(?!0')|Bad Packets: [1-9]).*", self.said.read()), [])

    def check_what_was_sent(self):
        ports = [word for port in (NFACCTD, NFCAPD) for word in ("-d", f"udp.port=={port},cflow")]
        def dissect(*words):
            return subprocess.run(["tshark", "-n", "-r", CAPTURED, *ports, *words], capture_output=True, text=True,
                                  check=True).stdout
        self.assertEqual(dissect("-Y", "_ws.malformed or _ws.expert or not cflow"), "")
        self.assertGreater(len(dissect("-Y", "cflow.template_id").splitlines()), 10)


if __name__ == "__main__":
    unittest.main()
