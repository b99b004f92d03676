#!/usr/bin/env bash
# Scenarios for a mesh of gateways, end to end and the way they are deployed.
# Gateways a, b, c and a UTM server each get a network namespace, joined by
# veth pairs on a bridge in one more; nothing is sent outside them. Gateway g:
#   iface 1  "manet", udp://10.77.0.g:7700; the nodes behind the other gateways
#            are MANet peers by host name ("gw-b:7700"), resolved by the hosts
#            file /etc/netns/NS/hosts that `ip netns exec` mounts over /etc/hosts
#   iface 2  udp://127.0.0.1:6002        device g1, gatecat on 127.0.0.2:7002
#   iface 3  udpserial://127.0.0.1:6003  device g2, gatecat on 127.0.0.2:7003
#   iface 4  serial over a pseudo-terminal pair (mesh-null-modem), device g3
# A device is a `gatecat dump` plus `gatecat send` from the same end; device k
# behind g has address 0xgk and MANet node 0x0A0000gk. The UTM server is a dump
# on udp://10.77.0.9:7700.
# Usage: run-mesh.sh [BUILD_DIR], as root (re-runs itself through sudo). Prints a
# line per scenario and "N passed, N failed"; status 1 when any failed.
set -uo pipefail

[[ $(id -u) -eq 0 ]] || exec sudo -- "$0" "$@"

BIN=$(cd "${1:-$(dirname "$0")/../../build}" && pwd)/bin
RUN=mesh$$
WORK=$(mktemp -d "/tmp/$RUN.XXXX")
WAIT_S=5          # longest wait for an expected frame or log line
RESOLVE_WAIT_S=8  # a finished lookup wakes the gateway at once; slack for a loaded machine
QUIET_S=0.5       # how long "nothing more arrives" is watched for
MANET_PORT=7700
GATEWAYS=(a b c)
declare -A NUM=([a]=1 [b]=2 [c]=3 [utm]=9) OTHERS=([a]="b c" [b]="a c" [c]="a b") PTY=() PIDS=()
[[ -d /etc/netns ]] && MADE_ETC_NETNS=0 || MADE_ETC_NETNS=1

ns() { echo "$RUN-$1"; }
ipn() { ip -n "$(ns "$1")" "${@:2}"; }  # ipn HOST ip-command...

cleanup() {
    local pid host
    for pid in "${PIDS[@]}"; do kill -TERM "$pid" 2>/dev/null; done
    for pid in "${PIDS[@]}"; do wait_until 2 eval "! kill -0 $pid 2>/dev/null" || kill -KILL "$pid" 2>/dev/null; done
    for host in "${GATEWAYS[@]}" utm seg; do ip netns del "$(ns "$host")" 2>/dev/null; rm -rf "/etc/netns/$(ns "$host")"; done
    ((MADE_ETC_NETNS)) && rmdir /etc/netns 2>/dev/null
    # Cut short (a signal, or set-up failed): still close with the count.
    [[ -n ${FAILED:-} ]] || echo "${passed:-0} passed, $((${failed:-0} + 1)) failed (run cut short)"
    if [[ ${FAILED:-1} -eq 0 ]]; then rm -rf "$WORK"; else echo "mesh: logs kept in $WORK"; fi
}
trap cleanup EXIT; trap 'exit 143' TERM INT

# start NAME HOST CMD...: CMD in HOST's namespace in the background, output in
# $WORK/NAME.out and .err; $! is CMD itself (ip execs it), for cleanup by pid.
start() { ip netns exec "$(ns "$2")" "${@:3}" >"$WORK/$1.out" 2>"$WORK/$1.err" & PIDS[$1]=$!; }

fail() { echo "  FAIL: $*"; return 1; }

wait_until() {  # SECONDS CMD...: true as soon as CMD succeeds, false at the deadline
    local deadline=$((SECONDS + ${1%.*} + 1)); shift
    until "$@"; do ((SECONDS < deadline)) || return 1; sleep 0.1; done
}

# Log lines of a gateway: exactly as printed, or matching an extended regex.
expect_line() { wait_until "${3:-$WAIT_S}" grep -qFx -- "$2" "$WORK/$1.out" || fail "$1 did not print: $2"; }
count_matches() { grep -cE -- "$2" "$WORK/$1.out"; }
expect_no_match() { ! grep -qE -- "$2" "$WORK/$1.out" || fail "$1 printed: $(grep -m1 -E -- "$2" "$WORK/$1.out")"; }

