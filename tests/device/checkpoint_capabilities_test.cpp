#include "device/checkpoint_capabilities.h"

#include <gmock/gmock.h>

#include "capabilities/capability_registry.h"
#include "device/checkpoint_fixture.h"

namespace qm::test {
namespace {

namespace fs = std::filesystem;

class CheckpointCapabilities : public testing::Test {
protected:
    CheckpointCapabilities() {
        fs::create_directory(directory_ / "work");
        handle_ =
            workspaces_.add((directory_ / "work").string(), "proj", WorkspacePermission::READ_WRITE).workspace->id;
        registerCheckpointCapabilities(registry_, workspaces_, service_);
    }

    CapabilityDef definition(const std::string& name) {
        for (const auto& each : *registry_.snapshot()) {
            if (each.name == name) return each;
        }
        ADD_FAILURE() << "no capability " << name;
        return {};
    }

    json call(const std::string& name, const json& arguments) { return definition(name).handler(arguments); }

    TemporaryDirectory directory_;
    WorkspaceRegistry workspaces_{directory_ / "data"};
    CheckpointService service_{directory_ / "data"};
    CapabilityRegistry registry_;
    std::string handle_;
};

TEST_F(CheckpointCapabilities, AreDefinedAsThePlatformKnowsThem) {
    const json workspace = {{"type", "string"},
                            {"description", "Workspace handle from list_workspaces (never a host path)."}};
    const json checkpoint = {{"type", "string"},
                             {"description", "Checkpoint handle returned by create_checkpoint (ck_xxx)."}};
    const json label = {{"type", "string"}, {"description", "Optional human-readable label."}};

    const auto create = definition("create_checkpoint");
    EXPECT_EQ(create.displayName, "创建工作区快照");
    EXPECT_EQ(create.effect, "WRITE");
    EXPECT_EQ(create.description,
              "Snapshot the current workspace state so later changes (including changes made by shell commands) can be "
              "diffed and restored.");
    EXPECT_EQ(create.parameters, json({{"type", "object"},
                                       {"properties", {{"workspace", workspace}, {"label", label}}},
                                       {"required", {"workspace"}}}));
    EXPECT_EQ(create.provider, "builtin");

    const auto show = definition("show_changes");
    EXPECT_EQ(show.displayName, "查看快照差异");
    EXPECT_EQ(show.effect, "READ_ONLY");
    EXPECT_EQ(show.description,
              "Diff the current workspace state against a checkpoint (latest by default). Captures file tool and shell "
              "command changes alike.");
    EXPECT_EQ(show.parameters, json({{"type", "object"},
                                     {"properties", {{"workspace", workspace}, {"checkpoint", checkpoint}}},
                                     {"required", {"workspace"}}}));

    const auto restore = definition("restore_checkpoint");
    EXPECT_EQ(restore.displayName, "恢复工作区快照");
    EXPECT_EQ(restore.effect, "WRITE");
    EXPECT_EQ(restore.description,
              "Rewind the workspace to a checkpoint: restores modified/deleted files and removes files added since. "
              "Requires READ_WRITE. All-or-nothing.");
    EXPECT_EQ(restore.parameters, json({{"type", "object"},
                                        {"properties", {{"workspace", workspace}, {"checkpoint", checkpoint}}},
                                        {"required", {"workspace", "checkpoint"}}}));
}

TEST_F(CheckpointCapabilities, TakeShowAndRestore) {
    writeFile(directory_ / "work/a", "1\n");
    const json created = call("create_checkpoint", {{"workspace", handle_}, {"label", "before"}});
    const std::string id = stringMember(created, "checkpoint");
    writeFile(directory_ / "work/a", "2\n");

    const json changes = call("show_changes", {{"workspace", handle_}});
    const json restored = call("restore_checkpoint", {{"workspace", handle_}, {"checkpoint", id}});

    EXPECT_EQ(json::parse(readFile(directory_ / "data/checkpoints" / id / "manifest.json")).at("label"), "before");
    EXPECT_EQ(changes.at("changeCount"), 1);
    EXPECT_EQ(restored.at("restoredFiles"), 1);
    EXPECT_EQ(readFile(directory_ / "work/a"), "1\n");
    EXPECT_EQ(call("show_changes", {{"workspace", handle_}, {"checkpoint", id}}).at("changeCount"), 0);
}

TEST_F(CheckpointCapabilities, AnUnknownWorkspaceIsNamedWithThoseThatThereAre) {
    const std::string available = handle_ + "(proj)";
    for (const char* name : {"create_checkpoint", "show_changes", "restore_checkpoint"}) {
        EXPECT_EQ(call(name, {{"workspace", "ws_x"}}), json({{"error", "未知的 workspace：ws_x。可用：" + available}}));
        EXPECT_EQ(call(name, json::object()), json({{"error", "未知的 workspace：(未提供)。可用：" + available}}));
    }
}

TEST_F(CheckpointCapabilities, WithoutAnyWorkspaceThatIsSaid) {
    workspaces_.remove(handle_);

    for (const char* name : {"create_checkpoint", "show_changes", "restore_checkpoint"}) {
        EXPECT_EQ(
            call(name, {{"workspace", handle_}}),
            json({{"error",
                   "本设备尚未配置任何工作区，文件与终端能力已拒绝执行。请在 Executor 界面里添加一个工作目录。"}}));
    }
}

TEST_F(CheckpointCapabilities, ChangesCanBeShownWithoutTheRightToWrite) {
    writeFile(directory_ / "work/a", "1\n");
    call("create_checkpoint", {{"workspace", handle_}});
    writeFile(directory_ / "work/a", "2\n");
    workspaces_.setPermission(handle_, WorkspacePermission::READ_ONLY);

    const json shown = call("show_changes", {{"workspace", handle_}});

    EXPECT_EQ(shown.at("changeCount"), 1) << dumpJson(shown);
}

TEST_F(CheckpointCapabilities, RestoringNeedsTheRightToWrite) {
    workspaces_.setPermission(handle_, WorkspacePermission::READ_ONLY);

    EXPECT_EQ(call("restore_checkpoint", {{"workspace", handle_}}),
              json({{"error", "工作区 proj 的权限档位是 READ_ONLY，此操作需要 READ_WRITE。请在 Executor 界面调整。"}}));
    EXPECT_FALSE(call("create_checkpoint", {{"workspace", handle_}}).contains("error"));
}

TEST_F(CheckpointCapabilities, RestoringNeedsAnIdGivenInSoManyWords) {
    call("create_checkpoint", {{"workspace", handle_}});

    const json refusal = {{"error", "restore_checkpoint 必须显式指定 checkpoint id，不做隐式回滚。"}};
    EXPECT_EQ(call("restore_checkpoint", {{"workspace", handle_}}), refusal);
    EXPECT_EQ(call("restore_checkpoint", {{"workspace", handle_}, {"checkpoint", ""}}), refusal);
}

TEST_F(CheckpointCapabilities, AnIdThatLeadsElsewhereIsInvalid) {
    EXPECT_EQ(call("restore_checkpoint", {{"workspace", handle_}, {"checkpoint", "ck_../x"}}),
              json({{"error", "无效的 checkpoint id"}}));
}

TEST_F(CheckpointCapabilities, ArgumentsOfAnotherTypeAreNotTakenForAbsent) {
    EXPECT_THROW(call("show_changes", {{"workspace", handle_}, {"checkpoint", 5}}), json::type_error);
    EXPECT_THROW(call("create_checkpoint", {{"workspace", handle_}, {"label", json::array()}}), json::type_error);
}

}  // namespace
}  // namespace qm::test
