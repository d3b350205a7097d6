"""The watch socket of an avcore behind a gate: what the gate counts, over restarts as well."""
import glob

from inline_lab import *
from watch_reader import *

HEADERS = 14 + 20 + 8
SCANNED = range(1_024, 19_024)  # more ends than wait for readers


class WatchInline(InlineTest):
    def reader(self):
        wait_for_listener(WATCH_SOCKET)
        reader = Reader()
        self.addCleanup(reader.close)
        return reader

    def told(self, reader, done, **members):
        """The flow with these members, once it is as wanted."""
        def find():
            return [flow for flow in reader.flows.values() if members.items() <= flow.items() and done(flow)]
        if not find():
            reader.until(lambda message: find())
        [flow] = find()
        return flow

    def test_counts_are_the_wires_over_restarts(self):
        self.start("", "--watch-socket", WATCH_SOCKET)
        reader = self.reader()
        reader.follow("flows", "events")
        client, server = self.pair(socket.SOCK_DGRAM, 4, ALLOWED)
        for _ in range(50):
            client.send(bytes(100))
        for _ in range(30):
            server.send(bytes(200))
            client.recv(200)
        port = client.getsockname()[1]
        up, down = [51, 5 + 50 * 100 + 51 * HEADERS], [30, 30 * (200 + HEADERS)]
        flow = self.told(reader, lambda flow: (flow["up"], flow["down"]) == (up, down) and
                         flow["verdict"] == "allow", client_port=port)
        self.assertEqual((flow["client_mac"], flow["application"], flow["why"], flow["dropped"]),
                         (link_address("-n", "client", "link", "show", "eth0").upper(), "", {"rule": 0},
                          [0, 0]))
        self.assertLess(abs(flow["last_us"] / 1e6 - time.time()), 60)

        stream, accepted = self.pair(socket.SOCK_STREAM, 6, ALLOWED)
        stream.sendall(bytes(50_000))
        stream.shutdown(socket.SHUT_WR)
        while accepted.recv(65_536):
            pass
        accepted.close()
        closed = self.told(reader, lambda flow: flow.get("ended") == "fin", protocol="TCP")
        self.assertGreater(closed["up"][1], 50_000 + 74 * 35)
        for wish, told in ({}, {}), ({"ended_within_ms": 60_000}, closed):
            late = self.reader()
            late.follow("flows", **wish)
            self.assertEqual(late.flows.get(closed["id"], {}), told)

        for how in ("kill", "terminate"):
            torn, other = self.pair(socket.SOCK_STREAM, 4, ALLOWED)
            torn.sendall(bytes(100))
            torn_id = self.told(reader, lambda flow: flow["up"][0] >= 2, protocol="TCP",
                                client_port=torn.getsockname()[1])["id"]
            self.avcore.send_signal(signal.SIGSTOP)  # the gate counts on
            torn.sendall(bytes(1_000))
            torn.shutdown(socket.SHUT_WR)
            while other.recv(65_536):
                pass
            other.close()
            for _ in range(20):
                client.send(bytes(100))
            up = [up[0] + 20, up[1] + 20 * (100 + HEADERS)]
            getattr(self.avcore, how)()
            self.avcore.send_signal(signal.SIGCONT)
            self.avcore.wait()
            time.sleep(4)  # by then it is over
            self.start_avcore()
            self.reader().ask("flows")  # who only asks takes no ends from others
            before, reader = reader.greeting, self.reader()
            self.assertNotEqual(reader.greeting["run"], before["run"])
            self.assertEqual(reader.greeting["boot"], before["boot"])
            reader.follow("flows")
            same = reader.flows[flow["id"]]
            self.assertEqual((same["up"], same["down"], same["begun_us"] // 10**6),
                             (up, down, flow["begun_us"] // 10**6))
            self.assertNotIn(closed["id"], reader.flows)
            closed = self.told(reader, lambda flow: "ended" in flow, id=torn_id)
            # SYN, ACKs and FIN are empty.
            self.assertEqual((closed["ended"], closed["up"][1] - 1_100 - 66 * closed["up"][0]), ("fin", 8))
        self.until(lambda: client.send(bytes(100)) and reader.next() and
                   reader.flows[flow["id"]]["verdict"] == "allow")

    def test_what_comes_and_goes_between_two_rounds_is_told(self):
        self.start("", "--watch-socket", WATCH_SOCKET)
        reader = self.reader()
        reader.follow("flows", every_ms=8_000)
        client, server = self.pair(socket.SOCK_STREAM, 4, ALLOWED)
        port = client.getsockname()[1]
        client.close()
        server.close()
        closed = self.told(reader, lambda flow: True, protocol="TCP", client_port=port)
        self.assertEqual((closed["ended"], closed["verdict"]), ("fin", "allow"))

    def test_a_scan_leaves_readers_their_flows(self):
        """Of most of its connections avcore sees no copy, and so has no row."""
        self.start("", "--watch-socket", WATCH_SOCKET)
        awake, patient = self.reader(), self.reader()
        awake.follow("flows")
        patient.follow("flows", verdict="deny", every_ms=6_000)
        send = self.raw()
        for port in SCANNED:
            for flags in (2, 4):
                segment = struct.pack(">HHIIBBHHH", port, 9, 1, 1, 0x50, flags, 512, 0, 0)
                send(summed(ipv4(TCP, segment, src=CLIENTS[4], dst=SERVERS[4])))
        awake.until(lambda message: awake.totals[0][0] >= 2 * len(SCANNED))
        time.sleep(4)  # by then they are over
        denied = self.talk(SERVERS[4], DENIED)
        port = denied.socket.getsockname()[1]
        self.told(patient, lambda flow: flow["dropped"][0] > 0, client_port=port)
        self.assertEqual({flow["server_port"] for flow in patient.flows.values()}, {DENIED})
        self.assertEqual(patient.sums, [])

    def test_what_the_gate_does_is_told(self):
        self.slips_through = 0
        self.start('undecided = "hold"', "--watch-socket", WATCH_SOCKET)
        reader = self.reader()
        reader.follow("flows", "events")
        denied = self.talk(SERVERS[4], DENIED)
        port = denied.socket.getsockname()[1]
        slow = Sender(self.connected(socket.SOCK_DGRAM, SERVERS[6], SLOW), size=1_200)
        self.addCleanup(slow.stop)
        self.assertEqual(reader.event("denied")["flow"]["server_port"], DENIED)
        # Its first packet counts when it comes back, behind the verdict.
        self.assertEqual([event["what"] for event in reader.events if event["flow"]["client_port"] == port],
                         ["begun", "named", "judged", "denied"])
        limited = reader.event("limited")["flow"]
        self.assertEqual((limited["server_port"], limited["gate"], limited["verdict"]),
                         (SLOW, "limits", "rate limit"))
        flow = self.told(reader, lambda flow: flow.get("gate") == "denies" and flow["dropped"][0] > 0,
                         server_port=DENIED, client_port=port)
        self.assertEqual(flow["why"], {
            "named_by": "administrator", "rule": 0, "by": "application policy", "profile": 1,
            "side": "client", "text": f"app-{DENIED}, named by the administrator's definitions; by the "
            "application policy of user profile 1, the client's"})
        asking = self.reader()
        [gate] = asking.ask("gate")
        self.assertEqual(gate["attached_by"].keys(), {"wlan0"})
        [counts] = asking.ask("counts")
        self.assertGreater(counts["gate_denied"], 0)
        self.jorn.kill()
        self.assertEqual(reader.event("daemon")["state"], "gone")
        self.assertEqual(reader.event("gate")["state"], "open")
        self.jorn = self.start_daemon()
        self.assertEqual(reader.event("daemon")["state"], "back")
        self.assertEqual(reader.event("gate")["state"], "deciding")
        for sender in (denied, slow):
            sender.stop()
        subprocess.run(["ip", "link", "del", "wlan0"], check=True)
        self.assertEqual(reader.event("gate", state="gone")["interface"], "wlan0")
        for pin in glob.glob("/run/jorn/gate/*/verdicts"):
            os.unlink(pin)
        self.until(lambda: "no map" in asking.ask("gate"))


if __name__ == "__main__":
    unittest.main()
