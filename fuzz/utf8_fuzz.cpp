// What the sanitisers give is clean by their own rule and has as many code points as what they were given.

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "util/utf8.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);

    const std::string clean = qm::sanitizeUtf8(bytes);
    if (qm::sanitizeUtf8(clean) != clean) std::abort();
    if (qm::countCodePoints(clean) != qm::countCodePoints(bytes)) std::abort();

    const std::string strict = qm::toStrictUtf8(bytes);
    if (qm::toStrictUtf8(strict) != strict || qm::sanitizeUtf8(strict) != strict) std::abort();

    const std::size_t half = qm::countCodePoints(bytes) / 2;
    const std::size_t rest = qm::countCodePoints(bytes) - half;
    const auto first = qm::firstCodePoints(bytes, half);
    const auto last = qm::lastCodePoints(bytes, rest);
    if (first.size() + last.size() != size || last.data() != bytes.data() + first.size()) std::abort();
    return 0;
}
