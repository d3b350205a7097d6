"""avwatch's metrics as a real Prometheus takes them: run by scripts/test-prometheus."""
import urllib.parse

from test_history import *

RULES = EXAMPLES + "/prometheus-rules.yml"
API = "http://127.0.0.1:9090/api/v1/query?"


class Prometheus(Served):
    def test_scraped_and_asked(self):
        self.configure("[metrics]\nclients = true\n")
        avcore = Avcore(self.socket)
        avcore.gate = {"there": True, "beat_age_ms": 4_000}  # the daemon has gone
        self.serve()
        write_file(self.folder + "/prometheus.yml", "global: {evaluation_interval: 1s}\nrule_files: [%s]\n"
                   "scrape_configs: [{job_name: jorn, scrape_interval: 200ms, "
                   "scrape_timeout: 200ms, static_configs: [{targets: ['%s:%d']}]}]\n" % (RULES, *HTTP))
        prometheus = subprocess.Popen(
            ["prometheus", f"--config.file={self.folder}/prometheus.yml", "--web.listen-address=127.0.0.1:9090",
             f"--storage.tsdb.path={self.folder}/data"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(prometheus.wait)
        self.addCleanup(prometheus.kill)

        def asked(query):
            with contextlib.suppress(OSError), urllib.request.urlopen(
                    API + urllib.parse.urlencode({"query": query}), timeout=DEADLINE) as answer:
                return [float(each["value"][1]) for each in json.load(answer)["data"]["result"]]
        wait_until(lambda: asked("jorn_avcore_up") == [1])
        avcore.tell(ended(1, 40_000, 12_345_678, application='big "file"\\.example'), ended(2, 5, 7))
        for query, value in (('ALERTS{alertname="JornDaemonGone"}', 1), ('count(ALERTS)', 1),
                             ('sum(jorn:application_bytes:rate5m) >= bool 0', 1),
                             ('jorn_bytes_total{application=~"big.*", direction="down"}', 12_345_678),
                             ('sum(jorn_bytes_total{direction="down"})', 12_345_685),
                             ('sum(jorn_client_bytes_total)', 12_385_690)):
            wait_until(lambda: asked(query) == [value], query)
        checked = subprocess.run(["promtool", "check", "metrics"], input=self.page(), text=True, capture_output=True)
        self.assertEqual((checked.returncode, checked.stdout + checked.stderr), (0, ""))
        self.stop()


if __name__ == "__main__":
    unittest.main()
