#!/usr/bin/env bash
# Scenarios for a mesh of gateways, end to end and the way they are deployed.
#
# Three gateways (a, b, c) and a UTM server each get a network namespace of
# their own, joined by veth pairs on a bridge that lives in one more
# namespace; nothing is ever sent outside the namespaces made here. Every
# gateway runs the real build/bin/gate with its own configuration:
#   iface 1  "manet", udp://10.77.0.N:7700 on the shared segment, the same
#            port on every host; the nodes behind the other gateways are
#            configured as MANet peers by host name ("gw-b:7700"), resolved
#            through the namespace's own hosts file (/etc/netns/NS/hosts,
#            which `ip netns exec` mounts over /etc/hosts)
#   iface 2  udp://127.0.0.1:6002        device X1, gatecat on 127.0.0.2:7002
#   iface 3  udpserial://127.0.0.1:6003  device X2, gatecat on 127.0.0.2:7003
#   iface 4  serial over a pseudo-terminal pair (mesh-null-modem), device X3
# The simulated devices are `gatecat dump` processes (what they receive) and
# `gatecat send` from the same endpoint (what they say). Device k behind
# gateway number g has local address 0xgk and MANet node address 0x0A0000gk.
# The UTM server is a `gatecat dump` on udp://10.77.0.9:7700.
#
# Needs: root (namespaces, /etc/netns; re-runs itself through sudo), iproute2,
# and a build holding bin/gate, bin/gatecat and bin/mesh-null-modem.
# Usage: tests/mesh/run-mesh.sh [BUILD_DIR]
# Prints one line per scenario and "N passed, N failed"; exit status 1 when
# any scenario failed. Everything started is stopped by pid, and every
# namespace and /etc/netns folder removed, however the run ends.
set -uo pipefail

[[ $(id -u) -eq 0 ]] || exec sudo -- "$0" "$@"

ROOT=$(cd "$(dirname "$0")/../.." && pwd)
BIN=$(cd "${1:-$ROOT/build}" && pwd)/bin
RUN=mesh$$
WORK=$(mktemp -d "/tmp/$RUN.XXXX")
WAIT_S=5            # longest wait for an expected frame or log line
# An idle gateway looks at finished name look-ups once per pass of its
# loop, and a pass waits up to 5 s for traffic.
RESOLVE_WAIT_S=8
QUIET_S=0.5         # how long "nothing more arrives" is watched for
MANET_PORT=7700
GATEWAYS=(a b c)
declare -A NUM=([a]=1 [b]=2 [c]=3 [utm]=9) PTY=() PIDS=()

ns() { echo "$RUN-$1"; }
in_ns() { local host=$1; shift; ip netns exec "$(ns "$host")" "$@"; }

cleanup() {
    local pid
    for pid in "${PIDS[@]}"; do kill -TERM "$pid" 2>/dev/null; done
    for pid in "${PIDS[@]}"; do
        for _ in {1..20}; do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
        kill -KILL "$pid" 2>/dev/null
    done
    for host in "${GATEWAYS[@]}" utm seg; do
        ip netns del "$(ns "$host")" 2>/dev/null
        rm -rf "/etc/netns/$(ns "$host")"
    done
    [[ $MADE_ETC_NETNS -eq 1 ]] && rmdir /etc/netns 2>/dev/null
    # Cut short (a signal, or set-up failed): still close with the count.
    [[ -n ${FAILED:-} ]] || echo "${passed:-0} passed, $((${failed:-0} + 1)) failed (run cut short)"
    if [[ ${FAILED:-1} -eq 0 ]]; then rm -rf "$WORK"; else echo "mesh: logs kept in $WORK"; fi
}
MADE_ETC_NETNS=0
[[ -d /etc/netns ]] || MADE_ETC_NETNS=1
trap cleanup EXIT
trap 'exit 143' TERM INT

# start NAME HOST CMD...: runs CMD in HOST's namespace in the background,
# standard output to $WORK/NAME.out, standard error to $WORK/NAME.err.
start() {
    local name=$1 host=$2; shift 2
    # Not through a function: $! must be the program itself (ip execs it),
    # not a shell around it, so that cleanup can end it by pid.
    ip netns exec "$(ns "$host")" "$@" >"$WORK/$name.out" 2>"$WORK/$name.err" &
    PIDS[$name]=$!
}

