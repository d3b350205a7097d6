"""The process: its start, its one instance, its way into the background and its end."""
from testbed import *

RTMGRP_LINK = 1
CAP_NET_RAW = 13


class Start(SystemTest):
    def start_fails(self, status, *options, says, interface=CAPTURE):
        daemon = self.daemon(*options, interface=interface)
        self.assertEqual(daemon.status(), status)
        self.assertIn(says, "\n".join(daemon.lines.items))
        self.assertFalse(os.path.exists(PID_FILE) and pid_file() == daemon.pid)

    def test_starts_that_fail(self):
        for interface, says in (("nosuch0", 'Could not open device "nosuch0": '),
                                ("i" * 31, f'Could not open device "{"i" * 31}": '),
                                ("i" * 32, "-i is longer than 31 characters"),
                                ("any", "the datalink layer type is 113, not ethernet!!")):
            with self.subTest(interface):
                self.start_fails(1, interface=interface, says=says)
        self.start_fails(1, "-c", "/" + "c" * 63, says="-c is longer than 63 characters")

    def test_too_little_memory(self):
        self.platform(mem_support="1")
        self.start_fails(0, says="The memory size is smaller than 100MB")

    def test_unknown_option_and_longest_path_start_all_the_same(self):
        self.platform()
        daemon = self.daemon("-x", "-c", "/" + "c" * 62)
        self.wait_until_judging()
        self.assertEqual(daemon.lines.items, ["unknown options directive"])

    def test_second_instance_leaves_the_first_alone(self):
        self.platform()
        self.start()
        first = self.jorn
        self.assertEqual(pid_file(), first.pid)
        self.assertEqual(os.stat(PID_FILE).st_mode & 0o777, 0o644)
        self.start_fails(0, says="jorn is existing!")
        self.assertEqual(pid_file(), first.pid)
        self.wait_until_judging()

    def test_pid_files_that_stop_nobody(self):
        self.platform()
        for content in (f"{os.getpid()}\n", "999999\n", "0\n", "-1\n", "jorn\n", "", "9" * 300):
            with self.subTest(content):
                write_file(PID_FILE, content)
                daemon = self.daemon()
                self.wait_until_judging()
                self.assertEqual(pid_file(), daemon.pid)
                self.assertEqual(daemon.stop(), 0)

    def test_has_a_line_in_the_journal_once_and_one_right(self):
        self.platform()
        syslog = SyslogListener()
        self.addCleanup(syslog.close)
        daemon = self.daemon(before=(
            "sh", "-c", 'JOURNAL_STREAM=$(stat -Lc %d:%i /proc/self/fd/2) exec "$0" "$@"'))
        wait_for_listener(COMMAND_SOCKET)
        command(39, struct.pack("=I", 1000))
        syslog.lines.wait(lambda said: "Unknown testid = 1000" in said)
        self.assertEqual(len([said for said in syslog.lines.items if "Unknown testid" in said]), 1)
        rights = dict(line.split(":\t") for line in read_file(f"/proc/{daemon.pid}/status").splitlines())
        self.assertEqual({name: int(held, 16) for name, held in rights.items() if name.startswith("Cap")},
                         {"CapInh": 0, "CapAmb": 0} | dict.fromkeys(("CapPrm", "CapEff", "CapBnd"), 1 << CAP_NET_RAW))
        self.assertEqual(daemon.stop(), 0)
        self.assertEqual(daemon.lines.items, [])


class Background(SystemTest):
    def assert_detached(self, pid):
        self.assertEqual(os.getsid(pid), pid)
        for descriptor in range(3):
            self.assertEqual(os.readlink(f"/proc/{pid}/fd/{descriptor}"), "/dev/null")

    def test_parent_leaves_once_the_child_is_up(self):
        self.platform()
        syslog = SyslogListener()
        self.addCleanup(syslog.close)
        parent = self.daemon("-d", "-D")
        self.assertEqual(parent.status(), 0)
        self.wait_until_judging()
        self.assertNotEqual(pid_file(), parent.pid)
        self.assert_detached(pid_file())
        for pid, line in ((parent.pid, "jorn_child_notify_sig_handler"),
                          (parent.pid, "parent process exit now"),
                          (pid_file(), f"child send signal ({parent.pid}) to parent (17)"),
                          (pid_file(), "no policy")):
            syslog.lines.wait(lambda said: f"jorn[{pid}]: " in said and line in said)

        end_background_daemon(pid_file())
        syslog.lines.wait(lambda said: "signal SIGTERM caught" in said)

    def test_child_of_process_1_detaches_without_a_fork(self):
        self.platform()
        orphan = ('( until read -r _ _ _ parent _ </proc/self/stat && [ "$parent" = 1 ]; do :; '
                  'done; exec "$0" "$@" ) & echo $!')
        launcher = self.daemon("-D", before=("/bin/sh", "-c", orphan))
        pid = int(launcher.lines.wait(str.isdigit))
        self.wait_until_judging()
        self.assertEqual(pid_file(), pid)
        self.assert_detached(pid)


