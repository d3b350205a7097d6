"""Web and URL filtering: what is asked and decided, what comes late, what is kept."""
from records import *

WEB_UTP, LATE, SHOW_INTF, SHOW_UTP = 21, 31, 32, 33
FILE = "/writable/jorn/web_filter_config.txt"
EMPTY_FILE = "[webPolicy]\n[webPolicy end]\n[intfcfg]\n[intfcfg end]\n"
EVENT_SERVICE = "/tmp/cub_uds"
DOMAIN = "Www.Example.org"
HOSTS = {"google": ("google.com", "www.google.com", "search.google.com"),
         "bing": ("bing.com", "www.bing.com"), "youtube": ("youtube.com", "www.youtube.com")}


def answer(*categories, status=0, count=0, reputation=80):
    return struct.pack("=ii5ii", status, reputation, *categories, *[0] * (5 - len(categories)), count)


def request(domain=DOMAIN, *, src_port=40000, dst_port=443, word2=0, word3=0, dst_if="eth0",
            src_if="wlan0"):
    key = struct.pack("=8x6s6s", mac(SERVER_MAC), mac(CLIENT_MAC)) + \
        struct.pack(">HHB3x4s4s24x", dst_port, src_port, 6, socket.inet_aton(SERVER),
                    socket.inet_aton(CLIENT))
    return struct.pack("=I60sIIII16s16sII64s", 2, key, 2, 3, word2, word3, dst_if.encode(),
                       src_if.encode(), 0, len(domain), domain.encode())


def web_flow(app_name=DOMAIN, *, src_port=40000, dst_port=443, **fields):
    """The verdict on a flow that the web owns and allows."""
    return flow(src_port, dst_port, 6, app_name=app_name.lower(),
                **{"wificalling_f": 1, "url_decided": 0, "deny": 0} | fields)


DENIED = {"verdict": 3, "deny": 1, "policy_type": 3, "url_decided": 1}
WHITE = {"verdict": 2, "url_decided": 1}
FRAME = tcp_frame(40000, 443)

# What it is, the policy's categories, the agent's rc and answer, the verdict's fields that differ.
CATEGORIES = [
    ("the main category", [9, 5], 0, answer(5), DENIED | {"app_cat_id": 5}),
    ("none of the policy's", [9], 0, answer(5, 9), {"app_cat_id": 5}),
    ("the entry at the count is examined", [9], 0, answer(5, 9, count=1), DENIED | {"app_cat_id": 9}),
    ("the first that is blocked", [7, 9], 0, answer(5, 9, 7, count=4), DENIED | {"app_cat_id": 9}),
    ("a count beyond the list", [9], 0, answer(1, 2, 3, 4, 9, count=0x7FFFFFFF),
     DENIED | {"app_cat_id": 9}),
    ("a negative count", [5], 0, answer(5, count=-0x80000000), {"app_cat_id": 5}),
    ("the second, for the first is 0", [9], 0, answer(0, 9, count=1), DENIED | {"app_cat_id": 9}),
    ("a negative one is no category", [-5], 0, answer(-5, count=1), {}),
    ("beyond the table", [83, 0x20000 + 300], 0, answer(0x20000 + 300), DENIED | {"app_cat_id": 300}),
    ("beyond it and another", [0x20000 + 300], 0, answer(300), {"app_cat_id": 300}),
    ("no list", [5], 0, answer(5, status=5), {"app_cat_id": 5}),
    ("status 3", [5], 0, answer(5, status=3), DENIED | {"app_cat_id": 5}),
    ("status 7", [5], 0, answer(5, status=7), DENIED | {"app_cat_id": 5}),
    ("unknown", [5], 0, answer(), {}),
    ("a result above 0", [5], 1, b"", {}),
    ("no answer", [5], -1, b"", {"app_name": ""}),
]

