#include "core/credential_store.h"

#include <sys/stat.h>

#include <system_error>
#include <utility>

#include "util/base64.h"
#include "util/file_io.h"
#include "util/text.h"

namespace qm {
namespace {

constexpr mode_t kOwnerOnly = S_IRUSR | S_IWUSR;

bool fail(std::string* error, std::string message) {
    if (error != nullptr) *error = std::move(message);
    return false;
}

}  // namespace

std::optional<std::string> copyBytes(std::string_view bytes) {
    return std::string(bytes);
}

CredentialStore::CredentialStore(std::filesystem::path file, CredentialTransform protect, CredentialTransform unprotect)
    : file_(std::move(file)), protect_(std::move(protect)), unprotect_(std::move(unprotect)) {}

std::optional<std::string> CredentialStore::load() const {
    const auto text = readRegularFile(file_);
    if (!text) return std::nullopt;
    const auto bytes = base64Decode(trimmed(*text));
    if (!bytes) return std::nullopt;
    const auto token = unprotect_(*bytes);
    if (!token || trimmed(*token).empty()) return std::nullopt;
    return std::string(trimmed(*token));
}

bool CredentialStore::store(std::string_view token, std::string* error) const {
    const std::string_view stripped = trimmed(token);
    if (stripped.empty()) return remove() || fail(error, "unable to write " + file_.string());
    const auto bytes = protect_(stripped);
    if (!bytes) return fail(error, "credential protect failed");
    return write(base64Encode(*bytes)) || fail(error, "unable to write " + file_.string());
}

bool CredentialStore::remove() const {
    std::error_code error;
    std::filesystem::remove(file_, error);
    return !error;
}

bool CredentialStore::write(std::string_view text) const {
    // If the directory can't be made, opening the file below it fails too.
    std::error_code ignored;
    std::filesystem::create_directories(file_.parent_path(), ignored);
    return writeRegularFile(file_, text, kOwnerOnly);
}

}  // namespace qm
