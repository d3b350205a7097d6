"""What the gate costs: the same traffic through an access point without it, with it and nobody there,
and under verdicts, taken in turn, round by round.

    scripts/private python3 -B bench/inline.py [--bridged] [--rounds N] [--seconds N]

One client sends to one server as fast as this machine can: TCP, then UDP in packets of 200 bytes;
then it pings. Ratios are to the same round's figures without the gate; what is printed are medians.
"""
import argparse
import os
import re
import statistics
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "../tests/system"))
from inline_lab import *  # pylint: disable=wrong-import-position
from testbed import wait_until  # pylint: disable=wrong-import-position

PLAIN, MARKED = 5201, 5202  # iperf3's ports
ALONE = "the daemon, no gate"  # its capture costs others' packets something, too
# What is measured, the port, and as what the gate has to count the packets.
STATES = [("nothing", PLAIN, None), (ALONE, PLAIN, None),
          ("attached, nobody there", PLAIN, "nobody"), ("decided: allow", PLAIN, "decided"),
          ("decided: DSCP and class", MARKED, "decided"),
          ("everything undecided", PLAIN, "undecided")]
QOS = {"qos": {"mark": {"kind": "both", "type": "Voice"}, "classify": "Voice"}}
ON_CLIENT, ON_SERVER = (("nsenter", f"--net=/run/netns/{netns}") for netns in ("client", "server"))


def busy_seconds():
    with open("/proc/stat") as file:
        ticks = [int(word) for word in file.readline().split()[1:9]]
    return (sum(ticks) - ticks[3] - ticks[4]) / os.sysconf("SC_CLK_TCK")


def packets_at_server():
    done = subprocess.run([*ON_SERVER, "ip", "-s", "-j", "link", "show", "eth0"],
                          capture_output=True, text=True, check=True)
    return json.loads(done.stdout)[0]["stats64"]["rx"]["packets"]


class Measurement(InlineTest):
    def measure(self):
        self.bridged = arguments.bridged
        self._lay_out(0)
        self.servers = {}
        for port in PLAIN, MARKED:
            server = subprocess.Popen([*ON_SERVER, "iperf3", "-s", "-p", str(port)],
                                      stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            self.servers[port] = server
            self.addCleanup(server.wait)
            self.addCleanup(server.terminate)
            wait_until(lambda port=port: f":{port} " in subprocess.run(
                [*ON_SERVER, "ss", "-ltnH"], capture_output=True, text=True, check=True).stdout)
        self.options = ()
        self.rounds = []
        self.lines = Record("lines of avcore")
        for number in range(arguments.rounds):
            order = STATES[number % len(STATES):] + STATES[:number % len(STATES)]
            self.rounds.append({state[0]: self.measure_state(*state) for state in order})
            print(f"round {number + 1} of {arguments.rounds} is done", file=sys.stderr)
        self.tell()

    def measure_state(self, name, port, counted):
        self.configure("")
        with contextlib.ExitStack() as end:
            if counted:
                run_quietly(jorn_path("avcore"), "setup", "--inline", "wlan0", "-c", CONFIG)
                end.callback(run_quietly, jorn_path("avcore"), "teardown")
            judged = counted in ("decided", "undecided")
            if judged:
                self.start_avcore()
                end.callback(self.stop_avcore, self.avcore)
            if judged or name == ALONE:
                self.jorn = self.start_daemon()
                end.callback(self.jorn.stop)
            if judged:
                self.assertEqual(jornctl("apply", "-", document=policies({MARKED: QOS}, ())),
                                 (0, "", ""))
                time.sleep(0.5)
            return {**self.tcp(port, counted), **self.udp(port, counted), "ping": self.latency()}

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

    def counts(self, counted):
        return self.status()["counts"] if counted else {}

    def latency(self):
        done = subprocess.run([*ON_CLIENT, "ping", "-i", "0.005", "-c", "200", SERVERS[4]],
                              capture_output=True, text=True, check=True)
        times = [float(found) * 1000 for found in re.findall("time=([0-9.]+)", done.stdout)]
        assert len(times) == 200, done.stdout
        return statistics.median(times)

    def tell(self):
        print(f"\n{'bridged' if self.bridged else 'routed'}, {arguments.rounds} rounds\n"
              f"{'':24}{'TCP':>17}{'CPU':>8}{'UDP, 200 bytes':>20}{'CPU':>10}{'ping':>8}\n"
              f"{'':24}{'Gbit/s   ratio':>17}{'s/GB':>8}{'kpackets/s   ratio':>20}{'us/packet':>10}"
              f"{'us':>8}")
        for name, _, _ in STATES:
            row = {key: statistics.median(each[name][key] for each in self.rounds)
                   for key in self.rounds[0][name]}
            ratios = {key: statistics.median(each[name][key] / each["nothing"][key]
                                             for each in self.rounds) for key in ("tcp", "udp")}
            print(f"{name:24}{row['tcp']:9.2f}{ratios['tcp']:8.3f}{row['tcp_cpu']:8.2f}"
                  f"{row['udp']:12.1f}{ratios['udp']:8.3f}{row['udp_cpu']:10.2f}{row['ping']:8.0f}")


def run_quietly(*words):
    subprocess.run(words, check=True, stdout=subprocess.DEVNULL)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--bridged", action="store_true")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=int, default=2)
    arguments = parser.parse_args()
    Measurement("measure").debug()
