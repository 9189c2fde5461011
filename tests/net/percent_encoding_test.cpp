#include "net/percent_encoding.h"

#include <gtest/gtest.h>

#include <string>

namespace qm {
namespace {

TEST(PercentEncoding, UnreservedCharactersStay) {
    const std::string unreserved = "ABCXYZabcxyz0123456789-._~";

    EXPECT_EQ(percentEncode(unreserved), unreserved);
}

TEST(PercentEncoding, EverythingElseBecomesUpperCaseHexadecimal) {
    EXPECT_EQ(percentEncode("a b/c?d=e&f+g%"), "a%20b%2Fc%3Fd%3De%26f%2Bg%25");
    EXPECT_EQ(percentEncode("\xe4\xbd\xa0"), "%E4%BD%A0");
    EXPECT_EQ(percentEncode(std::string_view("\0\x7f\xff", 3)), "%00%7F%FF");
    EXPECT_EQ(percentEncode(""), "");
}

TEST(PercentEncoding, OfAll256BytesExactly66Stay) {
    int kept = 0;
    for (int byte = 0; byte < 256; ++byte) {
        const std::string text(1, static_cast<char>(byte));
        const auto encoded = percentEncode(text);
        if (encoded == text) ++kept;
        EXPECT_EQ(encoded.size(), encoded == text ? 1U : 3U);
    }
    EXPECT_EQ(kept, 26 + 26 + 10 + 4);
}

}  // namespace
}  // namespace qm
