// The order in which an invocation is judged: what is wrong first is what the caller hears of.
#include <stop_token>

#include "capabilities/admission.h"
#include "capabilities/pipeline_fixture.h"

namespace qm {
namespace {

json refused(const char* code, const std::string& text) {
    return {{"error", text}, {"errorCode", code}};
}

const json kCancelled = refused("TASK_CANCELLED", "task was cancelled before capability execution");
const json kExpired = refused("DEADLINE_EXCEEDED", "capability deadline expired before execution");
const json kDisabled = refused("CAPABILITY_DISABLED", "Capability is disabled by the control plane");
const json kMismatch = refused("WORKSPACE_MISMATCH", "capability arguments do not match the admitted workspace");
const json kRequired = refused("WORKSPACE_REQUIRED", "this capability requires an Executor workspace handle");
const json kNotFound = refused("WORKSPACE_NOT_FOUND", "the Executor workspace handle is unknown or no longer valid");
const json kNoAccess = refused("PERMISSION_DENIED", "this task was admitted without workspace access");
const json kBadAccess = refused("INVALID_ARGUMENT", "workspace access must be none, read, or write");
const json kReadOnlyTask = refused("PERMISSION_DENIED", "a read-only task cannot invoke a mutating capability");
const json kTooLow = refused(
    "PERMISSION_DENIED", "工作区 workspace1 的权限档位是 READ_ONLY，此操作需要 READ_WRITE。请在 Executor 界面调整。");
const json kMissingPath = refused("INVALID_ARGUMENT", "missing required argument: path");
const json kDuplicate = {
    {"error", "This invocation is already executing on this device (duplicate idempotency key key-1)."}};

class AdmissionOrder : public test::PipelineTest {
protected:
    /// An invocation of "write" in `handle`, admitted to it for writing, that nothing is wrong with.
    static runtime::ToolInvocation write(const std::string& handle) {
        auto invocation = call("write", {{"path", "a"}, {"workspace", handle}});
        invocation.workspace = handle;
        invocation.access = "write";
        return invocation;
    }

