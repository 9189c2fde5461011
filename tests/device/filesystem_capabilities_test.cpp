#include "device/filesystem_capabilities.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "capabilities/capability_registry.h"
#include "filesystem_fixture.h"
#include "support/ordinary_user.h"
#include "util/json.h"

namespace qm {
namespace {

namespace fs = std::filesystem;
using test::AsOrdinaryUser;
using test::FilesystemTest;
using test::TemporaryDirectory;
using test::writeFile;

// ---- Definitions ----

struct Expected {
    const char* name;
    const char* displayName;
    const char* effect;
    const char* description;
    const char* parameters;
};

#define QM_WORKSPACE \
    R"("workspace": {"type": "string", "description": "Workspace handle from list_workspaces (never a host path)."})"
#define QM_PATH \
    R"("path": {"type": "string", "description": "Path relative to the workspace root, e.g. src/main.cpp. '..' is rejected."})"

const std::vector<Expected> kDefinitions{
    {"list_workspaces", "列出工作区", "READ_ONLY",
     "List the workspaces this device exposes. Returns opaque handles to use with the file and command capabilities.",
     R"({"type": "object", "properties": {}})"},
    {"list_directory", "列出目录", "READ_ONLY", "List entries of a directory inside a workspace.",
     R"({"type": "object", "required": ["workspace"], "properties": {)" QM_WORKSPACE "," QM_PATH "}}"},
    {"read_file", "读取文件", "READ_ONLY",
     "Read a UTF-8 text file inside a workspace. Large files are truncated; use offsetBytes to continue.",
     R"({"type": "object", "required": ["workspace", "path"], "properties": {)" QM_WORKSPACE "," QM_PATH
     R"(, "offsetBytes": {"type": "integer"}, "maxBytes": {"type": "integer"}}})"},
    {"write_file", "写入文件", "WRITE", "Create or overwrite a text file inside a workspace. Requires READ_WRITE.",
     R"({"type": "object", "required": ["workspace", "path", "content"], "properties": {)" QM_WORKSPACE "," QM_PATH
     R"(, "content": {"type": "string", "description": "Full new file content."}, "append": {"type": "boolean"}}})"},
    {"make_directory", "创建目录", "WRITE",
     "Create a directory (including parents) inside a workspace. Requires READ_WRITE.",
     R"({"type": "object", "required": ["workspace", "path"], "properties": {)" QM_WORKSPACE "," QM_PATH "}}"},
    {"stat_path", "查看文件信息", "READ_ONLY", "Return type and size of a path inside a workspace.",
     R"({"type": "object", "required": ["workspace", "path"], "properties": {)" QM_WORKSPACE "," QM_PATH "}}"},
    {"find_files", "查找文件", "READ_ONLY",
     "Recursively find files whose name matches a glob (* and ?) inside a workspace subtree.",
     R"({"type": "object", "required": ["workspace", "pattern"], "properties": {)" QM_WORKSPACE
     R"(, "pattern": {"type": "string", "description": "Filename glob, e.g. *.cpp"},
          "path": {"type": "string", "description": "Optional subdirectory to search under."}}})"},
};

#undef QM_WORKSPACE
#undef QM_PATH

TEST(FilesystemDefinitions, AreTheSevenWithTheirTextsAndSchemas) {
    const TemporaryDirectory directory;
    WorkspaceRegistry workspaces(directory.path());
    CapabilityRegistry capabilities;
    registerFilesystemCapabilities(capabilities, workspaces);

    const auto table = capabilities.snapshot();
    ASSERT_EQ(table->size(), kDefinitions.size());
    for (std::size_t i = 0; i < kDefinitions.size(); ++i) {
        const auto& definition = table->at(i);
        EXPECT_EQ(definition.name, kDefinitions[i].name);
        EXPECT_EQ(definition.displayName, kDefinitions[i].displayName);
        EXPECT_EQ(definition.effect, kDefinitions[i].effect);
        EXPECT_EQ(definition.description, kDefinitions[i].description);
        EXPECT_EQ(definition.parameters, json::parse(kDefinitions[i].parameters)) << definition.name;
        EXPECT_EQ(definition.scope, "DEVICE");
        EXPECT_EQ(definition.provider, "builtin");
        EXPECT_EQ(definition.sourceType, "NATIVE");
        EXPECT_EQ(definition.outputSchema, json::object());
        EXPECT_TRUE(definition.handler);
        EXPECT_FALSE(definition.invocationHandler);
    }
}