# White list, black list, the domain, the list that decides.
PATTERNS = [
    (["*.example.org"], [], DOMAIN, "white"), ([], ["*.example.org"], DOMAIN, "black"),
    (["EXAMPLE.ORG"], [], "example.org.other.net", "white"), (["*ample*"], [], DOMAIN, "white"),
    (["xample.*"], [], "xample.net", "white"), (["ads*"], [], "myads.net", "white"),
    (["*.ads.*"], [], "myads.net", "white"), (["*.b.org"], [], "a.b.orb", None),
    (["a*b"], [], "aXb", None), (["ample"], ["ample"], DOMAIN, "white"),
    (["no.net", "other"], ["www", "no.net"], DOMAIN, "black"), (["a"], ["w"], "wa", "white"),
    (["a.com", "", "b.com"], ["b.com"], "b.com", None), ([], ["", "b.com"], "b.com", None),
    (["a.com"], ["b.com", "", "c.com"], "c.com", None), (["*"], ["a"], "a", "white"),
    *[([], [everything], "a", "black") for everything in ("*", "**", "*.", ".*", "*.*")],
    ([], ["x" * 63 + "y"], "x" * 63, None), (["x" * 62], [], "x" * 63 + "yyyyy", "white"),
]

# Source binding's and destination binding's uuid (None: no binding, "": without a policy, "-":
# disabled), web UTP 1's and 63's uuid, words 2 and 3, the policy that applies.
CHOICES = [
    ("s", "d", None, None, 0, 0, "s"), (None, "d", None, None, 0, 0, "d"),
    ("", "d", None, None, 0, 0, "d"), ("-", "d", None, None, 0, 0, "d"),
    ("-", "-", "a", "b", 1, 63, None), ("s", "d", "a", "b", 1, 63, "b"),
    ("s", "d", "a", "b", 1, 2, "a"), ("", None, "a", "b", 63, 1, "a"),
    ("s", "d", "a", "unknown", 1, 63, "s"), (None, None, "a", "b", 1, 63, None),
]


class WebTest(SystemTest):
    def setUp(self):
        super().setUp()
        self.av = self.platform(tm_support="1", webroot_server="urls.example",
                                base_mac="02:00:00:00:00:01")
        self.says(answer())

    def says(self, reply, rc=0):
        self.av.answers[OP_CATEGORY] = lambda _: (rc, reply and reply + bytes(116))

    def bind(self, *uuids, **fields):
        for uuid in uuids:
            command(WEB_POLICY, web_policy(uuid, **fields))
        command(WEB_INTF, web_binding(uuid=uuids[0]))

    def get(self, domain=DOMAIN, frame=FRAME, **fields):
        return self.judge([frame], trailer(**{"filter_type": 1, "kernel_domain": domain} | fields))[0]

    def sent(self, op, since=0):
        """The bodies of an op's messages, once the daemon has sent all that it had to."""
        self.wait_until_judging()
        return [body for number, body in self.av.messages.items[since:] if number == op]


