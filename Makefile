# Short commands for the CMake presets; `make help` lists them.
SHELL := /bin/bash
PRESET ?= dev
JOBS ?= $(shell nproc)
PREFIX ?= /usr/local

# make run
BACKEND ?= directory
CONFIG ?= examples/collector.json
SCENARIO ?=
DURATION ?=
SPEED ?=

.DEFAULT_GOAL := help
.PHONY: help deps deps-lint deps-page configure build run test test-asan test-tsan test-big-endian test-emulated bench docs everything install format lint fuzz faults load mutants soak coverage package package-check package-test release-check clean

help:
	@echo 'make run       vehicle, vlmmaster and a backend on this machine; Ctrl-C ends it'
	@echo '                 BACKEND=mqtt      a real broker instead of a folder'
	@echo '                 CONFIG=FILE       collector configuration (examples/collector.json)'
	@echo '                 SCENARIO=FILE     scenario of the vehicle (default: a plain drive)'
	@echo '                 DURATION=SECONDS  end after this time'
	@echo '                 SPEED=FACTOR      faster clock for vehicle and vlmmaster, by libfaketime'
	@echo 'make test      all tests; make test-asan, make test-tsan: unit and integration under sanitizers'
	@echo 'make test-big-endian  the SOME/IP codec on s390x, in qemu'
	@echo 'make test-emulated  unit and integration tests on arm64, in qemu; ARCHITECTURE=...: on another machine'
	@echo 'make coverage  unit and integration tests, and a table of their coverage'
	@echo 'make bench     benchmarks, as a table'
	@echo 'make fuzz      libFuzzer targets under sanitizers; MINUTES=n or SECONDS=n each (1 minute); SEED=n repeats a run'
	@echo 'make faults    peers, network, clock and disk fail, ROUNDS=n times each (20); SEED=n repeats a run, ONLY=SpoolFaults runs a part'
	@echo 'make load      5,000 and 20,000 samples a second over all services, for MINUTES=n each (10)'
	@echo 'make soak      everything at its natural rate for HOURS=n (1), memory and losses as a plot'
	@echo 'make mutants   plants faults one at a time: FILES="bus/*.cpp ..." SEED=n MINUTES=n, and lists what no test noticed; SYSTEM=REGEX: also run these system tests'
	@echo 'make docs      a reference page per vehicle service in docs/services/'
	@echo 'make everything  examples/collector-everything.json from the catalog'
	@echo 'make build     everything, in build/$(PRESET) (PRESET=dev, release, asan, tsan, coverage)'
	@echo 'make package   Debian packages, in build/package/; ARCHITECTURE="amd64 arm64": for both machines; SUITE=trixie: for another release'
	@echo 'make package-test   install, upgrade and purge them in a clean root; make package-check: those of build/$(PRESET), in short'
	@echo 'make release-check  all that must hold for a release, or STEPS=..., and a table'
	@echo 'make install   release build into PREFIX=$(PREFIX), catalog into /etc (respects DESTDIR)'
	@echo 'make format    clang-format on all sources; make lint: the same as a check, and clang-tidy'
	@echo 'make deps      install missing Debian packages; run and test do this themselves'
	@echo 'make clean     remove build/ and run/'

deps:
	@tools/run/deps.sh

deps-lint:
	@tools/run/deps.sh lint

deps-page:
	@tools/run/deps.sh page

# Repeated configuring is cheap and finds new files.
configure: deps
	@cmake --preset $(PRESET) --log-level=WARNING >/dev/null

build: configure
	cmake --build --preset $(PRESET) -j $(JOBS)

run: configure
	@cmake --build --preset $(PRESET) -j $(JOBS) --target vlmmaster vlm-vehicle vlm-backend vlm-status vlm-check vlm_catalog_file page
	@tools/run/vlm-run --build build/$(PRESET) --backend '$(BACKEND)' --config '$(CONFIG)' \
	  $(if $(SCENARIO),--scenario '$(SCENARIO)') $(if $(DURATION),--duration '$(DURATION)') $(if $(SPEED),--speed '$(SPEED)')

test: deps-page build
	ctest --preset $(PRESET) -j $(JOBS)

# A table of lines and branches per file, from the unit and integration tests.
coverage:
	@tools/run/deps.sh coverage
	$(MAKE) --no-print-directory test PRESET=coverage
	set -o pipefail; gcovr --root . --object-directory build/coverage --exclude-unreachable-branches --exclude-throw-branches --gcov-ignore-parse-errors \
	  $(parts:%=--filter '%/') --sort-percentage -j $(JOBS) | cut -c1-70

test-asan test-tsan: test-%:
	$(MAKE) --no-print-directory test PRESET=$*

# On s390x in qemu.
test-big-endian:
	@tools/run/deps.sh big-endian
	tests/packages/big-endian

test-emulated:
	@tools/run/deps.sh package-test
	JOBS=$(JOBS) tests/packages/emulated $(or $(filter-out $(shell dpkg --print-architecture),$(ARCHITECTURE)),arm64)

# Of chosen faults and inputs; 0: others in each run.
SEED ?= 0

