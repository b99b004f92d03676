#!/usr/bin/env bash
# A fleet of twelve gateways over a routed mesh, watched by gate-exporter and
# a Prometheus server. Nothing is sent outside the namespaces made here,
# except the exporter and Prometheus talking on 127.0.0.1.
#
# Mesh: namespaces n1..n12 in a 4x3 grid (node i at row (i-1)/3, column
# (i-1)%3), each joined to its right and lower neighbours by a veth pair: 17
# links, 5 hops corner to corner. Each node has 10.99.0.i/32 on lo and runs
# babeld, which routes between those addresses. One more namespace, "dns",
# hangs off n5 with 10.99.0.100, where the name server answers gw-i.
# Gateway i: iface 1 "manet" udp://10.99.0.i:7700, iface 2 udp://127.0.0.1:6001
# for its devices; the devices behind every other gateway are MANet peers by
# host name (gw-j:7700); its own devices are learned as they speak.
# Devices: fleet-device, DEVICES of them on 127.0.0.1:6101.., each sending
# RATE MANet packets a second to the devices behind the other gateways in turn.
#
# Phases (their lengths are shares of FLEET_SECONDS of traffic):
#   steady     nothing happens
#   link-cut   the first hop of n1's route to n12 goes down; babeld routes around
#   gw-kill    gateway 7 is killed, and started again after a while
#   isolate    node 8 loses all its links, and gets them back after a while
#   after      nothing happens
# Measured per phase: frames delivered against sent, the time from the fault
# (or its repair) to the last frame lost, the gateways' CPU and memory. At
# the end the frames each gateway sent to its devices, asked of Prometheus,
# must equal what the devices received.
# Usage: run-fleet.sh [BUILD_DIR], as root (re-runs itself through sudo).
set -uo pipefail

[[ $(id -u) -eq 0 ]] || exec sudo -- "$0" "$@"

SRC=$(cd "$(dirname "$0")/../.." && pwd)
BIN=$(cd "${1:-$SRC/build}" && pwd)/bin
RUN=fleet$$
WORK=$(mktemp -d "/tmp/$RUN.XXXX")
FLEET_SECONDS=${FLEET_SECONDS:-80}
GATEWAYS=12 COLUMNS_=3 DEVICES=${FLEET_DEVICES:-2} RATE=${FLEET_RATE:-10}
MANET_PORT=7700 GATE_PORT=6001 DEVICE_BASE=6100
KILLED=7 ISOLATED=8
SETUP_WAIT_S=60
declare -A PIDS=() STARTED_MS=()
[[ -d /etc/netns ]] && MADE_ETC_NETNS=0 || MADE_ETC_NETNS=1

ns() { echo "$RUN-$1"; }
nodes() { seq 1 $GATEWAYS; }
now_ms() { echo $((${EPOCHREALTIME/./} / 1000)); }
say() { echo "fleet: $*"; }

cleanup() {
    local name pid node
    for name in "${!PIDS[@]}"; do kill -TERM "${PIDS[$name]}" 2>/dev/null; done
    for name in "${!PIDS[@]}"; do
        pid=${PIDS[$name]}
        wait_until 3 eval "! kill -0 $pid 2>/dev/null" || kill -KILL "$pid" 2>/dev/null
    done
    for node in $(nodes) dns; do ip netns del "$(ns "$node")" 2>/dev/null; rm -rf "/etc/netns/$(ns "$node")"; done
    ((MADE_ETC_NETNS)) && rmdir /etc/netns 2>/dev/null
    if [[ ${RESULT:-1} -eq 0 ]]; then rm -rf "$WORK"; else say "FAILED; logs kept in $WORK"; fi
}
trap cleanup EXIT
trap 'exit 143' TERM INT

wait_until() {  # SECONDS CMD...: true as soon as CMD succeeds, false at the deadline
    local deadline=$((SECONDS + ${1%.*} + 1))
    shift
    until "$@"; do ((SECONDS < deadline)) || return 1; sleep 0.2; done
}

# start NAME NODE CMD...: CMD in NODE's namespace ("" for this one) in the
# background, output in $WORK/NAME.out and .err; remembered by pid.
start() {
    if [[ -n $2 ]]; then
        ip netns exec "$(ns "$2")" "${@:3}" >"$WORK/$1.out" 2>"$WORK/$1.err" &
    else
        "${@:3}" >"$WORK/$1.out" 2>"$WORK/$1.err" &
    fi
    PIDS[$1]=$!
}
stop() {  # NAME: ends it by its pid and forgets it
    local pid=${PIDS[$1]}
    kill -TERM "$pid" 2>/dev/null
    wait_until 3 eval "! kill -0 $pid 2>/dev/null" || kill -KILL "$pid" 2>/dev/null
    wait "$pid" 2>/dev/null
    unset "PIDS[$1]"
}

