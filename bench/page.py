"""What the page costs: memory and processor time of `avwatch serve` while it is told of 65,536 flows, of
which 20,000 have counted each second, and nobody looks, one browser does, as many as may, or one while 36
ask for rows as fast as they can.

    scripts/private python3 -B bench/page.py [--seconds N] [--own-names | --browser]

The watch socket is played. Given are milliseconds of a second, the most memory that there was
(VmHWM), and the longest time between two messages of a stream. With --own-names each flow has a server and
names of its own, of 200 letters more, as somebody makes them up who wants memory. With --browser (Chromium,
python3-selenium, and the interpreter that has it) a browser shows 10,000 flows instead, all of which
count each second: how long its frames take, and how many of its turns took longer than 50 ms, while
the table stands still and while it is scrolled.
"""
import argparse
import os
import random
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "../tests/system"))
from test_page import *  # pylint: disable=wrong-import-position

FLOWS, COUNTING, CLIENTS, NAMES = 65_536, 20_000, 256, 4_096
LOOKS = ("table=flows", "table=flows&order=bytes", "table=flows&part=7", "table=clients", "table=applications",
         "table=denials", "table=flows&order=last&first=30000", "table=flows&verdict=allow")


def some_flow(number):
    name = number if arguments.own_names else number * 7919 % NAMES
    more = "n" * 200 * arguments.own_names
    return flow(number, 0, 0, id=f"0a01{number % CLIENTS:02x}0cc63364{name % 256:02x}-{number % 65536:x}-1bb-6-{number:016x}", client=f"10.1.{number % CLIENTS}.12",
                client_mac=f"02:00:00:00:01:{number % CLIENTS:02X}", client_port=1_024 + number // 2,
                server=f"198.51.{name % 256}.{name // 256}", interface=f"wlan{number % 4}", utp=number % 4,
                application=f"{more}service-{name}.example.com", host=f"{more}cdn-{name}.service-{name}.example.com",
                gate="passes", why={"named_by": "dns", "name": f"{more}cdn-{name}.example.com", "rule": 1,
                                    "by": "application policy", "profile": number % 4, "side": "client"})


class Traffic(threading.Thread):
    """Counts of flows, each second to who looks on, and every ten to who keeps the history."""

    def __init__(self, avcore, flows):
        super().__init__(daemon=True)
        self.avcore, self.flows, self.on = avcore, flows, True
        self.start()

    def run(self):
        begun, second = time.monotonic(), 0
        while self.on:
            second += 1
            some = random.sample(self.flows, min(COUNTING, len(self.flows)))
            for each in some:
                each["down"] = [each["down"][0] + 10, each["down"][1] + random.randrange(20_000)]
                each["last_us"] = time.time_ns() // 1_000
            counts = [json.dumps({"id": "ID", "count": {name: each[name] for name in
                                                        ("id", "last_us", "up", "down", "dropped")}}) for each in some]
            for wanted in (self.avcore.watching, self.avcore.following)[:2 if second % 10 == 0 else 1]:
                connection, number = wanted[-1]
                self.avcore.say(connection, *(f"{each}\n".replace('"ID"', str(number)).encode() for each in counts))
            time.sleep(max(0, begun + second - time.monotonic()))


class Viewer(threading.Thread):
    def __init__(self, look):
        super().__init__(daemon=True)
        self.times = []
        self.connection = socket.create_connection(HTTP)
        self.connection.sendall(f"GET /api/live?rows=110&{look} HTTP/1.1\r\nHost: localhost\r\n\r\n".encode())
        self.start()

    def run(self):
        with self.connection.makefile("rb") as lines, contextlib.suppress(OSError, ValueError):
            for line in lines:
                if line.startswith(b"data: "):
                    self.times.append(time.monotonic())

    def longest_gap_ms(self):
        return max((b - a for a, b in zip(self.times, self.times[1:])), default=float("nan")) * 1e3

    def close(self):
        self.connection.shutdown(socket.SHUT_RDWR)
        self.join()
        self.connection.close()


class Asker(threading.Thread):
    """Asks for rows that nobody else asks for, and asks again."""

    def __init__(self, number):
        super().__init__(daemon=True)
        self.number, self.on, self.refused, self.answers = number, True, 0, 0
        self.start()

    def run(self):
        while self.on:
            with contextlib.suppress(OSError), socket.create_connection(HTTP, timeout=DEADLINE) as asking:
                asking.sendall(f"GET /api/rows?table=flows&order=name&rows=200&part={self.number} HTTP/1.1\r\n"
                               "Host: localhost\r\n\r\n".encode())
                with asking.makefile("rb") as answer:
                    self.refused += b" 503 " in answer.readline()
                    answer.read()
                self.answers += 1

    def close(self):
        self.on = False
        self.join()


