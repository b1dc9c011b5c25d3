#!/usr/bin/env bash
# Installs the project into a temporary prefix, builds the examples against it once through the CMake
# package and once through pkg-config alone, and runs each server and client pair. Any failure fails the run.
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=scripts/installed-checks.sh
source scripts/installed-checks.sh
begin_check install
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null

check_layout "$prefix"
check_examples "$prefix" install

echo "install check passed"
