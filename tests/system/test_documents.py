"""What a document changes in the daemon, what is in force as a document, and that only what differs
is sent, whatever came in between."""
import random

from records import *
from test_listings import (CARRIER_SHOW, EXAMPLE, INTF_SHOW, PORT_SHOW, SENT, USERDEF_SHOW, UTP_SHOW,
                           WEB_SHOW)

FOLDER = "/writable/jorn"
FILES = ("jorn_config.txt", "web_filter_config.txt", "wificalling_config.txt")
APPLIED = f"{FOLDER}/applied.json"
NOTHING = (0, "nothing differs, nothing is sent\n", "")
UNUSED = "; what the last apply left isn't used\n"
TEN = struct.pack("=I", 10)
LISTINGS = ((USERDEF_SHOW, b""), (PORT_SHOW, b""), (UTP_SHOW, b""), (PRIORITY, TEN), (WEB_SHOW, TEN),
            (INTF_SHOW, b"wlan0"), (CARRIER_SHOW, b""))


def example():
    return json.loads(read_file(EXAMPLE).partition("\n")[2])  # behind the comment


def files():
    """What is in them, and by which write."""
    return {name: (read_file(f"{FOLDER}/{name}"), os.stat(f"{FOLDER}/{name}").st_ino) for name in FILES}


def texts():
    return {name: text for name, (text, _) in files().items()}


def shown():
    """As the daemon says it: jornctl would take a process for each listing."""
    return [command(*listing) for listing in LISTINGS]


