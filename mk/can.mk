# SocketCAN tests. The host kernel has no CAN, so they run inside a QEMU
# guest (scripts/can-vm) that has vcan0 and vcan1; one boot for the suite.
#   make test-can   build, prepare the VM (cached in .cache/can-vm), run tests/can
CAN_VM_STAGE := $(BUILD)/can-vm-stage
CAN_VM_TIMEOUT_S ?= 300

.PHONY: test-can
test-can: build
	@scripts/can-vm --prepare
	@rm -rf $(CAN_VM_STAGE) && mkdir -p $(CAN_VM_STAGE)
	@cp $(BUILD)/bin/can-vm/*VmTest $(BUILD)/bin/gate $(BUILD)/bin/gatecat tests/can/*.sh $(CAN_VM_STAGE)/
	scripts/can-vm --vcan vcan0,vcan1 --timeout $(CAN_VM_TIMEOUT_S) --dir $(CAN_VM_STAGE) -- ./run-in-vm-tests.sh
