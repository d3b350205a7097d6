"""Every kind of frame, from the wire to the 232 bytes of its verdict."""
from testbed import *

# What it is, the frame, its verdict.
FRAMES = [
    ("TCP", tcp_frame(40000, 443), flow(40000, 443, 6, app_name="miscellaneous-https")),
    ("UDP", udp_frame(40000, 53, b"query"), flow(40000, 53, 17, app_name="dns")),
    ("ICMP", ipv4_frame(1, icmp_echo()), flow(protocol=1, app_name="icmp")),
    ("IGMP", ipv4_frame(2, bytes(8)), flow(protocol=2)),
    ("another IP protocol", ipv4_frame(47, bytes(24)), flow(protocol=47)),
    ("IPv4 options", udp_frame(1000, 2000, options=b"\x94\x04\0\0"), flow(1000, 2000, 17)),
    ("the longest IPv4 header", tcp_frame(1000, 2000, options=bytes(40)), flow(1000, 2000, 6)),
    ("first UDP fragment", udp_frame(1000, 2000, more=True), flow(1000, 2000, 17)),
    ("first TCP fragment", tcp_frame(1000, 2000, more=True), flow(protocol=6)),
    ("first ICMP fragment", ipv4_frame(1, icmp_echo(), more=True), flow(protocol=1)),
    ("later UDP fragment", udp_frame(1000, 2000, offset=185), flow(protocol=17)),
    ("padding behind the packet", tcp_frame(1000, 2000) + b"padding",
     flow(1000, 2000, 6)),
    ("ARP", ethernet(0x0806, arp_request()), Verdict(app_name="arp")),
    ("reverse ARP", ethernet(0x8035, arp_request()), Verdict(app_name="arp")),
    ("IPv4 behind a VLAN tag", ethernet(0x0800, ipv4(17, udp(1000, 2000)), vlan=100),
     flow(1000, 2000, 17)),
    ("PPPoE behind a VLAN tag", ethernet(0x8864, pppoe_session(ipv4(17, udp(5, 6))), vlan=1),
     flow(5, 6, 17, app_name="remote-job-entry")),
    ("IPv6", ethernet(0x86DD, b"\x60" + bytes(59)), Verdict()),
    ("unknown type", ethernet(0x88B5, bytes(46)), Verdict()),
    ("an IEEE 802.3 length", ethernet(46, bytes(46)), Verdict()),

    # Lengths that lie. Nothing is read past the frame, and the trailer is no part of it.
    ("no byte of a frame", b"\0", Verdict(dst_mac="00:00:00:00:00:00", src_mac="00:00:00:00:00:00")),
    ("13 bytes", mac(SERVER_MAC) + mac(CLIENT_MAC) + b"\x08",
     Verdict(dst_mac="00:00:00:00:00:00", src_mac="00:00:00:00:00:00")),
    ("Ethernet header alone", ethernet(0x0800), Verdict()),
    ("19 bytes of IPv4", ethernet(0x0800, ipv4(6)[:19]), Verdict()),
    ("IPv4 header alone", ipv4_frame(6), flow(protocol=6)),
    ("4 words of IPv4 header", tcp_frame(1000, 2000, words=4), flow(protocol=6)),
    ("an IPv4 header longer than the frame", ipv4_frame(17, udp(1, 2), words=15), flow(protocol=17)),
    ("an IPv4 header longer than the packet", tcp_frame(1000, 2000, words=7, total=24),
     flow(protocol=6)),
    ("total length 0", tcp_frame(1000, 2000, total=0), flow(1000, 2000, 6)),
    ("a total length that cuts the TCP header", tcp_frame(1000, 2000, total=39),
     flow(1000, 2000, 6)),
    ("19 bytes of TCP", ipv4_frame(6, tcp(1000, 2000)[:19]), flow(protocol=6)),
    ("7 bytes of UDP", ipv4_frame(17, udp(1000, 2000)[:7], total=65535), flow(protocol=17)),
    ("no byte of ICMP", ipv4_frame(1), flow(protocol=1, app_name="icmp")),
    ("TCP offset beyond the segment", ipv4_frame(6, tcp(80, 2000, b"HTTP/1.1 302 ", words=15)),
     flow(80, 2000, 6, app_name="miscellaneous-http")),
    ("TCP offset below the header", ipv4_frame(6, tcp(80, 2000, http_302(" x"), words=0)),
     flow(80, 2000, 6, app_name="miscellaneous-http")),
    ("a VLAN tag and no type", ethernet(0x8100, b"\0\x64"), Verdict()),
    ("7 bytes of PPPoE", ethernet(0x8864, pppoe_session(b"")[:7]), Verdict()),
    ("PPPoE header alone", ethernet(0x8864, pppoe_session(b"")), Verdict()),
    ("no byte of ARP", ethernet(0x0806), Verdict()),
    ("the longest frame", tcp_frame(1000, 2000, bytes(65259 - 54)), flow(1000, 2000, 6)),
]


