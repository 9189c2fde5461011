#include "net/http_response.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace qm {
namespace {

HttpResponse parse(std::string_view bytes, HttpResponseParser::Options options = {}) {
    HttpResponseParser parser(std::move(options));
    parser.feed(bytes);
    return parser.finish();
}

/// The same in two pieces.
HttpResponse parseCutAt(std::string_view bytes, std::size_t cut) {
    HttpResponseParser parser;
    parser.feed(bytes.substr(0, cut));
    parser.feed(bytes.substr(cut));
    return parser.finish();
}

std::string chunkedResponse(std::string_view chunks) {
    return "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + std::string(chunks);
}

TEST(HttpResponseParser, StatusAndBodyComeAsTheyWereSent) {
    const auto response = parse("HTTP/1.1 404 Not Found\r\nContent-Type: text/plain\r\n\r\nno such thing");

    EXPECT_EQ(response.status, 404);
    EXPECT_EQ(response.body, "no such thing");
    EXPECT_EQ(response.error, "");
}

TEST(HttpResponseParser, ContentLengthIsIgnored) {
    EXPECT_EQ(parse("HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nabcdef").body, "abcdef");
    EXPECT_EQ(parse("HTTP/1.1 200 OK\r\nContent-Length: 30\r\n\r\nabcdef").body, "abcdef");
}

TEST(HttpResponseParser, AHeaderBlockAloneIsAnEmptyBody) {
    const auto response = parse("HTTP/1.1 204\r\n\r\n");

    EXPECT_EQ(response.status, 204);
    EXPECT_EQ(response.body, "");
    EXPECT_EQ(response.error, "");
}

class MalformedResponse : public testing::TestWithParam<const char*> {};

TEST_P(MalformedResponse, IsReportedAsSuch) {
    const auto response = parse(GetParam());

    EXPECT_EQ(response.error, "响应格式非法");
    EXPECT_EQ(response.status, 0);
    EXPECT_EQ(response.body, "");
}

INSTANTIATE_TEST_SUITE_P(Table, MalformedResponse,
                         testing::Values("", "HTTP/1.1 200 OK", "HTTP/1.1 200 OK\r\nA: b\r\n",
                                         "HTTP/1.1 200 OK\n\nbody", "HTTP/1.1 200 OK\r\n\r", "\r\n\r\n",
                                         "HTTP/1.1\r\n\r\nbody", "HTTP/1.1 OK\r\n\r\nbody", "HTTP/1.1 20\r\n\r\n",
                                         "HTTP/1.1 -20 x\r\n\r\n", "HTTP/1.1 000 Nothing\r\n\r\n",
                                         "HTTP/1.1\r\nX: 200 OK\r\n\r\n"));

TEST(HttpResponseParser, EveryCutGivesTheSameResponse) {
    const std::string plain = "HTTP/1.1 201 Created\r\nA: b\r\n\r\nthe \r\n\r\n body";
    const std::string chunked = chunkedResponse("5;x=y\r\nhello\r\n7\r\n, world\r\n0\r\nTrailer: x\r\n\r\n");
    for (std::size_t cut = 0; cut <= plain.size(); ++cut) {
        const auto response = parseCutAt(plain, cut);
        ASSERT_EQ(response.status, 201) << cut;
        ASSERT_EQ(response.body, "the \r\n\r\n body") << cut;
    }
    for (std::size_t cut = 0; cut <= chunked.size(); ++cut) {
        const auto response = parseCutAt(chunked, cut);
        ASSERT_EQ(response.status, 200) << cut;
        ASSERT_EQ(response.body, "hello, world") << cut;
    }
}

TEST(HttpResponseParser, ByteByByteGivesTheSameResponse) {
    const std::string chunked = chunkedResponse("5\r\nhello\r\n00a\r\n, 0123456\n\r\n0\r\n\r\n");
    HttpResponseParser parser;
    for (const char byte : chunked)
        ASSERT_TRUE(parser.feed({&byte, 1}));

    EXPECT_EQ(parser.finish().body, "hello, 0123456\n");
}

TEST(HttpResponseParser, TheCodingIsFoundWhateverTheCaseOfItsHeader) {
    EXPECT_EQ(parse("HTTP/1.1 200 OK\r\nTRANSFER-encoding:\t gzip, chunked \r\n\r\n1\r\nx\r\n0\r\n\r\n").body, "x");
    EXPECT_EQ(parse("HTTP/1.1 200 OK\r\nTransfer-Encoding: identity\r\n\r\n1\r\nx\r\n0\r\n\r\n").body,
              "1\r\nx\r\n0\r\n\r\n");
    EXPECT_EQ(parse("HTTP/1.1 200 OK\r\nX-Transfer-Encoding: chunked\r\n\r\n1\r\nx\r\n").body, "1\r\nx\r\n");
}

struct ChunkCase {
    const char* chunks;
    const char* body;
};

class ChunkedBody : public testing::TestWithParam<ChunkCase> {};

TEST_P(ChunkedBody, DecodesAsTheTableSays) {
    EXPECT_EQ(parse(chunkedResponse(GetParam().chunks)).body, GetParam().body);
}

INSTANTIATE_TEST_SUITE_P(
    Table, ChunkedBody,
    testing::Values(ChunkCase{"3\r\nabc\r\n4\r\ndefg\r\n0\r\n\r\n", "abcdefg"},  // two chunks and the end
                    ChunkCase{"3\r\nabc\r\n4\r\nde", "abc"},                     // cut off inside a chunk
                    ChunkCase{"3\r\nabc\r\n4\r\ndefg", "abcdefg"},               // cut off behind a chunk
                    ChunkCase{"3\r\nabc\r\n4", "abc"},                           // cut off inside a size
                    ChunkCase{"3\r\nabc\r\n", "abc"},                            // no end
                    ChunkCase{"", ""},                                           //
                    ChunkCase{"0\r\n\r\n3\r\nabc\r\n", ""},                      // nothing counts behind the end
                    ChunkCase{"A\r\n0123456789\r\n0\r\n\r\n", "0123456789"},     // hexadecimal, either case
                    ChunkCase{"a;name=value\r\n0123456789\r\n0\r\n", "0123456789"},
                    ChunkCase{"0x3\r\nabc\r\n0\r\n", "abc"},         // what strtoul() takes
                    ChunkCase{"  3 \r\nabc\r\n0\r\n", "abc"},        //
                    ChunkCase{"3\nabc\n2\nde\n0\n", "abcde"},        // bare line feeds
                    ChunkCase{"3\r\nabc2\r\nde\r\n0\r\n", "abcde"},  // no line ending behind a chunk
                    ChunkCase{"3\r\nabc\r\nxyz\r\ndef\r\n", "abc"},  // a size that is no number
                    ChunkCase{"3\r\nabc\r\n\r\ndef\r\n", "abc"},     // an empty one
                    ChunkCase{"3\r\nabc\r\n-1\r\ndef\r\n", "abc"},   // as large as a number gets
                    ChunkCase{"3\r\nabc\r\nffffffffffffffff\r\ndef\r\n", "abc"},
                    ChunkCase{"3\r\nabc\r\nfffffffffffffffffffff\r\ndef\r\n", "abc"}));

TEST(ChunkedDecoder, EveryCutOffBodyGivesTheChunksBeforeTheCut) {
    const std::string chunks = "4\r\nwiki\r\n5\r\npedia\r\n0\r\n\r\n";
    for (std::size_t size = 0; size <= chunks.size(); ++size) {
        const auto body = parse(chunkedResponse(chunks.substr(0, size))).body;
        const std::string expected = size < 7 ? "" : size < 17 ? "wiki" : "wikipedia";
        EXPECT_EQ(body, expected) << size;
    }
}

TEST(ChunkedDecoder, AnExtensionMayBeLongerThanAnythingThatIsKept) {
    const std::string extension(100000, 'e');

    EXPECT_EQ(parse(chunkedResponse("3;" + extension + "\r\nabc\r\n0\r\n\r\n")).body, "abc");
}

TEST(ChunkedDecoder, RandomBytesGiveTheSameInOnePieceAsInMany) {
    std::mt19937 random(2);
    const std::string alphabet = "0123aF;\r\n\r\n\r\n xyz";
    int nonEmpty = 0;
    for (int round = 0; round < 20000; ++round) {
        std::string chunks;
        for (int i = 0; i < 40; ++i)
            chunks += alphabet[random() % alphabet.size()];
        const auto whole = parse(chunkedResponse(chunks));
        HttpResponseParser pieces;
        pieces.feed(chunkedResponse(""));
        for (std::size_t i = 0; i < chunks.size();) {
            const std::size_t size = 1 + random() % 5;
            pieces.feed(std::string_view(chunks).substr(i, size));
            i += size;
        }
        ASSERT_EQ(pieces.finish().body, whole.body) << chunks;
        ASSERT_LE(whole.body.size(), chunks.size());
        if (!whole.body.empty()) ++nonEmpty;
    }
    EXPECT_GT(nonEmpty, 100);
}

TEST(HttpResponseParser, RandomBytesNeverGiveAStatusWithAnError) {
    std::mt19937 random(3);
    const std::string alphabet = "HTTP/1. 20\r\n\r\n\r\n:\xff";
    for (int round = 0; round < 20000; ++round) {
        std::string bytes;
        for (int i = 0; i < 30; ++i)
            bytes += alphabet[random() % alphabet.size()];
        const auto response = parse(bytes);
        ASSERT_EQ(response.status == 0, !response.error.empty()) << bytes;
    }
}

TEST(HttpResponseParser, ABodyAtTheLimitIsTakenWholeAndTheReadingGoesOn) {
    HttpResponseParser parser({.bodyLimit = 4, .sink = {}});

    EXPECT_TRUE(parser.feed("HTTP/1.1 200 OK\r\n\r\nabcd"));

    EXPECT_EQ(parser.finish().body, "abcd");
}

TEST(HttpResponseParser, OneByteBeyondTheLimitEndsTheReadingAndShowsInTheBody) {
    HttpResponseParser parser({.bodyLimit = 4, .sink = {}});

    EXPECT_FALSE(parser.feed("HTTP/1.1 200 OK\r\n\r\nabcde"));

    const auto response = parser.finish();
    EXPECT_EQ(response.status, 200);
    EXPECT_GT(response.body.size(), 4U);
}

TEST(HttpResponseParser, AChunkBeyondTheLimitShowsInTheBodyThoughItIsntComplete) {
    HttpResponseParser parser({.bodyLimit = 4, .sink = {}});

    EXPECT_FALSE(parser.feed(chunkedResponse("ffff\r\nabcde")));

    EXPECT_EQ(parser.finish().body, "abcde");
}

TEST(HttpResponseParser, ALimitBoundsTheHeaderBlockToo) {
    HttpResponseParser atLimit({.bodyLimit = 4, .sink = {}});
    HttpResponseParser beyond({.bodyLimit = 4, .sink = {}});
    HttpResponseParser unlimited;

    EXPECT_TRUE(atLimit.feed(std::string(65536, 'h')));
    EXPECT_FALSE(beyond.feed(std::string(65537, 'h')));
    EXPECT_TRUE(unlimited.feed(std::string(65537, 'h')));

    EXPECT_EQ(beyond.finish().error, "响应格式非法");
}

TEST(HttpResponseParser, ASinkGetsTheBodyInsteadOfTheResponse) {
    std::string received;
    const auto response =
        parse(chunkedResponse("3\r\nabc\r\n2\r\nde\r\n0\r\n\r\n"), {.bodyLimit = {}, .sink = [&](auto bytes) {
                                                                        received += bytes;
                                                                        return true;
                                                                    }});

    EXPECT_EQ(received, "abcde");
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.body, "");
    EXPECT_EQ(response.error, "");
}

