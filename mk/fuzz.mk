# libFuzzer targets, built with clang in build-fuzz/.
#   make fuzz                 every target for FUZZ_SECONDS (default 60)
#   make fuzz FUZZ_TARGETS=X  only target X
# Each target works on a copy of its seed corpus; a crash lands in
# tests/fuzz/crashes/ and, once fixed, belongs in tests/fuzz/regressions/<target>/.
FUZZ_SECONDS ?= 60
FUZZ_TARGETS ?= $(basename $(notdir $(wildcard tests/fuzz/*Fuzz.cpp)))

.PHONY: fuzz fuzz-build

fuzz-build: deps
	@CC=clang CXX=clang++ cmake -S . -B build-fuzz -DGATE_FUZZ=ON -DGATE_BENCH=OFF -DGATE_WERROR=$(WERROR) >/dev/null
	@cmake --build build-fuzz -j $(JOBS)

fuzz: fuzz-build
	@set -e; mkdir -p tests/fuzz/crashes; \
	for t in $(FUZZ_TARGETS); do \
	  work=build-fuzz/corpus/$$t; mkdir -p $$work; \
	  [ -d tests/fuzz/corpus/$$t ] && cp -n tests/fuzz/corpus/$$t/* $$work/ 2>/dev/null || true; \
	  echo "== $$t ($(FUZZ_SECONDS) s)"; \
	  build-fuzz/bin/$$t -max_total_time=$(FUZZ_SECONDS) -print_final_stats=1 \
	    -artifact_prefix=tests/fuzz/crashes/$$t- $$work > build-fuzz/$$t.log 2>&1 \
	    || { tail -n 40 build-fuzz/$$t.log; echo "$$t found a crash (tests/fuzz/crashes/)"; exit 1; }; \
	  grep -E '^stat::(number_of_executed_units|average_exec_per_sec)' build-fuzz/$$t.log || true; \
	done
