#!/bin/bash
# fuzz.sh SECONDS [NAME]: builds the fuzzers, or one of them, and runs them, two at a time. Each replays the seeds and
# what earlier runs have collected in build/fuzz/corpus, then runs for SECONDS. With 0 it only replays. An input that
# ends a fuzzer stays in build/fuzz/crashes. Fails if there is one.
# fuzz.sh coverage: replays the seeds, prints how much of each file they reach (scripts/fuzz_coverage.py), and rewrites
# the table in docs/testing.md.
set -euo pipefail

cd "$(dirname "$0")/.."
readarray -t names < <(sed -n 's/^kv_fuzzer(\([a-z]*\).*/\1/p' tests/fuzz/CMakeLists.txt)
[ -z "${2-}" ] || names=("$2")
# Standard output and error of the code under test are dropped; the fuzzer's own messages are not.
options=(-close_fd_mask=3 -timeout=25 -rss_limit_mb=2048 -max_len=2048 -print_final_stats=1)

run() { # SECONDS NAME
    local log=build/fuzz/$2.log limit=-max_total_time=$1 status=0
    [ "$1" -gt 0 ] || limit=-runs=0
    mkdir -p "build/fuzz/corpus/$2" build/fuzz/crashes
    "build/fuzz/bin/fuzz_$2" "${options[@]}" "$limit" -dict=tests/fuzz/words.dict \
        -artifact_prefix="build/fuzz/crashes/$2-" "build/fuzz/corpus/$2" "tests/fuzz/seeds/$2" >"$log" 2>&1 &
    local pid=$!
    wait "$pid" || status=$?
    # The fuzzer's files in memory. It removes them itself, unless it has found something.
    rm -rf "/dev/shm/fuzz-$pid"
    awk -v name="$2" '/^stat::number_of_executed_units/ { runs = $2 } /^stat::average_exec_per_sec/ { rate = $2 }
        $3 == "cov:" { edges = $4 }
        END { printf "%-12s %10d executions  %7d/s  %6d edges\n", name, runs, rate, edges }' "$log"
    if [ "$status" -ne 0 ]; then
        echo "fuzz: $2 has found something; the input, as a file and in base64:" >&2
        grep -E "ERROR|runtime error|SUMMARY|Test unit written|^Base64| #[0-9]+ .*$PWD" "$log" | head -30 >&2
        return 1
    fi
}

if [ "$1" = coverage ]; then
    scripts/build.sh fuzz-coverage --target fuzzers >/dev/null
    export LLVM_PROFILE_FILE
    for name in "${names[@]}"; do
        LLVM_PROFILE_FILE=build/fuzz-coverage/$name.profraw
        "build/fuzz-coverage/bin/fuzz_$name" "${options[@]}" -runs=0 "tests/fuzz/seeds/$name" \
            >"build/fuzz-coverage/$name.log" 2>&1
    done
    exec scripts/fuzz_coverage.py "${names[@]}"
fi
mkdir -p build
scripts/build.sh fuzz --target "${2:+fuzz_}${2:-fuzzers}" >build/fuzz.log || { cat build/fuzz.log && exit 1; }
export -f run
export options_text="${options[*]}"
printf '%s\n' "${names[@]}" | xargs -P 2 -I NAME bash -euo pipefail -c "options=(\$options_text); run $1 NAME"
