"""What one `avwatch serve` costs avcore: the processor time of both, with it and without it in turn,
while a gate counts 50,000 flows, of which 2,000 a second are new.

    scripts/private python3 -B bench/watch_share.py [--cycles N] [--seconds N]

Clients send 20,000 datagrams a second to one server: the first of each new flow, and more of any of
the flows of the last 25 seconds. Given are milliseconds of a second, of avcore's process and of
avwatch's, each half of a cycle, and at the end avcore's means.
"""
import argparse
import os
import random
import statistics
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "../tests/system"))
from inline_lab import *  # pylint: disable=wrong-import-position

FLOWS, NEW_A_SECOND, FRAMES_A_SECOND = 50_000, 2_000, 20_000
CLIENTS_OF_ALL, TURN_SECONDS = 200, 0.01
SOURCE_PORTS = range(1_024, 61_024)


class Traffic(threading.Thread):
    """Its datagrams, in turns."""

    def __init__(self, send, frames_a_second=FRAMES_A_SECOND, new_a_second=NEW_A_SECOND):
        super().__init__(daemon=True)
        self.send, self.on = send, True
        self.frames_a_second, self.new_a_second = frames_a_second, new_a_second
        self.packets = [bytearray(summed(ipv4(UDP, udp(0, ALLOWED, bytes(100)), src=f"10.2.0.{client}",
                                              dst=SERVERS[4]))) for client in range(CLIENTS_OF_ALL)]
        for packet in self.packets:
            packet[26:28] = bytes(2)  # no checksum
        self.newest, self.due, self.late = 0, time.monotonic(), 0.0

    def count(self, flow):
        packet = self.packets[flow % CLIENTS_OF_ALL]
        port = SOURCE_PORTS[flow // CLIENTS_OF_ALL % len(SOURCE_PORTS)]
        packet[20:22] = port.to_bytes(2, "big")
        self.send(bytes(packet), sender=bytes((2, 0, 0, 0, 1, flow % CLIENTS_OF_ALL)))

    def run(self):
        others = self.frames_a_second - self.new_a_second
        while self.on:
            for _ in range(int(self.new_a_second * TURN_SECONDS)):
                self.count(self.newest)
                self.newest += 1
            for _ in range(int(others * TURN_SECONDS)):
                self.count(max(0, self.newest - 1 - random.randrange(FLOWS)))
            self.due += TURN_SECONDS
            self.late = time.monotonic() - self.due
            time.sleep(max(0, -self.late))


def used_seconds(process):
    with open(f"/proc/{process.pid}/stat") as file:
        words = file.read().rpartition(")")[2].split()
    return (int(words[11]) + int(words[12])) / os.sysconf("SC_CLK_TCK")


class WatchShare(InlineTest):
    def measure(self):
        self.start("copies = 10000", "--watch-socket", "/run/jorn/watch.sock")
        ip("server", "route", "add", "blackhole", "10.2.0.0/16")
        traffic = Traffic(self.raw())
        traffic.start()
        print(f"{FLOWS / NEW_A_SECOND:.0f} seconds pass until all flows are there", flush=True)
        time.sleep(FLOWS / NEW_A_SECOND + 5)
        taken = {"without": [], "with": []}
        for cycle in range(arguments.cycles):
            for state in ("without", "with") if cycle % 2 == 0 else ("with", "without"):
                taken[state].append(self.use_of(state == "with", traffic))
        traffic.on = False
        traffic.join()
        without, with_one = (statistics.mean(taken[state]) for state in ("without", "with"))
        print(f"avcore: {without:.1f} ms of a second without, {with_one:.1f} with: "
              f"{with_one / without:.3f} times as much")

    def use_of(self, watched, traffic):
        with contextlib.ExitStack() as end:
            serve = None
            if watched:
                serve = subprocess.Popen([jorn_path("avwatch"), "serve", "--history", "/tmp/share.db"])
                end.callback(serve.wait)
                end.callback(serve.terminate)
                time.sleep(8)  # the first listing is over
            time.sleep(1)
            newest, used = traffic.newest, used_seconds(self.avcore)
            used_there = used_seconds(serve) if serve else 0
            begun = time.monotonic()
            time.sleep(arguments.seconds)
            lasted = time.monotonic() - begun
            used = (used_seconds(self.avcore) - used) / lasted * 1e3
            there = (used_seconds(serve) - used_there) / lasted * 1e3 if serve else 0
            rate = (traffic.newest - newest) / lasted
            self.assertGreater(rate, 0.97 * NEW_A_SECOND, "the sender is late")
            print(f"{'with' if watched else 'without':8} avcore {used:6.1f}, avwatch {there:6.1f}, "
                  f"{rate:.0f} new flows a second", flush=True)
            return used


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--cycles", type=int, default=4)
    parser.add_argument("--seconds", type=float, default=15)
    arguments = parser.parse_args()
    WatchShare("measure").debug()
