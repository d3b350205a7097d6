"""The daemon's listings, and what jornctl says of them."""
from records import *

USERDEF_SHOW, PORT_SHOW, UTP_SHOW, INTF_SHOW, WEB_SHOW, CARRIER_SHOW = 7, 14, 25, 32, 33, 37
SENT = ("sent 1 policy, 2 UTPs, 1 application, 1 web policy, 1 web UTP, 1 web interface, 1 carrier, "
        "1 Wi-Fi calling interface\n")
EXAMPLE = os.path.join(os.path.dirname(__file__), "../../examples/access-point.json")
REPLY_MAX = 122_879


class Listings(JudgingTest):
    def test_texts(self):
        self.assertEqual(command(USERDEF_SHOW), b"\n====User Defined Applications Policies====\n")
        self.assertEqual(command(PORT_SHOW), b"\n====JORN port app list====\nTOTAL:0\n")
        self.assertEqual(command(UTP_SHOW), b"\n No UTP configured! \n")
        same = {"dst": "10.0.0.0", "mask": "255.0.0.0", "port": 80, "app_id": 7, "cat_id": 8}
        command(USERDEF, userdefs(userdef("four", protocol=6, **same),
                                  userdef("six", protocol=1, family=10, **same)))
        self.assertEqual(command(USERDEF_SHOW), b"""
====User Defined Applications Policies====
NO:1
\t bitmap: 1c \n\t dst ip family:IPv4\tdst ip:10.0.0.0
\t dst netmask:255.0.0.0\t dst port :80\t protocol type:TCP
\t application name:four \t application id: 7\t category id: 8

NO:2
\t bitmap: c \n\t dst ip family:IPv6\t dst port :80\t protocol type:Unknown
\t application name:six \t application id: 7\t category id: 8

""")
        for utp_id, name in ((64, "last"), (2, "first")):
            command(UTP, utp(utp_id, name=name))
        self.assertEqual(command(UTP_SHOW), b"""
\tUTP Name  : first
\tUTP ID    : 2
\tAVC policy: None
\tWeb policy: None

\tUTP Name  : last
\tUTP ID    : 64
\tAVC policy: None
\tWeb policy: None
""")

    def test_more_than_an_answer_holds(self):
        names = sorted("n" * 60 + f"{i:04}" for i in range(1025))
        write_file(PORT_SERVICE_FILE, "".join(f"{i + 1},tcp,1,1,{name}\n" for i, name in enumerate(names)))
        command(PORT_SERVICES)
        text = command(PORT_SHOW).decode()
        entries = text.split("NO:")
        self.assertEqual(entries[0], "\n====JORN port app list====\nTOTAL:1025\n")
        self.assertEqual(entries[-1], f"""{len(entries) - 1}
\t application name: {names[len(entries) - 2]}
\t begin port: {len(entries) - 1}
\t end port: {len(entries) - 1}
\t tcp proto flag: 1
\t udp proto flag: 0

""")
        self.assertLess(REPLY_MAX - len(text), len(entries[-1]) + 3)
        status, said, complaints = jornctl("show", "port-services", "--json")
        self.assertEqual((status, len(json.loads(said)["entries"]), complaints), (
            0, len(entries) - 1, "jornctl: warning: port-services: "
            f"{len(entries) - 1} of 1025 shown, for want of room\n"))

    def test_bindings_that_a_document_does_not_name(self):
        self.assertEqual(jornctl("apply", EXAMPLE)[0], 0)
        other = {"carriers": [{"pname": "c", "priority": 1}],
                 "wificalling_interfaces": [{"ifname": "wlan1", "profile": ["C"]}]}
        complaints = jornctl("apply", "-", document=other)[2]
        self.assertIn("/carriers: interface wlan0 loses its carriers", complaints)
        shown = json.loads(jornctl("show", "--json", "wifi-calling")[1])
        self.assertEqual([binding["ifname"] for binding in shown], ["wlan0", "wlan1"])

    def test_utps_whose_tables_or_policies_the_document_lacks(self):
        for document, said in (
                (None, ()),
                ({"utps": [{"id": 3, "uuid": "u"}]},
                 ("/utps: the web UTP table is emptied with this one: 10",
                  "/utps/0/uuid: the daemon has no policy")),
                ({"web_utps": [{"id": 7, "uuid": "u"}]},
                 ("/web_utps: the ARC UTP table is emptied with this one: 3",
                  "/web_utps/0/uuid: the daemon has no policy")),
                ({"web_policies": [{"uuid": "w"}], "web_interfaces": []},
                 ("/web_policies: web UTPs stay in use, without a policy: 7",)),
                ({"utps": [{"id": 3}]}, ("/utps: the web UTP table is emptied with this one: 7",)),
                ({"utps": [{"id": 3}], "web_utps": []}, ())):
            with self.subTest(document):
                where = "-" if document else EXAMPLE
                status, _, complaints = jornctl("apply", where, document=document)
                self.assertEqual((status, complaints.count("\n")), (0, len(said)), complaints)
                for part in said:
                    self.assertIn(part, complaints)
        # That the daemon has no policy at all is known before anything is sent.
        lonely = {"utps": [{"id": 9, "uuid": "u"}], "web_utps": []}
        for policies, utp in ([], None), ([{"utp_id": 1}], 9):
            jornctl("apply", "-", document={"policies": policies, "utps": [], "web_utps": []})
            status, sent, complaints = jornctl("apply", "--strict", "-", document=lonely)
            self.assertEqual((status, sent == "", "/utps/0/uuid: the daemon has no" in complaints),
                             (1, utp is None, True), complaints)
            self.assertEqual(utp is not None, "UTP ID    : 9" in jornctl("show", "utps")[1])


if __name__ == "__main__":
    unittest.main()
