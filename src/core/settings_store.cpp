#include "core/settings_store.h"

#include <algorithm>
#include <cstdlib>
#include <system_error>
#include <utility>

#include "device/system_probes.h"
#include "util/file_io.h"
#include "util/properties.h"
#include "util/random_id.h"
#include "util/text.h"

namespace qm {
namespace {

constexpr char kPropertiesFile[] = "executor.properties";
constexpr char kCredentialFile[] = "executor-credential";
constexpr char kInstanceIdFile[] = "instance-id";
constexpr char kHeading[] = "# quillmarsh Executor local settings (credential stored separately)\n";
/// Key under which old properties files kept the token.
constexpr char kLegacyTokenKey[] = "executorToken";

std::string environmentValue(const char* name) {
    const char* value = std::getenv(name);
    return value == nullptr ? "" : value;
}

bool keepsItsPlaceInName(char character) {
    return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
           (character >= '0' && character <= '9') || character == '-' || character == '.' || character == '_';
}

/// Overwrites the fields that `properties` has a value for. An empty value counts as none.
void applyProperties(Settings& settings, const std::map<std::string, std::string>& properties) {
    const auto apply = [&](const char* key, auto&& assign) {
        const auto property = properties.find(key);
        if (property != properties.end() && !property->second.empty()) assign(property->second);
    };
    apply("gatewayUrl", [&](const std::string& value) { settings.gatewayUrl = withoutTrailingSlashes(value); });
    apply("mode", [&](const std::string& value) { settings.mode = canonicalMode(value); });
    apply("name", [&](const std::string& value) { settings.name = value; });
    apply("description", [&](const std::string& value) { settings.description = value; });
    apply("connection", [&](const std::string& value) { settings.connection = canonicalConnection(value); });
    apply("authMode", [&](const std::string& value) { settings.authMode = canonicalAuthMode(value); });
    apply("accountEmail", [&](const std::string& value) { settings.accountEmail = value; });
    apply("autoUpdate", [&](const std::string& value) { settings.autoUpdate = !equalsIgnoreCase(value, "false"); });
}

std::string propertiesText(const Settings& settings) {
    return kHeading + propertiesLine("gatewayUrl", settings.gatewayUrl) +
           propertiesLine("mode", canonicalMode(settings.mode)) + propertiesLine("name", settings.name) +
           propertiesLine("description", settings.description) +
           propertiesLine("connection", canonicalConnection(settings.connection)) +
           propertiesLine("authMode", settings.isOnAccount() ? "ACCOUNT" : "MANUAL") +
           propertiesLine("accountEmail", settings.accountEmail) +
           propertiesLine("autoUpdate", settings.autoUpdate ? "true" : "false");
}

}  // namespace

std::filesystem::path defaultDataDirectory() {
    if (const std::string directory = environmentValue("PLATFORM_EXECUTOR_DATA_DIR"); !directory.empty()) {
        return directory;
    }
    const std::string home = environmentValue("HOME");
    return std::filesystem::path(home.empty() ? "." : home) / ".platform-executor";
}

std::string deviceNameFromHostName(std::string_view hostName) {
    if (hostName.empty()) return "device";
    std::string name(hostName);
    std::replace_if(
        name.begin(), name.end(), [](char character) { return !keepsItsPlaceInName(character); }, '-');
    return name;
}

SettingsStore::SettingsStore(std::filesystem::path dataDirectory)
    : dataDirectory_(std::move(dataDirectory)), credentials_(dataDirectory_ / kCredentialFile) {}

SettingsStore::SettingsStore(std::filesystem::path dataDirectory, CredentialStore credentials)
    : dataDirectory_(std::move(dataDirectory)), credentials_(std::move(credentials)) {}

Settings SettingsStore::load() const {
    const auto properties = readPropertiesFile(dataDirectory_ / kPropertiesFile);
    Settings settings;
    applyProperties(settings, properties);
    if (settings.name.empty()) settings.name = deviceNameFromHostName(hostName().value_or(""));
    settings.executorToken = loadToken(properties);
    settings.nodeId = loadNodeId();
    return settings;
}

bool SettingsStore::save(const Settings& settings, std::string* error) const {
    if (!credentials_.store(settings.executorToken, error)) return false;
    createDataDirectory();
    if (writeRegularFile(dataDirectory_ / kPropertiesFile, propertiesText(settings))) return true;
    if (error != nullptr) *error = "unable to write executor.properties";
    return false;
}

std::string SettingsStore::loadToken(const std::map<std::string, std::string>& properties) const {
    if (auto token = credentials_.load()) return *std::move(token);
    const auto legacy = properties.find(kLegacyTokenKey);
    if (legacy == properties.end() || legacy->second.empty()) return {};
    credentials_.store(legacy->second);
    return legacy->second;
}

std::string SettingsStore::loadNodeId() const {
    const auto file = dataDirectory_ / kInstanceIdFile;
    const std::string saved = readRegularFile(file).value_or("");
    if (const std::string_view nodeId = trimmed(saved); !nodeId.empty()) return std::string(nodeId);
    std::string nodeId = randomUuid();
    createDataDirectory();
    writeRegularFile(file, nodeId);
    return nodeId;
}

void SettingsStore::createDataDirectory() const {
    // If it can't be made, what is written below it fails and says so.
    std::error_code ignored;
    std::filesystem::create_directories(dataDirectory_, ignored);
}

}  // namespace qm
