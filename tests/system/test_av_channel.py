"""The channel to the platform comes, goes and stalls; the daemon runs on."""
from testbed import *


class AvChannel(SystemTest):
    def test_absent_then_present_then_killed_and_restarted(self):
        daemon = self.daemon()
        frame, verdict = udp_frame(40001, 40002), flow(40001, 40002, 17)

        def fails():
            since = len(daemon.lines)
            wait_until(lambda: self.send(frame) or any(  # again: the capture may not be open yet
                "SET failed" in line for line in daemon.lines.items[since:]))
            self.assertTrue(daemon.runs())

        fails()
        platform = self.platform()
        self.assertEqual(self.judge([frame]), [verdict])
        for _ in range(2):
            platform.kill()
            fails()
            platform.restart()
            self.assertEqual(self.judge([frame]), [verdict])

    def test_listener_that_reads_nothing_costs_verdicts_and_not_the_connection(self):
        platform = self.platform()
        daemon = self.daemon()
        self.wait_until_judging()
        platform.reading.clear()

        def fails():
            for _ in range(BURST):
                self.send(ethernet(0x9000, bytes(46)))  # whose flow nobody is asked about
            return any("SET failed" in line for line in daemon.lines.items)
        wait_until(fails)
        platform.reading.set()
        self.wait_until_judging()
        self.assertEqual(len(platform.connections), 1)

    def test_answers_about_names(self):
        platform = self.platform()
        self.daemon()
        usual, asked, late = platform.reply, [], []

        def answer(seq, name=b"right.example", op=OP_DOMAIN):
            return struct.pack("=IIi3I256s", op, seq, 0, 1, 1, 1, name)

        def replying(datagrams):
            def reply(op, seq, body):
                if op != OP_DOMAIN or body[:4] == socket.inet_aton(CLIENT):
                    return usual(op, seq, body)
                asked.append(seq)
                return datagrams(seq)
            return reply

        rows = (
            ("an error alone", lambda seq: [struct.pack("=IIi", OP_DOMAIN, seq, -1)], None),
            ("cut in its body", lambda seq: [answer(seq)[:-1]], None),
            ("cut in its return code", lambda seq: [answer(seq)[:11]], None),
            ("more than its body", lambda seq: [answer(seq) + b"more"], "right.example"),
            ("not the first to come", lambda seq: [answer(seq - 1, b"wrong"), b"\1\2\3", answer(
                seq, b"wrong", OP_VALUE), answer(seq)], "right.example"),
            ("none", lambda seq: late.append(seq) or [], None),
            ("behind the one that is late", lambda seq: [answer(late[-1], b"wrong"), answer(seq)],
             "right.example"),
        )
        for number, (what, datagrams, name) in enumerate(rows):
            with self.subTest(what):
                servers = [f"198.51.{number}.{n}" for n in range(20)]
                frames = [udp_frame(40001, 40002, dst=server) for server in servers]
                platform.reply = replying(datagrams)
                since = len(asked)
                while len(asked) == since:  # until questions about names are no longer paused
                    self.judge(frames[:1])
                unnamed = [flow(40001, 40002, 17, dst=server) for server in servers]
                expected = [dataclasses.replace(verdict, app_name=name) if name else verdict
                            for verdict in unnamed]

                def are_right():  # sooner or later: a loaded machine may be late with an answer
                    found = self.judge(frames, burst=len(frames))
                    for each in zip(found, unnamed, expected):
                        self.assertIn(each[0], each[1:])
                    return found == expected
                wait_until(are_right)
                self.assertEqual(len(platform.connections), 1)
        self.assertLess(len(late), 10)

        platform.reply = replying(lambda _: [b""])  # the end of a connection more than a second old
        self.assertEqual(self.judge([udp_frame(40001, 40002)]), [flow(40001, 40002, 17)])
        self.assertEqual(len(platform.connections), 2)

    def test_slow_values_delay_the_start_by_two_seconds(self):
        # The questions about memory stay without an answer, those about interfaces come in time.
        platform = self.platform(tm_support="1")
        usual, asked = platform.reply, []

        def reply(op, seq, body):
            key = text_of(body[:64])
            asked.append(key)
            if key.startswith("avc_enable/"):
                threading.Event().wait(0.2)
                return [struct.pack("=IIi128s", op, seq, 0, b"1")]
            return [] if key == "mem_support" else usual(op, seq, body)

        platform.reply = reply
        self.daemon()
        self.wait_until_judging()
        self.assertLess(len([key for key in asked if key != "tm_support"]), 10)
        for switch in (struct.pack("=Ii24s", 1, 1, b"wlan0"), struct.pack("=Ii24x", 4, 1)):
            self.assertIn((OP_SWITCH, switch), platform.messages.items)

    def test_stop_signal_between_the_steps_of_a_start(self):
        platform = self.platform()
        usual, asked, started = platform.reply, [], threading.Event()

        def reply(op, seq, body):
            asked.append(text_of(body[:64]))
            if asked[-1].startswith("avc_enable/") and started.wait(DEADLINE):
                daemon.send_signal(signal.SIGTERM)
            return usual(op, seq, body)

        platform.reply = reply
        daemon = self.daemon("-d")
        started.set()
        self.assertEqual(daemon.status(), 0)
        self.assertEqual(asked, ["mem_support", "avc_enable/wlan0"])
        daemon.wait_line("signal SIGTERM caught")


