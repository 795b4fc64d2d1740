# Kept thin: each target is a line of help and little more. `make help` lists the targets.
# Tests mostly wait, so run four times as many at once as there are cores.
JOBS ?= $(shell expr 4 \* $$(nproc))
PREFIX ?= /usr/local

.DEFAULT_GOAL := help
.PHONY: $(shell sed -n 's/^\([a-z-]*\):.*## .*/\1/p' $(firstword $(MAKEFILE_LIST)))

help: ## List the targets
	@sed -n 's/^\([a-z-]*\):.*## /\1\t/p' $(MAKEFILE_LIST) | expand -t 18

setup: ## Install missing packages for build, test, demo and lint (lists in scripts/packages/)
	@scripts/setup.sh build vboard scripts test lint fuzz

build: ## Build the device program and the PC tools into build/bin
	@scripts/setup.sh build
	@scripts/build.sh release

arm: ## Build the device program for ARM into build/arm: dynamic, static, musl (TRUSTED_KEY=FILE: signed)
	@TRUSTED_KEY="$(TRUSTED_KEY)" scripts/build_arm.sh

kvtool-static: ## Build kvtool as one file for any Linux on this machine's architecture, into build/kvtool-static/bin
	@scripts/setup.sh build vboard
	@scripts/build.sh kvtool-static
	@scripts/check_static.sh

clang: ## Build everything with clang, with warnings as errors; runs nothing
	@scripts/setup.sh build test clang
	@scripts/build.sh clang

size: build ## Show what takes up space in the device program; fails if it grew over 5 % (UPDATE=1 writes the figures)
	@scripts/setup.sh scripts
	@scripts/size.sh $(if $(UPDATE),--update)

tests-build: build ## Build the tests, and debug versions of all programs, into build/dev
	@scripts/setup.sh vboard scripts test
	@scripts/build.sh dev

demo: build ## Watch a dead camera come back: recovery, upgrade, reboot (under a minute)
	@scripts/setup.sh vboard scripts
	@scripts/demo.sh

demo-ladder: build ## Watch a silent application: restart, reboot, recovery (under a minute)
	@scripts/setup.sh vboard scripts
	@scripts/demo_ladder.sh

pictures: build ## Draw the pictures of docs/heartbeat.md into docs/pictures
	@scripts/pictures.sh

bench: build ## Measure the program against peers and limits; rewrites docs/performance.md (4 to 7 minutes; ROWS=)
	@scripts/setup.sh vboard scripts bench
	@bench/table/__main__.py build/bin $(if $(ROWS),--only $(ROWS),--docs docs)

demo-fleet: build ## Watch eight cameras being upgraded at once: two fail, the tool is killed and resumes (90 seconds)
	@scripts/setup.sh vboard scripts
	@scripts/demo_fleet.sh

demo-page: build ## Upgrade five virtual cameras in your browser, until Ctrl-C (PORT=8765)
	@scripts/setup.sh vboard scripts demo-page
	@scripts/demo_page.sh

bench-page: build ## Measure the page's server with 500 devices, 20 upgrades under way and two open pages (two minutes)
	@scripts/setup.sh vboard scripts
	@scripts/bench_page.py

bench-fleet: build ## Measure upgrades of 1, 5 and 20 boards that share one Wi-Fi channel (5 minutes)
	@scripts/setup.sh vboard scripts
	@scripts/bench_fleet.sh

powercut: build ## Cut the power at every step of an upgrade, and rewrite the figures in docs/powercut.md (20 minutes)
	@scripts/setup.sh vboard scripts
	@bench/powercut/__main__.py build/bin --docs docs
	@if scripts/board.sh fetch; then scripts/board.sh run D; \
	else echo "powercut: the emulated board was NOT RUN: its packages are neither cached nor available" >&2; fi

