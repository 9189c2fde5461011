#pragma once

#include <cstddef>

namespace qm::test {

/// Of how many cases an exhaustive test on one thread takes one. A sanitizer makes each many times slower and finds in
/// a part of them what it would find in all; without one every case is taken.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr std::size_t kExhaustiveStep = 7;
#else
inline constexpr std::size_t kExhaustiveStep = 1;
#endif

}  // namespace qm::test
