#!/bin/sh
# Runs an arm64 program under user-mode qemu: the emulator of the arm64 toolchain file, so
# that ctest and test discovery run the cross-built programs here.
#
#   cmake/qemu-aarch64.sh PROGRAM [ARG...]
#
# Death tests of the "threadsafe" style re-execute their own program (argv[0]) for each
# death test. The kernel cannot execute an arm64 file here (no binfmt_misc registration of
# qemu on these machines), so the program is given this script as its argv[0] and the
# program's path through the environment: the re-execution runs this script again, which
# starts qemu on the same program with the death test's arguments.
set -eu
self=$(readlink -f "$0")
# qemu opens every absolute path under this prefix first and falls back to the host root,
# where libc6:arm64 put the arm64 loader and libc (see cmake/aarch64-linux-gnu.cmake).
export QEMU_LD_PREFIX="${QEMU_LD_PREFIX:-$(dirname "$self")/../build/arm64-overlay}"
if [ -z "${ZORCAM_QEMU_PROGRAM:-}" ]; then
    ZORCAM_QEMU_PROGRAM=$(readlink -f "$1")
    export ZORCAM_QEMU_PROGRAM
    shift
fi
exec qemu-aarch64 -0 "$self" "$ZORCAM_QEMU_PROGRAM" "$@"
