"""The channel to the platform comes, goes and stalls; the daemon runs on."""
import unittest

from testbed import *


class AvChannel(SystemTest):
    def test_absent_then_present_then_killed_and_restarted(self):
        daemon = self.daemon()
        frame, verdict = udp_frame(40001, 40002), flow(40001, 40002, 17)

        def fails():
            lines = len(daemon.lines)
            while not any("SET failed" in line for line in daemon.lines.items[lines:]):
                self.assertTrue(daemon.runs())
                self.send(frame)
                try:
                    daemon.wait_line("SET failed", since=lines, timeout=0.2)
                except AssertionError:
                    pass  # sent before the capture was open

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
        for _ in range(20 * BURST):  # a frame whose flow nobody is asked about
            self.send(ethernet(0x9000, bytes(46)))
            if any("SET failed" in line for line in daemon.lines.items):
                break
        daemon.wait_line("SET failed")
        platform.reading.set()
        self.wait_until_judging()
        self.assertEqual(len(platform.connections), 1)

    def test_answers_that_come_late_or_short_are_none(self):
        # Too little memory would end the start; the half second that an answer may take is over, or
        # its body falls short, and the machine's own memory counts.
        platform = self.platform()
        stalled = threading.Event()
        for what, answer in (("late", lambda _: (stalled.wait(1), (0, b"1".ljust(128, b"\0")))[1]),
                             ("short", lambda _: (0, b"1"))):
            with self.subTest(what):
                platform.answers[OP_VALUE] = answer
                daemon = self.daemon()
                self.wait_until_judging()
                self.assertEqual(daemon.stop(), 0)


if __name__ == "__main__":
    unittest.main()
