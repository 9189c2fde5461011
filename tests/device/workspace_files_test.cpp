#include "device/workspace_files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>

#include "workspace_fixture.h"

namespace qm {
namespace {

namespace fs = std::filesystem;
using test::AsOrdinaryUser;
using test::readFile;
using test::TemporaryDirectory;
using test::writeFile;

/// Everything here holds for both ways of looking paths up.
class RootDirectoryTest : public ::testing::TestWithParam<RootDirectory::LookUp> {
protected:
    void SetUp() override {
        fs::create_directory(root);
        fs::create_directory(outside);
        ASSERT_EQ(::chmod(directory.path().c_str(), 0755), 0);
    }

    RootDirectory open() const { return RootDirectory(root, GetParam()); }

    std::error_code openError(std::string_view path, int flags = O_RDONLY) const {
        std::error_code error;
        const UniqueFd fd = open().open(path, flags, error);
        EXPECT_EQ(static_cast<bool>(fd), !error) << path;
        return error;
    }

    static std::string content(const UniqueFd& fd) {
        std::array<char, 256> buffer{};
        const ssize_t count = ::read(fd.get(), buffer.data(), buffer.size());
        return {buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0))};
    }

    TemporaryDirectory directory;
    fs::path root = directory / "root";
    fs::path outside = directory / "outside";
};

INSTANTIATE_TEST_SUITE_P(EitherLookUp, RootDirectoryTest,
                         ::testing::Values(RootDirectory::LookUp::KernelFirst, RootDirectory::LookUp::ComponentWise),
                         [](const auto& instance) {
                             return instance.param == RootDirectory::LookUp::KernelFirst ? "Kernel" : "ComponentWise";
                         });

