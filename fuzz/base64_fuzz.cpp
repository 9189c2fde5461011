// Decoding bears every input, gives no more than the characters hold, and gives back what encoding was given.

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "util/base64.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);

    const auto decoded = qm::base64Decode(bytes);
    if (decoded && decoded->size() > size / 4 * 3 + size % 4) std::abort();
    if (decoded && qm::base64Decode(qm::base64Encode(*decoded)) != decoded) std::abort();
    if (qm::base64Decode(qm::base64Encode(bytes)) != bytes) std::abort();
    return 0;
}
