#include "device/tree_walk.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <system_error>
#include <vector>

#include "device/refused_system_calls.h"
#include "workspace_fixture.h"

namespace qm {
namespace {

namespace fs = std::filesystem;
using test::AsOrdinaryUser;
using test::RefusedCall;
using test::TemporaryDirectory;
using test::withRefusedCalls;
using test::writeFile;

UniqueFd openDirectory(const fs::path& path) {
    return UniqueFd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

std::vector<std::string> walked(const fs::path& root, std::size_t openDirectories = TreeWalk::kOpenDirectories) {
    std::vector<std::string> paths;
    TreeWalk walk(openDirectory(root), openDirectories);
    while (const auto* const entry = walk.next())
        paths.emplace_back(entry->path);
    return paths;
}

std::size_t openDescriptors() {
    return static_cast<std::size_t>(std::distance(fs::directory_iterator("/proc/self/fd"), {}));
}

TEST(TreeWalk, GivesEveryEntryInTheOrderOfTheStandardIterator) {
    const TemporaryDirectory directory;
    std::mt19937 random(3);
    std::vector<fs::path> directories{directory.path()};
    for (int i = 0; i < 400; ++i) {
        const fs::path path = directories[random() % directories.size()] / ("n" + std::to_string(i));
        switch (random() % 4) {
            case 0:
                fs::create_symlink(directories[random() % directories.size()], path);
                break;
            case 1:
                writeFile(path, "");
                break;
            default:
                fs::create_directory(path), directories.push_back(path);
        }
    }
    std::vector<std::string> expected;
    for (const auto& entry : fs::recursive_directory_iterator(directory.path())) {
        expected.push_back(entry.path().lexically_relative(directory.path()).native());
    }
    ASSERT_EQ(expected.size(), 400U);

    for (const std::size_t openDirectories : {1U, 2U, 5U, 32U}) {
        EXPECT_EQ(walked(directory.path(), openDirectories), expected) << openDirectories;
    }
}

TEST(TreeWalk, TellsTypesWithoutFollowingLinks) {
    const TemporaryDirectory directory;
    writeFile(directory / "file", "");
    fs::create_directory(directory / "dir");
    fs::create_symlink("dir", directory / "link");
    ASSERT_EQ(::mkfifo((directory / "pipe").c_str(), 0600), 0);
    std::map<std::string, EntryType> types;
    TreeWalk walk(openDirectory(directory.path()));
    while (const auto* const entry = walk.next()) {
        EXPECT_EQ(entry->path, entry->name);
        types[std::string(entry->name)] = entry->type;
        struct stat status {};
        EXPECT_EQ(::fstatat(entry->directory, entry->name.data(), &status, AT_SYMLINK_NOFOLLOW), 0);
    }
    EXPECT_EQ(types, (std::map<std::string, EntryType>{{"file", EntryType::File},
                                                       {"dir", EntryType::Directory},
                                                       {"link", EntryType::Symlink},
                                                       {"pipe", EntryType::Other}}));
}

TEST(TreeWalk, LeavesOutTheContentOfADirectoryOnRequest) {
    const TemporaryDirectory directory;
    writeFile(directory / "skip/below/file", "");
    writeFile(directory / "take/file", "");
    std::vector<std::string> paths;
    TreeWalk walk(openDirectory(directory.path()));
    while (const auto* const entry = walk.next()) {
        paths.emplace_back(entry->path);
        if (entry->name == "skip") walk.skipContent();
    }
    std::sort(paths.begin(), paths.end());
    EXPECT_EQ(paths, (std::vector<std::string>{"skip", "take", "take/file"}));
}

TEST(TreeWalk, DirectoriesThatMayNotBeReadArePassedOver) {
    const TemporaryDirectory directory;
    ASSERT_EQ(::chmod(directory.path().c_str(), 0755), 0);
    writeFile(directory / "closed/file", "");
    writeFile(directory / "open/file", "");
    fs::permissions(directory / "closed", fs::perms::none);
    {
        const AsOrdinaryUser user;
        auto paths = walked(directory.path());
        std::sort(paths.begin(), paths.end());
        EXPECT_EQ(paths, (std::vector<std::string>{"closed", "open", "open/file"}));
    }
    fs::permissions(directory / "closed", fs::perms::owner_all);
}

TEST(TreeWalk, ADirectoryThatTheDiskCannotGiveIsToldRatherThanPassedOver) {
    const TemporaryDirectory directory;
    writeFile(directory / "below/file", "");
    for (const auto& refused : {RefusedCall{SYS_getdents64, EIO}, RefusedCall{SYS_openat, EMFILE}}) {
        TreeWalk walk(openDirectory(directory.path()));
        ASSERT_EQ(walk.next()->path, "below");
        std::string failure;
        withRefusedCalls({refused}, [&] {
            try {
                walk.next();
            } catch (const std::system_error& error) {
                failure = error.what();
            }
        });
        EXPECT_EQ(failure,
                  "cannot read a directory of the workspace: " + std::generic_category().message(refused.error));
    }
}

TEST(TreeWalk, ADirectoryThatVanishedOrBecameAnotherThingIsPassedOver) {
    const TemporaryDirectory directory;
    writeFile(directory / "elsewhere/stranger", "");
    for (const int replacement : {0, 1, 2}) {
        fs::create_directories(directory / "top/below");
        TreeWalk walk(openDirectory(directory / "top"));
        ASSERT_EQ(walk.next()->path, "below");
        fs::remove(directory / "top/below");
        if (replacement == 1) writeFile(directory / "top/below", "");
        if (replacement == 2) fs::create_directory_symlink("../elsewhere", directory / "top/below");
        EXPECT_EQ(walk.next(), nullptr) << replacement;
        fs::remove(directory / "top/below");
    }
}

/// A chain of directories of one long name, deeper than any path that the kernel takes; removed at the end.
class DeepChain {
public:
    static constexpr std::size_t kDepth = 120;
    const std::string name = std::string(100, 'd');

    explicit DeepChain(const fs::path& parent) : bottom_(openDirectory(parent)) {
        for (std::size_t i = 0; i < kDepth; ++i) {
            EXPECT_EQ(::mkdirat(bottom_.get(), name.c_str(), 0700), 0);
            bottom_ = UniqueFd(::openat(bottom_.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        }
        const UniqueFd file(::openat(bottom_.get(), "file", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        EXPECT_TRUE(file);
    }
    ~DeepChain() {
        ::unlinkat(bottom_.get(), "file", 0);
        for (std::size_t i = 0; i < kDepth; ++i) {
            bottom_ = UniqueFd(::openat(bottom_.get(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
            ::unlinkat(bottom_.get(), name.c_str(), AT_REMOVEDIR);
        }
    }
    DeepChain(const DeepChain&) = delete;
    DeepChain& operator=(const DeepChain&) = delete;

private:
    UniqueFd bottom_;
};

TEST(TreeWalk, ATreeDeeperThanAnyPathTakesFewDescriptorsAndIsWalkedWhole) {
    const TemporaryDirectory directory;
    const DeepChain chain(directory.path());
    writeFile(directory.path() / chain.name / chain.name / "sibling", "");
    const std::size_t before = openDescriptors();
    std::size_t entries = 0;
    std::size_t most = 0;
    bool foundSibling = false;
    std::size_t longest = 0;
    {
        TreeWalk walk(openDirectory(directory.path()));
        while (const auto* const entry = walk.next()) {
            ++entries;
            most = std::max(most, openDescriptors());
            foundSibling = foundSibling || entry->name == "sibling";
            longest = std::max(longest, entry->path.size());
        }
    }
    EXPECT_EQ(entries, DeepChain::kDepth + 2);
    EXPECT_TRUE(foundSibling);
    EXPECT_EQ(longest, 101 * DeepChain::kDepth + 4);
    EXPECT_LE(most, before + TreeWalk::kOpenDirectories + 1);
    EXPECT_EQ(openDescriptors(), before);
}

TEST(TreeWalk, TellsThatADirectoryOnTheWayBackWasMovedAway) {
    const TemporaryDirectory directory;
    const TemporaryDirectory elsewhere;
    writeFile(directory / "top/middle/bottom/file", "");
    writeFile(elsewhere / "stranger", "");
    std::vector<std::string> paths;
    TreeWalk walk(openDirectory(directory.path()), 1);
    const auto walkAll = [&] {
        while (const auto* const entry = walk.next()) {
            paths.emplace_back(entry->path);
            if (entry->name == "file") fs::rename(directory / "top/middle", elsewhere / "middle");
        }
    };
    EXPECT_THROW(walkAll(), std::system_error);
    EXPECT_EQ(paths, (std::vector<std::string>{"top", "top/middle", "top/middle/bottom", "top/middle/bottom/file"}));
}

TEST(DirectoryReader, GoesOnWhereItWasAfterTheDirectoryWasClosed) {
    const TemporaryDirectory directory;
    for (int i = 0; i < 1500; ++i)
        writeFile(directory / ("a-rather-long-name-of-a-file-" + std::to_string(i)), "");
    const auto names = [&](std::optional<std::size_t> pauseAfter) {
        std::vector<std::string> found;
        std::error_code error;
        DirectoryReader reader(openDirectory(directory.path()));
        while (const auto* const entry = reader.next(error)) {
            found.emplace_back(entry->name);
            if (found.size() != pauseAfter) continue;
            reader.release();
            EXPECT_EQ(reader.descriptor(), -1);
            EXPECT_TRUE(reader.resume(openDirectory(directory.path())));
        }
        EXPECT_FALSE(error);
        return found;
    };
    const auto expected = names(std::nullopt);
    ASSERT_EQ(expected.size(), 1500U);
    for (const std::size_t pauseAfter : {1U, 2U, 500U, 1000U, 1499U, 1500U}) {
        EXPECT_EQ(names(pauseAfter), expected) << pauseAfter;
    }
}

TEST(DirectoryReader, TellsWhyItCannotRead) {
    std::error_code error;
    DirectoryReader reader(UniqueFd(::open("/proc/version", O_RDONLY | O_CLOEXEC)));
    EXPECT_EQ(reader.next(error), nullptr);
    EXPECT_EQ(error, std::errc::not_a_directory);
}

}  // namespace
}  // namespace qm
