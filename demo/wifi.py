"""`scripts/demo wifi`: simulated radios, in an emulated machine. Two access points, the first with two of them,
and two stations that join by WPA2 and walk: one to the other radio, one to the other access point."""
import collections

from lab.wifi import *

from .box import *
from .roam import *

TABLET_ADDRESS, PHONE_ADDRESS = NETWORK + ".2", NETWORK + ".3"
RADIOS = 5  # of the access points three, then the stations'
CATEGORIES = ("best effort", "background", "background", "best effort", "video", "video", "voice", "voice")
LEAST_VOICE = 20  # of the 25 answers to a call
LIMIT_MBIT = 0.5  # of the tablet's speed test, from it


class WirelessPoint(AccessPoint):
    """Its air is radios, each with its number and its channel."""

    def __init__(self, number, radios, settings=""):
        self.radios, self.settings = radios, settings
        how = [word for at in range(len(radios)) for word in ("--inline", f"wlan{at}")]
        super().__init__(number, how)

    def add_air(self):
        files = []
        for at, (radio, channel) in enumerate(self.radios):
            give_radio(f"wlan{radio}", self.netns, f"wlan{at}")
            files.append(write(f"{self.folder}/hostapd{at}", hostapd_settings(f"wlan{at}", "lan", channel)))
        Program(f"hostapd{self.number}", "ip", "netns", "exec", self.netns, "hostapd", *files)
        wait_for(f"air of access point {self.number}",
                 lambda: log(f"hostapd{self.number}").count("AP-ENABLED") == len(files))


class Station:
    """Joins at the channel of the first radio."""

    def __init__(self, name, radio, address):
        self.name, self.mac = name, radio_address(radio)
        add_host(name)
        give_radio(f"wlan{radio}", name, "wlan0")
        control = f"/run/wpa-{name}"
        settings = write(f"{FILES}/{name}", supplicant_settings(1, f"ctrl_interface={control}\n"))
        self._words = ("wpa_cli", "-p", control, "-i", "wlan0")
        Program(name, "wpa_supplicant", "-Dnl80211", "-iwlan0", "-c" + settings, netns=name)
        wait_for(name + " in the air", lambda: self.status().get("wpa_state") == "COMPLETED")
        add_addresses(name, "wlan0", address + "/24")
        self.show()

    def _ask(self, *words):
        return answer(*self._words, *words, netns=self.name)[1]

    def status(self):
        return dict(line.split("=", 1) for line in self._ask("status").splitlines() if "=" in line)

    def show(self):
        status = self.status()
        say(f"  {self.name:8} {status['bssid']}, {status['freq']} MHz, {status['key_mgmt']},"
            f" {status['pairwise_cipher']}")

    def walk(self, radio, channel):
        """Again where it failed: times in the air are short for a busy processor."""
        bssid = radio_address(radio)

        def is_there():
            status = self.status()
            if status.get("wpa_state") != "COMPLETED":
                return False
            if status["bssid"] == bssid:
                return True
            if bssid in self._ask("scan_results"):
                self._ask("roam", bssid)
            else:
                self._ask("scan", f"freq={FREQUENCIES[channel]}")
            return False
        wait_for(f"{self.name} at {bssid}", is_there)
        self.show()


class Air:
    """How many frames with data access points send meanwhile, by their station and access category."""

    def __init__(self):
        self._heard, self._goes_on = collections.Counter(), True
        self._socket = packet_socket("hwsim0")
        self._socket.settimeout(0.2)
        self._thread = threading.Thread(target=self._listen, daemon=True)
        self._thread.start()

    def _listen(self):
        while self._goes_on:
            with contextlib.suppress(TimeoutError):
                frame = self._socket.recv(4000)
                frame = frame[int.from_bytes(frame[2:4], "little"):]  # what the receiver says of it
                if frame[0] == 0x88 and frame[1] & 3 == 2:
                    self._heard[frame[4:10].hex(":"), CATEGORIES[frame[24] & 7]] += 1

    def stop(self):
        self._goes_on = False
        self._thread.join()
        self._socket.close()
        return self._heard


class Knocking(threading.Thread):
    """A flow of datagrams to the server that the tablet may not reach."""

    def __init__(self, netns):
        super().__init__(daemon=True)
        self.sent, self.arrived, self._goes_on = 0, 0, True
        with namespace("server"):
            self._server = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._server.bind((VIDEO_SERVER, 443))
        with namespace(netns):
            self._client = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._client.connect((VIDEO_SERVER, 443))
        self._server.setblocking(False)
        self.start()

    def run(self):
        while self._goes_on:
            self._client.send(b"is anybody there?")
            self.sent += 1
            time.sleep(0.05)
            with contextlib.suppress(BlockingIOError):
                self._server.recv(100)
                self.arrived += 1

    def show(self):
        sent = self.sent
        wait_for("datagram that is sent", lambda: self.sent > sent + 10)
        say(f"  datagrams to {VIDEO_NAME}: {self.sent} sent, {self.arrived} arrived")
        expect(self.arrived == 0, "a datagram of a denied flow arrived")

    def end(self):
        self._goes_on = False
        self.join()


def expect(is_so, otherwise):
    if not is_so:
        raise Failed(otherwise)


