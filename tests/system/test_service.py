"""As services the programs have a file and no options, and few of root's rights: avcore and the daemon
with those that their units leave them, avwatch with none."""
import re

from inline_lab import *

BPFFS = "/tmp/bpf"
PINS = BPFFS + "/jorn"
GROUP, USER = 4242, 4243
AVCORES = "net_raw", "net_admin", "bpf", "perfmon"
HISTORY = "/tmp/service/history.db"
TCX_SIDES = {"ingress": 46, "egress": 47}
HOLD = 'fail = "closed"\nundecided = "hold"\n'


def with_rights(*rights):
    return ("setpriv", "--inh-caps=-all", "--bounding-set=-all" + "".join(f",+{right}" for right in rights))


def programs_at(interface):
    """Their ids, by tcx and clsact."""
    libbpf, found = ctypes.CDLL("libbpf.so.1"), []
    for side, number in TCX_SIDES.items():
        ids, count = (ctypes.c_uint32 * 64)(), ctypes.c_uint32(64)
        if libbpf.bpf_prog_query(socket.if_nametoindex(interface), number, 0, None, ids, ctypes.byref(count)) == 0:
            found += list(ids)[:count.value]
        filters = subprocess.run(["tc", "filter", "show", "dev", interface, side], text=True, capture_output=True)
        found += map(int, re.findall(r" id (\d+) ", filters.stdout))
    return found


