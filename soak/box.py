"""The box: an access point with all its programs between a client and a server, as it runs on a machine
of its own, and what keeps it running there: whoever starts the programs anew, and the controller."""
import collections
import os
import sys

for folder in ("tests/system", "bench"):
    sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "..", folder))
from inline_lab import *  # pylint: disable=wrong-import-position

WATCH_SOCKET = "/run/jorn/watch.sock"
PAGE = ("127.0.0.1", 8080)
LOGS, CLOCK = "/tmp/soak", "/tmp/soak/clock"
SHIM = "/tmp/soak/clock.so"
HISTORY, SETTINGS = "/tmp/history", "/writable/jorn"  # disks of their own, with as many KB
DISKS = {HISTORY: 200_000, SETTINGS: 400}
GATE_MAC = "02:00:00:00:00:fe"
BUS_NAME, PEER_NAME = "AP.02:00:00:00:00:01", "AP.02:00:00:00:00:02"
KEYS = "/tmp/keys"
FREE = VOICE_CALL  # what the policy lets pass, and marks
OPEN, SHUT, HELD = 'fail = "open"', 'fail = "closed"', 'fail = "closed"\nundecided = "hold"'


class Program:
    """One that is kept running. `ends` has those of its ends that nobody asked for."""

    def __init__(self, name, *words):
        self.name, self._words = name, words
        self.ends, self.lines = [], collections.deque(maxlen=40)  # the latest, without those of each packet
        self.process = None

    def start(self):
        self.process = subprocess.Popen(
            [jorn_path(self.name), *self._words], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=subprocess.PIPE, start_new_session=True, text=True, errors="replace",
            env=os.environ | {"LD_PRELOAD": SHIM, "SOAK_CLOCK": CLOCK} | {
                f"{tool}_OPTIONS": f"log_path={SANITIZER_LOG}" for tool in ("ASAN", "UBSAN", "LSAN")})
        threading.Thread(target=self._read, args=(self.process.stderr,), daemon=True).start()

    def _read(self, said):
        with said:
            for line in said:
                if "denied: " not in line and "MATCH for" not in line:
                    self.lines.append(line.rstrip())

    def runs(self):
        return self.process is not None and self.process.poll() is None

    def note_end(self):
        """Whether it has ended by itself."""
        if self.process is None or self.runs():
            return False
        self.ends.append(f"{self.name} ended by itself, with status {self.process.returncode}")
        self.process = None
        return True

    def kill(self):
        self.note_end()
        if self.process:
            self.process.kill()
            self.process.wait()
            self.process = None

    def end(self):
        """In order."""
        self.note_end()
        if self.process:
            self.process.terminate()
            status = self.process.wait(DEADLINE)
            self.process = None
            if status != 0:
                self.ends.append(f"{self.name} was asked to end, with status {status}")

    @contextlib.contextmanager
    def stopped(self):
        self.process.send_signal(signal.SIGSTOP)
        try:
            yield
        finally:
            self.process.send_signal(signal.SIGCONT)

    def resident_kb(self):
        return int(read_file(f"/proc/{self.process.pid}/status").split("VmRSS:")[1].split()[0])

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.process.pid}/fd"))


def document(shut, number):
    """What a controller wants. The number makes each another one."""
    wanted = policies({DENIED: {"deny": True}, SWITCHED: {"deny": True} if shut else {},
                       FREE: RULES[FREE], SLOW: RULES[SLOW]}, ("youtube", f"never-{number % 7}.example"))
    wanted["web_policies"] = [{"name": f"web-{each}", "uuid": f"web-{each}", "filter_type": "CUSTOM",
                               "categories": ["Gambling", number % 80], "blacklist": [f"shut-{number}.example"]}
                              for each in range(1 + number % 3)]
    wanted["web_interfaces"] = [{"ifname": "wlan0", "enable": bool(number % 2), "policy_uuid": "web-0"}]
    wanted["carriers"] = [{"pname": f"carrier-{each}", "priority": number % 4,
                           "epdg": [{"fqdn": f"epdg-{number}.example", "ipaddr": "198.51.100.10"}]}
                          for each in range(2)]
    wanted["wificalling_interfaces"] = [{"ifname": "wlan0", "profile": ["carrier-0"]}]
    wanted["utps"] = [{"id": 20 + number % 5, "name": f"floor-{number}"}]
    return wanted


LISTINGS = (("applications",), ("priority", "1"), ("priority", "2"), ("utps",), ("url", "wlan0"), ("wifi-calling",))


def listings():
    return {words: jornctl("show", *words)[:2] for words in LISTINGS}