soak: build ## Let a day of a camera's clock pass; rewrites its figures in docs/soak.md (25 minutes; SPEED=60)
	@scripts/setup.sh vboard scripts
	@bench/soak/day.py build/bin --speed $(or $(SPEED),60) --docs docs

load: build ## Abuse the device program in real time; rewrites docs/soak.md (6 minutes; SANITIZER=thread or address)
	@scripts/setup.sh vboard scripts
	@bench/soak/load.sh "$(SANITIZER)"

client-kit: build ## Write the transcripts in docs/client-kit.md from a virtual board (a minute)
	@scripts/setup.sh vboard scripts
	@scripts/client_kit.py

board: build ## Test the program on emulated ARM boards with a real kernel (3 minutes; docs/board.md)
	@scripts/board.sh run

board-shell: build ## Open the console of an emulated board
	@scripts/board.sh shell

test: tests-build ## Run the unit and system tests, without test-fleet
	@ctest --test-dir build/dev --output-on-failure -j $(JOBS) -LE fleet

test-fleet: tests-build ## Upgrade a site of 20 boards with a tool that is killed again and again (2 minutes)
	@ctest --test-dir build/dev --output-on-failure -L fleet

test-ansible: build ## Run the Ansible collection against a site of six virtual boards (under three minutes)
	@scripts/setup.sh vboard scripts ansible
	@tests/ansible/site_test.py

test-page: build ## Use the page of kvtool with real browsers on a site of five boards (under two minutes)
	@scripts/setup.sh vboard scripts page
	@tests/page/run.sh

screenshots: build ## Do what test-page does, and take the pictures of docs/page.md
	@scripts/setup.sh vboard scripts page pictures
	@tests/page/run.sh docs/page

unit: tests-build ## Run the unit tests only
	@ctest --test-dir build/dev --output-on-failure -j $(JOBS) -L unit

mutants: ## Break the programs on purpose and see which tests notice (MODULE=, NAME=; docs/testing.md)
	@scripts/setup.sh build vboard scripts test
	@scripts/mutants.py --module "$(MODULE)" --name "$(NAME)"

fuzz: ## Fuzz every place where data comes in, each for SECONDS (30), or only FUZZ=name (docs/testing.md)
	@scripts/setup.sh build fuzz
	@scripts/fuzz.sh $(or $(SECONDS),30) $(FUZZ)

fuzz-long: ## Run each fuzzer for 10,000,000 executions or 30 minutes (docs/testing.md)
	@scripts/setup.sh build fuzz
	@scripts/build.sh fuzz --target fuzzers
	@scripts/fuzz_long.py $(FUZZ)

fuzz-coverage: ## See how many lines of each parsing file the fuzzers' seeds reach; rewrites a table of docs/testing.md
	@scripts/setup.sh build fuzz
	@scripts/fuzz.sh coverage

lint: tests-build ## Check format, code, scripts, texts, man pages, packaging; print the tests' share of the code
	@scripts/setup.sh lint fuzz
	@scripts/lint.sh

packaging-check: build ## Check the recipes and scripts of packaging/ and what they install
	@scripts/setup.sh vboard scripts lint
	@scripts/check_packaging.sh

format: ## Format all C++ files in place
	@scripts/setup.sh lint
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

sanitize: ## Run the unit tests under ASan + UBSan and under TSan
	@scripts/setup.sh build vboard scripts test
	@scripts/sanitize.sh

install: build ## Install; with DESTDIR, PREFIX (/usr/local), COMPONENT (device, tools, doc), INIT (busybox, systemd)
	@cmake -DKV_INIT=$(or $(INIT),none) build/release >/dev/null
	@DESTDIR="$(DESTDIR)" cmake --install build/release --prefix "$(PREFIX)" \
	        $(if $(COMPONENT),--component $(COMPONENT))

deb: build ## Make Debian packages of the PC tools and the documents in build/deb, checked with lintian
	@scripts/setup.sh deb
	@scripts/deb.sh

clean: ## Remove the build folder
	@rm -rf build
