"""A reader of avcore's watch socket, who holds messages against their schema: of thousands of a kind
the first ones, and of the others some."""
import collections

import jsonschema

from records import *

WATCH_SOCKET = "/run/jorn/watch.sock"
SCHEMA = os.path.dirname(os.path.realpath(__file__)) + "/../../examples/watch.schema.json"
NUMBERS = ("up", "down", "dropped")


class Reader:
    validator = jsonschema.Draft7Validator(json.loads(read_file(SCHEMA)))

    def __init__(self, path=WATCH_SOCKET):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.settimeout(DEADLINE)
        self.socket.connect(path)
        self._lines = self.socket.makefile("rb")
        self.flows, self.sums, self.events = {}, [], []  # as told so far
        self._kinds = collections.Counter()
        # Of both: packets and bytes up and down, and packets dropped by denials and limits.
        self.totals = [[0, 0] for _ in NUMBERS]
        self.greeting = self.next()

    def close(self):
        self._lines.close()
        self.socket.close()

    def send(self, **question):
        self.socket.sendall(json.dumps(question).encode() + b"\n")

    def next(self):
        """The next message; none once avcore has closed the connection."""
        try:
            line = self._lines.readline()
        except ConnectionResetError:
            line = b""
        if not line:
            return None
        message = json.loads(line)
        kind = frozenset(message)
        self._kinds[kind] += 1
        if self._kinds[kind] < 300 or self._kinds[kind] % 100 == 0:
            wrong = jsonschema.exceptions.best_match(self.validator.iter_errors(message))
            assert not wrong, (wrong.message, message)
        self._note(message)
        return message

    def _note(self, message):
        """What is told is new, and counts don't fall."""
        if "event" in message and len(self.events) < 1000:
            self.events.append(message["event"])
        if "sum" in message:
            self.sums.append(message["sum"])
            self._add(message["sum"], {})
        told = message.get("flow") or message.get("count")
        if not told:
            return
        before = self.flows.get(told["id"], {})
        assert "ended" not in before and ("flow" in message or before), (before, told)
        self._add(told, before)
        self.flows[told["id"]] = before | told

    def _add(self, told, before):
        for total, name in zip(self.totals, NUMBERS):
            for i in (0, 1):
                more = told[name][i] - (before[name][i] if before else 0)
                assert more >= 0, (before, told)
                total[i] += more

    def until(self, wanted):
        """The messages as far as the first one that is wanted, or the end."""
        messages = []
        while message := self.next():
            messages.append(message)
            if wanted(message):
                break
        return messages

    def ask(self, what, **filters):
        self.send(id=7, ask=what, **filters)
        *answers, last = self.until(lambda message: message.keys() & {"done", "error"})
        return [answer[what.removesuffix("s") if what != "counts" else what] for answer in answers] \
            if "done" in last else last["error"]

    def follow(self, *things, every_ms=200, **filters):
        self.send(id=9, follow=things, every_ms=every_ms, **filters)
        return self.until(lambda message: "listed" in message) if "flows" in things else []

    def event(self, what, **members):
        """The next of these."""
        return self.until(lambda message: message.get("event", {}).get("what") == what and
                          members.items() <= message["event"].items())[-1]["event"]
