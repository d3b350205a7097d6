"""The third scene: a phone that registers for Wi-Fi calling, with strongSwan on both sides."""
import re

from .stage import *

EPDG_SERVER, EPDG_NAME = NETWORK + ".90", "epdg.epc.mnc002.mcc001.example"
SUBSCRIBER = "subscriber@carrier-one.example"
IKE = "/tmp/ike"
INSPECTING = """\
[client]
utp_id = 1
filter_type = ["url", "wificalling"]
[enforce]
reset = true
"""


def daemon_is_there():
    with namespace("client"), socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
        client.sendto(b"new", (WEB_SERVER, 9))
    return "/av_core.sock" in answer("ss", "-Hx", "state", "established")[1]


def start_avcore_again(how, *options):
    """The daemon that runs finds the new avcore by itself, when there is something to judge."""
    avcore = Avcore(write(FILES + "/inspecting.toml", INSPECTING), *how, *options)
    wait_for("daemon at the new avcore", daemon_is_there)
    return avcore


def configure_charon(side, addresses, own_id, other_id):
    write(f"{IKE}/{side}/strongswan.conf", f"""\
charon {{
  load_modular = no
  load = random nonce aes sha1 sha2 hmac kdf gmp kernel-netlink socket-default vici
  install_routes = no
  plugins {{ vici {{ socket = unix://{IKE}/{side}/vici }} }}
  filelog {{ stderr {{ default = 1 }} }}
}}
""")
    write(f"{IKE}/{side}/swanctl.conf", f"""\
connections {{ call {{
  version = 2
  {addresses}
  proposals = aes128-sha256-modp2048
  local {{ auth = psk
    id = {own_id} }}
  remote {{ auth = psk
    id = {other_id} }}
}} }}
secrets {{ ike {{ secret = "of the SIM card, on a phone" }} }}
""")


def control_charon(side, *words):
    status, said = answer("swanctl", *words, "--uri", f"unix://{IKE}/{side}/vici")
    with open(f"{LOGS}/swanctl", "a") as file:
        print(said, file=file)
    return status, said


def start_charon(side):
    """charon's pid file has a fixed path, so each side has a /run of its own."""
    Program("charon-" + side, "env", f"STRONGSWAN_CONF={IKE}/{side}/strongswan.conf", "unshare", "--mount",
            "sh", "-c", "mount -t tmpfs tmpfs /run && exec /usr/lib/ipsec/charon", netns=side)
    wait_for("charon on the " + side, lambda: control_charon(side, "--stats")[0] == 0)
    if control_charon(side, "--load-all", "--noprompt", "--file", f"{IKE}/{side}/swanctl.conf")[0] != 0:
        raise Failed(f"charon on the {side} doesn't take its connection")


def register():
    status, said = control_charon("client", "--initiate", "--ike", "call", "--timeout", "4")
    established = re.search("IKE_SA call.* established", said)
    return (status, established[0]) if established else (1, said)


def play(how):
    heading("Wi-Fi calling")
    add_ipv4("server", EPDG_SERVER)
    avcore = start_avcore_again(how)
    apply("examples/wifi-calling.json")
    configure_charon("server", f"local_addrs = {EPDG_SERVER}", EPDG_NAME, "%any")
    configure_charon("client", f"remote_addrs = {EPDG_NAME}\n  encap = yes", SUBSCRIBER, EPDG_NAME)
    start_charon("server")
    start_charon("client")
    note(f"""
  A phone looks for its carrier's gateway, {EPDG_NAME}, and registers there
  with IKE: strongSwan on both sides.""")
    attempt("swanctl --initiate --ike call", register)
    avcore.report()
    show_rows(lambda fields: server_port(fields) in ("500", "4500"))
    note(f"""
For carrier-one the policy knows the gateway's name only. The client's DNS answer said that it is
{EPDG_SERVER}, so the IKE flows with this address carry the carrier's priority, 3: an access point
sends them as voice.""")
