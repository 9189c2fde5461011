#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "device/directory_reader.h"
#include "util/unique_fd.h"

namespace qm {

/// Everything below a directory, one entry at a time: each directory before its content, names in the kernel's order.
///
/// Symbolic links aren't followed, and directories that may not be entered are passed over. However deep the tree, the
/// walk takes no stack and only some descriptors: directories farther up are closed and, on the way back, opened again
/// through their child's "..". One thread at a time.
class TreeWalk {
public:
    struct Entry {
        std::string_view path;  ///< From the start of the walk, with "/".
        std::string_view name;  ///< The last component; ends with a NUL behind it.
        EntryType type = EntryType::Other;
        int directory = -1;  ///< Descriptor of the directory that holds `name`, for the *at calls.
    };

    static constexpr std::size_t kOpenDirectories = 32;

    /// `start` must be open for reading. At most `openDirectories` (one or more) are open at a time, and one more on
    /// the way from one to the next.
    explicit TreeWalk(UniqueFd start, std::size_t openDirectories = kOpenDirectories);

    /// The next entry, valid until the next call; null at the end. Throws std::system_error, and the walk is over, for
    /// a directory that it must not pass over, see passOverOrThrow(), and where the way back is lost because somebody
    /// moved a directory meanwhile.
    const Entry* next();

    /// Leaves out what is below the directory that next() has just returned.
    void skipContent() { descend_ = false; }

private:
    struct Level {
        DirectoryReader reader;
        std::size_t prefixBytes;  ///< How much of path_ leads to this directory, its "/" included.
        dev_t device = 0;         ///< Known while the level is closed, to recognise the directory again.
        ino_t inode = 0;
    };

    void enter();
    void closeOutermost();
    /// Goes back to the directory above.
    void leave();

    std::size_t openDirectories_;
    std::vector<Level> levels_;
    std::size_t closedLevels_ = 0;  ///< So many of the outermost levels have no descriptor at the moment.
    std::string path_;
    Entry entry_;
    bool descend_ = false;
};

}  // namespace qm
