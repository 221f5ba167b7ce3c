#!/usr/bin/env bash
# Cross-builds the library and the default test suite for arm64, the architecture the library
# ships on, and runs the whole suite under user-mode qemu (death tests included: see
# cmake/qemu-aarch64.sh). Also checks that the arm64 library exports exactly what
# abi/libzorcam_metadata.symbols records. CI runs all of it: 3 to 5 minutes on a 2-core
# machine, most of it the build (the tests take under a minute under qemu). Installs what it
# needs when missing: Debian's cross compiler, qemu-user and the arm64 builds of the android
# libraries, GoogleTest and Google Benchmark (multiarch).
set -euo pipefail
cd "$(dirname "$0")/.."
export DEBIAN_FRONTEND=noninteractive
if ! dpkg --print-foreign-architectures | grep -qx arm64; then
    echo "adding the arm64 architecture to dpkg"
    dpkg --add-architecture arm64
    apt-get update -qq
fi
scripts/install_deps.sh g++-aarch64-linux-gnu binutils-aarch64-linux-gnu qemu-user \
    android-liblog-dev:arm64 android-libbase-dev:arm64 android-libbacktrace-dev:arm64 \
    libgtest-dev:arm64 libgmock-dev:arm64 libbenchmark-dev:arm64
start=$(date +%s)
# The arm64 7z.so that libbacktrace loads, beside the host's amd64 one (see the toolchain file).
overlay=build/arm64-overlay
if [ ! -f "$overlay/usr/lib/p7zip/7z.so" ]; then
    scratch=$(mktemp -d)
    chmod 777 "$scratch"  # apt downloads as its own user
    (cd "$scratch" && apt-get download -qq p7zip-full:arm64 >/dev/null)
    dpkg-deb -x "$scratch"/p7zip-full_*_arm64.deb "$scratch/root"
    mkdir -p "$overlay/usr/lib/p7zip"
    cp "$scratch/root/usr/lib/p7zip/7z.so" "$overlay/usr/lib/p7zip/"
    rm -rf "$scratch"
fi

log=build/arm64.log
mkdir -p build
echo "=== arm64: configure and cross-build"
if ! { cmake --preset arm64 && cmake --build --preset arm64; } >"$log" 2>&1; then
    tail -60 "$log"
    echo "!!! arm64: the cross build failed (whole log in $log)"
    exit 1
fi
lib=build/arm64/utils/metadata/metadata/libzorcam_metadata.so
if ! diff -u --label abi/libzorcam_metadata.symbols --label "exported by the arm64 $lib" \
    abi/libzorcam_metadata.symbols \
    <(aarch64-linux-gnu-nm -D --defined-only -C "$lib" | cut -d' ' -f2- | LC_ALL=C sort); then
    echo "!!! arm64: the arm64 library exports other symbols than abi/ records"
    exit 1
fi
echo "=== arm64: tests under qemu-aarch64"
ctest --preset arm64
echo "=== arm64: passed in $(($(date +%s) - start)) s"
