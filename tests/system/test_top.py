"""avwatch top on a terminal, tmux's, against a watch socket that the test plays: what is on the screen, through
avcore's ends and starts, on small screens and plain ones, and what is left of it behind."""
import json
import re
import tempfile

from records import *
from test_avwatch import LAPTOP, TV, client, flow
from test_history import Avcore

PROFILE = {"rule": 0, "interface": "wlan0", "utp": 3, "if_index": 1, "server_interface": "eth0", "server_utp": 0,
           "server_if_index": 2, "web_utp": [0, 0], "filter": [], "engine": True}


def played(path, *flows):
    """An avcore that tells of a television and a laptop, and of their flows."""
    avcore = Avcore(path, list(flows))
    avcore.clients = [client(TV, "192.0.2.1"), client(LAPTOP, "192.0.2.2", host_name="laptop")]
    avcore.profiles = [PROFILE]
    return avcore


class OnTerminal(unittest.TestCase):
    def setUp(self):
        super().setUp()
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder, self.socket = folder.name, folder.name + "/watch.sock"
        write_file(folder.name + "/avwatch.toml", f'[alias]\ntelly = "{TV}"\n')
        write_file(folder.name + "/tmux.conf", 'set -g default-terminal "screen"\nset -g status off\n')
        self.addCleanup(self.tmux, "kill-server", check=False)

    def tmux(self, *words, check=True):
        return subprocess.run(["tmux", "-u", "-S", self.folder + "/tmux", "-f", self.folder + "/tmux.conf", *words],
                              check=check, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, timeout=DEADLINE,
                              env={**os.environ, "LC_ALL": "C.UTF-8", "SHELL": "/bin/sh"}).stdout.decode()

    def open(self, before="", columns=80, lines=24):
        self.tmux("new-session", "-d", "-x", str(columns), "-y", str(lines), "sh")
        self.run_top(before)

    def run_top(self, before=""):
        command = f"{jorn_path('avwatch')} -c {self.folder}/avwatch.toml --watch-socket {self.socket} top"
        self.keys(f"{before} {command}; echo left with $?", "Enter")

    def keys(self, *keys):
        self.tmux("send-keys", *keys)

    def screen(self, *how):
        return self.tmux("capture-pane", "-p", *how)

    def wait(self, *texts, without=None):
        """Until all of them are on the screen."""
        deadline = time.monotonic() + DEADLINE
        while True:
            screen = self.screen()
            if all(text in screen for text in texts) and (without is None or without not in screen):
                return screen
            if time.monotonic() > deadline:
                self.fail(f"{texts}, without {without}:\n{screen}")
            time.sleep(0.05)


