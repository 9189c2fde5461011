// WebSocket frames of every size and order, as a sound gateway and an unsound one may send them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "e2e/executor_home.h"

namespace qm::test {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

constexpr std::size_t kSixteenMiB = std::size_t{16} << 20;
/// Under the sanitizers it takes half a minute to parse and to write so much.
constexpr std::chrono::seconds kLargeMessageLimit{200};

/// An executor with a session.
class Frames : public testing::Test {
protected:
    ExecutorHome home_;
    GatewayPeer gateway_;
    ExecutorProcess executor_{home_.against(gateway_)};

    Frames() { gateway_.waitForRegister(); }

    /// Proves that the session works: a request and its reply.
    void expectSessionWorks() {
        const auto reply = gateway_.request({{"type", "validateCapabilityArgs"}, {"capabilityId", "x"}});
        EXPECT_EQ(reply.at("type"), "validateCapabilityArgsResult");
        EXPECT_EQ(gateway_.sessionCount(), 1U);
    }

    /// A request that fills a frame of exactly `size` bytes.
    static std::string requestOfSize(std::size_t size) {
        const std::string start = R"({"type":"resolutionToolExecute","requestId":"sized","pad":")";
        const std::string end = R"("})";
        return start + std::string(size - start.size() - end.size(), 'x') + end;
    }

    ReceivedFrame waitForReply(const std::string& requestId) {
        return gateway_.waitForFrame(
            [&](const ReceivedFrame& frame) { return frame.message.value("requestId", json()) == requestId; },
            kLargeMessageLimit);
    }
};

class FramesOfSize : public Frames, public testing::WithParamInterface<std::size_t> {};

TEST_P(FramesOfSize, FromTheGatewayAreUnderstood) {
    gateway_.sendText(requestOfSize(GetParam()));

    EXPECT_EQ(waitForReply("sized").message.at("type"), "resolutionToolResult");
}

TEST_P(FramesOfSize, FromTheExecutorAreWhole) {
    // The reply carries back the request's id, whose length therefore decides the reply's.
    const json message{{"type", "resolutionToolResult"},
                       {"requestId", ""},
                       {"result", {{"error", "Capability does not support resolution: "}}}};
    const std::string id(GetParam() - message.dump().size(), 'i');

    gateway_.send({{"type", "resolutionToolExecute"}, {"requestId", id}});

    const auto reply = waitForReply(id);
    EXPECT_EQ(reply.text.size(), GetParam());
    EXPECT_EQ(reply.message.at("result").at("error"), "Capability does not support resolution: ");
}

INSTANTIATE_TEST_SUITE_P(AtTheBoundariesOfTheLengthForms, FramesOfSize,
                         testing::Values(125, 126, 65535, 65536, kSixteenMiB), testing::PrintToStringParamName());

TEST_F(Frames, AnEmptyMessageIsDroppedWithAWarning) {
    gateway_.sendText("");

    executor_.waitForOutput("WARN  bad ws command: ");
    expectSessionWorks();
}

TEST_F(Frames, AMessageThatIsNoJsonObjectIsDroppedWithAWarning) {
    const std::vector<std::string> messages{
        "no json", "{\"type\":", "[1,2]", "\"text\"", "7", "null", R"({"type":"metricsRequest"} trailing)"};
    for (const auto& message : messages) {
        gateway_.sendText(message);
    }

    executor_.waitForOutput("WARN  bad ws command: ", messages.size());
    expectSessionWorks();
    EXPECT_TRUE(gateway_.untakenFrames().empty()) << "nothing is answered";
}

TEST_F(Frames, AMessageInThreeFragmentsIsOneMessageAndAPingBetweenThemIsAnsweredAtOnce) {
    gateway_.sendFragment(R"({"type":"resolutionTool)", false);
    gateway_.sendPing("between one and two");
    gateway_.waitForPong("between one and two");
    gateway_.sendFragment(R"(Execute","requestId":"frag)", false);
    gateway_.sendPing("");
    gateway_.waitForPong("");
    EXPECT_TRUE(gateway_.untakenFrames().empty());
    gateway_.sendFragment(R"(ments"})", true);

    EXPECT_EQ(waitForReply("fragments").message.at("type"), "resolutionToolResult");
}

TEST_F(Frames, APingOfTheLargestPayloadIsAnsweredWithIt) {
    const std::string payload(125, 'p');

    gateway_.sendPing(payload);

    gateway_.waitForPong(payload);
}

TEST_F(Frames, BinaryMessagesAreIgnored) {
    gateway_.sendBinary(R"({"type":"resolutionToolExecute","requestId":"binary"})");

    expectSessionWorks();
    EXPECT_TRUE(gateway_.untakenFrames().empty());
    EXPECT_THAT(executor_.output(), Not(HasSubstr("bad ws command")));
}

TEST_F(Frames, AMaskedFrameOfTheGatewayIsUnmasked) {
    const std::string text = R"({"type":"resolutionToolExecute","requestId":"masked"})";
    const std::string mask = "\x11\x22\x33\x44";
    std::string frame{'\x81', static_cast<char>(0x80 | text.size())};
    frame += mask;
    for (std::size_t i = 0; i < text.size(); ++i) {
        frame += static_cast<char>(text[i] ^ mask[i % 4]);
    }

    gateway_.sendRaw(frame);

    EXPECT_EQ(waitForReply("masked").message.at("type"), "resolutionToolResult");
}

TEST_F(Frames, ACloseFrameEndsTheSessionInGoodOrderAndItsReasonIsLogged) {
    gateway_.close(4001, "maintenance tonight");

    const auto end = gateway_.waitForEnd(1);
    executor_.waitForOutput("WARN  gateway connection closed\n");
    executor_.waitForOutput("4001");
    executor_.waitForOutput("maintenance tonight");
    EXPECT_EQ(end.code, 0) << "the executor's close frame carries no code";
    EXPECT_THAT(executor_.output(), Not(HasSubstr("websocket receive error")));
}

TEST_F(Frames, ACloseBetweenFragmentsEndsTheSessionAndDropsTheHalfMessage) {
    gateway_.sendFragment(R"({"type":"resolutionToolExecute",)", false);
    gateway_.close();

    gateway_.waitForEnd(1);
    executor_.waitForOutput("WARN  gateway connection closed\n");
    gateway_.waitForRegister();
    EXPECT_TRUE(gateway_.untakenFrames().empty());
    EXPECT_THAT(executor_.output(), Not(HasSubstr("bad ws command")));
}

TEST_F(Frames, AResetInTheMiddleOfAFrameIsAReceiveError) {
    // Announces 100 bytes and brings 5.
    gateway_.sendRaw(std::string("\x81\x64") + "{\"typ");
    gateway_.drop();

    executor_.waitForOutput("WARN  websocket receive error: ");
    executor_.waitForOutput("WARN  gateway connection closed\n");
    gateway_.waitForRegister();
}

TEST_F(Frames, ALengthBeyondAllMemoryIsntReservedForAndDoesNoHarm) {
    const std::string largest("\x81\x7f\xff\xff\xff\xff\xff\xff\xff\xff", 10);
    gateway_.sendRaw(largest + "some bytes");
    gateway_.sendRaw(std::string(100000, 'x'));

    expectOrderlyStop(executor_);
}

}  // namespace
}  // namespace qm::test
