#!/usr/bin/env bash
# Builds and runs the whole suite: the default build and the ASan+UBSan build.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install_deps.sh
start=$(date +%s)
for preset in default asan; do
    echo "=== $preset: configure and build"
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset"
    echo "=== $preset: tests"
    ctest --preset "$preset"
done
echo "=== all suites passed in $(( $(date +%s) - start )) s"
