#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace qm {

/// `prefix` followed by `length` random characters of "0123456789abcdefghijklmnopqrstuvwxyz". Any thread.
std::string randomId(std::string_view prefix, std::size_t length);

/// A random version-4 UUID in lower case, "xxxxxxxx-xxxx-4xxx-yxxx-xxxxxxxxxxxx". Any thread.
std::string randomUuid();

/// 64 random bits of the calling thread's generator. Not for secrets.
std::uint64_t randomBits();

}  // namespace qm
