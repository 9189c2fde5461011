#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include "filesystem_fixture.h"
#include "util/json.h"

namespace qm {
namespace {

namespace fs = std::filesystem;
using test::AsOrdinaryUser;
using test::writeFile;
using ::testing::UnorderedElementsAre;

class FindFiles : public test::FilesystemTest {
protected:
    json find(const char* pattern, const char* path = "") const {
        return call("find_files", {{"workspace", id}, {"pattern", pattern}, {"path", path}});
    }

    std::vector<std::string> matches(const char* pattern, const char* path = "") const {
        return find(pattern, path)["matches"].get<std::vector<std::string>>();
    }
};

TEST_F(FindFiles, MatchesNamesAtEveryDepthAndGivesPathsFromTheRoot) {
    writeFile(root / "main.cpp", "");
    writeFile(root / "src/deep/er/main.cpp", "");
    writeFile(root / "src/main.h", "");
    fs::create_directory(root / "directory.cpp");
    EXPECT_THAT(matches("*.cpp"), UnorderedElementsAre("main.cpp", "src/deep/er/main.cpp"));
    EXPECT_THAT(matches("main.*", "src"), UnorderedElementsAre("src/deep/er/main.cpp", "src/main.h"));
    EXPECT_THAT(matches("main.*", "./src/deep/"), UnorderedElementsAre("src/deep/er/main.cpp"));
    EXPECT_EQ(find("*.cpp").size(), 2U);
    EXPECT_EQ(find("*.cpp")["truncated"], false);
}

TEST_F(FindFiles, ThePatternIsForTheNameAlone) {
    writeFile(root / "src/main.cpp", "");
    EXPECT_THAT(matches("src/*"), UnorderedElementsAre());
    EXPECT_THAT(matches("*/main.cpp"), UnorderedElementsAre());
    EXPECT_THAT(matches("main"), UnorderedElementsAre());
}

TEST_F(FindFiles, LettersMatchInEitherCaseAndBracketsAreLiteral) {
    writeFile(root / "main.cpp", "");
    writeFile(root / "a[b]", "");
    writeFile(root / "ab", "");
    EXPECT_THAT(matches("*.CPP"), UnorderedElementsAre("main.cpp"));
    EXPECT_THAT(matches("a[b]"), UnorderedElementsAre("a[b]"));
}

TEST_F(FindFiles, LinksToFilesCountAndLinksToDirectoriesAreNotEntered) {
    writeFile(root / "real/file.txt", "");
    fs::create_symlink("real/file.txt", root / "link.txt");
    fs::create_symlink("real", root / "dir.txt");
    fs::create_symlink("nowhere", root / "dangling.txt");
    fs::create_symlink("loop.txt", root / "loop.txt");
    fs::create_directory_symlink(root, root / "real/up");
    ASSERT_EQ(::mkfifo((root / "pipe.txt").c_str(), 0600), 0);
    EXPECT_THAT(matches("*.txt"), UnorderedElementsAre("link.txt", "real/file.txt"));
}

TEST_F(FindFiles, ASubtreeThroughALinkGivesItsRealPaths) {
    writeFile(root / "real/sub/file", "");
    fs::create_symlink("real/sub", root / "link");
    EXPECT_THAT(matches("file", "link"), UnorderedElementsAre("real/sub/file"));
}

TEST_F(FindFiles, HiddenFilesAreFoundToo) {
    writeFile(root / ".git/config", "");
    EXPECT_THAT(matches("*"), UnorderedElementsAre(".git/config"));
}

TEST_F(FindFiles, AnEmptyPatternIsRefusedAfterThePathIsFound) {
    EXPECT_EQ(find("")["error"], "pattern 不能为空");
    EXPECT_EQ(find("", "none")["error"], "路径不存在：none");
}

TEST_F(FindFiles, AFileHasNothingBelowIt) {
    writeFile(root / "file", "");
    EXPECT_EQ(find("*", "file")["error"], "不是目录");
}

TEST_F(FindFiles, DirectoriesThatMayNotBeEnteredAreSkipped) {
    writeFile(root / "open/file", "");
    writeFile(root / "closed/file", "");
    fs::permissions(root / "closed", fs::perms::none);
    {
        const AsOrdinaryUser user;
        EXPECT_THAT(matches("file"), UnorderedElementsAre("open/file"));
        EXPECT_THAT(matches("file", "closed"), UnorderedElementsAre());
    }
    fs::permissions(root / "closed", fs::perms::owner_all);
}

TEST_F(FindFiles, EndsAtFiveHundredMatches) {
    for (int i = 0; i < 499; ++i)
        writeFile(root / ("f" + std::to_string(i)), "");
    EXPECT_EQ(find("f*")["matches"].size(), 499U);
    EXPECT_EQ(find("f*")["truncated"], false);
    for (const auto* const name : {"f499", "f500"}) {
        writeFile(root / name, "");
        EXPECT_EQ(find("f*")["matches"].size(), 500U) << name;
        EXPECT_EQ(find("f*")["truncated"], true) << name;
    }
}

TEST_F(FindFiles, VisitsTwentyThousandEntriesAndNotOneMore) {
    fs::create_directory(root / "p");
    fs::create_directory(root / "q");
    // Of two directories the file system says which one is walked first; the other holds what is to be found.
    const fs::path first = fs::directory_iterator(root)->path();
    const fs::path second = root / (first.filename() == "p" ? "q" : "p");
    writeFile(second / "hit", "");
    // Both directories, the fillers and the hit are 20000 entries. Links to one file are made sooner than files.
    writeFile(first / "0", "");
    for (int i = 1; i < 19997; ++i)
        fs::create_hard_link(first / "0", first / std::to_string(i));
    EXPECT_THAT(matches("hit"), UnorderedElementsAre(second.filename().native() + "/hit"));

    writeFile(first / "one more", "");
    const json beyond = find("hit");
    EXPECT_EQ(beyond["matches"], json::array());
    EXPECT_EQ(beyond["truncated"], false);
}

}  // namespace
}  // namespace qm
