"""Access points in namespaces of their own on one network: an avcore each, and a daemon where a
test wants one."""
import ctypes

from testbed import *

KEYS = "/tmp/keys"
OPEN = "insecure = true\n"  # [bus] without certificates


@contextlib.contextmanager
def namespace(name):
    """This thread is in the namespace, and what it opens there stays there."""
    libc = ctypes.CDLL(None, use_errno=True)
    with open("/proc/thread-self/ns/net") as here, open(f"/run/netns/{name}") as there:
        assert libc.setns(there.fileno(), 0) == 0, os.strerror(ctypes.get_errno())
        try:
            yield
        finally:
            assert libc.setns(here.fileno(), 0) == 0


def lay_out():
    """The network that joins three of them."""
    run("ip", "link", "add", "br0", "type", "bridge")
    run("ip", "link", "set", "br0", "up")
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
        ip = ("ip", "-n", self.netns)
        run("ip", "netns", "add", self.netns)
        sysctl = ("ip", "netns", "exec", self.netns, "sysctl", "-qw")
        run(*sysctl, "net.ipv6.conf.default.disable_ipv6=1")
        for end in ("in", "out"):
            run(*ip, "link", "add", end + "0", "mtu", "65535", "type", "veth", "peer", end + "1",
                "mtu", "65535")
            for number in "01":
                run(*ip, "link", "set", end + number, "arp", "off", "up")
        run(*sysctl, "net.ipv6.conf.default.disable_ipv6=0")
        run("ip", "link", "add", self.netns, "type", "veth", "peer", "eth0", "netns", self.netns)
        run("ip", "link", "set", self.netns, "master", "br0", "up")
        run(*ip, "addr", "add", self.address + "/24", "dev", "eth0")
        run(*ip, "addr", "add", self.ipv6 + "/64", "dev", "eth0", "nodad")
        for link in ("lo", "eth0"):
            run(*ip, "link", "set", link, "up")

    def start(self, bus=OPEN):
        """With what `bus` has for [bus]; None is no [bus]."""
        write_file(f"/tmp/{self.netns}.toml", f'dpi = false\n[platform]\nbase_mac = "{self.name[3:]}"\n'
                   + (f"[bus]\n{bus}" if bus is not None else ""))
        self.process = subprocess.Popen(
            ["ip", "netns", "exec", self.netns, jorn_path("avcore"), "-i", "in0", "-o", "out0",
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
        wait_for_path(self.av_socket)  # before it SIGUSR1 would end avcore
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
        for folder in (f"{self.folder}/run", f"{self.folder}/writable", "/writable"):
            os.makedirs(folder, exist_ok=True)
        return Daemon(*options, "-i", "out1", before=(
            "ip", "netns", "exec", self.netns, "env", f"JORN_BUS_SOCK={self.bus_socket}",
            f"JORN_AV_SOCK={self.av_socket}", "sh", "-c",
            'mount --bind "$0/writable" /writable && mount --bind "$0/run" /run && exec "$@"',
            self.folder))

    def wait_for(self, path):
        """Until the daemon has made this path, which lies under its /run."""
        wait_for_path(self.folder + path.removeprefix("/var"))

    def jornctl(self, *words):
        return subprocess.run([jorn_path("jornctl"), "--socket", f"{self.folder}/run/jorn.sock",
                               *words], check=True, capture_output=True, text=True).stdout

    def feed(self, *frames):
        """Frames that a station sends and gets."""
        with namespace(self.netns), socket.socket(socket.AF_PACKET, socket.SOCK_RAW) as station:
            station.bind(("in1", 0))
            for frame in frames:
                station.send(frame)
