// The file capabilities where the kernel is older, the disk fails or someone else is at work in the same directories.

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>

#include "device/refused_system_calls.h"
#include "filesystem_fixture.h"
#include "util/json.h"

namespace qm {
namespace {

namespace fs = std::filesystem;
using test::readFile;
using test::withRefusedCalls;
using test::writeFile;

class FileFaults : public test::FilesystemTest {
protected:
    json at(const char* name, const char* path, json more = json::object()) const {
        more["workspace"] = id;
        more["path"] = path;
        return call(name, more);
    }

    /// What the call throws, empty if nothing.
    std::string thrown(const char* name, const char* path, json more = json::object()) const {
        try {
            at(name, path, std::move(more));
        } catch (const std::exception& exception) {
            return exception.what();
        }
        return {};
    }
};

TEST_F(FileFaults, AKernelThatLacksOrForbidsOpenat2GivesTheSameAnswers) {
    writeFile(outside / "secret", "secret");
    writeFile(root / "dir/file", "content");
    fs::create_symlink("dir", root / "inside");
    fs::create_symlink("../outside", root / "link");
    fs::create_symlink("../outside/made", root / "dangling");
    for (const int refusal : {ENOSYS, EPERM}) {
        fs::remove(root / "dir/new");
        fs::remove_all(root / "made");
        withRefusedCalls({{SYS_openat2, refusal}}, [&] {
            EXPECT_EQ(at("read_file", "dir/file")["content"], "content");
            EXPECT_EQ(at("read_file", "inside/file")["path"], "dir/file");
            EXPECT_EQ(at("read_file", "none")["error"], "路径不存在：none");
            EXPECT_EQ(at("read_file", "dir")["error"], "不是普通文件");
            EXPECT_EQ(at("read_file", "link/secret")["error"], "路径逃逸出工作区，已拒绝。");
            EXPECT_EQ(at("write_file", "dangling", {{"content", "x"}})["error"], "路径逃逸出工作区，已拒绝。");
            EXPECT_EQ(at("write_file", "dir/new", {{"content", "x"}})["bytesWritten"], 1);
            EXPECT_EQ(at("make_directory", "made/deep")["created"], true);
            EXPECT_EQ(at("make_directory", "dir/file/x")["error"], "创建目录失败");
            EXPECT_EQ(at("list_directory", "dir")["entries"].size(), 2U);
            EXPECT_EQ(at("list_directory", "dir/file")["error"], "不是目录");
            EXPECT_EQ(at("find_files", "", {{"pattern", "fi*"}})["matches"], json::array({"dir/file"}));
            EXPECT_EQ(at("stat_path", "inside")["isSymlink"], true);
        });
        EXPECT_TRUE(fs::is_directory(root / "made/deep"));
        EXPECT_EQ(readFile(root / "dir/new"), "x");
    }
    EXPECT_EQ(std::distance(fs::directory_iterator(outside), {}), 1);
}

TEST_F(FileFaults, ADiskThatCannotBeReadIsAFailureAndNoEmptyFile) {
    writeFile(root / "file", "content");
    withRefusedCalls({{SYS_pread64, EIO}, {SYS_getdents64, EIO}}, [&] {
        EXPECT_EQ(thrown("read_file", "file"), "cannot read the file: Input/output error");
        EXPECT_EQ(thrown("list_directory", ""), "cannot read the directory: Input/output error");
    });
}

TEST_F(FileFaults, ASearchThatCannotReadADirectoryFailsRatherThanLeavesItOut) {
    writeFile(root / "dir/file", "content");
    const auto searched = [&](test::RefusedCall refused) {
        std::string failure;
        withRefusedCalls({refused}, [&] { failure = thrown("find_files", "", {{"pattern", "file"}}); });
        return failure;
    };
    EXPECT_EQ(searched({SYS_getdents64, EIO}), "cannot read a directory of the workspace: Input/output error");
    EXPECT_EQ(searched({SYS_openat, EMFILE}), "cannot read a directory of the workspace: Too many open files");
}

TEST_F(FileFaults, ASearchAsksForNoMoreThanTheNamesTell) {
    writeFile(root / "dir/file", "content");
    withRefusedCalls({{SYS_newfstatat, EIO}}, [&] {
        EXPECT_EQ(at("find_files", "", {{"pattern", "fi*"}})["matches"], json::array({"dir/file"}));
    });
}

TEST_F(FileFaults, AnEntryWhoseSizeCannotBeToldIsListedWithoutIt) {
    writeFile(root / "file", "content");
    withRefusedCalls({{SYS_newfstatat, EIO}}, [&] {
        EXPECT_EQ(at("list_directory", "")["entries"], json::parse(R"([{"name": "file", "type": "file"}])"));
    });
}

TEST_F(FileFaults, AFullDiskIsAFailedWriteWheneverItIsNoticed) {
    for (const auto& refused : {test::RefusedCall{SYS_write, ENOSPC}, test::RefusedCall{SYS_close, EDQUOT}}) {
        json result;
        withRefusedCalls({refused}, [&] { result = at("write_file", "file", {{"content", "x"}}); });
        EXPECT_EQ(result["error"], "写入失败") << refused.number;
    }
}

TEST_F(FileFaults, ADirectoryThatCannotBeMadeIsAFailure) {
    withRefusedCalls({{SYS_mkdirat, EROFS}}, [&] { EXPECT_EQ(at("make_directory", "new")["error"], "创建目录失败"); });
    EXPECT_FALSE(fs::exists(root / "new"));
}

TEST_F(FileFaults, EntriesThatComeAndGoMeanwhileDisturbNoWalk) {
    writeFile(root / "dir/stays.txt", "x");
    std::atomic<bool> stop{false};
    std::atomic<int> rounds{0};
    std::jthread coming([&] {
        while (!stop) {
            fs::create_directories(root / "dir/going/deeper");
            writeFile(root / "dir/going/deeper/file.txt", "");
            writeFile(root / "dir/going.txt", "");
            fs::remove(root / "dir/going.txt");
            fs::remove_all(root / "dir/going");
            ++rounds;
        }
    });
    for (int round = 0; round < 200 || (rounds == 0 && round < 1000000); ++round) {
        bool stays = false;
        const json listed = at("list_directory", "dir");
        for (const auto& entry : listed["entries"]) {
            ASSERT_EQ(entry["type"] == "file", entry.contains("sizeBytes"));
            stays = stays || entry["name"] == "stays.txt";
        }
        ASSERT_TRUE(stays);
        const json found = at("find_files", "", {{"pattern", "stays*"}});
        ASSERT_EQ(found["matches"], json::array({"dir/stays.txt"}));
    }
    stop = true;
    coming.join();
    EXPECT_GT(rounds.load(), 0);
}

}  // namespace
}  // namespace qm
