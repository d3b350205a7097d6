"""What the interface costs on which the daemon captures: each kind that avcore makes, and a pair made
by hand, in turn, round by round.

    scripts/private python3 -B bench/capture.py [--rounds N] [--flows N] [--pages N] [--frames N]
                                                [--seconds N] [KIND ...]

The capture's blocks are closed by a timer of the kernel's, whose length goes by the speed that the
interface claims. A fast one has verdicts early; it wakes a machine that has nothing to do, and slows
down what has nothing to do with the daemon. Shown are medians of the rounds:

    TCP       a client's to a server through this access point, which has no gate, against the same
              round without a daemon
    wake-ups  timer interrupts a second more than without, while nothing is sent
    verdict   for how long a denied flow's datagrams pass (bench/inline.py), median and 99 %
    pages     of a denied name's from a server next door by HTTP that come whole (bench/inline.py)
    -r        frames a second of a file
    restart   milliseconds from the start of avcore's successor to the first verdict
"""
import argparse
import sys

import inline
from inline import *

KINDS = {"by hand": None, "veth": 'kind = "veth"'} | {
    f"tap-{speed}": f'kind = "tap"\nspeed = {speed}' for speed in (10, 1000, 2000, 10000)}
PIPE = "/tmp/pipe"
NAMING = ethernet(0x0800, ipv4(17, udp(53, 1, dns_answer("a.example", "b.example", SERVER)),
                               src="192.0.2.53", dst=CLIENT), src=SERVER_MAC, dst=CLIENT_MAC)
FRAMES = [udp_frame(1024 + flow, 443, bytes(200)) for flow in range(50)]


def records(frames):
    return b"".join(struct.pack("=IIII", 1_700_000_000, 0, len(frame), len(frame)) + frame
                    for frame in frames)


