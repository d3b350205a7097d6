"""The packages on a machine of Debian's with its own systemd, a router between a client and two servers:
installed, started at boot, killed, upgraded under traffic, removed and purged. scripts/test-packages boots
that machine; what comes before a reboot and what comes behind it are rows of STEPS.

    client               the machine                  server
    eth0 ------------- lan0 [routes] wan0 ------------- eth0
    10.1.0.12   10.1.0.1, a resolver   192.0.2.1   192.0.2.5 (blocked.example), 192.0.2.6

Usage: test_packages.py lay-out | serve | STATE"""
import collections
import http.server
import itertools
import json
import os
import re
import socket
import subprocess
import sys
import threading
import time
import traceback

sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "..", ".."))
from lab.network import add_addresses, add_namespace, inside, ip, namespace, plug, set_switch  # noqa: E402
from lab.programs import run, wait_until  # noqa: E402

PACKAGES = "/packages"
QUIETLY = ("-qq", "-y", "-o", "Dpkg::Use-Pty=0")
PROGRAMS = {"avcore": "avcore", "jorn": "jorn", "avwatch": "avwatch"}  # by their units
WELL_AGAIN = 10  # s
BLOCKED, OPEN, DENIED_PORT, OPEN_PORT = "192.0.2.5", "192.0.2.6", 7001, 7002
TALLY = 7003  # where the server says how often it was reached
POLICY = {
    "applications": [{"app_name": "denied-port", "app_id": 30001, "cat_id": "User Defined", "dst_port": DENIED_PORT}],
    "policies": [{"utp_id": 1, "name": "house", "rules": [
        {"app_name": "denied-port", "app_id": 30001, "cat_id": "User Defined", "deny": True},
        {"app_name": "blocked.example", "deny": True}]}]}
# What a machine changes by itself.
RESTLESS = re.compile(r"/(proc|sys|dev|packages|test|inventory|tmp|root/\.|"
                      r"var/(log|cache|tmp/systemd-|lib/(apt|dpkg|systemd|deb-systemd|ucf))|"
                      r"run/(systemd|udev|log|dbus|lock|credentials|user|utmp|netns|initctl|blkid)|"
                      r"etc/(passwd|group|shadow|gshadow|subuid|subgid|machine-id|systemd/system/multi-user))")


def output(*words):
    return subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True).stdout


def write(path, text):
    with open(path, "w") as file:
        file.write(text)


def lay_out():
    for netns in ("client", "server"):
        add_namespace(netns)
    plug("lan0", "client", "eth0")
    plug("wan0", "server", "eth0")
    add_addresses(None, "lan0", "10.1.0.1/16")
    add_addresses(None, "wan0", "192.0.2.1/24")
    add_addresses("client", "eth0", "10.1.0.12/16")
    add_addresses("server", "eth0", BLOCKED + "/24", OPEN + "/24")
    ip("client", "route", "add", "default", "via", "10.1.0.1")
    ip("server", "route", "add", "default", "via", "192.0.2.1")
    set_switch(None, "ipv4/ip_forward", 1)


def serve():
    """In the server's namespace: pages for all names, datagrams that are answered and counted."""
    denied = []

    class Page(http.server.BaseHTTPRequestHandler):
        def do_GET(self):
            time.sleep(1)  # as if it were far away: near servers win
            self.send_response(200)
            self.end_headers()
            self.wfile.write(b"a page")

    def answer(port):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as datagrams:
            datagrams.bind((OPEN, port))
            while True:
                said, client = datagrams.recvfrom(2048)
                if port == DENIED_PORT:
                    denied.append(time.monotonic())
                datagrams.sendto(json.dumps(denied[-200:]).encode() if port == TALLY else said, client)
    for port in (DENIED_PORT, OPEN_PORT, TALLY):
        threading.Thread(target=answer, args=(port,), daemon=True).start()
    http.server.ThreadingHTTPServer(("", 80), Page).serve_forever()


