#include "net/tcp_connect.h"

#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <deque>
#include <string>
#include <vector>

#include "net/cancel_signal.h"
#include "support/tcp_peer.h"

namespace qm {
namespace {

using test::FullListener;
using test::PeerConnection;
using test::RefusingPort;
using test::TcpPeer;

constexpr int kLongMs = 60000;
constexpr int kShortMs = 50;

/// What a resolver might hand out: loopback addresses with these ports.
class Addresses {
public:
    explicit Addresses(const std::vector<int>& ports) {
        for (const int port : ports)
            add(port);
    }

    const addrinfo* first() const { return entries_.empty() ? nullptr : &entries_.front(); }

private:
    void add(int port) {
        sockaddr_in& address = addresses_.emplace_back();
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        addrinfo* const last = entries_.empty() ? nullptr : &entries_.back();
        addrinfo& entry = entries_.emplace_back();
        entry.ai_family = AF_INET;
        entry.ai_socktype = SOCK_STREAM;
        entry.ai_addr = reinterpret_cast<sockaddr*>(&address);
        entry.ai_addrlen = sizeof address;
        if (last != nullptr) last->ai_next = &entry;
    }

    // Neither moves its elements when it grows.
    std::deque<sockaddr_in> addresses_;
    std::deque<addrinfo> entries_;
};

void hold(PeerConnection& connection) {
    connection.hold();
}

TEST(ConnectToFirst, TriesTheNextAddressWhenOneRefuses) {
    const RefusingPort refusing;
    TcpPeer peer(hold);
    UniqueFd connected;

    EXPECT_EQ(connectToFirst(Addresses({refusing.port(), peer.port()}).first(), kLongMs, nullptr, &connected), 0);

    EXPECT_EQ(test::descriptorConnectedTo(peer.port()), connected.get());
}

TEST(ConnectToFirst, TriesTheNextAddressWhenOneDoesNotAnswer) {
    const FullListener silent;
    TcpPeer peer(hold);
    UniqueFd connected;

    EXPECT_EQ(connectToFirst(Addresses({silent.port(), peer.port()}).first(), kShortMs, nullptr, &connected), 0);

    EXPECT_EQ(test::descriptorConnectedTo(peer.port()), connected.get());
}

TEST(ConnectToFirst, TakesTheFirstThatAnswers) {
    TcpPeer first(hold);
    TcpPeer second(hold);
    UniqueFd connected;

    EXPECT_EQ(connectToFirst(Addresses({first.port(), second.port()}).first(), kLongMs, nullptr, &connected), 0);

    EXPECT_EQ(test::descriptorConnectedTo(first.port()), connected.get());
    EXPECT_EQ(test::descriptorConnectedTo(second.port()), -1);
}

TEST(ConnectToFirst, ReportsTheLastError) {
    const RefusingPort refusing;
    const RefusingPort refusingToo;
    const FullListener silent;
    UniqueFd connected;
    const auto outcome = [&](const std::vector<int>& ports) {
        return connectToFirst(Addresses(ports).first(), kShortMs, nullptr, &connected);
    };

    EXPECT_EQ(outcome({refusing.port(), refusingToo.port()}), ECONNREFUSED);
    EXPECT_EQ(outcome({refusing.port(), silent.port()}), ETIMEDOUT);
    EXPECT_EQ(outcome({silent.port(), refusing.port()}), ECONNREFUSED);
    EXPECT_EQ(outcome({}), EADDRNOTAVAIL);
    EXPECT_FALSE(connected);
}

TEST(ConnectToFirst, TriesNothingOnceCancelled) {
    TcpPeer peer(hold);
    CancelSignal cancel;
    cancel.cancel();
    UniqueFd connected;

    EXPECT_EQ(connectToFirst(Addresses({peer.port()}).first(), kLongMs, &cancel, &connected), ECANCELED);

    EXPECT_EQ(peer.accepted(), 0U);
}

TEST(ConnectTcp, ACancelledCallAsksForNoName) {
    CancelSignal cancel;
    cancel.cancel();
    std::string error;

    // Were it asked for, that would fail in words of its own.
    EXPECT_FALSE(connectTcp("no such host", 80, kLongMs, &cancel, &error));
    EXPECT_EQ(error, "TCP 连接失败: Operation canceled");
}

TEST(ConnectTcp, ANameThatDoesNotResolveHasItsText) {
    std::string error;

    EXPECT_FALSE(connectTcp("no such host", 80, kLongMs, nullptr, &error));
    EXPECT_TRUE(error.starts_with("DNS 解析失败: ")) << error;
}

}  // namespace
}  // namespace qm
