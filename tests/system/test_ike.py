"""A real IKE exchange through the access point: strongSwan on a phone and as a carrier's gateway,
which the phone finds by name. What IKE looks like, and that the gateway is the one that DNS says,
are other programs' word here."""
from records import *

GATEWAY_NAME, GATEWAY, RESOLVER, PHONE = ("epdg.carrier.example", "10.9.0.10", "10.9.0.53",
                                          "10.9.0.2")
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
        os.makedirs(self.folder)
        for name, text in (("strongswan.conf", CHARON.format(self.folder)),
                           ("swanctl.conf", CONNECTION.format(*connection))):
            with open(f"{self.folder}/{name}", "w") as file:
                file.write(text)
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

    def said(self):
        with open(f"{self.folder}/log") as file:
            return file.read()

    def end(self):
        self.process.terminate()
        self.process.wait(DEADLINE)
        self.log.close()


class IkeExchange(SystemTest):
    def lay_out(self):
        run("ip", "link", "add", "br0", "type", "bridge", "mcast_snooping", "0")
        run("ip", "link", "set", "br0", "up")
        for netns, port, addresses in (("phone", "wlan0", [PHONE]),
                                       ("carrier", "uplink", [GATEWAY, RESOLVER])):
            run("ip", "netns", "add", netns)
            run("ip", "link", "add", port, "type", "veth", "peer", "eth0", "netns", netns)
            run("ip", "link", "set", port, "master", "br0", "up")
            for address in addresses:
                run("ip", "-n", netns, "addr", "add", address + "/24", "dev", "eth0")
            for link in ("lo", "eth0"):
                run("ip", "-n", netns, "link", "set", link, "up")

    def start(self, *command, **how):
        process = subprocess.Popen(command, text=True, **how)
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        return process

    def start_resolver(self):
        for name, line in (("resolv.conf", f"nameserver {RESOLVER}"), ("nsswitch.conf", "hosts: dns")):
            os.unlink(f"/etc/{name}")
            with open(f"/etc/{name}", "w") as file:
                file.write(line + "\n")
        self.start("ip", "netns", "exec", "carrier", "dnsmasq", "--no-daemon", "--pid-file=",
                   "--conf-file=/dev/null", "--no-resolv", "--no-hosts", "--bind-interfaces",
                   f"--listen-address={RESOLVER}", "--local=/#/", "--local-ttl=60",
                   f"--address=/{GATEWAY_NAME}/{GATEWAY}", stderr=subprocess.DEVNULL)

    def start_access_point(self):
        with open("/tmp/avcore.toml", "w") as file:
            file.write('[client]\nfilter_type = ["wificalling"]\n')
        with open(ROWS, "w") as rows:
            avcore = self.start(jorn_path("avcore"), "-o", FEED, "-i", "wlan0", "-c",
                                "/tmp/avcore.toml", "--json", stdout=rows, stderr=subprocess.DEVNULL)
        wait_for_path(AV_SOCKET)
        self.daemon()
        wait_for_path(COMMAND_SOCKET)
        return avcore

    def rows(self, avcore, until):
        """The phone's rows by the server's port, once they are as wanted or time is up."""
        ends, rows = time.monotonic() + DEADLINE, {}
        while not until(rows) and time.monotonic() < ends:
            avcore.send_signal(signal.SIGUSR1)
            time.sleep(0.05)
            with open(ROWS) as file:
                lines = file.read().rpartition("\n")[0].splitlines()
            rows = {row["server_port"]: row for row in map(json.loads, lines)
                    if row["client"] == PHONE}
        return rows

    def charon(self, *arguments):
        charon = Charon(*arguments)
        self.addCleanup(charon.end)
        return charon

    def test_its_flows_carry_the_carriers_tag(self):
        self.lay_out()
        self.start_resolver()
        avcore = self.start_access_point()
        self.assertEqual(jornctl("apply", "-", document=DOCUMENT)[0], 0)
        gateway = self.charon("carrier", f"local_addrs = {GATEWAY}", GATEWAY_NAME, "%any")
        phone = self.charon("phone", f"remote_addrs = {GATEWAY_NAME}\nencap = yes",
                            "subscriber@carrier.example", GATEWAY_NAME)
        called = phone.swanctl("--initiate", "--ike", "call", "--timeout", str(DEADLINE))
        self.assertEqual(called.returncode, 0, (called, phone.said(), gateway.said()))
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
