#!/usr/bin/env bash
# Installs the project into a temporary prefix, builds the examples against it once through the CMake
# package and once through pkg-config alone, and runs each server and client pair. Any failure fails the run.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${KELIPC_JOBS:-2}
build=${KELIPC_BUILD_DIR:-build}

work=$(mktemp -d /tmp/kelipc-check.XXXXXX)
# shellcheck source=scripts/installed-checks.sh
source scripts/installed-checks.sh
cleanup() {
    examples_cleanup
    rm -rf "$work"
}
trap cleanup EXIT

fail() {
    echo "check-install: $*" >&2
    exit 1
}

echo "=== install ($build)"
if [ ! -f "$build/CMakeCache.txt" ]; then
    cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
cmake --build "$build" -j"$jobs"
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null

check_layout "$prefix"
check_examples "$prefix" install

echo "install check passed"
