"""Each program once in want of memory: see scripts/scarce-memory.

A run is jorn, avcore and avwatch serve with some traffic out of a file and all that jornctl and a
browser would ask; one of them doesn't get what it asks for. It goes on, or ends with a line.
"""
import argparse
import os
import struct
import subprocess
import sys
import time
import urllib.request

ROOT = os.path.join(os.path.dirname(os.path.realpath(__file__)), "..")
sys.path[:0] = [ROOT, ROOT + "/tests/system"]
from testbed import *  # pylint: disable=wildcard-import,unused-wildcard-import,wrong-import-position

PROGRAMS = "jorn", "avcore", "avwatch"
EVERY = 2, 3, 5, 11, 23, 47, 101, 211, 503, 1009, 2003, 5003, 10_007
PATIENCE_S = 40  # with a run that takes two seconds
FOLDER = "/tmp/scarce"
CAPTURE_FILE, COUNT, WATCH = FOLDER + "/capture", FOLDER + "/count", FOLDER + "/watch.sock"
COLLECTOR = "[[export]]\nipfix = \"udp://localhost:4739\"\n"
COMMANDS = (["apply", EXAMPLES + "/access-point.json"], ["show", "dns"], ["show", "utps"], ["export"],
            ["show", "wifi-calling"], ["apply", EXAMPLES + "/family.json"])
PAGES = "/", "/clients", "/flows", "/usage", "/metrics", "/events"


def frames():
    yield from (udp_frame(53, 1024 + n, dns_answer(f"host{n}.example", f"cdn{n}.example", f"192.0.2.{n}"),
                          src="198.51.100.53", dst=CLIENT) for n in range(1, 60))
    for n in range(1, 60):
        yield tcp_frame(2000 + n, 443, client_hello(f"www.host{n}.example"), dst=f"192.0.2.{n}")
        yield from [udp_frame(3000 + n, 8443, b"later", dst=f"192.0.2.{n}")] * 3
        yield ipv6_frame(17, udp(4000 + n, 53), src="2001:db8::1", dst=f"2001:db8::{n}")


def write_capture():
    packets = b"".join(struct.pack("=IIII", 1_700_000_000 + n // 1000, n % 1000 * 1000, len(frame),
                                   len(frame)) + frame for n, frame in enumerate(frames()))
    write_file(CAPTURE_FILE, struct.pack("=IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 262_144, 1) + packets)


class Program:
    def __init__(self, name, words, scarcity):
        self.name, self.said = name, FOLDER + "/" + name
        with open(self.said, "wb") as file:
            self.process = subprocess.Popen([jorn_path(name), *words], stdin=subprocess.DEVNULL, stdout=file,
                                            stderr=file, env=os.environ | scarcity)

    def ended(self):
        return self.process.poll() is not None

    def end(self, deadline):
        if not self.ended():
            self.process.terminate()
        try:
            return self.process.wait(max(deadline - time.monotonic(), 0.1))
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            return None  # it hung

    def lines(self):
        return read_file(self.said).splitlines()


def ask_all():
    """As users do, who are refused where there is nobody."""
    for words in COMMANDS:
        subprocess.run([jorn_path("jornctl"), "--timeout", "2", *words], stdin=subprocess.DEVNULL,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False)
    for path in PAGES:
        with contextlib.suppress(OSError):
            urllib.request.urlopen("http://127.0.0.1:8080" + path, timeout=0.5).read(100_000)


def run_once(scarce, **scarcity):
    """The exit statuses by program, None for one that hung."""
    subprocess.run(["ip", "link", "del", "av1"], stderr=subprocess.DEVNULL, check=False)
    for path in (AV_SOCKET, COMMAND_SOCKET, PID_FILE, WATCH, COUNT, FOLDER + "/history.db"):
        with contextlib.suppress(FileNotFoundError):
            os.unlink(path)
    variables = {"LD_PRELOAD": os.environ["SCARCE_MEMORY"], "SCARCE_COUNT": COUNT} | {
        f"SCARCE_{name.upper()}": str(value) for name, value in scarcity.items()}
    words = {
        "avcore": ["--capture", "av1", "-r", CAPTURE_FILE, "-c", EXAMPLES + "/everyone.toml", "--categories",
                   EXAMPLES + "/categories.txt", "--watch-socket", WATCH],
        "jorn": ["-i", "av1"],
        "avwatch": ["--watch-socket", WATCH, "-c", FOLDER + "/avwatch.toml", "serve", "--history",
                    FOLDER + "/history.db", "--http", "127.0.0.1:8080"]}
    running = {}
    deadline = time.monotonic() + PATIENCE_S
    for name, options in words.items():
        running[name] = Program(name, options, variables if name == scarce else {})
        if name == "avcore":
            awaited = lambda: os.path.exists("/sys/class/net/av1") or running["avcore"].ended()
            wait_until(awaited, "the capture interface", PATIENCE_S)
    ask_all()
    while not any(running[name].ended() for name in ("avcore", "jorn")) and time.monotonic() < deadline:
        time.sleep(0.02)
    ask_all()
    return {name: each.end(deadline) for name, each in reversed(running.items())}, running


def complaint(name, status, program):
    """What is wrong with how it went; nothing where it went well."""
    if status is None:
        return "hung"
    if status < 0:
        return f"was ended by {signal.Signals(-status).name}"
    if status != 0 and not any(line.startswith(name) for line in program.lines()):
        return f"ended with status {status} without a line"
    return None


def total_of(name):
    """How many allocations there are where all are granted."""
    statuses, running = run_once(name)
    assert statuses[name] == 0, (name, statuses, running[name].lines())
    return int(read_file(COUNT))


def try_program(name, places):
    """Returns how many runs there were, how many of them it didn't outlive, and what was wrong."""
    total = total_of(name)
    runs = [(0, every, total) for every in EVERY if every < total]
    for place in range(places):
        first = total * place // places
        runs += [(first, 1, 1), (first, 1, total)]  # one isn't granted, and none any more
    wrong, ended = [], 0
    for first, every, most in runs:
        statuses, running = run_once(name, first=first, every=every, most=most)
        ended += statuses[name] != 0
        if what := complaint(name, statuses[name], running[name]):
            wrong.append(f"{name} {first} {every} {most}: {what}; it said {running[name].lines()[-3:]}")
            print(wrong[-1], flush=True)
    print(f"{name:8} {total:7} allocations {len(runs):4} runs {ended:4} ended {len(wrong):3} wrong", flush=True)
    return wrong


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--places", type=int, default=20, help="of a run at which memory is scarce")
    parser.add_argument("programs", nargs="*", default=PROGRAMS)
    asked = parser.parse_args()
    write_capture()
    write_file(FOLDER + "/avwatch.toml", COLLECTOR)
    run("ip", "link", "set", "lo", "up")
    wrong = [line for name in asked.programs for line in try_program(name, asked.places)]
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
