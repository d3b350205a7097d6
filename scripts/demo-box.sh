# shellcheck shell=bash
# The demo's first part where verdicts can be enforced: two clients, the same requests of each before
# and under a policy for one of them. Sourced by demo-inside.

BOX_CONFIG=$LOGS.box.toml
LAPTOP=$NETWORK.3
SPEED_SERVER=$NETWORK.87
VOICE_SERVER=$NETWORK.88
VIDEO_SERVER6=fd00:20::81
WIRE_MS=10

show_box() {
    heading 'An access point in a box: two clients and the internet, in namespaces of their own'
    cat <<PICTURE
  tablet                access point                 the internet, $((2 * WIRE_MS)) ms there and back
  $CLIENT ---- wlan0 [bridge] eth0 -------- $WEB_SERVER  $WEB_NAME (HTTP)
  laptop                   |                  $VIDEO_SERVER  $VIDEO_NAME (HTTPS, IPv6 too)
  $LAPTOP ---- wlan1 ----'                  $SPEED_SERVER  speedtest.example (iperf3)
                the gate at wlan0, wlan1      $VOICE_SERVER  voice.example (UDP)
                  avcore --> jorn             $DNS_SERVER  name server
PICTURE
}

make_far_server() {
    make_namespace server
    make_namespace wire
    connect wire near br0 eth0
    ip -n wire link add far type veth peer name eth0 netns server
    ip -n wire link set far up
    ip -n server link set eth0 up
    start wire on wire scripts/slow-wire near far "$WIRE_MS"
}

make_box() {
    make_bridge br0
    make_station client wlan0
    make_station laptop wlan1
    make_far_server
    ip -n client addr add "$CLIENT/24" dev eth0
    ip -n laptop addr add "$LAPTOP/24" dev eth0
    add_servers "$DNS_SERVER" "$WEB_SERVER" "$VIDEO_SERVER" "$SPEED_SERVER" "$VOICE_SERVER"
    add_ipv6 client fd00:20::2
    add_ipv6 laptop fd00:20::3
    add_ipv6 server "$VIDEO_SERVER6"
    NAMES+=(--address="/$VIDEO_NAME/$VIDEO_SERVER6" --address="/speedtest.example/$SPEED_SERVER"
        --address="/voice.example/$VOICE_SERVER")
}

# The voice server answers with the code point of what it gets.
start_box_servers() {
    start iperf3 on_server iperf3 -s -B "$SPEED_SERVER"
    start voice on_server python3 -c "
import socket
server = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
server.setsockopt(socket.IPPROTO_IP, socket.IP_RECVTOS, 1)
server.bind(('$VOICE_SERVER', 4000))
while True:
    _, extra, _, caller = server.recvmsg(2000, 64)
    server.sendto(b'%d' % (extra[0][2][0] >> 2), caller)"
    wait_until 'speed test server' listens -t "$SPEED_SERVER:5201"
    wait_until 'voice server' listens -u "$VOICE_SERVER:4000"
}

# --- what a client asks for: each prints a few words

web_page() { # client, curl's options and URL
    local said
    said=$(on "$1" curl -sS -k --noproxy '*' --max-time 4 -o /dev/null \
        -w '%{http_code}, %{size_download} bytes' "${@:2}" 2>&1) || true
    case $said in
    *'curl: (7)'*) echo 'refused' ;;
    *'curl: (35)'* | *'curl: (56)'*) echo 'cut off' ;;
    *'curl: (28)'*) echo 'no answer' ;;
    *) echo "$said" ;;
    esac
}

speed() { # client, iperf3's option of the direction
    on "$1" iperf3 -c speedtest.example -f m -O 1 -t 1 ${2-} |
        awk '/receiver/ { print $(NF - 2) " Mbit/s" }'
}

voice_call() { # client
    on "$1" python3 -c "
import socket
call = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
call.connect(('voice.example', 4000))
call.settimeout(1)
answers = []
for _ in range(25):
    call.send(bytes(160))
    answers.append(call.recv(10).decode())
print(f'{len(answers)} of 25, arrived with DSCP {answers[-1]}')"
}

REQUESTS=(
    "http://$WEB_NAME/|web_page WHO http://$WEB_NAME/"
    "https://$VIDEO_NAME/|web_page WHO -4 https://$VIDEO_NAME/"
    "the same over IPv6|web_page WHO -6 https://$VIDEO_NAME/"
    'speed test, to the client|speed WHO -R'
    'speed test, from the client|speed WHO'
    'a voice call|voice_call WHO'
)

ask_for_all() { # client, name of the array for what became of it
    local -n became=$2
    local request
    for request in "${REQUESTS[@]}"; do
        # shellcheck disable=SC2206 # words, as they stand above
        local words=(${request#*|})
        became+=("$("${words[@]/WHO/$1}")")
    done
}

show_requests() { # titles of the columns
    local i
    printf '  %-29s%-37s%-37s%s\n' 'asked for' "$@"
    for i in "${!REQUESTS[@]}"; do
        printf '  %-29s%-37s%-37s%s\n' "${REQUESTS[i]%%|*}" "${BEFORE[i]}" "${AFTER[i]}" \
            "${LAPTOPS[i]}"
    done
}

configure_box() {
    cat >"$BOX_CONFIG" <<'TOML'
[[rule]]
captured_on = "wlan0"
utp_id = 1
[enforce]
reset = true
TOML
}

show_why() {
    heading 'What happened on the wire, and why'
    awk -F ': ' '/^avcore: denied/ { print "  denied       " $3 "\n               " $4 }' "$LOGS/avcore"
    awk '/ (rate limit|qos) / {
            sub(/:.*/, "", $1)
            row = sprintf("  %-12s %s to %s, %s", /qos/ ? "marked" : "limited", $1, $2, $4)
            if (!seen[row]++) print row
        }
        /^packets/ { counts = counts "\n  " $0 }
        END { print counts }' "$LOGS/avcore"
    note '
  The gate is a program in the kernel at wlan0 and wlan1: it copies the first packets of a flow to avcore,
  which asks jorn, and does the rest by itself. jorn knew www.youtube.com from the DNS answer, the speed
  test by its port.'
}

demo_box() {
    show_box
    make_box
    use_demo_dns
    start_servers
    start_box_servers
    configure_box
    start_avcore "$BOX_CONFIG" --inline wlan0 --inline wlan1
    start_jorn
    local BEFORE=() AFTER=() LAPTOPS=()

    heading 'What the clients ask for'
    ask_for_all client BEFORE
    note '  The tablet has user traffic profile 1, and the policy for it blocks YouTube, gives the speed test
  5 Mbit/s down and 2 up and marks voice.example. The laptop has no profile.'
    apply examples/box.json
    ask_for_all client AFTER
    ask_for_all laptop LAPTOPS
    show_requests 'tablet, no policy yet' 'tablet, under the policy' 'laptop, then'
    stop_avcore
    show_why
}
