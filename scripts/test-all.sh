#!/usr/bin/env bash
# Builds and runs every test three times: plain, under AddressSanitizer with UndefinedBehaviorSanitizer, and
# under ThreadSanitizer, each in its own build folder; then a short soak, the install check against the
# examples, and a minute of fuzzing. Any failure or sanitizer report fails the run.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${KELIPC_JOBS:-2}

run_suite() {
    local dir=$1
    shift
    echo "=== $dir"
    cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
    cmake --build "$dir" -j"$jobs"
    ctest --test-dir "$dir" --output-on-failure -j"$jobs"
}

run_suite build
build/bin/kelipc soak --size 2G
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1 \
UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
    run_suite build-asan -DKELIPC_SANITIZE=address
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    run_suite build-tsan -DKELIPC_SANITIZE=thread
scripts/check-install.sh
scripts/check-package.sh
scripts/fuzz.sh 60
echo "all suites passed"
