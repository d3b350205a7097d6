"""What the gate costs: the same traffic through an access point without it, with it and nobody there,
and under verdicts, taken in turn, round by round.

    scripts/private python3 -B bench/inline.py [--bridged] [--rounds N] [--seconds N] [--flows N]
                                                   [--pages N] [--attach tcx|clsact] [--speed MBIT]

One client sends to one server as fast as this machine can: TCP, then UDP in packets of 200 bytes;
then it pings. Ratios are to the same round's figures without the gate; what is printed are medians.

Before that, each while packets without a verdict pass and while they are held: how long a denied
flow's packets pass, for each flow a datagram every 0.2 ms, after the first ten at intervals that
grow by a tenth; and how long an allowed one waits for its first round trip, UDP's datagram and
answer, TCP's connect(). And how many pages of a name that is denied curl gets whole, from a server
next door and from one 20 ms away; DNS gave the name before, so that the first packet is judged by
it. What is given as 0 is left out.

With --speed the interface on which the daemon captures claims that many Mbit/s, by which the kernel
chooses how long it keeps packets from it; else it is one end of a veth pair.
"""
import argparse
import os
import random
import re
import statistics
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "../tests/system"))
from inline_lab import *  # pylint: disable=wrong-import-position

PLAIN, MARKED = 5201, 5202  # iperf3's ports
ALONE = "the daemon, no gate"  # its capture costs others' packets something, too
HOLDING = "decided: allow, hold"
# What is measured, the port, and as what the gate has to count the packets.
STATES = [("nothing", PLAIN, None), (ALONE, PLAIN, None),
          ("attached, nobody there", PLAIN, "nobody"), ("decided: allow", PLAIN, "decided"),
          (HOLDING, PLAIN, "decided"), ("decided: DSCP and class", MARKED, "decided"),
          ("everything undecided", PLAIN, "undecided")]
# The least share of what passes without the gate, of TCP and of packets; bridged it is less.
GOALS = {"tcx": {"attached, nobody there": (0.99, 0.99), "decided: allow": (0.95, 0.97),
                 HOLDING: (0.95, 0.97), "decided: DSCP and class": (0.95, 0.96)},
         "clsact": {"decided: allow": (0.95, 0.95), HOLDING: (0.95, 0.95),
                    "decided: DSCP and class": (0.95, 0.95)}}
BRIDGED_LESS = 0.02
# What becomes of packets without a verdict.
UNDECIDED = {"pass": "", "hold": 'undecided = "hold"\nfail = "closed"\n'}
# When a denied flow's datagrams are sent, in seconds: few, or they would be what is measured.
TIMES = [0.0002 * number if number <= 10 else 0.002 * 1.1 ** (number - 10) for number in range(43)]
FIRST_SOURCE = 20000  # the flows' ports: one that comes again has its verdict
QOS = {"qos": {"mark": {"kind": "both", "type": "Voice"}, "classify": "Voice"}}
PAGE = b"HTTP/1.1 200 OK\r\nContent-Length: 1000\r\nConnection: close\r\n\r\n" + bytes(1000)
PORTS = {"http": 80, "https": 443}
SHUT = "shut.example"
ALLOWED_SITE, DENIED_SITE = ("www.open.example", SERVERS[4]), (f"www.{SHUT}", NAMED[4])
ON_CLIENT, ON_SERVER = inside("client"), inside("server")


def busy_seconds():
    with open("/proc/stat") as file:
        ticks = [int(word) for word in file.readline().split()[1:9]]
    return (sum(ticks) - ticks[3] - ticks[4]) / os.sysconf("SC_CLK_TCK")


def round_trip():
    """In microseconds."""
    done = subprocess.run([*ON_CLIENT, "ping", "-i", "0.005", "-c", "200", SERVERS[4]],
                          capture_output=True, text=True, check=True)
    times = [float(found) * 1000 for found in re.findall("time=([0-9.]+)", done.stdout)]
    assert len(times) == 200, done.stdout
    return statistics.median(times)


