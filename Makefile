# Front door of the project. Every target sets up what it needs first.
#   make run       build the gateway and gatecat and start the gateway on the
#                  bundled example
#   make test      build and run every test
#   make sanitize  the same under AddressSanitizer + UndefinedBehaviorSanitizer
#   make tsan      the threaded parts under ThreadSanitizer
#   make bench     benchmarks: the codec, forwarding against a reference relay, then
#                  forwarding against the size of the gateway's tables
#                  (QUICK=1 for a short forwarding run)
# Further targets live in mk/*.mk, one file per concern.

SHELL := /bin/bash
MAKEFLAGS += --no-print-directory
JOBS ?= $(shell nproc)
BUILD ?= build
WERROR := $(if $(CI),ON,OFF)
CMAKE_FLAGS ?=
EXAMPLE ?= examples/loopback.json

.PHONY: all deps build run test sanitize tsan bench clean

all: build

deps:
	@scripts/install-deps test

# $(1) build folder, $(2) extra cmake flags, $(3) targets (all when empty)
define configure_and_build
	@cmake -S . -B $(1) -DGATE_WERROR=$(WERROR) $(CMAKE_FLAGS) $(2) >/dev/null
	@cmake --build $(1) -j $(JOBS) $(if $(3),--target $(3))
endef

build: deps
	$(call configure_and_build,$(BUILD),-DBUILD_TESTING=ON -DGATE_BENCH=ON)

# Only the gateway, gatecat and the libraries they link, and only the
# packages they need: a first start from a fresh clone does not wait for the
# tests, benchmarks and fuzz replays or their libraries. A build folder made
# by `make build` keeps its tests (their libraries are installed then).
run:
	@scripts/install-deps run
	$(call configure_and_build,$(BUILD),$(if $(wildcard $(BUILD)/CMakeCache.txt),,-DBUILD_TESTING=OFF -DGATE_BENCH=OFF),gate gatecat)
	$(BUILD)/bin/gate --config $(EXAMPLE) --debug 3

test: build
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

sanitize: deps
	$(call configure_and_build,build-asan,-DGATE_SANITIZE=address$(,)undefined -DGATE_BENCH=OFF -DCMAKE_BUILD_TYPE=Debug)
	ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
	  ctest --test-dir build-asan --output-on-failure -j $(JOBS)
	$(call dns_jitter_run,build-asan,ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1)

# Only the code that runs on more than one thread: the resolver's worker
# pool, with its real threads and lookups, in its own tests and in the DNS
# jitter run (gateway and in-process resolvers). Only those programs are
# built, which keeps this target quick.
TSAN_TESTS ?= ResolverTest
tsan: deps
	@cmake -S . -B build-tsan -DGATE_WERROR=$(WERROR) $(CMAKE_FLAGS) -DGATE_SANITIZE=thread -DGATE_BENCH=OFF \
	  -DCMAKE_BUILD_TYPE=Debug >/dev/null
	@cmake --build build-tsan -j $(JOBS) --target $(TSAN_TESTS) DnsScenarios
	@set -e; for t in $(TSAN_TESTS); do TSAN_OPTIONS=halt_on_error=1 build-tsan/bin/$$t; done
	$(call dns_jitter_run,build-tsan,TSAN_OPTIONS=halt_on_error=1)

QUICK ?= 0
bench: build
	@set -e; for b in $(BUILD)/bin/*Bench; do [ -x "$$b" ] && "$$b"; done; true
	@BUILD=$(BUILD) QUICK=$(QUICK) scripts/bench-forwarding
	@$(BUILD)/bin/fwd-scale $(BUILD)/bin/gate $(QUICK)

clean:
	rm -rf build build-asan build-tsan build-deb

, := ,
-include mk/*.mk