class Routed(InlineTest):
    slips_through = 0  # what is denied by its port is held until then

    def setUp(self):
        super().setUp()
        os.makedirs(BPFFS, exist_ok=True)
        run("mount", "-t", "bpf", "bpf", BPFFS)  # which avcore couldn't
        self.addCleanup(run, "umount", BPFFS)

    def configure(self, enforce, inline='interfaces = ["wlan0"]', capture="av1"):
        super().configure(enforce)
        with open(CONFIG, "a") as file:
            file.write(f'[inline]\n{inline}\n[capture]\ninterface = "{capture}"\n')

    def start_avcore(self, notify="/tmp/notify"):
        with contextlib.suppress(FileNotFoundError):
            os.unlink(notify)
        self.news = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(self.news.close)
        self.news.settimeout(DEADLINE)
        self.news.bind(notify.replace("@", "\0"))
        self.lines = Record("lines of avcore")
        self.avcore = subprocess.Popen(
            [*with_rights(*AVCORES), f"--regid={GROUP}", "--clear-groups", jorn_path("avcore"), "--pins", PINS,
             *self.attach(), "-c", CONFIG], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
            env=os.environ | {"NOTIFY_SOCKET": notify})
        threading.Thread(target=self._read, args=(self.avcore.stderr, self.lines), daemon=True).start()
        self.addCleanup(self.stop_avcore, self.avcore)
        self.assertEqual(self.news.recv(256), b"READY=1")

    def start_daemon(self):
        daemon = self.daemon(interface="av1", before=with_rights("net_raw"))
        wait_for_listener(COMMAND_SOCKET)
        return daemon

    def run_avcore(self, *words):
        done = subprocess.run([jorn_path("avcore"), *words], text=True, capture_output=True)
        return done.returncode, done.stdout + done.stderr

    def status(self):
        return json.loads(self.run_avcore("status", "--json", "--pins", PINS)[1])

    def _tear_down(self):
        self.run_avcore("teardown", "--pins", PINS)
        super()._tear_down()

    def test_a_file_and_news(self):
        self._lay_out(0)

        def check(inline, *words, enforce=HOLD):
            self.configure(enforce, inline)
            return self.run_avcore("--check", "-c", CONFIG, *words)

        self.assertEqual(check('interfaces = ["wlan0"]'), (0, ""))
        self.assertEqual(check("interfaces = []")[0], 3)
        self.assertEqual(self.run_avcore("-c", CONFIG)[0], 3)
        self.assertEqual(check('interfaces = ["wlan0", "wlan7"]'), (1, "avcore: there is no interface wlan7\n"))
        for inline, capture, says in (("lo", "av1", "the gate can't stand at lo, which has no Ethernet frames"),
                                      ("wlan0", "wlan0", "can't make wlan0 .*\navcore: wlan0 is where avcore's own frames are"),
                                      ("wlan0", "eth0", ".* eth0 .*isn't avcore's.*"),
                                      ("wlan0", "a/b", "can't make a/b .*: that is no name for an interface")):
            self.configure(HOLD, f'interfaces = ["{inline}"]', capture)
            status, said = self.run_avcore("--check", "-c", CONFIG)
            self.assertEqual(status, 1)
            self.assertRegex(said, f"(?s)\\Aavcore: {says}\n\\Z")
        status, said = check('interface = "wlan0"', enforce='fail = "shut"\n')
        self.assertEqual((status, re.findall(f"(?m)^avcore: {CONFIG}, line [^']*'(.*?)'", said)),
                         (1, ["fail", "interface"]))
        lists = HOLD + '[web]\ncategories = ["/nowhere=Gambling"]\nsafe_search = "/nowhere/dir"\n'
        self.assertEqual(check("interfaces = []", "--inline", "wlan0", enforce=lists), (
            1, "avcore: /nowhere: No such file or directory\navcore: /nowhere/dir: No such file or directory\n"))
        self.assertEqual(check('interfaces = ["wlan0"]', "--categories", f"{EXAMPLES}/categories.txt",
                               "--safe-search", "/tmp/new", enforce=lists), (0, ""))
        self.assertEqual(self.run_avcore("--check")[0], 2)
        for path, status in ((f"{PROJECT}/debian/etc/avcore.toml", 3), (f"{EXAMPLES}/avcore.toml", 0)):
            self.assertEqual(self.run_avcore("--check", "-c", path, "--capture", "av1",
                                             *(("-i", "lo") if status == 0 else ()))[0], status)

        self.configure(HOLD)
        signal.signal(signal.SIGHUP, signal.SIG_IGN)  # as nohup leaves it
        self.start_avcore()
        signal.signal(signal.SIGHUP, signal.SIG_DFL)
        wait_for_listener(AV_SOCKET)
        self.assertEqual((self.status()["interfaces"], self.status()["undecided"]), (["wlan0"], "hold"))
        self.assertEqual(self.run_avcore("--check", "-c", CONFIG), (0, ""))  # av1 is its own
        self.configure('fail = "open"\n', 'interfaces = ["wlan0", "eth0"]')
        for wrong, says in (("", "count from the next start on"), ("[wrong]\n", "stays as it was")):
            with open(CONFIG, "a") as file:
                file.write(wrong)
            self.avcore.send_signal(signal.SIGHUP)
            self.assertRegex(self.news.recv(256), rb"\ARELOADING=1\nMONOTONIC_USEC=\d+\Z")
            self.assertEqual(self.news.recv(256), b"READY=1")
            self.lines.wait(lambda line: says in line)
        self.assertEqual((self.status()["interfaces"], self.status()["fail"]), (["wlan0"], "open"))
        self.stop_avcore(self.avcore)
        self.assertEqual(self.news.recv(256), b"STOPPING=1")

        for named in (["eth0", "wlan0"], ["wlan0"]):
            self.configure(HOLD, f"interfaces = {json.dumps(named)}")
            self.start_avcore()
            self.assertEqual(sorted(self.status()["interfaces"]), named)
            self.stop_avcore(self.avcore)
        self.assertEqual(programs_at("eth0"), [])

    def test_with_few_rights(self):
        self.start(HOLD)
        first = programs_at("wlan0")
        self.assertEqual(len(first), 2)
        os.makedirs(os.path.dirname(HISTORY), exist_ok=True)
        os.chown(os.path.dirname(HISTORY), USER, GROUP)
        avwatch = (*with_rights(), f"--reuid={USER}", f"--regid={GROUP}", "--clear-groups", jorn_path("avwatch"))
        watcher = subprocess.Popen([*avwatch, "serve", "--history", HISTORY], stderr=subprocess.PIPE, text=True)
        said = Record("lines of avwatch")
        threading.Thread(target=self._read, args=(watcher.stderr, said), daemon=True).start()
        self.addCleanup(watcher.wait)
        self.addCleanup(watcher.kill)
        self.assertIn(f":{DENIED}", subprocess.check_output([*avwatch, "denials", "--json"], text=True))

        # Killed, started anew: its programs are known again, though it may not ask for them by their numbers.
        flow = self.talk(SERVERS[4], DENIED)
        self.until(lambda: self.is_stopped(flow))
        self.avcore.kill()
        self.avcore.wait()
        self.start_avcore("@jorn-test")
        self.jorn.wait_line("the interface is back")
        self.assertEqual(programs_at("wlan0"), first)
        self.until(lambda: self.is_shut(4))
        self.assertTrue(self.is_stopped(flow))
        self.assertEqual(self.arrived(flow.socket), [])

        # The next version's gate, with other records, takes the place of this one's.
        self.stop_avcore(self.avcore)
        [layout] = os.listdir(PINS)
        os.rename(f"{PINS}/{layout}", f"{PINS}/v1")
        self.start_avcore()
        self.assertEqual(os.listdir(PINS), [layout])
        second = programs_at("wlan0")
        self.assertEqual((len(second), set(second) & set(first)), (2, set()))
        self.assertEqual(set(os.listdir(f"{PINS}/{layout}/programs")), set(map(str, second)))
        self.until(lambda: self.is_shut(6))
        self.assertTrue(self.is_stopped(flow))
        self.assertEqual(self.arrived(flow.socket), [])
        said.wait(lambda line: "avcore is heard again" in line)
        self.assertEqual(self.run_avcore("teardown", "--pins", PINS)[0], 0)
        self.assertEqual((programs_at("wlan0"), os.path.exists(PINS)), ([], False))

        watcher.send_signal(signal.SIGTERM)
        self.assertEqual(watcher.wait(DEADLINE), 0)
        self.assertEqual(os.stat(HISTORY).st_uid, USER)


class Bridged(Routed):
    bridged = True


if __name__ == "__main__":
    unittest.main()
