"""`scripts/demo roam`: two access points on one network, and a client that walks from one to the other
with a connection that lasts."""
import socketserver
import threading

from .stage import *

CHAT_SERVER, CHAT_NAME, CHAT_PORT = NETWORK + ".60", "chat.example", 7000
KEYS = "/tmp/bus-keys"
STATION = "02:00:00:00:00:0c"


class AccessPoint:
    """Its /run and /writable are its own, beside its network. Its air is a bridge here, on which the
    client's interface is or isn't."""
    settings = ""  # further ones of avcore's

    def __init__(self, number, how=("-i", "wlan0")):
        self._how = how
        self.number, self.netns, self.air = number, f"ap{number}", f"air{number}"
        self.mac, self.address = f"00:1A:2B:00:00:0{number}", f"{NETWORK}.1{number}"
        self.folder = f"{FILES}/{self.netns}"
        self._avcore = None

    def lay_out(self):
        add_host(self.netns)
        add_bridge("lan", self.netns)
        self._plug_into_lan("lan", "eth0", "br0")
        add_addresses(self.netns, "lan", self.address + "/24")
        self.add_air()

    def add_air(self):
        add_bridge(self.air)
        self._plug_into_lan("antenna", "wlan0", self.air)

    def _plug_into_lan(self, port, interface, bridge):
        plug(f"{port}{self.number}", self.netns, interface, bridge, *ON_A_WIRE)
        ip(self.netns, "link", "set", interface, "master", "lan")

    def start(self):
        write(self.folder + "/run/avcore.toml", f"""\
[platform]
base_mac = "{self.mac}"
[bus]
ca = "{KEYS}/ca.pem"
certificate = "{KEYS}/AP.{self.mac}.pem"
key = "{KEYS}/AP.{self.mac}.key"
{self.settings}""")
        self._avcore = Program(f"avcore{self.number}", *self.here(), f"{BIN}/avcore", *CAPTURE, *self._how,
                               "-c", "/run/avcore.toml")
        wait_for_file(f"AV channel of access point {self.number}", self.folder + "/run/av_core.sock")
        Program(f"jorn{self.number}", *self.here(), f"{BIN}/jorn", "-i", "av1")
        wait_for_file(f"daemon of access point {self.number}", self.folder + "/run/jorn.sock")

    def here(self):
        """What stands before a command at the access point."""
        return with_own_folders(self.netns, self.folder)

    def jornctl(self, *words):
        return output(*self.here(), f"{BIN}/jornctl", *words)

    def names(self):
        """Pairs of a name and its address."""
        fields = [line.strip().partition(":") for line in self.jornctl("show", "dns").splitlines()]
        of = {key: [value.strip() for found, _, value in fields if found == key]
              for key in ("dst ip", "application name")}
        return list(zip(of["application name"], of["dst ip"]))

    def wait_for_chat(self):
        wait_for(f"name at access point {self.number}", lambda: CHAT_NAME in dict(self.names()))

    def show_names(self):
        names = ", ".join(f"{name} ({address})" for name, address in self.names())
        say(f"  access point {self.number} has the names {names or 'none'}")

    def end(self):
        if self._avcore.stop(signal.SIGINT) != 0:
            raise Failed("avcore ended with an error")

    def show_chat_row(self):
        say(f"\n  access point {self.number}")
        lines = log(f"avcore{self.number}").splitlines()
        say(*("  " + line for line in lines if line.split()[:1] == ["CLIENT"] or f":{CHAT_PORT}" in line))
        say(*("  " + line for line in lines if line.startswith("bus: messages")))


class Chat(threading.Thread):
    """The connection that lasts: a line every 0.2 seconds, and its echo."""

    class Echo(socketserver.StreamRequestHandler):
        def handle(self):
            for line in self.rfile:
                self.wfile.write(line)

    def __init__(self, netns="client"):
        super().__init__(daemon=True)
        self._netns = netns
        self.heard, self._goes_on = 0, True
        with namespace("server"):
            server = socketserver.TCPServer((CHAT_SERVER, CHAT_PORT), self.Echo)
        threading.Thread(target=server.serve_forever, daemon=True).start()
        self.start()

    def run(self):
        with namespace(self._netns), socket.create_connection((CHAT_NAME, CHAT_PORT)) as chat:
            chat.settimeout(SECONDS)
            while self._goes_on:
                chat.send(f"{self.heard + 1}\n".encode())
                self.heard = int(chat.recv(10))
                time.sleep(0.2)

    def keep_talking(self):
        since = self.heard
        wait_for("echo in the chat", lambda: self.heard > since + 5)

    def show(self):
        of = f"the {self._netns}'s chat"
        say(f"  {of:28} {self.heard} lines said and heard, one connection")

    def end(self):
        self._goes_on = False
        self.join()


def show_network():
    heading("Two access points, in namespaces of their own")
    say(f"""\
  client                access points             server side
  {CLIENT} ----.----- 1: wlan0 [bridge] eth0 --.--- {DNS_SERVER}  name server
                :        avcore <-> jorn        |    {CHAT_SERVER}  {CHAT_NAME} (TCP)
                :            | bus, TLS         |
                '- - - 2: wlan0 [bridge] eth0 --'
                         avcore <-> jorn""")


def add_points(points):
    """And the station that walks, at the first of them."""
    for point in points:
        point.lay_out()
    add_host("client")
    plug("station", "client", "eth0", points[0].air, *ON_A_WIRE)
    ip("client", "link", "set", "eth0", "address", STATION)
    add_ipv4("client", CLIENT)


def make_network(points):
    add_bridge("br0")
    add_station("server", "servers")
    add_ipv4("server", DNS_SERVER, CHAT_SERVER)
    add_points(points)


def start_all(points):
    heading("A certificate for each, and the daemons")
    names = [f"AP.{point.mac}" for point in points]
    say(f"  scripts/bus-keys {KEYS} {' '.join(names)}")
    output(BUS_KEYS, KEYS, *names)
    for point in points:
        point.start()


def walk(chat, leaves, reaches):
    heading(f"It walks to access point {reaches.number}, and the controller says so")
    ip(None, "link", "set", "station", "master", reaches.air)
    hand_over(STATION, leaves, reaches)
    show_arrival(chat, reaches)


def hand_over(station, leaves, reaches):
    words = ("roam", "--station", station, "--to", reaches.mac, "--address", reaches.address)
    say("  jornctl " + " ".join(words))
    print(leaves.jornctl(*words), end="", flush=True)
    reaches.wait_for_chat()


def show_arrival(chat, reaches):
    chat.keep_talking()
    chat.show()
    reaches.show_names()


def play():
    first, second = points = [AccessPoint(1), AccessPoint(2)]
    show_network()
    make_network(points)
    use_demo_dns()
    start_all(points)
    start_name_server("dnsmasq", DNS_SERVER, [(CHAT_NAME, CHAT_SERVER)], "--local=/#/")
    chat = Chat()
    heading(f"The client is at access point 1 and talks to {CHAT_NAME}")
    chat.keep_talking()
    first.wait_for_chat()
    chat.show()
    first.show_names()
    second.show_names()
    walk(chat, first, second)
    chat.end()
    time.sleep(LAST_FRAMES_S)
    for point in points:
        point.end()
    heading("One connection, seen from both")
    for point in points:
        point.show_chat_row()
    note(f"""
Access point 1 saw the client ask for {CHAT_NAME}. Access point 2 saw the middle of a connection
to {CHAT_SERVER}: its name came over the bus, from one access point to the other, each of which had
to show its certificate.""")
