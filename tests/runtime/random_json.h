#pragma once

#include <cstddef>
#include <random>
#include <string>

#include "util/json.h"

namespace qm::runtime::test {

/// A text of up to a dozen characters from all planes, control characters among them.
std::string randomText(std::mt19937_64& random);

/// An integer, of either sign, or a fraction.
json randomNumber(std::mt19937_64& random);

/// A value of at most `depth` levels.
json randomJson(std::mt19937_64& random, std::size_t depth);

}  // namespace qm::runtime::test
