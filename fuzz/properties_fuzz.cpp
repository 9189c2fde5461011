// The reader has a reading for every input, and what it read comes back from what the writer makes of it.

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "util/properties.h"
#include "util/utf8.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);

    const auto read = qm::parseProperties(text);

    std::string written;
    for (const auto& [key, value] : read) {
        // Bytes that are no UTF-8 pass the reader and are changed by the writer, so only text can come back.
        if (qm::toStrictUtf8(key) != key || qm::toStrictUtf8(value) != value) return 0;
        written += qm::propertiesLine(key, value);
    }
    if (qm::parseProperties(written) != read) std::abort();
    return 0;
}
