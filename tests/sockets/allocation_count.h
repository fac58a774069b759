// Counts what the test program takes from the heap.
#pragma once

#include <cstddef>

namespace quenmark::test {

// Allocations of the calling thread so far.
std::size_t AllocationCount();

}  // namespace quenmark::test
