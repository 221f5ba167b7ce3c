# Cross build for arm64 (the architecture the library ships on) with Debian's cross compiler
# and Debian's multiarch arm64 packages (dpkg --add-architecture arm64): the arm64 builds of
# liblog, libbase, libbacktrace, GoogleTest and Google Benchmark install into the host's own
# root under /usr/lib/aarch64-linux-gnu, so the host root is the sysroot and nothing is
# re-rooted. scripts/arm64.sh installs all of it and runs the tests under qemu-aarch64.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
# Picks the arm64 directories of the multiarch tree: libraries, package configs and the
# android libraries under /usr/lib/aarch64-linux-gnu/android (see AndroidHostLibs.cmake).
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

# One arm64 file cannot come from multiarch: libbacktrace needs 7z.so from /usr/lib/p7zip,
# and p7zip-full cannot be installed for two architectures at once (the amd64 one serves the
# host build). scripts/arm64.sh unpacks the arm64 7z.so into this overlay; the linker looks
# there, and qemu looks there before the host root (cmake/qemu-aarch64.sh).
set(ZORCAM_ARM64_OVERLAY ${CMAKE_CURRENT_LIST_DIR}/../build/arm64-overlay)
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${ZORCAM_ARM64_OVERLAY}/usr/lib/p7zip")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-rpath-link,${ZORCAM_ARM64_OVERLAY}/usr/lib/p7zip")
# ctest and gtest_discover_tests run the test programs through user-mode qemu; the script
# also lets death tests re-execute their program (see there).
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/qemu-aarch64.sh)
