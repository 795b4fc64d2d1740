# Thin: each target is one line of help and little more. `make help` lists them.
# Most tests wait for clocks, so twice as many as there are cores run side by side.
JOBS ?= $(shell expr 2 \* $$(nproc))
PREFIX ?= /usr/local

.DEFAULT_GOAL := help
.PHONY: help setup build arm size tests-build demo demo-ladder bench bench-discovery board board-shell test unit mutants \
        lint format sanitize packaging-check install clean

help: ## List the targets
	@sed -n 's/^\([a-z-]*\):.*## /\1\t/p' $(MAKEFILE_LIST) | expand -t 18

setup: ## Install the missing Debian packages (scripts/packages.txt)
	@scripts/setup.sh

build: setup ## Build the device program and the PC tools into build/bin
	@scripts/build.sh release

arm: setup ## Build the device program for ARM, dynamic and static, into build/arm
	@scripts/build_arm.sh

size: build ## Show what takes the space in the device program; fails when it grew (UPDATE=1 writes the figures)
	@scripts/size.sh $(if $(UPDATE),--update)

tests-build: build
	@scripts/build.sh dev

demo: build ## Watch a dead camera come back: recovery, upgrade, reboot (under a minute)
	@scripts/demo.sh

demo-ladder: build ## Watch a silent application: restart, reboot, recovery (under a minute)
	@scripts/demo_ladder.sh

bench: build ## Measure an upload against socat on the same virtual link
	@scripts/bench_upload.sh

bench-discovery: build ## Compare the rate of discovery answers with a bare UDP echo's
	@scripts/bench_discovery.sh

board: build ## Try the program on an emulated ARM board with a real kernel (3 minutes; docs/board.md)
	@scripts/board.sh run

board-shell: build ## Sit at that board's console
	@scripts/board.sh shell

test: tests-build ## Run all unit and system tests
	@ctest --test-dir build/dev --output-on-failure -j $(JOBS)

unit: tests-build ## Run the unit tests only
	@ctest --test-dir build/dev --output-on-failure -j $(JOBS) -L unit

mutants: setup ## Break the programs on purpose and see which tests notice (MODULE=, NAME=; docs/testing.md)
	@scripts/mutants.py --module "$(MODULE)" --name "$(NAME)"

lint: tests-build ## Check format (clang-format), code (clang-tidy), scripts (shellcheck), man pages, packaging
	@scripts/lint.sh

packaging-check: build ## Check the recipes and scripts of packaging/ and what they install
	@scripts/check_packaging.sh

format: setup ## Format all C++ files in place
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

sanitize: setup ## Run the unit tests under ASan + UBSan and under TSan
	@scripts/sanitize.sh

install: build ## Install into DESTDIR and PREFIX (/usr/local); COMPONENT=device, tools or doc for a part
	@DESTDIR="$(DESTDIR)" cmake --install build/release --prefix "$(PREFIX)" $(if $(COMPONENT),--component $(COMPONENT))

clean: ## Remove the build folder
	@rm -rf build
