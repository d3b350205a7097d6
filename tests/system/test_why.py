"""`avwatch why`: by which part of a document a flow is judged, and what would judge it instead."""
import tempfile

import test_avwatch as played
from records import *

POLICY = "policy.json"
DOCUMENT = """{
    "policies": [
        {
            "utp_id": 3,
            "name": "guests",
            "rules": [
                {"app_name": "intranet.example", "deny": true},
                {"app_name": "games", "deny": true},
                {"app_name": "example", "rate_down": 1000},
                {"app_name": "clock", "cat_name": "User Defined", "deny": true}
            ]
        }
    ],
    "web_policies": [
        {"name": "kids", "uuid": "k", "categories": ["Gambling"],
         "blacklist": ["ads.example"]}
    ],
    "web_interfaces": [{"ifname": "wlan1", "enable": true, "policy_uuid": "k"}],
    "applications": [{"app_name": "clock", "dst_port": 7777, "protocol": "udp"}]
}
"""
CONFIG = """
[[rule]]
network = "192.0.2.0/24"
utp_id = 3

[[rule]]
network = "2001:db8::/32"
interface = "wlan1"
filter_type = ["url"]
"""
GAMES = ("192.0.2.9", "--name", "www.games.example")


class Why(JudgingTest):
    def setUp(self):
        super().setUp()
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        for name, text in ((POLICY, DOCUMENT), ("avcore.toml", CONFIG),
                           ("categories.txt", "bets.example Gambling\n")):
            write_file(f"{self.folder}/{name}", text)

    def why(self, *arguments, source=("-c", "avcore.toml")):
        """Exit status, the lines of the answer, and what was complained of."""
        done = subprocess.run([jorn_path("avwatch"), "why", *source, *arguments], cwd=self.folder,
                              capture_output=True, text=True, timeout=DEADLINE)
        return done.returncode, done.stdout.splitlines(), done.stderr

    def why_json(self, *arguments):
        status, lines, complaints = self.why(*arguments, "--json")
        self.assertEqual((len(lines), complaints), (1, ""))
        return status, json.loads(lines[0])

    def test_a_document_to_try(self):
        status, lines, complaints = self.why(*GAMES, "--policy", POLICY)
        self.assertEqual((status, complaints), (1, ""))
        self.assertEqual(lines[0], 'blocked by rule 2 of policy "guests" (/policies/0/rules/1, line 8 of '
                         'policy.json): "games" is in the name "www.games.example"')
        self.assertIn("UTP 3, interface wlan0, by [[rule]] 1 of avcore.toml", lines[1])
        then = lines[lines.index("without it:") + 1:]
        self.assertEqual([line.split(" (/")[0].strip() for line in then],
                         ['limited by rule 3 of policy "guests"',
                          'then passes: no rule of policy "guests" fits "www.games.example"'])

        # The web filter, of a client with an IPv6 address.
        bets = ("2001:db8::9", "[2001:db8:1::5]:443", "--name", "x.bets.example", "--policy", POLICY)
        status, said = self.why_json(*bets)
        self.assertEqual((status, said["answer"], said["by"]), (2, "unknown", None))
        status, said = self.why_json(*bets, "--categories", "categories.txt")
        self.assertEqual((status, said["answer"], said["by"]), (1, "blocked", {
            "path": "/web_policies/0/categories/0", "line": 15, "document": POLICY}))
        status, said = self.why_json("2001:db8::9", "--name", "ads.example", "--policy", POLICY)
        self.assertEqual((status, said["by"]["path"], said["by"]["line"]),
                         (1, "/web_policies/0/blacklist/0", 16))

        # Either protocol's, where none is given, and what of the document isn't asked.
        self.assertEqual(self.why_json("192.0.2.9", "games.example:80")[1]["server"], "games.example:80")
        lines = self.why("192.0.2.9", ":7777", "--name", "else", "--policy", POLICY)[1]
        self.assertEqual([line.split("; ")[-1] for line in lines if line.startswith("  note ")], [
            '  note      no web policy is asked, for filter_type of the client\'s profile has no "url"',
            'with the other one: blocked by rule 4 of policy "guests" (/policies/0/rules/3, line 10 of '
            'policy.json): "clock" is in the name "clock"'])

        for arguments, complaint in (
                ((*GAMES, "--policy", "avcore.toml"), "parse error"),
                (("192.0.2.9",), "SERVER or --name"),
                (("192.0.2.9", "192.0.2.300"), "neither an IP address"),
                (("192.0.2.9", ":443"), "SERVER or --name"),
                (("192.0.2.9", "192.0.2.1:0"), "a port is"),
                ((*GAMES, "--protocol", "icmp"), "icmp")):
            status, lines, complaints = self.why(*arguments)
            self.assertEqual((status, lines, complaints.count("\n")), (2, [], 1), complaints)
            self.assertIn(complaint, complaints)

    def test_what_is_in_force_and_part_of_a_document(self):
        self.assertEqual(jornctl("apply", "-", document=json.loads(DOCUMENT))[0], 0)

        def files():
            with os.scandir("/writable/jorn") as found:
                return {each.name: (read_file(each.path), each.stat().st_mtime_ns) for each in found}
        before = files()
        exported = jornctl("export")[1].splitlines()
        status, said = self.why_json(*GAMES)
        self.assertEqual((status, said["by"]["path"]), (1, "/policies/0/rules/1"))
        line = said["by"]["line"]
        self.assertIn('"app_name": "games"', "".join(exported[line - 1:line + 2]))

        # What the document doesn't mention stays.
        write_file(f"{self.folder}/{POLICY}", '{"policies": []}')
        self.assertEqual(self.why(*GAMES, "--policy", POLICY)[0], 0)
        status, said = self.why_json("2001:db8::9", "--name", "ads.example", "--policy", POLICY)
        self.assertEqual((status, said["by"]["document"]), (1, "jornctl export"))
        self.assertEqual(files(), before)
        self.assertEqual(jornctl("export")[1].splitlines(), exported)

        write_file(PORT_SERVICE_FILE, "# ports\n7777,tcp,0,0,clock\n")
        status, said = self.why_json("192.0.2.9", "192.0.2.1:7777")
        self.assertEqual((status, said["by"]["path"], said["definition"]), (
            1, "/policies/0/rules/3", {"line": 2, "document": PORT_SERVICE_FILE}))
        os.rename("/writable/jorn/jorn_config.txt", "/writable/jorn/kept")
        os.mkdir("/writable/jorn/jorn_config.txt")
        status, lines, complaints = self.why(*GAMES)
        self.assertEqual((status, lines), (2, []))
        self.assertIn("what is in force isn't known", complaints)

    def test_answers_of_the_watch_socket(self):
        """Whoever gives them: which flow is meant, and names that steer a terminal or add a line."""
        self.assertEqual(jornctl("apply", "-", document=json.loads(DOCUMENT))[0], 0)
        steering, path = "a\nblocked\x1b[2J", self.folder + "/watch.sock"
        there = played.flow(1, client="2001:db8::1", host="www.games.example", application=steering,
                            why={"rule": 2, "named_by": "dpi", "app_id": 7, "cat_id": 8})
        profile = {"rule": 2, "interface": steering, "utp": 3, "if_index": 1, "server_interface": "eth0", "server_utp": 0,
                   "server_if_index": 2, "web_utp": [0, 0], "filter": ["dpi"], "engine": True, "application": "Games"}

        def why(*arguments, flows=(there,)):
            avcore = played.Avcore(path, played.listed(flows=flows, profile=[profile]))
            said = self.why(*arguments, source=("--watch-socket", path))
            return *said, [each for each in avcore.asked if each["ask"] != "clients"]
        status, lines, complaints, asked = why(played.TV, "--name", "www.games.example")
        self.assertEqual((status, complaints, [line.split()[0] for line in lines]),
                         (0, "", ["passes:", "client", "server", "name", "note", "note"]))
        self.assertTrue(all(line.isprintable() for line in lines), lines)
        self.assertEqual([tuple(map(each.get, ("client", "server", "rule"))) for each in asked], [
            (played.TV, None, None), ("2001:db8::1", "198.51.100.7", 2), ("2001:db8::1", "2001:db8::1", 2)])
        # Another address of the same client's has other flows; one of the server's kind is looked for.
        for server, client in (("198.51.100.7", "192.0.2.1"), ("2001:db8::7", played.TV)):
            self.assertEqual(why("192.0.2.1", server)[3][0]["client"], client)
        status, lines, complaints, asked = why("192.0.2.99", "--name", "x.games.example", flows=())
        self.assertEqual((status, lines[0].split(" (")[0]), (1, 'blocked by rule 2 of policy "guests"'))
        self.assertTrue(any("a [[rule]] fits that names a MAC address" in line for line in lines), lines)


if __name__ == "__main__":
    unittest.main()
