#!/usr/bin/env bash
# Builds and runs the whole suite in the default, ASan+UBSan and TSan builds, then a short
# fuzz run of each fuzz target from its seed corpus.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install_deps.sh
start=$(date +%s)
for preset in default asan tsan; do
    echo "=== $preset: configure and build"
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset"
    echo "=== $preset: tests"
    ctest --preset "$preset"
done
FUZZ_SECONDS=${FUZZ_SECONDS:-30} scripts/fuzz_smoke.sh
echo "=== all suites passed in $(( $(date +%s) - start )) s"
