"""What the last versions left behind and what others rely on, against the copies that tests/compat has of
each version: it is taken and offered as before, or CHANGELOG.md says what isn't. docs/compatibility.md
has the rules, and when --copy makes or renews the copy of the present version.
"""
import pathlib
import sqlite3

from interfaces import *
from records import *
from test_history import Avcore, Served, ended, flow
from test_listings import CARRIER_SHOW, INTF_SHOW, PORT_SHOW, USERDEF_SHOW, UTP_SHOW, WEB_SHOW

FOLDER = pathlib.Path("/writable/jorn")
PORTS = "uploadjorport_file_1.0"
SAVED = "jorn_config.txt", "web_filter_config.txt", "wificalling_config.txt"
UTP_3 = struct.pack("=I", 3)
ASKED = ((USERDEF_SHOW, b""), (PORT_SHOW, b""), (PRIORITY, UTP_3), (UTP_SHOW, b""), (WEB_SHOW, UTP_3),
         (INTF_SHOW, b"wlan0"), (INTF_SHOW, b"wlan1"), (CARRIER_SHOW, b""))
TIMES = r"\b1[78]\d{8}\b"  # seconds since 1970, up to the year 2030
DAY = 86_400
OPEN = 5, 7000, 3000  # the flow of a history that goes on: number, bytes up and down


def copy(version, name):
    return pathlib.Path(COPIES, version, name)


def hex_of(payload):
    return re.sub(r"(00 ){8,}", lambda zeros: f"({len(zeros[0]) // 3}) ", payload.hex(" ") + " ").rstrip()


def bytes_of(text):
    return bytes.fromhex(re.sub(r"\((\d+)\)", lambda zeros: "00" * int(zeros[1]), text))


def recorded(since):
    """What jornctl sent of the version's document."""
    lines = (line.partition(" ") for line in copy(since, "sent.txt").read_text().splitlines())
    return [(int(number), bytes_of(payload)) for number, _, payload in lines]


class Compatibility(unittest.TestCase):
    def unsaid(self, since, *broken):
        """What is broken and not said to be, or all of it where the version has the same number."""
        has_number = numbers(version())[:2] > numbers(since)[:2]
        return {*broken} - (said_broken(read("CHANGELOG.md"), since) if has_number else set())

    def assert_same(self, since, name, now, before):
        if now != before and self.unsaid(since, name):
            self.assertEqual(now, before, f"{name} of {since}, see docs/compatibility.md")


class Interfaces(Compatibility):
    def test_of_the_last_version(self):
        last, broken = versions()[-1], set()
        for path in HEADERS:
            broken |= broken_declarations(path, copy(last, f"{pathlib.Path(path).stem}.txt").read_text(), read(path))
        for path in TAKEN, TOLD:
            broken |= broken_schema(path, copy(last, os.path.basename(path)).read_text(), read(path))
        self.assertEqual(self.unsaid(last, *broken), set(), f"differs from {last}, see docs/compatibility.md")

    def test_what_is_a_break(self):
        """One row for each kind of change: what it is done to, the change, the names of what breaks."""
        for path, was, now, names in (
                (PLATFORM[0], "int a(int);", "int a(int, char);", {"a"}), (PLATFORM[0], "int a(int);", "", {"a"}),
                (PLATFORM[0], "int a(int);", "// as before\nint a(\n    int);", set()),
                (PLATFORM[0], "int a(void);", "int a(void); struct b *c(void);", {"c"}),
                (PLATFORM[0], "enum { A = 1 };", "enum { A = 1, B = 2, };", set()),
                (PLATFORM[0], "enum { A = 1, B = 2 };", "enum { A = 1, B = 3 };", {"B"}),
                (HEADERS[-1], "enum class n : int { a = 1, b = 2, };", "enum class n : int { a = 1 };", {"n::b"}),
                (HEADERS[-1], "struct s { int a; };", "struct s { int a; int b; };\nstatic_assert(true);", {"s"}),
                (PLATFORM[0], '#define A "x"\nstruct b;', '#define A "y"\nstruct b;', {"A"})):
            self.assertEqual(broken_declarations(path, was, now), names, now)
        was = {"type": "object", "required": ["a"], "additionalProperties": False, "properties": {
            "a": {"enum": ["x", "y"]}, "n": {"type": "integer", "maximum": 9, "minimum": 1}}}
        for place, value, taken, told in (
                (("properties", "b"), {"type": "string"}, False, False), (("properties", "n"), None, True, True),
                (("required",), ["a", "n"], True, False), (("required",), [], False, True),
                (("properties", "a", "enum"), ["x"], True, True),
                (("properties", "a", "enum"), ["x", "y", "z"], False, False),
                (("properties", "n", "maximum"), 8, True, True), (("properties", "n", "maximum"), 10, False, True),
                (("properties", "n", "minimum"), 2, True, True), (("properties", "n", "pattern"), "", True, False),
                (("properties", "n", "type"), ["string", "integer"], False, True),
                (("additionalProperties",), None, False, True)):
            now = at = json.loads(json.dumps(was))
            for name in place[:-1]:
                at = at[name]
            at[place[-1]] = value
            if value is None:
                del at[place[-1]]
            broken = tuple(bool(broken_parts(was, now, taken=each)) for each in (True, False))
            self.assertEqual(broken, (taken, told), (place, value))
            listed = {"anyOf": [was, {"const": 1}]}, {"anyOf": [{"const": 1}, now, {"const": 2}]}
            self.assertEqual(broken_parts(*listed), {"/anyOf/0"} if taken else set(), (place, value))
        changes = "# C\n\n## 3.0.0\n### Incompatible\n- `a`: b\n\n## 2.0.0\n### New\n- `x`\n\n## 1.0.0\n" \
            "### Incompatible\n- `old`: c\n"
        self.assertEqual(said_broken(changes, "1.0.0"), {"a"})
        self.assertEqual(said_broken(changes, "3.0.0"), set())

    def test_settings(self):
        for since in versions():
            for words, status in (("avcore --check", 3), ("avwatch status", 2)):  # no interface; nobody at the socket
                program, *options = words.split()
                name = f"{program}.toml"
                done = subprocess.run([jorn_path(program), "-c", copy(since, name), *options], text=True,
                                      capture_output=True, timeout=DEADLINE)
                self.assertTrue(done.returncode == status or not self.unsaid(since, name),
                                f"{name} of {since}: {done.stderr}")

    def test_versions(self):
        headings = re.findall(r"^## (\S+)", read("CHANGELOG.md"), re.M)
        self.assertEqual(headings[0], version())
        self.assertEqual(headings, sorted(headings, key=numbers, reverse=True))
        self.assertLessEqual({*versions()}, {*headings})


