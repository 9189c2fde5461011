#include "core/settings_store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <string>

#include "device/refused_system_calls.h"
#include "support/file_size_limit.h"
#include "support/ordinary_user.h"
#include "support/temporary_directory.h"

namespace qm {
namespace {

using test::readFile;
using test::TemporaryDirectory;
using test::writeFile;
using testing::HasSubstr;
using testing::Not;

constexpr char kHeading[] = "# quillmarsh Executor local settings (credential stored separately)\n";

class SettingsStoreTest : public testing::Test {
protected:
    Settings loadedFrom(std::string_view properties) {
        writeFile(properties_, properties);
        return store_.load();
    }

    Settings savedAndLoaded(const Settings& settings) {
        EXPECT_TRUE(store_.save(settings));
        return SettingsStore(directory_.path()).load();
    }

    const TemporaryDirectory directory_;
    const std::filesystem::path properties_ = directory_ / "executor.properties";
    const std::filesystem::path credential_ = directory_ / "executor-credential";
    const std::filesystem::path instanceId_ = directory_ / "instance-id";
    const SettingsStore store_{directory_.path()};
};

Settings unusualSettings() {
    Settings settings;
    settings.gatewayUrl = "https://gateway.example:8443/base";
    settings.mode = "HEAVY";
    settings.name = "Ünï box";
    settings.description = "  two spaces = and # signs: \\ \t 文件 \U0001F600 ";
    settings.executorToken = "token-of-the-account";
    settings.autoUpdate = false;
    settings.connection = "GATEWAY";
    settings.authMode = "ACCOUNT";
    settings.accountEmail = "user+tag@mail.example";
    return settings;
}

TEST_F(SettingsStoreTest, KnowsItsDirectory) {
    EXPECT_EQ(store_.dataDirectory(), directory_.path());
}

TEST_F(SettingsStoreTest, AnEmptyDirectoryGivesTheDefaults) {
    const Settings settings = store_.load();

    EXPECT_EQ(settings.gatewayUrl, "http://127.0.0.1:9090");
    EXPECT_EQ(settings.mode, "LIGHT");
    EXPECT_NE(settings.name, "");
    EXPECT_EQ(settings.description, "Quillmarsh native executor");
    EXPECT_EQ(settings.executorToken, "");
    EXPECT_TRUE(settings.autoUpdate);
    EXPECT_EQ(settings.connection, "GATEWAY");
    EXPECT_EQ(settings.authMode, "MANUAL");
    EXPECT_EQ(settings.accountEmail, "");
}

TEST_F(SettingsStoreTest, LoadingWritesNothingButTheIdentity) {
    store_.load();

    EXPECT_FALSE(std::filesystem::exists(properties_));
    EXPECT_FALSE(std::filesystem::exists(credential_));
    EXPECT_TRUE(std::filesystem::exists(instanceId_));
}

TEST_F(SettingsStoreTest, EveryFieldIsReadFromTheFile) {
    const Settings settings = loadedFrom(
        "gatewayUrl=https://g.example\nmode=HEAVY\nname=n\ndescription=d\nconnection=STANDALONE\n"
        "authMode=ACCOUNT\naccountEmail=a@b\nautoUpdate=false\n");

    EXPECT_EQ(settings.gatewayUrl, "https://g.example");
    EXPECT_EQ(settings.mode, "HEAVY");
    EXPECT_EQ(settings.name, "n");
    EXPECT_EQ(settings.description, "d");
    EXPECT_EQ(settings.connection, "STANDALONE");
    EXPECT_EQ(settings.authMode, "ACCOUNT");
    EXPECT_EQ(settings.accountEmail, "a@b");
    EXPECT_FALSE(settings.autoUpdate);
}

TEST_F(SettingsStoreTest, AnEmptyValueLeavesTheDefault) {
    const Settings settings =
        loadedFrom("gatewayUrl=\nmode=\nname=\ndescription=\nconnection=\nauthMode=\naccountEmail=\nautoUpdate=\n");

    EXPECT_EQ(settings.gatewayUrl, "http://127.0.0.1:9090");
    EXPECT_EQ(settings.mode, "LIGHT");
    EXPECT_NE(settings.name, "");
    EXPECT_EQ(settings.description, "Quillmarsh native executor");
    EXPECT_EQ(settings.connection, "GATEWAY");
    EXPECT_EQ(settings.authMode, "MANUAL");
    EXPECT_EQ(settings.accountEmail, "");
    EXPECT_TRUE(settings.autoUpdate);
}

TEST_F(SettingsStoreTest, TheGatewayUrlLosesItsTrailingSlashes) {
    EXPECT_EQ(loadedFrom("gatewayUrl=https://g.example/base//\n").gatewayUrl, "https://g.example/base");
}

TEST_F(SettingsStoreTest, TheModeIsReadInAnyCaseAndSavedCanonically) {
    EXPECT_EQ(loadedFrom("mode=foo\n").mode, "LIGHT");
    Settings settings = loadedFrom("mode=heavy\n");
    EXPECT_EQ(settings.mode, "HEAVY");

    settings.mode = "heavy";
    EXPECT_TRUE(store_.save(settings));

    EXPECT_THAT(readFile(properties_), HasSubstr("\nmode=HEAVY\n"));
}

TEST_F(SettingsStoreTest, TheConnectionIsReadInAnyCaseAndSavedCanonically) {
    EXPECT_EQ(loadedFrom("connection=foo\n").connection, "GATEWAY");
    Settings settings = loadedFrom("connection=standalone\n");
    EXPECT_EQ(settings.connection, "STANDALONE");

    settings.connection = "Standalone";
    EXPECT_TRUE(store_.save(settings));

    EXPECT_THAT(readFile(properties_), HasSubstr("\nconnection=STANDALONE\n"));
}

TEST_F(SettingsStoreTest, TheAuthModeIsReadInAnyCase) {
    EXPECT_EQ(loadedFrom("authMode=account\n").authMode, "ACCOUNT");
    EXPECT_EQ(loadedFrom("authMode=foo\n").authMode, "MANUAL");
}

TEST_F(SettingsStoreTest, AutoUpdateIsFalseForThatWordOnly) {
    EXPECT_FALSE(loadedFrom("autoUpdate=false\n").autoUpdate);
    EXPECT_FALSE(loadedFrom("autoUpdate=FALSE\n").autoUpdate);
    EXPECT_TRUE(loadedFrom("autoUpdate=no\n").autoUpdate);
    EXPECT_TRUE(loadedFrom("autoUpdate=0\n").autoUpdate);
    EXPECT_TRUE(loadedFrom("autoUpdate=true\n").autoUpdate);
}

TEST_F(SettingsStoreTest, TheFileHasOneLineAFieldInAFixedOrder) {
    Settings settings = unusualSettings();
    settings.nodeId = "not-here";

    EXPECT_TRUE(store_.save(settings));

    EXPECT_EQ(readFile(properties_), std::string(kHeading) +
                                         "gatewayUrl=https\\://gateway.example\\:8443/base\n"
                                         "mode=HEAVY\n"
                                         "name=\\u00DCn\\u00EF box\n"
                                         "description=\\ \\ two spaces \\= and \\# signs\\: \\\\ \\t "
                                         "\\u6587\\u4EF6 \\uD83D\\uDE00 \n"
                                         "connection=GATEWAY\n"
                                         "authMode=ACCOUNT\n"
                                         "accountEmail=user+tag@mail.example\n"
                                         "autoUpdate=false\n");
}

TEST_F(SettingsStoreTest, TheDefaultsAreSavedAsTheyAre) {
    EXPECT_TRUE(store_.save(Settings{}));

    EXPECT_EQ(readFile(properties_), std::string(kHeading) +
                                         "gatewayUrl=http\\://127.0.0.1\\:9090\nmode=LIGHT\nname=\n"
                                         "description=Quillmarsh native executor\nconnection=GATEWAY\n"
                                         "authMode=MANUAL\naccountEmail=\nautoUpdate=true\n");
}

TEST_F(SettingsStoreTest, EveryFieldComesBackFromASave) {
    const Settings before = unusualSettings();

    const Settings after = savedAndLoaded(before);

    EXPECT_EQ(after.gatewayUrl, before.gatewayUrl);
    EXPECT_EQ(after.mode, before.mode);
    EXPECT_EQ(after.name, before.name);
    EXPECT_EQ(after.description, before.description);
    EXPECT_EQ(after.executorToken, before.executorToken);
    EXPECT_EQ(after.autoUpdate, before.autoUpdate);
    EXPECT_EQ(after.connection, before.connection);
    EXPECT_EQ(after.authMode, before.authMode);
    EXPECT_EQ(after.accountEmail, before.accountEmail);
}

TEST_F(SettingsStoreTest, ADescriptionKeepsItsLeadingSpace) {
    Settings settings;
    settings.description = " leading";

    EXPECT_EQ(savedAndLoaded(settings).description, " leading");
}

TEST_F(SettingsStoreTest, TheTokenNeverStandsInThePropertiesFile) {
    Settings settings;
    settings.executorToken = "very-secret";

    EXPECT_TRUE(store_.save(settings));

    EXPECT_THAT(readFile(properties_), Not(HasSubstr("very-secret")));
    EXPECT_EQ(readFile(credential_), "dmVyeS1zZWNyZXQ=");
}

TEST_F(SettingsStoreTest, SavingAnEmptyTokenDeletesTheCredential) {
    Settings settings = savedAndLoaded(unusualSettings());
    ASSERT_TRUE(std::filesystem::exists(credential_));

    settings.executorToken = "";
    EXPECT_EQ(savedAndLoaded(settings).executorToken, "");

    EXPECT_FALSE(std::filesystem::exists(credential_));
}

TEST_F(SettingsStoreTest, AnAccountWithoutItsTokenIsSavedAsManual) {
    Settings settings = unusualSettings();
    settings.executorToken = "";

    EXPECT_EQ(savedAndLoaded(settings).authMode, "MANUAL");
}

TEST_F(SettingsStoreTest, AStandaloneAccountIsSavedAsManual) {
    Settings settings = unusualSettings();
    settings.connection = "STANDALONE";

    EXPECT_EQ(savedAndLoaded(settings).authMode, "MANUAL");
}

TEST_F(SettingsStoreTest, TheDirectoryIsCreatedWithItsParents) {
    const SettingsStore deep(directory_ / "a" / "b");

    EXPECT_TRUE(deep.save(unusualSettings()));

    EXPECT_EQ(deep.load().name, "Ünï box");
}

TEST_F(SettingsStoreTest, TheModesAreThoseOfTheUmaskAndOfTheOwnerAlone) {
    const mode_t before = ::umask(022);
    EXPECT_TRUE(store_.save(unusualSettings()));
    ::umask(before);

    EXPECT_EQ(std::filesystem::status(properties_).permissions(), std::filesystem::perms(0644));
    EXPECT_EQ(std::filesystem::status(credential_).permissions(), std::filesystem::perms(0600));
}

TEST_F(SettingsStoreTest, AFailingCredentialLeavesTheProperties) {
    writeFile(properties_, "name=old\n");
    const SettingsStore failing(directory_.path(),
                                CredentialStore(credential_, [](auto) { return std::optional<std::string>(); }));
    std::string error;

    EXPECT_FALSE(failing.save(unusualSettings(), &error));

    EXPECT_EQ(error, "credential protect failed");
    EXPECT_EQ(readFile(properties_), "name=old\n");
}

TEST_F(SettingsStoreTest, ACredentialThatCannotBeWrittenIsNamed) {
    std::filesystem::create_directory(credential_);
    writeFile(properties_, "name=old\n");
    std::string error;

    EXPECT_FALSE(store_.save(unusualSettings(), &error));

    EXPECT_EQ(error, "unable to write " + credential_.string());
    EXPECT_EQ(readFile(properties_), "name=old\n");
}

TEST_F(SettingsStoreTest, PropertiesThatCannotBeWrittenFailAfterTheCredential) {
    std::filesystem::create_directory(properties_);
    std::string error;

    EXPECT_FALSE(store_.save(unusualSettings(), &error));

    EXPECT_EQ(error, "unable to write executor.properties");
    EXPECT_EQ(store_.load().executorToken, "token-of-the-account");
}

TEST_F(SettingsStoreTest, AFullDiskLeavesTheOldProperties) {
    Settings settings = unusualSettings();
    ASSERT_TRUE(store_.save(settings));
    const std::string before = readFile(properties_);
    settings.description = std::string(2000, 'd');
    std::string error;
    {
        const test::FileSizeLimit limit(1000);
        EXPECT_FALSE(store_.save(settings, &error));
    }

    EXPECT_EQ(error, "unable to write executor.properties");
    EXPECT_EQ(readFile(properties_), before);
    EXPECT_EQ(store_.load().name, "Ünï box");
}

TEST_F(SettingsStoreTest, AFullDiskLeavesTheOldTokenAndTheOldProperties) {
    Settings settings = unusualSettings();
    ASSERT_TRUE(store_.save(settings));
    settings.name = "other";
    settings.executorToken = std::string(2000, 't');
    {
        const test::FileSizeLimit limit(1000);
        EXPECT_FALSE(store_.save(settings));
    }

    EXPECT_EQ(store_.load().executorToken, "token-of-the-account");
    EXPECT_EQ(store_.load().name, "Ünï box");
}

TEST_F(SettingsStoreTest, AFailureNeedsNobodyToHearOfIt) {
    std::filesystem::create_directory(properties_);

    EXPECT_FALSE(store_.save(Settings{}));
}

TEST_F(SettingsStoreTest, UnreadablePropertiesGiveTheDefaults) {
    ASSERT_EQ(::mkfifo(properties_.c_str(), 0600), 0);
    EXPECT_EQ(store_.load().gatewayUrl, "http://127.0.0.1:9090");

    std::filesystem::remove(properties_);
    std::filesystem::create_directory(properties_);
    EXPECT_EQ(store_.load().gatewayUrl, "http://127.0.0.1:9090");
}

TEST_F(SettingsStoreTest, ADamagedCredentialIsNoToken) {
    writeFile(credential_, "not base64!");

    EXPECT_EQ(store_.load().executorToken, "");
}

TEST_F(SettingsStoreTest, AnOldTokenMovesToItsOwnFile) {
    const Settings settings = loadedFrom("executorToken=legacy-token\nname=n\n");

    EXPECT_EQ(settings.executorToken, "legacy-token");
    EXPECT_EQ(readFile(credential_), "bGVnYWN5LXRva2Vu");
    EXPECT_THAT(readFile(properties_), HasSubstr("executorToken"));
    EXPECT_TRUE(store_.save(settings));
    EXPECT_THAT(readFile(properties_), Not(HasSubstr("executorToken")));
    EXPECT_EQ(store_.load().executorToken, "legacy-token");
}

TEST_F(SettingsStoreTest, TheCredentialComesBeforeAnOldToken) {
    writeFile(credential_, "bmV3");

    EXPECT_EQ(loadedFrom("executorToken=legacy-token\n").executorToken, "new");

    EXPECT_EQ(readFile(credential_), "bmV3");
}

TEST_F(SettingsStoreTest, AnOldTokenIsUsedThoughItCannotBeMoved) {
    std::filesystem::create_directory(credential_);

    EXPECT_EQ(loadedFrom("executorToken=legacy-token\n").executorToken, "legacy-token");
}

TEST_F(SettingsStoreTest, AnEmptyOldTokenIsNone) {
    EXPECT_EQ(loadedFrom("executorToken=\n").executorToken, "");
    EXPECT_FALSE(std::filesystem::exists(credential_));
}

TEST_F(SettingsStoreTest, TheIdentityIsMadeOnceAndKept) {
    const std::string nodeId = store_.load().nodeId;

    EXPECT_THAT(nodeId, testing::MatchesRegex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"));
    EXPECT_EQ(readFile(instanceId_), nodeId);
    EXPECT_EQ(store_.load().nodeId, nodeId);
    EXPECT_EQ(SettingsStore(directory_.path()).load().nodeId, nodeId);
}

TEST_F(SettingsStoreTest, TheIdentityIsReadWithoutWhitespaceAroundIt) {
    writeFile(instanceId_, " \t\f\r\nmy node\n\f ");

    EXPECT_EQ(store_.load().nodeId, "my node");

    EXPECT_EQ(readFile(instanceId_), " \t\f\r\nmy node\n\f ");
}

TEST_F(SettingsStoreTest, AnEmptyIdentityIsMadeAnew) {
    writeFile(instanceId_, " \n");

    const std::string nodeId = store_.load().nodeId;

    EXPECT_EQ(nodeId.size(), 36U);
    EXPECT_EQ(readFile(instanceId_), nodeId);
}

TEST_F(SettingsStoreTest, AnIdentityThatCannotBeKeptIsNewInEachRun) {
    std::filesystem::create_directory(instanceId_);

    const std::string first = store_.load().nodeId;
    const std::string second = store_.load().nodeId;

    EXPECT_EQ(first.size(), 36U);
    EXPECT_EQ(second.size(), 36U);
    EXPECT_NE(first, second);
}

TEST_F(SettingsStoreTest, APipeInPlaceOfAnyFileNeverBlocks) {
    for (const auto& file : {properties_, credential_, instanceId_})
        ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);

    EXPECT_EQ(store_.load().nodeId.size(), 36U);
    EXPECT_FALSE(store_.save(unusualSettings()));
}

TEST_F(SettingsStoreTest, TheIdentityCreatesTheDirectory) {
    const SettingsStore deep(directory_ / "a" / "b");

    const std::string nodeId = deep.load().nodeId;

    EXPECT_EQ(readFile(directory_ / "a" / "b" / "instance-id"), nodeId);
}

TEST_F(SettingsStoreTest, ADirectoryThatCannotBeMadeGivesTheDefaultsAndFailsToSave) {
    writeFile(directory_ / "file", "");
    const SettingsStore below(directory_ / "file" / "data");
    std::string error;

    EXPECT_EQ(below.load().mode, "LIGHT");
    EXPECT_FALSE(below.save(unusualSettings(), &error));

    EXPECT_EQ(error, "unable to write " + (directory_ / "file" / "data" / "executor-credential").string());
}

TEST_F(SettingsStoreTest, TheNameIsThatOfTheHostUntilItIsSaved) {
    std::array<char, 257> hostName{};
    ASSERT_EQ(::gethostname(hostName.data(), 256), 0);

    EXPECT_EQ(store_.load().name, deviceNameFromHostName(hostName.data()));
    EXPECT_FALSE(std::filesystem::exists(properties_));
}

TEST_F(SettingsStoreTest, EveryCutOfTheFileLoads) {
    ASSERT_TRUE(store_.save(unusualSettings()));
    const std::string whole = readFile(properties_);
    for (std::size_t size = 0; size <= whole.size(); ++size) {
        const Settings settings = loadedFrom(whole.substr(0, size));
        ASSERT_TRUE(settings.mode == "LIGHT" || settings.mode == "HEAVY") << size;
        ASSERT_EQ(settings.executorToken, "token-of-the-account");
    }
}

TEST_F(SettingsStoreTest, WithoutAHostNameTheNameIsAFixedWord) {
    test::withRefusedCalls({{SYS_uname, EPERM}}, [&] { EXPECT_EQ(store_.load().name, "device"); });
}

TEST(DeviceName, KeepsLettersDigitsDashesDotsAndUnderscores) {
    EXPECT_EQ(deviceNameFromHostName("azAZ09-._"), "azAZ09-._");
    EXPECT_EQ(deviceNameFromHostName("my box!"), "my-box-");
    EXPECT_EQ(deviceNameFromHostName("\xC3\x9C"), "--");
    EXPECT_EQ(deviceNameFromHostName("a/b:c@d[e`f{g"), "a-b-c-d-e-f-g");
}

TEST(DeviceName, IsAFixedWordWithoutAHostName) {
    EXPECT_EQ(deviceNameFromHostName(""), "device");
}

/// Sets or unsets an environment variable while it lives.
class EnvironmentValue {
public:
    EnvironmentValue(const char* name, const char* value) : name_(name) {
        if (const char* before = std::getenv(name)) before_ = before;
        put(value);
    }
    ~EnvironmentValue() { put(before_ ? before_->c_str() : nullptr); }
    EnvironmentValue(const EnvironmentValue&) = delete;
    EnvironmentValue& operator=(const EnvironmentValue&) = delete;

private:
    void put(const char* value) {
        if (value == nullptr) {
            ::unsetenv(name_);
        } else {
            ::setenv(name_, value, 1);
        }
    }

    const char* name_;
    std::optional<std::string> before_;
};

TEST(DefaultDataDirectory, IsTheVariablesValueAsItStands) {
    const EnvironmentValue directory("PLATFORM_EXECUTOR_DATA_DIR", "relative/dir/");
    const EnvironmentValue home("HOME", "/home/user");

    EXPECT_EQ(defaultDataDirectory().native(), "relative/dir/");
}

TEST(DefaultDataDirectory, StandsInHomeOtherwise) {
    const EnvironmentValue home("HOME", "/home/user");
    for (const char* value : {"", static_cast<const char*>(nullptr)}) {
        const EnvironmentValue directory("PLATFORM_EXECUTOR_DATA_DIR", value);
        EXPECT_EQ(defaultDataDirectory().native(), "/home/user/.platform-executor");
    }
}

TEST(DefaultDataDirectory, StandsInTheCurrentDirectoryWithoutAHome) {
    const EnvironmentValue directory("PLATFORM_EXECUTOR_DATA_DIR", nullptr);
    for (const char* value : {"", static_cast<const char*>(nullptr)}) {
        const EnvironmentValue home("HOME", value);
        EXPECT_EQ(defaultDataDirectory().native(), "./.platform-executor");
    }
}

}  // namespace
}  // namespace qm
