# shellcheck shell=bash
# What the scripts share: messages, and the installation of what is missing. Sourced, not run.

# Not every user's path leads to what takes root, chroot among it.
PATH=$PATH:/usr/local/sbin:/usr/sbin:/sbin

# shellcheck disable=SC2034 # the scripts choose from these lists
BUILD_PACKAGES=(g++ cmake ninja-build pkg-config libpcap-dev libcli11-dev nlohmann-json3-dev
    libtomlplusplus-dev libndpi-dev libssl-dev libmnl-dev
    libsqlite3-dev libmicrohttpd-dev libgnutls28-dev libpsl-dev libncurses-dev robin-map-dev
    clang libbpf-dev)
# shellcheck disable=SC2034 # the scripts choose from these lists
TEST_PACKAGES=(libgtest-dev libbenchmark-dev libndpi-bin iproute2 procps python3 python3-jsonschema
    mandoc sqlite3 tmux dnsmasq-base curl iperf3 iputils-ping openssl clang-format clang-tidy shellcheck libclang-rt-dev lld llvm
    llvm-dev libclang-dev)
# shellcheck disable=SC2034
BROWSER_PACKAGES=(chromium chromium-driver python3-selenium)
# shellcheck disable=SC2034
PACKAGE_PACKAGES=(build-essential debhelper dpkg-dev lintian shellcheck)
# shellcheck disable=SC2034
EMULATOR_PACKAGES=(qemu-system-x86 busybox-static kmod cpio)
# shellcheck disable=SC2034
FUZZ_32_PACKAGES=(g++-12-multilib)
# shellcheck disable=SC2034
WIFI_PACKAGES=(iw libnl-route-3-200 libpcsclite1)
# shellcheck disable=SC2034
DEMO_PACKAGES=(iproute2 procps iputils-ping dnsmasq-base curl python3 openssl iperf3
    strongswan-charon strongswan-swanctl)

BOLD='' DIM='' RED='' RESET=''
if [[ -t 1 && ${TERM-dumb} != dumb && -z ${NO_COLOR-} ]]; then
    BOLD=$'\e[1m' DIM=$'\e[2m' RED=$'\e[31m' RESET=$'\e[0m'
fi

heading() {
    printf '\n%s== %s%s\n' "$BOLD" "$*" "$RESET"
}

note() {
    printf '%s%s%s\n' "$DIM" "$*" "$RESET"
}

fail() {
    printf '%s%s: %s%s\n' "$RED" "${0##*/}" "$*" "$RESET" >&2
    exit 1
}

# The exit status of a check that could not be made, for want of something that isn't ours.
# shellcheck disable=SC2034
SKIPPED=77

have() {
    command -v "$1" >/dev/null
}

# Prints the comment at the head of the script, which says what it does and how it is called, when
# that is all that it is asked for. To be called before anything is installed.
answer_help() { # the script's arguments
    case ${1-} in
    -h | --help)
        awk 'NR > 1 && !/^#/ { exit } NR > 1 { sub(/^# ?/, ""); print }' \
            "$(dirname "${BASH_SOURCE[0]}")/${0##*/}"
        exit 0
        ;;
    esac
}

# The build folder belongs to the owner of the checkout, also after a run with sudo: the next run
# may be without.
keep_build_with_owner() {
    mkdir -p build 2>/dev/null || fail "$(id -un) can't write into $PWD; a clone of your own can be built"
    if ((EUID == 0)); then
        trap 'chown -Rh --from=root --reference=. build' EXIT
    else
        local foreign
        foreign=$(find build ! -user "$EUID" -print -quit)
        [[ -z $foreign ]] || fail "$foreign belongs to somebody else, and building would fail;" \
            "this mends it: sudo chown -R $(id -un): $PWD/build"
    fi
}

# Which of the packages are not installed.
missing_packages() {
    local installed
    # shellcheck disable=SC2016 # the format is dpkg-query's
    installed=$(dpkg-query -W -f '${Package} ${db:Status-Status}\n' "$@" 2>/dev/null || true)
    local package
    for package in "$@"; do
        [[ $'\n'$installed$'\n' == *$'\n'"$package installed"$'\n'* ]] || printf '%s\n' "$package"
    done
}

