#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <limits>
#include <string>

#include "filesystem_fixture.h"
#include "util/json.h"

namespace qm {
namespace {

namespace fs = std::filesystem;
using test::AsOrdinaryUser;
using test::writeFile;

class ReadFile : public test::FilesystemTest {
protected:
    json read(const char* path, json more = json::object()) const {
        more["workspace"] = id;
        more["path"] = path;
        return call("read_file", more);
    }
};

TEST_F(ReadFile, GivesTheWholeOfASmallFile) {
    writeFile(root / "sub/file.txt", "Grüße\n");
    EXPECT_EQ(read("sub/file.txt"), json({{"path", "sub/file.txt"},
                                          {"content", "Grüße\n"},
                                          {"sanitized", false},
                                          {"bytesRead", 8},
                                          {"totalBytes", 8},
                                          {"truncated", false},
                                          {"nextOffsetBytes", 8}}));
}

TEST_F(ReadFile, AnEmptyFileHasNoContent) {
    writeFile(root / "empty", "");
    const json result = read("empty");
    EXPECT_EQ(result["content"], "");
    EXPECT_EQ(result["bytesRead"], 0);
    EXPECT_EQ(result["totalBytes"], 0);
    EXPECT_EQ(result["truncated"], false);
}

TEST_F(ReadFile, MaxBytesZeroReadsNothingAndTellsThatThereIsMore) {
    writeFile(root / "file", "abc");
    for (const std::int64_t maxBytes : {std::int64_t{0}, std::int64_t{-1}, std::numeric_limits<std::int64_t>::min()}) {
        const json result = read("file", {{"maxBytes", maxBytes}});
        EXPECT_EQ(result["content"], "");
        EXPECT_EQ(result["bytesRead"], 0);
        EXPECT_EQ(result["truncated"], true);
        EXPECT_EQ(result["nextOffsetBytes"], 0);
    }
}

TEST_F(ReadFile, AnOffsetPastTheEndReadsNothing) {
    writeFile(root / "file", "abc");
    for (const std::int64_t offset :
         {std::int64_t{3}, std::int64_t{4}, std::int64_t{1} << 40, std::numeric_limits<std::int64_t>::max()}) {
        const json result = read("file", {{"offsetBytes", offset}});
        EXPECT_EQ(result["content"], "");
        EXPECT_EQ(result["bytesRead"], 0);
        EXPECT_EQ(result["totalBytes"], 3);
        EXPECT_EQ(result["truncated"], false);
        EXPECT_EQ(result["nextOffsetBytes"], offset);
    }
}

TEST_F(ReadFile, ANegativeOffsetIsTheBeginning) {
    writeFile(root / "file", "abc");
    EXPECT_EQ(read("file", {{"offsetBytes", -5}})["content"], "abc");
    EXPECT_EQ(read("file", {{"offsetBytes", -5}})["nextOffsetBytes"], 3);
}

TEST_F(ReadFile, PiecesFollowOneAnother) {
    writeFile(root / "file", "abcdef");
    const json first = read("file", {{"maxBytes", 4}});
    EXPECT_EQ(first["content"], "abcd");
    EXPECT_EQ(first["truncated"], true);
    EXPECT_EQ(first["nextOffsetBytes"], 4);
    const json second = read("file", {{"maxBytes", 4}, {"offsetBytes", first["nextOffsetBytes"]}});
    EXPECT_EQ(second["content"], "ef");
    EXPECT_EQ(second["truncated"], false);
    EXPECT_EQ(second["nextOffsetBytes"], 6);
}

TEST_F(ReadFile, OneCallGivesAtMost131072Bytes) {
    writeFile(root / "limit", std::string(131072, 'x'));
    EXPECT_EQ(read("limit")["bytesRead"], 131072);
    EXPECT_EQ(read("limit")["truncated"], false);
    writeFile(root / "beyond", std::string(131073, 'x'));
    for (const json& arguments :
         {json::object(), json{{"maxBytes", 131072}}, json{{"maxBytes", 131073}},
          json{{"maxBytes", std::numeric_limits<std::uint64_t>::max()}}, json{{"maxBytes", 1e300}}}) {
        const json result = read("beyond", arguments);
        EXPECT_EQ(result["bytesRead"], 131072) << arguments;
        EXPECT_EQ(result["content"].get_ref<const std::string&>().size(), 131072U);
        EXPECT_EQ(result["totalBytes"], 131073);
        EXPECT_EQ(result["truncated"], true);
    }
    EXPECT_EQ(read("beyond", {{"offsetBytes", 131072}})["content"], "x");
}

TEST_F(ReadFile, NumbersOfEveryKindAreTakenWithinTheirRange) {
    writeFile(root / "file", "abc");
    EXPECT_EQ(read("file", {{"maxBytes", 2.9}})["content"], "ab");
    EXPECT_EQ(read("file", {{"offsetBytes", 1.0}})["content"], "bc");
    EXPECT_EQ(read("file", {{"offsetBytes", -1e300}})["content"], "abc");
    EXPECT_EQ(read("file", {{"maxBytes", -1e300}})["content"], "");
    EXPECT_EQ(read("file", {{"offsetBytes", std::numeric_limits<double>::quiet_NaN()}})["content"], "abc");
    for (const json& offset :
         {json(1e300), json(9223372036854775808.0), json(std::numeric_limits<std::uint64_t>::max()),
          json(std::numeric_limits<double>::infinity())}) {
        const json result = read("file", {{"offsetBytes", offset}});
        EXPECT_EQ(result["bytesRead"], 0) << offset;
        EXPECT_EQ(result["nextOffsetBytes"], std::numeric_limits<std::int64_t>::max()) << offset;
    }
}

TEST_F(ReadFile, OffsetsBeyondThirtyTwoBitsAreReached) {
    writeFile(root / "large", "");
    const std::uint64_t size = (std::uint64_t{5} << 32) + 3;
    fs::resize_file(root / "large", size);
    const json result = read("large", {{"offsetBytes", size - 2}});
    EXPECT_EQ(result["bytesRead"], 2);
    EXPECT_EQ(result["totalBytes"], size);
    EXPECT_EQ(result["nextOffsetBytes"], size);
    EXPECT_EQ(result["truncated"], false);
}

TEST_F(ReadFile, ACharacterCutInTheMiddleIsReplacedAndPositionsStayThoseOfTheFile) {
    writeFile(root / "file", "a€b");
    const json first = read("file", {{"maxBytes", 3}});
    EXPECT_EQ(first["content"], "a\xEF\xBF\xBD\xEF\xBF\xBD");
    EXPECT_EQ(first["sanitized"], true);
    EXPECT_EQ(first["bytesRead"], 3);
    EXPECT_EQ(first["nextOffsetBytes"], 3);
    const json second = read("file", {{"offsetBytes", 3}});
    EXPECT_EQ(second["content"],
              "\xEF\xBF\xBD"
              "b");
    EXPECT_EQ(second["sanitized"], true);
    EXPECT_EQ(second["nextOffsetBytes"], 5);
}

TEST_F(ReadFile, BytesThatAreNotUtf8AreReplaced) {
    writeFile(root / "file", std::string("\xff\x00\xc0\x80ok", 6));
    const json result = read("file");
    EXPECT_EQ(result["content"], std::string("\xEF\xBF\xBD\0\xEF\xBF\xBD\xEF\xBF\xBDok", 12));
    EXPECT_EQ(result["sanitized"], true);
    EXPECT_EQ(result["bytesRead"], 6);
}

TEST_F(ReadFile, AFileThatClaimsToBeEmptyIsReadAllTheSame) {
    const auto machine = registry.add("/proc", "", WorkspacePermission::READ_ONLY).workspace;
    ASSERT_TRUE(machine);
    const json result = call("read_file", {{"workspace", machine->id}, {"path", "version"}});
    EXPECT_TRUE(result["content"].get<std::string>().starts_with("Linux")) << result;
    EXPECT_EQ(result["totalBytes"], 0);
    EXPECT_EQ(result["truncated"], false);
    EXPECT_EQ(result["nextOffsetBytes"], result["bytesRead"]);
    EXPECT_EQ(call("read_file", {{"workspace", machine->id},
                                 {"path", "version"},
                                 {"offsetBytes", std::numeric_limits<std::int64_t>::max()}})["bytesRead"],
              0);
}

TEST_F(ReadFile, WhatIsNoRegularFileIsRefusedAndNeverBlocks) {
    fs::create_directory(root / "dir");
    ASSERT_EQ(::mkfifo((root / "pipe").c_str(), 0600), 0);
    for (const auto* const path : {"dir", "pipe", ""})
        EXPECT_EQ(read(path)["error"], "不是普通文件") << path;
    const auto devices = registry.add("/dev", "", WorkspacePermission::READ_ONLY).workspace;
    ASSERT_TRUE(devices);
    for (const auto* const path : {"null", "zero"}) {
        EXPECT_EQ(error("read_file", {{"workspace", devices->id}, {"path", path}}), "不是普通文件") << path;
    }
}

TEST_F(ReadFile, AFileWithoutReadPermissionCannotBeOpened) {
    writeFile(root / "closed", "x");
    fs::permissions(root / "closed", fs::perms::none);
    const AsOrdinaryUser user;
    EXPECT_EQ(read("closed")["error"], "无法打开文件");
}

TEST_F(ReadFile, FollowsLinksThatStayInside) {
    writeFile(root / "real/file", "content");
    fs::create_symlink("real", root / "link");
    const json result = read("link/file");
    EXPECT_EQ(result["content"], "content");
    EXPECT_EQ(result["path"], "real/file");
}

}  // namespace
}  // namespace qm
