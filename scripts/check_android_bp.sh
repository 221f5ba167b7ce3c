#!/usr/bin/env bash
# Android.bp cannot be built here, so it is checked against the CMake build instead: every
# source that a CMake target compiles must appear in Android.bp, and every source Android.bp
# lists (patterns expanded) must be compiled by some CMake target. The CMake side comes from
# the build system itself (its file API, over a configure with every option on: tests,
# benchmarks, examples, fuzz targets and zmeta when present), so globbed tests count too.
# Also fails when the library's sources test for host or device. Prints one line on success;
# names each missing file and fails otherwise.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install_deps.sh  # jq and clang among them

build=build/android-bp-check
query=$build/.cmake/api/v1/query/client-zorcam/query.json
mkdir -p "$(dirname "$query")"
echo '{"requests":[{"kind":"codemodel","version":2}]}' >"$query"
# clang: the fuzz targets refuse any other compiler. Configure only, nothing is built.
if ! log=$(cmake -S . -B "$build" -DCMAKE_CXX_COMPILER=clang++ -DZORCAM_BUILD_FUZZ=ON \
    -DZORCAM_BUILD_TESTS=ON -DZORCAM_BUILD_BENCH=ON -DZORCAM_BUILD_EXAMPLES=ON 2>&1); then
    echo "$log"
    echo "!!! android.bp: the CMake configure failed"
    exit 1
fi

reply=$build/.cmake/api/v1/reply
index=$(ls "$reply"/index-*.json | tail -1)
codemodel=$reply/$(jq -r '.reply["client-zorcam"]["query.json"].responses[0].jsonFile' "$index")
# "<source path relative to the repository>\t<target>" for every compiled source of a target.
cmake_sources=$(
    jq -r '.configurations[0].targets[].jsonFile' "$codemodel" | while read -r t; do
        jq -r '.name as $n | .sources[] | select(.compileGroupIndex != null)
               | select(.isGenerated != true) | "\(.path)\t\($n)"' "$reply/$t"
    done | LC_ALL=C sort -u
)
if [ -z "$cmake_sources" ]; then
    echo "!!! android.bp: the CMake file API listed no sources"
    exit 1
fi

# Quoted source names in Android.bp, comments and generated outputs (`out:`) dropped, patterns
# expanded from this tree.
bp_sources=$(
    sed 's://.*$::' Android.bp | grep -vE '^\s*out:' | grep -oE '"[^"]+\.(cpp|cc|c)"' | tr -d '"' | while read -r f; do
        if [[ "$f" == *"*"* ]]; then
            compgen -G "$f" || true
        else
            echo "$f"
        fi
    done | LC_ALL=C sort -u
)

status=0
while IFS=$'\t' read -r file target; do
    if ! grep -qxF "$file" <<<"$bp_sources"; then
        echo "!!! android.bp: Android.bp lacks $file (compiled by the CMake target $target)"
        status=1
    fi
done <<<"$cmake_sources"
cmake_files=$(cut -f1 <<<"$cmake_sources" | LC_ALL=C sort -u)
while read -r file; do
    [ -n "$file" ] || continue
    if ! grep -qxF "$file" <<<"$cmake_files"; then
        if [ -e "$file" ]; then
            echo "!!! android.bp: Android.bp lists $file, which no CMake target compiles"
        else
            echo "!!! android.bp: Android.bp lists $file, which does not exist"
        fi
        status=1
    fi
done <<<"$bp_sources"
if [ "$status" -ne 0 ]; then
    echo "!!! android.bp: keep Android.bp's module sources equal to the CMake targets'"
    exit 1
fi
# The seam between host and device is the build files' choice of platform libraries: the
# library's own sources are the same in both variants.
if grep -rnE '^[[:space:]]*#[[:space:]]*(if|ifdef|ifndef|elif).*(ANDROID|BIONIC|HOST)' \
    utils updater include; then
    echo "!!! android.bp: the library's sources above choose between host and device; pick the"
    echo "!!! platform in the build files (platform/host/ off the device) instead"
    exit 1
fi
echo "android.bp: the $(wc -l <<<"$cmake_files") sources of the CMake targets agree with Android.bp"
