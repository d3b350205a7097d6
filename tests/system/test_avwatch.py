"""avwatch against a watch socket that the test plays: what it shows, and what it takes of a socket's other
end that isn't avcore."""
import json
import re
import tempfile

import jsonschema

from testbed import *

SCHEMA = jsonschema.Draft7Validator(json.loads(read_file(EXAMPLES + "/watch.schema.json")))

GREETING = {"jorn": "watch", "version": 1, "run": "r1", "boot": "b1", "started_us": 1_764_150_000_000_000,
            "inline": True, "counts": "wire"}
TV, LAPTOP, PHONE = "02:00:00:00:00:0A", "02:00:00:00:00:02", "02:00:00:00:00:03"
COUNTS = {"up": [10, 1_000], "down": [20, 20_000], "dropped": [0, 0], "last_us": 1_764_150_005_000_000}
ALIASES = f'[alias]\ntelly = "{TV.lower()}"\nprinter = "2001:DB8::9"\n'


def flow(number, **members):
    return {"id": f"f{number}", "client": "192.0.2.1", "client_port": 40_000 + number, "client_mac": TV,
            "server": "198.51.100.7", "server_port": 443, "protocol": "TCP", "interface": "wlan0", "utp": 3,
            "begun_us": 1_764_150_001_000_000, "application": "www.example.com", "verdict": "allow",
            "why": {"rule": 0}, **COUNTS, **members}


def client(mac, *addresses, **members):
    return {**({"client_mac": mac} if mac else {}), "addresses": list(addresses), "interface": "wlan0", "utp": 3,
            "flows": 1, **COUNTS, **members}


CLIENTS = [client(None, "192.0.2.11"), client(TV, "192.0.2.1", "192.0.2.11"),
           client(LAPTOP, "192.0.2.2", host_name="Laptop", down=[1, 5_000_000]),
           client(PHONE, "192.0.2.3", host_name="laptop"), client(None, "2001:db8::9", down=[1, 1])]


class Avcore:
    """Takes one connection, greets, and has `answers` say what comes for a question: messages of the schema
    without their ids, and bytes that are sent as they are."""

    def __init__(self, path, answers, greeting=GREETING, piece=None):
        self.asked, self.path = [], path
        self.answers, self.greeting, self.piece = answers, greeting, piece
        if os.path.exists(path):
            os.unlink(path)
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.listener.bind(path)
        self.listener.listen()
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        connection, _ = self.listener.accept()
        with connection, self.listener, connection.makefile() as lines:
            try:
                self.send(connection, self.greeting)
                for line in lines:
                    question = json.loads(line)
                    self.asked.append(question)
                    for each in self.answers(question):
                        if isinstance(each, dict):
                            each = {"id": question["id"], **each}
                            SCHEMA.validate(each)
                        self.send(connection, each)
                    if "follow" in question:
                        break
                    self.send(connection, {"id": question["id"], "done": True})
            except (BrokenPipeError, ConnectionResetError):
                pass  # it has read enough

    def send(self, connection, what):
        sent = what if isinstance(what, bytes) else json.dumps(what).encode() + b"\n"
        piece = self.piece or len(sent) or 1
        for begin in range(0, len(sent), piece):
            connection.sendall(sent[begin:begin + piece])

    def filters(self):
        return [{key: question[key] for key in question if key not in ("id", "ask", "follow", "every_ms")}
                for question in self.asked if question.get("ask") != "clients"]


def listed(**answers):
    """Answers by what is asked or followed: clients, flows..., each as messages' contents."""
    def answer(question):
        what = question.get("ask", "follow")
        member = {"flows": "flow", "clients": "client"}.get(what, what)
        said = answers.get(what, CLIENTS if what == "clients" else [])
        return [each if isinstance(each, bytes) or what == "follow" else {member: each} for each in said]
    return answer


