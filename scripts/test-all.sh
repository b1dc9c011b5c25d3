#!/usr/bin/env bash
# Builds and runs every test three times: plain, under AddressSanitizer with UndefinedBehaviorSanitizer, and
# under ThreadSanitizer, each in its own build folder; then a short soak, the install check against the
# examples, and a minute of fuzzing. One line per stage with its time; each stage's own output goes to
# build-logs/<stage>.log and is shown only when the stage fails, which fails the run.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${KELIPC_JOBS:-2}
logs=build-logs
mkdir -p "$logs"

stage() {
    local name=$1
    shift
    local log=$logs/${name// /-}.log
    local begin=$SECONDS
    if "$@" >"$log" 2>&1; then
        printf '%-22s ok     %4d s\n' "$name" $((SECONDS - begin))
    else
        printf '%-22s FAILED %4d s; the end of %s:\n' "$name" $((SECONDS - begin)) "$log"
        tail -n 80 "$log"
        exit 1
    fi
}

configure_and_build() {
    cmake -S . -B "$1" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${@:2}" && cmake --build "$1" -j"$jobs"
}

# suite LABEL DIR [cmake options]
suite() {
    stage "$1 build" configure_and_build "${@:2}"
    stage "$1 tests" ctest --test-dir "$2" --output-on-failure -j"$jobs"
}

total=$SECONDS
suite plain build
stage soak build/bin/kelipc soak --size 2G
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1 \
UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
    suite asan+ubsan build-asan -DKELIPC_SANITIZE=address
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    suite tsan build-tsan -DKELIPC_SANITIZE=thread
stage install-check scripts/check-install.sh
stage package-check scripts/check-package.sh
stage fuzz scripts/fuzz.sh 60
echo "all stages passed in $((SECONDS - total)) s"
