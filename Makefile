# Everything a newcomer needs; each target installs, configures and builds what it lacks.
.DEFAULT_GOAL := build
.PHONY: demo test build bench install clean deps sanitize tidy

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

sanitize: build/asan/CMakeCache.txt build/tsan/CMakeCache.txt
	cmake --build --preset asan -j $(JOBS)
	ctest --preset asan -j $(JOBS) -LE 'interop|stress'
	cmake --build --preset tsan -j $(JOBS)
	ctest --preset tsan -j $(JOBS) -LE 'interop|stress'

tidy: build/tidy/CMakeCache.txt
	cmake --build --preset tidy -j $(JOBS)

bench: build/bench/CMakeCache.txt
	cmake --build --preset bench -j $(JOBS)
	bench/run.sh build/bench

install: build
	cmake --install build/release --prefix $(PREFIX)

clean:
	rm -rf build demo
