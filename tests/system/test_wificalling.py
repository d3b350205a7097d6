"""Wi-Fi calling: carriers and bindings by command, the traffic that they tag, the file, the listing."""
from records import *

SHOW, FLUSH = 37, 38
FILE = "/writable/jorn/wificalling_config.txt"
WIFICALLING = 4  # of filter_type


def whole(carriers, bindings):
    return ("[wificallingPolicy]\n" + "".join(f"[policy]\n{line}\n[policy_end]\n\n" for line in carriers)
            + "[wificallingPolicy end]\n\n[intfcfg]\n" + "".join(f"{line}\n" for line in bindings)
            + "[intfcfg end]\n")


def unchanged_save():
    """A command that is refused rewrites the file all the same."""
    command(CARRIER_BINDING, carrier_binding("nobody's", enable=0))
    return read_file(FILE)


A = "A;alt;5;2;one,10.0.0.1,two,0.0.0.0;"
# What is sent for carrier A as its first ePDG and its priority, what the log says, the new line.
UPDATES = [
    (5, ("one", "10.0.0.1"), "Policy already exists!", A),
    (-9, ("one", "10.0.0.1"), "Update on priority. Change from 5 to -9",
     "A;alt;-9;2;one,10.0.0.1,two,0.0.0.0;"),
    (5, ("one", "10.0.0.9"), "New ipaddr 10.0.0.9 for carrier policy A",
     "A;alt;5;2;one,10.0.0.9,two,0.0.0.0;"),
    (5, ("uno", "10.0.0.1"), "New fqdn uno for carrier policy A",
     "A;alt;5;2;uno,10.0.0.1,two,0.0.0.0;"),
    (5, ("two", "10.0.0.1"), "New fqdn two for carrier policy A",
     "A;alt;5;2;two,10.0.0.1,two,0.0.0.0;"),  # the entry before the one of that name
    (5, ("Two", "0.0.0.0"), "New fqdn Two and ipaddr 0.0.0.0 for carrier policy A",
     "A;alt;5;3;one,10.0.0.1,two,0.0.0.0,Two,0.0.0.0;"),
    (6, ("", "0.0.0.0"), "New fqdn  and ipaddr 0.0.0.0 for carrier policy A",
     "A;alt;6;3;one,10.0.0.1,two,0.0.0.0,,0.0.0.0;"),
]

# Commands whose texts or counts are wrong, and what the log says.
REFUSED = [
    (CARRIER, carrier("A\tB", 1), "0x09, at byte 1"),
    (CARRIER, carrier("A", 1, ("x\x7f", "1.1.1.1")), "0x7f, at byte 1"),
    (CARRIER, carrier("A", 1, ("x\n", "1.1.1.1"), count=0), "0x0a, at byte 1"),  # an update
    (CARRIER, carrier("B", 1, alt="x[Policy_End]"), 'alt_name holds "[policy_end]"'),
    (CARRIER_BINDING, carrier_binding("wlan0", "A", "[INTFCFG end]"), 'profile holds "[intfcfg end]"'),
    (CARRIER_BINDING, carrier_binding("wl\rn0", "A"), "0x0d, at byte 2"),
    (CARRIER_BINDING, carrier_binding("wlan9", "a b"), "No such policy 'a b' is configured for wlan wlan9"),
    (CARRIER_BINDING, carrier_binding("WLAN0", enable=0), "Interface: WLAN0 not found"),
    (CARRIER_BINDING, b"\0", "Interface:  not found"),
]

# A file that was edited or cut, and what is written after it was read.
EDITED = [
    (whole([A], ["wlan0;1;7;1;A;"]).replace("[wificallingPolicy]", ""), whole([], [])),
    (whole([A, A.replace("A", "B", 1)], [])[:-60], whole([A], [])),
    (whole(["A;;5;9;" + ",".join(f"{i},1.1.1.{i}" for i in range(9)) + ";x", "B;;x;256;b,1.1.1.1;",
            "C;c;1;2;,,c,1.1.1.1.1;"], ["wlan0;1;0;-3;A;", "wlan1;256;0;1;A;", "wlan2;3;0;7;,x,a;"]),
     whole(["A;;5;5;" + ",".join(f"{i},1.1.1.{i}" for i in range(5)) + ";", "B;;0;0;,0.0.0.0;",
            "C;c;1;2;,0.0.0.0,c,0.0.0.0;"], ["wlan2;3;0;5;,x,a,,;"])),
    (whole([A + "\r\n", A.replace("one", "no") + "\n" + A.replace("A", "B", 1)],
           ["wlan0;1;0;1;A;\r", "[intfcfg end]", "WLAN0;1;0;1;b;", "w;1;0;1;none;", "wlan1;1;0;1;a",
            "wlan1;0;0;0;"]),
     whole([A, A.replace("A", "B", 1)], ["wlan0;1;0;1;b;"])),
]


