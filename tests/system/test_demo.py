"""`scripts/demo page`: what the machine's browser and avwatch get out of its box, and that nothing is left of
it when the way in has gone."""
import http.client
import json
import re

from testbed import *

WATCH_SOCKET = os.path.dirname(os.environ["JORN_BIN_DIR"]) + "/watch.sock"


class Page(unittest.TestCase):
    def test_is_there_until_its_door_goes(self):
        # Between the door and the box stands somebody who doesn't pass on signals, as sudo does.
        box = f"{PROJECT}/scripts/private {sys.executable} -B -m demo page; true"
        door = subprocess.Popen([sys.executable, "-B", "-m", "demo.door", "sh", "-c", box], cwd=PROJECT,
                                stdout=subprocess.PIPE, text=True)
        self.addCleanup(door.stdout.close)
        self.addCleanup(door.wait)
        self.addCleanup(door.kill)
        port = next(int(found[1]) for line in door.stdout if (found := re.search("http://127.0.0.1:([0-9]+)/", line)))

        def denied():
            asking = http.client.HTTPConnection("127.0.0.1", port, timeout=DEADLINE)
            with contextlib.closing(asking):
                asking.request("GET", "/api/rows?table=denials")
                return json.loads(asking.getresponse().read())["rows"]
        self.assertIn(wait_until(denied)[0]["name"], ("tablet", "console", "phone"))
        def clients():
            return subprocess.run([jorn_path("avwatch"), "--watch-socket", WATCH_SOCKET, "clients"], check=True,
                                  stdout=subprocess.PIPE, text=True).stdout
        wait_until(lambda: "02:00:00:00:00:04" in clients())
        refused = subprocess.run([sys.executable, "-B", "-m", "demo.door", "true"], cwd=PROJECT,
                                 stderr=subprocess.PIPE, text=True)
        self.assertEqual((refused.returncode, "another" in refused.stderr), (1, True), refused.stderr)

        door.kill()
        def has_gone():
            with socket.socket() as tried:
                return tried.connect_ex(("127.0.0.1", port)) != 0
        wait_until(has_gone)


if __name__ == "__main__":
    unittest.main()