class Avwatch(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.socket, self.toml = folder.name + "/watch.sock", folder.name + "/avwatch.toml"
        write_file(self.toml, ALIASES)

    def avwatch(self, *words, before=()):
        """Exit status, lines, and what is complained of."""
        done = subprocess.run([*before, jorn_path("avwatch"), "-c", self.toml, "--watch-socket", self.socket, *words],
                              capture_output=True, timeout=DEADLINE, env={**os.environ, "TZ": "XYZ-2"})
        return done.returncode, done.stdout.decode().splitlines(), done.stderr.decode()

    def shown(self, *words, answers=None, complaint="", **avcore):
        """The cells of a table's lines, or the objects of JSON lines."""
        self.avcore = Avcore(self.socket, answers or listed(), **avcore)
        status, lines, complained = self.avwatch(*words)
        self.assertEqual((status, complained), (0, complaint))
        return [json.loads(line) if "--json" in words else re.split("  +", line.strip()) for line in lines]

    def test_clients_and_applications(self):
        macless = flow(2, client="192.0.2.11")
        del macless["client_mac"]

        def growing(question):
            looks = [each for each in self.avcore.asked if each["ask"] == question["ask"]]
            more = 1_000_000 * (len(looks) - 1)
            if question["ask"] == "clients":
                return [{"client": {**each, "down": [1, each["down"][1] + more]}} for each in CLIENTS]
            return [{"flow": flow(1, application="tube", down=[9, 5_000_000 + more])},
                    {"flow": macless}, {"flow": flow(3, verdict="deny")},
                    {"flow": flow(4, client="192.0.2.3", client_mac=PHONE, application="")}]

        rows = self.shown("clients", answers=growing)
        self.assertEqual([row[:3] for row in rows], [
            ["CLIENT", "MAC", "ADDRESS"], ['"Laptop"', LAPTOP, "192.0.2.2"], ["telly", TV, "192.0.2.1 +1"],
            ['"laptop"', PHONE, "192.0.2.3"], ["printer", "2001:db8::9", "2001:db8::9"]])
        self.assertEqual(rows[1][3:8] + rows[1][-2:],
                         ["wlan0", "3", "1", "1.0 kB", "6.0 MB", "0", "2025-11-26 11:40:05"])
        first, second, *_ = self.shown("clients", "--json", answers=growing)
        self.assertEqual((second["client"], second["alias"], second["flows"], second["up"], second["addresses"]),
                         (TV, "telly", 2, [20, 2_000], ["192.0.2.1", "192.0.2.11"]))
        for row, growth in ((first, 1_000_000), (second, 2_000_000)):
            self.assertTrue(growth / DEADLINE < row["down_rate"] <= growth / 2, row)
        rows = self.shown("clients", "--app", "tube", "--verdict", "white-list", answers=growing)
        self.assertEqual([row[0] for row in rows], ["CLIENT", "telly", '"laptop"'])
        self.assertEqual(self.avcore.filters(), [{"application": "tube", "verdict": "white list"}] * 2)
        apps = self.shown("apps", "--json", answers=growing)
        self.assertEqual([(app["application"], app["clients"], app["flows"], app["down"]) for app in apps],
                         [("tube", 1, 1, [9, 6_000_000]), ("www.example.com", 1, 2, [40, 40_000]),
                          ("", 1, 1, [20, 20_000])])
        self.assertEqual(self.shown("apps", answers=growing)[-1][:5], ["-", "1", "1", "1.0 kB", "20.0 kB"])

    def test_who_is_meant(self):
        for said, asked in ((TV.lower(), TV), ("192.0.2.11", TV), ("telly", TV), ("2001:DB8:0::9", "2001:db8::9"),
                            ("192.0.2.99", "192.0.2.99"), ("printer", "2001:db8::9")):
            self.shown("flows", "--client", said)
            self.assertEqual(self.avcore.filters(), [{"client": asked}], said)
        for option, said, complaint in (("--client", "LAPTOP", "2 clients say that they are called"),
                                        ("--client", "nobody", 'no client is called "nobody"'),
                                        ("--name", "x" * 5_000, "longer than avcore reads")):
            Avcore(self.socket, listed())
            status, lines, complained = self.avwatch("flows", option, said)
            self.assertEqual((status, lines, complaint in complained), (1, [], True), complained)

    def test_flows_and_denials(self):
        few, many = flow(1), flow(2, up=[1, 9_000_000], client="2001:db8::1", wificalling=3,
                                                   outdated=True, gate="passes")
        rows = self.shown("flows", "--utc", answers=listed(flows=[few, many]))
        self.assertEqual(rows[1:], [
            ["telly", "[2001:db8::1]:40002", "198.51.100.7:443", "TCP", "www.example.com",
             "allow, wifi calling 3 (outdated)", "9.0 MB", "20.0 kB", "0", "2025-11-26 09:40:05Z", "passes"],
            ["telly", "192.0.2.1:40001", "198.51.100.7:443", "TCP", "www.example.com", "allow", "1.0 kB", "20.0 kB",
             "0", "2025-11-26 09:40:05Z", "-"]])
        sizes = {0: "0 B", 999: "999 B", 1_000: "1.0 kB", 99_949: "99.9 kB", 99_950: "100 kB", 999_499: "999 kB",
                 999_500: "1.0 MB"}
        rows = self.shown("flows", answers=listed(flows=[flow(1, up=[1, size]) for size in sizes]))
        self.assertEqual([row[6] for row in rows[:0:-1]], list(sizes.values()))
        self.assertEqual(self.shown("flows", "--json", answers=listed(flows=[few, many]), piece=7),
                         [{**each, "client_name": "telly"} for each in (many, few)])
        denied = flow(3, verdict="deny", dropped=[5, 0],
                      why={"rule": 1, "text": "named by DNS; by the web policy, Games"})
        rows = self.shown("denials", answers=listed(flows=[flow(4, verdict="deny"), denied]))
        self.assertEqual([(row[6], row[7]) for row in rows[1:]],
                         [("5", "named by DNS; by the web policy, Games"), ("0", "-")])
        self.assertEqual(self.avcore.filters(), [{"verdict": "deny"}])

    def test_names_as_the_history_keeps_them(self):
        write_file(self.toml, ALIASES + '[history]\nnames = "domain"\n')
        site = flow(1, application="www.shop.example.co.uk", host="www.shop.example.co.uk", verdict="deny",
                    why={"rule": 0, "named_by": "dns", "name": "www.shop.example.co.uk", "name_us": 5,
                         "text": "www.shop.example.co.uk, named by DNS; by the web policy, black list"})
        flows = [site, flow(2, application="Tube", why={"rule": 0, "named_by": "dpi"}), flow(3)]
        said = [*({"flow": each} for each in flows), {"event": {"what": "denied", "us": 1, "flow": site}}]
        for words, filters, count in ((("flows", "--app", "EXAMPLE.co.uk"), {}, 1),
                                      (("flows", "--name", "shop"), {}, 0),
                                      (("denials", "--name", "co.uk"), {"verdict": "deny"}, 1),
                                      (("apps",), {}, 3),
                                      (("flows", "--app", "example.co.uk", "--follow"), {}, 1),
                                      (("denials", "--name", "co.uk", "--follow"), {}, 1)):
            with self.subTest(words):
                avcore = Avcore(self.socket, listed(flows=flows, follow=said))
                _, lines, _ = self.avwatch(*words, "--json")
                self.assertEqual((len(lines), avcore.filters()[0]), (count, filters))
                self.assertNotIn("shop", "".join(lines))
        rows = self.shown("denials", answers=listed(flows=[site]))
        self.assertEqual(rows[1][7], "example.co.uk, named by DNS; by the web policy, black list")

    def test_following(self):
        later = {**COUNTS, "id": "f1", "up": [11, 1_100]}
        said = [{"flow": flow(1)}, {"listed": True}, {"count": later}, {"count": {**later, "id": "nobody's"}},
                {"sum": {"flows": 2, "up": [1, 600], "down": [1, 400], "dropped": [0, 0], "application": "",
                         "verdict": "none"}},
                {"flow": flow(1, ended="fin")},
                {"event": {"what": "denied", "us": 1_764_150_006_000_000, "flow": flow(5)}},
                {"event": {"what": "begun", "us": 1, "flow": flow(6)}}, {"lost": 3}]
        for words, cell, cells, complaint in (
                (("flows",), lambda line: line.split()[-1], ["STATE", "-", "fin"],
                 "flows that ended weren't read in time"),
                (("flows", "--json"), lambda line: json.loads(line)["up"], [[10, 1_000], [11, 1_100], [10, 1_000]],
                 "1.0 kB and 2 flows are missing here"),
                (("denials", "--json"), json.loads, [said[6]["event"]], "3 events were lost")):
            with self.subTest(words):
                avcore = Avcore(self.socket, listed(follow=said))
                status, lines, complained = self.avwatch(*words, "--follow", "--client", "telly")
                self.assertEqual((status, list(map(cell, lines)), avcore.filters()), (2, cells, [{"client": TV}]))
                self.assertIn(complaint, complained)
                self.assertIn("has ended the connection", complained)

    def test_state(self):
        gate = {"there": True, "interfaces": ["wlan0"], "verdicts": {"deny": 4}, "\x1b[2J": "\u202etxt.exe"}
        state = listed(counts=[{"frames": 5}], gate=[gate])
        text = "\n".join("  ".join(row) for row in self.shown("status", answers=state))
        self.assertEqual(text.splitlines(), [
            "avcore runs since: 2025-11-26 11:40:00", "counts: of all packets", "frames: 5", "gate:",
            "?[2J: ?txt.exe", 'interfaces: ["wlan0"]', "there: true", "verdicts:", "deny: 4"])
        greeting = {key: value for key, value in GREETING.items() if key != "jorn"}
        self.assertEqual(self.shown("status", "--json", answers=state),
                         [{"avcore": greeting, "counts": {"frames": 5}, "gate": gate}])

    def test_hostile_messages(self):
        def line(**members):
            return json.dumps({"id": 2, "flow": flow(9, **members)}).encode() + b"\n"
        wrong = [b"\n", b"x\n", b"[1]\n", b"{" * 60_000 + b"\n", b"[" * 65_000 + b"]\n", b'{"id": 2, "flow": null}\n',
                 b'{"id": 2, "neither": 1}\n', b'{"id": -1, "flow": {}}\n', b'{"id": 1e99, "done": true}\n',
                 b'{"id": 2, "flow": {"id": "f9"}}\n', line(up=[1]), line(up=[1, 2 ** 63]), line(up=[1, -2]),
                 line(up=[1, 1.5]), line(up=[1, 2 ** 70]), line(client="192.0.2.1\0"), line(client_mac="02:00"),
                 line(application="x" * 1_025), line(application=["x"]), line(last_us="1"), line(why="because"),
                 line(application="\xff").replace(b"\\u00ff", b"\xff"), line(outdated=1), line(last_us=None)]
        names = {"a\nb\x1b[31m\x7f\u009b": "a?b?[31m??", "x\u202etxt.exe\u2066\u200b": "x?txt.exe??",
                 "m\u00fcller": "m\u00fcller", "\u05d0\u05d1 1": "\u200e\u05d0\u05d1 1\u200e",
                 "\ud83d\ude00": "\U0001f600"}
        good = [flow(number, application=name) for number, name in enumerate(names)]
        rows = self.shown("flows", answers=listed(flows=wrong + good), complaint=f"avwatch: {len(wrong)} messages of "
                          "avcore's aren't understood, and missing here\n")
        self.assertEqual([row[4] for row in rows[1:]], list(names.values()))
        Avcore(self.socket, listed(flows=wrong + good))
        _, lines, _ = self.avwatch("flows", "--json")
        self.assertTrue(all(line.isascii() and line.isprintable() for line in lines))
        self.assertEqual([json.loads(line)["application"] for line in lines],
                         [name.encode("utf-16", "surrogatepass").decode("utf-16") for name in names])
        latest = flow(7, last_us=2 ** 63 - 1, up=[2 ** 63 - 1] * 2, down=[2 ** 63 - 1] * 2)
        self.assertEqual(self.shown("apps", answers=listed(flows=[latest]))[1][3:5], ["9.2 EB", "9.2 EB"])

    def test_who_is_no_avcore(self):
        no_newline = b"x" * 70_000
        for greeting, answers, said in (
                (b"HTTP/1.1 400 Bad Request\r\n\r\n", [], "doesn't greet as avcore does"),
                ({"jorn": "else", "version": 1}, [], "doesn't greet as avcore does"),
                ({**GREETING, "version": 2}, [], "speaks version 2 of the watch socket, avwatch knows 1"),
                ({**GREETING, "run": 7}, [], "greets without what a greeting has"),
                ({"error": "16 are here\x1b[2J"}, [], "refuses: 16 are here?[2J"),
                (no_newline, [], "says a line longer than 65536 bytes"),
                (GREETING, [no_newline], "says a line longer than 65536 bytes"),
                (GREETING, [no_newline + b"\n"], "says a line longer than 65536 bytes"),
                (GREETING, ['{"id": 1, "client": {'.encode()], "has ended the connection"),
                (GREETING, [b'{"id": 1, "error": "not today"}\n'], "avcore doesn't answer: not today")):
            with self.subTest(said):
                def answer(_, answers=answers):
                    yield from answers
                    raise BrokenPipeError  # and closes
                Avcore(self.socket, answer, greeting)
                status, lines, complained = self.avwatch("flows")
                self.assertEqual((status, lines), (1 if "not today" in said else 2, []), complained)
                self.assertIn(said, complained)
                self.assertEqual(complained.count("\n"), 1)
        Avcore(self.socket, listed(), b"")
        self.assertIn("doesn't answer", self.avwatch("status")[2])

    def test_no_socket(self):
        self.assertEqual(self.avwatch("flows"), (
            2, [], f"avwatch: nobody is at the watch socket {self.socket}: start avcore, or name its socket with "
                   "--watch-socket\n"))
        packets = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.addCleanup(packets.close)
        packets.bind(self.socket)
        packets.listen()
        self.assertIn("isn't a watch socket", self.avwatch("flows")[2])
        os.unlink(self.socket)
        Avcore(self.socket, listed())
        os.chmod(self.socket, 0)
        powerless = ("setpriv", "--bounding-set=-dac_override,-dac_read_search")
        status, _, said = self.avwatch("flows", before=powerless)
        self.assertEqual((status, "you may not use the watch socket" in said), (1, True), said)

    def test_configuration(self):
        for text, complaint in (('[alias]\ntv = "10.0.0.300"\n', "line 2: 'tv' must be a MAC address"),
                                ("[alias]\ntv = 3\n", "line 2: 'tv' must be a text"),
                                (f'[alias]\n"10.0.0.1" = "{TV}"\n', "line 2: '10.0.0.1' is an address"),
                                ("[aliases]\n", "line 1: unknown key 'aliases'; the keys are ")):
            write_file(self.toml, text)
            Avcore(self.socket, listed())
            status, _, said = self.avwatch("flows")
            self.assertEqual((status, complaint in said), (1, True), said)
        os.unlink(self.toml)
        self.assertIn("No such file", self.avwatch("status")[2])
        status, _, said = self.avwatch("flws")
        self.assertEqual((status, said), (
            2, 'avwatch: "flws" isn\'t expected here (did you mean "flows"?); --help says more\n'))


if __name__ == "__main__":
    unittest.main()
