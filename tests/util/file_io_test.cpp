#include "util/file_io.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>

#include "support/file_size_limit.h"
#include "support/ordinary_user.h"
#include "support/temporary_directory.h"
#include "util/unique_fd.h"

namespace qm {
namespace {

using test::readFile;
using test::TemporaryDirectory;
using test::writeFile;

mode_t modeOf(const std::filesystem::path& file) {
    struct stat status {};
    EXPECT_EQ(::stat(file.c_str(), &status), 0) << file;
    return status.st_mode & 07777;
}

/// Sets the process's umask while it lives.
class Umask {
public:
    explicit Umask(mode_t mask) : before_(::umask(mask)) {}
    ~Umask() { ::umask(before_); }
    Umask(const Umask&) = delete;
    Umask& operator=(const Umask&) = delete;

private:
    mode_t before_;
};

TEST(ReadRegularFile, GivesTheWholeContent) {
    const TemporaryDirectory directory;
    for (const std::size_t size : {0U, 1U, 16383U, 16384U, 16385U, 1000000U}) {
        const std::string content(size, 'x');
        writeFile(directory / "file", content);
        ASSERT_EQ(readRegularFile(directory / "file"), content) << size;
    }
}

TEST(ReadRegularFile, KeepsEveryByte) {
    const TemporaryDirectory directory;
    std::string content;
    for (int value = 0; value < 256; ++value)
        content += static_cast<char>(value);
    writeFile(directory / "file", content);

    EXPECT_EQ(readRegularFile(directory / "file"), content);
}

TEST(ReadRegularFile, ReadsAFileWhoseSizeTheKernelDoesNotSay) {
    EXPECT_NE(readRegularFile("/proc/self/status").value_or("").find("VmRSS"), std::string::npos);
}

TEST(ReadRegularFile, FollowsLinks) {
    const TemporaryDirectory directory;
    writeFile(directory / "file", "content");
    std::filesystem::create_symlink("file", directory / "link");

    EXPECT_EQ(readRegularFile(directory / "link"), "content");
}

TEST(ReadRegularFile, GivesNothingForWhatIsNoRegularFile) {
    const TemporaryDirectory directory;
    ASSERT_EQ(::mkfifo((directory / "pipe").c_str(), 0600), 0);
    std::filesystem::create_symlink("nowhere", directory / "dangling");

    EXPECT_EQ(readRegularFile(directory / "missing"), std::nullopt);
    EXPECT_EQ(readRegularFile(directory / "dangling"), std::nullopt);
    EXPECT_EQ(readRegularFile(directory.path()), std::nullopt);
    EXPECT_EQ(readRegularFile(directory / "pipe"), std::nullopt);
    EXPECT_EQ(readRegularFile("/dev/zero"), std::nullopt);
}

TEST(ReadRegularFile, GivesNothingForWhatMayNotBeRead) {
    const TemporaryDirectory directory;
    writeFile(directory / "file", "secret");
    std::filesystem::permissions(directory / "file", std::filesystem::perms::none);
    const test::OrdinaryUser user(directory.path());

    EXPECT_EQ(readRegularFile(directory / "file"), std::nullopt);
}

TEST(WriteRegularFile, CreatesAFileWithTheModeThatTheUmaskLeaves) {
    const TemporaryDirectory directory;
    const Umask mask(027);

    EXPECT_TRUE(writeRegularFile(directory / "file", "content"));

    EXPECT_EQ(readFile(directory / "file"), "content");
    EXPECT_EQ(modeOf(directory / "file"), 0640U);
}

TEST(WriteRegularFile, ReplacesWhatTheFileHeldAndKeepsItsMode) {
    const TemporaryDirectory directory;
    writeFile(directory / "file", "something longer");
    ASSERT_EQ(::chmod((directory / "file").c_str(), 0604), 0);

    EXPECT_TRUE(writeRegularFile(directory / "file", "short"));

    EXPECT_EQ(readFile(directory / "file"), "short");
    EXPECT_EQ(modeOf(directory / "file"), 0604U);
}

TEST(WriteRegularFile, AFileWithAModeHasItWhateverTheUmask) {
    const TemporaryDirectory directory;
    for (const mode_t mask : {0U, 022U, 0277U}) {
        const Umask umask(mask);
        const auto file = directory / ("file" + std::to_string(mask));

        EXPECT_TRUE(writeRegularFile(file, "secret", 0600));

        EXPECT_EQ(readFile(file), "secret");
        EXPECT_EQ(modeOf(file), 0600U);
    }
}

TEST(WriteRegularFile, AnExistingFileGetsTheModeToo) {
    const TemporaryDirectory directory;
    writeFile(directory / "file", "old");
    ASSERT_EQ(::chmod((directory / "file").c_str(), 0666), 0);

    EXPECT_TRUE(writeRegularFile(directory / "file", "secret", 0600));

    EXPECT_EQ(readFile(directory / "file"), "secret");
    EXPECT_EQ(modeOf(directory / "file"), 0600U);
}

TEST(WriteRegularFile, FailsWhereNoRegularFileCanBe) {
    const TemporaryDirectory directory;
    ASSERT_EQ(::mkfifo((directory / "pipe").c_str(), 0600), 0);
    std::filesystem::create_symlink("/dev/full", directory / "full");

    EXPECT_FALSE(writeRegularFile(directory / "missing" / "file", "content"));
    EXPECT_FALSE(writeRegularFile(directory.path(), "content"));
    EXPECT_FALSE(writeRegularFile(directory / "pipe", "content"));
    EXPECT_FALSE(writeRegularFile(directory / "full", "content"));
    EXPECT_FALSE(writeRegularFile(directory / "full", "content", 0600));
}

TEST(WriteRegularFile, NeverWritesIntoAPipeThatSomeoneReads) {
    const TemporaryDirectory directory;
    ASSERT_EQ(::mkfifo((directory / "pipe").c_str(), 0600), 0);
    const UniqueFd reader(::open((directory / "pipe").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    ASSERT_TRUE(reader);

    EXPECT_FALSE(writeRegularFile(directory / "pipe", "secret", 0600));

    char byte = 0;
    EXPECT_EQ(::read(reader.get(), &byte, 1), 0);
}

TEST(WriteRegularFile, FailsForWhatMayNotBeWrittenAndLeavesIt) {
    const TemporaryDirectory directory;
    writeFile(directory / "file", "old");
    ASSERT_EQ(::chmod((directory / "file").c_str(), 0444), 0);
    const test::OrdinaryUser user(directory.path());

    EXPECT_FALSE(writeRegularFile(directory / "file", "new"));

    EXPECT_EQ(readFile(directory / "file"), "old");
}

TEST(WriteRegularFile, AFailureLeavesTheOldContentWhateverTheSizes) {
    const TemporaryDirectory directory;
    const auto file = directory / "file";
    const std::string large(20000, 'l');
    const std::string small(5000, 's');
    for (const auto& [before, content] :
         {std::pair{small, large}, {large, small}, {std::string(), small}, {small, small + "s"}}) {
        writeFile(file, before);
        // At most this many bytes fit: the end fails to be written, or an overwriting stops in the middle.
        for (const std::size_t limit : {std::size_t{0}, content.size() / 2, content.size() - 1}) {
            const test::FileSizeLimit noLonger(limit);

            EXPECT_FALSE(writeRegularFile(file, content));

            EXPECT_EQ(errno, EFBIG);
            EXPECT_EQ(readFile(file), before) << before.size() << " to " << content.size() << ", limit " << limit;
        }
        const test::FileSizeLimit justEnough(content.size());
        EXPECT_TRUE(writeRegularFile(file, content));
        EXPECT_EQ(readFile(file), content);
    }
}

TEST(WriteRegularFile, ANewFileThatCantBeWrittenStaysEmpty) {
    const TemporaryDirectory directory;
    const test::FileSizeLimit limit(3);

    EXPECT_FALSE(writeRegularFile(directory / "file", "secret", 0600));

    EXPECT_EQ(readFile(directory / "file"), "");
}

}  // namespace
}  // namespace qm
