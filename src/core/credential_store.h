#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace qm {

/// Turns the token into what its file holds, or back; nothing means that it couldn't.
using CredentialTransform = std::function<std::optional<std::string>(std::string_view bytes)>;

/// The bytes unchanged: on this platform the secrecy of the token rests on the mode of its file alone.
std::optional<std::string> copyBytes(std::string_view bytes);

/// Keeps the executor token in a file of its own, as one line of base64 that only its owner may read. Holds no state
/// but the path; two threads must not store at once.
class CredentialStore {
public:
    /// `protect` and `unprotect` are the place for a platform's key store.
    explicit CredentialStore(std::filesystem::path file, CredentialTransform protect = copyBytes,
                             CredentialTransform unprotect = copyBytes);

    /// The token without surrounding whitespace, never empty; nothing if there is none or the file is damaged.
    std::optional<std::string> load() const;

    /// Stores `token` without surrounding whitespace, creating the directory; an empty one deletes the file. On failure
    /// false, and `error` (may be null) says "credential protect failed" or "unable to write " and the path.
    bool store(std::string_view token, std::string* error = nullptr) const;

private:
    bool remove() const;
    bool write(std::string_view text) const;

    std::filesystem::path file_;
    CredentialTransform protect_;
    CredentialTransform unprotect_;
};

}  // namespace qm
