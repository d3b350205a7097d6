"""How a flow gets its name: from DNS, from the DPI engine, from its addresses."""
from records import *

DPI = 2  # the trailer's filter_type: a DPI result is there
MORE, KNOWN, FAILED = 1, 2, 3
HIT = (1, 1, 1)


class Naming(JudgingTest):
    values = {"tm_support": "1"}

    def questions(self):
        return [socket.inet_ntoa(body[:4]) for op, body in self.av.messages.items
                if op == OP_DOMAIN]

    def name(self, frame, **fields):
        return self.judge([frame], trailer(**fields))[0]

    def test_dns_names_are_asked_for_once(self):
        self.av.domains["198.51.100.1"] = (*HIT, "WWW.Example.com")
        out = tcp_frame(40000, 40001, dst="198.51.100.1")
        back = tcp_frame(40001, 40000, src="198.51.100.1", dst=CLIENT)
        self.assertEqual(self.name(out).app_name, "www.example.com")
        self.assertEqual(self.questions(), ["198.51.100.1"])
        self.assertEqual(self.name(out).app_name, "www.example.com")
        # The way back: the client has no name, the server's is in the cache.
        self.assertEqual(self.name(back).app_name, "www.example.com")
        self.assertEqual(self.questions(), ["198.51.100.1", CLIENT])
        self.assertEqual(command(DNS_SHOW),
                         b"\n====JORN DNS CACHE====\nTOTAL:1\nNO:1\n\t dst ip: 198.51.100.1\n"
                         b"\t application name: WWW.Example.com\n\t aging time: 0\n\n")

    def test_an_error_is_in_the_log(self):
        self.av.answers[OP_DOMAIN] = lambda _: (-1, b"")
        self.assertEqual(self.name(tcp_frame(40000, 40001)).app_name, f"{CLIENT} {SERVER}:40001")
        self.assertEqual(self.questions(), [SERVER])
        self.assertIn("jorn_detect_pkt_dns_app",
                      self.jorn.wait_line("psms_get_dn_by_ip return error"))

    def test_a_name_breaks_no_line(self):
        self.av.domains[SERVER] = (*HIT, "two\nlines\x1b[2J")
        self.name(tcp_frame(40000, 40001))
        self.assertIn(b"\t application name: two?lines?[2J\n", command(DNS_SHOW))


class EngineAbsent(SystemTest):
    def test_its_results_are_ignored(self):
        av = self.platform()
        result = trailer(filter_type=DPI, dpi_status=KNOWN, dpi_app_id=1, dpi_app_name="YouTube")
        for values in ({}, {"tm_support": "0"}):  # nothing is said of it; there is none
            av.values = values
            self.start()
            self.assertEqual(self.judge([tcp_frame(40000, 40001)], result), [flow(40000, 40001, 6)])
        self.assertFalse([op for op, _ in av.messages.items if op == OP_SWITCH])


if __name__ == "__main__":
    unittest.main()
