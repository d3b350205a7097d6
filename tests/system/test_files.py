"""The files that outlive the daemon, and the rest of its start."""
from records import *

FOLDER, POLICY_FILE = "/writable/jorn", "/writable/jorn/jorn_config.txt"
RULE_FOLDER, VERSION_FILE = "/writable/fw/tdts_rule", "/writable/fw/tdts_ver"
EMPTY = "[appPolicy]\n[appPolicy end]\n[userdef]\n[userdef end]\n"


def app(name, app_id, cat_id, **fields):
    return dict(app_name=name.lower(), app_id=app_id, app_cat_id=cat_id, match_info=1, **fields)


DEFINITIONS = userdefs(
    userdef("Clock", dst="10.0.0.0", mask="255.0.0.0", port=8443, protocol=6, app_id=40001, cat_id=9),
    userdef("Door", src="10.9.9.9", src_port=7, port=8080, app_id=65535, cat_id=2))
DEFINITION_LINES = "0;0;2;10;255;0;8443;6;40001;9;Clock;28;\n2;151587082;0;0;0;7;8080;0;65535;2;Door;11;\n"
POLICIES = (policy(3, rule("Clock", category="User Defined", deny=1), name="lost", uuid="lost"),
            policy(1, rule("icmp", app_id=0, mark=(2, 3), classify=1, up=1, down=65535), log=1))
POLICY_LINES = ("[policy]\n0;0;0;0;3;\n0,0,Clock,User Defined,1,0,0,0,0,0,0,0;\n[policy end]\n\n"
                "[policy]\n0;0;0;1;1;\n0,0,icmp,,0,1,1,2,3,1,1,65535;\n[policy end]\n\n")
WHOLE = f"[appPolicy]\n{POLICY_LINES}[appPolicy end]\n[userdef]\n{DEFINITION_LINES}[userdef end]\n"

# Lines of a port-service file, and what its last column, a packet to port 9000, is called.
PORT_LINES = [
    ("9000,TcP,4,1201,Portal", "Portal"), (" 9000\r, tcp ,4,1201, Portal \r", "Portal"),
    ("9000,,tcp,,4,1201,Portal,beyond,", "Portal"), ("9000,tcp,4,66737,Portal", "Portal"),
    ("9000,tcp,4,1201," + "P" * 70, "P" * 63), ("9000,tcp,4,1201,Portal," + "x" * 1100, "Portal"),
    ("9000,tcp,4,1201,Old\n9000,tcp,4,1201,Portal", "Portal"), ("9000,tcp,4,1201,Portal\0x", "Portal"),
    ("\n,,,,\nWDL_PORT_SERVICE_FILE_VER: 1.0,9000,tcp,1,2,No\n9000,tcp,4,1201,Portal", "Portal"),
    ("9000,tcp,4,1201", None), ("9000,tcp,4,1201, ", None), ("9000,icmp,4,1201,Portal", None),
    ("1,tcp,1,1,One\n9000,icmp,4,1201,Portal", None), ("9000,udp,4,1201,Portal", None),
    ("0,tcp,1,1,No\n65535,tcp,1,1,No\n-9000,tcp,4,1201,No\n74536,tcp,4,1201,No", None),
    ("x" * 1023 + "9000,tcp,4,1201,Portal", None), ("", None)]

# What may stand in the place of a file.
STRANGERS = {"FIFO": os.mkfifo, "device": lambda path: os.symlink("/dev/zero", path),
             "folder": lambda path: os.makedirs(f"{path}/inside"),
             "link that leads nowhere": lambda path: os.symlink("/nowhere/file", path)}