TEST(HttpResponseParser, ASinkThatRefusesEndsTheReading) {
    int calls = 0;
    HttpResponseParser parser({.bodyLimit = {}, .sink = [&](std::string_view) {
                                   ++calls;
                                   return false;
                               }});

    EXPECT_FALSE(parser.feed(chunkedResponse("3\r\nabc\r\n2\r\nde\r\n0\r\n\r\n")));

    EXPECT_EQ(calls, 1);
}

TEST(FindHeader, IgnoresTheCaseOfTheNameAndTheSpaceAroundTheValue) {
    const std::string_view block = "HTTP/1.1 200 OK\r\nX-One:  first \t\r\nx-two:second\r\nX-One: again";

    EXPECT_EQ(findHeader(block, "x-one"), "first");
    EXPECT_EQ(findHeader(block, "X-TWO"), "second");
}

TEST(FindHeader, TheLastLineNeedsNoLineEnding) {
    EXPECT_EQ(findHeader("A: b\r\nC: d", "c"), "d");
    EXPECT_EQ(findHeader("A: b\nC:", "c"), "");
}

TEST(FindHeader, ANameThatIsntThereIsNothing) {
    EXPECT_EQ(findHeader("HTTP/1.1 200 OK\r\nAB: c\r\nno colon here", "A"), std::nullopt);
    EXPECT_EQ(findHeader("", "A"), std::nullopt);
    EXPECT_EQ(findHeader("A : b", "A"), std::nullopt);
}

TEST(StatusOf, TakesTheThreeDigitsBehindTheFirstSpace) {
    EXPECT_EQ(statusOf("HTTP/1.1 200 OK"), 200);
    EXPECT_EQ(statusOf("HTTP/1.1 999"), 999);
    EXPECT_EQ(statusOf("x 101\r\nA: b"), 101);
    EXPECT_EQ(statusOf("HTTP/1.1  200"), std::nullopt);
}

}  // namespace
}  // namespace qm
