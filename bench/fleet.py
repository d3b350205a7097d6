"""What a campus costs its collector: the records and bytes of one access point, that of `scripts/demo page`
with its five busy clients; and what nfacctd and PostgreSQL take for the records of many.

    scripts/private python3 -B -m bench.fleet [SECONDS]

The second half is left out where nfacctd or PostgreSQL's programs aren't to be found."""
import resource
import shutil
import statistics
import struct
import threading

from demo import fleet, house, page
from demo.stage import *

COLLECTOR_PORT = 4739
POINTS, STATIONS, APPLICATIONS = 1_000, 5, 6  # whose records the database gets
RECORDS = STATIONS * APPLICATIONS * 2         # of an access point, each ACTIVE_S
ACTIVE_S = 10
ROWS = 10_000_000                             # that the query sums up
FIELDS = ((8, 4), (12, 4), (7, 2), (11, 2), (4, 1), (61, 1), (1, 8), (2, 8), (95, 5), (365, 6), (367, 6))
NET_AND_UDP = 14 + 20 + 8                     # bytes of headers


def message(sequence, *sets):
    body = b"".join(struct.pack(">HH", number, 4 + len(content)) + content for number, content in sets)
    return struct.pack(">HHIII", 10, 16 + len(body), int(time.time()), sequence, 1) + body


def cpu_seconds(name):
    """Of the processes with this name, and of those that ended for them."""
    ticks = 0
    for path in os.listdir("/proc"):
        with contextlib.suppress(OSError):
            with open(f"/proc/{path}/stat") as file:
                _, comm, rest = file.read().replace("(", ")").split(")", 2)
                if comm == name:
                    ticks += sum(map(int, rest.split()[11:15]))
    return ticks / os.sysconf("SC_CLK_TCK")


class Sink(threading.Thread):
    """Counts what the access point sends."""

    def __init__(self):
        super().__init__(daemon=True)
        self.messages = self.bytes = self.records = 0
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.bind(("127.0.0.1", COLLECTOR_PORT))
        self.start()

    def run(self):
        while True:
            said = self._socket.recv(65_536)
            self.messages += 1
            self.bytes += len(said) + NET_AND_UDP
            self.records = int.from_bytes(said[8:12], "big")  # before this message


def measure_one(seconds):
    house.lay_out()
    use_demo_dns()
    house.start_servers()
    with open(page.PAGE_CONFIG) as file:
        page.PAGE_CONFIG = write(FILES + "/avwatch.toml",
                                 file.read() + f'[[export]]\nipfix = "udp://127.0.0.1:{COLLECTOR_PORT}"\n')
    sink = Sink()
    page.start_access_point(True)
    house.begin()
    time.sleep(20)  # until all are at work
    before = sink.records, sink.bytes, sink.messages
    time.sleep(seconds)
    records, size, messages = (now - then for now, then in zip((sink.records, sink.bytes, sink.messages), before))
    say(f"one access point, five clients, {seconds} s: {records / seconds:.1f} records/s, "
        f"{messages / seconds:.2f} messages/s, {size / seconds:.0f} bytes/s on the wire, "
        f"{size / records:.0f} bytes a record")


def templates_and_names():
    return message(0, (2, struct.pack(">HH", 258, len(FIELDS)) + b"".join(struct.pack(">HH", *each) for each in FIELDS)),
                   (3, struct.pack(">HHHHHHH", 265, 2, 1, 95, 5, 96, 64)),
                   (265, b"".join(struct.pack(">BI64s", 6, 65_538 + number, b"app%d.example" % number)
                                  for number in range(APPLICATIONS))))


def records_of(point):
    """Its messages' sets, a packet and 1,000 bytes each."""
    records = [struct.pack(">4s4sHHBBQQBI6s6s", bytes((10, 0, 0, station)), bytes((192, 0, 2, application)), 1024, 443, 6,
                           direction, 1_000, 1, 6, 65_538 + application, struct.pack(">HI", 0x0200, point * 256 + station),
                           struct.pack(">HI", 0x0210, point))
               for station in range(STATIONS) for application in range(APPLICATIONS) for direction in (0, 1)]
    return [b"".join(records[at:at + 20]) for at in range(0, len(records), 20)]


def send_as_many(rounds):
    """As each from an address of its own, evenly over ACTIVE_S."""
    points = []
    with namespace("collector"):
        ip("collector", "route", "add", "local", "10.99.0.0/16", "dev", "lo")
        for number in range(POINTS):
            point = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            point.bind((f"10.99.{number // 250}.{number % 250 + 1}", 0))
            point.connect((fleet.COLLECTOR, COLLECTOR_PORT))
            points.append((point, records_of(number)))
    for point, _ in points:
        point.send(templates_and_names())
        time.sleep(0.001)
    begun, sequence = time.monotonic(), APPLICATIONS
    for turn in range(rounds):
        for number, (point, sets) in enumerate(points):
            for i, content in enumerate(sets):
                point.send(message(sequence + 20 * i, (258, content)))
            time.sleep(max(0, begun + ACTIVE_S * (turn + number / POINTS) - time.monotonic()))
        sequence += RECORDS
    return rounds * POINTS * RECORDS


def settled(ask):
    """What it says once that stays: nfacctd's last writer outlives it."""
    before = None
    while (now := ask()) != before:
        before = now
        time.sleep(2)
    return now


def measure_database(seconds):
    add_station("collector", "collectors")
    add_ipv4("collector", fleet.COLLECTOR)
    database = fleet.Postgres()
    collector = fleet.start_collector(database)
    time.sleep(2)
    sent = send_as_many(rounds=max(1, seconds // ACTIVE_S))
    wait_for("all rows", lambda: collector.stop(signal.SIGINT) == 0)
    used = sum(resource.getrusage(resource.RUSAGE_CHILDREN)[:2])  # nearly all of it nfacctd's, which has ended
    [[taken, rows]] = settled(lambda: database.rows("SELECT sum(packets), count(*) FROM flows"))
    say(f"{POINTS} access points, {RECORDS / ACTIVE_S:.0f} records/s each, {seconds} s: {taken} of {sent} records taken, "
        f"{rows} rows; CPU a record: nfacctd {used / sent * 1e6:.0f} us, "
        f"PostgreSQL {cpu_seconds('postgres') / sent * 1e6:.0f} us")
    database.rows("INSERT INTO flows SELECT now() - i * interval '8 ms', NULL, 'a' || i % 10000, 's' || i % 50000, "
                  f"'app' || i % 300, i % 2, 1, 1000 FROM generate_series(1, {ROWS}) i")
    [[size]] = database.rows("SELECT pg_total_relation_size('flows') / count(*) FROM flows")
    times = []
    for _ in range(3):
        begun = time.monotonic()
        database.rows(fleet.OF_THE_CAMPUS)
        times.append(time.monotonic() - begun)
    say(f"the campus's applications out of {ROWS} rows: {statistics.median(times):.1f} s, {size} bytes a row")


if __name__ == "__main__":
    seconds = int(sys.argv[1]) if len(sys.argv) > 1 else 60
    os.makedirs(LOGS)
    set_switch(None, "ipv6/conf/default/disable_ipv6", 1)
    measure_one(seconds)
    if all(map(shutil.which, ("nfacctd", "initdb"))):
        measure_database(seconds)
