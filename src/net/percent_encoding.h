#pragma once

#include <string>
#include <string_view>

namespace qm {

/// `text` with every byte but letters, digits, "-", ".", "_" and "~" written as "%" and two upper-case hexadecimal
/// digits, fit for any place in a URL.
std::string percentEncode(std::string_view text);

}  // namespace qm
