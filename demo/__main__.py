"""The demo's inner part: run by scripts/demo through scripts/private, where /run and /etc, the network
and the processes are its own and vanish with it. Is told what it plays ("live", "roam", "fleet",
"page" or "capture"), for a fleet its database ("postgresql", "sqlite"), for a capture its name, a policy and
a configuration; the capture itself is the standard input, for the page the door (door.py).

Every wait in here is bounded; together they stay below two minutes, but for the page, which waits for
Ctrl-C."""
from . import box, fleet, page, roam, traffic, web, wifi, wifi_calling
from .stage import *


def can_enforce():
    """The gate takes a build with it, and root of the machine itself."""
    with open("/proc/self/uid_map") as file:
        if file.read().split()[1] != "0":
            note("Verdicts are shown, not enforced, which takes root: sudo scripts/demo")
            return False
    add_bridge("any")
    try:
        for words in ("setup", "--inline", "any"), ("teardown",):
            status, said = answer(f"{BIN}/avcore", *words)
            if status != 0:
                note(f"Verdicts are shown, not enforced: {said}")
                return False
        return True
    finally:
        ip(None, "link", "del", "any")


def play_live():
    if can_enforce():
        how, servers = ("--inline", "wlan0"), box.play()
    else:
        how, servers = ("-i", "wlan0"), traffic.play_live()
    web.play(servers, how)
    wifi_calling.play(how)


def show_what_next():
    heading("What next")
    say("""\
  scripts/demo FILE.pcap     the same with a capture of yours (--policy, --config: and your rules)
  scripts/demo roam          a client that walks from one access point to another
  scripts/demo wifi          the same with simulated radios, in an emulated machine
  scripts/demo fleet         three access points, and one database of who used what at which
  scripts/demo page          a house at work, and who uses what to look at in a browser
  scripts/private bash       a shell in a small machine of its own, to play by hand (README, "By hand")
  docs/architecture.md       how it works, on one page""")


def main(what, *arguments):
    os.makedirs(LOGS)
    set_switch(None, "ipv6/conf/default/disable_ipv6", 1)
    if what == "page":
        page.play(can_enforce())
        return
    if what == "fleet":
        fleet.play(can_enforce(), {"postgresql": fleet.Postgres, "sqlite": fleet.Sqlite}[arguments[0]]())
    elif what == "capture":
        traffic.play_capture(*arguments)
    else:
        {"live": play_live, "roam": roam.play, "wifi": wifi.play}[what]()
    show_what_next()


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(130))
    try:
        main(*sys.argv[1:])
    except KeyboardInterrupt:
        sys.exit(130)
    except Failed as error:
        show_logs()
        sys.exit(f"{RED}demo: {error}{RESET}")
    except Exception:
        show_logs()
        raise
