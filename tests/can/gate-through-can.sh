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

kill $gate_pid 2>/dev/null; wait $gate_pid 2>/dev/null
[ $failed -eq 0 ] || cat gate.log
echo "$passed passed, $failed failed"
[ $failed -eq 0 ]
