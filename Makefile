# The commands of everyday work. Each says what it misses and installs it (Debian), then does its job.

.PHONY: build run test check stress mutants clients bench format clean

build: # build/release/harbex
	@scripts/build

run: # Harbex on this desktop; without a display a demonstration on a virtual one
	@scripts/run

test: # everything that must pass before a change goes in
	@scripts/test

check: # both compilers, both kinds of sanitizers and the linters; takes a while
	@scripts/check

stress: # faults, races, hostile files, long life and fuzzing, in full; takes hours
	@scripts/stress

mutants: # changes the sources in 100 small ways, and shows which of them no test notices; takes hours
	@scripts/mutate

clients: # real browsers and download programs, and what becomes of their files; takes some minutes
	@scripts/clients

bench: # how fast it is, beside a baseline; leave the machine alone meanwhile
	@scripts/bench

format: # lays out all sources as .clang-format says
	@scripts/format

clean:
	@rm -rf build