class Saved(JudgingTest, Compatibility):
    def restart(self, since, *names):
        """The daemon, with nothing but these files of the version."""
        self.assertEqual(self.jorn.stop(), 0)
        shutil.rmtree(FOLDER)
        FOLDER.mkdir()
        for name in names:
            shutil.copy(copy(since, name), FOLDER)
        self.start()

    def answers(self):
        return [command(*asked).decode() for asked in ASKED]

    def assert_answers(self, since, how):
        wanted = json.loads(copy(since, "answers.json").read_text())[how]
        for (number, _), now, before in zip(ASKED, self.answers(), wanted):
            self.assert_same(since, f"command {number}", now, before)

    def assert_files(self, since):
        for name in SAVED:
            self.assert_same(since, name, (FOLDER / name).read_text(), copy(since, name).read_text())

    def write_all(self):
        """After a change that changes nothing, where it takes one."""
        for name in SAVED:
            (FOLDER / name).unlink(missing_ok=True)
        command(WRITE)
        command(CARRIER_BINDING, carrier_binding("none", enable=0))

    def sent(self, since):
        """What jornctl sends of the version's document, but for its questions."""
        found, connections = [], []
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind("/tmp/recorder.sock")
            listener.listen()
            process = subprocess.Popen([jorn_path("jornctl"), "apply", "--socket", "/tmp/recorder.sock",
                                        copy(since, "document.json")])
            while process.poll() is None:
                for ready in select.select([*connections, listener], [], [], 0.1)[0]:
                    if ready is listener:
                        connections.append(listener.accept()[0])  # some say nothing until others are there
                    else:
                        connections.remove(ready)
                        found += self.pass_on(ready)
        os.unlink("/tmp/recorder.sock")
        self.assert_same(since, "document.json", process.wait(), 0)
        return [(number, payload) for number, payload in found if number not in dict(ASKED)]

    def pass_on(self, client):
        """The message of a connection, if there is one, once it is answered."""
        with client:
            if message := client.recv(131_072):  # in one read, as the daemon has it
                number, length = struct.unpack("=4xI8xI", message[:20])
                client.sendall(command(number, message[20:], length=length))
                yield number, message[20:]

    def test_files(self):
        for since in versions():
            self.restart(since, PORTS, *SAVED)
            self.assert_answers(since, "loaded")
            self.write_all()
            self.assert_files(since)

    def test_commands(self):
        for since in versions():
            self.restart(since, PORTS)
            for number, payload in recorded(since):
                command(number, payload)
            self.assert_answers(since, "sent")
            self.assert_files(since)

    def test_documents(self):
        for since in versions():
            self.restart(since, PORTS)
            sent = self.sent(since)
            if since == version():
                self.assertEqual(sent, recorded(since))
            self.assert_answers(since, "sent")
            self.assert_files(since)


