# shellcheck shell=bash
# The demo's first part: a client's plain traffic, or a capture's, under a policy that blocks ICMP.
# Sourced by demo-inside.

CONFIG=examples/everyone.toml
WEB_SERVER=$NETWORK.80
VIDEO_SERVER=$NETWORK.81
WEB_NAME=intranet.example
VIDEO_NAME=www.youtube.com
NAMES=(--address="/$WEB_NAME/$WEB_SERVER" --address="/$VIDEO_NAME/$VIDEO_SERVER")
CAPTURE_SECONDS=20

show_network() {
    heading 'The network, in namespaces of its own'
    cat <<PICTURE
  client           access point             server side
  $CLIENT ---- wlan0 [bridge] eth0 ---- $DNS_SERVER  name server
                     |                     $WEB_SERVER  $WEB_NAME (HTTP)
                  avcore --> jorn          $VIDEO_SERVER  $VIDEO_NAME (TLS)
                         <-- verdicts
PICTURE
}

make_web_content() {
    mkdir -p "$LOGS.www"
    echo '<h1>The intranet</h1>' >"$LOGS.www/index.html"
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 1 \
        -subj "/CN=$VIDEO_NAME" -keyout "$LOGS.key" -out "$LOGS.crt" 2>"$LOGS/certificate"
}

start_servers() {
    make_web_content
    start_name_server dnsmasq "$DNS_SERVER" /dev/null --local=/#/ "${NAMES[@]}"
    # shellcheck disable=SC2034 # the next part starts it anew
    RESOLVER=$STARTED
    start http on_server python3 -m http.server 80 --bind "$WEB_SERVER" --directory "$LOGS.www"
    # shellcheck disable=SC2034 # the next part starts it anew
    HTTP=$STARTED
    start https on_server openssl s_server -quiet -www -accept 443 \
        -key "$LOGS.key" -cert "$LOGS.crt"
    wait_until 'web server' listens -t "$WEB_SERVER:80"
    wait_until 'TLS server' listens -t :443
}

ping_server() {
    on_client ping -q -c 3 -i 0.2 -w 4 "$WEB_SERVER" | grep -o '[0-9]* received'
}

make_traffic() {
    heading 'The client at work'
    try "ping $WEB_SERVER" ping_server
    try "curl http://$WEB_NAME/" fetch "http://$WEB_NAME/"
    try "curl https://$VIDEO_NAME/" fetch "https://$VIDEO_NAME/"
}

apply_policy() { # document, what it means
    heading 'The policy'
    apply "$1"
    [[ -z ${2-} ]] || note "  $2"
}

demo_live() {
    show_network
    make_network
    add_servers "$DNS_SERVER" "$WEB_SERVER" "$VIDEO_SERVER"
    use_demo_dns
    start_servers
    start_avcore "$CONFIG" -i wlan0
    start_jorn
    apply_policy examples/block-ping.json 'Clients have user traffic profile 1, and its policy blocks ICMP.'
    make_traffic
    sleep 0.3 # the last frames, and their verdicts
    stop_avcore
    show_flows
    note "
The ping was answered all the same: where avcore isn't inline it only keeps the verdict. $WEB_NAME
has its name from the DNS answer that the client got, the TLS flow from deep packet inspection, which
saw the server name in its first message."
    show_names
}

# A file is fed as soon as a daemon captures, and the policy has to stand before its first frame:
# another avcore, with nothing to feed, is there for the daemon's start and the policy.
demo_capture() { # name, policy, configuration
    start_avcore "$3" -i lo
    start_jorn
    apply_policy "$2"
    stop_avcore

    heading "Feeding $1"
    local status=0
    timeout --foreground --signal=INT "$CAPTURE_SECONDS" \
        "$BIN/avcore" -o av0 -r /dev/stdin -c "$3" >"$LOGS/avcore" || status=$?
    case $status in
    0) ;;
    124) note "  Stopped after $CAPTURE_SECONDS seconds; by hand avcore reads a file to its end." ;;
    *) fail 'avcore could not feed the capture' ;;
    esac
    show_flows
    show_names
}
