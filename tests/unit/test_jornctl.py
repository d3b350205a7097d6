"""The built jornctl against a stand-in of the daemon, and what it refuses before it speaks to one.

Usage: test_jornctl.py JORNCTL
"""
import json
import os
import re
import socket
import subprocess
import sys
import tempfile
import threading
import unittest

JORNCTL = sys.argv.pop(1)
DEADLINE = 60  # seconds, of what takes milliseconds on an idle machine


class Jornctl(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.socket = self.folder + "/socket"

    def run_it(self, *arguments, document=None, before=()):
        """Exit status, standard output and standard error."""
        done = subprocess.run([*before, JORNCTL, "--socket", self.socket, *arguments],
                              input=json.dumps(document).encode(), capture_output=True,
                              timeout=DEADLINE)
        return done.returncode, done.stdout, done.stderr.decode()

    def daemon(self, reply):
        """Answers one command with these bytes."""
        listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.addCleanup(listener.close)
        if os.path.exists(self.socket):
            os.unlink(self.socket)
        listener.bind(self.socket)
        listener.listen()

        def serve():
            client, _ = listener.accept()
            with client:
                while client.recv(122_880):  # what is left unread takes the reply along
                    pass
                client.sendall(reply)
        threading.Thread(target=serve, daemon=True).start()

    def test_no_name_steers_the_terminal(self):
        self.daemon("\n\tApp Name:a\x1b[2J\x07\r\x7f\x9b1m\u00e9\t\n".encode())
        self.assertEqual(self.run_it("show", "dns"),
                         (0, "\n\tApp Name:a?[2J????1m\u00e9\t\n".encode(), ""))

    def test_what_listings_say(self):
        web = ("Filter_Type: CUSTOM\tNo of Blocked categories:2\n"
               "Blocked categories:\n\tNews\n\t200\n\n"
               "Whitelist-Domains:\n\tBlacklist-Domains:\n\nBlacklist-Domains: Not Configured\n"
               "Google Safe Search VIP: 10.0.0.1\n"
               "YoutubeSafeSearch: Disable\nBingSafeSearch: Disable\n\n")
        policy = {"filter_type": "CUSTOM", "categories": ["News", "200"],
                  "whitelist": ["Blacklist-Domains:"], "blacklist": [], "google_vip": "10.0.0.1",
                  "youtube_vip": None, "bing_vip": None}
        carrier = "({}) Policy Name: {}\nPriority: 3\nFQDN: {}\nIPaddr:{}\n\n"
        bindings = ("Interface Name: not present\n" +
                    carrier.format(1, "c", "a,b, c", " 1.0.0.1, 1.0.0.2,1.0.0.3") +
                    carrier.format(2, "d", "a, b", "1.0.0.1") + "(3) Policy Name: none\n\n")
        for noun, text, said in (
                (("dns",), "\n====JORN DNS CACHE====\nTOTAL:3\nNO:1\n\t dst ip: 10.0.0.1\n"
                           "\t application name: a.example\n\t aging time: 7\n\n",
                 {"entries": [{"ip": "10.0.0.1", "app_name": "a.example", "aging_time": 7}],
                  "total": 3}),
                (("priority", "3"),
                 "\n ARC Policy Name: p \n\tApp Id:1\tCat Id:32768 (User Defined)\n"
                 "\tApp Name:n \tCat Name:User Defined\n\tRule:Deny \n"
                 "\tQoS mark pri:dscp\tQoS mark type:Voice\n"
                 "\tQoS classify pri:Priority\tQoS classify type:Video\n"
                 "\tRatelimit Uplink:1\tRatelimit Downlink:2\n\n",
                 {"name": "p", "rules": [{"app_id": 1, "cat_id": 32768, "app_name": "n",
                  "cat_name": "User Defined", "deny": True, "qos": {"mark": {
                      "kind": "dscp", "type": "Voice"}, "classify": "Video"}, "rate_up": 1,
                  "rate_down": 2}]}),
                (("url", "wlan0"), "\nURL Filtering is: Enable\tPolicy UUID: u\n" + web,
                 {"enable": True, "policy": {"uuid": "u", **policy}}),
                (("utp-web", "7"), "\nUTP Name: n \tID: 7\n\n==== No Web Policy Attached ====\n",
                 {"name": "n", "id": 7, "policy": None}),
                (("wifi-calling",), bindings, [{"ifname": "not present", "carriers": [
                    {"pname": "c", "priority": 3, "epdg": [
                        {"fqdn": "a", "ipaddr": "1.0.0.1"}, {"fqdn": "b", "ipaddr": "1.0.0.2"},
                        {"fqdn": "c", "ipaddr": "1.0.0.3"}]},
                    {"pname": "d", "priority": 3, "fqdn": "a, b", "ipaddr": ["1.0.0.1"]},
                    {"pname": "none"}]}]),
                (("wifi-calling",), "", [])):
            with self.subTest(noun):
                self.daemon(text.encode())
                self.assertEqual(self.run_it("show", *noun)[:2], (0, text.encode()))
                self.daemon(text.encode())
                status, printed, warned = self.run_it("show", *noun, "--json")
                self.assertEqual((status, json.loads(printed), "1 of 3 shown" in warned),
                                 (0, said, noun == ("dns",)))

    def test_what_listings_refuse(self):
        for noun, text, said in (
                (("url", "wlan0"), "\nInterface wlan0 not present \n", "Interface wlan0 not present"),
                (("utp-web", "0"), "\n Invalid UTP ID \n", "Invalid UTP ID"),
                (("utp-web", "5"), "\nUTP ID 5 not preset \n", "UTP ID 5 not preset"),
                (("priority", "0"), "\n Invalid ARC PCY ID \n", "Invalid ARC PCY ID"),
                (("utps",), "", "no answer to command 25"),
                (("url", "w" * 17), "", "has 1 to 16 characters"),
                (("dns", "--json"), "\nTOTAL:x\n", "listing can't be read at"),
                (("utps", "--json"), "\tUTP ID    : 3\n", "listing can't be read at")):
            with self.subTest(noun):
                self.daemon(text.encode())
                status, printed, complaint = self.run_it("show", *noun)
                self.assertEqual((status, printed), (1, b""))
                self.assertIn(said, complaint)

    def test_files_that_never_end(self):
        for arguments in (("apply", "--check"), ("port-services",), ("raw", "17")):
            status, _, said = self.run_it(*arguments, "/dev/zero")
            self.assertEqual((status, "/dev/zero: has more than" in said), (1, True), said)

    def test_a_daemon_that_is_not_for_everybody(self):
        self.daemon(b"")
        os.chmod(self.socket, 0)
        powerless = ("setpriv", "--bounding-set=-dac_override,-dac_read_search")
        status, _, said = self.run_it("write", before=powerless if os.geteuid() == 0 else ())
        self.assertEqual((status, said), (
            1, f"jornctl: you may not use the socket {self.socket}: Permission denied\n"))
        os.environ["JORN_AV_SOCK"] = self.socket
        self.addCleanup(os.environ.pop, "JORN_AV_SOCK")
        status, _, said = self.run_it("apply", "--check", "--strict", "-", document={"policies": []},
                                      before=powerless if os.geteuid() == 0 else ())
        self.assertEqual((status, said), (0, "jornctl: avcore isn't asked, for you may not use its "
                                             f"socket {self.socket}: Permission denied\n"))

    def test_a_platform_that_answers_oddly_or_not_at_all(self):
        path = self.folder + "/av"
        listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.addCleanup(listener.close)
        listener.bind(path)
        listener.listen()

        def serve(answers):
            client, _ = listener.accept()
            with client:
                for answer in answers:
                    client.send(client.recv(64)[:8] + answer)
                client.recv(64)  # nothing more comes, and jornctl leaves
        strange = [b"\0" * 4 + b"Tube\0no end", b"\0" * 4 + bytes(15)]
        document = {"policies": [{"utp_id": 1, "rules": [{"app_name": "casino"}]},
                                 {"utp_id": 2, "rules": [{"app_name": "tube"}]}]}
        for answers, paths in (([], []), (strange, ["/policies/0/rules/0/app_name"])):
            with self.subTest(answers):
                platform = threading.Thread(target=serve, args=(answers,), daemon=True)
                platform.start()
                status, _, said = self.run_it("apply", "--check", "-", document=document,
                                              before=("env", "JORN_AV_SOCK=" + path))
                platform.join(DEADLINE)
                self.assertEqual((status, re.findall(r"-: ([^ :]+)", said)), (0, paths))

    def test_descriptions_of_payloads(self):
        document = {"policies": [{"utp_id": 1, "name": "block", "rules": [
            {"app_name": "ICMP", "deny": True, "qos": {"classify": "Background"}}]}]}
        _, said, _ = self.run_it("apply", "--dry-run", "-", document=document)
        flush, add, fields = said.decode().split("\n", 2)
        self.assertEqual((flush, add, json.loads(fields)), (
            "24 CMD_ARC_POLICY_FLUSH_REQ, 0 bytes", "23 CMD_ARC_POLICY_CFG_REQ, 7352 bytes",
            document["policies"][0]))
        hostile = self.folder + "/payload"
        ones = b"\xff"
        for number, payload, head, part in (
                (26, ones * 80, "CMD_ARC_POLICY_LOG_CFG_REQ, 80 bytes, 8 of them behind its end", "\ufffd"),
                (6, ones * 300, "CMD_POLICY_USERDEF_CFG_REQ, 300 bytes, 296 of them behind", '"count": -1'),
                (20, ones * 10, "CMD_ARC_UTP_CFG_REQ, 10 bytes of 140; the others", '"id": 4294967295'),
                (23, ones * 7352, "CMD_ARC_POLICY_CFG_REQ, 7352 bytes\n", '"kind": 3'),
                (9, bytes(range(76)), "CMD_ROAM_NOTIFY_REQ, 76 bytes\n", '"to_ap_ipv4": "56.57.58.59"'),
                (31, bytes(range(216)), "CMD_UF_AGENT_REPLY, 216 bytes\n", '"src_port": 14907'),
                (8, b"", "CMD_POLICY_CLEAN, 0 bytes\n", "")):
            with open(hostile, "wb") as file:
                file.write(payload)
            status, said, _ = self.run_it("decode", str(number), hostile)
            self.assertEqual((status, said.decode().startswith(f"{number} {head}")), (0, True), said)
            self.assertIn(part, said.decode())
        self.assertEqual(self.run_it("decode", "5", hostile)[0], 1)
        status, said, complaint = self.run_it("decode", "20", "-", document={"utps": [{"id": 5}]})
        self.assertEqual((status, said, "this is a text" in complaint), (1, b"", True))

    def test_categories_are_those_of_the_documentation(self):
        with open(os.path.join(os.path.dirname(__file__), "../../docs/jornctl.md")) as file:
            listed = re.search(r"(?ms)^0 Uncategorized, .*?\.$", file.read())
        status, said, _ = self.run_it("categories")
        self.assertEqual((status, said.decode().replace("\t", " ").splitlines()),
                         (0, listed[0][:-1].replace("\n", " ").split(", ")))

    def test_what_is_not_understood(self):
        for arguments, said in (
                (("aply", "x"), '"aply" isn\'t expected here (did you mean "apply"?)'),
                (("show", "dnz"), '"dnz" isn\'t expected here (did you mean "dns"?)'),
                (("apply", "--chek"), '"--chek" isn\'t expected here (did you mean "--check"?)'),
                (("apply", "x", "y"), '"y" isn\'t expected here;'),
                ((), "What to do is required"), (("decode", "x", "y"), "Could not convert"),
                (("apply", "--check", "--dry-run", "x"), "excludes"),
                (("debug", "onn"), "not in")):
            got, _, line = self.run_it(*arguments)
            self.assertEqual((got, said in line, line.count("\n")), (2, True, 1), line)


if __name__ == "__main__":
    unittest.main()
