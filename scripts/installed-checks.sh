# shellcheck shell=bash
# Sourced by check-install.sh and check-package.sh: the scratch folder and build both begin with, and the
# checks of what they put into an installation PREFIX.
jobs=${KELIPC_JOBS:-2}
build=${KELIPC_BUILD_DIR:-build}
check_name=check

fail() {
    echo "$check_name: $*" >&2
    exit 1
}

# begin_check NAME: names the check in its failures, makes the scratch folder $work (removed on exit,
# with any example server still running) and builds the build folder.
begin_check() {
    check_name=check-$1
    work=$(mktemp -d "/tmp/kelipc-$1.XXXXXX")
    trap 'examples_cleanup; rm -rf "$work"' EXIT
    echo "=== $1 ($build)"
    if [ ! -f "$build/CMakeCache.txt" ]; then
        cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
    fi
    cmake --build "$build" -j"$jobs"
}

if ! command -v pkg-config >/dev/null 2>&1; then
    if [ "$(id -u)" -eq 0 ]; then
        apt-get install -y pkg-config
    else
        echo "pkg-config is missing; install it (apt-get install pkg-config) and run again" >&2
        exit 1
    fi
fi

# check_layout PREFIX: every file in its place, the libraries behind their SONAME links, no archive.
check_layout() {
    local prefix=$1 file library
    for file in include/KelIpc/KelIpc.h include/KelIpc/KelIpcDefine.h include/KelIpc/KelIpcVersion.h \
        include/KelIpc/KelLogger.h include/KelIpc/KelDateTime.h bin/kelipc lib/cmake/KelIpc/KelIpcConfig.cmake \
        lib/cmake/KelIpc/KelIpcConfigVersion.cmake lib/cmake/KelIpc/KelIpcTargets.cmake lib/pkgconfig/kelipc.pc \
        share/man/man1/kelipc.1.gz share/bash-completion/completions/kelipc share/doc/kelipc/LICENSE \
        share/doc/kelipc/copyright; do
        [ -e "$prefix/$file" ] || fail "$file is not installed"
    done
    "$prefix/bin/kelipc" --help >/dev/null || fail "the installed kelipc does not run"
    local major
    major=$("$prefix/bin/kelipc" --version | sed -n 's/^libKelIpc \([0-9]*\)\..*/\1/p')
    for library in KelIpc KelLogger KelDateTime; do
        local soname=lib$library.so.$major
        if [ ! -L "$prefix/lib/lib$library.so" ] || [ ! -L "$prefix/lib/$soname" ] || [ ! -f "$prefix/lib/$soname" ]; then
            fail "lib$library.so is not installed behind the links lib$library.so and $soname"
        fi
        [[ $(readelf -d "$prefix/lib/lib$library.so") == *"Library soname: [$soname]"* ]] ||
            fail "lib$library.so does not carry the SONAME $soname"
    done
    [ -z "$(find "$prefix" -name '*.a')" ] || fail "a static archive was installed"
    echo "layout OK"
}

# check_examples PREFIX LABEL: builds the examples against PREFIX once through its CMake package and once
# through pkg-config alone, and runs each server and client pair.
server_pid=
examples_cleanup() {
    if [ -n "$server_pid" ]; then
        kill "$server_pid" 2>/dev/null || true
        wait "$server_pid" 2>/dev/null || true
    fi
}

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

check_examples() {
    local prefix=$1 label=$2
    echo "=== examples through find_package ($label)"
    cmake -S examples -B "$work/$label-cmake" -DCMAKE_PREFIX_PATH="$prefix" \
        -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror" >/dev/null
    cmake --build "$work/$label-cmake" -j"$jobs"
    run_pair "$label-cmake" "$work/$label-cmake"
    echo "=== reconnect example ($label)"
    local out=$work/$label-reconnect.txt
    timeout 30 "$work/$label-cmake/reconnect" "kelipc-check-$$-$label-again" >"$out" 2>&1 ||
        { cat "$out"; fail "$label: the reconnect example failed"; }
    cat "$out"
    [ "$(grep -c '^client: got "hello from the server"' "$out")" -eq 1 ] || fail "$label: a reconnect was missing"
    for line in 'server: a client died after 32 bytes' 'server: a client closed lingering after 64 bytes' \
        'server: a client shut its writing down after 64 bytes' \
        'client: got "all read" after shutting its writing down'; do
        grep -qxF "$line" "$out" || fail "$label: the outliving server missed: $line"
    done

    echo "=== epoll_echo example ($label)"
    local poll_out=$work/$label-epoll.txt names=() pids=() n
    for n in 1 2 3; do names+=("kelipc-check-$$-$label-poll$n"); done
    timeout 30 "$work/$label-cmake/epoll_echo" "${names[@]}" >"$poll_out" 2>&1 &
    server_pid=$!
    # The clients run at once, so the one loop serves them side by side.
    for n in 1 2 3; do
        timeout 20 "$work/$label-cmake/epoll_echo" --client "${names[n - 1]}" "hello $n" >"$poll_out.$n" 2>&1 &
        pids+=($!)
    done
    for n in 1 2 3; do wait "${pids[n - 1]}" || { cat "$poll_out"*; fail "$label: epoll_echo client $n failed"; }; done
    wait "$server_pid" || { cat "$poll_out"*; fail "$label: the epoll_echo server failed"; }
    server_pid=
    cat "$poll_out"*
    for n in 1 2 3; do
        grep -qxF "client ${names[n - 1]}: got \"hello $n\"" "$poll_out.$n" || fail "$label: no echo for client $n"
        grep -qxF "epoll_echo: ${names[n - 1]}: echoed 7 bytes" "$poll_out" || fail "$label: the server missed client $n"
    done
    for n in 1 2 3; do
        for object in /dev/shm/*"${names[n - 1]}"*; do [ ! -e "$object" ] || fail "$label: $object was left behind"; done
    done

    echo "=== examples through pkg-config ($label)"
    mkdir "$work/$label-pkgconfig"
    local flags
    flags=$(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --cflags --libs kelipc)
    echo "pkg-config --cflags --libs kelipc: $flags"
    for program in server client; do
        # shellcheck disable=SC2086  # the flags are meant to split into words
        g++ -std=c++17 -Wall -Wextra -Werror "examples/$program.cpp" -o "$work/$label-pkgconfig/$program" \
            $flags -Wl,-rpath,"$prefix/lib"
    done
    run_pair "$label-pkgconfig" "$work/$label-pkgconfig"
}
