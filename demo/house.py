"""What the clients of a house do all day, and what answers them: the traffic of `scripts/demo page`. Each
activity is a thread in its client's namespace, which begins anew after a pause, whatever ended it."""
import contextlib
import http.client
import http.server
import math
import random
import socketserver
import ssl
import threading

from .stage import *

CLIENTS = ("tablet", "console", "laptop", "tv", "phone")  # MAC and IP addresses go by the place
FILM_NAME, MUSIC_NAME, NEWS_NAME = "www.netflix.com", "open.spotify.com", "www.wikipedia.org"
SPEED_NAME, SPEED_PORT = "speedtest.example", 5201
VOICE_NAME, VOICE_PORT = "voice.example", 4000
ARENA_NAME, ARENA_PORT = "arena.example", 27015
BACKUP_NAME = "backup.example"
SITES = (WEB_NAME, VIDEO_NAME, FILM_NAME, MUSIC_NAME, NEWS_NAME, SPEED_NAME, VOICE_NAME, ARENA_NAME,
         BACKUP_NAME, "shop.example", "bets.example", "tracker.example")
PORTION_S = 0.1  # between two portions of what goes on at a rate
PATIENCE_S = 5   # with a server that doesn't answer, or may not


def address_of(site):
    return f"{NETWORK}.{80 + SITES.index(site)}"


def lay_out():
    add_bridge("br0")
    for number, client in enumerate(CLIENTS):
        add_station(client, f"wlan{number}")
        ip(client, "link", "set", "eth0", "address", f"02:00:00:00:00:{number + 1:02x}")
        add_ipv4(client, f"{NETWORK}.{number + 2}")
    add_station("server", "eth0")
    add_ipv4("server", DNS_SERVER, *map(address_of, SITES))


def about(seconds):
    return random.uniform(0.6, 1.4) * seconds


def at_work(netns, pause, activity, *arguments):
    def go_on():
        time.sleep(random.uniform(0, 3))  # not all at once
        with namespace(netns):
            while True:
                with contextlib.suppress(OSError, http.client.HTTPException):
                    activity(*arguments)
                time.sleep(about(pause))
    threading.Thread(target=go_on, daemon=True).start()


# What answers.

class Site(http.server.BaseHTTPRequestHandler):
    """/RATE goes on at so many bytes a second, more or less, until its client has enough; what is sent to
    it is taken."""

    def do_GET(self):
        self.send_response(200)
        self.end_headers()
        while True:
            swell = 1 + 0.4 * math.sin(time.monotonic() / 9) + random.uniform(-0.2, 0.2)
            self.wfile.write(bytes(int(int(self.path[1:]) * PORTION_S * swell)))
            time.sleep(PORTION_S)

    def do_POST(self):
        while self.rfile.read(10_000):
            pass

    def log_message(self, *_):
        pass


class Sites(socketserver.ThreadingTCPServer):
    allow_reuse_address, daemon_threads, request_queue_size = True, True, 64

    def __init__(self, port, encryption=None):
        self._encryption = encryption
        super().__init__(("", port), Site)
        threading.Thread(target=self.serve_forever, daemon=True).start()

    def finish_request(self, request, client):
        """In the connection's own thread: its handshake may take as long as it likes."""
        if self._encryption:
            request = self._encryption.wrap_socket(request, server_side=True)
        with request:
            super().finish_request(request, client)

    def handle_error(self, *_):
        pass  # the client has enough, or may not go on


def answer_datagrams(site, port, length):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as server:
        server.bind((address_of(site), port))
        while True:
            _, client = server.recvfrom(2000)
            server.sendto(bytes(length), client)


def start_servers():
    start_name_server("dnsmasq", DNS_SERVER, [(site, address_of(site)) for site in SITES], "--local=/#/")
    encryption = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    encryption.load_cert_chain(*make_certificate())
    with namespace("server"):
        for port, how in ((80, None), (443, encryption), (SPEED_PORT, None)):
            Sites(port, how)
    for service in (VOICE_NAME, VOICE_PORT, 160), (ARENA_NAME, ARENA_PORT, 400):
        at_work("server", 1, answer_datagrams, *service)


# What the clients do. A rate is in bytes a second.

@contextlib.contextmanager
def asking(site, port):
    if port == 443:
        unchecked = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
        unchecked.check_hostname, unchecked.verify_mode = False, ssl.CERT_NONE
        connection = http.client.HTTPSConnection(site, timeout=PATIENCE_S, context=unchecked)
    else:
        connection = http.client.HTTPConnection(site, port, timeout=PATIENCE_S)
    with contextlib.closing(connection):
        yield connection


def receive(site, rate, seconds, port=443):
    with asking(site, port) as connection:
        connection.request("GET", f"/{rate}")
        answer, ends = connection.getresponse(), time.monotonic() + about(seconds)
        while time.monotonic() < ends:
            answer.read1(20_000)


def browse(*sites):
    """Some of them don't encrypt."""
    site = random.choice(sites)
    receive(site, 150_000, 1, 80 if site.endswith("example") else 443)


def send(site, rate, seconds):
    with asking(site, 443) as connection:
        connection.putrequest("POST", "/")
        connection.endheaders()
        ends = time.monotonic() + about(seconds)
        while time.monotonic() < ends:
            connection.send(bytes(int(rate * PORTION_S)))
            time.sleep(PORTION_S)


def talk(site, port, seconds, length, a_second):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as call:
        call.connect((site, port))
        call.settimeout(PATIENCE_S)
        for _ in range(int(about(seconds) * a_second)):
            call.send(bytes(length))
            call.recv(2000)
            time.sleep(1 / a_second)


ACTIVITIES = (
    ("tv", 8, receive, FILM_NAME, 600_000, 90),
    ("tv", 30, receive, VIDEO_NAME, 300_000, 25),
    ("laptop", 1, receive, MUSIC_NAME, 20_000, 180),
    ("laptop", 3, browse, NEWS_NAME, WEB_NAME, "shop.example"),
    ("laptop", 20, send, BACKUP_NAME, 500_000, 25),
    ("laptop", 25, talk, VOICE_NAME, VOICE_PORT, 60, 160, 25),
    ("tablet", 4, browse, NEWS_NAME, "shop.example"),
    ("tablet", 15, receive, VIDEO_NAME, 300_000, 20),
    ("tablet", 20, browse, "tracker.example", "bets.example"),
    ("console", 5, talk, ARENA_NAME, ARENA_PORT, 150, 120, 25),
    ("console", 25, receive, VIDEO_NAME, 300_000, 20),
    ("phone", 20, receive, SPEED_NAME, 2_500_000, 12, SPEED_PORT),
    ("phone", 5, browse, NEWS_NAME, "shop.example"),
    ("phone", 25, browse, WEB_NAME),
    ("phone", 3, receive, MUSIC_NAME, 16_000, 120))


def begin():
    for activity in ACTIVITIES:
        at_work(*activity)
