#!/bin/sh
# Checks format, shell scripts, texts, man pages, pictures, packaging, mutant rules and the tests' share of the code.
# Runs static analysis. Stops at the first failing check.
set -eu

cd "$(dirname "$0")/.."
# In percent. Lower it when the share falls.
tests_ceiling=31

echo "lint: clang-format"
git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run -Werror
echo "lint: shellcheck"
{ git grep -lE '^#!/(usr/)?bin/(env )?(ba)?sh' -- . ; git ls-files "*.bash"; } | xargs shellcheck -x
echo "lint: texts"
scripts/check_text.py
echo "lint: man pages"
scripts/check_man.sh
echo "lint: pictures"
scripts/pictures.sh --check
echo "lint: packaging"
scripts/check_packaging.sh
echo "lint: mutants"
scripts/mutants.py --check
echo "lint: share of the tests"
scripts/code_share.py "$tests_ceiling"
# clang's -Wconversion includes sign conversions; GCC's does not.
echo "lint: clang-tidy"
tidy() { # BUILD: checks the files named on standard input, compiled as in that build
    # Standard error has the numbers of suppressed warnings; after a failure it also has the reason.
    xargs -P "$(nproc)" -n 2 clang-tidy -quiet -p "$1" --extra-arg=-Wno-sign-conversion 2>"$1/clang-tidy.log" || {
        grep -v 'warnings\? generated' "$1/clang-tidy.log" >&2 || true
        return 1
    }
}
git ls-files '*.cpp' ':!tests/fuzz' | tidy build/dev || exit 1
[ -f build/fuzz/build.ninja ] || cmake --preset fuzz >/dev/null
git ls-files 'tests/fuzz/*.cpp' | tidy build/fuzz || exit 1
echo "lint: clean"