def beginning_of_file():
    return struct.pack("=IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 262_144, 1) + records([NAMING])


def timer_interrupts():
    with open("/proc/interrupts") as file:
        return sum(sum(map(int, filter(str.isdigit, line.split()))) for line in file
                   if line.split()[0] == "LOC:")


class Capture(inline.Measurement):
    def make_links(self):
        pass  # each kind makes its own

    def start_avcore(self):
        if self.kind is None:
            super().make_links()
        super().start_avcore()

    def measure(self):
        self.bridged, self.wire_ms = False, 0
        self._lay_out(0)
        os.mkfifo(PIPE)
        servers = [subprocess.Popen([*ON_SERVER, "iperf3", "-s", "-p", str(PLAIN)],
                                    stdout=subprocess.DEVNULL)]
        for server in servers:
            self.addCleanup(server.wait)
            self.addCleanup(server.terminate)
        listener = self.bind("server", socket.SOCK_STREAM, DENIED_SITE[1], 80)
        self.addCleanup(listener.close)
        listener.listen()
        threading.Thread(target=serve, args=(listener, None), daemon=True).start()
        self.lines = Record("lines of avcore")
        rounds = []
        for number in range(arguments.rounds):
            names = list(arguments.kinds)
            names = names[number % len(names):] + names[:number % len(names)]
            rounds.append({name: self.measure_kind(name) for name in names})
            print(f"round {number + 1} of {arguments.rounds} is done", file=sys.stderr)
        self.tell(rounds)

    def elsewhere(self):
        """TCP, and the interrupts while nothing goes on."""
        before = timer_interrupts()
        time.sleep(arguments.seconds)
        return {"wakeups": (timer_interrupts() - before) / arguments.seconds,
                "tcp": self.tcp(PLAIN, None)["tcp"]}

    def measure_kind(self, name):
        self.kind = KINDS[name]
        row, nothing = {"-r": self.throughput()}, self.elsewhere()
        with self.fed_by_pipe() as (_, pipe):
            daemon = self.start_daemon()
            pipe.write(beginning_of_file())
            time.sleep(1)
            found = self.elsewhere()
            row |= {"tcp": found["tcp"] / nothing["tcp"],
                    "wakeups": found["wakeups"] - nothing["wakeups"]}
            daemon.stop()
        return row | self.inline_figures()

    def options_of(self):
        text = f'[client]\nutp_id = 1\n[uplink]\nutp_id = 2\n[enforce]\nreset = true\ncopies = 10000\n'
        if self.kind:
            text += f'[capture]\ninterface = "{CAPTURE}"\n{self.kind}\n'
        write_file(CONFIG, text)
        return ["-o", FEED] * (not self.kind) + ["-c", CONFIG]

    @contextlib.contextmanager
    def fed_by_pipe(self):
        """avcore without a capture of its own."""
        if self.kind is None:
            super().make_links()
        avcore = subprocess.Popen([jorn_path("avcore"), "-r", PIPE, *self.options_of()],
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_for_listener(AV_SOCKET)
        with open(PIPE, "wb", buffering=0) as pipe:
            yield avcore, pipe
        avcore.terminate()
        avcore.wait()
        self.remove_links()

    def remove_links(self):
        subprocess.run(["ip", "link", "del", CAPTURE], capture_output=True)

    def throughput(self):
        with self.fed_by_pipe() as (avcore, pipe):
            daemon = self.start_daemon()
            pipe.write(beginning_of_file())
            time.sleep(1)
            started = time.monotonic()
            for _ in range(arguments.frames // len(FRAMES)):
                pipe.write(records(FRAMES))
            pipe.close()
            avcore.wait(DEADLINE)
            lasted = time.monotonic() - started
            daemon.stop()
        return arguments.frames / lasted

    def inline_figures(self):
        if self.kind is None:
            super().make_links()
        words = [jorn_path("avcore"), "--inline", "wlan0", *self.options_of()]
        self.avcore = subprocess.Popen(words, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_for_listener(AV_SOCKET)
        daemon = self.start_daemon()
        self.assertEqual(jornctl("apply", "-", document=policies(
            {DENIED: {"deny": True}, "shut.example": {"deny": True}}, ()))[::2], (0, ""))
        row = {}
        self.tell_name(4, *DENIED_SITE)
        self.until(lambda: inline.Pages.page(self, "http", DENIED_SITE) < 0)
        row["pages"] = sum(inline.Pages.page(self, "http", DENIED_SITE) > 0
                           for _ in range(arguments.pages))
        with self.bind("server", socket.SOCK_DGRAM, SERVERS[4], DENIED) as server:
            server.setblocking(False)
            os.sched_setscheduler(0, os.SCHED_RR | os.SCHED_RESET_ON_FORK, os.sched_param(10))
            self.passing_milliseconds(server, FIRST_SOURCE)
            row["flows"] = [self.passing_milliseconds(server, FIRST_SOURCE + 1 + number)
                            for number in range(arguments.flows)]
            os.sched_setscheduler(0, os.SCHED_OTHER, os.sched_param(0))
        daemon.stop()
        self.stop_avcore(self.avcore)
        run_quietly(jorn_path("avcore"), "teardown")
        self.remove_links()
        return row

    def tell(self, rounds):
        print(f"{'':12}{'TCP':>8}{'wake-ups':>10}{'verdict, ms':>13}{'99 %':>8}{'pages':>12}{'-r':>10}")
        for name in arguments.kinds:
            rows = [each[name] for each in rounds]
            flows = sorted(sum((row["flows"] for row in rows), [])) or [float("nan")]
            middle = {key: statistics.median(row[key] for row in rows) for key in ("tcp", "wakeups", "-r")}
            print(f"{name:12}{middle['tcp']:8.3f}{middle['wakeups']:10.0f}{statistics.median(flows):13.2f}"
                  f"{flows[len(flows) * 99 // 100]:8.2f}{sum(row['pages'] for row in rows):5} of "
                  f"{arguments.pages * len(rows):<4}{middle['-r']:9.0f}")


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--seconds", type=int, default=2)
    parser.add_argument("--flows", type=int, default=200)
    parser.add_argument("--pages", type=int, default=40)
    parser.add_argument("--frames", type=int, default=100_000)
    parser.add_argument("kinds", nargs="*", default=list(KINDS))
    arguments = inline.arguments = parser.parse_args()
    Capture("measure").debug()
