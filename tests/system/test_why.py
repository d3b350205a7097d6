"""`avwatch why`: by which part of a document a flow is judged, and what would judge it instead."""
import tempfile

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
                {"app_name": "example", "rate_down": 1000}
            ]
        }
    ],
    "web_policies": [
        {"name": "kids", "uuid": "k", "categories": ["Gambling"],
         "blacklist": ["ads.example"]}
    ],
    "web_interfaces": [{"ifname": "wlan1", "enable": true, "policy_uuid": "k"}]
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

    def why(self, *arguments):
        """Exit status, the lines of the answer, and what was complained of."""
        done = subprocess.run([jorn_path("avwatch"), "why", "-c", "avcore.toml", *arguments],
                              cwd=self.folder, capture_output=True, text=True, timeout=DEADLINE)
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
            "path": "/web_policies/0/categories/0", "line": 14, "document": POLICY}))
        status, said = self.why_json("2001:db8::9", "--name", "ads.example", "--policy", POLICY)
        self.assertEqual((status, said["by"]["path"], said["by"]["line"]),
                         (1, "/web_policies/0/blacklist/0", 15))

        for arguments, complaint in (
                ((*GAMES, "--policy", "avcore.toml"), "parse error"),
                (("192.0.2.9",), "SERVER or --name"),
                (("192.0.2.9", "games.example"), "--name takes"),
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
        self.assertEqual((status, said["by"]["document"]), (1, "the exported document"))
        self.assertEqual(files(), before)
        self.assertEqual(jornctl("export")[1].splitlines(), exported)


if __name__ == "__main__":
    unittest.main()
