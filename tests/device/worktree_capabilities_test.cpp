#include "device/worktree_capabilities.h"

#include <gmock/gmock.h>

#include "capabilities/capability_registry.h"
#include "device/worktree_fixture.h"
#include "util/json.h"

namespace qm::test {
namespace {

class WorktreeCapabilities : public WorktreeTest {
protected:
    WorktreeCapabilities() { registerWorktreeCapabilities(registry_, service_); }

    CapabilityDef definition(const std::string& name) {
        for (const auto& each : *registry_.snapshot()) {
            if (each.name == name) return each;
        }
        ADD_FAILURE() << "no capability " << name;
        return {};
    }

    json call(const std::string& name, const json& arguments) { return definition(name).handler(arguments); }

    CapabilityRegistry registry_;
};

TEST_F(WorktreeCapabilities, AreDefinedAsThePlatformKnowsThem) {
    const auto create = definition("create_worktree");
    EXPECT_EQ(create.displayName, "创建隔离工作树");
    EXPECT_EQ(create.effect, "WRITE");
    EXPECT_EQ(create.description,
              "Derive an isolated git worktree from a workspace so parallel work does not collide. Returns a workspace "
              "handle scoped to the new tree.");
    EXPECT_EQ(create.parameters, json::parse(R"({"type":"object","properties":{
        "workspace":{"type":"string","description":"Source workspace handle (must be a git repo)."},
        "owner":{"type":"string","description":"Who this tree is for; recorded for audit."},
        "leaseMinutes":{"type":"integer","description":"Lease length; expired trees are reclaimed."}},
        "required":["workspace"]})"));

    const auto list = definition("list_worktrees");
    EXPECT_EQ(list.displayName, "列出隔离工作树");
    EXPECT_EQ(list.effect, "READ_ONLY");
    EXPECT_EQ(list.description, "List the isolated worktrees currently derived on this device.");
    EXPECT_EQ(list.parameters, json::parse(R"({"type":"object","properties":{}})"));

    const auto remove = definition("remove_worktree");
    EXPECT_EQ(remove.displayName, "归还隔离工作树");
    EXPECT_EQ(remove.effect, "WRITE");
    EXPECT_EQ(
        remove.description,
        "Remove an isolated worktree and its workspace handle. Refuses when the tree still has uncommitted changes "
        "unless force is set.");
    EXPECT_EQ(remove.parameters, json::parse(R"({"type":"object","properties":{
        "worktree":{"type":"string","description":"Worktree handle from create_worktree."},
        "force":{"type":"boolean","description":"Discard uncommitted changes."}},
        "required":["worktree"]})"));
}

TEST_F(WorktreeCapabilities, CreateListAndRemove) {
    json created = call("create_worktree", {{"workspace", source_}, {"owner", "me"}, {"leaseMinutes", 5}});

    ASSERT_FALSE(created.contains("error")) << dumpJson(created);
    EXPECT_EQ(
        created.at("note"),
        "在返回的 workspace 句柄里操作文件与命令；完成后请调用 remove_worktree。注意：这是工作树隔离，不是权限沙箱。");
    EXPECT_EQ(created.at("expiresAtMs").get<std::int64_t>() - created.at("createdAtMs").get<std::int64_t>(), 300'000);
    EXPECT_EQ(created.at("owner"), "me");
    EXPECT_EQ(created.at("sourceWorkspace"), source_);
    EXPECT_TRUE(workspaces_.find(stringMember(created, "workspace")));
    created.erase("note");
    EXPECT_EQ(created.size(), 7U);
    EXPECT_EQ(call("list_worktrees", json::object()), json({{"worktrees", {created}}}));
    EXPECT_EQ(created.at("branch"), "quillmarsh/" + stringMember(created, "worktree"));

    EXPECT_EQ(call("remove_worktree", {{"worktree", created.at("worktree")}}),
              json({{"removed", true}, {"hadUncommittedChanges", false}, {"discardedUncommittedChanges", false}}));
    EXPECT_EQ(call("list_worktrees", json::object()), json({{"worktrees", json::array()}}));
}

TEST_F(WorktreeCapabilities, UncommittedWorkIsKeptWithoutForce) {
    const json created = call("create_worktree", {{"workspace", source_}});
    const std::string id = stringMember(created, "worktree");
    writeFile(trees() / id / "file", "changed");

    EXPECT_EQ(
        call("remove_worktree", {{"worktree", id}}),
        json({{"error", "工作树内还有未提交的改动；确认要丢弃请用 force=true"}, {"hadUncommittedChanges", true}}));
    EXPECT_EQ(call("remove_worktree", {{"worktree", id}, {"force", true}}),
              json({{"removed", true}, {"hadUncommittedChanges", true}, {"discardedUncommittedChanges", true}}));
}

TEST_F(WorktreeCapabilities, ForceOnACleanTreeDiscardsNothing) {
    const json created = call("create_worktree", {{"workspace", source_}});

    EXPECT_EQ(call("remove_worktree", {{"worktree", created.at("worktree")}, {"force", true}}),
              json({{"removed", true}, {"hadUncommittedChanges", false}, {"discardedUncommittedChanges", false}}));
}

TEST_F(WorktreeCapabilities, ALeaseOfNoMinutesIsAnHour) {
    for (const json& minutes : {json(0), json(-3)}) {
        const json created = call("create_worktree", {{"workspace", source_}, {"leaseMinutes", minutes}});
        EXPECT_EQ(created.at("expiresAtMs").get<std::int64_t>() - created.at("createdAtMs").get<std::int64_t>(),
                  3'600'000);
    }
    const json endless = call("create_worktree", {{"workspace", source_}, {"leaseMinutes", INT64_MAX}});
    EXPECT_GT(endless.at("expiresAtMs"), endless.at("createdAtMs"));
}

TEST_F(WorktreeCapabilities, FailuresAreErrors) {
    EXPECT_EQ(call("create_worktree", {{"workspace", "ws_x"}}), json({{"error", "未知的 workspace：ws_x"}}));
    EXPECT_EQ(call("remove_worktree", {{"worktree", "wt_x"}}),
              json({{"error", "未知的 worktree：wt_x"}, {"hadUncommittedChanges", false}}));
}

TEST_F(WorktreeCapabilities, ArgumentsOfAnotherTypeAreNotTakenForAbsent) {
    EXPECT_THROW(call("create_worktree", {{"workspace", source_}, {"leaseMinutes", "5"}}), json::type_error);
    EXPECT_THROW(call("remove_worktree", {{"worktree", "wt_x"}, {"force", "yes"}}), json::type_error);
    EXPECT_TRUE(nothingIsLeft());
}

}  // namespace
}  // namespace qm::test