def pages_of(*names):
    """Which of the names a client gets a page of, all asked at once."""
    asked = [subprocess.Popen([*inside("client"), "curl", "-s", "-m", "3", f"http://{name}/"], stdout=subprocess.PIPE,
                              text=True) for name in names]
    return [name for name, each in zip(names, asked) if each.communicate()[0] == "a page"]


def page_of(name):
    return bool(pages_of(name))


def active(unit):
    return subprocess.run(["systemctl", "is-active", "-q", unit]).returncode == 0


def is_well():
    """By when all run, the policy is there with what the files don't keep of it, and holds."""
    runs = all(map(active, PROGRAMS)) and '"house"' in output("jornctl", "show", "--json", "utps")
    asked = time.monotonic()
    return runs and pages_of("blocked.example", "open.example") == ["open.example"] and asked


def expect_well(what):
    began = time.monotonic()
    well = wait_until(is_well, f"all is well {what}", WELL_AGAIN)
    print(f"   well {well - began:.1f} s after {what}", flush=True)


def files():
    found = set()
    for folder, folders, names in os.walk("/"):
        folders[:] = [name for name in folders if not RESTLESS.match(os.path.join(folder, name) + "/")
                      and not RESTLESS.match(os.path.join(folder, name))]
        found.update(path for path in (os.path.join(folder, name) for name in folders + names)
                     if not RESTLESS.match(path))
    return sorted(found)


def inventory():
    """What a package may leave behind."""
    gates = json.loads(output("bpftool", "net", "-j"))[0] if os.path.exists("/usr/sbin/bpftool") else {}
    return {"files": files(), "users": output("getent", "passwd") + output("getent", "group"),
            "interfaces": sorted(link["ifname"] for link in json.loads(output("ip", "-j", "link"))),
            "qdiscs": re.sub(r"qdisc (\w+) \S+", r"qdisc \1", output("tc", "qdisc", "show")),
            "filters": output("tc", "filter", "show", "dev", "lan0", "ingress"), "gates": gates.get("tc", []),
            "pins": sorted(os.listdir("/sys/fs/bpf")),
            "units": sorted(re.findall(r"^\S*(?:jorn|av)\S*", output("systemctl", "list-unit-files", "--no-legend"), re.M)),
            "processes": re.findall(r"^(?:jorn|avcore|avwatch)\S*", output("ps", "-e", "-o", "comm="), re.M)}


def install(*packages):
    run("apt-get", *QUIETLY, "install", *(f"{PACKAGES}/{package}.deb" for package in packages))


def take_stock():
    write("/inventory.json", json.dumps(inventory()))


def installing_enforces_nothing():
    """Nor does what a build by hand has left, which the packages' avcore wouldn't know."""
    run("dpkg-deb", "-x", f"{PACKAGES}/jorn.deb", "/tmp/by-hand")
    run("/tmp/by-hand/usr/bin/avcore", "setup", "--pins", "/run/jorn/gate", "--inline", "lan0")
    install("jorn", "jorn-watch")
    assert active("avwatch") and not active("avcore") and not active("jorn"), output("systemctl", "status", "avcore")
    assert not output("systemctl", "--failed", "--no-legend"), output("systemctl", "--failed")
    now, before = inventory(), json.load(open("/inventory.json"))
    for kind in ("interfaces", "qdiscs", "filters", "gates", "pins"):
        assert now[kind] == before[kind], f"{kind}: {now[kind]}"
    assert page_of("blocked.example") and page_of("open.example")


def configure():
    path = "/etc/jorn/avcore.toml"
    set_interfaces('"lan0"')
    write("/etc/jorn/policy.json", json.dumps(POLICY))
    for words in (["avcore", "--check", "-c", path], ["jornctl", "apply", "--check", "/etc/jorn/policy.json"]):
        run(*words)


