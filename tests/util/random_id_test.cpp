#include "util/random_id.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace qm {
namespace {

using testing::MatchesRegex;

TEST(RandomId, IsThePrefixAndTheGivenNumberOfCharacters) {
    EXPECT_THAT(randomId("ws_", 10), MatchesRegex("ws_[0-9a-z]{10}"));
    EXPECT_THAT(randomId("", 1), MatchesRegex("[0-9a-z]"));
    EXPECT_EQ(randomId("ck_", 0), "ck_");
}

TEST(RandomId, UsesEveryCharacterOfItsAlphabet) {
    const std::string id = randomId("", 20000);
    EXPECT_EQ(std::set<char>(id.begin(), id.end()).size(), 36U);
}

TEST(RandomId, DoesNotRepeat) {
    std::set<std::string> ids;
    for (int i = 0; i < 10000; ++i)
        ids.insert(randomId("", 12));
    EXPECT_EQ(ids.size(), 10000U);
}

TEST(RandomId, ShortLivedThreadsDoNotRepeatEachOther) {
    std::vector<std::string> ids(200);
    for (auto& id : ids)
        std::jthread([&] { id = randomId("", 12); });
    EXPECT_EQ(std::set<std::string>(ids.begin(), ids.end()).size(), ids.size());
}

TEST(RandomId, AGeneratorIsSeededWithSixteenWordsEachOfWhichMatters) {
    std::set<std::uint64_t> first;
    for (int changed = -1; changed < 16; ++changed) {
        int drawn = 0;
        auto generator = seededGenerator([&] { return drawn++ == changed ? 1U : 0U; });
        EXPECT_EQ(drawn, 16);
        first.insert(generator());
    }
    EXPECT_EQ(first.size(), 17U);
}

TEST(RandomUuid, IsOfVersionFourAndOfTheStandardVariantInLowerCase) {
    const auto hasForm = MatchesRegex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
    std::set<std::string> uuids;
    for (int i = 0; i < 2000; ++i) {
        const std::string uuid = randomUuid();
        ASSERT_THAT(uuid, hasForm);
        uuids.insert(uuid);
    }
    EXPECT_EQ(uuids.size(), 2000U);
}

TEST(RandomUuid, EveryFreeDigitVaries) {
    std::vector<std::set<char>> digits(36);
    for (int i = 0; i < 500; ++i) {
        const std::string uuid = randomUuid();
        for (std::size_t place = 0; place < uuid.size(); ++place)
            digits[place].insert(uuid[place]);
    }
    for (const std::size_t fixed : {8U, 13U, 14U, 18U, 23U})
        EXPECT_EQ(digits[fixed].size(), 1U) << fixed;
    EXPECT_EQ(digits[19].size(), 4U);
    for (std::size_t place = 0; place < digits.size(); ++place) {
        if (digits[place].size() != 1 && place != 19) {
            EXPECT_EQ(digits[place].size(), 16U) << place;
        }
    }
}

TEST(RandomBits, Vary) {
    std::uint64_t everSet = 0;
    std::uint64_t everClear = 0;
    for (int i = 0; i < 200; ++i) {
        const std::uint64_t bits = randomBits();
        everSet |= bits;
        everClear |= ~bits;
    }
    EXPECT_EQ(everSet, UINT64_MAX);
    EXPECT_EQ(everClear, UINT64_MAX);
}

}  // namespace
}  // namespace qm
