#include "core/settings.h"

#include <gtest/gtest.h>

namespace qm {
namespace {

TEST(Settings, HaveTheirDefaults) {
    const Settings settings;

    EXPECT_EQ(settings.gatewayUrl, "http://127.0.0.1:9090");
    EXPECT_EQ(settings.mode, "LIGHT");
    EXPECT_EQ(settings.name, "");
    EXPECT_EQ(settings.description, "Quillmarsh native executor");
    EXPECT_EQ(settings.nodeId, "");
    EXPECT_EQ(settings.executorToken, "");
    EXPECT_EQ(settings.reserved, 0);
    EXPECT_TRUE(settings.autoUpdate);
    EXPECT_EQ(settings.connection, "GATEWAY");
    EXPECT_EQ(settings.authMode, "MANUAL");
    EXPECT_EQ(settings.accountEmail, "");
}

TEST(Settings, AreStandaloneByTheirConnectionInAnyCase) {
    Settings settings;
    EXPECT_FALSE(settings.isStandalone());

    for (const char* connection : {"STANDALONE", "standalone", "StandAlone"}) {
        settings.connection = connection;
        EXPECT_TRUE(settings.isStandalone()) << connection;
    }
    for (const char* connection : {"", "GATEWAY", "STANDALONE ", "foo"}) {
        settings.connection = connection;
        EXPECT_FALSE(settings.isStandalone()) << connection;
    }
}

TEST(Settings, AreOnAnAccountWithItsAuthModeATokenAndAGatewayOnly) {
    Settings settings;
    settings.authMode = "account";
    settings.executorToken = "token";
    EXPECT_TRUE(settings.isOnAccount());

    Settings standalone = settings;
    standalone.connection = "Standalone";
    EXPECT_FALSE(standalone.isOnAccount());

    Settings manual = settings;
    manual.authMode = "MANUAL";
    EXPECT_FALSE(manual.isOnAccount());

    Settings withoutToken = settings;
    withoutToken.executorToken = "";
    EXPECT_FALSE(withoutToken.isOnAccount());
}

TEST(Settings, WordsHaveOneCanonicalSpelling) {
    EXPECT_EQ(canonicalMode("heavy"), "HEAVY");
    EXPECT_EQ(canonicalMode("light"), "LIGHT");
    EXPECT_EQ(canonicalMode("foo"), "LIGHT");
    EXPECT_EQ(canonicalMode(""), "LIGHT");
    EXPECT_EQ(canonicalConnection("standalone"), "STANDALONE");
    EXPECT_EQ(canonicalConnection("foo"), "GATEWAY");
    EXPECT_EQ(canonicalAuthMode("Account"), "ACCOUNT");
    EXPECT_EQ(canonicalAuthMode("foo"), "MANUAL");
}

TEST(MaskedToken, OfAtMostEightCharactersShowsNoneOfThem) {
    EXPECT_EQ(maskedToken("a"), "********");
    EXPECT_EQ(maskedToken("12345678"), "********");
}

TEST(MaskedToken, OfMoreShowsTheFirstAndTheLastFour) {
    EXPECT_EQ(maskedToken("123456789"), "1234...6789");
    EXPECT_EQ(maskedToken("qmx_0123456789abcdef"), "qmx_...cdef");
}

TEST(MaskedToken, CountsCodePointsAndCutsBetweenThem) {
    EXPECT_EQ(maskedToken("文文文文文文文文"), "********");
    EXPECT_EQ(maskedToken("甲乙丙丁戊己庚辛壬"), "甲乙丙丁...己庚辛壬");
}

}  // namespace
}  // namespace qm
