#!/usr/bin/env bash
# Installs the Debian 12 packages the build needs, when they are missing (run as root).
# Packages given as arguments are installed too (scripts/arm64.sh passes its cross ones).
set -euo pipefail
packages=(cmake g++ clang libclang-rt-14-dev libgtest-dev libgmock-dev googletest
          libbenchmark-dev android-liblog-dev android-libbase-dev android-libbacktrace-dev
          nlohmann-json3-dev libcli11-dev abigail-tools pkgconf jq "$@")
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "installing: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
