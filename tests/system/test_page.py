"""The page of avwatch serve, as a browser asks for it, and who may look."""
import http.client

from test_history import *

ELSEWHERE = "192.0.2.1"


class Asking(Served):
    def ask(self, path, encryption=None, **headers):
        kind = http.client.HTTPSConnection if encryption else http.client.HTTPConnection
        asking = kind(*self.http, timeout=DEADLINE, **({"context": encryption} if encryption else {}))
        self.addCleanup(asking.close)
        asking.request("GET", path, headers={name.replace("_", "-"): text for name, text in headers.items()})
        return asking.getresponse()

    def said(self, path):
        answer = self.ask(path)
        self.assertEqual(answer.status, 200, path)
        return json.loads(answer.read())


class Page(Asking):
    def test_the_present_goes_on(self):
        """A flow appears, its verdict changes, a denial says why; longer than a silent connection may last."""
        avcore = Avcore(self.socket, [flow(1, 100, 1_000, application="<script>\"\u202e")])
        self.serve()
        live = self.ask("/api/live?table=flows")
        self.assertEqual(live.headers["Content-Type"], "text/event-stream")
        def state():
            for line in live:
                if line.startswith(b"data: "):
                    return json.loads(line[6:])
            self.fail("the stream has ended")
        def rows():
            return state()["table"]["rows"]
        row = wait_until(rows)[0]
        self.assertEqual((row["application"], row["verdict"], row["name"]), ("<script>\"\u202e", "allow", "telly"))
        begun = time.monotonic()
        why = {"by": "web policy", "text": "youtube, named by dns: denied by the web policy"}
        denied = flow(1, 200, 2_000, verdict="deny", why=why)
        avcore.tell({"flow": denied}, {"event": {"what": "denied", "us": 7, "flow": denied}}, watching=True)
        wait_until(lambda: rows()[0]["verdict"] == "deny")
        denials = self.said("/api/rows?table=denials")["rows"]
        self.assertEqual([(each["us"], each["why"]) for each in denials], [(7, why["text"])])
        self.assertEqual(self.said("/api/flow?id=" + row["id"])["why"]["by"], "web policy")
        self.assertEqual(len(self.said("/api/course")["down"]), 600)
        while time.monotonic() < begun + 12:
            self.assertTrue(state()["told"])
        avcore.kill()
        wait_until(lambda: not (said := state())["told"] and said["trouble"])
        self.stop()  # with a stream open

    def test_bars(self):
        avcore = Avcore(self.socket)
        self.serve()
        avcore.tell(ended(1, 100, 1_000), ended(2, 10, 20, application=""))
        def bars(more=""):
            return [(bar["up"][1], bar["down"][1]) for bar in self.said("/api/history?by=hour" + more)["bars"]]
        wait_until(lambda: bars() == [(110, 1_020)])
        for more, expected in (("&application=APP1", [(100, 1_000)]), ("&application=", [(10, 20)]),
                               ("&client=" + MAC.format(1), [(100, 1_000)]), ("&client=nobody", [])):
            self.assertEqual(bars(more), expected, more)
        day, = self.said("/api/history?by=day")["bars"]
        self.assertEqual(day["date"], time.strftime("%Y-%m-%d", time.localtime(day["from_us"] / 1e6)))


class AskingFromElsewhere(Asking):
    """From an address of this machine's that isn't loopback's."""
    http = (ELSEWHERE, 8080)

    def setUp(self):
        super().setUp()
        subprocess.run(["ip", "address", "replace", ELSEWHERE + "/32", "dev", "lo"], check=True)
        self.token = self.folder + "/token"

    def configure_http(self, text=""):
        self.configure(f'[http]\ntoken = "{self.token}"\n{text}')

    def link(self):
        return self.avwatch("link", "--http", "%s:%d" % self.http).strip()


class Elsewhere(AskingFromElsewhere):
    def test_a_link_opens_the_page(self):
        self.configure_http()
        self.serve()
        for path in ("/", "/page.js", "/metrics", "/api/live"):
            self.assertEqual(self.ask(path).status, 401, path)
        with open(self.token) as token:
            bearer = "Bearer " + token.read().strip()
        self.assertIn(b"jorn_avcore_up", self.ask("/metrics", Authorization=bearer).read())
        link = self.link()
        self.assertTrue(link.startswith("http://%s:%d/enter?" % self.http), link)
        entered = self.ask(link.partition(":8080")[2])
        cookie = entered.headers["Set-Cookie"].partition(";")[0]
        page = self.ask("/", Cookie=cookie)
        self.assertEqual(page.status, 200)
        self.assertIn("default-src 'none'", page.headers["Content-Security-Policy"])
        self.assertEqual(self.ask(link.partition(":8080")[2]).status, 403)
        self.assertIn("in the clear", self.stop())

    def test_others_leave_room(self):
        """Who has a whole /64, and somebody else; loopback is there for all that."""
        self.configure_http()
        for address in ("2001:db8::1/128", "2001:db8::2/128"):
            subprocess.run(["ip", "address", "replace", address, "dev", "lo", "nodad"], check=True)
        self.http = ("[::]", 8080)
        self.serve()
        def is_served(source, server):
            with contextlib.suppress(OSError):
                half = socket.create_connection((server, 8080), DEADLINE, (source, 0))
                self.addCleanup(half.close)
                half.sendall(b"GET /met")
                half.settimeout(0.05)
                try:
                    return half.recv(1) != b""
                except TimeoutError:
                    return True
            return False
        site = [is_served(f"2001:db8::{1 + i % 2}", "2001:db8::1") for i in range(50)]
        self.assertEqual(sum(site), 40)
        self.assertEqual(sum(is_served(ELSEWHERE, ELSEWHERE) for _ in range(20)), 16)
        self.assertTrue(is_served("127.0.0.1", "127.0.0.1"))

    def test_encrypted(self):
        files = self.folder + "/key.pem", self.folder + "/certificate.pem"
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                        "-subj", "/CN=" + ELSEWHERE, "-addext", "subjectAltName=IP:" + ELSEWHERE,
                        "-keyout", files[0], "-out", files[1]], check=True, capture_output=True)
        self.configure_http('key = "%s"\ncertificate = "%s"\n' % files)
        self.serve()
        encryption = ssl.create_default_context(cafile=files[1])
        link = self.link()
        self.assertTrue(link.startswith("https://"), link)
        entered = self.ask(link.partition(":8080")[2], encryption)
        self.assertIn("; Secure", entered.headers["Set-Cookie"])
        live = self.ask("/api/live", encryption, Cookie=entered.headers["Set-Cookie"].partition(";")[0])
        self.assertTrue(live.readline().startswith(b"data: "))
        self.assertNotIn("in the clear", self.stop())


if __name__ == "__main__":
    unittest.main()