# A machine that has just started looks for updates by itself, and only the installation waits for that
# by an option.
LOCK_SECONDS=300
update_package_lists() { # the caller's array `apt` is the command
    local said deadline=$((SECONDS + LOCK_SECONDS)) told=
    until said=$(LC_ALL=C "${apt[@]}" update 2>&1 >/dev/null); do
        [[ $said == *'Could not get lock'* ]] && ((SECONDS < deadline)) || return 1
        [[ $told ]] || note 'Waiting for another program that uses apt-get (five minutes at most)'
        told=yes
        sleep 2
    done
}

# Installs what is missing; asks nothing, and asks for no privilege when nothing is missing.
install_packages() {
    if ! have dpkg-query || ! have apt-get; then
        note "No apt-get here; these Debian packages have to be there by other names: $*"
        return
    fi
    local missing
    mapfile -t missing < <(missing_packages "$@")
    ((${#missing[@]} > 0)) || return 0

    local privilege=()
    if ((EUID != 0)); then
        have sudo || fail "these packages are missing, and installing them takes root or sudo:" \
            "apt-get install ${missing[*]}"
        privilege=(sudo)
    fi
    heading "Installing ${missing[*]}"
    local apt=("${privilege[@]}" env DEBIAN_FRONTEND=noninteractive
        apt-get -q -y -o DPkg::Lock::Timeout="$LOCK_SECONDS")
    update_package_lists || note "apt-get update failed; trying with the lists that are there"
    local uninvited
    uninvited=$(missing_packages strongswan-starter)
    "${apt[@]}" install --no-install-recommends "${missing[@]}" </dev/null ||
        fail "apt-get could not install ${missing[*]}"
    # charon brings a service that would run from now on, and that nothing here needs.
    if [[ $uninvited && -z $(missing_packages strongswan-starter) && -d /run/systemd/system ]]; then
        "${privilege[@]}" systemctl --quiet disable --now strongswan-starter ||
            note 'strongswan-starter, a service that nothing here needs, may be running now'
    fi
}

# What of the packages the machine hasn't, with all that they need.
needed_packages() { # package ...
    local missing
    mapfile -t missing < <(missing_packages "$@")
    ((${#missing[@]} == 0)) || LC_ALL=C apt-get -s --no-install-recommends install "${missing[@]}" |
        awk '$1 == "Inst" { print $2 }'
}

# Unpacks packages that would run as services if they were installed, unless the folder is there.
unpack_packages() { # folder, package ...
    local folder=$1 package
    [[ ! -d $folder ]] || return 0
    heading "Fetching ${*:2}"
    rm -rf "$folder.part"
    mkdir -p "$folder.part"
    (cd "$folder.part" && apt-get -q download "${@:2}") || return
    for package in "$folder.part"/*.deb; do
        dpkg -x "$package" "$folder.part" && rm "$package" || return
    done
    mv "$folder.part" "$folder"
}

# The newest kernel that was fetched, as scripts/emulated takes it; nothing where there is none.
newest_kernel() {
    find "$PWD/build/kernels" -mindepth 1 -maxdepth 1 -name '*-amd64' 2>/dev/null | sort -V | tail -n 1
}

# Newer kernels are several packages.
kernel_packages() { # kernel, what stands before apt-cache
    echo "linux-image-$1"
    "${@:2}" apt-cache depends "linux-image-$1" |
        awk '$1 == "Depends:" && $2 ~ /^linux-(binary|modules)-/ { print $2 }'
}

fetch_kernel() { # kernel, what stands before apt-get and apt-cache
    local at=$PWD/build/kernels/$1 package
    heading "Fetching Linux $1"
    rm -rf "$at" "$at.part"
    mkdir -p "$at.part"
    # shellcheck disable=SC2046 # one word a package
    (cd "$at.part" && "${@:2}" apt-get download $(kernel_packages "$@")) || return
    for package in "$at.part"/*.deb; do
        dpkg -x "$package" "$at.part" && rm "$package" || return
    done
    [[ -d $at.part/lib ]] || ln -s usr/lib "$at.part/lib"
    depmod -b "$at.part" "$1" 2>/dev/null || return
    mv "$at.part" "$at"
}

# Has a kernel below build/kernels, and be it the one of the machine's own release.
bring_kernel() {
    [[ -z $(newest_kernel) ]] || return 0
    local package
    package=$(apt-cache depends linux-image-amd64 | sed -n 's/^ *Depends: //p')
    [[ $package == linux-image-*-amd64 ]] && fetch_kernel "${package#linux-image-}" env
}

# hostapd and wpa_supplicant, which would run as services if they were installed. `with_wifi` stands
# before a command that is to run as root of an emulated machine that has them, and simulated radios.
bring_wifi() { # kernel; sets the array
    local at=$PWD/build/wifi
    unpack_packages "$at" hostapd wpasupplicant || return
    # shellcheck disable=SC2034 # the scripts use the array
    with_wifi=(scripts/emulated "$1" env JORN_EMULATED=1
        PATH="$at/usr/sbin:$at/sbin:/usr/sbin:/usr/bin:/sbin:/bin")
}

# An apt-get for 32-bit ARM with lists and archives of its own: the machine's wouldn't know ARM packages
# without being told so for good.
arm_apt_get() { # folder of these, what it is to do
    apt-get -q -o APT::Architecture=armhf -o APT::Architectures=armhf \
        -o Dir::State::Lists="$1/lists" -o Dir::State::status="$1/status" \
        -o Dir::Cache="$1" -o APT::Sandbox::User="$(id -un)" "${@:2}"
}

# What apt-get would install for 32-bit ARM where nothing is: packages with all that they need.
arm_packages() { # folder of apt-get's, package ...
    mkdir -p "$1/lists/partial" "$1/archives/partial"
    touch "$1/status"
    arm_apt_get "$1" update >/dev/null || note 'Some lists could not be fetched; the rest may do.' >&2
    arm_apt_get "$1" --simulate --no-install-recommends install "${@:2}" | awk '$1 == "Inst" { print $2 }'
}

# Unpacks packages for 32-bit ARM, unless the folder is there.
unpack_arm_packages() { # folder, folder of apt-get's, package ...
    local folder=$1 own=$2 package
    [[ ! -d $folder ]] || return 0
    rm -rf "$folder.part"
    mkdir -p "$folder.part"
    (cd "$folder.part" && arm_apt_get "$own" download "${@:3}") || return
    for package in "$folder.part"/*.deb; do
        dpkg -x "$package" "$folder.part" && rm "$package" || return
    done
    mv "$folder.part" "$folder"
}

# Of pmacct, nfdump, tshark and postgresql what isn't installed, unpacked into folders of their own. In
# scripts/private `with_collectors` stands before a command that is to find them, in a place that other
# users than root get at as well.
bring_collectors() { # package ...; sets the array
    local package packages folder=$PWD/build/collectors there=/run/collectors programs libraries
    mkdir -p "$folder"
    for package in "$@"; do
        mapfile -t packages < <(needed_packages "$package")
        ((${#packages[@]} == 0)) || unpack_packages "$folder/$package" "${packages[@]}" || return
    done
    shopt -s nullglob
    programs=$(printf '%s:' "$folder"/*/usr/{sbin,bin} {"$folder"/*,}/usr/lib/postgresql/*/bin)
    libraries=$(printf '%s:' "$folder"/*/{usr/,}lib/*-linux-gnu*)
    shopt -u nullglob
    # shellcheck disable=SC2016,SC2034 # the words are the inner shell's; the scripts use the array
    with_collectors=(sh -c 'mkdir "$1" && mount --bind "$0" "$1" && shift && exec "$@"' "$folder" "$there"
        env PATH="${programs//$folder/$there}$PATH" LD_LIBRARY_PATH="${libraries//$folder/$there}${LD_LIBRARY_PATH-}")
}
