#include "device/workspace_registry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "support/run_on_threads.h"
#include "support/temporary_directory.h"
#include "util/json.h"

namespace qm {
namespace {

namespace fs = std::filesystem;
using test::readFile;
using test::TemporaryDirectory;
using test::writeFile;
using ::testing::MatchesRegex;

Workspace workspaceAt(WorkspacePermission permission) {
    return {"ws_00000000", "Demo", "/", permission};
}

// ---- Levels ----

TEST(WorkspacePermission, NamesAndTheirParsingAgree) {
    for (const auto level : {WorkspacePermission::READ_ONLY, WorkspacePermission::READ_WRITE,
                             WorkspacePermission::EXECUTE, WorkspacePermission::FULL}) {
        EXPECT_EQ(parsePermission(permissionName(level)), level);
    }
    EXPECT_STREQ(permissionName(WorkspacePermission::READ_ONLY), "READ_ONLY");
    EXPECT_STREQ(permissionName(WorkspacePermission::READ_WRITE), "READ_WRITE");
    EXPECT_STREQ(permissionName(WorkspacePermission::EXECUTE), "EXECUTE");
    EXPECT_STREQ(permissionName(WorkspacePermission::FULL), "FULL");
}

TEST(WorkspacePermission, EveryUnknownTextIsReadOnly) {
    for (const auto* const text : {"", "read_write", "full", "FULL ", "ROOT", "2"}) {
        EXPECT_EQ(parsePermission(text), WorkspacePermission::READ_ONLY) << text;
    }
}

TEST(WorkspacePermission, ALevelGrantsItselfAndEverythingBelow) {
    for (int granted = 0; granted < 4; ++granted) {
        for (int wanted = 0; wanted < 4; ++wanted) {
            const auto refusal = WorkspaceRegistry::requirePermission(
                workspaceAt(static_cast<WorkspacePermission>(granted)), static_cast<WorkspacePermission>(wanted));
            EXPECT_EQ(refusal.empty(), granted >= wanted) << granted << " " << wanted;
        }
    }
}

TEST(WorkspacePermission, TheRefusalNamesTheWorkspaceAndBothLevels) {
    EXPECT_EQ(WorkspaceRegistry::requirePermission(workspaceAt(WorkspacePermission::READ_ONLY),
                                                   WorkspacePermission::READ_WRITE),
              "工作区 Demo 的权限档位是 READ_ONLY，此操作需要 READ_WRITE。请在 Executor 界面调整。");
    EXPECT_EQ(
        WorkspaceRegistry::requirePermission(workspaceAt(WorkspacePermission::EXECUTE), WorkspacePermission::FULL),
        "工作区 Demo 的权限档位是 EXECUTE，此操作需要 FULL。请在 Executor 界面调整。");
}

// ---- The file ----

class WorkspaceFile : public ::testing::Test {
protected:
    std::vector<Workspace> loaded(std::string_view content) {
        writeFile(directory / "workspaces.json", content);
        WorkspaceRegistry registry(directory.path());
        registry.load();
        return registry.list();
    }

    TemporaryDirectory directory;
};

TEST_F(WorkspaceFile, AnAbsentFileLeavesTheTableEmpty) {
    WorkspaceRegistry registry(directory.path());
    registry.load();
    EXPECT_TRUE(registry.list().empty());
}

TEST_F(WorkspaceFile, EveryDamagedFileLeavesTheTableEmpty) {
    for (const auto* const content :
         {"", "{", "[]", "5", "null", "{}", R"({"workspaces": {}})", R"({"workspaces": "x"})", "\xff\xfe"}) {
        EXPECT_TRUE(loaded(content).empty()) << content;
    }
}

TEST_F(WorkspaceFile, EveryCutOfAValidFileIsTakenAsDamaged) {
    const std::string whole = R"({"workspaces":[{"id":"ws_a","label":"A","hostPath":"/a","permission":"FULL"}]})";
    ASSERT_EQ(loaded(whole).size(), 1U);
    for (std::size_t length = 0; length < whole.size(); ++length) {
        EXPECT_TRUE(loaded(whole.substr(0, length)).empty()) << length;
    }
}

TEST_F(WorkspaceFile, RecordsKeepTheirOrderAndTheirMembers) {
    const auto records = loaded(R"({"workspaces": [
        {"id": "ws_b", "label": "B", "hostPath": "/b", "permission": "EXECUTE"},
        {"id": "ws_a", "label": "A", "hostPath": "/a", "permission": "FULL", "extra": 1}]})");
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].id, "ws_b");
    EXPECT_EQ(records[0].label, "B");
    EXPECT_EQ(records[0].hostPath, "/b");
    EXPECT_EQ(records[0].permission, WorkspacePermission::EXECUTE);
    EXPECT_EQ(records[1].id, "ws_a");
}

