# Commands for everyday work. Each one installs missing Debian packages first.

.PHONY: build run test check stress mutants clients desktops flatpak-test bench format translations screenshots package \
	package-test install clean

build: # build/release/harbex
	@scripts/build

run: # starts Harbex on this desktop; without a display, a demonstration on a virtual desktop
	@scripts/run

test: # the tests that must pass before every commit
	@scripts/test

check: # the tests with both compilers and the sanitizers, and the linters; takes a while
	@scripts/check

stress: # all stress tests and fuzz targets in full; takes hours
	@scripts/stress

mutants: # makes 100 small changes to the sources and lists those that no test detects; takes hours
	@scripts/mutate

clients: # tests with real browsers and download programs; takes some minutes
	@scripts/clients

desktops: # tests on Plasma and GNOME of Debian 12 and 13; needs root, and installs them in systems of their own
	@scripts/desktops

flatpak-test: # tests in the Flatpak sandbox, on Debian 12 and 13; needs root, and installs it in systems of their own
	@scripts/flatpak-test

bench: # benchmarks beside a baseline; do not use the machine meanwhile
	@scripts/bench

format: # formats all sources with clang-format
	@scripts/format

translations: # updates translations/*.ts from the sources
	@scripts/translations

screenshots: # build/screenshots: the window in every language, light and dark
	@scripts/build
	@scripts/screenshots

package: # build/package/*.deb: the Debian package
	@scripts/package

package-test: # installs the Debian package in a fresh system, uses it and purges it; needs root
	@scripts/package-test

install: # installs the program: make install prefix=/usr DESTDIR=/tmp/system
	@scripts/build
	@DESTDIR=$(DESTDIR) cmake --install build/release --prefix $(or $(prefix),/usr/local)

clean:
	@rm -rf build
