"""`scripts/demo page`: a house whose clients are at work, and who uses what to look at, until Ctrl-C."""
import asyncio

from . import house
from .door import WATCH_SOCKET
from .stage import *

INSIDE = ("127.0.0.1", 8080)  # where avwatch serves
PAGE_CONFIG = "demo/house/avwatch.toml"


def show_house():
    heading("An access point in a box: the clients of a house and the internet, in namespaces of their own")
    say("""\
  tablet, console     children: no YouTube, no gambling, no tracker.example
  laptop, tv          a limit for what goes to backup.example, voice.example marked
  phone               a guest's: a limit for its speed tests, no intranet.example""")


def start_access_point(may_enforce):
    ports = [f"wlan{number}" for number in range(len(house.CLIENTS))]
    how = [word for port in ports for word in ("--inline", port)] if may_enforce else ["-i", "eth0"]
    programs = [Avcore("demo/house/avcore.toml", *how, "--categories", "examples/categories.txt")]
    programs.append(start_jorn())
    apply("demo/house/policy.json")
    words = ("-c", PAGE_CONFIG, "serve", "--history", FILES + "/history.db", "--http", "%s:%d" % INSIDE)
    say("  avwatch " + " ".join(words))
    os.makedirs(FILES, exist_ok=True)
    programs.append(Program("avwatch", f"{BIN}/avwatch", *words))
    wait_for("page of avwatch", lambda: can_connect(INSIDE))
    return programs


def can_connect(address):
    with socket.socket() as tried:
        return tried.connect_ex(address) == 0


def show_ways_in(port):
    heading("Look at it")
    say(f"""\
  {BOLD}http://127.0.0.1:{port}/{RESET}    in a browser on this machine
  {BIN}/avwatch -c {PAGE_CONFIG} --watch-socket {WATCH_SOCKET} top
                            in another terminal; "clients", "apps", "flows" and "denials", too""")
    note("  Ctrl-C ends all of it.")


async def pass_on(reader, writer):
    with contextlib.suppress(OSError):
        while data := await reader.read(65536):
            writer.write(data)
            await writer.drain()


def to(connect, *where):
    """What a listener does with a connection: it is one to there, until either side ends it."""
    async def carry(reader, writer):
        with contextlib.suppress(OSError):
            there, back = await connect(*where)
            ways = [asyncio.ensure_future(pass_on(*way)) for way in ((reader, back), (there, writer))]
            await asyncio.wait(ways, return_when=asyncio.FIRST_COMPLETED)
            for way in ways:
                way.cancel()
            back.close()
        writer.close()
    return carry


async def stay_open(door, listeners, programs):
    """Until whoever holds the other end of the door has gone."""
    has_gone = asyncio.Event()
    asyncio.get_running_loop().add_reader(door, has_gone.set)
    for_avwatch, for_browser = listeners
    await asyncio.start_unix_server(to(asyncio.open_unix_connection, "/run/jorn/watch.sock"), sock=for_avwatch)
    await asyncio.start_server(to(asyncio.open_connection, *INSIDE), sock=for_browser)
    while not has_gone.is_set():
        for each in programs:
            if each.has_ended():
                raise Failed(f"{each.name} has ended")
        with contextlib.suppress(asyncio.TimeoutError):
            await asyncio.wait_for(has_gone.wait(), 1)


def play(may_enforce):
    door = socket.socket(fileno=0)
    _, descriptors, _, _ = socket.recv_fds(door, 1, 2)
    listeners = [socket.socket(fileno=each) for each in descriptors]
    show_house()
    house.lay_out()
    use_demo_dns()
    house.start_servers()
    programs = start_access_point(may_enforce)
    house.begin()
    show_ways_in(listeners[1].getsockname()[1])
    asyncio.run(stay_open(door, listeners, programs))
