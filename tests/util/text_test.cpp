#include "util/text.h"

#include <gtest/gtest.h>

#include <string_view>

namespace qm {
namespace {

TEST(Trimmed, LosesFileWhitespaceAtBothEndsOnly) {
    EXPECT_EQ(trimmed(" \t\r\n\fa b\t\f\n\r "), "a b");
    EXPECT_EQ(trimmed("a"), "a");
    EXPECT_EQ(trimmed(""), "");
    EXPECT_EQ(trimmed(" \n"), "");
    EXPECT_EQ(trimmed("\va\v"), "\va\v");
}

TEST(Trimmed, TakesTheCharactersItIsGiven) {
    EXPECT_EQ(trimmed("--a- ", "-"), "a- ");
}

TEST(WithoutTrailingSlashes, LosesAllOfThemAtTheEndOnly) {
    EXPECT_EQ(withoutTrailingSlashes("http://a//b///"), "http://a//b");
    EXPECT_EQ(withoutTrailingSlashes("a"), "a");
    EXPECT_EQ(withoutTrailingSlashes("///"), "");
    EXPECT_EQ(withoutTrailingSlashes(""), "");
}

TEST(IsBlank, HoldsForNothingAndForWhitespaceOnly) {
    for (const char* const blank : {"", " ", " \t\r\n\v\f"})
        EXPECT_TRUE(isBlank(blank));
    for (const char* const text : {"a", " a ", "\xC2\xA0", "\x1f"})
        EXPECT_FALSE(isBlank(text));
    EXPECT_FALSE(isBlank(std::string_view("\0", 1)));
}

TEST(EqualsIgnoreCase, HoldsForAsciiLettersOnly) {
    EXPECT_TRUE(equalsIgnoreCase("HeAvY", "hEaVy"));
    EXPECT_TRUE(equalsIgnoreCase("", ""));
    EXPECT_FALSE(equalsIgnoreCase("heavy", "heav"));
    EXPECT_FALSE(equalsIgnoreCase("heav", "heavy"));
    EXPECT_FALSE(equalsIgnoreCase("[", "{"));
    EXPECT_FALSE(equalsIgnoreCase("@", "`"));
    EXPECT_FALSE(equalsIgnoreCase("\xC3\x9C", "\xC3\xBC"));
}

TEST(ToLowerAscii, ChangesAsciiLettersOnly) {
    EXPECT_EQ(toLowerAscii("AZaz@[`{09\xC3\x9C"), "azaz@[`{09\xC3\x9C");
    EXPECT_EQ(toLowerAscii(""), "");
}

}  // namespace
}  // namespace qm
