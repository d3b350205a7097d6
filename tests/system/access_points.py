"""Access points in namespaces of their own on one network: an avcore each, and a daemon where a
test wants one."""
from testbed import *

KEYS = "/tmp/keys"
OPEN = "insecure = true\n"  # [bus] without certificates


def lay_out():
    """The network that joins three of them."""
    add_bridge("br0")
    for number in (1, 2, 3):
        AccessPoint(number).lay_out()


class AccessPoint:
    """An avcore that takes its frames from `in0`; where nothing is fed, none come."""

    def __init__(self, number):
        self.netns = f"ap{number}"
        self.name = f"AP.02:00:00:00:00:{number:02X}"
        self.address, self.ipv6 = f"10.9.0.{number}", f"fd00:9::{number}"
        self.bus_socket, self.av_socket = f"/tmp/{self.netns}.bus", f"/tmp/{self.netns}.av"
        self.folder = f"/tmp/{self.netns}"
        self.lines = Record(f"lines of {self.netns}")
        self.process = self._reader = None

    def lay_out(self):
        add_namespace(self.netns)
        for end in ("in", "out"):
            add_capture_pair(end + "0", end + "1", self.netns)
        plug(self.netns, self.netns, "eth0", "br0")
        add_addresses(self.netns, "eth0", self.address + "/24", self.ipv6 + "/64")

    def start(self, bus=OPEN):
        """With what `bus` has for [bus]; None is no [bus]."""
        write_file(f"/tmp/{self.netns}.toml", f'dpi = false\n[platform]\nbase_mac = "{self.name[3:]}"\n'
                   + (f"[bus]\n{bus}" if bus is not None else ""))
        self.process = subprocess.Popen(
            [*inside(self.netns), jorn_path("avcore"), "-i", "in0", "-o", "out0",
             "-c", f"/tmp/{self.netns}.toml"],
            env=os.environ | {"JORN_BUS_SOCK": self.bus_socket, "JORN_AV_SOCK": self.av_socket,
                              "ASAN_OPTIONS": "quarantine_size_mb=1"},
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self._reader = threading.Thread(target=self._read)
        self._reader.start()
        return self

    def _read(self):
        with self.process.stdout as lines:
            for line in lines:
                self.lines.add(line.strip())

    def keys(self, name=None, authority="ca"):
        """[bus] with the files of `name`, its own by default, and whom it trusts."""
        name = name or self.name
        return (f'ca = "{KEYS}/{authority}.pem"\ncertificate = "{KEYS}/{name}.pem"\n'
                f'key = "{KEYS}/{name}.key"\n')

    def wait_line(self, text, since=0):
        return self.lines.wait(lambda line: text in line, since=since)

    def wait_report(self, text):
        """Asks for reports until one says so."""
        wait_for_listener(self.av_socket, self.process.pid)  # before it SIGUSR1 would end avcore
        since = len(self.lines)
        wait_until(lambda: self.process.send_signal(signal.SIGUSR1) or any(
            text in line for line in self.lines.items[since:]), (text, self.lines.items))

    def status(self):
        status = self.process.wait(DEADLINE)
        self._reader.join(DEADLINE)
        return status

    def stop(self):
        if self.process and self.process.poll() is None:
            self.process.terminate()
            return self.status()
        return 0

    def daemon(self, *options):
        """The daemon of this access point, whose /run and /writable are its own."""
        return Daemon(*options, "-i", "out1", before=(
            *with_own_folders(self.netns, self.folder), "env", f"JORN_BUS_SOCK={self.bus_socket}",
            f"JORN_AV_SOCK={self.av_socket}"))

    def jornctl(self, *words):
        return subprocess.run([jorn_path("jornctl"), "--socket", f"{self.folder}/run/jorn.sock",
                               *words], check=True, capture_output=True, text=True).stdout

    def feed(self, *frames):
        """Frames that a station sends and gets."""
        with namespace(self.netns), socket.socket(socket.AF_PACKET, socket.SOCK_RAW) as station:
            station.bind(("in1", 0))
            for frame in frames:
                station.send(frame)
