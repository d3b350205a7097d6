"""Rates that the gate limits, beside what a token bucket of the limit would have let pass."""
import collections
import unittest

from inline_lab import *

PROTOCOLS = {socket.SOCK_DGRAM: UDP, socket.SOCK_STREAM: TCP}


class Passing:
    """What came through a limit in some seconds, beside what its token bucket lets pass of what was
    sent, however steadily that was. A queue lets pass what a bucket of its size does, or more."""

    def __init__(self, offered, passed, begins, lasts, bytes_per_second, queued):
        ends = begins + lasts
        self.offered, self.passed = (sum(packet.size for packet in packets
                                         if begins <= packet.at < ends)
                                     for packets in (offered, passed))
        burst = bytes_per_second / 10 if queued else max(65536, bytes_per_second / 5)
        self.least = passed_by_bucket(offered, bytes_per_second, burst, begins, ends)
        self.most = bytes_per_second * lasts if queued else self.least
        self.holds = self.least * 0.95 <= self.passed <= self.most * 1.05
        self.versions = {packet.version for packet in passed if begins <= packet.at < ends}
        self.is_limited = self.offered > self.least or self.passed > bytes_per_second * lasts * 0.9

    def __repr__(self):
        return f"{self.passed} of {self.offered} bytes, not {self.least:.0f} to {self.most:.0f}"


class Limits:
    """What has to hold routed and bridged."""

    def limits_hold(self, kind, versions=FAMILIES, limits=LIMITS, owner=lambda port, _: (port,),
                    queued=False, ports=(SLOW, SLOW, FAST)):
        """Flows to each of the ports send more than they may, both ways at once: a limit drops the
        other way's acknowledgements as well. `owner`: whose limit it is, by the server's port and
        the client's; it begins with a port that has the limit. `queued`: what exceeds it towards
        the client waits."""
        ways = {"up": (Arrivals(interface="wlan0"), self.at_server),
                "down": (Arrivals(), self.at_client)}
        lasts = 3 if kind == socket.SOCK_DGRAM else 8  # one large packet too many is 64 KiB

        def by_owner(packets, way):
            found = collections.defaultdict(list)
            for packet in packets:
                server, client = (packet.src_port, packet.dst_port)[::-1 if way == "up" else 1]
                if server in limits and packet.protocol == PROTOCOLS[kind]:
                    found[owner(server, client)].append(packet)
            return found

        def measure(begins):
            for way, arrivals in ways.items():
                offered, passed = (by_owner(each.up_to(begins + lasts), way) for each in arrivals)
                for whose in offered:
                    yield (way, *whose), Passing(offered[whose], passed[whose], begins, lasts,
                                                 limits[whose[0]] / 8, queued and way == "down")

        with self.overload(kind, versions, ports):
            started = time.time()
            for half_second in range(6 * lasts):  # the first of these spans begin before all is decided
                found = dict(measure(started + half_second / 2))
                if found and all(passing.holds and passing.is_limited and passing.versions == set(versions)
                                 for passing in found.values()):
                    break
        for before, _ in ways.values():
            before.close()
        with self.subTest(kind=kind, found=found):
            self.assertEqual({way for way, *_ in found}, set(ways))
            self.assertTrue(all(passing.holds for passing in found.values()))
            self.assertTrue(all(passing.versions == set(versions) for passing in found.values()))
            if not all(passing.is_limited for passing in found.values()):
                self.skipTest(f"this machine sent no more than the limits: {found}")

    @contextlib.contextmanager
    def overload(self, kind, versions, ports):
        on, ends = True, []

        def stream(end):
            with contextlib.suppress(OSError):
                while on:
                    end.send(bytes(65536))

        def sink(end):
            with contextlib.suppress(OSError):
                while on and end.recv(1 << 20):
                    pass

        # All are connected first: a handshake under a limit that others exceed may take its time.
        for end, port in [(end, port) for port in ports for version in versions
                          for end in self.pair(kind, version, port)]:
            ends.append(end)
            if kind == socket.SOCK_DGRAM:
                ends.append(Sender(end, 1228 * 8 * len(versions) / LIMITS.get(port, LIMITS[SLOW]) / 1.5,
                                   1200))
            else:
                for work in stream, sink:
                    threading.Thread(target=work, args=(end,), daemon=True).start()
        try:
            yield
        finally:
            on = False
            for end in reversed(ends):
                end.close()

    @counts_rates
    def test_limits_of_datagrams(self):
        self.start()
        self.limits_hold(socket.SOCK_DGRAM)

    @counts_rates
    def test_limits_of_streams_over_twenty_milliseconds(self):
        self.start(wire_ms=10)
        self.limits_hold(socket.SOCK_STREAM)


class Routed(Limits, InlineTest):
    @counts_rates
    def test_limits_of_flows_in_another_unit(self):
        rule_of = {"rate_up": LIMITS[SLOW] // 8000, "rate_down": LIMITS[SLOW] // 8000}
        self.start('share = "flow"\nrate_unit = "kB/s"', rules=RULES | {SLOW: rule_of, FAST: {}})
        self.limits_hold(socket.SOCK_DGRAM, (4,), {SLOW: LIMITS[SLOW]}, lambda *ports: ports)

    @counts_rates
    def test_one_limit_for_all_flows_of_a_client(self):
        """Named by the administrator, by a well-known port and by addresses."""
        rates = {"rate_up": LIMITS[SLOW] // 1000, "rate_down": LIMITS[SLOW] // 1000}
        self.start(rules={SLOW: rates, ".": rates})
        for shape in "drop", "htb":
            self.configure_anew(f'share = "client"\nshape = "{shape}"')
            ports = (SLOW, NTP, ALLOWED)
            self.limits_hold(socket.SOCK_DGRAM, FAMILIES, dict.fromkeys(ports, LIMITS[SLOW]),
                             lambda *_: (SLOW,), shape == "htb", ports)

    @counts_rates
    def test_limits_with_queues(self):
        self.start('shape = "htb"', wire_ms=10)
        self.limits_hold(socket.SOCK_DGRAM, (6,), queued=True)
        self.limits_hold(socket.SOCK_STREAM, (4,), queued=True)
        self.assertTrue(queues_at("wlan0"))
        self.configure_anew('shape = "drop"')
        self.until(lambda: not queues_at("wlan0"))
        self.limits_hold(socket.SOCK_DGRAM, (4,))


class Bridged(Limits, InlineTest):
    bridged = True


del Limits  # its tests are run in both

if __name__ == "__main__":
    unittest.main()
