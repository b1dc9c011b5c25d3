#!/usr/bin/env bash
# Builds the Debian package from the build folder, checks its metadata and contents, unpacks it into a
# scratch root, checks the man page and the completion against the packaged kelipc, compiles each public
# header alone as C++11, and builds and runs the examples against the root through the CMake package and
# through pkg-config. Any failure fails the run.
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=scripts/installed-checks.sh
source scripts/installed-checks.sh
begin_check package
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/package" >/dev/null
debs=("$work"/package/*.deb)
if [ "${#debs[@]}" -ne 1 ] || [ ! -f "${debs[0]}" ]; then
    fail "cpack made no .deb, or more than one"
fi
deb=${debs[0]}
echo "$(basename "$deb"):"
dpkg-deb -f "$deb"

version=$("$build/bin/kelipc" --version | sed -n 's/^kelipc //p')
[ "$(dpkg-deb -f "$deb" Package)" = kelipc ] || fail "the package is not named kelipc"
[ "$(dpkg-deb -f "$deb" Version)" = "$version" ] || fail "the package version is not kelipc's $version"
[ "$(dpkg-deb -f "$deb" Architecture)" = amd64 ] || fail "the package is not for amd64"
[[ $(dpkg-deb -f "$deb" Depends) == *libstdc++6* ]] || fail "the package does not depend on libstdc++6"
[[ $(dpkg-deb --ctrl-tarfile "$deb" | tar -t) == *./shlibs* ]] || fail "the package carries no shlibs file"
outside=$(dpkg-deb -c "$deb" | awk '$6 != "./" && $6 !~ /^\.\/usr\// {print $6}')
[ -z "$outside" ] || fail "files outside /usr: $outside"

root=$work/root
dpkg -x "$deb" "$root"
check_layout "$root/usr"
[ "$("$root/usr/bin/kelipc" --version)" = "$(printf 'kelipc %s\nlibKelIpc %s' "$version" "$version")" ] ||
    fail "the packaged kelipc does not report $version for itself and its library"
grep -q 'License: Apache-2.0' "$root/usr/share/doc/kelipc/copyright" || fail "copyright names no license"

echo "=== man page and completion"
bash packaging/test/check-docs.sh "$root/usr/bin/kelipc" "$root/usr/share/man/man1/kelipc.1.gz" \
    "$root/usr/share/bash-completion/completions/kelipc"
echo "docs OK"

echo "=== headers alone in C++11"
for header in "$root"/usr/include/KelIpc/*.h; do
    echo "#include <$(basename "$header")>" |
        g++ -std=c++11 -fsyntax-only -Wall -Wextra -Werror -I"$root/usr/include/KelIpc" -x c++ - ||
        fail "$(basename "$header") does not compile alone as C++11"
done
echo "headers OK"

check_examples "$root/usr" package

echo "package check passed"
