#include "net/socket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>

#include <future>
#include <string>
#include <thread>

#include "support/tcp_peer.h"
#include "support/wait_until.h"

namespace qm {
namespace {

using test::descriptorConnectedTo;
using test::kGenerousLimit;
using test::PeerConnection;
using test::RefusingPort;
using test::TcpPeer;
using test::trustedAuthority;

constexpr int kLongMs = 60000;
constexpr int kShortMs = 50;

void hold(PeerConnection& connection) {
    connection.hold();
}

/// Resets the connection once a byte has come: at once, the reset could overtake the end of connecting.
void resetAfterAByte(PeerConnection& connection) {
    connection.readExactly(1);
    connection.reset();
}

std::unique_ptr<Socket> connectTo(const TcpPeer& peer, int timeoutMs = kLongMs) {
    std::string error;
    auto socket = Socket::connect("127.0.0.1", peer.port(), false, timeoutMs, &error);
    EXPECT_EQ(error, "");
    return socket;
}

int option(int fd, int level, int name) {
    int value = -1;
    socklen_t size = sizeof value;
    EXPECT_EQ(::getsockopt(fd, level, name, &value, &size), 0);
    return value;
}

bool sigpipeEndsTheProcess() {
    struct sigaction action {};
    ::sigaction(SIGPIPE, nullptr, &action);
    return action.sa_handler == SIG_DFL;
}

/// Sends to a peer that is gone until the kernel notices.
void sendUntilRefused(Socket& socket) {
    EXPECT_TRUE(test::waitUntil([&socket] { return !socket.send("more"); }));
}

TEST(Socket, TheErrorMayBeLeftOut) {
    const RefusingPort port;

    EXPECT_EQ(Socket::connect("127.0.0.1", port.port(), false, kLongMs), nullptr);
}

TEST(Socket, IsClosedInChildrenAndSendsSmallPiecesAtOnce) {
    TcpPeer peer(hold);
    const auto socket = connectTo(peer);
    const int fd = descriptorConnectedTo(peer.port());
    ASSERT_GE(fd, 0);

    EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(option(fd, IPPROTO_TCP, TCP_NODELAY), 1);
    EXPECT_EQ(option(fd, SOL_SOCKET, SO_KEEPALIVE), 0);
}

TEST(Socket, FindsASilentPeerWithinAMinuteWhenAskedTo) {
    TcpPeer peer(hold);
    const auto socket = connectTo(peer);

    socket->detectSilentPeer();

    const int fd = descriptorConnectedTo(peer.port());
    ASSERT_GE(fd, 0);
    EXPECT_EQ(option(fd, SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_LE(option(fd, IPPROTO_TCP, TCP_KEEPIDLE) +
                  option(fd, IPPROTO_TCP, TCP_KEEPINTVL) * option(fd, IPPROTO_TCP, TCP_KEEPCNT),
              60);
    EXPECT_GT(option(fd, IPPROTO_TCP, TCP_USER_TIMEOUT), 0);
    EXPECT_LE(option(fd, IPPROTO_TCP, TCP_USER_TIMEOUT), 60000);
}

TEST(Socket, TheDescriptorIsClosedWithTheSocket) {
    TcpPeer peer(hold);
    auto socket = connectTo(peer);
    ASSERT_GE(descriptorConnectedTo(peer.port()), 0);

    socket.reset();

    EXPECT_EQ(descriptorConnectedTo(peer.port()), -1);
}

TEST(Socket, BytesArriveAsTheyWereSentAndTheEndIsZero) {
    TcpPeer peer([](PeerConnection& connection) { connection.send(connection.readExactly(5)); });
    const auto socket = connectTo(peer);
    char buffer[16];

    ASSERT_TRUE(socket->send("he"));
    ASSERT_TRUE(socket->send(""));
    ASSERT_TRUE(socket->send("llo"));

    std::string received;
    std::ptrdiff_t count = 0;
    while ((count = socket->readWithoutTimeout(buffer, sizeof buffer)) > 0) {
        received.append(buffer, static_cast<std::size_t>(count));
    }
    EXPECT_EQ(count, 0);
    EXPECT_EQ(received, "hello");
}

TEST(Socket, AReadThatTakesTooLongFailsAndSaysWhy) {
    TcpPeer peer(hold);
    const auto socket = connectTo(peer, kShortMs);
    char buffer[16];

    EXPECT_EQ(socket->read(buffer, sizeof buffer), -1);
    EXPECT_EQ(socket->readError(), "Connection timed out");
}

TEST(Socket, AResetFailsTheReadAndSaysWhy) {
    TcpPeer peer(resetAfterAByte);
    const auto socket = connectTo(peer);
    char buffer[16];

    ASSERT_TRUE(socket->send("x"));
    EXPECT_EQ(socket->readWithoutTimeout(buffer, sizeof buffer), -1);
    EXPECT_EQ(socket->readError(), "Connection reset by peer");
}

TEST(Socket, ASendThatTakesTooLongFailsAndSoDoesEveryLaterOne) {
    TcpPeer peer(hold);
    const auto socket = connectTo(peer, kShortMs);

    EXPECT_FALSE(socket->send(std::string(64 << 20, 'b')));
    EXPECT_FALSE(socket->send("x"));
    EXPECT_FALSE(socket->sendWithoutWaiting("x"));
}

TEST(Socket, SendingToADeadPeerIsAnErrorAndNoSignal) {
    ASSERT_TRUE(sigpipeEndsTheProcess());
    TcpPeer peer(resetAfterAByte);
    const auto socket = connectTo(peer);

    sendUntilRefused(*socket);
}

TEST(Socket, SendingToADeadPeerUnderTlsIsAnErrorAndNoSignal) {
    ASSERT_TRUE(sigpipeEndsTheProcess());
    TcpPeer peer(trustedAuthority().issue({"localhost"}), resetAfterAByte);
    std::string error;
    auto socket = Socket::connect("localhost", peer.port(), true, kLongMs, &error);
    ASSERT_NE(socket, nullptr) << error;

    sendUntilRefused(*socket);
    socket.reset();
}

TEST(Socket, AfterAShutdownFromThisSideNothingIsSentAndNoSignalRaised) {
    ASSERT_TRUE(sigpipeEndsTheProcess());
    TcpPeer peer(hold);
    const auto socket = connectTo(peer);

    socket->shutdownBoth();
    socket->shutdownBoth();

    EXPECT_FALSE(socket->send("x"));
}

TEST(Socket, AShutdownFromAnotherThreadWakesTheReader) {
    TcpPeer peer(hold);
    const auto socket = connectTo(peer);
    auto reading = std::async(std::launch::async, [&socket] {
        char buffer[16];
        return socket->readWithoutTimeout(buffer, sizeof buffer);
    });

    socket->shutdownBoth();

    ASSERT_EQ(reading.wait_for(kGenerousLimit), std::future_status::ready);
    EXPECT_EQ(reading.get(), 0);
}

TEST(Socket, AForgottenSignalEndsNothing) {
    TcpPeer peer([](PeerConnection& connection) { connection.send(connection.readExactly(1)); });
    const auto cancel = std::make_shared<CancelSignal>();
    const auto socket = Socket::connect("127.0.0.1", peer.port(), false, kLongMs, nullptr, cancel);
    ASSERT_NE(socket, nullptr);

    socket->forgetCancelSignal();
    cancel->cancel();

    char buffer[1];
    EXPECT_TRUE(socket->send("x"));
    EXPECT_EQ(socket->read(buffer, sizeof buffer), 1);
}

}  // namespace
}  // namespace qm