class Decision(WebTest):
    def setUp(self):
        super().setUp()
        self.start()

    def test_the_request_field_by_field(self):
        names = {"src_if_name": "wlan0-fifteen16", "dst_if_name": "eth0-with-16-ch."}
        command(WEB_POLICY, web_policy("u"))
        command(WEB_INTF, web_binding(names["dst_if_name"]))
        self.says(answer(0x10000 + 5))
        self.assertEqual(self.get(word2=64, word3=99, **names), web_flow(app_cat_id=5))
        self.assertEqual(self.sent(OP_CATEGORY), [request(
            word2=64, word3=99, dst_if=names["dst_if_name"], src_if=names["src_if_name"])])

    def test_which_domain_is_asked_for(self):
        self.bind("u")
        self.av.domains = {SERVER: (1, 1, 1, "cached.example")}
        away = "198.51.100.1"
        for what, domain, frame, asked in (
                ("the kernel's, cut", "k" * 68, FRAME, "k" * 63),
                ("the destination's", "", FRAME, "cached.example"),
                ("the source's", "", tcp_frame(443, 5, src=SERVER, dst=CLIENT), "cached.example"),
                ("neither web port", "", tcp_frame(5, 6, src=away), away),
                ("an unnamed destination", "", tcp_frame(443, 80, dst=away), away),
                ("an unnamed source", "", tcp_frame(443, 5, src=away), away),
                ("a host of the video CDN", "r1.VIDEO-CDN.example.net", FRAME, "video-cdn.example"),
                ("none", "", ethernet(0x88B5, bytes(46)), None)):
            with self.subTest(what):
                since = self.messages_so_far()
                verdict = self.get(domain, frame)
                domains = [text_of(body[120:]) for body in self.sent(OP_CATEGORY, since)]
                self.assertEqual(domains, [asked] if asked else [])
                self.assertEqual(verdict.app_name, asked or "")
        # A definition's name is asked for, and covered by the kernel's domain.
        command(USERDEF, struct.pack("=i", 1) + bytes(68) + struct.pack(
            "=HHI66sHHBx", 0, 443, 6, b"Till", 40001, 9, 0xEE))
        self.assertEqual(self.get("").app_name, "till")
        self.assertEqual(self.get(), web_flow(match_info=1))

    def test_what_categories_decide(self):
        for what, categories, rc, reply, fields in CATEGORIES:
            with self.subTest(what):
                command(WEB_FLUSH)
                self.bind("u", categories=categories[:1], slots=categories[1:])
                self.says(reply, rc)
                expected = web_flow(fields.get("app_name", DOMAIN))
                self.assertEqual(self.get(), dataclasses.replace(
                    expected, **{k: v for k, v in fields.items() if k != "app_name"}))

    def test_what_lists_decide(self):
        self.says(answer(5))
        command(DEBUG, struct.pack("=I", 1))  # what is said of the search decides nothing
        for white, black, domain, decides in PATTERNS:
            with self.subTest(white=white, black=black, domain=domain):
                command(WEB_FLUSH)
                self.bind("u", white=white, black=black, categories=[6])
                fields = {"white": WHITE, "black": DENIED, None: {"app_cat_id": 5}}[decides]
                self.assertEqual(self.get(domain), web_flow(domain[:63], **fields))
        self.assertEqual(len(self.sent(OP_CATEGORY)), sum(row[3] is None for row in PATTERNS))
        command(WEB_FLUSH)
        self.bind("u", white=["a*", "b"], black=["*.c.*", "d"])
        since = self.lines_so_far(self.jorn)
        self.assertEqual(self.get("z.c.net"), web_flow("z.c.net", **DENIED))
        self.lines_so_far(self.jorn)
        self.assertEqual([line.split(") ", 1)[1] for line in self.jorn.lines.items[since:]
                          if "jorn_check_white_black_list" in line], [
            "White-list number 2 and black-list number 2  and kernel domain z.c.net",
            "UI Configured white-list domain name a*", "Extracted domain a",
            "UI Configured white-list domain name b", "Extracted domain b",
            "UI Configured black-list domain name *.c.*", "Domain start c.* and len 1",
            "Extracted domain c", "Domain name *.c.* matched in blacklist"])
        self.jorn.stop()
        denied = 1 + sum(row[3] == "black" for row in PATTERNS)
        self.jorn.wait_line(f"flow deny number: {denied}")

    def test_which_policy_applies(self):
        for src, dst, utp1, utp63, word2, word3, applies in CHOICES:
            with self.subTest(src=src, dst=dst, utps=(utp1, utp63), words=(word2, word3)):
                command(WEB_FLUSH)
                command(UTP_FLUSH)
                for uuid in "sdab":
                    command(WEB_POLICY, web_policy(uuid, black=[f"{uuid}.net"]))
                for ifname, uuid in (("wlan0", src), ("eth0", dst)):
                    command(WEB_INTF, web_binding(ifname, op=DELETE) if uuid is None else web_binding(
                        ifname, uuid or "none", enable=0 if uuid == "-" else 1))
                for number, uuid in ((1, utp1), (63, utp63)):
                    command(WEB_UTP, utp(number, uuid or ""))
                domains = [f"{uuid}.net" for uuid in "sdab"]
                denied = [d[0] for d in domains if self.get(d, word2=word2, word3=word3).deny == 1]
                self.assertEqual(denied, [applies] if applies else [])
        self.jorn.wait_line("jorn_get_web_policy_cfg")  # of those without a policy

    def test_orders_of_arrival(self):
        blocks = {"black": [DOMAIN]}
        command(WEB_POLICY, web_policy("Ab", **blocks))
        command(WEB_POLICY, web_policy("aB"))  # never found
        command(WEB_INTF, web_binding(uuid="aB"))
        self.assertEqual(self.get().deny, 1)
        command(WEB_FLUSH)  # nothing released is followed
        self.assertEqual(self.get(), web_flow(""))
        command(WEB_POLICY, web_policy("ab", **blocks))  # no link grows
        command(WEB_UTP, utp(5, "later"))
        command(WEB_POLICY, web_policy("later", **blocks))
        self.assertEqual(self.get(word3=5).deny, 0)
        command(WEB_POLICY, web_policy(utp_id=5, **blocks))  # replaces the entry
        self.assertEqual(self.get(word3=5).deny, 1)
        for number in (64, 65):
            command(WEB_POLICY, web_policy(utp_id=number, **blocks))
        self.assertEqual(self.get(word3=64).deny, 0)  # shown, not found
        for what, payload, deny in (
                ("bound", web_binding(uuid="AB"), 1), ("refused", web_binding(op=0), 1), ("disable, enabled", web_binding(op=DISABLE), 1),
                ("another's", web_binding("wlan", op=DELETE), 1), ("case", web_binding("WLAN0", op=DELETE), 1),
                ("disable", web_binding(op=DISABLE, enable=0), 0), ("again", web_binding(uuid="AB"), 1),
                ("delete", web_binding(op=DELETE), 0)):
            with self.subTest(what):
                command(WEB_INTF, payload)
                self.assertEqual(self.get().deny, deny)
        for line in ("Error Web filter Id: 65", "No policy is configured for wlan wlan0 and policy"):
            self.assertFalse([said for said in self.jorn.lines.items if line in said][1:])
        for number in (0, 65):
            command(WEB_UTP, utp(number, "ab"))
            self.jorn.wait_line(f"Error URL UTP id: {number}")

    def test_the_web_owns_its_packets_and_the_engine_takes_them_back(self):
        command(POLICY, policy(1, rule("example", deny=1), rule("Tube", app_id=8, cat_id=3, deny=1)))
        self.assertEqual(self.get(src_utp_id=1), web_flow(""))  # without a policy, too
        self.bind("u")
        self.assertEqual(self.get(src_utp_id=1), web_flow())
        dpi = {"filter_type": 3, "dpi_status": 2, "dpi_app_name": "Tube", "dpi_app_id": 8,
               "dpi_cat_id": 3, "src_utp_id": 1}
        self.assertEqual(self.get(**dpi), web_flow())
        for rc, reply in ((-1, b""), (0, answer(-1))):
            self.says(reply, rc)
            self.assertEqual(self.get(**dpi), flow(
                40000, 443, 6, app_name="tube", app_id=8, app_cat_id=3, verdict=3, deny=1,
                policy_type=3, arc_match_src=1, arc_match_utp=1))
        self.assertEqual(self.get(**dpi | {"dpi_app_name": "HTTP"}).wificalling_f, 1)

    def test_counts_and_limits(self):
        patterns = [f"{n}.net" for n in range(16)]
        self.bind("u", counts=(255, 17, 200), categories=range(1, 84), white=patterns, black=["z"])
        self.jorn.wait_line("counts beyond 83 categories, 16 white and 16 black patterns are cut")
        self.assertEqual(self.get("x15.net"), web_flow("x15.net", **WHITE))
        self.assertEqual(self.get("z"), web_flow("z", **DENIED))
        block = "[policy]\n;u{};4;0;-;0;-;1;q,;0;0;0;0;0;0;\n[policy_end]\n\n"
        write_file(FILE, "[webPolicy]\n" + "".join(block.format(n) for n in range(1024)) +
                   "[webPolicy end]\n[intfcfg]\n" +
                   "".join(f"if{n};1;7;3;u{n};\n" for n in range(1024)) + "[intfcfg end]\n")

        def is_complete():
            """Behind thousands of messages about interfaces the platform may miss a question of the start."""
            self.start()
            return self.get("q", src_if_name="if1023").deny == 1
        wait_until(is_complete)
        command(WEB_INTF, web_binding("more", "u1"))
        self.jorn.wait_line("the binding of more is refused: there are 1024")
        command(WEB_POLICY, web_policy("more"))
        self.jorn.wait_line("web policy  is refused: there are 1024")
        command(WEB_INTF, web_binding("if0", "none"))  # one that is there is replaced
        self.assertEqual(self.get("q", src_if_name="if0"), web_flow(""))

    def test_texts_that_would_tear_the_file(self):
        self.bind("u", black=["a;b", "c,d"])
        self.assertEqual([self.get(domain).deny for domain in ("a;b", "c,d")], [1, 1])
        for payload, says in ((web_policy(name="x[POLICY_END]"), "name holds \"[policy_end]\""),
                              (web_policy(black=["ok", "tab\t"]), "blacklist holds a control character"),
                              (web_policy("\x7f"), "uuid holds a control character")):
            command(WEB_POLICY, payload)
            self.jorn.wait_line(says)
        command(WEB_INTF, web_binding("wlan0", "u\n"))
        self.jorn.wait_line("web binding of wlan0 is refused: policy_uuid")
        command(WEB_INTF, web_binding("wlan1", "[policy_end]"))  # divides no bindings
        self.assertEqual(read_file(FILE).count("[policy_end]"), 2)
        self.assertEqual(self.get("a;b").deny, 1)