fail() { echo "  FAIL: $*"; return 1; }
now_ms() { local us=${EPOCHREALTIME/./}; echo $((us / 1000)); }

# wait_until SECONDS CMD...: true as soon as CMD succeeds, false at the deadline.
wait_until() {
    local deadline=$((SECONDS + ${1%.*} + 1)); shift
    until "$@"; do ((SECONDS < deadline)) || return 1; sleep 0.1; done
}

has_line() { grep -qFx -- "$2" "$WORK/$1.out"; }
has_match() { grep -qEx -- "$2" "$WORK/$1.out"; }
# Log lines of a gateway, exactly as printed.
expect_line() { wait_until "${3:-$WAIT_S}" has_line "$1" "$2" || fail "$1 did not print: $2"; }
expect_no_match() { ! grep -qE -- "$2" "$WORK/$1.out" || fail "$1 printed: $(grep -E -- "$2" "$WORK/$1.out" | head -1)"; }

# Frames as received by a device: the second field of its dump lines.
frames_of() { awk -v f="$2" '$2 == f { n++ } END { print n + 0 }' "$WORK/dev-$1.out"; }
has_frame() { (($(frames_of "$1" "$2") >= 1)); }
# expect_frame DEV FRAME: arrives, and exactly once.
expect_frame() {
    wait_until $WAIT_S has_frame "$1" "$2" || fail "device $1 did not receive $2"
    sleep $QUIET_S
    local n; n=$(frames_of "$1" "$2")
    ((n == 1)) || fail "device $1 received $2 $n times"
}
# expect_none FRAME DEV...: none of the devices receives FRAME.
expect_none() {
    local frame=$1 dev n; shift
    sleep $QUIET_S
    for dev in "$@"; do
        n=$(frames_of "$dev" "$frame")
        ((n == 0)) || fail "device $dev received $frame $n times, expected never"
    done
}
expect_alive() { local g; for g in "$@"; do kill -0 "${PIDS[gate-$g]}" 2>/dev/null || fail "gate $g is gone"; done; }

