"""What a client tries to get past the gate, beside what the same gate lets through."""
import unittest

from inline_lab import *

PAGE = bytes(30_000)
RATE = LIMITS[SLOW] / 8
BURST = 65536


def first_fragment(version, segment):
    """Of a packet that never becomes whole."""
    if version == 4:
        return of_client(4, TCP, segment, more=True)
    return of_client(6, 44, struct.pack(">BxHI", TCP, 1, 1) + segment)


class Attempts:
    def move_client(self, interface):
        """To another interface, again and again: it answers ARP at its own."""
        send, left = self.raw(interface), threading.Event()

        def stay():
            while not left.wait(0.01):
                send(of_client(4, UDP, udp(40000, ALLOWED)))

        thread = threading.Thread(target=stay, daemon=True)
        thread.start()
        self.addCleanup(thread.join)
        self.addCleanup(left.set)

    def test_fragments_that_decide_about_others(self):
        self.start()
        send = self.raw()
        for version in FAMILIES:
            with self.subTest(version=version):
                server = self.server_at(socket.SOCK_STREAM, version, DENIED)
                client = self.bind("client", socket.SOCK_STREAM, CLIENTS[version], 0)
                self.addCleanup(client.close)
                copies = self.status()["counts"]["copies"]
                for _ in range(31):
                    send(first_fragment(version, tcp(client.getsockname()[1], DENIED, bytes(20))))
                self.until(lambda: self.status()["counts"]["copies"] >= copies + 31)
                self.until(lambda: self.is_shut(version))  # those before it are answered
                client.settimeout(2)
                server.settimeout(2)
                with contextlib.suppress(TimeoutError):
                    client.connect((SERVERS[version], DENIED))
                    accepted = server.accept()[0]
                    self.addCleanup(accepted.close)
                    accepted.settimeout(2)
                    ends = time.monotonic() + DEADLINE
                    while client.send(b"x") and accepted.recv(100):
                        self.assertLess(time.monotonic(), ends, "all came through")
                        time.sleep(0.05)

    @counts_rates
    def test_limits_hold_from_the_first_verdict_on(self):
        """Of connections too short for a final one."""
        self.start()
        server = self.server_at(socket.SOCK_STREAM, 4, SLOW)
        ends = []
        for _ in range(64):
            client = self.connected(socket.SOCK_STREAM, SERVERS[4], SLOW)
            ends.append((client, server.accept()[0]))
            self.addCleanup(ends[-1][1].close)
        self.until(lambda: self.status()["verdicts"]["not_final"] >= len(ends))
        begins, received = time.monotonic(), 0
        unattended = self.unattended()
        for _, accepted in ends:
            accepted.sendall(PAGE)
        while (lasted := time.monotonic() - begins) < 2:
            for client in select.select([client for client, _ in ends], [], [], 0.1)[0]:
                received += len(client.recv(1 << 16))
        unattended = self.unattended() - unattended
        self.assertLess(received, 2 * (BURST + RATE * lasted) + unattended)
        self.assertGreater(received, 0)

    def unattended(self):
        """Bytes, at most, that have passed while nobody decided, on a machine that stalls."""
        return 1514 * self.status()["counts"]["nobody"]

    def keeps_limit(self, arrivals):
        begins = time.time()
        arrivals.up_to(begins + 3)
        passed = arrivals.rate(SLOW, 4, UDP, begins, begins + 3) * 3 / 8
        self.assertLess(passed, 2 * (BURST + RATE * 3))
        self.assertGreater(passed, RATE)

    @counts_rates
    def test_a_packet_in_the_servers_name(self):
        """It comes first, as if the flow were the server's."""
        self.start()
        client = self.connected(socket.SOCK_DGRAM, SERVERS[4], SLOW)
        self.raw()(summed(ipv4(UDP, udp(SLOW, client.getsockname()[1]), src=SERVERS[4],
                               dst=CLIENTS[4])))
        self.addCleanup(Sender(client, 0.0005, 1000).stop)  # 16 Mbit/s
        self.keeps_limit(self.at_server)

    @counts_rates
    def test_later_fragments(self):
        self.start()
        client, _ = self.pair(socket.SOCK_DGRAM, 4, SLOW)

        def passed(lasts):
            begins = time.time()
            while time.time() < begins + lasts:
                client.send(bytes(8000))  # six fragments, 130 Mbit/s at most
                time.sleep(0.0005)
            self.arrived(client)
            return sum(packet.size for packet in self.at_server.up_to(begins) if packet.at >= begins
                       and packet.protocol == UDP)

        self.until(lambda: passed(0.1) and self.status()["counts"]["limited"])
        unattended = self.unattended()
        arrived = passed(3)
        self.assertLess(arrived, 2 * (BURST + RATE * 3) + self.unattended() - unattended)
        self.configure_anew('fragments = "drop"')
        self.until(lambda: self.status()["fragments"] == "drop")
        self.assertEqual(passed(0.2), 0)

    def test_more_flows_than_copies(self):
        self.start('excess = "drop"')
        server = self.server_at(socket.SOCK_STREAM, 4, ALLOWED)
        page = [self.connected(socket.SOCK_STREAM, SERVERS[4], ALLOWED) for _ in range(60)]
        for client in page:
            accepted = server.accept()[0]
            self.addCleanup(accepted.close)
            accepted.sendall(PAGE)
        for client in page:
            self.assertEqual(len(client.recv(len(PAGE), socket.MSG_WAITALL)), len(PAGE))
        self.assertEqual(self.status()["counts"]["excess"], 0)
        send, since = self.raw(), time.time()
        for port in range(20_000):
            send(of_client(4, UDP, udp(port + 1, ALLOWED, b"12345678")))
        self.arrived(self.connected(socket.SOCK_DGRAM, SERVERS[4], ALLOWED))
        self.assertGreater(self.status()["counts"]["excess"], 10_000)
        self.assertLess(len(self.at_server.of(ALLOWED, 4, UDP, since=since)), 10_000)


class Routed(Attempts, InlineTest):
    pass


class Bridged(Attempts, InlineTest):
    bridged = True

    def _lay_out(self, wire_ms):
        super()._lay_out(wire_ms)
        plug("wlan1", "client", "eth1", "br0")

    @counts_rates
    def test_a_queue_that_the_client_leaves_behind(self):
        """It goes on at another interface of the access point's."""
        self.start('shape = "htb"', "--inline", "wlan1")
        client, server = self.pair(socket.SOCK_DGRAM, 4, SLOW)
        flow = Sender(client, 0.01)
        self.addCleanup(flow.stop)
        self.settle(flow)
        flow.stop()
        there = Arrivals("client", "eth1")
        self.addCleanup(there.close)
        self.move_client("eth1")
        self.addCleanup(Sender(server, 0.0005, 1000).stop)  # 16 Mbit/s
        there.wait(lambda packet: packet.src_port == SLOW)
        self.keeps_limit(there)
        self.until(lambda: queues_at("wlan1"))


del Attempts  # its tests are run in both

if __name__ == "__main__":
    unittest.main()
