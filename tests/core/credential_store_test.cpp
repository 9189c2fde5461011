#include "core/credential_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <random>
#include <string>

#include "support/file_size_limit.h"
#include "support/ordinary_user.h"
#include "support/temporary_directory.h"

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

std::optional<std::string> reversed(std::string_view bytes) {
    return std::string(bytes.rbegin(), bytes.rend());
}

std::optional<std::string> nothing(std::string_view) {
    return std::nullopt;
}

class CredentialStoreTest : public testing::Test {
protected:
    const TemporaryDirectory directory_;
    const std::filesystem::path file_ = directory_ / "executor-credential";
    const CredentialStore store_{file_};
};

TEST_F(CredentialStoreTest, ATokenIsKeptAsOneLineOfBase64) {
    EXPECT_TRUE(store_.store("qmx_secret-token"));

    EXPECT_EQ(readFile(file_), "cW14X3NlY3JldC10b2tlbg==");
    EXPECT_EQ(store_.load(), "qmx_secret-token");
}

TEST_F(CredentialStoreTest, TheFileIsForItsOwnerAlone) {
    const mode_t before = ::umask(0);

    EXPECT_TRUE(store_.store("token"));

    ::umask(before);
    EXPECT_EQ(modeOf(file_), 0600U);
}

TEST_F(CredentialStoreTest, AnOpenFileIsClosedToOthersWhenTheTokenIsStored) {
    writeFile(file_, "b2xk");
    ASSERT_EQ(::chmod(file_.c_str(), 0666), 0);

    EXPECT_TRUE(store_.store("token"));

    EXPECT_EQ(modeOf(file_), 0600U);
    EXPECT_EQ(store_.load(), "token");
}

TEST_F(CredentialStoreTest, AShorterTokenReplacesALongerOne) {
    EXPECT_TRUE(store_.store("a long token of many characters"));
    EXPECT_TRUE(store_.store("short"));

    EXPECT_EQ(store_.load(), "short");
}

TEST_F(CredentialStoreTest, AnyTokenComesBack) {
    std::mt19937 engine(10);
    for (std::size_t size = 1; size < 100; ++size) {
        std::string token(size, '\0');
        for (char& byte : token)
            byte = static_cast<char>(engine());
        token.front() = 'a';
        token.back() = 'z';
        ASSERT_TRUE(store_.store(token));
        ASSERT_EQ(store_.load(), token);
    }
}

TEST_F(CredentialStoreTest, WhitespaceAroundTheTokenIsDroppedWhenItIsStored) {
    EXPECT_TRUE(store_.store(" \t\r\n\ftok en\f\n\r\t "));

    EXPECT_EQ(readFile(file_), "dG9rIGVu");
    EXPECT_EQ(store_.load(), "tok en");
}

TEST_F(CredentialStoreTest, StoringNothingDeletesTheFile) {
    for (const std::string empty : {"", " \t\r\n\f"}) {
        ASSERT_TRUE(store_.store("token"));

        EXPECT_TRUE(store_.store(empty));

        EXPECT_FALSE(std::filesystem::exists(file_));
        EXPECT_EQ(store_.load(), std::nullopt);
    }
}

TEST_F(CredentialStoreTest, StoringNothingWhereThereIsNothingIsFine) {
    const CredentialStore elsewhere(directory_ / "missing" / "executor-credential");

    EXPECT_TRUE(store_.store(""));
    EXPECT_TRUE(elsewhere.store(""));
    EXPECT_FALSE(std::filesystem::exists(directory_ / "missing"));
}

TEST_F(CredentialStoreTest, TheDirectoryIsCreated) {
    const CredentialStore deep(directory_ / "a" / "b" / "executor-credential");

    EXPECT_TRUE(deep.store("token"));

    EXPECT_EQ(deep.load(), "token");
}

TEST_F(CredentialStoreTest, AFileThatCannotBeWrittenIsNamed) {
    writeFile(directory_ / "file", "");
    const CredentialStore below(directory_ / "file" / "executor-credential");
    std::string error;

    EXPECT_FALSE(below.store("token", &error));

    EXPECT_EQ(error, "unable to write " + (directory_ / "file" / "executor-credential").string());
}

TEST_F(CredentialStoreTest, AFullDiskIsAFailure) {
    std::filesystem::create_symlink("/dev/full", file_);
    std::string error;

    EXPECT_FALSE(store_.store("token", &error));

    EXPECT_EQ(error, "unable to write " + file_.string());
}

