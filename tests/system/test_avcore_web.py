"""avcore behind the web filter and Wi-Fi calling: categories, late answers, safe search, tags."""
import glob
import re

from records import *

EPDG = "198.51.100.9"
SAFE_SEARCH, HOSTS = "/tmp/resolvers", ("google.com", "search.google.com", "www.google.com")


def web_frame(domain, src_port):
    return tcp_frame(src_port, 80, f"GET / HTTP/1.1\r\nHost: {domain}\r\n\r\n".encode())


def resolve(name, kind):
    """The response code and the addresses of a name."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as asking:
        asking.settimeout(1)
        asking.connect(("127.0.0.1", 53))
        asking.send(struct.pack(">HHHHHH", 7, 0x100, 1, 0, 0, 0) + dns_name(name) +
                    struct.pack(">HH", kind, 1))
        try:
            reply = asking.recv(512)
        except OSError:
            return None
    count = int.from_bytes(reply[6:8], "big")
    return reply[3] & 15, {socket.inet_ntoa(reply[-4 - 16 * n:][:4]) for n in range(count)}


class AvcoreWeb(PipedTest):
    categories = "blocked.example 9 5\nfree.example 6\n"
    daemon_options = ("-d",)

    def start(self, *options):
        """Rows are printed when they are asked for."""
        self.addCleanup(os.umask, os.umask(0o077))
        self.addCleanup(shutil.rmtree, SAFE_SEARCH, True)
        self.start_on_pipe('[client]\nfilter_type = ["url", "wificalling"]\n[platform]\n'
                           'base_mac = "02:00:00:00:00:01"\nwebroot_server = "urls.example"\n'
                           f'[web]\nsafe_search = "{SAFE_SEARCH}"\n', *options)

    def start_judging(self, *options):
        self.start(*options)
        command(WEB_POLICY, web_policy("u", categories=[5]))
        command(WEB_INTF, web_binding())

    def report(self):
        """The rows at the end, by the client's port, and the totals."""
        self.pipe.close()
        rows, totals = self.avcore.communicate(timeout=60)
        self.assertEqual(self.avcore.returncode, 0, totals)
        return {row["client_port"]: row for row in map(json.loads, rows.splitlines())}, totals

    def test_categories_and_calls_end_in_the_rows(self):
        self.start_judging()
        command(CARRIER, carrier("Other", 1, ("epdg.other.example", "0.0.0.0")))
        command(CARRIER, carrier("Carrier", 3, ("epdg.example", "0.0.0.0")))
        command(CARRIER_BINDING, carrier_binding("wlan0", "Other", "Carrier"))
        resolved = ipv4(17, udp(53, 6, dns_answer("epdg.example", "a.epdg.example", EPDG)), dst=CLIENT)
        self.feed(web_frame("a.Blocked.example", 1), web_frame("free.example", 2),
                  web_frame("unblocked.example", 3), ethernet(0x0800, resolved, dst=CLIENT_MAC),
                  udp_frame(500, 500, dst=EPDG), udp_frame(4500, 4500, b"\0\0\0\0", dst=EPDG))
        rows, _ = self.report()
        self.assertEqual([rows[port]["verdict"] for port in (1, 2, 3)], [3, 1, 1], rows)
        for port in (500, 4500):
            self.assertEqual({key: rows[port].get(key) for key in (
                "application", "wificalling", "priority", "fqdn")}, {
                    "application": "carrier", "wificalling": True, "priority": 3,
                    "fqdn": "epdg.example"})
        self.assertFalse([row for port, row in rows.items() if port < 500 and "wificalling" in row])

    def test_jornctl_knows_what_avcore_was_started_with(self):
        self.start()
        document = {"policies": [{"utp_id": 9, "rules": [
            {"app_name": name} for name in ("youtube", "QQ", "casino", "QZ")]}],
                    "carriers": [{"pname": "c", "priority": 1}],
                    "wificalling_interfaces": [{"ifname": name, "profile": ["c"]}
                                               for name in ("wlan0", "wlan5")]}
        status, _, said = jornctl("apply", "--check", "-", document=document)
        self.assertEqual((status, re.findall(r"-: (\S+)", said)), (
            0, ["/policies/0/rules/2/app_name", "/policies/0/rules/3/app_name",
                "/policies/0/utp_id:", "/wificalling_interfaces/1/ifname"]), said)
        for example in glob.glob(os.path.dirname(os.path.realpath(__file__)) + "/../../examples/*.json"):
            if "schema" not in example:
                command(UTP_FLUSH)  # or it is warned that the other table's are lost
                status, _, said = jornctl("apply", "--strict", example)
                self.assertEqual(status, 0, said)
        known = subprocess.run([jorn_path("avcore"), "applications"], capture_output=True, text=True)
        self.assertRegex(known.stdout, r"\Aapp_id +cat_id +(?s:.*)\n\d+ +1 +YouTube +Media\n")

    def test_late_answers_deny(self):
        self.start_judging("--url-agent-delay", "1000")
        self.feed(web_frame("blocked.example", 1), web_frame("blocked.example", 2),
                  web_frame("free.example", 3))
        rows, totals = self.report()  # once the late ones are through
        self.assertEqual([(rows[port]["verdict"], rows[port]["application"]) for port in (1, 2, 3)],
                         [(3, "")] * 2 + [(1, "")])  # the daemon's name for what it got no answer about
        self.assertIn("late answers of the URL-filtering agent: 3\n", totals)
        self.assertEqual(len([line for line in self.jorn.lines.items if "Send DENY back" in line]), 2)

    def test_an_agent_that_is_down_and_comes_back(self):
        self.start_judging("--url-agent-down")
        self.feed(*[web_frame("blocked.example", port) for port in range(1, 6)])
        self.jorn.wait_line("urlFilteringServerUnreachable")
        self.avcore.send_signal(signal.SIGUSR2)
        wait_until(lambda: self.feed(web_frame("blocked.example", 7)) or any(
            "Final URL policy is BLOCKED" in line for line in self.jorn.lines.items))
        rows, totals = self.report()
        self.assertEqual([rows[port]["verdict"] for port in (1, 7)], [1, 3])
        self.assertIn("late answers of the URL-filtering agent: 5\n", totals)

    def test_a_resolver_follows_safe_search(self):
        self.start()
        hosts = SAFE_SEARCH + "/wlan0/hosts"

        def bind(vip):
            command(WEB_FLUSH)
            command(WEB_POLICY, web_policy("u", utp_id=5, google=vip))
            command(WEB_INTF, web_binding())
            expected = "".join(f"{vip} {host}\n" for host in HOSTS) if vip else ""
            wait_until(lambda: os.path.exists(hosts) and read_file(hosts) == expected)

        bind("192.0.2.80")
        self.assertEqual(os.listdir(SAFE_SEARCH + "/utp-5"), os.listdir(SAFE_SEARCH + "/wlan0"))
        self.assertEqual([os.stat(path).st_mode & 0o777 for path in (SAFE_SEARCH, os.path.dirname(hosts), hosts)],
                         [0o755, 0o755, 0o644])  # a resolver is somebody else
        for words in (name_server(f"--address=/#/{SERVER}", "--port=54"),
                      name_server("--server=127.0.0.1#54", f"--hostsdir={SAFE_SEARCH}/wlan0",
                                  settings=f"{SAFE_SEARCH}/wlan0/dnsmasq.conf")):
            resolver = subprocess.Popen(words, stderr=subprocess.DEVNULL)
            self.addCleanup(resolver.wait)
            self.addCleanup(resolver.terminate)
        wait_until(lambda: resolve("www.google.com", 1) == (0, {"192.0.2.80"}))
        for kind in (28, 65):  # IPv6 and HTTPS would walk round it
            self.assertEqual(resolve("google.com", kind), (0, set()))
        # The server behind the resolver may still be starting: what it refused isn't asked again.
        wait_until(lambda: resolve("mail.google.com", 1) == (0, {SERVER}))
        bind("192.0.2.81")
        wait_until(lambda: resolve("www.google.com", 1) == (0, {"192.0.2.81"}))
        bind(None)
        wait_until(lambda: resolve("www.google.com", 1) == (3, set()))

    def test_what_connects_is_counted(self):
        self.start()
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as client:
            client.connect(AV_SOCKET)
            for ifname in (b"../x", b"w" * 24):
                client.send(struct.pack("=IIIIIi4s24s64s", OP_SAFESEARCH, 0, 2, 1, 5, 0, b"\1\1\1\1",
                                        ifname, b"a.example"))
            client.send(struct.pack("=II160x", OP_SET_APP, 0))  # the verdict of a flow that nobody saw
            wait_until(lambda: os.path.exists(f"{SAFE_SEARCH}/{'w' * 24}/hosts"))
        self.feed(udp_frame(1, 2))
        _, totals = self.report()
        self.assertIn("refused settings of safe search: 1\n", totals)
        self.assertIn("verdicts for flows that aren't in the table: 1\n", totals)


if __name__ == "__main__":
    unittest.main()