// ---- What every one of them has in common ----

using FilesystemCapabilities = FilesystemTest;

TEST_F(FilesystemCapabilities, AbsentArgumentsReadAsTheirDefaults) {
    writeFile(root / "file", "x");
    EXPECT_EQ(call("list_directory", {{"workspace", id}})["path"], "");
    EXPECT_EQ(call("stat_path", {{"workspace", id}})["isDirectory"], true);
    EXPECT_EQ(error("list_directory", json::object()), "未知的 workspace：(未提供)。可用：" + id + "(Label)");
    EXPECT_EQ(error("write_file", json::object()), "未知的 workspace：");
    EXPECT_EQ(call("write_file", {{"workspace", id}, {"path", "empty"}})["bytesWritten"], 0);
}

TEST_F(FilesystemCapabilities, ArgumentsOfAWrongTypeAreATypeErrorAndChangeNothing) {
    writeFile(root / "file", "kept");
    EXPECT_THROW(call("read_file", {{"workspace", id}, {"path", 5}}), json::type_error);
    EXPECT_THROW(call("read_file", {{"workspace", json::array()}, {"path", "file"}}), json::type_error);
    EXPECT_THROW(call("read_file", {{"workspace", id}, {"path", "file"}, {"maxBytes", "5"}}), json::type_error);
    EXPECT_THROW(call("read_file", {{"workspace", id}, {"path", "file"}, {"offsetBytes", nullptr}}), json::type_error);
    EXPECT_THROW(call("write_file", {{"workspace", id}, {"path", "file"}, {"content", 7}}), json::type_error);
    EXPECT_THROW(call("write_file", {{"workspace", id}, {"path", "file"}, {"content", nullptr}}), json::type_error);
    EXPECT_THROW(call("write_file", {{"workspace", id}, {"path", "file"}, {"content", ""}, {"append", "yes"}}),
                 json::type_error);
    EXPECT_THROW(call("find_files", {{"workspace", id}, {"pattern", false}}), json::type_error);
    EXPECT_EQ(test::readFile(root / "file"), "kept");
}

TEST_F(FilesystemCapabilities, RefusalsOfResolutionPassThrough) {
    writeFile(outside / "secret", "x");
    fs::create_symlink("../outside", root / "link");
    for (const auto* const name :
         {"list_directory", "read_file", "write_file", "make_directory", "stat_path", "find_files"}) {
        const auto refusal = [&](const char* path) {
            return error(name, {{"workspace", id}, {"path", path}, {"pattern", "*"}, {"content", "x"}});
        };
        EXPECT_EQ(refusal("/etc"), "只接受工作区内的相对路径，不允许宿主机绝对路径。") << name;
        EXPECT_EQ(refusal("../outside"), "路径不允许包含 `..`。") << name;
        EXPECT_EQ(refusal("link/secret"), "路径逃逸出工作区，已拒绝。") << name;
        EXPECT_EQ(refusal("link"), "路径逃逸出工作区，已拒绝。") << name;
    }
    for (const auto* const name : {"list_directory", "read_file", "stat_path", "find_files"}) {
        EXPECT_EQ(error(name, {{"workspace", id}, {"path", "none"}, {"pattern", "*"}}), "路径不存在：none") << name;
        EXPECT_EQ(error(name, {{"workspace", "ws_x"}}), "未知的 workspace：ws_x。可用：" + id + "(Label)") << name;
    }
    EXPECT_EQ(test::readFile(outside / "secret"), "x");
}

TEST_F(FilesystemCapabilities, FailuresHaveNoErrorCode) {
    const json result = call("read_file", {{"workspace", id}, {"path", "none"}});
    EXPECT_EQ(result.size(), 1U);
    EXPECT_TRUE(result.contains("error"));
}

TEST_F(FilesystemCapabilities, TheWholeMachineMayBeAWorkspace) {
    const auto machine = registry.add("/", "", WorkspacePermission::READ_ONLY).workspace;
    ASSERT_TRUE(machine);
    const std::string path = fs::path(root / "file").relative_path();
    writeFile(root / "file", "content");
    EXPECT_EQ(call("read_file", {{"workspace", machine->id}, {"path", path}})["content"], "content");
    EXPECT_EQ(call("find_files", {{"workspace", machine->id},
                                  {"path", fs::path(root).relative_path().native()},
                                  {"pattern", "file"}})["matches"],
              json::array({path}));
    const json entries = call("list_directory", {{"workspace", machine->id}, {"path", "/"}});
    EXPECT_TRUE(entries.contains("error"));
    EXPECT_TRUE(call("list_directory", {{"workspace", machine->id}})["entries"].is_array());
}

