#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <string_view>

#include "core/credential_store.h"
#include "core/settings.h"

namespace qm {

/// Where an executor keeps its files unless it is told otherwise: the environment variable
/// PLATFORM_EXECUTOR_DATA_DIR, or else ".platform-executor" in HOME, or else in the current directory.
std::filesystem::path defaultDataDirectory();

/// The name that a device has until it is given one: its host name with "-" in place of every character but ASCII
/// letters, digits, "-", "." and "_"; "device" if it is empty.
std::string deviceNameFromHostName(std::string_view hostName);

/// Loads and saves the settings of one data directory: `executor.properties`, `executor-credential` and
/// `instance-id`. Caches nothing: each load reads the files. Two threads must not save at once.
class SettingsStore {
public:
    explicit SettingsStore(std::filesystem::path dataDirectory);
    /// With another credential store than the default one on `executor-credential` in the directory.
    SettingsStore(std::filesystem::path dataDirectory, CredentialStore credentials);

    /// The saved settings; what is missing or damaged has its default. Creates `instance-id` if there is none, and
    /// moves a token that an old properties file still holds to its own file; a failure of either is ignored.
    Settings load() const;

    /// Saves the token, then the rest. On failure false, and `error` (may be null) has the credential store's message
    /// or "unable to write executor.properties". The properties are written in place; a failed token leaves them.
    bool save(const Settings& settings, std::string* error = nullptr) const;

    const std::filesystem::path& dataDirectory() const { return dataDirectory_; }

private:
    std::string loadToken(const std::map<std::string, std::string>& properties) const;
    std::string loadNodeId() const;
    void createDataDirectory() const;

    std::filesystem::path dataDirectory_;
    CredentialStore credentials_;
};

}  // namespace qm
