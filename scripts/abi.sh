#!/usr/bin/env bash
# The binary interfaces of libzorcam_metadata and libzorcam_metadata_android against what
# abi/ records.
#
#   scripts/abi.sh          check (CI): each library's exported symbols must equal
#                           abi/<library>.symbols, and abidiff must find no change against
#                           abi/<library>.abi.xml, except in the layout of the types the
#                           public headers leave incomplete (abi/opaque.suppr)
#   scripts/abi.sh update   after an intended change: rebuild the libraries and rewrite the
#                           files; commit them with the change that caused it
#
# Both use the library of the default preset (RelWithDebInfo, g++ of Debian 12: the DWARF that
# abidw reads is the compiler's, so refresh with the same one CI uses). The files carry no
# paths of the machine that wrote them, so a refresh of the same sources gives the same bytes.
set -euo pipefail
cd "$(dirname "$0")/.."
mode=${1:-check}
case "$mode" in
    check | update) ;;
    *) echo "usage: $0 [check|update]" >&2; exit 2 ;;
esac
scripts/install_deps.sh  # abigail-tools among them

cmake --preset default >/dev/null
cmake --build --preset default --target zorcam_metadata zorcam_metadata_android >/dev/null

# One line per exported definition: nm's kind letter and the demangled name, without the
# address; sorted bytewise. Constructors and destructors appear once per variant (C1/C2...).
list_symbols() {
    nm -D --defined-only -C "$1" | cut -d' ' -f2- | LC_ALL=C sort
}
write_abi() {
    abidw --no-show-locs --no-comp-dir-path --no-corpus-path --type-id-style hash "$1"
}

# check_library <built library> <name in abi/>
check_library() {
    local lib=$1 symbols=abi/$2.symbols baseline=abi/$2.abi.xml status=0
    if [ "$mode" = update ]; then
        mkdir -p abi
        list_symbols "$lib" >"$symbols"
        write_abi "$lib" >"$baseline"
        echo "abi: wrote $symbols ($(wc -l <"$symbols") symbols) and $baseline"
        return 0
    fi
    if ! diff -u --label "$symbols" --label "exported by $lib" "$symbols" <(list_symbols "$lib"); then
        echo "!!! abi: the library's exported symbols differ from $symbols (- recorded, + built)."
        echo "!!! Export only through ZORCAM_EXPORT in include/zorcam/metadata; if the change is"
        echo "!!! intended, run scripts/abi.sh update and commit abi/."
        status=1
    fi
    # abidiff's status is a bit set: 1 error, 2 usage, 4 change, 8 incompatible change. Bit 8
    # stands only for removed or changed symbols; a grown or reordered exported class (Memory is
    # held by value in every component) sets bit 4 alone and breaks consumers just the same, so
    # any change fails until abi/ is refreshed on purpose.
    set +e
    report=$(abidiff --no-show-locs --suppressions abi/opaque.suppr "$baseline" "$lib" 2>&1)
    rc=$?
    set -e
    if [ "$rc" -ne 0 ]; then
        echo "$report"
        if [ $((rc & 8)) -ne 0 ]; then
            echo "!!! abi: abidiff finds an incompatible change against $baseline (status $rc)."
        elif [ $((rc & 3)) -ne 0 ]; then
            echo "!!! abi: abidiff could not compare against $baseline (status $rc)."
        else
            echo "!!! abi: the ABI changed against $baseline (status $rc): additions are compatible,"
            echo "!!! a changed layout of an exported class is not."
        fi
        echo "!!! An intended break also needs a new major version (project() in CMakeLists.txt,"
        echo "!!! hence a new SONAME); then run scripts/abi.sh update and commit abi/."
        status=1
    fi
    return $status
}

status=0
check_library build/default/utils/metadata/metadata/libzorcam_metadata.so libzorcam_metadata || status=1
check_library build/default/android/libzorcam_metadata_android.so libzorcam_metadata_android || status=1
exit $status
