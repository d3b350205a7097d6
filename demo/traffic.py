"""The first scene where verdicts are only shown, a client's plain traffic, and a capture's: under a
policy that blocks ICMP."""
from .stage import *

CONFIG = "examples/everyone.toml"
CAPTURE_SECONDS = 20
NAMES = [(WEB_NAME, WEB_SERVER), (VIDEO_NAME, VIDEO_SERVER)]


def show_network():
    heading("The network, in namespaces of its own")
    say(f"""\
  client           access point             server side
  {CLIENT} ---- wlan0 [bridge] eth0 ---- {DNS_SERVER}  name server
                     |                     {WEB_SERVER}  {WEB_NAME} (HTTP)
                  avcore --> jorn          {VIDEO_SERVER}  {VIDEO_NAME} (TLS)
                         <-- verdicts""")


def make_network():
    add_bridge("br0")
    add_station("client", "wlan0")
    add_station("server", "eth0")
    add_ipv4("client", CLIENT)
    add_ipv4("server", DNS_SERVER, WEB_SERVER, VIDEO_SERVER)


def ping():
    status, said = answer("ping", "-q", "-c", "3", "-i", "0.2", "-w", "4", WEB_SERVER, netns="client")
    return status, said if status else next(part.strip() for part in said.split(",") if "received" in part)


def make_traffic():
    heading("The client at work")
    attempt("ping " + WEB_SERVER, ping)
    attempt(f"curl http://{WEB_NAME}/", fetch, f"http://{WEB_NAME}/")
    attempt(f"curl https://{VIDEO_NAME}/", fetch, f"https://{VIDEO_NAME}/")


def play_live():
    show_network()
    make_network()
    use_demo_dns()
    servers = Servers(NAMES)
    avcore = Avcore(CONFIG, "-i", "wlan0")
    start_jorn()
    heading("The policy")
    apply("examples/block-ping.json")
    note("  Clients have user traffic profile 1, and its policy blocks ICMP.")
    make_traffic()
    show_use(CLIENT, WEB_NAME)
    avcore.report()
    show_flows()
    note(f"""
The ping was answered all the same: where avcore isn't inline it only keeps the verdict. {WEB_NAME}
has its name from the DNS answer that the client got, the TLS flow from deep packet inspection, which
saw the server name in its first message.""")
    show_names()
    return servers


def play_capture(name, policy, config):
    """A file is fed as soon as a daemon captures, and the policy has to stand before its first frame:
    another avcore, with nothing to feed, is there for the daemon's start and the policy."""
    avcore = Avcore(config, "-i", "lo")
    start_jorn()
    heading("The policy")
    apply(policy)
    avcore.report()

    heading("Feeding " + name)
    with open(f"{LOGS}/avcore", "w") as table:
        feeding = subprocess.Popen([f"{BIN}/avcore", *CAPTURE, "-r", "/dev/stdin", "-c", config],
                                   stdout=table)
    try:
        status = feeding.wait(CAPTURE_SECONDS)
    except subprocess.TimeoutExpired:
        feeding.send_signal(signal.SIGINT)
        status = feeding.wait()
        note(f"  Stopped after {CAPTURE_SECONDS} seconds; by hand avcore reads a file to its end.")
    if status != 0:
        raise Failed("avcore could not feed the capture")
    show_flows()
    show_names()
