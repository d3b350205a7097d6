"""An hour of faults: see scripts/soak."""
import argparse
import collections
import random
import statistics
import unittest
from typing import Callable, NamedTuple

from box import *  # pylint: disable=wildcard-import
from bus_attack import Send, messages, tls
from probes import Probes
from watch_share import Traffic

EACH = 20             # probes of each kind and family
FIRST_S = 1           # of a new flow, in which it is judged on an idle machine
JUDGED_S = 10         # in which every flow has to be judged again
QUIET_S = 1, 4        # between two faults
SAMPLE_S = 1
CALM_SHARE = 1 / 3    # of the time at the end in which nothing is killed, so that memory shows
WARM_SHARE = 1 / 2    # of that, in which memory may still grow: the last few MB take ten minutes
GROWTH = 1.05         # of memory behind that, with
GROWTH_KB = 2_048     # as much more, and
MORE_DESCRIPTORS = 4  # which may be open just then
YEAR_S = 365 * 86_400
PORT = 5670           # of the bus
POLICIES = "policies told"
SKIPPED = 77          # as scripts/test knows it


class Fault(NamedTuple):
    """`act` returns once it is mended. `opens`: in which modes packets of denied flows may pass until all
    is as told again."""
    name: str
    act: Callable
    opens: tuple = ()
    kills: bool = False


ALWAYS, WHERE_OPEN = (OPEN, SHUT, HELD), (OPEN,)


