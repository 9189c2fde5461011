// What several threads do to one connection at the same time, over plain TCP and over TLS.

#include <gtest/gtest.h>
#include <poll.h>

#include <future>
#include <string>
#include <thread>
#include <vector>

#include "net/ws_connection.h"
#include "support/promised.h"
#include "support/run_on_threads.h"
#include "support/tcp_peer.h"
#include "support/wait_until.h"
#include "support/ws_script.h"

namespace qm {
namespace {

using test::acceptWebSocket;
using test::ClientFrame;
using test::descriptorConnectedTo;
using test::kGenerousLimit;
using test::PeerConnection;
using test::readClientFrame;
using test::serverFrame;
using test::TcpPeer;
using test::trustedAuthority;
using test::waitUntil;

constexpr unsigned kText = 1;
constexpr std::size_t kMoreThanASocketHolds = 64 << 20;

class WsThreads : public testing::TestWithParam<const char*> {
protected:
    std::unique_ptr<TcpPeer> makePeer(TcpPeer::Script script) const {
        if (GetParam() == std::string("ws")) return std::make_unique<TcpPeer>(std::move(script));
        return std::make_unique<TcpPeer>(trustedAuthority().issue({"localhost"}), std::move(script));
    }

    std::shared_ptr<WsConnection> connectTo(const TcpPeer& peer) const {
        std::string error;
        auto connection = WsConnection::connect(peer.url(GetParam()), "/ws/executor", "token", &error);
        EXPECT_NE(connection, nullptr) << error;
        return connection;
    }

