#!/bin/sh
# Runs inside the guest of scripts/can-vm, from the folder `make test-can`
# staged: every *VmTest binary in it, against vcan0 and vcan1, with
# can-utils on the PATH. Ends with "N passed, N failed" over all test cases.
modprobe sch_tbf || echo "run-in-vm-tests: no sch_tbf module"
passed=0
failed=0
status=0
for test in ./*VmTest; do
    [ -x "$test" ] || continue
    "$test" --gtest_color=no >"$test.log" 2>&1
    rc=$?
    cat "$test.log"
    [ $rc -eq 0 ] || status=1
    p=$(grep -c '^\[       OK \]' "$test.log")
    f=$(grep -c '^\[  FAILED  \] .*(' "$test.log")
    # A crash leaves no FAILED line: count the binary as one failure.
    [ $rc -ne 0 ] && [ "$f" -eq 0 ] && f=1
    passed=$((passed + p))
    failed=$((failed + f))
done
# The gateway itself between the bus and a UDP link.
if [ -x ./gate-through-can.sh ]; then
    ./gate-through-can.sh >gate-through-can.log 2>&1
    rc=$?
    cat gate-through-can.log
    [ $rc -eq 0 ] || status=1
    passed=$((passed + $(grep -c '^ok ' gate-through-can.log)))
    failed=$((failed + $(grep -c '^FAIL ' gate-through-can.log)))
    [ $rc -ne 0 ] && ! grep -q '^FAIL ' gate-through-can.log && failed=$((failed + 1))
fi
echo "$passed passed, $failed failed"
exit $status
