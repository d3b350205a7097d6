"""Verdicts in the air: a simulated access point (mac80211_hwsim, hostapd) and a station that has an
interface of its own there. Radios don't come with a network namespace: it runs as root of a machine
that is nobody's, without scripts/private: scripts/test-wifi has one."""
import unittest

from inline_lab import *
from lab.wifi import *

FOUR_ADDRESSES = "wds_sta=1\nwds_bridge=br0\n"
VLANS = "dynamic_vlan=1\nvlan_file=/tmp/vlans\naccept_mac_file=/tmp/macs\n"
FILES = {
    "vlans": "* wlan0.# br0\n",
    "macs": radio_address(1) + " 7\n",
    "supplicant": supplicant_settings(1)}


class Stations(InlineTest):
    bridged = True

    def configure(self, enforce):
        write_file(CONFIG, '[[rule]]\ncaptured_on = "wlan0"\nutp_id = 1\n'
                   f"[uplink]\nutp_id = 2\n[enforce]\n{enforce}\n")

    def start_apart(self, how, enforce=""):
        self.how = how
        for name, text in (FILES | {"hostapd": hostapd_settings("wlan0", "br0", 1, how)}).items():
            write_file("/tmp/" + name, text)
        self.addCleanup(remove_radios)
        add_radios(2)
        self.start(enforce)

    def _lay_out(self, wire_ms):
        super()._lay_out(wire_ms)
        self.associate()

    def _connect(self, netns, port, wire_ms):
        if port != "wlan0":
            return super()._connect(netns, port, wire_ms)
        self.run_program("AP-ENABLED", "hostapd", "/tmp/hostapd")
        give_radio("wlan1", netns, "eth0")
        if self.how == FOUR_ADDRESSES:
            use_four_addresses(netns, "eth0")
        ip(netns, "link", "set", "eth0", "up")

    def associate(self):
        self.supplicant = self.run_program("EVENT-CONNECTED", *inside("client"), "wpa_supplicant",
                                           "-Dnl80211", "-ieth0", "-c/tmp/supplicant")

    def run_program(self, ready, *words):
        program = subprocess.Popen(words, stdout=subprocess.PIPE, text=True)
        self.addCleanup(program.wait)
        self.addCleanup(program.terminate)
        lines = Record("lines of " + words[-1])
        threading.Thread(target=self._read, args=(program.stdout, lines), daemon=True).start()
        lines.wait(lambda line: ready in line)
        return program

    def places(self):
        """Where the gate is, and how often, each way."""
        status, count = self.status(), {}
        for name in status["interfaces"] + sum(status["stations"].values(), []):
            count[name] = {subprocess.run(["tc", "filter", "show", "dev", name, way], text=True,
                                          capture_output=True).stdout.count("direct-action")
                           for way in ("ingress", "egress")}
        return status["stations"], count

    def hold(self, how):
        """A station's packets, until they are judged."""
        self.slips_through = 0
        self.start_apart(how, 'undecided = "hold"\nfail = "closed"')
        before = self.status()["counts"]
        for version in FAMILIES:
            denied, allowed = (self.talk(SERVERS[version], port) for port in (DENIED, ALLOWED))
            for flow in denied, allowed:
                flow.send_more(100)
            sent = list(range(allowed.stop()))
            self.until(lambda: self.arrived(allowed.socket) == sent)
            denied.stop()
            self.assertEqual(self.arrived(denied.socket), [])
        counts = self.status()["counts"]
        self.assertGreaterEqual(counts["back"], before["back"] + 4)
        self.assertEqual(counts["held_missing"], before["held_missing"])

    def test_held_of_a_station(self):
        self.hold("")

    def test_held_of_a_station_with_four_addresses(self):
        self.hold(FOUR_ADDRESSES)

    def test_a_station_with_four_addresses(self):
        self.start_apart(FOUR_ADDRESSES, 'shape = "htb"')
        apart = {"wlan0": ["wlan0.sta1"]}, {"wlan0": {1}, "wlan0.sta1": {1}}
        self.assertEqual(self.places(), apart)
        server = self.pair(socket.SOCK_DGRAM, 4, SLOW)[1]
        self.addCleanup(Sender(server, 0.01).stop)  # one flow, all the time
        for _ in range(2):  # its interface is made anew
            self.until(lambda: queues_at("wlan0.sta1"))
            self.supplicant.terminate()
            self.until(lambda: self.places() == ({}, {"wlan0": {1}}))
            self.associate()
            self.until(lambda: self.places() == apart)
            for version in FAMILIES:
                self.until(lambda: self.is_shut(version))
        self.until(lambda: queues_at("wlan0.sta1"))

    def test_a_station_in_a_vlan_of_its_own(self):
        self.start_apart(VLANS)
        run("ip", "link", "add", "link", "wlan0", "name", "wlan0.9", "type", "vlan", "id", "9")
        self.addCleanup(run, "ip", "link", "del", "wlan0.9")
        apart = {"wlan0": ["wlan0.7"]}, {"wlan0": {1}, "wlan0.7": {1}}
        self.assertEqual(self.places(), apart)
        self.stop_avcore(self.avcore)
        run(jorn_path("avcore"), "teardown")
        self.assertEqual(subprocess.check_output(["tc", "filter", "show", "dev", "wlan0.7",
                                                  "ingress"]), b"")
        run(jorn_path("avcore"), "setup", "--inline", "wlan0", *self.attach())
        self.assertEqual(self.places(), apart)


if __name__ == "__main__":
    unittest.main()
