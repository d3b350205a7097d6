"""Flows of which each packet's fate is known: a datagram every quarter of a second, numbered, with the
moment at which it was sent. They live for some seconds and are followed by others, so that there are
always flows of all ages."""
import collections
import random
import selectors
import struct
import threading
import time

from inline_lab import FAMILIES, SERVERS, namespace, socket

INTERVAL_S = 0.25
LIVES_S = 5, 60
DATAGRAM = ">Qd"
ON_THE_WAY_S = 0.5  # after which what was allowed has arrived, on a busy machine, too


class Probe:
    def __init__(self, sock, kind, version):
        self.socket, self.kind, self.version = sock, kind, version
        self.port = sock.getsockname()[1]
        self.begun = time.monotonic()
        self.ends = self.begun + random.uniform(*LIVES_S)
        self.sent = collections.deque(maxlen=400)  # when each of the latest was
        self.count = 0
        self.arrived = -1  # the latest number

    def send(self):
        now = time.monotonic()
        try:
            self.socket.send(struct.pack(DATAGRAM, self.count, now))
        except OSError:
            return  # there is no way at the moment
        self.sent.append(now)
        self.count += 1

    def first_since(self, moment):
        """The number of the first that was sent then or later; None as long as there is none."""
        number = self.count
        for at in reversed(list(self.sent)):  # another thread adds to it
            if at < moment:
                break
            number -= 1
        return number if number < self.count else None

    def is_allowed_since(self, moment):
        first = self.first_since(moment)
        return first is not None and self.arrived >= first

    def is_denied_since(self, moment):
        """Two were sent, and then a second one that hasn't arrived by now."""
        settled = time.monotonic() - ON_THE_WAY_S
        last = self.count - 1 - sum(at > settled for at in list(self.sent))
        first = self.first_since(moment)
        return first is not None and last > first and self.arrived < last


class Probes(threading.Thread):
    """Of each kind, which goes by a port of the server's, and each family as many. `passed` is told of
    each datagram that arrives, with when it was sent."""

    def __init__(self, connect, bind, kinds, each, passed):
        super().__init__(daemon=True)
        self._connect, self._kinds, self._each, self._passed = connect, kinds, each, passed
        self._servers = selectors.DefaultSelector()
        for kind in kinds:
            for version in FAMILIES:
                server = bind("server", socket.SOCK_DGRAM, SERVERS[version], kind)
                server.setblocking(False)
                self._servers.register(server, selectors.EVENT_READ, (kind, version))
        self.on = True
        self.all, self._by_port = [], {}
        self.counts = dict.fromkeys(("begun", "sent", "arrived"), 0)
        with namespace("client"):
            for kind in kinds:
                for version in FAMILIES:
                    for _ in range(each):
                        self._add(kind, version)

    def _add(self, kind, version):
        probe = Probe(self._connect(SERVERS[version], kind), kind, version)
        self.counts["begun"] += 1
        self.all.append(probe)
        self._by_port[kind, version, probe.port] = probe

    def run(self):
        turn, step = 0, INTERVAL_S / 10
        due = time.monotonic()
        while self.on:
            for probe in self.all[turn % 10::10]:
                before = probe.count
                probe.send()
                self.counts["sent"] += probe.count - before
            self._replace_old(turn % 10)
            turn, due = turn + 1, max(due + step, time.monotonic() - 1)
            self._receive(due)

    def _replace_old(self, part):
        now = time.monotonic()
        for index in range(part, len(self.all), 10):
            old = self.all[index]
            if now < old.ends:
                continue
            try:
                new = Probe(self._connect(SERVERS[old.version], old.kind), old.kind, old.version)
            except OSError:
                continue  # the client has no address at the moment
            self.counts["begun"] += 1
            self.all[index] = new
            self._by_port[new.kind, new.version, new.port] = new
            # What is still on its way is told as the old one's, unless its port is another's by then.
            old.socket.close()

    def _receive(self, until):
        while True:
            for key, _ in self._servers.select(max(0, until - time.monotonic())):
                try:
                    while True:
                        payload, address = key.fileobj.recvfrom(64)
                        self._take(self._by_port.get((*key.data, address[1])), payload)
                except BlockingIOError:
                    pass
            if time.monotonic() >= until:
                return

    def _take(self, probe, payload):
        number, sent = struct.unpack(DATAGRAM, payload)
        if probe is None or sent < probe.begun:
            return
        self.counts["arrived"] += 1
        probe.arrived = max(probe.arrived, number)
        self._passed(probe, sent)

    def of(self, kind):
        return [probe for probe in self.all if probe.kind == kind]
