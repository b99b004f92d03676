#!/bin/sh
# Runs inside the guest of scripts/can-vm, from the folder `make test-can`
# staged: every *VmTest binary in it, then the gateway itself between the
# bus and a UDP link, against vcan0 and vcan1 with can-utils on the PATH.
modprobe sch_tbf || echo "run-in-vm-tests: no sch_tbf module"
status=0
for test in ./*VmTest ./gate-through-can.sh; do
    "$test" || status=1
done
exit $status