TEST_F(WorkspaceFile, AMissingPermissionIsReadWriteAndAnUnknownOneReadOnly) {
    const auto records = loaded(R"({"workspaces": [
        {"id": "1", "hostPath": "/a"},
        {"id": "2", "hostPath": "/b", "permission": "read_write"},
        {"id": "3", "hostPath": "/c", "permission": ""}]})");
    ASSERT_EQ(records.size(), 3U);
    EXPECT_EQ(records[0].permission, WorkspacePermission::READ_WRITE);
    EXPECT_EQ(records[0].label, "");
    EXPECT_EQ(records[1].permission, WorkspacePermission::READ_ONLY);
    EXPECT_EQ(records[2].permission, WorkspacePermission::READ_ONLY);
}

TEST_F(WorkspaceFile, ARecordWithoutIdOrHostPathIsSkipped) {
    const auto records = loaded(R"({"workspaces": [
        {"hostPath": "/a"}, {"id": "", "hostPath": "/a"}, {"id": "x"}, {"id": "x", "hostPath": ""},
        {"id": "kept", "hostPath": "/a"}]})");
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].id, "kept");
}

TEST_F(WorkspaceFile, ADamagedElementIsSkippedAndTheOthersStay) {
    const auto records = loaded(R"({"workspaces": [
        5, null, "x", [], {"id": 5, "hostPath": "/a"}, {"id": "x", "hostPath": {}},
        {"id": "x", "hostPath": "/a", "label": 1}, {"id": "x", "hostPath": "/a", "permission": null},
        {"id": "kept", "hostPath": "/a"}]})");
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].id, "kept");
}

TEST_F(WorkspaceFile, IsWrittenIndentedWithoutEscapesInADirectoryMadeForIt) {
    fs::create_directory(directory / "工作");
    WorkspaceRegistry registry(directory / "new/data");
    const auto added = registry.add((directory / "工作").native(), "", WorkspacePermission::READ_WRITE);
    ASSERT_TRUE(added.workspace);

    EXPECT_EQ(readFile(directory / "new/data/workspaces.json"),
              "{\n  \"workspaces\": [\n    {\n      \"hostPath\": \"" + (directory / "工作").native() +
                  "\",\n      \"id\": \"" + added.workspace->id +
                  "\",\n      \"label\": \"工作\",\n"
                  "      \"permission\": \"READ_WRITE\"\n"
                  "    }\n  ]\n}");
}

TEST_F(WorkspaceFile, WhatOneRegistrySavesAnotherLoads) {
    fs::create_directory(directory / "a");
    fs::create_directory(directory / "b");
    WorkspaceRegistry first(directory / "data");
    const auto a = first.add((directory / "a").native(), "A", WorkspacePermission::FULL).workspace;
    const auto b = first.add((directory / "b").native(), "B", WorkspacePermission::READ_ONLY).workspace;
    ASSERT_TRUE(a && b);
    ASSERT_TRUE(first.setPermission(b->id, WorkspacePermission::EXECUTE));
    ASSERT_TRUE(first.remove(a->id));

    WorkspaceRegistry second(directory / "data");
    second.load();

    ASSERT_EQ(second.list().size(), 1U);
    EXPECT_EQ(second.list()[0].id, b->id);
    EXPECT_EQ(second.list()[0].label, "B");
    EXPECT_EQ(second.list()[0].hostPath, directory / "b");
    EXPECT_EQ(second.list()[0].permission, WorkspacePermission::EXECUTE);
}

