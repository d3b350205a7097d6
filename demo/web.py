"""The second scene: web filtering. The clients' name server forwards to "the internet's", and takes its
safe-search names from avcore."""
from . import wifi_calling
from .stage import *

UPSTREAM_SERVER = NETWORK + ".54"
SEARCH_VIP = NETWORK + ".85"  # as in the policy
SEARCH_NAME, SEARCH_SERVER, SEARCH_SERVER6 = "www.google.com", NETWORK + ".86", "fd00:20::86"
SITES = [("bets.example", NETWORK + ".82"), ("lottery.bets.example", NETWORK + ".83"),
         ("tracker.example", NETWORK + ".84")]
RESOLVERS = FILES + "/resolvers"


def start_servers(servers):
    add_ipv4("server", UPSTREAM_SERVER, *(address for _, address in SITES), SEARCH_VIP, SEARCH_SERVER)
    add_ipv6("client", CLIENT6)
    add_ipv6("server", SEARCH_SERVER6)
    servers.serve_web("::", "[::]:80")
    start_name_server("upstream", UPSTREAM_SERVER, [
        *SITES, (SEARCH_NAME, SEARCH_SERVER), (SEARCH_NAME, SEARCH_SERVER6),
        (wifi_calling.EPDG_NAME, wifi_calling.EPDG_SERVER)])
    servers.forward(UPSTREAM_SERVER)


def use_safe_search(servers):
    settings = RESOLVERS + "/wlan0/dnsmasq.conf"
    wait_for_file("files of safe search", settings)
    servers.forward(UPSTREAM_SERVER, f"--hostsdir={RESOLVERS}/wlan0", settings=settings)


def fetch_or_say(*words):
    status, said = fetch(*words)
    return 0, said if status == 0 else "\n".join(
        line for line in said.splitlines() if line.startswith("curl:"))


def play(servers, how):
    heading("Web filtering")
    start_servers(servers)
    avcore = wifi_calling.start_avcore_again(how, "--categories", "examples/categories.txt",
                                             "--safe-search", RESOLVERS)
    note(f"  {SEARCH_NAME} has an IPv4 and an IPv6 address; the client takes the latter.")
    search = f"http://{SEARCH_NAME}/"
    attempt("curl " + search, fetch, search)
    note("""
  The policy "family" of everybody on wlan0 blocks gambling by category and tracker.example by name,
  lets lottery.bets.example through, and has searches made safe.""")
    apply("examples/family.json")
    use_safe_search(servers)
    for name, ask in zip((name for name, _ in SITES), (fetch_or_say, fetch, fetch_or_say)):
        attempt(f"curl http://{name}/", ask, f"http://{name}/")
    attempt("curl " + search, fetch, search)
    attempt("curl -6 " + search, fetch_or_say, "-6", search)
    avcore.report()
    show_rows(lambda fields: server_port(fields) == "80")
    note(f"""
bets.example ({SITES[0][1]}) is gambling for the URL-filtering agent, lottery.bets.example is, too, and
on the white list; tracker.example is on the black list. The search reached {SEARCH_VIP}, the policy's
address, for avcore gave the name server its files; with -6 there is no address left to go to.""")
