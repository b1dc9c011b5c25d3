#!/usr/bin/env bash
# Fuzzes the ring buffer for SECONDS (default 60) on one core. With clang's fuzzer runtime the harness runs
# under libFuzzer, seeded from the corpus kept in the repository; new entries go to build-fuzz/corpus, never
# into the repository. Without it, the harness's own seeded random driver replays the corpus and then runs
# random programs. The fuzzer's own output goes to build-fuzz/fuzz.log and is shown only when it fails. Any
# failed check, crash or sanitizer report fails the script.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
out=build-fuzz
ipc=BaseAPI/KelIpc
seeds=$ipc/fuzz/corpus
mkdir -p "$out"
log=$out/fuzz.log

# Runs the fuzzer with its output in the log; on failure shows the end of it.
run_logged() {
    if "$@" >"$log" 2>&1; then
        return 0
    fi
    echo "fuzzing FAILED; the end of $log:"
    tail -n 60 "$log"
    exit 1
}

sources=(
    "$ipc/fuzz/KelCycleBufferFuzz.cpp"
    "$ipc/src/KelCycleBuffer/KelCycleBuffer.cpp"
    "$ipc/src/KelCycleBuffer/KelCycleBufferPrivate.cpp"
    "$ipc/src/KelSecureMem.cpp"
    # The ring calls the system semaphore's Acquire and Release, so it must link even though no input
    # reaches them.
    "$ipc/src/unix/KelSystemSemaphore.cpp"
    "$ipc/src/unix/KelTrust.cpp"
    BaseAPI/KelLogger/src/KelLogger.cpp
    BaseAPI/KelDateTime/src/KelDateTime.cpp
)
includes=(-I"$ipc/include" -I"$ipc/src" -IBaseAPI/KelLogger/include -IBaseAPI/KelDateTime/include)
warnings=(-Wall -Wextra -Werror)
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
export UBSAN_OPTIONS=halt_on_error=1:abort_on_error=1:print_stacktrace=1

probe=$out/probe.cpp
printf 'extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }\n' >"$probe"
if command -v clang++ >/dev/null 2>&1 &&
    clang++ -fsanitize=fuzzer "$probe" -o "$out/probe" >/dev/null 2>&1; then
    echo "=== libFuzzer, $seconds s"
    clang++ -std=c++17 -g -O1 -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=all \
        "${warnings[@]}" "${includes[@]}" "${sources[@]}" -pthread -o "$out/KelCycleBufferFuzz"
    mkdir -p "$out/corpus"
    # -timeout turns a transfer that blocks into a reported failure rather than a stall.
    # -len_control=0 lets programs grow long at once: header damage does harm only in combination.
    run_logged timeout $((seconds + 300)) "$out/KelCycleBufferFuzz" -max_total_time="$seconds" -timeout=10 \
        -max_len=1024 -len_control=0 -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$out/" \
        "$out/corpus" "$seeds"
else
    echo "=== standalone driver (no libFuzzer runtime), $seconds s"
    g++ -std=c++17 -g -O1 -fsanitize=address,undefined -fno-sanitize-recover=all -DKELIPC_FUZZ_STANDALONE \
        "${warnings[@]}" "${includes[@]}" "${sources[@]}" -pthread -o "$out/KelCycleBufferFuzzStandalone"
    KELIPC_FUZZ_CRASH_FILE=$out/crash-standalone \
        run_logged timeout $((seconds + 300)) "$out/KelCycleBufferFuzzStandalone" "$seconds" "$seeds"
fi
runs=$(grep -o 'number_of_executed_units: [0-9]*' "$log" | grep -o '[0-9]*$' || true)
echo "fuzzing passed${runs:+ ($runs inputs)}; its output: $log"
