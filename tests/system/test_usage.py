"""avwatch's history of a client's real traffic, against what arrived at both ends of it, while each of the
programs is killed and comes back."""
import collections

from inline_lab import *
from watch_reader import WATCH_SOCKET

PAGES, SPEED = 8080, VOICE_CALL
NAME, FOLDER, SETTINGS = "video.example", "/tmp/usage", "/tmp/usage/avwatch.toml"
ETHERNET = 14
LINGER, WITHOUT_BEAT = 3, 2.5  # seconds until an ended flow is told as that, until the gate is open
APPLICATIONS = {53: "dns", PAGES: NAME, SPEED: f"app-{SPEED}", SLOW: f"app-{SLOW}", DENIED: f"app-{DENIED}"}


class Layout:
    """What has to hold routed and bridged."""

    def setUp(self):
        for tool in "curl", "dnsmasq", "iperf3":
            if not shutil.which(tool):
                self.skipTest("there is no " + tool)
        super().setUp()
        shutil.rmtree(FOLDER, ignore_errors=True)
        os.makedirs(FOLDER + "/pages")
        write_file(FOLDER + "/pages/film", os.urandom(3_000_000))
        write_file(SETTINGS, f'[history]\nfile = "{FOLDER}/history.db"\n')
        for path, text in (("/etc/resolv.conf", f"nameserver {SERVERS[4]}\n"), ("/etc/nsswitch.conf", "hosts: dns\n")):
            with contextlib.suppress(FileNotFoundError):
                os.unlink(path)  # a link to the machine's
            write_file(path, text)

    def start_servers(self):
        for port, *words in (
                (53, *name_server(f"--address=/{NAME}/{NAMED[4]}", f"--address=/{NAME}/{NAMED[6]}")),
                (PAGES, sys.executable, "-m", "http.server", str(PAGES), "--bind", "::", "--directory",
                 FOLDER + "/pages"),
                (SPEED, "iperf3", "-s", "-p", str(SPEED))):
            self.background(*inside("server"), *words)
            self.until(lambda: subprocess.check_output([*inside("server"), "ss", "-Hltn", f"sport = :{port}"]))

    def background(self, *words):
        process = subprocess.Popen(words, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def serve(self):
        self.server = self.background(jorn_path("avwatch"), "-c", SETTINGS, "serve")

    def kill(self, process):
        process.kill()
        process.wait()

    def browse(self, *options):
        for version in FAMILIES:
            self.in_client("curl", f"-{version}", "-sf", "--noproxy", "*", "-m", "20", "-o", "/dev/null",
                           *options, f"http://{NAME}:{PAGES}/film")

    def load(self, version, *options):
        """Behind each run the server listens anew, and is away for a moment."""
        words = "iperf3", "-c", SERVERS[version], "-p", str(SPEED), "-n", "2M", "-b", "100M", *options

        def has_run():
            done = self.run_in_client(*words)
            is_refused = "Connection refused" in done.stderr
            self.assertTrue(is_refused or done.returncode == 0, (words, done.stdout, done.stderr))
            return not is_refused
        self.until(has_run)

    def run_in_client(self, *words):
        return subprocess.run([*inside("client"), *words], capture_output=True, text=True)

    def in_client(self, *words):
        done = self.run_in_client(*words)
        self.assertEqual(done.returncode, 0, (words, done.stdout, done.stderr))

    def arrived_by_flow(self):
        """When each began, and its packets and bytes, up and down."""
        flows = {}
        for way, arrivals in ((0, self.at_server), (2, self.at_client)):
            self.assertEqual(arrivals.lost(), 0)
            for packet in arrivals.all():
                if packet.protocol in (TCP, UDP):
                    sides = (packet.src_port, packet.dst_port)[::-1 if way else 1]
                    begun, counts = flows.setdefault((packet.version, packet.protocol, *sides), (packet.at, [0] * 4))
                    counts[way] += packet.frames
                    counts[way + 1] += packet.size + ETHERNET * packet.frames
        return flows

    def arrived_in_all(self, until):
        """By application, of the flows that began by then; and of all."""
        known, everything = collections.Counter(), [0] * 4
        for (*_, port), (begun, counts) in self.arrived_by_flow().items():
            everything = [*map(sum, zip(everything, counts))]
            if begun < until:
                known[APPLICATIONS[port]] = [*map(sum, zip(known[APPLICATIONS[port]] or [0] * 4, counts))]
        return known, everything

    def used(self):
        """The same, as avwatch has it."""
        known = collections.Counter()
        for row in map(json.loads, subprocess.check_output(
                [jorn_path("avwatch"), "-c", SETTINGS, "usage", "--json"], text=True).splitlines()):
            self.assertEqual(row["client"], link_address("-n", "client", "link", "show", "eth0").upper())
            known[row["application"]] = [*map(sum, zip(known[row["application"]] or [0] * 4, row["up"] + row["down"]))]
        return known, [*map(sum, zip([0] * 4, *known.values()))]

    def load_all(self):
        denied = self.talk(SERVERS[4], DENIED, 0.005)
        slow = Sender(self.connected(socket.SOCK_DGRAM, SERVERS[6], SLOW), 0.005, size=1_200)
        self.addCleanup(slow.stop)
        self.browse()
        self.load(4)
        self.load(6, "-R")
        self.load(4, "-u")
        return denied, slow

    def test_to_the_byte_whoever_is_killed(self):
        self.start("", "--watch-socket", WATCH_SOCKET)
        self.start_servers()
        self.serve()
        wait_until(lambda: os.path.exists(FOLDER + "/history.db"))
        denied, slow = self.load_all()
        film = self.arrived_in_all(time.time())[0][NAME]
        time.sleep(LINGER)
        self.kill(self.server)  # it may or may not have heard of the ends
        self.serve()
        self.until(lambda: self.used()[0][NAME] == film)
        self.kill(self.server)

        dark = time.time()  # from now on somebody is always missing
        self.jorn.kill()
        time.sleep(WITHOUT_BEAT)
        self.browse()
        self.load(6)
        self.jorn = self.start_daemon()
        time.sleep(LINGER)
        self.serve()
        self.until(lambda: self.used()[1][3] > 10_000_000)  # what was over before it came

        self.kill(self.avcore)
        time.sleep(WITHOUT_BEAT)
        self.browse("--resolve", f"{NAME}:{PAGES}:{NAMED[4]},{NAMED[6]}")
        self.load(4, "-R")
        for sender in denied, slow:
            sender.stop()
        time.sleep(LINGER)
        self.start_avcore()
        known, everything = self.arrived_in_all(dark)
        with contextlib.suppress(AssertionError):
            wait_until(lambda: self.used()[1] == everything, seconds=40)
        used, used_in_all = self.used()
        self.assertEqual(used_in_all, everything)
        self.assertEqual(set(used), {*known, ""})
        for application, counts in known.items():
            goes_on = application in (APPLICATIONS[DENIED], APPLICATIONS[SLOW])
            self.assertTrue(used[application] == counts if goes_on else
                            all(has >= least for has, least in zip(used[application], counts)),
                            (application, used, known))
        self.assertGreater(used[""][3], 8_000_000)  # without avcore there are no names


class Routed(Layout, InlineTest):
    pass


class Bridged(Layout, InlineTest):
    bridged = True


del Layout  # its tests are run in both

if __name__ == "__main__":
    unittest.main()