class Documents(JudgingTest):
    def apply(self, document, *options):
        return jornctl("apply", *options, "-", document=document)

    def diff(self, document, *options):
        return jornctl("diff", *options, "-", document=document)

    def restart_empty(self):
        self.assertEqual(self.jorn.stop(), 0)
        shutil.rmtree(FOLDER)
        write_file(PORT_SERVICE_FILE, "")
        self.start()

    def test_what_differs_and_what_is_in_force(self):
        document = example()
        self.assertEqual(self.diff(document)[0], 1)
        self.assertEqual(self.apply(document), (0, SENT, ""))
        self.assertEqual(os.stat(APPLIED).st_mode & 0o7777, 0o640)
        before = files(), shown()
        self.assertEqual(self.apply(document), NOTHING)
        self.assertEqual(self.diff(document), (0, "", ""))
        status, exported, complaints = jornctl("export")
        self.assertEqual((status, complaints, jornctl("export", "--check")), (0, "", (0, exported, "")))
        self.assertEqual(self.apply(json.loads(exported)), NOTHING)
        self.assertEqual((files(), shown()), before)

        document["policies"][0]["rules"][0]["deny"] = not document["policies"][0]["rules"][0].get("deny")
        document["utps"].append({"id": 33, "name": "more"})
        document["carriers"][0]["priority"] = 2
        policy, rule = document["policies"][0]["name"], document["policies"][0]["rules"][0]
        status, said, complaints = self.diff(document)
        self.assertEqual((status, complaints), (1, ""))
        self.assertIn(f'~ policy "{policy}": rules "{rule["app_name"]}" deny: ', said)
        self.assertIn('+ UTP "more (UTP 33)"\n', said)
        self.assertIn(f'~ carrier "{document["carriers"][0]["pname"]}": priority: ', said)
        self.assertEqual(said.count("\n"), 3, said)
        changes = json.loads(self.diff(document, "--json")[1])["changes"]
        self.assertEqual([(c["change"], c["table"]) for c in changes],
                         [("~", "policies"), ("+", "utps"), ("~", "carriers")])
        self.assertIn("sent what differs, ", self.apply(document)[1])
        self.assertEqual(self.apply(document), NOTHING)
        self.assertEqual(files()[FILES[1]], before[0][FILES[1]])  # nobody wrote it

        listed, written, exported = shown(), texts(), json.loads(jornctl("export")[1])
        self.restart_empty()
        self.assertEqual(self.apply(exported)[::2], (0, ""))
        self.assertEqual((shown(), texts()), (listed, written))
        # Files bring back what they hold, and the whole document the rest.
        self.start()
        status, said, complaints = self.diff(document)
        self.assertEqual((status, complaints.count("the daemon was started since" + UNUSED)), (1, 1))
        self.assertIn('+ web UTP "', said)
        self.assertIn("unknown: ", complaints)
        self.assertEqual(self.apply(document)[0], 0)
        self.assertEqual((shown(), texts(), self.apply(document)), (listed, written, NOTHING))

    def test_policies_alone_over_a_restart(self):
        document = {"policies": [{"utp_id": i, "rules": [{"app_name": "host.example"}]}
                                 for i in (1, 2)],
                    "web_policies": [{"utp_id": i, "name": f"w{i}"} for i in (1, 2)], "web_interfaces": []}
        self.apply(document)
        self.start()
        self.assertNotIn("~", self.diff(document)[1])
        self.assertIn("sent 2 policies, ", self.apply(document)[1])
        self.assertEqual(self.apply(document), NOTHING)

    def test_what_is_wrong(self):
        self.assertEqual(self.diff({"policies": [{}]})[0], 2)
        self.assertEqual(jornctl("diff", "/nowhere")[::2],
                         (2, "jornctl: /nowhere: can't be opened: No such file or directory\n"))
        os.mkdir(f"{FOLDER}/{FILES[0]}")  # nobody can read it
        self.assertEqual((self.diff(example())[0], jornctl("export")[:2]), (2, (1, "")))
        os.rmdir(f"{FOLDER}/{FILES[0]}")
        # A UTP may well have its policy by the uuid that nobody shows.
        self.apply(example())
        os.unlink(APPLIED)
        known = {table: example()[table] for table in ("utps", "web_utps")}
        self.assertEqual(self.diff(known)[:2], (0, ""))
        known["utps"][0]["uuid"] = ""
        self.assertEqual(self.diff(known)[:2], (1, '~ UTP "Guests (UTP 10)": policy: "guests" -> none\n'))
        with open("/dev/full", "w") as full:  # "something differs" has to be said
            done = subprocess.run([jorn_path("jornctl"), "diff", "--json", EXAMPLE], stdout=full,
                                  stderr=subprocess.DEVNULL)
        self.assertEqual(done.returncode, 2)
        self.jorn.stop()
        for arguments in (("diff", EXAMPLE), ("export",)):
            self.assertEqual(jornctl(*arguments)[0], 2)
        self.assertEqual(jornctl("export", "--check")[0], 0)
        # No more than the daemon takes of it.
        write_file(f"{FOLDER}/{FILES[2]}", "[wificallingPolicy]\n[wificallingPolicy end]\n[intfcfg]\n" +
                   "".join(f"w{i};1;0;1;c;\n" for i in range(1100)))
        exported = json.loads(jornctl("export", "--check")[1])
        self.assertEqual(len(exported["wificalling_interfaces"]), 1024)

    def stand_in(self, number, reply):
        """The path of a socket in front of the daemon's with another answer to this command."""
        path = f"/var/run/stand-in{number}-{len(reply)}.sock"
        listener = socket.socket(socket.AF_UNIX)
        self.addCleanup(listener.close)
        listener.bind(path)
        listener.listen()

        def serve():
            with contextlib.suppress(OSError):
                while True:
                    with listener.accept()[0] as client:
                        message = b""
                        while piece := client.recv(65536):
                            message += piece
                        if message:
                            asked, = struct.unpack_from("=I", message, 4)
                            client.sendall(reply if asked == number else command(asked, message[20:]))
        threading.Thread(target=serve, daemon=True).start()
        return path

    def test_answers_that_break_off(self):
        document = example()
        self.apply(document)
        left = texts(), shown()
        for number, reply in ((4, b""), (25, command(25).partition(b"AVC policy")[0]), (32, b""), (33, b""),
                              (33, command(33, struct.pack("=I", 10)).partition(b"Policy UUID")[0])):
            with self.subTest(number=number, reply=reply):
                path = self.stand_in(number, reply)
                for status, arguments in ((2, ("diff", "-")), (1, ("export",)), (1, ("apply", "-"))):
                    done = jornctl(*arguments, "--socket", path, document=document)
                    self.assertEqual((done[:2], f"command {number} broke off" in done[2]),
                                     ((status, ""), True), done)
                self.assertEqual((texts(), shown()), left)

    def test_somebody_else_in_between(self):
        document = example()
        self.apply(document)
        left = texts(), shown()
        other = policy(5, rule("other"), name="other", uuid="o")
        for number, payload in ((POLICY_FLUSH, b""), (CLEAN, b""), (UTP_FLUSH, b""), (WEB_FLUSH, b""),
                                (38, b""), (POLICY, other), (WEB_INTF, web_binding("wlan9"))):
            with self.subTest(number):
                command(number, payload)
                status, _, complaints = self.apply(document)
                self.assertEqual((status, complaints.count("since by somebody else" + UNUSED)), (0, 1),
                                 complaints)
                if number == WEB_INTF:  # it stays, for the document doesn't name it
                    self.assertIn("wlan9", texts()[FILES[1]])
                else:
                    self.assertEqual((texts(), shown()), left)

    def test_hostile_memory(self):
        document = example()
        self.apply(document)
        memory, left = read_file(APPLIED), (texts(), shown())

        def put(text, mode=0o640, owner=0):
            write_file(APPLIED, text)
            os.chmod(APPLIED, mode)
            os.chown(APPLIED, owner, 0)

        def link():
            write_file("/tmp/applied", memory)
            os.symlink("/tmp/applied", APPLIED)

        def huge():
            put(memory)
            os.truncate(APPLIED, 100_000_000)
        for name, make in (
                ("torn", lambda: put(memory[:len(memory) // 2])), ("empty", lambda: put("")),
                ("of another version", lambda: put(memory.replace('"version": 1', '"version": 2'))),
                ("a link", link), ("another owner's", lambda: put(memory, owner=1)),
                ("100 MB", huge), ("for all to write", lambda: put(memory, mode=0o666)),
                ("a FIFO", lambda: os.mkfifo(APPLIED)), ("a folder", lambda: os.mkdir(APPLIED)),
                ("no document", lambda: put(memory.replace('"document"', '"documents"'))),
                ("no hashes", lambda: put(memory.replace('"files": {', '"files": {}, "was": {'))),
                ("a document with mistakes", lambda: put(memory.replace('"policies"', '"polices"')))):
            with self.subTest(name):
                if os.path.exists(APPLIED):
                    os.unlink(APPLIED)
                make()
                for run in (lambda: self.diff(document), lambda: self.apply(document)):
                    status, said, complaints = run()
                    self.assertEqual(complaints.count(UNUSED), 1, complaints)
                    self.assertLess(complaints.index(UNUSED), 300)
                self.assertEqual((status, said, texts(), shown()), (0, SENT, *left))
                if name == "a folder":
                    os.rmdir(APPLIED)
                self.assertEqual(self.apply(document), (0, SENT, "") if name == "a folder" else NOTHING)

    def test_killed_at_any_moment(self):
        first, second = example(), example()
        second["policies"][0]["rules"].append({"app_name": "last.example", "deny": True})
        second["web_policies"][0]["blacklist"] = ["other.example"]
        second["carriers"].append({"pname": "new", "priority": 1})
        wanted = []
        for document in (first, second):
            self.apply(document)
            wanted.append((texts(), shown()))
        self.assertNotEqual(*wanted)
        began = time.monotonic()
        self.apply(first)
        takes = time.monotonic() - began
        broken = 0
        write_file(f"{APPLIED}.abcdef", "{")  # of one that was killed as it wrote
        for i in range(30):
            document = (second, first)[i % 2]
            process = subprocess.Popen([jorn_path("jornctl"), "apply", "-"], stdin=subprocess.PIPE,
                                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            process.stdin.write(json.dumps(document).encode())
            process.stdin.close()
            time.sleep(takes * random.random())
            process.kill()
            broken += process.wait() != 0
            self.assertEqual(self.apply(document)[0], 0)
            self.assertEqual((texts(), shown()), wanted[(i + 1) % 2])
            self.assertEqual(self.apply(document), NOTHING)
        self.assertGreater(broken, 0)
        self.assertFalse([name for name in os.listdir(FOLDER) if name.startswith("applied.json.")])

    def begin(self, document, file, mark):
        """An apply of the document, once the mark is in the daemon's file."""
        process = subprocess.Popen([jorn_path("jornctl"), "apply", "-"], stdin=subprocess.PIPE,
                                   stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        process.stdin.write(json.dumps(document))
        process.stdin.close()

        def is_begun():
            with contextlib.suppress(FileNotFoundError):  # it is written anew each time
                return mark in read_file(f"{FOLDER}/{file}")
        wait_until(is_begun)
        return process

    def end(self, process):
        """What it said."""
        said = process.stderr.read()
        process.wait()
        process.stderr.close()
        return said

    def kill_daemon(self):
        self.jorn.kill()
        self.jorn = None

    # So many commands that an apply isn't over once some are taken.
    LONG = {"web_policies": [{"uuid": f"u{i}", "utp_id": 1 + i % 64} for i in range(64)] +
            [{"uuid": f"v{i}"} for i in range(300)], "web_interfaces": []}
    SENT_LONG = (0, "sent 364 web policies, 0 web interfaces\n")

    def test_a_daemon_that_dies(self):
        process = self.begin(self.LONG, FILES[1], "u60;")
        self.kill_daemon()
        self.assertRegex(self.end(process),
                         r"the tables may be half made \(\d+ of 365 commands sent\), apply again\n$")
        self.assertEqual(process.returncode, 2)
        self.start()
        self.assertEqual(self.apply(self.LONG)[:2], self.SENT_LONG)
        self.assertEqual(read_file(f"{FOLDER}/{FILES[1]}").count("[policy]"), 364)

    def test_a_daemon_that_is_started_anew_meanwhile(self):
        process = self.begin(self.LONG, FILES[1], "u60;")
        process.send_signal(signal.SIGSTOP)
        self.kill_daemon()
        self.start()
        process.send_signal(signal.SIGCONT)
        # It notices at once where a command was on its way.
        self.assertRegex(self.end(process), r"half made \(\d+ of|was started meanwhile")
        self.assertEqual(self.apply(self.LONG)[:2], self.SENT_LONG)

    def test_two_at_once_without_a_folder(self):
        first, second = ({"policies": [{"utp_id": i, "rules": [{"app_name": f"{name}{i}.example"}]}
                                       for i in range(1, 64)]} for name in ("first", "second"))
        shutil.rmtree(FOLDER)
        process = self.begin(first, FILES[0], "first20.")
        process.send_signal(signal.SIGSTOP)
        other = threading.Thread(target=self.apply, args=(second,))
        other.start()
        time.sleep(0.3)
        process.send_signal(signal.SIGCONT)
        self.end(process)
        other.join()
        policies = read_file(f"{FOLDER}/{FILES[0]}")
        self.assertEqual((policies.count("first"), policies.count("second")), (0, 63))

    def test_a_full_disk(self):
        document = {"policies": [{"utp_id": i, "rules": [{"app_name": f"host{j:02}.example"}
                                                          for j in range(20)]}
                                 for i in range(1, 11)], "web_policies": [], "web_interfaces": []}
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=256k", "tmpfs", FOLDER], check=True)
        self.addCleanup(subprocess.run, ["umount", FOLDER])
        for i in range(200):
            command(WEB_POLICY, web_policy(f"u{i}", white=["x" * 60] * 6))
        with contextlib.suppress(OSError), open(f"{FOLDER}/else", "wb", buffering=0) as file:
            while True:
                file.write(bytes(4096))
        # The flushed web policies make room for what is remembered, but not before it is needed.
        status, said, complaints = self.apply(document)
        self.assertEqual((status, complaints.count("the saved files aren't what was sent")), (0, 1), complaints)
        os.unlink(f"{FOLDER}/else")
        self.assertEqual(self.apply(document), (0, said, complaints.partition("jornctl: warning: the saved")[0]))
        self.assertEqual((read_file(f"{FOLDER}/{FILES[0]}").count("[policy]"), self.apply(document)),
                         (10, NOTHING))

class Verdicts(JudgingTest):
    values = {"tm_support": "1"}

    def test_other_rules_while_one_changes(self):
        try:
            os.sched_setscheduler(0, os.SCHED_FIFO, os.sched_param(1))
            os.sched_setscheduler(0, os.SCHED_OTHER, os.sched_param(0))
        except PermissionError:
            self.skipTest("jornctl can't take the processor for the moments that it needs it")
        names = [f"host{i:02}.example" for i in range(64)]
        frames = [tcp_frame(40000, 443) + trailer(src_utp_id=1, filter_type=2, dpi_status=2,
                                                  dpi_app_name=name) for name in names]

        def document(deny):
            return {"policies": [{"utp_id": 1, "uuid": "u", "rules": [
                {"app_name": name, "deny": i % 2 == 0 if i < 63 else deny}
                for i, name in enumerate(names)]}], "utps": [{"id": 1, "name": "n", "uuid": "u"}]}
        self.assertEqual(jornctl("apply", "-", document=document(True))[0], 0)
        said = set()

        def change():
            for i in range(20 if is_sanitized("jornctl") else 50):
                said.add(jornctl("apply", "-", document=document(i % 2 == 1))[1:])
        changes = threading.Thread(target=change)
        changes.start()
        judged, last = [], set()
        while changes.is_alive():
            verdicts = [v.verdict for v in self.judge(frames, b"", burst=64)]
            judged += verdicts[:63]
            last.add(verdicts[63])
        self.assertEqual((said, last), ({("sent what differs, 3 commands of 4\n", "")}, {1, 3}))
        wrong = sum(verdict != (3 if i % 63 % 2 == 0 else 1) for i, verdict in enumerate(judged))
        self.assertEqual(wrong, 0, len(judged))


if __name__ == "__main__":
    unittest.main()
