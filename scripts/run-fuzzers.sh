#!/usr/bin/env bash
# Builds the fuzz harnesses of tests/fuzz/ with Clang, libFuzzer, AddressSanitizer and
# UndefinedBehaviorSanitizer, and runs each for a while from its seed corpus. Any crash, leak,
# timeout (one input taking over 10 s) or allocation above 256 MiB fails the run; the input that
# did it is kept in the work folder and its path printed.
#
# Usage: scripts/run-fuzzers.sh [-t SECONDS] [-j PARALLEL] [-b BUILD] [HARNESS...]
#   -t  seconds per harness (default 30, or $STEMLIB_FUZZ_SECONDS)
#   -j  harnesses run at once (default: the number of processors)
#   -b  build folder (default build-fuzz)
#   HARNESS  names such as config or fuzz_config (default: every harness)
#
# New inputs that a run finds go to <build>/fuzz-runs/<harness>/corpus, never into the source
# tree; a finding's input is added to tests/fuzz/corpus/<harness>/ by hand with its fix.
set -euo pipefail
cd "$(dirname "$0")/.."

SECONDS_EACH="${STEMLIB_FUZZ_SECONDS:-30}"
PARALLEL="$(nproc)"
BUILD="build-fuzz"
while getopts "t:j:b:" option; do
    case "$option" in
        t) SECONDS_EACH="$OPTARG" ;;
        j) PARALLEL="$OPTARG" ;;
        b) BUILD="$OPTARG" ;;
        *) exit 2 ;;
    esac
done
shift $((OPTIND - 1))
BUILD="$(realpath -m "$BUILD")"

echo "fuzz: building the harnesses in $BUILD"
mkdir -p "$BUILD"
CC=clang CXX=clang++ cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DSTEMLIB_WERROR=ON -DSTEMLIB_SANITIZE=ON -DSTEMLIB_FUZZ=ON \
    -DSTEMLIB_BUILD_BENCHMARKS=OFF -DSTEMLIB_BUILD_EXAMPLES=OFF > "$BUILD/configure.log" 2>&1 ||
    { cat "$BUILD/configure.log" >&2; exit 1; }
cmake --build "$BUILD" -j "$(nproc)" --target stemlib_fuzzers stemlib_fuzz_seeds > /dev/null

HARNESSES=()
if [ "$#" -eq 0 ]; then
    for source in tests/fuzz/fuzz_*.cpp; do
        HARNESSES+=("$(basename "$source" .cpp)")
    done
else
    for name in "$@"; do
        HARNESSES+=("fuzz_${name#fuzz_}")
    done
fi

# The sanitizers' reports end the run; the host platform starts from its default camera. A small
# quarantine of freed memory keeps the resident size of a long run under the limit (the
# libraries alone take about 100 MiB with the sanitizer's shadow memory).
export ASAN_OPTIONS="halt_on_error=1:abort_on_error=1:detect_leaks=1:quarantine_size_mb=16"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
unset STEMLIB_HOST_CAMERA STEMLIB_HOST_FAIL

RUNS="$BUILD/fuzz-runs"
run_one() { # harness
    local harness="$1" reader="${1#fuzz_}" work="$RUNS/${1#fuzz_}"
    local corpora=("tests/fuzz/corpus/$reader")
    [ -d "$BUILD/tests/fuzz/seeds/$reader" ] && corpora+=("$BUILD/tests/fuzz/seeds/$reader")
    rm -rf "$work"
    mkdir -p "$work/corpus" "$work/findings"
    local status=0
    "$BUILD/tests/fuzz/$harness" -max_total_time="$SECONDS_EACH" -timeout=10 \
        -rss_limit_mb=256 -malloc_limit_mb=256 -print_final_stats=1 \
        -artifact_prefix="$work/findings/" "$work/corpus" "${corpora[@]}" \
        > "$work/log" 2>&1 || status=$?
    local runs
    runs="$(sed -n 's/^stat::number_of_executed_units: *//p' "$work/log" | tail -n 1)"
    if [ "$status" -eq 0 ]; then
        echo "fuzz: $reader: ${runs:-?} inputs in ${SECONDS_EACH} s, no finding"
    else
        # The input that ended the run is the last one written: a child process of the harness
        # (the host inference service tries models in one) can write one of its own before.
        echo "fuzz: $reader: FAILED (status $status) after ${runs:-?} inputs; its input:" \
            "$(sed -n 's/.*Test unit written to //p' "$work/log" | tail -n 1)"
        grep -m 12 -E 'ERROR|SUMMARY|runtime error|fuzz property|#[0-9]+ 0x' "$work/log" | head -n 12
        return 1
    fi
}

failed=0
running=0
for harness in "${HARNESSES[@]}"; do
    if [ ! -x "$BUILD/tests/fuzz/$harness" ]; then
        echo "fuzz: no harness $harness" >&2
        exit 2
    fi
    run_one "$harness" &
    running=$((running + 1))
    if [ "$running" -ge "$PARALLEL" ]; then
        wait -n || failed=1
        running=$((running - 1))
    fi
done
while [ "$running" -gt 0 ]; do
    wait -n || failed=1
    running=$((running - 1))
done

if [ "$failed" -ne 0 ]; then
    echo "fuzz: findings; the logs are in $RUNS/<harness>/log" >&2
    exit 1
fi
echo "fuzz: ${#HARNESSES[@]} harnesses, no finding"
