"""The page in a real browser: headless Chromium by chromedriver and Selenium, in front of an access point that
judges a client's traffic, and of a watch socket that the test plays. Needs chromium, chromium-driver and
python3-selenium."""
from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

from inline_lab import *
from test_page import *

HOSTILE = ['<script>document.title="broken"</script>', '"><img src=x onerror=alert(1)>', "\u202egnp.exe", "שלום", "' & `"]
SEEN = [name.replace("\u202e", "?") for name in HOSTILE]
WATCH_SOCKET, FOLDER = "/run/jorn/watch.sock", "/tmp/page"


class Browsing:
    def open(self, fragment="", size="1200,900", page="http://%s:%d/" % HTTP):
        options = Options()
        for word in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--window-size=" + size):
            options.add_argument(word)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self.browser = webdriver.Chrome(service=Service(shutil.which("chromedriver")), options=options)
        self.addCleanup(self.browser.quit)
        self.browser.get(page + fragment)

    def js(self, text):
        return self.browser.execute_script("return " + text)

    def text(self, name):
        return self.js(f"document.getElementById('{name}').textContent")

    def rows(self):
        """The cells of what is in the document, from the top."""
        return self.js("[...document.querySelectorAll('#space .row')]"
                       ".sort((a, b) => a.dataset.place - b.dataset.place)"
                       ".map(row => [...row.children].map(cell => cell.textContent))")

    def column(self, place):
        return [row[place] for row in self.rows()]

    def press(self, *keys):
        ActionChains(self.browser).send_keys(*keys).perform()

    def looks_at(self, words):
        return words in self.browser.current_url

    def assert_no_complaints(self):
        self.assertEqual([each["message"] for each in self.browser.get_log("browser")], [])


class BehindAGate(Browsing, InlineTest):
    def serve(self):
        shutil.rmtree(FOLDER, ignore_errors=True)
        client_mac = link_address("-n", "client", "link", "show", "eth0")
        write_file(FOLDER + "/avwatch.toml",
                   f'[alias]\nlaptop = "{client_mac}"\n[history]\nfile = "{FOLDER}/history.db"\n')
        server = subprocess.Popen([jorn_path("avwatch"), "-c", FOLDER + "/avwatch.toml", "--watch-socket", WATCH_SOCKET,
                                   "serve", "--http", "%s:%d" % HTTP])
        self.addCleanup(server.wait)
        self.addCleanup(server.kill)

        def listens():
            with contextlib.suppress(OSError):
                return socket.create_connection(HTTP).close() is None
        wait_until(listens)

    def cells(self, application):
        return next((row for row in self.rows() if row[1] == application), [""] * 10)

    def test_a_flow_its_verdict_and_the_way_to_it(self):
        name = f"app-{SWITCHED}"
        self.start("", "--watch-socket", WATCH_SOCKET)
        self.serve()
        self.open("#table=flows")
        sender = self.talk(SERVERS[4], SWITCHED)
        wait_until(lambda: self.cells(name)[:4] == ["laptop", name, f"{SERVERS[4]}:{SWITCHED}", "allow"])
        wait_until(lambda: "kB/s" in self.cells(name)[5])
        wait_until(lambda: self.js("about.plot.data[2].at(-1)") > 1_000)
        self.assertGreater(self.js("document.querySelector('#plot canvas').height"), 50)
        drawn = self.js("about.plot.data[0].at(-1)")
        wait_until(lambda: self.js("about.plot.data[0].at(-1)") > drawn + 1)
        self.assertEqual(self.text("state"), "")

        self.assertEqual(jornctl("apply", "-", document=policies({**RULES, SWITCHED: {"deny": True}}))[::2], (0, ""))
        wait_until(lambda: self.cells(name)[3] == "deny" and self.cells(name)[8] != "0")
        self.press("4")
        why = wait_until(lambda: [row[4] for row in self.rows() if row[2] == name])[0]
        self.assertIn("application policy", why)
        self.explain(sender, why)
        self.drill_down(name)
        self.lose_who_decides()
        self.assert_no_complaints()

    def explain(self, sender, why):
        """A denial says why, and by which command more of it is said."""
        self.press(Keys.ENTER)
        wait_until(lambda: why in self.text("members"))
        command = re.search(r"avwatch (why [^ ]+ [^ ]+ --protocol udp)", self.text("members"))[1].split()
        self.assertEqual(command[1:3], ["%s" % CLIENTS[4], "%s:%d" % sender.socket.getpeername()])
        done = subprocess.run([jorn_path("avwatch"), *command], capture_output=True, text=True)
        self.assertEqual((done.returncode, done.stdout.split(" ")[0]), (1, "blocked"), done.stderr)
        self.browser.find_element(By.LINK_TEXT, "Flows of both").click()
        wait_until(lambda: self.looks_at("table=flows") and len(self.rows()) == 1)
        self.assertFalse(self.js("document.getElementById('detail').open"))

    def drill_down(self, name):
        self.browser.find_element(By.LINK_TEXT, "All").click()
        wait_until(lambda: not self.looks_at("client="))
        self.press("1")
        wait_until(lambda: self.looks_at("table=clients") and "laptop" in self.column(0))
        self.js(f"grid.choose({self.column(0).index('laptop')})")
        self.press(Keys.ENTER)
        wait_until(lambda: self.looks_at("table=applications") and name in self.column(0))
        self.assertIn("laptop", self.text("path"))
        self.js(f"grid.choose({self.column(0).index(name)})")
        self.press(Keys.ENTER)
        wait_until(lambda: self.looks_at("table=flows") and self.cells(name)[3] == "deny")
        self.press(Keys.BACKSPACE)
        wait_until(lambda: self.looks_at("table=applications") and name in self.column(0))
        self.browser.back()
        wait_until(lambda: self.looks_at("table=clients") and "laptop" in self.column(0))
        def bars():
            with urllib.request.urlopen("http://%s:%d/api/history?by=day" % HTTP) as said:
                return json.loads(said.read())["bars"]
        wait_until(bars)
        self.browser.find_element(By.XPATH, "//button[text()='Hours']").click()
        wait_until(lambda: self.looks_at("span=hour") and self.js("about.plot.data[0].length") >= 1)
        self.assertEqual(self.text("plot-trouble"), "")
        # Where the browser is it is another day than where the access point is, then or now.
        self.browser.execute_cdp_cmd("Emulation.setTimezoneOverride", {"timezoneId": "America/Los_Angeles"})
        self.browser.find_element(By.XPATH, "//button[text()='Days']").click()
        wait_until(lambda: self.looks_at("span=day") and self.js("about.timesOf(about.plot.data[0])") ==
                   [bar["date"][5:] for bar in bars()])

    def lose_who_decides(self):
        self.jorn.kill()
        wait_until(lambda: "daemon is gone" in self.text("state") and "gate is open" in self.text("state"))
        self.jorn = self.start_daemon()
        wait_until(lambda: self.text("state") == "")
        self.press("5")
        wait_until(lambda: {"the daemon is gone", "the daemon is back", "the gate does what is decided"} <=
                   set(self.column(1)))
        self.stop_avcore(self.avcore)
        wait_until(lambda: "avcore doesn't tell" in self.text("state"))
        self.start_avcore()
        wait_until(lambda: self.text("state") == "")