# Frames as received by a device: the second field of its dump lines.
frames_of() { awk -v f="$2" '$2 == f { n++ } END { print n + 0 }' "$WORK/dev-$1.out"; }
# expect_times N FRAME DEV...: once quiet, each device received FRAME N times.
expect_times() {
    local dev n; sleep $QUIET_S
    for dev in "${@:3}"; do n=$(frames_of "$dev" "$2"); ((n == $1)) || fail "device $dev received $2 $n times, not $1"; done
}
expect_frame() {  # DEV FRAME: arrives, and exactly once
    wait_until $WAIT_S grep -qF ") $2 " "$WORK/dev-$1.out" || fail "device $1 did not receive $2"; expect_times 1 "$2" "$1"
}
expect_alive() { local g; for g in "$@"; do kill -0 "${PIDS[gate-$g]}" 2>/dev/null || fail "gate $g is gone"; done; }

dev_iface() {  # DEV [send]: the interface gatecat opens for device DEV (a1..c3)
    case ${1:1:1} in
        1) echo "udp://127.0.0.2:7002${2:+:127.0.0.1:6002}" ;;
        2) echo "udpserial://127.0.0.2:7003${2:+:127.0.0.1:6003}" ;;
        3) echo "serial://${PTY[${1:0:1}]#* }:115200" ;;
    esac
}
addr_of() { echo "${NUM[${1:0:1}]}${1:1:1}"; }
say() {  # DEV FRAME...: the device sends frames to its gateway
    ip netns exec "$(ns "${1:0:1}")" "$BIN/gatecat" send "$(dev_iface "$1" send)" "${@:2}" >/dev/null 2>&1 ||
        fail "device $1 could not send ${*:2}"
}
# MANet payload: header (src_addr, dst_addr, kind, flag) and data, in hex.
node() { local h=${1#0x}; echo "${h:6:2}${h:4:2}${h:2:2}${h:0:2}"; }
manet() { echo "$(node "$1")$(node "$2")$3$4$5"; }
# send_manet FROM TO KIND FLAG DATA: device FROM sends a MANet packet for TO;
# $SENT is the frame TO receives: all bytes kept, dst rewritten to TO's address.
send_manet() {
    local payload; payload=$(manet "0x0A0000$(addr_of "$1")" "0x0A0000$(addr_of "$2")" "$3" "$4" "$5")
    say "$1" "0A:$(addr_of "$1")>0${NUM[${1:0:1}]}#$payload"
    SENT="0A:$(addr_of "$1")>$(addr_of "$2")#$payload"
}
deliver() { send_manet "$@"; expect_frame "$2" "$SENT"; }

config() {  # GATEWAY
    local g=$1 h k peers=""
    for h in ${OTHERS[$g]}; do for k in 1 2 3; do
        peers+="${peers:+, }{\"manet_addr\": \"0x0A0000${NUM[$h]}$k\", \"netdev_addr\": \"0x0${NUM[$h]}\", \"iface_id\": 1, \"inet_addr\": \"gw-$h:$MANET_PORT\"}"
    done; done
    cat <<EOT
{"ifaces": [{"iface": "udp://10.77.0.${NUM[$g]}:$MANET_PORT", "id": 1, "type": "manet"},
    {"iface": "udp://127.0.0.1:6002", "id": 2}, {"iface": "udpserial://127.0.0.1:6003", "id": 3},
    {"iface": "serial://${PTY[$g]% *}:115200", "id": 4}],
 "manet_peers": [$peers]}
EOT
}

build_mesh() {
    local h
    ip netns add "$(ns seg)" && ipn seg link add br0 type bridge && ipn seg link set br0 up || return 1
    for h in "${GATEWAYS[@]}" utm; do
        mkdir -p "/etc/netns/$(ns "$h")"
        printf '127.0.0.1 localhost\n10.77.0.1 gw-a\n10.77.0.2 gw-b\n10.77.0.3 gw-c\n10.77.0.9 utm\n' >"/etc/netns/$(ns "$h")/hosts"
        # Name look-ups stay inside: no name server outside the namespace.
        : >"/etc/netns/$(ns "$h")/resolv.conf"
        ip netns add "$(ns "$h")" && ipn "$h" link set lo up && ipn seg link add "p-$h" type veth peer name eth0 netns "$(ns "$h")" &&
            ipn seg link set "p-$h" master br0 up && ipn "$h" addr add "10.77.0.${NUM[$h]}/24" dev eth0 && ipn "$h" link set eth0 up || return 1
    done
}

start_everything() {
    local g dev
    for g in "${GATEWAYS[@]}"; do
        start "modem-$g" "$g" "$BIN/mesh-null-modem"
        wait_until 3 test -s "$WORK/modem-$g.out" || fail "no pseudo-terminals for $g" || return 1
        PTY[$g]=$(<"$WORK/modem-$g.out")
        config "$g" >"$WORK/gate-$g.json"
        for dev in "$g"1 "$g"2 "$g"3; do start "dev-$dev" "$g" "$BIN/gatecat" dump "$(dev_iface "$dev")"; done
        start "gate-$g" "$g" "$BIN/gate" --config "$WORK/gate-$g.json" --debug 3
    done
    start dev-utm utm "$BIN/gatecat" dump "udp://10.77.0.9:$MANET_PORT"
    for dev in a1 a2 a3 b1 b2 b3 c1 c2 c3 utm; do
        wait_until $WAIT_S grep -q "listening" "$WORK/dev-$dev.err" || fail "device $dev did not start" || return 1
    done
}

# Every gateway resolves the names of its configured peers by its own hosts file.
scenario_peers_resolve() {
    local g h
    for g in "${GATEWAYS[@]}"; do
        for h in ${OTHERS[$g]}; do
            expect_line "gate-$g" "MANet peer on iface 1 retrieved addrinfo 'gw-$h:$MANET_PORT': '10.77.0.${NUM[$h]}:$MANET_PORT'" $RESOLVE_WAIT_S
        done
        (($(count_matches "gate-$g" "retrieved addrinfo") == 6)) || fail "gate $g: not 6 resolved peers"
    done
}

# A MANet packet crosses from a device behind a to one behind b, and back;
# the link-level dst is the next hop's address at each hop.
scenario_manet_across() {
    local a1=0x0A000011 b3=0x0A000023
    # b has not heard of b3 yet: dropped there with a warning.
    send_manet a1 b3 05 01 C0FFEE
    expect_line gate-a "forw MANet packet to iface 1: $a1 / 0x11 / 127.0.0.2:7002 -> $b3 / 0x02 / 10.77.0.2:$MANET_PORT"
    expect_line gate-b "recv MANet frame on iface 1: $a1 / 0x11 / 10.77.0.1:$MANET_PORT -> $b3 / 0x02, size=13"
    expect_line gate-b "WARNING: MANet peer not found for: $a1 / 0x11 / 10.77.0.1:$MANET_PORT -> $b3 / 0x02"
    expect_times 0 "$SENT" b3
    # b3 speaks first, so b learns where it lives; a1 hears it...
    send_manet b3 a1 06 00 BEEF
    expect_line gate-b "add MANet peer on iface 4: $b3 / 0x23"
    expect_frame a1 "$SENT"
    # ...and now a1's packet reaches it, and no one else.
    deliver a1 b3 05 01 C0FFEE
    expect_line gate-b "forw MANet packet to iface 4: $a1 / 0x11 / 10.77.0.1:$MANET_PORT -> $b3 / 0x23"
    expect_times 0 "${SENT/>23#/>33#}" c3
    # The reply finds a1 where a learned it.
    deliver b3 a1 06 FF 5EED0000
    expect_line gate-a "forw MANet packet to iface 2: $b3 / 0x23 / 10.77.0.2:$MANET_PORT -> $a1 / 0x11 / 127.0.0.2:7002"
}

# A device_config from a1 names the UTM server by host name: a adds it as a
# MANet peer behind the link broadcast address, resolves it, and forwards to it.
scenario_device_config() {
    local a1=0x0A000011 utm=0x0F000001 body record packet
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
    (($(count_matches gate-a "add MANet peer on iface 1: $utm") == 1)) || fail "UTM peer added twice"
}

# c drops off the segment for a while: a and b go on, nothing crashes, and
# traffic to and from c resumes once it is back.
scenario_unreachable() {
    local a1=0x0A000011 c2=0x0A000032 heard
    deliver c2 a1 02 00 0A0A
    heard=$SENT
    expect_line gate-c "add MANet peer on iface 3: $c2 / 0x32 / 127.0.0.2:7003"
    ipn c link set eth0 down || fail "cannot take c's link down"
    send_manet a1 c2 01 00 0C0C
    expect_line gate-a "forw MANet packet to iface 1: $a1 / 0x11 / 127.0.0.2:7002 -> $c2 / 0x03 / 10.77.0.3:$MANET_PORT"
    expect_times 0 "$SENT" c2
    send_manet c2 a1 02 00 0A0A
    deliver b3 a1 04 00 B0B0
    deliver a1 b3 03 00 D0D0
    expect_times 1 "$heard" a1  # not again while c was away
    expect_alive a b c
    ipn c link set eth0 up || fail "cannot bring c's link back"
    deliver c2 a1 02 01 0A0B
    deliver a1 c2 01 01 0C0D
    expect_line gate-c "forw MANet packet to iface 3: $a1 / 0x11 / 10.77.0.1:$MANET_PORT -> $c2 / 0x32 / 127.0.0.2:7003"
    expect_alive a b c
}

# A MANet link learned on a local interface goes after 10 s of silence, and
# traffic for it is then refused; configured links on the MANet interface stay.
scenario_ageing() {
    # Taken before the link is learned, so that it bounds its age from below.
    local a3=0x0A000013 b1=0x0A000021 said_us=${EPOCHREALTIME/./} age_ms
    send_manet a3 b1 00 00 00
    expect_line gate-a "add MANet peer on iface 4: $a3 / 0x13"
    deliver b1 a3 00 00 01
    wait_until 17 grep -qEx "Remove MANet peer on iface 4, last seen [0-9]+: $a3 / 0x13" "$WORK/gate-a.out" ||
        fail "a3's link on iface 4 was not removed"
    age_ms=$(((${EPOCHREALTIME/./} - said_us) / 1000))
    ((age_ms >= 10000)) || fail "a3's link removed after $age_ms ms, before 10 s"
    send_manet b1 a3 00 00 02
    expect_line gate-a "recv MANet frame on iface 1: $b1 / 0x21 / 10.77.0.2:$MANET_PORT -> $a3 / 0x01, size=11"
    expect_times 0 "$SENT" a3
    expect_no_match gate-a "Remove MANet peer on iface 1"
}

# A broadcast from a1, once a knows a2 and a3, reaches them once each, not a1
# itself, and no device behind another gateway.
scenario_broadcast() {
    local frame=07:11\>FF#B0B0CAFE
    say a2 "07:12>11#0102"; expect_frame a1 "07:12>11#0102"
    say a3 "07:13>11#0103"; expect_frame a1 "07:13>11#0103"
    say a1 "$frame"
    expect_frame a2 "$frame"
    expect_frame a3 "$frame"
    expect_times 0 "$frame" a1 b1 b2 b3 c1 c2 c3 utm
    expect_line gate-a "forw frame to iface 3: 0x11 -> 0xFF / 127.0.0.2:7003, proto_id 7"
    expect_line gate-a "forw frame to iface 4: 0x11 -> 0xFF, proto_id 7"
    (($(count_matches gate-a "^forw frame to iface [0-9]*: 0x11 -> 0xFF") == 2)) || fail "a forwarded the broadcast more than twice"
    expect_no_match gate-b "proto_id 7$"
    expect_no_match gate-c "proto_id 7$"
}

# At the end every gateway still runs and none printed an error.
scenario_all_alive_without_errors() {
    expect_alive "${GATEWAYS[@]}"
    local g; for g in "${GATEWAYS[@]}"; do expect_no_match "gate-$g" "^ERROR|^Resolver: (ERROR|WARN)"; done
}

passed=0 failed=0
run() {  # the scenario's subshell must not be part of a && list, which would switch its -e off
    local started=$SECONDS result=PASS
    (set -e; "scenario_$1")
    if [[ $? -eq 0 ]]; then passed=$((passed + 1)); else failed=$((failed + 1)) result=FAIL; fi
    echo "$result $1 ($((SECONDS - started)) s)"
}

for tool in gate gatecat mesh-null-modem; do [[ -x $BIN/$tool ]] || { echo "mesh: $BIN/$tool missing; build first"; exit 1; }; done
{ build_mesh && start_everything; } || { echo "mesh: could not set up the mesh"; exit 1; }
for s in peers_resolve manet_across device_config unreachable ageing broadcast all_alive_without_errors; do run "$s"; done
FAILED=$failed
echo "$passed passed, $failed failed"
((failed == 0))
