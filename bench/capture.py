"""What the interface costs on which the daemon captures: of each kind that avcore makes, and of a
pair made by hand, in turn, round by round.

    scripts/private python3 -B bench/capture.py [--rounds N] [--seconds N] [--flows N] [--pages N]
                                                [--frames N] [KIND ...]

The kernel closes the capture's blocks after a time that goes by the speed that the interface claims:
after a short one verdicts come early, after a long one nobody else is disturbed. Shown are medians
over the rounds:

    TCP       of a client to a server, through this access point without a gate, against the same
              before the daemon captured
    wake-ups  a second: interrupts by timers beyond those before, while nothing is sent
    verdict   for how many milliseconds a denied flow's datagrams pass, and for 99 %
    pages     of a denied name, next door, by HTTP, that come whole, each behind an allowed one
    -r        frames a second of a file, of flows that the daemon's cache names
    restart   milliseconds that an avcore takes, from its start to its end, to have one frame judged
              by a daemon that runs

What is given as 0 is left out. On a machine that does other things TCP and wake-ups say nothing.
"""
import argparse
import sys

import inline
from inline import *

KINDS = {"by hand": "", "veth": 'kind = "veth"'} | {
    f"tap-{speed}": f'kind = "tap"\nspeed = {speed}' for speed in (10, 1000, 2000, 10000)}
ONE, PIPE = "/tmp/one.pcap", "/tmp/pipe"
RUNS_OF_ONE = 3
HEAD = struct.pack("=IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 262_144, 1)
NAMING = ethernet(0x0800, ipv4(17, udp(53, 1, dns_answer("a.example", "b.example", SERVER)),
                               src="192.0.2.53", dst=CLIENT), src=SERVER_MAC, dst=CLIENT_MAC)
FLOWS = [udp_frame(1024 + number, 443, bytes(200)) for number in range(50)]


def records(*frames):
    return b"".join(struct.pack("=IIII", 1_700_000_000, 0, len(frame), len(frame)) + frame
                    for frame in frames)


def timer_interrupts():
    with open("/proc/interrupts") as file:
        return sum(sum(map(int, filter(str.isdigit, line.split()))) for line in file
                   if line.split()[0] == "LOC:")


class Capture(inline.Measurement):
    def make_links(self):
        """Each kind has its own."""

    def measure(self):
        self._lay_out(0)
        os.mkfifo(PIPE)
        write_file(ONE, HEAD + records(NAMING))
        self.serve_speed(PLAIN)
        self.serve_pages(http=None)
        rounds = []
        for number in range(arguments.rounds):
            first = number % len(arguments.kinds)
            rounds.append({kind: self.measure_kind(kind)
                           for kind in arguments.kinds[first:] + arguments.kinds[:first]})
            print(f"round {number + 1} of {arguments.rounds} is done", file=sys.stderr)
        self.tell(rounds)

    def measure_kind(self, kind):
        """The figures of a round. By hand the pair is there before avcore, and stays."""
        self.capture = f"[capture]\n{KINDS[kind]}\n"
        self.configure("reset = true\ncopies = 10000")
        if kind == "by hand":
            super().make_links()
        self.way = ("-o", FEED) if kind == "by hand" else ("--capture", CAPTURE)
        row = self.disturbance() if arguments.seconds else {}
        if arguments.frames:
            row |= self.speed_of_file()
        if arguments.flows or arguments.pages:
            row |= self.verdicts()
        subprocess.run(["ip", "link", "del", CAPTURE], capture_output=True)
        return row

    def disturbance(self):
        def look():
            before = timer_interrupts()
            time.sleep(arguments.seconds)
            interrupts = (timer_interrupts() - before) / arguments.seconds
            return interrupts, self.tcp(PLAIN, None)["tcp"]

        interrupts, speed = look()
        with self.judging("-r", PIPE), open(PIPE, "wb", buffering=0) as pipe:
            pipe.write(HEAD + records(NAMING))
            time.sleep(0.5)
            interrupts_then, speed_then = look()
        return {"wake-ups": interrupts_then - interrupts, "TCP": speed_then / speed}

    def speed_of_file(self):
        times = []
        with self.judging("-r", PIPE) as avcore, open(PIPE, "wb", buffering=0) as pipe:
            pipe.write(HEAD + records(NAMING))
            time.sleep(0.5)
            started = time.monotonic()
            for _ in range(arguments.frames // len(FLOWS)):
                pipe.write(records(*FLOWS))
            pipe.close()
            self.assertEqual(avcore.wait(DEADLINE), 0)
            times.append(time.monotonic() - started)
            for _ in range(RUNS_OF_ONE):
                time.sleep(1.2)  # it looks for avcore's channel once a second at most
                started = time.monotonic()
                run_quietly(jorn_path("avcore"), *self.way, "-c", CONFIG, "-r", ONE)
                times.append(time.monotonic() - started)
        return {"-r": arguments.frames / times[0], "restart": statistics.median(times[1:]) * 1000}

    def verdicts(self):
        row = {}
        with self.judging():
            self.apply({DENIED: {"deny": True}, SHUT: {"deny": True}})
            if arguments.pages:
                self.tell_names()
                row["pages"] = sum(ms > 0 for ms in self.pages("http")[1])
            if arguments.flows:
                row["verdict"] = self.times_that_flows_pass()
        return row

    def tell(self, rounds):
        columns = {"TCP": ".3f", "wake-ups": ".0f", "verdict": ".2f", "99 %": ".2f", "pages": ".0f",
                   "-r": ".0f", "restart": ".0f"}
        print(" " * 10 + "".join(f"{column:>10}" for column in columns))
        for kind in arguments.kinds:
            rows = [each[kind] for each in rounds]
            figures = {key: [row[key] for row in rows] for key in rows[0]}
            if passed := sorted(sum(figures.pop("verdict", []), [])):
                figures |= {"verdict": passed, "99 %": [percentile(passed, 99)]}
            print(f"{kind:10}" + "".join(
                f"{statistics.median(figures[column]) if figures.get(column) else float('nan'):10{form}}"
                for column, form in columns.items()), flush=True)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=int, default=2)
    parser.add_argument("--flows", type=int, default=100)
    parser.add_argument("--pages", type=int, default=40)
    parser.add_argument("--frames", type=int, default=100_000)
    parser.add_argument("kinds", nargs="*", default=list(KINDS), metavar="KIND")
    parser.set_defaults(bridged=False, attach=None, speed=None)  # of the other benchmark's
    arguments = inline.arguments = parser.parse_args()
    if arguments.pages:
        print(f"pages: of {arguments.pages} each round")
    Capture("measure").debug()
