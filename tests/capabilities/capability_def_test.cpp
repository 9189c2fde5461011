#include "capabilities/capability_def.h"

#include "runtime/tool_invocation.h"
#include "support/pch.h"
#include "util/json.h"

namespace qm {
namespace {

TEST(CapabilityDef, AFreshOneHasTheDefaultsOfANativeCapabilityOfUnknownEffect) {
    const CapabilityDef definition;

    EXPECT_EQ(definition.name, "");
    EXPECT_EQ(definition.displayName, "");
    EXPECT_EQ(definition.description, "");
    EXPECT_TRUE(definition.descriptions.empty());
    EXPECT_TRUE(definition.parameters.is_null());
    EXPECT_EQ(definition.outputSchema, json::object());
    EXPECT_EQ(definition.scope, "DEVICE");
    EXPECT_EQ(definition.provider, "builtin");
    EXPECT_EQ(definition.sourceType, "NATIVE");
    EXPECT_EQ(definition.sourceId, "native");
    EXPECT_EQ(definition.sourceName, "Native capabilities");
    EXPECT_EQ(definition.sourceCapabilityName, "");
    EXPECT_EQ(definition.definitionVersion, "v1-native");
    EXPECT_EQ(definition.effect, "UNKNOWN");
    EXPECT_FALSE(definition.handler);
    EXPECT_FALSE(definition.invocationHandler);
}

TEST(CapabilityDef, ItsRegistrationEntryHasTheThirteenKeysOfTheGateway) {
    CapabilityDef definition;
    definition.name = "read_file";
    definition.displayName = "Read";
    definition.description = "Reads a file.";
    definition.descriptions = {{"zh", "not sent"}};
    definition.parameters = {{"type", "object"}};
    definition.outputSchema = {{"type", "string"}};
    definition.scope = "SHARED";
    definition.provider = "pack:x";
    definition.sourceType = "CAPABILITY_PACK";
    definition.sourceId = "x";
    definition.sourceName = "X";
    definition.sourceCapabilityName = "readFile";
    definition.definitionVersion = "v7";
    definition.effect = "READ_ONLY";

    EXPECT_EQ(registrationEntry(definition), json::parse(R"({
        "capabilityId": "read_file", "name": "read_file", "displayName": "Read", "description": "Reads a file.",
        "scope": "SHARED", "effect": "READ_ONLY", "parameters": {"type": "object"},
        "outputSchema": {"type": "string"}, "sourceType": "CAPABILITY_PACK", "sourceId": "x", "sourceName": "X",
        "sourceCapabilityName": "readFile", "definitionVersion": "v7"})"));
}

TEST(CapabilityDef, TheRegistrationEntryOfAFreshOneHasNullParametersAndAnEmptyOutputSchema) {
    const json entry = registrationEntry({});

    EXPECT_TRUE(entry.at("parameters").is_null());
    EXPECT_EQ(entry.at("outputSchema"), json::object());
}

TEST(ToolInvocation, AFreshOneHasNoKeyNoTurnNoDeadlineAndFullBudgets) {
    const runtime::ToolInvocation invocation;

    EXPECT_EQ(invocation.idempotencyKey, "");
    EXPECT_TRUE(invocation.arguments.is_null());
    EXPECT_EQ(invocation.sessionId, "");
    EXPECT_EQ(invocation.runId, "");
    EXPECT_EQ(invocation.taskId, "");
    EXPECT_EQ(invocation.workspace, "");
    EXPECT_EQ(invocation.access, "none");
    EXPECT_EQ(invocation.round, -1);
    EXPECT_EQ(invocation.deadlineAtMs, 0);
    EXPECT_EQ(invocation.resultBytes, 49152U);
    EXPECT_EQ(invocation.stdoutBytes, 98304U);
    EXPECT_EQ(invocation.stderrBytes, 98304U);
    EXPECT_FALSE(invocation.stopToken.stop_possible());
}

}  // namespace
}  // namespace qm
