#!/bin/sh
# Runs inside the guest of scripts/can-vm: the real gate between vcan0 and a
# "udp" interface on loopback, with candump/cansend on the bus side and
# gatecat on the UDP side. Prints one "ok"/"FAIL" line per check and ends
# with "N passed, N failed".
passed=0 failed=0
check() {  # name, expected, actual
    if [ "$2" = "$3" ]; then echo "ok   $1"; passed=$((passed + 1))
    else echo "FAIL $1: expected '$2', got '$3'"; failed=$((failed + 1)); fi
}

cat >gate-can.json <<'JSON'
{"ifaces": [{"id": 1, "iface": "can://vcan0"}, {"id": 2, "iface": "udp://127.0.0.1:7001"}],
 "local_peers": [{"netdev_addr": "0x20", "iface_id": 2, "inet_addr": "127.0.0.1:7101"}]}
JSON
./gate --config gate-can.json --debug 3 >gate.log 2>&1 &
gate_pid=$!
sleep 0.5

# From the bus to UDP: proto 7 from 0x10 to 0x20 in one CAN frame.
./gatecat dump --count 1 --timeout 5 udp://127.0.0.1:7101 >udp.out 2>/dev/null &
dump_pid=$!
sleep 0.3
cansend vcan0 00704021#DEADBEEF
wait $dump_pid
check "a CAN frame leaves the udp interface" "07:10>20#DEADBEEF" "$(cut -d' ' -f2 udp.out)"
check "its sender is learned on the CAN interface" "add local peer on iface 1: 0x10" \
    "$(grep -m1 'add local peer on iface 1' gate.log)"

# Back from UDP to the bus: 20 bytes, so a header frame and three data frames.
candump -L -n 4 vcan0 >can.out &
candump_pid=$!
sleep 0.3
./gatecat send udp://127.0.0.1:7101:127.0.0.1:7001 \
    '05:20-10#0102030405060708090A0B0C0D0E0F1011121314' 2>/dev/null
sleep 1
kill $candump_pid 2>/dev/null; wait $candump_pid 2>/dev/null
check "the reply crosses onto the bus as four frames with the gateway's identifiers" \
    "10002041 10102041 10202041 10302041" "$(awk '{split($3, f, "#"); printf "%s%s", sep, f[1]; sep=" "}' can.out)"
check "its data frames carry the payload" "0102030405060708 090A0B0C0D0E0F10 11121314" \
    "$(awk 'NR > 1 {split($3, f, "#"); printf "%s%s", sep, f[2]; sep=" "}' can.out)"

# A USB adapter pulled and plugged back: the interface is deleted and made
# again with a new index. The gate says so once each way, sleeps while it is
# gone and carries frames both ways again without a restart.
wait_for_line() {  # LINE: within 5 s in the gate's log
    i=0
    while ! grep -qxF "$1" gate.log; do
        i=$((i + 1)); [ $i -gt 100 ] && return 1; sleep 0.05
    done
}
cpu_ticks() { awk '{ print $14 + $15 }' /proc/$gate_pid/stat; }
now_ms() { awk '{ printf "%d", $1 * 1000 }' /proc/uptime; }
frames_both_ways() {  # TAG (two hex digits): one frame each way, each arriving once
    ./gatecat dump --count 2 --timeout 2 udp://127.0.0.1:7101 >udp.out 2>/dev/null &
    dump_pid=$!
    sleep 0.3
    cansend vcan0 00704021#00$1
    wait $dump_pid
    check "$2: a CAN frame leaves the udp interface once" "07:10>20#00$1" "$(cut -d' ' -f2 udp.out | tr '\n' ' ' | sed 's/ $//')"
    candump -L -n 2 -T 1500 vcan0 >can.out &
    candump_pid=$!
    sleep 0.3
    ./gatecat send udp://127.0.0.1:7101:127.0.0.1:7001 "05:20-10#01$1" 2>/dev/null
    wait $candump_pid 2>/dev/null
    # Its identifier carries the gateway's transfer counter, which moves on.
    check "$2: a reply reaches the bus once" "01$1" "$(awk '{ split($3, f, "#"); print f[2] }' can.out | tr '\n' ' ' | sed 's/ $//')"
}

ip link del vcan0
wait_for_line "CAN interface vcan0 lost"
check "a deleted interface is said once" "CAN interface vcan0 lost" "$(grep -x 'CAN interface vcan0 lost' gate.log)"
# Loose: software emulation makes each try to reopen slow.
ticks_before=$(cpu_ticks); sleep 3; ticks_gone=$(($(cpu_ticks) - ticks_before))
check "the gate sleeps while the interface is gone (at most 15 ticks in 3 s)" ok \
    "$([ "$ticks_gone" -le 15 ] && echo ok || echo "$ticks_gone ticks")"
ip link add dev vcan0 type vcan && ip link set up vcan0
plugged_ms=$(now_ms)
wait_for_line "CAN interface vcan0 is back"
check "the interface made again is taken back, said once" "CAN interface vcan0 is back" \
    "$(grep -x 'CAN interface vcan0 is back' gate.log)"
echo "CAN interface replugged: $ticks_gone CPU ticks in 3 s while gone, back $(($(now_ms) - plugged_ms)) ms after it was made again"
frames_both_ways AA "after the replug"

# Taken down and up, the interface keeps its index: the gate says nothing.
ip link set down vcan0; sleep 0.3; ip link set up vcan0
frames_both_ways BB "after down and up"
check "down and up is no loss" "1 1" \
    "$(grep -cx 'CAN interface vcan0 lost' gate.log) $(grep -cx 'CAN interface vcan0 is back' gate.log)"

kill $gate_pid 2>/dev/null; wait $gate_pid 2>/dev/null
[ $failed -eq 0 ] || cat gate.log
echo "$passed passed, $failed failed"
[ $failed -eq 0 ]
