#include <gtest/gtest.h>

#include <climits>
#include <filesystem>
#include <string>

#include "device/workspace_registry.h"
#include "support/temporary_directory.h"
#include "util/json.h"
#include "workspace_fixture.h"

namespace qm {
namespace {

namespace fs = std::filesystem;
using test::TemporaryDirectory;
using test::WorkspaceTest;
using test::writeFile;

constexpr auto kEscape = "路径逃逸出工作区，已拒绝。";
constexpr auto kOnlyRelative = "只接受工作区内的相对路径，不允许宿主机绝对路径。";
constexpr auto kNoParent = "路径不允许包含 `..`。";

TEST(WorkspaceResolution, WithoutWorkspacesTheUserIsToldToAddOne) {
    const TemporaryDirectory directory;
    const WorkspaceRegistry registry(directory.path());
    const auto resolved = registry.resolve("ws_x", "../x", ResolveMode::MustExist);
    EXPECT_FALSE(resolved.ok);
    EXPECT_EQ(resolved.error,
              "本设备尚未配置任何工作区，文件与终端能力已拒绝执行。请在 Executor 界面里添加一个工作目录。");
}

using Resolution = WorkspaceTest;

TEST_F(Resolution, AnUnknownHandleIsAnsweredWithThoseThereAre) {
    fs::create_directory(directory / "second");
    const auto second = registry.add((directory / "second").native(), "", WorkspacePermission::FULL).workspace;
    const std::string list = id + "(Label), " + second->id + "(second)";

    EXPECT_EQ(registry.resolve("ws_none", "/x", ResolveMode::MustExist).error,
              "未知的 workspace：ws_none。可用：" + list);
    EXPECT_EQ(registry.resolve("", "", ResolveMode::MustExist).error, "未知的 workspace：(未提供)。可用：" + list);
}

TEST_F(Resolution, NothingADotAndBlanksMeanTheRoot) {
    for (const auto* const path : {"", ".", "   ", " . ", "\t\r\n", "./", "././."}) {
        for (const auto mode : {ResolveMode::MustExist, ResolveMode::ParentMustExist, ResolveMode::MayBeMissing}) {
            const auto resolved = resolve(path, mode);
            EXPECT_TRUE(resolved.ok) << path << resolved.error;
            EXPECT_EQ(resolved.hostPath, root);
            EXPECT_EQ(resolved.rootPath, root);
            EXPECT_EQ(resolved.relativePath, "");
        }
    }
}

TEST_F(Resolution, AbsolutePathsAndColonsAreRefused) {
    for (const auto* const path :
         {"/etc/passwd", "\\etc", "/", " /x", "C:/x", "a:b", "a/b:c", ":", "//x", "/../x", "../a:b"}) {
        EXPECT_EQ(resolve(path).error, kOnlyRelative) << path;
    }
}

TEST_F(Resolution, ParentComponentsAreRefusedBeforeTheDiskIsLookedAt) {
    fs::create_directories(root / "a/b");
    for (const auto* const path : {"..", "src/../../etc", "a/b/..", "..\\x", "a\\..\\b", "./..", "a/../b", "../"}) {
        EXPECT_EQ(resolve(path, ResolveMode::MayBeMissing).error, kNoParent) << path;
    }
}

TEST_F(Resolution, DotsWithinNamesAreOrdinary) {
    for (const auto* const path : {"...", "..a", "a..", "a..b/..c"}) {
        writeFile(root / path, "");
        EXPECT_TRUE(resolve(path).ok) << path;
    }
}

TEST_F(Resolution, BackslashesSeparateComponents) {
    writeFile(root / "src/main.cpp", "");
    const auto resolved = resolve(" src\\main.cpp ");
    ASSERT_TRUE(resolved.ok) << resolved.error;
    EXPECT_EQ(resolved.relativePath, "src/main.cpp");
    EXPECT_EQ(resolved.hostPath, root / "src/main.cpp");
}

TEST_F(Resolution, DotsAndDoubledSlashesVanish) {
    writeFile(root / "a/b", "");
    EXPECT_EQ(resolve("./a//./b").relativePath, "a/b");
    EXPECT_EQ(resolve("a/").relativePath, "a");
    EXPECT_EQ(resolve("x/./y//z", ResolveMode::MayBeMissing).relativePath, "x/y/z");
}

TEST_F(Resolution, EachModeDemandsWhatItSays) {
    writeFile(root / "dir/file", "");

    EXPECT_TRUE(resolve("dir/file", ResolveMode::MustExist).ok);
    EXPECT_EQ(resolve("dir/none", ResolveMode::MustExist).error, "路径不存在：dir/none");
    EXPECT_EQ(resolve("dir\\none ", ResolveMode::MustExist).error, "路径不存在：dir/none");

    EXPECT_TRUE(resolve("dir/file", ResolveMode::ParentMustExist).ok);
    EXPECT_TRUE(resolve("dir/new", ResolveMode::ParentMustExist).ok);
    EXPECT_EQ(resolve("none/new", ResolveMode::ParentMustExist).error, "上级目录不存在：none/new");
    EXPECT_EQ(resolve("none/", ResolveMode::ParentMustExist).error, "上级目录不存在：none/");

    const auto missing = resolve("x/y/z", ResolveMode::MayBeMissing);
    ASSERT_TRUE(missing.ok);
    EXPECT_EQ(missing.hostPath, root / "x/y/z");
}

TEST_F(Resolution, BelowAFileNothingExists) {
    writeFile(root / "file", "");
    EXPECT_EQ(resolve("file/x").error, "路径不存在：file/x");
    EXPECT_EQ(resolve("file/").error, "路径不存在：file/");
    EXPECT_EQ(resolve("file/x/y", ResolveMode::ParentMustExist).error, "上级目录不存在：file/x/y");
    EXPECT_TRUE(resolve("file/x", ResolveMode::ParentMustExist).ok);
}

TEST_F(Resolution, ALinkThatLeadsOutsideIsAnEscape) {
    writeFile(outside / "secret", "x");
    fs::create_symlink("/etc", root / "link");
    fs::create_symlink("../outside", root / "relative");
    fs::create_symlink(outside / "secret", root / "file");
    for (const auto* const path : {"link/passwd", "link", "link/none", "relative/secret", "file", "relative/"}) {
        for (const auto mode : {ResolveMode::MustExist, ResolveMode::ParentMustExist, ResolveMode::MayBeMissing}) {
            EXPECT_EQ(resolve(path, mode).error, kEscape) << path;
        }
    }
}

TEST_F(Resolution, ADanglingLinkThatLeadsOutsideIsAnEscape) {
    fs::create_symlink("../outside/none", root / "relative");
    fs::create_symlink(outside / "none/deeper", root / "absolute");
    fs::create_directory(root / "dir");
    fs::create_symlink("../relative", root / "dir/chain");
    for (const auto* const path : {"relative", "absolute", "dir/chain", "dir/chain/x", "absolute/x"}) {
        for (const auto mode : {ResolveMode::MustExist, ResolveMode::ParentMustExist, ResolveMode::MayBeMissing}) {
            EXPECT_EQ(resolve(path, mode).error, kEscape) << path;
        }
    }
}

TEST_F(Resolution, ADanglingLinkThatStaysInsideNamesThePlaceItLeadsTo) {
    fs::create_directory(root / "dir");
    fs::create_symlink("dir/new", root / "link");
    EXPECT_EQ(resolve("link").error, "路径不存在：link");
    const auto resolved = resolve("link", ResolveMode::ParentMustExist);
    ASSERT_TRUE(resolved.ok) << resolved.error;
    EXPECT_EQ(resolved.relativePath, "dir/new");
    EXPECT_EQ(resolved.hostPath, root / "dir/new");
    EXPECT_TRUE(resolved.namesLink);
}

TEST_F(Resolution, ASiblingWhoseNameBeginsLikeTheRootIsOutside) {
    fs::create_directory(directory / "root2");
    fs::create_symlink("../root2", root / "link");
    EXPECT_EQ(resolve("link").error, kEscape);
}

TEST_F(Resolution, LinksWithinTheWorkspaceAreFollowed) {
    writeFile(root / "real/file", "");
    fs::create_symlink("real", root / "link");
    fs::create_symlink(root / "link", root / "absolute");
    fs::create_symlink("real/file", root / "toFile");
    EXPECT_EQ(resolve("link/file").relativePath, "real/file");
    EXPECT_EQ(resolve("absolute/file").relativePath, "real/file");
    EXPECT_EQ(resolve("toFile").hostPath, root / "real/file");
    EXPECT_EQ(resolve("absolute").relativePath, "real");
    EXPECT_EQ(resolve("link/new", ResolveMode::ParentMustExist).relativePath, "real/new");
}

TEST_F(Resolution, ALinkOutAndBackInIsInside) {
    writeFile(root / "file", "");
    fs::create_symlink(root, outside / "back");
    fs::create_symlink("../outside/back", root / "link");
    EXPECT_EQ(resolve("link/file").relativePath, "file");
}

TEST_F(Resolution, TellsWhetherThePathItselfIsALink) {
    writeFile(root / "real/file", "");
    fs::create_symlink("real", root / "link");
    fs::create_symlink("file", root / "real/alias");
    EXPECT_TRUE(resolve("link").namesLink);
    EXPECT_TRUE(resolve("link/alias").namesLink);
    EXPECT_FALSE(resolve("link/file").namesLink);
    EXPECT_FALSE(resolve("link/").namesLink);
    EXPECT_FALSE(resolve("real").namesLink);
}

TEST_F(Resolution, ALoopOfLinksCannotBeResolved) {
    fs::create_symlink("b", root / "a");
    fs::create_symlink("a", root / "b");
    for (const auto* const path : {"a", "b/x"}) {
        EXPECT_EQ(resolve(path, ResolveMode::MayBeMissing).error, "无法解析路径：Too many levels of symbolic links");
    }
}

TEST_F(Resolution, NamesAndPathsBeyondTheKernelsLimitsCannotBeResolved) {
    EXPECT_TRUE(resolve(std::string(NAME_MAX, 'n'), ResolveMode::MayBeMissing).ok);
    EXPECT_EQ(resolve(std::string(NAME_MAX + 1, 'n'), ResolveMode::MayBeMissing).error,
              "无法解析路径：File name too long");

    std::string path;
    while (root.native().size() + 1 + path.size() < PATH_MAX - 1)
        path += path.size() % 100 == 99 ? '/' : 'x';
    EXPECT_TRUE(resolve(path, ResolveMode::MayBeMissing).ok) << path.size();
    EXPECT_EQ(resolve(path + "x", ResolveMode::MayBeMissing).error, "无法解析路径：File name too long");
}

TEST_F(Resolution, ANulInAPathIsRefusedRatherThanCut) {
    writeFile(root / "file", "");
    EXPECT_EQ(resolve(std::string("file\0x", 6)).error, "无法解析路径：Invalid argument");
}

TEST_F(Resolution, ADirectoryThatMayNotBeEnteredCannotBeResolved) {
    writeFile(root / "closed/file", "");
    fs::permissions(root / "closed", fs::perms::none);
    {
        const test::AsOrdinaryUser user;
        EXPECT_EQ(resolve("closed/file").error, "无法解析路径：Permission denied");
        EXPECT_TRUE(resolve("closed").ok);
    }
    fs::permissions(root / "closed", fs::perms::owner_all);
}

TEST_F(Resolution, AWorkspaceWhoseRootIsGoneHasNoPathsButSomeThatMayBeMissing) {
    fs::remove(root);
    EXPECT_EQ(resolve("").error, "路径不存在：");
    EXPECT_EQ(resolve("file").error, "路径不存在：file");
    EXPECT_EQ(resolve("file", ResolveMode::ParentMustExist).error, "上级目录不存在：file");
    for (const std::string path : {"", "dir", "dir/deeper"}) {
        const auto resolved = resolve(path, ResolveMode::MayBeMissing);
        ASSERT_TRUE(resolved.ok) << resolved.error;
        EXPECT_EQ(resolved.rootPath, root);
        EXPECT_EQ(resolved.hostPath, path.empty() ? root : root / path);
        EXPECT_EQ(resolved.relativePath, path);
    }
    EXPECT_EQ(resolve("../x", ResolveMode::MayBeMissing).error, kNoParent);
}

TEST_F(Resolution, ARootThatBecameALinkIsFollowedToItsNewPlace) {
    fs::rename(root, directory / "moved");
    writeFile(directory / "moved/file", "");
    fs::create_directory_symlink(directory / "moved", root);
    const auto resolved = resolve("file");
    ASSERT_TRUE(resolved.ok) << resolved.error;
    EXPECT_EQ(resolved.rootPath, directory / "moved");
    EXPECT_EQ(resolved.hostPath, directory / "moved/file");
    EXPECT_EQ(resolved.relativePath, "file");
}

TEST_F(Resolution, ARootThatBecameALoopCannotBeResolved) {
    fs::remove(root);
    fs::create_symlink("root", root);
    EXPECT_EQ(resolve("x").error, "无法解析路径：Too many levels of symbolic links");
}

TEST_F(Resolution, ARootBehindAClosedDirectoryCannotBeResolved) {
    fs::permissions(directory.path(), fs::perms::none);
    {
        const test::AsOrdinaryUser user;
        EXPECT_EQ(resolve("x").error, "无法解析路径：Permission denied");
    }
    fs::permissions(directory.path(), fs::perms::owner_all);
}

TEST_F(Resolution, TheWholeMachineMayBeAWorkspace) {
    const auto added = registry.add("/", "", WorkspacePermission::READ_ONLY).workspace;
    ASSERT_TRUE(added);
    EXPECT_EQ(added->label, "/");
    EXPECT_EQ(registry.resolve(added->id, "", ResolveMode::MustExist).hostPath, "/");
    EXPECT_EQ(registry.resolve(added->id, "", ResolveMode::MustExist).relativePath, "");
    const auto resolved = registry.resolve(added->id, "proc/version", ResolveMode::MustExist);
    ASSERT_TRUE(resolved.ok) << resolved.error;
    EXPECT_EQ(resolved.hostPath, "/proc/version");
    EXPECT_EQ(resolved.relativePath, "proc/version");
    EXPECT_TRUE(registry.resolve(added->id, "proc/none", ResolveMode::ParentMustExist).ok);
}

TEST(WorkspaceResolution, ARootWrittenByHandInAnyFormIsMadeCanonical) {
    const TemporaryDirectory directory;
    writeFile(directory / "ws/a/file", "");
    fs::create_directory_symlink(directory / "ws", directory / "link");
    const std::string base = directory.path().native();
    for (const auto& hostPath : {base + "/ws/", base + "//ws", base + "/./ws/", base + "/link", base + "/ws/a/.."}) {
        writeFile(directory / "workspaces.json",
                  dumpJson(json{{"workspaces", json::array({json{{"id", "ws_1"}, {"hostPath", hostPath}}})}}));
        WorkspaceRegistry registry(directory.path());
        registry.load();
        for (const auto mode : {ResolveMode::MustExist, ResolveMode::ParentMustExist}) {
            const auto resolved = registry.resolve("ws_1", "a/file", mode);
            ASSERT_TRUE(resolved.ok) << hostPath << resolved.error;
            EXPECT_EQ(resolved.rootPath, directory / "ws") << hostPath;
            EXPECT_EQ(resolved.relativePath, "a/file") << hostPath;
        }
    }
}

TEST(WorkspaceResolution, ARelativeRootWrittenByHandStandsBelowTheWorkingDirectory) {
    const TemporaryDirectory directory;
    writeFile(directory / "workspaces.json", R"({"workspaces": [{"id": "ws_1", "hostPath": "."}]})");
    WorkspaceRegistry registry(directory.path());
    registry.load();
    EXPECT_EQ(registry.resolve("ws_1", "", ResolveMode::MustExist).hostPath, fs::current_path());
}

TEST(WorkspaceResolution, ARelativeRootCannotBeFoundOnceTheWorkingDirectoryIsGone) {
    const TemporaryDirectory directory;
    writeFile(directory / "workspaces.json", R"({"workspaces": [{"id": "ws_1", "hostPath": "sub"}]})");
    WorkspaceRegistry registry(directory.path());
    registry.load();
    const fs::path before = fs::current_path();
    fs::create_directory(directory / "working");
    fs::current_path(directory / "working");
    fs::remove(directory / "working");
    for (const auto mode : {ResolveMode::MustExist, ResolveMode::ParentMustExist, ResolveMode::MayBeMissing}) {
        EXPECT_EQ(registry.resolve("ws_1", "x", mode).error, "工作区根目录不可用");
    }
    fs::current_path(before);
}

TEST_F(Resolution, OnlySpacesTabsAndLineEndsAreTrimmed) {
    for (const auto* const path : {"\f", "\v"})
        EXPECT_EQ(resolve(path).error, "路径不存在：" + std::string(path));
    writeFile(root / "\ffile\v", "");
    EXPECT_EQ(resolve(" \t\r\n\ffile\v\n\r\t ").relativePath, "\ffile\v");
}

TEST_F(Resolution, AnOrdinaryPathIsPresumedWhereResolutionFindsIt) {
    writeFile(root / "src/main.cpp", "");
    for (const auto* const path : {"src/main.cpp", " src\\main.cpp\n", "src"}) {
        const auto presumed = registry.presume(id, path);
        ASSERT_TRUE(presumed) << path;
        EXPECT_EQ(presumed->hostPath, resolve(path).hostPath);
        EXPECT_EQ(presumed->relativePath, resolve(path).relativePath);
    }
}

TEST_F(Resolution, NothingIsPresumedOfPathsThatOnlyResolutionCanJudge) {
    for (const std::string& path :
         {std::string(), std::string("."), std::string("../x"), std::string("/etc/passwd"), std::string("a:b"),
          std::string("a/./b"), std::string("a//b"), std::string("a/"), std::string("a\0b", 3), std::string("a/..")}) {
        EXPECT_FALSE(registry.presume(id, path)) << path;
    }
    EXPECT_FALSE(registry.presume("ws_none", "a"));
    EXPECT_FALSE(registry.presume("", "a"));
}

}  // namespace
}  // namespace qm