class Played(Browsing, Asking):
    def test_hostile_names_and_many_rows(self):
        flows = [flow(number, number, number, application=HOSTILE[number % len(HOSTILE)],
                      id="<b>%d" % number, host=HOSTILE[(number + 1) % len(HOSTILE)]) for number in range(10_000)]
        avcore = Avcore(self.socket, flows)
        avcore.clients = [{"client_mac": MAC.format(number), "addresses": [], "host_name": name, "flows": 1,
                           "up": [0, 0], "down": [0, 0], "dropped": [0, 0], "last_us": 2} for number, name in enumerate(HOSTILE, 2)]
        self.serve()
        self.open("#table=flows&order=bytes", "400,800")
        wait_until(lambda: self.text("total") == "10000 flows", "all flows")
        wait_until(lambda: self.rows() and self.column(1)[0] not in ("", "…"))
        self.assertLessEqual(set(self.column(1)), set(SEEN))
        self.assertIn(f'"{HOSTILE[0]}"', self.column(0))
        self.assertIn(HOSTILE[0], self.column(1))
        self.assertTrue(5 < len(self.rows()) < 100, self.rows())
        self.assertTrue(self.js("document.documentElement.scrollWidth <= window.innerWidth"))
        self.press(Keys.END)
        wait_until(lambda: (rows := self.rows()) and rows[-1][1] != "…" and
                   self.js("grid.first + grid.rows.length") == 10_000)
        self.assertLess(len(self.rows()), 100)

        why = {"by": "web policy", "text": HOSTILE[1]}
        denied = flow(2, 200, 2_000, application=HOSTILE[0], verdict="deny", why=why)
        avcore.tell({"event": {"what": "denied", "us": 7, "flow": denied}},
                    {"event": {"what": "gate", "us": 8, "state": "gone", "interface": HOSTILE[1]}}, watching=True)
        self.press("4")
        wait_until(lambda: self.column(4) == [HOSTILE[1]])
        self.press(Keys.ENTER)
        wait_until(lambda: HOSTILE[1] in self.text("members") and
                   all(f"{what} of {name}" in self.text("ways") for what, name in
                       (("Applications", f'"{HOSTILE[0]}"'), ("Clients", HOSTILE[0]))))
        self.browser.find_element(By.PARTIAL_LINK_TEXT, "Clients of").click()
        wait_until(lambda: self.looks_at("table=clients") and self.rows() and HOSTILE[0] in self.text("path"))
        self.press("5")
        wait_until(lambda: self.column(1) == [f"the gate at {HOSTILE[1]} is gone"])
        self.assertEqual(self.js("document.querySelectorAll('main script, main img, main b').length"), 0)
        self.assertEqual(self.browser.title, "jorn: events")
        self.assert_no_complaints()

    def streams(self):
        """Of pages that are looked at: connections to the server that stay."""
        with open("/proc/net/tcp") as lines:
            return sum(words[1].endswith(":%04X" % HTTP[1]) and words[3] == "01" for words in map(str.split, lines))

    def test_keys_colours_and_a_hidden_tab(self):
        avcore = Avcore(self.socket, [flow(number, number, number) for number in range(9)])
        self.serve()
        self.open("#table=flows&order=bytes")
        wait_until(lambda: len(self.rows()) == 9)
        chosen = "document.querySelector('#space [aria-selected=true]').dataset.place"
        self.press(Keys.ARROW_DOWN, Keys.ARROW_DOWN)
        wait_until(lambda: self.js(chosen) == "2")
        self.assertEqual(self.js("document.getElementById('grid').getAttribute('aria-activedescendant')"), "row-2")
        avcore.tell({"flow": flow(0, 99, 99)}, watching=True)
        wait_until(lambda: self.js(chosen) == "3")  # it goes with its row
        self.browser.find_element(By.XPATH, "//button[text()='Down ▼']").click()
        wait_until(lambda: self.looks_at("reversed=1"))
        self.press(Keys.ENTER)
        wait_until(lambda: not self.looks_at("reversed=1"))
        self.assertEqual(self.js("document.activeElement.textContent"), "Down ▼")
        self.press("/")
        self.press("app2")  # what is a key elsewhere, too, as 2 is, is text there
        wait_until(lambda: self.looks_at("part=app2") and set(self.column(1)) == {"app2"})
        self.press(Keys.ESCAPE, "?")
        wait_until(lambda: self.js("document.getElementById('help').open"))
        self.press(Keys.ESCAPE)
        wait_until(lambda: not self.js("document.getElementById('help').open"))

        def ground(scheme):
            self.browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {
                "features": [{"name": "prefers-color-scheme", "value": scheme}]})
            return self.js("[getComputedStyle(document.body).backgroundColor, about.plot.axes[0].stroke()]")
        light, dark = ground("light"), wait_until(lambda: ground("dark"))
        self.assertEqual((light[0], dark[0]), ("rgb(255, 255, 255)", "rgb(17, 21, 26)"))
        wait_until(lambda: ground("dark")[1] != light[1])  # the plot is drawn anew

        wait_until(lambda: self.streams() == 1)
        shown = self.browser.current_window_handle
        self.browser.switch_to.new_window("tab")
        wait_until(lambda: self.streams() == 0)
        self.browser.close()
        self.browser.switch_to.window(shown)
        wait_until(lambda: self.streams() == 1)
        self.assert_no_complaints()

    def test_refused_and_left_alone(self):
        Avcore(self.socket, [flow(number, number, number) for number in range(9)])
        self.serve()
        others = [self.ask("/api/live") for _ in range(24)]
        self.open()
        wait_until(lambda: self.text("state") == "too many look on already")
        for each in others:
            each.close()
        wait_until(lambda: self.text("state") == "" and self.rows())
        self.stop()
        wait_until(lambda: "nobody answers" in self.text("state"))
        self.serve()
        wait_until(lambda: self.text("state") == "")
        # The course is read anew: nothing is drawn over the time in which nobody answered.
        wait_until(lambda: self.js("about.plot.data[0].every((at, i, all) => i === 0 || at - all[i - 1] < 3)"))


class Entered(Browsing, AskingFromElsewhere):
    def test_a_link_is_followed(self):
        Avcore(self.socket, [flow(number, number, number) for number in range(9)])
        self.configure_http()
        self.serve()
        self.open(page=self.link())
        wait_until(lambda: len(self.rows()) == 9)
        self.browser.get("http://%s:%d/#table=flows" % self.http)
        wait_until(lambda: self.looks_at("table=flows") and len(self.rows()) == 9)
        self.assert_no_complaints()


if __name__ == "__main__":
    unittest.main(defaultTest=["BehindAGate", "Played", "Entered"])
