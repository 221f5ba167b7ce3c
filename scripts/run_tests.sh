#!/usr/bin/env bash
# Builds and runs the whole suite in the default, ASan+UBSan, TSan and clang builds (the last
# with the locks checked by the compiler); checks the
# packaging (exported symbols and ABI against abi/, the installed tree used from outside
# with find_package and pkg-config, Android.bp against the CMake targets); cross-builds for
# arm64 and runs the suite under qemu; then a short fuzz run of each fuzz target from its
# seed corpus.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install_deps.sh
start=$(date +%s)
run_preset() {
    echo "=== $1: configure and build"
    cmake --preset "$1" >/dev/null
    cmake --build --preset "$1"
    echo "=== $1: tests"
    ctest --preset "$1"
}
run_preset default
echo "=== packaging: exports and ABI, install, Android.bp"
scripts/abi.sh
scripts/check_install.sh
scripts/check_android_bp.sh
run_preset asan
run_preset tsan
run_preset clang  # clang, with the locks checked: -Wthread-safety -Werror
scripts/arm64.sh
FUZZ_SECONDS=${FUZZ_SECONDS:-30} scripts/fuzz_smoke.sh
echo "=== all suites passed in $(( $(date +%s) - start )) s"