class PageCost(Served):
    def used_seconds(self):
        with open(f"/proc/{self.server.pid}/stat") as file:
            words = file.read().rpartition(")")[2].split()
        return (int(words[11]) + int(words[12])) / os.sysconf("SC_CLK_TCK")

    def most_memory_mb(self):
        return int(re.search(r"VmHWM:\s+(\d+)", read_file(f"/proc/{self.server.pid}/status"))[1]) / 1_000

    def begin(self, count):
        flows = [some_flow(number) for number in range(count)]
        avcore = Avcore(self.socket, flows)
        self.serve()
        wait_until(lambda: avcore.watching and avcore.following)
        traffic = Traffic(avcore, flows)
        self.addCleanup(traffic.join)
        self.addCleanup(setattr, traffic, "on", False)

    def measure(self):
        self.begin(FLOWS)
        time.sleep(15)  # the first listing is over, and once more counts for the history
        for what, looks, asking in (("nobody", (), 0), ("one", LOOKS[:1], 0), ("24 at the same", LOOKS[:1] * 24, 0),
                                    ("24 at eight looks", LOOKS * 3, 0), ("one, 36 ask", LOOKS[:1], 36),
                                    ("nobody again", (), 0)):
            viewers = [Viewer(look) for look in looks]
            askers = [Asker(number) for number in range(asking)]
            time.sleep(2)
            used, begun = self.used_seconds(), time.monotonic()
            time.sleep(arguments.seconds)
            used = (self.used_seconds() - used) / (time.monotonic() - begun) * 1e3
            print(f"{what:20} {used:6.1f} ms of a second, {self.most_memory_mb():5.1f} MB, longest between two messages "
                  f"{max((each.longest_gap_ms() for each in viewers), default=0):.0f} ms", flush=True)
            for each in askers:
                each.close()
            if askers:
                print(f"{sum(each.answers for each in askers)} answers, {sum(each.refused for each in askers)} refused")
            for each in viewers:
                self.assertGreater(len(each.times), arguments.seconds / 2, "it was refused")
                each.close()
            time.sleep(3)  # until the server knows


FRAMES = """
window.gaps = [];
window.turns = [];
let last = performance.now();
const watching = new PerformanceObserver((seen) => turns.push(...seen.getEntries().map((each) => each.duration)));
watching.observe({type: "longtask"});
window.watchFrame = () => requestAnimationFrame((now) => {
    gaps.push(now - last);
    last = now;
    document.getElementById("scroll").scrollTop += step;
    watchFrame();
});
window.step = 0;
watchFrame();
"""


def measure_frames():
    from test_browser import Browsing  # pylint: disable=import-outside-toplevel

    class Frames(Browsing, PageCost):
        def measure(self):
            self.begin(10_000)
            self.open("#table=flows")
            wait_until(lambda: self.text("total") == "10000 flows")
            self.js(f"(() => {{{FRAMES}}})()")
            for what, step in (("still", 0), ("scrolled, 20 pixels a frame", 20), ("scrolled, 400 a frame", 400)):
                self.js(f"(document.getElementById('scroll').scrollTop = 0, step = {step})")
                time.sleep(2)
                self.js("(gaps.length = turns.length = 0)")
                time.sleep(arguments.seconds)
                gaps, turns = sorted(self.js("gaps")), self.js("turns")
                print(f"{what:28} {len(gaps) / arguments.seconds:.0f} frames a second, median {gaps[len(gaps) // 2]:.1f} "
                      f"ms, 99 % within {gaps[len(gaps) * 99 // 100]:.1f}, longest {gaps[-1]:.1f}; "
                      f"{len(turns)} turns of more than 50 ms, longest {max(turns, default=0):.0f}", flush=True)
            self.assert_no_complaints()
    Frames("measure").debug()


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--seconds", type=float, default=20)
    parser.add_argument("--own-names", action="store_true")
    parser.add_argument("--browser", action="store_true")
    arguments = parser.parse_args()
    if arguments.browser:
        measure_frames()
    else:
        PageCost("measure").debug()
