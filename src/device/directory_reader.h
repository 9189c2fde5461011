#pragma once

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string_view>
#include <system_error>

#include "util/unique_fd.h"

namespace qm {

enum class EntryType { File, Directory, Symlink, Other };

/// One name of a directory and what it stands for, links not followed.
struct DirectoryEntry {
    std::string_view name;  ///< Ends with a NUL behind it. Valid until the reader is asked for the next one.
    EntryType type = EntryType::Other;
};

/// Reads the names in a directory, without "." and "..", in the order of the kernel. One thread at a time.
class DirectoryReader {
public:
    /// `directory` must be open for reading.
    explicit DirectoryReader(UniqueFd directory) : directory_(std::move(directory)) {}

    /// The next entry, or null at the end and on an error, which `error` then tells. Names that vanish while they are
    /// read are left out.
    const DirectoryEntry* next(std::error_code& error);

    /// The directory's descriptor, for the *at calls; -1 while released.
    int descriptor() const { return directory_.get(); }

    /// Gives the descriptor away and frees the memory, but keeps the place.
    UniqueFd release();
    /// Goes on at that place; `directory` is the same directory, opened anew. Whether it could be done.
    bool resume(UniqueFd directory);

private:
    bool fill(std::error_code& error);

    UniqueFd directory_;
    std::unique_ptr<char[]> buffer_;
    std::size_t position_ = 0;
    std::size_t end_ = 0;
    off_t place_ = 0;  ///< The kernel's cookie behind the last entry handed out.
    DirectoryEntry entry_;
};

}  // namespace qm
