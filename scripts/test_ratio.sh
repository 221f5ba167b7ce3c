#!/usr/bin/env bash
# The size of the test suite against the size of the code it tests: non-blank lines of the
# C++ sources (.h .hpp .cpp .cc) under tests/ against those of the library, the packet
# bridge (whose tests are under tests/ too), its platform layer, the tools and the examples. The house keeps tests at about a quarter to a third of
# the code: a suite that outgrows that restates the code instead of testing it.
set -euo pipefail
cd "$(dirname "$0")/.."
count() {
    find "$@" -type f \( -name '*.h' -o -name '*.hpp' -o -name '*.cpp' -o -name '*.cc' \) \
        -print0 | xargs -0 cat | grep -c '[^[:space:]]'
}
tests=$(count tests)
code=$(count include utils updater android platform tools examples)
echo "tests: ${tests} non-blank lines (tests/)"
echo "code:  ${code} non-blank lines (include/ utils/ updater/ android/ platform/ tools/ examples/)"
awk -v t="$tests" -v c="$code" 'BEGIN { printf "ratio: %d / %d = %.1f%%\n", t, c, 100 * t / c }'