def blocks_after_boot():
    expect_well("boot")
    assert re.search(r"10\.1\.0\.12 +lan0 +1 ", output("avwatch", "clients")), output("avwatch", "clients")
    for unit in PROGRAMS:
        print("   " + output("systemctl", "show", "-P", "ExecMainStartTimestampMonotonic", unit).strip(), unit, flush=True)


def rights_are_few():
    capabilities = {"avcore": 1 << 12 | 1 << 13 | 1 << 38 | 1 << 39, "jorn": 1 << 13, "avwatch": 0}
    for unit, allowed in capabilities.items():
        with open(f"/proc/{main_process(unit)}/status") as file:
            status = dict(line.split(":\t", 1) for line in file.read().splitlines() if ":\t" in line)
        for which in ("CapBnd", "CapEff", "CapPrm"):
            assert not int(status[which], 16) & ~allowed, f"{unit}: {which} {status[which]}"
        assert status["NoNewPrivs"] == "1" and status["Seccomp"] == "2", unit
    said = output("journalctl", "-b", "-o", "cat", *itertools.chain(*(("-u", unit) for unit in PROGRAMS)))
    refused = re.findall(r".*(?:[Pp]ermission denied|not permitted|[Rr]ead-only).*", said)
    assert not refused, refused
    for unit, words in itertools.product(("avcore", "jorn"), (  # root's, who is obeyed elsewhere
            ("systemd-run", "-q", "true"), ("busctl", "list"), ("touch", "/run/systemd/system/x.service"))):
        run(*words)
        said = output("nsenter", "-m", "-t", main_process(unit), *words)
        assert re.search("refused|No such file|Read-only", said), f"{unit}: {words}: {said}"
    said = output("systemd-analyze", "verify", *(unit + ".service" for unit in (*PROGRAMS, "jorn-policy")))
    assert "ignoring" not in said.lower(), said


def lines_are_said_once():
    said = output("journalctl", "-b", "-o", "cat", "-u", "jorn", "_PID=" + main_process("jorn"))
    lines = collections.Counter(line for line in said.splitlines() if "uploadjorport_file" in line)
    assert sum(lines.values()) == 1, said


def history_is_kept():
    wait_until(lambda: "blocked.example" in output("avwatch", "usage"), "the history has the name")


def reload_takes_up_the_file():
    path = "/etc/jorn/avcore.toml"
    with open(path) as file:
        text = file.read()
    for profile, passes in (("2", True), ("1", False)):
        write(path, re.sub(r"^utp_id = .", "utp_id = " + profile, text, flags=re.M))
        run("systemctl", "reload", "avcore")
        wait_until(lambda: page_of("blocked.example") == passes, f"profile {profile}", WELL_AGAIN)


def wrong_policy_is_refused():
    write("/etc/jorn/policy.json", json.dumps(POLICY).replace('"deny"', '"denny"'))
    assert subprocess.run(["systemctl", "restart", "jorn-policy"]).returncode != 0
    assert "denny" in output("journalctl", "-b", "-u", "jorn-policy"), output("journalctl", "-b", "-u", "jorn-policy")
    assert not page_of("blocked.example") and page_of("open.example")
    write("/etc/jorn/policy.json", json.dumps(POLICY))
    run("systemctl", "restart", "jorn-policy")
    expect_well("a wrong policy")


def main_process(unit):
    return output("systemctl", "show", "-P", "MainPID", unit).strip()


def killed_and_stopped():
    together = (("avcore", "jorn"), ("jorn", "avcore"))
    for how, kills in (("enable", (("jorn",), ("avcore",), ("avwatch",), *together)), ("disable", together)):
        run("systemctl", "-q", how, "jorn")  # disabled: as if it had been started by hand
        for units in kills:
            run("kill", "-KILL", *map(main_process, units))
            time.sleep(0.3)
            expect_well("killing " + ", ".join(units))
    run("systemctl", "-q", "enable", "jorn")
    for units in itertools.permutations(("avcore", "jorn", "avwatch")):
        run("systemctl", "stop", *PROGRAMS)
        for unit in units:
            run("systemctl", "start", unit)
        expect_well("starting " + ", ".join(units))
    run("systemctl", "stop", "avcore")
    assert active("jorn")
    run("systemctl", "restart", "jorn")
    assert not active("jorn")
    run("systemctl", "start", "avcore")
    expect_well("the daemon waited")


