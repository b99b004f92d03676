# A fleet: twelve gateways over a mesh routed by babeld in network
# namespaces, with faults, watched by gate-exporter and a Prometheus server
# (needs root or sudo).
#   make test-fleet                     about 2 minutes
#   make test-fleet FLEET_SECONDS=900   a longer run: the seconds of traffic
FLEET_SECONDS ?= 80

.PHONY: test-fleet
test-fleet: build
	FLEET_SECONDS=$(FLEET_SECONDS) timeout --foreground -k 10 $$(($(FLEET_SECONDS) + 240)) tests/fleet/run-fleet.sh $(BUILD)
