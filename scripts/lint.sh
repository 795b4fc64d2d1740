#!/bin/sh
# Checks format, shell scripts, man pages and packaging, and runs static analysis. Stops at the first failing check.
set -eu

cd "$(dirname "$0")/.."
echo "lint: clang-format"
git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run -Werror
echo "lint: shellcheck"
{ git grep -lE '^#!/(usr/)?bin/(env )?(ba)?sh' -- . ; git ls-files "*.bash"; } | xargs shellcheck -x
echo "lint: man pages"
scripts/check_man.sh
echo "lint: packaging"
scripts/check_packaging.sh
# clang's -Wconversion includes sign conversions; GCC's does not.
echo "lint: clang-tidy"
git ls-files '*.cpp' |
    xargs -P "$(nproc)" -n 2 clang-tidy -quiet -p build/dev --extra-arg=-Wno-sign-conversion 2>/dev/null
echo "lint: clean"
