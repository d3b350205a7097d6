# shellcheck shell=bash
# The demo's second part: web filtering. The client's name server forwards to "the internet's", and
# takes its safe-search names from avcore. Sourced by demo-inside.

UPSTREAM_SERVER=$NETWORK.54
BETS_SERVER=$NETWORK.82
LOTTERY_SERVER=$NETWORK.83
TRACKER_SERVER=$NETWORK.84
SEARCH_VIP=$NETWORK.85 # as in the policy
SEARCH_SERVER=$NETWORK.86
SEARCH_SERVER6=fd00:20::86
SEARCH_NAME=www.google.com
RESOLVERS=$LOGS.resolvers
INSPECTING=$LOGS.inspecting.toml

configure_inspection() {
    cat >"$INSPECTING" <<'TOML'
[client]
utp_id = 1
filter_type = ["url", "wificalling"]
[enforce]
reset = true
TOML
}

start_web_servers() {
    add_servers "$UPSTREAM_SERVER" "$BETS_SERVER" "$LOTTERY_SERVER" "$TRACKER_SERVER" \
        "$SEARCH_VIP" "$SEARCH_SERVER"
    add_ipv6 client fd00:20::2
    add_ipv6 server "$SEARCH_SERVER6"
    stop "$HTTP"
    start http on_server python3 -m http.server 80 --bind :: --directory "$LOGS.www"
    wait_until 'web server' listens -t "[::]:80"
    start_name_server upstream "$UPSTREAM_SERVER" /dev/null --address="/bets.example/$BETS_SERVER" \
        --address="/lottery.bets.example/$LOTTERY_SERVER" \
        --address="/tracker.example/$TRACKER_SERVER" \
        --address="/$SEARCH_NAME/$SEARCH_SERVER" --address="/$SEARCH_NAME/$SEARCH_SERVER6" \
        "${EPDG_NAMES[@]}"
    start_resolver /dev/null
}

# The client's. It reads its configuration at its start only.
start_resolver() { # configuration, more options ...
    stop "$RESOLVER"
    start_name_server dnsmasq "$DNS_SERVER" "$1" --server="$UPSTREAM_SERVER" "${@:2}"
    RESOLVER=$STARTED
}

use_safe_search() {
    wait_until 'files of safe search' test -s "$RESOLVERS/wlan0/dnsmasq.conf"
    start_resolver "$RESOLVERS/wlan0/dnsmasq.conf" --hostsdir="$RESOLVERS/wlan0"
}

fetch_or_say() { # curl's options and URL
    local said
    said=$(fetch "$@" 2>&1) || said=$(grep '^curl:' <<<"$said")
    echo "$said"
}

# The daemon that runs finds the new avcore by itself, when there is something to judge.
start_avcore_again() { # option, where the frames come from, more options ...
    start_avcore "$INSPECTING" "$@"
    wait_until 'daemon at the new avcore' daemon_is_there
}

daemon_is_there() {
    # shellcheck disable=SC2016 # the inner shell's
    on_client bash -c 'echo new >"/dev/udp/$0/9"' "$WEB_SERVER"
    [[ $(ss -Hx state established) == */av_core.sock* ]]
}

show_web_rows() {
    heading 'What jorn made of it'
    awk '$1 == "CLIENT" || $2 ~ /:80$/' "$LOGS/avcore"
}

demo_web() {
    heading 'Web filtering'
    configure_inspection
    start_web_servers
    start_avcore_again "${CLIENT_SIDE[@]}" --categories examples/categories.txt \
        --safe-search "$RESOLVERS"
    note "  $SEARCH_NAME has an IPv4 and an IPv6 address; the client takes the latter."
    try "curl http://$SEARCH_NAME/" fetch "http://$SEARCH_NAME/"
    note '
  The policy "family" of everybody on wlan0 blocks gambling by category and tracker.example by name,
  lets lottery.bets.example through, and has searches made safe.'
    apply examples/family.json
    use_safe_search
    try 'curl http://bets.example/' fetch_or_say http://bets.example/
    try 'curl http://lottery.bets.example/' fetch http://lottery.bets.example/
    try 'curl http://tracker.example/' fetch_or_say http://tracker.example/
    try "curl http://$SEARCH_NAME/" fetch "http://$SEARCH_NAME/"
    try "curl -6 http://$SEARCH_NAME/" fetch_or_say -6 "http://$SEARCH_NAME/"
    sleep 0.3 # the last frames, and their verdicts
    stop_avcore
    show_web_rows
    note "
bets.example ($BETS_SERVER) is gambling for the URL-filtering agent, lottery.bets.example is, too, and
on the white list; tracker.example is on the black list. The search reached $SEARCH_VIP, the policy's
address, for avcore gave the name server its files; with -6 there is no address left to go to."
}
