"""avwatch's history, metrics and upkeep behind a watch socket that the test plays."""
import glob
import json
import pathlib
import re
import sqlite3
import tempfile
import urllib.request

from testbed import *

MAC = "02:00:00:00:00:0{}"
HTTP = ("127.0.0.1", 8080)


class Avcore:
    """Greets whoever connects, says `flows` when it is to follow, and then what it is given."""
    gate = {"there": True}

    def __init__(self, path, flows=(), boot="b1"):
        self.path, self.flows, self.boot = path, flows, boot
        self.clients, self.profiles = [], []
        self.following = []  # connections of who keeps the history
        self.watching = []   # and of who follows events, too
        self.saying = threading.Lock()
        if os.path.exists(path):
            os.unlink(path)
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.listener.bind(path)
        self.listener.listen()
        threading.Thread(target=self.accept, daemon=True).start()

    def accept(self):
        with contextlib.suppress(OSError):
            while True:
                threading.Thread(target=self.serve, args=(self.listener.accept()[0],), daemon=True).start()

    def serve(self, connection):
        with contextlib.suppress(OSError), connection.makefile() as lines:
            self.say(connection, {"jorn": "watch", "version": 1, "run": "r", "boot": self.boot,
                                  "started_us": 1, "inline": True, "counts": "wire"})
            for line in lines:
                question = json.loads(line)
                if "follow" in question:
                    self.say(connection, *({"id": question["id"], "flow": flow} for flow in self.flows),
                             {"id": question["id"], "listed": True})
                    looking = self.watching if "events" in question["follow"] else self.following
                    looking.append((connection, question["id"]))
                    continue
                what = question["ask"]
                told = {"clients": self.clients, "flows": self.flows, "profile": self.profiles,
                        "gate": [self.gate], "counts": [{"frames": 5}]}[what]
                key = what if what == "counts" else what.removesuffix("s")
                self.say(connection, *({"id": question["id"], key: each} for each in told))
                self.say(connection, {"id": question["id"], "done": True})

    def say(self, connection, *messages):
        said = b"".join(each if isinstance(each, bytes) else json.dumps(each).encode() + b"\n" for each in messages)
        with self.saying:
            connection.sendall(said)

    def tell(self, *messages, watching=False):
        """To the one that follows, or looks on."""
        connection, number = wait_until(lambda: self.watching if watching else self.following)[-1]
        self.say(connection, *(each if isinstance(each, bytes) else {"id": number, **each} for each in messages))

    def kill(self):
        for each in (self.listener, *(connection for connection, _ in self.following + self.watching)):
            with contextlib.suppress(OSError):
                each.shutdown(socket.SHUT_RDWR)
            each.close()