class Verdicts(SystemTest):
    def test_each_kind_of_frame_field_by_field(self):
        self.platform()
        self.daemon()
        verdicts = self.judge([frame for _, frame, _ in FRAMES])
        for (what, _, expected), verdict in zip(FRAMES, verdicts, strict=True):
            with self.subTest(what):
                self.assertEqual(dataclasses.asdict(verdict), dataclasses.asdict(expected))

    def test_captures_without_a_trailer_are_all_frame(self):
        self.platform()
        daemon = self.daemon("-d")
        padded = udp_frame(1000, 2000).ljust(276, b"\0")
        for size, conflict in ((60, True), (276, True), (277, False)):
            with self.subTest(size=size):
                lines = len(daemon.lines)
                self.assertEqual(self.judge([padded.ljust(size, b"\0")[:size]], b""), [
                    flow(1000, 2000, 17) if conflict else
                    Verdict(dst_mac="00:00:00:00:00:00", src_mac="00:00:00:00:00:00")])
                self.lines_so_far(daemon)
                said = "\n".join(daemon.lines.items[lines:])
                self.assertIn(f"cap len {size} and len 276", said)
                self.assertEqual("conflict in received packet len" in said, conflict)

    def test_the_trailer_is_read(self):
        self.platform()
        daemon = self.daemon("-d")
        self.judge([tcp_frame(1, 2)], trailer(flow_id=77, dpi_retry=-1, url_retry=3, filter_type=6,
                                              src_if_index=12, src_if_name="wlan0-fifteen16",
                                              dst_if_index=13, dst_if_name="eth0-with-16-ch."))
        for line in ("The flow id is 77, dpi_retry = -1 and url retry 3, filter type 6",
                     "The received indexes are SRC: 12 wlan0-fifteen16, DST: 13 eth0-with-16-ch."):
            self.assertIn("jorn_detect_pkt_utp: ", daemon.wait_line(line))


class Flood(SystemTest):
    def test_twenty_thousand_frames_are_answered_in_their_order(self):
        self.platform()
        daemon = self.daemon()
        sent = range(20_000)
        verdicts = self.judge([udp_frame(n // 1000, n % 1000) for n in sent], burst=BURST)
        self.assertEqual([v.src_port * 1000 + v.dst_port for v in verdicts], list(sent))
        self.assertEqual(daemon.lines.items, [])

    def test_neither_a_lone_frame_nor_a_burst_waits_for_the_next(self):
        # The wait times out after five seconds: a frame that only then turned up was stranded.
        self.platform()
        self.daemon()
        self.judge([udp_frame(1, n) for n in range(50)], timeout=4)
        self.judge([udp_frame(2, n) for n in range(10 * BURST)], burst=BURST, timeout=4)


if __name__ == "__main__":
    unittest.main()
