"""The watch socket of an avcore without a gate: rows, why, events, readers of all kinds."""
import itertools
import random
import re

from watch_reader import *

GAMES, PLAYER, SECOND = "203.0.113.9", "10.1.0.13", 1_000_000
BEGIN_US = 1_700_000_000 * SECOND
CONFIG = f"""
[[rule]]
mac = "02:00:00:00:00:77"
[[rule]]
network = "{PLAYER}/32"
interface = "wlan6"
utp_id = 3
[[rule]]
network = "{CLIENT}/32"
interface = "wlan5"
utp_id = 4
web_utp = [0, 7]
filter_type = ["url"]
"""
POLICIES = {"policies": [{"utp_id": 3, "rules": [{"app_name": "games.example", "deny": True}]}],
            "web_policies": [{"uuid": "u", "categories": ["Sex education"]}],
            "web_interfaces": [{"ifname": "wlan5", "enable": True, "policy_uuid": "u"}]}

# Clients by the last byte of their addresses, so their interfaces and profiles; all servers of a
# network have a profile, too.
ALL_KINDS = "".join(f"""[[rule]]
network = "{network}"
interface = "wlan{number}"
utp_id = {number}
web_utp = [{number + 4}, {number + 5}]
filter_type = {filter_type}
""" for number, network, filter_type in (
    (1, "10.1.0.1/32", []), (2, "10.1.0.2/32", ["wificalling"]), (3, "10.1.0.3/32", ["url", "wificalling"]),
    (4, "10.1.0.4/32", ["url"]), (6, "2001:db8:1::/48", ["url"]), (9, "198.51.100.0/24", [])))
OF_ALL_KINDS = {
    "policies": [{"utp_id": 1, "rules": [
        {"app_name": "door", "cat_name": "User Defined", "rate_up": 5}, {"app_name": "games.example", "deny": True},
        {"app_name": "local.", "qos": {"mark": {"kind": "both", "type": "Voice"}}},
        {"app_name": "ssh", "deny": True}, {"app_name": "miscellaneous", "qos": {"classify": "Video"}},
        {"app_id": 133, "cat_id": 26, "app_name": "NetFlix", "deny": True}]},
        {"utp_id": 4, "rules": [{"app_name": "example", "deny": True}]},
        {"utp_id": 9, "rules": [{"app_name": "youtube", "rate_down": 9}, {"app_name": "local", "deny": True}]}],
    "applications": [{"app_name": "clock", "dst_port": 7001}],
    "web_policies": [{"uuid": "u", "categories": ["Sex education"], "blacklist": ["games"], "whitelist": ["one."]},
                     {"uuid": "v", "blacklist": ["blocked.example", "netflix.com"]}],
    "web_utps": [{"id": 8, "name": "x", "uuid": "v"}, {"id": 7, "name": "x", "uuid": "u"}],
    "web_interfaces": [{"ifname": f"wlan{n}", "enable": True, "policy_uuid": "u"} for n in (3, 6)],
    "carriers": [{"pname": "telco", "priority": 3, "epdg": [{"fqdn": "epdg.example", "ipaddr": "192.0.2.55"}]}],
    "wificalling_interfaces": [{"ifname": f"wlan{n}", "profile": ["telco"]} for n in (2, 3)]}


def segment(port, flags, data=b"", *, back=False, server=GAMES):
    src, dst = (80, port) if back else (port, 80)
    packet = struct.pack(">HHIIBBHHH", src, dst, 1, 1, 0x50, flags, 512, 0, 0) + data
    if back:
        return from_server(ipv4(6, packet, src=server, dst=CLIENT))
    return ipv4_frame(6, packet, dst=server)


def from_server(packet):
    return ethernet(0x0800, packet, src=SERVER_MAC, dst=CLIENT_MAC)


SYN, FIN, RST, ACK = 2, 1, 4, 16