class Top(OnTerminal):
    def test_from_clients_to_a_reason(self):
        denied = flow(2, application="games.example", verdict="deny", dropped=[3, 0], gate="denies",
                      why={"rule": 1, "by": "web policy", "text": "named by DNS; by the web policy, Games"})
        avcore = played(self.socket, flow(1), denied, flow(3, client_mac=LAPTOP, client="192.0.2.2"))
        self.open()
        screen = self.wait("telly", '"laptop"', "3 flows").splitlines()
        self.assertRegex(screen[0], "^avwatch top: clients by rate .* up 0 B/s  down 0 B/s$")
        self.assertRegex(screen[2], "^ CLIENT +APPS +FLOWS +UP NOW +DOWN NOW +UP +DOWN +DROPPED$")
        for number in range(1, 4):
            avcore.tell({"count": {"id": "f1", "up": [99, 9_000], "down": [99, 20_000 + 600_000 * number],
                                   "dropped": [0, 0], "last_us": 1}}, watching=True)
            time.sleep(1)
        self.wait("kB/s")
        self.keys("n", "Down", "Enter")  # telly, behind "laptop"
        self.wait("clients > telly", "games.example", "www.example.com")
        self.keys("Home", "Enter")
        self.wait("clients > telly > games.example", "deny")
        self.keys("Enter")
        self.wait("named by DNS; by the web policy, Games", "3 packets by a denial")
        self.keys("Escape")
        self.wait("clients > telly > games.example", "SERVER")
        self.keys("BSpace", "Left")
        self.wait("laptop", without=">")
        self.keys("a", "/", "GAMES")
        self.wait("/GAMES_", "games.example", without="www.example.com")
        self.keys("q", "BSpace", "Enter", "q")
        self.wait("left with 0")

    def test_avcore_goes_and_comes(self):
        self.open(columns=150)
        self.wait("nobody is at the watch socket", "left with 2")
        avcore = played(self.socket, flow(1))
        self.run_top()
        self.wait("telly", "1 flow ")
        avcore.kill()
        self.wait("has ended the connection; tried again", "telly")
        os.unlink(self.socket)
        self.wait("nobody is at the watch socket")
        avcore = played(self.socket, flow(3, client_mac=LAPTOP, client="192.0.2.2"), flow(4))
        self.wait("2 flows", "laptop", "q leave")

    def test_any_terminal(self):
        hostile = [flow(number, client_mac=LAPTOP, application=name) for number, name in enumerate(
            ["a\x1b[2J\x1b]0;x\x07b\n", "x\u202etxt.exe", "\u05d0\u05d1 1", "\u6f22\u5b57\U0001f600"])]
        avcore = played(self.socket, *hostile)
        self.open("TERM=vt100", columns=100, lines=30)
        self.wait("laptop")
        self.keys("a", "n")
        self.wait("a?[2J?]0;x?b?", "x?txt.exe", " \u200e\u05d0\u05d1 1\u200e ", "\u6f22\u5b57\U0001f600")
        self.assertNotRegex(self.screen("-e"), "\x1b\\[[0-9;]*[34][0-7]m")
        for columns, lines, text in ((80, 24, "x?txt.exe"), (20, 5, "avwatch top"), (1, 1, "~"), (300, 80, "4 flows"),
                                     (33, 3, "q leave"), (80, 24, "x?txt.exe")):
            self.tmux("resize-window", "-x", str(columns), "-y", str(lines))
            self.wait(text)
        self.keys("C-c")
        self.wait("left with 0")
        for variable, is_coloured in (("NO_COLOR=1", False), ("NO_COLOR=", True)):
            self.keys("clear", "Enter")
            self.run_top(variable)
            self.wait("laptop", "q leave", without="left with")
            self.assertEqual(bool(re.search("\x1b\\[[0-9;]*36m", self.screen("-e"))), is_coloured, variable)
            self.keys("q")
            self.wait("left with 0")
        avcore.kill()

    def test_leaves_the_terminal_as_it_was(self):
        played(self.socket, flow(1))
        self.open()
        self.wait("telly")
        pid = int(subprocess.check_output(["pgrep", "-f", f"^{jorn_path('avwatch')} .*{self.socket} top"]))
        os.kill(pid, signal.SIGTERM)
        self.wait("left with 0", without="telly")
        self.keys(f"stty -a > {self.folder}/stty; echo written", "Enter")
        self.wait("\nwritten")
        said = read_file(self.folder + "/stty").split()
        self.assertTrue({"icanon", "echo", "icrnl", "isig"} <= {word.strip(";") for word in said}, said)
        done = subprocess.run([jorn_path("avwatch"), "--watch-socket", self.socket, "top"], stdin=subprocess.DEVNULL,
                              capture_output=True, timeout=DEADLINE)
        self.assertEqual((done.returncode, b"top needs a terminal" in done.stderr, done.stdout), (1, True, b""))


class WhatElse(OnTerminal, JudgingTest):
    def test_would_decide(self):
        rules = [{"app_name": "games", "deny": True}, {"app_name": "example", "rate_down": 1000}]
        document = {"policies": [{"utp_id": 3, "name": "guests", "rules": rules}]}
        self.assertEqual(jornctl("apply", "-", document=document)[0], 0)
        why = {"rule": 0, "named_by": "dns", "name": "www.games.example", "text": "by rule 1"}
        avcore = played(self.socket, flow(1), flow(2, application="www.games.example", verdict="deny", why=why))
        self.open(columns=100, lines=40)
        self.wait("telly")
        self.keys("f", "/", "GAMES", "Enter", "Enter")
        self.wait('without it  limited by rule 2 of policy "guests"', "then        passes: no rule")
        avcore.kill()
        self.wait("has ended the connection")
        os.unlink(self.socket)
        self.keys("Escape", "Enter")
        self.wait("without it  not known: nobody is at the watch socket", "www.games.example")
        self.keys("q")
        self.wait("left with 0")


if __name__ == "__main__":
    unittest.main()
