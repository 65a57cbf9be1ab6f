# The commands of everyday work; each does its own set-up. CMake does the building.
.PHONY: help test demo check bench format clean

help:
	@echo 'make test     build (preset dev) and run the test suite'
	@echo 'make demo     build (preset release) and run the demonstration'
	@echo 'make check    everything that CI runs'
	@echo 'make bench    build (preset bench) and measure beside peers; prints a table of ratios'
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

check:
	@scripts/check

bench:
	@scripts/bench

format:
	@scripts/setup check
	@scripts/format

clean:
	rm -rf build
