# shellcheck shell=bash
# The demo's third part: a phone that registers for Wi-Fi calling, with strongSwan on both sides.
# Sourced by demo-inside.

EPDG_SERVER=$NETWORK.90
EPDG_NAME=epdg.epc.mnc002.mcc001.example
# shellcheck disable=SC2034 # the part before this one starts the name server
EPDG_NAMES=(--address="/$EPDG_NAME/$EPDG_SERVER")
IKE=/tmp/ike

configure_charon() { # side, its connection's addresses, own id, the other's id
    mkdir -p "$IKE/$1"
    cat >"$IKE/$1/strongswan.conf" <<CONF
charon {
  load_modular = no
  load = random nonce aes sha1 sha2 hmac kdf gmp kernel-netlink socket-default vici
  install_routes = no
  plugins { vici { socket = unix://$IKE/$1/vici } }
  filelog { stderr { default = 1 } }
}
CONF
    cat >"$IKE/$1/swanctl.conf" <<CONF
connections { call {
  version = 2
  $2
  proposals = aes128-sha256-modp2048
  local { auth = psk
    id = $3 }
  remote { auth = psk
    id = $4 }
} }
secrets { ike { secret = "of the SIM card, on a phone" } }
CONF
}

# charon's pid file has a fixed path, so each side has a /run of its own.
start_charon() { # side
    # shellcheck disable=SC2016 # the inner shell's
    start "charon-$1" "on_$1" env STRONGSWAN_CONF="$IKE/$1/strongswan.conf" unshare --mount \
        sh -c 'mount -t tmpfs tmpfs /run && exec /usr/lib/ipsec/charon'
    wait_until "charon on the $1" control_charon "$1" --stats
    control_charon "$1" --load-all --noprompt --file "$IKE/$1/swanctl.conf" ||
        fail "charon on the $1 doesn't take its connection"
}

control_charon() { # side, swanctl's words ...
    swanctl "${@:2}" --uri "unix://$IKE/$1/vici" >>"$LOGS/swanctl" 2>&1
}

register() {
    control_charon client --initiate --ike call --timeout 4 &&
        grep -o 'IKE_SA call.* established' "$LOGS/swanctl"
}

show_ike_rows() {
    heading 'What jorn made of it'
    awk '$1 == "CLIENT" || $2 ~ /:4?500$/' "$LOGS/avcore"
}

demo_wifi_calling() {
    heading 'Wi-Fi calling'
    add_servers "$EPDG_SERVER"
    start_avcore_again "${CLIENT_SIDE[@]}"
    apply examples/wifi-calling.json
    configure_charon server "local_addrs = $EPDG_SERVER" "$EPDG_NAME" %any
    configure_charon client "remote_addrs = $EPDG_NAME
  encap = yes" subscriber@carrier-one.example "$EPDG_NAME"
    start_charon server
    start_charon client
    note "
  A phone looks for its carrier's gateway, $EPDG_NAME, and registers there
  with IKE: strongSwan on both sides."
    try 'swanctl --initiate --ike call' register
    sleep 0.3 # the last frames, and their verdicts
    stop_avcore
    show_ike_rows
    note "
For carrier-one the policy knows the gateway's name only. The client's DNS answer said that it is
$EPDG_SERVER, so the IKE flows with this address carry the carrier's priority, 3: an access point
sends them as voice."
}