class WifiCalling(JudgingTest):
    def say(self, number, payload, says):
        since = self.lines_so_far(self.jorn)
        command(number, payload)
        self.jorn.wait_line(says, since=since)

    def judge_ike(self, src_port=4500, dst_port=33000, *, src_if="wlan0", dst_if="eth0",
                  asked=WIFICALLING, protocol=udp_frame, utp=0, **header):
        return self.judge([protocol(src_port, dst_port, **header)],
                          trailer(filter_type=asked, src_if_name=src_if, dst_if_name=dst_if,
                                  src_utp_id=utp))[0]

    def assertTagged(self, judged, name, priority, fqdn):
        self.assertEqual(judged, flow(
            judged.src_port, judged.dst_port, 17, src=judged.src_ip, dst=judged.dst_ip,
            app_name=name, wfc_fqdn=fqdn, mark_pri=2, mark_type=priority, classify=1,
            classify_type=priority, wificalling_f=5))

    def assertUntagged(self, judged):
        self.assertEqual((judged.wificalling_f, judged.mark_pri, judged.wfc_fqdn), (0, 255, ""))

    def test_carriers(self):
        for priority, epdg, says, line in UPDATES:
            with self.subTest(says):
                command(FLUSH)
                self.say(CARRIER, carrier("A", 5, ("one", "10.0.0.1"), ("two", "0.0.0.0")),
                         "Added wificalling policy first node")
                self.say(CARRIER, carrier("A", priority, epdg, alt="[policy_end]\t"), says)
                self.assertEqual(read_file(FILE), whole([line], []))
        for i in range(2):
            command(CARRIER, carrier("A", 6, (f"e{i}", f"10.1.0.{i}")))
        for epdg, says in ((("e1", "10.1.0.1"), "Policy already exists!"),
                           (("six", "10.6.6.6"), "Max allowed epdg reached on pname 'A'")):
            self.say(CARRIER, carrier("A", 8, epdg), says)
        # A name in another case is another carrier, which keeps all that was sent.
        command(CARRIER, carrier("a", 1, ("x" * 300, "1.2.3.4"), ("", "0.0.0.0"), alt=""))
        self.assertEqual(read_file(FILE), whole(
            ["A;alt;8;5;one,10.0.0.1,two,0.0.0.0,,0.0.0.0,e0,10.1.0.0,e1,10.1.0.1;",
             f"a;;1;2;{'x' * 255},1.2.3.4,,0.0.0.0;"], []))
        self.say(CARRIER, carrier("n" * 70, 1, ("f", "1.1.1.1"), count=200), "200 is cut to 5")
        self.assertIn(f"{'n' * 64};alt;1;5;f,1.1.1.1{',,0.0.0.0' * 4};", read_file(FILE))

    def test_bindings(self):
        for name, priority in (("Tel", 1), ("A", 2), ("TEL", 3)):
            command(CARRIER, carrier(name, priority, (name, "192.0.2.5")))
        command(CARRIER_BINDING, carrier_binding("wlan0", "tel", "none", value=-7))
        self.assertTagged(self.judge_ike(), "tel", 3, "TEL")  # the later of the two
        for number, payload, says in REFUSED:
            with self.subTest(says):
                before = read_file(FILE)
                self.say(number, payload, says)
                self.assertEqual(read_file(FILE), before)
        self.say(CARRIER_BINDING, carrier_binding("WLAN0", "a", enable=9, value=5), "Updating Existing node !")
        self.assertTrue(read_file(FILE).endswith("[intfcfg]\nwlan0;1;-7;1;a;\n[intfcfg end]\n"))
        self.assertTagged(self.judge_ike(), "a", 2, "A")
        self.say(CARRIER_BINDING, carrier_binding("wlan0", "gone", "[policy_end]", count=2), "No such policy 'gone'")
        self.assertEqual(command(SHOW), b"Interface Name: wlan0\n(1) Policy Name: gone\n"
                                        b"(2) Policy Name: [policy_end]\n\n")
        self.assertUntagged(self.judge_ike())
        self.say(CARRIER_BINDING, carrier_binding("a-name-of-19-bytes!", "A", "", "", "", "", count=9), "9 is cut to 5")
        self.assertIn("\na-name-of-19-byt;1;0;5;A,,,,;\n", read_file(FILE))
        self.say(CARRIER_BINDING, carrier_binding("wlan0", count=-1), "-1 is cut to 0")
        self.assertIn("\nwlan0;1;-7;0;;\n", read_file(FILE))
        # A flush takes the carriers from the bindings until they are sent again.
        command(CARRIER_BINDING, carrier_binding("wlan0", "A"))
        before = read_file(FILE)
        command(FLUSH)
        self.assertEqual(read_file(FILE), before)
        self.assertUntagged(self.judge_ike())
        command(CARRIER, carrier("A", 7, ("new", "192.0.2.5")))
        self.assertUntagged(self.judge_ike())
        command(CARRIER_BINDING, carrier_binding("wlan0", "A"))
        self.assertTagged(self.judge_ike(), "a", 7, "new")
        command(CARRIER_BINDING, carrier_binding("wlan0", enable=0))
        self.assertUntagged(self.judge_ike())

    def test_detection(self):
        for block in (carrier("CarrierA", 3, ("other", "203.0.113.1"), ("epdg.A.example", "192.0.2.5")),
                      carrier("Names", 0x102, ("EPDG.b.example", "0.0.0.0")),
                      carrier("Silent", 0xFF, ("none.example", "0.0.0.0"))):
            command(CARRIER, block)
        for block in (carrier_binding("wlan0", "x", "carriera", "Names", "Silent"), carrier_binding("wlan1", "Names"),
                      carrier_binding("sixteen-letters!", "Names"), carrier_binding("wlan2", "Names"),
                      carrier_binding("wlan1", "gone"), carrier_binding("wlan2")):
            command(CARRIER_BINDING, block)
        a, b = ("carriera", 3, "epdg.A.example"), ("names", 2, "x.epdg.B.example.net")
        self.av.domains |= {"198.51.100.7": (1, 1, 1, b[2]), "198.51.100.8": (0, 1, 1, ""),
                            "198.51.100.9": (1, 1, 1, "none.example"), "198.51.100.10": (1, 1, 0, b[2]),
                            "198.51.100.11": (1, 1, 1, "epdg.b.example" + "y" * 242)}
        named = {"dst": "198.51.100.7"}
        for what, how, tagged in (
                ("by address, to a port", {}, a), ("from a port", {"src_port": 9, "dst_port": 500}, a),
                ("to the subscriber", {"src": SERVER, "dst": CLIENT, "src_if": "eth0", "dst_if": "wlan0"}, a),
                ("by name", named, b), ("by name from the cache", named, b),
                ("by the source's name", {"src": "198.51.100.7", "dst": "198.51.100.10"}, b),
                ("a longer name", {"dst": "198.51.100.11"}, ("names", 2, "epdg.b.example" + "y" * 49)),
                ("a full interface name", named | {"src_if": "sixteen-letters!"}, b),
                ("a source binding without names", {"src_if": "wlan2", "dst_if": "wlan0"}, a),
                ("a source binding without carriers", {"src_if": "wlan1", "dst_if": "wlan0"}, None),
                ("not its carrier", {"src_if": "sixteen-letters!"}, None),
                ("the interface in capitals", {"src_if": "WLAN0"}, None),
                ("other ports", {"src_port": 501}, None), ("TCP", {"protocol": tcp_frame}, None),
                ("not asked for", {"asked": 3}, None), ("no address", {"src": "0.0.0.0", "dst": "0.0.0.0"}, None),
                ("an empty name", {"dst": "198.51.100.8"}, None)):
            with self.subTest(what):
                judged = self.judge_ike(**how)
                self.assertTagged(judged, *tagged) if tagged else self.assertUntagged(judged)
        # 255 is no tag: the flow goes on to its UTP's policy, under its name.
        command(POLICY, policy(1, rule("none.example", deny=1)))
        self.assertEqual(self.judge_ike(dst="198.51.100.9", utp=1).verdict, 3)
        # An empty FQDN fits every name but the empty one; a failed question ends the look-up.
        command(CARRIER, carrier("Any", 1, ("", "0.0.0.0")))
        command(CARRIER_BINDING, carrier_binding("wlan0", "Any"))
        self.assertTagged(self.judge_ike(**named), "any", 1, b[2])
        self.assertUntagged(self.judge_ike(dst="198.51.100.8"))
        self.av.answers[OP_DOMAIN] = lambda _: (-1, b"")
        self.assertUntagged(self.judge_ike(src="198.51.100.7", dst="198.51.100.12"))
        self.jorn.wait_line("No Match in FQDN. Lets see if ZEG cache has FQDN-IP map")
        self.jorn.wait_line("[Cache Request] <ifname wlan0> Do you have FQDN for IPv4 C6433")

    def test_tables_end_at_their_limits(self):
        write_file(FILE, whole([f"c{n};;1;1;,192.0.2.5;" for n in range(1024)],
                               [f"w{n};1;0;1;C7;" for n in range(1024)]))
        self.start()
        self.say(CARRIER, carrier("more", 1), "the carrier more is refused: there are 1024")
        self.say(CARRIER_BINDING, carrier_binding("more", "c7"),
                 "the binding of more is refused: there are 1024")
        command(CARRIER_BINDING, carrier_binding("W0", "c9"))  # what is there can still be changed
        for ifname, name in (("w0", "c9"), ("w1023", "c7")):
            self.assertTagged(self.judge_ike(src_if=ifname), name, 1, "")

    def test_listing(self):
        self.assertEqual(command(SHOW), b"")
        epdgs = [[(f"{i}.{j}." + "f" * 250, f"10.{i}.{j}.1") for j in range(i)] for i in range(6)]
        for i, list_of in enumerate(epdgs):
            command(CARRIER, carrier(f"c{i}", i, *list_of))
        text = ""
        for ifname, numbers in (("wlan0", [1]), ("wlan1", [0, 5, 3])):
            command(CARRIER_BINDING, carrier_binding(ifname, *[f"C{n}" for n in numbers]))
            text += f"Interface Name: {ifname}\n"
            for place, n in enumerate(numbers, 1):
                *first, (name, address) = [(f[:255], a) for f, a in epdgs[n]] or [("", "0.0.0.0")]
                text += (f"({place}) Policy Name: C{n}\nPriority: {n}\nFQDN: "
                         + "".join(f"{f}," for f, _ in first) + f" {name}\nIPaddr:"
                         + "".join(f" {a}," for _, a in first) + f"{address}\n\n")
            text += "\n"
        self.assertEqual(command(SHOW).decode(), text)

    def configure(self):
        command(CARRIER, carrier("CarrierA", 5, ("epdg-1", "192.0.2.5"), ("", "10.0.0.2"), alt=""))
        command(CARRIER, carrier("CarrierB", -1))
        command(CARRIER_BINDING, carrier_binding("wlan0", "carriera", "None"))
        command(CARRIER_BINDING, carrier_binding("wlan1", "CarrierB", enable=2, value=-4))
        return whole(["CarrierA;;5;2;epdg-1,192.0.2.5,,10.0.0.2;", "CarrierB;alt;-1;0;,0.0.0.0;"],
                     ["wlan0;1;0;2;carriera,None;", "wlan1;2;-4;1;CarrierB;"])

    def test_what_is_saved_comes_back(self):
        expected = self.configure()
        self.assertEqual(read_file(FILE), expected)
        listing = command(SHOW)
        for _ in range(2):
            since = self.messages_so_far()
            self.start()
            self.assertEqual([body for op, body in self.av.messages.items[since:] if op == OP_SWITCH],
                             [struct.pack("=Ii24s", 3, 1, b"wlan0")])
            self.assertEqual(command(SHOW), listing)
            self.assertTagged(self.judge_ike(), "carriera", 5, "epdg-1")
            self.assertEqual(unchanged_save(), expected)
        command(FLUSH)
        self.assertEqual(read_file(FILE), expected)
        self.assertEqual(self.jorn.stop(), 0)
        self.av.kill()
        self.jorn = self.daemon()
        self.jorn.wait_line("Wi-Fi calling isn't switched on for wlan0: the platform wasn't told")

    def test_files_that_were_edited_or_cut(self):
        for text, written in EDITED:
            with self.subTest(text[:200]):
                write_file(FILE, text)
                self.start()
                self.assertEqual(unchanged_save(), written)


if __name__ == "__main__":
    unittest.main()
