"""`scripts/demo fleet`: three access points with two clients each, one of whom walks from access point to
access point, and one collector of flows for all of them: pmacct's, which writes them into a database."""
import sqlite3

from .roam import *

COLLECTOR = NETWORK + ".90"
FOLDER = "/tmp/collector"
STAYING = {"tablet": 1, "laptop": 2, "phone": 2, "tv": 3, "printer": 3}  # at which access point
NAMES = [(WEB_NAME, WEB_SERVER), (VIDEO_NAME, VIDEO_SERVER), (CHAT_NAME, CHAT_SERVER)]
ACTIVE_S, WRITTEN_S = 2, 2  # between two records of a flow, and between two writes of the collector's

# What isn't in a collector's own list of what it can tell apart.
PRIMITIVES = """\
name=access_point field_type=367 len=6 semantics=mac
name=station field_type=365 len=6 semantics=mac
name=direction field_type=61 len=1 semantics=u_int
"""
# A row for a minute, an access point, a station, an application and a direction.
TABLE = """\
CREATE TABLE flows (
  stamp_inserted timestamp NOT NULL, stamp_updated timestamp, access_point char(17), station char(17),
  class_id varchar(64), direction int, packets bigint, bytes bigint)"""
OF_THE_CAMPUS = """\
SELECT class_id AS application, count(DISTINCT station) AS stations,
       count(DISTINCT access_point) AS access_points,
       sum(CASE direction WHEN 0 THEN bytes ELSE 0 END) AS up,
       sum(CASE direction WHEN 1 THEN bytes ELSE 0 END) AS down
FROM flows GROUP BY class_id ORDER BY sum(bytes) DESC"""
OF_THE_STATION = f"""\
SELECT DISTINCT access_point, station, class_id AS application
FROM flows WHERE station = '{STATION}' AND class_id = '{CHAT_NAME}' ORDER BY access_point"""


def not_as_root(*words):
    """As the user whom nobody minds; in a user namespace there is no other than root, who goes by that
    user's number in one below it."""
    with open("/proc/self/uid_map") as file:
        is_alone = file.read().split()[2] == "1"
    who = ("unshare", "--user", "--map-user=65534") if is_alone else (
        "setpriv", "--reuid=65534", "--regid=65534", "--clear-groups")
    return *who, "env", "--chdir=" + FOLDER, *words


def give_away(path):
    """To that user, where there is one."""
    with contextlib.suppress(OSError):
        os.chown(path, 65534, 65534)


class Postgres:
    """A database of the demo's own, which listens at a UNIX socket alone."""
    plugin, settings = "pgsql", f"sql_host: {FOLDER}\nsql_user: pmacct\nsql_db: postgres\n"

    def start(self):
        data = FOLDER + "/data"
        say("  initdb; postgres")
        status, said = answer(*not_as_root("initdb", "-D", data, "-U", "pmacct", "-A", "trust", "-E", "UTF8",
                                           "--locale=C", "--no-sync"))
        if status != 0:
            raise Failed(said)
        self._server = Program("postgres", *not_as_root("postgres", "-D", data, "-k", FOLDER, "-h", "", "-F"))
        wait_for("database", lambda: self._psql("SELECT 1")[0] == 0)
        self._psql(TABLE)

    def _psql(self, sql):
        return answer("psql", "-h", FOLDER, "-U", "pmacct", "-d", "postgres", "-Atc", sql)

    def rows(self, sql):
        status, said = self._psql(sql)
        if status != 0:
            raise Failed(said)
        return [line.split("|") for line in said.splitlines()]

    def stop(self):
        self._server.stop(signal.SIGINT)


class Sqlite:
    plugin, settings = "sqlite3", f"sql_db: {FOLDER}/flows.db\n"

    def start(self):
        say(f"  {FOLDER}/flows.db")
        self.rows(TABLE)
        give_away(FOLDER + "/flows.db")

    def rows(self, sql):
        with contextlib.closing(sqlite3.connect(FOLDER + "/flows.db")) as file:
            return file.execute(sql).fetchall()

    def stop(self):
        pass


class Member(AccessPoint):
    """An access point that says its flows to the collector."""

    def start(self):
        super().start()
        settings = write(self.folder + "/run/avwatch.toml", f"""\
[history]
file = "/run/history.db"
[[export]]
ipfix = "udp://{COLLECTOR}:4739"
access_point = "{self.mac}"
active_timeout = {ACTIVE_S}
""")
        self._avwatch = Program(f"avwatch{self.number}", *self.here(),
                                f"{BIN}/avwatch", "-c", "/run/" + os.path.basename(settings), "serve")

    def end(self):
        """What waits is said first."""
        if self._avwatch.stop() != 0:
            raise Failed("avwatch ended with an error")
        super().end()