    std::unique_ptr<TcpPeer> makeHoldingPeer() const {
        return makePeer([](PeerConnection& connection) {
            acceptWebSocket(connection);
            connection.hold();
        });
    }
};

INSTANTIATE_TEST_SUITE_P(Transports, WsThreads, testing::Values("ws", "wss"));

/// Begins a message that doesn't fit into the socket, and waits until it is stuck.
std::future<bool> stuckWriter(const TcpPeer& peer, const std::shared_ptr<WsConnection>& connection) {
    auto writer = std::async(std::launch::async,
                             [connection] { return connection->sendText(std::string(kMoreThanASocketHolds, 'b')); });
    pollfd entry{descriptorConnectedTo(peer.port()), POLLOUT, 0};
    EXPECT_GE(entry.fd, 0);
    EXPECT_TRUE(waitUntil([&entry] { return ::poll(&entry, 1, 0) == 0; }));
    return writer;
}

bool becomesReady(const auto& future) {
    return future.wait_for(kGenerousLimit) == std::future_status::ready;
}

TEST_P(WsThreads, FramesOfManyWritersAndTheEchoesOfThePeerNeverMix) {
    constexpr int kWriters = 8;
    constexpr int kMessages = 60;
    const auto peer = makePeer([](PeerConnection& connection) {
        acceptWebSocket(connection);
        for (int i = 0; i < kWriters * kMessages; ++i) {
            connection.send(serverFrame(kText, readClientFrame(connection).payload));
        }
        connection.hold();
    });
    const auto connection = connectTo(*peer);
    std::vector<std::jthread> writers;
    writers.reserve(kWriters);
    for (int writer = 0; writer < kWriters; ++writer) {
        writers.emplace_back([&connection, writer] {
            for (int i = 0; i < kMessages; ++i) {
                // Sizes from a few bytes to several TLS records.
                const std::size_t size = static_cast<std::size_t>(i % 10) * 5000 + 1;
                EXPECT_TRUE(connection->sendText(std::to_string(writer) + ":" +
                                                 std::string(size, static_cast<char>('a' + writer))));
            }
        });
    }

    std::vector<int> received(kWriters);
    for (int i = 0; i < kWriters * kMessages; ++i) {
        std::string text;
        ASSERT_TRUE(connection->receive(&text));
        const auto writer = static_cast<std::size_t>(text.at(0) - '0');
        const std::size_t size = static_cast<std::size_t>(received.at(writer) % 10) * 5000 + 1;
        ASSERT_EQ(text, std::to_string(writer) + ":" + std::string(size, static_cast<char>('a' + writer)));
        ++received[writer];
    }
    EXPECT_EQ(received, std::vector<int>(kWriters, kMessages));
}

TEST_P(WsThreads, ALargeMessageGoesOutWhileAnotherComesIn) {
    constexpr std::size_t kSize = 8 << 20;
    const auto peer = makePeer([](PeerConnection& connection) {
        acceptWebSocket(connection);
        // Sends all of it before it reads a byte, so the client must read while its own message is stuck.
        connection.send(serverFrame(kText, std::string(kSize, 'i')));
        EXPECT_EQ(readClientFrame(connection).payload, std::string(kSize, 'o'));
        connection.send(serverFrame(kText, "both done"));
        connection.hold();
    });
    const auto connection = connectTo(*peer);
    const std::jthread writer([&connection] { EXPECT_TRUE(connection->sendText(std::string(kSize, 'o'))); });

    std::string text;
    ASSERT_TRUE(connection->receive(&text));
    EXPECT_EQ(text, std::string(kSize, 'i'));
    ASSERT_TRUE(connection->receive(&text));
    EXPECT_EQ(text, "both done");
}

TEST_P(WsThreads, ACloseWakesTheReader) {
    const auto peer = makeHoldingPeer();
    const auto connection = connectTo(*peer);
    auto reader = std::async(std::launch::async, [&connection] {
        std::string text;
        int failed = -1;
        EXPECT_FALSE(connection->receive(&text, &failed));
        return failed;
    });

    connection->close();

    ASSERT_TRUE(becomesReady(reader));
    EXPECT_EQ(reader.get(), 0);
    EXPECT_EQ(connection->receiveError(), "");
}

TEST_P(WsThreads, ACloseWakesAStuckWriterAndTheReaderAndIsNotHeldUp) {
    const auto peer = makeHoldingPeer();
    const auto connection = connectTo(*peer);
    auto reader = std::async(std::launch::async, [&connection] {
        std::string text;
        int failed = -1;
        EXPECT_FALSE(connection->receive(&text, &failed));
        return failed;
    });
    auto writer = stuckWriter(*peer, connection);
    auto waiting = std::async(std::launch::async, [&connection] { return connection->sendText("behind it"); });
    const auto start = std::chrono::steady_clock::now();

    connection->close();

    // The writer alone would wait 15 s.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    ASSERT_TRUE(becomesReady(writer));
    EXPECT_FALSE(writer.get());
    EXPECT_FALSE(waiting.get());
    EXPECT_EQ(reader.get(), 0);
}

TEST_P(WsThreads, ACloseThatFindsAFrameUnderWaySendsNothingIntoIt) {
    std::promise<void> closed;
    std::promise<std::string> received;
    const auto peer = makePeer([&](PeerConnection& connection) {
        acceptWebSocket(connection);
        test::promised(closed);
        received.set_value(connection.readToEnd());
    });
    const auto connection = connectTo(*peer);
    auto writer = stuckWriter(*peer, connection);

    connection->close();
    closed.set_value();

    EXPECT_FALSE(writer.get());
    const auto bytes = test::promised(received);
    EXPECT_LT(bytes.size(), kMoreThanASocketHolds);
    // A frame that isn't whole: the first header, then payload only. Its bytes are masked 'b's, four in turn.
    ASSERT_GT(bytes.size(), 1000U);
    const auto payload = std::string_view(bytes).substr(14);
    for (std::size_t i = 4; i < payload.size(); ++i)
        ASSERT_EQ(payload[i], payload[i - 4]) << i;
}

TEST_P(WsThreads, ManyThreadsThatCloseSendOneCloseFrame) {
    std::promise<std::string> received;
    const auto peer = makePeer([&received](PeerConnection& connection) {
        acceptWebSocket(connection);
        received.set_value(connection.readToEnd());
    });
    const auto connection = connectTo(*peer);
    test::runOnThreads(8, [&connection](std::size_t) {
        connection->close();
        EXPECT_FALSE(connection->sendText("too late"));
    });

    const auto bytes = test::promised(received);
    ASSERT_EQ(bytes.size(), 6U);
    EXPECT_EQ(bytes.substr(0, 2), "\x88\x80");
}

TEST_P(WsThreads, AWriterThatWaitsFifteenSecondsEndsTheSession) {
    const auto peer = makeHoldingPeer();
    const auto connection = connectTo(*peer);
    const auto start = std::chrono::steady_clock::now();
    auto writer = stuckWriter(*peer, connection);

    std::string text;
    int failed = -1;
    EXPECT_FALSE(connection->receive(&text, &failed));

    EXPECT_EQ(failed, 1);
    EXPECT_EQ(connection->receiveError(), "a frame could not be sent");
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(15));
    EXPECT_FALSE(writer.get());
    EXPECT_FALSE(connection->sendText("after it"));
}

}  // namespace
}  // namespace qm