class Files(SystemTest):
    def setUp(self):
        super().setUp()
        self.av = self.platform()

    def name(self, port, **utps):
        return self.judge([tcp_frame(40000, port)], trailer(**utps))[0]

    def assert_said(self, **times):
        """How often the daemon has written each text, its blanks written as underscores."""
        for text, count in ((text.replace("_", " "), count) for text, count in times.items()):
            if count:
                self.jorn.wait_line(text)
            self.assertEqual(sum(text in line for line in self.jorn.lines.items), count, text)

    def configure(self):
        for block in POLICIES:
            command(POLICY, block)
        command(USERDEF, DEFINITIONS)

    def mount(self, target, *how):
        run("mount", *how, target)
        self.addCleanup(run, "umount", "-l", target)

    def test_what_is_saved_comes_back(self):
        write_file(PORT_SERVICE_FILE, "9000,tcp,4,1201,Portal\n")
        self.start()
        self.configure()
        self.assertEqual(read_file(POLICY_FILE), WHOLE)
        for _ in range(2):
            clock = app("Clock", 40001, 9)
            self.assertEqual(self.name(8443), flow(40000, 8443, 6, **clock))
            self.assertEqual(self.name(8443, src_utp_id=3),
                             flow(40000, 8443, 6, **clock, verdict=3, deny=1, policy_type=3,
                                  arc_match_src=1, arc_match_utp=3))
            self.assertEqual(self.name(9000), flow(40000, 9000, 6, **app("Portal", 1201, 4)))
            # Policy 3 doesn't list it; the destination has none.
            self.assertEqual(self.name(8080, src_utp_id=3).app_name, "door")
            self.assertNotIn(self.name(8080, src_utp_id=3, dst_utp_id=1).app_name, ("door", "clock"))
            self.assertEqual(self.judge([PING], trailer(dst_utp_id=1))[0].ratelimit_down, 65535)
            self.start()
        for number in (UTP, LOG):
            shutil.rmtree("/writable")  # the folder is made anew, with those above it
            command(number)
            self.assertEqual(read_file(POLICY_FILE), WHOLE)
        for flush in (CLEAN, UTP_FLUSH, POLICY_FLUSH):
            command(flush)
            self.assertEqual(read_file(POLICY_FILE), WHOLE)
        command(WRITE)
        self.assertEqual(read_file(POLICY_FILE), WHOLE.replace(POLICY_LINES, ""))
        command(USERDEF, userdefs())
        self.assertEqual(read_file(POLICY_FILE), EMPTY)
        self.configure()
        self.assertEqual(jornctl("apply", "-", document={"policies": []})[0], 0)
        self.assertEqual(read_file(POLICY_FILE), WHOLE.replace(POLICY_LINES, ""))

    def test_definitions_at_their_limits(self):
        self.start()
        for payload, says in (
                (userdefs(*[userdef("New")] * 33), "too many user define policies : 33"),
                (userdefs(count=-1), "too many user define policies : -1"),
                (userdefs(userdef("New"), count=2), "2 user-defined applications don't fit")):
            command(USERDEF, DEFINITIONS)
            os.unlink(POLICY_FILE)
            command(USERDEF, payload)
            self.jorn.wait_line(says)
            self.assertIn(f"[userdef]\n{DEFINITION_LINES}[", read_file(POLICY_FILE))
        command(USERDEF, userdefs(*[userdef("No", port=1)] * 31, userdef("Last", port=9000)))
        self.start()
        self.assertEqual(self.name(9000).app_name, "last")

    def test_names_that_would_cut_the_file(self):
        self.start()
        self.configure()
        command(POLICY, policy(2, rule("\u00f6k\0\n"), rule("", category="\n"), name="not\nsaved"))
        whole = read_file(POLICY_FILE)
        self.assertIn("0,0,\u00f6k,,", whole)
        control = "holds a control character, 0x"
        for number, payload, says in (
                (POLICY, policy(1, rule("a"), rule("b\n[policy end]"), name="c\n"),
                 f'ARC policy "c?" with its rule slot 1 is refused: app_name {control}0a, at byte 1'),
                (POLICY, policy(1, rule("a", category="b\x7f")), f"cat_name {control}7f, at byte 1"),
                (USERDEF, userdefs(userdef("New"), userdef("Do\tor")),
                 f"user-defined application 2 of 2 is refused: app_name {control}09, at byte 2")):
            os.unlink(POLICY_FILE)
            calls = self.messages_so_far()
            command(number, payload)
            self.jorn.wait_line(says)
            self.assertEqual(read_file(POLICY_FILE), whole)
            told = self.av.messages.items[calls:self.messages_so_far()]
            self.assertNotIn(OP_RESET, [op for op, _ in told])
        self.assertEqual(self.judge([PING], trailer(src_utp_id=1))[0].verdict, 4)

    def test_something_else_in_the_place_of_a_file(self):
        def put(path):
            subprocess.run(["rm", "-rf", path], check=True)
            os.makedirs(os.path.dirname(path), exist_ok=True)
            STRANGERS[what](path)

        self.av.values |= {"tm_support": "1"}
        for what in STRANGERS:
            with self.subTest(what):
                is_link = what.startswith("link")
                for path in (PID_FILE, PORT_SERVICE_FILE, VERSION_FILE, f"{RULE_FOLDER}/aWendle"):
                    put(path)
                self.start()
                self.addCleanup(run, "rm", "-rf", PID_FILE)
                self.assertFalse(os.path.isfile(PID_FILE) or os.path.lexists(PORT_SERVICE_FILE))
                self.assert_said(uploadjorport=1, a_regular_file=0 if is_link else 2)
                put(POLICY_FILE)
                command(WRITE)
                self.assert_said(create_error=1 if what == "folder" else 0)
                if what != "folder":
                    self.assertFalse(os.path.islink(POLICY_FILE))
                    self.assertEqual(read_file(POLICY_FILE), EMPTY)
                put(POLICY_FILE)
                self.start()
                self.assertEqual(os.path.lexists(POLICY_FILE), is_link)
                self.assert_said(read_error=0 if is_link else 1)

    def test_lines_of_the_port_service_file(self):
        self.start()
        for lines, name in PORT_LINES:
            with self.subTest(lines[:80]):
                write_file(PORT_SERVICE_FILE, lines)
                command(PORT_SERVICES)
                self.assertEqual(self.name(9000), flow(
                    40000, 9000, 6, **(app(name, 1201, 4) if name else {})))
        write_file(PORT_SERVICE_FILE, "9000,tcp,4,1201,Portal")
        command(PORT_SERVICES)
        os.unlink(PORT_SERVICE_FILE)
        command(PORT_SERVICES)
        self.jorn.wait_line("parse the port/app configuration file fail")
        self.assertEqual(self.name(9000).app_name, "portal")

    def test_files_that_were_edited_or_cut(self):
        rules = "".join(f"0,0,rule{i},,0,0,0,0,0,0,0,0;\n" for i in range(63))
        for text, verdict, door in (
                (WHOLE.upper().replace("ICMP", "icmp").replace("DOOR", "Door"), 4, "Door"),
                (WHOLE[:-4], 4, None), (WHOLE[:WHOLE.index("65535;")], 1, None),
                (WHOLE.replace("0,0,icmp", rules + "0,0,icmp"), 4, "Door"),
                (WHOLE.replace("0,0,icmp", rules + "0,0,x\n0,0,icmp"), 1, "Door"),
                (WHOLE.replace("65535;\n", "65535;\0" + "9" * 9000 + "\n"), 4, "Door"),
                (WHOLE.replace("0;0;0;1;1;", "a;;\xff;-1;1;").replace("0,0,icmp", "0,0,\x7f\n0,0,icmp"),
                 4, "Door"),
                (WHOLE.replace("[userdef end]", "0;0;0;0;0;0;1;6;1;1;x;24;\n" * 40 + "[userdef end]"),
                 4, "Door"), ("", 1, None)):
            with self.subTest(text[-300:]):
                write_file(POLICY_FILE, text)
                self.start()
                self.assertEqual(self.judge([PING], trailer(src_utp_id=1))[0].verdict, verdict)
                self.assertEqual(self.name(8080).app_name == "door", door is not None)
                if "[userdef end]" not in text.lower():
                    self.jorn.wait_line("ends early")

    def test_disks_that_take_nothing(self):
        self.mount(FOLDER, "-t", "tmpfs", "-o", "size=4k", "tmpfs")
        self.start()
        for block in [policy(i, *[rule(f"{i}.example")] * 64) for i in (10, 11)]:
            command(POLICY, block)
        self.jorn.wait_line("write AVC policy configuration failed")
        command(POLICY_FLUSH)
        since = self.lines_so_far(self.jorn)
        self.configure()
        self.assertEqual(read_file(POLICY_FILE), WHOLE)
        run("mount", "-o", "remount,bind,ro", FOLDER)
        command(WRITE)
        self.jorn.wait_line("create error", since=since)
        self.assertEqual(self.name(8443).app_name, "clock")
        run("mount", "-o", "remount,bind,rw", FOLDER)
        command(WRITE)
        self.assertEqual(read_file(POLICY_FILE), WHOLE)

    def test_start_up_calls_and_the_rule_agent(self):
        write_file("/tmp/sbin/tdts_rule_agent", '#!/bin/sh\necho "$@" >>/tmp/agent\n')
        os.chmod("/tmp/sbin/tdts_rule_agent", 0o755)
        self.mount("/usr/sbin", "--bind", "/tmp/sbin")
        devices = [struct.pack("=Ii24s", 1, enable, name.encode())
                   for enable, name in ((1, "wlan0"), (7, "wlan63"))]
        self.av.values |= {"avc_enable/wlan0": "1", "avc_enable/wlan1": "0", "avc_enable/wlan63": "7",
                           "avc_enable/wlan64": "1"}
        for support, rules, version, agent, written in (
                ("0", ["aWendle.1"], "1.0", None, None),
                ("1", ["wendle", "aWendle-1.0_b"], "7.1.0+2~x", "aWendle-1.0_b", "7.1.0+2~x\n"),
                ("1", ["aWendle;touch x"], "2.0", None, "2.0\n"),
                ("1", ["aWendle"], "2.0 $(x)", "aWendle", None), ("1", [], "3", None, "3\n"),
                ("1", ["Wendle" + "w" * 200], "4", "Wendle" + "w" * 70, "4\n")):
            with self.subTest(rules=rules, version=version):
                shutil.rmtree("/writable/fw", ignore_errors=True)
                for name in rules:
                    write_file(f"{RULE_FOLDER}/{name}", "")
                os.makedirs("/writable/fw", exist_ok=True)
                write_file("/tmp/agent", "")
                self.av.values |= {"tm_support": support, "fw_version": version}
                since = len(self.av.messages)
                self.start()
                calls = [body for op, body in self.av.messages.items[since:] if op == OP_SWITCH]
                tm = [struct.pack("=Ii24x", 4, 1)] if support == "1" else []
                self.assertEqual(calls, devices + tm)
                said = f"-r {RULE_FOLDER}/{agent}"[:127 - len("/usr/sbin/tdts_rule_agent ")] if agent else ""
                self.assertEqual(read_file("/tmp/agent").strip(), said)
                self.assertEqual(read_file(VERSION_FILE) if os.path.exists(VERSION_FILE) else None, written)


if __name__ == "__main__":
    unittest.main()
