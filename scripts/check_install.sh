#!/usr/bin/env bash
# Installs the default build into a scratch prefix and uses it as a camera component outside
# this tree would: tests/consumer is configured with find_package(zorcam_metadata CONFIG),
# built and run, then compiled again with the flags of pkg-config and run. Also checks the
# SONAME, that every installed program and library finds its libraries, and that nothing
# installed points back into the build tree. One line on success.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install_deps.sh  # pkgconf among them

cmake --preset default >/dev/null
cmake --build --preset default >/dev/null
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
fail() {
    echo "!!! install: $*"
    exit 1
}
cmake --install build/default --prefix "$prefix/usr" >"$prefix/install.log" ||
    { cat "$prefix/install.log"; fail "cmake --install failed"; }
root=$prefix/usr
libdir=$(dirname "$(find "$root" -name 'libzorcam_metadata.so' | head -1)")
[ -d "$libdir" ] || fail "no libzorcam_metadata.so under the prefix"

soname=$(readelf -d "$libdir/libzorcam_metadata.so" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[[ "$soname" =~ ^libzorcam_metadata\.so\.[0-9]+$ ]] || fail "SONAME is '$soname'"
[ -e "$libdir/$soname" ] || fail "$soname is not installed"
for f in $(find "$root" -type f \( -name '*.so*' -o -perm -u+x \)); do
    readelf -h "$f" >/dev/null 2>&1 || continue  # ELF files only
    if readelf -d "$f" | grep -E 'R(UN)?PATH' | grep -qF "$PWD"; then
        fail "$f still searches the build tree: $(readelf -d "$f" | grep -E 'R(UN)?PATH')"
    fi
    if ldd "$f" | grep -q 'not found'; then
        fail "$f misses libraries: $(ldd "$f" | grep 'not found' | tr -s '\n\t ' ' ')"
    fi
done
[ -n "$(find "$root" -name zorcam_metadataConfig.cmake)" ] || fail "no CMake package"

# find_package
if ! log=$(cmake -S tests/consumer -B "$prefix/consumer" -DCMAKE_PREFIX_PATH="$root" \
    -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror" 2>&1 &&
    cmake --build "$prefix/consumer" 2>&1); then
    echo "$log"
    fail "the consumer does not build with find_package(zorcam_metadata)"
fi
"$prefix/consumer/consumer" >/dev/null || fail "the find_package consumer failed"

# pkg-config (the loader is told where the library is, as ld.so.conf would on a device image)
pcdir=$(dirname "$(find "$root" -name zorcam_metadata.pc)")
flags=$(PKG_CONFIG_PATH=$pcdir pkg-config --cflags --libs zorcam_metadata) ||
    fail "pkg-config does not know zorcam_metadata"
# shellcheck disable=SC2086  # the flags are words
g++ -Wall -Wextra -Werror tests/consumer/consumer.cpp $flags -o "$prefix/pc_consumer" ||
    fail "the consumer does not build with: pkg-config --cflags --libs zorcam_metadata"
LD_LIBRARY_PATH=$libdir "$prefix/pc_consumer" >/dev/null || fail "the pkg-config consumer failed"

echo "install: $(find "$root" -type f | wc -l) files installed; the consumer builds and runs" \
    "with find_package and with pkg-config"
