#pragma once
// Replaces the global operator new of the test program that links it, to record the largest
// single allocation: decoders must refuse a claim their bytes cannot hold before allocating
// for it. Defined in a source of its own, so that no test inlines the pair.
#include <cstddef>

namespace zorcam_test {

size_t largestAllocation();
void resetLargestAllocation();

}  // namespace zorcam_test
