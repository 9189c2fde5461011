#include "net/url.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace qm {
namespace {

struct UrlCase {
    const char* text;
    bool tls;
    const char* host;
    int port;
    const char* path;
    const char* hostHeader;
};

class ValidUrl : public testing::TestWithParam<UrlCase> {};

TEST_P(ValidUrl, ComesApartAsTheTableSays) {
    const auto& expected = GetParam();

    const auto url = parseUrl(expected.text);

    ASSERT_TRUE(url.has_value()) << expected.text;
    EXPECT_EQ(url->tls, expected.tls);
    EXPECT_EQ(url->host, expected.host);
    EXPECT_EQ(url->port, expected.port);
    EXPECT_EQ(url->path, expected.path);
    EXPECT_EQ(url->hostHeader(), expected.hostHeader);
}

INSTANTIATE_TEST_SUITE_P(Table, ValidUrl,
                         testing::Values(UrlCase{"https://host", true, "host", 443, "/", "host"},
                                         UrlCase{"http://host", false, "host", 80, "/", "host"},
                                         UrlCase{"http://host/", false, "host", 80, "/", "host"},
                                         UrlCase{"http://host:8080/x?y=1", false, "host", 8080, "/x?y=1", "host:8080"},
                                         UrlCase{"https://host:80/", true, "host", 80, "/", "host:80"},
                                         UrlCase{"http://host:443/", false, "host", 443, "/", "host:443"},
                                         UrlCase{"http://host:80/a", false, "host", 80, "/a", "host"},
                                         UrlCase{"https://host:443/a", true, "host", 443, "/a", "host"},
                                         UrlCase{"http://host:1", false, "host", 1, "/", "host:1"},
                                         UrlCase{"http://host:65535", false, "host", 65535, "/", "host:65535"},
                                         UrlCase{"http://host:0080/a", false, "host", 80, "/a", "host"},
                                         UrlCase{"http://host:81tail/a", false, "host", 81, "/a", "host:81"},
                                         UrlCase{"http://host:81:82/a", false, "host", 81, "/a", "host:81"},
                                         UrlCase{"http://host/a b%20\xc3\xa9#f", false, "host", 80, "/a b%20\xc3\xa9#f",
                                                 "host"},
                                         UrlCase{"http://host//a://b", false, "host", 80, "//a://b", "host"},
                                         UrlCase{"http://host?q", false, "host?q", 80, "/", "host?q"},
                                         UrlCase{"http://HOST/A", false, "HOST", 80, "/A", "HOST"}));

class InvalidUrl : public testing::TestWithParam<const char*> {};

TEST_P(InvalidUrl, IsRefused) {
    EXPECT_FALSE(parseUrl(GetParam()).has_value()) << GetParam();
}

INSTANTIATE_TEST_SUITE_P(Table, InvalidUrl,
                         testing::Values("", "host", "http:/host", "//host", "://host", "HTTP://host", "Https://host",
                                         "ftp://host", "ws://host", " http://host", "http://", "http:///path",
                                         "http://:80/", "http://host:", "http://host:/a", "http://host:0/",
                                         "http://host:-1/", "http://host:65536/", "http://host:99999999999999999999/",
                                         "http://host:port/", "http://[::1]:80/", "http://host/a\r\nX: y",
                                         "http://host/a\nb", "http://ho\tst/", "http://host/\x7f"));

TEST(Url, ANulCharacterIsRefused) {
    EXPECT_FALSE(parseUrl(std::string_view("http://ho\0st/", 13)).has_value());
}

TEST(Url, EveryCutOfAUrlEitherFailsOrKeepsItsPromises) {
    const std::string whole = "https://some.host:8443/path?query=1";
    for (std::size_t size = 0; size <= whole.size(); ++size) {
        const auto url = parseUrl(std::string_view(whole).substr(0, size));
        if (!url) continue;
        EXPECT_FALSE(url->host.empty());
        EXPECT_GT(url->port, 0);
        EXPECT_EQ(url->path.front(), '/');
    }
    EXPECT_TRUE(parseUrl(whole).has_value());
}

TEST(Url, RandomBytesBehindASchemeNeverBreakThePromises) {
    std::mt19937 random(1);
    int accepted = 0;
    for (int round = 0; round < 20000; ++round) {
        std::string text = "http://";
        for (int i = 0; i < 12; ++i)
            text += random() % 4 == 0 ? ":/1a"[random() % 4] : static_cast<char>(random() % 256);
        const auto url = parseUrl(text);
        if (!url) continue;
        ++accepted;
        EXPECT_FALSE(url->host.empty());
        EXPECT_TRUE(url->port > 0 && url->port <= 65535);
        EXPECT_EQ(url->path.front(), '/');
    }
    EXPECT_GT(accepted, 0);
}

}  // namespace
}  // namespace qm