class LateAnswers(WebTest):
    def setUp(self):
        super().setUp()
        self.start()
        self.bind("u", categories=[9], black=["black"])
        self.events = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.events.bind(EVENT_SERVICE)
        self.events.settimeout(DEADLINE)
        self.addCleanup(os.unlink, EVENT_SERVICE)
        self.addCleanup(self.events.close)

    def late(self, reply, **echo):
        """The verdict that a late answer makes: its code, category and the action's two flags."""
        since = self.messages_so_far()
        command(LATE, reply + request(**echo))
        found = []
        for body in self.sent(OP_SET_APP, since):
            key, action, name, a4, category, code, a7, a8 = struct.unpack("=60s16s64siIIii", body)
            self.assertEqual((key, name, a4, a7, a8),
                             (request(**echo)[4:64], b"***".ljust(64, b"\0"), 0, 0, 2))
            self.assertEqual(action[1:6] + action[7:], b"\xff" * 14)
            found.append((code, category, action[0], action[6]))
        return found

    def alarm(self, number, name):
        pattern = (rf'd\0\0\0<6>[A-Z][a-z]{{2}} [ \d]\d \d\d:\d\d:\d\d: @@{number},{name},'
                   r'"apMac"="02:00:00:00:00:01","serverUrl"="urls\.example" \0')
        self.assertRegex(self.events.recv(2048).decode(), f"^{pattern}$")

    def test_late_answers_become_verdicts_of_flows(self):
        denied, allowed = [(3, 9, 1, 1)], [(2, 5, 0, 0)]
        command(WEB_POLICY, web_policy("a", categories=[5]))
        command(WEB_UTP, utp(1, "a"))
        for what, reply, echo, verdict in (
                ("denied", answer(5, 9, count=1), {}, denied), ("not counted", answer(5, 9), {}, allowed),
                ("no list", answer(5, 9, count=1, status=5), {}, allowed),
                ("by the UTP", answer(5), {"word3": 1}, [(3, 5, 1, 1)]),
                ("allowed by the UTP", answer(5, 9, count=1), {"word2": 1}, [(3, 5, 1, 1)]),
                ("the other side", answer(9), {"src_if": "x", "dst_if": "wlan0"}, denied),
                ("no binding", answer(5, 9, count=4), {"src_if": "x"}, allowed),
                ("a big one", answer(0x10000 + 5), {}, allowed), ("none", answer(), {}, [(2, 0, 0, 0)])):
            with self.subTest(what):
                self.assertEqual(self.late(reply, **echo), verdict)
        command(LATE, answer(9) + request()[:-1])
        self.jorn.wait_line("command 31: 215 bytes, its record has 216")
        self.assertEqual(len(self.sent(OP_SET_APP)), 9)

    def test_outages_and_their_alarms(self):
        failure, good = answer(9, status=7), answer(9)
        for _ in range(4):
            self.assertEqual(self.late(failure), [])
        self.says(failure)  # what comes in time counts for nothing
        self.assertEqual(self.get().deny, 1)
        self.assertEqual(self.late(good), [(3, 9, 1, 1)])  # no alarm
        for _ in range(7):
            self.assertEqual(self.late(failure), [])
        self.alarm(8003, "urlFilteringServerUnreachable")
        command(LATE, answer(9)[:31])  # ends no outage

        # Without a category the application policy takes over, where the UTP has one.
        self.says(answer())
        self.assertEqual(self.get(), web_flow())
        command(POLICY, policy(1, rule("x")))
        self.assertEqual(self.get(src_utp_id=1), web_flow(default_policy=0))
        self.assertEqual(self.get(dst_utp_id=1), web_flow(default_policy=0))
        self.assertEqual(self.get("black", src_utp_id=1), web_flow("black", **DENIED))
        dpi = {"filter_type": 3, "dpi_status": 2, "dpi_app_name": "Tube", "dpi_app_id": 8}
        self.assertEqual(self.get(**dpi), flow(40000, 443, 6, app_name="tube", app_id=8))
        self.says(answer(9))
        self.assertEqual(self.get(src_utp_id=1), web_flow(**DENIED, app_cat_id=9))

        # An alarm that can't be built is lost, and the state changes all the same.
        del self.av.values["webroot_server"]
        self.assertEqual(self.late(good), [(3, 9, 1, 1)])
        self.jorn.wait_line("Not able to send ALARM, Failed to get Webroot server name   ret val -1")
        self.av.values["webroot_server"] = "urls.example"
        for _ in range(5):
            self.late(failure)
        self.alarm(8003, "urlFilteringServerUnreachable")
        self.late(good)
        self.alarm(8004, "urlFilteringServerReachable")


