#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <string_view>

namespace qm {

/// `prefix` followed by `length` random characters of "0123456789abcdefghijklmnopqrstuvwxyz". Any thread.
std::string randomId(std::string_view prefix, std::size_t length);

/// A random version-4 UUID in lower case, "xxxxxxxx-xxxx-4xxx-yxxx-xxxxxxxxxxxx". Any thread.
std::string randomUuid();

/// A generator seeded with many words of `nextWord`: with a single 32-bit word, two short-lived threads would repeat
/// each other's stream far too soon.
std::mt19937_64 seededGenerator(const std::function<std::uint32_t()>& nextWord);

/// 64 random bits of the calling thread's generator. Not for secrets.
std::uint64_t randomBits();

}  // namespace qm