# Devices: a1..c3. Interfaces as gatecat opens them.
dev_iface() {  # DEV [send]
    local g=${1:0:1} k=${1:1:1}
    case $k in
        1) echo "udp://127.0.0.2:7002${2:+:127.0.0.1:6002}" ;;
        2) echo "udpserial://127.0.0.2:7003${2:+:127.0.0.1:6003}" ;;
        3) echo "serial://${PTY[$g]#* }:115200" ;;
    esac
}
# say DEV FRAME...: the device sends frames to its gateway.
say() { local dev=$1; shift; in_ns "${dev:0:1}" "$BIN/gatecat" send "$(dev_iface "$dev" send)" "$@" >/dev/null 2>&1 || fail "device $dev could not send $*"; }
# MANet payload: header (src_addr, dst_addr, kind, flag) and data, in hex.
node() { local h=${1#0x}; echo "${h:6:2}${h:4:2}${h:2:2}${h:0:2}"; }
manet() { echo "$(node "$1")$(node "$2")$3$4$5"; }
node_of() { echo "0x0A0000${NUM[${1:0:1}]}${1:1:1}"; }

# --- the mesh ---------------------------------------------------------------

hosts_file() {
    echo "127.0.0.1 localhost"
    local h; for h in "${GATEWAYS[@]}"; do echo "10.77.0.${NUM[$h]} gw-$h"; done
    echo "10.77.0.9 utm"
}

config() {  # GATEWAY
    local g=$1 h k sep=""
    cat <<EOF
{
  "ifaces": [
    {"iface": "udp://10.77.0.${NUM[$g]}:$MANET_PORT", "id": 1, "type": "manet"},
    {"iface": "udp://127.0.0.1:6002", "id": 2},
    {"iface": "udpserial://127.0.0.1:6003", "id": 3},
    {"iface": "serial://${PTY[$g]% *}:115200", "id": 4}
  ],
  "manet_peers": [
EOF
    for h in "${GATEWAYS[@]}"; do
        [[ $h == "$g" ]] && continue
        for k in 1 2 3; do
            printf '%s    {"manet_addr": "0x0A0000%s%s", "netdev_addr": "0x0%s", "iface_id": 1, "inet_addr": "gw-%s:%s"}' \
                "$sep" "${NUM[$h]}" "$k" "${NUM[$h]}" "$h" "$MANET_PORT"
            sep=$',\n'
        done
    done
    printf '\n  ]\n}\n'
}

build_mesh() {
    local h
    ip netns add "$(ns seg)" && ip -n "$(ns seg)" link add br0 type bridge && ip -n "$(ns seg)" link set br0 up || return 1
    for h in "${GATEWAYS[@]}" utm; do
        mkdir -p "/etc/netns/$(ns "$h")"
        hosts_file >"/etc/netns/$(ns "$h")/hosts"
        # Name look-ups stay inside: no name server outside the namespace.
        : >"/etc/netns/$(ns "$h")/resolv.conf"
        ip netns add "$(ns "$h")" &&
            ip -n "$(ns "$h")" link set lo up &&
            ip -n "$(ns seg)" link add "p-$h" type veth peer name eth0 netns "$(ns "$h")" &&
            ip -n "$(ns seg)" link set "p-$h" master br0 up &&
            ip -n "$(ns "$h")" addr add "10.77.0.${NUM[$h]}/24" dev eth0 &&
            ip -n "$(ns "$h")" link set eth0 up || return 1
    done
}

start_everything() {
    local g k dev
    for g in "${GATEWAYS[@]}"; do
        start "modem-$g" "$g" "$BIN/mesh-null-modem"
        wait_until 3 test -s "$WORK/modem-$g.out" || fail "no pseudo-terminals for $g" || return 1
        PTY[$g]=$(<"$WORK/modem-$g.out")
        config "$g" >"$WORK/gate-$g.json"
        for k in 1 2 3; do
            dev=$g$k
            start "dev-$dev" "$g" "$BIN/gatecat" dump "$(dev_iface "$dev")"
        done
        start "gate-$g" "$g" "$BIN/gate" --config "$WORK/gate-$g.json" --debug 3
    done
    start dev-utm utm "$BIN/gatecat" dump "udp://10.77.0.9:$MANET_PORT"
    for g in "${GATEWAYS[@]}"; do
        for dev in "$g"1 "$g"2 "$g"3; do
            wait_until $WAIT_S grep -q "listening" "$WORK/dev-$dev.err" || fail "device $dev did not start" || return 1
        done
    done
    wait_until $WAIT_S grep -q "listening" "$WORK/dev-utm.err" || fail "UTM server did not start" || return 1
}

# --- scenarios ----------------------------------------------------------------

# Every gateway resolves the names of its configured peers by its own hosts file.
scenario_peers_resolve() {
    local g h
    for g in "${GATEWAYS[@]}"; do
        for h in "${GATEWAYS[@]}"; do
            [[ $h == "$g" ]] && continue
            expect_line "gate-$g" "MANet peer on iface 1 retrieved addrinfo 'gw-$h:$MANET_PORT': '10.77.0.${NUM[$h]}:$MANET_PORT'" $RESOLVE_WAIT_S
        done
        [[ $(grep -c "retrieved addrinfo" "$WORK/gate-$g.out") -eq 6 ]] || fail "gate $g: not 6 resolved peers"
    done
}

# A MANet packet crosses from a device behind a to one behind b, and back:
# the header and data arrive byte for byte, the link-level dst is the next
# hop's address at each hop, src stays the sending device's.
scenario_manet_across() {
    local a1 b3 out back reply
    a1=$(node_of a1) b3=$(node_of b3)
    out=$(manet "$a1" "$b3" 05 01 C0FFEE) back=$(manet "$b3" "$a1" 06 00 BEEF) reply=$(manet "$b3" "$a1" 06 FF 5EED0000)
    # b has not heard of b3 yet: dropped there with a warning.
    say a1 "0A:11>01#$out"
    expect_line gate-a "forw MANet packet to iface 1: $a1 / 0x11 / 127.0.0.2:7002 -> $b3 / 0x02 / 10.77.0.2:$MANET_PORT"
    expect_line gate-b "recv MANet frame on iface 1: $a1 / 0x11 / 10.77.0.1:$MANET_PORT -> $b3 / 0x02, size=13"
    expect_line gate-b "WARNING: MANet peer not found for: $a1 / 0x11 / 10.77.0.1:$MANET_PORT -> $b3 / 0x02"
    expect_none "0A:11>23#$out" b3
    # b3 speaks first, so b learns where it lives; a1 hears it...
    say b3 "0A:23>02#$back"
    expect_line gate-b "add MANet peer on iface 4: $b3 / 0x23"
    expect_frame a1 "0A:23>11#$back"
    # ...and now a1's packet reaches it.
    say a1 "0A:11>01#$out"
    expect_line gate-b "forw MANet packet to iface 4: $a1 / 0x11 / 10.77.0.1:$MANET_PORT -> $b3 / 0x23"
    expect_frame b3 "0A:11>23#$out"
    # The reply finds a1 where a learned it.
    say b3 "0A:23>02#$reply"
    expect_line gate-a "forw MANet packet to iface 2: $b3 / 0x23 / 10.77.0.2:$MANET_PORT -> $a1 / 0x11 / 127.0.0.2:7002"
    expect_frame a1 "0A:23>11#$reply"
    expect_none "0A:11>33#$out" c3
}

# A device_config from a1 names the UTM server by host name: a adds it as a
# MANet peer behind the link broadcast address, resolves it, and forwards to it.
scenario_device_config() {
    local a1 utm=0x0F000001 body record packet
    a1=$(node_of a1)
    # device_serial, hash, cfg_id, then manet_config: node and UTM MANet
    # addresses, UTM port 7700 (0x1E14), key, host "utm", empty generic config.
    body=$(printf '%064d%032d01' 0 0)"$(node "$a1")0100000F141E$(printf '%032d' 0)75746D$(printf '%058d' 0)00000000"
    record="0100000001046F000000$body"
    say a1 "08:11>01#$record"
    expect_line gate-a "add MANet peer on iface 1: $utm / 0xFF / utm:$MANET_PORT / UNKNOWN INET ADDR"
    expect_line gate-a "Resolver: Trying to resolve utm:$MANET_PORT"
    expect_line gate-a "MANet peer on iface 1 retrieved addrinfo 'utm:$MANET_PORT': '10.77.0.9:$MANET_PORT'" $RESOLVE_WAIT_S
    packet=$(manet "$a1" "$utm" 07 00 CAFE)
    say a1 "0A:11>01#$packet"
    expect_line gate-a "forw MANet packet to iface 1: $a1 / 0x11 / 127.0.0.2:7002 -> $utm / 0xFF / 10.77.0.9:$MANET_PORT"
    expect_frame utm "0A:11>FF#$packet"
    # The same device_config again only refreshes the link.
    say a1 "08:11>01#$record"
    sleep $QUIET_S
    [[ $(grep -c "add MANet peer on iface 1: $utm" "$WORK/gate-a.out") -eq 1 ]] || fail "UTM peer added twice"
}

# c drops off the segment for a while: a and b go on, nothing crashes, and
# traffic to and from c resumes once it is back.
scenario_unreachable() {
    local a1 b3 c2 to_c from_c to_b from_b
    a1=$(node_of a1) b3=$(node_of b3) c2=$(node_of c2)
    to_c=$(manet "$a1" "$c2" 01 00 0C0C) from_c=$(manet "$c2" "$a1" 02 00 0A0A)
    to_b=$(manet "$a1" "$b3" 03 00 D0D0) from_b=$(manet "$b3" "$a1" 04 00 B0B0)
    say c2 "0A:32>03#$from_c"
    # A "udpserial" device keeps the sender's socket address but not its text.
    expect_line gate-c "add MANet peer on iface 3: $c2 / 0x32 / :"
    expect_frame a1 "0A:32>11#$from_c"
    ip -n "$(ns c)" link set eth0 down || fail "cannot take c's link down"
    say a1 "0A:11>01#$to_c"
    expect_line gate-a "forw MANet packet to iface 1: $a1 / 0x11 / 127.0.0.2:7002 -> $c2 / 0x03 / 10.77.0.3:$MANET_PORT"
    say c2 "0A:32>03#$from_c"
    say b3 "0A:23>02#$from_b"
    expect_frame a1 "0A:23>11#$from_b"
    say a1 "0A:11>01#$to_b"
    expect_frame b3 "0A:11>23#$to_b"
    expect_none "0A:11>32#$to_c" c2
    [[ $(frames_of a1 "0A:32>11#$from_c") -eq 1 ]] || fail "a1 heard c2 while c was away"
    expect_alive a b c
    ip -n "$(ns c)" link set eth0 up || fail "cannot bring c's link back"
    to_c=$(manet "$a1" "$c2" 01 01 0C0D) from_c=$(manet "$c2" "$a1" 02 01 0A0B)
    say c2 "0A:32>03#$from_c"
    expect_frame a1 "0A:32>11#$from_c"
    say a1 "0A:11>01#$to_c"
    expect_frame c2 "0A:11>32#$to_c"
    expect_line gate-c "forw MANet packet to iface 3: $a1 / 0x11 / 10.77.0.1:$MANET_PORT -> $c2 / 0x32 / :"
    expect_alive a b c
}

# A MANet link learned on a local interface goes after 10 s of silence, and
# traffic for it is then refused; configured links on the MANet interface stay.
scenario_ageing() {
    local a3 b1 said_ms before after
    a3=$(node_of a3) b1=$(node_of b1)
    before=$(manet "$b1" "$a3" 00 00 01) after=$(manet "$b1" "$a3" 00 00 02)
    # Taken before the link is learned, so that it bounds its age from below.
    said_ms=$(now_ms)
    say a3 "0A:13>01#$(manet "$a3" "$b1" 00 00 00)"
    expect_line gate-a "add MANet peer on iface 4: $a3 / 0x13"
    say b1 "0A:21>02#$before"
    expect_frame a3 "0A:21>13#$before"
    wait_until 17 has_match gate-a "Remove MANet peer on iface 4, last seen [0-9]+: $a3 / 0x13" ||
        fail "a3's link on iface 4 was not removed"
    local age_ms=$(($(now_ms) - said_ms))
    ((age_ms >= 10000)) || fail "a3's link removed after $age_ms ms, before 10 s"
    say b1 "0A:21>02#$after"
    expect_line gate-a "recv MANet frame on iface 1: $b1 / 0x21 / 10.77.0.2:$MANET_PORT -> $a3 / 0x01, size=11"
    expect_none "0A:21>13#$after" a3
    expect_no_match gate-a "Remove MANet peer on iface 1"
}

# A broadcast from a1 reaches a2 and a3 once each, not a1 itself, and no
# device behind another gateway.
scenario_broadcast() {
    local frame=07:11\>FF#B0B0CAFE
    say a2 "07:12>11#0102"
    expect_frame a1 "07:12>11#0102"
    say a3 "07:13>11#0103"
    expect_frame a1 "07:13>11#0103"
    say a1 "$frame"
    expect_frame a2 "$frame"
    expect_frame a3 "$frame"
    expect_none "$frame" a1 b1 b2 b3 c1 c2 c3 utm
    expect_line gate-a "forw frame to iface 3: 0x11 -> 0xFF / :, proto_id 7"
    expect_line gate-a "forw frame to iface 4: 0x11 -> 0xFF, proto_id 7"
    [[ $(grep -c "^forw frame to iface [0-9]*: 0x11 -> 0xFF" "$WORK/gate-a.out") -eq 2 ]] || fail "a forwarded the broadcast more than twice"
    expect_no_match gate-b "proto_id 7$"
    expect_no_match gate-c "proto_id 7$"
}

# At the end every gateway still runs and none printed an error.
scenario_all_alive_without_errors() {
    expect_alive "${GATEWAYS[@]}"
    local g; for g in "${GATEWAYS[@]}"; do expect_no_match "gate-$g" "^ERROR|^Resolver: (ERROR|WARN)"; done
}

# --- run ----------------------------------------------------------------------

passed=0 failed=0
run() {
    local name=$1 started=$SECONDS
    (set -e; "scenario_$name")
    if [[ $? -eq 0 ]]; then passed=$((passed + 1)); echo "PASS $name ($((SECONDS - started)) s)"
    else failed=$((failed + 1)); echo "FAIL $name ($((SECONDS - started)) s)"; fi
}

for tool in gate gatecat mesh-null-modem; do
    [[ -x $BIN/$tool ]] || { echo "mesh: $BIN/$tool missing; build first"; exit 1; }
done
if ! build_mesh || ! start_everything; then
    echo "mesh: could not set up the mesh"
    exit 1
fi
run peers_resolve
run manet_across
run device_config
run unreachable
run ageing
run broadcast
run all_alive_without_errors
FAILED=$failed
echo "$passed passed, $failed failed"
((failed == 0))
