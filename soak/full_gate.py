"""The gate with twice the flows that it has room for: see `scripts/soak load`.

All of them are marked, so that each has a verdict in the gate's map from its first packet on, and they
send in turn: when one's turn comes again the map has forgotten it. Beside them two kinds of denied flows
send between two rounds: as many datagrams as it takes until ten in a row don't arrive, which the map
remembers as long as they do, for it gives away what wasn't asked for; or a single one, which is forgotten
before the next. At the end those, too, send until they are stopped.
"""
import argparse
import statistics
import unittest

from box import *  # pylint: disable=wildcard-import

ROOM = 65_536
FLOWS = 2 * ROOM
CLIENTS_OF_ALL = 256
A_SECOND = 6_000
DENIED_FLOWS = 40  # of each kind
INTERVAL_S, MOST = 0.002, 500
SKIPPED = 77  # as scripts/test knows it


class FullGate(InlineTest):
    def measure(self):
        self.slips_through = 0 if "hold" in arguments.enforce else 1
        self.start("copies = 10000\n" + arguments.enforce, rules={DENIED: {"deny": True}, VOICE_CALL: RULES[VOICE_CALL]})
        ip("server", "route", "add", "blackhole", "10.2.0.0/16")
        self.bind("server", socket.SOCK_DGRAM, "::", VOICE_CALL)  # or each had an answer
        self.server = self.bind("server", socket.SOCK_DGRAM, SERVERS[4], DENIED)
        self.server.setblocking(False)
        self.send = self.raw()
        often, seldom = ([self.connected(socket.SOCK_DGRAM, SERVERS[4], DENIED) for _ in range(DENIED_FLOWS)]
                         for _ in range(2))
        for number in range(arguments.rounds + 1):
            self.tell("send often", often, MOST)
            self.tell("send seldom", seldom, 1 if number < arguments.rounds else MOST)
            status = self.status()
            print(f"    {sum(status['verdicts'].values())} verdicts, {status['counts']['flows_forgotten']} flows "
                  "forgotten", flush=True)
            if number < arguments.rounds:
                self.others_send()
        said = subprocess.check_output([jorn_path("avcore"), "status"], text=True)
        [line] = [line for line in said.splitlines() if "forgotten" in line]
        print(f"avcore status: {line}")

    def tell(self, what, flows, most):
        passed, times = zip(*(self.passing(flow, most) for flow in flows))
        print(f"{what}: of {len(flows)} denied flows {sum(passed)} packets passed, {max(passed)} of one at most, for "
              f"{statistics.median(times) * 1e3:.1f} ms (median), {max(times) * 1e3:.1f} at most", flush=True)
        if max(passed) == MOST or (max(passed) and "hold" in arguments.enforce):
            sys.exit("a denied flow isn't denied")

    def passing(self, flow, most):
        """How many of its datagrams pass, and for how many seconds."""
        begun, last, late = time.monotonic(), 0.0, 0
        for number in range(most):
            sent = time.monotonic() - begun
            flow.send(struct.pack(">Q", number))
            time.sleep(INTERVAL_S if most > 1 else 0.05)
            arrived = -1
            with contextlib.suppress(BlockingIOError):
                while True:
                    arrived = max(arrived, int.from_bytes(self.server.recv(8), "big"))
            if arrived >= 0:
                late, last = arrived + 1, sent
            elif number >= late + 10:  # nothing has come for as many
                break
        return late, last

    def others_send(self):
        """Each once, in an order that is always the same."""
        packets = [bytearray(summed(ipv4(UDP, udp(0, VOICE_CALL, bytes(20)), src=f"10.2.0.{client}", dst=SERVERS[4])))
                   for client in range(CLIENTS_OF_ALL)]
        due = time.monotonic()
        for number in range(FLOWS):
            client, port = number % CLIENTS_OF_ALL, 1024 + number // CLIENTS_OF_ALL
            packets[client][20:22] = port.to_bytes(2, "big")
            self.send(bytes(packets[client]), sender=bytes((2, 0, 0, 0, 2, client)))
            due += 1 / A_SECOND
            if number % 60 == 0:
                time.sleep(max(0, due - time.monotonic()))


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--flows", type=int, default=FLOWS)
    arguments = parser.parse_args()
    FLOWS = arguments.flows
    for arguments.enforce in "", 'undecided = "hold"\nfail = "closed"':
        print(f"[enforce] {arguments.enforce!r}: {FLOWS} flows, {A_SECOND} packets a second", flush=True)
        try:
            FullGate("measure").debug()
        except unittest.SkipTest as reason:
            print(reason)
            sys.exit(SKIPPED)
