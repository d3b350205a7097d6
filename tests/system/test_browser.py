"""The page in a real browser: headless Chromium by chromedriver and Selenium, behind a watch socket that the
test plays. Needs chromium, chromium-driver and python3-selenium."""
from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

from test_page import *

HOSTILE = ['<script>document.title="broken"</script>', '"><img src=x onerror=alert(1)>', "\u202egnp.exe", "שלום", "' & `"]


class Browser(Asking):
    def open(self, fragment="", size="1200,900"):
        options = Options()
        for word in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--window-size=" + size):
            options.add_argument(word)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self.browser = webdriver.Chrome(service=Service(shutil.which("chromedriver")), options=options)
        self.addCleanup(self.browser.quit)
        self.browser.get("http://%s:%d/" % self.http + fragment)

    def js(self, text):
        return self.browser.execute_script("return " + text)

    def rows(self):
        """The cells of what is in the document, from the top."""
        return self.js("[...document.querySelectorAll('#space .row')]"
                       ".sort((a, b) => a.dataset.place - b.dataset.place)"
                       ".map(row => [...row.children].map(cell => cell.textContent))")

    def first(self):
        return next(iter(self.rows()), [""] * 5)

    def press(self, *keys):
        self.browser.find_element(By.ID, "grid").send_keys(*keys)

    def assert_no_complaints(self):
        self.assertEqual([each["message"] for each in self.browser.get_log("browser")], [])

    def test_a_flow_its_verdict_and_the_way_to_it(self):
        avcore = Avcore(self.socket, [flow(1, 100, 1_000, application="youtube")])
        self.serve()
        self.open("#table=flows")
        wait_until(lambda: [row[:4] for row in self.rows()] == [["telly", "youtube", "198.51.100.7:443", "allow"]])
        why = {"by": "web policy", "text": "youtube: denied by the web policy"}
        denied = flow(1, 200, 2_000, application="youtube", verdict="deny", why=why)
        avcore.tell({"flow": denied}, {"event": {"what": "denied", "us": 7, "flow": denied}}, watching=True)
        wait_until(lambda: [row[3] for row in self.rows()] == ["deny"])
        self.press("4")
        wait_until(lambda: [row[4] for row in self.rows()] == [why["text"]])
        self.press(Keys.ENTER)
        wait_until(lambda: why["text"] in self.js("document.getElementById('members').textContent"))
        self.browser.find_element(By.ID, "detail-close").click()

        drawn = self.js("about.plot.data[0].length")
        self.assertGreater(drawn, 100)
        self.assertGreater(self.js("document.querySelector('#plot canvas').height"), 50)
        last = self.js("about.plot.data[0].at(-1)")
        wait_until(lambda: self.js("about.plot.data[0].at(-1)") > last + 1)

        self.press("1")
        wait_until(lambda: self.first()[0] == "telly")
        self.press(Keys.ENTER)
        wait_until(lambda: "table=applications" in self.browser.current_url and self.first()[0] == "youtube")
        self.assertIn("telly", self.js("document.getElementById('path').textContent"))
        self.press(Keys.ENTER)
        wait_until(lambda: "table=flows" in self.browser.current_url and self.rows())
        self.browser.back()
        wait_until(lambda: "table=applications" in self.browser.current_url and self.rows())
        self.browser.find_element(By.XPATH, "//button[text()='Hours']").click()
        wait_until(lambda: "span=hour" in self.browser.current_url)
        self.assert_no_complaints()
        avcore.kill()
        wait_until(lambda: "avcore doesn't tell" in self.js("document.getElementById('state').textContent"))

    def test_hostile_names_and_many_rows(self):
        flows = [flow(number, number, number, application=HOSTILE[number % len(HOSTILE)],
                      id="<b>%d" % number, host=HOSTILE[(number + 1) % len(HOSTILE)]) for number in range(10_000)]
        Avcore(self.socket, flows)
        self.serve()
        self.open("#table=flows&order=bytes", "400,800")
        wait_until(lambda: self.js("document.getElementById('total').textContent") == "10000 flows", "all flows")
        wait_until(lambda: self.first()[1] not in ("", "…"))
        shown = {row[1] for row in self.rows()}
        self.assertLessEqual(shown, {name.replace("\u202e", "?") for name in HOSTILE})
        self.assertIn(HOSTILE[0], shown)
        self.assertLess(len(self.rows()), 100)
        self.assertEqual(self.js("document.querySelectorAll('#grid script, #grid img, #grid b').length"), 0)
        self.assertEqual(self.js("document.documentElement.scrollWidth <= window.innerWidth"), True)
        self.press(Keys.END)
        wait_until(lambda: (rows := self.rows()) and rows[-1][1] != "…" and
                   self.js("grid.first + grid.rows.length") == 10_000)
        self.assertLess(len(self.rows()), 100)
        self.assertEqual(self.browser.title, "jorn: flows")
        self.assert_no_complaints()


if __name__ == "__main__":
    unittest.main()
