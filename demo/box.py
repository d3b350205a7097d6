"""The first scene where verdicts can be enforced: two clients, the same requests of each before and
under a policy for one of them."""
import threading

from .stage import *

LAPTOP, LAPTOP6 = NETWORK + ".3", "fd00:20::3"
SPEED_SERVER, SPEED_NAME = NETWORK + ".87", "speedtest.example"
VOICE_SERVER, VOICE_NAME, VOICE_PORT = NETWORK + ".88", "voice.example", 4000
VIDEO_SERVER6 = "fd00:20::81"
NAMES = [(WEB_NAME, WEB_SERVER), (VIDEO_NAME, VIDEO_SERVER), (VIDEO_NAME, VIDEO_SERVER6),
         (SPEED_NAME, SPEED_SERVER), (VOICE_NAME, VOICE_SERVER)]
WIRE_MS = 10
CONFIG = """\
[[rule]]
captured_on = "wlan0"
utp_id = 1
[enforce]
reset = true
"""
CURL_SAYS = {7: "refused", 35: "cut off", 56: "cut off", 28: "no answer"}  # by its exit status


def show_box():
    heading("An access point in a box: two clients and the internet, in namespaces of their own")
    say(f"""\
  tablet                access point                 the internet, {2 * WIRE_MS} ms there and back
  {CLIENT} ---- wlan0 [bridge] eth0 -------- {WEB_SERVER}  {WEB_NAME} (HTTP)
  laptop                   |                  {VIDEO_SERVER}  {VIDEO_NAME} (HTTPS, IPv6 too)
  {LAPTOP} ---- wlan1 ----'                  {SPEED_SERVER}  {SPEED_NAME} (iperf3)
                the gate at wlan0, wlan1      {VOICE_SERVER}  {VOICE_NAME} (UDP)
                  avcore --> jorn             {DNS_SERVER}  name server""")


def make_box():
    add_bridge("br0")
    add_station("client", "wlan0")
    add_station("laptop", "wlan1")
    add_host("server")
    plug_far("eth0", "server", "eth0", WIRE_MS, "br0", *ON_A_WIRE)
    add_ipv4("client", CLIENT)
    add_ipv4("laptop", LAPTOP)
    add_ipv4("server", DNS_SERVER, WEB_SERVER, VIDEO_SERVER, SPEED_SERVER, VOICE_SERVER)
    for netns, address in ("client", CLIENT6), ("laptop", LAPTOP6), ("server", VIDEO_SERVER6):
        add_ipv6(netns, address)


def serve_voice():
    """Answers with the code point of what comes."""
    with namespace("server"):
        server = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    server.setsockopt(socket.IPPROTO_IP, socket.IP_RECVTOS, 1)
    server.bind((VOICE_SERVER, VOICE_PORT))

    def answer_calls():
        while True:
            _, ((_, _, tos), *_), _, caller = server.recvmsg(2000, 64)
            server.sendto(b"%d" % (tos[0] >> 2), caller)
    threading.Thread(target=answer_calls, daemon=True).start()


# What a client asks for: each says a few words.

def web_page(netns, *words):
    status, said = curl("%{http_code}, %{size_download} bytes", *words, netns=netns)
    return CURL_SAYS.get(status, said)


def speed(netns, *direction):
    """The first second, in which the verdict comes, doesn't count."""
    _, said = answer("iperf3", "-c", SPEED_NAME, "-f", "m", "-O", "1", "-t", "1", *direction, netns=netns)
    for line in said.splitlines():
        if "receiver" in line:
            return line.split()[-3] + " Mbit/s"
    raise Failed(said)


def voice_call(netns):
    answers = []
    with namespace(netns), socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as call:
        call.connect((VOICE_NAME, VOICE_PORT))
        call.settimeout(SECONDS)
        for _ in range(25):
            call.send(bytes(160))
            answers.append(call.recv(10).decode())
    return f"{len(answers)} of 25, arrived with DSCP {answers[-1]}"


REQUESTS = [
    (f"http://{WEB_NAME}/", web_page, f"http://{WEB_NAME}/"),
    (f"https://{VIDEO_NAME}/", web_page, "-4", f"https://{VIDEO_NAME}/"),
    ("the same over IPv6", web_page, "-6", f"https://{VIDEO_NAME}/"),
    ("speed test, to the client", speed, "-R"),
    ("speed test, from the client", speed),
    ("a voice call", voice_call)]


def ask_for_all(netns):
    return [ask(netns, *words) for _, ask, *words in REQUESTS]


def show_why(of="avcore"):
    heading("What happened on the wire, and why")
    rows, counts = {}, []  # a dict keeps the order, and a row once
    for line in log(of).splitlines():
        if line.startswith("avcore: denied"):
            _, _, flow, reason, *_ = line.split(": ")
            say("  denied       " + flow, " " * 15 + reason)
        elif " rate limit " in line or " qos " in line:
            client, server, _, application, *_ = line.split()
            what = "marked" if "qos" in line else "limited"
            rows[f"  {what:12} {client.partition(':')[0]} to {server}, {application}"] = True
        elif line.startswith("packets"):
            counts.append("  " + line)
    say(*rows, "", *counts)
    note("""
  The gate is a program in the kernel at wlan0 and wlan1: it copies the first packets of a flow to avcore,
  which asks jorn, and does the rest by itself. jorn knew www.youtube.com from the DNS answer, the speed
  test by its port.""")


def play():
    show_box()
    make_box()
    use_demo_dns()
    servers = Servers(NAMES)
    Program("iperf3", "iperf3", "-s", "-B", SPEED_SERVER, netns="server")
    wait_for("speed test server", listens("-t", SPEED_SERVER + ":5201"))
    serve_voice()
    avcore = Avcore(write(FILES + "/box.toml", CONFIG), "--inline", "wlan0", "--inline", "wlan1")
    start_jorn()

    heading("What the clients ask for")
    before = ask_for_all("client")
    note("""\
  The tablet has user traffic profile 1, and the policy for it blocks YouTube, gives the speed test
  5 Mbit/s down and 2 up and marks voice.example. The laptop has no profile.""")
    apply("examples/box.json")
    columns = (["asked for"] + [title for title, *_ in REQUESTS], ["tablet, no policy yet"] + before,
               ["tablet, under the policy"] + ask_for_all("client"),
               ["laptop, then"] + ask_for_all("laptop"))
    for asked, *became in zip(*columns):
        say("  {:29}{:37}{:37}{}".format(asked, *became))
    show_use(CLIENT, VIDEO_NAME)
    avcore.report()
    show_why()
    return servers