class Watch(PipedTest):
    categories = "blocked.example 5\n192.0.2.7 5\n"

    def start(self, config=CONFIG, document=POLICIES):
        """The daemon has the document's policies."""
        self.start_on_pipe(config)
        self.assertEqual(jornctl("apply", "-", document=document)[0], 0)
        self.passed = [[0, 0], [0, 0], [0, 0]]

    def reader(self):
        reader = Reader()
        self.addCleanup(reader.close)
        return reader

    def feed(self, *frames, at=0):
        for frame in frames:
            way = self.passed[frame[6:12] == mac(SERVER_MAC)]
            way[0], way[1] = way[0] + 1, way[1] + len(frame)
        super().feed(*frames, at=at)

    def end(self):
        self.pipe.close()
        self.avcore.communicate(timeout=DEADLINE)
        self.assertEqual(self.avcore.returncode, 0)

    def test_rows_say_what_was_decided_and_why(self):
        self.start()
        following = self.reader()
        self.assertEqual({key: following.greeting[key] for key in ("jorn", "inline", "counts")},
                         {"jorn": "watch", "inline": False, "counts": "seen"})
        self.assertEqual(os.stat(WATCH_SOCKET).st_mode & 0o7777, 0o660)
        self.assertEqual(following.follow("flows", "events"), [{"id": 9, "listed": True}])
        named = from_server(ipv4(17, udp(53, 6, dns_answer("games.example", "a.example", GAMES)),
                                 src=SERVER, dst=CLIENT))
        self.feed(named, udp_frame(1, 5000, src=PLAYER, dst=GAMES, tos=46 << 2))
        denied = following.event("denied")["flow"]
        self.assertEqual({key: denied[key] for key in (
            "client", "client_port", "client_mac", "server", "server_port", "protocol", "interface",
            "utp", "begun_us", "last_us", "up", "down", "application", "verdict", "dscp")}, {
                "client": PLAYER, "client_port": 1, "client_mac": CLIENT_MAC.upper(), "server": GAMES,
                "server_port": 5000, "protocol": "UDP", "interface": "wlan6", "utp": 3,
                "begun_us": BEGIN_US, "last_us": BEGIN_US, "up": [1, 42], "down": [0, 0],
                "application": "games.example", "verdict": "deny", "dscp": [46, 0]})
        self.assertEqual(denied["why"], {
            "named_by": "dns", "name": "games.example", "name_us": BEGIN_US, "rule": 2,
            "by": "application policy", "profile": 3, "side": "client",
            "text": "games.example, named by DNS; by the application policy of user profile 3, the "
                    "client's"})
        for what in ("begun", "named", "judged"):
            self.assertEqual(self.told(following, what)["id"], denied["id"])

        web = tcp_frame(2, 80, b"GET / HTTP/1.1\r\nHost: www.blocked.example\r\n\r\n")
        self.feed(web, udp_frame(3, 9, dst="198.51.100.1"), at=1)
        blocked = following.event("denied")["flow"]
        self.assertEqual((blocked["client_port"], blocked["host"], blocked["why"]["by"],
                          blocked["why"]["named_by"], blocked["why"]["reason"]),
                         (2, "www.blocked.example", "web policy", "address asked for",
                          "category 5 (Sex education)"))
        other = following.event("judged")["flow"]
        self.assertEqual((other["client_port"], other["application"], other["verdict"], other["why"]),
                         (3, "", "allow", {"rule": 3}))

        asking = self.reader()
        ports = lambda **filters: sorted(row["client_port"] for row in asking.ask("flows", **filters))
        for filters, expected in (
                ({}, [1, 2, 3, 6]), ({"name": "BLOCKED"}, [2]), ({"application": "Games.example"}, [1]),
                ({"application": "games"}, []), ({"verdict": "deny"}, [1, 2]),
                ({"client": CLIENT_MAC, "verdict": "allow"}, [3, 6]), ({"client": SERVER}, []),
                ({"since_us": BEGIN_US + 1}, [2, 3])):
            self.assertEqual(ports(**filters), expected, filters)
        [client] = asking.ask("clients")
        self.assertEqual(client, {
            "client_mac": CLIENT_MAC.upper(), "addresses": [CLIENT, PLAYER], "interface": "wlan5",
            "utp": 4, "flows": 4,
            "up": self.passed[0], "down": self.passed[1], "dropped": [0, 0],
            "last_us": BEGIN_US + SECOND})
        [counts] = asking.ask("counts")
        self.assertEqual((counts["flows"], counts["frames_fed"], counts["malformed_messages"]), (4, 4, 0))
        self.assertEqual(asking.ask("gate"), [None])
        [profile] = asking.ask("profile", client=PLAYER, server=GAMES)
        self.assertEqual(profile, {
            "rule": 2, "interface": "wlan6", "utp": 3, "if_index": 1, "server_interface": "eth0",
            "server_utp": 0, "server_if_index": 2, "web_utp": [0, 0], "filter": ["dpi"], "engine": True,
            "name": "games.example", "name_us": BEGIN_US, "categories": []})
        rules = [asking.ask("profile", client=PLAYER, server=GAMES, rule=rule)[0]["rule"] for rule in (0, 3, 4)]
        self.assertEqual(rules, [0, 3, 2])
        [profile] = asking.ask("profile", client_mac="02:00:00:00:00:77", name="WWW.YouTube.com")
        self.assertEqual((profile["rule"], profile["application"]), (1, "YouTube"))
        [profile] = asking.ask("profile", client=CLIENT, name="x.blocked.example")
        self.assertEqual((profile["filter"], profile["categories"], profile["web_utp"]),
                         (["url", "dpi"], [5], [0, 7]))
        for row in asking.ask("flows"):
            self.assertEqual(self.why(row["client"], f"{row['server']}:{row['server_port']}"),
                             (row["verdict"], row["application"]), row)
        self.assertEqual(self.why(CLIENT, "--name", "x.blocked.example"), ("deny", "x.blocked.example"))
        self.assertEqual(self.why(PLAYER, "--name", "www.youtube.com"), ("allow", "youtube"))

        jornctl("apply", "-", document={"policies": []})
        self.assertTrue(following.event("policies"))
        following.until(lambda message: message.get("flow", {}).get("outdated"))
        self.feed(udp_frame(3, 9, b"more", dst="198.51.100.1"))
        self.assertEqual(following.event("judged")["flow"]["client_port"], 3)

    def why(self, *words):
        """The verdict and the name, as avwatch finds them out by itself."""
        done = subprocess.run([jorn_path("avwatch"), "why", *words, "--json"], text=True,
                              capture_output=True, timeout=DEADLINE)
        said = json.loads(done.stdout)
        self.assertEqual(done.returncode, said["verdict"] == "deny", done)
        is_unnamed = re.fullmatch("[0-9a-f.:]+( .*)?", said["application"])
        return said["verdict"], "" if is_unnamed else said["application"]

    def test_why_finds_out_what_was_decided(self):
        """Flows of all that a name may come from, to servers of all kinds, and more rules than one fit."""
        write_file(PORT_SERVICE_FILE, "2222,tcp,3,2,door\n")
        self.start(config=ALL_KINDS, document=OF_ALL_KINDS)
        hello = client_hello("www.netflix.com")
        request = b"GET / HTTP/1.1\r\nHost: www.youtube.com\r\n\r\n"
        kinds = [(6, 443, hello), (6, 80, request), (6, 8080, b""), (6, 22, b""), (6, 7001, b""),
                 (6, 2222, b""), (17, 443, b""), (17, 4500, b"")]
        servers = {"192.0.2.1": "games.example", "192.0.2.2": "one.example", "192.0.2.3": "www.blocked.example",
                   "192.0.2.7": None, "192.0.2.8": None, "192.0.2.55": None, "192.0.2.56": "epdg.example",
                   "198.51.100.1": "local.example", "198.51.100.2": None}
        for address, name in [*servers.items(), ("10.1.0.1", "client.games.example"), ("2001:db8:2::1", "games.example")]:
            if name:  # which avcore forgets after five minutes, and the daemon keeps
                self.feed(from_server(ipv4(17, udp(53, 6, dns_answer(name, name, address)), src=SERVER, dst=CLIENT)),
                          at=150 if address == "192.0.2.56" else 0)
        for words, verdict in ((("10.1.0.3", "192.0.2.3:4433"), "allow"), (("10.1.0.3", "192.0.2.3:443"), "deny"),
                               (("10.1.0.4", "--name", "new.example"), "allow"), (("10.1.0.1", "192.0.2.1"), "deny")):
            self.assertEqual(self.why(*words)[0], verdict, words)
        flows = [(kind, {"src": f"10.1.0.{client}", "dst": server}) for kind in kinds for client in range(1, 6)
                 for server in servers]
        chosen = random.Random(28).sample(flows, 60 if is_sanitized("avwatch") else 120)
        for port, ((protocol, to, data), sides) in enumerate(chosen, 1000):
            packet = (tcp if protocol == 6 else udp)(port, to, data)
            self.feed(ipv4_frame(protocol, packet, **sides), at=200)
        for port, (client, server) in enumerate(itertools.product(("2001:db8:1::9", "2001:db8:3::9"),
                                                                  ("2001:db8:2::1", "2001:db8:2::2"))):
            self.feed(ipv6_frame(6, tcp(port, 443), src=client, dst=server), at=200)
        self.feed(udp_frame(3, 9, src="10.1.0.5"), at=350)
        asking = self.reader()
        fed = sum(way[0] for way in self.passed)
        wait_until(lambda: asking.ask("counts")[0]["frames_answered"] == fed)
        decided, named = set(), set()
        for row in asking.ask("flows"):
            server = f"[{row['server']}]" if ":" in row["server"] else row["server"]
            said = self.why(row["client"], f"{server}:{row['server_port']}", "--protocol", row["protocol"].lower())
            self.assertEqual(said, (row["verdict"], row["application"]), row)
            decided.add((row["verdict"], row["why"].get("by"), row["why"].get("named_by")))
            named.add((row["application"], row["why"].get("named_by")))
        self.assertGreater(len(decided), 12, decided)
        self.assertIn(("ipsec-nat-traversal", "port"), named)

    def told(self, reader, what):
        return next(event["flow"] for event in reader.events if event["what"] == what and
                    event["flow"]["client_port"] == 1)

    def test_ends_and_what_comes_again(self):
        self.start()
        following, seldom = self.reader(), self.reader()
        following.follow("flows", "events")
        seldom.follow("flows", every_ms=60_000, brief=True)
        seldom.socket.settimeout(DEADLINE / 2)
        self.feed(segment(1, SYN), segment(1, SYN | ACK, back=True), segment(1, FIN | ACK, b"1"),
                  segment(1, FIN | ACK, back=True), segment(1, ACK), segment(2, SYN),
                  segment(2, RST, back=True), udp_frame(3, 9), udp_frame(4, 9))
        self.feed(udp_frame(4, 9), at=200)
        ended = {}
        while len(ended) < 2:
            flow = following.event("ended")["flow"]
            ended[flow["client_port"]] = flow["ended"], flow["up"], flow["down"]
        self.assertEqual(ended, {1: ("fin", [3, 163], [2, 108]), 2: ("reset", [1, 54], [1, 54])})
        told = [message["brief"]["ended"] for message in (seldom.next(), seldom.next())]
        self.assertEqual(set(told), {"fin", "reset"})
        self.feed(segment(1, SYN), segment(2, ACK), udp_frame(4, 9, b"4"), at=400)
        flow = following.event("ended")["flow"]
        self.assertEqual((flow["client_port"], flow["ended"], flow["up"]), (3, "idle", [1, 42]))
        self.feed(udp_frame(3, 9), at=401)
        again = lambda: [flow for flow in following.flows.values() if "ended" not in flow]
        following.until(lambda message: len(following.flows) == 7 and len(again()) == 4)
        self.assertEqual({flow["client_port"]: flow["up"] for flow in again()},
                         {1: [1, 54], 2: [1, 54], 3: [1, 42], 4: [3, 127]})
        self.end()
        following.until(lambda message: False)
        self.assertEqual([flow["ended"] for flow in following.flows.values()].count("stopped"), 4)
        self.assertEqual(following.totals, self.passed)

    def test_a_reader_who_sleeps_gets_it_all_in_the_end(self):
        self.start()
        readers = awake, asleep, listening = [self.reader() for _ in range(3)]
        for reader in readers:
            reader.send(id=9, follow=["events"] if reader is listening else ["flows"], every_ms=200)
        awake.until(lambda message: "listed" in message)
        for second in (0, 400):  # by then the first ones are over, and more than are kept
            self.feed(*(udp_frame(port, 9, bytes(port % 50), dst="198.51.100.1") for port in range(1, 20_001)),
                      at=second)
            awake.until(lambda message: awake.totals[0][0] == self.passed[0][0])
        late = self.reader()
        self.assertEqual(len(late.follow("flows")), 20_001)
        for reader in (awake, asleep):
            if reader.totals != self.passed:
                reader.until(lambda message: reader.totals == self.passed)
        self.assertEqual(len(awake.flows), 40_000)
        self.assertGreater(sum(told["flows"] for told in asleep.sums), 1000)
        lost = listening.until(lambda message: "lost" in message)[-1]["lost"]
        self.assertGreater(lost, 10_000)

    def test_whoever_connects_may_say_anything(self):
        self.start()
        self.feed(udp_frame(3, 9))
        readers = [self.reader() for _ in range(16)]
        refused = Reader()
        self.assertIn("sixteen", refused.greeting["error"])
        self.assertIsNone(refused.next())
        refused.close()
        for line, id, why in (
                (b"not JSON", None, "object"), (b"[" * 4000, None, "object"), (b"\xff\0", None, "object"),
                (b'{"ask": "flows"}', None, "id"), (b'{"id": 4294967296, "ask": "flows"}', None, "id"),
                (b'{"id": 1e300, "ask": "flows"}', None, "id"), (b'{"id": 5, "ask": "all"}', 5, "asked"),
                (b'{"id": 5, "ask": 5}', 5, "ask"), (b'{"id": 5, "follow": {}}', 5, "follow"),
                (b'{"id": 5, "follow": ["x"]}', 5, "follow"), (b'{"id": 5, "follow": [[[]]]}', 5, "follow"),
                (b'{"id": 5, "follow": ["flows"], "every_ms": 199}', 5, "every_ms"),
                (b'{"id": 5, "follow": ["flows"], "brief": 1}', 5, "brief"),
                (b'{"id": 5, "follow": ["flows"], "ended_within_ms": -1}', 5, "ended_within_ms"),
                (b'{"id": 5, "ask": "flows", "since_us": -1}', 5, "since_us"),
                (b'{"id": 5, "ask": "flows", "client": "10.1.0.12/8"}', 5, "client"),
                (b'{"id": 5, "ask": "flows", "name": {}}', 5, "name")):
            readers[0].socket.sendall(line + b"\n")
            answer = readers[0].next()
            self.assertEqual(answer.get("id"), id, (line, answer))
            self.assertIn(why, answer["error"])
        self.assertEqual(len(readers[0].ask("flows", unknown=[{}])), 1)
        for endless in readers[1:3]:
            with contextlib.suppress(BrokenPipeError, ConnectionResetError):
                endless.socket.sendall(b"{" * 100_000)
        self.assertIn("too long", readers[1].next()["error"])
        readers[3].socket.sendall(b'{"id": 1, "ask": "flows"}\n' * 100)  # more than may wait
        readers[3].socket.shutdown(socket.SHUT_WR)
        answers = readers[3].until(lambda message: False)
        self.assertEqual([len([a for a in answers if key in a]) for key in ("flow", "done")], [100] * 2)
        readers[4].close()
        wait_until(lambda: "jorn" in self.reader().greeting)


if __name__ == "__main__":
    unittest.main()