def flow(number, up=0, down=0, **members):
    return {"id": f"f{number}", "client": f"192.0.2.{number % 9}", "client_mac": MAC.format(number % 9),
            "server": "198.51.100.7", "client_port": 1024, "server_port": 443, "protocol": "TCP",
            "begun_us": 1, "last_us": 2, "application": f"app{number % 3}", "verdict": "allow",
            "up": [up // 100, up], "down": [down // 100, down], "dropped": [0, 0], **members}


def ended(number, up=0, down=0, **members):
    return {"flow": flow(number, up, down, ended="fin", **members)}


class Served(unittest.TestCase):
    http = HTTP

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder, self.server = folder.name, None
        self.socket, self.history = folder.name + "/watch.sock", folder.name + "/history.db"
        self.configure()

    def configure(self, text=""):
        write_file(self.folder + "/avwatch.toml",
                   f'[alias]\ntelly = "{MAC.format(1)}"\n[history]\nfile = "{self.history}"\n{text}')

    def words(self, *words):
        return [jorn_path("avwatch"), "-c", self.folder + "/avwatch.toml", "--watch-socket", self.socket, *words]

    def serve(self, *options):
        self.server = subprocess.Popen(self.words("serve", "--http", "%s:%d" % self.http, *options),
                                       stderr=subprocess.PIPE, text=True)
        self.addCleanup(self.server.stderr.close)
        self.addCleanup(self.server.wait)
        self.addCleanup(self.server.kill)
        wait_until(self.listens, "HTTP")
        return self.server

    def listens(self):
        self.assertIsNone(self.server.poll())
        with contextlib.suppress(OSError):
            return socket.create_connection((self.http[0].strip("[]"), self.http[1])).close() is None

    def stop(self):
        """What it complained of."""
        self.server.terminate()
        complained = self.server.communicate(timeout=DEADLINE)[1]
        self.assertEqual(self.server.returncode, 0, complained)
        return complained

    def avwatch(self, *words, status=0):
        done = subprocess.run(self.words(*words), capture_output=True, text=True, timeout=DEADLINE,
                              env=os.environ | {"TZ": "XYZ-2"})
        self.assertEqual(done.returncode, status, done.stderr)
        return done.stderr if status else done.stdout

    def usage(self, *options):
        return [json.loads(line) for line in self.avwatch("usage", "--json", *options).splitlines()]

    def bytes(self):
        return {(row["client"], row["application"]): (row["up"][1], row["down"][1], row["flows"])
                for row in self.usage()}

    def page(self):
        with urllib.request.urlopen("http://%s:%d/metrics" % HTTP, timeout=DEADLINE) as page:
            return page.read().decode()

    def metrics(self):
        lines = [line for line in self.page().splitlines() if not line.startswith("#")]
        return {name: float(value) for name, _, value in (line.rpartition(" ") for line in lines)}

    def total(self):
        return sum(value for name, value in self.metrics().items() if name.startswith("jorn_bytes_total"))

    def rows(self, sql, history=None):
        with contextlib.closing(sqlite3.connect(history or self.history, isolation_level=None)) as file:
            return file.execute(sql).fetchall()


class History(Served):
    def test_what_is_shown_forgotten_and_copied(self):
        self.configure('names = "domain"\n[metrics]\nclients = true\n')
        avcore = Avcore(self.socket)
        self.serve()
        avcore.tell(ended(1, 100, 2_000_000, application="www.shop.example.co.uk", why={"named_by": "dns"}),
                    ended(1, 0, 700, id="x", application="=evil()\u202e", why={"named_by": "dpi"}),
                    ended(2, 5, 0, verdict="deny", dropped=[3, 0]), ended(3, 9, 0, application=""))
        wait_until(lambda: self.total() == 2_000_814)
        hour = int(time.time()) // 3_600 * 3_600
        self.assertEqual(self.usage("--client", "telly", "--by", "hour", "--app", "EXAMPLE.co.uk"), [{
            "from_us": hour * 1_000_000, "client": MAC.format(1), "name": "telly",
            "application": "example.co.uk", "verdict": "allow", "up": [1, 100], "down": [20_000, 2_000_000],
            "dropped": [0, 0], "flows": 1, "denials": 0}])
        self.assertIn("2.0 MB", self.avwatch("usage"))
        self.assertEqual([row["up"][1] for row in self.usage("--app", "Unnamed")], [9])
        csv = self.avwatch("usage", "--csv", "--by", "day").splitlines()
        self.assertEqual(len(csv), 5)
        self.assertIn('"telly","\'=evil()?",allow,0,0,7,700,0,0,1,0', csv[2])
        self.assertTrue(csv[4].endswith('"app2",deny,0,5,0,0,3,0,1,1'), csv[4])
        self.assertRegex(csv[1], r"^\d{4}-\d\d-\d\d,")
        self.assertIn("as in 90m", self.avwatch("usage", "--since", "7", status=2))
        name = 'jorn_bytes_total{application="example.co.uk",verdict="allow",direction="down"}'
        self.assertEqual(self.metrics()[name], 2_000_000)
        self.assertIn(f'jorn_client_flows_total{{client="{MAC.format(2)}"}}', self.metrics())
        self.assertEqual([self.metrics()[f'jorn_avcore_{what}'] for what in ("up", 'value{name="frames"}')], [1, 5])
        self.assertIn("another", self.avwatch("serve", status=1))

        self.avwatch("backup", self.folder + "/copy.db")
        self.assertIn("there already", self.avwatch("backup", self.folder + "/copy.db", status=1))
        self.assertEqual([os.stat(self.folder + name).st_mode & 0o777 for name in ("/history.db", "/copy.db")],
                         [0o640, 0o600])
        self.assertIn("rows deleted", self.avwatch("forget", "--client", "telly"))
        self.assertEqual(self.rows("SELECT name FROM applications UNION SELECT application FROM candidates "
                                   "ORDER BY name"), [("",), ("app2",), ("other",)])
        avcore.tell(ended(1, 40, 0, id="y"))
        wait_until(lambda: self.bytes().get((MAC.format(1), "app1")) == (40, 0, 1))
        self.assertEqual(len(self.usage()), 3)
        self.assertEqual(len(self.usage("--history", self.folder + "/copy.db")), 4)
        self.assertEqual(self.total(), 2_000_854)  # no application's counter fell
        self.assertEqual(self.metrics()[f'jorn_client_flows_total{{client="{MAC.format(1)}"}}'], 1)
        with contextlib.closing(sqlite3.connect(self.history, isolation_level=None)) as other:
            other.execute("BEGIN IMMEDIATE")  # and the last counts wait for it
            avcore.tell(ended(1, 2, 0, id="z"))
            time.sleep(1)
            self.server.terminate()
            time.sleep(1)
        self.stop()
        self.assertEqual(self.bytes()[MAC.format(1), "app1"], (42, 0, 2))
        self.configure('names = "none"\n')
        self.assertIn("by name", self.avwatch("usage", "--history", self.folder + "/copy.db"))

    def test_strangers_at_both_ends(self):
        """Half a request, endless heads, more connections than it takes; names and flows without end."""
        self.serve()
        def answer(text):
            with socket.create_connection(HTTP, timeout=DEADLINE) as asking:
                with contextlib.suppress(OSError):
                    asking.sendall(text)
                    return asking.recv(65_536).split(b"\r\n")[0]
        host = b" HTTP/1.1\r\nHost: localhost\r\n"
        for request, status in ((b"GET /metrics" + host + b"\r\n", b"200"),
                                (b"HEAD /metrics" + host + b"\r\n", b"200"),
                                (b"GET /none" + host + b"\r\n", b"404"),
                                (b"POST /metrics" + host + b"Content-Length: 5\r\n\r\nabcde", b"405")):
            self.assertIn(status, answer(request), request)
        answer(b"GET /metrics HTTP/1.1\r\n" + b"A: " + b"b" * 1_000_000)
        answer(b"GET /metrics HTTP/1.1\r\n" + b"A: b\r\n" * 200_000)
        def look_on():
            looking = socket.create_connection(HTTP, timeout=DEADLINE)
            self.addCleanup(looking.close)
            looking.sendall(b"GET /api/live" + host + b"\r\n")
            return looking, looking.recv(65_536).split(b"\r\n")[0]
        looking = [look_on() for _ in range(25)]
        self.assertEqual([b"200" in status for _, status in looking], [True] * 24 + [False])
        self.assertIn(b"503", looking[-1][1])
        for connection, _ in looking:
            connection.close()
        wait_until(lambda: b"200" in look_on()[1])
        halves = [socket.create_connection(HTTP) for _ in range(80)]
        for half in halves:
            self.addCleanup(half.close)
            half.sendall(b"GET /met")

        avcore = Avcore(self.socket)
        count = 90_000
        letters = "n" * 110
        for begin in range(0, count, 1_000):
            avcore.tell(*({"flow": flow(number, 1, client_mac="02:00:%02x:%02x:%02x:00" % (
                number >> 16, number >> 8 & 255, number & 255), application=f"{number}{letters}.example",
                id=f"{number}-{letters}"[:100])} for number in range(begin, begin + 1_000)),
                b"{]\n", b'{"id":1,"flow":{"id":7}}\n', {"flow": flow(0, 2**70)}, {"sum": None})
        def has_all():
            with contextlib.suppress(OSError):  # too many of this address until the halves are given up
                now = self.metrics()
                return now["jorn_history_open_flows"] + now["jorn_history_uncounted_messages"] >= count
        wait_until(has_all, "HTTP again, and all flows", 120)
        avcore.kill()
        with open(f"/proc/{self.server.pid}/status") as status:
            peak_kb = int(re.search(r"VmHWM:\s+(\d+)", status.read())[1])
        if not is_sanitized("avwatch"):
            self.assertLess(peak_kb, 64_000)
        self.stop()


class Files(Served):
    def test_files_that_are_not_its_own(self):
        self.serve()
        self.stop()
        later, foreign = self.folder + "/later.db", self.folder + "/foreign.db"
        with contextlib.closing(sqlite3.connect(self.history)) as file:
            file.execute("PRAGMA user_version = 99")
            for end in "", "-wal":  # as a crash leaves them
                run("cp", self.history + end, later + end)
        self.rows("CREATE TABLE theirs (a)", foreign)
        def contents(file):
            return [pathlib.Path(each).read_bytes() for each in sorted(glob.glob(file + "*"))
                    if not each.endswith("-shm")]
        for file, why in ((later, "later version"), (foreign, "another program")):
            before = contents(file)
            for task in ("serve",), ("usage",), ("forget", "--client", "telly"), ("backup", "/tmp/copy"):
                self.assertIn(why, self.avwatch(*task, "--history", file, status=1))
                if task == ("serve",):
                    os.unlink(file + "-lock")
                self.assertEqual(contents(file), before)
        self.assertIn("no history", self.avwatch("usage", "--history", "/nowhere", status=1))

        # A broken one: the rest goes on, and once it is moved away the history begins anew.
        write_file(self.history, b"SQLite format 3\0" + bytes(range(256)) * 40)
        avcore = Avcore(self.socket)
        self.serve()
        self.assertEqual(self.metrics()["jorn_history_writable"], 0)
        os.rename(self.history, self.history + ".broken")
        avcore.tell(ended(1, 10))
        wait_until(lambda: self.total() == 10)
        os.rename(self.history, self.history + ".moved")  # while it is written
        avcore.tell({"flow": flow(2, 5)}, ended(1, 3, id="z"))
        wait_until(lambda: os.path.exists(self.history) and self.bytes().get((MAC.format(1), "app1")) == (3, 0, 1))
        self.assertEqual(self.total(), 13)
        complained = self.stop()
        self.assertIn("nothing is counted until it can be read", complained)
        self.assertEqual(complained.count("malformed") + complained.count("not a database"), 1, complained)

    def test_full_disk(self):
        os.mkdir(self.folder + "/small")
        run("mount", "-t", "tmpfs", "-o", "size=400k", "tmpfs", self.folder + "/small")
        self.addCleanup(run, "umount", "-l", self.folder + "/small")
        self.history = self.folder + "/small/history.db"
        self.configure()
        avcore = Avcore(self.socket)
        self.serve()
        avcore.tell(ended(1, 7))
        wait_until(lambda: self.total() == 7)
        with contextlib.suppress(OSError), open(self.folder + "/small/ballast", "wb", buffering=0) as ballast:
            while True:
                ballast.write(bytes(4_096))
        avcore.tell(*(ended(number, 1, id=f"n{number}", application=f"name {number}") for number in range(900)))
        wait_until(lambda: self.metrics()["jorn_history_writable"] == 0)
        self.assertEqual(self.total(), 7)
        os.unlink(self.folder + "/small/ballast")
        wait_until(lambda: self.total() == 907)
        complained = self.stop()
        self.assertEqual(len(complained.splitlines()), 2, complained)
        self.assertIn("full", complained)
        self.assertEqual(sum(row["up"][1] for row in self.usage()), 907)


if __name__ == "__main__":
    unittest.main()