row() { echo $((($1 - 1) / COLUMNS_)); }
col() { echo $((($1 - 1) % COLUMNS_)); }
hops() {  # A B: grid distance, the length of a shortest path
    local dr=$(($(row "$1") - $(row "$2"))) dc=$(($(col "$1") - $(col "$2")))
    echo $((${dr#-} + ${dc#-}))
}
links() {  # every link as "A B"
    local i
    for i in $(nodes); do
        (($(col "$i") < COLUMNS_ - 1)) && echo "$i $((i + 1))"
        ((i + COLUMNS_ <= GATEWAYS)) && echo "$i $((i + COLUMNS_))"
    done
    echo "5 dns"
}
node_addr() { [[ $1 == dns ]] && echo 10.99.0.100 || echo "10.99.0.$1"; }

build_mesh() {
    local node a b
    for node in $(nodes) dns; do
        mkdir -p "/etc/netns/$(ns "$node")"
        # Names come from the fleet's name server only.
        printf '127.0.0.1 localhost\n' >"/etc/netns/$(ns "$node")/hosts"
        printf 'nameserver 10.99.0.100\noptions timeout:1 attempts:3\n' >"/etc/netns/$(ns "$node")/resolv.conf"
        ip netns add "$(ns "$node")" || return 1
        ip -n "$(ns "$node")" link set lo up
        ip -n "$(ns "$node")" addr add "$(node_addr "$node")/32" dev lo
        ip netns exec "$(ns "$node")" sysctl -q -w net.ipv4.ip_forward=1 net.ipv6.conf.all.forwarding=1 \
            net.ipv4.conf.all.rp_filter=0 net.ipv4.conf.default.rp_filter=0 || return 1
    done
    while read -r a b; do
        ip link add "v$a-$b" netns "$(ns "$a")" type veth peer name "v$b-$a" netns "$(ns "$b")" || return 1
        ip -n "$(ns "$a")" link set "v$a-$b" up && ip -n "$(ns "$b")" link set "v$b-$a" up || return 1
    done < <(links)
    printf 'redistribute local ip 10.99.0.0/16 allow\nredistribute local deny\ndefault hello-interval 0.5\n' \
        >"$WORK/babel.conf"
    for node in $(nodes) dns; do
        start "babel-$node" "$node" babeld -I "$WORK/babel-$node.pid" -S "$WORK/babel-$node.state" \
            -c "$WORK/babel.conf" $(ip -n "$(ns "$node")" -o link show type veth | awk -F'[:@ ]+' '{print $2}')
    done
}

# Every node has a babel route to every other node's address.
routed() {
    local node
    for node in $(nodes) dns; do
        (($(ip -n "$(ns "$node")" route show proto babel | grep -c '^10\.99\.0\.') >= GATEWAYS)) || return 1
    done
}

gate_config() {  # GATEWAY
    local g=$1 j k peers=""
    for j in $(nodes); do
        for k in $(seq 1 "$DEVICES"); do
            ((j == g)) && continue
            peers+="${peers:+, }{\"manet_addr\": \"$(printf '0x0B00%02X%02X' "$j" "$k")\", \"netdev_addr\": \"$(printf '0x%02X' "$j")\", \"iface_id\": 1, \"inet_addr\": \"gw-$j:$MANET_PORT\"}"
        done
    done
    cat <<EOT
{"ifaces": [{"iface": "udp://10.99.0.$g:$MANET_PORT", "id": 1, "type": "manet"},
            {"iface": "udp://127.0.0.1:$GATE_PORT", "id": 2}],
 "manet_peers": [$peers],
 "control": {"path": "$WORK/run/gw-$g/control.sock"}}
EOT
}

start_gate() {  # GATEWAY
    rm -f "$WORK/run/gw-$1/control.sock"
    start "gate-$1" "$1" "$BIN/gate" --config "$WORK/gate-$1.json"
    STARTED_MS[$1]=$(now_ms)
}

metrics() { curl -s --max-time 5 "http://127.0.0.1:$EXPORTER_PORT/metrics"; }
# Every gateway answers, with every peer's name resolved.
fleet_ready() {
    local text
    text=$(metrics) || return 1
    (($(grep -c '^gate_up{.*} 1$' <<<"$text") == GATEWAYS)) &&
        (($(grep -c '^gate_resolutions_pending{.*} 0$' <<<"$text") == GATEWAYS))
}
gateway_ready() {  # GATEWAY
    metrics | grep -qx "gate_resolutions_pending{gateway=\"gw-$1\"} 0"
}

promql() {  # QUERY: the instant vector's "label value" lines
    curl -s --max-time 5 --data-urlencode "query=$1" "http://127.0.0.1:$PROM_PORT/api/v1/query" |
        jq -r '.data.result[] | "\(.metric.gateway) \(.value[1])"'
}

free_port() {
    local port
    for port in $(seq $((19000 + $$ % 500)) 19999); do
        ss -Hltn "sport = :$port" | grep -q . || { echo "$port"; return; }
    done
}

start_watchers() {
    local g sockets=()
    for g in $(nodes); do sockets+=("$WORK/run/gw-$g/control.sock"); done
    start exporter "" "$BIN/gate-exporter" --listen 127.0.0.1:0 "${sockets[@]}"
    wait_until 10 grep -q "listening on" "$WORK/exporter.err" || return 1
    EXPORTER_PORT=$(sed -n 's/.*, port \([0-9]*\)$/\1/p' "$WORK/exporter.err")
    PROM_PORT=$(free_port)
    cat >"$WORK/prometheus.yml" <<EOT
global: {scrape_interval: 1s, scrape_timeout: 1s, evaluation_interval: 1s}
rule_files: ["$SRC/packaging/prometheus/gate.rules.yml"]
scrape_configs:
  - job_name: gate
    static_configs: [{targets: ["127.0.0.1:$EXPORTER_PORT"]}]
EOT
    start prometheus "" prometheus --config.file="$WORK/prometheus.yml" --storage.tsdb.path="$WORK/tsdb" \
        --web.listen-address="127.0.0.1:$PROM_PORT" --log.level=warn
    wait_until 20 curl -sf "http://127.0.0.1:$PROM_PORT/-/ready" -o /dev/null
}

# CPU ticks and resident memory of every gateway, one line per gateway.
sample_gates() {  # FILE
    local g pid
    for g in $(nodes); do
        pid=${PIDS[gate-$g]:-}
        [[ -n $pid && -r /proc/$pid/stat ]] || continue
        echo "$g $pid $(awk '{print $14 + $15}' "/proc/$pid/stat") $(awk '/^VmRSS/ {print $2}' "/proc/$pid/status")"
    done >"$1"
}

PHASES=()
declare -A PHASE_START=() PHASE_END=() FAULT_MS=() REPAIR_MS=() PHASE_CPU=()
begin_phase() { PHASES+=("$1"); PHASE_START[$1]=$(now_ms); sample_gates "$WORK/cpu-$1.begin"; }
end_phase() {
    PHASE_END[$1]=$(now_ms)
    sample_gates "$WORK/cpu-$1.end"
    # Mean and highest CPU share of a gateway over the phase, highest RSS.
    # A gateway started again during the phase counts from its new start.
    PHASE_CPU[$1]=$(awk -v ms=$((PHASE_END[$1] - PHASE_START[$1])) -v hz="$(getconf CLK_TCK)" '
        NR == FNR { pid[$1] = $2; ticks[$1] = $3; next }
        { c = 100 * ($3 - ($2 == pid[$1] ? ticks[$1] : 0)) / hz / (ms / 1000); s += c; n++; if (c > m) m = c
          if ($4 > r) r = $4 }
        END { printf "gateways: CPU mean %.1f%%, max %.1f%%; RSS max %d KiB", s / n, m, r }' \
        "$WORK/cpu-$1.begin" "$WORK/cpu-$1.end")
}
phase_s() { awk -v t="$FLEET_SECONDS" -v f="$1" 'BEGIN { printf "%.1f", t * f }'; }

# The first hop of n1's route to n12: a link that carries traffic now.
active_link() {
    local dev
    dev=$(ip -n "$(ns 1)" route get 10.99.0.12 | sed -n 's/.* dev \(v1-[0-9]*\) .*/\1/p')
    echo "1 ${dev#v1-}"
}
set_link() {  # A B up|down
    ip -n "$(ns "$1")" link set "v$1-$2" "$3" && ip -n "$(ns "$2")" link set "v$2-$1" "$3"
}
set_node_links() {  # NODE up|down
    local a b
    while read -r a b; do
        [[ $a == "$1" || $b == "$1" ]] && set_link "$a" "$b" "$2"
    done < <(links)
}

run_phases() {
    local link
    begin_phase steady
    sleep "$(phase_s 0.15)"
    end_phase steady

    link=$(active_link)
    [[ $link != "1 " ]] || { say "no route from n1 to n12"; return 1; }
    say "cutting link n${link/ /-n}, on n1's route to n12"
    begin_phase link-cut
    FAULT_MS[link-cut]=$(now_ms)
    set_link $link down
    sleep "$(phase_s 0.2)"
    end_phase link-cut
    set_link $link up

    begin_phase gw-kill
    FAULT_MS[gw-kill]=$(now_ms)
    kill -KILL "${PIDS[gate-$KILLED]}"
    wait "${PIDS[gate-$KILLED]}" 2>/dev/null
    unset "PIDS[gate-$KILLED]"
    sleep "$(phase_s 0.06)"
    start_gate "$KILLED"
    REPAIR_MS[gw-kill]=${STARTED_MS[$KILLED]}
    sleep "$(phase_s 0.14)"
    end_phase gw-kill

    begin_phase isolate
    FAULT_MS[isolate]=$(now_ms)
    set_node_links "$ISOLATED" down
    sleep "$(phase_s 0.1)"
    set_node_links "$ISOLATED" up
    REPAIR_MS[isolate]=$(now_ms)
    sleep "$(phase_s 0.15)"
    end_phase isolate

    begin_phase after
    sleep "$(phase_s 0.2)"
    end_phase after
}

# Per phase: sent, delivered, and the last lost frame's send time.
# Input: the devices' logs; a frame is (src, seq), sent once, received 0+ times.
account() {
    local phase
    for phase in "${PHASES[@]}"; do echo "P $phase ${PHASE_START[$phase]} ${PHASE_END[$phase]}"; done >"$WORK/phases"
    cat "$WORK"/devices-*.log | awk -v cols=$COLUMNS_ '
        NR == FNR { name[++n] = $2; from[n] = $3; to[n] = $4; next }
        function gw(node) { return 16 * (index("0123456789ABCDEF", substr(node, 5, 1)) - 1) + \
            index("0123456789ABCDEF", substr(node, 6, 1)) - 1 }
        function grid(a, b,   dr, dc) { dr = int((a - 1) / cols) - int((b - 1) / cols); dc = (a - 1) % cols - (b - 1) % cols
            return (dr < 0 ? -dr : dr) + (dc < 0 ? -dc : dc) }
        $1 == "S" { key = $3 " " $5; sent[key] = $2; far[key] = grid(gw($3), gw($4)) >= 3 }
        $1 == "R" { got[$3 " " $5]++ }
        END {
            for (key in sent) {
                for (p = 1; p <= n; p++) if (sent[key] >= from[p] && sent[key] < to[p]) break
                if (p > n) continue
                s[p]++; if (far[key]) f[p]++
                if (key in got) { d[p]++; if (got[key] > 1) dup[p] += got[key] - 1; if (far[key]) fd[p]++ }
                else if (sent[key] > last[p]) last[p] = sent[key]
            }
            for (p = 1; p <= n; p++) printf "%s %d %d %d %d %d %.0f\n", name[p], s[p], d[p], f[p], fd[p], dup[p], last[p]
        }' "$WORK/phases" - >"$WORK/account"
}

report_and_judge() {
    local phase sent got far far_got dup last ok=0 since ratio recovery
    printf '%-9s %7s %9s %8s %14s  %s\n' phase sent delivered ratio "3+ hops" "recovery"
    while read -r phase sent got far far_got dup last; do
        ratio=$(awk -v d="$got" -v s="$sent" 'BEGIN { printf "%.2f%%", s ? 100 * d / s : 0 }')
        if ((last == 0)); then
            recovery="nothing lost"
        elif [[ -n ${REPAIR_MS[$phase]:-} ]]; then
            since=${REPAIR_MS[$phase]}
            recovery="last loss $((last - FAULT_MS[$phase])) ms after the fault, $((last - since)) ms after the repair"
        elif [[ -n ${FAULT_MS[$phase]:-} ]]; then
            recovery="last loss $((last - FAULT_MS[$phase])) ms after the fault"
        else
            recovery="last loss at +$((last - PHASE_START[$phase])) ms"
        fi
        printf '%-9s %7d %9d %8s %7d/%-6d  %s\n' "$phase" "$sent" "$got" "$ratio" "$far_got" "$far" "$recovery"
        printf '          %s\n' "${PHASE_CPU[$phase]}"
        ((dup == 0)) || { say "$phase: $dup frames delivered twice"; ok=1; }
        ((sent > 0)) || { say "$phase: nothing sent"; ok=1; }
        # Quiet phases lose nothing to speak of; after a fault, delivery is
        # whole again well before the phase ends.
        if [[ -z ${FAULT_MS[$phase]:-} ]]; then
            ((got * 1000 >= sent * 995)) || { say "$phase: delivered $got of $sent"; ok=1; }
        elif ((last != 0 && PHASE_END[$phase] - last < 2000)); then
            say "$phase: still losing frames at the end of the phase"
            ok=1
        fi
    done <"$WORK/account"
    return $ok
}

# What each gateway sent its devices, by Prometheus, against what they got
# (a gateway started again counts from its start).
check_prometheus() {
    local g want have ok=0 tries
    for tries in $(seq 1 20); do
        promql 'gate_frames_sent_total{iface="2"}' | sort >"$WORK/prometheus-sent"
        ok=0
        for g in $(nodes); do
            want=$(awk -v t="${STARTED_MS[$g]}" '$1 == "R" && $2 >= t' "$WORK/devices-$g.log" | wc -l)
            have=$(awk -v g="gw-$g" '$1 == g { print $2 }' "$WORK/prometheus-sent")
            echo "gw-$g $want ${have:-none}"
            [[ $want == "$have" ]] || ok=1
        done >"$WORK/agreement"
        ((ok == 0)) && break
        sleep 0.5
    done
    ((ok == 0)) || say "Prometheus disagrees with the devices:"
    echo "frames each gateway sent to its devices (devices' count, Prometheus):"
    awk '{ printf "  %s %s %s\n", $1, $2, $3 }' "$WORK/agreement"
    say "Prometheus and the devices agree on $(awk '{ s += $2 } END { print s }' "$WORK/agreement") frames" \
        "sent to devices by $GATEWAYS gateways"
    return $ok
}

main() {
    local tool g started=$SECONDS
    for tool in gate gate-exporter fleet-device fleet-dns; do
        [[ -x $BIN/$tool ]] || { say "$BIN/$tool missing; build first"; return 1; }
    done
    for tool in babeld prometheus curl jq; do
        command -v "$tool" >/dev/null || { say "$tool missing (scripts/install-deps installs it)"; return 1; }
    done
    build_mesh || { say "could not build the mesh"; return 1; }
    local names=()
    for g in $(nodes); do names+=("gw-$g=10.99.0.$g"); done
    start dns dns "$BIN/fleet-dns" 10.99.0.100 "${names[@]}"
    start_watchers || { say "exporter or Prometheus did not start"; return 1; }
    wait_until $SETUP_WAIT_S routed || { say "babeld did not route every address"; return 1; }
    say "mesh routed in $((SECONDS - started)) s: $GATEWAYS gateways, $(links | wc -l) links, $(hops 1 12) hops corner to corner"
    for g in $(nodes); do
        mkdir -p "$WORK/run/gw-$g"
        gate_config "$g" >"$WORK/gate-$g.json"
        start_gate "$g"
    done
    wait_until $SETUP_WAIT_S fleet_ready || { say "gateways did not resolve their peers"; metrics | grep -E 'gate_up|pending'; return 1; }
    say "every gateway up with its $(((GATEWAYS - 1) * DEVICES)) peers resolved, $((SECONDS - started)) s after start"
    metrics >"$WORK/metrics-sample"
    for g in $(nodes); do
        start "devices-$g" "$g" "$BIN/fleet-device" "$g" $GATEWAYS "$DEVICES" $GATE_PORT $DEVICE_BASE "$RATE" \
            "$WORK/devices-$g.log"
    done
    sleep 1  # the devices' first frames teach nothing the phases measure
    run_phases || return 1
    for g in $(nodes); do kill -USR1 "${PIDS[devices-$g]}"; done
    wait_until 10 gateway_ready "$KILLED" || say "gateway $KILLED has names unresolved"
    sleep 2  # frames still on their way
    for g in $(nodes); do stop "devices-$g"; done
    for g in $(nodes); do kill -0 "${PIDS[gate-$g]}" 2>/dev/null || { say "gateway $g is gone"; return 1; }; done
    account
    local verdict=0
    report_and_judge || verdict=1
    check_prometheus || verdict=1
    echo "/metrics of one gateway at the end:"
    metrics | grep 'gateway="gw-1"' | sed 's/^/  /'
    say "ran $((SECONDS - started)) s"
    return $verdict
}

main
RESULT=$?
exit $RESULT