def safe_search_calls(side, **vips):
    """What a policy's safe search asks of the platform, in order; `side` is an interface or a UTP."""
    ifname, utp_id = (side, 0) if isinstance(side, str) else ("", side)

    def call(action, mode=1 if ifname else 2, number=utp_id, value=0, address="0.0.0.0", host=""):
        return struct.pack("=IIIi4s24s64s", action, mode, number, value, socket.inet_aton(address),
                           ifname.encode(), host.encode())
    calls = [call(1, host=host) for hosts in HOSTS.values() for host in hosts]
    if ifname:
        calls.append(call(3, mode=1, number=0, value=1 if vips else 0))
    return calls + [call(2, address=vips[engine], host=host) for engine, hosts in HOSTS.items()
                    if engine in vips for host in hosts]


class SafeSearch(WebTest):
    def test_calls_in_their_order(self):
        self.start("-d")
        vips = {"google": "203.0.113.5", "youtube": "255.255.255.255"}
        other = {"bing": "203.0.113.9"}
        for number, payload, calls in (
                (WEB_POLICY, web_policy("plain"), []),
                (WEB_POLICY, web_policy("safe", **vips), []),
                (WEB_INTF, web_binding(uuid="plain"), safe_search_calls("wlan0")),
                (WEB_INTF, web_binding("wlan1", "SAFE"), safe_search_calls("wlan1", **vips)),
                (WEB_INTF, web_binding("wlan2", "none"), []),
                (WEB_INTF, web_binding("wlan1", op=DELETE), []),
                (WEB_UTP, utp(64, "safe"), safe_search_calls(64, **vips)),
                (WEB_UTP, utp(64, ""), []),
                (WEB_INTF, web_binding("wlan3", "safe"), safe_search_calls("wlan3", **vips)),
                # The interface whose policy has the UTP, and the UTP.
                (WEB_POLICY, web_policy("new", utp_id=64, **other),
                 safe_search_calls("wlan3", **other) + safe_search_calls(64, **other)),
                (WEB_FLUSH, b"", [])):
            since = self.messages_so_far()
            command(number, payload)
            self.assertEqual(self.sent(OP_SAFESEARCH, since), calls)
        self.jorn.wait_line("Enable safe sarch for google and utp id 64 and wlan : safe search vip 91291851")
        self.jorn.wait_line("Enable safe sarch for Youtube and utp id 0 and wlan :wlan1 safe search vip -1")