// ---- list_workspaces ----

TEST_F(FilesystemCapabilities, ListWorkspacesTellsHandlesInOrderButNoHostPath) {
    fs::create_directory(directory / "second");
    const auto second =
        registry.add((directory / "second").native(), "Second", WorkspacePermission::READ_ONLY).workspace;
    EXPECT_EQ(call("list_workspaces", json::object()),
              json({{"workspaces",
                     {{{"workspace", id}, {"label", "Label"}, {"permission", "FULL"}},
                      {{"workspace", second->id}, {"label", "Second"}, {"permission", "READ_ONLY"}}}}}));
}

TEST(ListWorkspaces, WithoutAnyTheUserIsToldToAddOne) {
    const TemporaryDirectory directory;
    WorkspaceRegistry workspaces(directory.path());
    CapabilityRegistry capabilities;
    registerFilesystemCapabilities(capabilities, workspaces);
    EXPECT_EQ(
        capabilities.snapshot()->front().handler(json::object()),
        json({{"error", "本设备尚未配置任何工作区，文件与命令能力不可用。请在 Executor 界面添加一个工作目录。"}}));
}

// ---- list_directory ----

TEST_F(FilesystemCapabilities, ListDirectoryTellsEveryTypeAndTheSizeOfFilesOnly) {
    writeFile(root / "sub/file", "12345");
    fs::create_directory(root / "sub/dir");
    fs::create_symlink("file", root / "sub/link");
    fs::create_symlink("/nowhere", root / "sub/dangling");
    ASSERT_EQ(::mkfifo((root / "sub/pipe").c_str(), 0600), 0);
    const json result = call("list_directory", {{"workspace", id}, {"path", "./sub/"}});
    EXPECT_EQ(result.size(), 3U);
    EXPECT_EQ(result["path"], "sub");
    EXPECT_EQ(result["truncated"], false);
    EXPECT_THAT(result["entries"],
                ::testing::UnorderedElementsAre(
                    json({{"name", "file"}, {"type", "file"}, {"sizeBytes", 5}}),
                    json({{"name", "dir"}, {"type", "dir"}}), json({{"name", "link"}, {"type", "symlink"}}),
                    json({{"name", "dangling"}, {"type", "symlink"}}), json({{"name", "pipe"}, {"type", "other"}})));
}

TEST_F(FilesystemCapabilities, ListDirectoryKeepsTheOrderOfTheFileSystem) {
    for (int i = 0; i < 50; ++i)
        writeFile(root / std::to_string(i * 7919), "");
    std::vector<std::string> expected;
    for (const auto& entry : fs::directory_iterator(root))
        expected.push_back(entry.path().filename());
    std::vector<std::string> found;
    const json listed = call("list_directory", {{"workspace", id}});
    for (const auto& entry : listed["entries"])
        found.push_back(entry["name"]);
    EXPECT_EQ(found, expected);
}

TEST_F(FilesystemCapabilities, ListDirectoryEndsAtFiveHundredEntries) {
    for (int i = 0; i < 500; ++i)
        writeFile(root / std::to_string(i), "");
    const json exact = call("list_directory", {{"workspace", id}});
    EXPECT_EQ(exact["entries"].size(), 500U);
    EXPECT_EQ(exact["truncated"], false);

    writeFile(root / "500", "");
    const json beyond = call("list_directory", {{"workspace", id}});
    EXPECT_EQ(beyond["entries"].size(), 500U);
    EXPECT_EQ(beyond["truncated"], true);
}

TEST_F(FilesystemCapabilities, ListDirectoryOfAFileOrAPipeIsRefused) {
    writeFile(root / "file", "");
    ASSERT_EQ(::mkfifo((root / "pipe").c_str(), 0600), 0);
    EXPECT_EQ(error("list_directory", {{"workspace", id}, {"path", "file"}}), "不是目录");
    EXPECT_EQ(error("list_directory", {{"workspace", id}, {"path", "pipe"}}), "不是目录");
}

