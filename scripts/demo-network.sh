# shellcheck shell=bash
# What the parts of the demo share: starting things and waiting for them, the network in namespaces,
# the client's tries. Sourced by demo-inside.
#
# Every wait in here is bounded.

BIN=$PWD/build/demo/bin
LOGS=/run/demo
NETWORK=10.20.0
CLIENT=$NETWORK.2
DNS_SERVER=$NETWORK.53

# --- starting things and waiting for them

# What is started is the child itself, by its number in STARTED: the functions that run a command
# elsewhere become it (EXEC) instead of waiting for it.
start() { # log name, command ...
    EXEC="exec" "${@:2}" >"$LOGS/$1" 2>&1 </dev/null &
    STARTED=$!
}

stop() { # process
    kill "$1"
    wait "$1" || true
}

wait_until() { # what, command ...: gives up after five seconds
    local deadline=$((SECONDS + 5))
    until "${@:2}" 2>/dev/null; do
        ((SECONDS < deadline)) || fail "no $1 after five seconds"
        sleep 0.05
    done
}

show_logs() {
    local log
    for log in "$LOGS"/*; do
        [[ -s $log ]] || continue
        printf '\n%s--- %s%s\n' "$DIM" "${log##*/}" "$RESET"
        tail -n 15 "$log"
    done
}

on_exit() {
    local status=$?
    ((status == 0 || status == 130)) || show_logs >&2
}

# --- the network

# A pair as the capture needs it: room for the largest frame with its trailer, and no frames of the
# kernel's own (no ARP, and IPv6 is off in all of these namespaces).
make_capture_pair() { # nothing, or -n and a namespace
    ip "$@" link add av0 mtu 65535 type veth peer name av1 mtu 65535
    ip "$@" link set av0 arp off up
    ip "$@" link set av1 arp off up
}

make_namespace() { # name
    ip netns add "$1"
    nsenter --net="/run/netns/$1" sysctl -qw net.ipv6.conf.default.disable_ipv6=1
    ip -n "$1" link set lo up
}

make_bridge() { # name, then nothing or -n and a namespace
    ip "${@:2}" link add "$1" type bridge mcast_snooping 0
    ip "${@:2}" link set "$1" up
}

# One end is a port of a bridge here, the other an interface of a namespace. Segmentation is left to
# the sender's TCP, so that frames look as they do on a wire.
connect() { # namespace, its interface, bridge, the bridge's port
    ip link add "$4" gso_max_segs 1 type veth peer name "$2" netns "$1"
    ip link set "$4" master "$3" up
    ip -n "$1" link set "$2" gso_max_segs 1 up
}

make_station() { # namespace, port of the access point
    make_namespace "$1"
    connect "$1" eth0 br0 "$2"
}

make_network() {
    make_bridge br0
    make_station client wlan0
    make_station server eth0
    ip -n client addr add "$CLIENT/24" dev eth0
}

add_servers() { # addresses ...
    local address
    for address in "$@"; do
        ip -n server addr add "$address/24" dev eth0
    done
}

on() { # namespace, command ...
    ${EXEC-} nsenter --net="/run/netns/$1" "${@:2}"
}

on_client() {
    on client "$@"
}

on_server() {
    on server "$@"
}

# Some hosts have IPv6 as well, for which most clients ask first.
add_ipv6() { # namespace, addresses ...
    on "$1" sysctl -qw net.ipv6.conf.eth0.disable_ipv6=0
    local address
    for address in "${@:2}"; do
        ip -n "$1" addr replace "$address/64" dev eth0 nodad
    done
}

# The client asks the demo's name server and nobody else.
use_demo_dns() {
    rm -f /etc/resolv.conf /etc/nsswitch.conf
    echo "nameserver $DNS_SERVER" >/etc/resolv.conf
    echo 'hosts: dns' >/etc/nsswitch.conf
}

listens() { # -t or -u, address:port
    [[ -n $(on_server ss -Hln "$1" "src $2") ]]
}

# dnsmasq's debugging mode keeps the user that it has: in a user namespace there is no other.
start_name_server() { # log name, address, configuration, more options ...
    start "$1" on_server dnsmasq --no-daemon --conf-file="$3" --no-resolv --no-hosts --pid-file= \
        --bind-interfaces --listen-address="$2" --local-ttl=300 "${@:4}"
    wait_until 'name server' listens -u "$2:53"
}

# --- the access point

# avcore plays the kernel module: `-i` it takes frames from a port of the bridge, `-r` from a file.
# It is there before the daemon, which asks once, at its start, whether there is a DPI engine.
start_avcore() { # configuration, option, where the frames come from, more options ...
    start avcore "$BIN/avcore" -o av0 -c "$@"
    AVCORE=$STARTED
    wait_until 'AV channel of avcore' test -S /run/av_core.sock
}

# It leaves its report in the log.
stop_avcore() {
    kill -INT "$AVCORE"
    wait "$AVCORE"
}

start_jorn() {
    start jorn "$BIN/jorn" -i av1
    wait_until 'command socket of jorn' test -S /run/jorn.sock
}

apply() { # document
    echo "  jornctl apply $1"
    "$BIN/jornctl" apply "$1" | sed "s/^/  /"
}

show_names() {
    heading 'The names that jorn keeps'
    echo '  jornctl show dns'
    "$BIN/jornctl" show dns | awk 'NF && ++lines <= 24 { print "  " $0 }'
}

# The table's first screenful, and the totals behind the empty line.
show_flows() {
    heading 'What jorn made of it'
    awk -v most=40 '
        /^$/ { totals = 1; if (hidden) print "... and " hidden " more flows" }
        totals || NR <= most { print; next }
        { ++hidden }' "$LOGS/avcore"
}

# --- the traffic

try() { # what is shown, command ...
    printf '  %-34s ' "$1"
    local answer
    answer=$("${@:2}" 2>&1) || fail "no answer: $answer"
    echo "$answer"
}

fetch() { # curl's options and URL
    on_client curl -sS -k --noproxy '*' --max-time 4 -o /dev/null \
        -w '%{http_code} from %{remote_ip}, %{size_download} bytes' "$@"
}
