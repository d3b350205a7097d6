"""The built jornctl against a stand-in of the daemon, and what it refuses before it speaks to one.

Usage: test_jornctl.py JORNCTL
"""
import json
import os
import socket
import subprocess
import sys
import tempfile
import threading
import unittest

JORNCTL = sys.argv.pop(1)
DEADLINE = 60  # seconds, of what takes milliseconds on an idle machine


class Jornctl(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.socket = self.folder + "/socket"

    def run_it(self, *arguments, document=None, before=()):
        """Exit status, standard output and standard error."""
        done = subprocess.run([*before, JORNCTL, "--socket", self.socket, *arguments],
                              input=json.dumps(document).encode(), capture_output=True,
                              timeout=DEADLINE)
        return done.returncode, done.stdout, done.stderr.decode()

    def daemon(self, reply):
        """Answers one command with these bytes."""
        listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.addCleanup(listener.close)
        listener.bind(self.socket)
        listener.listen()

        def serve():
            client, _ = listener.accept()
            with client:
                client.recv(122_880)
                client.sendall(reply)
        threading.Thread(target=serve, daemon=True).start()

    def test_no_name_steers_the_terminal(self):
        self.daemon("\n\tApp Name:a\x1b[2J\x07\r\x7f\x9b1m\u00e9\t\n".encode())
        self.assertEqual(self.run_it("show", "dns"),
                         (0, "\n\tApp Name:a?[2J????1m\u00e9\t\n".encode(), ""))

    def test_files_that_never_end(self):
        for arguments in (("apply", "--check"), ("port-services",), ("raw", "17")):
            status, _, said = self.run_it(*arguments, "/dev/zero")
            self.assertEqual((status, "/dev/zero: has more than" in said), (1, True), said)

    def test_a_daemon_that_is_not_for_everybody(self):
        self.daemon(b"")
        os.chmod(self.socket, 0)
        powerless = ("setpriv", "--bounding-set=-dac_override,-dac_read_search")
        status, _, said = self.run_it("write", before=powerless if os.geteuid() == 0 else ())
        self.assertEqual((status, said), (
            1, f"jornctl: you may not use the socket {self.socket}: Permission denied\n"))

    def test_warnings_are_faults_on_demand(self):
        document = {"utps": []}
        for strict, status in ((), 0), (("--strict",), 1):
            got, _, said = self.run_it("apply", "--check", *strict, "-", document=document)
            self.assertEqual((got, said.startswith("jornctl: warning: -: /utps: ")), (status, True))


if __name__ == "__main__":
    unittest.main()
