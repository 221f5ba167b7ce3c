#!/usr/bin/env bash
# Builds the libFuzzer targets (the fuzz preset: clang, ASan+UBSan) and runs each one from
# its seed corpus for a short while (FUZZ_SECONDS, default 30). The fuzzers work on a scratch
# copy of fuzz/corpus, so the repository is left as it is. Fails on any crash, sanitizer
# report, leak, timeout or broken property; the input that did it is kept under
# build/fuzz/artifacts/ and its stack is printed.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install_deps.sh
seconds=${FUZZ_SECONDS:-30}
targets=(MetadataCheck_fuzz MetadataFlat_fuzz MetadataOps_fuzz AndroidPacket_fuzz)

echo "=== fuzz: configure and build"
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --target "${targets[@]}"

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
artifacts=build/fuzz/artifacts
failed=0
for target in "${targets[@]}"; do
    mkdir -p "$scratch/$target"
    cp fuzz/corpus/"$target"/* "$scratch/$target/"
    log="$scratch/$target.log"
    echo "=== $target: ${seconds} s from $(ls fuzz/corpus/"$target" | wc -l) seeds"
    # -detect_leaks=0: the library releases what a reader without the lock may still be in
    # only after such readers have left, so nearly every input ends with more allocated than
    # freed, and the check after each input would stop the run at every one of them. Leaks
    # are still found when the process exits (AddressSanitizer's own check).
    if build/fuzz/fuzz/"$target" -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=5 \
        -detect_leaks=0 \
        -print_final_stats=1 -artifact_prefix="$scratch/$target-" "$scratch/$target" \
        >"$log" 2>&1; then
        grep -E '^stat::number_of_executed_units|^stat::peak_rss_mb' "$log" | sed 's/^/    /'
    else
        failed=1
        echo "!!! $target failed:"
        grep -vE '^#[0-9]+[[:space:]]+(NEW|REDUCE|pulse)|NEW_FUNC' "$log" | tail -80
        mkdir -p "$artifacts"
        for f in "$scratch/$target"-*; do
            [ -e "$f" ] || continue
            cp "$f" "$artifacts/"
            echo "!!! input kept as $artifacts/$(basename "$f")"
        done
    fi
done
if [ "$failed" -ne 0 ]; then
    echo "=== fuzz smoke run FAILED"
    exit 1
fi
echo "=== fuzz smoke run passed (${#targets[@]} targets, ${seconds} s each)"
