# Gateways in a mesh: three gateways and a UTM server, each in a network
# namespace of its own, with simulated devices; needs root (or sudo).
#   make test-mesh   build, then run the scenarios of tests/mesh/run-mesh.sh
MESH_TIMEOUT_S ?= 300

.PHONY: test-mesh
test-mesh: build
	timeout --foreground -k 10 $(MESH_TIMEOUT_S) tests/mesh/run-mesh.sh $(BUILD)
