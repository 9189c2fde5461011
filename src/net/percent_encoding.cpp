#include "net/percent_encoding.h"

namespace qm {
namespace {

bool isUnreserved(unsigned char byte) {
    return (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') || (byte >= '0' && byte <= '9') ||
           byte == '-' || byte == '.' || byte == '_' || byte == '~';
}

}  // namespace

std::string percentEncode(std::string_view text) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string encoded;
    encoded.reserve(text.size());
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (isUnreserved(byte)) {
            encoded += character;
        } else {
            encoded += '%';
            encoded += kDigits[byte >> 4];
            encoded += kDigits[byte & 15];
        }
    }
    return encoded;
}

}  // namespace qm
