#!/usr/bin/env bash
# Builds the library and runs the capture-request example.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install_deps.sh
cmake --preset default >/dev/null
cmake --build --preset default --target capture_request
./build/default/examples/capture_request
