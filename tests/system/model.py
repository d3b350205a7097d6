"""The daemon's tables and what it decides by them, in their plainest form: lists are walked, nothing
is kept ready, a command is what it says. The test of the model compares the daemon with it."""
import ipaddress

from records import *

GENERIC = ("World Wide Web HTTP", "HTTP", "HTTP Protocol over TLS SSL")
# The rows of the built-in table that the test's ports reach, in its order.
BUILTIN = [(53, 53, (6, 17), "dns"), (80, 80, (6,), "miscellaneous-http"),
           (443, 443, (6,), "miscellaneous-https"), (514, 514, (6,), "apple-shell"),
           (514, 514, (17,), "syslog"), (5004, 5005, (6, 17), "rtp-media-streaming")]


def lower(text):
    """Only A to Z have a case."""
    return text.encode().lower().decode()


def number(address):
    return int(ipaddress.IPv4Address(address))


@dataclasses.dataclass
class Packet:
    protocol: int
    src: str
    dst: str
    src_port: int = 0
    dst_port: int = 0
    redirect: str = ""  # an address that a 302 response leads to
    src_utp: int = 0
    dst_utp: int = 0
    dpi: tuple = ()     # whether it was asked for, status, name, application id, category id

    def frame(self):
        body = {1: icmp_echo(), 17: udp(self.src_port, self.dst_port)}.get(self.protocol) or \
            tcp(self.src_port, self.dst_port, http_302(f" http://{self.redirect}/")
                if self.redirect else b"")
        fields = dict(zip(("filter_type", "dpi_status", "dpi_app_name", "dpi_app_id", "dpi_cat_id"),
                          self.dpi))
        return ipv4_frame(self.protocol, body, src=self.src, dst=self.dst) + trailer(
            src_utp_id=self.src_utp, dst_utp_id=self.dst_utp, **fields)


