#include "device/canonical_path.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "support/temporary_directory.h"

namespace qm {
namespace {

namespace fs = std::filesystem;
using test::TemporaryDirectory;
using test::writeFile;

TEST(FollowLinks, AgreesWithTheStandardLibraryOnTreesWithoutDanglingLinks) {
    const TemporaryDirectory directory;
    const fs::path root = directory / "root";
    std::mt19937 random(20240607);
    const auto pick = [&random](std::size_t count) {
        return std::uniform_int_distribution<std::size_t>(0, count - 1)(random);
    };
    // Names repeat at every depth, so that random paths often lead somewhere.
    const std::vector<std::string> names{"a", "b", "c", "link", "loop"};
    std::vector<fs::path> directories{root, directory.path()};
    writeFile(root / "a/b/c", "");
    writeFile(root / "b/a", "");
    fs::create_directories(root / "c/a/b/link");
    fs::create_directories(directory / "elsewhere/a/b");
    fs::create_symlink("../elsewhere", root / "link");
    fs::create_symlink(root / "a", root / "c/link");
    fs::create_symlink("../../c", root / "a/b/link");
    fs::create_symlink("loop", root / "loop");
    fs::create_symlink("../loop", root / "a/loop");
    fs::create_symlink("../b/a", root / "c/c");
    fs::create_symlink(".", directory / "elsewhere/link");

    for (int round = 0; round < 5000; ++round) {
        std::string path;
        for (std::size_t i = 0, count = pick(7); i < count; ++i) {
            path += pick(8) == 0 ? "." : names[pick(names.size())];
            path += pick(8) == 0 ? "//" : "/";
        }
        if (!path.empty() && pick(4) != 0) path.pop_back();

        std::error_code error;
        const fs::path expected = fs::weakly_canonical(root / path, error);
        const auto followed = followLinks(root.native(), path);

        ASSERT_EQ(followed.error, error) << path;
        if (!error) {
            ASSERT_EQ(followed.path, expected.native()) << path;
            ASSERT_EQ(followed.missing == 0, fs::exists(expected)) << path;
            ASSERT_EQ(followed.missing <= 1, fs::exists(expected.parent_path())) << path;
        }
    }
}

TEST(FollowLinks, CountsWhatIsMissing) {
    const TemporaryDirectory directory;
    const std::string root = directory.path().native();
    EXPECT_EQ(followLinks(root, "").missing, 0U);
    EXPECT_EQ(followLinks(root, "a").missing, 1U);
    EXPECT_EQ(followLinks(root, "a/b/c").missing, 3U);
    EXPECT_EQ(followLinks(root, "a/").missing, 2U);
    EXPECT_EQ(followLinks(root, "a/").path, root + "/a/");
}

TEST(FollowLinks, FortyLinksAreFollowedAndOneMoreIsALoop) {
    const TemporaryDirectory directory;
    writeFile(directory / "l0", "");
    for (int i = 1; i <= 41; ++i)
        fs::create_symlink("l" + std::to_string(i - 1), directory / ("l" + std::to_string(i)));
    const std::string root = directory.path().native();

    EXPECT_EQ(followLinks(root, "l40").path, root + "/l0");
    EXPECT_EQ(followLinks(root, "l41").error, std::errc::too_many_symbolic_link_levels);
    EXPECT_EQ(fs::file_size(directory / "l40"), 0U);
    EXPECT_THROW(static_cast<void>(fs::file_size(directory / "l41")), fs::filesystem_error);
}

TEST(FollowLinks, ADanglingLinkMayNotGoUpFromWhereNothingIs) {
    const TemporaryDirectory directory;
    writeFile(directory / "file", "");
    fs::create_symlink("none/../file", directory / "throughNothing");
    fs::create_symlink("file/../file", directory / "throughFile");
    const std::string root = directory.path().native();
    EXPECT_EQ(followLinks(root, "throughNothing").error, std::errc::no_such_file_or_directory);
    EXPECT_EQ(followLinks(root, "throughFile").error, std::errc::not_a_directory);
}

TEST(FollowLinks, NothingIsAboveTheRootDirectory) {
    const TemporaryDirectory directory;
    std::string up;
    for (int i = 0; i < 50; ++i)
        up += "../";
    fs::create_symlink(up + "proc", directory / "link");
    EXPECT_EQ(followLinks(directory.path().native(), "link/version").path, "/proc/version");
    EXPECT_EQ(followLinks("/", "").path, "/");
}

TEST(FollowLinks, ALinkWithASlashBehindItMustLeadToADirectory) {
    const TemporaryDirectory directory;
    writeFile(directory / "file", "");
    fs::create_directory(directory / "dir");
    fs::create_symlink("file/", directory / "toFile");
    fs::create_symlink("dir/", directory / "toDir");
    const std::string root = directory.path().native();
    EXPECT_EQ(followLinks(root, "toFile").missing, 1U);
    EXPECT_EQ(followLinks(root, "toDir").path, root + "/dir");
    EXPECT_EQ(followLinks(root, "toDir/").missing, 0U);
    EXPECT_EQ(followLinks(root, "toDir/x").path, root + "/dir/x");
}

TEST(ExistsAsCanonical, IsTrueForExistingPathsWithoutDetoursOnly) {
    const TemporaryDirectory directory;
    writeFile(directory / "dir/file", "");
    fs::create_symlink("dir", directory / "link");
    const std::string root = directory.path().native();
    EXPECT_TRUE(existsAsCanonical("/"));
    EXPECT_TRUE(existsAsCanonical(root));
    EXPECT_TRUE(existsAsCanonical(root + "/dir/file"));
    for (const std::string path :
         {"/link", "/link/file", "/none", "/dir/", "//dir", "/./dir", "/dir/../dir", "/dir/."}) {
        EXPECT_FALSE(existsAsCanonical(root + path)) << path;
    }
    EXPECT_FALSE(existsAsCanonical(""));
    EXPECT_FALSE(existsAsCanonical("proc"));
    EXPECT_FALSE(existsAsCanonical(root + std::string("\0x", 2)));
}

TEST(IsWithin, ComparesComponents) {
    EXPECT_TRUE(isWithin("/a/b", "/a/b"));
    EXPECT_TRUE(isWithin("/a/b", "/a/b/c"));
    EXPECT_FALSE(isWithin("/a/b", "/a/bc"));
    EXPECT_FALSE(isWithin("/a/b", "/a"));
    EXPECT_TRUE(isWithin("/", "/"));
    EXPECT_TRUE(isWithin("/", "/a"));
    EXPECT_EQ(relativeTo("/a/b", "/a/b"), "");
    EXPECT_EQ(relativeTo("/a/b", "/a/b/c/d"), "c/d");
    EXPECT_EQ(relativeTo("/", "/"), "");
    EXPECT_EQ(relativeTo("/", "/a/b"), "a/b");
    EXPECT_EQ(joinBelow("/", "a"), "/a");
    EXPECT_EQ(joinBelow("/a", "b/c"), "/a/b/c");
    EXPECT_EQ(joinBelow("/a", ""), "/a");
}

}  // namespace
}  // namespace qm