class History(Served, Compatibility):
    def restore(self, file):
        """As if its last day had been yesterday and it had been heard of right now, or all would be old."""
        head, begin, sql = file.read_text().partition("BEGIN")
        made, = re.findall(r"^-- of (\d+)", head)
        days = int(time.time()) // DAY - 1 - int(made) // DAY
        sql = re.sub(TIMES, lambda found: str(int(found[0]) + days * DAY), sql)
        sql = re.sub(r"(?<='heard',)\d+", f"{time.monotonic() * 1000:.0f}", sql)
        for old in glob.glob(self.history + "*"):
            os.unlink(old)
        with contextlib.closing(sqlite3.connect(self.history, isolation_level=None)) as database:
            database.executescript(head + begin + sql)

    def sums(self):
        return [{name: value for name, value in row.items() if name != "from_us"} for row in self.usage()]

    def counters(self):
        return {name: value for name, value in self.metrics().items() if "_total{" in name}

    def test_files(self):
        for file in sorted(pathlib.Path(COPIES).glob("*/history*.sql")):
            since = file.parent.name
            before = json.loads(copy(since, "history.json").read_text())
            self.restore(file)
            avcore = Avcore(self.socket)
            self.serve()
            self.assert_same(since, "history.db", self.sums(), before["sums"])
            self.assert_same(since, "metrics", self.counters(), before["counters"])
            total = sum(row["up"][1] + row["down"][1] for row in before["sums"])
            # One that goes on, and a new one.
            avcore.tell({"flow": flow(*OPEN[:2], OPEN[2] + 100, ended="fin")}, ended(1, 10, 5, id="new"))
            wait_until(lambda: self.total() == total + 115, f"{total + 115} bytes")
            self.assertEqual(self.stop(), "")
            avcore.kill()


class Copy(Saved):
    """Not tests: what --copy runs. What people write is the last version's, unless it is there already."""
    def files(self):
        here, last = copy(version(), "."), versions()[-1]
        here.mkdir(exist_ok=True)
        for name in ("document.json", "avcore.toml", "avwatch.toml", PORTS):
            if not copy(version(), name).exists():
                shutil.copy(copy(last, name), here)
        for path in HEADERS:
            copy(version(), f"{pathlib.Path(path).stem}.txt").write_text(
                "".join(piece + ("\n" if piece.startswith("#") else ";\n") for piece in pieces(read(path))))
        for path in (TAKEN, TOLD):
            shutil.copy(f"{PROJECT}/{path}", here)
        self.restart(version(), PORTS)
        sent = self.sent(version())
        copy(version(), "sent.txt").write_text("".join(f"{number} {hex_of(payload)}".rstrip() + "\n"
                                                       for number, payload in sent))
        answers = {"sent": self.answers()}
        for name in SAVED:
            shutil.copy(FOLDER / name, here)
        self.start()
        copy(version(), "answers.json").write_text(json.dumps(answers | {"loaded": self.answers()}, indent=1) + "\n")


class CopyHistory(History):
    def file(self):
        avcore = Avcore(self.socket)
        self.serve()
        avcore.tell(ended(1, 1200, 98_000), ended(2, 500, application="www.example.com", named_by="dns"),
                    ended(3, 240, verdict="deny", dropped=[16, 0]),
                    ended(4, 900, 4000, application="", verdict="none"),
                    {"flow": flow(5, 700, 300)})
        wait_until(lambda: self.metrics()["jorn_history_open_flows"] == 1)
        time.sleep(12)  # until its name counts
        avcore.tell({"flow": flow(*OPEN)})
        wait_until(lambda: sum(row["up"][1] for row in self.usage()) == 9840)
        found = {"sums": self.sums(), "counters": self.counters()}
        self.stop()
        copy(version(), "history.json").write_text(json.dumps(found, indent=1) + "\n")
        with contextlib.closing(sqlite3.connect(self.history)) as file:
            kept = [f"PRAGMA {name} = {file.execute('PRAGMA ' + name).fetchone()[0]};\n"
                    for name in ("auto_vacuum", "application_id", "user_version")]
            copy(version(), "history.sql").write_text(f"-- of {time.time():.0f}\n" + "".join(kept) +
                                                      "\n".join(file.iterdump()) + "\n")


if __name__ == "__main__":
    COPY = ["Copy.files", "CopyHistory.file"]
    TESTS = ["Interfaces", "Saved", "History"]
    unittest.main(argv=[sys.argv[0], *(COPY if sys.argv[1:] == ["--copy"] else sys.argv[1:] or TESTS)])
