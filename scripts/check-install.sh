#!/usr/bin/env bash
# Installs the project into a temporary prefix, builds the examples against it once through the CMake
# package and once through pkg-config alone, and runs each server and client pair. Any failure fails the run.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${KELIPC_JOBS:-2}
build=${KELIPC_BUILD_DIR:-build}

if ! command -v pkg-config >/dev/null 2>&1; then
    if [ "$(id -u)" -eq 0 ]; then
        apt-get install -y pkg-config
    else
        echo "check-install: pkg-config is missing; install it (apt-get install pkg-config) and run again" >&2
        exit 1
    fi
fi

work=$(mktemp -d /tmp/kelipc-check.XXXXXX)
server_pid=
cleanup() {
    if [ -n "$server_pid" ]; then
        kill "$server_pid" 2>/dev/null || true
        wait "$server_pid" 2>/dev/null || true
    fi
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

for file in lib/libKelIpc.so lib/libKelIpc.so.1 lib/libKelLogger.so lib/libKelDateTime.so \
    include/KelIpc/KelIpc.h include/KelIpc/KelIpcDefine.h include/KelIpc/KelLogger.h \
    include/KelIpc/KelDateTime.h bin/kelipc lib/cmake/KelIpc/KelIpcConfig.cmake \
    lib/cmake/KelIpc/KelIpcConfigVersion.cmake lib/pkgconfig/kelipc.pc; do
    [ -e "$prefix/$file" ] || fail "$file is not installed"
done
[ -z "$(find "$prefix" -name '*.a')" ] || fail "a static archive was installed"
"$prefix/bin/kelipc" --help >/dev/null || fail "the installed kelipc does not run"
echo "layout OK"

# Starts the client only once the server has opened, so that it never meets a half-created channel.
run_pair() {
    local label=$1 dir=$2
    local name=kelipc-check-$$-$label out=$work/$label
    echo "=== run ($label)"
    timeout 20 "$dir/server" "$name" >"$out-server.txt" 2>&1 &
    server_pid=$!
    for ((i = 0; i < 200; i++)); do
        grep -q '^server: listening' "$out-server.txt" && break
        kill -0 "$server_pid" 2>/dev/null || break
        sleep 0.05
    done
    local client_rc=0 server_rc=0
    timeout 20 "$dir/client" "$name" >"$out-client.txt" 2>&1 || client_rc=$?
    wait "$server_pid" || server_rc=$?
    server_pid=
    cat "$out-server.txt" "$out-client.txt"
    [ "$server_rc" -eq 0 ] || fail "$label: the server exited with $server_rc"
    [ "$client_rc" -eq 0 ] || fail "$label: the client exited with $client_rc"
    grep -qx 'client: got "hello, client"' "$out-client.txt" || fail "$label: the client printed no reply"
    # The library logs only failures, so any other line means something went wrong on the way.
    ! grep -v '^\(server\|client\): ' "$out-server.txt" "$out-client.txt" || fail "$label: unexpected output"
    for segment in /dev/shm/*"$name"*; do
        [ ! -e "$segment" ] || fail "$label: $segment was left behind"
    done
}

echo "=== examples through find_package"
cmake -S examples -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror" \
    >/dev/null
cmake --build "$work/cmake" -j"$jobs"
run_pair cmake "$work/cmake"

echo "=== examples through pkg-config"
mkdir "$work/pkgconfig"
flags=$(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --cflags --libs kelipc)
echo "pkg-config --cflags --libs kelipc: $flags"
for program in server client; do
    # shellcheck disable=SC2086  # the flags are meant to split into words
    g++ -std=c++17 -Wall -Wextra -Werror "examples/$program.cpp" -o "$work/pkgconfig/$program" $flags \
        -Wl,-rpath,"$prefix/lib"
done
run_pair pkgconfig "$work/pkgconfig"

echo "install check passed"
