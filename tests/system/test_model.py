"""Some thousand random commands and packets: the daemon decides as the model does."""
import random
import re

from model import *

SEED = int(os.environ.get("JORN_MODEL_SEED", 20261125))
ROUNDS = 2000
ERROR = None

CLIENTS = [f"10.0.{n % 2}.{n}" for n in range(1, 5)]
PORTS = [53, 80, 443, 514, 5005, 8443, 9000, 40000]
# Of flows, applications and rules alike, so that they meet.
NAMES = ["Shop", "shop.Example", "www.Shop.example.com", "Clock", "clock", "Till", "ICMP", "dns",
         "n" * 59, "n" * 60, "m" * 64, "café", "10.0.0.1"]
DPI_NAMES = [*NAMES, *GENERIC, "http", "N" * 128]
DOMAINS = ["shop", "SHOP.com", "example", "clock.COM", "till", "icmp", "http", "10.0.1", "n.com", "M" * 64,
           "CAFÉ", "café", ":9000", ""]
UUIDS = ["", "a", "A", "b", "B", "c"]


def server(network, n):
    return f"198.18.{network % 250}.{n}"


class AgainstTheModel(SystemTest):
    def setUp(self):
        super().setUp()
        print(f"seed {SEED}")
        self.random = random.Random(SEED)
        self.pick_answer = random.Random(SEED)  # asked when the daemon pleases
        self.model = Model()
        self.av = self.platform(tm_support="1")
        self.av.answers[OP_DOMAIN] = self.answer_domain
        self.daemon()
        self.wait_until_judging()
        self.network = 0
        self.do_names()

    def answer_domain(self, body):
        name = self.model.answers.get(socket.inet_ntoa(body[:4]), "")
        words = (0, 1, 2) if name else self.pick_answer.choice([(1, 0, 1), (1, 1, 0), (0, 0, 0)])
        return -1 if name is ERROR else 0, struct.pack("=III256s", *words, (name or "unused").encode())

    def pick(self, *choices):
        return self.random.choice(choices[0] if len(choices) == 1 else choices)

    def some(self, most, make):
        return [make() for _ in range(self.random.randrange(most + 1))]

    # Records, as the fields that the builders and the model take.

    def rule(self):
        fields = {"name": self.pick(self.pick(DOMAINS, NAMES, self.words))}
        if self.pick(3 * [False] + [True]):
            fields |= {"app_id": self.pick(1, 2, 3), "cat_id": self.pick(0, 1)}
        if self.pick(True, False):
            fields |= {"name": self.pick(NAMES), "category": self.pick("User Defined", "user defined")}
        actions = {"deny": 1, "mark": (self.pick(0, 1, 2), self.pick(0, 3)), "classify": self.pick(0, 2),
                   "up": self.pick(7, 65535), "down": 500}
        return fields | {key: actions[key] for key in actions if self.pick(5 * [False] + [True, True])}

    def definition(self):
        return {"name": self.pick(NAMES), "src": self.pick("", "10.9.9.9"), "src_port": self.pick(0, 9),
                "dst": self.pick("", "10.0.1.77", "198.18.0.4"),
                "mask": self.pick("255.255.255.0", "0.0.0.0", "255.255.255.255"),
                "port": self.pick([0] + PORTS), "protocol": self.pick(0, 6, 17, 1),
                "app_id": self.pick(0, 1, 2, 3), "cat_id": self.pick(0, 1)}

    def service(self):
        return (self.pick(NAMES), self.pick(PORTS), self.pick(6, 17), self.pick(1, 2, 3),
                self.pick(0, 1))

    # Commands: each reaches the daemon and the model.

    def do_policy(self):
        rules = self.some(self.pick(4, 4, 64), self.rule)
        fields = {"utp_id": self.pick(0, 1, 2, 3, 63, 64, 65), "uuid": self.pick(UUIDS),
                  "name": self.pick("Office", "office", "guests"), "log": self.pick(0, 0, 1)}
        self.model.add_policy(rules=rules, **fields)
        command(POLICY, policy(fields.pop("utp_id"), *[rule(**r) for r in rules], **fields))

    def do_utp(self):
        utp_id, uuid = self.pick(0, 1, 2, 3, 4, 63, 64, 65), self.pick(UUIDS)
        self.model.add_utp(utp_id, uuid)
        command(UTP, utp(utp_id, uuid))

    def do_definitions(self):
        definitions = self.some(self.pick(4, 33), self.definition)
        self.model.define(definitions)
        command(USERDEF, userdefs(*[userdef(**d) for d in definitions]))

    def do_services(self):
        rows = self.some(self.pick(4, 40), self.service)
        self.model.read_services(rows)
        write_file(PORT_SERVICE_FILE, "".join(
            f"{port},{'tcp' if protocol == 6 else 'UDP'},{cat_id},{app_id},{name}\n"
            for name, port, protocol, app_id, cat_id in rows).encode())
        command(PORT_SERVICES)

    def do_log(self):
        name, value = self.pick("Office", "guests", "none"), self.pick(0, 1, 0x100)
        self.model.log(name, value)
        command(LOG, struct.pack("=68sI", name.encode(), value))

    def do_release(self):
        number, forget = self.pick((CLEAN, self.model.clean), (UTP_FLUSH, self.model.flush_utps),
                                   (POLICY_FLUSH, self.model.flush_policies))
        forget()
        command(number)

    def do_names(self):
        """The packets move on to hosts that nobody has a name for yet, but those that redirects to
        them have left."""
        self.network += 1
        servers = [server(self.network, n) for n in range(1, 9)]
        self.hosts = CLIENTS + servers
        self.words = ["".join(self.random.choices("abAB.c", k=self.random.randrange(1, 9)))
                      for _ in range(12)]
        self.model.answers = {host: self.pick(["", "", ERROR, *NAMES, *self.words]) for host in servers}

    def packet(self):
        src, dst = self.random.sample(self.hosts, 2)
        utps = {"src_utp": self.pick(0, 1, 2, 3, 63, 64), "dst_utp": self.pick(0, 1, 2, 4, 64)}
        if self.pick(4 * [False] + [True]):
            return Packet(1, src, dst, **utps)
        if self.pick(9 * [False] + [True]):
            return Packet(6, src, dst, 80, 40000, **utps, redirect=
                          server(self.network + self.pick(0, 1), self.pick(1, 2, 3)))
        dpi = self.pick((), (), (self.pick(0, 2, 2), self.pick(1, 2, 2, 3), self.pick(DPI_NAMES + self.words),
                                 self.pick(1, 2), self.pick(0, 1)))
        return Packet(self.pick(6, 17), src, dst, self.pick(PORTS), self.pick(PORTS), dpi=dpi, **utps)

    def said(self):
        """The application-visibility lines, and how often the platform was told to forget."""
        lines = [re.search(r'"srcIP"="(.*?)".*"destPort"="(.*?)".*"appName"="(.*)",', body[4:].decode(
            errors="replace")).groups() for op, body in self.av.messages.items if op == OP_SYSLOG]
        return lines, [op for op, _ in self.av.messages.items].count(OP_RESET)

    def test_commands_and_packets(self):
        actions = [self.do_policy] * 6 + [self.do_utp] * 3 + [
            self.do_definitions, self.do_services, self.do_log, self.do_release] + [self.do_names] * 3
        kinds = set()
        for round_number in range(ROUNDS):
            action = self.pick(actions)
            action()
            packets = [self.packet() for _ in range(4)]
            expected = [self.model.judge(packet) for packet in packets]
            judged = self.judge([packet.frame() for packet in packets], b"", burst=4)
            for packet, wanted, verdict in zip(packets, expected, judged):
                self.assertEqual(verdict, wanted, f"seed {SEED}, round {round_number}, after "
                                 f"{action.__name__}: {packet}")
            kinds |= {(v.verdict, v.arc_match_src, v.match_info) for v in judged}
        lines, resets = self.said()
        self.assertEqual(resets, self.model.resets)
        self.assertEqual(lines, self.model.lines)
        self.assertGreater(len(kinds), 12)  # verdicts on both sides, of each kind of name


if __name__ == "__main__":
    unittest.main()
