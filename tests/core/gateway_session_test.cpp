#include "core/gateway_session.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

#include "net/ws_connection.h"
#include "support/gateway_peer.h"

namespace qm {
namespace {

using test::GatewayPeer;
using Versions = std::vector<std::uint64_t>;

/// A session whose messages show the version that they were built from.
class GatewaySessionMessages : public ::testing::Test {
protected:
    GatewaySessionMessages() {
        session.emplace(connection, [this] { return announcement(); });
    }

    GatewaySession::Announcement announcement() {
        const std::uint64_t version = tableVersion;
        if (whileBuilding) whileBuilding();
        return {R"({"type":"register","version":)" + std::to_string(version) + "}", version};
    }

    /// The versions that the gateway was sent so far.
    Versions sentVersions() {
        connection->sendText(R"({"type":"marker"})");
        gateway.waitForType("marker");
        Versions versions;
        for (const auto& frame : gateway.untakenFrames())
            versions.push_back(frame.message.at("version"));
        return versions;
    }

    GatewayPeer gateway;
    std::shared_ptr<WsConnection> connection = WsConnection::connect(gateway.url(), "/ws/executor", "token");
    std::uint64_t tableVersion = 1;
    std::function<void()> whileBuilding;
    std::optional<GatewaySession> session;
};

TEST_F(GatewaySessionMessages, AChangeBeforeTheFirstOneIsBegunCausesNoSecondOne) {
    session->capabilitiesChanged(1);
    session->announce();

    EXPECT_EQ(sentVersions(), (Versions{1}));
}

TEST_F(GatewaySessionMessages, AChangeThatTheFirstOneShowsCausesNoSecondOne) {
    whileBuilding = [this] { session->capabilitiesChanged(1); };

    session->announce();

    EXPECT_EQ(sentVersions(), (Versions{1}));
}

TEST_F(GatewaySessionMessages, AChangeThatCameTooLateForOneIsSentBehindIt) {
    whileBuilding = [this] {
        tableVersion = 2;
        session->capabilitiesChanged(2);
    };

    session->announce();

    EXPECT_EQ(sentVersions(), (Versions{1, 2}));
}

TEST_F(GatewaySessionMessages, ManyChangesDuringOneAreShownByOneMore) {
    whileBuilding = [this] {
        if (tableVersion < 5) tableVersion = 5;
        for (const std::uint64_t version : {2U, 5U, 4U, 3U})
            session->capabilitiesChanged(version);
    };

    session->announce();

    EXPECT_EQ(sentVersions(), (Versions{1, 5}));
}

TEST_F(GatewaySessionMessages, AreSentForVersionsThatTheGatewayDoesNotKnow) {
    session->announce();

    session->capabilitiesChanged(1);
    tableVersion = 3;
    session->capabilitiesChanged(2);
    session->capabilitiesChanged(3);

    EXPECT_EQ(sentVersions(), (Versions{1, 3}));
}

TEST_F(GatewaySessionMessages, OneThatCouldNotBeBuiltDoesNotBlockTheNext) {
    session->announce();
    whileBuilding = [] { throw std::runtime_error("no memory"); };
    EXPECT_THROW(session->capabilitiesChanged(2), std::runtime_error);
    whileBuilding = {};

    tableVersion = 3;
    session->capabilitiesChanged(3);

    EXPECT_EQ(sentVersions(), (Versions{1, 3}));
}

}  // namespace
}  // namespace qm