TEST_F(WorkspaceFile, IsOverwrittenInPlace) {
    fs::create_directory(directory / "a");
    WorkspaceRegistry registry(directory / "data");
    const auto id = registry.add((directory / "a").native(), "A", WorkspacePermission::FULL).workspace->id;
    struct stat before {};
    ASSERT_EQ(::stat((directory / "data/workspaces.json").c_str(), &before), 0);

    ASSERT_TRUE(registry.setPermission(id, WorkspacePermission::READ_ONLY));

    struct stat after {};
    ASSERT_EQ(::stat((directory / "data/workspaces.json").c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(std::distance(fs::directory_iterator(directory / "data"), {}), 1);
}

TEST_F(WorkspaceFile, ALinkInItsPlaceStaysALink) {
    fs::create_directory(directory / "a");
    fs::create_directory(directory / "data");
    writeFile(directory / "elsewhere.json", "{}");
    fs::create_symlink("../elsewhere.json", directory / "data/workspaces.json");
    WorkspaceRegistry registry(directory / "data");

    const auto added = registry.add((directory / "a").native(), "A", WorkspacePermission::FULL).workspace;

    EXPECT_TRUE(fs::is_symlink(directory / "data/workspaces.json"));
    EXPECT_EQ(json::parse(readFile(directory / "elsewhere.json"))["workspaces"][0]["id"], added->id);
}

TEST_F(WorkspaceFile, ALabelThatIsNotUtf8IsSavedWithReplacementCharacters) {
    fs::create_directory(directory / "a");
    WorkspaceRegistry registry(directory.path());
    ASSERT_TRUE(registry.add((directory / "a").native(), "x\xffy", WorkspacePermission::FULL).workspace);

    EXPECT_EQ(json::parse(readFile(directory / "workspaces.json"))["workspaces"][0]["label"], "x\xEF\xBF\xBDy");
}

TEST_F(WorkspaceFile, AFailedSaveThrowsAfterTheTableHasChanged) {
    writeFile(directory / "file", "no directory");
    fs::create_directory(directory / "a");
    WorkspaceRegistry registry(directory / "file");

    EXPECT_THROW(registry.add((directory / "a").native(), "", WorkspacePermission::FULL), std::exception);
    ASSERT_EQ(registry.list().size(), 1U);
    const std::string id = registry.list()[0].id;
    EXPECT_THROW(registry.setPermission(id, WorkspacePermission::READ_ONLY), std::exception);
    EXPECT_EQ(registry.find(id)->permission, WorkspacePermission::READ_ONLY);
    EXPECT_THROW(registry.remove(id), std::exception);
    EXPECT_TRUE(registry.list().empty());
}

TEST_F(WorkspaceFile, AFileThatCannotBeWrittenMakesTheSaveThrow) {
    fs::create_directories(directory / "data/workspaces.json");
    fs::create_directory(directory / "a");
    WorkspaceRegistry registry(directory / "data");
    EXPECT_THROW(registry.add((directory / "a").native(), "", WorkspacePermission::FULL), std::exception);
}

// ---- The table ----

class WorkspaceTable : public ::testing::Test {
protected:
    std::string addError(const std::string& path) { return registry.add(path, "", WorkspacePermission::FULL).error; }

    TemporaryDirectory directory;
    WorkspaceRegistry registry{directory / "data"};
};

TEST_F(WorkspaceTable, ANewHandleIsPrefixAndEightCharacters) {
    const auto added = registry.add(directory.path().native(), "L", WorkspacePermission::EXECUTE);
    ASSERT_TRUE(added.workspace);
    EXPECT_EQ(added.error, "");
    EXPECT_THAT(added.workspace->id, MatchesRegex("ws_[0-9a-z]{8}"));
    EXPECT_EQ(added.workspace->label, "L");
    EXPECT_EQ(added.workspace->hostPath, directory.path());
    EXPECT_EQ(added.workspace->permission, WorkspacePermission::EXECUTE);
}

TEST_F(WorkspaceTable, PathAndLabelAreTrimmed) {
    const auto added =
        registry.add(" \t\r\n" + directory.path().native() + "\n ", "\t My label \r\n", WorkspacePermission::FULL);
    ASSERT_TRUE(added.workspace) << added.error;
    EXPECT_EQ(added.workspace->hostPath, directory.path());
    EXPECT_EQ(added.workspace->label, "My label");
}

TEST_F(WorkspaceTable, NothingButSpacesTabsAndLineEndsIsTrimmed) {
    EXPECT_EQ(registry.add(directory.path().native(), " \fL\v ", WorkspacePermission::FULL).workspace->label, "\fL\v");
    EXPECT_EQ(addError("\f"), "目录不存在：\f");
}

TEST_F(WorkspaceTable, WithoutALabelTheDirectoryNamesTheWorkspace) {
    fs::create_directory(directory / "project");
    fs::create_directory_symlink(directory / "project", directory / "link");
    const auto added = registry.add((directory / "link/").native(), " \t", WorkspacePermission::FULL);
    ASSERT_TRUE(added.workspace) << added.error;
    EXPECT_EQ(added.workspace->label, "project");
    EXPECT_EQ(added.workspace->hostPath, directory / "project");
}

TEST_F(WorkspaceTable, AnEmptyPathIsRefused) {
    EXPECT_EQ(addError(""), "目录不能为空");
    EXPECT_EQ(addError(" \t\r\n"), "目录不能为空");
}

TEST_F(WorkspaceTable, AMissingDirectoryIsRefusedByItsTrimmedName) {
    EXPECT_EQ(addError("  /no/such/directory\n"), "目录不存在：/no/such/directory");
}

TEST_F(WorkspaceTable, AFileIsNoWorkspace) {
    writeFile(directory / "file", "");
    EXPECT_EQ(addError((directory / "file").native()), "目录不存在：" + (directory / "file").native());
}

TEST_F(WorkspaceTable, APathWithANulIsNotCutShort) {
    const std::string path = directory.path().native() + std::string("\0x", 2);
    EXPECT_EQ(addError(path), "目录不存在：" + path);
}

TEST_F(WorkspaceTable, TheSameDirectoryIsRefusedUnderEveryName) {
    fs::create_directory(directory / "a");
    fs::create_directory_symlink(directory / "a", directory / "link");
    ASSERT_EQ(addError((directory / "a").native()), "");
    for (const auto* const name : {"a", "link", "a/", "a/../a", "./link"}) {
        EXPECT_EQ(addError((directory / name).native()), "该目录已经是工作区") << name;
    }
    EXPECT_EQ(registry.list().size(), 1U);
}

TEST_F(WorkspaceTable, FindGivesTheRecordOrNothing) {
    const auto added = registry.add(directory.path().native(), "L", WorkspacePermission::FULL);
    ASSERT_TRUE(registry.find(added.workspace->id));
    EXPECT_EQ(registry.find(added.workspace->id)->label, "L");
    EXPECT_FALSE(registry.find(""));
    EXPECT_FALSE(registry.find(added.workspace->id + "x"));
}

TEST_F(WorkspaceTable, RemovalAndPermissionTellWhetherThereWasARecord) {
    const auto added = registry.add(directory.path().native(), "L", WorkspacePermission::FULL);
    EXPECT_FALSE(registry.setPermission("ws_none", WorkspacePermission::READ_ONLY));
    EXPECT_TRUE(registry.setPermission(added.workspace->id, WorkspacePermission::READ_ONLY));
    EXPECT_EQ(registry.find(added.workspace->id)->permission, WorkspacePermission::READ_ONLY);
    EXPECT_FALSE(registry.remove("ws_none"));
    EXPECT_TRUE(registry.remove(added.workspace->id));
    EXPECT_FALSE(registry.remove(added.workspace->id));
}

TEST_F(WorkspaceTable, ChangesAndLookUpsMayComeFromManyThreads) {
    for (int i = 0; i < 8; ++i)
        fs::create_directory(directory / ("d" + std::to_string(i)));
    std::atomic<int> resolved{0};
    test::runOnThreads(8, [this, &resolved](std::size_t number) {
        const auto added =
            registry.add((directory / ("d" + std::to_string(number))).native(), "", WorkspacePermission::FULL);
        for (int round = 0; round < 20; ++round) {
            registry.setPermission(added.workspace->id, WorkspacePermission::EXECUTE);
            if (registry.resolve(added.workspace->id, "new", ResolveMode::ParentMustExist).ok) ++resolved;
        }
        if (number % 2 == 0) registry.remove(added.workspace->id);
    });
    EXPECT_EQ(resolved.load(), 160);
    EXPECT_EQ(registry.list().size(), 4U);

    // The last save of the table is that of its last state, whichever thread made it.
    WorkspaceRegistry saved(directory / "data");
    saved.load();
    const auto ids = [](const WorkspaceRegistry& table) {
        std::vector<std::string> found;
        for (const auto& workspace : table.list())
            found.push_back(workspace.id + " " + permissionName(workspace.permission));
        return found;
    };
    EXPECT_EQ(ids(saved), ids(registry));
}

}  // namespace
}  // namespace qm