class Box(InlineTest):
    mode = OPEN

    def make_links(self):
        """avcore makes the interface of the capture."""

    def begin(self):
        os.makedirs(LOGS, exist_ok=True)
        for folder, kilobytes in DISKS.items():
            os.makedirs(folder, exist_ok=True)
            run("mount", "-t", "tmpfs", "-o", f"size={kilobytes}k", "tmpfs", folder)
            self.addCleanup(run, "umount", "-l", folder)
        write_file(PORT_SERVICE_FILE, "")
        write_file(CLOCK, bytes(8))
        run("cc", "-O2", "-Wall", "-Werror", "-shared", "-fPIC", "-o", SHIM,
            os.path.join(os.path.dirname(__file__), "clock.c"))
        run(BUS_KEYS, KEYS, BUS_NAME, PEER_NAME)
        self._lay_out(0)
        run("ip", "link", "set", "wlan0", "address", GATE_MAC)
        ip("server", "route", "add", "blackhole", "10.2.0.0/16")  # strangers, who get no answer
        self.configure(self.mode)
        self.avcore = Program("avcore", "--capture", CAPTURE, "--inline", "wlan0", "-c", CONFIG)
        self.jorn = Program("jorn", "-i", CAPTURE)
        self.avwatch = Program("avwatch", "serve", "--history", HISTORY + "/history.db", "--http", "%s:%d" % PAGE)
        self.programs = {each.name: each for each in (self.avcore, self.jorn, self.avwatch)}
        self.number, self.shut, self.applying = 0, False, threading.Lock()
        for each in self.programs:
            self.start_program(each)
        self.apply()

    def configure(self, enforce):
        self.mode = enforce
        write_file(CONFIG, f"""\
[client]
utp_id = 1
[uplink]
utp_id = 2
[platform]
base_mac = "{BUS_NAME[3:]}"
[bus]
ca = "{KEYS}/ca.pem"
certificate = "{KEYS}/{BUS_NAME}.pem"
key = "{KEYS}/{BUS_NAME}.key"
[enforce]
copies = 1000
{enforce}
""")

    def start_program(self, name):
        self.programs[name].start()
        {"avcore": lambda: wait_for_listener(AV_SOCKET), "jorn": lambda: wait_for_listener(COMMAND_SOCKET),
         "avwatch": lambda: wait_until(lambda: self.ask_page("/metrics") is not None)}[name]()

    def ask_page(self, path):
        with contextlib.suppress(OSError), socket.create_connection(PAGE, timeout=DEADLINE) as asking:
            asking.sendall(f"GET {path} HTTP/1.0\r\nHost: localhost\r\n\r\n".encode())
            with asking.makefile("rb") as answer:
                return answer.read().decode()

    def apply(self, shut=None):
        """The next document, until all of it is in force. Whether the switched flows are shut stays,
        unless it is said. Returns when that was begun, and when it was done."""
        with self.applying:
            begun = time.monotonic()
            self.number += 1
            self.shut = self.shut if shut is None else shut
            ends = begun + DEADLINE
            while (done := jornctl("apply", "-", document=document(self.shut, self.number)))[0] != 0:
                assert time.monotonic() < ends, done
                time.sleep(0.1)
            return begun, time.monotonic()

    def differs(self):
        """What of the document isn't in force; nothing where all is."""
        status, said, complaints = jornctl("diff", "-", document=document(self.shut, self.number))
        return "" if status == 0 else said + complaints

    def connect(self, address, port):
        """A client's socket, of a port that no other has."""
        version = 6 if ":" in address else 4
        with namespace("client"):
            client = socket.socket(FAMILIES[version], socket.SOCK_DGRAM)
        try:
            client.bind((CLIENTS[version], 0))
            client.connect((address, port))
        except OSError:
            client.close()
            raise
        return client

    def strangers(self):
        """A function that sends a packet of another client. What can't be sent at the moment is lost."""
        def send(packet, sender):
            nonlocal out, again
            try:
                if out is None and time.monotonic() > again:
                    again = time.monotonic() + 0.1
                    with namespace("client"):
                        out = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
                        out.bind(("eth0", 0))
                if out:
                    out.send(mac(GATE_MAC) + sender + b"\x08\x00" + packet)
            except OSError:  # no interface, or it is down
                out = out and out.close()
        out, again = None, 0
        return send

    def make_interface_anew(self):
        self._connect("client", "wlan0", 0)
        run("ip", "link", "set", "wlan0", "address", GATE_MAC)
        add_addresses(None, "wlan0", *GATEWAYS["wlan0"])
        self.join("client", "wlan0", CLIENTS)

