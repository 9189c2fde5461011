#include "net/ws_frame.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "support/ws_script.h"

namespace qm {
namespace {

using test::maskedServerFrame;
using test::serverFrame;
using Event = WsFrameReader::Event;

constexpr unsigned kContinuation = 0;
constexpr unsigned kText = 1;
constexpr unsigned kBinary = 2;
constexpr unsigned kClose = 8;
constexpr unsigned kPing = 9;
constexpr unsigned kPong = 10;

std::string pattern(std::size_t size) {
    std::string text(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        text[i] = static_cast<char>('a' + i % 23);
    return text;
}

std::uint32_t maskOf(const char (&bytes)[5]) {
    std::uint32_t mask = 0;
    std::memcpy(&mask, bytes, sizeof mask);
    return mask;
}

std::string encoded(WsOpcode opcode, std::string_view payload, std::uint32_t mask = 0) {
    const auto frame = encodeWsFrame(opcode, payload, mask);
    return std::string(frame.view());
}

using Events = std::vector<std::pair<Event, std::string>>;

/// What comes of `bytes` given in pieces of `pieceSize`.
Events read(WsFrameReader& reader, std::string_view bytes, std::size_t pieceSize) {
    Events events;
    while (!bytes.empty()) {
        auto piece = bytes.substr(0, pieceSize);
        bytes.remove_prefix(piece.size());
        while (true) {
            const Event event = reader.next(&piece);
            if (event == Event::NeedsBytes) break;
            events.emplace_back(event, reader.payload());
        }
        EXPECT_TRUE(piece.empty());
    }
    return events;
}

Events read(std::string_view bytes, std::size_t pieceSize = std::string_view::npos) {
    WsFrameReader reader;
    return read(reader, bytes, pieceSize);
}

TEST(WsFrameEncoding, TheFirstByteIsFinAndTheOpcode) {
    EXPECT_EQ(encoded(WsOpcode::Text, "")[0], '\x81');
    EXPECT_EQ(encoded(WsOpcode::Close, "")[0], '\x88');
    EXPECT_EQ(encoded(WsOpcode::Pong, "")[0], '\x8a');
}

TEST(WsFrameEncoding, AFrameHasItsExactBytes) {
    EXPECT_EQ(encoded(WsOpcode::Text, "Hello", maskOf("\x37\xfa\x21\x3d")),
              std::string("\x81\x85\x37\xfa\x21\x3d\x7f\x9f\x4d\x51\x58", 11));
}

TEST(WsFrameEncoding, TheLengthTakesTheShortestForm) {
    const std::string mask(4, '\0');
    EXPECT_EQ(encoded(WsOpcode::Text, "").substr(0, 6), std::string("\x81\x80", 2) + mask);
    EXPECT_EQ(encoded(WsOpcode::Text, pattern(125)).substr(0, 6), std::string("\x81\xfd", 2) + mask);
    EXPECT_EQ(encoded(WsOpcode::Text, pattern(126)).substr(0, 8), std::string("\x81\xfe\x00\x7e", 4) + mask);
    EXPECT_EQ(encoded(WsOpcode::Text, pattern(65535)).substr(0, 8), std::string("\x81\xfe\xff\xff", 4) + mask);
    EXPECT_EQ(encoded(WsOpcode::Text, pattern(65536)).substr(0, 14),
              std::string("\x81\xff\x00\x00\x00\x00\x00\x01\x00\x00", 10) + mask);
}

TEST(WsMask, EverySizeAndOffsetEqualsTheBytewiseDefinition) {
    const std::string source = pattern(100);
    const std::string maskBytes = "\x01\x80\xff\x5a";
    const std::uint32_t mask = maskOf("\x01\x80\xff\x5a");
    for (std::size_t size = 0; size <= 64; ++size) {
        for (std::size_t offset = 0; offset < 9; ++offset) {
            for (std::size_t start = 0; start < 8; ++start) {
                std::string expected = source;
                for (std::size_t i = 0; i < size; ++i) {
                    expected[start + i] = static_cast<char>(source[start + i] ^ maskBytes[(offset + i) % 4]);
                }
                std::string inPlace = source;
                applyWsMask(inPlace.data() + start, inPlace.data() + start, size, mask, offset);
                ASSERT_EQ(inPlace, expected) << size << ' ' << offset << ' ' << start;
                std::string apart = source;
                applyWsMask(apart.data() + start, source.data() + start, size, mask, offset);
                ASSERT_EQ(apart, expected);
            }
        }
    }
}

TEST(WsMask, AnOffsetNearTheEndOf64BitsIsLikeAnyOther) {
    std::string bytes(6, '\0');
    applyWsMask(bytes.data(), bytes.data(), bytes.size(), maskOf("abcd"), ~std::uint64_t{0} - 2);

    EXPECT_EQ(bytes, "bcdabc");
}

class FrameSize : public testing::TestWithParam<std::size_t> {};

TEST_P(FrameSize, IsReadBackWhole) {
    const auto text = pattern(GetParam());

    EXPECT_EQ(read(serverFrame(kText, text), 16384), (Events{{Event::Message, text}}));
}

TEST_P(FrameSize, IsReadBackWholeFromItsMaskedForm) {
    const auto text = pattern(GetParam());

    EXPECT_EQ(read(maskedServerFrame(kText, text, {1, 2, 3, 0xfe}), 16381), (Events{{Event::Message, text}}));
    EXPECT_EQ(read(encoded(WsOpcode::Text, text, 0x12345678), 16384), (Events{{Event::Message, text}}));
}

INSTANTIATE_TEST_SUITE_P(Limits, FrameSize, testing::Values(0, 1, 125, 126, 127, 65535, 65536, 16 << 20));

TEST(WsFrameReader, FragmentsAreDeliveredOnceAfterTheFrameWithFin) {
    const auto bytes = serverFrame(kText, "one ", false) + serverFrame(kContinuation, "two ", false) +
                       serverFrame(kContinuation, "three");

    EXPECT_EQ(read(bytes), (Events{{Event::Message, "one two three"}}));
}

TEST(WsFrameReader, ContinuationAndTextAreHandledAlike) {
    EXPECT_EQ(read(serverFrame(kContinuation, "alone")), (Events{{Event::Message, "alone"}}));
    EXPECT_EQ(read(serverFrame(kText, "a", false) + serverFrame(kText, "b")), (Events{{Event::Message, "ab"}}));
}

TEST(WsFrameReader, AControlFrameBetweenFragmentsLeavesTheMessageAlone) {
    const auto bytes = serverFrame(kText, "a", false) + serverFrame(kPing, "p") +
                       serverFrame(kContinuation, "b", false) + serverFrame(kPong, "q") +
                       serverFrame(kContinuation, "c");

    EXPECT_EQ(read(bytes), (Events{{Event::Ping, "p"}, {Event::Message, "abc"}}));
}

TEST(WsFrameReader, ABinaryFrameWithFinEmptiesTheMessageUnderConstruction) {
    const auto bytes =
        serverFrame(kText, "lost", false) + serverFrame(kBinary, "\x01\x02") + serverFrame(kContinuation, "b");

    EXPECT_EQ(read(bytes), (Events{{Event::Message, "b"}}));
}

TEST(WsFrameReader, ABinaryFrameWithoutFinLeavesTheMessageAlone) {
    const auto bytes =
        serverFrame(kText, "a", false) + serverFrame(kBinary, "\x01\x02", false) + serverFrame(kContinuation, "b");

    EXPECT_EQ(read(bytes), (Events{{Event::Message, "ab"}}));
}

TEST(WsFrameReader, OtherOpcodesAreIgnored) {
    for (const unsigned opcode : {3U, 4U, 5U, 6U, 7U, kPong, 11U, 12U, 13U, 14U, 15U}) {
        const auto bytes = serverFrame(opcode, "whatever") + serverFrame(kText, "text");
        EXPECT_EQ(read(bytes), (Events{{Event::Message, "text"}})) << opcode;
    }
}

TEST(WsFrameReader, ReservedBitsAreNotLookedAt) {
    auto bytes = serverFrame(kText, "text");
    bytes[0] = static_cast<char>(bytes[0] | 0x70);

    EXPECT_EQ(read(bytes), (Events{{Event::Message, "text"}}));
}

TEST(WsFrameReader, ALongerFormOfALengthThanNeededIsTaken) {
    EXPECT_EQ(read(std::string("\x81\x7e\x00\x02hi", 6)), (Events{{Event::Message, "hi"}}));
    EXPECT_EQ(read(std::string("\x81\x7f\x00\x00\x00\x00\x00\x00\x00\x02hi", 12)), (Events{{Event::Message, "hi"}}));
}

TEST(WsFrameReader, AHugeAnnouncedLengthIsTrustedButNothingIsSetAsideForIt) {
    const std::string header("\x81\x7f\xff\xff\xff\xff\xff\xff\xff\xff", 10);
    WsFrameReader reader;
    std::string_view bytes = header;
    EXPECT_EQ(reader.next(&bytes), Event::NeedsBytes);

    const auto part = pattern(100000);
    bytes = part;

    EXPECT_EQ(reader.next(&bytes), Event::NeedsBytes);
    EXPECT_TRUE(bytes.empty());
}

TEST(WsFrameReader, EveryCutOfAStreamGivesTheSameEvents) {
    const auto bytes = serverFrame(kText, "") + serverFrame(kText, "one", false) + serverFrame(kPing, "ping") +
                       maskedServerFrame(kContinuation, "two", {9, 8, 7, 6}) + serverFrame(kBinary, "skipped") +
                       serverFrame(kText, pattern(126)) + serverFrame(kClose, std::string("\x03\xe8") + "bye");
    const Events expected{{Event::Message, ""},
                          {Event::Ping, "ping"},
                          {Event::Message, "onetwo"},
                          {Event::Message, pattern(126)},
                          {Event::Close, std::string("\x03\xe8") + "bye"}};
    ASSERT_EQ(read(bytes), expected);
    for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
        WsFrameReader reader;
        auto events = read(reader, bytes.substr(0, cut), std::string::npos);
        const auto rest = read(reader, bytes.substr(cut), std::string::npos);
        events.insert(events.end(), rest.begin(), rest.end());
        ASSERT_EQ(events, expected) << cut;
    }
    for (std::size_t piece = 1; piece <= 20; ++piece)
        ASSERT_EQ(read(bytes, piece), expected) << piece;
}

TEST(WsFrameReader, EveryCutOffFrameGivesNothing) {
    const auto frame = serverFrame(kText, pattern(300));
    for (std::size_t size = 0; size < frame.size(); ++size) {
        ASSERT_TRUE(read(std::string_view(frame).substr(0, size)).empty()) << size;
    }
}

TEST(WsFrameReader, RandomBytesGiveTheSameInOnePieceAsInMany) {
    std::mt19937 random(4);
    std::size_t events = 0;
    for (int round = 0; round < 5000; ++round) {
        std::string bytes;
        for (int i = 0; i < 200; ++i)
            bytes += static_cast<char>(random() % (i % 2 == 0 ? 256 : 8));
        const auto whole = read(bytes);
        ASSERT_EQ(read(bytes, 1 + random() % 7), whole);
        events += whole.size();
    }
    EXPECT_GT(events, 1000U);
}

}  // namespace
}  // namespace qm