TEST_F(CredentialStoreTest, AFullDiskLeavesTheOldToken) {
    const std::string old = "the token that was there";
    ASSERT_TRUE(store_.store(old));
    // One that is longer, and one that is shorter and can't be written either.
    for (const auto& [token, bytes] : {std::pair{std::string(1000, 't'), 100}, {std::string("token"), 4}}) {
        std::string error;
        const test::FileSizeLimit limit(static_cast<std::size_t>(bytes));

        EXPECT_FALSE(store_.store(token, &error));

        EXPECT_EQ(error, "unable to write " + file_.string());
        EXPECT_EQ(store_.load(), old);
    }
}

TEST_F(CredentialStoreTest, AFileThatCannotBeDeletedIsAFailure) {
    ASSERT_TRUE(store_.store("token"));
    ASSERT_EQ(::chmod(directory_.path().c_str(), 0555), 0);
    std::string error;
    bool stored = true;
    {
        const test::OrdinaryUser user(directory_.path());
        stored = store_.store("", &error);
    }
    ASSERT_EQ(::chmod(directory_.path().c_str(), 0755), 0);

    EXPECT_FALSE(stored);
    EXPECT_EQ(error, "unable to write " + file_.string());
    EXPECT_EQ(store_.load(), "token");
}

TEST_F(CredentialStoreTest, AFailureNeedsNobodyToHearOfIt) {
    const CredentialStore unprotectable(file_, nothing);

    EXPECT_FALSE(unprotectable.store("token"));
    EXPECT_FALSE(CredentialStore(directory_.path()).store("token", nullptr));
}

TEST_F(CredentialStoreTest, WhatCannotBeProtectedIsNotWritten) {
    ASSERT_TRUE(store_.store("old"));
    const CredentialStore unprotectable(file_, nothing);
    std::string error;

    EXPECT_FALSE(unprotectable.store("token", &error));

    EXPECT_EQ(error, "credential protect failed");
    EXPECT_EQ(store_.load(), "old");
}

TEST_F(CredentialStoreTest, TheFileHoldsTheProtectedBytes) {
    const CredentialStore protecting(file_, reversed, reversed);

    EXPECT_TRUE(protecting.store(" token "));

    EXPECT_EQ(readFile(file_), "bmVrb3Q=");
    EXPECT_EQ(protecting.load(), "token");
    EXPECT_EQ(store_.load(), "nekot");
}

TEST_F(CredentialStoreTest, WhatCannotBeUnprotectedIsNoCredential) {
    ASSERT_TRUE(store_.store("token"));

    EXPECT_EQ(CredentialStore(file_, copyBytes, nothing).load(), std::nullopt);
}

TEST_F(CredentialStoreTest, AMissingFileIsNoCredential) {
    EXPECT_EQ(store_.load(), std::nullopt);
}

TEST_F(CredentialStoreTest, WhatIsNoRegularFileIsNoCredential) {
    EXPECT_EQ(CredentialStore(directory_.path()).load(), std::nullopt);
    ASSERT_EQ(::mkfifo(file_.c_str(), 0600), 0);
    EXPECT_EQ(store_.load(), std::nullopt);
}

TEST_F(CredentialStoreTest, AnUnreadableFileIsNoCredential) {
    ASSERT_TRUE(store_.store("token"));
    ASSERT_EQ(::chmod(file_.c_str(), 0), 0);
    const test::OrdinaryUser user(directory_.path());

    EXPECT_EQ(store_.load(), std::nullopt);
}

TEST_F(CredentialStoreTest, ForeignCharactersMakeItNoCredential) {
    for (const std::string text : {"dG9r!ZW4=", "dG9r\tZW4=", "dG9r-W4_", "\xFF", "{\"token\":1}"}) {
        writeFile(file_, text);
        EXPECT_EQ(store_.load(), std::nullopt) << text;
    }
}

TEST_F(CredentialStoreTest, WhitespaceAndPaddingInTheFileAreSkipped) {
    writeFile(file_, "\t\f\r\n dG9r\r\n ZW==4= \n\f\t");

    EXPECT_EQ(store_.load(), "token");
}

TEST_F(CredentialStoreTest, WhitespaceAroundTheDecodedTokenIsDropped) {
    writeFile(file_, "IHRva2VuCg==");

    EXPECT_EQ(store_.load(), "token");
}

TEST_F(CredentialStoreTest, AnEmptyTokenIsNoCredential) {
    for (const std::string text : {"", "\n", "====", "IAoJ"}) {
        writeFile(file_, text);
        EXPECT_EQ(store_.load(), std::nullopt) << text;
    }
}

}  // namespace
}  // namespace qm