def show_network():
    heading("Three access points, six clients and a collector, in namespaces of their own")
    say(f"""\
  clients            access points              server side
  one that walks --- 1: wlan0 [bridge] eth0 -.- {WEB_NAME}, {VIDEO_NAME}, {CHAT_NAME}
  tablet ----------'                         |
  laptop, phone ---- 2: wlan0 [bridge] eth0 -|
  tv, printer ------ 3: wlan0 [bridge] eth0 -'- {COLLECTOR}  nfacctd, database
                        avcore <-> jorn
                        avwatch serve ===> IPFIX""")


def lay_out(points):
    add_bridge("br0")
    for name, addresses in ("server", (DNS_SERVER, WEB_SERVER, VIDEO_SERVER, CHAT_SERVER)), \
            ("collector", (COLLECTOR,)):
        add_station(name, name + "s")
        add_ipv4(name, *addresses)
    add_points(points)
    for number, (name, at) in enumerate(STAYING.items(), 21):
        add_host(name)
        plug(name, name, "eth0", points[at - 1].air, *ON_A_WIRE)
        add_ipv4(name, f"{NETWORK}.{number}")


def start_collector(database):
    heading("One collector for all")
    os.makedirs(FOLDER)
    give_away(FOLDER)
    database.start()
    write(FOLDER + "/primitives.lst", PRIMITIVES)
    configuration = write(FOLDER + "/nfacctd.conf", f"""\
nfacctd_ip: {COLLECTOR}
nfacctd_port: 4739
aggregate_primitives: {FOLDER}/primitives.lst
aggregate: access_point, station, class, direction
plugins: {database.plugin}
{database.settings}sql_table: flows
sql_optimize_clauses: true
sql_refresh_time: {WRITTEN_S}
sql_history: 1m
sql_history_roundoff: m
""")
    say("  nfacctd -f " + configuration)
    collector = Program("nfacctd", *not_as_root("nfacctd", "-f", configuration), netns="collector")
    wait_for("collector", lambda: answer("ss", "-Hlun", "sport = :4739", netns="collector")[1])
    return collector


def ask_for_all():
    heading("What the clients ask for")
    for number, name in enumerate(STAYING):
        pages = (f"http://{WEB_NAME}/", f"https://{VIDEO_NAME}/") if number % 2 else (f"https://{VIDEO_NAME}/",)
        for page in pages:
            attempt(f"{name}: {page}", lambda: curl("%{http_code}, %{size_download} bytes", page, netns=name))


def show(title, database, sql, *columns):
    heading(title)
    say(*("  " + line for line in sql.splitlines()), "")
    rows = [tuple(map(str, row)) for row in database.rows(sql)]
    widths = [max(map(len, column)) for column in zip(columns, *rows)]
    for row in (columns, *rows):
        say(("  " + "  ".join(cell.ljust(width) for cell, width in zip(row, widths))).rstrip())
    return rows


def ask_database(database):
    show("The whole campus, by one query", database, OF_THE_CAMPUS,
         "application", "stations", "access points", "bytes up", "bytes down")
    rows = show("The one that walked", database, OF_THE_STATION, "access point", "station", "application")
    if len(rows) != 3:
        raise Failed("the chat isn't known at all three access points")


def play(may_enforce, database):
    points = [Member(number, ("--inline" if may_enforce else "-i", "wlan0")) for number in (1, 2, 3)]
    show_network()
    lay_out(points)
    use_demo_dns()
    Servers(NAMES)
    collector = start_collector(database)
    start_all(points)
    chat = Chat()
    ask_for_all()
    points[0].wait_for_chat()
    chat.keep_talking()
    for leaves, reaches in zip(points, points[1:]):
        walk(chat, leaves, reaches)
    chat.end()
    time.sleep(LAST_FRAMES_S)
    for point in points:
        point.end()
    time.sleep(WRITTEN_S)
    collector.stop(signal.SIGINT)
    ask_database(database)
    database.stop()
    note(f"""
The station's flow to {CHAT_SERVER} began at access point 1, which saw it ask for {CHAT_NAME}; the others
have the name over the bus, and the database has one application. docs/fleet.md: which collectors take
this, and what a campus of ten thousand access points needs.""")
