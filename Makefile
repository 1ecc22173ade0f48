# Front door: `make run` and `make test` work on a fresh machine.
JOBS ?= $(shell nproc 2>/dev/null || echo 2)

.PHONY: deps dev release programs test test-tsan checks run stop bench fuzz clean

deps:
	@bash scripts/install-deps.sh

dev: deps
	@cmake --preset dev >/dev/null
	@cmake --build --preset dev -j $(JOBS)

release: deps
	@cmake --preset release >/dev/null
	@cmake --build --preset release -j $(JOBS)

programs: deps
	@cmake --preset release >/dev/null
	@cmake --build --preset release -j $(JOBS) --target halvofp halvo-hostd

# The suite under AddressSanitizer and UndefinedBehaviorSanitizer, then the
# static checks (layers, lock annotations).
test: dev
	@ctest --preset dev -j $(JOBS)
	@$(MAKE) --no-print-directory checks

checks:
	@bash scripts/check-layers.sh
	@bash scripts/check-thread-safety.sh build/dev
	@bash scripts/check-isa.sh build/dev

# The suite under ThreadSanitizer.
test-tsan: deps
	@cmake --preset tsan >/dev/null
	@cmake --build --preset tsan -j $(JOBS)
	@ctest --preset tsan -j $(JOBS)

# The sample cloud as a folder at $(HALVO_MOUNT) (default ~/Halvo); make stop
# unmounts it and stops the host.
run: programs
	@bash scripts/run.sh build/release

stop:
	@bash scripts/run.sh build/release stop

bench: release
	@bash bench/run.sh build/release

# The libFuzzer targets (clang, fuzz preset), each for FUZZ_SECONDS; failing
# inputs land in build/fuzz/artifacts/.
FUZZ_SECONDS ?= 60
fuzz: deps
	@JOBS=$(JOBS) bash fuzz/run.sh $(FUZZ_SECONDS)

clean:
	rm -rf build