def set_interfaces(inside):
    path = "/etc/jorn/avcore.toml"
    with open(path) as file:
        text = file.read()
    write(path, re.sub(r"^interfaces = .*", f"interfaces = [{inside}]", text, flags=re.M))
    run("systemctl", "restart", "avcore")


def what_hands_do_counts():
    """A daemon by hand stays alone; the gate goes with the last interface in the file."""
    run("systemctl", "stop", "jorn")
    by_hand = subprocess.Popen(["script", "-qc", "jorn -i av1", "/dev/null"], stdin=subprocess.DEVNULL)
    wait_until(lambda: subprocess.run(["jornctl", "--timeout", "1", "show", "utps"], capture_output=True).returncode == 0,
               "it listens", WELL_AGAIN)
    run("systemctl", "start", "jorn")
    assert not active("jorn") and re.fullmatch(r"pts/\d+\n", output("ps", "-C", "jorn", "-o", "tty="))
    run("pkill", "-x", "jorn")
    by_hand.wait()
    set_interfaces("")
    assert page_of("blocked.example") and not active("avcore") and not os.path.exists("/sys/fs/bpf/jorn")
    set_interfaces('"lan0"')
    expect_well("no interface")


class Traffic:
    """Of the client: a flow that passes, one that is denied, and pages of the blocked name."""

    def __enter__(self):
        self.ends, self.sent, self.back, self.pages = False, 0, set(), []
        with namespace("client"):
            self.passing, self.denied, self.tally = (socket.socket(socket.AF_INET, socket.SOCK_DGRAM) for _ in range(3))
        for each in (self.passing, self.denied, self.tally):
            each.settimeout(5)
        self.threads = [threading.Thread(target=act) for act in (self.send, self.receive, self.ask)]
        for thread in self.threads:
            thread.start()
        time.sleep(2)
        self.began = time.monotonic()
        return self

    def reached(self):
        """When the denied flow did; the clock is the whole machine's."""
        self.tally.sendto(b"", (OPEN, TALLY))
        return [at for at in json.loads(self.tally.recv(65536)) if at > self.began]

    def send(self):
        while not self.ends:
            self.passing.sendto(b"%d" % self.sent, (OPEN, OPEN_PORT))
            self.denied.sendto(b"denied", (OPEN, DENIED_PORT))
            self.sent += 1
            time.sleep(0.01)

    def receive(self):
        while not self.ends or len(self.back) < self.sent:
            try:
                self.back.add(int(self.passing.recv(2048)))
            except TimeoutError:
                return

    def ask(self):
        while not self.ends:
            asked = time.monotonic()
            if page_of("blocked.example"):
                self.pages.append(asked)

    def __exit__(self, *_):
        self.ends = True
        for thread in self.threads:
            thread.join()
        self.passed = self.reached()
        print(f"   {self.sent} datagrams of the open flow, {self.sent - len(self.back)} lost; of the denied one "
              f"{len(self.passed)} passed; {len(self.pages)} pages of the blocked name", flush=True)


def when_said(words, since):
    """By avcore's unit, in the seconds of time.monotonic()."""
    lines = output("journalctl", "-b", "-o", "short-monotonic", "-u", "avcore", "--no-hostname", "-g", words)
    times = [float(line[1:line.index("]")]) for line in lines.splitlines() if line.startswith("[")]
    return next(at for at in times if at > since)


