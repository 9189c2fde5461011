#pragma once

#include <cstdint>

namespace qm::test {

/// Lets the calling thread allocate `count` more times; after that operator new throws std::bad_alloc on it.
void allowAllocations(std::int64_t count);

/// Ends what allowAllocations() began on the calling thread.
void allowAllAllocations();

}  // namespace qm::test
