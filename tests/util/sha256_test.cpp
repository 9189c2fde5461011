#include "util/sha256.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace qm {
namespace {

std::string digestOf(std::string_view bytes, Sha256::Engine engine) {
    Sha256 hash(engine);
    hash.update(bytes);
    return toHex(hash.finish());
}

std::string randomBytes(std::size_t size) {
    std::mt19937 engine(1);
    std::string bytes(size, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(engine());
    return bytes;
}

class Sha256Engines : public testing::TestWithParam<Sha256::Engine> {};

TEST_P(Sha256Engines, GiveThePublishedDigests) {
    EXPECT_EQ(digestOf("", GetParam()), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(digestOf("abc", GetParam()), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(digestOf("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq", GetParam()),
              "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
    EXPECT_EQ(digestOf("abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmnoijklmnopjklmnopqklmnopqrlmnopq"
                       "rsmnopqrstnopqrstu",
                       GetParam()),
              "cf5b16a778af8380036ce59e7b0492370b249b11e8f07a51afac45037afee9d1");
    EXPECT_EQ(digestOf(std::string(1000000, 'a'), GetParam()),
              "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST_P(Sha256Engines, GiveTheSameDigestHoweverTheBytesAreCut) {
    const std::string bytes = randomBytes(200);
    const std::string whole = digestOf(bytes, GetParam());

    for (std::size_t first = 0; first <= bytes.size(); ++first) {
        for (const std::size_t second : {first, (first + bytes.size()) / 2, bytes.size()}) {
            Sha256 hash(GetParam());
            hash.update(std::string_view(bytes).substr(0, first));
            hash.update(std::string_view(bytes).substr(first, second - first));
            hash.update(std::string_view(bytes).substr(second));
            ASSERT_EQ(toHex(hash.finish()), whole) << first << ", " << second;
        }
    }
}

TEST_P(Sha256Engines, TakeBytesOneByOne) {
    const std::string bytes = randomBytes(1000);
    Sha256 hash(GetParam());

    for (const char byte : bytes)
        hash.update({&byte, 1});

    EXPECT_EQ(toHex(hash.finish()), digestOf(bytes, GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Sha256, Sha256Engines, testing::Values(Sha256::Engine::Best, Sha256::Engine::Portable),
                         [](const auto& engine) { return engine.param == Sha256::Engine::Best ? "Best" : "Portable"; });

TEST(Sha256, BothEnginesAgreeOnEveryLengthAroundTheBlockSizes) {
    const std::string bytes = randomBytes(400);

    for (std::size_t size = 0; size <= bytes.size(); ++size) {
        const std::string_view part = std::string_view(bytes).substr(0, size);
        ASSERT_EQ(digestOf(part, Sha256::Engine::Best), digestOf(part, Sha256::Engine::Portable)) << size;
    }
}

TEST(Sha256, BytesAtAnOddAddressHaveTheSameDigest) {
    const std::string bytes = randomBytes(300);
    const std::string shifted = "x" + bytes;

    EXPECT_EQ(sha256Hex(std::string_view(shifted).substr(1)), sha256Hex(bytes));
}

TEST(Sha256, TheLengthCountsBitsBeyondThirtyTwo) {
    // 512 MiB and one byte: the length in bits no longer fits 32.
    const std::string piece(1 << 20, '\0');
    Sha256 hash;

    for (int i = 0; i < 512; ++i)
        hash.update(piece);
    hash.update({piece.data(), 1});

    EXPECT_EQ(toHex(hash.finish()), "7c40fe5ce847740d0f0d0cdde3949d6585804cdec3ae61a15b923165699c8137");
}

TEST(Sha256, TheDigestIsLowerCaseHexadecimal) {
    Sha256::Digest digest{};
    digest[0] = 0x0F;
    digest[31] = 0xAB;

    EXPECT_EQ(toHex(digest), "0f" + std::string(60, '0') + "ab");
}

}  // namespace
}  // namespace qm
