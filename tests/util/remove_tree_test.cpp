#include "util/remove_tree.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "support/temporary_directory.h"
#include "util/unique_fd.h"

namespace qm::test {
namespace {

namespace fs = std::filesystem;

class RemoveTree : public testing::Test {
protected:
    std::error_code remove(const std::string& name) { return removeTreeAt(parent_.get(), name); }

    TemporaryDirectory directory_;
    UniqueFd parent_{::open(directory_.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
};

TEST_F(RemoveTree, RemovesADirectoryWithAllItHolds) {
    writeFile(directory_ / "tree/a/b/c/file", "x");
    writeFile(directory_ / "tree/.hidden", "x");
    fs::create_directories(directory_ / "tree/empty");
    writeFile(directory_ / "beside", "x");

    EXPECT_EQ(remove("tree"), std::error_code());

    EXPECT_FALSE(fs::exists(directory_ / "tree"));
    EXPECT_TRUE(fs::exists(directory_ / "beside"));
}

TEST_F(RemoveTree, RemovesLinksAndNotWhatTheyLeadTo) {
    writeFile(directory_ / "outside/file", "x");
    fs::create_directories(directory_ / "tree/dir");
    fs::create_directory_symlink(directory_ / "outside", directory_ / "tree/dir/link");
    fs::create_symlink(directory_ / "outside/file", directory_ / "tree/file-link");

    EXPECT_EQ(remove("tree"), std::error_code());

    EXPECT_FALSE(fs::exists(directory_ / "tree"));
    EXPECT_EQ(readFile(directory_ / "outside/file"), "x");
}

TEST_F(RemoveTree, DoesNotFollowALinkInThePlaceOfTheTree) {
    writeFile(directory_ / "outside/file", "x");
    fs::create_directory_symlink(directory_ / "outside", directory_ / "tree");

    EXPECT_EQ(remove("tree"), std::errc::not_a_directory);

    EXPECT_EQ(readFile(directory_ / "outside/file"), "x");
}

TEST_F(RemoveTree, LeavesAFileInThePlaceOfTheTree) {
    writeFile(directory_ / "tree", "x");

    EXPECT_EQ(remove("tree"), std::errc::not_a_directory);
    EXPECT_EQ(readFile(directory_ / "tree"), "x");
}

TEST_F(RemoveTree, WhatIsNotThereCountsAsRemoved) {
    EXPECT_EQ(remove("tree"), std::error_code());
}

TEST_F(RemoveTree, RefusesWhateverIsNotOneNameAndRemovesNothing) {
    writeFile(directory_ / "inner/tree/file", "x");
    const UniqueFd inner(::open((directory_ / "inner").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));

    for (const std::string& name :
         {std::string(), std::string("."), std::string(".."), std::string("tree/"), std::string("/tree"),
          std::string("./tree"), std::string("../inner"), std::string("tree\0x", 6)}) {
        EXPECT_EQ(removeTreeAt(inner.get(), name), std::errc::invalid_argument) << name;
    }
    EXPECT_EQ(readFile(directory_ / "inner/tree/file"), "x");
}

TEST_F(RemoveTree, RemovesTreesDeeperThanAPathMayBeLong) {
    const std::string name(200, 'd');
    UniqueFd level(::openat(parent_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (int depth = 0; depth < 300; ++depth) {
        const std::string each = depth == 0 ? "tree" : name;
        ASSERT_EQ(::mkdirat(level.get(), each.c_str(), 0700), 0);
        level.reset(::openat(level.get(), each.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        ASSERT_TRUE(level);
        const UniqueFd file(::openat(level.get(), "file", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        ASSERT_TRUE(file);
    }

    EXPECT_EQ(remove("tree"), std::error_code());

    EXPECT_FALSE(fs::exists(directory_ / "tree"));
    EXPECT_TRUE(fs::is_empty(directory_.path()));
}

TEST_F(RemoveTree, RemovesADirectoryOfManyEntries) {
    for (int count = 0; count < 5000; ++count)
        writeFile(directory_ / ("tree/" + std::to_string(count)), "");

    EXPECT_EQ(remove("tree"), std::error_code());
    EXPECT_FALSE(fs::exists(directory_ / "tree"));
}

}  // namespace
}  // namespace qm::test
