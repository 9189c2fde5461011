#include "device/directory_reader.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <optional>

namespace qm {
namespace {

/// Holds some hundred names; the C library reads directories in pieces of this size too.
constexpr std::size_t kBufferBytes = 32768;

EntryType typeOfMode(mode_t mode) {
    if (S_ISREG(mode)) return EntryType::File;
    if (S_ISDIR(mode)) return EntryType::Directory;
    return S_ISLNK(mode) ? EntryType::Symlink : EntryType::Other;
}

/// Asks for the type only where the file system doesn't tell it with the name. Nothing if the name is gone; one whose
/// type nobody tells stays.
std::optional<EntryType> typeOf(const dirent64& entry, int directory) {
    if (entry.d_type != DT_UNKNOWN) return typeOfMode(static_cast<mode_t>(DTTOIF(entry.d_type)));
    struct stat status {};
    if (::fstatat(directory, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0) return typeOfMode(status.st_mode);
    if (errno == ENOENT) return std::nullopt;
    return EntryType::Other;
}

}  // namespace

const DirectoryEntry* DirectoryReader::next(std::error_code& error) {
    error.clear();
    while (position_ < end_ || fill(error)) {
        const auto* const entry = reinterpret_cast<const dirent64*>(buffer_.get() + position_);
        position_ += entry->d_reclen;
        place_ = entry->d_off;
        const std::string_view name = entry->d_name;
        if (name == "." || name == "..") continue;
        const auto type = typeOf(*entry, directory_.get());
        if (!type) continue;
        entry_ = {name, *type};
        return &entry_;
    }
    return nullptr;
}

bool DirectoryReader::fill(std::error_code& error) {
    if (!buffer_) buffer_ = std::make_unique_for_overwrite<char[]>(kBufferBytes);
    const ssize_t bytes = ::getdents64(directory_.get(), buffer_.get(), kBufferBytes);
    if (bytes < 0) error = {errno, std::generic_category()};
    position_ = 0;
    end_ = bytes > 0 ? static_cast<std::size_t>(bytes) : 0;
    return bytes > 0;
}

UniqueFd DirectoryReader::release() {
    buffer_.reset();
    position_ = end_ = 0;
    return std::move(directory_);
}

bool DirectoryReader::resume(UniqueFd directory) {
    directory_ = std::move(directory);
    return ::lseek(directory_.get(), place_, SEEK_SET) == place_;
}

}  // namespace qm
