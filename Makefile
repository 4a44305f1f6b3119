# Everything a newcomer needs; each target installs, configures and builds what it lacks.
.DEFAULT_GOAL := build
.PHONY: demo test e2e soak build bench install clean deps sanitize faults tidy fuzz mutants coverage examples deb

JOBS ?= $(shell nproc)
PREFIX ?= /usr/local

deps:
	@scripts/install-deps.sh

build/%/CMakeCache.txt: | deps
	cmake --preset $*

build: build/release/CMakeCache.txt
	cmake --build --preset release -j $(JOBS)

demo: build
	scripts/demo.sh build/release demo

test: build/dev/CMakeCache.txt
	cmake --build --preset dev -j $(JOBS)
	ctest --preset dev -j $(JOBS)

# Records in an emulated machine from a recorder that is a program; "skipped: ..." where there is none.
e2e: build/e2e/CMakeCache.txt
	-@scripts/install-deps.sh e2e
	cmake --build --preset e2e -j $(JOBS) --target vorrel_cli vorrel_hot_plug_host vorrel_usb_recorder vorrel_take_check
	tests/e2e/run.sh build/e2e build/e2e/machine

# The example hosts: built, and run with the simulated recorder.
examples: build/dev/CMakeCache.txt
	@scripts/install-deps.sh examples
	cmake --preset dev -DVORREL_EXAMPLES=ON
	cmake --build --preset dev -j $(JOBS) --target vorrel_examples
	ctest --preset dev -R '^ExamplesTest'

# Debian packages in build/deb, tried in a clean root; "skipped: ..." where a tool is missing.
deb:
	@scripts/install-deps.sh deb
	packaging/build-deb.sh build/deb
	packaging/smoke.sh build/deb

sanitize: build/asan/CMakeCache.txt build/tsan/CMakeCache.txt
	cmake --build --preset asan -j $(JOBS)
	ctest --preset asan -j $(JOBS) -LE 'interop|stress|faults'
	cmake --build --preset tsan -j $(JOBS)
	ctest --preset tsan -j $(JOBS) -LE 'interop|stress|faults'

# Every call of the system made to fail, under the address sanitizer, which finds what is not freed then.
faults: build/asan/CMakeCache.txt
	cmake --build --preset asan -j $(JOBS) --target vorrel_fault_tests vorrel_device_fault_tests vorrel_alsa_fault_tests
	build/asan/tests/device/faults/vorrel_device_fault_tests
	build/asan/tests/integration/alsa/vorrel_alsa_fault_tests
	build/asan/tests/faults/vorrel_fault_tests

# Ten minutes of each load: capture through the test card beside two programs that take the processors, eight
# channels in real time beside a writer, a host that calls anything; a day's take, and ten thousand starts.
soak: build/dev/CMakeCache.txt
	cmake --build --preset dev -j $(JOBS) --target vorrel_alsa_soak_tests vorrel_load_tests vorrel_heavy_load_tests
	VORREL_SOAK_SECONDS=$${VORREL_SOAK_SECONDS:-600} build/dev/tests/integration/alsa/vorrel_alsa_soak_tests
	VORREL_LOAD_SECONDS=$${VORREL_LOAD_SECONDS:-600} VORREL_LOAD_CYCLES=$${VORREL_LOAD_CYCLES:-10000} \
	    build/dev/tests/load/vorrel_load_tests
	VORREL_LOAD_SECONDS=$${VORREL_LOAD_SECONDS:-600} VORREL_LOAD_HOURS=$${VORREL_LOAD_HOURS:-24} \
	    build/dev/tests/load/vorrel_heavy_load_tests

# Half a minute for each target: VORREL_FUZZ_SECONDS=... for more.
fuzz: build/fuzz/CMakeCache.txt
	cmake --build --preset fuzz -j $(JOBS)
	scripts/fuzz.sh build/fuzz

# Changes the engine in one place at a time, and counts what no test notices. MUTANTS=... for more.
mutants: deps
	scripts/mutate.py --jobs $(JOBS) --limit $${MUTANTS:-400}

# Lines and branches of src/ that the tests come by; fails below 95 % and 85 %.
coverage: build/coverage/CMakeCache.txt
	@scripts/install-deps.sh coverage
	cmake --build --preset coverage -j $(JOBS)
	scripts/coverage.sh build/coverage $(JOBS)

tidy: build/tidy/CMakeCache.txt
	cmake --build --preset tidy -j $(JOBS)

bench: build/bench/CMakeCache.txt
	cmake --build --preset bench -j $(JOBS)
	bench/run.sh build/bench

install: build
	cmake --install build/release --prefix $(PREFIX)

clean:
	rm -rf build demo
