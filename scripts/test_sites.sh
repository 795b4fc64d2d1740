#!/bin/sh
# Runs the tests of whole sites: those of `make test-fleet`, of the page in browsers, and of the Ansible collection. The
# programs must have been built and the packages installed.
set -eu

cd "$(dirname "$0")/.."
ctest --test-dir build/dev --output-on-failure -L fleet
if tests/page/run.sh --fetch; then
    tests/page/run.sh
else
    echo "ci: make test-page was NOT RUN: its npm packages are neither there nor available" >&2
fi
tests/ansible/site_test.py