class PlatformCheck(SystemTest):
    def checked(self, program="platform_check"):
        """The statements that aren't so, and what has no answer, by the check."""
        done = subprocess.run([jorn_path(program)], capture_output=True, text=True, timeout=100,
                              env=os.environ | {"ASAN_OPTIONS": "handle_segv=0"})
        *checks, summary = done.stdout.splitlines()
        failed, unanswered = (dict(line.removeprefix(word + "  ").split(": ", 1) for line in checks
                                   if line.startswith(word)) for word in ("FAIL", "unanswered"))
        self.assertEqual(len([line for line in checks if line.startswith("pass  ")]),
                         9 - len(failed) - len(unanswered), done.stdout)
        self.assertEqual(summary.split(";")[0], f"{len(failed)} failed, {len(unanswered)} unanswered")
        self.assertEqual(done.returncode, 1 if failed else 0, done.stdout)
        return {what: said.split(": ", 1)[-1] for what, said in failed.items()}, unanswered

    def test_our_library_passes_and_what_is_behind_it_is_checked(self):
        failed, unanswered = self.checked()
        self.assertEqual((failed, unanswered["web categories"]),
                         ({}, "psm_urlfilter_get_category returned -1"))
        platform = self.platform(base_mac="00:1A:2B:3C:4D:5E", fw_version="v" * 100,
                                 webroot_server="w" * 100)
        platform.domains["192.0.2.1"] = (1, 1, 1, "n" * 100)

        def answer(category, flows):
            platform.answers[OP_CATEGORY] = lambda _: (
                0, struct.pack("=8i116x", 0, 80, 5, 17, 29, 40, category, 7))
            platform.answers[OP_ROAM] = lambda _: (0, struct.pack("=I", flows) + bytes(132 * flows))

        answer(category=83, flows=0)
        self.assertEqual(self.checked(), ({}, {"message bus": "wdlm_fd returned -1"}))
        answer(category=84, flows=1)
        platform.values |= {"base_mac": "00:1a:2b:3c:4d:5e", "avc_enable/nosuch0": "1"}
        self.assertEqual([*self.checked()[0]], [
            "memory, DPI engine, firmware, base MAC", "configuration store", "web categories",
            "flows of a station"])

    def test_each_check_finds_a_fault(self):
        self.assertEqual(self.checked("platform_check_wrong"), ({
            "memory, DPI engine, firmware, base MAC":
                'strchr(i % 3 == 2 ? ":" : "0123456789ABCDEF", text.bytes[i]) != NULL',
            "configuration store": "enable == (result == 0 ? 0 : PATTERN)",
            "web categories": "g_cat_map[id][1] != '\\0'",
            "name of an address": "memchr(buffer->bytes, '\\0', size) != NULL",
            "flows of a station": '!is_answer("psms_rflow_get_roam", result) || count == 0',
            "verdict, and line for the log": "memcmp(&record, &before, sizeof record) == 0",
            "interface that can't be": "psms_av_set_dev_av(name, 0) != 0",
            "message bus": "bus != NULL", "crash dump": "info.st_size > 0"}, {}))


if __name__ == "__main__":
    unittest.main()