def upgrade(version):
    """A gate whose records are others takes the place of the earlier one in a step, and knows no verdict:
    until its first one for a flow that passes. A page may come that is under way while nobody decides."""
    def upgrades():
        layouts, judges_anew = os.listdir("/sys/fs/bpf/jorn"), version == "unlike"
        with Traffic() as seen:
            install(f"jorn-{version}", f"jorn-watch-{version}")
            expect_well("an upgrade")
        stopped = when_said("^Stopping", seen.began)
        ready = when_said("^Started", stopped)
        judged = when_said(f"denied: .*:{DENIED_PORT} ", stopped) if judges_anew else stopped
        now = os.listdir("/sys/fs/bpf/jorn")
        print(f"   avcore was away for {ready - stopped:.2f} s; pins {layouts} -> {now}; "
              f"the first verdict {judged - stopped:.2f} s after its end", flush=True)
        assert output("dpkg-query", "-W", "-f", "${Version}", "jorn").endswith(version)
        with open("/etc/jorn/avcore.toml") as file:
            assert 'interfaces = ["lan0"]' in file.read()
        assert (now != layouts) == judges_anew and len(now) == 1
        assert ready - stopped < 2, "the gate may have opened"
        assert seen.sent == len(seen.back), "packets were lost"
        decides = max(when_said("the daemon is back", stopped), judged) + 1
        wrong = [at for at in seen.pages if not stopped - 1.5 < at < decides]  # a page takes a second
        assert not wrong, f"pages that were asked for at {wrong} came; ended {stopped}, decides {decides}"
        wrong = [at for at in seen.passed if not (judges_anew and stopped < at < judged + 0.05)]
        assert not wrong, f"a denied flow passed at {wrong}; ended {stopped}, judged {judged}, ready {ready}"
    upgrades.__name__ = "upgrade_to_" + version
    return upgrades


def history_stays():
    history_is_kept()
    assert os.path.exists("/var/lib/jorn/jorn_config.txt")


def remove():
    run("apt-get", *QUIETLY, "remove", "jorn")
    now, before = inventory(), json.load(open("/inventory.json"))
    for kind in ("interfaces", "qdiscs", "filters", "gates", "pins", "units", "processes"):
        assert now[kind] == before[kind], f"{kind}: {now[kind]}"
    assert os.path.exists("/etc/jorn/avcore.toml") and os.path.exists("/var/lib/jorn-watch/history.db")
    assert page_of("blocked.example")


def purge():
    run("apt-get", *QUIETLY, "purge", "jorn", "jorn-watch")
    now, before = inventory(), json.load(open("/inventory.json"))
    for kind, found in now.items():
        if kind == "files":
            assert not set(found) - set(before[kind]), sorted(set(found) - set(before[kind]))
        else:
            assert found == before[kind], f"{kind}: {found}, not {before[kind]}"


STEPS = [
    [take_stock, installing_enforces_nothing, configure],
    [blocks_after_boot, rights_are_few, lines_are_said_once, history_is_kept, reload_takes_up_the_file,
     wrong_policy_is_refused, killed_and_stopped, what_hands_do_counts, upgrade("same"), upgrade("unlike"), history_stays, remove, purge]]


def main(state):
    """The number of the boot is in the file `state`; "ok" is the whole's end."""
    try:
        with open(state) as file:
            boot = int(file.read())
    except FileNotFoundError:
        boot = 0
    for step in STEPS[boot]:
        began = time.monotonic()
        try:
            step()
        except BaseException:
            traceback.print_exc()
            print(output("journalctl", "-b", "-n", "200", "--no-pager"), f"FAILED {step.__name__}", sep="\n", flush=True)
            run("systemctl", "poweroff")
            return
        print(f"ok {step.__name__} ({time.monotonic() - began:.1f} s)", flush=True)
    write(state, str(boot + 1))
    os.sync()
    if boot + 1 == len(STEPS):
        print("all of it held", flush=True)
    run("systemctl", "reboot" if boot + 1 < len(STEPS) else "poweroff")


if __name__ == "__main__":
    {"lay-out": lay_out, "serve": serve}.get(sys.argv[1], lambda: main(sys.argv[1]))()