def show_network():
    heading("Two access points with three radios, two stations, all in an emulated machine")
    say(f"""\
  stations             access points                              server side
  tablet {TABLET_ADDRESS} ))  (( channel 1  - wlan0 .                    .  {WEB_NAME} (HTTP)
                                             1 - [bridge] eth0 ---|  {VIDEO_NAME} (HTTPS)
  phone  {PHONE_ADDRESS} ))  (( channel 6  - wlan1 '    avcore <-> jorn |  {SPEED_NAME} (iperf3)
                                                      | bus, TLS  |  {VOICE_NAME} (UDP)
                       (( channel 11 - wlan0 - 2 - [bridge] eth0 -|  {CHAT_NAME} (TCP)
                                                  avcore <-> jorn '  name server""")


def voice_call_in_the_air(station):
    """What it says, and how much of it came as voice."""
    air = Air()
    said = voice_call(station.name)
    time.sleep(LAST_FRAMES_S)
    heard = {category: count for (mac, category), count in air.stop().items() if mac == station.mac}
    expect(heard, "nothing was heard in the air")
    return f"{said}; in the air: {max(heard, key=heard.get)}", heard.get("voice", 0)


def ask_for_all(station):
    page, video, speed_up = (web_page(station.name, f"http://{WEB_NAME}/"),
                             web_page(station.name, f"https://{VIDEO_NAME}/"), speed(station.name))
    call, as_voice = voice_call_in_the_air(station)
    return (page, video, speed_up, call), (video.startswith("200"), float(speed_up.split()[0]), as_voice)


def show_policy(tablet, phone):
    heading("What they ask for")
    columns, seen = zip(*map(ask_for_all, (tablet, phone)))
    titles = f"http://{WEB_NAME}/", f"https://{VIDEO_NAME}/", "speed test, from the station", "a voice call"
    for row in zip(("asked for", *titles), ("tablet, under the policy", *columns[0]),
                   ("phone, without one", *columns[1])):
        say("  {:29}{:53}{}".format(*row).rstrip())
    (video, up, as_voice), (phones_video, phones_up, phones_voice) = seen
    expect(phones_video and not video, "the name wasn't blocked for the tablet alone")
    expect(up < 1.5 * LIMIT_MBIT < phones_up, "the limit didn't hold for the tablet alone")
    expect(as_voice >= LEAST_VOICE and phones_voice == 0, "voice wasn't marked for the tablet alone")


def walk_to_other_radio(tablet, point):
    heading("The tablet walks to the other radio of access point 1")
    knocking = Knocking(tablet.name)
    knocking.show()
    tablet.walk(*point.radios[1])
    knocking.show()
    knocking.end()
    page, video = (web_page(tablet.name, url) for url in (f"http://{WEB_NAME}/", f"https://{VIDEO_NAME}/"))
    say(f"  http://{WEB_NAME}/: {page}", f"  https://{VIDEO_NAME}/: {video}")
    expect(page.startswith("200") and not video.startswith("200"), "the policy didn't walk with the tablet")


def walk_to_other_point(phone, first, second):
    heading("The phone talks at access point 1")
    chat = Chat(phone.name)
    chat.keep_talking()
    first.wait_for_chat()
    chat.show()
    second.show_names()
    heading("It walks to access point 2, and the controller says so once that has judged its connection")
    phone.walk(*second.radios[0])
    for _ in range(3):
        chat.keep_talking()
    hand_over(phone.mac, first, second)
    show_arrival(chat, second)
    chat.keep_talking()  # a second after the name came the connection is asked about again
    chat.end()


def play():
    tablet_radio, phone_radio = RADIOS - 2, RADIOS - 1
    first = WirelessPoint(1, [(0, 1), (1, 6)], f"""\
[[rule]]
mac = "{radio_address(tablet_radio)}"
utp_id = 1
[enforce]
reset = true
undecided = "hold"
fail = "closed"
""")
    second = WirelessPoint(2, [(2, 11)])
    show_network()
    add_bridge("br0")
    add_station("server", "servers")
    add_ipv4("server", DNS_SERVER, WEB_SERVER, VIDEO_SERVER, SPEED_SERVER, VOICE_SERVER, CHAT_SERVER)
    use_demo_dns()
    Servers([*(each for each in NAMES if ":" not in each[1]), (CHAT_NAME, CHAT_SERVER)])
    Program("iperf3", "iperf3", "-s", "-B", SPEED_SERVER, netns="server")
    wait_for("speed test server", listens("-t", SPEED_SERVER + ":5201"))
    serve_voice()
    add_radios(RADIOS)
    ip(None, "link", "set", "hwsim0", "up")
    for point in (first, second):
        point.lay_out()
    start_all([first, second])
    say("  jornctl apply examples/wifi.json, at access point 1")
    first.jornctl("apply", "examples/wifi.json")
    heading("The stations join by WPA2")
    tablet = Station("tablet", tablet_radio, TABLET_ADDRESS)
    phone = Station("phone", phone_radio, PHONE_ADDRESS)
    show_policy(tablet, phone)
    walk_to_other_radio(tablet, first)
    walk_to_other_point(phone, first, second)
    time.sleep(LAST_FRAMES_S)
    for point in (first, second):
        point.end()
    show_why("avcore1")
    heading("The phone's connection, seen from both")
    for point in (first, second):
        point.show_chat_row()
    expect(any(CHAT_NAME in line and f":{CHAT_PORT}" in line for line in log("avcore2").splitlines()),
           "access point 2 didn't keep the connection's name")
