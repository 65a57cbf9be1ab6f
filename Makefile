# The commands of everyday work. Each one sets up what it needs; CMake builds.
.PHONY: help test demo cross check models mutants soak bench size docs abi packages format clean

help:
	@echo 'make test     build (preset dev) and run the tests, but the long ones of make check'
	@echo 'make demo     build (preset release) and run the demonstration'
	@echo 'make cross    build and test for ARM and for other C libraries'
	@echo 'make check    everything that CI runs'
	@echo 'make models   check that the models of the loop'\''s protocol hold, and that broken ones are refuted'
	@echo 'make mutants  put small faults into a copy of the library, and look for a test that finds each'
	@echo 'make soak     random operations from several threads, five minutes each under two sanitizers'
	@echo 'make bench    build (preset bench) and compare with peers; prints a table of ratios'
	@echo 'make size     text, data, stack and heap on 32-bit ARM, compared with the recorded values'
	@echo 'make docs     build (preset release) the reference: pages to browse and manual pages'
	@echo 'make abi      compare names and layouts with those of the last release'
	@echo 'make packages build Debian packages into build/packages'
	@echo 'make format   format all sources'
	@echo 'make clean    remove everything that was built'
	@echo 'cmake --list-presets names the other builds.'

test:
	@scripts/setup build
	cmake --preset dev
	cmake --build --preset dev
	@ctest --preset dev

demo:
	@scripts/setup demo
	cmake --preset release
	cmake --build --preset release
	@examples/bundled/demo.sh build/release

cross:
	@scripts/setup cross
	@scripts/cross/check

check:
	@scripts/check

models:
	@scripts/setup check
	@scripts/models

mutants:
	@scripts/setup build
	@scripts/mutants

soak:
	@scripts/setup build
	@scripts/soak

bench:
	@scripts/bench

size:
	@scripts/setup check cross
	@scripts/size

docs:
	@scripts/setup check
	cmake --preset release
	cmake --build --preset release
	cmake --build --preset release --target docs
	@echo 'To browse: build/release/docs/html/index.html'
	@echo 'To read:   man -M build/release/docs/man 7 tessra'

abi:
	@scripts/setup check cross
	@scripts/abi

packages:
	@scripts/setup check
	@scripts/packages

format:
	@scripts/setup check
	@scripts/format

clean:
	rm -rf build