TEST_P(RootDirectoryTest, OpensFilesAndDirectoriesCloseOnExec) {
    writeFile(root / "a/b/file", "content");
    std::error_code error;
    const UniqueFd file = open().open("a/b/file", O_RDONLY, error);
    ASSERT_TRUE(file) << error.message();
    EXPECT_EQ(content(file), "content");
    EXPECT_EQ(::fcntl(file.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    for (const auto* const path : {"", "a", "a/b", "a/", "./a//b/."}) {
        EXPECT_FALSE(openError(path, O_RDONLY | O_DIRECTORY)) << path;
        EXPECT_FALSE(openError(path, O_PATH)) << path;
    }
}

TEST_P(RootDirectoryTest, CreatesFilesWithTheModeGiven) {
    const mode_t before = ::umask(0);
    std::error_code error;
    const UniqueFd file = open().open("new", O_WRONLY | O_CREAT | O_EXCL, error, 0640);
    ::umask(before);
    ASSERT_TRUE(file) << error.message();
    struct stat status {};
    ASSERT_EQ(::fstat(file.get(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0640U);
    EXPECT_EQ(openError("new", O_WRONLY | O_CREAT | O_EXCL), std::errc::file_exists);
}

TEST_P(RootDirectoryTest, TellsWhyAPathCannotBeOpened) {
    writeFile(root / "file", "");
    fs::create_directory(root / "dir");
    EXPECT_EQ(openError("none"), std::errc::no_such_file_or_directory);
    EXPECT_EQ(openError("none/x"), std::errc::no_such_file_or_directory);
    EXPECT_EQ(openError("file/x"), std::errc::not_a_directory);
    EXPECT_EQ(openError("file/"), std::errc::not_a_directory);
    EXPECT_EQ(openError("file", O_RDONLY | O_DIRECTORY), std::errc::not_a_directory);
    EXPECT_EQ(openError("dir", O_WRONLY), std::errc::is_a_directory);
    EXPECT_EQ(openError("new/", O_WRONLY | O_CREAT), std::errc::is_a_directory);
    EXPECT_FALSE(fs::exists(root / "new"));
    EXPECT_EQ(openError(std::string(256, 'n')), std::errc::filename_too_long);
    EXPECT_EQ(openError(std::string("file\0x", 6)), std::errc::invalid_argument);
}

TEST_P(RootDirectoryTest, APathThatSpeaksOfElsewhereIsRefused) {
    writeFile(root / "a/file", "");
    for (const auto* const path : {"..", "../outside", "a/../../outside", "/etc/passwd", "/"}) {
        EXPECT_EQ(openError(path, O_PATH), std::errc::cross_device_link) << path;
    }
}

TEST_P(RootDirectoryTest, NoLinkIsFollowedWhereverItLeads) {
    writeFile(outside / "secret", "secret");
    writeFile(root / "real/file", "");
    fs::create_symlink("../outside", root / "dirLink");
    fs::create_symlink("../outside/secret", root / "fileLink");
    fs::create_symlink("../outside/new", root / "dangling");
    fs::create_symlink("real", root / "inside");
    for (const auto* const path : {"dirLink/secret", "fileLink", "inside/file", "inside", "dirLink", "dangling"}) {
        for (const int flags : {O_RDONLY, O_PATH, O_WRONLY | O_CREAT | O_TRUNC}) {
            EXPECT_TRUE(openError(path, flags)) << path;
        }
    }
    EXPECT_EQ(openError("fileLink"), std::errc::too_many_symbolic_link_levels);
    EXPECT_EQ(openError("fileLink", O_PATH), std::errc::too_many_symbolic_link_levels);
    EXPECT_EQ(readFile(outside / "secret"), "secret");
    EXPECT_FALSE(fs::exists(outside / "new"));
}

TEST_P(RootDirectoryTest, ARootThatIsALinkOrMissingFailsEveryOperation) {
    fs::create_symlink("root", directory / "link");
    for (const auto* const name : {"link", "none"}) {
        const RootDirectory bad(directory / name, GetParam());
        std::error_code error;
        EXPECT_FALSE(bad.open("", O_PATH, error));
        EXPECT_TRUE(error) << name;
        EXPECT_FALSE(bad.status("", error));
        EXPECT_TRUE(error) << name;
        EXPECT_FALSE(bad.makeDirectories("x", error));
        EXPECT_TRUE(error) << name;
        struct stat status {};
        EXPECT_FALSE(bad.openRegularFile("x", O_WRONLY | O_CREAT, status, error));
        EXPECT_TRUE(error) << name;
    }
    EXPECT_TRUE(fs::is_empty(root));
}

TEST_P(RootDirectoryTest, TheRootDirectoryOfTheMachineIsARootLikeAnyOther) {
    const RootDirectory top("/", GetParam());
    std::error_code error;
    EXPECT_TRUE(top.open("", O_PATH, error));
    EXPECT_TRUE(top.open("proc/version", O_RDONLY, error)) << error.message();
}

TEST_P(RootDirectoryTest, RegularFilesAreOpenedWithTheirStatus) {
    writeFile(root / "file", "12345");
    struct stat status {};
    std::error_code error;
    EXPECT_TRUE(open().openRegularFile("file", O_RDONLY, status, error));
    EXPECT_FALSE(error);
    EXPECT_EQ(status.st_size, 5);
    EXPECT_FALSE(open().openRegularFile("none", O_RDONLY, status, error));
    EXPECT_EQ(error, std::errc::no_such_file_or_directory);
    EXPECT_TRUE(open().openRegularFile("none", O_WRONLY | O_CREAT, status, error));
    EXPECT_EQ(status.st_size, 0);
}

TEST_P(RootDirectoryTest, NothingButARegularFileIsOpenedAndNothingBlocks) {
    fs::create_directory(root / "dir");
    ASSERT_EQ(::mkfifo((root / "pipe").c_str(), 0666), 0);
    const UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", (root / "socket").c_str());
    ASSERT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    for (const auto* const path : {"dir", "pipe", "socket", ""}) {
        for (const int flags : {O_RDONLY, O_WRONLY | O_CREAT | O_TRUNC, O_WRONLY | O_CREAT | O_APPEND}) {
            struct stat status {};
            std::error_code error;
            EXPECT_FALSE(open().openRegularFile(path, flags, status, error)) << path;
            EXPECT_EQ(error, RootDirectory::kNotRegularFile) << path;
        }
    }
    const RootDirectory devices("/dev", GetParam());
    struct stat status {};
    std::error_code error;
    EXPECT_FALSE(devices.openRegularFile("null", O_WRONLY, status, error));
    EXPECT_EQ(error, RootDirectory::kNotRegularFile);
}

TEST_P(RootDirectoryTest, StatusNeedsNoPermissionOnTheFileItself) {
    writeFile(root / "file", "123");
    fs::permissions(root / "file", fs::perms::none);
    const AsOrdinaryUser user;
    std::error_code error;
    const auto status = open().status("file", error);
    ASSERT_TRUE(status) << error.message();
    EXPECT_EQ(status->st_size, 3);
    EXPECT_EQ(openError("file"), std::errc::permission_denied);
}

TEST_P(RootDirectoryTest, DirectoriesAreMadeWithTheirParents) {
    std::error_code error;
    EXPECT_TRUE(open().makeDirectories("a/b/c", error));
    EXPECT_FALSE(error) << error.message();
    EXPECT_TRUE(fs::is_directory(root / "a/b/c"));
    EXPECT_FALSE(open().makeDirectories("a/b/c", error));
    EXPECT_FALSE(error);
    EXPECT_TRUE(open().makeDirectories("a/b/d/", error));
    EXPECT_FALSE(error);
    EXPECT_FALSE(open().makeDirectories("", error));
    EXPECT_FALSE(error);
}

TEST_P(RootDirectoryTest, DirectoriesAreNotMadeThroughFilesLinksOrParents) {
    writeFile(root / "file", "");
    fs::create_symlink("../outside", root / "link");
    fs::create_symlink("../outside/new", root / "dangling");
    for (const auto* const path :
         {"file", "file/x", "link/x", "link", "dangling", "dangling/x", "../outside/x", "new/../../outside/x", "/x"}) {
        std::error_code error;
        open().makeDirectories(path, error);
        EXPECT_TRUE(error) << path;
    }
    EXPECT_TRUE(fs::is_empty(outside));
}

// One thread exchanges a directory of the workspace for a link that leads out, as fast as it can; the other works on
// paths through it. Nothing outside may be created, changed or read.
TEST_P(RootDirectoryTest, ALinkThatIsSwappedInMeanwhileNeverLeadsOut) {
    writeFile(outside / "file", "secret");
    fs::create_directory(root / "dir");
    writeFile(root / "dir/file", "inside");
    fs::create_symlink("../outside", root / "other");
    const RootDirectory opened = open();
    std::atomic<bool> stop{false};
    std::atomic<int> exchanges{0};
    std::jthread swapper([&] {
        while (!stop) {
            ASSERT_EQ(
                ::renameat2(AT_FDCWD, (root / "dir").c_str(), AT_FDCWD, (root / "other").c_str(), RENAME_EXCHANGE), 0);
            ++exchanges;
        }
    });

    int read = 0;
    for (int round = 0; round < 20000 || (read == 0 && round < 2000000); ++round) {
        std::error_code error;
        struct stat status {};
        if (const UniqueFd file = opened.openRegularFile("dir/file", O_RDWR, status, error)) {
            ASSERT_EQ(content(file), "inside");
            ++read;
        }
        const UniqueFd made = opened.openRegularFile("dir/made", O_WRONLY | O_CREAT | O_TRUNC, status, error);
        opened.makeDirectories("dir/sub/deep", error);
        opened.open("dir/made2", O_WRONLY | O_CREAT, error);
    }
    stop = true;
    swapper.join();

    EXPECT_GT(read, 0);
    EXPECT_GT(exchanges.load(), 0);
    EXPECT_EQ(readFile(outside / "file"), "secret");
    EXPECT_EQ(std::distance(fs::directory_iterator(outside), {}), 1);
}

class WithoutLinks : public ::testing::Test {
protected:
    bool opens(const std::string& name) {
        status = {};
        return static_cast<bool>(openRegularFileWithoutLinks(directory / name, status));
    }

    TemporaryDirectory directory;
    struct stat status {};
};

TEST_F(WithoutLinks, ARegularFileIsOpenedWithItsStatus) {
    writeFile(directory / "dir/file", "12345");
    EXPECT_TRUE(opens("dir/file"));
    EXPECT_EQ(status.st_size, 5);
}

TEST_F(WithoutLinks, NeitherALinkNorWhatLiesBehindOneIsOpened) {
    writeFile(directory / "dir/file", "");
    fs::create_symlink("dir", directory / "dirLink");
    fs::create_symlink("dir/file", directory / "fileLink");
    EXPECT_FALSE(opens("dirLink/file"));
    EXPECT_FALSE(opens("fileLink"));
}

TEST_F(WithoutLinks, NothingButARegularFileIsOpenedAndNothingBlocks) {
    fs::create_directory(directory / "dir");
    ASSERT_EQ(::mkfifo((directory / "pipe").c_str(), 0666), 0);
    EXPECT_FALSE(opens("dir"));
    EXPECT_FALSE(opens("pipe"));
    EXPECT_FALSE(opens("none"));
    EXPECT_FALSE(openRegularFileWithoutLinks("/dev/zero", status));
}

}  // namespace
}  // namespace qm