def percentile(ordered, share):
    return ordered[len(ordered) * share // 100]


def packets_at_server():
    done = subprocess.run([*ON_SERVER, "ip", "-s", "-j", "link", "show", "eth0"],
                          capture_output=True, text=True, check=True)
    return json.loads(done.stdout)[0]["stats64"]["rx"]["packets"]


@contextlib.contextmanager
def on_time():
    """However busy the machine is, this program isn't late; what it measures isn't spared."""
    os.sched_setscheduler(0, os.SCHED_RR | os.SCHED_RESET_ON_FORK, os.sched_param(10))
    try:
        yield
    finally:
        os.sched_setscheduler(0, os.SCHED_OTHER, os.sched_param(0))


class Bench(InlineTest):
    capture = ""  # the configuration's
    lines = Record("lines of avcore")

    def setUp(self):
        self.bridged = arguments.bridged
        super().setUp()

    def make_links(self):
        if arguments.speed:
            self.way = ("--capture", CAPTURE)
            self.capture = f"[capture]\nspeed = {arguments.speed}\n"
        else:
            super().make_links()

    def configure(self, enforce):
        super().configure(f"{enforce}\n{self.capture}")

    def attach(self):
        return ("--attach", arguments.attach) if arguments.attach else ()

    @contextlib.contextmanager
    def judging(self, *options, before=(), **streams):
        """avcore, with the gate unless other options are given, and the daemon run."""
        avcore = self.run_avcore(*(options or ("--inline", "wlan0", *self.attach())), "-c", CONFIG,
                                 stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, **streams)
        wait_for_listener(AV_SOCKET)
        self.jorn = self.daemon(before=before)
        wait_for_listener(COMMAND_SOCKET)
        try:
            if not options:  # a closed gate drops what comes sooner
                self.until(lambda: self.status().get("beat_age_ms", 1000) < 1000)
            yield avcore
        finally:
            self.stop_avcore(avcore)
            self.jorn.stop()
            if not options:
                run_quietly(jorn_path("avcore"), "teardown")

    def begin_state(self, end, name, counted):
        """The gate is alone until then, or judges, as packets are to be counted; or isn't there."""
        self.configure(UNDECIDED["hold"] if name == HOLDING else "")
        if counted == "nobody":
            run_quietly(jorn_path("avcore"), "setup", "--inline", "wlan0", *self.attach(), "-c",
                        CONFIG)
            end.callback(run_quietly, jorn_path("avcore"), "teardown")
        elif counted:
            end.enter_context(self.judging())
            self.apply({MARKED: QOS})
            time.sleep(0.5)

    def apply(self, rules):
        status, _, complaints = jornctl("apply", "-", document=policies(rules, ()))
        self.assertEqual(status, 0, complaints)  # it says that there was another daemon before

    def serve_speed(self, port):
        server = subprocess.Popen([*ON_SERVER, "iperf3", "-s", "-p", str(port)],
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(server.wait)
        self.addCleanup(server.terminate)
        wait_until(lambda: f":{port} " in subprocess.run(
            [*ON_SERVER, "ss", "-ltnH"], capture_output=True, text=True, check=True).stdout)
        return server

    def counts(self, counted):
        return self.status()["counts"] if counted else {}

    def serve_pages(self, **contexts):
        """Of both sites, by these schemes."""
        for _, address in ALLOWED_SITE, DENIED_SITE:
            for scheme, context in contexts.items():
                listener = self.bind("server", socket.SOCK_STREAM, address, PORTS[scheme])
                self.addCleanup(listener.close)
                listener.listen()
                threading.Thread(target=serve, args=(listener, context), daemon=True).start()

    def tell_names(self):
        for site in ALLOWED_SITE, DENIED_SITE:
            self.tell_name(4, *site)

    def pages(self, scheme):
        """Of the allowed and of the denied site, in turn, each as page() has it."""
        self.until(lambda: self.page(scheme, DENIED_SITE) < 0)
        asked = [(self.page(scheme, ALLOWED_SITE), self.page(scheme, DENIED_SITE))
                 for _ in range(arguments.pages)]
        allowed, denied = zip(*asked)
        self.assertGreater(min(allowed), 0)
        return allowed, denied

    def page(self, scheme, site):
        """How many milliseconds it took; didn't it come whole, curl's exit status, negative."""
        name, address = site
        done = subprocess.run(
            [*ON_CLIENT, "curl", "-sk", "--noproxy", "*", "--max-time", "10", "--connect-to",
             f"::{address}:", "-o", "/dev/null", "-w", "%{time_total}", f"{scheme}://{name}/"],
            capture_output=True, text=True)
        return -done.returncode or float(done.stdout) * 1000


class Measurement(Bench):
    def measure(self):
        self._lay_out(0)
        self.servers = {port: self.serve_speed(port) for port in (PLAIN, MARKED)}
        self.rounds = []
        if arguments.flows:
            self.measure_first_packets()
        for number in range(arguments.rounds):
            order = STATES[number % len(STATES):] + STATES[:number % len(STATES)]
            self.rounds.append({state[0]: self.measure_state(*state) for state in order})
            print(f"round {number + 1} of {arguments.rounds} is done", file=sys.stderr)
        if self.rounds:
            self.tell()

    def measure_first_packets(self):
        print(f"of {arguments.flows} flows, in ms, by `undecided`:\n"
              f"{'':8}{'denied, its packets pass':>30}{'allowed, first round trip: UDP':>34}"
              f"{'TCP':>8}\n{'':8}{'median':>12}{'90 %':>9}{'99 %':>9}{'median':>25}{'99 %':>9}"
              f"{'median':>8}{'99 %':>9}")
        for undecided, enforce in UNDECIDED.items():
            self.configure("copies = 10000\n" + enforce)
            with self.judging():
                self.apply({DENIED: {"deny": True}})
                passed, udp, tcp = (sorted(times()) for times in (
                    self.times_that_flows_pass, self.udp_round_trips, self.tcp_round_trips))
            print(f"{undecided:8}{statistics.median(passed):12.2f}{percentile(passed, 90):9.2f}"
                  f"{percentile(passed, 99):9.2f}{statistics.median(udp):25.2f}"
                  f"{percentile(udp, 99):9.2f}{statistics.median(tcp):8.2f}"
                  f"{percentile(tcp, 99):9.2f}", flush=True)

    def times_that_flows_pass(self):
        with self.bind("server", socket.SOCK_DGRAM, SERVERS[4], DENIED) as server, on_time():
            server.setblocking(False)
            passed = [self.passing_milliseconds(server, FIRST_SOURCE + number)
                      for number in range(arguments.flows + 1)]
        return passed[1:]  # everything starts with the first one

    def passing_milliseconds(self, server, source):
        """Up to the middle between the last datagram that passed and the next one."""
        with self.bind("client", socket.SOCK_DGRAM, CLIENTS[4], source) as client:
            client.connect((SERVERS[4], DENIED))
            sent, begun = [], time.monotonic()
            for at in TIMES:
                time.sleep(max(0, begun + at - time.monotonic()))
                sent.append(time.monotonic() - begun)
                client.send(bytes([len(sent)]))
        last = 0
        with contextlib.suppress(BlockingIOError):
            while True:
                last = max(last, *server.recv(8))
        time.sleep(0.05)  # what is still to be judged doesn't delay the next one
        return statistics.mean(sent[last - 1:last + 1]) * 1000 if last else 0

    def udp_round_trips(self):
        with self.bind("server", socket.SOCK_DGRAM, SERVERS[4], ALLOWED) as server:
            def exchange(client):
                client.sendto(b"ping", (SERVERS[4], ALLOWED))
                server.sendto(*server.recvfrom(8))
                client.recv(8)
            return self.times_of_flows(socket.SOCK_DGRAM, exchange)

    def tcp_round_trips(self):
        with self.bind("server", socket.SOCK_STREAM, SERVERS[4], ALLOWED) as server:
            server.listen(arguments.flows + 1)
            return self.times_of_flows(socket.SOCK_STREAM,
                                       lambda client: client.connect((SERVERS[4], ALLOWED)))

    def times_of_flows(self, kind, exchange):
        """What it takes a new flow, in milliseconds."""
        times = []
        with on_time():
            for number in range(arguments.flows + 1):
                with self.bind("client", kind, CLIENTS[4], FIRST_SOURCE + number) as client:
                    begun = time.monotonic()
                    exchange(client)
                    times.append((time.monotonic() - begun) * 1000)
                # The verdict came when the capture's timer had run out; the next flow begins anywhen.
                time.sleep(random.uniform(0.005, 0.015))
        return times[1:]  # everything starts with the first one

    def measure_state(self, name, port, counted):
        with contextlib.ExitStack() as end:
            self.begin_state(end, name, counted)
            if name == ALONE:  # avcore gets nothing, and may be what made the interface
                end.enter_context(self.judging("-r", "-", stdin=subprocess.PIPE))
            if counted:
                [self.attached_by] = self.status()["attached_by"]["wlan0"]
            return {**self.tcp(port, counted), **self.udp(port, counted), "ping": round_trip()}

    def tcp(self, port, counted):
        """The receiver's figures; the first second, in which the verdict comes, doesn't count."""
        seconds = 1 if counted == "undecided" else arguments.seconds
        with self.checked(counted):
            busy = busy_seconds()
            done = subprocess.run(
                [*ON_CLIENT, "iperf3", "-J", "-c", SERVERS[4], "-p", str(port), "-O", "1", "-t",
                 str(seconds)], capture_output=True, text=True, check=True)
            busy = (busy_seconds() - busy) * seconds / (seconds + 1)
        received = json.loads(done.stdout)["end"]["sum_received"]
        return {"tcp": received["bits_per_second"] / 1e9, "tcp_cpu": busy / received["bytes"] * 1e9}

    def udp(self, port, counted):
        """What arrives at the server. Nobody reads it there meanwhile: whether a reader sleeps
        between two packets, and has to be woken, would weigh more than all that is compared."""
        seconds = 1 if counted == "undecided" else arguments.seconds
        with self.checked(counted):
            client = subprocess.Popen(
                [*ON_CLIENT, "iperf3", "-c", SERVERS[4], "-p", str(port), "-u", "-b", "0", "-l",
                 "172", "-t", str(seconds + 2)], stdout=subprocess.DEVNULL)
            time.sleep(0.7)  # the verdict comes
            self.servers[port].send_signal(signal.SIGSTOP)
            time.sleep(0.1)
            busy, arrived, started = busy_seconds(), packets_at_server(), time.monotonic()
            time.sleep(seconds)
            lasted = time.monotonic() - started
            busy, arrived = busy_seconds() - busy, packets_at_server() - arrived
            self.servers[port].send_signal(signal.SIGCONT)
            self.assertEqual(client.wait(), 0)
        return {"udp": arrived / lasted / 1e3, "udp_cpu": busy / arrived * 1e6}

    @contextlib.contextmanager
    def checked(self, counted):
        """That the gate does what is to be measured. A stopped daemon is noticed only later."""
        if counted == "undecided":
            self.jorn.send_signal(signal.SIGSTOP)
        before = self.counts(counted)
        yield
        after = self.counts(counted)
        if counted == "undecided":
            self.jorn.send_signal(signal.SIGCONT)
            time.sleep(1)
        grown = {key: after[key] - before.get(key, 0) for key in after}
        if counted and grown[counted] < 0.95 * sum(
                grown[key] for key in ("decided", "undecided", "nobody", "denied", "limited")):
            raise AssertionError(f"the gate did something else than {counted}: {grown}")

    def tell(self):
        captured = f", captured at {arguments.speed} Mbit/s" if arguments.speed else ""
        print(f"\n{'bridged' if self.bridged else 'routed'}, by {self.attached_by}{captured}, "
              f"{arguments.rounds} rounds\n"
              f"{'':24}{'TCP':>17}{'CPU':>8}{'UDP, 200 bytes':>20}{'CPU':>10}{'ping':>8}\n"
              f"{'':24}{'Gbit/s   ratio':>17}{'s/GB':>8}{'kpackets/s   ratio':>20}{'us/packet':>10}"
              f"{'us':>8}")
        for name, _, _ in STATES:
            row = {key: statistics.median(each[name][key] for each in self.rounds)
                   for key in self.rounds[0][name]}
            ratios = {key: statistics.median(each[name][key] / each["nothing"][key]
                                             for each in self.rounds) for key in ("tcp", "udp")}
            print(f"{name:24}{row['tcp']:9.2f}{ratios['tcp']:8.3f}{row['tcp_cpu']:8.2f}"
                  f"{row['udp']:12.1f}{ratios['udp']:8.3f}{row['udp_cpu']:10.2f}{row['ping']:8.0f}"
                  f"{self.beside_goals(name, ratios)}")

    def beside_goals(self, name, ratios):
        goals = GOALS[self.attached_by].get(name, ())
        least = [goal - BRIDGED_LESS * self.bridged for goal in goals]
        return "".join(f"  {what} at least {goal:.2f}: {'met' if ratios[key] >= goal else 'MISSED'}"
                       for what, key, goal in zip(("TCP", "UDP"), ("tcp", "udp"), least))


class Pages(Bench):
    def __init__(self, wire_ms):
        super().__init__("measure")
        self.wire_ms = wire_ms

    def measure(self):
        self._lay_out(self.wire_ms)
        run_quietly("openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                    "ec_paramgen_curve:P-256", "-nodes", "-subj", "/CN=pages", "-keyout",
                    "/tmp/pages.key", "-out", "/tmp/pages.pem")
        tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        tls.load_cert_chain("/tmp/pages.pem", "/tmp/pages.key")
        self.serve_pages(http=None, https=tls)
        print(f"a server {round_trip() / 1000:.2f} ms away (a ping and its answer):")
        for undecided, enforce in UNDECIDED.items():
            print(f"  undecided packets: {undecided}")
            self.configure("reset = true\ncopies = 10000\n" + enforce)
            for words, priority in ((), "everybody's"), (("chrt", "-r", "1"), "real-time"):
                with self.judging(before=words):
                    self.apply({SHUT: {"deny": True}})
                    self.tell_names()
                    for scheme in PORTS:
                        self.measure_pages(scheme, priority)

    def measure_pages(self, scheme, priority):
        allowed, denied = self.pages(scheme)
        print(f"    {scheme}, the daemon at {priority} priority: {sum(ms > 0 for ms in denied)} of "
              f"{len(denied)} denied pages came whole; an allowed one takes "
              f"{statistics.median(allowed):.2f} ms (median); load {os.getloadavg()[0]:.1f}",
              flush=True)


def serve(listener, context):
    listener.settimeout(None)
    while True:
        try:
            connection = listener.accept()[0]
        except OSError:
            return  # closed
        with contextlib.ExitStack() as end, contextlib.suppress(OSError):
            end.enter_context(connection)
            connection.settimeout(10)
            if context:
                connection = end.enter_context(context.wrap_socket(connection, server_side=True))
            connection.recv(4096)
            connection.sendall(PAGE)


def run_quietly(*words):
    subprocess.run(words, check=True, capture_output=True)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--bridged", action="store_true")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=int, default=2)
    parser.add_argument("--flows", type=int, default=200)
    parser.add_argument("--pages", type=int, default=40)
    parser.add_argument("--attach", choices=("tcx", "clsact"))
    parser.add_argument("--speed", type=int, metavar="MBIT")
    arguments = parser.parse_args()
    if arguments.pages:
        for milliseconds in 0, 10:
            Pages(milliseconds).debug()
    if arguments.flows or arguments.rounds:
        Measurement("measure").debug()