FULL = {"filter_type": 1, "categories": [0, 5, 84, -7], "white": ["*.a.net", "b"], "black": ["c*"],
        "google": "203.0.113.5", "youtube": "255.255.255.255"}
FULL_LINE = "Office;U-1;1;4;0,5,84,-7,;2;*.a.net,b,;1;c*,;1;91291851;0;0;1;-1;\n"
WHOLE = ("[webPolicy]\n[policy]\n" + FULL_LINE + "[policy_end]\n\n"
         "[policy]\n;;4;0;-;0;-;0;-;0;0;0;0;0;0;\n[policy_end]\n\n[webPolicy end]\n[intfcfg]\n"
         "wlan0;1;7;3;u-1;\nwlan1;0;-1;3;;\nwlan2;1;7;3;none;\n[intfcfg end]\n")


class Files(WebTest):
    def configure(self):
        command(WEB_POLICY, web_policy("U-1", name="Office", utp_id=9, **FULL))
        command(WEB_POLICY, web_policy())
        command(WEB_INTF, web_binding("wlan0", "u-1"))
        command(WEB_INTF, web_binding("wlan1", "", enable=0, value=0xFFFFFFFF))
        command(WEB_INTF, web_binding("wlan2", "none"))

    def test_what_is_saved_comes_back(self):
        self.av.values["avc_enable/wlan0"] = "1"
        self.start()
        command(WRITE)
        self.assertEqual(read_file(FILE), EMPTY_FILE)
        self.configure()
        self.assertEqual(read_file(FILE), WHOLE)
        vips = {"google": FULL["google"], "youtube": FULL["youtube"]}
        for _ in range(2):
            since = self.messages_so_far()
            self.start()
            calls = [(op, body) for op, body in self.av.messages.items[since:] if op <= OP_SAFESEARCH]
            # The web file first, with its own switches; the empty binding finds the empty uuid.
            self.assertEqual(calls, [(OP_SAFESEARCH, call) for call in safe_search_calls("wlan0", **vips) +
                                     safe_search_calls("wlan1")] +
                             [(OP_SWITCH, struct.pack("=Ii24s", 2, 1, name)) for name in (b"wlan0", b"wlan2")] +
                             [(OP_RESET, b"")] + [(OP_SWITCH, struct.pack("=Ii24s", *switch))
                                                  for switch in ((1, 1, b"wlan0"), (4, 1, b""))])
            self.assertEqual(self.get("x.a.net"), web_flow("x.a.net", **WHITE))
            command(WRITE)
            self.assertEqual(read_file(FILE), WHOLE)
        self.assertEqual(self.get("x", src_if_name="wlan1", dst_if_name="wlan2"), web_flow(""))
        command(WEB_FLUSH)
        self.assertEqual(read_file(FILE), WHOLE)  # until the next change

    def test_files_that_were_edited_or_cut(self):
        bindings = WHOLE[WHOLE.index("[webPolicy end]"):]
        many = WHOLE.replace(";4;0,5,84,-7,;2;*.a.net,b,;", ";95;" + "1," * 95 + ";20;" + "n.n," * 20 + ";")
        for what, text, kept in (
                ("capitals", WHOLE.replace("[webPolicy]", "x[WEBPOLICY]x").replace("[policy_end]", "[POLICY_END]"), WHOLE),
                ("blanks", WHOLE.replace("wlan0;1;7;3;u-1;", " wlan0 ;\r1; 7;3 ; u-1 ;\r"), WHOLE),
                ("missing fields", WHOLE.replace(FULL_LINE, "Office;U-1;1\n"),
                 WHOLE.replace(FULL_LINE, "Office;U-1;1;0;-;0;-;0;-;0;0;0;0;0;0;\n")),
                ("counts", many, WHOLE.replace(";4;0,5,84,-7,;2;*.a.net,b,;",
                                               ";83;" + "1," * 83 + ";16;" + "n.n," * 16 + ";")),
                ("no section", bindings, EMPTY_FILE), ("cut in a block", WHOLE[:WHOLE.index("[policy_end]")],
                                                       EMPTY_FILE),
                ("behind the end", WHOLE + "wlan9;1;1;3;u;\n",
                 WHOLE.replace("[intfcfg end]", "wlan9;1;1;3;u;\n[intfcfg end]"))):
            with self.subTest(what):
                write_file(FILE, text)
                self.start()
                command(WRITE)
                self.assertEqual(read_file(FILE), kept)

    def test_listings_word_for_word(self):
        self.start()
        text = ("Filter_Type: CLEAN_AND_SAFE\tNo of Blocked categories:4\nBlocked categories:\n"
                "\tUncategorized\n\tSex education\n\t84\n\t-7\n\nWhitelist-Domains:\n\t*.a.net\n\tb\n\n"
                "Blacklist-Domains:\n\tc*\n\nGoogle Safe Search VIP: 203.0.113.5\n"
                "YouTube Safe Search VIP: 255.255.255.255\nBingSafeSearch: Disable\n\n")
        empty = ("No of Blocked categories:0\nWhitelist-Domains: Not Configured\n"
                 "Blacklist-Domains: Not Configured\nGoogleSafeSearch: Disable\n"
                 "YoutubeSafeSearch: Disable\nBing Safe Search VIP: 203.0.113.9\n\n")
        self.configure()
        command(WEB_POLICY, web_policy("odd", filter_type=7, bing="203.0.113.9"))
        command(WEB_UTP, utp(64, "odd", "Guests"))
        command(WEB_UTP, utp(3, "", "Nobody"))
        command(WEB_INTF, web_binding("sixteen-letters.", "odd", enable=2))
        for payload, says in ((b"wlan0", "Enable\tPolicy UUID: u-1\n" + text),
                              (b"sixteen-letters.", "Disable\tPolicy UUID: odd\n" + empty),
                              (b"wlan2", "Enable\n\n==== No URL Filtering Policy Attached ====\n")):
            self.assertEqual(command(SHOW_INTF, payload).decode(), "\nURL Filtering is: " + says)
        for payload in (b"", b"wlan", b"x" * 31, b"wlan\n"):
            shown = payload.decode().replace("\n", "?")
            self.assertEqual(command(SHOW_INTF, payload).decode(), f"\nInterface {shown} not present \n")
        for payload, length in ((b"x" * 32, 32), (b"wlan0", 16)):  # too long; more than came
            self.assertEqual(command(SHOW_INTF, payload, length=length), b"")
        for number, says in (
                (0, "\n Invalid UTP ID \n"), (65, "\n Invalid UTP ID \n"), (5, "\nUTP ID 5 not preset \n"),
                (3, "\nUTP Name: Nobody \tID: 3\n\n==== No Web Policy Attached ====\n"),
                (9, "\nUTP Name:  \tID: 9 \nPolicy Name: Office \tPolicy UUID: U-1 \n" + text),
                (64, "\nUTP Name: Guests \tID: 64 \nPolicy Name:  \tPolicy UUID: odd \n" + empty)):
            self.assertEqual(command(SHOW_UTP, struct.pack("=I", number)).decode(), says)
        # The fullest policy of our category names is shown whole.
        self.bind("full", categories=range(1, 84), white=["w" * 64] * 16, black=["b" * 64] * 16)
        self.assertIn("BingSafeSearch: Disable\n\n", command(SHOW_INTF, b"wlan0").decode()[-30:])
        self.assertEqual(jornctl("show", "url", "wlan0")[2], "")
        vips = dict.fromkeys(("google", "youtube", "bing"), "255.255.255.255")
        self.bind("fuller", categories=[53] * 83, white=["w" * 64] * 16, black=["b" * 64] * 16,
                  filter_type=2, **vips)
        self.assertIn("url: the policy is cut", jornctl("show", "url", "wlan0")[2])


if __name__ == "__main__":
    unittest.main()