class Model:
    def __init__(self):
        self.policies = []     # fields of a policy, its rules among them as fields
        self.utps = {}         # id to a policy or None
        self.definitions = []  # fields of user-defined applications
        self.services = []     # [name, port, protocol, application id, category id]
        self.answers = {}      # of the platform: address to a name, None when it doesn't count
        self.names = {}        # the DNS cache
        self.resets = 1        # of the platform's flow table; one at the start
        self.lines = []        # of the application-visibility stream

    # Commands.

    def add_utp(self, utp_id, uuid):
        if 1 <= utp_id <= 64:
            found = [p for p in self.policies if uuid and lower(p["uuid"]) == lower(uuid)]
            self.utps[utp_id] = found[0] if found else None

    def add_policy(self, **fields):
        self.policies.append(fields)
        if 1 <= fields["utp_id"] <= 64:
            self.utps[fields["utp_id"]] = fields
        self.resets += 1

    def flush_utps(self):
        self.utps.clear()

    def clean(self):
        self.policies.clear()
        self.utps = dict.fromkeys(self.utps)

    def flush_policies(self):
        self.clean()
        self.resets += 1

    def log(self, name, value):
        for found in [p for p in self.policies if p["name"] == name][:1]:
            found["log"] = value & 0xFF

    def define(self, definitions):
        if len(definitions) <= 32:
            self.definitions = definitions
            self.resets += 1

    def read_services(self, rows):
        self.services = []
        self.resets += 1
        for name, port, *rest in rows:
            same = [s for s in self.services if s[1] == port and s[2] == rest[0]]
            if same:
                same[0][:] = [name, port, *rest]
            else:
                before = [i for i, s in enumerate(self.services) if s[0] >= name]
                self.services.insert(before[0] if before else len(self.services),
                                     [name, port, *rest])

    # What a packet is called: its name, and the fields of the verdict that come with it.

    def _policy(self, utp_id):
        return self.utps.get(utp_id) if 1 <= utp_id <= 63 else None

    def _allowed(self, packet, apps):
        """`apps` in the order of the search, as pairs of name and app."""
        for policy in (self._policy(packet.src_utp), self._policy(packet.dst_utp)):
            for name, app in apps:
                if policy is None or any(r.get("category") == "User Defined" and r["name"][:63] == name
                                         for r in policy["rules"]):
                    yield app

    @staticmethod
    def _fits(wanted, packet):
        mask = number(wanted["mask"])
        if wanted["dst"] and all((number(side) ^ number(wanted["dst"])) & mask
                                 for side in (packet.src, packet.dst)):
            return False
        if wanted["port"] and wanted["port"] not in (packet.src_port, packet.dst_port):
            return False
        return wanted["protocol"] not in (6, 17, packet.protocol) or \
            wanted["protocol"] == packet.protocol

    def _administrators(self, packet):
        for app in self._allowed(packet, [(d["name"], d) for d in self.definitions]):
            if self._fits(app, packet):
                return app["name"], app["app_id"], app["cat_id"]
        for name, port, protocol, app_id, cat_id in self._allowed(
                packet, [(s[0], s) for s in self.services]):
            if port in (packet.src_port, packet.dst_port) and protocol == packet.protocol:
                return name, app_id, cat_id
        return None

    def _dns(self, packet):
        """A name, "" when neither side has one, None when the platform failed."""
        for address in (packet.dst, packet.src):
            if address in self.names:
                return self.names[address]
            name = self.answers.get(address, "")
            if name:
                self.names[address] = name[:63]
            if name or name is None:
                return name
        return ""

    def _name(self, packet):
        found = self._administrators(packet)
        if packet.dpi[:2] == (2, 2) and packet.dpi[2] not in GENERIC:
            return (*found, 1) if found else (packet.dpi[2][:64], *packet.dpi[3:], 0)
        name = found[0] if found else "ICMP" if packet.protocol == 1 else ""
        learnt = self._dns(packet)
        if learnt and not found:
            name = learnt
        if learnt and packet.redirect:
            self.names.setdefault(packet.redirect, name[:63])
        if not name:
            ports = (packet.src_port, packet.dst_port)
            name = next((row[3] for row in BUILTIN if packet.protocol in row[2] and
                         any(row[0] <= port <= row[1] for port in ports)),
                        f"{packet.src} {packet.dst}:{packet.dst_port}")
        return (*found, 1) if found else (name, 0, 0, 0)

    # What becomes of it.

    def _rule(self, utp_id, name, app_id, cat_id):
        text = lower(name[:64]) + (".com" if len(name.encode()) < 60 else "")
        for one in self._policy(utp_id)["rules"]:
            wanted, domain = one.get("app_id", 0), lower(one["name"][:63])
            if wanted and (wanted, one.get("cat_id", 0)) == (app_id, cat_id) or \
                    not wanted and domain and domain in text:
                return one
        return None

    def judge(self, packet):
        name, app_id, cat_id, match_info = self._name(packet)
        expected = flow(packet.src_port, packet.dst_port, packet.protocol, src=packet.src,
                        dst=packet.dst, app_name=lower(name[:63]), app_id=app_id,
                        app_cat_id=cat_id, match_info=match_info)
        looked_at = None
        for utp_id, from_source in ((packet.src_utp, 1), (packet.dst_utp, 0)):
            if utp_id > 63 or utp_id not in self.utps:
                continue
            looked_at = self._policy(utp_id)
            found = looked_at and self._rule(utp_id, name, app_id, cat_id)
            if found:
                expected.arc_match_utp, expected.arc_match_src = utp_id, from_source
                self._apply(found, expected)
                break
        if looked_at and looked_at["log"]:
            self.lines.append((packet.src, str(packet.dst_port), name))
        return expected

    @staticmethod
    def _apply(found, to):
        if found.get("deny"):
            to.verdict, to.deny, to.policy_type = 3, 1, 3
            return
        if found.get("mark") is not None:
            to.verdict, to.policy_type, (to.mark_pri, to.mark_type) = 5, 5, found["mark"]
        if found.get("classify") is not None:
            to.verdict, to.policy_type, to.classify, to.classify_type = 5, 5, 1, found["classify"]
        if found.get("up") or found.get("down"):
            to.verdict, to.policy_type = 4, 4
            to.ratelimit_up, to.ratelimit_down = found.get("up", 0), found.get("down", 0)
