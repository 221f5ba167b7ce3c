#pragma once
// Replaces the global operator new of the test program that links it. It records the largest
// single allocation (decoders must refuse a claim their bytes cannot hold before allocating
// for it) and the peak of the bytes held (what a decoder may allocate for a given input), and
// can make one chosen allocation fail (an operation that meets std::bad_alloc must leave its
// object as it was). Defined in a source of its own, so that no test inlines the pair.
#include <cstddef>

namespace zorcam_test {

size_t largestAllocation();
void resetLargestAllocation();
// Bytes held through operator new at their highest since the last reset, above what was
// held at the reset.
size_t peakBytes();
void resetPeakBytes();
// The `n`th allocation from now (1 = the next one) throws std::bad_alloc; 0 fails none.
void failAllocation(size_t n);

}  // namespace zorcam_test
