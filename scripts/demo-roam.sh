# shellcheck shell=bash
# `scripts/demo roam`: two access points on one network, and a client that walks from one to the
# other with a connection that lasts. Sourced by demo-inside.

CHAT_SERVER=$NETWORK.60
CHAT_NAME=chat.example
CHAT_PORT=7000
KEYS=/tmp/bus-keys
STATION=02:00:00:00:00:0c

access_point_mac() { # number
    echo "00:1A:2B:00:00:0$1"
}

show_roam_network() {
    heading 'Two access points, in namespaces of their own'
    cat <<PICTURE
  client                access points             server side
  $CLIENT ----.----- 1: wlan0 [bridge] eth0 --.--- $DNS_SERVER  name server
                :        avcore <-> jorn        |    $CHAT_SERVER  $CHAT_NAME (TCP)
                :            | bus, TLS         |
                '- - - 2: wlan0 [bridge] eth0 --'
                         avcore <-> jorn
PICTURE
}

# The air of an access point is a bridge here, on which the client's interface is or isn't.
make_access_point() { # number
    local name=ap$1
    make_namespace "$name"
    make_capture_pair -n "$name"
    make_bridge "air$1"
    connect "$name" wlan0 "air$1" "antenna$1"
    connect "$name" eth0 br0 "lan$1"
    make_bridge lan -n "$name"
    ip -n "$name" link set wlan0 master lan
    ip -n "$name" link set eth0 master lan
    ip -n "$name" addr add "$NETWORK.1$1/24" dev lan
    mkdir -p "$LOGS.$name"/{run,writable}
}

make_roam_network() {
    make_bridge br0
    make_station server servers
    add_servers "$DNS_SERVER" "$CHAT_SERVER"
    make_access_point 1
    make_access_point 2
    make_namespace client
    connect client eth0 air1 station
    ip -n client link set eth0 address "$STATION"
    ip -n client addr add "$CLIENT/24" dev eth0
}

# An access point's /run and /writable are its own, beside its network.
on_access_point() { # number, command ...
    # shellcheck disable=SC2016 # the inner shell's
    ${EXEC-} nsenter --net="/run/netns/ap$1" unshare --mount bash -c '
        mount --bind "$0/writable" /writable && mount --bind "$0/run" /run && exec "$@"' \
        "$LOGS.ap$1" "${@:2}"
}

configure_bus() { # number
    local name
    name=AP.$(access_point_mac "$1")
    cat <<TOML
[platform]
base_mac = "${name#AP.}"
[bus]
ca = "$KEYS/ca.pem"
certificate = "$KEYS/$name.pem"
key = "$KEYS/$name.key"
TOML
}

start_access_point() { # number
    local run=$LOGS.ap$1/run
    configure_bus "$1" >"$run/avcore.toml"
    start "avcore$1" on_access_point "$1" "$BIN/avcore" -o av0 -i wlan0 -c /run/avcore.toml
    AVCORES+=("$STARTED")
    wait_until "AV channel of access point $1" test -S "$run/av_core.sock"
    start "jorn$1" on_access_point "$1" "$BIN/jorn" -i av1
    wait_until "daemon of access point $1" test -S "$run/jorn.sock"
}

start_access_points() {
    heading 'A certificate for each, and the daemons'
    echo "  scripts/bus-keys $KEYS AP.$(access_point_mac 1) AP.$(access_point_mac 2)"
    scripts/bus-keys "$KEYS" "AP.$(access_point_mac 1)" "AP.$(access_point_mac 2)"
    mkdir -p /writable
    AVCORES=()
    start_access_point 1
    start_access_point 2
}

ask() { # number of the access point, jornctl's words ...
    "$BIN/jornctl" --socket "$LOGS.ap$1/run/jorn.sock" "${@:2}"
}

knows_chat() { # number
    ask "$1" show dns | grep -q "$CHAT_NAME"
}

show_names_of() { # number
    printf '  %-28s ' "access point $1 has the names"
    ask "$1" show dns | awk -F ': *' '
        /dst ip:/ { address = $2 }
        /application name:/ { names = names (names ? ", " : "") $2 " (" address ")" }
        END { print names ? names : "none" }'
}

# --- the connection that lasts: a line every 0.2 seconds, and its echo

start_chat() {
    start_name_server dnsmasq "$DNS_SERVER" /dev/null --local=/#/ \
        --address="/$CHAT_NAME/$CHAT_SERVER"
    start chat-server on_server python3 -c "
import socketserver
class Echo(socketserver.StreamRequestHandler):
    def handle(self):
        for line in self.rfile:
            self.wfile.write(line)
socketserver.TCPServer(('$CHAT_SERVER', $CHAT_PORT), Echo).serve_forever()"
    wait_until 'chat server' listens -t "$CHAT_SERVER:$CHAT_PORT"
    # shellcheck disable=SC2016 # the inner shell's
    start chat on_client bash -c '
        exec {chat}<>"/dev/tcp/$0/$1"
        for ((said = 1; ; ++said)); do
            echo "$said" >&"$chat"
            read -r -t 4 heard <&"$chat" || exit 1
            echo "$heard"
            sleep 0.2
        done' "$CHAT_NAME" "$CHAT_PORT"
    CHAT=$STARTED
}

lines_heard() {
    tail -qn 1 "$LOGS/chat"
}

heard_more_than() { # lines
    (($(lines_heard) > $1))
}

show_chat() {
    printf '  %-28s %s lines said and heard, one connection\n' "the client's chat" "$(lines_heard)"
}

keep_talking() {
    local since
    since=$(lines_heard)
    wait_until 'echo in the chat' heard_more_than "$((${since:-0} + 5))"
}

# --- the walk

begin_at_first() {
    heading "The client is at access point 1 and talks to $CHAT_NAME"
    keep_talking
    wait_until "name at access point 1" knows_chat 1
    show_chat
    show_names_of 1
    show_names_of 2
}

walk() {
    heading 'It walks to access point 2, and the controller says so'
    ip link set station master air2
    echo "  jornctl roam --station $STATION --to $(access_point_mac 2) --address $NETWORK.12"
    ask 1 roam --station "$STATION" --to "$(access_point_mac 2)" --address "$NETWORK.12"
    wait_until 'name at access point 2' knows_chat 2
    keep_talking
    show_chat
    show_names_of 2
}

show_chat_row() { # number
    printf '\n  access point %s\n' "$1"
    awk -v port=":$CHAT_PORT" '$1 == "CLIENT" || index($0, port) { print "  " $0 }' "$LOGS/avcore$1"
    grep '^bus: messages' "$LOGS/avcore$1" | sed 's/^/  /'
}

demo_roam() {
    show_roam_network
    make_roam_network
    use_demo_dns
    start_access_points
    start_chat
    begin_at_first
    walk
    kill "$CHAT"
    sleep 0.3 # the last frames, and their verdicts
    kill -INT "${AVCORES[@]}"
    wait "${AVCORES[@]}"
    heading 'One connection, seen from both'
    show_chat_row 1
    show_chat_row 2
    note "
Access point 1 saw the client ask for $CHAT_NAME. Access point 2 saw the middle of a connection
to $CHAT_SERVER: its name came over the bus, from one access point to the other, each of which had
to show its certificate."
}
