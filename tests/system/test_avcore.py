"""avcore and the daemon together: a capture file in, a table of named and judged flows out."""
import fcntl
import resource

from records import *

YOUTUBE, PLAIN, RESOLVER = "198.51.100.1", "198.51.100.2", "198.51.100.53"
MOVED = "198.51.100.5"
WAITS = "avcore: waiting for a daemon to answer the first frame\n"  # after a second
CLOUD = "20.42.0.5"  # nDPI's address lists call it an application of its own
QUIC = "198.51.100.6"
SEEDS = os.path.join(os.path.dirname(os.path.realpath(__file__)), "../../fuzz/corpus/quic_hello")


def pcap(frames, link_type=1, claimed=0):
    packets = b"".join(struct.pack("=IIII", 1_700_000_000 + n // 1000, n % 1000 * 1000, len(frame),
                                   claimed or len(frame)) + frame for n, frame in enumerate(frames))
    return struct.pack("=IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 262_144, link_type) + packets


def from_server(address, port, to, payload):
    return ethernet(0x0800, ipv4(17, udp(port, to, payload), src=address, dst=CLIENT),
                    src=SERVER_MAC, dst=CLIENT_MAC)


def recorded_datagrams(seed):
    """Those in a seed of the fuzz target for QUIC's hellos."""
    with open(os.path.join(SEEDS, seed), "rb") as file:
        while head := file.read(3):
            yield file.read(int.from_bytes(head[1:], "big"))


TRAFFIC = [
    ipv4_frame(1, icmp_echo(), dst=PLAIN),
    from_server(RESOLVER, 53, 40053, dns_answer("www.plain.example", "cdn.example", PLAIN)),
    tcp_frame(40001, 8099, b"hello", dst=PLAIN),
    tcp_frame(40002, 443, client_hello("www.youtube.com"), dst=YOUTUBE),
    tcp_frame(443, 40002, b"\x16\x03\x03\x00\x02ok", src=YOUTUBE, dst=CLIENT),
    tcp_frame(40003, 443, client_hello("www.example.org"), src=CLOUD, dst=PLAIN),
    tcp_frame(40004, 443, client_hello("portal.azure.com"), dst=CLOUD),
    # A redirect away from the address, which teaches the daemon.
    tcp_frame(40010, 80, b"GET / HTTP/1.1\r\nHost: moved.example\r\n\r\n", dst=PLAIN),
    tcp_frame(80, 40010, http_302(f" http://{MOVED}/"), src=PLAIN, dst=CLIENT),
    tcp_frame(40011, 8445, b"later", dst=MOVED),
    # A browser's hello, in pieces and in two of them, before which DNS was encrypted.
    *[udp_frame(40012, 443, datagram, dst=QUIC) for datagram in recorded_datagrams("chromium")],
    ethernet(0x0806, arp_request()),
    # Read long before the daemon judges the flows above, and not to be believed before.
    from_server(RESOLVER, 53, 40054, dns_answer("late.example", "cdn.example", PLAIN)),
]


def report(avcore):
    """One that is asked for."""
    avcore.send_signal(signal.SIGUSR1)
    lines = [avcore.stdout.readline()]
    while "frames: " not in lines[-1]:
        assert lines[-1] != "", "it has ended"
        lines.append(avcore.stdout.readline())
    return "".join(lines)


class Avcore(SystemTest):
    config = ""

    def start(self, frames, *options, **capture):
        write_file("/tmp/capture.pcap", pcap(frames, **capture))
        write_file("/tmp/avcore.toml", self.config)
        return self.run_avcore("-r", "/tmp/capture.pcap", "-c", "/tmp/avcore.toml", *options)

    def start_on_pipe(self):
        if not os.path.exists("/tmp/pipe"):
            os.mkfifo("/tmp/pipe")
        return self.run_avcore("-r", "/tmp/pipe")

    def feed(self, frames, *options, block=(), **capture):
        """The rows of the flow table, and what was said beside them; UTP 9 blocks these names."""
        avcore = self.start(frames, "--json", *options, **capture)
        self.daemon_behind_avcore()
        command(POLICY, policy(9, *[rule(name, deny=1) for name in block]))
        flows, totals = avcore.communicate(timeout=60)
        self.assertEqual(avcore.returncode, 0, totals)
        return [json.loads(line) for line in flows.splitlines()], totals

    def test_flows_are_named_and_judged(self):
        rows, _ = self.feed(TRAFFIC)
        self.assertEqual(len(rows), 11, rows)
        flows = {(row["server"], row["server_port"]): row for row in rows}
        names = {key: row["application"] for key, row in flows.items()}
        self.assertEqual(names, names | {
            (YOUTUBE, 443): "youtube", (PLAIN, 8099): "www.plain.example",
            (PLAIN, 443): "www.plain.example", (CLOUD, 443): "azure", (QUIC, 443): "youtube",
            (PLAIN, 80): "moved.example",
            (MOVED, 8445): "www.plain.example", (PLAIN, 0): "icmp", (SERVER_MAC, 0): "arp"})
        youtube = flows[YOUTUBE, 443]
        self.assertEqual((youtube["client"], youtube["client_port"], youtube["packets"],
                          youtube["verdict"]), (CLIENT, 40002, 2, 1))
        self.assertEqual(flows[PLAIN, 8099]["bytes"], len(TRAFFIC[2]))
        self.assertEqual(flows[QUIC, 443]["host"], "www.youtube.com")

    def test_ipv6_is_named_and_judged_and_shown_with_its_addresses(self):
        client, shop, other, resolver = "2001:db8::c", "2001:db8:1::7", "2001:db8:2::7", "fd00::53"
        self.config = """
            [[rule]]
            network = "2001:db8::/64"
            utp_id = 9
        """

        hop_by_hop = struct.pack(">BB6x", 6, 0)
        frames = [
            # Read first, so that the policy's client is the side that the rule names.
            ipv6_frame(17, udp(53, 4000, dns_answer("www.shop.example", "cdn.example", shop)),
                       src=resolver, dst=client),
            ipv6_frame(6, tcp(443, 4001), src=shop, dst=client),
            ipv6_frame(0, hop_by_hop + tcp(4001, 443, b"hello"), src=client, dst=shop, vlan=5),
            ipv6_frame(6, tcp(4003, 443, client_hello("www.youtube.com")), src=client, dst=other),
            ipv6_frame(6, tcp(4002, 8099), src=client, dst=other),
            ipv6_frame(58, struct.pack(">BBHHH", 128, 0, 0, 1, 1), src=client, dst=other),
            ipv6_frame(58, struct.pack(">B23x", 135), src="::", dst="ff02::1:ff00:7"),
            ipv6_frame(60, b"\x06\xff" + bytes(6), src=other, dst=client),
            ipv6_frame(6, tcp(1, 2), src="::ffff:192.0.2.9", dst=client),
            tcp_frame(1, 2, src="240.0.0.1"),
            udp_frame(1, 2, dst="255.255.255.255"),
        ]
        rows, totals = self.feed(frames, block=["shop.example", "ICMP"])
        flows = {(row["server"], row["server_port"], row["protocol"]): row for row in rows}
        self.assertEqual(len(rows), 8, rows)
        wanted = {(shop, 443, "TCP"): ("www.shop.example", 3),
                  (other, 8099, "TCP"): (f"{client} [{other}]:8099", 1),
                  (other, 443, "TCP"): ("youtube", 1), (other, 0, "ICMP"): ("icmp", 3)}
        self.assertEqual({key: (flows[key]["application"], flows[key]["verdict"]) for key in wanted}, wanted)
        denied = flows[shop, 443, "TCP"]
        self.assertEqual([denied[field] for field in ("client", "client_port", "packets", "bytes")],
                         [client, 4001, 2, len(frames[1]) + len(frames[2])])
        self.assertIn(("ff02::1:ff00:7", 0, "ICMPv6"), flows)
        self.assertEqual(flows[other, 0, "IP 60"]["client"], client)
        self.assertIn("240.0.0.0/4 or IPv4's in IPv6: 2\n", totals)
        self.assertIn("extension headers weren't walked to their end: 1\n", totals)

    def test_a_name_learnt_between_two_packets_of_an_unnamed_flow_names_the_second(self):
        # Of the flow to FAR the daemon judges more packets before the answer is read than are on
        # their way at a time, of the others probably none.
        FAR, NEAR, SIX = servers = "198.51.100.7", "198.51.100.8", "2001:db8:1::9"
        far, near = (udp_frame(40020, 8500, b"unnamed", dst=server) for server in (FAR, NEAR))
        six = ipv6_frame(17, udp(40020, 8500, b"unnamed"), src="2001:db8::c", dst=SIX)
        answers = [from_server(RESOLVER, 53, 40053, dns_answer("a.example", "b.example", server))
                   for server in servers]
        rows, _ = self.feed([far] * 400 + [near, six] * 20 + answers + [far, near, six])
        flows = {row["server"]: row for row in rows}
        self.assertEqual([flows[server]["application"] for server in servers], ["a.example"] * 3)

    def test_what_cannot_be_carried_is_counted(self):
        frames = [ethernet(0x88B5, bytes(65259 - 14)), ethernet(0x88B5, bytes(65260 - 14))]
        rows, totals = self.feed(frames, claimed=100_000)
        self.assertEqual([row["packets"] for row in rows], [1])
        self.assertIn("not carried, longer than 65259 bytes: 1\n", totals)

    def test_a_pipe_is_never_waited_for_and_a_killed_daemon_noticed(self):
        avcore = self.start_on_pipe()

        wait_for_listener(AV_SOCKET)
        self.assertIn(" 0 read,", report(avcore), "no writer has opened the pipe")
        daemon = self.daemon_behind_avcore()
        capture = pcap([udp_frame(1, 2), udp_frame(1, 3)])
        with open("/tmp/pipe", "wb", buffering=0) as pipe:
            pipe.write(capture[:-10])
            wait_until(lambda: " 1 answered," in report(avcore))
            daemon.kill()
            pipe.write(capture[-10:])
            totals = avcore.communicate(timeout=60)[1]
        self.assertEqual(avcore.returncode, 1, totals)
        self.assertIn("avcore: no verdict for 5 seconds: the daemon is gone\n", totals)

    def test_a_report_that_nobody_reads_yet_holds_nothing_up(self):
        avcore = self.start_on_pipe()
        self.daemon_behind_avcore()
        fcntl.fcntl(avcore.stdout, fcntl.F_SETPIPE_SZ, 4096)
        capture = pcap([udp_frame(1, 2 + n) for n in range(100)])
        with open("/tmp/pipe", "wb", buffering=0) as pipe, packet_socket(CAPTURE) as fed:
            fed.settimeout(DEADLINE)

            def wait_for_frame(port):
                while fed.recv(2000)[36:38] != struct.pack(">H", port):
                    pass

            pipe.write(capture[:-10])
            wait_for_frame(100)
            avcore.send_signal(signal.SIGUSR1)
            select.select([avcore.stdout], [], [], DEADLINE)
            pipe.write(capture[-10:])
            wait_for_frame(101)
            avcore.terminate()
            tables, totals = avcore.communicate(timeout=DEADLINE)
        self.assertEqual(avcore.returncode, 0, totals)
        self.assertEqual([table.count("UDP") for table in tables.split("\nCLIENT ")], [99, 100])

    def test_the_engine_is_missed_only_by_a_daemon_that_does_not_use_it(self):
        for asked in True, False:
            if asked:
                earlier = self.start_on_pipe()
                wait_for_listener(AV_SOCKET)
            daemon = self.daemon()
            wait_for_listener(COMMAND_SOCKET)
            if asked:
                earlier.send_signal(signal.SIGHUP)
                self.assertIn(" 0 read,", earlier.communicate(timeout=DEADLINE)[0])
                self.assertEqual(earlier.returncode, 0)
            table, totals = self.start(TRAFFIC).communicate(timeout=60)
            self.assertEqual("no daemon asked for the DPI engine" in table, not asked, table)
            self.assertEqual(totals.count("the daemon does without the DPI engine"), not asked)
            daemon.stop()
            os.unlink(COMMAND_SOCKET)

    def test_what_is_refused_and_what_cannot_be_written(self):
        write_file("/tmp/capture.pcap", pcap([]))
        write_file("/tmp/long.toml", bytes(2**20 + 1))
        with open("/dev/full", "w") as full:
            for options, streams, status, complaint in [
                (["-i", CAPTURE], {}, 1, "where avcore's own frames are"),
                (["-r", "/tmp/capture.pcap", "-c", "/tmp/long.toml"], {}, 1, "longer than 1048576"),
                (["-r", "/tmp/capture.pcap", "-c", "/dev/zero"], {}, 1, "isn't a regular file"),
                (["-r", "/dev/zero"], {}, 1, "can't read the capture"),
                (["-r", "/tmp/capture.pcap"], {"stdout": full}, 1, "can't be written"),
            ]:
                avcore = self.run_avcore(*options, **streams)
                said = avcore.communicate(timeout=DEADLINE)[1]
                self.assertEqual(avcore.returncode, status, said)
                self.assertIn(complaint, said)

    def test_descriptors_that_others_took_are_missed_for_a_while(self):
        write_file("/tmp/avcore.toml", '[bus]\nlisten = "127.0.0.1:5670"')
        avcore = self.run_avcore("-i", "lo", "-c", "/tmp/avcore.toml", preexec_fn=lambda: resource.setrlimit(
            resource.RLIMIT_NOFILE, (64, 64)))
        wait_for_listener("/var/run/av_bus.sock")
        with contextlib.ExitStack() as held:
            asking, *others = [held.enter_context(socket.socket(
                socket.AF_UNIX, socket.SOCK_SEQPACKET)) for _ in range(65)]
            for other in others:
                other.connect("/var/run/av_bus.sock")
            wait_until(lambda: len(os.listdir(f"/proc/{avcore.pid}/fd")) == 64)
            asking.connect(AV_SOCKET)
            asking.send(struct.pack("=II64s", OP_VALUE, 7, b"tm_support"))
            asking.settimeout(0.5)
            with self.assertRaises(TimeoutError):
                asking.recv(1024)
            for other in others:
                other.close()
            asking.settimeout(DEADLINE)
            self.assertEqual(asking.recv(1024)[:13], struct.pack("=IIi", OP_VALUE, 7, 0) + b"1")
        avcore.terminate()
        avcore.communicate(timeout=DEADLINE)
        self.assertEqual(avcore.returncode, 0)

    def test_a_file_of_any_size_loses_nothing(self):
        rows, totals = self.feed([udp_frame(1 + n % 50, 2 + n % 7) for n in range(20_000)])
        self.assertEqual(sum(row["packets"] for row in rows), 20_000)
        self.assertEqual({row["verdict"] for row in rows}, {1})
        self.assertIn("20000 read, 20000 fed, 20000 answered", totals)
        self.assertIn(" 0 unanswered", totals)

class MadeInterface(SystemTest):
    """avcore makes what the daemon captures on."""
    way = ("--capture", CAPTURE)
    kinds = ("tap", "veth") if os.path.exists("/dev/net/tun") else ("veth",)
    longest = udp_frame(7, 7, bytes(65_259 - 42))  # with its trailer 65,535

    def make_links(self):
        if not os.path.exists("/tmp/pipe"):
            os.mkfifo("/tmp/pipe")

    def start(self, kind, **how):
        write_file("/tmp/avcore.toml", f'[capture]\nkind = "{kind}"\n')
        return self.run_avcore("-r", "/tmp/pipe", "-c", "/tmp/avcore.toml", **how)

    def link(self):
        """Its index, where it is there."""
        done = subprocess.run(["ip", "-j", "link", "show", CAPTURE], capture_output=True, text=True)
        return json.loads(done.stdout)[0]["ifindex"] if done.returncode == 0 else None

    def assert_refused(self, avcore, complaint):
        said = avcore.communicate(timeout=DEADLINE)[1]
        self.assertEqual(avcore.returncode, 1, said)
        self.assertIn(complaint, said)

    def test_a_daemon_keeps_judging_from_one_avcore_to_the_next(self):
        for kind, next_kind in {(one, other) for one in self.kinds for other in self.kinds}:
            with self.subTest(kind, next=next_kind):
                killed = self.start(kind)
                daemon = self.daemon_behind_avcore()
                made = self.link()
                with open("/tmp/pipe", "wb", buffering=0) as pipe:
                    capture = pcap([self.longest, udp_frame(1, 2)])
                    pipe.write(capture[:-10])
                    wait_until(lambda: " 1 answered," in report(killed))
                    run("ip", "link", "set", CAPTURE, "down")
                    pipe.write(capture[-10:])
                    wait_until(lambda: "the link of cap0 is down" in killed.stderr.readline())
                    run("ip", "link", "set", CAPTURE, "up")
                    wait_until(lambda: " 2 answered," in report(killed))
                    killed.kill()
                    killed.wait()
                self.assertEqual(self.link(), made if kind == "veth" else None)
                os.unlink(AV_SOCKET)
                successor = self.start(next_kind)
                wait_for_listener(AV_SOCKET)
                self.assertEqual(self.link() == made, kind == next_kind == "veth")
                write_file("/tmp/pipe", pcap([udp_frame(1, 3), self.longest]))
                table, said = successor.communicate(timeout=DEADLINE)
                self.assertIn(" 2 answered, 0 resent, 0 unanswered", table)
                self.assertIn(said, ("", WAITS))  # the machine may be busy
                self.assertEqual((successor.returncode, self.link()), (0, None))
                self.assertEqual(daemon.stop(), 0)
                os.unlink(COMMAND_SOCKET)

    def test_a_killed_one_leaves_nothing_that_is_not_known(self):
        """Whenever it was killed: what has the name has the alias, too."""
        with socket.socket(socket.AF_NETLINK, socket.SOCK_RAW) as news:
            news.bind((0, 1))  # of interfaces
            avcore = self.start("veth")
            wait_for_listener(AV_SOCKET)
            avcore.terminate()
            avcore.communicate(timeout=DEADLINE)
            news.settimeout(DEADLINE)
            named = struct.pack("=HH", 9, 3) + CAPTURE.encode() + b"\0"
            known = []
            while len(known) == 0 or kind != 17:  # it is deleted
                message = news.recv(65536)
                kind = struct.unpack_from("=4xH", message)[0]
                if named in message:
                    known.append(b"avcore: jorn captures here" in message)
        self.assertEqual(known, [True] * len(known))

    def test_of_two_that_start_at_once_one_at_most_has_it_and_killed_ones_are_cleared_away(self):
        sockets = ("/tmp/av1", "/tmp/av2")
        self.addCleanup(subprocess.run, ["ip", "link", "del", CAPTURE], capture_output=True)
        for _ in range(10):
            killed = self.start("veth")
            wait_for_listener(AV_SOCKET)
            killed.kill()
            killed.wait()
            os.unlink(AV_SOCKET)
            both = [self.start("veth", before=("env", f"JORN_AV_SOCK={path}")) for path in sockets]
            for avcore, path in zip(both, sockets):
                wait_until(lambda: avcore.poll() is not None or os.path.exists(path))
            refused = [avcore.poll() for avcore in both]
            for avcore, path in zip(both, sockets):
                avcore.terminate()
                avcore.communicate(timeout=DEADLINE)
                with contextlib.suppress(FileNotFoundError):
                    os.unlink(path)
            self.assertIn(1, refused)
        killed = self.start("veth")
        wait_for_listener(AV_SOCKET)
        run(jorn_path("avcore"), "teardown")
        self.assertIsNotNone(self.link())
        killed.kill()
        killed.wait()
        run(jorn_path("avcore"), "teardown")
        self.assertIsNone(self.link())

    def test_what_is_not_its_own_is_left_alone(self):
        add_capture_pair(CAPTURE, FEED)
        self.addCleanup(subprocess.run, ["ip", "link", "del", CAPTURE], capture_output=True)
        foreign = self.link()
        for kind in self.kinds:
            self.assert_refused(self.start(kind), "that isn't avcore's")
        self.assertEqual(self.link(), foreign)
        run("ip", "link", "del", CAPTURE)
        for kind in self.kinds:
            first = self.start(kind)
            wait_for_listener(AV_SOCKET)
            made = self.link()
            for other in self.kinds:
                self.assert_refused(self.start(other), "another avcore, which runs, has it")
            self.assertEqual(self.link(), made)
            first.terminate()
            self.assertEqual((first.communicate(timeout=DEADLINE)[1], self.link()), ("", None))
        self.assert_refused(self.run_avcore("-i", CAPTURE), "where avcore's own frames are")
        write_file("/tmp/file", "somebody's")
        self.assert_refused(self.run_avcore("-r", "/tmp/pipe", "--watch-socket", "/tmp/file"),
                            "something else than a socket")
        self.assertEqual(read_file("/tmp/file"), "somebody's")

    def test_what_cannot_be_had_is_said(self):
        self.assert_refused(self.start("veth", before=("setpriv", "--bounding-set", "-net_admin")),
                            "for the daemon's capture: Operation not permitted")
        avcore = self.start("tap", before=("unshare", "--mount", "sh", "-c",
                                           'mount -t tmpfs none /dev/net && exec "$0" "$@"'))
        self.assertIn("no TAP device, for /dev/net/tun: No such file", avcore.stderr.readline())
        wait_for_listener(AV_SOCKET)
        avcore.terminate()
        avcore.communicate(timeout=DEADLINE)
        run("ip", "link", "add", FEED, "mtu", "9000", "type", "veth", "peer", CAPTURE, "mtu", "65535")
        set_switch(None, f"ipv6/conf/{CAPTURE}/disable_ipv6", 1)
        run("ip", "link", "set", FEED, "up")
        self.way = ("-o", FEED)
        said = self.run_avcore("-r", "/dev/null").communicate(timeout=DEADLINE)[1]
        for line in ("feed0 is without mtu 65535, arp off, net.ipv6.conf.feed0.disable_ipv6=1 (",
                     "cap0 is without arp off (", "frames longer than 8738 bytes can't be carried"):
            self.assertIn(f"avcore: {line}", said)


if __name__ == "__main__":
    unittest.main()
