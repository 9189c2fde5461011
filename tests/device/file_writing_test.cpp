#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <string>
#include <thread>

#include "filesystem_fixture.h"
#include "util/json.h"

namespace qm {
namespace {

namespace fs = std::filesystem;
using test::AsOrdinaryUser;
using test::readFile;
using test::writeFile;

constexpr std::size_t kLimit = 4194304;

class WriteFile : public test::FilesystemTest {
protected:
    json write(const char* path, std::string content, bool append = false) const {
        return call("write_file",
                    {{"workspace", id}, {"path", path}, {"content", std::move(content)}, {"append", append}});
    }
};

TEST_F(WriteFile, CreatesAFile) {
    fs::create_directory(root / "sub");
    EXPECT_EQ(write("sub\\new.txt", "a\nb"), json({{"path", "sub/new.txt"},
                                                   {"bytesWritten", 3},
                                                   {"appended", false},
                                                   {"linesAdded", 2},
                                                   {"linesRemoved", 0}}));
    EXPECT_EQ(readFile(root / "sub/new.txt"), "a\nb");
}

TEST_F(WriteFile, ReplacesWhatAFileHeldAndKeepsItsMode) {
    writeFile(root / "script", "#!/bin/sh\nold line\nexit 0\n");
    fs::permissions(root / "script", fs::perms{0751});
    const json result = write("script", "#!/bin/sh\nx\nexit 0\n");
    EXPECT_EQ(result["linesAdded"], 1);
    EXPECT_EQ(result["linesRemoved"], 1);
    EXPECT_EQ(readFile(root / "script"), "#!/bin/sh\nx\nexit 0\n");
    EXPECT_EQ(fs::status(root / "script").permissions(), fs::perms{0751});
}

TEST_F(WriteFile, OverwritingAFileWithItselfChangesNoLine) {
    writeFile(root / "file", "a\r\nb\nc");
    const json result = write("file", "a\r\nb\nc");
    EXPECT_EQ(result["linesAdded"], 0);
    EXPECT_EQ(result["linesRemoved"], 0);
    EXPECT_EQ(readFile(root / "file"), "a\r\nb\nc");
}

TEST_F(WriteFile, BytesGoThroughUnchanged) {
    const std::string content("\r\n\0\t\xC3\xA9\n\r", 8);
    EXPECT_EQ(write("file", content)["bytesWritten"], 8);
    EXPECT_EQ(readFile(root / "file"), content);
}

TEST_F(WriteFile, AppendsBehindWhatIsThere) {
    writeFile(root / "log", "one\ntwo");
    EXPECT_EQ(
        write("log", " and more\nthree\n", true),
        json({{"path", "log"}, {"bytesWritten", 16}, {"appended", true}, {"linesAdded", 1}, {"linesRemoved", 0}}));
    EXPECT_EQ(readFile(root / "log"), "one\ntwo and more\nthree\n");
    EXPECT_EQ(write("created", "x", true)["linesAdded"], 1);
    EXPECT_EQ(readFile(root / "created"), "x");
}

TEST_F(WriteFile, TakesFourMebibytesAndNotOneByteMore) {
    EXPECT_EQ(write("file", std::string(kLimit, 'x'))["bytesWritten"], kLimit);
    EXPECT_EQ(fs::file_size(root / "file"), kLimit);
    EXPECT_EQ(write("file", std::string(kLimit + 1, 'y'))["error"], "内容超过 4 MiB 上限");
    EXPECT_EQ(write("new", std::string(kLimit + 1, 'y'), true)["error"], "内容超过 4 MiB 上限");
    EXPECT_EQ(readFile(root / "file"), std::string(kLimit, 'x'));
    EXPECT_FALSE(fs::exists(root / "new"));
}

TEST_F(WriteFile, AnOldFileBeyondFourMebibytesCountsAsEmpty) {
    std::string old(kLimit, 'x');
    old[0] = '\n';
    writeFile(root / "limit", old);
    writeFile(root / "beyond", old + "x");
    EXPECT_EQ(write("limit", "a\n")["linesRemoved"], 2);
    const json result = write("beyond", "a\n");
    EXPECT_EQ(result["linesAdded"], 1);
    EXPECT_EQ(result["linesRemoved"], 0);
    writeFile(root / "beyond", old + "x");
    EXPECT_EQ(write("beyond", "a", true)["linesAdded"], 1);
}

TEST_F(WriteFile, ChecksComeInTheirOrder) {
    const std::string tooLong(kLimit + 1, 'x');
    registry.setPermission(id, WorkspacePermission::READ_ONLY);
    EXPECT_EQ(error("write_file", {{"workspace", "x"}, {"path", "../y"}, {"content", tooLong}}), "未知的 workspace：x");
    EXPECT_EQ(write("../y", tooLong)["error"],
              "工作区 Label 的权限档位是 READ_ONLY，此操作需要 READ_WRITE。请在 Executor 界面调整。");
    registry.setPermission(id, WorkspacePermission::READ_WRITE);
    EXPECT_EQ(write("../y", tooLong)["error"], "路径不允许包含 `..`。");
    EXPECT_EQ(write("no/such/y", tooLong)["error"], "上级目录不存在：no/such/y");
    fs::create_directory(root / "dir");
    EXPECT_EQ(write("dir", tooLong)["error"], "内容超过 4 MiB 上限");
    EXPECT_EQ(write("dir", "x")["error"], "无法写入文件");
}

TEST_F(WriteFile, WhatIsNoRegularFileCannotBeWrittenAndNeverBlocks) {
    fs::create_directory(root / "dir");
    ASSERT_EQ(::mkfifo((root / "pipe").c_str(), 0600), 0);
    writeFile(root / "file", "x");
    for (const auto* const path : {"dir", "pipe", "", "file/", "file/x"}) {
        for (const bool append : {false, true})
            EXPECT_EQ(write(path, "y", append)["error"], "无法写入文件") << path;
    }
    EXPECT_EQ(readFile(root / "file"), "x");
    const auto devices = registry.add("/dev", "", WorkspacePermission::FULL).workspace;
    ASSERT_TRUE(devices);
    EXPECT_EQ(error("write_file", {{"workspace", devices->id}, {"path", "null"}, {"content", "x"}}), "无法写入文件");
}

TEST_F(WriteFile, APipeWithAReaderIsNotWrittenToEither) {
    ASSERT_EQ(::mkfifo((root / "pipe").c_str(), 0600), 0);
    const UniqueFd reader(::open((root / "pipe").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    ASSERT_TRUE(reader);
    EXPECT_EQ(write("pipe", "x")["error"], "无法写入文件");
    char byte = 0;
    EXPECT_EQ(::read(reader.get(), &byte, 1), 0);
}

TEST_F(WriteFile, AFileThatMayNotBeWrittenKeepsItsContent) {
    writeFile(root / "file", "kept");
    fs::permissions(root / "file", fs::perms{0444});
    const AsOrdinaryUser user;
    EXPECT_EQ(write("file", "new")["error"], "无法写入文件");
    EXPECT_EQ(write("newInForeignDirectory", "new")["error"], "无法写入文件");
    EXPECT_EQ(readFile(root / "file"), "kept");
}

TEST_F(WriteFile, AFileThatMayBeWrittenButNotReadCountsAsEmpty) {
    writeFile(root / "file", "a\nb\n");
    fs::permissions(root / "file", fs::perms{0222});
    {
        const AsOrdinaryUser user;
        const json result = write("file", "x\n");
        EXPECT_EQ(result["linesAdded"], 1);
        EXPECT_EQ(result["linesRemoved"], 0);
    }
    EXPECT_EQ(readFile(root / "file"), "x\n");
}

TEST_F(WriteFile, AWriteThatStopsHalfWayIsAFailure) {
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    const rlimit small{1000, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    const json exact = write("exact", std::string(1000, 'x'));
    const json beyond = write("beyond", std::string(1001, 'x'));
    ::setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, handler);
    EXPECT_EQ(exact["bytesWritten"], 1000);
    EXPECT_EQ(beyond["error"], "写入失败");
}

TEST_F(WriteFile, GoesThroughLinksThatStayInside) {
    fs::create_directory(root / "real");
    writeFile(root / "real/file", "old");
    fs::create_symlink("real", root / "dir");
    fs::create_symlink("real/file", root / "link");
    fs::create_symlink("real/made", root / "dangling");
    EXPECT_EQ(write("link", "one")["path"], "real/file");
    EXPECT_EQ(readFile(root / "real/file"), "one");
    EXPECT_EQ(write("dir/file", "two")["path"], "real/file");
    EXPECT_EQ(readFile(root / "real/file"), "two");
    EXPECT_EQ(write("dangling", "three")["path"], "real/made");
    EXPECT_EQ(readFile(root / "real/made"), "three");
    EXPECT_TRUE(fs::is_symlink(root / "dangling"));
}

TEST_F(WriteFile, NeverGoesThroughALinkThatLeadsOut) {
    writeFile(outside / "secret", "kept");
    fs::create_symlink("../outside/secret", root / "link");
    fs::create_symlink("../outside/made", root / "dangling");
    fs::create_symlink(outside, root / "dir");
    for (const auto* const path : {"link", "dangling", "dir/made", "dir/secret"}) {
        EXPECT_EQ(write(path, "x")["error"], "路径逃逸出工作区，已拒绝。") << path;
    }
    EXPECT_EQ(readFile(outside / "secret"), "kept");
    EXPECT_FALSE(fs::exists(outside / "made"));
}

TEST_F(WriteFile, ARootThatIsGoneIsNotMadeAnew) {
    fs::remove(root);
    EXPECT_EQ(write("file", "x")["error"], "上级目录不存在：file");
    EXPECT_EQ(write("", "x")["error"], "无法写入文件");
    EXPECT_FALSE(fs::exists(root));
}

// The directory is exchanged for a link to the outside between any two steps of the handlers.
TEST_F(WriteFile, NoHandlerIsLedOutByALinkThatIsSwappedInMeanwhile) {
    writeFile(outside / "secret.txt", "secret");
    writeFile(outside / "onlyOutside", "");
    fs::create_directory(root / "dir");
    writeFile(root / "dir/secret.txt", "inside");
    fs::create_symlink("../outside", root / "other");
    std::atomic<bool> stop{false};
    std::jthread swapper([&] {
        while (!stop) {
            ::renameat2(AT_FDCWD, (root / "dir").c_str(), AT_FDCWD, (root / "other").c_str(), RENAME_EXCHANGE);
        }
    });
    int read = 0;
    for (int round = 0; round < 1500 || (read == 0 && round < 1000000); ++round) {
        const json content = call("read_file", {{"workspace", id}, {"path", "dir/secret.txt"}});
        if (!content.contains("error")) {
            ASSERT_EQ(content["content"], "inside");
            ++read;
        }
        write("dir/made", "x");
        write("dir/secret.txt", "inside");
        call("make_directory", {{"workspace", id}, {"path", "dir/sub"}});
        try {
            const json listed = call("list_directory", {{"workspace", id}, {"path", "dir"}});
            const json found = call("find_files", {{"workspace", id}, {"path", "dir"}, {"pattern", "onlyOutside"}});
            ASSERT_FALSE(found.contains("matches") && !found["matches"].empty());
        } catch (const std::system_error& refused) {
            ASSERT_TRUE(refused.code()) << refused.what();
        }
    }
    stop = true;
    swapper.join();
    EXPECT_GT(read, 0);
    EXPECT_EQ(readFile(outside / "secret.txt"), "secret");
    EXPECT_EQ(std::distance(fs::directory_iterator(outside), {}), 2);
}

}  // namespace
}  // namespace qm
