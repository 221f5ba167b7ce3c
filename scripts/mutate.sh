#!/usr/bin/env bash
# Mutation run: how many small faults planted in the library does the test suite catch?
#
# Each line of scripts/mutants.txt names a file, one line of it (or a fragment found exactly
# once in it), a replacement, and optionally the build the suite runs in for it: "asan" or
# "tsan" for a fault only a sanitizer sees (a block released too early, a race), the default
# preset otherwise. The script copies the tree to a scratch directory outside the repository,
# builds there once each preset the selected mutants need (benchmarks and examples left out,
# warnings not fatal, ccache when installed) and checks that the unmutated suite passes in
# each. Then for each mutant: apply it, rebuild incrementally, run ctest (stopping at the first
# failure, each test under a time limit, so a mutant that hangs is killed by timeout), put the
# file back. One line per mutant:
#   killed (by what) | survived | stale (text not found once: fix the list) | build-failed
# and at the end "kill rate: K/N", N counting killed and survived only.
#
#   taskset -c 0 scripts/mutate.sh -j 1              # the whole list, pinned to core 0
#   scripts/mutate.sh -f '^(C|N)0'                   # only ids matching a regex
#   scripts/mutate.sh -l                             # check the list against the tree
# Options: -j N build and test jobs (1), -f REGEX ids to run (all), -d DIR scratch directory
# (${TMPDIR:-/tmp}/zorcam-mutate; kept between runs, so a second run builds incrementally),
# -t SECONDS time limit per test (120), -l only check that every mutant applies.
set -euo pipefail
repo=$(cd "$(dirname "$0")/.." && pwd)
jobs=1
filter=.
scratch=${TMPDIR:-/tmp}/zorcam-mutate
timeout=120
list_only=0
while getopts "j:f:d:t:lh" opt; do
    case $opt in
        j) jobs=$OPTARG ;;
        f) filter=$OPTARG ;;
        d) scratch=$OPTARG ;;
        t) timeout=$OPTARG ;;
        l) list_only=1 ;;
        *) sed -n '2,/^set -euo/p' "$0" | sed '$d; s/^# \{0,1\}//'; exit 2 ;;
    esac
done
mutants=$repo/scripts/mutants.txt

# apply FILE ORIGINAL REPLACEMENT: replaces the one occurrence of ORIGINAL in FILE (literal
# text). Exit 3 when ORIGINAL is not found exactly once; with REPLACEMENT "-n" only counts.
apply() {
    perl -e '
        my ($file, $orig, $rep, $dry) = @ARGV;
        open(my $in, "<", $file) or exit 3;
        local $/; my $text = <$in>; close $in;
        my $n = () = $text =~ /\Q$orig\E/g;
        exit 3 if $n != 1;
        exit 0 if $dry;
        my $at = index($text, $orig);
        substr($text, $at, length($orig)) = $rep;
        open(my $out, ">", $file) or die "$file: $!";
        print $out $text; close $out;' "$@"
}

# The mutants to run: "id<TAB>file<TAB>original<TAB>replacement[<TAB>build]", comments and
# blanks dropped.
selected=$(grep -vE '^[[:space:]]*(#|$)' "$mutants" | awk -F'\t' -v re="$filter" '$1 ~ re')
[ -n "$selected" ] || { echo "no mutant matches '$filter'"; exit 2; }

if [ "$list_only" -eq 1 ]; then
    bad=0
    while IFS=$'\037' read -r id file orig rep preset; do
        if ! apply "$repo/$file" "$orig" "" 1; then
            echo "$id stale: text not found once in $file"
            bad=1
        fi
    done < <(tr '\t' '\037' <<<"$selected")
    [ "$bad" -eq 0 ] && echo "$(wc -l <<<"$selected") mutants, each found once"
    exit "$bad"
fi