TEST_F(FilesystemCapabilities, NamesThatAreNotUtf8AppearWithReplacementCharacters) {
    writeFile(root / "a\xff.txt", "x");
    const json listed = call("list_directory", {{"workspace", id}});
    ASSERT_EQ(listed["entries"].size(), 1U);
    EXPECT_EQ(listed["entries"][0]["name"], "a\xEF\xBF\xBD.txt");
    EXPECT_EQ(call("find_files", {{"workspace", id}, {"pattern", "a?.txt"}})["matches"],
              json::array({"a\xEF\xBF\xBD.txt"}));
    fs::create_symlink("a\xff.txt", root / "link");
    EXPECT_EQ(call("read_file", {{"workspace", id}, {"path", "link"}})["path"], "a\xEF\xBF\xBD.txt");
}

TEST_F(FilesystemCapabilities, ADirectoryThatMayNotBeReadIsAFailureWithoutAHostPath) {
    fs::create_directory(root / "closed");
    fs::permissions(root / "closed", fs::perms::none);
    const AsOrdinaryUser user;
    try {
        call("list_directory", {{"workspace", id}, {"path", "closed"}});
        FAIL() << "no exception";
    } catch (const std::exception& exception) {
        EXPECT_STREQ(exception.what(), "cannot open the directory: Permission denied");
    }
}

TEST_F(FilesystemCapabilities, ADirectoryThatMayBeReadButNotEnteredIsListedWithoutSizes) {
    writeFile(root / "listed/file", "12345");
    fs::create_directory(root / "listed/sub");
    json listed;
    {
        const test::OrdinaryUser user(directory.path());
        fs::permissions(root / "listed", fs::perms::owner_read);
        listed = call("list_directory", {{"workspace", id}, {"path", "listed"}});
        fs::permissions(root / "listed", fs::perms::owner_all);
    }
    EXPECT_THAT(listed["entries"], testing::UnorderedElementsAre(json({{"name", "file"}, {"type", "file"}}),
                                                                 json({{"name", "sub"}, {"type", "dir"}})));
}

// ---- stat_path ----

TEST_F(FilesystemCapabilities, StatPathTellsFilesFromDirectoriesAndOthers) {
    writeFile(root / "sub/file", "12345");
    ASSERT_EQ(::mkfifo((root / "pipe").c_str(), 0600), 0);
    EXPECT_EQ(call("stat_path", {{"workspace", id}, {"path", "sub\\file"}}), json({{"path", "sub/file"},
                                                                                   {"exists", true},
                                                                                   {"isDirectory", false},
                                                                                   {"isFile", true},
                                                                                   {"isSymlink", false},
                                                                                   {"sizeBytes", 5}}));
    EXPECT_EQ(
        call("stat_path", {{"workspace", id}, {"path", "sub"}}),
        json({{"path", "sub"}, {"exists", true}, {"isDirectory", true}, {"isFile", false}, {"isSymlink", false}}));
    EXPECT_EQ(
        call("stat_path", {{"workspace", id}, {"path", "pipe"}}),
        json({{"path", "pipe"}, {"exists", true}, {"isDirectory", false}, {"isFile", false}, {"isSymlink", false}}));
    EXPECT_EQ(call("stat_path", {{"workspace", id}, {"path", "."}})["path"], "");
}

TEST_F(FilesystemCapabilities, StatPathTellsALinkByThePathAsGiven) {
    writeFile(root / "sub/file", "12345");
    fs::create_symlink("sub/file", root / "link");
    fs::create_symlink("sub", root / "dir");
    EXPECT_EQ(call("stat_path", {{"workspace", id}, {"path", "link"}}), json({{"path", "sub/file"},
                                                                              {"exists", true},
                                                                              {"isDirectory", false},
                                                                              {"isFile", true},
                                                                              {"isSymlink", true},
                                                                              {"sizeBytes", 5}}));
    EXPECT_EQ(call("stat_path", {{"workspace", id}, {"path", "dir"}})["isSymlink"], true);
    EXPECT_EQ(call("stat_path", {{"workspace", id}, {"path", "dir"}})["isDirectory"], true);
    EXPECT_EQ(call("stat_path", {{"workspace", id}, {"path", "dir/file"}})["isSymlink"], false);
}

TEST_F(FilesystemCapabilities, StatPathTellsSizesBeyondThirtyTwoBits) {
    writeFile(root / "large", "");
    fs::resize_file(root / "large", std::uintmax_t{5} << 32);
    EXPECT_EQ(call("stat_path", {{"workspace", id}, {"path", "large"}})["sizeBytes"], std::uint64_t{5} << 32);
}

