#include "core/register_message.h"

#include <gtest/gtest.h>

#include "util/json.h"

namespace qm {
namespace {

json messageFor(const Settings& settings, CapabilityRegistry& registry) {
    return registerMessage(settings, ModelState{}, registry.snapshot(), json::array());
}

Settings someSettings() {
    Settings settings;
    settings.nodeId = "node";
    settings.name = "box";
    settings.description = "a box";
    settings.executorToken = "secret";
    return settings;
}

TEST(RegisterMessage, SaysWhoTheExecutorIs) {
    CapabilityRegistry registry;

    const json message = messageFor(someSettings(), registry);

    EXPECT_EQ(message, (json{{"type", "register"},
                             {"agentId", "node"},
                             {"name", "box"},
                             {"description", "a box"},
                             {"version", "3.0.1-native"},
                             {"url", ""},
                             {"mode", "LIGHT"},
                             {"modelSource", "REMOTE_API"},
                             {"maxTaskRounds", 0},
                             {"protocolFeatures",
                              {"capability-policy-v1", "model-generate-v1", "process-plugin-v2", "device-extensions-v1",
                               "app-market-v1", "local-market-v1", "agent-runtime-v1", "agent-runtime-v2"}},
                             {"capabilities", json::array()},
                             {"extensions", json::array()}}));
}

TEST(RegisterMessage, NeverHoldsTheToken) {
    CapabilityRegistry registry;
    EXPECT_EQ(dumpJson(messageFor(someSettings(), registry)).find("secret"), std::string::npos);
}

TEST(RegisterMessage, AHeavyExecutorTakesModelInputParts) {
    CapabilityRegistry registry;
    Settings settings = someSettings();
    settings.mode = "HEAVY";

    const json message = messageFor(settings, registry);

    EXPECT_EQ(message["mode"], "HEAVY");
    ASSERT_EQ(message["protocolFeatures"].size(), 9U);
    EXPECT_EQ(message["protocolFeatures"][8], "model-input-parts-v1");
}

TEST(RegisterMessage, ShowsEachCapabilityInTableOrder) {
    CapabilityRegistry registry;
    CapabilityDef first;
    first.name = "zeta";
    first.displayName = "Z";
    first.description = "does z";
    first.effect = "READ_ONLY";
    first.parameters = {{"type", "object"}};
    registry.registerCapability(first);
    CapabilityDef second;
    second.name = "alpha";
    registry.registerCapability(second);

    const json capabilities = messageFor(someSettings(), registry)["capabilities"];

    ASSERT_EQ(capabilities.size(), 2U);
    EXPECT_EQ(capabilities[0], (json{{"capabilityId", "zeta"},
                                     {"name", "zeta"},
                                     {"displayName", "Z"},
                                     {"description", "does z"},
                                     {"scope", "DEVICE"},
                                     {"effect", "READ_ONLY"},
                                     {"parameters", {{"type", "object"}}},
                                     {"outputSchema", json::object()},
                                     {"sourceType", "NATIVE"},
                                     {"sourceId", "native"},
                                     {"sourceName", "Native capabilities"},
                                     {"sourceCapabilityName", ""},
                                     {"definitionVersion", "v1-native"}}));
    EXPECT_EQ(capabilities[1]["name"], "alpha");
}

TEST(RegisterMessage, CanBeWrittenWhateverTheNameHolds) {
    CapabilityRegistry registry;
    Settings settings = someSettings();
    settings.name = "bad \xFF name";

    EXPECT_NE(dumpJson(messageFor(settings, registry)).find("bad \xEF\xBF\xBD name"), std::string::npos);
}

}  // namespace
}  // namespace qm