# An input that breaks something is left in build/fuzz/findings; build/fuzz/tests/fuzz/fuzz_TARGET FILE repeats it.
fuzz: deps
	@tools/run/deps.sh fuzz
	@cmake --preset fuzz --log-level=WARNING -DVLM_FUZZ_SEED=$(SEED) \
	  -DVLM_FUZZ_SECONDS=$(or $(SECONDS),$(if $(MINUTES),$$(($(MINUTES) * 60)),60)) >/dev/null
	cmake --build --preset fuzz -j $(JOBS)
	ctest --preset fuzz -j $(JOBS); status=$$?; \
	  grep -E ' Test: |executed_units' build/fuzz/Testing/Temporary/LastTest.log; exit $$status

ROUNDS ?= 20

# One at a time, since they also measure times.
faults: configure
	@tools/run/deps.sh faults
	cmake --build --preset $(PRESET) -j $(JOBS) --target vlmmaster vlm-vehicle vlm-backend vlm-spool vlm_catalog_file
	VLM_FAULT_ROUNDS=$(ROUNDS) VLM_FAULT_SEED=$(SEED) ctest --test-dir build/$(PRESET) -R '^faults\.$(ONLY)' --verbose

LOAD_PRESET ?= release

load:
	@$(MAKE) --no-print-directory configure PRESET=$(LOAD_PRESET)
	cmake --build --preset $(LOAD_PRESET) -j $(JOBS) --target bench_throughput
	bench/run --build build/$(LOAD_PRESET) --load $(or $(MINUTES),10)

mutants: deps
	tools/mutants/mutants.py $(if $(FILES),--files $(foreach pattern,$(FILES),'$(pattern)')) --seed $(or $(SEED:0=),1) --minutes $(or $(MINUTES),10) $(if $(SYSTEM),--system '$(SYSTEM)')

HOURS ?= 1

soak: configure
	@tools/run/deps.sh soak
	cmake --build --preset $(PRESET) -j $(JOBS) --target vlmmaster vlm-vehicle vlm-backend vlm-check vlm_catalog_file
	tools/run/vlm-soak --build build/$(PRESET) --hours $(HOURS)

bench:
	@$(MAKE) --no-print-directory configure PRESET=release
	cmake --build --preset release -j $(JOBS) --target bench

docs: configure
	cmake --build --preset $(PRESET) --target vlm_docs

# The configuration that collects everything in the catalog.
everything: configure
	cmake --build --preset $(PRESET) --target vlm_catalog_file
	tools/run/collect-everything.py build/$(PRESET)/generated/VLM_Available_Signals_Catalog_20210311.json > examples/collector-everything.json

install:
	@$(MAKE) --no-print-directory configure PRESET=release
	cmake --build --preset release -j $(JOBS)
	DESTDIR='$(DESTDIR)' cmake --install build/release --prefix '$(PREFIX)'

# make package, make package-test: other architectures or another release of Debian than this machine's.
ARCHITECTURE ?= $(shell dpkg --print-architecture)
SUITE ?= $(shell . /etc/os-release && echo $$VERSION_CODENAME)

package:
	@tools/run/deps.sh package
	@tools/run/deps.sh package-test
	for each in $(ARCHITECTURE); do JOBS=$(JOBS) packaging/build --architecture $$each --suite $(SUITE) || exit 1; done

# WHOLE=1 waits for the demo's first report, and builds the application on the minimal platform from vlmmaster-dev.
package-test:
	@tools/run/deps.sh package-test
	for each in $(ARCHITECTURE); do tests/packages/run --architecture $$each --suite $(SUITE) $(if $(WHOLE),--whole) || exit 1; done

# The packages of a build tree, since a build with a distribution's options takes as long as all the rest of CI.
package-check: build
	@tools/run/deps.sh package
	@tools/run/deps.sh package-test
	packaging/build --from build/$(PRESET)
	tests/packages/run --short --packages build/package/$(SUITE)-$(ARCHITECTURE)-$(PRESET)

release-check:
	tools/run/release-check $(STEPS)

sources = git ls-files -z '*.cpp' '*.h'

format: deps-lint
	$(sources) | xargs -0 clang-format -i

parts = $(shell tools/lint/check-includes --folders) platform backend tools
empty =
blank = $(empty) $(empty)

# cppcheck: the interfaces demand parameters by value. clang-tidy: clang's C++20 does not accept the
# reflection library's headers, which one source includes.
lint: deps-lint configure
	tools/lint/check-includes
	tools/lint/check-conformance
	$(sources) | xargs -0 clang-format --dry-run --Werror
	cmake --build --preset $(PRESET) -j $(JOBS) --target vlm_generate
	cppcheck -q -j $(JOBS) --std=c++20 --language=c++ --enable=warning,performance,portability --inline-suppr \
	  --suppress=missingIncludeSystem --suppress=passedByValue --error-exitcode=1 \
	  -I . -I platform/api -I platform/linux -I build/$(PRESET)/generated -I codegen/support $(parts) codegen/support
	set -o pipefail; run-clang-tidy -quiet -extra-arg=-Wno-unknown-warning-option -p build/$(PRESET) -j $(JOBS) '$(CURDIR)/($(subst $(blank),|,$(patsubst services,services(?!/ResourceConversion),$(strip $(parts)))))/' 2>&1 \
	  | sed -E '/^clang-tidy|^[0-9]+ warnings generated/d'

clean:
	rm -rf build run
