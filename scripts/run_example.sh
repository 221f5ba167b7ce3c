#!/usr/bin/env bash
# Builds the library, runs the capture-request example, then writes a still-capture request
# as an app sends it (an Android packet) with zmeta and reads it back with names and values.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install_deps.sh
cmake --preset default >/dev/null
cmake --build --preset default --target capture_request zmeta
./build/default/examples/capture_request
echo "=== zmeta sample --format android | zmeta dump -"
./build/default/tools/zmeta/zmeta sample --format android | ./build/default/tools/zmeta/zmeta dump -