// ---- make_directory ----

TEST_F(FilesystemCapabilities, MakeDirectoryMakesParentsAndTellsWhetherItMadeAny) {
    EXPECT_EQ(call("make_directory", {{"workspace", id}, {"path", "a/b\\c"}}),
              json({{"path", "a/b/c"}, {"created", true}}));
    EXPECT_TRUE(fs::is_directory(root / "a/b/c"));
    EXPECT_EQ(call("make_directory", {{"workspace", id}, {"path", "a/b"}}),
              json({{"path", "a/b"}, {"created", false}}));
    EXPECT_EQ(call("make_directory", {{"workspace", id}, {"path", ""}}), json({{"path", ""}, {"created", false}}));
}

TEST_F(FilesystemCapabilities, MakeDirectoryFollowsLinksInsideTheWorkspace) {
    fs::create_directory(root / "real");
    fs::create_symlink("real", root / "link");
    EXPECT_EQ(call("make_directory", {{"workspace", id}, {"path", "link/new"}}),
              json({{"path", "real/new"}, {"created", true}}));
    EXPECT_TRUE(fs::is_directory(root / "real/new"));
}

TEST_F(FilesystemCapabilities, MakeDirectoryFailsWhereAFileStands) {
    writeFile(root / "file", "x");
    EXPECT_EQ(error("make_directory", {{"workspace", id}, {"path", "file"}}), "创建目录失败");
    EXPECT_EQ(error("make_directory", {{"workspace", id}, {"path", "file/sub"}}), "创建目录失败");
}

TEST_F(FilesystemCapabilities, MakeDirectoryBringsBackALostRoot) {
    fs::remove(root);
    EXPECT_EQ(call("make_directory", {{"workspace", id}, {"path", "a/b"}}), json({{"path", "a/b"}, {"created", true}}));
    EXPECT_TRUE(fs::is_directory(root / "a/b"));
    fs::remove_all(root);
    EXPECT_EQ(call("make_directory", {{"workspace", id}}), json({{"path", ""}, {"created", true}}));
    EXPECT_TRUE(fs::is_empty(root));
    EXPECT_EQ(call("make_directory", {{"workspace", id}}), json({{"path", ""}, {"created", false}}));
}

TEST_F(FilesystemCapabilities, MakeDirectoryBringsBackARootWithTheDirectoriesAboveIt) {
    fs::create_directories(directory / "above/deep");
    const auto added = registry.add((directory / "above/deep").native(), "", WorkspacePermission::READ_WRITE).workspace;
    ASSERT_TRUE(added);
    fs::remove_all(directory / "above");
    EXPECT_EQ(call("make_directory", {{"workspace", added->id}, {"path", "x"}}),
              json({{"path", "x"}, {"created", true}}));
    EXPECT_TRUE(fs::is_directory(directory / "above/deep/x"));
}

TEST_F(FilesystemCapabilities, MakeDirectoryFailsWhereAFileStandsInPlaceOfTheRoot) {
    fs::remove(root);
    writeFile(root, "x");
    for (const auto* const path : {"", "x"}) {
        EXPECT_EQ(error("make_directory", {{"workspace", id}, {"path", path}}), "创建目录失败");
    }
}

TEST_F(FilesystemCapabilities, MakeDirectoryAndWriteFileNeedReadWrite) {
    registry.setPermission(id, WorkspacePermission::READ_ONLY);
    for (const auto* const name : {"make_directory", "write_file"}) {
        EXPECT_EQ(error(name, {{"workspace", id}, {"path", "../x"}, {"content", "x"}}),
                  "工作区 Label 的权限档位是 READ_ONLY，此操作需要 READ_WRITE。请在 Executor 界面调整。");
        EXPECT_EQ(error(name, {{"workspace", "ws_none"}, {"path", "x"}, {"content", "x"}}),
                  "未知的 workspace：ws_none");
    }
    EXPECT_TRUE(fs::is_empty(root));
    registry.setPermission(id, WorkspacePermission::READ_WRITE);
    EXPECT_EQ(error("make_directory", {{"workspace", id}, {"path", "x"}}), "");
    EXPECT_EQ(error("write_file", {{"workspace", id}, {"path", "y"}, {"content", "x"}}), "");
}

}  // namespace
}  // namespace qm