case "$scratch" in
    "$repo" | "$repo"/*) echo "the scratch directory must be outside the repository"; exit 2 ;;
esac
src=$scratch/src
log=$scratch/log
mkdir -p "$src" "$log"
start=$(date +%s)
# The presets the selected mutants run in: the default one always (the baseline), and the
# sanitizer builds named in the fifth field.
presets=$( (echo default; awk -F'\t' 'NF >= 5 && $5 != "" { print $5 }' <<<"$selected") | sort -u)

echo "=== copying the tree to $src"
# Tracked and new files, with their times, so that a kept build stays incremental.
(cd "$repo" && git ls-files -z --cached --others --exclude-standard |
    tar --null --ignore-failed-read -T - -cf -) | tar -xf - -C "$src"
# A run that was stopped inside a mutant left objects built from it, newer than the file
# just copied back: make the file newer again, so that it is recompiled.
if [ -f "$scratch/dirty" ]; then
    touch "$src/$(cat "$scratch/dirty")"
    rm -f "$scratch/dirty"
fi

launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
run_suite() {  # ctest of build $1 until the first failure; its output in $2
    ctest --test-dir "$src/build/$1" -j "$jobs" --timeout "$timeout" --stop-on-failure \
        --output-on-failure >"$2" 2>&1
}
for preset in $presets; do
    echo "=== building the $preset preset (-j $jobs)"
    # Programs are not relinked when only the shared library changed: they load the new one.
    (cd "$src" && cmake --preset "$preset" -DZORCAM_BUILD_BENCH=OFF -DZORCAM_BUILD_EXAMPLES=OFF \
        -DZORCAM_WERROR=OFF -DCMAKE_LINK_DEPENDS_NO_SHARED=ON "${launcher[@]}") \
        >"$log/configure-$preset.txt" 2>&1 ||
        { tail -20 "$log/configure-$preset.txt"; exit 1; }
    cmake --build "$src/build/$preset" -j "$jobs" >"$log/build-$preset.txt" 2>&1 ||
        { tail -40 "$log/build-$preset.txt"; exit 1; }
    echo "=== the unmutated suite ($preset)"
    if ! run_suite "$preset" "$log/baseline-$preset.txt"; then
        grep -E '\*\*\*|Failed|Timeout' "$log/baseline-$preset.txt" | head -20
        echo "the unmutated suite fails: fix that first"
        exit 1
    fi
    grep -E 'tests passed|Total Test time' "$log/baseline-$preset.txt"
done

killed=0 survived=0 stale=0 broken=0
survivors=()
# Fields are split at the unit separator: read would run tabs together, and an empty
# replacement followed by a build would lose its place.
while IFS=$'\037' read -r id file orig rep preset; do
    preset=${preset:-default}
    target=$src/$file
    if ! apply "$target" "$orig" "" 1; then
        echo "$id stale ($file: text not found once)"
        stale=$((stale + 1))
        continue
    fi
    saved=$log/$id.orig
    cp "$target" "$saved"
    echo "$file" >"$scratch/dirty"
    apply "$target" "$orig" "$rep"
    if ! cmake --build "$src/build/$preset" -j "$jobs" >"$log/$id.build.txt" 2>&1; then
        echo "$id build-failed ($file)"
        broken=$((broken + 1))
    elif run_suite "$preset" "$log/$id.test.txt"; then
        echo "$id survived ($file)"
        survived=$((survived + 1))
        survivors+=("$id")
    else
        # The first failing test, and whether it ran out of time.
        first=$(grep -m1 -E '\*\*\*(Failed|Timeout|Exception)|\(Failed\)|\(Timeout\)|\(SEGFAULT\)|\(Subprocess aborted\)' \
            "$log/$id.test.txt" | sed -E 's/^ *[0-9]+\/[0-9]+ Test +#[0-9]+: //; s/ +\.+.*\*\*\*/ /; s/ +[0-9.]+ sec$//')
        where=""
        [ "$preset" = default ] || where=" (in $preset)"
        echo "$id killed ${first:+by $first}$where"
        killed=$((killed + 1))
    fi
    # Back to the original text, with a new time so that the next build recompiles it.
    cat "$saved" >"$target"
    rm -f "$saved"
done < <(tr '\t' '\037' <<<"$selected")
# Leave the scratch builds as the tree is, for the next run to build on.
for preset in $presets; do
    cmake --build "$src/build/$preset" -j "$jobs" >"$log/restore.txt" 2>&1 ||
        tail -20 "$log/restore.txt"
done
rm -f "$scratch/dirty"

total=$((killed + survived))
echo "=== survivors: ${survivors[*]:-none}"
echo "=== stale: $stale, build-failed: $broken (neither counts)"
echo "kill rate: $killed/$total"
echo "=== wall time: $(( $(date +%s) - start )) s"
