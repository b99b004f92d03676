# The real gateway fed valid frames and garbage for SOAK_SECONDS (default 60).
SOAK_SECONDS ?= 60
SOAK_RATE ?= 2000

.PHONY: soak
soak: build
	$(BUILD)/bin/gate-soak $(BUILD)/bin/gate $(SOAK_SECONDS) $(SOAK_RATE)
