# Front door: `make run` and `make test` work on a fresh machine.
JOBS ?= $(shell nproc 2>/dev/null || echo 2)

.PHONY: deps dev release programs test run bench clean

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

test: dev
	@ctest --preset dev -j $(JOBS)

run: programs
	@bash scripts/run.sh build/release

bench: release
	@bash bench/run.sh build/release

clean:
	rm -rf build