class Faults(Box):
    def faults(self):
        rows = []
        for name in self.programs:
            opens = () if name == "avwatch" else WHERE_OPEN
            rows += [Fault(f"{name} killed", lambda name=name: self.away(name, "kill"), opens, kills=True),
                     Fault(f"{name} ended", lambda name=name: self.away(name, "end"), opens, kills=True),
                     Fault(f"{name} stopped", lambda name=name: self.stop_for_a_second(name), opens)]
        return rows + [
            Fault("wlan0 down", lambda: self.link_down("wlan0")),
            Fault("the capture interface down", lambda: self.link_down(CAPTURE), WHERE_OPEN),
            Fault("wlan0 made anew", self.remake_interface, ALWAYS),
            Fault("the history's disk full", lambda: self.fill_disk(HISTORY)),
            Fault("the settings' disk full", lambda: self.fill_disk(SETTINGS)),
            Fault("peers that lie", self.lie),
            Fault("the clock jumps", self.jump),
            Fault("a broken file", self.read_broken_file),
            Fault("another file", self.read_another_file),
            Fault("setup beside", lambda: run(jorn_path("avcore"), "setup", "--inline", "wlan0", "-c", CONFIG)),
            Fault("teardown beside", self.tear_gate_down, ALWAYS, kills=True)]

    # The faults.

    def away(self, name, how):
        getattr(self.programs[name], how)()
        time.sleep(dice.choice((0, dice.uniform(0, 3))))
        self.start_program(name)

    def stop_for_a_second(self, name):
        with self.programs[name].stopped():
            time.sleep(1)

    def link_down(self, interface):
        run("ip", "link", "set", interface, "down")
        time.sleep(dice.uniform(0.1, 2))
        run("ip", "link", "set", interface, "up")
        if interface == "wlan0":  # IPv6's addresses and routes went
            add_addresses(None, "wlan0", *GATEWAYS["wlan0"])

    def remake_interface(self):
        run("ip", "link", "del", "wlan0")
        time.sleep(dice.uniform(0, 2))
        self.make_interface_anew()

    def fill_disk(self, folder):
        with open(folder + "/ballast", "wb", buffering=0) as ballast:
            for size in 1 << 20, 1 << 12:
                with contextlib.suppress(OSError):
                    while ballast.write(bytes(size)) == size:
                        pass
        begun = time.monotonic()
        with self.applying:
            for _ in range(3):  # what is told is in force, though it can't be kept
                self.number += 1
                jornctl("apply", "-", document=document(self.shut, self.number))
                time.sleep(dice.uniform(0.1, 1))
        self.note_window(begun, POLICIES)
        os.unlink(folder + "/ballast")

    def lie(self):
        """A stranger without a certificate, one with another authority's, and a peer itself, each with
        all kinds of messages."""
        random_bytes = dice.randbytes(4096)
        body = struct.pack("64s64s", PEER_NAME.encode(), b"RflowRoamInfo")
        acts = [Send(random_bytes), Send(struct.pack(">I", 0xFFFFFFFF) + random_bytes),
                Send(struct.pack(">I", 128) + struct.pack("64s64s", b"AP.somebody", b"RflowRoamInfo")),
                Send(struct.pack(">I", 132) + body + struct.pack("=I", 0x7FFFFFFF)),
                Send(struct.pack(">I", 128 + 4096) + body + random_bytes), Send(b""), messages("RflowRoamInfo")]
        ends = time.monotonic() + 3
        while time.monotonic() < ends:
            with contextlib.suppress(OSError), namespace("server"), \
                    socket.create_connection(("192.0.2.1", PORT), 1) as connection:
                authority = dice.choice((None, None, tls(), tls(KEYS), tls(KEYS)))
                if authority:
                    connection = authority.wrap_socket(connection)
                act = dice.choice(acts)
                connection.settimeout(0.2)
                for _ in range(dice.randrange(100)):
                    act(connection)
                connection.close()

    def jump(self):
        """For some seconds, and back again; or for good, by hours."""
        for_good = dice.random() < 0.3
        by_s = dice.choice((-7200, -60, 60, 7200) if for_good else (
            -int(time.time()), -30 * 86_400, -3600, 3600, 30 * 86_400, 10 * YEAR_S))
        with open(CLOCK, "r+b", buffering=0) as file:
            [before] = struct.unpack("=q", file.read(8))
            os.pwrite(file.fileno(), struct.pack("=q", before + by_s * 1_000_000_000), 0)
            time.sleep(dice.uniform(1, 3))
            if not for_good:
                os.pwrite(file.fileno(), struct.pack("=q", before), 0)

    def read_again(self):
        self.avcore.process.send_signal(signal.SIGHUP)

    def read_broken_file(self):
        text = read_file(CONFIG)
        broken = dice.choice((
            "[enforce]\nfail = \"ajar\"\n", text.replace("utp_id = 1", "utp_id = 1000"), text + "[enforce]\n",
            text.replace("[enforce]", "[enforce"), text[:dice.randrange(len(text) // 2)] + "= [",
            b"\xff" + dice.randbytes(1000), text.replace("copies", "copy")))
        with self.applying:  # which would change the generation, too
            before = self.settled_status()
            write_file(CONFIG, broken)
            self.read_again()
            time.sleep(1)
            after = self.status()
            write_file(CONFIG, text)
        if any(before[key] != after[key] for key in ("fail", "undecided", "copies", "generation")):
            self.complain("a broken file changed something:", broken, before, after)

    def settled_status(self):
        """Once avcore has heard of the last policies, too."""
        before = None
        while (status := self.status())["generation"] != before:
            before = status["generation"]
            time.sleep(0.5)
        return status

    def read_another_file(self):
        self.configure(dice.choice((OPEN, SHUT, HELD)))
        self.read_again()
        wait_until(lambda: self.rules_in_force() == self.mode, "the file isn't read again")

    def rules_in_force(self):
        status = self.status()
        return {("open", "pass"): OPEN, ("closed", "pass"): SHUT, ("closed", "hold"): HELD}[
            status["fail"], status["undecided"]]

    def tear_gate_down(self):
        run(jorn_path("avcore"), "teardown")
        time.sleep(dice.uniform(0, 2))
        self.away("avcore", dice.choice(("kill", "end")))

    # What is seen meanwhile.

    def complain(self, what, *more):
        line = f"{time.monotonic() - self.begun:7.1f} s: {what}" + "".join(f" {each}" for each in more)
        self.complaints.append(line)
        print("WRONG " + line, flush=True)

    def passed(self, probe, sent):
        """A datagram has arrived. Of a denied flow that is noted, with whether it had been judged."""
        if probe.kind == DENIED:
            self.slipped.append((sent, probe.begun))

    def apply_noted(self, shut=None):
        begun, self.told_at = self.apply(shut)
        self.note_window(begun, POLICIES)

    def note_window(self, begun, what):
        """Until now packets of denied flows might pass. What was judged between two commands of the
        policies' is judged anew with its next packet, in a second at most."""
        self.windows.append((begun, time.monotonic() + (1 if what == POLICIES else 0), what))

    def look_on(self):
        """Whether somebody ended by himself, what memory they have, whether the gate was open."""
        before, since = None, time.monotonic()
        while self.on:
            now = time.monotonic()
            for program in self.programs.values():
                with contextlib.suppress(OSError, AttributeError, ValueError, IndexError):  # gone just now
                    self.memory[program.name].append(
                        (now, program.process.pid, program.resident_kb(), program.descriptors()))
            with contextlib.suppress(subprocess.CalledProcessError, KeyError, ValueError):
                nobody = self.status()["counts"]["nobody"]
                if before is not None and nobody > before:
                    self.open_times.append((since, time.monotonic(), nobody - before))
                before, since = nobody, now
            time.sleep(SAMPLE_S)

    def command_on(self):
        """Commands all the while: they may fail only while the daemon isn't there."""
        show = [("show", *words) for words in LISTINGS] + [("show", "dns"), ("show", "utp-web", "1"), ("export",)]
        raws = list(range(64)) + [9999, 1 << 31]
        due = time.monotonic() + 5
        while self.on:
            self.commands += 1
            begun = time.monotonic()
            if begun > due and not self.at_work:
                due = begun + random.uniform(4, 10)
                self.apply_noted()
            elif random.random() < 0.2:
                with contextlib.suppress(OSError):  # broken off, or no command at all
                    with socket.socket(socket.AF_UNIX) as connection:
                        connection.connect(COMMAND_SOCKET)
                        connection.send(struct.pack("=II8xI", 0, random.choice(raws) | 1 << 16, 4)[
                            :random.randrange(21)])
            elif random.random() < 0.2:
                self.ask_page(random.choice(("/metrics", "/", "/api/rows?table=flows&rows=50", "/nothing")))
            else:
                status, _, said = jornctl(*random.choice(show))
                if status > 1 and not self.at_work and begun > self.mended_at + 1:
                    self.complain("a command failed while nothing was broken:", said)
            time.sleep(random.uniform(0.05, 0.3))

    # The course of it.

    def soak(self):
        self.begun = time.monotonic()
        self.complaints, self.windows, self.slipped, self.open_times = [], [], [], []
        self.memory = {name: [] for name in ("avcore", "jorn", "avwatch")}
        self.on, self.at_work, self.commands, self.mended_at, self.told_at = True, "the start", 0, 0, 0
        self.begin()
        self.apply_noted(False)
        self.probes = Probes(self.connect, self.bind, (DENIED, SWITCHED, FREE), EACH, self.passed)
        self.traffic = Traffic(self.strangers(), arguments.flows * 2, arguments.flows)
        watchers = [threading.Thread(target=self.guarded, args=(each,), daemon=True)
                    for each in (self.look_on, self.command_on)]
        for each in (self.probes, self.traffic, *watchers):
            each.start()
        self.wait_until_judged("the start", self.begun)
        self.deal()
        self.at_work = "the end"
        time.sleep(1)
        self.on = self.traffic.on = self.probes.on = False
        for each in (self.probes, self.traffic, *watchers):
            each.join()
        self.look_back()

    def guarded(self, act):
        try:
            act()
        except Exception as error:  # pylint: disable=broad-except
            if self.on:
                self.complain(f"{act.__name__} ended:", repr(error))

    def deal(self):
        """All faults in random order, then all again, until the time is over."""
        ends = self.begun + arguments.minutes * 60
        calm = ends - arguments.minutes * 60 * CALM_SHARE if arguments.minutes >= 10 else ends
        self.calm_since = None
        deck, self.dealt = [], {}
        while time.monotonic() < ends:
            if not deck:
                deck = self.faults()
                dice.shuffle(deck)
            if calm < time.monotonic() and self.calm_since is None:
                self.calm_since = time.monotonic()
                print(f"{self.calm_since - self.begun:7.1f} s: from now on nobody is killed", flush=True)
            time.sleep(dice.uniform(*QUIET_S))
            fault = deck.pop()
            if not (self.calm_since and fault.kills):
                self.commit(fault)

    def commit(self, fault):
        mode, begun = self.mode, time.monotonic()
        self.at_work = fault.name
        judged = None
        try:
            fault.act()
            mended = time.monotonic()
            for program in self.programs.values():
                if program.note_end():
                    self.start_program(program.name)
            judged = self.wait_until_judged(fault.name, mended)
        except Exception as error:  # pylint: disable=broad-except
            self.complain(f"{fault.name}:", repr(error))
        if mode in fault.opens:
            self.note_window(begun, fault.name)
        self.at_work, self.mended_at = "", time.monotonic()
        if judged is None:
            return
        self.dealt.setdefault(fault.name, []).append(judged)
        print(f"{begun - self.begun:7.1f} s: {fault.name}, {mended - begun:.1f} s; all judged again after "
              f"{judged:.1f} s ({mode!r})", flush=True)

    def wait_until_judged(self, what, since):
        """By a policy that is told behind it. Seconds."""
        self.apply_noted(not self.shut)
        told_at = self.told_at
        while (late := self.not_judged(told_at)) and time.monotonic() < told_at + 3 * JUDGED_S:
            time.sleep(0.05)
        seconds = time.monotonic() - since
        if seconds > JUDGED_S:
            self.complain(f"after {what} it took {seconds:.1f} s until every flow was judged; missing:", [
                (each.kind, each.version, each.count, each.arrived) for each in late][:6], self.status())
        return seconds

    def not_judged(self, since):
        return [probe for kind, denied in ((DENIED, True), (SWITCHED, self.shut), (FREE, False))
                for probe in self.probes.of(kind)
                if probe.begun < since and not (probe.is_denied_since if denied else probe.is_allowed_since)(since)]

    # What it came to.

    def look_back(self):
        if said := self.differs():
            self.complain("the configuration isn't as told:", said)
        self.compare_listings()
        slips = self.sort_slips()
        self.check_memory()
        lasted = time.monotonic() - self.begun
        times = [each for every in self.dealt.values() for each in every]
        print(f"\n{lasted / 60:.1f} minutes, seed {arguments.seed}: {len(times)} faults of {len(self.dealt)} kinds, "
              f"{self.traffic.newest} flows ({self.traffic.newest / lasted:.0f} a second), {self.commands} commands, "
              f"{self.number} policies; every flow was judged again after {statistics.median(times):.1f} s "
              f"(median), {max(times):.1f} s at most")
        print(f"probes: {self.probes.counts}; packets of denied flows that passed: {slips}")
        for program in self.programs.values():
            program.end()
            for line in program.ends:
                self.complain(line)
        self._check_sanitizers()

    def compare_listings(self):
        """With those of a daemon that begins anew, and is told the same."""
        there = listings()
        self.jorn.end()
        for each in os.listdir(SETTINGS):
            os.unlink(f"{SETTINGS}/{each}")
        write_file(PORT_SERVICE_FILE, "")
        self.start_program("jorn")
        self.number -= 1
        self.apply()
        for words, said in listings().items():
            if said != there[words]:
                self.complain("listings differ:", words, there[words], said)

    def sort_slips(self):
        """How many packets of denied flows passed, by why. Of a flow that began shortly before or in a
        fault the first judgement may come behind it, too."""
        reasons = collections.Counter(self.reason_of(*each) for each in self.slipped)
        for first, last, count in self.open_times:
            if not any(begin < last and first < end for begin, end, what in self.windows if what != POLICIES):
                self.complain(f"the gate was open between {first - self.begun:.1f} and {last - self.begun:.1f} s, "
                              f"and passed {count} packets")
        return dict(reasons)

    def reason_of(self, sent, begun):
        if sent < begun + FIRST_S:
            return "first ones"
        for first, last, what in self.windows:
            if first <= sent <= last:
                return what
        if sent < begun + JUDGED_S or any(
                first - JUDGED_S < begun < last and sent < last + JUDGED_S
                for first, last, what in self.windows if what != POLICIES):
            return "judged late"
        self.complain(f"a packet of a denied flow passed, sent at {sent - self.begun:.2f} s, of a flow of "
                      f"{begun - self.begun:.2f} s")
        return "without a reason"

    def check_memory(self):
        """What each has now, against what it had when it was warm."""
        for name, samples in self.memory.items():
            now = [each for each in samples if each[1] == samples[-1][1]]
            end = samples[-1][0]
            warm_at = end - (end - self.calm_since) * (1 - WARM_SHARE) if self.calm_since else end + 1
            warm = [each for each in now if each[0] >= warm_at]
            print(f"{name}: {now[-1][2] // 1024} MB, {now[-1][3]} descriptors after {now[-1][0] - now[0][0]:.0f} s; "
                  f"{max(each[2] for each in samples) // 1024} MB at most", end="")
            if warm:
                first, last = warm[0], warm[-1]
                most = max(each[2] for each in warm)
                print(f"; {first[2]} KB {last[0] - first[0]:.0f} s before the end, {last[2]} KB then", end="")
                if last[2] > first[2] * GROWTH + GROWTH_KB or last[3] > first[3] + MORE_DESCRIPTORS:
                    self.complain(f"{name} has grown:", first, last, most)
            print()


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--minutes", type=float, default=60)
    parser.add_argument("--seed", type=int, default=time.time_ns() % 1_000_000)
    parser.add_argument("--flows", type=int, default=2_000, help="new ones a second, with two packets each")
    arguments = parser.parse_args()
    print(f"seed {arguments.seed}", flush=True)
    dice = random.Random(arguments.seed)
    test = Faults("soak")
    try:
        test.debug()
    except unittest.SkipTest as reason:
        print(reason)
        sys.exit(SKIPPED)
    if test.complaints:
        for program in test.programs.values():
            print(f"--- {program.name}", *program.lines, sep="\n")
        print(*test.complaints, sep="\n")
        sys.exit(f"{len(test.complaints)} things were wrong")
