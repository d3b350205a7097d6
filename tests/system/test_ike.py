"""A real IKE exchange through the access point: strongSwan on a phone and as a carrier's gateway,
which the phone finds by name. What IKE looks like, and that the gateway is the one that DNS says,
are other programs' word here."""
from access_points import lay_out
from records import *

GATEWAY_NAME = "epdg.carrier.example"
PHONE, GATEWAY, RESOLVER = (f"10.9.0.{number}" for number in (1, 2, 3))  # in ap1, ap2, ap3
PHONE_PORT = "ap1"
ROWS = "/tmp/rows"
DOCUMENT = {"carriers": [{"pname": "other", "priority": 1, "epdg": [{"fqdn": "epdg.other.example"}]},
                         {"pname": "carrier", "priority": 3, "epdg": [{"fqdn": GATEWAY_NAME}]}],
            "wificalling_interfaces": [{"ifname": "wlan0", "profile": ["other", "carrier"]}]}
CHARON = """
charon {{
  load_modular = no
  load = random nonce aes sha1 sha2 hmac kdf gmp kernel-netlink socket-default vici
  install_routes = no
  plugins {{ vici {{ socket = unix://{0}/vici }} }}
  filelog {{ stderr {{ default = 1 }} }}
}}"""
CONNECTION = """
connections {{ call {{
  version = 2
  {0}
  proposals = aes128-sha256-modp2048
  local {{ auth = psk
    id = {1} }}
  remote {{ auth = psk
    id = {2} }}
}} }}
secrets {{ ike {{ secret = "the same on both sides" }} }}"""


class Charon:
    """One side's, with a /run of its own for the pid file, whose path is fixed."""

    def __init__(self, netns, *connection):
        self.folder = f"/tmp/{netns}"
        for name, text in (("strongswan.conf", CHARON.format(self.folder)),
                           ("swanctl.conf", CONNECTION.format(*connection))):
            write_file(f"{self.folder}/{name}", text)
        self.log = open(f"{self.folder}/log", "w+")
        self.process = subprocess.Popen(
            ["ip", "netns", "exec", netns, "sh", "-c",
             "mount -t tmpfs tmpfs /run && exec /usr/lib/ipsec/charon"],
            env=os.environ | {"STRONGSWAN_CONF": f"{self.folder}/strongswan.conf"},
            stdout=self.log, stderr=self.log)
        wait_until(lambda: self.swanctl("--stats").returncode == 0, f"charon of {netns}")
        loaded = self.swanctl("--load-all", "--noprompt", "--file", f"{self.folder}/swanctl.conf")
        assert loaded.returncode == 0, loaded

    def swanctl(self, *words):
        return subprocess.run(["swanctl", *words, "--uri", f"unix://{self.folder}/vici"],
                              capture_output=True, text=True)

    def end(self):
        self.process.terminate()
        self.process.wait(DEADLINE)
        self.log.close()


class IkeExchange(SystemTest):
    def start_resolver(self):
        for name, line in (("resolv.conf", f"nameserver {RESOLVER}"), ("nsswitch.conf", "hosts: dns")):
            os.unlink(f"/etc/{name}")
            write_file(f"/etc/{name}", line + "\n")
        resolver = subprocess.Popen(
            ["ip", "netns", "exec", "ap3", "dnsmasq", "--no-daemon", "--pid-file=",
             "--conf-file=/dev/null", "--no-resolv", "--no-hosts", "--bind-interfaces",
             f"--listen-address={RESOLVER}", "--local=/#/", "--local-ttl=60",
             f"--address=/{GATEWAY_NAME}/{GATEWAY}"], stderr=subprocess.DEVNULL)
        self.addCleanup(resolver.communicate)
        self.addCleanup(resolver.kill)

    def start_access_point(self):
        write_file("/tmp/avcore.toml", '[client]\nfilter_type = ["wificalling"]\n')
        with open(ROWS, "w") as rows:
            avcore = self.run_avcore("-i", PHONE_PORT, "-c", "/tmp/avcore.toml", "--json", stdout=rows,
                                     stderr=subprocess.DEVNULL)
        self.daemon_behind_avcore()
        return avcore

    def rows(self, avcore, until):
        """The phone's rows by the server's port, once they are as wanted."""
        def asked():
            avcore.send_signal(signal.SIGUSR1)
            lines = read_file(ROWS).rpartition("\n")[0].splitlines()
            rows = {row["server_port"]: row for row in map(json.loads, lines)
                    if row["client"] == PHONE}
            return until(rows) and rows
        return wait_until(asked, "the rows")

    def charon(self, *arguments):
        charon = Charon(*arguments)
        self.addCleanup(charon.end)
        return charon

    def test_its_flows_carry_the_carriers_tag(self):
        lay_out()
        self.start_resolver()
        avcore = self.start_access_point()
        self.assertEqual(jornctl("apply", "-", document=DOCUMENT)[0], 0)
        gateway = self.charon("ap2", f"local_addrs = {GATEWAY}", GATEWAY_NAME, "%any")
        phone = self.charon("ap1", f"remote_addrs = {GATEWAY_NAME}\nencap = yes",
                            "subscriber@carrier.example", GATEWAY_NAME)
        called = phone.swanctl("--initiate", "--ike", "call", "--timeout", str(DEADLINE))
        self.assertEqual(called.returncode, 0, (called, read_file("/tmp/ap1/log"),
                                                read_file("/tmp/ap2/log")))
        rows = self.rows(avcore, until=lambda rows: {500, 4500} <= rows.keys()
                         and "wificalling" in rows[4500])
        for port in (500, 4500):
            self.assertEqual({key: rows[port].get(key) for key in
                              ("server", "wificalling", "priority", "fqdn")},
                             {"server": GATEWAY, "wificalling": True, "priority": 3,
                              "fqdn": GATEWAY_NAME}, rows)
        self.assertNotIn("wificalling", rows[53])


if __name__ == "__main__":
    unittest.main()
