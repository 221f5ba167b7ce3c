#!/usr/bin/env bash
# Builds the library, runs the capture-request example, then writes the flat form of a
# sample capture request with zmeta and reads it back as a camera engineer would.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install_deps.sh
cmake --preset default >/dev/null
cmake --build --preset default --target capture_request zmeta
./build/default/examples/capture_request
echo "=== zmeta sample | zmeta dump -"
./build/default/tools/zmeta/zmeta sample | ./build/default/tools/zmeta/zmeta dump -