class End(SystemTest):
    def test_stop_signals_are_reported_in_their_order(self):
        platform = self.platform()
        for number in (signal.SIGTERM, signal.SIGINT):
            with self.subTest(number.name):
                before = len(platform.probes) + len(platform.verdicts)
                daemon = self.daemon("-d")
                self.judge([udp_frame(1, n) for n in range(3)])
                answered = len(platform.probes) + len(platform.verdicts) - before
                self.assertEqual(daemon.stop(number), 0)
                said = [text for line in daemon.lines.items
                        if (text := line.partition(" (Debug) ")[2])]
                said = said[len(said) - said[::-1].index("no policy"):]
                if said[1] == "select return -1, something wrong!!":  # it waited when the signal came
                    del said[1]
                self.assertEqual(said,
                                 [f"signal {number:d} happened",
                                  f"signal {number.name} caught",
                                  "in jorn_exit_clean, do the clean work",
                                  "JORN statistics show:",
                                  f"received packets number: {answered}",
                                  "output packets number: 0",
                                  "flow deny number: 0",
                                  "in jorn_exit_clean, do the clean work"])


class CaptureInterface(SystemTest):
    def test_down_and_up_then_deleted_and_made_again(self):
        self.platform()
        self.start()
        run("ip", "link", "set", CAPTURE, "down")
        self.jorn.wait_line("the interface is down")
        run("ip", "link", "set", CAPTURE, "up")
        self.jorn.wait_line("the interface is back")
        self.assertEqual(self.judge([udp_frame(40001, 40002)]), [flow(40001, 40002, 17)])
        run("ip", "link", "del", FEED)
        self.jorn.wait_line("trying again")
        for _ in range(20):
            command(34, bytes(4))
        self.make_links()
        verdicts = self._platform.verdicts
        before = len(verdicts)

        def is_judged():  # by itself; what comes while the capture is opened vanishes
            self.send(udp_frame(40001, 40002))
            with contextlib.suppress(AssertionError):
                verdicts.wait_length(before + 1, timeout=1)
            return len(verdicts) > before
        wait_until(is_judged)
        self.assertEqual(verdicts.items[before], flow(40001, 40002, 17))
        self.assertEqual([line.split(": ", 3)[3] for line in self.jorn.lines.items], [
            f"capture on {CAPTURE}: the interface is down",
            f"capture on {CAPTURE}: the interface is back",
            f"capture on {CAPTURE} failed: The interface disappeared",
            f"capture on {CAPTURE}, trying again: there is no such interface, or it is down",
            f"capture on {CAPTURE}: the interface is back"])

    def test_another_interface_has_the_name(self):
        """Renamed while it is up, then deleted: what is told is told of the old one."""
        self.platform()
        self.start()
        run("ip", "link", "set", CAPTURE, "name", "old0")
        run("ip", "link", "set", FEED, "name", "old1")
        self.make_links()
        run("ip", "link", "del", "old0")
        self.wait_until_judging()

    def test_one_of_another_kind_has_the_name(self):
        """It is looked at in vain, which the kernel has news of in its turn."""
        def packets_told():
            return sum("capture the packet" in line for line in self.jorn.lines.items)

        self.platform()
        self.start("-d")
        run("ip", "link", "del", FEED)
        self.jorn.wait_line("trying again")
        told = packets_told()
        run("ip", "tuntap", "add", CAPTURE, "mode", "tun")
        run("ip", "link", "set", CAPTURE, "up")
        with socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, socket.NETLINK_ROUTE) as news:
            news.bind((0, RTMGRP_LINK))
            news.setblocking(False)
            for _ in range(50):
                command(34, bytes(4))
            count = 0
            with contextlib.suppress(BlockingIOError):
                while news.recv(65536):
                    count += 1
        self.assertLess(count, 50)
        self.assertEqual(packets_told(), told)
        run("ip", "link", "del", CAPTURE)
        self.make_links()
        self.wait_until_judging()


if __name__ == "__main__":
    unittest.main()