    void defineWrite() { define("write", {"path", "workspace"}); }
};

TEST_F(AdmissionOrder, ACancelledTaskHearsOfThatBeforeAnythingElse) {
    std::stop_source stop;
    stop.request_stop();
    auto invocation = call("unknown");
    invocation.stopToken = stop.get_token();
    EXPECT_EQ(pipeline_.invoke(invocation), kCancelled);

    invocation.deadlineAtMs = 1;
    EXPECT_EQ(pipeline_.invoke(invocation), kCancelled);
}

TEST_F(AdmissionOrder, AnExpiredDeadlineComesBeforeDisablement) {
    define("x");
    disabled_.set("x", false);
    auto invocation = call("x");
    invocation.deadlineAtMs = kNow - 1;

    EXPECT_EQ(pipeline_.invoke(invocation), kExpired);
}

TEST_F(AdmissionOrder, ADeadlineHasPassedAtItsMillisecondAndNotBefore) {
    define("x");
    auto invocation = call("x");

    invocation.deadlineAtMs = kNow;
    EXPECT_EQ(pipeline_.invoke(invocation), kExpired);
    invocation.deadlineAtMs = kNow + 1;
    EXPECT_EQ(pipeline_.invoke(invocation).at("ran"), true);
}

TEST_F(AdmissionOrder, ADeadlineOfZeroOrLessIsNone) {
    define("x");
    auto invocation = call("x");

    for (const std::int64_t deadline : {std::int64_t{0}, std::int64_t{-1}}) {
        invocation.deadlineAtMs = deadline;
        EXPECT_EQ(pipeline_.invoke(invocation).at("ran"), true);
    }
}

TEST_F(AdmissionOrder, DisablementComesBeforeTheLookUp) {
    disabled_.set("unknown", false);

    EXPECT_EQ(pipeline_.invoke(call("unknown")), kDisabled);
}

TEST_F(AdmissionOrder, AnUnknownCapabilityIsNamed) {
    define("x");

    EXPECT_EQ(pipeline_.invoke(call("X")), refused("UNKNOWN_CAPABILITY", "Unknown capability: X"));
}

TEST_F(AdmissionOrder, TheLookUpComesBeforeTheTypeOfTheWorkspaceArgument) {
    EXPECT_EQ(pipeline_.invoke(call("x", {{"workspace", 1}})), refused("UNKNOWN_CAPABILITY", "Unknown capability: x"));
}

TEST_F(AdmissionOrder, AWorkspaceArgumentThatIsNoTextIsAJsonTypeError) {
    define("x");

    for (const json& value : {json(1), json(nullptr), json(true), json::array(), json::object()}) {
        auto invocation = call("x", {{"workspace", value}});
        EXPECT_THROW(pipeline_.invoke(invocation), json::type_error);
        invocation.workspace = "ws_admitted";
        invocation.idempotencyKey = "key-1";
        EXPECT_THROW(pipeline_.invoke(invocation), json::type_error);
    }
}

TEST_F(AdmissionOrder, AWorkspaceOtherThanTheAdmittedOneIsAMismatchEvenIfNeitherExists) {
    defineWrite();
    auto invocation = write("ws_admitted");
    invocation.arguments["workspace"] = "ws_other";

    EXPECT_EQ(pipeline_.invoke(invocation), kMismatch);
}

TEST_F(AdmissionOrder, AMissingWorkspaceComesBeforeAnotherMissingArgument) {
    defineWrite();

    EXPECT_EQ(pipeline_.invoke(call("write")), kRequired);
    EXPECT_EQ(pipeline_.invoke(call("write", {{"workspace", ""}})), kRequired);
    EXPECT_EQ(pipeline_.invoke(call("write", "no object")), kRequired);
}

TEST_F(AdmissionOrder, AnUnknownWorkspaceComesBeforeTheAccess) {
    defineWrite();
    auto invocation = write("ws_gone");

    for (const char* access : {"none", "nonsense", "read", "write"}) {
        invocation.access = access;
        EXPECT_EQ(pipeline_.invoke(invocation), kNotFound) << access;
    }
}

TEST_F(AdmissionOrder, AnUnknownWorkspaceComesBeforeAMissingArgument) {
    defineWrite();

    EXPECT_EQ(pipeline_.invoke(call("write", {{"workspace", "ws_gone"}})), kNotFound);
}

TEST_F(AdmissionOrder, AWorkspaceIsValidatedForACapabilityThatNeedsNone) {
    define("x");

    EXPECT_EQ(pipeline_.invoke(call("x", {{"workspace", "ws_gone"}})), kNotFound);
}

TEST_F(AdmissionOrder, NoAccessComesBeforeAMissingArgument) {
    defineWrite();
    auto invocation = write(openWorkspace());
    invocation.access = "none";
    invocation.arguments = json::object();

    EXPECT_EQ(pipeline_.invoke(invocation), kNoAccess);
}

TEST_F(AdmissionOrder, NoAccessIsEnoughForACapabilityThatNeedsNoWorkspace) {
    define("x", {"path"});
    auto invocation = write(openWorkspace());
    invocation.name = "x";
    invocation.access = "none";
    EXPECT_EQ(pipeline_.invoke(invocation).at("ran"), true);

    invocation.arguments.erase("path");
    EXPECT_EQ(pipeline_.invoke(invocation), kMissingPath);
}

TEST_F(AdmissionOrder, AnAccessThatIsNoneOfTheThreeComesBeforePermissionAndMissingArguments) {
    defineWrite();
    auto invocation = write(openWorkspace(WorkspacePermission::READ_ONLY));
    invocation.arguments = json::object();

    for (const char* access : {"", "None", "WRITE", "full"}) {
        invocation.access = access;
        EXPECT_EQ(pipeline_.invoke(invocation), kBadAccess) << access;
    }
}

TEST_F(AdmissionOrder, TheWorkspacesPermissionComesBeforeAMissingArgument) {
    defineWrite();
    auto invocation = write(openWorkspace(WorkspacePermission::READ_ONLY));
    invocation.arguments = json::object();

    EXPECT_EQ(pipeline_.invoke(invocation), kTooLow);
}

TEST_F(AdmissionOrder, AWorkspaceThatVanishesBeforeItsAccessIsJudgedIsDeniedInTheWordsOfAnUnknownOne) {
    CapabilityDef definition;
    auto invocation = write("ws_gone");

    for (const char* access : {"read", "write"}) {
        invocation.access = access;
        EXPECT_EQ(accessRefusal(definition, workspaces_, invocation),
                  refused("PERMISSION_DENIED", "the Executor workspace handle is unknown or no longer valid"));
    }
}

TEST_F(AdmissionOrder, AReadOnlyTaskIsToldSoBeforeAMissingArgument) {
    defineWrite();
    auto invocation = write(openWorkspace());
    invocation.access = "read";
    invocation.arguments = json::object();

    EXPECT_EQ(pipeline_.invoke(invocation), kReadOnlyTask);
}

TEST_F(AdmissionOrder, EveryEffectButReadOnlyIsMutating) {
    auto invocation = write(openWorkspace());
    invocation.name = "x";
    invocation.access = "read";

    for (const char* effect : {"UNKNOWN", "WRITE", "EXTERNAL_SIDE_EFFECT", "read_only", ""}) {
        define("x", json::array(), effect);
        EXPECT_EQ(pipeline_.invoke(invocation), kReadOnlyTask) << effect;
    }
    define("x", json::array(), "READ_ONLY");
    EXPECT_EQ(pipeline_.invoke(invocation).at("ran"), true);
}

TEST_F(AdmissionOrder, AMissingArgumentComesBeforeTheKeyInFlight) {
    defineWrite();
    auto invocation = write(openWorkspace());
    invocation.idempotencyKey = "key-1";
    const auto handle = invocation.workspace;
    define("outer", [&](const json&) {
        auto inner = write(handle);
        inner.idempotencyKey = "key-1";
        json answers = {{"complete", pipeline_.invoke(inner)}};
        inner.arguments.erase("path");
        answers["incomplete"] = pipeline_.invoke(inner);
        return answers;
    });
    invocation.name = "outer";

    const json answers = pipeline_.invoke(invocation);

    EXPECT_EQ(answers.at("complete"), kDuplicate);
    EXPECT_EQ(answers.at("incomplete"), kMissingPath);
}

TEST_F(AdmissionOrder, TheIdempotencyKeyComesBeforeTheTurnCheckpoint) {
    defineWrite();
    auto invocation = write(openWorkspace());
    invocation.idempotencyKey = "key-1";
    ASSERT_EQ(pipeline_.invoke(invocation).at("ran"), true);
    invocation.runId = "run-1";
    invocation.round = 1;
    checkpointResult_ = {{"error", "no space"}};

    EXPECT_EQ(pipeline_.invoke(invocation).at("deduplicated"), true);
    EXPECT_THAT(checkpoints_, testing::IsEmpty());
}

TEST_F(AdmissionOrder, TheTurnCheckpointComesBeforeTheHandler) {
    defineWrite();
    auto invocation = write(openWorkspace());
    invocation.runId = "run-1";
    invocation.round = 1;
    checkpointResult_ = {{"error", "no space"}};

    EXPECT_EQ(pipeline_.invoke(invocation),
              json({{"error", "无法建立 turn checkpoint，为保证可恢复性拒绝执行该写操作：no space"}}));
    EXPECT_EQ(handlerRuns_, 0);
}

TEST_F(AdmissionOrder, RequiredArgumentsAreNamedInTheirOrderAndWhatIsNoTextIsSkipped) {
    define("x", json::array({1, nullptr, "b", json::array(), "a"}));

    EXPECT_EQ(pipeline_.invoke(call("x")), refused("INVALID_ARGUMENT", "missing required argument: b"));
    EXPECT_EQ(pipeline_.invoke(call("x", {{"b", nullptr}})),
              refused("INVALID_ARGUMENT", "missing required argument: a"));
    EXPECT_EQ(pipeline_.invoke(call("x", {{"b", nullptr}, {"a", 1}})).at("ran"), true);
}

TEST_F(AdmissionOrder, ASchemaWithoutAListOfRequiredArgumentsRequiresNothing) {
    for (const json& parameters : {json(), json("text"), json::array({"workspace"}), json::object(),
                                   json{{"required", "workspace"}}, json{{"required", {{"workspace", true}}}}}) {
        CapabilityDef definition;
        definition.name = "x";
        definition.parameters = parameters;
        definition.handler = [](const json&) { return json{{"ran", true}}; };
        registry_.registerCapability(definition);
        EXPECT_EQ(pipeline_.invoke(call("x")), json({{"ran", true}})) << parameters;
    }
}

}  // namespace
}  // namespace qm
