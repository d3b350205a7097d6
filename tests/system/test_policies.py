"""Commands over the socket of the real daemon, and what they do to the verdicts."""
from records import *


class Policies(JudgingTest):
    def ping(self, src=0, dst=0):
        return self.judge([PING], trailer(src_utp_id=src, dst_utp_id=dst))[0]

    def test_app_visibility_line(self):
        command(POLICY, policy(1, rule("icmp"), name="logged"))
        command(LOG, struct.pack("=68sI", b"logged", 1))
        self.ping(1)
        _, line = self.av.messages.wait(lambda message: message[0] == OP_SYSLOG)
        self.assertEqual(struct.unpack("=i", line[:4])[0], 6)
        self.assertEqual(
            line[4:].decode(),
            '"ueMac"="02:00:00:00:00:0C", "srcIP"="10.1.0.12", "srcPort"="0", '
            '"destIP"="192.0.2.5", "destPort"="0", "proto"="UDP", "appName"="ICMP",')

    def test_replies_and_log_lines(self):
        # Behind the free slot: marking "both"/Voice with classification Video, an inapplicable kind.
        command(POLICY, policy(
            12, rule("Chat", app_id=1042, cat_id=7, category="Messaging", deny=1), rule(""),
            rule("intranet", cat_id=0x8000, category="User Defined", mark=(2, VOICE), classify=VIDEO,
                 down=500), rule("odd", mark=(3, 0)), name="Office"))
        self.assertEqual(command(PRIORITY, struct.pack("=I", 12)).decode(),
                         "\n ARC Policy Name: Office \n"
                         "\tApp Id:1042\tCat Id:7\n\tApp Name:Chat \tCat Name:Messaging\n"
                         "\tRule:Deny \n\n\tApp Id:0\tCat Id:32768 (User Defined)\n"
                         "\tApp Name:intranet \tCat Name:User Defined\n"
                         "\tQoS mark pri:both\tQoS mark type:Voice\n"
                         "\tQoS classify pri:Priority\tQoS classify type:Video\n"
                         "\tRatelimit Uplink:0\tRatelimit Downlink:500\n\n"
                         "\tApp Id:0\tCat Id:0\n\tApp Name:odd \tCat Name:\n"
                         "\tQoS mark pri:\tQoS mark type:Background\n\n")
        for payload in (b"", struct.pack("=I", 13), struct.pack("=I", 65)):
            self.assertEqual(command(PRIORITY, payload), b"\n Invalid ARC PCY ID \n")
        self.assertEqual(command(WRITE), b"\n====JORN write configuration====\n")
        for number in (0, 3, 5, 40):
            self.assertEqual(command(number), b"")
        for utp_id in (0, 65):
            command(UTP, utp(utp_id))
            self.assertIn("jorn_process_arc_config: ",
                          self.jorn.wait_line(f"Error ARC UTP id: {utp_id}"))
        command(UT_CASE, struct.pack("=I", 7))
        self.jorn.wait_line("Test Id = 7")
        self.jorn.wait_line("Unknown testid = 7")
        command(DEBUG, struct.pack("=I", 0x101))
        self.ping()
        self.assertIn("jorn_output", self.jorn.wait_line("the flow would be allowed, port 0:0"))


class HostileClients(JudgingTest):
    def connect(self):
        client = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        client.connect(COMMAND_SOCKET)  # waits while the backlog is full
        client.settimeout(DEADLINE)
        return client

    def test_silent_clients_hold_nobody_up(self):
        silent = [self.connect() for _ in range(9)]
        for client in silent:
            self.addCleanup(client.close)
        self.assertEqual(len(self.judge([PING] * 20)), 20)  # a second for each client would be too long
        self.assertEqual(silent[0].recv(1), b"")  # made room for the ninth
        silent[8].send(struct.pack("=II8xII", 0, PRIORITY, 4, 1))
        self.assertEqual(silent[8].recv(100), b"\n Invalid ARC PCY ID \n")
        while not select.select([silent[1]], [], [], 0.1)[0]:  # until it is overdue
            self.judge([PING])
        self.assertEqual(silent[1].recv(1), b"")
        self.assertTrue(self.jorn.runs())

    def test_clients_that_send_half_or_dont_read(self):
        for message in (b"\0\0\0\0", struct.pack("=II8xII", 0, PRIORITY, 4, 1)):
            client = self.connect()
            client.send(message)
            client.close()
        self.assertEqual(self.judge([PING])[0].app_name, "icmp")
        self.assertTrue(self.jorn.runs())


if __name__ == "__main__":
    unittest.main()
